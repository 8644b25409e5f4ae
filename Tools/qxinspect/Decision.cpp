#include "Decision.h"
#include "Inspect.h"

#include "QXCommon/ChecksumStrategyAdler32.h"
#include "QXCommon/DataLoader.h"
#include "QXCommon/FilePathPatternMatcher.h"
#include "QXCommon/GlobWildcardString.h"
#include "QXCommon/HashStrategySha.h"
#include "QXCommon/HashStrategyShaCacheHelper.h"
#include "QXCommon/ProcessIDAndCreateTime.h"
#include "QXCommon/QXAccessTokenMembership.h"
#include "QXCommon/QXCommonFunctions.h"
#include "QXCommon/RegExHelpers.h"
#include "QXCommon/VerifySignedFile.h"

#include <algorithm>
#include <atomic>
#include <cwctype>
#include <fstream>
#include <iterator>
#include <thread>

namespace qxinspect
{
namespace
{
// The bytes that identify a file: its first 8 MiB.
constexpr ULONGLONG HashedBytes = 0x800000;
const wchar_t* const AdministratorsSid = L"S-1-5-32-544";

const struct
{
    RuleKind kind;
    const wchar_t* name;
    MatchKind match;  // pattern rules
    size_t hexDigits; // hash rules
} Kinds[] = {
    {RuleKind::Name, L"name", MatchKind::Name, 0},
    {RuleKind::Path, L"path", MatchKind::Path, 0},
    {RuleKind::Wildcard, L"wildcard", MatchKind::Wildcard, 0},
    {RuleKind::Folder, L"folder", MatchKind::Folder, 0},
    {RuleKind::Subfolders, L"subfolders", MatchKind::Subfolders, 0},
    {RuleKind::Regex, L"regex", MatchKind::Regex, 0},
    {RuleKind::Glob, L"glob", MatchKind::Glob, 0},
    {RuleKind::Network, L"network", MatchKind::Network, 0},
    {RuleKind::HookExceptions, L"hook-exceptions", MatchKind::HookExceptions, 0},
    {RuleKind::Sha1, L"sha1", MatchKind::Automatic, 40},
    {RuleKind::Sha256, L"sha256", MatchKind::Automatic, 64},
    {RuleKind::Adler32, L"adler32", MatchKind::Automatic, 8},
    {RuleKind::Signer, L"signer", MatchKind::Automatic, 0},
};

const auto& KindEntry(RuleKind kind)
{
    for (const auto& entry : Kinds)
        if (entry.kind == kind)
            return entry;
    return Kinds[0];
}

bool IsHashRule(RuleKind kind)
{
    return KindEntry(kind).hexDigits != 0;
}

bool IsContentRule(RuleKind kind)
{
    return IsHashRule(kind) || kind == RuleKind::Signer;
}

bool IsBlank(wchar_t c)
{
    return c == L' ' || c == L'\t' || c == L'\r' || c == L'\v' || c == L'\f';
}

std::wstring Trimmed(const std::wstring& text)
{
    size_t begin = 0, end = text.size();
    while (begin < end && IsBlank(text[begin]))
        ++begin;
    while (end > begin && IsBlank(text[end - 1]))
        --end;
    return text.substr(begin, end - begin);
}

bool EqualNoCase(const std::wstring& a, const std::wstring& b)
{
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](wchar_t x, wchar_t y) { return towlower(x) == towlower(y); });
}

// A path with a drive or starting at a root (\x, \\server) is not relative to anything.
bool IsAbsolute(const std::wstring& path)
{
    return (path.size() >= 2 && path[1] == L':') || (!path.empty() && (path[0] == L'\\' || path[0] == L'/'));
}

std::wstring FolderOf(const std::wstring& file)
{
    const size_t cut = file.find_last_of(L"\\/");
    return cut == std::wstring::npos ? std::wstring() : file.substr(0, cut + 1);
}

