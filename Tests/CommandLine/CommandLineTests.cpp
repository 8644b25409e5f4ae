// Splitting a command line into program and arguments (by table and by its
// log), and argument expansion against the prefix's real search path: how
// arguments are cut (quotes, commas, empty arguments) and joined again.

#include "QXTestSupport.h"

#include "QXCommon/CommandLineSplitter.h"
#include "QXCommon/ExpandArgs.h"

#include <gtest/gtest.h>

#include <shellapi.h>

using QXCommon::CExpandArgs;
using QXCommon::CommandLineSplitter;

TEST(CommandLineSplitter, SplitsTable)
{
    struct Case { std::wstring cmdLine; bool ok; std::wstring module, args; };
    const std::wstring noExe(65536, L'a');
    std::wstring longPath;
    while (longPath.size() < 65536)
        longPath += L"dir ";
    const Case cases[] = {
        // Quoted program.
        {L"\"C:\\Program Files\\App\\a.exe\" -x", true, L"C:\\Program Files\\App\\a.exe", L"-x"},
        {L"\"C:\\a.exe\"-x", true, L"C:\\a.exe", L"x"},                 // one character dropped, whatever it is
        {L"\"C:\\a.exe\"", true, L"C:\\a.exe", L""},                    // ends at the closing quote
        {L"\"C:\\a.exe\" ", true, L"C:\\a.exe", L""},                   // ends one after it
        {L"\"C:\\a.exe\"  two", true, L"C:\\a.exe", L" two"},           // only one blank dropped
        {L"\"\"", true, L"", L""},                                      // empty quoted program
        {L"\"x.bat\" /q", true, L"x.bat", L"/q"},                       // quoted needs no extension
        {L"\"C:\\a.exe\" \"q r\" s", true, L"C:\\a.exe", L"\"q r\" s"}, // argument quotes kept
        {L"\"C:\\Program Files\\a.exe", false, L"", L""},               // unbalanced quote
        {L"\"", false, L"", L""}, {L"\"" + noExe, false, L"", L""}, {L"\"" + noExe + L"\" z", true, noExe, L"z"},
        // Unquoted program.
        {L"C:\\Program Files\\App\\a.EXE /s", true, L"C:\\Program Files\\App\\a.EXE", L"/s"},
        {L"C:\\Program  Files\\a.exe", true, L"C:\\Program Files\\a.exe", L""}, // two blanks become one
        {L"notepad.exe a  b ", true, L"notepad.exe", L"a  b "},         // spacing of arguments kept
        {L"notepad.exe  a", true, L"notepad.exe", L" a"},               // one blank after the program dropped
        {L"   C:\\x.exe y", true, L"C:\\x.exe", L"y"},                  // leading blanks skipped
        {L".exe", true, L".exe", L""},
        {L"C:\\x.exe\tq", false, L"", L""},                             // tab is no delimiter
        {L"cmd /c x", false, L"", L""},                                 // no extension at all
        {L"C:\\tools\\run.com /x", false, L"", L""},                    // only .exe is recognised
        {L"exe", false, L"", L""}, {L"", false, L"", L""}, {L"     ", false, L"", L""},
        {L"a.exe\"b c.exe", true, L"a.exe\"b c.exe", L""},             // a quote inside is ordinary text
        {longPath + L"x.exe -a", true, longPath + L"x.exe", L"-a"}, {noExe, false, L"", L""},
        {std::wstring(65536, L' '), false, L"", L""},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.cmdLine.substr(0, 60)));
        std::wstring module = L"stale", args = L"stale";
        EXPECT_EQ(CommandLineSplitter::SplitCommandLine(c.cmdLine, module, args), c.ok);
        EXPECT_TRUE(module == c.module && args == c.args) << QXTest::Narrow(module + L" | " + args).substr(0, 200);
        if (c.cmdLine[0] == L'"')
            continue;
        // The unquoted splitter alone gives the same for unquoted lines.
        module = args = L"stale";
        EXPECT_EQ(CommandLineSplitter::SplitUnquotedCmdLine(c.cmdLine, module, args), c.ok);
        EXPECT_TRUE(module == c.module && args == c.args);
    }
}

