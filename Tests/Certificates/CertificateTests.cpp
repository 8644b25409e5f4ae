// Certificates and signed files against the fixtures the build makes, their
// root trusted by the machine for the whole run.

#include "CertificateFixtures.h"
#include "QXTestSupport.h"

#include "QXCommon/DigitalCertificate.h"
#include "QXCommon/DigitalCertificateUI.h"
#include "QXCommon/VerifySignedFile.h"

#include <gtest/gtest.h>

#include <atlsecurity.h>
#include <psapi.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <thread>

using QXCommon::CDigitalCertificate;
using QXCommon::VerifySignedFile;
using QXTest::Certs::FixturePath;
using QXTest::Certs::OnWine;
using QXTest::Certs::ReadBytes;

namespace
{
// The test CA publishes no revocation information: checks that expect a
// verdict on trust or time ignore "revocation unknown".
constexpr DWORD NoRevocation = CERT_CHAIN_POLICY_IGNORE_ALL_REV_UNKNOWN_FLAGS;
const char* const VerifyFn = "QXCommon::VerifySignedFile::Verify";

class TrustEnvironment : public ::testing::Environment
{
    void SetUp() override { ASSERT_TRUE((m_trust = std::make_unique<QXTest::Certs::TestRootTrust>())->Ok()) << "the test root could not be made trusted"; }
    void TearDown() override { m_trust.reset(); }
    std::unique_ptr<QXTest::Certs::TestRootTrust> m_trust;
};
[[maybe_unused]] ::testing::Environment* const trustEnvironment = ::testing::AddGlobalTestEnvironment(new TrustEnvironment);

std::wstring TakeBstr(BSTR text)
{
    std::wstring value = text != nullptr ? std::wstring(text, SysStringLen(text)) : L"(null)";
    SysFreeString(text);
    return value;
}

ULONGLONG Ticks(FILETIME time)
{
    return (static_cast<ULONGLONG>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

ULONGLONG Utc(WORD year, WORD month, WORD day, WORD hour, WORD minute, WORD second)
{
    const SYSTEMTIME time = {year, month, 0, day, hour, minute, second, 0};
    FILETIME file = {};
    return SystemTimeToFileTime(&time, &file) ? Ticks(file) : 0;
}

std::wstring Hex(HRESULT value)
{
    wchar_t text[16];
    swprintf(text, 16, L"%X", static_cast<unsigned>(value));
    return text;
}

CDigitalCertificate FromCer(const wchar_t* name)
{
    CDigitalCertificate certificate;
    EXPECT_EQ(0u, certificate.ReadFromCERFile(FixturePath(name)));
    return certificate;
}

CDigitalCertificate SignerOf(const wchar_t* file)
{
    CDigitalCertificate signer;
    EXPECT_EQ(0u, signer.ReadFromSignedFile(FixturePath(file)));
    return signer;
}

class SignedFile : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(token.GetProcessToken(TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_IMPERSONATE)); }
    ATL::CAccessToken token;
};
} // namespace

// Each file's first signer equals the leaf openssl made for it and no other
// (same issuer, or same serial number, or the file's other signer).
TEST(Certificate, SignerOfEachFile)
{
    const ULONGLONG later = Utc(2045, 12, 31, 23, 59, 59);
    const struct
    {
        const wchar_t *file, *cer, *otherCer, *name;
        ULONGLONG notAfter;
    } cases[] = {
        {L"signed.exe", L"signer.cer", L"untrusted.cer", L"QXCommon Test Signer", later},
        {L"expired.exe", L"expired.cer", L"signer.cer", L"QXCommon Expired Signer", Utc(2021, 1, 1, 0, 0, 0)},
        {L"untrusted.exe", L"untrusted.cer", L"signer.cer", L"QXCommon Untrusted Signer", later},
        {L"nested.exe", L"signer.cer", L"expired.cer", L"QXCommon Test Signer", later},
        {L"twoentries.exe", L"signer.cer", L"untrusted.cer", L"QXCommon Test Signer", later},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.file));
        const CDigitalCertificate signer = SignerOf(c.file), leaf = FromCer(c.cer);
        EXPECT_TRUE(signer == leaf && leaf == signer && signer != FromCer(c.otherCer));
        EXPECT_EQ(c.name, TakeBstr(signer.GetName()));
        EXPECT_EQ(c.name, TakeBstr(leaf.GetFriendlyName()));
        EXPECT_EQ(c.notAfter, Ticks(signer.GetExpirationDate()));
    }
}

