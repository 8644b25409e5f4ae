#pragma once
// Separates a command line, as the agent sees it when a process starts, into
// the program part and the argument part.

#include "QXCommonAPI.h"

#include <string>

namespace QXCommon
{
class QXCOMMON_API CommandLineSplitter
{
public:
    CommandLineSplitter() = default;
    CommandLineSplitter(const CommandLineSplitter&) = default;
    CommandLineSplitter(CommandLineSplitter&&) = default;
    CommandLineSplitter& operator=(const CommandLineSplitter&) = default;
    CommandLineSplitter& operator=(CommandLineSplitter&&) = default;

    // A command line that starts with a double quote names the program between
    // that quote and the next one; the arguments are everything from the
    // second character after the closing quote (exactly one character after
    // the closing quote is dropped, whatever it is). Any other command line is
    // handed to SplitUnquotedCmdLine. False when the closing quote is missing
    // or the unquoted form names no ".exe". Both outputs are cleared first.
    static bool SplitCommandLine(const std::wstring& cmdLine, std::wstring& outModuleName, std::wstring& outArgs);

    // Unquoted program paths may hold blanks: the command line is cut into
    // tokens at blanks (U+0020 only; runs of blanks count as one, leading
    // blanks are skipped) and tokens are joined with one blank until the
    // joined text ends in ".exe" (any case). The arguments are the rest of the
    // command line after the program's last token and one blank, spacing kept.
    // The file system is not consulted, so ".com", ".bat" or extension-less
    // programs are never found (false, both outputs empty).
    static bool SplitUnquotedCmdLine(const std::wstring& cmdLine, std::wstring& outModuleName,
                                     std::wstring& outArgs);
};
} // namespace QXCommon