// Every line of the splitter's log, as level and text.
TEST(CommandLineSplitter, LogsItsSteps)
{
    const std::pair<const wchar_t*, std::vector<std::wstring>> cases[] = {
        {L"\"C:\\a b\\x.exe\" -y", {L"4 ENTER: cmdLine=[\"C:\\a b\\x.exe\" -y]\n", L"4 Path is quoted\n",
                                      L"4 EXIT: outModuleName=[C:\\a b\\x.exe] outArgs=[-y]\n"}},
        {L"\"C:\\a.exe -y", {L"4 ENTER: cmdLine=[\"C:\\a.exe -y]\n", L"4 Path is quoted\n",
                              L"1 ERROR didn't find matching \" [\"C:\\a.exe -y]\n", L"4 EXIT: outModuleName=[] outArgs=[]\n"}},
        {L"C:\\Program Files\\a.exe /s",
         {L"4 ENTER: cmdLine=[C:\\Program Files\\a.exe /s]\n", L"4 Path is not quoted\n",
          L"4 Application identified as [C:\\Program Files\\a.exe] Arguments=[/s]\n",
          L"4 EXIT: outModuleName=[C:\\Program Files\\a.exe] outArgs=[/s]\n"}},
        {L"cmd /c x", {L"4 ENTER: cmdLine=[cmd /c x]\n", L"4 Path is not quoted\n",
                       L"1 ERROR: Failed to identify module/args in [cmd /c x]. Modulename returned as [] Arguments=[]\n",
                       L"4 EXIT: outModuleName=[] outArgs=[]\n"}},
    };
    for (const auto& [cmdLine, expected] : cases)
    {
        QXTest::LogCapture capture;
        std::wstring module, args;
        CommandLineSplitter::SplitCommandLine(cmdLine, module, args);
        std::vector<std::wstring> lines;
        for (const auto& e : capture.Entries())
        {
            EXPECT_TRUE(e.function == "QXCommon::CommandLineSplitter::SplitCommandLine" &&
                        e.file == "Source/QXCommon/CommandLineSplitter.cpp") << capture.Dump();
            lines.push_back(std::to_wstring(e.level) + L" " + e.text);
        }
        EXPECT_EQ(lines, expected) << capture.Dump();
    }
}

