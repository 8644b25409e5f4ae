// Path patterns: the wildcard walk and the rule kinds built on it (name,
// full-path, wildcard, folder, network-resource, regular-expression and
// driver-hook rules), path splitting, the promise that short inputs allocate
// nothing; regular expressions: escaping and glob conversion, the glob and
// expression classes, the validation exports and their logs. Generated
// inputs and small stacks are the robustness suite's.

#include "QXTestSupport.h"

#include "QXCommon/FilePathPatternMatcher.h"
#include "QXCommon/GlobWildcardString.h"
#include "QXCommon/QXRegEx.h"
#include "QXCommon/RegExHelpers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <regex>

using QXCommon::CFilePathPatternMatcher;
using QXCommon::RegExHelpers::CQXRegEx;
using QXCommon::RegExHelpers::GlobWildcardString;

namespace
{
enum Kind { Rule, Walk, Folder, Network, Regex, HookList };

// The flag is the walk's "/ separates" flag, and the folder rule's "subfolders too".
int Match(Kind kind, const std::wstring& path, const std::wstring& pattern, int flag)
{
    switch (kind)
    {
    case Rule: return CFilePathPatternMatcher::MatchAgainstPattern(path, pattern, flag);
    case Walk: return CFilePathPatternMatcher::MatchAgainstWildCardPattern(path, pattern, flag);
    case Folder: return CFilePathPatternMatcher::MatchAgainstFolder(path, pattern, flag);
    case Network: return CFilePathPatternMatcher::MatchAgainstNetworkResourcePattern(path, pattern, flag);
    case Regex: return CFilePathPatternMatcher::MatchAgainstRegularExpressionPattern(path, pattern);
    default: return CFilePathPatternMatcher::MatchAgainstDriverHookExceptionList(path, pattern);
    }
}

int walk(const std::wstring& path, const std::wstring& pattern, int flag) { return Match(Walk, path, pattern, flag); }

const char* const Prefix = "QXCommon::CFilePathPatternMatcher::";
} // namespace

