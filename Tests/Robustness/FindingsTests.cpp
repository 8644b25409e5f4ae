// The smallest inputs of known hostile cases, one test per kind, and the
// image check over crafted headers and devices.

#include "Robust.h"

#include "QXCommon/EnvironmentEx.h"
#include "QXCommon/ExpandArgs.h"
#include "QXCommon/FilePathPatternMatcher.h"
#include "QXCommon/GlobWildcardString.h"
#include "QXCommon/QXCommonFunctions.h"
#include "QXCommon/QXRegEx.h"
#include "QXCommon/RegExHelpers.h"


#include <cstring>
#include <regex>
#include <thread>

using QXCommon::CFilePathPatternMatcher;
using QXCommon::RegExHelpers::CQXRegEx;
using QXCommon::RegExHelpers::GlobWildcardString;

namespace
{
std::wstring Repeat(const std::wstring& unit, size_t count)
{
    std::wstring text;
    for (size_t i = 0; i < count; ++i)
        text += unit;
    return text;
}
} // namespace

TEST(Findings, LongTildeValueLoadsWithoutConversion)
{
    const std::wstring value = L"~" + std::wstring(1059, L'x');
    std::wstring entry = L"a=" + value;
    std::vector<wchar_t> block(entry.begin(), entry.end());
    block.insert(block.end(), {L'\0', L'\0', L'\0'});
    Robust::OnSmallStack(1, [&](size_t) {
        QXCommon::CEnvironmentEx env;
        ASSERT_EQ(env.LoadFromEnvironmentBlock(block.data()), 1);
        std::wstring found;
        ASSERT_EQ(env.Lookup(L"a", found), 1);
        EXPECT_EQ(found, value);
    }, [](size_t) { return std::string("a=~x..."); });
}

// Each gets the ECMAScript answer or the budget error, never a wrong "no
// match", on a 32,767-character text.
TEST(Findings, ExplodingExpressionsGetTheirAnswerOrTheBudgetError)
{
    const std::wstring text = std::wstring(32766, L'a') + L"!";
    const struct
    {
        std::wstring expression;
        bool matches;
        bool answerRequired; // false: the budget error is acceptable
    } cases[] = {
        {Repeat(L"(a|)", 500), true, true},   {Repeat(L"(a*)*", 400), true, true},
        {Repeat(L"a*", 500), true, true},     {Repeat(L"a?", 600), true, true},
        {Repeat(L"a{1,3}", 300), true, true}, {L"(a*)*\\1$", true, false},
        {L"(a)\\1!", true, true},             {L"^(?:a?){300}b", false, false},
    };
    Robust::OnSmallStack(std::size(cases), [&](size_t i) {
        CQXRegEx regex;
        int error = 0;
        ASSERT_TRUE(ValidateRegularExpressionEx(cases[i].expression.c_str(), QX_REGEX_SAMPLE_ALL, &error));
        ASSERT_TRUE(regex.Parse(cases[i].expression));
        bool matched = !cases[i].matches;
        error = regex.TryMatch(text, matched);
        if (error == 0)
        {
            EXPECT_EQ(matched, cases[i].matches);
        }
        else
        {
            EXPECT_FALSE(cases[i].answerRequired);
            EXPECT_EQ(error, QX_REGEX_ERROR_BUDGET);
            EXPECT_FALSE(matched);
        }
    }, [&](size_t i) { return QXTest::Narrow(cases[i].expression.substr(0, 40)); });
}

