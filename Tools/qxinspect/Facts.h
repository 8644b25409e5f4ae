#pragma once
// What several qxinspect commands ask the library in the same way: result
// texts, times, a file's owner, a token's elevation type, a user's
// environment table, a command line's split, and a path against a rule of a
// given kind. One copy here keeps the commands (and qxbench) answering alike.

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
// "0x... text [NAME]" for a verification result or other HRESULT.
const wchar_t* ResultName(HRESULT result);
std::wstring ResultText(HRESULT result);
// "YYYY-MM-DD hh:mm:ss UTC"; empty for a zero time.
std::wstring UtcText(FILETIME time);
// "2024-05-01T12:34:56.1234567Z": the time in UTC to its full precision.
std::wstring IsoTime(const FILETIME& time);
// The text of a BSTR, which is freed.
std::wstring TakeBstr(BSTR text);
// The system's text for a Win32 error: "5 (Access is denied.)".
std::wstring Win32Text(DWORD code);

// A block the system allocated with LocalAlloc (SDDL texts, SIDs from text,
// security descriptors), freed when the owner goes.
struct LocalFreeDeleter
{
    void operator()(void* block) const noexcept { LocalFree(block); }
};
template <typename T>
using LocalPtr = std::unique_ptr<T, LocalFreeDeleter>;

// "DOMAIN\\name" of a SID (just the name without domain); empty when unknown.
std::wstring AccountOfSid(PSID sid);

// A file's owner, group and DACL as the platform reports them.
struct Descriptor
{
    DWORD error = ERROR_SUCCESS;
    std::wstring ownerSid, ownerName, groupSid, groupName, dacl;
};
Descriptor ReadDescriptor(const std::wstring& path);

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

// The rule kinds that match a path's text.
enum class MatchKind
{
    Automatic, // MatchAgainstPattern's own choice
    Name,
    Path,
    Wildcard,
    Folder,
    Subfolders,
    Regex,
    Glob,
    Network,
    HookExceptions,
};
bool ParseMatchKind(const std::wstring& name, MatchKind& kind);
const wchar_t* MatchKindName(MatchKind kind);
// 1 match, 0 no match; -1 when the pattern is refused (an expression the
// validator rejects, a glob that cannot be compiled), with the reason.
int MatchPath(MatchKind kind, const std::wstring& path, const std::wstring& pattern, int flag, std::wstring& error);
} // namespace qxinspect
