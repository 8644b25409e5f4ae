#pragma once
// Rules files: the kinds a rule can be, each naming exactly one test, and a
// file's lines parsed into rules. Every malformed line is reported at once
// (nothing may then be evaluated), and so is every rule that is legal but
// almost certainly not what was meant (a warning; evaluation goes on).
//
// A rules file is UTF-8 (with or without a byte-order mark) or UTF-16 with a
// byte-order mark; one rule a line, "#" comment lines and blank lines
// ignored:   [LABEL] KIND TEXT

#include "Inspect.h"

#include <windows.h>
#include <wincrypt.h>

#include <memory>
#include <string>
#include <vector>

namespace QXCommon
{
class CDigitalCertificate;
class CEnvironmentEx;
}

namespace qxinspect
{
enum class RuleKind
{
    Name,
    Path,
    Wildcard,
    Folder,
    Subfolders,
    Regex,
    Glob,
    Network,
    HookExceptions,
    Sha1,
    Sha256,
    Adler32,
    Signer,
};

struct KindInfo
{
    RuleKind kind;
    const wchar_t* name; // as written in rules files and after match --kind
    const wchar_t* test; // what the rule compares (help and README)
    size_t hexDigits;    // hash rules: the length of their text
};
const KindInfo& InfoOf(RuleKind kind);
inline const wchar_t* KindName(RuleKind kind)
{
    return InfoOf(kind).name;
}
bool FindKind(const std::wstring& name, RuleKind& kind);
// "name, path, ..., signer" (patternKinds: the kinds whose TEXT is a pattern).
std::wstring KindNames(bool patternKindsOnly = false);
bool IsHashKind(RuleKind kind);
// Hash and signer rules: they need the file's contents, not its path.
bool IsContentKind(RuleKind kind);

// A line that is malformed, or legal but almost certainly not what was meant.
struct Note
{
    std::wstring file; // empty: not from a file (match's pattern)
    unsigned line = 0; // 0: the whole file
    std::wstring reason;
};
// "FILE:LINE: reason" ("FILE: reason", "reason"); warnings read
// "FILE:LINE: warning: reason".
std::wstring NoteText(const Note& note, bool warning);
Json NoteJson(const Note& note);

// A certificate read from a file: DER, or Base-64 between "-----BEGIN
// CERTIFICATE-----" lines (PEM).
struct Certificate
{
    std::wstring path;
    std::shared_ptr<QXCommon::CDigitalCertificate> cert;
    std::wstring name;       // its simple display name
    std::wstring thumbprint; // SHA-256 of its bytes, lower-case hex
};
bool ReadCertificate(const std::wstring& path, Certificate& certificate, std::wstring& error);
// SHA-256 of a certificate's encoded bytes, lower-case hex (empty when none).
std::wstring Thumbprint(PCCERT_CONTEXT context);

struct Rule
{
    unsigned line = 0;
    std::wstring label; // empty when the rule has none
    RuleKind kind = RuleKind::Name;
    std::wstring text;  // the pattern, the hash text or the certificate file, as written
    Certificate certificate; // signer rules (a relative path is taken from the rules file's folder)
};

// "line 3 [label]": a rule as people name it; {line, label} for scripts.
std::wstring RuleName(const Rule& rule);
Json RuleRef(const Rule& rule);

struct RuleSet
{
    std::wstring file;
    std::vector<Rule> rules;
    std::vector<Note> problems; // malformed lines: nothing may be evaluated
    std::vector<Note> warnings;
    bool Needs(RuleKind kind) const;
};
// Reads and parses a rules file; a file that cannot be read is one problem
// (line 0).
RuleSet LoadRuleSet(const std::wstring& path);
// The same for text already read; file names the source in notes and gives
// the folder of relative certificate paths.
RuleSet ParseRuleSet(const std::wstring& text, const std::wstring& file);

// A pattern as a rule of kind would hold it: why it is malformed (empty when
// it is not), and the warnings it calls for.
std::wstring CheckPattern(RuleKind kind, const std::wstring& text, std::vector<std::wstring>& warnings);
// The %NAME% references of an expanded pattern that the table does not know.
std::vector<std::wstring> UnknownReferences(const std::wstring& expanded, const QXCommon::CEnvironmentEx& table);

// Text files as administrators write them: UTF-8 (a byte-order mark is
// skipped) or UTF-16 with a byte-order mark (a PowerShell redirection).
bool ReadText(const std::wstring& path, std::wstring& text, std::wstring& error);

// Why a regular expression is refused: "error 4 (error_brack): mismatched
// brackets [ and ]", and for error 11 which limit it passed.
std::wstring RegexErrorText(const std::wstring& expression, int code);
} // namespace qxinspect
