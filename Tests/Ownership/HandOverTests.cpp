// Handing a file over: whose token is checked, every outcome with its log
// lines, the restore privilege and the thread's impersonation after each
// call, disk files against the platform's own answer, and the held
// descriptor's copies and generic mapping.

#include "OwnershipSuite.h"

using namespace OwnerTest;
using QXCommon::CChangeFileOwner;

namespace
{
enum Way { Impersonating, NotImpersonating, Direct };
enum Target { Pipe, BigPipe, BusyBigPipe, Missing, MissingDir, NulPath };
enum Given { Full, Denied, Empty, QueryOnly };
enum Thread { Nothing, AsFull, AsDenied, Identification, Anonymous };
constexpr DWORD AnyError = 0xFFFFFFFF;

struct Log
{
    int level;
    const char* function; // of CChangeFileOwner
    std::wstring text;    // {path} {user} {account} {size} {sddl} {result} are filled in
};

struct Row
{
    const char* name;
    Way way;
    Target target;
    Given given;
    Thread thread;
    DWORD result;
    std::vector<Log> logs;
};

const Log Succeeded[] = {
    {4, "GetSecurityDescriptorFromFile", L"Calling GetFileSecurity() for {path}.\n"},
    {4, "GetSecurityDescriptorFromFile", L"Security Descriptor is [{sddl}]\n"},
    {4, "GetSecurityDescriptorFromFile", L"GetFileSecurity() succeeded.\n"},
    {4, "CheckUserHasWriteAccess", L"User [{user}].\n"},
    {4, "CheckUserHasWriteAccess", L"DuplicateHandle succeeded. Can now check file access\n"},
    {4, "FileAccessCheck", L"Access is Granted\n"},
    {4, "CheckUserHasWriteAccess", L"User has access: [1] error [0].\n"},
    {4, "SetOwnershipOnFileDirect", L"Load OK [{user}] [{account}].\n"},
    {4, "SetOwnershipOnFileDirect", L"Attempting to change privilege.\n"},
    {4, "SetOwnershipOnFileDirect", L"Restore enabled.\n"},
    {4, "SetOwnershipOnFileDirect", L"Successfully set file owner on file [{path}].\n"},
    {4, "SetOwnershipOnFileDirect", L"Reverting the privilege.\n"},
    {4, "SetOwnershipOnFileDirect", L"Revert successful done [0].\n"},
    {4, "DoChangeOwner", L"Function complete [0].\n"},
};

const std::vector<Log> ProcessTokenChecked(DWORD threadError)
{
    const std::wstring error = std::to_wstring(threadError);
    return {{4, "CheckUserHasWriteAccess", L"GetThreadToken Failed [" + error + L"].\n"},
            {4, "CheckUserHasWriteAccess", L"Attempted Method 2 to get thread token.\n"},
            {4, "CheckUserHasWriteAccess", L"Method 2 failed to get thread token [" + error + L"].\n"},
            {4, "CheckUserHasWriteAccess", L"Try Method 3 from process token.\n"},
            {4, "CheckUserHasWriteAccess", L"Method 3 succeeded in getting process token.\n"}};
}

std::wstring Fill(std::wstring text, const std::vector<std::pair<std::wstring, std::wstring>>& values)
{
    for (const auto& [key, value] : values)
        for (size_t at = text.find(key); at != std::wstring::npos; at = text.find(key, at + value.size()))
            text.replace(at, key.size(), value);
    return text;
}

DWORD Hand(Way way, CChangeFileOwner& owner, const std::wstring& path, const ATL::CAccessToken& token)
{
    if (way == Impersonating)
        return owner.ChangeOwner(path, token);
    if (way == NotImpersonating)
        return owner.ChangeOwnerNoImpersonation(path, token);
    return CChangeFileOwner::SetOwnershipOnFileDirect(path, token);
}

bool SetDescriptor(const std::wstring& path, const wchar_t* sddl)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1, &descriptor, nullptr))
        return false;
    PSID owner = nullptr;
    PACL dacl = nullptr;
    BOOL present = FALSE, defaulted = FALSE;
    GetSecurityDescriptorOwner(descriptor, &owner, &defaulted);
    GetSecurityDescriptorDacl(descriptor, &present, &dacl, &defaulted);
    const DWORD error = SetNamedSecurityInfoW(const_cast<LPWSTR>(path.c_str()), SE_FILE_OBJECT,
                                              OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, owner, nullptr,
                                              dacl, nullptr);
    LocalFree(descriptor);
    return error == ERROR_SUCCESS;
}
} // namespace

