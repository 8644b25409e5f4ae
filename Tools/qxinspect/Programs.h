#pragma once
// What check, audit and diff share when they judge many program starts: the
// options that choose them, the process that starts them (asked once for the
// run), the rule sets bound to it, the facts of the program files (computed
// once per file and kept for the run), and the answer of each rule set for
// each start, worked out on the worker threads.

#include "Evaluation.h"
#include "Stream.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qxinspect
{
struct RunOptions
{
    DWORD pid = 0;
    uint32_t threads = 4;
    bool recursive = false;
    std::optional<std::wstring> from;
    SignaturePolicy policy;
};
// --pid N, --threads N, --recursive, --from FILE and the signature policy;
// false with why.
bool ParseRunOptions(const ArgParser& parser, RunOptions& options, std::wstring& error);
// The options every command of many program starts takes.
std::vector<std::wstring> RunValueOptions();
std::vector<std::wstring> RunFlagOptions();

// Loads every rules file; every malformed line of all of them is reported
// (exit 2) and warnings go to standard error. False when one is malformed.
bool LoadRuleSets(const std::vector<std::wstring>& files, std::vector<RuleSet>& sets, int& exitCode);
// The rules files, then the inputs of the command line (PATHs, --from),
// each refused as its command refuses it; false with the exit code.
bool OpenRun(const std::vector<std::wstring>& files, const ArgParser& parser, const RunOptions& options,
             std::vector<RuleSet>& sets, Inputs& inputs, int& exitCode);

// The answer of each rule set for one program start.
struct ProgramAnswer
{
    std::wstring program; // its full path; empty when the input names none
    std::wstring problem; // not empty: the input could not be taken, and why
    std::shared_ptr<const Facts> facts;
    std::vector<Verdict> verdicts; // one per rule set (none when problem is set)
    Outcome Answer(size_t set) const { return problem.empty() ? verdicts[set].answer : Outcome::Unanswered; }
};

class ProgramRun
{
public:
    // Asks the process's steps, binds each rule set to it and makes the
    // run's cache of file facts (those the sets need, and extra).
    ProgramRun(const RunOptions& options, const std::vector<RuleSet>& sets, FactsNeeded extra = {});
    // One start: a PATH (the program itself) or a --from line (a command line).
    ProgramAnswer Answer(const Input& input, bool commandLine) const;

    const RunOptions& Options() const { return m_options; }
    const ProcessFacts& Process() const { return m_process; }
    const BoundRules& Bound(size_t set) const { return m_bound[set]; }
    const FactsCache& Cache() const { return *m_cache; }
    // The binding's warnings of every set (on standard error once, and in the summary).
    std::vector<Note> Warnings() const;

private:
    RunOptions m_options;
    ProcessFacts m_process;
    std::vector<BoundRules> m_bound;
    std::unique_ptr<FactsCache> m_cache;
};

// Why a program got "could not answer": the input's problem, or the first
// rule not answered and its reason (with how many more).
std::wstring UnansweredReason(const ProgramAnswer& answer, const BoundRules& bound, size_t set);

// Answers every input on the run's worker threads and hands each answer to
// records in input order, until standard output can no longer be written.
template <class Records>
void RecordAll(Inputs& inputs, unsigned threads, const ProgramRun& run, Records& records)
{
    RunInOrder<ProgramAnswer>(
        inputs, threads, L"programs", [&](const Input& input) { return run.Answer(input, inputs.FromLines()); },
        [&](const Input& input, ProgramAnswer& answer) {
            records.Record(input, answer);
            DWORD failed = 0;
            return !OutputFailed(failed);
        });
}
} // namespace qxinspect
