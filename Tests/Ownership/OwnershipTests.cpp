// Handing a file over to a user, mostly on named pipes (a pipe keeps the
// descriptor the test gives it) and through real folder links. The fixture's
// tokens differ only in the Administrators group; every test must leave the
// restore privilege and the thread's impersonation as it found them.

#include "QXTestSupport.h"
#include "TokenTestSupport.h"

#include "QXCommon/ChangeFileOwner.h"

#include <aclapi.h>
#include <sddl.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

namespace
{
using QXCommon::CChangeFileOwner;

// Owned by LocalSystem; Administrators may take it, everyone may read it.
const wchar_t* const AdminsMayTake = L"O:SYG:SYD:(A;;WO;;;BA)(A;;FR;;;WD)";

// A pipe with the descriptor, with listening instances for as many opens by path.
class SecuredPipe : QXTest::NoCopy
{
public:
    explicit SecuredPipe(const std::wstring& sddl, int instances = 8)
    {
        static LONG counter = 0;
        m_path = L"\\\\.\\pipe\\qxowner-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                 std::to_wstring(InterlockedIncrement(&counter));
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl.c_str(), SDDL_REVISION_1, &descriptor, nullptr);
        SECURITY_ATTRIBUTES attributes{sizeof attributes, descriptor, FALSE};
        for (int i = 0; descriptor != nullptr && i < instances; ++i)
            m_instances.emplace_back(CreateNamedPipeW(m_path.c_str(), PIPE_ACCESS_DUPLEX | WRITE_DAC, PIPE_TYPE_BYTE,
                                                      PIPE_UNLIMITED_INSTANCES, 0, 0, 0, &attributes));
        LocalFree(descriptor);
    }
    const std::wstring& Path() const { return m_path; }
    HANDLE Server() const { return m_instances.empty() ? nullptr : m_instances.front().m_h; }

private:
    std::wstring m_path;
    std::vector<ATL::CHandle> m_instances;
};

// Which file a handle is, or a path leads to ("volume:index"); "" when unknown.
std::wstring IdOf(HANDLE file)
{
    BY_HANDLE_FILE_INFORMATION information{};
    return GetFileInformationByHandle(file, &information)
               ? std::to_wstring(information.dwVolumeSerialNumber) + L":" +
                     std::to_wstring((ULONGLONG(information.nFileIndexHigh) << 32) | information.nFileIndexLow)
               : L"";
}
std::wstring IdOf(const std::wstring& path)
{
    const HANDLE file = CreateFileW(path.c_str(), READ_CONTROL, 7, nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    return file != INVALID_HANDLE_VALUE ? IdOf(ATL::CHandle(file)) : L"";
}

// A folder link, removed again with the object: a junction, or under Wine
// (which makes none) a Unix symbolic link through its Z: drive. Wine runs a
// Unix program without waiting for it: its effect is awaited, ten seconds at
// most. Made() when the link leads to the target.
class FolderLink : QXTest::NoCopy
{
public:
    FolderLink(const std::wstring& link, const std::wstring& target) : m_link(link)
    {
        using UnixName = char*(CDECL*)(const wchar_t*);
        const auto unixName = reinterpret_cast<UnixName>(
            reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
        char* from = unixName != nullptr ? unixName(link.c_str()) : nullptr;
        char* to = unixName != nullptr ? unixName(target.c_str()) : nullptr;
        if (unixName == nullptr)
            Run(L"cmd.exe /c mklink /J \"" + link + L"\" \"" + target + L"\"", true);
        else if (from != nullptr && to != nullptr)
            Run(L"Z:\\bin\\ln -s \"" + QXTest::Widen(to) + L"\" \"" + (m_unixLink = QXTest::Widen(from)) + L"\"", true);
        for (char* name : {from, to})
            HeapFree(GetProcessHeap(), 0, name);
        m_made = !IdOf(target).empty() && IdOf(link) == IdOf(target);
    }
    ~FolderLink()
    {
        if (!m_unixLink.empty())
            Run(L"Z:\\bin\\rm -f \"" + m_unixLink + L"\"", false);
        else
            RemoveDirectoryW(m_link.c_str());
    }
    bool Made() const { return m_made; }

private:
    void Run(const std::wstring& command, bool linked) const
    {
        QXTest::RunProcess(command, 30000);
        for (int i = 0; i < 1000 && (GetFileAttributesW(m_link.c_str()) != INVALID_FILE_ATTRIBUTES) != linked; ++i)
            Sleep(10);
    }
    std::wstring m_link, m_unixLink;
    bool m_made = false;
};

// The owner's SID as the system reads it back through a handle; "<error N>".
std::wstring OwnerOf(HANDLE object)
{
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    const DWORD error = GetSecurityInfo(object, SE_KERNEL_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr,
                                        nullptr, &descriptor);
    const std::wstring text = error != ERROR_SUCCESS ? L"<error " + std::to_wstring(error) + L">" : QXTest::SidText(owner);
    LocalFree(descriptor);
    return text;
}

class Ownership : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(full.GetProcessToken(TOKEN_ALL_ACCESS));
        denied.Attach(QXTest::AdminDenyOnlyToken().Detach());
        ATL::CSid sid;
        ASSERT_TRUE(full.GetUser(&sid) && denied.GetHandle() != nullptr);
        user = sid.Sid();
        restoreBefore = Restore();
        ASSERT_NE(restoreBefore, ~0u) << "this process holds no restore privilege";
    }
    void TearDown() override
    {
        EXPECT_EQ(Restore(), restoreBefore) << "the restore privilege is not back in its previous state";
        EXPECT_EQ(QXTest::DescribeImpersonation(), L"nothing");
    }
    static DWORD Restore() // the restore privilege's attributes in the process token
    {
        ATL::CAccessToken token;
        return token.GetProcessToken(TOKEN_QUERY) ? QXTest::PrivilegeAttributes(token.GetHandle(), SE_RESTORE_NAME) : ~0u;
    }

    ATL::CAccessToken full;   // this process's token
    ATL::CAccessToken denied; // the same with Administrators deny-only
    std::wstring user;        // the user both carry
    DWORD restoreBefore = 0;
};

