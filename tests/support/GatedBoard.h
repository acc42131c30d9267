#pragma once

#include "base/Wakeup.h"
#include "base/Worker.h"
#include "capture/CaptureDevice.h"
#include "capture/SimulatedBoard.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace zandor::test {

// Byte `offset` of raw frame `frame` as the test boards send it: a cheap mix of the frame's number
// and the byte's position, so that frames differ and every byte position matters.
uint8_t patternByte(uint64_t frame, uint64_t offset);
// Whether `data` holds all of raw frame `frame` of that pattern.
bool isPatternFrame(const uint8_t* data, uint64_t frame);

// A simulated board whose frames are of that pattern and which can be held inside the bulk read of
// a chosen frame until the test releases it. Every bulk read first scribbles over the whole buffer,
// as a real transfer may leave anything there: a frame comes out black only if it is cleared.
class GatedBoard : public SimulatedBoard {
public:
    int bulkTransfer(uint8_t endpoint, uint8_t* data, int length, int* transferred,
                     unsigned timeoutMs) override;
    // Reads of frame `frame` and later ones wait until release() or a later holdAt(), which lets
    // a held read go on.
    void holdAt(uint64_t frame);
    void release() { holdAt(UINT64_MAX); }
    // Waits until the read of frame `frame` is held; false on timeout.
    bool waitUntilHeld(uint64_t frame, std::chrono::milliseconds timeout = std::chrono::seconds(20));

    // While locked out the board is plugged in at /dev/bus/usb/001/009 but refuses to be opened,
    // as a node without our udev rule does.
    void lockOut(bool locked) { m_lockedOut = locked; }
    bool openDeviceWithVidPid(uint16_t vendorId, uint16_t productId) override;
    int openError(std::string& node) override;

protected:
    void fill(uint64_t frame, uint64_t offset, uint8_t* destination, uint64_t length) override;

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    uint64_t m_holdAt = UINT64_MAX;
    uint64_t m_held = UINT64_MAX; // the frame whose read waits, if any
    std::atomic<bool> m_lockedOut = false;
};

// A device reading a gated board. Every test starts and ends with no pipeline thread running.
class GatedDeviceTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(Worker::running(), 0); }
    void TearDown() override {
        m_board->release();
        m_device->stopListening();
        EXPECT_EQ(Worker::running(), 0) << "a pipeline thread outlived its stop";
    }

    std::unique_ptr<GatedBoard> m_owned = std::make_unique<GatedBoard>();
    GatedBoard* m_board = m_owned.get();
    std::shared_ptr<CaptureDevice> m_device = CaptureDevice::create(std::move(m_owned));
    std::shared_ptr<Wakeup> m_wakeup = std::make_shared<Wakeup>();
};

} // namespace zandor::test
