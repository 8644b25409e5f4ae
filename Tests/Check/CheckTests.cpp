// qxinspect as administrators and scripts run it: check against rule sets of
// every kind on copies of the signed and unsigned fixtures (their root
// trusted while the suite runs), files that have no identity (a device, a
// folder, 4 GiB or more), malformed and doubtful rules files, the encodings
// they come in, signer rules against a certificate that only shares issuer
// and serial number, match with the meaning of each kind, and every
// command's --json document against qxinspect.schema.json.

#include "Access.h"
#include "CertificateFixtures.h"
#include "JsonDocument.h"
#include "QXTestSupport.h"
#include "Stream.h"

#include "QXCommon/ProcessIDAndCreateTime.h"
#include "QXCommon/QXCommonFunctions.h"
#include "QXCommon/SignatureAlgorithmStrategy.h"

#include <atlbase.h>
#include <gtest/gtest.h>

#include <aclapi.h>
#include <sddl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace
{
using QXTest::JsonValue;
using QXTest::Narrow;

std::wstring Quoted(const std::wstring& text)
{
    return L"\"" + text + L"\"";
}

const JsonValue& Schema()
{
    static const JsonValue schema = [] {
        JsonValue value;
        std::string error;
        const auto bytes = QXTest::Certs::ReadBytes(QXTest::HelperPath(L"qxinspect.schema.json"));
        EXPECT_TRUE(QXTest::ParseJson(std::string(bytes.begin(), bytes.end()), value, error)) << error;
        return value;
    }();
    return schema;
}

struct Result
{
    DWORD exitCode = 0xFFFFFFFF;
    std::string out, err;
    JsonValue doc;                  // --json runs: the one document on standard output (JSON Lines: the summary)
    std::vector<JsonValue> records; // JSON Lines: every record before the summary
};

// A document of a --json run follows the schema: the one its command (or
// error) names, and exactly one of them.
void ExpectSchema(const JsonValue& doc, const std::wstring& arguments, const std::string& text)
{
    std::string name = doc.Has("error") ? "errorDocument" : doc["command"].text;
    if (doc.Has("record"))
        name += std::string(1, static_cast<char>(::toupper(doc["record"].text[0]))) + doc["record"].text.substr(1);
    for (const std::string& broken : QXTest::SchemaBreaks(doc, Schema(), name))
        ADD_FAILURE() << Narrow(arguments) << ": " << broken << "\n" << text;
    EXPECT_TRUE(QXTest::SchemaBreaks(doc, Schema()).empty()) << "not one of the schema's documents";
}

// The one document of a --json run, or its JSON Lines (a record a line, the
// summary last), every one checked against the schema.
void ReadDocuments(Result& run, const std::wstring& arguments)
{
    std::string error;
    if (run.out.empty() || run.out.compare(0, 2, "{\n") == 0)
    {
        EXPECT_TRUE(QXTest::ParseJson(run.out, run.doc, error)) << error << "\n" << run.out << run.err;
        ExpectSchema(run.doc, arguments, run.out);
        return;
    }
    for (size_t at = 0; at < run.out.size();)
    {
        const size_t end = std::min(run.out.find('\n', at), run.out.size());
        JsonValue& record = run.records.emplace_back();
        EXPECT_TRUE(QXTest::ParseJson(run.out.substr(at, end - at), record, error)) << error << "\n" << run.out;
        ExpectSchema(record, arguments, run.out.substr(at, end - at));
        at = end + 1;
    }
    run.doc = run.records.back();
    run.records.pop_back();
    EXPECT_EQ("summary", run.doc["record"].text) << run.out;
}

// Starts qxinspect with the standard handles given (null: not started), one
// child at a time, the handles inheritable only then: no child takes another's.
HANDLE Launch(const std::wstring& arguments, HANDLE in, HANDLE out, HANDLE err)
{
    static std::mutex creating;
    const std::lock_guard<std::mutex> lock(creating);
    for (HANDLE handle : {in, out, err})
        SetHandleInformation(handle, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
    STARTUPINFOW si{sizeof si};
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdInput = in;
    si.hStdOutput = out;
    si.hStdError = err;
    PROCESS_INFORMATION pi{};
    std::wstring line = Quoted(QXTest::HelperPath(L"qxinspect.exe")) + L" " + arguments;
    const BOOL started = CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi);
    for (HANDLE handle : {in, out, err})
        SetHandleInformation(handle, HANDLE_FLAG_INHERIT, 0);
    if (!started)
        return nullptr;
    CloseHandle(pi.hThread);
    return pi.hProcess;
}

// Runs qxinspect with standard output and error apart (into files that go
// with their handles, or stdout into the handle given), bounded by a minute.
// A --json run must print exactly one document, and it must follow the
// schema.
Result Inspect(const std::wstring& arguments, HANDLE stdOut = nullptr)
{
    Result run;
    auto temporary = [&](const wchar_t* name) {
        wchar_t folder[MAX_PATH] = {}, path[MAX_PATH] = {};
        GetTempPathW(MAX_PATH, folder);
        GetTempFileNameW(folder, name, 0, path);
        return CreateFileW(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                           nullptr, CREATE_ALWAYS, FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    };
    ATL::CHandle out(temporary(L"qxo")), err(temporary(L"qxe"));
    ATL::CHandle process(Launch(arguments, nullptr, stdOut != nullptr ? stdOut : static_cast<HANDLE>(out), err));
    if (process == nullptr)
    {
        ADD_FAILURE() << "qxinspect not started: " << GetLastError();
        return run;
    }
    if (WaitForSingleObject(process, 60000) != WAIT_OBJECT_0)
    {
        ADD_FAILURE() << "qxinspect did not end within a minute: " << Narrow(arguments);
        TerminateProcess(process, 0xDEAD);
        WaitForSingleObject(process, 5000);
    }
    GetExitCodeProcess(process, &run.exitCode);
    for (auto [file, text] : {std::pair{&out, &run.out}, std::pair{&err, &run.err}})
    {
        char buffer[65536];
        DWORD got = 0;
        SetFilePointer(*file, 0, nullptr, FILE_BEGIN);
        while (ReadFile(*file, buffer, sizeof buffer, &got, nullptr) && got > 0)
            text->append(buffer, got);
    }
    if (arguments.compare(0, 6, L"--json") == 0 && stdOut == nullptr)
        ReadDocuments(run, arguments);
    return run;
}

// Runs qxinspect once per case, four at a time (most of a run is its process
// starting), the results in the cases' order.
template <class Cases, class Arguments>
std::vector<Result> InspectEach(const Cases& cases, Arguments arguments)
{
    std::vector<Result> runs(std::size(cases));
    std::atomic<size_t> next{0};
    std::vector<std::thread> workers;
    for (int k = 0; k < 4; ++k)
        workers.emplace_back([&] {
            for (size_t i = next++; i < runs.size(); i = next++)
                runs[i] = Inspect(arguments(cases[i]));
        });
    for (std::thread& worker : workers)
        worker.join();
    return runs;
}

// The element of list whose key is value: a rule's result by its label, a step by its name.
const JsonValue& Find(const JsonValue& list, const std::string& key, const std::string& value)
{
    for (const JsonValue& item : list.items)
        if (item[key].text == value)
            return item;
    return list["(absent)"];
}
const JsonValue& ResultOf(const JsonValue& doc, const std::string& label)
{
    return Find(doc["results"], "label", label);
}
const JsonValue& StepOf(const JsonValue& doc, const std::string& name)
{
    return Find(doc["steps"], "step", name);
}

// The reasons of the notes (warnings or malformed lines) of one line.
std::string NotesOf(const JsonValue& notes, unsigned line)
{
    std::string reasons;
    for (const JsonValue& note : notes.items)
        if (note["line"].Str() == std::to_string(line))
            reasons += note["reason"].text + "\n";
    return reasons;
}

std::string Hash(SignatureAlgorithm algorithm, const std::wstring& path)
{
    SignatureAlgorithmStrategy::Get()->SetSignatureAlgorithm(algorithm);
    return Narrow(QXCommonFunctions::GenerateFileHash(path));
}

std::string ReadText(const std::wstring& path)
{
    const std::vector<BYTE> bytes = QXTest::Certs::ReadBytes(path);
    return std::string(bytes.begin(), bytes.end());
}

std::string Base64(const std::vector<BYTE>& bytes)
{
    DWORD size = 0;
    CryptBinaryToStringA(bytes.data(), static_cast<DWORD>(bytes.size()), CRYPT_STRING_BASE64, nullptr, &size);
    std::string text(size, '\0');
    CryptBinaryToStringA(bytes.data(), static_cast<DWORD>(bytes.size()), CRYPT_STRING_BASE64, text.data(), &size);
    return text.substr(0, size);
}

// UTF-16 with a byte-order mark, as a PowerShell redirection writes it.
std::string Utf16(const std::string& utf8, bool bigEndian)
{
    std::string bytes = bigEndian ? "\xFE\xFF" : "\xFF\xFE";
    for (wchar_t c : QXTest::Widen(utf8))
    {
        const char lo = static_cast<char>(c & 0xFF), hi = static_cast<char>(c >> 8);
        bytes += bigEndian ? std::string{hi, lo} : std::string{lo, hi};
    }
    return bytes;
}

class Check : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(trust.Ok()) << "the test root cannot be trusted";
        for (const wchar_t* name : {L"signed.exe", L"unsigned.exe", L"signer.cer", L"untrusted.cer"})
            ASSERT_TRUE(CopyFileW(QXTest::Certs::FixturePath(name).c_str(), dir.File(name).c_str(), FALSE));
        // The same issuer and serial number as the signer, another certificate
        // (one byte of its signature changed); and the signer in PEM.
        std::vector<BYTE> der = QXTest::Certs::ReadBytes(dir.File(L"signer.cer"));
        dir.Write(L"signer.pem", "-----BEGIN CERTIFICATE-----\n" + Base64(der) + "\n-----END CERTIFICATE-----\n");
        der.back() ^= 1;
        dir.Write(L"forged.cer", std::string(der.begin(), der.end()));
        signedExe = dir.File(L"signed.exe");
        unsignedExe = dir.File(L"unsigned.exe");
        sha1 = Hash(SignatureAlgorithmSHA1, signedExe);
        sha256 = Hash(SignatureAlgorithmSHA256, signedExe);
        adler32 = Hash(SignatureAlgorithmAdler32, signedExe);
        ASSERT_EQ(40u, sha1.size());
        // Hash texts match whatever their case; a relative certificate is
        // taken from the rules file's folder.
        std::string upper = sha1, lower = adler32;
        std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
        std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
        rules = dir.Write(L"rules.txt", "# every content kind, and paths with %VAR%\n\n"
                                        "[ by name ] name SIGNED.exe\n"
                                        "[drive] regex ^%SystemDrive%\\\\.*\\\\signed\\.exe$\n"
                                        "[sha1]   sha1 " + upper + "\n"
                                        "[sha256] sha256 " + sha256 + "\n"
                                        "[adler]  adler32 " + lower + "\n"
                                        "[signer] signer signer.cer\n"
                                        "[share]  network \\\\fileserver\\tools\n"
                                        "[full path] signer " + Narrow(dir.File(L"signer.cer")) + "\n"
                                        "[exact path] path " + Narrow(signedExe) + "\n");
    }

    // A tree of programs (copies of the unsigned fixture) and a rule set for
    // it: a rule for one program, one for a folder and all below it, one
    // that only repeats it (redundant), one that allows nothing (dead), one
    // for the folder "open"; apps\\other\\five.exe no rule allows.
    std::wstring MakeTree()
    {
        tree = dir.MakeDir(L"tree");
        for (const wchar_t* folder : {L"tree\\apps", L"tree\\apps\\a", L"tree\\apps\\b", L"tree\\apps\\b\\sub",
                                      L"tree\\apps\\other", L"tree\\open"})
            dir.MakeDir(folder);
        for (const wchar_t* program : {L"apps\\a\\one.exe", L"apps\\b\\two.exe", L"apps\\b\\sub\\three.exe",
                                       L"apps\\other\\five.exe", L"open\\four.exe"})
            EXPECT_TRUE(CopyFileW(unsignedExe.c_str(), (tree + L"\\" + program).c_str(), FALSE));
        const std::string root = Narrow(tree);
        return dir.Write(L"tree.txt", "[one] path " + root + "\\apps\\a\\one.exe\n"
                                      "[b] subfolders " + root + "\\apps\\b\n"
                                      "[dup] name two.exe\n"
                                      "[dead] name nothing.exe\n"
                                      "[open] folder " + root + "\\open\n");
    }

    QXTest::Certs::TestRootTrust trust;
    QXTest::TempDir dir;
    std::wstring signedExe, unsignedExe, rules, tree;
    std::string sha1, sha256, adler32;
};

