#include "Observable.h"

#include "base/Log.h"

#include <vector>

namespace zandor {

Observable::Observable(uint64_t bufferSize) : m_bufferSize(bufferSize) {}

ObserverPtr Observable::addObserver(std::shared_ptr<Wakeup> wakeup) {
    std::scoped_lock lock(m_lock);
    auto observer = std::make_shared<Observer>(m_last, m_bufferSize, std::move(wakeup));
    ++m_last; // 8 bits: 255 wraps to 0
    m_observers[observer->key()] = observer;
    return observer;
}

void Observable::removeObserver(const ObserverPtr& observer) {
    if (!observer) {
        return;
    }
    std::scoped_lock lock(m_lock);
    // The entry under this key may already belong to a newer observer that took over the
    // identifier; the key decides, as for every other lookup.
    if (auto entry = m_observers.find(observer->key()); entry != m_observers.end()) {
        entry->second->wake();
        m_observers.erase(entry);
    }
}

void Observable::removeObservers() {
    for (auto& [key, observer] : m_observers) {
        observer->wake();
    }
    m_observers.clear();
}

bool Observable::hasObservers() {
    std::scoped_lock lock(m_lock);
    return !m_observers.empty();
}

bool Observable::hasObserver(const ObserverPtr& observer) {
    std::scoped_lock lock(m_lock);
    auto entry = observer ? m_observers.find(observer->key()) : m_observers.end();
    return entry != m_observers.end() && entry->second == observer;
}

bool Observable::add(const CaptureDataPtr& frame) {
    std::scoped_lock lock(m_lock);
    bool dropped = false;
    for (auto& [key, observer] : m_observers) {
        if (observer->push(frame)) {
            if (m_observerDrops.dropped()) {
                logs::capture.warning("Skipped frame of observer %i",
                                      static_cast<int>(observer->identifier()));
            }
            ++m_dropped;
            dropped = true;
        }
    }
    return dropped;
}

bool Observable::observable(const ObserverPtr& observer) {
    std::scoped_lock lock(m_lock);
    return observer && !observer->empty();
}

CaptureDataPtr Observable::observe(const ObserverPtr& observer) {
    std::scoped_lock lock(m_lock);
    return observer ? observer->pull() : nullptr;
}

CaptureDataPtr Observable::peek(const ObserverPtr& observer) {
    std::scoped_lock lock(m_lock);
    return observer && !observer->empty() ? observer->front() : nullptr;
}

bool Observable::take(const ObserverPtr& observer, const CaptureDataPtr& frame) {
    std::scoped_lock lock(m_lock);
    if (!observer || observer->empty() || observer->front() != frame) {
        return false;
    }
    observer->pull();
    return true;
}

uint64_t Observable::droppedFrames() {
    std::scoped_lock lock(m_lock);
    return m_dropped;
}

} // namespace zandor
