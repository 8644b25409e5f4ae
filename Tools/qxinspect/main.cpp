// qxinspect: asks QXCommon the questions the agent asks, for people testing rules.

#include "Inspect.h"

#include "QXDbgLog.h"

#include <cwchar>

using namespace qxinspect;

// The project's version, given by the build as a bare number (1.0.0).
#define QXINSPECT_WIDE_(x) L## #x
#define QXINSPECT_WIDE(x) QXINSPECT_WIDE_(x)
#define QXINSPECT_VERSION QXINSPECT_WIDE(QXINSPECT_VERSION_NUMBER)

namespace
{
const wchar_t* const Usage =
    L"usage: qxinspect [--json] [--log] COMMAND [ARGUMENTS...]\n"
    L"       qxinspect help [COMMAND]\n"
    L"       qxinspect --version\n"
    L"\n"
    L"Asks the QXCommon library what the application-control agent asks about a\n"
    L"program: what the system is, whether a file is an NT image, how a path\n"
    L"matches a rule, how a command line splits, what variables expand to, and what\n"
    L"a rule set decides for a program start.\n"
    L"\n"
    L"Options for every command:\n"
    L"  --json     print one JSON document on standard output, whatever happens\n"
    L"             (errors as {command, error: {kind, message}})\n"
    L"  --log      copy the library's own log lines to standard error\n"
    L"  --help     show help (for a command: qxinspect help COMMAND)\n"
    L"\n"
    L"Exit codes:\n"
    L"  0  done (for a yes/no question: yes)\n"
    L"  1  done, and the answer is no (no match, not an NT image, rejected)\n"
    L"  2  bad command line or input file (nothing evaluated)\n"
    L"  3  the library or the system could not answer (the error is printed), or\n"
    L"     standard output could not be written\n"
    L"For many programs (check, fileinfo), audit and diff each command's help says\n"
    L"what its codes mean.\n";

void LogToStderr(void*, const QXDbgLogRecord& record)
{
    std::wstring line = L"[L" + std::to_wstring(record.level) + L"] ";
    for (const char* p = record.function; p != nullptr && *p != '\0'; ++p)
        line += static_cast<wchar_t>(static_cast<unsigned char>(*p));
    line += L": ";
    line += record.message != nullptr ? record.message : L"";
    if (line.empty() || line.back() != L'\n')
        line += L'\n';
    Err(line);
}

std::wstring CommandList()
{
    std::wstring text = std::wstring(Usage) + L"\nCommands:\n";
    for (const auto& command : Commands())
    {
        std::wstring line = L"  " + std::wstring(command.synopsis);
        if (line.size() < 34)
            line.append(34 - line.size(), L' ');
        else
            line += L"\n" + std::wstring(34, L' ');
        text += line + command.summary + L"\n";
    }
    return text;
}

const Command* FindCommand(const std::wstring& name)
{
    for (const auto& command : Commands())
        if (name == command.name)
            return &command;
    return nullptr;
}

std::wstring CommandHelp(const Command& command)
{
    std::wstring text = std::wstring(L"usage: qxinspect [--json] [--log] ") + command.synopsis + L"\n\n" +
                        command.summary + L"\n";
    if (command.help != nullptr && *command.help != L'\0')
        text += std::wstring(L"\n") + command.help;
    return text;
}

// Help for people, or with --json the same text in a document.
int ShowHelp(bool json, const Command* command)
{
    const std::wstring text = command != nullptr ? CommandHelp(*command) : CommandList();
    if (json)
        OutJson(Json::MakeObject().Set(L"topic", command != nullptr ? Json(command->name) : Json()).Set(L"text", text));
    else
        Out(text);
    return ExitOk;
}

// The run's status, made a failure when standard output could not be
// written (a full disk, a reader that has gone).
int Finish(int status)
{
    DWORD error = ERROR_SUCCESS;
    if (!OutputFailed(error))
        return status;
    Err(L"qxinspect: standard output could not be written (error " + std::to_wstring(error) + L")\n");
    return ExitFailed;
}

int Run(int argc, wchar_t** argv)
{
    Context context;
    bool help = false, version = false;
    std::wstring commandName;
    std::vector<std::wstring> args;
    bool optionsEnded = false;

    // --json anywhere before "--" asks for a document, even for an error met
    // before it is read.
    for (int k = 1; k < argc && std::wcscmp(argv[k], L"--") != 0; ++k)
        context.json = context.json || std::wcscmp(argv[k], L"--json") == 0;
    SetDocument(L"", context.json);

    for (int k = 1; k < argc; ++k)
    {
        std::wstring arg = argv[k];
        if (!optionsEnded && arg == L"--json")
            continue;
        if (!optionsEnded && arg == L"--log")
            context.log = true;
        else if (!optionsEnded && (arg == L"--help" || arg == L"-h" || arg == L"/?"))
            help = true;
        else if (commandName.empty() && !optionsEnded && arg == L"--version")
            version = true;
        else if (commandName.empty() && !optionsEnded && arg.size() > 1 && arg[0] == L'-')
            return Fail(ExitUsage, L"unknown option " + arg + SeeHelp(nullptr));
        else if (commandName.empty())
            commandName = arg;
        else
        {
            if (arg == L"--")
                optionsEnded = true;
            args.push_back(arg);
        }
    }

    if (version)
    {
        SetDocument(L"version", context.json);
        if (context.json)
            OutJson(Json::MakeObject().Set(L"version", QXINSPECT_VERSION));
        else
            Out(L"qxinspect " QXINSPECT_VERSION L" (QXCommon " QXINSPECT_VERSION L")\n");
        return ExitOk;
    }
    if (commandName.empty())
    {
        SetDocument(L"help", context.json);
        if (help)
            return ShowHelp(context.json, nullptr);
        // No command is an error: the usage goes to standard error.
        Err(CommandList());
        return Fail(ExitUsage, L"no command given" + SeeHelp(nullptr));
    }
    if (commandName == L"help")
    {
        SetDocument(L"help", context.json);
        if (args.empty())
            return ShowHelp(context.json, nullptr);
        const Command* command = FindCommand(args[0]);
        if (command == nullptr)
            return Fail(ExitUsage, L"unknown command " + args[0] + SeeHelp(nullptr));
        return ShowHelp(context.json, command);
    }

    const Command* command = FindCommand(commandName);
    if (command == nullptr)
        return Fail(ExitUsage, L"unknown command " + commandName + SeeHelp(nullptr));
    SetDocument(command->name, context.json);
    if (help)
    {
        SetDocument(L"help", context.json);
        return ShowHelp(context.json, command);
    }

    if (context.log)
    {
        GetDbgManager()->SetSink(&LogToStderr, nullptr);
        GetDbgManager()->SetDebuggerOutput(true);
    }
    const int status = command->run(context, args);
    if (context.log)
    {
        GetDbgManager()->SetDebuggerOutput(false);
        GetDbgManager()->SetSink(nullptr, nullptr);
    }
    return status;
}
} // namespace

int wmain(int argc, wchar_t** argv)
{
    return Finish(Run(argc, argv));
}
