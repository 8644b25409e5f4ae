#include "Evaluation.h"

#include "QXCommon/FilePathPatternMatcher.h"
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

const FileStatus NoProgram{ERROR_INVALID_PARAMETER, L"the command line names no program"};

RuleResult TestPattern(const BoundRule& bound, const std::wstring& program, bool detail)
{
    RuleResult result;
    if (program.empty())
    {
        result.reason = L"there is no program to match";
        return result;
    }
    if (!bound.unanswerable.empty())
    {
        result.reason = bound.unanswerable;
        return result;
    }
    std::wstring why;
    result.outcome = bound.test.Test(program, result.subject, why);
    if (result.outcome == Outcome::Unanswered)
        result.reason = why;
    else if (detail)
        result.reason = Quoted(result.subject) + L" against " + Quoted(bound.expanded);
    if (!detail)
        result.subject.clear();
    return result;
}

RuleResult TestSigner(const Rule& rule, const SignatureFacts& facts, std::vector<Note>& warnings,
                      const std::wstring& file, bool detail)
{
    RuleResult result;
    if (!facts.status.Ok())
    {
        result.reason = L"the file has no signer to compare: " + facts.status.reason;
        return result;
    }
    const Certificate& mine = rule.certificate;
    // The agent's comparison: issuer and serial number.
    const bool same = facts.readError == 0 && facts.signer == *mine.cert;
    result.sameCertificate = facts.readError == 0 && facts.thumbprint == mine.thumbprint;
    result.outcome = facts.result == S_OK && same ? Outcome::Match : Outcome::NoMatch;
    if (same && !result.sameCertificate)
        warnings.push_back({file, rule.line,
                            L"the signer " + Quoted(facts.name) + L" is taken for the rule's certificate " +
                                Quoted(mine.name) + L" because issuer and serial number are the same, but it is "
                                L"another certificate (sha256 " + facts.thumbprint + L", not " + mine.thumbprint +
                                L"): whoever made it passes this rule"});
    if (!detail)
        return result;
    result.signerThumbprint = facts.thumbprint;
    result.reason = L"signature " + ResultText(facts.result) + L"; signer " +
                    (facts.readError == 0 ? Quoted(facts.name) + L" (sha256 " + facts.thumbprint + L")" : L"none") +
                    L", the rule's certificate " + Quoted(mine.name) + L" (sha256 " + mine.thumbprint + L"): " +
                    (result.sameCertificate ? L"the same certificate"
                     : same ? L"NOT the same certificate, only the same issuer and serial number"
                            : L"not the signer");
    return result;
}

RuleResult TestHash(const Rule& rule, const FileHashes& hashes, bool detail)
{
    RuleResult result;
    if (!hashes.status.Ok())
    {
        result.reason = L"the file has no identity: " + hashes.status.reason;
        return result;
    }
    const std::wstring& computed = rule.kind == RuleKind::Sha1     ? hashes.sha1
                                   : rule.kind == RuleKind::Sha256 ? hashes.sha256
                                                                   : hashes.adler32;
    result.outcome = EqualNoCase(computed, rule.text) ? Outcome::Match : Outcome::NoMatch;
    if (detail)
        result.reason = L"expected " + rule.text + L", computed " + computed;
    return result;
}

