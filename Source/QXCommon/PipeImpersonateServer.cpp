// The server side of the identity hand-over: one message-mode pipe instance
// for local clients only, a connect and a ready byte each awaited at most
// 5000 ms, the client impersonated, the close byte out.

#include "QXCommon/PipeImpersonateServer.h"

#include "PipeDetail.h"
#include "QXLog.h"
#include "TokenDetail.h"

namespace QXCommon
{
namespace
{
// WRITE_OWNER is the bit of FILE_FLAG_FIRST_PIPE_INSTANCE: the system refuses
// the pipe when an instance of that name exists already.
constexpr DWORD PipeOpenMode = PIPE_ACCESS_DUPLEX | WRITE_OWNER | FILE_FLAG_OVERLAPPED; // 0x40080003
// A client on another machine would hand over a network logon: refused.
constexpr DWORD PipeMode = PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS; // 0xE
constexpr DWORD PipeBufferSize = 32;
constexpr BYTE ReadyMessage = 1;
constexpr BYTE CloseMessage = 2;

// The error for a pipe whose name already had an instance before this one
// was made (another process's, which could take this server's clients), as
// the system gives it for FILE_FLAG_FIRST_PIPE_INSTANCE; 0 when this instance
// is the only one.
DWORD OtherInstancesError(HANDLE pipe)
{
    DWORD instances = 0;
    if (!::GetNamedPipeHandleStateW(pipe, nullptr, &instances, nullptr, nullptr, nullptr, 0))
        return ::GetLastError();
    return instances == 1 ? ERROR_SUCCESS : static_cast<DWORD>(ERROR_ACCESS_DENIED);
}
} // namespace

CPipeImpersonateServer::CPipeImpersonateServer(const std::wstring& pipeName, HANDLE readyEvent)
    : pipeName(pipeName), readyEvent(readyEvent)
{
    QXLOG_INFO("QXCommon::CPipeImpersonateServer::CPipeImpersonateServer", L"Pipe name[{}]\n", this->pipeName);
}

CPipeImpersonateServer::~CPipeImpersonateServer()
{
    // The pipe goes first; the impersonation member reverts after this body.
    pipe.Close();
}

BOOL CPipeImpersonateServer::CreatePipeAndGetMessage()
{
    const char* const function = "QXCommon::CPipeImpersonateServer::CreatePipeAndGetMessage";
    pipe.Close(); // one exchange per instance: a second call starts afresh

    // A null DACL lets a process of any user connect.
    SECURITY_DESCRIPTOR descriptor;
    if (!::InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Fatal Error: InitializeSecurityDescriptor() error [{}]\n", error);
        return Detail::FailWith(error);
    }
    if (!::SetSecurityDescriptorDacl(&descriptor, TRUE, nullptr, FALSE))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Fatal Error: SetSecurityDescriptorDacl() error {}\n", error);
        return Detail::FailWith(error);
    }
    SECURITY_ATTRIBUTES attributes = {sizeof(attributes), &descriptor, FALSE};

    QXLOG_INFO(function, L"Create named pipe {}.\n", pipeName);
    HANDLE created = ::CreateNamedPipeW(pipeName.c_str(), PipeOpenMode, PipeMode, 1, PipeBufferSize, PipeBufferSize, 0,
                                        &attributes);
    ATL::CHandle instance(created != INVALID_HANDLE_VALUE ? created : nullptr);
    // Where the system lets a first-instance pipe join a name made by
    // someone else, the instance is refused here as it would have been there.
    if (const DWORD error = instance != nullptr ? OtherInstancesError(instance) : ::GetLastError())
    {
        QXLOG_ERROR(function, L"Could not create pipe {}. Error: {}\n", pipeName, error);
        return Detail::FailWith(error);
    }
    pipe.Attach(instance.Detach());

