#pragma once
// The facts of one file that rules ask about: whether it is a regular disk
// file under 4 GiB (only such a file is given an identity), its NT image
// check, the hashes of its first 8 MiB, its signature and its owner. A file
// that is not one (a device, a pipe, a folder, a file of 4 GiB or more, one
// that cannot be read) has no hashes and no signer: rules on them cannot be
// answered, and the reason says why.
//
// A run computes the facts of each file once, on the worker thread that
// first asks, from the handle it checked, and keeps them in a cache keyed by
// the file's identity (its final path, size and last-write time), so that a
// program started a thousand times is read once, and a file that changes is
// read again.

#include "Inspect.h"
#include "Platform.h"

#include "QXCommon/DigitalCertificate.h"

#include <atlbase.h>
#include <atlsecurity.h>

#include <list>
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

// What tells one file from another, and a file from itself after a change:
// the path its handle leads to, its size and its last-write time.
struct FileIdentity
{
    std::wstring finalPath;
    ULONGLONG size = 0;
    LONGLONG lastWrite = 0;
    std::wstring Key() const;
};

// How a checked file is shared while it is open: the hashes and the image
// let others do anything; the signature check lets others read and delete,
// not write, as the agent's own open does.
constexpr DWORD ShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr DWORD ShareNoWrite = FILE_SHARE_READ | FILE_SHARE_DELETE;

// Opens the file for reading when it is a regular disk file under 4 GiB.
// Device names, pipes and mailslots are refused by their names before
// anything is opened (an open could connect to or wait on a peer); what is
// opened is checked by its handle (a disk file, not a folder, under 4 GiB).
// With identity, the file's identity is read from the handle as well.
FileStatus OpenRegularFile(const std::wstring& path, ATL::CHandle& file, FileIdentity* identity = nullptr,
                           DWORD share = ShareAll);
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
// From a checked handle (read from its start) or, without one, from the
// path opened and checked here.
FileHashes HashFile(HANDLE file, bool sha1, bool sha256, bool adler32);
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
// The verification the agent makes (the Authenticode check of the file
// opened as the token's user, then the signer's chain under the policy, an
// expired signer accepted unless the policy enforces expiry), with the
// Authenticode check given a handle of the very file that was checked. The
// certificate table is counted only when asked for.
SignatureFacts ReadSignature(const std::wstring& path, const SignaturePolicy& policy, const ATL::CAccessToken& token,
                             bool countTable = true);

// Which facts a run asks of every file.
struct FactsNeeded
{
    bool image = false;
    bool sha1 = false, sha256 = false, adler32 = false;
    bool signature = false;
    bool tableEntries = false; // with the signature: the certificate table's entries
    bool owner = false;
    bool AnyHash() const { return sha1 || sha256 || adler32; }
    FactsNeeded& operator|=(const FactsNeeded& other);
    // Every fact (what fileinfo answers).
    static FactsNeeded All();
};

// What is known of one file.
struct Facts
{
    std::wstring path; // as asked for
    FileStatus status; // not Ok: nothing else is known (hashes and signature carry the same status)
    FileIdentity identity;
    DWORD imageError = ERROR_SUCCESS;
    BOOL isNTExe = FALSE;
    FileHashes hashes;
    SignatureFacts signature;
    Descriptor owner;
};
// The facts of a file that could not be had: the status says why.
Facts FactsWithout(const std::wstring& path, const FileStatus& status);
// token: the user the file is opened as for its signature (null: the
// signature cannot be checked).
Facts ComputeFacts(const std::wstring& path, const FactsNeeded& needed, const SignaturePolicy& policy,
                   const ATL::CAccessToken* token);

// The facts of every file a run asks about, each computed once by whichever
// worker asks first (the others wait for it), kept by identity: a file that
// changed (another size or last-write time) or that a path now leads to
// instead is computed afresh. At most Capacity files are kept (the least
// recently asked for is dropped). Files that cannot be opened are not kept:
// their status is all there is, and it is asked again.
class FactsCache
{
public:
    static constexpr size_t Capacity = 4096;
    FactsCache(FactsNeeded needed, SignaturePolicy policy, const ATL::CAccessToken* token)
        : m_needed(needed), m_policy(policy), m_token(token)
    {
    }
    std::shared_ptr<const Facts> Of(const std::wstring& path);
    // Facts computed, and answers given from facts computed before.
    size_t Computed() const;
    size_t Reused() const;

private:
    struct Entry
    {
        std::mutex mutex; // held while the facts are computed
        std::shared_ptr<const Facts> facts;
        std::list<std::wstring>::iterator age;
    };
    FactsNeeded m_needed;
    SignaturePolicy m_policy;
    const ATL::CAccessToken* m_token;
    mutable std::mutex m_mutex;
    std::map<std::wstring, std::shared_ptr<Entry>> m_files;
    std::list<std::wstring> m_ages; // most recently asked for first
    size_t m_computed = 0, m_reused = 0;
};
} // namespace qxinspect
