#pragma once
// The library's one logging macro. It asks the debug-log manager whether an
// output is on before anything is formatted, formats a wide {}-format text
// with fmt (wide-string arguments pass through Zarn's FormatParameterW), and
// hands the line to CQXDbgManager::Log with the source file (reported as
// Source/QXCommon/<file>: the build path is trimmed by -fmacro-prefix-map),
// the line and the qualified function name. A format text that cannot be
// formatted with its arguments is logged as the text Zarn's
// HandleFormatException returns; the format error never reaches the caller.
//
//   QXLOG_ERROR("QXCommonFunctions::Foo", L"Failed to Bar - error {}\n", GetLastError());
//   QXLOG_INFO("QXCommon::CFoo::Baz", L"Returning {}\n", value);

#include "QXDbgLog.h"
#include "Zarn2.h"

#include <fmt/format.h>
#include <fmt/xchar.h>

#include <string>
#include <string_view>

namespace QXCommon::Detail
{
constexpr int LogLevelError = 1;
constexpr int LogLevelInfo = 4;

template <typename... Args>
std::wstring FormatLogText(const wchar_t* format, const Args&... args)
{
    try
    {
        return fmt::vformat(fmt::basic_string_view<wchar_t>(format), fmt::make_wformat_args(Zarn::Detail::FormatParameterW(args)...));
    }
    catch (const fmt::format_error& e)
    {
        return Zarn::Detail::HandleFormatException(format, e.what());
    }
}

template <typename... Args>
void LogFormatted(CQXDbgManager* manager, const char* file, int line, const char* function, int level,
                  const wchar_t* format, const Args&... args)
{
    std::wstring text = FormatLogText(format, args...);
    manager->Log(file, line, function, 1, level, text.c_str(), nullptr);
}
} // namespace QXCommon::Detail

#define QXLOG(level, function, format, ...)                                                                        \
    do                                                                                                             \
    {                                                                                                              \
        CQXDbgManager* qxLogManager_ = ::GetDbgManager();                                                          \
        if (qxLogManager_->GetLogEnabled())                                                                        \
            ::QXCommon::Detail::LogFormatted(qxLogManager_, __FILE__, __LINE__, function, level,                   \
                                             format __VA_OPT__(, ) __VA_ARGS__);                                   \
    } while (0)

#define QXLOG_ERROR(function, format, ...)                                                                         \
    QXLOG(::QXCommon::Detail::LogLevelError, function, format __VA_OPT__(, ) __VA_ARGS__)
#define QXLOG_INFO(function, format, ...)                                                                          \
    QXLOG(::QXCommon::Detail::LogLevelInfo, function, format __VA_OPT__(, ) __VA_ARGS__)
