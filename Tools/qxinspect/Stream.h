#pragma once
// Many inputs answered on worker threads, the answers handed back in input
// order: an answer is handed to the calling thread as soon as it and every
// answer before it are decided, so that output streams while later inputs
// are still being read and worked on. At most Window inputs are held between
// reading and handing back (the slowest of them holds the rest back), so a
// run of 100,000 lines holds a few hundred answers, not 100,000.
//
// Each worker hashes with its own cached provider while it runs. Progress
// (done/read, per second) is shown on standard error when it is a terminal.

#include "Inputs.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace qxinspect
{
constexpr size_t Window = 256;
constexpr uint32_t MaxThreads = 64;

// --threads N (1 to 64, default 4); false with why.
bool ParseThreads(const ArgParser& parser, uint32_t& threads, std::wstring& error);

// The progress line on standard error (only when it is a terminal).
class Progress
{
public:
    explicit Progress(const wchar_t* unit);
    ~Progress();
    // Shows done of read (read grows while input is read; "+" until it ended),
    // at most a few times a second.
    void Show(size_t done, size_t read, bool ended);
    // Takes the line away (before answers are written, and at the end).
    void Clear();

private:
    const wchar_t* m_unit;
    bool m_on;
    std::chrono::steady_clock::time_point m_start, m_shown;
    size_t m_width = 0;
};

// The thread slot of the cached hash providers, for the run's workers.
class WorkerProviders
{
public:
    WorkerProviders();
    ~WorkerProviders();
    WorkerProviders(const WorkerProviders&) = delete;
    WorkerProviders& operator=(const WorkerProviders&) = delete;
    // Run on each worker thread: its provider while it lives.
    struct Thread
    {
        Thread();
        ~Thread();
        bool shared;
    };

private:
    bool m_slot;
};

// Reads every input, runs work(input) for each on `threads` worker threads
// and calls emit(input, answer) on the calling thread in input order. emit
// returns false to stop the run (the output's reader has gone): no more
// input is read, and what is under way finishes. Returns the number of
// inputs handed back.
template <typename Answer>
size_t RunInOrder(Inputs& inputs, unsigned threads, const wchar_t* unit,
                  const std::function<Answer(const Input&)>& work,
                  const std::function<bool(const Input&, Answer&)>& emit)
{
    struct Slot
    {
        Input input;
        bool taken = false;
        std::optional<Answer> answer;
    };
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Slot> slots; // from the oldest not handed back
    size_t handed = 0, read = 0;
    bool ended = false, stop = false;
    constexpr auto Tick = std::chrono::milliseconds(250);

    // The reader: one input at a time, while the window has room.
    std::thread reader([&] {
        for (;;)
        {
            {
                std::unique_lock<std::mutex> lock(mutex);
                while (!stop && read - handed >= Window)
                    changed.wait_for(lock, Tick);
                if (stop)
                    break;
            }
            Input input;
            const bool got = inputs.Next(input);
            std::lock_guard<std::mutex> lock(mutex);
            if (!got)
                break;
            slots.push_back(Slot{std::move(input)});
            ++read;
            changed.notify_all();
        }
        std::lock_guard<std::mutex> lock(mutex);
        ended = true;
        changed.notify_all();
    });

    WorkerProviders providers;
    auto worker = [&] {
        WorkerProviders::Thread provider;
        std::unique_lock<std::mutex> lock(mutex);
        for (;;)
        {
            if (stop)
                return;
            Slot* next = nullptr;
            for (Slot& slot : slots)
                if (!slot.taken)
                {
                    next = &slot;
                    break;
                }
            if (next == nullptr)
            {
                if (ended)
                    return;
                changed.wait_for(lock, Tick);
                continue;
            }
            // A slot stays where it is until it is handed back: the deque only
            // grows at its end and shrinks at its front, which keeps it put.
            next->taken = true;
            const Input& input = next->input;
            lock.unlock();
            Answer answer = work(input);
            lock.lock();
            next->answer.emplace(std::move(answer));
            changed.notify_all();
        }
    };
    std::vector<std::thread> pool;
    for (unsigned k = 0; k < std::max(1u, threads); ++k)
        pool.emplace_back(worker);

    Progress progress(unit);
    {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;)
        {
            progress.Show(handed, read, ended);
            if (!slots.empty() && slots.front().answer)
            {
                Slot slot = std::move(slots.front());
                slots.pop_front();
                ++handed;
                changed.notify_all();
                lock.unlock();
                progress.Clear();
                const bool more = emit(slot.input, *slot.answer);
                lock.lock();
                if (!more)
                {
                    stop = true;
                    changed.notify_all();
                    break;
                }
                continue;
            }
            if (ended && slots.empty())
                break;
            changed.wait_for(lock, Tick);
        }
    }
    for (std::thread& thread : pool)
        thread.join();
    reader.join();
    return handed;
}
} // namespace qxinspect
