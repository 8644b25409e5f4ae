// Expansion against a table: passes in key order, unknown names, case,
// the expansion cache, expansion inside regular expressions, normalisation,
// blocks and bad input.

#include "EnvTestHelpers.h"

#include "QXCommon/EnvironmentBlockEx.h"
#include "QXCommon/QXEnvironmentVars.h"
#include "QXCommon/QXEnvironmentVars_ProcessEnv.h"

#include <gtest/gtest.h>

#include <regex>

using QXCommon::CEnvironmentEx;

TEST(EnvironmentExpand, Cases)
{
    CEnvironmentEx env(0);
    const std::pair<const wchar_t*, const wchar_t*> variables[] = {
        {L"WinDir", L"C:\\Windows"}, {L"b", L"%a%"},   {L"a", L"x"},
        {L"deep3", L"%deep2%3"},      {L"deep2", L"%deep1%2"}, {L"deep1", L"1"},
        {L"Mixed", L"MiXeD\\Case"},   {L"empty", L""},
    };
    for (const auto& [name, value] : variables)
        ASSERT_EQ(env.Add(name, value), 1) << QXTest::Narrow(name);
    struct Case
    {
        const wchar_t* input;
        int result;
        const wchar_t* output; // the untouched marker when result is 0
    } cases[] = {
        {L"%WINDIR%\\x", 1, L"C:\\Windows\\x"},
        {L"%windir%\\x", 1, L"C:\\Windows\\x"},
        {L"%NOPE%\\x", 0, L"untouched"},
        {L"%NOPE%\\%windir%", 1, L"%NOPE%\\C:\\Windows"},
        {L"%b%", 1, L"x"},
        {L"<%deep3%>", 1, L"<123>"},
        {L"%a%%a%%A%", 1, L"xxx"},
        {L"50% off", 0, L"untouched"},
        {L"100%", 0, L"untouched"},
        {L"%", 0, L"untouched"},
        {L"%%", 0, L"untouched"},
        {L"%%a%%", 1, L"%x%"},
        {L"%windir", 0, L"untouched"},
        {L"windir%", 0, L"untouched"},
        {L"no percent at all", 0, L"untouched"},
        {L"", 0, L"untouched"},
        {L"%mixed%\\KEEP", 1, L"MiXeD\\Case\\KEEP"},
        {L"[%empty%]", 1, L"[]"},
        {L"%empty%", 1, L""},
    };
    for (const Case& c : cases)
    {
        std::wstring output = L"untouched";
        EXPECT_EQ(env.ExpandString(c.input, output), c.result) << QXTest::Narrow(c.input);
        EXPECT_EQ(output, c.output) << QXTest::Narrow(c.input);

        // The in-place overload gives the same text, or leaves the string alone.
        std::wstring inPlace = c.input;
        env.ExpandString(inPlace);
        EXPECT_EQ(inPlace, c.result == 1 ? std::wstring(c.output) : std::wstring(c.input)) << QXTest::Narrow(c.input);
    }
    std::wstring output = L"untouched";
    EXPECT_EQ(env.ExpandString(nullptr, output), 0);
    EXPECT_EQ(output, L"untouched");
}

TEST(EnvironmentExpand, ExpandVariableReplacesEveryOccurrenceOnceAndKeepsCase)
{
    CEnvironmentEx env;
    struct Case { const wchar_t *subject, *name, *value; int result; const wchar_t* expected; } cases[] = {
        {L"A%X%b%x%C", L"x", L"Val", 1, L"AValbValC"},
        {L"%X%", L"X", L"%x%", 1, L"%x%"}, // the inserted value is not searched again
        {L"%y%", L"x", L"v", 0, L"%y%"},
        {L"%x", L"x", L"v", 0, L"%x"},
        {L"%x%", L"", L"v", 0, L"%x%"},
        {L"%%x%%", L"x", L"v", 1, L"%v%"},
        {L"KEEP %Program Files% case", L"program files", L"P", 1, L"KEEP P case"},
    };
    for (const Case& c : cases)
    {
        std::wstring subject = c.subject;
        EXPECT_EQ(env.ExpandVariable(subject, c.name, c.value), c.result) << QXTest::Narrow(c.subject);
        EXPECT_EQ(subject, c.expected) << QXTest::Narrow(c.subject);
    }
}

