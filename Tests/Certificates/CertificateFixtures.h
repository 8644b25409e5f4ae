#pragma once
// The fixtures the build makes (Fixtures/make-fixtures.sh) and the machine trust they need, for any
// suite (and qxbench) that depends on qxcert_fixtures, links crypt32 and holds a TestRootTrust.

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

inline bool OnWine() { return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr; }

// While alive, the machine's registry stores (the user's ROOT store would ask
// the user on Windows) trust root.cer and know other-root.cer untrusted (CA),
// so that the untrusted leaf's chain ends in an untrusted root rather than at
// an unknown issuer.
class TestRootTrust
{
public:
    TestRootTrust() : m_ok(Change(L"ROOT", L"root.cer", true) && Change(L"CA", L"other-root.cer", true)) {}
    ~TestRootTrust() { Change(L"ROOT", L"root.cer", false); Change(L"CA", L"other-root.cer", false); }
    TestRootTrust(const TestRootTrust&) = delete;
    TestRootTrust& operator=(const TestRootTrust&) = delete;
    bool Ok() const { return m_ok; }

private:
    // Adds the certificate, or deletes the copy that an add "using existing" hands back.
    static bool Change(const wchar_t* storeName, const wchar_t* file, bool add)
    {
        const std::vector<BYTE> der = ReadBytes(FixturePath(file));
        HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_SYSTEM_REGISTRY_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, storeName);
        PCCERT_CONTEXT stored = nullptr;
        const bool done = store != nullptr &&
                          CertAddEncodedCertificateToStore(store, X509_ASN_ENCODING, der.data(), static_cast<DWORD>(der.size()),
                                                           add ? CERT_STORE_ADD_REPLACE_EXISTING : CERT_STORE_ADD_USE_EXISTING, &stored) &&
                          (add ? CertFreeCertificateContext(stored) : CertDeleteCertificateFromStore(stored)); // either frees it
        if (store != nullptr)
            CertCloseStore(store, 0);
        return done;
    }

    bool m_ok;
};
} // namespace QXTest::Certs
