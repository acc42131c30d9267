#pragma once

#include "ColumnOrder.h"
#include "FramePool.h"
#include "Observable.h"
#include "base/Worker.h"

#include <cstdint>
#include <memory>

namespace zandor {

// One of the handheld's screens (the top one, the bottom one, or the right eye of the 3D picture):
// takes each raw frame from its source (the device), turns its own columns into rows of 3 bytes a
// pixel and publishes that with the raw frame's time
// stamp. It knows its source only while a run lasts, as the Observable handed to startListening.
class CaptureScreen final : public Observable {
public:
    static constexpr uint64_t QueueLength = 20;

    explicit CaptureScreen(ScreenId id);
    ~CaptureScreen() override;

    uint64_t width() const { return m_width; }
    uint64_t height() const { return m_height; }
    ScreenId id() const { return m_id; }

    // Subscribes to `source` and starts the screen's thread; a second start while listening does
    // nothing. The source must outlive the run: its owner stops and joins the screen first.
    // Called by the device holding its own lock (see Observable.h); they take the screen's.
    bool startListening(Observable& source);
    // Unsubscribes from the source and ends the run; join() then waits for the thread. Called
    // holding the source's lock.
    void stopListening();
    // Waits, bounded, for the thread of the last run to end. Call holding no producer's lock.
    [[nodiscard]] bool join();
    bool isListening();

    // Cuts one screen out of the board's storage: `area` holds `width` columns, left first, each
    // of `height` pixels from the bottom row up; `rows` receives rows top to bottom.
    static void cut(const uint8_t* area, uint8_t* rows, uint64_t width, uint64_t height);
    // Cuts screen `id` out of a raw frame's picture whose columns lie in `order`.
    static void cut(const uint8_t* picture, ColumnOrder order, ScreenId id, uint8_t* rows);

private:
    bool update(Observable& source, const ObserverPtr& observer);

    const uint64_t m_width;
    const uint64_t m_height;
    const ScreenId m_id;
    // A full queue, the frame a consumer has in hand and the one being cut.
    const FramePoolPtr m_pool;

    // Guarded by the Observable lock.
    bool m_listening = false;
    DropReport m_drops; // guarded by m_lock
    Observable* m_source = nullptr;
    ObserverPtr m_observer;

    // Last: it joins the thread before the members above go.
    Worker m_worker;
};

} // namespace zandor
