// token, process: the identity, groups, elevation and privileges of a
// process's or thread's token as the library answers for them, and the
// identity key of processes.

#include "Platform.h"

#include "QXCommon/LsaUtil.h"
#include "QXCommon/ProcessIDAndCreateTime.h"
#include "QXCommon/QXAccessTokenMembership.h"
#include "QXCommon/QXCommonFunctions.h"

#include <atlsecurity.h>

#include <cwchar>
#include <memory>

namespace qxinspect
{
namespace
{
const wchar_t* const UrmGroupSid = L"S-1-5-21-612037418-213544074-8-1-0-0";

// Token information from the library's sized read; freed with delete[].
template <typename T>
std::unique_ptr<BYTE[]> ReadInfo(HANDLE token, TOKEN_INFORMATION_CLASS infoClass, const T*& info)
{
    DWORD length = 0;
    std::unique_ptr<BYTE[]> buffer(LsaUtil::GetTokenInformation(token, infoClass, &length));
    info = buffer && length >= sizeof(T) ? reinterpret_cast<const T*>(buffer.get()) : nullptr;
    return buffer;
}

std::wstring GroupFlags(DWORD attributes)
{
    static const struct
    {
        DWORD bit;
        const wchar_t* name;
    } flags[] = {
        {SE_GROUP_ENABLED, L"enabled"},
        {SE_GROUP_ENABLED_BY_DEFAULT, L"enabled-by-default"},
        {SE_GROUP_MANDATORY, L"mandatory"},
        {SE_GROUP_OWNER, L"owner"},
        {SE_GROUP_USE_FOR_DENY_ONLY, L"deny-only"},
        {SE_GROUP_INTEGRITY, L"integrity"},
        {SE_GROUP_INTEGRITY_ENABLED, L"integrity-enabled"},
        {SE_GROUP_LOGON_ID, L"logon-id"},
        {SE_GROUP_RESOURCE, L"resource"},
    };
    std::wstring text;
    for (const auto& flag : flags)
    {
        if ((attributes & flag.bit) == flag.bit)
            text += (text.empty() ? L"" : L",") + std::wstring(flag.name);
    }
    return text.empty() ? L"none" : text;
}

std::wstring PrivilegeState(DWORD attributes)
{
    if (attributes & SE_PRIVILEGE_REMOVED)
        return L"removed";
    if (attributes & SE_PRIVILEGE_ENABLED)
        return attributes & SE_PRIVILEGE_ENABLED_BY_DEFAULT ? L"enabled (by default)" : L"enabled";
    return attributes & SE_PRIVILEGE_ENABLED_BY_DEFAULT ? L"disabled (enabled by default)" : L"disabled";
}

// The token to describe: the thread's identity (its impersonation, else its
// process's token) for --tid, the process's primary token otherwise.
bool OpenSubjectToken(uint32_t pid, uint32_t tid, ATL::CAccessToken& token, std::wstring& source, std::wstring& error)
{
    if (tid == 0)
    {
        if (!QXCommonFunctions::AttachAtlAccessTokenToPrimaryTokenFromProcessId(token, pid))
        {
            error = L"cannot open the token of process " + std::to_wstring(pid) + L", error " +
                    std::to_wstring(GetLastError());
            return false;
        }
        source = L"process " + std::to_wstring(pid);
        return true;
    }
    ATL::CHandle thread(OpenThread(THREAD_QUERY_INFORMATION, FALSE, tid));
    const DWORD owner = thread != nullptr ? GetProcessIdOfThread(thread) : 0;
    if (owner == 0)
    {
        error = L"cannot open thread " + std::to_wstring(tid) + L", error " + std::to_wstring(GetLastError());
        return false;
    }
    HANDLE probe = nullptr;
    const bool impersonating = OpenThreadToken(thread, TOKEN_QUERY, TRUE, &probe) != FALSE;
    ATL::CHandle probeOwner(probe);
    if (!QXCommonFunctions::ObtainPrimaryTokenFromProcessOrThread(owner, tid, token))
    {
        error = L"cannot obtain the token of thread " + std::to_wstring(tid) + L", error " +
                std::to_wstring(GetLastError());
        return false;
    }
    source = L"thread " + std::to_wstring(tid) + L" of process " + std::to_wstring(owner) +
             (impersonating ? L" (impersonating)" : L" (not impersonating: its process's token)");
    return true;
}

int RunToken(Context& context, const std::vector<std::wstring>& args)
{
    ArgParser parser({L"--pid", L"--tid", L"--member"}, {});
    std::wstring error;
    if (!parser.Parse(args, error))
        return Fail(ExitUsage, error);
    if (!parser.Positional().empty())
        return Fail(ExitUsage, L"token takes no positional arguments" + SeeHelp(L"token"));
    if (parser.Has(L"--pid") && parser.Has(L"--tid"))
        return Fail(ExitUsage, L"give --pid or --tid, not both");
    uint32_t pid = GetCurrentProcessId();
    uint32_t tid = 0;
    if (auto text = parser.Value(L"--pid"); text && !ParseNumber32(*text, pid))
        return Fail(ExitUsage, L"--pid needs a process id, not " + *text);
    if (auto text = parser.Value(L"--tid"); text && (!ParseNumber32(*text, tid) || tid == 0))
        return Fail(ExitUsage, L"--tid needs a non-zero thread id, not " + *text);
    ATL::CSid member;
    auto memberText = parser.Value(L"--member");
    if (memberText && !QXCommonFunctions::ConvertStringSidToATLSidW(memberText->c_str(), member))
        return Fail(ExitUsage, L"--member needs a SID such as S-1-5-32-544, not " + *memberText);

    ATL::CAccessToken primary;
    std::wstring source;
    if (!OpenSubjectToken(pid, tid, primary, source, error))
        return Fail(ExitFailed, error);
    // The system's membership rule wants an impersonation token.
    ATL::CAccessToken query;
    if (!primary.CreateImpersonationToken(&query))
        return Fail(ExitFailed, L"cannot make an impersonation copy of the token, error " + std::to_wstring(GetLastError()));
    HANDLE token = primary.GetHandle();

    ATL::CSid user;
    if (!primary.GetUser(&user))
        return Fail(ExitFailed, L"cannot read the token's user, error " + std::to_wstring(GetLastError()));
    const std::wstring userName = AccountOfSid(const_cast<SID*>(user.GetPSID()));
    const TOKEN_GROUPS* groups = nullptr;
    auto groupsOwner = ReadInfo(token, TokenGroups, groups);
    const TOKEN_PRIVILEGES* privileges = nullptr;
    auto privilegesOwner = ReadInfo(token, TokenPrivileges, privileges);
    if (groups == nullptr || privileges == nullptr)
        return Fail(ExitFailed, L"cannot read the token's groups and privileges, error " + std::to_wstring(GetLastError()));

    const bool elevated = QXCommonFunctions::IsTokenElevated(token);
    const wchar_t* elevationType = ElevationTypeName(token);
    const bool restrictedOrFull = QXCommonFunctions::IsRestrictedOrFullAdmin(token);
    const bool hasAdminSid = QXCommon::QXAccessTokenMembership().HasAdminSid(token) != FALSE;
    const bool urm = QXCommonFunctions::TokenHasMembership(query, UrmGroupSid);

    Json groupList = Json::MakeArray();
    std::wstring groupText;
    bool listed = false;
    for (DWORD i = 0; i < groups->GroupCount; ++i)
    {
        const SID_AND_ATTRIBUTES& group = groups->Groups[i];
        ATL::CSid sid(*static_cast<const SID*>(group.Sid));
        if (memberText && sid == member)
            listed = true;
        const AccountName account = NameOf(group.Sid);
        const std::wstring name = account.Qualified();
        groupList.Push(Account(account)
                           .Set(L"attributes", static_cast<unsigned long>(group.Attributes))
                           .Set(L"flags", GroupFlags(group.Attributes)));
        groupText += L"  " + std::wstring(sid.Sid()) + (name.empty() ? L"" : L" (" + name + L")") + L"  " +
                     Hex32(group.Attributes) + L" " + GroupFlags(group.Attributes) + L"\n";
    }
    Json privilegeList = Json::MakeArray();
    std::wstring privilegeText;
    for (DWORD i = 0; i < privileges->PrivilegeCount; ++i)
    {
        LUID luid = privileges->Privileges[i].Luid;
        wchar_t name[128] = {};
        DWORD length = 128;
        if (!LookupPrivilegeNameW(nullptr, &luid, name, &length))
            std::swprintf(name, 128, L"LUID %lu:%ld", luid.LowPart, luid.HighPart);
        const DWORD attributes = privileges->Privileges[i].Attributes;
        privilegeList.Push(Json::MakeObject().Set(L"name", name).Set(L"state", PrivilegeState(attributes)));
        privilegeText += L"  " + std::wstring(name) + L"  " + PrivilegeState(attributes) + L"\n";
    }
    const bool systemMember = memberText && QXCommonFunctions::TokenHasMembership(query, *memberText);

    if (context.json)
    {
        Json result = Json::MakeObject();
        result.Set(L"source", source);
        result.Set(L"user", Account(NameOf(const_cast<SID*>(user.GetPSID()))));
        result.Set(L"groups", std::move(groupList));
        result.Set(L"elevated", elevated).Set(L"elevationType", elevationType);
        result.Set(L"restrictedOrFullAdmin", restrictedOrFull).Set(L"hasAdminSid", hasAdminSid);
        result.Set(L"urmMember", urm);
        result.Set(L"privileges", std::move(privilegeList));
        if (memberText)
            result.Set(L"member", Json::MakeObject()
                                      .Set(L"sid", member.Sid())
                                      .Set(L"systemRule", systemMember)
                                      .Set(L"anyAttributes", listed));
        OutJson(result);
    }
    else
    {
        Out(L"token of:                  " + source + L"\n");
        Out(L"user:                      " + userName + L" " + user.Sid() + L"\n");
        Out(L"elevated:                  " + BoolText(elevated) + L" (elevation type " + elevationType + L")\n");
        Out(L"restricted or full admin:  " + BoolText(restrictedOrFull) + L"\n");
        Out(L"has Administrators SID:    " + BoolText(hasAdminSid) + L" (any attributes)\n");
        Out(L"user-rights-managed:       " + BoolText(urm) + L"\n");
        if (memberText)
            Out(L"member of " + std::wstring(member.Sid()) + L": " + BoolText(systemMember) +
                L" (system rule), " + BoolText(listed) + L" (listed, any attributes)\n");
        Out(L"groups:\n" + groupText + L"privileges:\n" + privilegeText);
    }
    return memberText && !systemMember ? ExitNo : ExitOk;
}

int RunProcess(Context& context, const std::vector<std::wstring>& args)
{
    ArgParser parser({}, {});
    std::wstring error;
    if (!parser.Parse(args, error))
        return Fail(ExitUsage, error);
    std::vector<uint32_t> pids;
    for (const std::wstring& text : parser.Positional())
    {
        uint32_t pid = 0;
        if (!ParseNumber32(text, pid))
            return Fail(ExitUsage, L"not a process id: " + text);
        pids.push_back(pid);
    }
    if (pids.empty())
        pids.push_back(GetCurrentProcessId());

    bool someFailed = false;
    Json results = Json::MakeArray();
    for (uint32_t pid : pids)
    {
        QXCommon::CProcessIDAndCreateTime identity;
        const DWORD result = identity.Initialise(pid);
        Json entry = Json::MakeObject();
        entry.Set(L"pid", static_cast<unsigned long>(pid));
        if (result == 0)
        {
            FILETIME created = {};
            identity.GetProcessStartTime(created);
            const std::wstring key = identity.GetProcessIDAndCreateTime();
            entry.Set(L"key", key).Set(L"created", IsoTime(created, true));
            if (!context.json)
                Out(std::to_wstring(pid) + L": " + key + L" created " + IsoTime(created, true) + L"\n");
        }
        else
        {
            someFailed = true;
            const std::wstring text = QXCommonFunctions::ErrorMessageFromCode(static_cast<int>(result));
            SetWin32(entry, result);
            if (!context.json)
                Out(std::to_wstring(pid) + L": cannot be opened, error " + std::to_wstring(result) + L" (" + text + L")\n");
            Err(L"qxinspect: process " + std::to_wstring(pid) + L": error " + std::to_wstring(result) + L": " + text + L"\n");
        }
        results.Push(std::move(entry));
    }
    if (context.json)
        OutJson(Json::MakeObject().Set(L"processes", std::move(results)));
    return someFailed ? ExitFailed : ExitOk;
}
} // namespace

QXINSPECT_COMMAND(L"token", L"token [--pid N | --tid N] [--member SID]",
                  L"a token's user, groups, elevation and privileges as the library answers",
                  L"Describes the primary token of process N (default: qxinspect itself), or with\n"
                  L"--tid the identity thread N acts with (the token it impersonates, as a primary\n"
                  L"token, else its process's token): the user (name and SID), the groups with\n"
                  L"their attributes (enabled, deny-only, mandatory, integrity...), TokenIsElevated\n"
                  L"and the elevation type, IsRestrictedOrFullAdmin (full or limited type),\n"
                  L"HasAdminSid (the Administrators group with any attributes), membership of the\n"
                  L"user-rights-management group, and the privileges with their state.\n"
                  L"  --member SID  also whether the token is a member of SID by the system's rule\n"
                  L"                (enabled groups only) and whether SID is among its groups with\n"
                  L"                any attributes\n"
                  L"Exit codes: 0 done (with --member: a member by the system's rule), 1 not a\n"
                  L"member, 2 bad arguments (an id or SID that cannot be read), 3 the token\n"
                  L"cannot be opened or read.\n",
                  &RunToken);
QXINSPECT_COMMAND(L"process", L"process [PID...]", L"the identity key (id and creation time) of processes",
                  L"For each PID (default: qxinspect itself) prints the key \"id-high-low\" that names\n"
                  L"the process uniquely over time (the id, then the high and low 32-bit words of\n"
                  L"its creation time) and the creation time in ISO form (UTC), or the error text\n"
                  L"when the process cannot be opened.\n"
                  L"Exit codes: 0 done, 2 a PID is not a number, 3 some process cannot be opened.\n",
                  &RunProcess);
} // namespace qxinspect