// One line of the rules file into a rule; false with the reason.
bool ParseLine(const std::wstring& line, const std::wstring& folder, Rule& rule, std::wstring& reason)
{
    std::wstring rest = line;
    if (rest[0] == L'[')
    {
        const size_t close = rest.find(L']');
        if (close == std::wstring::npos)
        {
            reason = L"the label has no closing ]";
            return false;
        }
        rule.label = Trimmed(rest.substr(1, close - 1));
        if (rule.label.empty())
        {
            reason = L"empty label []";
            return false;
        }
        rest = Trimmed(rest.substr(close + 1));
    }
    size_t end = 0;
    while (end < rest.size() && !IsBlank(rest[end]))
        ++end;
    const std::wstring keyword = rest.substr(0, end);
    const std::wstring argument = Trimmed(rest.substr(end));
    const auto* entry = std::find_if(std::begin(Kinds), std::end(Kinds), [&](const auto& k) {
        return EqualNoCase(keyword, k.name);
    });
    if (keyword.empty())
    {
        reason = L"a label but no rule";
        return false;
    }
    if (entry == std::end(Kinds))
    {
        reason = L"unknown kind \"" + keyword +
                 L"\" (name, path, wildcard, folder, subfolders, regex, glob, network, hook-exceptions, sha1, "
                 L"sha256, adler32, signer)";
        return false;
    }
    rule.kind = entry->kind;
    rule.text = argument;
    if (argument.empty())
    {
        reason = std::wstring(L"a ") + entry->name + L" rule needs " +
                 (entry->hexDigits ? L"a hash text" : rule.kind == RuleKind::Signer ? L"a .cer file" : L"a pattern");
        return false;
    }
    if (argument.find(L'\0') != std::wstring::npos)
    {
        reason = L"the rule holds a NUL character";
        return false;
    }
    if (entry->hexDigits != 0)
    {
        const bool hex = std::all_of(argument.begin(), argument.end(), [](wchar_t c) { return iswxdigit(c) && c < 128; });
        if (argument.size() != entry->hexDigits || !hex)
        {
            reason = std::wstring(entry->name) + L" hash text: " + std::to_wstring(entry->hexDigits) +
                     L" hexadecimal digits expected, not \"" + argument + L"\"";
            return false;
        }
    }
    else if (rule.kind == RuleKind::Regex)
    {
        int code = 0;
        if (!ValidateRegularExpression(argument.c_str(), &code))
        {
            reason = L"the regular expression is refused (error " + std::to_wstring(code) + L")";
            return false;
        }
    }
    else if (rule.kind == RuleKind::Glob)
    {
        QXCommon::RegExHelpers::GlobWildcardString glob;
        if (!glob.Parse(argument))
        {
            reason = L"the glob cannot be compiled";
            return false;
        }
    }
    else if (rule.kind == RuleKind::Signer)
    {
        rule.certPath = IsAbsolute(argument) ? argument : folder + argument;
        rule.cert = std::make_shared<QXCommon::CDigitalCertificate>();
        const DWORD error = rule.cert->ReadFromCERFile(rule.certPath);
        if (error != 0)
        {
            reason = L"the certificate " + rule.certPath + L" cannot be read: " +
                     ResultText(static_cast<HRESULT>(error));
            return false;
        }
        rule.certName = TakeBstr(rule.cert->GetName());
    }
    return true;
}

std::wstring Quoted(const std::wstring& text)
{
    return L"\"" + text + L"\"";
}
} // namespace

const wchar_t* RuleKindName(RuleKind kind)
{
    return KindEntry(kind).name;
}

MatchKind MatchKindOf(RuleKind kind)
{
    return KindEntry(kind).match;
}

const wchar_t* OutcomeName(Outcome outcome)
{
    switch (outcome)
    {
    case Outcome::Match: return L"match";
    case Outcome::NoMatch: return L"no match";
    default: return L"could not answer";
    }
}

bool ParseRules(const std::wstring& text, const std::wstring& file, std::vector<Rule>& rules, std::wstring& error)
{
    std::vector<Rule> parsed;
    const std::wstring folder = FolderOf(file);
    unsigned number = 0;
    for (size_t start = 0; start <= text.size();)
    {
        size_t end = text.find(L'\n', start);
        if (end == std::wstring::npos)
            end = text.size();
        const std::wstring line = Trimmed(text.substr(start, end - start));
        start = end + 1;
        ++number;
        if (line.empty() || line[0] == L'#')
            continue;
        Rule rule;
        rule.line = number;
        std::wstring reason;
        if (!ParseLine(line, folder, rule, reason))
        {
            error = file + L":" + std::to_wstring(number) + L": " + reason;
            return false;
        }
        parsed.push_back(std::move(rule));
    }
    rules = std::move(parsed);
    return true;
}

