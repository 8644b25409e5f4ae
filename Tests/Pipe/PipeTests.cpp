// The identity hand-over over a named pipe: this process serves; the client
// is qxpipe_client.exe (another process, under a token with Administrators
// deny-only), the library's client on this thread, or a thread that writes
// raw bytes to the pipe.

#include "QXCommon/Guid.h"
#include "QXCommon/PipeImpersonateClient.h"
#include "QXCommon/PipeImpersonateServer.h"
#include "QXTestSupport.h"
#include "TokenTestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <optional>
#include <tuple>

namespace
{
using QXCommon::CPipeImpersonateClient;
using QXCommon::CPipeImpersonateServer;
using Clock = std::chrono::steady_clock;
using namespace std::string_literals;

long long MsSince(Clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}
std::wstring UniquePipeName() { return L"\\\\.\\pipe\\qxtest-" + QXCommon::CGuid::CreateNewAsString(); }
bool Impersonating() { return QXTest::DescribeImpersonation() != L"nothing"; }
int PipeListens(const std::wstring& pipe) { return WaitNamedPipeW(pipe.c_str(), 1) ? 1 : 0; }

ATL::CHandle ProcessToken()
{
    HANDLE token = nullptr;
    return ATL::CHandle(OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, &token) ? token : nullptr);
}

HANDLE OpenAsClient(const std::wstring& pipe)
{
    return CreateFileW(pipe.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                       SECURITY_SQOS_PRESENT | SECURITY_IMPERSONATION, nullptr);
}

// On a thread of its own: opens the pipe as the library's client does (once
// it exists), writes the bytes as one message and reads one byte back;
// get() gives "open <error>", "reply <byte>" or "reply error <error>". A plain
// system thread, so that no runtime lock or cached thread object adds handles
// while the test counts them.
class RawClient
{
public:
    RawClient(const std::wstring& pipe, const std::string& bytes)
        : m_pipe(pipe), m_bytes(bytes), m_thread(CreateThread(nullptr, 0, &RawClient::Run, this, 0, nullptr))
    {
    }
    ~RawClient() { get(); }
    const std::string& get()
    {
        if (m_thread != nullptr)
            WaitForSingleObject(m_thread, INFINITE);
        return m_result;
    }

private:
    static DWORD WINAPI Run(void* self)
    {
        static_cast<RawClient*>(self)->Exchange();
        return 0;
    }
    void Exchange()
    {
        HANDLE opened = INVALID_HANDLE_VALUE;
        for (int k = 0; k < 1000 && (opened = OpenAsClient(m_pipe)) == INVALID_HANDLE_VALUE; ++k, Sleep(10))
            if (GetLastError() != ERROR_FILE_NOT_FOUND)
                break;
        if (opened == INVALID_HANDLE_VALUE)
        {
            m_result = "open " + std::to_string(GetLastError());
            return;
        }
        ATL::CHandle owner(opened);
        DWORD done = 0;
        BYTE reply = 0;
        WriteFile(opened, m_bytes.data(), static_cast<DWORD>(m_bytes.size()), &done, nullptr);
        m_result = ReadFile(opened, &reply, 1, &done, nullptr) ? "reply " + std::to_string(reply)
                                                                : "reply error " + std::to_string(GetLastError());
    }

    const std::wstring m_pipe;
    const std::string m_bytes;
    std::string m_result;
    ATL::CHandle m_thread;
};

// qxpipe_client.exe handing its identity over `count` times; the server sets
// the named event `ready` when its pipe listens.
struct ClientProcess
{
    explicit ClientProcess(int count)
        : run(std::async(std::launch::async, [line = L"\"" + QXTest::HelperPath(L"qxpipe_client.exe") + L"\" " + pipe +
                                                     L" " + std::to_wstring(count) + L" " + eventName] {
              return QXTest::RunProcess(line, 30000);
          }))
    {
    }
    const std::wstring pipe = UniquePipeName();
    const std::wstring eventName = L"Local\\" + pipe.substr(9);
    ATL::CHandle ready{CreateEventW(nullptr, FALSE, FALSE, eventName.c_str())};
    std::future<QXTest::ProcessResult> run;
};

