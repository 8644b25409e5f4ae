// The identity hand-over between this process (the server) and
// qxpipe_client.exe (the client, in its own process): the identity that
// arrives, the thread state on both sides afterwards, a thousand hand-overs
// in a row, and qxinspect handover.

#include "PipeSuite.h"

#include <cstdio>
#include <vector>

using namespace PipeTest;

namespace
{
std::string UserOf(HANDLE token) // "S-1-5-..."
{
    const std::string described = QXTest::Narrow(QXTest::DescribeToken(token)); // "user S-...; groups ..."
    return described.substr(5, described.find(';') - 5);
}
} // namespace

TEST(PipeHandOver, ClientIdentityArrivesAsAUsablePrimaryToken)
{
    ATL::CHandle own = ProcessToken();
    const std::string ownIdentity = QXTest::Narrow(QXTest::DescribeToken(own));
    ATL::CHandle earlier = QXTest::RestrictedProcessToken({L"S-1-1-0"});
    bool platformGaveOwnToken = false;
    // The server's thread impersonates nothing, or an earlier identity.
    for (HANDLE before : {static_cast<HANDLE>(nullptr), static_cast<HANDLE>(earlier)})
    {
        SCOPED_TRACE(before == nullptr ? "not impersonating" : "impersonating an earlier identity");
        QXTest::RevertAtExit revert;
        ASSERT_TRUE(before == nullptr || SetThreadToken(nullptr, QXTest::ImpersonationCopy(before)));
        const std::wstring was = QXTest::DescribeImpersonation();
        const std::wstring pipe = UniquePipeName();
        auto client = StartClient(L"handover " + pipe + L" 1 restricted");
        ATL::CHandle token;
        {
            QXCommon::CPipeImpersonateServer server(pipe, nullptr);
            ASSERT_TRUE(server.ConnectAndImpersonate());
            ATL::CAccessToken impersonated;
            TOKEN_TYPE type = TokenPrimary;
            SECURITY_IMPERSONATION_LEVEL level = SecurityAnonymous;
            EXPECT_TRUE(impersonated.GetThreadToken(TOKEN_QUERY) && impersonated.GetType(&type) &&
                        impersonated.GetImpersonationLevel(&level));
            EXPECT_EQ(type, TokenImpersonation);
            EXPECT_EQ(level, SecurityImpersonation);
            server.GetTokenAsPrimaryToken(token);
        }
        EXPECT_EQ(QXTest::DescribeImpersonation(), was);
        const std::string output = client.get().output;
        EXPECT_NE(output.find("result ok=1 failed=0 left=0 "), std::string::npos) << output;

        ASSERT_NE(token.m_h, nullptr);
        TOKEN_TYPE type = TokenImpersonation;
        DWORD size = 0;
        EXPECT_TRUE(GetTokenInformation(token, TokenType, &type, sizeof type, &size) && type == TokenPrimary);
        EXPECT_EQ(UserOf(token), UserOf(own));
        QXTest::ChildProcess asClient(token);
        EXPECT_TRUE(asClient.Ready());
        EXPECT_EQ(asClient.Finish(), 0u);

        const std::string clientIdentity = LineAfter(output, "identity ");
        ASSERT_NE(clientIdentity, ownIdentity) << "the client's token must differ from the server's";
        const std::string arrived = QXTest::Narrow(QXTest::DescribeToken(token));
        if (arrived == ownIdentity)
            platformGaveOwnToken = true;
        else
            EXPECT_EQ(arrived, clientIdentity);
    }
    if (platformGaveOwnToken)
        GTEST_SKIP() << "ImpersonateNamedPipeClient gives the server its own process token here (Wine impersonates "
                        "self), so the client's groups cannot arrive; type, level, user, use and thread states were "
                        "checked";
}

TEST(PipeHandOver, AThousandInARowLeaveNoHandleAndNoImpersonation)
{
    const std::wstring pipe = UniquePipeName();
    const std::wstring eventName = L"Local\\" + pipe.substr(9);
    ATL::CHandle ready(CreateEventW(nullptr, FALSE, FALSE, eventName.c_str()));
    ASSERT_NE(ready.m_h, nullptr);
    auto client = StartClient(L"handover " + pipe + L" 1000 event " + eventName);
    int ok = 0, left = 0;
    size_t handles = 0;
    for (; ok < 1000; ++ok)
    {
        ATL::CHandle token;
        if (!QXCommon::CPipeImpersonateServer::GetToken(token, pipe, ready) || token == nullptr)
            break;
        left += Impersonating();
        if (ok == 9) // by now the system's own lazily made handles exist
            handles = QXTest::OpenHandleCount();
    }
    EXPECT_EQ(ok, 1000);
    EXPECT_EQ(left, 0);
    EXPECT_LE(QXTest::OpenHandleCount(), handles);
    const std::string output = client.get().output;
    EXPECT_NE(output.find("result ok=1000 failed=0 left=0 "), std::string::npos) << output;
    size_t first = 0, last = 1;
    EXPECT_EQ(std::sscanf(LineAfter(output, "handles=").c_str(), "%zu,%zu", &first, &last), 2) << output;
    EXPECT_EQ(first, last) << "the client's handle count grew";
}

TEST(PipeHandOver, InspectTakesItsChildsIdentity)
{
    const std::wstring inspect = L"\"" + QXTest::HelperPath(L"qxinspect.exe") + L"\" ";
    auto run = QXTest::RunProcess(inspect + L"--json --log handover --restricted", 30000);
    EXPECT_EQ(run.exitCode, 0u) << run.output;
    for (const std::string& fragment :
         std::vector<std::string>{"\"type\": \"primary\"", "\"restricted\": true", "\"S-1-5-32-544\"",
                                  "\"milliseconds\": ", "\"sid\": \"" + UserOf(ProcessToken()) + "\"",
                                  "CPipeImpersonateClient::ConnectAndImpersonate: Connect and Impersonate - success"})
        EXPECT_NE(run.output.find(fragment), std::string::npos) << fragment << "\n" << run.output;
    EXPECT_EQ(QXTest::RunProcess(inspect + L"handover extra").exitCode, 2u);
}
