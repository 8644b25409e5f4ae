#pragma once
// GlobWildcardString: a glob (* and ? wildcards, a star spanning separators)
// compiled once into a case-insensitive expression and matched against whole
// texts.

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
    // True only when an expression is held and the whole text matches it.
    bool Match(const std::wstring& text) const;
    bool IsEmpty() const { return !m_regex; }

private:
    std::shared_ptr<const Detail::CompiledRegEx> m_regex;
};
} // namespace QXCommon::RegExHelpers
