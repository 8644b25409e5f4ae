#pragma once
// Shared by the environment suites: blocks and tables, the system's own
// environment for a token, a waiting child process, and a registry value that
// is put back as it was.

#include "QXCommon/EnvironmentEx.h"
#include "QXTestSupport.h"

#include <atlbase.h>

#include <algorithm>
#include <cwctype>
#include <map>
#include <string>
#include <vector>

// Expects the exact log line from CEnvironmentEx::<method> at the level.
#define EXPECT_ENV_LOG(capture, level, method, text)                                                                 \
    EXPECT_TRUE((capture).Has(level, "QXCommon::CEnvironmentEx::" method, text)) << (capture).Dump()

namespace EnvTest
{
inline std::wstring Lower(std::wstring text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](wchar_t c) { return static_cast<wchar_t>(towlower(c)); });
    return text;
}

// "a=1", "b=2" -> "a=1\0b=2\0" and two more terminating characters.
inline std::vector<wchar_t> Block(const std::vector<std::wstring>& entries)
{
    std::vector<wchar_t> block;
    for (const auto& entry : entries)
        block.insert(block.end(), entry.c_str(), entry.c_str() + entry.size() + 1);
    block.insert(block.end(), {L'\0', L'\0'});
    return block;
}

// The entries of a block as a map. A system block's nameless entries are
// skipped and its names lower-cased; a table's block is taken as it is.
inline std::map<std::wstring, std::wstring> ParseBlock(const wchar_t* block, bool systemBlock)
{
    std::map<std::wstring, std::wstring> result;
    for (const wchar_t* entry = block; *entry != L'\0'; entry += wcslen(entry) + 1)
    {
        std::wstring text(entry);
        size_t equals = text.find(L'=');
        if (!systemBlock)
            result[text.substr(0, equals)] = text.substr(equals + 1);
        else if (equals != std::wstring::npos && equals != 0)
            result[Lower(text.substr(0, equals))] = text.substr(equals + 1);
    }
    return result;
}

// The environment the system builds for the token, names lower-cased. The
// suites do not link userenv: its two functions are looked up.
inline std::map<std::wstring, std::wstring> SystemEnvironment(HANDLE token)
{
    using CreateFn = BOOL(WINAPI*)(void**, HANDLE, BOOL);
    using DestroyFn = BOOL(WINAPI*)(void*);
    HMODULE userenv = LoadLibraryW(L"userenv.dll");
    if (userenv == nullptr)
        return {};
    auto createBlock = reinterpret_cast<CreateFn>(reinterpret_cast<void*>(GetProcAddress(userenv, "CreateEnvironmentBlock")));
    auto destroyBlock =
        reinterpret_cast<DestroyFn>(reinterpret_cast<void*>(GetProcAddress(userenv, "DestroyEnvironmentBlock")));
    void* block = nullptr;
    if (createBlock == nullptr || destroyBlock == nullptr || !createBlock(&block, token, FALSE))
        return {};
    auto result = ParseBlock(static_cast<const wchar_t*>(block), true);
    destroyBlock(block);
    return result;
}

inline std::map<std::wstring, std::wstring> TableOf(const QXCommon::CEnvironmentEx& environment)
{
    return ParseBlock(environment.GetAsEnvironmentBlock().data(), false);
}

inline CHandle OwnToken()
{
    HANDLE token = nullptr;
    OpenProcessToken(GetCurrentProcess(), TOKEN_READ | TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_IMPERSONATE, &token);
    return CHandle(token);
}

