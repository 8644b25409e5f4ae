// audit: a rule set against the programs of a machine, and what it finds:
// dead and redundant rules, blocked programs, and rules that allow a place
// where a standard user can put a program of his own.

#include "Audit.h"
#include "Report.h"

namespace qxinspect
{
namespace
{
int RunAudit(Context& context, const std::vector<std::wstring>& args)
{
    std::vector<std::wstring> values = RunValueOptions();
    values.push_back(L"--rules");
    ArgParser parser(values, RunFlagOptions());
    std::wstring error;
    RunOptions options;
    if (!parser.Parse(args, error) || !ParseRunOptions(parser, options, error))
        return Fail(ExitUsage, error + SeeHelp(L"audit"));
    if (parser.Values(L"--rules").size() != 1)
        return Fail(ExitUsage, L"audit needs one --rules FILE" + SeeHelp(L"audit"));
    if (parser.Positional().empty() && !options.from)
        return Fail(ExitUsage, L"audit needs PATHs or --from FILE" + SeeHelp(L"audit"));
    std::vector<RuleSet> sets;
    Inputs inputs;
    int exitCode = ExitOk;
    if (!OpenRun(parser.Values(L"--rules"), parser, options, sets, inputs, exitCode))
        return exitCode;

    const ProgramRun run(options, sets);
    ReportWarnings(run.Warnings());
    // Wine keeps no permissions on disk files: there is nothing to check.
    StandardUser user;
    StandardUserOf(options.pid, user);
    Audit audit(sets[0], run, user, !OnWine());
    RunInOrder<Audit::Answer>(
        inputs, options.threads, L"programs", [&](const Input& input) { return audit.Work(input, inputs.FromLines()); },
        [&](const Input& input, Audit::Answer& answer) {
            audit.Add(input, answer);
            return true;
        });
    audit.Report(context.json ? Format::Json : Format::Text, inputs.ReadError());
    return audit.ExitCode();
}
} // namespace

QXINSPECT_COMMAND(
    L"audit", L"audit --rules FILE [--pid N] [--recursive] [--threads N] (PATH... | --from FILE)",
    L"a rule set against the programs of a machine: dead, redundant and too wide rules",
    L"Answers every program as check does (PATH..., --recursive, --from, --pid,\n"
    L"--threads and the signature policy as there), then reports:\n"
    L"  - per rule: how many of the programs it allows, with a few of them;\n"
    L"  - dead rules: they allow none of the programs;\n"
    L"  - redundant rules: every program they allow, another rule allows too (the\n"
    L"    rules that cover them are named);\n"
    L"  - writable locations: for each path, wildcard, folder, subfolders, regex,\n"
    L"    glob and network rule, the folders of the programs it allows in which a\n"
    L"    standard user may create or replace a file: the platform's access check of\n"
    L"    the folder's and the file's descriptors for FILE_ADD_FILE or\n"
    L"    FILE_DELETE_CHILD on the folder (and FILE_ADD_SUBDIRECTORY for a\n"
    L"    subfolders rule), FILE_WRITE_DATA, DELETE, WRITE_DAC or WRITE_OWNER on the\n"
    L"    file. The standard user is this tool's user with the Administrators group\n"
    L"    deny-only (as handover --restricted), or with --pid N that process's user\n"
    L"    and token. On Wine, which keeps no permissions on disk files, the report\n"
    L"    says so once and checks nothing;\n"
    L"  - rules that allow nothing they could answer for, and could not answer for\n"
    L"    some programs (a hash rule on a file without identity...);\n"
    L"  - the programs no rule allows (what the set would block), and those that\n"
    L"    could not be answered, with the reason.\n"
    L"Progress goes to standard error when it is a terminal.\n"
    L"--json prints one document {command, rules, ruleCount, policy, pid, threads,\n"
    L"programs {total, allowed, blocked, couldNotAnswer}, standardUser, accessChecked,\n"
    L"accessNote, results[] (per rule: allows, examples, couldNotAnswer, dead,\n"
    L"redundant, coveredBy, writable[]), blocked[], unanswered[], facts, readError,\n"
    L"warnings[]}.\n"
    L"Exit codes: 0 no rule is dead, redundant or allows a writable location; 1 some\n"
    L"is; 2 bad command line, rules file or --from file; 3 some program could not be\n"
    L"answered, or a folder's or file's permissions could not be read (the report is\n"
    L"printed all the same).\n",
    &RunAudit);
} // namespace qxinspect
