// Real tokens of this process, of children and of impersonating threads; the
// library's imports answered by stand-ins only where Wine has no real path.

#include "QXTestSupport.h"
#include "TokenTestSupport.h"

#include "QXCommon/QXCommon.h"

#include <atlsecurity.h>
#include <sddl.h>

#include <gtest/gtest.h>

#include <memory>
#include <optional>

namespace F = QXCommonFunctions;
using QXCommon::CProcessIDAndCreateTime;
using QXTest::DescribeImpersonation;
using QXTest::DescribeToken;
using std::to_wstring;

namespace
{
const wchar_t* const UrmSid = L"S-1-5-21-612037418-213544074-8-1-0-0";

ATL::CHandle ProcessToken(DWORD access = TOKEN_ALL_ACCESS)
{
    HANDLE token = nullptr;
    OpenProcessToken(GetCurrentProcess(), access, &token);
    return ATL::CHandle(token);
}

// Wine cannot make a token with chosen groups (no NtCreateToken): while this
// lives, the library's GetTokenInformation answers Administrators as `admins`
// ("" a null SID) and its CheckTokenMembership counts `granted` as held. Every
// heap is checked after each buffer filled: under WINEDEBUG=warn+heap (tail
// checking) that sees an overrun.
struct GroupsStandIn : QXTest::NoCopy
{
    static inline std::wstring admins = L"S-1-5-32-544", granted;
    static inline int damagedHeaps = 0;
    GroupsStandIn(const std::wstring& answer, const std::wstring& grant = L"") { admins = answer, granted = grant; }
    static BOOL WINAPI Info(HANDLE token, TOKEN_INFORMATION_CLASS infoClass, void* buffer, DWORD size, DWORD* needed)
    {
        const BOOL done = GetTokenInformation(token, infoClass, buffer, size, needed);
        const DWORD error = GetLastError();
        HANDLE heaps[256];
        for (DWORD i = 0, count = done ? GetProcessHeaps(256, heaps) : 0; i < count && i < 256; ++i)
            damagedHeaps += !HeapValidate(heaps[i], 0, nullptr);
        auto* groups = static_cast<TOKEN_GROUPS*>(buffer);
        for (DWORD i = 0; done && infoClass == TokenGroups && i < groups->GroupCount; ++i)
        {
            PSID& sid = groups->Groups[i].Sid, answer = nullptr;
            if (QXTest::SidText(sid) == L"S-1-5-32-544" && !ConvertStringSidToSidW(admins.c_str(), &answer))
                sid = nullptr;
            else if (answer != nullptr)
                CopySid(GetLengthSid(sid), sid, answer);
            LocalFree(answer);
        }
        return SetLastError(error), done;
    }
    static BOOL WINAPI Member(HANDLE token, PSID sid, PBOOL member)
    {
        const BOOL done = CheckTokenMembership(token, sid, member);
        *member = *member || (done && QXTest::SidText(sid) == granted);
        return done;
    }
    QXTest::ImportPatch info{L"QXCommon.dll", "advapi32.dll", "GetTokenInformation", reinterpret_cast<void*>(&Info)};
    QXTest::ImportPatch member{L"QXCommon.dll", "advapi32.dll", "CheckTokenMembership", reinterpret_cast<void*>(&Member)};
};

// kernel32 has no CheckElevation under Wine: the library's one lookup of it
// (through its import of GetProcAddress) finds this routine, which records
// its arguments and writes the run level it is told to.
struct ElevationStandIn
{
    static inline std::vector<std::wstring> calls;
    static inline std::optional<DWORD> level;
    static DWORD WINAPI Routine(LPCWSTR path, PDWORD flags, HANDLE token, PDWORD runLevel, PDWORD)
    {
        calls.push_back(std::wstring(path) + L"|" + to_wstring(*flags) + (token != nullptr ? L"|token" : L""));
        *runLevel = level.value_or(*runLevel);
        return ERROR_ACCESS_DENIED; // the routine's own result is not the answer
    }
    static FARPROC WINAPI Find(HMODULE module, LPCSTR name)
    {
        return HIWORD(name) != 0 && !strcmp(name, "CheckElevation") ? reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&Routine)) : GetProcAddress(module, name);
    }
};

