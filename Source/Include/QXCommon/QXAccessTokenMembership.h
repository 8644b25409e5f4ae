#pragma once
// QXAccessTokenMembership: whether a token carries the local Administrators
// group (S-1-5-32-544) at all, whatever the group's attributes. Unlike the
// system's membership rule (QXCommonFunctions::TokenHasMembership), a
// deny-only or disabled Administrators group counts, and primary tokens can
// be asked directly: the question is "was this token made for an
// administrator", not "may it act as one now".

#include "QXCommonAPI.h"

#include <atlsecurity.h>

#include <string>

namespace QXCommon
{
class QXCOMMON_API QXAccessTokenMembership
{
public:
    QXAccessTokenMembership() = default;
    QXAccessTokenMembership(const QXAccessTokenMembership&) = default;
    QXAccessTokenMembership& operator=(const QXAccessTokenMembership&) = default;
    virtual ~QXAccessTokenMembership() = default;

    // TRUE when one of the token's groups is the Administrators alias. The
    // handle needs TOKEN_QUERY and stays the caller's. A null handle, or a
    // token whose groups cannot be read, gives FALSE (logged).
    BOOL HasAdminSid(HANDLE token) const;

private:
    // TRUE when the text form of one of the token's groups, any attributes,
    // occurs within sid (a group whose text is a leading part of sid, such as
    // S-1-5-3 within S-1-5-32-544, matches too).
    BOOL CheckMembershipWithoutAttributes(ATL::CAccessToken& token, const std::wstring& sid) const;
};
} // namespace QXCommon
