#pragma once
// CWOW64FSRedirectEnabler: scope guard for a 32-bit process on 64-bit Windows
// that turns file-system redirection back on for its lifetime when the
// calling thread had it off, and turns it off again on destruction. In a
// 64-bit process it does nothing. Acts on the calling thread: destroy it on
// the thread that made it.

#include "QXCommonAPI.h"

namespace QXCommon
{
class QXCOMMON_API CWOW64FSRedirectEnabler
{
public:
    CWOW64FSRedirectEnabler();
    ~CWOW64FSRedirectEnabler();
    CWOW64FSRedirectEnabler(const CWOW64FSRedirectEnabler&) = delete;
    CWOW64FSRedirectEnabler& operator=(const CWOW64FSRedirectEnabler&) = delete;

    // Non-zero when redirection was on when the object was made (0 outside WOW64).
    int FSRedirectionWasEnabled() const;
    // Turns redirection off again if this object turned it on.
    void RevertToOriginalState();

private:
    bool enabledByUs;
    int fsRedirectionWasEnabled;
};
} // namespace QXCommon
