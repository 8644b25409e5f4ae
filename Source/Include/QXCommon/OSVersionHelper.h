#pragma once
// COSVersionHelper: VerifyVersionInfoW questions about the running system.
// The condition is one of the VER_* condition bytes (VER_EQUAL = 1, ...).

#include "QXCommonAPI.h"

namespace QXCommon
{
class QXCOMMON_API COSVersionHelper
{
public:
    // Major and minor version, both tested with the same condition.
    static bool IsOSVersion(BYTE condition, DWORD major, DWORD minor);
    // Product type (VER_NT_WORKSTATION = 1, VER_NT_DOMAIN_CONTROLLER = 2, VER_NT_SERVER = 3).
    static bool IsProductType(BYTE condition, BYTE productType);
    // Suite mask (condition VER_AND or VER_OR).
    static bool IsProductSuite(BYTE condition, WORD suiteMask);
};
} // namespace QXCommon
