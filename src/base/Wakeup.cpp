#include "Wakeup.h"

namespace zandor {

void Wakeup::signal() {
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
