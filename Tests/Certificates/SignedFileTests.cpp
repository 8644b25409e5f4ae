// Signed-file verification against the build's fixtures: the Authenticode
// step, the chain step and the policy object that joins them, impersonation
// around the open, and what many reads and verifications leave behind.

#include "CertificateFixtures.h"
#include "QXLog.h"
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

namespace
{
// The test CA publishes no revocation information: every chain check that
// expects a verdict on trust or time ignores "revocation unknown".
constexpr DWORD NoRevocation = CERT_CHAIN_POLICY_IGNORE_ALL_REV_UNKNOWN_FLAGS;
constexpr DWORD AllowUnknownCA = CERT_CHAIN_POLICY_ALLOW_UNKNOWN_CA_FLAG;
constexpr DWORD IgnoreTime = CERT_CHAIN_POLICY_IGNORE_ALL_NOT_TIME_VALID_FLAGS;
// Chain status bits that depend on the platform's revocation handling.
constexpr DWORD RevocationBits = CERT_TRUST_REVOCATION_STATUS_UNKNOWN | CERT_TRUST_IS_OFFLINE_REVOCATION;

const char* const VerifyFn = "QXCommon::VerifySignedFile::Verify";
const char* const OpenFn = "QXCommon::VerifySignedFile::TryOpenFileAsUser";

bool OnWine()
{
    return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

// The run trusts the fixtures' root from start to end.
class TrustEnvironment : public ::testing::Environment
{
public:
    void SetUp() override
    {
        m_trust = std::make_unique<QXTest::Certs::TestRootTrust>();
        ASSERT_TRUE(m_trust->Ok()) << "the test root could not be made trusted";
    }
    void TearDown() override { m_trust.reset(); }

private:
    std::unique_ptr<QXTest::Certs::TestRootTrust> m_trust;
};
[[maybe_unused]] ::testing::Environment* const trustEnvironment =
    ::testing::AddGlobalTestEnvironment(new TrustEnvironment);

void OpenProcessTokenFor(ATL::CAccessToken& token)
{
    ASSERT_TRUE(token.GetProcessToken(TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_IMPERSONATE));
}

bool ThreadImpersonates()
{
    ATL::CAccessToken token;
    return token.GetThreadToken(TOKEN_QUERY);
}

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
} // namespace

// WinVerifyTrust's answer, by path and with a handle. Wine checks only the
// signature and the digest: expired and untrusted signers pass this step.
TEST(SignedFile, AuthenticodeStep)
{
    struct Case
    {
        const wchar_t* file;
        HRESULT windows;
        HRESULT wine;
    } const cases[] = {
        {L"unsigned.exe", TRUST_E_NOSIGNATURE, TRUST_E_NOSIGNATURE},
        {L"signed.exe", S_OK, S_OK},
        {L"expired.exe", CERT_E_EXPIRED, S_OK},
        {L"untrusted.exe", CERT_E_UNTRUSTEDROOT, S_OK},
        {L"tampered.exe", TRUST_E_BAD_DIGEST, TRUST_E_BAD_DIGEST},
        {L"nested.exe", S_OK, S_OK},
        {L"twoentries.exe", S_OK, S_OK},
        {L"signer.cer", TRUST_E_SUBJECT_FORM_UNKNOWN, CRYPT_E_ASN1_BADTAG},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.file));
        const std::wstring path = FixturePath(c.file);
        const HRESULT expected = OnWine() ? c.wine : c.windows;
        EXPECT_EQ(Hex(expected), Hex(CDigitalCertificate::VerifyFileSignature(path, nullptr)));
        ATL::CHandle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
        ASSERT_NE(INVALID_HANDLE_VALUE, static_cast<HANDLE>(file));
        EXPECT_EQ(Hex(expected), Hex(CDigitalCertificate::VerifyFileSignature(path, file)));
    }
    EXPECT_NE(S_OK, CDigitalCertificate::VerifyFileSignature(FixturePath(L"missing.exe"), nullptr));
}