TEST_F(Ownership, EveryOutcomeWithTheRestorePrivilegeOffAndOn)
{
    std::wstring bigPipe = L"O:SYG:SYD:";
    for (int i = 0; i < 40; ++i)
        bigPipe += L"(A;;FR;;;S-1-5-21-1-2-3-" + std::to_wstring(1000 + i) + L")";
    bigPipe += L"(A;;WO;;;BA)";
    const Row rows[] = {
        {"impersonating a token that may take it", Impersonating, Pipe, Full, Nothing, 0,
         {{4, "ChangeOwner", L"Impersonating and changing.\n"}, {4, "CheckUserHasWriteAccess", L"Thread Token Valid.\n"}}},
        {"impersonating a token that may not", Impersonating, Pipe, Denied, Nothing, 5,
         {{4, "FileAccessCheck", L"Access is Denied\n"},
          {4, "CheckUserHasWriteAccess", L"User has access: [0] error [0].\n"},
          {4, "DoChangeOwner", L"Function complete [5].\n"}}},
        {"the given token is checked, not the thread's", Impersonating, Pipe, Denied, AsFull, 5, {}},
        {"the given token is checked while the thread is refused", Impersonating, Pipe, Full, AsDenied, 0, {}},
        {"not impersonating: the process token is checked", NotImpersonating, Pipe, Denied, Nothing, 0,
         ProcessTokenChecked(ERROR_NO_TOKEN)},
        {"not impersonating: the thread's token is checked", NotImpersonating, Pipe, Full, AsDenied, 5,
         {{4, "ChangeOwnerNoImpersonation", L"Not Impersonating and changing.\n"},
          {4, "CheckUserHasWriteAccess", L"Thread Token Valid.\n"}}},
        {"not impersonating: a thread allowed", NotImpersonating, Pipe, Denied, AsFull, 0, {}},
        {"an anonymous thread token cannot be opened", NotImpersonating, Pipe, Denied, Anonymous, 0,
         ProcessTokenChecked(ERROR_CANT_OPEN_ANONYMOUS)},
        {"an identification token cannot be duplicated", NotImpersonating, Pipe, Full, Identification, 1346,
         {{1, "CheckUserHasWriteAccess", L"Duplication Token Failed: Error - [1346].\n"},
          {1, "DoChangeOwner", L"Check User has write access error [1346].\n"}}},
        {"a descriptor over 256 bytes", Impersonating, BigPipe, Full, Nothing, 0,
         {{4, "GetSecurityDescriptorFromFile", L"GetFileSecurity() first call result [122] - expected sometimes.\n"},
          {4, "GetSecurityDescriptorFromFile", L"Calling GetFileSecurity() with buffer size {size}.\n"}}},
        {"a second read that fails (one pipe instance, taken by the first)", Impersonating, BusyBigPipe, Full, Nothing,
         ERROR_PIPE_BUSY,
         {{1, "GetSecurityDescriptorFromFile", L"GetFileSecurity() second call - unexpected result [231].\n"},
          {1, "DoChangeOwner", L"Could not read Security Descriptor [231].\n"}}},
        {"a missing file reads, then fails the check", Impersonating, Missing, Full, Nothing, 2,
         {{4, "GetSecurityDescriptorFromFile",
           L"GetFileSecurity() first call - file does not exist (Treat as success!).\n"},
          {1, "FileAccessCheck", L"AccessCheck() failed : error [2].\n"},
          {4, "CheckUserHasWriteAccess", L"User has access: [0] error [2].\n"},
          {1, "DoChangeOwner", L"Check User has write access error [2].\n"}}},
        {"a missing folder fails the read", Impersonating, MissingDir, Full, Nothing, 3,
         {{1, "GetSecurityDescriptorFromFile", L"GetFileSecurity() first call - unexpected result [3].\n"},
          {1, "DoChangeOwner", L"Could not read Security Descriptor [3].\n"}}},
        {"a direct change of a missing file", Direct, Missing, Full, Nothing, 2,
         {{1, "SetOwnershipOnFileDirect", L"Could not set file owner [result 2] on file [{path}].\n"},
          {4, "SetOwnershipOnFileDirect", L"Revert successful done [2].\n"}}},
        {"a direct change is not checked", Direct, Pipe, Denied, Nothing, 0,
         {{4, "SetOwnershipOnFileDirect", L"Load OK [{user}] [{account}].\n"}}},
        {"a path holding a NUL", Impersonating, NulPath, Full, Nothing, ERROR_INVALID_NAME,
         {{1, "GetSecurityDescriptorFromFile", L"Invalid file path [C:\\a\\0b].\n"}}},
        {"a direct change of a path holding a NUL", Direct, NulPath, Full, Nothing, ERROR_INVALID_NAME,
         {{1, "SetOwnershipOnFileDirect", L"Could not set file owner [result 123] on file [C:\\a\\0b].\n"}}},
        {"an empty token cannot be impersonated", Impersonating, Pipe, Empty, Nothing, ERROR_INVALID_PARAMETER,
         {{1, "ChangeOwner", L"Impersonate failed error [{result}].\n"}}},
        {"a token without TOKEN_DUPLICATE", Impersonating, Pipe, QueryOnly, Nothing, AnyError,
         {{1, "ChangeOwner", L"Impersonate failed error [{result}].\n"}}},
        {"a direct change for an empty token", Direct, Pipe, Empty, Nothing, ERROR_INVALID_HANDLE,
         {{1, "SetOwnershipOnFileDirect", L"Load Failed [6].\n"}}},
    };
    QXTest::TempDir dir;
    ATL::CAccessToken empty, queryOnly;
    ASSERT_TRUE(queryOnly.GetProcessToken(TOKEN_QUERY));
    const ATL::CAccessToken* tokens[] = {&full, &denied, &empty, &queryOnly};
    ATL::CSid sid;
    ASSERT_TRUE(full.GetUser(&sid));
    const std::wstring account = std::wstring(sid.Domain()) + L"\\" + sid.AccountName();
    ATL::CAccessToken process;
    ASSERT_TRUE(process.GetProcessToken(TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY));

    for (bool flipped : {false, true})
    {
        SCOPED_TRACE(flipped ? "restore privilege flipped" : "restore privilege as found");
        const bool enable = ((restoreBefore & SE_PRIVILEGE_ENABLED) != 0) != flipped;
        ASSERT_TRUE(enable ? process.EnablePrivilege(SE_RESTORE_NAME) : process.DisablePrivilege(SE_RESTORE_NAME));
        const DWORD privilege = Restore();
        for (const Row& row : rows)
        {
            SCOPED_TRACE(row.name);
            SecuredPipe pipe(row.target == Pipe ? AdminsMayTake : bigPipe, row.target == BusyBigPipe ? 1 : 8);
            const std::wstring paths[] = {pipe.Path(), pipe.Path(), pipe.Path(), dir.File(L"missing.txt"),
                                          dir.File(L"none\\missing.txt"), std::wstring(L"C:\\a\0b", 6)};
            const std::wstring& path = paths[row.target];
            std::vector<BYTE> descriptor(4096);
            DWORD size = 0;
            LPWSTR sddl = nullptr;
            if (row.target <= BigPipe)
            {
                ASSERT_TRUE(GetFileSecurityW(path.c_str(), 7, descriptor.data(), 4096, &size) &&
                            ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor.data(), 1, 7, &sddl, nullptr));
            }
            const std::wstring sddlText = sddl != nullptr ? sddl : L"";
            LocalFree(sddl);

            QXTest::RevertAtExit revert;
            if (row.thread != Nothing)
            {
                const bool asDenied = row.thread == AsDenied;
                const auto level = row.thread == Identification ? SecurityIdentification
                                   : row.thread == Anonymous    ? SecurityAnonymous
                                                                : SecurityImpersonation;
                HANDLE copy = nullptr;
                ASSERT_TRUE(DuplicateTokenEx((asDenied ? denied : full).GetHandle(), TOKEN_ALL_ACCESS, nullptr, level,
                                             TokenImpersonation, &copy));
                ATL::CHandle owner(copy);
                ASSERT_TRUE(SetThreadToken(nullptr, copy));
            }
            const std::wstring before = QXTest::DescribeImpersonation();

            QXTest::LogCapture log;
            CChangeFileOwner owner;
            const DWORD result = Hand(row.way, owner, path, *tokens[row.given]);
            if (row.result == AnyError)
                EXPECT_NE(result, 0u);
            else
                EXPECT_EQ(result, row.result);
            EXPECT_EQ(QXTest::DescribeImpersonation(), before);
            EXPECT_EQ(Restore(), privilege);
            if (row.way != Direct)
            {
                EXPECT_EQ(owner.IsAuditRequired(), result == 0 ? 1 : 0);
                EXPECT_EQ(log.Has(1, "QXCommon::CChangeFileOwner::DoChangeOwner",
                                  L"FileAccessCheck - no WRITE access to file.\n"),
                          row.result == ERROR_ACCESS_DENIED);
            }
            if (row.target <= BigPipe && row.given <= Denied)
            {
                EXPECT_EQ(OwnerOf(path), result == 0 ? user : L"S-1-5-18");
            }
            std::vector<Log> expected = row.logs;
            if (row.way == Impersonating && row.result == 0)
                expected.insert(expected.end(), std::begin(Succeeded), std::end(Succeeded));
            const std::vector<std::pair<std::wstring, std::wstring>> values = {
                {L"{path}", path}, {L"{user}", user}, {L"{account}", account}, {L"{size}", std::to_wstring(size)},
                {L"{sddl}", sddlText}, {L"{result}", std::to_wstring(result)}};
            for (const Log& line : expected)
                EXPECT_TRUE(log.Has(line.level, std::string("QXCommon::CChangeFileOwner::") + line.function,
                                    Fill(line.text, values)))
                    << QXTest::Narrow(Fill(line.text, values)) << "\n" << log.Dump();
        }
    }
    ASSERT_TRUE((restoreBefore & SE_PRIVILEGE_ENABLED) ? process.EnablePrivilege(SE_RESTORE_NAME)
                                                       : process.DisablePrivilege(SE_RESTORE_NAME));
}

