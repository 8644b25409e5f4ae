// Real tokens of this process, of children and of impersonating threads.

#include "QXTestSupport.h"
#include "TokenTestSupport.h"

#include "QXCommon/ChangeFileOwner.h"
#include "QXCommon/DigitalCertificate.h"
#include "QXCommon/ImpersonationSaver.h"
#include "QXCommon/PipeImpersonateServer.h"
#include "QXCommon/LsaUtil.h"
#include "QXCommon/ProcessIDAndCreateTime.h"
#include "QXCommon/QXAccessTokenMembership.h"
#include "QXCommon/QXCommonFunctions.h"
#include "QXCommon/VerifySignedFile.h"

#include <atlsecurity.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

namespace F = QXCommonFunctions;
using QXCommon::CProcessIDAndCreateTime;
using QXTest::DescribeImpersonation;
using QXTest::DescribeToken;

namespace
{
// A thread that waits until the object ends, impersonating a copy of the
// token (or nothing, for a null token), set from outside.
struct ImpersonatingThread : QXTest::NoCopy
{
    explicit ImpersonatingThread(HANDLE token)
    {
        handle.Attach(CreateThread(nullptr, 0, [](void* stop) -> DWORD { return WaitForSingleObject(stop, INFINITE); }, stop, 0, &id));
        HANDLE thread = handle;
        impersonating = token != nullptr && SetThreadToken(&thread, QXTest::ImpersonationCopy(token));
    }
    ~ImpersonatingThread()
    {
        SetEvent(stop);
        WaitForSingleObject(handle, 30000);
    }
    ATL::CHandle stop{CreateEventW(nullptr, TRUE, FALSE, nullptr)}, handle;
    DWORD id = 0;
    bool impersonating = false;
};

ATL::CHandle ProcessToken()
{
    HANDLE token = nullptr;
    OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, &token);
    return ATL::CHandle(token);
}

TOKEN_TYPE TypeOf(HANDLE token)
{
    TOKEN_TYPE type = static_cast<TOKEN_TYPE>(0);
    DWORD size = 0;
    GetTokenInformation(token, TokenType, &type, sizeof type, &size);
    return type;
}

using Attach = BOOL (*)(ATL::CAccessToken&, DWORD);
const Attach Primary = &F::AttachAtlAccessTokenToPrimaryTokenFromProcessId,
             Impersonation = &F::AttachAtlAccessTokenToImpersonationTokenFromProcessId,
             Thread = &F::AttachAtlAccessTokenToTokenFromThreadId;
} // namespace

// Tokens of a child under Administrators deny-only and of a thread
// impersonating it; a token object that holds a handle is refused and keeps it.
TEST(TokenAttach, ProcessAndThreadTokensCarryTheirIdentity)
{
    ATL::CHandle own = ProcessToken(), restricted = QXTest::AdminDenyOnlyToken();
    QXTest::ChildProcess child(restricted);
    ImpersonatingThread impersonating(restricted), plain(nullptr);
    ASSERT_TRUE(child.Ready() && impersonating.impersonating);
    const std::tuple<Attach, DWORD, TOKEN_TYPE> cases[] = {
        {Primary, child.Pid(), TokenPrimary}, {Impersonation, child.Pid(), TokenImpersonation}, {Thread, impersonating.id, TokenImpersonation}};
    for (const auto& [attach, id, type] : cases)
    {
        ATL::CAccessToken token;
        ASSERT_TRUE(attach(token, id)) << id;
        EXPECT_EQ(DescribeToken(token.GetHandle()) + std::to_wstring(TypeOf(token.GetHandle())), DescribeToken(restricted) + std::to_wstring(type));
        QXTest::LogCapture log;
        const HANDLE held = token.GetHandle();
        EXPECT_FALSE(attach(token, id));
        EXPECT_EQ(token.GetHandle(), held);
        EXPECT_TRUE(log.HasFragment(L"Supplied Access Token was already attached to a handle.\n")) << log.Dump();
    }
    const std::string fn = "QXCommonFunctions::AttachAtlAccessTokenTo";
    const std::tuple<Attach, DWORD, DWORD, std::string, const wchar_t*> failures[] = {
        {Primary, 0, ERROR_INVALID_PARAMETER, fn + "PrimaryTokenFromProcessId", L"OpenProcess(0) failed (Error 87).\n"},
        {Impersonation, 0, ERROR_INVALID_PARAMETER, fn + "ImpersonationTokenFromProcessId", L"OpenProcess(0) failed (Error 87).\n"},
        {Thread, 0, ERROR_INVALID_PARAMETER, fn + "TokenFromThreadId", L"OpenThread(0) failed (Error 87).\n"},
        {Thread, plain.id, ERROR_NO_TOKEN, fn + "TokenFromThreadId", L"The thread does not have a token to open.\n"}};
    QXTest::LogCapture log;
    for (const auto& [attach, id, error, function, text] : failures)
    {
        ATL::CAccessToken token;
        SetLastError(0);
        EXPECT_FALSE(attach(token, id) || token.GetHandle() != nullptr);
        EXPECT_EQ(GetLastError(), error) << id;
        EXPECT_LOGGED(log, 1, function, text);
    }

    // The identity a thread acts with, always as a primary token.
    const DWORD self = GetCurrentProcessId();
    for (const auto& [tid, expected] : {std::pair{impersonating.id, restricted.m_h}, {plain.id, own.m_h}})
    {
        ATL::CAccessToken token;
        ASSERT_TRUE(F::ObtainPrimaryTokenFromProcessOrThread(self, tid, token) && TypeOf(token.GetHandle()) == TokenPrimary);
        EXPECT_EQ(DescribeToken(token.GetHandle()), DescribeToken(expected));
    }
    for (const auto& [pid, tid] : {std::pair{DWORD(0), plain.id}, {self, DWORD(0)}})
    {
        ATL::CAccessToken token;
        SetLastError(0);
        EXPECT_FALSE(F::ObtainPrimaryTokenFromProcessOrThread(pid, tid, token));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    }
    EXPECT_LOGGED(log, 1, "QXCommonFunctions::ObtainPrimaryTokenFromProcessOrThread", L"OpenProcess(0) failed (Error 87).\n");
    EXPECT_LOGGED(log, 1, "QXCommonFunctions::ObtainPrimaryTokenFromProcessOrThread", L"OpenThread(0) failed (Error 87).\n");
}