TEST_F(Check, EveryRuleKindWithItsOutcomeAndExitCode)
{
    // Files that have no identity: their hash and signer rules cannot be answered.
    const std::wstring big = dir.WriteSparse(L"big.bin", 0x100000000ull, {{0, "MZ"}});
    const std::wstring missing = dir.File(L"missing.exe");
    const std::string noFile = "could not answer";
    // Each rule's outcome by label, and a text the sha1 rule's reason holds.
    struct Case { std::wstring arguments; DWORD exitCode; std::vector<std::pair<std::string, std::string>> outcomes;
                  std::string reason; } const cases[] = {
        {Quoted(signedExe), 0,
         {{"by name", "match"}, {"drive", "match"}, {"sha1", "match"}, {"sha256", "match"}, {"adler", "match"},
          {"signer", "match"}, {"share", "no match"}, {"full path", "match"}, {"exact path", "match"}},
         "computed " + sha1},
        {Quoted(unsignedExe), 1,
         {{"by name", "no match"}, {"drive", "no match"}, {"sha1", "no match"}, {"signer", "no match"},
          {"exact path", "no match"}},
         "expected"},
        // A \\?\ or \\.\ prefix is the path it names.
        {Quoted(L"\\\\?\\" + signedExe), 0, {{"exact path", "match"}, {"by name", "match"}, {"sha1", "match"}}, ""},
        {Quoted(L"\\\\.\\" + signedExe), 0, {{"exact path", "match"}, {"sha256", "match"}}, ""},
        // A program that does not exist: its path still matches by text;
        // content rules cannot be answered, and without a match that is exit 3.
        {Quoted(missing), 3, {{"by name", "no match"}, {"sha1", noFile}, {"signer", noFile}},
         Narrow(QXCommonFunctions::ErrorMessageFromCode(ERROR_FILE_NOT_FOUND))},
        {L"NUL", 3, {{"sha1", noFile}, {"adler", noFile}, {"signer", noFile}}, "a device"},
        {L"--cmdline " + Quoted(L"\\\"" + dir.Path() + L"\\\""), 3, {{"sha256", noFile}, {"signer", noFile}}, "a folder"},
        {Quoted(big), 3, {{"sha1", noFile}, {"signer", noFile}}, "4 GiB or more"},
        {L"--cmdline " + Quoted(L"\\\"" + signedExe + L"\\\" /x win.ini"), 0, {{"by name", "match"}}, ""},
        {L"--cmdline " + Quoted(L"\\\"" + signedExe), 3, {{"by name", noFile}, {"sha1", noFile}}, "names no program"},
        // A process that cannot be opened: no identity, token or table.
        {L"--pid 4294967295 " + Quoted(signedExe), 0,
         {{"by name", "match"}, {"drive", noFile}, {"signer", noFile}}, ""},
    };
    const std::vector<Result> runs = InspectEach(cases, [&](const Case& c) {
        return L"--json check --ignore 0xF00 --rules " + Quoted(rules) + L" " + c.arguments;
    });
    for (const Case& c : cases)
    {
        SCOPED_TRACE(Narrow(c.arguments));
        const Result& run = runs[&c - cases];
        EXPECT_EQ(c.exitCode, run.exitCode) << run.out << run.err;
        for (const auto& [label, outcome] : c.outcomes)
            EXPECT_EQ(outcome, ResultOf(run.doc, label)["outcome"].text) << label << "\n" << run.out;
        EXPECT_NE(std::string::npos, ResultOf(run.doc, "sha1")["reason"].text.find(c.reason)) << run.out;
    }
    const Result run = Inspect(L"--json check --ignore 0xF00 --rules " + Quoted(rules) + L" --cmdline " +
                            Quoted(L"\\\"" + signedExe + L"\\\" /x win.ini"));
    EXPECT_EQ("/x C:\\windows\\win.ini", StepOf(run.doc, "commandLine")["expanded"].text);
    EXPECT_EQ(Narrow(signedExe), run.doc["program"].text);
    EXPECT_EQ("true", StepOf(run.doc, "image")["isNTExe"].Str());
    const JsonValue& signature = StepOf(run.doc, "signature");
    EXPECT_EQ("0x00000000", signature["result"].text);
    EXPECT_EQ("QXCommon Test Signer", signature["signer"]["name"].text);
    EXPECT_EQ(adler32, StepOf(run.doc, "hashes")["adler32"].text);
}

