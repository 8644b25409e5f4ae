// Process identity keys of live, ended and reused process ids, checked
// against GetProcessTimes, and the rules of the lent process handle.

#include "TokenSuite.h"

#include "QXCommon/ProcessIDAndCreateTime.h"

#include <string>

using QXCommon::CProcessIDAndCreateTime;

namespace
{
const char* const Identity = "QXCommon::CProcessIDAndCreateTime::";

// The key as it must read, from the system's own creation time.
std::wstring ExpectedKey(DWORD pid, HANDLE process)
{
    FILETIME created, exited, kernel, user;
    if (!GetProcessTimes(process, &created, &exited, &kernel, &user))
        return L"<no times>";
    return std::to_wstring(pid) + L"-" + std::to_wstring(created.dwHighDateTime) + L"-" +
           std::to_wstring(created.dwLowDateTime);
}

// Makes the handle slots public; lends a handle of its own when given one.
class LendingIdentity : public CProcessIDAndCreateTime
{
public:
    HANDLE lent = nullptr;

    DWORD GetProcessHandle(HANDLE& process) override
    {
        if (lent == nullptr)
            return CProcessIDAndCreateTime::GetProcessHandle(process);
        process = lent;
        return 0;
    }
    DWORD ReleaseProcessHandle(HANDLE& process) override
    {
        return lent == nullptr ? CProcessIDAndCreateTime::ReleaseProcessHandle(process) : 0;
    }
};

// Waits until the id of an ended process is free: it can no longer be opened.
void WaitUntilGone(DWORD pid)
{
    for (int i = 0; i < 500 && ATL::CHandle(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid)) != nullptr; ++i)
        Sleep(10);
}

DWORD WINAPI Nothing(void*)
{
    return 0;
}

// Makes a freed process id the next id the system hands out. Wine reuses
// freed ids first in, first out, and a thread that ends here at once puts
// its id back at the end of that queue. Threads are made and ended until one
// receives the id, then until one receives the id freed just before it. The
// order of ids freed by others (ended processes are freed late) does not
// matter. False when the id does not come round.
bool QueueIdNext(DWORD id)
{
    DWORD wanted = id, previous = 0;
    for (int round = 0; round < 2; ++round)
    {
        bool found = false;
        for (int i = 0; i < 20000 && !found; ++i)
        {
            DWORD got = 0;
            ATL::CHandle thread(CreateThread(nullptr, 0, &Nothing, nullptr, 0, &got));
            WaitForSingleObject(thread, INFINITE);
            found = got == wanted;
            if (!found)
                previous = got;
        }
        if (!found || previous == 0)
            return false;
        wanted = previous;
    }
    return true;
}

TEST(ProcessIdentity, KeysOfLiveProcessesMatchTheSystemsCreationTime)
{
    QXTest::ChildProcess child;
    ASSERT_TRUE(child.Ready());
    CProcessIDAndCreateTime first, second, own;
    QXTest::LogCapture log;
    ASSERT_EQ(first.Initialise(child.Pid()) + second.Initialise(child.Pid()) + own.Initialise(), 0u);
    const std::wstring key = ExpectedKey(child.Pid(), child.Process());
    EXPECT_EQ(first.GetProcessIDAndCreateTime(), key);
    EXPECT_EQ(second.GetProcessIDAndCreateTime(), key);
    EXPECT_EQ(own.GetProcessIDAndCreateTime(), ExpectedKey(GetCurrentProcessId(), GetCurrentProcess()));
    EXPECT_LOG(log, 4, std::string(Identity) + "Initialise", L"Process ID and create time string created: [" + key + L"]\n");

    std::wstring keyOut;
    DWORD pid = 0;
    FILETIME created = {}, expected, unused;
    GetProcessTimes(child.Process(), &expected, &unused, &unused, &unused);
    EXPECT_EQ(first.GetProcessIDAndCreateTime(keyOut) + first.GetProcessID(pid) + first.GetProcessStartTime(created), 0u);
    EXPECT_EQ(keyOut + L"/" + std::to_wstring(pid), key + L"/" + std::to_wstring(child.Pid()));
    EXPECT_EQ(CompareFileTime(&created, &expected), 0);

    // A copy carries the identity; the key stays the process's after it ends.
    CProcessIDAndCreateTime copy(first), assigned;
    assigned = second;
    child.Finish();
    EXPECT_TRUE(copy.IsValid() && assigned.IsValid());
    EXPECT_EQ(copy.GetProcessIDAndCreateTime() + assigned.GetProcessIDAndCreateTime(), key + key);
    EXPECT_EQ(first.Clear(), 0u);
    EXPECT_FALSE(first.IsValid());
    EXPECT_EQ(first.GetProcessIDAndCreateTime() + std::to_wstring(first.GetProcessID()), L"0");
}