// HasAdminSid counts Administrators whatever its attributes, on a borrowed
// handle; TokenHasMembership is the system's rule on an impersonation token.
TEST(TokenMembership, AttributeBlindAgainstTheSystemRule)
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

    QXTest::LogCapture log;
    EXPECT_FALSE(membership.HasAdminSid(nullptr));
    EXPECT_LOGGED(log, 1, "QXCommon::QXAccessTokenMembership::HasAdminSid", L"Error - hToken is NULL.\n");
    ATL::CAccessToken primary;
    primary.Attach(ProcessToken().Detach());
    EXPECT_FALSE(F::TokenHasMembership(primary, L"S-1-5-32-544") || F::TokenHasMembership(primary, L"S-1-5-32-5x"));
    EXPECT_LOGGED(log, 1, "QXCommonFunctions::TokenHasMembership", L"Failed to CheckTokenMembership for SID [S-1-5-32-544]. Error [1309].\n");
    EXPECT_LOGGED(log, 1, "QXCommonFunctions::TokenHasMembership", L"Failed to Convert SID [S-1-5-32-5x]. Error [1337].\n");
    EXPECT_FALSE(F::IsProcessURMed(GetCurrentProcessId()) || F::IsProcessURMed(0));
    EXPECT_LOGGED(log, 1, "QXCommonFunctions::IsProcessURMed", L"Failed AttachAtlAccessTokenToPrimaryTokenFromProcessId [0]. Error [87]\n");
}

TEST(TokenMembership, DisabledGroupCountsOnlyAttributeBlind)
{
    ATL::CHandle copy = QXTest::ImpersonationCopy(ProcessToken());
    ATL::CSid admins = ATL::Sids::Admins();
    TOKEN_GROUPS change = {1, {{const_cast<SID*>(admins.GetPSID()), 0}}};
    SetLastError(ERROR_SUCCESS);
    if (!AdjustTokenGroups(copy, FALSE, &change, 0, nullptr, nullptr) || GetLastError() != ERROR_SUCCESS)
        GTEST_SKIP() << "AdjustTokenGroups cannot disable a group here (error " << GetLastError() << "): a disabled group is not shown";
    ATL::CAccessToken disabled;
    disabled.Attach(copy.Detach());
    EXPECT_FALSE(F::TokenHasMembership(disabled, L"S-1-5-32-544"));
    EXPECT_TRUE(QXCommon::QXAccessTokenMembership().HasAdminSid(disabled.GetHandle()));
}

