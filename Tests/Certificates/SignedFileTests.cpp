// Signed-file verification against the build's fixtures: the Authenticode
// step, the chain step, the policy object that joins them, impersonation
// around the open, and what many reads and verifications leave behind.

#include "CertificateFixtures.h"
#include "QXTestSupport.h"

#include "QXCommon/DigitalCertificate.h"
#include "QXCommon/VerifySignedFile.h"

#include <gtest/gtest.h>

#include <atlsecurity.h>
#include <psapi.h>

#include <memory>
#include <string>

using QXCommon::CDigitalCertificate;
using QXCommon::VerifySignedFile;
using QXTest::Certs::FixturePath;
using QXTest::Certs::OnWine;

namespace
{
// The test CA publishes no revocation information: checks that expect a
// verdict on trust or time ignore "revocation unknown".
constexpr DWORD NoRevocation = CERT_CHAIN_POLICY_IGNORE_ALL_REV_UNKNOWN_FLAGS;
const char* const VerifyFn = "QXCommon::VerifySignedFile::Verify";
const char* const OpenFn = "QXCommon::VerifySignedFile::TryOpenFileAsUser";

// The run trusts the fixtures' root from start to end.
class TrustEnvironment : public ::testing::Environment
{
    void SetUp() override
    {
        m_trust = std::make_unique<QXTest::Certs::TestRootTrust>();
        ASSERT_TRUE(m_trust->Ok()) << "the test root could not be made trusted";
    }
    void TearDown() override { m_trust.reset(); }
    std::unique_ptr<QXTest::Certs::TestRootTrust> m_trust;
};
[[maybe_unused]] ::testing::Environment* const trustEnvironment =
    ::testing::AddGlobalTestEnvironment(new TrustEnvironment);

std::wstring Hex(HRESULT value)
{
    wchar_t text[16];
    swprintf(text, 16, L"%X", static_cast<unsigned>(value));
    return text;
}

CDigitalCertificate SignerOf(const wchar_t* file)
{
    CDigitalCertificate signer;
    signer.ReadFromSignedFile(FixturePath(file));
    return signer;
}

bool ThreadImpersonates()
{
    ATL::CAccessToken token;
    return token.GetThreadToken(TOKEN_QUERY);
}

class SignedFile : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(token.GetProcessToken(TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_IMPERSONATE)); }
    ATL::CAccessToken token;
};
} // namespace

// WinVerifyTrust's answer, by path and with a handle. Wine checks only the
// signature and the digest: expired and untrusted signers pass this step.
TEST_F(SignedFile, AuthenticodeStep)
{
    const struct
    {
        const wchar_t* file;
        HRESULT windows, wine;
    } cases[] = {
        {L"unsigned.exe", TRUST_E_NOSIGNATURE, TRUST_E_NOSIGNATURE},
        {L"signed.exe", S_OK, S_OK},
        {L"expired.exe", CERT_E_EXPIRED, S_OK},
        {L"untrusted.exe", CERT_E_UNTRUSTEDROOT, S_OK},
        {L"tampered.exe", TRUST_E_BAD_DIGEST, TRUST_E_BAD_DIGEST},
        {L"nested.exe", S_OK, S_OK},
        {L"twoentries.exe", S_OK, S_OK},
        {L"signer.cer", TRUST_E_SUBJECT_FORM_UNKNOWN, CRYPT_E_ASN1_BADTAG},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.file));
        const std::wstring path = FixturePath(c.file);
        const std::wstring expected = Hex(OnWine() ? c.wine : c.windows);
        EXPECT_EQ(expected, Hex(CDigitalCertificate::VerifyFileSignature(path, nullptr)));
        ATL::CHandle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
        EXPECT_EQ(expected, Hex(CDigitalCertificate::VerifyFileSignature(path, file)));
    }
}

