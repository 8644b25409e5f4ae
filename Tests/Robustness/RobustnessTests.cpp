// Seeded hostile input against invariants, on a 256 KiB stack (a hooked
// process's); then the smallest inputs of known hostile cases.

#include "../Certificates/CertificateFixtures.h"
#include "QXTestSupport.h"

#include "QXCommon/DataLoader.h"
#include "QXCommon/DigitalCertificate.h"
#include "QXCommon/EnvironmentEx.h"
#include "QXCommon/ExpandArgs.h"
#include "QXCommon/FilePathPatternMatcher.h"
#include "QXCommon/GlobWildcardString.h"
#include "QXCommon/QXCommonFunctions.h"
#include "QXCommon/QXRegEx.h"
#include "QXCommon/RegExHelpers.h"
#include "QXCommon/SignatureAlgorithmStrategy.h"

#include <gtest/gtest.h>

#include <imagehlp.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <regex>
#include <thread>

using QXCommon::CDigitalCertificate;
using QXCommon::CEnvironmentEx;
using QXCommon::CFilePathPatternMatcher;
using QXCommon::RegExHelpers::CQXRegEx;
using QXCommon::RegExHelpers::GlobWildcardString;
using QXTest::Narrow;

namespace
{
unsigned Seed()
{
    const char* text = std::getenv("QX_ROBUST_SEED");
    return text != nullptr ? static_cast<unsigned>(std::strtoul(text, nullptr, 0)) : 0x5EED1u;
}

struct Gen
{
    explicit Gen(unsigned salt) : rng(Seed() ^ (salt * 0x9E3779B9u)) {}
    size_t Below(size_t n) { return n == 0 ? 0 : std::uniform_int_distribution<size_t>(0, n - 1)(rng); }
    bool Chance(unsigned percent) { return Below(100) < percent; }
    template <size_t N> const wchar_t* Pick(const wchar_t* const (&items)[N]) { return items[Below(N)]; }
    wchar_t PickChar(const std::wstring& chars) { return chars[Below(chars.size())]; }
    // Weighted toward what path, rule and command-line parsers treat
    // specially, non-ASCII look-alikes of metacharacters and lone surrogates.
    std::wstring HostileText(size_t maxLength)
    {
        static const std::wstring special = L"\\/:*?%\",; \t.~=$^|()[]{}+!-";
        static const std::wstring foreign = L"\xFF08\xFF09\xFF0A\xFF3C\xFF5C\x2217\xFF0E\xFF1F\xFF3B\xFF3D\xFF5B"
                                            L"\xFF5D\xFF0B\xFF04\xFF3E\x00E9\x00C9\x4E2D\x3000\x00A0\xD800\xDC00";
        std::wstring text;
        for (size_t n = Below(maxLength + 1); n > 0; --n)
        {
            const size_t kind = Below(4);
            text.push_back(kind == 0   ? PickChar(special)
                           : kind == 1 ? PickChar(foreign)
                                       : static_cast<wchar_t>(L'a' + Below(4) + (Chance(20) ? L'A' - L'a' : 0)));
        }
        return text;
    }
    std::wstring Path()
    {
        std::wstring path = Chance(50) ? L"C:\\" : (Chance(50) ? L"\\\\" : L"");
        for (size_t parts = 1 + Below(4); parts > 0; --parts)
            path += HostileText(6) + (Chance(80) ? L"\\" : (Chance(50) ? L"/" : L"\\\\"));
        return path + HostileText(6);
    }
    std::mt19937 rng;
};

// Runs input(i) for every i below count on one thread with a 256 KiB stack.
// A call that has not returned after hangMs fails the test with label(i);
// the thread is left behind and ends with the process.
void OnSmallStack(size_t count, const std::function<void(size_t)>& input, const std::function<std::string(size_t)>& label, DWORD hangMs = 10000)
{
    std::atomic<size_t> current{0};
    auto run = [&] { for (size_t i = 0; i < count; ++i) input(current = i); };
    using Run = decltype(run);
    HANDLE thread = CreateThread(nullptr, 256 * 1024, [](void* job) -> DWORD { return (*static_cast<Run*>(job))(), 0; }, &run,
                                 STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    ASSERT_NE(thread, nullptr);
    size_t seen = SIZE_MAX;
    for (DWORD still = 0; WaitForSingleObject(thread, 100) == WAIT_TIMEOUT;)
    {
        const size_t now = current;
        still = now == seen ? still + 100 : 0;
        seen = now;
        if (still >= hangMs)
            FAIL() << "call did not return within " << hangMs << " ms: " << label(now) << " (seed " << Seed() << ")";
    }
    CloseHandle(thread);
}

std::wstring Replace(std::wstring text, wchar_t from, const std::wstring& to)
{
    for (size_t at = text.find(from); at != std::wstring::npos; at = text.find(from, at + to.size()))
        text.replace(at, 1, to);
    return text;
}

std::wstring Repeat(const std::wstring& unit, size_t count) { return Replace(std::wstring(count, L'#'), L'#', unit); }

// An expression of a few atoms, nested a little; 'P' is a literal placeholder.
// With classes it uses \w \d \s \b, ranges and dots (ASCII only). Inside a
// lookahead there are no captures, anchors or word boundaries: the standard
// executor starts a lookahead as if the text began there, unlike ECMAScript.
std::wstring Expression(Gen& g, int depth, bool classes, bool inLookahead = false)
{
    static const wchar_t* const plain[] = {L"a", L"b", L"P", L"A", L"(?:a|P)", L"[aP]", L"[^b]"};
    static const wchar_t* const classy[] = {L"\\w", L"\\d", L"\\s", L"\\bb", L"[a-c]", L".", L"[^\\w]", L"\\B"};
    static const wchar_t* const quantifiers[] = {L"*", L"+", L"?", L"{2}", L"{1,2}", L"*?", L"{0,}", L"{2,1}", L"{"};
    static const wchar_t* const opens[] = {L"(", L"(?:", L"(?=", L"(?!"};
    std::wstring out;
    for (size_t n = 1 + g.Below(4); n > 0; --n)
    {
        const size_t kind = g.Below(10);
        if (kind < 2 && depth < 3)
        {
            const std::wstring open = inLookahead ? L"(?:" : g.Pick(opens);
            out += open + Expression(g, depth + 1, classes, inLookahead || (open[1] == L'?' && open[2] != L':')) + L")";
        }
        else if (kind == 2 && depth < 3)
            out += Expression(g, depth + 1, classes, inLookahead) + L"|" + Expression(g, depth + 1, classes, inLookahead);
        else if (kind == 3 && !inLookahead)
            out += g.Chance(50) ? L"\\1" : (g.Chance(50) ? L"^" : L"$");
        else if (kind == 4 && classes && !inLookahead)
            out += g.Pick(classy);
        else if (kind == 5 && g.Chance(15))
            out += g.Pick({L")", L"(", L"[", L"\\", L"]"}); // unbalanced: both must refuse alike
        else
            out += g.Pick(plain);
        if (g.Chance(30))
            out += g.Pick(quantifiers);
    }
    return out;
}

// Whole-text glob: ? one character, * any run, neither a line break (the
// expression's "."), letters compared without case.
bool GlobReference(const std::wstring& glob, const std::wstring& text)
{
    auto fold = [](wchar_t c) {
        wchar_t lower = c;
        return LCMapStringW(LOCALE_INVARIANT, LCMAP_LOWERCASE, &c, 1, &lower, 1) == 1 ? lower : c;
    };
    auto lineBreak = [&](size_t i) { return text[i] == L'\n' || text[i] == L'\r'; };
    std::vector<char> row(text.size() + 1, 0), next(text.size() + 1, 0);
    row[0] = 1;
    for (wchar_t p : glob)
    {
        std::fill(next.begin(), next.end(), 0);
        for (size_t i = 0; i <= text.size(); ++i)
        {
            if (p == L'*')
                next[i] = row[i] || (i > 0 && next[i - 1] && !lineBreak(i - 1));
            else if (row[i] && i < text.size() && (p == L'?' ? !lineBreak(i) : fold(p) == fold(text[i])))
                next[i + 1] = 1;
        }
        row.swap(next);
    }
    return row[text.size()] != 0;
}

// A FIFO at path, made on the Unix side of Wine by the kernel's own mknodat
// and removed by its unlinkat (Windows has no call that makes one, and Wine
// deletes no special file). None (made false) unless under Wine on Linux.
struct UnixFifo : QXTest::NoCopy
{
    explicit UnixFifo(const std::wstring& at) : path(at)
    {
        const auto unixName = reinterpret_cast<char*(CDECL*)(LPCWSTR)>(
            reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
        const auto host = reinterpret_cast<void(CDECL*)(const char**, const char**)>(
            reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_host_version")));
        const char *system = "", *release = "";
        host != nullptr ? host(&system, &release) : void();
        char* name = unixName != nullptr && std::strcmp(system, "Linux") == 0 ? unixName(path.c_str()) : nullptr;
        unixPath = name != nullptr ? name : "";
        HeapFree(GetProcessHeap(), 0, name);
        made = !unixPath.empty() && At(259 /* mknodat */, 010000 | 0600 /* S_IFIFO */) == 0;
    }
    ~UnixFifo() { made && At(263 /* unlinkat */, 0); }
    // The system call (AT_FDCWD, unixPath, third, 0).
    long long At(long long number, long long third) const
    {
        long long result = 0;
        register long long fourth __asm__("r10") = 0;
        __asm__ volatile("syscall" : "=a"(result) : "a"(number), "D"(-100LL), "S"(unixPath.c_str()), "d"(third), "r"(fourth)
                         : "rcx", "r11", "memory");
        return result;
    }
    std::wstring path;
    std::string unixPath;
    bool made = false;
};

// The largest buffer the library hands ImageGetCertificateData, seen at its import.
std::atomic<DWORD> largestCertificateBuffer{0};
BOOL WINAPI WatchedCertificateData(HANDLE file, DWORD index, LPWIN_CERTIFICATE certificate, PDWORD length)
{
    largestCertificateBuffer = std::max<DWORD>(largestCertificateBuffer, certificate != nullptr ? *length : 0);
    static const auto real = reinterpret_cast<decltype(&ImageGetCertificateData)>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"imagehlp.dll"), "ImageGetCertificateData")));
    return real(file, index, certificate, length);
}
} // namespace

