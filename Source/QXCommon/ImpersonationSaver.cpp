// The impersonation guard, and the capture of the thread's token that it
// restores (CQxAccessToken, declared in its own header).

#include "QXCommon/ImpersonationSaver.h"

#include "QXLog.h"

namespace QXCommon
{
bool CQxAccessToken::GetCurrentTokenForImpersonation()
{
    const char* const function = "QXCommon::CQxAccessToken::GetCurrentTokenForImpersonation";
    Clear();

    // Probe as the thread itself first; the probe also tells the token's type.
    BOOL openAsSelf = FALSE;
    HANDLE probeHandle = nullptr;
    if (!::OpenThreadToken(::GetCurrentThread(), TOKEN_QUERY, FALSE, &probeHandle))
    {
        const DWORD error = ::GetLastError();
        if (error == ERROR_NO_TOKEN)
            return true; // not impersonating: nothing to capture
        QXLOG_ERROR(function, L"Error Failed to GetThreadToken Error[{}]. Trying as self...\n", error);
        if (!::OpenThreadToken(::GetCurrentThread(), TOKEN_QUERY, TRUE, &probeHandle))
        {
            const DWORD selfError = ::GetLastError();
            QXLOG_ERROR(function, L"Failed to GetThreadToken() as the current process. Error: {}\n", selfError);
            ::SetLastError(selfError);
            return false;
        }
        openAsSelf = TRUE;
    }
    ATL::CHandle probe(probeHandle);

    TOKEN_TYPE type = TokenPrimary;
    DWORD length = 0;
    if (!::GetTokenInformation(probe, TokenType, &type, sizeof(type), &length))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Error Failed to GetType Error[{}]\n", error);
        ::SetLastError(error);
        return false;
    }

    // Reopen with the rights that impersonating the token again needs.
    DWORD access = 0;
    const wchar_t* failure = nullptr;
    if (type == TokenImpersonation)
    {
        access = TOKEN_IMPERSONATE | TOKEN_QUERY;
        failure = L"Error Failed to GetThreadToken impersonate Error[{}].\n";
    }
    else if (type == TokenPrimary)
    {
        access = TOKEN_DUPLICATE | TOKEN_QUERY;
        failure = L"Error Failed to GetThreadToken primary Error[{}].\n";
    }
    else
    {
        QXLOG_ERROR(function, L"Error Failed to GetThreadToken. unknown type Error[{}]\n", static_cast<int>(type));
        ::SetLastError(ERROR_INVALID_DATA);
        return false;
    }
    if (!GetThreadToken(access, nullptr, openAsSelf != FALSE))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, failure, error);
        ::SetLastError(error);
        return false;
    }
    return true;
}

namespace
{
// Makes the calling thread impersonate at anonymous level, from the process's
// own token: the thread then acts as no one (an anonymous-level token can be
// neither opened nor used to open anything), as it did before.
bool ImpersonateAtAnonymousLevel()
{
    ATL::CAccessToken process;
    if (!process.GetProcessToken(TOKEN_DUPLICATE))
        return false;
    HANDLE duplicate = nullptr;
    if (!::DuplicateToken(process.GetHandle(), SecurityAnonymous, &duplicate))
        return false;
    ATL::CHandle anonymous(duplicate);
    return ::SetThreadToken(nullptr, anonymous) != FALSE;
}
} // namespace

CImpersonationSaver::CImpersonationSaver() : impersonationOccurred(true), occurredWasSet(false)
{
    if (savedToken.GetCurrentTokenForImpersonation())
        return;
    const DWORD error = ::GetLastError();
    if (error == ERROR_CANT_OPEN_ANONYMOUS)
        anonymous = true;
    else
        captureError = error != ERROR_SUCCESS ? error : static_cast<DWORD>(ERROR_GEN_FAILURE);
}

CImpersonationSaver::~CImpersonationSaver()
{
    const char* const function = "QXCommon::CImpersonationSaver::~CImpersonationSaver";
    if (!impersonationOccurred)
    {
        QXLOG_INFO(function, L"Not reverting as no impersonation occurred.\n");
        return;
    }
    if (captureError != 0)
    {
        // Reverting would leave the thread acting as the process.
        QXLOG_ERROR(function, L"Not reverting as the impersonation state was not saved [{}].\n", captureError);
        return;
    }
    if (!::RevertToSelf())
        QXLOG_ERROR(function, L"ERROR Failed to RevertToSelf [{}]\n", ::GetLastError());
    if (anonymous)
    {
        if (ImpersonateAtAnonymousLevel())
            QXLOG_INFO(function, L"Reverted back to anonymous impersonation\n");
        else
            QXLOG_ERROR(function, L"ERROR Failed to revert to anonymous impersonation. Error[{}]\n", ::GetLastError());
        return;
    }
    if (savedToken.GetHandle() == nullptr)
        return;
    QXLOG_INFO(function, L"Reveting back to saved impersonation state\n");
    if (savedToken.ImpersonateLoggedOnUser())
        QXLOG_INFO(function, L"Succeeded to revert with ImpersonateLoggedOnUser. Error[{}]\n", ::GetLastError());
    else
        QXLOG_ERROR(function, L"ERROR Failed to Revert with ImpersonateLoggedOnUser. Error[{}]\n", ::GetLastError());
}

void CImpersonationSaver::SetImpersonationOccurred(int occurred)
{
    if (!occurredWasSet)
        impersonationOccurred = occurred == 1;
    else if (occurred != 0)
        impersonationOccurred = true;
    occurredWasSet = true;
}
} // namespace QXCommon
