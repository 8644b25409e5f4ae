#include "Stream.h"

#include "QXCommon/HashStrategyShaCacheHelper.h"

#include <cwchar>

namespace qxinspect
{
using QXCommon::HashStrategyShaCacheHelper;

bool ParseThreads(const ArgParser& parser, uint32_t& threads, std::wstring& error)
{
    threads = 4;
    const auto text = parser.Value(L"--threads");
    if (text && (!ParseNumber32(*text, threads) || threads == 0 || threads > MaxThreads))
    {
        error = L"--threads needs a number from 1 to 64, not " + *text;
        return false;
    }
    return true;
}

Progress::Progress(const wchar_t* unit)
    : m_unit(unit), m_on(StderrIsTerminal()), m_start(std::chrono::steady_clock::now()), m_shown(m_start)
{
}

Progress::~Progress()
{
    Clear();
}

void Progress::Show(size_t done, size_t read, bool ended)
{
    const auto now = std::chrono::steady_clock::now();
    if (!m_on || now - m_shown < std::chrono::milliseconds(250))
        return;
    m_shown = now;
    const double seconds = std::chrono::duration<double>(now - m_start).count();
    wchar_t rate[32];
    std::swprintf(rate, 32, L"%.1f", seconds > 0 ? static_cast<double>(done) / seconds : 0.0);
    std::wstring line = L"qxinspect: " + std::to_wstring(done) + L"/" + std::to_wstring(read) + (ended ? L"" : L"+") +
                        L" " + m_unit + L", " + rate + L" " + m_unit + L"/s";
    const size_t width = line.size();
    if (width < m_width)
        line.append(m_width - width, L' ');
    m_width = width;
    Err(L"\r" + line);
}

void Progress::Clear()
{
    if (m_on && m_width > 0)
        Err(L"\r" + std::wstring(m_width, L' ') + L"\r");
    m_width = 0;
}

WorkerProviders::WorkerProviders() : m_slot(HashStrategyShaCacheHelper::InitTLS() != FALSE)
{
}

WorkerProviders::~WorkerProviders()
{
    if (m_slot)
        HashStrategyShaCacheHelper::UninitTLS();
}

WorkerProviders::Thread::Thread() : shared(HashStrategyShaCacheHelper::CreateSharedContext() != FALSE)
{
}

WorkerProviders::Thread::~Thread()
{
    if (shared)
        HashStrategyShaCacheHelper::DestroySharedContext();
}
} // namespace qxinspect
