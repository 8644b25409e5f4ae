// File hashes on real files against BCrypt and zlib, the registry's
// algorithm, the per-thread provider, and leaks over thousands of files.

#include "QXTestSupport.h"

#include "QXCommon/ChecksumStrategyAdler32.h"
#include "QXCommon/DataLoader.h"
#include "QXCommon/HashStrategySha.h"
#include "QXCommon/HashStrategyShaCacheHelper.h"
#include "QXCommon/QXCommonFunctions.h"
#include "QXCommon/SignatureAlgorithmStrategy.h"

#include <bcrypt.h>
#include <zlib.h>

#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <string_view>
#include <thread>
#include <vector>

using QXCommon::HashStrategyShaCacheHelper;

namespace
{
constexpr size_t Cap = 8388608, MiB = 1048576;
constexpr SignatureAlgorithm None = SignatureAlgorithmUnknown, Sha1 = SignatureAlgorithmSHA1,
                             Sha256 = SignatureAlgorithmSHA256, Adler = SignatureAlgorithmAdler32;
const std::string Fn = "SignatureAlgorithmStrategy::", CacheFn = "QXCommon::HashStrategyShaCacheHelper::";

std::string RandomBytes(size_t size, unsigned seed = 7)
{
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (char& c : bytes)
        c = static_cast<char>(random());
    return bytes;
}

// The text the library must give, computed without it: zlib's adler32 in
// upper case, BCrypt's SHA digests in lower case.
std::wstring Reference(SignatureAlgorithm algorithm, std::string_view bytes)
{
    wchar_t text[72] = L"(BCrypt failed)";
    if (algorithm == Adler)
    {
        swprintf(text, 9, L"%08lX", adler32(adler32(0, nullptr, 0), reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size())));
        return text;
    }
    const ULONG length = algorithm == Sha256 ? 32 : 20;
    UCHAR digest[32] = {};
    BCRYPT_ALG_HANDLE provider = nullptr;
    BCRYPT_HASH_HANDLE hash = nullptr;
    BCryptOpenAlgorithmProvider(&provider, length == 32 ? BCRYPT_SHA256_ALGORITHM : BCRYPT_SHA1_ALGORITHM, nullptr, 0);
    BCryptCreateHash(provider, &hash, nullptr, 0, nullptr, 0, 0);
    if (BCryptHashData(hash, reinterpret_cast<PUCHAR>(const_cast<char*>(bytes.data())), static_cast<ULONG>(bytes.size()), 0) == 0 &&
        BCryptFinishHash(hash, digest, length, 0) == 0)
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

void Force(SignatureAlgorithm algorithm)
{
    SignatureAlgorithmStrategy::Get()->SetSignatureAlgorithm(algorithm);
}

std::string Loaded(const QXCommon::CDataLoader& loader)
{
    return std::string(reinterpret_cast<const char*>(loader.GetData()), loader.GetNumBytes());
}
} // namespace