enum Way { Impersonating, NotImpersonating, Direct };
DWORD Hand(Way way, CChangeFileOwner& owner, const std::wstring& path, const ATL::CAccessToken& token)
{
    return way == Impersonating      ? owner.ChangeOwner(path, token)
           : way == NotImpersonating ? owner.ChangeOwnerNoImpersonation(path, token)
                                     : CChangeFileOwner::SetOwnershipOnFileDirect(path, token);
}

// GetKernelObjectSecurity for the library: after a first read that finds its
// buffer too small, the pipe's DACL grows before the second read.
HANDLE growingPipe = nullptr;
BOOL WINAPI ReadThenGrow(HANDLE object, SECURITY_INFORMATION parts, PSECURITY_DESCRIPTOR buffer, DWORD size, LPDWORD needed)
{
    if (GetKernelObjectSecurity(object, parts, buffer, size, needed))
        return TRUE;
    std::wstring sddl = L"D:(A;;WO;;;BA)";
    for (int i = 0; i < 60; ++i)
        sddl += L"(A;;FR;;;S-1-5-21-4-5-6-" + std::to_wstring(1000 + i) + L")";
    PSECURITY_DESCRIPTOR grown = nullptr;
    if (ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl.c_str(), SDDL_REVISION_1, &grown, nullptr))
        SetKernelObjectSecurity(growingPipe, DACL_SECURITY_INFORMATION, grown);
    LocalFree(grown);
    return SetLastError(ERROR_INSUFFICIENT_BUFFER), FALSE;
}

// AccessCheck for the library, between its read and its change: the folder
// named goes away and a link to another folder takes its place. Every owner
// change the library makes through a handle notes which file it acts on.
struct
{
    std::wstring named, away, other, changed;
    std::optional<FolderLink> link;
} swap;
BOOL WINAPI CheckThenSwap(PSECURITY_DESCRIPTOR descriptor, HANDLE token, DWORD desired, PGENERIC_MAPPING mapping,
                          PPRIVILEGE_SET privileges, LPDWORD length, LPDWORD granted, LPBOOL status)
{
    if (MoveFileW(swap.named.c_str(), swap.away.c_str()))
        swap.link.emplace(swap.named, swap.other);
    return AccessCheck(descriptor, token, desired, mapping, privileges, length, granted, status);
}
DWORD WINAPI SetNoted(HANDLE object, SE_OBJECT_TYPE type, SECURITY_INFORMATION parts, PSID owner, PSID group, PACL dacl,
                      PACL sacl)
{
    swap.changed = IdOf(object);
    return SetSecurityInfo(object, type, parts, owner, group, dacl, sacl);
}
} // namespace

