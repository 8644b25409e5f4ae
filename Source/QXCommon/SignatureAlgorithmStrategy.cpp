#include "QXCommon/SignatureAlgorithmStrategy.h"

#include "QXCommon/ChecksumStrategyAdler32.h"
#include "QXCommon/HashStrategySha.h"

#include "FileHash.h"
#include "QXLog.h"

#include <atlbase.h>

#include <cwchar>

namespace
{
const wchar_t* const PropertiesKey = L"SOFTWARE\\Kestrova Technologies\\Runwarden\\MessagesConfig\\Properties";
const wchar_t* const AlgorithmValue = L"SignatureAlgorithm";

class CriticalSectionLock
{
public:
    explicit CriticalSectionLock(CRITICAL_SECTION& section) : m_section(section) { ::EnterCriticalSection(&m_section); }
    ~CriticalSectionLock() { ::LeaveCriticalSection(&m_section); }
    CriticalSectionLock(const CriticalSectionLock&) = delete;
    CriticalSectionLock& operator=(const CriticalSectionLock&) = delete;

private:
    CRITICAL_SECTION& m_section;
};
} // namespace

struct SignatureAlgorithmStrategyAccess
{
    // Makes Adler-32 the process's algorithm and a strategy for it at once.
    static std::unique_ptr<QXCommon::IHashStrategy> SwitchToAdler32(SignatureAlgorithmStrategy& strategies)
    {
        CriticalSectionLock lock(strategies.m_lock);
        strategies.SetSignatureAlgorithmInternal(SignatureAlgorithmAdler32);
        return strategies.GetHashStrategy();
    }
};

SignatureAlgorithmStrategy::SignatureAlgorithmStrategy() : m_algorithm(SignatureAlgorithmUnknown)
{
    ::InitializeCriticalSection(&m_lock);
}

SignatureAlgorithmStrategy::~SignatureAlgorithmStrategy()
{
    ::DeleteCriticalSection(&m_lock);
}

SignatureAlgorithmStrategy* SignatureAlgorithmStrategy::Get()
{
    static SignatureAlgorithmStrategy instance;
    return &instance;
}

SignatureAlgorithmStrategy& SignatureAlgorithmStrategy::operator=(const SignatureAlgorithmStrategy& other)
{
    if (this != &other)
    {
        const SignatureAlgorithm algorithm = other.GetCurrentSignatureAlgorithm();
        CriticalSectionLock lock(m_lock);
        m_algorithm = algorithm;
    }
    return *this;
}

bool SignatureAlgorithmStrategy::GetSignatureAlgorithmFromRegistry()
{
    const char* const function = "SignatureAlgorithmStrategy::GetSignatureAlgorithmFromRegistry";
    CriticalSectionLock lock(m_lock);

    // A failed read leaves no algorithm in force, whatever was set before.
    auto failed = [&](const wchar_t* format, const wchar_t* what, LONG status) {
        m_algorithm = SignatureAlgorithmUnknown;
        QXLOG_ERROR(function, format, what, status, GetSignatureAlgorithmName());
        ::SetLastError(static_cast<DWORD>(status));
        return false;
    };
    ATL::CRegKey key;
    LONG status = key.Open(HKEY_LOCAL_MACHINE, PropertiesKey, KEY_READ | KEY_WRITE);
    if (status != ERROR_SUCCESS)
        return failed(L"Open [{}] reg key failed. Error [{}]. Setting algorithm to [{}].\n", PropertiesKey, status);

    DWORD value = 0;
    DWORD type = REG_NONE;
    ULONG bytes = sizeof(value);
    status = key.QueryValue(AlgorithmValue, &type, &value, &bytes);
    if (status == ERROR_SUCCESS && (type != REG_DWORD || bytes != sizeof(value)))
        status = ERROR_INVALID_DATA;
    if (status != ERROR_SUCCESS)
        return failed(L"Query [{}] reg value failed. Error [{}]. Setting algorithm to [{}].\n", AlgorithmValue, status);
    return SetSignatureAlgorithmInternal(static_cast<SignatureAlgorithm>(value));
}

bool SignatureAlgorithmStrategy::SetSignatureAlgorithm(SignatureAlgorithm algorithm)
{
    CriticalSectionLock lock(m_lock);
    return SetSignatureAlgorithmInternal(algorithm);
}

SignatureAlgorithm SignatureAlgorithmStrategy::GetCurrentSignatureAlgorithm() const
{
    CriticalSectionLock lock(m_lock);
    return m_algorithm;
}

std::unique_ptr<QXCommon::IHashStrategy> SignatureAlgorithmStrategy::GetHashStrategy()
{
    CriticalSectionLock lock(m_lock);
    switch (m_algorithm)
    {
    case SignatureAlgorithmSHA1:
    case SignatureAlgorithmSHA256:
        return std::make_unique<QXCommon::CHashStrategySha>(m_algorithm);
    case SignatureAlgorithmAdler32:
        return std::make_unique<QXCommon::CChecksumStrategyAdler32>();
    default:
        QXLOG_ERROR("SignatureAlgorithmStrategy::GetHashStrategy",
                    L"Unknown signature type. Unable to initialise hash strategy.\n");
        return nullptr;
    }
}

bool SignatureAlgorithmStrategy::SetSignatureAlgorithmInternal(SignatureAlgorithm algorithm)
{
    const char* const function = "SignatureAlgorithmStrategy::SetSignatureAlgorithmInternal";
    if (!ValidataSignatureAlgorithm(algorithm))
    {
        QXLOG_ERROR(function, L"Signature [{}] invalid. Unable to proceed.\n", static_cast<DWORD>(algorithm));
        return false;
    }
    if (algorithm == m_algorithm)
    {
        QXLOG_INFO(function, L"Signature hash strategy has already been initialised for [{}].\n",
                   GetSignatureAlgorithmName());
        return false;
    }
    m_algorithm = algorithm;
    QXLOG_INFO(function, L"Signature algorithm set to [{}].\n", GetSignatureAlgorithmName());
    return true;
}

bool SignatureAlgorithmStrategy::ValidataSignatureAlgorithm(SignatureAlgorithm algorithm)
{
    return algorithm == SignatureAlgorithmSHA1 || algorithm == SignatureAlgorithmSHA256 ||
           algorithm == SignatureAlgorithmAdler32;
}

std::wstring SignatureAlgorithmStrategy::GetSignatureAlgorithmName()
{
    switch (m_algorithm)
    {
    case SignatureAlgorithmSHA1: return L"SHA1";
    case SignatureAlgorithmSHA256: return L"SHA256";
    case SignatureAlgorithmAdler32: return L"Adler32";
    default: return L"UnknownAlgorithm";
    }
}

int CalculateAdler32Checksum(wchar_t* buffer)
{
    const char* const function = "CalculateAdler32Checksum";
    if (buffer == nullptr)
    {
        QXLOG_ERROR(function, L"No buffer.\n");
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    const std::wstring path(buffer);

    // Switching the process to Adler-32 is part of the contract. The strategy
    // is made under the same lock, so that another thread's change of
    // algorithm cannot put a longer digest into a buffer sized for this one.
    std::unique_ptr<QXCommon::IHashStrategy> strategy =
        SignatureAlgorithmStrategyAccess::SwitchToAdler32(*SignatureAlgorithmStrategy::Get());
    if (!strategy)
        return 0;

    const std::wstring checksum = QXCommon::Detail::HashFileStart(*strategy, path, function);
    if (checksum.empty())
        return 0;
    wcscpy_s(buffer, checksum.size() + 1, checksum.c_str());
    return 1;
}
