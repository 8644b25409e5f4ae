#pragma once
// What the test suites share: capture of the library's log lines, temporary
// folders and registry keys that clean up after themselves, and starting the
// helper programs that live beside the test executables.

#include <windows.h>

#include "QXDbgLog.h"

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace QXTest
{
// One captured log line.
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
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogEntry> Entries() const;
    void Clear();
    size_t Count() const;
    // True when some line has exactly this text (and, if given, this function / level).
    bool Has(const std::wstring& text) const;
    bool Has(const std::string& function, const std::wstring& text) const;
    bool Has(int level, const std::string& function, const std::wstring& text) const;
    // True when some line's text contains the fragment.
    bool HasFragment(const std::wstring& fragment) const;
    // All lines, one per line, for failure messages.
    std::string Dump() const;

private:
    static void Sink(void* context, const QXDbgLogRecord& record);

    mutable std::mutex m_mutex;
    std::vector<LogEntry> m_entries;
    bool m_previousDebugger;
    void* m_previousContext;
    void* m_previousSink;
};

// A folder under %TEMP%, removed with everything in it on destruction.
class TempDir
{
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::wstring& Path() const { return m_path; }
    std::wstring File(const std::wstring& name) const { return m_path + L"\\" + name; }
    // Writes the bytes to a file in the folder and returns its path.
    std::wstring Write(const std::wstring& name, const std::string& bytes) const;
    std::wstring MakeDir(const std::wstring& name) const;

private:
    std::wstring m_path;
};

// A registry key made for one test (under HKCU\Software\QXCommonTests by
// default), deleted with its sub-keys on destruction.
class TestRegKey
{
public:
    explicit TestRegKey(HKEY root = HKEY_CURRENT_USER, const std::wstring& parent = L"Software\\QXCommonTests");
    ~TestRegKey();
    TestRegKey(const TestRegKey&) = delete;
    TestRegKey& operator=(const TestRegKey&) = delete;

    HKEY Root() const { return m_root; }
    HKEY Handle() const { return m_key; }
    const std::wstring& SubKey() const { return m_subKey; } // relative to Root()
    // Writes a value with exactly these bytes and this type.
    void SetRaw(const std::wstring& name, DWORD type, const void* data, DWORD bytes) const;
    void SetString(const std::wstring& name, const std::wstring& value, DWORD type = REG_SZ) const;
    void SetDword(const std::wstring& name, DWORD value) const;
    void CreateSubKey(const std::wstring& name) const;

private:
    HKEY m_root;
    std::wstring m_subKey;
    HKEY m_key;
};

struct ProcessResult
{
    DWORD exitCode = 0xFFFFFFFF;
    std::string output; // standard output and standard error, as bytes
    bool started = false;
    bool timedOut = false;
};

// The folder of the running test executable (helper programs live there).
std::wstring ModuleDir();
// Full path of a helper program built from Tests/Programs.
std::wstring HelperPath(const std::wstring& exeName);
// Runs a command line, collects its output, waits (killing it on time-out).
// With a primary token the program runs under it (CreateProcessAsUserW).
ProcessResult RunProcess(const std::wstring& commandLine, DWORD timeoutMs = 60000, HANDLE token = nullptr);

// The value the system gives the next handle this process opens. Wine hands
// out the lowest free slot and answers 0 to GetProcessHandleCount, so a leak
// of n handles between two calls moves this value by 4·n.
uintptr_t NextHandleSlot();

std::string Narrow(const std::wstring& text); // UTF-8
std::wstring Widen(const std::string& text);  // from UTF-8
} // namespace QXTest
