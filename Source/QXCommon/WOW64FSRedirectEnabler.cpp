#include "QXCommon/WOW64FSRedirectEnabler.h"

#include "QXCommon/QXCommonFunctions.h"
#include "QXLog.h"

namespace QXCommon
{
CWOW64FSRedirectEnabler::CWOW64FSRedirectEnabler() : enabledByUs(false), fsRedirectionWasEnabled(0)
{
    const DWORD self = ::GetCurrentProcessId();
    fsRedirectionWasEnabled =
        QXCommonFunctions::IsWow64(self) ? (QXCommonFunctions::IsWow64FSRedirectionEnabled() ? 1 : 0) : 0;

    if (QXCommonFunctions::IsWow64(self) && fsRedirectionWasEnabled == 0)
    {
        QXLOG_INFO("QXCommon::CWOW64FSRedirectEnabler::CWOW64FSRedirectEnabler",
                   L"WOW64 Process with FS Redirection Disabled - Trying to re-enable\n");
        if (!QXCommonFunctions::QXWow64EnableWow64FsRedirection(TRUE))
        {
            QXLOG_ERROR("QXCommon::CWOW64FSRedirectEnabler::CWOW64FSRedirectEnabler",
                        L"-Failed to re-enable FS Redirection, Error:({})\n", ::GetLastError());
        }
        else
        {
            enabledByUs = true;
        }
    }
}

CWOW64FSRedirectEnabler::~CWOW64FSRedirectEnabler()
{
    RevertToOriginalState();
}

int CWOW64FSRedirectEnabler::FSRedirectionWasEnabled() const
{
    return fsRedirectionWasEnabled;
}

void CWOW64FSRedirectEnabler::RevertToOriginalState()
{
    if (!enabledByUs)
        return;
    QXLOG_INFO("QXCommon::CWOW64FSRedirectEnabler::RevertToOriginalState",
               L"FS Redirection enabled by us - Trying to disable again\n");
    QXCommonFunctions::QXWow64EnableWow64FsRedirection(FALSE);
    enabledByUs = false;
}
} // namespace QXCommon