TEST_F(Check, TheWalkIsThisProcessWhenAskedForIt)
{
    QXCommon::CProcessIDAndCreateTime self;
    ASSERT_EQ(0u, self.Initialise());
    const Result run = Inspect(L"check --rules " + Quoted(rules) + L" --ignore 0xF00 --pid " +
                            std::to_wstring(GetCurrentProcessId()) + L" " + Quoted(signedExe));
    EXPECT_EQ(0u, run.exitCode) << run.out << run.err;
    // The text gives the steps in the agent's order, then rules, then matches.
    std::vector<size_t> at;
    for (const char* part : {"(9 rules)", "1 process identity:   ", "2 NT image:           yes", "3 token:",
                             "4 command line:", "5 environment:", "6 hashes (8 MiB):     sha1 ",
                             "7 signature:          0x00000000", "rules:\n",
                             "matching rules: line 3 [by name], line 4 [drive], line 5 [sha1]", "answer: match"})
        at.push_back(run.out.find(part));
    EXPECT_NE(std::string::npos, run.out.find(Narrow(self.GetProcessIDAndCreateTime()) + " (process "));
    EXPECT_TRUE(std::is_sorted(at.begin(), at.end()) && at.back() != std::string::npos) << run.out;
    const std::wstring one = dir.Write(L"one.txt", "name a.exe\n");
    EXPECT_NE(std::string::npos, Inspect(L"check --rules " + Quoted(one) + L" a.exe").out.find("(1 rule)"));
}

TEST_F(Check, EveryMalformedLineIsReportedAndNothingEvaluated)
{
    const struct { unsigned line; const char* text; const char* reason; } lines[] = {
        {1, "executable a.exe", "unknown kind \"executable\""},
        {2, "[label only]", "a label but no rule"},
        {3, "[open label name a.exe", "the label has no closing ]"},
        {4, "path   \t", "a path rule needs a pattern"},
        {5, "sha256 abc", "sha256 hash text: 64 hexadecimal digits expected"},
        {6, "sha1 da39a3ee5e6b4b0d3255bfef95601890afd8070g", "sha1 hash text: 40 hexadecimal digits expected"},
        {7, "adler32 0000000001", "adler32 hash text: 8 hexadecimal digits expected"},
        {8, "regex ^(unclosed", "error 5 (error_paren): mismatched parentheses"},
        {9, "regex [a", "error 4 (error_brack): mismatched brackets"},
        {10, "signer nothere.cer", "the certificate "},
        {11, "path notepad.exe", "holds no folder (for this file name in any folder: name notepad.exe)"},
        {12, "path C:\\Windows\\*.exe", "takes no wildcards (for a wildcard path: wildcard C:\\Windows\\*.exe)"},
        {13, "name C:\\Windows\\notepad.exe", "compares the file name only"},
        {14, "folder tools", "needs a folder such as C:\\Tools"},
        {15, "signer rules.txt", "is not a certificate"},
    };
    std::string text;
    for (const auto& line : lines)
        text += std::string(line.text) + "\n";
    const std::string longExpression = "regex " + std::string(2049, 'a') + "\n";
    const std::wstring file = dir.Write(L"bad.txt", text + "name fine.exe\n" + longExpression);
    const Result run = Inspect(L"--json check --rules " + Quoted(file) + L" " + Quoted(signedExe));
    EXPECT_EQ(2u, run.exitCode) << run.out << run.err;
    EXPECT_EQ("input", run.doc["error"]["kind"].text);
    EXPECT_EQ(std::size(lines) + 1, run.doc["error"]["lines"].items.size()) << run.out;
    for (const auto& line : lines)
    {
        EXPECT_NE(std::string::npos, NotesOf(run.doc["error"]["lines"], line.line).find(line.reason))
            << line.line << ": " << line.text << "\n" << run.out;
        EXPECT_NE(std::string::npos, run.err.find(Narrow(file) + ":" + std::to_string(line.line) + ": "))
            << line.line << "\n" << run.err;
    }
    EXPECT_NE(std::string::npos, NotesOf(run.doc["error"]["lines"], 17).find("longer than 2,048 characters (it has 2,049)"));

    // Files that are not rules files, and command lines check refuses.
    const std::wstring notText = dir.Write(L"latin1.txt", "name caf\xE9.exe\n");
    const std::vector<std::pair<std::wstring, std::string>> refusals = {
             {L"--rules " + Quoted(notText) + L" x.exe", ": not UTF-8 text"},
             {L"--rules " + Quoted(dir.File(L"none.txt")) + L" x.exe", "none.txt: "},
             {L"--rules " + Quoted(dir.Path()) + L" x.exe", "a folder"},
             {L"--rules NUL x.exe", "a device"},
             {Quoted(signedExe), "check needs --rules FILE (see qxinspect help check)"},
             {L"--rules " + Quoted(rules), "a PATH, --cmdline LINE or --from FILE"},
             {L"--rules " + Quoted(rules) + L" --cmdline x.exe " + Quoted(signedExe), "no PATH, --from or --csv"},
             {L"--rules " + Quoted(rules) + L" --from " + Quoted(dir.File(L"none.txt")), "--from "},
             {L"--rules " + Quoted(rules) + L" --from NUL", "a device"},
             {L"--rules " + Quoted(rules) + L" --pid x a.exe", "--pid needs"}};
    const std::vector<Result> runs = InspectEach(refusals, [](const auto& r) { return L"--json check " + r.first; });
    for (size_t k = 0; k < refusals.size(); ++k)
    {
        const auto& [arguments, fragment] = refusals[k];
        const Result& refused = runs[k];
        EXPECT_EQ(2u, refused.exitCode) << Narrow(arguments);
        EXPECT_NE(std::string::npos, refused.err.find(fragment)) << fragment << "\n" << refused.err;
        EXPECT_TRUE(refused.doc["error"]["kind"].text == "input" || refused.doc["error"]["kind"].text == "usage");
    }
}

