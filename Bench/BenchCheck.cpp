// The decision for one program start, as qxinspect check makes it (the same
// code): the build's signed fixture started with a command line, against
// 1,000 mixed path rules (a third with %VAR% references) plus a SHA-256 rule
// and a signer rule. The whole walk, then its steps, each against the
// platform's own way where it has one: CommandLineToArgvW (and
// PathFindOnPathW for the arguments), ExpandEnvironmentStringsW,
// PathMatchSpecW, a fresh CryptoAPI provider per file, WinVerifyTrust with a
// chain check. Then fileinfo over the prefix's system32 on 1, 2 and 4
// worker threads; audit of the same files against 1,000 mixed rules beside
// fileinfo (the facts of a file should dominate, not the rules), and the
// rules alone on known facts; check --from over 1,000 command lines naming
// 50 programs, with the run's facts cache against facts read for every line.

#include "Bench.h"
#include "PlatformPeers.h"

#include "Audit.h"
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

// Rules of the path kinds, a third of them with %VAR% references.
std::wstring PathRules(size_t count)
{
    const wchar_t* const words[] = {L"acrobat", L"backup", L"chrome", L"defrag", L"excel", L"firefox",
                                    L"git",     L"hyper",  L"install", L"java",  L"keepass", L"launcher"};
    const wchar_t* const roots[] = {L"%SystemRoot%\\system32", L"%ProgramFiles%\\Vendor", L"%TEMP%",
                                    L"C:\\Tools", L"D:\\Apps\\Suite", L"C:\\Program Files\\Common"};
    std::mt19937 random(11);
    auto pick = [&](const auto& list) { return list[random() % std::size(list)]; };
    std::wstring text;
    for (size_t k = 0; k < count; ++k)
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
    return text;
}

// 1,000 path rules, a few matching the program; then the hash and signer rules.
std::wstring MakeRules(const std::wstring& program, const std::wstring& sha256)
{
    const std::wstring folder = program.substr(0, program.find_last_of(L'\\'));
    return PathRules(RuleCount) + L"subfolders " + folder + L"\nname signed.exe\nsha256 " + sha256 + L"\nsigner " +
           folder + L"\\signer.cer\n";
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
    ProcessFacts process;
    ProgramStart walk;
    walk.commandLine = L"\"" + program + L"\" /open win.ini notepad.exe report.txt";
    SignaturePolicy policy;
    policy.ignoreFlags = qxbench::IgnoreFlags;
    Decision decision = Decide(ruleSet, process, walk, policy);
    const size_t matched = decision.verdict.Rules(Outcome::Match).size();

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
        [&] { decision = Decide(ruleSet, process, walk, policy); },
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
        [&] { StepEnvironment(process); },
        [&] {
            void* block = nullptr;
            if (CreateEnvironmentBlock(&block, process.token.GetHandle(), FALSE))
                DestroyEnvironmentBlock(block);
        },
        1, L"the table for the process's user");
    QXCommon::CEnvironmentEx cached(1);
    LoadTable(cached, 0, error);
    for (auto* table : {process.env.get(), &cached})
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
            std::wstring subject, reason;
            for (size_t k = 0; k < RuleCount; ++k)
                qxbench::KeepAlive(decision.bound.rules[k].test.Test(walk.program, subject, reason));
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
                   [&] { qxbench::KeepAlive(ReadSignature(walk.program, policy, process.token, false).result); },
                   platformSignature, 1, L"ours also reads the signer to compare it with the rule's");
}

std::vector<std::wstring> System32Files()
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
    return files;
}

// fileinfo's run: every fact of every file on the worker threads, in order.
size_t FileInfoRun(const std::vector<std::wstring>& files, unsigned threads, const SignaturePolicy& policy,
                   const ATL::CAccessToken& token)
{
    Inputs inputs;
    std::wstring error;
    inputs.Open(files, std::nullopt, false, error);
    return RunInOrder<Facts>(
        inputs, threads, L"files",
        [&](const Input& input) { return ComputeFacts(input.text, FactsNeeded::All(), policy, &token); },
        [](const Input&, Facts& facts) { return qxbench::KeepAlive(facts), true; });
}