// The chain of the signer read from each file, under the base policy with the
// caller's ignore flags. The network setting does not change the answer.
TEST(SignedFile, ChainStep)
{
    struct Case
    {
        const wchar_t* file;
        DWORD ignore;
        DWORD status; // without the revocation bits
        HRESULT policy;
    } const cases[] = {
        {L"signed.exe", NoRevocation, 0, S_OK},
        {L"nested.exe", NoRevocation, 0, S_OK},
        {L"expired.exe", NoRevocation, CERT_TRUST_IS_NOT_TIME_VALID, CERT_E_EXPIRED},
        {L"expired.exe", NoRevocation | IgnoreTime, CERT_TRUST_IS_NOT_TIME_VALID, S_OK},
        {L"untrusted.exe", NoRevocation, CERT_TRUST_IS_UNTRUSTED_ROOT, CERT_E_UNTRUSTEDROOT},
        {L"untrusted.exe", NoRevocation | AllowUnknownCA, CERT_TRUST_IS_UNTRUSTED_ROOT, S_OK},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.file) + " ignore " + std::to_string(c.ignore));
        const CDigitalCertificate signer = SignerOf(c.file);
        ASSERT_NE(nullptr, signer.GetContext());
        for (bool network : {false, true})
        {
            DWORD status = 0xFFFFFFFF;
            DWORD policy = 0xFFFFFFFF;
            ASSERT_TRUE(signer.Verify(c.ignore, status, policy, network));
            EXPECT_EQ(c.status, status & ~RevocationBits);
            EXPECT_EQ(Hex(c.policy), Hex(static_cast<HRESULT>(policy)));
            EXPECT_EQ(Hex(c.policy), Hex(signer.Verify(c.ignore, network)));
        }
    }

    QXTest::LogCapture log;
    CDigitalCertificate empty;
    DWORD status = 1;
    DWORD policy = 1;
    EXPECT_FALSE(empty.Verify(0, status, policy, false));
    EXPECT_EQ(0u, status);
    EXPECT_EQ(0u, policy);
    EXPECT_EQ(Hex(TRUST_E_SYSTEM_ERROR), Hex(empty.Verify(0, false)));
}

