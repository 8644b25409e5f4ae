#pragma once
// Replaces the arguments of a command line that name files found on the
// search path by those files' full paths, so that argument rules can compare
// full paths.

#include "QXCommonAPI.h"

#include <string>
#include <vector>

namespace QXCommon
{
class QXCOMMON_API CExpandArgs
{
public:
    CExpandArgs() = default;
    CExpandArgs(const CExpandArgs&) = default;
    CExpandArgs& operator=(const CExpandArgs&) = default;
    virtual ~CExpandArgs() = default;

    // Splits args into arguments (separated by white space or commas; a
    // double quote at the start of an argument quotes it up to a double quote
    // followed by white space, a comma or the end), looks each candidate up
    // with PathFindOnPathW and rebuilds the argument string.
    //
    // Candidates: an argument is tried as a file name when it holds a '.'
    // (PathFindOnPathW adds no extension, so a name without one is never
    // found) and no '\\', '/' or ':' (a name with a directory or drive part
    // is not looked up on the search path), and is shorter than MAX_PATH.
    // Arguments that are not found are kept unchanged.
    //
    // Rebuilding: the arguments are joined with one blank, so that cutting
    // the result again gives the same arguments. An argument that holds
    // white space or a comma, or that begins with a double quote, is put
    // between double quotes (quotes inside it stay as they are: none of them
    // is followed by a separator). Empty arguments (from adjacent
    // separators) stay empty, so a run of separators becomes a run of
    // blanks; an empty last argument is written as "" so that it is not lost.
    //
    // Returns 1 with the rebuilt string in result; 0 when args is null.
    int ConvertArgsToFullPath(const wchar_t* args, std::wstring& result);

private:
    // Cuts the buffer into arguments in place (writes NULs into it); the
    // pointers point into the buffer. 1 when at least one argument was found.
    int ExtractArguments(wchar_t* buffer, std::vector<wchar_t*>& args);
    // Joins the arguments into result, each found on the search path replaced
    // by its full path.
    void ExpandArguments(std::wstring& result, const std::vector<wchar_t*>& args);
};
} // namespace QXCommon