TEST(MatchAgainstPattern, EveryRuleKind)
{
    struct Case { Kind kind; const wchar_t *path, *pattern; int flag, expected; };
    const wchar_t* const svchost = L"C:\\Windows\\System32\\svchost.exe";
    const Case cases[] = {
        // Name rules: the file name, case ignored; full-path rules: the whole path.
        {Rule, L"C:\\Windows\\notepad.exe", L"NOTEPAD.EXE", 0, 1},
        {Rule, L"C:\\Windows\\notepad.exe", L"notepad", 0, 0}, {Rule, L"C:/Windows/notepad.exe", L"notepad.exe", 0, 1},
        {Rule, L"C:\\Windows\\notepad.exe", L"C:\\Windows\\NOTEPAD.EXE", 0, 1},
        {Rule, L"C:\\Windows\\notepad.exe", L"C:\\Windows", 0, 0},
        {Rule, L"C:\\Windows\\notepad.exe", L"C:/Windows/notepad.exe", 0, 0},
        {Rule, L"C:\\Windows\\notepad.exe", L"C:\\Win*\\notepad.exe", 0, 1},
        {Rule, L"C:\\Windows\\System32\\notepad.exe", L"C:\\*\\notepad.exe", 0, 0},
        {Rule, L"C:\\Windows\\System32\\notepad.exe", L"C:\\*\\*\\notepad.exe", 0, 1},
        {Rule, L"C:\\Windows\\notepad.exe", L"C:\\Windows\\note?ad.EXE", 0, 1},
        // A name-only wildcard pattern is walked against the whole path.
        {Rule, L"C:\\Windows\\notepad.exe", L"*.exe", 0, 0}, {Rule, L"notepad.exe", L"*.exe", 0, 1},
        // The walk: a trailing star matches the empty rest; a run of stars is one star ...
        {Walk, L"C:\\Temp\\", L"C:\\Temp\\*", 0, 1}, {Walk, L"C:\\Temp\\a.txt", L"C:\\Temp\\*", 0, 1},
        {Walk, L"C:\\Temp\\a.txt", L"C:\\Temp\\***", 0, 1}, {Walk, L"C:\\Temp\\a\\b.txt", L"C:\\Temp\\*", 0, 0},
        // ... but only a single star may be left when the path ends.
        {Walk, L"C:\\Temp\\", L"C:\\Temp\\**", 0, 0},
        // ? is one character, never a separator, never the end.
        {Walk, L"C:\\Temp\\ab", L"C:\\Temp\\a?", 0, 1}, {Walk, L"C:\\Temp\\a", L"C:\\Temp\\a?", 0, 0},
        {Walk, L"C:\\Temp\\a\\", L"C:\\Temp\\a?", 0, 0}, {Walk, L"C:\\Temp", L"C?\\Temp", 0, 0},
        {Walk, L"C:\\Temp\\a/b", L"C:\\Temp\\a?b", 0, 1}, {Walk, L"C:\\Temp\\a/b", L"C:\\Temp\\a?b", 1, 0},
        // A star stops at \ and : always, at / only with the flag.
        {Walk, L"C:\\a/b\\x", L"C:\\*\\x", 0, 1}, {Walk, L"C:\\a/b\\x", L"C:\\*\\x", 1, 0},
        {Walk, L"C:\\a/b\\x", L"C:\\*/*\\x", 1, 1}, {Walk, L"dev:file", L"*file", 0, 0},
        {Walk, L"dev:file", L"*:file", 0, 1},
        // A failed comparison resumes where it stopped, so an overlapping start is not tried again.
        {Walk, L"aab", L"*ab", 0, 1}, {Walk, L"abcabd", L"*abd", 0, 1}, {Walk, L"ababx", L"*abx", 0, 1},
        {Walk, L"aaab", L"*aab", 0, 0},
        // A star followed by ? only stops at a separator or the end.
        {Walk, L"abc", L"a*?", 0, 0}, {Walk, L"abc\\d", L"a*?d", 0, 0},
        {Walk, L"C:\\Program Files\\App\\app.exe", L"C:\\Prog*Files\\*\\*.exe", 0, 1},
        {Walk, L"C:\\Program Files\\App\\app.exe", L"C:\\Program*\\App\\*.dll", 0, 0},
        {Walk, L"\\\\server\\share\\", L"\\\\*\\*\\", 0, 1}, {Walk, L"\\\\server\\share\\", L"\\\\*\\*", 0, 0},
        {Walk, L"\\", L"*", 0, 0}, {Walk, L"\\", L"\\*", 0, 1}, {Walk, L"abc", L"???", 0, 1},
        {Walk, L"abc", L"????", 0, 0}, {Walk, L"a\\c", L"???", 0, 0},
        {Walk, L"C:\\WINDOWS\\SYSTEM32\\CMD.EXE", L"c:\\windows\\system32\\c?d.*", 0, 1},
        {Walk, L"c:\\\u00E9t\u00E9\\x", L"C:\\\u00C9T\u00C9\\X", 0, 1},
        // Folder rules: the folder itself, and with the flag everything below it.
        {Folder, L"C:\\Temp\\a.exe", L"C:\\Temp", 1, 1}, {Folder, L"C:\\TEMP\\x\\a.exe", L"c:\\temp\\", 1, 1},
        // The length check comes before the trailing separators are made one.
        {Folder, L"C:\\Temp\\", L"C:\\Temp\\\\", 1, 0}, {Folder, L"C:\\Temp\\x", L"C:\\Temp\\\\", 1, 1},
        {Folder, L"C:\\Temporary\\a.exe", L"C:\\Temp", 1, 0}, {Folder, L"C:\\Temp", L"C:\\Temp", 1, 0},
        {Folder, L"C:\\Temp\\a.exe", L"C:\\Temp", 0, 0}, {Folder, L"C:\\Temp\\", L"C:\\temp", 0, 1},
        {Folder, L"C:\\Temp\\", L"C:\\temp/", 0, 1},
        {Folder, L"C:\\Users\\bob\\AppData\\x.exe", L"C:\\Users\\*\\AppData", 1, 1},
        {Folder, L"C:\\Users\\bob\\AppData\\", L"C:\\Users\\*\\AppData", 0, 1},
        {Folder, L"C:\\Users\\bob\\AppData\\x.exe", L"C:\\Users\\*\\AppData", 0, 0},
        {Folder, L"C:\\Users\\bob\\Desktop\\x.exe", L"C:\\Users\\*\\AppData", 1, 0},
        {Folder, L"C:/Users/bob/AppData/Local/x.exe", L"C:\\Users\\b?b\\AppData\\", 1, 1},
        {Folder, L"C:\\Users\\a\\b\\AppData\\x.exe", L"C:\\Users\\*\\AppData", 1, 0},
        // A network resource matches itself and everything below it.
        {Network, L"\\\\server\\share", L"\\\\SERVER\\Share", 0, 1},
        {Network, L"\\\\server\\share\\dir\\a.exe", L"\\\\server\\share", 0, 1},
        {Network, L"\\\\server\\share\\dir\\a.exe", L"\\\\server\\share\\", 0, 1},
        {Network, L"//server/share/a.exe", L"\\\\server\\share", 0, 1},
        {Network, L"\\\\server\\shared\\a.exe", L"\\\\server\\share", 0, 0},
        {Network, L"\\\\server", L"\\\\server\\share", 0, 0},
        {Network, L"\\\\server\\share\\a.exe", L"\\\\*\\share\\*.exe", 0, 1},
        {Network, L"\\\\server\\share\\dir\\a.exe", L"\\\\*\\share\\*.exe", 0, 0},
        {Network, L"\\\\server\\share\\a.exe", L"\\\\", 0, 0}, {Network, L"", L"\\\\server", 0, 0},
        // Regular expressions search the path, case ignored.
        {Regex, svchost, L"system32\\\\svc", 0, 1}, {Regex, svchost, L"^c:\\\\windows\\\\[^\\\\]+\\.exe$", 0, 0},
        {Regex, L"C:\\Windows\\notepad.exe", L"^c:\\\\windows\\\\[^\\\\]+\\.exe$", 0, 1},
        {Regex, L"C:\\x.exe", L"", 0, 0},
        // Hook-list entries are file names, or folder and name.
        {HookList, svchost, L"svchost.exe", 0, 1}, {HookList, svchost, L"lsass.exe; SVCHOST.EXE ;", 0, 1},
        {HookList, svchost, L"svc*.exe", 0, 1}, {HookList, svchost, L"C:\\Windows\\*\\svchost.exe", 0, 1},
        {HookList, svchost, L"C:\\Windows\\svchost.exe", 0, 0}, {HookList, svchost, L"C:\\*\\svchost.exe", 0, 0},
        {HookList, svchost, L"C:/Windows/System32/*.exe", 0, 1}, {HookList, svchost, L";;", 0, 0},
        {HookList, L"svchost.exe", L"svchost.exe", 0, 0}, // no folder: a bad path
    };
    for (const Case& c : cases)
        EXPECT_EQ(Match(c.kind, c.path, c.pattern, c.flag), c.expected)
            << "kind " << c.kind << QXTest::Narrow(std::wstring(L" path=[") + c.path + L"] pattern=[" + c.pattern + L"]")
            << " flag=" << c.flag;
}

