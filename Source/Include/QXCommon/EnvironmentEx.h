#pragma once
// CEnvironmentEx: an environment table that does not belong to the calling
// process. It is loaded from another process or from a user's token (or built
// up with Add), and strings are expanded against it as that user would see
// them: %name% references in rule paths (ExpandString, cached), inside
// regular expressions (ExpandRxString, values escaped), and in the other
// direction, concrete paths turned back into %name% form (NormalisePaths).
//
// Names are stored in lower case (towlower, character by character) without
// "%"; values keep their case. Every entry point lower-cases names first.
//
// Locking: the variable table (and the normalisation list and user name) is
// guarded by the table lock, the expansion cache by the cache lock. The two
// are never held together. A text without "%" is answered without locking.
//
// Behaviour decided here where the rules leave a choice:
// - Loading skips block entries that hold no "=" or whose name is empty
//   (the system's "=C:=C:\" entries begin with "="): an empty name would turn
//   every "%%" into its value.
// - Add refuses a null or empty name (result 0); a null value is refused too.
// - ExpandRxString expands a matching candidate's value fully (nested
//   %name% references included, as ExpandString does) before escaping it.
//   Candidates that match no variable stay as written; the result is 1 when at
//   least one candidate was replaced, even if others were not.
// - IsPerSessionTempFolderEnabled treats a "PerSessionTempDir" value that is
//   not a 4-byte REG_DWORD as unreadable (error 13, ERROR_INVALID_DATA,
//   logged) and goes on to the next key.
// - Normalisation values enter the list whole, a trailing "\" included, so
//   that each token expands back to exactly the text it replaced: with
//   SystemDrive "C:\", "C:\x" becomes "%systemdrive%x" and the drive-relative
//   "C:x" stays as it is. Empty values, and values holding "%" (which
//   ExpandString would expand further), are not entered. A value is replaced
//   only in text that no earlier (longer) value has replaced, never inside or
//   across a token. So for a path without "%", ExpandString of the result
//   gives the path back (ignoring case).
// - Loading hands a value to GetLongPathNameW only when it can be a path with
//   a short name: shorter than MAX_PATH, without ";" or characters that
//   paths cannot hold, with "~" and a digit in it. Other values are kept as
//   they are.
// - ExpandString keeps making passes while a pass replaces something: a
//   variable whose value refers to itself never finishes. Callers must not
//   build such tables.
// - GetAsEnvironmentBlock of an empty table is a single NUL.

#include "QXCommonAPI.h"

#include <SynchronousMultiRead.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace QXCommon
{
class QXCOMMON_API CEnvironmentEx
{
public:
    // accelerator: 1 = cache expansions.
    explicit CEnvironmentEx(int accelerator = 1);
    ~CEnvironmentEx();

    // Loads the environment of the user and session of the process. 1 = done.
    int LoadFromProcess(DWORD processId);
    // Loads the environment that the token's user gets (the system default
    // environment if the token's cannot be built). Replaces entries of the
    // same names, keeps the others, empties the cache. 1 = done.
    int LoadFromTokenHandle(HANDLE token, DWORD sessionId);
    // Loads the entries of an environment block ("name=value\0...\0\0") as
    // LoadFromTokenHandle does, without the per-session temporary folder
    // step. A null block gives 0; an empty block loads nothing and gives 1.
    int LoadFromEnvironmentBlock(const wchar_t* block);
    // Records the token user's name and sets "username". 1 = done.
    int LoadUserName(HANDLE token);
    const std::wstring& UserName() const { return m_userName; }

    // The table as an environment block: "name=value\0" per variable in key
    // order (names in lower case), then one more NUL.
    std::vector<wchar_t> GetAsEnvironmentBlock() const;

    // Logs every variable and every cache entry (level 4).
    void Debug() const;

    // Expands %name% references from the table. 1 = something was replaced
    // (output set); 0 = nothing replaced, output untouched.
    int ExpandString(const wchar_t* input, std::wstring& output);
    // The same, in place; the string stays as it was when nothing was replaced.
    void ExpandString(std::wstring& text);
    // Expands references inside a regular expression, escaping the values.
    int ExpandRxString(const std::wstring& input, std::wstring& output);
    // Replaces every %name% (any case) in subject by value. 1 = replaced.
    int ExpandVariable(std::wstring& subject, const std::wstring& name, const std::wstring& value) const;

    // One variable's value; the name may carry "%" signs. 1 = found.
    int Lookup(const wchar_t* name, std::wstring& value) const;
    int Add(const wchar_t* name, const wchar_t* value);
    int Add(const std::wstring& name, const std::wstring& value);
    int Remove(const wchar_t* name);
    int Remove(const std::wstring& name);
    // Copies one variable from another table. 1 = copied, 0 = absent there.
    int CopyVariable(const CEnvironmentEx& other, const wchar_t* name);

    // Expansion with the calling process's own environment. Win32 error code.
    static DWORD ExpandStringDirect(const std::wstring& originalString, std::wstring& expandedString);
    // Expansion by the system for the token's user. Win32 error code.
    static DWORD ExpandStringDirectForUser(HANDLE token, const std::wstring& originalString,
                                           std::wstring& expandedString);

    // Replaces known folder values in path by %name% tokens; the result is
    // lower case.
    void NormalisePaths(std::wstring& path) const;

    void EnableAccellerator(int flag);
    void ResetAccellerator();

private:
    CEnvironmentEx(const CEnvironmentEx&);
    CEnvironmentEx& operator=(const CEnvironmentEx&);

    using NormalisationPair = std::pair<std::wstring, std::wstring>; // (value, "%name%")

    // Called with the table lock held.
    DWORD CharsRequiredForEnvironmentBlock() const;
    static void EnsureLongFileName(std::wstring& value);
    static int IsPerSessionTempFolderEnabled();
    static bool OrderedEnvVarComparer(const NormalisationPair& first, const NormalisationPair& second);
    void SetupNormalisationEnvVars();
    // Stores the block's entries under the table lock (write).
    void StoreBlockEntries(const wchar_t* block, bool perSessionTemp, DWORD sessionId);
    // Expands with the table (passes in key order); takes the table lock.
    bool ExpandWithTable(std::wstring& text) const;

    std::map<std::wstring, std::wstring> m_variables;
    std::map<std::wstring, std::wstring> m_expansionCache;
    int m_accelerator;
    mutable CSynchronousMultiRead m_tableLock;
    mutable CSynchronousMultiRead m_cacheLock;
    std::wstring m_userName;
    std::vector<NormalisationPair> m_normalisation;
};
} // namespace QXCommon