TEST_F(Check, DoubtfulRulesAreWarnedAboutAndEvaluated)
{
    const struct { const char* text; const char* warning; } lines[] = {
        {"[w1] name signed*.exe", "takes * and ? literally (for a file name with wildcards in any folder: glob *\\"},
        {"[w2] wildcard *.exe", "without a folder matches only a path without folders"},
        {"[w3] path C:/Windows/notepad.exe", "/ is not a separator"},
        {"[w4] path \"C:\\Program Files\\a.exe\"", "the quotes are part of the text"},
        {"[w5] name signed.exe # the build's sample", "\"# the build's sample\" is part of the text"},
        {"[w6] path %NoSuchVariable%\\signed.exe", "%NoSuchVariable% is not in the environment table of "},
        {"[w7] name 'signed.exe'", "the quotes are part of the text"},
    };
    std::string text;
    for (const auto& line : lines)
        text += std::string(line.text) + "\n";
    const Result run = Inspect(L"--json check --rules " + Quoted(dir.Write(L"doubtful.txt", text)) + L" " +
                            Quoted(signedExe));
    EXPECT_EQ(1u, run.exitCode) << run.out << run.err; // evaluated: nothing matches
    EXPECT_EQ("false", StepOf(run.doc, "hashes")["ok"].Str()); // not needed
    for (unsigned k = 0; k < std::size(lines); ++k)
    {
        EXPECT_NE(std::string::npos, NotesOf(run.doc["warnings"], k + 1).find(lines[k].warning))
            << lines[k].text << "\n" << run.out;
        EXPECT_NE(std::string::npos, run.err.find("doubtful.txt:" + std::to_string(k + 1) + ": warning: "))
            << run.err;
    }
    const Result empty = Inspect(L"--json check --rules " + Quoted(dir.Write(L"empty.txt", "# nothing yet\n")) + L" x.exe");
    EXPECT_EQ(1u, empty.exitCode);
    EXPECT_EQ("the file holds no rule: every program answers no match", empty.doc["warnings"][0]["reason"].text);
}

TEST_F(Check, RulesAndCertificatesAsAdministratorsWriteThem)
{
    // A PowerShell redirection writes UTF-16 with a byte-order mark; editors
    // UTF-8 with or without one; openssl certificates in Base-64 (PEM).
    const std::string text = "[caf\xC3\xA9 by name] name signed.exe\r\n[pem] signer signer.pem\r\n";
    for (const auto& [name, bytes] : std::vector<std::pair<std::wstring, std::string>>{
             {L"utf16le.txt", Utf16(text, false)},
             {L"utf16be.txt", Utf16(text, true)},
             {L"utf8bom.txt", "\xEF\xBB\xBF" + text}})
    {
        SCOPED_TRACE(Narrow(name));
        const Result run = Inspect(L"--json check --ignore 0xF00 --rules " + Quoted(dir.Write(name, bytes)) + L" " +
                                Quoted(signedExe));
        EXPECT_EQ(0u, run.exitCode) << run.out << run.err;
        EXPECT_EQ("match", ResultOf(run.doc, "caf\xC3\xA9 by name")["outcome"].text) << run.out;
        EXPECT_EQ("true", ResultOf(run.doc, "pem")["sameCertificate"].Str()) << run.out;
    }
    const Result sig = Inspect(L"--json sig --ignore 0xF00 --cert " + Quoted(dir.File(L"signer.pem")) + L" " +
                            Quoted(signedExe));
    EXPECT_EQ(0u, sig.exitCode) << sig.out << sig.err;
    EXPECT_EQ("true", sig.doc["files"][0]["sameCertificate"].Str());
}

TEST_F(Check, SignerRulesTellTheRulesCertificateFromOneWithItsIssuerAndSerial)
{
    const std::wstring file = dir.Write(L"signers.txt", "[real] signer signer.cer\n"
                                                        "[same issuer and serial] signer forged.cer\n"
                                                        "[other issuer, same serial] signer untrusted.cer\n");
    for (const wchar_t* flags : {L"0xF00", L"0xF10"})
    {
        SCOPED_TRACE(Narrow(flags));
        const Result run = Inspect(L"--json check --ignore " + std::wstring(flags) + L" --rules " + Quoted(file) + L" " +
                                Quoted(signedExe));
        EXPECT_EQ(0u, run.exitCode) << run.out << run.err;
        const JsonValue &real = ResultOf(run.doc, "real"), &forged = ResultOf(run.doc, "same issuer and serial");
        EXPECT_EQ("match", real["outcome"].text);
        EXPECT_EQ("true", real["sameCertificate"].Str());
        // The agent's answer stands; the tool says loudly that it is not the certificate.
        EXPECT_EQ("match", forged["outcome"].text);
        EXPECT_EQ("false", forged["sameCertificate"].Str());
        EXPECT_EQ(real["signerThumbprint"].text, real["certificate"]["thumbprint"].text);
        EXPECT_NE(real["certificate"]["thumbprint"].text, forged["certificate"]["thumbprint"].text);
        EXPECT_NE(std::string::npos, forged["reason"].text.find("NOT the same certificate")) << run.out;
        EXPECT_NE(std::string::npos, NotesOf(run.doc["warnings"], 2).find("it is another certificate")) << run.out;
        EXPECT_EQ("no match", ResultOf(run.doc, "other issuer, same serial")["outcome"].text);
        const bool waived = std::wstring(flags) == L"0xF10";
        EXPECT_EQ(waived, NotesOf(run.doc["warnings"], 1).find("--ignore with 0x10") != std::string::npos) << run.out;
    }
    const Result sig = Inspect(L"--json sig --ignore 0xF00 --cert " + Quoted(dir.File(L"forged.cer")) + L" " +
                            Quoted(signedExe));
    EXPECT_EQ(0u, sig.exitCode);
    EXPECT_EQ("true", sig.doc["files"][0]["matchesCert"].Str());
    EXPECT_EQ("false", sig.doc["files"][0]["sameCertificate"].Str());
    EXPECT_NE(std::string::npos, sig.err.find("WARNING")) << sig.err;
    // A file sig cannot read is not answered: exit 3, not "does not verify".
    for (const std::wstring& path : {dir.Path(), std::wstring(L"NUL"), dir.File(L"missing.exe")})
        EXPECT_EQ(3u, Inspect(L"--json sig " + Quoted(path)).exitCode) << Narrow(path);
}