bool LoadRules(const std::wstring& path, std::vector<Rule>& rules, std::wstring& error)
{
    std::ifstream in(path.c_str(), std::ios::binary);
    if (!in)
    {
        const DWORD attributes = GetFileAttributesW(path.c_str());
        const DWORD code = attributes == INVALID_FILE_ATTRIBUTES ? GetLastError() : ERROR_ACCESS_DENIED;
        error = path + L": cannot be read: " + Win32Text(code);
        return false;
    }
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (bytes.size() >= 3 && bytes.compare(0, 3, "\xEF\xBB\xBF") == 0)
        bytes.erase(0, 3);
    std::wstring text;
    if (!bytes.empty())
    {
        const int chars = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, bytes.data(), static_cast<int>(bytes.size()),
                                              nullptr, 0);
        if (chars <= 0)
        {
            error = path + L": not UTF-8 text";
            return false;
        }
        text.resize(static_cast<size_t>(chars));
        MultiByteToWideChar(CP_UTF8, 0, bytes.data(), static_cast<int>(bytes.size()), text.data(), chars);
    }
    return ParseRules(text, path, rules, error);
}

FileHashes HashFile(const std::wstring& path, bool sha1, bool sha256, bool adler32)
{
    FileHashes hashes;
    QXCommon::CDataLoader loader;
    if (!loader.LoadFile(path.c_str(), HashedBytes, nullptr))
    {
        hashes.error = GetLastError();
        if (hashes.error == ERROR_SUCCESS)
            hashes.error = ERROR_READ_FAULT;
        return hashes;
    }
    auto hash = [&](QXCommon::IHashStrategy&& strategy, std::wstring& text) {
        if (!strategy.GenerateHash(loader.GetData(), loader.GetNumBytes(), text))
            hashes.error = GetLastError() != ERROR_SUCCESS ? GetLastError() : ERROR_INVALID_FUNCTION;
    };
    if (sha1)
        hash(QXCommon::CHashStrategySha(SignatureAlgorithmSHA1), hashes.sha1);
    if (sha256)
        hash(QXCommon::CHashStrategySha(SignatureAlgorithmSHA256), hashes.sha256);
    if (adler32)
        hash(QXCommon::CChecksumStrategyAdler32(), hashes.adler32);
    return hashes;
}

bool ParsePolicy(const ArgParser& parser, SignaturePolicy& policy, std::wstring& error)
{
    policy.enforceExpiry = parser.Has(L"--enforce-expiry");
    policy.network = parser.Has(L"--network");
    uint32_t flags = 0;
    if (auto text = parser.Value(L"--ignore"))
    {
        if (!ParseNumber32(*text, flags))
        {
            error = L"--ignore: not a 32-bit number: " + *text;
            return false;
        }
    }
    policy.ignoreFlags = flags;
    return true;
}

SignatureFacts ReadSignature(const std::wstring& path, const SignaturePolicy& policy, const ATL::CAccessToken& token,
                             bool countTable)
{
    SignatureFacts facts;
    if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES)
    {
        facts.fileError = GetLastError();
        return facts;
    }
    facts.readError = facts.signer.ReadFromSignedFile(path);
    QXCommon::VerifySignedFile verifier(policy.enforceExpiry, policy.ignoreFlags, policy.network);
    facts.result = verifier.Verify(facts.signer, path, token);
    if (facts.readError == 0)
    {
        facts.name = TakeBstr(facts.signer.GetName());
        facts.friendlyName = TakeBstr(facts.signer.GetFriendlyName());
        facts.expires = UtcText(facts.signer.GetExpirationDate());
    }
    if (countTable)
        facts.haveEntries = QXCommon::CDigitalCertificate::GetNumberOfCertificatesFromFile(path, facts.entries);
    return facts;
}

void StepIdentity(Walk& walk)
{
    walk.processId = walk.pid != 0 ? walk.pid : GetCurrentProcessId();
    QXCommon::CProcessIDAndCreateTime identity;
    walk.identityError = identity.Initialise(walk.processId);
    if (walk.identityError == 0)
    {
        walk.key = identity.GetProcessIDAndCreateTime();
        identity.GetProcessStartTime(walk.created);
    }
}

void StepSplit(Walk& walk)
{
    // A bare PATH is the command line of a program started without arguments.
    walk.line = walk.commandLine ? *walk.commandLine : Quoted(walk.path);
    walk.split = SplitAndExpand(walk.line);
    if (!walk.commandLine)
    {
        walk.program = walk.path;
        walk.programSource = L"the path given";
    }
    else if (!walk.split.split)
    {
        walk.program.clear();
        walk.programSource = L"the command line names no program";
        return;
    }
    else
    {
        walk.program = walk.split.module;
        walk.programSource = L"the command line";
    }
    // Rules see full paths: a bare name is looked up as the system starts it,
    // anything else is made full against the current folder.
    std::wstring full(MAX_PATH, L'\0');
    DWORD length = 0;
    const bool bare = walk.program.find_first_of(L"\\/:") == std::wstring::npos;
    if (bare)
        length = SearchPathW(nullptr, walk.program.c_str(), nullptr, MAX_PATH, full.data(), nullptr);
    if (length > 0 && length < MAX_PATH)
        walk.programSource += L", found on the search path";
    else
    {
        length = GetFullPathNameW(walk.program.c_str(), MAX_PATH, full.data(), nullptr);
        if (length == 0 || length >= MAX_PATH)
            return;
    }
    full.resize(length);
    walk.program = full;
}

