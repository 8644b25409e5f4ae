// Tokens of this process, of child processes and of threads; membership by
// the system's rule and attribute-blind; elevation as the platform reports it.

#include "TokenSuite.h"

#include "QXCommon/QXAccessTokenMembership.h"
#include "QXCommon/QXCommonFunctions.h"


using namespace TokenTest;
namespace F = QXCommonFunctions;

namespace
{
const char* const Attach = "QXCommonFunctions::AttachAtlAccessTokenTo";

TEST(TokenAttach, ProcessAndThreadTokensCarryTheirIdentity)
{
    QXTest::RevertAtExit revert;
    ATL::CHandle own = ProcessToken();
    ATL::CHandle restricted = QXTest::AdminDenyOnlyToken();
    ASSERT_NE(restricted, nullptr);
    QXTest::ChildProcess child(restricted);
    ASSERT_TRUE(child.Ready());
    ImpersonatingThread impersonating(restricted);
    ASSERT_TRUE(impersonating.Impersonating());

    struct
    {
        BOOL (*attach)(ATL::CAccessToken&, DWORD);
        DWORD id;
        HANDLE expected;
        TOKEN_TYPE type;
    } cases[] = {
        {&F::AttachAtlAccessTokenToPrimaryTokenFromProcessId, GetCurrentProcessId(), own, TokenPrimary},
        {&F::AttachAtlAccessTokenToImpersonationTokenFromProcessId, GetCurrentProcessId(), own, TokenImpersonation},
        {&F::AttachAtlAccessTokenToPrimaryTokenFromProcessId, child.Pid(), restricted, TokenPrimary},
        {&F::AttachAtlAccessTokenToImpersonationTokenFromProcessId, child.Pid(), restricted, TokenImpersonation},
        {&F::AttachAtlAccessTokenToTokenFromThreadId, impersonating.Id(), restricted, TokenImpersonation},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.id);
        ATL::CAccessToken token;
        ASSERT_TRUE(c.attach(token, c.id));
        EXPECT_EQ(QXTest::DescribeToken(token.GetHandle()), QXTest::DescribeToken(c.expected));
        EXPECT_EQ(TypeOf(token.GetHandle()), c.type);

        // A token object that holds a handle is refused and keeps it.
        QXTest::LogCapture log;
        const HANDLE held = token.GetHandle();
        EXPECT_FALSE(c.attach(token, c.id));
        EXPECT_EQ(token.GetHandle(), held);
        EXPECT_EQ(log.Count(), 1u);
        EXPECT_TRUE(log.HasFragment(L"Supplied Access Token was already attached to a handle.\n")) << log.Dump();
    }
}

TEST(TokenAttach, FailuresAreLoggedWithTheSystemError)
{
    ImpersonatingThread plain(nullptr);
    QXTest::LogCapture log;
    ATL::CAccessToken token;
    // The error survives the logging, for the caller to read.
    struct
    {
        BOOL (*attach)(ATL::CAccessToken&, DWORD);
        DWORD id;
        DWORD error;
    } cases[] = {
        {&F::AttachAtlAccessTokenToPrimaryTokenFromProcessId, 0, ERROR_INVALID_PARAMETER},
        {&F::AttachAtlAccessTokenToImpersonationTokenFromProcessId, 0, ERROR_INVALID_PARAMETER},
        {&F::AttachAtlAccessTokenToTokenFromThreadId, 0, ERROR_INVALID_PARAMETER},
        {&F::AttachAtlAccessTokenToTokenFromThreadId, plain.Id(), ERROR_NO_TOKEN},
    };
    for (const auto& c : cases)
    {
        SetLastError(0);
        EXPECT_FALSE(c.attach(token, c.id));
        EXPECT_EQ(GetLastError(), c.error) << c.id;
    }
    EXPECT_EQ(token.GetHandle(), nullptr);
    const std::string attach(Attach);
    EXPECT_LOG(log, 1, attach + "PrimaryTokenFromProcessId", L"OpenProcess(0) failed (Error 87).\n");
    EXPECT_LOG(log, 1, attach + "ImpersonationTokenFromProcessId", L"OpenProcess(0) failed (Error 87).\n");
    EXPECT_LOG(log, 1, attach + "TokenFromThreadId", L"OpenThread(0) failed (Error 87).\n");
    EXPECT_LOG(log, 1, attach + "TokenFromThreadId", L"The thread does not have a token to open.\n");
}

