#include "Recorder.h"

#include "base/DetachedThread.h"
#include "base/Wakeup.h"

#include <algorithm>

namespace zandor {

Recorder::Recorder(std::vector<LayoutPtr> layouts)
    : m_layouts(std::move(layouts)), m_wakeup(std::make_shared<Wakeup>()) {}

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
    std::scoped_lock lock(m_lock);
    return m_listening;
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
    std::scoped_lock lock(m_lock);
    if (m_listening) {
        return true;
    }
    Run run;
    for (const auto& layout : m_layouts) {
        run.observers.push_back(layout->addObserver(m_wakeup));
        layout->startListening();
    }
    run.done.assign(m_layouts.size(), 0);
    m_observers = run.observers;
    ++m_threads;
    DetachedThread::start("zandor-recorder", [recorder = shared_from_this(), run = std::move(run)]() mutable {
        recorder->listener(std::move(run));
    });
    m_listening = true;
    return true;
}

void Recorder::stopListening() {
    std::scoped_lock lock(m_lock);
    if (!m_listening) {
        return;
    }
    for (size_t i = 0; i < m_layouts.size(); ++i) {
        m_layouts[i]->removeObserver(m_observers[i]);
    }
    m_listening = false;
    m_wakeup->signal();
}

void Recorder::listener(Run run) {
    for (;;) {
        {
            std::scoped_lock lock(m_lock);
            // A stop followed at once by a new start gives the new run its own thread.
            if (!m_listening || m_observers != run.observers) {
                break;
            }
        }
        if (!update(run)) {
            m_wakeup->wait(Wakeup::IdleWait);
        }
    }
    tryDone();
    std::scoped_lock lock(m_lock);
    --m_threads;
    m_finished.notify_all();
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
    std::unique_lock lock(m_lock);
    return m_finished.wait_for(lock, timeout, [this] { return !m_listening && m_threads == 0; });
}

} // namespace zandor
