#pragma once
// The certificate and signed-file fixtures that the build makes (listed in
// Fixtures/make-fixtures.sh) and the machine trust they need. Header only:
// other suites (and qxbench) may include it; they depend on the
// qxcert_fixtures target, link crypt32 and hold a TestRootTrust while they
// verify.

#include <windows.h>
#include <wincrypt.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace QXTest::Certs
{
// <folder of the running program>\certs\<name>, e.g. L"signed.exe", L"signer.cer".
inline std::wstring FixturePath(const std::wstring& name)
{
    wchar_t module[MAX_PATH] = {};
    const std::wstring program(module, GetModuleFileNameW(nullptr, module, MAX_PATH));
    return program.substr(0, program.find_last_of(L'\\')) + L"\\certs\\" + name;
}

inline std::vector<BYTE> ReadBytes(const std::wstring& path)
{
    std::ifstream in(path.c_str(), std::ios::binary);
    return std::vector<BYTE>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline bool OnWine()
{
    return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

// While alive, the fixtures' root (root.cer) is trusted by the machine (its
// ROOT store) and the second root (other-root.cer) is known but not trusted
// (its CA store), so that the untrusted leaf's chain ends in an untrusted root
// rather than at an unknown issuer. Both go through the machine's registry
// stores (adding to the user's ROOT store asks the user on Windows), which
// the platform writes when they are closed, and are removed on destruction.
class TestRootTrust
{
public:
    TestRootTrust() : m_ok(Change(L"ROOT", L"root.cer", true) && Change(L"CA", L"other-root.cer", true)) {}
    ~TestRootTrust()
    {
        Change(L"ROOT", L"root.cer", false);
        Change(L"CA", L"other-root.cer", false);
    }
    TestRootTrust(const TestRootTrust&) = delete;
    TestRootTrust& operator=(const TestRootTrust&) = delete;

    bool Ok() const { return m_ok; }

private:
    static bool Change(const wchar_t* storeName, const wchar_t* file, bool add)
    {
        const std::vector<BYTE> bytes = ReadBytes(FixturePath(file));
        PCCERT_CONTEXT certificate =
            CertCreateCertificateContext(X509_ASN_ENCODING, bytes.data(), static_cast<DWORD>(bytes.size()));
        HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_SYSTEM_REGISTRY_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, storeName);
        PCCERT_CONTEXT found = certificate == nullptr || store == nullptr || add ? nullptr
            : CertFindCertificateInStore(store, X509_ASN_ENCODING, 0, CERT_FIND_EXISTING, certificate, nullptr);
        const bool done = add ? certificate != nullptr && store != nullptr &&
                                    CertAddCertificateContextToStore(store, certificate, CERT_STORE_ADD_REPLACE_EXISTING, nullptr)
                              : found != nullptr && CertDeleteCertificateFromStore(found); // frees found
        if (store != nullptr)
            CertCloseStore(store, 0);
        if (certificate != nullptr)
            CertFreeCertificateContext(certificate);
        return done;
    }

    bool m_ok;
};
} // namespace QXTest::Certs