// Every reference the object takes is given back: a memory store closed with
// the check flag reports any context still referenced. Empty objects compare
// unequal and cannot be cloned.
TEST(Certificate, Ownership)
{
    const std::vector<BYTE> der = ReadBytes(FixturePath(L"signer.cer"));
    PCCERT_CONTEXT context = nullptr;
    auto storeWithContext = [&] {
        HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr);
        CertAddEncodedCertificateToStore(store, X509_ASN_ENCODING, der.data(), static_cast<DWORD>(der.size()),
                                         CERT_STORE_ADD_ALWAYS, &context);
        return store;
    };
    const bool checkWorks = !CertCloseStore(storeWithContext(), CERT_CLOSE_STORE_CHECK_FLAG); // context still held
    CertFreeCertificateContext(context);
    HCERTSTORE store = storeWithContext();
    {
        QXTest::LogCapture log;
        CDigitalCertificate a, c;
        a.SetContext(context);
        a.SetContext(context);
        CDigitalCertificate b(a);
        c = b;
        c = c;
        EXPECT_TRUE(c.Clone(a) && c.Clone(c) && c == b && a.GetContext() == context);
        b.SetContext(nullptr);
        EXPECT_EQ(nullptr, b.GetContext());
        EXPECT_NE(TRUST_E_SYSTEM_ERROR, a.Verify(0, false));
        a.Release();
        a.Release();
        CDigitalCertificate empty;
        EXPECT_FALSE(empty == CDigitalCertificate() || empty == empty || empty == c);
        EXPECT_TRUE(empty.GetName() == nullptr && Ticks(empty.GetExpirationDate()) == 0);
        EXPECT_FALSE(c.Clone(empty));
        EXPECT_EQ(nullptr, c.GetContext());
        EXPECT_LOGGED(log, 1, "QXCommon::CDigitalCertificate::Clone", L"Cannot copy other certificate as it has missing / corrupt data.\n");
        c.SetContext(context);
        c = empty;
        EXPECT_EQ(nullptr, CDigitalCertificate(c).GetContext());
        b.SetContext(context); // freed by the destructor
    }
    CertFreeCertificateContext(context);
    if (!checkWorks)
        GTEST_SKIP() << "the platform does not report contexts still referenced when a store is closed";
    EXPECT_TRUE(CertCloseStore(store, CERT_CLOSE_STORE_CHECK_FLAG));
}

// The table's count and raw entries: the entries, each padded to 8 bytes, are
// the table that ends each of these files.
TEST(Certificate, CertificateTable)
{
    for (const auto& [file, entries] : {std::pair{L"unsigned.exe", 0u}, std::pair{L"signed.exe", 1u},
                                        std::pair{L"nested.exe", 1u}, std::pair{L"twoentries.exe", 2u}})
    {
        SCOPED_TRACE(QXTest::Narrow(file));
        const std::wstring path = FixturePath(file);
        DWORD count = 99;
        ASSERT_TRUE(CDigitalCertificate::GetNumberOfCertificatesFromFile(path, count));
        EXPECT_EQ(entries, count);
        std::vector<BYTE> table;
        for (DWORD i = 0; i <= count; ++i)
        {
            BYTE* data = reinterpret_cast<BYTE*>(1);
            DWORD length = 99;
            EXPECT_EQ(i < count, CDigitalCertificate::GetRawCertificateData(path, i, data, length));
            table.insert(table.end(), data, data + length);
            table.resize((table.size() + 7) & ~size_t(7));
            ReleaseCertificateData(data);
        }
        const std::vector<BYTE> bytes = ReadBytes(path);
        EXPECT_TRUE(std::equal(table.rbegin(), table.rend(), bytes.rbegin()));
    }
    QXTest::LogCapture log;
    DWORD count = 99;
    EXPECT_FALSE(CDigitalCertificate::GetNumberOfCertificatesFromFile(FixturePath(L"missing.exe"), count));
    EXPECT_EQ(0u, count);
    EXPECT_FALSE(CDigitalCertificate::GetNumberOfCertificatesFromFile(FixturePath(L"signer.cer"), count));
    EXPECT_TRUE(log.HasFragment(L"missing.exe] - error 2\n") && log.HasFragment(L"Failed to ImageEnumerateCertificates ["))
        << log.Dump();
}

