// Handing a file over to a user. Most cases use named pipes: a pipe keeps the
// descriptor the test gives it, so it can be read, checked and changed by
// path. Links on the path are real folder links (junctions, or Unix symbolic
// links where the platform makes no junction). The fixture's two tokens
// differ only in the Administrators group, and every test must leave the
// restore privilege and the thread's impersonation as it found them.

#include "QXTestSupport.h"
#include "TokenTestSupport.h"

#include "QXCommon/ChangeFileOwner.h"

#include <aclapi.h>
#include <sddl.h>

#include <gtest/gtest.h>

#include <winioctl.h>

#include <algorithm>
#include <optional>

namespace
{
using QXCommon::CChangeFileOwner;

// Owned by LocalSystem; Administrators may take it, everyone may read it.
const wchar_t* const AdminsMayTake = L"O:SYG:SYD:(A;;WO;;;BA)(A;;FR;;;WD)";

// A pipe with the descriptor. Every open by path (a descriptor read, an owner
// change) takes one listening instance, so it keeps several.
class SecuredPipe : QXTest::NoCopy
{
public:
    explicit SecuredPipe(const std::wstring& sddl, int instances = 8)
    {
        static LONG counter = 0;
        m_path = L"\\\\.\\pipe\\qxowner-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                 std::to_wstring(InterlockedIncrement(&counter));
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl.c_str(), SDDL_REVISION_1, &descriptor, nullptr))
            return;
        SECURITY_ATTRIBUTES attributes{sizeof attributes, descriptor, FALSE};
        for (int i = 0; i < instances; ++i)
            m_instances.push_back(CreateNamedPipeW(m_path.c_str(), PIPE_ACCESS_DUPLEX | WRITE_DAC, PIPE_TYPE_BYTE,
                                                   PIPE_UNLIMITED_INSTANCES, 0, 0, 0, &attributes));
        LocalFree(descriptor);
    }
    ~SecuredPipe()
    {
        for (HANDLE instance : m_instances)
            CloseHandle(instance);
    }
    const std::wstring& Path() const { return m_path; }
    HANDLE Server() const { return m_instances.empty() ? nullptr : m_instances.front(); }

private:
    std::wstring m_path;
    std::vector<HANDLE> m_instances;
};

// Which file a handle is ("volume:index"); "" when it cannot be read.
std::wstring IdOf(HANDLE file)
{
    BY_HANDLE_FILE_INFORMATION information{};
    return GetFileInformationByHandle(file, &information)
               ? std::to_wstring(information.dwVolumeSerialNumber) + L":" +
                     std::to_wstring((ULONGLONG(information.nFileIndexHigh) << 32) | information.nFileIndexLow)
               : L"";
}

