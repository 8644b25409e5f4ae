#pragma once
// CDigitalCertificate: one X.509 certificate, held as a platform certificate
// context (reference-counted by the platform; the object owns one reference).
// It is read from the embedded signature of a signed file or from a DER
// certificate file, compared (issuer and serial number decide), verified as a
// chain under a caller's policy flags and serialised for transport between
// processes. Also: the raw entries of a PE image's certificate table and the
// Authenticode check of a file. Objects are used by one thread at a time.
//
// The C functions at the end serve callers that cannot use the class.

#include "QXCommonAPI.h"

#include <windows.h>
#include <wincrypt.h>
#include <oleauto.h>

#include <string>

namespace QXCommon
{
class QXCOMMON_API CDigitalCertificate
{
public:
    CDigitalCertificate();
    // Copies take their own reference to the same context; copying an empty
    // object gives an empty object.
    CDigitalCertificate(const CDigitalCertificate& other);
    CDigitalCertificate& operator=(const CDigitalCertificate& other);
    virtual ~CDigitalCertificate();

    // The signer certificate (first signer) of the file's embedded signature.
    // 0 on success, otherwise the system error (the object is then empty).
    DWORD ReadFromSignedFile(const std::wstring& path);
    // A DER-encoded certificate file. 0 or the system error.
    DWORD ReadFromCERFile(const std::wstring& path);

    // The number of entries in a PE image's certificate table.
    static bool GetNumberOfCertificatesFromFile(const std::wstring& path, DWORD& count);
    // Entry index of the certificate table, as stored (WIN_CERTIFICATE header
    // and data), in a new buffer that the caller frees with
    // ReleaseCertificateData. data is null and length 0 on failure.
    static bool GetRawCertificateData(const std::wstring& path, DWORD index, BYTE*& data, DWORD& length);

    // WinVerifyTrust (generic Authenticode action, no UI, no revocation
    // checks, embedded signatures only) on the file; file may be null, then
    // the file is opened by path. 0 when the signature and digest verify,
    // otherwise the platform's result (TRUST_E_NOSIGNATURE, ...).
    static HRESULT VerifyFileSignature(const std::wstring& path, HANDLE file);

    // Builds the certificate's chain (revocation checked along the chain) and
    // checks it with the base policy, ignoring what ignoreFlags
    // (CERT_CHAIN_POLICY_*_FLAG) waive. chainErrorStatus receives the chain's
    // CERT_TRUST_* error bits and policyError the policy's verdict (0 =
    // trusted). False when the chain could not be built or checked.
    // allowNetworkAccess chooses the URL-retrieval mode of a chain engine that
    // is created for the call but not used for the chain (see the source).
    bool Verify(DWORD ignoreFlags, DWORD& chainErrorStatus, DWORD& policyError, bool allowNetworkAccess) const;
    // The policy error, or TRUST_E_SYSTEM_ERROR when the chain could not be
    // built or checked.
    HRESULT Verify(DWORD ignoreFlags, bool allowNetworkAccess) const;

    // True when both hold a certificate with the same issuer and serial number.
    // Two empty objects are not equal.
    bool operator==(const CDigitalCertificate& other) const;
    bool operator!=(const CDigitalCertificate& other) const { return !(*this == other); }

    // The simple display name (the subject's common name, or the best other
    // part of the subject) and the friendly name (the context's friendly-name
    // property when set, otherwise the display name). The caller frees the
    // string with SysFreeString; null when the object is empty.
    BSTR GetName() const;
    BSTR GetFriendlyName() const;
    // The certificate's NotAfter time (UTC); zero when empty.
    FILETIME GetExpirationDate() const;

    // The held context (null when empty); it stays owned by the object.
    PCCERT_CONTEXT GetContext() const;
    // Holds a reference of its own to context (the caller keeps its own);
    // null empties the object.
    void SetContext(PCCERT_CONTEXT context);
    // Takes a reference to other's context. False, and empty, when other has
    // no certificate.
    bool Clone(const CDigitalCertificate& other);
    // Drops the held context.
    void Release();

    // Serialised form: a serialised store element of the context (it keeps
    // the context's properties). GetMaxBufSizeForSerialise gives its size
    // (0 when empty), SerialiseContext writes it and returns the bytes
    // written (0 on failure). DeserialiseContext accepts that form and also a
    // plain DER certificate.
    DWORD GetMaxBufSizeForSerialise() const;
    DWORD SerialiseContext(BYTE* buffer, DWORD size) const;
    bool DeserialiseContext(DWORD size, const BYTE* buffer);

private:
    BSTR GetProperty(DWORD type) const;

    PCCERT_CONTEXT m_Context;
};
} // namespace QXCommon

// A new empty certificate object (null when out of memory); destroy it with
// DeleteDigitalCertificateObject.
QXCOMMON_C_API QXCommon::CDigitalCertificate* CreateDigitalCertificateObject();
// Destroys an object made by CreateDigitalCertificateObject; null is ignored.
QXCOMMON_C_API void DeleteDigitalCertificateObject(QXCommon::CDigitalCertificate* certificate);
// Reads the signer certificate of the file (path in the calling thread's ANSI
// code page) into the object and returns it serialised in a new buffer, its
// length in *size. Null with *size 0 when an argument is null or the file has
// no readable signer. Free the buffer with ReleaseCertificateData.
QXCOMMON_C_API BYTE* ReadFromSignedFile(QXCommon::CDigitalCertificate* certificate, const char* path, DWORD* size);
// Frees a buffer returned by ReadFromSignedFile or
// CDigitalCertificate::GetRawCertificateData; null is ignored.
QXCOMMON_C_API void ReleaseCertificateData(BYTE* data);
