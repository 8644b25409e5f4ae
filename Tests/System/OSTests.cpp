// GetCurrentOS over the versions Wine emulates: qxsys_osprobe.exe prints its
// answer beside the version the system reports. Wine takes the version from
// HKCU\Software\Wine\AppDefaults\<exe>\Version or, when none is set, from
// the prefix's HKLM CurrentVersion/CurrentBuildNumber/ProductOptions (the
// only way to get server editions it has no name for).

#include "QXLog.h"
#include "QXTestSupport.h"

#include "QXCommon/QXCommonFunctions.h"
#include "QXCommon/OSVersionHelper.h"
#include "QXCommon/WOW64FSRedirectEnabler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

namespace
{
const wchar_t* const ProbeExe = L"qxsys_osprobe.exe";
const wchar_t* const AppDefaults = L"Software\\Wine\\AppDefaults\\qxsys_osprobe.exe";
const wchar_t* const CurrentVersionKey = L"Software\\Microsoft\\Windows NT\\CurrentVersion";
const wchar_t* const ProductOptionsKey = L"System\\CurrentControlSet\\Control\\ProductOptions";

// Declares Windows 7 to 10 compatibility; without it 8.1 and later read as 6.2.
const char* const CompatManifest =
    "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n"
    "<assembly xmlns=\"urn:schemas-microsoft-com:asm.v1\" manifestVersion=\"1.0\">\n"
    "  <assemblyIdentity type=\"win32\" name=\"qxsys.osprobe\" version=\"1.0.0.0\"/>\n"
    "  <compatibility xmlns=\"urn:schemas-microsoft-com:compatibility.v1\"><application>\n"
    "    <supportedOS Id=\"{35138b9a-5d96-4fbd-8e2d-a2440225f93a}\"/>\n"
    "    <supportedOS Id=\"{4a2f28e3-53b9-4441-ba9c-d69d4a4a6e38}\"/>\n"
    "    <supportedOS Id=\"{1f676c76-80e1-4239-95bb-83d0f6d0da78}\"/>\n"
    "    <supportedOS Id=\"{8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a}\"/>\n"
    "  </application></compatibility>\n"
    "</assembly>\n";

struct Probe
{
    DWORD os = 0xFFFFFFFF;
    unsigned major = 0, minor = 0, build = 0, productType = 0;
    int arch64 = -1, wow64 = -1;
};

std::optional<Probe> RunProbe()
{
    QXTest::ProcessResult run = QXTest::RunProcess(L"\"" + QXTest::HelperPath(ProbeExe) + L"\"");
    if (!run.started || run.exitCode != 0)
    {
        ADD_FAILURE() << "probe failed: exit " << run.exitCode << " " << run.output;
        return std::nullopt;
    }
    Probe p;
    unsigned long os = 0;
    if (std::sscanf(run.output.c_str(), "os=%lu major=%u minor=%u build=%u producttype=%u arch64=%d wow64=%d", &os,
                    &p.major, &p.minor, &p.build, &p.productType, &p.arch64, &p.wow64) != 7)
    {
        ADD_FAILURE() << "unexpected probe output: " << run.output;
        return std::nullopt;
    }
    p.os = os;
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

// A registry value put back as it was when the object goes.
struct SavedValue
{
    SavedValue(HKEY root, const std::wstring& subKey, const std::wstring& name) : m_name(name)
    {
        if (m_key.Create(root, subKey.c_str()) != ERROR_SUCCESS)
            return;
        BYTE data[512];
        DWORD bytes = sizeof(data);
        if (RegQueryValueExW(m_key, name.c_str(), nullptr, &m_type, data, &bytes) == ERROR_SUCCESS)
            m_data.assign(data, data + bytes);
        else
            m_existed = false;
    }
    ~SavedValue()
    {
        if (!m_key)
            return;
        if (m_existed)
            m_key.SetValue(m_name.c_str(), m_type, m_data.data(), static_cast<ULONG>(m_data.size()));
        else
            m_key.DeleteValue(m_name.c_str());
    }
    void SetString(const std::wstring& value) { m_key.SetStringValue(m_name.c_str(), value.c_str()); }
    ATL::CRegKey m_key;
    std::wstring m_name;
    DWORD m_type = REG_NONE;
    std::vector<BYTE> m_data;
    bool m_existed = true;
};

// The compatibility manifest beside the probe, removed afterwards.
struct ProbeManifest
{
    explicit ProbeManifest(bool present) : m_path(QXTest::HelperPath(ProbeExe) + L".manifest")
    {
        ::DeleteFileW(m_path.c_str());
        if (!present)
            return;
        ATL::CHandle file(::CreateFileW(m_path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
        DWORD written = 0;
        ::WriteFile(file, CompatManifest, static_cast<DWORD>(strlen(CompatManifest)), &written, nullptr);
    }
    ~ProbeManifest() { ::DeleteFileW(m_path.c_str()); }
    std::wstring m_path;
};

// Wine's per-program Version for the probe, removed afterwards.
struct AppDefaultsKey
{
    ~AppDefaultsKey() { ATL::CRegKey(HKEY_CURRENT_USER).RecurseDeleteKey(AppDefaults); }
    void SetVersion(const std::wstring& version)
    {
        ATL::CRegKey key;
        ASSERT_EQ(key.Create(HKEY_CURRENT_USER, AppDefaults), ERROR_SUCCESS);
        ASSERT_EQ(key.SetStringValue(L"Version", version.c_str()), ERROR_SUCCESS);
    }
};

struct VersionCase
{
    const wchar_t* label;
    const wchar_t* wineVersion;  // AppDefaults Version, or null: registry below
    const wchar_t* currentVersion;
    const wchar_t* build;
    const wchar_t* productOptions; // "WinNT" workstation, "ServerNT" server
    unsigned major, minor, productType;
};
} // namespace

TEST(CurrentOS, EachVersionGivesItsBit)
{
    const VersionCase cases[] = {
        {L"Windows 7 (win7)", L"win7", nullptr, nullptr, nullptr, 6, 1, 0},
        {L"Server 2008 R2 (win2008r2)", L"win2008r2", nullptr, nullptr, nullptr, 6, 1, 0},
        {L"Windows 8", L"win8", nullptr, nullptr, nullptr, 6, 2, 1},
        {L"Windows 8.1", L"win81", nullptr, nullptr, nullptr, 6, 3, 1},
        {L"Windows 10", L"win10", nullptr, nullptr, nullptr, 10, 0, 1},
        {L"Server 2008 (6.0)", L"win2008", nullptr, nullptr, nullptr, 6, 0, 3},
        {L"Server 2003 (5.2)", L"win2003", nullptr, nullptr, nullptr, 5, 2, 3},
        {L"Windows 7 workstation (registry)", nullptr, L"6.1", L"7601", L"WinNT", 6, 1, 1},
        {L"Server 2008 R2 (registry)", nullptr, L"6.1", L"7601", L"ServerNT", 6, 1, 3},
        {L"Server 2012 (registry)", nullptr, L"6.2", L"9200", L"ServerNT", 6, 2, 3},
        {L"Server 2012 R2 (registry)", nullptr, L"6.3", L"9600", L"ServerNT", 6, 3, 3},
        {L"Server 2016 (registry)", nullptr, L"10.0", L"14393", L"ServerNT", 10, 0, 3},
        {L"Windows 10 workstation (registry)", nullptr, L"10.0", L"19041", L"WinNT", 10, 0, 1},
    };

    ProbeManifest manifest(true);
    SavedValue currentVersion(HKEY_LOCAL_MACHINE, CurrentVersionKey, L"CurrentVersion");
    SavedValue currentBuild(HKEY_LOCAL_MACHINE, CurrentVersionKey, L"CurrentBuildNumber");
    SavedValue productType(HKEY_LOCAL_MACHINE, ProductOptionsKey, L"ProductType");
    int checked = 0;
    std::string skipped;
    for (const auto& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.label));
        AppDefaultsKey appDefaults;
        if (c.wineVersion != nullptr)
        {
            appDefaults.SetVersion(c.wineVersion);
        }
        else
        {
            currentVersion.SetString(c.currentVersion);
            currentBuild.SetString(c.build);
            productType.SetString(c.productOptions);
        }
        auto probe = RunProbe();
        if (!probe)
            continue;
        // Wine 8 swaps the product types of win7 and win2008r2; a product
        // type of 0 in the table means "whichever Wine reports".
        if (probe->major != c.major || probe->minor != c.minor ||
            (c.productType != 0 && probe->productType != c.productType))
        {
            skipped += "  " + QXTest::Narrow(c.label) + ": Wine reported " + std::to_string(probe->major) + "." +
                       std::to_string(probe->minor) + " type " + std::to_string(probe->productType) + "\n";
            continue;
        }
        EXPECT_EQ(probe->os, ExpectedBits(probe->major, probe->minor, probe->productType))
            << probe->major << "." << probe->minor << " type " << probe->productType;
        EXPECT_EQ(probe->arch64, 1);
        EXPECT_EQ(probe->wow64, 0);
        ++checked;
    }
    if (!skipped.empty())
        std::printf("Versions Wine could not emulate here:\n%s", skipped.c_str());
    EXPECT_GE(checked, 8) << skipped;
}

TEST(CurrentOS, WithoutCompatibilityDeclarationLaterVersionsReadAsWindows8)
{
    ProbeManifest manifest(false);
    AppDefaultsKey appDefaults;
    appDefaults.SetVersion(L"win10");
    auto probe = RunProbe();
    ASSERT_TRUE(probe.has_value());
    if (probe->major != 10)
        GTEST_SKIP() << "Wine did not emulate Windows 10 for the probe";
    EXPECT_EQ(probe->os, 0x20u);
}

TEST(CurrentOS, LogsItsAnswerInThisProcess)
{
    QXTest::LogCapture capture;
    DWORD os = QXCommonFunctions::GetCurrentOS();
    EXPECT_TRUE(capture.Has(4, "QXCommonFunctions::GetCurrentOS", L"Returning " + std::to_wstring(os) + L"\n"))
        << capture.Dump();
    const DWORD known[] = {0, 0x10, 0x20, 0x40, 0x80, 0x100, 0x200, 0x400, 0x800};
    EXPECT_NE(std::find(std::begin(known), std::end(known), os), std::end(known)) << os;
}

TEST(Wow64, SixtyFourBitProcessOnX64)
{
    QXTest::LogCapture capture;
    EXPECT_TRUE(QXCommonFunctions::Is64BitArchitecture());
    EXPECT_FALSE(QXCommonFunctions::IsWow64(GetCurrentProcessId()));
    EXPECT_FALSE(QXCommonFunctions::IsWow64FSRedirectionEnabled());
    // No such process, and the idle process that cannot be opened: both "not WOW64".
    EXPECT_FALSE(QXCommonFunctions::IsWow64(0xFFFFFFF0u));
    EXPECT_FALSE(QXCommonFunctions::IsWow64(0));
    {
        QXCommon::CWOW64FSRedirectEnabler enabler;
        EXPECT_EQ(enabler.FSRedirectionWasEnabled(), 0);
        enabler.RevertToOriginalState();
    }
    EXPECT_EQ(capture.Count(), 0u) << capture.Dump();
}

TEST(Wow64, RedirectionWrappersForwardToTheSystem)
{
    // A 64-bit process has nothing to redirect; the wrappers pass on whatever the system answers.
    PVOID old = reinterpret_cast<PVOID>(0x1234);
    const BOOL disabled = QXCommonFunctions::QXWow64DisableWow64FsRedirection(&old);
    using Fn = BOOL(WINAPI*)(PVOID*);
    auto fn = reinterpret_cast<Fn>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "Wow64DisableWow64FsRedirection")));
    ASSERT_NE(fn, nullptr);
    PVOID systemOld = nullptr;
    const BOOL systemDisabled = fn(&systemOld);
    if (systemDisabled)
        QXCommonFunctions::QXWow64RevertWow64FsRedirection(systemOld);
    EXPECT_EQ(disabled != FALSE, systemDisabled != FALSE);
    EXPECT_TRUE(!disabled || QXCommonFunctions::QXWow64RevertWow64FsRedirection(old));

    SetLastError(0);
    EXPECT_FALSE(QXCommonFunctions::QXWow64DisableWow64FsRedirection(nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST(OSVersionHelper, ConditionsAgainstTheRunningSystem)
{
    using QXCommon::COSVersionHelper;
    OSVERSIONINFOEXW info = {};
    info.dwOSVersionInfoSize = sizeof(info);
    using RtlGetVersionFn = LONG(WINAPI*)(OSVERSIONINFOEXW*);
    auto rtlGetVersion = reinterpret_cast<RtlGetVersionFn>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion")));
    ASSERT_NE(rtlGetVersion, nullptr);
    ASSERT_EQ(rtlGetVersion(&info), 0);

    EXPECT_TRUE(COSVersionHelper::IsOSVersion(VER_GREATER_EQUAL, 5, 0));
    EXPECT_FALSE(COSVersionHelper::IsOSVersion(VER_EQUAL, 99, 0));
    EXPECT_TRUE(COSVersionHelper::IsOSVersion(VER_LESS, 99, 99));
    // The product type is reported as it is, compatibility declaration or not.
    EXPECT_TRUE(COSVersionHelper::IsProductType(VER_EQUAL, info.wProductType));
    EXPECT_FALSE(COSVersionHelper::IsProductType(VER_EQUAL, static_cast<BYTE>(info.wProductType == 1 ? 3 : 1)));
    EXPECT_TRUE(info.wSuiteMask == 0 || COSVersionHelper::IsProductSuite(VER_AND, info.wSuiteMask));
    WORD missing = 1;
    while (missing != 0 && (info.wSuiteMask & missing) != 0)
        missing = static_cast<WORD>(missing << 1);
    EXPECT_FALSE(missing != 0 && COSVersionHelper::IsProductSuite(VER_AND, missing)) << missing;
}
