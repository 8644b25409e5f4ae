#include "QXCommon/DataLoader.h"

#include "DiskFile.h"
#include "FileHash.h"
#include "QXLog.h"

#include <atlbase.h>

#include <atomic>
#include <cstring>

namespace QXCommon
{
namespace
{
// A block of the process heap, freed unless released.
class HeapBlock
{
public:
    explicit HeapBlock(BYTE* data) : m_data(data) {}
    ~HeapBlock();
    HeapBlock(const HeapBlock&) = delete;
    HeapBlock& operator=(const HeapBlock&) = delete;
    BYTE* Get() const { return m_data; }
    BYTE* Release()
    {
        BYTE* data = m_data;
        m_data = nullptr;
        return data;
    }

private:
    BYTE* m_data;
};

// Blocks of a megabyte or more come fresh from the system on every
// allocation, and every page of them faults in and is zeroed on first use:
// for the 8 MiB that identify a file that costs more than reading them. The
// last such block freed is kept (one per process) for the next large load,
// but only up to the size a hash reads: a whole-file load of a large file
// must not pin its block for the life of the process.
constexpr SIZE_T SpareFrom = 1 << 20;
constexpr SIZE_T SpareUpTo = static_cast<SIZE_T>(Detail::HashedBytesMax);

class SpareBlock
{
public:
    SpareBlock() : m_block(nullptr) {}
    ~SpareBlock() { Give(nullptr); }
    SpareBlock(const SpareBlock&) = delete;
    SpareBlock& operator=(const SpareBlock&) = delete;

    // The kept block when it holds at least bytes, otherwise null.
    BYTE* Take(SIZE_T bytes)
    {
        BYTE* block = m_block.exchange(nullptr);
        if (block == nullptr)
            return nullptr;
        const SIZE_T size = ::HeapSize(::GetProcessHeap(), 0, block);
        if (size != static_cast<SIZE_T>(-1) && size >= bytes)
            return block;
        ::HeapFree(::GetProcessHeap(), 0, block);
        return nullptr;
    }

