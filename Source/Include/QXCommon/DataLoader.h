#pragma once
// CDataLoader: reads the start of a file into one block of the process heap
// with a single read. The last block of a megabyte up to 8 MiB that a loader
// frees is kept by the process for the next large load, so that hashing
// file after file does not fault fresh pages in every time; a larger block
// is given back at once.

#include "QXCommonAPI.h"

namespace QXCommon
{
class QXCOMMON_API CDataLoader
{
public:
    CDataLoader();
    CDataLoader(const CDataLoader& other);
    CDataLoader& operator=(const CDataLoader& other);
    virtual ~CDataLoader();

    // Reads min(file size, maxBytes) bytes (the whole file when maxBytes is
    // 0). With a file handle, reads from it at its current position and
    // leaves it open; otherwise opens path for reading, sharing read, write
    // and delete. Returns 1, or 0 with the thread's last error telling why.
    // Only a file on a disk is read: a device, a pipe or a socket fails with
    // ERROR_NOT_SUPPORTED before any read, a file of 4 GiB or more (and one
    // of exactly 0xFFFFFFFF bytes) with ERROR_FILE_TOO_LARGE. Bytes the read
    // did not deliver (a file that shrank) are zero.
    int LoadFile(const wchar_t* path, ULONGLONG maxBytes, HANDLE file);
    void Unload();

    const BYTE* GetData() const;
    ULONGLONG GetNumBytes() const;

private:
    BYTE* m_data;
    ULONGLONG m_numBytes;
};
} // namespace QXCommon
