// Environment tables: expansion, the cache, normalisation, blocks, per-file
// variables, sharing between threads, and tables loaded from the system.

#include "QXTestSupport.h"
#include "TokenTestSupport.h"

#include "QXCommon/EnvironmentBlockEx.h"
#include "QXCommon/EnvironmentEx.h"
#include "QXCommon/QXEnvironmentVars.h"
#include "QXCommon/QXEnvironmentVars_ProcessEnv.h"

#include <atlbase.h>
#include <gtest/gtest.h>
#include <userenv.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <thread>

using QXCommon::CEnvironmentEx;
using Table = std::map<std::wstring, std::wstring>;

// Expects the exact log line from CEnvironmentEx::<method> at the level.
#define EXPECT_ENV_LOG(capture, level, method, text) EXPECT_LOGGED(capture, level, "QXCommon::CEnvironmentEx::" method, text)

namespace
{
std::wstring Lower(std::wstring text) { return _wcslwr(text.data()); }

// "a=1", "b=2" -> "a=1\0b=2\0" and two more terminating characters.
std::vector<wchar_t> Block(const std::vector<std::wstring>& entries)
{
    std::vector<wchar_t> block;
    for (const auto& entry : entries)
        block.insert(block.end(), entry.c_str(), entry.c_str() + entry.size() + 1);
    block.insert(block.end(), {L'\0', L'\0'});
    return block;
}

// The entries of a block as a map, nameless entries skipped, the names of a
// system block lower-cased.
Table TableOf(const wchar_t* block, bool systemBlock = true)
{
    Table result;
    for (std::wstring entry; *block != L'\0'; block += entry.size() + 1)
        if (size_t equals = (entry = block).find(L'='); equals != std::wstring::npos && equals != 0)
            result[systemBlock ? Lower(entry.substr(0, equals)) : entry.substr(0, equals)] = entry.substr(equals + 1);
    return result;
}

Table TableOf(const CEnvironmentEx& environment) { return TableOf(environment.GetAsEnvironmentBlock().data(), false); }

// The environment the system builds for the token as the table holds it:
// names lower-cased, short names in values made long.
Table SystemEnvironment(HANDLE token)
{
    void* block = nullptr;
    if (!CreateEnvironmentBlock(&block, token, FALSE))
        return {};
    auto result = TableOf(static_cast<const wchar_t*>(block));
    DestroyEnvironmentBlock(block);
    for (auto& [name, value] : result)
        if (wchar_t buffer[MAX_PATH * 4]; value.find(L'~') != std::wstring::npos)
            if (DWORD n = GetLongPathNameW(value.c_str(), buffer, MAX_PATH * 4); n > 0 && n < MAX_PATH * 4)
                value.assign(buffer, n);
    return result;
}

CHandle OwnToken()
{
    HANDLE token = nullptr;
    OpenProcessToken(GetCurrentProcess(), TOKEN_READ | TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_IMPERSONATE, &token);
    return CHandle(token);
}
} // namespace

