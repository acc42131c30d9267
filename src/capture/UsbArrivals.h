#pragma once

#include <atomic>
#include <cstdint>
#include <span>
#include <vector>

struct libusb_context;

namespace zandor {

// Watches a libusb context for a device with the given ids being plugged in (libusb's hotplug), for
// a device thread that waits for its board to come back and asks arrived() on each pass. Used by
// that one thread; the callback only sets a flag. Stopped before its context is ended.
class UsbArrivals {
public:
    UsbArrivals() = default;
    ~UsbArrivals();
    UsbArrivals(const UsbArrivals&) = delete;
    UsbArrivals& operator=(const UsbArrivals&) = delete;

    // Starts watching `context` (null: libusb's default one, which must be initialised) for a device
    // of `vendorId` with one of `productIds`. False when libusb cannot announce arrivals: then the
    // caller looks for the board at intervals. A device already there is announced at once.
    bool start(libusb_context* context, uint16_t vendorId, std::span<const uint16_t> productIds);
    // Whether such a device came since the last call; handles the context's events without waiting.
    bool arrived();
    void stop();

private:
    bool matches(uint16_t vendorId, uint16_t productId) const;

    libusb_context* m_context = nullptr;
    uint16_t m_vendorId = 0;
    std::vector<uint16_t> m_productIds;
    int m_handle = 0;
    bool m_watching = false;
    std::atomic<bool> m_arrived{false};
};

} // namespace zandor