// The identity a thread acts with, always as a primary token.
TEST(TokenAttach, PrimaryTokenFromProcessOrThread)
{
    ATL::CHandle restricted = QXTest::AdminDenyOnlyToken();
    ImpersonatingThread impersonating(restricted);
    ImpersonatingThread plain(nullptr);
    ASSERT_TRUE(impersonating.Impersonating());
    ATL::CHandle own = ProcessToken();
    const DWORD self = GetCurrentProcessId();
    for (const auto& [tid, expected] : {std::pair{impersonating.Id(), restricted.m_h}, {plain.Id(), own.m_h}})
    {
        ATL::CAccessToken token;
        ASSERT_TRUE(F::ObtainPrimaryTokenFromProcessOrThread(self, tid, token));
        EXPECT_EQ(TypeOf(token.GetHandle()), TokenPrimary);
        EXPECT_EQ(QXTest::DescribeToken(token.GetHandle()), QXTest::DescribeToken(expected));
    }

    QXTest::LogCapture log;
    ATL::CAccessToken token;
    for (const auto& [pid, tid] : {std::pair{DWORD(0), plain.Id()}, {self, DWORD(0)}})
    {
        SetLastError(0);
        EXPECT_FALSE(F::ObtainPrimaryTokenFromProcessOrThread(pid, tid, token));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    }
    const char* function = "QXCommonFunctions::ObtainPrimaryTokenFromProcessOrThread";
    EXPECT_LOG(log, 1, function, L"OpenProcess(0) failed (Error 87).\n");
    EXPECT_LOG(log, 1, function, L"OpenThread(0) failed (Error 87).\n");
}

// HasAdminSid counts the Administrators group whatever its attributes and
// works on primary tokens; TokenHasMembership is the system's rule and needs
// an impersonation token.
TEST(TokenMembership, AttributeBlindAgainstTheSystemRule)
{
    ATL::CHandle own = ProcessToken();
    ATL::CHandle denyOnly = QXTest::AdminDenyOnlyToken();
    ASSERT_NE(denyOnly, nullptr);
    const QXCommon::QXAccessTokenMembership membership;
    struct
    {
        HANDLE primary;
        bool admin;
    } cases[] = {{own, true}, {denyOnly, false}};
    for (const auto& c : cases)
    {
        QXTest::LogCapture log;
        EXPECT_TRUE(membership.HasAdminSid(c.primary));
        EXPECT_LOG(log, 4, "QXCommon::QXAccessTokenMembership::HasAdminSid",
                   L"Local token has Administrators group Sid [True].\n");
        ATL::CAccessToken query;
        query.Attach(QXTest::ImpersonationCopy(c.primary).Detach());
        EXPECT_EQ(F::TokenHasMembership(query, L"S-1-5-32-544"), c.admin);
        EXPECT_TRUE(F::TokenHasMembership(query, L"S-1-1-0"));
        EXPECT_FALSE(F::TokenHasMembership(query, L"S-1-5-32-546"));
        EXPECT_TRUE(membership.HasAdminSid(query.GetHandle()));
    }
    // The caller's handle is only borrowed.
    EXPECT_NE(QXTest::DescribeToken(own).find(L"S-1-5-32-544"), std::wstring::npos);

    QXTest::LogCapture log;
    EXPECT_FALSE(membership.HasAdminSid(nullptr));
    EXPECT_LOG(log, 1, "QXCommon::QXAccessTokenMembership::HasAdminSid", L"Error - hToken is NULL.\n");
    ATL::CAccessToken primary;
    primary.Attach(ProcessToken().Detach());
    EXPECT_FALSE(F::TokenHasMembership(primary, L"S-1-5-32-544"));
    EXPECT_LOG(log, 1, "QXCommonFunctions::TokenHasMembership",
               L"Failed to CheckTokenMembership for SID [S-1-5-32-544]. Error [1309].\n");
    EXPECT_FALSE(F::TokenHasMembership(primary, L"S-1-5-32-5x"));
    EXPECT_LOG(log, 1, "QXCommonFunctions::TokenHasMembership", L"Failed to Convert SID [S-1-5-32-5x]. Error [1337].\n");
}

TEST(TokenMembership, DisabledGroupCountsOnlyAttributeBlind)
{
    ATL::CHandle copy = QXTest::ImpersonationCopy(ProcessToken());
    ATL::CSid admins = ATL::Sids::Admins();
    TOKEN_GROUPS change = {1, {{const_cast<SID*>(admins.GetPSID()), 0}}};
    SetLastError(ERROR_SUCCESS);
    if (!AdjustTokenGroups(copy, FALSE, &change, 0, nullptr, nullptr) || GetLastError() != ERROR_SUCCESS)
        GTEST_SKIP() << "AdjustTokenGroups cannot disable a group here (error " << GetLastError()
                     << "): a disabled group is not shown";
    ATL::CAccessToken query;
    query.Attach(copy.Detach());
    EXPECT_FALSE(F::TokenHasMembership(query, L"S-1-5-32-544"));
    EXPECT_TRUE(QXCommon::QXAccessTokenMembership().HasAdminSid(query.GetHandle()));
}