// Expansion to any depth, unknown names left as written; in a regular
// expression values are escaped to match literally ("]" left alone).
TEST(EnvironmentExpand, TextAndRegularExpressions)
{
    CEnvironmentEx env(0);
    for (const auto& [name, value] : {std::pair{L"WinDir", L"C:\\Windows"}, {L"b", L"%a%"}, {L"a", L"x"},
                                      {L"deep3", L"%deep2%3"}, {L"deep2", L"%deep1%2"}, {L"deep1", L"1"},
                                      {L"Mixed", L"MiXeD\\Case"}, {L"empty", L""}, {L"br", L"[a]"},
                                      {L"ProgramFiles(x86)", L"C:\\Program Files (x86)"},
                                      {L"inner", L"%ProgramFiles(x86)%\\In"}, {L"odd", L"C:\\$ ^| ! q? * -+.{}"}})
        ASSERT_EQ(env.Add(name, value), 1) << QXTest::Narrow(name);
    const std::pair<const wchar_t*, const wchar_t*> cases[] = { // null: not expanded
        {L"%WINDIR%\\x", L"C:\\Windows\\x"}, {L"%NOPE%\\x", nullptr}, {L"%NOPE%\\%windir%", L"%NOPE%\\C:\\Windows"},
        {L"%b%", L"x"}, {L"<%deep3%>", L"<123>"}, {L"%a%%a%%A%", L"xxx"}, {L"50% off", nullptr}, {L"%", nullptr},
        {L"%%", nullptr}, {L"%%a%%", L"%x%"}, {L"%windir", nullptr}, {L"", nullptr},
        {L"%mixed%\\KEEP", L"MiXeD\\Case\\KEEP"}, {L"[%empty%]", L"[]"},
    };
    for (const auto& [input, expected] : cases)
    {
        std::wstring output = L"untouched", inPlace = input;
        EXPECT_EQ(env.ExpandString(input, output), expected ? 1 : 0) << QXTest::Narrow(input);
        env.ExpandString(inPlace);
        EXPECT_EQ(output + L"|" + inPlace, expected ? expected + (L"|" + std::wstring(expected))
                                                    : L"untouched|" + std::wstring(input)) << QXTest::Narrow(input);
    }
    std::wstring output = L"untouched";
    EXPECT_TRUE(env.ExpandString(nullptr, output) == 0 && output == L"untouched");
    const std::pair<const wchar_t*, const wchar_t*> rxCases[] = {
        {L"%ProgramFiles(x86)%", L"C:\\\\Program Files \\(x86\\)"},
        {L"%INNER%.*", L"C:\\\\Program Files \\(x86\\)\\\\In.*"}, {L"%nope%|%br%", L"%nope%|\\[a]"},
        {L"^%odd%$", L"^C:\\\\\\$ \\^\\| \\! q\\? \\* \\-\\+\\.\\{\\}$"}, {L"%nope%|50%", nullptr}, {L"", nullptr},
    };
    for (const auto& [input, expected] : rxCases)
    {
        std::wstring rx;
        EXPECT_TRUE(env.ExpandRxString(input, rx) == (expected ? 1 : 0) && rx == (expected ? expected : input))
            << QXTest::Narrow(rx);
    }

    // ExpandVariable replaces every occurrence once and keeps the case of the rest.
    struct Case { const wchar_t *subject, *name, *value; int result; const wchar_t* expected; } variableCases[] = {
        {L"A%X%b%x%C", L"x", L"Val", 1, L"AValbValC"}, {L"%X%", L"X", L"%x%", 1, L"%x%"}, // not searched again
        {L"%y%", L"x", L"v", 0, L"%y%"}, {L"%x", L"x", L"v", 0, L"%x"}, {L"%x%", L"", L"v", 0, L"%x%"},
        {L"%%x%%", L"x", L"v", 1, L"%v%"}, {L"KEEP %Program Files% case", L"program files", L"P", 1, L"KEEP P case"},
    };
    for (const Case& c : variableCases)
    {
        std::wstring subject = c.subject;
        EXPECT_TRUE(env.ExpandVariable(subject, c.name, c.value) == c.result && subject == c.expected)
            << QXTest::Narrow(c.subject);
    }
}

