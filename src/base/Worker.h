#pragma once

#include "Wakeup.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zandor {

// A thread its owner starts, stops and joins, with the Wakeup it sleeps on. Every start begins a
// new generation; the thread of an earlier one sees itself stopped from then on, so that a stop
// followed at once by a start never lets the old thread act for the new run. start() joins the
// previous thread first; a thread that does not end within the bound is logged and joined later,
// at the next join or when the worker is destroyed, never dropped.
class Worker {
public:
    static constexpr std::chrono::seconds JoinTimeout{5};

    // What the thread's body is handed: whether its run goes on, and a way to sleep until woken.
    class Run {
    public:
        // False once the run was stopped or another one started.
        bool active() const;
        // Sleeps until woken or until `timeout` passed; returns active().
        bool wait(std::chrono::nanoseconds timeout = Wakeup::IdleWait) const;
        uint64_t generation() const { return m_generation; }

    private:
        friend class Worker;
        struct State;
        Run(std::shared_ptr<State> state, uint64_t generation)
            : m_state(std::move(state)), m_generation(generation) {}
        std::shared_ptr<State> m_state;
        uint64_t m_generation;
    };

    // `name` names the thread (at most 15 characters are kept); `joinTimeout` bounds the join of
    // start() and of the destructor.
    explicit Worker(std::string name, std::chrono::milliseconds joinTimeout = JoinTimeout);
    ~Worker();
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // Joins the previous run's thread, then runs `body` on a new thread as a new generation.
    // Call holding no lock that a running body takes.
    void start(std::function<void(const Run&)> body);
    // Ends the current run and wakes its thread; does not wait for it. Any lock may be held.
    void stop();
    // Waits, at most `timeout`, for the threads started here to end. False, logged, when one did
    // not. On the worker's own thread it returns true at once: the thread is ending. Call holding
    // no lock that a running body takes.
    [[nodiscard]] bool join(std::chrono::milliseconds timeout = JoinTimeout);
    // Stop, then join.
    [[nodiscard]] bool stopAndJoin(std::chrono::milliseconds timeout = JoinTimeout);

    // A run was started and not stopped.
    bool isActive() const;
    uint64_t generation() const;
    // Signalled by the producers the thread subscribes to, and by stop().
    const std::shared_ptr<Wakeup>& wakeup() const;

    // Worker threads of the whole process that have not ended, for checks that a stopped
    // pipeline left none behind.
    static int running();

private:
    struct Thread;
    bool joinThread(Thread& thread, std::chrono::milliseconds timeout);

    const std::string m_name;
    const std::chrono::milliseconds m_joinTimeout;
    const std::shared_ptr<Run::State> m_state;
    // Only the owner's threads touch these, one at a time.
    std::mutex m_threadsMutex;
    std::vector<std::unique_ptr<Thread>> m_threads;
};

} // namespace zandor
