// The per-thread provider on real threads: the slot's life cycle, borrowing
// on a prepared thread, a private provider elsewhere, and threads hashing
// different files at once through the pool-worker hook.

#include "HashTestHelpers.h"
#include "QXTestSupport.h"

#include "QXCommon/HashStrategySha.h"
#include "QXCommon/HashStrategyShaCacheHelper.h"
#include "QXCommon/QXCommonFunctions.h"

#include <gtest/gtest.h>

#include <thread>
#include <tuple>
#include <vector>

using namespace HashTest;
using QXCommon::HashStrategyShaCacheHelper;

namespace
{
const std::string Fn = "QXCommon::HashStrategyShaCacheHelper::";

std::wstring Hex(HCRYPTPROV value)
{
    wchar_t text[24];
    swprintf(text, 24, L"%llX", static_cast<unsigned long long>(value));
    return text;
}

// Hashes the bytes with a strategy made on the calling thread.
std::wstring HashHere(const std::string& bytes)
{
    QXCommon::CHashStrategySha strategy(SignatureAlgorithmSHA256);
    std::wstring text;
    strategy.GenerateHash(reinterpret_cast<const BYTE*>(bytes.data()), bytes.size(), text);
    return text;
}
} // namespace

TEST(HashCache, WithoutTheSlotEveryCallFailsAndStrategiesUseTheirOwnProvider)
{
    const std::tuple<const char*, BOOL (*)(), std::wstring> cases[] = {
        {"UninitTLS", &HashStrategyShaCacheHelper::UninitTLS, L"TLS Index is not valid.\n"},
        {"CreateSharedContext", &HashStrategyShaCacheHelper::CreateSharedContext, L"InitTLS not called or failed.\n"},
        {"DestroySharedContext", &HashStrategyShaCacheHelper::DestroySharedContext, L"InitTLS not called or failed.\n"},
    };
    QXTest::LogCapture log;
    for (const auto& [function, call, text] : cases)
    {
        EXPECT_EQ(call(), FALSE) << function;
        EXPECT_TRUE(log.Has(1, Fn + function, text)) << function;
    }
    EXPECT_EQ(HashStrategyShaCacheHelper::GetSharedContext(), 0u);
    EXPECT_TRUE(log.Has(1, Fn + "GetSharedContext", L"InitTLS not called or failed returning NULL.\n"));
    EXPECT_EQ(HashHere("abc"), Reference(SignatureAlgorithmSHA256, "abc"));
    EXPECT_TRUE(log.HasFragment(L"Using Local CryptProv handle ["));
}

TEST(HashCache, PreparedThreadLendsItsProviderUntilItReleasesIt)
{
    QXTest::LogCapture log;
    ASSERT_TRUE(HashStrategyShaCacheHelper::InitTLS());
    EXPECT_TRUE(log.Has(4, Fn + "InitTLS", L"Curent TLS index = [4294967295].\n"));
    DWORD index = TLS_OUT_OF_INDEXES;
    for (const auto& entry : log.Entries())
        if (swscanf(entry.text.c_str(), L"Alloc TLS index = [%lu].", &index) == 1)
            break;
    ASSERT_NE(index, TLS_OUT_OF_INDEXES) << log.Dump();
    const std::wstring slot = L"[" + std::to_wstring(index) + L"]";
    ASSERT_TRUE(HashStrategyShaCacheHelper::InitTLS());
    EXPECT_TRUE(log.Has(4, Fn + "InitTLS", L"Curent TLS index = " + slot + L".\n"));
    EXPECT_TRUE(log.Has(4, Fn + "InitTLS", L"Already created...\n"));

    std::thread worker([&] {
        EXPECT_EQ(HashStrategyShaCacheHelper::GetSharedContext(), 0u);
        EXPECT_TRUE(log.Has(4, Fn + "GetSharedContext", L"Successfully Returning value [0] from index " + slot + L".\n"));
        EXPECT_FALSE(HashStrategyShaCacheHelper::DestroySharedContext());
        EXPECT_TRUE(log.Has(1, Fn + "DestroySharedContext", L"Error - TLS Get Value at index " + slot + L" returned NULL.\n"));

        ASSERT_TRUE(HashStrategyShaCacheHelper::CreateSharedContext());
        const HCRYPTPROV provider = HashStrategyShaCacheHelper::GetSharedContext();
        ASSERT_NE(provider, 0u);
        EXPECT_TRUE(log.Has(4, Fn + "CreateSharedContext",
                            L"CryptAcquireContext handle = [" + Hex(provider) + L"] and recorded in TLS index " + slot + L" OK.\n"));
        log.Clear();
        EXPECT_EQ(HashHere("abc"), Reference(SignatureAlgorithmSHA256, "abc"));
        EXPECT_TRUE(log.Has(4, "QXCommon::CHashStrategySha::CHashStrategySha",
                            L"Using Cached CryptProv handle [" + Hex(provider) + L"]..\n"));
        QXCommon::CHashStrategySha(QXCommon::CHashStrategySha(SignatureAlgorithmSHA1)); // a borrower and its copy
        // The strategies that borrowed it left the provider working.
        HCRYPTHASH hash = 0;
        EXPECT_TRUE(CryptCreateHash(provider, CALG_SHA1, 0, 0, &hash));
        CryptDestroyHash(hash);

        EXPECT_TRUE(HashStrategyShaCacheHelper::DestroySharedContext());
        EXPECT_TRUE(log.Has(4, Fn + "DestroySharedContext", L"Successfully Released Context and Set TLS value to NULL.\n"));
        EXPECT_EQ(HashStrategyShaCacheHelper::GetSharedContext(), 0u);
    });
    worker.join();

    log.Clear();
    EXPECT_EQ(HashHere("abc"), Reference(SignatureAlgorithmSHA256, "abc"));
    EXPECT_TRUE(log.HasFragment(L"Using Local CryptProv handle [")) << log.Dump();
    EXPECT_TRUE(HashStrategyShaCacheHelper::UninitTLS());
    EXPECT_FALSE(HashStrategyShaCacheHelper::UninitTLS());
    EXPECT_EQ(HashStrategyShaCacheHelper::GetSharedContext(), 0u);
}

TEST(HashCache, WorkerThreadsHashDifferentFilesAtOnce)
{
    QXTest::TempDir dir;
    std::vector<std::wstring> paths;
    std::vector<std::wstring> expected;
    for (int k = 0; k < 16; ++k)
    {
        const std::string bytes = RandomBytes(20000 + 1000 * k, 100 + k);
        paths.push_back(dir.Write(L"f" + std::to_wstring(k), bytes));
        expected.push_back(Reference(SignatureAlgorithmSHA256, bytes));
    }
    ForceAlgorithm(SignatureAlgorithmSHA256);
    ASSERT_TRUE(HashStrategyShaCacheHelper::InitTLS());
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            ASSERT_TRUE(HashStrategyShaCacheHelper::CreateSharedContext());
            EXPECT_NE(HashStrategyShaCacheHelper::GetSharedContext(), 0u);
            for (int round = 0; round < 10; ++round)
                for (size_t k = t; k < paths.size() + t; ++k)
                    EXPECT_EQ(QXCommonFunctions::GenerateFileHash(paths[k % paths.size()]), expected[k % paths.size()]);
            EXPECT_TRUE(HashStrategyShaCacheHelper::DestroySharedContext());
            EXPECT_EQ(HashStrategyShaCacheHelper::GetSharedContext(), 0u);
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_TRUE(HashStrategyShaCacheHelper::UninitTLS());
}
