#include "Zarn2.h"

#include "QXDbgLog.h"

namespace Zarn::Detail
{
std::wstring FormatParameterW(const std::string& value)
{
    std::wstring out;
    out.reserve(value.size());
    for (char c : value)
        out.push_back(static_cast<unsigned char>(c));
    return out;
}

std::wstring FormatParameterW(const char* value)
{
    return value != nullptr ? FormatParameterW(std::string(value)) : std::wstring(L"(null)");
}

std::wstring HandleFormatException(const wchar_t* formatText, const char* reason)
{
    std::wstring text = L"Log format error [";
    text += formatText != nullptr ? formatText : L"(null)";
    // The format text usually ends in a line feed; keep the bracketed part on one line.
    while (text.size() > 1 && (text.back() == L'\n' || text.back() == L'\r'))
        text.pop_back();
    text += L"]";
    if (reason != nullptr)
    {
        text += L": ";
        text += FormatParameterW(reason);
    }
    text += L"\n";
    return text;
}

bool ShouldLog(Severity)
{
    return GetDbgManager()->GetLogEnabled();
}

void Log(Severity severity, const char* file, int line, const char* function, const std::wstring& message)
{
    // Errors and warnings are level 1 of the debug log, everything else level 4.
    int level = severity == Severity::Info ? 4 : 1;
    GetDbgManager()->Log(file, line, function, 1, level, message.c_str(), nullptr);
}
} // namespace Zarn::Detail