// A non-ASCII character means itself, in expressions, escaped text, globs and
// expanded variables; and every one of them is a valid literal that a
// quantifier binds to.
TEST(Findings, NonAsciiCharactersAreLiterals)
{
    CQXRegEx regex;
    ASSERT_TRUE(regex.Parse(QXCommon::RegExHelpers::EscapeRegExMetaCharacters(L"a\xFF09")));
    EXPECT_TRUE(regex.Match(L"xa\xFF09y"));
    GlobWildcardString glob;
    ASSERT_TRUE(glob.Parse(L"/\xFF5C" L"E\\.dl"));
    EXPECT_TRUE(glob.Match(L"/\xFF5C" L"e\\.DL"));
    EXPECT_FALSE(glob.Match(L""));
    QXCommon::CEnvironmentEx env;
    ASSERT_EQ(env.Add(L"Folder", L"C:\\Data \xFF08" L"2024\xFF09"), 1);
    std::wstring rx;
    ASSERT_EQ(env.ExpandRxString(L"^%folder%\\\\", rx), 1);
    ASSERT_TRUE(regex.Parse(rx));
    EXPECT_TRUE(regex.Match(L"C:\\Data \xFF08" L"2024\xFF09\\x.exe"));

    std::vector<wchar_t> wrong;
    for (unsigned c = 0x80; c <= 0xFFFF; ++c)
    {
        const std::wstring u(1, static_cast<wchar_t>(c));
        if (!regex.Parse(L"a" + u + L"+b") || !regex.Match(L"xa" + u + u + L"b") || regex.Match(L"xab"))
            wrong.push_back(static_cast<wchar_t>(c));
    }
    EXPECT_TRUE(wrong.empty()) << wrong.size() << " code units, the first U+" << std::hex
                               << static_cast<unsigned>(wrong.empty() ? 0 : wrong[0]);
}

// The parse result depends on the expression alone, not on the thread.
TEST(Findings, ParseResultDoesNotDependOnTheThread)
{
    const wchar_t* const expressions[] = {L"\xFF09{", L"a{\xFF11}", L"(\xFF08)\\\xFF11", L"x{"};
    for (const wchar_t* expression : expressions)
    {
        CQXRegEx here;
        here.Parse(expression);
        const int expected = here.GetLastRxErrorCode();
        for (int t = 0; t < 4; ++t)
        {
            int there = -1, validated = -1;
            std::thread([&] {
                CQXRegEx fresh;
                fresh.Parse(expression);
                there = fresh.GetLastRxErrorCode();
                ValidateRegularExpression(expression, &validated);
            }).join();
            EXPECT_EQ(there, expected) << QXTest::Narrow(expression);
            EXPECT_EQ(validated, expected) << QXTest::Narrow(expression);
        }
    }
    CQXRegEx brace;
    EXPECT_FALSE(brace.Parse(L"\xFF09{"));
    EXPECT_EQ(brace.GetLastRxErrorCode(), static_cast<int>(std::regex_constants::error_badbrace));
}

// Devices and pipes are not disk files: answered at once, never read.
TEST(Findings, DevicesAndPipesAreNotImages)
{
    ATL::CHandle pipe(CreateNamedPipeW(L"\\\\.\\pipe\\qxrobust_image", PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE, 1, 0, 0, 0,
                                       nullptr));
    ASSERT_NE(pipe.m_h, INVALID_HANDLE_VALUE);
    const wchar_t* const paths[] = {L"COM1", L"AUX", L"CON", L"NUL", L"PRN", L"LPT1", L"CONIN$",
                                    L"\\\\.\\pipe\\qxrobust_image"};
    Robust::OnSmallStack(std::size(paths), [&](size_t i) {
        BOOL isNTExe = TRUE;
        DWORD error = QXCommonFunctions::TryCheckIsNTExe(paths[i], isNTExe);
        if (error == 0)
        {
            EXPECT_FALSE(isNTExe) << QXTest::Narrow(paths[i]);
        }
    }, [&](size_t i) { return QXTest::Narrow(paths[i]); }, 5000);
}

