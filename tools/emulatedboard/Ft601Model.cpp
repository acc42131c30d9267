#include "Ft601Model.h"

#include "capture/ColumnOrder.h"
#include "capture/RawFrame.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

namespace zandor {

namespace {

constexpr uint8_t CommandEndpoint = 0x01;
constexpr uint8_t BoardEndpoint = 0x02;
constexpr uint8_t DataEndpoint = 0x82;
constexpr int SessionCommandBytes = 20;
constexpr uint8_t Abort = 0, Prepare = 1, Stream = 2, Create = 3;
constexpr uint32_t FlatReadBytes = 555008;
constexpr uint32_t ThreeDReadBytes = 842752;
constexpr auto FirmwareStart = std::chrono::milliseconds(200);
// What a board holds when it is opened: the end of a frame nobody read.
constexpr uint64_t LeftoverBytes = 40960;

constexpr uint8_t StandardIn = 0x80;
constexpr uint8_t GetDescriptor = 6;
constexpr uint8_t VendorIn = 0xC0;

uint32_t little32(const uint8_t* bytes) {
    return bytes[0] | bytes[1] << 8 | bytes[2] << 16 | static_cast<uint32_t>(bytes[3]) << 24;
}

bool allZero(const uint8_t* bytes, size_t count) {
    return std::all_of(bytes, bytes + count, [](uint8_t byte) { return byte == 0; });
}

// A string descriptor of ASCII `text` (UTF-16LE), or the language list for index 0.
int stringDescriptor(uint8_t index, const std::string& text, uint8_t* data, uint16_t length) {
    uint8_t descriptor[2 + 2 * 63] = {4, 3, 0x09, 0x04};
    size_t size = 4;
    if (index != 0) {
        size = 2 + 2 * std::min<size_t>(text.size(), 63);
        descriptor[0] = static_cast<uint8_t>(size);
        for (size_t i = 0; 2 + 2 * i < size; ++i) {
            descriptor[2 + 2 * i] = static_cast<uint8_t>(text[i]);
            descriptor[3 + 2 * i] = 0;
        }
    }
    const size_t sent = std::min<size_t>(size, length);
    std::memcpy(data, descriptor, sent);
    return static_cast<int>(sent);
}

} // namespace

Ft601Model::Ft601Model(std::unique_ptr<SimulatedBoard> source, Ft601Options options)
    : m_source(std::move(source)), m_options(std::move(options)), m_classic(raw::BlockBytes) {}

std::string Ft601Model::descriptors() const {
    // Device (USB 3.0 with 512-byte control packets, or 2.1), then configuration 1 with interface 0
    // (bulk OUT 0x01) and interface 1 (bulk OUT 0x02, bulk IN 0x82). Strings: 1 maker, 2 product,
    // 3 serial.
    char device[64];
    std::snprintf(device, sizeof device,
                  "1201%s000000%s0304%02x%02x0001010203"
                  "01",
                  m_options.superSpeed ? "0003" : "1002", m_options.superSpeed ? "09" : "40",
                  m_options.productId & 0xFF, m_options.productId >> 8);
    const char* packet = m_options.superSpeed ? "0004" : "0002";
    const std::string configuration = std::string("090230000201008032") + "0904000001ffffff00" + "07050102" +
                                      packet + "00" + "0904010002ffffff00" + "07050202" + packet + "00" +
                                      "07058202" + packet + "00";
    return device + configuration;
}

void Ft601Model::injectFault(uint64_t frame, Ft601Fault fault) {
    std::scoped_lock lock(m_mutex);
    m_faults[frame] = fault;
}

std::vector<std::string> Ft601Model::refused() const {
    std::scoped_lock lock(m_mutex);
    return m_refused;
}

uint64_t Ft601Model::sessionCommands() const {
    std::scoped_lock lock(m_mutex);
    return m_sessionCommands;
}

uint64_t Ft601Model::framesSent() const {
    std::scoped_lock lock(m_mutex);
    return m_frames;
}

bool Ft601Model::is3D() const {
    std::scoped_lock lock(m_mutex);
    return m_3D;
}

bool Ft601Model::openDeviceWithVidPid(uint16_t, uint16_t) {
    std::scoped_lock lock(m_mutex);
    // A new chip: it has seen no command, and the firmware comes up in 3D where it can.
    m_lastCommand.reset();
    m_prepared.clear();
    m_streaming = 0;
    m_spi = false;
    m_configurationAsked = false;
    m_3D = m_options.superSpeed && m_options.capable3D;
    m_firmwareChosen = false;
    m_secondSpiOn = false;
    m_sendsSound = true;
    m_streamedSinceOpening = false;
    m_readyAt = {};
    m_leftover = LeftoverBytes;
    m_frames = 0;
    return m_source->openDeviceWithVidPid(raw::VendorId, raw::ProductId);
}

int Ft601Model::setConfiguration(int configuration) {
    return configuration == 1 ? usb::Success : usb::ErrorIo;
}

int Ft601Model::claimInterface(int interfaceNumber) {
    return interfaceNumber == 0 || interfaceNumber == 1 ? usb::Success : usb::ErrorNotFound;
}

int Ft601Model::controlTransfer(uint8_t requestType, uint8_t request, uint16_t value, uint16_t index,
                                uint8_t* data, uint16_t length, unsigned) {
    if (requestType == StandardIn && request == GetDescriptor && (value >> 8) == 3 && data) {
        switch (value & 0xFF) {
        case 0:
            return stringDescriptor(0, {}, data, length);
        case 1:
            return stringDescriptor(1, "FTDI", data, length);
        case 2:
            return stringDescriptor(2, m_options.product, data, length);
        case 3:
            return stringDescriptor(3, m_source->serial(), data, length);
        default:
            return usb::ErrorPipe;
        }
    }
    // The chip's two configuration reads of an opening; the driver does not interpret the replies.
    if (requestType == VendorIn && request == 3 && value == 1 && (index == 0x8000 || index == 0x8400) &&
        length == 4 && data) {
        std::scoped_lock lock(m_mutex);
        m_streamedSinceOpening = false;
        std::memcpy(data, index == 0x8000 ? "\x01\x00\x00\x00" : "\x00\x00\x01\x00", 4);
        return 4;
    }
    return usb::ErrorPipe;
}

int Ft601Model::bulkTransfer(uint8_t endpoint, uint8_t* data, int length, int* transferred, unsigned) {
    std::scoped_lock lock(m_mutex);
    *transferred = 0;
    if (endpoint == CommandEndpoint) {
        const int result = sessionCommand(data, length);
        *transferred = result == usb::Success ? length : 0;
        return result;
    }
    if (endpoint == BoardEndpoint) {
        const int result = boardCommand(data, length);
        *transferred = result == usb::Success ? length : 0;
        return result;
    }
    if (endpoint != DataEndpoint) {
        return refuse("a transfer on endpoint " + std::to_string(endpoint));
    }
    if (m_prepared.count(DataEndpoint)) {
        return readReply(data, length, transferred);
    }
    if (m_streaming) {
        return streamFrame(data, length, transferred);
    }
    return refuse("a read from 0x82 that was neither prepared nor streamed");
}

int Ft601Model::refuse(std::string why) {
    std::fprintf(stderr, "emulated board: refused %s\n", why.c_str());
    m_refused.push_back(std::move(why));
    return usb::ErrorTimeout;
}

bool Ft601Model::busy() const {
    return std::chrono::steady_clock::now() < m_readyAt;
}

int Ft601Model::sessionCommand(const uint8_t* command, int length) {
    ++m_sessionCommands;
    if (length != SessionCommandBytes) {
        return refuse("a session command of " + std::to_string(length) + " bytes");
    }
    const uint32_t number = little32(command);
    const uint8_t pipe = command[4], code = command[5];
    const uint32_t bytes = little32(command + 8);
    char text[96];
    std::snprintf(text, sizeof text, "session command %u (pipe 0x%02x, code %u, %u bytes)", number, pipe,
                  code, bytes);
    // Each program numbers its commands from 0; a chip just plugged in takes any number first.
    if (m_lastCommand && number != *m_lastCommand + 1 && number != 0) {
        return refuse(std::string(text) + ": expected number " + std::to_string(*m_lastCommand + 1));
    }
    if ((pipe != DataEndpoint && pipe != BoardEndpoint) || code > Create ||
        (code == Stream && pipe != DataEndpoint) || !allZero(command + 6, 2) || !allZero(command + 12, 8) ||
        ((code == Prepare || code == Stream) ? bytes == 0 : bytes != 0)) {
        return refuse(std::string(text) + ": a field is wrong");
    }
    if (busy()) {
        return refuse(std::string(text) + ": the firmware is still starting");
    }
    m_lastCommand = number;
    switch (code) {
    case Abort:
    case Create:
        if (pipe == DataEndpoint) {
            m_streaming = 0;
        }
        m_prepared.erase(pipe);
        break;
    case Prepare:
        m_prepared[pipe] = bytes;
        break;
    case Stream:
        m_streaming = bytes;
        break;
    default:
        break;
    }
    return usb::Success;
}

int Ft601Model::boardCommand(const uint8_t* command, int length) {
    const auto prepared = m_prepared.find(BoardEndpoint);
    if (prepared == m_prepared.end() || prepared->second != static_cast<uint32_t>(length)) {
        return refuse("a write of " + std::to_string(length) + " bytes to 0x02 that was not prepared");
    }
    m_prepared.erase(prepared);
    if (busy()) {
        return refuse("a board command while the firmware is still starting");
    }
    if (length != 4) {
        return refuse("a board command of " + std::to_string(length) + " bytes");
    }
    const uint32_t word = little32(command);
    if (word == 0x00008040) {
        m_spi = true;
        m_secondSpiOn = m_firmwareChosen;
        return usb::Success;
    }
    if (word == 0x00000040) {
        m_spi = false;
        if (std::exchange(m_firmwareChosen, false)) {
            m_sendsSound = !m_streamedSinceOpening || m_secondSpiOn;
        }
        return usb::Success;
    }
    if (!m_spi) {
        return refuse("a board command outside SPI on and off");
    }
    if (word == 0x009F0598) {
        m_configurationAsked = true;
        return usb::Success;
    }
    if (word == 0x42 || word == 0x43) {
        m_3D = word == 0x43 && m_options.superSpeed && m_options.capable3D;
        m_firmwareChosen = true;
        m_secondSpiOn = false;
        m_readyAt = std::chrono::steady_clock::now() + FirmwareStart;
        return usb::Success;
    }
    char text[64];
    std::snprintf(text, sizeof text, "the unknown board command %08x", word);
    return refuse(text);
}

int Ft601Model::readReply(uint8_t* data, int length, int* transferred) {
    const uint32_t prepared = m_prepared[DataEndpoint];
    m_prepared.erase(DataEndpoint);
    if (prepared != static_cast<uint32_t>(length)) {
        return refuse("a read of " + std::to_string(length) + " bytes prepared for " +
                      std::to_string(prepared));
    }
    if (m_configurationAsked) {
        m_configurationAsked = false;
        if (!m_options.answersConfiguration) {
            return usb::ErrorTimeout;
        }
        uint8_t configuration[16] = {0x20, 0x19, 0x03, 0x00, 0x5A, 0x44, 0x31, 0x00};
        configuration[3] = m_options.capable3D ? 0xC1 : 0x41;
        if (m_options.garbageConfiguration) {
            for (size_t i = 0; i < sizeof configuration; ++i) {
                configuration[i] = static_cast<uint8_t>(0xA7 * (i + 3));
            }
        }
        *transferred = std::min<int>(length, sizeof configuration);
        std::memcpy(data, configuration, static_cast<size_t>(*transferred));
        return usb::Success;
    }
    // Whatever the board still held; then a zero-length packet.
    const auto count = static_cast<int>(std::min<uint64_t>(m_leftover, static_cast<uint64_t>(length)));
    std::memset(data, 0x5A, static_cast<size_t>(count));
    m_leftover -= static_cast<uint64_t>(count);
    *transferred = count;
    return usb::Success;
}

int Ft601Model::streamFrame(uint8_t* data, int length, int* transferred) {
    if (static_cast<uint32_t>(length) != m_streaming) {
        return refuse("a streamed read of " + std::to_string(length) + " bytes, not " +
                      std::to_string(m_streaming));
    }
    if (m_streaming != (m_3D ? ThreeDReadBytes : FlatReadBytes)) {
        return refuse("streamed reads of " + std::to_string(m_streaming) + " bytes in " +
                      (m_3D ? "3D" : "the flat picture"));
    }
    const uint64_t number = m_frames++;
    m_streamedSinceOpening = true;
    std::optional<Ft601Fault> fault;
    if (auto found = m_faults.find(number); found != m_faults.end()) {
        fault = found->second;
        m_faults.erase(found);
    }
    if (fault == Ft601Fault::Stall) {
        return usb::ErrorTimeout;
    }

    // One frame of the source in the old board's order, with its sound.
    m_source->controlTransfer(raw::FrameRequestType, raw::FrameRequest, 0, 0, nullptr, 0,
                              raw::ControlTimeoutMs);
    int received = 0;
    m_source->bulkTransfer(raw::BulkEndpoint, m_classic.data(), static_cast<int>(m_classic.size()), &received,
                           raw::BulkTimeoutMs);
    if (received < static_cast<int>(raw::FrameBytes)) {
        std::memset(m_classic.data(), 0, raw::FrameBytes);
        received = static_cast<int>(raw::FrameBytes);
    }

    const ColumnOrder order = m_3D ? ColumnOrder::Ft601ThreeD : ColumnOrder::Ft601;
    for (const ScreenId screen : {ScreenId::Top, ScreenId::Bottom, ScreenId::TopRight}) {
        if (screen == ScreenId::TopRight && !m_3D) {
            continue;
        }
        for (uint64_t x = 0; x < screenColumns(screen); ++x) {
            const uint64_t from = screen == ScreenId::TopRight
                                      ? rawColumn(ColumnOrder::Classic, ScreenId::Top,
                                                  std::min(x + RightEyeShift, screenColumns(screen) - 1))
                                      : rawColumn(ColumnOrder::Classic, screen, x);
            std::memcpy(data + rawColumn(order, screen, x) * ColumnBytes,
                        m_classic.data() + from * ColumnBytes, ColumnBytes);
        }
    }
    const uint64_t picture = pictureBytes(order);
    const uint64_t sound = m_sendsSound ? static_cast<uint64_t>(received) - raw::FrameBytes : 0;
    std::memcpy(data + picture, m_classic.data() + raw::FrameBytes, sound);
    uint64_t sent = picture + sound;
    if (fault == Ft601Fault::ShortFrame) {
        sent = picture - 100 * ColumnBytes;
    } else if (fault == Ft601Fault::OversizedFrame) {
        std::memset(data + sent, 0, static_cast<uint64_t>(length) - 512 - sent);
        sent = static_cast<uint64_t>(length) - 512;
    }
    *transferred = static_cast<int>(sent);
    return usb::Success;
}

} // namespace zandor
