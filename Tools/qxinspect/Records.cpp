#include "Records.h"

#include "Report.h"

#include <algorithm>

namespace qxinspect
{
namespace
{
// "could not answer" and the others, padded for a column.
std::wstring AnswerColumn(Outcome outcome)
{
    std::wstring text = OutcomeName(outcome);
    return text + std::wstring(text.size() < 18 ? 18 - text.size() : 1, L' ');
}

// Where a record comes from, for people: "12: " for a --from line.
std::wstring From(const Input& input, bool fromLines)
{
    return fromLines ? std::to_wstring(input.line) + L": " : L"";
}

// The program, or what the input was when it names none.
std::wstring Subject(const Input& input, const ProgramAnswer& answer)
{
    return !answer.program.empty() ? answer.program : !input.text.empty() ? input.text : L"(the line is not taken)";
}

Json Where(const Input& input, bool fromLines)
{
    return Json::MakeObject()
        .Set(L"index", static_cast<unsigned long long>(input.index))
        .Set(L"line", fromLines ? Json(input.line) : Json())
        .Set(L"input", input.text);
}

std::wstring Names(const BoundRules& bound, const std::vector<size_t>& rules)
{
    std::wstring text;
    for (size_t k : rules)
        text += (text.empty() ? L"" : L", ") + RuleName(*bound.rules[k].rule);
    return text;
}

// How one rule set decided, set into object: its answer, the rules that
// matched, those that could not answer and why.
Json& SetSide(Json& object, const ProgramAnswer& answer, const BoundRules& bound, size_t set)
{
    Json matches = Json::MakeArray(), unanswered = Json::MakeArray();
    if (answer.problem.empty())
    {
        const Verdict& verdict = answer.verdicts[set];
        for (size_t k : verdict.Rules(Outcome::Match))
            matches.Push(RuleRef(*bound.rules[k].rule));
        for (size_t k : verdict.Rules(Outcome::Unanswered))
            unanswered.Push(RuleRef(*bound.rules[k].rule).Set(L"reason", verdict.results[k].reason));
    }
    const Outcome outcome = answer.Answer(set);
    return object.Set(L"answer", OutcomeName(outcome))
        .Set(L"matches", std::move(matches))
        .Set(L"unanswered", std::move(unanswered))
        .Set(L"reason", outcome == Outcome::Unanswered ? Json(UnansweredReason(answer, bound, set)) : Json());
}

Json SideOf(const ProgramAnswer& answer, const BoundRules& bound, size_t set)
{
    Json side = Json::MakeObject();
    return SetSide(side, answer, bound, set);
}

std::wstring SideText(const ProgramAnswer& answer, const BoundRules& bound, size_t set)
{
    switch (answer.Answer(set))
    {
    case Outcome::Match: return L"by " + Names(bound, answer.verdicts[set].Rules(Outcome::Match));
    case Outcome::NoMatch: return L"no rule matches";
    default: return UnansweredReason(answer, bound, set);
    }
}

Json FactsJson(const FactsCache& cache)
{
    return Json::MakeObject()
        .Set(L"computed", static_cast<unsigned long long>(cache.Computed()))
        .Set(L"reused", static_cast<unsigned long long>(cache.Reused()));
}

std::wstring FactsText(const FactsCache& cache)
{
    return L"; facts of " + Count(cache.Computed(), L"file", L"files") + L" computed, " +
           std::to_wstring(cache.Reused()) + L" reused";
}

// The summary line: on standard output for people, on standard error beside a CSV table.
void SummaryLine(Format format, const std::wstring& text, const std::wstring& readError)
{
    const std::wstring line = text + L"\n";
    (format == Format::Csv ? Err : Out)(line);
    if (!readError.empty())
        Err(L"qxinspect: the input could not be read to its end: " + readError + L"\n");
}

std::vector<Note> Joined(const std::vector<Note>& a, const std::vector<Note>& b)
{
    std::vector<Note> all = a;
    all.insert(all.end(), b.begin(), b.end());
    return all;
}
} // namespace

void Tally::Add(Outcome outcome)
{
    ++inputs;
    ++(outcome == Outcome::Match ? match : outcome == Outcome::NoMatch ? noMatch : unanswered);
}

void WarningsOnce::Report(const std::vector<Note>& warnings)
{
    for (const Note& note : warnings)
        if (m_seen.insert(NoteText(note, true)).second)
            Err(NoteText(note, true) + L"\n");
}

CheckRecords::CheckRecords(Format format, const RuleSet& rules, const ProgramRun& run, bool fromLines)
    : m_format(format), m_rules(rules), m_run(run), m_fromLines(fromLines)
{
    if (m_format == Format::Csv)
        Out(CsvRow({L"line", L"input", L"program", L"isNTExe", L"answer", L"rules", L"reason"}));
}

void CheckRecords::Record(const Input& input, const ProgramAnswer& answer)
{
    const BoundRules& bound = m_run.Bound(0);
    const Outcome outcome = answer.Answer(0);
    m_tally.Add(outcome);
    const std::vector<size_t> matches =
        answer.problem.empty() ? answer.verdicts[0].Rules(Outcome::Match) : std::vector<size_t>();
    const std::wstring reason = outcome == Outcome::Unanswered ? UnansweredReason(answer, bound, 0) : L"";
    const bool image = answer.facts && answer.facts->status.Ok() && answer.facts->imageError == ERROR_SUCCESS;
    if (answer.problem.empty())
        m_warnings.Report(answer.verdicts[0].warnings);
    switch (m_format)
    {
    case Format::Text:
        Out(From(input, m_fromLines) + AnswerColumn(outcome) + Subject(input, answer) +
            (outcome == Outcome::Match ? L"  (" + Names(bound, matches) + L")" : L"") +
            (reason.empty() ? L"" : L"  " + reason) + L"\n");
        break;
    case Format::Csv:
        Out(CsvRow({m_fromLines ? std::to_wstring(input.line) : L"", input.text, answer.program,
                    image ? BoolText(answer.facts->isNTExe != FALSE) : L"", OutcomeName(outcome),
                    Names(bound, matches), reason}));
        break;
    case Format::Json:
    {
        Json record = Where(input, m_fromLines);
        record.Prepend(L"record", L"program")
            .Set(L"program", answer.program)
            .Set(L"isNTExe", image ? Json(answer.facts->isNTExe != FALSE) : Json());
        SetSide(record, answer, bound, 0)
            .Set(L"warnings", NotesJson(answer.problem.empty() ? answer.verdicts[0].warnings : std::vector<Note>()));
        OutJsonLine(std::move(record));
        break;
    }
    }
}

void CheckRecords::Summary(const std::wstring& readError)
{
    if (m_format == Format::Json)
    {
        OutJsonLine(Json::MakeObject()
                        .Set(L"record", L"summary")
                        .Set(L"rules", m_rules.file)
                        .Set(L"ruleCount", static_cast<unsigned long>(m_rules.rules.size()))
                        .Set(L"policy", PolicyJson(m_run.Options().policy))
                        .Set(L"pid", static_cast<unsigned long>(m_run.Process().processId))
                        .Set(L"threads", m_run.Options().threads)
                        .Set(L"programs", static_cast<unsigned long long>(m_tally.inputs))
                        .Set(L"allowed", static_cast<unsigned long long>(m_tally.match))
                        .Set(L"notAllowed", static_cast<unsigned long long>(m_tally.noMatch))
                        .Set(L"couldNotAnswer", static_cast<unsigned long long>(m_tally.unanswered))
                        .Set(L"facts", FactsJson(m_run.Cache()))
                        .Set(L"readError", readError.empty() ? Json() : Json(readError))
                        .Set(L"warnings", NotesJson(Joined(m_rules.warnings, m_run.Warnings()))));
        if (!readError.empty())
            Err(L"qxinspect: the input could not be read to its end: " + readError + L"\n");
        return;
    }
    SummaryLine(m_format,
                L"programs: " + std::to_wstring(m_tally.inputs) + L", allowed: " + std::to_wstring(m_tally.match) +
                    L", not allowed: " + std::to_wstring(m_tally.noMatch) + L", could not answer: " +
                    std::to_wstring(m_tally.unanswered) + FactsText(m_run.Cache()),
                readError);
}

int CheckRecords::ExitCode() const
{
    return m_tally.unanswered > 0 ? ExitFailed : m_tally.noMatch > 0 ? ExitNo : ExitOk;
}

DiffRecords::DiffRecords(Format format, const std::vector<RuleSet>& sets, const ProgramRun& run, bool fromLines)
    : m_format(format), m_sets(sets), m_run(run), m_fromLines(fromLines)
{
    if (m_format == Format::Csv)
        Out(CsvRow({L"line", L"input", L"program", L"from", L"to", L"A " + sets[0].file, L"B " + sets[1].file}));
}

void DiffRecords::Record(const Input& input, const ProgramAnswer& answer)
{
    ++m_programs;
    const Outcome from = answer.Answer(0), to = answer.Answer(1);
    if (from == Outcome::Unanswered || to == Outcome::Unanswered)
        ++m_unanswered;
    for (size_t set = 0; answer.problem.empty() && set < 2; ++set)
        m_warnings.Report(answer.verdicts[set].warnings);
    if (from == to)
        return;
    ++m_changed;
    auto change = std::find_if(m_changes.begin(), m_changes.end(),
                               [&](const auto& entry) { return entry.first == std::pair{from, to}; });
    if (change == m_changes.end())
        m_changes.push_back({{from, to}, 1});
    else
        ++change->second;
    const std::wstring sides[] = {SideText(answer, m_run.Bound(0), 0), SideText(answer, m_run.Bound(1), 1)};
    switch (m_format)
    {
    case Format::Text:
        Out(From(input, m_fromLines) + OutcomeName(from) + L" -> " + OutcomeName(to) + L"  " + Subject(input, answer) +
            L"\n    A " + m_sets[0].file + L": " + sides[0] + L"\n    B " + m_sets[1].file + L": " + sides[1] + L"\n");
        break;
    case Format::Csv:
        Out(CsvRow({m_fromLines ? std::to_wstring(input.line) : L"", input.text, answer.program, OutcomeName(from),
                    OutcomeName(to), sides[0], sides[1]}));
        break;
    case Format::Json:
        OutJsonLine(Where(input, m_fromLines)
                        .Prepend(L"record", L"change")
                        .Set(L"program", answer.program)
                        .Set(L"from", OutcomeName(from))
                        .Set(L"to", OutcomeName(to))
                        .Set(L"a", SideOf(answer, m_run.Bound(0), 0))
                        .Set(L"b", SideOf(answer, m_run.Bound(1), 1)));
        break;
    }
}

void DiffRecords::Summary(const std::wstring& readError)
{
    std::wstring text;
    Json changes = Json::MakeArray();
    for (const auto& [way, programs] : m_changes)
    {
        text += (text.empty() ? L" (" : L", ") + std::wstring(OutcomeName(way.first)) + L" -> " +
                OutcomeName(way.second) + L": " + std::to_wstring(programs);
        changes.Push(Json::MakeObject()
                         .Set(L"from", OutcomeName(way.first))
                         .Set(L"to", OutcomeName(way.second))
                         .Set(L"programs", static_cast<unsigned long long>(programs)));
    }
    if (m_format == Format::Json)
    {
        OutJsonLine(Json::MakeObject()
                        .Set(L"record", L"summary")
                        .Set(L"rules", Json::MakeArray().Push(m_sets[0].file).Push(m_sets[1].file))
                        .Set(L"programs", static_cast<unsigned long long>(m_programs))
                        .Set(L"changed", static_cast<unsigned long long>(m_changed))
                        .Set(L"unchanged", static_cast<unsigned long long>(m_programs - m_changed))
                        .Set(L"changes", std::move(changes))
                        .Set(L"couldNotAnswer", static_cast<unsigned long long>(m_unanswered))
                        .Set(L"facts", FactsJson(m_run.Cache()))
                        .Set(L"readError", readError.empty() ? Json() : Json(readError))
                        .Set(L"warnings", NotesJson(Joined(Joined(m_sets[0].warnings, m_sets[1].warnings),
                                                           m_run.Warnings()))));
        if (!readError.empty())
            Err(L"qxinspect: the input could not be read to its end: " + readError + L"\n");
        return;
    }
    SummaryLine(m_format,
                L"programs: " + std::to_wstring(m_programs) + L", changed: " + std::to_wstring(m_changed) +
                    (text.empty() ? L"" : text + L")") + L", unchanged: " + std::to_wstring(m_programs - m_changed) +
                    L", could not answer under A or B: " + std::to_wstring(m_unanswered),
                readError);
}

int DiffRecords::ExitCode() const
{
    return m_changed > 0 ? ExitNo : m_unanswered > 0 ? ExitFailed : ExitOk;
}

const FileStatus& FileFailure(const Facts& facts)
{
    return !facts.status.Ok() ? facts.status : facts.hashes.status;
}

Json FileJson(const std::wstring& path, const Facts& info, std::wstring& text)
{
    Json entry = Json::MakeObject();
    entry.Set(L"path", path);
    text += path + L"\n";
    const FileStatus& failed = FileFailure(info);
    if (!failed.Ok())
    {
        text += L"  could not answer: " + failed.reason + L"\n";
        return SetWin32(entry, failed.error).Set(L"reason", failed.reason);
    }
    entry.Set(L"isNTExe", info.imageError == 0 ? Json(info.isNTExe != FALSE) : Json());
    if (info.imageError != 0)
        entry.Set(L"imageError", Win32Json(info.imageError));
    text += L"  NT image:       " +
            (info.imageError == 0 ? BoolText(info.isNTExe != FALSE) : L"check failed: " + Win32Text(info.imageError)) +
            L"\n";
    entry.Set(L"sha1", info.hashes.sha1).Set(L"sha256", info.hashes.sha256).Set(L"adler32", info.hashes.adler32);
    text += L"  sha1:           " + info.hashes.sha1 + L"\n  sha256:         " + info.hashes.sha256 +
            L"\n  adler32:        " + info.hashes.adler32 + L"\n";

    const SignatureFacts& sig = info.signature;
    Json signature = Json::MakeObject();
    SetHresult(signature, L"result", sig.result).Set(L"verified", sig.result == S_OK);
    text += L"  signature:      " + ResultText(sig.result) + (sig.result == S_OK ? L" (verified)" : L"") + L"\n";
    if (sig.readError == 0)
    {
        signature.Set(L"signer", Json::MakeObject()
                                     .Set(L"name", sig.name)
                                     .Set(L"friendlyName", sig.friendlyName)
                                     .Set(L"expires", sig.expires)
                                     .Set(L"thumbprint", sig.thumbprint));
        text += L"  signer:         " + sig.name + L" (friendly name " + sig.friendlyName + L"), expires " +
                sig.expires + L"\n                  sha256 " + sig.thumbprint + L"\n";
    }
    else
    {
        signature.Set(L"signer", nullptr);
        text += L"  signer:         none\n";
    }
    entry.Set(L"signature", std::move(signature));
    entry.Set(L"certificateTableEntries", sig.haveEntries ? Json(static_cast<unsigned long>(sig.entries)) : Json());
    text += L"  table entries:  " + (sig.haveEntries ? std::to_wstring(sig.entries) : std::wstring(L"(not a PE image)")) +
            L"\n";

    if (info.owner.error == 0)
    {
        entry.Set(L"owner", Account(info.owner.owner));
        text += L"  owner:          " + info.owner.owner.Qualified() + L" " + info.owner.owner.sid + L"\n";
    }
    else
    {
        entry.Set(L"owner", nullptr).Set(L"ownerError", Win32Json(info.owner.error));
        text += L"  owner:          cannot be read: " + Win32Text(info.owner.error) + L"\n";
    }
    return entry;
}

FileRecords::FileRecords(Format format, unsigned threads, const SignaturePolicy& policy)
    : m_format(format), m_threads(threads), m_policy(policy)
{
    if (m_format == Format::Csv)
        Out(CsvRow({L"path", L"isNTExe", L"sha1", L"sha256", L"adler32", L"signature", L"verified", L"signer",
                    L"expires", L"thumbprint", L"tableEntries", L"owner", L"ownerSid", L"reason"}));
}

void FileRecords::Record(const Input& input, const Facts& facts)
{
    ++m_files;
    const FileStatus& failed = FileFailure(facts);
    if (!failed.Ok())
    {
        ++m_failed;
        Err(L"qxinspect: " + input.text + L": " + failed.reason + L"\n");
    }
    std::wstring text;
    switch (m_format)
    {
    case Format::Text:
        FileJson(input.text, facts, text);
        Out(text);
        break;
    case Format::Json:
        OutJsonLine(Json::MakeObject().Set(L"record", L"file").Set(L"file", FileJson(input.text, facts, text)));
        break;
    case Format::Csv:
    {
        const SignatureFacts& sig = facts.signature;
        const bool ok = failed.Ok();
        Out(CsvRow({input.text, ok && facts.imageError == 0 ? BoolText(facts.isNTExe != FALSE) : L"",
                    facts.hashes.sha1, facts.hashes.sha256, facts.hashes.adler32,
                    ok ? ResultText(sig.result) : L"",
                    ok ? BoolText(sig.result == S_OK) : L"", sig.name, sig.expires, sig.thumbprint,
                    sig.haveEntries ? std::to_wstring(sig.entries) : L"", facts.owner.owner.Qualified(),
                    facts.owner.owner.sid, failed.reason}));
        break;
    }
    }
}

void FileRecords::Summary(const std::wstring& readError)
{
    if (m_format == Format::Json)
    {
        OutJsonLine(Json::MakeObject()
                        .Set(L"record", L"summary")
                        .Set(L"threads", m_threads)
                        .Set(L"policy", PolicyJson(m_policy))
                        .Set(L"files", static_cast<unsigned long long>(m_files))
                        .Set(L"answered", static_cast<unsigned long long>(m_files - m_failed))
                        .Set(L"couldNotAnswer", static_cast<unsigned long long>(m_failed))
                        .Set(L"readError", readError.empty() ? Json() : Json(readError)));
        if (!readError.empty())
            Err(L"qxinspect: the input could not be read to its end: " + readError + L"\n");
        return;
    }
    SummaryLine(m_format,
                L"files: " + std::to_wstring(m_files) + L", answered: " + std::to_wstring(m_files - m_failed) +
                    L", could not answer: " + std::to_wstring(m_failed),
                readError);
}

int FileRecords::ExitCode() const
{
    return m_failed > 0 ? ExitFailed : ExitOk;
}
} // namespace qxinspect
