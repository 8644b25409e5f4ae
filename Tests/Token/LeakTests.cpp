// Ten thousand calls of every function that opens handles, on its success
// and failure paths in turn, leave this process's handles as they were and
// no thread impersonating.

#include "TokenSuite.h"

#include "QXCommon/ImpersonationSaver.h"
#include "QXCommon/LsaUtil.h"
#include "QXCommon/ProcessIDAndCreateTime.h"
#include "QXCommon/QXCommonFunctions.h"

#include <functional>
#include <thread>
#include <vector>

using namespace TokenTest;
namespace F = QXCommonFunctions;

namespace
{
TEST(TokenLeaks, RepeatedCallsKeepTheHandleCount)
{
    QXTest::RevertAtExit revert;
    ATL::CHandle restricted = QXTest::AdminDenyOnlyToken();
    ATL::CHandle own = ProcessToken();
    ImpersonatingThread impersonating(restricted);
    ImpersonatingThread plain(nullptr);
    const DWORD self = GetCurrentProcessId();
    // Odd calls take the second path: a thread without a token, a privilege
    // the token lacks, a process that cannot be opened.
    const DWORD threads[] = {impersonating.Id(), plain.Id()};
    const wchar_t* privileges[] = {L"SeChangeNotifyPrivilege", L"SeCreateTokenPrivilege"};
    const DWORD processes[] = {self, 0};
    struct
    {
        const char* name;
        std::function<void(int)> call;
    } cases[] = {
        {"AttachPrimary", [&](int i) { ATL::CAccessToken t; F::AttachAtlAccessTokenToPrimaryTokenFromProcessId(t, processes[i]); }},
        {"AttachImpersonation", [&](int i) { ATL::CAccessToken t; F::AttachAtlAccessTokenToImpersonationTokenFromProcessId(t, processes[i]); }},
        {"AttachThread", [&](int i) { ATL::CAccessToken t; F::AttachAtlAccessTokenToTokenFromThreadId(t, threads[i]); }},
        {"Obtain", [&](int i) { ATL::CAccessToken t; F::ObtainPrimaryTokenFromProcessOrThread(self, threads[i], t); }},
        {"IsProcessURMed", [&](int i) { F::IsProcessURMed(processes[i]); }},
        {"EnablePrivilege", [&](int i) { LsaUtil::EnablePrivilege(self, privileges[i], TRUE); }},
        {"ProcessIdentity", [&](int i) { QXCommon::CProcessIDAndCreateTime().Initialise(processes[i]); }},
        {"ImpersonationSaver", [&](int i) {
             if (i == 0)
                 ImpersonateLoggedOnUser(restricted);
             QXCommon::CImpersonationSaver saver;
             ImpersonateLoggedOnUser(own);
         }},
    };
    // The cases run side by side (the count is the process's, so a leak on
    // any thread shows); a leak is then traced to its case alone.
    const size_t before = QXTest::OpenHandleCount();
    std::vector<std::thread> workers;
    for (const auto& c : cases)
        workers.emplace_back([&c] {
            for (int i = 0; i < 10000; ++i)
                c.call(i % 2);
            RevertToSelf();
        });
    for (auto& worker : workers)
        worker.join();
    const size_t after = QXTest::OpenHandleCount();
    EXPECT_EQ(after, before);
    for (const auto& c : cases)
    {
        const size_t start = QXTest::OpenHandleCount();
        for (int i = 0; after != before && i < 100; ++i)
            c.call(i % 2);
        RevertToSelf();
        EXPECT_EQ(QXTest::OpenHandleCount(), start) << c.name;
    }
    EXPECT_EQ(QXTest::DescribeImpersonation(), L"nothing");
    EXPECT_EQ(QXTest::DescribeImpersonation(plain.Handle()), L"nothing");
}
} // namespace
