// GetCurrentOS over the versions Wine emulates, WOW64 and redirection, and
// qxinspect's os, error, guid and exe commands. qxsys_osprobe.exe prints its
// answer beside the version the system reports. Wine takes the version from
// HKCU\Software\Wine\AppDefaults\<exe>\Version or, when none is set, from
// the prefix's HKLM CurrentVersion/CurrentBuildNumber/ProductOptions (the
// only way to get server editions it has no name for).

#include "QXLog.h"
#include "QXTestSupport.h"

#include "QXCommon/OSVersionHelper.h"
#include "QXCommon/QXCommonFunctions.h"
#include "QXCommon/WOW64FSRedirectEnabler.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

using namespace QXCommonFunctions;

namespace
{
const wchar_t* const CurrentVersionKey = L"Software\\Microsoft\\Windows NT\\CurrentVersion";

struct Probe
{
    unsigned long os = 0;
    unsigned major = 0, minor = 0, productType = 0;
    int arch64 = -1, wow64 = -1;
};

// Runs the probe (its manifest declares Windows 7 to 10 compatibility;
// without it 8.1 and later would read as 6.2).
Probe RunProbe()
{
    QXTest::ProcessResult run = QXTest::RunProcess(L"\"" + QXTest::HelperPath(L"qxsys_osprobe.exe") + L"\"");
    Probe p;
    EXPECT_EQ(std::sscanf(run.output.c_str(), "os=%lu major=%u minor=%u producttype=%u arch64=%d wow64=%d", &p.os,
                          &p.major, &p.minor, &p.productType, &p.arch64, &p.wow64), 6)
        << "exit " << run.exitCode << " " << run.output;
    return p;
}

// The table the product's callers test against: {major, minor, workstation bit, server bit}.
DWORD ExpectedBits(unsigned major, unsigned minor, unsigned productType)
{
    const unsigned table[][4] = {{6, 1, 0x10, 0x80}, {6, 2, 0x20, 0x40}, {6, 3, 0x100, 0x200}, {10, 0, 0x400, 0x800}};
    for (const auto& row : table)
        if (row[0] == major && row[1] == minor)
            return productType == VER_NT_WORKSTATION ? row[2] : row[3];
    return 0;
}
} // namespace

