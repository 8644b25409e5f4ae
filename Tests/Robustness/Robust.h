#pragma once
// What the robustness suites share: a seeded generator of hostile text, and a
// runner that makes every call on a thread with the small stack of a hooked
// process and fails the test (naming the input) when one call hangs.

#include "QXTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>

namespace Robust
{
// The seed: QX_ROBUST_SEED when set (to explore), otherwise a fixed one.
inline unsigned Seed()
{
    const char* text = std::getenv("QX_ROBUST_SEED");
    return text != nullptr ? static_cast<unsigned>(std::strtoul(text, nullptr, 0)) : 0x5EED1u;
}

class Gen
{
public:
    explicit Gen(unsigned salt) : m_rng(Seed() ^ (salt * 0x9E3779B9u)) {}

    size_t Below(size_t n) { return n == 0 ? 0 : std::uniform_int_distribution<size_t>(0, n - 1)(m_rng); }
    bool Chance(unsigned percent) { return Below(100) < percent; }
    template <size_t N>
    const wchar_t* Pick(const wchar_t* const (&items)[N]) { return items[Below(N)]; }
    wchar_t PickChar(const std::wstring& chars) { return chars[Below(chars.size())]; }

    // A character weighted toward what path, rule and command-line parsers
    // treat specially, non-ASCII look-alikes of ASCII metacharacters, and
    // lone surrogates.
    wchar_t Hostile()
    {
        static const std::wstring special = L"\\/:*?%\",; \t.~=$^|()[]{}+!-";
        static const std::wstring foreign = L"\xFF08\xFF09\xFF0A\xFF3C\xFF5C\x2217\xFF0E\xFF1F\xFF3B\xFF3D\xFF5B"
                                            L"\xFF5D\xFF0B\xFF04\xFF3E\x00E9\x00C9\x4E2D\x3000\x00A0\xD800\xDC00";
        switch (Below(4))
        {
        case 0:
            return PickChar(special);
        case 1:
            return PickChar(foreign);
        default:
            return static_cast<wchar_t>(L'a' + Below(4) + (Chance(20) ? L'A' - L'a' : 0));
        }
    }
    std::wstring HostileText(size_t maxLength)
    {
        std::wstring text;
        for (size_t n = Below(maxLength + 1); n > 0; --n)
            text.push_back(Hostile());
        return text;
    }

private:
    std::mt19937 m_rng;
};

// Runs count inputs, input(i) each, on one thread with a 256 KiB stack. A
// call that has not returned after hangMs fails the test with the label of
// its input; a crash ends the suite, which fails it too.
inline void OnSmallStack(size_t count, const std::function<void(size_t)>& input,
                         const std::function<std::string(size_t)>& label, DWORD hangMs = 10000)
{
    struct Job
    {
        size_t count;
        const std::function<void(size_t)>* input;
        std::atomic<size_t> current{0};
        std::atomic<bool> done{false};
    } job{count, &input};
    auto body = [](void* parameter) -> DWORD {
        Job* j = static_cast<Job*>(parameter);
        for (size_t i = 0; i < j->count; ++i)
        {
            j->current = i;
            (*j->input)(i);
        }
        j->done = true;
        return 0;
    };
    HANDLE thread =
        CreateThread(nullptr, 256 * 1024, body, &job, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    ASSERT_NE(thread, nullptr);
    size_t seen = SIZE_MAX;
    DWORD still = 0;
    while (WaitForSingleObject(thread, 100) == WAIT_TIMEOUT)
    {
        size_t now = job.current;
        still = now == seen ? still + 100 : 0;
        seen = now;
        if (still >= hangMs)
        {
            // The thread is left behind: the process ends with the suite.
            FAIL() << "call did not return within " << hangMs << " ms: " << label(now) << " (seed " << Seed() << ")";
        }
    }
    CloseHandle(thread);
    EXPECT_TRUE(job.done) << "the worker thread ended early at " << label(job.current);
}
} // namespace Robust
