// CFilePathPatternMatcher: the rule matching of paths and names.
//
// The wildcard walk folds both texts to lower case into work buffers (1024
// characters on the stack; the heap only for texts of 1023 characters or
// more) and walks them once, without allocation. Case folding goes through
// the invariant lower-case table of all 65,536 UTF-16 code units
// (CaseFolding.h), so that a character costs one load.

#include "QXCommon/FilePathPatternMatcher.h"

#include "CaseFolding.h"
#include "QXCommon/QXRegEx.h"
#include "QXLog.h"

#include <memory>
#include <new>
#include <vector>

namespace QXCommon
{
namespace
{
constexpr wchar_t EmptyParameters[] = L"One of the parameters was empty. Return no match.\n";
constexpr wchar_t EmptyOrInvalidParameters[] = L"One of the parameters was empty or invalid. Return no match.\n";

const wchar_t* Fold() { return CaseFolding::LowerTable(); }

// A text folded to lower case, NUL-terminated: on the stack below 1023
// characters, on the heap from 1023 characters on.
class FoldedBuffer
{
public:
    static constexpr size_t StackChars = 1024;

    FoldedBuffer(const std::wstring& text, const wchar_t* fold, bool slashToBackslash = false)
    {
        size_t length = text.size();
        if (length >= StackChars - 1)
        {
            m_heap.reset(new (std::nothrow) wchar_t[length + 1]);
            m_data = m_heap.get();
            if (m_data == nullptr)
                return;
        }
        else
            m_data = m_stack;
        for (size_t i = 0; i < length; ++i)
        {
            wchar_t c = fold[static_cast<unsigned short>(text[i])];
            m_data[i] = (slashToBackslash && c == L'/') ? L'\\' : c;
        }
        m_data[length] = 0;
    }
    FoldedBuffer(const FoldedBuffer&) = delete;
    FoldedBuffer& operator=(const FoldedBuffer&) = delete;

    wchar_t* Data() { return m_data; }
    bool Valid() const { return m_data != nullptr; }

private:
    wchar_t m_stack[StackChars];
    std::unique_ptr<wchar_t[]> m_heap;
    wchar_t* m_data = nullptr;
};

// The wildcard walk over folded, NUL-terminated texts.
int Walk(const wchar_t* path, const wchar_t* pattern, bool slashIsSeparator)
{
    auto isSeparator = [slashIsSeparator](wchar_t c) {
        return c == L'\\' || c == L':' || (slashIsSeparator && c == L'/');
    };
    size_t p = 0;
    size_t q = 0;
    for (;;)
    {
        wchar_t pc = path[p];
        wchar_t qc = pattern[q];
        if (pc == 0)
            return (qc == 0 || (qc == L'*' && pattern[q + 1] == 0)) ? 1 : 0;
        if (qc == 0)
            return 0;
        if (qc == L'?')
        {
            if (isSeparator(pc))
                return 0;
            ++p;
            ++q;
            continue;
        }
        if (qc != L'*')
        {
            if (pc != qc)
                return 0;
            ++p;
            ++q;
            continue;
        }

        // A run of stars is one star; it never spans a separator.
        while (pattern[q] == L'*')
            ++q;
        const size_t afterStars = q;
        const wchar_t next = pattern[afterStars];
        for (;;)
        {
            while (path[p] != 0 && path[p] != next && !isSeparator(path[p]))
                ++p;
            q = afterStars;
            if (path[p] == 0 || isSeparator(path[p]))
                break; // the star has matched up to the separator or the end
            while (path[p] != 0 && !isSeparator(path[p]) && path[p] == pattern[q])
            {
                ++p;
                ++q;
            }
            wchar_t stop = pattern[q];
            if (stop == L'*' || stop == L'?')
                break;
            if ((stop == 0 || isSeparator(stop)) && (path[p] == 0 || path[p] == L'\\' || path[p] == L':'))
                break;
            // The comparison failed: scan on from where it stopped.
        }
    }
}

bool IsPathSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }

bool EqualNoCase(const wchar_t* a, const wchar_t* b, size_t count, bool slashIsBackslash = false)
{
    const wchar_t* fold = Fold();
    for (size_t i = 0; i < count; ++i)
    {
        wchar_t x = fold[static_cast<unsigned short>(a[i])];
        wchar_t y = fold[static_cast<unsigned short>(b[i])];
        if (slashIsBackslash)
        {
            x = x == L'/' ? L'\\' : x;
            y = y == L'/' ? L'\\' : y;
        }
        if (x != y)
            return false;
    }
    return true;
}

bool EqualNoCase(const std::wstring& a, const std::wstring& b, bool slashIsBackslash = false)
{
    return a.size() == b.size() && EqualNoCase(a.data(), b.data(), a.size(), slashIsBackslash);
}

size_t LastSeparator(const std::wstring& path) { return path.find_last_of(L"\\/"); }

// The text without its trailing \ and / characters.
std::wstring WithoutTrailingSeparators(const std::wstring& text)
{
    size_t end = text.find_last_not_of(L"\\/");
    return end == std::wstring::npos ? std::wstring() : text.substr(0, end + 1);
}

// The text with every / written as \.
std::wstring WithBackslashes(std::wstring text)
{
    for (wchar_t& c : text)
        if (c == L'/')
            c = L'\\';
    return text;
}

// A NUL never occurs in a Windows path or name: an argument holding one
// matches nothing (the walk would otherwise stop at it). Logs the refusal
// for the calling function.
bool EitherHoldsNul(const char* function, const std::wstring& a, const std::wstring& b)
{
    if (a.find(L'\0') == std::wstring::npos && b.find(L'\0') == std::wstring::npos)
        return false;
    QXLOG_INFO(function, L"A parameter holds a NUL character. Return no match.\n");
    return true;
}

std::wstring Trim(const std::wstring& text)
{
    size_t first = text.find_first_not_of(L" \t");
    if (first == std::wstring::npos)
        return std::wstring();
    size_t last = text.find_last_not_of(L" \t");
    return text.substr(first, last - first + 1);
}
} // namespace