// Crafted e_lfanew values, wrapped ones among them, give the answer the
// bytes call for and are never read outside the buffer.
TEST(Findings, CraftedOffsetsAnsweredFromTheBytes)
{
    QXTest::TempDir dir;
    Robust::Gen g(6);
    for (int i = 0; i < 200; ++i)
    {
        const uint32_t offsets[] = {static_cast<uint32_t>(g.Below(600)), 0xFFFFFFFFu - static_cast<uint32_t>(g.Below(300)),
                                    static_cast<uint32_t>(64 + g.Below(64))};
        uint32_t lfanew = offsets[g.Below(3)];
        std::string bytes(64 + g.Below(700), '\0');
        std::memcpy(bytes.data(), "MZ", 2);
        std::memcpy(bytes.data() + 60, &lfanew, 4);
        if (lfanew + 4ull <= bytes.size() && g.Chance(70))
            std::memcpy(bytes.data() + lfanew, "PE\0\0", 4);
        const uint32_t needed = lfanew + 0xF8u; // wraps as the check's own sum does
        const bool expected = bytes.size() >= needed && needed >= lfanew && lfanew + 4ull <= bytes.size() &&
                              std::memcmp(bytes.data() + lfanew, "PE\0\0", 4) == 0;
        BOOL isNTExe = !expected;
        ASSERT_EQ(QXCommonFunctions::TryCheckIsNTExe(dir.Write(L"c.bin", bytes), isNTExe), 0u);
        EXPECT_EQ(isNTExe != FALSE, expected) << "e_lfanew " << lfanew << ", size " << bytes.size();
    }
}

TEST(Findings, JoinedArgumentsKeepTheirBoundaries)
{
    const std::pair<const wchar_t*, const wchar_t*> cases[] = {
        {L"\"a\"b c\"", L"\"a\"b c\""}, {L"\" \"a", L"\" \"a\""}, {L"a \"\"", L"a \"\""}, {L",", L"\"\""},
    };
    for (const auto& [input, expected] : cases)
    {
        std::wstring result;
        ASSERT_EQ(QXCommon::CExpandArgs().ConvertArgsToFullPath(input, result), 1);
        EXPECT_EQ(result, expected) << QXTest::Narrow(input);
    }
}

TEST(Findings, NormalisedPathsExpandBack)
{
    QXCommon::CEnvironmentEx env;
    const wchar_t block[] = L"SystemDrive=C:\\\0TEMP=C:\\T\\\0\0";
    ASSERT_EQ(env.LoadFromEnvironmentBlock(block), 1);
    const std::pair<const wchar_t*, const wchar_t*> cases[] = {
        {L"C:Eex", L"c:eex"}, {L"C:\\Eex", L"%systemdrive%eex"}, {L"C:\\T\\x", L"%temp%x"}, {L"C:\\T", L"%systemdrive%t"},
    };
    for (const auto& [input, expected] : cases)
    {
        std::wstring path = input;
        env.NormalisePaths(path);
        EXPECT_EQ(path, expected);
        env.ExpandString(path);
        EXPECT_EQ(CompareStringOrdinal(path.c_str(), -1, input, -1, TRUE), CSTR_EQUAL) << QXTest::Narrow(path);
    }
}

TEST(Findings, NulAndHookListCases)
{
    using M = CFilePathPatternMatcher;
    const std::wstring nul(1, L'\0');
    EXPECT_EQ(M::MatchAgainstWildCardPattern(L"a", L"a" + nul, 0), 0);
    EXPECT_EQ(M::MatchAgainstWildCardPattern(L"a" + nul + L"b", L"a", 0), 0);
    EXPECT_EQ(M::MatchAgainstJustFileName(L"C:\\a" + nul, L"a" + nul), 0);
    EXPECT_EQ(M::MatchAgainstRegularExpressionPattern(L"a" + nul, L"a"), 0);
    EXPECT_EQ(M::MatchAgainstNetworkResourcePattern(L"\\\\h\\s" + nul, L"\\\\h\\s", 0), 0);
    EXPECT_EQ(M::MatchAgainstWildCardFolder(L"C:\\a\\" + nul, L"C:\\*", 1), 0);
    EXPECT_EQ(M::MatchAgainstDriverHookExceptionList(L"C:\\a\\b.exe", L"b.exe" + nul), 0);
    CQXRegEx regex; // in an expression a NUL is a character like any other
    ASSERT_TRUE(regex.Parse(L"a" + nul + L"b"));
    EXPECT_TRUE(regex.Match(L"xa" + nul + L"b"));
    EXPECT_FALSE(regex.Match(L"xab"));

    for (const wchar_t* path : {L"\\\\e", L"C:\\a\\\\b.exe", L"C:/a/b.exe", L"\\\\h\\s\\x.exe"})
        EXPECT_EQ(M::MatchAgainstDriverHookExceptionList(path, path), 1) << QXTest::Narrow(path);
}
