// Expansion of realistic rule strings against a user's table: with the cache
// (every call a hit), without it, and by the system (ExpandEnvironmentStringsW)
// on the same strings; and normalisation of real paths against a naive
// per-variable replace.

#include "Bench.h"

#include "QXCommon/EnvironmentEx.h"

#include <atlsecurity.h>

#include <cwctype>

namespace
{
const wchar_t* const RuleStrings[] = {
    L"%ProgramFiles%\\Vendor\\App\\app.exe",
    L"%ProgramFiles(x86)%\\Common Files\\Updater\\*.exe",
    L"%SystemRoot%\\System32\\WindowsPowerShell\\v1.0\\powershell.exe",
    L"%windir%\\System32\\cmd.exe",
    L"%LOCALAPPDATA%\\Temp\\*\\setup.exe",
    L"%APPDATA%\\Microsoft\\Windows\\Start Menu\\Programs\\*",
    L"%UserProfile%\\Downloads\\*.msi",
    L"%TEMP%\\*.exe",
    L"%ProgramData%\\Vendor\\Agent\\agent.exe",
    L"%SystemDrive%\\Tools\\%USERNAME%\\bin\\tool.exe",
    L"%CommonProgramFiles%\\System\\ado\\msado15.dll",
    L"%ALLUSERSPROFILE%\\Packages\\%ComputerName%.log",
};

void LoadOwnTable(QXCommon::CEnvironmentEx& env)
{
    CAccessToken token;
    if (token.GetProcessToken(TOKEN_READ | TOKEN_QUERY | TOKEN_DUPLICATE))
        env.LoadFromTokenHandle(token.GetHandle(), 0);
}

void Lower(std::wstring& text)
{
    for (wchar_t& c : text)
        c = static_cast<wchar_t>(towlower(c));
}

void RunExpansion(qxbench::Runner& runner)
{
    const size_t count = sizeof RuleStrings / sizeof RuleStrings[0];
    QXCommon::CEnvironmentEx cached(1);
    QXCommon::CEnvironmentEx uncached(0);
    LoadOwnTable(cached);
    LoadOwnTable(uncached);
    std::wstring out;
    for (const wchar_t* rule : RuleStrings)
        cached.ExpandString(rule, out); // fill the cache

    wchar_t buffer[4096];
    auto system = [&] {
        for (const wchar_t* rule : RuleStrings)
        {
            DWORD n = ExpandEnvironmentStringsW(rule, buffer, 4096);
            qxbench::KeepAlive(n);
        }
    };
    runner.Compare(L"env.expand.cached", L"ExpandEnvironmentStringsW", [&] {
        for (const wchar_t* rule : RuleStrings)
        {
            cached.ExpandString(rule, out);
            qxbench::KeepAlive(out);
        }
    }, system, count, L"cache hit: one map lookup under a read lock");
    runner.Compare(L"env.expand.uncached", L"ExpandEnvironmentStringsW", [&] {
        for (const wchar_t* rule : RuleStrings)
        {
            uncached.ExpandString(rule, out);
            qxbench::KeepAlive(out);
        }
    }, system, count, L"passes over the whole table per string");
    runner.Compare(L"env.expand.cache-saving", L"env.expand.uncached", [&] {
        for (const wchar_t* rule : RuleStrings)
        {
            cached.ExpandString(rule, out);
            qxbench::KeepAlive(out);
        }
    }, [&] {
        for (const wchar_t* rule : RuleStrings)
        {
            uncached.ExpandString(rule, out);
            qxbench::KeepAlive(out);
        }
    }, count, L"what the cache saves");
}

void RunNormalise(qxbench::Runner& runner)
{
    QXCommon::CEnvironmentEx env(0);
    LoadOwnTable(env);
    std::vector<std::wstring> paths;
    for (const wchar_t* rule : RuleStrings)
    {
        std::wstring expanded;
        if (env.ExpandString(rule, expanded) == 1)
            paths.push_back(expanded);
    }
    paths.push_back(L"D:\\Data\\Not\\Under\\Any\\Variable.exe");

    // The naive peer: every normalisation variable, in table order, replaced
    // wherever its value occurs (no longest-first order, so "C:" can win).
    std::vector<std::pair<std::wstring, std::wstring>> naive;
    for (const wchar_t* name : {L"systemroot", L"systemdrive", L"programfiles", L"programfiles(x86)", L"programdata",
                                L"localappdata", L"appdata", L"userprofile", L"temp"})
    {
        std::wstring value;
        if (env.Lookup(name, value) == 1 && !value.empty())
        {
            Lower(value);
            naive.emplace_back(value, L"%" + std::wstring(name) + L"%");
        }
    }
    std::wstring work;
    runner.Compare(L"env.normalise", L"naive per-variable replace", [&] {
        for (const auto& path : paths)
        {
            work = path;
            env.NormalisePaths(work);
            qxbench::KeepAlive(work);
        }
    }, [&] {
        for (const auto& path : paths)
        {
            work = path;
            Lower(work);
            for (const auto& [value, token] : naive)
                for (size_t at = work.find(value); at != std::wstring::npos; at = work.find(value, at + token.size()))
                    work.replace(at, value.size(), token);
            qxbench::KeepAlive(work);
        }
    }, paths.size(), L"longest value first");
}
} // namespace

QXBENCH_CASE(L"env.expand", &RunExpansion);
QXBENCH_CASE(L"env.normalise", &RunNormalise);
