#include "CaptureScreen.h"

#include "ScreenCut.h"
#include "base/Log.h"

namespace zandor {

namespace {
const char* screenName(ScreenId id) {
    switch (id) {
    case ScreenId::Top:
        return "top";
    case ScreenId::Bottom:
        return "bottom";
    case ScreenId::TopRight:
        return "top right";
    }
    return "";
}
} // namespace

CaptureScreen::CaptureScreen(ScreenId id)
    : Observable(QueueLength), m_width(screenColumns(id)), m_height(ColumnPixels), m_id(id),
      m_pool(FramePool::create(m_width * m_height * 3, QueueLength + 2)),
      m_worker(id == ScreenId::Top      ? "zandor-top"
               : id == ScreenId::Bottom ? "zandor-bottom"
                                        : "zandor-right") {}

CaptureScreen::~CaptureScreen() {
    if (!m_worker.stopAndJoin()) {
        logs::capture.warning("The thread of the %s screen did not end in time", screenName(m_id));
    }
}

bool CaptureScreen::startListening(Observable& source) {
    std::scoped_lock lock(m_lock);
    if (!m_listening) {
        m_source = &source;
        m_observer = source.addObserver(m_worker.wakeup());
        // The thread owns the run's subscription: frames still queued in it go when the thread
        // ends, not at the next start.
        m_worker.start([this, &source, observer = m_observer](const Worker::Run& run) {
            while (run.active()) {
                if (!update(source, observer)) {
                    run.wait();
                }
            }
        });
        m_listening = true;
    }
    return true;
}

void CaptureScreen::stopListening() {
    std::scoped_lock lock(m_lock);
    if (m_source) {
        m_source->removeObserver(m_observer);
    }
    m_observer = nullptr;
    m_listening = false;
    m_worker.stop();
    endDropRun();
    if (const uint64_t dropped = m_drops.endRun()) {
        logs::capture.warning(
            "%llu frames were skipped in this run as the buffer for the %s screen became too large",
            static_cast<unsigned long long>(dropped), screenName(m_id));
    }
}

bool CaptureScreen::join() {
    return m_worker.join();
}

bool CaptureScreen::isListening() {
    std::scoped_lock lock(m_lock);
    return m_listening;
}

bool CaptureScreen::update(Observable& source, const ObserverPtr& observer) {
    // The source's lock is taken only inside observe; ours only to publish.
    CaptureDataPtr raw = source.observe(observer);
    if (!raw) {
        return false;
    }
    if (!hasObservers()) {
        // Nobody looks at this screen (the right eye of a flat layout, say): no cut.
        return true;
    }
    auto frame = m_pool->take();
    frame->takeTimesOf(*raw);
    cut(raw->data(), raw->columnOrder(), m_id, frame->data());

    std::scoped_lock lock(m_lock);
    if (m_listening && add(frame) && m_drops.dropped()) {
        logs::capture.warning("Frame was skipped as the buffer for the %s screen became too large",
                              screenName(m_id));
    }
    return true;
}

void CaptureScreen::cut(const uint8_t* picture, ColumnOrder order, ScreenId id, uint8_t* rows) {
    ScreenCut::cut(picture, order, id, rows);
}

void CaptureScreen::cut(const uint8_t* area, uint8_t* rows, uint64_t width, uint64_t height) {
    ScreenCut::cut(area, rows, width, height);
}

} // namespace zandor
