// The server side of the identity hand-over: one message-mode pipe instance,
// an overlapped connect bounded by 5000 ms, the ready byte in, the client
// impersonated, the close byte out.

#include "QXCommon/PipeImpersonateServer.h"

#include "QXLog.h"
#include "TokenDetail.h"

namespace QXCommon
{
namespace
{
constexpr DWORD PipeOpenMode = PIPE_ACCESS_DUPLEX | WRITE_OWNER | FILE_FLAG_OVERLAPPED; // 0x40080003
constexpr DWORD PipeMode = PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT;      // 6
constexpr DWORD PipeBufferSize = 32;
constexpr DWORD ConnectTimeoutMs = 5000;
constexpr BYTE ReadyMessage = 1;
constexpr BYTE CloseMessage = 2;

// Ends an overlapped operation that is still pending, so that the system no
// longer writes to its OVERLAPPED once it goes out of scope.
void CancelPending(HANDLE file, OVERLAPPED& overlapped)
{
    DWORD transferred = 0;
    if (::CancelIoEx(file, &overlapped) || ::GetLastError() != ERROR_NOT_FOUND)
        ::GetOverlappedResult(file, &overlapped, &transferred, TRUE);
}

// Reads or writes one byte on the overlapped pipe handle and waits for it
// here, so that the transfer is synchronous for the caller and its completion
// is reported reliably. The system error of a failure stays in GetLastError.
BOOL TransferByte(HANDLE pipe, BYTE& byte, bool write, DWORD& transferred)
{
    ATL::CHandle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    OVERLAPPED overlapped = {};
    overlapped.hEvent = event;
    BOOL success = write ? ::WriteFile(pipe, &byte, 1, &transferred, &overlapped)
                         : ::ReadFile(pipe, &byte, 1, &transferred, &overlapped);
    if (!success && ::GetLastError() == ERROR_IO_PENDING)
        success = ::GetOverlappedResult(pipe, &overlapped, &transferred, TRUE);
    return success ? TRUE : Detail::FailWith(::GetLastError());
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
    if (created == INVALID_HANDLE_VALUE)
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Could not create pipe {}. Error: {}\n", pipeName, error);
        return Detail::FailWith(error);
    }
    pipe.Attach(created);

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
                if (::WaitForSingleObject(connectEvent, ConnectTimeoutMs) == WAIT_OBJECT_0)
                {
                    QXLOG_INFO(function, L"Waiting for pipe - returned success\n");
                    connected = true;
                }
                else
                {
                    CancelPending(pipe, overlapped);
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
        BYTE message = 0;
        DWORD read = 0;
        const BOOL success = TransferByte(pipe, message, false, read);
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
    if (!TransferByte(pipe, message, true, written))
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
