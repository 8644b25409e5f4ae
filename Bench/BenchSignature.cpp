// Signed-file verification: VerifySignedFile::Verify on the build's signed
// fixture (bin\certs\signed.exe, its root trusted for the run) against the
// platform's own steps called directly on the same file and certificate:
// WinVerifyTrust, then one chain build and base-policy check. The library
// adds the open as the user, the chain engine it creates and frees, and its
// logging checks. The pieces are also timed alone, to show where the time
// goes.

#include "Bench.h"
#include "PlatformPeers.h"

#include "CertificateFixtures.h"

#include "QXCommon/DigitalCertificate.h"
#include "QXCommon/VerifySignedFile.h"

#include <atlsecurity.h>
#include <softpub.h>
#include <wintrust.h>

#include <cstdio>

namespace
{
using qxbench::IgnoreFlags;
using qxbench::PlatformChain;
using qxbench::PlatformTrust;

// A chain engine made and freed as the library's chain check does.
void PlatformEngine()
{
    CERT_CHAIN_ENGINE_CONFIG config = {};
    config.cbSize = 80;
    config.dwFlags = CERT_CHAIN_CACHE_ONLY_URL_RETRIEVAL | CERT_CHAIN_ENABLE_CACHE_AUTO_UPDATE;
    HCERTCHAINENGINE engine = nullptr;
    if (CertCreateCertificateChainEngine(&config, &engine))
        CertFreeCertificateChainEngine(engine);
}

void Run(qxbench::Runner& runner)
{
    const std::wstring path = QXTest::Certs::FixturePath(L"signed.exe");
    QXTest::Certs::TestRootTrust trust;
    QXCommon::CDigitalCertificate signer;
    if (!trust.Ok() || signer.ReadFromSignedFile(path) != 0)
    {
        fputws((L"signature: " + path + L" is missing or its root cannot be trusted (build the tests first)\n").c_str(),
               stdout);
        return;
    }
    ATL::CAccessToken token;
    token.GetProcessToken(TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_IMPERSONATE);
    QXCommon::VerifySignedFile policy(true, IgnoreFlags, false);
    if (policy.Verify(signer, path, token) != S_OK || PlatformTrust(path) != S_OK ||
        PlatformChain(signer.GetContext(), IgnoreFlags) != 0)
    {
        fputws(L"signature: the fixture does not verify here; not timed\n", stdout);
        return;
    }

    runner.Compare(
        L"VerifySignedFile::Verify", L"WinVerifyTrust + chain + policy",
        [&] { qxbench::KeepAlive(policy.Verify(signer, path, token)); },
        [&] {
            qxbench::KeepAlive(PlatformTrust(path));
            qxbench::KeepAlive(PlatformChain(signer.GetContext(), IgnoreFlags));
        },
        1, L"signed.exe, trusted root, expiry enforced, revocation unknown ignored");
    runner.Compare(
        L"VerifySignedFile::Verify", L"the same + chain engine made and freed",
        [&] { qxbench::KeepAlive(policy.Verify(signer, path, token)); },
        [&] {
            qxbench::KeepAlive(PlatformTrust(path));
            PlatformEngine();
            qxbench::KeepAlive(PlatformChain(signer.GetContext(), IgnoreFlags));
        },
        1, L"what the library adds besides the engine");
    runner.Compare(L"CDigitalCertificate::Verify", L"chain + policy",
                   [&] { qxbench::KeepAlive(signer.Verify(IgnoreFlags, false)); },
                   [&] { qxbench::KeepAlive(PlatformChain(signer.GetContext(), IgnoreFlags)); }, 1,
                   L"the library also makes and frees a chain engine");
    runner.Compare(L"chain engine made and freed", L"", [&] { PlatformEngine(); }, {}, 1,
                   L"CertCreateCertificateChainEngine with no stores, then CertFreeCertificateChainEngine");
    runner.Compare(L"VerifyFileSignature", L"WinVerifyTrust",
                   [&] { qxbench::KeepAlive(QXCommon::CDigitalCertificate::VerifyFileSignature(path, nullptr)); },
                   [&] { qxbench::KeepAlive(PlatformTrust(path)); }, 1, L"by path");
    runner.Compare(L"ReadFromSignedFile", L"",
                   [&] {
                       QXCommon::CDigitalCertificate reader;
                       qxbench::KeepAlive(reader.ReadFromSignedFile(path));
                   },
                   {}, 1, L"the first signer of signed.exe");
}
} // namespace

QXBENCH_CASE(L"signature", &Run);
