#include "QXCommon/ChecksumStrategyAdler32.h"

#include "QXLog.h"

#include <cpuid.h>
#include <immintrin.h>

#include <cstdint>
#include <cstdlib>
#include <string>

namespace QXCommon
{
namespace
{
constexpr uint32_t Modulus = 65521;
// The longest run of bytes after which b must be reduced to stay in 32 bits.
constexpr ULONGLONG ReduceEvery = 32768;

// The portable sums: the odd bytes one at a time, then eight per round, a
// kept below 2·65521 by one subtraction per round and b reduced whenever the
// remaining count is a multiple of 32768 (4096 rounds keep b in 32 bits).
void UpdateScalar(uint32_t& a, uint32_t& b, const BYTE* p, ULONGLONG length)
{
    ULONGLONG remaining = length;
    for (ULONGLONG head = length % 8; head != 0; --head, --remaining)
    {
        a += *p++;
        b += a;
    }
    b %= Modulus;
    if (a >= Modulus)
        a -= Modulus;
    while (remaining != 0)
    {
        a += p[0]; b += a;
        a += p[1]; b += a;
        a += p[2]; b += a;
        a += p[3]; b += a;
        a += p[4]; b += a;
        a += p[5]; b += a;
        a += p[6]; b += a;
        a += p[7]; b += a;
        p += 8;
        remaining -= 8;
        if (a >= Modulus)
            a -= Modulus;
        if (remaining % ReduceEvery == 0)
            b %= Modulus;
    }
}

// Vector sums over whole blocks of W bytes. For a run of n bytes x[0..n-1]
// from (a, b):  a' = a + Σx[i],  b' = b + n·a + Σ(n−i)·x[i].  Per block the
// byte sums go to s1 (SAD against zero), the weighted sums (weights W..1,
// through u8·s8 multiply-add) to s2, and s3 collects s1 as it stood before
// each block, so that Σ(n−i)·x[i] = s2 + W·s3. Runs are cut at 32768 bytes,
// which keeps every 32-bit lane from overflowing; the combination is done in
// 64 bits and reduced once per run.
template <size_t N>
uint64_t SumLanes(const uint32_t (&lanes)[N])
{
    uint64_t sum = 0;
    for (uint32_t v : lanes)
        sum += v;
    return sum;
}

// Adds one run's vector sums (lanes of s1, s2 and s3, blocks of width bytes) to (a, b).
template <size_t N>
void FoldRun(uint32_t& a, uint32_t& b, ULONGLONG run, ULONGLONG width, const uint32_t (&s1)[N],
             const uint32_t (&s2)[N], const uint32_t (&s3)[N])
{
    b = static_cast<uint32_t>((b + run * a + SumLanes(s2) + width * SumLanes(s3)) % Modulus);
    a = static_cast<uint32_t>((a + SumLanes(s1)) % Modulus);
}

__attribute__((target("avx2"))) void UpdateAvx2(uint32_t& a, uint32_t& b, const BYTE* p, ULONGLONG length)
{
    const __m256i zero = _mm256_setzero_si256();
    const __m256i ones = _mm256_set1_epi16(1);
    const __m256i weights = _mm256_setr_epi8(32, 31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18, 17, 16, 15,
                                             14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1);
    while (length != 0)
    {
        const ULONGLONG run = length < ReduceEvery ? length : ReduceEvery;
        length -= run;
        __m256i s1 = zero;
        __m256i s2 = zero;
        __m256i s3 = zero;
        for (ULONGLONG k = 0; k < run; k += 32, p += 32)
        {
            const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
            s3 = _mm256_add_epi32(s3, s1);
            s1 = _mm256_add_epi32(s1, _mm256_sad_epu8(v, zero));
            s2 = _mm256_add_epi32(s2, _mm256_madd_epi16(_mm256_maddubs_epi16(v, weights), ones));
        }
        alignas(32) uint32_t l1[8], l2[8], l3[8];
        _mm256_store_si256(reinterpret_cast<__m256i*>(l1), s1);
        _mm256_store_si256(reinterpret_cast<__m256i*>(l2), s2);
        _mm256_store_si256(reinterpret_cast<__m256i*>(l3), s3);
        FoldRun(a, b, run, 32, l1, l2, l3);
    }
}

__attribute__((target("ssse3"))) void UpdateSsse3(uint32_t& a, uint32_t& b, const BYTE* p, ULONGLONG length)
{
    const __m128i zero = _mm_setzero_si128();
    const __m128i ones = _mm_set1_epi16(1);
    const __m128i weights = _mm_setr_epi8(16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1);
    while (length != 0)
    {
        const ULONGLONG run = length < ReduceEvery ? length : ReduceEvery;
        length -= run;
        __m128i s1 = zero;
        __m128i s2 = zero;
        __m128i s3 = zero;
        for (ULONGLONG k = 0; k < run; k += 16, p += 16)
        {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
            s3 = _mm_add_epi32(s3, s1);
            s1 = _mm_add_epi32(s1, _mm_sad_epu8(v, zero));
            s2 = _mm_add_epi32(s2, _mm_madd_epi16(_mm_maddubs_epi16(v, weights), ones));
        }
        alignas(16) uint32_t l1[4], l2[4], l3[4];
        _mm_store_si128(reinterpret_cast<__m128i*>(l1), s1);
        _mm_store_si128(reinterpret_cast<__m128i*>(l2), s2);
        _mm_store_si128(reinterpret_cast<__m128i*>(l3), s3);
        FoldRun(a, b, run, 16, l1, l2, l3);
    }
}

struct VectorPath
{
    void (*update)(uint32_t&, uint32_t&, const BYTE*, ULONGLONG);
    ULONGLONG block; // bytes per vector step
    const wchar_t* name;
};

bool HasAvx2()
{
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx))
        return false;
    const bool osSavesYmm = (ecx & bit_OSXSAVE) != 0 && (ecx & bit_AVX) != 0;
    if (!osSavesYmm)
        return false;
    unsigned xcr0Low = 0, xcr0High = 0;
    __asm__("xgetbv" : "=a"(xcr0Low), "=d"(xcr0High) : "c"(0));
    if ((xcr0Low & 0x6) != 0x6) // XMM and YMM state enabled by the system
        return false;
    return __get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) && (ebx & bit_AVX2) != 0;
}

