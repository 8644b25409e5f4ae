// The certificate object against the build's fixtures: the signer of each
// signed file against its .cer, names and expiry as openssl wrote them, the
// certificate table against a parse of the file, serialisation both ways,
// context ownership, read failures and the C exports.

#include "CertificateFixtures.h"
#include "QXTestSupport.h"

#include "QXCommon/DigitalCertificate.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <utility>
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

CDigitalCertificate FromCer(const wchar_t* name)
{
    CDigitalCertificate certificate;
    EXPECT_EQ(0u, certificate.ReadFromCERFile(FixturePath(name)));
    return certificate;
}

void SetFriendlyName(const CDigitalCertificate& certificate, const std::wstring& name)
{
    CRYPT_DATA_BLOB blob = {static_cast<DWORD>((name.size() + 1) * sizeof(wchar_t)),
                            reinterpret_cast<BYTE*>(const_cast<wchar_t*>(name.c_str()))};
    ASSERT_TRUE(CertSetCertificateContextProperty(certificate.GetContext(), CERT_FRIENDLY_NAME_PROP_ID, 0, &blob));
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
    const size_t optional = u32(60) + 24;
    const bool pe32plus = optional + 2 <= file.size() && file[optional] == 0x0B && file[optional + 1] == 0x02;
    const size_t directory = optional + (pe32plus ? 144 : 128);
    std::vector<std::vector<BYTE>> entries;
    for (size_t at = u32(directory), end = at + u32(directory + 4), length = 0;
         end <= file.size() && at + 8 <= end && (length = u32(at)) >= 8 && at + length <= end;
         at += (length + 7) & ~size_t(7))
        entries.emplace_back(file.begin() + at, file.begin() + at + length);
    return entries;
}
} // namespace

// Each signed file's first signer equals the leaf openssl made for it and no
// other (same issuer, or same serial number, or the file's other signer).
TEST(Certificate, SignerOfEachFile)
{
    const ULONGLONG later = Utc(2045, 12, 31, 23, 59, 59);
    const struct
    {
        const wchar_t *file, *cer, *otherCer, *name;
        ULONGLONG notAfter;
    } cases[] = {
        {L"signed.exe", L"signer.cer", L"expired.cer", L"QXCommon Test Signer", later},
        {L"signed.exe", L"signer.cer", L"untrusted.cer", L"QXCommon Test Signer", later},
        {L"expired.exe", L"expired.cer", L"signer.cer", L"QXCommon Expired Signer", Utc(2021, 1, 1, 0, 0, 0)},
        {L"untrusted.exe", L"untrusted.cer", L"signer.cer", L"QXCommon Untrusted Signer", later},
        {L"nested.exe", L"signer.cer", L"expired.cer", L"QXCommon Test Signer", later},
        {L"twoentries.exe", L"signer.cer", L"untrusted.cer", L"QXCommon Test Signer", later},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.file));
        CDigitalCertificate signer;
        ASSERT_EQ(0u, signer.ReadFromSignedFile(FixturePath(c.file)));
        const CDigitalCertificate leaf = FromCer(c.cer);
        EXPECT_TRUE(signer == leaf && leaf == signer);
        EXPECT_TRUE(signer != FromCer(c.otherCer));
        EXPECT_EQ(c.name, TakeBstr(signer.GetName()));
        EXPECT_EQ(c.name, TakeBstr(leaf.GetFriendlyName()));
        EXPECT_EQ(c.notAfter, Ticks(signer.GetExpirationDate()));
        EXPECT_EQ(c.notAfter, Ticks(leaf.GetExpirationDate()));
    }
    const CDigitalCertificate named = FromCer(L"signer.cer");
    SetFriendlyName(named, L"Rule signer");
    EXPECT_EQ(L"Rule signer", TakeBstr(named.GetFriendlyName()));
    EXPECT_EQ(L"QXCommon Test Signer", TakeBstr(named.GetName()));
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
        CDigitalCertificate a;
        a.SetContext(context);
        a.SetContext(context);
        CDigitalCertificate b(a);
        CDigitalCertificate c;
        c = b;
        c = c;
        EXPECT_TRUE(c.Clone(a) && c.Clone(c) && c == b && a.GetContext() == context);
        b.SetContext(nullptr);
        EXPECT_EQ(nullptr, b.GetContext());
        BYTE buffer[4096];
        EXPECT_GT(a.SerialiseContext(buffer, sizeof(buffer)), 0u);
        EXPECT_NE(TRUST_E_SYSTEM_ERROR, a.Verify(0, false));
        a.Release();
        a.Release();
        wchar_t address[24];
        swprintf(address, 24, L"%llX", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(context)));
        for (const auto& [function, text] :
             {std::pair{"SetContext", L"CertDuplicateCertificateContext(%ls) - should be incrementing ref count\n"},
              std::pair{"Release", L"CertFreeCertificateContext(%ls) - should be decrementing ref count\n"}})
        {
            wchar_t expected[128];
            swprintf(expected, 128, text, address);
            EXPECT_TRUE(log.Has(4, std::string("QXCommon::CDigitalCertificate::") + function, expected)) << log.Dump();
        }

        CDigitalCertificate empty;
        EXPECT_FALSE(empty == CDigitalCertificate() || empty == empty || empty == c);
        EXPECT_TRUE(empty.GetName() == nullptr && Ticks(empty.GetExpirationDate()) == 0);
        EXPECT_FALSE(c.Clone(empty));
        EXPECT_EQ(nullptr, c.GetContext());
        EXPECT_TRUE(log.Has(1, "QXCommon::CDigitalCertificate::Clone",
                            L"Cannot copy other certificate as it has missing / corrupt data.\n"));
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

