#include "Inspect.h"

#include <algorithm>
#include <cwchar>

namespace qxinspect
{
namespace
{
std::vector<Command>& Registry()
{
    static std::vector<Command> commands;
    return commands;
}

// The run's document and the first failed write to standard output.
struct Output
{
    std::wstring command;
    bool json = false;
    DWORD writeError = ERROR_SUCCESS;
};

Output& State()
{
    static Output output;
    return output;
}

// False with the system's error when the text could not be written whole.
bool WriteUtf8(DWORD which, const std::wstring& text, DWORD& error)
{
    error = ERROR_SUCCESS;
    if (text.empty())
        return true;
    int bytes = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr,
                                    nullptr);
    if (bytes <= 0)
    {
        error = GetLastError();
        return false;
    }
    std::string utf8(static_cast<size_t>(bytes), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), utf8.data(), bytes, nullptr, nullptr);
    HANDLE handle = GetStdHandle(which);
    size_t offset = 0;
    while (offset < utf8.size())
    {
        DWORD written = 0;
        if (!WriteFile(handle, utf8.data() + offset, static_cast<DWORD>(utf8.size() - offset), &written, nullptr) ||
            written == 0)
        {
            error = GetLastError() != ERROR_SUCCESS ? GetLastError() : ERROR_WRITE_FAULT;
            return false;
        }
        offset += written;
    }
    return true;
}

void Indent(std::wstring& out, int indent, int depth)
{
    if (indent > 0)
    {
        out += L'\n';
        out.append(static_cast<size_t>(indent * depth), L' ');
    }
}

void WriteString(std::wstring& out, const std::wstring& s)
{
    out += L'"';
    for (wchar_t c : s)
    {
        switch (c)
        {
        case L'"': out += L"\\\""; break;
        case L'\\': out += L"\\\\"; break;
        case L'\n': out += L"\\n"; break;
        case L'\r': out += L"\\r"; break;
        case L'\t': out += L"\\t"; break;
        case L'\b': out += L"\\b"; break;
        case L'\f': out += L"\\f"; break;
        default:
            if (c < 0x20)
            {
                wchar_t buffer[8];
                swprintf(buffer, 8, L"\\u%04x", static_cast<unsigned>(c));
                out += buffer;
            }
            else
            {
                out += c;
            }
        }
    }
    out += L'"';
}
} // namespace

Registrar::Registrar(const Command& command)
{
    Registry().push_back(command);
}

const std::vector<Command>& Commands()
{
    auto& commands = Registry();
    std::sort(commands.begin(), commands.end(),
              [](const Command& a, const Command& b) { return std::wcscmp(a.name, b.name) < 0; });
    return commands;
}

Json& Json::Set(const std::wstring& key, Json value)
{
    if (!std::holds_alternative<Object>(m_value))
        m_value = Object{};
    std::get<Object>(m_value).emplace_back(key, std::move(value));
    return *this;
}

Json& Json::Prepend(const std::wstring& key, Json value)
{
    if (!std::holds_alternative<Object>(m_value))
        m_value = Object{};
    auto& members = std::get<Object>(m_value);
    members.emplace(members.begin(), key, std::move(value));
    return *this;
}

Json& Json::Push(Json value)
{
    if (!std::holds_alternative<Array>(m_value))
        m_value = Array{};
    std::get<Array>(m_value).push_back(std::move(value));
    return *this;
}

std::wstring Json::Serialize(int indent) const
{
    std::wstring out;
    Write(out, indent, 0);
    return out;
}

