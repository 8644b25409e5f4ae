#include "QXTestSupport.h"

#include <atlbase.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <stdexcept>

namespace QXTest
{
namespace
{
std::atomic<unsigned> g_counter{0};

// A failed step of a test's setup ends the test with its reason.
void Check(bool ok, const std::string& what, DWORD error = GetLastError())
{
    if (!ok)
        throw std::runtime_error(what + " failed - error " + std::to_string(error));
}

std::wstring Unique(const std::wstring& prefix)
{
    return prefix + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++g_counter);
}
} // namespace

LogCapture::LogCapture()
{
    CQXDbgManager* manager = GetDbgManager();
    m_previousDebugger = manager->GetDebuggerOutput();
    m_previousSink = reinterpret_cast<void*>(manager->SetSink(&LogCapture::Sink, this, &m_previousContext));
    manager->SetDebuggerOutput(true);
}

LogCapture::~LogCapture()
{
    GetDbgManager()->SetDebuggerOutput(m_previousDebugger);
    GetDbgManager()->SetSink(reinterpret_cast<QXDbgLogSink>(m_previousSink), m_previousContext);
}

void LogCapture::Sink(void* context, const QXDbgLogRecord& record)
{
    auto* self = static_cast<LogCapture*>(context);
    std::lock_guard<std::mutex> guard(self->m_mutex);
    self->m_entries.push_back({record.level, record.file ? record.file : "", record.line,
                               record.function ? record.function : "", record.message ? record.message : L""});
}

std::vector<LogEntry> LogCapture::Entries() const
{
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_entries;
}

void LogCapture::Clear()
{
    std::lock_guard<std::mutex> guard(m_mutex);
    m_entries.clear();
}

bool LogCapture::Any(const std::function<bool(const LogEntry&)>& test) const
{
    const auto entries = Entries();
    return std::any_of(entries.begin(), entries.end(), test);
}

bool LogCapture::Has(int level, const std::string& function, const std::wstring& text) const
{
    return Any([&](auto& e) { return (level < 0 || e.level == level) && e.function == function && e.text == text; });
}

std::string LogCapture::Dump() const
{
    std::string out;
    for (const auto& e : Entries())
        out += "  L" + std::to_string(e.level) + " " + e.file + "(" + std::to_string(e.line) + ") " + e.function +
               ": " + Narrow(e.text) + (e.text.empty() || e.text.back() != L'\n' ? "\n" : "");
    return out;
}

TempDir::TempDir()
{
    do
        m_path = Unique((std::filesystem::temp_directory_path() / L"qxtest-").wstring());
    while (!CreateDirectoryW(m_path.c_str(), nullptr) && GetLastError() == ERROR_ALREADY_EXISTS);
    Check(GetFileAttributesW(m_path.c_str()) != INVALID_FILE_ATTRIBUTES, "CreateDirectoryW");
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::wstring TempDir::Write(const std::wstring& name, const std::string& bytes) const
{
    std::wstring path = File(name);
    ATL::CHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    Check(file != INVALID_HANDLE_VALUE, "CreateFileW " + Narrow(path));
    DWORD written = 0;
    Check(bytes.empty() || WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr),
          "WriteFile " + Narrow(path));
    return path;
}

std::wstring TempDir::WriteSparse(const std::wstring& name, ULONGLONG size,
                                  const std::vector<std::pair<ULONGLONG, std::string>>& pieces) const
{
    std::wstring path = File(name);
    ATL::CHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    Check(file != INVALID_HANDLE_VALUE, "CreateFileW " + Narrow(path));
    DWORD ignored = 0; // NTFS makes a file sparse only when asked; files on Unix are anyway
    DeviceIoControl(file, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &ignored, nullptr);
    auto seek = [&](ULONGLONG offset) {
        Check(SetFilePointerEx(file, LARGE_INTEGER{.QuadPart = static_cast<LONGLONG>(offset)}, nullptr, FILE_BEGIN) != FALSE,
              "SetFilePointerEx " + Narrow(path));
    };
    for (const auto& [offset, bytes] : pieces)
    {
        seek(offset);
        DWORD written = 0;
        Check(WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) != FALSE, "WriteFile " + Narrow(path));
    }
    seek(size);
    Check(SetEndOfFile(file) != FALSE, "SetEndOfFile " + Narrow(path));
    return path;
}