bool CFilePathPatternMatcher::ContainsWildCard(const std::wstring& pattern)
{
    return pattern.find_first_of(L"*?") != std::wstring::npos;
}

bool CFilePathPatternMatcher::ContainsPath(const std::wstring& pattern)
{
    return pattern.find_first_of(L"\\/") != std::wstring::npos;
}

bool CFilePathPatternMatcher::ContainsTilde(const std::wstring& pattern)
{
    return !pattern.empty() && pattern.find(L'~') != std::wstring::npos;
}

int CFilePathPatternMatcher::MatchAgainstPattern(const std::wstring& path, const std::wstring& pattern, int flag)
{
    if (path.empty() || pattern.empty())
    {
        QXLOG_INFO("QXCommon::CFilePathPatternMatcher::MatchAgainstPattern", EmptyParameters);
        return 0;
    }
    if (EitherHoldsNul("QXCommon::CFilePathPatternMatcher::MatchAgainstPattern", path, pattern))
        return 0;
    if (ContainsWildCard(pattern))
        return MatchAgainstWildCardPattern(path, pattern, flag);
    if (!ContainsPath(pattern))
        return MatchAgainstJustFileName(path, pattern);
    return EqualNoCase(path, pattern) ? 1 : 0;
}

int CFilePathPatternMatcher::MatchAgainstJustFileName(const std::wstring& path, const std::wstring& name)
{
    if (path.empty() || name.empty())
    {
        QXLOG_INFO("QXCommon::CFilePathPatternMatcher::MatchAgainstJustFileName", EmptyParameters);
        return 0;
    }
    if (EitherHoldsNul("QXCommon::CFilePathPatternMatcher::MatchAgainstJustFileName", path, name))
        return 0;
    size_t separator = LastSeparator(path);
    size_t start = separator == std::wstring::npos ? 0 : separator + 1;
    size_t length = path.size() - start;
    return (length == name.size() && EqualNoCase(path.data() + start, name.data(), length)) ? 1 : 0;
}

int CFilePathPatternMatcher::MatchAgainstWildCardPattern(const std::wstring& path, const std::wstring& pattern,
                                                         int flag)
{
    if (path.empty() || pattern.empty())
    {
        QXLOG_INFO("QXCommon::CFilePathPatternMatcher::MatchAgainstWildCardPattern", EmptyParameters);
        return 0;
    }
    if (EitherHoldsNul("QXCommon::CFilePathPatternMatcher::MatchAgainstWildCardPattern", path, pattern))
        return 0;
    const wchar_t* fold = Fold();
    FoldedBuffer foldedPath(path, fold);
    FoldedBuffer foldedPattern(pattern, fold);
    if (!foldedPath.Valid() || !foldedPattern.Valid())
    {
        QXLOG_ERROR("QXCommon::CFilePathPatternMatcher::MatchAgainstWildCardPattern",
                    L"Out of memory for [{}] characters - error {}\n", path.size() + pattern.size(),
                    static_cast<unsigned>(ERROR_NOT_ENOUGH_MEMORY));
        return 0;
    }
    return Walk(foldedPath.Data(), foldedPattern.Data(), flag != 0);
}

