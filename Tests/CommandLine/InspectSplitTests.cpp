// qxinspect split, run as a program: module, arguments and expansion as JSON;
// a command line without a program exits 1, no command line at all 2.

#include "QXTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace
{
TEST(InspectSplit, PrintsModuleArgumentsAndExpansionOrExitCodes)
{
    const std::wstring path = QXTest::HelperPath(L"qxinspect.exe");
    if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES)
        GTEST_SKIP() << "qxinspect.exe is not built beside the tests";
    const std::wstring exe = L"\"" + path + L"\"";
    // The child's argument is: "C:\Program Files\a.exe" /open notepad.exe
    auto run = QXTest::RunProcess(exe + L" --json split \"\\\"C:\\Program Files\\a.exe\\\" /open notepad.exe\"");
    ASSERT_TRUE(run.started);
    EXPECT_EQ(run.exitCode, 0u) << run.output;
    EXPECT_NE(run.output.find("\"split\": true"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("\"module\": \"C:\\\\Program Files\\\\a.exe\""), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("\"arguments\": \"/open notepad.exe\""), std::string::npos) << run.output;
    std::string lower = run.output;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return char(tolower(c)); });
    EXPECT_NE(lower.find("\"expanded\": \"/open c:\\\\windows\\\\system32\\\\notepad.exe\""), std::string::npos)
        << run.output;

    run = QXTest::RunProcess(exe + L" split cmd /c x");
    EXPECT_EQ(run.exitCode, 1u) << run.output;
    EXPECT_NE(run.output.find("qxinspect: no program found"), std::string::npos) << run.output;
    run = QXTest::RunProcess(exe + L" split");
    EXPECT_EQ(run.exitCode, 2u) << run.output;
}
} // namespace