// Both halves of a split administrator token as the platform reports them.
TEST(TokenElevation, AnswersFollowThePlatform)
{
    ATL::CHandle own = ProcessToken();
    TOKEN_LINKED_TOKEN linked = {};
    DWORD size = 0;
    ATL::CHandle other(GetTokenInformation(own, TokenLinkedToken, &linked, sizeof linked, &size) ? linked.LinkedToken : nullptr);
    for (HANDLE token : {own.m_h, other.m_h})
    {
        TOKEN_ELEVATION_TYPE type = TokenElevationTypeDefault;
        TOKEN_ELEVATION elevation = {};
        if (token == nullptr || !GetTokenInformation(token, TokenElevationType, &type, sizeof type, &size) ||
            !GetTokenInformation(token, TokenElevation, &elevation, sizeof elevation, &size))
            continue;
        EXPECT_EQ(F::IsTokenElevated(token), elevation.TokenIsElevated != 0);
        EXPECT_EQ(F::IsRestrictedOrFullAdmin(token), type == TokenElevationTypeFull || type == TokenElevationTypeLimited) << type;
    }
    QXTest::LogCapture log;
    EXPECT_FALSE(F::IsTokenElevated(nullptr) || F::IsRestrictedOrFullAdmin(nullptr));
    EXPECT_LOGGED(log, 1, "QXCommonFunctions::IsTokenElevated", L"Failed to obtain Token Information. Assuming NOT Elevated. Error [6].\n");
    EXPECT_LOGGED(log, 1, "QXCommonFunctions::IsRestrictedOrFullAdmin", L"Failed to GetTokenInformation. Error: 6");

    ATL::CSid sid, bad;
    const wchar_t* text = L"S-1-5-21-612037418-213544074-8-1-0-0";
    EXPECT_TRUE(F::ConvertStringSidToATLSidW(text, sid));
    EXPECT_STREQ(sid.Sid(), text);
    EXPECT_FALSE(F::ConvertStringSidToATLSidW(L"S-1", bad) || F::ConvertStringSidToATLSidW(nullptr, bad) || bad.IsValid());
    EXPECT_LOGGED(log, 1, "QXCommonFunctions::ConvertStringSidToATLSidW", L"Failed to Convert SID [(null)]. Error [87].\n");
}

TEST(TokenElevation, CheckElevationPassesTheSystemsRunLevel)
{
    using Routine = DWORD(WINAPI*)(LPCWSTR, PDWORD, HANDLE, PDWORD, PDWORD);
    auto routine = reinterpret_cast<Routine>(reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "CheckElevation")));
    const std::wstring path = QXTest::HelperPath(L"qxtoken_child.exe");
    DWORD expected = 0, flags = 0, reason = 0;
    if (routine != nullptr)
        routine(path.c_str(), &flags, nullptr, &expected, &reason);
    EXPECT_EQ(F::CheckElevation(L""), 0u);
    EXPECT_EQ(F::CheckElevation(path), expected);
    if (routine == nullptr)
        GTEST_SKIP() << "kernel32 has no CheckElevation here: only the answer 0 is shown";
}

// What the thread impersonates is captured so that it can be put back; an
// anonymous-level token cannot be opened.
TEST(ImpersonationToken, CapturesWhatTheThreadImpersonates)
{
    QXTest::RevertAtExit revert;
    ATL::CHandle a = QXTest::AdminDenyOnlyToken(), own = ProcessToken();
    QXCommon::CQxAccessToken token;
    EXPECT_TRUE(token.GetCurrentTokenForImpersonation());
    EXPECT_EQ(token.GetHandle(), nullptr);
    ASSERT_TRUE(ImpersonateLoggedOnUser(a));
    EXPECT_TRUE(token.GetCurrentTokenForImpersonation());
    EXPECT_EQ(TypeOf(token.GetHandle()), TokenImpersonation);
    RevertToSelf();
    EXPECT_TRUE(token.ImpersonateLoggedOnUser());
    EXPECT_EQ(DescribeImpersonation(), DescribeToken(a));

    HANDLE anonymous = nullptr;
    ASSERT_TRUE(DuplicateTokenEx(own, TOKEN_ALL_ACCESS, nullptr, SecurityAnonymous, TokenImpersonation, &anonymous));
    ATL::CHandle owner(anonymous);
    ASSERT_TRUE(SetThreadToken(nullptr, anonymous));
    QXTest::LogCapture log;
    QXCommon::CQxAccessToken none;
    EXPECT_FALSE(none.GetCurrentTokenForImpersonation());
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_CANT_OPEN_ANONYMOUS));
    EXPECT_EQ(none.GetHandle(), nullptr);
    const char* function = "QXCommon::CQxAccessToken::GetCurrentTokenForImpersonation";
    EXPECT_LOGGED(log, 1, function, L"Error Failed to GetThreadToken Error[1347]. Trying as self...\n");
    EXPECT_LOGGED(log, 1, function, L"Failed to GetThreadToken() as the current process. Error: 1347\n");
}

