// Loading tables from the system: from a real child process by id, from the
// test's own token, the per-session temporary folder policy in HKLM, short
// (8.3) names made long, and expansion by the system itself.

#include "EnvTestHelpers.h"

#include <gtest/gtest.h>

using QXCommon::CEnvironmentEx;

namespace
{
const wchar_t* const PolicyKey = L"Software\\Policies\\Microsoft\\Windows NT\\Terminal Services";
const wchar_t* const ServerKey = L"System\\CurrentControlSet\\Control\\Terminal Server";

// What the table should hold for a value the system gave: short names made long.
std::wstring LongForm(const std::wstring& value)
{
    if (value.find(L'~') == std::wstring::npos)
        return value;
    wchar_t buffer[MAX_PATH * 4];
    DWORD n = GetLongPathNameW(value.c_str(), buffer, MAX_PATH * 4);
    return n > 0 && n < MAX_PATH * 4 ? std::wstring(buffer, n) : value;
}

void ExpectTableMatchesSystem(const CEnvironmentEx& env, HANDLE token)
{
    auto system = EnvTest::SystemEnvironment(token);
    ASSERT_FALSE(system.empty());
    auto table = EnvTest::TableOf(env);
    for (const auto& [name, value] : system)
    {
        if (name == L"username")
            continue; // LoadUserName sets it from the account
        auto found = table.find(name);
        ASSERT_NE(found, table.end()) << QXTest::Narrow(name);
        EXPECT_EQ(found->second, LongForm(value)) << QXTest::Narrow(name);
    }
    wchar_t user[256];
    DWORD chars = 256;
    ASSERT_TRUE(GetUserNameW(user, &chars));
    EXPECT_EQ(env.UserName(), user);
    EXPECT_EQ(table[L"username"], user);
}

} // namespace

TEST(EnvironmentLoad, FromOwnTokenMatchesTheSystem)
{
    CHandle token = EnvTest::OwnToken();
    ASSERT_NE(token.m_h, nullptr);
    CEnvironmentEx env;
    QXTest::LogCapture capture;
    ASSERT_EQ(env.LoadFromTokenHandle(token, 0), 1) << capture.Dump();
    ExpectTableMatchesSystem(env, token);
    EXPECT_TRUE(capture.HasFragment(L"LoadUserName - Domain: [")) << capture.Dump();

    // Expansion with the table agrees with the system's expansion for the user.
    for (const wchar_t* text : {L"%SystemRoot%\\System32\\x.exe", L"%USERPROFILE%\\Desktop", L"%ProgramFiles%\\A",
                                L"%windir%|%SYSTEMDRIVE%|%NoSuchVariable%"})
    {
        std::wstring ours;
        ASSERT_EQ(env.ExpandString(text, ours), 1) << QXTest::Narrow(text);
        std::wstring system;
        ASSERT_EQ(CEnvironmentEx::ExpandStringDirectForUser(token, text, system), 0u) << QXTest::Narrow(text);
        EXPECT_EQ(EnvTest::Lower(ours), EnvTest::Lower(LongForm(system))) << QXTest::Narrow(text);
    }

    // A reload keeps variables of other names and replaces those it brings.
    env.Add(L"QxOnlyHere", L"kept");
    env.Add(L"SystemRoot", L"replaced later");
    ASSERT_EQ(env.LoadFromTokenHandle(token, 0), 1);
    std::wstring value;
    EXPECT_EQ(env.Lookup(L"qxonlyhere", value), 1);
    EXPECT_EQ(env.Lookup(L"systemroot", value), 1);
    EXPECT_NE(value, L"replaced later");
}

TEST(EnvironmentLoad, FromChildProcessById)
{
    EnvTest::WaitingChild child;
    ASSERT_TRUE(child.Ready());
    CEnvironmentEx env;
    QXTest::LogCapture capture;
    ASSERT_EQ(env.LoadFromProcess(child.Pid()), 1) << capture.Dump();
    // The child runs as the test's user: its table is that user's environment.
    CHandle token = EnvTest::OwnToken();
    ExpectTableMatchesSystem(env, token);
}

