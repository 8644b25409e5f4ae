// The rule helpers around the walk: network resources, regular-expression
// rules, driver-hook exception lists, splitting and stripping of paths, and
// the qxinspect front end.

#include "QXTestSupport.h"

#include "QXCommon/FilePathPatternMatcher.h"

#include <gtest/gtest.h>

#include <string>

using QXCommon::CFilePathPatternMatcher;

// The three rule kinds that take a path and one pattern text.
TEST(RuleMatchers, NetworkResourceRegularExpressionAndDriverHookList)
{
    auto network = [](const wchar_t* path, const wchar_t* pattern) {
        return CFilePathPatternMatcher::MatchAgainstNetworkResourcePattern(path, pattern, 0);
    };
    auto regex = [](const wchar_t* path, const wchar_t* expression) {
        return CFilePathPatternMatcher::MatchAgainstRegularExpressionPattern(path, expression);
    };
    auto hookList = [](const wchar_t* path, const wchar_t* list) {
        return CFilePathPatternMatcher::MatchAgainstDriverHookExceptionList(path, list);
    };
    struct Case { int (*match)(const wchar_t*, const wchar_t*); const wchar_t *path, *pattern; int expected; };
    const wchar_t* const svchost = L"C:\\Windows\\System32\\svchost.exe";
    const Case cases[] = {
        // A network resource matches itself and everything below it.
        {network, L"\\\\server\\share", L"\\\\SERVER\\Share", 1},
        {network, L"\\\\server\\share\\dir\\a.exe", L"\\\\server\\share", 1},
        {network, L"\\\\server\\share\\dir\\a.exe", L"\\\\server\\share\\", 1},
        {network, L"//server/share/a.exe", L"\\\\server\\share", 1},
        {network, L"\\\\server\\shared\\a.exe", L"\\\\server\\share", 0},
        {network, L"\\\\server", L"\\\\server\\share", 0},
        {network, L"\\\\server\\share\\a.exe", L"\\\\*\\share\\*.exe", 1},
        {network, L"\\\\server\\share\\dir\\a.exe", L"\\\\*\\share\\*.exe", 0},
        {network, L"\\\\server\\share\\a.exe", L"\\\\", 0},
        {network, L"", L"\\\\server", 0},
        // Regular expressions search the path, case ignored.
        {regex, svchost, L"system32\\\\svc", 1},
        {regex, svchost, L"^c:\\\\windows\\\\[^\\\\]+\\.exe$", 0},
        {regex, L"C:\\Windows\\notepad.exe", L"^c:\\\\windows\\\\[^\\\\]+\\.exe$", 1},
        {regex, L"C:\\x.exe", L"", 0},
        // Hook-list entries are file names, or folder and name.
        {hookList, svchost, L"svchost.exe", 1},
        {hookList, svchost, L"lsass.exe; SVCHOST.EXE ;", 1},
        {hookList, svchost, L"svc*.exe", 1},
        {hookList, svchost, L"C:\\Windows\\*\\svchost.exe", 1},
        {hookList, svchost, L"C:\\Windows\\svchost.exe", 0},
        {hookList, svchost, L"C:\\*\\svchost.exe", 0},
        {hookList, svchost, L"C:/Windows/System32/*.exe", 1},
        {hookList, svchost, L";;", 0},
        {hookList, L"svchost.exe", L"svchost.exe", 0}, // no folder: a bad path
    };
    for (const Case& c : cases)
        EXPECT_EQ(c.match(c.path, c.pattern), c.expected) << QXTest::Narrow(std::wstring(c.path) + L" | " + c.pattern);
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
    struct Out { int result; const wchar_t* text; };
    struct Case
    {
        const wchar_t* path;
        int split;
        const wchar_t *name, *parent;
        Out stripPath, stripFile, stripFolder;
    };
    const Case cases[] = {
        {L"C:\\Windows\\notepad.exe", 1, L"notepad.exe", L"C:\\Windows", {1, L"notepad.exe"}, {1, L"C:\\Windows\\"},
         {1, L"C:\\Windows\\"}},
        {L"C:\\Windows\\System32\\", 0, L"", L"", {0, L""}, {1, L"C:\\Windows\\System32\\"}, {1, L"C:\\Windows\\"}},
        {L"C:/a/b", 1, L"b", L"C:/a", {1, L"b"}, {1, L"C:/a/"}, {1, L"C:/a/"}},
        {L"notepad.exe", 0, L"", L"", {1, L"notepad.exe"}, {0, L""}, {0, L""}},
        {L"\\a.exe", 0, L"", L"", {1, L"a.exe"}, {1, L"\\"}, {1, L"\\"}},
        {L"C:\\", 0, L"", L"", {0, L""}, {1, L"C:\\"}, {0, L""}},
        {L"", 0, L"", L"", {0, L""}, {0, L""}, {0, L""}},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.path));
        std::wstring name = L"x", parent = L"x";
        EXPECT_EQ(CFilePathPatternMatcher::GetFileNameAndParentDirectoryFromFilePath(c.path, name, parent), c.split);
        EXPECT_EQ(name, c.name);
        EXPECT_EQ(parent, c.parent);
        const std::pair<int (*)(const std::wstring&, std::wstring&), Out> strips[] = {
            {&CFilePathPatternMatcher::StripPath, c.stripPath},
            {&CFilePathPatternMatcher::StripFile, c.stripFile},
            {&CFilePathPatternMatcher::StripFolder, c.stripFolder},
        };
        for (const auto& [strip, expected] : strips)
        {
            std::wstring out = L"x";
            EXPECT_EQ(strip(c.path, out), expected.result) << QXTest::Narrow(expected.text);
            EXPECT_EQ(out, expected.text);
        }
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
    const std::wstring tool = L"\"" + QXTest::HelperPath(L"qxinspect.exe") + L"\" match ";
    const std::pair<const wchar_t*, DWORD> cases[] = {
        {L"C:\\Windows\\notepad.exe NOTEPAD.EXE", 0},
        {L"--kind wildcard C:\\Windows\\System32\\notepad.exe C:\\*\\notepad.exe", 1},
        {L"onlyone", 2},
    };
    for (const auto& [arguments, exitCode] : cases)
    {
        QXTest::ProcessResult result = QXTest::RunProcess(tool + arguments);
        ASSERT_TRUE(result.started) << "qxinspect.exe not found beside the tests";
        EXPECT_EQ(result.exitCode, exitCode) << QXTest::Narrow(arguments) << ": " << result.output;
        if (exitCode == 0)
        {
            EXPECT_NE(result.output.find("name"), std::string::npos) << result.output;
        }
    }
}
