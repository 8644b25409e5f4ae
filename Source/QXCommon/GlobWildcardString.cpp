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

bool GlobWildcardString::Match(const std::wstring& text) const
{
    if (!m_regex)
        return false;
    int error = 0;
    Detail::RunResult result = Detail::Run(*m_regex, text, error);
    if (result == Detail::RunResult::Failed)
    {
        QXLOG_ERROR("QXCommon::RegExHelpers::GlobWildcardString::Match", L"Regex Match Failed, error {}", error);
        return false;
    }
    return result == Detail::RunResult::Match;
}
} // namespace QXCommon::RegExHelpers