// A client that connects and writes the ready byte from the log sink, when
// the server logs that its pipe exists: before its ConnectNamedPipe. While
// it holds the only instance, a second client is refused.
struct EarlyClient
{
    std::wstring pipe;
    QXDbgLogSink capture = nullptr;
    void* captureContext = nullptr;
    ATL::CHandle client;
    DWORD flags = 0, outSize = 0, inSize = 0, instances = 0, secondError = 0;
    static void Sink(void* context, const QXDbgLogRecord& record)
    {
        auto* self = static_cast<EarlyClient*>(context);
        self->capture(self->captureContext, record);
        if (std::wstring(record.message) != L"Pipe server created about to wait for client connection...\n")
            return;
        self->client.Attach(OpenAsClient(self->pipe));
        DWORD written = 0;
        WriteFile(self->client, "\x01", 1, &written, nullptr);
        GetNamedPipeInfo(self->client, &self->flags, &self->outSize, &self->inSize, &self->instances);
        self->secondError = OpenAsClient(self->pipe) == INVALID_HANDLE_VALUE ? GetLastError() : 0;
    }
};

// A server whose client never comes gives up after 5000 ms. It waits on its
// own thread while the whole suite runs and is checked at the end.
struct SilentClient : testing::Environment
{
    void SetUp() override
    {
        server = std::async(std::launch::async, [pipe = pipe] {
            const auto start = Clock::now();
            ATL::CHandle token;
            const bool taken = CPipeImpersonateServer::GetToken(token, pipe, nullptr);
            return std::tuple(taken, GetLastError(), MsSince(start));
        });
    }
    void TearDown() override
    {
        const auto [taken, error, ms] = server.get();
        EXPECT_TRUE(!taken && error == WAIT_TIMEOUT && ms >= 4900) << taken << " " << error << " " << ms;
        EXPECT_EQ(OpenAsClient(pipe), INVALID_HANDLE_VALUE) << "an instance was left behind";
    }
    const std::wstring pipe = UniquePipeName();
    std::future<std::tuple<bool, DWORD, long long>> server;
};
testing::Environment* const silentClient = testing::AddGlobalTestEnvironment(new SilentClient);

std::string UserOf(HANDLE token) // "S-1-5-..."
{
    const std::string described = QXTest::Narrow(QXTest::DescribeToken(token)); // "user S-...; groups ..."
    return described.substr(5, described.find(';') - 5);
}
// The handles of the kinds the server makes (pipe files, events, tokens,
// threads), once those of threads that have just ended are gone: a leak stays.
// Other kinds are left out, as Wine makes objects of its own lazily (a mutex
// on a slow exchange, for one).
size_t ServerKindHandleCount()
{
    return QXTest::OpenHandleCount({L"File", L"Event", L"Token", L"Thread"});
}

size_t SettledHandleCount(size_t expected)
{
    size_t count = ServerKindHandleCount();
    for (int wait = 0; wait < 50 && count > expected; ++wait)
    {
        Sleep(20);
        count = ServerKindHandleCount();
    }
    return count;
}

} // namespace

TEST(PipeHandOver, ClientIdentityArrivesAsAUsablePrimaryToken)
{
    ATL::CHandle own = ProcessToken();
    const std::string ownIdentity = QXTest::Narrow(QXTest::DescribeToken(own));
    // What qxpipe_client hands over.
    const std::string clientIdentity = QXTest::Narrow(QXTest::DescribeToken(QXTest::AdminDenyOnlyToken()));
    ATL::CHandle earlier = QXTest::RestrictedProcessToken({L"S-1-1-0"});
    bool platformGaveOwnToken = false;
    // The server's thread impersonates nothing, or an earlier identity.
    for (HANDLE before : {static_cast<HANDLE>(nullptr), static_cast<HANDLE>(earlier)})
    {
        SCOPED_TRACE(before == nullptr ? "not impersonating" : "impersonating an earlier identity");
        QXTest::RevertAtExit revert;
        ASSERT_TRUE(before == nullptr || SetThreadToken(nullptr, QXTest::ImpersonationCopy(before)));
        const std::wstring was = QXTest::DescribeImpersonation();
        ClientProcess client(1);
        ATL::CHandle token;
        {
            CPipeImpersonateServer server(client.pipe, client.ready);
            ASSERT_TRUE(server.ConnectAndImpersonate());
            ATL::CAccessToken impersonated;
            TOKEN_TYPE type = TokenPrimary;
            SECURITY_IMPERSONATION_LEVEL level = SecurityAnonymous;
            EXPECT_TRUE(impersonated.GetThreadToken(TOKEN_QUERY) && impersonated.GetType(&type) &&
                        impersonated.GetImpersonationLevel(&level) && type == TokenImpersonation &&
                        level == SecurityImpersonation) << type << " " << level;
            server.GetTokenAsPrimaryToken(token);
        }
        EXPECT_EQ(QXTest::DescribeImpersonation(), was);
        const std::string output = client.run.get().output;
        EXPECT_NE(output.find("result ok=1 failed=0 left=0 handles+0"), std::string::npos) << output;

        ASSERT_NE(token.m_h, nullptr);
        TOKEN_TYPE type = TokenImpersonation;
        DWORD size = 0;
        EXPECT_TRUE(GetTokenInformation(token, TokenType, &type, sizeof type, &size) && type == TokenPrimary);
        EXPECT_EQ(UserOf(token), UserOf(own));
        QXTest::ChildProcess asClient(token);
        EXPECT_TRUE(asClient.Ready());
        EXPECT_EQ(asClient.Finish(), 0u);

        ASSERT_NE(clientIdentity, ownIdentity) << "the client's token must differ from the server's";
        const std::string arrived = QXTest::Narrow(QXTest::DescribeToken(token));
        if (arrived == ownIdentity)
            platformGaveOwnToken = true;
        else
            EXPECT_EQ(arrived, clientIdentity);
    }
    if (platformGaveOwnToken)
        GTEST_SKIP() << "ImpersonateNamedPipeClient gives the server its own process token here (Wine impersonates "
                        "self), so the client's groups cannot arrive; type, level, user, use and thread states were "
                        "checked";
}