// Known answers up to and past the cap; files that cannot be read give empty
// text and the system error.
TEST(FileHash, KnownAnswersAndFilesThatCannotBeRead)
{
    // Around the update's 8-byte and 32,768-byte steps, the cap, and a 20 MiB
    // file whose identity is its first 8 MiB.
    const size_t sizes[] = {0, 1, 7, 8, 9, 32767, 32768, 32769, Cap - 1, Cap, Cap + 1, 20 * MiB};
    const std::string content = RandomBytes(20 * MiB);
    QXTest::TempDir dir;
    for (size_t size : sizes)
        dir.Write(std::to_wstring(size), content.substr(0, size));
    for (SignatureAlgorithm algorithm : {Sha1, Sha256, Adler})
    {
        Force(algorithm);
        for (size_t size : sizes)
            EXPECT_EQ(QXCommonFunctions::GenerateFileHash(dir.File(std::to_wstring(size))),
                      Reference(algorithm, std::string_view(content).substr(0, std::min(size, Cap))))
                << "algorithm " << algorithm << ", size " << size;
    }
    // Files no one may read, and files that would pass for another: a path
    // read up to its NUL names its first part, and sizes of 4 GiB or more
    // (sparse files, nothing on disk) would be taken modulo 4 GiB.
    const std::string start = content.substr(0, 100);
    const std::wstring locked = dir.Write(L"locked", "data"), named = dir.Write(L"named", start);
    ATL::CHandle exclusive(CreateFileW(locked.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    const std::string loader = "QXCommon::CDataLoader::LoadFile";
    auto cannotOpen = [](DWORD error) { return L"CreateFileW failed with error [" + std::to_wstring(error) + L"].\n"; };
    auto tooLarge = [](ULONGLONG size) { return L"File size [" + std::to_wstring(size) + L"] bytes is 4 GiB or more. Error [223].\n"; };
    constexpr ULONGLONG FourGiB = 0x100000000;
    const struct { std::wstring path; DWORD error; std::string function; std::wstring log; } cases[] = {
        {dir.File(L"missing"), ERROR_FILE_NOT_FOUND, loader, cannotOpen(2)},
        {dir.File(L"no\\such\\folder"), ERROR_PATH_NOT_FOUND, loader, cannotOpen(3)},
        {dir.MakeDir(L"folder"), ERROR_ACCESS_DENIED, loader, cannotOpen(5)},
        {locked, ERROR_SHARING_VIOLATION, loader, cannotOpen(32)},
        {named + std::wstring(1, L'\0') + L"x", ERROR_INVALID_NAME, "QXCommonFunctions::GenerateFileHash",
         L"Path [" + named + L"] holds a NUL at [" + std::to_wstring(named.size()) + L"]. Error [123].\n"},
        {dir.WriteSparse(L"4GiB+100", FourGiB + 100, {{0, start}}), ERROR_FILE_TOO_LARGE, loader, tooLarge(FourGiB + 100)},
        {dir.WriteSparse(L"4GiB", FourGiB, {{0, start}}), ERROR_FILE_TOO_LARGE, loader, tooLarge(FourGiB)},
        {dir.WriteSparse(L"4GiB-1", FourGiB - 1, {{0, start}}), ERROR_FILE_TOO_LARGE, loader, L"GetFileSize failed with error [223].\n"},
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
    QXCommon::CDataLoader loading;
    ATL::CHandle large(CreateFileW(cases[5].path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_EQ(loading.LoadFile(nullptr, 0, large), 0); // a caller's handle alike
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_TOO_LARGE));
    EXPECT_EQ(loading.LoadFile(nullptr, 0, nullptr), 0);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(loading.LoadFile(nullptr, 0, reinterpret_cast<HANDLE>(0x1234)), 0); // not a handle
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
}

// A caller's handle is read from where it stands; a large freed block is used
// again without showing what it held, never for a load larger than itself.
TEST(FileHash, LoaderReadsTheCallersHandleAndReusesLargeBlocks)
{
    QXTest::TempDir dir;
    const std::string content = RandomBytes(2 * MiB, 3);
    QXCommon::CDataLoader earlier;
    ASSERT_EQ(earlier.LoadFile(dir.Write(L"g", std::string(3 * MiB, 'x')).c_str(), 0, nullptr), 1);
    earlier.Unload();

    ATL::CHandle file(CreateFileW(dir.Write(L"f", content).c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    QXCommon::CDataLoader loader;
    ASSERT_EQ(loader.LoadFile(L"ignored path", MiB, file), 1);
    ASSERT_EQ(loader.LoadFile(nullptr, 0, file), 1);
    EXPECT_TRUE(Loaded(loader) == content.substr(MiB) + std::string(MiB, '\0'));

    QXCommon::CDataLoader copy(loader), emptyCopy(earlier);
    loader.Unload();
    EXPECT_TRUE(loader.GetData() == nullptr && loader.GetNumBytes() == 0 && emptyCopy.GetNumBytes() == 0);
    EXPECT_TRUE(Loaded(copy).substr(0, MiB) == content.substr(MiB));

    QXCommon::CDataLoader holder, small, large;
    ASSERT_EQ(holder.LoadFile(dir.File(L"g").c_str(), 0, nullptr), 1); // takes the block kept so far
    ASSERT_EQ(small.LoadFile(dir.Write(L"h", std::string(MiB + MiB / 2, 'y')).c_str(), 0, nullptr), 1);
    small.Unload();
    ASSERT_EQ(large.LoadFile(dir.File(L"g").c_str(), 0, nullptr), 1);
    EXPECT_TRUE(Loaded(large) == std::string(3 * MiB, 'x'));

    // The block of a whole-file load beyond the hash's 8 MiB is given back,
    // not kept for (and reused by) the loads that follow.
    const size_t before = ProcessHeapInUse();
    ASSERT_EQ(small.LoadFile(dir.WriteSparse(L"whole", 64 * MiB, {}).c_str(), 0, nullptr), 1);
    for (const wchar_t* name : {L"whole", L"h", L"g", L"h"})
        ASSERT_EQ(small.LoadFile(dir.File(name).c_str(), Cap, nullptr), 1);
    small.Unload();
    EXPECT_LT(ProcessHeapInUse(), before + Cap + 65536) << "heap in use grew from " << before;
}

TEST(FileHash, Adler32MatchesZlibOverLengthsAndAlignments)
{
    std::vector<size_t> lengths;
    for (size_t n = 0; n <= 70100; n += n < 300 ? 1 : 97)
        lengths.push_back(n);
    for (size_t base : {32768u, 65536u, 98304u, 131072u, 196608u})
        for (size_t n = base - 33; n <= base + 33; ++n)
            lengths.push_back(n);
    // Saturated bytes push every partial sum to its largest value.
    const std::string sources[] = {RandomBytes(3 * 65536 + 64, 11), std::string(3 * 65536 + 64, '\xFF')};
    QXTest::LogCapture log;
    QXCommon::CChecksumStrategyAdler32 strategy;
    std::wstring text;
    for (size_t n : lengths)
        for (const std::string& source : sources)
        {
            const BYTE* p = reinterpret_cast<const BYTE*>(source.data()) + (n * 7) % 64;
            ASSERT_EQ(strategy.GenerateHash(p, n, text), 1);
            ASSERT_EQ(text, Reference(Adler, {reinterpret_cast<const char*>(p), n})) << "length " << n << " offset " << (n * 7) % 64;
        }
    // Tells a parent whose child's choice is capped which path ran.
    for (const auto& entry : log.Entries())
        if (entry.text.starts_with(L"Adler-32 sums with"))
            std::printf("%s", QXTest::Narrow(entry.text).c_str());
    EXPECT_EQ(strategy.GenerateHash(nullptr, 0, text), 1);
    EXPECT_EQ(strategy.GenerateHash(nullptr, 5, text), 0);
    EXPECT_EQ(text, L"00000001"); // a failure leaves the text as it was
}

// The vector path is chosen once per process: the sweep again in children.
TEST(FileHash, Adler32PortableAndNarrowVectorPathsMatchZlib)
{
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    for (const auto& [cap, path] : {std::pair{"none", "[portable]"}, std::pair{"ssse3", "[SSSE3]"}})
    {
        SetEnvironmentVariableA("QXCOMMON_SIMD", cap);
        auto run = QXTest::RunProcess(L"\"" + std::wstring(self) + L"\" --gtest_filter=*Adler32MatchesZlib*");
        SetEnvironmentVariableA("QXCOMMON_SIMD", nullptr);
        EXPECT_EQ(run.exitCode, 0u) << run.output;
        EXPECT_NE(run.output.find("[  PASSED  ] 1 test"), std::string::npos) << run.output;
        EXPECT_NE(run.output.find(std::string("Adler-32 sums with ") + path), std::string::npos) << run.output;
    }
}

// Each hash starts afresh; copies and assignments outlive the original.
TEST(FileHash, ShaStrategiesHashAfreshAndSurviveCopies)
{
    const std::string data = RandomBytes(1000);
    const BYTE* p = reinterpret_cast<const BYTE*>(data.data());
    std::wstring text;
    for (SignatureAlgorithm algorithm : {Sha1, Sha256})
    {
        auto original = std::make_unique<QXCommon::CHashStrategySha>(algorithm);
        EXPECT_EQ(original->GetHashSize(), algorithm == Sha256 ? 32u : 20u);
        ASSERT_TRUE(original->GenerateHash(p, 10, text) == 1 && original->GenerateHash(p, data.size(), text) == 1);
        EXPECT_EQ(text, Reference(algorithm, data));
        QXCommon::CHashStrategySha copy(*original), assigned(algorithm == Sha1 ? Sha256 : Sha1);
        assigned = *original;
        original.reset();
        for (QXCommon::CHashStrategySha* s : {&copy, &assigned})
        {
            ASSERT_EQ(s->GenerateHash(p, 500, text), 1);
            EXPECT_EQ(text, Reference(algorithm, data.substr(0, 500)));
        }
        EXPECT_EQ(copy.GenerateHash(nullptr, 5, text), 0);
        EXPECT_EQ(text, Reference(algorithm, data.substr(0, 500))); // left as it was
    }
    EXPECT_EQ(QXCommon::CHashStrategySha(static_cast<SignatureAlgorithm>(7)).GenerateHash(p, 10, text), 0);
}

// A provider left behind holds a few hundred bytes of heap.
TEST(FileHash, ThousandsOfFilesLeaveHandlesAndHeapWhereTheyWere)
{
    QXTest::TempDir dir;
    std::vector<std::wstring> paths;
    for (int k = 0; k < 40; ++k)
        paths.push_back(dir.Write(std::to_wstring(k), RandomBytes(4096 + k, k)));
    auto hashAll = [&](int rounds) {
        for (int r = 0; r < rounds; ++r)
            for (const auto& path : paths)
                ASSERT_FALSE(QXCommonFunctions::GenerateFileHash(path).empty());
    };
    // Private providers are slow to acquire under Wine: fewer rounds use them.
    const std::tuple<SignatureAlgorithm, bool, int> cases[] = {{Sha1, false, 3}, {Sha256, true, 50}, {Adler, false, 50}};
    ASSERT_TRUE(HashStrategyShaCacheHelper::InitTLS());
    for (const auto& [algorithm, sharedProvider, rounds] : cases)
    {
        SCOPED_TRACE(algorithm);
        Force(algorithm);
        EXPECT_EQ(!sharedProvider || HashStrategyShaCacheHelper::CreateSharedContext(), TRUE);
        hashAll(2);
        const uintptr_t handleSlot = QXTest::NextHandleSlot();
        const size_t heap = ProcessHeapInUse();
        hashAll(rounds);
        EXPECT_EQ(QXTest::NextHandleSlot(), handleSlot);
        EXPECT_LT(ProcessHeapInUse(), heap + 4096) << "heap in use grew from " << heap;
        EXPECT_EQ(!sharedProvider || HashStrategyShaCacheHelper::DestroySharedContext(), TRUE);
    }
    HashStrategyShaCacheHelper::UninitTLS();
}

namespace
{
const std::wstring Properties = L"SOFTWARE\\Kestrova Technologies\\Runwarden\\MessagesConfig\\Properties";
constexpr DWORD KeyMissing = 0xFFFF; // the key itself is deleted

// Each test starts from "not set"; the value is put back afterwards and the
// keys the test made are removed.
class Algorithm : public testing::Test
{
protected:
    void SetUp() override
    {
        for (size_t end = 0; m_created.empty() && end != std::wstring::npos;)
        {
            end = Properties.find(L'\\', end + 1);
            ATL::CRegKey probe;
            if (probe.Open(HKEY_LOCAL_MACHINE, Properties.substr(0, end).c_str(), KEY_READ) != ERROR_SUCCESS)
                m_created = Properties.substr(0, end);
        }
        m_saved.emplace(HKEY_LOCAL_MACHINE, Properties, L"SignatureAlgorithm");
        Reset(None);
    }
    void TearDown() override
    {
        Reset(None);
        m_saved.reset();
        if (!m_created.empty())
            RegDeleteTreeW(HKEY_LOCAL_MACHINE, m_created.c_str());
    }
    void Write(DWORD type, const std::string& data = {})
    {
        ASSERT_TRUE(m_saved->Set(type == KeyMissing ? REG_NONE : type, data.data(), static_cast<DWORD>(data.size())));
        ASSERT_TRUE(type != KeyMissing || RegDeleteKeyW(HKEY_LOCAL_MACHINE, Properties.c_str()) == ERROR_SUCCESS);
    }
    // Any algorithm; only a failed read brings back "not set".
    void Reset(SignatureAlgorithm algorithm)
    {
        if (algorithm == None)
        {
            Write(REG_NONE);
            SignatureAlgorithmStrategy::Get()->GetSignatureAlgorithmFromRegistry();
        }
        else
            Force(algorithm);
        ASSERT_EQ(SignatureAlgorithmStrategy::Get()->GetCurrentSignatureAlgorithm(), algorithm);
    }
    std::wstring m_created;
    std::optional<QXTest::SavedRegValue> m_saved;
};

std::string Dword(DWORD value)
{
    return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
}
} // namespace

TEST_F(Algorithm, EveryRegistryStateOfTheValue)
{
    const std::wstring query = L"Query [SignatureAlgorithm] reg value failed. Error [";
    const std::wstring reset = L"]. Setting algorithm to [UnknownAlgorithm].\n";
    const struct { DWORD type; std::string data; SignatureAlgorithm before, after; bool result; int level; std::wstring log; } cases[] = {
        {REG_NONE, "", Sha256, None, false, 1, query + L"2" + reset},
        {REG_DWORD, Dword(0), None, Sha1, true, 4, L"Signature algorithm set to [SHA1].\n"},
        {REG_DWORD, Dword(1), Sha1, Sha256, true, 4, L"Signature algorithm set to [SHA256].\n"},
        {REG_DWORD, Dword(2), Sha1, Adler, true, 4, L"Signature algorithm set to [Adler32].\n"},
        {REG_DWORD, Dword(1), Sha256, Sha256, false, 4, L"Signature hash strategy has already been initialised for [SHA256].\n"},
        {REG_DWORD, Dword(3), Sha256, Sha256, false, 1, L"Signature [3] invalid. Unable to proceed.\n"},
        {REG_SZ, std::string("1\0\0", 4), Sha1, None, false, 1, query + L"13" + reset},
        {REG_QWORD, Dword(1) + Dword(0), Sha1, None, false, 1, query + L"234" + reset},
        {REG_DWORD, std::string("\1\0", 2), Sha1, None, false, 1, query + L"13" + reset},
        {KeyMissing, "", Adler, None, false, 1, L"Open [" + Properties + L"] reg key failed. Error [2" + reset},
    };
    auto* strategies = SignatureAlgorithmStrategy::Get();
    for (const auto& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.log));
        Reset(c.before);
        Write(c.type, c.data);
        QXTest::LogCapture log;
        EXPECT_EQ(strategies->GetSignatureAlgorithmFromRegistry(), c.result);
        EXPECT_EQ(strategies->GetCurrentSignatureAlgorithm(), c.after);
        EXPECT_EQ(static_cast<bool>(strategies->GetHashStrategy()), c.after != None);
        const char* by = c.log.starts_with(L"Sig") ? "SetSignatureAlgorithmInternal" : "GetSignatureAlgorithmFromRegistry";
        EXPECT_LOGGED(log, c.level, Fn + by, c.log);
    }
}

// GenerateFileHash and qxinspect follow the algorithm; CalculateAdler32Checksum
// switches the process to Adler-32, even when the file cannot be read.
TEST_F(Algorithm, FileHashFollowsTheAlgorithmAndCalculateAdler32ChecksumSwitchesIt)
{
    QXTest::TempDir dir;
    const std::string content = RandomBytes(3000);
    const std::wstring path = dir.Write(L"file.bin", content);
    {
        QXTest::LogCapture log;
        EXPECT_EQ(QXCommonFunctions::GenerateFileHash(path), L"");
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_STATE));
        EXPECT_LOGGED(log, 1, Fn + "GetHashStrategy", L"Unknown signature type. Unable to initialise hash strategy.\n");
        EXPECT_LOGGED(log, 1, "QXCommonFunctions::GenerateFileHash", L"Hash strategy is null. Unable to generate hash.\n");
    }
    auto run = QXTest::RunInspect(L"hash --algorithm Adler32 \"" + path + L"\"");
    EXPECT_EQ(run.exitCode, 0u) << run.output;
    EXPECT_NE(run.output.find(QXTest::Narrow(Reference(Adler, content) + L"  " + path + L"\n")), std::string::npos) << run.output;
    Write(REG_DWORD, Dword(1));
    ASSERT_TRUE(SignatureAlgorithmStrategy::Get()->GetSignatureAlgorithmFromRegistry());
    EXPECT_EQ(QXCommonFunctions::GenerateFileHash(path), Reference(Sha256, content));
    run = QXTest::RunInspect(L"--json hash \"" + path + L"\" \"" + dir.File(L"missing") + L"\"");
    EXPECT_EQ(run.exitCode, 3u) << run.output;
    for (const std::string& fragment : {"\"hash\": \"" + QXTest::Narrow(Reference(Sha256, content)) + "\"", std::string("\"error\": 2,")})
        EXPECT_NE(run.output.find(fragment), std::string::npos) << run.output;

    const std::wstring adler = Reference(Adler, content), set = L"Signature algorithm set to [Adler32].\n";
    const struct { SignatureAlgorithm before; std::wstring path; int result; std::wstring log; } cases[] = {
        {Sha256, path, 1, set},
        {Adler, path, 1, L"Signature hash strategy has already been initialised for [Adler32].\n"},
        {None, dir.File(L"missing"), 0, set},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.path));
        Reset(c.before);
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
}

