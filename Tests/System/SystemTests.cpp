// The system around the library: OS version and WOW64, qxinspect's commands,
// registry readers, texts of result codes, GUIDs, the event log.

#include "QXTestSupport.h"

#include "QXCommon/Guid.h"
#include "QXCommon/HResult.h"
#include "QXCommon/OSVersionHelper.h"
#include "QXCommon/QXCommonFunctions.h"
#include "QXCommon/RegistryHelper.h"
#include "QXCommon/WOW64FSRedirectEnabler.h"

#include <fmt/xchar.h>
#include <gtest/gtest.h>

#include <objbase.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>

using namespace QXCommonFunctions;

// The bit the product's callers test for each version and product type, none
// before 6.1. Wine reports the version named under AppDefaults for the program
// or, with none, the prefix's CurrentVersion, build and ProductOptions (its
// only way to server editions it has no name for).
TEST(CurrentOS, EachVersionGivesItsBit)
{
    struct Case { const wchar_t *version, *build, *productOptions; unsigned major, minor; bool workstation; DWORD bit; };
    const Case cases[] = { // no build: a Wine version name
        {L"6.1", L"7601", L"WinNT", 6, 1, true, 0x10},      {L"6.1", L"7601", L"ServerNT", 6, 1, false, 0x80},
        {L"win8", nullptr, nullptr, 6, 2, true, 0x20},      {L"6.2", L"9200", L"ServerNT", 6, 2, false, 0x40},
        {L"win81", nullptr, nullptr, 6, 3, true, 0x100},    {L"6.3", L"9600", L"ServerNT", 6, 3, false, 0x200},
        {L"win10", nullptr, nullptr, 10, 0, true, 0x400},   {L"10.0", L"14393", L"ServerNT", 10, 0, false, 0x800},
        {L"win2008", nullptr, nullptr, 6, 0, false, 0},     {L"win2003", nullptr, nullptr, 5, 2, false, 0},
    };
    const wchar_t* const versionKey = L"Software\\Microsoft\\Windows NT\\CurrentVersion";
    QXTest::SavedRegValue currentVersion(HKEY_LOCAL_MACHINE, versionKey, L"CurrentVersion"),
        currentBuild(HKEY_LOCAL_MACHINE, versionKey, L"CurrentBuildNumber"),
        productType(HKEY_LOCAL_MACHINE, L"System\\CurrentControlSet\\Control\\ProductOptions", L"ProductType"),
        appDefaults(HKEY_CURRENT_USER, L"Software\\Wine\\AppDefaults\\qxinspect.exe", L"Version");
    int checked = 0;
    for (const auto& c : cases)
    {
        ASSERT_TRUE(c.build ? appDefaults.Set(REG_NONE) && currentVersion.SetString(c.version) &&
                                  currentBuild.SetString(c.build) && productType.SetString(c.productOptions)
                            : appDefaults.SetString(c.version));
        const std::string out = QXTest::RunInspect(L"--json os").output;
        auto after = [&out](const char* key) { size_t at = out.find(key); return at == out.npos ? "" : &out[at + strlen(key)]; };
        unsigned major = 0, minor = 0;
        std::sscanf(after("\"version\": \""), "%u.%u", &major, &minor);
        if (major != c.major || minor != c.minor ||
            (std::strncmp(after("\"productType\": \""), "workstation", 11) == 0) != c.workstation)
        {
            std::printf("Wine could not emulate %s here:\n%s", QXTest::Narrow(c.version).c_str(), out.c_str());
            continue;
        }
        EXPECT_EQ(std::strtoul(after("\"os\": "), nullptr, 10), c.bit) << out;
        ++checked;
    }
    EXPECT_GE(checked, 8);
    QXTest::LogCapture capture;
    const DWORD os = GetCurrentOS();
    EXPECT_LOGGED(capture, 4, "QXCommonFunctions::GetCurrentOS", L"Returning " + std::to_wstring(os) + L"\n");
}

