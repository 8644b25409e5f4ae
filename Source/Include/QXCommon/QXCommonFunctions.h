#pragma once
// Free functions of QXCommon.

#include "QXCommonAPI.h"

#include <atlbase.h>
#include <atlsecurity.h>

#include <string>

namespace QXCommonFunctions
{
// ---- Results, registry and event log ---------------------------------------

// The system's text for a Win32 error or HRESULT, line breaks ("\r\n") removed.
// Empty for 0 and for codes without text.
QXCOMMON_API std::wstring ErrorMessageFromCode(int code);

// Reads a REG_SZ or REG_EXPAND_SZ value (not expanded) of an open key.
// Returns 0, the registry error, or ERROR_INVALID_DATA (13) for another type
// or data that is not an even number of bytes ending in NUL.
QXCOMMON_API DWORD RegQueryStringValue(ATL::CRegKey& key, const wchar_t* valueName, std::wstring& value);

// Writes one event under the source "Kestrova Runwarden": the text is
// formatted printf-style (wide, "%ls" for wide strings) and cut to 255
// characters. Returns 0 or the Win32 error.
QXCOMMON_API DWORD LogEventDirect(DWORD eventId, WORD eventType, const wchar_t* format, ...);

// ---- Operating system and WOW64 --------------------------------------------

// The running Windows as one bit: 6.1 0x10 / 0x80 (workstation / server),
// 6.2 0x20 / 0x40, 6.3 0x100 / 0x200, 10.0 0x400 / 0x800; 0 for others.
QXCOMMON_API DWORD GetCurrentOS();
// True on x64 and Itanium processors (not on ARM64).
QXCOMMON_API bool Is64BitArchitecture();
// True when the process is a 32-bit process on 64-bit Windows; false when it
// is not or cannot be asked.
QXCOMMON_API bool IsWow64(DWORD processId);
// Forward to kernel32's functions of the same names (looked up at each call;
// false where the system lacks them).
QXCOMMON_API BOOLEAN QXWow64EnableWow64FsRedirection(BOOLEAN enable);
QXCOMMON_API BOOL QXWow64DisableWow64FsRedirection(PVOID* oldValue);
QXCOMMON_API BOOL QXWow64RevertWow64FsRedirection(PVOID oldValue);
// True when the calling thread of a WOW64 process has redirection on.
QXCOMMON_API bool IsWow64FSRedirectionEnabled();

// ---- Executable-image check ------------------------------------------------

// Reads the file's DOS and NT headers. Returns 0 when the check ran (isNTExe
// then holds 1 or 0) or the Win32 error that stopped it. What is not a disk
// file, and NT headers 256 MiB or more into the file, are no image, answered
// without a read.
QXCOMMON_API DWORD TryCheckIsNTExe(const std::wstring& path, BOOL& isNTExe);
// 1 when the file is an NT image, or exists, is not a folder and may not be
// read by the caller; 0 otherwise.
QXCOMMON_API int IsNTExeOrAccessRestricted(const std::wstring& path);

// ---- Tokens, membership and elevation --------------------------------------
// The token object given to the Attach functions must be empty: one that
// already holds a handle is refused (FALSE, logged) and left untouched. On
// success it owns the new handle. Failures are logged with the system error,
// which is also left in GetLastError().

// The process's primary token, opened with TOKEN_DUPLICATE |
// TOKEN_IMPERSONATE | TOKEN_QUERY (the process with PROCESS_QUERY_INFORMATION).
QXCOMMON_API BOOL AttachAtlAccessTokenToPrimaryTokenFromProcessId(ATL::CAccessToken& token, DWORD processId);
// An impersonation copy (SecurityImpersonation) of the process's primary
// token: what TokenHasMembership needs.
QXCOMMON_API BOOL AttachAtlAccessTokenToImpersonationTokenFromProcessId(ATL::CAccessToken& token, DWORD processId);
// The thread's impersonation token, opened as the caller (the thread with
// THREAD_QUERY_INFORMATION); FALSE with ERROR_NO_TOKEN (1008) when the thread
// is not impersonating.
QXCOMMON_API BOOL AttachAtlAccessTokenToTokenFromThreadId(ATL::CAccessToken& token, DWORD threadId);
// The identity the thread acts with, always as a primary token with
// TOKEN_DUPLICATE | TOKEN_QUERY: a primary copy of its impersonation token
// when it impersonates, the process's token otherwise. The process is opened
// with PROCESS_ALL_ACCESS. A token held by the object before is closed.
QXCOMMON_API BOOL ObtainPrimaryTokenFromProcessOrThread(DWORD processId, DWORD threadId, ATL::CAccessToken& token);

// "S-1-5-32-544" -> SID. FALSE (logged) for a null or malformed text.
QXCOMMON_API BOOL ConvertStringSidToATLSidW(const wchar_t* sidText, ATL::CSid& sid);

// The run level the system's elevation check (kernel32's CheckElevation,
// looked up once per process) reports for starting the executable; 0 for an
// empty path or where the system has no such check. Callers interpret it.
QXCOMMON_API DWORD CheckElevation(const std::wstring& path);

// True when the token's elevation type is Full (2) or Limited (3): an
// administrator under User Account Control, elevated or filtered half alike.
// Default (1) and a token that cannot be read (logged) give false.
QXCOMMON_API bool IsRestrictedOrFullAdmin(HANDLE token);
// TokenIsElevated of the token; false (logged) when it cannot be read.
QXCOMMON_API bool IsTokenElevated(HANDLE token);
// The system's membership rule (CheckTokenMembership): true only for an
// enabled group; deny-only and disabled groups do not count. The token must
// be an impersonation token (an AttachAtlAccessTokenToImpersonationToken...
// one); a primary token fails (logged). An empty token object asks about the
// calling thread's effective identity.
QXCOMMON_API bool TokenHasMembership(const ATL::CAccessToken& token, const std::wstring& sid);
// True when the process's token is an enabled member of the user-rights
// management group (S-1-5-21-612037418-213544074-8-1-0-0).
QXCOMMON_API bool IsProcessURMed(DWORD processId);
} // namespace QXCommonFunctions

namespace QXCommonFunctions
{
// ---- File hash --------------------------------------------------------------

// The hash that identifies the file: the digest of its first 8 MiB
// (8,388,608 bytes) with the process's algorithm (SignatureAlgorithmStrategy),
// SHA-1 and SHA-256 as lower-case and Adler-32 as upper-case hex text. Empty
// when no algorithm is set or the file cannot be read (the thread's last
// error then tells why: ERROR_INVALID_NAME for a path holding a NUL,
// ERROR_NOT_SUPPORTED for what is not a disk file, ERROR_FILE_TOO_LARGE from
// 4 GiB on). The C export CalculateAdler32Checksum is declared in
// SignatureAlgorithmStrategy.h.
QXCOMMON_API std::wstring GenerateFileHash(const std::wstring& path);
} // namespace QXCommonFunctions
