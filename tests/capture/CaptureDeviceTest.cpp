#include "Frames.h"
#include "GatedBoard.h"
#include "base/Worker.h"
#include "base/Log.h"
#include "capture/Board.h"
#include "capture/CaptureDevice.h"
#include "capture/CaptureScreen.h"
#include "capture/DemoBoard.h"
#include "capture/RawFrame.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <thread>

namespace zandor {
namespace {

using namespace std::chrono_literals;
using test::allZero;
using test::takeFrames;
using ::testing::_;
using ::testing::Return;

class MockUsbBoard : public UsbBoard {
public:
    MOCK_METHOD(int, init, (), (override));
    MOCK_METHOD(bool, openDeviceWithVidPid, (uint16_t, uint16_t), (override));
    MOCK_METHOD(int, openError, (std::string&), (override));
    MOCK_METHOD(int, setConfiguration, (int), (override));
    MOCK_METHOD(int, claimInterface, (int), (override));
    MOCK_METHOD(int, controlTransfer, (uint8_t, uint8_t, uint16_t, uint16_t, uint8_t*, uint16_t, unsigned),
                (override));
    MOCK_METHOD(int, bulkTransfer, (uint8_t, uint8_t*, int, int*, unsigned), (override));
    MOCK_METHOD(int, clearHalt, (uint8_t), (override));
};

using CaptureDeviceTest = test::GatedDeviceTest;

struct OpeningFailure {
    const char* name;
    int failingStep;  // 0 init, 1 open, 2 configure, 3 claim
    int code;         // what the failing step (or, for the open, openError) returns
    const char* step; // the failure's step
    std::vector<std::string> lines;
};

class OpeningFailureTest : public ::testing::TestWithParam<OpeningFailure> {};

TEST_P(OpeningFailureTest, OpensInOrderStopsAtTheFailingStepSaysWhyAndStartsNothing) {
    const OpeningFailure& c = GetParam();
    auto mock = std::make_unique<MockUsbBoard>();
    {
        ::testing::InSequence order;
        EXPECT_CALL(*mock, init()).WillOnce(Return(c.failingStep == 0 ? c.code : usb::Success));
        if (c.failingStep >= 1) {
            EXPECT_CALL(*mock, openDeviceWithVidPid(0x16D0, 0x06A3)).WillOnce(Return(c.failingStep > 1));
        }
        if (c.failingStep == 1) {
            EXPECT_CALL(*mock, openError(_)).WillOnce([&c](std::string& node) {
                node = "/dev/bus/usb/001/009";
                return c.code;
            });
        }
        if (c.failingStep >= 2) {
            EXPECT_CALL(*mock, setConfiguration(1))
                .WillOnce(Return(c.failingStep == 2 ? c.code : usb::Success));
        }
        if (c.failingStep >= 3) {
            EXPECT_CALL(*mock, claimInterface(0)).WillOnce(Return(c.code));
        }
    }
    EXPECT_CALL(*mock, controlTransfer).Times(0);
    EXPECT_CALL(*mock, bulkTransfer).Times(0);

    LogCapture log;
    auto device = CaptureDevice::create(std::move(mock));
    bool notified = false;
    device->setConnectionObserver([&](bool) { notified = true; });
    EXPECT_FALSE(device->startListening());
    const Error failure = device->failure();
    EXPECT_EQ(failure.domain(), Error::Domain::Usb);
    EXPECT_EQ(failure.step(), c.step);
    EXPECT_EQ(failure.code(), c.code);
    EXPECT_EQ(log.lines(), c.lines);
    EXPECT_FALSE(device->isListening() || device->screen(0)->isListening() ||
                 device->screen(1)->isListening());
    EXPECT_FALSE(notified) << "a board missing at the start is not a disconnect";
    EXPECT_EQ(Worker::running(), 0);
}

const std::string Connect = "Could not connect to capture device",
                  Claim = "Could not claim capture interface",
                  BusyLine = "Another program is using the capture board: close it, then try again";
const char* const NoPermissionLine =
    "No permission to open the capture board at /dev/bus/usb/001/009: install "
    "the udev rule 70-zandor-capture.rules (see README) and plug the board in again";

INSTANTIATE_TEST_SUITE_P(
    EachStep, OpeningFailureTest,
    ::testing::Values(
        OpeningFailure{"Library", 0, usb::ErrorIo, Board::StepInit, {"Could not initialize USB library"}},
        OpeningFailure{"NoBoard", 1, usb::ErrorNotFound, Board::StepOpen, {Connect}},
        OpeningFailure{"NoPermission", 1, usb::ErrorAccess, Board::StepOpen, {Connect, NoPermissionLine}},
        OpeningFailure{
            "Configuration", 2, usb::ErrorIo, Board::StepConfigure, {"Could not configure capture device"}},
        OpeningFailure{"Claim", 3, usb::ErrorAccess, Board::StepClaim, {Claim}},
        OpeningFailure{"ClaimBusy", 3, usb::ErrorBusy, Board::StepClaim, {Claim, BusyLine}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(CaptureDeviceTest, FailedReadsPublishBlackStampedFramesAndTheStallIsCleared) {
    m_board->injectFault(2, BoardFault::Timeout);
    m_board->injectFault(4, BoardFault::ShortFrame);
    m_board->injectFault(6, BoardFault::Stall);
    auto frames = test::playFrames(*m_device, m_wakeup, 8);
    ASSERT_EQ(frames.size(), 8u);
    for (size_t n = 0; n < frames.size(); ++n) {
        const bool failed = n == 2 || n == 4 || n == 6;
        EXPECT_TRUE(failed ? allZero(*frames[n]) : test::isPatternFrame(frames[n]->data(), n))
            << "frame " << n;
        EXPECT_EQ(frames[n]->size(), raw::MaxBlockBytes);
        EXPECT_TRUE(n == 0 || frames[n]->timestamp() > frames[n - 1]->timestamp()) << "frame " << n;
    }
    EXPECT_EQ(m_board->clearHaltCount(), 1);
}

// With hotplug notices the board is opened when it is announced; without, it is looked for twice a
// second, never in a loop.
class ReconnectTest : public CaptureDeviceTest, public ::testing::WithParamInterface<bool> {};

TEST_P(ReconnectTest, AVanishedBoardGivesBlackFramesUntilItIsBackAndMayBeOpened) {
    const bool announced = GetParam();
    m_board->setAnnouncesArrivals(announced);
    m_board->injectFault(3, BoardFault::Vanish);
    LogCapture log;
    auto observer = m_device->addObserver(m_wakeup);
    ASSERT_TRUE(m_device->startListening());
    ASSERT_TRUE(log.waitFor("Capture device disconnected", 20s));
    const int opensBefore = m_board->openCount();
    auto frames = takeFrames(*m_device, observer, *m_wakeup, 4 + 45); // and three quarters of a second
    ASSERT_EQ(frames.size(), 49u);
    const int attempts = m_board->openCount() - opensBefore;
    EXPECT_GE(attempts, announced ? 0 : 1);
    EXPECT_LE(attempts, announced ? 0 : 3) << "looked for the board every frame";

    // Back, first with a node we may not open: a second of refused attempts, one line.
    m_board->lockOut(true);
    m_board->replug();
    ASSERT_TRUE(log.waitFor(NoPermissionLine, 20s));
    auto more = takeFrames(*m_device, observer, *m_wakeup, 60);
    frames.insert(frames.end(), more.begin(), more.end());
    m_board->lockOut(false);
    while (frames.size() < 60 * 20 && allZero(*frames.back())) {
        more = takeFrames(*m_device, observer, *m_wakeup, 1);
        ASSERT_EQ(more.size(), 1u);
        frames.push_back(more.front());
    }
    ASSERT_FALSE(allZero(*frames.back())) << "the board never came back";
    for (size_t n = 0; n < frames.size(); ++n) {
        EXPECT_EQ(allZero(*frames[n]), n >= 3 && n + 1 < frames.size()) << "frame " << n;
        EXPECT_TRUE(n == 0 || frames[n]->timestamp() > frames[n - 1]->timestamp()) << "frame " << n;
    }
    // The first frame of the board opened again is asked for after the board's 50 ms start: it
    // takes the slot of that moment, not of when its pass was due.
    EXPECT_GE(frames.back()->number(), frames[frames.size() - 2]->number() + 3);
    for (const char* line : {"Capture device disconnected", NoPermissionLine, "Capture device reconnected"}) {
        EXPECT_EQ(log.count(line), 1u) << line;
    }
    EXPECT_EQ(log.countPrefix("Could not"), 0u) << "the attempts while the board was away fill the log";
}

INSTANTIATE_TEST_SUITE_P(Arrivals, ReconnectTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Announced" : "LookedFor"; });

// After a restart the line gives the time stamp of the new run's 300th frame, not earlier.
TEST_F(CaptureDeviceTest, TheRateLineComesWithEvery300thFrameOfItsOwnRun) {
    m_device->setFramePeriod(0ns);
    LogCapture log;
    m_board->holdAt(100);
    ASSERT_TRUE(m_device->startListening());
    // Unpaced reads take a while under the thread checker.
    ASSERT_TRUE(m_board->waitUntilHeld(100, 90s));
    auto probe = m_device->addObserver(m_wakeup);
    std::thread stopper([this] { m_device->stopListening(); });
    ASSERT_TRUE(test::waitUntilRemoved(*m_device, probe, *m_wakeup));
    m_board->holdAt(101 + 601); // the held read ends the first run; the second asks for 601 frames
    stopper.join();
    ASSERT_EQ(log.countPrefix("Device FPS: "), 0u);

    // Frames 300 and 600 are each the newest frame in the queue when their line is written.
    auto observer = m_device->addObserver(m_wakeup);
    m_board->holdAt(101 + 300);
    ASSERT_TRUE(m_device->startListening());
    std::vector<CaptureDataPtr> lineFrames;
    for (uint64_t held : {101 + 300, 101 + 601}) {
        ASSERT_TRUE(m_board->waitUntilHeld(held, 90s));
        CaptureDataPtr last;
        while (auto frame = m_device->observe(observer)) {
            last = frame;
        }
        lineFrames.push_back(held == 101 + 601 ? nullptr : last);
        m_board->holdAt(101 + 601);
    }
    EXPECT_EQ(m_device->count(), 601u);
    std::vector<std::string> lines = log.lines();
    std::erase_if(lines, [](const std::string& line) { return line.rfind("Device FPS: ", 0) != 0; });
    ASSERT_EQ(lines.size(), 2u);
    for (size_t n = 0; n < 2; ++n) {
        double fps = 0, seconds = 0;
        ASSERT_EQ(std::sscanf(lines[n].c_str(), "Device FPS: %lf Timestamp: %lf", &fps, &seconds), 2);
        EXPECT_NEAR(fps * seconds, 300.0 * double(n + 1), 0.01) << lines[n];
        if (lineFrames[n]) {
            EXPECT_NEAR(lineFrames[n]->timestamp(), seconds, 1e-6) << "the line came with another frame";
        }
    }
}

TEST_F(CaptureDeviceTest, NumbersFramesByTheirSlotsAndNeverRepeatsANumber) {
    std::vector<CaptureDataPtr> frames;
    for (uint64_t first : {0u, 7u}) {
        auto observer = m_device->addObserver(m_wakeup);
        m_board->holdAt(first + 3);
        ASSERT_TRUE(m_device->startListening());
        ASSERT_TRUE(m_board->waitUntilHeld(first + 3));
        // The board answers the read of the run's fourth frame late, by six periods.
        std::this_thread::sleep_for(100ms);
        m_board->holdAt(first + 6);
        ASSERT_TRUE(m_board->waitUntilHeld(first + 6));
        const auto taken = takeFrames(*m_device, observer, *m_wakeup, 6);
        ASSERT_EQ(taken.size(), 6u);
        EXPECT_TRUE(test::isPatternFrame(taken[0]->data(), first));
        frames.insert(frames.end(), taken.begin(), taken.end());
        // The held read ends unpublished; the next run starts with the frame after it.
        std::thread stopper([this] { m_device->stopListening(); });
        EXPECT_TRUE(test::waitUntilRemoved(*m_device, observer, *m_wakeup));
        m_board->holdAt(first + 7);
        stopper.join();
        ASSERT_EQ(Worker::running(), 0);
    }
    for (size_t n = 1; n < frames.size(); ++n) {
        EXPECT_GT(frames[n]->number(), frames[n - 1]->number()) << "frame " << n;
    }
    EXPECT_GE(frames[4]->number(), frames[3]->number() + 5);
    EXPECT_GE(frames[10]->number(), frames[9]->number() + 5);
    // A frame is stamped when it was asked for, not when its read ended: the late read's frame
    // keeps its earlier time (less a little for the two clock readings a stamp takes).
    EXPECT_GE(frames[4]->timestamp() - frames[3]->timestamp(), 0.08);
    EXPECT_GE(std::chrono::duration<double>(frames[10]->wallClock() - frames[9]->wallClock()).count(), 0.08);
}

TEST_F(CaptureDeviceTest, AFrameReadWhileStoppingIsNotPublished) {
    m_board->holdAt(2);
    ASSERT_TRUE(m_device->startListening());
    ASSERT_TRUE(m_board->waitUntilHeld(2));
    auto probe = m_device->addObserver(m_wakeup);
    // The stop waits for the held read to end.
    std::thread stopper([this] { m_device->stopListening(); });
    ASSERT_TRUE(test::waitUntilRemoved(*m_device, probe, *m_wakeup));
    // Subscribed after the stop: a publish of the frame still being read would reach it.
    auto late = m_device->addObserver();
    m_board->release();
    stopper.join();
    EXPECT_EQ(Worker::running(), 0);
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
        ASSERT_TRUE(device->startListening());
        device->screen(0)->startListening(*device);
        device->screen(1)->startListening(*device);
        EXPECT_EQ(Worker::running(), 4); // device, top, bottom, right eye
        device->stopListening();
        raw = device->addObserver(m_wakeup);
        ASSERT_TRUE(device->startListening());
        held = takeFrames(*device, raw, *m_wakeup, 3);
        auto screens = takeFrames(*device->screen(0), top, *m_wakeup, 3);
        held.insert(held.end(), screens.begin(), screens.end());
        device->stopListening();
        EXPECT_EQ(Worker::running(), 0);
        device->screen(0)->removeObserver(top);
    }
    EXPECT_TRUE(watchedDevice.expired());
    EXPECT_TRUE(watchedScreen.expired());
    ASSERT_EQ(held.size(), 6u);
    for (const auto& frame : held) {
        EXPECT_EQ(frame.use_count(), 1) << "a queue or thread still holds a frame";
    }
}

// The cut itself: ScreenCutTest. Six frames only, so that no queue can overflow however late the test
// gets to them.
TEST_F(CaptureDeviceTest, ScreensPublishTheCutOfEachRawFrameWithItsTimeStampAndNumber) {
    m_board->holdAt(6);
    auto rawObserver = m_device->addObserver(m_wakeup);
    auto topObserver = m_device->screen(0)->addObserver(m_wakeup);
    auto bottomObserver = m_device->screen(1)->addObserver(m_wakeup);
    ASSERT_TRUE(m_device->startListening());
    auto raws = test::takeFrames(*m_device, rawObserver, *m_wakeup, 6);
    auto tops = test::takeFrames(*m_device->screen(0), topObserver, *m_wakeup, 6);
    auto bottoms = test::takeFrames(*m_device->screen(1), bottomObserver, *m_wakeup, 6);
    ASSERT_EQ(raws.size() + tops.size() + bottoms.size(), 18u);
    for (size_t n = 0; n < 6; ++n) {
        for (const auto& [cut, offset, width, height] :
             {std::tuple{tops[n], raw::TopOffset, raw::TopWidth, raw::TopHeight},
              std::tuple{bottoms[n], raw::BottomOffset, raw::BottomWidth, raw::BottomHeight}}) {
            EXPECT_EQ(cut->timestamp(), raws[n]->timestamp());
            EXPECT_EQ(cut->number(), raws[n]->number());
            std::vector<uint8_t> expected(width * height * 3);
            CaptureScreen::cut(raws[n]->data() + offset, expected.data(), width, height);
            EXPECT_EQ(std::vector<uint8_t>(cut->data(), cut->data() + cut->size()), expected)
                << "frame " << n << ", screen at offset " << offset;
        }
    }
}

} // namespace
} // namespace zandor