TEST(EnvironmentTable, LookupAddRemoveCopy)
{
    CEnvironmentEx env;
    EXPECT_EQ(env.Add(L"TEMP", L"C:\\Temp"), 1);
    std::wstring value;
    for (const wchar_t* name : {L"%TEMP%", L"temp", L"Temp", L"%temp", L"temp%%"})
    {
        value.clear();
        EXPECT_EQ(env.Lookup(name, value), 1) << QXTest::Narrow(name);
        EXPECT_EQ(value, L"C:\\Temp");
    }
    value = L"kept";
    for (const wchar_t* name : {L"%", L"", static_cast<const wchar_t*>(nullptr)})
        EXPECT_EQ(env.Lookup(name, value), 0);
    EXPECT_EQ(value, L"kept");

    // Replace keeps one entry, names are stored in lower case.
    EXPECT_EQ(env.Add(std::wstring(L"Temp"), std::wstring(L"D:\\T")), 1);
    auto table = EnvTest::TableOf(env);
    EXPECT_EQ(table.size(), 1u);
    EXPECT_EQ(table[L"temp"], L"D:\\T");

    // Bad names and values are refused, not stored.
    EXPECT_EQ(env.Add(nullptr, L"x"), 0);
    EXPECT_EQ(env.Add(L"x", nullptr), 0);
    EXPECT_EQ(env.Add(L"", L"x"), 0);
    EXPECT_EQ(env.Add(std::wstring(), std::wstring(L"x")), 0);
    EXPECT_EQ(EnvTest::TableOf(env).size(), 1u);

    CEnvironmentEx other;
    EXPECT_EQ(other.CopyVariable(env, L"%TEMP%"), 1);
    EXPECT_EQ(other.Lookup(L"temp", value), 1);
    EXPECT_EQ(value, L"D:\\T");
    EXPECT_EQ(other.CopyVariable(env, L"missing"), 0);
    EXPECT_EQ(other.CopyVariable(env, nullptr), 0);

    EXPECT_EQ(env.Remove(L"TEMP"), 1);
    EXPECT_EQ(env.Remove(std::wstring(L"temp")), 0);
    for (const wchar_t* name : {static_cast<const wchar_t*>(nullptr), L""})
        EXPECT_EQ(env.Remove(name), 0);
    EXPECT_EQ(env.Lookup(L"temp", value), 0);
}

TEST(EnvironmentExpand, CacheHitsUntilResetOrSwitchedOff)
{
    CEnvironmentEx env(1);
    auto expands = [&env](const wchar_t* text, const wchar_t* expected) {
        std::wstring out;
        EXPECT_EQ(env.ExpandString(text, out), 1) << QXTest::Narrow(text);
        EXPECT_EQ(out, expected) << QXTest::Narrow(text);
    };
    env.Add(L"dir", L"C:\\One");
    expands(L"%dir%\\a.exe", L"C:\\One\\a.exe");
    // Add does not empty the cache: the old expansion is still served. The
    // key is the exact text: another spelling is expanded afresh.
    env.Add(L"dir", L"C:\\Two");
    expands(L"%dir%\\a.exe", L"C:\\One\\a.exe");
    expands(L"%DIR%\\a.exe", L"C:\\Two\\a.exe");
    {
        QXTest::LogCapture capture;
        env.Debug();
        EXPECT_ENV_LOG(capture, 4, "Debug", L"Environment [dir] = [C:\\Two]\n");
        EXPECT_ENV_LOG(capture, 4, "Debug", L"Accellerator [%dir%\\a.exe] = [C:\\One\\a.exe]\n");
    }
    env.ResetAccellerator();
    expands(L"%dir%\\a.exe", L"C:\\Two\\a.exe");

    // Switching off empties the cache and stops caching; an unchanged flag keeps it.
    env.EnableAccellerator(0);
    env.Add(L"dir", L"C:\\Three");
    expands(L"%dir%\\a.exe", L"C:\\Three\\a.exe");
    env.EnableAccellerator(1);
    env.Add(L"dir", L"C:\\Four");
    expands(L"%dir%\\a.exe", L"C:\\Four\\a.exe");
    env.Add(L"dir", L"C:\\Five");
    env.EnableAccellerator(1);
    expands(L"%dir%\\a.exe", L"C:\\Four\\a.exe");

    // A failed expansion is not cached.
    std::wstring out = L"untouched";
    EXPECT_EQ(env.ExpandString(L"%later%", out), 0);
    env.Add(L"later", L"now");
    expands(L"%later%", L"now");

    // A reload empties the cache.
    auto block = EnvTest::Block({L"DIR=C:\\Six"});
    ASSERT_EQ(env.LoadFromEnvironmentBlock(block.data()), 1);
    expands(L"%dir%\\a.exe", L"C:\\Six\\a.exe");
}