void Json::Write(std::wstring& out, int indent, int depth) const
{
    if (std::holds_alternative<std::nullptr_t>(m_value))
        out += L"null";
    else if (auto b = std::get_if<bool>(&m_value))
        out += *b ? L"true" : L"false";
    else if (auto i = std::get_if<int64_t>(&m_value))
        out += std::to_wstring(*i);
    else if (auto u = std::get_if<uint64_t>(&m_value))
        out += std::to_wstring(*u);
    else if (auto d = std::get_if<double>(&m_value))
    {
        wchar_t buffer[64];
        swprintf(buffer, 64, L"%.6g", *d);
        out += buffer;
    }
    else if (auto s = std::get_if<std::wstring>(&m_value))
        WriteString(out, *s);
    else if (auto a = std::get_if<Array>(&m_value))
    {
        out += L'[';
        for (size_t k = 0; k < a->size(); ++k)
        {
            if (k > 0)
                out += L',';
            Indent(out, indent, depth + 1);
            (*a)[k].Write(out, indent, depth + 1);
        }
        if (!a->empty())
            Indent(out, indent, depth);
        out += L']';
    }
    else if (auto o = std::get_if<Object>(&m_value))
    {
        out += L'{';
        for (size_t k = 0; k < o->size(); ++k)
        {
            if (k > 0)
                out += L',';
            Indent(out, indent, depth + 1);
            WriteString(out, (*o)[k].first);
            out += indent > 0 ? L": " : L":";
            (*o)[k].second.Write(out, indent, depth + 1);
        }
        if (!o->empty())
            Indent(out, indent, depth);
        out += L'}';
    }
}

void Out(const std::wstring& text)
{
    // After a failed write nothing more is tried: the reader has gone or the
    // disk is full, and the run ends with a failure exit.
    Output& state = State();
    DWORD error = ERROR_SUCCESS;
    if (state.writeError == ERROR_SUCCESS && !WriteUtf8(STD_OUTPUT_HANDLE, text, error))
        state.writeError = error;
}

void Err(const std::wstring& text)
{
    DWORD error = ERROR_SUCCESS;
    WriteUtf8(STD_ERROR_HANDLE, text, error);
}

bool OutputFailed(DWORD& error)
{
    error = State().writeError;
    return error != ERROR_SUCCESS;
}

void SetDocument(const std::wstring& command, bool json)
{
    State().command = command;
    State().json = json;
}

void OutJson(Json value)
{
    const Output& state = State();
    value.Prepend(L"command", state.command.empty() ? Json() : Json(state.command));
    Out(value.Serialize() + L"\n");
}

void OutJsonLine(Json value)
{
    const Output& state = State();
    value.Prepend(L"command", state.command.empty() ? Json() : Json(state.command));
    Out(value.Serialize(0) + L"\n");
}

bool StderrIsTerminal()
{
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(STD_ERROR_HANDLE), &mode) != FALSE;
}

namespace
{
int FailDocument(int exitCode, const wchar_t* kind, const std::wstring& message, Json lines, const std::wstring& text)
{
    Err(text);
    if (State().json)
    {
        Json error = Json::MakeObject().Set(L"kind", kind).Set(L"message", message);
        if (!lines.IsNull())
            error.Set(L"lines", std::move(lines));
        OutJson(Json::MakeObject().Set(L"error", std::move(error)));
    }
    return exitCode;
}
} // namespace

int Fail(int exitCode, const std::wstring& message)
{
    return FailDocument(exitCode, exitCode == ExitUsage ? L"usage" : L"failed", message, Json(),
                        L"qxinspect: " + message + L"\n");
}

int FailInput(const std::wstring& message, Json lines, const std::wstring& text)
{
    return FailDocument(ExitUsage, L"input", message, std::move(lines), text);
}

ArgParser::ArgParser(std::vector<std::wstring> valueOptions, std::vector<std::wstring> flagOptions)
    : m_valueOptions(std::move(valueOptions)), m_flagOptions(std::move(flagOptions))
{
}

