// File identity: GenerateFileHash on an 8 MiB file against the limit of one
// read into a buffer allocated once plus one CryptHashData with a provider
// acquired once; every PE file of system32 with the thread's shared provider
// against a private provider per file; Adler-32 of 8 MiB in memory against
// zlib.

#include "Bench.h"

#include "QXCommon/ChecksumStrategyAdler32.h"
#include "QXCommon/HashStrategyShaCacheHelper.h"
#include "QXCommon/QXCommonFunctions.h"
#include "QXCommon/SignatureAlgorithmStrategy.h"

#include <atlbase.h>
#include <wincrypt.h>
#include <zlib.h>

#include <random>
#include <vector>

namespace
{
using QXCommon::HashStrategyShaCacheHelper;

constexpr DWORD Size = 8388608;

std::vector<BYTE> RandomBytes(size_t size)
{
    std::mt19937 random(5);
    std::vector<BYTE> bytes(size);
    for (BYTE& b : bytes)
        b = static_cast<BYTE>(random());
    return bytes;
}

// The calling thread holds a shared provider while the object lives.
struct PreparedThread
{
    PreparedThread()
    {
        HashStrategyShaCacheHelper::InitTLS();
        HashStrategyShaCacheHelper::CreateSharedContext();
    }
    ~PreparedThread()
    {
        HashStrategyShaCacheHelper::DestroySharedContext();
        HashStrategyShaCacheHelper::UninitTLS();
    }
};

void RunFile(qxbench::Runner& runner)
{
    wchar_t folder[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, folder);
    const std::wstring path = std::wstring(folder) + L"qxbench-hash-" + std::to_wstring(::GetCurrentProcessId()) + L".bin";
    const std::vector<BYTE> content = RandomBytes(Size);
    {
        ATL::CHandle out(::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
        DWORD written = 0;
        if (out == INVALID_HANDLE_VALUE || !::WriteFile(out, content.data(), Size, &written, nullptr))
        {
            if (out == INVALID_HANDLE_VALUE)
                out.Detach();
            fwprintf(stderr, L"hash.file: cannot write %ls\n", path.c_str());
            return;
        }
    }
    ATL::CHandle file(::CreateFileW(path.c_str(), FILE_READ_DATA, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    HCRYPTPROV provider = 0;
    ::CryptAcquireContextW(&provider, nullptr, nullptr, PROV_RSA_AES, CRYPT_VERIFYCONTEXT | CRYPT_MACHINE_KEYSET);
    std::vector<BYTE> buffer(Size);
    PreparedThread prepared;

    struct Row
    {
        const wchar_t* name;
        SignatureAlgorithm algorithm;
        ALG_ID id;
    } rows[] = {{L"hash.file.sha256 (8 MiB)", SignatureAlgorithmSHA256, CALG_SHA_256},
                {L"hash.file.sha1 (8 MiB)", SignatureAlgorithmSHA1, CALG_SHA1},
                {L"hash.file.adler32 (8 MiB)", SignatureAlgorithmAdler32, 0}};
    for (const Row& row : rows)
    {
        SignatureAlgorithmStrategy::Get()->SetSignatureAlgorithm(row.algorithm);
        auto limit = [&] {
            DWORD read = 0;
            ::SetFilePointer(file, 0, nullptr, FILE_BEGIN);
            ::ReadFile(file, buffer.data(), Size, &read, nullptr);
            if (row.id == 0)
            {
                qxbench::KeepAlive(adler32(adler32(0, nullptr, 0), buffer.data(), read));
                return;
            }
            HCRYPTHASH hash = 0;
            BYTE digest[32];
            DWORD digestSize = sizeof(digest);
            ::CryptCreateHash(provider, row.id, 0, 0, &hash);
            ::CryptHashData(hash, buffer.data(), read, 0);
            ::CryptGetHashParam(hash, HP_HASHVAL, digest, &digestSize, 0);
            ::CryptDestroyHash(hash);
            qxbench::KeepAlive(digest);
        };
        runner.Compare(row.name, row.id == 0 ? L"ReadFile + zlib adler32" : L"ReadFile + CryptHashData",
                       [&] { qxbench::KeepAlive(QXCommonFunctions::GenerateFileHash(path)); }, limit, 1,
                       L"limit: the same bytes read into a buffer allocated once, provider acquired once");
    }
    ::CryptReleaseContext(provider, 0);
    file.Close();
    ::DeleteFileW(path.c_str());
}

void RunSystem32(qxbench::Runner& runner)
{
    wchar_t system[MAX_PATH] = {};
    ::GetSystemDirectoryW(system, MAX_PATH);
    std::vector<std::wstring> files;
    for (const wchar_t* pattern : {L"\\*.dll", L"\\*.exe"})
    {
        WIN32_FIND_DATAW data;
        HANDLE find = ::FindFirstFileW((std::wstring(system) + pattern).c_str(), &data);
        if (find == INVALID_HANDLE_VALUE)
            continue;
        do
            if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
                files.push_back(std::wstring(system) + L"\\" + data.cFileName);
        while (::FindNextFileW(find, &data));
        ::FindClose(find);
    }
    SignatureAlgorithmStrategy::Get()->SetSignatureAlgorithm(SignatureAlgorithmSHA256);
    HashStrategyShaCacheHelper::InitTLS();
    auto hashAll = [&] {
        for (const auto& file : files)
            qxbench::KeepAlive(QXCommonFunctions::GenerateFileHash(file));
    };
    runner.Compare(L"hash.system32.sha256 (per file)", L"private provider per file",
                   [&] {
                       // One provider for the thread's whole run, as a pool worker holds it.
                       HashStrategyShaCacheHelper::CreateSharedContext();
                       hashAll();
                       HashStrategyShaCacheHelper::DestroySharedContext();
                   },
                   hashAll, files.size(), std::to_wstring(files.size()) + L" PE files of " + system);
    HashStrategyShaCacheHelper::UninitTLS();
}

void RunAdler32(qxbench::Runner& runner)
{
    const std::vector<BYTE> data = RandomBytes(Size);
    QXCommon::CChecksumStrategyAdler32 strategy;
    std::wstring text;
    const char* cap = std::getenv("QXCOMMON_SIMD");
    runner.Compare(L"adler32 (8 MiB in memory)", L"zlib adler32",
                   [&] { strategy.GenerateHash(data.data(), data.size(), text); },
                   [&] { qxbench::KeepAlive(adler32(adler32(0, nullptr, 0), data.data(), Size)); }, 1,
                   std::wstring(L"vector path: ") +
                       (cap != nullptr ? L"capped by QXCOMMON_SIMD" : L"best the processor has"));
}
} // namespace

QXBENCH_CASE(L"hash.file", &RunFile);
QXBENCH_CASE(L"hash.system32", &RunSystem32);
QXBENCH_CASE(L"hash.adler32", &RunAdler32);
