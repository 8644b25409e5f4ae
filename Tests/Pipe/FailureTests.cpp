// What each side does when the other misbehaves or is missing: messages other
// than the ready byte, no client, a client that came early, a second client,
// the pipe's shape, and the client's own preconditions, polling and copies.

#include "PipeSuite.h"

#include <chrono>
#include <functional>
#include <optional>
#include <thread>
#include <vector>

using namespace PipeTest;

namespace
{
using Clock = std::chrono::steady_clock;

long long MsSince(Clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

HANDLE OpenAsClient(const std::wstring& pipe)
{
    return CreateFileW(pipe.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                       SECURITY_SQOS_PRESENT | SECURITY_IMPERSONATION, nullptr);
}

int PipeListens(const std::wstring& pipe)
{
    return WaitNamedPipeW(pipe.c_str(), 1) ? 1 : 0;
}

// A client that connects and writes the ready byte from the log sink, when
// the server logs that its pipe exists: before its ConnectNamedPipe.
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
        if (std::wstring(record.message) != L"Pipe server created about to wait for client connection...\n")
            return;
        self->client.Attach(OpenAsClient(self->pipe));
        const BYTE ready = 1;
        DWORD written = 0;
        WriteFile(self->client, &ready, 1, &written, nullptr);
    }
};

