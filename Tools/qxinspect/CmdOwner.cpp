// owner: who owns a file, its group and DACL, and the hand-over of the file
// to another process's user as the agent makes it.

#include "Inspect.h"

#include "QXCommon/ChangeFileOwner.h"
#include "QXCommon/QXCommonFunctions.h"

#include <aclapi.h>
#include <sddl.h>

#include <atlsecurity.h>

#include <algorithm>

namespace qxinspect
{
namespace
{
struct Descriptor
{
    DWORD error = ERROR_SUCCESS;
    std::wstring ownerSid, ownerName, groupSid, groupName, dacl;
};

std::wstring AccountOf(PSID sid)
{
    if (sid == nullptr || !IsValidSid(sid))
        return L"";
    ATL::CSid account(*static_cast<const SID*>(sid));
    const std::wstring name = account.AccountName();
    const std::wstring domain = account.Domain();
    return domain.empty() || name.empty() ? name : domain + L"\\" + name;
}

std::wstring SidOf(PSID sid)
{
    return sid != nullptr && IsValidSid(sid) ? ATL::CSid(*static_cast<const SID*>(sid)).Sid() : L"";
}

// The platform's view of the file, read independently of the library.
Descriptor ReadDescriptor(const std::wstring& path)
{
    Descriptor result;
    PSID owner = nullptr, group = nullptr;
    PACL dacl = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    result.error = GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT,
                                         OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION |
                                             DACL_SECURITY_INFORMATION,
                                         &owner, &group, &dacl, nullptr, &descriptor);
    if (result.error != ERROR_SUCCESS)
        return result;
    result.ownerSid = SidOf(owner);
    result.ownerName = AccountOf(owner);
    result.groupSid = SidOf(group);
    result.groupName = AccountOf(group);
    LPWSTR text = nullptr;
    if (ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION,
                                                             &text, nullptr))
    {
        result.dacl = text;
        LocalFree(text);
    }
    LocalFree(descriptor);
    return result;
}

std::wstring MessageOf(DWORD code)
{
    return code == ERROR_SUCCESS ? L"the owner was changed"
                                 : QXCommonFunctions::ErrorMessageFromCode(static_cast<int>(code));
}

std::wstring ErrorText(DWORD code)
{
    return std::to_wstring(code) + L" (" + MessageOf(code) + L")";
}

Json Account(const std::wstring& sid, const std::wstring& name)
{
    return Json::MakeObject().Set(L"sid", sid).Set(L"name", name);
}

// "owner", "group", "dacl" (or "error") before the hand-over; "ownerAfter"
// (or "errorAfter") after it.
void AddDescriptor(Json& entry, bool after, const Descriptor& read)
{
    if (read.error != ERROR_SUCCESS)
    {
        entry.Set(after ? L"errorAfter" : L"error", static_cast<unsigned long>(read.error));
        return;
    }
    entry.Set(after ? L"ownerAfter" : L"owner", Account(read.ownerSid, read.ownerName));
    if (!after)
        entry.Set(L"group", Account(read.groupSid, read.groupName)).Set(L"dacl", read.dacl);
}

std::wstring DescriptorLines(const wchar_t* ownerLabel, const Descriptor& read, bool all)
{
    if (read.error != ERROR_SUCCESS)
        return L"  " + std::wstring(ownerLabel) + L"cannot be read, error " + ErrorText(read.error) + L"\n";
    std::wstring text = L"  " + std::wstring(ownerLabel) + read.ownerName + L" " + read.ownerSid + L"\n";
    if (all)
        text += L"  group:       " + read.groupName + L" " + read.groupSid + L"\n  dacl:        " + read.dacl + L"\n";
    return text;
}

