// qxinspect's os, error, guid and exe commands, run as the tool is run.

#include "QXTestSupport.h"

#include "QXCommon/QXCommonFunctions.h"

#include <gtest/gtest.h>

#include <string>

namespace
{
QXTest::ProcessResult Inspect(const std::wstring& arguments)
{
    return QXTest::RunProcess(L"\"" + QXTest::HelperPath(L"qxinspect.exe") + L"\" " + arguments);
}

bool Contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}
} // namespace

TEST(Inspect, OsAsJson)
{
    auto run = Inspect(L"--json os");
    ASSERT_TRUE(run.started);
    EXPECT_EQ(run.exitCode, 0u) << run.output;
    EXPECT_TRUE(Contains(run.output, "\"is64BitArchitecture\": true")) << run.output;
    EXPECT_TRUE(Contains(run.output, "\"isWow64\": false")) << run.output;
    EXPECT_TRUE(Contains(run.output, "\"fsRedirectionEnabled\": false")) << run.output;
    EXPECT_TRUE(Contains(run.output, "\"os\": ")) << run.output;
    EXPECT_TRUE(Contains(run.output, "\"name\": \"")) << run.output;
}

TEST(Inspect, ErrorTexts)
{
    auto run = Inspect(L"error 5");
    EXPECT_EQ(run.exitCode, 0u) << run.output;
    std::string message = QXTest::Narrow(QXCommonFunctions::ErrorMessageFromCode(5));
    ASSERT_FALSE(message.empty());
    EXPECT_TRUE(Contains(run.output, "hresult: 0x00000005 ")) << run.output;
    EXPECT_TRUE(Contains(run.output, "message: " + message)) << run.output;

    run = Inspect(L"--json error 0x80040201");
    EXPECT_EQ(run.exitCode, 0u) << run.output;
    EXPECT_TRUE(Contains(run.output, "\"hresult\": \"0x80040201 IDispatch error #1\"")) << run.output;
}

TEST(Inspect, ExeAnswersAndExitCodes)
{
    wchar_t system[MAX_PATH] = {};
    ASSERT_NE(GetSystemDirectoryW(system, MAX_PATH), 0u);
    std::wstring dll = std::wstring(system) + L"\\kernel32.dll";
    auto run = Inspect(L"--json exe \"" + dll + L"\"");
    EXPECT_EQ(run.exitCode, 0u) << run.output;
    EXPECT_TRUE(Contains(run.output, "\"isNTExe\": true")) << run.output;
    EXPECT_TRUE(Contains(run.output, "\"ntExeOrAccessRestricted\": 1")) << run.output;

    QXTest::TempDir dir;
    std::wstring text = dir.Write(L"notes.txt", "just text, no headers at all");
    run = Inspect(L"exe \"" + dll + L"\" \"" + text + L"\"");
    EXPECT_EQ(run.exitCode, 1u) << run.output;
    EXPECT_TRUE(Contains(run.output, "not an NT image")) << run.output;

    run = Inspect(L"exe \"" + dir.File(L"missing.exe") + L"\" \"" + text + L"\"");
    EXPECT_EQ(run.exitCode, 3u) << run.output;
    EXPECT_TRUE(Contains(run.output, "error 2")) << run.output;
}

TEST(Inspect, GuidCommands)
{
    auto run = Inspect(L"guid");
    EXPECT_EQ(run.exitCode, 0u) << run.output;
    ASSERT_GE(run.output.size(), 38u);
    EXPECT_EQ(run.output[0], '{');
    EXPECT_EQ(run.output[37], '}');

    run = Inspect(L"guid --canonicalize abc");
    EXPECT_EQ(run.exitCode, 0u) << run.output;
    EXPECT_TRUE(Contains(run.output, "{ABC}")) << run.output;
}

TEST(Inspect, BadUsage)
{
    const wchar_t* cases[] = {L"error", L"error notanumber", L"exe", L"os extra", L"guid --canonicalize"};
    for (const wchar_t* arguments : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(arguments));
        auto run = Inspect(arguments);
        EXPECT_EQ(run.exitCode, 2u) << run.output;
        EXPECT_TRUE(Contains(run.output, "qxinspect: ")) << run.output;
    }
}
