// CSid and CAccessToken against the system's own answers on the test
// process's real tokens: text forms, account lookup, token information,
// duplicates, impersonation and privileges.

#include "QXTestSupport.h"

#include <atlsecurity.h>

#include <gtest/gtest.h>

#include <sddl.h>

#include <cstring>
#include <string>
#include <vector>

namespace
{
std::wstring StringSid(PSID sid)
{
    LPWSTR text = nullptr;
    if (!ConvertSidToStringSidW(sid, &text))
        return L"<" + std::to_wstring(GetLastError()) + L">";
    std::wstring result(text);
    LocalFree(text);
    return result;
}

PSID P(const ATL::CSid& sid)
{
    return const_cast<SID*>(sid.GetPSID());
}

std::vector<BYTE> TokenInfo(HANDLE token, TOKEN_INFORMATION_CLASS infoClass)
{
    DWORD size = 0;
    GetTokenInformation(token, infoClass, nullptr, 0, &size);
    std::vector<BYTE> info(size);
    if (size == 0 || !GetTokenInformation(token, infoClass, info.data(), size, &size))
        info.clear();
    return info;
}

// Whether the current thread carries an impersonation token.
bool ThreadHasToken()
{
    HANDLE token = nullptr;
    if (!OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &token))
        return false;
    ATL::CHandle guard(token);
    return true;
}

// Takes any impersonation token off the thread when a test ends early.
struct RevertOnExit
{
    ~RevertOnExit() { RevertToSelf(); }
};

TEST(CSid, WellKnownSidsHaveTheirTextForm)
{
    struct
    {
        ATL::CSid sid;
        const wchar_t* text;
        WELL_KNOWN_SID_TYPE type;
    } cases[] = {
        {ATL::Sids::World(), L"S-1-1-0", WinWorldSid},
        {ATL::Sids::CreatorOwner(), L"S-1-3-0", WinCreatorOwnerSid},
        {ATL::Sids::Network(), L"S-1-5-2", WinNetworkSid},
        {ATL::Sids::Interactive(), L"S-1-5-4", WinInteractiveSid},
        {ATL::Sids::AuthenticatedUser(), L"S-1-5-11", WinAuthenticatedUserSid},
        {ATL::Sids::System(), L"S-1-5-18", WinLocalSystemSid},
        {ATL::Sids::LocalService(), L"S-1-5-19", WinLocalServiceSid},
        {ATL::Sids::NetworkService(), L"S-1-5-20", WinNetworkServiceSid},
        {ATL::Sids::Admins(), L"S-1-5-32-544", WinBuiltinAdministratorsSid},
        {ATL::Sids::Users(), L"S-1-5-32-545", WinBuiltinUsersSid},
        {ATL::Sids::Guests(), L"S-1-5-32-546", WinBuiltinGuestsSid},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.text));
        EXPECT_TRUE(c.sid.IsValid());
        EXPECT_STREQ(c.sid.Sid(), c.text);
        EXPECT_EQ(StringSid(P(c.sid)), c.text);
        EXPECT_TRUE(IsWellKnownSid(P(c.sid), c.type));
        EXPECT_EQ(c.sid.GetLength(), GetLengthSid(P(c.sid)));
    }
    EXPECT_NE(ATL::Sids::Admins(), ATL::Sids::Users());
    EXPECT_TRUE(ATL::Sids::Admins().EqualPrefix(ATL::Sids::Users()));
    EXPECT_TRUE(ATL::Sids::Admins() < ATL::Sids::Users() || ATL::Sids::Users() < ATL::Sids::Admins());
}

