#pragma once
// What check prints for one program start: every step of the program start with its answer, every
// rule with its outcome and why, the rules that matched and the answer; as
// text for people or as one JSON document. Also the notes of a rule set:
// malformed lines (every one, then exit 2) and warnings (standard error, and
// the document's "warnings").

#include "Evaluation.h"

#include <string>
#include <vector>

namespace qxinspect
{
// Every malformed line of the rule set on stderr ("FILE:LINE: reason") and,
// with --json, as the error document; returns exit code 2.
int ReportProblems(const RuleSet& rules);
// Warnings on stderr, one line each ("FILE:LINE: warning: reason").
void ReportWarnings(const std::vector<Note>& warnings);
Json NotesJson(const std::vector<Note>& notes);

Json CheckDocument(const RuleSet& rules, const ProcessFacts& process, const ProgramStart& start,
                   const Decision& decision, const SignaturePolicy& policy);
std::wstring CheckText(const RuleSet& rules, const ProcessFacts& process, const ProgramStart& start,
                       const Decision& decision);
} // namespace qxinspect