// Parse result, error code and answer equal std::regex's ECMAScript search on
// short texts, also with a non-ASCII look-alike of a metacharacter as literal.
TEST(SeededRegEx, AgreesWithTheStandardSearchAndNonAsciiIsLiteral)
{
    static const wchar_t* const lookalikes[] = {L"\xFF08", L"\xFF09", L"\xFF0A", L"\xFF3C", L"\xFF5C", L"\x2217",
                                                L"\xFF1F", L"\xFF3B", L"\xFF5B", L"\xFF0B", L"\xFF04", L"\xFF3E"};
    Gen g(1);
    constexpr size_t Count = 2500;
    std::vector<std::wstring> expressions(Count), placeholders(Count), texts(Count * 4);
    for (size_t i = 0; i < Count; ++i)
    {
        expressions[i] = Expression(g, 0, i % 2 == 0);
        placeholders[i] = i % 2 == 0 ? L"q" : g.Pick(lookalikes);
        for (size_t t = 0; t < 4; ++t)
            for (size_t n = g.Below(9); n > 0; --n)
                texts[i * 4 + t].push_back(g.PickChar(L"abPPA- \\"));
    }
    OnSmallStack(Count, [&](size_t i) {
        std::wregex standard;
        int standardError = -1;
        try
        {
            standard.assign(Replace(expressions[i], L'P', L"q"), std::regex_constants::ECMAScript | std::regex_constants::icase);
        }
        catch (const std::regex_error& e)
        {
            standardError = static_cast<int>(e.code());
        }
        CQXRegEx ours;
        const bool parsed = ours.Parse(Replace(expressions[i], L'P', placeholders[i]));
        ASSERT_EQ(parsed ? -1 : ours.GetLastRxErrorCode(), standardError) << Narrow(expressions[i]);
        for (size_t t = i * 4; parsed && t < i * 4 + 4; ++t)
        {
            bool matched = false;
            EXPECT_EQ(ours.TryMatch(Replace(texts[t], L'P', placeholders[i]), matched), 0);
            EXPECT_EQ(matched, std::regex_search(Replace(texts[t], L'P', L"q"), standard))
                << Narrow(expressions[i]) << " on " << Narrow(texts[t]);
        }
    }, [&](size_t i) { return Narrow(expressions[i]); });
}

