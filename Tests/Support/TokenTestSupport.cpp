#include "TokenTestSupport.h"

#include "QXTestSupport.h"

#include <sddl.h>

#include <cstdio>
#include <memory>

namespace QXTest
{
namespace
{
struct LocalDeleter
{
    void operator()(void* p) const { LocalFree(p); }
};

std::vector<BYTE> TokenInfo(HANDLE token, TOKEN_INFORMATION_CLASS infoClass, DWORD& error)
{
    DWORD size = 0;
    error = 0;
    if (!GetTokenInformation(token, infoClass, nullptr, 0, &size) && GetLastError() != ERROR_INSUFFICIENT_BUFFER)
    {
        error = GetLastError();
        return {};
    }
    std::vector<BYTE> info(size);
    if (!GetTokenInformation(token, infoClass, info.data(), size, &size))
    {
        error = GetLastError();
        info.clear();
    }
    return info;
}
} // namespace

std::wstring SidText(PSID sid)
{
    LPWSTR text = nullptr;
    if (sid == nullptr || !IsValidSid(sid) || !ConvertSidToStringSidW(sid, &text))
        return L"";
    std::unique_ptr<wchar_t, LocalDeleter> owner(text);
    return text;
}

ATL::CHandle RestrictedProcessToken(const std::vector<std::wstring>& denyOnlySids,
                                    const std::vector<std::wstring>& removedPrivileges)
{
    HANDLE processToken = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, &processToken))
        return ATL::CHandle();
    ATL::CHandle source(processToken);

    std::vector<std::unique_ptr<void, LocalDeleter>> sids;
    std::vector<SID_AND_ATTRIBUTES> disabled;
    for (const auto& text : denyOnlySids)
    {
        PSID sid = nullptr;
        if (!ConvertStringSidToSidW(text.c_str(), &sid))
            return ATL::CHandle();
        sids.emplace_back(sid);
        disabled.push_back({sid, 0});
    }
    std::vector<LUID_AND_ATTRIBUTES> removed;
    for (const auto& name : removedPrivileges)
    {
        LUID_AND_ATTRIBUTES privilege = {};
        if (!LookupPrivilegeValueW(nullptr, name.c_str(), &privilege.Luid))
            return ATL::CHandle();
        removed.push_back(privilege);
    }
    HANDLE restricted = nullptr;
    if (!CreateRestrictedToken(source, 0, static_cast<DWORD>(disabled.size()), disabled.data(),
                               static_cast<DWORD>(removed.size()), removed.data(), 0, nullptr, &restricted))
        return ATL::CHandle();
    return ATL::CHandle(restricted);
}

ATL::CHandle AdminDenyOnlyToken()
{
    return RestrictedProcessToken({L"S-1-5-32-544"});
}

ATL::CHandle ImpersonationCopy(HANDLE token)
{
    HANDLE copy = nullptr;
    if (!DuplicateTokenEx(token, TOKEN_ALL_ACCESS, nullptr, SecurityImpersonation, TokenImpersonation, &copy))
        return ATL::CHandle();
    return ATL::CHandle(copy);
}

DWORD PrivilegeAttributes(HANDLE token, const wchar_t* name)
{
    LUID luid = {};
    DWORD error = 0;
    auto info = TokenInfo(token, TokenPrivileges, error);
    if (info.empty() || !LookupPrivilegeValueW(nullptr, name, &luid))
        return 0xFFFFFFFF;
    const auto* privileges = reinterpret_cast<const TOKEN_PRIVILEGES*>(info.data());
    for (DWORD i = 0; i < privileges->PrivilegeCount; ++i)
    {
        const LUID& held = privileges->Privileges[i].Luid;
        if (held.LowPart == luid.LowPart && held.HighPart == luid.HighPart)
            return privileges->Privileges[i].Attributes;
    }
    return 0xFFFFFFFF;
}

