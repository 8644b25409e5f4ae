// Prints what QXCommon reports about the running Windows, for the OS tests:
//   os=<GetCurrentOS()> major=<n> minor=<n> producttype=<n> arch64=<0|1> wow64=<0|1>
// The version numbers come from RtlGetVersion, which no compatibility layer
// adjusts, so the test can tell which version the system chose to report.

#include "QXCommon/QXCommonFunctions.h"

#include <cstdio>

int wmain(int, wchar_t**)
{
    OSVERSIONINFOEXW info = {sizeof(info)};
    auto rtlGetVersion = reinterpret_cast<LONG(WINAPI*)(OSVERSIONINFOEXW*)>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion")));
    if (rtlGetVersion == nullptr || rtlGetVersion(&info) != 0)
        return 3;
    std::printf("os=%lu major=%lu minor=%lu producttype=%u arch64=%d wow64=%d\n",
                static_cast<unsigned long>(QXCommonFunctions::GetCurrentOS()), info.dwMajorVersion,
                info.dwMinorVersion, static_cast<unsigned>(info.wProductType),
                QXCommonFunctions::Is64BitArchitecture() ? 1 : 0,
                QXCommonFunctions::IsWow64(::GetCurrentProcessId()) ? 1 : 0);
    return 0;
}
