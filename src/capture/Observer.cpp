#include "Observer.h"

#include "base/Wakeup.h"

#include <algorithm>

namespace zandor {

Observer::Observer(uint8_t identifier, uint64_t bufferSize, std::shared_ptr<Wakeup> wakeup)
    : m_identifier(identifier), m_key(keyWithIdentifier(identifier)), m_bufferSize(bufferSize),
      m_ring(std::max<uint64_t>(bufferSize, 1)), m_wakeup(std::move(wakeup)) {}

bool Observer::push(CaptureDataPtr frame) {
    // A queue of length 0 still takes the newest frame.
    bool dropped = false;
    if (m_count == m_ring.size()) {
        pull();
        dropped = true;
    }
    m_ring[(m_head + m_count) % m_ring.size()] = std::move(frame);
    ++m_count;
    if (m_wakeup) {
        m_wakeup->signal();
    }
    return dropped;
}

void Observer::wake() {
    if (m_wakeup) {
        m_wakeup->signal();
    }
}

CaptureDataPtr Observer::pull() {
    if (m_count == 0) {
        return nullptr;
    }
    CaptureDataPtr frame = std::move(m_ring[m_head]);
    m_head = (m_head + 1) % m_ring.size();
    --m_count;
    return frame;
}

} // namespace zandor
