#pragma once
// LsaUtil: low-level security helpers: enabling a privilege in a process's
// token, the cached privilege-name lookup, token information in a buffer of
// the right size, account SIDs, the Administrators group as TOKEN_GROUPS and
// LSA strings. Failures are FALSE or null with the reason logged and left in
// GetLastError().

#include "QXCommonAPI.h"

#include <ntsecapi.h>

namespace LsaUtil
{
// Enables (enable non-zero) or disables one privilege, given by name
// ("SeRestorePrivilege"), in the primary token of the process. The process is
// opened with PROCESS_QUERY_INFORMATION and its token with
// TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY. TRUE only when the change was made:
// a token that does not hold the privilege gives FALSE with
// ERROR_NOT_ALL_ASSIGNED (1300); an unknown name FALSE with
// ERROR_NO_SUCH_PRIVILEGE (1313). The change lasts beyond the call: a caller
// that needs a privilege only for a moment disables it again.
QXCOMMON_API BOOL EnablePrivilege(DWORD processId, const wchar_t* privilegeName, BOOL enable);

// The LUID of a privilege on the local system, as LookupPrivilegeValueW would
// give it. Answers are remembered for the life of the process (privilege
// values do not change while the system runs); safe to call from many
// threads at once. FALSE (logged, error in GetLastError()) for an unknown or
// null name.
QXCOMMON_API BOOL LookupPrivilegeValueCache(const wchar_t* privilegeName, LUID& luid);

// Points the LSA_STRING at the narrow text (not copied: the text must outlive
// the string). Length is the text's length in bytes, MaximumLength one more.
// A null text gives an empty string. FALSE for a null target or a text of
// 65,535 bytes or more, which an LSA_STRING cannot describe.
QXCOMMON_API BOOL InitializeLsaString(PLSA_STRING target, const char* text);

// The token's information of the class in a buffer allocated with new[]: the
// caller frees it with delete[]. length (may be null) receives its size in
// bytes. Null on failure, with the system's error left in GetLastError().
QXCOMMON_API BYTE* GetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS infoClass, DWORD* length);

// The SID of an account on the local system ("user", "DOMAIN\user",
// "Administrators"), allocated on the process heap: free it with
// HeapFree(GetProcessHeap(), 0, sid). Null (logged) when the name is null or
// unknown.
QXCOMMON_API PSID GetUserAccountSid(const wchar_t* accountName);

// One group, the Administrators alias (S-1-5-32-544) with the attributes
// SE_GROUP_MANDATORY | SE_GROUP_ENABLED_BY_DEFAULT | SE_GROUP_ENABLED (7), as
// TOKEN_GROUPS in one block on the process heap that also holds the SID: free
// it with HeapFree(GetProcessHeap(), 0, groups). Null (logged) when the SID
// cannot be built; running out of memory throws ATL::CAtlException
// (E_OUTOFMEMORY).
QXCOMMON_API TOKEN_GROUPS* GetAdminGroup();
} // namespace LsaUtil