std::wstring DescribeToken(HANDLE token)
{
    DWORD error = 0;
    auto user = TokenInfo(token, TokenUser, error);
    if (user.empty())
        return L"<error " + std::to_wstring(error) + L">";
    auto groupInfo = TokenInfo(token, TokenGroups, error);
    if (groupInfo.empty())
        return L"<error " + std::to_wstring(error) + L">";
    std::wstring text = L"user " + SidText(reinterpret_cast<TOKEN_USER*>(user.data())->User.Sid) + L"; groups";
    const auto* groups = reinterpret_cast<const TOKEN_GROUPS*>(groupInfo.data());
    for (DWORD i = 0; i < groups->GroupCount; ++i)
    {
        wchar_t attributes[16];
        std::swprintf(attributes, 16, L":0x%lX", groups->Groups[i].Attributes);
        text += L" " + SidText(groups->Groups[i].Sid) + attributes;
    }
    return text;
}

std::wstring DescribeImpersonation(HANDLE thread)
{
    HANDLE token = nullptr;
    if (!OpenThreadToken(thread, TOKEN_QUERY, TRUE, &token))
        return GetLastError() == ERROR_NO_TOKEN ? L"nothing" : L"<error " + std::to_wstring(GetLastError()) + L">";
    ATL::CHandle owner(token);
    return DescribeToken(token);
}

size_t OpenHandleCount()
{
    // Handles are multiples of 4; the probe ends after 1,024 free slots in a row.
    size_t count = 0;
    int freeInARow = 0;
    for (uintptr_t slot = 4; freeInARow < 1024; slot += 4)
    {
        DWORD flags = 0;
        if (GetHandleInformation(reinterpret_cast<HANDLE>(slot), &flags))
        {
            ++count;
            freeInARow = 0;
        }
        else
            ++freeInARow;
    }
    return count;
}

ChildProcess::ChildProcess(HANDLE token)
{
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    HANDLE inRead = nullptr, inWrite = nullptr, outRead = nullptr, outWrite = nullptr;
    if (!CreatePipe(&inRead, &inWrite, &inherit, 0))
        return;
    ATL::CHandle childInput(inRead);
    m_input.Attach(inWrite);
    if (!CreatePipe(&outRead, &outWrite, &inherit, 0))
        return;
    ATL::CHandle output(outRead), childOutput(outWrite);
    SetHandleInformation(m_input, HANDLE_FLAG_INHERIT, 0);
    SetHandleInformation(output, HANDLE_FLAG_INHERIT, 0);

    STARTUPINFOW si{};
    si.cb = sizeof si;
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdInput = childInput;
    si.hStdOutput = si.hStdError = childOutput;
    std::wstring commandLine = L"\"" + HelperPath(L"qxtoken_child.exe") + L"\"";
    PROCESS_INFORMATION pi{};
    const BOOL created =
        token != nullptr
            ? CreateProcessAsUserW(token, nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi)
            : CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi);
    if (!created)
        return;
    m_process.Attach(pi.hProcess);
    m_thread.Attach(pi.hThread);
    childOutput.Close();

    char line[64] = {};
    DWORD read = 0;
    unsigned long pid = 0, tid = 0;
    m_ready = ReadFile(output, line, sizeof line - 1, &read, nullptr) &&
              std::sscanf(line, "ready %lu %lu", &pid, &tid) == 2 && pid == pi.dwProcessId;
    m_pid = pi.dwProcessId;
    m_tid = pi.dwThreadId;
}

ChildProcess::~ChildProcess()
{
    Finish();
}

DWORD ChildProcess::Finish()
{
    m_input.Close();
    DWORD code = 0xFFFFFFFF;
    if (m_process == nullptr)
        return code;
    if (WaitForSingleObject(m_process, 10000) != WAIT_OBJECT_0)
        TerminateProcess(m_process, 0xDEAD);
    GetExitCodeProcess(m_process, &code);
    return code;
}

void ChildProcess::Forget()
{
    Finish();
    m_thread.Close();
    m_process.Close();
}
} // namespace QXTest