// The table's count and raw entries match the file's own bytes.
TEST(Certificate, CertificateTable)
{
    for (const auto& [file, entries] : {std::pair{L"unsigned.exe", 0u}, std::pair{L"signed.exe", 1u},
                                        std::pair{L"nested.exe", 1u}, std::pair{L"twoentries.exe", 2u}})
    {
        SCOPED_TRACE(QXTest::Narrow(file));
        const std::wstring path = FixturePath(file);
        const std::vector<std::vector<BYTE>> expected = TableEntries(ReadBytes(path));
        ASSERT_EQ(entries, expected.size());
        DWORD count = 99;
        ASSERT_TRUE(CDigitalCertificate::GetNumberOfCertificatesFromFile(path, count));
        EXPECT_EQ(entries, count);
        for (DWORD i = 0; i <= count; ++i)
        {
            BYTE* data = reinterpret_cast<BYTE*>(1);
            DWORD length = 99;
            EXPECT_EQ(i < count, CDigitalCertificate::GetRawCertificateData(path, i, data, length));
            EXPECT_EQ(i < count ? expected[i] : std::vector<BYTE>(), std::vector<BYTE>(data, data + length));
            ReleaseCertificateData(data);
        }
    }
    QXTest::LogCapture log;
    DWORD count = 99;
    EXPECT_FALSE(CDigitalCertificate::GetNumberOfCertificatesFromFile(FixturePath(L"missing.exe"), count));
    EXPECT_EQ(0u, count);
    EXPECT_FALSE(CDigitalCertificate::GetNumberOfCertificatesFromFile(FixturePath(L"signer.cer"), count));
    EXPECT_TRUE(log.HasFragment(L"missing.exe] - error 2\n") &&
                log.HasFragment(L"Failed to ImageEnumerateCertificates ["))
        << log.Dump();
}

// Serialised bytes come back as the same certificate, with its properties;
// plain DER is accepted too; anything else leaves the object empty.
TEST(Certificate, Serialisation)
{
    QXTest::LogCapture log;
    CDigitalCertificate signer;
    ASSERT_EQ(0u, signer.ReadFromSignedFile(FixturePath(L"signed.exe")));
    SetFriendlyName(signer, L"Transported");
    const DWORD size = signer.GetMaxBufSizeForSerialise();
    ASSERT_GT(size, 0u);
    std::vector<BYTE> bytes(size + 16);
    EXPECT_EQ(0u, signer.SerialiseContext(bytes.data(), size - 1));
    EXPECT_EQ(size, signer.SerialiseContext(bytes.data(), size + 16));
    EXPECT_TRUE(log.Has(4, "QXCommon::CDigitalCertificate::SerialiseContext",
                        L"Wrote " + std::to_wstring(size) + L" bytes of data to the buffer.\n"));

    CDigitalCertificate copy;
    ASSERT_TRUE(copy.DeserialiseContext(size, bytes.data()));
    EXPECT_TRUE(copy == signer && copy == FromCer(L"signer.cer") && copy.GetContext() != signer.GetContext());
    EXPECT_EQ(L"Transported", TakeBstr(copy.GetFriendlyName()));
    const std::vector<BYTE> der = ReadBytes(FixturePath(L"expired.cer"));
    ASSERT_TRUE(copy.DeserialiseContext(static_cast<DWORD>(der.size()), der.data()));
    EXPECT_TRUE(copy == FromCer(L"expired.cer"));

    const BYTE junk[] = "not a certificate at all";
    using Input = std::pair<DWORD, const BYTE*>;
    for (const auto& [length, data] :
         {Input{sizeof(junk), junk}, Input{size / 2, bytes.data()}, Input{0, junk}, Input{size, nullptr}})
    {
        copy = signer;
        EXPECT_FALSE(copy.DeserialiseContext(length, data));
        EXPECT_EQ(nullptr, copy.GetContext());
    }
    EXPECT_TRUE(log.HasFragment(L"Failed: Unable to create certificate [")) << log.Dump();

    EXPECT_EQ(0u, CDigitalCertificate().GetMaxBufSizeForSerialise());
    EXPECT_EQ(0u, CDigitalCertificate().SerialiseContext(bytes.data(), size));
    EXPECT_EQ(0u, signer.SerialiseContext(nullptr, size));
    EXPECT_EQ(0u, signer.SerialiseContext(bytes.data(), 0));
    for (const wchar_t* reason : {L"m_context", L"pBuffer", L"dwBufSize"})
        EXPECT_TRUE(log.Has(std::wstring(L"Cannot CertSerializeCertificateStoreElement because ") + reason +
                            L" is NULL.\n"))
            << QXTest::Narrow(reason);
}

