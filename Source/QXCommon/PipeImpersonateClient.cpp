// The client side of the identity hand-over: wait for the server's pipe with
// a linear back-off, impersonate the user's token, send the ready byte with
// impersonation-level quality of service, wait at most 5000 ms for the close
// byte, and put the thread back to what it acted as before.

#include "QXCommon/PipeImpersonateClient.h"

#include "PipeDetail.h"
#include "QXCommon/ImpersonationSaver.h"
#include "QXLog.h"
#include "TokenDetail.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace QXCommon
{
namespace
{
// Overlapped, so that the wait for the server's answer has its bound.
constexpr DWORD PipeOpenFlags = SECURITY_SQOS_PRESENT | SECURITY_IMPERSONATION | FILE_FLAG_OVERLAPPED; // 0x40120000
constexpr BYTE ReadyMessage = 1;
constexpr BYTE CloseMessage = 2;

// The id of the token the calling thread impersonates (TokenStatistics): one
// id is one token object. ERROR_NO_TOKEN when the thread impersonates nothing.
DWORD ThreadTokenId(LUID& id)
{
    HANDLE opened = nullptr;
    if (!::OpenThreadToken(::GetCurrentThread(), TOKEN_QUERY, FALSE, &opened) &&
        (::GetLastError() == ERROR_NO_TOKEN || !::OpenThreadToken(::GetCurrentThread(), TOKEN_QUERY, TRUE, &opened)))
        return ::GetLastError();
    ATL::CHandle token(opened);
    TOKEN_STATISTICS statistics = {};
    DWORD length = 0;
    if (!::GetTokenInformation(token, TokenStatistics, &statistics, sizeof(statistics), &length))
        return ::GetLastError();
    id = statistics.TokenId;
    return ERROR_SUCCESS;
}
} // namespace

struct CPipeImpersonateClient::Impersonation
{
    CImpersonationSaver previous; // made before the thread changes; puts it back when this goes
    const DWORD thread = ::GetCurrentThreadId();
    LUID tokenId = {}; // of the thread's token once it impersonates the user

    ~Impersonation()
    {
        // Another thread than the impersonating one is left as it is.
        if (thread != ::GetCurrentThreadId())
            previous.SetImpersonationOccurred(0);
    }
    // The calling thread impersonates, now, the token this object put on it.
    bool Current() const
    {
        LUID id = {};
        return thread == ::GetCurrentThreadId() && ThreadTokenId(id) == ERROR_SUCCESS &&
               id.LowPart == tokenId.LowPart && id.HighPart == tokenId.HighPart;
    }
};

CPipeImpersonateClient::CPipeImpersonateClient(const std::wstring& pipeName, HANDLE userToken,
                                               PipeExistsFunction pipeExists)
    : pipeName(pipeName), m_hUserToken(userToken), pipeExists(std::move(pipeExists))
{
    QXLOG_INFO("QXCommon::CPipeImpersonateClient::CPipeImpersonateClient", L"Pipe name[{}]\n", this->pipeName);
}

// An impersonation belongs to the thread and the object that made it: a copy
// starts without one.
CPipeImpersonateClient::CPipeImpersonateClient(const CPipeImpersonateClient& other)
    : pipeName(other.pipeName), m_hUserToken(other.m_hUserToken), pipeExists(other.pipeExists)
{
}

CPipeImpersonateClient& CPipeImpersonateClient::operator=(const CPipeImpersonateClient& other)
{
    if (this != &other)
    {
        // The copy leaves with this object's impersonation and puts the thread back.
        CPipeImpersonateClient copy(other);
        std::swap(pipeName, copy.pipeName);
        std::swap(m_hUserToken, copy.m_hUserToken);
        std::swap(m_pAccessToken, copy.m_pAccessToken);
        std::swap(pipeExists, copy.pipeExists);
        std::swap(m_impersonation, copy.m_impersonation);
    }
    return *this;
}

// Members go in reverse order: m_impersonation first, which puts the thread back.
CPipeImpersonateClient::~CPipeImpersonateClient() = default;

BOOL CPipeImpersonateClient::ConnectAndImpersonate(int timeoutMs, int stepMs)
{
    const char* const function = "QXCommon::CPipeImpersonateClient::ConnectAndImpersonate";
    // A reused object starts afresh: an earlier impersonation ends here, so
    // that a failure below leaves nothing to send the ready byte with.
    m_pAccessToken.reset();
    m_impersonation.reset();
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
    do
    {
        result = pipeExists(pipeName);
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
    // A callable answering 0 promises no error of its own: the wait's is reported.
    ::SetLastError(result != 0 ? ERROR_SUCCESS : WAIT_TIMEOUT);
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
    auto impersonation = std::make_unique<Impersonation>();
    // Ends the attempt; a thread that did not change is left alone.
    auto fail = [&](DWORD error, bool threadChanged) {
        if (!threadChanged)
            impersonation->previous.SetImpersonationOccurred(0);
        impersonation.reset();
        return Detail::FailWith(error);
    };
    if (const DWORD error = impersonation->previous.GetCaptureError(); error != ERROR_SUCCESS)
    {
        // What the thread acts as could not be put back afterwards.
        QXLOG_ERROR(function, L"Cannot save the thread's impersonation. Error: {}\n", error);
        return fail(error, false);
    }
    HANDLE duplicate = nullptr;
    if (!::DuplicateHandle(::GetCurrentProcess(), m_hUserToken, ::GetCurrentProcess(), &duplicate, 0, TRUE,
                           DUPLICATE_SAME_ACCESS))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Failed to DuplicateHandle - error {}\n", error);
        return fail(error, false);
    }
    auto token = std::make_unique<ATL::CAccessToken>();
    token->Attach(duplicate);
    if (!token->Impersonate())
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Could not impersonate. Error: {}\n", error);
        return fail(error, false);
    }
    // What the thread impersonates from here on is what the ready byte may go out as.
    if (const DWORD error = ThreadTokenId(impersonation->tokenId); error != ERROR_SUCCESS)
    {
        QXLOG_ERROR(function, L"Could not impersonate. Error: {}\n", error);
        return fail(error, true);
    }
    m_pAccessToken = std::move(token);
    m_impersonation = std::move(impersonation);
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
    // The server takes whoever opens the pipe: never this process, nor an
    // identity the caller put on the thread since.
    if (!m_impersonation->Current())
    {
        QXLOG_ERROR(function, L"The thread does not impersonate the user's token - not connecting\n");
        return Detail::FailWith(ERROR_NO_IMPERSONATION_TOKEN);
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
    BYTE message = ReadyMessage;
    DWORD written = 0;
    if (!Detail::TransferByte(pipe, message, true, written, Detail::PipeWaitMs))
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
        const DWORD waited = ::WaitForSingleObject(event, Detail::PipeWaitMs);
        if (waited == WAIT_OBJECT_0)
            QXLOG_INFO(function, L"Event was signalled\n");
        else
        {
            QXLOG_ERROR(function, L"WaitForSingleObject failed. Wait result: {}, Error: {}\n", waited,
                        ::GetLastError());
            // The read must be over before its buffer and OVERLAPPED go.
            Detail::CancelPending(pipe, overlapped);
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
    if (m_impersonation->thread != ::GetCurrentThreadId())
    {
        // This thread impersonates nothing of this object's: it stays as it is.
        QXLOG_ERROR(function, L"Could not revert to self. Error: {}\n", ERROR_INVALID_THREAD_ID);
        return Detail::FailWith(ERROR_INVALID_THREAD_ID);
    }
    const BOOL reverted = m_pAccessToken->Revert();
    const DWORD error = reverted ? ERROR_SUCCESS : ::GetLastError();
    // Whatever the revert did, the thread goes back to what it was before.
    m_pAccessToken.reset();
    m_impersonation.reset();
    if (!reverted)
    {
        QXLOG_ERROR(function, L"Could not revert to self. Error: {}\n", error);
        return Detail::FailWith(error);
    }
    return TRUE;
}
} // namespace QXCommon
