// Argument expansion against the prefix's real search path, and how arguments
// are cut (quotes, commas, empty arguments) and joined again.

#include "QXTestSupport.h"

#include "QXCommon/ExpandArgs.h"

#include <gtest/gtest.h>

#include <shellapi.h>

#include <string>
#include <vector>

using QXCommon::CExpandArgs;

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

// The arguments as CommandLineToArgvW reads them (behind a dummy program).
std::vector<std::wstring> ArgvOf(const std::wstring& args)
{
    std::wstring line = L"prog.exe " + args;
    int argc = 0;
    LPWSTR* argv = CommandLineToArgvW(line.c_str(), &argc);
    std::vector<std::wstring> result;
    for (int i = 1; argv != nullptr && i < argc; ++i)
        result.emplace_back(argv[i]);
    LocalFree(argv);
    return result;
}

// The arguments of `line` equal `expected`, paths compared without regard to case.
void ExpectArgs(const std::wstring& line, const std::vector<std::wstring>& expected)
{
    auto argv = ArgvOf(line);
    ASSERT_EQ(argv.size(), expected.size()) << QXTest::Narrow(line);
    for (size_t i = 0; i < argv.size(); ++i)
        EXPECT_EQ(_wcsicmp(argv[i].c_str(), expected[i].c_str()), 0)
            << QXTest::Narrow(argv[i]) << " vs " << QXTest::Narrow(expected[i]);
}

// The argument list ExtractArguments produced, read back from the log.
std::vector<std::wstring> TokensLogged(const QXTest::LogCapture& capture)
{
    std::vector<std::wstring> tokens;
    const std::wstring prefix = L"Tokens Identified [";
    for (const auto& e : capture.Entries())
    {
        if (e.function == ExpandFn && e.text.rfind(prefix, 0) == 0)
            tokens.push_back(e.text.substr(prefix.size(), e.text.size() - prefix.size() - 2));
    }
    return tokens;
}

// Puts a folder in front of PATH for the test and restores PATH afterwards.
struct PathPrepend
{
    explicit PathPrepend(const std::wstring& dir)
    {
        saved.resize(GetEnvironmentVariableW(L"PATH", nullptr, 0));
        saved.resize(GetEnvironmentVariableW(L"PATH", saved.data(), static_cast<DWORD>(saved.size())));
        SetEnvironmentVariableW(L"PATH", (dir + L";" + saved).c_str());
    }
    ~PathPrepend() { SetEnvironmentVariableW(L"PATH", saved.c_str()); }
    std::wstring saved;
};

struct CutCase
{
    const wchar_t* input;
    std::vector<std::wstring> tokens; // what ExtractArguments cuts
    const wchar_t* result;            // what comes back (nothing here is on the search path)
};

TEST(ExpandArgs, CutsAndJoinsArguments)
{
    const CutCase cases[] = {
        {L"a,,b", {L"a", L"", L"b"}, L"a  b"},
        {L"-x /y", {L"-x", L"/y"}, L"-x /y"},
        {L"a  b", {L"a", L"", L"b"}, L"a  b"},
        {L"a\tb\r\nc", {L"a", L"b", L"", L"c"}, L"a b  c"},
        {L" a", {L"", L"a"}, L" a"},
        {L"a ", {L"a"}, L"a"},
        {L"\"q r\" s", {L"q r", L"s"}, L"\"q r\" s"},
        {L"\"q,r\",s", {L"q,r", L"s"}, L"\"q,r\" s"},
        {L"\"q r\"", {L"q r"}, L"\"q r\""},
        {L"\"abc d", {L"abc d"}, L"\"abc d\""},         // unbalanced: runs to the end
        {L"\"a\"b\" c", {L"a\"b", L"c"}, L"a\"b c"},     // inner quote not followed by a separator
        {L"\"a\"b c\" d", {L"a\"b c", L"d"}, L"\"a\"b c\" d"}, // quoted again: a quote inside stays
        {L"\"\" x", {L"", L"x"}, L" x"},
        {L"x\"y z\"", {L"x\"y", L"z\""}, L"x\"y z\""},   // a quote inside an unquoted argument is text
        {L"", {}, L""},
        {L"   ", {L"", L"", L""}, L"  \"\""}, // an empty last argument is kept
        {L",", {L""}, L"\"\""},
    };
    for (const CutCase& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.input));
        QXTest::LogCapture capture;
        std::wstring result = L"stale";
        ASSERT_EQ(CExpandArgs().ConvertArgsToFullPath(c.input, result), 1);
        EXPECT_EQ(TokensLogged(capture), c.tokens) << capture.Dump();
        EXPECT_EQ(result, c.result);
        EXPECT_FALSE(capture.HasFragment(L"Token Expanded to")) << capture.Dump();
    }
}

TEST(ExpandArgs, NullInputIsRefused)
{
    QXTest::LogCapture capture;
    std::wstring result = L"unchanged";
    EXPECT_EQ(CExpandArgs().ConvertArgsToFullPath(nullptr, result), 0);
    EXPECT_EQ(result, L"unchanged");
    EXPECT_TRUE(capture.Has(4, ConvertFn, L"Invalid Parameter no conversion possible\n")) << capture.Dump();
    EXPECT_EQ(capture.Count(), 1u);
}

