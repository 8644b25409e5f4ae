#pragma once
// CPipeImpersonateClient: the giving side of an identity hand-over (see
// CPipeImpersonateServer). It waits for the server's pipe, impersonates the
// user's token on the calling thread, connects with impersonation-level
// quality of service, writes the ready byte 1 and reads the close byte 2; then
// the caller ends the impersonation. A server that does not answer is given
// 5000 ms.
//
// Impersonation is per thread: run the whole sequence on one thread. The
// object puts the thread back to what it impersonated before
// ConnectAndImpersonate (nothing, an earlier identity, an anonymous-level
// impersonation) in RevertToSelf, or when it goes while still impersonating;
// the ready byte goes out only while the thread impersonates the user's token
// this object put on it.
//
//   QXCommon::CPipeImpersonateClient client(L"\\\\.\\pipe\\name", userToken,
//       [](const std::wstring& name) { return ::WaitNamedPipeW(name.c_str(), 1) ? 1 : 0; });
//   if (client.ConnectAndImpersonate(10000, 50))
//   {
//       client.SendReadyMessage();
//       client.RevertToSelf();
//   }

#include "QXCommonAPI.h"

#include <atlsecurity.h>

#include <functional>
#include <memory>
#include <string>

namespace QXCommon
{
class QXCOMMON_API CPipeImpersonateClient
{
public:
    // Non-zero when the server's pipe can be connected to.
    using PipeExistsFunction = std::function<int(const std::wstring& pipeName)>;

    // userToken stays the caller's; it needs TOKEN_DUPLICATE (the thread
    // impersonates a duplicate of it). An empty pipeExists makes
    // ConnectAndImpersonate throw std::bad_function_call.
    CPipeImpersonateClient(const std::wstring& pipeName, HANDLE userToken, PipeExistsFunction pipeExists);
    // A copy takes the pipe name, the user's token and pipeExists, not an
    // impersonation in progress: it starts afresh. Assigning to an object
    // that impersonates first puts its thread back, as destroying it does.
    CPipeImpersonateClient(const CPipeImpersonateClient& other);
    CPipeImpersonateClient& operator=(const CPipeImpersonateClient& other);
    // Puts the thread back to what it impersonated before
    // ConnectAndImpersonate when it still impersonates the user (on the
    // thread that impersonates; on another one nothing changes).
    ~CPipeImpersonateClient();

    // Ends an impersonation this object still holds (as RevertToSelf), then
    // polls pipeExists until it answers non-zero or timeoutMs has passed,
    // pausing 0, stepMs, 2·stepMs... between calls (the last pause may end
    // past the timeout; with a timeout of 0 or less it is called once), then
    // impersonates the user's token on the calling thread. A pipe that never
    // appeared fails with WAIT_TIMEOUT. A thread whose impersonation cannot be
    // saved (its token cannot be opened) is refused before it changes.
    BOOL ConnectAndImpersonate(int timeoutMs, int stepMs);
    // Opens the pipe (impersonation-level quality of service), writes the
    // ready byte and waits at most 5000 ms for the server's close byte; TRUE
    // once the ready byte is written. FALSE without opening the pipe unless
    // ConnectAndImpersonate succeeded and the calling thread still
    // impersonates the token it put on (ERROR_NO_IMPERSONATION_TOKEN when
    // the thread acts as someone else).
    BOOL SendReadyMessage();
    // Ends the impersonation and puts the thread back to what it
    // impersonated before ConnectAndImpersonate. FALSE unless
    // ConnectAndImpersonate succeeded since the last RevertToSelf; FALSE
    // (ERROR_INVALID_THREAD_ID) on another thread than the impersonating
    // one, which stays as it is.
    BOOL RevertToSelf();

private:
    struct Impersonation; // what the thread acted as before, and the token it impersonates now

    BOOL DoesPipeExist(int timeoutMs, int stepMs);
    BOOL Impersonate();
    void WaitForCloseMessage(const ATL::CHandle& pipe);

    std::wstring pipeName;
    HANDLE m_hUserToken;                              // the caller's
    std::unique_ptr<ATL::CAccessToken> m_pAccessToken; // impersonated by this thread; null until then and after RevertToSelf
    PipeExistsFunction pipeExists;
    std::unique_ptr<Impersonation> m_impersonation;   // set exactly while m_pAccessToken is
};
} // namespace QXCommon
