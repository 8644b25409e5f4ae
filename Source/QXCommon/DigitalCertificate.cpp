// CDigitalCertificate: a certificate context read from a signed file or a
// certificate file, compared, verified as a chain and serialised; the PE
// certificate table; the Authenticode check; the C exports.

#include "QXCommon/DigitalCertificate.h"

#include "CryptoGuards.h"
#include "QXLog.h"

#include <atlbase.h>

#include <imagehlp.h>
#include <softpub.h>
#include <wintrust.h>

#include <cstdint>
#include <cwchar>
#include <memory>
#include <new>
#include <string>

namespace QXCommon
{
namespace
{
using Detail::CertStorePtr;
using Detail::ChainEnginePtr;
using Detail::ChainPtr;
using Detail::CryptMsgPtr;

constexpr DWORD CertEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING; // 0x10001

// Structure sizes handed to the platform. They are the sizes of the
// structures' first versions, fixed so that the calls behave the same with
// every SDK.
constexpr DWORD WinTrustDataSize = 80;
constexpr DWORD WinTrustFileInfoSize = 32;
constexpr DWORD ChainEngineConfigSize = 80;
constexpr DWORD ChainParaSize = 32;
constexpr DWORD ChainPolicyParaSize = 16;
constexpr DWORD ChainPolicyStatusSize = 24;
static_assert(sizeof(WINTRUST_DATA) >= WinTrustDataSize && sizeof(WINTRUST_FILE_INFO) >= WinTrustFileInfoSize);
static_assert(sizeof(CERT_CHAIN_ENGINE_CONFIG) >= ChainEngineConfigSize && sizeof(CERT_CHAIN_PARA) >= ChainParaSize);
static_assert(sizeof(CERT_CHAIN_POLICY_PARA) >= ChainPolicyParaSize &&
              sizeof(CERT_CHAIN_POLICY_STATUS) >= ChainPolicyStatusSize);

// A certificate file larger than this is not a certificate: refused before
// anything is allocated for it.
constexpr LONGLONG MaxCertificateFileSize = 16 * 1024 * 1024;

unsigned long long Address(const void* pointer)
{
    return static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(pointer));
}

// The last error, never 0 (for paths where the platform reported failure
// without setting one).
DWORD LastErrorOr(DWORD fallback)
{
    const DWORD error = ::GetLastError();
    return error != ERROR_SUCCESS ? error : fallback;
}

// Opens a file for reading by path; logs and returns the error on failure.
DWORD OpenForReading(const char* function, const std::wstring& path, ATL::CHandle& file)
{
    HANDLE handle = ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                  FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE)
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Failed to CreateFileW [{}] - error {}\n", path, error);
        return error;
    }
    file.Attach(handle);
    return ERROR_SUCCESS;
}
} // namespace

CDigitalCertificate::CDigitalCertificate() : m_Context(nullptr)
{
}

CDigitalCertificate::CDigitalCertificate(const CDigitalCertificate& other) : m_Context(nullptr)
{
    if (other.m_Context != nullptr)
        Clone(other);
}

CDigitalCertificate& CDigitalCertificate::operator=(const CDigitalCertificate& other)
{
    if (this == &other)
        return *this;
    if (other.m_Context != nullptr)
        Clone(other);
    else
        Release();
    return *this;
}

CDigitalCertificate::~CDigitalCertificate()
{
    Release();
}