TEST(EnvironmentExpand, RegexExpansionMatchesTheLiteralFolder)
{
    const wchar_t* folders[] = {
        L"C:\\Program Files (x86)",
        L"C:\\Apps\\v1.2+beta",
        L"C:\\Odd [brackets] {braces}",
        L"C:\\Money$ ^caret| bang! q? star* dash-",
        L"\\\\server\\share.name",
    };
    for (const wchar_t* folder : folders)
    {
        CEnvironmentEx env;
        env.Add(L"ProgramFiles(x86)", folder);
        std::wstring rx;
        ASSERT_EQ(env.ExpandRxString(L"%ProgramFiles(x86)%\\\\app\\.exe", rx), 1) << QXTest::Narrow(folder);
        std::wregex re(rx, std::regex::ECMAScript | std::regex::icase);
        std::wstring path = std::wstring(folder) + L"\\app.exe";
        EXPECT_TRUE(std::regex_match(path, re)) << QXTest::Narrow(rx);
        // A path that differs only where the value has a regex character
        // does not match: the value is literal.
        std::wstring other = path;
        for (wchar_t& c : other)
            if (c == L'.' || c == L'(' || c == L'+' || c == L'[' || c == L'$')
                c = L'Z';
        if (other != path)
        {
            EXPECT_FALSE(std::regex_match(other, re)) << QXTest::Narrow(rx);
        }
    }

    CEnvironmentEx env;
    env.Add(L"ProgramFiles(x86)", L"C:\\Program Files (x86)");
    env.Add(L"inner", L"%ProgramFiles(x86)%\\In");
    std::wstring rx;
    ASSERT_EQ(env.ExpandRxString(L"%ProgramFiles(x86)%", rx), 1);
    EXPECT_EQ(rx, L"C:\\\\Program Files \\(x86\\)");
    // Nested references are expanded before escaping.
    ASSERT_EQ(env.ExpandRxString(L"%INNER%.*", rx), 1);
    EXPECT_EQ(rx, L"C:\\\\Program Files \\(x86\\)\\\\In.*");
    // "]" is left alone; unknown candidates stay; only some matching still counts.
    env.Add(L"br", L"[a]");
    ASSERT_EQ(env.ExpandRxString(L"%nope%|%br%", rx), 1);
    EXPECT_EQ(rx, L"%nope%|\\[a]");
    EXPECT_EQ(env.ExpandRxString(L"%nope%|50%", rx), 0);
    EXPECT_EQ(rx, L"%nope%|50%");
    EXPECT_EQ(env.ExpandRxString(L"", rx), 0);
    EXPECT_EQ(rx, L"");
}

