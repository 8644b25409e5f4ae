#include "QXCommon/HashStrategySha.h"

#include "QXCommon/HashStrategyShaCacheHelper.h"

#include "HashProvider.h"
#include "QXLog.h"

#include <cstring>

namespace QXCommon
{
namespace
{
constexpr DWORD Sha1Bytes = 20;
constexpr DWORD Sha256Bytes = 32;
} // namespace

CHashStrategySha::CHashStrategySha(SignatureAlgorithm algorithm)
    : m_hCryptProv(0), m_hCryptHash(0), m_usingSharedProvider(0), m_hashValue(), m_algorithm(algorithm),
      m_hashSize(0), m_algorithmId(0)
{
    const char* const function = "QXCommon::CHashStrategySha::CHashStrategySha";
    InitSHAMembers();

    const HCRYPTPROV shared = HashStrategyShaCacheHelper::GetSharedContext();
    if (shared != 0)
    {
        m_hCryptProv = shared;
        m_usingSharedProvider = 1;
        QXLOG_INFO(function, L"Using Cached CryptProv handle [{:X}]..\n", shared);
        return;
    }
    if (!Detail::AcquireHashProvider(m_hCryptProv))
    {
        const DWORD error = ::GetLastError();
        m_hCryptProv = 0;
        QXLOG_ERROR(function, L"CryptAcquireContextW failed. Error [{}].\n", error);
        ::SetLastError(error);
        return;
    }
    QXLOG_INFO(function, L"Using Local CryptProv handle [{:X}]..\n", m_hCryptProv);
}

CHashStrategySha::CHashStrategySha(const CHashStrategySha& other)
    : IHashStrategy(other), m_hCryptProv(0), m_hCryptHash(0), m_usingSharedProvider(0), m_hashValue(),
      m_algorithm(other.m_algorithm), m_hashSize(0), m_algorithmId(0)
{
    CopyFrom(other);
}

CHashStrategySha& CHashStrategySha::operator=(const CHashStrategySha& other)
{
    if (this != &other)
    {
        ReleaseProvider();
        IHashStrategy::operator=(other);
        m_algorithm = other.m_algorithm;
        CopyFrom(other);
    }
    return *this;
}

CHashStrategySha::~CHashStrategySha()
{
    ReleaseProvider();
}

void CHashStrategySha::CopyFrom(const CHashStrategySha& other)
{
    InitSHAMembers();
    if (m_hashValue && other.m_hashValue)
        std::memcpy(m_hashValue.get(), other.m_hashValue.get(), m_hashSize);
    if (other.m_hCryptProv == 0)
        return;
    // Every copy holds a reference of its own and releases it, the copy of a
    // strategy that borrowed its thread's provider too: a copy can be handed
    // to another thread or outlive the lending thread's DestroySharedContext,
    // and must never hash with a provider that has been released.
    if (!::CryptContextAddRef(other.m_hCryptProv, nullptr, 0))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR("QXCommon::CHashStrategySha::CopyFrom", L"CryptContextAddRef failed. Error [{}].\n", error);
        ::SetLastError(error);
        return;
    }
    m_hCryptProv = other.m_hCryptProv;
}

void CHashStrategySha::ReleaseProvider()
{
    if (m_hCryptProv == 0)
        return;
    if (m_hCryptHash != 0)
        ::CryptDestroyHash(m_hCryptHash);
    m_hCryptHash = 0;
    if (m_usingSharedProvider == 0)
        ::CryptReleaseContext(m_hCryptProv, 0);
    m_hCryptProv = 0;
    m_usingSharedProvider = 0;
}

void CHashStrategySha::InitSHAMembers()
{
    switch (m_algorithm)
    {
    case SignatureAlgorithmSHA1:
        m_hashValue.reset(new BYTE[Sha1Bytes]());
        m_hashSize = Sha1Bytes;
        m_algorithmId = CALG_SHA1;
        break;
    case SignatureAlgorithmSHA256:
        m_hashValue.reset(new BYTE[Sha256Bytes]());
        m_hashSize = Sha256Bytes;
        m_algorithmId = CALG_SHA_256;
        break;
    default:
        m_hashValue.reset();
        m_hashSize = 0;
        m_algorithmId = 0;
        break;
    }
}

ULONGLONG CHashStrategySha::GetHashSize() const
{
    return m_algorithm == SignatureAlgorithmSHA256 ? Sha256Bytes : Sha1Bytes;
}

void CHashStrategySha::ResetHash()
{
    if (m_hashValue)
        std::memset(m_hashValue.get(), 0, m_hashSize);
    if (m_hCryptProv == 0)
        return;
    if (m_hCryptHash != 0)
        ::CryptDestroyHash(m_hCryptHash);
    m_hCryptHash = 0;
    if (!::CryptCreateHash(m_hCryptProv, m_algorithmId, 0, 0, &m_hCryptHash))
    {
        const DWORD error = ::GetLastError();
        m_hCryptHash = 0;
        QXLOG_ERROR("QXCommon::CHashStrategySha::ResetHash", L"CryptCreateHash failed. Error [{}].\n", error);
        ::SetLastError(error);
    }
}

int CHashStrategySha::GenerateHash(const BYTE* data, ULONGLONG length, std::wstring& hash)
{
    const char* const function = "QXCommon::CHashStrategySha::GenerateHash";
    ResetHash();
    if (m_hCryptHash == 0)
    {
        QXLOG_ERROR(function, L"No hash object to hash with.\n");
        return 0;
    }
    if (data == nullptr && length != 0)
    {
        QXLOG_ERROR(function, L"No data for [{}] bytes.\n", length);
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    // CryptHashData takes a 32-bit count: longer blocks are cut to their low 32 bits.
    if (!::CryptHashData(m_hCryptHash, data, static_cast<DWORD>(length), 0))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"CryptHashData failed. Error [{}].\n", error);
        ::SetLastError(error);
        return 0;
    }
    if (!m_hashValue)
        return 0;
    std::memset(m_hashValue.get(), 0, m_hashSize);
    DWORD size = m_hashSize;
    if (!::CryptGetHashParam(m_hCryptHash, HP_HASHVAL, m_hashValue.get(), &size, 0))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"CryptGetHashParam failed. Error [{}].\n", error);
        ::SetLastError(error);
        return 0;
    }
    GetCurrentHashString(hash);
    return 1;
}

void CHashStrategySha::GetCurrentHashString(std::wstring& hash) const
{
    static const wchar_t digits[] = L"0123456789abcdef";
    const DWORD count = m_algorithm == SignatureAlgorithmSHA256 ? Sha256Bytes : Sha1Bytes;
    hash.clear();
    if (!m_hashValue)
        return;
    hash.resize(2 * static_cast<size_t>(count));
    for (DWORD k = 0; k < count; ++k)
    {
        hash[2 * k] = digits[m_hashValue[k] >> 4];
        hash[2 * k + 1] = digits[m_hashValue[k] & 0x0F];
    }
}
} // namespace QXCommon
