#pragma once
// The part of ATL's atlsecurity.h that QXCommon's interface uses (CSid,
// ATL::Sids, CAccessToken), for toolchains that ship no ATL. Names,
// signatures and semantics follow ATL: failed system calls give false (the
// reason stays in GetLastError), running out of memory throws CAtlException
// through AtlThrow.

#include "atlbase.h"

#include <cstdarg>
#include <cstring>
#include <cwchar>
#include <memory>
#include <cstddef>
#include <new>
#include <string>
#include <vector>

namespace ATL
{
namespace Detail
{
// Heap block for variable-sized security data; out of memory throws like ATL.
inline std::unique_ptr<BYTE[]> AllocateOrThrow(size_t bytes)
{
    std::unique_ptr<BYTE[]> block(new (std::nothrow) BYTE[bytes != 0 ? bytes : 1]);
    if (!block)
        AtlThrow(E_OUTOFMEMORY);
    return block;
}

inline void AssignOrThrow(std::wstring& target, const wchar_t* text, size_t length)
{
    try
    {
        target.assign(text, length);
    }
    catch (const std::bad_alloc&)
    {
        AtlThrow(E_OUTOFMEMORY);
    }
}

inline void AssignOrThrow(std::wstring& target, const wchar_t* text)
{
    AssignOrThrow(target, text != nullptr ? text : L"", text != nullptr ? std::wcslen(text) : 0);
}

inline SID_IDENTIFIER_AUTHORITY SidAuthority(BYTE value) noexcept
{
    SID_IDENTIFIER_AUTHORITY authority = {{0, 0, 0, 0, 0, value}};
    return authority;
}
} // namespace Detail

// A security identifier held by value (at most SECURITY_MAX_SID_SIZE bytes).
// A default-constructed CSid holds no SID: IsValid() is false.
class CSid
{
public:
    CSid() noexcept { Reset(); }

    explicit CSid(const SID& rhs) noexcept
    {
        Reset();
        Copy(&rhs);
    }

    // Looks the account up; throws CAtlException when it cannot be found.
    explicit CSid(LPCWSTR pszAccountName, LPCWSTR pszSystem = nullptr)
    {
        Reset();
        if (!LoadAccount(pszAccountName, pszSystem))
            AtlThrowLastWin32();
    }

    // Copies the SID; throws CAtlException when it is null or not valid.
    explicit CSid(const SID* pSid, LPCWSTR pszSystem = nullptr)
    {
        Reset();
        if (!LoadAccount(pSid, pszSystem))
            AtlThrow(E_INVALIDARG);
    }

    // Builds a SID from its authority and sub-authorities (at most 15),
    // given as DWORDs.
    CSid(const SID_IDENTIFIER_AUTHORITY& identifierAuthority, BYTE nSubAuthorityCount, ...)
    {
        Reset();
        if (nSubAuthorityCount > SID_MAX_SUB_AUTHORITIES)
            AtlThrow(E_INVALIDARG);
        SID_IDENTIFIER_AUTHORITY authority = identifierAuthority;
        if (!::InitializeSid(Psid(), &authority, nSubAuthorityCount))
            AtlThrowLastWin32();
        va_list list;
        va_start(list, nSubAuthorityCount);
        for (BYTE i = 0; i < nSubAuthorityCount; ++i)
            *::GetSidSubAuthority(Psid(), i) = va_arg(list, DWORD);
        va_end(list);
        m_valid = true;
    }

    CSid(const CSid& rhs) : CSid()
    {
        if (rhs.m_valid)
            Copy(rhs.GetPSID());
        m_sidNameUse = rhs.m_sidNameUse;
        m_system = rhs.m_system;
    }

    CSid& operator=(const CSid& rhs)
    {
        if (this != &rhs)
        {
            Reset();
            if (rhs.m_valid)
                Copy(rhs.GetPSID());
            m_sidNameUse = rhs.m_sidNameUse;
            m_system = rhs.m_system;
        }
        return *this;
    }

    CSid& operator=(const SID& rhs) noexcept
    {
        if (reinterpret_cast<const BYTE*>(&rhs) != m_sid)
        {
            Reset();
            Copy(&rhs);
        }
        return *this;
    }