TEST_F(Check, MatchMeansWhatEachKindMeans)
{
    wchar_t root[MAX_PATH] = {};
    ASSERT_NE(0u, GetEnvironmentVariableW(L"SystemRoot", root, MAX_PATH));
    const std::string notepad = Narrow(root) + "\\system32\\notepad.exe";
    // The fragment is in stderr.
    const struct { std::wstring arguments; DWORD exitCode; std::string kind, expanded, fragment; } cases[] = {
        {L"--kind path C:\\evil\\notepad.exe notepad.exe", 2, "", "", "holds no folder"},
        {L"--kind path C:\\x\\a.exe C:\\x\\*.exe", 2, "", "", "takes no wildcards"},
        {L"--kind path C:\\x\\a.exe C:\\x\\a.exe", 0, "path", "C:\\x\\a.exe", ""},
        {L"C:\\evil\\notepad.exe notepad.exe", 0, "name", "notepad.exe", ""},
        {L"C:\\x\\a.exe C:\\x\\*.exe", 0, "wildcard", "C:\\x\\*.exe", ""},
        {Quoted(QXTest::Widen(notepad)) + L" %SystemRoot%\\system32\\notepad.exe", 0, "path", notepad, ""},
        {L"--kind regex " + Quoted(QXTest::Widen(notepad)) + L" ^%SystemRoot%\\\\system32\\\\notepad\\.exe$", 0,
         "regex", "", ""},
        {L"--kind name C:\\x\\notepad.exe note*.exe", 1, "name", "note*.exe", "takes * and ? literally"},
        {L"--kind folder C:\\x\\a.exe C:\\x", 0, "folder", "C:\\x", ""},
        {L"--kind subfolders C:\\x\\y\\a.exe C:\\x", 0, "subfolders", "C:\\x", ""},
        {L"--kind wildcard C:\\x\\a.exe %NoSuchVariable%\\*.exe", 1, "wildcard", "%NoSuchVariable%\\*.exe",
         "%NoSuchVariable% is not in the environment table"},
        {L"--kind regex C:\\x\\a.exe [a", 2, "", "", "error 4 (error_brack): mismatched brackets"},
        {L"--kind sha1 C:\\x\\a.exe abc", 2, "", "", "unknown --kind sha1"},
        // A match that runs out of the matcher's budget is no answer, not "no match".
        {L"--kind regex C:\\" + std::wstring(40, L'a') + L".exe ^(.|.)*\\1!x", 3, "", "", "step budget"},
    };
    const std::vector<Result> runs = InspectEach(cases, [](const auto& c) { return L"--json match " + c.arguments; });
    for (const auto& c : cases)
    {
        SCOPED_TRACE(Narrow(c.arguments));
        const Result& run = runs[&c - cases];
        EXPECT_EQ(c.exitCode, run.exitCode) << run.out << run.err;
        EXPECT_NE(std::string::npos, run.err.find(c.fragment)) << run.err;
        if (c.exitCode >= 2)
            continue;
        EXPECT_EQ(c.kind, run.doc["kind"].text);
        EXPECT_EQ(c.arguments.compare(0, 6, L"--kind") != 0, run.doc["automatic"].boolean);
        EXPECT_TRUE(c.expanded.empty() || c.expanded == run.doc["expanded"].text) << run.out;
    }
    const Result automatic = Inspect(L"match C:\\evil\\notepad.exe notepad.exe");
    EXPECT_EQ("match (name rule, chosen automatically: no separator and no wildcard: a file name)\n", automatic.out);
    for (const auto& [expression, reason] : std::vector<std::pair<std::wstring, std::string>>{
             {L"[a", "rejected: error 4 (error_brack): mismatched brackets [ and ]\n"},
             {std::wstring(3000, L'a'), "rejected: error 11 (error_complexity): the expression is longer than 2,048 "
                                        "characters (it has 3,000)\n"}})
        EXPECT_EQ(reason, Inspect(L"regex-check " + expression).out);
}

TEST_F(Check, TheExampleRulesOnNotepadOnTheFileTheyPinAndOnADevice)
{
    const std::wstring examples = Quoted(QXTest::HelperPath(L"examples\\rules.txt"));
    const std::vector<std::string> patterns = {"notepad by name",   "notepad by path",        "programs in system32",
                                               "system32 itself",   "anything under Windows", "note-anything",
                                               "any pad below Windows", "hook exceptions"};
    const std::vector<std::string> pinned = {"pinned file (sha1)", "pinned file (sha256)", "pinned file (adler32)"};
    Result run = Inspect(L"--json check --rules " + examples + L" --cmdline \"C:\\windows\\system32\\notepad.exe win.ini\"");
    EXPECT_EQ(0u, run.exitCode) << run.out << run.err;
    EXPECT_TRUE(run.doc["warnings"].items.empty() || QXTest::Certs::OnWine()) << run.out;
    for (const std::string& label : patterns)
        EXPECT_EQ("match", ResultOf(run.doc, label)["outcome"].text) << label << "\n" << run.out;
    for (const char* label : {"tools share", "test signer", "pinned file (sha1)", "pinned file (adler32)"})
        EXPECT_EQ("no match", ResultOf(run.doc, label)["outcome"].text) << label << "\n" << run.out;
    // The hashes it pins are those of the file beside it; a device has none.
    run = Inspect(L"--json check --rules " + examples + L" " + Quoted(QXTest::HelperPath(L"examples\\pinned-file.txt")));
    EXPECT_EQ(0u, run.exitCode);
    for (const std::string& label : pinned)
        EXPECT_EQ("match", ResultOf(run.doc, label)["outcome"].text) << label << "\n" << run.out;
    run = Inspect(L"--json check --rules " + examples + L" NUL");
    EXPECT_EQ(3u, run.exitCode) << run.out;
    EXPECT_EQ("could not answer", run.doc["answer"].text);
    for (const std::string& label : pinned)
        EXPECT_EQ("could not answer", ResultOf(run.doc, label)["outcome"].text) << label << "\n" << run.out;
}

TEST_F(Check, FileInfoAnswersAlikeOnOneAndOnSeveralThreads)
{
    const std::wstring files = Quoted(dir.Path()) + L" " + Quoted(dir.File(L"missing.exe")) +
                               L" C:\\windows\\system32\\notepad.exe NUL " + Quoted(signedExe);
    std::string first;
    Result kept;
    for (int threads : {1, 3, 64})
    {
        SCOPED_TRACE(threads);
        Result run = Inspect(L"--json fileinfo --ignore 0xF00 --threads " + std::to_wstring(threads) + L" " + files);
        EXPECT_EQ(3u, run.exitCode) << run.out;
        const std::string count = "\"threads\":" + std::to_string(threads);
        ASSERT_NE(std::string::npos, run.out.find(count)) << run.out;
        run.out.replace(run.out.find(count), count.size(), "\"threads\":N");
        if (first.empty())
            first = run.out, kept = run;
        EXPECT_EQ(first, run.out);
    }
    // The folder gives its files by name; every answer is where its file is.
    std::vector<std::string> order;
    for (const JsonValue& record : kept.records)
        order.push_back(record["file"]["path"].text);
    std::vector<std::string> expected;
    for (const wchar_t* name : {L"forged.cer", L"rules.txt", L"signed.exe", L"signer.cer", L"signer.pem",
                                L"unsigned.exe", L"untrusted.cer", L"missing.exe"})
        expected.push_back(Narrow(dir.File(name)));
    expected.insert(expected.end(), {"C:\\windows\\system32\\notepad.exe", "NUL", Narrow(signedExe)});
    EXPECT_EQ(expected, order);
    const JsonValue& signedInfo = kept.records[10]["file"];
    EXPECT_EQ(sha1, signedInfo["sha1"].text);
    EXPECT_EQ(sha256, signedInfo["sha256"].text);
    EXPECT_EQ(adler32, signedInfo["adler32"].text);
    EXPECT_EQ("true", signedInfo["signature"]["verified"].Str());
    EXPECT_EQ("2045-12-31T23:59:59Z", signedInfo["signature"]["signer"]["expires"].text);
    EXPECT_EQ("1", signedInfo["certificateTableEntries"].Str());
    EXPECT_TRUE(signedInfo["owner"].Has("sid"));
    EXPECT_EQ("2", kept.records[7]["file"]["error"].Str());
    EXPECT_NE(std::string::npos, kept.records[9]["file"]["reason"].text.find("a device"));
    EXPECT_EQ("9 2", kept.doc["answered"].Str() + " " + kept.doc["couldNotAnswer"].Str());
    // For a spreadsheet: a row per file under a header, the summary beside it on stderr.
    const Result csv = Inspect(L"fileinfo --csv --ignore 0xF00 " + files);
    EXPECT_EQ(3u, csv.exitCode);
    EXPECT_EQ(12, std::count(csv.out.begin(), csv.out.end(), '\n')) << csv.out;
    EXPECT_EQ(0u, csv.out.find("path,isNTExe,sha1,sha256,adler32,signature,verified,")) << csv.out;
    EXPECT_NE(std::string::npos, csv.out.find(Narrow(signedExe) + ",yes," + sha1 + "," + sha256)) << csv.out;
    EXPECT_NE(std::string::npos, csv.err.find("files: 11, answered: 9, could not answer: 2")) << csv.err;
    EXPECT_EQ(2u, Inspect(L"fileinfo --threads 65 " + Quoted(signedExe)).exitCode);
}

