#include "FileFacts.h"

#include "RuleSet.h"

#include "QXCommon/ChecksumStrategyAdler32.h"
#include "QXCommon/ImpersonationSaver.h"
#include "QXCommon/DataLoader.h"
#include "QXCommon/HashStrategySha.h"
#include "QXCommon/HashStrategyShaCacheHelper.h"
#include "QXCommon/QXCommonFunctions.h"

#include <algorithm>
#include <cwctype>

namespace qxinspect
{
namespace
{
constexpr ULONGLONG FourGiB = 0x100000000ull;
// "An operation is not supported on a directory." (the SDK here lacks the name)
constexpr DWORD ErrorDirectoryNotSupported = 336;

bool StartsWithNoCase(const std::wstring& text, const wchar_t* prefix)
{
    const size_t length = wcslen(prefix);
    return text.size() >= length && _wcsnicmp(text.c_str(), prefix, length) == 0;
}

bool IsDrivePath(const std::wstring& text, size_t at)
{
    return text.size() >= at + 2 && iswalpha(text[at]) && text[at + 1] == L':';
}

FileStatus Refused(DWORD error, const std::wstring& reason)
{
    return FileStatus{error, reason};
}

FileStatus SystemError(DWORD error)
{
    return FileStatus{error, QXCommonFunctions::ErrorMessageFromCode(static_cast<int>(error))};
}

// A name that stands for a device rather than a disk file: the device
// namespace (\\.\COM1, \\.\pipe\x), pipes and mailslots of a host, and the
// DOS device names (NUL, CON, COM1, also as C:\x\nul.txt).
bool NamesDevice(const std::wstring& path)
{
    if (StartsWithNoCase(path, L"\\\\.\\") || (StartsWithNoCase(path, L"\\\\?\\") && !StartsWithNoCase(path, L"\\\\?\\Volume{")))
        return true;
    if (StartsWithNoCase(path, L"\\\\"))
    {
        const size_t host = path.find_first_of(L"\\/", 2);
        if (host != std::wstring::npos &&
            (StartsWithNoCase(path.substr(host + 1), L"pipe\\") || StartsWithNoCase(path.substr(host + 1), L"mailslot\\")))
            return true;
    }
    using IsDosDeviceName = ULONG(WINAPI*)(const wchar_t*);
    static const auto isDosDeviceName = reinterpret_cast<IsDosDeviceName>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlIsDosDeviceName_U")));
    return isDosDeviceName != nullptr && isDosDeviceName(path.c_str()) != 0;
}
// The path the handle leads to; where the file system cannot tell, the
// full path of the name it was opened by.
std::wstring FinalPath(HANDLE handle, const std::wstring& name)
{
    std::wstring path(MAX_PATH, L'\0');
    DWORD length = GetFinalPathNameByHandleW(handle, path.data(), MAX_PATH, FILE_NAME_NORMALIZED);
    if (length >= MAX_PATH)
    {
        path.resize(length);
        length = GetFinalPathNameByHandleW(handle, path.data(), length, FILE_NAME_NORMALIZED);
    }
    if (length == 0 || length >= path.size())
    {
        length = GetFullPathNameW(name.c_str(), static_cast<DWORD>(path.size()), path.data(), nullptr);
        if (length >= path.size())
        {
            path.resize(length);
            length = GetFullPathNameW(name.c_str(), length, path.data(), nullptr);
        }
        if (length == 0 || length >= path.size())
            return name;
    }
    path.resize(length);
    return path;
}
} // namespace

std::wstring PlainPath(const std::wstring& path)
{
    for (const wchar_t* prefix : {L"\\\\?\\", L"\\\\.\\"})
    {
        if (!StartsWithNoCase(path, prefix))
            continue;
        if (IsDrivePath(path, 4))
            return path.substr(4);
        if (StartsWithNoCase(path.substr(4), L"UNC\\"))
            return L"\\\\" + path.substr(8);
    }
    return path;
}

FileStatus OpenRegularFile(const std::wstring& path, ATL::CHandle& file, FileIdentity* identity, DWORD share)
{
    file.Close();
    const std::wstring plain = PlainPath(path);
    if (plain.find(L'\0') != std::wstring::npos)
        return Refused(ERROR_INVALID_NAME, L"the path holds a NUL character");
    if (plain.empty())
        return SystemError(ERROR_INVALID_NAME);
    if (NamesDevice(plain))
        return Refused(ERROR_NOT_SUPPORTED, L"a device, not a disk file");
    // What the name stands for is known only once it is open: the handle is
    // checked (a disk file, not a folder, under 4 GiB) before anything is read.
    HANDLE opened = CreateFileW(plain.c_str(), FILE_READ_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE, share, nullptr,
                                OPEN_EXISTING, 0, nullptr);
    if (opened == INVALID_HANDLE_VALUE)
    {
        // A folder is refused by the open itself (access denied): say what it is.
        const DWORD error = GetLastError();
        const DWORD attributes = GetFileAttributesW(plain.c_str());
        return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0
                   ? Refused(ErrorDirectoryNotSupported, L"a folder, not a file")
                   : SystemError(error);
    }
    ATL::CHandle handle(opened);
    if (GetFileType(handle) != FILE_TYPE_DISK)
        return Refused(ERROR_NOT_SUPPORTED, L"a device, not a disk file");
    // The standard information alone: the whole of GetFileInformationByHandle
    // asks for the volume as well, which costs more than hashing a small file.
    FILE_STANDARD_INFO info = {};
    if (!GetFileInformationByHandleEx(handle, FileStandardInfo, &info, sizeof(info)))
        return SystemError(GetLastError());
    if (info.Directory)
        return Refused(ErrorDirectoryNotSupported, L"a folder, not a file");
    if (static_cast<ULONGLONG>(info.EndOfFile.QuadPart) >= FourGiB)
        return Refused(ERROR_FILE_TOO_LARGE, L"4 GiB or more");
    if (identity != nullptr)
    {
        FILE_BASIC_INFO basic = {};
        if (!GetFileInformationByHandleEx(handle, FileBasicInfo, &basic, sizeof(basic)))
            return SystemError(GetLastError());
        *identity = FileIdentity{FinalPath(handle, plain), static_cast<ULONGLONG>(info.EndOfFile.QuadPart),
                                 basic.LastWriteTime.QuadPart};
    }
    file.Attach(handle.Detach());
    return FileStatus();
}

std::wstring FileIdentity::Key() const
{
    std::wstring key = finalPath;
    std::transform(key.begin(), key.end(), key.begin(), [](wchar_t c) { return static_cast<wchar_t>(towlower(c)); });
    return key + L"|" + std::to_wstring(size) + L"|" + std::to_wstring(lastWrite);
}

bool ReadSmallFile(const std::wstring& path, DWORD maxBytes, std::string& bytes, std::wstring& error)
{
    ATL::CHandle file;
    const FileStatus status = OpenRegularFile(path, file);
    if (!status.Ok())
    {
        error = status.reason;
        return false;
    }
    const DWORD size = GetFileSize(file, nullptr);
    if (size == INVALID_FILE_SIZE || size > maxBytes)
    {
        error = L"larger than " + std::to_wstring(maxBytes >> 20) + L" MiB";
        return false;
    }
    bytes.assign(size, '\0');
    DWORD done = 0;
    while (done < size)
    {
        DWORD read = 0;
        if (!ReadFile(file, bytes.data() + done, size - done, &read, nullptr))
        {
            error = QXCommonFunctions::ErrorMessageFromCode(static_cast<int>(GetLastError()));
            return false;
        }
        if (read == 0)
            break;
        done += read;
    }
    bytes.resize(done);
    return true;
}

FileHashes HashFile(HANDLE file, bool sha1, bool sha256, bool adler32)
{
    FileHashes hashes;
    QXCommon::CDataLoader loader;
    LARGE_INTEGER start = {};
    if (!SetFilePointerEx(file, start, nullptr, FILE_BEGIN) || !loader.LoadFile(nullptr, HashedBytes, file))
    {
        hashes.status = SystemError(GetLastError() != ERROR_SUCCESS ? GetLastError() : ERROR_READ_FAULT);
        return hashes;
    }
    auto hash = [&](QXCommon::IHashStrategy&& strategy, std::wstring& text) {
        if (hashes.status.Ok() && !strategy.GenerateHash(loader.GetData(), loader.GetNumBytes(), text))
            hashes.status = SystemError(GetLastError() != ERROR_SUCCESS ? GetLastError() : ERROR_INVALID_FUNCTION);
    };
    if (sha1)
        hash(QXCommon::CHashStrategySha(SignatureAlgorithmSHA1), hashes.sha1);
    if (sha256)
        hash(QXCommon::CHashStrategySha(SignatureAlgorithmSHA256), hashes.sha256);
    if (adler32)
        hash(QXCommon::CChecksumStrategyAdler32(), hashes.adler32);
    return hashes;
}

FileHashes HashFile(const std::wstring& path, bool sha1, bool sha256, bool adler32)
{
    ATL::CHandle file;
    const FileStatus status = OpenRegularFile(path, file);
    return status.Ok() ? HashFile(file, sha1, sha256, adler32) : FileHashes{status};
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

bool WaivesUnknownRoot(const SignaturePolicy& policy)
{
    return (policy.ignoreFlags & CERT_CHAIN_POLICY_ALLOW_UNKNOWN_CA_FLAG) != 0;
}

Json PolicyJson(const SignaturePolicy& policy)
{
    return Json::MakeObject()
        .Set(L"enforce-expiry", policy.enforceExpiry)
        .Set(L"ignore", static_cast<unsigned long>(policy.ignoreFlags))
        .Set(L"network", policy.network);
}

namespace
{
// The file as the token's user opens it (the agent verifies files that only
// the user can read this way), checked like any other; a file that the user
// reaches as another file than the one checked is refused. Empty when the
// user cannot open it: the check then uses the tool's own handle, as the
// agent lets the platform open the file as itself.
FileStatus OpenAsUser(const std::wstring& path, const ATL::CAccessToken& token, const FileIdentity& checked,
                      ATL::CHandle& file)
{
    FileIdentity identity;
    FileStatus status;
    {
        QXCommon::CImpersonationSaver impersonation;
        if (impersonation.GetCaptureError() != ERROR_SUCCESS)
            return FileStatus();
        const BOOL impersonated = ImpersonateLoggedOnUser(token.GetHandle());
        impersonation.SetImpersonationOccurred(impersonated);
        if (!impersonated)
            return FileStatus();
        status = OpenRegularFile(path, file, &identity, ShareNoWrite);
    }
    if (!status.Ok())
        file.Close();
    else if (identity.Key() != checked.Key())
    {
        file.Close();
        return Refused(ERROR_FILE_INVALID, L"the path led to another file (or the file changed) while it was checked");
    }
    return FileStatus();
}

SignatureFacts ReadSignatureOf(const std::wstring& path, HANDLE checked, const FileIdentity& identity,
                               const SignaturePolicy& policy, const ATL::CAccessToken& token, bool countTable)
{
    SignatureFacts facts;
    const std::wstring plain = PlainPath(path);
    ATL::CHandle asUser;
    facts.status = OpenAsUser(plain, token, identity, asUser);
    if (!facts.status.Ok())
        return facts;
    const HANDLE file = asUser != nullptr ? static_cast<HANDLE>(asUser) : checked;
    LARGE_INTEGER start = {};
    SetFilePointerEx(file, start, nullptr, FILE_BEGIN);
    // The library reads a signer only by path.
    facts.readError = facts.signer.ReadFromSignedFile(plain);
    // VerifySignedFile::Verify's two steps, the first on the checked handle:
    // the Authenticode check, then the signer's chain; an expired signer
    // passes either unless the policy enforces expiry.
    auto waived = [&](HRESULT result) { return result == CERT_E_EXPIRED && !policy.enforceExpiry ? S_OK : result; };
    facts.result = waived(QXCommon::CDigitalCertificate::VerifyFileSignature(plain, file));
    if (facts.result == S_OK)
        facts.result = waived(facts.signer.Verify(policy.ignoreFlags, policy.network));
    if (facts.readError == 0)
    {
        facts.name = TakeBstr(facts.signer.GetName());
        facts.friendlyName = TakeBstr(facts.signer.GetFriendlyName());
        facts.expires = IsoTime(facts.signer.GetExpirationDate());
        facts.thumbprint = Thumbprint(facts.signer.GetContext());
    }
    if (countTable)
        facts.haveEntries = QXCommon::CDigitalCertificate::GetNumberOfCertificatesFromFile(plain, facts.entries);
    return facts;
}

// The facts of a file already opened and checked.
Facts FactsOf(const std::wstring& path, HANDLE file, const FileIdentity& identity, const FactsNeeded& needed,
              const SignaturePolicy& policy, const ATL::CAccessToken* token)
{
    Facts facts;
    facts.path = path;
    facts.identity = identity;
    if (needed.image)
        facts.imageError = QXCommonFunctions::TryCheckIsNTExe(PlainPath(path), facts.isNTExe);
    if (needed.AnyHash())
        facts.hashes = HashFile(file, needed.sha1, needed.sha256, needed.adler32);
    if (needed.signature && (token == nullptr || token->GetHandle() == nullptr))
        facts.signature.status = FileStatus{ERROR_NO_TOKEN, L"the file cannot be opened as the process's user: no token"};
    else if (needed.signature)
        facts.signature = ReadSignatureOf(path, file, identity, policy, *token, needed.tableEntries);
    if (needed.owner)
        facts.owner = ReadDescriptor(file);
    return facts;
}

} // namespace

Facts FactsWithout(const std::wstring& path, const FileStatus& status)
{
    Facts facts;
    facts.path = path;
    facts.status = facts.hashes.status = facts.signature.status = status;
    return facts;
}

SignatureFacts ReadSignature(const std::wstring& path, const SignaturePolicy& policy, const ATL::CAccessToken& token,
                             bool countTable)
{
    ATL::CHandle file;
    FileIdentity identity;
    const FileStatus status = OpenRegularFile(path, file, &identity);
    if (!status.Ok())
        return SignatureFacts{status};
    return ReadSignatureOf(path, file, identity, policy, token, countTable);
}

FactsNeeded& FactsNeeded::operator|=(const FactsNeeded& other)
{
    image = image || other.image;
    sha1 = sha1 || other.sha1;
    sha256 = sha256 || other.sha256;
    adler32 = adler32 || other.adler32;
    signature = signature || other.signature;
    tableEntries = tableEntries || other.tableEntries;
    owner = owner || other.owner;
    return *this;
}

FactsNeeded FactsNeeded::All()
{
    FactsNeeded all;
    all.image = all.sha1 = all.sha256 = all.adler32 = true;
    all.signature = all.tableEntries = all.owner = true;
    return all;
}

Facts ComputeFacts(const std::wstring& path, const FactsNeeded& needed, const SignaturePolicy& policy,
                   const ATL::CAccessToken* token)
{
    ATL::CHandle file;
    FileIdentity identity;
    const FileStatus status = OpenRegularFile(path, file, &identity);
    return status.Ok() ? FactsOf(path, file, identity, needed, policy, token) : FactsWithout(path, status);
}

std::shared_ptr<const Facts> FactsCache::Of(const std::wstring& path)
{
    ATL::CHandle file;
    FileIdentity identity;
    const FileStatus status = OpenRegularFile(path, file, &identity);
    if (!status.Ok())
        return std::make_shared<const Facts>(FactsWithout(path, status));
    const std::wstring key = identity.Key();
    std::shared_ptr<Entry> entry;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto& slot = m_files[key];
        if (slot)
            m_ages.erase(slot->age);
        else
            slot = std::make_shared<Entry>();
        m_ages.push_front(key);
        slot->age = m_ages.begin();
        entry = slot;
        while (m_files.size() > Capacity)
        {
            m_files.erase(m_ages.back());
            m_ages.pop_back();
        }
    }
    // The first to ask computes (from its own checked handle); the others
    // wait for it and take its answer.
    std::lock_guard<std::mutex> computing(entry->mutex);
    const bool known = entry->facts != nullptr;
    if (!known)
        entry->facts = std::make_shared<const Facts>(FactsOf(path, file, identity, m_needed, m_policy, m_token));
    std::lock_guard<std::mutex> lock(m_mutex);
    ++(known ? m_reused : m_computed);
    return entry->facts;
}

size_t FactsCache::Computed() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_computed;
}

size_t FactsCache::Reused() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_reused;
}
} // namespace qxinspect