TEST(TokenMembership, UserRightsManagedProcess)
{
    QXTest::LogCapture log;
    EXPECT_FALSE(F::IsProcessURMed(GetCurrentProcessId()));
    EXPECT_TRUE(log.Entries().empty()) << log.Dump();
    EXPECT_FALSE(F::IsProcessURMed(0));
    EXPECT_LOG(log, 1, "QXCommonFunctions::IsProcessURMed",
               L"Failed AttachAtlAccessTokenToPrimaryTokenFromProcessId [0]. Error [87]\n");
}

// Both halves of the split administrator token, as the platform reports them.
TEST(TokenElevation, AnswersFollowThePlatformsElevation)
{
    ATL::CHandle own = ProcessToken();
    TOKEN_LINKED_TOKEN linked = {};
    DWORD size = 0;
    ATL::CHandle other(GetTokenInformation(own, TokenLinkedToken, &linked, sizeof linked, &size) ? linked.LinkedToken
                                                                                                 : nullptr);
    bool sawDefault = false; // a standard user, or an administrator without UAC
    for (HANDLE token : {own.m_h, other.m_h})
    {
        if (token == nullptr)
            continue;
        TOKEN_ELEVATION_TYPE type = TokenElevationTypeDefault;
        TOKEN_ELEVATION elevation = {};
        ASSERT_TRUE(GetTokenInformation(token, TokenElevationType, &type, sizeof type, &size));
        ASSERT_TRUE(GetTokenInformation(token, TokenElevation, &elevation, sizeof elevation, &size));
        sawDefault |= type == TokenElevationTypeDefault;
        QXTest::LogCapture log;
        EXPECT_EQ(F::IsTokenElevated(token), elevation.TokenIsElevated != 0);
        EXPECT_LOG(log, 4, "QXCommonFunctions::IsTokenElevated",
                   L"TokenIsElevated [" + std::to_wstring(elevation.TokenIsElevated) + L"].\n");
        EXPECT_EQ(F::IsRestrictedOrFullAdmin(token), type == TokenElevationTypeFull || type == TokenElevationTypeLimited)
            << type;
    }

    QXTest::LogCapture log;
    EXPECT_FALSE(F::IsTokenElevated(nullptr));
    EXPECT_FALSE(F::IsRestrictedOrFullAdmin(nullptr));
    EXPECT_LOG(log, 1, "QXCommonFunctions::IsTokenElevated",
               L"Failed to obtain Token Information. Assuming NOT Elevated. Error [6].\n");
    EXPECT_LOG(log, 1, "QXCommonFunctions::IsRestrictedOrFullAdmin", L"Failed to GetTokenInformation. Error: 6");
    if (!sawDefault)
        GTEST_SKIP() << "no token of elevation type Default here (the process token is Full"
                     << (other != nullptr ? ", its linked token Limited" : "")
                     << "): false for a standard user is not shown";
}

TEST(TokenElevation, CheckElevationPassesTheSystemsRunLevel)
{
    using Routine = DWORD(WINAPI*)(LPCWSTR, PDWORD, HANDLE, PDWORD, PDWORD);
    auto routine = reinterpret_cast<Routine>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "CheckElevation")));
    const std::wstring path = QXTest::HelperPath(L"qxtoken_child.exe");
    DWORD expected = 0, flags = 0, reason = 0;
    if (routine != nullptr)
        routine(path.c_str(), &flags, nullptr, &expected, &reason);
    EXPECT_EQ(F::CheckElevation(L""), 0u);
    EXPECT_EQ(F::CheckElevation(path), expected);
    if (routine == nullptr)
        GTEST_SKIP() << "kernel32 has no CheckElevation here: only the answer 0 is shown";
}

TEST(TokenSids, TextFormsBecomeSids)
{
    for (const wchar_t* text : {L"S-1-5-32-544", L"S-1-5-21-612037418-213544074-8-1-0-0", L"S-1-1-0"})
    {
        ATL::CSid sid;
        EXPECT_TRUE(F::ConvertStringSidToATLSidW(text, sid));
        EXPECT_STREQ(sid.Sid(), text);
    }
    QXTest::LogCapture log;
    for (const wchar_t* bad : {L"", L"S-1", L"nonsense", static_cast<const wchar_t*>(nullptr)})
    {
        ATL::CSid sid;
        EXPECT_FALSE(F::ConvertStringSidToATLSidW(bad, sid));
        EXPECT_FALSE(sid.IsValid());
    }
    EXPECT_LOG(log, 1, "QXCommonFunctions::ConvertStringSidToATLSidW", L"Failed to Convert SID [(null)]. Error [87].\n");
}
} // namespace
