// The identity hand-over over a named pipe: this process serves; the client is
// qxinspect's client side in another process (under a token with Administrators
// deny-only), the library's client on a thread here, or a raw hostile peer.

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
using namespace std::string_literals;

constexpr DWORD PeerBoundMs = 20000; // see Peer

std::wstring UniquePipeName() { return L"\\\\.\\pipe\\qxtest-" + QXCommon::CGuid::CreateNewAsString(); }
bool Impersonating() { return QXTest::DescribeImpersonation() != L"nothing"; }
int PipeListens(const std::wstring& pipe) { return WaitNamedPipeW(pipe.c_str(), 1) ? 1 : 0; }
HANDLE OpenAsClient(const std::wstring& pipe)
{
    return CreateFileW(pipe.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                       SECURITY_SQOS_PRESENT | SECURITY_IMPERSONATION, nullptr);
}
// "0" when the pipe opens as a client (closed again), else the error: 2 no instance, 231 all busy.
std::string OpenError(const std::wstring& pipe)
{
    const HANDLE opened = OpenAsClient(pipe);
    return opened == INVALID_HANDLE_VALUE ? std::to_string(GetLastError()) : (ATL::CHandle(opened), "0"s);
}

// Words({c.SendReadyMessage(), "|", peer.Finish()}) == "0 | nothing": a braced list runs its calls in order.
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

// A function on a plain system thread (no runtime lock or thread object adds handles while a test counts
// them). A body still running a minute later is a stuck call: the run ends as a failure, not hanging.
class SystemThread : QXTest::NoCopy
{
public:
    explicit SystemThread(std::function<void()> body) : m_body(std::move(body)) {}
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
    static DWORD WINAPI Run(void* self) { return static_cast<SystemThread*>(self)->m_body(), 0; }
    std::function<void()> m_body;
    ATL::CHandle m_thread{CreateThread(nullptr, 0, &SystemThread::Run, this, 0, nullptr)};
};

// A raw peer on a thread of its own; Finish() stops it and gives its result. It holds out PeerBoundMs
// at most (far beyond the library's 5000 ms): a library call without a bound shows as "gave up". A
// server listens before the constructor returns: "nothing", or "got <byte>" (the client as the platform
// gives it in `arrived`), then answers. A client connects (as `as`) and writes: "reply <byte>", "reply
// error <error>", "open <error>"; without bytes it says nothing until Finish() (" held") or the bound.
class Peer : QXTest::NoCopy
{
public:
    Peer(const std::wstring& pipe, bool server, std::optional<std::string> bytes, HANDLE as = nullptr)
    {
        ATL::CHandle listening(CreateEventW(nullptr, TRUE, !server, nullptr));
        m_thread.emplace([=, this, listening = listening.m_h] {
            ATL::CHandle event(CreateEventW(nullptr, FALSE, FALSE, nullptr)), handle;
            OVERLAPPED overlapped{.hEvent = event};
            BYTE byte = 0;
            DWORD done = 0;
            if (server)
            {
                handle.Attach(CreateNamedPipeW(pipe.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                               PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE, 1, 32, 32, 0, nullptr));
                SetEvent(listening);
                m_result = "nothing";
                if (!Await(handle, overlapped, ConnectNamedPipe(handle, &overlapped)) ||
                    !Await(handle, overlapped, ReadFile(handle, &byte, 1, &done, &overlapped)))
                    return;
                m_result = "got " + std::to_string(byte);
                QXTest::RevertAtExit revert;
                arrived = ImpersonateNamedPipeClient(handle) ? QXTest::DescribeImpersonation() : L"";
                m_result += bytes ? (Await(handle, overlapped, WriteFile(handle, bytes->data(), 1, &done, &overlapped)), "")
                                  : Hold();
                return;
            }
            SetThreadToken(nullptr, QXTest::ImpersonationCopy(as));
            HANDLE opened = INVALID_HANDLE_VALUE;
            for (int k = 0; k < 1000 && (opened = OpenAsClient(pipe)) == INVALID_HANDLE_VALUE && GetLastError() == 2; ++k)
                Sleep(10); // until the pipe exists
            RevertToSelf();
            handle.Attach(opened != INVALID_HANDLE_VALUE ? opened : nullptr);
            if (handle == nullptr)
                m_result = "open " + std::to_string(GetLastError());
            else if (!bytes && Hold() != " held")
                m_result = "gave up";
            else if ((!bytes || WriteFile(handle, bytes->data(), static_cast<DWORD>(bytes->size()), &done, nullptr)) &&
                     ReadFile(handle, &byte, 1, &done, nullptr))
                m_result = "reply " + std::to_string(byte);
            else
                m_result = "reply error " + std::to_string(GetLastError());
        });
        WaitForSingleObject(listening, PeerBoundMs);
    }
    ~Peer() { SetEvent(m_stop); }
    const std::string& Finish() { return SetEvent(m_stop), m_thread->Join(), m_result; }

private:
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
        return GetOverlappedResult(pipe, &overlapped, &done, TRUE), false;
    }
    std::string Hold() { return WaitForSingleObject(m_stop, PeerBoundMs) == WAIT_OBJECT_0 ? " held" : " gave up"; }

    ATL::CHandle m_stop{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    std::string m_result;

public:
    std::wstring arrived; // read after Finish()

private:
    std::optional<SystemThread> m_thread; // last: it goes first
};