// Every command's document, answered and refused, against the schema (the
// runner checks each); exactly one document whatever happens.
TEST_F(Check, EveryCommandPrintsOneDocumentOfTheSchema)
{
    QXTest::SavedRegValue algorithm(HKEY_LOCAL_MACHINE,
                                    L"SOFTWARE\\Kestrova Technologies\\Runwarden\\MessagesConfig\\Properties",
                                    L"SignatureAlgorithm");
    ASSERT_TRUE(algorithm.Set(REG_NONE));
    const std::wstring self = std::to_wstring(GetCurrentProcessId()), exe = Quoted(signedExe);
    // The document's command, or the kind of its error.
    const struct { std::wstring arguments; DWORD exitCode; std::string command; } cases[] = {
        {L"", 0, "version"}, // --json --version below
        {L"help", 0, "help"}, {L"help check", 0, "help"}, {L"os", 0, "os"}, {L"guid", 0, "guid"},
        {L"error 0x800b0100", 0, "error"}, {L"match C:\\x\\a.exe *.exe", 1, "match"}, {L"split \"cmd /c x\"", 1, "split"},
        {L"exe " + exe + L" " + Quoted(dir.File(L"missing.exe")), 3, "exe"},
        {L"regex-check --samples 0x7F ^a", 0, "regex-check"},
        {L"env", 0, "env"}, {L"expand %windir%", 0, "expand"}, {L"normalise C:\\windows\\x.exe", 0, "normalise"},
        {L"token --member S-1-1-0", 0, "token"}, {L"process 0 " + self, 3, "process"}, {L"handover", 0, "handover"},
        {L"hash --algorithm sha256 " + exe + L" NUL", 3, "hash"},
        {L"sig --cert " + Quoted(dir.File(L"signer.cer")) + L" " + exe + L" NUL", 3, "sig"},
        {L"fileinfo " + exe, 0, "fileinfo"},
        {L"owner " + exe + L" --give-to-pid " + self + L" --dry-run", 0, "owner"},
        {L"check --rules " + Quoted(rules) + L" " + exe, 0, "check"},
        {L"check --rules NUL " + exe, 2, "input"},
        {L"hash " + exe, 3, "failed"}, // no algorithm is set
        {L"diff --rules " + Quoted(rules) + L" " + exe, 2, "usage"},
        {L"audit --rules " + Quoted(rules) + L" --from " + Quoted(dir.File(L"none.txt")), 2, "input"},
        {L"env --pid 0xFFFFFFF1", 3, "failed"},
        {L"", 2, "usage"}, {L"bogus", 2, "usage"}, {L"--bogus", 2, "usage"}, {L"os extra", 2, "usage"},
        {L"hash --algorithm md5 " + exe, 2, "usage"},
        {L"match --kind path C:\\x\\a.exe a.exe", 2, "usage"},
    };
    const std::vector<Result> runs =
        InspectEach(cases, [&](const auto& c) { return L"--json " + (&c == &cases[0] ? L"--version" : c.arguments); });
    for (const auto& c : cases)
    {
        SCOPED_TRACE(Narrow(c.arguments));
        const Result& run = runs[&c - cases];
        EXPECT_EQ(c.exitCode, run.exitCode) << run.out << run.err;
        EXPECT_EQ(c.command, run.doc.Has("error") ? run.doc["error"]["kind"].text : run.doc["command"].text);
    }
}

TEST_F(Check, ThePeoplesSide)
{
    // Usage on standard error when it is an error, one way to point at help.
    Result run = Inspect(L"");
    EXPECT_EQ(2u, run.exitCode);
    EXPECT_TRUE(run.out.empty()) << run.out;
    EXPECT_NE(std::string::npos, run.err.find("usage: qxinspect")) << run.err;
    for (const wchar_t* arguments : {L"exe", L"token extra", L"env extra", L"owner", L"handover extra"})
        EXPECT_NE(std::string::npos, Inspect(arguments).err.find(" (see qxinspect help ")) << Narrow(arguments);
    EXPECT_EQ(0u, Inspect(L"help").exitCode);
    EXPECT_EQ("qxinspect 1.0.0 (QXCommon 1.0.0)\n", Inspect(L"--version").out);
    // --dry-run changes nothing and says so.
    run = Inspect(L"owner " + Quoted(signedExe) + L" --give-to-pid " + std::to_wstring(GetCurrentProcessId()) +
                  L" --dry-run");
    EXPECT_EQ(0u, run.exitCode) << run.out << run.err;
    EXPECT_NE(std::string::npos, run.out.find("nothing was changed (--dry-run)")) << run.out;
    EXPECT_NE(std::string::npos, Inspect(L"help owner").out.find("CHANGES THE OWNER"));
    // A standard output that cannot be written is a failure, not 0.
    HANDLE read = nullptr, write = nullptr;
    ASSERT_TRUE(CreatePipe(&read, &write, nullptr, 0));
    CloseHandle(read);
    ATL::CHandle writeEnd(write);
    run = Inspect(L"--json check --rules " + Quoted(rules) + L" " + Quoted(signedExe), writeEnd);
    EXPECT_EQ(3u, run.exitCode) << run.err;
    EXPECT_NE(std::string::npos, run.err.find("standard output could not be written")) << run.err;
}
TEST_F(Check, AuditFindsDeadRedundantAndBlocked)
{
    const std::wstring treeRules = MakeTree();
    const Result run = Inspect(L"--json audit --recursive --rules " + Quoted(treeRules) + L" " + Quoted(tree));
    EXPECT_EQ(1u, run.exitCode) << run.out << run.err;
    const struct { const char* label; const char* allows; bool dead, redundant; const char* coveredBy; } expected[] = {
        {"one", "1", false, false, ""},  {"b", "2", false, false, ""},      {"dup", "1", false, true, "b"},
        {"dead", "0", true, false, ""}, {"open", "1", false, false, ""},
    };
    for (const auto& rule : expected)
    {
        SCOPED_TRACE(rule.label);
        const JsonValue& result = ResultOf(run.doc, rule.label);
        EXPECT_EQ(rule.allows, result["allows"].Str()) << run.out;
        EXPECT_EQ(rule.dead, result["dead"].boolean);
        EXPECT_EQ(rule.redundant, result["redundant"].boolean);
        EXPECT_EQ(rule.coveredBy, result["coveredBy"][0]["label"].text);
    }
    EXPECT_EQ(Narrow(tree) + "\\apps\\b\\sub\\three.exe", ResultOf(run.doc, "b")["examples"][1].text);
    ASSERT_EQ(1u, run.doc["blocked"].items.size()) << run.out;
    EXPECT_EQ(Narrow(tree) + "\\apps\\other\\five.exe", run.doc["blocked"][0].text);
    EXPECT_EQ("5 4 1 0", run.doc["programs"]["total"].Str() + " " + run.doc["programs"]["allowed"].Str() + " " +
                             run.doc["programs"]["blocked"].Str() + " " + run.doc["programs"]["couldNotAnswer"].Str());
    // People read the same findings; where the platform keeps no permissions
    // on disk files the report says so, once.
    const Result text = Inspect(L"audit --recursive --rules " + Quoted(treeRules) + L" " + Quoted(tree));
    for (const char* finding : {"dead:       line 4 [dead] allows none of the 5 programs",
                                "redundant:  line 3 [dup]: every program it allows (1) is also allowed by line 2 [b]"})
        EXPECT_NE(std::string::npos, text.out.find(finding)) << text.out;
    size_t notes = 0;
    for (size_t at = text.out.find("keeps no permissions"); at != std::string::npos;
         at = text.out.find("keeps no permissions", at + 1))
        ++notes;
    EXPECT_EQ(QXTest::Certs::OnWine() ? 1u : 0u, notes) << text.out;
    EXPECT_EQ(QXTest::Certs::OnWine(), !run.doc["accessChecked"].boolean);
}