    // Looks up the SID of an account ("name" or "DOMAIN\name") on the given
    // system (nullptr: the local one).
    bool LoadAccount(LPCWSTR pszAccountName, LPCWSTR pszSystem = nullptr)
    {
        if (pszAccountName == nullptr)
        {
            ::SetLastError(ERROR_INVALID_PARAMETER);
            return false;
        }
        BYTE sid[SECURITY_MAX_SID_SIZE];
        DWORD sidSize = sizeof(sid);
        DWORD domainSize = 0;
        SID_NAME_USE use = SidTypeUnknown;
        // The first call asks for the domain's length.
        if (!::LookupAccountNameW(pszSystem, pszAccountName, sid, &sidSize, nullptr, &domainSize, &use))
        {
            if (::GetLastError() != ERROR_INSUFFICIENT_BUFFER)
                return false;
            auto domain = Detail::AllocateOrThrow(static_cast<size_t>(domainSize + 1) * sizeof(WCHAR));
            sidSize = sizeof(sid);
            if (!::LookupAccountNameW(pszSystem, pszAccountName, sid, &sidSize,
                                      reinterpret_cast<LPWSTR>(domain.get()), &domainSize, &use))
                return false;
        }
        Reset();
        if (!Copy(reinterpret_cast<const SID*>(sid)))
            return false;
        m_sidNameUse = use;
        Detail::AssignOrThrow(m_system, pszSystem);
        return true;
    }

    // Takes a copy of the SID; its account is looked up on the given system
    // when AccountName(), Domain() or SidNameUse() is first asked.
    bool LoadAccount(const SID* pSid, LPCWSTR pszSystem = nullptr)
    {
        Reset();
        if (!Copy(pSid))
            return false;
        Detail::AssignOrThrow(m_system, pszSystem);
        return true;
    }

    // The account's name and domain, looked up on first use; "" when the SID
    // names no account.
    LPCWSTR AccountName() const
    {
        if (m_accountName.empty())
            LookupAccount();
        return m_accountName.c_str();
    }

    LPCWSTR Domain() const
    {
        if (m_domain.empty())
            LookupAccount();
        return m_domain.c_str();
    }

    SID_NAME_USE SidNameUse() const
    {
        if (m_sidNameUse == SidTypeInvalid)
            LookupAccount();
        return m_sidNameUse;
    }

    // The text form "S-1-5-21-...", as ConvertSidToStringSid writes it; ""
    // for an empty CSid.
    LPCWSTR Sid() const
    {
        if (m_sidString.empty() && m_valid)
        {
            const SID_IDENTIFIER_AUTHORITY* authority = GetPSID_IDENTIFIER_AUTHORITY();
            WCHAR text[16 + 24 + SID_MAX_SUB_AUTHORITIES * 11 + 1];
            int length = 0;
            if (authority->Value[0] == 0 && authority->Value[1] == 0)
            {
                const unsigned long value = (static_cast<unsigned long>(authority->Value[2]) << 24) |
                                            (static_cast<unsigned long>(authority->Value[3]) << 16) |
                                            (static_cast<unsigned long>(authority->Value[4]) << 8) |
                                            static_cast<unsigned long>(authority->Value[5]);
                length = std::swprintf(text, 40, L"S-%u-%lu", static_cast<unsigned>(Psid()->Revision), value);
            }
            else
            {
                length = std::swprintf(text, 40, L"S-%u-0x%02X%02X%02X%02X%02X%02X",
                                       static_cast<unsigned>(Psid()->Revision), authority->Value[0],
                                       authority->Value[1], authority->Value[2], authority->Value[3],
                                       authority->Value[4], authority->Value[5]);
            }
            for (UCHAR i = 0; length > 0 && i < GetSubAuthorityCount(); ++i)
            {
                int added = std::swprintf(text + length, sizeof(text) / sizeof(text[0]) - length, L"-%lu",
                                          static_cast<unsigned long>(GetSubAuthority(i)));
                length = added > 0 ? length + added : -1;
            }
            if (length > 0)
                Detail::AssignOrThrow(m_sidString, text, static_cast<size_t>(length));
        }
        return m_sidString.c_str();
    }

    const SID* GetPSID() const noexcept { return m_valid ? reinterpret_cast<const SID*>(m_sid) : nullptr; }
    operator const SID*() const noexcept { return GetPSID(); }

    // The SID's length in bytes (0 for an empty CSid).
    UINT GetLength() const noexcept { return m_valid ? ::GetLengthSid(const_cast<SID*>(GetPSID())) : 0; }
    bool IsValid() const noexcept { return m_valid && ::IsValidSid(const_cast<SID*>(GetPSID())) != FALSE; }

