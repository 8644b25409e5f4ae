#include "Access.h"

#include "FileFacts.h"

#include "QXCommon/QXCommonFunctions.h"

#include <sddl.h>

namespace qxinspect
{
namespace
{
const wchar_t* const AdministratorsSid = L"S-1-5-32-544";

const WriteRight Rights[] = {
    {FILE_ADD_FILE, true, L"FILE_ADD_FILE", L"create a file in the folder"},
    {FILE_DELETE_CHILD, true, L"FILE_DELETE_CHILD", L"delete the program through the folder"},
    {FILE_ADD_SUBDIRECTORY, true, L"FILE_ADD_SUBDIRECTORY", L"create a folder below it, which the rule allows too"},
    {FILE_WRITE_DATA, false, L"FILE_WRITE_DATA", L"write the program"},
    {DELETE, false, L"DELETE", L"delete the program"},
    {WRITE_DAC, false, L"WRITE_DAC", L"change the program's permissions"},
    {WRITE_OWNER, false, L"WRITE_OWNER", L"take the program's ownership"},
};
} // namespace

bool AdministratorsDenyOnlyToken(ATL::CHandle& token, DWORD& error)
{
    ATL::CAccessToken own;
    PSID adminsSid = nullptr;
    HANDLE made = nullptr;
    if (own.GetProcessToken(TOKEN_DUPLICATE | TOKEN_QUERY | TOKEN_ASSIGN_PRIMARY) &&
        ConvertStringSidToSidW(AdministratorsSid, &adminsSid))
    {
        const LocalPtr<void> adminsOwner(adminsSid);
        SID_AND_ATTRIBUTES denyOnly = {adminsSid, 0};
        CreateRestrictedToken(own.GetHandle(), 0, 1, &denyOnly, 0, nullptr, 0, nullptr, &made);
    }
    if (made == nullptr)
    {
        error = GetLastError() != ERROR_SUCCESS ? GetLastError() : ERROR_INVALID_HANDLE;
        return false;
    }
    token.Attach(made);
    return true;
}

void StandardUserOf(DWORD pid, StandardUser& standard)
{
    ATL::CAccessToken primary;
    if (pid != 0)
    {
        standard.source = L"the user of process " + std::to_wstring(pid) + L", with the groups of its token";
        if (!QXCommonFunctions::AttachAtlAccessTokenToPrimaryTokenFromProcessId(primary, pid))
            standard.error = GetLastError() != ERROR_SUCCESS ? GetLastError() : ERROR_INVALID_HANDLE;
    }
    else
    {
        standard.source = L"this tool's user with the Administrators group deny-only";
        ATL::CHandle restricted;
        if (AdministratorsDenyOnlyToken(restricted, standard.error))
            primary.Attach(restricted.Detach());
    }
    if (standard.error != ERROR_SUCCESS)
        return;
    ATL::CSid user;
    if (primary.GetUser(&user))
        standard.user = NameOf(const_cast<SID*>(user.GetPSID()));
    // The access check asks an impersonation token (this thread impersonates nothing).
    if (!primary.CreateImpersonationToken(&standard.token))
        standard.error = GetLastError() != ERROR_SUCCESS ? GetLastError() : ERROR_INVALID_HANDLE;
}

DWORD GrantedAccess(HANDLE token, PSECURITY_DESCRIPTOR descriptor, DWORD desired, DWORD& granted)
{
    granted = 0;
    GENERIC_MAPPING mapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS};
    PRIVILEGE_SET privileges = {};
    DWORD privilegesSize = sizeof(privileges), access = 0;
    BOOL status = FALSE;
    if (!AccessCheck(descriptor, token, desired, &mapping, &privileges, &privilegesSize, &access, &status))
        return GetLastError() != ERROR_SUCCESS ? GetLastError() : ERROR_INVALID_PARAMETER;
    granted = status ? access : 0;
    return ERROR_SUCCESS;
}

std::vector<WriteRight> WriteRights(DWORD folderGranted, DWORD fileGranted, bool subfolders)
{
    std::vector<WriteRight> found;
    for (const WriteRight& right : Rights)
        if (((right.onFolder ? folderGranted : fileGranted) & right.bit) != 0 &&
            (right.bit != FILE_ADD_SUBDIRECTORY || subfolders))
            found.push_back(right);
    return found;
}

DWORD WritableBy(HANDLE token, PSECURITY_DESCRIPTOR folder, PSECURITY_DESCRIPTOR file, bool subfolders,
                 std::vector<WriteRight>& rights)
{
    rights.clear();
    DWORD folderGranted = 0, fileGranted = 0;
    DWORD error = GrantedAccess(token, folder, MAXIMUM_ALLOWED, folderGranted);
    if (error == ERROR_SUCCESS)
        error = GrantedAccess(token, file, MAXIMUM_ALLOWED, fileGranted);
    if (error == ERROR_SUCCESS)
        rights = WriteRights(folderGranted, fileGranted, subfolders);
    return error;
}

DWORD ReadSecurity(const std::wstring& path, bool folder, LocalPtr<void>& descriptor)
{
    descriptor.reset();
    ATL::CHandle opened;
    if (folder)
    {
        // No access asked: the descriptor is read through a handle opened again from this one.
        const HANDLE handle = CreateFileW(path.c_str(), 0, ShareAll, nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS,
                                          nullptr);
        if (handle == INVALID_HANDLE_VALUE)
            return GetLastError();
        opened.Attach(handle);
    }
    // Only a regular disk file is asked about, checked as the facts check it.
    else if (const FileStatus status = OpenRegularFile(path, opened); !status.Ok())
        return status.error;
    return qxinspect::ReadSecurity(opened, descriptor);
}
} // namespace qxinspect