// Globs match what the whole-text reference says; hostile text, escaped,
// is found in itself.
TEST(SeededRegEx, GlobsAndEscapedTextMeanThemselves)
{
    Gen g(2);
    constexpr size_t Count = 3000;
    std::vector<std::wstring> globs(Count), texts(Count);
    for (size_t i = 0; i < Count; ++i)
    {
        globs[i] = g.HostileText(10);
        texts[i] = i % 3 == 0 ? Replace(Replace(globs[i], L'*', L"xy"), L'?', L"z") : g.HostileText(10);
    }
    OnSmallStack(Count, [&](size_t i) {
        GlobWildcardString glob;
        ASSERT_TRUE(glob.Parse(globs[i]));
        bool matched = false;
        EXPECT_EQ(glob.TryMatch(texts[i], matched), 0);
        EXPECT_EQ(matched, !globs[i].empty() && GlobReference(globs[i], texts[i]))
            << Narrow(globs[i]) << " ~ " << Narrow(texts[i]);
        CQXRegEx escaped;
        ASSERT_TRUE(escaped.Parse(QXCommon::RegExHelpers::EscapeRegExMetaCharacters(texts[i]))) << Narrow(texts[i]);
        EXPECT_TRUE(texts[i].empty() || escaped.Match(L"<" + texts[i] + L">")) << Narrow(texts[i]);
    }, [&](size_t i) { return Narrow(globs[i] + L" ~ " + texts[i]); });
}

