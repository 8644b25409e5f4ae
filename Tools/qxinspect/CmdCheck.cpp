// check: the agent's decision for one program start against a rule set,
// every step of the walk with its answer, every rule with why it matched or
// not, and the rules that matched.

#include "Report.h"

namespace qxinspect
{
namespace
{
int RunCheck(Context& context, const std::vector<std::wstring>& args)
{
    ArgParser parser({L"--rules", L"--pid", L"--cmdline", L"--ignore"}, {L"--enforce-expiry", L"--network"});
    std::wstring error;
    if (!parser.Parse(args, error))
        return Fail(ExitUsage, error + SeeHelp(L"check"));
    const auto rulesPath = parser.Value(L"--rules");
    if (!rulesPath)
        return Fail(ExitUsage, L"check needs --rules FILE" + SeeHelp(L"check"));
    ProgramStart start;
    start.commandLine = parser.Value(L"--cmdline");
    if (parser.Positional().size() != (start.commandLine ? 0u : 1u))
        return Fail(ExitUsage, L"check needs one PATH or --cmdline LINE, not both" + SeeHelp(L"check"));
    if (!start.commandLine)
        start.path = parser.Positional()[0];
    uint32_t pid = 0;
    if (auto text = parser.Value(L"--pid"); text && (!ParseNumber32(*text, pid) || pid == 0))
        return Fail(ExitUsage, L"--pid needs a non-zero process id, not " + *text);
    start.pid = pid;
    SignaturePolicy policy;
    if (!ParsePolicy(parser, policy, error))
        return Fail(ExitUsage, error);

    // Every line is read and checked before anything is evaluated.
    const RuleSet rules = LoadRuleSet(*rulesPath);
    ReportWarnings(rules.warnings);
    if (!rules.problems.empty())
        return ReportProblems(rules);
    const Evaluation evaluation = Decide(rules, start, policy);
    ReportWarnings(evaluation.warnings);
    if (context.json)
        OutJson(CheckDocument(rules, start, evaluation, policy));
    else
        Out(CheckText(rules, start, evaluation));
    return evaluation.answer == Outcome::Match ? ExitOk : evaluation.answer == Outcome::NoMatch ? ExitNo : ExitFailed;
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
    L"line \"PATH\"; a \\\\?\\ or \\\\.\\ prefix is the path it names; a bare program name\n"
    L"is looked up on the search path); 5 the environment table of the process's\n"
    L"user; 6 the hashes of the program's first 8 MiB, one per algorithm a rule\n"
    L"needs; 7 its signature, once, when a signer rule needs it (the file opened as\n"
    L"the process's user). A failed step shows its error and the walk goes on. Then\n"
    L"each rule: its %VAR% references expanded (regex-safe for regex rules), what\n"
    L"was tested against what, match or not; and the rules that matched.\n"
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
    L"rules cannot be answered. A signer rule shows whether the signer is byte for\n"
    L"byte the rule's certificate (SHA-256 thumbprints) beside the agent's answer\n"
    L"(issuer and serial number), and warns when they differ.\n"
    L"\n"
    L"  --cmdline LINE     the command line of the starting process, instead of PATH\n"
    L"  --enforce-expiry, --ignore FLAGS, --network   the signature policy (see sig)\n"
    L"--json prints {command, rules, ruleCount, policy, program, steps[], results[],\n"
    L"matches[], warnings[], answer}.\n"
    L"Exit codes: 0 some rule matched, 1 none did, 2 bad command line or rules file,\n"
    L"3 no rule matched and some rule could not be answered (a hash or signer rule\n"
    L"on a file without identity, %VAR% without the user's table, a command line\n"
    L"that names no program).\n",
    &RunCheck);
} // namespace qxinspect