TEST(EnvironmentNormalise, LongestValueWins)
{
    CEnvironmentEx env;
    auto block = EnvTest::Block({L"SystemDrive=C:", L"SystemRoot=C:\\Windows", L"ProgramFiles=C:\\Program Files",
                                 L"ProgramFiles(x86)=C:\\Program Files (x86)", L"ProgramData=C:\\ProgramData",
                                 L"UserProfile=C:\\Users\\U", L"AppData=C:\\Users\\U\\AppData\\Roaming",
                                 L"LocalAppData=C:\\Users\\U\\AppData\\Local", L"TEMP=C:\\Users\\U\\AppData\\Local\\Temp\\",
                                 L"Other=C:\\Users"});
    {
        QXTest::LogCapture capture;
        ASSERT_EQ(env.LoadFromEnvironmentBlock(block.data()), 1);
        EXPECT_ENV_LOG(capture, 4, "SetupNormalisationEnvVars",
                       L"Env Var [programfiles(x86)] -> [C:\\Program Files (x86)].\n");
    }
    const std::pair<const wchar_t*, const wchar_t*> cases[] = {
        {L"C:\\Program Files (x86)\\A\\b.exe", L"%programfiles(x86)%\\a\\b.exe"},
        {L"c:\\program files\\A\\B.EXE", L"%programfiles%\\a\\b.exe"},
        {L"C:\\Windows\\System32\\cmd.exe", L"%systemroot%\\system32\\cmd.exe"},
        {L"C:\\Other\\x.exe", L"%systemdrive%\\other\\x.exe"},
        {L"C:\\Users\\U\\AppData\\Local\\Temp\\t.exe", L"%temp%t.exe"}, // the value ends in "\\"
        {L"C:\\Users\\U\\AppData\\Local\\x.exe", L"%localappdata%\\x.exe"},
        {L"C:\\Users\\U\\Desktop\\x.exe", L"%userprofile%\\desktop\\x.exe"},
        {L"D:\\Tools\\x.exe", L"d:\\tools\\x.exe"},
        {L"", L""},
    };
    for (const auto& [input, expected] : cases)
    {
        std::wstring path = input;
        env.NormalisePaths(path);
        EXPECT_EQ(path, expected) << QXTest::Narrow(input);
    }

    QXTest::LogCapture capture;
    std::wstring path = L"C:\\Program Files (x86)\\A\\b.exe";
    env.NormalisePaths(path);
    EXPECT_ENV_LOG(capture, 4, "NormalisePaths", L"Input Path [C:\\Program Files (x86)\\A\\b.exe].\n");
    EXPECT_ENV_LOG(capture, 4, "NormalisePaths",
                   L"Try Replacing [c:\\program files (x86)] with [%programfiles(x86)%] in "
                   L"[c:\\program files (x86)\\a\\b.exe].\n");
    EXPECT_ENV_LOG(capture, 4, "NormalisePaths", L"Final Path [%programfiles(x86)%\\a\\b.exe].\n");
    // The longest value is tried first, the shortest last.
    std::vector<std::wstring> tries;
    for (const auto& entry : capture.Entries())
        if (entry.text.rfind(L"Try Replacing [", 0) == 0)
            tries.push_back(entry.text.substr(15, entry.text.find(L']') - 15));
    ASSERT_EQ(tries.size(), 9u);
    for (size_t i = 1; i < tries.size(); ++i)
        EXPECT_GE(tries[i - 1].size(), tries[i].size());
    EXPECT_EQ(tries.back(), L"c:");
}

TEST(EnvironmentBlock, TableAsBlockAndBlocksWithOddEntries)
{
    CEnvironmentEx env;
    EXPECT_EQ(env.GetAsEnvironmentBlock(), std::vector<wchar_t>{L'\0'});
    env.Add(L"B", L"Two");
    env.Add(L"a", L"One");
    std::vector<wchar_t> expected = {L'a', L'=', L'O', L'n', L'e', 0, L'b', L'=', L'T', L'w', L'o', 0, 0};
    EXPECT_EQ(env.GetAsEnvironmentBlock(), expected);

    // Entries without "=" or beginning with "=" are not loaded; values may hold "=".
    std::wstring longValue(100000, L'v');
    auto block = EnvTest::Block({L"=C:=C:\\", L"noequals", L"x=1=2", L"LONG=" + longValue, L"=", L"y="});
    CEnvironmentEx loaded;
    ASSERT_EQ(loaded.LoadFromEnvironmentBlock(block.data()), 1);
    auto table = EnvTest::TableOf(loaded);
    EXPECT_EQ(table.size(), 3u);
    EXPECT_EQ(table[L"x"], L"1=2");
    EXPECT_EQ(table[L"long"], longValue);
    EXPECT_EQ(table[L"y"], L"");
    std::wstring out;
    EXPECT_EQ(loaded.ExpandString(L"%%", out), 0);
    EXPECT_EQ(loaded.ExpandString(L"%long%", out), 1);
    EXPECT_EQ(out.size(), longValue.size());

    const wchar_t emptyBlock[] = {L'\0', L'\0'};
    EXPECT_EQ(loaded.LoadFromEnvironmentBlock(emptyBlock), 1);
    EXPECT_EQ(EnvTest::TableOf(loaded).size(), 3u);
    {
        QXTest::LogCapture capture;
        EXPECT_EQ(loaded.LoadFromEnvironmentBlock(nullptr), 0);
        EXPECT_ENV_LOG(capture, 1, "LoadFromEnvironmentBlock", L"Environment block is null.\n");
    }

    // Copies keep every entry as it was, up to the terminating empty entry.
    auto copy = QXCommon::CEnvironmentBlockEx::LoadFromEnvironmentBlock(block.data());
    EXPECT_EQ(copy, std::vector<wchar_t>(block.begin(), block.end() - 1));
    EXPECT_EQ(QXCommon::CEnvironmentBlockEx::LoadFromEnvironmentBlock(emptyBlock), (std::vector<wchar_t>{0, 0}));
    EXPECT_TRUE(QXCommon::CEnvironmentBlockEx::LoadFromEnvironmentBlock(nullptr).empty());

    const char ansi[] = "=C:=C:\\\0A=b\xe9\0noequals\0\0";
    auto wide = QXCommon::CEnvironmentBlockEx::LoadFromEnvironmentBlockANSI(ansi);
    wchar_t converted[2] = {};
    MultiByteToWideChar(CP_ACP, 0, "\xe9", 1, converted, 1);
    std::wstring expectedText = std::wstring(L"=C:=C:\\") + L'\0' + L"A=b" + converted[0] + L'\0' + L"noequals" +
                                L'\0' + L'\0';
    std::vector<wchar_t> expectedWide(expectedText.begin(), expectedText.end());
    EXPECT_EQ(wide, expectedWide);
    EXPECT_EQ(QXCommon::CEnvironmentBlockEx::LoadFromEnvironmentBlockANSI("\0\0"), (std::vector<wchar_t>{0, 0}));
    EXPECT_TRUE(QXCommon::CEnvironmentBlockEx::LoadFromEnvironmentBlockANSI(nullptr).empty());
}