// Names are found with or without their "%" signs, in any case. The cache
// is keyed by the exact text and kept by Add and by an unchanged flag; a
// reset, switching off and a reload empty it; a failure is not kept.
TEST(EnvironmentTable, LookupAddRemoveCopyAndTheCache)
{
    CEnvironmentEx env(1), other;
    auto expands = [&env](const wchar_t* text) { std::wstring out; return env.ExpandString(text, out) == 1 ? out : L"<none>"; };
    EXPECT_EQ(env.Add(L"DIR", L"C:\\Temp"), 1);
    std::wstring value;
    for (const wchar_t* name : {L"%DIR%", L"Dir", L"%dir", L"dir%%"})
        EXPECT_TRUE(env.Lookup(name, value) == 1 && value == L"C:\\Temp") << QXTest::Narrow(name);
    value = L"kept";
    EXPECT_EQ(env.Lookup(L"%", value) + env.Lookup(L"", value) + env.Lookup(nullptr, value), 0);
    EXPECT_EQ(value, L"kept");
    EXPECT_EQ(env.Add(nullptr, L"x") + env.Add(L"x", nullptr) + env.Add(L"", L"x") + env.Add(std::wstring(), L"x"), 0);
    EXPECT_EQ(other.CopyVariable(env, L"missing") + other.CopyVariable(env, nullptr), 0);
    EXPECT_EQ(other.CopyVariable(env, L"%DIR%"), 1);
    EXPECT_EQ(TableOf(other), (Table{{L"dir", L"C:\\Temp"}}));
    EXPECT_EQ(env.Remove(L"DIR"), 1);
    EXPECT_EQ(env.Remove(std::wstring(L"dir")) + env.Remove(nullptr) + env.Remove(L"") + env.Lookup(L"dir", value), 0);

    env.Add(L"dir", L"C:\\One");
    EXPECT_EQ(expands(L"%dir%\\a.exe"), L"C:\\One\\a.exe");
    EXPECT_EQ(env.Add(std::wstring(L"Dir"), std::wstring(L"C:\\Two")), 1); // one entry, replaced
    EXPECT_EQ(expands(L"%dir%\\a.exe") + expands(L"%DIR%\\a.exe"), L"C:\\One\\a.exeC:\\Two\\a.exe");
    {
        QXTest::LogCapture capture;
        env.Debug();
        EXPECT_ENV_LOG(capture, 4, "Debug", L"Environment [dir] = [C:\\Two]\n");
        EXPECT_ENV_LOG(capture, 4, "Debug", L"Accellerator [%dir%\\a.exe] = [C:\\One\\a.exe]\n");
        EXPECT_EQ(capture.Count(), 3u) << capture.Dump();
    }
    env.ResetAccellerator();
    EXPECT_EQ(expands(L"%dir%\\a.exe"), L"C:\\Two\\a.exe");
    env.EnableAccellerator(0);
    env.Add(L"dir", L"C:\\Three");
    EXPECT_EQ(expands(L"%dir%\\a.exe"), L"C:\\Three\\a.exe");
    env.EnableAccellerator(1);
    EXPECT_EQ(expands(L"%dir%\\a.exe") + expands(L"%later%"), L"C:\\Three\\a.exe<none>");
    env.Add(L"dir", L"C:\\Five");
    env.Add(L"later", L"now");
    env.EnableAccellerator(1);
    EXPECT_EQ(expands(L"%dir%\\a.exe") + expands(L"%later%"), L"C:\\Three\\a.exenow");
    auto block = Block({L"DIR=C:\\Six"});
    ASSERT_EQ(env.LoadFromEnvironmentBlock(block.data()), 1);
    EXPECT_EQ(expands(L"%dir%\\a.exe"), L"C:\\Six\\a.exe");
}

TEST(EnvironmentNormalise, LongestValueWins)
{
    CEnvironmentEx env;
    auto block = Block({L"SystemDrive=C:", L"SystemRoot=C:\\Windows", L"ProgramFiles=C:\\Program Files",
                        L"ProgramFiles(x86)=C:\\Program Files (x86)", L"ProgramData=C:\\ProgramData", L"UserProfile=C:\\Users\\U",
                        L"AppData=C:\\Users\\U\\AppData\\Roaming", L"LocalAppData=C:\\Users\\U\\AppData\\Local",
                        L"TEMP=C:\\Users\\U\\AppData\\Local\\Temp\\", L"Other=C:\\Users"});
    ASSERT_EQ(env.LoadFromEnvironmentBlock(block.data()), 1);
    QXTest::LogCapture capture;
    const std::pair<const wchar_t*, const wchar_t*> cases[] = {
        {L"c:\\program files\\A\\B.EXE", L"%programfiles%\\a\\b.exe"},
        {L"C:\\Windows\\System32\\cmd.exe", L"%systemroot%\\system32\\cmd.exe"},
        {L"C:\\Other\\x.exe", L"%systemdrive%\\other\\x.exe"},
        {L"C:\\Users\\U\\AppData\\Local\\Temp\\t.exe", L"%temp%t.exe"}, // the value ends in "\\"
        {L"C:\\Users\\U\\AppData\\Local\\x.exe", L"%localappdata%\\x.exe"}, {L"D:\\Tools\\x.exe", L"d:\\tools\\x.exe"},
        // Every occurrence, wherever it stands, with the text around it kept.
        {L"\"C:\\Windows\\a.exe\" /in C:\\Windows\\b", L"\"%systemroot%\\a.exe\" /in %systemroot%\\b"}, {L"", L""},
        {L"C:\\Program Files (x86)\\A\\b.exe", L"%programfiles(x86)%\\a\\b.exe"},
    };
    for (const auto& [input, expected] : cases)
    {
        std::wstring path = input;
        capture.Clear(); // the last case's lines stay
        env.NormalisePaths(path);
        EXPECT_EQ(path, expected) << QXTest::Narrow(input);
    }
    EXPECT_ENV_LOG(capture, 4, "NormalisePaths",
                   L"Try Replacing [c:\\program files (x86)] with [%programfiles(x86)%] in [c:\\program files (x86)\\a\\b.exe].\n");
    // The longest value is tried first, the shortest ("c:") last.
    const auto entries = capture.Entries();
    EXPECT_TRUE(entries.size() == 11u && entries[9].text.rfind(L"Try Replacing [c:] with [%systemdrive%]", 0) == 0);
}

