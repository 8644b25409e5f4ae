#pragma once
// Who may change what: the token of a standard user, the platform's access
// check of a token against a file's or a folder's security descriptor, and
// which of the rights it grants let that user put a program of his own
// where a rule allows one.
//
// The rights that count, on the folder of a program a rule allows:
//   FILE_ADD_FILE          create a file there (a program of his own, or one
//                          in the place of a program that is gone)
//   FILE_DELETE_CHILD      delete the program whatever its own permissions
//   FILE_ADD_SUBDIRECTORY  only for a subfolders rule (which allows every
//                          folder below): a new folder, whose files are his
// and on the program's file itself:
//   FILE_WRITE_DATA        overwrite it
//   DELETE                 delete it
//   WRITE_DAC, WRITE_OWNER give himself the rights above
// Not counted: appending to the file (FILE_APPEND_DATA: the start of the
// image, which is what runs and what hash rules pin, stays), its attributes
// and extended attributes, reading, and rights on the folders above.

#include "Platform.h"

#include <atlsecurity.h>

#include <string>
#include <vector>

namespace qxinspect
{
// A primary token of this process with the Administrators group deny-only:
// the standard user that handover --restricted starts its client as.
bool AdministratorsDenyOnlyToken(ATL::CHandle& token, DWORD& error);

// The user whose rights an audit checks, as an impersonation token for the
// access check: the tool's own token with Administrators deny-only, or the
// token of process pid as it is.
struct StandardUser
{
    ATL::CAccessToken token; // impersonation token; empty when it could not be had
    AccountName user;
    std::wstring source; // how it was made
    DWORD error = ERROR_SUCCESS;
};
void StandardUserOf(DWORD pid, StandardUser& standard);

// The platform's AccessCheck of an impersonation token against a
// descriptor, with the file objects' generic mapping: the rights granted of
// those desired (MAXIMUM_ALLOWED: every right granted). 0 or the error.
DWORD GrantedAccess(HANDLE token, PSECURITY_DESCRIPTOR descriptor, DWORD desired, DWORD& granted);

struct WriteRight
{
    DWORD bit;
    bool onFolder;
    const wchar_t* name; // FILE_ADD_FILE, ...
    const wchar_t* what; // "create a file in the folder"
};
// The rights among those granted on a program's folder and on its file that
// let the user put a program of his own there (see above).
std::vector<WriteRight> WriteRights(DWORD folderGranted, DWORD fileGranted, bool subfolders);
// The same from the descriptors of the folder and the file.
DWORD WritableBy(HANDLE token, PSECURITY_DESCRIPTOR folder, PSECURITY_DESCRIPTOR file, bool subfolders,
                 std::vector<WriteRight>& rights);

// A file's or folder's descriptor (owner, group, DACL), read through a
// handle of it. 0 or the error.
DWORD ReadSecurity(const std::wstring& path, bool folder, LocalPtr<void>& descriptor);
} // namespace qxinspect