// The policy object on each fixture: the step that fails gives the answer
// (the chain step's verdict alone is checked too, with and without network),
// the expiry waiver holds at both steps, ignore flags reach the chain only.
TEST_F(SignedFile, Policy)
{
    const DWORD allowUnknownCA = NoRevocation | CERT_CHAIN_POLICY_ALLOW_UNKNOWN_CA_FLAG;
    const struct
    {
        const wchar_t* file;
        bool enforceExpiry;
        DWORD ignore;
        HRESULT chain, windows, wine;
        const wchar_t* wineStep; // the step that fails on Wine
    } cases[] = {
        {L"signed.exe", true, NoRevocation, S_OK, S_OK, S_OK, nullptr},
        {L"nested.exe", true, NoRevocation, S_OK, S_OK, S_OK, nullptr},
        {L"twoentries.exe", true, NoRevocation, S_OK, S_OK, S_OK, nullptr},
        {L"unsigned.exe", true, NoRevocation, TRUST_E_SYSTEM_ERROR, TRUST_E_NOSIGNATURE, TRUST_E_NOSIGNATURE,
         L"VerifyTrust"},
        {L"tampered.exe", false, NoRevocation, S_OK, TRUST_E_BAD_DIGEST, TRUST_E_BAD_DIGEST, L"VerifyTrust"},
        {L"expired.exe", true, NoRevocation, CERT_E_EXPIRED, CERT_E_EXPIRED, CERT_E_EXPIRED, L"VerifyCertificateChain"},
        {L"expired.exe", false, NoRevocation, CERT_E_EXPIRED, S_OK, S_OK, nullptr},
        {L"expired.exe", true, NoRevocation | CERT_CHAIN_POLICY_IGNORE_ALL_NOT_TIME_VALID_FLAGS, S_OK, CERT_E_EXPIRED,
         S_OK, nullptr},
        {L"untrusted.exe", true, NoRevocation, CERT_E_UNTRUSTEDROOT, CERT_E_UNTRUSTEDROOT, CERT_E_UNTRUSTEDROOT,
         L"VerifyCertificateChain"},
        {L"untrusted.exe", true, allowUnknownCA, S_OK, CERT_E_UNTRUSTEDROOT, S_OK, nullptr},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.file) + (c.enforceExpiry ? " enforced, ignoring " : " waived, ignoring ") +
                     std::to_string(c.ignore));
        const std::wstring path = FixturePath(c.file);
        const CDigitalCertificate signer = SignerOf(c.file);
        EXPECT_EQ(Hex(c.chain), Hex(signer.Verify(c.ignore, false)));
        EXPECT_EQ(Hex(c.chain), Hex(signer.Verify(c.ignore, true)));

        QXTest::LogCapture log;
        const HRESULT expected = OnWine() ? c.wine : c.windows;
        EXPECT_EQ(Hex(expected), Hex(VerifySignedFile(c.enforceExpiry, c.ignore, false).Verify(signer, path, token)));
        EXPECT_TRUE(log.Has(4, VerifyFn,
                            L"ENTER [" + path + L"] enforceExpiryDate=" + (c.enforceExpiry ? L"true" : L"false") +
                                L", ignoreFlags=" + Hex(static_cast<HRESULT>(c.ignore)) +
                                L", allowNetworkAccess=false\n"))
            << log.Dump();
        EXPECT_EQ(expected == S_OK, log.Has(4, VerifyFn, L"EXIT: success\n"));
        const std::wstring failed = c.wineStep != nullptr ? c.wineStep : L"";
        EXPECT_TRUE(!OnWine() || failed.empty() ||
                    log.Has(1, VerifyFn, L"Failed to " + failed + L" - code " + Hex(expected) + L"\n"))
            << log.Dump();
        EXPECT_EQ(!c.enforceExpiry && path.ends_with(L"expired.exe"),
                  log.Has(4, "QXCommon::VerifySignedFile::VerifyCertificateChain",
                          L"Certificate has expired but we are not enforcing the expiry date\n"));
    }

    // An unsigned file fails before the chain step (its empty certificate is
    // never looked at); a signed one with no certificate cannot be chained.
    QXTest::LogCapture log;
    VerifySignedFile policy(true, 0, false);
    EXPECT_EQ(TRUST_E_NOSIGNATURE, policy.Verify(CDigitalCertificate(), FixturePath(L"unsigned.exe"), token));
    EXPECT_FALSE(log.HasFragment(L"No certificate to verify"));
    EXPECT_EQ(TRUST_E_SYSTEM_ERROR, policy.Verify(CDigitalCertificate(), FixturePath(L"signed.exe"), token));
    EXPECT_TRUE(log.Has(1, VerifyFn, L"Failed to VerifyCertificateChain - code 80096001\n")) << log.Dump();
    DWORD status = 1;
    DWORD policyError = 1;
    EXPECT_FALSE(CDigitalCertificate().Verify(0, status, policyError, false));
    EXPECT_EQ(0u, status | policyError);
}

