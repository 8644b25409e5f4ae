// check: the agent's decision for one program start against a rule set,
// every step of the walk with its answer, every rule with why it matched or
// not, and the rules that matched.

#include "Decision.h"
#include "Inspect.h"

namespace qxinspect
{
namespace
{
std::wstring RuleName(const Rule& rule)
{
    return L"line " + std::to_wstring(rule.line) + (rule.label.empty() ? L"" : L" [" + rule.label + L"]");
}

Json RuleRef(const Rule& rule)
{
    return Json::MakeObject().Set(L"line", rule.line).Set(L"label", rule.label);
}

// The steps, as one JSON object each and one text line each (continuation
// lines indented).
struct Steps
{
    Json json = Json::MakeArray();
    std::wstring text;

    void Add(const std::wstring& title, Json entry, const std::wstring& answer)
    {
        json.Push(std::move(entry));
        std::wstring line = title + L":";
        line.append(line.size() < 22 ? 22 - line.size() : 1, L' ');
        text += line + answer + L"\n";
    }
};

Json Step(const wchar_t* name, bool ok)
{
    return Json::MakeObject().Set(L"step", name).Set(L"ok", ok);
}

void DescribeSteps(const Walk& walk, Steps& steps)
{
    const std::wstring indent(22, L' ');
    Json identity = Step(L"identity", walk.identityError == 0).Set(L"pid", static_cast<unsigned long>(walk.processId));
    if (walk.identityError == 0)
        identity.Set(L"key", walk.key).Set(L"created", IsoTime(walk.created));
    else
        identity.Set(L"error", static_cast<unsigned long>(walk.identityError)).Set(L"errorText", Win32Text(walk.identityError));
    steps.Add(L"1 process identity", std::move(identity),
              walk.identityError == 0 ? walk.key + L" (process " + std::to_wstring(walk.processId) + L", created " +
                                            IsoTime(walk.created) + L")"
                                      : L"process " + std::to_wstring(walk.processId) + L" cannot be opened: " +
                                            Win32Text(walk.identityError));

    Json image = Step(L"image", walk.imageError == 0).Set(L"path", walk.program);
    if (walk.imageError == 0)
        image.Set(L"isNTExe", walk.isNTExe != FALSE);
    else
        image.Set(L"error", static_cast<unsigned long>(walk.imageError)).Set(L"errorText", Win32Text(walk.imageError));
    steps.Add(L"2 NT image", std::move(image),
              walk.imageError == 0 ? BoolText(walk.isNTExe != FALSE) : L"check failed: " + Win32Text(walk.imageError));

    const bool tokenOk = walk.tokenError.empty();
    Json token = Step(L"token", tokenOk);
    if (tokenOk)
        token.Set(L"user", walk.user)
            .Set(L"elevated", walk.elevated)
            .Set(L"elevationType", walk.elevationType)
            .Set(L"restrictedOrFullAdmin", walk.restrictedOrFullAdmin)
            .Set(L"hasAdminSid", walk.hasAdminSid)
            .Set(L"administratorsMember", walk.administratorsMember);
    else
        token.Set(L"error", walk.tokenError);
    steps.Add(L"3 token", std::move(token),
              tokenOk ? walk.user + L"\n" + indent + L"elevated " + BoolText(walk.elevated) + L" (type " +
                            walk.elevationType + L"), restricted or full admin " +
                            BoolText(walk.restrictedOrFullAdmin) + L",\n" + indent + L"Administrators SID " +
                            BoolText(walk.hasAdminSid) + L", member of Administrators " +
                            BoolText(walk.administratorsMember)
                      : walk.tokenError);

    const SplitLine& split = walk.split;
    Json line = Step(L"commandLine", split.split).Set(L"commandLine", walk.line);
    if (split.split)
        line.Set(L"module", split.module)
            .Set(L"arguments", split.arguments)
            .Set(L"expanded", split.converted ? Json(split.expanded) : Json());
    line.Set(L"program", walk.program).Set(L"programSource", walk.programSource);
    steps.Add(L"4 command line", std::move(line),
              walk.line + L"\n" + indent + L"program   " + (walk.program.empty() ? L"(none)" : walk.program) + L" (" +
                  walk.programSource + L")" +
                  (split.split ? L"\n" + indent + L"arguments " + split.arguments + L"\n" + indent + L"expanded  " +
                                     (split.converted ? split.expanded : L"(could not be expanded)")
                               : L""));

    Json environment = Step(L"environment", walk.env != nullptr);
    if (walk.env)
        environment.Set(L"user", walk.env->UserName());
    else
        environment.Set(L"error", walk.envError);
    steps.Add(L"5 environment", std::move(environment),
              walk.env ? L"the table of " + walk.env->UserName() + L" (rules' %VAR% are expanded against it)"
                       : walk.envError);

    const FileHashes& hashes = walk.hashes;
    Json hashJson = Step(L"hashes", walk.hashesNeeded && hashes.error == 0).Set(L"needed", walk.hashesNeeded);
    std::wstring hashText = walk.hashesNeeded ? L"" : L"not needed (no hash rule)";
    if (walk.hashesNeeded && hashes.error != 0)
    {
        hashJson.Set(L"error", static_cast<unsigned long>(hashes.error)).Set(L"errorText", Win32Text(hashes.error));
        hashText = L"the file cannot be read: " + Win32Text(hashes.error);
    }
    else
        for (const auto& [name, value] : {std::pair{L"sha1", &hashes.sha1}, std::pair{L"sha256", &hashes.sha256},
                                          std::pair{L"adler32", &hashes.adler32}})
            if (!value->empty())
            {
                hashJson.Set(name, *value);
                hashText += (hashText.empty() ? L"" : L"\n" + indent) + name + L" " + *value;
            }
    steps.Add(L"6 hashes (8 MiB)", std::move(hashJson), hashText);

    const SignatureFacts& sig = walk.signature;
    Json sigJson = Step(L"signature", walk.signatureNeeded && sig.fileError == 0).Set(L"needed", walk.signatureNeeded);
    std::wstring sigText = L"not needed (no signer rule)";
    if (walk.signatureNeeded && sig.fileError != 0)
    {
        sigJson.Set(L"error", static_cast<unsigned long>(sig.fileError)).Set(L"errorText", Win32Text(sig.fileError));
        sigText = L"cannot be checked: " + Win32Text(sig.fileError);
    }
    else if (walk.signatureNeeded)
    {
        sigJson.Set(L"result", static_cast<unsigned long>(sig.result))
            .Set(L"resultText", ResultText(sig.result))
            .Set(L"verified", sig.result == S_OK)
            .Set(L"signer", sig.readError == 0 ? Json(sig.name) : Json());
        sigText = ResultText(sig.result) + (sig.result == S_OK ? L" (verified)" : L"") + L"\n" + indent + L"signer " +
                  (sig.readError == 0 ? sig.name + L", expires " + sig.expires : L"none");
    }
    steps.Add(L"7 signature", std::move(sigJson), sigText);
}

int RunCheck(Context& context, const std::vector<std::wstring>& args)
{
    ArgParser parser({L"--rules", L"--pid", L"--cmdline", L"--ignore"}, {L"--enforce-expiry", L"--network"});
    std::wstring error;
    if (!parser.Parse(args, error))
        return Fail(ExitUsage, error);
    const auto rulesPath = parser.Value(L"--rules");
    if (!rulesPath)
        return Fail(ExitUsage, L"check needs --rules FILE (see qxinspect help check)");
    Walk walk;
    walk.commandLine = parser.Value(L"--cmdline");
    if (parser.Positional().size() != (walk.commandLine ? 0u : 1u))
        return Fail(ExitUsage, L"check needs one PATH or --cmdline LINE, not both (see qxinspect help check)");
    if (!walk.commandLine)
        walk.path = parser.Positional()[0];
    uint32_t pid = 0;
    if (auto text = parser.Value(L"--pid"); text && (!ParseNumber32(*text, pid) || pid == 0))
        return Fail(ExitUsage, L"--pid needs a non-zero process id, not " + *text);
    walk.pid = pid;
    if (!ParsePolicy(parser, walk.policy, error))
        return Fail(ExitUsage, error);

    // Every line is read and checked before anything is evaluated.
    std::vector<Rule> rules;
    if (!LoadRules(*rulesPath, rules, error))
    {
        Err(error + L"\n");
        return ExitUsage;
    }
    RunWalk(rules, walk);
    const Outcome answer = Answer(walk);

    Steps steps;
    DescribeSteps(walk, steps);
    Json results = Json::MakeArray();
    Json matches = Json::MakeArray();
    std::wstring ruleText, matchText;
    for (size_t k = 0; k < rules.size(); ++k)
    {
        const Rule& rule = rules[k];
        const RuleResult& result = walk.results[k];
        Json entry = RuleRef(rule);
        entry.Set(L"kind", RuleKindName(rule.kind)).Set(L"text", rule.text);
        if (rule.kind == RuleKind::Signer)
            entry.Set(L"certificate", rule.certPath).Set(L"certificateName", rule.certName);
        if (!result.expanded.empty())
            entry.Set(L"expanded", result.expanded);
        entry.Set(L"subject", result.subject)
            .Set(L"outcome", OutcomeName(result.outcome))
            .Set(L"match", result.outcome == Outcome::Match)
            .Set(L"reason", result.reason);
        results.Push(std::move(entry));
        ruleText += L"  " + RuleName(rule) + L" " + RuleKindName(rule.kind) + L" " + rule.text + L"\n      " +
                    OutcomeName(result.outcome) + L": " + result.reason + L"\n";
        if (result.outcome == Outcome::Match)
        {
            matches.Push(RuleRef(rule));
            matchText += (matchText.empty() ? L"" : L", ") + RuleName(rule);
        }
    }

    if (context.json)
        OutJson(Json::MakeObject()
                    .Set(L"rules", *rulesPath)
                    .Set(L"program", walk.program)
                    .Set(L"steps", std::move(steps.json))
                    .Set(L"results", std::move(results))
                    .Set(L"matches", std::move(matches))
                    .Set(L"answer", OutcomeName(answer)));
    else
        Out(L"rules: " + *rulesPath + L" (" + std::to_wstring(rules.size()) + L" rules)\n" + steps.text + L"rules:\n" +
            ruleText + L"matching rules: " + (matchText.empty() ? L"none" : matchText) + L"\nanswer: " +
            OutcomeName(answer) + L"\n");
    return answer == Outcome::Match ? ExitOk : answer == Outcome::NoMatch ? ExitNo : ExitFailed;
}
} // namespace

QXINSPECT_COMMAND(
    L"check", L"check --rules FILE [--pid N] (--cmdline LINE | PATH)",
    L"the agent's decision for a program start against a rule set, step by step",
    L"Walks what the agent asks when a process starts, in its order, and prints each\n"
    L"answer: 1 the process identity key of --pid N (default: qxinspect itself); 2\n"
    L"whether the program is an NT image; 3 the process token's user, elevation and\n"
    L"type, Administrators SID and membership; 4 the command line split into program\n"
    L"and arguments (arguments expanded to full paths; a PATH alone is the command\n"
    L"line \"PATH\"; a bare program name is looked up on the search path); 5 the\n"
    L"environment table of the process's user; 6 the hashes of the program's first\n"
    L"8 MiB, one per algorithm a rule needs; 7 its signature, once, when a signer rule\n"
    L"needs it (the file opened as the process's user). A failed step shows its error\n"
    L"and the walk goes on. Then each rule: its %VAR% references expanded\n"
    L"(regex-safe for regex rules), what was tested against what, match or not; and\n"
    L"the rules that matched.\n"
    L"\n"
    L"The rules file (UTF-8): one rule a line, blank lines and lines starting with #\n"
    L"ignored:  [LABEL] KIND TEXT   (the label is optional; TEXT runs to the end of\n"
    L"the line, blanks inside kept, around it trimmed). Kinds: name, path, wildcard,\n"
    L"folder, subfolders (tested against the program's folder), regex, glob,\n"
    L"network, hook-exceptions (a pattern; %VAR% allowed), sha1, sha256, adler32 (the\n"
    L"hash text), signer FILE.cer (validly signed by that certificate; a relative\n"
    L"path is taken from the rules file's folder). A malformed line is reported as\n"
    L"FILE:LINE: reason and nothing is evaluated.\n"
    L"\n"
    L"  --cmdline LINE     the command line of the starting process, instead of PATH\n"
    L"  --enforce-expiry, --ignore FLAGS, --network   the signature policy (see sig)\n"
    L"--json prints {rules, program, steps[], results[], matches[], answer}.\n"
    L"Exit codes: 0 some rule matched, 1 none did, 2 bad command line or rules file,\n"
    L"3 no rule matched and some rule could not be answered (a hash or signer rule\n"
    L"on a file that cannot be read, %VAR% without the user's table, a command line\n"
    L"that names no program).\n",
    &RunCheck);
} // namespace qxinspect
