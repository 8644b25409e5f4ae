#pragma once
// Tokens, impersonation and child processes for the suites that work with
// identities. Functions that make a token return an empty handle on failure.

#include <windows.h>

#include <atlbase.h>

#include <string>
#include <vector>

namespace QXTest
{
// "S-1-5-32-544"; "" for null or invalid.
std::wstring SidText(PSID sid);
// This process's token (TOKEN_ALL_ACCESS) through CreateRestrictedToken: the
// groups given as text SIDs deny-only, the named privileges removed.
ATL::CHandle RestrictedProcessToken(const std::vector<std::wstring>& denyOnlySids,
                                    const std::vector<std::wstring>& removedPrivileges = {});
// This process's token with the Administrators group (S-1-5-32-544) deny-only.
ATL::CHandle AdminDenyOnlyToken();
// A SecurityImpersonation copy, for CheckTokenMembership, SetThreadToken and the like.
ATL::CHandle ImpersonationCopy(HANDLE token);
// The attributes of the named privilege in the token; 0xFFFFFFFF when it is not held.
DWORD PrivilegeAttributes(HANDLE token, const wchar_t* name);
// "user S-...; groups S-...:0x7 S-...:0x19 ..." in the token's order (the
// same text, the same identity), or "<error N>".
std::wstring DescribeToken(HANDLE token);
// DescribeToken of the thread's token, or "nothing" when it is not impersonating.
std::wstring DescribeImpersonation(HANDLE thread = ::GetCurrentThread());
// The handles this process holds (of these object types, "File", "Event" ...,
// when given), by probing its handle table: Wine's GetProcessHandleCount
// answers 0, and the next free slot misses a leak above a slot freed again.
size_t OpenHandleCount(const std::vector<std::wstring>& types = {});

// Makes the calling thread stop impersonating when the scope ends.
struct RevertAtExit
{
    RevertAtExit() = default;
    RevertAtExit(const RevertAtExit&) = delete;
    ~RevertAtExit() { ::RevertToSelf(); }
};

// Tests/Programs/qxtoken_child.exe, as this user or (CreateProcessAsUserW)
// under the given primary token, running until its standard input is closed
// (Finish, or the destructor). A start that fails is tried again.
class ChildProcess
{
public:
    explicit ChildProcess(HANDLE token = nullptr);
    ~ChildProcess() { Finish(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    bool Ready() const { return m_ready; } // started and said so
    DWORD Pid() const { return m_pid; }
    HANDLE Process() const { return m_process; }
    DWORD Finish(); // closes its input, waits (30 s at most), returns its exit code

private:
    ATL::CHandle m_input, m_process;
    DWORD m_pid = 0;
    bool m_ready = false;
};
} // namespace QXTest
