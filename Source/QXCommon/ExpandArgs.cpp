#include "QXCommon/ExpandArgs.h"

#include "QXLog.h"

#include <shlwapi.h>

#include <cwchar>
#include <cwctype>

namespace QXCommon
{
namespace
{
bool IsSeparator(wchar_t c)
{
    return c == L',' || std::iswspace(c);
}

// A quote closes a quoted argument only when a separator or the end follows.
bool IsClosingQuote(const wchar_t* p)
{
    return p[0] == L'"' && (p[1] == L'\0' || IsSeparator(p[1]));
}

// Only bare file names with an extension are looked up on the search path.
bool IsSearchCandidate(const std::wstring& arg)
{
    return !arg.empty() && arg.size() < MAX_PATH && arg.find(L'.') != std::wstring::npos &&
           arg.find_first_of(L"\\/:") == std::wstring::npos;
}

// Whether the argument must be written between quotes to be cut out again
// as it is: it holds a separator, begins with a quote (which would otherwise
// open a quoted argument), or is an empty last argument (which would
// otherwise vanish). Inside quotes every character stands for itself up to a
// quote followed by a separator or the end, and no argument that the cutting
// gives, nor a full path, holds one.
bool NeedsQuotes(const std::wstring& arg, bool last)
{
    if (arg.empty())
        return last;
    if (arg.front() == L'"')
        return true;
    for (wchar_t c : arg)
    {
        if (IsSeparator(c))
            return true;
    }
    return false;
}
} // namespace

int CExpandArgs::ConvertArgsToFullPath(const wchar_t* args, std::wstring& result)
{
    constexpr const char* Function = "QXCommon::CExpandArgs::ConvertArgsToFullPath";
    if (args == nullptr)
    {
        QXLOG_INFO(Function, L"Invalid Parameter no conversion possible\n");
        return 0;
    }
    QXLOG_INFO(Function, L"Before Conversion [{}]\n", args);

    // ExtractArguments writes into its buffer, so it works on a copy.
    std::vector<wchar_t> buffer(args, args + std::wcslen(args) + 1);
    std::vector<wchar_t*> arguments;
    ExtractArguments(buffer.data(), arguments);

    ExpandArguments(result, arguments);
    QXLOG_INFO(Function, L"After Conversion [{}]\n", result);
    return 1;
}

int CExpandArgs::ExtractArguments(wchar_t* buffer, std::vector<wchar_t*>& args)
{
    if (buffer == nullptr)
    {
        QXLOG_INFO("QXCommon::CExpandArgs::ExtractArguments", L"Invalid Parameter\n");
        return 0;
    }

    wchar_t* p = buffer;
    while (*p != L'\0')
    {
        const bool quoted = *p == L'"';
        if (quoted)
            ++p;
        args.push_back(p);

        if (!quoted)
        {
            while (*p != L'\0' && !IsSeparator(*p))
                ++p;
            if (*p != L'\0')
                *p++ = L'\0';
        }
        else
        {
            while (*p != L'\0' && !IsClosingQuote(p))
                ++p;
            if (*p != L'\0')
            {
                // Past the quote and the separator, unless the text ends here.
                const bool atEnd = p[1] == L'\0';
                *p = L'\0';
                p += atEnd ? 1 : 2;
            }
            // Without a closing quote the argument runs to the end, quotes included.
        }
        // Separators are not merged: the next separator starts an empty argument.
    }
    return args.empty() ? 0 : 1;
}

void CExpandArgs::ExpandArguments(std::wstring& result, const std::vector<wchar_t*>& args)
{
    constexpr const char* Function = "QXCommon::CExpandArgs::ExpandArguments";
    result.clear();
    for (size_t i = 0; i < args.size(); ++i)
    {
        std::wstring arg(args[i]);
        QXLOG_INFO(Function, L"Tokens Identified [{}]\n", arg);

        if (IsSearchCandidate(arg))
        {
            wchar_t path[MAX_PATH + 1] = {};
            std::wmemcpy(path, arg.c_str(), arg.size());
            if (::PathFindOnPathW(path, nullptr))
            {
                arg = path;
                QXLOG_INFO(Function, L"Token Expanded to [{}]\n", arg);
            }
        }

        if (i > 0)
            result += L' ';
        if (NeedsQuotes(arg, i + 1 == args.size()))
        {
            result += L'"';
            result += arg;
            result += L'"';
        }
        else
        {
            result += arg;
        }
    }
}
} // namespace QXCommon
