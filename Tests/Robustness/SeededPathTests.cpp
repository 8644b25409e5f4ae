// Seeded runs over paths, environment tables and command lines, each input
// checked against an invariant the headers state, every call on a 256 KiB
// thread.

#include "Robust.h"

#include "QXCommon/EnvironmentEx.h"
#include "QXCommon/ExpandArgs.h"
#include "QXCommon/FilePathPatternMatcher.h"
#include "QXCommon/QXRegEx.h"

#include <map>

using QXCommon::CEnvironmentEx;
using QXCommon::CFilePathPatternMatcher;

namespace
{
std::wstring Path(Robust::Gen& g)
{
    std::wstring path = g.Chance(50) ? L"C:\\" : (g.Chance(50) ? L"\\\\" : L"");
    for (size_t parts = 1 + g.Below(4); parts > 0; --parts)
    {
        path += g.HostileText(6);
        path += g.Chance(80) ? L"\\" : (g.Chance(50) ? L"/" : L"\\\\");
    }
    return path + g.HostileText(6);
}

bool EqualNoCase(const std::wstring& a, const std::wstring& b)
{
    return CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()), TRUE) ==
           CSTR_EQUAL;
}

// The arguments ConvertArgsToFullPath cut from the text, from its log.
std::vector<std::wstring> Cut(const std::wstring& args, std::wstring& joined)
{
    QXTest::LogCapture capture;
    QXCommon::CExpandArgs().ConvertArgsToFullPath(args.c_str(), joined);
    std::vector<std::wstring> tokens;
    const std::wstring prefix = L"Tokens Identified [";
    for (const auto& e : capture.Entries())
        if (e.text.rfind(prefix, 0) == 0)
            tokens.push_back(e.text.substr(prefix.size(), e.text.size() - prefix.size() - 2));
    return tokens;
}
} // namespace

// Wildcard walk and hook list: a path matches itself, any non-separator
// character of it may become "?", a separator may not, and a NUL anywhere
// matches nothing.
TEST(SeededPaths, WildcardWalkAndHookListMatchThePathItself)
{
    Robust::Gen g(3);
    constexpr size_t Count = 3000;
    std::vector<std::wstring> paths(Count);
    for (auto& path : paths)
        path = Path(g);
    Robust::OnSmallStack(
        Count,
        [&](size_t i) {
            std::wstring path = paths[i];
            const bool wild = path.find_first_of(L"*?") != std::wstring::npos;
            if (!wild && !path.empty())
            {
                EXPECT_EQ(CFilePathPatternMatcher::MatchAgainstPattern(path, path, i % 2), 1);
                std::wstring pattern = path;
                size_t at = i % path.size();
                const bool separator = pattern[at] == L'\\' || pattern[at] == L':' || pattern[at] == L'/';
                pattern[at] = L'?';
                EXPECT_EQ(CFilePathPatternMatcher::MatchAgainstWildCardPattern(path, pattern, 1), separator ? 0 : 1)
                    << at;
            }
            // A path that can be cut at a separator matches an entry written as
            // itself, whatever it holds besides the list's own ';' and blanks.
            std::wstring slashed = path;
            for (wchar_t& c : slashed)
                c = c == L'/' ? L'\\' : c;
            size_t last = slashed.find_last_of(L'\\');
            bool cuttable = last != std::wstring::npos && last != 0 && last + 1 != slashed.size() &&
                            path.find(L';') == std::wstring::npos &&
                            path.find_first_of(L" \t") != 0 && path.find_last_of(L" \t") != path.size() - 1;
            if (cuttable)
            {
                EXPECT_EQ(CFilePathPatternMatcher::MatchAgainstDriverHookExceptionList(path, path), 1);
            }
            std::wstring withNul = path;
            withNul.insert(i % (path.size() + 1), 1, L'\0');
            EXPECT_EQ(CFilePathPatternMatcher::MatchAgainstPattern(path, withNul, 0), 0);
            EXPECT_EQ(CFilePathPatternMatcher::MatchAgainstFolder(withNul, L"C:\\", 1), 0);
        },
        [&](size_t i) { return QXTest::Narrow(paths[i]); });
}

