#pragma once
// The platform's own signed-file check, the peer of the library's: the
// Authenticode verification of a file by path, and one chain build checked
// with the base policy.

#include <windows.h>

#include <softpub.h>
#include <wincrypt.h>
#include <wintrust.h>

#include <string>

namespace qxbench
{
// Revocation cannot be checked offline: its unknown state is waived.
constexpr DWORD IgnoreFlags = CERT_CHAIN_POLICY_IGNORE_ALL_REV_UNKNOWN_FLAGS;

inline HRESULT PlatformTrust(const std::wstring& path)
{
    WINTRUST_FILE_INFO file = {};
    file.cbStruct = sizeof(file);
    file.pcwszFilePath = path.c_str();
    WINTRUST_DATA data = {};
    data.cbStruct = sizeof(data);
    data.dwUIChoice = WTD_UI_NONE;
    data.fdwRevocationChecks = WTD_REVOKE_NONE;
    data.dwUnionChoice = WTD_CHOICE_FILE;
    data.pFile = &file;
    data.dwProvFlags = WTD_SAFER_FLAG;
    GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
    return WinVerifyTrust(nullptr, &action, &data);
}

inline DWORD PlatformChain(PCCERT_CONTEXT context, DWORD ignoreFlags)
{
    CERT_CHAIN_PARA para = {};
    para.cbSize = sizeof(para);
    PCCERT_CHAIN_CONTEXT chain = nullptr;
    if (!CertGetCertificateChain(nullptr, context, nullptr, nullptr, &para, CERT_CHAIN_REVOCATION_CHECK_CHAIN, nullptr,
                                 &chain))
        return GetLastError();
    CERT_CHAIN_POLICY_PARA policy = {};
    policy.cbSize = sizeof(policy);
    policy.dwFlags = ignoreFlags;
    CERT_CHAIN_POLICY_STATUS status = {};
    status.cbSize = sizeof(status);
    CertVerifyCertificateChainPolicy(CERT_CHAIN_POLICY_BASE, chain, &policy, &status);
    CertFreeCertificateChain(chain);
    return status.dwError;
}
} // namespace qxbench