bool ArgParser::Parse(const std::vector<std::wstring>& args, std::wstring& error)
{
    bool optionsEnded = false;
    for (size_t k = 0; k < args.size(); ++k)
    {
        const std::wstring& arg = args[k];
        if (optionsEnded || arg.size() < 2 || arg.compare(0, 2, L"--") != 0)
        {
            m_positional.push_back(arg);
            continue;
        }
        if (arg == L"--")
        {
            optionsEnded = true;
            continue;
        }
        std::wstring name = arg;
        std::optional<std::wstring> inlineValue;
        size_t eq = arg.find(L'=');
        if (eq != std::wstring::npos)
        {
            name = arg.substr(0, eq);
            inlineValue = arg.substr(eq + 1);
        }
        if (std::find(m_flagOptions.begin(), m_flagOptions.end(), name) != m_flagOptions.end())
        {
            if (inlineValue)
            {
                error = L"option " + name + L" takes no value";
                return false;
            }
            m_flags.push_back(name);
        }
        else if (std::find(m_valueOptions.begin(), m_valueOptions.end(), name) != m_valueOptions.end())
        {
            if (inlineValue)
                m_values[name].push_back(*inlineValue);
            else if (k + 1 < args.size())
                m_values[name].push_back(args[++k]);
            else
            {
                error = L"option " + name + L" needs a value";
                return false;
            }
        }
        else
        {
            error = L"unknown option " + name;
            return false;
        }
    }
    return true;
}

bool ArgParser::Has(const std::wstring& name) const
{
    return std::find(m_flags.begin(), m_flags.end(), name) != m_flags.end() || m_values.count(name) != 0;
}

std::optional<std::wstring> ArgParser::Value(const std::wstring& name) const
{
    auto it = m_values.find(name);
    if (it == m_values.end())
        return std::nullopt;
    return it->second.back();
}

std::vector<std::wstring> ArgParser::Values(const std::wstring& name) const
{
    auto it = m_values.find(name);
    return it == m_values.end() ? std::vector<std::wstring>() : it->second;
}

bool ParseNumber32(const std::wstring& text, uint32_t& value)
{
    if (text.empty())
        return false;
    size_t k = 0;
    bool negative = false;
    unsigned base = 10;
    if (text[0] == L'-')
    {
        negative = true;
        k = 1;
    }
    else if (text[0] == L'+')
    {
        k = 1;
    }
    if (!negative && text.size() > k + 2 && text[k] == L'0' && (text[k + 1] == L'x' || text[k + 1] == L'X'))
    {
        base = 16;
        k += 2;
    }
    if (k >= text.size())
        return false;
    uint64_t result = 0;
    for (; k < text.size(); ++k)
    {
        wchar_t c = text[k];
        unsigned digit;
        if (c >= L'0' && c <= L'9')
            digit = c - L'0';
        else if (base == 16 && c >= L'a' && c <= L'f')
            digit = c - L'a' + 10;
        else if (base == 16 && c >= L'A' && c <= L'F')
            digit = c - L'A' + 10;
        else
            return false;
        result = result * base + digit;
        if (result > (negative ? 0x80000000ull : 0xFFFFFFFFull))
            return false;
    }
    value = negative ? static_cast<uint32_t>(-static_cast<int64_t>(result)) : static_cast<uint32_t>(result);
    return true;
}

std::wstring Hex32(uint32_t value)
{
    wchar_t buffer[16];
    swprintf(buffer, 16, L"0x%08X", value);
    return buffer;
}

std::wstring BoolText(bool value)
{
    return value ? L"yes" : L"no";
}

std::wstring CsvField(const std::wstring& text)
{
    std::wstring field = !text.empty() && std::wcschr(L"=+-@", text[0]) != nullptr ? L"'" + text : text;
    if (field.find_first_of(L",\"\r\n") == std::wstring::npos)
        return field;
    std::wstring quoted = L"\"";
    for (wchar_t c : field)
        quoted += c == L'"' ? std::wstring(L"\"\"") : std::wstring(1, c);
    return quoted + L"\"";
}

std::wstring CsvRow(const std::vector<std::wstring>& fields)
{
    std::wstring row;
    for (size_t k = 0; k < fields.size(); ++k)
        row += (k == 0 ? L"" : L",") + CsvField(fields[k]);
    return row + L"\r\n";
}

std::wstring Count(size_t n, const wchar_t* singular, const wchar_t* plural)
{
    return std::to_wstring(n) + L" " + (n == 1 ? singular : plural);
}

std::wstring SeeHelp(const wchar_t* command)
{
    return std::wstring(L" (see qxinspect help") + (command != nullptr ? L" " + std::wstring(command) : L"") + L")";
}
} // namespace qxinspect