void StepImage(Walk& walk)
{
    walk.isNTExe = FALSE;
    walk.imageError = walk.program.empty() ? ERROR_INVALID_PARAMETER
                                           : QXCommonFunctions::TryCheckIsNTExe(walk.program, walk.isNTExe);
}

void StepToken(Walk& walk)
{
    walk.token.Clear();
    if (!QXCommonFunctions::AttachAtlAccessTokenToPrimaryTokenFromProcessId(walk.token, walk.processId))
    {
        walk.tokenError = L"the token of process " + std::to_wstring(walk.processId) +
                          L" cannot be opened: " + Win32Text(GetLastError());
        return;
    }
    const HANDLE token = walk.token.GetHandle();
    ATL::CSid user;
    if (walk.token.GetUser(&user))
        walk.user = AccountOfSid(const_cast<SID*>(user.GetPSID())) + L" " + user.Sid();
    walk.elevated = QXCommonFunctions::IsTokenElevated(token);
    walk.elevationType = ElevationTypeName(token);
    walk.restrictedOrFullAdmin = QXCommonFunctions::IsRestrictedOrFullAdmin(token);
    walk.hasAdminSid = QXCommon::QXAccessTokenMembership().HasAdminSid(token) != FALSE;
    // The system's membership rule asks an impersonation token.
    ATL::CAccessToken query;
    walk.administratorsMember = walk.token.CreateImpersonationToken(&query) &&
                                QXCommonFunctions::TokenHasMembership(query, AdministratorsSid);
}

void StepEnvironment(Walk& walk)
{
    walk.env = std::make_unique<QXCommon::CEnvironmentEx>(0);
    walk.envError.clear();
    if (!LoadTable(*walk.env, walk.pid, walk.envError))
        walk.env.reset();
}

RuleResult ExpandAndMatch(const Rule& rule, const std::wstring& program, QXCommon::CEnvironmentEx* env,
                          const std::wstring& envError)
{
    RuleResult result;
    result.expanded = rule.text;
    if (program.empty())
    {
        result.reason = L"there is no program to match";
        return result;
    }
    if (rule.text.find(L'%') != std::wstring::npos)
    {
        if (env == nullptr)
        {
            result.reason = L"its %VAR% references cannot be expanded: " + envError;
            return result;
        }
        if (rule.kind == RuleKind::Regex)
            env->ExpandRxString(rule.text, result.expanded);
        else
            env->ExpandString(rule.text.c_str(), result.expanded);
    }
    // Folder rules hold the program's folder (with its trailing separator).
    result.subject = program;
    if (rule.kind == RuleKind::Folder || rule.kind == RuleKind::Subfolders)
        QXCommon::CFilePathPatternMatcher::StripFile(program, result.subject);
    std::wstring error;
    const int matched = MatchPath(MatchKindOf(rule.kind), result.subject, result.expanded, 0, error);
    result.outcome = matched == 1 ? Outcome::Match : matched == 0 ? Outcome::NoMatch : Outcome::Unanswered;
    result.reason = matched < 0 ? error : Quoted(result.subject) + L" against " + Quoted(result.expanded);
    return result;
}

void StepHashes(Walk& walk, const std::vector<Rule>& rules)
{
    auto needs = [&](RuleKind kind) {
        return std::any_of(rules.begin(), rules.end(), [&](const Rule& r) { return r.kind == kind; });
    };
    const bool sha1 = needs(RuleKind::Sha1), sha256 = needs(RuleKind::Sha256), adler32 = needs(RuleKind::Adler32);
    walk.hashesNeeded = sha1 || sha256 || adler32;
    walk.hashes = FileHashes();
    if (walk.hashesNeeded)
        walk.hashes = walk.program.empty() ? FileHashes{ERROR_INVALID_PARAMETER}
                                           : HashFile(walk.program, sha1, sha256, adler32);
}

void StepSignature(Walk& walk, const std::vector<Rule>& rules)
{
    walk.signatureNeeded =
        std::any_of(rules.begin(), rules.end(), [](const Rule& r) { return r.kind == RuleKind::Signer; });
    walk.signature = SignatureFacts();
    if (!walk.signatureNeeded)
        return;
    if (walk.program.empty())
        walk.signature.fileError = ERROR_INVALID_PARAMETER;
    else if (walk.token.GetHandle() == nullptr)
        walk.signature.fileError = ERROR_NO_TOKEN;
    else
        walk.signature = ReadSignature(walk.program, walk.policy, walk.token, false);
}

