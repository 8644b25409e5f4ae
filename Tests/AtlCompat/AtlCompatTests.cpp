// The compatibility layer against the system's own answers: CHandle and
// CRegKey (copying transfers ownership, destruction closes, ATL's return
// codes on a real key), CSid and CAccessToken on the process's real tokens.

#include "QXTestSupport.h"

#include <atlbase.h>
#include <atlsecurity.h>
#include <gtest/gtest.h>
#include <sddl.h>

#include <cstring>
#include <set>

namespace
{
bool IsOpen(HANDLE h)
{
    DWORD flags = 0;
    return GetHandleInformation(h, &flags) != FALSE;
}

TEST(CHandle, CopyTransfersAndDestructionCloses)
{
    HANDLE raw = CreateEventW(nullptr, TRUE, FALSE, nullptr), kept = CreateEventW(nullptr, TRUE, FALSE, nullptr),
           other = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    {
        ATL::CHandle a(raw), b(a), c; // a copy takes the handle, and so does an assignment
        c = b;
        EXPECT_TRUE(a.m_h == nullptr && b.m_h == nullptr && c.m_h == raw && IsOpen(raw));
        ATL::CHandle d(kept);
        EXPECT_EQ(d.Detach(), kept);
    }
    EXPECT_FALSE(IsOpen(raw));
    EXPECT_TRUE(IsOpen(kept));
    {
        ATL::CHandle e(kept), f(other);
        e = f; // assigning over a held handle closes the old one
        EXPECT_FALSE(IsOpen(kept));
        e.Close();
        EXPECT_EQ(e.m_h, nullptr);
        EXPECT_FALSE(IsOpen(other));
    }
}

TEST(CRegKey, CreateQueryEnumerateAndDelete)
{
    QXTest::TestRegKey parent;
    ATL::CRegKey key, child, root(parent.Handle());
    DWORD disposition = 0, number = 0;
    ASSERT_EQ(key.Create(parent.Handle(), L"Atl", nullptr, 0, KEY_READ | KEY_WRITE, nullptr, &disposition), ERROR_SUCCESS);
    EXPECT_EQ(disposition, static_cast<DWORD>(REG_CREATED_NEW_KEY));
    const wchar_t raw[] = {L'a', L'b', L'c'};
    ASSERT_EQ(key.SetStringValue(L"Name", L"value text") | key.SetDWORDValue(L"Number", 0xDEADBEEF) |
                  key.SetValue(L"Raw", REG_SZ, raw, sizeof(raw)), ERROR_SUCCESS);
    wchar_t text[64] = {};
    ULONG chars = 4;
    // Too small: the size asked for is enough for the text and its NUL (one
    // more when the stored data may lack the NUL), and works when given.
    EXPECT_EQ(key.QueryStringValue(L"Name", text, &chars), ERROR_MORE_DATA);
    EXPECT_TRUE(chars == 11u || chars == 12u) << chars;
    EXPECT_EQ(key.QueryStringValue(L"Name", text, &chars), ERROR_SUCCESS);
    EXPECT_STREQ(text, L"value text");
    EXPECT_EQ(chars, 11u);
    chars = 64; // a string stored without its NUL comes back terminated
    EXPECT_TRUE(key.QueryStringValue(L"Raw", text, &chars) == ERROR_SUCCESS && std::wstring(text) == L"abc");
    EXPECT_TRUE(key.QueryDWORDValue(L"Number", number) == ERROR_SUCCESS && number == 0xDEADBEEFu);
    EXPECT_EQ(key.QueryDWORDValue(L"Name", number), ERROR_MORE_DATA); // longer than a DWORD, as ATL reports
    EXPECT_EQ(key.QueryStringValue(L"Number", text, &chars), ERROR_INVALID_DATA);
    EXPECT_EQ(key.QueryDWORDValue(L"Missing", number), ERROR_FILE_NOT_FOUND);

    for (const wchar_t* name : {L"one", L"two", L"three"})
    {
        ATL::CRegKey grandChild;
        ASSERT_EQ(child.Create(key, name) | grandChild.Create(child, L"deep"), ERROR_SUCCESS);
    }
    std::set<std::wstring> found;
    wchar_t name[256];
    for (DWORD i = 0, length = 256; key.EnumKey(i, name, &length) == ERROR_SUCCESS; ++i, length = 256)
        found.insert(name + std::to_wstring(length - wcslen(name)));
    EXPECT_EQ(found, (std::set<std::wstring>{L"one0", L"two0", L"three0"}));
    HKEY opened = key;
    {
        ATL::CRegKey copy(key); // the copy takes the key and closes it
        EXPECT_TRUE(key.m_hKey == nullptr && copy.RecurseDeleteKey(L"one") == ERROR_SUCCESS);
    }
    EXPECT_EQ(RegQueryInfoKeyW(opened, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0), ERROR_INVALID_HANDLE);
    ASSERT_EQ(root.RecurseDeleteKey(L"Atl"), ERROR_SUCCESS);
    EXPECT_EQ(key.Open(parent.Handle(), L"Atl", KEY_READ), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(root.RecurseDeleteKey(L"Atl"), ERROR_FILE_NOT_FOUND);
    root.Detach(); // the key belongs to TestRegKey
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

// The type of the token, TokenPrimary or TokenImpersonation (0 when it cannot be read).
int TypeOf(const ATL::CAccessToken& token)
{
    TOKEN_TYPE type = TOKEN_TYPE(0);
    return token.GetType(&type) ? type : 0;
}

TEST(CSid, TextFormsMatchTheSystem)
{
    const std::pair<ATL::CSid, const wchar_t*> wellKnown[] = {
        {ATL::Sids::World(), L"S-1-1-0"}, {ATL::Sids::CreatorOwner(), L"S-1-3-0"}, {ATL::Sids::Network(), L"S-1-5-2"},
        {ATL::Sids::Interactive(), L"S-1-5-4"}, {ATL::Sids::AuthenticatedUser(), L"S-1-5-11"},
        {ATL::Sids::System(), L"S-1-5-18"}, {ATL::Sids::LocalService(), L"S-1-5-19"},
        {ATL::Sids::NetworkService(), L"S-1-5-20"}, {ATL::Sids::Admins(), L"S-1-5-32-544"},
        {ATL::Sids::Users(), L"S-1-5-32-545"}, {ATL::Sids::Guests(), L"S-1-5-32-546"},
    };
    for (const auto& [sid, text] : wellKnown)
    {
        EXPECT_STREQ(sid.Sid(), text);
        EXPECT_TRUE(sid.IsValid() && sid.GetLength() == GetLengthSid(const_cast<SID*>(sid.GetPSID())));
    }
    EXPECT_TRUE(ATL::Sids::Admins() != ATL::Sids::Users() && ATL::Sids::Admins().EqualPrefix(ATL::Sids::Users()));
    PSID system = nullptr; // the largest sub-authorities and count the system's conversion makes
    ASSERT_TRUE(ConvertStringSidToSidW(L"S-1-5-4294967295-1-2-3-4-5-6-7-8-9-10-11-12-13-14", &system));
    ATL::CSid csid(*static_cast<SID*>(system)), assigned;
    assigned = ATL::CSid(csid);
    EXPECT_TRUE(EqualSid(system, const_cast<SID*>(assigned.GetPSID())) && assigned.GetSubAuthorityCount() == 15);
    EXPECT_STREQ(assigned.Sid(), L"S-1-5-4294967295-1-2-3-4-5-6-7-8-9-10-11-12-13-14");
    LocalFree(system);
    // An authority above 32 bits is written in hex; a SID may have no sub-authority.
    // (Wine's own conversion gets both wrong, so the texts are written out.)
    SID_IDENTIFIER_AUTHORITY large = {{0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC}}, justFits = {{0, 0, 0xFF, 0xFF, 0xFF, 0xFF}};
    EXPECT_STREQ(ATL::CSid(large, 1, DWORD(7)).Sid(), L"S-1-0x123456789ABC-7");
    EXPECT_STREQ(ATL::CSid(justFits, 2, DWORD(7), DWORD(4294967295u)).Sid(), L"S-1-4294967295-7-4294967295");
    ATL::CSid bare(ATL::Detail::SidAuthority(5), 0);
    EXPECT_TRUE(std::wstring(bare.Sid()) == L"S-1-5" && bare.IsValid() && bare.GetLength() == 8u);
    EXPECT_THROW(ATL::CSid(large, 16), ATL::CAtlException);
}

TEST(CSid, EmptySidBadInputAndAccountLookup)
{
    ATL::CSid empty, sid;
    EXPECT_TRUE(!empty.IsValid() && empty.GetPSID() == nullptr && empty.GetLength() + empty.GetSubAuthority(0) == 0u);
    EXPECT_TRUE(*empty.Sid() == 0 && *empty.AccountName() == 0 && empty == ATL::CSid() && empty != ATL::Sids::World());
    EXPECT_FALSE(sid.LoadAccount(static_cast<LPCWSTR>(nullptr)));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    const BYTE garbage[SECURITY_MAX_SID_SIZE] = {9, 200};
    EXPECT_FALSE(sid.LoadAccount(static_cast<const SID*>(nullptr)) || sid.LoadAccount(reinterpret_cast<const SID*>(garbage)) ||
                 sid.LoadAccount(L"qx-no-such-account-4711") || sid.IsValid());
    EXPECT_THROW(ATL::CSid(static_cast<const SID*>(nullptr)), ATL::CAtlException);
    EXPECT_THROW(ATL::CSid(L"qx-no-such-account-4711"), ATL::CAtlException);

    ATL::CAccessToken token;
    ATL::CSid user, admins;
    ASSERT_TRUE(token.GetProcessToken(TOKEN_QUERY) && token.GetUser(&user));
    const std::wstring name = user.AccountName();
    ATL::CSid looked;
    ASSERT_TRUE(looked.LoadAccount((std::wstring(user.Domain()) + L"\\" + name).c_str())) << GetLastError();
    EXPECT_TRUE(looked == user && looked.AccountName() == name && user.SidNameUse() == SidTypeUser) << QXTest::Narrow(name);
    // A SID that names no account loads; only its name stays empty.
    ATL::CSid unknown(ATL::CSid(ATL::Detail::SidAuthority(5), 4, DWORD(21), DWORD(1), DWORD(2), DWORD(3)).GetPSID());
    EXPECT_TRUE(unknown.IsValid() && *unknown.AccountName() == 0);
    ASSERT_TRUE(admins.LoadAccount(ATL::Sids::Admins().GetPSID()));
    EXPECT_EQ(_wcsicmp(admins.AccountName(), L"Administrators") + _wcsicmp(admins.Domain(), L"BUILTIN"), 0);
    EXPECT_EQ(admins.SidNameUse(), SidTypeAlias);
}

TEST(CAccessToken, ProcessTokenAgreesWithGetTokenInformation)
{
    ATL::CAccessToken token, dup, primary, copy;
    EXPECT_EQ(token.GetHandle(), nullptr);
    ASSERT_TRUE(token.GetProcessToken(TOKEN_QUERY)) << GetLastError();
    // User, owner and primary group: each token information starts with the SID pointer.
    ATL::CSid user, owner, group, logon;
    ASSERT_TRUE(token.GetUser(&user) && token.GetOwner(&owner) && token.GetPrimaryGroup(&group));
    for (const auto& [infoClass, sid] : {std::pair{TokenUser, &user}, {TokenOwner, &owner}, {TokenPrimaryGroup, &group}})
    {
        auto info = TokenInfo(token.GetHandle(), infoClass);
        ASSERT_GE(info.size(), sizeof(PSID)) << infoClass;
        EXPECT_TRUE(EqualSid(*reinterpret_cast<PSID*>(info.data()), const_cast<SID*>(sid->GetPSID()))) << infoClass;
    }
    DWORD session = 0xFFFFFFFF, processSession = 0xFFFFFFFE;
    LUID id = {}, logonId = {};
    ASSERT_TRUE(token.GetTerminalServicesSessionId(&session) && ProcessIdToSessionId(GetCurrentProcessId(), &processSession));
    EXPECT_TRUE(session == processSession && TypeOf(token) == TokenPrimary && !token.IsTokenRestricted() &&
                token.GetTokenId(&id) && token.GetLogonSessionId(&logonId));
    // A logon SID is S-1-5-5-X-Y; a token may have none.
    EXPECT_TRUE(token.GetLogonSid(&logon) ? std::wstring(logon.Sid()).rfind(L"S-1-5-5-", 0) == 0
                                          : GetLastError() == ERROR_NOT_FOUND) << QXTest::Narrow(logon.Sid());

    // Membership on a primary token needs an impersonation copy, hence TOKEN_DUPLICATE.
    bool member = false;
    ASSERT_TRUE(dup.GetProcessToken(TOKEN_QUERY | TOKEN_DUPLICATE));
    ASSERT_TRUE(dup.CheckTokenMembership(ATL::Sids::World(), &member) && member) << GetLastError();
    ASSERT_TRUE(dup.CheckTokenMembership(ATL::Sids::Anonymous(), &member));
    EXPECT_FALSE(member || token.CheckTokenMembership(ATL::Sids::World(), &member) ||
                 dup.CheckTokenMembership(ATL::CSid(), &member));
    // Null outputs are refused, not dereferenced.
    EXPECT_FALSE(token.GetUser(nullptr) || token.GetType(nullptr) || token.GetTerminalServicesSessionId(nullptr) ||
                 token.GetLogonSid(nullptr) || token.CreatePrimaryToken(nullptr));

    // Duplicates have the requested type and level; without TOKEN_DUPLICATE there are none.
    ASSERT_TRUE(dup.CreatePrimaryToken(&primary, TOKEN_QUERY)) << GetLastError();
    EXPECT_EQ(TypeOf(primary), TokenPrimary);
    for (auto level : {SecurityIdentification, SecurityImpersonation, SecurityDelegation})
    {
        ATL::CAccessToken impersonation;
        SECURITY_IMPERSONATION_LEVEL got = SecurityAnonymous;
        ATL::CSid copied;
        ASSERT_TRUE(dup.CreateImpersonationToken(&impersonation, level)) << GetLastError();
        ASSERT_TRUE(impersonation.GetImpersonationLevel(&got) && impersonation.GetUser(&copied));
        EXPECT_TRUE(TypeOf(impersonation) == TokenImpersonation && got == level && copied == user);
    }
    EXPECT_FALSE(token.CreatePrimaryToken(&copy));
    EXPECT_EQ(copy.GetHandle(), nullptr);
}

TEST(CAccessToken, ImpersonateAndRevertOnCurrentThread)
{
    struct RevertOnExit { ~RevertOnExit() { RevertToSelf(); } } guard;
    ATL::CAccessToken thread, effective, process, none;
    EXPECT_FALSE(thread.GetThreadToken(TOKEN_QUERY));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_TOKEN));
    ASSERT_TRUE(effective.GetEffectiveToken(TOKEN_QUERY));
    EXPECT_EQ(TypeOf(effective), TokenPrimary);
    ASSERT_TRUE(process.GetProcessToken(TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_IMPERSONATE));
    ATL::CSid processUser, threadUser;
    ASSERT_TRUE(process.GetUser(&processUser));
    // The current thread by default, then through an explicit handle to it.
    ATL::CHandle self;
    DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &self.m_h, 0, 0, DUPLICATE_SAME_ACCESS);
    for (HANDLE target : {HANDLE(nullptr), self.m_h})
    {
        ASSERT_TRUE(target ? process.Impersonate(target) : process.Impersonate()) << GetLastError();
        ASSERT_TRUE(thread.GetThreadToken(TOKEN_QUERY) && thread.GetUser(&threadUser)) << GetLastError();
        ASSERT_TRUE(effective.GetEffectiveToken(TOKEN_QUERY));
        EXPECT_TRUE(TypeOf(thread) == TokenImpersonation && TypeOf(effective) == TokenImpersonation);
        EXPECT_EQ(threadUser, processUser);
        ASSERT_TRUE(target ? process.Revert(target) : process.Revert());
        EXPECT_FALSE(thread.GetThreadToken(TOKEN_QUERY));
    }
    EXPECT_FALSE(none.Impersonate());
}

