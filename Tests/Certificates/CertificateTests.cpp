// The certificate object against the build's fixtures: the signer of each
// signed file against its .cer, names and expiry against what openssl wrote,
// the certificate table against a parse of the file, serialisation both ways,
// context ownership, read failures and the C exports.

#include "CertificateFixtures.h"
#include "QXTestSupport.h"

#include "QXCommon/DigitalCertificate.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using QXCommon::CDigitalCertificate;
using QXTest::Certs::FixturePath;
using QXTest::Certs::ReadBytes;

namespace
{
std::wstring TakeBstr(BSTR text)
{
    std::wstring value = text != nullptr ? std::wstring(text, SysStringLen(text)) : L"(null)";
    SysFreeString(text);
    return value;
}

ULONGLONG Utc(WORD year, WORD month, WORD day, WORD hour, WORD minute, WORD second)
{
    SYSTEMTIME time = {year, month, 0, day, hour, minute, second, 0};
    FILETIME file = {};
    SystemTimeToFileTime(&time, &file);
    return (static_cast<ULONGLONG>(file.dwHighDateTime) << 32) | file.dwLowDateTime;
}

ULONGLONG Value(FILETIME time)
{
    return (static_cast<ULONGLONG>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

CDigitalCertificate FromCer(const wchar_t* name)
{
    CDigitalCertificate certificate;
    EXPECT_EQ(0u, certificate.ReadFromCERFile(FixturePath(name)));
    return certificate;
}

std::wstring Address(const void* pointer)
{
    wchar_t text[24];
    swprintf(text, 24, L"%llX", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(pointer)));
    return text;
}

// The certificate-table entries of a PE file, parsed from its bytes: the
// security data directory gives the table, entries are 8-byte aligned.
std::vector<std::vector<BYTE>> TableEntries(const std::vector<BYTE>& file)
{
    auto u32 = [&](size_t at) {
        DWORD value = 0;
        if (at + 4 <= file.size())
            std::memcpy(&value, file.data() + at, 4);
        return static_cast<size_t>(value);
    };
    std::vector<std::vector<BYTE>> entries;
    const size_t optional = u32(60) + 24;
    const bool pe32plus = optional + 2 <= file.size() && file[optional] == 0x0B && file[optional + 1] == 0x02;
    const size_t directory = optional + (pe32plus ? 144 : 128);
    size_t at = u32(directory);
    const size_t end = at + u32(directory + 4);
    while (end <= file.size() && at + 8 <= end)
    {
        const size_t length = u32(at);
        if (length < 8 || at + length > end)
            break;
        entries.emplace_back(file.begin() + at, file.begin() + at + length);
        at += (length + 7) & ~size_t(7);
    }
    return entries;
}
} // namespace

// Each signed file's (first) signer equals the leaf openssl made for it and no
// other; names and expiry are those in the certificate.
TEST(Certificate, SignerOfEachFile)
{
    struct Case
    {
        const wchar_t* file;
        const wchar_t* cer;
        const wchar_t* otherCer; // same issuer or same serial number, or the file's other signer
        const wchar_t* name;
        ULONGLONG notAfter;
    } const cases[] = {
        {L"signed.exe", L"signer.cer", L"expired.cer", L"QXCommon Test Signer", Utc(2045, 12, 31, 23, 59, 59)},
        {L"signed.exe", L"signer.cer", L"untrusted.cer", L"QXCommon Test Signer", Utc(2045, 12, 31, 23, 59, 59)},
        {L"expired.exe", L"expired.cer", L"signer.cer", L"QXCommon Expired Signer", Utc(2021, 1, 1, 0, 0, 0)},
        {L"untrusted.exe", L"untrusted.cer", L"signer.cer", L"QXCommon Untrusted Signer",
         Utc(2045, 12, 31, 23, 59, 59)},
        {L"nested.exe", L"signer.cer", L"expired.cer", L"QXCommon Test Signer", Utc(2045, 12, 31, 23, 59, 59)},
        {L"twoentries.exe", L"signer.cer", L"untrusted.cer", L"QXCommon Test Signer", Utc(2045, 12, 31, 23, 59, 59)},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.file));
        CDigitalCertificate signer;
        ASSERT_EQ(0u, signer.ReadFromSignedFile(FixturePath(c.file)));
        const CDigitalCertificate leaf = FromCer(c.cer);
        const CDigitalCertificate other = FromCer(c.otherCer);
        EXPECT_TRUE(signer == leaf);
        EXPECT_TRUE(leaf == signer);
        EXPECT_FALSE(signer == other);
        EXPECT_TRUE(signer != other);
        EXPECT_EQ(c.name, TakeBstr(signer.GetName()));
        EXPECT_EQ(c.name, TakeBstr(leaf.GetFriendlyName()));
        EXPECT_EQ(c.notAfter, Value(signer.GetExpirationDate()));
        EXPECT_EQ(c.notAfter, Value(leaf.GetExpirationDate()));
    }

    // The friendly name is the context's property when it has one.
    CDigitalCertificate named = FromCer(L"signer.cer");
    const wchar_t friendly[] = L"Rule signer";
    CRYPT_DATA_BLOB blob = {sizeof(friendly), reinterpret_cast<BYTE*>(const_cast<wchar_t*>(friendly))};
    ASSERT_TRUE(CertSetCertificateContextProperty(named.GetContext(), CERT_FRIENDLY_NAME_PROP_ID, 0, &blob));
    EXPECT_EQ(L"Rule signer", TakeBstr(named.GetFriendlyName()));
    EXPECT_EQ(L"QXCommon Test Signer", TakeBstr(named.GetName()));
}

