// Splitting a command line into program and arguments, and argument
// expansion against the prefix's real search path.

#include "QXTestSupport.h"

#include "QXCommon/CommandLineSplitter.h"
#include "QXCommon/ExpandArgs.h"

#include <gtest/gtest.h>

#include <shellapi.h>

#include <optional>

using QXCommon::CExpandArgs;
using QXCommon::CommandLineSplitter;

namespace
{
// The captured lines as "level function: text", with "?" after the level for a line from another file.
std::vector<std::wstring> Lines(const QXTest::LogCapture& capture, const std::string& file)
{
    std::vector<std::wstring> out;
    for (const auto& e : capture.Entries())
        out.push_back(QXTest::Widen(std::to_string(e.level) + (e.file == file ? " " : "? ") + e.function + ": ") + e.text);
    return out;
}
} // namespace

// The program and its arguments, or none (false, both empty), also from the
// unquoted splitter alone for unquoted lines; the log: the entry, the kind of
// line, what was found or why not, and the exit.
TEST(CommandLineSplitter, SplitsTable)
{
    struct Case { std::wstring cmdLine; std::optional<std::wstring> module; std::wstring args; };
    std::wstring noExe(65536, L'a'), longPath;
    while (longPath.size() < 65536)
        longPath += L"dir ";
    const Case cases[] = {
        {L"\"C:\\Program Files\\App\\a.exe\" -x", L"C:\\Program Files\\App\\a.exe", L"-x"},
        {L"\"C:\\a.exe\"-x", L"C:\\a.exe", L"x"},                 // one character dropped, whatever it is
        {L"\"C:\\a.exe\"", L"C:\\a.exe", L""}, {L"\"C:\\a.exe\" ", L"C:\\a.exe", L""}, // ends at the quote, one after it
        {L"\"C:\\a.exe\"  two", L"C:\\a.exe", L" two"},           // only one blank dropped
        {L"\"\"", L"", L""}, {L"\"x.bat\" /q", L"x.bat", L"/q"},  // empty, and no extension needed
        {L"\"C:\\a.exe\" \"q r\" s", L"C:\\a.exe", L"\"q r\" s"}, // argument quotes kept
        {L"\"C:\\Program Files\\a.exe"}, {L"\""}, {L"\"" + noExe}, {L"\"" + noExe + L"\" z", noExe, L"z"}, // unbalanced
        // Unquoted program.
        {L"C:\\Program Files\\App\\a.EXE /s", L"C:\\Program Files\\App\\a.EXE", L"/s"},
        {L"C:\\Program  Files\\a.exe", L"C:\\Program Files\\a.exe", L""}, // two blanks become one
        {L"notepad.exe a  b ", L"notepad.exe", L"a  b "},         // spacing of arguments kept
        {L"notepad.exe  a", L"notepad.exe", L" a"},               // one blank after the program dropped
        {L"   C:\\x.exe y", L"C:\\x.exe", L"y"}, {L".exe", L".exe", L""}, // leading blanks skipped
        {L"C:\\x.exe\tq"}, {L"cmd /c x"}, {L"C:\\tools\\run.com /x"}, // a tab is no delimiter; only .exe is recognised
        {L"exe"}, {L""}, {L"     "}, {noExe}, {std::wstring(65536, L' ')},
        {L"a.exe\"b c.exe", L"a.exe\"b c.exe", L""},             // a quote inside is ordinary text
        {longPath + L"x.exe -a", longPath + L"x.exe", L"-a"},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.cmdLine.substr(0, 60)));
        const bool quoted = c.cmdLine[0] == L'"';
        const std::wstring module = c.module.value_or(L""), exit = L"] outArgs=[" + c.args + L"]\n";
        for (auto split : {&CommandLineSplitter::SplitCommandLine, &CommandLineSplitter::SplitUnquotedCmdLine})
        {
            std::wstring outModule = L"stale", outArgs = L"stale";
            QXTest::LogCapture capture;
            EXPECT_EQ(split(c.cmdLine, outModule, outArgs), c.module.has_value());
            EXPECT_TRUE(outModule == module && outArgs == c.args)
                << QXTest::Narrow(outModule + L"|" + outArgs).substr(0, 99);
            if (split != &CommandLineSplitter::SplitCommandLine)
                continue;
            std::vector<std::wstring> log = {L"4 ENTER: cmdLine=[" + c.cmdLine + L"]\n",
                                             quoted ? L"4 Path is quoted\n" : L"4 Path is not quoted\n"};
            if (!c.module || !quoted)
                log.push_back(!c.module ? (quoted ? L"1 ERROR didn't find matching \" [" + c.cmdLine + L"]\n"
                                                  : L"1 ERROR: Failed to identify module/args in [" + c.cmdLine +
                                                        L"]. Modulename returned as [] Arguments=[]\n")
                                        : L"4 Application identified as [" + module + L"] Arguments=[" + c.args + L"]\n");
            log.push_back(L"4 EXIT: outModuleName=[" + module + exit);
            for (auto& line : log)
                line.insert(2, L"QXCommon::CommandLineSplitter::SplitCommandLine: ");
            EXPECT_EQ(Lines(capture, "Source/QXCommon/CommandLineSplitter.cpp"), log);
            if (quoted)
                break;
        }
    }
}