    const SID_IDENTIFIER_AUTHORITY* GetPSID_IDENTIFIER_AUTHORITY() const noexcept
    {
        return m_valid ? ::GetSidIdentifierAuthority(const_cast<SID*>(GetPSID())) : nullptr;
    }
    UCHAR GetSubAuthorityCount() const noexcept
    {
        return m_valid ? *::GetSidSubAuthorityCount(const_cast<SID*>(GetPSID())) : 0;
    }
    DWORD GetSubAuthority(DWORD nSubAuthority) const noexcept
    {
        if (!m_valid || nSubAuthority >= GetSubAuthorityCount())
            return 0;
        return *::GetSidSubAuthority(const_cast<SID*>(GetPSID()), nSubAuthority);
    }

    // True when both SIDs agree in everything but their last sub-authority.
    bool EqualPrefix(const CSid& rhs) const noexcept
    {
        return m_valid && rhs.m_valid &&
               ::EqualPrefixSid(const_cast<SID*>(GetPSID()), const_cast<SID*>(rhs.GetPSID())) != FALSE;
    }

    friend bool operator==(const CSid& lhs, const CSid& rhs) noexcept
    {
        if (!lhs.m_valid || !rhs.m_valid)
            return lhs.m_valid == rhs.m_valid;
        return ::EqualSid(const_cast<SID*>(lhs.GetPSID()), const_cast<SID*>(rhs.GetPSID())) != FALSE;
    }
    friend bool operator!=(const CSid& lhs, const CSid& rhs) noexcept { return !(lhs == rhs); }
    // An order for sorted containers: by length, then by bytes.
    friend bool operator<(const CSid& lhs, const CSid& rhs) noexcept
    {
        const UINT left = lhs.GetLength();
        const UINT right = rhs.GetLength();
        if (left != right)
            return left < right;
        return left != 0 && std::memcmp(lhs.m_sid, rhs.m_sid, left) < 0;
    }

private:
    SID* Psid() noexcept { return reinterpret_cast<SID*>(m_sid); }
    const SID* Psid() const noexcept { return reinterpret_cast<const SID*>(m_sid); }

    void Reset() noexcept
    {
        std::memset(m_sid, 0, sizeof(m_sid));
        m_valid = false;
        m_sidNameUse = SidTypeInvalid;
        m_accountName.clear();
        m_domain.clear();
        m_sidString.clear();
        m_system.clear();
    }

    bool Copy(const SID* pSid) noexcept
    {
        SID* source = const_cast<SID*>(pSid);
        if (pSid == nullptr || !::IsValidSid(source))
        {
            ::SetLastError(ERROR_INVALID_SID);
            return false;
        }
        const DWORD length = ::GetLengthSid(source);
        if (length > sizeof(m_sid) || !::CopySid(sizeof(m_sid), m_sid, source))
            return false;
        m_valid = true;
        return true;
    }

    bool LookupAccount() const
    {
        if (!m_valid)
            return false;
        DWORD nameSize = 0;
        DWORD domainSize = 0;
        SID_NAME_USE use = SidTypeUnknown;
        SID* sid = const_cast<SID*>(GetPSID());
        LPCWSTR system = m_system.empty() ? nullptr : m_system.c_str();
        if (::LookupAccountSidW(system, sid, nullptr, &nameSize, nullptr, &domainSize, &use) ||
            ::GetLastError() != ERROR_INSUFFICIENT_BUFFER)
            return false;
        auto name = Detail::AllocateOrThrow(static_cast<size_t>(nameSize + 1) * sizeof(WCHAR));
        auto domain = Detail::AllocateOrThrow(static_cast<size_t>(domainSize + 1) * sizeof(WCHAR));
        LPWSTR nameText = reinterpret_cast<LPWSTR>(name.get());
        LPWSTR domainText = reinterpret_cast<LPWSTR>(domain.get());
        if (!::LookupAccountSidW(system, sid, nameText, &nameSize, domainText, &domainSize, &use))
            return false;
        Detail::AssignOrThrow(m_accountName, nameText, nameSize);
        Detail::AssignOrThrow(m_domain, domainText, domainSize);
        m_sidNameUse = use;
        return true;
    }

