// Free functions: is a file a Windows NT executable image.

#include "QXCommon/QXCommonFunctions.h"

#include "DiskFile.h"
#include "QXLog.h"

#include <cstring>
#include <memory>

namespace QXCommonFunctions
{
namespace
{
// The DOS header, and where it keeps the offset of the NT headers (e_lfanew).
constexpr DWORD DosHeaderSize = 64;
constexpr DWORD NtHeadersOffsetAt = 60;
// Signature, file header and 32-bit optional header. Used for 64-bit images
// too: only the signature is tested.
constexpr DWORD NtHeaders32Size = 0xF8;
// The system's image loader refuses NT headers this far into a file or
// further, so no image has them there.
constexpr DWORD NtHeadersOffsetLimit = 0x10000000; // 256 MiB
constexpr WORD DosSignature = 0x5A4D;  // "MZ"
constexpr DWORD NtSignature = 0x00004550; // "PE\0\0"

struct HeapDeleter
{
    void operator()(BYTE* p) const { ::HeapFree(::GetProcessHeap(), 0, p); }
};
} // namespace

DWORD TryCheckIsNTExe(const std::wstring& path, BOOL& isNTExe)
{
    const char* const function = "QXCommonFunctions::TryCheckIsNTExe";
    ATL::CHandle file(QXCommon::Detail::OpenToRead(path.c_str(), GENERIC_READ, FILE_SHARE_READ, FILE_ATTRIBUTE_NORMAL));
    if (file == INVALID_HANDLE_VALUE)
    {
        file.Detach(); // nothing to close
        DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"CreateFileW() error {}.\n", error);
        return error;
    }

    // Only a disk file can be an image. A device (COM1, AUX, CON), a pipe or
    // a socket would make the reads below wait for data that may never come.
    DWORD fileType = FILE_TYPE_UNKNOWN;
    if (QXCommon::Detail::CheckDiskFile(file, fileType) != ERROR_SUCCESS)
    {
        QXLOG_INFO(function, L"Not a disk file (type {}) so not NT exe file\n", fileType);
        isNTExe = FALSE;
        return ERROR_SUCCESS;
    }

    ::SetLastError(ERROR_SUCCESS);
    DWORD fileSize = ::GetFileSize(file, nullptr);
    if (fileSize == INVALID_FILE_SIZE)
    {
        DWORD error = ::GetLastError();
        if (error != ERROR_SUCCESS)
        {
            QXLOG_ERROR(function, L"GetFileSize() error {}.\n", error);
            return error;
        }
    }

    BYTE dosHeader[DosHeaderSize] = {};
    DWORD bytesRead = 0;
    if (!::ReadFile(file, dosHeader, DosHeaderSize, &bytesRead, nullptr))
    {
        DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"ReadFile() error {}.\n", error);
        return error;
    }
    if (bytesRead < DosHeaderSize)
    {
        QXLOG_ERROR(function, L"ReadFile() bytes read mismatch. dwBytesToRead {} dwBytesRead {}\n", DosHeaderSize,
                    bytesRead);
        isNTExe = FALSE;
        return ERROR_SUCCESS;
    }

    WORD magic = 0;
    std::memcpy(&magic, dosHeader, sizeof(magic));
    if (magic != DosSignature)
    {
        QXLOG_INFO(function, L"No DOS header - assume a COM file\n");
        isNTExe = FALSE;
        return ERROR_SUCCESS;
    }

    DWORD ntOffset = 0;
    std::memcpy(&ntOffset, dosHeader + NtHeadersOffsetAt, sizeof(ntOffset));
    const DWORD needed = ntOffset + NtHeaders32Size; // 32-bit arithmetic: may wrap
    if (fileSize < needed)
    {
        QXLOG_INFO(function, L"Short file so not NT EXE file\n");
        isNTExe = FALSE;
        return ERROR_SUCCESS;
    }

    // A sparse file costs nothing on disk however far its headers claim to
    // be, but the read below would allocate and read everything up to them.
    // Offsets the image loader refuses (a wrapped one among them) are
    // answered at once.
    if (ntOffset >= NtHeadersOffsetLimit)
    {
        QXLOG_INFO(function, L"NT header offset {} too far so not NT exe file\n", ntOffset);
        isNTExe = FALSE;
        return ERROR_SUCCESS;
    }

    // The whole prefix up to the end of the NT headers is read from the start
    // of the file in one read, not the headers alone after a seek: that is
    // the check's defined behaviour and is kept. Its cost is bounded by the
    // size the file really has (the check above) and by the offset's limit.
    std::unique_ptr<BYTE, HeapDeleter> buffer(
        static_cast<BYTE*>(::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, needed)));
    if (!buffer)
    {
        QXLOG_ERROR(function, L"HeapAlloc() error {}.\n", static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    ::SetFilePointer(file, 0, nullptr, FILE_BEGIN);
    bytesRead = 0;
    if (!::ReadFile(file, buffer.get(), needed, &bytesRead, nullptr))
    {
        DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"ReadFile() error {}.\n", error);
        return error;
    }
    if (bytesRead < needed)
    {
        QXLOG_ERROR(function, L"ReadFile() bytes read mismatch. dwBytesToRead {} dwBytesRead {}\n", needed,
                    bytesRead);
        isNTExe = FALSE;
        return ERROR_SUCCESS;
    }

    // The offset is below its limit, so needed did not wrap: the signature
    // lies inside the buffer.
    DWORD signature = 0;
    std::memcpy(&signature, buffer.get() + ntOffset, sizeof(signature));
    if (signature == NtSignature)
    {
        isNTExe = TRUE;
    }
    else
    {
        QXLOG_INFO(function, L"No NT header so not NT exe file\n");
        isNTExe = FALSE;
    }
    return ERROR_SUCCESS;
}

int IsNTExeOrAccessRestricted(const std::wstring& path)
{
    const char* const function = "QXCommonFunctions::IsNTExeOrAccessRestricted";
    BOOL isNTExe = FALSE;
    DWORD error = TryCheckIsNTExe(path, isNTExe);
    if (error == ERROR_SUCCESS)
    {
        QXLOG_INFO(function, L"Check OK. IsNTExe [{}].\n", isNTExe ? L"True" : L"False");
        return isNTExe ? 1 : 0;
    }

    QXLOG_ERROR(function, L"Check Failed.\n");
    if (error != ERROR_ACCESS_DENIED)
    {
        QXLOG_ERROR(function, L"Failed to check item [{}]. Error [{}].\n", path, error);
        return 0;
    }

    DWORD attributes = ::GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES)
    {
        DWORD attributesError = ::GetLastError();
        if (attributesError == error)
        {
            QXLOG_INFO(function, L"Access Denied to item [{}].\n", path);
            return 1;
        }
        QXLOG_ERROR(function, L"Unable to check file attributes of [{}]. Error [{}].\n", path, attributesError);
        return 0;
    }
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
    {
        QXLOG_INFO(function, L"Item is Directory [{}].\n", path);
        return 0;
    }
    QXLOG_INFO(function, L"Access Denied to item [{}].\n", path);
    return 1;
}
} // namespace QXCommonFunctions
