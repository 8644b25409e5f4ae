// Certificates and signed files against the fixtures the build makes, their
// root trusted by the machine for the whole run.

#include "CertificateFixtures.h"
#include "QXTestSupport.h"

#include "QXCommon/DigitalCertificate.h"
#include "QXCommon/DigitalCertificateUI.h"
#include "QXCommon/VerifySignedFile.h"

#include <fmt/xchar.h>
#include <gtest/gtest.h>

#include <atlsecurity.h>
#include <psapi.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

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

// The fixtures' root trusted by the machine for the whole run.
const QXTest::Certs::TestRootTrust rootTrust;

// Runs `undo` when the scope ends.
struct Finally : QXTest::NoCopy { std::function<void()> undo; ~Finally() { undo(); } };

std::wstring TakeBstr(BSTR text)
{
    const Finally free{{}, [&] { SysFreeString(text); }};
    return text != nullptr ? std::wstring(text, SysStringLen(text)) : L"(null)";
}

ULONGLONG Ticks(FILETIME time) { return (static_cast<ULONGLONG>(time.dwHighDateTime) << 32) | time.dwLowDateTime; }

std::wstring Hex(HRESULT value) { return fmt::format(L"{:X}", static_cast<unsigned>(value)); }

// A fixture's certificate: a .cer file's, or a signed file's first signer.
CDigitalCertificate Cert(const std::wstring& name)
{
    CDigitalCertificate certificate;
    const std::wstring path = FixturePath(name);
    EXPECT_EQ(0u, name.ends_with(L".cer") ? certificate.ReadFromCERFile(path) : certificate.ReadFromSignedFile(path));
    return certificate;
}

struct SignedFile : ::testing::Test
{
    void SetUp() override { ASSERT_TRUE(rootTrust.Ok() && token.GetProcessToken(TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_IMPERSONATE)); }
    ATL::CAccessToken token;
};

HWND MakeWindow() { return CreateWindowExW(0, L"STATIC", L"qxtest", WS_OVERLAPPEDWINDOW, 0, 0, 100, 100, nullptr, nullptr, nullptr, nullptr); }

// Runs show(ui) on a thread whose window is the UI's parent and closes the
// first window of this process titled `title` (waiting 40 s at most); true
// when it appeared owned by that parent (Wine's viewer takes no owner).
bool ShowAndClose(const wchar_t* title, UINT close, WPARAM parameter, const std::function<void(QXCommon::CDigitalCertificateUI&)>& show)
{
    std::atomic<HWND> parent{nullptr};
    std::atomic<bool> done{false};
    std::thread thread([&] {
        QXCommon::CDigitalCertificateUI ui;
        ui.SetParentWnd(parent = MakeWindow());
        show(ui);
        DestroyWindow(parent);
        done = true;
    });
    bool appeared = false;
    for (int i = 0; i < 800 && !done; ++i, Sleep(50))
    {
        DWORD process = 0;
        HWND window = FindWindowW(nullptr, title);
        if (!appeared && GetWindowThreadProcessId(window, &process) != 0 && process == GetCurrentProcessId())
            appeared = PostMessageW(window, close, parameter, 0) && (GetWindow(window, GW_OWNER) == parent || OnWine());
    }
    EXPECT_TRUE(done) << "the dialog did not close";
    done ? thread.join() : thread.detach();
    return appeared;
}
} // namespace

