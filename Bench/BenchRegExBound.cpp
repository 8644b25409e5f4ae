// The bound of one regular-expression match: hostile expressions that
// ValidateRegularExpressionEx accepts, each searched for in a text of 32,767
// characters, with the answer each gets (match, no match, or the budget
// error). The peer is a plain literal search over the same text on the same
// engine, the least a match can cost; the ratio says how far above that floor
// the worst expressions go. The bound stated in QXRegEx.h is the largest time
// printed here.

#include "Bench.h"

#include "QXCommon/QXRegEx.h"
#include "QXCommon/RegExHelpers.h"

#include <string>

namespace
{
using QXCommon::RegExHelpers::CQXRegEx;

std::wstring Repeat(const std::wstring& unit, size_t count)
{
    std::wstring text;
    for (size_t i = 0; i < count; ++i)
        text += unit;
    return text;
}

std::wstring Answer(const CQXRegEx& regex, const std::wstring& text)
{
    bool matched = false;
    int error = regex.TryMatch(text, matched);
    if (error != 0)
        return L"budget error " + std::to_wstring(error);
    return matched ? L"match" : L"no match";
}

// The largest count n for which make(n) still compiles: the worst accepted
// member of a family of expressions.
template <typename Make>
std::wstring LargestAccepted(Make make)
{
    size_t low = 1, high = 4096;
    CQXRegEx probe;
    while (low < high)
    {
        size_t mid = (low + high + 1) / 2;
        if (probe.Parse(make(mid)))
            low = mid;
        else
            high = mid - 1;
    }
    return make(low);
}

void RunRegExBound(qxbench::Runner& runner)
{
    const std::wstring as = std::wstring(32766, L'a') + L"!";
    std::wstring distinct; // 32,767 different characters, none of them ASCII
    for (wchar_t c = 0x4E00; distinct.size() < 32767; ++c)
        distinct.push_back(c);
    auto counted = [](const wchar_t* head, const wchar_t* tail) {
        return LargestAccepted([=](size_t n) { return head + std::to_wstring(n) + tail; });
    };
    auto repeated = [](const wchar_t* unit, const wchar_t* tail) {
        return LargestAccepted([=](size_t n) { return Repeat(unit, n) + tail; });
    };
    const struct
    {
        const wchar_t* name;
        std::wstring expression;
        const std::wstring& text;
    } cases[] = {
        // Nullable: a search matches at the first position.
        {L"(a|) x500", Repeat(L"(a|)", 500), as},
        {L"(a*)* x400", Repeat(L"(a*)*", 400), as},
        // As many states live at once as the state limit allows, never matching.
        {L"(?:a?){n}b", counted(L"(?:a?){", L"}b"), as},
        {L"a{1,3} xn + b", repeated(L"a{1,3}", L"b"), as},
        {L"(?:.?){n}!x", counted(L"(?:.?){", L"}!x"), as},
        {L"(?:.?){n}!x, distinct characters", counted(L"(?:.?){", L"}!x"), distinct},
        {L"(?:\\w|\\s)* xn !x", repeated(L"(?:\\w|\\s)*", L"!x"), as},
        // The costliest matchers the length limit allows, copied.
        {L"[500 ranges]{0,n}!x", counted((L"[" + Repeat(L"b-b", 500) + L"]{0,").c_str(), L"}!x"), as},
        {L"[classes]?{n}!x", counted(L"(?:[\\w\\s\\d\\W\\S\\D[:alpha:][:punct:]]?){", L"}!x"), distinct},
        // A lookahead at every position.
        {L"(?=.*y)a", L"(?=.*y)a", as},
        // Back-references: backtracking.
        {L"(a*)*\\1$", L"(a*)*\\1$", as},
        {L"^(.|.)*\\1!x", L"^(.|.)*\\1!x", as},
        {L"(\\w+)\\1!x", L"(\\w+)\\1!x", as},
        {L"(a)\\1 on a long text", L"(a)\\1", as},
    };
    CQXRegEx literal;
    literal.Parse(L"qxz");
    for (const auto& c : cases)
    {
        CQXRegEx regex;
        int validateError = 0;
        bool accepted = ValidateRegularExpressionEx(c.expression.c_str(), QX_REGEX_SAMPLE_ALL, &validateError);
        if (!regex.Parse(c.expression))
        {
            runner.Compare(c.name, L"", [] {}, nullptr, 1,
                           L"refused by Parse, error " + std::to_wstring(regex.GetLastRxErrorCode()));
            continue;
        }
        std::wstring note = L"answer: " + Answer(regex, c.text) + L"; expression of " +
                            std::to_wstring(c.expression.size()) + L" characters; ValidateRegularExpressionEx " +
                            (accepted ? L"accepts" : L"refuses (" + std::to_wstring(validateError) + L")");
        runner.Compare(
            std::wstring(L"CQXRegEx::Match ") + c.name + L" (32,767 chars)", L"literal search, same text",
            [&] {
                bool matched = false;
                qxbench::KeepAlive(regex.TryMatch(c.text, matched));
            },
            [&] {
                bool matched = false;
                qxbench::KeepAlive(literal.TryMatch(c.text, matched));
            },
            1, note);
    }
}
} // namespace

QXBENCH_CASE(L"patterns.regex-bound", &RunRegExBound);
