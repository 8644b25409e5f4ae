#pragma once
// What the test suites share: capture of the library's log lines, temporary
// folders, registry keys and values that clean up after themselves, starting
// the helper programs that live beside the test executables, and redirecting
// a module's imports where the platform cannot show what the library does.

#include <windows.h>

#include "QXDbgLog.h"

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

// Expects a log line with exactly this text (and, if given, function and level).
#define EXPECT_LOGGED(capture, ...) EXPECT_TRUE((capture).Has(__VA_ARGS__)) << (capture).Dump()

namespace QXTest
{
struct NoCopy // what owns a resource is not copied
{
    NoCopy() = default;
    NoCopy(const NoCopy&) = delete;
    NoCopy& operator=(const NoCopy&) = delete;
};

struct LogEntry
{
    int level = 0;
    std::string file;
    int line = 0;
    std::string function;
    std::wstring text;
};

// Captures every line the library logs while the object lives: switches the
// debugger output on (and restores it afterwards) and attaches a sink.
// Captures are not nested.
class LogCapture : NoCopy
{
public:
    LogCapture();
    ~LogCapture();

    std::vector<LogEntry> Entries() const;
    void Clear();
    size_t Count() const { return Entries().size(); }
    // True when some line has exactly this text (and, if given, this function / level).
    bool Has(const std::wstring& text) const { return Any([&](auto& e) { return e.text == text; }); }
    bool Has(const std::string& function, const std::wstring& text) const { return Has(-1, function, text); }
    bool Has(int level, const std::string& function, const std::wstring& text) const;
    // True when some line's text contains the fragment.
    bool HasFragment(const std::wstring& part) const { return Any([&](auto& e) { return e.text.find(part) != e.text.npos; }); }
    // All lines, one per line, for failure messages.
    std::string Dump() const;

private:
    static void Sink(void* context, const QXDbgLogRecord& record);
    bool Any(const std::function<bool(const LogEntry&)>& test) const;

    mutable std::mutex m_mutex;
    std::vector<LogEntry> m_entries;
    bool m_previousDebugger;
    void *m_previousContext, *m_previousSink;
};

// A folder under %TEMP%, removed with everything in it on destruction.
class TempDir : NoCopy
{
public:
    TempDir();
    ~TempDir();

    const std::wstring& Path() const { return m_path; }
    std::wstring File(const std::wstring& name) const { return m_path + L"\\" + name; }
    // Writes the bytes to a file in the folder and returns its path.
    std::wstring Write(const std::wstring& name, const std::string& bytes) const;
    // A sparse file of `size` bytes holding each piece's bytes at its offset
    // and zeros elsewhere: gigabytes that cost nothing on disk.
    std::wstring WriteSparse(const std::wstring& name, ULONGLONG size,
                             const std::vector<std::pair<ULONGLONG, std::string>>& pieces) const;
    std::wstring MakeDir(const std::wstring& name) const;

private:
    std::wstring m_path;
};

// A registry key made for one test under HKCU\Software\QXCommonTests,
// deleted with its sub-keys on destruction.
class TestRegKey : NoCopy
{
public:
    TestRegKey();
    ~TestRegKey();

    HKEY Root() const { return HKEY_CURRENT_USER; }
    HKEY Handle() const { return m_key; }
    const std::wstring& SubKey() const { return m_subKey; } // relative to Root()
    // Writes a value with exactly these bytes and this type.
    void SetRaw(const std::wstring& name, DWORD type, const void* data, DWORD bytes) const;
    void SetString(const std::wstring& name, const std::wstring& value) const
    {
        SetRaw(name, REG_SZ, value.c_str(), static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
    }
    void CreateSubKey(const std::wstring& name) const;

private:
    std::wstring m_subKey;
    HKEY m_key = nullptr;
};

// A registry value that is put back as it was on destruction (removed when
// it did not exist, with its key when that did not exist either).
class SavedRegValue : NoCopy
{
public:
    SavedRegValue(HKEY root, const std::wstring& subKey, const std::wstring& name);
    ~SavedRegValue();

    // Writes the value, creating the key; REG_NONE removes it. False when refused.
    bool Set(DWORD type, const void* data = nullptr, DWORD bytes = 0) const;
    bool SetString(const std::wstring& value) const
    {
        return Set(REG_SZ, value.c_str(), static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
    }

private:
    HKEY m_root;
    std::wstring m_subKey, m_name;
    bool m_keyExisted = false, m_valueExisted = false;
    DWORD m_type = 0;
    std::vector<BYTE> m_data;
};

struct ProcessResult
{
    DWORD exitCode = 0xFFFFFFFF;
    std::string output; // standard output and standard error, as bytes
};

// The folder of the running test executable (helper programs live there).
std::wstring ModuleDir();
// Full path of a helper program built from Tests/Programs.
inline std::wstring HelperPath(const std::wstring& exeName) { return ModuleDir() + L"\\" + exeName; }
// Runs a command line, collects its output, waits (killing it on time-out).
// With a primary token the program runs under it (CreateProcessAsUserW).
ProcessResult RunProcess(const std::wstring& commandLine, DWORD timeoutMs = 60000, HANDLE token = nullptr);
// Runs qxinspect.exe (beside the tests) with the arguments.
inline ProcessResult RunInspect(const std::wstring& arguments)
{
    return RunProcess(L"\"" + HelperPath(L"qxinspect.exe") + L"\" " + arguments);
}

// The value the system gives the next handle this process opens. Wine hands
// out the lowest free slot and answers 0 to GetProcessHandleCount, so a leak
// of n handles between two calls moves this value by 4·n.
uintptr_t NextHandleSlot();

// Points every import of dll!function in a loaded module at a replacement
// while the object lives.
class ImportPatch : NoCopy
{
public:
    ImportPatch(const wchar_t* module, const char* dll, const char* function, void* replacement);
    ~ImportPatch();

    bool Installed() const { return !m_entries.empty(); }

private:
    std::vector<void**> m_entries;
    void* m_original = nullptr;
};

std::string Narrow(const std::wstring& text); // UTF-8
std::wstring Widen(const std::string& text);  // from UTF-8
} // namespace QXTest