// A 64-bit process has nothing to redirect: the wrappers pass on what the system answers.
TEST(Wow64, SixtyFourBitProcessOnX64)
{
    QXTest::LogCapture capture;
    // Itself, no such process, and the idle process that cannot be opened: not WOW64.
    EXPECT_TRUE(Is64BitArchitecture() && !IsWow64(GetCurrentProcessId()) && !IsWow64(0xFFFFFFF0u) && !IsWow64(0));
    EXPECT_TRUE(!IsWow64FSRedirectionEnabled() && QXCommon::CWOW64FSRedirectEnabler().FSRedirectionWasEnabled() == 0);
    EXPECT_EQ(capture.Count(), 0u) << capture.Dump();
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
            EXPECT_TRUE(enabler.FSRedirectionWasEnabled() == (wasOn ? 1 : 0) && g_redirection);
        }
        EXPECT_EQ(g_redirection, wasOn); // turned off again only by the guard that turned it on
    }
    EXPECT_TRUE(QXWow64RevertWow64FsRedirection(nullptr));
    EXPECT_TRUE(capture.Count() == 2u && capture.Has(4, "QXCommon::CWOW64FSRedirectEnabler::RevertToOriginalState",
                                                     L"FS Redirection enabled by us - Trying to disable again\n"))
        << capture.Dump();
}

// Each condition against the running system; the product type is reported as
// it is, compatibility declaration or not.
TEST(OSVersionHelper, ConditionsAgainstTheRunningSystem)
{
    using QXCommon::COSVersionHelper;
    OSVERSIONINFOEXW info = {sizeof(info)};
    auto rtlGetVersion = reinterpret_cast<LONG(WINAPI*)(OSVERSIONINFOEXW*)>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion")));
    ASSERT_EQ(rtlGetVersion(&info), 0);
    WORD missing = 1; // a suite the system does not have
    while (missing != 0 && (info.wSuiteMask & missing) != 0)
        missing = static_cast<WORD>(missing << 1);
    EXPECT_TRUE(COSVersionHelper::IsOSVersion(VER_GREATER_EQUAL, 5, 0) && COSVersionHelper::IsOSVersion(VER_LESS, 99, 99) &&
                COSVersionHelper::IsProductType(VER_EQUAL, info.wProductType) &&
                (info.wSuiteMask == 0 || COSVersionHelper::IsProductSuite(VER_AND, info.wSuiteMask)));
    EXPECT_FALSE(COSVersionHelper::IsOSVersion(VER_EQUAL, 99, 0) ||
                 COSVersionHelper::IsProductType(VER_EQUAL, static_cast<BYTE>(info.wProductType == 1 ? 3 : 1)) ||
                 (missing != 0 && COSVersionHelper::IsProductSuite(VER_AND, missing))) << missing;
}

// The exit codes of qxinspect's answers that its own suite does not cover (0 yes/done, 1 no,
// 2 usage, 3 could not answer), each with what it printed.
TEST(Inspect, CommandsAndExitCodes)
{
    wchar_t system[MAX_PATH] = {};
    ASSERT_NE(GetSystemDirectoryW(system, MAX_PATH), 0u);
    QXTest::TempDir dir;
    const std::wstring text = L" \"" + dir.Write(L"notes.txt", "just text, no headers at all") + L"\"";
    std::vector<std::pair<std::wstring, std::pair<DWORD, std::string>>> cases = {
        {L"--json exe \"" + std::wstring(system) + L"\\kernel32.dll\"", {0, "\"isNTExe\": true"}},
        {L"exe \"" + std::wstring(system) + L"\\kernel32.dll\"" + text, {1, "not an NT image"}},
        // The child's argument is: "C:\Program Files\a.exe" /open notepad.exe
        {L"--json split \"\\\"C:\\Program Files\\a.exe\\\" /open notepad.exe\"", {0, "\"arguments\": \"/open notepad.exe\""}},
        {L"expand \"%NoSuchVariable%\\x\"", {1, "%NoSuchVariable%\\x\n"}}, {L"expand --pid 0xFFFFFFF1 x", {3, "qxinspect: "}},
        {L"match C:\\Windows\\notepad.exe NOTEPAD.EXE", {0, "name"}}, {L"guid --canonicalize abc", {0, "{ABC}"}},
    };
    for (const wchar_t* usage : {L"error", L"error notanumber", L"exe", L"guid --canonicalize", L"split", L"expand",
                                 L"expand --pid nonsense x", L"match onlyone"}) // refused on stderr, under the program's name
        cases.push_back({usage, {2, "qxinspect: "}});
    for (const auto& [arguments, expected] : cases)
    {
        auto run = QXTest::RunInspect(arguments);
        EXPECT_EQ(run.exitCode, expected.first) << QXTest::Narrow(arguments) << "\n" << run.output;
        EXPECT_NE(run.output.find(expected.second), std::string::npos) << expected.second << "\n" << run.output;
    }
}

