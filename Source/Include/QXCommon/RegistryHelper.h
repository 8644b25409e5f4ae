#pragma once
// Registry access behind an interface, so that callers can be handed a
// substitute registry. All operations return true on success.

#include "QXCommonAPI.h"

#include <atlbase.h>

#include <string>
#include <vector>

class QXCOMMON_API IRegistryHelper
{
public:
    virtual ~IRegistryHelper() = default;
    // Opens parent\subKey into key with read and write access (0x2001F).
    virtual bool OpenRegKey(ATL::CRegKey& key, HKEY parent, const std::wstring& subKey) = 0;
    // Opens parent\subKey for reading and reads a string value through QueryRegKey.
    virtual bool OpenAndQueryRegKey(HKEY parent, const std::wstring& subKey, const std::wstring& valueName,
                                    std::wstring& value) = 0;
    // Reads a REG_SZ / REG_EXPAND_SZ value of at most 259 characters (not expanded).
    virtual bool QueryRegKey(HKEY key, const std::wstring& valueName, std::wstring& value) = 0;
    // Reads a REG_DWORD value.
    virtual bool QueryRegKeyDWORD(HKEY key, const std::wstring& valueName, DWORD& value) = 0;
    // Appends the names of parent\subKey's sub-keys to names (not cleared first).
    virtual bool EnumerateRegSubKeys(HKEY parent, const std::wstring& subKey, std::vector<std::wstring>& names) = 0;
};

class QXCOMMON_API CRegistryHelper : public IRegistryHelper
{
public:
    CRegistryHelper() = default;
    CRegistryHelper(const CRegistryHelper&) = default;
    CRegistryHelper& operator=(const CRegistryHelper&) = default;
    ~CRegistryHelper() override;

    bool OpenRegKey(ATL::CRegKey& key, HKEY parent, const std::wstring& subKey) override;
    bool OpenAndQueryRegKey(HKEY parent, const std::wstring& subKey, const std::wstring& valueName,
                            std::wstring& value) override;
    bool QueryRegKey(HKEY key, const std::wstring& valueName, std::wstring& value) override;
    bool QueryRegKeyDWORD(HKEY key, const std::wstring& valueName, DWORD& value) override;
    bool EnumerateRegSubKeys(HKEY parent, const std::wstring& subKey, std::vector<std::wstring>& names) override;
};