    alignas(DWORD) BYTE m_sid[SECURITY_MAX_SID_SIZE];
    bool m_valid;
    mutable SID_NAME_USE m_sidNameUse;
    mutable std::wstring m_accountName;
    mutable std::wstring m_domain;
    mutable std::wstring m_sidString;
    std::wstring m_system;
};

// Well-known SIDs.
namespace Sids
{
inline CSid World() { return CSid(ATL::Detail::SidAuthority(1), 1, DWORD(SECURITY_WORLD_RID)); }                   // S-1-1-0
inline CSid CreatorOwner() { return CSid(ATL::Detail::SidAuthority(3), 1, DWORD(SECURITY_CREATOR_OWNER_RID)); }     // S-1-3-0
inline CSid CreatorGroup() { return CSid(ATL::Detail::SidAuthority(3), 1, DWORD(SECURITY_CREATOR_GROUP_RID)); }     // S-1-3-1
inline CSid Dialup() { return CSid(ATL::Detail::SidAuthority(5), 1, DWORD(SECURITY_DIALUP_RID)); }                  // S-1-5-1
inline CSid Network() { return CSid(ATL::Detail::SidAuthority(5), 1, DWORD(SECURITY_NETWORK_RID)); }                // S-1-5-2
inline CSid Batch() { return CSid(ATL::Detail::SidAuthority(5), 1, DWORD(SECURITY_BATCH_RID)); }                    // S-1-5-3
inline CSid Interactive() { return CSid(ATL::Detail::SidAuthority(5), 1, DWORD(SECURITY_INTERACTIVE_RID)); }        // S-1-5-4
inline CSid Service() { return CSid(ATL::Detail::SidAuthority(5), 1, DWORD(SECURITY_SERVICE_RID)); }                // S-1-5-6
inline CSid Anonymous() { return CSid(ATL::Detail::SidAuthority(5), 1, DWORD(SECURITY_ANONYMOUS_LOGON_RID)); }      // S-1-5-7
inline CSid Self() { return CSid(ATL::Detail::SidAuthority(5), 1, DWORD(SECURITY_PRINCIPAL_SELF_RID)); }            // S-1-5-10
inline CSid AuthenticatedUser() { return CSid(ATL::Detail::SidAuthority(5), 1, DWORD(SECURITY_AUTHENTICATED_USER_RID)); } // S-1-5-11
inline CSid RestrictedCode() { return CSid(ATL::Detail::SidAuthority(5), 1, DWORD(SECURITY_RESTRICTED_CODE_RID)); }  // S-1-5-12
inline CSid TerminalServer() { return CSid(ATL::Detail::SidAuthority(5), 1, DWORD(SECURITY_TERMINAL_SERVER_RID)); }  // S-1-5-13
inline CSid System() { return CSid(ATL::Detail::SidAuthority(5), 1, DWORD(SECURITY_LOCAL_SYSTEM_RID)); }            // S-1-5-18
inline CSid LocalService() { return CSid(ATL::Detail::SidAuthority(5), 1, DWORD(SECURITY_LOCAL_SERVICE_RID)); }     // S-1-5-19
inline CSid NetworkService() { return CSid(ATL::Detail::SidAuthority(5), 1, DWORD(SECURITY_NETWORK_SERVICE_RID)); } // S-1-5-20
inline CSid Admins()
{
    return CSid(ATL::Detail::SidAuthority(5), 2, DWORD(SECURITY_BUILTIN_DOMAIN_RID), DWORD(DOMAIN_ALIAS_RID_ADMINS));
} // S-1-5-32-544
inline CSid Users()
{
    return CSid(ATL::Detail::SidAuthority(5), 2, DWORD(SECURITY_BUILTIN_DOMAIN_RID), DWORD(DOMAIN_ALIAS_RID_USERS));
} // S-1-5-32-545
inline CSid Guests()
{
    return CSid(ATL::Detail::SidAuthority(5), 2, DWORD(SECURITY_BUILTIN_DOMAIN_RID), DWORD(DOMAIN_ALIAS_RID_GUESTS));
} // S-1-5-32-546
inline CSid PowerUsers()
{
    return CSid(ATL::Detail::SidAuthority(5), 2, DWORD(SECURITY_BUILTIN_DOMAIN_RID), DWORD(DOMAIN_ALIAS_RID_POWER_USERS));
} // S-1-5-32-547
} // namespace Sids

// A set of privileges with their attributes, as AdjustTokenPrivileges takes
// and returns them: the new state to apply, or the previous state to put
// back. Only the part of ATL's class that saving and restoring needs.
class CTokenPrivileges
{
public:
    CTokenPrivileges() = default;
    virtual ~CTokenPrivileges() = default;
    CTokenPrivileges(const CTokenPrivileges&) = default;
    CTokenPrivileges& operator=(const CTokenPrivileges&) = default;
    CTokenPrivileges(const TOKEN_PRIVILEGES& rPrivileges) { Add(rPrivileges); }