TEST_F(Ownership, DiskFilesFollowThePlatformsAnswer)
{
    QXTest::TempDir dir;
    SecuredPipe ownedByUser(L"O:" + user + L"G:SYD:(A;;FR;;;WD)");
    const std::wstring targets[] = {dir.Write(L"file.txt", "data"), dir.MakeDir(L"folder"), ownedByUser.Path()};
    bool kept = true;
    for (const std::wstring& path : targets)
    {
        SCOPED_TRACE(QXTest::Narrow(path));
        if (path != ownedByUser.Path())
            kept = SetDescriptor(path, AdminsMayTake) && OwnerOf(path) == L"S-1-5-18" && kept;
        for (const ATL::CAccessToken* token : {&denied, &full})
        {
            // On a pipe owned by the user, Windows refuses both tokens; some
            // platforms let an owner take ownership of what he owns.
            const bool grants = PlatformGrantsWriteOwner(path, token->GetHandle());
            CChangeFileOwner owner;
            EXPECT_EQ(owner.ChangeOwner(path, *token), grants ? 0u : 5u);
            EXPECT_EQ(owner.IsAuditRequired(), grants ? 1 : 0);
        }
    }
    if (!kept)
        GTEST_SKIP() << "this platform makes a disk file's descriptor up from its owner and mode and keeps no owner "
                        "or DACL set on it: refusals and owner changes are shown on named pipes";
}

