// qxinspect owner, run as the tool is run: the descriptor, a hand-over to this
// process's user, a refusal for a child whose Administrators group is
// deny-only, and a hand-over from a process that holds no restore privilege.

#include "OwnershipSuite.h"

using namespace OwnerTest;

namespace
{
void ExpectInspect(const std::wstring& arguments, DWORD exitCode, const std::vector<std::string>& fragments,
                   HANDLE token = nullptr)
{
    SCOPED_TRACE(QXTest::Narrow(arguments));
    auto run = QXTest::RunProcess(L"\"" + QXTest::HelperPath(L"qxinspect.exe") + L"\" " + arguments, 60000, token);
    EXPECT_TRUE(run.started);
    EXPECT_EQ(run.exitCode, exitCode) << run.output;
    for (const auto& fragment : fragments)
        EXPECT_NE(run.output.find(fragment), std::string::npos) << fragment << "\n" << run.output;
}
} // namespace

TEST_F(Ownership, InspectOwner)
{
    SecuredPipe pipe(AdminsMayTake, 16), other(AdminsMayTake);
    const std::wstring path = L"\"" + pipe.Path() + L"\"";
    const std::wstring self = std::to_wstring(GetCurrentProcessId());
    const std::string sid = QXTest::Narrow(user);
    ATL::CHandle restricted = QXTest::AdminDenyOnlyToken();
    QXTest::ChildProcess child(restricted);
    ASSERT_TRUE(child.Ready());

    ExpectInspect(L"owner " + path, 0, {"owner:       ", " S-1-5-18\n", "dacl:        D:(A;;WO;;;BA)(A;;FR;;;WD)"});
    ExpectInspect(L"--json owner " + path + L" --give-to-pid " + std::to_wstring(child.Pid()), 1,
                  {"\"result\": 5", "\"auditRequired\": false", "\"accessCheck\": true", "\"ownerAfter\": {\n        \"sid\": \"S-1-5-18\""});
    ExpectInspect(L"owner " + path + L" --give-to-pid " + self, 0,
                  {"result:      0 (the owner was changed)", "audit due:   yes", "owner after: ", sid + "\n"});
    ExpectInspect(L"--log owner missing.txt --give-to-pid " + self + L" --direct", 3,
                  {"cannot be read, error 2", "result:      2 (", "Could not set file owner [result 2] on file [missing.txt]"});
    // The hand-over is still tried, and succeeds here, without the privilege.
    ATL::CHandle noRestore = QXTest::RestrictedProcessToken({}, {SE_RESTORE_NAME});
    ExpectInspect(L"--log owner \"" + other.Path() + L"\" --give-to-pid " + self + L" --direct", 0,
                  {"Restore failed [1300].", "Revert successful done [0].", "result:      0 ("}, noRestore);
    for (const wchar_t* bad : {L"owner", L"owner x --direct", L"owner x --give-to-pid y", L"owner x --bogus"})
        ExpectInspect(bad, 2, {"qxinspect: "});
    ExpectInspect(L"owner x --give-to-pid 0", 3, {"cannot open the token of process 0"});
}
