#pragma once

#include "capture/SimulatedBoard.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace zandor::test {

// The bytes of raw frame `frame` at `offset` in the test boards: a cheap mix of both, so that
// frames differ from each other and every byte position matters.
uint8_t patternByte(uint64_t frame, uint64_t offset);

// A simulated board whose frames follow patternByte and which can be held inside the bulk read of
// a chosen frame until the test releases it. Every bulk read first scribbles over the whole buffer,
// as a real transfer may leave anything there: a frame comes out black only if it is cleared.
class GatedBoard final : public SimulatedBoard {
public:
    int bulkTransfer(uint8_t endpoint, uint8_t* data, int length, int* transferred,
                     unsigned timeoutMs) override;
    // Reads of frame `frame` and later ones wait until release() or a later holdAt(), which lets
    // a held read go on.
    void holdAt(uint64_t frame);
    void release() { holdAt(UINT64_MAX); }
    // Waits until the read of frame `frame` is held; false on timeout.
    bool waitUntilHeld(uint64_t frame, std::chrono::milliseconds timeout = std::chrono::seconds(20));

protected:
    void fill(uint64_t frame, uint64_t offset, uint8_t* destination, uint64_t length) override;

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    uint64_t m_holdAt = UINT64_MAX;
    uint64_t m_held = UINT64_MAX; // the frame whose read waits, if any
};

} // namespace zandor::test