namespace
{
const std::wstring Convert = L"4 QXCommon::CExpandArgs::ConvertArgsToFullPath: ",
                   Tokens = L"4 QXCommon::CExpandArgs::ExpandArguments: Tokens Identified [";

// The arguments as CommandLineToArgvW reads them, lower-cased.
std::vector<std::wstring> ArgvOf(const std::wstring& args)
{
    int argc = 0;
    LPWSTR* argv = CommandLineToArgvW((L"prog.exe " + args).c_str(), &argc);
    std::vector<std::wstring> result;
    for (int i = 1; argv != nullptr && i < argc; ++i)
        result.emplace_back(_wcslwr(argv[i]));
    LocalFree(argv);
    return result;
}

std::wstring Expand(const std::wstring& input)
{
    std::wstring result = L"stale";
    EXPECT_EQ(CExpandArgs().ConvertArgsToFullPath(input.c_str(), result), 1) << QXTest::Narrow(input);
    return result;
}

} // namespace

// How arguments are cut and joined again, by the result and by the log
// (nothing here is on the search path); a null text is refused.
TEST(ExpandArgs, CutsAndJoinsArguments)
{
    struct Case { const wchar_t* input; std::vector<std::wstring> tokens; const wchar_t* result; };
    const Case cases[] = {
        {L"a,,b", {L"a", L"", L"b"}, L"a  b"}, {L"-x /y", {L"-x", L"/y"}, L"-x /y"},
        {L"a  b", {L"a", L"", L"b"}, L"a  b"}, {L"a\tb\r\nc", {L"a", L"b", L"", L"c"}, L"a b  c"},
        {L" a", {L"", L"a"}, L" a"}, {L"a ", {L"a"}, L"a"}, {L"\"q r\" s", {L"q r", L"s"}, L"\"q r\" s"},
        {L"\"q,r\",s", {L"q,r", L"s"}, L"\"q,r\" s"},
        {L"\"abc d", {L"abc d"}, L"\"abc d\""},           // unbalanced: runs to the end
        {L"\"a\"b\" c", {L"a\"b", L"c"}, L"a\"b c"},       // inner quote not followed by a separator
        {L"\"a\"b c\" d", {L"a\"b c", L"d"}, L"\"a\"b c\" d"}, // quoted again: a quote inside stays
        {L"\"\" x", {L"", L"x"}, L" x"},
        {L"x\"y z\"", {L"x\"y", L"z\""}, L"x\"y z\""},     // a quote inside an unquoted argument is text
        {L"", {}, L""}, {L"   ", {L"", L"", L""}, L"  \"\""}, {L",", {L""}, L"\"\""}, // an empty last argument is kept
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.input));
        QXTest::LogCapture capture;
        const std::wstring result = Expand(c.input);
        EXPECT_EQ(result, c.result);
        std::vector<std::wstring> expected = {Convert + L"Before Conversion [" + c.input + L"]\n"};
        for (const auto& token : c.tokens)
            expected.push_back(Tokens + token + L"]\n");
        expected.push_back(Convert + L"After Conversion [" + result + L"]\n");
        EXPECT_EQ(Lines(capture, "Source/QXCommon/ExpandArgs.cpp"), expected);
    }
    QXTest::LogCapture capture;
    std::wstring unchanged = L"unchanged";
    EXPECT_TRUE(CExpandArgs().ConvertArgsToFullPath(nullptr, unchanged) == 0 && unchanged == L"unchanged");
    EXPECT_EQ(Lines(capture, "Source/QXCommon/ExpandArgs.cpp"),
              std::vector<std::wstring>{Convert + L"Invalid Parameter no conversion possible\n"});
}

