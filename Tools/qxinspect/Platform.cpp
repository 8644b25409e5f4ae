#include "Platform.h"

#include "QXCommon/CommandLineSplitter.h"
#include "QXCommon/EnvironmentEx.h"
#include "QXCommon/ExpandArgs.h"
#include "QXCommon/HResult.h"
#include "QXCommon/LsaUtil.h"
#include "QXCommon/QXCommonFunctions.h"

#include <aclapi.h>
#include <sddl.h>
#include <wintrust.h>

#include <atlsecurity.h>

#include <algorithm>
#include <cwchar>
#include <cwctype>
#include <memory>

namespace qxinspect
{
const wchar_t* ResultName(HRESULT result)
{
    switch (result)
    {
    case S_OK: return L"S_OK";
    case TRUST_E_NOSIGNATURE: return L"TRUST_E_NOSIGNATURE";
    case TRUST_E_BAD_DIGEST: return L"TRUST_E_BAD_DIGEST";
    case TRUST_E_SUBJECT_FORM_UNKNOWN: return L"TRUST_E_SUBJECT_FORM_UNKNOWN";
    case TRUST_E_SYSTEM_ERROR: return L"TRUST_E_SYSTEM_ERROR";
    case TRUST_E_CERT_SIGNATURE: return L"TRUST_E_CERT_SIGNATURE";
    case TRUST_E_EXPLICIT_DISTRUST: return L"TRUST_E_EXPLICIT_DISTRUST";
    case CERT_E_EXPIRED: return L"CERT_E_EXPIRED";
    case CERT_E_UNTRUSTEDROOT: return L"CERT_E_UNTRUSTEDROOT";
    case CERT_E_CHAINING: return L"CERT_E_CHAINING";
    case CERT_E_REVOKED: return L"CERT_E_REVOKED";
    case CERT_E_WRONG_USAGE: return L"CERT_E_WRONG_USAGE";
    case CRYPT_E_NO_REVOCATION_CHECK: return L"CRYPT_E_NO_REVOCATION_CHECK";
    case CRYPT_E_REVOCATION_OFFLINE: return L"CRYPT_E_REVOCATION_OFFLINE";
    case CRYPT_E_NO_MATCH: return L"CRYPT_E_NO_MATCH";
    case CRYPT_E_NOT_FOUND: return L"CRYPT_E_NOT_FOUND";
    default: return L"";
    }
}

std::wstring ResultText(HRESULT result)
{
    const std::wstring name = ResultName(result);
    return QXCommon::CHResult(result).ToString() + (name.empty() ? L"" : L" [" + name + L"]");
}

std::wstring Win32Text(DWORD code)
{
    const std::wstring text = QXCommonFunctions::ErrorMessageFromCode(static_cast<int>(code));
    return std::to_wstring(code) + (text.empty() ? L"" : L" (" + text + L")");
}

bool IsBlank(wchar_t c)
{
    return c == L' ' || c == L'\t' || c == L'\r' || c == L'\v' || c == L'\f';
}

std::wstring Trimmed(const std::wstring& text)
{
    size_t begin = 0, end = text.size();
    while (begin < end && IsBlank(text[begin]))
        ++begin;
    while (end > begin && IsBlank(text[end - 1]))
        --end;
    return text.substr(begin, end - begin);
}

std::wstring IsoTime(const FILETIME& time, bool fraction)
{
    SYSTEMTIME utc = {};
    if ((time.dwHighDateTime == 0 && time.dwLowDateTime == 0) || !FileTimeToSystemTime(&time, &utc))
        return L"";
    const unsigned long long ticks = (static_cast<unsigned long long>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
    wchar_t text[40];
    if (fraction)
        std::swprintf(text, 40, L"%04u-%02u-%02uT%02u:%02u:%02u.%07lluZ", utc.wYear, utc.wMonth, utc.wDay, utc.wHour,
                      utc.wMinute, utc.wSecond, ticks % 10000000ULL);
    else
        std::swprintf(text, 40, L"%04u-%02u-%02uT%02u:%02u:%02uZ", utc.wYear, utc.wMonth, utc.wDay, utc.wHour,
                      utc.wMinute, utc.wSecond);
    return text;
}

std::wstring TakeBstr(BSTR text)
{
    std::wstring value = text != nullptr ? std::wstring(text, SysStringLen(text)) : std::wstring();
    SysFreeString(text);
    return value;
}

Json& SetWin32(Json& object, DWORD code)
{
    return object.Set(L"error", static_cast<unsigned long>(code))
        .Set(L"errorText", QXCommonFunctions::ErrorMessageFromCode(static_cast<int>(code)));
}

Json& SetHresult(Json& object, const std::wstring& key, HRESULT result)
{
    // CHResult's text is "0x%08x message": the code and the system's message.
    const std::wstring text = QXCommon::CHResult(result).ToString();
    const std::wstring name = ResultName(result);
    return object.Set(key, text.substr(0, 10))
        .Set(key + L"Text", text.size() > 11 ? text.substr(11) : std::wstring())
        .Set(key + L"Name", name.empty() ? Json() : Json(name));
}

std::wstring AccountName::Qualified() const
{
    return domain.empty() || name.empty() ? name : domain + L"\\" + name;
}

AccountName NameOf(PSID sid)
{
    AccountName account;
    if (sid == nullptr || !IsValidSid(sid))
        return account;
    ATL::CSid known(*static_cast<const SID*>(sid));
    account.sid = known.Sid();
    account.name = known.AccountName();
    account.domain = known.Domain();
    return account;
}

Json Account(const AccountName& account)
{
    return Json::MakeObject().Set(L"name", account.name).Set(L"domain", account.domain).Set(L"sid", account.sid);
}

namespace
{
constexpr SECURITY_INFORMATION OwnerGroupDacl =
    OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;

Descriptor Describe(DWORD error, PSID owner, PSID group, PSECURITY_DESCRIPTOR descriptor)
{
    const LocalPtr<void> descriptorOwner(descriptor);
    Descriptor result;
    result.error = error;
    if (error != ERROR_SUCCESS)
        return result;
    result.owner = NameOf(owner);
    result.group = NameOf(group);
    LPWSTR text = nullptr;
    if (ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION,
                                                             &text, nullptr))
    {
        const LocalPtr<wchar_t> textOwner(text);
        result.dacl = text;
    }
    return result;
}
} // namespace

Descriptor ReadDescriptor(const std::wstring& path)
{
    PSID owner = nullptr, group = nullptr;
    PACL dacl = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    const DWORD error = GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, OwnerGroupDacl, &owner, &group, &dacl,
                                              nullptr, &descriptor);
    return Describe(error, owner, group, descriptor);
}

