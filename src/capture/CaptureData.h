#pragma once

#include "ColumnOrder.h"

#include <bit>
#include <chrono>
#include <cstdint>
#include <memory>
#include <span>

namespace zandor {

class FramePool;

// The board's sound values are little-endian and are read in place.
static_assert(std::endian::native == std::endian::little);

// One frame: an owned block of bytes, the seconds since the device started listening, the
// wall-clock time it was taken, which places it beside the sound recorded at the same moment, and
// its number: the slot on the board's frame grid it was taken in (see CaptureDevice), which
// frames cut from the same board frame share and no other frame of the device has.
// Frames travel as std::shared_ptr<CaptureData>; after publishing nobody writes them.
class CaptureData {
public:
    // The block is allocated but not cleared.
    explicit CaptureData(uint64_t size);
    // A frame over a block that other frames share (the same black picture, say); it is never
    // written.
    CaptureData(std::shared_ptr<uint8_t[]> sharedBlock, uint64_t size);
    // A frame over a block of `pool`, which gets it back when the frame goes (see FramePool::take).
    CaptureData(uint8_t* pooledBlock, uint64_t size, std::shared_ptr<FramePool> pool);
    ~CaptureData();
    CaptureData(const CaptureData&) = delete;
    CaptureData& operator=(const CaptureData&) = delete;

    static std::shared_ptr<CaptureData> create(uint64_t size) { return std::make_shared<CaptureData>(size); }

    uint8_t* data() { return m_bytes; }
    const uint8_t* data() const { return m_bytes; }
    uint64_t size() const { return m_size; }
    double timestamp() const { return m_timestamp; }
    void setTimestamp(double seconds) { m_timestamp = seconds; }
    // The epoch when unknown.
    std::chrono::system_clock::time_point wallClock() const { return m_wallClock; }
    void setWallClock(std::chrono::system_clock::time_point time) { m_wallClock = time; }
    // 0 for a frame that did not come from a device.
    uint64_t number() const { return m_number; }
    void setNumber(uint64_t number) { m_number = number; }
    // The board's sound for this frame: interleaved stereo values that follow the picture in the
    // block (see raw::ReadBytes). Empty when the board sent none with it (a skipped frame, a
    // board without sound, a frame not from a board).
    std::span<const int16_t> sound() const {
        return {reinterpret_cast<const int16_t*>(m_bytes + m_soundOffset), m_soundValues};
    }
    void setSound(uint64_t byteOffset, uint64_t values) {
        m_soundOffset = byteOffset;
        m_soundValues = values;
    }

    // How the screens' columns lie in the picture (a raw frame's; the board sets it).
    ColumnOrder columnOrder() const { return m_columnOrder; }
    void setColumnOrder(ColumnOrder order) { m_columnOrder = order; }

    // A frame made from another shows the same moment of the same board frame.
    void takeTimesOf(const CaptureData& other) {
        m_timestamp = other.m_timestamp;
        m_wallClock = other.m_wallClock;
        m_number = other.m_number;
    }

    // Trades a pooled frame's block for `block` (new uint8_t[size()], as a pool makes them), which
    // gets the frame's: a board that reads into blocks of its own hands a frame over without
    // copying it. False, and nothing traded, for a frame whose block is not pooled.
    bool exchangeBlock(std::unique_ptr<uint8_t[]>& block) {
        if (!m_pool || m_data || !block) {
            return false;
        }
        uint8_t* mine = m_bytes;
        m_bytes = block.release();
        block.reset(mine);
        return true;
    }

    // A new frame with the same bytes; its time stamp and number are left at 0 on purpose.
    std::shared_ptr<CaptureData> copy() const;

private:
    std::shared_ptr<uint8_t[]> m_data; // a block of its own or a shared one; null for a pooled block
    std::shared_ptr<FramePool> m_pool;
    uint8_t* m_bytes;
    uint64_t m_size;
    double m_timestamp = 0;
    std::chrono::system_clock::time_point m_wallClock{};
    uint64_t m_number = 0;
    uint64_t m_soundOffset = 0;
    uint64_t m_soundValues = 0;
    ColumnOrder m_columnOrder = ColumnOrder::Classic;
};

using CaptureDataPtr = std::shared_ptr<CaptureData>;

} // namespace zandor