// Every outcome of the three ways, with the restore privilege as found and
// flipped: the result, the thread and the privilege as they were, the audit
// flag, the owner read back through the pipe's server end, a refusal logged.
TEST_F(Ownership, EveryOutcomeWithTheRestorePrivilegeOffAndOn)
{
    // The pipes first; a big pipe's descriptor takes more than 256 bytes and it has one instance.
    enum Target { Pipe, BigPipe, GrowingPipe, Missing, MissingDir, NulPath, LinkAtEnd, LinkOnPath, Device, ByPrivilege,
                  Swapped };
    enum Given { Full, Denied, Empty };
    enum Thread { Nothing, AsFull, AsDenied, Identification, Anonymous };
    const struct
    {
        const char* name;
        Way way;
        Target target;
        Given given;
        Thread thread;
        DWORD result;
        const wchar_t* logged = L""; // a fragment
    } rows[] = {
        {"impersonating a token that may take it", Impersonating, Pipe, Full, Nothing, 0},
        {"impersonating a token that may not", Impersonating, Pipe, Denied, Nothing, 5},
        {"the given token is checked, not the thread's", Impersonating, Pipe, Denied, AsFull, 5},
        {"impersonating while the caller impersonates at anonymous level", Impersonating, Pipe, Full, Anonymous, 0},
        {"not impersonating: the process token is checked", NotImpersonating, Pipe, Denied, Nothing, 0},
        {"not impersonating: the thread's token is checked", NotImpersonating, Pipe, Full, AsDenied, 5},
        {"an anonymous thread token cannot be opened", NotImpersonating, Pipe, Denied, Anonymous, 0},
        {"an identification token cannot be duplicated", NotImpersonating, Pipe, Full, Identification, 1346},
        {"a descriptor over 256 bytes, one open", Impersonating, BigPipe, Full, Nothing, 0, L"with buffer size "},
        {"a descriptor that grows between the two reads", Impersonating, GrowingPipe, Full, Nothing, 122},
        {"a missing file reads, then fails the check", Impersonating, Missing, Full, Nothing, 2, L"(Treat as success!)"},
        {"a missing folder fails the read", Impersonating, MissingDir, Full, Nothing, 3},
        {"a direct change of a missing file", Direct, Missing, Full, Nothing, 2},
        {"a direct change is not checked", Direct, Pipe, Denied, Nothing, 0},
        {"a path holding a NUL", Impersonating, NulPath, Full, Nothing, ERROR_INVALID_NAME},
        {"a direct change of a path holding a NUL", Direct, NulPath, Full, Nothing, ERROR_INVALID_NAME},
        {"an empty token cannot be impersonated", Impersonating, Pipe, Empty, Nothing, ERROR_INVALID_PARAMETER},
        {"a direct change for an empty token", Direct, Pipe, Empty, Nothing, ERROR_INVALID_HANDLE},
        {"a link in place of the file", Impersonating, LinkAtEnd, Full, Nothing, ERROR_CANT_ACCESS_FILE},
        {"not impersonating: a linked folder on the path", NotImpersonating, LinkOnPath, Full, Nothing, 1920},
        {"a direct change through a linked folder", Direct, LinkOnPath, Full, Nothing, ERROR_CANT_ACCESS_FILE},
        {"a device is no file", NotImpersonating, Device, Full, Nothing, ERROR_CANT_ACCESS_FILE},
        // The library's WRITE_OWNER opens by path refused: the one granted to
        // a reopen of the file read, as a service's restore privilege grants it.
        {"WRITE_OWNER for a reopen of the file read", NotImpersonating, ByPrivilege, Full, Nothing, 0},
        // The owner change acts on the folder read and checked, wherever it now is.
        {"a folder swapped for a link during the call", Impersonating, Swapped, Full, Nothing, 0},
    };
    std::wstring bigPipe = L"O:SYG:SYD:(A;;WO;;;BA)";
    for (int i = 0; i < 40; ++i)
        bigPipe += L"(A;;FR;;;S-1-5-21-1-2-3-" + std::to_wstring(1000 + i) + L")";
    QXTest::TempDir dir;
    struct Unlink
    {
        ~Unlink() { swap.link.reset(); } // before the folder goes, whatever happened
    } unlink;
    swap.other = dir.MakeDir(L"other");
    dir.Write(L"other\\secret.txt", "data");
    FolderLink link(dir.File(L"link"), swap.other);
    ASSERT_TRUE(link.Made()) << "no folder link could be made";
    const QXTest::ImportPatch noted(L"QXCommon.dll", "advapi32.dll", "SetSecurityInfo", (void*)&SetNoted);
    ATL::CAccessToken empty, process;
    ASSERT_TRUE(process.GetProcessToken(TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY));
    const ATL::CAccessToken* tokens[] = {&full, &denied, &empty};
    ATL::CAccessToken threads[5]; // by Thread
    ASSERT_TRUE(full.CreateImpersonationToken(&threads[AsFull]) && denied.CreateImpersonationToken(&threads[AsDenied]) &&
                full.CreateImpersonationToken(&threads[Identification], SecurityIdentification) &&
                full.CreateImpersonationToken(&threads[Anonymous], SecurityAnonymous));
    for (bool flipped : {false, true})
    {
        SCOPED_TRACE(flipped ? "restore privilege flipped" : "restore privilege as found");
        const bool enable = ((restoreBefore & SE_PRIVILEGE_ENABLED) != 0) != flipped;
        ASSERT_TRUE(enable ? process.EnablePrivilege(SE_RESTORE_NAME) : process.DisablePrivilege(SE_RESTORE_NAME));
        const DWORD privilege = Restore();
        for (const auto& row : rows)
        {
            SCOPED_TRACE(row.name);
            SecuredPipe pipe(row.target == Pipe ? AdminsMayTake : bigPipe, row.target == BigPipe ? 1 : 8);
            const std::wstring count = std::to_wstring(&row - rows) + (flipped ? L"f" : L"");
            swap.named = row.target == Swapped ? dir.MakeDir(L"named" + count) : L"";
            swap.away = dir.File(L"away" + count);
            const std::wstring paths[] = {pipe.Path(), pipe.Path(), pipe.Path(), dir.File(L"missing.txt"),
                                          dir.File(L"none\\missing.txt"), std::wstring(L"C:\\a\0b", 6), dir.File(L"link"),
                                          dir.File(L"link\\secret.txt"), L"\\\\.\\NUL", dir.File(L"other\\secret.txt"),
                                          swap.named};
            const std::wstring& path = paths[row.target];
            growingPipe = pipe.Server();
            std::optional<QXTest::ImportPatch> standIn; // the row's stand-in for one of the library's imports
            if (row.target == GrowingPipe || row.target == Swapped)
                standIn.emplace(L"QXCommon.dll", "advapi32.dll", row.target == Swapped ? "AccessCheck" : "GetKernelObjectSecurity",
                                row.target == Swapped ? (void*)&CheckThenSwap : (void*)&ReadThenGrow);
            if (row.target == ByPrivilege)
                standIn.emplace(L"QXCommon.dll", "kernel32.dll", "CreateFileW",
                                (void*)+[](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES attributes,
                                           DWORD disposition, DWORD flags, HANDLE model) {
                                    return (access & WRITE_OWNER) != 0
                                               ? (SetLastError(ERROR_ACCESS_DENIED), INVALID_HANDLE_VALUE)
                                               : CreateFileW(path, access, share, attributes, disposition, flags, model);
                                });
            ASSERT_TRUE(!standIn || standIn->Installed());
            QXTest::RevertAtExit revert;
            ASSERT_TRUE(SetThreadToken(nullptr, threads[row.thread].GetHandle()));
            const std::wstring before = QXTest::DescribeImpersonation();

            QXTest::LogCapture log;
            CChangeFileOwner owner;
            const DWORD result = Hand(row.way, owner, path, *tokens[row.given]);
            EXPECT_EQ(result, row.result);
            EXPECT_EQ(QXTest::DescribeImpersonation(), before);
            EXPECT_EQ(Restore(), privilege);
            EXPECT_EQ(owner.IsAuditRequired(), row.way != Direct && result == 0 ? 1 : 0);
            EXPECT_EQ(log.Has(L"FileAccessCheck - no WRITE access to file.\n"), row.way != Direct && result == 5);
            EXPECT_EQ(OwnerOf(pipe.Server()), row.target <= GrowingPipe && result == 0 ? user : L"S-1-5-18");
            if (row.target == Swapped)
            {
                ASSERT_TRUE(swap.link && swap.link->Made()) << "the folder was not swapped for a link during the call";
                EXPECT_EQ(swap.changed, IdOf(swap.away));
                EXPECT_NE(swap.changed, IdOf(swap.other));
                swap.link.reset();
            }
            for (const std::wstring& fragment : std::vector<std::wstring>{
                     row.logged, result == ERROR_CANT_ACCESS_FILE ? L"Refused: [" + path + L"]" : L"",
                     result == 0 ? L"Restore enabled.\n" : L"", result == 0 ? L"Revert successful done [0].\n" : L""})
                EXPECT_TRUE(log.HasFragment(fragment)) << QXTest::Narrow(fragment) << "\n" << log.Dump();
        }
    }
    ASSERT_TRUE((restoreBefore & SE_PRIVILEGE_ENABLED) ? process.EnablePrivilege(SE_RESTORE_NAME)
                                                       : process.DisablePrivilege(SE_RESTORE_NAME));
}

