#pragma once

#include "capture/CaptureData.h"
#include "capture/Observer.h"
#include "layouts/CaptureLayout.h"

#include <functional>
#include <memory>
#include <mutex>

namespace zandor {

class Wakeup;

// The layout view's side that runs off the GUI thread: subscribes to the layout, takes each frame
// on a thread of its own as it arrives, keeps it as the latest and asks for a redraw. Owned by a
// shared_ptr, which its thread holds too, so it outlives the view if need be.
class LayoutViewFeeder : public std::enable_shared_from_this<LayoutViewFeeder> {
public:
    // `redraw` is called on the feeder's thread whenever a new frame is waiting.
    explicit LayoutViewFeeder(std::function<void()> redraw);

    void setLayout(const LayoutPtr& layout);
    LayoutPtr layout();
    bool startListening();
    void stopListening();
    bool isListening();

    // The frame to draw now, by the draw-twice rule: the latest if one came since the last draw
    // (it is kept as the older one), else the older one once more (then forgotten), else none.
    // Call with lock() held, and keep holding it while the frame's bytes are read.
    CaptureDataPtr frameToDraw();
    std::recursive_mutex& lock() { return m_lock; }

private:
    void listener(const ObserverPtr& observer);
    bool updater(const LayoutPtr& layout, const ObserverPtr& observer);

    const std::function<void()> m_redraw;
    const std::shared_ptr<Wakeup> m_wakeup;
    // Guards everything below, between the feeder's thread and the GUI thread.
    std::recursive_mutex m_lock;
    LayoutPtr m_layout;
    ObserverPtr m_observer;
    bool m_listening = false;
    CaptureDataPtr m_latest;
    CaptureDataPtr m_older;
};

} // namespace zandor