// Entries without "=" or beginning with "=" are not loaded, values may hold
// "=", short names become long; copies of a block keep every entry as it was.
TEST(EnvironmentBlock, TableAsBlockAndBlocksWithOddEntries)
{
    CEnvironmentEx env;
    EXPECT_EQ(env.GetAsEnvironmentBlock(), std::vector<wchar_t>{L'\0'});
    env.Add(L"B", L"Two");
    env.Add(L"a", L"One");
    const std::wstring expected(L"a=One\0b=Two\0", 13);
    EXPECT_EQ(env.GetAsEnvironmentBlock(), std::vector<wchar_t>(expected.begin(), expected.end()));

    QXTest::TempDir dir;
    const std::wstring longFolder = dir.MakeDir(L"A Rather Long Folder Name.With Dots"), longValue(100000, L'v');
    wchar_t shortPath[MAX_PATH * 4];
    const std::wstring shortForm(shortPath, GetShortPathNameW(longFolder.c_str(), shortPath, MAX_PATH * 4));
    auto block = Block({L"=C:=C:\\", L"noequals", L"x=1=2", L"LONG=" + longValue, L"=", L"y=", L"Missing=C:\\NOSUCH~1\\X~2"});
    CEnvironmentEx loaded;
    ASSERT_EQ(loaded.LoadFromEnvironmentBlock(block.data()), 1);
    const Table table = {{L"x", L"1=2"}, {L"long", longValue}, {L"y", L""}, {L"missing", L"C:\\NOSUCH~1\\X~2"}};
    EXPECT_EQ(TableOf(loaded), table);
    std::wstring out;
    EXPECT_TRUE(loaded.ExpandString(L"%long%", out) == 1 && out == longValue);
    const wchar_t emptyBlock[] = {L'\0', L'\0'};
    EXPECT_EQ(loaded.LoadFromEnvironmentBlock(emptyBlock), 1);
    EXPECT_EQ(TableOf(loaded), table);
    {
        QXTest::LogCapture capture;
        EXPECT_EQ(loaded.LoadFromEnvironmentBlock(nullptr), 0);
        EXPECT_ENV_LOG(capture, 1, "LoadFromEnvironmentBlock", L"Environment block is null.\n");
    }
    using QXCommon::CEnvironmentBlockEx;
    EXPECT_EQ(CEnvironmentBlockEx::LoadFromEnvironmentBlock(block.data()), std::vector<wchar_t>(block.begin(), block.end() - 1));
    EXPECT_EQ(CEnvironmentBlockEx::LoadFromEnvironmentBlock(emptyBlock), (std::vector<wchar_t>{0, 0}));
    wchar_t converted = 0;
    MultiByteToWideChar(CP_ACP, 0, "\xe9", 1, &converted, 1);
    const std::wstring wide = std::wstring(L"=C:=C:\\\0A=b", 11) + converted + std::wstring(L"\0noequals\0\0", 11);
    EXPECT_EQ(CEnvironmentBlockEx::LoadFromEnvironmentBlockANSI("=C:=C:\\\0A=b\xe9\0noequals\0\0"),
              std::vector<wchar_t>(wide.begin(), wide.end()));
    EXPECT_EQ(CEnvironmentBlockEx::LoadFromEnvironmentBlockANSI("\0\0"), (std::vector<wchar_t>{0, 0}));
    EXPECT_TRUE(CEnvironmentBlockEx::LoadFromEnvironmentBlock(nullptr).empty() &&
                CEnvironmentBlockEx::LoadFromEnvironmentBlockANSI(nullptr).empty());

    if (shortForm.find(L'~') == std::wstring::npos)
        GTEST_SKIP() << "the file system gives no 8.3 name for " << QXTest::Narrow(longFolder);
    QXTest::LogCapture capture;
    block = Block({L"ShortOne=" + shortForm});
    ASSERT_EQ(loaded.LoadFromEnvironmentBlock(block.data()), 1);
    ASSERT_TRUE(loaded.Lookup(L"shortone", out) == 1 && Lower(out) == Lower(longFolder)) << QXTest::Narrow(out);
    EXPECT_ENV_LOG(capture, 4, "EnsureLongFileName", L"Converted to long [" + out + L"]\n");
}

