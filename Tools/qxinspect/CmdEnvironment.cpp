// env, expand, normalise: a user's environment table as the library loads it,
// and what rule strings expand or normalise to against it.

#include "Platform.h"

#include "QXCommon/EnvironmentEx.h"

#include <atlbase.h>
#include <atlsecurity.h>

namespace qxinspect
{
namespace
{
// Reads --pid: false (with the reason) when it is given but is no process id.
bool ParsePid(const ArgParser& parser, uint32_t& pid, std::wstring& error)
{
    pid = 0;
    auto pidText = parser.Value(L"--pid");
    if (!pidText)
        return true;
    if (!ParseNumber32(*pidText, pid) || pid == 0)
    {
        error = L"--pid needs a non-zero process id, not " + *pidText;
        return false;
    }
    return true;
}

// For --direct with --pid: the process's token, for the system's own expansion.
bool OpenProcessTokenById(uint32_t pid, CAccessToken& token, std::wstring& error)
{
    CHandle process(OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, pid));
    if (process == nullptr)
    {
        error = L"cannot open process " + std::to_wstring(pid) + L", error " + std::to_wstring(GetLastError());
        return false;
    }
    if (!token.GetProcessToken(TOKEN_READ | TOKEN_QUERY | TOKEN_IMPERSONATE | TOKEN_DUPLICATE, process))
    {
        error = L"cannot open the token of process " + std::to_wstring(pid) + L": " + Win32Text(GetLastError());
        return false;
    }
    return true;
}

int RunEnv(Context& context, const std::vector<std::wstring>& args)
{
    ArgParser parser({L"--pid"}, {});
    std::wstring error;
    uint32_t pid = 0;
    if (!parser.Parse(args, error) || !ParsePid(parser, pid, error))
        return Fail(ExitUsage, error);
    if (!parser.Positional().empty())
        return Fail(ExitUsage, L"env takes no arguments" + SeeHelp(L"env"));
    QXCommon::CEnvironmentEx env(0);
    if (!LoadTable(env, pid, error))
        return Fail(ExitFailed, error);
    std::vector<wchar_t> block = env.GetAsEnvironmentBlock();
    Json variables = Json::MakeObject();
    std::wstring text;
    for (const wchar_t* entry = block.data(); *entry != L'\0'; entry += wcslen(entry) + 1)
    {
        std::wstring line(entry);
        size_t equals = line.find(L'=');
        variables.Set(line.substr(0, equals), Json(line.substr(equals + 1)));
        text += line + L"\n";
    }
    if (context.json)
    {
        Json result = Json::MakeObject();
        result.Set(L"userName", Json(env.UserName()));
        result.Set(L"variables", std::move(variables));
        OutJson(result);
    }
    else
        Out(text);
    return ExitOk;
}

int RunExpand(Context& context, const std::vector<std::wstring>& args)
{
    ArgParser parser({L"--pid"}, {L"--regex", L"--direct"});
    std::wstring error;
    uint32_t pid = 0;
    if (!parser.Parse(args, error) || !ParsePid(parser, pid, error))
        return Fail(ExitUsage, error);
    if (parser.Positional().size() != 1)
        return Fail(ExitUsage, L"expand takes one TEXT" + SeeHelp(L"expand"));
    if (parser.Has(L"--regex") && parser.Has(L"--direct"))
        return Fail(ExitUsage, L"--regex and --direct cannot be combined");
    const std::wstring& input = parser.Positional()[0];
    std::wstring output = input;
    std::wstring mode;
    bool replaced = false;
    if (parser.Has(L"--direct"))
    {
        if (input.empty())
            return Fail(ExitUsage, L"expand --direct needs a non-empty TEXT");
        DWORD result = 0;
        if (pid != 0)
        {
            CAccessToken token;
            if (!OpenProcessTokenById(pid, token, error))
                return Fail(ExitFailed, error);
            mode = L"system-for-user";
            result = QXCommon::CEnvironmentEx::ExpandStringDirectForUser(token.GetHandle(), input, output);
        }
        else
        {
            mode = L"system";
            result = QXCommon::CEnvironmentEx::ExpandStringDirect(input, output);
        }
        if (result != ERROR_SUCCESS)
            return Fail(ExitFailed, L"the system could not expand the text: " + Win32Text(result));
        replaced = output != input;
    }
    else
    {
        QXCommon::CEnvironmentEx env(0);
        if (!LoadTable(env, pid, error))
            return Fail(ExitFailed, error);
        if (parser.Has(L"--regex"))
        {
            mode = L"regex";
            replaced = env.ExpandRxString(input, output) == 1;
        }
        else
        {
            mode = L"table";
            replaced = env.ExpandString(input.c_str(), output) == 1;
        }
    }
    if (context.json)
    {
        Json result = Json::MakeObject();
        result.Set(L"input", Json(input));
        result.Set(L"output", Json(output));
        result.Set(L"replaced", Json(replaced));
        result.Set(L"mode", Json(mode));
        OutJson(result);
    }
    else
        Out(output + L"\n");
    return replaced ? ExitOk : ExitNo;
}

int RunNormalise(Context& context, const std::vector<std::wstring>& args)
{
    ArgParser parser({L"--pid"}, {});
    std::wstring error;
    uint32_t pid = 0;
    if (!parser.Parse(args, error) || !ParsePid(parser, pid, error))
        return Fail(ExitUsage, error);
    if (parser.Positional().size() != 1)
        return Fail(ExitUsage, L"normalise takes one PATH" + SeeHelp(L"normalise"));
    QXCommon::CEnvironmentEx env(0);
    if (!LoadTable(env, pid, error))
        return Fail(ExitFailed, error);
    const std::wstring& input = parser.Positional()[0];
    std::wstring output = input;
    env.NormalisePaths(output);
    if (context.json)
    {
        Json result = Json::MakeObject();
        result.Set(L"input", Json(input));
        result.Set(L"output", Json(output));
        OutJson(result);
    }
    else
        Out(output + L"\n");
    return output.find(L'%') != std::wstring::npos ? ExitOk : ExitNo;
}
} // namespace

