// Free functions: which Windows this is, processor architecture, WOW64 and
// its file-system redirection.

#include "QXCommon/OSVersionHelper.h"
#include "QXCommon/QXCommonFunctions.h"

#include "QXLog.h"

namespace QXCommonFunctions
{
namespace
{
using IsWow64ProcessFn = BOOL(WINAPI*)(HANDLE, PBOOL);
using EnableRedirectionFn = BOOLEAN(WINAPI*)(BOOLEAN);
using DisableRedirectionFn = BOOL(WINAPI*)(PVOID*);
using RevertRedirectionFn = BOOL(WINAPI*)(PVOID);

const wchar_t* const Kernel32Dll = L"kernel32.dll";

// Looks the export up in the already loaded module; null (logged when the
// module itself is missing) when it cannot be had. The library must load on
// systems that lack these exports, so they are never imported directly.
// IsWow64 names the module without its extension, the redirection trio with it.
template <typename Fn>
Fn KernelExport(const char* function, const wchar_t* moduleName, const char* exportName)
{
    HMODULE module = ::GetModuleHandleW(moduleName);
    if (module == nullptr)
    {
        QXLOG_ERROR(function, L"Failed to GetModuleHandle - error {}.\n", ::GetLastError());
        return nullptr;
    }
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(module, exportName)));
}

// Bits of GetCurrentOS, by version: workstation, server.
struct OSBits
{
    DWORD major;
    DWORD minor;
    DWORD workstation;
    DWORD server;
};
constexpr OSBits KnownVersions[] = {
    {6, 1, 0x10, 0x80},
    {6, 2, 0x20, 0x40},
    {6, 3, 0x100, 0x200},
    {10, 0, 0x400, 0x800},
};
} // namespace

DWORD GetCurrentOS()
{
    DWORD result = 0;
    for (const OSBits& version : KnownVersions)
    {
        if (QXCommon::COSVersionHelper::IsOSVersion(VER_EQUAL, version.major, version.minor))
        {
            result = QXCommon::COSVersionHelper::IsProductType(VER_EQUAL, VER_NT_WORKSTATION) ? version.workstation
                                                                                              : version.server;
            break;
        }
    }
    QXLOG_INFO("QXCommonFunctions::GetCurrentOS", L"Returning {}\n", result);
    return result;
}

bool Is64BitArchitecture()
{
    SYSTEM_INFO info = {};
    ::GetNativeSystemInfo(&info);
    return info.wProcessorArchitecture == PROCESSOR_ARCHITECTURE_IA64 ||
           info.wProcessorArchitecture == PROCESSOR_ARCHITECTURE_AMD64;
}

bool IsWow64(DWORD processId)
{
    auto isWow64Process = KernelExport<IsWow64ProcessFn>("QXCommonFunctions::IsWow64", L"kernel32", "IsWow64Process");
    if (isWow64Process == nullptr)
        return false;

    ATL::CHandle process(::OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, processId));
    if (process == nullptr)
        return false;
    BOOL wow64 = FALSE;
    if (!isWow64Process(process, &wow64))
        return false;
    return wow64 != FALSE;
}

BOOLEAN QXWow64EnableWow64FsRedirection(BOOLEAN enable)
{
    auto fn = KernelExport<EnableRedirectionFn>("QXCommonFunctions::QXWow64EnableWow64FsRedirection", Kernel32Dll,
                                                "Wow64EnableWow64FsRedirection");
    if (fn == nullptr)
        return FALSE;
    return fn(enable);
}

BOOL QXWow64DisableWow64FsRedirection(PVOID* oldValue)
{
    auto fn = KernelExport<DisableRedirectionFn>("QXCommonFunctions::QXWow64DisableWow64FsRedirection", Kernel32Dll,
                                                 "Wow64DisableWow64FsRedirection");
    if (fn == nullptr)
        return FALSE;
    if (oldValue == nullptr)
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    return fn(oldValue);
}

BOOL QXWow64RevertWow64FsRedirection(PVOID oldValue)
{
    auto fn = KernelExport<RevertRedirectionFn>("QXCommonFunctions::QXWow64RevertWow64FsRedirection", Kernel32Dll,
                                                "Wow64RevertWow64FsRedirection");
    if (fn == nullptr)
        return FALSE;
    return fn(oldValue);
}

bool IsWow64FSRedirectionEnabled()
{
    if (!IsWow64(::GetCurrentProcessId()))
        return false;
    bool enabled = true;
    PVOID oldValue = nullptr;
    if (QXWow64DisableWow64FsRedirection(&oldValue) && oldValue == reinterpret_cast<PVOID>(1))
        enabled = false;
    QXWow64RevertWow64FsRedirection(oldValue);
    return enabled;
}
} // namespace QXCommonFunctions
