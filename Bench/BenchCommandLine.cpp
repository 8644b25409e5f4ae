// Command-line splitting: SplitCommandLine against the shell's
// CommandLineToArgvW on the same command lines (quoted programs, unquoted
// programs with blanks, many arguments). Both produce the program; the shell
// also cuts every argument, SplitCommandLine leaves the arguments as one
// string. Argument expansion is timed alone (it touches the file system).

#include "Bench.h"

#include "QXCommon/CommandLineSplitter.h"
#include "QXCommon/ExpandArgs.h"

#include <shellapi.h>

#include <string>
#include <vector>

namespace
{
std::vector<std::wstring> CommandLines()
{
    std::vector<std::wstring> lines = {
        L"\"C:\\Program Files\\Vendor\\App\\app.exe\" /s /v:\"x y\"",
        L"\"C:\\Windows\\System32\\cmd.exe\" /c echo hello",
        L"\"C:\\Program Files (x86)\\Common Files\\Updater\\update.exe\"",
        L"C:\\Program Files\\Vendor\\App\\app.exe /s",
        L"C:\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe -NoProfile -File C:\\x.ps1",
        L"C:\\Program Files (x86)\\Some Vendor\\Long Folder Name\\Tool Name.EXE --flag value",
        L"notepad.exe C:\\Users\\user\\Documents\\notes.txt",
    };
    std::wstring many = L"\"C:\\Tools\\build.exe\"";
    for (int i = 0; i < 100; ++i)
        many += L" -D" + std::to_wstring(i) + L"=value" + std::to_wstring(i);
    lines.push_back(many);
    std::wstring manyUnquoted = L"C:\\Program Files\\Tools\\build.exe";
    for (int i = 0; i < 100; ++i)
        manyUnquoted += L" src\\file" + std::to_wstring(i) + L".cpp";
    lines.push_back(manyUnquoted);
    return lines;
}

void Run(qxbench::Runner& runner)
{
    const std::vector<std::wstring> lines = CommandLines();
    std::wstring module, args;
    auto ours = [&] {
        for (const std::wstring& line : lines)
        {
            QXCommon::CommandLineSplitter::SplitCommandLine(line, module, args);
            qxbench::KeepAlive(module);
        }
    };
    auto shell = [&] {
        for (const std::wstring& line : lines)
        {
            int argc = 0;
            LPWSTR* argv = CommandLineToArgvW(line.c_str(), &argc);
            qxbench::KeepAlive(argv);
            LocalFree(argv);
        }
    };
    runner.Compare(L"SplitCommandLine", L"CommandLineToArgvW", ours, shell, lines.size(),
                   L"9 command lines: quoted, unquoted with blanks, 100 arguments");

    QXCommon::CExpandArgs expander;
    std::wstring expanded;
    const wchar_t* arguments = L"/c notepad.exe -v \"two words\" C:\\abs\\path.txt missing-file.txt cmd.exe";
    runner.Compare(L"ConvertArgsToFullPath", L"",
                   [&] {
                       expander.ConvertArgsToFullPath(arguments, expanded);
                       qxbench::KeepAlive(expanded);
                   },
                   {}, 1, L"7 arguments, 3 looked up on the search path");
}
} // namespace

QXBENCH_CASE(L"commandline", &Run);
