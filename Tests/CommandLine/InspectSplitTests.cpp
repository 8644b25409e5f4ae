// qxinspect split, run as a program: the module, the arguments and their
// expansion come out as JSON, and a command line without a program exits 1.

#include "QXTestSupport.h"

#include <gtest/gtest.h>

namespace
{
std::wstring Inspect()
{
    const std::wstring path = QXTest::HelperPath(L"qxinspect.exe");
    return GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES ? std::wstring() : L"\"" + path + L"\"";
}

TEST(InspectSplit, PrintsModuleArgumentsAndExpansion)
{
    const std::wstring exe = Inspect();
    if (exe.empty())
        GTEST_SKIP() << "qxinspect.exe is not built beside the tests";
    // The child's argument is: "C:\Program Files\a.exe" /open notepad.exe
    auto run = QXTest::RunProcess(exe + L" --json split \"\\\"C:\\Program Files\\a.exe\\\" /open notepad.exe\"");
    ASSERT_TRUE(run.started);
    EXPECT_EQ(run.exitCode, 0u) << run.output;
    EXPECT_NE(run.output.find("\"split\": true"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("\"module\": \"C:\\\\Program Files\\\\a.exe\""), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("\"arguments\": \"/open notepad.exe\""), std::string::npos) << run.output;
    std::string lower = run.output;
    for (char& c : lower)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    EXPECT_NE(lower.find("\"expanded\": \"/open c:\\\\windows\\\\system32\\\\notepad.exe\""), std::string::npos)
        << run.output;
}

TEST(InspectSplit, CommandLineWithoutProgramExitsOne)
{
    const std::wstring exe = Inspect();
    if (exe.empty())
        GTEST_SKIP() << "qxinspect.exe is not built beside the tests";
    auto run = QXTest::RunProcess(exe + L" split cmd /c x");
    ASSERT_TRUE(run.started);
    EXPECT_EQ(run.exitCode, 1u) << run.output;
    EXPECT_NE(run.output.find("qxinspect: no program found"), std::string::npos) << run.output;

    run = QXTest::RunProcess(exe + L" split");
    EXPECT_EQ(run.exitCode, 2u) << run.output;
}
} // namespace
