#include "QXCommon/OSVersionHelper.h"

namespace QXCommon
{
bool COSVersionHelper::IsOSVersion(BYTE condition, DWORD major, DWORD minor)
{
    OSVERSIONINFOEXW info = {};
    info.dwOSVersionInfoSize = sizeof(info);
    info.dwMajorVersion = major;
    info.dwMinorVersion = minor;
    DWORDLONG mask = 0;
    mask = ::VerSetConditionMask(mask, VER_MAJORVERSION, condition);
    mask = ::VerSetConditionMask(mask, VER_MINORVERSION, condition);
    return ::VerifyVersionInfoW(&info, VER_MAJORVERSION | VER_MINORVERSION, mask) != FALSE;
}

bool COSVersionHelper::IsProductType(BYTE condition, BYTE productType)
{
    OSVERSIONINFOEXW info = {};
    info.dwOSVersionInfoSize = sizeof(info);
    info.wProductType = productType;
    DWORDLONG mask = ::VerSetConditionMask(0, VER_PRODUCT_TYPE, condition);
    return ::VerifyVersionInfoW(&info, VER_PRODUCT_TYPE, mask) != FALSE;
}

bool COSVersionHelper::IsProductSuite(BYTE condition, WORD suiteMask)
{
    OSVERSIONINFOEXW info = {};
    info.dwOSVersionInfoSize = sizeof(info);
    info.wSuiteMask = suiteMask;
    DWORDLONG mask = ::VerSetConditionMask(0, VER_SUITENAME, condition);
    return ::VerifyVersionInfoW(&info, VER_SUITENAME, mask) != FALSE;
}
} // namespace QXCommon