int RunOwner(Context& context, const std::vector<std::wstring>& args)
{
    ArgParser parser({L"--give-to-pid"}, {L"--direct"});
    std::wstring error;
    if (!parser.Parse(args, error))
        return Fail(ExitUsage, error);
    if (parser.Positional().empty())
        return Fail(ExitUsage, L"owner needs at least one PATH (see qxinspect help owner)");
    const auto pidText = parser.Value(L"--give-to-pid");
    const bool direct = parser.Has(L"--direct");
    if (direct && !pidText)
        return Fail(ExitUsage, L"--direct goes with --give-to-pid");
    uint32_t pid = 0;
    if (pidText && !ParseNumber32(*pidText, pid))
        return Fail(ExitUsage, L"--give-to-pid needs a process id, not " + *pidText);

    ATL::CAccessToken token;
    ATL::CSid user;
    if (pidText && (!QXCommonFunctions::AttachAtlAccessTokenToPrimaryTokenFromProcessId(token, pid) ||
                    !token.GetUser(&user)))
        return Fail(ExitFailed, L"cannot open the token of process " + std::to_wstring(pid) + L", error " +
                                    std::to_wstring(GetLastError()));
    const std::wstring userName = pidText ? AccountOf(const_cast<SID*>(user.GetPSID())) : L"";

    int exitCode = ExitOk;
    Json files = Json::MakeArray();
    for (const std::wstring& path : parser.Positional())
    {
        const Descriptor before = ReadDescriptor(path);
        Json entry = Json::MakeObject();
        entry.Set(L"path", path);
        AddDescriptor(entry, false, before);
        std::wstring text = path + L"\n" + DescriptorLines(L"owner:       ", before, true);
        if (!pidText)
        {
            exitCode = std::max(exitCode, before.error == ERROR_SUCCESS ? ExitOk : ExitFailed);
        }
        else
        {
            QXCommon::CChangeFileOwner owner;
            const DWORD result = direct ? QXCommon::CChangeFileOwner::SetOwnershipOnFileDirect(path, token)
                                        : owner.ChangeOwner(path, token);
            // A direct change keeps no flag: it is due whenever the owner changed.
            const bool audit = direct ? result == ERROR_SUCCESS : owner.IsAuditRequired() != 0;
            const Descriptor after = ReadDescriptor(path);
            entry.Set(L"handOver", Json::MakeObject()
                                       .Set(L"pid", static_cast<unsigned long>(pid))
                                       .Set(L"to", Account(user.Sid(), userName))
                                       .Set(L"accessCheck", !direct)
                                       .Set(L"result", static_cast<unsigned long>(result))
                                       .Set(L"text", MessageOf(result))
                                       .Set(L"auditRequired", audit));
            AddDescriptor(entry, true, after);
            text += L"  give to:     " + userName + L" " + user.Sid() + L" (process " + std::to_wstring(pid) +
                    (direct ? L"), no access check\n" : L"), if its token may take ownership\n");
            text += L"  result:      " + ErrorText(result) + L"\n  audit due:   " + BoolText(audit) + L"\n" +
                    DescriptorLines(L"owner after: ", after, false);
            exitCode = std::max(exitCode, result == ERROR_SUCCESS       ? ExitOk
                                          : result == ERROR_ACCESS_DENIED ? ExitNo
                                                                          : ExitFailed);
        }
        if (!context.json)
            Out(text);
        files.Push(std::move(entry));
    }
    if (context.json)
        OutJson(Json::MakeObject().Set(L"files", std::move(files)));
    return exitCode;
}
} // namespace

QXINSPECT_COMMAND(L"owner", L"owner PATH... [--give-to-pid N [--direct]]",
                  L"a file's owner, group and DACL, and its hand-over to a process's user",
                  L"Prints, for each PATH, its owner (name and SID), its group and its DACL in\n"
                  L"SDDL, as the system reports them.\n"
                  L"  --give-to-pid N  also hands the file to the user of process N as the agent\n"
                  L"                   does: only when that user's token holds WRITE_OWNER on\n"
                  L"                   the file (checked while impersonating it), with the restore\n"
                  L"                   privilege enabled for the change; prints the result code\n"
                  L"                   and its text, whether an audit record is due, and the\n"
                  L"                   owner read back afterwards\n"
                  L"  --direct         hand the file over with no access check\n"
                  L"Exit codes: 0 read (and handed over), 1 the user may not take the file\n"
                  L"(access denied), 2 bad command line, 3 a file cannot be read, the process's\n"
                  L"token cannot be opened or the hand-over failed otherwise.\n",
                  &RunOwner);
} // namespace qxinspect
