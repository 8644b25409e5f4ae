#include "Evaluation.h"

#include "QXCommon/FilePathPatternMatcher.h"
#include "QXCommon/GlobWildcardString.h"
#include "QXCommon/RegExHelpers.h"

#include <algorithm>
#include <cwctype>

namespace qxinspect
{
namespace
{
using QXCommon::CFilePathPatternMatcher;

std::wstring Quoted(const std::wstring& text)
{
    return L"\"" + text + L"\"";
}

RuleResult MatchPatternRule(const Rule& rule, const ProgramStart& start, std::vector<Note>& warnings,
                            const std::wstring& file)
{
    RuleResult result;
    result.expanded = rule.text;
    if (start.program.empty())
    {
        result.reason = L"there is no program to match";
        return result;
    }
    if (rule.text.find(L'%') != std::wstring::npos)
    {
        if (!start.env)
        {
            result.reason = L"its %VAR% references cannot be expanded: " + start.envError;
            return result;
        }
        std::vector<std::wstring> unknown;
        result.expanded = ExpandPattern(rule.kind, rule.text, *start.env, unknown);
        for (const std::wstring& name : unknown)
            warnings.push_back({file, rule.line,
                                name + L" is not in the environment table of " + start.env->UserName() +
                                    L": it stays in the pattern as written"});
    }
    std::wstring error;
    const int matched = MatchRule(rule.kind, start.program, result.expanded, 0, result.subject, error);
    result.outcome = matched == 1 ? Outcome::Match : matched == 0 ? Outcome::NoMatch : Outcome::Unanswered;
    result.reason = matched < 0 ? error : Quoted(result.subject) + L" against " + Quoted(result.expanded);
    return result;
}

RuleResult MatchSignerRule(const Rule& rule, const Evaluation& evaluation, std::vector<Note>& warnings,
                           const std::wstring& file)
{
    RuleResult result;
    const SignatureFacts& facts = evaluation.signature;
    if (!facts.status.Ok())
    {
        result.reason = L"the file has no signer to compare: " + facts.status.reason;
        return result;
    }
    const Certificate& mine = rule.certificate;
    // The agent's comparison: issuer and serial number.
    const bool same = facts.readError == 0 && facts.signer == *mine.cert;
    result.signerThumbprint = facts.thumbprint;
    result.sameCertificate = facts.readError == 0 && facts.thumbprint == mine.thumbprint;
    result.outcome = facts.result == S_OK && same ? Outcome::Match : Outcome::NoMatch;
    result.reason = L"signature " + ResultText(facts.result) + L"; signer " +
                    (facts.readError == 0 ? Quoted(facts.name) + L" (sha256 " + facts.thumbprint + L")" : L"none") +
                    L", the rule's certificate " + Quoted(mine.name) + L" (sha256 " + mine.thumbprint + L"): " +
                    (result.sameCertificate ? L"the same certificate"
                     : same ? L"NOT the same certificate, only the same issuer and serial number"
                            : L"not the signer");
    if (same && !result.sameCertificate)
        warnings.push_back({file, rule.line,
                            L"the signer " + Quoted(facts.name) + L" is taken for the rule's certificate " +
                                Quoted(mine.name) + L" because issuer and serial number are the same, but it is "
                                L"another certificate (sha256 " + facts.thumbprint + L", not " + mine.thumbprint +
                                L"): whoever made it passes this rule"});
    return result;
}

RuleResult MatchHashRule(const Rule& rule, const Evaluation& evaluation)
{
    RuleResult result;
    const FileHashes& hashes = evaluation.hashes;
    if (!hashes.status.Ok())
    {
        result.reason = L"the file has no identity: " + hashes.status.reason;
        return result;
    }
    const std::wstring& computed = rule.kind == RuleKind::Sha1     ? hashes.sha1
                                   : rule.kind == RuleKind::Sha256 ? hashes.sha256
                                                                   : hashes.adler32;
    result.outcome = EqualNoCase(computed, rule.text) ? Outcome::Match : Outcome::NoMatch;
    result.reason = L"expected " + rule.text + L", computed " + computed;
    return result;
}
} // namespace

const wchar_t* OutcomeName(Outcome outcome)
{
    switch (outcome)
    {
    case Outcome::Match: return L"match";
    case Outcome::NoMatch: return L"no match";
    default: return L"could not answer";
    }
}

int MatchRule(RuleKind kind, const std::wstring& program, const std::wstring& pattern, int flag, std::wstring& subject,
              std::wstring& error)
{
    subject = program;
    switch (kind)
    {
    case RuleKind::Name: return CFilePathPatternMatcher::MatchAgainstJustFileName(program, pattern);
    case RuleKind::Path:
        // The whole path: MatchAgainstPattern's full-path comparison, which it
        // makes for a pattern with a separator and no wildcard. Any other
        // text never equals a program's full path.
        return CFilePathPatternMatcher::ContainsPath(pattern) && !CFilePathPatternMatcher::ContainsWildCard(pattern)
                   ? CFilePathPatternMatcher::MatchAgainstPattern(program, pattern, flag)
                   : 0;
    case RuleKind::Wildcard: return CFilePathPatternMatcher::MatchAgainstWildCardPattern(program, pattern, flag);
    case RuleKind::Folder:
    case RuleKind::Subfolders:
        // Folder rules hold the program's folder (with its trailing separator).
        CFilePathPatternMatcher::StripFile(program, subject);
        return CFilePathPatternMatcher::MatchAgainstFolder(subject, pattern, kind == RuleKind::Subfolders ? 1 : 0);
    case RuleKind::Network: return CFilePathPatternMatcher::MatchAgainstNetworkResourcePattern(program, pattern, flag);
    case RuleKind::HookExceptions: return CFilePathPatternMatcher::MatchAgainstDriverHookExceptionList(program, pattern);
    case RuleKind::Regex:
    {
        int code = 0;
        if (!ValidateRegularExpression(pattern.c_str(), &code))
        {
            error = L"the regular expression is refused: " + RegexErrorText(pattern, code);
            return -1;
        }
        return CFilePathPatternMatcher::MatchAgainstRegularExpressionPattern(program, pattern);
    }
    case RuleKind::Glob:
    {
        QXCommon::RegExHelpers::GlobWildcardString glob;
        if (!glob.Parse(pattern))
        {
            error = L"the glob cannot be compiled: " +
                    RegexErrorText(QXCommon::RegExHelpers::GlobToRegExPattern(pattern), QX_REGEX_ERROR_BUDGET);
            return -1;
        }
        return glob.Match(program) ? 1 : 0;
    }
    default: error = std::wstring(L"a ") + KindName(kind) + L" rule does not match a path"; return -1;
    }
}

RuleKind AutomaticKind(const std::wstring& pattern, std::wstring& why)
{
    const bool separator = CFilePathPatternMatcher::ContainsPath(pattern);
    const bool wildcard = CFilePathPatternMatcher::ContainsWildCard(pattern);
    if (!separator && !wildcard)
    {
        why = L"no separator and no wildcard: a file name";
        return RuleKind::Name;
    }
    if (!wildcard)
    {
        why = L"a separator and no wildcard: a whole path";
        return RuleKind::Path;
    }
    why = L"a wildcard: the wildcard walk over the whole path";
    return RuleKind::Wildcard;
}

std::wstring ExpandPattern(RuleKind kind, const std::wstring& text, QXCommon::CEnvironmentEx& table,
                           std::vector<std::wstring>& unknown)
{
    std::wstring expanded = text;
    if (kind == RuleKind::Regex)
        table.ExpandRxString(text, expanded);
    else
        table.ExpandString(text.c_str(), expanded);
    unknown = UnknownReferences(expanded, table);
    return expanded;
}

Evaluation Evaluate(const RuleSet& rules, const ProgramStart& start, FileFacts* program, const SignaturePolicy& policy)
{
    Evaluation evaluation;
    const bool sha1 = rules.Needs(RuleKind::Sha1), sha256 = rules.Needs(RuleKind::Sha256),
               adler32 = rules.Needs(RuleKind::Adler32);
    evaluation.hashesNeeded = sha1 || sha256 || adler32;
    evaluation.signatureNeeded = rules.Needs(RuleKind::Signer);
    const FileStatus noProgram{ERROR_INVALID_PARAMETER, L"the command line names no program"};
    if (evaluation.hashesNeeded)
        evaluation.hashes = program != nullptr ? program->Hashes(sha1, sha256, adler32) : FileHashes{noProgram};
    if (evaluation.signatureNeeded)
    {
        if (program != nullptr)
            evaluation.signature = program->Signature();
        else
            evaluation.signature.status = noProgram;
    }

    std::vector<Note>& warnings = evaluation.warnings;
    for (const Rule& rule : rules.rules)
    {
        if (rule.kind == RuleKind::Signer && WaivesUnknownRoot(policy))
            warnings.push_back({rules.file, rule.line,
                                L"evaluated under --ignore with 0x10 (an unknown root allowed): a certificate that "
                                L"anyone makes with the issuer name and serial number of \"" +
                                    rule.certificate.name + L"\" verifies and matches"});
        RuleResult result = rule.kind == RuleKind::Signer ? MatchSignerRule(rule, evaluation, warnings, rules.file)
                            : IsHashKind(rule.kind)       ? MatchHashRule(rule, evaluation)
                                                          : MatchPatternRule(rule, start, warnings, rules.file);
        if (IsContentKind(rule.kind))
            result.subject = start.program;
        evaluation.results.push_back(std::move(result));
    }
    if (evaluation.signatureNeeded && OnWine())
        warnings.push_back({rules.file, 0,
                            L"this platform (Wine) accepts a chain that ends at an unknown issuer: a certificate "
                            L"that anyone makes with a signer rule's issuer name and serial number verifies and "
                            L"matches here"});

    auto any = [&](Outcome o) {
        return std::any_of(evaluation.results.begin(), evaluation.results.end(),
                           [&](const RuleResult& r) { return r.outcome == o; });
    };
    evaluation.answer = any(Outcome::Match)        ? Outcome::Match
                        : any(Outcome::Unanswered) ? Outcome::Unanswered
                                                   : Outcome::NoMatch;
    return evaluation;
}

Evaluation Decide(const RuleSet& rules, ProgramStart& start, const SignaturePolicy& policy, FactsCache* cache)
{
    Prepare(start);
    if (start.program.empty())
        return Evaluate(rules, start, nullptr, policy);
    FactsCache fresh(policy, start.token.GetHandle() != nullptr ? &start.token : nullptr);
    return Evaluate(rules, start, (cache != nullptr ? cache : &fresh)->Of(start.program).get(), policy);
}
} // namespace qxinspect
