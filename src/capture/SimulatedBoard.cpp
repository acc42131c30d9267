#include "SimulatedBoard.h"

#include "RawFrame.h"

#include <algorithm>
#include <iterator>
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

namespace {

constexpr uint8_t StandardIn = 0x80;
constexpr uint8_t GetDescriptor = 6;
constexpr uint8_t StringDescriptor = 3;
constexpr uint8_t SerialIndex = 3; // iSerialNumber in the board's device descriptor
constexpr uint8_t VendorIn = 0xC0;
constexpr uint8_t VersionRequest = 0x21;
constexpr uint16_t VersionChip = 0x14;

// A string descriptor of ASCII `text` (UTF-16LE), or the language list for index 0, into `data`.
int stringDescriptor(uint8_t index, const std::string& text, uint8_t* data, uint16_t length) {
    uint8_t descriptor[2 + 2 * 31];
    size_t size;
    if (index == 0) {
        const uint8_t english[] = {4, StringDescriptor, 0x09, 0x04};
        std::copy(std::begin(english), std::end(english), descriptor);
        size = sizeof english;
    } else {
        size = 2 + 2 * std::min<size_t>(text.size(), 31);
        descriptor[0] = static_cast<uint8_t>(size);
        descriptor[1] = StringDescriptor;
        for (size_t i = 0; 2 + 2 * i < size; ++i) {
            descriptor[2 + 2 * i] = static_cast<uint8_t>(text[i]);
            descriptor[3 + 2 * i] = 0;
        }
    }
    const size_t sent = std::min<size_t>(size, length);
    std::copy(descriptor, descriptor + sent, data);
    return static_cast<int>(sent);
}

} // namespace

int SimulatedBoard::controlTransfer(uint8_t requestType, uint8_t request, uint16_t value, uint16_t,
                                    uint8_t* data, uint16_t length, unsigned) {
    std::scoped_lock lock(m_mutex);
    if (!m_open || m_vanished) {
        return usb::ErrorNoDevice;
    }
    if (requestType == StandardIn && request == GetDescriptor && (value >> 8) == StringDescriptor && data) {
        const auto index = static_cast<uint8_t>(value & 0xFF);
        if ((index != 0 && index != SerialIndex) || (index == SerialIndex && m_serial.empty())) {
            return usb::ErrorPipe;
        }
        return stringDescriptor(index, m_serial, data, length);
    }
    if (request == VersionRequest && value == VersionChip && length == 1 && data && m_firmwareVersion > 0) {
        if (requestType == raw::FrameRequestType) {
            m_register = data[0];
            return 1;
        }
        if (requestType == VendorIn && m_register == 0x01) {
            data[0] = static_cast<uint8_t>(m_firmwareVersion);
            return 1;
        }
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
    m_frameEnd = 0;
    return 0;
}

int SimulatedBoard::bulkTransfer(uint8_t endpoint, uint8_t* data, int length, int* transferred, unsigned) {
    *transferred = 0;
    uint64_t frame;
    uint64_t offset;
    uint64_t count;
    uint64_t pictureEnd;
    {
        std::scoped_lock lock(m_mutex);
        if (m_frame >= 0) {
            m_readLengths[static_cast<uint64_t>(m_frame) % m_readLengths.size()].second.push_back(length);
        }
        if (m_open && !m_vanished && m_frame >= 0 && !m_frameRead) {
            m_frameRead = true;
            m_picture = pictureBytes();
            m_frameEnd = m_picture + (m_sendsSound ? soundBytes(static_cast<uint64_t>(m_frame)) : 0);
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
                    count = std::min<uint64_t>(m_picture / 2, static_cast<uint64_t>(length));
                    frame = static_cast<uint64_t>(m_frame);
                    m_position = count;
                    *transferred = static_cast<int>(count);
                    fill(frame, 0, data, count);
                    return usb::ErrorTimeout;
                case BoardFault::ShortFrame:
                    // A short transfer, after which the board has nothing more for this frame.
                    count = std::min<uint64_t>(m_picture / 3, static_cast<uint64_t>(length));
                    frame = static_cast<uint64_t>(m_frame);
                    m_position = m_picture;
                    m_frameEnd = m_picture;
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
        if (m_frame < 0) {
            // Nothing requested: a zero-length packet ends the transfer.
            return usb::Success;
        }
        if (m_position >= m_frameEnd) {
            // After the frame's short packet the board answers with zero-length packets; firmware
            // without sound sends nothing at all.
            return m_sendsSound ? usb::Success : usb::ErrorTimeout;
        }
        count = std::min<uint64_t>(m_frameEnd - m_position, static_cast<uint64_t>(std::max(length, 0)));
        if (m_chunkBytes > 0) {
            count = std::min<uint64_t>(count, static_cast<uint64_t>(m_chunkBytes));
        }
        frame = static_cast<uint64_t>(m_frame);
        offset = m_position;
        pictureEnd = m_picture;
        m_position += count;
    }
    // The bytes are produced outside the lock: only the device thread reads, and tests may
    // inspect the board meanwhile.
    const uint64_t picture = offset < pictureEnd ? std::min(count, pictureEnd - offset) : 0;
    if (picture > 0) {
        fill(frame, offset, data, picture);
    }
    if (count > picture) {
        fillSound(frame, offset + picture - pictureEnd, data + picture, count - picture);
    }
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

std::string SimulatedBoard::serialNumber() {
    std::scoped_lock lock(m_mutex);
    return m_open && !m_vanished ? m_serial : std::string();
}

std::vector<std::string> SimulatedBoard::serialNumbers(uint16_t vendorId, uint16_t productId) {
    std::scoped_lock lock(m_mutex);
    if (m_vanished || vendorId != raw::VendorId || productId != raw::ProductId) {
        return {};
    }
    return {m_serial};
}

void SimulatedBoard::setSerial(std::string serial) {
    std::scoped_lock lock(m_mutex);
    m_serial = std::move(serial);
}

std::string SimulatedBoard::serial() const {
    std::scoped_lock lock(m_mutex);
    return m_serial;
}

void SimulatedBoard::setFirmwareVersion(int version) {
    std::scoped_lock lock(m_mutex);
    m_firmwareVersion = version;
}

void SimulatedBoard::setSendsSound(bool sends) {
    std::scoped_lock lock(m_mutex);
    m_sendsSound = sends;
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
