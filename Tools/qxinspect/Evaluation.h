#pragma once
// A rule set evaluated on the facts of program starts: every rule's one
// test (the meaning each kind names, the same in check, audit, diff and
// match), hash and signer rules answered from the program's file facts, and
// the answer.
//
// A rule set is bound once to the process whose programs it judges: its
// %VAR% references expanded against the user's table, its expressions and
// globs compiled. Evaluating the bound set on one program's facts then only
// compares, on any thread.

#include "FileFacts.h"
#include "ProgramStart.h"
#include "RuleSet.h"

#include "QXCommon/GlobWildcardString.h"
#include "QXCommon/QXRegEx.h"

#include <memory>
#include <string>
#include <vector>

namespace qxinspect
{
enum class Outcome
{
    Match,
    NoMatch,
    Unanswered, // the rule needs something that could not be had, or the matcher could not tell
};
const wchar_t* OutcomeName(Outcome outcome);

// A pattern after expansion, compiled once: the test a pattern rule of its
// kind makes on a program's full path. flag: / is a separator for the
// wildcard walk as well.
class PatternTest
{
public:
    // False, with why, when the kind refuses the pattern (an expression or a
    // glob that does not compile, a kind that is not a pattern kind).
    bool Compile(RuleKind kind, const std::wstring& pattern, int flag, std::wstring& error);
    // Match or NoMatch; Unanswered, with why, when the matcher ran out of its
    // step budget (the agent's matcher then answers no match: the tool cannot
    // tell). subject receives what was tested: the program's path, or its
    // folder for folder rules.
    Outcome Test(const std::wstring& program, std::wstring& subject, std::wstring& reason) const;

private:
    RuleKind m_kind = RuleKind::Name;
    std::wstring m_pattern;
    int m_flag = 0;
    QXCommon::RegExHelpers::CQXRegEx m_regex;
    QXCommon::RegExHelpers::GlobWildcardString m_glob;
};

// The test a pattern rule of this kind makes on a program's full path: 1
// match, 0 none, -1 the pattern is refused, -2 the matcher could not tell
// (why in error for both). subject receives what was tested.
int MatchRule(RuleKind kind, const std::wstring& program, const std::wstring& pattern, int flag, std::wstring& subject,
              std::wstring& error);
// The kind MatchAgainstPattern chooses for a pattern (name, path or
// wildcard), and why.
RuleKind AutomaticKind(const std::wstring& pattern, std::wstring& why);
// The pattern's %VAR% references expanded against the table, the values
// escaped for regex rules. Unknown references are kept as written and
// listed.
std::wstring ExpandPattern(RuleKind kind, const std::wstring& text, QXCommon::CEnvironmentEx& table,
                           std::vector<std::wstring>& unknown);

// One rule bound to a process.
struct BoundRule
{
    const Rule* rule = nullptr;
    std::wstring expanded;     // pattern rules: the pattern after %VAR% expansion
    PatternTest test;          // pattern rules
    std::wstring unanswerable; // not empty: why no program can be tested against it
    std::vector<Note> warnings;
};

// A rule set bound to the process whose program starts it judges.
struct BoundRules
{
    const RuleSet* set = nullptr;
    SignaturePolicy policy;
    std::vector<BoundRule> rules; // in the set's order
    std::vector<Note> platformWarnings;
    FactsNeeded needed; // of each program's file
    // Every warning binding found: the rules' in their order, then the platform's.
    std::vector<Note> Warnings() const;
};
BoundRules Bind(const RuleSet& set, const ProcessFacts& process, const SignaturePolicy& policy);

struct RuleResult
{
    Outcome outcome = Outcome::Unanswered;
    std::wstring subject; // what was tested: the program's path, or its folder
    std::wstring reason;
    // Signer rules with a signer: its thumbprint, and whether it is byte for
    // byte the rule's certificate (the agent compares issuer and serial only).
    std::wstring signerThumbprint;
    bool sameCertificate = false;
};

// The rule set's answer for one program.
struct Verdict
{
    std::vector<RuleResult> results; // in the rules' order
    std::vector<Note> warnings;      // found on this program (a signer only as the rule's by issuer and serial)
    Outcome answer = Outcome::NoMatch;
    // The indexes of the rules with that outcome.
    std::vector<size_t> Rules(Outcome outcome) const;
};
// facts: the program's file (null: the start names no program). Without
// detail only the outcomes and the reasons of rules not answered are kept.
Verdict Evaluate(const BoundRules& rules, const std::wstring& program, const Facts* facts, bool detail = true);

// The whole decision for one program start: every step, then every rule.
struct Decision
{
    BoundRules bound;
    std::shared_ptr<const Facts> facts; // null when the start names no program
    Verdict verdict;
    // The warnings of the rule set's evaluation in the order check prints
    // them: each rule's, then the platform's.
    std::vector<Note> Warnings() const;
};
// The program's facts come from the run's cache when one is given, else are
// computed afresh.
Decision Decide(const RuleSet& rules, ProcessFacts& process, ProgramStart& start, const SignaturePolicy& policy,
                FactsCache* cache = nullptr);
} // namespace qxinspect
