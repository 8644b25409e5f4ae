// Runs one regular-expression case on a thread with a 256 KiB stack, the
// size of the small threads of hooked processes, and reports the answer in
// its exit code: 0 match, 1 no match, 2 usage, 3 the expression was refused,
// 5 the thread ended without an answer. A stack
// overflow ends the process with its exception code. "std-search" runs the
// standard library's default executor directly, as a control that the stack
// really is small.

#include "QXCommon/GlobWildcardString.h"
#include "QXCommon/QXRegEx.h"
#include "QXCommon/RegExHelpers.h"

#include <windows.h>

#include <cstdio>
#include <regex>
#include <string>

namespace
{
struct Job
{
    std::wstring name;
    int result = 5; // stays 5 when the thread ends without an answer
};

std::wstring Repeat(const std::wstring& unit, size_t count)
{
    std::wstring text;
    for (size_t i = 0; i < count; ++i)
        text += unit;
    return text;
}

int Search(const std::wstring& expression, const std::wstring& text)
{
    QXCommon::RegExHelpers::CQXRegEx regex;
    if (!regex.Parse(expression))
        return 3;
    return regex.Match(text) ? 0 : 1;
}

int Glob(const std::wstring& glob, const std::wstring& text)
{
    QXCommon::RegExHelpers::GlobWildcardString pattern;
    if (!pattern.Parse(glob))
        return 3;
    return pattern.Match(text) ? 0 : 1;
}

int RunCase(const std::wstring& name)
{
    const std::wstring ab = Repeat(L"ab", 16383); // 32,766 characters
    if (name == L"alternation-match")
        return Search(L"(a|b)*c", ab + L"c");
    if (name == L"alternation-nomatch")
        return Search(L"^(a|b)*c$", ab + L"d");
    if (name == L"exploding-short")
        return Search(L"(.|.)*!$", std::wstring(28, L'x'));
    if (name == L"exploding-long")
        return Search(L"(.|.)*!$", std::wstring(32767, L'x'));
    if (name == L"exploding-long-match")
        return Search(L"(.|.)*!$", std::wstring(32766, L'x') + L"!");
    if (name == L"lookahead-long")
        return Search(L"(?=.*y)x", std::wstring(32767, L'x'));
    if (name == L"glob-long")
        return Glob(L"*a*b*c*", ab);
    if (name == L"optional-chain")
        return Search(L"^(?:a?){500}$", std::wstring(32767, L'a'));
    if (name == L"optional-chain-match")
        return Search(L"^(?:a?){500}$", std::wstring(400, L'a'));
    if (name == L"nested-groups")
        return Search(Repeat(L"(", 64) + L"a" + Repeat(L")", 64) + L"+b", std::wstring(32766, L'a') + L"b");
    if (name == L"long-expression")
        return Search(Repeat(L"a", 2048), std::wstring(3000, L'a'));
    if (name == L"long-expression-long-text")
        return Search(Repeat(L"a", 2048), std::wstring(30000, L'a'));
    if (name == L"backref-short")
        return Search(L"(\\w+)\\\\\\1", L"c:\\windows\\windows");
    if (name == L"backref-long")
        return Search(L"(a)\\1", std::wstring(5000, L'a'));
    if (name == L"backref-big-program")
        return Search(L"^(?:a?){700}(a)\\1$", std::wstring(256, L'a'));
    if (name == L"backref-big-program-nomatch")
        return Search(L"^(?:a?){700}(a)\\1b$", std::wstring(256, L'a'));
    if (name == L"backref-exploding")
        return Search(L"^(.|.)*\\1!$", std::wstring(28, L'x'));
    if (name == L"validate-huge")
    {
        int error = 0;
        return ValidateRegularExpression((Repeat(L"(", 20000) + Repeat(L")", 20000)).c_str(), &error) ? 0 : 1;
    }
    if (name == L"std-search")
    {
        std::wregex regex(L"(a|b)*c", std::regex_constants::ECMAScript | std::regex_constants::icase);
        return std::regex_search(Repeat(L"ab", 2500), regex) ? 0 : 1;
    }
    return 2;
}

DWORD WINAPI ThreadMain(void* parameter)
{
    Job* job = static_cast<Job*>(parameter);
    job->result = RunCase(job->name);
    return 0;
}
} // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc != 2)
    {
        std::fwprintf(stderr, L"usage: qxmatch_stack CASE\n");
        return 2;
    }
    Job job;
    job.name = argv[1];
    HANDLE thread = CreateThread(nullptr, 256 * 1024, &ThreadMain, &job, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    if (thread == nullptr)
    {
        std::fwprintf(stderr, L"CreateThread failed - error %lu\n", GetLastError());
        return 3;
    }
    DWORD start = GetTickCount();
    WaitForSingleObject(thread, INFINITE);
    DWORD threadExit = 0;
    GetExitCodeThread(thread, &threadExit);
    CloseHandle(thread);
    std::wprintf(L"%ls: result %d in %lu ms (thread exit 0x%08lX)\n", job.name.c_str(), job.result,
                 GetTickCount() - start, threadExit);
    std::fflush(stdout);
    return job.result;
}
