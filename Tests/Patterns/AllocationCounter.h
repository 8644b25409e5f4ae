#pragma once
// Counts the C runtime allocations of QXCommon.dll and of the C++ runtime
// (libstdc++-6.dll, where operator new lands): while the counter lives, the
// malloc/calloc/realloc entries of both modules' import tables point at
// counting wrappers. A test executable's own operator new replacement would
// not see allocations made inside the DLL; the import tables do.

#include <windows.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

namespace QXTest
{
class AllocationCounter
{
public:
    AllocationCounter()
    {
        const wchar_t* modules[] = {L"QXCommon.dll", L"libstdc++-6.dll"};
        for (const wchar_t* name : modules)
        {
            HMODULE module = GetModuleHandleW(name);
            if (module == nullptr)
                continue;
            Patch(module, "malloc", reinterpret_cast<void*>(&CountingMalloc), reinterpret_cast<void**>(&s_malloc));
            Patch(module, "calloc", reinterpret_cast<void*>(&CountingCalloc), reinterpret_cast<void**>(&s_calloc));
            Patch(module, "realloc", reinterpret_cast<void*>(&CountingRealloc),
                  reinterpret_cast<void**>(&s_realloc));
        }
    }
    ~AllocationCounter()
    {
        for (const auto& [entry, original] : m_patched)
            Write(entry, original);
    }
    AllocationCounter(const AllocationCounter&) = delete;
    AllocationCounter& operator=(const AllocationCounter&) = delete;

    // True when at least malloc of both modules is hooked.
    bool Installed() const { return m_mallocPatches >= 2; }
    void Reset() { s_count = 0; }
    size_t Count() const { return s_count.load(); }

private:
    static inline std::atomic<size_t> s_count{0};
    static inline void* (*s_malloc)(size_t) = nullptr;
    static inline void* (*s_calloc)(size_t, size_t) = nullptr;
    static inline void* (*s_realloc)(void*, size_t) = nullptr;

    static void* CountingMalloc(size_t size) { ++s_count; return s_malloc(size); }
    static void* CountingCalloc(size_t count, size_t size) { ++s_count; return s_calloc(count, size); }
    static void* CountingRealloc(void* block, size_t size) { ++s_count; return s_realloc(block, size); }

    static void Write(void** entry, void* value)
    {
        DWORD oldProtect = 0;
        if (VirtualProtect(entry, sizeof(void*), PAGE_READWRITE, &oldProtect))
        {
            *entry = value;
            VirtualProtect(entry, sizeof(void*), oldProtect, &oldProtect);
        }
    }

    // Points the module's import of msvcrt!function at the hook.
    void Patch(HMODULE module, const char* function, void* hook, void** original)
    {
        auto* base = reinterpret_cast<BYTE*>(module);
        auto* dos = reinterpret_cast<IMAGE_DOS_HEADER*>(base);
        auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
        const IMAGE_DATA_DIRECTORY& directory = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
        if (directory.VirtualAddress == 0)
            return;
        for (auto* import = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + directory.VirtualAddress);
             import->Name != 0; ++import)
        {
            if (_stricmp(reinterpret_cast<const char*>(base + import->Name), "msvcrt.dll") != 0)
                continue;
            auto* names = reinterpret_cast<IMAGE_THUNK_DATA*>(base + import->OriginalFirstThunk);
            auto* addresses = reinterpret_cast<IMAGE_THUNK_DATA*>(base + import->FirstThunk);
            for (; names->u1.AddressOfData != 0; ++names, ++addresses)
            {
                if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal))
                    continue;
                auto* byName = reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
                if (std::strcmp(reinterpret_cast<const char*>(byName->Name), function) != 0)
                    continue;
                void** entry = reinterpret_cast<void**>(&addresses->u1.Function);
                if (*original == nullptr)
                    *original = *entry;
                m_patched.push_back({entry, *entry});
                Write(entry, hook);
                if (std::strcmp(function, "malloc") == 0)
                    ++m_mallocPatches;
            }
        }
    }

    std::vector<std::pair<void**, void*>> m_patched;
    int m_mallocPatches = 0;
};
} // namespace QXTest
