#include "Frames.h"
#include "GatedBoard.h"
#include "base/DetachedThread.h"
#include "base/Log.h"
#include "capture/CaptureDevice.h"
#include "capture/CaptureScreen.h"
#include "capture/DemoBoard.h"
#include "capture/RawFrame.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstring>

namespace zandor {
namespace {

using namespace std::chrono_literals;
using test::GatedBoard;
using test::takeFrames;
using ::testing::_;
using ::testing::InSequence;
using ::testing::NiceMock;
using ::testing::Return;

class MockUsbBoard : public UsbBoard {
public:
    MOCK_METHOD(int, init, (), (override));
    MOCK_METHOD(bool, openDeviceWithVidPid, (uint16_t, uint16_t), (override));
    MOCK_METHOD(int, setConfiguration, (int), (override));
    MOCK_METHOD(int, claimInterface, (int), (override));
    MOCK_METHOD(int, controlTransfer, (uint8_t, uint8_t, uint16_t, uint16_t, uint8_t*, uint16_t, unsigned),
                (override));
    MOCK_METHOD(int, bulkTransfer, (uint8_t, uint8_t*, int, int*, unsigned), (override));
    MOCK_METHOD(int, clearHalt, (uint8_t), (override));
};

class CaptureDeviceTest : public test::GatedDeviceTest {
protected:
    std::vector<CaptureDataPtr> run(const std::shared_ptr<CaptureDevice>& device, size_t count) {
        return test::playFrames(*device, m_wakeup, count);
    }
};

struct OpeningFailure {
    int failingStep; // 0 init, 1 open, 2 configure, 3 claim
    const char* line;
};

class OpeningFailureTest : public CaptureDeviceTest, public ::testing::WithParamInterface<OpeningFailure> {};

TEST_P(OpeningFailureTest, OpensInOrderStopsAtTheFailingStepLogsItsLineAndStartsNothing) {
    const auto [failingStep, line] = GetParam();
    auto mock = std::make_unique<MockUsbBoard>();
    {
        InSequence order;
        EXPECT_CALL(*mock, init()).WillOnce(Return(failingStep == 0 ? usb::ErrorIo : usb::Success));
        if (failingStep >= 1) {
            EXPECT_CALL(*mock, openDeviceWithVidPid(0x16D0, 0x06A3)).WillOnce(Return(failingStep > 1));
        }
        if (failingStep >= 2) {
            EXPECT_CALL(*mock, setConfiguration(1))
                .WillOnce(Return(failingStep == 2 ? usb::ErrorIo : usb::Success));
        }
        if (failingStep >= 3) {
            EXPECT_CALL(*mock, claimInterface(0)).WillOnce(Return(usb::ErrorAccess));
        }
    }
    EXPECT_CALL(*mock, controlTransfer).Times(0);
    EXPECT_CALL(*mock, bulkTransfer).Times(0);

    LogCapture log;
    auto device = CaptureDevice::create(std::move(mock));
    EXPECT_FALSE(device->startListening());
    EXPECT_EQ(log.lines(), std::vector<std::string>{line});
    EXPECT_FALSE(device->isListening() || device->screen(0)->isListening() ||
                 device->screen(1)->isListening());
    EXPECT_EQ(DetachedThread::running(), 0);
}

INSTANTIATE_TEST_SUITE_P(EachStep, OpeningFailureTest,
                         ::testing::Values(OpeningFailure{0, "Could not initialize USB library"},
                                           OpeningFailure{1, "Could not connect to capture device"},
                                           OpeningFailure{2, "Could not configure capture device"},
                                           OpeningFailure{3, "Could not claim capture interface"}),
                         [](const auto& info) { return "Step" + std::to_string(info.param.failingStep); });

TEST_F(CaptureDeviceTest, RequestsFramesWithTheBoardsRequestAndTimeoutsGiveBlackFrames) {
    auto mock = std::make_unique<NiceMock<MockUsbBoard>>();
    ON_CALL(*mock, openDeviceWithVidPid(0x16D0, 0x06A3)).WillByDefault(Return(true));
    EXPECT_CALL(*mock, controlTransfer(0x40, 0x40, 0, 0, _, 0, 30u)).Times(::testing::AtLeast(1));
    // Every frame times out at once: black frames, and the loop stops after one read.
    EXPECT_CALL(*mock, bulkTransfer(0x82, _, _, _, 50u))
        .WillRepeatedly([](uint8_t, uint8_t* data, int length, int* done, unsigned) {
            std::memset(data, 0xA5, static_cast<size_t>(length)); // what a failed transfer may leave
            *done = 0;
            return usb::ErrorTimeout;
        });
    auto frames = run(CaptureDevice::create(std::move(mock)), 2);
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0]->size(), raw::BlockBytes);
    EXPECT_TRUE(test::allZero(*frames[0]));
    EXPECT_GT(frames[1]->timestamp(), frames[0]->timestamp());
}

