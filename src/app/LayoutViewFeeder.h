#pragma once

#include "base/Guarded.h"
#include "base/Worker.h"
#include "capture/CaptureData.h"
#include "capture/Observer.h"
#include "layouts/CaptureLayout.h"

#include <functional>
#include <memory>

namespace zandor {

// The layout view's side that runs off the GUI thread: subscribes to the layout, takes each frame
// on a thread of its own as it arrives, keeps it as the latest and asks for a redraw. Owned by a
// shared_ptr, which its thread holds too, so it outlives the view if need be.
class LayoutViewFeeder : public std::enable_shared_from_this<LayoutViewFeeder> {
public:
    // What the feeder's thread and the GUI thread share.
    struct Shown {
        LayoutPtr layout;
        ObserverPtr observer;
        bool listening = false;
        CaptureDataPtr latest;
        CaptureDataPtr older;
    };
    using Locked = Guarded<Shown>::Locked;

    // `redraw` is called on the feeder's thread whenever a new frame is waiting.
    explicit LayoutViewFeeder(std::function<void()> redraw);

    void setLayout(const LayoutPtr& layout);
    LayoutPtr layout();
    bool startListening();
    // Ends the run and joins the feeder's thread (bounded).
    void stopListening();
    bool isListening();

    // Holds the shared state for as long as the returned view lives: keep it while a frame's
    // bytes are read.
    Locked lock() { return m_shown.lock(); }
    // The frame to draw now, by the draw-twice rule: the latest if one came since the last draw
    // (it is kept as the older one), else the older one once more (then forgotten), else none.
    static CaptureDataPtr frameToDraw(const Locked& shown);

private:
    void listener(const Worker::Run& run, const ObserverPtr& observer);
    bool updater(const LayoutPtr& layout, const ObserverPtr& observer);

    const std::function<void()> m_redraw;
    Guarded<Shown> m_shown;
    // Last: destroyed first, it joins the thread before the members above go.
    Worker m_worker{"zandor-view"};
};

} // namespace zandor
