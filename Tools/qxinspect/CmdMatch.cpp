// match, regex-check: how a path fares against a rule's pattern, and whether
// a regular expression is accepted for a rule set.

#include "Evaluation.h"
#include "Report.h"

#include "QXCommon/FilePathPatternMatcher.h"
#include "QXCommon/RegExHelpers.h"

namespace qxinspect
{
namespace
{
int RunMatch(Context& context, const std::vector<std::wstring>& args)
{
    ArgParser parser({L"--kind", L"--pid"}, {L"--slash"});
    std::wstring error;
    if (!parser.Parse(args, error))
        return Fail(ExitUsage, error + SeeHelp(L"match"));
    if (parser.Positional().size() != 2)
        return Fail(ExitUsage, L"match needs a PATH and a PATTERN" + SeeHelp(L"match"));
    const std::wstring& path = parser.Positional()[0];
    const std::wstring& pattern = parser.Positional()[1];
    const int flag = parser.Has(L"--slash") ? 1 : 0;
    uint32_t pid = 0;
    if (auto text = parser.Value(L"--pid"); text && (!ParseNumber32(*text, pid) || pid == 0))
        return Fail(ExitUsage, L"--pid needs a non-zero process id, not " + *text);

    // A forced kind means what it means in a rules file, and its pattern is
    // refused or warned about as a rule's would be.
    const auto kindName = parser.Value(L"--kind");
    RuleKind kind = RuleKind::Name;
    std::vector<std::wstring> warnings;
    if (kindName)
    {
        if (!FindKind(*kindName, kind) || IsContentKind(kind))
            return Fail(ExitUsage, L"unknown --kind " + *kindName + L" (" + KindNames(true) + L")");
        const std::wstring malformed = CheckPattern(kind, pattern, warnings);
        if (!malformed.empty())
            return Fail(ExitUsage, L"the pattern is not a " + *kindName + L" rule: " + malformed);
    }

    // %VAR% references are expanded as check expands them: against the
    // table of the user of --pid (default: this process's), regex-safe for
    // regex rules.
    std::wstring expanded = pattern;
    if (pattern.find(L'%') != std::wstring::npos)
    {
        QXCommon::CEnvironmentEx table(0);
        if (!LoadTable(table, pid, error))
            return Fail(ExitFailed, error);
        std::vector<std::wstring> unknown;
        expanded = ExpandPattern(kindName ? kind : RuleKind::Name, pattern, table, unknown);
        for (const std::wstring& name : unknown)
            warnings.push_back(name + L" is not in the environment table of " + table.UserName() +
                               L": it stays in the pattern as written");
    }

    // Without --kind, MatchAgainstPattern chooses, and the tool says what it chose.
    const std::wstring program = PlainPath(path);
    std::wstring why, subject = program;
    int result = 0;
    if (kindName)
        result = MatchRule(kind, program, expanded, flag, subject, error);
    else
    {
        kind = AutomaticKind(expanded, why);
        result = QXCommon::CFilePathPatternMatcher::MatchAgainstPattern(program, expanded, flag);
    }
    if (result == -2)
        return Fail(ExitFailed, L"could not answer: " + error);
    if (result < 0)
        return Fail(ExitUsage, error);

    std::vector<Note> notes;
    for (const std::wstring& warning : warnings)
        notes.push_back({L"", 0, warning});
    ReportWarnings(notes);
    if (context.json)
    {
        Json document = Json::MakeObject()
                            .Set(L"path", path)
                            .Set(L"pattern", pattern)
                            .Set(L"expanded", expanded)
                            .Set(L"kind", KindName(kind))
                            .Set(L"automatic", !kindName)
                            .Set(L"why", kindName ? Json() : Json(why))
                            .Set(L"slash", flag != 0)
                            .Set(L"subject", subject)
                            .Set(L"match", result == 1)
                            .Set(L"warnings", NotesJson(notes));
        OutJson(std::move(document));
    }
    else
        Out(std::wstring(result == 1 ? L"match" : L"no match") + L" (" + KindName(kind) + L" rule" +
            (kindName ? L"" : L", chosen automatically: " + why) + L")\n" +
            (expanded != pattern ? L"expanded: " + expanded + L"\n" : L"") +
            (subject != path ? L"tested:   " + subject + L"\n" : L""));
    return result == 1 ? ExitOk : ExitNo;
}

int RunRegexCheck(Context& context, const std::vector<std::wstring>& args)
{
    ArgParser parser({L"--samples"}, {});
    std::wstring error;
    if (!parser.Parse(args, error))
        return Fail(ExitUsage, error + SeeHelp(L"regex-check"));
    if (parser.Positional().size() != 1)
        return Fail(ExitUsage, L"regex-check needs one EXPRESSION" + SeeHelp(L"regex-check"));
    const std::wstring& expression = parser.Positional()[0];
    std::optional<std::wstring> samplesText = parser.Value(L"--samples");
    uint32_t samples = 0;
    if (samplesText && !ParseNumber32(*samplesText, samples))
        return Fail(ExitUsage, L"--samples needs a number (0x7F for all kinds), not " + *samplesText);

    int code = 0;
    const bool valid = samplesText ? ValidateRegularExpressionEx(expression.c_str(), samples, &code)
                                   : ValidateRegularExpression(expression.c_str(), &code);
    const std::wstring reason = valid ? L"" : RegexErrorText(expression, code);
    if (context.json)
        OutJson(Json::MakeObject()
                    .Set(L"expression", expression)
                    .Set(L"valid", valid)
                    .Set(L"regexError", code)
                    .Set(L"reason", reason)
                    .Set(L"samples", samplesText ? Json(static_cast<unsigned long>(samples)) : Json()));
    else
        Out(valid ? L"valid\n" : L"rejected: " + reason + L"\n");
    return valid ? ExitOk : ExitNo;
}
} // namespace

QXINSPECT_COMMAND(L"match", L"match [--kind KIND] [--slash] [--pid N] PATH PATTERN",
                  L"match a path against a rule pattern (case-insensitive)",
                  L"Matches the program PATH against PATTERN as a rule does: %VAR% references\n"
                  L"are expanded against the environment table of the user of --pid N (default:\n"
                  L"this process's user), regex-safe for regex rules, and the expanded pattern is\n"
                  L"shown. A \\\\?\\ or \\\\.\\ prefix on PATH is the path it names.\n"
                  L"\n"
                  L"With --kind the pattern is a rule of that kind, with the one meaning it has in\n"
                  L"a rules file (see qxinspect help check); a pattern that kind refuses (a path\n"
                  L"rule without a folder or with a wildcard, a name with a folder, an invalid\n"
                  L"expression) is exit 2, and warnings go to standard error. Without --kind the\n"
                  L"rule matcher's own choice is made (MatchAgainstPattern): no separator and no\n"
                  L"wildcard is a file name (name), a separator and no wildcard a whole path\n"
                  L"(path), anything else the wildcard walk (wildcard); the output says which.\n"
                  L"Wildcards * and ? never span \\ or : (nor / with --slash).\n"
                  L"\n"
                  L"Options:\n"
                  L"  --kind KIND  name | path | wildcard | folder | subfolders | regex | glob |\n"
                  L"               network | hook-exceptions (folder kinds test PATH's folder)\n"
                  L"  --slash      / is a separator for the wildcards as well\n"
                  L"  --pid N      expand against the table of process N's user\n"
                  L"\n"
                  L"Output: \"match (KIND rule)\" or \"no match (KIND rule)\", then the expanded\n"
                  L"pattern and what was tested when they differ; --json prints {command, path,\n"
                  L"pattern, expanded, kind, automatic, why, slash, subject, match, warnings}.\n"
                  L"Exit codes: 0 match, 1 no match, 2 bad command line (or a pattern its kind\n"
                  L"refuses), 3 the table for %VAR% could not be loaded, or a regex or glob\n"
                  L"match ran out of the matcher's step budget (could not answer: the agent\n"
                  L"takes it for no match).\n",
                  &RunMatch);

QXINSPECT_COMMAND(L"regex-check", L"regex-check [--samples MASK] EXPRESSION",
                  L"check a regular expression for a rule set",
                  L"Compiles EXPRESSION (case-insensitive, ECMAScript) as rules do. Expressions\n"
                  L"are limited to 2,048 characters, 64 nested groups and 4,000 compiled states.\n"
                  L"\n"
                  L"With --samples it is also matched against the samples of the kinds in MASK,\n"
                  L"and rejected with error 99 when a match takes more than 100 ms or explodes:\n"
                  L"  0x01 empty text       0x02 file path   0x04 folder     0x08 computer name\n"
                  L"  0x10 UNC share path   0x20 web host    0x40 IPv4 address (0x7F all)\n"
                  L"\n"
                  L"Output: \"valid\" or \"rejected: error N (NAME): why\"; --json prints {command,\n"
                  L"expression, valid, regexError, reason, samples}.\n"
                  L"Exit codes: 0 valid, 1 rejected, 2 bad command line.\n",
                  &RunRegexCheck);
} // namespace qxinspect