// The file is opened as the user unless the thread already impersonates; the
// thread's impersonation is as it was afterwards.
TEST_F(SignedFile, OpensAsUserOrByPath)
{
    const CDigitalCertificate signer = SignerOf(L"signed.exe");
    VerifySignedFile policy(true, NoRevocation, false);
    const std::wstring path = FixturePath(L"signed.exe");
    const std::wstring missing = FixturePath(L"missing.exe");
    ATL::CAccessToken none;
    const struct
    {
        bool impersonating;
        const ATL::CAccessToken& user;
        const std::wstring& file;
        const std::wstring logText;
    } cases[] = {
        {false, token, path, L"EXIT: File opened\n"},
        {true, token, path, L"Already impersonating\n"},
        {false, none, path, L"Failed to ImpersonateLoggedOnUser - code 6\n"},
        {false, token, missing, L"Failed to CreateFileW [" + missing + L"] - code 2\n"},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.logText));
        ASSERT_TRUE(!c.impersonating || ImpersonateSelf(SecurityImpersonation));
        QXTest::LogCapture log;
        EXPECT_EQ(&c.file == &path, policy.Verify(signer, c.file, c.user) == S_OK);
        EXPECT_TRUE(log.Has(4, OpenFn, L"ENTER\n"));
        EXPECT_TRUE(log.HasFragment(c.logText)) << log.Dump();
        EXPECT_EQ(c.logText.starts_with(L"EXIT"), log.Has(L"EXIT: File opened\n"));
        EXPECT_EQ(c.impersonating, ThreadImpersonates());
        ASSERT_TRUE(!c.impersonating || RevertToSelf());
    }
}

// A thousand reads leave the handle table and the process's memory where they
// were; so do signature checks and full verifications (fewer of these: each
// takes milliseconds, a full one tens on Wine, where it makes a chain engine).
TEST_F(SignedFile, NoLeaks)
{
    VerifySignedFile policy(false, NoRevocation, false);
    const std::wstring signedPath = FixturePath(L"signed.exe");
    const std::string narrowPath = QXTest::Narrow(signedPath); // ASCII
    const CDigitalCertificate signer = SignerOf(L"signed.exe");
    auto read = [&] {
        CDigitalCertificate reader;
        EXPECT_EQ(0u, reader.ReadFromSignedFile(signedPath));
        EXPECT_EQ(0u, reader.ReadFromCERFile(FixturePath(L"signer.cer")));
        DWORD size = 0;
        BYTE* serialised = ReadFromSignedFile(&reader, narrowPath.c_str(), &size);
        EXPECT_TRUE(reader.DeserialiseContext(size, serialised));
        ReleaseCertificateData(serialised);
        BYTE* raw = nullptr;
        EXPECT_TRUE(CDigitalCertificate::GetRawCertificateData(signedPath, 0, raw, size));
        ReleaseCertificateData(raw);
        EXPECT_TRUE(CDigitalCertificate::GetNumberOfCertificatesFromFile(signedPath, size));
    };
    auto verify = [&](int round) {
        EXPECT_EQ(S_OK, CDigitalCertificate::VerifyFileSignature(signedPath, nullptr));
        if (round % 10 == 0)
        {
            EXPECT_EQ(S_OK, policy.Verify(signer, signedPath, token));
            EXPECT_NE(S_OK, policy.Verify(signer, FixturePath(L"unsigned.exe"), token));
        }
    };
    read(); // warm the platform's caches
    verify(0);
    PROCESS_MEMORY_COUNTERS_EX before = {};
    PROCESS_MEMORY_COUNTERS_EX after = {};
    auto counters = [](PROCESS_MEMORY_COUNTERS_EX& c) { return reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&c); };
    GetProcessMemoryInfo(GetCurrentProcess(), counters(before), sizeof(before));
    const uintptr_t slot = QXTest::NextHandleSlot();
    for (int i = 0; i < 1000 && !HasFailure(); ++i)
        read();
    for (int i = 0; i < 200 && !HasFailure(); ++i)
        verify(i);
    EXPECT_EQ(slot, QXTest::NextHandleSlot());
    GetProcessMemoryInfo(GetCurrentProcess(), counters(after), sizeof(after));
    // A store, message or context left behind per read would be megabytes by now.
    EXPECT_LT(static_cast<long long>(after.PrivateUsage) - static_cast<long long>(before.PrivateUsage), 1LL << 20);
}
