#include "Programs.h"

#include "Report.h"

namespace qxinspect
{
bool ParseRunOptions(const ArgParser& parser, RunOptions& options, std::wstring& error)
{
    uint32_t pid = 0;
    if (auto text = parser.Value(L"--pid"); text && (!ParseNumber32(*text, pid) || pid == 0))
    {
        error = L"--pid needs a non-zero process id, not " + *text;
        return false;
    }
    options.pid = pid;
    options.recursive = parser.Has(L"--recursive");
    options.from = parser.Value(L"--from");
    if (options.from && !parser.Positional().empty())
    {
        error = L"PATHs and --from FILE do not go together: the programs come from one or the other";
        return false;
    }
    return ParseThreads(parser, options.threads, error) && ParsePolicy(parser, options.policy, error);
}

std::vector<std::wstring> RunValueOptions()
{
    return {L"--pid", L"--threads", L"--from", L"--ignore"};
}

std::vector<std::wstring> RunFlagOptions()
{
    return {L"--recursive", L"--enforce-expiry", L"--network"};
}

bool LoadRuleSets(const std::vector<std::wstring>& files, std::vector<RuleSet>& sets, int& exitCode)
{
    // Every line of every file is read and checked before anything is evaluated.
    RuleSet all;
    for (const std::wstring& file : files)
    {
        sets.push_back(LoadRuleSet(file));
        ReportWarnings(sets.back().warnings);
        all.problems.insert(all.problems.end(), sets.back().problems.begin(), sets.back().problems.end());
        if (!sets.back().problems.empty())
            all.file = all.file.empty() ? file : all.file + L" and " + file;
    }
    if (all.problems.empty())
        return true;
    exitCode = ReportProblems(all);
    return false;
}

bool OpenRun(const std::vector<std::wstring>& files, const ArgParser& parser, const RunOptions& options,
             std::vector<RuleSet>& sets, Inputs& inputs, int& exitCode)
{
    if (!LoadRuleSets(files, sets, exitCode))
        return false;
    std::wstring error;
    if (inputs.Open(parser.Positional(), options.from, options.recursive, error))
        return true;
    exitCode = FailInput(error, Json(), L"qxinspect: " + error + L"\n");
    return false;
}

ProgramRun::ProgramRun(const RunOptions& options, const std::vector<RuleSet>& sets, FactsNeeded extra)
    : m_options(options)
{
    m_process.pid = options.pid;
    PrepareProcess(m_process);
    FactsNeeded needed = extra;
    for (const RuleSet& set : sets)
    {
        m_bound.push_back(Bind(set, m_process, options.policy));
        needed |= m_bound.back().needed;
    }
    m_cache = std::make_unique<FactsCache>(needed, options.policy, m_process.FileToken());
}

ProgramAnswer ProgramRun::Answer(const Input& input, bool commandLine) const
{
    ProgramAnswer answer;
    if (!input.problem.empty())
    {
        answer.problem = input.problem;
        return answer;
    }
    ProgramStart start;
    start.path = input.text;
    if (commandLine)
        start.commandLine = input.text;
    StepSplit(start);
    answer.program = start.program;
    if (answer.program.empty())
    {
        answer.problem = start.programSource;
        return answer;
    }
    answer.facts = m_cache->Of(answer.program);
    for (const BoundRules& bound : m_bound)
        answer.verdicts.push_back(Evaluate(bound, answer.program, answer.facts.get(), false));
    return answer;
}

std::vector<Note> ProgramRun::Warnings() const
{
    std::vector<Note> warnings;
    for (const BoundRules& bound : m_bound)
    {
        const std::vector<Note> found = bound.Warnings();
        warnings.insert(warnings.end(), found.begin(), found.end());
    }
    return warnings;
}

std::wstring UnansweredReason(const ProgramAnswer& answer, const BoundRules& bound, size_t set)
{
    if (!answer.problem.empty())
        return answer.problem;
    const std::vector<size_t> rules = answer.verdicts[set].Rules(Outcome::Unanswered);
    if (rules.empty())
        return L"";
    return RuleName(*bound.rules[rules[0]].rule) + L": " + answer.verdicts[set].results[rules[0]].reason +
           (rules.size() > 1 ? L" (and " + Count(rules.size() - 1, L"rule more", L"rules more") + L")" : L"");
}
} // namespace qxinspect