// A path matches itself as a pattern, with "?" for any non-separator, and as
// a hook-list entry; a NUL matches nothing (an expression takes it literally).
TEST(SeededPaths, WildcardWalkAndHookListMatchThePathItself)
{
    Gen g(3);
    std::vector<std::wstring> paths(3000);
    std::generate(paths.begin(), paths.end(), [&] { return g.Path(); });
    OnSmallStack(paths.size(), [&](size_t i) {
        const std::wstring& path = paths[i];
        if (path.find_first_of(L"*?") == std::wstring::npos && !path.empty())
        {
            EXPECT_EQ(CFilePathPatternMatcher::MatchAgainstPattern(path, path, i % 2), 1);
            std::wstring pattern = path;
            const size_t at = i % path.size();
            const bool separator = pattern[at] == L'\\' || pattern[at] == L':' || pattern[at] == L'/';
            pattern[at] = L'?';
            EXPECT_EQ(CFilePathPatternMatcher::MatchAgainstWildCardPattern(path, pattern, 1), separator ? 0 : 1) << at;
        }
        const size_t last = path.find_last_of(L"\\/");
        if (last != std::wstring::npos && last != 0 && last + 1 != path.size() && path.find(L';') == std::wstring::npos &&
            path.find_first_of(L" \t") != 0 && path.find_last_of(L" \t") != path.size() - 1)
            EXPECT_EQ(CFilePathPatternMatcher::MatchAgainstDriverHookExceptionList(path, path), 1);
        std::wstring withNul = path;
        withNul.insert(i % (path.size() + 1), 1, L'\0');
        EXPECT_EQ(CFilePathPatternMatcher::MatchAgainstPattern(path, withNul, 0), 0);
        EXPECT_EQ(CFilePathPatternMatcher::MatchAgainstFolder(withNul, L"C:\\", 1), 0);
    }, [&](size_t i) { return Narrow(paths[i]); });
    using M = CFilePathPatternMatcher;
    const std::wstring nul(1, L'\0');
    EXPECT_EQ(M::MatchAgainstWildCardPattern(L"a", L"a" + nul, 0) + M::MatchAgainstWildCardPattern(L"a" + nul + L"b", L"a", 0) +
                  M::MatchAgainstJustFileName(L"C:\\a" + nul, L"a" + nul) + M::MatchAgainstRegularExpressionPattern(L"a" + nul, L"a") +
                  M::MatchAgainstNetworkResourcePattern(L"\\\\h\\s" + nul, L"\\\\h\\s", 0) +
                  M::MatchAgainstWildCardFolder(L"C:\\a\\" + nul, L"C:\\*", 1) +
                  M::MatchAgainstDriverHookExceptionList(L"C:\\a\\b.exe", L"b.exe" + nul), 0);
    CQXRegEx regex;
    ASSERT_TRUE(regex.Parse(L"a" + nul + L"b"));
    EXPECT_TRUE(regex.Match(L"xa" + nul + L"b") && !regex.Match(L"xab"));
    for (const wchar_t* path : {L"\\\\e", L"C:\\a\\\\b.exe", L"C:/a/b.exe", L"\\\\h\\s\\x.exe"})
        EXPECT_EQ(M::MatchAgainstDriverHookExceptionList(path, path), 1) << Narrow(path);
}

