// What each side does when the other misbehaves or is missing: messages other
// than the ready byte, no client, a client that came early, a second client,
// the pipe's shape, and the client's own preconditions and polling.

#include "PipeSuite.h"

#include <chrono>
#include <functional>
#include <optional>
#include <vector>

using namespace PipeTest;

namespace
{
using Clock = std::chrono::steady_clock;

HANDLE OpenAsClient(const std::wstring& pipe)
{
    return CreateFileW(pipe.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                       SECURITY_SQOS_PRESENT | SECURITY_IMPERSONATION, nullptr);
}

// Connects a client in this process (as soon as the pipe exists) and keeps it.
ATL::CHandle ConnectWhenListening(const std::wstring& pipe)
{
    for (int k = 0; k < 1000; ++k, Sleep(5))
    {
        HANDLE client = OpenAsClient(pipe);
        if (client != INVALID_HANDLE_VALUE)
            return ATL::CHandle(client);
    }
    return ATL::CHandle();
}

BYTE Exchange(HANDLE client, BYTE message)
{
    DWORD done = 0;
    BYTE reply = 0;
    return WriteFile(client, &message, 1, &done, nullptr) && ReadFile(client, &reply, 1, &done, nullptr) ? reply : 0;
}

// The hook: connects and writes the ready byte while the server logs that the
// pipe exists, before its ConnectNamedPipe is issued.
struct EarlyClient
{
    std::wstring pipe;
    QXDbgLogSink capture = nullptr;
    void* captureContext = nullptr;
    ATL::CHandle client;
    static void Sink(void* context, const QXDbgLogRecord& record)
    {
        auto* self = static_cast<EarlyClient*>(context);
        self->capture(self->captureContext, record);
        if (std::wstring(record.message) == L"Pipe server created about to wait for client connection...\n")
        {
            self->client.Attach(OpenAsClient(self->pipe));
            DWORD written = 0;
            const BYTE ready = 1;
            WriteFile(self->client, &ready, 1, &written, nullptr);
        }
    }
};
} // namespace

// A server whose client never comes gives up after 5000 ms. It waits on its
// own thread while the whole suite runs, and is checked at the end.
class SilentClient : public testing::Environment
{
public:
    void SetUp() override
    {
        m_thread = std::thread([this] {
            const auto start = Clock::now();
            ATL::CHandle token;
            m_taken = QXCommon::CPipeImpersonateServer::GetToken(token, m_pipe, nullptr);
            m_error = GetLastError();
            m_ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
        });
    }
    void TearDown() override
    {
        m_thread.join();
        EXPECT_FALSE(m_taken);
        EXPECT_EQ(m_error, static_cast<DWORD>(WAIT_TIMEOUT));
        EXPECT_GE(m_ms, 4900);
        EXPECT_EQ(OpenAsClient(m_pipe), INVALID_HANDLE_VALUE) << "an instance was left behind";
    }

private:
    const std::wstring m_pipe = UniquePipeName();
    std::thread m_thread;
    bool m_taken = true;
    DWORD m_error = 0;
    long long m_ms = 0;
};
testing::Environment* const silentClient = testing::AddGlobalTestEnvironment(new SilentClient);

TEST(PipeServer, FailsOnAnythingButTheReadyByteAndLeavesNoInstance)
{
    QXTest::LogCapture log;
    const struct
    {
        const wchar_t* bytes;
        const wchar_t* logged;
    } messages[] = {
        {L"07", L"ReadFile Error: 0. bSuccess: 1, Data: 7\n"},
        {L"02", L"ReadFile Error: 0. bSuccess: 1, Data: 2\n"},
        {L"-", L"ReadFile Error: 0. bSuccess: 1, Data: 0\n"},
        {L"0101", L"ReadFile Error: 234. bSuccess: 0, Data: 1\n"},
    };
    ATL::CHandle notAnEvent(reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x7FF0)));
    size_t handles = 0;
    for (const auto& message : messages)
    {
        SCOPED_TRACE(QXTest::Narrow(message.bytes));
        const std::wstring pipe = UniquePipeName();
        ClientRun client(L"raw " + pipe + L" " + message.bytes);
        ATL::CHandle token;
        EXPECT_FALSE(QXCommon::CPipeImpersonateServer::GetToken(token, pipe, notAnEvent));
        EXPECT_EQ(token.m_h, nullptr);
        EXPECT_FALSE(Impersonating());
        EXPECT_LOG(log, message.logged);
        // No close byte: the server disconnected the client.
        EXPECT_NE(client.Wait().output.find("reply error 233"), std::string::npos) << client.Wait().output;
        EXPECT_EQ(OpenAsClient(pipe), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
        if (handles == 0)
            handles = QXTest::OpenHandleCount(); // after the first: the system's own handles are made
    }
    notAnEvent.Detach();
    EXPECT_LOG(log, L"SetEvent() failed. Error code=[6]\n");
    EXPECT_LOG(log, L"CreatePipeAndGetMessage failed. Error: 13\n");

    ATL::CHandle token;
    EXPECT_FALSE(QXCommon::CPipeImpersonateServer::GetToken(token, L"C:\\not-a-pipe", nullptr));
    EXPECT_TRUE(log.HasFragment(L"Could not create pipe C:\\not-a-pipe. Error: ")) << log.Dump();
    EXPECT_EQ(QXTest::OpenHandleCount(), handles);
}

