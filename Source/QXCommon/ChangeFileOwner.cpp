#include "QXCommon/ChangeFileOwner.h"

#include "QXCommon/ImpersonationSaver.h"

#include "DiskFile.h"
#include "QXLog.h"
#include "TokenDetail.h"

#include <aclapi.h>
#include <sddl.h>

#include <cstring>
#include <mutex>
#include <string_view>

namespace QXCommon
{
namespace
{
using Detail::LocalPtr;

constexpr SECURITY_INFORMATION DescriptorParts =
    OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION; // 7
constexpr DWORD FirstReadSize = 256;
// TOKEN_QUERY | TOKEN_DUPLICATE: read the user, make the impersonation copy.
constexpr DWORD CheckTokenAccess = TOKEN_QUERY | TOKEN_DUPLICATE;

// The error of a call that failed. Some failures leave no error behind (a
// null token handle under some systems); they must never read as success.
DWORD LastErrorOr(DWORD fallback = ERROR_GEN_FAILURE)
{
    const DWORD error = ::GetLastError();
    return error != ERROR_SUCCESS ? error : fallback;
}

// A path the system would cut short (an embedded NUL) or that names nothing.
bool IsUsablePath(const std::wstring& path)
{
    return !path.empty() && path.find(L'\0') == std::wstring::npos;
}

// The path as the log can show it: a log line ends at a NUL.
std::wstring Printable(const std::wstring& path)
{
    std::wstring text;
    for (wchar_t c : path)
        text += c != L'\0' ? std::wstring(1, c) : std::wstring(L"\\0");
    return text;
}

// Owner, group and DACL as SDDL, for the log.
std::wstring SddlText(PSECURITY_DESCRIPTOR descriptor)
{
    LPWSTR text = nullptr;
    if (!::ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, DescriptorParts, &text,
                                                                nullptr))
        return L"<SDDL error " + std::to_wstring(::GetLastError()) + L">";
    LocalPtr<wchar_t> owner(text);
    return text;
}

std::wstring AccountText(const ATL::CSid& sid)
{
    const std::wstring name = sid.AccountName();
    const std::wstring domain = sid.Domain();
    return domain.empty() ? name : domain + L"\\" + name;
}

// Every step of a call acts on one open of the named file. The open asks
// no data access (it breaks no oplock and meets no share mode); folders need
// backup semantics to be opened at all, which also lets the backup and
// restore privileges of a service that enabled them grant the access; a
// reparse point at the last component is opened itself, never followed; and
// a pipe server at the other end of a pipe path learns nothing of the
// identity that opens it and cannot act as it.
constexpr DWORD ShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr DWORD OpenFlags = FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT;
// The result for a path that does not lead to the file it names.
constexpr DWORD NotTheNamedFile = ERROR_CANT_ACCESS_FILE; // 1920

// The named file, opened once by the identity the calling thread acts with.
struct OpenFile
{
    ATL::CHandle handle;      // null when the file does not exist
    bool canSetOwner = false; // opened with WRITE_OWNER too
};

// CreateFileW with an anonymous quality of service; null (with the last
// error) when it fails.
HANDLE OpenByPath(const std::wstring& path, DWORD access)
{
    const HANDLE handle = Detail::OpenToRead(path.c_str(), access, ShareAll, OpenFlags);
    return handle != INVALID_HANDLE_VALUE ? handle : nullptr;
}

// A path text the system writes into a buffer: GetFullPathNameW and the like,
// which answer the length needed (with its NUL) when the buffer is too small.
template <typename Call>
DWORD PathText(std::wstring& text, Call call)
{
    text.assign(MAX_PATH, L'\0');
    for (int attempt = 0; attempt < 4; ++attempt)
    {
        const DWORD length = call(text.data(), static_cast<DWORD>(text.size()));
        if (length == 0)
            return LastErrorOr();
        if (length < text.size())
        {
            text.resize(length);
            return ERROR_SUCCESS;
        }
        text.assign(length, L'\0');
    }
    return ERROR_FILENAME_EXCED_RANGE; // it kept growing
}

bool StartsWithNoCase(std::wstring_view text, std::wstring_view prefix)
{
    return text.size() >= prefix.size() &&
           ::CompareStringOrdinal(text.data(), static_cast<int>(prefix.size()), prefix.data(),
                                  static_cast<int>(prefix.size()), TRUE) == CSTR_EQUAL;
}

// Paths are equal without regard to case, as the file systems compare names;
// a trailing separator (a folder named "C:\dir\") does not count.
bool SamePath(std::wstring_view a, std::wstring_view b)
{
    while (!a.empty() && a.back() == L'\\')
        a.remove_suffix(1);
    while (!b.empty() && b.back() == L'\\')
        b.remove_suffix(1);
    return ::CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()), TRUE) ==
           CSTR_EQUAL;
}

