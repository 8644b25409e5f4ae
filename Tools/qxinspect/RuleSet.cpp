#include "RuleSet.h"

#include "FileFacts.h"
#include "Platform.h"

#include "QXCommon/DigitalCertificate.h"
#include "QXCommon/EnvironmentEx.h"
#include "QXCommon/FilePathPatternMatcher.h"
#include "QXCommon/GlobWildcardString.h"
#include "QXCommon/HashStrategySha.h"
#include "QXCommon/RegExHelpers.h"

#include <algorithm>
#include <cwctype>
#include <iterator>

namespace qxinspect
{
namespace
{
// The library's documented limits on a regular expression's text (README):
// longer or deeper expressions are refused with error 11.
constexpr size_t MaxExpressionLength = 2048;
constexpr size_t MaxGroupNesting = 64;
// Rules and certificate files larger than this are not what they claim to be.
constexpr DWORD MaxRulesFileBytes = 64u << 20;
constexpr DWORD MaxCertificateBytes = 1u << 20;

const KindInfo Kinds[] = {
    {RuleKind::Name, L"name", L"the program's file name equals TEXT (no folder, no wildcards)", 0},
    {RuleKind::Path, L"path", L"the program's whole path equals TEXT (a full path, no wildcards)", 0},
    {RuleKind::Wildcard, L"wildcard", L"the wildcard walk: * and ? within one folder level, never across \\ or :", 0},
    {RuleKind::Folder, L"folder", L"the program's folder is TEXT", 0},
    {RuleKind::Subfolders, L"subfolders", L"the program's folder is TEXT or below it", 0},
    {RuleKind::Regex, L"regex", L"a case-insensitive ECMAScript search in the whole path", 0},
    {RuleKind::Glob, L"glob", L"the whole path against a glob whose * spans folders", 0},
    {RuleKind::Network, L"network", L"a UNC resource (\\\\host\\share) and everything below it", 0},
    {RuleKind::HookExceptions, L"hook-exceptions", L"a ';'-separated list of names and folder\\name entries", 0},
    {RuleKind::Sha1, L"sha1", L"the SHA-1 of the file's first 8 MiB (40 hex digits)", 40},
    {RuleKind::Sha256, L"sha256", L"the SHA-256 of the file's first 8 MiB (64 hex digits)", 64},
    {RuleKind::Adler32, L"adler32", L"the Adler-32 of the file's first 8 MiB (8 hex digits)", 8},
    {RuleKind::Signer, L"signer", L"validly signed by the certificate in TEXT (a .cer file, DER or PEM)", 0},
};

// A path with a drive or starting at a root (\x, \\server) is not relative to anything.
bool IsAbsolute(const std::wstring& path)
{
    return (path.size() >= 2 && path[1] == L':') || (!path.empty() && (path[0] == L'\\' || path[0] == L'/'));
}

std::wstring FolderOf(const std::wstring& file)
{
    const size_t cut = file.find_last_of(L"\\/");
    return cut == std::wstring::npos ? std::wstring() : file.substr(0, cut + 1);
}

// A %NAME% reference: two % with a name between them.
bool HasReference(const std::wstring& text)
{
    const size_t first = text.find(L'%');
    return first != std::wstring::npos && text.find(L'%', first + 2) != std::wstring::npos;
}

size_t GroupDepth(const std::wstring& expression)
{
    size_t depth = 0, deepest = 0;
    bool inBracket = false;
    for (size_t i = 0; i < expression.size(); ++i)
    {
        const wchar_t c = expression[i];
        if (c == L'\\')
            ++i;
        else if (inBracket)
            inBracket = c != L']';
        else if (c == L'[')
            inBracket = true;
        else if (c == L'(')
            deepest = std::max(deepest, ++depth);
        else if (c == L')' && depth > 0)
            --depth;
    }
    return deepest;
}

std::wstring WithThousands(size_t n)
{
    std::wstring digits = std::to_wstring(n);
    for (size_t at = digits.size(); at > 3; at -= 3)
        digits.insert(at - 3, L",");
    return digits;
}

bool ParseLine(const std::wstring& line, const std::wstring& folder, Rule& rule, std::wstring& reason,
               std::vector<std::wstring>& warnings)
{
    std::wstring rest = line;
    if (rest[0] == L'[')
    {
        const size_t close = rest.find(L']');
        if (close == std::wstring::npos)
        {
            reason = L"the label has no closing ]";
            return false;
        }
        rule.label = Trimmed(rest.substr(1, close - 1));
        if (rule.label.empty())
        {
            reason = L"empty label []";
            return false;
        }
        rest = Trimmed(rest.substr(close + 1));
    }
    size_t end = 0;
    while (end < rest.size() && !IsBlank(rest[end]))
        ++end;
    const std::wstring keyword = rest.substr(0, end);
    rule.text = Trimmed(rest.substr(end));
    if (keyword.empty())
    {
        reason = L"a label but no rule";
        return false;
    }
    if (!FindKind(keyword, rule.kind))
    {
        reason = L"unknown kind \"" + keyword + L"\" (" + KindNames() + L")";
        return false;
    }
    const KindInfo& info = InfoOf(rule.kind);
    if (rule.text.empty())
    {
        reason = std::wstring(L"a ") + info.name + L" rule needs " +
                 (info.hexDigits ? L"a hash text" : rule.kind == RuleKind::Signer ? L"a .cer file" : L"a pattern");
        return false;
    }
    reason = CheckPattern(rule.kind, rule.text, warnings);
    if (!reason.empty())
        return false;
    if (rule.kind == RuleKind::Signer)
    {
        std::wstring error;
        if (!ReadCertificate(IsAbsolute(rule.text) ? rule.text : folder + rule.text, rule.certificate, error))
        {
            reason = L"the certificate " + error;
            return false;
        }
    }
    return true;
}

const struct
{
    const wchar_t* name;
    const wchar_t* text;
} RegexErrors[] = {
    {L"error_collate", L"an invalid collating element name"},
    {L"error_ctype", L"an invalid character class name"},
    {L"error_escape", L"an invalid escape, or a \\ at the end"},
    {L"error_backref", L"a back-reference to a group that does not exist"},
    {L"error_brack", L"mismatched brackets [ and ]"},
    {L"error_paren", L"mismatched parentheses ( and )"},
    {L"error_brace", L"mismatched braces { and }"},
    {L"error_badbrace", L"an invalid count in braces {n,m}"},
    {L"error_range", L"an invalid character range (such as z-a)"},
    {L"error_space", L"not enough memory to compile the expression"},
    {L"error_badrepeat", L"*, +, ? or {n} with nothing before it to repeat"},
    {L"error_complexity", L"the expression compiles to more than 4,000 states"},
    {L"error_stack", L"not enough memory to match"},
};
} // namespace

const KindInfo& InfoOf(RuleKind kind)
{
    for (const KindInfo& info : Kinds)
        if (info.kind == kind)
            return info;
    return Kinds[0];
}

bool FindKind(const std::wstring& name, RuleKind& kind)
{
    for (const KindInfo& info : Kinds)
        if (EqualNoCase(name, info.name))
        {
            kind = info.kind;
            return true;
        }
    return false;
}

std::wstring KindNames(bool patternKindsOnly)
{
    std::wstring names;
    for (const KindInfo& info : Kinds)
        if (!patternKindsOnly || !IsContentKind(info.kind))
            names += (names.empty() ? L"" : L", ") + std::wstring(info.name);
    return names;
}

bool IsHashKind(RuleKind kind)
{
    return InfoOf(kind).hexDigits != 0;
}

bool IsContentKind(RuleKind kind)
{
    return IsHashKind(kind) || kind == RuleKind::Signer;
}

std::wstring NoteText(const Note& note, bool warning)
{
    std::wstring text = note.file;
    if (!text.empty() && note.line != 0)
        text += L":" + std::to_wstring(note.line);
    return text + (text.empty() ? L"" : L": ") + (warning ? L"warning: " : L"") + note.reason;
}

Json NoteJson(const Note& note)
{
    return Json::MakeObject()
        .Set(L"file", note.file.empty() ? Json() : Json(note.file))
        .Set(L"line", note.line == 0 ? Json() : Json(note.line))
        .Set(L"reason", note.reason);
}

std::wstring Thumbprint(PCCERT_CONTEXT context)
{
    std::wstring text;
    if (context != nullptr)
        QXCommon::CHashStrategySha(SignatureAlgorithmSHA256)
            .GenerateHash(context->pbCertEncoded, context->cbCertEncoded, text);
    return text;
}

bool ReadCertificate(const std::wstring& path, Certificate& certificate, std::wstring& error)
{
    certificate = Certificate();
    certificate.path = path;
    std::string bytes;
    if (!ReadSmallFile(path, MaxCertificateBytes, bytes, error))
    {
        error = path + L" cannot be read: " + error;
        return false;
    }
    // PEM: the Base-64 between the BEGIN and END lines (blanks and line ends
    // of any kind allowed).
    std::vector<BYTE> der(bytes.begin(), bytes.end());
    if (bytes.find("-----BEGIN") != std::string::npos)
    {
        DWORD size = 0;
        if (!CryptStringToBinaryA(bytes.data(), static_cast<DWORD>(bytes.size()), CRYPT_STRING_BASE64HEADER, nullptr,
                                  &size, nullptr, nullptr) ||
            size == 0)
        {
            error = path + L" is not a certificate: its Base-64 (PEM) text cannot be decoded";
            return false;
        }
        der.assign(size, 0);
        CryptStringToBinaryA(bytes.data(), static_cast<DWORD>(bytes.size()), CRYPT_STRING_BASE64HEADER, der.data(),
                             &size, nullptr, nullptr);
        der.resize(size);
    }
    auto cert = std::make_shared<QXCommon::CDigitalCertificate>();
    if (der.empty() || !cert->DeserialiseContext(static_cast<DWORD>(der.size()), der.data()))
    {
        error = path + L" is not a certificate (DER, or Base-64 between -----BEGIN CERTIFICATE----- lines)";
        return false;
    }
    certificate.cert = cert;
    certificate.name = TakeBstr(cert->GetName());
    certificate.thumbprint = Thumbprint(cert->GetContext());
    return true;
}

std::wstring RuleName(const Rule& rule)
{
    return L"line " + std::to_wstring(rule.line) + (rule.label.empty() ? L"" : L" [" + rule.label + L"]");
}

Json RuleRef(const Rule& rule)
{
    return Json::MakeObject().Set(L"line", rule.line).Set(L"label", rule.label);
}

bool RuleSet::Needs(RuleKind kind) const
{
    return std::any_of(rules.begin(), rules.end(), [&](const Rule& rule) { return rule.kind == kind; });
}

std::wstring CheckPattern(RuleKind kind, const std::wstring& text, std::vector<std::wstring>& warnings)
{
    using QXCommon::CFilePathPatternMatcher;
    const KindInfo& info = InfoOf(kind);
    if (text.find(L'\0') != std::wstring::npos)
        return L"the rule holds a NUL character";
    if (info.hexDigits != 0)
    {
        const bool hex = std::all_of(text.begin(), text.end(), [](wchar_t c) { return c < 128 && iswxdigit(c); });
        if (text.size() != info.hexDigits || !hex)
            return std::wstring(info.name) + L" hash text: " + std::to_wstring(info.hexDigits) +
                   L" hexadecimal digits expected, not \"" + text + L"\"";
        return L"";
    }

    // Legal, but almost certainly not what was meant.
    const bool quoted = text.size() >= 2 && (text.front() == L'"' || text.front() == L'\'') && text.back() == text.front();
    if (quoted)
        warnings.push_back(L"the quotes are part of the text: rules take TEXT unquoted, blanks and all");
    const size_t hash = text.find(L'#');
    if (hash != std::wstring::npos && hash > 0 && IsBlank(text[hash - 1]))
        warnings.push_back(L"\"" + text.substr(hash) + L"\" is part of the text: comments take whole lines");
    if (kind == RuleKind::Signer)
        return L"";

    const bool separator = CFilePathPatternMatcher::ContainsPath(text);
    const bool wildcard = CFilePathPatternMatcher::ContainsWildCard(text);
    const bool reference = HasReference(text);
    if (text.find(L'/') != std::wstring::npos && kind != RuleKind::Regex && kind != RuleKind::HookExceptions &&
        kind != RuleKind::Name)
        warnings.push_back(L"/ is not a separator of program paths (they use \\): it matches only a / itself");
    switch (kind)
    {
    case RuleKind::Name:
        if (separator)
            return L"a name rule compares the file name only, and \"" + text + L"\" holds a folder (for the whole " +
                   (wildcard ? L"path with wildcards: wildcard " : L"path: path ") + text + L")";
        if (wildcard)
            warnings.push_back(L"a name rule takes * and ? literally (for a file name with wildcards in any folder: "
                               L"glob *\\" + text + L")");
        return L"";
    case RuleKind::Path:
        if (wildcard)
            return L"a path rule compares the whole path and takes no wildcards (for a wildcard path: wildcard " +
                   text + L")";
        if (!separator && !reference)
            return L"a path rule compares the whole path, and \"" + text +
                   L"\" holds no folder (for this file name in any folder: name " + text + L")";
        return L"";
    case RuleKind::Wildcard:
        if (!separator && !reference)
            warnings.push_back(L"a wildcard rule without a folder matches only a path without folders, and no "
                               L"program has one (for a file name in any folder: glob *\\" + text + L")");
        return L"";
    case RuleKind::Folder:
    case RuleKind::Subfolders:
        if (!separator && !reference)
            return std::wstring(L"a ") + info.name + L" rule needs a folder such as C:\\Tools, not \"" + text + L"\"";
        return L"";
    case RuleKind::Regex:
    {
        int code = 0;
        if (!ValidateRegularExpression(text.c_str(), &code))
            return L"the regular expression is refused: " + RegexErrorText(text, code);
        return L"";
    }
    case RuleKind::Glob:
    {
        QXCommon::RegExHelpers::GlobWildcardString glob;
        if (!glob.Parse(text))
        {
            const std::wstring expression = QXCommon::RegExHelpers::GlobToRegExPattern(text);
            return L"the glob cannot be compiled: " + RegexErrorText(expression, QX_REGEX_ERROR_BUDGET);
        }
        return L"";
    }
    default: return L"";
    }
}

std::vector<std::wstring> UnknownReferences(const std::wstring& expanded, const QXCommon::CEnvironmentEx& table)
{
    std::vector<std::wstring> unknown;
    for (size_t open = expanded.find(L'%'); open != std::wstring::npos;)
    {
        const size_t close = expanded.find(L'%', open + 1);
        if (close == std::wstring::npos)
            break;
        const std::wstring name = expanded.substr(open + 1, close - open - 1);
        std::wstring value;
        if (name.empty() || name.find_first_of(L" \\/") != std::wstring::npos || table.Lookup(name.c_str(), value) == 1)
        {
            open = close; // not a reference: the second % may open one
            continue;
        }
        unknown.push_back(L"%" + name + L"%");
        open = expanded.find(L'%', close + 1);
    }
    return unknown;
}

bool ReadText(const std::wstring& path, std::wstring& text, std::wstring& error)
{
    std::string bytes;
    if (!ReadSmallFile(path, MaxRulesFileBytes, bytes, error))
        return false;
    text.clear();
    const bool littleEndian = bytes.compare(0, 2, "\xFF\xFE") == 0;
    if (littleEndian || bytes.compare(0, 2, "\xFE\xFF") == 0)
    {
        if (bytes.size() % 2 != 0)
        {
            error = L"not UTF-16 text: an odd number of bytes after its byte-order mark";
            return false;
        }
        for (size_t k = 2; k + 1 < bytes.size(); k += 2)
        {
            const unsigned lo = static_cast<unsigned char>(bytes[k + (littleEndian ? 0 : 1)]);
            const unsigned hi = static_cast<unsigned char>(bytes[k + (littleEndian ? 1 : 0)]);
            text += static_cast<wchar_t>(lo | hi << 8);
        }
        return true;
    }
    if (bytes.compare(0, 3, "\xEF\xBB\xBF") == 0)
        bytes.erase(0, 3);
    if (bytes.find('\0') != std::string::npos)
    {
        error = L"not UTF-8 text: it holds NUL bytes (UTF-16 needs its byte-order mark)";
        return false;
    }
    if (bytes.empty())
        return true;
    const int chars =
        MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, bytes.data(), static_cast<int>(bytes.size()), nullptr, 0);
    if (chars <= 0)
    {
        error = L"not UTF-8 text (nor UTF-16 with a byte-order mark)";
        return false;
    }
    text.resize(static_cast<size_t>(chars));
    MultiByteToWideChar(CP_UTF8, 0, bytes.data(), static_cast<int>(bytes.size()), text.data(), chars);
    return true;
}

