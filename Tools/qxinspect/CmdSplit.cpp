// split: which program and which arguments a command line names, and the
// arguments with the files found on the search path written as full paths.

#include "Platform.h"

namespace qxinspect
{
namespace
{
int RunSplit(Context& context, const std::vector<std::wstring>& args)
{
    ArgParser parser({}, {});
    std::wstring error;
    if (!parser.Parse(args, error))
        return Fail(ExitUsage, error);
    if (parser.Positional().empty())
        return Fail(ExitUsage, L"split needs a COMMANDLINE" + SeeHelp(L"split"));

    // Several words are joined with one blank; quote the whole command line
    // to keep its spacing and quotes exactly.
    std::wstring cmdLine;
    for (const std::wstring& word : parser.Positional())
    {
        if (!cmdLine.empty())
            cmdLine += L' ';
        cmdLine += word;
    }

    const SplitLine line = SplitAndExpand(cmdLine);
    const bool split = line.split;
    const bool converted = line.converted;
    const std::wstring &module = line.module, &arguments = line.arguments, &expanded = line.expanded;

    if (context.json)
    {
        Json result = Json::MakeObject();
        result.Set(L"commandLine", cmdLine).Set(L"split", split);
        if (split)
        {
            result.Set(L"module", module).Set(L"arguments", arguments);
            result.Set(L"expanded", converted ? Json(expanded) : Json());
        }
        OutJson(result);
    }
    else if (split)
    {
        Out(L"module:    " + module + L"\n");
        Out(L"arguments: " + arguments + L"\n");
        if (converted)
            Out(L"expanded:  " + expanded + L"\n");
    }

    // The document above is the answer; the reason goes to stderr.
    if (!split)
    {
        Err(L"qxinspect: no program found in the command line: a closing quote is missing, or the unquoted "
            L"program path does not end in .exe\n");
        return ExitNo;
    }
    if (!converted)
    {
        Err(L"qxinspect: the arguments could not be expanded (run with --log for the reason)\n");
        return ExitFailed;
    }
    return ExitOk;
}
} // namespace

QXINSPECT_COMMAND(L"split", L"split COMMANDLINE...",
                  L"split a command line into program and arguments (expanded to full paths)",
                  L"COMMANDLINE is split as the agent splits the command line of a starting process:\n"
                  L"  - \"C:\\Program Files\\App\\a.exe\" -x   a quoted program: the text between the quotes;\n"
                  L"    the arguments start two characters after the closing quote\n"
                  L"  - C:\\Program Files\\App\\a.exe -x     unquoted: blank-separated words are joined until\n"
                  L"    they end in .exe (other programs, such as .com or .bat, are not found unquoted)\n"
                  L"Several words are joined with one blank; give the command line as one argument\n"
                  L"to keep its spacing and inner quotes.\n"
                  L"\n"
                  L"Output: the module, the arguments, and the arguments with every bare file name that\n"
                  L"is found on the search path (notepad.exe, a.txt) replaced by its full path; arguments\n"
                  L"that hold blanks are quoted. --json prints {command, commandLine, split, module, arguments,\n"
                  L"expanded}. --log shows the library's log lines.\n"
                  L"\n"
                  L"Exit codes: 0 split, 1 no program found, 2 bad usage, 3 expansion failed.\n"
                  L"\n"
                  L"Example:\n"
                  L"  qxinspect split \"C:\\Program Files\\App\\a.exe /open notepad.exe\"\n",
                  &RunSplit);
} // namespace qxinspect