// Bare file names found on the search path become full paths, in folders
// with blanks too; full paths are not looked up again.
TEST(ExpandArgs, ProgramsOnTheSearchPathBecomeFullPaths)
{
    wchar_t systemDir[MAX_PATH] = {};
    const std::wstring system = _wcslwr((GetSystemDirectoryW(systemDir, MAX_PATH), systemDir));
    std::wstring many;
    for (int i = 0; i < 400; ++i)
        many += (i % 100 == 0) ? L"notepad.exe " : L"x.y ";
    struct Case { std::wstring input; std::vector<std::wstring> expected; };
    const Case cases[] = {
        {L"notepad.exe", {system + L"\\notepad.exe"}},
        {L"/c cmd.exe,NOTEPAD.EXE", {L"/c", system + L"\\cmd.exe", system + L"\\notepad.exe"}},
        {L"\"cmd.exe\" -q", {system + L"\\cmd.exe", L"-q"}},
        // Not found, or not tried (no extension, directory or drive part): unchanged.
        {L"qx-no-such-file-4711.txt notepad sub\\notepad.exe C:notepad.exe ./cmd.exe qxprobe.dat",
         {L"qx-no-such-file-4711.txt", L"notepad", L"sub\\notepad.exe", L"c:notepad.exe", L"./cmd.exe", L"qxprobe.dat"}},
    };
    for (const Case& c : cases)
        EXPECT_EQ(ArgvOf(Expand(c.input)), c.expected);
    QXTest::LogCapture capture;
    const std::wstring found = Expand(L"notepad.exe");
    EXPECT_LOGGED(capture, 4, "QXCommon::CExpandArgs::ExpandArguments", L"Token Expanded to [" + found + L"]\n");
    const auto argv = ArgvOf(Expand(many));
    EXPECT_TRUE(argv.size() == 400u && argv[300] == system + L"\\notepad.exe" && argv[299] == L"x.y");
    // One argument of 64K characters with a dot is too long to be a file
    // name; 64K of commas are one empty argument each.
    std::wstring huge(65536, L'a');
    huge[100] = L'.';
    EXPECT_EQ(Expand(huge), huge);
    EXPECT_EQ(Expand(std::wstring(65536, L',')), std::wstring(65535, L' ') + L"\"\"");

    QXTest::TempDir temp;
    const std::wstring dir = temp.MakeDir(L"dir with blanks"), lower = _wcslwr(std::wstring(dir).data());
    temp.Write(L"dir with blanks\\qx probe tool.exe", "");
    temp.Write(L"dir with blanks\\qxprobe.dat", "");
    std::wstring saved(32767, L'\0');
    saved.resize(GetEnvironmentVariableW(L"PATH", saved.data(), 32767));
    SetEnvironmentVariableW(L"PATH", (dir + L";" + saved).c_str());
    const std::wstring result = Expand(L"\"qx probe tool.exe\" -v,qxprobe.dat \"not here.txt\""), again = Expand(result);
    SetEnvironmentVariableW(L"PATH", saved.c_str());
    EXPECT_EQ(ArgvOf(result), (std::vector<std::wstring>{lower + L"\\qx probe tool.exe", L"-v", lower + L"\\qxprobe.dat",
                                                          L"not here.txt"}));
    EXPECT_EQ(again, result);
}
