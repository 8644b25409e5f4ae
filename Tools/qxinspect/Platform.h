#pragma once
// What several qxinspect commands ask the platform and the library in the
// same way: result texts, times, accounts, a file's owner, a token's
// elevation type, a user's environment table, a command line's split; and
// the JSON form of codes and accounts. One copy here keeps the commands (and
// qxbench) answering alike.

#include "Inspect.h"

#include <windows.h>

#include <cstdint>
#include <memory>
#include <string>

namespace QXCommon
{
class CEnvironmentEx;
}

namespace qxinspect
{
// The tool's name for an HRESULT it knows ("TRUST_E_NOSIGNATURE"), else empty.
const wchar_t* ResultName(HRESULT result);
// "0x800b0100 text [NAME]" for a verification result or other HRESULT.
std::wstring ResultText(HRESULT result);
// The system's text for a Win32 error: "5 (Access is denied.)".
std::wstring Win32Text(DWORD code);
// Blanks of a rules or --from line (space, tab, CR, VT, FF), and the text
// without them at either end.
bool IsBlank(wchar_t c);
std::wstring Trimmed(const std::wstring& text);
// "2024-05-01T12:34:56Z", with the 100-ns fraction when asked for
// ("...:56.1234567Z"); empty for a zero time.
std::wstring IsoTime(const FILETIME& time, bool fraction = false);
// The text of a BSTR, which is freed.
std::wstring TakeBstr(BSTR text);

// The JSON conventions every document follows (README and
// qxinspect.schema.json): a Win32 code is a number "error" with the system's
// "errorText"; an HRESULT is a string "0x800b0100" under KEY with KEYText
// (the system's text) and KEYName (null when the tool has no name for it); an
// account is {name, domain, sid}.
Json& SetWin32(Json& object, DWORD code);
inline Json Win32Json(DWORD code)
{
    Json object = Json::MakeObject();
    return SetWin32(object, code);
}
Json& SetHresult(Json& object, const std::wstring& key, HRESULT result);

// An account as the system names it (name and domain empty when unknown).
struct AccountName
{
    std::wstring name, domain, sid;
    // "DOMAIN\name" (just the name without domain); empty when unknown.
    std::wstring Qualified() const;
};
AccountName NameOf(PSID sid);
Json Account(const AccountName& account);

// A block the system allocated with LocalAlloc (SDDL texts, SIDs from text,
// security descriptors), freed when the owner goes.
struct LocalFreeDeleter
{
    void operator()(void* block) const noexcept { LocalFree(block); }
};
template <typename T>
using LocalPtr = std::unique_ptr<T, LocalFreeDeleter>;

// "DOMAIN\\name" of a SID (just the name without domain); empty when unknown.
inline std::wstring AccountOfSid(PSID sid)
{
    return NameOf(sid).Qualified();
}

// A file's owner, group and DACL as the platform reports them.
struct Descriptor
{
    DWORD error = ERROR_SUCCESS;
    AccountName owner, group;
    std::wstring dacl;
};
Descriptor ReadDescriptor(const std::wstring& path);
// The same for a file already open (it is opened again from its handle for
// READ_CONTROL, so that what is read is that file's).
Descriptor ReadDescriptor(HANDLE file);
// The descriptor itself (owner, group, DACL) of an open file or folder, read
// the same way. 0 or the error.
DWORD ReadSecurity(HANDLE file, LocalPtr<void>& descriptor);

// "default", "full", "limited" or "unknown".
const wchar_t* ElevationTypeName(HANDLE token);

// Loads the environment table of process pid's user and session, or of the
// tool's own token and session when pid is 0. Fills error on failure.
bool LoadTable(QXCommon::CEnvironmentEx& env, uint32_t pid, std::wstring& error);

// A command line split as the agent splits it, and its arguments with the
// files found on the search path written as full paths.
struct SplitLine
{
    bool split = false;     // a program was found
    bool converted = false; // the arguments were expanded
    std::wstring module, arguments, expanded;
};
SplitLine SplitAndExpand(const std::wstring& cmdLine);

// The same text, case ignored (hash texts, kind names).
bool EqualNoCase(const std::wstring& a, const std::wstring& b);

// True when the tool runs under Wine (whose chain policy accepts partial
// chains).
bool OnWine();
} // namespace qxinspect