TEST(CurrentOS, EachVersionGivesItsBit)
{
    struct Case { const wchar_t *wineVersion, *currentVersion, *build, *productOptions; unsigned major, minor, type; };
    const Case cases[] = { // a Wine version, or the registry's; type 0: whichever Wine reports
        {L"win7", nullptr, nullptr, nullptr, 6, 1, 0},     {L"win2008r2", nullptr, nullptr, nullptr, 6, 1, 0},
        {L"win8", nullptr, nullptr, nullptr, 6, 2, 1},     {L"win81", nullptr, nullptr, nullptr, 6, 3, 1},
        {L"win10", nullptr, nullptr, nullptr, 10, 0, 1},   {L"win2008", nullptr, nullptr, nullptr, 6, 0, 3},
        {L"win2003", nullptr, nullptr, nullptr, 5, 2, 3},  {nullptr, L"6.1", L"7601", L"WinNT", 6, 1, 1},
        {nullptr, L"6.1", L"7601", L"ServerNT", 6, 1, 3},  {nullptr, L"6.2", L"9200", L"ServerNT", 6, 2, 3},
        {nullptr, L"6.3", L"9600", L"ServerNT", 6, 3, 3},  {nullptr, L"10.0", L"14393", L"ServerNT", 10, 0, 3},
        {nullptr, L"10.0", L"19041", L"WinNT", 10, 0, 1},
    };
    QXTest::SavedRegValue currentVersion(HKEY_LOCAL_MACHINE, CurrentVersionKey, L"CurrentVersion");
    QXTest::SavedRegValue currentBuild(HKEY_LOCAL_MACHINE, CurrentVersionKey, L"CurrentBuildNumber");
    QXTest::SavedRegValue productType(HKEY_LOCAL_MACHINE, L"System\\CurrentControlSet\\Control\\ProductOptions",
                                      L"ProductType");
    QXTest::SavedRegValue appDefaults(HKEY_CURRENT_USER, L"Software\\Wine\\AppDefaults\\qxsys_osprobe.exe", L"Version");
    int checked = 0;
    std::string skipped;
    for (const auto& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.wineVersion ? c.wineVersion : c.currentVersion));
        ASSERT_TRUE(c.wineVersion ? appDefaults.SetString(c.wineVersion) : appDefaults.Set(REG_NONE));
        ASSERT_TRUE(c.wineVersion || (currentVersion.SetString(c.currentVersion) && currentBuild.SetString(c.build) &&
                                      productType.SetString(c.productOptions)));
        const Probe probe = RunProbe();
        // Wine 8 swaps the product types of win7 and win2008r2.
        if (probe.major != c.major || probe.minor != c.minor || (c.type != 0 && probe.productType != c.type))
        {
            skipped += "  " + std::to_string(probe.major) + "." + std::to_string(probe.minor) + " type " +
                       std::to_string(probe.productType) + " instead of " + std::to_string(c.major) + "." +
                       std::to_string(c.minor) + "\n";
            continue;
        }
        EXPECT_EQ(probe.os, ExpectedBits(probe.major, probe.minor, probe.productType));
        EXPECT_TRUE(probe.arch64 == 1 && probe.wow64 == 0);
        ++checked;
    }
    if (!skipped.empty())
        std::printf("Versions Wine could not emulate here:\n%s", skipped.c_str());
    EXPECT_GE(checked, 8) << skipped;


    QXTest::LogCapture capture;
    const DWORD os = GetCurrentOS();
    EXPECT_LOGGED(capture, 4, "QXCommonFunctions::GetCurrentOS", L"Returning " + std::to_wstring(os) + L"\n");
}