using Attach = std::function<BOOL(ATL::CAccessToken&, DWORD)>;
const Attach Primary = &F::AttachAtlAccessTokenToPrimaryTokenFromProcessId,
             Impersonation = &F::AttachAtlAccessTokenToImpersonationTokenFromProcessId,
             Thread = &F::AttachAtlAccessTokenToTokenFromThreadId;
} // namespace

// Tokens of a child under Administrators deny-only and of this thread
// impersonating it; what a thread acts as, always as a primary token.
TEST(TokenAttach, ProcessAndThreadTokensCarryTheirIdentity)
{
    QXTest::RevertAtExit revert;
    ATL::CHandle own = ProcessToken(), restricted = QXTest::AdminDenyOnlyToken();
    QXTest::ChildProcess child(restricted);
    ASSERT_TRUE(child.Ready());
    const DWORD self = GetCurrentThreadId();
    const Attach acting = [](ATL::CAccessToken& t, DWORD tid) { return F::ObtainPrimaryTokenFromProcessOrThread(GetCurrentProcessId(), tid, t); };
    const std::tuple<Attach, DWORD, HANDLE, TOKEN_TYPE> cases[] = {{Primary, child.Pid(), restricted, TokenPrimary},
                                                                   {Impersonation, child.Pid(), restricted, TokenImpersonation},
                                                                   {Thread, self, restricted, TokenImpersonation},
                                                                   {acting, self, restricted, TokenPrimary},
                                                                   {acting, self, own, TokenPrimary}};
    for (const auto& [attach, id, identity, type] : cases)
    {
        ASSERT_TRUE(identity == own ? RevertToSelf() : ImpersonateLoggedOnUser(restricted));
        ATL::CAccessToken token;
        TOKEN_TYPE made = static_cast<TOKEN_TYPE>(0);
        DWORD size = 0;
        ASSERT_TRUE(attach(token, id) && GetTokenInformation(token.GetHandle(), TokenType, &made, sizeof made, &size)) << id;
        EXPECT_EQ(DescribeToken(token.GetHandle()) + to_wstring(made), DescribeToken(identity) + to_wstring(type));
    }
}

