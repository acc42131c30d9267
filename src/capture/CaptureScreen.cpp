#include "CaptureScreen.h"

#include "CaptureDevice.h"
#include "base/DetachedThread.h"
#include "base/Log.h"
#include "base/Wakeup.h"

#include <algorithm>

namespace zandor {

namespace {

// How long an idle screen thread sleeps before it looks at its flag again; stopListening wakes
// it at once, so this only bounds a missed wake-up.
constexpr std::chrono::milliseconds IdleWait{100};

} // namespace

CaptureScreen::CaptureScreen(uint64_t width, uint64_t height, uint64_t offset,
                             const std::shared_ptr<CaptureDevice>& device)
    : Observable(QueueLength), m_width(width), m_height(height), m_offset(offset), m_device(device),
      m_wakeup(std::make_shared<Wakeup>()) {}

bool CaptureScreen::startListening() {
    std::scoped_lock lock(m_lock);
    if (!m_listening) {
        auto device = m_device.lock();
        if (!device) {
            return true;
        }
        m_observer = device->addObserver(m_wakeup);
        DetachedThread::start(m_offset == 0 ? "zandor-top" : "zandor-bottom",
                              [screen = self<CaptureScreen>(), device, observer = m_observer] {
                                  screen->listener(device, observer);
                              });
        m_listening = true;
    }
    return true;
}

void CaptureScreen::stopListening() {
    std::scoped_lock lock(m_lock);
    if (auto device = m_device.lock()) {
        device->removeObserver(m_observer);
    }
    m_listening = false;
    m_wakeup->signal();
}

bool CaptureScreen::isListening() {
    std::scoped_lock lock(m_lock);
    return m_listening;
}

bool CaptureScreen::update() {
    ObserverPtr observer;
    {
        std::scoped_lock lock(m_lock);
        observer = m_observer;
    }
    auto device = m_device.lock();
    return device && update(*device, observer);
}

void CaptureScreen::listener(const std::shared_ptr<CaptureDevice>& device, const ObserverPtr& observer) {
    for (;;) {
        {
            std::scoped_lock lock(m_lock);
            // A stop followed at once by a start gives the screen a new observer and a new thread;
            // this one then ends instead of sharing the queue.
            if (!m_listening || m_observer != observer) {
                break;
            }
        }
        if (!update(*device, observer)) {
            m_wakeup->wait(IdleWait);
        }
    }
}

bool CaptureScreen::update(CaptureDevice& device, const ObserverPtr& observer) {
    // The device's lock is taken only inside observable/observe; ours only to publish.
    if (!device.observable(observer)) {
        return false;
    }
    CaptureDataPtr raw = device.observe(observer);
    if (!raw) {
        return false;
    }
    auto frame = CaptureData::create(m_width * m_height * 3);
    frame->setTimestamp(raw->timestamp());
    cut(raw->data() + m_offset, frame->data(), m_width, m_height);

    std::scoped_lock lock(m_lock);
    if (m_listening && add(frame)) {
        log("Frame was skipped as the buffer for screen with offset '%ld' became too large",
            static_cast<long>(m_offset));
    }
    return true;
}

void CaptureScreen::cut(const uint8_t* area, uint8_t* rows, uint64_t width, uint64_t height) {
    // Blocked transpose: a tile's columns and rows both stay in cache while it is copied.
    constexpr uint64_t Tile = 16;
    const uint64_t columnBytes = 3 * height;
    for (uint64_t y0 = 0; y0 < height; y0 += Tile) {
        const uint64_t y1 = std::min(y0 + Tile, height);
        for (uint64_t x0 = 0; x0 < width; x0 += Tile) {
            const uint64_t x1 = std::min(x0 + Tile, width);
            for (uint64_t y = y0; y < y1; ++y) {
                uint8_t* out = rows + 3 * (y * width + x0);
                const uint8_t* in = area + 3 * (x0 * height + (height - 1 - y));
                for (uint64_t x = x0; x < x1; ++x) {
                    out[0] = in[0];
                    out[1] = in[1];
                    out[2] = in[2];
                    out += 3;
                    in += columnBytes;
                }
            }
        }
    }
}

} // namespace zandor