TEST_F(CaptureDeviceTest, BulkReadsAskForWholeBlocksOfWhatIsStillMissing) {
    auto observer = m_device->addObserver(m_wakeup);
    m_board->setChunkBytes(518000);
    m_board->holdAt(1);
    ASSERT_TRUE(m_device->startListening());
    ASSERT_TRUE(m_board->waitUntilHeld(1));
    EXPECT_EQ(m_board->readLengths(0), (std::vector<int>{518656, 512}));

    // Small chunks: every read asks for the rest rounded up to 512 bytes, never more than 511
    // bytes past the frame, so the last one fits the block's slack. Frame 1's first read was
    // already under way with the old chunk size.
    m_board->setChunkBytes(100000);
    m_board->holdAt(3);
    ASSERT_TRUE(m_board->waitUntilHeld(3));
    std::vector<int> expected;
    for (int received = 0; received < 518400; received += 100000) {
        expected.push_back((518400 - received + 511) / 512 * 512);
    }
    EXPECT_EQ(m_board->readLengths(2), expected);
    m_device->stopListening();
    m_board->release();

    auto frames = takeFrames(*m_device, observer, *m_wakeup, 3);
    ASSERT_EQ(frames.size(), 3u);
    for (uint64_t n = 0; n < 3; ++n) {
        uint64_t i = 0;
        while (i < raw::FrameBytes && frames[n]->data()[i] == test::patternByte(n, i)) {
            ++i;
        }
        EXPECT_EQ(i, raw::FrameBytes) << "frame " << n << " was not assembled from its chunks";
    }
}

TEST_F(CaptureDeviceTest, FailedReadsPublishBlackStampedFramesAndTheStallIsCleared) {
    m_board->injectFault(2, BoardFault::Timeout);
    m_board->injectFault(4, BoardFault::ShortFrame);
    m_board->injectFault(6, BoardFault::Stall);
    auto frames = run(m_device, 9);
    ASSERT_EQ(frames.size(), 9u);
    for (size_t n = 0; n < frames.size(); ++n) {
        EXPECT_EQ(test::allZero(*frames[n]), n == 2 || n == 4 || n == 6) << "frame " << n;
        EXPECT_EQ(frames[n]->size(), raw::BlockBytes);
        EXPECT_TRUE(n == 0 || frames[n]->timestamp() > frames[n - 1]->timestamp()) << "frame " << n;
    }
    EXPECT_EQ(frames[7]->data()[0], test::patternByte(7, 0)) << "the board reads again after the stall";
    EXPECT_EQ(m_board->clearHaltCount(), 1);
    EXPECT_GE(m_device->count(), 9u);
}

// With hotplug notices the board is opened when it is announced; without, it is looked for twice a
// second. Either way the device publishes black frames meanwhile and never asks the board in a loop.
class ReconnectTest : public CaptureDeviceTest, public ::testing::WithParamInterface<bool> {};

