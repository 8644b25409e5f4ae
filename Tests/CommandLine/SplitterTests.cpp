// Splitting a command line into program and arguments, by table, by its log,
// and against CommandLineToArgvW on random quoted programs.

#include "QXTestSupport.h"

#include "QXCommon/CommandLineSplitter.h"

#include <gtest/gtest.h>

#include <shellapi.h>

#include <random>

using QXCommon::CommandLineSplitter;

namespace
{
constexpr const char* SplitFn = "QXCommon::CommandLineSplitter::SplitCommandLine";

struct SplitCase
{
    const wchar_t* cmdLine;
    bool ok;
    const wchar_t* module;
    const wchar_t* args;
};

const SplitCase SplitCases[] = {
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
    {L"\"", false, L"", L""},
    // Unquoted program.
    {L"C:\\Program Files\\App\\a.EXE /s", true, L"C:\\Program Files\\App\\a.EXE", L"/s"},
    {L"C:\\Program  Files\\a.exe", true, L"C:\\Program Files\\a.exe", L""}, // two blanks become one
    {L"notepad.exe", true, L"notepad.exe", L""},
    {L"notepad.exe a  b ", true, L"notepad.exe", L"a  b "},         // spacing of arguments kept
    {L"notepad.exe  a", true, L"notepad.exe", L" a"},               // one blank after the program dropped
    {L"   C:\\x.exe y", true, L"C:\\x.exe", L"y"},                  // leading blanks skipped
    {L".exe", true, L".exe", L""},
    {L"C:\\x.exe\tq", false, L"", L""},                             // tab is no delimiter
    {L"cmd /c x", false, L"", L""},                                 // no extension at all
    {L"C:\\tools\\run.com /x", false, L"", L""},                    // only .exe is recognised
    {L"C:\\tools\\run.bat", false, L"", L""},
    {L"exe", false, L"", L""},
    {L"", false, L"", L""},
    {L"     ", false, L"", L""},                                    // blanks only
    {L"a.exe\"b c.exe", true, L"a.exe\"b c.exe", L""},             // a quote inside is ordinary text
};

TEST(CommandLineSplitter, SplitsTable)
{
    for (const SplitCase& c : SplitCases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.cmdLine));
        std::wstring module = L"stale", args = L"stale";
        EXPECT_EQ(CommandLineSplitter::SplitCommandLine(c.cmdLine, module, args), c.ok);
        EXPECT_EQ(module, c.module);
        EXPECT_EQ(args, c.args);
        if (c.cmdLine[0] == L'"')
            continue;
        // The unquoted splitter alone gives the same for unquoted lines.
        module = args = L"stale";
        EXPECT_EQ(CommandLineSplitter::SplitUnquotedCmdLine(c.cmdLine, module, args), c.ok);
        EXPECT_EQ(module, c.module);
        EXPECT_EQ(args, c.args);
    }
}

TEST(CommandLineSplitter, LogsQuotedPath)
{
    QXTest::LogCapture capture;
    std::wstring module, args;
    ASSERT_TRUE(CommandLineSplitter::SplitCommandLine(L"\"C:\\a b\\x.exe\" -y", module, args));
    auto entries = capture.Entries();
    ASSERT_EQ(entries.size(), 3u) << capture.Dump();
    EXPECT_EQ(entries[0].text, L"ENTER: cmdLine=[\"C:\\a b\\x.exe\" -y]\n");
    EXPECT_EQ(entries[1].text, L"Path is quoted\n");
    EXPECT_EQ(entries[2].text, L"EXIT: outModuleName=[C:\\a b\\x.exe] outArgs=[-y]\n");
    for (const auto& e : entries)
    {
        EXPECT_EQ(e.level, 4);
        EXPECT_EQ(e.function, SplitFn);
        EXPECT_EQ(e.file, "Source/QXCommon/CommandLineSplitter.cpp");
    }
}

