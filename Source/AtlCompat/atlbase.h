#pragma once
// The part of ATL's atlbase.h that QXCommon's interface uses, for toolchains
// that ship no ATL (MinGW-w64). Names, signatures and semantics follow ATL:
// CAtlException and the throw helpers, CHandle, CRegKey. Everything lives in
// namespace ATL and, as with ATL, is brought into the global namespace unless
// _ATL_NO_AUTOMATIC_NAMESPACE is defined.

#include <windows.h>

#include <cstddef>

namespace ATL
{
// An HRESULT thrown by ATL-style code (out of memory, invalid argument).
class CAtlException
{
public:
    CAtlException() noexcept : m_hr(E_FAIL) {}
    CAtlException(HRESULT hr) noexcept : m_hr(hr) {}
    operator HRESULT() const noexcept { return m_hr; }

    HRESULT m_hr;
};

[[noreturn]] inline void AtlThrow(HRESULT hr)
{
    throw CAtlException(hr);
}

[[noreturn]] inline void AtlThrowLastWin32()
{
    DWORD error = ::GetLastError();
    AtlThrow(HRESULT_FROM_WIN32(error));
}

// Owns a kernel handle and closes it. Copying transfers ownership, as in ATL.
class CHandle
{
public:
    CHandle() noexcept : m_h(nullptr) {}
    explicit CHandle(HANDLE h) noexcept : m_h(h) {}
    CHandle(CHandle& h) noexcept : m_h(nullptr) { Attach(h.Detach()); }
    CHandle(CHandle&& h) noexcept : m_h(nullptr) { Attach(h.Detach()); }
    ~CHandle() noexcept
    {
        if (m_h != nullptr)
            Close();
    }

    CHandle& operator=(CHandle& h) noexcept
    {
        if (this != &h)
        {
            if (m_h != nullptr)
                Close();
            Attach(h.Detach());
        }
        return *this;
    }
    CHandle& operator=(CHandle&& h) noexcept { return operator=(static_cast<CHandle&>(h)); }

    operator HANDLE() const noexcept { return m_h; }

    // Takes ownership of h; the handle held before must have been released.
    void Attach(HANDLE h) noexcept { m_h = h; }
    HANDLE Detach() noexcept
    {
        HANDLE h = m_h;
        m_h = nullptr;
        return h;
    }
    void Close() noexcept
    {
        if (m_h != nullptr)
        {
            ::CloseHandle(m_h);
            m_h = nullptr;
        }
    }

    HANDLE m_h;
};

// Owns an open registry key. Copying transfers ownership, as in ATL. The
// results are Win32 error codes (ERROR_SUCCESS on success).
class CRegKey
{
public:
    CRegKey() noexcept : m_hKey(nullptr), m_samWOW64(0) {}
    explicit CRegKey(HKEY hKey) noexcept : m_hKey(hKey), m_samWOW64(0) {}
    CRegKey(CRegKey& key) noexcept : m_hKey(nullptr), m_samWOW64(key.m_samWOW64) { Attach(key.Detach()); }
    CRegKey(CRegKey&& key) noexcept : m_hKey(nullptr), m_samWOW64(key.m_samWOW64) { Attach(key.Detach()); }
    ~CRegKey() noexcept { Close(); }

    CRegKey& operator=(CRegKey& key) noexcept
    {
        if (this != &key)
        {
            Close();
            Attach(key.Detach());
            m_samWOW64 = key.m_samWOW64;
        }
        return *this;
    }
    CRegKey& operator=(CRegKey&& key) noexcept { return operator=(static_cast<CRegKey&>(key)); }

    operator HKEY() const noexcept { return m_hKey; }

    void Attach(HKEY hKey) noexcept { m_hKey = hKey; }
    HKEY Detach() noexcept
    {
        HKEY hKey = m_hKey;
        m_hKey = nullptr;
        m_samWOW64 = 0;
        return hKey;
    }

    LONG Close() noexcept
    {
        LONG res = ERROR_SUCCESS;
        if (m_hKey != nullptr)
        {
            res = ::RegCloseKey(m_hKey);
            m_hKey = nullptr;
        }
        m_samWOW64 = 0;
        return res;
    }

