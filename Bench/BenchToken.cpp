// Tokens and process identity: the cached privilege lookup against the
// system's LookupPrivilegeValueW, the attribute-blind Administrators test
// against the system's CheckTokenMembership, and the process identity key
// against opening the process and reading its times directly.

#include "Bench.h"

#include "QXCommon/LsaUtil.h"
#include "QXCommon/ProcessIDAndCreateTime.h"
#include "QXCommon/QXAccessTokenMembership.h"

#include <atlsecurity.h>

#include <string>
#include <vector>

namespace
{
void Run(qxbench::Runner& runner)
{
    std::vector<std::wstring> names;
    for (DWORD low = 2; low < 64; ++low)
    {
        LUID luid = {low, 0};
        wchar_t name[128];
        DWORD length = 128;
        if (LookupPrivilegeNameW(nullptr, &luid, name, &length))
            names.emplace_back(name);
    }
    LUID luid = {};
    runner.Compare(
        L"LookupPrivilegeValueCache", L"LookupPrivilegeValueW",
        [&] {
            for (const auto& name : names)
                LsaUtil::LookupPrivilegeValueCache(name.c_str(), luid);
            qxbench::KeepAlive(luid);
        },
        [&] {
            for (const auto& name : names)
                LookupPrivilegeValueW(nullptr, name.c_str(), &luid);
            qxbench::KeepAlive(luid);
        },
        names.size(), std::to_wstring(names.size()) + L" privilege names, cache filled");

    ATL::CAccessToken primary, impersonation;
    if (primary.GetProcessToken(TOKEN_QUERY | TOKEN_DUPLICATE) && primary.CreateImpersonationToken(&impersonation))
    {
        const QXCommon::QXAccessTokenMembership membership;
        ATL::CSid admins = ATL::Sids::Admins();
        BOOL member = FALSE;
        runner.Compare(
            L"HasAdminSid", L"CheckTokenMembership",
            [&] { qxbench::KeepAlive(membership.HasAdminSid(primary.GetHandle())); },
            [&] {
                CheckTokenMembership(impersonation.GetHandle(), const_cast<SID*>(admins.GetPSID()), &member);
                qxbench::KeepAlive(member);
            },
            1, L"this process's token; any attributes against enabled groups only");
    }

    const DWORD self = GetCurrentProcessId();
    runner.Compare(
        L"CProcessIDAndCreateTime::Initialise", L"OpenProcess + GetProcessTimes",
        [&] {
            QXCommon::CProcessIDAndCreateTime identity;
            identity.Initialise(self);
            qxbench::KeepAlive(identity);
        },
        [&] {
            HANDLE process = OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_DUP_HANDLE, FALSE, self);
            FILETIME created, exited, kernel, user;
            GetProcessTimes(process, &created, &exited, &kernel, &user);
            CloseHandle(process);
            qxbench::KeepAlive(created);
        },
        1, L"this process; the key adds its formatting and copy");
}
} // namespace

QXBENCH_CASE(L"token", &Run);