std::wstring TempDir::MakeDir(const std::wstring& name) const
{
    std::wstring path = File(name);
    Check(CreateDirectoryW(path.c_str(), nullptr) || GetLastError() == ERROR_ALREADY_EXISTS, "CreateDirectoryW");
    return path;
}

TestRegKey::TestRegKey() : m_subKey(Unique(L"Software\\QXCommonTests\\"))
{
    const LONG status = RegCreateKeyExW(Root(), m_subKey.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &m_key, nullptr);
    Check(status == ERROR_SUCCESS, "RegCreateKeyExW", status);
}

TestRegKey::~TestRegKey()
{
    RegCloseKey(m_key);
    RegDeleteTreeW(Root(), m_subKey.c_str()); // the key with everything below it
}

void TestRegKey::SetRaw(const std::wstring& name, DWORD type, const void* data, DWORD bytes) const
{
    const LONG status = RegSetValueExW(m_key, name.c_str(), 0, type, static_cast<const BYTE*>(data), bytes);
    Check(status == ERROR_SUCCESS, "RegSetValueExW", status);
}

void TestRegKey::CreateSubKey(const std::wstring& name) const
{
    const LONG status = ATL::CRegKey().Create(m_key, name.c_str());
    Check(status == ERROR_SUCCESS, "RegCreateKeyExW", status);
}

SavedRegValue::SavedRegValue(HKEY root, const std::wstring& subKey, const std::wstring& name)
    : m_root(root), m_subKey(subKey), m_name(name)
{
    ATL::CRegKey key;
    m_keyExisted = key.Open(m_root, m_subKey.c_str(), KEY_READ) == ERROR_SUCCESS;
    DWORD bytes = 0;
    if (!m_keyExisted || RegQueryValueExW(key, m_name.c_str(), nullptr, &m_type, nullptr, &bytes) != ERROR_SUCCESS)
        return;
    m_data.resize(bytes);
    m_valueExisted = RegQueryValueExW(key, m_name.c_str(), nullptr, &m_type, m_data.data(), &bytes) == ERROR_SUCCESS;
}

SavedRegValue::~SavedRegValue()
{
    if (!m_keyExisted)
        RegDeleteTreeW(m_root, m_subKey.c_str());
    else
        Set(m_valueExisted ? m_type : REG_NONE, m_data.data(), static_cast<DWORD>(m_data.size()));
}

bool SavedRegValue::Set(DWORD type, const void* data, DWORD bytes) const
{
    ATL::CRegKey key;
    if (key.Create(m_root, m_subKey.c_str()) != ERROR_SUCCESS)
        return false;
    if (type == REG_NONE)
        return key.DeleteValue(m_name.c_str()) != ERROR_ACCESS_DENIED;
    return RegSetValueExW(key, m_name.c_str(), 0, type, static_cast<const BYTE*>(data), bytes) == ERROR_SUCCESS;
}

std::wstring ModuleDir()
{
    wchar_t path[32768];
    std::wstring dir(path, GetModuleFileNameW(nullptr, path, 32768));
    return dir.substr(0, dir.find_last_of(L"\\/"));
}