// Serialised bytes come back as the same certificate with its properties;
// plain DER is accepted too; anything else leaves the object empty.
TEST(Certificate, Serialisation)
{
    QXTest::LogCapture log;
    const CDigitalCertificate signer = SignerOf(L"signed.exe");
    wchar_t friendly[] = L"Transported";
    CRYPT_DATA_BLOB blob = {sizeof(friendly), reinterpret_cast<BYTE*>(friendly)};
    ASSERT_TRUE(CertSetCertificateContextProperty(signer.GetContext(), CERT_FRIENDLY_NAME_PROP_ID, 0, &blob));
    const DWORD size = signer.GetMaxBufSizeForSerialise();
    ASSERT_GT(size, 0u);
    std::vector<BYTE> bytes(size + 16);
    EXPECT_EQ(0u, signer.SerialiseContext(bytes.data(), size - 1));
    EXPECT_EQ(size, signer.SerialiseContext(bytes.data(), size + 16));
    EXPECT_LOGGED(log, 4, "QXCommon::CDigitalCertificate::SerialiseContext", L"Wrote " + std::to_wstring(size) + L" bytes of data to the buffer.\n");

    CDigitalCertificate copy;
    ASSERT_TRUE(copy.DeserialiseContext(size, bytes.data()));
    EXPECT_TRUE(copy == signer && copy == FromCer(L"signer.cer") && copy.GetContext() != signer.GetContext());
    EXPECT_EQ(L"Transported QXCommon Test Signer", TakeBstr(copy.GetFriendlyName()) + L" " + TakeBstr(copy.GetName()));
    const std::vector<BYTE> der = ReadBytes(FixturePath(L"expired.cer"));
    ASSERT_TRUE(copy.DeserialiseContext(static_cast<DWORD>(der.size()), der.data()));
    EXPECT_TRUE(copy == FromCer(L"expired.cer"));

    const BYTE junk[] = "not a certificate at all";
    using Input = std::pair<DWORD, const BYTE*>;
    for (const auto& [length, data] : {Input{sizeof(junk), junk}, Input{size / 2, bytes.data()}, Input{0, junk}, Input{size, nullptr}})
    {
        copy = signer;
        EXPECT_FALSE(copy.DeserialiseContext(length, data));
        EXPECT_EQ(nullptr, copy.GetContext());
    }
    EXPECT_TRUE(log.HasFragment(L"Failed: Unable to create certificate [")) << log.Dump();
    EXPECT_EQ(0u, CDigitalCertificate().GetMaxBufSizeForSerialise() + CDigitalCertificate().SerialiseContext(bytes.data(), size) +
                      signer.SerialiseContext(nullptr, size) + signer.SerialiseContext(bytes.data(), 0));
    for (const wchar_t* reason : {L"m_context", L"pBuffer", L"dwBufSize"})
        EXPECT_LOGGED(log, std::wstring(L"Cannot CertSerializeCertificateStoreElement because ") + reason + L" is NULL.\n");
}