namespace
{
// Raw bytes of a wide text, optionally with its NUL, less some bytes at the end.
std::string Bytes(const std::wstring& text, bool withNul, size_t dropBytes = 0)
{
    return std::string(reinterpret_cast<const char*>(text.c_str()),
                       (text.size() + (withNul ? 1 : 0)) * sizeof(wchar_t) - dropBytes);
}

struct Registry : testing::Test
{
    QXTest::TestRegKey key;
    CRegistryHelper helper;
};
} // namespace

// Each value through RegQueryStringValue (status), CRegistryHelper::QueryRegKey (its 259-character
// limit) and QueryRegKeyDWORD (-1: refused); a refused read leaves the output as it was.
TEST_F(Registry, StringAndDwordValuesThroughEveryReader)
{
    struct Case { const char* name; DWORD type; std::string data; DWORD status; bool helperOk; std::wstring expected; int64_t dword; };
    const std::wstring s259(259, L'x'), s260(260, L'y');
    const Case cases[] = {
        {"plain", REG_SZ, Bytes(L"hello", true), 0, true, L"hello", -1},
        {"expand_not_expanded", REG_EXPAND_SZ, Bytes(L"%SystemRoot%\\x", true), 0, true, L"%SystemRoot%\\x", -1},
        {"empty_size0", REG_SZ, std::string(), 0, true, L"", -1}, {"only_nul", REG_SZ, Bytes(L"", true), 0, true, L"", -1},
        {"no_terminating_nul", REG_SZ, Bytes(L"abc", false), ERROR_INVALID_DATA, false, L"", -1},
        {"odd_count_3", REG_SZ, Bytes(L"a", true, 1), ERROR_INVALID_DATA, false, L"", -1},
        {"odd_count_with_nul", REG_SZ, Bytes(L"ab", true) + "z", ERROR_INVALID_DATA, false, L"", -1},
        {"embedded_nul_ends_text", REG_SZ, Bytes(std::wstring(L"ab\0cd", 5), true), 0, true, L"ab", -1},
        {"chars259", REG_SZ, Bytes(s259, true), 0, true, s259, -1}, {"chars260", REG_SZ, Bytes(s260, true), 0, false, s260, -1},
        {"dword_type", REG_DWORD, std::string("\xEF\xBE\xAD\xDE", 4), ERROR_INVALID_DATA, false, L"", 0xDEADBEEF},
        {"multi_sz_type", REG_MULTI_SZ, Bytes(L"a", true) + std::string(2, '\0'), ERROR_INVALID_DATA, false, L"", -1},
        {"qword", REG_QWORD, std::string("\7\0\0\0\0\0\0\0", 8), ERROR_INVALID_DATA, false, L"", -1},
        {"binary4", REG_BINARY, std::string("\7\0\0\0", 4), ERROR_INVALID_DATA, false, L"", -1},
    };
    for (const auto& c : cases)
    {
        // RegSetValueExW counts a NUL that follows a string's bytes: a non-NUL after them stores exactly these.
        const std::string stored = c.data + "!!";
        key.SetRaw(QXTest::Widen(c.name), c.type, stored.data(), static_cast<DWORD>(c.data.size()));
    }
    ATL::CRegKey open;
    ASSERT_EQ(open.Open(key.Root(), key.SubKey().c_str(), KEY_READ), ERROR_SUCCESS);
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        const std::wstring name = QXTest::Widen(c.name);
        std::wstring viaFunction = L"untouched", viaHelper = L"untouched";
        DWORD number = 0x600D;
        EXPECT_TRUE(QXCommonFunctions::RegQueryStringValue(open, name.c_str(), viaFunction) == c.status &&
                    viaFunction == (c.status == 0 ? c.expected : L"untouched")) << QXTest::Narrow(viaFunction);
        EXPECT_TRUE(helper.QueryRegKey(open, name, viaHelper) == c.helperOk &&
                    viaHelper == (c.helperOk ? c.expected : L"untouched")) << QXTest::Narrow(viaHelper);
        EXPECT_EQ(helper.QueryRegKeyDWORD(open, name, number) ? int64_t(number) : number == 0x600D ? -1 : -2, c.dword);
    }
    std::wstring value;
    DWORD number = 0;
    EXPECT_TRUE(QXCommonFunctions::RegQueryStringValue(open, L"absent", value) == ERROR_FILE_NOT_FOUND &&
                !helper.QueryRegKey(open, L"absent", value) && !helper.QueryRegKeyDWORD(open, L"absent", number));
    key.SetString(L"", L"default text");
    EXPECT_TRUE(QXCommonFunctions::RegQueryStringValue(open, nullptr, value) == 0 && value == L"default text");
}

