#include "QXCommon/FunctionTrace.h"

#include "QXLog.h"

#include <exception>

namespace QXCommon
{
CFunctionTrace::CFunctionTrace(const char* sourceFile, const char* functionName)
    : m_sourceFile(sourceFile), m_functionName(functionName)
{
    CQXDbgManager* manager = GetDbgManager();
    if (manager->GetLogEnabled())
        manager->Log(m_sourceFile, 0, m_functionName, 1, Detail::LogLevelInfo, L"ENTER\n", nullptr);
}

CFunctionTrace::~CFunctionTrace()
{
    CQXDbgManager* manager = GetDbgManager();
    if (manager->GetLogEnabled())
    {
        const wchar_t* text = std::uncaught_exceptions() != 0 ? L"EXCEPTION EXIT\n" : L"EXIT\n";
        manager->Log(m_sourceFile, 0, m_functionName, 1, Detail::LogLevelInfo, text, nullptr);
    }
}
} // namespace QXCommon
