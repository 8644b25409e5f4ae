#pragma once
// IHashStrategy: digest of a block of memory as wide hexadecimal text.
// Strategies are not thread-safe: one thread uses one object at a time.

#include "QXCommonAPI.h"

#include <string>

namespace QXCommon
{
class QXCOMMON_API IHashStrategy
{
public:
    IHashStrategy(const IHashStrategy&) = default;
    IHashStrategy& operator=(const IHashStrategy&) = default;
    virtual ~IHashStrategy();

    // Hashes length bytes at data afresh and writes the text form of the
    // digest to hash. Returns non-zero on success; on failure hash is left
    // as it was.
    virtual int GenerateHash(const BYTE* data, ULONGLONG length, std::wstring& hash) = 0;

protected:
    IHashStrategy() = default;

private:
    virtual void ResetHash() = 0;
    virtual void GetCurrentHashString(std::wstring& hash) const = 0;
};
} // namespace QXCommon
