// CEnvironmentBlockEx: copies of wide and 8-bit environment blocks.

#include "QXCommon/EnvironmentBlockEx.h"

#include "QXLog.h"

#include <climits>
#include <cstring>
#include <cwchar>

namespace QXCommon
{
std::vector<wchar_t> CEnvironmentBlockEx::LoadFromEnvironmentBlock(const wchar_t* block)
{
    std::vector<wchar_t> copy;
    if (block == nullptr)
    {
        QXLOG_ERROR("QXCommon::CEnvironmentBlockEx::LoadFromEnvironmentBlock", L"Environment block is null.\n");
        return copy;
    }
    const wchar_t* end = block;
    while (*end != L'\0')
        end += wcslen(end) + 1;
    copy.assign(block, end);
    copy.push_back(L'\0');
    if (copy.size() < 2)
        copy.push_back(L'\0');
    return copy;
}

std::vector<wchar_t> CEnvironmentBlockEx::LoadFromEnvironmentBlockANSI(const char* block)
{
    std::vector<wchar_t> copy;
    if (block == nullptr)
    {
        QXLOG_ERROR("QXCommon::CEnvironmentBlockEx::LoadFromEnvironmentBlockANSI", L"Environment block is null.\n");
        return copy;
    }
    for (const char* entry = block; *entry != '\0';)
    {
        size_t bytes = strlen(entry);
        if (bytes > static_cast<size_t>(INT_MAX))
        {
            QXLOG_ERROR("QXCommon::CEnvironmentBlockEx::LoadFromEnvironmentBlockANSI",
                        L"Environment entry too long [{}].\n", bytes);
            return std::vector<wchar_t>();
        }
        int chars = MultiByteToWideChar(CP_ACP, 0, entry, static_cast<int>(bytes), nullptr, 0);
        if (chars <= 0)
        {
            QXLOG_ERROR("QXCommon::CEnvironmentBlockEx::LoadFromEnvironmentBlockANSI",
                        L"Failed to MultiByteToWideChar - error {}\n", GetLastError());
            return std::vector<wchar_t>();
        }
        size_t at = copy.size();
        copy.resize(at + static_cast<size_t>(chars));
        if (MultiByteToWideChar(CP_ACP, 0, entry, static_cast<int>(bytes), copy.data() + at, chars) != chars)
        {
            QXLOG_ERROR("QXCommon::CEnvironmentBlockEx::LoadFromEnvironmentBlockANSI",
                        L"Failed to MultiByteToWideChar - error {}\n", GetLastError());
            return std::vector<wchar_t>();
        }
        copy.push_back(L'\0');
        entry += bytes + 1;
    }
    copy.push_back(L'\0');
    if (copy.size() < 2)
        copy.push_back(L'\0');
    return copy;
}
} // namespace QXCommon