TEST(EnvironmentFileVariables, TableAndProcessEnvironment)
{
    const wchar_t* const cases[][3] = { // path, directory, name
        {L"C:\\Program Files\\App\\run.exe", L"C:\\Program Files\\App", L"run.exe"},
        {L"C:\\run.exe", L"C:\\", L"run.exe"}, {L"run.exe", L"", L"run.exe"}, {L"C:run.exe", L"C:", L"run.exe"},
    };
    for (const auto& [path, directory, name] : cases)
    {
        CEnvironmentEx env;
        ASSERT_EQ(QXCommon::CQXEnvironmentVars::DefineKestrovaFileEnvVariables(path, env), 1);
        std::wstring expanded;
        EXPECT_EQ(env.ExpandString(L"%ExecutableName%|%directoryname%|%FULLPATHNAME%", expanded), 1);
        EXPECT_EQ(expanded, std::wstring(name) + L"|" + directory + L"|" + path);
    }
    CEnvironmentEx env;
    EXPECT_TRUE(QXCommon::CQXEnvironmentVars::DefineKestrovaFileEnvVariables(L"", env) == 0 && TableOf(env).empty());

    using QXCommon::CQXEnvironmentVars_ProcessEnv;
    ASSERT_TRUE(CQXEnvironmentVars_ProcessEnv::DefineKestrovaFileEnvVariables(L"C:\\Apps\\tool.exe"));
    std::wstring expanded, inPlace = L"%ExecutableName%|%DirectoryName%";
    EXPECT_EQ(CQXEnvironmentVars_ProcessEnv::ExpandEnvVariables(L"%FullPathName%", expanded) +
                  CQXEnvironmentVars_ProcessEnv::ExpandEnvVariables(inPlace), 0u);
    EXPECT_EQ(expanded + L"|" + inPlace, L"C:\\Apps\\tool.exe|tool.exe|C:\\Apps");
    // An empty value sets nothing.
    EXPECT_TRUE(CQXEnvironmentVars_ProcessEnv::DefineIndividualKestrovaFileEnvVariable(L"QxEnvEmpty", L""));
    EXPECT_EQ(GetEnvironmentVariableW(L"QXENVEMPTY", nullptr, 0), 0u);
}

// Five threads use one table while two change it: every answer is one the
// table gave at some moment; a deadlock ends the run.
TEST(EnvironmentConcurrency, SharedTableStaysConsistent)
{
    CEnvironmentEx env{1};
    auto block = Block({L"root=C:\\R", L"sub=%root%\\S", L"flip=A", L"SystemRoot=C:\\R"});
    ASSERT_EQ(env.LoadFromEnvironmentBlock(block.data()), 1);
    std::atomic<int> bad{0}, finished{0};
    auto use = [&](int i) {
        std::wstring out, gone, rx, value, path = L"C:\\R\\App\\X.EXE";
        const std::wstring spelling = i % 2 ? L"%gone%" : L"%GONE%"; // unknown names stay as written
        env.ExpandString((spelling + L"|%root%").c_str(), gone);
        env.NormalisePaths(path);
        bad += env.ExpandString(L"%SUB%\\%flip%", out) == 1 && (out == L"C:\\R\\S\\A" || out == L"C:\\R\\S\\B") &&
                       (gone == L"G|C:\\R" || gone == spelling + L"|C:\\R") && env.ExpandRxString(L"%root%.*", rx) == 1 &&
                       rx == L"C:\\\\R.*" && env.Lookup(L"%FLIP%", value) == 1 && (value == L"A" || value == L"B") &&
                       path == L"%systemroot%\\app\\x.exe" && env.GetAsEnvironmentBlock().back() == 0 ? 0 : 1;
    };
    auto change = [&](int i) {
        env.Add(L"FLIP", i % 2 ? L"A" : L"B");
        i % 3 == 0 ? env.Remove(L"gone") : env.Add(std::wstring(L"Gone"), std::wstring(L"G"));
        if (i % 5 == 0)
            env.ResetAccellerator();
        if (i % 97 == 0) // the cache off now and then
            env.EnableAccellerator(i % 2);
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < 7; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 2000; ++i)
                t < 5 ? use(i) : change(i);
            ++finished;
        });
    for (int waited = 0; finished < 7 && waited++ < 1800;)
        Sleep(100);
    if (finished < 7 && std::fprintf(stderr, "threads did not finish within 180 s (deadlock)\n")) // ends the run
        TerminateProcess(GetCurrentProcess(), 3);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(bad.load(), 0);
}