// The handles of the kinds the library makes (pipe files, events, tokens; Wine makes others lazily, and
// the thread runtime keeps one for a system thread that took its lock), once ended threads' are gone.
size_t LibraryKindHandleCount(size_t expected = 0)
{
    size_t count = QXTest::OpenHandleCount({L"File", L"Event", L"Token"});
    for (int wait = 0; wait < 50 && count > expected && expected > 0; ++wait, Sleep(20))
        count = QXTest::OpenHandleCount({L"File", L"Event", L"Token"});
    return count;
}

// What a raw pipe server is given when its raw client impersonates `user`.
std::wstring PlatformHandsOver(HANDLE user)
{
    const std::wstring pipe = UniquePipeName();
    Peer probe(pipe, true, "\x02");
    Peer(pipe, false, "\x01", user).Finish();
    return probe.Finish(), probe.arrived;
}
} // namespace

// From a client process: an impersonation-level token on the server's thread, then a primary token that
// starts a process and carries the identity the platform gives a raw server whose client impersonates the user.
TEST(PipeHandOver, AClientProcessHandsOverWhatThePlatformGivesAsAUsablePrimaryToken)
{
    ATL::CHandle user = QXTest::AdminDenyOnlyToken(), token;
    const std::wstring pipe = UniquePipeName(), eventName = L"Local\\" + pipe.substr(9), platformGives = PlatformHandsOver(user);
    ATL::CHandle ready(CreateEventW(nullptr, FALSE, FALSE, eventName.c_str()));
    auto client = std::async(std::launch::async, [&] { // qxinspect's client side, under the user's token
        return QXTest::RunProcess(L"\"" + QXTest::HelperPath(L"qxinspect.exe") + L"\" --log handover --client " + pipe +
                                      L" --event " + eventName, 30000, user);
    });
    {
        CPipeImpersonateServer server(pipe, ready);
        ASSERT_TRUE(server.ConnectAndImpersonate());
        ATL::CAccessToken impersonated; // an impersonation token: a primary one has no level
        SECURITY_IMPERSONATION_LEVEL level = SecurityAnonymous;
        EXPECT_TRUE(impersonated.GetThreadToken(TOKEN_QUERY) && impersonated.GetImpersonationLevel(&level) &&
                    level == SecurityImpersonation) << level;
        server.GetTokenAsPrimaryToken(token);
    }
    const QXTest::ProcessResult run = client.get();
    EXPECT_EQ(run.exitCode, 0u) << run.output;
    TOKEN_TYPE type = TokenImpersonation;
    DWORD size = 0;
    EXPECT_TRUE(GetTokenInformation(token, TokenType, &type, sizeof type, &size) && type == TokenPrimary);
    EXPECT_EQ(QXTest::DescribeToken(token), platformGives);
    QXTest::ChildProcess asClient(token);
    EXPECT_TRUE(asClient.Ready() && asClient.Finish() == 0u);
}