// An id that names no process (never, or no longer): the open's error, an
// object left empty, and accessors that refuse with 13 and touch nothing.
TEST(ProcessIdentity, IdsThatCannotBeOpened)
{
    QXTest::ChildProcess ended;
    ASSERT_TRUE(ended.Ready());
    const DWORD endedPid = ended.Pid();
    ended.Forget();
    WaitUntilGone(endedPid);
    const std::string prefix(Identity);
    for (DWORD pid : {DWORD(0), DWORD(0xFFFFFFF0), endedPid})
    {
        SCOPED_TRACE(pid);
        CProcessIDAndCreateTime identity;
        ASSERT_EQ(identity.Initialise(GetCurrentProcessId()), 0u);
        QXTest::LogCapture log;
        EXPECT_EQ(identity.Initialise(pid), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        EXPECT_LOG(log, 1, prefix + "InitProcessHandle", L"Open process failed. Error [87]\n");
        EXPECT_FALSE(identity.IsValid());
        std::wstring key = L"untouched";
        DWORD id = 7;
        FILETIME time = {1, 2};
        EXPECT_EQ(identity.GetProcessIDAndCreateTime(key) + identity.GetProcessID(id) + identity.GetProcessStartTime(time), 39u);
        EXPECT_EQ(identity.GetProcessIDAndCreateTime() + key + std::to_wstring(id + time.dwLowDateTime + time.dwHighDateTime),
                  L"untouched10");
        EXPECT_LOG(log, 1, prefix + "GetProcessIDAndCreateTime", L"Process and create time string is invalid.\n");
        EXPECT_LOG(log, 1, prefix + "GetProcessID", L"Process ID is invalid\n");
        EXPECT_LOG(log, 1, prefix + "GetProcessStartTime", L"Process start time is invalid.\n");
    }
}

TEST(ProcessIdentity, LentHandleRules)
{
    LendingIdentity identity;
    ASSERT_EQ(identity.Initialise(), 0u);
    HANDLE process = nullptr, again = nullptr, none = nullptr;
    ASSERT_EQ(identity.GetProcessHandle(process) + identity.GetProcessHandle(again), 0u);
    EXPECT_EQ(process, again); // held, handed out twice
    ATL::CHandle foreign(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    HANDLE other = foreign;
    QXTest::LogCapture log;
    EXPECT_EQ(identity.ReleaseProcessHandle(other), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_LOG(log, 1, std::string(Identity) + "ReleaseProcessHandle", L"Process handle invalid\n");
    EXPECT_EQ(GetProcessId(process), GetCurrentProcessId()); // still held
    EXPECT_EQ(identity.ReleaseProcessHandle(none), 0u);     // null releases the held one
    EXPECT_EQ(identity.ReleaseProcessHandle(other), 0u);    // nothing held: nothing to refuse
    EXPECT_EQ(identity.GetProcessHandle(again) + identity.ReleaseProcessHandle(again), 0u);
    EXPECT_EQ(again, nullptr);
    // Clear closes a handle still held.
    DWORD flags = 0;
    ASSERT_EQ(identity.GetProcessHandle(process), 0u);
    identity.Clear();
    EXPECT_FALSE(GetHandleInformation(process, &flags));

    // A derived class lends a handle it already holds; a handle that is no
    // process gives GetProcessTimes' own error.
    QXTest::ChildProcess child;
    ASSERT_TRUE(child.Ready());
    identity.lent = child.Process();
    EXPECT_EQ(identity.Initialise(child.Pid()), 0u);
    EXPECT_EQ(identity.GetProcessIDAndCreateTime(), ExpectedKey(child.Pid(), child.Process()));
    identity.lent = foreign;
    EXPECT_EQ(identity.Initialise(child.Pid()), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_LOG(log, 1, std::string(Identity) + "Initialise", L"Get process times failed. error [6]\n");
    EXPECT_FALSE(identity.IsValid());
    EXPECT_EQ(identity.GetProcessIDAndCreateTime(), L"");
}

// A process ends and a later process receives its id: the keys differ, each
// matching its own process's creation time.
TEST(ProcessIdentity, ReusedIdGetsANewKey)
{
    for (int attempt = 0; attempt < 3; ++attempt)
    {
        QXTest::ChildProcess first;
        ASSERT_TRUE(first.Ready());
        const DWORD pid = first.Pid();
        CProcessIDAndCreateTime before;
        ASSERT_EQ(before.Initialise(pid), 0u);
        ASSERT_EQ(before.GetProcessIDAndCreateTime(), ExpectedKey(pid, first.Process()));
        first.Forget();
        WaitUntilGone(pid);
        if (!QueueIdNext(pid))
            continue;
        QXTest::ChildProcess second;
        ASSERT_TRUE(second.Ready());
        if (second.Pid() != pid)
            continue;
        CProcessIDAndCreateTime after;
        ASSERT_EQ(after.Initialise(pid), 0u);
        EXPECT_EQ(after.GetProcessIDAndCreateTime(), ExpectedKey(pid, second.Process()));
        EXPECT_NE(after.GetProcessIDAndCreateTime(), before.GetProcessIDAndCreateTime());
        EXPECT_EQ(after.GetProcessIDAndCreateTime().substr(0, std::to_wstring(pid).size() + 1),
                  std::to_wstring(pid) + L"-");
        return;
    }
    GTEST_SKIP() << "no process id was reused within three attempts";
}
} // namespace
