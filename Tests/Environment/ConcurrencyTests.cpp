// One table shared by several threads that expand, look up, add, remove,
// normalise and reset the cache at once: every answer must be one that some
// consistent state of the table gives, and nothing may hang.

#include "EnvTestHelpers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>

using QXCommon::CEnvironmentEx;

namespace
{
constexpr int Iterations = 3000;

struct Shared
{
    CEnvironmentEx env{1};
    std::atomic<int> bad{0};
    std::wstring firstBad;
    std::atomic_flag badRecorded = ATOMIC_FLAG_INIT;

    void Bad(const std::wstring& what)
    {
        if (!badRecorded.test_and_set())
            firstBad = what;
        ++bad;
    }
};

// Runs Step(shared, i) for every iteration on its own thread.
template <void (*Step)(Shared&, int)>
DWORD WINAPI Loop(void* context)
{
    for (int i = 0; i < Iterations; ++i)
        Step(*static_cast<Shared*>(context), i);
    return 0;
}

void Expand(Shared& shared, int i)
{
    std::wstring out;
    int expanded = shared.env.ExpandString(L"%SUB%\\%flip%\\x", out);
    if (expanded != 1 || (out != L"C:\\R\\S\\A\\x" && out != L"C:\\R\\S\\B\\x"))
        shared.Bad(L"expand: " + out);
    out.clear();
    const std::wstring spelling = i % 2 ? L"%gone%" : L"%GONE%";
    shared.env.ExpandString((spelling + L"|%root%").c_str(), out);
    // Unknown names stay as written.
    if (out != L"G|C:\\R" && out != spelling + L"|C:\\R")
        shared.Bad(L"gone: " + out);
    std::wstring inPlace = L"50% %root%";
    shared.env.ExpandString(inPlace);
    if (inPlace != L"50% C:\\R")
        shared.Bad(L"in place: " + inPlace);
    std::wstring rx;
    if (shared.env.ExpandRxString(L"%root%\\\\.*", rx) != 1 || rx != L"C:\\\\R\\\\.*")
        shared.Bad(L"rx: " + rx);
}

void Read(Shared& shared, int)
{
    std::wstring value;
    if (shared.env.Lookup(L"%FLIP%", value) != 1 || (value != L"A" && value != L"B"))
        shared.Bad(L"lookup: " + value);
    std::wstring path = L"C:\\R\\App\\X.EXE";
    shared.env.NormalisePaths(path);
    if (path != L"%systemroot%\\app\\x.exe")
        shared.Bad(L"normalise: " + path);
    auto block = shared.env.GetAsEnvironmentBlock();
    if (block.size() < 2 || block[block.size() - 1] != L'\0' || block[block.size() - 2] != L'\0')
        shared.Bad(L"block");
}

void Write(Shared& shared, int i)
{
    shared.env.Add(L"FLIP", i % 2 ? L"A" : L"B");
    if (i % 3 == 0)
        shared.env.Remove(L"gone");
    else
        shared.env.Add(std::wstring(L"Gone"), std::wstring(L"G"));
    if (i % 5 == 0)
        shared.env.ResetAccellerator();
    // The cache is switched off and on now and then, and left on at the end.
    if (i % 97 == 0 || i == Iterations - 1)
        shared.env.EnableAccellerator(i % 2 || i == Iterations - 1);
}
} // namespace

TEST(EnvironmentConcurrency, SharedTableStaysConsistent)
{
    Shared shared;
    auto block = EnvTest::Block({L"root=C:\\R", L"sub=%root%\\S", L"flip=A", L"SystemRoot=C:\\R"});
    ASSERT_EQ(shared.env.LoadFromEnvironmentBlock(block.data()), 1);

    LPTHREAD_START_ROUTINE routines[] = {Loop<Expand>, Loop<Expand>, Loop<Expand>, Loop<Read>, Loop<Read>,
                                         Loop<Write>, Loop<Write>};
    std::vector<HANDLE> threads;
    for (auto routine : routines)
    {
        HANDLE thread = CreateThread(nullptr, 0, routine, &shared, 0, nullptr);
        ASSERT_NE(thread, nullptr);
        threads.push_back(thread);
    }
    DWORD wait = WaitForMultipleObjects(static_cast<DWORD>(threads.size()), threads.data(), TRUE, 180000);
    if (wait == WAIT_TIMEOUT)
    {
        // A deadlock: the threads cannot be joined, so the run ends here.
        std::fprintf(stderr, "EnvironmentConcurrency: threads did not finish within 180 s (deadlock)\n");
        std::fflush(stderr);
        TerminateProcess(GetCurrentProcess(), 3);
    }
    for (HANDLE thread : threads)
        CloseHandle(thread);
    EXPECT_EQ(shared.bad.load(), 0) << QXTest::Narrow(shared.firstBad);
}