// Every reference the object takes is given back: a memory store closed with
// the check flag reports any context still referenced. Empty objects, and a
// context without its certificate information, equal nothing and are not cloned.
TEST(Certificate, Ownership)
{
    const std::vector<BYTE> der = ReadBytes(FixturePath(L"signer.cer"));
    PCCERT_CONTEXT context = nullptr;
    auto storeWithContext = [&] {
        HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr);
        CertAddEncodedCertificateToStore(store, X509_ASN_ENCODING, der.data(), static_cast<DWORD>(der.size()), CERT_STORE_ADD_ALWAYS, &context);
        return store;
    };
    const bool checkWorks = !CertCloseStore(storeWithContext(), CERT_CLOSE_STORE_CHECK_FLAG); // context still held
    CertFreeCertificateContext(context);
    HCERTSTORE store = storeWithContext();
    {
        QXTest::LogCapture log;
        CDigitalCertificate a, c, other = Cert(L"signer.cer");
        a.SetContext(context);
        a.SetContext(context);
        CDigitalCertificate b(a);
        c = b;
        c = c;
        EXPECT_TRUE(c.Clone(a) && c.Clone(c) && c == b && a.GetContext() == context);
        EXPECT_EQ(S_OK, a.Verify(NoRevocation, false));
        {
            CERT_CONTEXT* raw = const_cast<CERT_CONTEXT*>(context);
            const Finally restore{{}, [raw, info = std::exchange(raw->pCertInfo, nullptr)] { raw->pCertInfo = info; }};
            EXPECT_FALSE(a == other || other == a || other.Clone(a) || Ticks(a.GetExpirationDate()) != 0);
        }
        b.SetContext(nullptr);
        EXPECT_EQ(nullptr, b.GetContext());
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

// Serialised bytes come back as the same certificate with its properties;
// plain DER is accepted too. A failed read leaves the object empty and logs
// why, with the error it returns: files without a certificate, bytes that are
// junk, cut short or missing.
TEST(Certificate, SerialisationAndFailedReads)
{
    const CDigitalCertificate signer = Cert(L"signed.exe");
    EXPECT_EQ(L"QXCommon Test Signer", TakeBstr(signer.GetFriendlyName())); // no friendly name: the simple one
    wchar_t friendly[] = L"Transported";
    CRYPT_DATA_BLOB blob = {sizeof(friendly), reinterpret_cast<BYTE*>(friendly)};
    ASSERT_TRUE(CertSetCertificateContextProperty(signer.GetContext(), CERT_FRIENDLY_NAME_PROP_ID, 0, &blob));
    const DWORD size = signer.GetMaxBufSizeForSerialise();
    ASSERT_GT(size, 0u);
    std::vector<BYTE> bytes(size + 16);
    {
        QXTest::LogCapture log;
        EXPECT_EQ(0u, signer.SerialiseContext(bytes.data(), size - 1));
        EXPECT_EQ(size, signer.SerialiseContext(bytes.data(), size + 16));
        EXPECT_LOGGED(log, 4, "QXCommon::CDigitalCertificate::SerialiseContext", L"Wrote " + std::to_wstring(size) + L" bytes of data to the buffer.\n");
        EXPECT_EQ(0u, CDigitalCertificate().GetMaxBufSizeForSerialise() + CDigitalCertificate().SerialiseContext(bytes.data(), size) +
                          signer.SerialiseContext(nullptr, size) + signer.SerialiseContext(bytes.data(), 0));
        for (const wchar_t* reason : {L"m_context", L"pBuffer", L"dwBufSize"})
            EXPECT_LOGGED(log, std::wstring(L"Cannot CertSerializeCertificateStoreElement because ") + reason + L" is NULL.\n");
    }
    CDigitalCertificate copy;
    ASSERT_TRUE(copy.DeserialiseContext(size, bytes.data()));
    EXPECT_TRUE(copy == signer && copy == Cert(L"signer.cer") && copy.GetContext() != signer.GetContext());
    EXPECT_EQ(L"Transported QXCommon Test Signer", TakeBstr(copy.GetFriendlyName()) + L" " + TakeBstr(copy.GetName()));
    const std::vector<BYTE> der = ReadBytes(FixturePath(L"expired.cer"));
    ASSERT_TRUE(copy.DeserialiseContext(static_cast<DWORD>(der.size()), der.data()));
    EXPECT_TRUE(copy == Cert(L"expired.cer") && Ticks(copy.GetExpirationDate()) == 132539328000000000); // NotAfter 2021-01-01

    QXTest::TempDir temp;
    const std::wstring empty = temp.Write(L"empty.cer", "");
    const BYTE junk[] = "not a certificate at all";
    auto deserialised = [&](CDigitalCertificate& c, DWORD length, const BYTE* data) { return c.DeserialiseContext(length, data) ? 0u : 1u; };
    const std::pair<std::function<DWORD(CDigitalCertificate&)>, const wchar_t*> reads[] = { // the error: 1 for a refused transport
        {[&](auto& c) { return c.ReadFromSignedFile(FixturePath(L"missing.exe")); }, L"CryptQueryObject failed - error "},
        {[&](auto& c) { return c.ReadFromCERFile(FixturePath(L"missing.cer")); }, L"Failed to CreateFileW ["},
        {[&](auto& c) { return c.ReadFromCERFile(FixturePath(L"signed.exe")); }, L"CertCreateCertificateContext failed - error "},
        {[&](auto& c) { return c.ReadFromCERFile(empty); }, L"CertCreateCertificateContext failed - error "},
        {[&](auto& c) { return deserialised(c, sizeof(junk), junk); }, L"Failed: Unable to create certificate ["},
        {[&](auto& c) { return deserialised(c, size / 2, bytes.data()); }, L"Failed: Unable to create certificate ["},
        {[&](auto& c) { return deserialised(c, 0, junk); }, L"Failed: Unable to create certificate ["},
        {[&](auto& c) { return deserialised(c, size, nullptr); }, L"Failed: Unable to create certificate ["},
    };
    for (const auto& [read, logText] : reads)
    {
        SCOPED_TRACE(QXTest::Narrow(logText));
        QXTest::LogCapture log;
        copy = signer;
        const DWORD error = read(copy);
        EXPECT_EQ(nullptr, copy.GetContext());
        EXPECT_TRUE(error != 0 && log.HasFragment(logText) && (error == 1 || log.HasFragment(L"error " + std::to_wstring(error) + L"\n")))
            << error << "\n" << log.Dump();
    }
}

// Each fixture's first signer (issuer and serial number tell the leaves apart)
// and its answers: WinVerifyTrust's alone, by path and with a handle (Wine
// checks only signature and digest), the chain's alone, and the policy's: the
// failing step's, the expiry waiver at both steps, ignore flags at the chain.
TEST_F(SignedFile, Policy)
{
    const DWORD unknownCA = NoRevocation | CERT_CHAIN_POLICY_ALLOW_UNKNOWN_CA_FLAG;
    const DWORD notTimeValid = NoRevocation | CERT_CHAIN_POLICY_IGNORE_ALL_NOT_TIME_VALID_FLAGS;
    const HRESULT nosig = TRUST_E_NOSIGNATURE, expired = CERT_E_EXPIRED, untrusted = CERT_E_UNTRUSTEDROOT, noChain = TRUST_E_SYSTEM_ERROR;
    const struct { const wchar_t *file, *leaf; bool enforceExpiry; DWORD ignore; HRESULT trust, trustWine, chain, windows, wine; const wchar_t* wineStep; } cases[] = {
        {L"signed.exe", L"signer.cer", true, NoRevocation, S_OK, S_OK, S_OK, S_OK, S_OK, nullptr}, // wineStep: the step that fails on Wine
        {L"nested.exe", L"signer.cer", true, NoRevocation, S_OK, S_OK, S_OK, S_OK, S_OK, nullptr},
        {L"twoentries.exe", L"signer.cer", true, NoRevocation, S_OK, S_OK, S_OK, S_OK, S_OK, nullptr},
        {L"unsigned.exe", nullptr, true, NoRevocation, nosig, nosig, noChain, nosig, nosig, L"VerifyTrust"},
        {L"signer.cer", nullptr, true, NoRevocation, TRUST_E_SUBJECT_FORM_UNKNOWN, CRYPT_E_ASN1_BADTAG, noChain, TRUST_E_SUBJECT_FORM_UNKNOWN,
         CRYPT_E_ASN1_BADTAG, L"VerifyTrust"},
        {L"tampered.exe", L"signer.cer", false, NoRevocation, TRUST_E_BAD_DIGEST, TRUST_E_BAD_DIGEST, S_OK, TRUST_E_BAD_DIGEST, TRUST_E_BAD_DIGEST, L"VerifyTrust"},
        {L"expired.exe", L"expired.cer", true, NoRevocation, expired, S_OK, expired, expired, expired, L"VerifyCertificateChain"},
        {L"expired.exe", L"expired.cer", false, NoRevocation, expired, S_OK, expired, S_OK, S_OK, nullptr},
        {L"expired.exe", L"expired.cer", true, notTimeValid, expired, S_OK, S_OK, expired, S_OK, nullptr},
        {L"untrusted.exe", L"untrusted.cer", true, NoRevocation, untrusted, S_OK, untrusted, untrusted, untrusted, L"VerifyCertificateChain"},
        {L"untrusted.exe", L"untrusted.cer", true, unknownCA, untrusted, S_OK, S_OK, untrusted, S_OK, nullptr},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.file) + (c.enforceExpiry ? " enforced, ignoring " : " waived, ignoring ") + std::to_string(c.ignore));
        const std::wstring path = FixturePath(c.file), trust = Hex(OnWine() ? c.trustWine : c.trust);
        ATL::CHandle handle(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
        EXPECT_EQ(trust + L" " + trust, Hex(CDigitalCertificate::VerifyFileSignature(path, nullptr)) + L" " +
                                            Hex(CDigitalCertificate::VerifyFileSignature(path, handle)));
        CDigitalCertificate signer;
        EXPECT_EQ(c.leaf == nullptr, signer.ReadFromSignedFile(path) != 0);
        for (const wchar_t* leaf : {L"signer.cer", L"expired.cer", L"untrusted.cer"}) // the first signer is its leaf and no other
            EXPECT_EQ(c.leaf != nullptr && std::wstring(leaf) == c.leaf, signer == Cert(leaf) && Cert(leaf) == signer) << QXTest::Narrow(leaf);
        EXPECT_EQ(Hex(c.chain) + L" " + Hex(c.chain), Hex(signer.Verify(c.ignore, false)) + L" " + Hex(signer.Verify(c.ignore, true)));

        QXTest::LogCapture log;
        const HRESULT expected = OnWine() ? c.wine : c.windows;
        EXPECT_EQ(Hex(expected), Hex(VerifySignedFile(c.enforceExpiry, c.ignore, false).Verify(signer, path, token)));
        EXPECT_EQ(expected == S_OK, log.Has(4, VerifyFn, L"EXIT: success\n"));
        EXPECT_TRUE(!OnWine() || c.wineStep == nullptr ||
                    log.Has(1, VerifyFn, L"Failed to " + std::wstring(c.wineStep) + L" - code " + Hex(expected) + L"\n"))
            << log.Dump();
    }
    // A signed file with no certificate to chain; an empty certificate's chain outputs are zeroed.
    EXPECT_EQ(Hex(noChain), Hex(VerifySignedFile(true, 0, false).Verify(CDigitalCertificate(), FixturePath(L"signed.exe"), token)));
    DWORD status = 1, policyError = 1;
    EXPECT_FALSE(CDigitalCertificate().Verify(0, status, policyError, false));
    EXPECT_EQ(0u, status | policyError);

    // The waiver at the WinVerifyTrust step, which Wine's never reaches (it
    // passes expired signers): its library import answers as Windows does.
    LONG (*expiredSigner)(HWND, GUID*, LPVOID) = [](HWND, GUID*, LPVOID) -> LONG { return CERT_E_EXPIRED; };
    QXTest::ImportPatch patch(L"QXCommon.dll", "wintrust.dll", "WinVerifyTrust", reinterpret_cast<void*>(expiredSigner));
    ASSERT_TRUE(patch.Installed());
    for (const bool enforce : {true, false})
    {
        QXTest::LogCapture log;
        EXPECT_EQ(Hex(enforce ? expired : S_OK), Hex(VerifySignedFile(enforce, NoRevocation, false).Verify(Cert(L"signed.exe"), FixturePath(L"signed.exe"), token)));
        EXPECT_EQ(!enforce, log.Has(4, "QXCommon::VerifySignedFile::VerifyTrust", L"Certificate has expired but we are not enforcing the expiry date\n"));
    }
}