int CFilePathPatternMatcher::MatchAgainstFolder(const std::wstring& path, const std::wstring& folder,
                                                int includeSubfolders)
{
    if (path.empty() || folder.empty() || folder.find_first_of(L"\\/") == std::wstring::npos)
    {
        QXLOG_INFO("QXCommon::CFilePathPatternMatcher::MatchAgainstFolder", EmptyOrInvalidParameters);
        return 0;
    }
    if (EitherHoldsNul("QXCommon::CFilePathPatternMatcher::MatchAgainstFolder", path, folder))
        return 0;
    if (ContainsWildCard(folder))
        return MatchAgainstWildCardFolder(path, folder, includeSubfolders);
    if (path.size() < folder.size())
        return 0;
    std::wstring normalized = WithoutTrailingSeparators(folder) + L'\\';
    if (includeSubfolders)
        return (path.size() >= normalized.size() && EqualNoCase(path.data(), normalized.data(), normalized.size()))
                   ? 1
                   : 0;
    return EqualNoCase(path, normalized) ? 1 : 0;
}

int CFilePathPatternMatcher::MatchAgainstWildCardFolder(const std::wstring& path, const std::wstring& folder,
                                                        int includeSubfolders)
{
    std::wstring normalized = WithoutTrailingSeparators(folder);
    if (path.empty() || normalized.empty())
    {
        QXLOG_INFO("QXCommon::CFilePathPatternMatcher::MatchAgainstWildCardFolder", EmptyOrInvalidParameters);
        return 0;
    }
    if (EitherHoldsNul("QXCommon::CFilePathPatternMatcher::MatchAgainstWildCardFolder", path, normalized))
        return 0;
    normalized += L'\\';
    const wchar_t* fold = Fold();
    FoldedBuffer foldedPath(path, fold, true);
    FoldedBuffer foldedFolder(normalized, fold, true);
    if (!foldedPath.Valid() || !foldedFolder.Valid())
    {
        QXLOG_ERROR("QXCommon::CFilePathPatternMatcher::MatchAgainstWildCardFolder",
                    L"Out of memory for [{}] characters - error {}\n", path.size() + normalized.size(),
                    static_cast<unsigned>(ERROR_NOT_ENOUGH_MEMORY));
        return 0;
    }
    wchar_t* text = foldedPath.Data();
    if (!includeSubfolders)
        return Walk(text, foldedFolder.Data(), true);
    // Each leading part of the path that ends at a separator: the folder
    // itself or one of the folders above the path.
    for (size_t i = 0; text[i] != 0; ++i)
    {
        if (text[i] != L'\\')
            continue;
        wchar_t saved = text[i + 1];
        text[i + 1] = 0;
        int result = Walk(text, foldedFolder.Data(), true);
        text[i + 1] = saved;
        if (result == 1)
            return 1;
    }
    return 0;
}

int CFilePathPatternMatcher::MatchAgainstNetworkResourcePattern(const std::wstring& path, const std::wstring& pattern,
                                                                int flag)
{
    if (path.empty() || pattern.empty())
    {
        QXLOG_INFO("QXCommon::CFilePathPatternMatcher::MatchAgainstNetworkResourcePattern", EmptyParameters);
        return 0;
    }
    if (EitherHoldsNul("QXCommon::CFilePathPatternMatcher::MatchAgainstNetworkResourcePattern", path, pattern))
        return 0;
    if (ContainsWildCard(pattern))
        return MatchAgainstWildCardPattern(path, pattern, flag);
    std::wstring resource = WithoutTrailingSeparators(pattern);
    if (resource.empty() || path.size() < resource.size() ||
        !EqualNoCase(path.data(), resource.data(), resource.size(), true))
        return 0;
    return (path.size() == resource.size() || IsPathSeparator(path[resource.size()])) ? 1 : 0;
}

int CFilePathPatternMatcher::MatchAgainstRegularExpressionPattern(const std::wstring& path,
                                                                  const std::wstring& expression)
{
    if (path.empty() || expression.empty())
    {
        QXLOG_INFO("QXCommon::CFilePathPatternMatcher::MatchAgainstRegularExpressionPattern", EmptyParameters);
        return 0;
    }
    if (EitherHoldsNul("QXCommon::CFilePathPatternMatcher::MatchAgainstRegularExpressionPattern", path, expression))
        return 0;
    RegExHelpers::CQXRegEx regex;
    if (!regex.Parse(expression))
    {
        QXLOG_ERROR("QXCommon::CFilePathPatternMatcher::MatchAgainstRegularExpressionPattern",
                    L"Regular Expression [ {} ] is invalid. Cannot be parsed to match [ {} ]. Parse error=[ {} ]\n",
                    expression, path, regex.GetLastRxErrorCode());
        return 0;
    }
    return regex.Match(path) ? 1 : 0;
}

