// Free functions: the hash that identifies a file.

#include "QXCommon/QXCommonFunctions.h"

#include "QXCommon/DataLoader.h"
#include "QXCommon/SignatureAlgorithmStrategy.h"

#include "FileHash.h"
#include "QXLog.h"

namespace QXCommon::Detail
{
std::wstring HashFileStart(IHashStrategy& strategy, const std::wstring& path, const char* function)
{
    // The system reads a path up to its first NUL: what follows would be
    // ignored, and the file named by the first part identified instead.
    if (const size_t nul = path.find(L'\0'); nul != std::wstring::npos)
    {
        QXLOG_ERROR(function, L"Path [{}] holds a NUL at [{}]. Error [{}].\n", path.c_str(), nul,
                    static_cast<DWORD>(ERROR_INVALID_NAME));
        ::SetLastError(ERROR_INVALID_NAME);
        return std::wstring();
    }
    CDataLoader loader;
    if (!loader.LoadFile(path.c_str(), HashedBytesMax, nullptr))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Failed to load file data for [{}].\n", path);
        ::SetLastError(error);
        return std::wstring();
    }
    std::wstring hash;
    if (!strategy.GenerateHash(loader.GetData(), loader.GetNumBytes(), hash))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Failed to Generate Hash for [{}].\n", path);
        ::SetLastError(error);
        hash.clear();
    }
    return hash;
}
} // namespace QXCommon::Detail

namespace QXCommonFunctions
{
std::wstring GenerateFileHash(const std::wstring& path)
{
    const char* const function = "QXCommonFunctions::GenerateFileHash";
    std::unique_ptr<QXCommon::IHashStrategy> strategy = SignatureAlgorithmStrategy::Get()->GetHashStrategy();
    if (!strategy)
    {
        QXLOG_ERROR(function, L"Hash strategy is null. Unable to generate hash.\n");
        ::SetLastError(ERROR_INVALID_STATE);
        return std::wstring();
    }
    return QXCommon::Detail::HashFileStart(*strategy, path, function);
}
} // namespace QXCommonFunctions