// A block gives its values back (table 0: the shortest "~" value too long for
// a short name), ExpandRxString values match themselves, normalised paths
// expand back.
TEST(SeededEnvironment, BlocksNormalisationAndRegexExpansionHold)
{
    static const wchar_t* const names[] = {L"SystemDrive", L"SystemRoot", L"ProgramFiles", L"ProgramFiles(x86)",
                                           L"ProgramData", L"LocalAppData", L"AppData", L"UserProfile", L"TEMP", L"Other"};
    Gen g(4);
    std::vector<std::map<std::wstring, std::wstring>> tables(600);
    std::vector<std::wstring> paths(tables.size());
    tables[0][L"a"] = L"~" + std::wstring(1059, L'x');
    for (size_t i = 1; i < tables.size(); ++i)
    {
        for (int n = 0; n < 5; ++n)
            tables[i][g.Pick(names)] = g.Chance(10) ? L"~" + std::wstring(1060 + g.Below(400), L'x')
                                                    : (g.Chance(20) ? L"C:\\" : g.Path());
        for (const auto& [name, value] : tables[i])
            paths[i] += g.Chance(60) ? value : L"";
        paths[i] += g.Path();
    }
    OnSmallStack(tables.size(), [&](size_t i) {
        std::vector<wchar_t> block;
        for (const auto& [name, value] : tables[i])
            for (const wchar_t c : name + L"=" + value + L'\0')
                block.push_back(c);
        block.insert(block.end(), {L'\0', L'\0'});
        CEnvironmentEx env;
        ASSERT_EQ(env.LoadFromEnvironmentBlock(block.data()), 1);
        for (const auto& [name, value] : tables[i])
        {
            std::wstring found, rx;
            EXPECT_EQ(env.Lookup(name.c_str(), found), 1);
            EXPECT_EQ(found, value);
            ASSERT_EQ(env.ExpandRxString(L"^%" + name + L"%$", rx), value.empty() ? 0 : 1);
            CQXRegEx regex;
            EXPECT_TRUE(value.empty() || (regex.Parse(rx) && regex.Match(value))) << Narrow(rx);
        }
        if (paths[i].find(L'%') != std::wstring::npos)
            return;
        std::wstring normalised = paths[i];
        env.NormalisePaths(normalised);
        std::wstring back = normalised;
        env.ExpandString(back);
        EXPECT_EQ(CompareStringOrdinal(back.c_str(), -1, paths[i].c_str(), -1, TRUE), CSTR_EQUAL)
            << Narrow(paths[i]) << " -> " << Narrow(normalised) << " -> " << Narrow(back);
    }, [&](size_t i) { return Narrow(paths[i]); });
    using Case = std::pair<const wchar_t*, const wchar_t*>;
    CEnvironmentEx env;
    ASSERT_EQ(env.LoadFromEnvironmentBlock(L"SystemDrive=C:\\\0TEMP=C:\\T\\\0\0"), 1);
    for (const auto& [input, expected] :
         {Case{L"C:Eex", L"c:eex"}, {L"C:\\Eex", L"%systemdrive%eex"}, {L"C:\\T\\x", L"%temp%x"}, {L"C:\\T", L"%systemdrive%t"}})
    {
        std::wstring path = input;
        env.NormalisePaths(path);
        EXPECT_EQ(path, expected);
        env.ExpandString(path);
        EXPECT_EQ(CompareStringOrdinal(path.c_str(), -1, input, -1, TRUE), CSTR_EQUAL) << Narrow(path);
    }
}

