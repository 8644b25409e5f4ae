// Free functions: tokens of processes and threads, SIDs in text form, the
// system's elevation check, elevation and group membership of a token.
//
// The access rights below are fixed: callers hand the tokens on, and a token
// opened with fewer rights makes them fail later.

#include "QXCommon/QXCommonFunctions.h"

#include "QXLog.h"
#include "TokenDetail.h"

#include <sddl.h>

#include <mutex>

namespace QXCommonFunctions
{
namespace
{
using QXCommon::Detail::FailWith;
using QXCommon::Detail::LocalPtr;

constexpr DWORD AttachTokenAccess = TOKEN_DUPLICATE | TOKEN_IMPERSONATE | TOKEN_QUERY; // 0xE
constexpr DWORD PrimaryTokenAccess = TOKEN_DUPLICATE | TOKEN_QUERY;                    // 0xA

const wchar_t* const UrmGroupSid = L"S-1-5-21-612037418-213544074-8-1-0-0";

// The Attach functions fill only an empty token object.
BOOL RefuseAttachedToken(const ATL::CAccessToken& token, const char* function)
{
    if (token.GetHandle() == nullptr)
        return FALSE;
    QXLOG_ERROR(function, L"Supplied Access Token was already attached to a handle.\n");
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return TRUE;
}

// The process's primary token with the Attach access, the process handle
// closed again. Null (logged, error kept) on failure.
HANDLE OpenPrimaryTokenForAttach(DWORD processId, const char* function)
{
    ATL::CHandle process(::OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, processId));
    if (process == nullptr)
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"OpenProcess({}) failed (Error {}).\n", processId, error);
        FailWith(error);
        return nullptr;
    }
    HANDLE token = nullptr;
    if (!::OpenProcessToken(process, AttachTokenAccess, &token))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"OpenProcessToken failed (Error {}).\n", error);
        FailWith(error);
        return nullptr;
    }
    return token;
}

using CheckElevationFn = DWORD(WINAPI*)(LPCWSTR, PDWORD, HANDLE, PDWORD, PDWORD);

// kernel32's CheckElevation, resolved once per process (null where the
// system has none). The module stays loaded for the life of the process.
CheckElevationFn CheckElevationRoutine()
{
    static std::once_flag once;
    static CheckElevationFn routine = nullptr;
    std::call_once(once, [] {
        HMODULE kernel32 = ::LoadLibraryW(L"kernel32.dll");
        if (kernel32 != nullptr)
            routine = reinterpret_cast<CheckElevationFn>(
                reinterpret_cast<void*>(::GetProcAddress(kernel32, "CheckElevation")));
    });
    return routine;
}
} // namespace

BOOL AttachAtlAccessTokenToPrimaryTokenFromProcessId(ATL::CAccessToken& token, DWORD processId)
{
    const char* const function = "QXCommonFunctions::AttachAtlAccessTokenToPrimaryTokenFromProcessId";
    if (RefuseAttachedToken(token, function))
        return FALSE;
    HANDLE primary = OpenPrimaryTokenForAttach(processId, function);
    if (primary == nullptr)
        return FALSE;
    token.Attach(primary);
    return TRUE;
}

BOOL AttachAtlAccessTokenToImpersonationTokenFromProcessId(ATL::CAccessToken& token, DWORD processId)
{
    const char* const function = "QXCommonFunctions::AttachAtlAccessTokenToImpersonationTokenFromProcessId";
    if (RefuseAttachedToken(token, function))
        return FALSE;
    ATL::CHandle primary(OpenPrimaryTokenForAttach(processId, function));
    if (primary == nullptr)
        return FALSE;
    HANDLE impersonation = nullptr;
    if (!::DuplicateToken(primary, SecurityImpersonation, &impersonation))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Error, Access Token can't have a impersonate token created\n");
        return FailWith(error);
    }
    token.Attach(impersonation);
    return TRUE;
}

BOOL AttachAtlAccessTokenToTokenFromThreadId(ATL::CAccessToken& token, DWORD threadId)
{
    const char* const function = "QXCommonFunctions::AttachAtlAccessTokenToTokenFromThreadId";
    if (RefuseAttachedToken(token, function))
        return FALSE;
    ATL::CHandle thread(::OpenThread(THREAD_QUERY_INFORMATION, FALSE, threadId));
    if (thread == nullptr)
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"OpenThread({}) failed (Error {}).\n", threadId, error);
        return FailWith(error);
    }
    HANDLE threadToken = nullptr;
    if (!::OpenThreadToken(thread, AttachTokenAccess, TRUE, &threadToken))
    {
        const DWORD error = ::GetLastError();
        if (error == ERROR_NO_TOKEN)
            QXLOG_ERROR(function, L"The thread does not have a token to open.\n");
        else
            QXLOG_ERROR(function, L"OpenThreadToken failed (Error {}).\n", error);
        return FailWith(error);
    }
    token.Attach(threadToken);
    return TRUE;
}

