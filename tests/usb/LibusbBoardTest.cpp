// The real board path: CaptureDevice over LibusbBoard, libusb and usbfs, against the board emulated
// at its device node in this process.

#include "EmulatedBoard.h"
#include "Frames.h"
#include "Process.h"
#include "base/DetachedThread.h"
#include "base/Log.h"
#include "capture/CaptureDevice.h"
#include "capture/DemoBoard.h"
#include "capture/LibusbBoard.h"
#include "capture/RawFrame.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <array>
#include <csignal>
#include <cstring>
#include <mutex>
#include <sys/wait.h>
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
        ASSERT_TRUE(DetachedThread::waitForAll(20s));
        std::string error;
        auto model = std::make_unique<DemoBoard>();
        m_model = model.get();
        m_board = EmulatedBoard::create(std::move(model), error);
        ASSERT_TRUE(m_board) << error;
        m_device->setConnectionObserver([this](bool connected) {
            std::scoped_lock lock(m_mutex);
            m_connections.push_back(connected);
        });
    }

    void TearDown() override {
        m_device->stopListening();
        EXPECT_TRUE(DetachedThread::waitForAll(20s)) << "a pipeline thread outlived its test";
        // libusb's context ends with the device's board, before the testbed it looked at.
        m_device.reset();
        m_board.reset();
    }

    std::vector<CaptureDataPtr> play(size_t count) { return test::playFrames(*m_device, m_wakeup, count); }

    std::vector<bool> connections() {
        std::scoped_lock lock(m_mutex);
        return m_connections;
    }

    LogCapture m_log;
    std::unique_ptr<EmulatedBoard> m_board;
    DemoBoard* m_model = nullptr;
    std::shared_ptr<CaptureDevice> m_device = CaptureDevice::create(std::make_unique<LibusbBoard>());
    std::shared_ptr<Wakeup> m_wakeup = std::make_shared<Wakeup>();
    std::mutex m_mutex;
    std::vector<bool> m_connections;
};

TEST_F(LibusbBoardTest, FramesArriveByteForByteWithTheFrameStartRequestAndReadLengthsTheBoardExpects) {
    // The board hands out at most 518000 bytes a read, so every frame takes two reads.
    m_model->setChunkBytes(518000);
    auto frames = play(4);
    ASSERT_EQ(frames.size(), 4u);
    for (uint64_t i = 0; i < frames.size(); ++i) {
        EXPECT_TRUE(isDemoFrame(*frames[i], i)) << "frame " << i;
        if (i > 0) {
            EXPECT_GT(frames[i]->timestamp(), frames[i - 1]->timestamp());
        }
    }
    // The read asks for whole 512-byte blocks: all of the frame rounded up, then what is missing.
    EXPECT_EQ(m_model->readLengths(1), (std::vector<int>{518656, 512}));

    const auto requests = m_board->controlRequests();
    ASSERT_GE(requests.size(), 5u); // one when opening, one a frame
    for (const auto& s : requests) {
        EXPECT_EQ((std::tuple<int, int, int, int, int>(s.requestType, s.request, s.value, s.index, s.length)),
                  std::make_tuple(0x40, 0x40, 0, 0, 0));
    }
    EXPECT_TRUE(m_log.lines().empty()) << m_log.lines().front();
}

class LibusbFaultTest : public LibusbBoardTest, public ::testing::WithParamInterface<BoardFault> {};

TEST_P(LibusbFaultTest, AFailedReadGivesABlackStampedFrameAndTheNextFrameIsRealAgain) {
    m_model->injectFault(2, GetParam());
    auto frames = play(4);
    ASSERT_EQ(frames.size(), 4u);
    EXPECT_TRUE(isDemoFrame(*frames[1], 1));
    EXPECT_TRUE(allZero(*frames[2])) << "the failed frame is cleared, slack included";
    EXPECT_GT(frames[2]->timestamp(), frames[1]->timestamp());
    EXPECT_TRUE(isDemoFrame(*frames[3], 3));
    EXPECT_EQ(m_board->clearedHalts(), GetParam() == BoardFault::Stall ? 1 : 0);
    EXPECT_EQ(m_log.countPrefix("Capture device"), 0u) << "a failed read is not a disconnect";
}

INSTANTIATE_TEST_SUITE_P(
    Faults, LibusbFaultTest,
    ::testing::Values(BoardFault::Timeout, BoardFault::ShortFrame, BoardFault::Stall), [](const auto& info) {
        return (std::array{"Timeout", "ShortFrame", "Stall"})[static_cast<size_t>(info.param)];
    });

struct OpeningFailure {
    const char* name;
    std::function<void(EmulatedBoard&)> arrange;
    CaptureDevice::Failure failure;
    const char* line;
};

void PrintTo(const OpeningFailure& failure, std::ostream* out) {
    *out << failure.name;
}

class LibusbOpeningTest : public LibusbBoardTest, public ::testing::WithParamInterface<OpeningFailure> {};

TEST_P(LibusbOpeningTest, AFailingStepLogsItsLineAndStartsNothing) {
    GetParam().arrange(*m_board);
    EXPECT_FALSE(m_device->startListening());
    EXPECT_FALSE(m_device->isListening());
    EXPECT_EQ(m_device->failure(), GetParam().failure);
    EXPECT_EQ(m_log.lines(), std::vector<std::string>{GetParam().line});
    EXPECT_EQ(DetachedThread::running(), 0);
    EXPECT_TRUE(connections().empty()) << "a board missing at the start is not a disconnect";
}

INSTANTIATE_TEST_SUITE_P(
    Steps, LibusbOpeningTest,
    ::testing::Values(OpeningFailure{"NoBoard", [](EmulatedBoard& board) { board.unplug(); },
                                     CaptureDevice::Failure::NoBoard, "Could not connect to capture device"},
                      OpeningFailure{
                          "Configuration", [](EmulatedBoard& board) { board.refuseConfiguration(true); },
                          CaptureDevice::Failure::Configuration, "Could not configure capture device"},
                      OpeningFailure{"Claim", [](EmulatedBoard& board) { board.refuseClaim(true); },
                                     CaptureDevice::Failure::Claim, "Could not claim capture interface"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(LibusbBoardTest, AnInterfaceHeldByAnotherProgramIsNamedAsTheReason) {
    QTemporaryDir folder;
    const std::string out = folder.filePath("frames.raw").toStdString();
    // zandor-cli runs in front of the same board: it inherits the testbed and the preload.
    pid_t other = fork();
    ASSERT_GE(other, 0);
    if (other == 0) {
        execl(ZANDOR_CLI, ZANDOR_CLI, "dump", "--board", "usb", "--frames", "1800", "--out", out.c_str(),
              static_cast<char*>(nullptr));
        _exit(127);
    }
    const bool claimed = m_board->waitForFrameRequests(3, 20s);
    const bool started = claimed && m_device->startListening();
    kill(other, SIGTERM);
    waitpid(other, nullptr, 0);

    ASSERT_TRUE(claimed) << "the other program never read the board";
    EXPECT_FALSE(started);
    EXPECT_EQ(m_board->busyClaims(), 1);
    EXPECT_EQ(m_log.lines(),
              (std::vector<std::string>{"Could not claim capture interface",
                                        "Another program is using the capture board: close it, "
                                        "then try again"}));
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
    const std::string node = m_board->deviceNode();
    EXPECT_NE(result.err.find("Could not connect to capture device\n"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("No permission to open the capture board at " + node +
                              ": install the udev rule 70-zandor-capture.rules (see README) and plug the "
                              "board in again"),
              std::string::npos)
        << result.err;
}

} // namespace
} // namespace zandor
