// qxinspect expand, run as a process: the table's expansion, the regex form,
// the system's own expansion and the exit codes.

#include "EnvTestHelpers.h"

#include <gtest/gtest.h>

namespace
{
std::wstring Inspect(const std::wstring& arguments)
{
    return L"\"" + QXTest::HelperPath(L"qxinspect.exe") + L"\" " + arguments;
}
} // namespace

TEST(EnvironmentInspect, Expand)
{
    if (GetFileAttributesW(QXTest::HelperPath(L"qxinspect.exe").c_str()) == INVALID_FILE_ATTRIBUTES)
        GTEST_SKIP() << "qxinspect.exe is not built beside the tests";
    wchar_t systemRoot[MAX_PATH];
    ASSERT_GT(GetEnvironmentVariableW(L"SystemRoot", systemRoot, MAX_PATH), 0u);
    const std::string root = QXTest::Narrow(systemRoot);

    struct Case
    {
        const wchar_t* arguments;
        DWORD exitCode;
        std::string output; // expected standard output ("" = not checked)
    } cases[] = {
        {L"expand \"%SYSTEMROOT%\\x.exe\"", 0, root + "\\x.exe\n"},
        {L"expand \"%NoSuchVariable%\\x\"", 1, "%NoSuchVariable%\\x\n"},
        {L"expand --direct \"%SystemRoot%\\x\"", 0, root + "\\x\n"},
        {L"expand --json \"%windir%\"", 0, ""},
        {L"expand", 2, ""},
        {L"expand --pid nonsense x", 2, ""},
        {L"expand --pid 0xFFFFFFF1 \"%windir%\"", 3, ""},
    };
    for (const Case& c : cases)
    {
        QXTest::ProcessResult result = QXTest::RunProcess(Inspect(c.arguments));
        ASSERT_TRUE(result.started);
        EXPECT_EQ(result.exitCode, c.exitCode) << QXTest::Narrow(c.arguments) << "\n" << result.output;
        if (!c.output.empty())
        {
            EXPECT_EQ(result.output, c.output) << QXTest::Narrow(c.arguments);
        }
        if (c.exitCode >= 2)
        {
            EXPECT_NE(result.output.find("qxinspect: "), std::string::npos) << result.output;
        }
    }

    // The regex form escapes the folder's characters.
    QXTest::ProcessResult rx = QXTest::RunProcess(Inspect(L"expand --regex \"%SystemRoot%\\\\.*\""));
    EXPECT_EQ(rx.exitCode, 0u) << rx.output;
    std::string escaped;
    for (char ch : root)
    {
        if (ch == '\\')
            escaped += "\\\\";
        else
        {
            if (std::string("*+()[.^-?{}$|!").find(ch) != std::string::npos)
                escaped += '\\';
            escaped += ch;
        }
    }
    EXPECT_EQ(rx.output, escaped + "\\\\.*\n");

    QXTest::ProcessResult json = QXTest::RunProcess(Inspect(L"--json expand \"%windir%\""));
    EXPECT_EQ(json.exitCode, 0u) << json.output;
    EXPECT_NE(json.output.find("\"replaced\": true"), std::string::npos) << json.output;
    EXPECT_NE(json.output.find("\"mode\": \"table\""), std::string::npos) << json.output;
}
