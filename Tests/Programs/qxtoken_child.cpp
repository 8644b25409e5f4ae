// A process for the identity tests: says "ready <pid>" and runs until its
// standard input is closed, so the test decides how long it lives.

#include <windows.h>

#include <cstdio>

int wmain()
{
    std::printf("ready %lu\n", static_cast<unsigned long>(GetCurrentProcessId()));
    std::fflush(stdout);
    char byte = 0;
    DWORD read = 0;
    ReadFile(GetStdHandle(STD_INPUT_HANDLE), &byte, 1, &read, nullptr);
    return 0;
}
