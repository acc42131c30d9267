#include "SimulatedBoard.h"

#include "RawFrame.h"

#include <algorithm>
#include <utility>

namespace zandor {

int SimulatedBoard::init() {
    return usb::Success;
}

bool SimulatedBoard::openDeviceWithVidPid(uint16_t vendorId, uint16_t productId) {
    std::scoped_lock lock(m_mutex);
    ++m_opens;
    m_open = !m_vanished && vendorId == raw::VendorId && productId == raw::ProductId;
    return m_open;
}

int SimulatedBoard::setConfiguration(int configuration) {
    std::scoped_lock lock(m_mutex);
    if (!m_open || m_vanished) {
        return usb::ErrorNoDevice;
    }
    return configuration == raw::Configuration ? usb::Success : usb::ErrorIo;
}

int SimulatedBoard::claimInterface(int interfaceNumber) {
    std::scoped_lock lock(m_mutex);
    if (!m_open || m_vanished) {
        return usb::ErrorNoDevice;
    }
    return interfaceNumber == raw::Interface ? usb::Success : usb::ErrorIo;
}

int SimulatedBoard::controlTransfer(uint8_t requestType, uint8_t request, uint16_t, uint16_t, uint8_t*,
                                    uint16_t length, unsigned) {
    std::scoped_lock lock(m_mutex);
    if (!m_open || m_vanished) {
        return usb::ErrorNoDevice;
    }
    if (requestType != raw::FrameRequestType || request != raw::FrameRequest || length != 0) {
        return usb::ErrorPipe;
    }
    // A request before any read of the current frame restarts the same frame; otherwise the board
    // moves on to the next one.
    if (m_frame < 0 || m_frameRead) {
        ++m_frame;
        m_frameRead = false;
        // The slot of a frame eight back is reused, keeping its memory: a board that allocates
        // at every frame would show in the pipeline's allocation count.
        auto& lengths = m_readLengths[static_cast<uint64_t>(m_frame) % m_readLengths.size()];
        lengths.first = static_cast<uint64_t>(m_frame);
        lengths.second.clear();
    }
    m_position = 0;
    return 0;
}

int SimulatedBoard::bulkTransfer(uint8_t endpoint, uint8_t* data, int length, int* transferred, unsigned) {
    *transferred = 0;
    uint64_t frame;
    uint64_t offset;
    uint64_t count;
    {
        std::scoped_lock lock(m_mutex);
        if (m_frame >= 0) {
            m_readLengths[static_cast<uint64_t>(m_frame) % m_readLengths.size()].second.push_back(length);
        }
        if (m_open && !m_vanished && m_frame >= 0 && !m_frameRead) {
            m_frameRead = true;
            auto fault = m_faults.find(static_cast<uint64_t>(m_frame));
            if (fault != m_faults.end()) {
                switch (fault->second) {
                case BoardFault::Vanish:
                    m_vanished = true;
                    break;
                case BoardFault::Stall:
                    m_halted = true;
                    break;
                case BoardFault::Timeout:
                    // Part of the frame arrives, then the read times out.
                    count = std::min<uint64_t>(raw::FrameBytes / 2, static_cast<uint64_t>(length));
                    frame = static_cast<uint64_t>(m_frame);
                    m_position = count;
                    *transferred = static_cast<int>(count);
                    fill(frame, 0, data, count);
                    return usb::ErrorTimeout;
                case BoardFault::ShortFrame:
                    // A short transfer, after which the board has nothing more for this frame.
                    count = std::min<uint64_t>(raw::FrameBytes / 3, static_cast<uint64_t>(length));
                    frame = static_cast<uint64_t>(m_frame);
                    m_position = raw::FrameBytes;
                    *transferred = static_cast<int>(count);
                    fill(frame, 0, data, count);
                    return usb::Success;
                }
            }
        }
        if (!m_open || m_vanished) {
            return usb::ErrorNoDevice;
        }
        if (endpoint != raw::BulkEndpoint) {
            return usb::ErrorIo;
        }
        if (m_halted) {
            return usb::ErrorPipe;
        }
        if (m_frame < 0 || m_position >= raw::FrameBytes) {
            // Nothing requested: a zero-length packet ends the transfer.
            return usb::Success;
        }
        count = std::min<uint64_t>(raw::FrameBytes - m_position, static_cast<uint64_t>(std::max(length, 0)));
        if (m_chunkBytes > 0) {
            count = std::min<uint64_t>(count, static_cast<uint64_t>(m_chunkBytes));
        }
        frame = static_cast<uint64_t>(m_frame);
        offset = m_position;
        m_position += count;
    }
    // The bytes are produced outside the lock: only the device thread reads, and tests may
    // inspect the board meanwhile.
    fill(frame, offset, data, count);
    *transferred = static_cast<int>(count);
    return usb::Success;
}

int SimulatedBoard::clearHalt(uint8_t endpoint) {
    std::scoped_lock lock(m_mutex);
    if (!m_open || m_vanished) {
        return usb::ErrorNoDevice;
    }
    if (endpoint == raw::BulkEndpoint) {
        m_halted = false;
        ++m_clearHalts;
    }
    return usb::Success;
}

void SimulatedBoard::close() {
    std::scoped_lock lock(m_mutex);
    m_open = false;
}

bool SimulatedBoard::watchArrivals() {
    std::scoped_lock lock(m_mutex);
    m_watching = m_announces;
    // As libusb's hotplug with ENUMERATE: a board already back is announced at once.
    m_arrived = m_announces && !m_vanished;
    return m_announces;
}

void SimulatedBoard::setAnnouncesArrivals(bool announces) {
    std::scoped_lock lock(m_mutex);
    m_announces = announces;
}

int SimulatedBoard::openCount() const {
    std::scoped_lock lock(m_mutex);
    return m_opens;
}

bool SimulatedBoard::arrived() {
    std::scoped_lock lock(m_mutex);
    return std::exchange(m_arrived, false);
}

void SimulatedBoard::stopWatching() {
    std::scoped_lock lock(m_mutex);
    m_watching = false;
}

void SimulatedBoard::replug() {
    std::scoped_lock lock(m_mutex);
    m_vanished = false;
    m_halted = false;
    m_arrived = m_watching;
}

void SimulatedBoard::unplug() {
    std::scoped_lock lock(m_mutex);
    m_vanished = true;
}

void SimulatedBoard::injectFault(uint64_t frame, BoardFault fault) {
    std::scoped_lock lock(m_mutex);
    m_faults[frame] = fault;
}

void SimulatedBoard::setChunkBytes(int bytes) {
    std::scoped_lock lock(m_mutex);
    m_chunkBytes = bytes;
}

std::vector<int> SimulatedBoard::readLengths(uint64_t frame) const {
    std::scoped_lock lock(m_mutex);
    const auto& lengths = m_readLengths[frame % m_readLengths.size()];
    return lengths.first == frame ? lengths.second : std::vector<int>{};
}

int SimulatedBoard::clearHaltCount() const {
    std::scoped_lock lock(m_mutex);
    return m_clearHalts;
}

} // namespace zandor
