#include "QXTestSupport.h"

#include "QXDbgLog.h"

#include <atlbase.h>

#include <atomic>
#include <stdexcept>

namespace QXTest
{
LogCapture::LogCapture()
{
    CQXDbgManager* manager = GetDbgManager();
    m_previousDebugger = manager->GetDebuggerOutput();
    m_previousSink = reinterpret_cast<void*>(manager->SetSink(&LogCapture::Sink, this, &m_previousContext));
    manager->SetDebuggerOutput(true);
}

LogCapture::~LogCapture()
{
    CQXDbgManager* manager = GetDbgManager();
    manager->SetDebuggerOutput(m_previousDebugger);
    manager->SetSink(reinterpret_cast<QXDbgLogSink>(m_previousSink), m_previousContext);
}

void LogCapture::Sink(void* context, const QXDbgLogRecord& record)
{
    auto* self = static_cast<LogCapture*>(context);
    LogEntry entry;
    entry.level = record.level;
    entry.file = record.file != nullptr ? record.file : "";
    entry.line = record.line;
    entry.function = record.function != nullptr ? record.function : "";
    entry.text = record.message != nullptr ? record.message : L"";
    std::lock_guard<std::mutex> guard(self->m_mutex);
    self->m_entries.push_back(std::move(entry));
}

std::vector<LogEntry> LogCapture::Entries() const
{
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_entries;
}

void LogCapture::Clear()
{
    std::lock_guard<std::mutex> guard(m_mutex);
    m_entries.clear();
}

size_t LogCapture::Count() const
{
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_entries.size();
}

bool LogCapture::Has(const std::wstring& text) const
{
    std::lock_guard<std::mutex> guard(m_mutex);
    for (const auto& e : m_entries)
        if (e.text == text)
            return true;
    return false;
}

bool LogCapture::Has(const std::string& function, const std::wstring& text) const
{
    std::lock_guard<std::mutex> guard(m_mutex);
    for (const auto& e : m_entries)
        if (e.function == function && e.text == text)
            return true;
    return false;
}

bool LogCapture::Has(int level, const std::string& function, const std::wstring& text) const
{
    std::lock_guard<std::mutex> guard(m_mutex);
    for (const auto& e : m_entries)
        if (e.level == level && e.function == function && e.text == text)
            return true;
    return false;
}

bool LogCapture::HasFragment(const std::wstring& fragment) const
{
    std::lock_guard<std::mutex> guard(m_mutex);
    for (const auto& e : m_entries)
        if (e.text.find(fragment) != std::wstring::npos)
            return true;
    return false;
}

std::string LogCapture::Dump() const
{
    std::lock_guard<std::mutex> guard(m_mutex);
    std::string out;
    for (const auto& e : m_entries)
        out += "  L" + std::to_string(e.level) + " " + e.file + "(" + std::to_string(e.line) + ") " + e.function +
               ": " + Narrow(e.text) + (e.text.empty() || e.text.back() != L'\n' ? "\n" : "");
    return out;
}

namespace
{
std::atomic<unsigned> g_counter{0};

void DeleteTree(const std::wstring& path)
{
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((path + L"\\*").c_str(), &data);
    if (find != INVALID_HANDLE_VALUE)
    {
        do
        {
            std::wstring name = data.cFileName;
            if (name == L"." || name == L"..")
                continue;
            std::wstring child = path + L"\\" + name;
            SetFileAttributesW(child.c_str(), FILE_ATTRIBUTE_NORMAL);
            if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                DeleteTree(child);
            else
                DeleteFileW(child.c_str());
        } while (FindNextFileW(find, &data));
        FindClose(find);
    }
    RemoveDirectoryW(path.c_str());
}
} // namespace

TempDir::TempDir()
{
    wchar_t temp[MAX_PATH + 1];
    DWORD n = GetTempPathW(MAX_PATH + 1, temp);
    if (n == 0 || n > MAX_PATH)
        throw std::runtime_error("GetTempPathW failed");
    std::wstring base(temp, n);
    if (!base.empty() && base.back() == L'\\')
        base.pop_back();
    for (;;)
    {
        m_path = base + L"\\qxtest-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++g_counter);
        if (CreateDirectoryW(m_path.c_str(), nullptr))
            break;
        if (GetLastError() != ERROR_ALREADY_EXISTS)
            throw std::runtime_error("CreateDirectoryW failed");
    }
}

TempDir::~TempDir()
{
    DeleteTree(m_path);
}

std::wstring TempDir::Write(const std::wstring& name, const std::string& bytes) const
{
    std::wstring path = File(name);
    HANDLE opened = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (opened == INVALID_HANDLE_VALUE)
        throw std::runtime_error("CreateFileW failed for " + Narrow(path));
    ATL::CHandle file(opened);
    DWORD written = 0;
    BOOL ok = bytes.empty() || WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    if (!ok)
        throw std::runtime_error("WriteFile failed for " + Narrow(path));
    return path;
}

std::wstring TempDir::MakeDir(const std::wstring& name) const
{
    std::wstring path = File(name);
    if (!CreateDirectoryW(path.c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS)
        throw std::runtime_error("CreateDirectoryW failed for " + Narrow(path));
    return path;
}

TestRegKey::TestRegKey(HKEY root, const std::wstring& parent) : m_root(root), m_key(nullptr)
{
    m_subKey = parent + L"\\" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++g_counter);
    LONG res = RegCreateKeyExW(root, m_subKey.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS, nullptr,
                               &m_key, nullptr);
    if (res != ERROR_SUCCESS)
        throw std::runtime_error("RegCreateKeyExW failed: " + std::to_string(res));
}

TestRegKey::~TestRegKey()
{
    if (m_key != nullptr)
        RegCloseKey(m_key);
    RegDeleteTreeW(m_root, m_subKey.c_str());
    RegDeleteKeyW(m_root, m_subKey.c_str());
}

void TestRegKey::SetRaw(const std::wstring& name, DWORD type, const void* data, DWORD bytes) const
{
    LONG res = RegSetValueExW(m_key, name.c_str(), 0, type, static_cast<const BYTE*>(data), bytes);
    if (res != ERROR_SUCCESS)
        throw std::runtime_error("RegSetValueExW failed: " + std::to_string(res));
}

void TestRegKey::SetString(const std::wstring& name, const std::wstring& value, DWORD type) const
{
    SetRaw(name, type, value.c_str(), static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

void TestRegKey::SetDword(const std::wstring& name, DWORD value) const
{
    SetRaw(name, REG_DWORD, &value, sizeof value);
}

void TestRegKey::CreateSubKey(const std::wstring& name) const
{
    HKEY key = nullptr;
    LONG res = RegCreateKeyExW(m_key, name.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS, nullptr,
                               &key, nullptr);
    if (res != ERROR_SUCCESS)
        throw std::runtime_error("RegCreateKeyExW failed: " + std::to_string(res));
    RegCloseKey(key);
}

std::wstring ModuleDir()
{
    wchar_t path[32768];
    DWORD n = GetModuleFileNameW(nullptr, path, 32768);
    std::wstring dir(path, n);
    size_t slash = dir.find_last_of(L"\\/");
    return slash == std::wstring::npos ? std::wstring(L".") : dir.substr(0, slash);
}

std::wstring HelperPath(const std::wstring& exeName)
{
    return ModuleDir() + L"\\" + exeName;
}

ProcessResult RunProcess(const std::wstring& commandLine, DWORD timeoutMs, HANDLE token)
{
    ProcessResult result;
    SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
    HANDLE readEnd = nullptr;
    HANDLE writeEnd = nullptr;
    if (!CreatePipe(&readEnd, &writeEnd, &sa, 0))
        return result;
    ATL::CHandle readPipe(readEnd);
    ATL::CHandle writePipe(writeEnd);
    SetHandleInformation(readPipe, HANDLE_FLAG_INHERIT, 0);

    STARTUPINFOW si{};
    si.cb = sizeof si;
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdOutput = writePipe;
    si.hStdError = writePipe;
    si.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    PROCESS_INFORMATION pi{};
    std::wstring mutableLine = commandLine;
    BOOL created = token != nullptr ? CreateProcessAsUserW(token, nullptr, mutableLine.data(), nullptr, nullptr, TRUE, 0,
                                                           nullptr, nullptr, &si, &pi)
                                    : CreateProcessW(nullptr, mutableLine.data(), nullptr, nullptr, TRUE, 0, nullptr,
                                                     nullptr, &si, &pi);
    // Only the child may hold the write end now, so that the reader sees the end of its output.
    writePipe.Close();
    if (!created)
        return result;
    ATL::CHandle process(pi.hProcess);
    ATL::CHandle mainThread(pi.hThread);
    result.started = true;

    // Read on a second thread so that a child writing much cannot block on a full pipe.
    struct Reader
    {
        HANDLE pipe;
        std::string data;
        static DWORD WINAPI Run(void* p)
        {
            auto* self = static_cast<Reader*>(p);
            char buffer[4096];
            DWORD got = 0;
            while (ReadFile(self->pipe, buffer, sizeof buffer, &got, nullptr) && got > 0)
                self->data.append(buffer, got);
            return 0;
        }
    } reader{readPipe, {}};
    ATL::CHandle thread(CreateThread(nullptr, 0, &Reader::Run, &reader, 0, nullptr));

    if (WaitForSingleObject(process, timeoutMs) == WAIT_TIMEOUT)
    {
        result.timedOut = true;
        TerminateProcess(process, 0xDEAD);
        WaitForSingleObject(process, 5000);
    }
    GetExitCodeProcess(process, &result.exitCode);
    if (thread != nullptr)
        WaitForSingleObject(thread, 10000);
    result.output = std::move(reader.data);
    return result;
}

uintptr_t NextHandleSlot()
{
    ATL::CHandle probe(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    return reinterpret_cast<uintptr_t>(static_cast<HANDLE>(probe));
}

std::string Narrow(const std::wstring& text)
{
    if (text.empty())
        return std::string();
    int n = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<size_t>(n), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), n, nullptr, nullptr);
    return out;
}

std::wstring Widen(const std::string& text)
{
    if (text.empty())
        return std::wstring();
    int n = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring out(static_cast<size_t>(n), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), n);
    return out;
}
} // namespace QXTest