RuleSet ParseRuleSet(const std::wstring& text, const std::wstring& file)
{
    RuleSet set;
    set.file = file;
    const std::wstring folder = FolderOf(file);
    unsigned number = 0;
    for (size_t start = 0; start <= text.size();)
    {
        size_t end = text.find(L'\n', start);
        if (end == std::wstring::npos)
            end = text.size();
        const std::wstring line = Trimmed(text.substr(start, end - start));
        start = end + 1;
        ++number;
        if (line.empty() || line[0] == L'#')
            continue;
        Rule rule;
        rule.line = number;
        std::wstring reason;
        std::vector<std::wstring> warnings;
        if (!ParseLine(line, folder, rule, reason, warnings))
            set.problems.push_back({file, number, reason});
        else
            set.rules.push_back(std::move(rule));
        for (std::wstring& warning : warnings)
            set.warnings.push_back({file, number, std::move(warning)});
    }
    if (set.rules.empty() && set.problems.empty())
        set.warnings.push_back({file, 0, L"the file holds no rule: every program answers no match"});
    return set;
}

RuleSet LoadRuleSet(const std::wstring& path)
{
    std::wstring text, error;
    if (!ReadText(path, text, error))
    {
        RuleSet set;
        set.file = path;
        set.problems.push_back({path, 0, error});
        return set;
    }
    return ParseRuleSet(text, path);
}

std::wstring RegexErrorText(const std::wstring& expression, int code)
{
    std::wstring text = L"error " + std::to_wstring(code);
    if (code == QX_REGEX_ERROR_TOO_SLOW)
        return text + L": too slow to match a sample (more than 100 ms)";
    if (code < 0 || static_cast<size_t>(code) >= std::size(RegexErrors))
        return text;
    text += L" (" + std::wstring(RegexErrors[code].name) + L"): ";
    if (code == QX_REGEX_ERROR_BUDGET && expression.size() > MaxExpressionLength)
        return text + L"the expression is longer than 2,048 characters (it has " + WithThousands(expression.size()) +
               L")";
    if (code == QX_REGEX_ERROR_BUDGET && GroupDepth(expression) > MaxGroupNesting)
        return text + L"groups are nested more than 64 deep";
    return text + RegexErrors[code].text;
}
} // namespace qxinspect
