#pragma once
// CEnvironmentBlockEx: copies of raw environment blocks ("name=value\0 ...
// \0\0"). Entries are copied as they are, including entries that hold no "="
// or begin with "=" (the system's per-drive "=C:=C:\" entries). The copy ends
// at the first empty entry and always ends with two NULs, so that it can be
// handed on as a block even when the source held no entries. A null block
// gives an empty vector (logged).

#include "QXCommonAPI.h"

#include <vector>

namespace QXCommon
{
class QXCOMMON_API CEnvironmentBlockEx
{
public:
    CEnvironmentBlockEx() = default;
    CEnvironmentBlockEx(const CEnvironmentBlockEx&) = default;
    CEnvironmentBlockEx(CEnvironmentBlockEx&&) = default;
    CEnvironmentBlockEx& operator=(const CEnvironmentBlockEx&) = default;
    CEnvironmentBlockEx& operator=(CEnvironmentBlockEx&&) = default;

    // A copy of a wide block.
    static std::vector<wchar_t> LoadFromEnvironmentBlock(const wchar_t* block);
    // A wide copy of an 8-bit block, each entry converted from the ANSI code
    // page. An entry that cannot be converted gives an empty vector (logged).
    static std::vector<wchar_t> LoadFromEnvironmentBlockANSI(const char* block);
};
} // namespace QXCommon