TEST(MatchAgainstPattern, EmptyParametersAndBadPathsAreLogged)
{
    QXTest::LogCapture capture;
    EXPECT_EQ(walk(L"", L"*", 0), 0);
    EXPECT_EQ(Match(Rule, L"C:\\x", L"", 0), 0);
    EXPECT_EQ(CFilePathPatternMatcher::MatchAgainstJustFileName(L"", L"x"), 0);
    for (const char* function : {"MatchAgainstWildCardPattern", "MatchAgainstPattern", "MatchAgainstJustFileName"})
        EXPECT_LOGGED(capture, 4, Prefix + std::string(function), L"One of the parameters was empty. Return no match.\n");
    // A folder without a separator counts as invalid.
    EXPECT_EQ(Match(Folder, L"C:\\Temp\\a", L"Temp", 1), 0);
    EXPECT_LOGGED(capture, 4, Prefix + std::string("MatchAgainstFolder"),
                  L"One of the parameters was empty or invalid. Return no match.\n");

    EXPECT_EQ(Match(HookList, L"C:\\a\\b.exe", L"x.exe;b.exe", 0), 1);
    const std::string hookList = Prefix + std::string("MatchAgainstDriverHookExceptionList");
    EXPECT_LOGGED(capture, 4, hookList, L"Checking: [C:\\a\\b.exe] [x.exe].\n");
    EXPECT_LOGGED(capture, 4, hookList, L"Checking: [C:\\a\\b.exe] [b.exe].\n");
    EXPECT_EQ(Match(HookList, L"b.exe", L"b.exe", 0), 0);
    EXPECT_LOGGED(capture, 1, Prefix + std::string("MatchesDriverHookExceptionPattern"), L"Bad path [b.exe]\n");
}

