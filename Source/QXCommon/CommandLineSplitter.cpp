#include "QXCommon/CommandLineSplitter.h"

#include "QXLog.h"

#include <cwchar>

namespace QXCommon
{
namespace
{
constexpr wchar_t Blank = L' ';

// True when the text ends in ".exe", ignoring case. A text of four characters
// or fewer is compared whole.
bool EndsWithExe(const std::wstring& text)
{
    const size_t tail = text.size() > 4 ? text.size() - 4 : 0;
    return ::_wcsicmp(text.c_str() + tail, L".exe") == 0;
}

// Finds the next blank-delimited token at or after pos. On success begin/end
// delimit the token; false when only blanks (or nothing) remain.
bool NextToken(const std::wstring& text, size_t pos, size_t& begin, size_t& end)
{
    begin = text.find_first_not_of(Blank, pos);
    if (begin == std::wstring::npos)
        return false;
    end = text.find(Blank, begin);
    if (end == std::wstring::npos)
        end = text.size();
    return true;
}
} // namespace

bool CommandLineSplitter::SplitCommandLine(const std::wstring& cmdLine, std::wstring& outModuleName,
                                           std::wstring& outArgs)
{
    constexpr const char* Function = "QXCommon::CommandLineSplitter::SplitCommandLine";
    QXLOG_INFO(Function, L"ENTER: cmdLine=[{}]\n", cmdLine);
    outModuleName.clear();
    outArgs.clear();

    bool result = false;
    if (!cmdLine.empty() && cmdLine[0] == L'"')
    {
        QXLOG_INFO(Function, L"Path is quoted\n");
        const size_t closing = cmdLine.find(L'"', 1);
        if (closing == std::wstring::npos)
        {
            QXLOG_ERROR(Function, L"ERROR didn't find matching \" [{}]\n", cmdLine);
        }
        else
        {
            outModuleName.assign(cmdLine, 1, closing - 1);
            // One character after the closing quote is skipped, whatever it is.
            if (closing + 2 <= cmdLine.size())
                outArgs.assign(cmdLine, closing + 2, std::wstring::npos);
            result = true;
        }
    }
    else
    {
        QXLOG_INFO(Function, L"Path is not quoted\n");
        if (SplitUnquotedCmdLine(cmdLine, outModuleName, outArgs))
        {
            QXLOG_INFO(Function, L"Application identified as [{}] Arguments=[{}]\n", outModuleName, outArgs);
            result = true;
        }
        else
        {
            QXLOG_ERROR(Function,
                        L"ERROR: Failed to identify module/args in [{}]. Modulename returned as [{}] Arguments=[{}]\n",
                        cmdLine, outModuleName, outArgs);
        }
    }

    QXLOG_INFO(Function, L"EXIT: outModuleName=[{}] outArgs=[{}]\n", outModuleName, outArgs);
    return result;
}

bool CommandLineSplitter::SplitUnquotedCmdLine(const std::wstring& cmdLine, std::wstring& outModuleName,
                                               std::wstring& outArgs)
{
    outModuleName.clear();
    outArgs.clear();

    size_t begin = 0;
    size_t end = 0;
    if (!NextToken(cmdLine, 0, begin, end))
        return false;

    std::wstring candidate(cmdLine, begin, end - begin);
    while (!candidate.empty())
    {
        if (EndsWithExe(candidate))
        {
            outModuleName = std::move(candidate);
            // The arguments start after the token and the one blank that ended it.
            if (end + 1 < cmdLine.size())
                outArgs.assign(cmdLine, end + 1, std::wstring::npos);
            return true;
        }
        if (!NextToken(cmdLine, end, begin, end))
            return false;
        candidate += Blank;
        candidate.append(cmdLine, begin, end - begin);
    }
    return false;
}
} // namespace QXCommon
