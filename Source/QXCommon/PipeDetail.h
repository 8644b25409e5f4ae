#pragma once
// Shared by the two sides of the identity hand-over: one-byte transfers on an
// overlapped pipe handle, each bounded in time, so that a peer that says
// nothing cannot hold the calling thread.

#include <windows.h>

#include <atlbase.h>

namespace QXCommon::Detail
{
// Both sides give a peer this long for each step of the exchange.
constexpr DWORD PipeWaitMs = 5000;

// Ends an overlapped operation that is still pending, so that the system no
// longer writes to its OVERLAPPED once it goes out of scope. A cancelled
// transfer completes at once; the wait only collects it.
inline void CancelPending(HANDLE file, OVERLAPPED& overlapped) noexcept
{
    DWORD transferred = 0;
    if (::CancelIoEx(file, &overlapped) || ::GetLastError() != ERROR_NOT_FOUND)
        ::GetOverlappedResult(file, &overlapped, &transferred, TRUE);
}

// Reads or writes one byte on an overlapped pipe handle and waits for it at
// most timeoutMs. A transfer still pending then is cancelled and drained and
// fails with WAIT_TIMEOUT; any other failure leaves the system's error in
// GetLastError.
inline BOOL TransferByte(HANDLE pipe, BYTE& byte, bool write, DWORD& transferred, DWORD timeoutMs) noexcept
{
    transferred = 0;
    ATL::CHandle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (event == nullptr)
        return FALSE;
    OVERLAPPED overlapped = {};
    overlapped.hEvent = event;
    if (write ? ::WriteFile(pipe, &byte, 1, &transferred, &overlapped)
              : ::ReadFile(pipe, &byte, 1, &transferred, &overlapped))
        return TRUE;
    if (::GetLastError() != ERROR_IO_PENDING)
        return FALSE;
    const DWORD waited = ::WaitForSingleObject(event, timeoutMs);
    if (waited != WAIT_OBJECT_0)
    {
        const DWORD error = waited == WAIT_TIMEOUT ? WAIT_TIMEOUT : ::GetLastError();
        CancelPending(pipe, overlapped);
        transferred = 0;
        ::SetLastError(error);
        return FALSE;
    }
    return ::GetOverlappedResult(pipe, &overlapped, &transferred, FALSE);
}
} // namespace QXCommon::Detail
