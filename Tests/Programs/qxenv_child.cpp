// A process whose environment the environment tests load by process id: it
// prints "ready <pid>" and then waits until its standard input is closed (or
// a line arrives), so the test decides how long it lives.

#include <windows.h>

#include <cstdio>

int wmain(int, wchar_t**)
{
    std::printf("ready %lu\n", static_cast<unsigned long>(GetCurrentProcessId()));
    std::fflush(stdout);
    HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
    char byte = 0;
    DWORD read = 0;
    // Ends on a byte, on end of file, or on a broken pipe.
    ReadFile(input, &byte, 1, &read, nullptr);
    return 0;
}