TEST_F(Check, AuditFindsTheFolderAStandardUserMayWrite)
{
    if (QXTest::Certs::OnWine())
        GTEST_SKIP() << "Wine keeps no permissions on disk files: every descriptor it reports grants its one user "
                        "everything (the decision is shown on descriptors the tests build)";
    const std::wstring treeRules = MakeTree();
    // Only Administrators and SYSTEM may write the tree; everyone may create files in "open".
    auto protect = [](const std::wstring& path, const wchar_t* sddl) {
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1, &descriptor, nullptr));
        BOOL present = FALSE, defaulted = FALSE;
        PACL dacl = nullptr;
        PSID owner = nullptr;
        GetSecurityDescriptorDacl(descriptor, &present, &dacl, &defaulted);
        GetSecurityDescriptorOwner(descriptor, &owner, &defaulted);
        EXPECT_EQ(0u, SetNamedSecurityInfoW(const_cast<wchar_t*>(path.c_str()), SE_FILE_OBJECT,
                                            OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION |
                                                PROTECTED_DACL_SECURITY_INFORMATION,
                                            owner, nullptr, dacl, nullptr));
        LocalFree(descriptor);
    };
    protect(tree, L"O:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;WD)");
    protect(tree + L"\\open", L"O:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;WD)(A;;0x2;;;WD)");
    const Result run = Inspect(L"--json audit --recursive --rules " + Quoted(treeRules) + L" " + Quoted(tree));
    EXPECT_EQ(1u, run.exitCode) << run.out << run.err;
    for (const JsonValue& result : run.doc["results"].items)
        EXPECT_EQ(result["label"].text == "open" ? 1u : 0u, result["writable"].items.size()) << run.out;
    const JsonValue& open = ResultOf(run.doc, "open")["writable"][0];
    EXPECT_EQ(Narrow(tree) + "\\open\\", open["folder"].text);
    EXPECT_EQ("FILE_ADD_FILE", open["rights"][0].text);
}

// The rights that count, decided on descriptors built here for the standard
// user the tool makes of its own token (Administrators deny-only).
TEST_F(Check, WriteRightsAreDecidedOnTheDescriptors)
{
    qxinspect::StandardUser user;
    qxinspect::StandardUserOf(0, user);
    ASSERT_EQ(0u, user.error);
    const std::wstring readOnly = L"O:BAG:BAD:(A;;0x1200a9;;;WD)", self = L"O:" + QXTest::Widen(Narrow(user.user.sid));
    // The rights granted: exactly these (exact), or at least these.
    const struct { std::wstring folder, file; bool subfolders; std::set<std::string> rights; bool exact = true; }
        cases[] = {
        {readOnly, readOnly, true, {}},
        // Administrators is deny-only for a standard user: what it grants does not count.
        {L"O:BAG:BAD:(A;;FA;;;BA)", L"O:BAG:BAD:(A;;FA;;;BA)", true, {}},
        {L"O:BAG:BAD:(A;;0x2;;;WD)", readOnly, false, {"FILE_ADD_FILE"}},
        {L"O:BAG:BAD:(A;;0x40;;;BU)", readOnly, false, {"FILE_DELETE_CHILD"}},
        // A new folder below counts only where the rule allows the folders below.
        {L"O:BAG:BAD:(A;;0x4;;;AU)", readOnly, false, {}},
        {L"O:BAG:BAD:(A;;0x4;;;AU)", readOnly, true, {"FILE_ADD_SUBDIRECTORY"}},
        // On the file: writing, deleting, its permissions and owner; not appending or attributes.
        {readOnly, L"O:BAG:BAD:(A;;0x2;;;WD)", false, {"FILE_WRITE_DATA"}},
        {readOnly, L"O:BAG:BAD:(A;;0x114;;;WD)", true, {}},
        {readOnly, L"O:BAG:BAD:(A;;SD;;;WD)", false, {"DELETE"}},
        {readOnly, L"O:BAG:BAD:(A;;WD;;;WD)(A;;WO;;;WD)", false, {"WRITE_DAC", "WRITE_OWNER"}},
        // No DACL: everyone may do everything.
        {L"O:BAG:BA", L"O:BAG:BA", false,
         {"FILE_ADD_FILE", "FILE_DELETE_CHILD", "FILE_WRITE_DATA", "DELETE", "WRITE_DAC", "WRITE_OWNER"}},
        // The owner may always change the permissions.
        {readOnly, self + L"G:BAD:(A;;0x1200a9;;;WD)", false, {"WRITE_DAC"}, false},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(Narrow(c.folder + L" / " + c.file) + (c.subfolders ? " (subfolders)" : ""));
        PSECURITY_DESCRIPTOR folder = nullptr, file = nullptr;
        ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(c.folder.c_str(), SDDL_REVISION_1, &folder, nullptr));
        ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(c.file.c_str(), SDDL_REVISION_1, &file, nullptr));
        std::vector<qxinspect::WriteRight> rights;
        EXPECT_EQ(0u, qxinspect::WritableBy(user.token.GetHandle(), folder, file, c.subfolders, rights));
        LocalFree(folder);
        LocalFree(file);
        std::set<std::string> names;
        for (const auto& right : rights)
            names.insert(Narrow(right.name));
        if (c.exact)
            EXPECT_EQ(c.rights, names);
        else
            EXPECT_TRUE(std::includes(names.begin(), names.end(), c.rights.begin(), c.rights.end()));
    }
}

TEST_F(Check, DiffShowsTheProgramsOneRuleChanges)
{
    const std::wstring a = MakeTree();
    std::string text = ReadText(a);
    text.replace(text.find("[b] subfolders"), 14, "[b] folder");
    const std::wstring b = dir.Write(L"tree-b.txt", text);
    const Result run = Inspect(L"--json diff --recursive --rules " + Quoted(a) + L" --rules " + Quoted(b) + L" " +
                               Quoted(tree));
    EXPECT_EQ(1u, run.exitCode) << run.out << run.err;
    ASSERT_EQ(1u, run.records.size()) << run.out;
    const JsonValue& change = run.records[0];
    EXPECT_EQ(Narrow(tree) + "\\apps\\b\\sub\\three.exe", change["program"].text);
    EXPECT_EQ("match no match", change["from"].text + " " + change["to"].text);
    EXPECT_EQ("b", change["a"]["matches"][0]["label"].text);
    EXPECT_TRUE(change["b"]["matches"].items.empty());
    EXPECT_EQ("5 1 1", run.doc["programs"].Str() + " " + run.doc["changed"].Str() + " " +
                           run.doc["changes"][0]["programs"].Str());
    const Result same = Inspect(L"--json diff --recursive --rules " + Quoted(a) + L" --rules " + Quoted(a) + L" " +
                                Quoted(tree));
    EXPECT_EQ(0u, same.exitCode) << same.out << same.err;
    EXPECT_TRUE(same.records.empty());
}

