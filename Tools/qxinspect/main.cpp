// qxinspect: asks QXCommon the questions the agent asks, for people testing rules.

#include "Inspect.h"

#include "QXDbgLog.h"

#include <cwchar>

using namespace qxinspect;

namespace
{
const wchar_t* const Usage =
    L"usage: qxinspect [--json] [--log] COMMAND [ARGUMENTS...]\n"
    L"       qxinspect help [COMMAND]\n"
    L"\n"
    L"Asks the QXCommon library what the application-control agent asks about a\n"
    L"program: what the system is, whether a file is an NT image, how a path\n"
    L"matches a rule, how a command line splits, what variables expand to.\n"
    L"\n"
    L"Options for every command:\n"
    L"  --json     print the answer as one JSON document on standard output\n"
    L"  --log      copy the library's own log lines to standard error\n"
    L"  --help     show help (for a command: qxinspect COMMAND --help)\n"
    L"\n"
    L"Exit codes:\n"
    L"  0  done (for a yes/no question: yes)\n"
    L"  1  done, and the answer is no (no match, not an NT image, rejected)\n"
    L"  2  bad command line\n"
    L"  3  the library or the system could not answer (the error is printed)\n";

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

void PrintCommandList()
{
    Out(Usage);
    Out(L"\nCommands:\n");
    for (const auto& command : Commands())
    {
        std::wstring synopsis = command.synopsis;
        std::wstring line = L"  " + synopsis;
        if (line.size() < 34)
            line.append(34 - line.size(), L' ');
        else
            line += L"\n" + std::wstring(34, L' ');
        Out(line + command.summary + L"\n");
    }
}

const Command* FindCommand(const std::wstring& name)
{
    for (const auto& command : Commands())
        if (name == command.name)
            return &command;
    return nullptr;
}

void PrintCommandHelp(const Command& command)
{
    Out(std::wstring(L"usage: qxinspect [--json] [--log] ") + command.synopsis + L"\n\n" + command.summary + L"\n");
    if (command.help != nullptr && *command.help != L'\0')
        Out(std::wstring(L"\n") + command.help);
}
} // namespace

int wmain(int argc, wchar_t** argv)
{
    Context context;
    bool help = false;
    std::wstring commandName;
    std::vector<std::wstring> args;
    bool optionsEnded = false;

    for (int k = 1; k < argc; ++k)
    {
        std::wstring arg = argv[k];
        if (!optionsEnded && arg == L"--json")
            context.json = true;
        else if (!optionsEnded && arg == L"--log")
            context.log = true;
        else if (!optionsEnded && (arg == L"--help" || arg == L"-h" || arg == L"/?"))
            help = true;
        else if (commandName.empty() && !optionsEnded && arg.size() > 1 && arg[0] == L'-')
            return Fail(ExitUsage, L"unknown option " + arg + L" (see qxinspect --help)");
        else if (commandName.empty())
            commandName = arg;
        else
        {
            if (arg == L"--")
                optionsEnded = true;
            args.push_back(arg);
        }
    }

    if (commandName.empty())
    {
        PrintCommandList();
        return help ? ExitOk : ExitUsage;
    }
    if (commandName == L"help")
    {
        if (args.empty())
        {
            PrintCommandList();
            return ExitOk;
        }
        const Command* command = FindCommand(args[0]);
        if (command == nullptr)
            return Fail(ExitUsage, L"unknown command " + args[0] + L" (see qxinspect --help)");
        PrintCommandHelp(*command);
        return ExitOk;
    }

    const Command* command = FindCommand(commandName);
    if (command == nullptr)
        return Fail(ExitUsage, L"unknown command " + commandName + L" (see qxinspect --help)");
    if (help)
    {
        PrintCommandHelp(*command);
        return ExitOk;
    }

    if (context.log)
    {
        GetDbgManager()->SetSink(&LogToStderr, nullptr);
        GetDbgManager()->SetDebuggerOutput(true);
    }
    int status = command->run(context, args);
    if (context.log)
    {
        GetDbgManager()->SetDebuggerOutput(false);
        GetDbgManager()->SetSink(nullptr, nullptr);
    }
    return status;
}
