#include "QXCommon/LsaUtil.h"

#include "QXLog.h"
#include "SynchronousMultiRead.h"
#include "TokenDetail.h"

#include <atlbase.h>

#include <cstring>
#include <map>
#include <new>
#include <string>

namespace LsaUtil
{
namespace
{
using QXCommon::Detail::FailWith;
using QXCommon::Detail::ProcessHeapPtr;

// Privilege values by name as the caller spelled it. The system knows a few
// dozen privileges, so the map stays small; the bound only guards against a
// caller that asks for endless spellings.
class PrivilegeValueCache
{
public:
    bool Find(const wchar_t* name, LUID& luid)
    {
        CSynchronousMultiRead::CReadLock lock(m_lock);
        auto found = m_values.find(name);
        if (found == m_values.end())
            return false;
        luid = found->second;
        return true;
    }

    void Add(const wchar_t* name, const LUID& luid)
    {
        CSynchronousMultiRead::CWriteLock lock(m_lock);
        if (m_values.size() < MaxEntries)
            m_values.emplace(name, luid);
    }

private:
    static constexpr size_t MaxEntries = 256;
    CSynchronousMultiRead m_lock;
    std::map<std::wstring, LUID> m_values;
};

PrivilegeValueCache& Cache()
{
    static PrivilegeValueCache cache;
    return cache;
}

// This one lookup logs through the structured logger itself.
void LogPrivilegeNotFound(const wchar_t* name, DWORD error)
{
    if (!Zarn::Detail::ShouldLog(Zarn::Severity::Error))
        return;
    Zarn::Detail::Log(Zarn::Severity::Error, __FILE__, __LINE__, "LsaUtil::LookupPrivilegeValueCache",
                      QXCommon::Detail::FormatLogText(L"Failed to find privilege [{}] in system. Error code [{}]\n",
                                                      name, error));
}
} // namespace

BOOL LookupPrivilegeValueCache(const wchar_t* privilegeName, LUID& luid)
{
    if (privilegeName == nullptr)
    {
        LogPrivilegeNotFound(privilegeName, ERROR_INVALID_PARAMETER);
        return FailWith(ERROR_INVALID_PARAMETER);
    }
    if (Cache().Find(privilegeName, luid))
        return TRUE;
    LUID value = {};
    if (!::LookupPrivilegeValueW(nullptr, privilegeName, &value))
    {
        const DWORD error = ::GetLastError();
        LogPrivilegeNotFound(privilegeName, error);
        return FailWith(error);
    }
    Cache().Add(privilegeName, value);
    luid = value;
    return TRUE;
}

BOOL EnablePrivilege(DWORD processId, const wchar_t* privilegeName, BOOL enable)
{
    const char* const function = "LsaUtil::EnablePrivilege";
    TOKEN_PRIVILEGES privileges = {};
    privileges.PrivilegeCount = 1;
    privileges.Privileges[0].Attributes = enable ? SE_PRIVILEGE_ENABLED : 0;
    if (!LookupPrivilegeValueCache(privilegeName, privileges.Privileges[0].Luid))
        return FALSE;

    ATL::CHandle process(::OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, processId));
    if (process == nullptr)
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Failed to OpenProcess({}) to adjust privilege [{}]. Error [{}]\n", processId,
                    privilegeName, error);
        return FailWith(error);
    }
    HANDLE tokenHandle = nullptr;
    if (!::OpenProcessToken(process, TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, &tokenHandle))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Failed to OpenProcessToken of process ({}) to adjust privilege [{}]. Error [{}]\n",
                    processId, privilegeName, error);
        return FailWith(error);
    }
    ATL::CHandle token(tokenHandle);

    // AdjustTokenPrivileges succeeds for a privilege the token lacks; only the
    // last error tells.
    ::SetLastError(ERROR_SUCCESS);
    const BOOL adjusted = ::AdjustTokenPrivileges(token, FALSE, &privileges, 0, nullptr, nullptr);
    const DWORD error = ::GetLastError();
    if (!adjusted || error == ERROR_NOT_ALL_ASSIGNED)
    {
        QXLOG_ERROR(function, L"Failed to AdjustTokenPrivileges [{}] of process ({}) to [{}]. Error [{}]\n",
                    privilegeName, processId, enable ? 1 : 0, error);
        return FailWith(error);
    }
    return TRUE;
}

