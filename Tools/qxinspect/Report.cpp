#include "Report.h"

namespace qxinspect
{
namespace
{
const std::wstring Indent(22, L' ');

Json Step(const wchar_t* name, bool ok)
{
    return Json::MakeObject().Set(L"step", name).Set(L"ok", ok);
}

// One step as a text line (continuation lines indented).
std::wstring StepLine(const std::wstring& title, const std::wstring& answer)
{
    std::wstring line = title + L":";
    line.append(line.size() < Indent.size() ? Indent.size() - line.size() : 1, L' ');
    return line + answer + L"\n";
}

Json StepsJson(const ProcessFacts& process, const ProgramStart& start, const Decision& decision)
{
    Json steps = Json::MakeArray();
    Json identity = Step(L"identity", process.identityError == 0).Set(L"pid", static_cast<unsigned long>(process.processId));
    if (process.identityError == 0)
        identity.Set(L"key", process.key).Set(L"created", IsoTime(process.created, true));
    else
        SetWin32(identity, process.identityError);
    steps.Push(std::move(identity));

    Json image = Step(L"image", start.imageError == 0).Set(L"path", start.program);
    if (start.imageError == 0)
        image.Set(L"isNTExe", start.isNTExe != FALSE);
    else
        SetWin32(image, start.imageError);
    steps.Push(std::move(image));

    Json token = Step(L"token", process.tokenError == 0);
    if (process.tokenError == 0)
        token.Set(L"user", Account(process.user))
            .Set(L"elevated", process.elevated)
            .Set(L"elevationType", process.elevationType)
            .Set(L"restrictedOrFullAdmin", process.restrictedOrFullAdmin)
            .Set(L"hasAdminSid", process.hasAdminSid)
            .Set(L"administratorsMember", process.administratorsMember);
    else
        SetWin32(token, process.tokenError);
    steps.Push(std::move(token));

    const SplitLine& split = start.split;
    Json line = Step(L"commandLine", split.split).Set(L"commandLine", start.line);
    if (split.split)
        line.Set(L"module", split.module)
            .Set(L"arguments", split.arguments)
            .Set(L"expanded", split.converted ? Json(split.expanded) : Json());
    line.Set(L"program", start.program).Set(L"programSource", start.programSource);
    steps.Push(std::move(line));

    Json environment = Step(L"environment", process.env != nullptr);
    if (process.env)
        environment.Set(L"userName", process.env->UserName());
    else
        environment.Set(L"reason", process.envError);
    steps.Push(std::move(environment));

    const bool hashesNeeded = decision.bound.needed.AnyHash(), signatureNeeded = decision.bound.needed.signature;
    const FileHashes& hashes = decision.facts->hashes;
    Json hashJson = Step(L"hashes", hashesNeeded && hashes.status.Ok()).Set(L"needed", hashesNeeded);
    if (hashesNeeded && !hashes.status.Ok())
        SetWin32(hashJson, hashes.status.error).Set(L"reason", hashes.status.reason);
    else
        for (const auto& [name, value] : {std::pair{L"sha1", &hashes.sha1}, std::pair{L"sha256", &hashes.sha256},
                                          std::pair{L"adler32", &hashes.adler32}})
            if (!value->empty())
                hashJson.Set(name, *value);
    steps.Push(std::move(hashJson));

    const SignatureFacts& sig = decision.facts->signature;
    Json sigJson = Step(L"signature", signatureNeeded && sig.status.Ok()).Set(L"needed", signatureNeeded);
    if (signatureNeeded && !sig.status.Ok())
        SetWin32(sigJson, sig.status.error).Set(L"reason", sig.status.reason);
    else if (signatureNeeded)
    {
        SetHresult(sigJson, L"result", sig.result).Set(L"verified", sig.result == S_OK);
        sigJson.Set(L"signer", sig.readError == 0 ? Json::MakeObject()
                                                        .Set(L"name", sig.name)
                                                        .Set(L"expires", sig.expires)
                                                        .Set(L"thumbprint", sig.thumbprint)
                                                  : Json());
    }
    steps.Push(std::move(sigJson));
    return steps;
}

std::wstring StepsText(const ProcessFacts& process, const ProgramStart& start, const Decision& decision)
{
    std::wstring text = StepLine(L"1 process identity",
                                 process.identityError == 0
                                     ? process.key + L" (process " + std::to_wstring(process.processId) + L", created " +
                                           IsoTime(process.created, true) + L")"
                                     : L"process " + std::to_wstring(process.processId) + L" cannot be opened: " +
                                           Win32Text(process.identityError));
    text += StepLine(L"2 NT image", start.imageError == 0 ? BoolText(start.isNTExe != FALSE)
                                                          : L"check failed: " + Win32Text(start.imageError));
    text += StepLine(L"3 token",
                     process.tokenError == 0
                         ? process.user.Qualified() + L" " + process.user.sid + L"\n" + Indent + L"elevated " +
                               BoolText(process.elevated) + L" (type " + process.elevationType +
                               L"), restricted or full admin " + BoolText(process.restrictedOrFullAdmin) + L",\n" +
                               Indent + L"Administrators SID " + BoolText(process.hasAdminSid) +
                               L", member of Administrators " + BoolText(process.administratorsMember)
                         : L"the token of process " + std::to_wstring(process.processId) + L" cannot be opened: " +
                               Win32Text(process.tokenError));
    const SplitLine& split = start.split;
    text += StepLine(L"4 command line",
                     start.line + L"\n" + Indent + L"program   " + (start.program.empty() ? L"(none)" : start.program) +
                         L" (" + start.programSource + L")" +
                         (split.split ? L"\n" + Indent + L"arguments " + split.arguments + L"\n" + Indent +
                                            L"expanded  " + (split.converted ? split.expanded : L"(could not be expanded)")
                                      : L""));
    text += StepLine(L"5 environment", process.env ? L"the table of " + process.env->UserName() +
                                                       L" (rules' %VAR% are expanded against it)"
                                                 : process.envError);
    const bool hashesNeeded = decision.bound.needed.AnyHash(), signatureNeeded = decision.bound.needed.signature;
    const FileHashes& hashes = decision.facts->hashes;
    std::wstring hashText = hashesNeeded ? L"" : L"not needed (no hash rule)";
    if (hashesNeeded && !hashes.status.Ok())
        hashText = L"the file has no identity: " + hashes.status.reason;
    else
        for (const auto& [name, value] : {std::pair{L"sha1", &hashes.sha1}, std::pair{L"sha256", &hashes.sha256},
                                          std::pair{L"adler32", &hashes.adler32}})
            if (!value->empty())
                hashText += (hashText.empty() ? L"" : L"\n" + Indent) + name + L" " + *value;
    text += StepLine(L"6 hashes (8 MiB)", hashText);
    const SignatureFacts& sig = decision.facts->signature;
    std::wstring sigText = L"not needed (no signer rule)";
    if (signatureNeeded && !sig.status.Ok())
        sigText = L"cannot be checked: " + sig.status.reason;
    else if (signatureNeeded)
        sigText = ResultText(sig.result) + (sig.result == S_OK ? L" (verified)" : L"") + L"\n" + Indent + L"signer " +
                  (sig.readError == 0 ? sig.name + L", expires " + sig.expires + L"\n" + Indent + L"sha256 " +
                                            sig.thumbprint
                                      : L"none");
    return text + StepLine(L"7 signature", sigText);
}
} // namespace

int ReportProblems(const RuleSet& rules)
{
    std::wstring text;
    for (const Note& note : rules.problems)
        text += NoteText(note, false) + L"\n";
    const bool whole = rules.problems.size() == 1 && rules.problems[0].line == 0;
    return FailInput(whole ? rules.problems[0].reason
                           : Count(rules.problems.size(), L"malformed line", L"malformed lines") + L" in " + rules.file,
                     NotesJson(rules.problems), text);
}

void ReportWarnings(const std::vector<Note>& warnings)
{
    for (const Note& note : warnings)
        Err(NoteText(note, true) + L"\n");
}

Json NotesJson(const std::vector<Note>& notes)
{
    Json list = Json::MakeArray();
    for (const Note& note : notes)
        list.Push(NoteJson(note));
    return list;
}

Json CheckDocument(const RuleSet& rules, const ProcessFacts& process, const ProgramStart& start,
                   const Decision& decision, const SignaturePolicy& policy)
{
    Json results = Json::MakeArray();
    Json matches = Json::MakeArray();
    for (size_t k = 0; k < rules.rules.size(); ++k)
    {
        const Rule& rule = rules.rules[k];
        const RuleResult& result = decision.verdict.results[k];
        Json entry = RuleRef(rule);
        entry.Set(L"kind", KindName(rule.kind)).Set(L"text", rule.text);
        if (!IsContentKind(rule.kind))
            entry.Set(L"expanded", decision.bound.rules[k].expanded);
        if (rule.kind == RuleKind::Signer)
            entry.Set(L"certificate", Json::MakeObject()
                                          .Set(L"path", rule.certificate.path)
                                          .Set(L"name", rule.certificate.name)
                                          .Set(L"thumbprint", rule.certificate.thumbprint))
                .Set(L"signerThumbprint", result.signerThumbprint.empty() ? Json() : Json(result.signerThumbprint))
                .Set(L"sameCertificate", result.sameCertificate);
        entry.Set(L"subject", result.subject)
            .Set(L"outcome", OutcomeName(result.outcome))
            .Set(L"match", result.outcome == Outcome::Match)
            .Set(L"reason", result.reason);
        results.Push(std::move(entry));
        if (result.outcome == Outcome::Match)
            matches.Push(RuleRef(rule));
    }
    std::vector<Note> warnings = rules.warnings;
    const std::vector<Note> found = decision.Warnings();
    warnings.insert(warnings.end(), found.begin(), found.end());
    return Json::MakeObject()
        .Set(L"rules", rules.file)
        .Set(L"ruleCount", static_cast<unsigned long>(rules.rules.size()))
        .Set(L"policy", PolicyJson(policy))
        .Set(L"program", start.program)
        .Set(L"steps", StepsJson(process, start, decision))
        .Set(L"results", std::move(results))
        .Set(L"matches", std::move(matches))
        .Set(L"warnings", NotesJson(warnings))
        .Set(L"answer", OutcomeName(decision.verdict.answer));
}

std::wstring CheckText(const RuleSet& rules, const ProcessFacts& process, const ProgramStart& start,
                       const Decision& decision)
{
    std::wstring ruleText, matchText;
    for (size_t k = 0; k < rules.rules.size(); ++k)
    {
        const Rule& rule = rules.rules[k];
        const RuleResult& result = decision.verdict.results[k];
        ruleText += L"  " + RuleName(rule) + L" " + KindName(rule.kind) + L" " + rule.text + L"\n      " +
                    OutcomeName(result.outcome) + L": " + result.reason + L"\n";
        if (result.outcome == Outcome::Match)
            matchText += (matchText.empty() ? L"" : L", ") + RuleName(rule);
    }
    const size_t warnings = rules.warnings.size() + decision.Warnings().size();
    return L"rules: " + rules.file + L" (" + Count(rules.rules.size(), L"rule", L"rules") + L")\n" +
           StepsText(process, start, decision) + L"rules:\n" + ruleText + L"matching rules: " +
           (matchText.empty() ? L"none" : matchText) + L"\n" +
           (warnings == 0 ? L"" : L"warnings: " + std::to_wstring(warnings) + L" (on standard error)\n") +
           L"answer: " + OutcomeName(decision.verdict.answer) + L"\n";
}
} // namespace qxinspect
