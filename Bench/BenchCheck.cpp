// The decision for one program start, as qxinspect check makes it (the same
// code): the build's signed fixture started with a command line, against
// 1,000 mixed path rules (a third with %VAR% references) plus a SHA-256 rule
// and a signer rule. The whole walk, then its steps, each against the
// platform's own way where it has one: CommandLineToArgvW (and
// PathFindOnPathW for the arguments), ExpandEnvironmentStringsW,
// PathMatchSpecW, a fresh CryptoAPI provider per file, WinVerifyTrust with a
// chain check. Then fileinfo over the prefix's system32 on 1, 2 and 4
// worker threads.

#include "Bench.h"
#include "PlatformPeers.h"

#include "CertificateFixtures.h"
#include "Evaluation.h"

#include "QXCommon/HashStrategyShaCacheHelper.h"

#include <shellapi.h>
#include <shlwapi.h>
#include <userenv.h>

#include <algorithm>
#include <cstdio>
#include <random>

namespace
{
using namespace qxinspect;

constexpr size_t RuleCount = 1000;

// 1,000 rules of the path kinds, a third of them with %VAR% references, a
// few matching the program; then the hash and signer rules.
std::wstring MakeRules(const std::wstring& program, const std::wstring& sha256)
{
    const wchar_t* const words[] = {L"acrobat", L"backup", L"chrome", L"defrag", L"excel", L"firefox",
                                    L"git",     L"hyper",  L"install", L"java",  L"keepass", L"launcher"};
    const wchar_t* const roots[] = {L"%SystemRoot%\\system32", L"%ProgramFiles%\\Vendor", L"%TEMP%",
                                    L"C:\\Tools", L"D:\\Apps\\Suite", L"C:\\Program Files\\Common"};
    std::mt19937 random(11);
    auto pick = [&](const auto& list) { return list[random() % std::size(list)]; };
    const std::wstring folder = program.substr(0, program.find_last_of(L'\\'));
    std::wstring text;
    for (size_t k = 0; k < RuleCount; ++k)
    {
        const std::wstring word = pick(words);
        const std::wstring base = (k % 3 == 0) ? std::wstring(pick(roots)) : std::wstring(L"C:\\Apps\\") + word;
        switch (k % 10)
        {
        case 0: text += L"name " + word + std::to_wstring(k) + L".exe\n"; break;
        case 1: text += L"path " + base + L"\\" + word + L".exe\n"; break;
        case 2:
        case 3: text += L"wildcard " + base + L"\\*\\" + word + L"?.exe\n"; break;
        case 4: text += L"wildcard " + base + L"\\" + word + L"*.dll\n"; break;
        case 5: text += L"folder " + base + L"\\" + word + L"\n"; break;
        case 6: text += L"subfolders " + base + L"\n"; break;
        case 7: text += L"network \\\\server" + std::to_wstring(k) + L"\\" + word + L"\n"; break;
        case 8: text += L"hook-exceptions " + word + L".exe; " + base + L"\\" + word + L".exe\n"; break;
        default: text += L"wildcard *\\" + word + L"\\*.exe\n"; break;
        }
    }
    text += L"subfolders " + folder + L"\nname signed.exe\n";
    text += L"sha256 " + sha256 + L"\n";
    text += L"signer " + folder + L"\\signer.cer\n";
    return text;
}

// The platform's split: the program and the arguments, those that name a
// file found on the search path made full.
size_t PlatformSplit(const std::wstring& line)
{
    int count = 0;
    LPWSTR* argv = CommandLineToArgvW(line.c_str(), &count);
    size_t found = 0;
    for (int k = 1; k < count; ++k)
    {
        wchar_t path[MAX_PATH];
        if (wcslen(argv[k]) < MAX_PATH && wcschr(argv[k], L'.') != nullptr && wcspbrk(argv[k], L"\\/:") == nullptr)
        {
            wcscpy(path, argv[k]);
            found += PathFindOnPathW(path, nullptr) ? 1 : 0;
        }
    }
    LocalFree(argv);
    return found;
}

// A provider acquired for the file and released after it.
bool PlatformHash(const std::wstring& path)
{
    HCRYPTPROV provider = 0;
    if (!CryptAcquireContextW(&provider, nullptr, nullptr, PROV_RSA_AES, CRYPT_VERIFYCONTEXT))
        return false;
    ATL::CHandle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    std::vector<BYTE> data(std::min<DWORD>(GetFileSize(file, nullptr), 0x800000));
    DWORD read = 0;
    ReadFile(file, data.data(), static_cast<DWORD>(data.size()), &read, nullptr);
    HCRYPTHASH hash = 0;
    BYTE digest[32];
    DWORD size = sizeof(digest);
    const bool done = CryptCreateHash(provider, CALG_SHA_256, 0, 0, &hash) && CryptHashData(hash, data.data(), read, 0) &&
                      CryptGetHashParam(hash, HP_HASHVAL, digest, &size, 0);
    if (hash != 0)
        CryptDestroyHash(hash);
    CryptReleaseContext(provider, 0);
    return done;
}

void RunDecision(qxbench::Runner& runner)
{
    const std::wstring program = QXTest::Certs::FixturePath(L"signed.exe");
    QXTest::Certs::TestRootTrust trust;
    const std::wstring sha256 = HashFile(program, false, true, false).sha256;
    const RuleSet ruleSet = ParseRuleSet(MakeRules(program, sha256), L"bench");
    std::wstring error;
    if (!trust.Ok() || sha256.empty() || !ruleSet.problems.empty())
    {
        fputws((L"check: the fixtures are missing (build the tests first) " +
                (ruleSet.problems.empty() ? L"" : NoteText(ruleSet.problems[0], false)) + L"\n")
                   .c_str(),
               stdout);
        return;
    }
    const std::vector<Rule>& rules = ruleSet.rules;
    ProgramStart walk;
    walk.commandLine = L"\"" + program + L"\" /open win.ini notepad.exe report.txt";
    SignaturePolicy policy;
    policy.ignoreFlags = qxbench::IgnoreFlags;
    Evaluation evaluation = Decide(ruleSet, walk, policy);
    const size_t matched = std::count_if(evaluation.results.begin(), evaluation.results.end(),
                                         [](const RuleResult& r) { return r.outcome == Outcome::Match; });

    // The peer's rule texts: expanded by the system, matched by the shell.
    std::vector<std::wstring> patterns(RuleCount), expanded(RuleCount);
    for (size_t k = 0; k < RuleCount; ++k)
        patterns[k] = rules[k].text;
    auto platformExpand = [&] {
        wchar_t buffer[1024];
        for (size_t k = 0; k < RuleCount; ++k)
        {
            const DWORD n = ExpandEnvironmentStringsW(patterns[k].c_str(), buffer, 1024);
            expanded[k].assign(buffer, n > 0 && n <= 1024 ? n - 1 : 0);
        }
    };
    platformExpand();
    auto platformMatch = [&] {
        size_t hits = 0;
        for (const std::wstring& pattern : expanded)
            hits += PathMatchSpecW(walk.program.c_str(), pattern.c_str()) ? 1 : 0;
        return hits;
    };
    const auto* cert = rules.back().certificate.cert.get();
    auto platformSignature = [&] {
        qxbench::KeepAlive(qxbench::PlatformTrust(walk.program));
        qxbench::KeepAlive(qxbench::PlatformChain(cert->GetContext(), qxbench::IgnoreFlags));
    };
    const std::wstring note = std::to_wstring(RuleCount) + L" path rules + sha256 + signer, " +
                              std::to_wstring(matched) + L" match";

    runner.Compare(
        L"check.decision (one program start)", L"platform steps",
        [&] { evaluation = Decide(ruleSet, walk, policy); },
        [&] {
            qxbench::KeepAlive(PlatformSplit(*walk.commandLine));
            platformExpand();
            qxbench::KeepAlive(platformMatch());
            qxbench::KeepAlive(PlatformHash(walk.program));
            platformSignature();
        },
        1, note + L"; ours also reads identity, image, token, environment table");

    runner.Compare(L"check.split", L"CommandLineToArgvW + PathFindOnPathW",
                   [&] { qxbench::KeepAlive(SplitAndExpand(*walk.commandLine)); },
                   [&] { qxbench::KeepAlive(PlatformSplit(*walk.commandLine)); }, 1, *walk.commandLine);
    runner.Compare(
        L"check.environment table", L"CreateEnvironmentBlock",
        [&] { StepEnvironment(walk); },
        [&] {
            void* block = nullptr;
            if (CreateEnvironmentBlock(&block, walk.token.GetHandle(), FALSE))
                DestroyEnvironmentBlock(block);
        },
        1, L"the table for the process's user");
    QXCommon::CEnvironmentEx cached(1);
    LoadTable(cached, 0, error);
    for (auto* table : {walk.env.get(), &cached})
        runner.Compare(table == &cached ? L"check.expand (per rule, cached)" : L"check.expand (per rule)",
                       L"ExpandEnvironmentStringsW",
                       [&] {
                           std::wstring out;
                           for (size_t k = 0; k < RuleCount; ++k)
                               qxbench::KeepAlive(table->ExpandString(patterns[k].c_str(), out));
                       },
                       platformExpand, RuleCount, L"a third of the rules hold references");
    runner.Compare(
        L"check.match (per rule)", L"PathMatchSpecW",
        [&] {
            for (size_t k = 0; k < RuleCount; ++k)
            {
                const RuleResult& r = evaluation.results[k];
                std::wstring subject;
                qxbench::KeepAlive(MatchRule(rules[k].kind, walk.program, r.expanded, 0, subject, error));
            }
        },
        [&] { qxbench::KeepAlive(platformMatch()); }, RuleCount, L"the expanded patterns; PathMatchSpecW's * spans \\");
    {
        QXCommon::HashStrategyShaCacheHelper::InitTLS();
        QXCommon::HashStrategyShaCacheHelper::CreateSharedContext();
        runner.Compare(L"check.hash sha256 (thread's provider)", L"fresh CryptoAPI provider per file",
                       [&] { qxbench::KeepAlive(HashFile(walk.program, false, true, false)); },
                       [&] { qxbench::KeepAlive(PlatformHash(walk.program)); }, 1, L"signed.exe, read once");
        QXCommon::HashStrategyShaCacheHelper::DestroySharedContext();
        QXCommon::HashStrategyShaCacheHelper::UninitTLS();
    }
    runner.Compare(L"check.signature", L"WinVerifyTrust + chain + policy",
                   [&] { qxbench::KeepAlive(ReadSignature(walk.program, policy, walk.token, false).result); },
                   platformSignature, 1, L"ours also reads the signer to compare it with the rule's");
}

void RunFileInfo(qxbench::Runner& runner)
{
    wchar_t system[MAX_PATH] = {};
    GetSystemDirectoryW(system, MAX_PATH);
    std::vector<std::wstring> files;
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((std::wstring(system) + L"\\*").c_str(), &data);
    if (find != INVALID_HANDLE_VALUE)
    {
        do
            if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
                files.push_back(std::wstring(system) + L"\\" + data.cFileName);
        while (FindNextFileW(find, &data));
        FindClose(find);
    }
    ATL::CAccessToken token;
    token.GetProcessToken(TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_IMPERSONATE);
    const SignaturePolicy policy;
    auto on = [&](unsigned threads) { return [&, threads] { qxbench::KeepAlive(DescribeFiles(files, threads, policy, token)); }; };
    const std::wstring note = std::to_wstring(files.size()) + L" files of " + system + L" (ns per file)";
    for (unsigned threads : {2u, 4u})
        runner.Compare(L"fileinfo.system32 " + std::to_wstring(threads) + L" threads", L"1 thread", on(threads), on(1),
                       files.size(), note);
}
} // namespace

QXBENCH_CASE(L"check.decision", &RunDecision);
QXBENCH_CASE(L"fileinfo.system32", &RunFileInfo);
