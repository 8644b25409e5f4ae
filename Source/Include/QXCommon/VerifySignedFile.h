#pragma once
// VerifySignedFile: the policy under which a file counts as validly signed.
// Verify checks the file's Authenticode signature (opening the file as the
// given user, so that a service can check files on shares only the user can
// read) and then the certificate's chain under the policy's flags. The
// certificate is not compared with the file's signer here: callers pair them,
// typically by reading the certificate from the same file or by comparing it
// with a rule's certificate.

#include "QXCommonAPI.h"

#include "DigitalCertificate.h"

#include <atlsecurity.h>

#include <string>

namespace QXCommon
{
class QXCOMMON_API VerifySignedFile
{
public:
    // enforceExpiryDate false accepts an expired certificate (CERT_E_EXPIRED)
    // at both steps; ignoreFlags are the chain-policy flags
    // (CERT_CHAIN_POLICY_*_FLAG) that the chain check ignores;
    // allowNetworkAccess chooses the chain engine's URL-retrieval mode.
    VerifySignedFile(bool enforceExpiryDate, DWORD ignoreFlags, bool allowNetworkAccess);
    VerifySignedFile(const VerifySignedFile& other);
    VerifySignedFile& operator=(const VerifySignedFile& other);
    virtual ~VerifySignedFile();

    // 0 when the file's signature verifies and the certificate's chain passes
    // the policy; otherwise the platform's result of the step that failed
    // (TRUST_E_SYSTEM_ERROR when the chain could not be built). When the
    // calling thread already impersonates, the file is opened by the platform
    // in that context and userToken is not used.
    HRESULT Verify(const CDigitalCertificate& certificate, const std::wstring& path,
                   const ATL::CAccessToken& userToken);

private:
    HRESULT VerifyTrust(const std::wstring& path, const ATL::CAccessToken& userToken);
    HRESULT VerifyCertificateChain(const CDigitalCertificate& certificate);
    static void TryOpenFileAsUser(const std::wstring& path, const ATL::CAccessToken& userToken, ATL::CHandle& file);
    static bool CurrentlyImpersonating();

    bool m_enforceExpiryDate;
    DWORD m_ignoreFlags;
    bool m_allowNetworkAccess;
};
} // namespace QXCommon
