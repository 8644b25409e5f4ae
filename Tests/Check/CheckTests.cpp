// qxinspect check and fileinfo run as programs: a rule set of every kind
// against copies of the signed and unsigned fixtures (their root trusted
// while the suite runs), the example rule set against notepad, malformed
// rule files, a program that does not exist, and fileinfo answering alike on
// one and on several threads.

#include "CertificateFixtures.h"
#include "QXTestSupport.h"

#include "QXCommon/ProcessIDAndCreateTime.h"
#include "QXCommon/QXCommonFunctions.h"
#include "QXCommon/SignatureAlgorithmStrategy.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace
{
using QXTest::Narrow;

std::wstring Quoted(const std::wstring& text)
{
    return L"\"" + text + L"\"";
}

// The text as it appears inside a JSON string.
std::string JsonText(const std::wstring& text)
{
    std::string out;
    for (char c : Narrow(text))
        out += c == '\\' ? std::string("\\\\") : std::string(1, c);
    return out;
}

// The outcome qxinspect gave the rule labelled label (results come before
// the list of matches in the document).
std::string OutcomeOf(const std::string& output, const std::string& label)
{
    const size_t at = output.find("\"label\": \"" + label + "\"");
    const size_t outcome = output.find("\"outcome\": \"", at);
    if (at == std::string::npos || outcome == std::string::npos)
        return "(absent)";
    const size_t start = outcome + 12;
    return output.substr(start, output.find('"', start) - start);
}

std::string Hash(SignatureAlgorithm algorithm, const std::wstring& path)
{
    SignatureAlgorithmStrategy::Get()->SetSignatureAlgorithm(algorithm);
    return Narrow(QXCommonFunctions::GenerateFileHash(path));
}

class Check : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(trust.Ok()) << "the test root cannot be trusted";
        for (const wchar_t* name : {L"signed.exe", L"unsigned.exe", L"signer.cer"})
            ASSERT_TRUE(CopyFileW(QXTest::Certs::FixturePath(name).c_str(), dir.File(name).c_str(), FALSE));
        signedExe = dir.File(L"signed.exe");
        unsignedExe = dir.File(L"unsigned.exe");
        sha1 = Hash(SignatureAlgorithmSHA1, signedExe);
        sha256 = Hash(SignatureAlgorithmSHA256, signedExe);
        adler32 = Hash(SignatureAlgorithmAdler32, signedExe);
        ASSERT_EQ(40u, sha1.size());
        // Hash texts match whatever their case; a relative certificate is
        // taken from the rules file's folder.
        std::string upper = sha1;
        std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
        std::string lower = adler32;
        std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
        everyKind = "# every content kind, and paths with %VAR%\n\n"
                    "[ by name ] name SIGNED.exe\n"
                    "[drive] regex ^%SystemDrive%\\\\.*\\\\signed\\.exe$\n"
                    "[sha1]   sha1 " + upper + "\n"
                    "[sha256] sha256 " + sha256 + "\n"
                    "[adler]  adler32 " + lower + "\n"
                    "[signer] signer signer.cer\n"
                    "[share]  network \\\\fileserver\\tools\n"
                    "[full path] signer " + Narrow(dir.File(L"signer.cer")) + "\n";
        rules = dir.Write(L"rules.txt", everyKind);
    }

    QXTest::ProcessResult Inspect(const std::wstring& arguments) const
    {
        QXTest::ProcessResult run = QXTest::RunInspect(arguments);
        EXPECT_TRUE(run.started);
        return run;
    }

    QXTest::Certs::TestRootTrust trust;
    QXTest::TempDir dir;
    std::wstring signedExe, unsignedExe, rules;
    std::string sha1, sha256, adler32, everyKind;
};

