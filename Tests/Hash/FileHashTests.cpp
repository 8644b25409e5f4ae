// Digests of real files and memory blocks against BCrypt and zlib, the 8 MiB
// cap, the loader's failures and handle, copies, and leaks over many files.

#include "HashTestHelpers.h"
#include "QXTestSupport.h"

#include "QXCommon/ChecksumStrategyAdler32.h"
#include "QXCommon/DataLoader.h"
#include "QXCommon/HashStrategySha.h"
#include "QXCommon/HashStrategyShaCacheHelper.h"
#include "QXCommon/QXCommonFunctions.h"

#include <gtest/gtest.h>

#include <vector>

using namespace HashTest;
using QXCommon::HashStrategyShaCacheHelper;

TEST(FileHash, KnownAnswersAroundTheUpdateStepsAndTheCap)
{
    const size_t sizes[] = {0, 1, 7, 8, 9, 17, 32767, 32768, 32769, 65543, Cap - 1, Cap, Cap + 1, 20 * 1048576};
    const std::string content = RandomBytes(20 * 1048576);
    QXTest::TempDir dir;
    for (SignatureAlgorithm algorithm : {SignatureAlgorithmSHA1, SignatureAlgorithmSHA256, SignatureAlgorithmAdler32})
    {
        ForceAlgorithm(algorithm);
        for (size_t size : sizes)
        {
            SCOPED_TRACE(testing::Message() << "algorithm " << algorithm << ", size " << size);
            const std::wstring path = dir.Write(L"f" + std::to_wstring(size), content.substr(0, size));
            EXPECT_EQ(QXCommonFunctions::GenerateFileHash(path), Reference(algorithm, content.substr(0, std::min(size, Cap))));
        }
    }
    // The standard values of no data, in the library's letter case.
    EXPECT_EQ(QXCommonFunctions::GenerateFileHash(dir.File(L"f0")), L"00000001");
    ForceAlgorithm(SignatureAlgorithmSHA1);
    EXPECT_EQ(QXCommonFunctions::GenerateFileHash(dir.File(L"f0")), L"da39a3ee5e6b4b0d3255bfef95601890afd80709");

    QXTest::LogCapture log;
    QXCommon::CDataLoader loader;
    ASSERT_EQ(loader.LoadFile(dir.File(L"f20971520").c_str(), Cap, nullptr), 1);
    EXPECT_EQ(loader.GetNumBytes(), Cap);
    EXPECT_TRUE(log.Has(4, "QXCommon::CDataLoader::LoadFile",
                        L"Allocating [8388608] bytes. File Size [20971520] bytes. Max Bytes [8388608]\n"));
}