// The file is opened as the user unless the thread already impersonates; the
// thread's impersonation is as it was afterwards.
TEST_F(SignedFile, OpensAsUserOrByPath)
{
    const CDigitalCertificate signer = Cert(L"signed.exe");
    VerifySignedFile policy(true, NoRevocation, false);
    const std::wstring path = FixturePath(L"signed.exe"), missing = FixturePath(L"missing.exe");
    ATL::CAccessToken none;
    const struct { bool impersonating; const ATL::CAccessToken& user; const std::wstring& file; const std::wstring logText; } cases[] = {
        {false, token, path, L"EXIT: File opened\n"},
        {true, token, path, L"Already impersonating\n"},
        {false, none, path, L"Failed to ImpersonateLoggedOnUser - code 6\n"},
        {false, token, missing, L"Failed to CreateFileW [" + missing + L"] - code 2\n"},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.logText));
        ASSERT_TRUE(!c.impersonating || ImpersonateSelf(SecurityImpersonation));
        const Finally revert{{}, [&] { c.impersonating && RevertToSelf(); }};
        QXTest::LogCapture log;
        EXPECT_EQ(&c.file == &path, policy.Verify(signer, c.file, c.user) == S_OK);
        EXPECT_TRUE(log.HasFragment(c.logText)) << log.Dump();
        EXPECT_EQ(c.logText.starts_with(L"EXIT"), log.Has(L"EXIT: File opened\n"));
        ATL::CAccessToken threadToken;
        EXPECT_EQ(c.impersonating, threadToken.GetThreadToken(TOKEN_QUERY));
    }
}

