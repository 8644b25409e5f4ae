#pragma once
// The hash algorithm that identifies files. Any other value, and
// SignatureAlgorithmUnknown in particular, means "not set".

#include <windows.h>

enum SignatureAlgorithm : DWORD
{
    SignatureAlgorithmSHA1 = 0,    // CALG_SHA1, 20 bytes, 40 lower-case hex digits
    SignatureAlgorithmSHA256 = 1,  // CALG_SHA_256, 32 bytes, 64 lower-case hex digits
    SignatureAlgorithmAdler32 = 2, // 32-bit checksum, 8 upper-case hex digits
    SignatureAlgorithmUnknown = 0xFFFFFFFF,
};
