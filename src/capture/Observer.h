#pragma once

#include "CaptureData.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace zandor {

class Wakeup;

// A subscriber's bounded first-in-first-out queue at one producer: a ring of its length, made once,
// so that queueing a frame allocates nothing. It has no lock of its own: it is only touched under
// its producer's lock.
class Observer {
public:
    using Key = unsigned;

    // `wakeup`, when given, is signalled on every push so that the consumer can sleep while its
    // queues are empty.
    Observer(uint8_t identifier, uint64_t bufferSize, std::shared_ptr<Wakeup> wakeup = nullptr);

    // The dictionary key of an identifier: only its low 8 bits count.
    static Key keyWithIdentifier(uint8_t identifier) { return identifier & 0xFFu; }

    uint8_t identifier() const { return m_identifier; }
    Key key() const { return m_key; }
    bool empty() const { return m_count == 0; }
    uint64_t size() const { return m_count; }
    // The oldest frame; only when not empty.
    const CaptureDataPtr& front() const { return m_ring[m_head]; }
    uint64_t bufferSize() const { return m_bufferSize; }

    // Appends the frame, first dropping the oldest one when the queue is full. Returns whether a
    // frame was dropped; the new one is always accepted.
    bool push(CaptureDataPtr frame);

    // The oldest frame, or null when the queue is empty.
    CaptureDataPtr pull();

    // Wakes the consumer without a frame: its producer let it go.
    void wake();

private:
    uint8_t m_identifier;
    Key m_key;
    uint64_t m_bufferSize;
    std::vector<CaptureDataPtr> m_ring;
    uint64_t m_head = 0;
    uint64_t m_count = 0;
    std::shared_ptr<Wakeup> m_wakeup;
};

using ObserverPtr = std::shared_ptr<Observer>;

} // namespace zandor
