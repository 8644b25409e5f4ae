#pragma once
// CQxAccessToken: an owning access-token object (ATL::CAccessToken) that can
// also take the token the calling thread is impersonating, in the form in
// which it can be impersonated again later. The class has no source file of
// its own; its one operation is exported by the library.

#include "QXCommonAPI.h"

#include <atlsecurity.h>

namespace QXCommon
{
class CQxAccessToken : public ATL::CAccessToken
{
public:
    CQxAccessToken() = default;

    // Replaces the held token with the calling thread's impersonation token:
    // an impersonation token is opened with TOKEN_IMPERSONATE | TOKEN_QUERY, a
    // primary one with TOKEN_DUPLICATE | TOKEN_QUERY, so that
    // ImpersonateLoggedOnUser() can put it back on a thread. The thread token
    // is opened as the thread itself; when that is refused it is retried as
    // the process (logged). The object is left empty when the thread is not
    // impersonating (result true) or when the token cannot be had (result
    // false, logged).
    QXCOMMON_API bool GetCurrentTokenForImpersonation();
};
} // namespace QXCommon
