// The wildcard walk and the rule kinds built on it: name, full-path, wildcard
// and folder rules, the walk's deliberate quirks, invariants over generated
// paths and patterns, and the promise that short inputs allocate nothing.

#include "AllocationCounter.h"
#include "QXTestSupport.h"

#include "QXCommon/FilePathPatternMatcher.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

using QXCommon::CFilePathPatternMatcher;

namespace
{
using Matcher = int (*)(const std::wstring&, const std::wstring&, int);
const Matcher rule = &CFilePathPatternMatcher::MatchAgainstPattern;
const Matcher walk = &CFilePathPatternMatcher::MatchAgainstWildCardPattern;
const Matcher folder = &CFilePathPatternMatcher::MatchAgainstFolder; // the flag: subfolders too
} // namespace

// Rule kinds chosen by the shape of the pattern, the wildcard walk with its
// settled quirks, and folder rules.
TEST(MatchAgainstPattern, RulesWalksAndFolders)
{
    struct Case { Matcher match; const wchar_t *path, *pattern; int flag, expected; };
    const Case cases[] = {
        // Name rules: the file name, case ignored.
        {rule, L"C:\\Windows\\notepad.exe", L"NOTEPAD.EXE", 0, 1},
        {rule, L"C:\\Windows\\notepad.exe", L"notepad", 0, 0},
        {rule, L"C:/Windows/notepad.exe", L"notepad.exe", 0, 1},
        {rule, L"notepad.exe", L"Notepad.Exe", 0, 1},
        // Full-path rules: the whole path, case ignored.
        {rule, L"C:\\Windows\\notepad.exe", L"C:\\Windows\\NOTEPAD.EXE", 0, 1},
        {rule, L"C:\\Windows\\notepad.exe", L"C:\\Windows", 0, 0},
        {rule, L"C:\\Windows\\notepad.exe", L"C:/Windows/notepad.exe", 0, 0},
        // Wildcards in the path.
        {rule, L"C:\\Windows\\notepad.exe", L"C:\\Win*\\notepad.exe", 0, 1},
        {rule, L"C:\\Windows\\System32\\notepad.exe", L"C:\\*\\notepad.exe", 0, 0},
        {rule, L"C:\\Windows\\System32\\notepad.exe", L"C:\\*\\*\\notepad.exe", 0, 1},
        {rule, L"C:\\Windows\\notepad.exe", L"C:\\Windows\\note?ad.EXE", 0, 1},
        // A name-only wildcard pattern is walked against the whole path.
        {rule, L"C:\\Windows\\notepad.exe", L"*.exe", 0, 0},
        {rule, L"notepad.exe", L"*.exe", 0, 1},
        // The walk: a trailing star matches the empty rest; a run of stars is one star.
        {walk, L"C:\\Temp\\", L"C:\\Temp\\*", 0, 1},
        {walk, L"C:\\Temp\\a.txt", L"C:\\Temp\\*", 0, 1},
        {walk, L"C:\\Temp\\a.txt", L"C:\\Temp\\***", 0, 1},
        {walk, L"C:\\Temp\\a\\b.txt", L"C:\\Temp\\*", 0, 0},
        // Only a single star may be left when the path ends.
        {walk, L"C:\\Temp\\", L"C:\\Temp\\**", 0, 0},
        // ? is one character, never a separator, never the end.
        {walk, L"C:\\Temp\\ab", L"C:\\Temp\\a?", 0, 1},
        {walk, L"C:\\Temp\\a", L"C:\\Temp\\a?", 0, 0},
        {walk, L"C:\\Temp\\a\\", L"C:\\Temp\\a?", 0, 0},
        {walk, L"C:\\Temp", L"C?\\Temp", 0, 0},
        {walk, L"C:\\Temp\\a/b", L"C:\\Temp\\a?b", 0, 1},
        {walk, L"C:\\Temp\\a/b", L"C:\\Temp\\a?b", 1, 0},
        // A star stops at \ and : always, at / only with the flag.
        {walk, L"C:\\a/b\\x", L"C:\\*\\x", 0, 1},
        {walk, L"C:\\a/b\\x", L"C:\\*\\x", 1, 0},
        {walk, L"C:\\a/b\\x", L"C:\\*/*\\x", 1, 1},
        {walk, L"dev:file", L"*file", 0, 0},
        {walk, L"dev:file", L"*:file", 0, 1},
        // A failed comparison resumes where it stopped.
        {walk, L"aab", L"*ab", 0, 1},
        {walk, L"abcabd", L"*abd", 0, 1},
        {walk, L"ababx", L"*abx", 0, 1},
        // ... and so the overlapping start inside it is not tried again.
        {walk, L"aaab", L"*aab", 0, 0},
        // A star followed by ? only stops at a separator or the end.
        {walk, L"abc", L"a*?", 0, 0},
        {walk, L"abc\\d", L"a*?d", 0, 0},
        // Stars in the middle of a component.
        {walk, L"C:\\Program Files\\App\\app.exe", L"C:\\Prog*Files\\*\\*.exe", 0, 1},
        {walk, L"C:\\Program Files\\App\\app.exe", L"c:\\program*\\app\\APP.*", 0, 1},
        {walk, L"C:\\Program Files\\App\\app.exe", L"C:\\Program*\\App\\*.dll", 0, 0},
        // Separators at both ends.
        {walk, L"\\\\server\\share\\", L"\\\\*\\*\\", 0, 1},
        {walk, L"\\\\server\\share\\", L"\\\\*\\*", 0, 0},
        {walk, L"\\", L"*", 0, 0},
        {walk, L"\\", L"\\*", 0, 1},
        // Patterns of only stars or question marks.
        {walk, L"abc", L"*", 0, 1},
        {walk, L"abc", L"???", 0, 1},
        {walk, L"abc", L"????", 0, 0},
        {walk, L"a\\c", L"???", 0, 0},
        // Case never matters.
        {walk, L"C:\\WINDOWS\\SYSTEM32\\CMD.EXE", L"c:\\windows\\system32\\c?d.*", 0, 1},
        {walk, L"c:\\\u00E9t\u00E9\\x", L"C:\\\u00C9T\u00C9\\X", 0, 1},
        // Folder rules: the folder itself, and with the flag everything below it.
        {folder, L"C:\\Temp\\a.exe", L"C:\\Temp", 1, 1},
        {folder, L"C:\\TEMP\\x\\a.exe", L"c:\\temp\\", 1, 1},
        // The length check comes before the trailing separators are made one.
        {folder, L"C:\\Temp\\", L"C:\\Temp\\\\", 1, 0},
        {folder, L"C:\\Temp\\x", L"C:\\Temp\\\\", 1, 1},
        {folder, L"C:\\Temporary\\a.exe", L"C:\\Temp", 1, 0},
        {folder, L"C:\\Temp", L"C:\\Temp", 1, 0},
        {folder, L"C:\\Temp\\a.exe", L"C:\\Temp", 0, 0},
        {folder, L"C:\\Temp\\", L"C:\\temp", 0, 1},
        {folder, L"C:\\Temp\\", L"C:\\temp/", 0, 1},
        // Wildcard folders.
        {folder, L"C:\\Users\\bob\\AppData\\x.exe", L"C:\\Users\\*\\AppData", 1, 1},
        {folder, L"C:\\Users\\bob\\AppData\\", L"C:\\Users\\*\\AppData", 0, 1},
        {folder, L"C:\\Users\\bob\\AppData\\x.exe", L"C:\\Users\\*\\AppData", 0, 0},
        {folder, L"C:\\Users\\bob\\Desktop\\x.exe", L"C:\\Users\\*\\AppData", 1, 0},
        {folder, L"C:/Users/bob/AppData/Local/x.exe", L"C:\\Users\\b?b\\AppData\\", 1, 1},
        {folder, L"C:\\Users\\a\\b\\AppData\\x.exe", L"C:\\Users\\*\\AppData", 1, 0},
    };
    for (const Case& c : cases)
        EXPECT_EQ(c.match(c.path, c.pattern, c.flag), c.expected)
            << QXTest::Narrow(std::wstring(L"path=[") + c.path + L"] pattern=[" + c.pattern + L"] flag=")
            << c.flag << (c.match == rule ? " rule" : c.match == walk ? " walk" : " folder");
}

