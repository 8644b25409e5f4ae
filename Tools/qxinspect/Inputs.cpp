#include "Inputs.h"

#include "FileFacts.h"
#include "Platform.h"

#include <algorithm>

namespace qxinspect
{
namespace
{
constexpr DWORD ChunkBytes = 64 * 1024;
// A line of 32,767 UTF-16 code units takes at most 3 bytes a unit in UTF-8.
constexpr size_t MaxLineBytes = MaxLineChars * 3 + 4;

bool IsFolder(const std::wstring& path)
{
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool ByName(const std::wstring& a, const std::wstring& b)
{
    return _wcsicmp(a.c_str(), b.c_str()) < 0;
}
} // namespace

bool Inputs::Open(const std::vector<std::wstring>& paths, const std::optional<std::wstring>& from, bool recursive,
                  std::wstring& error)
{
    m_paths = paths;
    m_recursive = recursive;
    m_lines = from.has_value();
    m_many = m_lines || paths.size() > 1 || std::any_of(paths.begin(), paths.end(), IsFolder);
    if (!m_lines)
        return true;
    if (*from == L"-")
    {
        m_handle = GetStdHandle(STD_INPUT_HANDLE);
        return true;
    }
    // A file of lines is a regular disk file: a device or a pipe could keep
    // the run waiting on a peer.
    const FileStatus status = OpenRegularFile(*from, m_file);
    if (!status.Ok())
    {
        error = L"--from " + *from + L": " + status.reason;
        return false;
    }
    m_handle = m_file;
    return true;
}

bool Inputs::Next(Input& input)
{
    input = Input();
    input.index = m_count;
    const bool got = m_lines ? NextLine(input) : NextPath(input);
    if (got)
        ++m_count;
    return got;
}

bool Inputs::NextPath(Input& input)
{
    for (;;)
    {
        if (m_pending.empty())
        {
            if (m_nextPath == m_paths.size())
                return false;
            const std::wstring& path = m_paths[m_nextPath++];
            m_pending.push_back({path, IsFolder(path)});
        }
        Pending next = std::move(m_pending.front());
        m_pending.pop_front();
        if (!next.list)
        {
            input.text = std::move(next.path);
            return true;
        }
        List(next.path, input);
        if (!input.problem.empty())
            return true;
    }
}

// The folder's files by name go first, then (recursive) its subfolders by
// name, each with everything below it. Folders that are links (junctions,
// symbolic links) are not entered: a link can lead back up the tree.
void Inputs::List(const std::wstring& folder, Input& problem)
{
    const std::wstring prefix = folder.back() == L'\\' || folder.back() == L'/' ? folder : folder + L"\\";
    std::vector<std::wstring> files, folders;
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((prefix + L"*").c_str(), &data);
    if (find == INVALID_HANDLE_VALUE)
    {
        const DWORD error = GetLastError();
        if (error == ERROR_FILE_NOT_FOUND || error == ERROR_NO_MORE_FILES)
            return;
        problem.text = folder;
        problem.problem = L"the folder cannot be listed: " + Win32Text(error);
        return;
    }
    do
    {
        const std::wstring name = data.cFileName;
        if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
            files.push_back(prefix + name);
        else if (m_recursive && name != L"." && name != L".." &&
                 (data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0)
            folders.push_back(prefix + name);
    } while (FindNextFileW(find, &data));
    FindClose(find);
    std::sort(files.begin(), files.end(), ByName);
    std::sort(folders.begin(), folders.end(), ByName);
    for (auto it = folders.rbegin(); it != folders.rend(); ++it)
        m_pending.push_front({std::move(*it), true});
    for (auto it = files.rbegin(); it != files.rend(); ++it)
        m_pending.push_front({std::move(*it), false});
}

bool Inputs::Fill()
{
    if (m_ended)
        return false;
    m_bytes.erase(0, m_at);
    m_at = 0;
    const size_t had = m_bytes.size();
    m_bytes.resize(had + ChunkBytes);
    DWORD read = 0;
    const BOOL ok = ReadFile(m_handle, m_bytes.data() + had, ChunkBytes, &read, nullptr);
    const DWORD error = ok ? ERROR_SUCCESS : GetLastError();
    m_bytes.resize(had + read);
    if (!ok && error != ERROR_BROKEN_PIPE && error != ERROR_HANDLE_EOF)
        m_readError = Win32Text(error);
    m_ended = read == 0;
    return !m_ended;
}

// The next line's text (without its line feed), or false at the end.
bool Inputs::TakeLine(std::wstring& text, std::wstring& problem)
{
    // The encoding, from the first bytes: a byte-order mark, or UTF-8.
    while (!m_started)
    {
        const bool undecided = m_bytes.size() < 2 || (m_bytes.size() < 3 && m_bytes == std::string("\xEF\xBB", 2));
        if (undecided && Fill())
            continue;
        m_started = true;
        m_bigEndian = m_bytes.compare(0, 2, "\xFE\xFF") == 0;
        m_utf16 = m_bigEndian || m_bytes.compare(0, 2, "\xFF\xFE") == 0;
        m_at = m_utf16 ? 2 : m_bytes.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0;
    }
    const size_t unit = m_utf16 ? 2 : 1;
    bool tooLong = false;
    size_t scanned = 0; // bytes after m_at known to hold no line feed
    size_t end = std::string::npos;
    while (end == std::string::npos)
    {
        // A line feed at a unit boundary ends the line.
        for (size_t k = m_at + scanned; k + unit <= m_bytes.size() && end == std::string::npos; k += unit)
            if (unit == 1 ? m_bytes[k] == '\n'
                          : (m_bigEndian ? m_bytes[k] == 0 && m_bytes[k + 1] == '\n'
                                         : m_bytes[k] == '\n' && m_bytes[k + 1] == 0))
                end = k;
        if (end != std::string::npos)
            break;
        scanned = (m_bytes.size() - m_at) / unit * unit;
        // Bytes beyond any command line's length are dropped as they come.
        if (scanned > MaxLineBytes)
        {
            tooLong = true;
            m_bytes.erase(m_at, scanned);
            scanned = 0;
        }
        if (!Fill())
        {
            if (m_at >= m_bytes.size() && !tooLong)
                return false;
            end = m_bytes.size();
        }
    }
    const std::string raw = m_bytes.substr(m_at, end - m_at);
    m_at = std::min(end + unit, m_bytes.size());
    text.clear();
    if (tooLong)
    {
        problem = L"longer than 32,767 characters (the longest command line)";
        return true;
    }
    if (unit == 2)
    {
        if (raw.size() % 2 != 0)
            problem = L"not UTF-16 text: an odd number of bytes";
        for (size_t k = 0; k + 1 < raw.size(); k += 2)
        {
            const unsigned lo = static_cast<unsigned char>(raw[k + (m_bigEndian ? 1 : 0)]);
            const unsigned hi = static_cast<unsigned char>(raw[k + (m_bigEndian ? 0 : 1)]);
            text += static_cast<wchar_t>(lo | hi << 8);
        }
    }
    else if (!raw.empty())
    {
        const int chars = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, raw.data(), static_cast<int>(raw.size()),
                                              nullptr, 0);
        if (chars <= 0)
            problem = L"not UTF-8 text (nor UTF-16 with a byte-order mark)";
        else
        {
            text.resize(static_cast<size_t>(chars));
            MultiByteToWideChar(CP_UTF8, 0, raw.data(), static_cast<int>(raw.size()), text.data(), chars);
        }
    }
    if (problem.empty() && text.find(L'\0') != std::wstring::npos)
        problem = L"the line holds a NUL character";
    if (problem.empty() && text.size() > MaxLineChars)
        problem = L"longer than 32,767 characters (the longest command line)";
    if (!problem.empty())
        text.clear();
    return true;
}

bool Inputs::NextLine(Input& input)
{
    for (;;)
    {
        std::wstring text, problem;
        if (!TakeLine(text, problem))
            return false;
        ++m_lineNumber;
        text = Trimmed(text);
        if (problem.empty() && (text.empty() || text[0] == L'#'))
            continue;
        input.line = m_lineNumber;
        input.text = std::move(text);
        input.problem = std::move(problem);
        return true;
    }
}
} // namespace qxinspect