TEST(FileHash, FilesThatCannotBeReadGiveEmptyTextAndTheSystemError)
{
    QXTest::TempDir dir;
    const std::wstring locked = dir.Write(L"locked", "data");
    ATL::CHandle exclusive(CreateFileW(locked.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    const std::pair<std::wstring, DWORD> cases[] = {
        {dir.File(L"missing"), ERROR_FILE_NOT_FOUND},
        {dir.File(L"no\\such\\folder"), ERROR_PATH_NOT_FOUND},
        {dir.MakeDir(L"folder"), ERROR_ACCESS_DENIED},
        {locked, ERROR_SHARING_VIOLATION},
    };
    ForceAlgorithm(SignatureAlgorithmSHA256);
    for (const auto& [path, error] : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(path));
        QXTest::LogCapture log;
        EXPECT_EQ(QXCommonFunctions::GenerateFileHash(path), L"");
        EXPECT_EQ(GetLastError(), error);
        EXPECT_TRUE(log.Has(1, "QXCommon::CDataLoader::LoadFile", L"CreateFileW failed with error [" + std::to_wstring(error) + L"].\n"));
        EXPECT_TRUE(log.Has(1, "QXCommonFunctions::GenerateFileHash", L"Failed to load file data for [" + path + L"].\n"));
    }
    QXCommon::CDataLoader loader;
    EXPECT_EQ(loader.LoadFile(nullptr, 0, nullptr), 0);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(loader.LoadFile(nullptr, 0, reinterpret_cast<HANDLE>(0x1234)), 0); // not a handle: no size
}

TEST(FileHash, CallersHandleIsReadFromItsPositionAndLeftOpen)
{
    QXTest::TempDir dir;
    const size_t mib = 1048576;
    const std::string content = RandomBytes(2 * mib, 3);
    // A large block freed before is used again: what it held must not show.
    QXCommon::CDataLoader earlier;
    ASSERT_EQ(earlier.LoadFile(dir.Write(L"g", std::string(3 * mib, 'x')).c_str(), 0, nullptr), 1);
    earlier.Unload();

    ATL::CHandle file(CreateFileW(dir.Write(L"f", content).c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    QXCommon::CDataLoader loader;
    ASSERT_EQ(loader.LoadFile(L"ignored path", mib, file), 1);
    // The next load starts where this one stopped; the bytes the file no
    // longer holds there read as zeros, and the count is what was asked.
    ASSERT_EQ(loader.LoadFile(nullptr, 0, file), 1);
    ASSERT_EQ(loader.GetNumBytes(), 2 * mib);
    EXPECT_TRUE(std::string(reinterpret_cast<const char*>(loader.GetData()), 2 * mib) ==
                content.substr(mib) + std::string(mib, '\0'));

    QXCommon::CDataLoader copy(loader), emptyCopy(earlier);
    loader.Unload();
    EXPECT_TRUE(loader.GetData() == nullptr && loader.GetNumBytes() == 0 && emptyCopy.GetNumBytes() == 0);
    ASSERT_EQ(copy.GetNumBytes(), 2 * mib);
    EXPECT_TRUE(std::string(reinterpret_cast<const char*>(copy.GetData()), mib) == content.substr(mib));

    // A kept block too small for the next load is not used for it.
    QXCommon::CDataLoader holder, small, large;
    ASSERT_EQ(holder.LoadFile(dir.File(L"g").c_str(), 0, nullptr), 1); // holds the block kept so far
    ASSERT_EQ(small.LoadFile(dir.Write(L"h", std::string(mib + mib / 2, 'y')).c_str(), 0, nullptr), 1);
    small.Unload();
    ASSERT_EQ(large.LoadFile(dir.File(L"g").c_str(), 0, nullptr), 1);
    EXPECT_TRUE(std::string(reinterpret_cast<const char*>(large.GetData()), large.GetNumBytes()) == std::string(3 * mib, 'x'));
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
            ASSERT_EQ(text, ReferenceAdler32(p, n)) << "length " << n << " offset " << (n * 7) % 64;
        }
    // A process whose choice is capped tells its parent which path it ran.
    for (const auto& entry : log.Entries())
        if (entry.text.starts_with(L"Adler-32 sums with"))
            std::printf("%s", QXTest::Narrow(entry.text).c_str());
    EXPECT_EQ(strategy.GenerateHash(nullptr, 0, text), 1);
    EXPECT_EQ(text, L"00000001");
    EXPECT_EQ(strategy.GenerateHash(nullptr, 5, text), 0);
    EXPECT_EQ(text, L"00000001");
}

// The vector paths are chosen once per process: run the sweep again in
// processes whose choice is capped.
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

TEST(FileHash, ShaStrategiesHashAfreshAndSurviveCopies)
{
    const std::string data = RandomBytes(1000);
    const BYTE* p = reinterpret_cast<const BYTE*>(data.data());
    std::wstring text;
    for (SignatureAlgorithm algorithm : {SignatureAlgorithmSHA1, SignatureAlgorithmSHA256})
    {
        SCOPED_TRACE(testing::Message() << "algorithm " << algorithm);
        auto original = std::make_unique<QXCommon::CHashStrategySha>(algorithm);
        EXPECT_EQ(original->GetHashSize(), algorithm == SignatureAlgorithmSHA256 ? 32u : 20u);
        ASSERT_EQ(original->GenerateHash(p, 10, text), 1);
        ASSERT_EQ(original->GenerateHash(p, data.size(), text), 1);
        EXPECT_EQ(text, Reference(algorithm, data));

        QXCommon::CHashStrategySha copy(*original), assigned(static_cast<SignatureAlgorithm>(1 - algorithm));
        assigned = *original;
        original.reset(); // the copies keep the provider they share
        for (QXCommon::CHashStrategySha* s : {&copy, &assigned})
        {
            ASSERT_EQ(s->GenerateHash(p, 500, text), 1);
            EXPECT_EQ(text, Reference(algorithm, data.substr(0, 500)));
        }
        EXPECT_EQ(copy.GenerateHash(nullptr, 5, text), 0);
        EXPECT_EQ(text, Reference(algorithm, data.substr(0, 500)));
    }
    EXPECT_EQ(QXCommon::CHashStrategySha(static_cast<SignatureAlgorithm>(7)).GenerateHash(p, 10, text), 0);
}

// Every provider a private strategy acquires is released (one left behind
// holds a few hundred bytes of heap), and loaded data and files are freed.
// Private providers are slow to acquire under Wine: fewer files use them.
TEST(FileHash, ThousandsOfFilesLeaveHandlesAndHeapWhereTheyWere)
{
    QXTest::TempDir dir;
    std::vector<std::wstring> paths;
    for (int k = 0; k < 40; ++k)
        paths.push_back(dir.Write(L"f" + std::to_wstring(k), RandomBytes(4096 + k, k)));
    auto hashAll = [&](int rounds) {
        for (int r = 0; r < rounds; ++r)
            for (const auto& path : paths)
                ASSERT_FALSE(QXCommonFunctions::GenerateFileHash(path).empty());
    };
    const std::tuple<SignatureAlgorithm, bool, int> cases[] = {
        {SignatureAlgorithmSHA1, false, 3}, {SignatureAlgorithmSHA256, true, 50}, {SignatureAlgorithmAdler32, false, 50}};
    ASSERT_TRUE(HashStrategyShaCacheHelper::InitTLS());
    for (const auto& [algorithm, sharedProvider, rounds] : cases)
    {
        SCOPED_TRACE(testing::Message() << "algorithm " << algorithm);
        ForceAlgorithm(algorithm);
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