DWORD CDigitalCertificate::ReadFromSignedFile(const std::wstring& path)
{
    const char* const function = "QXCommon::CDigitalCertificate::ReadFromSignedFile";
    Release();

    HCERTSTORE storeHandle = nullptr;
    HCRYPTMSG messageHandle = nullptr;
    const BOOL queried = ::CryptQueryObject(CERT_QUERY_OBJECT_FILE, path.c_str(),
                                            CERT_QUERY_CONTENT_FLAG_PKCS7_SIGNED_EMBED, CERT_QUERY_FORMAT_FLAG_ALL,
                                            0, nullptr, nullptr, nullptr, &storeHandle, &messageHandle, nullptr);
    DWORD error = queried ? ERROR_SUCCESS : ::GetLastError();

    // The store is closed (and the close logged) and the message freed on
    // every path; the context found keeps what it needs of the store.
    struct Handles
    {
        const char* function;
        HCERTSTORE store;
        CryptMsgPtr message;
        ~Handles()
        {
            if (store != nullptr)
            {
                const BOOL closed = ::CertCloseStore(store, 0);
                QXLOG_INFO(function, L"CertCloseStore({:X}) returned [{}]\n", Address(store), closed);
            }
        }
    } handles{function, storeHandle, CryptMsgPtr(messageHandle)};

    if (!queried)
    {
        QXLOG_ERROR(function, L"CryptQueryObject failed - error {}\n", error);
        return error;
    }
    if (storeHandle == nullptr || messageHandle == nullptr)
    {
        QXLOG_ERROR(function, L"CryptQueryObject did not return both handles\n");
        return LastErrorOr(ERROR_INVALID_DATA);
    }

    // The first signer only.
    DWORD infoSize = 0;
    if (!::CryptMsgGetParam(messageHandle, CMSG_SIGNER_CERT_INFO_PARAM, 0, nullptr, &infoSize))
    {
        error = ::GetLastError();
        QXLOG_ERROR(function, L"CryptMsgGetParam failed - error {}\n", error);
        return error;
    }
    std::unique_ptr<BYTE[]> info(new BYTE[infoSize != 0 ? infoSize : 1]);
    if (!::CryptMsgGetParam(messageHandle, CMSG_SIGNER_CERT_INFO_PARAM, 0, info.get(), &infoSize))
    {
        error = ::GetLastError();
        QXLOG_ERROR(function, L"CryptMsgGetParam failed - error {}\n", error);
        return error;
    }

    m_Context = ::CertFindCertificateInStore(storeHandle, CertEncoding, 0, CERT_FIND_SUBJECT_CERT, info.get(), nullptr);
    if (m_Context == nullptr)
    {
        error = LastErrorOr(static_cast<DWORD>(CRYPT_E_NOT_FOUND));
        QXLOG_ERROR(function, L"CertFindCertificateInStore failed - error {}\n", error);
        return error;
    }
    return ERROR_SUCCESS;
}

DWORD CDigitalCertificate::ReadFromCERFile(const std::wstring& path)
{
    const char* const function = "QXCommon::CDigitalCertificate::ReadFromCERFile";
    if (m_Context != nullptr)
    {
        const BOOL freed = ::CertFreeCertificateContext(m_Context);
        m_Context = nullptr;
        QXLOG_INFO(function, L"m_Context should have been NULL, CertFreeCertificateContext returned [{}].\n", freed);
    }

    ATL::CHandle file;
    DWORD error = OpenForReading(function, path, file);
    if (error != ERROR_SUCCESS)
        return error;

    LARGE_INTEGER size = {};
    LARGE_INTEGER start = {};
    if (!::SetFilePointerEx(file, LARGE_INTEGER{}, &size, FILE_END) ||
        !::SetFilePointerEx(file, LARGE_INTEGER{}, &start, FILE_BEGIN))
    {
        error = ::GetLastError();
        QXLOG_ERROR(function, L"Failed to SetFilePointerEx [{}] - error {}\n", path, error);
        return error;
    }
    if (size.QuadPart > MaxCertificateFileSize)
    {
        QXLOG_ERROR(function, L"[{}] is {} bytes long, too long for a certificate\n", path, size.QuadPart);
        return ERROR_FILE_TOO_LARGE;
    }

    const DWORD length = static_cast<DWORD>(size.QuadPart);
    std::unique_ptr<BYTE[]> bytes(new BYTE[length != 0 ? length : 1]);
    DWORD total = 0;
    if (!::ReadFile(file, bytes.get(), length, &total, nullptr))
    {
        error = ::GetLastError();
        QXLOG_ERROR(function, L"Failed to ReadFile [{}] - error {}\n", path, error);
        return error;
    }

    m_Context = ::CertCreateCertificateContext(CertEncoding, bytes.get(), total);
    if (m_Context == nullptr)
    {
        error = LastErrorOr(static_cast<DWORD>(CRYPT_E_ASN1_BADTAG));
        QXLOG_ERROR(function, L"CertCreateCertificateContext failed - error {}\n", error);
        return error;
    }
    return ERROR_SUCCESS;
}

