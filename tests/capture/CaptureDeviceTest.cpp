#include "GatedBoard.h"
#include "Frames.h"
#include "base/DetachedThread.h"
#include "base/Log.h"
#include "capture/CaptureDevice.h"
#include "capture/CaptureScreen.h"
#include "capture/DemoBoard.h"
#include "capture/RawFrame.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

namespace zandor {
namespace {

using namespace std::chrono_literals;
using test::GatedBoard;
using test::takeFrames;
using ::testing::_;
using ::testing::AnyNumber;
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

// Every test leaves no pipeline thread behind; a test that starts the device also checks it.
class CaptureDeviceTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(DetachedThread::waitForAll(20s)); }
    void TearDown() override { EXPECT_TRUE(DetachedThread::waitForAll(20s)) << "a pipeline thread outlived its test"; }

    static std::shared_ptr<CaptureDevice> gatedDevice(GatedBoard*& board) {
        auto owned = std::make_unique<GatedBoard>();
        board = owned.get();
        return CaptureDevice::create(std::move(owned));
    }
};

struct OpeningFailure {
    int failingStep; // 0 init, 1 open, 2 configure, 3 claim
    const char* line;
};

class OpeningFailureTest : public CaptureDeviceTest, public ::testing::WithParamInterface<OpeningFailure> {};

TEST_P(OpeningFailureTest, StopsAtTheFailingStepLogsItsLineAndStartsNothing) {
    const auto [failingStep, line] = GetParam();
    auto mock = std::make_unique<MockUsbBoard>();
    {
        InSequence order;
        EXPECT_CALL(*mock, init()).WillOnce(Return(failingStep == 0 ? usb::ErrorIo : usb::Success));
        if (failingStep >= 1) {
            EXPECT_CALL(*mock, openDeviceWithVidPid(0x16D0, 0x06A3)).WillOnce(Return(failingStep > 1));
        }
        if (failingStep >= 2) {
            EXPECT_CALL(*mock, setConfiguration(1)).WillOnce(Return(failingStep == 2 ? usb::ErrorIo : usb::Success));
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
    EXPECT_FALSE(device->isListening());
    EXPECT_FALSE(device->screen(0)->isListening());
    EXPECT_FALSE(device->screen(1)->isListening());
    EXPECT_EQ(DetachedThread::running(), 0);
}

INSTANTIATE_TEST_SUITE_P(EachStep, OpeningFailureTest,
                         ::testing::Values(OpeningFailure{0, "Could not initialize USB library"},
                                           OpeningFailure{1, "Could not connect to capture device"},
                                           OpeningFailure{2, "Could not configure capture device"},
                                           OpeningFailure{3, "Could not claim capture interface"}),
                         [](const auto& info) { return "Step" + std::to_string(info.param.failingStep); });

TEST_F(CaptureDeviceTest, OpensTheBoardInOrderAndRequestsFramesWithTheBoardsRequest) {
    auto mock = std::make_unique<NiceMock<MockUsbBoard>>();
    auto* board = mock.get();
    {
        InSequence order;
        EXPECT_CALL(*board, init()).WillOnce(Return(usb::Success));
        EXPECT_CALL(*board, openDeviceWithVidPid(0x16D0, 0x06A3)).WillOnce(Return(true));
        EXPECT_CALL(*board, setConfiguration(1)).WillOnce(Return(usb::Success));
        EXPECT_CALL(*board, claimInterface(0)).WillOnce(Return(usb::Success));
        EXPECT_CALL(*board, controlTransfer(0x40, 0x40, 0, 0, _, 0, 30u)).Times(::testing::AtLeast(1));
    }
    // Every frame times out at once: black frames, and the loop stops after one read.
    ON_CALL(*board, bulkTransfer(0x82, _, _, _, 50u)).WillByDefault([](uint8_t, uint8_t*, int, int* done, unsigned) {
        *done = 0;
        return usb::ErrorTimeout;
    });
    EXPECT_CALL(*board, bulkTransfer(0x82, _, _, _, 50u)).Times(AnyNumber());

    auto device = CaptureDevice::create(std::move(mock));
    auto wakeup = std::make_shared<Wakeup>();
    auto observer = device->addObserver(wakeup);
    ASSERT_TRUE(device->startListening());
    EXPECT_TRUE(device->screen(0)->isListening());
    EXPECT_TRUE(device->screen(1)->isListening());
    auto frames = takeFrames(*device, observer, *wakeup, 2);
    device->stopListening();
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0]->size(), raw::BlockBytes);
    EXPECT_TRUE(test::allZero(*frames[0]));
    EXPECT_GT(frames[1]->timestamp(), frames[0]->timestamp());
}

