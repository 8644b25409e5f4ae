#include "Audit.h"

#include "Report.h"

#include "QXCommon/FilePathPatternMatcher.h"

#include <algorithm>
#include <cwctype>

namespace qxinspect
{
namespace
{
std::wstring Lower(std::wstring text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](wchar_t c) { return static_cast<wchar_t>(towlower(c)); });
    return text;
}

std::wstring Joined(const std::vector<std::wstring>& items, const wchar_t* separator = L", ")
{
    std::wstring text;
    for (const std::wstring& item : items)
        text += (text.empty() ? L"" : separator) + item;
    return text;
}

// The text and at least two blanks, to the column's width.
// "create a file in the folder (FILE_ADD_FILE), or write the program (FILE_WRITE_DATA)".
std::wstring RightsText(const std::vector<WriteRight>& rights)
{
    std::vector<std::wstring> texts;
    for (const WriteRight& right : rights)
        texts.push_back(std::wstring(right.what) + L" (" + right.name + L")");
    return Joined(texts, L", or ");
}

std::wstring Padded(const std::wstring& text, size_t width)
{
    return text + std::wstring(text.size() + 2 < width ? width - text.size() : 2, L' ');
}
} // namespace

bool IsLocationKind(RuleKind kind)
{
    switch (kind)
    {
    case RuleKind::Path:
    case RuleKind::Wildcard:
    case RuleKind::Folder:
    case RuleKind::Subfolders:
    case RuleKind::Regex:
    case RuleKind::Glob:
    case RuleKind::Network: return true;
    default: return false;
    }
}

Audit::Audit(const RuleSet& rules, const ProgramRun& run, const StandardUser& user, bool checked)
    : m_rules(rules), m_run(run), m_user(user), m_checked(checked), m_perRule(rules.rules.size())
{
    m_accessFailed = m_checked && m_user.error != ERROR_SUCCESS;
}

DWORD Audit::FolderAccess(const std::wstring& folder, DWORD& granted)
{
    const std::wstring key = Lower(folder);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (auto known = m_folders.find(key); known != m_folders.end())
        {
            granted = known->second.second;
            return known->second.first;
        }
    }
    LocalPtr<void> descriptor;
    DWORD error = ReadSecurity(folder, true, descriptor);
    granted = 0;
    if (error == ERROR_SUCCESS)
        error = GrantedAccess(m_user.token.GetHandle(), descriptor.get(), MAXIMUM_ALLOWED, granted);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_folders[key] = {error, granted};
    return error;
}

Audit::Answer Audit::Work(const Input& input, bool commandLine)
{
    Answer answer;
    answer.program = m_run.Answer(input, commandLine);
    const ProgramAnswer& program = answer.program;
    if (!m_checked || m_user.error != ERROR_SUCCESS || !program.problem.empty() || !program.facts ||
        !program.facts->status.Ok())
        return answer;
    const BoundRules& bound = m_run.Bound(0);
    bool fileRead = false;
    DWORD fileError = ERROR_SUCCESS, fileGranted = 0;
    for (size_t k : program.verdicts[0].Rules(Outcome::Match))
    {
        const RuleKind kind = bound.rules[k].rule->kind;
        if (!IsLocationKind(kind))
            continue;
        Answer::Writable writable{k};
        QXCommon::CFilePathPatternMatcher::StripFile(program.program, writable.folder);
        DWORD folderGranted = 0;
        writable.error = FolderAccess(writable.folder, folderGranted);
        if (!fileRead)
        {
            fileRead = true;
            LocalPtr<void> descriptor;
            fileError = ReadSecurity(program.program, false, descriptor);
            if (fileError == ERROR_SUCCESS)
                fileError = GrantedAccess(m_user.token.GetHandle(), descriptor.get(), MAXIMUM_ALLOWED, fileGranted);
        }
        if (writable.error == ERROR_SUCCESS)
            writable.error = fileError;
        if (writable.error == ERROR_SUCCESS)
            writable.rights = WriteRights(folderGranted, fileGranted, kind == RuleKind::Subfolders);
        if (writable.error != ERROR_SUCCESS || !writable.rights.empty())
            answer.writable.push_back(std::move(writable));
    }
    return answer;
}