// A child process (qxenv_child.exe) that lives until the object is destroyed.
class WaitingChild
{
public:
    WaitingChild()
    {
        SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
        HANDLE inRead = nullptr, inWrite = nullptr, outRead = nullptr, outWrite = nullptr;
        if (!CreatePipe(&inRead, &inWrite, &sa, 0))
            return;
        CHandle stdinRead(inRead);
        m_stdinWrite.Attach(inWrite);
        if (!CreatePipe(&outRead, &outWrite, &sa, 0))
            return;
        CHandle stdoutRead(outRead), stdoutWrite(outWrite);
        SetHandleInformation(inWrite, HANDLE_FLAG_INHERIT, 0);
        SetHandleInformation(outRead, HANDLE_FLAG_INHERIT, 0);
        STARTUPINFOW si{};
        si.cb = sizeof si;
        si.dwFlags = STARTF_USESTDHANDLES;
        si.hStdInput = inRead;
        si.hStdOutput = si.hStdError = outWrite;
        std::wstring commandLine = L"\"" + QXTest::HelperPath(L"qxenv_child.exe") + L"\"";
        PROCESS_INFORMATION pi{};
        if (!CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi))
            return;
        m_process.Attach(pi.hProcess);
        CloseHandle(pi.hThread);
        m_pid = pi.dwProcessId;
        stdoutWrite.Close();
        // Wait for "ready": by then the child runs and waits on its input.
        char buffer[64] = {};
        DWORD read = 0;
        m_ready = ReadFile(stdoutRead, buffer, sizeof buffer - 1, &read, nullptr) && strncmp(buffer, "ready", 5) == 0;
    }
    ~WaitingChild()
    {
        m_stdinWrite.Close();
        if (m_process != nullptr && WaitForSingleObject(m_process, 10000) != WAIT_OBJECT_0)
            TerminateProcess(m_process, 1);
    }
    WaitingChild(const WaitingChild&) = delete;
    WaitingChild& operator=(const WaitingChild&) = delete;

    bool Ready() const { return m_ready; }
    DWORD Pid() const { return m_pid; }

private:
    CHandle m_stdinWrite, m_process;
    DWORD m_pid = 0;
    bool m_ready = false;
};

// Remembers a registry value (and whether its key existed) and puts it back.
class SavedRegValue
{
public:
    SavedRegValue(HKEY root, std::wstring subKey, std::wstring name)
        : m_root(root), m_subKey(std::move(subKey)), m_name(std::move(name))
    {
        CRegKey key;
        m_keyExisted = key.Open(m_root, m_subKey.c_str(), KEY_READ) == ERROR_SUCCESS;
        if (!m_keyExisted)
            return;
        DWORD bytes = 0;
        if (RegQueryValueExW(key, m_name.c_str(), nullptr, &m_type, nullptr, &bytes) != ERROR_SUCCESS)
            return;
        m_data.resize(bytes);
        m_valueExisted = RegQueryValueExW(key, m_name.c_str(), nullptr, &m_type, m_data.data(), &bytes) == ERROR_SUCCESS;
    }
    ~SavedRegValue()
    {
        if (!m_keyExisted)
        {
            RegDeleteTreeW(m_root, m_subKey.c_str());
            return;
        }
        CRegKey key;
        if (key.Open(m_root, m_subKey.c_str(), KEY_READ | KEY_WRITE) != ERROR_SUCCESS)
            return;
        if (m_valueExisted)
            RegSetValueExW(key, m_name.c_str(), 0, m_type, m_data.data(), static_cast<DWORD>(m_data.size()));
        else
            RegDeleteValueW(key, m_name.c_str());
    }
    SavedRegValue(const SavedRegValue&) = delete;
    SavedRegValue& operator=(const SavedRegValue&) = delete;

    // Writes the value as REG_DWORD, REG_QWORD or (always "1") REG_SZ,
    // creating the key; type 0 removes the value.
    bool Set(DWORD type, DWORD value = 0) const
    {
        CRegKey key;
        if (key.Create(m_root, m_subKey.c_str()) != ERROR_SUCCESS)
            return false;
        if (type == 0)
        {
            LONG error = RegDeleteValueW(key, m_name.c_str());
            return error == ERROR_SUCCESS || error == ERROR_FILE_NOT_FOUND;
        }
        ULONGLONG wide = value;
        const void* data = type == REG_QWORD ? static_cast<const void*>(&wide)
                           : type == REG_SZ  ? static_cast<const void*>(L"1")
                                             : &value;
        DWORD bytes = type == REG_QWORD ? sizeof wide : 4;
        return RegSetValueExW(key, m_name.c_str(), 0, type, static_cast<const BYTE*>(data), bytes) == ERROR_SUCCESS;
    }

private:
    HKEY m_root;
    std::wstring m_subKey, m_name;
    bool m_keyExisted = false, m_valueExisted = false;
    DWORD m_type = 0;
    std::vector<BYTE> m_data;
};
} // namespace EnvTest
