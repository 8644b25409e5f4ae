#pragma once
// The facts of one file that rules ask about, each computed at most once:
// whether it is a regular disk file under 4 GiB (only such a file is given an
// identity), the hashes of its first 8 MiB, and its signature. A file that is
// not one (a device, a pipe, a folder, a file of 4 GiB or more, one that
// cannot be read) has no hashes and no signer: rules on them cannot be
// answered, and the reason says why.

#include "Inspect.h"
#include "Platform.h"

#include "QXCommon/DigitalCertificate.h"

#include <atlbase.h>
#include <atlsecurity.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace qxinspect
{
// The bytes that identify a file: its first 8 MiB.
constexpr ULONGLONG HashedBytes = 0x800000;

// The path a \\?\ or \\.\ prefix names: "\\?\C:\x" and "\\.\C:\x" are
// "C:\x", "\\?\UNC\host\share\x" is "\\host\share\x"; other paths are
// returned as they are.
std::wstring PlainPath(const std::wstring& path);

// Whether a file can be given an identity: error 0, or the code and a reason
// ("a device", "a folder", "4 GiB or more", or the system's text).
struct FileStatus
{
    DWORD error = ERROR_SUCCESS;
    std::wstring reason;
    bool Ok() const { return error == ERROR_SUCCESS; }
};
// Opens the file for reading when it is a regular disk file under 4 GiB.
// Device names, pipes and mailslots are refused by their names before
// anything is opened (an open could connect to or wait on a peer); what is
// opened is checked by its handle (a disk file, not a folder, under 4 GiB).
FileStatus OpenRegularFile(const std::wstring& path, ATL::CHandle& file);
inline FileStatus CheckRegularFile(const std::wstring& path)
{
    ATL::CHandle file;
    return OpenRegularFile(path, file);
}
// A whole regular file of at most maxBytes; false with the reason.
bool ReadSmallFile(const std::wstring& path, DWORD maxBytes, std::string& bytes, std::wstring& error);

// The hash texts of a file's first 8 MiB as GenerateFileHash writes them,
// each computed only when asked for; the file is read once.
struct FileHashes
{
    FileStatus status;
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
// The policy waives an unknown root (CERT_CHAIN_POLICY_ALLOW_UNKNOWN_CA_FLAG):
// any certificate with a rule's issuer name and serial number then verifies.
bool WaivesUnknownRoot(const SignaturePolicy& policy);
// {"enforce-expiry", "ignore", "network"}: the options as on the command line.
Json PolicyJson(const SignaturePolicy& policy);

// A file's signature: the verification as the user of a token, its signer
// and the entries of its certificate table.
struct SignatureFacts
{
    FileStatus status;       // not Ok: the file was not checked
    HRESULT result = E_FAIL; // 0: validly signed under the policy
    DWORD readError = 0;     // reading the signer (0: signer holds it)
    QXCommon::CDigitalCertificate signer;
    std::wstring name, friendlyName, expires, thumbprint;
    bool haveEntries = false;
    DWORD entries = 0;
};
// The certificate table is counted only when asked for.
SignatureFacts ReadSignature(const std::wstring& path, const SignaturePolicy& policy, const ATL::CAccessToken& token,
                             bool countTable = true);

// The facts of one file, computed when first asked for and kept. One thread
// at a time.
class FileFacts
{
public:
    // token: the user the file is opened as for its signature (null: the
    // signature cannot be checked).
    FileFacts(std::wstring path, SignaturePolicy policy, const ATL::CAccessToken* token);

    const std::wstring& Path() const { return m_path; }
    const FileStatus& Status();
    // The hashes asked for (asking for more later reads the file again).
    const FileHashes& Hashes(bool sha1, bool sha256, bool adler32);
    const SignatureFacts& Signature();

private:
    std::wstring m_path;
    SignaturePolicy m_policy;
    const ATL::CAccessToken* m_token;
    std::unique_ptr<FileStatus> m_status;
    std::unique_ptr<FileHashes> m_hashes;
    std::unique_ptr<SignatureFacts> m_signature;
};

// The facts of every file a run asks about, by path (case ignored), for the
// policy and the user of one run.
class FactsCache
{
public:
    FactsCache(SignaturePolicy policy, const ATL::CAccessToken* token) : m_policy(policy), m_token(token) {}
    std::shared_ptr<FileFacts> Of(const std::wstring& path);

private:
    SignaturePolicy m_policy;
    const ATL::CAccessToken* m_token;
    std::mutex m_mutex;
    std::map<std::wstring, std::shared_ptr<FileFacts>> m_files;
};

// What fileinfo answers for one file.
struct FileInfo
{
    std::wstring path;
    FileStatus status; // not Ok: nothing else was asked
    DWORD imageError = ERROR_SUCCESS;
    BOOL isNTExe = FALSE;
    FileHashes hashes;
    SignatureFacts signature;
    Descriptor owner;
};
FileInfo DescribeFile(const std::wstring& path, const SignaturePolicy& policy, const ATL::CAccessToken& token);
// Describes the files on up to `threads` worker threads (at least one); each
// worker holds its own cached hash provider while it runs. The answers are in
// the order of the paths.
std::vector<FileInfo> DescribeFiles(const std::vector<std::wstring>& paths, unsigned threads,
                                    const SignaturePolicy& policy, const ATL::CAccessToken& token);
} // namespace qxinspect