TEST(Certificate, EmptyObjects)
{
    QXTest::LogCapture log;
    CDigitalCertificate empty;
    CDigitalCertificate other;
    EXPECT_FALSE(empty == other);
    EXPECT_FALSE(empty == empty);
    EXPECT_FALSE(empty == FromCer(L"signer.cer"));
    EXPECT_EQ(nullptr, empty.GetContext());
    EXPECT_EQ(nullptr, empty.GetName());
    EXPECT_EQ(nullptr, empty.GetFriendlyName());
    EXPECT_EQ(0u, Value(empty.GetExpirationDate()));

    CDigitalCertificate target = FromCer(L"signer.cer");
    EXPECT_FALSE(target.Clone(empty));
    EXPECT_EQ(nullptr, target.GetContext());
    EXPECT_TRUE(log.Has(1, "QXCommon::CDigitalCertificate::Clone",
                        L"Cannot copy other certificate as it has missing / corrupt data.\n"));
    target = FromCer(L"signer.cer");
    target = empty;
    EXPECT_EQ(nullptr, target.GetContext());
    const CDigitalCertificate copy(empty);
    EXPECT_EQ(nullptr, copy.GetContext());
}

// Every reference the object takes is given back: a memory store closed with
// the check flag reports any context still referenced.
TEST(Certificate, ContextReferencesAreBalanced)
{
    const std::vector<BYTE> der = ReadBytes(FixturePath(L"signer.cer"));
    auto storeWith = [&](PCCERT_CONTEXT& context) {
        HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr);
        EXPECT_TRUE(CertAddEncodedCertificateToStore(store, X509_ASN_ENCODING, der.data(),
                                                     static_cast<DWORD>(der.size()), CERT_STORE_ADD_ALWAYS, &context));
        return store;
    };

    // The check works here: an outstanding reference is reported.
    PCCERT_CONTEXT held = nullptr;
    HCERTSTORE control = storeWith(held);
    if (CertCloseStore(control, CERT_CLOSE_STORE_CHECK_FLAG))
    {
        CertFreeCertificateContext(held);
        GTEST_SKIP() << "the platform does not report contexts still referenced when a store is closed";
    }
    CertFreeCertificateContext(held);

    PCCERT_CONTEXT context = nullptr;
    HCERTSTORE store = storeWith(context);
    {
        QXTest::LogCapture log;
        CDigitalCertificate a;
        a.SetContext(context);
        EXPECT_EQ(context, a.GetContext());
        EXPECT_TRUE(log.Has(4, "QXCommon::CDigitalCertificate::SetContext",
                            L"CertDuplicateCertificateContext(" + Address(context) +
                                L") - should be incrementing ref count\n"))
            << log.Dump();
        a.SetContext(context);
        CDigitalCertificate b(a);
        CDigitalCertificate c;
        c = b;
        c = c;
        EXPECT_TRUE(c.Clone(a));
        EXPECT_TRUE(c.Clone(c));
        EXPECT_TRUE(c == b);
        b.SetContext(nullptr);
        EXPECT_EQ(nullptr, b.GetContext());
        BYTE buffer[4096];
        EXPECT_GT(a.SerialiseContext(buffer, sizeof(buffer)), 0u);
        EXPECT_EQ(TRUST_E_SYSTEM_ERROR, CDigitalCertificate().Verify(0, false));
        EXPECT_NE(TRUST_E_SYSTEM_ERROR, a.Verify(0, false));
        a.Release();
        a.Release();
        EXPECT_TRUE(log.Has(4, "QXCommon::CDigitalCertificate::Release",
                            L"CertFreeCertificateContext(" + Address(context) +
                                L") - should be decrementing ref count\n"))
            << log.Dump();
    }
    CertFreeCertificateContext(context);
    EXPECT_TRUE(CertCloseStore(store, CERT_CLOSE_STORE_CHECK_FLAG));
}