TEST(PathParts, SplitAndStrip)
{
    struct Out { int result; const wchar_t* text; };
    struct Case { const wchar_t* path; int split; const wchar_t *name, *parent; Out stripPath, stripFile, stripFolder; };
    const Case cases[] = {
        {L"C:\\Windows\\notepad.exe", 1, L"notepad.exe", L"C:\\Windows", {1, L"notepad.exe"}, {1, L"C:\\Windows\\"},
         {1, L"C:\\Windows\\"}},
        {L"C:\\Windows\\System32\\", 0, L"", L"", {0, L""}, {1, L"C:\\Windows\\System32\\"}, {1, L"C:\\Windows\\"}},
        {L"C:/a/b", 1, L"b", L"C:/a", {1, L"b"}, {1, L"C:/a/"}, {1, L"C:/a/"}},
        {L"notepad.exe", 0, L"", L"", {1, L"notepad.exe"}, {0, L""}, {0, L""}},
        {L"\\a.exe", 0, L"", L"", {1, L"a.exe"}, {1, L"\\"}, {1, L"\\"}},
        {L"C:\\", 0, L"", L"", {0, L""}, {1, L"C:\\"}, {0, L""}}, {L"", 0, L"", L"", {0, L""}, {0, L""}, {0, L""}},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.path));
        std::wstring name = L"x", parent = L"x";
        EXPECT_EQ(CFilePathPatternMatcher::GetFileNameAndParentDirectoryFromFilePath(c.path, name, parent), c.split);
        EXPECT_EQ(name + L"|" + parent, std::wstring(c.name) + L"|" + c.parent);
        const std::pair<int (*)(const std::wstring&, std::wstring&), Out> strips[] = {
            {&CFilePathPatternMatcher::StripPath, c.stripPath}, {&CFilePathPatternMatcher::StripFile, c.stripFile},
            {&CFilePathPatternMatcher::StripFolder, c.stripFolder},
        };
        for (const auto& [strip, expected] : strips)
        {
            std::wstring out = L"x";
            EXPECT_EQ(strip(c.path, out), expected.result) << QXTest::Narrow(expected.text);
            EXPECT_EQ(out, expected.text);
        }
    }
    QXTest::LogCapture capture;
    std::wstring out;
    EXPECT_TRUE(CFilePathPatternMatcher::StripFolder(L"C:\\A\\B\\\\", out) == 1 && out == L"C:\\A\\");
    EXPECT_LOGGED(capture, 4, Prefix + std::string("StripFolder"),
                  L"Recursive Stip Count [2] - [C:\\A\\B\\\\] = [C:\\A\\]\n");

    using M = CFilePathPatternMatcher;
    EXPECT_TRUE(M::ContainsWildCard(L"a*") && M::ContainsWildCard(L"?") && M::ContainsPath(L"a/b") &&
                M::ContainsPath(L"\\") && M::ContainsTilde(L"C:\\PROGRA~1"));
    EXPECT_FALSE(M::ContainsWildCard(L"a.b") || M::ContainsPath(L"a:b") || M::ContainsTilde(L"C:\\Program Files"));
}