void Audit::Add(const Input& input, Answer& answer)
{
    const ProgramAnswer& program = answer.program;
    const Outcome outcome = program.Answer(0);
    m_tally.Add(outcome);
    const std::wstring subject = !program.program.empty() ? program.program : input.text;
    if (outcome == Outcome::NoMatch)
        m_blocked.push_back(subject);
    else if (outcome == Outcome::Unanswered)
        m_unanswered.push_back({subject, UnansweredReason(program, m_run.Bound(0), 0)});
    if (!program.problem.empty())
        return;
    const Verdict& verdict = program.verdicts[0];
    m_warnings.Report(verdict.warnings);
    const std::vector<size_t> matches = verdict.Rules(Outcome::Match);
    for (size_t k : matches)
    {
        PerRule& rule = m_perRule[k];
        ++rule.allows;
        if (rule.examples.size() < Examples)
            rule.examples.push_back(subject);
        if (matches.size() == 1)
            ++rule.alone;
        for (size_t other : matches)
            if (other != k)
                rule.coveredBy.insert(other);
    }
    for (size_t k : verdict.Rules(Outcome::Unanswered))
        if (m_perRule[k].unanswered++ == 0)
            m_perRule[k].firstUnanswered = subject + L": " + verdict.results[k].reason;
    for (Answer::Writable& found : answer.writable)
    {
        std::vector<Location>& locations = m_perRule[found.rule].writable;
        auto location = std::find_if(locations.begin(), locations.end(),
                                     [&](const Location& l) { return EqualNoCase(l.folder, found.folder); });
        if (location == locations.end())
        {
            locations.push_back({found.folder, subject});
            location = locations.end() - 1;
        }
        ++location->programs;
        if (found.error != ERROR_SUCCESS)
        {
            location->error = found.error;
            m_accessFailed = true;
        }
        for (const WriteRight& right : found.rights)
            if (std::none_of(location->rights.begin(), location->rights.end(),
                             [&](const WriteRight& known) { return known.bit == right.bit && known.onFolder == right.onFolder; }))
                location->rights.push_back(right);
    }
}

std::wstring Audit::AccessNote() const
{
    if (!m_checked)
        return L"this platform (Wine) keeps no permissions on disk files (it makes every file's descriptor from its "
               L"Unix mode, granting its one user everything, and enforces none): writable locations are not "
               L"checked";
    if (m_user.error != ERROR_SUCCESS)
        return L"writable locations are not checked: the standard user's token cannot be had: " +
               Win32Text(m_user.error);
    return L"";
}