// A full path as the final path of a file on a volume reads without its
// "\\?\": "C:\dir\file" or "UNC\server\share\file". Empty for every other
// form (a volume or device by itself, a volume GUID path, a device namespace).
std::wstring VolumeForm(std::wstring_view full)
{
    if (full.starts_with(L"\\\\?\\") || full.starts_with(L"\\\\.\\"))
        full.remove_prefix(4);
    else if (full.starts_with(L"\\\\"))
        return L"UNC" + std::wstring(full.substr(1));
    const bool drive = full.size() >= 3 && full[1] == L':' && full[2] == L'\\';
    return drive || StartsWithNoCase(full, L"UNC\\") ? std::wstring(full) : std::wstring();
}

// The name a pipe path gives its pipe as the pipe file system reports it
// ("\name" for "\\.\pipe\name"); empty for any other path.
std::wstring PipeForm(std::wstring_view full)
{
    for (std::wstring_view prefix : {L"\\\\.\\pipe\\", L"\\\\?\\pipe\\"})
        if (StartsWithNoCase(full, prefix) && full.size() > prefix.size())
            return std::wstring(full.substr(prefix.size() - 1));
    return {};
}

// Whether the open handle is the very file that the path names, so that no
// link, junction, mount point, redirected drive letter or DOS device on the
// path makes the call act on another file. A file on a volume: its final path
// is the path's full form, or its long-name form (a path given with short
// names), and the last component is no link; a pipe: the pipe the path names.
// Nothing else is a file whose owner is handed over (a volume, a disk, a
// console or another device). 0, or NotTheNamedFile with the reason logged.
DWORD CheckIsNamedFile(HANDLE file, const std::wstring& path, const char* function)
{
    std::wstring full;
    if (const DWORD error = PathText(full, [&](wchar_t* buffer, DWORD size) {
            return ::GetFullPathNameW(path.c_str(), size, buffer, nullptr);
        }))
    {
        QXLOG_ERROR(function, L"Cannot tell which file [{}] names [{}].\n", path, error);
        return error;
    }

    const DWORD type = ::GetFileType(file);
    if (type == FILE_TYPE_PIPE)
    {
        const std::wstring expected = PipeForm(full);
        alignas(FILE_NAME_INFO) BYTE buffer[sizeof(FILE_NAME_INFO) + 1024 * sizeof(wchar_t)] = {};
        auto* name = reinterpret_cast<FILE_NAME_INFO*>(buffer);
        if (!::GetFileInformationByHandleEx(file, FileNameInfo, buffer, sizeof(buffer)))
        {
            const DWORD error = LastErrorOr();
            QXLOG_ERROR(function, L"Cannot tell which file [{}] is [{}].\n", path, error);
            return error;
        }
        const std::wstring_view actual(name->FileName, name->FileNameLength / sizeof(wchar_t));
        if (!expected.empty() && SamePath(expected, actual))
            return ERROR_SUCCESS;
        QXLOG_ERROR(function, L"Refused: [{}] leads to the pipe [{}], not to the file it names.\n", path,
                    std::wstring(actual));
        return NotTheNamedFile;
    }

    const std::wstring expected = VolumeForm(full);
    if (type != FILE_TYPE_DISK || expected.empty())
    {
        QXLOG_ERROR(function, L"Refused: [{}] names no file.\n", path);
        return NotTheNamedFile;
    }
    std::wstring final;
    if (const DWORD error = PathText(final, [&](wchar_t* buffer, DWORD size) {
            return ::GetFinalPathNameByHandleW(file, buffer, size, FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
        }))
    {
        QXLOG_ERROR(function, L"Cannot tell which file [{}] is [{}].\n", path, error);
        return error;
    }
    const std::wstring_view actual = std::wstring_view(final).substr(final.starts_with(L"\\\\?\\") ? 4 : 0);
    if (!SamePath(expected, actual))
    {
        // Short names are a form of the same path: compare the long names.
        std::wstring longPath;
        const bool same = PathText(longPath, [&](wchar_t* buffer, DWORD size) {
                              return ::GetLongPathNameW(full.c_str(), buffer, size);
                          }) == ERROR_SUCCESS &&
                          SamePath(VolumeForm(longPath), actual);
        if (!same)
        {
            QXLOG_ERROR(function, L"Refused: [{}] leads to [{}], not to the file it names.\n", path,
                        std::wstring(actual));
            return NotTheNamedFile;
        }
    }
    // The last component opened itself: a symbolic link or junction there
    // names another file.
    FILE_ATTRIBUTE_TAG_INFO tag = {};
    if (!::GetFileInformationByHandleEx(file, FileAttributeTagInfo, &tag, sizeof(tag)))
    {
        const DWORD error = LastErrorOr();
        QXLOG_ERROR(function, L"Cannot tell which file [{}] is [{}].\n", path, error);
        return error;
    }
    if ((tag.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 && IsReparseTagNameSurrogate(tag.ReparseTag))
    {
        QXLOG_ERROR(function, L"Refused: [{}] names a link.\n", path);
        return NotTheNamedFile;
    }
    return ERROR_SUCCESS;
}

// Opens the named file for reading its descriptor and checks that it is the
// file the path names. With forChange it asks WRITE_OWNER as well, so that the
// owner can later be set through the same handle; an identity refused
// WRITE_OWNER still opens it to read it (the access check then answers, as it
// does for every caller). A file that does not exist leaves no handle and
// answers 0.
DWORD OpenNamedFile(const std::wstring& path, bool forChange, OpenFile& file, const char* function)
{
    HANDLE handle = forChange ? OpenByPath(path, READ_CONTROL | WRITE_OWNER) : nullptr;
    file.canSetOwner = handle != nullptr;
    if (handle == nullptr && (!forChange || ::GetLastError() == ERROR_ACCESS_DENIED))
        handle = OpenByPath(path, READ_CONTROL);
    if (handle == nullptr)
    {
        const DWORD error = LastErrorOr();
        if (error == ERROR_FILE_NOT_FOUND)
        {
            QXLOG_INFO(function, L"GetFileSecurity() first call - file does not exist (Treat as success!).\n");
            return ERROR_SUCCESS;
        }
        QXLOG_ERROR(function, L"GetFileSecurity() first call - unexpected result [{}].\n", error);
        return error;
    }
    file.handle.Attach(handle);
    return CheckIsNamedFile(file.handle, path, function);
}

// The restore privilege belongs to the whole process token: one owner change
// at a time, so that one change's revert never switches the privilege off
// under another.
std::mutex& OwnerChangeLock()
{
    static std::mutex lock;
    return lock;
}

// Enables the restore privilege in the process token while it lives and puts
// the privilege back into its previous state at the end, also when an
// exception leaves the scope.
class RestorePrivilegeScope
{
public:
    explicit RestorePrivilegeScope(const char* function) : m_function(function)
    {
        if (!m_token.GetProcessToken(MAXIMUM_ALLOWED | TOKEN_ADJUST_PRIVILEGES))
        {
            const DWORD error = LastErrorOr();
            QXLOG_ERROR(function, L"Unable to get the process token [{}].\n", error);
            return;
        }
        QXLOG_INFO(function, L"Attempting to change privilege.\n");
        bool notAllAssigned = false;
        if (m_token.EnablePrivilege(SE_RESTORE_NAME, &m_previous, &notAllAssigned) && !notAllAssigned)
        {
            QXLOG_INFO(function, L"Restore enabled.\n");
        }
        else
        {
            // A token without the privilege: the change is still tried.
            const DWORD error = notAllAssigned ? static_cast<DWORD>(ERROR_NOT_ALL_ASSIGNED) : LastErrorOr();
            QXLOG_ERROR(function, L"Restore failed [{}].\n", error);
        }
    }

    ~RestorePrivilegeScope()
    {
        if (m_token.GetHandle() != nullptr)
            m_token.EnableDisablePrivileges(m_previous);
    }

    RestorePrivilegeScope(const RestorePrivilegeScope&) = delete;
    RestorePrivilegeScope& operator=(const RestorePrivilegeScope&) = delete;

    // result: the owner change's, for the log.
    void Revert(DWORD result)
    {
        if (m_token.GetHandle() == nullptr)
            return;
        QXLOG_INFO(m_function, L"Reverting the privilege.\n");
        if (m_token.EnableDisablePrivileges(m_previous))
        {
            m_previous.DeleteAll(); // nothing left for the destructor to put back
            QXLOG_INFO(m_function, L"Revert successful done [{}].\n", result);
        }
        else
        {
            const DWORD error = LastErrorOr();
            QXLOG_ERROR(m_function, L"Revert failed [{}].\n", error);
        }
    }

private:
    const char* m_function;
    ATL::CAccessToken m_token;
    ATL::CTokenPrivileges m_previous; // only what the enable changed
};

// Reads owner, group and DACL of the named file through its one open into
// descriptor (left empty when the file does not exist).
DWORD ReadSecurityDescriptor(const std::wstring& path, bool forChange, OpenFile& file,
                             std::unique_ptr<BYTE[]>& descriptor)
{
    const char* const function = "QXCommon::CChangeFileOwner::GetSecurityDescriptorFromFile";
    descriptor.reset();
    if (!IsUsablePath(path))
    {
        QXLOG_ERROR(function, L"Invalid file path [{}].\n", Printable(path));
        return ERROR_INVALID_NAME;
    }
    QXLOG_INFO(function, L"Calling GetFileSecurity() for {}.\n", path);
    if (const DWORD error = OpenNamedFile(path, forChange, file, function); error != ERROR_SUCCESS)
        return error;
    if (file.handle == nullptr)
        return ERROR_SUCCESS; // no such file: nothing to read, the check decides

    DWORD size = FirstReadSize;
    auto buffer = std::make_unique<BYTE[]>(size);
    DWORD needed = 0;
    if (!::GetKernelObjectSecurity(file.handle, DescriptorParts, buffer.get(), size, &needed))
    {
        const DWORD error = LastErrorOr();
        if (error != ERROR_INSUFFICIENT_BUFFER)
        {
            QXLOG_ERROR(function, L"GetFileSecurity() first call - unexpected result [{}].\n", error);
            return error;
        }
        QXLOG_INFO(function, L"GetFileSecurity() first call result [{}] - expected sometimes.\n", error);
        size = needed;
        buffer = std::make_unique<BYTE[]>(size);
        QXLOG_INFO(function, L"Calling GetFileSecurity() with buffer size {}.\n", size);
        if (!::GetKernelObjectSecurity(file.handle, DescriptorParts, buffer.get(), size, &needed))
        {
            const DWORD secondError = LastErrorOr();
            QXLOG_ERROR(function, L"GetFileSecurity() second call - unexpected result [{}].\n", secondError);
            return secondError;
        }
    }
    if (!::IsValidSecurityDescriptor(buffer.get()))
    {
        QXLOG_ERROR(function, L"IsValidSecurityDescriptor() detected the Security Descriptor was invalid.\n");
        return ERROR_INVALID_SECURITY_DESCR;
    }
    descriptor = std::move(buffer);
    // The SDDL text is made only when a log output is on.
    QXLOG_INFO(function, L"Security Descriptor is [{}]\n", SddlText(descriptor.get()));
    QXLOG_INFO(function, L"GetFileSecurity() succeeded.\n");
    return ERROR_SUCCESS;
}

// Makes the token's user the owner of the named file, with the restore
// privilege enabled in the process token for the moment of the change: of the
// file already open (checked) when one is given, else of the file opened here,
// once, by path. A handle opened without WRITE_OWNER is reopened from itself
// (the same file; the path is not looked up again), as the identity the
// thread acts with and with the privilege, which then may grant the access.
DWORD SetOwner(const std::wstring& path, OpenFile* checked, const ATL::CAccessToken& userToken)
{
    const char* const function = "QXCommon::CChangeFileOwner::SetOwnershipOnFileDirect";
    ATL::CSid user;
    if (!userToken.GetUser(&user))
    {
        // Some systems report no error for a null handle.
        const DWORD error = LastErrorOr(ERROR_INVALID_HANDLE);
        QXLOG_ERROR(function, L"Load Failed [{}].\n", error);
        return error;
    }
    QXLOG_INFO(function, L"Load OK [{}] [{}].\n", user.Sid(), AccountText(user));
    PSID owner = const_cast<SID*>(user.GetPSID());
    if (owner == nullptr || !::IsValidSid(owner))
    {
        QXLOG_ERROR(function, L"Invalid SID [{}].\n", user.Sid());
        return ERROR_INVALID_SID;
    }

    if (!IsUsablePath(path))
    {
        QXLOG_ERROR(function, L"Could not set file owner [result {}] on file [{}].\n",
                    static_cast<DWORD>(ERROR_INVALID_NAME), Printable(path));
        return ERROR_INVALID_NAME;
    }

    std::lock_guard<std::mutex> lock(OwnerChangeLock());
    RestorePrivilegeScope restore(function);
    ATL::CHandle opened;
    DWORD result = ERROR_SUCCESS;
    if (checked != nullptr && checked->canSetOwner)
    {
        opened.Attach(checked->handle.Detach());
    }
    else if (checked != nullptr)
    {
        const HANDLE reopened = ::ReOpenFile(checked->handle, WRITE_OWNER, ShareAll, OpenFlags);
        if (reopened != INVALID_HANDLE_VALUE)
            opened.Attach(reopened);
        else
            result = LastErrorOr();
    }
    else
    {
        opened.Attach(OpenByPath(path, WRITE_OWNER));
        result = opened != nullptr ? CheckIsNamedFile(opened, path, function) : LastErrorOr();
    }
    if (result == ERROR_SUCCESS)
        result = ::SetSecurityInfo(opened, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, owner, nullptr, nullptr, nullptr);
    if (result != ERROR_SUCCESS)
        QXLOG_ERROR(function, L"Could not set file owner [result {}] on file [{}].\n", result, path);
    else
        QXLOG_INFO(function, L"Successfully set file owner on file [{}].\n", path);
    restore.Revert(result);
    return result;
}
} // namespace

CChangeFileOwner::CChangeFileOwner() : auditRequired(0)
{
}

CChangeFileOwner::CChangeFileOwner(const CChangeFileOwner& other) : filePath(other.filePath), auditRequired(other.auditRequired)
{
    if (other.securityDescriptor)
    {
        const DWORD length = ::GetSecurityDescriptorLength(other.securityDescriptor.get());
        securityDescriptor = std::make_unique<BYTE[]>(length);
        std::memcpy(securityDescriptor.get(), other.securityDescriptor.get(), length);
    }
}

CChangeFileOwner& CChangeFileOwner::operator=(const CChangeFileOwner& other)
{
    if (this != &other)
    {
        CChangeFileOwner copy(other);
        filePath.swap(copy.filePath);
        securityDescriptor.swap(copy.securityDescriptor);
        auditRequired = copy.auditRequired;
    }
    return *this;
}

CChangeFileOwner::~CChangeFileOwner() = default;

void CChangeFileOwner::Clear()
{
    securityDescriptor.reset();
    filePath.clear();
    auditRequired = 0;
}

int CChangeFileOwner::IsAuditRequired() const
{
    return auditRequired;
}

void CChangeFileOwner::Start(const std::wstring& path)
{
    securityDescriptor.reset();
    auditRequired = 0;
    filePath = path;
}

DWORD CChangeFileOwner::ChangeOwner(const std::wstring& path, const ATL::CAccessToken& userToken)
{
    const char* const function = "QXCommon::CChangeFileOwner::ChangeOwner";
    Start(path);
    // Puts back whatever the thread impersonated before, once the work is done.
    CImpersonationSaver impersonation;
    if (const DWORD error = impersonation.GetCaptureError(); error != ERROR_SUCCESS)
    {
        // It could not be put back: refuse before the thread is changed.
        QXLOG_ERROR(function, L"Cannot save the thread's impersonation [{}].\n", error);
        return error;
    }
    if (!userToken.Impersonate())
    {
        const DWORD error = LastErrorOr();
        impersonation.SetImpersonationOccurred(0);
        QXLOG_ERROR(function, L"Impersonate failed error [{}].\n", error);
        return error;
    }
    impersonation.SetImpersonationOccurred(1);
    QXLOG_INFO(function, L"Impersonating and changing.\n");
    return DoChangeOwner(userToken);
}

DWORD CChangeFileOwner::ChangeOwnerNoImpersonation(const std::wstring& path, const ATL::CAccessToken& userToken)
{
    Start(path);
    QXLOG_INFO("QXCommon::CChangeFileOwner::ChangeOwnerNoImpersonation", L"Not Impersonating and changing.\n");
    return DoChangeOwner(userToken);
}

DWORD CChangeFileOwner::DoChangeOwner(const ATL::CAccessToken& userToken)
{
    const char* const function = "QXCommon::CChangeFileOwner::DoChangeOwner";
    // Read, check and change one and the same file: the one open made here.
    OpenFile file;
    DWORD result = ReadSecurityDescriptor(filePath, true, file, securityDescriptor);
    if (result != ERROR_SUCCESS)
    {
        QXLOG_ERROR(function, L"Could not read Security Descriptor [{}].\n", result);
    }
    else
    {
        bool granted = false;
        result = CheckUserHasWriteAccess(granted);
        if (result != ERROR_SUCCESS)
        {
            QXLOG_ERROR(function, L"Check User has write access error [{}].\n", result);
        }
        else if (!granted)
        {
            QXLOG_ERROR(function, L"FileAccessCheck - no WRITE access to file.\n");
            result = ERROR_ACCESS_DENIED;
        }
        else
        {
            result = SetOwner(filePath, &file, userToken);
        }
    }
    auditRequired = result == ERROR_SUCCESS ? 1 : 0;
    QXLOG_INFO(function, L"Function complete [{}].\n", result);
    return result;
}

DWORD CChangeFileOwner::GetSecurityDescriptorFromFile()
{
    OpenFile file;
    return ReadSecurityDescriptor(filePath, false, file, securityDescriptor);
}

DWORD CChangeFileOwner::CheckUserHasWriteAccess(bool& granted)
{
    const char* const function = "QXCommon::CChangeFileOwner::CheckUserHasWriteAccess";
    granted = false;

    // The identity to check: the thread's token, opened as the thread and
    // then as the process, else the process's own token.
    ATL::CAccessToken token;
    if (token.GetThreadToken(CheckTokenAccess, nullptr, false))
    {
        QXLOG_INFO(function, L"Thread Token Valid.\n");
    }
    else
    {
        const DWORD threadError = ::GetLastError();
        QXLOG_INFO(function, L"GetThreadToken Failed [{}].\n", threadError);
        QXLOG_INFO(function, L"Attempted Method 2 to get thread token.\n");
        if (token.GetThreadToken(CheckTokenAccess, nullptr, true))
        {
            QXLOG_INFO(function, L"Method 2 succeeded in getting thread token.\n");
        }
        else
        {
            const DWORD selfError = ::GetLastError();
            QXLOG_INFO(function, L"Method 2 failed to get thread token [{}].\n", selfError);
            QXLOG_INFO(function, L"Try Method 3 from process token.\n");
            if (!token.GetProcessToken(CheckTokenAccess))
            {
                const DWORD processError = LastErrorOr();
                QXLOG_ERROR(function, L"Method 3 failed to get process token [{}].\n", processError);
                return processError;
            }
            QXLOG_INFO(function, L"Method 3 succeeded in getting process token.\n");
        }
    }

    // The user is read for the log only.
    if (::GetDbgManager()->GetLogEnabled())
    {
        ATL::CSid user;
        if (token.GetUser(&user))
        {
            QXLOG_INFO(function, L"User [{}].\n", user.Sid());
        }
        else
        {
            const DWORD error = ::GetLastError();
            QXLOG_ERROR(function, L"Get User Failed [{}].\n", error);
        }
    }

    ATL::CAccessToken impersonation;
    if (!token.CreateImpersonationToken(&impersonation, SecurityImpersonation))
    {
        const DWORD error = LastErrorOr();
        QXLOG_ERROR(function, L"Duplication Token Failed: Error - [{}].\n", error);
        return error;
    }
    QXLOG_INFO(function, L"DuplicateHandle succeeded. Can now check file access\n");
    const DWORD result = FileAccessCheck(impersonation.GetHandle(), granted, WRITE_OWNER);
    QXLOG_INFO(function, L"User has access: [{}] error [{}].\n", granted ? 1 : 0, result);
    return result;
}

DWORD CChangeFileOwner::FileAccessCheck(HANDLE token, bool& granted, DWORD desiredAccess)
{
    const char* const function = "QXCommon::CChangeFileOwner::FileAccessCheck";
    granted = false;
    if (!securityDescriptor)
    {
        // The file did not exist when it was read: nothing can grant access.
        QXLOG_ERROR(function, L"AccessCheck() failed : error [{}].\n", static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
        return ERROR_FILE_NOT_FOUND;
    }
    GENERIC_MAPPING mapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS};
    DWORD access = desiredAccess;
    ::MapGenericMask(&access, &mapping);

    // Room for the privileges the check may use (take-ownership, restore...).
    union
    {
        PRIVILEGE_SET set;
        BYTE bytes[sizeof(PRIVILEGE_SET) + 8 * sizeof(LUID_AND_ATTRIBUTES)];
    } privileges = {};
    DWORD privilegesLength = sizeof(privileges);
    DWORD grantedAccess = 0;
    BOOL status = FALSE;
    if (!::AccessCheck(securityDescriptor.get(), token, access, &mapping, &privileges.set, &privilegesLength,
                       &grantedAccess, &status))
    {
        const DWORD error = LastErrorOr();
        QXLOG_ERROR(function, L"AccessCheck() failed : error [{}].\n", error);
        return error;
    }
    granted = status != FALSE;
    QXLOG_INFO(function, L"Access is {}\n", granted ? L"Granted" : L"Denied");
    return ERROR_SUCCESS;
}

DWORD CChangeFileOwner::SetOwnershipOnFile(const ATL::CAccessToken& userToken)
{
    return SetOwnershipOnFileDirect(filePath, userToken);
}

DWORD CChangeFileOwner::SetOwnershipOnFileDirect(const std::wstring& path, const ATL::CAccessToken& userToken)
{
    return SetOwner(path, nullptr, userToken);
}
} // namespace QXCommon
