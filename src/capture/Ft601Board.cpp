#include "Ft601Board.h"

#include "CaptureData.h"
#include "ColumnOrder.h"
#include "RawFrame.h"
#include "UsbBoard.h"
#include "base/Log.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

namespace zandor {

namespace {

constexpr uint8_t CommandEndpoint = 0x01;
constexpr uint8_t BoardEndpoint = 0x02;
constexpr uint8_t DataEndpoint = 0x82;
constexpr uint8_t Abort = 0, Prepare = 1, Stream = 2, Create = 3;
constexpr uint32_t SpiOn = 0x00008040, SpiOff = 0x00000040, ReadConfiguration = 0x009F0598;
constexpr uint32_t FlatFirmware = 0x42, ThreeDFirmware = 0x43;
constexpr uint8_t Capable3D = 0xC1;
constexpr auto FirmwareStart = std::chrono::milliseconds(200);
constexpr auto DrainTime = std::chrono::milliseconds(200);
constexpr int DrainBytes = 1 << 20;
// A frame must leave this much of its read unused; a longer one is not a frame (some games make bad ones).
constexpr uint32_t FrameSlack = 1024;
constexpr int SilentFramesForNoSound = 30;
constexpr const char* StepStart = "start the capture board";

// The chip wants the commands of a process numbered from 0, one after the other, across its opens.
std::atomic<uint32_t> g_commandNumber{0};

Error usbError(const char* step, std::string path, int code) {
    return Error::library(Error::Domain::Usb, step, std::move(path), code, usb::errorName(code));
}

void putLittle32(uint8_t* bytes, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        bytes[i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

} // namespace

Ft601Board::Ft601Board(std::string onlySerial) : m_onlySerial(std::move(onlySerial)) {}

Ft601Board::~Ft601Board() {
    close();
}

int Ft601Board::session(uint8_t pipe, uint8_t code, uint32_t bytes) {
    uint8_t command[20] = {};
    putLittle32(command, g_commandNumber++);
    command[4] = pipe;
    command[5] = code;
    putLittle32(command + 8, bytes);
    const int result = m_usb.bulk(CommandEndpoint, command, sizeof command, TimeoutMs);
    return result < 0 ? result : usb::Success;
}

int Ft601Board::abortData() {
    for (const uint8_t code : {Abort, Abort, Create}) {
        if (const int result = session(DataEndpoint, code, 0); result < 0) {
            return result;
        }
    }
    return usb::Success;
}

int Ft601Board::boardCommand(uint32_t command) {
    uint8_t bytes[4];
    putLittle32(bytes, command);
    if (const int result = session(BoardEndpoint, Prepare, sizeof bytes); result < 0) {
        return result;
    }
    const int result = m_usb.bulk(BoardEndpoint, bytes, sizeof bytes, TimeoutMs);
    return result < 0 ? result : usb::Success;
}

int Ft601Board::readReply(uint8_t* data, int length, unsigned timeoutMs) {
    if (const int result = session(DataEndpoint, Prepare, static_cast<uint32_t>(length)); result < 0) {
        return result;
    }
    return m_usb.bulk(DataEndpoint, data, length, timeoutMs);
}

int Ft601Board::chooseFirmware(bool threeD, bool switching) {
    int result = boardCommand(SpiOn);
    if (result >= 0) {
        result = boardCommand(threeD ? ThreeDFirmware : FlatFirmware);
    }
    if (result < 0) {
        return result;
    }
    std::this_thread::sleep_for(FirmwareStart);
    // A firmware chosen on a board already set up loses its sound without a second SPI on.
    if (switching) {
        if (result = boardCommand(SpiOn); result < 0) {
            return result;
        }
    }
    return boardCommand(SpiOff);
}

int Ft601Board::readConfiguration(bool& capable) {
    capable = false;
    uint8_t configuration[16] = {};
    int result = boardCommand(SpiOn);
    if (result >= 0) {
        result = boardCommand(ReadConfiguration);
    }
    if (result >= 0) {
        result = readReply(configuration, sizeof configuration, TimeoutMs);
    }
    if (result >= 0 && result < 4) {
        logs::capture.warning("The capture board's configuration came short (%d bytes): taken as without 3D",
                              result);
    } else if (result >= 4) {
        capable = configuration[3] == Capable3D;
    }
    const int off = boardCommand(SpiOff);
    return result < 0 ? result : off;
}

Error Ft601Board::openOnce(const std::string& serial) {
    std::string denied;
    if (const int result = m_usb.open(serial, denied); result < 0) {
        const bool opened = m_usb.isOpen();
        m_usb.close();
        return usbError(opened ? StepConfigure : StepOpen, denied, result);
    }
    for (const int interfaceNumber : {0, 1}) {
        if (const int result = m_usb.claim(interfaceNumber); result < 0) {
            m_usb.close();
            return usbError(StepClaim, {}, result);
        }
    }
    // The chip's own configuration; its replies are not needed, only asked for.
    for (const uint16_t index : {0x8000, 0x8400}) {
        uint8_t reply[4];
        m_usb.controlIn(3, 1, index, reply, sizeof reply, TimeoutMs);
    }
    int result = abortData();
    if (result >= 0) {
        result = session(DataEndpoint, Create, 0);
    }
    if (result < 0) {
        m_usb.close();
        return usbError(StepStart, {}, result);
    }
    return {};
}

void Ft601Board::shut() {
    if (!m_usb.isOpen()) {
        return;
    }
    m_usb.cancelReads();
    abortData();
    m_usb.close();
    m_streaming = false;
}

int Ft601Board::startStreaming() {
    const uint32_t bytes = readBytes();
    int result = session(DataEndpoint, Stream, bytes);
    if (result >= 0) {
        result = abortData();
    }
    if (result >= 0) {
        result = session(DataEndpoint, Stream, bytes);
    }
    if (result >= 0) {
        // Reads go into blocks the size of the device's frames, so that a frame is handed over by trading
        // blocks.
        result = m_usb.startReads(DataEndpoint, ReadsInFlight, static_cast<int>(bytes), TimeoutMs,
                                  raw::MaxBlockBytes);
    }
    m_streaming = result >= 0;
    return result;
}

Error Ft601Board::open(const std::string& asked) {
    const std::string& serial = m_onlySerial.empty() ? asked : m_onlySerial;
    close();
    if (const int code = m_usb.init(); code < 0) {
        return usbError(StepInit, {}, code);
    }
    if (Error error = openOnce(serial)) {
        return error;
    }
    // Whatever the board still held from before goes, then it starts afresh on a second opening.
    const auto drainStart = std::chrono::steady_clock::now();
    int result = boardCommand(SpiOn);
    if (result >= 0) {
        auto drain = std::make_unique<uint8_t[]>(DrainBytes);
        readReply(drain.get(), DrainBytes, static_cast<unsigned>(DrainTime.count()));
    }
    std::this_thread::sleep_until(drainStart + DrainTime);
    const std::string found = m_usb.serial();
    shut();
    if (result < 0) {
        return usbError(StepStart, {}, result);
    }
    if (Error error = openOnce(found.empty() ? serial : found)) {
        return error;
    }
    bool capable = false;
    result = chooseFirmware(true, false);
    if (result >= 0) {
        // A board that does not answer as expected still gives the flat picture.
        if (const int read = readConfiguration(capable); read < 0 && read != usb::ErrorNoDevice) {
            logs::capture.warning(
                "The capture board did not tell its configuration (%s): taken as without 3D",
                usb::errorName(read));
            capable = false;
        } else {
            result = read;
        }
    }
    capable = capable && m_usb.superSpeed();
    // The board comes up in 3D; the flat picture is chosen unless 3D is wanted and possible.
    m_3D = m_want3D && capable;
    if (result >= 0 && !m_3D) {
        result = chooseFirmware(false, true);
    }
    if (result >= 0) {
        result = startStreaming();
    }
    if (result < 0) {
        shut();
        return usbError(StepStart, {}, result);
    }
    m_silentFrames = 0;
    std::scoped_lock lock(m_lock);
    m_product = m_usb.product();
    m_serial = m_usb.serial();
    m_productId = m_usb.productId();
    m_superSpeed = m_usb.superSpeed();
    m_can3D = capable;
    m_threeDNow = m_3D;
    m_sendsSound.reset();
    return {};
}

Board::FrameStatus Ft601Board::readFrame(CaptureData& frame) {
    frame.setSound(0, 0);
    const ColumnOrder order = m_3D ? ColumnOrder::Ft601ThreeD : ColumnOrder::Ft601;
    frame.setColumnOrder(order);
    const uint8_t* data = nullptr;
    const int result = m_usb.waitRead(data);
    if (result < 0) {
        return FrameStatus::Gone;
    }
    const auto received = static_cast<uint64_t>(result);
    const uint64_t picture = pictureBytes(order);
    if (received < picture || received > readBytes() - FrameSlack) {
        m_usb.resubmit();
        return FrameStatus::Skipped;
    }
    if (frame.size() != raw::MaxBlockBytes || !frame.exchangeBlock(m_usb.readBuffer())) {
        std::memcpy(frame.data(), data, received);
    }
    // A read that cannot go again shows as a failed read at its turn.
    m_usb.resubmit();
    const uint64_t values = std::min<uint64_t>((received - picture) / 2, raw::MaxSoundValues) & ~uint64_t{1};
    frame.setSound(picture, values);

    m_silentFrames = values > 0 ? 0 : std::min(m_silentFrames + 1, SilentFramesForNoSound);
    bool learned = false;
    {
        std::scoped_lock lock(m_lock);
        if (values > 0) {
            m_sendsSound = true;
        } else if (m_silentFrames >= SilentFramesForNoSound && !m_sendsSound) {
            m_sendsSound = false;
            learned = true;
        }
    }
    if (learned) {
        logs::capture.warning("The capture board sends no sound");
    }
    return FrameStatus::Complete;
}

void Ft601Board::close() {
    shut();
}

Error Ft601Board::set3D(bool on) {
    m_want3D = on;
    if (!m_streaming || on == m_3D) {
        return {};
    }
    if (on && !can3D()) {
        return Error::other("switch the capture board to 3D", {},
                            m_superSpeed ? "the board cannot capture 3D" : "3D needs a USB 3 port");
    }
    // The reads in flight end (their frames are dropped), then the board restarts in the other mode.
    m_usb.finishReads();
    int result = abortData();
    if (result >= 0) {
        result = chooseFirmware(on, true);
    }
    m_3D = on;
    if (result >= 0) {
        result = startStreaming();
    }
    {
        std::scoped_lock lock(m_lock);
        m_threeDNow = m_3D;
    }
    // A board that does not take the switch shows as gone at the next read, and is opened again.
    return result < 0 ? usbError(StepStart, {}, result) : Error();
}

bool Ft601Board::is3D() const {
    std::scoped_lock lock(m_lock);
    return m_threeDNow;
}

bool Ft601Board::can3D() const {
    std::scoped_lock lock(m_lock);
    return m_can3D;
}

BoardInfo Ft601Board::info() const {
    BoardInfo info;
    info.vendorId = Ft601Usb::VendorId;
    std::scoped_lock lock(m_lock);
    info.name = m_product;
    info.productId = m_productId;
    info.serial = m_serial;
    info.sendsSound = m_sendsSound;
    info.usbSpeed = m_superSpeed ? "USB 3" : "USB 2";
    info.can3D = m_can3D;
    info.format = {pictureBytes(m_threeDNow ? ColumnOrder::Ft601ThreeD : ColumnOrder::Ft601),
                   raw::MaxSoundValues, raw::SoundChannels, raw::SoundRate};
    return info;
}

std::vector<std::string> Ft601Board::serials() {
    return m_usb.serialNumbers();
}

} // namespace zandor