bool CDigitalCertificate::GetNumberOfCertificatesFromFile(const std::wstring& path, DWORD& count)
{
    const char* const function = "QXCommon::CDigitalCertificate::GetNumberOfCertificatesFromFile";
    count = 0;
    ATL::CHandle file;
    if (OpenForReading(function, path, file) != ERROR_SUCCESS)
        return false;
    DWORD entries = 0;
    if (!::ImageEnumerateCertificates(file, CERT_SECTION_TYPE_ANY, &entries, nullptr, 0))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Failed to ImageEnumerateCertificates [{}] - error {}\n", path, error);
        return false;
    }
    count = entries;
    return true;
}

bool CDigitalCertificate::GetRawCertificateData(const std::wstring& path, DWORD index, BYTE*& data, DWORD& length)
{
    const char* const function = "QXCommon::CDigitalCertificate::GetRawCertificateData";
    data = nullptr;
    length = 0;
    ATL::CHandle file;
    if (OpenForReading(function, path, file) != ERROR_SUCCESS)
        return false;

    DWORD required = 0;
    ::ImageGetCertificateData(file, index, nullptr, &required);
    LARGE_INTEGER fileSize = {};
    if (required < offsetof(WIN_CERTIFICATE, bCertificate) || !::GetFileSizeEx(file, &fileSize) ||
        required > fileSize.QuadPart)
    {
        const DWORD error = LastErrorOr(ERROR_INVALID_DATA);
        QXLOG_ERROR(function, L"Failed to ImageGetCertificateData [{}] entry {} - error {}\n", path, index, error);
        return false;
    }

    BYTE* buffer = new (std::nothrow) BYTE[required];
    if (buffer == nullptr)
    {
        QXLOG_ERROR(function, L"Out of memory for {} bytes - error {}\n", required,
                    static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
        return false;
    }
    DWORD written = required;
    if (!::ImageGetCertificateData(file, index, reinterpret_cast<LPWIN_CERTIFICATE>(buffer), &written))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Failed to ImageGetCertificateData [{}] entry {} - error {}\n", path, index, error);
        delete[] buffer;
        return false;
    }
    data = buffer;
    length = written < required ? written : required;
    return true;
}

HRESULT CDigitalCertificate::VerifyFileSignature(const std::wstring& path, HANDLE file)
{
    const char* const function = "QXCommon::CDigitalCertificate::VerifyFileSignature";
    WINTRUST_FILE_INFO fileInfo = {};
    fileInfo.cbStruct = WinTrustFileInfoSize;
    fileInfo.pcwszFilePath = path.c_str();
    fileInfo.hFile = file;
    fileInfo.pgKnownSubject = nullptr;

    // Embedded signatures only (no catalogs), no UI, no revocation checks at
    // this step.
    WINTRUST_DATA trustData = {};
    trustData.cbStruct = WinTrustDataSize;
    trustData.pPolicyCallbackData = nullptr;
    trustData.pSIPClientData = nullptr;
    trustData.dwUIChoice = WTD_UI_NONE;
    trustData.fdwRevocationChecks = WTD_REVOKE_NONE;
    trustData.dwUnionChoice = WTD_CHOICE_FILE;
    trustData.pFile = &fileInfo;
    trustData.dwStateAction = 0;
    trustData.hWVTStateData = nullptr;
    trustData.pwszURLReference = nullptr;
    trustData.dwProvFlags = WTD_SAFER_FLAG;
    trustData.dwUIContext = 0;

    GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
    const HRESULT result = ::WinVerifyTrust(nullptr, &action, &trustData);
    if (result != S_OK)
        QXLOG_INFO(function, L"WinVerifyTrust [{}] returned {:X}\n", path, static_cast<DWORD>(result));
    return result;
}

