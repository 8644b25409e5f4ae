// Path patterns: the wildcard walk and every rule kind built on it, path
// splitting, no allocation for short inputs; regular expressions: escaping,
// globs, the expression class and the validation exports. Generated inputs
// and small stacks are the robustness suite's.

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
    const wchar_t *const svchost = L"C:\\Windows\\System32\\svchost.exe", *const notepad = L"C:\\Windows\\notepad.exe",
                         *const deep = L"C:\\Windows\\System32\\notepad.exe";
    struct Case { Kind kind; const wchar_t *path, *pattern; int flag, expected; };
    const Case cases[] = {
        // Name rules: the file name, case ignored; full-path rules: the whole path.
        {Rule, notepad, L"NOTEPAD.EXE", 0, 1}, {Rule, notepad, L"notepad", 0, 0},
        {Rule, L"C:/Windows/notepad.exe", L"notepad.exe", 0, 1}, {Rule, notepad, L"C:\\Windows\\NOTEPAD.EXE", 0, 1},
        {Rule, notepad, L"C:\\Windows", 0, 0}, {Rule, notepad, L"C:/Windows/notepad.exe", 0, 0},
        {Rule, notepad, L"C:\\Win*\\notepad.exe", 0, 1}, {Rule, deep, L"C:\\*\\notepad.exe", 0, 0},
        {Rule, deep, L"C:\\*\\*\\notepad.exe", 0, 1}, {Rule, notepad, L"C:\\Windows\\note?ad.EXE", 0, 1},
        // A name-only wildcard pattern is walked against the whole path.
        {Rule, notepad, L"*.exe", 0, 0}, {Rule, L"notepad.exe", L"*.exe", 0, 1},
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
        {Regex, notepad, L"^c:\\\\windows\\\\[^\\\\]+\\.exe$", 0, 1}, {Regex, L"C:\\x.exe", L"", 0, 0},
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

// Empty or invalid parameters, each hook-list entry, a bad hook path, a rule
// expression that cannot be parsed and one stopped by its budget are logged.
TEST(MatchAgainstPattern, EmptyParametersBadPathsAndExpressionsAreLogged)
{
    QXTest::LogCapture capture;
    EXPECT_EQ(walk(L"", L"*", 0) + Match(Rule, L"C:\\x", L"", 0) + CFilePathPatternMatcher::MatchAgainstJustFileName(L"", L"x"), 0);
    for (const char* function : {"MatchAgainstWildCardPattern", "MatchAgainstPattern", "MatchAgainstJustFileName"})
        EXPECT_LOGGED(capture, 4, Prefix + std::string(function), L"One of the parameters was empty. Return no match.\n");
    EXPECT_EQ(Match(Folder, L"C:\\Temp\\a", L"Temp", 1), 0); // a folder without a separator
    EXPECT_LOGGED(capture, 4, Prefix + std::string("MatchAgainstFolder"), L"One of the parameters was empty or invalid. Return no match.\n");

    EXPECT_EQ(Match(HookList, L"C:\\a\\b.exe", L"x.exe;b.exe", 0), 1);
    const std::string hookList = Prefix + std::string("MatchAgainstDriverHookExceptionList");
    EXPECT_LOGGED(capture, 4, hookList, L"Checking: [C:\\a\\b.exe] [x.exe].\n");
    EXPECT_LOGGED(capture, 4, hookList, L"Checking: [C:\\a\\b.exe] [b.exe].\n");
    EXPECT_EQ(Match(HookList, L"b.exe", L"b.exe", 0), 0);
    EXPECT_LOGGED(capture, 1, Prefix + std::string("MatchesDriverHookExceptionPattern"), L"Bad path [b.exe]\n");

    EXPECT_EQ(Match(Regex, L"C:\\x.exe", L"(abc", 0), 0);
    EXPECT_LOGGED(capture, 1, Prefix + std::string("MatchAgainstRegularExpressionPattern"),
                  L"Regular Expression [ (abc ] is invalid. Cannot be parsed to match [ C:\\x.exe ]. Parse error=[ " +
                      std::to_wstring(static_cast<int>(std::regex_constants::error_paren)) + L" ]\n");
    CQXRegEx regex; // a back-referencing expression that explodes
    ASSERT_TRUE(regex.Parse(L"^(.|.)*\\1!$"));
    EXPECT_FALSE(regex.Match(std::wstring(28, L'x')));
    EXPECT_LOGGED(capture, 1, "QXCommon::RegExHelpers::CQXRegEx::Match",
                  L"Regex Match Failed, error " + std::to_wstring(static_cast<int>(std::regex_constants::error_complexity)));
}

// A part that is not there is empty and its function answers 0, otherwise 1.
TEST(PathParts, SplitAndStrip)
{
    using M = CFilePathPatternMatcher;
    const wchar_t* const cases[][6] = { // path, file name, parent; StripPath, StripFile, StripFolder
        {L"C:\\Windows\\notepad.exe", L"notepad.exe", L"C:\\Windows", L"notepad.exe", L"C:\\Windows\\", L"C:\\Windows\\"},
        {L"C:\\Windows\\System32\\", L"", L"", L"", L"C:\\Windows\\System32\\", L"C:\\Windows\\"},
        {L"C:/a/b", L"b", L"C:/a", L"b", L"C:/a/", L"C:/a/"}, {L"notepad.exe", L"", L"", L"notepad.exe", L"", L""},
        {L"\\a.exe", L"", L"", L"a.exe", L"\\", L"\\"}, {L"C:\\", L"", L"", L"", L"C:\\", L""}, {L"", L"", L"", L"", L"", L""},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c[0]));
        std::wstring name = L"x", parent = L"x";
        EXPECT_EQ(M::GetFileNameAndParentDirectoryFromFilePath(c[0], name, parent), *c[1] ? 1 : 0);
        EXPECT_EQ(name + L"|" + parent, std::wstring(c[1]) + L"|" + c[2]);
        int k = 3;
        for (auto strip : {&M::StripPath, &M::StripFile, &M::StripFolder})
        {
            std::wstring out = L"x";
            EXPECT_EQ(strip(c[0], out), *c[k] ? 1 : 0) << k;
            EXPECT_EQ(out, c[k++]);
        }
    }
    QXTest::LogCapture capture;
    std::wstring out;
    EXPECT_TRUE(M::StripFolder(L"C:\\A\\B\\\\", out) == 1 && out == L"C:\\A\\");
    EXPECT_LOGGED(capture, 4, Prefix + std::string("StripFolder"), L"Recursive Stip Count [2] - [C:\\A\\B\\\\] = [C:\\A\\]\n");
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

