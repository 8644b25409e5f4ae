#pragma once
// CPipeImpersonateClient: the giving side of an identity hand-over (see
// CPipeImpersonateServer). It waits for the server's pipe, impersonates the
// user's token on the calling thread, connects with impersonation-level
// quality of service, writes the ready byte 1 and reads the close byte 2; then
// the caller ends the impersonation. The pipe handle is synchronous, so the
// read returns when the server answers or closes the pipe.
//
// Impersonation is per thread: run the whole sequence on one thread.
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
    // A copy holds its own handle of the impersonated token, if any.
    CPipeImpersonateClient(const CPipeImpersonateClient& other);
    CPipeImpersonateClient& operator=(const CPipeImpersonateClient& other);
    ~CPipeImpersonateClient();

    // Polls pipeExists until it answers non-zero or timeoutMs has passed,
    // pausing 0, stepMs, 2·stepMs... between calls (the last pause may end
    // past the timeout; with a timeout of 0 or less it is called once), then
    // impersonates the user's token on the calling thread.
    BOOL ConnectAndImpersonate(int timeoutMs, int stepMs);
    // Opens the pipe (impersonation-level quality of service), writes the
    // ready byte and waits for the server's close byte; TRUE once the ready
    // byte is written. FALSE without opening the pipe unless
    // ConnectAndImpersonate succeeded.
    BOOL SendReadyMessage();
    // Ends the calling thread's impersonation; FALSE unless
    // ConnectAndImpersonate succeeded.
    BOOL RevertToSelf();

private:
    BOOL DoesPipeExist(int timeoutMs, int stepMs);
    BOOL Impersonate();
    void WaitForCloseMessage(const ATL::CHandle& pipe);

    std::wstring pipeName;
    HANDLE m_hUserToken;                              // the caller's
    std::unique_ptr<ATL::CAccessToken> m_pAccessToken; // impersonated by this thread; null until then
    PipeExistsFunction pipeExists;
};
} // namespace QXCommon
