// The rule helpers around the walk: network resources, regular-expression
// rules, driver-hook exception lists, splitting and stripping of paths, and
// the qxinspect front end.

#include "QXTestSupport.h"

#include "QXCommon/FilePathPatternMatcher.h"

#include <gtest/gtest.h>

#include <string>

using QXCommon::CFilePathPatternMatcher;

TEST(MatchAgainstNetworkResourcePattern, ResourceAndEverythingBelowIt)
{
    struct Case
    {
        const wchar_t* path;
        const wchar_t* pattern;
        int flag;
        int expected;
    };
    const Case cases[] = {
        {L"\\\\server\\share", L"\\\\SERVER\\Share", 0, 1},
        {L"\\\\server\\share\\dir\\a.exe", L"\\\\server\\share", 0, 1},
        {L"\\\\server\\share\\dir\\a.exe", L"\\\\server\\share\\", 0, 1},
        {L"//server/share/a.exe", L"\\\\server\\share", 0, 1},
        {L"\\\\server\\shared\\a.exe", L"\\\\server\\share", 0, 0},
        {L"\\\\server", L"\\\\server\\share", 0, 0},
        {L"\\\\server\\share\\a.exe", L"\\\\*\\share\\*.exe", 0, 1},
        {L"\\\\server\\share\\dir\\a.exe", L"\\\\*\\share\\*.exe", 0, 0},
        {L"\\\\server\\share\\a.exe", L"\\\\", 0, 0},
        {L"", L"\\\\server", 0, 0},
    };
    for (const Case& c : cases)
        EXPECT_EQ(CFilePathPatternMatcher::MatchAgainstNetworkResourcePattern(c.path, c.pattern, c.flag), c.expected)
            << QXTest::Narrow(std::wstring(c.path) + L" | " + c.pattern);
}

TEST(MatchAgainstRegularExpressionPattern, SearchesThePathCaseInsensitively)
{
    struct Case
    {
        const wchar_t* path;
        const wchar_t* expression;
        int expected;
    };
    const Case cases[] = {
        {L"C:\\Windows\\System32\\calc.exe", L"system32\\\\calc", 1},
        {L"C:\\Windows\\System32\\calc.exe", L"^c:\\\\windows\\\\[^\\\\]+\\.exe$", 0},
        {L"C:\\Windows\\notepad.exe", L"^c:\\\\windows\\\\[^\\\\]+\\.exe$", 1},
        {L"C:\\x.exe", L"(", 0},
        {L"C:\\x.exe", L"", 0},
    };
    for (const Case& c : cases)
        EXPECT_EQ(CFilePathPatternMatcher::MatchAgainstRegularExpressionPattern(c.path, c.expression), c.expected)
            << QXTest::Narrow(std::wstring(c.path) + L" | " + c.expression);
}

TEST(MatchAgainstDriverHookExceptionList, EntriesAreNamesOrFolderAndName)
{
    struct Case
    {
        const wchar_t* path;
        const wchar_t* list;
        int expected;
    };
    const Case cases[] = {
        {L"C:\\Windows\\System32\\svchost.exe", L"svchost.exe", 1},
        {L"C:\\Windows\\System32\\svchost.exe", L"lsass.exe; SVCHOST.EXE ;", 1},
        {L"C:\\Windows\\System32\\svchost.exe", L"svc*.exe", 1},
        {L"C:\\Windows\\System32\\svchost.exe", L"C:\\Windows\\*\\svchost.exe", 1},
        {L"C:\\Windows\\System32\\svchost.exe", L"C:\\Windows\\svchost.exe", 0},
        {L"C:\\Windows\\System32\\svchost.exe", L"C:\\*\\svchost.exe", 0},
        {L"C:\\Windows\\System32\\svchost.exe", L"C:/Windows/System32/*.exe", 1},
        {L"C:\\Windows\\System32\\svchost.exe", L";;", 0},
        {L"svchost.exe", L"svchost.exe", 0}, // no folder: a bad path
    };
    for (const Case& c : cases)
        EXPECT_EQ(CFilePathPatternMatcher::MatchAgainstDriverHookExceptionList(c.path, c.list), c.expected)
            << QXTest::Narrow(std::wstring(c.path) + L" | " + c.list);
}

