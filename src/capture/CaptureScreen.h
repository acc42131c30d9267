#pragma once

#include "Observable.h"

#include <cstdint>
#include <memory>

namespace zandor {

class CaptureDevice;
class Wakeup;

// One of the handheld's two screens: takes each raw frame from the device, turns its own
// column-wise area into rows of 3 bytes a pixel and publishes that with the raw frame's time stamp.
class CaptureScreen final : public Observable {
public:
    static constexpr uint64_t QueueLength = 20;

    // The device owns its screens; a screen refers back to it weakly, and its thread holds the
    // device for as long as it runs.
    CaptureScreen(uint64_t width, uint64_t height, uint64_t offset,
                  const std::shared_ptr<CaptureDevice>& device);

    uint64_t width() const { return m_width; }
    uint64_t height() const { return m_height; }
    uint64_t offset() const { return m_offset; }
    std::shared_ptr<CaptureDevice> device() const { return m_device.lock(); }

    // Called by the device, which holds its lock (see Observable.h): they take the device's lock
    // (again) and then the screen's, and subscribe to the device or unsubscribe.
    bool startListening();
    void stopListening();
    bool isListening();

    // Cuts one screen out of the board's storage: `area` holds `width` columns, left first, each
    // of `height` pixels from the bottom row up; `rows` receives rows top to bottom.
    static void cut(const uint8_t* area, uint8_t* rows, uint64_t width, uint64_t height);

private:
    void listener(const std::shared_ptr<CaptureDevice>& device, const ObserverPtr& observer);
    bool update(CaptureDevice& device, const ObserverPtr& observer);

    const uint64_t m_width;
    const uint64_t m_height;
    const uint64_t m_offset;
    const std::weak_ptr<CaptureDevice> m_device;
    const std::shared_ptr<Wakeup> m_wakeup;

    // Guarded by the Observable lock.
    bool m_listening = false;
    DropReport m_drops; // guarded by m_lock
    ObserverPtr m_observer;
};

} // namespace zandor