TEST(EnvironmentLoad, BadProcessIdsAndTokens)
{
    CEnvironmentEx env;
    QXTest::LogCapture capture;
    EXPECT_EQ(env.LoadFromProcess(0), 0);
    EXPECT_EQ(capture.Count(), 0u);
    // Process ids are multiples of 4: this one cannot exist.
    EXPECT_EQ(env.LoadFromProcess(0xFFFFFFF1), 0);
    EXPECT_TRUE(capture.HasFragment(L"Failed to open process -  error ")) << capture.Dump();
    EXPECT_EQ(EnvTest::TableOf(env).size(), 0u);

    // A token that is not one: the system's default environment is used.
    capture.Clear();
    HANDLE notAToken = GetCurrentThread();
    int result = env.LoadFromTokenHandle(notAToken, 0);
    if (!capture.HasFragment(L"try with null token"))
        GTEST_SKIP() << "this system builds an environment block for a handle that is not a token";
    EXPECT_EQ(result, 1) << capture.Dump();
    EXPECT_TRUE(capture.HasFragment(L"LoadUserName failed [")) << capture.Dump();
    std::wstring value;
    EXPECT_EQ(env.Lookup(L"systemroot", value), 1);
}

TEST(EnvironmentLoad, PerSessionTemporaryFolders)
{
    CHandle token = EnvTest::OwnToken();
    auto system = EnvTest::SystemEnvironment(token);
    ASSERT_TRUE(system.count(L"temp"));
    const std::wstring temp = LongForm(system[L"temp"]);
    const std::wstring tmp = system.count(L"tmp") ? LongForm(system[L"tmp"]) : std::wstring();

    // "PerSessionTempDir" under both keys, put back as it was afterwards.
    EnvTest::SavedRegValue policy{HKEY_LOCAL_MACHINE, PolicyKey, L"PerSessionTempDir"};
    EnvTest::SavedRegValue server{HKEY_LOCAL_MACHINE, ServerKey, L"PerSessionTempDir"};
    struct Case
    {
        DWORD policyType, policyValue, serverType, serverValue;
        bool enabled;
        const wchar_t* decidingLog;
    } cases[] = {
        {REG_DWORD, 1, REG_DWORD, 0, true,
         L"Got PerSessionTempValue from key Software\\Policies\\Microsoft\\Windows NT\\Terminal Services. Value 1\n"},
        {REG_DWORD, 0, REG_DWORD, 1, false,
         L"Got PerSessionTempValue from key Software\\Policies\\Microsoft\\Windows NT\\Terminal Services. Value 0\n"},
        {0, 0, REG_DWORD, 7, true,
         L"Got PerSessionTempValue from key System\\CurrentControlSet\\Control\\Terminal Server. Value 7\n"},
        {REG_SZ, 0, REG_DWORD, 1, true,
         L"Failed to query the PerSessionTempDir value in Software\\Policies\\Microsoft\\Windows NT\\Terminal "
         L"Services. Error: 13\n"},
        {REG_QWORD, 1, 0, 0, false, L"Failed to query either PerSessionTempDir key. Error: 2\n"},
        {0, 0, 0, 0, false, L"Failed to query either PerSessionTempDir key. Error: 2\n"},
        {REG_SZ, 0, REG_SZ, 0, false, L"Failed to query either PerSessionTempDir key. Error: 13\n"},
    };
    for (const Case& c : cases)
    {
        ASSERT_TRUE(policy.Set(c.policyType, c.policyValue));
        ASSERT_TRUE(server.Set(c.serverType, c.serverValue));
        for (DWORD session : {0u, 3u})
        {
            CEnvironmentEx env;
            QXTest::LogCapture capture;
            ASSERT_EQ(env.LoadFromTokenHandle(token, session), 1);
            EXPECT_TRUE(capture.Has(c.decidingLog)) << capture.Dump();
            std::wstring value;
            ASSERT_EQ(env.Lookup(L"TEMP", value), 1);
            bool suffixed = c.enabled && session != 0;
            EXPECT_EQ(value, suffixed ? temp + L"\\3" : temp) << capture.Dump();
            if (!tmp.empty())
            {
                ASSERT_EQ(env.Lookup(L"tmp", value), 1);
                EXPECT_EQ(value, suffixed ? tmp + L"\\3" : tmp);
            }
            // Other folders are never suffixed.
            ASSERT_EQ(env.Lookup(L"systemroot", value), 1);
            EXPECT_EQ(value.find(L"\\3"), std::wstring::npos);
        }
    }
}

