// File hashes on real files against BCrypt and zlib, the loader, the
// registry's algorithm, the per-thread provider, and leaks over many files.

#include "QXTestSupport.h"

#include "QXCommon/ChecksumStrategyAdler32.h"
#include "QXCommon/DataLoader.h"
#include "QXCommon/HashStrategySha.h"
#include "QXCommon/HashStrategyShaCacheHelper.h"
#include "QXCommon/QXCommonFunctions.h"
#include "QXCommon/SignatureAlgorithmStrategy.h"

#include <bcrypt.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <random>
#include <thread>

using QXCommon::HashStrategyShaCacheHelper;

namespace
{
constexpr size_t Cap = 8388608, MiB = 1048576;
constexpr SignatureAlgorithm None = SignatureAlgorithmUnknown, Sha1 = SignatureAlgorithmSHA1,
                             Sha256 = SignatureAlgorithmSHA256, Adler = SignatureAlgorithmAdler32;
const std::string Fn = "SignatureAlgorithmStrategy::", CacheFn = "QXCommon::HashStrategyShaCacheHelper::",
                  Loader = "QXCommon::CDataLoader::LoadFile";

std::string RandomBytes(size_t size, unsigned seed = 7)
{
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
    return bytes;
}

// The text the library must give, computed without it: zlib's adler32 in
// upper case, BCrypt's SHA digests in lower case.
std::wstring Reference(SignatureAlgorithm algorithm, std::string_view bytes)
{
    auto* data = reinterpret_cast<BYTE*>(const_cast<char*>(bytes.data()));
    const ULONG size = static_cast<ULONG>(bytes.size()), length = algorithm == Sha256 ? 32 : 20;
    wchar_t text[72] = L"(BCrypt failed)";
    BYTE digest[32];
    BCRYPT_ALG_HANDLE provider = nullptr;
    BCRYPT_HASH_HANDLE hash = nullptr;
    if (algorithm == Adler)
        return swprintf(text, 9, L"%08lX", adler32(adler32(0, nullptr, 0), data, size)), text;
    BCryptOpenAlgorithmProvider(&provider, length == 32 ? BCRYPT_SHA256_ALGORITHM : BCRYPT_SHA1_ALGORITHM, nullptr, 0);
    BCryptCreateHash(provider, &hash, nullptr, 0, nullptr, 0, 0);
    if (BCryptHashData(hash, data, size, 0) == 0 && BCryptFinishHash(hash, digest, length, 0) == 0)
        for (ULONG k = 0; k < length; ++k)
            swprintf(text + 2 * k, 3, L"%02x", digest[k]);
    BCryptDestroyHash(hash);
    BCryptCloseAlgorithmProvider(provider, 0);
    return text;
}

size_t ProcessHeapInUse()
{
    HANDLE heap = GetProcessHeap();
    size_t busy = 0;
    PROCESS_HEAP_ENTRY entry = {};
    HeapLock(heap);
    while (HeapWalk(heap, &entry))
        busy += (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0 ? entry.cbData : 0;
    HeapUnlock(heap);
    return busy;
}

void Force(SignatureAlgorithm algorithm) { SignatureAlgorithmStrategy::Get()->SetSignatureAlgorithm(algorithm); }

std::string Loaded(const QXCommon::CDataLoader& loader) { return {reinterpret_cast<const char*>(loader.GetData()), loader.GetNumBytes()}; }

std::wstring Hash(QXCommon::IHashStrategy& strategy, std::string_view bytes)
{
    std::wstring text = L"(failed)";
    strategy.GenerateHash(reinterpret_cast<const BYTE*>(bytes.data()), bytes.size(), text);
    return text;
}
} // namespace

// Known answers around the update's 8- and 32,768-byte steps, the cap and a 20 MiB file,
// each held open by a writer that shares it; files that cannot be read give the system error.
TEST(FileHash, KnownAnswersAndFilesThatCannotBeRead)
{
    const size_t sizes[] = {0, 1, 7, 8, 9, 32767, 32768, 32769, Cap - 1, Cap, Cap + 1, 20 * MiB};
    const std::string content = RandomBytes(20 * MiB);
    QXTest::TempDir dir;
    std::vector<ATL::CHandle> writers(std::size(sizes));
    for (size_t k = 0; k < std::size(sizes); ++k)
        ASSERT_NE(writers[k].m_h = CreateFileW(dir.Write(std::to_wstring(sizes[k]), content.substr(0, sizes[k])).c_str(),
                                               GENERIC_WRITE | DELETE, 7, nullptr, OPEN_EXISTING, 0, nullptr), INVALID_HANDLE_VALUE);
    for (SignatureAlgorithm algorithm : {Sha1, Sha256, Adler})
    {
        Force(algorithm);
        for (size_t size : sizes)
            EXPECT_EQ(QXCommonFunctions::GenerateFileHash(dir.File(std::to_wstring(size))),
                      Reference(algorithm, std::string_view(content).substr(0, std::min(size, Cap))))
                << "algorithm " << algorithm << ", size " << size;
    }
    // Files that would pass for another: a path read up to its NUL names its first part, and sizes
    // of 4 GiB or more (sparse files, nothing on disk) would be taken modulo 4 GiB.
    const std::string start = content.substr(0, 100);
    const std::wstring locked = dir.Write(L"locked", "data"), named = dir.Write(L"named", start);
    ATL::CHandle exclusive(CreateFileW(locked.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    auto cannotOpen = [](DWORD error) { return L"CreateFileW failed with error [" + std::to_wstring(error) + L"].\n"; };
    auto tooLarge = [](ULONGLONG size) { return L"File size [" + std::to_wstring(size) + L"] bytes is 4 GiB or more. Error [223].\n"; };
    constexpr ULONGLONG FourGiB = 0x100000000;
    const struct { std::wstring path; DWORD error; std::string function; std::wstring log; } cases[] = {
        {dir.File(L"missing"), ERROR_FILE_NOT_FOUND, Loader, cannotOpen(2)},
        {dir.File(L"no\\such\\folder"), ERROR_PATH_NOT_FOUND, Loader, cannotOpen(3)},
        {dir.MakeDir(L"folder"), ERROR_ACCESS_DENIED, Loader, cannotOpen(5)},
        {locked, ERROR_SHARING_VIOLATION, Loader, cannotOpen(32)},
        {named + std::wstring(1, L'\0') + L"x", ERROR_INVALID_NAME, "QXCommonFunctions::GenerateFileHash",
         L"Path [" + named + L"] holds a NUL at [" + std::to_wstring(named.size()) + L"]. Error [123].\n"},
        {dir.WriteSparse(L"4GiB+100", FourGiB + 100, {{0, start}}), ERROR_FILE_TOO_LARGE, Loader, tooLarge(FourGiB + 100)},
        {dir.WriteSparse(L"4GiB", FourGiB, {{0, start}}), ERROR_FILE_TOO_LARGE, Loader, tooLarge(FourGiB)},
        {dir.WriteSparse(L"4GiB-1", FourGiB - 1, {{0, start}}), ERROR_FILE_TOO_LARGE, Loader, L"GetFileSize failed with error [223].\n"},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.path));
        QXTest::LogCapture log;
        EXPECT_EQ(QXCommonFunctions::GenerateFileHash(c.path), L"");
        EXPECT_EQ(GetLastError(), c.error);
        EXPECT_LOGGED(log, 1, c.function, c.log);
        EXPECT_EQ(log.Has(1, "QXCommonFunctions::GenerateFileHash", L"Failed to load file data for [" + c.path + L"].\n"),
                  c.error != ERROR_INVALID_NAME) << log.Dump();
    }
    // A caller's handle alike; one that may not read its file fails at the read. A failed load holds nothing.
    ATL::CHandle large(CreateFileW(cases[5].path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr)),
        attributesOnly(CreateFileW(named.c_str(), FILE_READ_ATTRIBUTES, 7, nullptr, OPEN_EXISTING, 0, nullptr));
    const std::tuple<HANDLE, DWORD, std::wstring> handles[] = {
        {large, ERROR_FILE_TOO_LARGE, tooLarge(FourGiB + 100)},
        {attributesOnly, ERROR_ACCESS_DENIED, L"ReadFile failed with error [5]\n"},
        {reinterpret_cast<HANDLE>(0x1234), ERROR_INVALID_HANDLE, L"Not a disk file, type [0]. Error [6].\n"},
        {nullptr, ERROR_INVALID_PARAMETER, L""}, // neither a handle nor a path
    };
    QXCommon::CDataLoader loader;
    for (const auto& [handle, error, text] : handles)
    {
        ASSERT_EQ(loader.LoadFile(named.c_str(), 0, nullptr), 1);
        QXTest::LogCapture log;
        EXPECT_EQ(loader.LoadFile(nullptr, 0, handle), 0) << error;
        EXPECT_EQ(GetLastError(), error);
        EXPECT_TRUE(loader.GetData() == nullptr && loader.GetNumBytes() == 0) << error;
        EXPECT_TRUE(text.empty() ? log.Count() == 0 : log.Has(1, Loader, text)) << log.Dump();
    }
}

// A caller's handle is read from where it stands, the rest of the block zeros, nothing around it
// written; a large freed block is used again, never for a larger load, nor kept beyond 8 MiB.
TEST(FileHash, LoaderReadsTheCallersHandleAndReusesLargeBlocks)
{
    QXTest::TempDir dir;
    QXCommon::CDataLoader loader, copy;
    ASSERT_EQ(loader.LoadFile(dir.Write(L"g", std::string(3 * MiB, 'x')).c_str(), 0, nullptr), 1);
    loader.Unload(); // its block is kept, as it was, for the next large load
    std::string expected;
    for (const auto& [size, skip] : {std::pair{size_t(4096), size_t(1000)}, std::pair{2 * MiB, MiB}})
    {
        const std::string bytes = RandomBytes(size, 3);
        ATL::CHandle file(CreateFileW(dir.Write(L"f", bytes).c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        ASSERT_TRUE(loader.LoadFile(L"ignored path", skip, file) == 1 && loader.LoadFile(nullptr, 0, file) == 1);
        expected = bytes.substr(skip) + std::string(skip, '\0');
        EXPECT_TRUE(Loaded(loader) == expected && HeapValidate(GetProcessHeap(), 0, nullptr)) << size;
        copy = loader;
    }
    QXCommon::CDataLoader copied(copy), empty, emptyCopy(empty);
    loader.Unload();
    EXPECT_TRUE(loader.GetData() == nullptr && loader.GetNumBytes() == 0 && emptyCopy.GetData() == nullptr);
    EXPECT_TRUE(Loaded(copy) == expected && Loaded(copied) == expected);

    QXCommon::CDataLoader holder, small, large;
    ASSERT_EQ(holder.LoadFile(dir.File(L"g").c_str(), 0, nullptr), 1); // takes the block kept so far
    ASSERT_EQ(small.LoadFile(dir.Write(L"h", std::string(MiB + MiB / 2, 'y')).c_str(), 0, nullptr), 1);
    small.Unload();
    ASSERT_EQ(large.LoadFile(dir.File(L"g").c_str(), 0, nullptr), 1);
    EXPECT_TRUE(Loaded(large) == std::string(3 * MiB, 'x'));
    const size_t before = ProcessHeapInUse();
    ASSERT_EQ(small.LoadFile(dir.WriteSparse(L"whole", 64 * MiB, {}).c_str(), 0, nullptr), 1);
    for (const wchar_t* name : {L"whole", L"h", L"g", L"h"})
        ASSERT_EQ(small.LoadFile(dir.File(name).c_str(), Cap, nullptr), 1);
    small.Unload();
    EXPECT_LT(ProcessHeapInUse(), before + Cap + 65536) << "heap in use grew from " << before;
}

// Every length up to 300, then sparser, and around each 32,768-byte step, at every alignment;
// saturated bytes push every partial sum to its largest value. The vector path is chosen once per
// process, the best the processor offers unless capped: the sweep again in children, on each path.
TEST(FileHash, Adler32MatchesZlibOnEveryPath)
{
    std::vector<size_t> lengths;
    for (size_t n = 0; n <= 70100; n += n < 300 ? 1 : 97)
        lengths.push_back(n);
    for (size_t base : {32768u, 65536u, 98304u, 131072u, 196608u})
        for (size_t n = base - 33; n <= base + 33; ++n)
            lengths.push_back(n);
    const std::string sources[] = {RandomBytes(3 * 65536 + 64, 11), std::string(3 * 65536 + 64, '\xFF')};
    QXTest::LogCapture log;
    QXCommon::CChecksumStrategyAdler32 strategy;
    for (size_t n : lengths)
        for (const std::string& source : sources)
        {
            const std::string_view bytes(source.data() + (n * 7) % 64, n);
            ASSERT_EQ(Hash(strategy, bytes), Reference(Adler, bytes)) << "length " << n << " offset " << (n * 7) % 64;
        }
    std::wstring text;
    EXPECT_TRUE(strategy.GenerateHash(nullptr, 0, text) == 1 && strategy.GenerateHash(nullptr, 5, text) == 0);
    EXPECT_EQ(text, L"00000001"); // a failure leaves the text as it was
    if (std::getenv("QXCOMMON_SIMD") != nullptr) // a child: tells its parent which path ran
    {
        std::printf("%s", log.Dump().c_str());
        return;
    }
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    const char* best = IsProcessorFeaturePresent(PF_AVX2_INSTRUCTIONS_AVAILABLE)    ? "[AVX2]"
                       : IsProcessorFeaturePresent(PF_SSSE3_INSTRUCTIONS_AVAILABLE) ? "[SSSE3]"
                                                                                    : "[portable]";
    for (const auto& [cap, path] : {std::pair{"none", "[portable]"}, {"ssse3", "[SSSE3]"}, {"all", best}})
    {
        SetEnvironmentVariableA("QXCOMMON_SIMD", cap);
        auto run = QXTest::RunProcess(L"\"" + std::wstring(self) + L"\" --gtest_filter=*Adler32MatchesZlibOnEveryPath*");
        SetEnvironmentVariableA("QXCOMMON_SIMD", nullptr);
        EXPECT_EQ(run.exitCode, 0u) << run.output;
        EXPECT_NE(run.output.find("[  PASSED  ] 1 test"), std::string::npos) << run.output;
        EXPECT_NE(run.output.find(std::string("Adler-32 sums with ") + path), std::string::npos) << run.output;
    }
}

// Many files, SHA-256 on worker threads that each lend their own provider:
// the right answers, and handles and heap where they were (a provider left
// behind holds a few hundred bytes of heap).
TEST(FileHash, ManyFilesOnWorkerThreadsLeaveHandlesAndHeapWhereTheyWere)
{
    QXTest::TempDir dir;
    std::vector<std::pair<std::wstring, std::string>> files;
    for (int k = 0; k < 24; ++k)
        files.emplace_back(dir.Write(std::to_wstring(k), RandomBytes(4096 + 997 * k, k)), RandomBytes(4096 + 997 * k, k));
    auto hashAll = [&](SignatureAlgorithm algorithm, size_t threads) {
        std::vector<std::thread> workers;
        for (size_t t = 0; t < threads; ++t)
            workers.emplace_back([&, t] {
                EXPECT_TRUE(threads == 1 || HashStrategyShaCacheHelper::CreateSharedContext());
                for (size_t k = 0; k < 2 * files.size(); ++k)
                {
                    const auto& [path, bytes] = files[(k + t) % files.size()];
                    EXPECT_EQ(QXCommonFunctions::GenerateFileHash(path), Reference(algorithm, bytes)) << k;
                }
                EXPECT_TRUE(threads == 1 || HashStrategyShaCacheHelper::DestroySharedContext());
            });
        for (auto& worker : workers)
            worker.join();
    };
    ASSERT_TRUE(HashStrategyShaCacheHelper::InitTLS());
    for (const auto& [algorithm, threads] : {std::pair{Sha1, size_t(1)}, {Sha256, size_t(4)}, {Adler, size_t(1)}})
    {
        SCOPED_TRACE(algorithm);
        Force(algorithm);
        hashAll(algorithm, threads);
        // A leak grows in every measure; what Wine makes once when threads first contend does not.
        for (int measure = 0; measure < 2; ++measure)
        {
            const uintptr_t handleSlot = QXTest::NextHandleSlot();
            const size_t heap = ProcessHeapInUse();
            for (int round = 0; round < 3; ++round) // private providers are slow to acquire under Wine
                hashAll(algorithm, threads);
            if (QXTest::NextHandleSlot() == handleSlot && ProcessHeapInUse() < heap + 4096)
                break;
            EXPECT_EQ(0, measure) << "next handle slot " << handleSlot << " -> " << QXTest::NextHandleSlot()
                                  << ", heap in use " << heap << " -> " << ProcessHeapInUse();
        }
    }
    EXPECT_TRUE(HashStrategyShaCacheHelper::UninitTLS());
}

// Every registry state of the algorithm's value; GenerateFileHash follows the algorithm, and
// CalculateAdler32Checksum switches the process to Adler-32, even when the file cannot be read.
TEST(Algorithm, RegistryStatesAndTheEntryPoints)
{
    const std::wstring properties = L"SOFTWARE\\Kestrova Technologies\\Runwarden\\MessagesConfig\\Properties";
    struct ProductKey // removed afterwards when this test made it; the value is put back
    {
        const wchar_t* key = L"SOFTWARE\\Kestrova Technologies";
        bool made = ATL::CRegKey().Open(HKEY_LOCAL_MACHINE, key, KEY_READ) != ERROR_SUCCESS;
        ~ProductKey() { made && RegDeleteTreeW(HKEY_LOCAL_MACHINE, key); }
    } productKey;
    QXTest::SavedRegValue saved(HKEY_LOCAL_MACHINE, properties, L"SignatureAlgorithm");
    constexpr DWORD KeyMissing = 0xFFFF;
    auto write = [&](DWORD type, const std::string& data) {
        ASSERT_TRUE(saved.Set(type == KeyMissing ? REG_NONE : type, data.data(), static_cast<DWORD>(data.size())));
        ASSERT_TRUE(type != KeyMissing || RegDeleteKeyW(HKEY_LOCAL_MACHINE, properties.c_str()) == ERROR_SUCCESS);
    };
    auto* strategies = SignatureAlgorithmStrategy::Get();
    auto reset = [&](SignatureAlgorithm algorithm) { // only a failed read brings back "not set"
        write(REG_NONE, "");
        strategies->GetSignatureAlgorithmFromRegistry();
        Force(algorithm);
        ASSERT_EQ(strategies->GetCurrentSignatureAlgorithm(), algorithm);
    };
    auto dword = [](DWORD value) { return std::string(reinterpret_cast<const char*>(&value), sizeof(value)); };
    const std::wstring query = L"Query [SignatureAlgorithm] reg value failed. Error [",
                       unset = L"]. Setting algorithm to [UnknownAlgorithm].\n";
    const struct { DWORD type; std::string data; SignatureAlgorithm before, after; bool result; int level; std::wstring log; } cases[] = {
        {REG_NONE, "", Sha256, None, false, 1, query + L"2" + unset},
        {REG_DWORD, dword(0), None, Sha1, true, 4, L"Signature algorithm set to [SHA1].\n"},
        {REG_DWORD, dword(1), Sha1, Sha256, true, 4, L"Signature algorithm set to [SHA256].\n"},
        {REG_DWORD, dword(2), Sha1, Adler, true, 4, L"Signature algorithm set to [Adler32].\n"},
        {REG_DWORD, dword(1), Sha256, Sha256, false, 4, L"Signature hash strategy has already been initialised for [SHA256].\n"},
        {REG_DWORD, dword(3), Sha256, Sha256, false, 1, L"Signature [3] invalid. Unable to proceed.\n"},
        {REG_SZ, std::string("1\0\0", 4), Sha1, None, false, 1, query + L"13" + unset},
        {REG_QWORD, dword(1) + dword(0), Sha1, None, false, 1, query + L"234" + unset},
        {REG_DWORD, std::string("\1\0", 2), Sha1, None, false, 1, query + L"13" + unset},
        {KeyMissing, "", Adler, None, false, 1, L"Open [" + properties + L"] reg key failed. Error [2" + unset},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.log));
        reset(c.before);
        write(c.type, c.data);
        QXTest::LogCapture log;
        EXPECT_EQ(strategies->GetSignatureAlgorithmFromRegistry(), c.result);
        EXPECT_EQ(strategies->GetCurrentSignatureAlgorithm(), c.after);
        EXPECT_EQ(static_cast<bool>(strategies->GetHashStrategy()), c.after != None);
        const char* by = c.log.starts_with(L"Sig") ? "SetSignatureAlgorithmInternal" : "GetSignatureAlgorithmFromRegistry";
        EXPECT_LOGGED(log, c.level, Fn + by, c.log);
    }

    QXTest::TempDir dir;
    const std::string content = RandomBytes(3000);
    const std::wstring path = dir.Write(L"file.bin", content), missing = dir.File(L"missing"), adler = Reference(Adler, content);
    reset(None);
    {
        QXTest::LogCapture log;
        EXPECT_EQ(QXCommonFunctions::GenerateFileHash(path), L"");
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_STATE));
        EXPECT_LOGGED(log, 1, Fn + "GetHashStrategy", L"Unknown signature type. Unable to initialise hash strategy.\n");
        EXPECT_LOGGED(log, 1, "QXCommonFunctions::GenerateFileHash", L"Hash strategy is null. Unable to generate hash.\n");
    }
    write(REG_DWORD, dword(1));
    ASSERT_TRUE(strategies->GetSignatureAlgorithmFromRegistry());
    EXPECT_EQ(QXCommonFunctions::GenerateFileHash(path), Reference(Sha256, content));
    const std::wstring set = L"Signature algorithm set to [Adler32].\n";
    const struct { SignatureAlgorithm before; std::wstring path; int result; std::wstring log; } calls[] = {
        {Sha256, path, 1, set}, {Adler, path, 1, L"Signature hash strategy has already been initialised for [Adler32].\n"},
        {None, missing, 0, set},
    };
    for (const auto& c : calls)
    {
        SCOPED_TRACE(QXTest::Narrow(c.path));
        reset(c.before);
        std::vector<wchar_t> buffer(c.path.begin(), c.path.end());
        buffer.resize(MAX_PATH, L'\0');
        QXTest::LogCapture log;
        EXPECT_EQ(CalculateAdler32Checksum(buffer.data()), c.result);
        EXPECT_EQ(std::wstring(buffer.data()), c.result == 1 ? adler : c.path);
        EXPECT_LOGGED(log, Fn + "SetSignatureAlgorithmInternal", c.log);
        EXPECT_EQ(c.result == 1, !log.Has(1, "CalculateAdler32Checksum", L"Failed to load file data for [" + c.path + L"].\n"));
        EXPECT_EQ(QXCommonFunctions::GenerateFileHash(path), adler);
    }
    EXPECT_EQ(CalculateAdler32Checksum(nullptr), 0);
    reset(None);
}

