// owner: who owns a file, its group and DACL, and the hand-over of the file
// to another process's user as the agent makes it (which changes the owner).

#include "Access.h"

#include "QXCommon/ChangeFileOwner.h"
#include "QXCommon/QXCommonFunctions.h"

#include <aclapi.h>
#include <atlsecurity.h>

#include <algorithm>

namespace qxinspect
{
namespace
{
std::wstring MessageOf(DWORD code)
{
    return code == ERROR_SUCCESS ? L"the owner was changed"
                                 : QXCommonFunctions::ErrorMessageFromCode(static_cast<int>(code)) +
                                       L" The owner was not changed.";
}

// "owner", "group", "dacl" (or error and errorText) before the hand-over;
// "ownerAfter" (or "errorAfter") after it.
void AddDescriptor(Json& entry, bool after, const Descriptor& read)
{
    if (read.error != ERROR_SUCCESS)
    {
        if (after)
            entry.Set(L"errorAfter", Win32Json(read.error));
        else
            SetWin32(entry, read.error);
        return;
    }
    entry.Set(after ? L"ownerAfter" : L"owner", Account(read.owner));
    if (!after)
        entry.Set(L"group", Account(read.group)).Set(L"dacl", read.dacl);
}

std::wstring DescriptorLines(const wchar_t* ownerLabel, const Descriptor& read, bool all)
{
    if (read.error != ERROR_SUCCESS)
        return L"  " + std::wstring(ownerLabel) + L"cannot be read: " + Win32Text(read.error) + L"\n";
    std::wstring text = L"  " + std::wstring(ownerLabel) + read.owner.Qualified() + L" " + read.owner.sid + L"\n";
    if (all)
        text += L"  group:       " + read.group.Qualified() + L" " + read.group.sid + L"\n  dacl:        " + read.dacl +
                L"\n";
    return text;
}

// What the hand-over's access check would answer, without changing
// anything: whether the token's user holds WRITE_OWNER on the file by the
// platform's AccessCheck (on an impersonation copy of the token; this thread
// does not impersonate).
DWORD MayTakeOwnership(const std::wstring& path, const ATL::CAccessToken& token, bool& granted)
{
    granted = false;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    const DWORD read = GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT,
                                             OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION |
                                                 DACL_SECURITY_INFORMATION,
                                             nullptr, nullptr, nullptr, nullptr, &descriptor);
    const LocalPtr<void> descriptorOwner(descriptor);
    if (read != ERROR_SUCCESS)
        return read;
    ATL::CAccessToken query;
    if (!token.CreateImpersonationToken(&query))
        return GetLastError();
    DWORD access = 0;
    const DWORD error = GrantedAccess(query.GetHandle(), descriptor, WRITE_OWNER, access);
    granted = (access & WRITE_OWNER) != 0;
    return error;
}

int RunOwner(Context& context, const std::vector<std::wstring>& args)
{
    ArgParser parser({L"--give-to-pid"}, {L"--direct", L"--dry-run"});
    std::wstring error;
    if (!parser.Parse(args, error))
        return Fail(ExitUsage, error + SeeHelp(L"owner"));
    if (parser.Positional().empty())
        return Fail(ExitUsage, L"owner needs at least one PATH" + SeeHelp(L"owner"));
    const auto pidText = parser.Value(L"--give-to-pid");
    const bool direct = parser.Has(L"--direct"), dryRun = parser.Has(L"--dry-run");
    if ((direct || dryRun) && !pidText)
        return Fail(ExitUsage, L"--direct and --dry-run go with --give-to-pid" + SeeHelp(L"owner"));
    uint32_t pid = 0;
    if (pidText && !ParseNumber32(*pidText, pid))
        return Fail(ExitUsage, L"--give-to-pid needs a process id, not " + *pidText);

    ATL::CAccessToken token;
    ATL::CSid user;
    if (pidText && (!QXCommonFunctions::AttachAtlAccessTokenToPrimaryTokenFromProcessId(token, pid) ||
                    !token.GetUser(&user)))
        return Fail(ExitFailed, L"cannot open the token of process " + std::to_wstring(pid) + L": " +
                                    Win32Text(GetLastError()));
    const AccountName userName = pidText ? NameOf(const_cast<SID*>(user.GetPSID())) : AccountName();
    const std::wstring check = direct ? L"with no access check" : L"only if that user may take ownership of it";

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
            exitCode = std::max(exitCode, before.error == ERROR_SUCCESS ? ExitOk : ExitFailed);
        else if (dryRun)
        {
            bool granted = false;
            const DWORD checked = direct ? ERROR_SUCCESS : MayTakeOwnership(path, token, granted);
            Json handOver = Json::MakeObject()
                                .Set(L"pid", static_cast<unsigned long>(pid))
                                .Set(L"to", Account(userName))
                                .Set(L"accessCheck", !direct)
                                .Set(L"dryRun", true)
                                .Set(L"allowed", direct || checked != ERROR_SUCCESS ? Json() : Json(granted));
            if (checked != ERROR_SUCCESS)
                SetWin32(handOver, checked);
            entry.Set(L"handOver", std::move(handOver));
            text += L"  would make " + userName.Qualified() + L" " + userName.sid + L" (the user of process " +
                    std::to_wstring(pid) + L") the owner, " + check + L"\n";
            if (!direct)
                text += L"  may take it: " +
                        (checked == ERROR_SUCCESS ? BoolText(granted) + L" (WRITE_OWNER by the platform's AccessCheck)"
                                                  : L"cannot be checked: " + Win32Text(checked)) +
                        L"\n";
            text += L"  nothing was changed (--dry-run)\n";
            exitCode = std::max(exitCode, checked != ERROR_SUCCESS ? ExitFailed
                                          : direct || granted      ? ExitOk
                                                                   : ExitNo);
        }
        else
        {
            QXCommon::CChangeFileOwner owner;
            const DWORD result = direct ? QXCommon::CChangeFileOwner::SetOwnershipOnFileDirect(path, token)
                                        : owner.ChangeOwner(path, token);
            // A direct change keeps no flag: it is due whenever the owner changed.
            const bool audit = direct ? result == ERROR_SUCCESS : owner.IsAuditRequired() != 0;
            const Descriptor after = ReadDescriptor(path);
            Json handOver = Json::MakeObject()
                                .Set(L"pid", static_cast<unsigned long>(pid))
                                .Set(L"to", Account(userName))
                                .Set(L"accessCheck", !direct)
                                .Set(L"dryRun", false);
            SetWin32(handOver, result).Set(L"changed", result == ERROR_SUCCESS).Set(L"auditRequired", audit);
            entry.Set(L"handOver", std::move(handOver));
            AddDescriptor(entry, true, after);
            text += L"  change owner to: " + userName.Qualified() + L" " + userName.sid + L" (the user of process " +
                    std::to_wstring(pid) + L"), " + check + L"\n";
            text += L"  result:      " + std::to_wstring(result) + L" (" + MessageOf(result) + L")\n  audit due:   " +
                    BoolText(audit) + L"\n" + DescriptorLines(L"owner after: ", after, false);
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

QXINSPECT_COMMAND(L"owner", L"owner PATH... [--give-to-pid N [--direct] [--dry-run]]",
                  L"a file's owner, group and DACL; with --give-to-pid, CHANGES the owner",
                  L"Prints, for each PATH, its owner (name and SID), its group and its DACL in\n"
                  L"SDDL, as the system reports them. Nothing is changed without --give-to-pid.\n"
                  L"  --give-to-pid N  CHANGES THE OWNER of each file to the user of process N, as\n"
                  L"                   the agent hands a file over: only when that user's token\n"
                  L"                   holds WRITE_OWNER on the file (checked while impersonating\n"
                  L"                   it), with the restore privilege enabled for the change;\n"
                  L"                   prints the result code and its text, whether an audit\n"
                  L"                   record is due, and the owner read back afterwards\n"
                  L"  --direct         change the owner with no access check\n"
                  L"  --dry-run        change nothing: show whose the file would become and whether\n"
                  L"                   that user may take it (the platform's AccessCheck for\n"
                  L"                   WRITE_OWNER)\n"
                  L"--json prints {command, files[]}, with handOver {pid, to, accessCheck, dryRun,\n"
                  L"allowed | error, errorText, changed, auditRequired} per file.\n"
                  L"Exit codes: 0 read (and handed over, or it may be), 1 the user may not take\n"
                  L"the file (access denied), 2 bad command line, 3 a file cannot be read, the\n"
                  L"process's token cannot be opened or the hand-over failed otherwise.\n",
                  &RunOwner);
} // namespace qxinspect
