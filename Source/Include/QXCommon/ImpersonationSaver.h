#pragma once
// CImpersonationSaver: scope guard around work that changes the calling
// thread's impersonation. It captures the token the thread impersonates when
// it is made; on destruction it reverts the thread to itself and, when a token
// was captured, impersonates that token again, so that the thread ends up
// impersonating exactly what it impersonated before (or nothing).
//
// The owner reports with SetImpersonationOccurred whether its own
// impersonation happened. A guard that is never told reverts; one told "no"
// leaves the thread as it finds it at destruction. Impersonation belongs to
// one thread: make, tell and destroy the guard on the same thread.
//
// An anonymous-level impersonation cannot be opened by anyone, so it is
// recorded as such and put back as an anonymous-level impersonation (of the
// process's token, which at that level carries no identity that can be used).
// When the thread's token can be neither captured nor put back (it cannot be
// opened for another reason), GetCaptureError says why: the owner must then
// refuse its work before it changes the thread, and the guard leaves the
// thread alone at destruction, since reverting would make it act as the
// process.
//
//   CImpersonationSaver saver;
//   if (saver.GetCaptureError() != 0) return ...;   // refuse, thread untouched
//   saver.SetImpersonationOccurred(::ImpersonateNamedPipeClient(pipe));
//   ... work as the client ...
//   // leaving the scope restores the thread's previous impersonation

#include "QXCommonAPI.h"
#include "QxAccessToken.h"

namespace QXCommon
{
class QXCOMMON_API CImpersonationSaver
{
public:
    CImpersonationSaver();
    ~CImpersonationSaver();
    CImpersonationSaver(const CImpersonationSaver&) = delete;
    CImpersonationSaver& operator=(const CImpersonationSaver&) = delete;

    // Whether the owner's impersonation took place. The first call counts a
    // value of exactly 1 (TRUE) as "yes" and anything else as "no"; later
    // calls turn "no" into "yes" on any non-zero value and never back.
    void SetImpersonationOccurred(int occurred);

    // 0 when what the thread impersonated at construction (a token, an
    // anonymous-level impersonation or nothing) was captured and will be put
    // back; otherwise the error that stopped the capture.
    DWORD GetCaptureError() const { return captureError; }

private:
    bool impersonationOccurred; // revert on destruction
    bool occurredWasSet;        // SetImpersonationOccurred has been called
    CQxAccessToken savedToken;  // the thread's token when the guard was made (empty: none)
    bool anonymous = false;     // the thread impersonated at anonymous level
    DWORD captureError = 0;     // the thread's token could not be captured
};
} // namespace QXCommon