    // Adds each privilege of the set; one already present takes the new
    // attributes.
    void Add(const TOKEN_PRIVILEGES& rPrivileges)
    {
        for (DWORD i = 0; i < rPrivileges.PrivilegeCount; ++i)
            Set(rPrivileges.Privileges[i].Luid, rPrivileges.Privileges[i].Attributes);
    }
    // Adds the named privilege as enabled or disabled; false when the name is
    // unknown.
    bool Add(LPCWSTR pszPrivilege, bool bEnable)
    {
        LUID luid = {};
        if (pszPrivilege == nullptr || !::LookupPrivilegeValueW(nullptr, pszPrivilege, &luid))
            return false;
        Set(luid, bEnable ? SE_PRIVILEGE_ENABLED : 0);
        return true;
    }
    void DeleteAll() noexcept { m_privileges.clear(); }

    UINT GetCount() const noexcept { return static_cast<UINT>(m_privileges.size()); }
    // The size in bytes of the TOKEN_PRIVILEGES that GetPTOKEN_PRIVILEGES gives.
    UINT GetLength() const noexcept
    {
        const size_t count = m_privileges.empty() ? 1 : m_privileges.size();
        return static_cast<UINT>(offsetof(TOKEN_PRIVILEGES, Privileges) + count * sizeof(LUID_AND_ATTRIBUTES));
    }
    // Valid until the set is next changed.
    const TOKEN_PRIVILEGES* GetPTOKEN_PRIVILEGES() const
    {
        m_buffer.assign(GetLength(), 0);
        auto* privileges = reinterpret_cast<TOKEN_PRIVILEGES*>(m_buffer.data());
        privileges->PrivilegeCount = GetCount();
        for (size_t i = 0; i < m_privileges.size(); ++i)
            privileges->Privileges[i] = m_privileges[i];
        return privileges;
    }
    operator const TOKEN_PRIVILEGES*() const { return GetPTOKEN_PRIVILEGES(); }

private:
    void Set(const LUID& luid, DWORD attributes)
    {
        for (auto& privilege : m_privileges)
        {
            if (privilege.Luid.LowPart == luid.LowPart && privilege.Luid.HighPart == luid.HighPart)
            {
                privilege.Attributes = attributes;
                return;
            }
        }
        m_privileges.push_back({luid, attributes});
    }

    std::vector<LUID_AND_ATTRIBUTES> m_privileges;
    mutable std::vector<DWORD> m_buffer; // DWORD-aligned TOKEN_PRIVILEGES
};

// Owns an access token handle and closes it on destruction. Not copyable.
class CAccessToken
{
public:
    CAccessToken() noexcept = default;
    virtual ~CAccessToken() noexcept = default;
    CAccessToken(const CAccessToken&) = delete;
    CAccessToken& operator=(const CAccessToken&) = delete;

    // Takes ownership of hToken; a token held before is closed.
    void Attach(HANDLE hToken) noexcept
    {
        if (m_hToken != hToken)
            m_hToken.Close();
        m_hToken.Attach(hToken);
    }
    HANDLE Detach() noexcept { return m_hToken.Detach(); }
    HANDLE GetHandle() const noexcept { return m_hToken; }
    void Clear() noexcept { m_hToken.Close(); }

    // Opens the token of a process (nullptr: the current one).
    bool GetProcessToken(DWORD dwDesiredAccess, HANDLE hProcess = nullptr) noexcept
    {
        HANDLE hToken = nullptr;
        if (!::OpenProcessToken(hProcess != nullptr ? hProcess : ::GetCurrentProcess(), dwDesiredAccess, &hToken))
            return false;
        Attach(hToken);
        return true;
    }