namespace
{
// Counts the allocations of the library and of the C++ runtime (where
// operator new lands) through their imports of msvcrt's malloc: a
// replacement operator new in the test would not see the library's own.
std::atomic<size_t> g_allocations{0};
void* (*const g_malloc)(size_t) = reinterpret_cast<void* (*)(size_t)>(
    reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"msvcrt.dll"), "malloc")));
void* CountMalloc(size_t n) { ++g_allocations; return g_malloc(n); }
} // namespace

// Texts below 1023 characters are folded on the stack; from 1023 on, on the heap.
TEST(MatchAgainstWildCardPattern, ShortInputsAllocateNothingLongOnesGoToTheHeap)
{
    walk(L"a", L"a", 0); // the fold table is built on first use
    const std::wstring shortPath = L"C:\\" + std::wstring(1013, L'a') + L"\\b.exe"; // 1022 characters
    const std::wstring longPath = L"C:\\" + std::wstring(1014, L'a') + L"\\b.exe";
    const std::wstring shortPattern = L"C:\\*\\" + std::wstring(500, L'?') + L"*", folderPattern = L"c:\\*\\B.EXE",
                       rulePattern = L"c:\\*\\b.*";
    std::vector<std::unique_ptr<QXTest::ImportPatch>> patches;
    for (const wchar_t* module : {L"QXCommon.dll", L"libstdc++-6.dll"})
    {
        patches.emplace_back(new QXTest::ImportPatch(module, "msvcrt.dll", "malloc", (void*)&CountMalloc));
        ASSERT_TRUE(patches.back()->Installed()) << QXTest::Narrow(module);
    }
    g_allocations = 0;
    EXPECT_EQ(walk(shortPath, folderPattern, 1), 1);
    EXPECT_EQ(walk(shortPath, shortPattern, 0), 0);
    EXPECT_EQ(Match(Rule, shortPath, rulePattern, 0), 1);
    EXPECT_EQ(g_allocations.load(), 0u);
    EXPECT_EQ(walk(longPath, folderPattern, 1), 1);
    EXPECT_GE(g_allocations.load(), 1u);
    patches.clear();
    // Up to 64K characters on the heap buffers.
    for (size_t length : {1013u, 1014u, 4000u, 65535u}) // whole paths of 1022, 1023 ... characters
    {
        const std::wstring path = L"C:\\" + std::wstring(length, L'a') + L"\\b.exe";
        std::wstring questions = L"C:\\" + std::wstring(length, L'?') + L"\\b.exe";
        EXPECT_TRUE(walk(path, L"c:\\*\\*.EXE", 0) && walk(path, path, 0) && walk(path, questions, 0)) << length;
        questions.back() = L'X';
        EXPECT_FALSE(walk(path, questions, 0) || walk(path, std::wstring(length, L'*'), 0) ||
                     Match(Rule, path, std::wstring(length, L'\\'), 0)) << length;
    }
}

namespace
{
constexpr auto Icase = std::regex_constants::ECMAScript | std::regex_constants::icase;
}

TEST(RegExHelpers, EscapeAndGlobConversion)
{
    struct Case { const wchar_t* input; const wchar_t* escaped; const wchar_t* glob; };
    const Case cases[] = {
        {L"a.b*", L"a\\.b\\*", L"^a\\.b.*$"}, {L"", L"", L"^$"},
        {L"c:\\x?.exe", L"c:\\\\x\\?\\.exe", L"^c:\\\\x.\\.exe$"},
        {L"\\.[]^-?+(){}$|!*", L"\\\\\\.\\[\\]\\^\\-\\?\\+\\(\\)\\{\\}\\$\\|\\!\\*", L"^\\\\\\.\\[\\]\\^\\-.\\+\\(\\)\\{\\}\\$\\|\\!.*$"},
        {L"a,b=c&d", L"a,b=c&d", L"^a,b=c&d$"}, {L"\\*", L"\\\\\\*", L"^\\\\.*$"},
    };
    for (const Case& c : cases)
    {
        EXPECT_EQ(QXCommon::RegExHelpers::EscapeRegExMetaCharacters(c.input), c.escaped) << QXTest::Narrow(c.input);
        EXPECT_EQ(QXCommon::RegExHelpers::GlobToRegExPattern(c.input), c.glob) << QXTest::Narrow(c.input);
    }
}

