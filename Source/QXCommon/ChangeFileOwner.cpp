#include "QXCommon/ChangeFileOwner.h"

#include "QXCommon/ImpersonationSaver.h"

#include "QXLog.h"
#include "TokenDetail.h"

#include <aclapi.h>
#include <sddl.h>

#include <cstring>
#include <mutex>

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
    DWORD result = GetSecurityDescriptorFromFile();
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
            result = SetOwnershipOnFile(userToken);
        }
    }
    auditRequired = result == ERROR_SUCCESS ? 1 : 0;
    QXLOG_INFO(function, L"Function complete [{}].\n", result);
    return result;
}

DWORD CChangeFileOwner::GetSecurityDescriptorFromFile()
{
    const char* const function = "QXCommon::CChangeFileOwner::GetSecurityDescriptorFromFile";
    securityDescriptor.reset();
    if (!IsUsablePath(filePath))
    {
        QXLOG_ERROR(function, L"Invalid file path [{}].\n", Printable(filePath));
        return ERROR_INVALID_NAME;
    }
    QXLOG_INFO(function, L"Calling GetFileSecurity() for {}.\n", filePath);

    DWORD size = FirstReadSize;
    auto buffer = std::make_unique<BYTE[]>(size);
    DWORD needed = 0;
    if (!::GetFileSecurityW(filePath.c_str(), DescriptorParts, buffer.get(), size, &needed))
    {
        const DWORD error = LastErrorOr();
        if (error == ERROR_FILE_NOT_FOUND)
        {
            QXLOG_INFO(function, L"GetFileSecurity() first call - file does not exist (Treat as success!).\n");
            return ERROR_SUCCESS;
        }
        if (error != ERROR_INSUFFICIENT_BUFFER)
        {
            QXLOG_ERROR(function, L"GetFileSecurity() first call - unexpected result [{}].\n", error);
            return error;
        }
        QXLOG_INFO(function, L"GetFileSecurity() first call result [{}] - expected sometimes.\n", error);
        size = needed;
        buffer = std::make_unique<BYTE[]>(size);
        QXLOG_INFO(function, L"Calling GetFileSecurity() with buffer size {}.\n", size);
        if (!::GetFileSecurityW(filePath.c_str(), DescriptorParts, buffer.get(), size, &needed))
        {
            const DWORD secondError = LastErrorOr();
            if (secondError == ERROR_FILE_NOT_FOUND)
            {
                QXLOG_INFO(function, L"GetFileSecurity() second call - file does not exist (Treat as success!).\n");
                return ERROR_SUCCESS;
            }
            QXLOG_ERROR(function, L"GetFileSecurity() second call - unexpected result [{}].\n", secondError);
            return secondError;
        }
    }
    if (!::IsValidSecurityDescriptor(buffer.get()))
    {
        QXLOG_ERROR(function, L"IsValidSecurityDescriptor() detected the Security Descriptor was invalid.\n");
        return ERROR_INVALID_SECURITY_DESCR;
    }
    securityDescriptor = std::move(buffer);
    // The SDDL text is made only when a log output is on.
    QXLOG_INFO(function, L"Security Descriptor is [{}]\n", SddlText(securityDescriptor.get()));
    QXLOG_INFO(function, L"GetFileSecurity() succeeded.\n");
    return ERROR_SUCCESS;
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
    const DWORD result = ::SetNamedSecurityInfoW(const_cast<LPWSTR>(path.c_str()), SE_FILE_OBJECT,
                                                 OWNER_SECURITY_INFORMATION, owner, nullptr, nullptr, nullptr);
    if (result != ERROR_SUCCESS)
        QXLOG_ERROR(function, L"Could not set file owner [result {}] on file [{}].\n", result, path);
    else
        QXLOG_INFO(function, L"Successfully set file owner on file [{}].\n", path);
    restore.Revert(result);
    return result;
}
} // namespace QXCommon