    // Opens the impersonation token of a thread (nullptr: the current one);
    // false with ERROR_NO_TOKEN when the thread is not impersonating.
    bool GetThreadToken(DWORD dwDesiredAccess, HANDLE hThread = nullptr, bool bOpenAsSelf = true) noexcept
    {
        HANDLE hToken = nullptr;
        if (!::OpenThreadToken(hThread != nullptr ? hThread : ::GetCurrentThread(), dwDesiredAccess,
                               bOpenAsSelf ? TRUE : FALSE, &hToken))
            return false;
        Attach(hToken);
        return true;
    }

    // The thread's token when it impersonates, the process token otherwise.
    bool GetEffectiveToken(DWORD dwDesiredAccess) noexcept
    {
        if (GetThreadToken(dwDesiredAccess))
            return true;
        if (::GetLastError() != ERROR_NO_TOKEN)
            return false;
        return GetProcessToken(dwDesiredAccess);
    }

    bool GetUser(CSid* pSid) const { return GetSidInfo(TokenUser, pSid, &TOKEN_USER::User); }
    bool GetOwner(CSid* pSid) const { return GetSidInfo(TokenOwner, pSid, &TOKEN_OWNER::Owner); }
    bool GetPrimaryGroup(CSid* pSid) const
    {
        return GetSidInfo(TokenPrimaryGroup, pSid, &TOKEN_PRIMARY_GROUP::PrimaryGroup);
    }

    bool GetType(TOKEN_TYPE* pType) const noexcept { return GetFixedInfo(TokenType, pType); }
    // Only impersonation tokens have a level.
    bool GetImpersonationLevel(SECURITY_IMPERSONATION_LEVEL* pImpersonationLevel) const noexcept
    {
        return GetFixedInfo(TokenImpersonationLevel, pImpersonationLevel);
    }
    bool GetTerminalServicesSessionId(DWORD* pdwSessionId) const noexcept
    {
        return GetFixedInfo(TokenSessionId, pdwSessionId);
    }
    bool GetTokenId(LUID* pluid) const noexcept { return GetStatistic(pluid, &TOKEN_STATISTICS::TokenId); }
    bool GetLogonSessionId(LUID* pluid) const noexcept
    {
        return GetStatistic(pluid, &TOKEN_STATISTICS::AuthenticationId);
    }

    // The logon SID (S-1-5-5-X-Y) among the token's groups; false with
    // ERROR_NOT_FOUND when the token has none.
    bool GetLogonSid(CSid* pSid) const
    {
        if (pSid == nullptr)
            return InvalidParameter();
        auto info = GetInfo(TokenGroups);
        if (!info)
            return false;
        const TOKEN_GROUPS* groups = reinterpret_cast<const TOKEN_GROUPS*>(info.get());
        for (DWORD i = 0; i < groups->GroupCount; ++i)
        {
            if ((groups->Groups[i].Attributes & SE_GROUP_LOGON_ID) == SE_GROUP_LOGON_ID)
                return AssignSid(pSid, groups->Groups[i].Sid);
        }
        ::SetLastError(ERROR_NOT_FOUND);
        return false;
    }

    // Puts an impersonation copy of the token on the thread (nullptr: the
    // current one); the token needs TOKEN_DUPLICATE.
    bool Impersonate(HANDLE hThread = nullptr) const
    {
        if (m_hToken == nullptr)
            return InvalidParameter();
        CAccessToken impersonation;
        if (!CreateImpersonationToken(&impersonation))
            return false;
        return ::SetThreadToken(hThread != nullptr ? &hThread : nullptr, impersonation.GetHandle()) != FALSE;
    }

    // Impersonates this token on the calling thread through the system's
    // ImpersonateLoggedOnUser: an impersonation token needs TOKEN_QUERY and
    // TOKEN_IMPERSONATE, a primary token TOKEN_QUERY and TOKEN_DUPLICATE.
    // Revert() (or RevertToSelf) ends it.
    bool ImpersonateLoggedOnUser() const noexcept
    {
        if (m_hToken == nullptr)
            return InvalidParameter();
        return ::ImpersonateLoggedOnUser(m_hToken) != FALSE;
    }

    // Takes the impersonation token off the thread (nullptr: the current one).
    bool Revert(HANDLE hThread = nullptr) const noexcept
    {
        return ::SetThreadToken(hThread != nullptr ? &hThread : nullptr, nullptr) != FALSE;
    }