// A failed read leaves the object empty and logs the error it returns.
TEST(Certificate, ReadFailures)
{
    QXTest::TempDir temp;
    const std::tuple<bool, std::wstring, const wchar_t*> cases[] = {
        {true, FixturePath(L"missing.exe"), L"CryptQueryObject failed - error "},
        {true, FixturePath(L"unsigned.exe"), L"CryptQueryObject failed - error "},
        {false, FixturePath(L"missing.cer"), L"Failed to CreateFileW ["},
        {false, FixturePath(L"signed.exe"), L"CertCreateCertificateContext failed - error "},
        {false, temp.Write(L"empty.cer", ""), L"CertCreateCertificateContext failed - error "},
    };
    for (const auto& [fromSignedFile, path, logText] : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(path));
        QXTest::LogCapture log;
        CDigitalCertificate certificate = FromCer(L"signer.cer");
        const DWORD error = fromSignedFile ? certificate.ReadFromSignedFile(path) : certificate.ReadFromCERFile(path);
        EXPECT_NE(0u, error);
        EXPECT_EQ(nullptr, certificate.GetContext());
        EXPECT_TRUE(log.HasFragment(logText) && log.HasFragment(L"error " + std::to_wstring(error) + L"\n")) << log.Dump();
        EXPECT_EQ(!fromSignedFile, log.Has(4, "QXCommon::CDigitalCertificate::ReadFromCERFile",
                                           L"m_Context should have been NULL, CertFreeCertificateContext returned [1].\n"));
    }
}

// The C exports: null arguments are answered, the path is in the code page
// of the thread's locale, the buffer holds the serialised signer.
TEST(Certificate, CExports)
{
    CDigitalCertificate* object = CreateDigitalCertificateObject();
    ASSERT_NE(nullptr, object);
    auto read = [&](CDigitalCertificate* target, const char* path, bool withSize) {
        DWORD size = 77;
        BYTE* data = ReadFromSignedFile(target, path, withSize ? &size : nullptr);
        CDigitalCertificate transported;
        const bool ok = data != nullptr && transported.DeserialiseContext(size, data) &&
                        transported == FromCer(L"signer.cer") && *object == transported;
        EXPECT_TRUE(ok || (data == nullptr && (size == 0 || !withSize)));
        ReleaseCertificateData(data);
        return ok;
    };
    const std::string signedPath = QXTest::Narrow(FixturePath(L"signed.exe")); // ASCII
    EXPECT_FALSE(read(nullptr, signedPath.c_str(), true) || read(object, nullptr, true) ||
                 read(object, signedPath.c_str(), false) || read(object, QXTest::Narrow(FixturePath(L"missing.exe")).c_str(), true));
    EXPECT_TRUE(read(object, signedPath.c_str(), true));
    ReleaseCertificateData(nullptr);
    DeleteDigitalCertificateObject(nullptr);

    // A Cyrillic name exists only in the thread's code page, not the system's.
    QXTest::TempDir temp;
    const std::vector<BYTE> image = ReadBytes(FixturePath(L"signed.exe"));
    const std::wstring path = temp.Write(L"Подпись.exe", std::string(image.begin(), image.end()));
    char narrow[MAX_PATH] = {};
    BOOL lossy = FALSE;
    ASSERT_GT(WideCharToMultiByte(1251, 0, path.c_str(), -1, narrow, MAX_PATH, nullptr, &lossy), 0);
    ASSERT_FALSE(lossy);
    const LCID original = GetThreadLocale();
    ASSERT_TRUE(SetThreadLocale(MAKELCID(MAKELANGID(LANG_RUSSIAN, SUBLANG_DEFAULT), SORT_DEFAULT)));
    EXPECT_TRUE(read(object, narrow, true));
    SetThreadLocale(original);
    DeleteDigitalCertificateObject(object);
}

