#include "QXCommon/RegistryHelper.h"

namespace
{
// The value buffer of QueryRegKey: MAX_PATH characters, NUL included.
constexpr DWORD ValueChars = 260;
// The sub-key name buffer of EnumerateRegSubKeys.
constexpr DWORD NameChars = 260;

bool IsStringType(DWORD type)
{
    return type == REG_SZ || type == REG_EXPAND_SZ;
}
} // namespace

CRegistryHelper::~CRegistryHelper() = default;

bool CRegistryHelper::OpenRegKey(ATL::CRegKey& key, HKEY parent, const std::wstring& subKey)
{
    return key.Open(parent, subKey.c_str(), KEY_READ | KEY_WRITE) == ERROR_SUCCESS;
}

bool CRegistryHelper::OpenAndQueryRegKey(HKEY parent, const std::wstring& subKey, const std::wstring& valueName,
                                         std::wstring& value)
{
    ATL::CRegKey key;
    if (key.Open(parent, subKey.c_str(), KEY_READ) != ERROR_SUCCESS)
        return false;
    return QueryRegKey(key, valueName, value);
}

bool CRegistryHelper::QueryRegKey(HKEY key, const std::wstring& valueName, std::wstring& value)
{
    wchar_t buffer[ValueChars] = {};
    DWORD type = REG_NONE;
    DWORD bytes = sizeof(buffer);
    LONG status = ::RegQueryValueExW(key, valueName.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(buffer), &bytes);
    if (status != ERROR_SUCCESS || !IsStringType(type))
        return false;
    if (bytes == 0)
    {
        value.clear();
        return true;
    }
    if (bytes % sizeof(wchar_t) != 0 || bytes > sizeof(buffer) || buffer[bytes / sizeof(wchar_t) - 1] != L'\0')
        return false;
    value.assign(buffer);
    return true;
}

bool CRegistryHelper::QueryRegKeyDWORD(HKEY key, const std::wstring& valueName, DWORD& value)
{
    DWORD data = 0;
    DWORD type = REG_NONE;
    DWORD bytes = sizeof(data);
    LONG status = ::RegQueryValueExW(key, valueName.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(&data), &bytes);
    if (status != ERROR_SUCCESS || type != REG_DWORD)
        return false;
    value = data;
    return true;
}

bool CRegistryHelper::EnumerateRegSubKeys(HKEY parent, const std::wstring& subKey, std::vector<std::wstring>& names)
{
    ATL::CRegKey key;
    if (key.Open(parent, subKey.c_str(), KEY_READ) != ERROR_SUCCESS)
        return false;
    LONG status = ERROR_SUCCESS;
    for (DWORD index = 0;; ++index)
    {
        wchar_t name[NameChars] = {};
        DWORD length = NameChars;
        status = ::RegEnumKeyExW(key, index, name, &length, nullptr, nullptr, nullptr, nullptr);
        if (status != ERROR_SUCCESS)
            break;
        names.emplace_back(name, length < NameChars ? length : NameChars - 1);
    }
    return status == ERROR_NO_MORE_ITEMS;
}