// What a glob matches is the robustness suite's (against a whole-text
// reference); here: the object's life.
TEST(GlobWildcardString, ParseReplacesCopiesMatchAndEmptyMatchesNothing)
{
    GlobWildcardString glob;
    ASSERT_TRUE(glob.Parse(L"*") && glob.Parse(L"c:\\*.exe") && !glob.IsEmpty());
    GlobWildcardString copy = glob;
    for (const GlobWildcardString* g : {&glob, &copy})
        EXPECT_TRUE(g->Match(L"C:\\dir\\x.EXE") && !g->Match(L"D:\\x.exe") && !g->Match(L"C:\\x.exe.bak"));
    glob.Empty();
    EXPECT_TRUE(glob.IsEmpty() && !glob.Match(L"C:\\x.exe") && copy.Match(L"C:\\x.exe"));
    ASSERT_TRUE(glob.Parse(L"")); // valid, and matches nothing
    EXPECT_TRUE(glob.IsEmpty() && !glob.Match(L"") && !glob.Match(L"a"));
}

TEST(CQXRegEx, ParseKeepsTheErrorCodeAndMatchSearches)
{
    CQXRegEx regex;
    EXPECT_TRUE(regex.Parse(L"exe") && regex.GetLastRxErrorCode() == 0 && regex.Match(L"C:\\X.EXE"));
    EXPECT_FALSE(regex.Match(L"C:\\x.dll"));
    // An empty expression is valid and holds nothing, whatever was parsed before.
    EXPECT_TRUE(regex.Parse(L"") && regex.IsEmpty() && !regex.Match(L"C:\\x.exe"));
    // Constructs the seeded comparison does not generate: named classes, bounded
    // repeats, a back-reference across a separator, word boundaries.
    for (const wchar_t* expression : {L"[[:alpha:]]+32", L"a{2,3}b", L"\\d{3}\\.\\d+", L"(\\w+)\\\\\\1", L"\\bcalc\\b"})
    {
        ASSERT_TRUE(regex.Parse(expression)) << QXTest::Narrow(expression);
        for (const wchar_t* text : {L"c:\\windows\\system32\\calc.exe", L"aab ab", L"v 123.45", L"c:\\win\\win", L"ab"})
            EXPECT_EQ(regex.Match(text), std::regex_search(std::wstring(text), std::wregex(expression, Icase)))
                << QXTest::Narrow(std::wstring(expression) + L" ~ " + text);
    }

    // The error code is the standard engine's own for the same text.
    for (const wchar_t* expression :
         {L"(abc", L"abc)", L"a)(b" /* would balance once wrapped */, L"[abc", L"*a", L"a{2,1}", L"(a)\\2", L"a\\"})
    {
        int expected = -1;
        try
        {
            std::wregex(expression, Icase);
        }
        catch (const std::regex_error& e)
        {
            expected = static_cast<int>(e.code());
        }
        ASSERT_TRUE(regex.Parse(L"abc"));
        EXPECT_FALSE(regex.Parse(expression)) << QXTest::Narrow(expression);
        EXPECT_EQ(regex.GetLastRxErrorCode(), expected) << QXTest::Narrow(expression);
        EXPECT_TRUE(regex.IsEmpty() && !regex.Match(L"abc"));
    }
    // Expressions too long or too deeply nested are refused, not compiled.
    EXPECT_FALSE(regex.Parse(std::wstring(70000, L'a')));
    EXPECT_EQ(regex.GetLastRxErrorCode(), static_cast<int>(std::regex_constants::error_complexity));
    EXPECT_FALSE(regex.Parse(std::wstring(65, L'(') + std::wstring(65, L')')));
    // 64 levels are accepted, and groups cost no steps of their own: a match
    // over the longest text stays within the budget.
    ASSERT_TRUE(regex.Parse(std::wstring(64, L'(') + L"a" + std::wstring(64, L')') + L"+b"));
    EXPECT_TRUE(regex.Match(std::wstring(32766, L'a') + L"b"));
}