// Every refusal: its result, the error the caller reads afterwards (logging,
// on here, changes the thread's last error) and the line logged.
TEST(TokenRefusals, ResultErrorAndLogLine)
{
    QXTest::ChildProcess child(QXTest::RestrictedProcessToken({}, {L"SeDebugPrivilege"}));
    ASSERT_TRUE(child.Ready());
    ATL::CHandle event(CreateEventW(nullptr, FALSE, FALSE, nullptr)), source = ProcessToken(TOKEN_QUERY_SOURCE);
    ATL::CAccessToken token, primary;
    primary.Attach(ProcessToken().Detach());
    ATL::CSid sid;
    LSA_STRING text = {};
    const DWORD self = GetCurrentProcessId(), thread = GetCurrentThreadId(), lacking = child.Pid();
    const std::string tooLong(0xFFFF, 'x'), fn = "QXCommonFunctions::", at = fn + "AttachAtlAccessTokenTo", obtain = fn + "ObtainPrimaryTokenFromProcessOrThread";
#define REFUSED(call) [&] { return (call) || token.GetHandle() != nullptr || sid.IsValid(); }
    const std::tuple<std::function<bool()>, DWORD, std::string, std::wstring> cases[] = {
        {REFUSED(Primary(token, 0)), 87, at + "PrimaryTokenFromProcessId", L"OpenProcess(0) failed (Error 87).\n"},
        {REFUSED(Impersonation(token, 0)), 87, at + "ImpersonationTokenFromProcessId", L"OpenProcess(0) failed (Error 87).\n"},
        {REFUSED(Thread(token, 0)), 87, at + "TokenFromThreadId", L"OpenThread(0) failed (Error 87).\n"},
        {REFUSED(Thread(token, thread)), ERROR_NO_TOKEN, at + "TokenFromThreadId", L"The thread does not have a token to open.\n"},
        {REFUSED(Thread(primary, thread)), 87, at + "TokenFromThreadId", L"Supplied Access Token was already attached to a handle.\n"},
        {REFUSED(F::ObtainPrimaryTokenFromProcessOrThread(0, thread, token)), 87, obtain, L"OpenProcess(0) failed (Error 87).\n"},
        {REFUSED(F::ObtainPrimaryTokenFromProcessOrThread(self, 0, token)), 87, obtain, L"OpenThread(0) failed (Error 87).\n"},
        {REFUSED(F::ConvertStringSidToATLSidW(nullptr, sid)), 87, fn + "ConvertStringSidToATLSidW", L"Failed to Convert SID [(null)]. Error [87].\n"},
        {REFUSED(F::ConvertStringSidToATLSidW(L"S-1", sid)), ERROR_INVALID_SID, fn + "ConvertStringSidToATLSidW", L"Failed to Convert SID [S-1]. Error [1337].\n"},
        {REFUSED(F::TokenHasMembership(primary, L"S-1-5-32-544")), 1309, fn + "TokenHasMembership", L"Failed to CheckTokenMembership for SID [S-1-5-32-544]. Error [1309].\n"},
        {REFUSED(F::TokenHasMembership(primary, L"S-1-5-32-5x")), ERROR_INVALID_SID, fn + "TokenHasMembership", L"Failed to Convert SID [S-1-5-32-5x]. Error [1337].\n"},
        {REFUSED(F::IsProcessURMed(0)), 87, fn + "IsProcessURMed", L"Failed AttachAtlAccessTokenToPrimaryTokenFromProcessId [0]. Error [87]\n"},
        {REFUSED(F::IsTokenElevated(source)), 5, fn + "IsTokenElevated", L"Failed to obtain Token Information. Assuming NOT Elevated. Error [5].\n"},
        {REFUSED(F::IsRestrictedOrFullAdmin(nullptr)), 6, fn + "IsRestrictedOrFullAdmin", L"Failed to GetTokenInformation. Error: 6"},
        {REFUSED(QXCommon::QXAccessTokenMembership().HasAdminSid(nullptr)), 6, "QXCommon::QXAccessTokenMembership::HasAdminSid", L"Error - hToken is NULL.\n"},
        {REFUSED(QXCommon::QXAccessTokenMembership().HasAdminSid(event)), 6, "QXCommon::QXAccessTokenMembership::CheckMembershipWithoutAttributes",
         L"Failed to GetTokenInformation for the token's groups. Error [6].\n"},
        {REFUSED(LsaUtil::EnablePrivilege(lacking, L"SeDebugPrivilege", TRUE)), ERROR_NOT_ALL_ASSIGNED, "LsaUtil::EnablePrivilege",
         L"Failed to AdjustTokenPrivileges [SeDebugPrivilege] of process (" + to_wstring(lacking) + L") to [1]. Error [1300]\n"},
        {REFUSED(LsaUtil::EnablePrivilege(self, L"SeNoSuchPrivilege", TRUE)), 1313, "LsaUtil::LookupPrivilegeValueCache",
         L"Failed to find privilege [SeNoSuchPrivilege] in system. Error code [1313]\n"},
        {REFUSED(LsaUtil::EnablePrivilege(self, nullptr, TRUE)), 87, "LsaUtil::LookupPrivilegeValueCache", L"Failed to find privilege [(null)] in system. Error code [87]\n"},
        {REFUSED(LsaUtil::EnablePrivilege(0, L"SeShutdownPrivilege", TRUE)), 87, "LsaUtil::EnablePrivilege",
         L"Failed to OpenProcess(0) to adjust privilege [SeShutdownPrivilege]. Error [87]\n"},
        {REFUSED(LsaUtil::GetUserAccountSid(L"qx-no-such-account-4711")), 1332, "LsaUtil::GetUserAccountSid",
         L"Failed to LookupAccountName [qx-no-such-account-4711]. Error [1332]\n"},
        {REFUSED(LsaUtil::GetUserAccountSid(nullptr)), 87, "LsaUtil::GetUserAccountSid", L"Failed to LookupAccountName [(null)]. Error [87]\n"},
        {REFUSED(LsaUtil::GetTokenInformation(nullptr, TokenUser, nullptr)), 6, "", L""},
        {REFUSED(LsaUtil::InitializeLsaString(&text, tooLong.c_str())), 87, "", L""},
        {REFUSED(LsaUtil::InitializeLsaString(nullptr, "x")), 87, "", L""}};
#undef REFUSED
    QXTest::LogCapture log;
    for (const auto& [call, error, function, line] : cases)
    {
        SCOPED_TRACE(function + " " + QXTest::Narrow(line));
        SetLastError(0);
        EXPECT_FALSE(call());
        EXPECT_EQ(GetLastError(), error);
        EXPECT_TRUE(function.empty() || log.Has(1, function, line)) << log.Dump();
    }
}

