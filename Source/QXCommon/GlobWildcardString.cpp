// GlobWildcardString: a glob compiled into an anchored, case-insensitive
// expression (GlobToRegExPattern) and matched against whole texts.

#include "QXCommon/GlobWildcardString.h"

#include "QXLog.h"
#include "RegExEngine.h"

namespace QXCommon::RegExHelpers
{
void GlobWildcardString::Empty() { m_regex.reset(); }

bool GlobWildcardString::Parse(const std::wstring& glob)
{
    m_regex.reset();
    if (glob.empty())
        return true;
    int error = Detail::Compile(GlobToRegExPattern(glob), Detail::MatchMode::Whole, m_regex);
    if (m_regex == nullptr)
    {
        QXLOG_ERROR("QXCommon::RegExHelpers::GlobWildcardString::Parse", L"Cannot compile glob [{}] - error {}\n",
                    glob, error);
        return false;
    }
    return true;
}

int GlobWildcardString::TryMatch(const std::wstring& text, bool& matched) const
{
    return Detail::TryMatch(m_regex, text, matched);
}

bool GlobWildcardString::Match(const std::wstring& text) const
{
    bool matched = false;
    int error = TryMatch(text, matched);
    if (error != 0)
    {
        QXLOG_ERROR("QXCommon::RegExHelpers::GlobWildcardString::Match", L"Regex Match Failed, error {}", error);
        return false;
    }
    return matched;
}
} // namespace QXCommon::RegExHelpers