QXINSPECT_COMMAND(L"env", L"env [--pid N]", L"show the environment table the library loads for a user",
                  L"Loads the environment that the user of process N gets (by default the user of this tool's own\n"
                  L"token, in its session), the way the agent does: the system's environment block for the token,\n"
                  L"8.3 names made long, per-session TEMP/TMP folders when the policy asks for them, and \"username\".\n"
                  L"Prints name=value per variable (names in lower case, sorted).\n"
                  L"  --pid N    the process whose user and session to use\n"
                  L"Exit codes: 0 done, 2 bad command line, 3 the table could not be loaded.\n",
                  &RunEnv);

QXINSPECT_COMMAND(L"expand", L"expand TEXT [--pid N] [--regex] [--direct]",
                  L"expand %VAR% references as a user's rules see them",
                  L"Expands %name% references in TEXT against the user's environment table (see env).\n"
                  L"Unknown names stay as they are.\n"
                  L"  --pid N    use the table of process N's user and session\n"
                  L"  --regex    TEXT is a regular expression: values are escaped so that they match literally\n"
                  L"  --direct   let the system expand TEXT instead (this process's environment, or with --pid\n"
                  L"             the environment the system gives that process's user)\n"
                  L"Exit codes: 0 something was expanded, 1 nothing was, 2 bad command line, 3 failure.\n",
                  &RunExpand);

QXINSPECT_COMMAND(L"normalise", L"normalise PATH [--pid N]", L"turn a path back into %VAR% form",
                  L"Replaces known folders in PATH (systemroot, systemdrive, programfiles, programfiles(x86),\n"
                  L"programdata, localappdata, appdata, userprofile, temp) by %name% tokens, longest value first,\n"
                  L"so that paths of different users compare equal. The result is lower case.\n"
                  L"  --pid N    use the table of process N's user and session\n"
                  L"Exit codes: 0 the path holds a token, 1 no folder matched, 2 bad command line, 3 failure.\n",
                  &RunNormalise);
} // namespace qxinspect