TEST_F(Check, CheckFromAnswersEveryLineInOrder)
{
    const std::wstring treeRules = MakeTree();
    const std::string root = Narrow(tree);
    // The regex runs out of the matcher's budget on any of these paths.
    dir.Write(L"slow.txt", ReadText(treeRules) + "[slow] regex ^(.|.)*\\1!x\n");
    const std::wstring lines = dir.Write(L"lines.txt", root + "\\apps\\a\\one.exe\r\n"
                                                       "\"" + root + "\\apps\\b\\two.exe\" /x\n"
                                                       "# a comment, then a blank line\n\n" +
                                                       root + "\\apps\\other\\five.exe\n" +
                                                       root + "\\apps\\a\\one.exe\n"
                                                       "\"unterminated\n"
                                                       "not \xC3\x28 UTF-8\n");
    const std::wstring arguments = L"check --rules " + Quoted(dir.File(L"slow.txt")) + L" --from " + Quoted(lines);
    const Result run = Inspect(L"--json " + arguments);
    EXPECT_EQ(3u, run.exitCode) << run.out << run.err;
    // Each line's answer, and a text its reason holds.
    const struct { const char* line; const char* answer; const char* reason; } expected[] = {
        {"1", "match", ""}, {"2", "match", ""}, {"5", "could not answer", "step budget"}, {"6", "match", ""},
        {"7", "could not answer", "names no program"}, {"8", "could not answer", "not UTF-8 text"},
    };
    ASSERT_EQ(std::size(expected), run.records.size()) << run.out;
    for (size_t k = 0; k < std::size(expected); ++k)
    {
        const JsonValue& record = run.records[k];
        EXPECT_EQ(std::to_string(k) + " " + expected[k].line + " " + expected[k].answer,
                  record["index"].Str() + " " + record["line"].Str() + " " + record["answer"].text);
        EXPECT_NE(std::string::npos, record["reason"].Str().find(expected[k].reason)) << record["reason"].Str();
    }
    EXPECT_EQ("b dup", run.records[1]["matches"][0]["label"].text + " " + run.records[1]["matches"][1]["label"].text);
    // The repeated program's facts are the first line's.
    EXPECT_EQ("6 3 0 3 1", run.doc["programs"].Str() + " " + run.doc["allowed"].Str() + " " +
                               run.doc["notAllowed"].Str() + " " + run.doc["couldNotAnswer"].Str() + " " +
                               run.doc["facts"]["reused"].Str());
    const Result csv = Inspect(arguments + L" --csv");
    EXPECT_EQ(3u, csv.exitCode);
    EXPECT_EQ(0u, csv.out.find("line,input,program,isNTExe,answer,rules,reason\r\n")) << csv.out;
    EXPECT_NE(std::string::npos, csv.out.find("2,\"\"\"" + root + "\\apps\\b\\two.exe\"\" /x\"," + root +
                                              "\\apps\\b\\two.exe,yes,match,\"line 2 [b], line 3 [dup]\",\r\n"))
        << csv.out;
    EXPECT_NE(std::string::npos, csv.err.find("programs: 6, allowed: 3, not allowed: 0, could not answer: 3")) << csv.err;
}

// --from - reads standard input as it comes, and each answer is out as soon
// as it is decided: the first line's answer is read before the last line is
// written.
TEST_F(Check, AnswersStreamBeforeTheInputEnds)
{
    const std::wstring treeRules = MakeTree();
    HANDLE inRead = nullptr, inWrite = nullptr, outRead = nullptr, outWrite = nullptr;
    ASSERT_TRUE(CreatePipe(&inRead, &inWrite, nullptr, 0) && CreatePipe(&outRead, &outWrite, nullptr, 0));
    ATL::CHandle childIn(inRead), input(inWrite), output(outRead), childOut(outWrite);
    ATL::CHandle process(Launch(L"--json check --rules " + Quoted(treeRules) + L" --from -", childIn, childOut, childOut));
    ASSERT_TRUE(process != nullptr);
    childIn.Close();
    childOut.Close();
    auto write = [&](const std::string& text) {
        DWORD written = 0;
        return WriteFile(input, text.data(), static_cast<DWORD>(text.size()), &written, nullptr) != FALSE;
    };
    // What the tool wrote so far, read until it holds `lines` lines or 30 s pass.
    std::string out;
    auto readLines = [&](size_t lines) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (static_cast<size_t>(std::count(out.begin(), out.end(), '\n')) < lines &&
               std::chrono::steady_clock::now() < deadline)
        {
            DWORD available = 0, got = 0;
            char buffer[4096];
            if (!PeekNamedPipe(output, nullptr, 0, nullptr, &available, nullptr))
                break;
            if (available == 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            else if (ReadFile(output, buffer, std::min<DWORD>(available, sizeof buffer), &got, nullptr))
                out.append(buffer, got);
        }
    };
    ASSERT_TRUE(write(Narrow(tree) + "\\apps\\a\\one.exe\n"));
    readLines(1);
    EXPECT_NE(std::string::npos, out.find("\"record\":\"program\",\"index\":0,\"line\":1,")) << out;
    EXPECT_TRUE(write(Narrow(tree) + "\\apps\\other\\five.exe\n"));
    input.Close();
    readLines(3);
    if (WaitForSingleObject(process, 30000) != WAIT_OBJECT_0)
        TerminateProcess(process, 0xDEAD);
    DWORD exitCode = 0;
    GetExitCodeProcess(process, &exitCode);
    EXPECT_EQ(1u, exitCode) << out;
    EXPECT_NE(std::string::npos, out.find("\"record\":\"summary\"")) << out;
    EXPECT_EQ(std::string::npos, out.find('\r')) << "no progress where standard error is not a terminal";
}

// Answers held back behind a slow one are bounded by the window, whatever
// the number of inputs.
TEST_F(Check, TheWindowBoundsTheAnswersHeldBack)
{
    std::vector<std::wstring> paths;
    for (size_t k = 0; k < 3000; ++k)
        paths.push_back(dir.File(L"x" + std::to_wstring(k)));
    qxinspect::Inputs inputs;
    std::wstring error;
    ASSERT_TRUE(inputs.Open(paths, std::nullopt, false, error));
    std::atomic<size_t> started{0};
    size_t startedWhileFirstWorked = 0, next = 0;
    const size_t handed = qxinspect::RunInOrder<size_t>(
        inputs, 4, L"files",
        [&](const qxinspect::Input& input) {
            ++started;
            // The first answer takes until the others stop coming (at most 5 s).
            for (size_t seen = 0, rounds = 0; input.index == 0 && rounds < 100; ++rounds)
            {
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
                if (started == seen && seen > 1)
                    break;
                seen = started;
            }
            if (input.index == 0)
                startedWhileFirstWorked = started;
            return input.index;
        },
        [&](const qxinspect::Input&, size_t& index) { return index == next++; });
    EXPECT_EQ(3000u, handed);
    EXPECT_GT(startedWhileFirstWorked, 4u);
    EXPECT_LE(startedWhileFirstWorked, qxinspect::Window);
}
} // namespace