TEST(CSid, TextFormMatchesTheSystemForUnusualSids)
{
    const wchar_t* texts[] = {L"S-1-5-21-4294967295-1-2-1001", L"S-1-16-12288",
                              L"S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15"};
    for (const wchar_t* text : texts)
    {
        PSID sid = nullptr;
        ASSERT_TRUE(ConvertStringSidToSidW(text, &sid)) << QXTest::Narrow(text);
        ATL::CSid csid(*static_cast<SID*>(sid));
        EXPECT_EQ(std::wstring(csid.Sid()), StringSid(sid));
        EXPECT_TRUE(EqualSid(sid, P(csid)));
        ATL::CSid assigned;
        assigned = ATL::CSid(csid);
        EXPECT_EQ(assigned, csid);
        EXPECT_EQ(assigned.GetSubAuthorityCount(), *GetSidSubAuthorityCount(sid));
        LocalFree(sid);
    }
}

// An authority above 32 bits is written in hex; a SID may have no sub-authority.
// (Wine's own conversion gets both wrong, so the texts are written out.)
TEST(CSid, TextFormOfLargeAuthorityAndNoSubAuthority)
{
    SID_IDENTIFIER_AUTHORITY large = {{0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC}};
    EXPECT_STREQ(ATL::CSid(large, 1, DWORD(7)).Sid(), L"S-1-0x123456789ABC-7");
    SID_IDENTIFIER_AUTHORITY justFits = {{0, 0, 0xFF, 0xFF, 0xFF, 0xFF}};
    EXPECT_STREQ(ATL::CSid(justFits, 2, DWORD(7), DWORD(4294967295u)).Sid(), L"S-1-4294967295-7-4294967295");
    ATL::CSid bare(ATL::Detail::SidAuthority(5), 0);
    EXPECT_TRUE(bare.IsValid());
    EXPECT_STREQ(bare.Sid(), L"S-1-5");
    EXPECT_EQ(bare.GetLength(), 8u);
    EXPECT_THROW(ATL::CSid(large, 16), ATL::CAtlException);
}

TEST(CSid, EmptySidAndBadInput)
{
    ATL::CSid empty;
    EXPECT_FALSE(empty.IsValid());
    EXPECT_EQ(empty.GetPSID(), nullptr);
    EXPECT_EQ(static_cast<const SID*>(empty), nullptr);
    EXPECT_EQ(empty.GetLength(), 0u);
    EXPECT_STREQ(empty.Sid(), L"");
    EXPECT_STREQ(empty.AccountName(), L"");
    EXPECT_EQ(empty.GetSubAuthority(0), 0u);
    EXPECT_EQ(empty, ATL::CSid());
    EXPECT_NE(empty, ATL::Sids::World());

    ATL::CSid sid;
    EXPECT_FALSE(sid.LoadAccount(static_cast<LPCWSTR>(nullptr)));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_FALSE(sid.LoadAccount(static_cast<const SID*>(nullptr)));
    EXPECT_THROW(ATL::CSid(static_cast<const SID*>(nullptr)), ATL::CAtlException);
    const BYTE garbage[SECURITY_MAX_SID_SIZE] = {9, 200};
    EXPECT_FALSE(sid.LoadAccount(reinterpret_cast<const SID*>(garbage)));
    EXPECT_FALSE(sid.LoadAccount(L"qx-no-such-account-4711"));
    EXPECT_FALSE(sid.IsValid());
    EXPECT_THROW(ATL::CSid(L"qx-no-such-account-4711"), ATL::CAtlException);
}

