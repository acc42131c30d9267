#include "LayoutViewFeeder.h"

#include "base/DetachedThread.h"
#include "base/Wakeup.h"

namespace zandor {

LayoutViewFeeder::LayoutViewFeeder(std::function<void()> redraw)
    : m_redraw(std::move(redraw)), m_wakeup(std::make_shared<Wakeup>()) {}

void LayoutViewFeeder::setLayout(const LayoutPtr& layout) {
    std::scoped_lock lock(m_lock);
    m_layout = layout;
    m_latest.reset();
    m_older.reset();
}

LayoutPtr LayoutViewFeeder::layout() {
    std::scoped_lock lock(m_lock);
    return m_layout;
}

bool LayoutViewFeeder::startListening() {
    std::scoped_lock lock(m_lock);
    if (m_listening || !m_layout) {
        return m_listening;
    }
    m_observer = m_layout->addObserver(m_wakeup);
    DetachedThread::start(
        "zandor-view", [feeder = shared_from_this(), observer = m_observer] { feeder->listener(observer); });
    m_listening = true;
    return true;
}

void LayoutViewFeeder::stopListening() {
    std::scoped_lock lock(m_lock);
    if (!m_listening) {
        return;
    }
    m_layout->removeObserver(m_observer);
    m_observer.reset();
    m_listening = false;
    m_wakeup->signal();
}

bool LayoutViewFeeder::isListening() {
    std::scoped_lock lock(m_lock);
    return m_listening;
}

void LayoutViewFeeder::listener(const ObserverPtr& observer) {
    for (;;) {
        LayoutPtr layout;
        {
            std::scoped_lock lock(m_lock);
            if (!m_listening || m_observer != observer) {
                break;
            }
            layout = m_layout;
        }
        if (!updater(layout, observer)) {
            m_wakeup->wait(Wakeup::IdleWait);
        }
    }
}

bool LayoutViewFeeder::updater(const LayoutPtr& layout, const ObserverPtr& observer) {
    // Pulled without holding our lock: drawing is never held up by the layout.
    CaptureDataPtr frame = layout->observable(observer) ? layout->observe(observer) : nullptr;
    if (!frame) {
        return false;
    }
    {
        std::scoped_lock lock(m_lock);
        if (m_layout != layout) {
            return true; // the frame belongs to a layout no longer shown
        }
        m_latest = std::move(frame); // a frame not drawn yet is simply replaced
    }
    m_redraw();
    return true;
}

CaptureDataPtr LayoutViewFeeder::frameToDraw() {
    if (!m_layout) {
        return nullptr;
    }
    if (m_latest) {
        m_older = std::move(m_latest);
        return m_older;
    }
    CaptureDataPtr again = std::move(m_older);
    return again;
}

} // namespace zandor