// The policy object: the step that fails decides the answer, the expiry
// waiver applies at both steps, ignore flags reach the chain step only.
TEST(SignedFile, Policy)
{
    const bool wine = OnWine();
    struct Case
    {
        const wchar_t* file;
        bool enforceExpiry;
        DWORD ignore;
        HRESULT windows;
        HRESULT wine;
        const wchar_t* failedStep; // "VerifyTrust" or "VerifyCertificateChain" on Wine, null: passes
    } const cases[] = {
        {L"signed.exe", true, NoRevocation, S_OK, S_OK, nullptr},
        {L"nested.exe", true, NoRevocation, S_OK, S_OK, nullptr},
        {L"twoentries.exe", true, NoRevocation, S_OK, S_OK, nullptr},
        {L"unsigned.exe", true, NoRevocation, TRUST_E_NOSIGNATURE, TRUST_E_NOSIGNATURE, L"VerifyTrust"},
        {L"tampered.exe", false, NoRevocation, TRUST_E_BAD_DIGEST, TRUST_E_BAD_DIGEST, L"VerifyTrust"},
        {L"expired.exe", true, NoRevocation, CERT_E_EXPIRED, CERT_E_EXPIRED, L"VerifyCertificateChain"},
        {L"expired.exe", false, NoRevocation, S_OK, S_OK, nullptr},
        {L"untrusted.exe", true, NoRevocation, CERT_E_UNTRUSTEDROOT, CERT_E_UNTRUSTEDROOT, L"VerifyCertificateChain"},
        // WinVerifyTrust knows nothing of the ignore flags.
        {L"untrusted.exe", true, NoRevocation | AllowUnknownCA, CERT_E_UNTRUSTEDROOT, S_OK, nullptr},
    };
    ATL::CAccessToken token;
    OpenProcessTokenFor(token);
    for (const Case& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.file) + (c.enforceExpiry ? " enforced" : " waived"));
        const std::wstring path = FixturePath(c.file);
        const CDigitalCertificate signer = SignerOf(c.file);
        QXTest::LogCapture log;
        VerifySignedFile policy(c.enforceExpiry, c.ignore, false);
        const HRESULT expected = wine ? c.wine : c.windows;
        EXPECT_EQ(Hex(expected), Hex(policy.Verify(signer, path, token)));

        EXPECT_TRUE(log.Has(4, VerifyFn,
                            L"ENTER [" + path + L"] enforceExpiryDate=" + (c.enforceExpiry ? L"true" : L"false") +
                                L", ignoreFlags=" + Hex(static_cast<HRESULT>(c.ignore)) +
                                L", allowNetworkAccess=false\n"))
            << log.Dump();
        EXPECT_EQ(expected == S_OK, log.Has(4, VerifyFn, L"EXIT: success\n"));
        if (wine && c.failedStep != nullptr)
        {
            EXPECT_TRUE(log.Has(1, VerifyFn,
                                std::wstring(L"Failed to ") + c.failedStep + L" - code " + Hex(expected) + L"\n"))
                << log.Dump();
        }
        const bool waived = !c.enforceExpiry && std::wstring(c.file) == L"expired.exe";
        EXPECT_EQ(waived, log.Has(4, "QXCommon::VerifySignedFile::VerifyCertificateChain",
                                  L"Certificate has expired but we are not enforcing the expiry date\n"))
            << log.Dump();
    }

    // An unsigned file fails before the chain step: the empty certificate
    // given with it is never looked at.
    QXTest::LogCapture log;
    VerifySignedFile policy(true, 0, false);
    EXPECT_EQ(Hex(TRUST_E_NOSIGNATURE), Hex(policy.Verify(CDigitalCertificate(), FixturePath(L"unsigned.exe"), token)));
    EXPECT_FALSE(log.HasFragment(L"No certificate to verify")) << log.Dump();
    // A signed file with no certificate to check: the chain cannot be built.
    EXPECT_EQ(Hex(TRUST_E_SYSTEM_ERROR), Hex(policy.Verify(CDigitalCertificate(), FixturePath(L"signed.exe"), token)));
    EXPECT_TRUE(log.Has(1, VerifyFn, L"Failed to VerifyCertificateChain - code 80096001\n")) << log.Dump();

    // Copies keep the settings.
    VerifySignedFile waiving(false, NoRevocation, true);
    VerifySignedFile copy(policy);
    copy = waiving;
    EXPECT_EQ(S_OK, copy.Verify(SignerOf(L"expired.exe"), FixturePath(L"expired.exe"), token));
}

