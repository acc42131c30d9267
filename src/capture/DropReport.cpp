#include "DropReport.h"

namespace zandor {

bool DropReport::dropped(std::chrono::steady_clock::time_point now) {
    ++m_count;
    if (m_logged && now - m_lastLine < std::chrono::seconds(1)) {
        return false;
    }
    m_logged = true;
    m_lastLine = now;
    return true;
}

uint64_t DropReport::endRun() {
    const uint64_t count = m_count;
    m_count = 0;
    m_logged = false;
    return count;
}

} // namespace zandor
