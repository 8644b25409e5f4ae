#include "TokenTestSupport.h"

#include "QXTestSupport.h"

#include <sddl.h>
#include <winternl.h>

#include <algorithm>
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

// One class of the token's information, empty (with the error) on failure.
// The buffer holds pointers into itself: it is moved, never copied.
std::vector<BYTE> TokenInfo(HANDLE token, TOKEN_INFORMATION_CLASS infoClass, DWORD& error)
{
    DWORD size = 0;
    GetTokenInformation(token, infoClass, nullptr, 0, &size);
    std::vector<BYTE> info(size);
    error = size != 0 && GetTokenInformation(token, infoClass, info.data(), size, &size) ? 0 : GetLastError();
    if (error != 0)
        info.clear();
    return info;
}

// The object type of a handle ("File", "Event", ...), or "?" when it cannot be read.
std::wstring HandleType(HANDLE handle)
{
    using QueryObject = LONG(WINAPI*)(HANDLE, int, void*, ULONG, ULONG*);
    static const auto query = reinterpret_cast<QueryObject>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQueryObject")));
    alignas(8) BYTE buffer[512] = {};
    const auto* name = reinterpret_cast<const UNICODE_STRING*>(buffer);
    if (query == nullptr || query(handle, 2 /* type */, buffer, sizeof buffer, nullptr) < 0)
        return L"?";
    return std::wstring(name->Buffer, name->Length / sizeof(wchar_t));
}
} // namespace

std::wstring SidText(PSID sid)
{
    LPWSTR text = nullptr;
    if (sid == nullptr || !IsValidSid(sid) || !ConvertSidToStringSidW(sid, &text))
        return L"";
    return std::unique_ptr<wchar_t, LocalDeleter>(text).get();
}

ATL::CHandle RestrictedProcessToken(const std::vector<std::wstring>& denyOnlySids,
                                    const std::vector<std::wstring>& removedPrivileges)
{
    std::vector<std::unique_ptr<void, LocalDeleter>> sids;
    std::vector<SID_AND_ATTRIBUTES> denied;
    std::vector<LUID_AND_ATTRIBUTES> removed(removedPrivileges.size());
    PSID sid = nullptr;
    for (const auto& text : denyOnlySids)
        if (ConvertStringSidToSidW(text.c_str(), &sid))
            sids.emplace_back(sid), denied.push_back({sid, 0});
    bool known = denied.size() == denyOnlySids.size();
    for (size_t i = 0; i < removed.size(); ++i)
        known = known && LookupPrivilegeValueW(nullptr, removedPrivileges[i].c_str(), &removed[i].Luid);
    HANDLE source = nullptr, restricted = nullptr;
    if (known && OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, &source))
        CreateRestrictedToken(ATL::CHandle(source), 0, static_cast<DWORD>(denied.size()), denied.data(),
                              static_cast<DWORD>(removed.size()), removed.data(), 0, nullptr, &restricted);
    return ATL::CHandle(restricted);
}

ATL::CHandle AdminDenyOnlyToken()
{
    return RestrictedProcessToken({L"S-1-5-32-544"});
}

ATL::CHandle ImpersonationCopy(HANDLE token)
{
    HANDLE copy = nullptr;
    DuplicateTokenEx(token, TOKEN_ALL_ACCESS, nullptr, SecurityImpersonation, TokenImpersonation, &copy);
    return ATL::CHandle(copy);
}

DWORD PrivilegeAttributes(HANDLE token, const wchar_t* name)
{
    LUID luid = {};
    DWORD error = 0;
    const auto info = TokenInfo(token, TokenPrivileges, error);
    if (info.empty() || !LookupPrivilegeValueW(nullptr, name, &luid))
        return 0xFFFFFFFF;
    const auto* privileges = reinterpret_cast<const TOKEN_PRIVILEGES*>(info.data());
    for (DWORD i = 0; i < privileges->PrivilegeCount; ++i)
        if (privileges->Privileges[i].Luid.LowPart == luid.LowPart && privileges->Privileges[i].Luid.HighPart == luid.HighPart)
            return privileges->Privileges[i].Attributes;
    return 0xFFFFFFFF;
}

std::wstring DescribeToken(HANDLE token)
{
    DWORD error = 0;
    const auto user = TokenInfo(token, TokenUser, error);
    const auto groupInfo = error == 0 ? TokenInfo(token, TokenGroups, error) : std::vector<BYTE>();
    if (error != 0)
        return L"<error " + std::to_wstring(error) + L">";
    std::wstring text = L"user " + SidText(reinterpret_cast<const TOKEN_USER*>(user.data())->User.Sid) + L"; groups";
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
    return DescribeToken(ATL::CHandle(token));
}

size_t OpenHandleCount(const std::vector<std::wstring>& types)
{
    // Handles are multiples of 4; the probe ends after 1,024 free slots in a row.
    size_t count = 0;
    DWORD flags = 0;
    for (uintptr_t slot = 4, freeInARow = 0; freeInARow < 1024; slot += 4)
    {
        const HANDLE handle = reinterpret_cast<HANDLE>(slot);
        const bool open = GetHandleInformation(handle, &flags);
        const std::wstring type = open && !types.empty() ? HandleType(handle) : L"?";
        freeInARow = open ? 0 : freeInARow + 1;
        count += open && (type == L"?" || std::find(types.begin(), types.end(), type) != types.end());
    }
    return count;
}

ChildProcess::ChildProcess(HANDLE token)
{
    for (int attempt = 0; attempt < 3 && !m_ready; ++attempt)
    {
        Finish();
        m_process.Close();
        Sleep(attempt * 200);
        SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
        ATL::CHandle childInput, output, childOutput;
        if (!CreatePipe(&childInput.m_h, &m_input.m_h, &inherit, 0) || !CreatePipe(&output.m_h, &childOutput.m_h, &inherit, 0))
            continue;
        SetHandleInformation(m_input, HANDLE_FLAG_INHERIT, 0);
        SetHandleInformation(output, HANDLE_FLAG_INHERIT, 0);
        STARTUPINFOW si{sizeof si};
        si.dwFlags = STARTF_USESTDHANDLES;
        si.hStdInput = childInput;
        si.hStdOutput = si.hStdError = childOutput;
        std::wstring commandLine = L"\"" + HelperPath(L"qxtoken_child.exe") + L"\"";
        PROCESS_INFORMATION pi{};
        if (token != nullptr ? !CreateProcessAsUserW(token, nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi)
                             : !CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi))
            continue;
        m_process.Attach(pi.hProcess);
        CloseHandle(pi.hThread);
        m_pid = pi.dwProcessId;
        childOutput.Close();
        char line[64] = {};
        DWORD read = 0;
        unsigned long pid = 0;
        m_ready = ReadFile(output, line, sizeof line - 1, &read, nullptr) && std::sscanf(line, "ready %lu", &pid) == 1 && pid == m_pid;
    }
}

DWORD ChildProcess::Finish()
{
    m_input.Close();
    DWORD code = 0xFFFFFFFF;
    if (m_process == nullptr)
        return code;
    if (WaitForSingleObject(m_process, 30000) != WAIT_OBJECT_0)
        TerminateProcess(m_process, 0xDEAD);
    GetExitCodeProcess(m_process, &code);
    return code;
}
} // namespace QXTest
