// A GoogleTest program that misbehaves on request, for the test of the test
// machinery: each case is chosen with --gtest_filter and shows one way a run
// can end. Only the Runner test starts it.

#include <windows.h>

#include <gtest/gtest.h>

#include <string>

namespace
{
// Starts a child process and waits for it: a program that has had a child
// is the case in which Wine's loader loses the status of a crash.
void RunChild()
{
    wchar_t self[MAX_PATH];
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring line = L"\"" + std::wstring(self) + L"\" --gtest_filter=Probe.Passes";
    STARTUPINFOW si{sizeof si};
    PROCESS_INFORMATION pi{};
    ASSERT_TRUE(CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi));
    WaitForSingleObject(pi.hProcess, INFINITE);
    CloseHandle(pi.hThread);
    CloseHandle(pi.hProcess);
}
} // namespace

TEST(Probe, Passes)
{
    SUCCEED();
}

TEST(Probe, Fails)
{
    ADD_FAILURE() << "planted failure";
}

TEST(Probe, CrashesAfterAChild)
{
    RunChild();
    volatile int* nowhere = nullptr;
    *nowhere = 1;
}

TEST(Probe, StopsBeforeItsSummary)
{
    RunChild();
    std::fflush(stdout);
    ExitProcess(0);
}