TEST_F(CaptureDeviceTest, BulkReadsAskForWholeBlocksOfWhatIsStillMissing) {
    GatedBoard* board;
    auto device = gatedDevice(board);
    auto wakeup = std::make_shared<Wakeup>();
    auto observer = device->addObserver(wakeup);

    board->setChunkBytes(518000);
    board->holdAt(1);
    ASSERT_TRUE(device->startListening());
    ASSERT_TRUE(board->waitUntilHeld(1));
    EXPECT_EQ(board->readLengths(0), (std::vector<int>{518656, 512}));

    // Small chunks: every read asks for the rest rounded up to 512 bytes, never more than 511
    // bytes past the frame, so the last one fits the block's slack. Frame 1's first read was
    // already under way with the old chunk size.
    board->setChunkBytes(100000);
    board->holdAt(3);
    ASSERT_TRUE(board->waitUntilHeld(3));
    std::vector<int> expected;
    for (int received = 0; received < 518400; received += 100000) {
        expected.push_back((518400 - received + 511) / 512 * 512);
    }
    EXPECT_EQ(board->readLengths(2), expected);
    device->stopListening();
    board->release();

    auto frames = takeFrames(*device, observer, *wakeup, 3);
    ASSERT_EQ(frames.size(), 3u);
    for (uint64_t n = 0; n < 3; ++n) {
        bool same = true;
        for (uint64_t i = 0; i < raw::FrameBytes && same; ++i) {
            same = frames[n]->data()[i] == test::patternByte(n, i);
        }
        EXPECT_TRUE(same) << "frame " << n << " was not assembled from its chunks";
    }
}

TEST_F(CaptureDeviceTest, FailedReadsPublishBlackStampedFramesAndTheStallIsCleared) {
    GatedBoard* board;
    auto device = gatedDevice(board);
    board->injectFault(2, BoardFault::Timeout);
    board->injectFault(4, BoardFault::ShortFrame);
    board->injectFault(6, BoardFault::Stall);
    auto wakeup = std::make_shared<Wakeup>();
    auto observer = device->addObserver(wakeup);
    ASSERT_TRUE(device->startListening());
    auto frames = takeFrames(*device, observer, *wakeup, 9);
    device->stopListening();

    ASSERT_EQ(frames.size(), 9u);
    for (size_t n = 0; n < frames.size(); ++n) {
        bool black = n == 2 || n == 4 || n == 6;
        EXPECT_EQ(test::allZero(*frames[n]), black) << "frame " << n;
        EXPECT_EQ(frames[n]->size(), raw::BlockBytes);
        if (n > 0) {
            EXPECT_GT(frames[n]->timestamp(), frames[n - 1]->timestamp()) << "frame " << n;
        }
    }
    EXPECT_EQ(frames[7]->data()[0], test::patternByte(7, 0)) << "the board reads again after the stall";
    EXPECT_EQ(board->clearHaltCount(), 1);
    EXPECT_GE(device->count(), 9u);
}

TEST_F(CaptureDeviceTest, AVanishedBoardGivesBlackFramesWhileTheCountGoesOn) {
    GatedBoard* board;
    auto device = gatedDevice(board);
    board->injectFault(3, BoardFault::Vanish);
    auto wakeup = std::make_shared<Wakeup>();
    auto observer = device->addObserver(wakeup);
    ASSERT_TRUE(device->startListening());
    auto frames = takeFrames(*device, observer, *wakeup, 6);
    device->stopListening();
    ASSERT_EQ(frames.size(), 6u);
    EXPECT_FALSE(test::allZero(*frames[2]));
    for (size_t n = 3; n < 6; ++n) {
        EXPECT_TRUE(test::allZero(*frames[n])) << "frame " << n;
    }
    // Starting again finds no board.
    LogCapture log;
    EXPECT_FALSE(device->startListening());
    EXPECT_EQ(log.count("Could not connect to capture device"), 1u);
}