TEST(Wow64, SixtyFourBitProcessOnX64)
{
    QXTest::LogCapture capture;
    EXPECT_TRUE(Is64BitArchitecture());
    // Itself, no such process, and the idle process that cannot be opened: not WOW64.
    EXPECT_FALSE(IsWow64(GetCurrentProcessId()) || IsWow64(0xFFFFFFF0u) || IsWow64(0));
    EXPECT_FALSE(IsWow64FSRedirectionEnabled());
    {
        QXCommon::CWOW64FSRedirectEnabler enabler;
        EXPECT_EQ(enabler.FSRedirectionWasEnabled(), 0);
    }
    EXPECT_EQ(capture.Count(), 0u) << capture.Dump();
    // A 64-bit process has nothing to redirect: the wrappers pass on what the system answers.
    PVOID old = nullptr, systemOld = nullptr;
    EXPECT_EQ(QXWow64DisableWow64FsRedirection(&old), Wow64DisableWow64FsRedirection(&systemOld));
    EXPECT_EQ(QXWow64RevertWow64FsRedirection(old), Wow64RevertWow64FsRedirection(systemOld));
    SetLastError(0);
    EXPECT_FALSE(QXWow64DisableWow64FsRedirection(nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

namespace
{
// A 32-bit process on 64-bit Windows, as the system describes it to the
// library: its lookups of the WOW64 functions get these stand-ins, which keep
// the redirection state of the thread.
bool g_redirection = false;
BOOL WINAPI IsWow64Process32(HANDLE, PBOOL wow64) { return *wow64 = TRUE; }
BOOL WINAPI Disable32(PVOID* old) { *old = reinterpret_cast<PVOID>(g_redirection ? 0 : 1); g_redirection = false; return TRUE; }
BOOL WINAPI Revert32(PVOID old) { g_redirection = old == nullptr; return TRUE; }
BOOLEAN WINAPI Enable32(BOOLEAN enable) { g_redirection = enable; return TRUE; }

FARPROC WINAPI GetProcAddressOf32BitProcess(HMODULE module, LPCSTR name)
{
    const std::pair<const char*, void*> standIns[] = {{"IsWow64Process", (void*)&IsWow64Process32},
                                                      {"Wow64DisableWow64FsRedirection", (void*)&Disable32},
                                                      {"Wow64RevertWow64FsRedirection", (void*)&Revert32},
                                                      {"Wow64EnableWow64FsRedirection", (void*)&Enable32}};
    for (const auto& [function, standIn] : standIns)
        if (HIWORD(name) != 0 && strcmp(name, function) == 0)
            return reinterpret_cast<FARPROC>(standIn);
    return GetProcAddress(module, name);
}
} // namespace

TEST(Wow64, ThirtyTwoBitProcessAsTheSystemDescribesIt)
{
    QXTest::ImportPatch patch(L"QXCommon.dll", "kernel32.dll", "GetProcAddress", (void*)&GetProcAddressOf32BitProcess);
    ASSERT_TRUE(patch.Installed());
    QXTest::LogCapture capture;
    EXPECT_TRUE(IsWow64(GetCurrentProcessId()));
    for (bool wasOn : {false, true})
    {
        g_redirection = wasOn;
        EXPECT_EQ(IsWow64FSRedirectionEnabled(), wasOn);
        EXPECT_EQ(g_redirection, wasOn); // the question leaves the state as it was
        {
            QXCommon::CWOW64FSRedirectEnabler enabler;
            EXPECT_EQ(enabler.FSRedirectionWasEnabled(), wasOn ? 1 : 0);
            EXPECT_TRUE(g_redirection);
        }
        EXPECT_EQ(g_redirection, wasOn); // turned off again only by the guard that turned it on
    }
    EXPECT_TRUE(QXWow64RevertWow64FsRedirection(nullptr));
    EXPECT_LOGGED(capture, 4, "QXCommon::CWOW64FSRedirectEnabler::CWOW64FSRedirectEnabler",
                  L"WOW64 Process with FS Redirection Disabled - Trying to re-enable\n");
    EXPECT_LOGGED(capture, 4, "QXCommon::CWOW64FSRedirectEnabler::RevertToOriginalState",
                  L"FS Redirection enabled by us - Trying to disable again\n");
    EXPECT_EQ(capture.Count(), 2u) << capture.Dump();
}

TEST(OSVersionHelper, ConditionsAgainstTheRunningSystem)
{
    using QXCommon::COSVersionHelper;
    OSVERSIONINFOEXW info = {sizeof(info)};
    auto rtlGetVersion = reinterpret_cast<LONG(WINAPI*)(OSVERSIONINFOEXW*)>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion")));
    ASSERT_EQ(rtlGetVersion(&info), 0);
    EXPECT_TRUE(COSVersionHelper::IsOSVersion(VER_GREATER_EQUAL, 5, 0) && COSVersionHelper::IsOSVersion(VER_LESS, 99, 99));
    EXPECT_FALSE(COSVersionHelper::IsOSVersion(VER_EQUAL, 99, 0));
    // The product type is reported as it is, compatibility declaration or not.
    EXPECT_TRUE(COSVersionHelper::IsProductType(VER_EQUAL, info.wProductType));
    EXPECT_FALSE(COSVersionHelper::IsProductType(VER_EQUAL, static_cast<BYTE>(info.wProductType == 1 ? 3 : 1)));
    EXPECT_TRUE(info.wSuiteMask == 0 || COSVersionHelper::IsProductSuite(VER_AND, info.wSuiteMask));
    WORD missing = 1;
    while (missing != 0 && (info.wSuiteMask & missing) != 0)
        missing = static_cast<WORD>(missing << 1);
    EXPECT_FALSE(missing != 0 && COSVersionHelper::IsProductSuite(VER_AND, missing)) << missing;
}

// qxinspect as it is run: what each command prints and its exit code (0
// yes/done, 1 no, 2 usage, 3 could not answer).
TEST(Inspect, CommandsAndExitCodes)
{
    wchar_t system[MAX_PATH] = {}, systemRoot[MAX_PATH] = {};
    ASSERT_NE(GetSystemDirectoryW(system, MAX_PATH) * GetEnvironmentVariableW(L"SystemRoot", systemRoot, MAX_PATH), 0u);
    const std::wstring dll = L"\"" + std::wstring(system) + L"\\kernel32.dll\"";
    const std::string root = QXTest::Narrow(systemRoot);
    std::string escaped; // the regex form escapes the folder's characters
    for (char ch : root)
        escaped.append(std::string("\\*+()[.^-?{}$|!").find(ch) != std::string::npos ? "\\" : "").push_back(ch);
    QXTest::TempDir dir;
    const std::wstring text = L"\"" + dir.Write(L"notes.txt", "just text, no headers at all") + L"\"";
    struct Case { std::wstring arguments; DWORD exitCode; std::vector<std::string> fragments; };
    const Case cases[] = {
        {L"--json os", 0, {"\"is64BitArchitecture\": true", "\"isWow64\": false", "\"fsRedirectionEnabled\": false",
                           "\"os\": ", "\"name\": \""}},
        {L"error 5", 0, {"hresult: 0x00000005 ", "message: " + QXTest::Narrow(ErrorMessageFromCode(5))}},
        {L"--json error 0x80040201", 0, {"\"hresult\": \"0x80040201 IDispatch error #1\""}},
        {L"--json exe " + dll, 0, {"\"isNTExe\": true", "\"ntExeOrAccessRestricted\": 1"}},
        {L"exe " + dll + L" " + text, 1, {"not an NT image"}},
        {L"exe \"" + dir.File(L"missing.exe") + L"\" " + text, 3, {"error 2"}},
        {L"guid --canonicalize abc", 0, {"{ABC}"}}, {L"guid", 0, {"{", "-", "}"}},
        // The child's argument is: "C:\Program Files\a.exe" /open notepad.exe
        {L"--json split \"\\\"C:\\Program Files\\a.exe\\\" /open notepad.exe\"", 0,
         {"\"split\": true", "\"module\": \"C:\\\\Program Files\\\\a.exe\"", "\"arguments\": \"/open notepad.exe\"",
          "\"expanded\": \"/open ", "notepad.exe\""}},
        {L"split cmd /c x", 1, {"qxinspect: no program found"}},
        {L"expand \"%SYSTEMROOT%\\x.exe\"", 0, {root + "\\x.exe\n"}},
        {L"expand \"%NoSuchVariable%\\x\"", 1, {"%NoSuchVariable%\\x\n"}},
        {L"expand --direct \"%SystemRoot%\\x\"", 0, {root + "\\x\n"}},
        {L"expand --regex \"%SystemRoot%\\\\.*\"", 0, {escaped + "\\\\.*\n"}},
        {L"expand --json \"%windir%\"", 0, {"\"replaced\": true"}}, {L"--json expand \"%windir%\"", 0, {"\"mode\": \"table\""}},
        {L"expand --pid 0xFFFFFFF1 \"%windir%\"", 3, {"qxinspect: "}},
        {L"match C:\\Windows\\notepad.exe NOTEPAD.EXE", 0, {"name"}},
        {L"match --kind wildcard C:\\Windows\\System32\\notepad.exe C:\\*\\notepad.exe", 1, {}},
    };
    for (const Case& c : cases)
    {
        auto run = QXTest::RunInspect(c.arguments);
        EXPECT_EQ(run.exitCode, c.exitCode) << QXTest::Narrow(c.arguments) << "\n" << run.output;
        for (const auto& fragment : c.fragments)
            EXPECT_NE(run.output.find(fragment), std::string::npos) << fragment << "\n" << run.output;
    }
    for (const wchar_t* usage : {L"error", L"error notanumber", L"exe", L"os extra", L"guid --canonicalize", L"split",
                                 L"expand", L"expand --pid nonsense x", L"match onlyone"})
    {
        auto run = QXTest::RunInspect(usage);
        EXPECT_EQ(run.exitCode, 2u) << QXTest::Narrow(usage) << "\n" << run.output;
        EXPECT_NE(run.output.find("qxinspect: "), std::string::npos) << run.output;
    }
}