TEST_F(Ownership, HeldDescriptorCopiesAndGenericMapping)
{
    struct Probe : CChangeFileOwner
    {
        using CChangeFileOwner::FileAccessCheck;
        using CChangeFileOwner::SetOwnershipOnFile;
    };
    SecuredPipe pipe(AdminsMayTake);
    Probe owner, failed;
    EXPECT_EQ(owner.IsAuditRequired(), 0);
    ASSERT_EQ(owner.ChangeOwner(pipe.Path(), full), 0u);
    ASSERT_EQ(failed.ChangeOwner(pipe.Path(), full), 0u);
    EXPECT_EQ(failed.ChangeOwner(pipe.Path(), ATL::CAccessToken()), DWORD(ERROR_INVALID_PARAMETER));
    Probe copy(owner), assigned;
    assigned = owner;
    owner.Clear();
    EXPECT_EQ(owner.IsAuditRequired(), 0);
    EXPECT_EQ(owner.SetOwnershipOnFile(full), DWORD(ERROR_INVALID_NAME)); // the path is gone too
    ATL::CAccessToken check;
    ASSERT_TRUE(full.CreateImpersonationToken(&check));
    for (Probe* none : {&owner, &failed})
    {
        bool granted = true;
        EXPECT_EQ(none->FileAccessCheck(check.GetHandle(), granted, GENERIC_READ), DWORD(ERROR_FILE_NOT_FOUND));
        EXPECT_FALSE(granted);
    }

    const struct
    {
        DWORD desired;
        bool granted;
    } rows[] = {{GENERIC_READ, true},   {GENERIC_WRITE, false},           {GENERIC_EXECUTE, false},
                {GENERIC_ALL, false},   {GENERIC_READ | WRITE_OWNER, true}, {FILE_WRITE_DATA, false}};
    for (Probe* held : {&copy, &assigned})
    {
        EXPECT_EQ(held->IsAuditRequired(), 1);
        for (const auto& row : rows)
        {
            bool granted = !row.granted;
            EXPECT_EQ(held->FileAccessCheck(check.GetHandle(), granted, row.desired), 0u) << row.desired;
            EXPECT_EQ(granted, row.granted) << std::hex << row.desired;
        }
    }
}