// OpenRegKey asks for write access too; enumeration appends; OpenAndQueryRegKey
// reaches the value reader through the interface, so a substitute answers.
TEST_F(Registry, OpenEnumerateAndTheVirtualReader)
{
    ATL::CRegKey opened, missing;
    ASSERT_TRUE(helper.OpenRegKey(opened, key.Root(), key.SubKey()));
    EXPECT_EQ(opened.SetDWORDValue(L"written", 5), ERROR_SUCCESS);
    EXPECT_TRUE(!helper.OpenRegKey(missing, key.Root(), key.SubKey() + L"\\nope") && static_cast<HKEY>(missing) == nullptr);
    for (const std::wstring& name : {std::wstring(L"alpha"), std::wstring(L"Gamma\\nested"), std::wstring(L"empty"),
                                     std::wstring(255, L'k')})
        key.CreateSubKey(name);
    std::vector<std::wstring> names = {L"kept"}, none = {L"x"};
    ASSERT_TRUE(helper.EnumerateRegSubKeys(key.Root(), key.SubKey(), names));
    std::sort(names.begin() + 1, names.end(), [](auto& a, auto& b) { return _wcsicmp(a.c_str(), b.c_str()) < 0; });
    EXPECT_EQ(names, (std::vector<std::wstring>{L"kept", L"alpha", L"empty", L"Gamma", std::wstring(255, L'k')}));
    EXPECT_TRUE(helper.EnumerateRegSubKeys(key.Root(), key.SubKey() + L"\\empty", none) &&
                !helper.EnumerateRegSubKeys(key.Root(), key.SubKey() + L"\\missing", none));
    EXPECT_EQ(none, std::vector<std::wstring>{L"x"});

    key.SetString(L"name", L"real value");
    struct Recording : CRegistryHelper
    {
        std::vector<std::wstring> calls;
        bool QueryRegKey(HKEY opened, const std::wstring& name, std::wstring& value) override
        {
            calls.push_back(opened != nullptr ? name : L"<no key>");
            value = L"from override";
            return name == L"name";
        }
    } recording;
    IRegistryHelper& registry = recording;
    std::wstring value;
    EXPECT_TRUE(registry.OpenAndQueryRegKey(key.Root(), key.SubKey(), L"name", value) && value == L"from override");
    // A key that cannot be opened never reaches the reader.
    EXPECT_FALSE(registry.OpenAndQueryRegKey(key.Root(), key.SubKey(), L"other", value) ||
                 registry.OpenAndQueryRegKey(key.Root(), key.SubKey() + L"\\missing", L"name", value));
    EXPECT_EQ(recording.calls, (std::vector<std::wstring>{L"name", L"other"}));
    EXPECT_TRUE(helper.OpenAndQueryRegKey(key.Root(), key.SubKey(), L"name", value) && value == L"real value");
}

