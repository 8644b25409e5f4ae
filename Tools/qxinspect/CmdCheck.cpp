// check: the agent's decision for a program start against a rule set, every
// step of the walk with its answer, every rule with why it matched or not,
// and the rules that matched; or, for many program starts, the answer of
// each as soon as it is decided, and a summary.

#include "Records.h"
#include "Report.h"

namespace qxinspect
{
namespace
{
// One program start, every step and every rule: the one document.
int CheckOne(Context& context, const ArgParser& parser, const RunOptions& options)
{
    ProcessFacts process;
    process.pid = options.pid;
    ProgramStart start;
    start.commandLine = parser.Value(L"--cmdline");
    if (!start.commandLine)
        start.path = parser.Positional()[0];
    std::vector<RuleSet> sets;
    int exitCode = ExitOk;
    if (!LoadRuleSets({*parser.Value(L"--rules")}, sets, exitCode))
        return exitCode;
    const Decision decision = Decide(sets[0], process, start, options.policy);
    ReportWarnings(decision.Warnings());
    if (context.json)
        OutJson(CheckDocument(sets[0], process, start, decision, options.policy));
    else
        Out(CheckText(sets[0], process, start, decision));
    const Outcome answer = decision.verdict.answer;
    return answer == Outcome::Match ? ExitOk : answer == Outcome::NoMatch ? ExitNo : ExitFailed;
}

int RunCheck(Context& context, const std::vector<std::wstring>& args)
{
    std::vector<std::wstring> values = RunValueOptions(), flags = RunFlagOptions();
    values.insert(values.end(), {L"--rules", L"--cmdline"});
    flags.push_back(L"--csv");
    ArgParser parser(values, flags);
    std::wstring error;
    RunOptions options;
    if (!parser.Parse(args, error) || !ParseRunOptions(parser, options, error))
        return Fail(ExitUsage, error + SeeHelp(L"check"));
    if (!parser.Value(L"--rules"))
        return Fail(ExitUsage, L"check needs --rules FILE" + SeeHelp(L"check"));
    const bool csv = parser.Has(L"--csv");
    if (csv && context.json)
        return Fail(ExitUsage, L"--csv and --json do not go together" + SeeHelp(L"check"));
    if (parser.Value(L"--cmdline"))
    {
        if (!parser.Positional().empty() || options.from || csv)
            return Fail(ExitUsage, L"--cmdline answers one program start: no PATH, --from or --csv with it" +
                                       SeeHelp(L"check"));
        return CheckOne(context, parser, options);
    }
    if (parser.Positional().empty() && !options.from)
        return Fail(ExitUsage, L"check needs a PATH, --cmdline LINE or --from FILE" + SeeHelp(L"check"));
    Inputs inputs;
    if (!inputs.Open(parser.Positional(), options.from, options.recursive, error))
        return FailInput(error, Json(), L"qxinspect: " + error + L"\n");
    if (!inputs.Many() && !csv)
        return CheckOne(context, parser, options);

    std::vector<RuleSet> sets;
    int exitCode = ExitOk;
    if (!LoadRuleSets({*parser.Value(L"--rules")}, sets, exitCode))
        return exitCode;
    FactsNeeded image;
    image.image = true;
    const ProgramRun run(options, sets, image);
    ReportWarnings(run.Warnings());
    CheckRecords records(csv ? Format::Csv : context.json ? Format::Json : Format::Text, sets[0], run,
                         inputs.FromLines());
    RecordAll(inputs, options.threads, run, records);
    records.Summary(inputs.ReadError());
    return records.ExitCode();
}
} // namespace

QXINSPECT_COMMAND(
    L"check", L"check --rules FILE [--pid N] (--cmdline LINE | PATH... | --from FILE)",
    L"the agent's decision for program starts against a rule set, step by step",
    L"Walks what the agent asks when a process starts, in its order, and prints each\n"
    L"answer: 1 the process identity key of --pid N (default: qxinspect itself); 2\n"
    L"whether the program is an NT image; 3 the process token's user, elevation and\n"
    L"type, Administrators SID and membership; 4 the command line split into program\n"
    L"and arguments (arguments expanded to full paths; a PATH alone is the command\n"
    L"line \"PATH\"; a \\\\?\\ or \\\\.\\ prefix is the path it names; a bare program name\n"
    L"is looked up on the search path); 5 the environment table of the process's\n"
    L"user; 6 the hashes of the program's first 8 MiB, one per algorithm a rule\n"
    L"needs; 7 its signature, once, when a signer rule needs it (the file opened as\n"
    L"the process's user). A failed step shows its error and the walk goes on. Then\n"
    L"each rule: its %VAR% references expanded (regex-safe for regex rules), what\n"
    L"was tested against what, match or not; and the rules that matched.\n"
    L"\n"
    L"Many program starts (more than one PATH, a folder, or --from): steps 1, 3 and\n"
    L"5 once for the run; each program's file read once however often it starts\n"
    L"(its facts kept by final path, size and last-write time); one line per start\n"
    L"in input order, printed as soon as it is decided: its answer, the program and\n"
    L"the rules that matched (or why it could not be answered); then one summary\n"
    L"line (programs, allowed, not allowed, could not answer). Progress goes to\n"
    L"standard error when it is a terminal.\n"
    L"  PATH...            programs; a folder stands for the files in it, by name\n"
    L"  --recursive        and for those in the folders below it (links to folders\n"
    L"                     are not followed)\n"
    L"  --from FILE        one command line per line (- reads standard input as it\n"
    L"                     comes), split as --cmdline is; blank lines and # lines\n"
    L"                     are skipped; a line that names no program, holds a NUL,\n"
    L"                     is not text or is longer than 32,767 characters is\n"
    L"                     answered \"could not answer\" with the reason\n"
    L"  --threads N        worker threads (1 to 64, default 4)\n"
    L"  --csv              one CSV row per start (line, input, program, isNTExe,\n"
    L"                     answer, rules, reason) under a header; the summary goes\n"
    L"                     to standard error\n"
    L"\n"
    L"The rules file (UTF-8, or UTF-16 with a byte-order mark): one rule a line,\n"
    L"blank lines and lines starting with # ignored:  [LABEL] KIND TEXT\n"
    L"(the label is optional; TEXT runs to the end of the line, blanks inside kept,\n"
    L"around it trimmed). Each kind makes one test:\n"
    L"  name         the program's file name equals TEXT (no folder; * ? literal)\n"
    L"  path         the program's whole path equals TEXT (a full path, no wildcards)\n"
    L"  wildcard     the wildcard walk over the whole path (* ? never cross \\ or :)\n"
    L"  folder       the program's folder is TEXT\n"
    L"  subfolders   the program's folder is TEXT or below it\n"
    L"  regex        a case-insensitive ECMAScript search in the path\n"
    L"  glob         the whole path against a glob whose * spans folders\n"
    L"  network      a UNC resource and everything below it\n"
    L"  hook-exceptions  a ';'-separated list of names and folder\\name entries\n"
    L"  sha1, sha256, adler32   the hash text of the file's first 8 MiB\n"
    L"  signer FILE  validly signed by that certificate (DER or PEM; a relative path\n"
    L"               is taken from the rules file's folder)\n"
    L"Pattern texts may hold %VAR% references. Every malformed line is reported as\n"
    L"FILE:LINE: reason and nothing is evaluated; a rule that is legal but almost\n"
    L"certainly not what was meant (a wildcard in a name rule, a wildcard rule\n"
    L"without a folder, / as a separator, quotes around the text, a trailing\n"
    L"# comment, a %VAR% the table does not know, no rule at all) is reported as\n"
    L"FILE:LINE: warning: reason on standard error and the check goes on.\n"
    L"A file that is not a regular disk file under 4 GiB (a device, a pipe, a\n"
    L"folder) or cannot be read has no hashes and no signer: its hash and signer\n"
    L"rules cannot be answered. A regex or glob rule whose match runs out of the\n"
    L"matcher's step budget cannot be answered either (the agent takes it for no\n"
    L"match). A signer rule shows whether the signer is byte for byte the rule's\n"
    L"certificate (SHA-256 thumbprints) beside the agent's answer (issuer and\n"
    L"serial number), and warns when they differ.\n"
    L"\n"
    L"  --cmdline LINE     the command line of the starting process, instead of PATH\n"
    L"  --enforce-expiry, --ignore FLAGS, --network   the signature policy (see sig)\n"
    L"--json prints {command, rules, ruleCount, policy, program, steps[], results[],\n"
    L"matches[], warnings[], answer} for one start; for many, JSON Lines: one\n"
    L"{command, record: \"program\", ...} per start, then {command, record:\n"
    L"\"summary\", ...}.\n"
    L"Exit codes: 0 some rule matched (for many starts: every start), 1 none did\n"
    L"(for many: some start matched no rule, and every start was answered), 2 bad\n"
    L"command line, rules file or --from file, 3 no rule matched and some rule\n"
    L"could not be answered (a hash or signer rule on a file without identity,\n"
    L"%VAR% without the user's table, a command line that names no program, a\n"
    L"match out of budget; for many: some start could not be answered).\n",
    &RunCheck);
} // namespace qxinspect