    // From here on a failure leaves no instance behind.
    DWORD error = ERROR_SUCCESS;
    bool connected = false;
    {
        ATL::CHandle connectEvent(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        if (connectEvent == nullptr)
        {
            error = ::GetLastError();
            QXLOG_ERROR(function, L"CreateEventW() failed. Error code=[{}]\n", error);
        }
        else
        {
            QXLOG_INFO(function, L"Pipe server created about to wait for client connection...\n");
            if (readyEvent != nullptr && readyEvent != INVALID_HANDLE_VALUE && !::SetEvent(readyEvent))
                QXLOG_ERROR(function, L"SetEvent() failed. Error code=[{}]\n", ::GetLastError());

            OVERLAPPED overlapped = {};
            overlapped.hEvent = connectEvent;
            const BOOL returned = ::ConnectNamedPipe(pipe, &overlapped);
            error = returned ? ERROR_SUCCESS : ::GetLastError();
            QXLOG_INFO(function, L"ConnectNamedPipe returned [{}]. Last error code=[{}]\n", returned, error);
            if (returned)
                connected = true;
            else if (error == ERROR_IO_PENDING)
            {
                if (::WaitForSingleObject(connectEvent, Detail::PipeWaitMs) == WAIT_OBJECT_0)
                {
                    QXLOG_INFO(function, L"Waiting for pipe - returned success\n");
                    connected = true;
                }
                else
                {
                    Detail::CancelPending(pipe, overlapped);
                    error = WAIT_TIMEOUT;
                    QXLOG_ERROR(function, L"Waiting for pipe - timed out\n");
                }
            }
            else if (error == ERROR_PIPE_CONNECTED)
            {
                QXLOG_INFO(function, L"URM - the client had already connected\n");
                connected = true;
            }
            else
                QXLOG_ERROR(function, L"ConnectNamedPipe failed. Error: {}\n", error);
        }
    }

    if (connected)
    {
        // A client that connects and says nothing is given as long as one
        // that does not connect.
        BYTE message = 0;
        DWORD read = 0;
        const BOOL success = Detail::TransferByte(pipe, message, false, read, Detail::PipeWaitMs);
        error = success ? ERROR_SUCCESS : ::GetLastError();
        if (success && read == 1 && message == ReadyMessage)
            return TRUE;
        if (error == ERROR_SUCCESS)
            error = ERROR_INVALID_DATA;
        QXLOG_ERROR(function, L"ReadFile Error: {}. bSuccess: {}, Data: {}\n", success ? ERROR_SUCCESS : error, success,
                    static_cast<unsigned>(message));
    }

    ::DisconnectNamedPipe(pipe);
    pipe.Close();
    return Detail::FailWith(error);
}

bool CPipeImpersonateServer::ConnectAndImpersonate()
{
    const char* const function = "QXCommon::CPipeImpersonateServer::ConnectAndImpersonate";
    if (const DWORD error = impersonation.GetCaptureError(); error != ERROR_SUCCESS)
    {
        // What the thread impersonates could not be put back afterwards: no
        // pipe is made and the thread is left as it is.
        QXLOG_ERROR(function, L"Cannot save the thread's impersonation. Error: {}\n", error);
        return Detail::FailWith(error) != FALSE;
    }
    if (!CreatePipeAndGetMessage())
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"CreatePipeAndGetMessage failed. Error: {}\n", error);
        return Detail::FailWith(error) != FALSE;
    }
    const BOOL impersonated = ::ImpersonateNamedPipeClient(pipe);
    const DWORD error = impersonated ? ERROR_SUCCESS : ::GetLastError();
    SendCloseMessage();
    impersonation.SetImpersonationOccurred(impersonated);
    if (!impersonated)
    {
        QXLOG_ERROR(function, L"ImpersonateNamedPipeClient failed. Error: {}\n", error);
        return Detail::FailWith(error) != FALSE;
    }
    return true;
}

void CPipeImpersonateServer::SendCloseMessage()
{
    BYTE message = CloseMessage;
    DWORD written = 0;
    if (!Detail::TransferByte(pipe, message, true, written, Detail::PipeWaitMs))
        QXLOG_ERROR("QXCommon::CPipeImpersonateServer::SendCloseMessage", L"WriteFile failed. Error: {}\n",
                    ::GetLastError());
}

void CPipeImpersonateServer::GetTokenAsPrimaryToken(ATL::CHandle& token)
{
    const char* const function = "QXCommon::CPipeImpersonateServer::GetTokenAsPrimaryToken";
    token.Close();
    HANDLE threadToken = nullptr;
    if (!::OpenThreadToken(::GetCurrentThread(), TOKEN_ASSIGN_PRIMARY | TOKEN_DUPLICATE | TOKEN_QUERY, FALSE,
                           &threadToken))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Could not open thread token. Error: {}\n", error);
        ::SetLastError(error);
        return;
    }
    ATL::CHandle threadTokenOwner(threadToken);
    HANDLE primary = nullptr;
    if (!::DuplicateTokenEx(threadToken, MAXIMUM_ALLOWED, nullptr, SecurityImpersonation, TokenPrimary, &primary))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Error, failed to DuplicateToken. Error: {}\n", error);
        ::SetLastError(error);
        return;
    }
    token.Attach(primary);
}

bool CPipeImpersonateServer::GetToken(ATL::CHandle& token, const std::wstring& pipeName, HANDLE readyEvent)
{
    token.Close();
    CPipeImpersonateServer server(pipeName, readyEvent);
    if (!server.ConnectAndImpersonate())
        return false;
    server.GetTokenAsPrimaryToken(token);
    return true;
}
} // namespace QXCommon