namespace
{
// The system's own text for a code, as FormatMessageW gives it (empty if none).
std::wstring SystemText(DWORD code, DWORD flags = FORMAT_MESSAGE_IGNORE_INSERTS)
{
    wchar_t* raw = nullptr;
    DWORD n = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | flags, nullptr, code,
                             MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<LPWSTR>(&raw), 0, nullptr);
    std::wstring text = n != 0 ? std::wstring(raw, n) : std::wstring();
    LocalFree(raw);
    return text;
}

} // namespace

// CHResult: the code, a blank, the system's text without the one line break
// that ends it, or a fallback. ErrorMessageFromCode: the text without any
// line break, logged; nothing for zero; why for a code without text.
TEST(ResultTexts, SystemTextOrAFallbackAndTheLogLines)
{
    QXTest::LogCapture capture;
    EXPECT_TRUE(QXCommonFunctions::ErrorMessageFromCode(0).empty() && capture.Count() == 0u) << capture.Dump();
    for (DWORD code : {0ul, 5ul, static_cast<DWORD>(E_INVALIDARG)})
    {
        std::wstring text = SystemText(code), joined = SystemText(code, 0);
        ASSERT_TRUE(text.size() >= 2 && text.back() == L'\n') << code;
        text.erase(text.size() - (text[text.size() - 2] == L'\r' ? 2 : 1));
        EXPECT_EQ(QXCommon::CHResult(static_cast<HRESULT>(code)).ToString(), fmt::format(L"0x{:08x} {}", code, text));
        for (size_t at; (at = joined.find(L"\r\n")) != std::wstring::npos;)
            joined.erase(at, 2);
        EXPECT_TRUE(code == 0 || (QXCommonFunctions::ErrorMessageFromCode(static_cast<int>(code)) == joined &&
                                  capture.Has(4, "QXCommonFunctions::ErrorMessageFromCode",
                                              fmt::format(L"Error {:X} [{}]\n", code, joined)))) << capture.Dump();
    }
    for (const auto& [code, fallback] :
         {std::pair{0x80040201ul, L"IDispatch error #1"}, {0x8004FFFFul, L"IDispatch error #65023"},
          {0x80040200ul, L"Unknown error 0x80040200"}, {0x80050200ul, L"Unknown error 0x80050200"},
          {0x800401FFul, L"Unknown error 0x800401FF"}})
        EXPECT_TRUE(!SystemText(code).empty() ||
                    QXCommon::CHResult(static_cast<HRESULT>(code)).ToString() == fmt::format(L"0x{:08x} {}", code, fallback)) << code;
    wchar_t* raw = nullptr;
    ASSERT_EQ(FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM, nullptr, 0x2BADF00D, 0,
                             reinterpret_cast<LPWSTR>(&raw), 100, nullptr), 0u);
    const DWORD systemError = GetLastError();
    EXPECT_EQ(QXCommonFunctions::ErrorMessageFromCode(0x2BADF00D), L"");
    EXPECT_LOGGED(capture, 1, "QXCommonFunctions::ErrorMessageFromCode",
                  L"FormatMessageW failed - error " + std::to_wstring(systemError) + L"\n");
}

