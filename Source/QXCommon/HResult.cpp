#include "QXCommon/HResult.h"

#include <cwchar>
#include <memory>

namespace QXCommon
{
namespace
{
struct LocalFreeDeleter
{
    void operator()(wchar_t* p) const { ::LocalFree(p); }
};
} // namespace

CHResult::CHResult(HRESULT hr) : m_hr(hr) {}

CHResult::~CHResult() = default;

CHResult& CHResult::operator=(const CHResult& other)
{
    m_hr = other.m_hr;
    return *this;
}

std::wstring CHResult::ToString() const
{
    std::wstring message;
    wchar_t* raw = nullptr;
    DWORD length = ::FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                        FORMAT_MESSAGE_IGNORE_INSERTS,
                                    nullptr, static_cast<DWORD>(m_hr), MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
                                    reinterpret_cast<LPWSTR>(&raw), 0, nullptr);
    std::unique_ptr<wchar_t, LocalFreeDeleter> buffer(raw);
    if (length != 0 && buffer)
    {
        message.assign(buffer.get(), length);
        if (message.size() >= 2 && message.back() == L'\n')
        {
            message.pop_back();
            if (!message.empty() && message.back() == L'\r')
                message.pop_back();
        }
    }
    else
    {
        wchar_t text[64] = {};
        const DWORD code = static_cast<DWORD>(m_hr);
        if (code >= 0x80040200u && code <= 0x8004FFFFu && (code & 0xFFFFu) != 0x0200u)
            std::swprintf(text, 64, L"IDispatch error #%d", static_cast<int>((code & 0xFFFFu) - 0x200u));
        else
            std::swprintf(text, 64, L"Unknown error 0x%0lX", static_cast<unsigned long>(code));
        message = text;
    }

    // "0x%08x %ls": the code, a space, the message.
    wchar_t code[16] = {};
    std::swprintf(code, 16, L"0x%08x ", static_cast<unsigned>(m_hr));
    return code + message;
}
} // namespace QXCommon