// The table's count and raw entries match the file's own bytes.
TEST(Certificate, CertificateTable)
{
    const struct
    {
        const wchar_t* file;
        size_t entries;
    } files[] = {{L"unsigned.exe", 0}, {L"signed.exe", 1}, {L"nested.exe", 1}, {L"twoentries.exe", 2}};
    for (const auto& f : files)
    {
        SCOPED_TRACE(QXTest::Narrow(f.file));
        const std::wstring path = FixturePath(f.file);
        const std::vector<std::vector<BYTE>> expected = TableEntries(ReadBytes(path));
        ASSERT_EQ(f.entries, expected.size());
        DWORD count = 99;
        ASSERT_TRUE(CDigitalCertificate::GetNumberOfCertificatesFromFile(path, count));
        EXPECT_EQ(f.entries, count);
        for (DWORD i = 0; i <= count; ++i)
        {
            BYTE* data = reinterpret_cast<BYTE*>(1);
            DWORD length = 99;
            const bool got = CDigitalCertificate::GetRawCertificateData(path, i, data, length);
            EXPECT_EQ(i < count, got);
            if (i < count)
                EXPECT_EQ(expected[i], std::vector<BYTE>(data, data + length));
            else
                EXPECT_TRUE(data == nullptr && length == 0);
            ReleaseCertificateData(data);
        }
    }

    QXTest::LogCapture log;
    const std::wstring missing = FixturePath(L"missing.exe");
    DWORD count = 99;
    EXPECT_FALSE(CDigitalCertificate::GetNumberOfCertificatesFromFile(missing, count));
    EXPECT_EQ(0u, count);
    EXPECT_TRUE(log.Has(1, "QXCommon::CDigitalCertificate::GetNumberOfCertificatesFromFile",
                        L"Failed to CreateFileW [" + missing + L"] - error 2\n"));
    BYTE* data = nullptr;
    DWORD length = 0;
    EXPECT_FALSE(CDigitalCertificate::GetRawCertificateData(missing, 0, data, length));
    EXPECT_FALSE(CDigitalCertificate::GetRawCertificateData(FixturePath(L"signer.cer"), 0, data, length));
    EXPECT_FALSE(CDigitalCertificate::GetNumberOfCertificatesFromFile(FixturePath(L"signer.cer"), count));
    EXPECT_TRUE(log.HasFragment(L"Failed to ImageEnumerateCertificates [")) << log.Dump();
    EXPECT_EQ(nullptr, data);
}

