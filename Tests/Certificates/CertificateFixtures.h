#pragma once
// The certificate and signed-file fixtures that the build makes (see
// Fixtures/make-fixtures.sh for the list) and the machine trust they need.
// Other suites (and qxbench) may include this header: they depend on the
// qxcert_fixtures target, link crypt32, and hold a TestRootTrust while they
// verify. Header only, with no other dependency.

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
    const DWORD length = GetModuleFileNameW(nullptr, module, MAX_PATH);
    std::wstring folder(module, length);
    folder.resize(folder.find_last_of(L'\\') != std::wstring::npos ? folder.find_last_of(L'\\') : 0);
    return folder + L"\\certs\\" + name;
}

inline std::vector<BYTE> ReadBytes(const std::wstring& path)
{
    std::ifstream in(path.c_str(), std::ios::binary);
    return std::vector<BYTE>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// While alive, the fixtures' root (root.cer) is trusted by the machine (its
// ROOT store) and the second root (other-root.cer) is known but not trusted
// (its CA store), so that the untrusted leaf's chain ends in an untrusted
// root rather than an unknown issuer. Both go through the machine's registry
// stores (adding to the user's ROOT store asks the user on Windows) and are
// removed on destruction. Stores are closed after each change: that is when
// the platform writes them.
class TestRootTrust
{
public:
    TestRootTrust()
    {
        Change(L"ROOT", L"root.cer", true);
        Change(L"CA", L"other-root.cer", true);
    }
    ~TestRootTrust()
    {
        Change(L"ROOT", L"root.cer", false);
        Change(L"CA", L"other-root.cer", false);
    }
    TestRootTrust(const TestRootTrust&) = delete;
    TestRootTrust& operator=(const TestRootTrust&) = delete;

    bool Ok() const { return m_ok; }

private:
    void Change(const wchar_t* storeName, const wchar_t* file, bool add)
    {
        const std::vector<BYTE> bytes = ReadBytes(FixturePath(file));
        HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_SYSTEM_REGISTRY_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE,
                                         storeName);
        if (store == nullptr || bytes.empty())
        {
            m_ok = false;
            if (store != nullptr)
                CertCloseStore(store, 0);
            return;
        }
        if (add)
        {
            m_ok = CertAddEncodedCertificateToStore(store, X509_ASN_ENCODING, bytes.data(),
                                                    static_cast<DWORD>(bytes.size()), CERT_STORE_ADD_REPLACE_EXISTING,
                                                    nullptr) != FALSE &&
                   m_ok;
        }
        else
        {
            PCCERT_CONTEXT wanted =
                CertCreateCertificateContext(X509_ASN_ENCODING, bytes.data(), static_cast<DWORD>(bytes.size()));
            PCCERT_CONTEXT found =
                wanted != nullptr ? CertFindCertificateInStore(store, X509_ASN_ENCODING, 0, CERT_FIND_EXISTING, wanted,
                                                               nullptr)
                                  : nullptr;
            if (found != nullptr)
                CertDeleteCertificateFromStore(found); // frees found
            if (wanted != nullptr)
                CertFreeCertificateContext(wanted);
        }
        CertCloseStore(store, 0);
    }

    bool m_ok = true;
};
} // namespace QXTest::Certs