// Each fixture's answers: WinVerifyTrust's alone, by path and with a handle
// (Wine checks only signature and digest), the chain's alone, and the policy's:
// the failing step's, the expiry waiver at both steps, ignore flags at the chain.
TEST_F(SignedFile, Policy)
{
    const DWORD unknownCA = NoRevocation | CERT_CHAIN_POLICY_ALLOW_UNKNOWN_CA_FLAG;
    const DWORD notTimeValid = NoRevocation | CERT_CHAIN_POLICY_IGNORE_ALL_NOT_TIME_VALID_FLAGS;
    const HRESULT nosig = TRUST_E_NOSIGNATURE, expired = CERT_E_EXPIRED, untrusted = CERT_E_UNTRUSTEDROOT;
    const struct
    {
        const wchar_t* file;
        bool enforceExpiry;
        DWORD ignore;
        HRESULT trust, trustWine, chain, windows, wine;
        const wchar_t* wineStep; // the step that fails on Wine
    } cases[] = {
        {L"signed.exe", true, NoRevocation, S_OK, S_OK, S_OK, S_OK, S_OK, nullptr},
        {L"nested.exe", true, NoRevocation, S_OK, S_OK, S_OK, S_OK, S_OK, nullptr},
        {L"twoentries.exe", true, NoRevocation, S_OK, S_OK, S_OK, S_OK, S_OK, nullptr},
        {L"unsigned.exe", true, NoRevocation, nosig, nosig, TRUST_E_SYSTEM_ERROR, nosig, nosig, L"VerifyTrust"},
        {L"signer.cer", true, NoRevocation, TRUST_E_SUBJECT_FORM_UNKNOWN, CRYPT_E_ASN1_BADTAG, TRUST_E_SYSTEM_ERROR,
         TRUST_E_SUBJECT_FORM_UNKNOWN, CRYPT_E_ASN1_BADTAG, L"VerifyTrust"},
        {L"tampered.exe", false, NoRevocation, TRUST_E_BAD_DIGEST, TRUST_E_BAD_DIGEST, S_OK, TRUST_E_BAD_DIGEST, TRUST_E_BAD_DIGEST, L"VerifyTrust"},
        {L"expired.exe", true, NoRevocation, expired, S_OK, expired, expired, expired, L"VerifyCertificateChain"},
        {L"expired.exe", false, NoRevocation, expired, S_OK, expired, S_OK, S_OK, nullptr},
        {L"expired.exe", true, notTimeValid, expired, S_OK, S_OK, expired, S_OK, nullptr},
        {L"untrusted.exe", true, NoRevocation, untrusted, S_OK, untrusted, untrusted, untrusted, L"VerifyCertificateChain"},
        {L"untrusted.exe", true, unknownCA, untrusted, S_OK, S_OK, untrusted, S_OK, nullptr},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.file) + (c.enforceExpiry ? " enforced, ignoring " : " waived, ignoring ") + std::to_string(c.ignore));
        const std::wstring path = FixturePath(c.file), trust = Hex(OnWine() ? c.trustWine : c.trust);
        ATL::CHandle handle(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
        EXPECT_EQ(trust + L" " + trust, Hex(CDigitalCertificate::VerifyFileSignature(path, nullptr)) + L" " +
                                            Hex(CDigitalCertificate::VerifyFileSignature(path, handle)));
        CDigitalCertificate signer;
        signer.ReadFromSignedFile(path);
        EXPECT_EQ(Hex(c.chain) + L" " + Hex(c.chain), Hex(signer.Verify(c.ignore, false)) + L" " + Hex(signer.Verify(c.ignore, true)));

        QXTest::LogCapture log;
        const HRESULT expected = OnWine() ? c.wine : c.windows;
        EXPECT_EQ(Hex(expected), Hex(VerifySignedFile(c.enforceExpiry, c.ignore, false).Verify(signer, path, token)));
        EXPECT_LOGGED(log, 4, VerifyFn, L"ENTER [" + path + L"] enforceExpiryDate=" + (c.enforceExpiry ? L"true" : L"false") +
                                            L", ignoreFlags=" + Hex(static_cast<HRESULT>(c.ignore)) + L", allowNetworkAccess=false\n");
        EXPECT_EQ(expected == S_OK, log.Has(4, VerifyFn, L"EXIT: success\n"));
        EXPECT_TRUE(!OnWine() || c.wineStep == nullptr ||
                    log.Has(1, VerifyFn, L"Failed to " + std::wstring(c.wineStep) + L" - code " + Hex(expected) + L"\n"))
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
    EXPECT_LOGGED(log, 1, VerifyFn, L"Failed to VerifyCertificateChain - code 80096001\n");
    DWORD status = 1, policyError = 1;
    EXPECT_FALSE(CDigitalCertificate().Verify(0, status, policyError, false));
    EXPECT_EQ(0u, status | policyError);
}