constexpr auto Icase = std::regex_constants::ECMAScript | std::regex_constants::icase;

// The error code the standard engine gives for the expression, -1 for none.
int StandardError(const wchar_t* expression)
{
    try
    {
        std::wregex(expression, Icase);
    }
    catch (const std::regex_error& e)
    {
        return static_cast<int>(e.code());
    }
    return -1;
}
} // namespace

// Texts below 1023 characters are folded on the stack; from 1023 on, on the
// heap, up to 64K characters.
TEST(MatchAgainstWildCardPattern, ShortInputsAllocateNothingLongOnesGoToTheHeap)
{
    walk(L"a", L"a", 0); // the fold table is built on first use
    const std::wstring shortPath = L"C:\\" + std::wstring(1013, L'a') + L"\\b.exe"; // 1022 characters
    const std::wstring longPath = L"C:\\" + std::wstring(1014, L'a') + L"\\b.exe", folderPattern = L"c:\\*\\B.EXE",
                       shortPattern = L"C:\\*\\" + std::wstring(500, L'?') + L"*", rulePattern = L"c:\\*\\b.*";
    { // every text is made before the count starts: the test's own strings allocate too
        QXTest::ImportPatch library(L"QXCommon.dll", "msvcrt.dll", "malloc", (void*)&CountMalloc),
            runtime(L"libstdc++-6.dll", "msvcrt.dll", "malloc", (void*)&CountMalloc);
        ASSERT_TRUE(library.Installed() && runtime.Installed());
        g_allocations = 0;
        EXPECT_EQ(walk(shortPath, folderPattern, 1) + walk(shortPath, shortPattern, 0) + Match(Rule, shortPath, rulePattern, 0), 2);
        EXPECT_EQ(g_allocations.load(), 0u);
        EXPECT_EQ(walk(longPath, folderPattern, 1), 1);
        EXPECT_GE(g_allocations.load(), 1u);
    }
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

TEST(RegExHelpers, EscapeAndGlobConversion)
{
    const wchar_t* const cases[][3] = { // text, escaped, as a glob
        {L"a.b*", L"a\\.b\\*", L"^a\\.b.*$"}, {L"", L"", L"^$"}, {L"c:\\x?.exe", L"c:\\\\x\\?\\.exe", L"^c:\\\\x.\\.exe$"},
        {L"\\.[]^-?+(){}$|!*", L"\\\\\\.\\[\\]\\^\\-\\?\\+\\(\\)\\{\\}\\$\\|\\!\\*",
         L"^\\\\\\.\\[\\]\\^\\-.\\+\\(\\)\\{\\}\\$\\|\\!.*$"},
        {L"a,b=c&d", L"a,b=c&d", L"^a,b=c&d$"}, {L"\\*", L"\\\\\\*", L"^\\\\.*$"},
    };
    for (const auto& [text, escaped, glob] : cases)
        EXPECT_EQ(QXCommon::RegExHelpers::EscapeRegExMetaCharacters(text) + L" " + QXCommon::RegExHelpers::GlobToRegExPattern(text),
                  escaped + (L" " + std::wstring(glob))) << QXTest::Narrow(text);
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
    EXPECT_TRUE(regex.Parse(L"exe") && regex.GetLastRxErrorCode() == 0 && regex.Match(L"C:\\X.EXE") && !regex.Match(L"x.dll"));
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
        ASSERT_TRUE(regex.Parse(L"abc"));
        EXPECT_FALSE(regex.Parse(expression)) << QXTest::Narrow(expression);
        EXPECT_EQ(regex.GetLastRxErrorCode(), StandardError(expression)) << QXTest::Narrow(expression);
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

// (.|.)*!$ is exponential for a backtracking engine, linear for the
// breadth-first executor: accepted. With a back-reference it needs
// backtracking, and the step budget stops it on the 28-character file-path
// sample, not on samples too short to explode or with no samples.
TEST(ValidateRegularExpression, CompilesThenRejectsExpressionsThatExplodeOnTheSamples)
{
    struct Case { const wchar_t* expression; unsigned int mask; bool valid; int error; };
    const Case cases[] = {
        {L"^c:\\\\windows\\\\.*\\.exe$", QX_REGEX_SAMPLE_ALL, true, 0}, {L"", QX_REGEX_SAMPLE_ALL, true, 0},
        {L"(abc", QX_REGEX_SAMPLE_ALL, false, static_cast<int>(std::regex_constants::error_paren)},
        {L"(.|.)*!$", QX_REGEX_SAMPLE_ALL, true, 0}, {L"^(.|.)*\\1!$", QX_REGEX_SAMPLE_FILE_PATH, false, QX_REGEX_ERROR_TOO_SLOW},
        {L"^(.|.)*\\1!$", QX_REGEX_SAMPLE_EMPTY | QX_REGEX_SAMPLE_COMPUTER_NAME, true, 0}, {L"^(.|.)*\\1!$", 0, true, 0},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.expression) + " mask " + std::to_string(c.mask));
        int error = -1;
        EXPECT_EQ(ValidateRegularExpressionEx(c.expression, c.mask, &error), c.valid);
        EXPECT_EQ(error, c.error);
        const bool compiles = c.valid || c.error == QX_REGEX_ERROR_TOO_SLOW; // the plain export only compiles
        EXPECT_EQ(ValidateRegularExpression(c.expression, &error), compiles);
        EXPECT_EQ(error, compiles ? 0 : c.error);
    }
    int error = -1;
    EXPECT_FALSE(ValidateRegularExpression(nullptr, &error) || ValidateRegularExpression(L"a", nullptr) ||
                 ValidateRegularExpressionEx(nullptr, 0, &error) || ValidateRegularExpressionEx(L"a", 0, nullptr));
}
