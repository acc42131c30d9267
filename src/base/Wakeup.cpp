#include "Wakeup.h"

namespace zandor {

void Wakeup::signal() {
    // Notified after the lock is let go, so that the woken thread does not run only to wait for the
    // lock again (a context switch a frame, measured). The signaller may thus still use the Wakeup
    // just after a waiter returned: it is shared by both, never destroyed by the waiter alone.
    {
        std::scoped_lock lock(m_mutex);
        m_signalled = true;
    }
    m_condition.notify_one();
}

bool Wakeup::wait(std::chrono::nanoseconds timeout) {
    std::unique_lock lock(m_mutex);
    bool woken = m_condition.wait_for(lock, timeout, [this] { return m_signalled; });
    m_signalled = false;
    return woken;
}

} // namespace zandor
