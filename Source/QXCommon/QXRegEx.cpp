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

int CQXRegEx::TryMatch(const std::wstring& text, bool& matched) const
{
    return Detail::TryMatch(m_regex, text, matched);
}

bool CQXRegEx::Match(const std::wstring& text) const
{
    bool matched = false;
    int error = TryMatch(text, matched);
    if (error != 0)
    {
        QXLOG_ERROR("QXCommon::RegExHelpers::CQXRegEx::Match", L"Regex Match Failed, error {}", error);
        return false;
    }
    return matched;
}
} // namespace QXCommon::RegExHelpers