bool HasSsse3()
{
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    return __get_cpuid(1, &eax, &ebx, &ecx, &edx) && (ecx & bit_SSSE3) != 0;
}

// Chosen once per process from the processor's features. The environment
// variable QXCOMMON_SIMD caps the choice ("none", "ssse3"), so that every
// path can be run and compared on one machine.
VectorPath ChooseVectorPath()
{
    const char* cap = std::getenv("QXCOMMON_SIMD");
    const std::string limit = cap != nullptr ? cap : "";
    if (limit == "none")
        return {nullptr, 0, L"portable"};
    if (limit != "ssse3" && HasAvx2())
        return {&UpdateAvx2, 32, L"AVX2"};
    if (HasSsse3())
        return {&UpdateSsse3, 16, L"SSSE3"};
    return {nullptr, 0, L"portable"};
}

const VectorPath& Vector()
{
    static const VectorPath path = [] {
        const VectorPath chosen = ChooseVectorPath();
        QXLOG_INFO("QXCommon::CChecksumStrategyAdler32::Update", L"Adler-32 sums with [{}] instructions.\n",
                   chosen.name);
        return chosen;
    }();
    return path;
}
} // namespace

CChecksumStrategyAdler32::CChecksumStrategyAdler32() : m_sumA(1), m_sumB(0) {}

CChecksumStrategyAdler32::~CChecksumStrategyAdler32() = default;

void CChecksumStrategyAdler32::ResetHash()
{
    m_sumA = 1;
    m_sumB = 0;
}

bool CChecksumStrategyAdler32::Update(const BYTE* data, ULONGLONG length)
{
    uint32_t a = m_sumA;
    uint32_t b = m_sumB;
    if (data == nullptr)
        return length == 0 && a < Modulus && b < Modulus;

    // Below a few blocks the vector set-up does not pay.
    const VectorPath& vector = Vector();
    if (vector.update != nullptr && length >= 4 * vector.block && a < Modulus && b < Modulus)
    {
        const ULONGLONG bulk = length - length % vector.block;
        vector.update(a, b, data, bulk);
        data += bulk;
        length -= bulk;
    }
    UpdateScalar(a, b, data, length);

    if (a >= Modulus || b >= Modulus)
        return false;
    m_sumA = static_cast<WORD>(a);
    m_sumB = static_cast<WORD>(b);
    return true;
}

int CChecksumStrategyAdler32::GenerateHash(const BYTE* data, ULONGLONG length, std::wstring& hash)
{
    ResetHash();
    if (!Update(data, length))
    {
        QXLOG_ERROR("QXCommon::CChecksumStrategyAdler32::GenerateHash", L"No data for [{}] bytes.\n", length);
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    GetCurrentHashString(hash);
    return 1;
}

void CChecksumStrategyAdler32::GetCurrentHashString(std::wstring& hash) const
{
    static const wchar_t digits[] = L"0123456789ABCDEF";
    const uint32_t value = (static_cast<uint32_t>(m_sumB) << 16) | m_sumA;
    hash.assign(8, L'0');
    for (int k = 0; k < 8; ++k)
        hash[k] = digits[(value >> (28 - 4 * k)) & 0xF];
}
} // namespace QXCommon
