// LsaUtil on real tokens: enabling privileges in this process and in a child
// that lacks one, the cached lookup against the system from many threads,
// token information, account SIDs, the Administrators group, LSA strings.

#include "TokenSuite.h"

#include "QXCommon/LsaUtil.h"

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace TokenTest;

namespace
{
// The privilege's attributes in the process's token; 0xFFFFFFFF when absent.
DWORD PrivilegeState(HANDLE process, const wchar_t* name)
{
    HANDLE tokenHandle = nullptr;
    LUID luid = {};
    if (!OpenProcessToken(process, TOKEN_QUERY, &tokenHandle) || !LookupPrivilegeValueW(nullptr, name, &luid))
        return 0xFFFFFFFF;
    ATL::CHandle token(tokenHandle);
    DWORD length = 0;
    std::unique_ptr<BYTE[]> info(LsaUtil::GetTokenInformation(token, TokenPrivileges, &length));
    const auto* privileges = reinterpret_cast<const TOKEN_PRIVILEGES*>(info.get());
    for (DWORD i = 0; privileges != nullptr && i < privileges->PrivilegeCount; ++i)
    {
        if (privileges->Privileges[i].Luid.LowPart == luid.LowPart && privileges->Privileges[i].Luid.HighPart == luid.HighPart)
            return privileges->Privileges[i].Attributes & SE_PRIVILEGE_ENABLED;
    }
    return 0xFFFFFFFF;
}

TEST(LsaPrivilege, EnableAndDisableAHeldPrivilege)
{
    const DWORD self = GetCurrentProcessId();
    const wchar_t* name = L"SeShutdownPrivilege";
    const DWORD before = PrivilegeState(GetCurrentProcess(), name);
    ASSERT_NE(before, 0xFFFFFFFF) << "the token holds no shutdown privilege";
    for (BOOL enable : {TRUE, FALSE, TRUE})
    {
        EXPECT_TRUE(LsaUtil::EnablePrivilege(self, name, enable));
        EXPECT_EQ(PrivilegeState(GetCurrentProcess(), name), enable ? DWORD(SE_PRIVILEGE_ENABLED) : 0u);
    }
    EXPECT_TRUE(LsaUtil::EnablePrivilege(self, name, before != 0));
}

TEST(LsaPrivilege, MissingPrivilegeUnknownNameAndBadProcess)
{
    ATL::CHandle restricted = QXTest::RestrictedProcessToken({}, {L"SeDebugPrivilege"});
    QXTest::ChildProcess child(restricted);
    ASSERT_TRUE(child.Ready());
    ASSERT_EQ(PrivilegeState(child.Process(), L"SeDebugPrivilege"), 0xFFFFFFFF);
    QXTest::LogCapture log;
    struct
    {
        DWORD pid;
        const wchar_t* name;
        DWORD error;
    } cases[] = {
        {child.Pid(), L"SeDebugPrivilege", ERROR_NOT_ALL_ASSIGNED},
        {GetCurrentProcessId(), L"SeCreateTokenPrivilege", ERROR_NOT_ALL_ASSIGNED},
        {GetCurrentProcessId(), L"SeNoSuchPrivilege", ERROR_NO_SUCH_PRIVILEGE},
        {GetCurrentProcessId(), nullptr, ERROR_INVALID_PARAMETER},
        {0, L"SeShutdownPrivilege", ERROR_INVALID_PARAMETER},
    };
    for (const auto& c : cases)
    {
        EXPECT_FALSE(LsaUtil::EnablePrivilege(c.pid, c.name, TRUE));
        EXPECT_EQ(GetLastError(), c.error) << c.pid;
    }
    EXPECT_LOG(log, 1, "LsaUtil::LookupPrivilegeValueCache",
               L"Failed to find privilege [SeNoSuchPrivilege] in system. Error code [1313]\n");
}

// Every privilege name, asked by many threads at once, with and without the
// cache filled, gives what the system gives.
TEST(LsaPrivilege, CachedLookupAgreesWithTheSystemFromManyThreads)
{
    std::vector<std::wstring> names;
    for (DWORD low = 2; low < 64; ++low)
    {
        LUID luid = {low, 0};
        wchar_t name[128];
        DWORD length = 128;
        if (LookupPrivilegeNameW(nullptr, &luid, name, &length))
            names.emplace_back(name);
    }
    ASSERT_GE(names.size(), 20u);
    names.emplace_back(L"SeNoSuchPrivilege");
    std::atomic<int> disagreements{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            for (int round = 0; round < 50; ++round)
                for (size_t i = 0; i < names.size(); ++i)
                {
                    const std::wstring& name = names[(i + t * 7) % names.size()];
                    LUID cached = {0xFFFF, 0}, system = {0xEEEE, 0};
                    const BOOL found = LsaUtil::LookupPrivilegeValueCache(name.c_str(), cached);
                    const BOOL expected = LookupPrivilegeValueW(nullptr, name.c_str(), &system);
                    if (found != expected || (found && (cached.LowPart != system.LowPart || cached.HighPart != system.HighPart)))
                        ++disagreements;
                }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(disagreements, 0);
}

TEST(LsaUtil, TokenInformationAccountsAndGroups)
{
    ATL::CHandle token = ProcessToken();
    DWORD length = 0;
    std::unique_ptr<BYTE[]> user(LsaUtil::GetTokenInformation(token, TokenUser, &length));
    ASSERT_NE(user, nullptr);
    EXPECT_GE(length, sizeof(TOKEN_USER));
    const std::wstring userSid = QXTest::SidText(reinterpret_cast<TOKEN_USER*>(user.get())->User.Sid);
    EXPECT_EQ(LsaUtil::GetTokenInformation(nullptr, TokenUser, &length), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));

    wchar_t name[256];
    DWORD size = 256;
    ASSERT_TRUE(GetUserNameW(name, &size));
    QXTest::LogCapture log;
    for (const auto& [account, sid] : {std::pair<const wchar_t*, std::wstring>{name, userSid},
                                      {L"Administrators", L"S-1-5-32-544"},
                                      {L"qx-no-such-account-4711", L""},
                                      {nullptr, L""}})
    {
        PSID found = LsaUtil::GetUserAccountSid(account);
        EXPECT_EQ(QXTest::SidText(found), sid);
        if (found != nullptr)
        {
            EXPECT_TRUE(HeapFree(GetProcessHeap(), 0, found));
        }
    }
    EXPECT_LOG(log, 1, "LsaUtil::GetUserAccountSid", L"Failed to LookupAccountName [qx-no-such-account-4711]. Error [1332]\n");

    TOKEN_GROUPS* admins = LsaUtil::GetAdminGroup();
    ASSERT_NE(admins, nullptr);
    EXPECT_EQ(admins->GroupCount, 1u);
    EXPECT_EQ(QXTest::SidText(admins->Groups[0].Sid), L"S-1-5-32-544");
    EXPECT_EQ(admins->Groups[0].Attributes, 7u);
    // The SID lies inside the one block, so that one HeapFree frees all.
    const BYTE* block = reinterpret_cast<const BYTE*>(admins);
    const BYTE* sid = static_cast<const BYTE*>(admins->Groups[0].Sid);
    EXPECT_TRUE(sid >= block + sizeof(TOKEN_GROUPS) &&
                sid + GetLengthSid(admins->Groups[0].Sid) <= block + HeapSize(GetProcessHeap(), 0, admins));
    EXPECT_TRUE(HeapFree(GetProcessHeap(), 0, admins));
}

TEST(LsaUtil, LsaStrings)
{
    LSA_STRING text = {};
    EXPECT_TRUE(LsaUtil::InitializeLsaString(&text, "SeTcbPrivilege"));
    EXPECT_EQ(text.Length, 14);
    EXPECT_EQ(text.MaximumLength, 15);
    EXPECT_STREQ(text.Buffer, "SeTcbPrivilege");
    EXPECT_TRUE(LsaUtil::InitializeLsaString(&text, nullptr));
    EXPECT_EQ(text.Length + text.MaximumLength, 0);
    EXPECT_EQ(text.Buffer, nullptr);
    const std::string longest(0xFFFE, 'x'), tooLong(0xFFFF, 'x');
    EXPECT_TRUE(LsaUtil::InitializeLsaString(&text, longest.c_str()));
    EXPECT_EQ(text.MaximumLength, 0xFFFF);
    EXPECT_FALSE(LsaUtil::InitializeLsaString(&text, tooLong.c_str()));
    EXPECT_FALSE(LsaUtil::InitializeLsaString(nullptr, "x"));
}
} // namespace
