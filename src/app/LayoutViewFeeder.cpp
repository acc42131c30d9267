#include "LayoutViewFeeder.h"

#include "base/Log.h"

namespace zandor {

LayoutViewFeeder::LayoutViewFeeder(std::function<void()> redraw) : m_redraw(std::move(redraw)) {}

void LayoutViewFeeder::setLayout(const LayoutPtr& layout) {
    auto shown = m_shown.lock();
    shown->layout = layout;
    shown->latest.reset();
    shown->older.reset();
}

LayoutPtr LayoutViewFeeder::layout() {
    return m_shown.lock()->layout;
}

bool LayoutViewFeeder::startListening() {
    if (isListening()) {
        return true;
    }
    if (!m_worker.join()) {
        logs::app.warning("The picture starts again while its last run is still ending");
    }
    auto shown = m_shown.lock();
    if (shown->listening || !shown->layout) {
        return shown->listening;
    }
    shown->observer = shown->layout->addObserver(m_worker.wakeup());
    m_worker.start([feeder = shared_from_this(), observer = shown->observer](const Worker::Run& run) {
        feeder->listener(run, observer);
    });
    shown->listening = true;
    return true;
}

void LayoutViewFeeder::stopListening() {
    {
        auto shown = m_shown.lock();
        if (!shown->listening) {
            return;
        }
        shown->layout->removeObserver(shown->observer);
        shown->observer.reset();
        shown->listening = false;
        m_worker.stop();
    }
    if (!m_worker.join()) {
        logs::app.warning("The picture stopped, but its thread is still ending");
    }
}

bool LayoutViewFeeder::isListening() {
    return m_shown.lock()->listening;
}

void LayoutViewFeeder::listener(const Worker::Run& run, const ObserverPtr& observer) {
    while (run.active()) {
        if (!updater(layout(), observer)) {
            run.wait();
        }
    }
}

bool LayoutViewFeeder::updater(const LayoutPtr& layout, const ObserverPtr& observer) {
    // Pulled without holding our lock: drawing is never held up by the layout.
    CaptureDataPtr frame = layout ? layout->observe(observer) : nullptr;
    if (!frame) {
        return false;
    }
    {
        auto shown = m_shown.lock();
        if (shown->layout != layout) {
            return true; // the frame belongs to a layout no longer shown
        }
        shown->latest = std::move(frame); // a frame not drawn yet is simply replaced
    }
    m_redraw();
    return true;
}

CaptureDataPtr LayoutViewFeeder::frameToDraw(const Locked& shown) {
    if (!shown->layout) {
        return nullptr;
    }
    if (shown->latest) {
        shown->older = std::move(shown->latest);
        return shown->older;
    }
    CaptureDataPtr again = std::move(shown->older);
    return again;
}

} // namespace zandor
