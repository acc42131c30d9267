#pragma once

#include "capture/SimulatedBoard.h"
#include "capture/UsbBoard.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace zandor {

// Faults the emulated FT601 board can show at a chosen streamed frame (counted from 0 after each plug).
enum class Ft601Fault {
    ShortFrame,     // the frame ends well before its picture does
    OversizedFrame, // the frame runs into the last 1024 bytes of the read
    Stall,          // the read is never answered
};

// What the emulated FT601 board is and how it misbehaves.
struct Ft601Options {
    uint16_t productId = 0x601F;
    std::string product = "N3DSXL";
    bool superSpeed = true;            // false: a USB 2 port, where 3D is not possible
    bool capable3D = true;             // the configuration's byte 3 says 0xC1
    bool garbageConfiguration = false; // the configuration read returns noise
    bool answersConfiguration = true;  // false: the configuration read times out
};

// The board of the console's new models as its FT601 chip and its firmware answer: the two vendor
// control reads of an opening, the chip's 20-byte session commands on endpoint 0x01 (checked field by
// field and by their numbering; a wrong one is never answered, as the chip lets it time out, and is
// logged), the board's commands on 0x02 (SPI on and off, the configuration read, the firmware choice)
// and, while streaming, one frame a read on 0x82: the picture of `source` (any simulated board of
// the old kind: the demo picture or a replay) in the new board's column order, its sound after it,
// ending short. In 3D the right eye is the left one moved RightEyeShift columns to the left. A
// firmware chosen once frames have streamed since the board was opened sends no sound until chosen
// again, unless SPI on came once more before SPI off, as the real board's sound needs.
// Called on the emulator's ioctl thread; faults and the log may be read from any thread.
class Ft601Model final : public UsbBoard {
public:
    Ft601Model(std::unique_ptr<SimulatedBoard> source, Ft601Options options);

    static constexpr uint16_t VendorId = 0x0403;
    static constexpr uint64_t RightEyeShift = 8;

    const Ft601Options& options() const { return m_options; }
    SimulatedBoard& source() { return *m_source; }
    // The board's description in sysfs: device and configuration descriptors as hex.
    std::string descriptors() const;

    void injectFault(uint64_t frame, Ft601Fault fault);
    // The commands refused since the start, one line each.
    std::vector<std::string> refused() const;
    // The session commands received since the start, right or wrong.
    uint64_t sessionCommands() const;
    // Frames streamed since the last plug, and whether the board now sends both eyes.
    uint64_t framesSent() const;
    bool is3D() const;

    int init() override { return usb::Success; }
    // Plugging in: a fresh chip and board.
    bool openDeviceWithVidPid(uint16_t vendorId, uint16_t productId) override;
    int setConfiguration(int configuration) override;
    int claimInterface(int interfaceNumber) override;
    int controlTransfer(uint8_t requestType, uint8_t request, uint16_t value, uint16_t index, uint8_t* data,
                        uint16_t length, unsigned timeoutMs) override;
    // Writes to 0x01 and 0x02, reads from 0x82. usb::ErrorTimeout: left unanswered.
    int bulkTransfer(uint8_t endpoint, uint8_t* data, int length, int* transferred,
                     unsigned timeoutMs) override;
    int clearHalt(uint8_t) override { return usb::Success; }
    std::string serialNumber() override { return m_source->serial(); }

private:
    int sessionCommand(const uint8_t* command, int length);
    int boardCommand(const uint8_t* command, int length);
    int readReply(uint8_t* data, int length, int* transferred);
    int streamFrame(uint8_t* data, int length, int* transferred);
    int refuse(std::string why);
    // Whether the firmware is still starting after a choice.
    bool busy() const;

    const std::unique_ptr<SimulatedBoard> m_source;
    const Ft601Options m_options;

    mutable std::mutex m_mutex;
    std::map<uint64_t, Ft601Fault> m_faults;
    std::vector<std::string> m_refused;
    std::optional<uint32_t> m_lastCommand;
    std::map<uint8_t, uint32_t> m_prepared; // pipe: bytes of the one transfer prepared
    uint32_t m_streaming = 0;               // bytes a streamed read, 0 when not streaming
    bool m_spi = false;
    bool m_configurationAsked = false;
    bool m_3D = false;
    bool m_firmwareChosen = false; // in the SPI group now open
    bool m_secondSpiOn = false;    // SPI on came again after the firmware choice
    bool m_sendsSound = true;
    bool m_streamedSinceOpening = false;
    std::chrono::steady_clock::time_point m_readyAt{};
    uint64_t m_leftover = 0; // bytes the board still holds from before it was opened
    uint64_t m_frames = 0;
    uint64_t m_sessionCommands = 0;
    std::vector<uint8_t> m_classic; // the source's frame in the old board's order, and its sound
};

} // namespace zandor