// Joined arguments cut into the same arguments again (read from the log).
TEST(SeededCommandLine, JoinedArgumentsCutTheSameWay)
{
    auto cut = [](const std::wstring& args, std::wstring& joined) {
        QXTest::LogCapture capture;
        QXCommon::CExpandArgs().ConvertArgsToFullPath(args.c_str(), joined);
        std::vector<std::wstring> tokens;
        const std::wstring prefix = L"Tokens Identified [";
        for (const auto& e : capture.Entries())
            if (e.text.starts_with(prefix))
                tokens.push_back(e.text.substr(prefix.size(), e.text.size() - prefix.size() - 2));
        return tokens;
    };
    Gen g(5);
    std::vector<std::wstring> lines(2000);
    for (auto& line : lines)
        for (size_t n = g.Below(14); n > 0; --n)
            line.push_back(g.PickChar(L"\"\"\" ,\tab\\\xFF08"));
    OnSmallStack(lines.size(), [&](size_t i) {
        std::wstring joined, again;
        const std::vector<std::wstring> first = cut(lines[i], joined);
        EXPECT_EQ(cut(joined, again), first) << Narrow(lines[i]) << " -> " << Narrow(joined);
        EXPECT_EQ(again, joined);
    }, [&](size_t i) { return Narrow(lines[i]); });
    using Case = std::pair<const wchar_t*, const wchar_t*>;
    for (const auto& [input, expected] :
         {Case{L"\"a\"b c\"", L"\"a\"b c\""}, {L"\" \"a", L"\" \"a\""}, {L"a \"\"", L"a \"\""}, {L",", L"\"\""}})
    {
        std::wstring result;
        ASSERT_EQ(QXCommon::CExpandArgs().ConvertArgsToFullPath(input, result), 1);
        EXPECT_EQ(result, expected) << Narrow(input);
    }
}

// On a 32,767-character text each gets the ECMAScript answer or, where
// allowed, the budget error; never a wrong "no match".
TEST(Findings, ExplodingExpressionsGetTheirAnswerOrTheBudgetError)
{
    const std::wstring text = std::wstring(32766, L'a') + L"!";
    const struct { std::wstring expression; bool matches, budgetAllowed; } cases[] = {
        {Repeat(L"(a|)", 500), true, false}, {Repeat(L"(a*)*", 400), true, false}, {Repeat(L"a{1,3}", 300), true, false},
        {L"(a*)*\\1$", true, true},           {L"(a)\\1!", true, false},              {L"^(?:a?){300}b", false, true},
    };
    OnSmallStack(std::size(cases), [&](size_t i) {
        int error = 0;
        CQXRegEx regex;
        ASSERT_TRUE(ValidateRegularExpressionEx(cases[i].expression.c_str(), QX_REGEX_SAMPLE_ALL, &error));
        ASSERT_TRUE(regex.Parse(cases[i].expression));
        bool matched = !cases[i].matches;
        error = regex.TryMatch(text, matched);
        EXPECT_EQ(matched, error == 0 && cases[i].matches);
        EXPECT_EQ(error, error == 0 || !cases[i].budgetAllowed ? 0 : QX_REGEX_ERROR_BUDGET);
    }, [&](size_t i) { return Narrow(cases[i].expression.substr(0, 40)); });
}

