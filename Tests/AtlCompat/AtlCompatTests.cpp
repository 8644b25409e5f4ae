// The compatibility layer against the system's own answers: CHandle and CRegKey (copies take over,
// destruction closes, ATL's return codes on a real key), CSid and CAccessToken on the process's real tokens.

#include "QXTestSupport.h"
#include "TokenTestSupport.h"

#include <atlbase.h>
#include <atlsecurity.h>
#include <gtest/gtest.h>
#include <sddl.h>

#include <optional>
#include <set>

namespace
{
bool IsOpen(HANDLE h)
{
    DWORD flags = 0;
    return GetHandleInformation(h, &flags) != FALSE;
}

TEST(CHandleAndCRegKey, CopiesTakeOverDestructionClosesAndKeysAnswerAsATL)
{
    HANDLE raw = CreateEventW(nullptr, TRUE, FALSE, nullptr), kept = CreateEventW(nullptr, TRUE, FALSE, nullptr),
           other = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    {
        ATL::CHandle a(raw), b(a), c, d(kept); // a copy takes the handle, and so does an assignment
        c = b;
        EXPECT_TRUE(a.m_h == nullptr && b.m_h == nullptr && c.m_h == raw && IsOpen(raw) && d.Detach() == kept);
    }
    EXPECT_TRUE(!IsOpen(raw) && IsOpen(kept));
    {
        ATL::CHandle e(kept), f(other);
        e = f; // assigning over a held handle closes the old one
        EXPECT_FALSE(IsOpen(kept));
        e.Close();
        EXPECT_TRUE(e.m_h == nullptr && !IsOpen(other));
    }

    QXTest::TestRegKey parent;
    ATL::CRegKey key, child, root(parent.Handle());
    DWORD disposition = 0, number = 0;
    ASSERT_TRUE(key.Create(parent.Handle(), L"Atl", nullptr, 0, KEY_READ | KEY_WRITE, nullptr, &disposition) == 0 &&
                disposition == REG_CREATED_NEW_KEY);
    const wchar_t bare[] = {L'a', L'b', L'c'};
    ASSERT_EQ(key.SetStringValue(L"Name", L"value text") | key.SetDWORDValue(L"Number", 0xDEADBEEF) |
                  key.SetValue(L"Raw", REG_SZ, bare, sizeof(bare)), ERROR_SUCCESS);
    wchar_t text[64] = {};
    ULONG chars = 4;
    // Too small: the size asked for is enough for the text and its NUL (one
    // more when the stored data may lack the NUL), and works when given.
    EXPECT_EQ(key.QueryStringValue(L"Name", text, &chars), ERROR_MORE_DATA);
    EXPECT_TRUE(chars == 11u || chars == 12u) << chars;
    EXPECT_TRUE(key.QueryStringValue(L"Name", text, &chars) == 0 && std::wstring(text) == L"value text" && chars == 11u);
    chars = 64; // a string stored without its NUL comes back terminated
    EXPECT_TRUE(key.QueryStringValue(L"Raw", text, &chars) == 0 && std::wstring(text) == L"abc");
    EXPECT_TRUE(key.QueryDWORDValue(L"Number", number) == 0 && number == 0xDEADBEEFu);
    // Longer than a DWORD (as ATL reports), not a string, missing.
    EXPECT_TRUE(key.QueryDWORDValue(L"Name", number) == ERROR_MORE_DATA && key.QueryDWORDValue(L"Missing", number) == 2 &&
                key.QueryStringValue(L"Number", text, &chars) == ERROR_INVALID_DATA);

    for (const wchar_t* name : {L"one", L"two", L"three"}) // each with a key below it, not enumerated
        ASSERT_EQ(child.Create(key, name) | ATL::CRegKey().Create(child, L"deep"), ERROR_SUCCESS);
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
    EXPECT_EQ(key.Open(parent.Handle(), L"Atl", KEY_READ) + root.RecurseDeleteKey(L"Atl"), 2 * ERROR_FILE_NOT_FOUND);
    root.Detach(); // the key belongs to TestRegKey
}

int TypeOf(const ATL::CAccessToken& token)
{
    TOKEN_TYPE type = TOKEN_TYPE(0);
    return token.GetType(&type) ? type : 0;
}

TEST(CSid, TextFormsMatchTheSystemAndBadInputIsRefused)
{
    using namespace ATL::Sids;
    for (const auto& [sid, text] : {std::pair{World(), L"S-1-1-0"}, {CreatorOwner(), L"S-1-3-0"}, {Network(), L"S-1-5-2"},
                                    {Interactive(), L"S-1-5-4"}, {AuthenticatedUser(), L"S-1-5-11"}, {System(), L"S-1-5-18"},
                                    {LocalService(), L"S-1-5-19"}, {NetworkService(), L"S-1-5-20"}, {Admins(), L"S-1-5-32-544"},
                                    {Users(), L"S-1-5-32-545"}, {Guests(), L"S-1-5-32-546"}})
        EXPECT_TRUE(std::wstring(sid.Sid()) == text && sid.IsValid() &&
                    sid.GetLength() == GetLengthSid(const_cast<SID*>(sid.GetPSID()))) << QXTest::Narrow(text);
    EXPECT_TRUE(Admins() != Users() && Admins().EqualPrefix(Users()));
    PSID system = nullptr; // the largest sub-authorities and count the system's conversion makes
    ASSERT_TRUE(ConvertStringSidToSidW(L"S-1-5-4294967295-1-2-3-4-5-6-7-8-9-10-11-12-13-14", &system));
    ATL::CSid assigned;
    assigned = ATL::CSid(*static_cast<SID*>(system));
    EXPECT_TRUE(EqualSid(system, const_cast<SID*>(assigned.GetPSID())) && assigned.GetSubAuthorityCount() == 15 &&
                std::wstring(assigned.Sid()) == L"S-1-5-4294967295-1-2-3-4-5-6-7-8-9-10-11-12-13-14") << QXTest::Narrow(assigned.Sid());
    LocalFree(system);
    // An authority above 32 bits is written in hex; a SID may have no sub-authority.
    // (Wine's own conversion gets both wrong, so the texts are written out.)
    SID_IDENTIFIER_AUTHORITY large = {{0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC}}, justFits = {{0, 0, 0xFF, 0xFF, 0xFF, 0xFF}};
    EXPECT_STREQ(ATL::CSid(large, 1, DWORD(7)).Sid(), L"S-1-0x123456789ABC-7");
    EXPECT_STREQ(ATL::CSid(justFits, 2, DWORD(7), DWORD(4294967295u)).Sid(), L"S-1-4294967295-7-4294967295");
    ATL::CSid bare(ATL::Detail::SidAuthority(5), 0);
    EXPECT_TRUE(std::wstring(bare.Sid()) == L"S-1-5" && bare.IsValid() && bare.GetLength() == 8u);
    EXPECT_THROW(ATL::CSid(large, 16), ATL::CAtlException);

    ATL::CSid empty, sid; // empty, and refused input
    EXPECT_TRUE(!empty.IsValid() && empty.GetPSID() == nullptr && empty.GetLength() + empty.GetSubAuthority(0) == 0u);
    EXPECT_TRUE(*empty.Sid() == 0 && *empty.AccountName() == 0 && empty == ATL::CSid() && empty != World());
    EXPECT_TRUE(!sid.LoadAccount(static_cast<LPCWSTR>(nullptr)) && GetLastError() == ERROR_INVALID_PARAMETER);
    const BYTE garbage[SECURITY_MAX_SID_SIZE] = {9, 200};
    EXPECT_FALSE(sid.LoadAccount(static_cast<const SID*>(nullptr)) || sid.LoadAccount(L"qx-no-such-account-4711") ||
                 sid.LoadAccount(reinterpret_cast<const SID*>(garbage)) || sid.IsValid());
    EXPECT_THROW(ATL::CSid(static_cast<const SID*>(nullptr)), ATL::CAtlException);
    EXPECT_THROW(ATL::CSid(L"qx-no-such-account-4711"), ATL::CAtlException);
}

// A token object agrees with GetTokenInformation, closes its handle unless
// detached (also when it opens another), makes duplicates of the type and
// level asked for, impersonates on the current thread or a given one, and
// turns privileges on and off.
TEST(CAccessToken, AgreesWithTheSystemAndOwnsItsHandle)
{
    HANDLE raw = nullptr;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &raw));
    for (bool detach : {true, false})
    {
        std::optional<ATL::CAccessToken> held(std::in_place);
        held->Attach(raw);
        EXPECT_TRUE((!detach || held->Detach() == raw) && (held.reset(), IsOpen(raw) == detach)) << detach;
    }
    ATL::CAccessToken token, process, primary, copy, thread, effective, none;
    ASSERT_TRUE(token.GetProcessToken(TOKEN_QUERY)) << GetLastError();
    // User, owner and primary group: each token information starts with the SID pointer.
    ATL::CSid user, owner, group, logon, threadUser;
    ASSERT_TRUE(token.GetUser(&user) && token.GetOwner(&owner) && token.GetPrimaryGroup(&group));
    for (const auto& [infoClass, sid] : {std::pair{TokenUser, &user}, {TokenOwner, &owner}, {TokenPrimaryGroup, &group}})
    {
        alignas(8) BYTE info[512];
        DWORD size = 0;
        EXPECT_TRUE(GetTokenInformation(token.GetHandle(), infoClass, info, sizeof info, &size) &&
                    EqualSid(*reinterpret_cast<PSID*>(info), const_cast<SID*>(sid->GetPSID()))) << infoClass;
    }
    DWORD session = 0xFFFFFFFF, processSession = 0xFFFFFFFE;
    ASSERT_TRUE(token.GetTerminalServicesSessionId(&session) && ProcessIdToSessionId(GetCurrentProcessId(), &processSession));
    EXPECT_TRUE(session == processSession && TypeOf(token) == TokenPrimary && !token.IsTokenRestricted());
    // Accounts: the user by name, a SID that names none (its name stays empty), a group.
    ATL::CSid admins, looked, unknown(ATL::CSid(ATL::Detail::SidAuthority(5), 3, DWORD(21), DWORD(1), DWORD(2)).GetPSID());
    const std::wstring name = user.AccountName();
    ASSERT_TRUE(looked.LoadAccount((std::wstring(user.Domain()) + L"\\" + name).c_str())) << GetLastError();
    EXPECT_TRUE(looked == user && looked.AccountName() == name && user.SidNameUse() == SidTypeUser && unknown.IsValid() &&
                *unknown.AccountName() == 0);
    ASSERT_TRUE(admins.LoadAccount(ATL::Sids::Admins().GetPSID()));
    EXPECT_TRUE(_wcsicmp(admins.AccountName(), L"Administrators") + _wcsicmp(admins.Domain(), L"BUILTIN") == 0 &&
                admins.SidNameUse() == SidTypeAlias);
    // A logon SID is S-1-5-5-X-Y; a token may have none.
    EXPECT_TRUE(token.GetLogonSid(&logon) ? std::wstring(logon.Sid()).rfind(L"S-1-5-5-", 0) == 0
                                          : GetLastError() == ERROR_NOT_FOUND) << QXTest::Narrow(logon.Sid());
    EXPECT_FALSE(token.GetUser(nullptr) || token.GetType(nullptr) || token.GetTerminalServicesSessionId(nullptr) ||
                 token.GetLogonSid(nullptr) || token.CreatePrimaryToken(nullptr)); // refused, not dereferenced

    ASSERT_TRUE(process.GetProcessToken(TOKEN_QUERY));
    HANDLE first = process.GetHandle();
    ASSERT_TRUE(process.GetProcessToken(TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_IMPERSONATE | TOKEN_ADJUST_PRIVILEGES));
    EXPECT_FALSE(IsOpen(first));
    // Membership on a primary token and duplicates need TOKEN_DUPLICATE.
    bool member = false, anonymous = true;
    ASSERT_TRUE(process.CheckTokenMembership(ATL::Sids::World(), &member) &&
                process.CheckTokenMembership(ATL::Sids::Anonymous(), &anonymous));
    EXPECT_TRUE(member && !anonymous);
    EXPECT_FALSE(token.CheckTokenMembership(ATL::Sids::World(), &member) || token.CreatePrimaryToken(&copy) ||
                 process.CheckTokenMembership(ATL::CSid(), &member) || copy.GetHandle() != nullptr);
    ASSERT_TRUE(process.CreatePrimaryToken(&primary, TOKEN_QUERY) && TypeOf(primary) == TokenPrimary) << GetLastError();
    for (auto level : {SecurityIdentification, SecurityImpersonation, SecurityDelegation})
    {
        ATL::CAccessToken impersonation;
        SECURITY_IMPERSONATION_LEVEL got = SecurityAnonymous;
        ATL::CSid copied;
        ASSERT_TRUE(process.CreateImpersonationToken(&impersonation, level) && impersonation.GetImpersonationLevel(&got) &&
                    impersonation.GetUser(&copied)) << GetLastError();
        EXPECT_TRUE(TypeOf(impersonation) == TokenImpersonation && got == level && copied == user);
    }

    QXTest::RevertAtExit revert;
    EXPECT_TRUE(!thread.GetThreadToken(TOKEN_QUERY) && GetLastError() == ERROR_NO_TOKEN);
    ASSERT_TRUE(effective.GetEffectiveToken(TOKEN_QUERY) && TypeOf(effective) == TokenPrimary);
    ATL::CHandle self;
    DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &self.m_h, 0, 0, DUPLICATE_SAME_ACCESS);
    for (HANDLE target : {HANDLE(nullptr), self.m_h})
    {
        ASSERT_TRUE(target ? process.Impersonate(target) : process.Impersonate()) << GetLastError();
        ASSERT_TRUE(thread.GetThreadToken(TOKEN_QUERY) && thread.GetUser(&threadUser) && effective.GetEffectiveToken(TOKEN_QUERY));
        EXPECT_TRUE(TypeOf(thread) == TokenImpersonation && TypeOf(effective) == TypeOf(thread) && threadUser == user);
        ASSERT_TRUE(target ? process.Revert(target) : process.Revert());
        EXPECT_FALSE(thread.GetThreadToken(TOKEN_QUERY));
    }
    EXPECT_FALSE(none.Impersonate());

    auto enabled = [&] { return QXTest::PrivilegeAttributes(process.GetHandle(), SE_SHUTDOWN_NAME) & SE_PRIVILEGE_ENABLED; };
    EXPECT_FALSE(process.EnablePrivilege(L"SeNoSuchPrivilege") || process.EnablePrivilege(nullptr));
    bool notAll = true;
    ASSERT_TRUE(process.EnablePrivilege(SE_SHUTDOWN_NAME, nullptr, &notAll)) << GetLastError();
    if (notAll)
        GTEST_SKIP() << "the test process holds no SeShutdownPrivilege";
    EXPECT_TRUE(enabled() && process.DisablePrivilege(SE_SHUTDOWN_NAME, nullptr, &notAll) && !notAll && !enabled());
    EXPECT_EQ((process.Clear(), process.GetHandle()), nullptr);
}
} // namespace
