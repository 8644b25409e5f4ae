#pragma once
// CChangeFileOwner: makes a user the owner of a file, but only when the user
// could take ownership himself. The file's security descriptor (owner, group
// and DACL) is read, the system's AccessCheck decides whether the checking
// token holds WRITE_OWNER on it (the file generic mapping applies), and only
// then is the owner set to the user's SID, with the restore privilege enabled
// in the process token for the moment of the change.
//
// The file is opened once, by path, as the identity the calling thread acts
// with, and the descriptor is read, checked and the owner set through that one
// handle, so that a link put in place of the file, or of a folder on its path,
// between the steps changes nothing. The handle must be the file the path
// names: a path that leads elsewhere (a symbolic link or junction on it or at
// its end, a mount point, a drive letter that maps a folder or a share) or to
// something that is no file (a volume, a device) is refused with
// ERROR_CANT_ACCESS_FILE (1920) and nothing is changed. The same holds for
// ChangeOwnerNoImpersonation and SetOwnershipOnFileDirect.
//
// Results are Win32 error codes (0: the owner was changed). A user refused
// by the check gives ERROR_ACCESS_DENIED (5) and nothing is changed. A file
// that does not exist reads as a descriptor that was read successfully; the
// access check then has nothing to check against and fails with
// ERROR_FILE_NOT_FOUND (2), so the hand-over answers 2. A missing folder on
// the path fails the read itself (ERROR_PATH_NOT_FOUND, 3).
//
// The restore privilege is put back into the state it had before every owner
// change, whether the change succeeded or not; owner changes of one process
// are made one at a time, since the privilege belongs to the whole process
// token. Impersonation is the calling thread's own: ChangeOwner leaves the
// thread impersonating exactly what it impersonated before. The object is
// not synchronised: one thread at a time.
//
//   QXCommon::CChangeFileOwner owner;
//   if (owner.ChangeOwner(L"C:\\data\\report.txt", userToken) == 0 && owner.IsAuditRequired())
//       ... record the owner change ...

#include "QXCommonAPI.h"

#include <atlsecurity.h>

#include <memory>
#include <string>

namespace QXCommon
{
class QXCOMMON_API CChangeFileOwner
{
public:
    CChangeFileOwner();
    CChangeFileOwner(const CChangeFileOwner& other); // copies the descriptor held
    CChangeFileOwner& operator=(const CChangeFileOwner& other);
    virtual ~CChangeFileOwner();

    // Hands the file to the token's user when the token itself holds
    // WRITE_OWNER on the file: the thread impersonates the token (which needs
    // TOKEN_DUPLICATE, and TOKEN_QUERY for its user) for the whole check and
    // change. A token that cannot be impersonated gives the impersonation's
    // error and nothing is read.
    DWORD ChangeOwner(const std::wstring& path, const ATL::CAccessToken& userToken);
    // The same without impersonating: the check is made with the identity the
    // calling thread acts with (the token it impersonates, else the process's
    // token), and the owner becomes the given token's user.
    DWORD ChangeOwnerNoImpersonation(const std::wstring& path, const ATL::CAccessToken& userToken);
    // Sets the owner to the token's user (TOKEN_QUERY) with no access check.
    // A process without the restore privilege still tries the change (logged);
    // the system's answer is returned.
    static DWORD SetOwnershipOnFileDirect(const std::wstring& path, const ATL::CAccessToken& userToken);

    // Frees the descriptor, forgets the path and resets the audit flag.
    void Clear();
    // 1 when the last ChangeOwner or ChangeOwnerNoImpersonation changed the
    // owner (the caller records an audit event for it), 0 otherwise.
    int IsAuditRequired() const;

protected:
    // Reads the descriptor, checks WRITE_OWNER and changes the owner; sets the
    // audit flag from the result.
    DWORD DoChangeOwner(const ATL::CAccessToken& userToken);
    // Checks WRITE_OWNER with the thread's token (opened as the thread, then
    // as the process), else the process's token. granted is false unless the
    // result is 0 and the check granted the access.
    DWORD CheckUserHasWriteAccess(bool& granted);
    // AccessCheck of the held descriptor for the desired access, generic
    // rights mapped as for files. The token must be an impersonation token
    // with TOKEN_QUERY.
    DWORD FileAccessCheck(HANDLE token, bool& granted, DWORD desiredAccess);
    // Reads owner, group and DACL of the stored path into the held descriptor
    // (none held when the file does not exist), through an open of the file
    // that is refused when it is not the file the path names.
    DWORD GetSecurityDescriptorFromFile();
    // SetOwnershipOnFileDirect of the stored path.
    DWORD SetOwnershipOnFile(const ATL::CAccessToken& userToken);

private:
    void Start(const std::wstring& path);

    std::wstring filePath;
    std::unique_ptr<BYTE[]> securityDescriptor; // self-relative; null when not read
    int auditRequired;
};
} // namespace QXCommon
