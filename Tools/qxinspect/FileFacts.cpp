#include "FileFacts.h"

#include "RuleSet.h"

#include "QXCommon/ChecksumStrategyAdler32.h"
#include "QXCommon/DataLoader.h"
#include "QXCommon/HashStrategySha.h"
#include "QXCommon/HashStrategyShaCacheHelper.h"
#include "QXCommon/QXCommonFunctions.h"
#include "QXCommon/VerifySignedFile.h"

#include <algorithm>
#include <atomic>
#include <cwctype>
#include <thread>

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

FileStatus OpenRegularFile(const std::wstring& path, ATL::CHandle& file)
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
    HANDLE opened = CreateFileW(plain.c_str(), FILE_READ_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING, 0,
                                nullptr);
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
    file.Attach(handle.Detach());
    return FileStatus();
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

FileHashes HashFile(const std::wstring& path, bool sha1, bool sha256, bool adler32)
{
    FileHashes hashes;
    ATL::CHandle file;
    hashes.status = OpenRegularFile(path, file);
    if (!hashes.status.Ok())
        return hashes;
    QXCommon::CDataLoader loader;
    if (!loader.LoadFile(nullptr, HashedBytes, file))
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

SignatureFacts ReadSignature(const std::wstring& path, const SignaturePolicy& policy, const ATL::CAccessToken& token,
                             bool countTable)
{
    SignatureFacts facts;
    facts.status = CheckRegularFile(path);
    if (!facts.status.Ok())
        return facts;
    const std::wstring plain = PlainPath(path);
    facts.readError = facts.signer.ReadFromSignedFile(plain);
    QXCommon::VerifySignedFile verifier(policy.enforceExpiry, policy.ignoreFlags, policy.network);
    facts.result = verifier.Verify(facts.signer, plain, token);
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

FileFacts::FileFacts(std::wstring path, SignaturePolicy policy, const ATL::CAccessToken* token)
    : m_path(std::move(path)), m_policy(policy), m_token(token)
{
}

const FileStatus& FileFacts::Status()
{
    if (!m_status)
        m_status = std::make_unique<FileStatus>(CheckRegularFile(m_path));
    return *m_status;
}

const FileHashes& FileFacts::Hashes(bool sha1, bool sha256, bool adler32)
{
    // Those computed before are kept: they are computed again with the others.
    if (m_hashes)
    {
        if (!m_hashes->status.Ok() || ((!sha1 || !m_hashes->sha1.empty()) && (!sha256 || !m_hashes->sha256.empty()) &&
                                       (!adler32 || !m_hashes->adler32.empty())))
            return *m_hashes;
        sha1 = sha1 || !m_hashes->sha1.empty();
        sha256 = sha256 || !m_hashes->sha256.empty();
        adler32 = adler32 || !m_hashes->adler32.empty();
    }
    m_hashes = std::make_unique<FileHashes>(Status().Ok() ? HashFile(m_path, sha1, sha256, adler32)
                                                          : FileHashes{Status()});
    return *m_hashes;
}

const SignatureFacts& FileFacts::Signature()
{
    if (m_signature)
        return *m_signature;
    m_signature = std::make_unique<SignatureFacts>();
    if (!Status().Ok())
        m_signature->status = Status();
    else if (m_token == nullptr || m_token->GetHandle() == nullptr)
        m_signature->status = FileStatus{ERROR_NO_TOKEN, L"the file cannot be opened as the process's user: no token"};
    else
        *m_signature = ReadSignature(m_path, m_policy, *m_token, false);
    return *m_signature;
}

std::shared_ptr<FileFacts> FactsCache::Of(const std::wstring& path)
{
    std::wstring key = path;
    std::transform(key.begin(), key.end(), key.begin(), [](wchar_t c) { return static_cast<wchar_t>(towlower(c)); });
    std::lock_guard<std::mutex> lock(m_mutex);
    auto& facts = m_files[key];
    if (!facts)
        facts = std::make_shared<FileFacts>(path, m_policy, m_token);
    return facts;
}

FileInfo DescribeFile(const std::wstring& path, const SignaturePolicy& policy, const ATL::CAccessToken& token)
{
    FileInfo info;
    info.path = path;
    info.status = CheckRegularFile(path);
    if (!info.status.Ok())
        return info;
    info.imageError = QXCommonFunctions::TryCheckIsNTExe(PlainPath(path), info.isNTExe);
    info.hashes = HashFile(path, true, true, true);
    info.signature = ReadSignature(path, policy, token);
    info.owner = ReadDescriptor(PlainPath(path));
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
