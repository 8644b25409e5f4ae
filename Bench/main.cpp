// qxbench: QXCommon against its peers, measured in one run.
//   qxbench [--quick] [--json] [--list] [FILTER...]
// A case runs when its name contains one of the filters (all when none).

#include "Bench.h"

#include <algorithm>
#include <cstdio>
#include <cwchar>

namespace qxbench
{
namespace
{
std::vector<Case>& Registry()
{
    static std::vector<Case> cases;
    return cases;
}

double NowNs()
{
    static LARGE_INTEGER frequency = [] {
        LARGE_INTEGER f;
        QueryPerformanceFrequency(&f);
        return f;
    }();
    LARGE_INTEGER now;
    QueryPerformanceCounter(&now);
    return static_cast<double>(now.QuadPart) * 1e9 / static_cast<double>(frequency.QuadPart);
}

// Nanoseconds for `reps` calls of fn.
double TimeCalls(const std::function<void()>& fn, size_t reps)
{
    double start = NowNs();
    for (size_t k = 0; k < reps; ++k)
        fn();
    return NowNs() - start;
}

// Enough calls for one batch to last about targetNs.
size_t Calibrate(const std::function<void()>& fn, double targetNs)
{
    size_t reps = 1;
    for (;;)
    {
        double t = TimeCalls(fn, reps);
        if (t >= targetNs / 4 || reps >= (1u << 30))
        {
            double perCall = t / static_cast<double>(reps);
            size_t wanted = perCall > 0 ? static_cast<size_t>(targetNs / perCall) : reps;
            return std::max<size_t>(1, wanted);
        }
        reps *= 4;
    }
}

void Print(const std::wstring& text)
{
    fputws(text.c_str(), stdout);
    fflush(stdout);
}

std::wstring FormatNs(double ns)
{
    wchar_t buffer[32];
    if (ns >= 1e6)
        swprintf(buffer, 32, L"%.2f ms", ns / 1e6);
    else if (ns >= 1e3)
        swprintf(buffer, 32, L"%.2f us", ns / 1e3);
    else
        swprintf(buffer, 32, L"%.1f ns", ns);
    return buffer;
}

std::wstring JsonText(const std::wstring& s)
{
    std::wstring out = L"\"";
    for (wchar_t c : s)
    {
        if (c == L'"' || c == L'\\')
            out += L'\\';
        out += c;
    }
    return out + L"\"";
}
} // namespace

Registrar::Registrar(const Case& benchCase)
{
    Registry().push_back(benchCase);
}

const std::vector<Case>& Cases()
{
    auto& cases = Registry();
    std::sort(cases.begin(), cases.end(), [](const Case& a, const Case& b) { return std::wcscmp(a.name, b.name) < 0; });
    return cases;
}

Result Runner::Compare(const std::wstring& name, const std::wstring& peerName, const std::function<void()>& ours,
                       const std::function<void()>& peer, size_t opsPerCall, const std::wstring& note)
{
    const double batchNs = m_quick ? 20e6 : 100e6;
    const int rounds = m_quick ? 3 : 7;
    size_t oursReps = Calibrate(ours, batchNs);
    size_t peerReps = peer ? Calibrate(peer, batchNs) : 0;
    double bestOurs = 1e300;
    double bestPeer = 1e300;
    for (int r = 0; r < rounds; ++r)
    {
        bestOurs = std::min(bestOurs, TimeCalls(ours, oursReps) / static_cast<double>(oursReps));
        if (peer)
            bestPeer = std::min(bestPeer, TimeCalls(peer, peerReps) / static_cast<double>(peerReps));
    }
    Result result;
    result.name = name;
    result.peerName = peer ? peerName : L"";
    result.oursNs = bestOurs / static_cast<double>(opsPerCall);
    result.peerNs = peer ? bestPeer / static_cast<double>(opsPerCall) : 0;
    result.note = note;
    m_results.push_back(result);

    if (!m_json)
    {
        std::wstring line = L"  " + name + L"\n      ours " + FormatNs(result.oursNs) + L"/op";
        if (peer)
        {
            wchar_t ratio[64];
            swprintf(ratio, 64, L"  ratio peer/ours %.2fx", result.peerNs / result.oursNs);
            line += L"   " + peerName + L" " + FormatNs(result.peerNs) + L"/op" + ratio +
                    (result.peerNs >= result.oursNs ? L" (ours faster)" : L" (peer faster)");
        }
        if (!note.empty())
            line += L"\n      " + note;
        Print(line + L"\n");
    }
    return result;
}
} // namespace qxbench

int wmain(int argc, wchar_t** argv)
{
    bool quick = false;
    bool json = false;
    bool list = false;
    std::vector<std::wstring> filters;
    for (int k = 1; k < argc; ++k)
    {
        std::wstring arg = argv[k];
        if (arg == L"--quick")
            quick = true;
        else if (arg == L"--json")
            json = true;
        else if (arg == L"--list")
            list = true;
        else if (arg == L"--help" || arg == L"-h")
        {
            qxbench::Print(L"usage: qxbench [--quick] [--json] [--list] [FILTER...]\n"
                           L"Times QXCommon against a peer measured in the same run; prints ours, the peer\n"
                           L"and the ratio peer/ours per operation (above 1: ours is faster).\n");
            return 0;
        }
        else if (!arg.empty() && arg[0] == L'-')
        {
            fwprintf(stderr, L"qxbench: unknown option %ls\n", arg.c_str());
            return 2;
        }
        else
            filters.push_back(arg);
    }

    qxbench::Runner runner(quick, json);
    for (const auto& c : qxbench::Cases())
    {
        std::wstring name = c.name;
        bool selected = filters.empty();
        for (const auto& f : filters)
            selected = selected || name.find(f) != std::wstring::npos;
        if (!selected)
            continue;
        if (list)
        {
            qxbench::Print(name + L"\n");
            continue;
        }
        if (!json)
            qxbench::Print(L"[" + name + L"]\n");
        c.run(runner);
    }

    if (json)
    {
        std::wstring out = L"[";
        bool first = true;
        for (const auto& r : runner.Results())
        {
            wchar_t numbers[160];
            swprintf(numbers, 160, L", \"ours_ns\": %.3f, \"peer_ns\": %.3f, \"ratio_peer_over_ours\": %.4f}",
                     r.oursNs, r.peerNs, r.oursNs > 0 && r.peerNs > 0 ? r.peerNs / r.oursNs : 0.0);
            out += (first ? L"\n  {\"name\": " : L",\n  {\"name\": ") + qxbench::JsonText(r.name) + L", \"peer\": " +
                   qxbench::JsonText(r.peerName) + numbers;
            first = false;
        }
        out += L"\n]\n";
        qxbench::Print(out);
    }
    return 0;
}
