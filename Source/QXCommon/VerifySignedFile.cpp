// VerifySignedFile: the Authenticode check of a file (opened as the user)
// followed by the chain check of a certificate, under one policy.

#include "QXCommon/VerifySignedFile.h"

#include "QXCommon/ImpersonationSaver.h"

#include "QXLog.h"

#include <wintrust.h>

namespace QXCommon
{
namespace
{
// Sharing while the file is verified: others may read it and delete it.
constexpr DWORD VerifyShareMode = FILE_SHARE_READ | FILE_SHARE_DELETE;
} // namespace

VerifySignedFile::VerifySignedFile(bool enforceExpiryDate, DWORD ignoreFlags, bool allowNetworkAccess)
    : m_enforceExpiryDate(enforceExpiryDate), m_ignoreFlags(ignoreFlags), m_allowNetworkAccess(allowNetworkAccess)
{
}

VerifySignedFile::VerifySignedFile(const VerifySignedFile& other) = default;
VerifySignedFile& VerifySignedFile::operator=(const VerifySignedFile& other) = default;
VerifySignedFile::~VerifySignedFile() = default;

HRESULT VerifySignedFile::Verify(const CDigitalCertificate& certificate, const std::wstring& path,
                                 const ATL::CAccessToken& userToken)
{
    const char* const function = "QXCommon::VerifySignedFile::Verify";
    QXLOG_INFO(function, L"ENTER [{}] enforceExpiryDate={}, ignoreFlags={:X}, allowNetworkAccess={}\n", path,
               m_enforceExpiryDate, m_ignoreFlags, m_allowNetworkAccess);

    HRESULT result = VerifyTrust(path, userToken);
    if (result != S_OK)
    {
        QXLOG_ERROR(function, L"Failed to VerifyTrust - code {:X}\n", static_cast<DWORD>(result));
        return result;
    }
    result = VerifyCertificateChain(certificate);
    if (result != S_OK)
    {
        QXLOG_ERROR(function, L"Failed to VerifyCertificateChain - code {:X}\n", static_cast<DWORD>(result));
        return result;
    }
    QXLOG_INFO(function, L"EXIT: success\n");
    return S_OK;
}

HRESULT VerifySignedFile::VerifyTrust(const std::wstring& path, const ATL::CAccessToken& userToken)
{
    const char* const function = "QXCommon::VerifySignedFile::VerifyTrust";
    ATL::CHandle file;
    TryOpenFileAsUser(path, userToken, file);
    HRESULT result = CDigitalCertificate::VerifyFileSignature(path, file);
    if (result == CERT_E_EXPIRED && !m_enforceExpiryDate)
    {
        QXLOG_INFO(function, L"Certificate has expired but we are not enforcing the expiry date\n");
        result = S_OK;
    }
    return result;
}

HRESULT VerifySignedFile::VerifyCertificateChain(const CDigitalCertificate& certificate)
{
    const char* const function = "QXCommon::VerifySignedFile::VerifyCertificateChain";
    DWORD chainStatus = 0;
    DWORD policyError = 0;
    if (!certificate.Verify(m_ignoreFlags, chainStatus, policyError, m_allowNetworkAccess))
        return TRUST_E_SYSTEM_ERROR;
    HRESULT result = static_cast<HRESULT>(policyError);
    if (result == CERT_E_EXPIRED && !m_enforceExpiryDate)
    {
        QXLOG_INFO(function, L"Certificate has expired but we are not enforcing the expiry date\n");
        result = S_OK;
    }
    return result;
}

void VerifySignedFile::TryOpenFileAsUser(const std::wstring& path, const ATL::CAccessToken& userToken,
                                         ATL::CHandle& file)
{
    const char* const function = "QXCommon::VerifySignedFile::TryOpenFileAsUser";
    QXLOG_INFO(function, L"ENTER\n");
    if (CurrentlyImpersonating())
    {
        // The platform opens the file by path in the thread's current context.
        QXLOG_INFO(function, L"Already impersonating\n");
        return;
    }

    {
        // The thread impersonates nothing here: the guard reverts it to
        // itself when the file has been opened (or could not be).
        CImpersonationSaver impersonation;
        if (impersonation.GetCaptureError() != ERROR_SUCCESS)
            return; // the path is opened in the thread's own context
        const BOOL impersonated = ::ImpersonateLoggedOnUser(userToken.GetHandle());
        const DWORD error = ::GetLastError();
        impersonation.SetImpersonationOccurred(impersonated);
        if (!impersonated)
        {
            QXLOG_ERROR(function, L"Failed to ImpersonateLoggedOnUser - code {}\n", error);
            return;
        }
        HANDLE handle = ::CreateFileW(path.c_str(), FILE_GENERIC_READ, VerifyShareMode, nullptr, OPEN_EXISTING,
                                      FILE_ATTRIBUTE_NORMAL, nullptr);
        if (handle == INVALID_HANDLE_VALUE)
        {
            QXLOG_ERROR(function, L"Failed to CreateFileW [{}] - code {}\n", path, ::GetLastError());
            return;
        }
        file.Attach(handle);
    }
    QXLOG_INFO(function, L"EXIT: File opened\n");
}

bool VerifySignedFile::CurrentlyImpersonating()
{
    // Only ERROR_NO_TOKEN means the thread has no token of its own: a token
    // that cannot be opened (an anonymous-level one above all) is still being
    // impersonated.
    HANDLE token = nullptr;
    if (!::OpenThreadToken(::GetCurrentThread(), 0, TRUE, &token))
        return ::GetLastError() != ERROR_NO_TOKEN;
    ATL::CHandle closeAtOnce(token);
    return true;
}
} // namespace QXCommon
