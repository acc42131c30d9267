#include "GatedBoard.h"

#include "capture/RawFrame.h"

#include <cstring>

namespace zandor::test {

uint8_t patternByte(uint64_t frame, uint64_t offset) {
    // Mixed through a multiply, so that no two frames share their bytes (a plain mix of a few bits
    // of the product made whole frames of different numbers equal).
    uint64_t x = (frame + 1) * 0x9E3779B97F4A7C15ull ^ (offset * 0xC2B2AE3D27D4EB4Full);
    x ^= x >> 29;
    x *= 0xBF58476D1CE4E5B9ull;
    return static_cast<uint8_t>(x >> 32);
}

bool isPatternFrame(const uint8_t* data, uint64_t frame) {
    for (uint64_t i = 0; i < raw::FrameBytes; ++i) {
        if (data[i] != patternByte(frame, i)) {
            return false;
        }
    }
    return true;
}

void GatedBoard::holdAt(uint64_t frame) {
    std::scoped_lock lock(m_mutex);
    m_holdAt = frame;
    if (m_held < frame) {
        m_held = UINT64_MAX;
    }
    m_changed.notify_all();
}

bool GatedBoard::waitUntilHeld(uint64_t frame, std::chrono::milliseconds timeout) {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, timeout, [&] { return m_held == frame; });
}

bool GatedBoard::openDeviceWithVidPid(uint16_t vendorId, uint16_t productId) {
    return !m_lockedOut && SimulatedBoard::openDeviceWithVidPid(vendorId, productId);
}

int GatedBoard::openError(std::string& node) {
    const bool lockedOut = m_lockedOut;
    node = lockedOut ? "/dev/bus/usb/001/009" : "";
    return lockedOut ? usb::ErrorAccess : usb::ErrorNotFound;
}

int GatedBoard::bulkTransfer(uint8_t endpoint, uint8_t* data, int length, int* transferred,
                             unsigned timeoutMs) {
    if (data && length > 0) {
        std::memset(data, 0xA5, static_cast<size_t>(length));
    }
    return SimulatedBoard::bulkTransfer(endpoint, data, length, transferred, timeoutMs);
}

void GatedBoard::fill(uint64_t frame, uint64_t offset, uint8_t* destination, uint64_t length) {
    {
        std::unique_lock lock(m_mutex);
        if (frame >= m_holdAt) {
            m_held = frame;
            m_changed.notify_all();
            m_changed.wait(lock, [&] { return frame < m_holdAt; });
        }
    }
    for (uint64_t i = 0; i < length; ++i) {
        destination[i] = patternByte(frame, offset + i);
    }
}

} // namespace zandor::test