int CFilePathPatternMatcher::MatchAgainstDriverHookExceptionList(const std::wstring& path, const std::wstring& list)
{
    if (path.empty() || list.empty())
    {
        QXLOG_INFO("QXCommon::CFilePathPatternMatcher::MatchAgainstDriverHookExceptionList", EmptyParameters);
        return 0;
    }
    if (EitherHoldsNul("QXCommon::CFilePathPatternMatcher::MatchAgainstDriverHookExceptionList", path, list))
        return 0;
    // The path is split once for all entries; a path that cannot be split
    // leaves the name empty and fails every entry.
    std::wstring fileName;
    std::wstring parent;
    GetFileNameAndParentDirectoryFromFilePath(WithBackslashes(path), fileName, parent);
    size_t start = 0;
    while (start <= list.size())
    {
        size_t end = list.find(L';', start);
        if (end == std::wstring::npos)
            end = list.size();
        std::wstring entry = Trim(list.substr(start, end - start));
        start = end + 1;
        if (entry.empty())
            continue;
        QXLOG_INFO("QXCommon::CFilePathPatternMatcher::MatchAgainstDriverHookExceptionList",
                   L"Checking: [{}] [{}].\n", path, entry);
        if (MatchesDriverHookExceptionPattern(path, fileName, parent, entry) == 1)
            return 1;
    }
    return 0;
}

int CFilePathPatternMatcher::MatchesDriverHookExceptionPattern(const std::wstring& path, const std::wstring& fileName,
                                                               const std::wstring& parent, const std::wstring& pattern)
{
    if (fileName.empty())
    {
        QXLOG_ERROR("QXCommon::CFilePathPatternMatcher::MatchesDriverHookExceptionPattern", L"Bad path [{}]\n", path);
        return 0;
    }
    // Either separator may be written; both sides are compared with \.
    std::wstring normalizedPattern = WithBackslashes(pattern);
    size_t separator = LastSeparator(normalizedPattern);
    if (separator == std::wstring::npos)
        return MatchAgainstWildCardPattern(fileName, normalizedPattern, 1);
    // The entry is cut at its last separator exactly as the path is, so that
    // every path that can be cut matches an entry written as the path itself
    // (separators doubled or at the root included).
    std::wstring folderPart = normalizedPattern.substr(0, separator);
    std::wstring namePart = normalizedPattern.substr(separator + 1);
    if (folderPart.empty() || namePart.empty())
        return 0;
    return (MatchAgainstWildCardPattern(fileName, namePart, 1) == 1 &&
            MatchAgainstWildCardPattern(parent, folderPart, 1) == 1)
               ? 1
               : 0;
}

int CFilePathPatternMatcher::GetFileNameAndParentDirectoryFromFilePath(const std::wstring& path,
                                                                       std::wstring& fileName,
                                                                       std::wstring& parentDirectory)
{
    fileName.clear();
    parentDirectory.clear();
    size_t separator = LastSeparator(path);
    if (separator == std::wstring::npos || separator == 0 || separator + 1 == path.size())
        return 0;
    fileName = path.substr(separator + 1);
    parentDirectory = path.substr(0, separator);
    return 1;
}

int CFilePathPatternMatcher::StripPath(const std::wstring& path, std::wstring& out)
{
    out.clear();
    if (path.empty() || IsPathSeparator(path.back()))
        return 0;
    size_t separator = LastSeparator(path);
    out = separator == std::wstring::npos ? path : path.substr(separator + 1);
    return 1;
}

int CFilePathPatternMatcher::StripFile(const std::wstring& path, std::wstring& out)
{
    out.clear();
    size_t separator = LastSeparator(path);
    if (path.empty() || separator == std::wstring::npos)
        return 0;
    out = path.substr(0, separator + 1);
    return 1;
}

int CFilePathPatternMatcher::StripFolder(const std::wstring& path, std::wstring& out)
{
    out.clear();
    std::wstring rest = path;
    int count = 0;
    while (!rest.empty() && IsPathSeparator(rest.back()))
    {
        rest.pop_back();
        ++count;
    }
    size_t separator = LastSeparator(rest);
    if (rest.empty() || separator == std::wstring::npos)
        return 0;
    out = rest.substr(0, separator + 1);
    QXLOG_INFO("QXCommon::CFilePathPatternMatcher::StripFolder", L"Recursive Stip Count [{}] - [{}] = [{}]\n", count,
               path, out);
    return 1;
}
} // namespace QXCommon