// New GUIDs are braced upper-case text, new each time; equality takes every
// byte; Canonicalize braces and upper-cases and checks nothing else.
TEST(Guid, NewGuidsTheirTextAndEquality)
{
    EXPECT_EQ(QXCommon::CGuid().ToString(), L"{00000000-0000-0000-0000-000000000000}");
    std::set<std::wstring> seen;
    for (int k = 0; k < 6; ++k)
    {
        QXCommon::CGuid guid;
        ASSERT_TRUE(guid.CreateNew());
        const std::wstring text = k % 2 ? guid.ToString() : QXCommon::CGuid::CreateNewAsString();
        CLSID parsed = {};
        EXPECT_TRUE(text.size() == 38u && text.find_first_of(L"abcdef") == text.npos && seen.insert(text).second &&
                    CLSIDFromString(text.c_str(), &parsed) == S_OK && (k % 2 == 0 || QXCommon::CGuid(parsed) == guid) &&
                    !(guid == QXCommon::CGuid())) << QXTest::Narrow(text);
    }
    const GUID g1 = {0x01234567, 0x89AB, 0xCDEF, {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}};
    GUID g2 = g1;
    g2.Data4[7] ^= 1; // last byte only
    QXCommon::CGuid a(g1), b(g2);
    EXPECT_TRUE(a != b && !(a == b) && a.ToString() == L"{01234567-89AB-CDEF-0123-456789ABCDEF}");
    static_cast<GUID&>(b).Data4[7] = 0xEF; // writable through the conversion
    EXPECT_TRUE(b == a);
    for (auto [text, out] : {std::pair<std::wstring, std::wstring>{L"abc", L"{ABC}"}, {L"{abc}", L"{ABC}"}, {L"", L""},
                             {L"{abc", L"{ABC}"}, {L"abc}", L"{ABC}"}, {L"}", L"{}"}})
    {
        QXCommon::CGuid::Canonicalize(text);
        EXPECT_EQ(text, out);
    }
}

namespace
{
// What the library hands the event log, a line per call (Wine accepts events and drops them).
std::vector<std::wstring> g_reported;

BOOL WINAPI RecordEvent(HANDLE source, WORD type, WORD category, DWORD id, PSID user, WORD strings, DWORD dataSize,
                        LPCWSTR* texts, LPVOID data)
{
    g_reported.push_back(std::to_wstring(id) + L" type " + std::to_wstring(type) + L" category " + std::to_wstring(category) +
                         (user || dataSize || data ? L" user or data" : L"") + L" strings " + std::to_wstring(strings) +
                         L": " + (strings ? texts[0] : L""));
    return ReportEventW(source, type, category, id, user, strings, dataSize, texts, data);
}

HANDLE WINAPI RecordSource(LPCWSTR server, LPCWSTR name)
{
    g_reported.push_back(L"source " + std::wstring(server == nullptr ? name : L"on a server"));
    return RegisterEventSourceW(server, name);
}
} // namespace

TEST(EventLog, OneTruncatedTextPerEventUnderTheProductSource)
{
    QXTest::ImportPatch report(L"QXCommon.dll", "advapi32.dll", "ReportEventW", (void*)&RecordEvent);
    QXTest::ImportPatch source(L"QXCommon.dll", "advapi32.dll", "RegisterEventSourceW", (void*)&RecordSource);
    ASSERT_TRUE(report.Installed() && source.Installed());
    QXTest::LogCapture capture;
    EXPECT_EQ(LogEventDirect(1000, EVENTLOG_INFORMATION_TYPE, L"Process %ls blocked (%d)", L"C:\\x.exe", 42) +
                  LogEventDirect(1001, EVENTLOG_WARNING_TYPE, L"%ls", std::wstring(5000, L'z').c_str()) +
                  LogEventDirect(1002, EVENTLOG_ERROR_TYPE, nullptr), 0u);
    EXPECT_EQ(capture.Count(), 0u) << capture.Dump();
    const std::wstring product = L"source Kestrova Runwarden";
    EXPECT_EQ(g_reported, (std::vector<std::wstring>{product, L"1000 type 4 category 0 strings 1: Process C:\\x.exe blocked (42)",
                                                      product, L"1001 type 2 category 0 strings 1: " + std::wstring(255, L'z'),
                                                      product, L"1002 type 1 category 0 strings 1: "}));
}
