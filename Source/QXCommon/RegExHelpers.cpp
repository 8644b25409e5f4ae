// Building regular expressions from rule text, checking expressions, and the
// bounded engine behind CQXRegEx and GlobWildcardString.
//
// The library runs inside hooked processes, on threads with small stacks, so
// no expression may overflow the stack or run unbounded:
// - An expression without back-references is compiled in the standard
//   library's polynomial mode and run by its breadth-first executor, whose
//   recursion is bounded by the size of the compiled program, not by the
//   text. A search is a whole match of "[\s\S]*(?:expr)[\s\S]*", which keeps
//   it linear in the text (the executor's own search restarts at every
//   position and would be quadratic).
// - An expression with back-references needs the backtracking executor,
//   whose recursion grows with the text: it is only run on texts of at most
//   MaxBacktrackingSubject characters.
// - Every character comparison of a match spends one step of a per-thread
//   budget (the engine calls the traits' case folding for each one); an
//   exploding expression is stopped with error_complexity.
// - The expression text is limited in length and group nesting (the compiler
//   recurses per term and per group), and the compiled program in states.

// Compiled programs are kept small enough that the executor's recursion over
// them stays well inside a small thread stack. Only this file instantiates
// the engine for its own traits type, so the limit applies to it alone.
#define _GLIBCXX_REGEX_STATE_LIMIT 4000

#include "RegExEngine.h"

#include "QXCommon/QXRegEx.h"
#include "QXLog.h"

#include <climits>
#include <optional>
#include <regex>

namespace QXCommon::RegExHelpers
{
namespace Detail
{
namespace
{
constexpr long long UnlimitedSteps = LLONG_MAX;
constexpr long long LinearStepBudget = 10'000'000;
constexpr long long BacktrackingStepBudget = 2'000'000;

thread_local long long t_stepsLeft = UnlimitedSteps;
thread_local int t_lastRunError = 0;

// Case folding as the standard traits do it, with an ASCII fast path, and a
// step charged for every call.
struct BoundedTraits : std::regex_traits<wchar_t>
{
    wchar_t translate_nocase(wchar_t c) const
    {
        if (--t_stepsLeft < 0)
            throw std::regex_error(std::regex_constants::error_complexity);
        if (c < 0x80)
            return (c >= L'A' && c <= L'Z') ? static_cast<wchar_t>(c + (L'a' - L'A')) : c;
        return std::regex_traits<wchar_t>::translate_nocase(c);
    }
};

using BoundedRegex = std::basic_regex<wchar_t, BoundedTraits>;

// Sets the thread's step budget for one match and lifts it afterwards.
struct StepBudget
{
    explicit StepBudget(long long steps) { t_stepsLeft = steps; }
    ~StepBudget() { t_stepsLeft = UnlimitedSteps; }
    StepBudget(const StepBudget&) = delete;
    StepBudget& operator=(const StepBudget&) = delete;
};

// Length and group nesting, checked before the compiler sees the text.
bool WithinTextLimits(const std::wstring& expression)
{
    if (expression.size() > MaxExpressionLength)
        return false;
    size_t depth = 0;
    bool inBracket = false;
    for (size_t i = 0; i < expression.size(); ++i)
    {
        wchar_t c = expression[i];
        if (c == L'\\')
        {
            ++i;
            continue;
        }
        if (inBracket)
        {
            if (c == L']')
                inBracket = false;
            continue;
        }
        if (c == L'[')
            inBracket = true;
        else if (c == L'(' && ++depth > MaxGroupNesting)
            return false;
        else if (c == L')' && depth > 0)
            --depth;
    }
    return true;
}

constexpr auto CompileFlags = std::regex_constants::ECMAScript | std::regex_constants::icase;
} // namespace

struct CompiledRegEx
{
    MatchMode mode = MatchMode::Search;
    bool backtracking = false;
    // Linear: the expression itself (whole match) or wrapped for a search.
    // Backtracking: the expression itself.
    BoundedRegex program;
};

int ExplodedErrorCode() { return static_cast<int>(std::regex_constants::error_complexity); }

int LastRunError() { return t_lastRunError; }

int Compile(const std::wstring& expression, MatchMode mode, std::shared_ptr<const CompiledRegEx>& compiled)
{
    compiled.reset();
    if (!WithinTextLimits(expression))
        return static_cast<int>(std::regex_constants::error_complexity);

    auto result = std::make_shared<CompiledRegEx>();
    result->mode = mode;
    try
    {
        // Validates the text as it stands (wrapping alone could hide an
        // unbalanced parenthesis) and, in polynomial mode, refuses
        // back-references.
        BoundedRegex probe(expression, CompileFlags | std::regex_constants::__polynomial);
        if (mode == MatchMode::Whole)
            result->program = std::move(probe);
        else
            result->program.assign(L"[\\s\\S]*(?:" + expression + L")[\\s\\S]*",
                                   CompileFlags | std::regex_constants::__polynomial);
    }
    catch (const std::regex_error& e)
    {
        if (e.code() != std::regex_constants::error_complexity)
            return static_cast<int>(e.code());
        // Polynomial mode refuses back-references: compile for the
        // backtracking executor instead.
        try
        {
            result->program.assign(expression, CompileFlags);
            result->backtracking = true;
        }
        catch (const std::regex_error& e2)
        {
            return static_cast<int>(e2.code());
        }
    }
    compiled = std::move(result);
    return 0;
}

RunResult Run(const CompiledRegEx& compiled, const std::wstring& text, int& errorCode)
{
    errorCode = 0;
    t_lastRunError = 0;
    try
    {
        bool matched;
        if (compiled.backtracking)
        {
            if (text.size() > MaxBacktrackingSubject)
            {
                errorCode = t_lastRunError = static_cast<int>(std::regex_constants::error_stack);
                return RunResult::Failed;
            }
            StepBudget budget(BacktrackingStepBudget);
            matched = compiled.mode == MatchMode::Whole ? std::regex_match(text, compiled.program)
                                                        : std::regex_search(text, compiled.program);
        }
        else
        {
            StepBudget budget(LinearStepBudget);
            matched = std::regex_match(text, compiled.program);
        }
        return matched ? RunResult::Match : RunResult::NoMatch;
    }
    catch (const std::regex_error& e)
    {
        errorCode = t_lastRunError = static_cast<int>(e.code());
        return RunResult::Failed;
    }
}
} // namespace Detail

std::wstring EscapeRegExMetaCharacters(const std::wstring& text)
{
    // One pass gives the same text as replacing each metacharacter in turn,
    // backslash first: every metacharacter of the input gets one backslash.
    static const std::wstring_view metaCharacters = L"\\.[]^-?+(){}$|!*";
    std::wstring escaped;
    escaped.reserve(text.size() * 2);
    for (wchar_t c : text)
    {
        if (metaCharacters.find(c) != std::wstring_view::npos)
            escaped.push_back(L'\\');
        escaped.push_back(c);
    }
    return escaped;
}

std::wstring GlobToRegExPattern(const std::wstring& glob)
{
    std::wstring escaped = EscapeRegExMetaCharacters(glob);
    std::wstring pattern;
    pattern.reserve(escaped.size() + 8);
    pattern.push_back(L'^');
    for (size_t i = 0; i < escaped.size(); ++i)
    {
        if (escaped[i] == L'\\' && i + 1 < escaped.size())
        {
            wchar_t next = escaped[i + 1];
            if (next == L'?')
                pattern.push_back(L'.');
            else if (next == L'*')
                pattern.append(L".*");
            else
            {
                pattern.push_back(L'\\');
                pattern.push_back(next);
            }
            ++i;
            continue;
        }
        pattern.push_back(escaped[i]);
    }
    pattern.push_back(L'$');
    return pattern;
}
} // namespace QXCommon::RegExHelpers

