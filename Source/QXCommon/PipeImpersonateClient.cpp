// The client side of the identity hand-over: wait for the server's pipe with
// a linear back-off, impersonate the user's token, send the ready byte with
// impersonation-level quality of service, wait for the close byte.

#include "QXCommon/PipeImpersonateClient.h"

#include "QXLog.h"
#include "TokenDetail.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace QXCommon
{
namespace
{
constexpr DWORD PipeOpenFlags = SECURITY_SQOS_PRESENT | SECURITY_IMPERSONATION; // 0x120000
constexpr DWORD CloseWaitMs = 5000;
constexpr BYTE ReadyMessage = 1;
constexpr BYTE CloseMessage = 2;

// A token object holding a duplicate of the handle (same access,
// inheritable), or null when the handle cannot be duplicated.
std::unique_ptr<ATL::CAccessToken> DuplicateTokenHandle(HANDLE token, const char* function)
{
    HANDLE duplicate = nullptr;
    if (!::DuplicateHandle(::GetCurrentProcess(), token, ::GetCurrentProcess(), &duplicate, 0, TRUE,
                           DUPLICATE_SAME_ACCESS))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Failed to DuplicateHandle - error {}\n", error);
        ::SetLastError(error);
        return nullptr;
    }
    auto owner = std::make_unique<ATL::CAccessToken>();
    owner->Attach(duplicate);
    return owner;
}
} // namespace

CPipeImpersonateClient::CPipeImpersonateClient(const std::wstring& pipeName, HANDLE userToken,
                                               PipeExistsFunction pipeExists)
    : pipeName(pipeName), m_hUserToken(userToken), pipeExists(std::move(pipeExists))
{
    QXLOG_INFO("QXCommon::CPipeImpersonateClient::CPipeImpersonateClient", L"Pipe name[{}]\n", this->pipeName);
}

CPipeImpersonateClient::CPipeImpersonateClient(const CPipeImpersonateClient& other)
    : pipeName(other.pipeName), m_hUserToken(other.m_hUserToken), pipeExists(other.pipeExists)
{
    if (other.m_pAccessToken)
        m_pAccessToken = DuplicateTokenHandle(other.m_pAccessToken->GetHandle(),
                                             "QXCommon::CPipeImpersonateClient::CPipeImpersonateClient");
}

CPipeImpersonateClient& CPipeImpersonateClient::operator=(const CPipeImpersonateClient& other)
{
    if (this != &other)
    {
        CPipeImpersonateClient copy(other);
        std::swap(pipeName, copy.pipeName);
        std::swap(m_hUserToken, copy.m_hUserToken);
        std::swap(m_pAccessToken, copy.m_pAccessToken);
        std::swap(pipeExists, copy.pipeExists);
    }
    return *this;
}

CPipeImpersonateClient::~CPipeImpersonateClient() = default;

BOOL CPipeImpersonateClient::ConnectAndImpersonate(int timeoutMs, int stepMs)
{
    const char* const function = "QXCommon::CPipeImpersonateClient::ConnectAndImpersonate";
    if (!DoesPipeExist(timeoutMs, stepMs))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Could not Connect to Pipe \"{}\". Error: {}\n", pipeName, error);
        return Detail::FailWith(error);
    }
    if (!Impersonate())
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Could not Impersonate Pipe \"{}\". Error: {}\n", pipeName, error);
        return Detail::FailWith(error);
    }
    QXLOG_INFO(function, L"Connect and Impersonate - success\n");
    return TRUE;
}

BOOL CPipeImpersonateClient::DoesPipeExist(int timeoutMs, int stepMs)
{
    const char* const function = "QXCommon::CPipeImpersonateClient::DoesPipeExist";
    QXLOG_INFO(function, L"Does Pipe exist - waiting - name: {}\n", pipeName);
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    // Pauses grow by one step per attempt: 0, step, 2·step... (a negative
    // step counts as 0; a pause never exceeds what Sleep can take).
    const long long step = std::max(stepMs, 0);
    long long pause = 0;
    long long elapsed = 0;
    int attempts = 0;
    int result = 0;
    DWORD error = ERROR_SUCCESS;
    do
    {
        result = pipeExists(pipeName);
        error = ::GetLastError();
        ++attempts;
        if (result == 0)
        {
            ::Sleep(static_cast<DWORD>(pause));
            pause = std::min(pause + step, 0x7FFFFFFFLL);
        }
        elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    } while (result == 0 && elapsed < timeoutMs);

    QXLOG_INFO(function, L"Waited [{}]ms (timeout is set to [{}]ms) after [{}] attempts\n", elapsed, timeoutMs,
               attempts);
    QXLOG_INFO(function, L"Does Pipe exist - returning {}", result != 0 ? L"SUCCESS" : L"FAILED");
    // The callable's own error explains a failure.
    ::SetLastError(result != 0 ? ERROR_SUCCESS : (error != ERROR_SUCCESS ? error : WAIT_TIMEOUT));
    return result;
}

