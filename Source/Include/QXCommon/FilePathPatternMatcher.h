#pragma once
// CFilePathPatternMatcher: matches a file path against a rule's pattern (a
// name, a full path, a wildcard path, a folder, a network resource or a
// regular expression). Static functions only; every match function takes the
// path first and the pattern second and returns 1 for a match, 0 for none.
// Comparisons ignore case.
//
// A NUL never occurs in a Windows path or name: a match function given a
// path or pattern that holds one (anywhere in the std::wstring) returns 0
// and logs "A parameter holds a NUL character. Return no match." (level 4).

#include "QXCommonAPI.h"

#include <string>

namespace QXCommon
{
class QXCOMMON_API CFilePathPatternMatcher
{
public:
    // The pattern holds * or ?.
    static bool ContainsWildCard(const std::wstring& pattern);
    // The pattern holds \ or /.
    static bool ContainsPath(const std::wstring& pattern);
    // The pattern is not empty and holds ~ (a short 8.3 name).
    static bool ContainsTilde(const std::wstring& pattern);

    // The general entry: a name rule, a full-path rule or a wildcard rule,
    // chosen by the pattern's separators and wildcards.
    static int MatchAgainstPattern(const std::wstring& path, const std::wstring& pattern, int flag);
    // The path's file name (the whole path if it has no separator) equals the name.
    static int MatchAgainstJustFileName(const std::wstring& path, const std::wstring& name);
    // The wildcard walk: ? is one character, * a run of characters, neither
    // crossing \ or : (nor / when flag is non-zero). No allocation for paths
    // and patterns shorter than 1023 characters.
    static int MatchAgainstWildCardPattern(const std::wstring& path, const std::wstring& pattern, int flag);
    // Folder rule: with includeSubfolders the folder and everything below it,
    // without it the folder itself only (the path written with its trailing \).
    static int MatchAgainstFolder(const std::wstring& path, const std::wstring& folder, int includeSubfolders);
    // Folder rule whose folder holds wildcards. The folder is made to end in
    // exactly one \ and walked as a wildcard pattern (\ and / separators).
    // Without includeSubfolders the path must be that folder (with its
    // trailing separator); with it, some leading part of the path ending at a
    // \ or / must match the folder (the folder itself and everything below).
    static int MatchAgainstWildCardFolder(const std::wstring& path, const std::wstring& folder,
                                          int includeSubfolders);
    // Network resource rule (\\host\share\..., host names): a pattern with
    // wildcards is walked as MatchAgainstWildCardPattern does; otherwise the
    // path must equal the pattern or continue it after a separator (the
    // resource and everything below it). Trailing separators of the pattern
    // are ignored.
    static int MatchAgainstNetworkResourcePattern(const std::wstring& path, const std::wstring& pattern, int flag);
    // Regular-expression rule: compiles the expression with CQXRegEx::Parse
    // (an invalid one is logged and does not match) and searches the path.
    static int MatchAgainstRegularExpressionPattern(const std::wstring& path, const std::wstring& expression);
    // Driver-hook exception list: entries separated by ';' (blank entries and
    // the spaces around entries are ignored). 1 when an entry matches: an
    // entry without separator is a file name (wildcards allowed), an entry
    // with one is cut at its last separator, exactly as the path is, into a
    // folder part and a name part, matched against the path's parent
    // directory and file name (wildcards allowed in both, never crossing a
    // separator; \ and / alike). So a path that can be cut matches an entry
    // written as the path itself, even with a doubled separator ("C:\a\\b.exe")
    // or a root parent ("\\e"); a path that cannot be cut (no separator, or
    // only at the start or end) matches no entry and is logged as a bad path.
    static int MatchAgainstDriverHookExceptionList(const std::wstring& path, const std::wstring& list);

    // Splits the path at its last \ or / into file name and parent directory
    // (without the separator). 1 on success; 0 (outputs emptied) when there
    // is no separator or either part would be empty.
    static int GetFileNameAndParentDirectoryFromFilePath(const std::wstring& path, std::wstring& fileName,
                                                         std::wstring& parentDirectory);
    // Removes the path: out receives the file name (the text after the last
    // \ or /, or the whole input when it has none). 0 (out empty) when the
    // input is empty or ends in a separator.
    static int StripPath(const std::wstring& path, std::wstring& out);
    // Removes the file: out receives the text up to and including the last
    // \ or /. 0 (out empty) when the input is empty or has no separator.
    static int StripFile(const std::wstring& path, std::wstring& out);
    // Removes the last folder of a folder path: trailing separators are
    // stripped one by one, then the last component, leaving the parent with
    // its trailing separator ("C:\A\B\" and "C:\A\B" give "C:\A\"). 0 (out
    // empty) when nothing would remain (empty input, a bare root or name).
    static int StripFolder(const std::wstring& path, std::wstring& out);

protected:
    CFilePathPatternMatcher() = default;
    virtual ~CFilePathPatternMatcher() = default;

private:
    // One hook-list entry against the path's split parts (separators as \);
    // an empty fileName is a path that could not be split.
    static int MatchesDriverHookExceptionPattern(const std::wstring& path, const std::wstring& fileName,
                                                 const std::wstring& parent, const std::wstring& pattern);
};
} // namespace QXCommon