TEST_F(CaptureDeviceTest, LogsTheAverageRateOnEvery300thFrameOnly) {
    GatedBoard* board;
    auto device = gatedDevice(board);
    device->setFramePeriod(0ns);
    board->holdAt(301); // frames 0..300 are the first 301 requests
    LogCapture log;
    ASSERT_TRUE(device->startListening());
    ASSERT_TRUE(board->waitUntilHeld(301));
    EXPECT_EQ(device->count(), 301u);
    device->stopListening();
    board->release();

    std::vector<std::string> rates;
    for (const auto& line : log.lines()) {
        if (line.rfind("Device FPS: ", 0) == 0) {
            rates.push_back(line);
        }
    }
    ASSERT_EQ(rates.size(), 1u);
    double fps = 0, seconds = 0;
    ASSERT_EQ(std::sscanf(rates[0].c_str(), "Device FPS: %lf Timestamp: %lf", &fps, &seconds), 2) << rates[0];
    EXPECT_GT(seconds, 0);
    EXPECT_NEAR(fps, 300 / seconds, 300 / seconds * 1e-3);
}

TEST_F(CaptureDeviceTest, AFullDeviceQueueDropsTheOldestAndLogsBothLines) {
    GatedBoard* board;
    auto device = gatedDevice(board);
    auto slow = device->addObserver(); // never drained while the device runs
    board->holdAt(21);
    LogCapture log;
    ASSERT_TRUE(device->startListening());
    ASSERT_TRUE(board->waitUntilHeld(21));
    device->stopListening();
    board->release();

    auto lines = log.lines();
    auto skipped = std::find(lines.begin(), lines.end(), "Skipped frame of observer 0");
    ASSERT_NE(skipped, lines.end());
    ASSERT_NE(skipped + 1, lines.end());
    EXPECT_EQ(*(skipped + 1), "Frame was skipped as the device buffer became too large");
    EXPECT_EQ(log.count("Skipped frame of observer 0"), 1u);

    std::vector<uint8_t> firstBytes;
    while (auto frame = device->observe(slow)) {
        firstBytes.push_back(frame->data()[0]);
    }
    ASSERT_EQ(firstBytes.size(), 20u);
    for (uint64_t n = 0; n < 20; ++n) {
        EXPECT_EQ(firstBytes[n], test::patternByte(n + 1, 0)) << "frame 0 was the one to go";
    }
}

TEST_F(CaptureDeviceTest, AFrameReadWhileStoppingIsNotPublished) {
    GatedBoard* board;
    auto device = gatedDevice(board);
    board->holdAt(2);
    ASSERT_TRUE(device->startListening());
    ASSERT_TRUE(board->waitUntilHeld(2));
    device->stopListening();
    // Subscribed after the stop: a publish of the frame still being read would reach it.
    auto late = device->addObserver();
    board->release();
    ASSERT_TRUE(DetachedThread::waitForAll(20s));
    EXPECT_FALSE(device->observable(late));
    EXPECT_FALSE(device->isListening());
}

TEST_F(CaptureDeviceTest, StartingTwiceStartsOneScreenThreadEach) {
    GatedBoard* board;
    auto device = gatedDevice(board);
    ASSERT_TRUE(device->startListening());
    const int afterFirst = DetachedThread::running();
    EXPECT_EQ(afterFirst, 3); // device, top, bottom
    device->screen(0)->startListening();
    device->screen(1)->startListening();
    EXPECT_EQ(DetachedThread::running(), afterFirst);
    device->stopListening();
}

TEST_F(CaptureDeviceTest, AfterAStopEveryThreadEndsAndEveryFrameIsReleased) {
    std::weak_ptr<CaptureDevice> watchedDevice;
    std::weak_ptr<CaptureScreen> watchedScreen;
    std::vector<CaptureDataPtr> held;
    {
        auto device = CaptureDevice::create(std::make_unique<DemoBoard>());
        watchedDevice = device;
        watchedScreen = device->screen(1);
        auto wakeup = std::make_shared<Wakeup>();
        auto raw = device->addObserver(wakeup);
        auto top = device->screen(0)->addObserver(wakeup);
        // Restart once: the second run must not leave the first run's threads behind.
        ASSERT_TRUE(device->startListening());
        device->stopListening();
        raw = device->addObserver(wakeup);
        ASSERT_TRUE(device->startListening());
        auto frames = takeFrames(*device, raw, *wakeup, 3);
        auto screens = takeFrames(*device->screen(0), top, *wakeup, 3);
        held.insert(held.end(), frames.begin(), frames.end());
        held.insert(held.end(), screens.begin(), screens.end());
        device->stopListening();
        ASSERT_TRUE(DetachedThread::waitForAll(20s));
        EXPECT_EQ(DetachedThread::running(), 0);
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