// Disk files and folders, named in the forms callers use, are the files the
// paths name: each is handed over exactly when the platform's own AccessCheck
// grants the token WRITE_OWNER (on a pipe owned by the user, Windows refuses
// both tokens; some platforms let an owner take ownership of what he owns).
TEST_F(Ownership, DiskFilesFollowThePlatformsAnswer)
{
    QXTest::TempDir dir;
    const std::wstring file = dir.Write(L"a long file name.txt", "data"), folder = dir.MakeDir(L"A Long Folder");
    wchar_t shortName[MAX_PATH] = L"";
    ASSERT_NE(GetShortPathNameW(file.c_str(), shortName, MAX_PATH), 0u);
    SecuredPipe ownedByUser(L"O:" + user + L"G:SYD:(A;;FR;;;WD)", 16);
    std::wstring upper = file, slashes = file, upperPipe = ownedByUser.Path();
    CharUpperW(upper.data());
    CharUpperW(upperPipe.data());
    std::replace(slashes.begin(), slashes.end(), L'\\', L'/');
    const std::wstring paths[] = {file, upper, slashes, L"\\\\?\\" + file, dir.File(L".\\none\\..\\a long file name.txt"),
                                  shortName, folder, folder + L"\\", ownedByUser.Path(), upperPipe};
    for (const std::wstring& path : paths)
        for (const ATL::CAccessToken* token : {&denied, &full})
        {
            SCOPED_TRACE(QXTest::Narrow(path) + (token == &full ? ", full" : ", denied"));
            std::vector<BYTE> descriptor(65536);
            PRIVILEGE_SET privileges[4] = {};
            DWORD needed = 0, length = sizeof privileges, granted = 0;
            BOOL grants = FALSE;
            GENERIC_MAPPING mapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS};
            ASSERT_TRUE(GetFileSecurityW(path.c_str(), 7, descriptor.data(), 65536, &needed) &&
                        AccessCheck(descriptor.data(), QXTest::ImpersonationCopy(token->GetHandle()), WRITE_OWNER, &mapping,
                                    privileges, &length, &granted, &grants));
            CChangeFileOwner owner;
            EXPECT_EQ(owner.ChangeOwner(path, *token), grants ? 0u : 5u);
            EXPECT_EQ(owner.IsAuditRequired(), grants ? 1 : 0);
        }
}

