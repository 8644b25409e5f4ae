// Free functions: error texts, string values of the registry, the event log.

#include "QXCommon/QXCommonFunctions.h"

#include "QXLog.h"

#include <cstdarg>
#include <cwchar>
#include <memory>
#include <vector>

namespace QXCommonFunctions
{
namespace
{
struct LocalFreeDeleter
{
    void operator()(wchar_t* p) const { ::LocalFree(p); }
};

struct EventSourceCloser
{
    void operator()(HANDLE h) const
    {
        if (!::DeregisterEventSource(h))
            QXLOG_ERROR("QXCommonFunctions::LogEventDirect", L"Failed to DeregisterEventSource error [{}].\n",
                        ::GetLastError());
    }
};

bool IsStringType(DWORD type)
{
    return type == REG_SZ || type == REG_EXPAND_SZ;
}

// The event text buffer, NUL included.
constexpr size_t EventTextChars = 256;
const wchar_t* const EventSourceName = L"Kestrova Runwarden";
} // namespace

std::wstring ErrorMessageFromCode(int code)
{
    if (code == 0)
        return std::wstring();

    wchar_t* raw = nullptr;
    DWORD length = ::FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM, nullptr,
                                    static_cast<DWORD>(code), 0, reinterpret_cast<LPWSTR>(&raw), 100, nullptr);
    std::unique_ptr<wchar_t, LocalFreeDeleter> buffer(raw);
    if (length == 0 || !buffer)
    {
        QXLOG_ERROR("QXCommonFunctions::ErrorMessageFromCode", L"FormatMessageW failed - error {}\n",
                    ::GetLastError());
        return std::wstring();
    }

    std::wstring text(buffer.get(), length);
    for (size_t at = text.find(L"\r\n"); at != std::wstring::npos; at = text.find(L"\r\n", at))
        text.erase(at, 2);
    buffer.reset();
    QXLOG_INFO("QXCommonFunctions::ErrorMessageFromCode", L"Error {:X} [{}]\n", static_cast<DWORD>(code), text);
    return text;
}

DWORD RegQueryStringValue(ATL::CRegKey& key, const wchar_t* valueName, std::wstring& value)
{
    DWORD type = REG_NONE;
    DWORD reported = 0;
    LONG status = ::RegQueryValueExW(key, valueName, nullptr, &type, nullptr, &reported);
    if (status != ERROR_SUCCESS)
        return static_cast<DWORD>(status);
    if (!IsStringType(type))
        return ERROR_INVALID_DATA;

    // Whole characters only: a trailing odd byte never makes it into the text.
    DWORD bytes = reported & ~1u;
    std::vector<wchar_t> buffer(bytes / sizeof(wchar_t) + 1, L'\0');
    status = ::RegQueryValueExW(key, valueName, nullptr, &type, reinterpret_cast<BYTE*>(buffer.data()), &bytes);
    if (status == ERROR_MORE_DATA && (reported & 1u) != 0)
        return ERROR_INVALID_DATA; // the odd byte did not fit: not a string of whole characters
    if (status != ERROR_SUCCESS)
        return static_cast<DWORD>(status);
    if (!IsStringType(type))
        return ERROR_INVALID_DATA;
    if (bytes == 0)
    {
        value.clear();
        return ERROR_SUCCESS;
    }
    if (bytes % sizeof(wchar_t) != 0 || buffer[bytes / sizeof(wchar_t) - 1] != L'\0')
        return ERROR_INVALID_DATA;
    value.assign(buffer.data());
    return ERROR_SUCCESS;
}

DWORD LogEventDirect(DWORD eventId, WORD eventType, const wchar_t* format, ...)
{
    wchar_t text[EventTextChars] = {};
    if (format != nullptr)
    {
        va_list args;
        va_start(args, format);
        // Truncates: at most EventTextChars - 1 characters, the last slot stays NUL.
        ::_vsnwprintf(text, EventTextChars - 1, format, args);
        va_end(args);
        text[EventTextChars - 1] = L'\0';
    }

    HANDLE raw = ::RegisterEventSourceW(nullptr, EventSourceName);
    if (raw == nullptr)
    {
        DWORD error = ::GetLastError();
        QXLOG_ERROR("QXCommonFunctions::LogEventDirect", L"Failed to RegisterEventSource [{}] error [{}].\n",
                    EventSourceName, error);
        return error;
    }
    std::unique_ptr<void, EventSourceCloser> source(raw);

    DWORD result = ERROR_SUCCESS;
    const wchar_t* strings[1] = {text};
    if (!::ReportEventW(source.get(), eventType, 0, eventId, nullptr, 1, 0, strings, nullptr))
        result = ::GetLastError();
    return result;
}
} // namespace QXCommonFunctions