// HasAdminSid counts Administrators whatever its attributes, on a borrowed
// handle, by containment of a group's text in "S-1-5-32-544" (so BATCH,
// S-1-5-3, counts); TokenHasMembership is the system's rule on an
// impersonation token, and IsProcessURMed is that rule for one group.
TEST(TokenMembership, AttributeBlindContainmentAgainstTheSystemRule)
{
    ATL::CHandle own = ProcessToken(), denyOnly = QXTest::AdminDenyOnlyToken();
    const QXCommon::QXAccessTokenMembership membership;
    for (const auto& [primary, admin] : {std::pair{own.m_h, true}, {denyOnly.m_h, false}})
    {
        EXPECT_TRUE(membership.HasAdminSid(primary));
        ATL::CAccessToken query;
        query.Attach(QXTest::ImpersonationCopy(primary).Detach());
        EXPECT_EQ(F::TokenHasMembership(query, L"S-1-5-32-544"), admin);
        EXPECT_TRUE(F::TokenHasMembership(query, L"S-1-1-0") && !F::TokenHasMembership(query, L"S-1-5-32-546"));
    }
    EXPECT_NE(DescribeToken(own).find(L"S-1-5-32-544"), std::wstring::npos); // the handle was only borrowed
    for (const auto& [answer, admin] : {std::pair{L"S-1-5-3", TRUE}, {L"S-1-5-32", TRUE}, {L"S-1-5-32-545", FALSE}, {L"", FALSE}})
    {
        GroupsStandIn standIn(answer);
        EXPECT_EQ(membership.HasAdminSid(own), admin) << QXTest::Narrow(answer);
    }
    QXTest::LogCapture log;
    const DWORD self = GetCurrentProcessId();
    for (const auto& [grant, urmed] : {std::pair{L"S-1-5-3", false}, {UrmSid, true}})
    {
        GroupsStandIn standIn(L"S-1-5-32-544", grant);
        EXPECT_EQ(F::IsProcessURMed(self), urmed);
        EXPECT_EQ(log.Has(4, "QXCommonFunctions::IsProcessURMed", L"Process ID [" + to_wstring(self) + L"] has URM SID membership\n"), urmed);
        GroupsStandIn::damagedHeaps = 0;
        delete[] LsaUtil::GetTokenInformation(own, TokenGroups, nullptr);
        EXPECT_TRUE(membership.HasAdminSid(own) && GroupsStandIn::damagedHeaps == 0) << "a heap was damaged reading the groups";
    }
    ATL::CSid sid;
    EXPECT_TRUE(F::ConvertStringSidToATLSidW(UrmSid, sid) && sid.Sid() == std::wstring(UrmSid));
}