TEST_F(Check, EveryRuleKindWithItsOutcomeAndExitCode)
{
    const std::wstring missing = dir.File(L"missing.exe");
    const std::wstring nameOnly = dir.Write(L"name-only.txt", "[missing by name] name missing.exe\n");
    struct Case
    {
        std::wstring arguments;
        DWORD exitCode;
        std::vector<std::pair<std::string, std::string>> outcomes; // label, outcome
        std::vector<std::string> fragments;
    } const cases[] = {
        {L"--rules " + Quoted(rules) + L" " + Quoted(signedExe), 0,
         {{"by name", "match"}, {"drive", "match"}, {"sha1", "match"}, {"sha256", "match"}, {"adler", "match"},
          {"signer", "match"}, {"share", "no match"}, {"full path", "match"}},
         {"\"answer\": \"match\"", "\"isNTExe\": true", "\"verified\": true", "\"signer\": \"QXCommon Test Signer\"",
          "\"sha256\": \"" + sha256 + "\"", "\"adler32\": \"" + adler32 + "\"", "same issuer and serial number"}},
        {L"--rules " + Quoted(rules) + L" " + Quoted(unsignedExe), 1,
         {{"by name", "no match"}, {"drive", "no match"}, {"sha1", "no match"}, {"signer", "no match"}},
         {"\"answer\": \"no match\"", "\"matches\": []", "TRUST_E_NOSIGNATURE", "expected " + sha256 + ", computed "}},
        // A program that does not exist: its path still matches by text;
        // content rules cannot be answered, and without a match that is exit 3.
        {L"--rules " + Quoted(rules) + L" " + Quoted(missing), 3,
         {{"by name", "no match"}, {"sha1", "could not answer"}, {"signer", "could not answer"}},
         {"\"answer\": \"could not answer\"", "\"step\": \"image\",\n      \"ok\": false", "the file cannot be hashed: 2"}},
        {L"--rules " + Quoted(nameOnly) + L" " + Quoted(missing), 0, {{"missing by name", "match"}}, {}},
        // A command line: its program is matched, its arguments found on the
        // search path are written in full.
        {L"--rules " + Quoted(rules) + L" --cmdline " + Quoted(L"\\\"" + signedExe + L"\\\" /x win.ini"), 0,
         {{"by name", "match"}},
         {"\"arguments\": \"/x win.ini\"", "\"expanded\": \"/x C:\\\\windows\\\\win.ini\"",
          "\"program\": \"" + JsonText(signedExe) + "\""}},
        {L"--rules " + Quoted(rules) + L" --cmdline " + Quoted(L"\\\"" + signedExe), 3,
         {{"by name", "could not answer"}}, {"\"programSource\": \"the command line names no program\""}},
        {L"--rules " + Quoted(rules) + L" --pid 4294967295 " + Quoted(signedExe), 0,
         {{"by name", "match"}, {"drive", "could not answer"}, {"signer", "could not answer"}},
         {"\"step\": \"identity\",\n      \"ok\": false", "\"step\": \"token\",\n      \"ok\": false"}},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(Narrow(c.arguments));
        const QXTest::ProcessResult run = Inspect(L"--json check --ignore 0xF00 " + c.arguments);
        EXPECT_EQ(c.exitCode, run.exitCode) << run.output;
        for (const auto& [label, outcome] : c.outcomes)
            EXPECT_EQ(outcome, OutcomeOf(run.output, label)) << label << "\n" << run.output;
        for (const std::string& fragment : c.fragments)
            EXPECT_NE(std::string::npos, run.output.find(fragment)) << fragment << "\n" << run.output;
    }
}

TEST_F(Check, TheWalkIsThisProcessWhenAskedForIt)
{
    QXCommon::CProcessIDAndCreateTime self;
    ASSERT_EQ(0u, self.Initialise());
    const QXTest::ProcessResult run = Inspect(L"check --rules " + Quoted(rules) + L" --ignore 0xF00 --pid " +
                                              std::to_wstring(GetCurrentProcessId()) + L" " + Quoted(signedExe));
    EXPECT_EQ(0u, run.exitCode) << run.output;
    // The text gives the steps in the agent's order, then rules, then matches.
    std::vector<size_t> at;
    for (const char* part : {"1 process identity:   ", "2 NT image:           yes", "3 token:", "4 command line:",
                             "5 environment:", "6 hashes (8 MiB):     sha1 ", "7 signature:          0x00000000",
                             "rules:\n", "matching rules: line 3 [by name], line 4 [drive], line 5 [sha1]",
                             "answer: match"})
        at.push_back(run.output.find(part));
    EXPECT_NE(std::string::npos, run.output.find(Narrow(self.GetProcessIDAndCreateTime()) + " (process "));
    EXPECT_TRUE(std::is_sorted(at.begin(), at.end()) && at.back() != std::string::npos) << run.output;
}

