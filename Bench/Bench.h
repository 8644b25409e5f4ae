#pragma once
// qxbench: times QXCommon against a peer (the platform's own function, or an
// alternative) in the same run, and prints both figures and their ratio. Each
// case lives in its own Bench*.cpp file and registers itself with
// QXBENCH_CASE. Timings are the best of several rounds in which the two sides
// alternate, so that a noisy, shared machine disturbs both alike.

#include <windows.h>

#include <functional>
#include <string>
#include <vector>

namespace qxbench
{
struct Result
{
    std::wstring name;      // what was timed
    std::wstring peerName;  // what it was compared with ("" when there is no peer)
    double oursNs = 0;      // nanoseconds per operation
    double peerNs = 0;
    std::wstring note;
};

class Runner
{
public:
    Runner(bool quick, bool json) : m_quick(quick), m_json(json) {}

    // Times ours() and peer() alternately. Each call performs opsPerCall
    // operations (a whole corpus, say); the figures are per operation.
    // peer may be empty (then only ours is timed).
    Result Compare(const std::wstring& name, const std::wstring& peerName, const std::function<void()>& ours,
                   const std::function<void()>& peer, size_t opsPerCall = 1, const std::wstring& note = L"");

    const std::vector<Result>& Results() const { return m_results; }
    bool Quick() const { return m_quick; }

private:
    bool m_quick;
    bool m_json;
    std::vector<Result> m_results;
};

struct Case
{
    const wchar_t* name;
    void (*run)(Runner& runner);
};

struct Registrar
{
    explicit Registrar(const Case& benchCase);
};

const std::vector<Case>& Cases();

// Keeps the optimiser from dropping a computed value.
template <typename T>
inline void KeepAlive(const T& value)
{
    asm volatile("" : : "g"(&value) : "memory");
}
} // namespace qxbench

#define QXBENCH_CONCAT_(a, b) a##b
#define QXBENCH_CONCAT(a, b) QXBENCH_CONCAT_(a, b)
#define QXBENCH_CASE(name, function)                                                                               \
    static ::qxbench::Registrar QXBENCH_CONCAT(qxbenchRegistrar_, __LINE__)(::qxbench::Case{name, function})