TEST(MatchAgainstDriverHookExceptionList, LogsEachCheckAndBadPaths)
{
    QXTest::LogCapture capture;
    EXPECT_EQ(CFilePathPatternMatcher::MatchAgainstDriverHookExceptionList(L"C:\\a\\b.exe", L"x.exe;b.exe"), 1);
    const char* function = "QXCommon::CFilePathPatternMatcher::MatchAgainstDriverHookExceptionList";
    EXPECT_TRUE(capture.Has(4, function, L"Checking: [C:\\a\\b.exe] [x.exe].\n")) << capture.Dump();
    EXPECT_TRUE(capture.Has(4, function, L"Checking: [C:\\a\\b.exe] [b.exe].\n")) << capture.Dump();
    EXPECT_EQ(CFilePathPatternMatcher::MatchAgainstDriverHookExceptionList(L"b.exe", L"b.exe"), 0);
    EXPECT_TRUE(capture.Has(1, "QXCommon::CFilePathPatternMatcher::MatchesDriverHookExceptionPattern",
                            L"Bad path [b.exe]\n"))
        << capture.Dump();
}

TEST(PathParts, SplitAndStrip)
{
    struct Case
    {
        const wchar_t* path;
        int splitResult;
        const wchar_t* name;
        const wchar_t* parent;
        int stripPathResult;
        const wchar_t* stripPath;
        int stripFileResult;
        const wchar_t* stripFile;
        int stripFolderResult;
        const wchar_t* stripFolder;
    };
    const Case cases[] = {
        {L"C:\\Windows\\notepad.exe", 1, L"notepad.exe", L"C:\\Windows", 1, L"notepad.exe", 1, L"C:\\Windows\\", 1,
         L"C:\\Windows\\"},
        {L"C:\\Windows\\System32\\", 0, L"", L"", 0, L"", 1, L"C:\\Windows\\System32\\", 1, L"C:\\Windows\\"},
        {L"C:/a/b", 1, L"b", L"C:/a", 1, L"b", 1, L"C:/a/", 1, L"C:/a/"},
        {L"notepad.exe", 0, L"", L"", 1, L"notepad.exe", 0, L"", 0, L""},
        {L"\\a.exe", 0, L"", L"", 1, L"a.exe", 1, L"\\", 1, L"\\"},
        {L"C:\\", 0, L"", L"", 0, L"", 1, L"C:\\", 0, L""},
        {L"", 0, L"", L"", 0, L"", 0, L"", 0, L""},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.path));
        std::wstring name = L"x";
        std::wstring parent = L"x";
        std::wstring out = L"x";
        EXPECT_EQ(CFilePathPatternMatcher::GetFileNameAndParentDirectoryFromFilePath(c.path, name, parent),
                  c.splitResult);
        EXPECT_EQ(name, c.name);
        EXPECT_EQ(parent, c.parent);
        EXPECT_EQ(CFilePathPatternMatcher::StripPath(c.path, out), c.stripPathResult);
        EXPECT_EQ(out, c.stripPath);
        EXPECT_EQ(CFilePathPatternMatcher::StripFile(c.path, out), c.stripFileResult);
        EXPECT_EQ(out, c.stripFile);
        EXPECT_EQ(CFilePathPatternMatcher::StripFolder(c.path, out), c.stripFolderResult);
        EXPECT_EQ(out, c.stripFolder);
    }
}

TEST(PathParts, StripFolderLogsItsCount)
{
    QXTest::LogCapture capture;
    std::wstring out;
    EXPECT_EQ(CFilePathPatternMatcher::StripFolder(L"C:\\A\\B\\\\", out), 1);
    EXPECT_EQ(out, L"C:\\A\\");
    EXPECT_TRUE(capture.Has(4, "QXCommon::CFilePathPatternMatcher::StripFolder",
                            L"Recursive Stip Count [2] - [C:\\A\\B\\\\] = [C:\\A\\]\n"))
        << capture.Dump();
}

TEST(QxInspectMatch, ReportsMatchAndNoMatchInItsExitCode)
{
    const std::wstring tool = L"\"" + QXTest::HelperPath(L"qxinspect.exe") + L"\"";
    QXTest::ProcessResult match = QXTest::RunProcess(tool + L" match C:\\Windows\\notepad.exe NOTEPAD.EXE");
    ASSERT_TRUE(match.started) << "qxinspect.exe not found beside the tests";
    EXPECT_EQ(match.exitCode, 0u) << match.output;
    EXPECT_NE(match.output.find("name"), std::string::npos) << match.output;

    QXTest::ProcessResult noMatch =
        QXTest::RunProcess(tool + L" match --kind wildcard C:\\Windows\\System32\\notepad.exe C:\\*\\notepad.exe");
    EXPECT_EQ(noMatch.exitCode, 1u) << noMatch.output;

    QXTest::ProcessResult usage = QXTest::RunProcess(tool + L" match onlyone");
    EXPECT_EQ(usage.exitCode, 2u) << usage.output;
}