TEST_P(ReconnectTest, AVanishedBoardGivesBlackFramesUntilItIsBackAndIsLookedForWithoutSpinning) {
    const bool announced = GetParam();
    m_board->setAnnouncesArrivals(announced);
    m_board->injectFault(3, BoardFault::Vanish);
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<bool> connections;
    m_device->setConnectionObserver([&](bool connected) {
        std::scoped_lock lock(mutex);
        connections.push_back(connected);
        changed.notify_all();
    });
    const auto waitForConnections = [&](size_t count) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, 20s, [&] { return connections.size() >= count; });
    };
    LogCapture log;
    auto observer = m_device->addObserver(m_wakeup);
    ASSERT_TRUE(m_device->startListening());
    auto frames = takeFrames(*m_device, observer, *m_wakeup, 3);
    ASSERT_TRUE(waitForConnections(1));
    const int opensBefore = m_board->openCount();
    auto away = takeFrames(*m_device, observer, *m_wakeup, 45); // three quarters of a second
    ASSERT_EQ(away.size(), 45u);
    const int attempts = m_board->openCount() - opensBefore;
    if (announced) {
        EXPECT_EQ(attempts, 0) << "nothing was announced";
    } else {
        EXPECT_GE(attempts, 1);
        EXPECT_LE(attempts, 3) << "looked for the board every frame";
    }

    m_board->replug();
    for (int n = 0; n < 60 * 5 && (away.empty() || test::allZero(*away.back())); ++n) {
        auto more = takeFrames(*m_device, observer, *m_wakeup, 1);
        ASSERT_EQ(more.size(), 1u);
        away.push_back(more.front());
    }
    frames.insert(frames.end(), away.begin(), away.end());
    ASSERT_FALSE(test::allZero(*frames.back())) << "the board never came back";
    for (size_t n = 1; n < frames.size(); ++n) {
        EXPECT_GT(frames[n]->timestamp(), frames[n - 1]->timestamp()) << "frame " << n;
    }
    EXPECT_FALSE(test::allZero(*frames[2]));
    EXPECT_TRUE(test::allZero(*frames[3])) << "the read that found the board gone";
    EXPECT_EQ(log.count("Capture device disconnected"), 1u);
    EXPECT_EQ(log.count("Capture device reconnected"), 1u);
    EXPECT_EQ(log.countPrefix("Could not"), 0u) << "the attempts while the board was away fill the log";
    {
        std::scoped_lock lock(mutex);
        EXPECT_EQ(connections, (std::vector<bool>{false, true}));
    }

    // Gone again and stopped: a new start is the ordinary failure to find the board.
    m_board->unplug();
    ASSERT_TRUE(waitForConnections(3));
    m_device->stopListening();
    ASSERT_TRUE(DetachedThread::waitForAll(20s));
    EXPECT_FALSE(m_device->startListening());
    EXPECT_EQ(log.count("Could not connect to capture device"), 1u);
}

