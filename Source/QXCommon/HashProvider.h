#pragma once
// The CryptoAPI provider that hashing uses, private to a strategy or shared
// by a thread: the default AES provider, no container, no keys.

#include <windows.h>
#include <wincrypt.h>

namespace QXCommon::Detail
{
constexpr DWORD HashProviderType = PROV_RSA_AES;                              // 24
constexpr DWORD HashProviderFlags = CRYPT_VERIFYCONTEXT | CRYPT_MACHINE_KEYSET; // 0xF0000020

inline BOOL AcquireHashProvider(HCRYPTPROV& provider)
{
    provider = 0;
    return ::CryptAcquireContextW(&provider, nullptr, nullptr, HashProviderType, HashProviderFlags);
}
} // namespace QXCommon::Detail
