#pragma once
// Tokens, impersonation and child processes for the suites that work with
// identities: restricted tokens of this process, a text description of a
// token or of what a thread impersonates (to assert that a thread is back to
// what it impersonated before), and a helper program that runs, as this user
// or under a given token, until the test lets it end.

#include <windows.h>

#include <atlbase.h>

#include <string>
#include <vector>

namespace QXTest
{
// "S-1-5-32-544"; "" for null or invalid.
std::wstring SidText(PSID sid);

// A primary token of this process made with CreateRestrictedToken (access
// TOKEN_ALL_ACCESS): the groups given as text SIDs become deny-only and the
// named privileges are removed. Empty on failure.
ATL::CHandle RestrictedProcessToken(const std::vector<std::wstring>& denyOnlySids,
                                    const std::vector<std::wstring>& removedPrivileges = {});
// This process's token with the Administrators group (S-1-5-32-544) deny-only.
ATL::CHandle AdminDenyOnlyToken();
// An impersonation copy (SecurityImpersonation) of a token, for
// CheckTokenMembership, SetThreadToken and the like. Empty on failure.
ATL::CHandle ImpersonationCopy(HANDLE token);

// The attributes of the named privilege in the token (TOKEN_QUERY), as
// GetTokenInformation(TokenPrivileges) reports them; 0xFFFFFFFF when the
// token does not hold it or cannot be read.
DWORD PrivilegeAttributes(HANDLE token, const wchar_t* name);

// "user S-...; groups S-...:0x7 S-...:0x19 ..." in the token's own order:
// two tokens with the same description carry the same identity. Attributes
// are hexadecimal. "<error N>" when the token cannot be read.
std::wstring DescribeToken(HANDLE token);
// What the thread impersonates: DescribeToken of its thread token, or
// "nothing" when it is not impersonating.
std::wstring DescribeImpersonation(HANDLE thread = ::GetCurrentThread());

// The number of handles this process holds, by probing its handle table
// (Wine's GetProcessHandleCount answers 0). Unlike NextHandleSlot it also
// sees a handle leaked above a slot that is freed again, as when a function
// opens a process, then a token, and closes the process. With object types
// ("File", "Event", ...) only the handles of those types count.
size_t OpenHandleCount(const std::vector<std::wstring>& types = {});

// Makes the calling thread stop impersonating when the scope ends, also when
// an assertion leaves the test early.
struct RevertAtExit
{
    RevertAtExit() = default;
    RevertAtExit(const RevertAtExit&) = delete;
    ~RevertAtExit() { ::RevertToSelf(); }
};

// Tests/Programs/qxtoken_child.exe: prints "ready <pid> <tid>" and runs
// until its standard input is closed (Finish, or the destructor), then exits
// with 0. Started as this process's user, or with CreateProcessAsUserW under
// the given primary token; a start that fails is tried again.
class ChildProcess
{
public:
    explicit ChildProcess(HANDLE token = nullptr);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool Ready() const { return m_ready; } // started and printed its ids
    DWORD Pid() const { return m_pid; }
    HANDLE Process() const { return m_process; }
    // Lets the child end, waits for it and returns its exit code.
    DWORD Finish();
    // Closes this object's process and thread handles (after Finish), so that
    // nothing here keeps the ids from being reused.
    void Forget();

private:
    ATL::CHandle m_input;
    ATL::CHandle m_process;
    ATL::CHandle m_thread;
    DWORD m_pid = 0;
    bool m_ready = false;
};
} // namespace QXTest
