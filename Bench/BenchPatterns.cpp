// Rule matching of paths: the wildcard walk against the shell's
// PathMatchSpecW on a corpus built from the prefix's own C:\windows tree, a
// rule set of 1,000 mixed rules per path (ours through MatchAgainstPattern,
// the peer the same patterns through PathMatchSpecW), and a regular-expression
// rule on the bounded engine against the standard library's default search.
//
// PathMatchSpecW lets * span separators and treats ';' as a list separator,
// so the two sides do not agree on every pair; the notes give the number of
// matches of each side.

#include "Bench.h"

#include "QXCommon/FilePathPatternMatcher.h"
#include "QXCommon/QXRegEx.h"

#include <shlwapi.h>

#include <memory>
#include <random>
#include <regex>
#include <string>
#include <utility>
#include <vector>

namespace
{
using QXCommon::CFilePathPatternMatcher;

// Full paths of files under the folder, depth first, up to limit.
void CollectFiles(const std::wstring& folder, std::vector<std::wstring>& files, size_t limit, int depth = 0)
{
    if (files.size() >= limit || depth > 8)
        return;
    WIN32_FIND_DATAW data;
    HANDLE handle = FindFirstFileW((folder + L"\\*").c_str(), &data);
    if (handle == INVALID_HANDLE_VALUE)
        return;
    std::unique_ptr<void, decltype(&FindClose)> find(handle, &FindClose);
    std::vector<std::wstring> subfolders;
    do
    {
        std::wstring name = data.cFileName;
        if (name == L"." || name == L"..")
            continue;
        if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
            subfolders.push_back(folder + L"\\" + name);
        else if (files.size() < limit)
            files.push_back(folder + L"\\" + name);
    } while (FindNextFileW(find.get(), &data));
    find.reset();
    for (const std::wstring& sub : subfolders)
        CollectFiles(sub, files, limit, depth + 1);
}

struct Corpus
{
    std::vector<std::wstring> files;
    std::vector<std::pair<std::wstring, std::wstring>> pairs; // (path or name, pattern)
};

std::wstring NameOf(const std::wstring& path) { return path.substr(path.find_last_of(L'\\') + 1); }
std::wstring FolderOf(const std::wstring& path) { return path.substr(0, path.find_last_of(L'\\')); }

// Wildcards in the name and in the folders, full names, and non-matching
// patterns taken from other files.
const Corpus& GetCorpus()
{
    static Corpus corpus = [] {
        Corpus c;
        wchar_t windows[MAX_PATH] = L"C:\\windows";
        GetWindowsDirectoryW(windows, MAX_PATH);
        CollectFiles(windows, c.files, 4000);
        std::mt19937 random(7);
        for (size_t i = 0; i < c.files.size(); ++i)
        {
            const std::wstring& path = c.files[i];
            std::wstring name = NameOf(path);
            std::wstring folder = FolderOf(path);
            size_t dot = name.find_last_of(L'.');
            std::wstring extension = dot == std::wstring::npos ? L"" : name.substr(dot);
            // 1: wildcard in the name.
            c.pairs.emplace_back(path, folder + L"\\*" + extension);
            // 2: wildcard for the innermost folder.
            size_t cut = folder.find_last_of(L'\\');
            if (cut != std::wstring::npos)
                c.pairs.emplace_back(path, folder.substr(0, cut) + L"\\*\\" + name);
            // 3: question marks in the name, upper case.
            std::wstring upper = path;
            CharUpperBuffW(upper.data(), static_cast<DWORD>(upper.size()));
            if (!name.empty())
                upper[path.size() - 1 - random() % name.size()] = L'?';
            c.pairs.emplace_back(path, upper);
            // 4: another file's pattern (mostly no match).
            const std::wstring& other = c.files[random() % c.files.size()];
            c.pairs.emplace_back(path, FolderOf(other) + L"\\*" + NameOf(other).substr(NameOf(other).size() / 2));
            // 5-8: name-only patterns against the bare name.
            c.pairs.emplace_back(name, L"*" + extension);
            c.pairs.emplace_back(name, name.substr(0, name.size() / 2) + L"*");
            c.pairs.emplace_back(name, L"*" + name.substr(name.size() / 2));
            c.pairs.emplace_back(name, L"*.xyz");
            // 9: the full path itself, in lower case (a literal pattern).
            std::wstring lower = path;
            CharLowerBuffW(lower.data(), static_cast<DWORD>(lower.size()));
            c.pairs.emplace_back(path, lower);
            // 10: a trailing star cutting the name.
            c.pairs.emplace_back(path, path.substr(0, path.size() - name.size() / 2) + L"*");
            // 11: question mark in the innermost folder.
            if (cut != std::wstring::npos && cut + 1 < folder.size())
            {
                std::wstring marked = path;
                marked[cut + 1] = L'?';
                c.pairs.emplace_back(path, marked);
            }
            // 12: wrong extension in the same folder.
            c.pairs.emplace_back(path, folder + L"\\*.xyz");
            // 13: stars for the two innermost folders.
            size_t cut2 = cut == std::wstring::npos ? cut : folder.find_last_of(L'\\', cut - 1);
            if (cut2 != std::wstring::npos)
                c.pairs.emplace_back(path, folder.substr(0, cut2) + L"\\*\\*\\" + name);
            // 14: a star that would have to span folders (no match for the walk).
            c.pairs.emplace_back(path, path.substr(0, 3) + L"*\\" + name);
        }
        return c;
    }();
    return corpus;
}

void RunWildcard(qxbench::Runner& runner)
{
    const Corpus& corpus = GetCorpus();
    if (corpus.pairs.empty())
        return;
    size_t oursMatches = 0;
    size_t peerMatches = 0;
    for (const auto& [path, pattern] : corpus.pairs)
    {
        oursMatches += CFilePathPatternMatcher::MatchAgainstWildCardPattern(path, pattern, 0);
        peerMatches += PathMatchSpecW(path.c_str(), pattern.c_str()) ? 1 : 0;
    }
    std::wstring note = std::to_wstring(corpus.pairs.size()) + L" pairs from " + std::to_wstring(corpus.files.size()) +
                        L" files; matches: ours " + std::to_wstring(oursMatches) + L", peer " +
                        std::to_wstring(peerMatches);
    runner.Compare(
        L"MatchAgainstWildCardPattern", L"PathMatchSpecW",
        [&] {
            int total = 0;
            for (const auto& [path, pattern] : corpus.pairs)
                total += CFilePathPatternMatcher::MatchAgainstWildCardPattern(path, pattern, 0);
            qxbench::KeepAlive(total);
        },
        [&] {
            int total = 0;
            for (const auto& [path, pattern] : corpus.pairs)
                total += PathMatchSpecW(path.c_str(), pattern.c_str()) ? 1 : 0;
            qxbench::KeepAlive(total);
        },
        corpus.pairs.size(), note);
}

void RunRuleSet(qxbench::Runner& runner)
{
    const Corpus& corpus = GetCorpus();
    if (corpus.files.size() < 100)
        return;
    // 1,000 rules: a third file names, a third full paths, a third wildcards
    // (name, folder and question-mark forms from the pair corpus).
    std::vector<std::wstring> rules;
    std::mt19937 random(11);
    for (size_t i = 0; rules.size() < 1000; ++i)
    {
        const std::wstring& file = corpus.files[random() % corpus.files.size()];
        switch (i % 3)
        {
        case 0: rules.push_back(NameOf(file)); break;
        case 1: rules.push_back(file); break;
        default: rules.push_back(corpus.pairs[random() % corpus.pairs.size()].second); break;
        }
    }
    std::vector<std::wstring> paths;
    for (size_t i = 0; i < 50; ++i)
        paths.push_back(corpus.files[random() % corpus.files.size()]);
    runner.Compare(
        L"MatchAgainstPattern, 1,000 mixed rules per path", L"PathMatchSpecW per rule",
        [&] {
            int total = 0;
            for (const std::wstring& path : paths)
                for (const std::wstring& rule : rules)
                    total += CFilePathPatternMatcher::MatchAgainstPattern(path, rule, 0);
            qxbench::KeepAlive(total);
        },
        [&] {
            int total = 0;
            for (const std::wstring& path : paths)
                for (const std::wstring& rule : rules)
                    total += PathMatchSpecW(path.c_str(), rule.c_str()) ? 1 : 0;
            qxbench::KeepAlive(total);
        },
        paths.size(), L"figures per path (1,000 rules each); rules: names, full paths, wildcards");
}

void RunRegEx(qxbench::Runner& runner)
{
    const Corpus& corpus = GetCorpus();
    if (corpus.files.empty())
        return;
    const wchar_t* expression = L"\\\\system32\\\\[^\\\\]*(32|64)[^\\\\]*\\.(dll|exe)$";
    QXCommon::RegExHelpers::CQXRegEx ours;
    ours.Parse(expression);
    std::wregex peer(expression, std::regex_constants::ECMAScript | std::regex_constants::icase);
    size_t count = std::min<size_t>(corpus.files.size(), 500);
    runner.Compare(
        L"CQXRegEx::Match (bounded)", L"std::regex_search (backtracking)",
        [&] {
            int total = 0;
            for (size_t i = 0; i < count; ++i)
                total += ours.Match(corpus.files[i]) ? 1 : 0;
            qxbench::KeepAlive(total);
        },
        [&] {
            int total = 0;
            for (size_t i = 0; i < count; ++i)
                total += std::regex_search(corpus.files[i], peer) ? 1 : 0;
            qxbench::KeepAlive(total);
        },
        count, L"one rule expression over real paths");
}
} // namespace

QXBENCH_CASE(L"patterns.wildcard", &RunWildcard);
QXBENCH_CASE(L"patterns.ruleset", &RunRuleSet);
QXBENCH_CASE(L"patterns.regex", &RunRegEx);