RuleResult MatchContentRule(const Rule& rule, const Walk& walk)
{
    RuleResult result;
    result.subject = walk.program;
    if (rule.kind == RuleKind::Signer)
    {
        const SignatureFacts& facts = walk.signature;
        if (facts.fileError != ERROR_SUCCESS)
        {
            result.reason = facts.fileError == ERROR_NO_TOKEN
                                ? L"the file cannot be opened as the process's user: no token"
                                : L"the file cannot be reached: " + Win32Text(facts.fileError);
            return result;
        }
        const bool same = facts.readError == 0 && facts.signer == *rule.cert;
        result.outcome = facts.result == S_OK && same ? Outcome::Match : Outcome::NoMatch;
        result.reason = L"signature " + ResultText(facts.result) + L"; signer " +
                        (facts.readError == 0 ? Quoted(facts.name) : L"none") + L", the rule's certificate " +
                        Quoted(rule.certName) + (same ? L" (same issuer and serial number)" : L" (not the signer)");
        return result;
    }
    if (walk.hashes.error != ERROR_SUCCESS)
    {
        result.reason = L"the file cannot be hashed: " + Win32Text(walk.hashes.error);
        return result;
    }
    const std::wstring& computed = rule.kind == RuleKind::Sha1     ? walk.hashes.sha1
                                   : rule.kind == RuleKind::Sha256 ? walk.hashes.sha256
                                                                   : walk.hashes.adler32;
    result.outcome = EqualNoCase(computed, rule.text) ? Outcome::Match : Outcome::NoMatch;
    result.reason = L"expected " + rule.text + L", computed " + computed;
    return result;
}

void RunWalk(const std::vector<Rule>& rules, Walk& walk)
{
    StepIdentity(walk);
    StepSplit(walk);
    StepImage(walk);
    StepToken(walk);
    StepEnvironment(walk);
    StepHashes(walk, rules);
    StepSignature(walk, rules);
    walk.results.clear();
    walk.results.reserve(rules.size());
    for (const Rule& rule : rules)
        walk.results.push_back(IsContentRule(rule.kind)
                                   ? MatchContentRule(rule, walk)
                                   : ExpandAndMatch(rule, walk.program, walk.env.get(), walk.envError));
}

Outcome Answer(const Walk& walk)
{
    auto any = [&](Outcome o) {
        return std::any_of(walk.results.begin(), walk.results.end(), [&](const RuleResult& r) { return r.outcome == o; });
    };
    return any(Outcome::Match) ? Outcome::Match : any(Outcome::Unanswered) ? Outcome::Unanswered : Outcome::NoMatch;
}

FileInfo DescribeFile(const std::wstring& path, const SignaturePolicy& policy, const ATL::CAccessToken& token)
{
    FileInfo info;
    info.path = path;
    info.imageError = QXCommonFunctions::TryCheckIsNTExe(path, info.isNTExe);
    info.hashes = HashFile(path, true, true, true);
    info.signature = ReadSignature(path, policy, token);
    info.owner = ReadDescriptor(path);
    return info;
}

std::vector<FileInfo> DescribeFiles(const std::vector<std::wstring>& paths, unsigned threads,
                                    const SignaturePolicy& policy, const ATL::CAccessToken& token)
{
    using QXCommon::HashStrategyShaCacheHelper;
    std::vector<FileInfo> infos(paths.size());
    std::atomic<size_t> next{0};
    auto worker = [&] {
        // Every hash on this thread borrows the thread's own provider.
        const BOOL shared = HashStrategyShaCacheHelper::CreateSharedContext();
        for (size_t k = next++; k < paths.size(); k = next++)
            infos[k] = DescribeFile(paths[k], policy, token);
        if (shared)
            HashStrategyShaCacheHelper::DestroySharedContext();
    };
    const bool slot = HashStrategyShaCacheHelper::InitTLS() != FALSE;
    const size_t count = std::max<size_t>(1, std::min<size_t>(threads, paths.size()));
    std::vector<std::thread> pool;
    for (size_t k = 1; k < count; ++k)
        pool.emplace_back(worker);
    worker(); // the calling thread is the first worker
    for (std::thread& t : pool)
        t.join();
    if (slot)
        HashStrategyShaCacheHelper::UninitTLS();
    return infos;
}
} // namespace qxinspect