TEST(MatchAgainstPattern, EmptyParametersAreLoggedAndDoNotMatch)
{
    QXTest::LogCapture capture;
    const std::string prefix = "QXCommon::CFilePathPatternMatcher::";
    EXPECT_EQ(walk(L"", L"*", 0), 0);
    EXPECT_EQ(rule(L"C:\\x", L"", 0), 0);
    EXPECT_EQ(CFilePathPatternMatcher::MatchAgainstJustFileName(L"", L"x"), 0);
    for (const char* function : {"MatchAgainstWildCardPattern", "MatchAgainstPattern", "MatchAgainstJustFileName"})
    {
        EXPECT_TRUE(capture.Has(4, prefix + function, L"One of the parameters was empty. Return no match.\n"))
            << function << "\n" << capture.Dump();
    }
    // A folder without a separator counts as invalid.
    capture.Clear();
    EXPECT_EQ(folder(L"C:\\Temp\\a", L"Temp", 1), 0);
    EXPECT_EQ(folder(L"", L"C:\\Temp", 1), 0);
    EXPECT_TRUE(capture.Has(4, prefix + "MatchAgainstFolder",
                            L"One of the parameters was empty or invalid. Return no match.\n"))
        << capture.Dump();
}

TEST(MatchAgainstWildCardPattern, LongInputsUpTo64KGoThroughTheHeapBuffers)
{
    for (size_t length : {1022u, 1023u, 1024u, 4000u, 65535u})
    {
        std::wstring path = L"C:\\" + std::wstring(length, L'a') + L"\\b.exe";
        EXPECT_EQ(walk(path, L"c:\\*\\*.EXE", 0), 1) << length;
        EXPECT_EQ(walk(path, path, 0), 1) << length;
        std::wstring longPattern = L"C:\\" + std::wstring(length, L'?') + L"\\b.exe";
        EXPECT_EQ(walk(path, longPattern, 0), 1) << length;
        longPattern.back() = L'X';
        EXPECT_EQ(walk(path, longPattern, 0), 0) << length;
        EXPECT_EQ(walk(path, std::wstring(length, L'*'), 0), 0);
        EXPECT_EQ(rule(path, std::wstring(length, L'\\'), 0), 0);
    }
}

