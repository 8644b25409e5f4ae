#include "Facts.h"

#include "QXCommon/CommandLineSplitter.h"
#include "QXCommon/EnvironmentEx.h"
#include "QXCommon/ExpandArgs.h"
#include "QXCommon/FilePathPatternMatcher.h"
#include "QXCommon/GlobWildcardString.h"
#include "QXCommon/HResult.h"
#include "QXCommon/LsaUtil.h"
#include "QXCommon/QXCommonFunctions.h"
#include "QXCommon/RegExHelpers.h"

#include <aclapi.h>
#include <sddl.h>
#include <wintrust.h>

#include <atlsecurity.h>

#include <cwchar>
#include <memory>

namespace qxinspect
{
std::wstring AccountOfSid(PSID sid)
{
    if (sid == nullptr || !IsValidSid(sid))
        return L"";
    ATL::CSid account(*static_cast<const SID*>(sid));
    const std::wstring name = account.AccountName();
    const std::wstring domain = account.Domain();
    return domain.empty() || name.empty() ? name : domain + L"\\" + name;
}

namespace
{
std::wstring SidOf(PSID sid)
{
    return sid != nullptr && IsValidSid(sid) ? ATL::CSid(*static_cast<const SID*>(sid)).Sid() : L"";
}

const struct
{
    MatchKind kind;
    const wchar_t* name;
} KindNames[] = {
    {MatchKind::Automatic, L"automatic"},  {MatchKind::Name, L"name"},
    {MatchKind::Path, L"path"},            {MatchKind::Wildcard, L"wildcard"},
    {MatchKind::Folder, L"folder"},        {MatchKind::Subfolders, L"subfolders"},
    {MatchKind::Regex, L"regex"},          {MatchKind::Glob, L"glob"},
    {MatchKind::Network, L"network"},      {MatchKind::HookExceptions, L"hook-exceptions"},
};
} // namespace

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
    default: return L"";
    }
}

std::wstring ResultText(HRESULT result)
{
    const std::wstring name = ResultName(result);
    return QXCommon::CHResult(result).ToString() + (name.empty() ? L"" : L" [" + name + L"]");
}

std::wstring UtcText(FILETIME time)
{
    SYSTEMTIME utc = {};
    if ((time.dwHighDateTime == 0 && time.dwLowDateTime == 0) || !FileTimeToSystemTime(&time, &utc))
        return std::wstring();
    wchar_t text[32];
    swprintf(text, 32, L"%04u-%02u-%02u %02u:%02u:%02u UTC", utc.wYear, utc.wMonth, utc.wDay, utc.wHour, utc.wMinute,
             utc.wSecond);
    return text;
}

std::wstring IsoTime(const FILETIME& time)
{
    SYSTEMTIME utc = {};
    if (!FileTimeToSystemTime(&time, &utc))
        return L"";
    const unsigned long long ticks = (static_cast<unsigned long long>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
    wchar_t text[40];
    std::swprintf(text, 40, L"%04u-%02u-%02uT%02u:%02u:%02u.%07lluZ", utc.wYear, utc.wMonth, utc.wDay, utc.wHour,
                  utc.wMinute, utc.wSecond, ticks % 10000000ULL);
    return text;
}

std::wstring TakeBstr(BSTR text)
{
    std::wstring value = text != nullptr ? std::wstring(text, SysStringLen(text)) : std::wstring();
    SysFreeString(text);
    return value;
}

std::wstring Win32Text(DWORD code)
{
    const std::wstring text = QXCommonFunctions::ErrorMessageFromCode(static_cast<int>(code));
    return std::to_wstring(code) + (text.empty() ? L"" : L" (" + text + L")");
}

Descriptor ReadDescriptor(const std::wstring& path)
{
    Descriptor result;
    PSID owner = nullptr, group = nullptr;
    PACL dacl = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    result.error = GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT,
                                         OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION |
                                             DACL_SECURITY_INFORMATION,
                                         &owner, &group, &dacl, nullptr, &descriptor);
    const LocalPtr<void> descriptorOwner(descriptor);
    if (result.error != ERROR_SUCCESS)
        return result;
    result.ownerSid = SidOf(owner);
    result.ownerName = AccountOfSid(owner);
    result.groupSid = SidOf(group);
    result.groupName = AccountOfSid(group);
    LPWSTR text = nullptr;
    if (ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION,
                                                             &text, nullptr))
    {
        const LocalPtr<wchar_t> textOwner(text);
        result.dacl = text;
    }
    return result;
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
        error = L"cannot open the tool's own token, error " + std::to_wstring(GetLastError());
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

bool ParseMatchKind(const std::wstring& name, MatchKind& kind)
{
    for (const auto& entry : KindNames)
        if (name == entry.name)
        {
            kind = entry.kind;
            return true;
        }
    return false;
}

const wchar_t* MatchKindName(MatchKind kind)
{
    for (const auto& entry : KindNames)
        if (entry.kind == kind)
            return entry.name;
    return L"?";
}

int MatchPath(MatchKind kind, const std::wstring& path, const std::wstring& pattern, int flag, std::wstring& error)
{
    using QXCommon::CFilePathPatternMatcher;
    switch (kind)
    {
    case MatchKind::Automatic:
    case MatchKind::Path: return CFilePathPatternMatcher::MatchAgainstPattern(path, pattern, flag);
    case MatchKind::Name: return CFilePathPatternMatcher::MatchAgainstJustFileName(path, pattern);
    case MatchKind::Wildcard: return CFilePathPatternMatcher::MatchAgainstWildCardPattern(path, pattern, flag);
    case MatchKind::Folder: return CFilePathPatternMatcher::MatchAgainstFolder(path, pattern, 0);
    case MatchKind::Subfolders: return CFilePathPatternMatcher::MatchAgainstFolder(path, pattern, 1);
    case MatchKind::Network: return CFilePathPatternMatcher::MatchAgainstNetworkResourcePattern(path, pattern, flag);
    case MatchKind::HookExceptions: return CFilePathPatternMatcher::MatchAgainstDriverHookExceptionList(path, pattern);
    case MatchKind::Regex:
    {
        int parseError = 0;
        if (!ValidateRegularExpression(pattern.c_str(), &parseError))
        {
            error = L"invalid regular expression, error " + std::to_wstring(parseError);
            return -1;
        }
        return CFilePathPatternMatcher::MatchAgainstRegularExpressionPattern(path, pattern);
    }
    case MatchKind::Glob:
    {
        QXCommon::RegExHelpers::GlobWildcardString glob;
        if (!glob.Parse(pattern))
        {
            error = L"the glob cannot be compiled (run with --log for the reason)";
            return -1;
        }
        return glob.Match(path) ? 1 : 0;
    }
    }
    return 0;
}
} // namespace qxinspect
