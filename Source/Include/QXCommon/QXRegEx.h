#pragma once
// CQXRegEx: a case-insensitive ECMAScript regular expression, compiled once
// and searched for in texts.
//
// What an expression means depends on its text alone: every character
// outside ASCII stands for itself (never for a metacharacter), counts and
// back-references take ASCII digits only, and case is folded the same way on
// every thread. A NUL in the expression or the text is an ordinary character.
//
// Matching is bounded. A match spends at most a fixed budget of steps (state
// visits and character comparisons) and, for expressions with
// back-references, at most 5 MiB of backtracking state; it returns the
// ECMAScript answer, or, when the budget is spent first, the budget error
// QX_REGEX_ERROR_BUDGET. It is never a "no match" that the expression would
// not give. The bound: any accepted expression on any text of up to 32,767
// characters ends within 100 ms on the reference machine (2 shared cores,
// under Wine; worst case measured 84 ms under load, qxbench
// patterns.regex-bound). Without back-references an answer costs at most
// (text length + 1) x (automaton size) steps and a search stops at its first
// match, so typical rule expressions answer such a text in about a
// millisecond; expressions that keep hundreds of states live over the whole
// text, lookaheads that scan to the end at every position, and exploding
// back-references get the budget error instead.
// Stack use does not grow with the text or the expression.

#include "QXCommonAPI.h"
#include "RegExHelpers.h"

#include <memory>
#include <string>

namespace QXCommon::RegExHelpers
{
class QXCOMMON_API CQXRegEx
{
public:
    CQXRegEx() = default;
    CQXRegEx(const CQXRegEx&) = default;
    CQXRegEx(CQXRegEx&&) noexcept = default;
    CQXRegEx& operator=(const CQXRegEx&) = default;
    CQXRegEx& operator=(CQXRegEx&&) noexcept = default;
    ~CQXRegEx() = default;

    // Compiles the expression. An empty expression returns true and holds
    // nothing. On a compile error the error code is kept and false returned.
    bool Parse(const std::wstring& expression);
    // True when the expression matches somewhere in the text. False when no
    // expression is held, and when the match spent its budget (logged as
    // "Regex Match Failed, error 11").
    bool Match(const std::wstring& text) const;
    // The same search, telling the budget error apart: 0 with matched set to
    // the answer, or QX_REGEX_ERROR_BUDGET with matched false.
    int TryMatch(const std::wstring& text, bool& matched) const;
    // The error code of the last Parse (0 when none).
    int GetLastRxErrorCode() const { return m_lastError; }
    bool IsEmpty() const { return !m_regex; }

private:
    std::shared_ptr<const Detail::CompiledRegEx> m_regex;
    int m_lastError = 0;
};
} // namespace QXCommon::RegExHelpers