// Every non-ASCII code unit is a literal a quantifier binds to, and the
// parse result depends on the expression alone, not on the thread.
TEST(Findings, NonAsciiCharactersAreLiteralsOnEveryThread)
{
    // Escaped text, a glob and an expanded folder name with fullwidth look-alikes.
    CQXRegEx regex;
    ASSERT_TRUE(regex.Parse(QXCommon::RegExHelpers::EscapeRegExMetaCharacters(L"a\xFF09")));
    EXPECT_TRUE(regex.Match(L"xa\xFF09y"));
    GlobWildcardString glob;
    ASSERT_TRUE(glob.Parse(L"/\xFF5C" L"E\\.dl"));
    EXPECT_TRUE(glob.Match(L"/\xFF5C" L"e\\.DL") && !glob.Match(L""));
    CEnvironmentEx env;
    std::wstring rx;
    ASSERT_EQ(env.Add(L"Folder", L"C:\\Data \xFF08" L"2024\xFF09"), 1);
    ASSERT_EQ(env.ExpandRxString(L"^%folder%\\\\", rx), 1);
    EXPECT_TRUE(regex.Parse(rx) && regex.Match(L"C:\\Data \xFF08" L"2024\xFF09\\x.exe"));
    std::vector<unsigned> wrong;
    for (unsigned c = 0x80; c <= 0xFFFF; ++c)
    {
        const std::wstring u(1, static_cast<wchar_t>(c));
        if (!regex.Parse(L"a" + u + L"+b") || !regex.Match(L"xa" + u + u + L"b") || regex.Match(L"xab"))
            wrong.push_back(c);
    }
    EXPECT_TRUE(wrong.empty()) << wrong.size() << " code units, the first U+" << std::hex << (wrong.empty() ? 0 : wrong[0]);

    for (const wchar_t* expression : {L"\xFF09{", L"a{\xFF11}", L"(\xFF08)\\\xFF11", L"x{"})
    {
        regex.Parse(expression);
        int there = -1, validated = -1;
        std::thread([&] {
            CQXRegEx fresh;
            fresh.Parse(expression);
            there = fresh.GetLastRxErrorCode();
            ValidateRegularExpression(expression, &validated);
        }).join();
        EXPECT_EQ(std::make_pair(there, validated), std::make_pair(regex.GetLastRxErrorCode(), regex.GetLastRxErrorCode())) << Narrow(expression);
    }
    EXPECT_FALSE(regex.Parse(L"\xFF09{"));
    EXPECT_EQ(regex.GetLastRxErrorCode(), static_cast<int>(std::regex_constants::error_badbrace));
}

