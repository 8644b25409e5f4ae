// File ownership: a checked hand-over against the same platform work written
// inline (impersonate, open the file once, make sure it is the file the path
// names, read the descriptor through the handle into a large buffer, open and
// duplicate the thread token, AccessCheck, enable the restore privilege, set
// the owner through the handle, put the privilege back, revert).

#include "Bench.h"

#include "QXCommon/ChangeFileOwner.h"

#include <aclapi.h>

#include <atlsecurity.h>

#include <string>
#include <vector>

namespace
{
void Run(qxbench::Runner& runner)
{
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    const std::wstring path = std::wstring(temp) + L"qxbench-owner.txt";
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return;
    CloseHandle(file);
    ATL::CAccessToken token, process;
    ATL::CSid user;
    if (!token.GetProcessToken(TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_IMPERSONATE) || !token.GetUser(&user) ||
        !process.GetProcessToken(TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY))
        return;

    std::vector<BYTE> descriptor(4096);
    GENERIC_MAPPING mapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS};
    runner.Compare(
        L"CChangeFileOwner::ChangeOwner", L"inline system calls",
        [&] {
            QXCommon::CChangeFileOwner owner;
            qxbench::KeepAlive(owner.ChangeOwner(path, token));
        },
        [&] {
            ImpersonateLoggedOnUser(token.GetHandle());
            HANDLE file = CreateFileW(path.c_str(), READ_CONTROL | WRITE_OWNER, 7, nullptr, OPEN_EXISTING,
                                      FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
            wchar_t full[MAX_PATH], final[MAX_PATH];
            GetFullPathNameW(path.c_str(), MAX_PATH, full, nullptr);
            FILE_ATTRIBUTE_TAG_INFO tag{};
            const bool named = GetFileType(file) == FILE_TYPE_DISK &&
                               GetFinalPathNameByHandleW(file, final, MAX_PATH, 0) != 0 &&
                               CompareStringOrdinal(full, -1, final + 4, -1, TRUE) == CSTR_EQUAL &&
                               GetFileInformationByHandleEx(file, FileAttributeTagInfo, &tag, sizeof tag);
            DWORD needed = 0;
            GetKernelObjectSecurity(file, 7, descriptor.data(), static_cast<DWORD>(descriptor.size()), &needed);
            HANDLE thread = nullptr, check = nullptr;
            OpenThreadToken(GetCurrentThread(), TOKEN_QUERY | TOKEN_DUPLICATE, FALSE, &thread);
            DuplicateToken(thread, SecurityImpersonation, &check);
            PRIVILEGE_SET privileges[4];
            DWORD length = sizeof privileges, granted = 0;
            BOOL status = FALSE;
            AccessCheck(descriptor.data(), check, WRITE_OWNER, &mapping, privileges, &length, &granted, &status);
            CloseHandle(check);
            CloseHandle(thread);
            ATL::CTokenPrivileges previous;
            process.EnablePrivilege(SE_RESTORE_NAME, &previous);
            SetSecurityInfo(file, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, const_cast<SID*>(user.GetPSID()), nullptr,
                            nullptr, nullptr);
            process.EnableDisablePrivileges(previous);
            CloseHandle(file);
            RevertToSelf();
            qxbench::KeepAlive(status && named);
        },
        1, L"a disk file in %TEMP% handed to this process's user, log off");
    DeleteFileW(path.c_str());
}
} // namespace

QXBENCH_CASE(L"owner", &Run);
