// The identity hand-over over a named pipe: this process serves; the client
// is qxpipe_client.exe (another process, under a token with Administrators
// deny-only), the library's client on this thread, or a thread that plays a
// hostile peer with raw pipe calls.

#include "QXCommon/Guid.h"
#include "QXCommon/PipeImpersonateClient.h"
#include "QXCommon/PipeImpersonateServer.h"
#include "QXTestSupport.h"
#include "TokenTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <future>
#include <optional>

namespace
{
using QXCommon::CPipeImpersonateClient;
using QXCommon::CPipeImpersonateServer;
using Clock = std::chrono::steady_clock;
using namespace std::string_literals;

constexpr DWORD PeerBoundMs = 20000; // see Peer

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

// "0" when the pipe opens as a client (then closed again), else the error:
// 2 no instance of the name, 231 every instance busy.
std::string OpenError(const std::wstring& pipe)
{
    ATL::CHandle opened(OpenAsClient(pipe));
    if (opened == INVALID_HANDLE_VALUE)
    {
        opened.Detach();
        return std::to_string(GetLastError());
    }
    return "0";
}

// Words({connected, sent, "|", peer.Finish()}) == "1 0 | got 1": a braced
// list, so that the calls in it run from left to right.
struct Word
{
    Word(long long value) : text(std::to_string(value)) {}
    Word(const char* text) : text(text) {}
    Word(const std::string& text) : text(text) {}
    std::string text;
};
std::string Words(std::initializer_list<Word> words)
{
    std::string text;
    for (const Word& word : words)
        text += (text.empty() ? "" : " ") + word.text;
    return text;
}

// A function on a plain system thread, so that no runtime lock or cached
// thread object adds handles while a test counts them. Every body bounds its
// own waits; one that is still running a minute later is a stuck call, which
// ends the run as a failure rather than hanging it.
class SystemThread : QXTest::NoCopy
{
public:
    explicit SystemThread(std::function<void()> body)
        : m_body(std::move(body)), m_thread(CreateThread(nullptr, 0, &SystemThread::Run, this, 0, nullptr))
    {
    }
    ~SystemThread() { Join(); }
    void Join()
    {
        if (m_thread == nullptr || WaitForSingleObject(m_thread, 60000) == WAIT_OBJECT_0)
            return;
        ADD_FAILURE() << "a call is stuck";
        std::fflush(stdout);
        TerminateProcess(GetCurrentProcess(), 3);
    }

private:
    static DWORD WINAPI Run(void* self)
    {
        static_cast<SystemThread*>(self)->m_body();
        return 0;
    }
    std::function<void()> m_body;
    ATL::CHandle m_thread;
};

// A raw peer on a thread of its own: Finish() tells it to stop and gives its
// result. It holds out at most PeerBoundMs on its own, far beyond the
// library's 5000 ms, so that a library call that waits without a bound shows
// as "gave up" instead of hanging the suite.
class Peer : QXTest::NoCopy
{
public:
    ~Peer() { SetEvent(m_stop); }
    const std::string& Finish()
    {
        SetEvent(m_stop);
        m_thread->Join();
        return m_result;
    }

protected:
    void Start(std::function<void()> body) { m_thread.emplace(std::move(body)); }
    // Waits for an overlapped operation or the stop; false (cancelled) when it did not complete.
    bool Await(HANDLE pipe, OVERLAPPED& overlapped, BOOL started)
    {
        if (started || GetLastError() == ERROR_PIPE_CONNECTED)
            return true;
        const HANDLE events[] = {overlapped.hEvent, m_stop};
        if (GetLastError() == ERROR_IO_PENDING && WaitForMultipleObjects(2, events, FALSE, PeerBoundMs) == WAIT_OBJECT_0)
            return true;
        CancelIoEx(pipe, &overlapped);
        DWORD done = 0;
        GetOverlappedResult(pipe, &overlapped, &done, TRUE);
        return false;
    }
    // Holds until Finish(): " held", or " gave up" when the bound came first.
    std::string Hold() { return WaitForSingleObject(m_stop, PeerBoundMs) == WAIT_OBJECT_0 ? " held" : " gave up"; }

