#pragma once
// CPipeImpersonateServer: the receiving side of an identity hand-over. A
// process that holds a user's token (CPipeImpersonateClient) impersonates it
// and connects to a named pipe; this side created the pipe, impersonates its
// client and so takes on the user's identity, which it can turn into a primary
// token to start processes or open files as that user. No handle crosses the
// process boundary.
//
// The pipe is message-mode, one instance, 32-byte buffers, with a null DACL so
// that any user's process can connect, and refuses clients on other machines.
// A name that already has an instance (someone else made it first) is
// refused. The exchange is two one-byte messages: the client writes 1 (ready)
// while impersonating; the server reads it, impersonates the client and
// answers 2 (close). The server waits at most 5000 ms for a client to connect
// and as long again for its first message. One object serves one exchange.
//
// Impersonation is per thread: make, use and destroy the object on one thread.
// Destroying it closes the pipe, then puts the thread back to what it
// impersonated when the object was made (nothing, or an earlier identity).
//
//   ATL::CHandle token;
//   if (QXCommon::CPipeImpersonateServer::GetToken(token, L"\\\\.\\pipe\\name", readyEvent) && token != nullptr)
//       ... CreateProcessAsUserW(token, ...) ...

#include "ImpersonationSaver.h"
#include "QXCommonAPI.h"

#include <atlbase.h>

#include <string>

namespace QXCommon
{
class QXCOMMON_API CPipeImpersonateServer
{
public:
    // readyEvent stays the caller's; it is set once the pipe exists and the
    // server is about to wait for its client (null or INVALID_HANDLE_VALUE:
    // no event). The thread's current impersonation is captured here.
    CPipeImpersonateServer(const std::wstring& pipeName, HANDLE readyEvent);
    ~CPipeImpersonateServer();
    CPipeImpersonateServer(const CPipeImpersonateServer&) = delete;
    CPipeImpersonateServer& operator=(const CPipeImpersonateServer&) = delete;

    // Creates the pipe, waits for the client's ready byte, impersonates the
    // client on the calling thread and answers with the close byte. False
    // (logged) when the pipe cannot be made, no client connects within
    // 5000 ms, the first message is not the single byte 1 or does not come
    // within 5000 ms, or the client cannot be impersonated. Once the first
    // message has failed, the pipe instance is gone.
    bool ConnectAndImpersonate();

    // Replaces token's handle with a primary token (MAXIMUM_ALLOWED) made
    // from the thread's impersonation token; token is left empty (logged)
    // when the thread token cannot be opened or duplicated.
    void GetTokenAsPrimaryToken(ATL::CHandle& token);

    // The whole server side: closes any handle token holds, serves one
    // exchange on pipeName and takes the client's identity as a primary
    // token. True once the client was impersonated (token is then empty only
    // if it could not be made into a primary token, which is logged). On
    // every path the thread is back to what it impersonated before the call.
    static bool GetToken(ATL::CHandle& token, const std::wstring& pipeName, HANDLE readyEvent);

private:
    BOOL CreatePipeAndGetMessage();
    void SendCloseMessage();

    ATL::CHandle pipe;
    std::wstring pipeName;
    HANDLE readyEvent;                  // the caller's
    CImpersonationSaver impersonation;  // reverts the pipe-client impersonation
};
} // namespace QXCommon