    bool CreatePrimaryToken(CAccessToken* pPrimaryToken, DWORD dwDesiredAccess = MAXIMUM_ALLOWED,
                            const SECURITY_ATTRIBUTES* pTokenAttributes = nullptr) const noexcept
    {
        if (pPrimaryToken == nullptr || m_hToken == nullptr)
            return InvalidParameter();
        HANDLE hToken = nullptr;
        if (!::DuplicateTokenEx(m_hToken, dwDesiredAccess, const_cast<SECURITY_ATTRIBUTES*>(pTokenAttributes),
                                SecurityAnonymous, TokenPrimary, &hToken))
            return false;
        pPrimaryToken->Attach(hToken);
        return true;
    }

    // The copy has TOKEN_IMPERSONATE and TOKEN_QUERY access; the token needs
    // TOKEN_DUPLICATE.
    bool CreateImpersonationToken(CAccessToken* pImpersonationToken,
                                  SECURITY_IMPERSONATION_LEVEL sil = SecurityImpersonation) const noexcept
    {
        if (pImpersonationToken == nullptr || m_hToken == nullptr)
            return InvalidParameter();
        HANDLE hToken = nullptr;
        if (!::DuplicateToken(m_hToken, sil, &hToken))
            return false;
        pImpersonationToken->Attach(hToken);
        return true;
    }

    // As in ATL, the result is true when AdjustTokenPrivileges succeeded;
    // *pbErrNotAllAssigned tells whether the token lacks the privilege
    // (ERROR_NOT_ALL_ASSIGNED). *pPreviousState receives the privileges whose
    // state changed, with their attributes before (none when the privilege
    // was already in the state asked for): EnableDisablePrivileges with it
    // puts them back. The token needs TOKEN_ADJUST_PRIVILEGES, and
    // TOKEN_QUERY for the previous state.
    bool EnablePrivilege(LPCWSTR pszPrivilege, CTokenPrivileges* pPreviousState = nullptr,
                         bool* pbErrNotAllAssigned = nullptr) noexcept
    {
        return AdjustPrivilege(pszPrivilege, SE_PRIVILEGE_ENABLED, pPreviousState, pbErrNotAllAssigned);
    }
    bool DisablePrivilege(LPCWSTR pszPrivilege, CTokenPrivileges* pPreviousState = nullptr,
                          bool* pbErrNotAllAssigned = nullptr) noexcept
    {
        return AdjustPrivilege(pszPrivilege, 0, pPreviousState, pbErrNotAllAssigned);
    }

    // Applies a set of privilege states (the previous state of an earlier
    // call puts that call's changes back); an empty set changes nothing and
    // succeeds. Results as for EnablePrivilege.
    bool EnableDisablePrivileges(const CTokenPrivileges& rPrivileges, CTokenPrivileges* pPreviousState = nullptr,
                                 bool* pbErrNotAllAssigned = nullptr)
    {
        if (rPrivileges.GetCount() == 0)
        {
            if (pbErrNotAllAssigned != nullptr)
                *pbErrNotAllAssigned = false;
            return true;
        }
        if (m_hToken == nullptr)
            return InvalidParameter();
        return Adjust(rPrivileges.GetPTOKEN_PRIVILEGES(), pPreviousState, pbErrNotAllAssigned);
    }

    bool IsTokenRestricted() const noexcept { return ::IsTokenRestricted(m_hToken) != FALSE; }

    // Whether the SID is an enabled group of this token. A primary token is
    // checked on an impersonation copy, so it needs TOKEN_DUPLICATE as well
    // as TOKEN_QUERY.
    bool CheckTokenMembership(const CSid& rSid, bool* pbIsMember) const
    {
        if (pbIsMember == nullptr || !rSid.IsValid() || m_hToken == nullptr)
            return InvalidParameter();
        TOKEN_TYPE type = TokenPrimary;
        if (!GetType(&type))
            return false;
        CAccessToken impersonation;
        HANDLE hToken = m_hToken;
        if (type == TokenPrimary)
        {
            if (!CreateImpersonationToken(&impersonation, SecurityIdentification))
                return false;
            hToken = impersonation.GetHandle();
        }
        BOOL member = FALSE;
        if (!::CheckTokenMembership(hToken, const_cast<SID*>(rSid.GetPSID()), &member))
            return false;
        *pbIsMember = member != FALSE;
        return true;
    }

private:
    static bool AssignSid(CSid* target, PSID sid)
    {
        if (sid == nullptr || !::IsValidSid(sid))
        {
            ::SetLastError(ERROR_INVALID_SID);
            return false;
        }
        *target = *static_cast<const SID*>(sid);
        return target->IsValid();
    }

