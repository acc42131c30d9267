#pragma once

#include "UsbBoard.h"

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
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
// endpoint 0x82 return its bytes in the board's raw format, and a read asking for more than what
// is left ends short, as the board's last short packet does. Subclasses provide the frames' bytes.
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
    bool m_frameRead = false; // the current frame has seen its first read
    int64_t m_frame = -1;     // frame being sent, -1 before the first request
    uint64_t m_position = 0;  // bytes of it already sent
    // The last eight frames' read lengths, by frame number modulo eight.
    std::array<std::pair<uint64_t, std::vector<int>>, 8> m_readLengths{};
    int m_clearHalts = 0;
};

} // namespace zandor
