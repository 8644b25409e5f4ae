#pragma once
// A rule set evaluated on the facts of a program start: every rule's one
// test (the meaning each kind names, the same in check and match), its
// %VAR% references expanded against the user's table, hash and signer rules
// answered from the program's file facts, and the answer.

#include "FileFacts.h"
#include "ProgramStart.h"
#include "RuleSet.h"

#include <string>
#include <vector>

namespace qxinspect
{
enum class Outcome
{
    Match,
    NoMatch,
    Unanswered, // the rule needs something that could not be had
};
const wchar_t* OutcomeName(Outcome outcome);

struct RuleResult
{
    Outcome outcome = Outcome::Unanswered;
    std::wstring expanded; // pattern rules: the pattern after %VAR% expansion
    std::wstring subject;  // what was tested: the program's path, or its folder
    std::wstring reason;
    // Signer rules with a signer: its thumbprint, and whether it is byte for
    // byte the rule's certificate (the agent compares issuer and serial only).
    std::wstring signerThumbprint;
    bool sameCertificate = false;
};

// The test a pattern rule of this kind makes on a program's full path: 1
// match, 0 none, -1 the pattern is refused (why in error). subject receives
// what was tested (the program's folder for folder rules). flag: / is a
// separator for the wildcard walk as well.
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

struct Evaluation
{
    bool hashesNeeded = false, signatureNeeded = false;
    FileHashes hashes;        // when needed
    SignatureFacts signature; // when needed
    std::vector<RuleResult> results; // in the rules' order
    std::vector<Note> warnings;      // found while evaluating
    Outcome answer = Outcome::NoMatch;
};
// program: the facts of the program's file (null: the start names no program).
Evaluation Evaluate(const RuleSet& rules, const ProgramStart& start, FileFacts* program, const SignaturePolicy& policy);
// The whole decision for one program start: every step, then every rule.
// The program's facts come from the run's cache when one is given (rule
// sets evaluated on the same start share them), else are computed afresh.
Evaluation Decide(const RuleSet& rules, ProgramStart& start, const SignaturePolicy& policy,
                  FactsCache* cache = nullptr);
} // namespace qxinspect