// Which file a path leads to, links followed.
std::wstring IdOf(const std::wstring& path)
{
    const HANDLE file = CreateFileW(path.c_str(), READ_CONTROL, 7, nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    return file != INVALID_HANDLE_VALUE ? IdOf(ATL::CHandle(file)) : L"";
}

// A folder link made the platform's way, removed again with the object: a
// junction, or where the platform makes none (Wine) a Unix symbolic link
// through its Z: drive. Made() when the link leads to the target.
class FolderLink : QXTest::NoCopy
{
public:
    FolderLink(const std::wstring& link, const std::wstring& target) : m_link(link)
    {
        if (!MakeJunction(target))
        {
            using UnixName = char*(CDECL*)(const wchar_t*);
            const auto unixName = reinterpret_cast<UnixName>(
                reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
            char* from = unixName != nullptr ? unixName(link.c_str()) : nullptr;
            char* to = unixName != nullptr ? unixName(target.c_str()) : nullptr;
            if (from != nullptr && to != nullptr)
            {
                m_unixLink = QXTest::Widen(from);
                Unix(L"ln -s \"" + QXTest::Widen(to) + L"\" \"" + m_unixLink + L"\"",
                     [&] { return IdOf(link) == IdOf(target); });
            }
            HeapFree(GetProcessHeap(), 0, from);
            HeapFree(GetProcessHeap(), 0, to);
        }
        m_made = !IdOf(target).empty() && IdOf(link) == IdOf(target);
    }
    ~FolderLink()
    {
        if (!m_unixLink.empty())
            Unix(L"rm -f \"" + m_unixLink + L"\"", [&] { return GetFileAttributesW(m_link.c_str()) == INVALID_FILE_ATTRIBUTES; });
        else
            RemoveDirectoryW(m_link.c_str());
    }
    bool Made() const { return m_made; }

private:
    // Wine runs a Unix program without waiting for it: its effect is awaited, for at most ten seconds.
    template <typename Done>
    static void Unix(const std::wstring& command, Done done)
    {
        QXTest::RunProcess(L"Z:\\bin\\" + command, 30000);
        for (int i = 0; i < 1000 && !done(); ++i)
            Sleep(10);
    }

    bool MakeJunction(const std::wstring& target) const
    {
        if (!CreateDirectoryW(m_link.c_str(), nullptr))
            return false;
        const std::wstring name = L"\\??\\" + target;
        const WORD bytes = static_cast<WORD>(name.size() * sizeof(wchar_t));
        // A mount point's reparse data: substitute name and an empty print name, each ended by a NUL.
        std::vector<BYTE> data(8 + 8 + bytes + 4);
        const DWORD tag = IO_REPARSE_TAG_MOUNT_POINT;
        const WORD header[6] = {static_cast<WORD>(data.size() - 8), 0, 0, bytes, static_cast<WORD>(bytes + 2), 0};
        memcpy(data.data(), &tag, 4);
        memcpy(data.data() + 4, header, sizeof header);
        memcpy(data.data() + 16, name.data(), bytes);
        const HANDLE folder = CreateFileW(m_link.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                          FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
        DWORD returned = 0;
        const bool made = folder != INVALID_HANDLE_VALUE &&
                          DeviceIoControl(ATL::CHandle(folder), FSCTL_SET_REPARSE_POINT, data.data(),
                                          static_cast<DWORD>(data.size()), nullptr, 0, &returned, nullptr);
        if (!made)
            RemoveDirectoryW(m_link.c_str());
        return made;
    }

    std::wstring m_link, m_unixLink;
    bool m_made = false;
};

// The owner's SID as the system reads it back (of an object through a handle
// to it, else by path); "<error N>".
std::wstring OwnerOf(const std::wstring& path, HANDLE object = nullptr)
{
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    const DWORD error =
        object != nullptr
            ? GetSecurityInfo(object, SE_KERNEL_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr, nullptr,
                              &descriptor)
            : GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr,
                                    nullptr, &descriptor);
    if (error != ERROR_SUCCESS)
        return L"<error " + std::to_wstring(error) + L">";
    std::wstring text = QXTest::SidText(owner);
    LocalFree(descriptor);
    return text;
}

// Whether the platform's AccessCheck grants the token WRITE_OWNER on the file
// as it reads now.
bool PlatformGrantsWriteOwner(const std::wstring& path, HANDLE token)
{
    std::vector<BYTE> descriptor(65536);
    DWORD needed = 0;
    ATL::CHandle check = QXTest::ImpersonationCopy(token);
    GENERIC_MAPPING mapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS};
    PRIVILEGE_SET privileges[4] = {};
    DWORD length = sizeof privileges, granted = 0;
    BOOL status = FALSE;
    return GetFileSecurityW(path.c_str(), 7, descriptor.data(), 65536, &needed) &&
           AccessCheck(descriptor.data(), check, WRITE_OWNER, &mapping, privileges, &length, &granted, &status) &&
           status;
}

// Sets owner and DACL of a file; false where the platform refuses or does not keep them.
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
    return error == ERROR_SUCCESS && OwnerOf(path) == L"S-1-5-18";
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
        account = std::wstring(sid.Domain()) + L"\\" + sid.AccountName();
        restoreBefore = Restore();
        ASSERT_NE(restoreBefore, 0xFFFFFFFF) << "this process holds no restore privilege";
    }
    void TearDown() override
    {
        EXPECT_EQ(Restore(), restoreBefore) << "the restore privilege is not back in its previous state";
        EXPECT_EQ(QXTest::DescribeImpersonation(), L"nothing");
    }
    // The restore privilege's attributes in the process token.
    static DWORD Restore()
    {
        ATL::CAccessToken token;
        return token.GetProcessToken(TOKEN_QUERY) ? QXTest::PrivilegeAttributes(token.GetHandle(), SE_RESTORE_NAME)
                                                  : 0xFFFFFFFF;
    }

    ATL::CAccessToken full;   // this process's token
    ATL::CAccessToken denied; // the same with Administrators deny-only
    std::wstring user;        // the user both carry
    std::wstring account;     // "DOMAIN\name"
    DWORD restoreBefore = 0;
};