BOOL CPipeImpersonateClient::Impersonate()
{
    const char* const function = "QXCommon::CPipeImpersonateClient::Impersonate";
    if (m_hUserToken == nullptr)
    {
        QXLOG_ERROR(function, L"m_hUserToken == NULL\n");
        return Detail::FailWith(ERROR_INVALID_HANDLE);
    }
    m_pAccessToken = DuplicateTokenHandle(m_hUserToken, function);
    if (!m_pAccessToken)
        return FALSE;
    if (!m_pAccessToken->Impersonate())
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Could not impersonate. Error: {}\n", error);
        // Without the impersonation the pipe must not be opened as this
        // process: SendReadyMessage refuses a client without a token.
        m_pAccessToken.reset();
        return Detail::FailWith(error);
    }
    QXLOG_INFO(function, L"Impersonate - Success\n");
    return TRUE;
}

BOOL CPipeImpersonateClient::SendReadyMessage()
{
    const char* const function = "QXCommon::CPipeImpersonateClient::SendReadyMessage";
    if (!m_pAccessToken)
    {
        QXLOG_ERROR(function, L"The AccesssToken is NULL - Impersonation was not successful\n");
        return Detail::FailWith(ERROR_INVALID_HANDLE);
    }
    HANDLE opened = ::CreateFileW(pipeName.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                  PipeOpenFlags, nullptr);
    if (opened == INVALID_HANDLE_VALUE)
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Could not connect to pipe {}. Error: {}\n", pipeName, error);
        return Detail::FailWith(error);
    }
    ATL::CHandle pipe(opened);
    const BYTE message = ReadyMessage;
    DWORD written = 0;
    if (!::WriteFile(pipe, &message, 1, &written, nullptr))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Could not write to pipe {}. Error: {}\n", pipeName, error);
        return Detail::FailWith(error);
    }
    WaitForCloseMessage(pipe);
    return TRUE;
}

void CPipeImpersonateClient::WaitForCloseMessage(const ATL::CHandle& pipe)
{
    const char* const function = "QXCommon::CPipeImpersonateClient::WaitForCloseMessage";
    ATL::CHandle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (event == nullptr)
    {
        QXLOG_ERROR(function, L"CreateEventW failed. Error: {}\n", ::GetLastError());
        return;
    }
    QXLOG_INFO(function, L"Waiting for close message from server end...\n");
    BYTE message = 0;
    DWORD read = 0;
    OVERLAPPED overlapped = {};
    overlapped.hEvent = event;
    const BOOL returned = ::ReadFile(pipe, &message, 1, &read, &overlapped);
    const DWORD error = returned ? ERROR_SUCCESS : ::GetLastError();
    QXLOG_INFO(function, L"ReadFile returned: {}, Last error: {}\n", returned ? L"TRUE" : L"FALSE", error);
    if (!returned && error == ERROR_IO_PENDING)
    {
        QXLOG_INFO(function, L"Waiting for overlapped IO event...\n");
        const DWORD waited = ::WaitForSingleObject(event, CloseWaitMs);
        if (waited == WAIT_OBJECT_0)
            QXLOG_INFO(function, L"Event was signalled\n");
        else
        {
            QXLOG_ERROR(function, L"WaitForSingleObject failed. Wait result: {}, Error: {}\n", waited,
                        ::GetLastError());
            // The read must be over before its buffer and OVERLAPPED go.
            if (::CancelIoEx(pipe, &overlapped) || ::GetLastError() != ERROR_NOT_FOUND)
                ::GetOverlappedResult(pipe, &overlapped, &read, TRUE);
        }
    }
    else if (!returned)
        QXLOG_ERROR(function, L"ReadFile failed. Error: {}\n", error);
    if (message != CloseMessage)
        QXLOG_ERROR(function, L"Unexpected message from hook: {}\n", static_cast<unsigned>(message));
}

BOOL CPipeImpersonateClient::RevertToSelf()
{
    const char* const function = "QXCommon::CPipeImpersonateClient::RevertToSelf";
    if (!m_pAccessToken)
    {
        QXLOG_ERROR(function, L"m_pAccessToken == NULL\n");
        return Detail::FailWith(ERROR_INVALID_HANDLE);
    }
    if (!m_pAccessToken->Revert())
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Could not revert to self. Error: {}\n", error);
        return Detail::FailWith(error);
    }
    return TRUE;
}
} // namespace QXCommon
