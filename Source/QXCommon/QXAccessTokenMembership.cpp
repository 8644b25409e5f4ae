#include "QXCommon/QXAccessTokenMembership.h"

#include "QXLog.h"
#include "TokenDetail.h"

#include <sddl.h>

#include <new>

namespace QXCommon
{
namespace
{
const wchar_t* const AdministratorsSid = L"S-1-5-32-544";

// Lends a caller's handle to a token object for the length of a call; the
// handle goes back to the caller however the call ends.
class BorrowedToken
{
public:
    explicit BorrowedToken(HANDLE handle) noexcept { m_token.Attach(handle); }
    ~BorrowedToken() { m_token.Detach(); }
    BorrowedToken(const BorrowedToken&) = delete;
    BorrowedToken& operator=(const BorrowedToken&) = delete;

    ATL::CAccessToken& Token() noexcept { return m_token; }

private:
    ATL::CAccessToken m_token;
};
} // namespace

BOOL QXAccessTokenMembership::HasAdminSid(HANDLE token) const
{
    if (token == nullptr)
    {
        QXLOG_ERROR("QXCommon::QXAccessTokenMembership::HasAdminSid", L"Error - hToken is NULL.\n");
        return Detail::FailWith(ERROR_INVALID_HANDLE);
    }
    BorrowedToken borrowed(token);
    const BOOL result = CheckMembershipWithoutAttributes(borrowed.Token(), AdministratorsSid);
    QXLOG_INFO("QXCommon::QXAccessTokenMembership::HasAdminSid", L"Local token has Administrators group Sid [{}].\n",
               result ? L"True" : L"False");
    return result;
}

BOOL QXAccessTokenMembership::CheckMembershipWithoutAttributes(ATL::CAccessToken& token, const std::wstring& sid) const
{
    const char* const function = "QXCommon::QXAccessTokenMembership::CheckMembershipWithoutAttributes";
    DWORD size = 0;
    if (::GetTokenInformation(token.GetHandle(), TokenGroups, nullptr, 0, &size) ||
        ::GetLastError() != ERROR_INSUFFICIENT_BUFFER)
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Failed to GetTokenInformation for the token's groups. Error [{}].\n", error);
        return Detail::FailWith(error);
    }
    // TOKEN_GROUPS holds pointers: keep the buffer aligned for them.
    std::unique_ptr<ULONG_PTR[]> buffer(new (std::nothrow) ULONG_PTR[size / sizeof(ULONG_PTR) + 1]);
    if (!buffer)
        ATL::AtlThrow(E_OUTOFMEMORY);
    if (!::GetTokenInformation(token.GetHandle(), TokenGroups, buffer.get(), size, &size))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Failed to GetTokenInformation for the token's groups. Error [{}].\n", error);
        return Detail::FailWith(error);
    }

    const TOKEN_GROUPS* groups = reinterpret_cast<const TOKEN_GROUPS*>(buffer.get());
    for (DWORD i = 0; i < groups->GroupCount; ++i)
    {
        PSID groupSid = groups->Groups[i].Sid;
        if (groupSid == nullptr || !::IsValidSid(groupSid))
            continue;
        LPWSTR text = nullptr;
        if (!::ConvertSidToStringSidW(groupSid, &text))
            continue;
        Detail::LocalPtr<wchar_t> owner(text);
        // Containment of the group's text within the sought text, attributes
        // ignored.
        if (sid.find(text) != std::wstring::npos)
            return TRUE;
    }
    return FALSE;
}
} // namespace QXCommon
