#pragma once
// Shared by the token, privilege and process-identity sources: keeping the
// system error across a log call, and owners for blocks the security
// functions allocate.

#include <windows.h>

#include <memory>
#include <string>

namespace QXCommon::Detail
{
// Logging may change the thread's last error; a failing function puts the
// error it reports back before returning, so that callers can read it.
inline BOOL FailWith(DWORD error) noexcept
{
    ::SetLastError(error);
    return FALSE;
}

struct LocalFreeDeleter
{
    void operator()(void* block) const noexcept { ::LocalFree(block); }
};
// A block from LocalAlloc (ConvertStringSidToSidW, ConvertSidToStringSidW).
template <typename T>
using LocalPtr = std::unique_ptr<T, LocalFreeDeleter>;

struct ProcessHeapDeleter
{
    void operator()(void* block) const noexcept { ::HeapFree(::GetProcessHeap(), 0, block); }
};
// A block from HeapAlloc on the process heap.
template <typename T>
using ProcessHeapPtr = std::unique_ptr<T, ProcessHeapDeleter>;
} // namespace QXCommon::Detail
