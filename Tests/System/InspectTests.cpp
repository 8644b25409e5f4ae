// qxinspect's os, error, guid and exe commands, run as the tool is run.

#include "QXTestSupport.h"

#include "QXCommon/QXCommonFunctions.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{
// Runs qxinspect, checks its exit code and that every fragment is in its
// output, and returns the output.
std::string ExpectInspect(const std::wstring& arguments, DWORD exitCode, const std::vector<std::string>& fragments)
{
    SCOPED_TRACE(QXTest::Narrow(arguments));
    auto run = QXTest::RunProcess(L"\"" + QXTest::HelperPath(L"qxinspect.exe") + L"\" " + arguments);
    EXPECT_TRUE(run.started);
    EXPECT_EQ(run.exitCode, exitCode) << run.output;
    for (const auto& fragment : fragments)
        EXPECT_NE(run.output.find(fragment), std::string::npos) << fragment << "\n" << run.output;
    return run.output;
}
} // namespace

TEST(Inspect, CommandsAndExitCodes)
{
    wchar_t system[MAX_PATH] = {};
    ASSERT_NE(GetSystemDirectoryW(system, MAX_PATH), 0u);
    const std::wstring dll = L"\"" + std::wstring(system) + L"\\kernel32.dll\"";
    QXTest::TempDir dir;
    const std::wstring text = L"\"" + dir.Write(L"notes.txt", "just text, no headers at all") + L"\"";
    const std::string message = QXTest::Narrow(QXCommonFunctions::ErrorMessageFromCode(5));
    ASSERT_FALSE(message.empty());

    ExpectInspect(L"--json os", 0,
                  {"\"is64BitArchitecture\": true", "\"isWow64\": false", "\"fsRedirectionEnabled\": false",
                   "\"os\": ", "\"name\": \""});
    ExpectInspect(L"error 5", 0, {"hresult: 0x00000005 ", "message: " + message});
    ExpectInspect(L"--json error 0x80040201", 0, {"\"hresult\": \"0x80040201 IDispatch error #1\""});
    ExpectInspect(L"--json exe " + dll, 0, {"\"isNTExe\": true", "\"ntExeOrAccessRestricted\": 1"});
    ExpectInspect(L"exe " + dll + L" " + text, 1, {"not an NT image"});
    ExpectInspect(L"exe \"" + dir.File(L"missing.exe") + L"\" " + text, 3, {"error 2"});
    ExpectInspect(L"guid --canonicalize abc", 0, {"{ABC}"});
    for (const wchar_t* bad : {L"error", L"error notanumber", L"exe", L"os extra", L"guid --canonicalize"})
        ExpectInspect(bad, 2, {"qxinspect: "});

    const std::string guid = ExpectInspect(L"guid", 0, {});
    ASSERT_GE(guid.size(), 38u);
    EXPECT_EQ(guid[0], '{');
    EXPECT_EQ(guid[37], '}');
}