    static bool InvalidParameter() noexcept
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }

    // Variable-sized token information; empty on failure (reason in GetLastError).
    std::unique_ptr<BYTE[]> GetInfo(TOKEN_INFORMATION_CLASS infoClass) const
    {
        DWORD size = 0;
        if (::GetTokenInformation(m_hToken, infoClass, nullptr, 0, &size) ||
            ::GetLastError() != ERROR_INSUFFICIENT_BUFFER || size == 0)
            return nullptr;
        auto info = Detail::AllocateOrThrow(size);
        if (!::GetTokenInformation(m_hToken, infoClass, info.get(), size, &size))
            return nullptr;
        return info;
    }

    template <typename T>
    bool GetFixedInfo(TOKEN_INFORMATION_CLASS infoClass, T* value) const noexcept
    {
        if (value == nullptr)
            return InvalidParameter();
        DWORD size = 0;
        return ::GetTokenInformation(m_hToken, infoClass, value, sizeof(T), &size) != FALSE;
    }

    bool GetStatistic(LUID* pluid, LUID TOKEN_STATISTICS::*member) const noexcept
    {
        if (pluid == nullptr)
            return InvalidParameter();
        TOKEN_STATISTICS statistics;
        if (!GetFixedInfo(TokenStatistics, &statistics))
            return false;
        *pluid = statistics.*member;
        return true;
    }

    static PSID SidOf(const SID_AND_ATTRIBUTES& value) noexcept { return value.Sid; }
    static PSID SidOf(PSID value) noexcept { return value; }

    // A SID held in variable-sized token information (TOKEN_USER::User,
    // TOKEN_OWNER::Owner, TOKEN_PRIMARY_GROUP::PrimaryGroup).
    template <typename Info, typename Member>
    bool GetSidInfo(TOKEN_INFORMATION_CLASS infoClass, CSid* pSid, Member Info::*member) const
    {
        if (pSid == nullptr)
            return InvalidParameter();
        auto info = GetInfo(infoClass);
        return info && AssignSid(pSid, SidOf(reinterpret_cast<const Info*>(info.get())->*member));
    }

    bool AdjustPrivilege(LPCWSTR pszPrivilege, DWORD attributes, CTokenPrivileges* pPreviousState,
                         bool* pbErrNotAllAssigned) noexcept
    {
        if (pszPrivilege == nullptr || m_hToken == nullptr)
            return InvalidParameter();
        TOKEN_PRIVILEGES privileges = {};
        privileges.PrivilegeCount = 1;
        privileges.Privileges[0].Attributes = attributes;
        if (!::LookupPrivilegeValueW(nullptr, pszPrivilege, &privileges.Privileges[0].Luid))
            return false;
        return Adjust(&privileges, pPreviousState, pbErrNotAllAssigned);
    }

    bool Adjust(const TOKEN_PRIVILEGES* newState, CTokenPrivileges* pPreviousState, bool* pbErrNotAllAssigned) noexcept
    {
        try
        {
            // Room for the previous state of every privilege in the new one.
            const size_t bytes = offsetof(TOKEN_PRIVILEGES, Privileges) +
                                 (newState->PrivilegeCount + 1) * sizeof(LUID_AND_ATTRIBUTES);
            std::vector<DWORD> previous(pPreviousState != nullptr ? bytes / sizeof(DWORD) + 1 : 0);
            auto* previousState = reinterpret_cast<TOKEN_PRIVILEGES*>(previous.data());
            DWORD length = static_cast<DWORD>(previous.size() * sizeof(DWORD));
            if (!::AdjustTokenPrivileges(m_hToken, FALSE, const_cast<TOKEN_PRIVILEGES*>(newState), length,
                                         previousState, previousState != nullptr ? &length : nullptr))
                return false;
            const bool notAllAssigned = ::GetLastError() == ERROR_NOT_ALL_ASSIGNED;
            if (pbErrNotAllAssigned != nullptr)
                *pbErrNotAllAssigned = notAllAssigned;
            if (pPreviousState != nullptr)
                pPreviousState->Add(*previousState);
            return true;
        }
        catch (const std::bad_alloc&)
        {
            ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return false;
        }
    }

    CHandle m_hToken;
};
} // namespace ATL
