// Regular expressions: escaping and glob conversion, the glob and expression
// classes, the validation exports, agreement with the standard ECMAScript
// search, and bounded matching on a small (256 KiB) thread stack.

#include "QXTestSupport.h"

#include "QXCommon/FilePathPatternMatcher.h"
#include "QXCommon/GlobWildcardString.h"
#include "QXCommon/QXRegEx.h"
#include "QXCommon/RegExHelpers.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <thread>
#include <vector>

using QXCommon::RegExHelpers::CQXRegEx;
using QXCommon::RegExHelpers::GlobWildcardString;

TEST(RegExHelpers, EscapeAndGlobConversion)
{
    struct Case { const wchar_t* input; const wchar_t* escaped; const wchar_t* glob; };
    const Case cases[] = {
        {L"a.b*", L"a\\.b\\*", L"^a\\.b.*$"},
        {L"[x]", L"\\[x\\]", L"^\\[x\\]$"},
        {L"", L"", L"^$"},
        {L"c:\\x?.exe", L"c:\\\\x\\?\\.exe", L"^c:\\\\x.\\.exe$"},
        {L"\\.[]^-?+(){}$|!*", L"\\\\\\.\\[\\]\\^\\-\\?\\+\\(\\)\\{\\}\\$\\|\\!\\*", L"^\\\\\\.\\[\\]\\^\\-.\\+\\(\\)\\{\\}\\$\\|\\!.*$"},
        {L"a,b=c&d", L"a,b=c&d", L"^a,b=c&d$"},
        {L"\\*", L"\\\\\\*", L"^\\\\.*$"},
    };
    for (const Case& c : cases)
    {
        EXPECT_EQ(QXCommon::RegExHelpers::EscapeRegExMetaCharacters(c.input), c.escaped) << QXTest::Narrow(c.input);
        EXPECT_EQ(QXCommon::RegExHelpers::GlobToRegExPattern(c.input), c.glob) << QXTest::Narrow(c.input);
    }
}

TEST(GlobWildcardString, MatchesWholeTextsCaseInsensitively)
{
    struct Case { const wchar_t* glob; const wchar_t* text; bool expected; };
    const Case cases[] = {
        {L"exe", L"C:\\x.exe", false}, // whole text, not a search
        {L"*.exe", L"C:\\x.EXE", true},
        {L"c:\\*.exe", L"C:\\dir\\sub\\x.exe", true}, // a glob star spans separators
        {L"c:\\?.exe", L"C:\\x.exe", true},
        {L"c:\\?.exe", L"C:\\xy.exe", false},
        {L"[x]", L"[X]", true},
        {L"[x]", L"x", false},
        {L"a+b(c)", L"A+B(C)", true},
        {L"a.b", L"axb", false},
    };
    for (const Case& c : cases)
    {
        GlobWildcardString glob;
        ASSERT_TRUE(glob.Parse(c.glob)) << QXTest::Narrow(c.glob);
        EXPECT_FALSE(glob.IsEmpty());
        EXPECT_EQ(glob.Match(c.text), c.expected) << QXTest::Narrow(std::wstring(c.glob) + L" ~ " + c.text);
        GlobWildcardString copy = glob;
        EXPECT_EQ(copy.Match(c.text), c.expected);
    }
}

TEST(GlobWildcardString, EmptyGlobIsValidAndMatchesNothing)
{
    GlobWildcardString glob;
    EXPECT_TRUE(glob.IsEmpty());
    EXPECT_FALSE(glob.Match(L""));
    ASSERT_TRUE(glob.Parse(L"*"));
    EXPECT_TRUE(glob.Match(L"anything"));
    EXPECT_TRUE(glob.Parse(L""));
    EXPECT_TRUE(glob.IsEmpty());
    for (const wchar_t* text : {L"", L"a", L"*", L"C:\\x.exe"})
        EXPECT_FALSE(glob.Match(text));
    ASSERT_TRUE(glob.Parse(L"a*"));
    glob.Empty();
    EXPECT_TRUE(glob.IsEmpty());
    EXPECT_FALSE(glob.Match(L"abc"));
}