// Without the slot every call fails and a strategy acquires a provider of its
// own; a prepared thread lends its provider to the strategies made on it. Each
// hash starts afresh, and copies and assignments hold a provider reference of
// their own: they hash on after the original, and the lender, are gone.
TEST(HashCache, SlotLifeCycleAndBorrowedProvider)
{
    const std::string data = RandomBytes(1000);
    QXTest::LogCapture log;
    EXPECT_FALSE(HashStrategyShaCacheHelper::UninitTLS() || HashStrategyShaCacheHelper::CreateSharedContext() ||
                 HashStrategyShaCacheHelper::DestroySharedContext() || HashStrategyShaCacheHelper::GetSharedContext());
    EXPECT_LOGGED(log, 1, CacheFn + "UninitTLS", L"TLS Index is not valid.\n");
    EXPECT_LOGGED(log, 1, CacheFn + "CreateSharedContext", L"InitTLS not called or failed.\n");
    EXPECT_LOGGED(log, 1, CacheFn + "DestroySharedContext", L"InitTLS not called or failed.\n");
    EXPECT_LOGGED(log, 1, CacheFn + "GetSharedContext", L"InitTLS not called or failed returning NULL.\n");
    std::optional<QXCommon::CHashStrategySha> copy, assigned(std::in_place, Sha1);
    for (SignatureAlgorithm algorithm : {Sha1, Sha256})
    {
        auto original = std::make_unique<QXCommon::CHashStrategySha>(algorithm);
        EXPECT_EQ(Hash(*original, data.substr(0, 10)), Reference(algorithm, data.substr(0, 10)));
        const std::wstring text = Hash(*original, data);
        EXPECT_TRUE(text == Reference(algorithm, data) && text.size() == 2 * original->GetHashSize()) << algorithm;
        copy.emplace(*original);
        *assigned = *original;
        original.reset();
        for (QXCommon::CHashStrategySha* s : {&*copy, &*assigned})
            EXPECT_EQ(Hash(*s, data.substr(0, 500)), Reference(algorithm, data.substr(0, 500)));
        std::wstring kept = L"kept";
        EXPECT_TRUE(copy->GenerateHash(nullptr, 5, kept) == 0 && kept == L"kept");
    }
    EXPECT_TRUE(log.HasFragment(L"Using Local CryptProv handle [")) << log.Dump();
    EXPECT_EQ(Hash(*std::make_unique<QXCommon::CHashStrategySha>(static_cast<SignatureAlgorithm>(7)), data), L"(failed)");

    log.Clear();
    ASSERT_TRUE(HashStrategyShaCacheHelper::InitTLS());
    DWORD index = TLS_OUT_OF_INDEXES;
    for (const auto& entry : log.Entries())
        swscanf(entry.text.c_str(), L"Alloc TLS index = [%lu].", &index);
    ASSERT_NE(index, TLS_OUT_OF_INDEXES) << log.Dump();
    ASSERT_TRUE(HashStrategyShaCacheHelper::InitTLS());
    EXPECT_LOGGED(log, 4, CacheFn + "InitTLS", L"Already created...\n");
    std::thread([&] {
        EXPECT_TRUE(HashStrategyShaCacheHelper::GetSharedContext() == 0 && !HashStrategyShaCacheHelper::DestroySharedContext());
        EXPECT_LOGGED(log, 1, CacheFn + "DestroySharedContext",
                      L"Error - TLS Get Value at index [" + std::to_wstring(index) + L"] returned NULL.\n");
        ASSERT_TRUE(HashStrategyShaCacheHelper::CreateSharedContext());
        const HCRYPTPROV provider = HashStrategyShaCacheHelper::GetSharedContext();
        wchar_t hex[24];
        swprintf(hex, 24, L"%llX", static_cast<unsigned long long>(provider));
        {
            QXCommon::CHashStrategySha borrower(Sha1);
            EXPECT_LOGGED(log, 4, "QXCommon::CHashStrategySha::CHashStrategySha", L"Using Cached CryptProv handle [" + std::wstring(hex) + L"]..\n");
            copy.emplace(borrower);
            *assigned = borrower;
        }
        HCRYPTHASH hash = 0; // the borrower left the provider working
        EXPECT_TRUE(CryptCreateHash(provider, CALG_SHA1, 0, 0, &hash) && CryptDestroyHash(hash));
        EXPECT_TRUE(HashStrategyShaCacheHelper::DestroySharedContext() && HashStrategyShaCacheHelper::GetSharedContext() == 0);
    }).join();
    for (QXCommon::CHashStrategySha* s : {&*copy, &*assigned})
        EXPECT_EQ(Hash(*s, "abc"), Reference(Sha1, "abc"));
    EXPECT_TRUE(HashStrategyShaCacheHelper::UninitTLS() && !HashStrategyShaCacheHelper::UninitTLS());
}