// A match that may run out of the engine's step budget.
Outcome Bounded(int code, bool matched, std::wstring& reason)
{
    if (code == 0)
        return matched ? Outcome::Match : Outcome::NoMatch;
    reason = L"the matcher could not tell: it ran out of its step budget on this path (error " +
             std::to_wstring(code) + L", where the agent's matcher answers no match)";
    return Outcome::Unanswered;
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

bool PatternTest::Compile(RuleKind kind, const std::wstring& pattern, int flag, std::wstring& error)
{
    m_kind = kind;
    m_pattern = pattern;
    m_flag = flag;
    if (IsContentKind(kind))
    {
        error = std::wstring(L"a ") + KindName(kind) + L" rule does not match a path";
        return false;
    }
    if (kind == RuleKind::Regex)
    {
        int code = 0;
        if (!ValidateRegularExpression(pattern.c_str(), &code))
        {
            error = L"the regular expression is refused: " + RegexErrorText(pattern, code);
            return false;
        }
        m_regex.Parse(pattern);
    }
    if (kind == RuleKind::Glob && !m_glob.Parse(pattern))
    {
        error = L"the glob cannot be compiled: " +
                RegexErrorText(QXCommon::RegExHelpers::GlobToRegExPattern(pattern), QX_REGEX_ERROR_BUDGET);
        return false;
    }
    return true;
}

Outcome PatternTest::Test(const std::wstring& program, std::wstring& subject, std::wstring& reason) const
{
    subject = program;
    auto answer = [](int matched) { return matched == 1 ? Outcome::Match : Outcome::NoMatch; };
    switch (m_kind)
    {
    case RuleKind::Name: return answer(CFilePathPatternMatcher::MatchAgainstJustFileName(program, m_pattern));
    case RuleKind::Path:
        // The whole path: MatchAgainstPattern's full-path comparison, which it
        // makes for a pattern with a separator and no wildcard. Any other
        // text never equals a program's full path.
        return CFilePathPatternMatcher::ContainsPath(m_pattern) && !CFilePathPatternMatcher::ContainsWildCard(m_pattern)
                   ? answer(CFilePathPatternMatcher::MatchAgainstPattern(program, m_pattern, m_flag))
                   : Outcome::NoMatch;
    case RuleKind::Wildcard:
        return answer(CFilePathPatternMatcher::MatchAgainstWildCardPattern(program, m_pattern, m_flag));
    case RuleKind::Folder:
    case RuleKind::Subfolders:
        // Folder rules hold the program's folder (with its trailing separator).
        CFilePathPatternMatcher::StripFile(program, subject);
        return answer(
            CFilePathPatternMatcher::MatchAgainstFolder(subject, m_pattern, m_kind == RuleKind::Subfolders ? 1 : 0));
    case RuleKind::Network:
        return answer(CFilePathPatternMatcher::MatchAgainstNetworkResourcePattern(program, m_pattern, m_flag));
    case RuleKind::HookExceptions:
        return answer(CFilePathPatternMatcher::MatchAgainstDriverHookExceptionList(program, m_pattern));
    case RuleKind::Regex:
    {
        // MatchAgainstRegularExpressionPattern's search on the expression
        // compiled once, telling "no match" from "could not tell".
        if (program.empty() || m_pattern.empty() || program.find(L'\0') != std::wstring::npos)
            return Outcome::NoMatch;
        bool matched = false;
        const int code = m_regex.TryMatch(program, matched);
        return Bounded(code, matched, reason);
    }
    case RuleKind::Glob:
    {
        bool matched = false;
        const int code = m_glob.TryMatch(program, matched);
        return Bounded(code, matched, reason);
    }
    default: return Outcome::NoMatch;
    }
}

int MatchRule(RuleKind kind, const std::wstring& program, const std::wstring& pattern, int flag, std::wstring& subject,
              std::wstring& error)
{
    PatternTest test;
    subject = program;
    if (!test.Compile(kind, pattern, flag, error))
        return -1;
    const Outcome outcome = test.Test(program, subject, error);
    return outcome == Outcome::Match ? 1 : outcome == Outcome::NoMatch ? 0 : -2;
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

std::vector<Note> BoundRules::Warnings() const
{
    std::vector<Note> warnings;
    for (const BoundRule& rule : rules)
        warnings.insert(warnings.end(), rule.warnings.begin(), rule.warnings.end());
    warnings.insert(warnings.end(), platformWarnings.begin(), platformWarnings.end());
    return warnings;
}

BoundRules Bind(const RuleSet& set, const ProcessFacts& process, const SignaturePolicy& policy)
{
    BoundRules bound;
    bound.set = &set;
    bound.policy = policy;
    bound.needed.sha1 = set.Needs(RuleKind::Sha1);
    bound.needed.sha256 = set.Needs(RuleKind::Sha256);
    bound.needed.adler32 = set.Needs(RuleKind::Adler32);
    bound.needed.signature = set.Needs(RuleKind::Signer);
    for (const Rule& rule : set.rules)
    {
        BoundRule& one = bound.rules.emplace_back();
        one.rule = &rule;
        if (rule.kind == RuleKind::Signer && WaivesUnknownRoot(policy))
            one.warnings.push_back({set.file, rule.line,
                                    L"evaluated under --ignore with 0x10 (an unknown root allowed): a certificate "
                                    L"that anyone makes with the issuer name and serial number of \"" +
                                        rule.certificate.name + L"\" verifies and matches"});
        if (IsContentKind(rule.kind))
            continue;
        one.expanded = rule.text;
        if (rule.text.find(L'%') != std::wstring::npos)
        {
            if (!process.env)
            {
                one.unanswerable = L"its %VAR% references cannot be expanded: " + process.envError;
                continue;
            }
            std::vector<std::wstring> unknown;
            one.expanded = ExpandPattern(rule.kind, rule.text, *process.env, unknown);
            for (const std::wstring& name : unknown)
                one.warnings.push_back({set.file, rule.line,
                                        name + L" is not in the environment table of " + process.env->UserName() +
                                            L": it stays in the pattern as written"});
        }
        std::wstring error;
        if (!one.test.Compile(rule.kind, one.expanded, 0, error))
            one.unanswerable = error;
    }
    if (bound.needed.signature && OnWine())
        bound.platformWarnings.push_back({set.file, 0,
                                          L"this platform (Wine) accepts a chain that ends at an unknown issuer: a "
                                          L"certificate that anyone makes with a signer rule's issuer name and serial "
                                          L"number verifies and matches here"});
    return bound;
}

std::vector<size_t> Verdict::Rules(Outcome outcome) const
{
    std::vector<size_t> indexes;
    for (size_t k = 0; k < results.size(); ++k)
        if (results[k].outcome == outcome)
            indexes.push_back(k);
    return indexes;
}

Verdict Evaluate(const BoundRules& rules, const std::wstring& program, const Facts* facts, bool detail)
{
    Verdict verdict;
    verdict.results.reserve(rules.rules.size());
    const FileHashes noHashes{NoProgram};
    SignatureFacts noSignature;
    noSignature.status = NoProgram;
    const FileHashes& hashes = facts != nullptr ? facts->hashes : noHashes;
    const SignatureFacts& signature = facts != nullptr ? facts->signature : noSignature;
    bool match = false, unanswered = false;
    for (const BoundRule& bound : rules.rules)
    {
        const Rule& rule = *bound.rule;
        RuleResult result = rule.kind == RuleKind::Signer
                                ? TestSigner(rule, signature, verdict.warnings, rules.set->file, detail)
                            : IsHashKind(rule.kind) ? TestHash(rule, hashes, detail)
                                                    : TestPattern(bound, program, detail);
        if (IsContentKind(rule.kind) && detail)
            result.subject = program;
        match = match || result.outcome == Outcome::Match;
        unanswered = unanswered || result.outcome == Outcome::Unanswered;
        verdict.results.push_back(std::move(result));
    }
    verdict.answer = match ? Outcome::Match : unanswered ? Outcome::Unanswered : Outcome::NoMatch;
    return verdict;
}

std::vector<Note> Decision::Warnings() const
{
    std::vector<Note> warnings;
    for (const BoundRule& rule : bound.rules)
    {
        warnings.insert(warnings.end(), rule.warnings.begin(), rule.warnings.end());
        for (const Note& note : verdict.warnings)
            if (note.line == rule.rule->line)
                warnings.push_back(note);
    }
    warnings.insert(warnings.end(), bound.platformWarnings.begin(), bound.platformWarnings.end());
    return warnings;
}

Decision Decide(const RuleSet& rules, ProcessFacts& process, ProgramStart& start, const SignaturePolicy& policy,
                FactsCache* cache)
{
    Decision decision;
    PrepareProcess(process);
    StepSplit(start);
    StepImage(start);
    decision.bound = Bind(rules, process, policy);
    if (start.program.empty())
    {
        decision.facts = std::make_shared<const Facts>(FactsWithout(L"", NoProgram));
    }
    else if (cache != nullptr)
        decision.facts = cache->Of(start.program);
    else
        decision.facts = std::make_shared<const Facts>(
            ComputeFacts(start.program, decision.bound.needed, policy, process.FileToken()));
    decision.verdict = Evaluate(decision.bound, start.program, decision.facts.get());
    return decision;
}
} // namespace qxinspect
