#include "Recorder.h"

#include "base/Log.h"

#include <algorithm>

namespace zandor {

Recorder::Recorder(std::vector<LayoutPtr> layouts) : m_layouts(std::move(layouts)) {}

Recorder::~Recorder() = default;

QString Recorder::stringWithCurrentDate() {
    return stringWithDate(QDateTime::currentDateTime());
}

QString Recorder::stringWithDate(const QDateTime& date) {
    return date.toLocalTime().toString(QStringLiteral("dd_MM_yyyy HH_mm_ss"));
}

QString Recorder::fileNamePart(const QString& name) {
    QString part = name.left(100);
    for (QChar& c : part) {
        if (c == u'/' || c.category() == QChar::Other_Control) {
            c = u'_';
        }
    }
    return part;
}

bool Recorder::isListening() {
    return m_listening.lock()->listening;
}

bool Recorder::start() {
    m_captured = false;
    startListening();
    // A second request per layout; layouts ignore a start while they run.
    for (const auto& layout : m_layouts) {
        layout->startListening();
    }
    return isListening();
}

bool Recorder::stop() {
    stopListening();
    for (const auto& layout : m_layouts) {
        layout->stopListening();
    }
    return true;
}

bool Recorder::startListening() {
    if (isListening()) {
        return true;
    }
    // The previous run's thread may still be finishing; it takes our lock when it stops us.
    if (!m_worker.join()) {
        logs::recording.warning("A recorder starts again while its last run is still ending");
    }
    auto listening = m_listening.lock();
    if (listening->listening) {
        return true;
    }
    Run run;
    for (const auto& layout : m_layouts) {
        run.observers.push_back(layout->addObserver(m_worker.wakeup()));
        layout->startListening();
    }
    run.done.assign(m_layouts.size(), 0);
    listening->observers = run.observers;
    listening->listening = true;
    m_worker.start([recorder = shared_from_this(), run = std::move(run)](const Worker::Run& worker) mutable {
        recorder->listener(worker, std::move(run));
    });
    return true;
}

void Recorder::stopListening() {
    auto listening = m_listening.lock();
    if (!listening->listening) {
        return;
    }
    for (size_t i = 0; i < m_layouts.size(); ++i) {
        m_layouts[i]->removeObserver(listening->observers[i]);
    }
    listening->observers.clear();
    listening->listening = false;
    m_worker.stop();
}

void Recorder::listener(const Worker::Run& worker, Run run) {
    while (worker.active()) {
        if (!update(run)) {
            worker.wait();
        }
    }
    // The frames that came before the stop and still wait belong to the recording: on a busy
    // machine the recorder may be seconds behind the picture. No new one comes: the layouts have
    // let go of these subscriptions.
    while (update(run)) {
    }
    tryDone();
}

bool Recorder::update(Run& run) {
    bool handed = false;
    for (size_t i = 0; i < m_layouts.size(); ++i) {
        if (run.done[i] || !m_layouts[i]->observable(run.observers[i])) {
            continue;
        }
        handed = true;
        if (capture(m_layouts[i], run.observers[i])) {
            run.done[i] = 1;
            if (std::all_of(run.done.begin(), run.done.end(), [](uint8_t d) { return d != 0; })) {
                tryDone();
            }
        }
    }
    return handed;
}

void Recorder::tryDone() {
    // Set only after the call: a capturedLayouts that stops the recorder is not called again by
    // the thread's final tryDone.
    if (!m_captured) {
        capturedLayouts();
        m_captured = true;
    }
}

bool Recorder::capture(const LayoutPtr& layout, const ObserverPtr& observer) {
    layout->observe(observer);
    return true;
}

bool Recorder::waitUntilFinished(std::chrono::milliseconds timeout) {
    return m_worker.join(timeout);
}

} // namespace zandor