TEST(EnvironmentLoad, ShortNamesInValuesBecomeLong)
{
    QXTest::TempDir dir;
    std::wstring longFolder = dir.MakeDir(L"A Rather Long Folder Name.With Dots");
    wchar_t shortPath[MAX_PATH * 4];
    DWORD n = GetShortPathNameW(longFolder.c_str(), shortPath, MAX_PATH * 4);
    ASSERT_GT(n, 0u);
    std::wstring shortForm(shortPath, n);
    if (shortForm.find(L'~') == std::wstring::npos)
        GTEST_SKIP() << "the file system gives no 8.3 name for " << QXTest::Narrow(longFolder);
    const std::wstring longForm = LongForm(shortForm);
    ASSERT_NE(longForm, shortForm);

    CEnvironmentEx env;
    QXTest::LogCapture capture;
    auto block = EnvTest::Block({L"ShortOne=" + shortForm, L"Missing=C:\\NOSUCH~1\\X~2", L"Plain=C:\\Plain"});
    ASSERT_EQ(env.LoadFromEnvironmentBlock(block.data()), 1);
    std::wstring value;
    ASSERT_EQ(env.Lookup(L"shortone", value), 1);
    EXPECT_EQ(value, longForm);
    EXPECT_EQ(EnvTest::Lower(value), EnvTest::Lower(longFolder));
    EXPECT_ENV_LOG(capture, 4, "EnsureLongFileName",
                   L"Found environment variable path with a tilde: [" + shortForm + L"].\n");
    EXPECT_ENV_LOG(capture, 4, "EnsureLongFileName", L"Converted to long [" + value + L"]\n");
    // A name that does not exist stays as it was.
    ASSERT_EQ(env.Lookup(L"missing", value), 1);
    EXPECT_EQ(value, L"C:\\NOSUCH~1\\X~2");
}

TEST(EnvironmentDirect, ExpandWithTheProcessEnvironment)
{
    std::wstring out;
    for (const wchar_t* input : {L"%SystemRoot%\\x", L"no references", L"%QX_NO_SUCH_VAR%", L"50% off"})
    {
        wchar_t expected[4096];
        ASSERT_GT(ExpandEnvironmentStringsW(input, expected, 4096), 0u);
        QXTest::LogCapture capture;
        ASSERT_EQ(CEnvironmentEx::ExpandStringDirect(input, out), 0u);
        EXPECT_EQ(out, expected);
        EXPECT_ENV_LOG(capture, 4, "ExpandStringDirect",
                       L"String Expanded, length [" + std::to_wstring(out.size()) + L"].\n");
    }
    QXTest::LogCapture capture;
    out = L"kept";
    EXPECT_NE(CEnvironmentEx::ExpandStringDirect(L"", out), 0u);
    EXPECT_EQ(out, L"kept");
    EXPECT_ENV_LOG(capture, 1, "ExpandStringDirect", L"Input String is empty.\n");
}

TEST(EnvironmentDirect, ExpandForUserGrowsItsBuffer)
{
    CHandle token = EnvTest::OwnToken();
    std::wstring out = L"kept";
    EXPECT_NE(CEnvironmentEx::ExpandStringDirectForUser(token, L"", out), 0u);
    EXPECT_EQ(out, L"kept");

    // "%PATH%" is 6 characters; its value is far longer than the first
    // buffer of 12, so the buffer is doubled until it fits.
    auto system = EnvTest::SystemEnvironment(token);
    ASSERT_TRUE(system.count(L"path"));
    ASSERT_GT(system[L"path"].size(), 12u);
    ASSERT_EQ(CEnvironmentEx::ExpandStringDirectForUser(token, L"%PATH%", out), 0u);
    EXPECT_EQ(out, system[L"path"]);

    // A value longer than 10 doublings of the first buffer: "%QXENVBIG%"
    // gives 20, 40 ... 10240 characters. The system expands for the token's user; under
    // this platform that may be the process's own environment.
    std::wstring big(20000, L'b');
    SetEnvironmentVariableW(L"QXENVBIG", big.c_str());
    QXTest::LogCapture capture;
    out = L"kept";
    DWORD error = CEnvironmentEx::ExpandStringDirectForUser(token, L"%QXENVBIG%", out);
    SetEnvironmentVariableW(L"QXENVBIG", nullptr);
    if (error == 0 && out == L"%QXENVBIG%")
        GTEST_SKIP() << "the system expands for the user's profile environment, not the process's";
    EXPECT_EQ(error, static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER)) << QXTest::Narrow(out.substr(0, 40));
    EXPECT_EQ(out, L"kept");
    EXPECT_ENV_LOG(capture, 1, "ExpandStringDirectForUser", L"Max attempts - failed to expand.\n");
}