// Serialised bytes come back as the same certificate, with its properties;
// plain DER is accepted too; anything else leaves the object empty.
TEST(Certificate, Serialisation)
{
    QXTest::LogCapture log;
    const char* const serialiseFn = "QXCommon::CDigitalCertificate::SerialiseContext";
    const char* const deserialiseFn = "QXCommon::CDigitalCertificate::DeserialiseContext";
    CDigitalCertificate signer;
    ASSERT_EQ(0u, signer.ReadFromSignedFile(FixturePath(L"signed.exe")));
    const wchar_t friendly[] = L"Transported";
    CRYPT_DATA_BLOB blob = {sizeof(friendly), reinterpret_cast<BYTE*>(const_cast<wchar_t*>(friendly))};
    ASSERT_TRUE(CertSetCertificateContextProperty(signer.GetContext(), CERT_FRIENDLY_NAME_PROP_ID, 0, &blob));

    const DWORD size = signer.GetMaxBufSizeForSerialise();
    ASSERT_GT(size, 0u);
    std::vector<BYTE> bytes(size + 16);
    EXPECT_EQ(0u, signer.SerialiseContext(bytes.data(), size - 1));
    EXPECT_EQ(size, signer.SerialiseContext(bytes.data(), static_cast<DWORD>(bytes.size())));
    EXPECT_TRUE(log.Has(4, serialiseFn, L"Wrote " + std::to_wstring(size) + L" bytes of data to the buffer.\n"));

    CDigitalCertificate copy;
    ASSERT_TRUE(copy.DeserialiseContext(size, bytes.data()));
    EXPECT_TRUE(copy == signer);
    EXPECT_TRUE(copy == FromCer(L"signer.cer"));
    EXPECT_EQ(L"Transported", TakeBstr(copy.GetFriendlyName()));
    EXPECT_NE(signer.GetContext(), copy.GetContext());

    const std::vector<BYTE> der = ReadBytes(FixturePath(L"expired.cer"));
    ASSERT_TRUE(copy.DeserialiseContext(static_cast<DWORD>(der.size()), der.data()));
    EXPECT_TRUE(copy == FromCer(L"expired.cer"));
    EXPECT_EQ(L"QXCommon Expired Signer", TakeBstr(copy.GetFriendlyName()));

    const BYTE junk[] = "not a certificate at all";
    for (DWORD length : {DWORD(sizeof(junk)), size / 2, DWORD(0)})
    {
        copy = signer;
        EXPECT_FALSE(copy.DeserialiseContext(length, length == size / 2 ? bytes.data() : junk));
        EXPECT_EQ(nullptr, copy.GetContext());
    }
    EXPECT_FALSE(copy.DeserialiseContext(size, nullptr));
    bool logged = false;
    for (const QXTest::LogEntry& entry : log.Entries())
        logged = logged || (entry.level == 1 && entry.function == deserialiseFn &&
                            entry.text.rfind(L"Failed: Unable to create certificate [", 0) == 0);
    EXPECT_TRUE(logged) << log.Dump();

    CDigitalCertificate empty;
    EXPECT_EQ(0u, empty.GetMaxBufSizeForSerialise());
    EXPECT_EQ(0u, empty.SerialiseContext(bytes.data(), size));
    EXPECT_EQ(0u, signer.SerialiseContext(nullptr, size));
    EXPECT_EQ(0u, signer.SerialiseContext(bytes.data(), 0));
    for (const wchar_t* text : {L"Cannot CertSerializeCertificateStoreElement because m_context is NULL.\n",
                                L"Cannot CertSerializeCertificateStoreElement because pBuffer is NULL.\n",
                                L"Cannot CertSerializeCertificateStoreElement because dwBufSize is NULL.\n"})
        EXPECT_TRUE(log.Has(1, serialiseFn, text)) << QXTest::Narrow(text);
    EXPECT_TRUE(log.Has(1, "QXCommon::CDigitalCertificate::GetMaxBufSizeForSerialise",
                        L"Cannot CertSerializeCertificateStoreElement because m_context is NULL.\n"));
}