// qxinspect's hand-over from its child under Administrators deny-only reports the child's identity.
TEST(PipeHandOver, InspectTakesItsChildsIdentity)
{
    ATL::CAccessToken own;
    if (own.GetProcessToken(TOKEN_QUERY) && PlatformHandsOver(QXTest::AdminDenyOnlyToken()) == QXTest::DescribeToken(own.GetHandle()))
        GTEST_SKIP() << "ImpersonateNamedPipeClient impersonates the server's own token here, so no client's "
                        "identity can arrive: qxinspect reports \"sameAsServer\": true whatever it does";
    const auto run = QXTest::RunInspect(L"--json handover --restricted");
    for (const char* fragment : {"\"sameAsServer\": false", "\"type\": \"primary\"", "deny-only"})
        EXPECT_TRUE(run.exitCode == 0 && run.output.find(fragment) != std::string::npos) << fragment << "\n" << run.output;
}

// Every call against every peer, for a thread that impersonates nothing, an earlier identity or at
// anonymous level: the thread comes back as it went in, the server takes nothing but the ready byte and
// leaves no instance when it fails, the ready byte goes out only as the user's token the client put on
// the thread, no handle is left. Rows whose peer says nothing take the full 5000 ms: each runs once on a
// thread of its own while the later rows run (patched rows first: a patch holds for the whole process).
TEST(PipeHandOver, EveryCallComesBackAsItWentInWithinItsBoundAndLeavesNothing)
{
    std::optional<QXTest::LogCapture> log(std::in_place); // its lock makes an event when contended
    QXTest::RevertAtExit revert;
    ATL::CHandle user = QXTest::AdminDenyOnlyToken(), token;
    ATL::CHandle other = QXTest::ImpersonationCopy(QXTest::RestrictedProcessToken({L"S-1-1-0"}));
    HANDLE anonymous = nullptr;
    ASSERT_TRUE(DuplicateTokenEx(user, TOKEN_ALL_ACCESS, nullptr, SecurityAnonymous, TokenImpersonation, &anonymous));
    ATL::CHandle anonymousOwner(anonymous), notAToken(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const HANDLE badHandle = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x7FF0));
    using Body = std::function<std::string(const std::wstring& pipe)>;
    // The server against a raw client writing these bytes (silent without; none
    // comes, or the name is made first with room for more, with `none`/`squat`):
    // result, error, token | the client's | opening the name while the server lives.
    auto serve = [](std::optional<std::string> bytes, HANDLE ready = nullptr, bool none = false, bool squat = false) {
        return [=](const std::wstring& pipe) {
            ATL::CHandle squatter(squat ? CreateNamedPipeW(pipe.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                                           PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE,
                                                           PIPE_UNLIMITED_INSTANCES, 32, 32, 0, nullptr)
                                        : nullptr);
            std::optional<Peer> peer;
            if (!none && !squat)
                peer.emplace(pipe, false, bytes);
            CPipeImpersonateServer server(pipe, ready);
            ATL::CHandle token;
            const bool taken = server.ConnectAndImpersonate();
            return Words({taken, taken ? 0 : GetLastError(), taken && (server.GetTokenAsPrimaryToken(token), token != nullptr),
                          "|", peer ? peer->Finish() : "-", "|", OpenError(pipe)});
        };
    };
    // A client of the user's token (or another) against a raw server answering 2 (or never): results | arrived.
    auto client = [&](std::function<std::string(CPipeImpersonateClient&)> rest, std::optional<HANDLE> token = {},
                      std::optional<std::string> answer = "\x02") -> Body {
        return [&, rest, token, answer](const std::wstring& pipe) {
            Peer peer(pipe, true, answer);
            CPipeImpersonateClient c(pipe, token.value_or(user), &PipeListens);
            return Words({c.ConnectAndImpersonate(10000, 1), rest(c), "|", peer.Finish()});
        };
    };
    const auto refused = [](CPipeImpersonateClient& c) { return Words({c.SendReadyMessage(), c.RevertToSelf()}); };
    const auto exchange = [&](CPipeImpersonateClient& c) {
        return Words({c.SendReadyMessage(), QXTest::DescribeImpersonation() == QXTest::DescribeToken(user),
                      c.RevertToSelf(), c.RevertToSelf()});
    };
    auto patched = [](const char* function, void* standIn, Body body) -> Body { // QXCommon.dll's import redirected
        return [=](const std::wstring& pipe) {
            QXTest::ImportPatch patch(L"QXCommon.dll", "advapi32.dll", function, standIn);
            return patch.Installed() ? body(pipe) : "not patched"s;
        };
    };
    const struct
    {
        const char* name;
        Body body;
        std::string outcome;
        const wchar_t* logged; // a fragment of the row's log, or null
        bool slow = false;
    } rows[] = {
        {"server refused its client's impersonation",
         patched("ImpersonateNamedPipeClient", (void*)+[](HANDLE) { return SetLastError(ERROR_CANNOT_IMPERSONATE), FALSE; },
                 serve("\x01")), "0 1368 0 | reply 2 | 231", L"Not reverting as no impersonation occurred.\n"},
        {"client whose thread token opens only as the process",
         patched("OpenThreadToken", (void*)+[](HANDLE thread, DWORD access, BOOL asSelf, PHANDLE token) -> BOOL {
             const BOOL opened = OpenThreadToken(thread, access, TRUE, token);
             return !opened || asSelf ? opened : (CloseHandle(*token), SetLastError(ERROR_ACCESS_DENIED), FALSE);
         }, client(exchange)), "1 1 1 1 0 | got 1", nullptr},
        {"client whose impersonation cannot be read back",
         patched("GetTokenInformation", (void*)+[](HANDLE token, TOKEN_INFORMATION_CLASS kind, void* data, DWORD size,
                                                   DWORD* length) -> BOOL {
             return kind != TokenStatistics ? GetTokenInformation(token, kind, data, size, length)
                                            : (SetLastError(ERROR_ACCESS_DENIED), FALSE);
         }, client(refused)), "0 0 0 | nothing", L"Could not impersonate. Error: 5\n"},
        {"both sides on a thread whose token cannot be opened",
         patched("OpenThreadToken", (void*)+[](HANDLE, DWORD, BOOL, PHANDLE) { return SetLastError(5), FALSE; },
                 [&](const std::wstring& pipe) {
                     CPipeImpersonateClient c(pipe, user, [](const std::wstring&) { return 1; });
                     return Words({c.ConnectAndImpersonate(0, 0), GetLastError(), c.SendReadyMessage(), "|",
                                   CPipeImpersonateServer::GetToken(token, pipe, nullptr), GetLastError()});
                 }), "0 5 0 | 0 5", L"Cannot save the thread's impersonation. Error: 5\n"},
        {"client that connects and says nothing", serve(std::nullopt, badHandle), "0 258 0 | reply error 233 | 2",
         L"ReadFile Error: 258. bSuccess: 0, Data: 0\n", true},
        {"client that never comes", serve(std::nullopt, badHandle, true), "0 258 0 | - | 2",
         L"Waiting for pipe - timed out\n", true},
        {"server that never answers",
         client([](auto& c) { return Words({c.SendReadyMessage(), Impersonating(), c.RevertToSelf()}); }, {}, {}),
         "1 1 1 1 | got 1 held", L"WaitForSingleObject failed. Wait result: 258, Error: ", true},
        {"server takes its client", serve("\x01"), "1 0 1 | reply 2 | 231", nullptr},
        {"server given a wrong byte", serve("\x07"), "0 13 0 | reply error 233 | 2",
         L"ReadFile Error: 0. bSuccess: 1, Data: 7\n"},
        {"server given two bytes", serve("\x01\x01"), "0 234 0 | reply error 233 | 2",
         L"ReadFile Error: 234. bSuccess: 0, Data: 1\n"},
        // Where FILE_FLAG_FIRST_PIPE_INSTANCE is ignored, a name made first would take the server's clients.
        {"server on a name made first", serve("", nullptr, false, true), "0 5 0 | - | 0",
         L"Could not create pipe \\\\.\\pipe\\qxtest-"},
        {"client exchange", client(exchange), "1 1 1 1 0 | got 1", L"m_pAccessToken == NULL\n"},
        {"client gone while impersonating", client([](auto&) { return "and gone"s; }), "1 and gone | nothing", nullptr},
        {"client whose impersonation the caller ended", client([](auto& c) {
             return RevertToSelf(), Words({c.SendReadyMessage(), GetLastError(), c.RevertToSelf()});
         }), "1 0 1309 1 | nothing", L"The thread does not impersonate the user's token - not connecting\n"},
        {"client under an identity the caller put on", client([&](auto& c) {
             return Words({SetThreadToken(nullptr, other), c.SendReadyMessage(), c.RevertToSelf()});
         }), "1 1 0 1 | nothing", nullptr},
        {"client called from another thread", client([](auto& c) {
             std::string there;
             SystemThread([&] { there = Words({c.SendReadyMessage(), c.RevertToSelf(), GetLastError(), Impersonating()}); });
             return Words({there, c.RevertToSelf()});
         }), "1 0 0 1444 0 1 | nothing", nullptr},
        {"client copied while impersonating", client([](auto& c) {
             CPipeImpersonateClient copy(c);
             return Words({copy.SendReadyMessage(), copy.RevertToSelf(), c.RevertToSelf()});
         }), "1 0 0 1 | nothing", nullptr},
        {"client assigned over while impersonating, then back", [&](const std::wstring& pipe) {
             Peer peer(pipe, true, "\x02");
             const std::wstring entered = QXTest::DescribeImpersonation();
             CPipeImpersonateClient c(pipe, user, [n = 0](auto& p) mutable { return n++ == 0 ? PipeListens(p) : 0; }),
                 unused(pipe + L"-unused", nullptr, [](auto&) { return 0; }); // c finds the pipe once: assigned, it polls anew
             const std::string over = Words({c.ConnectAndImpersonate(10000, 1), (c = unused, QXTest::DescribeImpersonation() == entered),
                                             c.SendReadyMessage(), c.ConnectAndImpersonate(0, 0)});
             c = CPipeImpersonateClient(pipe, user, &PipeListens);
             return Words({over, c.ConnectAndImpersonate(10000, 1), c.SendReadyMessage(), c.RevertToSelf(), "|",
                           peer.Finish()});
         }, "1 1 0 0 1 1 1 | got 1", nullptr},
        {"client reused after its pipe went", [&](const std::wstring& pipe) {
             Peer peer(pipe, true, "\x02");
             int calls = 0;
             CPipeImpersonateClient c(pipe, user, [&](const std::wstring&) { return ++calls == 1 ? 1 : 0; });
             return Words({c.ConnectAndImpersonate(0, 0), c.RevertToSelf(), c.ConnectAndImpersonate(0, 0),
                           c.SendReadyMessage(), "|", peer.Finish()});
         }, "1 1 0 0 | nothing", L"The AccesssToken is NULL - Impersonation was not successful\n"},
        {"client without a token", client(refused, nullptr), "0 0 0 | nothing", L"m_hUserToken == NULL\n"},
        {"client with a bad handle", client(refused, badHandle), "0 0 0 | nothing", L"Failed to DuplicateHandle - error 6\n"},
        {"client with a handle that is no token", client(refused, notAToken), "0 0 0 | nothing", L"Could not impersonate"},
    };
    serve("\x07")(UniquePipeName()); // the system's own lazily made handles exist after an exchange
    const size_t handles = LibraryKindHandleCount();
    auto check = [&](size_t k, HANDLE before) {
        SCOPED_TRACE(rows[k].name + std::string(before == nullptr ? "" : before == other ? ", as another" : ", anonymous"));
        ASSERT_TRUE(SetThreadToken(nullptr, before));
        const std::wstring was = QXTest::DescribeImpersonation(), pipe = UniquePipeName();
        const size_t from = log->Count();
        EXPECT_EQ(rows[k].body(pipe), rows[k].outcome);
        EXPECT_EQ(QXTest::DescribeImpersonation(), was);
        const std::wstring logged = rows[k].logged != nullptr ? rows[k].logged : L"";
        const auto lines = log->Entries();
        const auto has = [&](const QXTest::LogEntry& line) { return line.text.find(logged) != logged.npos; };
        EXPECT_TRUE(std::any_of(lines.begin() + from, lines.end(), has)) << QXTest::Narrow(logged) << "\n" << log->Dump();
    };
    std::vector<std::unique_ptr<SystemThread>> slow;
    for (size_t k = 0; k < std::size(rows); ++k)
        for (HANDLE before : {HANDLE(nullptr), other.m_h, anonymous})
            if (!rows[k].slow)
                check(k, before);
            else if (before == nullptr)
                slow.push_back(std::make_unique<SystemThread>([&, k] { check(k, nullptr); }));
    slow.clear();
    EXPECT_LOGGED(*log, L"SetEvent() failed. Error code=[6]\n");
    EXPECT_FALSE(CPipeImpersonateServer::GetToken(token, L"C:\\not-a-pipe", nullptr));
    log.reset();
    EXPECT_EQ(LibraryKindHandleCount(handles), handles);
}