    ATL::CHandle m_stop{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    std::string m_result;
    std::optional<SystemThread> m_thread; // made last, by the derived class
};

// Opens the pipe as the library's client does (once it exists), writes the
// bytes as one message and reads one byte back: "reply <byte>" or "reply
// error <error>" ("open <error>" when it could not connect). Without bytes it
// connects and says nothing until Finish(), then reads ("gave up" when the
// bound came first: it closes).
class RawClient : public Peer
{
public:
    RawClient(const std::wstring& pipe, std::optional<std::string> bytes)
    {
        Start([this, pipe, bytes] {
            HANDLE opened = INVALID_HANDLE_VALUE;
            for (int k = 0; k < 1000 && (opened = OpenAsClient(pipe)) == INVALID_HANDLE_VALUE; ++k, Sleep(10))
                if (GetLastError() != ERROR_FILE_NOT_FOUND)
                    break;
            ATL::CHandle owner(opened != INVALID_HANDLE_VALUE ? opened : nullptr);
            DWORD done = 0;
            BYTE reply = 0;
            if (owner == nullptr)
                m_result = "open " + std::to_string(GetLastError());
            else if (!bytes && Hold() != " held")
                m_result = "gave up";
            else if ((!bytes || WriteFile(owner, bytes->data(), static_cast<DWORD>(bytes->size()), &done, nullptr)) &&
                     ReadFile(owner, &reply, 1, &done, nullptr))
                m_result = "reply " + std::to_string(reply);
            else
                m_result = "reply error " + std::to_string(GetLastError());
        });
    }
};

// One listening instance, made on its own thread (whatever the test's thread
// impersonates) before the constructor returns: "nothing" when no client
// came, else "got <byte>", after which it answers; without an answer it says
// nothing until Finish() (" held") or the bound (" gave up").
class RawServer : public Peer
{
public:
    RawServer(const std::wstring& pipe, std::optional<BYTE> answer)
    {
        ATL::CHandle listening(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        Start([this, pipe, answer, listening = listening.m_h] {
            ATL::CHandle server(CreateNamedPipeW(pipe.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                                 PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE, 1, 32, 32, 0, nullptr));
            ATL::CHandle event(CreateEventW(nullptr, FALSE, FALSE, nullptr));
            SetEvent(listening);
            OVERLAPPED overlapped = {};
            overlapped.hEvent = event;
            BYTE byte = 0;
            DWORD done = 0;
            m_result = "nothing";
            if (!Await(server, overlapped, ConnectNamedPipe(server, &overlapped)) ||
                !Await(server, overlapped, ReadFile(server, &byte, 1, &done, &overlapped)))
                return;
            m_result = "got " + std::to_string(byte);
            if (!answer)
                m_result += Hold();
            else
                Await(server, overlapped, WriteFile(server, &*answer, 1, &done, &overlapped));
        });
        WaitForSingleObject(listening, PeerBoundMs);
    }
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
// it holds the only instance, a second client is refused. The modes the
// server asks for are recorded on their way to the system.
struct EarlyClient
{
    std::wstring pipe;
    QXDbgLogSink capture = nullptr;
    void* captureContext = nullptr;
    ATL::CHandle client;
    DWORD flags = 0, outSize = 0, inSize = 0, instances = 0, secondError = 0;
    static inline DWORD openMode = 0, pipeMode = 0;
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
    static HANDLE WINAPI CreateNamedPipeRecorded(LPCWSTR name, DWORD open, DWORD mode, DWORD count, DWORD out,
                                                 DWORD in, DWORD timeout, LPSECURITY_ATTRIBUTES attributes)
    {
        openMode = open;
        pipeMode = mode;
        return CreateNamedPipeW(name, open, mode, count, out, in, timeout, attributes);
    }
};

std::string UserOf(HANDLE token) // "S-1-5-..."
{
    const std::string described = QXTest::Narrow(QXTest::DescribeToken(token)); // "user S-...; groups ..."
    return described.substr(5, described.find(';') - 5);
}
// The handles of the kinds the library makes here (pipe files, events,
// tokens), once those of threads that have just ended are gone: a leak stays.
// Other kinds are left out, as Wine makes objects of its own lazily (a mutex
// on a slow exchange, for one) and the thread runtime keeps a thread handle
// for a system thread that took one of its locks (a log line, for one).
size_t ServerKindHandleCount()
{
    return QXTest::OpenHandleCount({L"File", L"Event", L"Token"});
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


// Every way a call can go, for a thread that impersonates nothing, an
// earlier identity or at anonymous level: the thread comes back as it went
// in, and the client's ready byte goes out only while the thread impersonates
// the user's token that the client put on it (a raw server answers and tells
// what arrived). Outcomes are the calls' results in order, then the peer's.
TEST(PipeHandOver, EveryCallerComesBackAsItWentInAndNoReadyByteGoesOutAsAnyoneElse)
{
    QXTest::LogCapture log;
    QXTest::RevertAtExit revert;
    ATL::CHandle own = ProcessToken(), user = QXTest::AdminDenyOnlyToken(), other = QXTest::RestrictedProcessToken({L"S-1-1-0"});
    ATL::CHandle otherCopy = QXTest::ImpersonationCopy(other);
    HANDLE anonymous = nullptr;
    ASSERT_TRUE(DuplicateTokenEx(own, TOKEN_ALL_ACCESS, nullptr, SecurityAnonymous, TokenImpersonation, &anonymous));
    ATL::CHandle anonymousOwner(anonymous);
    ATL::CHandle notAToken(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    using Body = std::function<std::string(const std::wstring& pipe)>;
    auto client = [&](const std::wstring& pipe, std::optional<HANDLE> token = std::nullopt) {
        return CPipeImpersonateClient(pipe, token ? *token : user.m_h, &PipeListens);
    };
    // The server against a raw client writing these bytes: result, token | reply.
    auto server = [&](std::string bytes) -> Body {
        return [&, bytes](auto& pipe) {
            RawClient peer(pipe, bytes);
            ATL::CHandle token;
            const bool taken = CPipeImpersonateServer::GetToken(token, pipe, nullptr);
            return Words({taken, token != nullptr, "|", peer.Finish()});
        };
    };
    // A client of this token against a raw server answering 2, once
    // ConnectAndImpersonate was asked: its result, the rest's | what arrived.
    auto connected = [&](std::function<std::string(CPipeImpersonateClient&)> rest,
                         std::optional<HANDLE> token = std::nullopt) -> Body {
        return [&, rest, token](auto& pipe) {
            RawServer peer(pipe, 2);
            auto c = client(pipe, token);
            const BOOL connected = c.ConnectAndImpersonate(10000, 1);
            const std::string then = rest(c);
            return Words({connected, then, "|", peer.Finish()});
        };
    };
    auto refused = [&](std::optional<HANDLE> token) {
        return connected([](auto& c) { return Words({c.SendReadyMessage(), c.RevertToSelf()}); }, token);
    };
    const Body exchange = connected([&](auto& c) {
        const BOOL sent = c.SendReadyMessage();
        const bool asUser = QXTest::DescribeImpersonation() == QXTest::DescribeToken(user);
        return Words({sent, asUser, c.RevertToSelf(), c.RevertToSelf()});
    });
    // The body with QXCommon.dll's import of advapi32's function pointed at a stand-in.
    auto patched = [](const char* function, void* standIn, Body body) -> Body {
        return [=](auto& pipe) {
            QXTest::ImportPatch patch(L"QXCommon.dll", "advapi32.dll", function, standIn);
            return patch.Installed() ? body(pipe) : "not patched"s;
        };
    };
    const struct
    {
        const char* name;
        Body body;
        std::string outcome;
        const wchar_t* logged; // a fragment, or null
    } rows[] = {
        {"server takes its client", server("\x01"), "1 1 | reply 2", nullptr},
        {"server refuses a bad byte", server("\x07"), "0 0 | reply error 233", nullptr},
        {"client exchange", exchange, "1 1 1 1 0 | got 1", L"m_pAccessToken == NULL\n"},
        {"client whose thread token opens only as the process",
         patched("OpenThreadToken", (void*)+[](HANDLE thread, DWORD access, BOOL asSelf, PHANDLE token) -> BOOL {
             const BOOL opened = OpenThreadToken(thread, access, TRUE, token);
             if (!opened || asSelf)
                 return opened;
             CloseHandle(*token);
             SetLastError(ERROR_ACCESS_DENIED);
             return FALSE;
         }, exchange), "1 1 1 1 0 | got 1", nullptr},
        {"client whose impersonation cannot be read back",
         patched("GetTokenInformation", (void*)+[](HANDLE token, TOKEN_INFORMATION_CLASS kind, void* data, DWORD size,
                                                   DWORD* length) -> BOOL {
             if (kind != TokenStatistics)
                 return GetTokenInformation(token, kind, data, size, length);
             SetLastError(ERROR_ACCESS_DENIED);
             return FALSE;
         }, refused(std::nullopt)), "0 0 0 | nothing", L"Could not impersonate. Error: 5\n"},
        {"both sides on a thread whose token cannot be opened",
         patched("OpenThreadToken", (void*)+[](HANDLE, DWORD, BOOL, PHANDLE) -> BOOL {
             SetLastError(ERROR_ACCESS_DENIED);
             return FALSE;
         }, [&](auto& pipe) {
             CPipeImpersonateClient c(pipe, user, [](const std::wstring&) { return 1; });
             const BOOL connected = c.ConnectAndImpersonate(0, 0);
             const DWORD error = GetLastError();
             ATL::CHandle token;
             const bool taken = CPipeImpersonateServer::GetToken(token, pipe, nullptr);
             const DWORD serverError = GetLastError();
             return Words({connected, error, c.SendReadyMessage(), "|", taken, serverError});
         }), "0 5 0 | 0 5", L"Cannot save the thread's impersonation. Error: 5\n"},
        {"client gone while impersonating", connected([](auto&) { return "and gone"s; }), "1 and gone | nothing", nullptr},
        {"client whose impersonation the caller ended", connected([](auto& c) {
             RevertToSelf();
             const BOOL sent = c.SendReadyMessage();
             const DWORD error = GetLastError();
             return Words({sent, error, c.RevertToSelf()});
         }), "1 0 1309 1 | nothing", L"The thread does not impersonate the user's token - not connecting\n"},
        {"client under an identity the caller put on", connected([&](auto& c) {
             return Words({SetThreadToken(nullptr, otherCopy), c.SendReadyMessage(), c.RevertToSelf()});
         }), "1 1 0 1 | nothing", nullptr},
        {"client called from another thread", connected([](auto& c) {
             std::string there;
             SystemThread([&] {
                 const BOOL sent = c.SendReadyMessage(), reverted = c.RevertToSelf();
                 const DWORD error = GetLastError();
                 there = Words({sent, reverted, error, Impersonating()});
             }).Join();
             return Words({there, c.RevertToSelf()});
         }), "1 0 0 1444 0 1 | nothing", nullptr},
        {"client copied while impersonating", connected([](auto& c) {
             CPipeImpersonateClient copy(c);
             return Words({copy.SendReadyMessage(), copy.RevertToSelf(), c.RevertToSelf()});
         }), "1 0 0 1 | nothing", nullptr},
        {"client assigned from another", [&](auto& pipe) {
             RawServer peer(pipe, 2);
             CPipeImpersonateClient c(L"\\\\.\\pipe\\qxtest-unused", nullptr, nullptr);
             c = client(pipe);
             return Words({c.ConnectAndImpersonate(10000, 1), c.SendReadyMessage(), c.RevertToSelf(), "|", peer.Finish()});
         }, "1 1 1 | got 1", nullptr},
        {"client reused after its pipe went", [&](auto& pipe) {
             RawServer peer(pipe, 2);
             int calls = 0;
             CPipeImpersonateClient c(pipe, user, [&](const std::wstring&) { return ++calls == 1 ? 1 : 0; });
             return Words({c.ConnectAndImpersonate(0, 0), c.RevertToSelf(), c.ConnectAndImpersonate(0, 0),
                           c.SendReadyMessage(), "|", peer.Finish()});
         }, "1 1 0 0 | nothing", L"The AccesssToken is NULL - Impersonation was not successful\n"},
        {"client that finds no pipe", [&](auto& pipe) {
             CPipeImpersonateClient c(pipe, user, [](const std::wstring&) { SetLastError(ERROR_NO_TOKEN); return 0; });
             const BOOL connected = c.ConnectAndImpersonate(0, 0);
             const DWORD error = GetLastError();
             return Words({connected, error, c.SendReadyMessage(), c.RevertToSelf()});
         }, "0 258 0 0", L"Could not Connect to Pipe \""},
        {"client without a token", refused(nullptr), "0 0 0 | nothing", L"m_hUserToken == NULL\n"},
        {"client with a bad handle", refused(reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x7FF0))), "0 0 0 | nothing",
         L"Failed to DuplicateHandle - error 6\n"},
        {"client with a handle that is no token", refused(notAToken), "0 0 0 | nothing", L"Could not impersonate. Error: "},
    };
    const std::pair<const char*, HANDLE> befores[] = {
        {"nothing", nullptr}, {"an earlier identity", otherCopy}, {"anonymous level", anonymous}};
    for (const auto& [beforeName, before] : befores)
        for (const auto& row : rows)
        {
            SCOPED_TRACE(std::string(row.name) + ", impersonating " + beforeName);
            log.Clear();
            ASSERT_TRUE(SetThreadToken(nullptr, before));
            const std::wstring was = QXTest::DescribeImpersonation();
            EXPECT_EQ(row.body(UniquePipeName()), row.outcome);
            EXPECT_EQ(QXTest::DescribeImpersonation(), was);
            EXPECT_TRUE(row.logged == nullptr || log.HasFragment(row.logged)) << log.Dump();
        }

}

// Each hostile peer runs on its own thread, all at once, since several are
// given the full 5000 ms. The server fails on anything but the ready byte,
// and, while the object still lives, has left no pipe instance behind;
// whatever the peer, no call waits past its bound.
TEST(PipeHandOver, HostilePeersFailTheExchangeWithinTheBoundAndLeaveNothing)
{
    ATL::CHandle user = QXTest::AdminDenyOnlyToken();
    ATL::CHandle notAnEvent(reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x7FF0)));
    // A client the server cannot impersonate (the one row that gets so far).
    QXTest::ImportPatch refused(L"QXCommon.dll", "advapi32.dll", "ImpersonateNamedPipeClient",
                                (void*)+[](HANDLE) -> BOOL {
                                    SetLastError(ERROR_CANNOT_IMPERSONATE);
                                    return FALSE;
                                });
    ASSERT_TRUE(refused.Installed());
    enum Peer { Writes, Silent, Absent, NameTakenFirst, SilentServer };
    const struct
    {
        Peer peer;
        std::string bytes;
        std::wstring logged; // "{}": the pipe's name
        std::string outcome; // result and error | peer | opening the name while the server lives | thread
    } rows[] = {
        {Writes, "\x07", L"ReadFile Error: 0. bSuccess: 1, Data: 7\n", "0 13 | reply error 233 | 2 | 0"},
        {Writes, "\x02", L"ReadFile Error: 0. bSuccess: 1, Data: 2\n", "0 13 | reply error 233 | 2 | 0"},
        {Writes, "", L"ReadFile Error: 0. bSuccess: 1, Data: 0\n", "0 13 | reply error 233 | 2 | 0"},
        {Writes, "\x01\x01", L"ReadFile Error: 234. bSuccess: 0, Data: 1\n", "0 234 | reply error 233 | 2 | 0"},
        {Writes, "\x01", L"ImpersonateNamedPipeClient failed. Error: 1368\n", "0 1368 | reply 2 | 231 | 0"},
        {Silent, "", L"ReadFile Error: 258. bSuccess: 0, Data: 0\n", "0 258 | reply error 233 | 2 | 0"},
        {Absent, "", L"Waiting for pipe - timed out\n", "0 258 | - | 2 | 0"},
        // Where the system ignores FILE_FLAG_FIRST_PIPE_INSTANCE, a name made
        // first with room for more instances would take the server's clients.
        {NameTakenFirst, "", L"Could not create pipe {}. Error: 5\n", "0 5 | - | 0 | 0"},
        // The client's side: the ready byte is taken and never answered.
        {SilentServer, "", L"WaitForSingleObject failed. Wait result: 258, Error: ", "1 1 1 1 | got 1 held | 0"},
    };
    ATL::CHandle token;
    {
        const std::wstring pipe = UniquePipeName();
        RawClient peer(pipe, "\x07");
        EXPECT_FALSE(CPipeImpersonateServer::GetToken(token, pipe, nullptr));
    }
    const size_t handles = ServerKindHandleCount(); // the system's own lazily made handles exist by now
    // Counted again once the capture is gone: its lock makes an event when contended.
    std::optional<QXTest::LogCapture> capture(std::in_place);
    QXTest::LogCapture& log = *capture;
    std::vector<std::wstring> pipes;
    std::generate_n(std::back_inserter(pipes), std::size(rows), UniquePipeName);
    std::vector<std::string> outcomes(std::size(rows));
    {
        std::vector<std::unique_ptr<SystemThread>> threads;
        for (const auto& row : rows)
        {
            const size_t k = &row - rows;
            threads.push_back(std::make_unique<SystemThread>([&, &pipe = pipes[k], &outcome = outcomes[k]] {
                if (row.peer == SilentServer)
                {
                    RawServer peer(pipe, std::nullopt);
                    CPipeImpersonateClient client(pipe, user, &PipeListens);
                    const BOOL connected = client.ConnectAndImpersonate(10000, 1), sent = client.SendReadyMessage();
                    const bool impersonating = Impersonating();
                    outcome = Words({connected, sent, impersonating, client.RevertToSelf(), "|", peer.Finish(), "|",
                                    Impersonating()});
                    return;
                }
                ATL::CHandle squatter(row.peer != NameTakenFirst ? nullptr
                                          : CreateNamedPipeW(pipe.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                                             PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE,
                                                             PIPE_UNLIMITED_INSTANCES, 32, 32, 0, nullptr));
                std::optional<RawClient> peer;
                if (row.peer == Writes || row.peer == Silent)
                    peer.emplace(pipe, row.peer == Writes ? std::optional(row.bytes) : std::nullopt);
                {
                    CPipeImpersonateServer server(pipe, notAnEvent);
                    const bool taken = server.ConnectAndImpersonate();
                    const DWORD error = GetLastError();
                    const std::string reply = peer ? peer->Finish() : "-";
                    outcome = Words({taken, error, "|", reply, "|", OpenError(pipe)});
                }
                outcome = Words({outcome, "|", Impersonating()});
            }));
        }
    }
    notAnEvent.Detach();
    for (size_t k = 0; k < std::size(rows); ++k)
    {
        SCOPED_TRACE(k);
        EXPECT_EQ(outcomes[k], rows[k].outcome);
        std::wstring logged = rows[k].logged;
        if (const size_t at = logged.find(L"{}"); at != logged.npos)
            logged.replace(at, 2, pipes[k]);
        EXPECT_TRUE(log.HasFragment(logged)) << QXTest::Narrow(logged) << "\n" << log.Dump();
    }
    EXPECT_LOGGED(log, L"SetEvent() failed. Error code=[6]\n");
    EXPECT_LOGGED(log, L"CreatePipeAndGetMessage failed. Error: 13\n");
    EXPECT_LOGGED(log, L"Not reverting as no impersonation occurred.\n");
    EXPECT_FALSE(CPipeImpersonateServer::GetToken(token, L"C:\\not-a-pipe", nullptr));
    EXPECT_TRUE(log.HasFragment(L"Could not create pipe C:\\not-a-pipe. Error: ")) << log.Dump();
    capture.reset();
    EXPECT_EQ(SettledHandleCount(handles), handles);
}

TEST(PipeServer, AcceptsAnEarlyClientAndRefusesASecondOne)
{
    QXTest::LogCapture log;
    EarlyClient early{UniquePipeName()};
    QXTest::ImportPatch record(L"QXCommon.dll", "kernel32.dll", "CreateNamedPipeW",
                               (void*)&EarlyClient::CreateNamedPipeRecorded);
    ASSERT_TRUE(record.Installed());
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
    // Clients on other machines are refused: not something a one-machine test
    // can try, so the mode is read on its way to the system.
    EXPECT_EQ(early.openMode, 0x40080003u);
    EXPECT_EQ(early.pipeMode, static_cast<DWORD>(PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_REJECT_REMOTE_CLIENTS));
}

// The pauses, as the library asks Sleep for them (and gets them): 0 at once,
// then a step longer each time.
TEST(PipeClient, PollsWithALinearBackOff)
{
    QXTest::LogCapture log;
    static std::vector<DWORD> pauses;
    QXTest::ImportPatch record(L"QXCommon.dll", "kernel32.dll", "Sleep", (void*)+[](DWORD ms) {
        pauses.push_back(ms);
        Sleep(std::min<DWORD>(ms, 1000)); // a pause gone wrong fails the test, not the run
    });
    ASSERT_TRUE(record.Installed());
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
        pauses.clear();
        size_t calls = 0;
        const auto start = Clock::now();
        CPipeImpersonateClient client(pipe, own, [&](const std::wstring& name) {
            EXPECT_EQ(name, pipe);
            ++calls;
            SetLastError(ERROR_NO_TOKEN); // left behind, explains nothing
            return 0;
        });
        EXPECT_FALSE(client.ConnectAndImpersonate(c.timeout, c.step));
        EXPECT_FALSE(Impersonating());
        EXPECT_LOGGED(log, L"Could not Connect to Pipe \"" + pipe + L"\". Error: 258\n");
        EXPECT_LOGGED(log, L"Does Pipe exist - returning FAILED");
        EXPECT_TRUE(log.HasFragment(L"(timeout is set to [" + std::to_wstring(c.timeout) + L"]ms) after [" +
                                    std::to_wstring(calls) + L"] attempts\n"))
            << log.Dump();
        EXPECT_GE(calls, c.fewest);
        EXPECT_LE(calls, c.most);
        ASSERT_EQ(pauses.size(), calls);
        for (size_t k = 0; k < pauses.size(); ++k)
            EXPECT_EQ(pauses[k], static_cast<DWORD>(k * c.step)) << k;
        EXPECT_GE(MsSince(start), c.timeout);
    }
    CPipeImpersonateClient empty(pipe, own, nullptr);
    EXPECT_THROW(empty.ConnectAndImpersonate(0, 0), std::bad_function_call);
}
