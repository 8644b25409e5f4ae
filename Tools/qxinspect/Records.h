#pragma once
// What check, diff and fileinfo print when they answer many inputs: one
// record per input, printed as soon as it is decided (in input order), then
// one summary; as text for people, as JSON Lines (one document a line, every
// one naming its command and its record: "program", "change", "file" or
// "summary"), or as CSV rows with a header (the summary then goes to
// standard error, so that standard output is the table alone).

#include "Programs.h"

#include <set>
#include <string>
#include <vector>

namespace qxinspect
{
enum class Format
{
    Text,
    Json,
    Csv,
};

// Counts of the answers so far.
struct Tally
{
    size_t inputs = 0, match = 0, noMatch = 0, unanswered = 0;
    void Add(Outcome outcome);
};

// Warnings found on single programs, each distinct one on standard error once.
class WarningsOnce
{
public:
    void Report(const std::vector<Note>& warnings);

private:
    std::set<std::wstring> m_seen;
};

// check over many program starts.
class CheckRecords
{
public:
    CheckRecords(Format format, const RuleSet& rules, const ProgramRun& run, bool fromLines);
    void Record(const Input& input, const ProgramAnswer& answer);
    void Summary(const std::wstring& readError);
    // 0 every program allowed, 1 some not (and every one answered), 3 some could not be answered.
    int ExitCode() const;

private:
    Format m_format;
    const RuleSet& m_rules;
    const ProgramRun& m_run;
    bool m_fromLines;
    Tally m_tally;
    WarningsOnce m_warnings;
};

// diff: the program starts whose answer differs between two rule sets.
class DiffRecords
{
public:
    DiffRecords(Format format, const std::vector<RuleSet>& sets, const ProgramRun& run, bool fromLines);
    void Record(const Input& input, const ProgramAnswer& answer);
    void Summary(const std::wstring& readError);
    // 1 some answer changed, else 3 some program could not be answered under
    // either set, else 0.
    int ExitCode() const;

private:
    Format m_format;
    const std::vector<RuleSet>& m_sets;
    const ProgramRun& m_run;
    bool m_fromLines;
    size_t m_programs = 0, m_changed = 0, m_unanswered = 0;
    std::vector<std::pair<std::pair<Outcome, Outcome>, size_t>> m_changes; // (from, to) and how many
    WarningsOnce m_warnings;
};

// fileinfo's answer for one file (text and JSON), shared by its one-document
// and its streamed forms.
Json FileJson(const std::wstring& path, const Facts& facts, std::wstring& text);
// The failure of a file that was not answered (its status, or its hashes').
const FileStatus& FileFailure(const Facts& facts);

class FileRecords
{
public:
    FileRecords(Format format, unsigned threads, const SignaturePolicy& policy);
    void Record(const Input& input, const Facts& facts);
    void Summary(const std::wstring& readError);
    // 0 every file answered, 3 some was not.
    int ExitCode() const;

private:
    Format m_format;
    unsigned m_threads;
    SignaturePolicy m_policy;
    size_t m_files = 0, m_failed = 0;
};
} // namespace qxinspect