void RunFileInfo(qxbench::Runner& runner)
{
    const std::vector<std::wstring> files = System32Files();
    ATL::CAccessToken token;
    token.GetProcessToken(TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_IMPERSONATE);
    const SignaturePolicy policy;
    auto on = [&](unsigned threads) { return [&, threads] { qxbench::KeepAlive(FileInfoRun(files, threads, policy, token)); }; };
    const std::wstring note = std::to_wstring(files.size()) + L" files of the system folder (ns per file)";
    for (unsigned threads : {2u, 4u})
        runner.Compare(L"fileinfo.system32 " + std::to_wstring(threads) + L" threads", L"1 thread", on(threads), on(1),
                       files.size(), note);
}

// 1,000 mixed rules for the system folder: 970 of the path kinds (a third
// with %VAR%), 20 SHA-256 rules (ten of them a system file's own), 10 signer
// rules.
std::wstring MixedRules(const std::vector<std::wstring>& files, const std::wstring& signer)
{
    std::wstring text = PathRules(970);
    std::mt19937 random(5);
    for (size_t k = 0; k < 20; ++k)
    {
        std::wstring hash = k % 2 == 0 ? HashFile(files[(k * 37) % files.size()], false, true, false).sha256 : L"";
        while (hash.size() < 64)
            hash += L"0123456789abcdef"[random() % 16];
        text += L"sha256 " + hash + L"\n";
    }
    for (size_t k = 0; k < 10; ++k)
        text += L"signer " + signer + L"\n";
    return text;
}

void RunAudit(qxbench::Runner& runner)
{
    const std::vector<std::wstring> files = System32Files();
    QXTest::Certs::TestRootTrust trust;
    const RuleSet rules = ParseRuleSet(MixedRules(files, QXTest::Certs::FixturePath(L"signer.cer")), L"bench");
    if (files.empty() || !rules.problems.empty())
    {
        fputws(L"audit: no rules (build the tests first for the signer certificate)\n", stdout);
        return;
    }
    RunOptions options;
    options.policy.ignoreFlags = qxbench::IgnoreFlags;
    const std::vector<RuleSet> sets{rules};
    StandardUser user;
    StandardUserOf(0, user);
    auto audit = [&] {
        const ProgramRun run(options, sets);
        Audit audit(sets[0], run, user, !OnWine());
        Inputs inputs;
        std::wstring error;
        inputs.Open(files, std::nullopt, false, error);
        qxbench::KeepAlive(RunInOrder<Audit::Answer>(
            inputs, options.threads, L"programs", [&](const Input& input) { return audit.Work(input, false); },
            [&](const Input& input, Audit::Answer& answer) { return audit.Add(input, answer), true; }));
    };
    ATL::CAccessToken token;
    token.GetProcessToken(TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_IMPERSONATE);
    runner.Compare(L"audit.system32 (1,000 rules, 4 threads)", L"fileinfo, 4 threads", audit,
                   [&] { qxbench::KeepAlive(FileInfoRun(files, options.threads, options.policy, token)); },
                   files.size(),
                   std::to_wstring(files.size()) + L" files; " + std::to_wstring(rules.rules.size()) +
                       L" rules: path kinds (a third with %VAR%), 20 sha256, 10 signer (ns per file)");

    // The rules alone, on facts already known.
    const ProgramRun run(options, sets);
    std::vector<Facts> facts;
    for (const std::wstring& file : files)
        facts.push_back(ComputeFacts(file, run.Bound(0).needed, options.policy, run.Process().FileToken()));
    runner.Compare(
        L"audit.evaluate (1,000 rules on known facts, per file)", L"the facts of the file",
        [&] {
            for (size_t k = 0; k < files.size(); ++k)
                qxbench::KeepAlive(Evaluate(run.Bound(0), files[k], &facts[k], false).answer);
        },
        [&] {
            for (const std::wstring& file : files)
                qxbench::KeepAlive(ComputeFacts(file, run.Bound(0).needed, options.policy, run.Process().FileToken()));
        },
        files.size(), L"expansion and compilation done once per run; the peer is what the rules need of each file");
}