// Environment tables: a loaded block gives back each value as it was (none
// of these names a file), a normalised path expands back to itself, and a
// value put into a regular expression matches only itself.
TEST(SeededEnvironment, BlocksNormalisationAndRegexExpansionHold)
{
    static const wchar_t* const names[] = {L"SystemDrive", L"SystemRoot", L"ProgramFiles", L"ProgramFiles(x86)",
                                           L"ProgramData", L"LocalAppData", L"AppData", L"UserProfile", L"TEMP",
                                           L"Other"};
    Robust::Gen g(4);
    constexpr size_t Count = 600;
    std::vector<std::map<std::wstring, std::wstring>> tables(Count);
    std::vector<std::wstring> paths(Count);
    for (size_t i = 0; i < Count; ++i)
    {
        for (int n = 0; n < 5; ++n)
        {
            std::wstring value = g.Chance(20) ? L"C:\\" : Path(g);
            if (g.Chance(10))
                value = L"~" + std::wstring(1060 + g.Below(400), L'x'); // too long to be a short name
            tables[i][g.Pick(names)] = value;
        }
        for (const auto& [name, value] : tables[i])
            if (g.Chance(60))
                paths[i] += value;
        paths[i] += Path(g);
    }
    Robust::OnSmallStack(
        Count,
        [&](size_t i) {
            std::vector<std::wstring> entries;
            for (const auto& [name, value] : tables[i])
                entries.push_back(name + L"=" + value);
            std::vector<wchar_t> block;
            for (const auto& entry : entries)
                block.insert(block.end(), entry.c_str(), entry.c_str() + entry.size() + 1);
            block.insert(block.end(), {L'\0', L'\0'});
            CEnvironmentEx env;
            ASSERT_EQ(env.LoadFromEnvironmentBlock(block.data()), 1);
            for (const auto& [name, value] : tables[i])
            {
                std::wstring found;
                EXPECT_EQ(env.Lookup(name.c_str(), found), 1);
                EXPECT_EQ(found, value);

                std::wstring rx;
                ASSERT_EQ(env.ExpandRxString(L"^%" + name + L"%$", rx), value.empty() ? 0 : 1);
                QXCommon::RegExHelpers::CQXRegEx regex;
                ASSERT_TRUE(value.empty() || regex.Parse(rx)) << QXTest::Narrow(rx);
                EXPECT_TRUE(value.empty() || regex.Match(value)) << QXTest::Narrow(rx);
            }
            std::wstring path = paths[i];
            if (path.find(L'%') != std::wstring::npos)
                return;
            std::wstring normalised = path;
            env.NormalisePaths(normalised);
            std::wstring back = normalised;
            env.ExpandString(back);
            EXPECT_TRUE(EqualNoCase(back, path)) << QXTest::Narrow(path) << " -> " << QXTest::Narrow(normalised)
                                                 << " -> " << QXTest::Narrow(back);
        },
        [&](size_t i) { return QXTest::Narrow(paths[i]); });
}

// Argument expansion: the joined text cuts into the same arguments again.
TEST(SeededCommandLine, JoinedArgumentsCutTheSameWay)
{
    Robust::Gen g(5);
    constexpr size_t Count = 2000;
    std::vector<std::wstring> lines(Count);
    for (auto& line : lines)
        for (size_t n = g.Below(14); n > 0; --n)
            line.push_back(g.PickChar(L"\"\"\" ,\tab\\\xFF08"));
    Robust::OnSmallStack(
        Count,
        [&](size_t i) {
            std::wstring joined, again;
            std::vector<std::wstring> first = Cut(lines[i], joined);
            EXPECT_EQ(Cut(joined, again), first) << QXTest::Narrow(lines[i]) << " -> " << QXTest::Narrow(joined);
            EXPECT_EQ(again, joined);
        },
        [&](size_t i) { return QXTest::Narrow(lines[i]); });
}