INSTANTIATE_TEST_SUITE_P(Arrivals, ReconnectTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Announced" : "LookedFor"; });

// A board that can come back with a device node we may not open (its udev rule went meanwhile).
class LockedOutBoard final : public GatedBoard {
public:
    void lockOut(bool locked) {
        std::scoped_lock lock(m_mutex);
        m_lockedOut = locked;
    }
    bool waitForRefusals(int count) {
        std::unique_lock lock(m_mutex);
        return m_refused.wait_for(lock, 20s, [&] { return m_refusals >= count; });
    }
    bool openDeviceWithVidPid(uint16_t vendorId, uint16_t productId) override {
        {
            std::scoped_lock lock(m_mutex);
            if (m_lockedOut) {
                ++m_refusals;
                m_refused.notify_all();
                return false;
            }
        }
        return GatedBoard::openDeviceWithVidPid(vendorId, productId);
    }
    int openError(std::string& node) override {
        std::scoped_lock lock(m_mutex);
        node = "/dev/bus/usb/001/009";
        return m_lockedOut ? usb::ErrorAccess : usb::ErrorNotFound;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_refused;
    bool m_lockedOut = false;
    int m_refusals = 0;
};

TEST(CaptureDeviceReconnect, ABoardBackWithANodeWeMayNotOpenIsNamedOnceAndTakenWhenItMayBe) {
    ASSERT_TRUE(DetachedThread::waitForAll(20s));
    auto owned = std::make_unique<LockedOutBoard>();
    LockedOutBoard* board = owned.get();
    board->injectFault(2, BoardFault::Vanish);
    auto device = CaptureDevice::create(std::move(owned));
    LogCapture log;
    ASSERT_TRUE(device->startListening());
    ASSERT_TRUE(log.waitFor("Capture device disconnected", 20s));
    board->lockOut(true);
    board->replug();
    // Three attempts, half a second apart, all refused: one line says why.
    EXPECT_TRUE(board->waitForRefusals(3));
    EXPECT_EQ(
        log.count("No permission to open the capture board at /dev/bus/usb/001/009: install the udev rule "
                  "70-zandor-capture.rules (see README) and plug the board in again"),
        1u);
    EXPECT_EQ(log.countPrefix("Could not"), 0u);
    board->lockOut(false);
    EXPECT_TRUE(log.waitFor("Capture device reconnected", 20s));
    device->stopListening();
    EXPECT_TRUE(DetachedThread::waitForAll(20s));
}

TEST_F(CaptureDeviceTest, LogsTheAverageRateOnEvery300thFrameOnly) {
    m_device->setFramePeriod(0ns);
    m_board->holdAt(601); // frames 0..600 are the first 601 requests
    LogCapture log;
    ASSERT_TRUE(m_device->startListening());
    // 601 unpaced reads take a while under the thread checker.
    ASSERT_TRUE(m_board->waitUntilHeld(601, 90s));
    EXPECT_EQ(m_device->count(), 601u);
    std::vector<std::string> lines = log.lines();
    std::erase_if(lines, [](const std::string& line) { return line.rfind("Device FPS: ", 0) != 0; });
    ASSERT_EQ(lines.size(), 2u);
    for (size_t n = 0; n < 2; ++n) {
        double fps = 0, seconds = 0;
        ASSERT_EQ(std::sscanf(lines[n].c_str(), "Device FPS: %lf Timestamp: %lf", &fps, &seconds), 2);
        const double frames = 300.0 * static_cast<double>(n + 1);
        EXPECT_GT(seconds, 0);
        EXPECT_NEAR(fps, frames / seconds, frames / seconds * 1e-3) << lines[n];
    }
}

TEST_F(CaptureDeviceTest, AFrameReadWhileStoppingIsNotPublished) {
    m_board->holdAt(2);
    ASSERT_TRUE(m_device->startListening());
    ASSERT_TRUE(m_board->waitUntilHeld(2));
    m_device->stopListening();
    // Subscribed after the stop: a publish of the frame still being read would reach it.
    auto late = m_device->addObserver();
    m_board->release();
    ASSERT_TRUE(DetachedThread::waitForAll(20s));
    EXPECT_FALSE(m_device->observable(late));
    EXPECT_FALSE(m_device->isListening());
}

TEST_F(CaptureDeviceTest, AfterAStopEveryThreadEndsAndEveryFrameIsReleased) {
    std::weak_ptr<CaptureDevice> watchedDevice;
    std::weak_ptr<CaptureScreen> watchedScreen;
    std::vector<CaptureDataPtr> held;
    {
        auto device = CaptureDevice::create(std::make_unique<DemoBoard>());
        watchedDevice = device;
        watchedScreen = device->screen(1);
        auto raw = device->addObserver(m_wakeup);
        auto top = device->screen(0)->addObserver(m_wakeup);
        // Starting the screens again starts no second thread for them; a restart must not leave
        // the first run's threads behind.
        ASSERT_TRUE(device->startListening());
        device->screen(0)->startListening();
        device->screen(1)->startListening();
        EXPECT_EQ(DetachedThread::running(), 3); // device, top, bottom
        device->stopListening();
        raw = device->addObserver(m_wakeup);
        ASSERT_TRUE(device->startListening());
        auto frames = takeFrames(*device, raw, *m_wakeup, 3);
        auto screens = takeFrames(*device->screen(0), top, *m_wakeup, 3);
        held.insert(held.end(), frames.begin(), frames.end());
        held.insert(held.end(), screens.begin(), screens.end());
        device->stopListening();
        ASSERT_TRUE(DetachedThread::waitForAll(20s));
        device->screen(0)->removeObserver(top);
    }
    EXPECT_TRUE(watchedDevice.expired());
    EXPECT_TRUE(watchedScreen.expired());
    ASSERT_EQ(held.size(), 6u);
    for (const auto& frame : held) {
        EXPECT_EQ(frame.use_count(), 1) << "a queue or thread still holds a frame";
    }
}

} // namespace
} // namespace zandor