// The table holds the system's environment for the token (and nothing of the
// calling process's own) with the account's user name, whether the token is
// given or found from a process id.
TEST(EnvironmentLoad, FromTokenAndFromProcessMatchTheSystem)
{
    CHandle token = OwnToken();
    auto system = SystemEnvironment(token);
    wchar_t user[256];
    DWORD chars = 256;
    ASSERT_TRUE(GetUserNameW(user, &chars) && system.size() > 5);
    system[L"username"] = user; // LoadUserName sets it from the account
    QXTest::ChildProcess child; // another process of the test's user
    ASSERT_TRUE(child.Ready());
    SetEnvironmentVariableW(L"QXONLYINTHISPROCESS", L"1");
    for (bool byProcess : {false, true})
    {
        CEnvironmentEx env;
        QXTest::LogCapture capture;
        ASSERT_EQ(byProcess ? env.LoadFromProcess(child.Pid()) : env.LoadFromTokenHandle(token, 0), 1) << capture.Dump();
        EXPECT_EQ(env.UserName(), user);
        EXPECT_EQ(TableOf(env), system);
        EXPECT_TRUE(capture.HasFragment(L"LoadUserName - Domain: [")) << capture.Dump();
        EXPECT_FALSE(capture.HasFragment(L"DestroyEnvironmentBlock")) << capture.Dump();
    }
    SetEnvironmentVariableW(L"QXONLYINTHISPROCESS", nullptr);

    CEnvironmentEx bad;
    QXTest::LogCapture capture;
    EXPECT_TRUE(bad.LoadFromProcess(0) == 0 && capture.Count() == 0u);
    EXPECT_EQ(bad.LoadFromProcess(0xFFFFFFF1), 0); // ids are multiples of 4
    EXPECT_TRUE(capture.HasFragment(L"Failed to open process -  error ") && TableOf(bad).empty()) << capture.Dump();
    // A token that is not one: the system's default environment is used.
    capture.Clear();
    const int result = bad.LoadFromTokenHandle(GetCurrentThread(), 0);
    if (!capture.HasFragment(L"try with null token"))
        GTEST_SKIP() << "this system builds an environment block for a handle that is not a token";
    EXPECT_TRUE(result == 1 && capture.HasFragment(L"LoadUserName failed [")) << capture.Dump();
    std::wstring value;
    EXPECT_EQ(bad.Lookup(L"systemroot", value), 1);
}