TEST(CSid, AccountLookupRoundTrips)
{
    ATL::CAccessToken token;
    ASSERT_TRUE(token.GetProcessToken(TOKEN_QUERY));
    ATL::CSid user;
    ASSERT_TRUE(token.GetUser(&user));
    const std::wstring name = user.AccountName();
    const std::wstring domain = user.Domain();
    ASSERT_FALSE(name.empty());
    EXPECT_EQ(user.SidNameUse(), SidTypeUser);

    wchar_t userName[256] = {};
    DWORD size = 256;
    ASSERT_TRUE(GetUserNameW(userName, &size));
    EXPECT_EQ(_wcsicmp(name.c_str(), userName), 0);

    for (const std::wstring& account : {name, domain + L"\\" + name})
    {
        ATL::CSid looked;
        ASSERT_TRUE(looked.LoadAccount(account.c_str())) << QXTest::Narrow(account) << " " << GetLastError();
        EXPECT_EQ(looked, user) << QXTest::Narrow(looked.Sid()) << " vs " << QXTest::Narrow(user.Sid());
        EXPECT_STREQ(looked.AccountName(), name.c_str());
    }

    // A SID that names no account loads; only its name stays empty.
    ATL::CSid unknown(ATL::CSid(ATL::Detail::SidAuthority(5), 4, DWORD(21), DWORD(1), DWORD(2), DWORD(3)).GetPSID());
    EXPECT_TRUE(unknown.IsValid());
    EXPECT_STREQ(unknown.AccountName(), L"");

    ATL::CSid admins;
    ASSERT_TRUE(admins.LoadAccount(ATL::Sids::Admins().GetPSID()));
    EXPECT_EQ(_wcsicmp(admins.AccountName(), L"Administrators"), 0);
    EXPECT_EQ(_wcsicmp(admins.Domain(), L"BUILTIN"), 0);
    EXPECT_EQ(admins.SidNameUse(), SidTypeAlias);
}

TEST(CAccessToken, ProcessTokenAgreesWithGetTokenInformation)
{
    ATL::CAccessToken token;
    EXPECT_EQ(token.GetHandle(), nullptr);
    ASSERT_TRUE(token.GetProcessToken(TOKEN_QUERY)) << GetLastError();
    HANDLE h = token.GetHandle();
    ASSERT_NE(h, nullptr);

    // User, owner and primary group: each token information starts with the SID pointer.
    ATL::CSid user, owner, group;
    ASSERT_TRUE(token.GetUser(&user));
    ASSERT_TRUE(token.GetOwner(&owner));
    ASSERT_TRUE(token.GetPrimaryGroup(&group));
    const std::pair<TOKEN_INFORMATION_CLASS, const ATL::CSid*> sids[] = {
        {TokenUser, &user}, {TokenOwner, &owner}, {TokenPrimaryGroup, &group}};
    for (const auto& [infoClass, sid] : sids)
    {
        auto info = TokenInfo(h, infoClass);
        ASSERT_GE(info.size(), sizeof(PSID)) << infoClass;
        PSID expected = *reinterpret_cast<PSID*>(info.data());
        EXPECT_TRUE(EqualSid(expected, P(*sid))) << infoClass;
        EXPECT_EQ(std::wstring(sid->Sid()), StringSid(expected)) << infoClass;
    }

    DWORD session = 0xFFFFFFFF;
    ASSERT_TRUE(token.GetTerminalServicesSessionId(&session));
    DWORD processSession = 0xFFFFFFFF;
    ASSERT_TRUE(ProcessIdToSessionId(GetCurrentProcessId(), &processSession));
    EXPECT_EQ(session, processSession);

    TOKEN_TYPE type = TokenImpersonation;
    ASSERT_TRUE(token.GetType(&type));
    EXPECT_EQ(type, TokenPrimary);
    EXPECT_FALSE(token.IsTokenRestricted());

    LUID id = {}, logon = {};
    EXPECT_TRUE(token.GetTokenId(&id));
    EXPECT_TRUE(token.GetLogonSessionId(&logon));

    // Membership on a primary token needs an impersonation copy, hence TOKEN_DUPLICATE.
    bool member = false;
    ATL::CAccessToken dup;
    ASSERT_TRUE(dup.GetProcessToken(TOKEN_QUERY | TOKEN_DUPLICATE));
    ASSERT_TRUE(dup.CheckTokenMembership(ATL::Sids::World(), &member)) << GetLastError();
    EXPECT_TRUE(member);
    ASSERT_TRUE(dup.CheckTokenMembership(ATL::Sids::Anonymous(), &member));
    EXPECT_FALSE(member);
    EXPECT_FALSE(token.CheckTokenMembership(ATL::Sids::World(), &member)); // no TOKEN_DUPLICATE
    EXPECT_FALSE(dup.CheckTokenMembership(ATL::CSid(), &member));

    // Null outputs are refused, not dereferenced.
    EXPECT_FALSE(token.GetUser(nullptr));
    EXPECT_FALSE(token.GetType(nullptr));
    EXPECT_FALSE(token.GetTerminalServicesSessionId(nullptr));
    EXPECT_FALSE(token.GetLogonSid(nullptr));
    EXPECT_FALSE(token.CreatePrimaryToken(nullptr));
}