// The owner's reports decide whether the guard reverts to what the thread
// impersonated before (nothing, or another identity).
TEST(ImpersonationSaver, RestoresThePreviousImpersonationUnlessToldNothingHappened)
{
    QXTest::RevertAtExit revert;
    ATL::CHandle a = QXTest::AdminDenyOnlyToken(), b = QXTest::RestrictedProcessToken({L"S-1-5-32-545"});
    const char* const saver = "QXCommon::CImpersonationSaver::~CImpersonationSaver";
    const std::pair<std::vector<int>, bool> cases[] = {{{}, true},      {{1}, true},     {{2}, false},     {{0}, false},
                                                       {{0, 2}, true}, {{1, 0}, true}, {{0, 0}, false}};
    for (HANDLE before : {static_cast<HANDLE>(nullptr), a.m_h})
        for (const auto& [reports, reverts] : cases)
        {
            SCOPED_TRACE(testing::PrintToString(reports) + (before ? " while impersonating" : ""));
            RevertToSelf();
            ASSERT_TRUE(before == nullptr || ImpersonateLoggedOnUser(before));
            const std::wstring previous = DescribeImpersonation();
            QXTest::LogCapture log;
            {
                QXCommon::CImpersonationSaver guard;
                ASSERT_TRUE(ImpersonateLoggedOnUser(b));
                for (int report : reports)
                    guard.SetImpersonationOccurred(report);
            }
            EXPECT_EQ(DescribeImpersonation(), reverts ? previous : DescribeToken(b));
            EXPECT_EQ(log.Has(4, saver, L"Not reverting as no impersonation occurred.\n"), !reverts) << log.Dump();
            EXPECT_EQ(log.Has(4, saver, L"Reveting back to saved impersonation state\n"), reverts && before != nullptr);
        }

    // Nested guards, left by an exception through one or both, and guards in
    // sequence: each gets back what it had.
    const std::wstring identityA = DescribeToken(a);
    for (int throwAt : {0, 1, 2})
    {
        RevertToSelf();
        try
        {
            QXCommon::CImpersonationSaver outer;
            ASSERT_TRUE(ImpersonateLoggedOnUser(a));
            try
            {
                QXCommon::CImpersonationSaver inner;
                ASSERT_TRUE(ImpersonateLoggedOnUser(b));
                inner.SetImpersonationOccurred(TRUE);
                if (throwAt == 1)
                    throw std::runtime_error("inner");
                if (throwAt == 2)
                    throw 2;
            }
            catch (const std::runtime_error&)
            {
            }
            EXPECT_EQ(DescribeImpersonation(), identityA) << throwAt;
        }
        catch (int)
        {
        }
        EXPECT_EQ(DescribeImpersonation(), L"nothing") << throwAt;
    }
    ASSERT_TRUE(ImpersonateLoggedOnUser(a));
    for (HANDLE inside : {b.m_h, a.m_h, b.m_h})
    {
        QXCommon::CImpersonationSaver guard;
        ASSERT_TRUE(ImpersonateLoggedOnUser(inside));
    }
    EXPECT_EQ(DescribeImpersonation(), identityA);
}

namespace
{
BOOL WINAPI OpenThreadTokenRefused(HANDLE, DWORD, BOOL, PHANDLE)
{
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
}
} // namespace