// A client that connects and writes the ready byte as soon as the pipe exists
// (before the server's ConnectNamedPipe) is taken; while it holds the only
// instance a second client is refused. The modes are read on their way to the
// system: a remote client cannot be tried here.
TEST(PipeServer, AcceptsAnEarlyClientAndRefusesASecondOne)
{
    static struct
    {
        ATL::CHandle client;
        std::string second;
        DWORD flags = 0, out = 0, in = 0, instances = 0, openMode = 0, pipeMode = 0;
    } early;
    QXTest::ImportPatch record(L"QXCommon.dll", "kernel32.dll", "CreateNamedPipeW",
                               (void*)+[](LPCWSTR name, DWORD open, DWORD mode, DWORD count, DWORD out, DWORD in,
                                          DWORD timeout, LPSECURITY_ATTRIBUTES attributes) {
                                   const HANDLE made = CreateNamedPipeW(name, early.openMode = open, early.pipeMode = mode,
                                                                        count, out, in, timeout, attributes);
                                   early.client.Attach(OpenAsClient(name));
                                   DWORD written = 0;
                                   WriteFile(early.client, "\x01", 1, &written, nullptr);
                                   GetNamedPipeInfo(early.client, &early.flags, &early.out, &early.in, &early.instances);
                                   early.second = OpenError(name);
                                   return made;
                               });
    ASSERT_TRUE(record.Installed());
    QXTest::LogCapture log;
    ATL::CHandle token;
    BYTE reply = 0;
    DWORD done = 0;
    EXPECT_EQ(Words({CPipeImpersonateServer::GetToken(token, UniquePipeName(), nullptr), token != nullptr,
                     ReadFile(early.client, &reply, 1, &done, nullptr), reply, early.second}), "1 1 1 2 231");
    early.client.Close();
    EXPECT_LOGGED(log, L"URM - the client had already connected\n");
    EXPECT_EQ(Words({early.flags, early.instances, early.out, early.in, early.openMode, early.pipeMode}),
              Words({PIPE_TYPE_MESSAGE, 1, 32, 32, 0x40080003,
                     PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_REJECT_REMOTE_CLIENTS}));
}

