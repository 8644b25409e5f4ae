// CQXRegEx: a case-insensitive ECMAScript expression searched for in texts,
// on the library's bounded engine (RegExHelpers.cpp).

#include "QXCommon/QXRegEx.h"

#include "QXLog.h"
#include "RegExEngine.h"

namespace QXCommon::RegExHelpers
{
bool CQXRegEx::Parse(const std::wstring& expression)
{
    m_regex.reset();
    m_lastError = 0;
    if (expression.empty())
        return true;
    m_lastError = Detail::Compile(expression, Detail::MatchMode::Search, m_regex);
    return m_regex != nullptr;
}

bool CQXRegEx::Match(const std::wstring& text) const
{
    if (!m_regex)
        return false;
    int error = 0;
    Detail::RunResult result = Detail::Run(*m_regex, text, error);
    if (result == Detail::RunResult::Failed)
    {
        QXLOG_ERROR("QXCommon::RegExHelpers::CQXRegEx::Match", L"Regex Match Failed, error {}", error);
        return false;
    }
    return result == Detail::RunResult::Match;
}
} // namespace QXCommon::RegExHelpers
