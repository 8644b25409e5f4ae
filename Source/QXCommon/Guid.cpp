#include "QXCommon/Guid.h"

#include "QXLog.h"

#include <objbase.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace QXCommon
{
namespace
{
struct CoTaskMemDeleter
{
    void operator()(wchar_t* p) const { ::CoTaskMemFree(p); }
};
} // namespace

CGuid::CGuid() : m_guid(GUID_NULL) {}

CGuid::CGuid(const GUID& guid) : m_guid(guid) {}

CGuid& CGuid::operator=(const GUID& guid)
{
    m_guid = guid;
    return *this;
}

CGuid& CGuid::operator=(const CGuid& other)
{
    m_guid = other.m_guid;
    return *this;
}

bool CGuid::operator==(const CGuid& other) const
{
    return std::memcmp(&m_guid, &other.m_guid, sizeof(GUID)) == 0;
}

bool CGuid::CreateNew()
{
    HRESULT hr = ::CoCreateGuid(&m_guid);
    if (FAILED(hr))
    {
        QXLOG_ERROR("QXCommon::CGuid::CreateNew", L"Failed to CoCreateGuid - error={}\n", static_cast<long>(hr));
        return false;
    }
    return true;
}

std::wstring CGuid::ToString() const
{
    LPOLESTR raw = nullptr;
    HRESULT hr = ::StringFromCLSID(m_guid, &raw);
    std::unique_ptr<wchar_t, CoTaskMemDeleter> text(raw);
    if (FAILED(hr) || !text)
    {
        QXLOG_ERROR("QXCommon::CGuid::ToString", L"Failed to convert guid to string\n");
        return std::wstring();
    }
    return std::wstring(text.get());
}

std::wstring CGuid::CreateNewAsString()
{
    CGuid guid;
    if (!guid.CreateNew())
        return std::wstring();
    return guid.ToString();
}

void CGuid::Canonicalize(std::wstring& text)
{
    if (text.empty())
        return;
    // CharUpperBuffW takes a 32-bit count; longer texts are upper-cased in pieces.
    for (size_t done = 0; done < text.size();)
    {
        DWORD chunk = static_cast<DWORD>(std::min<size_t>(text.size() - done, 0x40000000u));
        ::CharUpperBuffW(text.data() + done, chunk);
        done += chunk;
    }
    if (text.front() != L'{')
        text.insert(text.begin(), L'{');
    if (text.back() != L'}')
        text.push_back(L'}');
}
} // namespace QXCommon
