#pragma once
// CQXRegEx: a case-insensitive ECMAScript regular expression, compiled once
// and searched for in texts. Matching is bounded: expressions without
// back-references run on a breadth-first executor (time linear in the text,
// stack independent of it); expressions with back-references run with a
// step budget on texts of at most 256 characters.

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
    // True when the expression matches somewhere in the text.
    bool Match(const std::wstring& text) const;
    // The error code of the last Parse (0 when none).
    int GetLastRxErrorCode() const { return m_lastError; }
    bool IsEmpty() const { return !m_regex; }

private:
    std::shared_ptr<const Detail::CompiledRegEx> m_regex;
    int m_lastError = 0;
};
} // namespace QXCommon::RegExHelpers
