#pragma once
// qxinspect: a command-line front end to QXCommon for the people who write and
// test rules. Each subcommand lives in its own Cmd*.cpp file and registers
// itself with QXINSPECT_COMMAND; main.cpp handles the common options
// (--json, --log, --help, --version), dispatch and exit codes.
//
// The rule engine that check, audit, diff and match share lives beside the
// commands, one piece per file:
//   RuleSet       rules files: kinds, parsing, malformed lines and warnings
//   FileFacts     the facts of one file (identity, image, hashes, signature,
//                 owner), computed once and kept for the run by identity
//   ProgramStart  the facts of a program start: the process (once a run) and
//                 the program its command line names
//   Evaluation    a rule set bound to the process, evaluated on those facts:
//                 one meaning per kind
//   Inputs        what a run is asked about: PATHs, folders, --from lines
//   Stream        inputs answered on worker threads, handed back in order
//   Programs      what check, audit and diff share for many program starts
//   Access        a standard user's rights on a program and its folder
//   Report        what check prints for one start, as text and as JSON
//   Records       the streamed records and summaries of check, diff, fileinfo
//   Audit         audit's findings and its report

#include <windows.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace qxinspect
{
// Exit codes (documented in --help and README).
constexpr int ExitOk = 0;      // done; for a yes/no question, the answer is yes
constexpr int ExitNo = 1;      // done; the answer is no (no match, not an NT image, expression rejected)
constexpr int ExitUsage = 2;   // bad command line or input file (nothing evaluated)
constexpr int ExitFailed = 3;  // the library or the system could not answer (the error is printed)

// A JSON value for --json output.
class Json
{
public:
    using Object = std::vector<std::pair<std::wstring, Json>>;
    using Array = std::vector<Json>;

    Json() : m_value(nullptr) {}
    Json(std::nullptr_t) : m_value(nullptr) {}
    Json(bool v) : m_value(v) {}
    Json(int v) : m_value(static_cast<int64_t>(v)) {}
    Json(long v) : m_value(static_cast<int64_t>(v)) {}
    Json(long long v) : m_value(static_cast<int64_t>(v)) {}
    Json(unsigned v) : m_value(static_cast<uint64_t>(v)) {}
    Json(unsigned long v) : m_value(static_cast<uint64_t>(v)) {}
    Json(unsigned long long v) : m_value(static_cast<uint64_t>(v)) {}
    Json(double v) : m_value(v) {}
    Json(const wchar_t* v) : m_value(std::wstring(v != nullptr ? v : L"")) {}
    Json(std::wstring v) : m_value(std::move(v)) {}
    Json(Array v) : m_value(std::move(v)) {}
    Json(Object v) : m_value(std::move(v)) {}

    static Json MakeObject() { return Json(Object{}); }
    static Json MakeArray() { return Json(Array{}); }

    // For objects: appends a member (keeps insertion order). Returns *this.
    Json& Set(const std::wstring& key, Json value);
    // For objects: puts a member first. Returns *this.
    Json& Prepend(const std::wstring& key, Json value);
    // For arrays: appends an element. Returns *this.
    Json& Push(Json value);
    bool IsNull() const { return std::holds_alternative<std::nullptr_t>(m_value); }

    std::wstring Serialize(int indent = 2) const;

private:
    void Write(std::wstring& out, int indent, int depth) const;
    std::variant<std::nullptr_t, bool, int64_t, uint64_t, double, std::wstring, Array, Object> m_value;
};

// What a command gets besides its arguments.
struct Context
{
    bool json = false;
    bool log = false;
};

// Standard output and standard error, as UTF-8. A write to standard output
// that fails is remembered: the run then ends with a failure exit.
void Out(const std::wstring& text);
void Err(const std::wstring& text);
bool OutputFailed(DWORD& error);
// The run's document: the command it answers (null before one is known) and
// whether --json asked for documents.
void SetDocument(const std::wstring& command, bool json);
// Prints the JSON value (followed by a line feed) on standard output, with
// "command" put first.
void OutJson(Json value);
// The same on one line: one record of a JSON Lines stream.
void OutJsonLine(Json value);
// Whether standard error is a console that a person watches (progress lines
// are written only there).
bool StderrIsTerminal();
// "qxinspect: <message>" on standard error and, with --json, the error
// document {command, error: {kind, message}} on standard output; returns the
// exit code given (2: kind "usage", 3: kind "failed").
int Fail(int exitCode, const std::wstring& message);
// The same for an input file that is refused (exit code 2, kind "input"),
// with its lines ({file, line, reason}) and the text printed on stderr.
int FailInput(const std::wstring& message, Json lines, const std::wstring& text);

// Parses the arguments of one command: options that take a value
// ("--pid 12", "--pid=12"), flags ("--regex") and positional arguments.
// "--" ends the options.
class ArgParser
{
public:
    ArgParser(std::vector<std::wstring> valueOptions, std::vector<std::wstring> flagOptions);
    // False (with the reason in error) on an unknown option or a missing value.
    bool Parse(const std::vector<std::wstring>& args, std::wstring& error);

    const std::vector<std::wstring>& Positional() const { return m_positional; }
    bool Has(const std::wstring& name) const;
    // The option's value (the last one given when it was given more than once).
    std::optional<std::wstring> Value(const std::wstring& name) const;
    // Every value given for the option, in order.
    std::vector<std::wstring> Values(const std::wstring& name) const;

private:
    std::vector<std::wstring> m_valueOptions;
    std::vector<std::wstring> m_flagOptions;
    std::vector<std::wstring> m_positional;
    std::map<std::wstring, std::vector<std::wstring>> m_values;
    std::vector<std::wstring> m_flags;
};

// Parses a 32-bit number written in decimal or as 0x-hexadecimal. Negative
// decimal numbers are accepted and stored as their two's complement.
bool ParseNumber32(const std::wstring& text, uint32_t& value);

// Text forms of common values.
std::wstring Hex32(uint32_t value);   // "0x0000ABCD"
std::wstring BoolText(bool value);    // "yes" / "no"
// One CSV field (RFC 4180): quoted when it holds a comma, a quote or a line
// break; a leading = + - or @ is prefixed with ' so that a spreadsheet shows
// the text rather than running it as a formula.
std::wstring CsvField(const std::wstring& text);
// A CSV row of the fields, ended by CR LF.
std::wstring CsvRow(const std::vector<std::wstring>& fields);
// "1 rule", "3 rules".
std::wstring Count(size_t n, const wchar_t* singular, const wchar_t* plural);
// " (see qxinspect help COMMAND)": the one way the tool points at help.
std::wstring SeeHelp(const wchar_t* command);

// One subcommand.
struct Command
{
    const wchar_t* name;
    const wchar_t* synopsis;  // "exe PATH..." (shown in the command list)
    const wchar_t* summary;   // one line
    const wchar_t* help;      // the command's own --help text (options, output, exit codes)
    int (*run)(Context& context, const std::vector<std::wstring>& args);
};

struct Registrar
{
    explicit Registrar(const Command& command);
};

const std::vector<Command>& Commands();
} // namespace qxinspect

#define QXINSPECT_CONCAT_(a, b) a##b
#define QXINSPECT_CONCAT(a, b) QXINSPECT_CONCAT_(a, b)
#define QXINSPECT_COMMAND(...)                                                                                     \
    static ::qxinspect::Registrar QXINSPECT_CONCAT(qxinspectRegistrar_, __LINE__)(::qxinspect::Command{__VA_ARGS__})
