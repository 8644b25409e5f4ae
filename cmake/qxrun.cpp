// qxrun: starts a Windows program under Wine and hands its real exit status
// to the Unix side.
//
// Wine's loader does not always pass a program's status on: a program that
// started a child process and is then ended by an unhandled exception (the
// debugger terminates it) can leave the loader with status 0. A parent
// Windows process always sees the true 32-bit code through
// GetExitCodeProcess, so this program is that parent.
//
//   qxrun [--gtest] PROGRAM [ARGUMENTS...]
//
// The rest of the command line after PROGRAM is passed on exactly as written.
// Exit status: the program's code when it is 0..255; otherwise (an exception
// code such as 0xC0000005, or any larger value) a line on standard error and
// 255. With --gtest the program is a GoogleTest program: the run passes only
// when it exits with 0 and its own summary of the run says that no test
// failed. A run that stops before its summary fails whatever its status.

#include <windows.h>

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>

namespace
{
constexpr int StatusAbnormal = 255;
constexpr int StatusUsage = 254;

void Error(const std::wstring& text)
{
    std::string utf8;
    int n = WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    utf8.resize(static_cast<size_t>(n));
    WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), utf8.data(), n, nullptr, nullptr);
    utf8 = "qxrun: " + utf8 + "\n";
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_ERROR_HANDLE), utf8.data(), static_cast<DWORD>(utf8.size()), &written, nullptr);
}

// Skips one argument of a Windows command line (the rules of argv[0]: up to
// the closing quote, or up to the first blank) and the blanks after it.
const wchar_t* SkipArgument(const wchar_t* p)
{
    if (*p == L'"')
    {
        ++p;
        while (*p != L'\0' && *p != L'"')
            ++p;
        if (*p == L'"')
            ++p;
    }
    else
    {
        while (*p != L'\0' && *p != L' ' && *p != L'\t')
            ++p;
    }
    while (*p == L' ' || *p == L'\t')
        ++p;
    return p;
}

struct HandleGuard
{
    HANDLE handle = nullptr;
    ~HandleGuard()
    {
        if (handle != nullptr && handle != INVALID_HANDLE_VALUE)
            CloseHandle(handle);
    }
};

// Reads the file whole (a GoogleTest report is small).
bool ReadWhole(const std::wstring& path, std::string& bytes)
{
    HandleGuard file{CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr)};
    if (file.handle == INVALID_HANDLE_VALUE)
        return false;
    char buffer[65536];
    DWORD got = 0;
    while (ReadFile(file.handle, buffer, sizeof buffer, &got, nullptr) && got > 0)
        bytes.append(buffer, got);
    return true;
}

// The value of a numeric attribute of the report's root element, or -1.
long Attribute(const std::string& root, const char* name)
{
    std::string key = std::string(" ") + name + "=\"";
    size_t at = root.find(key);
    if (at == std::string::npos)
        return -1;
    long value = -1;
    for (size_t k = at + key.size(); k < root.size() && root[k] >= '0' && root[k] <= '9'; ++k)
        value = (value < 0 ? 0 : value * 10) + (root[k] - '0');
    return value;
}

// The verdict of GoogleTest's own summary of the run, which the program
// writes (as an XML report) only when it reaches the end of its run: empty
// when every test that ran passed, otherwise the reason. The report is
// asked for on the program's command line, so processes it starts do not
// write it.
std::wstring SummaryVerdict(const std::wstring& report)
{
    std::string bytes;
    if (!ReadWhole(report, bytes))
        return L"the program stopped before GoogleTest's summary";
    size_t begin = bytes.find("<testsuites ");
    size_t end = begin == std::string::npos ? std::string::npos : bytes.find('>', begin);
    if (end == std::string::npos)
        return L"GoogleTest's summary is incomplete";
    std::string root = bytes.substr(begin, end - begin);
    long tests = Attribute(root, "tests");
    long failures = Attribute(root, "failures");
    long errors = Attribute(root, "errors");
    if (tests < 0 || failures < 0 || errors < 0)
        return L"GoogleTest's summary lacks its counts";
    if (failures > 0 || errors > 0)
        return L"GoogleTest's summary lists failed tests";
    return L"";
}

// A fresh file name for the report, removed again on destruction.
struct ReportFile
{
    std::wstring path;
    ReportFile()
    {
        wchar_t folder[MAX_PATH + 1];
        wchar_t name[MAX_PATH + 1];
        DWORD n = GetTempPathW(MAX_PATH + 1, folder);
        if (n > 0 && n <= MAX_PATH && GetTempFileNameW(folder, L"qxr", 0, name) != 0)
        {
            // GetTempFileNameW made the file: GoogleTest must be the one to write it.
            DeleteFileW(name);
            path = name;
        }
    }
    ~ReportFile()
    {
        if (!path.empty())
            DeleteFileW(path.c_str());
    }
};
} // namespace

int wmain()
{
    const wchar_t* rest = SkipArgument(GetCommandLineW());
    bool gtest = false;
    if (std::wcsncmp(rest, L"--gtest", 7) == 0 && (rest[7] == L' ' || rest[7] == L'\t'))
    {
        gtest = true;
        rest = SkipArgument(rest);
    }
    if (*rest == L'\0')
    {
        Error(L"usage: qxrun [--gtest] PROGRAM [ARGUMENTS...]");
        return StatusUsage;
    }
    std::wstring commandLine = rest;
    ReportFile report;
    if (gtest)
    {
        if (report.path.empty())
        {
            Error(L"no temporary file name for GoogleTest's report, error " + std::to_wstring(GetLastError()));
            return StatusAbnormal;
        }
        commandLine += L" \"--gtest_output=xml:" + report.path + L"\"";
    }

    STARTUPINFOW si{};
    si.cb = sizeof si;
    PROCESS_INFORMATION pi{};
    if (!CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi))
    {
        Error(L"cannot start " + commandLine + L": error " + std::to_wstring(GetLastError()));
        return StatusAbnormal;
    }
    HandleGuard process{pi.hProcess};
    HandleGuard thread{pi.hThread};
    WaitForSingleObject(process.handle, INFINITE);

    DWORD code = 0;
    if (!GetExitCodeProcess(process.handle, &code))
    {
        Error(L"GetExitCodeProcess failed, error " + std::to_wstring(GetLastError()));
        return StatusAbnormal;
    }
    if (code > 255)
    {
        wchar_t text[64];
        std::swprintf(text, 64, L"0x%08lX", static_cast<unsigned long>(code));
        Error(std::wstring(L"the program ended with status ") + text +
              (code >= 0xC0000000 ? L" (an unhandled exception)" : L""));
        return StatusAbnormal;
    }
    if (code == 0 && gtest)
    {
        std::wstring verdict = SummaryVerdict(report.path);
        if (!verdict.empty())
        {
            Error(verdict + L": the run fails");
            return StatusAbnormal;
        }
    }
    return static_cast<int>(code);
}