enum Way { Impersonating, NotImpersonating, Direct };
// The pipes first; a big one's descriptor takes more than 256 bytes.
enum Target { Pipe, BigPipe, SingleBigPipe, GrowingPipe, Missing, MissingDir, NulPath, LinkAtEnd, LinkOnPath, Device,
              OwnerOnlyByPrivilege };
enum Given { Full, Denied, Empty };
enum Thread { Nothing, AsFull, AsDenied, Identification, Anonymous };

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
    {4, "GetSecurityDescriptorFromFile", L"Security Descriptor is [{sddl}]\n"},
    {4, "CheckUserHasWriteAccess", L"User [{user}].\n"},
    {4, "FileAccessCheck", L"Access is Granted\n"},
    {4, "CheckUserHasWriteAccess", L"User has access: [1] error [0].\n"},
    {4, "SetOwnershipOnFileDirect", L"Load OK [{user}] [{account}].\n"},
    {4, "SetOwnershipOnFileDirect", L"Restore enabled.\n"},
    {4, "SetOwnershipOnFileDirect", L"Successfully set file owner on file [{path}].\n"},
    {4, "SetOwnershipOnFileDirect", L"Revert successful done [0].\n"},
    {4, "DoChangeOwner", L"Function complete [0].\n"},
};

std::vector<Log> ProcessTokenChecked(DWORD threadError)
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

// GetKernelObjectSecurity for the library: after a first read that finds its
// buffer too small, the pipe's DACL grows before the second read.
HANDLE growingPipe = nullptr;
BOOL WINAPI ReadThenGrow(HANDLE object, SECURITY_INFORMATION parts, PSECURITY_DESCRIPTOR buffer, DWORD size, LPDWORD needed)
{
    if (GetKernelObjectSecurity(object, parts, buffer, size, needed))
        return TRUE;
    const DWORD error = GetLastError();
    std::wstring sddl = L"D:(A;;WO;;;BA)";
    for (int i = 0; i < 60; ++i)
        sddl += L"(A;;FR;;;S-1-5-21-4-5-6-" + std::to_wstring(1000 + i) + L")";
    PSECURITY_DESCRIPTOR grown = nullptr;
    BOOL present = FALSE, defaulted = FALSE;
    PACL dacl = nullptr;
    if (error == ERROR_INSUFFICIENT_BUFFER &&
        ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl.c_str(), SDDL_REVISION_1, &grown, nullptr))
    {
        GetSecurityDescriptorDacl(grown, &present, &dacl, &defaulted);
        SetSecurityInfo(growingPipe, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, dacl, nullptr);
        LocalFree(grown);
    }
    SetLastError(error);
    return FALSE;
}

// CreateFileW for the library, where only a privilege would grant WRITE_OWNER
// to an open by path (a service's restore privilege, which the open of a
// disk file here does not need).
HANDLE WINAPI OpenWithoutWriteOwner(LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES attributes,
                                    DWORD disposition, DWORD flags, HANDLE model)
{
    if ((access & WRITE_OWNER) != 0)
        return SetLastError(ERROR_ACCESS_DENIED), INVALID_HANDLE_VALUE;
    return CreateFileW(path, access, share, attributes, disposition, flags, model);
}