// A failed read leaves the object empty and logs the platform's error.
TEST(Certificate, ReadFailures)
{
    QXTest::TempDir temp;
    const std::wstring emptyFile = temp.Write(L"empty.cer", "");
    struct Case
    {
        bool signedRead;
        std::wstring path;
        const wchar_t* logText; // its start
    } const cases[] = {
        {true, FixturePath(L"missing.exe"), L"CryptQueryObject failed - error "},
        {true, FixturePath(L"unsigned.exe"), L"CryptQueryObject failed - error "},
        {true, FixturePath(L"signer.cer"), L"CryptQueryObject failed - error "},
        {false, FixturePath(L"missing.cer"), L"Failed to CreateFileW ["},
        {false, FixturePath(L"signed.exe"), L"CertCreateCertificateContext failed - error "},
        {false, emptyFile, L"CertCreateCertificateContext failed - error "},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.path));
        QXTest::LogCapture log;
        CDigitalCertificate certificate = FromCer(L"signer.cer");
        const DWORD error = c.signedRead ? certificate.ReadFromSignedFile(c.path) : certificate.ReadFromCERFile(c.path);
        EXPECT_NE(0u, error);
        EXPECT_EQ(nullptr, certificate.GetContext());
        EXPECT_TRUE(log.HasFragment(c.logText)) << log.Dump();
        EXPECT_TRUE(log.HasFragment(L"error " + std::to_wstring(error) + L"\n")) << error << log.Dump();
        EXPECT_EQ(!c.signedRead, log.Has(4, "QXCommon::CDigitalCertificate::ReadFromCERFile",
                                         L"m_Context should have been NULL, CertFreeCertificateContext returned [1].\n"));
    }
    QXTest::LogCapture log;
    CDigitalCertificate certificate;
    EXPECT_EQ(0u, certificate.ReadFromSignedFile(FixturePath(L"signed.exe")));
    EXPECT_TRUE(log.HasFragment(L"CertCloseStore(")) << log.Dump();
}

// The C exports: null arguments are answered, paths are in the thread's ANSI
// code page, the buffer holds the serialised signer.
TEST(Certificate, CExports)
{
    CDigitalCertificate* object = CreateDigitalCertificateObject();
    ASSERT_NE(nullptr, object);
    const std::string signedPath = QXTest::Narrow(FixturePath(L"signed.exe")); // ASCII
    DWORD size = 77;
    EXPECT_EQ(nullptr, ReadFromSignedFile(nullptr, signedPath.c_str(), &size));
    EXPECT_EQ(0u, size);
    size = 77;
    EXPECT_EQ(nullptr, ReadFromSignedFile(object, nullptr, &size));
    EXPECT_EQ(0u, size);
    EXPECT_EQ(nullptr, ReadFromSignedFile(object, signedPath.c_str(), nullptr));
    for (const wchar_t* file : {L"missing.exe", L"unsigned.exe"})
    {
        size = 77;
        EXPECT_EQ(nullptr, ReadFromSignedFile(object, QXTest::Narrow(FixturePath(file)).c_str(), &size));
        EXPECT_EQ(0u, size);
    }
    ReleaseCertificateData(nullptr);
    DeleteDigitalCertificateObject(nullptr);

    auto readsSigner = [&](const std::string& path) {
        DWORD length = 0;
        BYTE* data = ReadFromSignedFile(object, path.c_str(), &length);
        CDigitalCertificate transported;
        const bool ok = data != nullptr && transported.DeserialiseContext(length, data) &&
                        transported == FromCer(L"signer.cer") && *object == transported;
        ReleaseCertificateData(data);
        return ok;
    };
    EXPECT_TRUE(readsSigner(signedPath));

    // Non-ASCII names, in the code page of the thread's locale.
    QXTest::TempDir temp;
    const std::vector<BYTE> image = ReadBytes(FixturePath(L"signed.exe"));
    const std::string imageBytes(image.begin(), image.end());
    const struct
    {
        LCID locale;
        UINT codePage;
        const wchar_t* name;
    } names[] = {{MAKELCID(MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN), SORT_DEFAULT), 1252, L"Prüfung-ÄÖÜß.exe"},
                 {MAKELCID(MAKELANGID(LANG_RUSSIAN, SUBLANG_DEFAULT), SORT_DEFAULT), 1251, L"Подпись.exe"}};
    const LCID original = GetThreadLocale();
    for (const auto& n : names)
    {
        SCOPED_TRACE(n.codePage);
        const std::wstring path = temp.Write(n.name, imageBytes);
        char narrow[MAX_PATH] = {};
        BOOL lossy = FALSE;
        ASSERT_GT(WideCharToMultiByte(n.codePage, 0, path.c_str(), -1, narrow, MAX_PATH, nullptr, &lossy), 0);
        ASSERT_FALSE(lossy);
        ASSERT_TRUE(SetThreadLocale(n.locale));
        EXPECT_TRUE(readsSigner(narrow));
        SetThreadLocale(original);
    }
    DeleteDigitalCertificateObject(object);
}
