#pragma once

#include "RawFrame.h"
#include "UsbBoard.h"

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace zandor {

// Faults a simulated board can be told to show at a chosen frame.
enum class BoardFault {
    Timeout,    // the bulk read times out after part of the frame
    ShortFrame, // the frame ends early with a short, successful transfer
    Stall,      // the endpoint stalls until its halt is cleared
    Vanish,     // the board is gone from this frame on, as if unplugged
};

// A board that answers like the real one: a frame start request begins a frame, bulk reads from
// endpoint 0x82 return its picture in the board's raw format and then its sound, a read asking for
// more than what is left ends short, as the board's last short packet does, and every read after
// that gets a zero-length packet until the next frame start request. It tells its firmware version
// and its serial number by the requests a real board answers. Subclasses provide the frames' bytes.
// Frames are numbered from 0 in the order the board sends them; faults are set by that number.
class SimulatedBoard : public UsbBoard {
public:
    int init() override;
    bool openDeviceWithVidPid(uint16_t vendorId, uint16_t productId) override;
    int setConfiguration(int configuration) override;
    int claimInterface(int interfaceNumber) override;
    int controlTransfer(uint8_t requestType, uint8_t request, uint16_t value, uint16_t index, uint8_t* data,
                        uint16_t length, unsigned timeoutMs) override;
    int bulkTransfer(uint8_t endpoint, uint8_t* data, int length, int* transferred,
                     unsigned timeoutMs) override;
    int clearHalt(uint8_t endpoint) override;
    std::string serialNumber() override;
    std::vector<std::string> serialNumbers(uint16_t vendorId, uint16_t productId) override;
    void close() override;
    // Arrivals are announced, as libusb's hotplug does.
    bool watchArrivals() override;
    bool arrived() override;
    void stopWatching() override;

    // The board comes back after a Vanish fault (or unplug()), announced to a watcher unless
    // announcements are off (as on a system without hotplug notices).
    void replug();
    void unplug();
    void setAnnouncesArrivals(bool announces);

    // The serial number (at most 31 ASCII characters; empty for none) and the firmware version
    // (0: the board does not answer the version request).
    void setSerial(std::string serial);
    std::string serial() const;
    void setFirmwareVersion(int version);
    // A board whose firmware sends no sound lets every read after the picture time out.
    void setSendsSound(bool sends);

    void injectFault(uint64_t frame, BoardFault fault);
    // The most bytes one bulk read returns; the real board fills a whole read, so 0 means no limit.
    void setChunkBytes(int bytes);

    // For tests: the lengths asked for by the bulk reads of one of the last few frames, and how
    // often the endpoint's halt was cleared.
    std::vector<int> readLengths(uint64_t frame) const;
    int clearHaltCount() const;
    // How often the board was asked to open.
    int openCount() const;

protected:
    // Writes `length` bytes of frame `frame` starting at byte `offset` of the raw frame.
    virtual void fill(uint64_t frame, uint64_t offset, uint8_t* destination, uint64_t length) = 0;
    // The bytes of the picture of the frame about to be sent, asked at its first read on the reading
    // thread: raw::FrameBytes, or more for a board that sends both eyes of the 3D picture.
    virtual uint64_t pictureBytes() { return raw::FrameBytes; }
    // How many bytes frame `frame` sends after its picture (any number, for tests of boards that
    // send too much), asked once a frame after its picture is sent; and those bytes, from `offset`.
    virtual uint64_t soundBytes(uint64_t frame) {
        (void)frame;
        return 0;
    }
    virtual void fillSound(uint64_t frame, uint64_t offset, uint8_t* destination, uint64_t length) {
        (void)frame;
        (void)offset;
        (void)destination;
        (void)length;
    }

private:
    mutable std::mutex m_mutex;
    std::map<uint64_t, BoardFault> m_faults;
    int m_chunkBytes = 0;
    bool m_open = false;
    bool m_vanished = false;
    bool m_announces = true;
    bool m_watching = false;
    int m_opens = 0;
    bool m_arrived = false;
    bool m_halted = false;
    bool m_frameRead = false;             // the current frame has seen its first read
    int64_t m_frame = -1;                 // frame being sent, -1 before the first request
    uint64_t m_position = 0;              // bytes of it already sent
    uint64_t m_frameEnd = 0;              // its picture and sound, once the picture is sent; else 0
    uint64_t m_picture = raw::FrameBytes; // the bytes of its picture, fixed at its first read
    std::string m_serial = "ZD0000000001";
    int m_firmwareVersion = 6;
    bool m_sendsSound = true;
    uint8_t m_register = 0; // chosen by the version request's first half
    // The last eight frames' read lengths, by frame number modulo eight.
    std::array<std::pair<uint64_t, std::vector<int>>, 8> m_readLengths{};
    int m_clearHalts = 0;
};

} // namespace zandor
