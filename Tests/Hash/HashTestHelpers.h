#pragma once
// Reference digests computed without the library (BCrypt for SHA, zlib for
// Adler-32), random contents from a fixed seed, and the process heap's use.

#include <windows.h>
#include <bcrypt.h>
#include <zlib.h>

#include "QXCommon/SignatureAlgorithmStrategy.h"

#include <cstdio>
#include <random>
#include <string>

namespace HashTest
{
constexpr size_t Cap = 8388608;

inline std::string RandomBytes(size_t size, unsigned seed = 7)
{
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (char& c : bytes)
        c = static_cast<char>(random());
    return bytes;
}

inline std::wstring ReferenceAdler32(const void* data, size_t size)
{
    uLong value = adler32(adler32(0, nullptr, 0), static_cast<const Bytef*>(data), static_cast<uInt>(size));
    wchar_t text[9];
    swprintf(text, 9, L"%08lX", value);
    return text;
}

// SHA-1, SHA-256 or Adler-32 text of the bytes, as the library writes it.
inline std::wstring Reference(SignatureAlgorithm algorithm, const std::string& bytes)
{
    if (algorithm == SignatureAlgorithmAdler32)
        return ReferenceAdler32(bytes.data(), bytes.size());
    const ULONG size = algorithm == SignatureAlgorithmSHA256 ? 32 : 20;
    UCHAR digest[32] = {};
    BCRYPT_ALG_HANDLE provider = nullptr;
    BCRYPT_HASH_HANDLE hash = nullptr;
    BCryptOpenAlgorithmProvider(&provider, size == 32 ? BCRYPT_SHA256_ALGORITHM : BCRYPT_SHA1_ALGORITHM, nullptr, 0);
    BCryptCreateHash(provider, &hash, nullptr, 0, nullptr, 0, 0);
    const bool hashed = BCryptHashData(hash, reinterpret_cast<PUCHAR>(const_cast<char*>(bytes.data())),
                                       static_cast<ULONG>(bytes.size()), 0) == 0 &&
                        BCryptFinishHash(hash, digest, size, 0) == 0;
    BCryptDestroyHash(hash);
    BCryptCloseAlgorithmProvider(provider, 0);
    if (!hashed)
        return L"(BCrypt failed)";
    std::wstring text;
    for (ULONG k = 0; k < size; ++k)
    {
        wchar_t pair[3];
        swprintf(pair, 3, L"%02x", digest[k]);
        text += pair;
    }
    return text;
}

// Bytes in use in the process heap.
inline size_t ProcessHeapInUse()
{
    HANDLE heap = GetProcessHeap();
    size_t busy = 0;
    if (!HeapLock(heap))
        return 0;
    PROCESS_HEAP_ENTRY entry = {};
    while (HeapWalk(heap, &entry))
        if ((entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0)
            busy += entry.cbData;
    HeapUnlock(heap);
    return busy;
}

// Puts the process-wide algorithm into a known state for the test.
inline void ForceAlgorithm(SignatureAlgorithm algorithm)
{
    SignatureAlgorithmStrategy::Get()->SetSignatureAlgorithm(algorithm);
}
} // namespace HashTest