TEST(CAccessToken, LogonSid)
{
    ATL::CAccessToken token;
    ASSERT_TRUE(token.GetProcessToken(TOKEN_QUERY));
    ATL::CSid logon;
    if (!token.GetLogonSid(&logon))
    {
        ASSERT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_FOUND));
        GTEST_SKIP() << "the process token carries no logon SID (S-1-5-5-X-Y) here";
    }
    EXPECT_EQ(std::wstring(logon.Sid()).rfind(L"S-1-5-5-", 0), 0u) << QXTest::Narrow(logon.Sid());
}

TEST(CAccessToken, DuplicatesHaveRequestedTypeAndLevel)
{
    ATL::CAccessToken token;
    ASSERT_TRUE(token.GetProcessToken(TOKEN_QUERY | TOKEN_DUPLICATE));

    ATL::CSid user;
    ASSERT_TRUE(token.GetUser(&user));
    ATL::CAccessToken primary;
    ASSERT_TRUE(token.CreatePrimaryToken(&primary, TOKEN_QUERY)) << GetLastError();
    TOKEN_TYPE type = TokenImpersonation;
    ASSERT_TRUE(primary.GetType(&type));
    EXPECT_EQ(type, TokenPrimary);

    for (auto level : {SecurityIdentification, SecurityImpersonation, SecurityDelegation})
    {
        ATL::CAccessToken impersonation;
        ASSERT_TRUE(token.CreateImpersonationToken(&impersonation, level)) << GetLastError();
        ASSERT_TRUE(impersonation.GetType(&type));
        EXPECT_EQ(type, TokenImpersonation);
        SECURITY_IMPERSONATION_LEVEL got = SecurityAnonymous;
        ASSERT_TRUE(impersonation.GetImpersonationLevel(&got));
        EXPECT_EQ(got, level);
        ATL::CSid copied;
        ASSERT_TRUE(impersonation.GetUser(&copied));
        EXPECT_EQ(copied, user);
    }

    // A token opened without TOKEN_DUPLICATE cannot be copied.
    ATL::CAccessToken queryOnly;
    ASSERT_TRUE(queryOnly.GetProcessToken(TOKEN_QUERY));
    ATL::CAccessToken copy;
    EXPECT_FALSE(queryOnly.CreatePrimaryToken(&copy));
    EXPECT_EQ(copy.GetHandle(), nullptr);
}