TEST(ContainsHelpers, ReportWildcardsSeparatorsAndTildes)
{
    EXPECT_TRUE(CFilePathPatternMatcher::ContainsWildCard(L"a*"));
    EXPECT_TRUE(CFilePathPatternMatcher::ContainsWildCard(L"?"));
    EXPECT_FALSE(CFilePathPatternMatcher::ContainsWildCard(L"a.b"));
    EXPECT_TRUE(CFilePathPatternMatcher::ContainsPath(L"a/b"));
    EXPECT_TRUE(CFilePathPatternMatcher::ContainsPath(L"\\"));
    EXPECT_FALSE(CFilePathPatternMatcher::ContainsPath(L"a:b"));
    EXPECT_TRUE(CFilePathPatternMatcher::ContainsTilde(L"C:\\PROGRA~1"));
    EXPECT_FALSE(CFilePathPatternMatcher::ContainsTilde(L""));
    EXPECT_FALSE(CFilePathPatternMatcher::ContainsTilde(L"C:\\Program Files"));
}

// Invariants of the walk over generated paths and patterns (fixed seed).
TEST(MatchAgainstWildCardPattern, InvariantsHoldOverGeneratedInputs)
{
    std::mt19937 random(20261123u);
    const std::wstring alphabet = L"abAB.\\:/x";
    auto pick = [&](size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(random); };
    auto makeText = [&](size_t maxLength) {
        std::wstring text;
        size_t length = 1 + pick(maxLength);
        for (size_t i = 0; i < length; ++i)
            text.push_back(alphabet[pick(alphabet.size())]);
        return text;
    };
    auto upper = [](std::wstring s) {
        std::transform(s.begin(), s.end(), s.begin(), [](wchar_t c) { return static_cast<wchar_t>(towupper(c)); });
        return s;
    };
    auto separators = [](const std::wstring& s, bool slash) {
        std::wstring out;
        for (wchar_t c : s)
            if (c == L'\\' || c == L':' || (slash && c == L'/'))
                out.push_back(c);
        return out;
    };
    const std::wstring padding = L"c:\\" + std::wstring(1100, L'p') + L"\\";

    int matches = 0;
    for (int round = 0; round < 4000; ++round)
    {
        std::wstring path = makeText(12);
        // Half of the patterns are derived from the path, so that many match.
        std::wstring pattern = pick(2) == 0 ? makeText(12) : path;
        size_t edits = pick(4);
        for (size_t e = 0; e < edits && !pattern.empty(); ++e)
            pattern[pick(pattern.size())] = pick(2) == 0 ? L'*' : L'?';
        int flag = static_cast<int>(pick(2));
        SCOPED_TRACE(QXTest::Narrow(L"path=[" + path + L"] pattern=[" + pattern + L"] flag=" + std::to_wstring(flag)));

        int result = walk(path, pattern, flag);
        matches += result;
        // Case never matters.
        EXPECT_EQ(walk(upper(path), pattern, flag), result);
        EXPECT_EQ(walk(path, upper(pattern), flag), result);
        // A pattern without wildcards matches only its own text.
        if (pattern.find_first_of(L"*?") == std::wstring::npos)
        {
            EXPECT_EQ(result, upper(path) == upper(pattern) ? 1 : 0);
        }
        // Wildcards never consume a separator: every separator of the path
        // is matched by the same separator of the pattern.
        if (result == 1)
        {
            EXPECT_EQ(separators(path, flag != 0), separators(pattern, flag != 0));
        }
        // The heap buffers (1023 characters and more) give the same answer.
        EXPECT_EQ(walk(padding + path, padding + pattern, flag), result);
    }
    EXPECT_GT(matches, 400); // the generator does produce matching pairs
}