    // Keeps the block in place of the one kept before, which is freed.
    void Give(BYTE* block)
    {
        BYTE* previous = m_block.exchange(block);
        if (previous != nullptr)
            ::HeapFree(::GetProcessHeap(), 0, previous);
    }

private:
    std::atomic<BYTE*> m_block;
};

SpareBlock& Spare()
{
    static SpareBlock spare;
    return spare;
}

BYTE* AllocateLoadBlock(ULONGLONG bytes)
{
    BYTE* block = bytes >= SpareFrom ? Spare().Take(static_cast<SIZE_T>(bytes)) : nullptr;
    return block != nullptr ? block : static_cast<BYTE*>(::HeapAlloc(::GetProcessHeap(), 0, static_cast<SIZE_T>(bytes)));
}

void FreeLoadBlock(BYTE* block)
{
    if (block == nullptr)
        return;
    const SIZE_T size = ::HeapSize(::GetProcessHeap(), 0, block);
    if (size != static_cast<SIZE_T>(-1) && size >= SpareFrom && size <= SpareUpTo)
        Spare().Give(block);
    else
        ::HeapFree(::GetProcessHeap(), 0, block);
}

HeapBlock::~HeapBlock()
{
    FreeLoadBlock(m_data);
}

BYTE* AllocateCopy(const BYTE* data, ULONGLONG bytes)
{
    if (data == nullptr)
        return nullptr;
    BYTE* copy = static_cast<BYTE*>(::HeapAlloc(::GetProcessHeap(), 0, static_cast<SIZE_T>(bytes)));
    if (copy == nullptr)
    {
        QXLOG_ERROR("QXCommon::CDataLoader::CDataLoader", L"HeapAllow Failed.\n");
        ::SetLastError(ERROR_OUTOFMEMORY);
        return nullptr;
    }
    std::memcpy(copy, data, static_cast<size_t>(bytes));
    return copy;
}
} // namespace

CDataLoader::CDataLoader() : m_data(nullptr), m_numBytes(0) {}

CDataLoader::CDataLoader(const CDataLoader& other)
    : m_data(AllocateCopy(other.m_data, other.m_numBytes)), m_numBytes(0)
{
    if (m_data != nullptr)
        m_numBytes = other.m_numBytes;
}

CDataLoader& CDataLoader::operator=(const CDataLoader& other)
{
    if (this != &other)
    {
        BYTE* copy = AllocateCopy(other.m_data, other.m_numBytes);
        Unload();
        m_data = copy;
        m_numBytes = copy != nullptr ? other.m_numBytes : 0;
    }
    return *this;
}

CDataLoader::~CDataLoader()
{
    Unload();
}

void CDataLoader::Unload()
{
    FreeLoadBlock(m_data);
    m_data = nullptr;
    m_numBytes = 0;
}

const BYTE* CDataLoader::GetData() const
{
    return m_data;
}

ULONGLONG CDataLoader::GetNumBytes() const
{
    return m_numBytes;
}

int CDataLoader::LoadFile(const wchar_t* path, ULONGLONG maxBytes, HANDLE file)
{
    const char* const function = "QXCommon::CDataLoader::LoadFile";
    Unload();

    // A handle this call opens is closed on every path; a caller's is not.
    ATL::CHandle opened;
    if (file == nullptr)
    {
        if (path == nullptr)
        {
            ::SetLastError(ERROR_INVALID_PARAMETER);
            return 0;
        }
        file = Detail::OpenToRead(path, FILE_READ_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, 0);
        if (file == INVALID_HANDLE_VALUE)
        {
            const DWORD error = ::GetLastError();
            QXLOG_ERROR(function, L"CreateFileW failed with error [{}].\n", error);
            ::SetLastError(error);
            return 0;
        }
        opened.Attach(file);
    }

    // A device, a pipe or a socket has no contents of its own to identify:
    // its size reads as 0 (the identity of the empty file), and a read of it
    // waits for whatever a peer sends.
    DWORD type = FILE_TYPE_UNKNOWN;
    if (const DWORD error = Detail::CheckDiskFile(file, type); error != ERROR_SUCCESS)
    {
        QXLOG_ERROR(function, L"Not a disk file, type [{}]. Error [{}].\n", type, error);
        ::SetLastError(error);
        return 0;
    }

    // The size in full: its low 32 bits alone would give a file of 4 GiB or
    // more the identity of its first (size mod 4 GiB) bytes. A size of
    // exactly 0xFFFFFFFF fails as the low 32 bits always made it fail, now
    // with an error that says why.
    DWORD sizeHigh = 0;
    ::SetLastError(ERROR_SUCCESS);
    const DWORD fileSize = ::GetFileSize(file, &sizeHigh);
    DWORD sizeError = fileSize == INVALID_FILE_SIZE ? ::GetLastError() : ERROR_SUCCESS;
    if (sizeError == ERROR_SUCCESS && sizeHigh != 0)
    {
        QXLOG_ERROR(function, L"File size [{}] bytes is 4 GiB or more. Error [{}].\n",
                    (static_cast<ULONGLONG>(sizeHigh) << 32) | fileSize, static_cast<DWORD>(ERROR_FILE_TOO_LARGE));
        ::SetLastError(ERROR_FILE_TOO_LARGE);
        return 0;
    }
    if (fileSize == INVALID_FILE_SIZE)
    {
        if (sizeError == ERROR_SUCCESS)
            sizeError = ERROR_FILE_TOO_LARGE;
        QXLOG_ERROR(function, L"GetFileSize failed with error [{}].\n", sizeError);
        ::SetLastError(sizeError);
        return 0;
    }

    ULONGLONG amount = fileSize;
    if (maxBytes != 0 && amount > maxBytes)
        amount = maxBytes;
    QXLOG_INFO(function, L"Allocating [{}] bytes. File Size [{}] bytes. Max Bytes [{}]\n", amount, fileSize, maxBytes);

    HeapBlock block(AllocateLoadBlock(amount));
    if (block.Get() == nullptr)
    {
        QXLOG_ERROR(function, L"HeapAllow Failed.\n");
        ::SetLastError(ERROR_OUTOFMEMORY);
        return 0;
    }

    DWORD read = 0;
    if (!::ReadFile(file, block.Get(), static_cast<DWORD>(amount), &read, nullptr))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"ReadFile failed with error [{}]\n", error);
        ::SetLastError(error);
        return 0;
    }
    // The count stays the amount asked for; what a shrunken file no longer
    // holds reads as zeros rather than as whatever the heap held.
    if (read < amount)
        std::memset(block.Get() + read, 0, static_cast<size_t>(amount - read));
    m_data = block.Release();
    m_numBytes = amount;
    return 1;
}
} // namespace QXCommon