// The C exports: null arguments are answered, the buffer holds the serialised
// signer, the path is in the code page of the thread's locale. A thousand of
// those reads, with the others, signature checks and verifications among
// them, leave the handle table and the memory where they were (a leak would
// be megabytes).
TEST_F(SignedFile, CExportsAndNoLeaks)
{
    const std::unique_ptr<CDigitalCertificate, decltype(&DeleteDigitalCertificateObject)> object(CreateDigitalCertificateObject(), &DeleteDigitalCertificateObject);
    ASSERT_NE(nullptr, object);
    const CDigitalCertificate signer = Cert(L"signed.exe");
    auto read = [&](CDigitalCertificate* target, const char* path, bool withSize) {
        DWORD size = 77;
        BYTE* data = ReadFromSignedFile(target, path, withSize ? &size : nullptr);
        const Finally release{{}, [&] { ReleaseCertificateData(data); }};
        CDigitalCertificate transported;
        const bool ok = data != nullptr && transported.DeserialiseContext(size, data) && transported == signer && *object == transported;
        EXPECT_TRUE(ok || (data == nullptr && (size == 0 || !withSize)));
        return ok;
    };
    const std::wstring signedPath = FixturePath(L"signed.exe");
    const std::string narrowPath = QXTest::Narrow(signedPath); // ASCII
    EXPECT_FALSE(read(nullptr, narrowPath.c_str(), true) || read(object.get(), nullptr, true) ||
                 read(object.get(), narrowPath.c_str(), false) || read(object.get(), QXTest::Narrow(FixturePath(L"missing.exe")).c_str(), true));
    ReleaseCertificateData(nullptr), DeleteDigitalCertificateObject(nullptr);

    VerifySignedFile policy(false, NoRevocation, false);
    PROCESS_MEMORY_COUNTERS_EX before = {}, after = {};
    uintptr_t slot = 0;
    for (int i = -1; i < 1000 && !HasFailure(); ++i) // the first round warms the platform's caches
    {
        if (i == 0)
            GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&before), sizeof(before)), slot = QXTest::NextHandleSlot();
        BYTE* raw = nullptr;
        DWORD size = 0;
        EXPECT_TRUE(read(object.get(), narrowPath.c_str(), true) && object->ReadFromCERFile(FixturePath(L"signer.cer")) == 0 &&
                    CDigitalCertificate::GetRawCertificateData(signedPath, 0, raw, size) &&
                    CDigitalCertificate::GetNumberOfCertificatesFromFile(signedPath, size));
        ReleaseCertificateData(raw);
        EXPECT_TRUE(i % 5 != 0 || CDigitalCertificate::VerifyFileSignature(signedPath, nullptr) == S_OK);
        EXPECT_TRUE(i % 50 != 0 || (policy.Verify(signer, signedPath, token) == S_OK &&
                                    policy.Verify(signer, FixturePath(L"unsigned.exe"), token) != S_OK));
    }
    EXPECT_EQ(slot, QXTest::NextHandleSlot());
    GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&after), sizeof(after));
    EXPECT_LT(static_cast<long long>(after.PrivateUsage) - static_cast<long long>(before.PrivateUsage), 1LL << 20);

    // A Cyrillic name exists only in the thread's code page, not the system's.
    QXTest::TempDir temp;
    const std::vector<BYTE> image = ReadBytes(signedPath);
    const std::wstring path = temp.Write(L"Подпись.exe", std::string(image.begin(), image.end()));
    char narrow[MAX_PATH] = {};
    BOOL lossy = FALSE;
    ASSERT_TRUE(WideCharToMultiByte(1251, 0, path.c_str(), -1, narrow, MAX_PATH, nullptr, &lossy) > 0 && !lossy);
    const Finally restore{{}, [original = GetThreadLocale()] { SetThreadLocale(original); }};
    ASSERT_TRUE(SetThreadLocale(MAKELCID(MAKELANGID(LANG_RUSSIAN, SUBLANG_DEFAULT), SORT_DEFAULT)));
    EXPECT_TRUE(read(object.get(), narrow, true));
}


// The viewer and the pickers, shown for real where the platform can.
TEST(CertificateDialogs, ViewerAndPickers)
{
    QXTest::LogCapture log;
    QXCommon::CDigitalCertificateUI ui;
    EXPECT_EQ(0, ui.ViewCertificate(CDigitalCertificate()));
    EXPECT_LOGGED(log, 1, "QXCommon::CDigitalCertificateUI::ViewCertificate", L"No certificate to view - error 87\n");
    EXPECT_TRUE(ui.SelectCertificateFromFileStore(FixturePath(L"missing.cer")) == nullptr && ui.ShowSelectionUI(nullptr) == nullptr);
    EXPECT_TRUE(log.HasFragment(L"Failed to CertOpenStore [") && log.HasFragment(L"No store to select from")) << log.Dump();
    if (HWND probe = MakeWindow(); probe == nullptr || !DestroyWindow(probe))
        GTEST_SKIP() << "no display driver here: top-level windows cannot be created";
    const CDigitalCertificate signer = Cert(L"signed.exe");
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
