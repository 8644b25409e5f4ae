// The identity hand-over between this process (the server) and
// qxpipe_client.exe (the client, in its own process): the identity that
// arrives, the thread state on both sides afterwards, a thousand hand-overs
// in a row, and qxinspect handover.

#include "PipeSuite.h"

using namespace PipeTest;

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
        ClientRun client(L"handover " + pipe + L" 1 restricted");
        ATL::CHandle token;
        {
            QXCommon::CPipeImpersonateServer server(pipe, nullptr);
            ASSERT_TRUE(server.ConnectAndImpersonate());
            HANDLE threadToken = nullptr;
            ASSERT_TRUE(OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &threadToken));
            ATL::CHandle impersonated(threadToken);
            EXPECT_EQ(Info<TOKEN_TYPE>(impersonated, TokenType), TokenImpersonation);
            EXPECT_EQ(Info<SECURITY_IMPERSONATION_LEVEL>(impersonated, TokenImpersonationLevel), SecurityImpersonation);
            server.GetTokenAsPrimaryToken(token);
        }
        EXPECT_EQ(QXTest::DescribeImpersonation(), was);
        const std::string output = client.Wait().output;
        EXPECT_NE(output.find("result ok=1 failed=0 left=0 "), std::string::npos) << output;

        ASSERT_NE(token.m_h, nullptr);
        EXPECT_EQ(Info<TOKEN_TYPE>(token, TokenType), TokenPrimary);
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
    ClientRun client(L"handover " + pipe + L" 1000 event " + eventName);
    int ok = 0, left = 0;
    size_t firstHandles = 0;
    for (int k = 0; k < 1000; ++k)
    {
        ATL::CHandle token;
        if (!QXCommon::CPipeImpersonateServer::GetToken(token, pipe, ready) || token == nullptr)
            break;
        ++ok;
        left += Impersonating();
        if (k == 9)
            firstHandles = QXTest::OpenHandleCount();
    }
    EXPECT_EQ(ok, 1000);
    EXPECT_EQ(left, 0);
    EXPECT_LE(QXTest::OpenHandleCount(), firstHandles);
    const std::string output = client.Wait().output;
    EXPECT_NE(output.find("result ok=1000 failed=0 left=0 "), std::string::npos) << output;
    size_t first = 0, last = 1;
    EXPECT_EQ(std::sscanf(LineAfter(output, "handles=").c_str(), "%zu,%zu", &first, &last), 2) << output;
    EXPECT_EQ(first, last) << "the client's handle count grew";
}

TEST(PipeHandOver, InspectHandOverTakesItsChildsIdentity)
{
    const std::wstring inspect = L"\"" + QXTest::HelperPath(L"qxinspect.exe") + L"\" ";
    auto run = QXTest::RunProcess(inspect + L"--json handover --restricted", 30000);
    EXPECT_EQ(run.exitCode, 0u) << run.output;
    const std::string sid = QXTest::Narrow(UserOf(ProcessToken()));
    for (const std::string& fragment : std::vector<std::string>{"\"type\": \"primary\"", "\"restricted\": true", "\"S-1-5-32-544\"",
                                        "\"milliseconds\": ", std::string("\"sid\": \"") + sid + "\""})
        EXPECT_NE(run.output.find(fragment), std::string::npos) << fragment << "\n" << run.output;
    run = QXTest::RunProcess(inspect + L"--log handover", 30000);
    EXPECT_EQ(run.exitCode, 0u) << run.output;
    EXPECT_NE(run.output.find("Connect and Impersonate - success"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("type:       primary"), std::string::npos) << run.output;
    EXPECT_EQ(QXTest::RunProcess(inspect + L"handover extra").exitCode, 2u);
}