TEST(MatchAgainstWildCardPattern, ShortInputsAllocateNothingLongOnesDo)
{
    // The fold table is built on first use; build it outside the count.
    walk(L"a", L"a", 0);
    std::wstring shortPath = L"C:\\" + std::wstring(1000, L'a') + L"\\b.exe";
    std::wstring shortPattern = L"C:\\*\\" + std::wstring(500, L'?') + L"*";
    ASSERT_LT(shortPath.size(), 1023u);
    std::wstring longPath = L"C:\\" + std::wstring(2000, L'a') + L"\\b.exe";
    // The arguments are made before counting: only the matcher's own work counts.
    const std::wstring folderPattern = L"c:\\*\\B.EXE";
    const std::wstring rulePattern = L"c:\\*\\b.*";

    QXTest::AllocationCounter counter;
    ASSERT_TRUE(counter.Installed()) << "the allocation hook could not be placed";
    counter.Reset();
    EXPECT_EQ(walk(shortPath, folderPattern, 1), 1);
    EXPECT_EQ(walk(shortPath, shortPattern, 0), 0);
    EXPECT_EQ(rule(shortPath, rulePattern, 0), 1);
    EXPECT_EQ(counter.Count(), 0u);

    // Control: the 2,000-character path takes the heap buffer, and the hook sees it.
    counter.Reset();
    EXPECT_EQ(walk(longPath, folderPattern, 1), 1);
    EXPECT_GE(counter.Count(), 1u);
}
