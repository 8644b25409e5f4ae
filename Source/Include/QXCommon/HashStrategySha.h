#pragma once
// CHashStrategySha: SHA-1 or SHA-256 through CryptoAPI. The provider is the
// calling thread's shared one when the thread holds one (see
// HashStrategyShaCacheHelper), otherwise one acquired for this object alone.
// An object that borrowed the thread's provider must stay on that thread and
// be destroyed before the thread releases its provider. A copy (or an
// assignment) holds a reference of its own to the provider, whichever way the
// original got it, so a copy may move to another thread and outlive the
// lender.

#include "HashStrategy.h"
#include "SignatureAlgorithm.h"

#include <wincrypt.h>

#include <memory>

namespace QXCommon
{
class QXCOMMON_API CHashStrategySha : public IHashStrategy
{
public:
    explicit CHashStrategySha(SignatureAlgorithm algorithm);
    // A copy shares the provider through a reference of its own (released by
    // the copy, never borrowed) and has a hash object of its own.
    CHashStrategySha(const CHashStrategySha& other);
    CHashStrategySha& operator=(const CHashStrategySha& other);
    ~CHashStrategySha() override;

    // 32 for SHA-256, 20 otherwise.
    ULONGLONG GetHashSize() const;
    // Hashes the low 32 bits' worth of length bytes; lower-case hex text.
    int GenerateHash(const BYTE* data, ULONGLONG length, std::wstring& hash) override;

private:
    void ResetHash() override;
    void GetCurrentHashString(std::wstring& hash) const override;
    void InitSHAMembers();
    void CopyFrom(const CHashStrategySha& other);
    void ReleaseProvider();

    HCRYPTPROV m_hCryptProv;
    HCRYPTHASH m_hCryptHash;
    DWORD m_usingSharedProvider; // 1: borrowed from the thread, never released here
    std::unique_ptr<BYTE[]> m_hashValue;
    SignatureAlgorithm m_algorithm;
    DWORD m_hashSize;
    ALG_ID m_algorithmId;
};
} // namespace QXCommon
