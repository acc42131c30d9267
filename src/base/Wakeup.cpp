#include "Wakeup.h"

namespace zandor {

void Wakeup::signal() {
    // Notified under the lock: a waiter that returns may destroy the Wakeup at once (one made for a
    // single hand-over), and must not do so while this call still uses it.
    std::scoped_lock lock(m_mutex);
    m_signalled = true;
    m_condition.notify_one();
}

bool Wakeup::wait(std::chrono::nanoseconds timeout) {
    std::unique_lock lock(m_mutex);
    bool woken = m_condition.wait_for(lock, timeout, [this] { return m_signalled; });
    m_signalled = false;
    return woken;
}

} // namespace zandor