TEST(PipeServer, AcceptsAnEarlyClientAndRefusesASecondOne)
{
    QXTest::LogCapture log;
    {
        // A client that connected before the server's ConnectNamedPipe.
        EarlyClient early{UniquePipeName()};
        early.capture = GetDbgManager()->SetSink(&EarlyClient::Sink, &early, &early.captureContext);
        ATL::CHandle token;
        const bool taken = QXCommon::CPipeImpersonateServer::GetToken(token, early.pipe, nullptr);
        GetDbgManager()->SetSink(early.capture, early.captureContext);
        EXPECT_TRUE(taken);
        EXPECT_NE(token.m_h, nullptr);
        EXPECT_LOG(log, L"URM - the client had already connected\n");
        BYTE reply = 0;
        DWORD read = 0;
        EXPECT_TRUE(ReadFile(early.client, &reply, 1, &read, nullptr));
        EXPECT_EQ(reply, 2);
    }

    // While one client holds the only instance, a second process is refused.
    const std::wstring pipe = UniquePipeName();
    ATL::CHandle ready(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    bool taken = false;
    std::thread server([&] {
        ATL::CHandle token;
        taken = QXCommon::CPipeImpersonateServer::GetToken(token, pipe, ready) && token != nullptr;
    });
    EXPECT_EQ(WaitForSingleObject(ready, 10000), WAIT_OBJECT_0);
    ATL::CHandle first = ConnectWhenListening(pipe);
    ASSERT_NE(first.m_h, nullptr);
    DWORD flags = 0, outSize = 0, inSize = 0, instances = 0, mode = 0;
    EXPECT_TRUE(GetNamedPipeInfo(first, &flags, &outSize, &inSize, &instances));
    EXPECT_EQ(flags, static_cast<DWORD>(PIPE_TYPE_MESSAGE));
    EXPECT_EQ(instances, 1u);
    EXPECT_EQ(inSize + outSize, 64u);
    EXPECT_TRUE(GetNamedPipeHandleStateW(first, &mode, nullptr, nullptr, nullptr, nullptr, 0));
    EXPECT_EQ(mode & PIPE_NOWAIT, 0u);
    ClientRun second(L"raw " + pipe + L" 01");
    EXPECT_NE(second.Wait().output.find("open 231"), std::string::npos) << second.Wait().output;
    EXPECT_EQ(CreateNamedPipeW(pipe.c_str(), PIPE_ACCESS_DUPLEX, PIPE_TYPE_MESSAGE, 1, 32, 32, 0, nullptr),
              INVALID_HANDLE_VALUE);
    EXPECT_EQ(Exchange(first, 1), 2);
    server.join();
    EXPECT_TRUE(taken);
}

TEST(PipeClient, PollsWithALinearBackOff)
{
    QXTest::LogCapture log;
    ATL::CHandle own = ProcessToken();
    const struct
    {
        int timeout, step, answerOnCall;
    } cases[] = {{0, 10, 0}, {10000, 1, 3}, {400, 30, 0}};
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.timeout);
        log.Clear();
        std::vector<long long> calls;
        const auto start = Clock::now();
        QXCommon::CPipeImpersonateClient client(L"\\\\.\\pipe\\qxtest-polled", own, [&](const std::wstring& name) {
            EXPECT_EQ(name, L"\\\\.\\pipe\\qxtest-polled");
            calls.push_back(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
            SetLastError(ERROR_FILE_NOT_FOUND);
            return static_cast<int>(calls.size()) == c.answerOnCall ? 5 : 0;
        });
        const BOOL connected = client.ConnectAndImpersonate(c.timeout, c.step);
        const bool impersonated = Impersonating();
        EXPECT_EQ(client.RevertToSelf(), connected);
        EXPECT_FALSE(Impersonating());
        EXPECT_TRUE(log.HasFragment(L"(timeout is set to [" + std::to_wstring(c.timeout) + L"]ms) after [" +
                                    std::to_wstring(calls.size()) + L"] attempts\n"))
            << log.Dump();
        if (c.answerOnCall != 0)
        {
            EXPECT_TRUE(connected && impersonated);
            EXPECT_EQ(calls.size(), static_cast<size_t>(c.answerOnCall));
            EXPECT_LOG(log, L"Does Pipe exist - returning SUCCESS");
            EXPECT_LOG(log, L"Connect and Impersonate - success\n");
            continue;
        }
        EXPECT_FALSE(connected || impersonated);
        EXPECT_LOG(log, L"Could not Connect to Pipe \"\\\\.\\pipe\\qxtest-polled\". Error: 2\n");
        EXPECT_LOG(log, L"Does Pipe exist - returning FAILED");
        if (c.timeout == 0)
        {
            EXPECT_EQ(calls.size(), 1u);
            continue;
        }
        // Pauses of 0, step, 2·step...: each gap at least one step longer.
        ASSERT_GE(calls.size(), 4u);
        for (size_t k = 1; k < calls.size(); ++k)
        {
            EXPECT_GE(calls[k] - calls[k - 1], static_cast<long long>(k - 1) * c.step - 2) << k;
            EXPECT_LT(calls[k], c.timeout + 5);
        }
        EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count(), c.timeout);
    }
    QXCommon::CPipeImpersonateClient empty(L"\\\\.\\pipe\\qxtest-polled", own, nullptr);
    EXPECT_THROW(empty.ConnectAndImpersonate(0, 0), std::bad_function_call);
}