TEST(CAccessToken, ImpersonateAndRevertOnCurrentThread)
{
    RevertOnExit guard;
    ASSERT_FALSE(ThreadHasToken());
    ATL::CAccessToken thread;
    EXPECT_FALSE(thread.GetThreadToken(TOKEN_QUERY));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_TOKEN));

    ATL::CAccessToken effective;
    ASSERT_TRUE(effective.GetEffectiveToken(TOKEN_QUERY));
    TOKEN_TYPE type = TokenImpersonation;
    ASSERT_TRUE(effective.GetType(&type));
    EXPECT_EQ(type, TokenPrimary);

    ATL::CAccessToken process;
    ASSERT_TRUE(process.GetProcessToken(TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_IMPERSONATE));
    ATL::CSid processUser;
    ASSERT_TRUE(process.GetUser(&processUser));
    // The current thread by default, then through an explicit handle to it.
    HANDLE self = nullptr;
    ASSERT_TRUE(DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &self, 0, FALSE,
                                DUPLICATE_SAME_ACCESS));
    ATL::CHandle selfGuard(self);
    for (HANDLE target : {HANDLE(nullptr), self})
    {
        ASSERT_TRUE(target ? process.Impersonate(target) : process.Impersonate()) << GetLastError();
        EXPECT_TRUE(ThreadHasToken());
        ASSERT_TRUE(thread.GetThreadToken(TOKEN_QUERY)) << GetLastError();
        ASSERT_TRUE(thread.GetType(&type));
        EXPECT_EQ(type, TokenImpersonation);
        ATL::CSid threadUser;
        ASSERT_TRUE(thread.GetUser(&threadUser));
        EXPECT_EQ(threadUser, processUser);
        ASSERT_TRUE(effective.GetEffectiveToken(TOKEN_QUERY));
        ASSERT_TRUE(effective.GetType(&type));
        EXPECT_EQ(type, TokenImpersonation);
        ASSERT_TRUE(target ? process.Revert(target) : process.Revert());
        EXPECT_FALSE(ThreadHasToken());
    }

    ATL::CAccessToken none;
    EXPECT_FALSE(none.Impersonate());
}

TEST(CAccessToken, AttachDetachAndClearOwnTheHandle)
{
    HANDLE raw = nullptr;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &raw));
    DWORD flags = 0;
    for (bool detach : {true, false})
    {
        {
            ATL::CAccessToken token;
            token.Attach(raw);
            if (detach)
            {
                EXPECT_EQ(token.Detach(), raw);
            }
        }
        EXPECT_EQ(GetHandleInformation(raw, &flags) != FALSE, detach); // closed with the object unless detached
    }

    ATL::CAccessToken token;
    ASSERT_TRUE(token.GetProcessToken(TOKEN_QUERY));
    HANDLE first = token.GetHandle();
    ASSERT_TRUE(token.GetProcessToken(TOKEN_QUERY)); // the first handle is closed
    EXPECT_NE(first, token.GetHandle());
    EXPECT_FALSE(GetHandleInformation(first, &flags));
    token.Clear();
    EXPECT_EQ(token.GetHandle(), nullptr);
}

TEST(CAccessToken, EnableAndDisablePrivilege)
{
    ATL::CAccessToken token;
    ASSERT_TRUE(token.GetProcessToken(TOKEN_QUERY | TOKEN_ADJUST_PRIVILEGES));

    auto enabled = [&](const wchar_t* name) {
        LUID luid = {};
        LookupPrivilegeValueW(nullptr, name, &luid);
        auto info = TokenInfo(token.GetHandle(), TokenPrivileges);
        auto* privileges = reinterpret_cast<TOKEN_PRIVILEGES*>(info.data());
        for (DWORD i = 0; privileges != nullptr && i < privileges->PrivilegeCount; ++i)
            if (std::memcmp(&privileges->Privileges[i].Luid, &luid, sizeof(luid)) == 0)
                return (privileges->Privileges[i].Attributes & SE_PRIVILEGE_ENABLED) != 0;
        return false;
    };

    bool notAll = true;
    ASSERT_TRUE(token.EnablePrivilege(SE_SHUTDOWN_NAME, nullptr, &notAll)) << GetLastError();
    if (notAll)
        GTEST_SKIP() << "the test process holds no SeShutdownPrivilege";
    EXPECT_TRUE(enabled(SE_SHUTDOWN_NAME));
    ASSERT_TRUE(token.DisablePrivilege(SE_SHUTDOWN_NAME, nullptr, &notAll));
    EXPECT_FALSE(notAll);
    EXPECT_FALSE(enabled(SE_SHUTDOWN_NAME));

    EXPECT_FALSE(token.EnablePrivilege(L"SeNoSuchPrivilege"));
    EXPECT_FALSE(token.EnablePrivilege(nullptr));
}
} // namespace