TEST(CommandLineSplitter, LogsUnbalancedQuoteAndUnquotedSuccessAndFailure)
{
    QXTest::LogCapture capture;
    std::wstring module, args;
    ASSERT_FALSE(CommandLineSplitter::SplitCommandLine(L"\"C:\\a.exe -y", module, args));
    EXPECT_TRUE(capture.Has(1, SplitFn, L"ERROR didn't find matching \" [\"C:\\a.exe -y]\n")) << capture.Dump();
    EXPECT_TRUE(capture.Has(4, SplitFn, L"EXIT: outModuleName=[] outArgs=[]\n")) << capture.Dump();

    capture.Clear();
    ASSERT_TRUE(CommandLineSplitter::SplitCommandLine(L"C:\\Program Files\\a.exe /s", module, args));
    EXPECT_TRUE(capture.Has(4, SplitFn, L"Path is not quoted\n")) << capture.Dump();
    EXPECT_TRUE(capture.Has(4, SplitFn, L"Application identified as [C:\\Program Files\\a.exe] Arguments=[/s]\n"))
        << capture.Dump();

    capture.Clear();
    ASSERT_FALSE(CommandLineSplitter::SplitCommandLine(L"cmd /c x", module, args));
    auto entries = capture.Entries();
    ASSERT_EQ(entries.size(), 4u) << capture.Dump();
    EXPECT_EQ(entries[2].level, 1);
    EXPECT_EQ(entries[2].text,
              L"ERROR: Failed to identify module/args in [cmd /c x]. Modulename returned as [] Arguments=[]\n");
    EXPECT_EQ(entries[3].text, L"EXIT: outModuleName=[] outArgs=[]\n");
}

TEST(CommandLineSplitter, VeryLongLines)
{
    // 64K characters: a blank-separated program path and a long quoted one.
    std::wstring longPath;
    while (longPath.size() < 65536)
        longPath += L"dir ";
    std::wstring module, args;
    ASSERT_TRUE(CommandLineSplitter::SplitCommandLine(longPath + L"x.exe -a", module, args));
    EXPECT_EQ(module, longPath + L"x.exe");
    EXPECT_EQ(args, L"-a");

    std::wstring noExe(65536, L'a');
    EXPECT_FALSE(CommandLineSplitter::SplitCommandLine(noExe, module, args));
    EXPECT_FALSE(CommandLineSplitter::SplitCommandLine(std::wstring(65536, L' '), module, args));
    EXPECT_FALSE(CommandLineSplitter::SplitCommandLine(L"\"" + noExe, module, args));
    ASSERT_TRUE(CommandLineSplitter::SplitCommandLine(L"\"" + noExe + L"\" z", module, args));
    EXPECT_EQ(module, noExe);
    EXPECT_EQ(args, L"z");
}

// A quoted program: the module is CommandLineToArgvW's argv[0].
TEST(CommandLineSplitter, QuotedModuleMatchesCommandLineToArgvW)
{
    std::mt19937 random(20261123);
    const std::wstring alphabet = L"abcXYZ019 .\\:-_()~,!";
    for (int i = 0; i < 500; ++i)
    {
        std::wstring program;
        const int length = 1 + static_cast<int>(random() % 40);
        for (int k = 0; k < length; ++k)
            program += alphabet[random() % alphabet.size()];
        if (random() % 2)
            program += L".exe";
        std::wstring cmdLine = L"\"" + program + L"\"";
        std::wstring tail;
        for (int k = static_cast<int>(random() % 4); k > 0; --k)
            tail += L" " + std::wstring(1 + random() % 5, alphabet[random() % 8]);
        cmdLine += tail;

        std::wstring module, args;
        ASSERT_TRUE(CommandLineSplitter::SplitCommandLine(cmdLine, module, args)) << QXTest::Narrow(cmdLine);
        int argc = 0;
        LPWSTR* argv = CommandLineToArgvW(cmdLine.c_str(), &argc);
        ASSERT_NE(argv, nullptr);
        ASSERT_GE(argc, 1);
        EXPECT_EQ(module, argv[0]) << QXTest::Narrow(cmdLine);
        EXPECT_EQ(args, tail.empty() ? L"" : tail.substr(1)) << QXTest::Narrow(cmdLine);
        LocalFree(argv);
    }
}
} // namespace
