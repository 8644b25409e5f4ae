#pragma once
// A rule set against the programs of a machine: how many programs each rule
// allows, with a few of them; the rules that allow none (dead), those all of
// whose programs other rules allow too (redundant, with the rules that cover
// them), the programs no rule allows (what the set would block); and the
// pattern rules that allow a program in a folder where a standard user may
// create or replace a file (see Access.h for the rights that count).
//
// The programs are answered on worker threads and added up in input order,
// so that a run over a whole drive holds counts, a few examples per rule and
// the lists of blocked and unanswered programs, not every answer.

#include "Access.h"
#include "Programs.h"
#include "Records.h"

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace qxinspect
{
// The rule kinds whose match rests on where a program is, not on what it is.
bool IsLocationKind(RuleKind kind);

class Audit
{
public:
    static constexpr size_t Examples = 3;

    // user: whose rights the writable check asks; checked false: the
    // platform keeps no permissions on disk files and the check is not made.
    Audit(const RuleSet& rules, const ProgramRun& run, const StandardUser& user, bool checked);

    struct Answer
    {
        ProgramAnswer program;
        // For each location rule that allows the program: its index, the
        // rights that count, or why they could not be read.
        struct Writable
        {
            size_t rule;
            std::wstring folder;
            std::vector<WriteRight> rights;
            DWORD error = ERROR_SUCCESS;
        };
        std::vector<Writable> writable;
    };
    // On a worker thread.
    Answer Work(const Input& input, bool commandLine);
    // On the calling thread, in input order.
    void Add(const Input& input, Answer& answer);
    void Report(Format format, const std::wstring& readError);
    // 3 some program could not be answered (or a folder's rights not read),
    // else 1 some rule is dead, redundant or allows a writable location, else 0.
    int ExitCode() const;

private:
    struct Location
    {
        std::wstring folder, example;
        std::vector<WriteRight> rights; // each once
        size_t programs = 0;
        DWORD error = ERROR_SUCCESS;
    };
    struct PerRule
    {
        size_t allows = 0, unanswered = 0, alone = 0; // alone: programs no other rule allows
        std::vector<std::wstring> examples;
        std::wstring firstUnanswered; // the first program it could not answer for, and why
        std::set<size_t> coveredBy;
        std::vector<Location> writable; // one per folder
    };
    DWORD FolderAccess(const std::wstring& folder, DWORD& granted);
    std::wstring AccessNote() const;

    const RuleSet& m_rules;
    const ProgramRun& m_run;
    const StandardUser& m_user;
    bool m_checked;
    std::mutex m_mutex;
    std::map<std::wstring, std::pair<DWORD, DWORD>> m_folders; // folder (lower case): error, granted
    std::vector<PerRule> m_perRule;
    Tally m_tally;
    std::vector<std::wstring> m_blocked;
    std::vector<std::pair<std::wstring, std::wstring>> m_unanswered; // program (or input), reason
    bool m_accessFailed = false;
    WarningsOnce m_warnings;
};
} // namespace qxinspect
