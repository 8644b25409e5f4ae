#pragma once
// What a run is asked about, in order: the PATHs given (a folder stands for
// the files directly in it, by name; with recursive, then for those of each
// folder below it, folder by folder), or the lines of a file given with
// --from ("-": standard input), read as the run goes, so that a run never
// holds more than one folder's listing per level and one line at a time.
//
// A line is text as rules files are (UTF-8, or UTF-16 with a byte-order
// mark); blank lines and lines starting with # are skipped; a line that
// cannot be taken (not text, a NUL, longer than 32,767 characters, the
// longest command line) is still an input, with its problem, so that every
// other line keeps its place.

#include "Inspect.h"

#include <atlbase.h>

#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace qxinspect
{
// The longest command line the system starts a program with.
constexpr size_t MaxLineChars = 32767;

struct Input
{
    size_t index = 0;     // 0, 1, 2... in input order
    unsigned line = 0;    // the line's number in --from's file (0 for a PATH)
    std::wstring text;    // the PATH or the line (trimmed)
    std::wstring problem; // not empty: why this input cannot be taken
};

class Inputs
{
public:
    // paths (a folder stands for its files) or from (a file's or standard
    // input's lines). False, with why, when --from's file cannot be opened.
    bool Open(const std::vector<std::wstring>& paths, const std::optional<std::wstring>& from, bool recursive,
              std::wstring& error);
    // The next input in order; false at the end. One thread at a time.
    bool Next(Input& input);
    // Whether the run answers many inputs (a folder, more than one PATH,
    // --from) rather than one PATH.
    bool Many() const { return m_many; }
    bool FromLines() const { return m_lines; }
    // Why reading the lines stopped before their end (empty when they ended).
    const std::wstring& ReadError() const { return m_readError; }

private:
    struct Pending
    {
        std::wstring path;
        bool list = false; // a folder whose files (and subfolders) come next
    };
    bool NextPath(Input& input);
    bool NextLine(Input& input);
    void List(const std::wstring& folder, Input& problem);
    bool Fill(); // reads more bytes; false at the end
    bool TakeLine(std::wstring& text, std::wstring& problem);

    bool m_many = false, m_lines = false, m_recursive = false;
    size_t m_count = 0;
    std::vector<std::wstring> m_paths;
    size_t m_nextPath = 0;
    std::deque<Pending> m_pending;
    // Lines: the handle, the bytes read and not yet taken, and the encoding.
    ATL::CHandle m_file;
    HANDLE m_handle = nullptr;
    std::string m_bytes;
    size_t m_at = 0;
    bool m_started = false, m_ended = false, m_utf16 = false, m_bigEndian = false;
    unsigned m_lineNumber = 0;
    std::wstring m_readError;
};
} // namespace qxinspect