TEST_F(Ownership, DiskFilesKeepWhatIsHandedOver)
{
    QXTest::TempDir dir;
    for (const std::wstring& path : {dir.Write(L"file.txt", "data"), dir.MakeDir(L"folder")})
    {
        SCOPED_TRACE(QXTest::Narrow(path));
        const auto ownerOf = [&] { return OwnerOf(ATL::CHandle(CreateFileW(path.c_str(), READ_CONTROL, 7, nullptr,
                                                                           OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr))); };
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        const bool set = ConvertStringSecurityDescriptorToSecurityDescriptorW(AdminsMayTake, 1, &descriptor, nullptr) &&
                         SetFileSecurityW(path.c_str(), OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, descriptor);
        LocalFree(descriptor);
        if (!set || ownerOf() != L"S-1-5-18")
            GTEST_SKIP() << "this platform makes a disk file's descriptor up from its owner and mode and keeps no "
                            "owner or DACL set on it: refusals and owner changes are shown on named pipes";
        CChangeFileOwner owner;
        EXPECT_EQ(owner.ChangeOwner(path, denied), 5u);
        EXPECT_EQ(ownerOf(), L"S-1-5-18");
        EXPECT_EQ(owner.ChangeOwner(path, full), 0u);
        EXPECT_EQ(ownerOf(), user);
    }
}

