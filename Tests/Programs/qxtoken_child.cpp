// A process for the token and process-identity tests: prints
// "ready <pid> <tid>" (its main thread's id) and waits until its standard
// input is closed, so the test decides how long it lives.

#include <windows.h>

#include <cstdio>

int wmain(int, wchar_t**)
{
    std::printf("ready %lu %lu\n", static_cast<unsigned long>(GetCurrentProcessId()),
                static_cast<unsigned long>(GetCurrentThreadId()));
    std::fflush(stdout);
    char byte = 0;
    DWORD read = 0;
    ReadFile(GetStdHandle(STD_INPUT_HANDLE), &byte, 1, &read, nullptr);
    return 0;
}