// Devices, pipes and FIFOs are not disk files: no image, no hash and no
// checksum (never the empty file's), answered at once without a read, by
// path and by a caller's handle. A device this machine lacks gets its open's
// error.
TEST(Findings, DevicesAndPipesAreNoFiles)
{
    QXTest::TempDir dir;
    const std::wstring pipeName = L"\\\\.\\pipe\\qxrobust_device";
    std::vector<ATL::CHandle> instances; // every open by path takes one
    for (int k = 0; k < 4; ++k)
    {
        instances.emplace_back(CreateNamedPipeW(pipeName.c_str(), PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE, PIPE_UNLIMITED_INSTANCES, 0, 0, 0, nullptr));
        ASSERT_NE(instances.back().m_h, INVALID_HANDLE_VALUE);
    }
    HANDLE readEnd = nullptr, writeEnd = nullptr;
    ASSERT_TRUE(CreatePipe(&readEnd, &writeEnd, nullptr, 0));
    ATL::CHandle ownedRead(readEnd), ownedWrite(writeEnd);
    const UnixFifo fifo(dir.File(L"fifo"));
    std::vector<std::wstring> devices = {L"COM1", L"AUX", L"CON", L"NUL", L"\\\\.\\NUL", L"CONIN$", pipeName};
    if (fifo.made)
        devices.push_back(fifo.path);
    else
        std::printf("no FIFO case: FIFOs are made only under Wine on Linux\n");
    SignatureAlgorithmStrategy::Get()->SetSignatureAlgorithm(SignatureAlgorithmSHA1);
    OnSmallStack(devices.size() + 1, [&](size_t i) {
        const DWORD notAFile = ERROR_NOT_SUPPORTED;
        if (i == devices.size())
        {
            QXCommon::CDataLoader loader;
            EXPECT_EQ(loader.LoadFile(L"ignored", 0, readEnd), 0);
            EXPECT_EQ(GetLastError(), notAFile);
            return;
        }
        const std::wstring& device = devices[i];
        SCOPED_TRACE(Narrow(device));
        ATL::CHandle probe(CreateFileW(device.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
        const DWORD opens = probe == INVALID_HANDLE_VALUE ? GetLastError() : 0;
        if (opens != 0)
            probe.Detach();
        BOOL isNTExe = TRUE;
        EXPECT_EQ(QXCommonFunctions::TryCheckIsNTExe(device, isNTExe), opens);
        EXPECT_TRUE(opens != 0 || !isNTExe);
        EXPECT_EQ(QXCommonFunctions::GenerateFileHash(device), L"");
        EXPECT_EQ(GetLastError(), opens != 0 ? opens : notAFile);
        std::vector<wchar_t> buffer(device.begin(), device.end());
        buffer.resize(MAX_PATH, L'\0');
        EXPECT_EQ(CalculateAdler32Checksum(buffer.data()), 0);
        EXPECT_EQ(GetLastError(), opens != 0 ? opens : notAFile);
    }, [&](size_t i) { return i < devices.size() ? Narrow(devices[i]) : std::string("an anonymous pipe's handle"); }, 5000);
}

// Certificate tables: the entries of intact ones, each padded to 8 bytes, are
// the table that ends the file. Malformed ones (in the signed image: an entry
// of length 0 or shorter than its header, an entry past the table, the table
// past the end of the file, a huge directory size), a file that is no image
// and a missing one fail at once, naming the file: no count, no entry, no
// signer, no valid signature, no buffer sized beyond the file.
TEST(Findings, CertificateTables)
{
    using QXTest::Certs::FixturePath, QXTest::Certs::ReadBytes;
    QXTest::ImportPatch watch(L"QXCommon.dll", "imagehlp.dll", "ImageGetCertificateData", reinterpret_cast<void*>(&WatchedCertificateData));
    ASSERT_TRUE(watch.Installed());
    const std::vector<BYTE> image = ReadBytes(FixturePath(L"signed.exe"));
    auto at = [&](size_t offset) { uint32_t value = 0; std::memcpy(&value, image.data() + offset, 4); return value; };
    const uint32_t directory = at(60) + 24 + 144, table = at(directory), tableSize = at(directory + 4); // PE32+
    // entries: -1 when reading the table must fail. A crafted row (offset not 0)
    // puts offset and size in the image's directory and `first` as its entry's length.
    const struct { const wchar_t* name; int entries; uint32_t offset = 0, size = 0, first = 0; } cases[] = {
        {L"unsigned.exe", 0}, {L"signed.exe", 1}, {L"nested.exe", 1}, {L"twoentries.exe", 2}, {L"missing.exe", -1}, {L"signer.cer", -1},
        {L"entry length 0", -1, table, tableSize, 0}, {L"entry shorter than its header", -1, table, tableSize, 4},
        {L"entry past the table", -1, table, tableSize, tableSize + 8},
        {L"table past the end of the file", -1, static_cast<uint32_t>(image.size() + 8), tableSize, at(table)},
        {L"huge directory size", -1, table, 0xFFFFFFF8u, 0x7FFFFFF8u},
    };
    QXTest::TempDir dir;
    OnSmallStack(std::size(cases), [&](size_t i) {
        const auto& c = cases[i];
        std::vector<BYTE> bytes = c.offset == 0 ? ReadBytes(FixturePath(c.name)) : image;
        for (const auto& [offset, value] : {std::pair{directory, c.offset}, {directory + 4, c.size}, {table, c.first}})
            if (c.offset != 0)
                std::memcpy(bytes.data() + offset, &value, 4);
        const std::wstring path = c.offset == 0 ? FixturePath(c.name) : dir.Write(c.name, std::string(bytes.begin(), bytes.end()));
        QXTest::LogCapture log;
        largestCertificateBuffer = 0;
        DWORD count = 99;
        EXPECT_EQ(c.entries >= 0, CDigitalCertificate::GetNumberOfCertificatesFromFile(path, count));
        EXPECT_EQ(std::max(c.entries, 0), static_cast<int>(count));
        std::vector<BYTE> entries;
        for (DWORD k = 0; k <= count; ++k)
        {
            BYTE* data = reinterpret_cast<BYTE*>(1);
            DWORD length = 99;
            EXPECT_EQ(k < count, CDigitalCertificate::GetRawCertificateData(path, k, data, length));
            entries.insert(entries.end(), data, data + length);
            entries.resize((entries.size() + 7) & ~size_t(7));
            ReleaseCertificateData(data);
        }
        EXPECT_TRUE(std::equal(entries.rbegin(), entries.rend(), bytes.rbegin()));
        CDigitalCertificate signer; // (Wine's CryptQueryObject spends seconds on a huge size: not asked)
        EXPECT_EQ(c.entries > 0, c.size < 0x10000000 && signer.ReadFromSignedFile(path) == 0 && CDigitalCertificate::VerifyFileSignature(path, nullptr) == S_OK);
        EXPECT_LE(largestCertificateBuffer, bytes.size());
        EXPECT_TRUE(c.entries >= 0 || log.HasFragment(L"[" + path + L"]")) << log.Dump();
    }, [&](size_t i) { return Narrow(cases[i].name); });
}