bool CDigitalCertificate::Verify(DWORD ignoreFlags, DWORD& chainErrorStatus, DWORD& policyError,
                                 bool allowNetworkAccess) const
{
    const char* const function = "QXCommon::CDigitalCertificate::Verify";
    chainErrorStatus = 0;
    policyError = 0;
    if (m_Context == nullptr)
    {
        QXLOG_ERROR(function, L"No certificate to verify - error {}\n", static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        return false;
    }

    CERT_CHAIN_ENGINE_CONFIG config = {};
    config.cbSize = ChainEngineConfigSize;
    config.dwFlags = (allowNetworkAccess ? CERT_CHAIN_CACHE_END_CERT : CERT_CHAIN_CACHE_ONLY_URL_RETRIEVAL) |
                     CERT_CHAIN_ENABLE_CACHE_AUTO_UPDATE;
    HCERTCHAINENGINE engineHandle = nullptr;
    if (!::CertCreateCertificateChainEngine(&config, &engineHandle))
    {
        QXLOG_ERROR(function, L"Failed to CertCreateCertificateChainEngine - error {}\n", ::GetLastError());
        return false;
    }
    ChainEnginePtr engine(engineHandle);

    // The chain is built on the default engine, not on the one made above:
    // chain building does not depend on allowNetworkAccess. Rules in the field
    // were written against this behaviour, so it is kept.
    CERT_CHAIN_PARA chainPara = {};
    chainPara.cbSize = ChainParaSize;
    chainPara.RequestedUsage.dwType = USAGE_MATCH_TYPE_AND;
    chainPara.RequestedUsage.Usage.cUsageIdentifier = 0;
    chainPara.RequestedUsage.Usage.rgpszUsageIdentifier = nullptr;
    PCCERT_CHAIN_CONTEXT chainContext = nullptr;
    if (!::CertGetCertificateChain(nullptr, m_Context, nullptr, nullptr, &chainPara, CERT_CHAIN_REVOCATION_CHECK_CHAIN,
                                   nullptr, &chainContext))
    {
        QXLOG_ERROR(function, L"Failed to CertGetCertificateChain - error {}\n", ::GetLastError());
        return false;
    }
    ChainPtr chain(chainContext);
    chainErrorStatus = chainContext->TrustStatus.dwErrorStatus;

    CERT_CHAIN_POLICY_PARA policyPara = {};
    policyPara.cbSize = ChainPolicyParaSize;
    policyPara.dwFlags = ignoreFlags;
    CERT_CHAIN_POLICY_STATUS policyStatus = {};
    policyStatus.cbSize = ChainPolicyStatusSize;
    if (!::CertVerifyCertificateChainPolicy(CERT_CHAIN_POLICY_BASE, chainContext, &policyPara, &policyStatus))
    {
        QXLOG_ERROR(function, L"Failed to CertVerifyCertificateChainPolicy - error {}\n", ::GetLastError());
        return false;
    }
    policyError = policyStatus.dwError;
    return true;
}

HRESULT CDigitalCertificate::Verify(DWORD ignoreFlags, bool allowNetworkAccess) const
{
    DWORD status = 0;
    DWORD policyError = 0;
    if (!Verify(ignoreFlags, status, policyError, allowNetworkAccess))
        return TRUST_E_SYSTEM_ERROR;
    return static_cast<HRESULT>(policyError);
}

bool CDigitalCertificate::operator==(const CDigitalCertificate& other) const
{
    if (m_Context == nullptr || other.m_Context == nullptr || m_Context->pCertInfo == nullptr ||
        other.m_Context->pCertInfo == nullptr)
        return false;
    return ::CertCompareCertificate(CertEncoding, m_Context->pCertInfo, other.m_Context->pCertInfo) != FALSE;
}

BSTR CDigitalCertificate::GetName() const
{
    return GetProperty(CERT_NAME_SIMPLE_DISPLAY_TYPE);
}

BSTR CDigitalCertificate::GetFriendlyName() const
{
    return GetProperty(CERT_NAME_FRIENDLY_DISPLAY_TYPE);
}

BSTR CDigitalCertificate::GetProperty(DWORD type) const
{
    const char* const function = "QXCommon::CDigitalCertificate::GetProperty";
    if (m_Context == nullptr)
    {
        QXLOG_ERROR(function, L"No certificate to read name type {} from - error {}\n", type,
                    static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        return nullptr;
    }
    // The length includes the terminating NUL (1 when there is no such name).
    const DWORD length = ::CertGetNameStringW(m_Context, type, 0, nullptr, nullptr, 0);
    std::wstring text(length > 0 ? length : 1, L'\0');
    if (length > 0)
        ::CertGetNameStringW(m_Context, type, 0, nullptr, text.data(), length);
    // Up to the first NUL: some platforms count a property's bytes, not its
    // characters, and pad the text with NULs.
    text.resize(std::wcslen(text.c_str()));
    BSTR name = ::SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    if (name == nullptr)
        QXLOG_ERROR(function, L"SysAllocStringLen failed - error {}\n", static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
    return name;
}

FILETIME CDigitalCertificate::GetExpirationDate() const
{
    if (m_Context == nullptr || m_Context->pCertInfo == nullptr)
        return FILETIME{};
    return m_Context->pCertInfo->NotAfter;
}

PCCERT_CONTEXT CDigitalCertificate::GetContext() const
{
    return m_Context;
}

void CDigitalCertificate::SetContext(PCCERT_CONTEXT context)
{
    const char* const function = "QXCommon::CDigitalCertificate::SetContext";
    if (context == m_Context)
        return;
    Release();
    if (context == nullptr)
        return;
    m_Context = ::CertDuplicateCertificateContext(context);
    QXLOG_INFO(function, L"CertDuplicateCertificateContext({:X}) - should be incrementing ref count\n",
               Address(m_Context));
}

bool CDigitalCertificate::Clone(const CDigitalCertificate& other)
{
    const char* const function = "QXCommon::CDigitalCertificate::Clone";
    if (this == &other)
        return m_Context != nullptr;
    Release();
    if (other.m_Context == nullptr || other.m_Context->pCertInfo == nullptr)
    {
        QXLOG_ERROR(function, L"Cannot copy other certificate as it has missing / corrupt data.\n");
        return false;
    }
    m_Context = ::CertDuplicateCertificateContext(other.m_Context);
    if (m_Context == nullptr)
    {
        QXLOG_ERROR(function, L"CertDuplicateCertificateContext failed, no information as to why.\n");
        return false;
    }
    QXLOG_INFO(function, L"CertDuplicateCertificateContext({:X}) - should be incrementing ref count\n",
               Address(m_Context));
    return true;
}

void CDigitalCertificate::Release()
{
    const char* const function = "QXCommon::CDigitalCertificate::Release";
    if (m_Context == nullptr)
        return;
    PCCERT_CONTEXT context = m_Context;
    m_Context = nullptr;
    ::CertFreeCertificateContext(context);
    QXLOG_INFO(function, L"CertFreeCertificateContext({:X}) - should be decrementing ref count\n", Address(context));
}

DWORD CDigitalCertificate::GetMaxBufSizeForSerialise() const
{
    const char* const function = "QXCommon::CDigitalCertificate::GetMaxBufSizeForSerialise";
    if (m_Context == nullptr)
    {
        QXLOG_ERROR(function, L"Cannot CertSerializeCertificateStoreElement because m_context is NULL.\n");
        return 0;
    }
    DWORD size = 0;
    if (!::CertSerializeCertificateStoreElement(m_Context, 0, nullptr, &size))
    {
        QXLOG_ERROR(function, L"Failed to CertSerializeCertificateStoreElement - error {}\n", ::GetLastError());
        return 0;
    }
    return size;
}

DWORD CDigitalCertificate::SerialiseContext(BYTE* buffer, DWORD size) const
{
    const char* const function = "QXCommon::CDigitalCertificate::SerialiseContext";
    if (buffer == nullptr)
    {
        QXLOG_ERROR(function, L"Cannot CertSerializeCertificateStoreElement because pBuffer is NULL.\n");
        return 0;
    }
    if (size == 0)
    {
        QXLOG_ERROR(function, L"Cannot CertSerializeCertificateStoreElement because dwBufSize is NULL.\n");
        return 0;
    }
    if (m_Context == nullptr)
    {
        QXLOG_ERROR(function, L"Cannot CertSerializeCertificateStoreElement because m_context is NULL.\n");
        return 0;
    }
    // The size is asked first and exactly that much is written: some
    // platforms report the whole buffer as written when it is larger.
    DWORD needed = 0;
    if (!::CertSerializeCertificateStoreElement(m_Context, 0, nullptr, &needed) || needed > size)
    {
        const DWORD error = needed > size ? static_cast<DWORD>(ERROR_MORE_DATA) : ::GetLastError();
        QXLOG_ERROR(function,
                    L"Failed to CertSerializeCertificateStoreElement ({} bytes needed, {} given) - error {}\n", needed,
                    size, error);
        return 0;
    }
    DWORD written = needed;
    if (!::CertSerializeCertificateStoreElement(m_Context, 0, buffer, &written))
    {
        QXLOG_ERROR(function, L"Failed to CertSerializeCertificateStoreElement - error {}\n", ::GetLastError());
        return 0;
    }
    written = needed;
    QXLOG_INFO(function, L"Wrote {} bytes of data to the buffer.\n", written);
    return written;
}

bool CDigitalCertificate::DeserialiseContext(DWORD size, const BYTE* buffer)
{
    const char* const function = "QXCommon::CDigitalCertificate::DeserialiseContext";
    Release();
    if (buffer == nullptr || size == 0)
    {
        QXLOG_ERROR(function, L"Failed: Unable to create certificate [{}]",
                    static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        return false;
    }

    // Encoded certificate bytes make a context directly; the serialised store
    // element that SerialiseContext writes is refused by that call and is
    // added to the store as a serialised element instead.
    Detail::CertContextPtr created(::CertCreateCertificateContext(CertEncoding, buffer, size));

    CertStorePtr store(::CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr));
    if (!store)
    {
        QXLOG_ERROR(function, L"DeserialiseContext memory store FAILED\n");
        return false;
    }

    PCCERT_CONTEXT added = nullptr;
    if (created)
    {
        if (!::CertAddCertificateContextToStore(store.get(), created.get(), CERT_STORE_ADD_ALWAYS, &added))
        {
            QXLOG_ERROR(function, L"Failed: Unable to add certificate to Store [{}]\n", ::GetLastError());
            return false;
        }
    }
    else
    {
        DWORD contextType = 0;
        const void* context = nullptr;
        if (!::CertAddSerializedElementToStore(store.get(), buffer, size, CERT_STORE_ADD_ALWAYS, 0,
                                               CERT_STORE_CERTIFICATE_CONTEXT_FLAG, &contextType, &context))
        {
            QXLOG_ERROR(function, L"Failed: Unable to create certificate [{}]", ::GetLastError());
            return false;
        }
        added = static_cast<PCCERT_CONTEXT>(context);
    }
    // The context keeps the memory store alive after the guard closes it.
    m_Context = added;
    return true;
}
} // namespace QXCommon

using QXCommon::CDigitalCertificate;

QXCOMMON_C_API CDigitalCertificate* CreateDigitalCertificateObject()
{
    return new (std::nothrow) CDigitalCertificate();
}

QXCOMMON_C_API void DeleteDigitalCertificateObject(CDigitalCertificate* certificate)
{
    delete certificate;
}

QXCOMMON_C_API BYTE* ReadFromSignedFile(CDigitalCertificate* certificate, const char* path, DWORD* size)
{
    const char* const function = "ReadFromSignedFile";
    if (size != nullptr)
        *size = 0;
    if (certificate == nullptr || path == nullptr || size == nullptr)
    {
        QXLOG_ERROR(function, L"Null argument - error {}\n", static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        return nullptr;
    }

    const int length = ::MultiByteToWideChar(CP_THREAD_ACP, 0, path, -1, nullptr, 0);
    if (length <= 0)
    {
        QXLOG_ERROR(function, L"Failed to MultiByteToWideChar - error {}\n", ::GetLastError());
        return nullptr;
    }
    std::unique_ptr<wchar_t[]> converted(new wchar_t[static_cast<size_t>(length)]);
    ::MultiByteToWideChar(CP_THREAD_ACP, 0, path, -1, converted.get(), length);
    const std::wstring widePath(converted.get());

    if (certificate->ReadFromSignedFile(widePath) != ERROR_SUCCESS)
        return nullptr;
    const DWORD needed = certificate->GetMaxBufSizeForSerialise();
    if (needed == 0)
        return nullptr;
    std::unique_ptr<BYTE[]> buffer(new (std::nothrow) BYTE[needed]);
    if (!buffer)
    {
        QXLOG_ERROR(function, L"Out of memory for {} bytes - error {}\n", needed,
                    static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
        return nullptr;
    }
    const DWORD written = certificate->SerialiseContext(buffer.get(), needed);
    if (written == 0)
        return nullptr;
    *size = written;
    return buffer.release();
}

QXCOMMON_C_API void ReleaseCertificateData(BYTE* data)
{
    delete[] data;
}