TEST(EnvironmentFileVariables, TableAndProcessEnvironment)
{
    struct Case { const wchar_t *path, *directory, *name; } cases[] = {
        {L"C:\\Program Files\\App\\run.exe", L"C:\\Program Files\\App", L"run.exe"},
        {L"C:\\run.exe", L"C:\\", L"run.exe"},
        {L"\\\\srv\\share\\x.exe", L"\\\\srv\\share", L"x.exe"},
        {L"run.exe", L"", L"run.exe"},
    };
    for (const Case& c : cases)
    {
        CEnvironmentEx env;
        ASSERT_EQ(QXCommon::CQXEnvironmentVars::DefineKestrovaFileEnvVariables(c.path, env), 1);
        std::wstring value;
        EXPECT_EQ(env.Lookup(L"%ExecutableName%", value), 1);
        EXPECT_EQ(value, c.name);
        EXPECT_EQ(env.Lookup(L"directoryname", value), 1);
        EXPECT_EQ(value, c.directory);
        EXPECT_EQ(env.Lookup(L"FULLPATHNAME", value), 1);
        EXPECT_EQ(value, c.path);
    }
    CEnvironmentEx env;
    EXPECT_EQ(QXCommon::CQXEnvironmentVars::DefineKestrovaFileEnvVariables(L"", env), 0);
    EXPECT_EQ(EnvTest::TableOf(env).size(), 0u);

    using QXCommon::CQXEnvironmentVars_ProcessEnv;
    ASSERT_TRUE(CQXEnvironmentVars_ProcessEnv::DefineKestrovaFileEnvVariables(L"C:\\Apps\\tool.exe"));
    wchar_t buffer[256] = {};
    ASSERT_GT(GetEnvironmentVariableW(L"EXECUTABLENAME", buffer, 256), 0u);
    EXPECT_STREQ(buffer, L"tool.exe");
    std::wstring expanded;
    EXPECT_EQ(CQXEnvironmentVars_ProcessEnv::ExpandEnvVariables(L"%DirectoryName%|%FullPathName%", expanded), 0u);
    EXPECT_EQ(expanded, L"C:\\Apps|C:\\Apps\\tool.exe");
    std::wstring inPlace = L"%ExecutableName%";
    EXPECT_EQ(CQXEnvironmentVars_ProcessEnv::ExpandEnvVariables(inPlace), 0u);
    EXPECT_EQ(inPlace, L"tool.exe");
    // Empty name or value: nothing is set.
    EXPECT_TRUE(CQXEnvironmentVars_ProcessEnv::DefineIndividualKestrovaFileEnvVariable(L"QxEnvEmpty", L""));
    EXPECT_EQ(GetEnvironmentVariableW(L"QXENVEMPTY", buffer, 256), 0u);
    EXPECT_TRUE(CQXEnvironmentVars_ProcessEnv::DefineIndividualKestrovaFileEnvVariable(L"QxEnvSet", L"v"));
    EXPECT_GT(GetEnvironmentVariableW(L"QXENVSET", buffer, 256), 0u);
    SetEnvironmentVariableW(L"QXENVSET", nullptr);
}