// The pauses, as the library asks Sleep for them (and gets them): 0 at once,
// then a step longer each time; 258 whatever error the callable left.
TEST(PipeClient, PollsWithALinearBackOff)
{
    static std::vector<DWORD> pauses;
    QXTest::ImportPatch record(L"QXCommon.dll", "kernel32.dll", "Sleep", (void*)+[](DWORD ms) {
        pauses.push_back(ms);
        Sleep(std::min<DWORD>(ms, 1000)); // a pause gone wrong fails the test, not the run
    });
    ASSERT_TRUE(record.Installed());
    for (const auto& [timeout, step] : {std::pair(0, 10), std::pair(-5, 10), std::pair(400, 30)})
    {
        SCOPED_TRACE(timeout);
        pauses.clear();
        size_t calls = 0;
        const auto start = std::chrono::steady_clock::now();
        CPipeImpersonateClient client(UniquePipeName(), nullptr,
                                      [&](auto&) { return SetLastError(ERROR_NO_TOKEN), ++calls, 0; });
        EXPECT_EQ(Words({client.ConnectAndImpersonate(timeout, step), GetLastError(), Impersonating()}), "0 258 0");
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(timeout));
        EXPECT_TRUE(timeout > 0 ? calls > 2 : calls == 1) << calls;
        ASSERT_EQ(pauses.size(), calls);
        for (size_t k = 0; k < pauses.size(); ++k)
            EXPECT_EQ(pauses[k], static_cast<DWORD>(k * step)) << k;
    }
    CPipeImpersonateClient empty(UniquePipeName(), nullptr, nullptr);
    EXPECT_THROW(empty.ConnectAndImpersonate(0, 0), std::bad_function_call);
}