void RunCheckFrom(qxbench::Runner& runner)
{
    const std::vector<std::wstring> all = System32Files();
    std::vector<std::wstring> programs;
    for (const std::wstring& file : all)
        if (programs.size() < 50 && file.size() > 4 && _wcsicmp(file.c_str() + file.size() - 4, L".exe") == 0)
            programs.push_back(file);
    QXTest::Certs::TestRootTrust trust;
    const std::wstring signed_ = QXTest::Certs::FixturePath(L"signed.exe");
    const RuleSet rules = ParseRuleSet(MakeRules(signed_, HashFile(signed_, false, true, false).sha256), L"bench");
    if (programs.size() < 50 || !rules.problems.empty())
    {
        fputws(L"check.from: fewer than 50 programs or no rules (build the tests first)\n", stdout);
        return;
    }
    // 1,000 command lines, each of the 50 programs 20 times, with arguments.
    wchar_t folder[MAX_PATH] = {}, path[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, folder);
    GetTempFileNameW(folder, L"qxb", 0, path);
    std::wstring text;
    for (size_t k = 0; k < 1000; ++k)
        text += L"\"" + programs[(k * 7) % 50] + L"\" /x win.ini " + std::to_wstring(k) + L"\r\n";
    std::string lines(text.size() * 3, '\0');
    lines.resize(static_cast<size_t>(WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                                         lines.data(), static_cast<int>(lines.size()), nullptr, nullptr)));
    {
        ATL::CHandle file(CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
        DWORD written = 0;
        WriteFile(file, lines.data(), static_cast<DWORD>(lines.size()), &written, nullptr);
    }
    RunOptions options;
    options.policy.ignoreFlags = qxbench::IgnoreFlags;
    options.from = path;
    const std::vector<RuleSet> sets{rules};
    size_t computed = 0, reused = 0;
    auto replay = [&](bool cached) {
        const ProgramRun run(options, sets);
        Inputs inputs;
        std::wstring error;
        inputs.Open({}, options.from, false, error);
        RunInOrder<ProgramAnswer>(
            inputs, options.threads, L"programs",
            [&](const Input& input) {
                if (cached)
                    return run.Answer(input, true);
                // Every line's facts read afresh, as without the run's cache.
                ProgramStart start;
                start.commandLine = input.text;
                StepSplit(start);
                ProgramAnswer answer;
                answer.program = start.program;
                answer.facts = std::make_shared<const Facts>(
                    ComputeFacts(start.program, run.Bound(0).needed, options.policy, run.Process().FileToken()));
                answer.verdicts.push_back(Evaluate(run.Bound(0), answer.program, answer.facts.get(), false));
                return answer;
            },
            [](const Input&, ProgramAnswer& answer) { return qxbench::KeepAlive(answer), true; });
        if (cached)
            computed = run.Cache().Computed(), reused = run.Cache().Reused();
    };
    runner.Compare(L"check.from (1,000 lines, 50 programs, 4 threads)", L"facts read for every line",
                   [&] { replay(true); }, [&] { replay(false); }, 1000, L"");
    wchar_t note[160];
    std::swprintf(note, 160, L"      facts computed %zu, reused %zu: hit rate %.1f%% (ns per line)\n", computed, reused,
                  computed + reused > 0 ? 100.0 * static_cast<double>(reused) / static_cast<double>(computed + reused)
                                        : 0.0);
    fputws(note, stdout);
    DeleteFileW(path);
}
} // namespace

QXBENCH_CASE(L"check.decision", &RunDecision);
QXBENCH_CASE(L"fileinfo.system32", &RunFileInfo);
QXBENCH_CASE(L"audit.system32", &RunAudit);
QXBENCH_CASE(L"check.from", &RunCheckFrom);