void Audit::Report(Format format, const std::wstring& readError)
{
    std::vector<size_t> dead, redundant, writable, uncertain;
    for (size_t k = 0; k < m_perRule.size(); ++k)
    {
        const PerRule& rule = m_perRule[k];
        if (rule.allows == 0 && rule.unanswered == 0)
            dead.push_back(k);
        if (rule.allows > 0 && rule.alone == 0)
            redundant.push_back(k);
        if (!rule.writable.empty())
            writable.push_back(k);
        if (rule.allows == 0 && rule.unanswered > 0)
            uncertain.push_back(k);
    }
    auto names = [&](const std::set<size_t>& rules) {
        std::vector<std::wstring> list;
        for (size_t k : rules)
            list.push_back(RuleName(m_rules.rules[k]));
        return list;
    };
    const std::wstring note = AccessNote();
    if (format == Format::Json)
    {
        Json results = Json::MakeArray();
        for (size_t k = 0; k < m_perRule.size(); ++k)
        {
            const Rule& rule = m_rules.rules[k];
            const PerRule& counts = m_perRule[k];
            Json examples = Json::MakeArray(), coveredBy = Json::MakeArray(), locations = Json::MakeArray();
            for (const std::wstring& example : counts.examples)
                examples.Push(example);
            for (size_t other : counts.coveredBy)
                coveredBy.Push(RuleRef(m_rules.rules[other]));
            for (const Location& location : counts.writable)
            {
                Json rights = Json::MakeArray();
                for (const WriteRight& right : location.rights)
                    rights.Push(right.name);
                Json entry = Json::MakeObject()
                                 .Set(L"folder", location.folder)
                                 .Set(L"rights", std::move(rights))
                                 .Set(L"programs", static_cast<unsigned long long>(location.programs))
                                 .Set(L"example", location.example);
                if (location.error != ERROR_SUCCESS)
                    SetWin32(entry, location.error);
                locations.Push(std::move(entry));
            }
            results.Push(RuleRef(rule)
                             .Set(L"kind", KindName(rule.kind))
                             .Set(L"text", rule.text)
                             .Set(L"allows", static_cast<unsigned long long>(counts.allows))
                             .Set(L"examples", std::move(examples))
                             .Set(L"couldNotAnswer", static_cast<unsigned long long>(counts.unanswered))
                             .Set(L"dead", counts.allows == 0 && counts.unanswered == 0)
                             .Set(L"redundant", counts.allows > 0 && counts.alone == 0)
                             .Set(L"coveredBy", counts.allows > 0 && counts.alone == 0 ? std::move(coveredBy)
                                                                                       : Json::MakeArray())
                             .Set(L"writable", std::move(locations)));
        }
        Json blocked = Json::MakeArray(), unanswered = Json::MakeArray();
        for (const std::wstring& program : m_blocked)
            blocked.Push(program);
        for (const auto& [program, reason] : m_unanswered)
            unanswered.Push(Json::MakeObject().Set(L"program", program).Set(L"reason", reason));
        std::vector<Note> warnings = m_rules.warnings;
        const std::vector<Note> found = m_run.Warnings();
        warnings.insert(warnings.end(), found.begin(), found.end());
        OutJson(Json::MakeObject()
                    .Set(L"rules", m_rules.file)
                    .Set(L"ruleCount", static_cast<unsigned long>(m_rules.rules.size()))
                    .Set(L"policy", PolicyJson(m_run.Options().policy))
                    .Set(L"pid", static_cast<unsigned long>(m_run.Process().processId))
                    .Set(L"threads", m_run.Options().threads)
                    .Set(L"programs", Json::MakeObject()
                                          .Set(L"total", static_cast<unsigned long long>(m_tally.inputs))
                                          .Set(L"allowed", static_cast<unsigned long long>(m_tally.match))
                                          .Set(L"blocked", static_cast<unsigned long long>(m_tally.noMatch))
                                          .Set(L"couldNotAnswer", static_cast<unsigned long long>(m_tally.unanswered)))
                    .Set(L"standardUser", Json::MakeObject()
                                              .Set(L"user", m_user.error == ERROR_SUCCESS ? Account(m_user.user) : Json())
                                              .Set(L"source", m_user.source))
                    .Set(L"accessChecked", m_checked && m_user.error == ERROR_SUCCESS)
                    .Set(L"accessNote", note.empty() ? Json() : Json(note))
                    .Set(L"results", std::move(results))
                    .Set(L"blocked", std::move(blocked))
                    .Set(L"unanswered", std::move(unanswered))
                    .Set(L"facts", Json::MakeObject()
                                       .Set(L"computed", static_cast<unsigned long long>(m_run.Cache().Computed()))
                                       .Set(L"reused", static_cast<unsigned long long>(m_run.Cache().Reused())))
                    .Set(L"readError", readError.empty() ? Json() : Json(readError))
                    .Set(L"warnings", NotesJson(warnings)));
        if (!readError.empty())
            Err(L"qxinspect: the input could not be read to its end: " + readError + L"\n");
        return;
    }

    std::wstring text = L"rules: " + m_rules.file + L" (" + Count(m_rules.rules.size(), L"rule", L"rules") + L")\n" +
                        L"programs: " + std::to_wstring(m_tally.inputs) + L", allowed: " +
                        std::to_wstring(m_tally.match) + L", blocked: " + std::to_wstring(m_tally.noMatch) +
                        L", could not answer: " + std::to_wstring(m_tally.unanswered) + L"\n";
    if (note.empty())
        text += L"standard user: " + m_user.user.Qualified() + L" (" + m_user.source + L")\n";
    size_t width = 4;
    for (const Rule& rule : m_rules.rules)
        width = std::max(width, RuleName(rule).size());
    width += 2;
    text += L"\n  " + Padded(L"rule", width) + Padded(L"kind", 16) + L"allows  examples\n";
    for (size_t k = 0; k < m_perRule.size(); ++k)
    {
        const PerRule& counts = m_perRule[k];
        const std::wstring allows = std::to_wstring(counts.allows);
        text += L"  " + Padded(RuleName(m_rules.rules[k]), width) + Padded(KindName(m_rules.rules[k].kind), 16) +
                std::wstring(allows.size() < 6 ? 6 - allows.size() : 0, L' ') + allows +
                (counts.examples.empty() ? L"" : L"  " + Joined(counts.examples)) +
                (counts.allows > counts.examples.size() ? L", ..." : L"") + L"\n";
    }
    text += L"\nfindings:\n";
    for (size_t k : dead)
        text += L"  dead:       " + RuleName(m_rules.rules[k]) + L" allows none of the " +
                Count(m_tally.inputs, L"program", L"programs") + L"\n";
    for (size_t k : redundant)
        text += L"  redundant:  " + RuleName(m_rules.rules[k]) + L": every program it allows (" +
                std::to_wstring(m_perRule[k].allows) + L") is also allowed by " +
                Joined(names(m_perRule[k].coveredBy)) + L"\n";
    for (size_t k : writable)
        for (const Location& location : m_perRule[k].writable)
            text += L"  writable:   " + RuleName(m_rules.rules[k]) + L" allows " +
                    Count(location.programs, L"program", L"programs") + L" in " + location.folder + L" (" +
                    location.example + L")" +
                    (location.error != ERROR_SUCCESS
                         ? L", whose permissions cannot be read: " + Win32Text(location.error)
                         : L", where a standard user may " + RightsText(location.rights)) +
                    L"\n";
    for (size_t k : uncertain)
        text += L"  could not tell: " + RuleName(m_rules.rules[k]) + L" allows none of the programs it answered for, "
                L"and could not answer for " + Count(m_perRule[k].unanswered, L"program", L"programs") + L" (" +
                m_perRule[k].firstUnanswered + L")\n";
    if (dead.empty() && redundant.empty() && writable.empty() && uncertain.empty())
        text += L"  none\n";
    if (!m_blocked.empty())
        text += L"\nblocked (no rule allows them):\n  " + Joined(m_blocked, L"\n  ") + L"\n";
    if (!m_unanswered.empty())
    {
        text += L"\ncould not answer:\n";
        for (const auto& [program, reason] : m_unanswered)
            text += L"  " + program + L": " + reason + L"\n";
    }
    if (!note.empty())
        text += L"\nnote: " + note + L"\n";
    Out(text);
    if (!readError.empty())
        Err(L"qxinspect: the input could not be read to its end: " + readError + L"\n");
}

int Audit::ExitCode() const
{
    if (m_tally.unanswered > 0 || m_accessFailed)
        return ExitFailed;
    for (const PerRule& rule : m_perRule)
        if ((rule.allows == 0 && rule.unanswered == 0) || (rule.allows > 0 && rule.alone == 0) ||
            !rule.writable.empty())
            return ExitNo;
    return ExitOk;
}
} // namespace qxinspect