// Under Wine every token of the one user is elevated and of elevation type
// Full, also when restricted or copied; its linked token is of type Limited
// and not elevated.
TEST(TokenElevation, WinesTokens)
{
    if (GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") == nullptr)
        GTEST_SKIP() << "the expected answers are Wine's";
    ATL::CHandle own = ProcessToken();
    TOKEN_LINKED_TOKEN linked = {};
    DWORD size = 0;
    ASSERT_TRUE(GetTokenInformation(own, TokenLinkedToken, &linked, sizeof linked, &size));
    ATL::CHandle limited(linked.LinkedToken), denyOnly = QXTest::AdminDenyOnlyToken(), copy = QXTest::ImpersonationCopy(own);
    for (const auto& [token, elevated] : {std::pair{own.m_h, true}, {limited.m_h, false}, {denyOnly.m_h, true}, {copy.m_h, true}})
        EXPECT_EQ(std::pair(F::IsTokenElevated(token), F::IsRestrictedOrFullAdmin(token)), std::pair(elevated, true)) << elevated;
}

// The routine is looked up once per process: this test must be the first to call it.
TEST(TokenElevation, CheckElevationPassesOnTheRoutinesRunLevel)
{
    QXTest::ImportPatch find(L"QXCommon.dll", "kernel32.dll", "GetProcAddress", reinterpret_cast<void*>(&ElevationStandIn::Find));
    ASSERT_TRUE(find.Installed());
    const std::tuple<const wchar_t*, std::optional<DWORD>, DWORD> cases[] = {
        {L"", 3, 0}, {L"C:\\a.exe", 3, 3}, {L"C:\\b.exe", std::nullopt, 0}, {L"C:\\c.exe", 0x10, 0x10}};
    for (const auto& [path, level, expected] : cases)
    {
        ElevationStandIn::level = level;
        EXPECT_EQ(F::CheckElevation(path), expected) << QXTest::Narrow(path);
    }
    EXPECT_EQ(ElevationStandIn::calls, (std::vector<std::wstring>{L"C:\\a.exe|0", L"C:\\b.exe|0", L"C:\\c.exe|0"}));
}

// The owner's reports decide whether the guard reverts to what the thread
// impersonated before (nothing, or another identity).
TEST(ImpersonationSaver, RestoresThePreviousImpersonationUnlessToldNothingHappened)
{
    QXTest::RevertAtExit revert;
    ATL::CHandle a = QXTest::AdminDenyOnlyToken(), b = QXTest::RestrictedProcessToken({L"S-1-5-32-545"});
    const std::pair<std::vector<int>, bool> cases[] = {{{}, true},      {{1}, true},     {{2}, false},     {{0}, false},
                                                       {{0, 2}, true}, {{1, 0}, true}, {{0, 0}, false}};
    for (HANDLE before : {static_cast<HANDLE>(nullptr), a.m_h})
        for (const auto& [reports, reverts] : cases)
        {
            SCOPED_TRACE(testing::PrintToString(reports) + (before ? " while impersonating" : ""));
            RevertToSelf();
            ASSERT_TRUE(before == nullptr || ImpersonateLoggedOnUser(before));
            const std::wstring previous = DescribeImpersonation();
            {
                QXCommon::CImpersonationSaver guard;
                ASSERT_TRUE(ImpersonateLoggedOnUser(b));
                for (int report : reports)
                    guard.SetImpersonationOccurred(report);
            }
            EXPECT_EQ(DescribeImpersonation(), reverts ? previous : DescribeToken(b));
        }
}

// A caller impersonating at anonymous level (which cannot be captured) gets it
// back from every call that impersonates on its thread; one whose token cannot
// be captured (its opens refused) is refused before anything changes.
TEST(ImpersonationSaver, CallersKeepWhatTheyImpersonate)
{
    QXTest::RevertAtExit revert;
    ATL::CHandle b = QXTest::AdminDenyOnlyToken(), anonymous;
    ATL::CAccessToken user;
    ASSERT_TRUE(user.GetProcessToken(TOKEN_ALL_ACCESS));
    QXTest::TempDir dir;
    const std::wstring file = dir.Write(L"guarded.txt", "x");
    QXCommon::CDigitalCertificate noCertificate;
    const std::pair<const char*, std::function<DWORD()>> calls[] = {
        {"guard", [&] { QXCommon::CImpersonationSaver guard; return guard.GetCaptureError() ? guard.GetCaptureError() : !ImpersonateLoggedOnUser(b); }},
        {"ChangeOwner", [&] { return QXCommon::CChangeFileOwner().ChangeOwner(file, user); }},
        {"Verify", [&] { return DWORD(QXCommon::VerifySignedFile(false, 0, false).Verify(noCertificate, file, user)); }},
    };
    ASSERT_TRUE(DuplicateTokenEx(ProcessToken(), TOKEN_ALL_ACCESS, nullptr, SecurityAnonymous, TokenImpersonation, &anonymous.m_h));
    for (const auto& [name, call] : calls)
    {
        ASSERT_TRUE(SetThreadToken(nullptr, anonymous));
        call();
        EXPECT_EQ(DescribeImpersonation(), L"<error 1347>") << name << " left the anonymous caller";
    }

    const std::wstring identity = DescribeToken(b);
    QXTest::ImportPatch refuse(L"QXCommon.dll", "advapi32.dll", "OpenThreadToken", reinterpret_cast<void*>(+[](HANDLE, DWORD, BOOL, PHANDLE) -> BOOL {
                                   return SetLastError(ERROR_ACCESS_DENIED), FALSE;
                               }));
    ASSERT_TRUE(refuse.Installed() && ImpersonateLoggedOnUser(b));
    for (const auto& [name, call] : calls)
    {
        const DWORD result = call();
        EXPECT_EQ(DescribeImpersonation(), identity) << name;
        EXPECT_TRUE(result == ERROR_ACCESS_DENIED || std::string(name) == "Verify") << name; // Verify opens the path as the caller
    }
}

// A held privilege turned on and off (its name then cached), token
// information, account SIDs, the Administrators group in one heap block with
// its SID, and LSA strings up to their limit.
TEST(LsaUtil, PrivilegesTokenInformationAccountsGroupsAndStrings)
{
    const wchar_t* name = L"SeShutdownPrivilege";
    ATL::CHandle own = ProcessToken();
    const DWORD self = GetCurrentProcessId(), before = QXTest::PrivilegeAttributes(own, name);
    ASSERT_NE(before, 0xFFFFFFFF) << "the token holds no shutdown privilege";
    for (BOOL enable : {TRUE, FALSE, TRUE})
    {
        EXPECT_TRUE(LsaUtil::EnablePrivilege(self, name, enable));
        EXPECT_EQ(QXTest::PrivilegeAttributes(own, name) & SE_PRIVILEGE_ENABLED, enable ? DWORD(SE_PRIVILEGE_ENABLED) : 0u);
    }
    EXPECT_TRUE(LsaUtil::EnablePrivilege(self, name, (before & SE_PRIVILEGE_ENABLED) != 0));

    DWORD length = 0;
    std::unique_ptr<BYTE[]> user(LsaUtil::GetTokenInformation(own, TokenUser, &length));
    ASSERT_TRUE(user != nullptr && length >= sizeof(TOKEN_USER));
    EXPECT_EQ(DescribeToken(own).find(L"user " + QXTest::SidText(reinterpret_cast<TOKEN_USER*>(user.get())->User.Sid) + L";"), 0u);
    PSID admins = LsaUtil::GetUserAccountSid(L"Administrators");
    EXPECT_EQ(QXTest::SidText(admins), L"S-1-5-32-544");
    EXPECT_TRUE(admins == nullptr || HeapFree(GetProcessHeap(), 0, admins));
    TOKEN_GROUPS* group = LsaUtil::GetAdminGroup();
    ASSERT_NE(group, nullptr);
    const BYTE *block = reinterpret_cast<const BYTE*>(group), *sid = static_cast<const BYTE*>(group->Groups[0].Sid);
    EXPECT_EQ(to_wstring(group->GroupCount) + QXTest::SidText(group->Groups[0].Sid) + to_wstring(group->Groups[0].Attributes), L"1S-1-5-32-5447");
    EXPECT_TRUE(sid >= block + sizeof(TOKEN_GROUPS) && sid + GetLengthSid(group->Groups[0].Sid) <= block + HeapSize(GetProcessHeap(), 0, group));
    EXPECT_TRUE(HeapFree(GetProcessHeap(), 0, group));

    LSA_STRING text = {};
    EXPECT_TRUE(LsaUtil::InitializeLsaString(&text, "SeTcbPrivilege"));
    EXPECT_EQ(std::string(text.Buffer) + std::to_string(text.Length) + "/" + std::to_string(text.MaximumLength), "SeTcbPrivilege14/15");
    EXPECT_TRUE(LsaUtil::InitializeLsaString(&text, nullptr) && text.Length + text.MaximumLength == 0 && text.Buffer == nullptr);
    EXPECT_TRUE(LsaUtil::InitializeLsaString(&text, std::string(0xFFFE, 'x').c_str()) && text.MaximumLength == 0xFFFF);
}

namespace
{
const std::string Of = "QXCommon::CProcessIDAndCreateTime::";

// The key as it must read, from the system's own creation time.
std::wstring ExpectedKey(DWORD pid, HANDLE process)
{
    FILETIME created, exited, kernel, user;
    GetProcessTimes(process, &created, &exited, &kernel, &user);
    return to_wstring(pid) + L"-" + to_wstring(created.dwHighDateTime) + L"-" + to_wstring(created.dwLowDateTime);
}

// "valid id key | result key id high-low": what the plain accessors and those
// that return an error code answer (7 2-1 untouched: outputs left alone).
std::wstring Answers(CProcessIDAndCreateTime& identity)
{
    std::wstring key = L"untouched";
    DWORD id = 7;
    FILETIME time = {1, 2};
    const DWORD result = identity.GetProcessIDAndCreateTime(key) + identity.GetProcessID(id) + identity.GetProcessStartTime(time);
    return to_wstring(identity.IsValid()) + L" " + to_wstring(identity.GetProcessID()) + L" " + identity.GetProcessIDAndCreateTime() + L" | " +
           to_wstring(result) + L" " + key + L" " + to_wstring(id) + L" " + to_wstring(time.dwHighDateTime) + L"-" + to_wstring(time.dwLowDateTime);
}
const std::wstring Empty = L"0 0  | 39 untouched 7 2-1";

// Lends a handle of its own when given one; shows the one it holds.
struct LendingIdentity : CProcessIDAndCreateTime
{
    HANDLE lent = nullptr;
    DWORD GetProcessHandle(HANDLE& process) override { return lent ? (process = lent, 0) : CProcessIDAndCreateTime::GetProcessHandle(process); }
    DWORD ReleaseProcessHandle(HANDLE& process) override { return lent ? 0 : CProcessIDAndCreateTime::ReleaseProcessHandle(process); }
    HANDLE Held() { HANDLE process = nullptr; return GetProcessHandle(process) == 0 ? process : nullptr; }
};

bool IsOpen(HANDLE handle) { DWORD flags = 0; return GetHandleInformation(handle, &flags) != FALSE; }
} // namespace

// Keys agree with the system's creation time, copies keep them after the
// process ends; Clear, and an id that names no process, leave the object empty.
TEST(ProcessIdentity, KeysOfLiveProcessesMatchTheSystemsCreationTime)
{
    QXTest::ChildProcess child;
    ASSERT_TRUE(child.Ready());
    CProcessIDAndCreateTime first, own;
    const size_t handles = QXTest::OpenHandleCount();
    ASSERT_EQ(first.Initialise(child.Pid()) + own.Initialise(), 0u);
    EXPECT_EQ(QXTest::OpenHandleCount(), handles); // nothing held after Initialise
    auto valid = [](DWORD pid, const std::wstring& key) {
        return L"1 " + to_wstring(pid) + L" " + key + L" | 0 " + key + L" " + to_wstring(pid) + L" " + key.substr(key.find(L'-') + 1);
    };
    EXPECT_EQ(Answers(own), valid(GetCurrentProcessId(), ExpectedKey(GetCurrentProcessId(), GetCurrentProcess())));
    const std::wstring key = ExpectedKey(child.Pid(), child.Process());
    CProcessIDAndCreateTime copy(first), assigned;
    assigned = first;
    child.Finish();
    for (CProcessIDAndCreateTime* kept : {&first, &copy, &assigned})
        EXPECT_EQ(Answers(*kept), valid(child.Pid(), key));
    QXTest::LogCapture log;
    EXPECT_EQ(first.Clear() + own.Initialise(0), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_LOGGED(log, 1, Of + "InitProcessHandle", L"Open process failed. Error [87]\n");
    EXPECT_EQ(Answers(first) + L" / " + Answers(own), Empty + L" / " + Empty);
    EXPECT_LOGGED(log, 1, Of + "GetProcessStartTime", L"Process start time is invalid.\n");
}

// The held handle is handed out twice, a foreign one refused, Clear closes it;
// copies never take it, an assigned object closes its own once, nothing stays
// open. A lent handle that is no process gives GetProcessTimes' error.
TEST(ProcessIdentity, LentAndHeldHandles)
{
    ATL::CHandle foreign(CreateEventW(nullptr, FALSE, FALSE, nullptr)), slot;
    HANDLE notHeld = foreign, none = nullptr;
    const size_t handles = QXTest::OpenHandleCount();
    QXTest::LogCapture log;
    {
        LendingIdentity identity, target;
        ASSERT_EQ(identity.Initialise() + target.Initialise(), 0u);
        HANDLE process = identity.Held();
        EXPECT_EQ(identity.Held(), process);
        EXPECT_EQ(identity.ReleaseProcessHandle(notHeld), static_cast<DWORD>(ERROR_INVALID_HANDLE));
        EXPECT_LOGGED(log, 1, Of + "ReleaseProcessHandle", L"Process handle invalid\n");
        EXPECT_TRUE(IsOpen(process));
        EXPECT_EQ(identity.ReleaseProcessHandle(none) + identity.ReleaseProcessHandle(notHeld), 0u);
        EXPECT_FALSE(IsOpen(process));
        process = identity.Held();
        identity.Clear();
        EXPECT_FALSE(IsOpen(process));

        ASSERT_EQ(identity.Initialise(), 0u);
        process = identity.Held();
        {
            LendingIdentity copy(identity);
            EXPECT_NE(copy.Held(), process);
        }
        const HANDLE targetsOwn = target.Held();
        target = identity;
        EXPECT_TRUE(IsOpen(process) && !IsOpen(targetsOwn) && target.Held() != process);
        slot.Attach(CreateEventW(nullptr, FALSE, FALSE, nullptr)); // may take a slot freed above
    }
    EXPECT_TRUE(IsOpen(slot)); // closed by nobody else
    EXPECT_EQ(QXTest::OpenHandleCount(), handles + 1);

    LendingIdentity identity;
    identity.lent = GetCurrentProcess();
    EXPECT_EQ(identity.Initialise(), 0u);
    EXPECT_EQ(identity.GetProcessIDAndCreateTime(), ExpectedKey(GetCurrentProcessId(), GetCurrentProcess()));
    identity.lent = foreign;
    EXPECT_EQ(identity.Initialise(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_LOGGED(log, 1, Of + "Initialise", L"Get process times failed. error [6]\n");
    EXPECT_EQ(Answers(identity), Empty);
}

// Calls of every function that opens handles, on its success and failure
// paths in turn, keep the handle count and leave no thread impersonating. Each
// runs alone after a first call (a lock's wait object made then is not counted).
TEST(TokenLeaks, RepeatedCallsKeepTheHandleCount)
{
    QXTest::RevertAtExit revert;
    ATL::CHandle restricted = QXTest::AdminDenyOnlyToken(), own = ProcessToken();
    const DWORD self = GetCurrentProcessId(), thread = GetCurrentThreadId(), processes[] = {self, 0};
    auto onThread = [&](int i) { return (i == 0 ? ImpersonateLoggedOnUser(restricted) : RevertToSelf()), thread; };
    const std::pair<const char*, std::function<void(int)>> cases[] = {
        {"AttachPrimary", [&](int i) { ATL::CAccessToken t; Primary(t, processes[i]); }},
        {"AttachImpersonation", [&](int i) { ATL::CAccessToken t; Impersonation(t, processes[i]); }},
        {"AttachThread", [&](int i) { ATL::CAccessToken t; Thread(t, onThread(i)); }},
        {"Obtain", [&](int i) { ATL::CAccessToken t; F::ObtainPrimaryTokenFromProcessOrThread(self, onThread(i), t); }},
        {"IsProcessURMed", [&](int i) { F::IsProcessURMed(processes[i]); }},
        {"EnablePrivilege", [&](int i) { LsaUtil::EnablePrivilege(self, i == 0 ? L"SeChangeNotifyPrivilege" : L"SeCreateTokenPrivilege", TRUE); }},
        {"ProcessIdentity", [&](int i) { CProcessIDAndCreateTime().Initialise(processes[i]); }},
        {"ImpersonationSaver", [&](int i) { onThread(i); QXCommon::CImpersonationSaver saver; ImpersonateLoggedOnUser(own); }},
    };
    for (const auto& [name, call] : cases)
    {
        call(0);
        call(1);
        const size_t before = QXTest::OpenHandleCount();
        for (int i = 0; i < 20; ++i)
            call(i % 2);
        RevertToSelf();
        EXPECT_EQ(QXTest::OpenHandleCount(), before) << name;
    }
    EXPECT_EQ(DescribeImpersonation(), L"nothing");
}
