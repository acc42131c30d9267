#pragma once

#include "base/Guarded.h"
#include "base/Worker.h"
#include "capture/Observer.h"
#include "layouts/CaptureLayout.h"

#include <QDateTime>
#include <QString>

#include <atomic>
#include <chrono>
#include <memory>
#include <vector>

namespace zandor {

// The common base of the screenshot and video recorders: subscribes to every layout on show, runs a
// thread that hands each frame to the subclass through capture(), and calls capturedLayouts()
// exactly once per run, when every layout is done or when listening stops. Recorders are owned by
// std::shared_ptr (make them with std::make_shared): the thread holds one too.
class Recorder : public std::enable_shared_from_this<Recorder> {
public:
    explicit Recorder(std::vector<LayoutPtr> layouts);
    virtual ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    // "dd_MM_yyyy HH_mm_ss" in local time: part of every file name the recorders make.
    static QString stringWithCurrentDate();
    static QString stringWithDate(const QDateTime& date);
    // A layout's name as it goes into a file name: a slash or a control character would make another
    // folder or no valid name, so each becomes "_"; the name is cut at 100 characters.
    static QString fileNamePart(const QString& name);

    const std::vector<LayoutPtr>& layouts() const { return m_layouts; }
    bool isRecording() { return isListening(); }
    bool isListening();
    virtual bool isDone() { return !isListening(); }

    // Subscribes and starts the thread, then asks every layout to start again. Returns whether
    // the recorder listens. The recorder's lock is the first of the pipeline's (see
    // capture/Observable.h): call start and stop holding none of a producer's.
    virtual bool start();
    // Ends listening and asks every layout to stop (a layout stops once nobody is subscribed).
    // The thread goes on with the frames already queued, then finishes (capturedLayouts):
    // waitUntilFinished joins it.
    virtual bool stop();

    // Joins the thread of the last run, after capturedLayouts; false, logged, on timeout.
    [[nodiscard]] bool waitUntilFinished(std::chrono::milliseconds timeout);

protected:
    // Called on the recorder's thread when the observer holds a frame. Returns whether the
    // subclass is finished with this layout. The base takes one frame and drops it.
    virtual bool capture(const LayoutPtr& layout, const ObserverPtr& observer);
    // Called once per run on the recorder's thread when the recorder is finished.
    virtual void capturedLayouts() {}

private:
    // The subscriptions and progress of one run, owned by that run's thread.
    struct Run {
        std::vector<ObserverPtr> observers;
        std::vector<uint8_t> done;
    };

    // What the callers of start and stop share: whether a run listens and its subscriptions.
    struct Listening {
        bool listening = false;
        std::vector<ObserverPtr> observers;
    };

    bool startListening();
    void stopListening();
    void listener(const Worker::Run& worker, Run run);
    // One pass; returns whether a frame was handed over.
    bool update(Run& run);
    void tryDone();

    const std::vector<LayoutPtr> m_layouts;
    std::atomic<bool> m_captured{false};
    Guarded<Listening> m_listening;
    // Last: destroyed first, it joins the thread before the members above go.
    Worker m_worker{"zandor-recorder"};
};

} // namespace zandor
