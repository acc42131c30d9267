#include "Observer.h"

#include "base/Wakeup.h"

namespace zandor {

Observer::Observer(uint8_t identifier, uint64_t bufferSize, std::shared_ptr<Wakeup> wakeup)
    : m_identifier(identifier), m_key(keyWithIdentifier(identifier)), m_bufferSize(bufferSize),
      m_wakeup(std::move(wakeup)) {}

bool Observer::push(CaptureDataPtr frame) {
    bool dropped = false;
    if (m_queue.size() >= m_bufferSize && !m_queue.empty()) {
        m_queue.pop_front();
        dropped = true;
    }
    m_queue.push_back(std::move(frame));
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
    if (m_queue.empty()) {
        return nullptr;
    }
    CaptureDataPtr frame = std::move(m_queue.front());
    m_queue.pop_front();
    return frame;
}

} // namespace zandor