TEST(ValidateRegularExpression, CompilesThenRejectsExpressionsThatExplodeOnTheSamples)
{
    struct Case { const wchar_t* expression; unsigned int mask; bool valid; int error; };
    const Case cases[] = {
        {L"^c:\\\\windows\\\\.*\\.exe$", QX_REGEX_SAMPLE_ALL, true, 0}, {L"", QX_REGEX_SAMPLE_ALL, true, 0},
        {L"(abc", QX_REGEX_SAMPLE_ALL, false, static_cast<int>(std::regex_constants::error_paren)},
        // Exponential for a backtracking engine; the breadth-first executor
        // runs it in linear time, so it is accepted.
        {L"(.|.)*!$", QX_REGEX_SAMPLE_ALL, true, 0},
        // With a back-reference it needs backtracking: the step budget stops
        // it on the 28-character file-path sample ...
        {L"^(.|.)*\\1!$", QX_REGEX_SAMPLE_FILE_PATH, false, QX_REGEX_ERROR_TOO_SLOW},
        // ... but not on samples too short to explode, or with no samples.
        {L"^(.|.)*\\1!$", QX_REGEX_SAMPLE_EMPTY | QX_REGEX_SAMPLE_COMPUTER_NAME, true, 0},
        {L"^(.|.)*\\1!$", 0, true, 0},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.expression) + " mask " + std::to_string(c.mask));
        int error = -1;
        EXPECT_EQ(ValidateRegularExpressionEx(c.expression, c.mask, &error), c.valid);
        EXPECT_EQ(error, c.error);
        // The plain export only compiles.
        const bool compiles = c.valid || c.error == QX_REGEX_ERROR_TOO_SLOW;
        EXPECT_EQ(ValidateRegularExpression(c.expression, &error), compiles);
        EXPECT_EQ(error, compiles ? 0 : c.error);
    }
    int error = -1;
    EXPECT_FALSE(ValidateRegularExpression(nullptr, &error) || ValidateRegularExpression(L"a", nullptr) ||
                 ValidateRegularExpressionEx(nullptr, 0, &error) || ValidateRegularExpressionEx(L"a", 0, nullptr));
}

TEST(CQXRegEx, InvalidRuleExpressionAndFailedMatchAreLogged)
{
    QXTest::LogCapture capture;
    EXPECT_EQ(QXCommon::CFilePathPatternMatcher::MatchAgainstRegularExpressionPattern(L"C:\\x.exe", L"(abc"), 0);
    EXPECT_LOGGED(capture, 1, "QXCommon::CFilePathPatternMatcher::MatchAgainstRegularExpressionPattern",
                  L"Regular Expression [ (abc ] is invalid. Cannot be parsed to match [ C:\\x.exe ]. Parse error=[ " +
                      std::to_wstring(static_cast<int>(std::regex_constants::error_paren)) + L" ]\n");
    // A back-referencing expression that explodes: stopped by its budget.
    CQXRegEx regex;
    ASSERT_TRUE(regex.Parse(L"^(.|.)*\\1!$"));
    EXPECT_FALSE(regex.Match(std::wstring(28, L'x')));
    EXPECT_LOGGED(capture, 1, "QXCommon::RegExHelpers::CQXRegEx::Match",
                  L"Regex Match Failed, error " + std::to_wstring(static_cast<int>(std::regex_constants::error_complexity)));
}