// A failed read leaves the object empty and logs the error it returns.
TEST(Certificate, ReadFailures)
{
    QXTest::TempDir temp;
    const struct
    {
        bool fromSignedFile;
        std::wstring path;
        const wchar_t* logText;
    } cases[] = {
        {true, FixturePath(L"missing.exe"), L"CryptQueryObject failed - error "},
        {true, FixturePath(L"unsigned.exe"), L"CryptQueryObject failed - error "},
        {true, FixturePath(L"signer.cer"), L"CryptQueryObject failed - error "},
        {false, FixturePath(L"missing.cer"), L"Failed to CreateFileW ["},
        {false, FixturePath(L"signed.exe"), L"CertCreateCertificateContext failed - error "},
        {false, temp.Write(L"empty.cer", ""), L"CertCreateCertificateContext failed - error "},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.path));
        QXTest::LogCapture log;
        CDigitalCertificate certificate = FromCer(L"signer.cer");
        const DWORD error =
            c.fromSignedFile ? certificate.ReadFromSignedFile(c.path) : certificate.ReadFromCERFile(c.path);
        EXPECT_NE(0u, error);
        EXPECT_EQ(nullptr, certificate.GetContext());
        EXPECT_TRUE(log.HasFragment(c.logText) && log.HasFragment(L"error " + std::to_wstring(error) + L"\n"))
            << log.Dump();
        EXPECT_EQ(!c.fromSignedFile,
                  log.Has(4, "QXCommon::CDigitalCertificate::ReadFromCERFile",
                          L"m_Context should have been NULL, CertFreeCertificateContext returned [1].\n"));
    }
}

// The C exports: null arguments are answered, paths are in the thread's ANSI
// code page, the buffer holds the serialised signer.
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
    EXPECT_FALSE(read(nullptr, signedPath.c_str(), true));
    EXPECT_FALSE(read(object, nullptr, true));
    EXPECT_FALSE(read(object, signedPath.c_str(), false));
    EXPECT_FALSE(read(object, QXTest::Narrow(FixturePath(L"missing.exe")).c_str(), true));
    EXPECT_FALSE(read(object, QXTest::Narrow(FixturePath(L"unsigned.exe")).c_str(), true));
    EXPECT_TRUE(read(object, signedPath.c_str(), true));
    ReleaseCertificateData(nullptr);
    DeleteDigitalCertificateObject(nullptr);

    // Non-ASCII names, in the code page of the thread's locale.
    QXTest::TempDir temp;
    const std::vector<BYTE> image = ReadBytes(FixturePath(L"signed.exe"));
    const LCID original = GetThreadLocale();
    for (const auto& [language, codePage, name] :
         {std::tuple{LANG_GERMAN, 1252u, L"Prüfung-ÄÖÜß.exe"}, std::tuple{LANG_RUSSIAN, 1251u, L"Подпись.exe"}})
    {
        SCOPED_TRACE(codePage);
        const std::wstring path = temp.Write(name, std::string(image.begin(), image.end()));
        char narrow[MAX_PATH] = {};
        BOOL lossy = FALSE;
        ASSERT_GT(WideCharToMultiByte(codePage, 0, path.c_str(), -1, narrow, MAX_PATH, nullptr, &lossy), 0);
        ASSERT_FALSE(lossy);
        ASSERT_TRUE(SetThreadLocale(MAKELCID(MAKELANGID(language, SUBLANG_DEFAULT), SORT_DEFAULT)));
        EXPECT_TRUE(read(object, narrow, true));
        SetThreadLocale(original);
    }
    DeleteDigitalCertificateObject(object);
}