// The file is opened as the user unless the thread already impersonates; the
// thread's impersonation is as it was afterwards.
TEST_F(SignedFile, OpensAsUserOrByPath)
{
    const CDigitalCertificate signer = SignerOf(L"signed.exe");
    VerifySignedFile policy(true, NoRevocation, false);
    const std::wstring path = FixturePath(L"signed.exe"), missing = FixturePath(L"missing.exe");
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
        EXPECT_TRUE(log.HasFragment(c.logText)) << log.Dump();
        EXPECT_EQ(c.logText.starts_with(L"EXIT"), log.Has(L"EXIT: File opened\n"));
        ATL::CAccessToken threadToken;
        EXPECT_EQ(c.impersonating, threadToken.GetThreadToken(TOKEN_QUERY));
        ASSERT_TRUE(!c.impersonating || RevertToSelf());
    }
}

// A thousand reads, with signature checks and verifications among them, leave
// the handle table and the memory where they were (a leak would be megabytes).
TEST_F(SignedFile, NoLeaks)
{
    VerifySignedFile policy(false, NoRevocation, false);
    const std::wstring signedPath = FixturePath(L"signed.exe"), cer = FixturePath(L"signer.cer");
    const std::string narrowPath = QXTest::Narrow(signedPath); // ASCII
    const CDigitalCertificate signer = SignerOf(L"signed.exe");
    PROCESS_MEMORY_COUNTERS_EX before = {}, after = {};
    uintptr_t slot = 0;
    for (int i = -1; i < 1000 && !HasFailure(); ++i) // the first round warms the platform's caches
    {
        if (i == 0)
        {
            GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&before), sizeof(before));
            slot = QXTest::NextHandleSlot();
        }
        CDigitalCertificate reader;
        DWORD size = 0;
        BYTE *serialised = ReadFromSignedFile(&reader, narrowPath.c_str(), &size), *raw = nullptr;
        EXPECT_TRUE(reader.ReadFromCERFile(cer) == 0 && reader.DeserialiseContext(size, serialised) &&
                    CDigitalCertificate::GetRawCertificateData(signedPath, 0, raw, size) &&
                    CDigitalCertificate::GetNumberOfCertificatesFromFile(signedPath, size));
        ReleaseCertificateData(serialised);
        ReleaseCertificateData(raw);
        EXPECT_TRUE(i % 5 != 0 || CDigitalCertificate::VerifyFileSignature(signedPath, nullptr) == S_OK);
        EXPECT_TRUE(i % 50 != 0 || (policy.Verify(signer, signedPath, token) == S_OK &&
                                    policy.Verify(signer, FixturePath(L"unsigned.exe"), token) != S_OK));
    }
    EXPECT_EQ(slot, QXTest::NextHandleSlot());
    GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&after), sizeof(after));
    EXPECT_LT(static_cast<long long>(after.PrivateUsage) - static_cast<long long>(before.PrivateUsage), 1LL << 20);
}

namespace
{
HWND MakeWindow()
{
    return CreateWindowExW(0, L"STATIC", L"qxtest", WS_OVERLAPPEDWINDOW, 0, 0, 100, 100, nullptr, nullptr, nullptr, nullptr);
}

// Runs show(ui) on a thread whose window is the UI's parent, waits (40 s at
// most) for a window of this process titled `title` and closes it; true when
// it appeared owned by that parent (Wine's viewer takes no owner).
bool ShowAndClose(const wchar_t* title, UINT close, WPARAM closeParameter, const std::function<void(QXCommon::CDigitalCertificateUI&)>& show)
{
    std::atomic<HWND> parent{nullptr};
    std::atomic<bool> done{false};
    std::thread thread([&] {
        QXCommon::CDigitalCertificateUI ui;
        parent = MakeWindow();
        ui.SetParentWnd(parent);
        show(ui);
        DestroyWindow(parent);
        done = true;
    });
    bool appeared = false;
    for (int i = 0; i < 800 && !done; ++i)
    {
        Sleep(50);
        HWND window = FindWindowW(nullptr, title);
        DWORD process = 0;
        GetWindowThreadProcessId(window, &process);
        if (!appeared && window != nullptr && process == GetCurrentProcessId())
        {
            appeared = GetWindow(window, GW_OWNER) == parent || OnWine();
            PostMessageW(window, close, closeParameter, 0);
        }
    }
    EXPECT_TRUE(done) << "the dialog did not close";
    done ? thread.join() : thread.detach();
    return appeared;
}
} // namespace

