#pragma once
// Scope trace: logs "ENTER\n" when a traced function starts and "EXIT\n" when
// it returns, or "EXCEPTION EXIT\n" when an exception unwinds it. Both are
// level-4 lines with line number 0, written only while logging is on.
//
//   void CFoo::Bar()
//   {
//       QXCommon::CFunctionTrace trace("Source/QXCommon/Foo.cpp", "QXCommon::CFoo::Bar");
//       ...
//   }

#include "QXCommonAPI.h"

namespace QXCommon
{
class QXCOMMON_API CFunctionTrace
{
public:
    // Both texts must outlive the object (string literals in practice).
    CFunctionTrace(const char* sourceFile, const char* functionName);
    ~CFunctionTrace();
    CFunctionTrace(const CFunctionTrace&) = delete;
    CFunctionTrace& operator=(const CFunctionTrace&) = delete;

private:
    const char* m_sourceFile;
    const char* m_functionName;
};
} // namespace QXCommon
