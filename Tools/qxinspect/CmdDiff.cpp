// diff: two rule sets on the same program starts, and every start whose
// answer changes from one to the other, with the rules that decided it.

#include "Records.h"
#include "Report.h"

namespace qxinspect
{
namespace
{
int RunDiff(Context& context, const std::vector<std::wstring>& args)
{
    std::vector<std::wstring> values = RunValueOptions(), flags = RunFlagOptions();
    values.push_back(L"--rules");
    flags.push_back(L"--csv");
    ArgParser parser(values, flags);
    std::wstring error;
    RunOptions options;
    if (!parser.Parse(args, error) || !ParseRunOptions(parser, options, error))
        return Fail(ExitUsage, error + SeeHelp(L"diff"));
    if (parser.Values(L"--rules").size() != 2)
        return Fail(ExitUsage, L"diff needs two rule sets: --rules A --rules B" + SeeHelp(L"diff"));
    if (parser.Positional().empty() && !options.from)
        return Fail(ExitUsage, L"diff needs PATHs or --from FILE" + SeeHelp(L"diff"));
    const bool csv = parser.Has(L"--csv");
    if (csv && context.json)
        return Fail(ExitUsage, L"--csv and --json do not go together" + SeeHelp(L"diff"));
    std::vector<RuleSet> sets;
    Inputs inputs;
    int exitCode = ExitOk;
    if (!OpenRun(parser.Values(L"--rules"), parser, options, sets, inputs, exitCode))
        return exitCode;

    // Both sets judge each start on the same facts, read once.
    const ProgramRun run(options, sets);
    ReportWarnings(run.Warnings());
    DiffRecords records(csv ? Format::Csv : context.json ? Format::Json : Format::Text, sets, run, inputs.FromLines());
    RecordAll(inputs, options.threads, run, records);
    records.Summary(inputs.ReadError());
    return records.ExitCode();
}
} // namespace

QXINSPECT_COMMAND(
    L"diff", L"diff --rules A --rules B [--pid N] [--recursive] [--threads N] [--csv] (PATH... | --from FILE)",
    L"two rule sets on the same program starts: every answer that changes",
    L"Answers every program start as check does, under rule set A and under rule\n"
    L"set B (PATH..., --recursive, --from, --pid, --threads and the signature\n"
    L"policy as there; each file is read once for both), and prints, in input\n"
    L"order as soon as it is decided, every start whose answer differs: the two\n"
    L"answers (match, no match, could not answer), the program, and on each side\n"
    L"the rules that decided it (those that matched, or why it could not be\n"
    L"answered). Then one summary line: programs, how many changed each way, how\n"
    L"many are unchanged, how many could not be answered under A or B.\n"
    L"  --csv   one CSV row per change (line, input, program, from, to, A's rules,\n"
    L"          B's rules) under a header; the summary goes to standard error\n"
    L"--json prints JSON Lines: {command, record: \"change\", index, line, input,\n"
    L"program, from, to, a, b} per change, then {command, record: \"summary\",\n"
    L"rules, programs, changed, unchanged, changes[], couldNotAnswer, ...}.\n"
    L"Exit codes: 0 no answer changes (and every start was answered), 1 some answer\n"
    L"changes, 2 bad command line, rules file or --from file, 3 nothing changed\n"
    L"but some start could not be answered under A or B (a change may hide there).\n",
    &RunDiff);
} // namespace qxinspect