TEST(PipeHandOver, AThousandInARowLeaveNoHandleAndNoImpersonation)
{
    ClientProcess client(1000);
    int ok = 0, left = 0;
    size_t handles = 0;
    for (ATL::CHandle token; ok < 1000 && CPipeImpersonateServer::GetToken(token, client.pipe, client.ready) &&
                             token != nullptr;
         ++ok)
    {
        left += Impersonating();
        if (ok == 9) // by now the system's own lazily made handles exist
            handles = ServerKindHandleCount();
    }
    EXPECT_EQ(ok, 1000);
    EXPECT_EQ(left, 0);
    EXPECT_LE(SettledHandleCount(handles), handles);
    const std::string output = client.run.get().output;
    EXPECT_NE(output.find("result ok=1000 failed=0 left=0 handles+0"), std::string::npos) << output;
}

TEST(PipeHandOver, InspectTakesItsChildsIdentity)
{
    const auto run = QXTest::RunInspect(L"--json --log handover --restricted");
    EXPECT_EQ(run.exitCode, 0u) << run.output;
    for (const std::string& fragment :
         {"\"type\": \"primary\""s, "\"restricted\": true"s, "\"S-1-5-32-544\""s, "\"milliseconds\": "s,
          "\"sid\": \"" + UserOf(ProcessToken()) + "\"",
          "CPipeImpersonateClient::ConnectAndImpersonate: Connect and Impersonate - success"s})
        EXPECT_NE(run.output.find(fragment), std::string::npos) << fragment << "\n" << run.output;
    EXPECT_EQ(QXTest::RunInspect(L"handover extra").exitCode, 2u);
}

TEST(PipeServer, FailsOnAnythingButTheReadyByteAndLeavesNoInstance)
{
    QXTest::LogCapture log;
    const struct
    {
        std::string bytes;
        const wchar_t* logged;
    } messages[] = {{"\x07", L"ReadFile Error: 0. bSuccess: 1, Data: 7\n"},
                    {"\x02", L"ReadFile Error: 0. bSuccess: 1, Data: 2\n"},
                    {"", L"ReadFile Error: 0. bSuccess: 1, Data: 0\n"},
                    {"\x01\x01", L"ReadFile Error: 234. bSuccess: 0, Data: 1\n"}};
    ATL::CHandle notAnEvent(reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x7FF0)));
    size_t handles = 0;
    for (const auto& message : messages)
    {
        if (&message == &messages[1]) // after a first exchange the system's own handles exist
            handles = ServerKindHandleCount();
        SCOPED_TRACE(QXTest::Narrow(message.logged));
        const std::wstring pipe = UniquePipeName();
        RawClient client(pipe, message.bytes);
        ATL::CHandle token;
        EXPECT_FALSE(CPipeImpersonateServer::GetToken(token, pipe, notAnEvent));
        EXPECT_FALSE(Impersonating());
        EXPECT_LOGGED(log, message.logged);
        // No close byte: the server disconnected the client and left no instance.
        EXPECT_EQ(client.get(), "reply error 233");
        EXPECT_EQ(OpenAsClient(pipe), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    }
    notAnEvent.Detach();
    EXPECT_LOGGED(log, L"SetEvent() failed. Error code=[6]\n");
    EXPECT_LOGGED(log, L"CreatePipeAndGetMessage failed. Error: 13\n");

    ATL::CHandle token;
    EXPECT_FALSE(CPipeImpersonateServer::GetToken(token, L"C:\\not-a-pipe", nullptr));
    EXPECT_TRUE(log.HasFragment(L"Could not create pipe C:\\not-a-pipe. Error: ")) << log.Dump();
    EXPECT_EQ(SettledHandleCount(handles), handles);
}