TEST(PipeClient, RefusesWithoutAnImpersonatedTokenAndCopiesOwnIt)
{
    QXTest::LogCapture log;
    // A listening pipe that nothing may open.
    const std::wstring pipe = UniquePipeName();
    ATL::CHandle listening(CreateNamedPipeW(pipe.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, PIPE_TYPE_MESSAGE,
                                            1, 32, 32, 0, nullptr));
    ATL::CHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const auto exists = [](const std::wstring&) { return 1; };
    const struct
    {
        HANDLE token;
        const wchar_t* logged;
    } tokens[] = {
        {nullptr, L"m_hUserToken == NULL\n"},
        {reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x7FF0)), L"Failed to DuplicateHandle - error 6\n"},
        {event, L"Could not impersonate. Error: "},
    };
    for (const auto& t : tokens)
    {
        SCOPED_TRACE(QXTest::Narrow(t.logged));
        QXCommon::CPipeImpersonateClient client(pipe, t.token, exists);
        EXPECT_FALSE(client.ConnectAndImpersonate(0, 0));
        EXPECT_TRUE(log.HasFragment(t.logged)) << log.Dump();
        EXPECT_FALSE(Impersonating());
        EXPECT_FALSE(client.SendReadyMessage());
        EXPECT_FALSE(client.RevertToSelf());
    }
    EXPECT_LOG(log, L"The AccesssToken is NULL - Impersonation was not successful\n");
    EXPECT_LOG(log, L"m_pAccessToken == NULL\n");
    EXPECT_TRUE(log.HasFragment(L"Could not Impersonate Pipe \"" + pipe + L"\". Error: ")) << log.Dump();
    OVERLAPPED overlapped = {};
    overlapped.hEvent = event;
    EXPECT_FALSE(ConnectNamedPipe(listening, &overlapped));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_IO_PENDING)) << "a refused client opened the pipe";
    CancelIo(listening);
    listening.Close();

    // A copy holds its own token: it completes the exchange after the
    // original is gone; an assigned one likewise.
    const std::wstring served = UniquePipeName();
    ATL::CHandle own = ProcessToken();
    for (int round = 0; round < 2; ++round)
    {
        ATL::CHandle token;
        std::thread server([&] { QXCommon::CPipeImpersonateServer::GetToken(token, served, nullptr); });
        std::optional<QXCommon::CPipeImpersonateClient> kept;
        {
            QXCommon::CPipeImpersonateClient original(served, own, [](const std::wstring& name) {
                return WaitNamedPipeW(name.c_str(), 1) ? 1 : 0;
            });
            ASSERT_TRUE(original.ConnectAndImpersonate(10000, 1));
            if (round == 0)
                kept.emplace(original);
            else
                kept.emplace(L"unused", nullptr, nullptr) = original;
        }
        EXPECT_TRUE(kept->SendReadyMessage());
        EXPECT_TRUE(kept->RevertToSelf());
        EXPECT_FALSE(Impersonating());
        server.join();
        EXPECT_NE(token.m_h, nullptr);
    }
}
