// The real board path: CaptureDevice over LibusbBoard, libusb and usbfs, against the board emulated
// at its device node in this process.

#include "EmulatedBoard.h"
#include "Frames.h"
#include "Process.h"
#include "base/Worker.h"
#include "base/Log.h"
#include "capture/CaptureDevice.h"
#include "capture/DemoBoard.h"
#include "capture/LibusbBoard.h"
#include "capture/RawFrame.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <cstring>
#include <unistd.h>

namespace zandor {
namespace {

using namespace std::chrono_literals;
using test::allZero;

bool isDemoFrame(const CaptureData& frame, uint64_t number) {
    std::vector<uint8_t> expected(raw::FrameBytes);
    DemoBoard::render(number, expected.data());
    return std::memcmp(frame.data(), expected.data(), raw::FrameBytes) == 0;
}

// Every test starts with the demo board plugged in and leaves no pipeline thread behind.
class LibusbBoardTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(Worker::running(), 0);
        std::string error;
        m_board = EmulatedBoard::create(std::make_unique<DemoBoard>(), error);
        ASSERT_TRUE(m_board) << error;
    }

    void TearDown() override {
        m_device->stopListening();
        EXPECT_EQ(Worker::running(), 0) << "a pipeline thread outlived its stop";
        // libusb's context ends with the device's board, before the testbed it looked at.
        m_device.reset();
        m_board.reset();
    }

    LogCapture m_log;
    std::unique_ptr<EmulatedBoard> m_board;
    std::shared_ptr<CaptureDevice> m_device = CaptureDevice::create(std::make_unique<LibusbBoard>());
    std::shared_ptr<Wakeup> m_wakeup = std::make_shared<Wakeup>();
};

TEST_F(LibusbBoardTest, FramesArriveByteForByteAndAStalledReadGivesABlackFrameWithoutADisconnect) {
    // The board hands out at most 518000 bytes a read, so every frame takes two reads.
    m_board->model().setChunkBytes(518000);
    m_board->model().injectFault(2, BoardFault::Stall);
    auto frames = test::playFrames(*m_device, m_wakeup, 4);
    ASSERT_EQ(frames.size(), 4u);
    for (uint64_t i = 0; i < frames.size(); ++i) {
        EXPECT_TRUE(i == 2 ? allZero(*frames[i]) : isDemoFrame(*frames[i], i)) << "frame " << i;
    }
    // The reads ask for whole 512-byte blocks of what is still missing to the picture and the most
    // sound a frame may have: the rest of the picture and the frame's 545 stereo samples come in
    // the second read, ending short, and a zero-length packet ends the frame.
    EXPECT_EQ(m_board->model().readLengths(1), (std::vector<int>{553472, 35840, 33280}));
    EXPECT_EQ(m_board->clearedHalts(), 1);
    EXPECT_EQ(m_log.countPrefix("Capture device"), 0u) << "a failed read is not a disconnect";
}

TEST_F(LibusbBoardTest, AnUnpluggedBoardGivesBlackFramesUntilItIsPluggedInAgain) {
    m_board->unplugAtRequest(5, 500ms);
    auto observer = m_device->addObserver(m_wakeup);
    ASSERT_TRUE(m_device->startListening());
    const auto frames = test::framesThroughAGap(*m_device, observer, *m_wakeup);
    ASSERT_TRUE(frames.size() > 3 && !allZero(*frames.back())) << "the board never came back";
    EXPECT_TRUE(isDemoFrame(*frames[3], 3));
    EXPECT_EQ(m_log.count("Capture device disconnected"), 1u);
    EXPECT_EQ(m_log.count("Capture device reconnected"), 1u);
}

TEST_F(LibusbBoardTest, PauseLetsTheBoardGoAndPlayFindsItFree) {
    for (int run = 0; run < 2; ++run) {
        const auto frames = test::playFrames(*m_device, m_wakeup, 3);
        ASSERT_EQ(frames.size(), 3u) << "run " << run;
        LibusbBoard other;
        ASSERT_GE(other.init(), 0);
        ASSERT_TRUE(other.openDeviceWithVidPid(raw::VendorId, raw::ProductId));
        EXPECT_EQ(other.claimInterface(raw::Interface), usb::Success) << "the paused board is still claimed";
        other.close();
    }
    EXPECT_EQ(m_board->busyClaims(), 0);
    EXPECT_EQ(m_log.countPrefix("Another program is using the capture board"), 0u);
}

TEST_F(LibusbBoardTest, ANodeWeMayNotOpenNamesTheUdevRule) {
    m_board->setNodeMode(0);
    QTemporaryDir folder;
    ASSERT_EQ(chmod(qPrintable(folder.path()), 0777), 0);
    std::vector<std::string> command{
        ZANDOR_CLI, "dump", "--board", "usb",
        "--frames", "1",    "--out",   folder.filePath("frames.raw").toStdString()};
    if (geteuid() == 0) {
        // Root opens any node: the program runs as an unprivileged user, as a user would.
        command.insert(command.begin(),
                       {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--"});
    }
    auto result = test::runProcess(command);
    EXPECT_NE(result.exitCode, 0);
    EXPECT_NE(result.err.find("No permission to open the capture board at " + m_board->deviceNode() + ":"),
              std::string::npos)
        << result.err;
}

} // namespace
} // namespace zandor