TEST(EnvironmentLoad, PerSessionTemporaryFolders)
{
    CHandle token = OwnToken();
    auto system = SystemEnvironment(token);
    ASSERT_TRUE(system.count(L"temp"));
    const std::wstring temp = system[L"temp"], tmp = system[L"tmp"];
    // "PerSessionTempDir" under the policy key, else the server's; put back as it was afterwards.
    const std::wstring keys[] = {L"Software\\Policies\\Microsoft\\Windows NT\\Terminal Services",
                                 L"System\\CurrentControlSet\\Control\\Terminal Server"},
                       got = L"Got PerSessionTempValue from key ", neither = L"Failed to query either PerSessionTempDir key. Error: ";
    QXTest::SavedRegValue saved[] = {{HKEY_LOCAL_MACHINE, keys[0], L"PerSessionTempDir"}, {HKEY_LOCAL_MACHINE, keys[1], L"PerSessionTempDir"}};
    struct Case { DWORD types[2]; ULONGLONG values[2]; bool enabled; std::wstring decidingLog; } cases[] = {
        {{REG_DWORD, REG_DWORD}, {1, 0}, true, got + keys[0] + L". Value 1\n"},
        {{REG_DWORD, REG_DWORD}, {0, 1}, false, got + keys[0] + L". Value 0\n"},
        {{REG_NONE, REG_DWORD}, {0, 7}, true, got + keys[1] + L". Value 7\n"},
        {{REG_SZ, REG_DWORD}, {0, 1}, true, L"Failed to query the PerSessionTempDir value in " + keys[0] + L". Error: 13\n"},
        {{REG_QWORD, REG_NONE}, {1, 0}, false, neither + L"2\n"}, {{REG_SZ, REG_SZ}, {0, 0}, false, neither + L"13\n"},
    };
    for (const Case& c : cases)
    {
        for (int k = 0; k < 2; ++k)
            ASSERT_TRUE(c.types[k] == REG_SZ ? saved[k].SetString(L"1")
                                             : saved[k].Set(c.types[k], &c.values[k], c.types[k] == REG_QWORD ? 8 : 4));
        for (DWORD session : {0u, 3u})
        {
            CEnvironmentEx env;
            QXTest::LogCapture capture;
            ASSERT_EQ(env.LoadFromTokenHandle(token, session), 1);
            EXPECT_LOGGED(capture, c.decidingLog);
            // Only TEMP and TMP take the session's folder, and only outside session 0.
            const std::wstring suffix = c.enabled && session != 0 ? L"\\3" : L"";
            std::wstring value, tmpValue, root;
            EXPECT_TRUE(env.Lookup(L"TEMP", value) == 1 && value == temp + suffix) << QXTest::Narrow(value);
            EXPECT_TRUE((tmp.empty() || (env.Lookup(L"tmp", tmpValue) == 1 && tmpValue == tmp + suffix)) &&
                        env.Lookup(L"systemroot", root) == 1 && root.find(L"\\3") == std::wstring::npos);
        }
    }
}

// By the system: with this process's environment, and for a user (the
// buffer starts at twice the input and is doubled, 10 times at most).
TEST(EnvironmentDirect, ExpandWithTheProcessEnvironmentAndForAUser)
{
    const std::wstring big(20000, L'b');
    SetEnvironmentVariableW(L"QXENVBIG", big.c_str());
    CHandle token = OwnToken();
    std::wstring out, forUser = L"kept";
    QXTest::LogCapture capture;
    const DWORD direct = CEnvironmentEx::ExpandStringDirect(L"<%QXENVBIG%|%QX_NO_SUCH_VAR%>", out),
                error = CEnvironmentEx::ExpandStringDirectForUser(token, L"%QXENVBIG%", forUser);
    SetEnvironmentVariableW(L"QXENVBIG", nullptr);
    EXPECT_TRUE(direct == 0 && out == L"<" + big + L"|%QX_NO_SUCH_VAR%>");
    EXPECT_ENV_LOG(capture, 4, "ExpandStringDirect", L"String Expanded, length [20019].\n");
    out = L"kept";
    EXPECT_NE(CEnvironmentEx::ExpandStringDirect(L"", out) * CEnvironmentEx::ExpandStringDirectForUser(token, L"", out), 0u);
    EXPECT_EQ(out, L"kept");
    EXPECT_ENV_LOG(capture, 1, "ExpandStringDirect", L"Input String is empty.\n");
    ASSERT_EQ(CEnvironmentEx::ExpandStringDirectForUser(token, L"%PATH%", out), 0u);
    EXPECT_EQ(out, SystemEnvironment(token)[L"path"]);
    if (error == 0 && forUser == L"%QXENVBIG%")
        GTEST_SKIP() << "the system expands for the user's profile environment, not the process's";
    EXPECT_TRUE(error == ERROR_INSUFFICIENT_BUFFER && forUser == L"kept") << error << QXTest::Narrow(forUser.substr(0, 40));
    EXPECT_ENV_LOG(capture, 1, "ExpandStringDirectForUser", L"Max attempts - failed to expand.\n");
}