    LONG Open(HKEY hKeyParent, LPCWSTR lpszKeyName, REGSAM samDesired = KEY_READ | KEY_WRITE) noexcept
    {
        HKEY hKey = nullptr;
        LONG res = ::RegOpenKeyExW(hKeyParent, lpszKeyName, 0, samDesired, &hKey);
        if (res == ERROR_SUCCESS)
        {
            Close();
            m_hKey = hKey;
            m_samWOW64 = samDesired & (KEY_WOW64_32KEY | KEY_WOW64_64KEY);
        }
        return res;
    }

    LONG Create(HKEY hKeyParent, LPCWSTR lpszKeyName, LPWSTR lpszClass = nullptr,
                DWORD dwOptions = REG_OPTION_NON_VOLATILE, REGSAM samDesired = KEY_READ | KEY_WRITE,
                LPSECURITY_ATTRIBUTES lpSecAttr = nullptr, LPDWORD lpdwDisposition = nullptr) noexcept
    {
        DWORD disposition = 0;
        HKEY hKey = nullptr;
        LONG res = ::RegCreateKeyExW(hKeyParent, lpszKeyName, 0, lpszClass, dwOptions, samDesired, lpSecAttr, &hKey,
                                     &disposition);
        if (lpdwDisposition != nullptr)
            *lpdwDisposition = disposition;
        if (res == ERROR_SUCCESS)
        {
            Close();
            m_hKey = hKey;
            m_samWOW64 = samDesired & (KEY_WOW64_32KEY | KEY_WOW64_64KEY);
        }
        return res;
    }

    LONG QueryValue(LPCWSTR pszValueName, DWORD* pdwType, void* pData, ULONG* pnBytes) noexcept
    {
        return ::RegQueryValueExW(m_hKey, pszValueName, nullptr, pdwType, static_cast<LPBYTE>(pData), pnBytes);
    }

    LONG QueryDWORDValue(LPCWSTR pszValueName, DWORD& dwValue) noexcept
    {
        DWORD type = 0;
        DWORD value = 0;
        ULONG bytes = sizeof(DWORD);
        LONG res = QueryValue(pszValueName, &type, &value, &bytes);
        if (res != ERROR_SUCCESS)
            return res;
        if (type != REG_DWORD || bytes != sizeof(DWORD))
            return ERROR_INVALID_DATA;
        dwValue = value;
        return ERROR_SUCCESS;
    }

    LONG QueryQWORDValue(LPCWSTR pszValueName, ULONGLONG& qwValue) noexcept
    {
        DWORD type = 0;
        ULONGLONG value = 0;
        ULONG bytes = sizeof(ULONGLONG);
        LONG res = QueryValue(pszValueName, &type, &value, &bytes);
        if (res != ERROR_SUCCESS)
            return res;
        if (type != REG_QWORD || bytes != sizeof(ULONGLONG))
            return ERROR_INVALID_DATA;
        qwValue = value;
        return ERROR_SUCCESS;
    }

    // pnChars: in, the buffer's size in characters; out, the characters
    // needed or stored, terminating NUL included. The text is always NUL
    // terminated when the call succeeds.
    LONG QueryStringValue(LPCWSTR pszValueName, LPWSTR pszValue, ULONG* pnChars) noexcept
    {
        if (pnChars == nullptr)
            return ERROR_INVALID_PARAMETER;
        ULONG capacity = *pnChars;
        ULONG bytes = capacity * sizeof(WCHAR);
        DWORD type = 0;
        *pnChars = 0;
        LONG res = ::RegQueryValueExW(m_hKey, pszValueName, nullptr, &type, reinterpret_cast<LPBYTE>(pszValue),
                                      &bytes);
        if (res != ERROR_SUCCESS && res != ERROR_MORE_DATA)
            return res;
        if (type != REG_SZ && type != REG_EXPAND_SZ)
            return ERROR_INVALID_DATA;
        if (bytes % sizeof(WCHAR) != 0)
            return ERROR_INVALID_DATA;
        ULONG chars = bytes / sizeof(WCHAR);
        if (res == ERROR_MORE_DATA || pszValue == nullptr)
        {
            *pnChars = chars + 1;
            return pszValue == nullptr && res == ERROR_SUCCESS ? ERROR_SUCCESS : ERROR_MORE_DATA;
        }
        if (chars > 0 && pszValue[chars - 1] == L'\0')
        {
            *pnChars = chars;
            return ERROR_SUCCESS;
        }
        if (chars < capacity)
        {
            pszValue[chars] = L'\0';
            *pnChars = chars + 1;
            return ERROR_SUCCESS;
        }
        *pnChars = chars + 1;
        return ERROR_MORE_DATA;
    }

