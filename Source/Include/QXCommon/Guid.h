#pragma once
// CGuid: a GUID value with its registry text form ("{XXXXXXXX-XXXX-...}").

#include "QXCommonAPI.h"

#include <string>

namespace QXCommon
{
class QXCOMMON_API CGuid
{
public:
    CGuid();                      // the all-zero GUID
    CGuid(const GUID& guid);
    CGuid& operator=(const GUID& guid);
    CGuid& operator=(const CGuid& other);
    CGuid(const CGuid& other) = default;

    bool operator==(const CGuid& other) const; // all 16 bytes
    bool operator!=(const CGuid& other) const { return !(*this == other); }

    operator GUID&() { return m_guid; }
    operator const GUID&() const { return m_guid; }

    // Replaces the value with a new GUID; false (logged) if none can be made.
    bool CreateNew();
    // Braced upper-case form, 38 characters; empty (logged) on failure.
    std::wstring ToString() const;
    // A new GUID in its braced text form (empty on failure).
    static std::wstring CreateNewAsString();
    // Upper-cases the text and adds the braces it lacks; an empty text stays
    // empty. Nothing else is checked.
    static void Canonicalize(std::wstring& text);

private:
    GUID m_guid;
};
} // namespace QXCommon
