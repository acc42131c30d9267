#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace zandor {

// An auto-reset event. A producer calls signal() when it hands a consumer something; the consumer
// calls wait() when a pass found nothing to do. A signal that arrives before the wait is not lost:
// the next wait returns at once and clears it.
class Wakeup {
public:
    Wakeup() = default;
    Wakeup(const Wakeup&) = delete;
    Wakeup& operator=(const Wakeup&) = delete;

    void signal();

    // Returns true when woken by a signal, false when the timeout passed first.
    bool wait(std::chrono::nanoseconds timeout);

    // How long an idle consumer sleeps before it looks at its listening flag again. Every frame
    // queued for it and every stop wakes it at once, so this only bounds a missed wake-up.
    static constexpr std::chrono::milliseconds IdleWait{100};

private:
    std::mutex m_mutex;
    std::condition_variable m_condition;
    bool m_signalled = false;
};

} // namespace zandor