    LONG QueryBinaryValue(LPCWSTR pszValueName, void* pValue, ULONG* pnBytes) noexcept
    {
        DWORD type = 0;
        LONG res = QueryValue(pszValueName, &type, pValue, pnBytes);
        if (res != ERROR_SUCCESS)
            return res;
        return type == REG_BINARY ? ERROR_SUCCESS : ERROR_INVALID_DATA;
    }

    LONG SetValue(LPCWSTR pszValueName, DWORD dwType, const void* pValue, ULONG nBytes) noexcept
    {
        return ::RegSetValueExW(m_hKey, pszValueName, 0, dwType, static_cast<const BYTE*>(pValue), nBytes);
    }

    LONG SetDWORDValue(LPCWSTR pszValueName, DWORD dwValue) noexcept
    {
        return SetValue(pszValueName, REG_DWORD, &dwValue, sizeof(DWORD));
    }

    LONG SetQWORDValue(LPCWSTR pszValueName, ULONGLONG qwValue) noexcept
    {
        return SetValue(pszValueName, REG_QWORD, &qwValue, sizeof(ULONGLONG));
    }

    LONG SetStringValue(LPCWSTR pszValueName, LPCWSTR pszValue, DWORD dwType = REG_SZ) noexcept
    {
        if (pszValue == nullptr)
            return ERROR_INVALID_PARAMETER;
        if (dwType != REG_SZ && dwType != REG_EXPAND_SZ)
            return ERROR_INVALID_PARAMETER;
        return SetValue(pszValueName, dwType, pszValue, static_cast<ULONG>((::lstrlenW(pszValue) + 1) * sizeof(WCHAR)));
    }

    LONG SetBinaryValue(LPCWSTR pszValueName, const void* pValue, ULONG nBytes) noexcept
    {
        return SetValue(pszValueName, REG_BINARY, pValue, nBytes);
    }

    LONG DeleteValue(LPCWSTR lpszValue) noexcept { return ::RegDeleteValueW(m_hKey, lpszValue); }

    LONG DeleteSubKey(LPCWSTR lpszSubKey) noexcept { return ::RegDeleteKeyW(m_hKey, lpszSubKey); }

    // Deletes the sub-key and everything below it.
    LONG RecurseDeleteKey(LPCWSTR lpszKey) noexcept
    {
        CRegKey key;
        LONG res = key.Open(m_hKey, lpszKey, KEY_READ | KEY_WRITE | m_samWOW64);
        if (res != ERROR_SUCCESS)
            return res;
        WCHAR name[256];
        for (;;)
        {
            DWORD size = 256;
            res = ::RegEnumKeyExW(key.m_hKey, 0, name, &size, nullptr, nullptr, nullptr, nullptr);
            if (res == ERROR_NO_MORE_ITEMS)
                break;
            if (res != ERROR_SUCCESS)
                return res;
            res = key.RecurseDeleteKey(name);
            if (res != ERROR_SUCCESS)
                return res;
        }
        key.Close();
        return DeleteSubKey(lpszKey);
    }

    // pnNameLength: in, the buffer's size in characters; out, the name's length.
    LONG EnumKey(DWORD iIndex, LPWSTR pszName, LPDWORD pnNameLength, FILETIME* pftLastWriteTime = nullptr) noexcept
    {
        FILETIME lastWrite;
        LONG res = ::RegEnumKeyExW(m_hKey, iIndex, pszName, pnNameLength, nullptr, nullptr, nullptr, &lastWrite);
        if (res == ERROR_SUCCESS && pftLastWriteTime != nullptr)
            *pftLastWriteTime = lastWrite;
        return res;
    }

    LONG Flush() noexcept { return ::RegFlushKey(m_hKey); }

    HKEY m_hKey;
    REGSAM m_samWOW64;
};
} // namespace ATL

#ifndef _ATL_NO_AUTOMATIC_NAMESPACE
using namespace ATL;
#endif
