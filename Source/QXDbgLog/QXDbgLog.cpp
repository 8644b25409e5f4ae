#include "QXDbgLog.h"

#include <cstdio>
#include <cwchar>
#include <string>

namespace
{
std::wstring WideFromNarrow(const char* text)
{
    std::wstring out;
    if (text == nullptr)
        return out;
    while (*text != '\0')
        out.push_back(static_cast<unsigned char>(*text++));
    return out;
}

std::wstring EnvValue(const wchar_t* name)
{
    wchar_t buffer[1024];
    DWORD n = GetEnvironmentVariableW(name, buffer, 1024);
    if (n == 0 || n >= 1024)
        return std::wstring();
    return std::wstring(buffer, n);
}
} // namespace

CQXDbgManager::CQXDbgManager()
    : m_fileOutput(0), m_debuggerOutput(0), m_file(INVALID_HANDLE_VALUE), m_sink(nullptr), m_sinkContext(nullptr)
{
    std::wstring file = EnvValue(L"QXDBGLOG_FILE");
    if (!file.empty())
        SetLogFile(file.c_str());
    std::wstring debugger = EnvValue(L"QXDBGLOG_DEBUGGER");
    if (!debugger.empty() && debugger != L"0")
        SetDebuggerOutput(true);
}

CQXDbgManager::~CQXDbgManager()
{
    SetLogFile(nullptr);
}

bool CQXDbgManager::SetLogFile(const wchar_t* path)
{
    CSynchronousMultiRead::CWriteLock guard(m_lock);
    if (m_file != INVALID_HANDLE_VALUE)
    {
        CloseHandle(m_file);
        m_file = INVALID_HANDLE_VALUE;
    }
    bool ok = true;
    if (path != nullptr && *path != L'\0')
    {
        m_file = CreateFileW(path, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                             FILE_ATTRIBUTE_NORMAL, nullptr);
        ok = m_file != INVALID_HANDLE_VALUE;
    }
    InterlockedExchange(&m_fileOutput, m_file != INVALID_HANDLE_VALUE ? 1 : 0);
    return ok;
}

void CQXDbgManager::SetDebuggerOutput(bool on)
{
    InterlockedExchange(&m_debuggerOutput, on ? 1 : 0);
}

QXDbgLogSink CQXDbgManager::SetSink(QXDbgLogSink sink, void* context, void** previousContext)
{
    CSynchronousMultiRead::CWriteLock guard(m_lock);
    QXDbgLogSink previous = m_sink;
    if (previousContext != nullptr)
        *previousContext = m_sinkContext;
    m_sink = sink;
    m_sinkContext = context;
    return previous;
}

void CQXDbgManager::Log(const char* file, int line, const char* function, int category, int level,
                        const wchar_t* message, void* /*reserved*/)
{
    if (!GetLogEnabled())
        return;
    QXDbgLogRecord record{file, line, function, category, level, message != nullptr ? message : L""};
    WriteLine(record);
}

void CQXDbgManager::WriteLine(const QXDbgLogRecord& record)
{
    // The last error belongs to the caller, whose failure path is usually
    // what is being logged.
    DWORD lastError = GetLastError();

    SYSTEMTIME now;
    GetLocalTime(&now);
    wchar_t prefix[160];
    _snwprintf(prefix, 160, L"%04u-%02u-%02u %02u:%02u:%02u.%03u [%lu:%lu] L%d ", now.wYear, now.wMonth, now.wDay,
               now.wHour, now.wMinute, now.wSecond, now.wMilliseconds, GetCurrentProcessId(), GetCurrentThreadId(),
               record.level);
    prefix[159] = L'\0';
    std::wstring line = prefix;
    line += WideFromNarrow(record.file);
    line += L'(';
    line += std::to_wstring(record.line);
    line += L") ";
    line += WideFromNarrow(record.function);
    line += L": ";
    line += record.message;
    if (line.empty() || line.back() != L'\n')
        line += L'\n';

    {
        CSynchronousMultiRead::CReadLock guard(m_lock);
        if (m_debuggerOutput != 0)
            OutputDebugStringW(line.c_str());
        if (m_fileOutput != 0 && m_file != INVALID_HANDLE_VALUE)
        {
            int bytes = WideCharToMultiByte(CP_UTF8, 0, line.data(), static_cast<int>(line.size()), nullptr, 0,
                                            nullptr, nullptr);
            if (bytes > 0)
            {
                std::string utf8(static_cast<size_t>(bytes), '\0');
                WideCharToMultiByte(CP_UTF8, 0, line.data(), static_cast<int>(line.size()), utf8.data(), bytes, nullptr,
                                    nullptr);
                DWORD written = 0;
                WriteFile(m_file, utf8.data(), static_cast<DWORD>(utf8.size()), &written, nullptr);
            }
        }
        if (m_sink != nullptr)
            m_sink(m_sinkContext, record);
    }

    SetLastError(lastError);
}

CQXDbgManager* GetDbgManager()
{
    static CQXDbgManager manager;
    return &manager;
}