DWORD Hand(Way way, CChangeFileOwner& owner, const std::wstring& path, const ATL::CAccessToken& token)
{
    if (way == Impersonating)
        return owner.ChangeOwner(path, token);
    if (way == NotImpersonating)
        return owner.ChangeOwnerNoImpersonation(path, token);
    return CChangeFileOwner::SetOwnershipOnFileDirect(path, token);
}
} // namespace

TEST_F(Ownership, EveryOutcomeWithTheRestorePrivilegeOffAndOn)
{
    const std::vector<Log> Unread = {{1, "DoChangeOwner", L"Could not read Security Descriptor [1920].\n"}};
    const std::vector<Log> Unset = {{1, "SetOwnershipOnFileDirect", L"Could not set file owner [result 1920] on file [{path}].\n"}};
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
        {"not impersonating: the process token is checked", NotImpersonating, Pipe, Denied, Nothing, 0,
         ProcessTokenChecked(ERROR_NO_TOKEN)},
        {"not impersonating: the thread's token is checked", NotImpersonating, Pipe, Full, AsDenied, 5,
         {{4, "ChangeOwnerNoImpersonation", L"Not Impersonating and changing.\n"},
          {4, "CheckUserHasWriteAccess", L"Thread Token Valid.\n"}}},
        {"an anonymous thread token cannot be opened", NotImpersonating, Pipe, Denied, Anonymous, 0,
         ProcessTokenChecked(ERROR_CANT_OPEN_ANONYMOUS)},
        {"an identification token cannot be duplicated", NotImpersonating, Pipe, Full, Identification, 1346,
         {{1, "CheckUserHasWriteAccess", L"Duplication Token Failed: Error - [1346].\n"},
          {1, "DoChangeOwner", L"Check User has write access error [1346].\n"}}},
        {"a descriptor over 256 bytes", Impersonating, BigPipe, Full, Nothing, 0,
         {{4, "GetSecurityDescriptorFromFile", L"GetFileSecurity() first call result [122] - expected sometimes.\n"},
          {4, "GetSecurityDescriptorFromFile", L"Calling GetFileSecurity() with buffer size {size}.\n"}}},
        {"one open reads, checks and changes (a pipe with one instance)", Impersonating, SingleBigPipe, Full, Nothing, 0,
         {{4, "GetSecurityDescriptorFromFile", L"Calling GetFileSecurity() with buffer size {size}.\n"}}},
        {"a descriptor that grows between the two reads", Impersonating, GrowingPipe, Full, Nothing,
         ERROR_INSUFFICIENT_BUFFER,
         {{1, "GetSecurityDescriptorFromFile", L"GetFileSecurity() second call - unexpected result [122].\n"},
          {1, "DoChangeOwner", L"Could not read Security Descriptor [122].\n"}}},
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
        {"a direct change for an empty token", Direct, Pipe, Empty, Nothing, ERROR_INVALID_HANDLE,
         {{1, "SetOwnershipOnFileDirect", L"Load Failed [6].\n"}}},
        {"impersonating while the caller impersonates at anonymous level", Impersonating, Pipe, Full, Anonymous, 0, {}},
        {"a link in place of the file", Impersonating, LinkAtEnd, Full, Nothing, ERROR_CANT_ACCESS_FILE, Unread},
        {"a folder on the path that is a link", Impersonating, LinkOnPath, Full, Nothing, ERROR_CANT_ACCESS_FILE, Unread},
        {"not impersonating: a link in place of the file", NotImpersonating, LinkAtEnd, Full, Nothing,
         ERROR_CANT_ACCESS_FILE, Unread},
        {"not impersonating: a linked folder on the path", NotImpersonating, LinkOnPath, Full, Nothing,
         ERROR_CANT_ACCESS_FILE, Unread},
        {"a direct change of a link in place of the file", Direct, LinkAtEnd, Full, Nothing, ERROR_CANT_ACCESS_FILE,
         Unset},
        {"a direct change through a linked folder", Direct, LinkOnPath, Full, Nothing, ERROR_CANT_ACCESS_FILE, Unset},
        {"WRITE_OWNER from a second open of the file read (as with the restore privilege)", NotImpersonating,
         OwnerOnlyByPrivilege, Full, Nothing, 0,
         {{4, "SetOwnershipOnFileDirect", L"Successfully set file owner on file [{path}].\n"}}},
        {"a device is no file", NotImpersonating, Device, Full, Nothing, ERROR_CANT_ACCESS_FILE,
         {{1, "GetSecurityDescriptorFromFile", L"Refused: [\\\\.\\NUL] names no file.\n"}}},
    };
    QXTest::TempDir dir;
    const std::wstring other = dir.MakeDir(L"other");
    dir.Write(L"other\\secret.txt", "data");
    FolderLink link(dir.File(L"link"), other);
    ASSERT_TRUE(link.Made()) << "no folder link could be made";
    ATL::CAccessToken empty, process;
    ASSERT_TRUE(process.GetProcessToken(TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY));
    const ATL::CAccessToken* tokens[] = {&full, &denied, &empty};

    for (bool flipped : {false, true})
    {
        SCOPED_TRACE(flipped ? "restore privilege flipped" : "restore privilege as found");
        const bool enable = ((restoreBefore & SE_PRIVILEGE_ENABLED) != 0) != flipped;
        ASSERT_TRUE(enable ? process.EnablePrivilege(SE_RESTORE_NAME) : process.DisablePrivilege(SE_RESTORE_NAME));
        const DWORD privilege = Restore();
        for (const Row& row : rows)
        {
            SCOPED_TRACE(row.name);
            SecuredPipe pipe(row.target == Pipe ? AdminsMayTake : bigPipe, row.target == SingleBigPipe ? 1 : 8);
            const std::wstring paths[] = {pipe.Path(), pipe.Path(), pipe.Path(), pipe.Path(), dir.File(L"missing.txt"),
                                          dir.File(L"none\\missing.txt"), std::wstring(L"C:\\a\0b", 6),
                                          dir.File(L"link"), dir.File(L"link\\secret.txt"), L"\\\\.\\NUL",
                                          dir.File(L"other\\secret.txt")};
            const std::wstring& path = paths[row.target];
            const bool pipeTarget = row.target <= GrowingPipe;
            // What the library should read, through the pipe's server end (which takes no instance).
            std::vector<BYTE> descriptor(4096);
            DWORD size = 0;
            LPWSTR sddl = nullptr;
            ASSERT_TRUE(!pipeTarget ||
                        (GetKernelObjectSecurity(pipe.Server(), 7, descriptor.data(), 4096, &size) &&
                         ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor.data(), 1, 7, &sddl, nullptr)));
            const std::wstring sddlText = sddl != nullptr ? sddl : L"";
            size = pipeTarget ? GetSecurityDescriptorLength(descriptor.data()) : 0;
            LocalFree(sddl);
            growingPipe = pipe.Server();
            std::optional<QXTest::ImportPatch> standIn; // the row's stand-in for one of the library's imports
            if (row.target == GrowingPipe)
                standIn.emplace(L"QXCommon.dll", "advapi32.dll", "GetKernelObjectSecurity",
                             reinterpret_cast<void*>(&ReadThenGrow));
            if (row.target == OwnerOnlyByPrivilege)
                standIn.emplace(L"QXCommon.dll", "kernel32.dll", "CreateFileW", reinterpret_cast<void*>(&OpenWithoutWriteOwner));
            ASSERT_TRUE(!standIn || standIn->Installed());

            QXTest::RevertAtExit revert;
            if (row.thread != Nothing)
            {
                const auto level = row.thread == Identification ? SecurityIdentification
                                   : row.thread == Anonymous    ? SecurityAnonymous
                                                                : SecurityImpersonation;
                HANDLE copy = nullptr;
                ASSERT_TRUE(DuplicateTokenEx((row.thread == AsDenied ? denied : full).GetHandle(), TOKEN_ALL_ACCESS,
                                             nullptr, level, TokenImpersonation, &copy));
                ATL::CHandle owner(copy);
                ASSERT_TRUE(SetThreadToken(nullptr, copy));
            }
            const std::wstring before = QXTest::DescribeImpersonation();

            QXTest::LogCapture log;
            CChangeFileOwner owner;
            const DWORD result = Hand(row.way, owner, path, *tokens[row.given]);
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
            if (pipeTarget && row.given <= Denied)
            {
                EXPECT_EQ(OwnerOf(path, pipe.Server()), result == 0 ? user : L"S-1-5-18");
            }
            if (row.result == ERROR_CANT_ACCESS_FILE)
            {
                EXPECT_TRUE(log.HasFragment(L"Refused: [" + path + L"]")) << log.Dump();
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

// Disk files and folders, named in the forms callers use, are the files the
// paths name: each is handed over exactly when the platform's own AccessCheck
// grants the token WRITE_OWNER.
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
    {
        SCOPED_TRACE(QXTest::Narrow(path));
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
}

TEST_F(Ownership, DiskFilesKeepWhatIsHandedOver)
{
    QXTest::TempDir dir;
    for (const std::wstring& path : {dir.Write(L"file.txt", "data"), dir.MakeDir(L"folder")})
    {
        SCOPED_TRACE(QXTest::Narrow(path));
        if (!SetDescriptor(path, AdminsMayTake))
            GTEST_SKIP() << "this platform makes a disk file's descriptor up from its owner and mode and keeps no "
                            "owner or DACL set on it: refusals and owner changes are shown on named pipes";
        CChangeFileOwner owner;
        EXPECT_EQ(owner.ChangeOwner(path, denied), 5u);
        EXPECT_EQ(OwnerOf(path), L"S-1-5-18");
        EXPECT_EQ(owner.ChangeOwner(path, full), 0u);
        EXPECT_EQ(OwnerOf(path), user);
    }
}

// The folder named is swapped for a link to another folder while the call
// runs (from the access check, between the read and the change): the owner
// change acts on the folder that was read and checked, wherever it now is,
// never on the one the link leads to.
TEST_F(Ownership, ALinkSwappedInDuringTheCallChangesNothingElse)
{
    static struct
    {
        std::wstring named, away, other, changed; // changed: which file the owner change acted on
        std::optional<FolderLink> link;
    } swap;
    struct StandIn
    {
        static BOOL WINAPI Check(PSECURITY_DESCRIPTOR descriptor, HANDLE token, DWORD desired, PGENERIC_MAPPING mapping,
                                 PPRIVILEGE_SET privileges, LPDWORD length, LPDWORD granted, LPBOOL status)
        {
            if (MoveFileW(swap.named.c_str(), swap.away.c_str()))
                swap.link.emplace(swap.named, swap.other);
            return AccessCheck(descriptor, token, desired, mapping, privileges, length, granted, status);
        }
        static DWORD WINAPI SetByHandle(HANDLE object, SE_OBJECT_TYPE type, SECURITY_INFORMATION parts, PSID owner,
                                        PSID group, PACL dacl, PACL sacl)
        {
            swap.changed = IdOf(object);
            return SetSecurityInfo(object, type, parts, owner, group, dacl, sacl);
        }
        static DWORD WINAPI SetByName(LPWSTR name, SE_OBJECT_TYPE type, SECURITY_INFORMATION parts, PSID owner,
                                      PSID group, PACL dacl, PACL sacl)
        {
            swap.changed = IdOf(std::wstring(name));
            return SetNamedSecurityInfoW(name, type, parts, owner, group, dacl, sacl);
        }
    };
    QXTest::TempDir dir;
    struct Unlink
    {
        ~Unlink() { swap.link.reset(); } // before the folder goes, whatever happened
    } unlink;
    swap.other = dir.MakeDir(L"other");
    if (!FolderLink(dir.File(L"probe"), swap.other).Made())
        GTEST_SKIP() << "this platform makes no folder link here";
    const QXTest::ImportPatch check(L"QXCommon.dll", "advapi32.dll", "AccessCheck", reinterpret_cast<void*>(&StandIn::Check));
    const QXTest::ImportPatch byHandle(L"QXCommon.dll", "advapi32.dll", "SetSecurityInfo",
                                       reinterpret_cast<void*>(&StandIn::SetByHandle));
    const QXTest::ImportPatch byName(L"QXCommon.dll", "advapi32.dll", "SetNamedSecurityInfoW",
                                     reinterpret_cast<void*>(&StandIn::SetByName));
    ASSERT_TRUE(check.Installed() && (byHandle.Installed() || byName.Installed()));
    for (Way way : {Impersonating, NotImpersonating})
    {
        SCOPED_TRACE(way);
        swap.named = dir.MakeDir(L"named" + std::to_wstring(way));
        swap.away = dir.File(L"away" + std::to_wstring(way));
        swap.changed.clear();
        CChangeFileOwner owner;
        EXPECT_EQ(Hand(way, owner, swap.named, full), 0u);
        ASSERT_TRUE(swap.link && swap.link->Made()) << "the folder was not swapped for a link during the call";
        EXPECT_EQ(swap.changed, IdOf(swap.away));
        EXPECT_NE(swap.changed, IdOf(swap.other));
        swap.link.reset();
    }
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
    // Generic rights are mapped to the file's before the check.
    const std::pair<DWORD, bool> rows[] = {{GENERIC_READ, true}, {GENERIC_WRITE, false}, {GENERIC_READ | WRITE_OWNER, true}};
    for (Probe* held : {&copy, &assigned})
    {
        EXPECT_EQ(held->IsAuditRequired(), 1);
        EXPECT_EQ(held->SetOwnershipOnFile(full), 0u); // the path is copied with the descriptor
        for (const auto& [desired, expected] : rows)
        {
            bool granted = !expected;
            EXPECT_EQ(held->FileAccessCheck(check.GetHandle(), granted, desired), 0u) << desired;
            EXPECT_EQ(granted, expected) << std::hex << desired;
        }
    }
}

// qxinspect owner as the tool is run: a refusal for a child whose
// Administrators group is deny-only, then a hand-over to this process's user
// from a process that holds no restore privilege (the change is still tried).
TEST_F(Ownership, InspectOwner)
{
    SecuredPipe pipe(AdminsMayTake, 16);
    const std::wstring path = L"\"" + pipe.Path() + L"\"";
    QXTest::ChildProcess child(QXTest::AdminDenyOnlyToken());
    ASSERT_TRUE(child.Ready());
    const auto expect = [](const std::wstring& arguments, DWORD exitCode, const std::vector<std::string>& fragments,
                           HANDLE token = nullptr) {
        SCOPED_TRACE(QXTest::Narrow(arguments));
        const auto run = QXTest::RunProcess(L"\"" + QXTest::HelperPath(L"qxinspect.exe") + L"\" " + arguments, 60000, token);
        EXPECT_EQ(run.exitCode, exitCode) << run.output;
        for (const auto& fragment : fragments)
            EXPECT_NE(run.output.find(fragment), std::string::npos) << fragment << "\n" << run.output;
    };
    expect(L"--json owner " + path + L" --give-to-pid " + std::to_wstring(child.Pid()), 1,
           {"\"error\": 5", "\"auditRequired\": false", "\"accessCheck\": true",
            "\"sid\": \"S-1-5-18\"\n      }\n    }"});
    expect(L"--log owner " + path + L" --give-to-pid " + std::to_wstring(GetCurrentProcessId()) + L" --direct", 0,
           {"owner:       ", " S-1-5-18\n", "dacl:        D:(A;;WO;;;BA)(A;;FR;;;WD)", "Restore failed [1300].",
            "Revert successful done [0].", "result:      0 (the owner was changed)", "audit due:   yes",
            "owner after: ", QXTest::Narrow(user) + "\n"},
           QXTest::RestrictedProcessToken({}, {SE_RESTORE_NAME}));
    expect(L"owner x --give-to-pid 0", 3, {"cannot open the token of process 0"});
    for (const wchar_t* bad : {L"owner", L"owner x --direct", L"owner x --give-to-pid y", L"owner x --bogus"})
        expect(bad, 2, {"qxinspect: "});
}
