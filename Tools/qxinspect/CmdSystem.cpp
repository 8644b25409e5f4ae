// os, error, guid, exe: what the system is, the texts of a result code, GUIDs,
// and whether files are NT executable images.

#include "Platform.h"

#include "QXCommon/Guid.h"
#include "QXCommon/HResult.h"
#include "QXCommon/QXCommonFunctions.h"

namespace qxinspect
{
namespace
{
const wchar_t* OSName(DWORD bits)
{
    switch (bits)
    {
    case 0x10: return L"Windows 7";
    case 0x80: return L"Windows Server 2008 R2";
    case 0x20: return L"Windows 8";
    case 0x40: return L"Windows Server 2012";
    case 0x100: return L"Windows 8.1";
    case 0x200: return L"Windows Server 2012 R2";
    case 0x400: return L"Windows 10 or later";
    case 0x800: return L"Windows Server 2016 or later";
    default: return L"other (not one of the versions told apart)";
    }
}

// The version the system reports without any compatibility adjustment.
bool RealVersion(OSVERSIONINFOEXW& info)
{
    using RtlGetVersionFn = LONG(WINAPI*)(OSVERSIONINFOEXW*);
    info = {};
    info.dwOSVersionInfoSize = sizeof(info);
    HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
    auto fn = ntdll != nullptr ? reinterpret_cast<RtlGetVersionFn>(
                                     reinterpret_cast<void*>(::GetProcAddress(ntdll, "RtlGetVersion")))
                               : nullptr;
    return fn != nullptr && fn(&info) == 0;
}

int RunOS(Context& context, const std::vector<std::wstring>& args)
{
    if (!args.empty())
        return Fail(ExitUsage, L"os takes no arguments" + SeeHelp(L"os"));
    const DWORD bits = QXCommonFunctions::GetCurrentOS();
    const bool arch64 = QXCommonFunctions::Is64BitArchitecture();
    const bool wow64 = QXCommonFunctions::IsWow64(::GetCurrentProcessId());
    const bool redirection = QXCommonFunctions::IsWow64FSRedirectionEnabled();
    OSVERSIONINFOEXW info;
    const bool haveVersion = RealVersion(info);
    std::wstring version = haveVersion ? std::to_wstring(info.dwMajorVersion) + L"." +
                                             std::to_wstring(info.dwMinorVersion) + L"." +
                                             std::to_wstring(info.dwBuildNumber)
                                       : std::wstring(L"unknown");
    std::wstring productType = !haveVersion ? L"unknown"
                               : info.wProductType == VER_NT_WORKSTATION ? L"workstation"
                               : info.wProductType == VER_NT_DOMAIN_CONTROLLER ? L"domain controller"
                                                                               : L"server";
    if (context.json)
    {
        OutJson(Json::MakeObject()
                    .Set(L"os", bits)
                    .Set(L"name", OSName(bits))
                    .Set(L"version", version)
                    .Set(L"productType", productType)
                    .Set(L"is64BitArchitecture", arch64)
                    .Set(L"isWow64", wow64)
                    .Set(L"fsRedirectionEnabled", redirection));
        return ExitOk;
    }
    Out(L"os:                     " + Hex32(bits) + L" (" + OSName(bits) + L")\n");
    Out(L"system version:         " + version + L" " + productType + L"\n");
    Out(L"64-bit architecture:    " + BoolText(arch64) + L"\n");
    Out(L"WOW64 process:          " + BoolText(wow64) + L"\n");
    Out(L"FS redirection enabled: " + BoolText(redirection) + L"\n");
    return ExitOk;
}

int RunError(Context& context, const std::vector<std::wstring>& args)
{
    if (args.size() != 1)
        return Fail(ExitUsage, L"error needs one CODE" + SeeHelp(L"error"));
    uint32_t code = 0;
    if (!ParseNumber32(args[0], code))
        return Fail(ExitUsage, L"not a 32-bit number: " + args[0]);
    const std::wstring hresultText = QXCommon::CHResult(static_cast<HRESULT>(code)).ToString();
    const std::wstring message = QXCommonFunctions::ErrorMessageFromCode(static_cast<int>(code));
    if (context.json)
    {
        // The code read both ways: as an HRESULT and as a Win32 code.
        Json document = Json::MakeObject().Set(L"code", static_cast<unsigned long>(code));
        SetHresult(document, L"result", static_cast<HRESULT>(code));
        OutJson(document.Set(L"errorText", message));
        return ExitOk;
    }
    Out(L"code:    " + std::to_wstring(code) + L" (" + Hex32(code) + L")\n");
    Out(L"hresult: " + hresultText + L"\n");
    Out(L"message: " + (message.empty() ? std::wstring(L"(none)") : message) + L"\n");
    return ExitOk;
}

int RunGuid(Context& context, const std::vector<std::wstring>& args)
{
    ArgParser parser({L"--canonicalize"}, {});
    std::wstring error;
    if (!parser.Parse(args, error))
        return Fail(ExitUsage, error);
    if (!parser.Positional().empty())
        return Fail(ExitUsage, L"guid takes no positional arguments" + SeeHelp(L"guid"));

    std::wstring text;
    if (auto input = parser.Value(L"--canonicalize"))
    {
        text = *input;
        QXCommon::CGuid::Canonicalize(text);
    }
    else
    {
        QXCommon::CGuid guid;
        if (!guid.CreateNew())
            return Fail(ExitFailed, L"no GUID could be made (run with --log for the reason)");
        text = guid.ToString();
        if (text.empty())
            return Fail(ExitFailed, L"the GUID could not be written as text (run with --log for the reason)");
    }
    if (context.json)
        OutJson(Json::MakeObject().Set(L"guid", text));
    else
        Out(text + L"\n");
    return ExitOk;
}

int RunExe(Context& context, const std::vector<std::wstring>& args)
{
    ArgParser parser({}, {});
    std::wstring error;
    if (!parser.Parse(args, error))
        return Fail(ExitUsage, error);
    if (parser.Positional().empty())
        return Fail(ExitUsage, L"exe needs at least one PATH" + SeeHelp(L"exe"));

    bool someNot = false;
    bool someFailed = false;
    Json results = Json::MakeArray();
    for (const std::wstring& path : parser.Positional())
    {
        BOOL isNTExe = FALSE;
        const DWORD result = QXCommonFunctions::TryCheckIsNTExe(path, isNTExe);
        const int restricted = QXCommonFunctions::IsNTExeOrAccessRestricted(path);
        const std::wstring errorText = result != 0 ? QXCommonFunctions::ErrorMessageFromCode(static_cast<int>(result))
                                                   : std::wstring();
        if (result != 0)
            someFailed = true;
        else if (!isNTExe)
            someNot = true;

        if (context.json)
        {
            Json entry = Json::MakeObject();
            entry.Set(L"path", path);
            entry.Set(L"isNTExe", result == 0 ? Json(isNTExe != FALSE) : Json(nullptr));
            entry.Set(L"ntExeOrAccessRestricted", restricted != 0);
            if (result != 0)
                SetWin32(entry, result);
            results.Push(entry);
            continue;
        }
        std::wstring line = path + L": ";
        if (result == 0)
            line += isNTExe ? L"NT image" : L"not an NT image";
        else
            line += L"check failed, error " + std::to_wstring(result) + (errorText.empty() ? L"" : L" (" + errorText + L")");
        line += L"; NT image or access-restricted: " + BoolText(restricted != 0) + L"\n";
        Out(line);
        if (result != 0)
            Err(L"qxinspect: " + path + L": error " + std::to_wstring(result) +
                (errorText.empty() ? L"" : L": " + errorText) + L"\n");
    }
    if (context.json)
        OutJson(Json::MakeObject().Set(L"files", results));
    return someFailed ? ExitFailed : someNot ? ExitNo : ExitOk;
}
} // namespace

QXINSPECT_COMMAND(L"os", L"os", L"which Windows this is, the architecture and the WOW64 state",
                  L"Prints GetCurrentOS's bit and the Windows it stands for (0x10 Windows 7,\n"
                  L"0x80 Server 2008 R2, 0x20 Windows 8, 0x40 Server 2012, 0x100 Windows 8.1,\n"
                  L"0x200 Server 2012 R2, 0x400 Windows 10+, 0x800 Server 2016+, 0 other), the\n"
                  L"version the system reports, whether the processor is 64-bit, whether this\n"
                  L"process runs under WOW64 and whether its file-system redirection is on.\n"
                  L"A program not declared compatible with Windows 8.1 and later is told 6.2 by\n"
                  L"the version checks, so the bit can read Windows 8 on later systems.\n"
                  L"Exit code: 0.\n",
                  &RunOS);
QXINSPECT_COMMAND(L"error", L"error CODE", L"the texts of a Win32 error or HRESULT",
                  L"CODE is decimal (negative allowed) or 0x-hexadecimal. Prints the code as a\n"
                  L"result (\"0x%08x text\") and the system's message for it with its line\n"
                  L"breaks removed (empty when the system has none). --json prints {command,\n"
                  L"code, result, resultText, resultName, errorText}.\n"
                  L"Exit codes: 0 done, 2 CODE is not a 32-bit number.\n",
                  &RunError);
QXINSPECT_COMMAND(L"guid", L"guid [--canonicalize TEXT]", L"a new GUID, or a text in GUID form",
                  L"Without options prints a new GUID in its braced upper-case form.\n"
                  L"  --canonicalize TEXT  upper-case TEXT and add the braces it lacks (an\n"
                  L"                       empty TEXT stays empty; nothing else is checked)\n"
                  L"Exit codes: 0 done, 3 no GUID could be made.\n",
                  &RunGuid);
QXINSPECT_COMMAND(L"exe", L"exe PATH...", L"whether files are NT executable images",
                  L"For each PATH prints whether its headers are those of an NT image (the\n"
                  L"check's result code and answer) and the agent's answer that also counts an\n"
                  L"existing file it may not read as an executable. A check that could not run\n"
                  L"prints the system error.\n"
                  L"Exit codes: 0 all are NT images, 1 some are not, 3 some check could not run.\n",
                  &RunExe);
} // namespace qxinspect
