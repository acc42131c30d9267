#include "UsbArrivals.h"

#include <libusb.h>

#include <algorithm>

namespace zandor {

UsbArrivals::~UsbArrivals() {
    stop();
}

bool UsbArrivals::matches(uint16_t vendorId, uint16_t productId) const {
    return vendorId == m_vendorId &&
           std::find(m_productIds.begin(), m_productIds.end(), productId) != m_productIds.end();
}

bool UsbArrivals::start(libusb_context* context, uint16_t vendorId, std::span<const uint16_t> productIds) {
    if (m_watching) {
        return true;
    }
    if (!libusb_has_capability(LIBUSB_CAP_HAS_HOTPLUG)) {
        return false;
    }
    m_context = context;
    m_vendorId = vendorId;
    m_productIds.assign(productIds.begin(), productIds.end());
    m_arrived = false;
    // One product is matched by libusb itself; among several, the callback tells.
    const int product = m_productIds.size() == 1 ? m_productIds.front() : LIBUSB_HOTPLUG_MATCH_ANY;
    // With ENUMERATE a board that came back before we started watching is announced at once.
    const int result = libusb_hotplug_register_callback(
        context, LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED, LIBUSB_HOTPLUG_ENUMERATE, vendorId, product,
        LIBUSB_HOTPLUG_MATCH_ANY,
        [](libusb_context*, libusb_device* device, libusb_hotplug_event, void* self) {
            auto& arrivals = *static_cast<UsbArrivals*>(self);
            libusb_device_descriptor descriptor{};
            if (libusb_get_device_descriptor(device, &descriptor) == LIBUSB_SUCCESS &&
                arrivals.matches(descriptor.idVendor, descriptor.idProduct)) {
                arrivals.m_arrived = true;
            }
            return 0; // stay registered
        },
        this, &m_handle);
    m_watching = result == LIBUSB_SUCCESS;
    return m_watching;
}

bool UsbArrivals::arrived() {
    if (!m_watching) {
        return false;
    }
    // Hotplug callbacks run inside event handling; a zero time-out returns at once.
    timeval noWait{};
    libusb_handle_events_timeout_completed(m_context, &noWait, nullptr);
    return m_arrived.exchange(false);
}

void UsbArrivals::stop() {
    if (m_watching) {
        libusb_hotplug_deregister_callback(m_context, m_handle);
        m_watching = false;
    }
}

} // namespace zandor
