// CEnvironmentEx: environment tables independent of the calling process,
// expansion (cached), expansion inside regular expressions, normalisation.

#include "QXCommon/EnvironmentEx.h"

#include "QXLog.h"

#include <atlbase.h>
#include <atlsecurity.h>
#include <userenv.h>

#include <algorithm>
#include <cassert>
#include <cwchar>
#include <cwctype>
#include <memory>
#include <set>
#include <string_view>

namespace QXCommon
{
namespace
{
// The variables whose values NormalisePaths turns back into %name% tokens.
const wchar_t* const NormalisationVariables[] = {L"systemroot",   L"systemdrive", L"programfiles",
                                                 L"programfiles(x86)", L"programdata", L"localappdata",
                                                 L"appdata",      L"userprofile", L"temp"};

const wchar_t* const PolicyTerminalServicesKey = L"Software\\Policies\\Microsoft\\Windows NT\\Terminal Services";
const wchar_t* const TerminalServerKey = L"System\\CurrentControlSet\\Control\\Terminal Server";

// The longest text ExpandEnvironmentStringsW can produce.
constexpr DWORD MaxExpandedChars = 32768;
constexpr int MaxExpandForUserAttempts = 10;

void LowerInPlace(std::wstring& text)
{
    for (wchar_t& c : text)
        c = static_cast<wchar_t>(towlower(c));
}

std::wstring Lower(std::wstring_view text)
{
    std::wstring result(text);
    LowerInPlace(result);
    return result;
}

// The name as stored: lower case, leading and trailing "%" removed.
std::wstring KeyFromName(std::wstring_view name)
{
    size_t first = name.find_first_not_of(L'%');
    if (first == std::wstring_view::npos)
        return std::wstring();
    size_t last = name.find_last_not_of(L'%');
    return Lower(name.substr(first, last - first + 1));
}

// Replaces every "%name%" in text (searched in lower, the lower-cased copy
// of text kept in step) by value. name is lower case. The search resumes
// after the inserted value. True when something was replaced.
bool ReplaceReference(std::wstring& text, std::wstring& lower, std::wstring_view name, const std::wstring& value)
{
    if (name.empty())
        return false;
    const size_t span = name.size() + 2;
    size_t pos = 0;
    size_t found = lower.find(name, 1);
    if (found == std::wstring::npos)
        return false;
    std::wstring out;
    std::wstring outLower;
    std::wstring valueLower;
    bool replaced = false;
    while (found != std::wstring::npos)
    {
        size_t start = found - 1;
        if (found >= 1 && start >= pos && lower[start] == L'%' && found + name.size() < lower.size() &&
            lower[found + name.size()] == L'%')
        {
            if (!replaced)
            {
                out.reserve(text.size() + value.size());
                outLower.reserve(text.size() + value.size());
                valueLower = Lower(value);
            }
            out.append(text, pos, start - pos);
            outLower.append(lower, pos, start - pos);
            out.append(value);
            outLower.append(valueLower);
            pos = start + span;
            replaced = true;
            found = lower.find(name, pos + 1);
        }
        else
        {
            found = lower.find(name, found + 1);
        }
    }
    if (!replaced)
        return false;
    out.append(text, pos, std::wstring::npos);
    outLower.append(lower, pos, std::wstring::npos);
    text.swap(out);
    lower.swap(outLower);
    return true;
}

// Escapes a value so that a regular expression matches it literally. "]" is
// left alone on purpose.
std::wstring EscapeForRegex(const std::wstring& value)
{
    std::wstring escaped;
    escaped.reserve(value.size() * 2);
    for (wchar_t c : value)
    {
        if (c == L'\\')
            escaped += L"\\\\";
        else
        {
            if (wcschr(L"*+()[.^-?{}$|!", c) != nullptr && c != L'\0')
                escaped += L'\\';
            escaped += c;
        }
    }
    return escaped;
}

struct EnvironmentBlockDeleter
{
    void operator()(void* block) const
    {
        if (block != nullptr && !DestroyEnvironmentBlock(block))
            QXLOG_ERROR("QXCommon::CEnvironmentEx::LoadFromTokenHandle",
                        L"Failed to DestroyEnvironmentBlock -  error {}\n", GetLastError());
    }
};
} // namespace

CEnvironmentEx::CEnvironmentEx(int accelerator) : m_accelerator(accelerator) {}

CEnvironmentEx::~CEnvironmentEx() = default;

int CEnvironmentEx::LoadFromProcess(DWORD processId)
{
    if (processId == 0)
        return 0;
    CHandle process(OpenProcess(PROCESS_QUERY_INFORMATION, TRUE, processId));
    if (process == nullptr)
    {
        QXLOG_ERROR("QXCommon::CEnvironmentEx::LoadFromProcess", L"Failed to open process -  error {}\n",
                    GetLastError());
        return 0;
    }
    CAccessToken token;
    if (!token.GetProcessToken(TOKEN_READ, process))
    {
        QXLOG_ERROR("QXCommon::CEnvironmentEx::LoadFromProcess", L"Failed to open process token -  error {}\n",
                    GetLastError());
        return 0;
    }
    DWORD sessionId = 0;
    if (!ProcessIdToSessionId(processId, &sessionId))
    {
        QXLOG_ERROR("QXCommon::CEnvironmentEx::LoadFromProcess", L"Failed to get process session id -  error {}\n",
                    GetLastError());
        return 0;
    }
    return LoadFromTokenHandle(token.GetHandle(), sessionId);
}

int CEnvironmentEx::LoadFromTokenHandle(HANDLE token, DWORD sessionId)
{
    void* rawBlock = nullptr;
    if (!CreateEnvironmentBlock(&rawBlock, token, FALSE))
    {
        QXLOG_ERROR("QXCommon::CEnvironmentEx::LoadFromTokenHandle",
                    L"Failed to CreateEnvironmentBlock - error {} - try with null token\n", GetLastError());
        rawBlock = nullptr;
        if (!CreateEnvironmentBlock(&rawBlock, nullptr, FALSE))
        {
            QXLOG_ERROR("QXCommon::CEnvironmentEx::LoadFromTokenHandle",
                        L"Failed to CreateEnvironmentBlock - error {}\n", GetLastError());
            return 0;
        }
    }
    std::unique_ptr<void, EnvironmentBlockDeleter> block(rawBlock);

    const bool perSessionTemp = IsPerSessionTempFolderEnabled() != 0;
    StoreBlockEntries(static_cast<const wchar_t*>(block.get()), perSessionTemp, sessionId);

    ResetAccellerator();
    LoadUserName(token);
    SetupNormalisationEnvVars();
    return 1;
}

int CEnvironmentEx::LoadFromEnvironmentBlock(const wchar_t* block)
{
    if (block == nullptr)
    {
        QXLOG_ERROR("QXCommon::CEnvironmentEx::LoadFromEnvironmentBlock", L"Environment block is null.\n");
        return 0;
    }
    StoreBlockEntries(block, false, 0);
    ResetAccellerator();
    SetupNormalisationEnvVars();
    return 1;
}

void CEnvironmentEx::StoreBlockEntries(const wchar_t* block, bool perSessionTemp, DWORD sessionId)
{
    // Names and values are prepared before the lock is taken: EnsureLongFileName
    // asks the file system, which must not hold up readers.
    std::vector<std::pair<std::wstring, std::wstring>> entries;
    for (const wchar_t* entry = block; *entry != L'\0'; entry += wcslen(entry) + 1)
    {
        std::wstring_view text(entry);
        size_t equals = text.find(L'=');
        if (equals == std::wstring_view::npos || equals == 0)
            continue;
        std::wstring name = Lower(text.substr(0, equals));
        std::wstring value(text.substr(equals + 1));
        EnsureLongFileName(value);
        if (perSessionTemp && sessionId != 0 && (name == L"temp" || name == L"tmp"))
            value += L"\\" + std::to_wstring(sessionId);
        entries.emplace_back(std::move(name), std::move(value));
    }
    CSynchronousMultiRead::CWriteLock lock(m_tableLock);
    for (auto& entry : entries)
        m_variables[entry.first] = std::move(entry.second);
}

int CEnvironmentEx::LoadUserName(HANDLE token)
{
    DWORD bytes = 0;
    GetTokenInformation(token, TokenUser, nullptr, 0, &bytes);
    if (bytes == 0)
    {
        QXLOG_ERROR("QXCommon::CEnvironmentEx::LoadUserName", L"LoadUserName failed [{}]\n", GetLastError());
        return 0;
    }
    std::vector<BYTE> buffer(bytes);
    if (!GetTokenInformation(token, TokenUser, buffer.data(), bytes, &bytes))
    {
        QXLOG_ERROR("QXCommon::CEnvironmentEx::LoadUserName", L"LoadUserName failed [{}]\n", GetLastError());
        return 0;
    }
    PSID sid = reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid;
    DWORD nameChars = 0;
    DWORD domainChars = 0;
    SID_NAME_USE use = SidTypeUnknown;
    LookupAccountSidW(nullptr, sid, nullptr, &nameChars, nullptr, &domainChars, &use);
    if (nameChars == 0)
    {
        QXLOG_ERROR("QXCommon::CEnvironmentEx::LoadUserName", L"LookupAccountSid failed [{}]\n", GetLastError());
        return 0;
    }
    std::vector<wchar_t> name(nameChars + 1);
    std::vector<wchar_t> domain(domainChars + 1);
    nameChars = static_cast<DWORD>(name.size());
    domainChars = static_cast<DWORD>(domain.size());
    if (!LookupAccountSidW(nullptr, sid, name.data(), &nameChars, domain.data(), &domainChars, &use))
    {
        QXLOG_ERROR("QXCommon::CEnvironmentEx::LoadUserName", L"LookupAccountSid failed [{}]\n", GetLastError());
        return 0;
    }
    std::wstring userName(name.data());
    QXLOG_INFO("QXCommon::CEnvironmentEx::LoadUserName", L"LoadUserName - Domain: [{}]. Name: [{}].\n",
               std::wstring(domain.data()), userName);
    CSynchronousMultiRead::CWriteLock lock(m_tableLock);
    m_userName = userName;
    m_variables[L"username"] = userName;
    return 1;
}

std::vector<wchar_t> CEnvironmentEx::GetAsEnvironmentBlock() const
{
    CSynchronousMultiRead::CReadLock lock(m_tableLock);
    std::vector<wchar_t> block;
    block.reserve(CharsRequiredForEnvironmentBlock());
    for (const auto& [name, value] : m_variables)
    {
        block.insert(block.end(), name.begin(), name.end());
        block.push_back(L'=');
        block.insert(block.end(), value.begin(), value.end());
        block.push_back(L'\0');
    }
    block.push_back(L'\0');
    return block;
}

DWORD CEnvironmentEx::CharsRequiredForEnvironmentBlock() const
{
    size_t chars = 1;
    for (const auto& [name, value] : m_variables)
        chars += name.size() + 1 + value.size() + 1;
    return static_cast<DWORD>(chars);
}

namespace
{
// True when the value can be a path holding a short (8.3) name: shorter than
// MAX_PATH, one path rather than a list, no character that a path cannot
// hold, and a "~" followed by a digit in one of its parts. Only such values
// are handed to GetLongPathNameW: other values gain nothing from it, and some
// platforms' conversion overruns its own buffers on long input.
bool CouldBeShortPath(const std::wstring& value)
{
    if (value.empty() || value.size() >= MAX_PATH)
        return false;
    bool shortName = false;
    for (size_t i = 0; i < value.size(); ++i)
    {
        const wchar_t c = value[i];
        if (c < 0x20 || std::wcschr(L"\"<>|;*?", c) != nullptr)
            return false;
        if (c == L'~' && i + 1 < value.size() && value[i + 1] >= L'0' && value[i + 1] <= L'9')
            shortName = true;
    }
    return shortName;
}
} // namespace

void CEnvironmentEx::EnsureLongFileName(std::wstring& value)
{
    if (value.find(L'~') == std::wstring::npos)
        return;
    QXLOG_INFO("QXCommon::CEnvironmentEx::EnsureLongFileName", L"Found environment variable path with a tilde: [{}].\n",
               value);
    if (!CouldBeShortPath(value))
        return;
    DWORD chars = GetLongPathNameW(value.c_str(), nullptr, 0);
    if (chars == 0)
        return;
    std::vector<wchar_t> buffer(chars + 1);
    DWORD written = GetLongPathNameW(value.c_str(), buffer.data(), static_cast<DWORD>(buffer.size()));
    if (written == 0 || written >= buffer.size())
        return;
    value.assign(buffer.data(), written);
    QXLOG_INFO("QXCommon::CEnvironmentEx::EnsureLongFileName", L"Converted to long [{}]\n", value);
}

int CEnvironmentEx::IsPerSessionTempFolderEnabled()
{
    LONG error = ERROR_SUCCESS;
    for (const wchar_t* keyName : {PolicyTerminalServicesKey, TerminalServerKey})
    {
        CRegKey key;
        error = key.Open(HKEY_LOCAL_MACHINE, keyName, KEY_READ);
        DWORD value = 0;
        if (error == ERROR_SUCCESS)
            error = key.QueryDWORDValue(L"PerSessionTempDir", value);
        if (error == ERROR_SUCCESS)
        {
            QXLOG_INFO("QXCommon::CEnvironmentEx::IsPerSessionTempFolderEnabled",
                       L"Got PerSessionTempValue from key {}. Value {}\n", keyName, value);
            return value != 0 ? 1 : 0;
        }
        QXLOG_ERROR("QXCommon::CEnvironmentEx::IsPerSessionTempFolderEnabled",
                    L"Failed to query the PerSessionTempDir value in {}. Error: {}\n", keyName, error);
    }
    QXLOG_ERROR("QXCommon::CEnvironmentEx::IsPerSessionTempFolderEnabled",
                L"Failed to query either PerSessionTempDir key. Error: {}\n", error);
    return 0;
}

void CEnvironmentEx::Debug() const
{
    {
        CSynchronousMultiRead::CReadLock lock(m_tableLock);
        for (const auto& [name, value] : m_variables)
            QXLOG_INFO("QXCommon::CEnvironmentEx::Debug", L"Environment [{}] = [{}]\n", name, value);
    }
    CSynchronousMultiRead::CReadLock lock(m_cacheLock);
    for (const auto& [input, expansion] : m_expansionCache)
        QXLOG_INFO("QXCommon::CEnvironmentEx::Debug", L"Accellerator [{}] = [{}]\n", input, expansion);
}

bool CEnvironmentEx::ExpandWithTable(std::wstring& text) const
{
    bool any = false;
    std::wstring lower = Lower(text);
    CSynchronousMultiRead::CReadLock lock(m_tableLock);
    while (!text.empty() && text.find(L'%') != std::wstring::npos)
    {
        bool replacedInPass = false;
        for (const auto& [name, value] : m_variables)
        {
            if (ReplaceReference(text, lower, name, value))
            {
                replacedInPass = true;
                if (text.empty() || text.find(L'%') == std::wstring::npos)
                    break;
            }
        }
        if (!replacedInPass)
            break;
        any = true;
    }
    return any;
}

int CEnvironmentEx::ExpandString(const wchar_t* input, std::wstring& output)
{
    if (input == nullptr || wcschr(input, L'%') == nullptr)
        return 0;
    std::wstring text(input);
    {
        // The flag is read under the cache lock: EnableAccellerator changes it there.
        CSynchronousMultiRead::CReadLock lock(m_cacheLock);
        if (m_accelerator == 1)
        {
            auto hit = m_expansionCache.find(text);
            if (hit != m_expansionCache.end())
            {
                output = hit->second;
                return 1;
            }
        }
    }
    std::wstring expansion = text;
    if (!ExpandWithTable(expansion))
        return 0;
    {
        CSynchronousMultiRead::CWriteLock lock(m_cacheLock);
        if (m_accelerator == 1)
            m_expansionCache.insert_or_assign(std::move(text), expansion);
    }
    output = std::move(expansion);
    return 1;
}

void CEnvironmentEx::ExpandString(std::wstring& text)
{
    if (text.find(L'%') == std::wstring::npos)
        return;
    std::wstring expansion;
    // The input may hold NULs; only the text before the first one counts, as
    // for the C-string overload.
    if (ExpandString(text.c_str(), expansion) == 1)
        text = std::move(expansion);
}

int CEnvironmentEx::ExpandRxString(const std::wstring& input, std::wstring& output)
{
    output = input;
    std::set<std::wstring> candidates;
    for (size_t open = input.find(L'%'); open != std::wstring::npos;)
    {
        size_t close = input.find(L'%', open + 1);
        if (close == std::wstring::npos)
            break;
        candidates.insert(input.substr(open, close - open + 1));
        open = input.find(L'%', close + 1);
    }
    // One lower-cased copy of the output, kept in step by ReplaceReference.
    std::wstring lower = Lower(output);
    bool replaced = false;
    for (const std::wstring& candidate : candidates)
    {
        std::wstring key = KeyFromName(candidate);
        if (key.empty())
            continue;
        // The value itself may refer to other variables: expand it through the
        // cache and table like any other text.
        std::wstring expanded;
        if (ExpandString(candidate.c_str(), expanded) != 1)
            continue;
        if (ReplaceReference(output, lower, key, EscapeForRegex(expanded)))
            replaced = true;
    }
    return replaced ? 1 : 0;
}

int CEnvironmentEx::ExpandVariable(std::wstring& subject, const std::wstring& name, const std::wstring& value) const
{
    std::wstring key = Lower(name);
    if (key.empty() || subject.find(L'%') == std::wstring::npos)
        return 0;
    std::wstring lower = Lower(subject);
    return ReplaceReference(subject, lower, key, value) ? 1 : 0;
}

int CEnvironmentEx::Lookup(const wchar_t* name, std::wstring& value) const
{
    if (name == nullptr)
        return 0;
    std::wstring key = KeyFromName(name);
    if (key.empty())
        return 0;
    CSynchronousMultiRead::CReadLock lock(m_tableLock);
    auto found = m_variables.find(key);
    if (found == m_variables.end())
        return 0;
    value = found->second;
    return 1;
}

int CEnvironmentEx::Add(const wchar_t* name, const wchar_t* value)
{
    if (name == nullptr || value == nullptr || *name == L'\0')
    {
        QXLOG_ERROR("QXCommon::CEnvironmentEx::Add", L"Invalid variable name or value.\n");
        return 0;
    }
    return Add(std::wstring(name), std::wstring(value));
}

int CEnvironmentEx::Add(const std::wstring& name, const std::wstring& value)
{
    if (name.empty())
    {
        QXLOG_ERROR("QXCommon::CEnvironmentEx::Add", L"Invalid variable name or value.\n");
        return 0;
    }
    std::wstring key = Lower(name);
    CSynchronousMultiRead::CWriteLock lock(m_tableLock);
    m_variables.insert_or_assign(std::move(key), value);
    return 1;
}

int CEnvironmentEx::Remove(const wchar_t* name)
{
    if (name == nullptr)
        return 0;
    return Remove(std::wstring(name));
}

int CEnvironmentEx::Remove(const std::wstring& name)
{
    if (name.empty())
        return 0;
    std::wstring key = Lower(name);
    CSynchronousMultiRead::CWriteLock lock(m_tableLock);
    return m_variables.erase(key) != 0 ? 1 : 0;
}

int CEnvironmentEx::CopyVariable(const CEnvironmentEx& other, const wchar_t* name)
{
    std::wstring value;
    if (other.Lookup(name, value) != 1)
        return 0;
    return Add(KeyFromName(name), value);
}

DWORD CEnvironmentEx::ExpandStringDirect(const std::wstring& originalString, std::wstring& expandedString)
{
    assert((&originalString != &expandedString));
    if (originalString.empty())
    {
        QXLOG_ERROR("QXCommon::CEnvironmentEx::ExpandStringDirect", L"Input String is empty.\n");
        return ERROR_INVALID_PARAMETER;
    }
    DWORD length = ExpandEnvironmentStringsW(originalString.c_str(), nullptr, 0);
    if (length == 0)
    {
        DWORD error = GetLastError();
        QXLOG_ERROR("QXCommon::CEnvironmentEx::ExpandStringDirect",
                    L"Unable to determine the output string length, error[{}].\n", error);
        return error != ERROR_SUCCESS ? error : ERROR_INVALID_DATA;
    }
    QXLOG_INFO("QXCommon::CEnvironmentEx::ExpandStringDirect", L"String length requires is [{}].\n", length);
    if (length > MaxExpandedChars)
    {
        QXLOG_ERROR("QXCommon::CEnvironmentEx::ExpandStringDirect",
                    L"Unable to determine the output string length returned buffer too long [{}].\n", length);
        return ERROR_BUFFER_OVERFLOW;
    }
    std::vector<wchar_t> buffer(length + 1);
    if (buffer.size() != length + 1)
    {
        QXLOG_ERROR("QXCommon::CEnvironmentEx::ExpandStringDirect", L"String buffer is invalid.\n");
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    QXLOG_INFO("QXCommon::CEnvironmentEx::ExpandStringDirect", L"Created string buffer OK, length [{}].\n", length);
    DWORD written = ExpandEnvironmentStringsW(originalString.c_str(), buffer.data(), length + 1);
    if (written == 0 || written > length + 1)
    {
        DWORD error = written == 0 ? GetLastError() : ERROR_INSUFFICIENT_BUFFER;
        QXLOG_ERROR("QXCommon::CEnvironmentEx::ExpandStringDirect", L"Error expanded environment string, [{}].\n",
                    error);
        return error != ERROR_SUCCESS ? error : ERROR_INVALID_DATA;
    }
    expandedString.assign(buffer.data());
    QXLOG_INFO("QXCommon::CEnvironmentEx::ExpandStringDirect", L"String Expanded, length [{}].\n",
               expandedString.size());
    return ERROR_SUCCESS;
}

DWORD CEnvironmentEx::ExpandStringDirectForUser(HANDLE token, const std::wstring& originalString,
                                                std::wstring& expandedString)
{
    if (originalString.empty())
    {
        QXLOG_ERROR("QXCommon::CEnvironmentEx::ExpandStringDirectForUser", L"Input String is empty.\n");
        return ERROR_INVALID_PARAMETER;
    }
    if (originalString.size() > MaxExpandedChars)
    {
        QXLOG_ERROR("QXCommon::CEnvironmentEx::ExpandStringDirectForUser", L"Input String is too long [{}].\n",
                    originalString.size());
        return ERROR_INVALID_PARAMETER;
    }
    DWORD chars = static_cast<DWORD>(originalString.size() * 2);
    for (int attempt = 0; attempt < MaxExpandForUserAttempts; ++attempt, chars *= 2)
    {
        std::vector<wchar_t> buffer(chars + 1, L'\0');
        DWORD error = ERROR_SUCCESS;
        if (ExpandEnvironmentStringsForUserW(token, originalString.c_str(), buffer.data(), chars))
        {
            // Some implementations report success with the text cut to fit the
            // buffer. A result that fills the buffer may have been cut, so it is
            // treated as a buffer that was too small.
            size_t length = wcsnlen(buffer.data(), chars);
            if (length + 1 < chars)
            {
                expandedString.assign(buffer.data(), length);
                return ERROR_SUCCESS;
            }
            error = ERROR_INSUFFICIENT_BUFFER;
        }
        else
            error = GetLastError();
        if (error != ERROR_INSUFFICIENT_BUFFER)
        {
            QXLOG_ERROR("QXCommon::CEnvironmentEx::ExpandStringDirectForUser",
                        L"Failed to ExpandEnvironmentStringsForUserW [{}].\n", error);
            return error != ERROR_SUCCESS ? error : ERROR_INVALID_DATA;
        }
    }
    QXLOG_ERROR("QXCommon::CEnvironmentEx::ExpandStringDirectForUser", L"Max attempts - failed to expand.\n");
    return ERROR_INSUFFICIENT_BUFFER;
}

bool CEnvironmentEx::OrderedEnvVarComparer(const NormalisationPair& first, const NormalisationPair& second)
{
    return first.first.size() > second.first.size();
}

void CEnvironmentEx::SetupNormalisationEnvVars()
{
    // Built from Lookup (table lock, read) and swapped in under the table
    // lock (write): the lock is not recursive.
    std::vector<NormalisationPair> list;
    for (const wchar_t* name : NormalisationVariables)
    {
        std::wstring value;
        if (Lookup(name, value) != 1)
            continue;
        QXLOG_INFO("QXCommon::CEnvironmentEx::SetupNormalisationEnvVars", L"Env Var [{}] -> [{}].\n", name, value);
        // The value is entered whole, trailing "\" included, so that the token
        // expands back to exactly the text it replaced. A value holding "%"
        // would be expanded further on the way back, so it is not entered.
        if (value.empty() || value.find(L'%') != std::wstring::npos)
            continue;
        list.emplace_back(Lower(value), L"%" + std::wstring(name) + L"%");
    }
    std::stable_sort(list.begin(), list.end(), &CEnvironmentEx::OrderedEnvVarComparer);
    CSynchronousMultiRead::CWriteLock lock(m_tableLock);
    m_normalisation.swap(list);
}

void CEnvironmentEx::NormalisePaths(std::wstring& path) const
{
    QXLOG_INFO("QXCommon::CEnvironmentEx::NormalisePaths", L"Input Path [{}].\n", path);
    LowerInPlace(path);
    // The path as pieces of text and the tokens put in so far: a value is
    // looked for in the text pieces only, never inside or across a token, so
    // that every token stands for exactly the text it replaced.
    struct Piece
    {
        std::wstring text;
        bool token;
    };
    std::vector<Piece> pieces{{path, false}};
    CSynchronousMultiRead::CReadLock lock(m_tableLock);
    for (const auto& [value, token] : m_normalisation)
    {
        QXLOG_INFO("QXCommon::CEnvironmentEx::NormalisePaths", L"Try Replacing [{}] with [{}] in [{}].\n", value,
                   token, path);
        // Every text piece is part of the path: a value the path lacks is in
        // none of them, and the pieces stay as they are.
        if (path.find(value) == std::wstring::npos)
            continue;
        std::vector<Piece> next;
        bool replaced = false;
        for (Piece& piece : pieces)
        {
            size_t found = piece.token ? std::wstring::npos : piece.text.find(value);
            if (found == std::wstring::npos)
            {
                next.push_back(std::move(piece));
                continue;
            }
            replaced = true;
            size_t pos = 0;
            while (found != std::wstring::npos)
            {
                if (found > pos)
                    next.push_back({piece.text.substr(pos, found - pos), false});
                next.push_back({token, true});
                pos = found + value.size();
                found = piece.text.find(value, pos);
            }
            if (pos < piece.text.size())
                next.push_back({piece.text.substr(pos), false});
        }
        pieces.swap(next);
        if (replaced)
        {
            path.clear();
            for (const Piece& piece : pieces)
                path += piece.text;
        }
    }
    QXLOG_INFO("QXCommon::CEnvironmentEx::NormalisePaths", L"Final Path [{}].\n", path);
}

void CEnvironmentEx::EnableAccellerator(int flag)
{
    CSynchronousMultiRead::CWriteLock lock(m_cacheLock);
    if (flag == m_accelerator)
        return;
    m_accelerator = flag;
    if (flag == 0)
        m_expansionCache.clear();
}

void CEnvironmentEx::ResetAccellerator()
{
    CSynchronousMultiRead::CWriteLock lock(m_cacheLock);
    m_expansionCache.clear();
}
} // namespace QXCommon
