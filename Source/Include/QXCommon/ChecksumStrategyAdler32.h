#pragma once
// CChecksumStrategyAdler32: the Adler-32 checksum, as 8 upper-case hex digits
// (the high half, the sum of sums, first). Long blocks are summed with the
// processor's vector instructions where it has them; the result is the same.

#include "HashStrategy.h"

namespace QXCommon
{
class QXCOMMON_API CChecksumStrategyAdler32 : public IHashStrategy
{
public:
    CChecksumStrategyAdler32();
    CChecksumStrategyAdler32(const CChecksumStrategyAdler32&) = default;
    CChecksumStrategyAdler32& operator=(const CChecksumStrategyAdler32&) = default;
    ~CChecksumStrategyAdler32() override;

    // Fails (0) only for null data with a non-zero length.
    int GenerateHash(const BYTE* data, ULONGLONG length, std::wstring& hash) override;

private:
    bool Update(const BYTE* data, ULONGLONG length);
    void ResetHash() override;
    void GetCurrentHashString(std::wstring& hash) const override;

    WORD m_sumA; // sum of the bytes plus one, modulo 65521
    WORD m_sumB; // sum of the running sums, modulo 65521
};
} // namespace QXCommon