BOOL ObtainPrimaryTokenFromProcessOrThread(DWORD processId, DWORD threadId, ATL::CAccessToken& token)
{
    const char* const function = "QXCommonFunctions::ObtainPrimaryTokenFromProcessOrThread";
    ATL::CHandle process(::OpenProcess(PROCESS_ALL_ACCESS, FALSE, processId));
    if (process == nullptr)
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"OpenProcess({}) failed (Error {}).\n", processId, error);
        return FailWith(error);
    }
    ATL::CHandle thread(::OpenThread(THREAD_QUERY_INFORMATION, FALSE, threadId));
    if (thread == nullptr)
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"OpenThread({}) failed (Error {}).\n", threadId, error);
        return FailWith(error);
    }

    HANDLE threadTokenHandle = nullptr;
    if (::OpenThreadToken(thread, PrimaryTokenAccess, TRUE, &threadTokenHandle))
    {
        // The thread impersonates: its identity becomes a primary token.
        ATL::CHandle threadToken(threadTokenHandle);
        HANDLE primary = nullptr;
        if (!::DuplicateTokenEx(threadToken, PrimaryTokenAccess, nullptr, SecurityAnonymous, TokenPrimary, &primary))
        {
            const DWORD error = ::GetLastError();
            QXLOG_ERROR(function, L"Creating a primary token for thread token on thread ({}) failed (Error {}).\n",
                        threadId, error);
            return FailWith(error);
        }
        token.Attach(primary);
        return TRUE;
    }

    const DWORD threadError = ::GetLastError();
    if (threadError != ERROR_NO_TOKEN)
    {
        QXLOG_ERROR(function, L"OpenToken on thread ({}) failed (Error {}).\n", threadId, threadError);
        return FailWith(threadError);
    }
    // Not impersonating: the thread acts as its process.
    HANDLE processToken = nullptr;
    if (!::OpenProcessToken(process, PrimaryTokenAccess, &processToken))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"OpenToken on process ({}) failed (Error {}).\n", processId, error);
        return FailWith(error);
    }
    token.Attach(processToken);
    return TRUE;
}

BOOL ConvertStringSidToATLSidW(const wchar_t* sidText, ATL::CSid& sid)
{
    if (sidText == nullptr)
    {
        QXLOG_ERROR("QXCommonFunctions::ConvertStringSidToATLSidW", L"Failed to Convert SID [{}]. Error [{}].\n",
                    sidText, static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        return FailWith(ERROR_INVALID_PARAMETER);
    }
    PSID converted = nullptr;
    if (!::ConvertStringSidToSidW(sidText, &converted))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR("QXCommonFunctions::ConvertStringSidToATLSidW", L"Failed to Convert SID [{}]. Error [{}].\n",
                    sidText, error);
        return FailWith(error);
    }
    LocalPtr<void> owner(converted);
    sid = *static_cast<const SID*>(converted);
    return sid.IsValid() ? TRUE : FALSE;
}

DWORD CheckElevation(const std::wstring& path)
{
    CheckElevationFn routine = CheckElevationRoutine();
    if (routine == nullptr || path.empty())
        return 0;
    DWORD flags = 0;
    DWORD runLevel = 0;
    DWORD reason = 0;
    routine(path.c_str(), &flags, nullptr, &runLevel, &reason);
    return runLevel;
}

bool IsRestrictedOrFullAdmin(HANDLE token)
{
    TOKEN_ELEVATION_TYPE type = TokenElevationTypeDefault;
    DWORD length = 0;
    if (!::GetTokenInformation(token, TokenElevationType, &type, sizeof(type), &length))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR("QXCommonFunctions::IsRestrictedOrFullAdmin", L"Failed to GetTokenInformation. Error: {}", error);
        FailWith(error);
        return false;
    }
    return type == TokenElevationTypeFull || type == TokenElevationTypeLimited;
}

bool IsTokenElevated(HANDLE token)
{
    TOKEN_ELEVATION elevation = {};
    DWORD length = 0;
    if (!::GetTokenInformation(token, TokenElevation, &elevation, sizeof(elevation), &length))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR("QXCommonFunctions::IsTokenElevated",
                    L"Failed to obtain Token Information. Assuming NOT Elevated. Error [{}].\n", error);
        FailWith(error);
        return false;
    }
    QXLOG_INFO("QXCommonFunctions::IsTokenElevated", L"TokenIsElevated [{}].\n", elevation.TokenIsElevated);
    return elevation.TokenIsElevated != 0;
}

bool TokenHasMembership(const ATL::CAccessToken& token, const std::wstring& sid)
{
    const char* const function = "QXCommonFunctions::TokenHasMembership";
    PSID converted = nullptr;
    if (!::ConvertStringSidToSidW(sid.c_str(), &converted))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Failed to Convert SID [{}]. Error [{}].\n", sid, error);
        FailWith(error);
        return false;
    }
    LocalPtr<void> owner(converted);
    if (!::IsValidSid(converted))
    {
        QXLOG_ERROR(function, L"Failed to Convert SID [{}]. Error [{}].\n", sid, static_cast<DWORD>(ERROR_INVALID_SID));
        FailWith(ERROR_INVALID_SID);
        return false;
    }
    BOOL isMember = FALSE;
    if (!::CheckTokenMembership(token.GetHandle(), converted, &isMember))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Failed to CheckTokenMembership for SID [{}]. Error [{}].\n", sid, error);
        FailWith(error);
        return false;
    }
    return isMember != FALSE;
}

bool IsProcessURMed(DWORD processId)
{
    ATL::CAccessToken token;
    if (!AttachAtlAccessTokenToImpersonationTokenFromProcessId(token, processId))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR("QXCommonFunctions::IsProcessURMed",
                    L"Failed AttachAtlAccessTokenToPrimaryTokenFromProcessId [{}]. Error [{}]\n", processId, error);
        FailWith(error);
        return false;
    }
    if (!TokenHasMembership(token, UrmGroupSid))
        return false;
    QXLOG_INFO("QXCommonFunctions::IsProcessURMed", L"Process ID [{}] has URM SID membership\n", processId);
    return true;
}
} // namespace QXCommonFunctions