namespace
{
constexpr const char* ConvertFn = "QXCommon::CExpandArgs::ConvertArgsToFullPath";
constexpr const char* ExpandFn = "QXCommon::CExpandArgs::ExpandArguments";

std::wstring SystemDir()
{
    wchar_t dir[MAX_PATH] = {};
    GetSystemDirectoryW(dir, MAX_PATH);
    return dir;
}

// The arguments of `line` as CommandLineToArgvW reads them, lower-cased.
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

TEST(ExpandArgs, CutsAndJoinsArguments)
{
    struct Case { const wchar_t* input; std::vector<std::wstring> tokens; const wchar_t* result; };
    const Case cases[] = { // nothing here is on the search path
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
        EXPECT_EQ(Expand(c.input), c.result);
        std::vector<std::wstring> tokens;
        for (const auto& e : capture.Entries())
        {
            EXPECT_TRUE(e.text.rfind(L"Token Expanded to", 0) != 0) << capture.Dump();
            if (e.function == ExpandFn && e.text.rfind(L"Tokens Identified [", 0) == 0)
                tokens.push_back(e.text.substr(19, e.text.size() - 21));
        }
        EXPECT_EQ(tokens, c.tokens) << capture.Dump();
    }
}

TEST(ExpandArgs, LogsEachStepAndRefusesNull)
{
    QXTest::LogCapture capture;
    const std::wstring result = Expand(L"-v notepad.exe");
    std::vector<std::wstring> texts;
    for (const auto& e : capture.Entries())
    {
        EXPECT_EQ(e.level, 4);
        EXPECT_EQ(e.file, "Source/QXCommon/ExpandArgs.cpp");
        texts.push_back(QXTest::Widen(e.function) + L": " + e.text);
    }
    const std::wstring convert = QXTest::Widen(ConvertFn) + L": ", expand = QXTest::Widen(ExpandFn) + L": ";
    EXPECT_EQ(texts, (std::vector<std::wstring>{convert + L"Before Conversion [-v notepad.exe]\n",
                                                 expand + L"Tokens Identified [-v]\n",
                                                 expand + L"Tokens Identified [notepad.exe]\n",
                                                 expand + L"Token Expanded to [" + result.substr(3) + L"]\n",
                                                 convert + L"After Conversion [" + result + L"]\n"}));
    capture.Clear();
    std::wstring unchanged = L"unchanged";
    EXPECT_EQ(CExpandArgs().ConvertArgsToFullPath(nullptr, unchanged), 0);
    EXPECT_EQ(unchanged, L"unchanged");
    EXPECT_EQ(capture.Count(), 1u);
    EXPECT_LOGGED(capture, 4, ConvertFn, L"Invalid Parameter no conversion possible\n");
}

TEST(ExpandArgs, ProgramsOnTheSearchPathBecomeFullPaths)
{
    const std::wstring system = _wcslwr(SystemDir().data());
    std::wstring many;
    for (int i = 0; i < 400; ++i)
        many += (i % 100 == 0) ? L"notepad.exe " : L"x.y ";
    struct Case { std::wstring input; std::vector<std::wstring> expected; };
    const Case cases[] = {
        {L"notepad.exe", {system + L"\\notepad.exe"}},
        {L"/c cmd.exe,NOTEPAD.EXE", {L"/c", system + L"\\cmd.exe", system + L"\\notepad.exe"}},
        {L"\"cmd.exe\" -q", {system + L"\\cmd.exe", L"-q"}},
        // Not found, or not tried (no extension, directory or drive part): unchanged.
        {L"qx-no-such-file-4711.txt notepad sub\\notepad.exe C:notepad.exe ./cmd.exe",
         {L"qx-no-such-file-4711.txt", L"notepad", L"sub\\notepad.exe", L"c:notepad.exe", L"./cmd.exe"}},
    };
    for (const Case& c : cases)
        EXPECT_EQ(ArgvOf(Expand(c.input)), c.expected);
    const auto argv = ArgvOf(Expand(many));
    ASSERT_EQ(argv.size(), 400u);
    EXPECT_EQ(argv[300], system + L"\\notepad.exe");
    EXPECT_EQ(argv[299], L"x.y");

    // One argument of 64K characters with a dot is too long to be a file
    // name; 64K of commas are one empty argument each.
    std::wstring huge(65536, L'a');
    huge[100] = L'.';
    EXPECT_EQ(Expand(huge), huge);
    EXPECT_EQ(Expand(std::wstring(65536, L',')), std::wstring(65535, L' ') + L"\"\"");
}

TEST(ExpandArgs, FileInFolderWithBlanksOnPathStaysOneArgument)
{
    QXTest::TempDir temp;
    const std::wstring dir = temp.MakeDir(L"dir with blanks");
    temp.Write(L"dir with blanks\\qx probe tool.exe", "");
    temp.Write(L"dir with blanks\\qxprobe.dat", "");
    EXPECT_EQ(Expand(L"qxprobe.dat"), L"qxprobe.dat"); // not on the search path yet

    std::wstring saved(32767, L'\0');
    saved.resize(GetEnvironmentVariableW(L"PATH", saved.data(), 32767));
    SetEnvironmentVariableW(L"PATH", (dir + L";" + saved).c_str());
    const std::wstring result = Expand(L"\"qx probe tool.exe\" -v,qxprobe.dat \"not here.txt\"");
    // Expanding the result again changes nothing: full paths are not looked up.
    const std::wstring again = Expand(result);
    SetEnvironmentVariableW(L"PATH", saved.c_str());
    const std::wstring lower = _wcslwr(std::wstring(dir).data());
    EXPECT_EQ(ArgvOf(result), (std::vector<std::wstring>{lower + L"\\qx probe tool.exe", L"-v",
                                                          lower + L"\\qxprobe.dat", L"not here.txt"}));
    EXPECT_EQ(again, result);
}
