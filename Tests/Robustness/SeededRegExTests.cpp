// Seeded runs over the regular-expression side: generated expressions and
// texts against the standard library's own ECMAScript search (where both
// read the same syntax), globs against a whole-text wildcard reference, and
// escaping of hostile text. Every call runs on a 256 KiB thread.

#include "Robust.h"

#include "QXCommon/GlobWildcardString.h"
#include "QXCommon/QXRegEx.h"
#include "QXCommon/RegExHelpers.h"

#include <regex>

using QXCommon::RegExHelpers::CQXRegEx;
using QXCommon::RegExHelpers::GlobWildcardString;

namespace
{
// 'P' in a generated expression or text is a placeholder literal: the
// reference reads it as 'q', the library is given a non-ASCII character that
// the standard scanner would take for a metacharacter. Both must agree, so a
// non-ASCII character means nothing but itself.
const wchar_t* const Lookalikes[] = {L"\xFF08", L"\xFF09", L"\xFF0A", L"\xFF3C", L"\xFF5C", L"\x2217",
                                     L"\xFF1F", L"\xFF3B", L"\xFF5B", L"\xFF0B", L"\xFF04", L"\xFF3E"};

// An expression of a few atoms, nested a little. With classes, \w \d \s \b,
// ranges and dots are used (ASCII only: a placeholder would change their
// answers). Inside a lookahead there are no captures, anchors or word
// boundaries: the standard executor starts a lookahead as if the text began
// there, which is not ECMAScript's answer.
std::wstring Expression(Robust::Gen& g, int depth, bool classes, bool inLookahead = false)
{
    static const wchar_t* const plain[] = {L"a", L"b", L"P", L"A", L"(?:a|P)", L"[aP]", L"[^b]"};
    static const wchar_t* const classy[] = {L"\\w", L"\\d", L"\\s", L"\\bb", L"[a-c]", L".", L"[^\\w]", L"\\B"};
    static const wchar_t* const quantifiers[] = {L"*", L"+", L"?", L"{2}", L"{1,2}", L"*?", L"{0,}", L"{2,1}", L"{"};
    std::wstring out;
    for (size_t n = 1 + g.Below(4); n > 0; --n)
    {
        size_t kind = g.Below(10);
        if (kind < 2 && depth < 3)
        {
            static const wchar_t* const opens[] = {L"(", L"(?:", L"(?=", L"(?!"};
            std::wstring open = inLookahead ? L"(?:" : g.Pick(opens);
            out += open + Expression(g, depth + 1, classes, inLookahead || (open[1] == L'?' && open[2] != L':')) + L")";
        }
        else if (kind == 2 && depth < 3)
            out += Expression(g, depth + 1, classes, inLookahead) + L"|" + Expression(g, depth + 1, classes, inLookahead);
        else if (kind == 3 && !inLookahead)
            out += g.Chance(50) ? L"\\1" : (g.Chance(50) ? L"^" : L"$");
        else if (kind == 4 && classes && !inLookahead)
            out += g.Pick(classy);
        else if (kind == 5 && g.Chance(15))
            out += g.Pick({L")", L"(", L"[", L"\\", L"]"}); // unbalanced: both must refuse alike
        else
            out += g.Pick(plain);
        if (g.Chance(30))
            out += g.Pick(quantifiers);
    }
    return out;
}

std::wstring Replace(std::wstring text, wchar_t from, const std::wstring& to)
{
    for (size_t at = text.find(from); at != std::wstring::npos; at = text.find(from, at + to.size()))
        text.replace(at, 1, to);
    return text;
}

// The standard library's error code for the expression, -1 when it compiles.
int StandardParse(const std::wstring& expression, std::wregex& compiled)
{
    try
    {
        compiled.assign(expression, std::regex_constants::ECMAScript | std::regex_constants::icase);
        return -1;
    }
    catch (const std::regex_error& e)
    {
        return static_cast<int>(e.code());
    }
}

// Whole-text glob: ? one character, * any run, neither a line break (the
// expression's "."), letters compared without case.
bool GlobReference(const std::wstring& glob, const std::wstring& text)
{
    auto fold = [](wchar_t c) {
        wchar_t lower = c;
        return LCMapStringW(LOCALE_INVARIANT, LCMAP_LOWERCASE, &c, 1, &lower, 1) == 1 ? lower : c;
    };
    std::vector<char> row(text.size() + 1, 0), next(text.size() + 1, 0);
    row[0] = 1;
    for (wchar_t p : glob)
    {
        std::fill(next.begin(), next.end(), 0);
        for (size_t i = 0; i <= text.size(); ++i)
        {
            bool breakAt = i < text.size() && (text[i] == L'\n' || text[i] == L'\r');
            if (p == L'*')
                next[i] = row[i] || (i > 0 && next[i - 1] && text[i - 1] != L'\n' && text[i - 1] != L'\r');
            if (!row[i] || i == text.size())
                continue;
            if ((p == L'?' && !breakAt) || (p != L'*' && p != L'?' && fold(p) == fold(text[i])))
                next[i + 1] = 1;
        }
        row.swap(next);
    }
    return row[text.size()] != 0;
}
} // namespace