TEST(ExpandArgs, SystemProgramsBecomeFullPaths)
{
    const std::wstring system = SystemDir();
    CExpandArgs expand;
    struct
    {
        const wchar_t* input;
        std::vector<std::wstring> expected;
    } cases[] = {
        {L"notepad.exe", {system + L"\\notepad.exe"}},
        {L"/c cmd.exe,notepad.exe", {L"/c", system + L"\\cmd.exe", system + L"\\notepad.exe"}},
        {L"\"cmd.exe\" -q", {system + L"\\cmd.exe", L"-q"}},
        {L"NOTEPAD.EXE", {system + L"\\NOTEPAD.EXE"}},
        // Not found, or not tried (no extension, directory or drive part): unchanged.
        {L"qx-no-such-file-4711.txt notepad sub\\notepad.exe C:notepad.exe ./cmd.exe",
         {L"qx-no-such-file-4711.txt", L"notepad", L"sub\\notepad.exe", L"C:notepad.exe", L"./cmd.exe"}},
    };
    for (const auto& c : cases)
    {
        std::wstring result;
        ASSERT_EQ(expand.ConvertArgsToFullPath(c.input, result), 1);
        ExpectArgs(result, c.expected);
    }
}

TEST(ExpandArgs, LogsEachStep)
{
    QXTest::LogCapture capture;
    CExpandArgs expand;
    std::wstring result;
    ASSERT_EQ(expand.ConvertArgsToFullPath(L"-v notepad.exe", result), 1);
    auto entries = capture.Entries();
    ASSERT_EQ(entries.size(), 5u) << capture.Dump();
    EXPECT_EQ(entries[0].function, ConvertFn);
    EXPECT_EQ(entries[0].text, L"Before Conversion [-v notepad.exe]\n");
    EXPECT_EQ(entries[1].function, ExpandFn);
    EXPECT_EQ(entries[1].text, L"Tokens Identified [-v]\n");
    EXPECT_EQ(entries[2].text, L"Tokens Identified [notepad.exe]\n");
    EXPECT_EQ(entries[3].function, ExpandFn);
    EXPECT_EQ(entries[3].text, L"Token Expanded to [" + result.substr(3) + L"]\n");
    EXPECT_EQ(entries[4].text, L"After Conversion [" + result + L"]\n");
    for (const auto& e : entries)
    {
        EXPECT_EQ(e.level, 4);
        EXPECT_EQ(e.file, "Source/QXCommon/ExpandArgs.cpp");
    }
}

TEST(ExpandArgs, FileInFolderWithBlanksOnPathStaysOneArgument)
{
    QXTest::TempDir temp;
    const std::wstring dir = temp.MakeDir(L"dir with blanks");
    temp.Write(L"dir with blanks\\qx probe tool.exe", "");
    temp.Write(L"dir with blanks\\qxprobe.dat", "");

    CExpandArgs expand;
    std::wstring before;
    ASSERT_EQ(expand.ConvertArgsToFullPath(L"qxprobe.dat", before), 1);
    EXPECT_EQ(before, L"qxprobe.dat"); // not on the search path yet

    PathPrepend path(dir);
    std::wstring result;
    ASSERT_EQ(expand.ConvertArgsToFullPath(L"\"qx probe tool.exe\" -v,qxprobe.dat \"not here.txt\"", result), 1);
    ExpectArgs(result, {dir + L"\\qx probe tool.exe", L"-v", dir + L"\\qxprobe.dat", L"not here.txt"});

    // Expanding the result again changes nothing: full paths are not looked up.
    std::wstring again;
    ASSERT_EQ(expand.ConvertArgsToFullPath(result.c_str(), again), 1);
    EXPECT_EQ(again, result);
}

TEST(ExpandArgs, VeryLongInput)
{
    CExpandArgs expand;
    std::wstring result;

    // One argument of 64K characters with a dot: too long to be a file name.
    std::wstring huge(65536, L'a');
    huge[100] = L'.';
    ASSERT_EQ(expand.ConvertArgsToFullPath(huge.c_str(), result), 1);
    EXPECT_EQ(result, huge);

    // 64K of commas: one empty argument per comma.
    std::wstring commas(65536, L',');
    ASSERT_EQ(expand.ConvertArgsToFullPath(commas.c_str(), result), 1);
    EXPECT_EQ(result, std::wstring(65535, L' ') + L"\"\"");

    // Many short arguments, some found.
    std::wstring many;
    for (int i = 0; i < 400; ++i)
        many += (i % 100 == 0) ? L"notepad.exe " : L"x.y ";
    ASSERT_EQ(expand.ConvertArgsToFullPath(many.c_str(), result), 1);
    auto argv = ArgvOf(result);
    ASSERT_EQ(argv.size(), 400u);
    EXPECT_EQ(_wcsicmp(argv[300].c_str(), (SystemDir() + L"\\notepad.exe").c_str()), 0);
    EXPECT_EQ(argv[299], L"x.y");
}
} // namespace