TEST(CQXRegEx, ParseKeepsTheErrorCodeAndMatchSearches)
{
    CQXRegEx regex;
    EXPECT_TRUE(regex.Parse(L"exe"));
    EXPECT_EQ(regex.GetLastRxErrorCode(), 0);
    EXPECT_TRUE(regex.Match(L"C:\\x.exe"));
    EXPECT_TRUE(regex.Match(L"C:\\X.EXE"));
    EXPECT_FALSE(regex.Match(L"C:\\x.dll"));

    // The error code is the standard engine's own for the same text.
    auto standardError = [](const wchar_t* expression) {
        try
        {
            std::wregex(expression, std::regex_constants::ECMAScript | std::regex_constants::icase);
            return -1;
        }
        catch (const std::regex_error& e)
        {
            return static_cast<int>(e.code());
        }
    };
    const wchar_t* bad[] = {L"(abc", L"abc)", L"a)(b" /* would balance once wrapped */, L"[abc", L"*a",
                            L"a{2,1}", L"(a)\\2", L"a\\"};
    for (const wchar_t* expression : bad)
    {
        int expected = standardError(expression);
        ASSERT_NE(expected, -1) << QXTest::Narrow(expression);
        EXPECT_FALSE(regex.Parse(expression)) << QXTest::Narrow(expression);
        EXPECT_EQ(regex.GetLastRxErrorCode(), expected) << QXTest::Narrow(expression);
        EXPECT_TRUE(regex.IsEmpty());
        EXPECT_FALSE(regex.Match(L"abc"));
    }
    // An empty expression is valid and holds nothing.
    EXPECT_TRUE(regex.Parse(L""));
    EXPECT_EQ(regex.GetLastRxErrorCode(), 0);
    EXPECT_TRUE(regex.IsEmpty());
    EXPECT_FALSE(regex.Match(L"abc"));
    // Expressions too long or too deeply nested are refused, not compiled.
    EXPECT_FALSE(regex.Parse(std::wstring(70000, L'a')));
    EXPECT_EQ(regex.GetLastRxErrorCode(), static_cast<int>(std::regex_constants::error_complexity));
    EXPECT_FALSE(regex.Parse(std::wstring(65, L'(') + std::wstring(65, L')')));
    EXPECT_TRUE(regex.Parse(std::wstring(64, L'(') + L"a" + std::wstring(64, L')')));
}

// The bounded engine gives the answer of the standard ECMAScript search.
TEST(CQXRegEx, AgreesWithTheStandardSearch)
{
    const wchar_t* expressions[] = {
        L"exe$", L"^c:\\\\windows\\\\", L"\\\\system32\\\\[^\\\\]+\\.exe$", L"(a|b)*c", L"^(ab|a)(bc|c)$",
        L"\\bcalc\\b", L"\\d{3}\\.\\d+", L"x*", L"^$", L"(?=.*win)c:", L"(?!c:)\\w:", L"[[:alpha:]]+32",
        L"note.?pad", L"a{2,3}b", L"(\\w+)\\\\\\1", L"^(.)(.).?\\2\\1$", L"\\\\\\\\[^\\\\]+\\\\share", L"[A-C]:",
        L"^\\s*$", L"CALC|notepad",
    };
    const wchar_t* texts[] = {
        L"", L"c:\\windows\\system32\\calc.exe", L"C:\\WINDOWS\\notepad.exe", L"aababc", L"abc", L"ac", L"d:",
        L"version 123.45", L"notpad", L"aab aaab", L"c:\\windows\\windows", L"abba", L"abcba", L"\\\\host\\share",
        L"   ", L"B:\\", L"xyz",
    };
    for (const wchar_t* expression : expressions)
    {
        std::wregex reference(expression, std::regex_constants::ECMAScript | std::regex_constants::icase);
        CQXRegEx regex;
        ASSERT_TRUE(regex.Parse(expression)) << QXTest::Narrow(expression);
        for (const wchar_t* text : texts)
            EXPECT_EQ(regex.Match(text), std::regex_search(std::wstring(text), reference))
                << QXTest::Narrow(std::wstring(expression) + L" ~ " + text);
    }
}

