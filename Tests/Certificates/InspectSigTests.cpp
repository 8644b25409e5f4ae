// qxinspect sig, run as a program on the fixtures (their root trusted by the
// suite's environment): answers as JSON and exit codes.

#include "CertificateFixtures.h"
#include "QXTestSupport.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{
std::wstring Quoted(const std::wstring& text)
{
    return L"\"" + text + L"\"";
}

TEST(InspectSig, AnswersAndExitCodes)
{
    const std::wstring exe = QXTest::HelperPath(L"qxinspect.exe");
    if (GetFileAttributesW(exe.c_str()) == INVALID_FILE_ATTRIBUTES)
        GTEST_SKIP() << "qxinspect.exe is not built beside the tests";
    auto fixture = [](const wchar_t* name) { return Quoted(QXTest::Certs::FixturePath(name)); };
    const std::wstring cert = L" --cert " + fixture(L"signer.cer");
    struct Case
    {
        std::wstring arguments;
        DWORD exitCode;
        std::vector<std::string> fragments;
    } const cases[] = {
        {L"--json sig --enforce-expiry --ignore 0xF00" + cert + L" " + fixture(L"signed.exe"), 0,
         {"\"verified\": true", "\"name\": \"QXCommon Test Signer\"", "\"expires\": \"2045-12-31 23:59:59 UTC\"",
          "\"revocation unknown\"", "\"policyErrorHex\": \"0x00000000\"", "\"certificateTableEntries\": 1",
          "\"matchesCert\": true",
          "\"cert\": \"QXCommon Test Signer\""}},
        {L"--json sig --ignore 0xF00" + cert + L" " + fixture(L"untrusted.exe"), 1,
         {"\"resultName\": \"CERT_E_UNTRUSTEDROOT\"", "\"chainErrors\": [\n          \"untrusted root\"",
          "\"matchesCert\": false"}},
        {L"--json sig --enforce-expiry --ignore 0xF00 " + fixture(L"expired.exe"), 1,
         {"\"resultHex\": \"0x800B0101\"", "\"policyErrorHex\": \"0x800B0101\"", "\"not time valid\""}},
        {L"--json sig --ignore 3840 " + fixture(L"expired.exe") + L" " + fixture(L"twoentries.exe"), 0,
         {"\"verified\": true", "\"certificateTableEntries\": 2"}},
        {L"--json sig " + fixture(L"unsigned.exe"), 1,
         {"\"resultName\": \"TRUST_E_NOSIGNATURE\"", "\"signer\": null", "\"certificateTableEntries\": 0"}},
        {L"sig --ignore 0xF00 " + fixture(L"signed.exe"), 0, {"signer:          QXCommon Test Signer", "(verified)"}},
        {L"sig " + fixture(L"signed.exe") + L" " + fixture(L"missing.exe"), 3, {"missing.exe: 0x80070002"}},
        {L"sig" + cert, 2, {"sig needs at least one PATH"}},
        {L"sig --ignore nonsense " + fixture(L"signed.exe"), 2, {"--ignore: not a 32-bit number"}},
        {L"sig --cert " + fixture(L"missing.cer") + L" " + fixture(L"signed.exe"), 3, {"--cert "}},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.arguments));
        const QXTest::ProcessResult run = QXTest::RunProcess(Quoted(exe) + L" " + c.arguments);
        ASSERT_TRUE(run.started);
        EXPECT_EQ(c.exitCode, run.exitCode) << run.output;
        for (const std::string& fragment : c.fragments)
            EXPECT_NE(std::string::npos, run.output.find(fragment)) << fragment << "\n" << run.output;
    }
}
} // namespace