DWORD ReadSecurity(HANDLE file, LocalPtr<void>& descriptor)
{
    descriptor.reset();
    // Backup semantics: a folder's handle opens again only with them.
    const HANDLE reopened = ReOpenFile(file, READ_CONTROL, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      FILE_FLAG_BACKUP_SEMANTICS);
    if (reopened == INVALID_HANDLE_VALUE)
        return GetLastError() != ERROR_SUCCESS ? GetLastError() : ERROR_INVALID_HANDLE;
    const ATL::CHandle control(reopened);
    PSECURITY_DESCRIPTOR read = nullptr;
    const DWORD error = GetSecurityInfo(control, SE_FILE_OBJECT, OwnerGroupDacl, nullptr, nullptr, nullptr, nullptr, &read);
    descriptor.reset(read);
    return error;
}

Descriptor ReadDescriptor(HANDLE file)
{
    LocalPtr<void> descriptor;
    const DWORD error = ReadSecurity(file, descriptor);
    PSID owner = nullptr, group = nullptr;
    BOOL defaulted = FALSE;
    if (error == ERROR_SUCCESS)
    {
        GetSecurityDescriptorOwner(descriptor.get(), &owner, &defaulted);
        GetSecurityDescriptorGroup(descriptor.get(), &group, &defaulted);
    }
    return Describe(error, owner, group, descriptor.release());
}

const wchar_t* ElevationTypeName(HANDLE token)
{
    DWORD length = 0;
    std::unique_ptr<BYTE[]> buffer(LsaUtil::GetTokenInformation(token, TokenElevationType, &length));
    if (!buffer || length < sizeof(TOKEN_ELEVATION_TYPE))
        return L"unknown";
    switch (*reinterpret_cast<const TOKEN_ELEVATION_TYPE*>(buffer.get()))
    {
    case TokenElevationTypeDefault: return L"default";
    case TokenElevationTypeFull: return L"full";
    case TokenElevationTypeLimited: return L"limited";
    default: return L"unknown";
    }
}

bool LoadTable(QXCommon::CEnvironmentEx& env, uint32_t pid, std::wstring& error)
{
    if (pid != 0)
    {
        if (env.LoadFromProcess(pid) != 1)
        {
            error = L"cannot load the environment of process " + std::to_wstring(pid) +
                    L" (run with --log for the reason)";
            return false;
        }
        return true;
    }
    ATL::CAccessToken token;
    if (!token.GetProcessToken(TOKEN_READ | TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_IMPERSONATE))
    {
        error = L"cannot open the tool's own token: " + Win32Text(GetLastError());
        return false;
    }
    DWORD session = 0;
    ProcessIdToSessionId(GetCurrentProcessId(), &session);
    if (env.LoadFromTokenHandle(token.GetHandle(), session) != 1)
    {
        error = L"cannot load the environment for the tool's own token (run with --log for the reason)";
        return false;
    }
    return true;
}

SplitLine SplitAndExpand(const std::wstring& cmdLine)
{
    SplitLine line;
    line.split = QXCommon::CommandLineSplitter::SplitCommandLine(cmdLine, line.module, line.arguments);
    if (line.split)
    {
        QXCommon::CExpandArgs expander;
        line.converted = expander.ConvertArgsToFullPath(line.arguments.c_str(), line.expanded) == 1;
    }
    return line;
}

bool EqualNoCase(const std::wstring& a, const std::wstring& b)
{
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](wchar_t x, wchar_t y) { return towlower(x) == towlower(y); });
}

bool OnWine()
{
    const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    return ntdll != nullptr && GetProcAddress(ntdll, "wine_get_version") != nullptr;
}
} // namespace qxinspect
