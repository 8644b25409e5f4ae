#pragma once
// Hashing the start of a file by path, shared by GenerateFileHash and
// CalculateAdler32Checksum.

#include "QXCommon/HashStrategy.h"

#include <string>

namespace QXCommon::Detail
{
// Only the first 8 MiB of a file are hashed: the cap is part of the
// file's identity.
constexpr ULONGLONG HashedBytesMax = 0x800000;

// The text of the strategy's digest of the file's first HashedBytesMax
// bytes, or empty (logged under the caller's name; the thread's last error
// tells why a file could not be read).
std::wstring HashFileStart(IHashStrategy& strategy, const std::wstring& path, const char* function);
} // namespace QXCommon::Detail