// One compiled expression (and its copies) matched from several threads at
// once: each thread keeps its own step budget and gets its own answers.
TEST(CQXRegEx, OneCompiledExpressionServesManyThreads)
{
    CQXRegEx linear;
    ASSERT_TRUE(linear.Parse(L"\\\\system32\\\\[^\\\\]+\\.exe$"));
    CQXRegEx backtracking;
    ASSERT_TRUE(backtracking.Parse(L"(\\w+)\\\\\\1"));
    GlobWildcardString glob;
    ASSERT_TRUE(glob.Parse(L"c:\\*\\*.exe"));
    std::vector<int> wrong(8, 0);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < wrong.size(); ++t)
    {
        threads.emplace_back([&, t] {
            CQXRegEx copy = linear;
            for (int i = 0; i < 200; ++i)
            {
                bool odd = (i + t) % 2 == 1;
                std::wstring path = odd ? L"C:\\Windows\\System32\\calc.exe" : L"C:\\Windows\\calc.dll";
                if (copy.Match(path) != odd || linear.Match(path) != odd)
                    ++wrong[t];
                if (backtracking.Match(odd ? L"c:\\win\\win" : L"c:\\win\\dos") != odd)
                    ++wrong[t];
                if (glob.Match(path) != odd)
                    ++wrong[t];
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (size_t t = 0; t < wrong.size(); ++t)
        EXPECT_EQ(wrong[t], 0) << "thread " << t;
}

TEST(ValidateRegularExpression, CompilesThenRejectsExpressionsThatExplodeOnTheSamples)
{
    struct Case { const wchar_t* expression; unsigned int mask; bool valid; int error; };
    const Case cases[] = {
        {L"^c:\\\\windows\\\\.*\\.exe$", QX_REGEX_SAMPLE_ALL, true, 0},
        {L"", QX_REGEX_SAMPLE_ALL, true, 0},
        {L"(abc", QX_REGEX_SAMPLE_ALL, false, static_cast<int>(std::regex_constants::error_paren)},
        // Exponential for a backtracking engine; the breadth-first executor
        // runs it in linear time, so it is accepted.
        {L"(.|.)*!$", QX_REGEX_SAMPLE_ALL, true, 0},
        // With a back-reference it needs backtracking: the step budget stops
        // it on the 28-character file-path sample.
        {L"^(.|.)*\\1!$", QX_REGEX_SAMPLE_ALL, false, QX_REGEX_ERROR_TOO_SLOW},
        {L"^(.|.)*\\1!$", QX_REGEX_SAMPLE_FILE_PATH, false, QX_REGEX_ERROR_TOO_SLOW},
        // ... but not on samples too short to explode, or with no samples.
        {L"^(.|.)*\\1!$", QX_REGEX_SAMPLE_EMPTY | QX_REGEX_SAMPLE_COMPUTER_NAME, true, 0},
        {L"^(.|.)*\\1!$", 0, true, 0},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.expression) + " mask " + std::to_string(c.mask));
        int error = -1;
        DWORD start = GetTickCount();
        EXPECT_EQ(ValidateRegularExpressionEx(c.expression, c.mask, &error), c.valid);
        EXPECT_EQ(error, c.error);
        EXPECT_LT(GetTickCount() - start, 5000u);
        // The plain export only compiles.
        const bool compiles = c.valid || c.error == QX_REGEX_ERROR_TOO_SLOW;
        error = -1;
        EXPECT_EQ(ValidateRegularExpression(c.expression, &error), compiles);
        EXPECT_EQ(error, compiles ? 0 : c.error);
    }
    // Null pointers give a clean false.
    int error = -1;
    EXPECT_FALSE(ValidateRegularExpression(nullptr, &error));
    EXPECT_FALSE(ValidateRegularExpression(L"a", nullptr));
    EXPECT_FALSE(ValidateRegularExpressionEx(nullptr, QX_REGEX_SAMPLE_ALL, &error));
    EXPECT_FALSE(ValidateRegularExpressionEx(L"a", QX_REGEX_SAMPLE_ALL, nullptr));
}

TEST(RegExLogging, InvalidRuleExpressionAndFailedMatchAreLogged)
{
    QXTest::LogCapture capture;
    EXPECT_EQ(QXCommon::CFilePathPatternMatcher::MatchAgainstRegularExpressionPattern(L"C:\\x.exe", L"(abc"), 0);
    EXPECT_TRUE(capture.Has(1, "QXCommon::CFilePathPatternMatcher::MatchAgainstRegularExpressionPattern",
                            L"Regular Expression [ (abc ] is invalid. Cannot be parsed to match [ C:\\x.exe ]. "
                            L"Parse error=[ " +
                                std::to_wstring(static_cast<int>(std::regex_constants::error_paren)) + L" ]\n"))
        << capture.Dump();

    // A back-referencing expression that explodes: stopped by its budget.
    CQXRegEx regex;
    ASSERT_TRUE(regex.Parse(L"^(.|.)*\\1!$"));
    EXPECT_FALSE(regex.Match(std::wstring(28, L'x')));
    EXPECT_TRUE(capture.Has(1, "QXCommon::RegExHelpers::CQXRegEx::Match",
                            L"Regex Match Failed, error " +
                                std::to_wstring(static_cast<int>(std::regex_constants::error_complexity))))
        << capture.Dump();
    ASSERT_TRUE(regex.Parse(L"(a)\\1"));
    EXPECT_TRUE(regex.Match(std::wstring(300, L'a')));
}

// Each case runs on a 256 KiB thread in a helper process, so that a stack
// overflow shows as a failed case instead of ending the test run.
TEST(RegExBounds, SmallStackLongTextsAndExplodingExpressions)
{
    struct Case
    {
        const wchar_t* name;
        DWORD exitCode; // 0 match, 1 no match, 3 refused
    };
    const Case cases[] = {
        {L"alternation-match", 0},     {L"alternation-nomatch", 1},  {L"exploding-short", 1},
        {L"exploding-long", 1},        {L"exploding-long-match", 0}, {L"lookahead-long", 1},
        {L"glob-long", 1},             {L"optional-chain", 1},       {L"optional-chain-match", 0},
        {L"nested-groups", 0},         {L"long-expression", 0},      {L"backref-short", 0},
        // A search stops at its first match, well inside the step budget.
        {L"long-expression-long-text", 0},
        {L"backref-long", 0},          {L"backref-exploding", 1},    {L"validate-huge", 1},
        // The largest program the state limit lets through, backtracking over
        // the longest text it is given: stopped by the step budget.
        {L"backref-big-program", 1},   {L"backref-big-program-nomatch", 1},
    };
    for (const Case& c : cases)
    {
        DWORD start = GetTickCount();
        QXTest::ProcessResult result =
            QXTest::RunProcess(L"\"" + QXTest::HelperPath(L"qxmatch_stack.exe") + L"\" " + c.name, 120000);
        ASSERT_TRUE(result.started);
        EXPECT_FALSE(result.timedOut) << QXTest::Narrow(c.name);
        EXPECT_EQ(result.exitCode, c.exitCode) << QXTest::Narrow(c.name) << ": " << result.output;
        EXPECT_LT(GetTickCount() - start, 20000u) << QXTest::Narrow(c.name) << ": " << result.output;
    }
}

// Control: the same helper, running the standard library's default
// (backtracking) executor on a 5,000-character text, gets no answer: the
// stack of the 256 KiB thread overflows. (Under Wine the thread ends without
// taking the process with it; on Windows the process ends with 0xC00000FD.)
TEST(RegExBounds, TheDefaultExecutorOverflowsTheSameStack)
{
    QXTest::ProcessResult result =
        QXTest::RunProcess(L"\"" + QXTest::HelperPath(L"qxmatch_stack.exe") + L"\" std-search", 120000);
    ASSERT_TRUE(result.started);
    EXPECT_NE(result.exitCode, 0u) << result.output;
    EXPECT_NE(result.exitCode, 1u) << result.output;
    std::printf("control: %s (exit 0x%08lX)\n", result.output.c_str(), result.exitCode);
}
