#pragma once
// Opening a file by path to read it, and telling a file on a disk from the
// other things a path or a handle can name. Only a disk file has contents of
// its own: a device (NUL, CON, COM1), a pipe, a socket or, under Wine, a Unix
// FIFO gives what a peer chooses, or nothing, and a read of it can wait for
// that peer for ever. The image check and the file loader share both steps.

#include <windows.h>

namespace QXCommon::Detail
{
// CreateFileW(path, access, share, no security attributes, OPEN_EXISTING,
// flags, no template), with a security quality of service of anonymous: a
// path that names a named pipe connects to whoever made it, and that server
// then learns nothing of the caller and cannot impersonate it (a caller
// running as SYSTEM would otherwise lend it SYSTEM's identity).
inline HANDLE OpenToRead(const wchar_t* path, DWORD access, DWORD share, DWORD flags)
{
    return ::CreateFileW(path, access, share, nullptr, OPEN_EXISTING, flags | SECURITY_SQOS_PRESENT | SECURITY_ANONYMOUS,
                         nullptr);
}

// 0 for a disk file; otherwise ERROR_NOT_SUPPORTED, or the error of a handle
// whose type cannot be asked for. type receives what GetFileType answered.
inline DWORD CheckDiskFile(HANDLE file, DWORD& type)
{
    ::SetLastError(ERROR_SUCCESS);
    type = ::GetFileType(file);
    if (type == FILE_TYPE_DISK)
        return ERROR_SUCCESS;
    const DWORD error = ::GetLastError();
    return type == FILE_TYPE_UNKNOWN && error != ERROR_SUCCESS ? error : static_cast<DWORD>(ERROR_NOT_SUPPORTED);
}
} // namespace QXCommon::Detail