TEST(CAccessToken, OwnsItsHandleAndAdjustsPrivileges)
{
    HANDLE raw = nullptr;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &raw));
    DWORD flags = 0;
    for (bool detach : {true, false})
    {
        {
            ATL::CAccessToken token;
            token.Attach(raw);
            EXPECT_TRUE(!detach || token.Detach() == raw);
        }
        EXPECT_EQ(GetHandleInformation(raw, &flags) != FALSE, detach); // closed with the object unless detached
    }
    ATL::CAccessToken token;
    ASSERT_TRUE(token.GetProcessToken(TOKEN_QUERY));
    HANDLE first = token.GetHandle();
    ASSERT_TRUE(token.GetProcessToken(TOKEN_QUERY | TOKEN_ADJUST_PRIVILEGES)); // the first handle is closed
    EXPECT_FALSE(GetHandleInformation(first, &flags));
    auto enabled = [&] {
        LUID luid = {};
        LookupPrivilegeValueW(nullptr, SE_SHUTDOWN_NAME, &luid);
        auto info = TokenInfo(token.GetHandle(), TokenPrivileges);
        auto* privileges = reinterpret_cast<TOKEN_PRIVILEGES*>(info.data());
        for (DWORD i = 0; privileges != nullptr && i < privileges->PrivilegeCount; ++i)
            if (std::memcmp(&privileges->Privileges[i].Luid, &luid, sizeof(luid)) == 0)
                return (privileges->Privileges[i].Attributes & SE_PRIVILEGE_ENABLED) != 0;
        return false;
    };
    EXPECT_FALSE(token.EnablePrivilege(L"SeNoSuchPrivilege") || token.EnablePrivilege(nullptr));
    bool notAll = true;
    ASSERT_TRUE(token.EnablePrivilege(SE_SHUTDOWN_NAME, nullptr, &notAll)) << GetLastError();
    if (notAll)
        GTEST_SKIP() << "the test process holds no SeShutdownPrivilege";
    EXPECT_TRUE(enabled());
    ASSERT_TRUE(token.DisablePrivilege(SE_SHUTDOWN_NAME, nullptr, &notAll));
    EXPECT_FALSE(notAll || enabled());
    token.Clear();
    EXPECT_EQ(token.GetHandle(), nullptr);
}
} // namespace
