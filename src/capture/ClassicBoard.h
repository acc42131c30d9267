#pragma once

#include "Board.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

namespace zandor {

class ThreeDSender;
class UsbBoard;

// The driver of the 16d0:06a3 board of the console's original models. A frame is a vendor request
// and bulk reads on endpoint 0x82: the picture, then the sound the board captured during the frame,
// ending in a short packet, after which the board answers with zero-length packets until the next
// request. The conversation goes through a UsbBoard: libusb for the real board, or a simulated one.
// A simulated one that can send the 3D picture (a ThreeDSender, the demo board) makes the driver
// offer 3D: its frames then hold both eyes in ColumnOrder::Ft601ThreeD, the sound after them.
class ClassicBoard final : public Board {
public:
    // With `onlySerial`, the driver opens that board alone, whatever serial open() is asked for.
    explicit ClassicBoard(std::unique_ptr<UsbBoard> usb, std::string name = "Capture board",
                          std::string onlySerial = {});
    ~ClassicBoard() override;

    Error open(const std::string& serial) override;
    FrameStatus readFrame(CaptureData& frame) override;
    void close() override;
    BoardInfo info() const override;
    bool can3D() const override { return m_sender != nullptr; }
    bool is3D() const override { return m_3D; }
    Error set3D(bool on) override;
    std::vector<std::string> serials() override;
    bool watchArrivals() override;
    bool arrived() override;
    void stopWatching() override;

    // The bus conversation behind the driver; tests drive simulated boards through it.
    UsbBoard& usb() { return *m_usb; }

    // The firmware version requests: the configuration chip's address and the register read.
    static constexpr uint8_t VersionRequest = 0x21;
    static constexpr uint16_t VersionChipAddress = 0x14;
    static constexpr uint8_t VersionRegister = 0x01;
    // After this many complete frames in a row without sound (half a second) the board is taken
    // for one that sends none.
    static constexpr int SilentFramesForNoSound = 30;

private:
    int readFirmwareVersion();

    const std::unique_ptr<UsbBoard> m_usb;
    const std::string m_name;
    const std::string m_onlySerial;
    ThreeDSender* const m_sender; // the conversation, when it can send both eyes; else null
    // Whether frames hold both eyes: written on the device thread between frames (or before the
    // board opens), read by whoever asks.
    std::atomic<bool> m_3D = false;
    // What the board told at its last opening and its first frames; guarded by m_lock, as the log
    // and the command line may ask while the device thread reads.
    mutable std::mutex m_lock;
    std::string m_serial;
    int m_firmwareVersion = 0;
    std::optional<bool> m_sendsSound;
    // The device thread's own: whether reads go on after the picture for the sound. A board that
    // lets a read after the picture time out sends none, and is not asked again until reopened.
    bool m_readsSound = true;
    int m_silentFrames = 0; // complete frames in a row without sound
};

} // namespace zandor
