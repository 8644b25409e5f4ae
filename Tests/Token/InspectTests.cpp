// qxinspect's token and process commands, run as the tool is run, against a
// child under a restricted token and a thread of this process that
// impersonates one.

#include "TokenSuite.h"

#include "QXCommon/ProcessIDAndCreateTime.h"

#include <cstdio>
#include <string>
#include <vector>

using namespace TokenTest;

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

std::string Json(const char* name, bool value)
{
    return std::string("\"") + name + "\": " + (value ? "true" : "false");
}

TEST(InspectToken, GroupsElevationAndMembershipBothWays)
{
    ATL::CHandle restricted = QXTest::AdminDenyOnlyToken();
    QXTest::ChildProcess child(restricted);
    ASSERT_TRUE(child.Ready());
    ImpersonatingThread impersonating(restricted);
    ASSERT_TRUE(impersonating.Impersonating());
    ATL::CHandle own = ProcessToken();
    TOKEN_ELEVATION elevation = {};
    DWORD size = 0;
    ASSERT_TRUE(GetTokenInformation(own, TokenElevation, &elevation, sizeof elevation, &size));

    ExpectInspect(L"--json token", 0,
                  {Json("hasAdminSid", true), Json("urmMember", false), Json("elevated", elevation.TokenIsElevated != 0),
                   "\"sid\": \"S-1-5-32-544\"", "\"name\": \"SeChangeNotifyPrivilege\""});
    const std::wstring pid = std::to_wstring(child.Pid()), tid = std::to_wstring(impersonating.Id());
    ExpectInspect(L"--json token --member S-1-5-32-544 --pid " + pid, 1,
                  {Json("systemRule", false), Json("anyAttributes", true), Json("hasAdminSid", true),
                   "\"flags\": \"mandatory,owner,deny-only\""});
    ExpectInspect(L"token --member S-1-5-32-544 --tid " + tid, 1,
                  {"(impersonating)", "member of S-1-5-32-544: no (system rule), yes (listed, any attributes)"});
    ExpectInspect(L"token --member S-1-1-0 --tid " + tid, 0, {"yes (system rule)"});
    ExpectInspect(L"token --member S-1-5-32-546", 1, {"no (system rule), no (listed"});
    for (const wchar_t* bad : {L"token --pid 1 --tid 2", L"token --member S-1-x", L"token --tid 0", L"token extra"})
        ExpectInspect(bad, 2, {"qxinspect: "});
    ExpectInspect(L"token --pid 0", 3, {"qxinspect: cannot open the token of process 0, error 87"});
}

TEST(InspectProcess, KeysAndCreationTimes)
{
    QXTest::ChildProcess child;
    ASSERT_TRUE(child.Ready());
    QXCommon::CProcessIDAndCreateTime identity;
    ASSERT_EQ(identity.Initialise(child.Pid()), 0u);
    FILETIME created = {};
    SYSTEMTIME utc = {};
    identity.GetProcessStartTime(created);
    ASSERT_TRUE(FileTimeToSystemTime(&created, &utc));
    char iso[40];
    std::snprintf(iso, sizeof iso, "%04u-%02u-%02uT%02u:%02u:%02u.%07luZ", utc.wYear, utc.wMonth, utc.wDay, utc.wHour,
                  utc.wMinute, utc.wSecond, static_cast<unsigned long>(((ULONGLONG(created.dwHighDateTime) << 32) | created.dwLowDateTime) % 10000000));
    const std::string key = QXTest::Narrow(identity.GetProcessIDAndCreateTime());

    ExpectInspect(L"process " + std::to_wstring(child.Pid()), 0, {key + " created " + iso});
    ExpectInspect(L"--json process 0 " + std::to_wstring(child.Pid()), 3,
                  {"\"key\": \"" + key + "\"", "\"created\": \"" + std::string(iso) + "\"", "\"result\": 87",
                   "qxinspect: process 0: error 87"});
    const std::string own = ExpectInspect(L"process", 0, {" created "});
    EXPECT_EQ(own.substr(0, own.find(':')) + "-", own.substr(own.find(": ") + 2, own.find(':') + 1));
    ExpectInspect(L"process 12x", 2, {"qxinspect: not a process id: 12x"});
}
} // namespace
