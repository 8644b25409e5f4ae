#pragma once
// The agent's decision for one program start, as `qxinspect check` makes it
// and qxbench times it: a rule set read from a text file, the walk over the
// process and its file (identity, NT image, token, command line,
// environment), each rule expanded and matched, and a file's hashes and
// signature computed once for the rules that need them. Also what
// `qxinspect fileinfo` answers for a file, on worker threads that each hold
// their own cached hash provider.

#include "Facts.h"

#include "QXCommon/DigitalCertificate.h"
#include "QXCommon/EnvironmentEx.h"

#include <atlsecurity.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qxinspect
{
class ArgParser;

enum class RuleKind
{
    Name,
    Path,
    Wildcard,
    Folder,
    Subfolders,
    Regex,
    Glob,
    Network,
    HookExceptions,
    Sha1,
    Sha256,
    Adler32,
    Signer,
};
const wchar_t* RuleKindName(RuleKind kind);
// The matcher of a pattern rule (Automatic for hash and signer rules).
MatchKind MatchKindOf(RuleKind kind);

struct Rule
{
    unsigned line = 0;
    std::wstring label; // empty when the rule has none
    RuleKind kind = RuleKind::Name;
    std::wstring text;  // the pattern, the hash text or the certificate file, as written
    // signer: the certificate read from certPath (relative paths are taken
    // from the rules file's folder).
    std::wstring certPath;
    std::shared_ptr<QXCommon::CDigitalCertificate> cert;
    std::wstring certName;
};

// Reads the rules. On the first malformed line (or a file that cannot be
// read) nothing is kept and error is "FILE:LINE: reason" ("FILE: reason").
bool LoadRules(const std::wstring& path, std::vector<Rule>& rules, std::wstring& error);
// The same for text already read; file names the source in errors and
// gives the folder of relative certificate paths.
bool ParseRules(const std::wstring& text, const std::wstring& file, std::vector<Rule>& rules, std::wstring& error);

// The hash texts of a file's first 8 MiB, as GenerateFileHash writes them,
// each computed only when asked for; the file is read once.
struct FileHashes
{
    DWORD error = ERROR_SUCCESS; // the file could not be read
    std::wstring sha1, sha256, adler32;
};
FileHashes HashFile(const std::wstring& path, bool sha1, bool sha256, bool adler32);

// The policy under which a file counts as validly signed (see qxinspect sig).
struct SignaturePolicy
{
    bool enforceExpiry = false;
    DWORD ignoreFlags = 0;
    bool network = false;
};

// --enforce-expiry, --ignore FLAGS and --network; false with the reason.
bool ParsePolicy(const ArgParser& parser, SignaturePolicy& policy, std::wstring& error);

// A file's signature: the verification as the user of token, its signer and
// the entries of its certificate table.
struct SignatureFacts
{
    DWORD fileError = ERROR_SUCCESS; // the file does not exist or cannot be reached
    HRESULT result = E_FAIL;          // 0: validly signed under the policy
    DWORD readError = 0;              // reading the signer (0: signer holds it)
    QXCommon::CDigitalCertificate signer;
    std::wstring name, friendlyName, expires;
    bool haveEntries = false;
    DWORD entries = 0;
};
// The certificate table is counted only when asked for.
SignatureFacts ReadSignature(const std::wstring& path, const SignaturePolicy& policy, const ATL::CAccessToken& token,
                             bool countTable = true);

enum class Outcome
{
    Match,
    NoMatch,
    Unanswered, // the rule needs something that could not be had
};
const wchar_t* OutcomeName(Outcome outcome);

struct RuleResult
{
    Outcome outcome = Outcome::Unanswered;
    std::wstring expanded; // pattern rules: the pattern after %VAR% expansion
    std::wstring subject;  // what was tested: the program's path, or its folder
    std::wstring reason;
};

// The walk for one program start. Fill in the inputs, then call RunWalk (or
// the steps one by one, in this order).
struct Walk
{
    // Inputs: the process (0: this one), and the program as a PATH or as a
    // command line to split.
    DWORD pid = 0;
    std::optional<std::wstring> commandLine;
    std::wstring path;
    SignaturePolicy policy;

    // 1: the process identity key.
    DWORD processId = 0;
    DWORD identityError = ERROR_SUCCESS;
    std::wstring key;
    FILETIME created = {};
    // 4 (made first: it names the program): the command line, split.
    std::wstring line;
    SplitLine split;
    // The program's full path (empty when the command line names none) and
    // how it was found.
    std::wstring program, programSource;
    // 2: the NT image check.
    DWORD imageError = ERROR_SUCCESS;
    BOOL isNTExe = FALSE;
    // 3: the token, its elevation and Administrators membership.
    ATL::CAccessToken token;
    std::wstring tokenError;
    std::wstring user;
    bool elevated = false, restrictedOrFullAdmin = false, hasAdminSid = false, administratorsMember = false;
    std::wstring elevationType;
    // 5: the user's environment table.
    std::unique_ptr<QXCommon::CEnvironmentEx> env;
    std::wstring envError;
    // 6, 7: computed only when a rule needs them.
    bool hashesNeeded = false, signatureNeeded = false;
    FileHashes hashes;
    SignatureFacts signature;
    // Per rule, in the rules' order.
    std::vector<RuleResult> results;
};

void StepIdentity(Walk& walk);
void StepSplit(Walk& walk);
void StepImage(Walk& walk);
void StepToken(Walk& walk);
void StepEnvironment(Walk& walk);
// Expands one pattern rule against the table (regex-safe for regex rules) and
// matches it; content rules are left for MatchContentRule.
RuleResult ExpandAndMatch(const Rule& rule, const std::wstring& program, QXCommon::CEnvironmentEx* env,
                          const std::wstring& envError);
void StepHashes(Walk& walk, const std::vector<Rule>& rules);
void StepSignature(Walk& walk, const std::vector<Rule>& rules);
RuleResult MatchContentRule(const Rule& rule, const Walk& walk);
// Every step, then every rule.
void RunWalk(const std::vector<Rule>& rules, Walk& walk);
// Match when some rule matched; otherwise Unanswered when some rule could not
// be answered, NoMatch when none did.
Outcome Answer(const Walk& walk);

// What fileinfo answers for one file.
struct FileInfo
{
    std::wstring path;
    DWORD imageError = ERROR_SUCCESS;
    BOOL isNTExe = FALSE;
    FileHashes hashes;
    SignatureFacts signature;
    Descriptor owner;
    // The file could not be read (its hashes are missing).
    bool Failed() const { return hashes.error != ERROR_SUCCESS; }
};
FileInfo DescribeFile(const std::wstring& path, const SignaturePolicy& policy, const ATL::CAccessToken& token);
// Describes the files on up to `threads` worker threads (at least one); each
// worker holds its own cached hash provider while it runs. The answers are in
// the order of the paths.
std::vector<FileInfo> DescribeFiles(const std::vector<std::wstring>& paths, unsigned threads,
                                    const SignaturePolicy& policy, const ATL::CAccessToken& token);
} // namespace qxinspect