namespace
{
// Samples of ValidateRegularExpressionEx, by bit.
struct Sample
{
    unsigned int bit;
    const wchar_t* text;
};
constexpr Sample Samples[] = {
    {QX_REGEX_SAMPLE_EMPTY, L""},
    {QX_REGEX_SAMPLE_FILE_PATH, L"c:\\windows\\system32\\calc.exe"},
    {QX_REGEX_SAMPLE_FOLDER, L"c:\\windows\\system32\\"},
    {QX_REGEX_SAMPLE_COMPUTER_NAME, L"WKSTN07"},
    {QX_REGEX_SAMPLE_UNC_SHARE, L"\\\\fileserver1\\public"},
    {QX_REGEX_SAMPLE_WEB_HOST, L"www.example.com.au"},
    {QX_REGEX_SAMPLE_IPV4_ADDRESS, L"192.168.1.1"},
};
// Each kind's sample has its settled length.
constexpr size_t SampleLengths[] = {0, 28, 20, 7, 20, 18, 11};
constexpr bool SamplesHaveTheirLengths()
{
    for (size_t i = 0; i < sizeof Samples / sizeof Samples[0]; ++i)
        if (std::char_traits<wchar_t>::length(Samples[i].text) != SampleLengths[i])
            return false;
    return true;
}
static_assert(SamplesHaveTheirLengths());
} // namespace

bool ValidateRegularExpression(const wchar_t* expression, int* errorCode)
{
    if (expression == nullptr || errorCode == nullptr)
    {
        QXLOG_ERROR("ValidateRegularExpression", L"Invalid parameter\n");
        if (errorCode != nullptr)
            *errorCode = 0;
        return false;
    }
    QXCommon::RegExHelpers::CQXRegEx regex;
    bool parsed = regex.Parse(expression);
    *errorCode = regex.GetLastRxErrorCode();
    return parsed;
}

bool ValidateRegularExpressionEx(const wchar_t* expression, unsigned int sampleMask, int* errorCode)
{
    if (expression == nullptr || errorCode == nullptr)
    {
        QXLOG_ERROR("ValidateRegularExpressionEx", L"Invalid parameter\n");
        if (errorCode != nullptr)
            *errorCode = 0;
        return false;
    }
    QXCommon::RegExHelpers::CQXRegEx regex;
    if (!regex.Parse(expression))
    {
        *errorCode = regex.GetLastRxErrorCode();
        return false;
    }
    *errorCode = 0;
    for (const Sample& sample : Samples)
    {
        if ((sampleMask & sample.bit) == 0)
            continue;
        std::wstring text = sample.text;
        DWORD start = GetTickCount();
        regex.Match(text);
        DWORD elapsed = GetTickCount() - start;
        // A match the engine stopped for exploding counts as too slow: it
        // would have taken longer than the budget allowed.
        if (elapsed > 100 || QXCommon::RegExHelpers::Detail::LastRunError() ==
                                 QXCommon::RegExHelpers::Detail::ExplodedErrorCode())
        {
            QXLOG_ERROR("ValidateRegularExpressionEx",
                        L"Regular Expression [ {} ] takes too long to match [ {} ] ({} ms)\n", expression, text,
                        elapsed);
            *errorCode = QX_REGEX_ERROR_TOO_SLOW;
            return false;
        }
    }
    return true;
}