ProcessResult RunProcess(const std::wstring& commandLine, DWORD timeoutMs, HANDLE token)
{
    // The child writes its standard output and error into a temporary file
    // that goes with the last handle: no pipe it could fill, no reader thread.
    ProcessResult result;
    SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
    const std::wstring outputPath = Unique((std::filesystem::temp_directory_path() / L"qxout-").wstring());
    ATL::CHandle output(CreateFileW(outputPath.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE
                                    | FILE_SHARE_DELETE, &sa, CREATE_ALWAYS, FILE_FLAG_DELETE_ON_CLOSE, nullptr));
    STARTUPINFOW si{.cb = sizeof si, .dwFlags = STARTF_USESTDHANDLES, .hStdInput = GetStdHandle(STD_INPUT_HANDLE),
                    .hStdOutput = output, .hStdError = output};
    PROCESS_INFORMATION pi{};
    std::wstring mutableLine = commandLine;
    // A start that fails on a loaded machine is tried again.
    bool created = false;
    for (int attempt = 0; attempt < 3 && !created && output != INVALID_HANDLE_VALUE; ++attempt)
        created = (token != nullptr ? CreateProcessAsUserW(token, nullptr, mutableLine.data(), nullptr, nullptr, TRUE,
                                                           0, nullptr, nullptr, &si, &pi)
                                    : CreateProcessW(nullptr, mutableLine.data(), nullptr, nullptr, TRUE, 0, nullptr,
                                                     nullptr, &si, &pi)) ||
                  (Sleep(100), false);
    if (!created)
        return {0xFFFFFFFF, "not started - error " + std::to_string(GetLastError())};
    ATL::CHandle process(pi.hProcess), mainThread(pi.hThread);
    if (WaitForSingleObject(process, timeoutMs) == WAIT_TIMEOUT && TerminateProcess(process, 0xDEAD))
        WaitForSingleObject(process, 5000);
    GetExitCodeProcess(process, &result.exitCode);
    char buffer[65536];
    DWORD got = 0;
    SetFilePointer(output, 0, nullptr, FILE_BEGIN);
    while (ReadFile(output, buffer, sizeof buffer, &got, nullptr) && got > 0)
        result.output.append(buffer, got);
    return result;
}

uintptr_t NextHandleSlot()
{
    ATL::CHandle probe(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    return reinterpret_cast<uintptr_t>(static_cast<HANDLE>(probe));
}

namespace
{
void WriteEntry(void** entry, void* value)
{
    DWORD protect = 0;
    if (VirtualProtect(entry, sizeof(void*), PAGE_READWRITE, &protect))
    {
        *entry = value;
        VirtualProtect(entry, sizeof(void*), protect, &protect);
    }
}
} // namespace

ImportPatch::ImportPatch(const wchar_t* module, const char* dll, const char* function, void* replacement)
{
    auto* base = reinterpret_cast<BYTE*>(GetModuleHandleW(module));
    if (base == nullptr)
        return;
    auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
    const IMAGE_DATA_DIRECTORY& imports = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    for (auto* import = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + imports.VirtualAddress);
         imports.VirtualAddress != 0 && import->Name != 0; ++import)
    {
        if (_stricmp(reinterpret_cast<const char*>(base + import->Name), dll) != 0)
            continue;
        auto* names = reinterpret_cast<IMAGE_THUNK_DATA*>(base + import->OriginalFirstThunk);
        auto* addresses = reinterpret_cast<IMAGE_THUNK_DATA*>(base + import->FirstThunk);
        for (; names->u1.AddressOfData != 0; ++names, ++addresses)
            if (!IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal) &&
                strcmp(reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData)->Name, function) == 0)
            {
                m_original = reinterpret_cast<void*>(addresses->u1.Function);
                m_entries.push_back(reinterpret_cast<void**>(&addresses->u1.Function));
                WriteEntry(m_entries.back(), replacement);
            }
    }
}

ImportPatch::~ImportPatch()
{
    for (void** entry : m_entries)
        WriteEntry(entry, m_original);
}

std::string Narrow(const std::wstring& text)
{
    std::string out(text.size() * 3, '\0');
    out.resize(WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(),
                                   static_cast<int>(out.size()), nullptr, nullptr));
    return out;
}

std::wstring Widen(const std::string& text)
{
    std::wstring out(text.size(), L'\0');
    out.resize(MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(),
                                   static_cast<int>(out.size())));
    return out;
}
} // namespace QXTest
