// match, regex-check: how a path fares against a rule's pattern, and whether
// a regular expression is accepted for a rule set.

#include "Facts.h"
#include "Inspect.h"

#include "QXCommon/FilePathPatternMatcher.h"
#include "QXCommon/RegExHelpers.h"

namespace qxinspect
{
namespace
{
using QXCommon::CFilePathPatternMatcher;

// The kind MatchAgainstPattern chooses for a pattern.
std::wstring AutomaticKind(const std::wstring& pattern)
{
    bool wildcard = CFilePathPatternMatcher::ContainsWildCard(pattern);
    bool separator = CFilePathPatternMatcher::ContainsPath(pattern);
    if (!separator && !wildcard)
        return L"name";
    if (!wildcard)
        return L"path";
    return L"wildcard";
}

int RunMatch(Context& context, const std::vector<std::wstring>& args)
{
    ArgParser parser({L"--kind"}, {L"--slash"});
    std::wstring error;
    if (!parser.Parse(args, error))
        return Fail(ExitUsage, error);
    if (parser.Positional().size() != 2)
        return Fail(ExitUsage, L"match needs a PATH and a PATTERN (see qxinspect help match)");
    const std::wstring& path = parser.Positional()[0];
    const std::wstring& pattern = parser.Positional()[1];
    int flag = parser.Has(L"--slash") ? 1 : 0;
    bool forced = parser.Value(L"--kind").has_value();
    std::wstring kind = forced ? *parser.Value(L"--kind") : AutomaticKind(pattern);

    // The automatic kind is MatchAgainstPattern's own choice; a forced kind
    // calls that rule's matcher directly.
    MatchKind matchKind = MatchKind::Automatic;
    if (forced && (!ParseMatchKind(kind, matchKind) || matchKind == MatchKind::Automatic))
        return Fail(ExitUsage, L"unknown --kind " + kind +
                                   L" (name, path, wildcard, folder, subfolders, regex, glob, network, "
                                   L"hook-exceptions)");
    const int result = MatchPath(matchKind, path, pattern, flag, error);
    if (result < 0)
        return Fail(ExitUsage, error);

    if (context.json)
        OutJson(Json::MakeObject()
                    .Set(L"path", path)
                    .Set(L"pattern", pattern)
                    .Set(L"kind", kind)
                    .Set(L"slash", flag != 0)
                    .Set(L"match", result == 1));
    else
        Out(std::wstring(result == 1 ? L"match" : L"no match") + L" (" + kind + L" rule)\n");
    return result == 1 ? ExitOk : ExitNo;
}

int RunRegexCheck(Context& context, const std::vector<std::wstring>& args)
{
    ArgParser parser({L"--samples"}, {});
    std::wstring error;
    if (!parser.Parse(args, error))
        return Fail(ExitUsage, error);
    if (parser.Positional().size() != 1)
        return Fail(ExitUsage, L"regex-check needs one EXPRESSION (see qxinspect help regex-check)");
    const std::wstring& expression = parser.Positional()[0];
    std::optional<std::wstring> samplesText = parser.Value(L"--samples");
    uint32_t samples = 0;
    if (samplesText && !ParseNumber32(*samplesText, samples))
        return Fail(ExitUsage, L"--samples needs a number (0x7F for all kinds), not " + *samplesText);

    int code = 0;
    bool valid = samplesText ? ValidateRegularExpressionEx(expression.c_str(), samples, &code)
                             : ValidateRegularExpression(expression.c_str(), &code);
    if (context.json)
    {
        Json result = Json::MakeObject();
        result.Set(L"expression", expression).Set(L"valid", valid).Set(L"error", code);
        if (samplesText)
            result.Set(L"samples", Hex32(samples));
        OutJson(result);
    }
    else if (valid)
        Out(L"valid\n");
    else if (code == QX_REGEX_ERROR_TOO_SLOW)
        Out(L"rejected: too slow to match a sample (error 99)\n");
    else
        Out(L"rejected: cannot be parsed (error " + std::to_wstring(code) + L")\n");
    return valid ? ExitOk : ExitNo;
}
} // namespace

QXINSPECT_COMMAND(L"match", L"match [--kind KIND] [--slash] PATH PATTERN",
                  L"match a path against a rule pattern (case-insensitive)",
                  L"Matches PATH against PATTERN as a rule does.\n"
                  L"\n"
                  L"Without --kind the kind is chosen as the rule matcher chooses it: a pattern\n"
                  L"without separator and wildcard is a file name (name), one with a separator\n"
                  L"but no wildcard a full path (path), any other a wildcard path (wildcard).\n"
                  L"Wildcards * and ? never span \\ or : (nor / with --slash).\n"
                  L"\n"
                  L"Options:\n"
                  L"  --kind KIND  name | path | wildcard | folder | subfolders | regex | glob | network |\n"
                  L"               hook-exceptions\n"
                  L"               folder: the folder itself; subfolders: the folder and all below it;\n"
                  L"               regex: a case-insensitive search; glob: a whole match, * spanning\n"
                  L"               separators; network: a UNC resource and everything below it;\n"
                  L"               hook-exceptions: a ';'-separated list of names and folder\\name entries\n"
                  L"  --slash      / is a separator for the wildcards as well\n"
                  L"\n"
                  L"Output: \"match (KIND rule)\" or \"no match (KIND rule)\"; with --json an object\n"
                  L"with path, pattern, kind, slash and match.\n"
                  L"Exit codes: 0 match, 1 no match, 2 usage (or an invalid expression or glob).\n",
                  &RunMatch);

QXINSPECT_COMMAND(L"regex-check", L"regex-check [--samples MASK] EXPRESSION",
                  L"check a regular expression for a rule set",
                  L"Compiles EXPRESSION (case-insensitive, ECMAScript) as rules do.\n"
                  L"\n"
                  L"With --samples it is also matched against the samples of the kinds in MASK,\n"
                  L"and rejected with error 99 when a match takes more than 100 ms or explodes:\n"
                  L"  0x01 empty text       0x02 file path   0x04 folder     0x08 computer name\n"
                  L"  0x10 UNC share path   0x20 web host    0x40 IPv4 address (0x7F all)\n"
                  L"\n"
                  L"Output: \"valid\" or \"rejected: ...\" with the error code; with --json an object\n"
                  L"with expression, valid, error (and samples).\n"
                  L"Exit codes: 0 valid, 1 rejected, 2 usage.\n",
                  &RunRegexCheck);
} // namespace qxinspect