// Without the slot every call fails and strategies use their own provider; a
// prepared thread lends its provider to the strategies made on it.
TEST(HashCache, SlotLifeCycleAndBorrowedProvider)
{
    auto hashHere = [] {
        std::wstring text;
        QXCommon::CHashStrategySha(Sha256).GenerateHash(reinterpret_cast<const BYTE*>("abc"), 3, text);
        return text;
    };
    const std::wstring abc = Reference(Sha256, "abc");
    QXTest::LogCapture log;
    for (const auto& [function, call, text] :
         {std::tuple{"UninitTLS", &HashStrategyShaCacheHelper::UninitTLS, L"TLS Index is not valid.\n"},
          {"CreateSharedContext", &HashStrategyShaCacheHelper::CreateSharedContext, L"InitTLS not called or failed.\n"},
          {"DestroySharedContext", &HashStrategyShaCacheHelper::DestroySharedContext, L"InitTLS not called or failed.\n"}})
    {
        EXPECT_EQ(call(), FALSE) << function;
        EXPECT_LOGGED(log, 1, CacheFn + function, text);
    }
    EXPECT_EQ(HashStrategyShaCacheHelper::GetSharedContext(), 0u);
    EXPECT_LOGGED(log, 1, CacheFn + "GetSharedContext", L"InitTLS not called or failed returning NULL.\n");
    EXPECT_EQ(hashHere(), abc);
    EXPECT_TRUE(log.HasFragment(L"Using Local CryptProv handle [")) << log.Dump();

    log.Clear();
    ASSERT_TRUE(HashStrategyShaCacheHelper::InitTLS());
    DWORD index = TLS_OUT_OF_INDEXES;
    for (const auto& entry : log.Entries())
        if (swscanf(entry.text.c_str(), L"Alloc TLS index = [%lu].", &index) == 1)
            break;
    ASSERT_NE(index, TLS_OUT_OF_INDEXES) << log.Dump();
    const std::wstring slot = L"[" + std::to_wstring(index) + L"]";
    std::optional<QXCommon::CHashStrategySha> copy, assigned(std::in_place, Sha256);
    ASSERT_TRUE(HashStrategyShaCacheHelper::InitTLS());
    EXPECT_LOGGED(log, 4, CacheFn + "InitTLS", L"Already created...\n");
    std::thread([&] {
        EXPECT_EQ(HashStrategyShaCacheHelper::GetSharedContext(), 0u);
        EXPECT_FALSE(HashStrategyShaCacheHelper::DestroySharedContext());
        EXPECT_LOGGED(log, 1, CacheFn + "DestroySharedContext", L"Error - TLS Get Value at index " + slot + L" returned NULL.\n");
        ASSERT_TRUE(HashStrategyShaCacheHelper::CreateSharedContext());
        const HCRYPTPROV provider = HashStrategyShaCacheHelper::GetSharedContext();
        wchar_t hex[24];
        swprintf(hex, 24, L"%llX", static_cast<unsigned long long>(provider));
        EXPECT_EQ(hashHere(), abc);
        EXPECT_LOGGED(log, 4, "QXCommon::CHashStrategySha::CHashStrategySha", L"Using Cached CryptProv handle [" + std::wstring(hex) + L"]..\n");
        {
            const QXCommon::CHashStrategySha borrower(Sha1);
            copy.emplace(borrower);
            *assigned = borrower;
        }
        HCRYPTHASH hash = 0; // the borrower left the provider working
        EXPECT_TRUE(CryptCreateHash(provider, CALG_SHA1, 0, 0, &hash));
        CryptDestroyHash(hash);
        EXPECT_TRUE(HashStrategyShaCacheHelper::DestroySharedContext());
        EXPECT_EQ(HashStrategyShaCacheHelper::GetSharedContext(), 0u);
    }).join();
    // Copies of a borrower hold a reference of their own: they hash on after
    // the lending thread released its provider and ended.
    for (QXCommon::CHashStrategySha* s : {&*copy, &*assigned})
    {
        std::wstring text;
        EXPECT_EQ(s->GenerateHash(reinterpret_cast<const BYTE*>("abc"), 3, text), 1);
        EXPECT_EQ(text, Reference(Sha1, "abc"));
    }
    EXPECT_TRUE(HashStrategyShaCacheHelper::UninitTLS());
    EXPECT_FALSE(HashStrategyShaCacheHelper::UninitTLS());
}

// Worker threads, each with its own provider, hash different files at once.
TEST(HashCache, WorkerThreadsHashDifferentFilesAtOnce)
{
    QXTest::TempDir dir;
    std::vector<std::wstring> paths, expected;
    for (int k = 0; k < 16; ++k)
    {
        const std::string bytes = RandomBytes(20000 + 1000 * k, 100 + k);
        paths.push_back(dir.Write(std::to_wstring(k), bytes));
        expected.push_back(Reference(Sha256, bytes));
    }
    Force(Sha256);
    ASSERT_TRUE(HashStrategyShaCacheHelper::InitTLS());
    std::vector<std::thread> threads;
    for (size_t t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            ASSERT_TRUE(HashStrategyShaCacheHelper::CreateSharedContext());
            for (size_t k = 0; k < 10 * paths.size(); ++k)
                EXPECT_EQ(QXCommonFunctions::GenerateFileHash(paths[(k + t) % paths.size()]), expected[(k + t) % paths.size()]);
            EXPECT_TRUE(HashStrategyShaCacheHelper::DestroySharedContext());
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_TRUE(HashStrategyShaCacheHelper::UninitTLS());
}
