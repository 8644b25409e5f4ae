#pragma once
// Zarn2: structured-log helpers of the product. Parameters of log messages go
// through FormatParameterW so that every kind of text arrives at the formatter
// as a wide string view; a message whose format fails is replaced by the text
// of HandleFormatException; ShouldLog/Log write one line at a severity.

#include <windows.h>

#include <string>
#include <string_view>
#include <type_traits>

namespace Zarn
{
enum class Severity : int
{
    Error = 1,
    Warning = 2,
    Info = 4,
};

namespace Detail
{
// Wide text is handed over as a view; a null C string becomes "(null)".
inline std::wstring_view FormatParameterW(const std::wstring& value) { return value; }
inline std::wstring_view FormatParameterW(std::wstring_view value) { return value; }
inline std::wstring_view FormatParameterW(const wchar_t* value)
{
    return value != nullptr ? std::wstring_view(value) : std::wstring_view(L"(null)");
}
inline std::wstring_view FormatParameterW(wchar_t* value) { return FormatParameterW(static_cast<const wchar_t*>(value)); }

// Narrow text is widened byte by byte (it is ASCII in practice: names of
// functions, files, exception texts).
std::wstring FormatParameterW(const std::string& value);
std::wstring FormatParameterW(const char* value);
inline std::wstring FormatParameterW(char* value) { return FormatParameterW(static_cast<const char*>(value)); }

// Handles are shown as numbers.
inline unsigned long long FormatParameterW(HANDLE value)
{
    return static_cast<unsigned long long>(reinterpret_cast<ULONG_PTR>(value));
}

// Numbers, booleans and characters pass unchanged.
template <typename T>
    requires(std::is_arithmetic_v<std::remove_cvref_t<T>>)
inline T FormatParameterW(T value)
{
    return value;
}

// So do values of types that have a wide formatter of their own.
template <typename T>
    requires(std::is_class_v<T> || std::is_enum_v<T>)
inline const T& FormatParameterW(const T& value)
{
    return value;
}

// The text logged instead of a message whose format text could not be
// formatted with its arguments.
std::wstring HandleFormatException(const wchar_t* formatText, const char* reason = nullptr);

bool ShouldLog(Severity severity);
void Log(Severity severity, const char* file, int line, const char* function, const std::wstring& message);
} // namespace Detail
} // namespace Zarn