BOOL InitializeLsaString(PLSA_STRING target, const char* text)
{
    if (target == nullptr)
        return FailWith(ERROR_INVALID_PARAMETER);
    const size_t length = text != nullptr ? std::strlen(text) : 0;
    if (length >= 0xFFFF)
        return FailWith(ERROR_INVALID_PARAMETER);
    target->Buffer = const_cast<PCHAR>(text);
    target->Length = static_cast<USHORT>(length);
    target->MaximumLength = static_cast<USHORT>(text != nullptr ? length + 1 : 0);
    return TRUE;
}

BYTE* GetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS infoClass, DWORD* length)
{
    DWORD size = 0;
    if (::GetTokenInformation(token, infoClass, nullptr, 0, &size))
    {
        // Nothing to hold; report it as a bad class for this token.
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    if (::GetLastError() != ERROR_INSUFFICIENT_BUFFER)
        return nullptr;
    BYTE* buffer = new (std::nothrow) BYTE[size];
    if (buffer == nullptr)
    {
        ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    if (!::GetTokenInformation(token, infoClass, buffer, size, &size))
    {
        const DWORD error = ::GetLastError();
        delete[] buffer;
        ::SetLastError(error);
        return nullptr;
    }
    if (length != nullptr)
        *length = size;
    return buffer;
}

PSID GetUserAccountSid(const wchar_t* accountName)
{
    const char* const function = "LsaUtil::GetUserAccountSid";
    if (accountName == nullptr)
    {
        QXLOG_ERROR(function, L"Failed to LookupAccountName [{}]. Error [{}]\n", accountName,
                    static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        FailWith(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    DWORD sidSize = 0;
    DWORD domainSize = 0;
    SID_NAME_USE use = SidTypeUnknown;
    if (::LookupAccountNameW(nullptr, accountName, nullptr, &sidSize, nullptr, &domainSize, &use) ||
        ::GetLastError() != ERROR_INSUFFICIENT_BUFFER)
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Failed to LookupAccountName [{}]. Error [{}]\n", accountName, error);
        FailWith(error);
        return nullptr;
    }
    HANDLE heap = ::GetProcessHeap();
    ProcessHeapPtr<void> sid(::HeapAlloc(heap, HEAP_ZERO_MEMORY, sidSize));
    ProcessHeapPtr<wchar_t> domain(
        static_cast<wchar_t*>(::HeapAlloc(heap, HEAP_ZERO_MEMORY, (static_cast<size_t>(domainSize) + 1) * sizeof(wchar_t))));
    if (!sid || !domain)
    {
        QXLOG_ERROR(function, L"Failed to allocate the SID of [{}]. Error [{}]\n", accountName,
                    static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
        FailWith(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    if (!::LookupAccountNameW(nullptr, accountName, sid.get(), &sidSize, domain.get(), &domainSize, &use))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Failed to LookupAccountName [{}]. Error [{}]\n", accountName, error);
        FailWith(error);
        return nullptr;
    }
    return sid.release();
}

TOKEN_GROUPS* GetAdminGroup()
{
    SID_IDENTIFIER_AUTHORITY ntAuthority = SECURITY_NT_AUTHORITY;
    PSID allocated = nullptr;
    if (!::AllocateAndInitializeSid(&ntAuthority, 2, SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS, 0, 0, 0,
                                    0, 0, 0, &allocated))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR("LsaUtil::GetAdminGroup", L"Failed to AllocateAndInitializeSid. Error [{}]\n", error);
        FailWith(error);
        return nullptr;
    }
    struct SidOwner
    {
        PSID sid;
        ~SidOwner() { ::FreeSid(sid); }
    } owner{allocated};

    // One block: the group list, then the SID it points to.
    const DWORD sidLength = ::GetLengthSid(allocated);
    const size_t sidOffset = (sizeof(TOKEN_GROUPS) + alignof(ULONG_PTR) - 1) & ~(alignof(ULONG_PTR) - 1);
    BYTE* block = static_cast<BYTE*>(::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, sidOffset + sidLength));
    if (block == nullptr)
        ATL::AtlThrow(E_OUTOFMEMORY);
    TOKEN_GROUPS* groups = reinterpret_cast<TOKEN_GROUPS*>(block);
    PSID sid = block + sidOffset;
    ::CopySid(sidLength, sid, allocated);
    groups->GroupCount = 1;
    groups->Groups[0].Sid = sid;
    groups->Groups[0].Attributes = SE_GROUP_MANDATORY | SE_GROUP_ENABLED_BY_DEFAULT | SE_GROUP_ENABLED;
    return groups;
}
} // namespace LsaUtil