// The viewer and the pickers, shown for real where the platform can.
TEST(CertificateDialogs, ViewerAndPickers)
{
    QXTest::LogCapture log;
    QXCommon::CDigitalCertificateUI ui;
    EXPECT_EQ(0, ui.ViewCertificate(CDigitalCertificate()));
    EXPECT_LOGGED(log, 1, "QXCommon::CDigitalCertificateUI::ViewCertificate", L"No certificate to view - error 87\n");
    EXPECT_TRUE(ui.SelectCertificateFromFileStore(FixturePath(L"missing.cer")) == nullptr && ui.ShowSelectionUI(nullptr) == nullptr);
    EXPECT_TRUE(log.HasFragment(L"Failed to CertOpenStore [") && log.HasFragment(L"No store to select from")) << log.Dump();
    HWND probe = MakeWindow();
    if (probe == nullptr || !DestroyWindow(probe))
        GTEST_SKIP() << "no display driver here: top-level windows cannot be created";
    const CDigitalCertificate signer = SignerOf(L"signed.exe");
    EXPECT_TRUE(ShowAndClose(L"Certificate", WM_CLOSE, 0, [&](auto& ui) { ui.ViewCertificate(signer); }));
    if (OnWine())
        GTEST_SKIP() << "Wine's CryptDlg has CertSelectCertificateW as an unimplemented stub that ends the process";
    for (const bool fromFile : {true, false})
    {
        CDigitalCertificate* chosen = reinterpret_cast<CDigitalCertificate*>(1);
        EXPECT_TRUE(ShowAndClose(L"Please select a certificate", WM_COMMAND, IDCANCEL, [&](auto& ui) {
            chosen = fromFile ? ui.SelectCertificateFromFileStore(FixturePath(L"signer.cer")) : ui.SelectCertificate(std::wstring(L"CA"));
        }));
        EXPECT_EQ(nullptr, chosen); // cancelled
    }
}

// qxinspect sig as a program: a verified file matching --cert, and a failing
// one beside a missing one.
TEST(InspectSig, AnswersAndExitCodes)
{
    auto fixture = [](const wchar_t* name) { return L" \"" + FixturePath(name) + L"\""; };
    auto run = QXTest::RunInspect(L"--json sig --enforce-expiry --ignore 0xF00 --cert" + fixture(L"signer.cer") + fixture(L"signed.exe"));
    EXPECT_EQ(0u, run.exitCode) << run.output;
    for (const char* fragment : {"\"verified\": true", "\"name\": \"QXCommon Test Signer\"", "\"expires\": \"2045-12-31T23:59:59Z\"",
                                 "\"revocation unknown\"", "\"certificateTableEntries\": 1", "\"matchesCert\": true"})
        EXPECT_NE(std::string::npos, run.output.find(fragment)) << fragment << "\n" << run.output;
    run = QXTest::RunInspect(L"sig --ignore 0xF00" + fixture(L"untrusted.exe") + fixture(L"missing.exe"));
    EXPECT_EQ(3u, run.exitCode) << run.output;
    for (const char* fragment : {"CERT_E_UNTRUSTEDROOT", "untrusted root", "missing.exe: "})
        EXPECT_NE(std::string::npos, run.output.find(fragment)) << fragment << "\n" << run.output;
}