TEST_F(Check, AMalformedRuleStopsEverythingWithItsLine)
{
    const struct
    {
        const char* text;
        const char* reason;
    } cases[] = {
        {"name a.exe\n# fine so far\nexecutable a.exe\n", ":3: unknown kind \"executable\""},
        {"\n[label only]\n", ":2: a label but no rule"},
        {"[open label name a.exe\n", ":1: the label has no closing ]"},
        {"path   \t\n", ":1: a path rule needs a pattern"},
        {"sha256 abc\n", ":1: sha256 hash text: 64 hexadecimal digits expected"},
        {"sha1 da39a3ee5e6b4b0d3255bfef95601890afd8070g\n", ":1: sha1 hash text: 40 hexadecimal digits expected"},
        {"adler32 0000000001\n", ":1: adler32 hash text: 8 hexadecimal digits expected"},
        {"name a.exe\nregex ^(unclosed\n", ":2: the regular expression is refused"},
        {"signer nothere.cer\n", ":1: the certificate "},
        {"name caf\xE9.exe\n", ": not UTF-8 text"},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.text);
        const std::wstring file = dir.Write(L"bad.txt", c.text);
        const QXTest::ProcessResult run = Inspect(L"check --rules " + Quoted(file) + L" " + Quoted(signedExe));
        EXPECT_EQ(2u, run.exitCode) << run.output;
        EXPECT_NE(std::string::npos, run.output.find(Narrow(file) + c.reason)) << run.output;
        EXPECT_EQ(std::string::npos, run.output.find("process identity")) << run.output;
    }
    for (const std::wstring& arguments :
         {L"check " + Quoted(signedExe), L"check --rules " + Quoted(rules),
          L"check --rules " + Quoted(rules) + L" --cmdline x.exe " + Quoted(signedExe),
          L"check --rules " + Quoted(dir.File(L"none.txt")) + L" " + Quoted(signedExe)})
        EXPECT_EQ(2u, Inspect(arguments).exitCode) << Narrow(arguments);
}

TEST_F(Check, TheExampleRulesOnNotepad)
{
    const QXTest::ProcessResult run =
        Inspect(L"--json check --rules " + Quoted(QXTest::HelperPath(L"examples\\rules.txt")) +
                L" --cmdline \"C:\\windows\\system32\\notepad.exe win.ini\"");
    EXPECT_EQ(0u, run.exitCode) << run.output;
    for (const char* label : {"notepad by name", "notepad by path", "programs in system32", "system32 itself",
                              "anything under Windows", "note-anything", "any pad below Windows", "hook exceptions"})
        EXPECT_EQ("match", OutcomeOf(run.output, label)) << label << "\n" << run.output;
    for (const char* label : {"tools share", "pinned build (sha1)", "pinned build (sha256)", "pinned build (adler32)",
                              "test signer"})
        EXPECT_EQ("no match", OutcomeOf(run.output, label)) << label << "\n" << run.output;
}

TEST_F(Check, FileInfoAnswersAlikeOnOneAndOnSeveralThreads)
{
    const std::wstring files = Quoted(dir.Path()) + L" " + Quoted(dir.File(L"missing.exe")) +
                               L" C:\\windows\\system32\\notepad.exe " + Quoted(signedExe);
    std::string first;
    for (int threads : {1, 3, 64})
    {
        SCOPED_TRACE(threads);
        QXTest::ProcessResult run =
            Inspect(L"--json fileinfo --ignore 0xF00 --threads " + std::to_wstring(threads) + L" " + files);
        EXPECT_EQ(3u, run.exitCode) << run.output;
        const std::string count = "\"threads\": " + std::to_string(threads);
        ASSERT_NE(std::string::npos, run.output.find(count)) << run.output;
        run.output.replace(run.output.find(count), count.size(), "\"threads\": N");
        if (first.empty())
            first = run.output;
        EXPECT_EQ(first, run.output);
    }
    // The folder gives its files by name; every answer is where its file is.
    std::vector<size_t> at;
    for (const std::wstring& file : {dir.File(L"rules.txt"), dir.File(L"signed.exe"), dir.File(L"signer.cer"),
                                     dir.File(L"unsigned.exe"), dir.File(L"missing.exe"), signedExe})
        at.push_back(first.find("\"path\": \"" + JsonText(file) + "\"", at.empty() ? 0 : at.back() + 1));
    EXPECT_TRUE(std::is_sorted(at.begin(), at.end()) && at.back() != std::string::npos) << first;
    for (const std::string& fragment :
         {"\"sha1\": \"" + sha1 + "\"", "\"sha256\": \"" + sha256 + "\"", "\"adler32\": \"" + adler32 + "\"",
          std::string("\"verified\": true"), std::string("\"name\": \"QXCommon Test Signer\""),
          std::string("\"expires\": \"2045-12-31 23:59:59 UTC\""), std::string("\"certificateTableEntries\": 1"),
          std::string("\"isNTExe\": false"), std::string("\"errorText\": \"2 ("), std::string("\"owner\": {")})
        EXPECT_NE(std::string::npos, first.find(fragment)) << fragment << "\n" << first;
    EXPECT_EQ(2u, Inspect(L"fileinfo --threads 65 " + Quoted(signedExe)).exitCode);
}
} // namespace
