#include "ClassicBoard.h"

#include "CaptureData.h"
#include "RawFrame.h"
#include "ThreeDSender.h"
#include "UsbBoard.h"
#include "base/Log.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace zandor {

namespace {

constexpr uint8_t VendorIn = 0xC0; // device to host, vendor, device recipient

Error usbError(const char* step, std::string path, int code) {
    return Error::library(Error::Domain::Usb, step, std::move(path), code, usb::errorName(code));
}

} // namespace

ClassicBoard::ClassicBoard(std::unique_ptr<UsbBoard> usb, std::string name, std::string onlySerial)
    : m_usb(std::move(usb)), m_name(std::move(name)), m_onlySerial(std::move(onlySerial)),
      m_sender(dynamic_cast<ThreeDSender*>(m_usb.get())) {}

ClassicBoard::~ClassicBoard() = default;

int ClassicBoard::readFirmwareVersion() {
    uint8_t value = VersionRegister;
    if (m_usb->controlTransfer(raw::FrameRequestType, VersionRequest, VersionChipAddress, 0, &value, 1,
                               raw::ControlTimeoutMs) != 1) {
        return 0;
    }
    value = 0;
    if (m_usb->controlTransfer(VendorIn, VersionRequest, VersionChipAddress, 0, &value, 1,
                               raw::ControlTimeoutMs) != 1) {
        return 0;
    }
    return value;
}

Error ClassicBoard::open(const std::string& asked) {
    const std::string& serial = m_onlySerial.empty() ? asked : m_onlySerial;
    if (const int code = m_usb->init(); code < 0) {
        return usbError(StepInit, {}, code);
    }
    const bool opened = serial.empty() ? m_usb->openDeviceWithVidPid(raw::VendorId, raw::ProductId)
                                       : m_usb->openDeviceWithSerial(raw::VendorId, raw::ProductId, serial);
    if (!opened) {
        std::string node;
        const int code = m_usb->openError(node);
        return usbError(StepOpen, node, code < 0 ? code : usb::ErrorNotFound);
    }
    if (const int code = m_usb->setConfiguration(raw::Configuration); code < 0) {
        return usbError(StepConfigure, {}, code);
    }
    if (const int code = m_usb->claimInterface(raw::Interface); code < 0) {
        return usbError(StepClaim, {}, code);
    }
    const int version = readFirmwareVersion();
    std::string found = m_usb->serialNumber();
    {
        std::scoped_lock lock(m_lock);
        m_serial = std::move(found);
        m_firmwareVersion = version;
        m_sendsSound.reset();
    }
    m_readsSound = true;
    m_silentFrames = 0;
    // The board needs a first frame start request and a moment before it answers bulk reads.
    m_usb->controlTransfer(raw::FrameRequestType, raw::FrameRequest, 0, 0, nullptr, 0, raw::ControlTimeoutMs);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return {};
}

Error ClassicBoard::set3D(bool on) {
    if (!m_sender) {
        return Board::set3D(on);
    }
    m_sender->send3D(on);
    m_3D = on;
    return {};
}

Board::FrameStatus ClassicBoard::readFrame(CaptureData& frame) {
    const ColumnOrder order = m_3D ? ColumnOrder::Ft601ThreeD : ColumnOrder::Classic;
    const auto picture = static_cast<int32_t>(pictureBytes(order));
    frame.setColumnOrder(order);
    frame.setSound(0, 0);
    // A failed request is not final: the reads below tell whether the board is gone.
    m_usb->controlTransfer(raw::FrameRequestType, raw::FrameRequest, 0, 0, frame.data(), 0,
                           raw::ControlTimeoutMs);

    // A block too small for the whole read (one sized for flat frames) takes what fits, in whole
    // 512-byte blocks; a picture that does not fit is a skipped frame.
    const auto room = static_cast<int32_t>(std::min<uint64_t>(frame.size(), raw::MaxBlockBytes) &
                                           ~uint64_t{raw::BulkBlockBytes - 1});
    const int32_t wanted =
        std::min(m_readsSound ? picture + static_cast<int32_t>(2 * raw::MaxSoundValues) : picture, room);
    int32_t received = 0;
    int result = usb::Success;
    int32_t transferred = 0;
    do {
        // Whole 512-byte blocks: the last read may run up to 511 bytes into the block's slack.
        const int32_t length = std::min(
            (wanted - received + raw::BulkBlockBytes - 1) & ~(raw::BulkBlockBytes - 1), room - received);
        transferred = 0;
        result = m_usb->bulkTransfer(raw::BulkEndpoint, frame.data() + received, length, &transferred,
                                     raw::BulkTimeoutMs);
        if (result == usb::Success || result == usb::ErrorTimeout) {
            received += std::max(transferred, 0);
        }
    } while (received < wanted && result == usb::Success && transferred > 0);

    if (result == usb::ErrorNoDevice) {
        return FrameStatus::Gone;
    }
    if (result == usb::ErrorPipe) {
        m_usb->clearHalt(raw::BulkEndpoint);
        return FrameStatus::Failed;
    }
    if (received < picture) {
        return result == usb::Success || result == usb::ErrorTimeout ? FrameStatus::Skipped
                                                                     : FrameStatus::Failed;
    }
    if (result == usb::ErrorTimeout && received == picture && m_readsSound) {
        // Nothing after the picture and no zero-length packet either: firmware without sound.
        // Reading past the picture would cost every frame a timeout.
        m_readsSound = false;
    } else if (result != usb::Success && result != usb::ErrorTimeout) {
        return FrameStatus::Failed;
    }
    // Anything past the frame's share is left unread; the next frame start request drops it.
    const uint64_t values =
        std::min<uint64_t>(static_cast<uint64_t>(received - picture) / 2, raw::MaxSoundValues) & ~uint64_t{1};
    frame.setSound(static_cast<uint64_t>(picture), values);

    // A board whose frames come without sound for a while sends none, or one whose firmware sends
    // nothing after the picture at all; the first frame with sound settles it the other way.
    m_silentFrames = values > 0 ? 0 : std::min(m_silentFrames + 1, SilentFramesForNoSound);
    const bool silent = !m_readsSound || m_silentFrames >= SilentFramesForNoSound;
    bool learned = false;
    {
        std::scoped_lock lock(m_lock);
        if (values > 0) {
            m_sendsSound = true;
        } else if (silent && !m_sendsSound) {
            m_sendsSound = false;
            learned = true;
        }
    }
    if (learned) {
        logs::capture.warning("The capture board sends no sound");
    }
    return FrameStatus::Complete;
}

void ClassicBoard::close() {
    m_usb->close();
}

BoardInfo ClassicBoard::info() const {
    BoardInfo info;
    info.name = m_name;
    info.vendorId = raw::VendorId;
    info.productId = raw::ProductId;
    info.format = {pictureBytes(m_3D ? ColumnOrder::Ft601ThreeD : ColumnOrder::Classic), raw::MaxSoundValues,
                   raw::SoundChannels, raw::SoundRate};
    info.can3D = can3D();
    std::scoped_lock lock(m_lock);
    info.serial = m_serial;
    info.firmwareVersion = m_firmwareVersion;
    info.sendsSound = m_sendsSound;
    return info;
}

std::vector<std::string> ClassicBoard::serials() {
    return m_usb->serialNumbers(raw::VendorId, raw::ProductId);
}

bool ClassicBoard::watchArrivals() {
    return m_usb->watchArrivals();
}

bool ClassicBoard::arrived() {
    return m_usb->arrived();
}

void ClassicBoard::stopWatching() {
    m_usb->stopWatching();
}

} // namespace zandor
