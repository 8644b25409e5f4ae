#pragma once
// CHResult: one HRESULT and its text form.

#include "QXCommonAPI.h"

#include <string>

namespace QXCommon
{
class QXCOMMON_API CHResult
{
public:
    CHResult(HRESULT hr);
    ~CHResult();
    CHResult(const CHResult& other) = default;
    CHResult& operator=(const CHResult& other);

    HRESULT Code() const { return m_hr; }
    operator HRESULT() const { return m_hr; }

    // "0x%08x <message>": the code in lower-case hexadecimal and the system's
    // text for it (trailing line break removed). Codes the system has no text
    // for read "IDispatch error #n" (0x80040201..0x8004FFFF, n = low word -
    // 0x200) or "Unknown error 0x<code>".
    std::wstring ToString() const;

private:
    HRESULT m_hr;
};
} // namespace QXCommon