// The file is opened as the user unless the thread already impersonates; the
// thread's impersonation is as it was afterwards.
TEST(SignedFile, OpensAsUserOrByPath)
{
    ATL::CAccessToken token;
    OpenProcessTokenFor(token);
    const CDigitalCertificate signer = SignerOf(L"signed.exe");
    VerifySignedFile policy(true, NoRevocation, false);
    const std::wstring path = FixturePath(L"signed.exe");
    ASSERT_FALSE(ThreadImpersonates());

    {
        QXTest::LogCapture log;
        EXPECT_EQ(S_OK, policy.Verify(signer, path, token));
        EXPECT_TRUE(log.Has(4, OpenFn, L"ENTER\n"));
        EXPECT_TRUE(log.Has(4, OpenFn, L"EXIT: File opened\n")) << log.Dump();
        EXPECT_FALSE(log.Has(L"Already impersonating\n"));
        EXPECT_FALSE(ThreadImpersonates());
    }
    {
        ASSERT_TRUE(ImpersonateSelf(SecurityImpersonation));
        QXTest::LogCapture log;
        EXPECT_EQ(S_OK, policy.Verify(signer, path, token));
        EXPECT_TRUE(log.Has(4, OpenFn, L"Already impersonating\n")) << log.Dump();
        EXPECT_FALSE(log.HasFragment(L"File opened"));
        EXPECT_TRUE(ThreadImpersonates());
        ASSERT_TRUE(RevertToSelf());
    }
    {
        // No usable token: the platform opens the file by path.
        QXTest::LogCapture log;
        ATL::CAccessToken none;
        EXPECT_EQ(S_OK, policy.Verify(signer, path, none));
        EXPECT_TRUE(log.Has(1, OpenFn, L"Failed to ImpersonateLoggedOnUser - code 6\n")) << log.Dump();
        EXPECT_FALSE(ThreadImpersonates());
    }
    {
        // The user cannot open it: logged, reverted, the platform answers.
        QXTest::LogCapture log;
        const std::wstring missing = FixturePath(L"missing.exe");
        EXPECT_NE(S_OK, policy.Verify(signer, missing, token));
        EXPECT_TRUE(log.Has(1, OpenFn, L"Failed to CreateFileW [" + missing + L"] - code 2\n")) << log.Dump();
        EXPECT_FALSE(ThreadImpersonates());
    }
}

// A thousand reads leave the handle table and the process's memory where they
// were; so do signature checks and full verifications (fewer of these: each
// takes milliseconds, a full one tens on Wine, where it makes a chain engine).
TEST(SignedFile, NoLeaks)
{
    ATL::CAccessToken token;
    OpenProcessTokenFor(token);
    VerifySignedFile policy(false, NoRevocation, false);
    const std::wstring signedPath = FixturePath(L"signed.exe");
    const std::string narrowPath = QXTest::Narrow(signedPath); // ASCII
    auto reads = [&] {
        CDigitalCertificate signer;
        EXPECT_EQ(0u, signer.ReadFromSignedFile(signedPath));
        CDigitalCertificate leaf;
        EXPECT_EQ(0u, leaf.ReadFromCERFile(FixturePath(L"signer.cer")));
        DWORD size = 0;
        BYTE* serialised = ReadFromSignedFile(&leaf, narrowPath.c_str(), &size);
        EXPECT_TRUE(leaf.DeserialiseContext(size, serialised));
        ReleaseCertificateData(serialised);
        BYTE* raw = nullptr;
        EXPECT_TRUE(CDigitalCertificate::GetRawCertificateData(signedPath, 0, raw, size));
        ReleaseCertificateData(raw);
        EXPECT_TRUE(CDigitalCertificate::GetNumberOfCertificatesFromFile(signedPath, size));
    };
    const CDigitalCertificate signer = SignerOf(L"signed.exe");
    auto verifications = [&](int round) {
        EXPECT_EQ(S_OK, CDigitalCertificate::VerifyFileSignature(signedPath, nullptr));
        if (round % 10 != 0)
            return;
        EXPECT_EQ(S_OK, policy.Verify(signer, signedPath, token));
        EXPECT_NE(S_OK, policy.Verify(signer, FixturePath(L"unsigned.exe"), token));
    };
    for (int i = 0; i < 5; ++i)
    {
        reads(); // warm the platform's caches
        verifications(0);
    }

    PROCESS_MEMORY_COUNTERS_EX before = {};
    GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&before), sizeof(before));
    const uintptr_t slot = QXTest::NextHandleSlot();
    for (int i = 0; i < 1000 && !HasFailure(); ++i)
        reads();
    for (int i = 0; i < 200 && !HasFailure(); ++i)
        verifications(i);
    EXPECT_EQ(slot, QXTest::NextHandleSlot());
    PROCESS_MEMORY_COUNTERS_EX after = {};
    GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&after), sizeof(after));
    // A store, message or context left behind per read would be megabytes by now.
    EXPECT_LT(static_cast<long long>(after.PrivateUsage) - static_cast<long long>(before.PrivateUsage), 1LL << 20);
}
