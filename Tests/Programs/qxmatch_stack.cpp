// Runs one regular-expression case on a 256 KiB thread (the size of the small
// threads of hooked processes) and exits with the answer: 0 match, 1 no match,
// 2 usage, 3 refused, 5 no answer; a stack overflow ends the process with its
// exception code. "std-search" runs the standard library's default executor,
// as a control that the stack really is small.

#include "QXCommon/GlobWildcardString.h"
#include "QXCommon/QXRegEx.h"
#include "QXCommon/RegExHelpers.h"

#include <windows.h>

#include <atlbase.h>

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
    const std::wstring x28(28, L'x'), x32767(32767, L'x'), a32767(32767, L'a'), a256(256, L'a');
    const std::wstring nested = Repeat(L"(", 64) + L"a" + Repeat(L")", 64) + L"+b";
    const struct
    {
        const wchar_t* name;
        std::wstring expression, text;
    } searches[] = {
        {L"alternation-match", L"(a|b)*c", ab + L"c"},
        {L"alternation-nomatch", L"^(a|b)*c$", ab + L"d"},
        {L"exploding-short", L"(.|.)*!$", x28},
        {L"exploding-long", L"(.|.)*!$", x32767},
        {L"exploding-long-match", L"(.|.)*!$", std::wstring(32766, L'x') + L"!"},
        {L"lookahead-long", L"(?=.*y)x", x32767},
        {L"optional-chain", L"^(?:a?){500}$", a32767},
        {L"optional-chain-match", L"^(?:a?){500}$", std::wstring(400, L'a')},
        {L"nested-groups", nested, std::wstring(32766, L'a') + L"b"},
        {L"long-expression", Repeat(L"a", 2048), std::wstring(3000, L'a')},
        {L"long-expression-long-text", Repeat(L"a", 2048), std::wstring(30000, L'a')},
        {L"backref-short", L"(\\w+)\\\\\\1", L"c:\\windows\\windows"},
        {L"backref-long", L"(a)\\1", std::wstring(5000, L'a')},
        {L"backref-big-program", L"^(?:a?){700}(a)\\1$", a256},
        {L"backref-big-program-nomatch", L"^(?:a?){700}(a)\\1b$", a256},
        {L"backref-exploding", L"^(.|.)*\\1!$", x28},
    };
    for (const auto& search : searches)
        if (name == search.name)
            return Search(search.expression, search.text);
    if (name == L"glob-long")
        return Glob(L"*a*b*c*", ab);
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
    ATL::CHandle thread(
        CreateThread(nullptr, 256 * 1024, &ThreadMain, &job, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr));
    if (thread == nullptr)
    {
        std::fwprintf(stderr, L"CreateThread failed - error %lu\n", GetLastError());
        return 3;
    }
    DWORD start = GetTickCount();
    WaitForSingleObject(thread, INFINITE);
    DWORD threadExit = 0;
    GetExitCodeThread(thread, &threadExit);
    std::wprintf(L"%ls: result %d in %lu ms (thread exit 0x%08lX)\n", job.name.c_str(), job.result,
                 GetTickCount() - start, threadExit);
    std::fflush(stdout);
    return job.result;
}