// A caller impersonating at anonymous level gets it back from every call that
// impersonates on its thread; one whose token cannot be captured (its opens
// refused) is refused before anything changes, and keeps its identity.
TEST(ImpersonationSaver, AnonymousAndUncapturableCallersKeepWhatTheyImpersonate)
{
    QXTest::RevertAtExit revert;
    ATL::CHandle b = QXTest::AdminDenyOnlyToken(), own = ProcessToken();
    ATL::CAccessToken user;
    ASSERT_TRUE(user.GetProcessToken(TOKEN_ALL_ACCESS));
    QXTest::TempDir dir;
    const std::wstring file = dir.Write(L"guarded.txt", "x");
    QXCommon::CDigitalCertificate noCertificate;
    const std::pair<const char*, std::function<DWORD()>> calls[] = {
        {"guard", [&] {
             QXCommon::CImpersonationSaver guard;
             if (guard.GetCaptureError() == 0)
                 ImpersonateLoggedOnUser(b);
             return guard.GetCaptureError();
         }},
        {"ChangeOwner", [&] { return QXCommon::CChangeFileOwner().ChangeOwner(file, user); }},
        {"Verify", [&] { return DWORD(QXCommon::VerifySignedFile(false, 0, false).Verify(noCertificate, file, user)); }},
    };

    HANDLE anonymous = nullptr;
    ASSERT_TRUE(DuplicateTokenEx(own, TOKEN_ALL_ACCESS, nullptr, SecurityAnonymous, TokenImpersonation, &anonymous));
    ATL::CHandle anonymousOwner(anonymous);
    for (const auto& [name, call] : calls)
    {
        ASSERT_TRUE(SetThreadToken(nullptr, anonymous));
        call();
        EXPECT_EQ(DescribeImpersonation(), L"<error 1347>") << name << " left the anonymous caller";
    }

    const std::wstring identity = DescribeToken(b);
    QXTest::ImportPatch refuse(L"QXCommon.dll", "advapi32.dll", "OpenThreadToken", (void*)&OpenThreadTokenRefused);
    ASSERT_TRUE(refuse.Installed());
    ASSERT_TRUE(ImpersonateLoggedOnUser(b));
    for (const auto& [name, call] : calls)
    {
        QXTest::LogCapture log;
        const DWORD result = call();
        EXPECT_EQ(DescribeImpersonation(), identity) << name;
        if (std::string(name) != "Verify") // Verify opens the path in the caller's own context
        {
            EXPECT_EQ(result, static_cast<DWORD>(ERROR_ACCESS_DENIED)) << name;
        }
    }
    ATL::CHandle token;
    EXPECT_FALSE(QXCommon::CPipeImpersonateServer::GetToken(token, L"\\\\.\\pipe\\qx-uncapturable", nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(DescribeImpersonation(), identity);
}

// A held privilege is turned on and off; one the token lacks (in a child
// whose token had it removed), an unknown name and a bad process fail with
// the system's error.
TEST(LsaPrivilege, EnableHeldMissingAndUnknown)
{
    const wchar_t* name = L"SeShutdownPrivilege";
    ATL::CHandle own = ProcessToken();
    const DWORD self = GetCurrentProcessId(), before = QXTest::PrivilegeAttributes(own, name);
    ASSERT_NE(before, 0xFFFFFFFF) << "the token holds no shutdown privilege";
    for (BOOL enable : {TRUE, FALSE})
    {
        EXPECT_TRUE(LsaUtil::EnablePrivilege(self, name, enable));
        EXPECT_EQ(QXTest::PrivilegeAttributes(own, name) & SE_PRIVILEGE_ENABLED, enable ? DWORD(SE_PRIVILEGE_ENABLED) : 0u);
    }
    EXPECT_TRUE(LsaUtil::EnablePrivilege(self, name, (before & SE_PRIVILEGE_ENABLED) != 0));

    QXTest::ChildProcess child(QXTest::RestrictedProcessToken({}, {L"SeDebugPrivilege"}));
    ASSERT_TRUE(child.Ready());
    QXTest::LogCapture log;
    const std::tuple<DWORD, const wchar_t*, DWORD> cases[] = {{child.Pid(), L"SeDebugPrivilege", ERROR_NOT_ALL_ASSIGNED},
                                                              {self, L"SeNoSuchPrivilege", ERROR_NO_SUCH_PRIVILEGE},
                                                              {self, nullptr, ERROR_INVALID_PARAMETER},
                                                              {0, name, ERROR_INVALID_PARAMETER}};
    for (const auto& [pid, privilege, error] : cases)
    {
        EXPECT_FALSE(LsaUtil::EnablePrivilege(pid, privilege, TRUE));
        EXPECT_EQ(GetLastError(), error) << pid;
    }
    EXPECT_LOGGED(log, 1, "LsaUtil::LookupPrivilegeValueCache", L"Failed to find privilege [SeNoSuchPrivilege] in system. Error code [1313]\n");
}

// Privilege names asked by many threads at once, with the cache empty and
// filled, give what the system gives.
TEST(LsaPrivilege, CachedLookupAgreesWithTheSystemFromManyThreads)
{
    const std::vector<std::wstring> names = {L"SeNoSuchPrivilege", L"SeBackupPrivilege", L"SeRestorePrivilege", L"SeTcbPrivilege",
                                             L"SeImpersonatePrivilege", L"SeSecurityPrivilege", L"SeLoadDriverPrivilege"};
    std::atomic<int> disagreements{0};
    std::vector<std::thread> threads;
    for (size_t t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            for (size_t i = 0; i < 50 * names.size(); ++i)
            {
                const std::wstring& name = names[(i + t * 7) % names.size()];
                LUID cached = {0xFFFF, 0}, system = {0xEEEE, 0};
                const BOOL found = LsaUtil::LookupPrivilegeValueCache(name.c_str(), cached);
                if (found != LookupPrivilegeValueW(nullptr, name.c_str(), &system) ||
                    (found && (cached.LowPart != system.LowPart || cached.HighPart != system.HighPart)))
                    ++disagreements;
            }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(disagreements, 0);
}

// Token information, account SIDs, the Administrators group in one heap
// block with its SID, and LSA strings up to their limit.
TEST(LsaUtil, TokenInformationAccountsGroupsAndStrings)
{
    DWORD length = 0;
    std::unique_ptr<BYTE[]> user(LsaUtil::GetTokenInformation(ProcessToken(), TokenUser, &length));
    ASSERT_NE(user, nullptr);
    EXPECT_GE(length, sizeof(TOKEN_USER));
    EXPECT_EQ(LsaUtil::GetTokenInformation(nullptr, TokenUser, &length), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    wchar_t name[256];
    DWORD size = 256;
    ASSERT_TRUE(GetUserNameW(name, &size));
    QXTest::LogCapture log;
    for (const auto& [account, sid] : {std::pair<const wchar_t*, std::wstring>{name, QXTest::SidText(reinterpret_cast<TOKEN_USER*>(user.get())->User.Sid)},
                                      {L"Administrators", L"S-1-5-32-544"}, {L"qx-no-such-account-4711", L""}, {nullptr, L""}})
    {
        PSID found = LsaUtil::GetUserAccountSid(account);
        EXPECT_EQ(QXTest::SidText(found), sid);
        EXPECT_TRUE(found == nullptr || HeapFree(GetProcessHeap(), 0, found));
    }
    EXPECT_LOGGED(log, 1, "LsaUtil::GetUserAccountSid", L"Failed to LookupAccountName [qx-no-such-account-4711]. Error [1332]\n");

    TOKEN_GROUPS* admins = LsaUtil::GetAdminGroup();
    ASSERT_NE(admins, nullptr);
    EXPECT_EQ(admins->GroupCount, 1u);
    EXPECT_EQ(QXTest::SidText(admins->Groups[0].Sid), L"S-1-5-32-544");
    EXPECT_EQ(admins->Groups[0].Attributes, 7u);
    const BYTE *block = reinterpret_cast<const BYTE*>(admins), *sid = static_cast<const BYTE*>(admins->Groups[0].Sid);
    EXPECT_TRUE(sid >= block + sizeof(TOKEN_GROUPS) && sid + GetLengthSid(admins->Groups[0].Sid) <= block + HeapSize(GetProcessHeap(), 0, admins));
    EXPECT_TRUE(HeapFree(GetProcessHeap(), 0, admins));

    LSA_STRING text = {};
    EXPECT_TRUE(LsaUtil::InitializeLsaString(&text, "SeTcbPrivilege"));
    EXPECT_EQ(std::string(text.Buffer) + std::to_string(text.Length) + "/" + std::to_string(text.MaximumLength), "SeTcbPrivilege14/15");
    EXPECT_TRUE(LsaUtil::InitializeLsaString(&text, nullptr));
    EXPECT_TRUE(text.Length + text.MaximumLength == 0 && text.Buffer == nullptr);
    const std::string longest(0xFFFE, 'x'), tooLong(0xFFFF, 'x');
    EXPECT_TRUE(LsaUtil::InitializeLsaString(&text, longest.c_str()));
    EXPECT_EQ(text.MaximumLength, 0xFFFF);
    EXPECT_FALSE(LsaUtil::InitializeLsaString(&text, tooLong.c_str()) || LsaUtil::InitializeLsaString(nullptr, "x"));
}

namespace
{
const char* const Identity = "QXCommon::CProcessIDAndCreateTime::";

// The key as it must read, from the system's own creation time.
std::wstring ExpectedKey(DWORD pid, HANDLE process)
{
    FILETIME created, exited, kernel, user;
    if (!GetProcessTimes(process, &created, &exited, &kernel, &user))
        return L"<no times>";
    return std::to_wstring(pid) + L"-" + std::to_wstring(created.dwHighDateTime) + L"-" + std::to_wstring(created.dwLowDateTime);
}

// Lends a handle of its own when given one.
struct LendingIdentity : CProcessIDAndCreateTime
{
    HANDLE lent = nullptr;
    DWORD GetProcessHandle(HANDLE& process) override
    {
        return lent == nullptr ? CProcessIDAndCreateTime::GetProcessHandle(process) : (process = lent, 0);
    }
    DWORD ReleaseProcessHandle(HANDLE& process) override
    {
        return lent == nullptr ? CProcessIDAndCreateTime::ReleaseProcessHandle(process) : 0;
    }
};

// Ends the child and waits (30 s at most) until its id names no process.
DWORD EndAndWaitUntilGone(QXTest::ChildProcess& child)
{
    const DWORD pid = child.Pid();
    child.Forget();
    for (int i = 0; i < 3000 && ATL::CHandle(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid)) != nullptr; ++i)
        Sleep(10);
    return pid;
}

// Makes a freed id the next one the system hands out. Wine reuses freed ids
// first in, first out, and a thread that ends here puts its id back at the
// end of that queue: threads are made and ended until one receives the id,
// then until one receives the id freed just before it. False when the id
// does not come round.
bool QueueIdNext(DWORD id)
{
    DWORD wanted = id, previous = 0;
    for (int round = 0; round < 2; ++round)
    {
        bool found = false;
        for (int i = 0; i < 20000 && !found; ++i)
        {
            DWORD got = 0;
            ATL::CHandle thread(CreateThread(nullptr, 0, [](void*) -> DWORD { return 0; }, nullptr, 0, &got));
            WaitForSingleObject(thread, INFINITE);
            found = got == wanted;
            previous = found ? previous : got;
        }
        if (!found || previous == 0)
            return false;
        wanted = previous;
    }
    return true;
}
} // namespace

// Keys agree with the system's creation time; copies keep them after the
// process ends.
TEST(ProcessIdentity, KeysOfLiveProcessesMatchTheSystemsCreationTime)
{
    QXTest::ChildProcess child;
    ASSERT_TRUE(child.Ready());
    CProcessIDAndCreateTime first, own;
    ASSERT_EQ(first.Initialise(child.Pid()) + own.Initialise(), 0u);
    const std::wstring key = ExpectedKey(child.Pid(), child.Process()), ownKey = ExpectedKey(GetCurrentProcessId(), GetCurrentProcess());
    EXPECT_EQ(first.GetProcessIDAndCreateTime() + own.GetProcessIDAndCreateTime(), key + ownKey);
    std::wstring keyOut;
    DWORD pid = 0;
    FILETIME created = {};
    EXPECT_EQ(first.GetProcessIDAndCreateTime(keyOut) + first.GetProcessID(pid) + first.GetProcessStartTime(created), 0u);
    EXPECT_EQ(keyOut + L"|" + std::to_wstring(pid) + L"-" + std::to_wstring(created.dwHighDateTime) + L"-" + std::to_wstring(created.dwLowDateTime),
              key + L"|" + key);
    CProcessIDAndCreateTime copy(first), assigned;
    assigned = first;
    child.Finish();
    EXPECT_TRUE(copy.IsValid() && assigned.IsValid());
    EXPECT_EQ(copy.GetProcessIDAndCreateTime() + assigned.GetProcessIDAndCreateTime(), key + key);
    EXPECT_EQ(first.Clear(), 0u);
    EXPECT_FALSE(first.IsValid() || CProcessIDAndCreateTime().IsValid()); // cleared, and never initialised
    EXPECT_EQ(first.GetProcessIDAndCreateTime() + std::to_wstring(first.GetProcessID()), L"0");
}

// An id that names no process (never, or no longer) leaves the object empty;
// its accessors refuse with 13 and touch nothing.
TEST(ProcessIdentity, IdsThatCannotBeOpened)
{
    QXTest::ChildProcess ended;
    ASSERT_TRUE(ended.Ready());
    const DWORD endedPid = EndAndWaitUntilGone(ended);
    for (DWORD pid : {DWORD(0), endedPid})
    {
        CProcessIDAndCreateTime identity;
        ASSERT_EQ(identity.Initialise(GetCurrentProcessId()), 0u);
        QXTest::LogCapture log;
        EXPECT_EQ(identity.Initialise(pid), static_cast<DWORD>(ERROR_INVALID_PARAMETER)) << pid;
        EXPECT_LOGGED(log, 1, std::string(Identity) + "InitProcessHandle", L"Open process failed. Error [87]\n");
        EXPECT_FALSE(identity.IsValid());
        std::wstring key = L"untouched";
        DWORD id = 7;
        FILETIME time = {1, 2};
        EXPECT_EQ(identity.GetProcessIDAndCreateTime(key) + identity.GetProcessID(id) + identity.GetProcessStartTime(time), 39u);
        EXPECT_EQ(std::to_wstring(identity.GetProcessID()) + identity.GetProcessIDAndCreateTime() + key +
                      std::to_wstring(id + time.dwLowDateTime + time.dwHighDateTime),
                  L"0untouched10"); // the id given is not kept either
        EXPECT_LOGGED(log, 1, std::string(Identity) + "GetProcessIDAndCreateTime", L"Process and create time string is invalid.\n");
        EXPECT_LOGGED(log, 1, std::string(Identity) + "GetProcessID", L"Process ID is invalid\n");
        EXPECT_LOGGED(log, 1, std::string(Identity) + "GetProcessStartTime", L"Process start time is invalid.\n");
    }
}

// The held handle is handed out twice, a foreign one is refused, Clear closes
// it; a lent handle that is no process gives GetProcessTimes' own error.
TEST(ProcessIdentity, LentHandleRules)
{
    LendingIdentity identity;
    ASSERT_EQ(identity.Initialise(), 0u);
    HANDLE process = nullptr, again = nullptr, none = nullptr;
    ASSERT_EQ(identity.GetProcessHandle(process) + identity.GetProcessHandle(again), 0u);
    EXPECT_EQ(process, again);
    ATL::CHandle foreign(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    HANDLE other = foreign;
    QXTest::LogCapture log;
    EXPECT_EQ(identity.ReleaseProcessHandle(other), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_LOGGED(log, 1, std::string(Identity) + "ReleaseProcessHandle", L"Process handle invalid\n");
    EXPECT_EQ(GetProcessId(process), GetCurrentProcessId()); // still held
    EXPECT_EQ(identity.ReleaseProcessHandle(none) + identity.ReleaseProcessHandle(other), 0u);
    EXPECT_EQ(identity.GetProcessHandle(again) + identity.ReleaseProcessHandle(again), 0u);
    EXPECT_EQ(again, nullptr);
    DWORD flags = 0;
    ASSERT_EQ(identity.GetProcessHandle(process), 0u);
    identity.Clear();
    EXPECT_FALSE(GetHandleInformation(process, &flags));

    QXTest::ChildProcess child;
    ASSERT_TRUE(child.Ready());
    identity.lent = child.Process();
    EXPECT_EQ(identity.Initialise(child.Pid()), 0u);
    EXPECT_EQ(identity.GetProcessIDAndCreateTime(), ExpectedKey(child.Pid(), child.Process()));
    identity.lent = foreign;
    EXPECT_EQ(identity.Initialise(child.Pid()), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_LOGGED(log, 1, std::string(Identity) + "Initialise", L"Get process times failed. error [6]\n");
    EXPECT_TRUE(!identity.IsValid() && identity.GetProcessIDAndCreateTime().empty() && identity.GetProcessID() == 0);
}

TEST(ProcessIdentity, ReusedIdGetsANewKey)
{
    for (int attempt = 0; attempt < 3; ++attempt)
    {
        QXTest::ChildProcess first;
        ASSERT_TRUE(first.Ready());
        CProcessIDAndCreateTime before;
        ASSERT_EQ(before.Initialise(first.Pid()), 0u);
        ASSERT_EQ(before.GetProcessIDAndCreateTime(), ExpectedKey(first.Pid(), first.Process()));
        const DWORD pid = EndAndWaitUntilGone(first);
        if (!QueueIdNext(pid))
            continue;
        QXTest::ChildProcess second;
        ASSERT_TRUE(second.Ready());
        if (second.Pid() != pid)
            continue;
        CProcessIDAndCreateTime after;
        ASSERT_EQ(after.Initialise(pid), 0u);
        EXPECT_EQ(after.GetProcessIDAndCreateTime(), ExpectedKey(pid, second.Process()));
        EXPECT_NE(after.GetProcessIDAndCreateTime(), before.GetProcessIDAndCreateTime());
        return;
    }
    GTEST_SKIP() << "no process id was reused within three attempts";
}

// Repeated calls of every function that opens handles, on its success and
// failure paths in turn, leave the handles as they were and no thread
// impersonating. Each function runs alone, after a first call, so that a
// lock's wait object made on first contention is not counted.
TEST(TokenLeaks, RepeatedCallsKeepTheHandleCount)
{
    QXTest::RevertAtExit revert;
    ATL::CHandle restricted = QXTest::AdminDenyOnlyToken(), own = ProcessToken();
    ImpersonatingThread impersonating(restricted), plain(nullptr);
    const DWORD self = GetCurrentProcessId(), threads[] = {impersonating.id, plain.id}, processes[] = {self, 0};
    const wchar_t* privileges[] = {L"SeChangeNotifyPrivilege", L"SeCreateTokenPrivilege"};
    const std::pair<const char*, std::function<void(int)>> cases[] = {
        {"AttachPrimary", [&](int i) { ATL::CAccessToken t; Primary(t, processes[i]); }},
        {"AttachImpersonation", [&](int i) { ATL::CAccessToken t; Impersonation(t, processes[i]); }},
        {"AttachThread", [&](int i) { ATL::CAccessToken t; Thread(t, threads[i]); }},
        {"Obtain", [&](int i) { ATL::CAccessToken t; F::ObtainPrimaryTokenFromProcessOrThread(self, threads[i], t); }},
        {"IsProcessURMed", [&](int i) { F::IsProcessURMed(processes[i]); }},
        {"EnablePrivilege", [&](int i) { LsaUtil::EnablePrivilege(self, privileges[i], TRUE); }},
        {"ProcessIdentity", [&](int i) { CProcessIDAndCreateTime().Initialise(processes[i]); }},
        {"ImpersonationSaver", [&](int i) {
             if (i == 0)
                 ImpersonateLoggedOnUser(restricted);
             QXCommon::CImpersonationSaver saver;
             ImpersonateLoggedOnUser(own);
         }},
    };
    for (const auto& [name, call] : cases)
    {
        call(0);
        call(1);
        const size_t before = QXTest::OpenHandleCount();
        for (int i = 0; i < 10000; ++i)
            call(i % 2);
        RevertToSelf();
        EXPECT_EQ(QXTest::OpenHandleCount(), before) << name;
    }
    EXPECT_EQ(DescribeImpersonation() + DescribeImpersonation(plain.handle), L"nothingnothing");
}

// qxinspect's token and process commands on a child under a restricted token.
TEST(Inspect, TokenAndProcess)
{
    ATL::CHandle restricted = QXTest::AdminDenyOnlyToken();
    QXTest::ChildProcess child(restricted);
    ASSERT_TRUE(child.Ready());
    auto expect = [](const std::wstring& arguments, DWORD exitCode, std::initializer_list<std::string> fragments) {
        const auto run = QXTest::RunInspect(arguments);
        EXPECT_EQ(run.exitCode, exitCode) << run.output;
        for (const auto& fragment : fragments)
            EXPECT_NE(run.output.find(fragment), std::string::npos) << fragment << "\n" << run.output;
    };
    expect(L"--json token --member S-1-5-32-544 --pid " + std::to_wstring(child.Pid()), 1,
           {"\"systemRule\": false", "\"anyAttributes\": true", "\"hasAdminSid\": true", "\"flags\": \"mandatory,owner,deny-only\"",
            "\"urmMember\": false", "\"name\": \"SeChangeNotifyPrivilege\""});
    CProcessIDAndCreateTime identity;
    ASSERT_EQ(identity.Initialise(child.Pid()), 0u);
    expect(L"--json process 0 " + std::to_wstring(child.Pid()), 3,
           {"\"key\": \"" + QXTest::Narrow(identity.GetProcessIDAndCreateTime()) + "\"", "\"error\": 87", "qxinspect: process 0: error 87"});
}
