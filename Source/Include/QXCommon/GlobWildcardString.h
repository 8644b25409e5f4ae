#pragma once
// GlobWildcardString: a glob (* and ? wildcards, a star spanning separators)
// compiled once into a case-insensitive expression and matched against whole
// texts. Characters outside ASCII, and NULs, stand for themselves.

#include "QXCommonAPI.h"
#include "RegExHelpers.h"

#include <memory>
#include <string>

namespace QXCommon::RegExHelpers
{
class QXCOMMON_API GlobWildcardString
{
public:
    GlobWildcardString() = default;
    GlobWildcardString(const GlobWildcardString&) = default;
    GlobWildcardString(GlobWildcardString&&) noexcept = default;
    GlobWildcardString& operator=(const GlobWildcardString&) = default;
    GlobWildcardString& operator=(GlobWildcardString&&) noexcept = default;
    ~GlobWildcardString() = default;

    // Drops the held expression.
    void Empty();
    // Replaces the held expression by the glob's; an empty glob leaves the
    // object empty and returns true. False when the glob cannot be compiled.
    bool Parse(const std::wstring& glob);
    // True only when an expression is held and the whole text matches it;
    // false too when the match spent its budget (see QXRegEx.h).
    bool Match(const std::wstring& text) const;
    // The same, telling the budget error apart: 0 with matched set to the
    // answer, or QX_REGEX_ERROR_BUDGET with matched false.
    int TryMatch(const std::wstring& text, bool& matched) const;
    bool IsEmpty() const { return !m_regex; }

private:
    std::shared_ptr<const Detail::CompiledRegEx> m_regex;
};
} // namespace QXCommon::RegExHelpers