TEST(PipeServer, AcceptsAnEarlyClientAndRefusesASecondOne)
{
    QXTest::LogCapture log;
    EarlyClient early{UniquePipeName()};
    early.capture = GetDbgManager()->SetSink(&EarlyClient::Sink, &early, &early.captureContext);
    ATL::CHandle token;
    const bool taken = CPipeImpersonateServer::GetToken(token, early.pipe, nullptr);
    GetDbgManager()->SetSink(early.capture, early.captureContext);
    EXPECT_TRUE(taken && token != nullptr);
    EXPECT_LOGGED(log, L"URM - the client had already connected\n");
    BYTE reply = 0;
    DWORD done = 0;
    EXPECT_TRUE(ReadFile(early.client, &reply, 1, &done, nullptr) && reply == 2);

    EXPECT_TRUE(early.flags == PIPE_TYPE_MESSAGE && early.instances == 1 && early.outSize == 32 && early.inSize == 32);
    EXPECT_EQ(early.secondError, static_cast<DWORD>(ERROR_PIPE_BUSY));
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
        CPipeImpersonateClient client(pipe, own, [&](const std::wstring& name) {
            EXPECT_EQ(name, pipe);
            calls.push_back(MsSince(start));
            SetLastError(ERROR_FILE_NOT_FOUND);
            return 0;
        });
        EXPECT_FALSE(client.ConnectAndImpersonate(c.timeout, c.step));
        EXPECT_FALSE(Impersonating());
        EXPECT_LOGGED(log, L"Could not Connect to Pipe \"" + pipe + L"\". Error: 2\n");
        EXPECT_LOGGED(log, L"Does Pipe exist - returning FAILED");
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
    CPipeImpersonateClient empty(pipe, own, nullptr);
    EXPECT_THROW(empty.ConnectAndImpersonate(0, 0), std::bad_function_call);
}

TEST(PipeClient, RefusesWithoutAnImpersonatedTokenAndCopiesOwnIt)
{
    QXTest::LogCapture log;
    // A listening pipe that a refused client must not open (it would wait for
    // the close byte and succeed).
    const std::wstring pipe = UniquePipeName();
    ATL::CHandle listening(CreateNamedPipeW(pipe.c_str(), PIPE_ACCESS_DUPLEX, PIPE_TYPE_MESSAGE, 1, 32, 32, 0, nullptr));
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
        CPipeImpersonateClient client(pipe, t.token, &PipeListens);
        EXPECT_FALSE(client.ConnectAndImpersonate(0, 0));
        EXPECT_TRUE(log.HasFragment(t.logged)) << log.Dump();
        EXPECT_FALSE(Impersonating());
        EXPECT_FALSE(client.SendReadyMessage());
        EXPECT_FALSE(client.RevertToSelf());
    }
    EXPECT_LOGGED(log, L"The AccesssToken is NULL - Impersonation was not successful\n");
    EXPECT_LOGGED(log, L"m_pAccessToken == NULL\n");
    EXPECT_TRUE(log.HasFragment(L"Could not Impersonate Pipe \"" + pipe + L"\". Error: ")) << log.Dump();

    // Assignment takes name, token and callable; a copy made while
    // impersonating completes the exchange after the others are gone, and
    // neither side reports an error.
    log.Clear();
    const std::wstring served = UniquePipeName();
    ATL::CHandle own = ProcessToken();
    auto server = std::async(std::launch::async, [&] {
        ATL::CHandle token;
        return CPipeImpersonateServer::GetToken(token, served, nullptr) && token != nullptr;
    });
    std::optional<CPipeImpersonateClient> copy;
    {
        CPipeImpersonateClient original(served, own, &PipeListens);
        CPipeImpersonateClient assigned(L"\\\\.\\pipe\\qxtest-unused", nullptr, nullptr);
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
