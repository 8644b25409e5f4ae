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
    // The regex form escapes the folder's characters.
    std::string escaped;
    for (char ch : root)
    {
        if (std::string("\\*+()[.^-?{}$|!").find(ch) != std::string::npos)
            escaped += '\\';
        escaped += ch;
    }

    struct Case
    {
        const wchar_t* arguments;
        DWORD exitCode;
        std::string output; // the whole standard output, or with '~' a part of it ("" = not checked)
    } cases[] = {
        {L"expand \"%SYSTEMROOT%\\x.exe\"", 0, root + "\\x.exe\n"},
        {L"expand \"%NoSuchVariable%\\x\"", 1, "%NoSuchVariable%\\x\n"},
        {L"expand --direct \"%SystemRoot%\\x\"", 0, root + "\\x\n"},
        {L"expand --regex \"%SystemRoot%\\\\.*\"", 0, escaped + "\\\\.*\n"},
        {L"expand --json \"%windir%\"", 0, "~\"replaced\": true"},
        {L"--json expand \"%windir%\"", 0, "~\"mode\": \"table\""},
        {L"expand", 2, "~qxinspect: "},
        {L"expand --pid nonsense x", 2, "~qxinspect: "},
        {L"expand --pid 0xFFFFFFF1 \"%windir%\"", 3, "~qxinspect: "},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.arguments));
        QXTest::ProcessResult result = QXTest::RunProcess(Inspect(c.arguments));
        ASSERT_TRUE(result.started);
        EXPECT_EQ(result.exitCode, c.exitCode) << result.output;
        if (c.output.rfind("~", 0) == 0)
        {
            EXPECT_NE(result.output.find(c.output.substr(1)), std::string::npos) << result.output;
        }
        else if (!c.output.empty())
        {
            EXPECT_EQ(result.output, c.output);
        }
    }
}