// The engine agrees with the standard ECMAScript search, for what both
// accept and for what both refuse, on short texts (where the standard
// executor is safe to run), and a non-ASCII look-alike stays a literal.
TEST(SeededRegEx, AgreesWithTheStandardSearchAndNonAsciiIsLiteral)
{
    Robust::Gen g(1);
    constexpr size_t Count = 2500;
    std::vector<std::wstring> expressions(Count), placeholders(Count);
    std::vector<std::vector<std::wstring>> texts(Count);
    for (size_t i = 0; i < Count; ++i)
    {
        expressions[i] = Expression(g, 0, i % 2 == 0);
        placeholders[i] = i % 2 == 0 ? L"q" : g.Pick(Lookalikes);
        for (int t = 0; t < 4; ++t)
        {
            std::wstring text;
            for (size_t n = g.Below(9); n > 0; --n)
                text.push_back(g.PickChar(L"abPPA- \\"));
            texts[i].push_back(text);
        }
    }
    std::atomic<int> failures{0};
    Robust::OnSmallStack(
        Count,
        [&](size_t i) {
            const std::wstring& p = placeholders[i];
            std::wregex standard;
            int standardError = StandardParse(Replace(expressions[i], L'P', L"q"), standard);
            CQXRegEx ours;
            bool parsed = ours.Parse(Replace(expressions[i], L'P', p));
            if (parsed != (standardError == -1) || (!parsed && ours.GetLastRxErrorCode() != standardError))
            {
                ADD_FAILURE() << QXTest::Narrow(expressions[i]) << ": parse " << ours.GetLastRxErrorCode()
                              << ", standard " << standardError;
                ++failures;
                return;
            }
            for (size_t t = 0; parsed && t < texts[i].size(); ++t)
            {
                bool matched = false;
                int error = ours.TryMatch(Replace(texts[i][t], L'P', p), matched);
                bool expected = std::regex_search(Replace(texts[i][t], L'P', L"q"), standard);
                if (error != 0 || matched != expected)
                {
                    ADD_FAILURE() << QXTest::Narrow(expressions[i]) << " on " << QXTest::Narrow(texts[i][t])
                                  << ": " << matched << " (error " << error << "), standard " << expected;
                    ++failures;
                }
            }
        },
        [&](size_t i) { return QXTest::Narrow(expressions[i]); });
    EXPECT_EQ(failures, 0) << "seed " << Robust::Seed();
}

// Globs match exactly what the whole-text reference says; hostile text,
// escaped, is found in itself by an expression and matched by a glob of it.
TEST(SeededRegEx, GlobsAndEscapedTextMeanThemselves)
{
    Robust::Gen g(2);
    constexpr size_t Count = 3000;
    std::vector<std::wstring> globs(Count), texts(Count);
    for (size_t i = 0; i < Count; ++i)
    {
        globs[i] = g.HostileText(10);
        texts[i] = i % 3 == 0 ? Replace(Replace(globs[i], L'*', L"xy"), L'?', L"z") : g.HostileText(10);
    }
    Robust::OnSmallStack(
        Count,
        [&](size_t i) {
            GlobWildcardString glob;
            ASSERT_TRUE(glob.Parse(globs[i]));
            bool matched = false;
            EXPECT_EQ(glob.TryMatch(texts[i], matched), 0);
            EXPECT_EQ(matched, !globs[i].empty() && GlobReference(globs[i], texts[i]))
                << QXTest::Narrow(globs[i]) << " ~ " << QXTest::Narrow(texts[i]);

            CQXRegEx escaped;
            ASSERT_TRUE(escaped.Parse(QXCommon::RegExHelpers::EscapeRegExMetaCharacters(texts[i])))
                << QXTest::Narrow(texts[i]);
            EXPECT_TRUE(texts[i].empty() || escaped.Match(L"<" + texts[i] + L">")) << QXTest::Narrow(texts[i]);
        },
        [&](size_t i) { return QXTest::Narrow(globs[i] + L" ~ " + texts[i]); });
}