// A server whose client never comes gives up after 5000 ms. It waits on its
// own thread while the whole suite runs and is checked at the end.
class SilentClient : public testing::Environment
{
    void SetUp() override
    {
        m_thread = std::thread([this] {
            const auto start = Clock::now();
            ATL::CHandle token;
            m_taken = QXCommon::CPipeImpersonateServer::GetToken(token, m_pipe, nullptr);
            m_error = GetLastError();
            m_ms = MsSince(start);
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
    const std::wstring m_pipe = UniquePipeName();
    std::thread m_thread;
    bool m_taken = true;
    DWORD m_error = 0;
    long long m_ms = 0;
};
testing::Environment* const silentClient = testing::AddGlobalTestEnvironment(new SilentClient);
} // namespace

TEST(PipeServer, FailsOnAnythingButTheReadyByteAndLeavesNoInstance)
{
    QXTest::LogCapture log;
    const struct
    {
        const wchar_t* bytes; // "-": an empty message
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
        auto client = StartClient(L"raw " + pipe + L" " + message.bytes);
        ATL::CHandle token;
        EXPECT_FALSE(QXCommon::CPipeImpersonateServer::GetToken(token, pipe, notAnEvent));
        EXPECT_FALSE(Impersonating());
        EXPECT_LOG(log, message.logged);
        // No close byte: the server disconnected the client and left no instance.
        const std::string output = client.get().output;
        EXPECT_NE(output.find("reply error 233"), std::string::npos) << output;
        EXPECT_EQ(OpenAsClient(pipe), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
        if (handles == 0) // after the first exchange the system's own handles exist
            handles = QXTest::OpenHandleCount();
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
    EarlyClient early{UniquePipeName()};
    early.capture = GetDbgManager()->SetSink(&EarlyClient::Sink, &early, &early.captureContext);
    ATL::CHandle token;
    const bool taken = QXCommon::CPipeImpersonateServer::GetToken(token, early.pipe, nullptr);
    GetDbgManager()->SetSink(early.capture, early.captureContext);
    EXPECT_TRUE(taken && token != nullptr);
    EXPECT_LOG(log, L"URM - the client had already connected\n");
    BYTE reply = 0;
    DWORD done = 0;
    EXPECT_TRUE(ReadFile(early.client, &reply, 1, &done, nullptr) && reply == 2);

    // While one client holds the only instance, another process is refused.
    const std::wstring pipe = UniquePipeName();
    ATL::CHandle ready(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    auto server = std::async(std::launch::async, [&] {
        ATL::CHandle token;
        return QXCommon::CPipeImpersonateServer::GetToken(token, pipe, ready) && token != nullptr;
    });
    ASSERT_EQ(WaitForSingleObject(ready, 10000), WAIT_OBJECT_0);
    ATL::CHandle first(OpenAsClient(pipe));
    ASSERT_NE(first.m_h, INVALID_HANDLE_VALUE);
    DWORD flags = 0, outSize = 0, inSize = 0, instances = 0;
    EXPECT_TRUE(GetNamedPipeInfo(first, &flags, &outSize, &inSize, &instances) && flags == PIPE_TYPE_MESSAGE &&
                instances == 1 && outSize == 32 && inSize == 32);
    const std::string output = StartClient(L"raw " + pipe + L" 01").get().output;
    EXPECT_NE(output.find("open 231"), std::string::npos) << output;
    const BYTE readyByte = 1;
    EXPECT_TRUE(WriteFile(first, &readyByte, 1, &done, nullptr) && ReadFile(first, &reply, 1, &done, nullptr));
    EXPECT_EQ(reply, 2);
    EXPECT_TRUE(server.get());
}

TEST(PipeClient, PollsWithALinearBackOff)
{
    QXTest::LogCapture log;
    ATL::CHandle own = ProcessToken();
    const std::wstring pipe = L"\\\\.\\pipe\\qxtest-polled";
    const struct
    {
        int timeout, step;
        size_t fewest, most; // calls
    } cases[] = {{0, 10, 1, 1}, {-5, 10, 1, 1}, {400, 30, 4, 6}};
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.timeout);
        log.Clear();
        std::vector<long long> calls;
        const auto start = Clock::now();
        QXCommon::CPipeImpersonateClient client(pipe, own, [&](const std::wstring& name) {
            EXPECT_EQ(name, pipe);
            calls.push_back(MsSince(start));
            SetLastError(ERROR_FILE_NOT_FOUND);
            return 0;
        });
        EXPECT_FALSE(client.ConnectAndImpersonate(c.timeout, c.step));
        EXPECT_FALSE(Impersonating());
        EXPECT_LOG(log, L"Could not Connect to Pipe \"" + pipe + L"\". Error: 2\n");
        EXPECT_LOG(log, L"Does Pipe exist - returning FAILED");
        EXPECT_TRUE(log.HasFragment(L"(timeout is set to [" + std::to_wstring(c.timeout) + L"]ms) after [" +
                                    std::to_wstring(calls.size()) + L"] attempts\n"))
            << log.Dump();
        // Pauses of 0, step, 2·step...: each gap a step longer than the one before.
        ASSERT_GE(calls.size(), c.fewest);
        EXPECT_LE(calls.size(), c.most);
        for (size_t k = 1; k < calls.size(); ++k)
            EXPECT_GE(calls[k] - calls[k - 1], static_cast<long long>(k - 1) * c.step - 2) << k;
        EXPECT_GE(MsSince(start), c.timeout);
    }
    QXCommon::CPipeImpersonateClient empty(pipe, own, nullptr);
    EXPECT_THROW(empty.ConnectAndImpersonate(0, 0), std::bad_function_call);
}

TEST(PipeClient, RefusesWithoutAnImpersonatedTokenAndCopiesOwnIt)
{
    QXTest::LogCapture log;
    // A listening pipe that a refused client must not open.
    const std::wstring pipe = UniquePipeName();
    ATL::CHandle listening(CreateNamedPipeW(pipe.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, PIPE_TYPE_MESSAGE,
                                            1, 32, 32, 0, nullptr));
    ATL::CHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
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
        QXCommon::CPipeImpersonateClient client(pipe, t.token, &PipeListens);
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
    CancelIoEx(listening, &overlapped);
    WaitForSingleObject(event, 5000);

    // Assignment takes name, token and callable; a copy made while
    // impersonating completes the exchange after the others are gone, and
    // neither side reports an error.
    log.Clear();
    const std::wstring served = UniquePipeName();
    ATL::CHandle own = ProcessToken();
    auto server = std::async(std::launch::async, [&] {
        ATL::CHandle token;
        return QXCommon::CPipeImpersonateServer::GetToken(token, served, nullptr) && token != nullptr;
    });
    std::optional<QXCommon::CPipeImpersonateClient> copy;
    {
        QXCommon::CPipeImpersonateClient original(served, own, &PipeListens);
        QXCommon::CPipeImpersonateClient assigned(L"\\\\.\\pipe\\qxtest-unused", nullptr, nullptr);
        assigned = original;
        ASSERT_TRUE(assigned.ConnectAndImpersonate(10000, 1));
        copy.emplace(assigned);
    }
    EXPECT_TRUE(copy->SendReadyMessage());
    EXPECT_TRUE(copy->RevertToSelf());
    EXPECT_FALSE(Impersonating());
    EXPECT_TRUE(server.get());
    for (const auto& entry : log.Entries())
        EXPECT_NE(entry.level, 1) << QXTest::Narrow(entry.text);
}