// The object keeps the descriptor and path it read: copies and assignments
// take both, Clear drops both, a failed call drops the descriptor. Generic
// rights are mapped to the file's before the check.
TEST_F(Ownership, HeldDescriptorCopiesAndGenericMapping)
{
    struct Probe : CChangeFileOwner
    {
        using CChangeFileOwner::FileAccessCheck;
        using CChangeFileOwner::SetOwnershipOnFile;
    };
    SecuredPipe pipe(AdminsMayTake);
    Probe owner, failed;
    ASSERT_EQ(owner.ChangeOwner(pipe.Path(), full), 0u);
    ASSERT_EQ(failed.ChangeOwner(pipe.Path(), full), 0u);
    ASSERT_EQ(failed.ChangeOwner(pipe.Path(), ATL::CAccessToken()), DWORD(ERROR_INVALID_PARAMETER));
    Probe copy(owner), assigned;
    assigned = owner;
    owner.Clear();
    ATL::CAccessToken check;
    ASSERT_TRUE(full.CreateImpersonationToken(&check));
    // The audit flag, the owner set again on the path held, then each check's result and answer.
    const std::pair<Probe*, std::string> cases[] = {{&copy, "1 0 0/1 0/0 0/1"}, {&assigned, "1 0 0/1 0/0 0/1"},
                                                    {&owner, "0 123 2/0 2/0 2/0"}, {&failed, "0 0 2/0 2/0 2/0"}};
    for (const auto& [probe, expected] : cases)
    {
        std::string outcome = std::to_string(probe->IsAuditRequired()) + " " +
                              std::to_string(probe->SetOwnershipOnFile(full));
        for (DWORD desired : {DWORD(GENERIC_READ), DWORD(GENERIC_WRITE), DWORD(GENERIC_READ | WRITE_OWNER)})
        {
            bool granted = true;
            outcome += " " + std::to_string(probe->FileAccessCheck(check.GetHandle(), granted, desired));
            outcome += "/" + std::to_string(granted);
        }
        EXPECT_EQ(outcome, expected) << (probe == &copy ? "copy" : probe == &assigned ? "assigned" : "cleared or failed");
    }
}

// qxinspect owner as the tool is run: a refusal for a child whose
// Administrators group is deny-only, then a hand-over to this process's user
// from a process that holds no restore privilege (the change is still tried).
TEST_F(Ownership, InspectOwner)
{
    SecuredPipe pipe(AdminsMayTake, 16);
    QXTest::ChildProcess child(QXTest::AdminDenyOnlyToken());
    ASSERT_TRUE(child.Ready());
    const std::wstring inspect = L"\"" + QXTest::HelperPath(L"qxinspect.exe") + L"\" ", path = L"\"" + pipe.Path() + L"\"";
    const auto refused = QXTest::RunProcess(inspect + L"--json owner " + path + L" --give-to-pid " + std::to_wstring(child.Pid()));
    const auto changed = QXTest::RunProcess(inspect + L"--log owner " + path + L" --give-to-pid " +
                                                std::to_wstring(GetCurrentProcessId()) + L" --direct",
                                            60000, QXTest::RestrictedProcessToken({}, {SE_RESTORE_NAME}));
    EXPECT_EQ(refused.exitCode, 1u) << refused.output;
    EXPECT_EQ(changed.exitCode, 0u) << changed.output;
    for (const auto& [run, fragment] : std::initializer_list<std::pair<const QXTest::ProcessResult*, std::string>>{
             {&refused, "\"error\": 5"}, {&refused, "\"auditRequired\": false"}, {&refused, "\"sid\": \"S-1-5-18\"\n      }\n    }"},
             {&changed, "Restore failed [1300]."}, {&changed, "Revert successful done [0]."},
             {&changed, "result:      0 (the owner was changed)"}, {&changed, "owner after: " }, {&changed, QXTest::Narrow(user) + "\n"}})
        EXPECT_NE(run->output.find(fragment), std::string::npos) << fragment << "\n" << run->output;
}
