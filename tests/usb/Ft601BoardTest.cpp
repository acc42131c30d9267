// The new models' FT601 board on the real path: `--board usb` (AnyUsbBoard, Ft601Board, libusb,
// usbfs) against the board emulated at its device node in this process.

#include "EmulatedBoard.h"
#include "Frames.h"
#include "Ft601Model.h"
#include "Process.h"
#include "base/Log.h"
#include "base/Worker.h"
#include "capture/Boards.h"
#include "capture/CaptureDevice.h"
#include "capture/CaptureScreen.h"
#include "capture/DemoBoard.h"
#include "capture/Ft601Usb.h"
#include "capture/RawFrame.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <array>
#include <chrono>
#include <cstring>
#include <map>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace zandor {
namespace {

using namespace std::chrono_literals;

// One pixel of the demo board's frame `number` read straight from its raw frame in the old
// board's order: top screen at 0, bottom after it, each column from the bottom row up.
const uint8_t* demoPixel(const std::vector<uint8_t>& classic, ScreenId screen, uint64_t x, uint64_t y) {
    const uint64_t offset = screen == ScreenId::Bottom ? raw::BottomOffset : raw::TopOffset;
    return classic.data() + offset + 3 * (x * raw::TopHeight + (raw::TopHeight - 1 - y));
}

// Whether a screen's rows show demo frame `classic`: the right eye, in 3D, moved as the emulated
// board moves it; without 3D the top screen.
bool showsDemo(const CaptureData& rows, ScreenId screen, const std::vector<uint8_t>& classic, bool threeD) {
    const uint64_t width = screen == ScreenId::Bottom ? raw::BottomWidth : raw::TopWidth;
    for (uint64_t y = 0; y < raw::TopHeight; ++y) {
        for (uint64_t x = 0; x < width; ++x) {
            const uint8_t* expected =
                screen == ScreenId::TopRight
                    ? demoPixel(classic, ScreenId::Top,
                                threeD ? std::min(x + Ft601Model::RightEyeShift, width - 1) : x, y)
                    : demoPixel(classic, screen, x, y);
            if (std::memcmp(rows.data() + 3 * (y * width + x), expected, 3) != 0) {
                return false;
            }
        }
    }
    return true;
}

// Frames of all three screens, matched by number.
using Shot = std::array<CaptureDataPtr, ScreenCount>;

class Ft601BoardTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(Worker::running(), 0); }

    void TearDown() override {
        if (m_device) {
            m_device->stopListening();
        }
        EXPECT_EQ(Worker::running(), 0) << "a pipeline thread outlived its stop";
        if (m_board && m_board->ft601()) {
            EXPECT_EQ(m_board->ft601()->refused(), std::vector<std::string>{})
                << "the driver sent a wrong command";
        }
        m_device.reset();
        m_beside.reset();
        m_board.reset();
    }

    void plugIn(Ft601Options options = {}) {
        std::string error;
        m_board = EmulatedBoard::create(std::make_unique<Ft601Model>(std::make_unique<DemoBoard>(), options),
                                        error);
        ASSERT_TRUE(m_board) << error;
    }

    void makeDevice(const std::string& name = "usb") {
        auto board = createBoard(name);
        ASSERT_TRUE(board);
        m_device = CaptureDevice::create(std::move(*board));
    }

    // Starts the device with observers on its three screens.
    void start() {
        for (unsigned i = 0; i < ScreenCount; ++i) {
            m_observers[i] = m_device->screen(i)->addObserver(m_wakeups[i]);
        }
        ASSERT_TRUE(m_device->startListening());
    }

    // The next `count` shots: frames of the three screens with the same number, in order. A queue
    // may have overflowed on one screen and not on another while the test looked at earlier frames
    // (slowly, under the sanitizers), so frames are taken until `count` numbers are whole.
    std::vector<Shot> shots(size_t count) {
        std::array<std::map<uint64_t, CaptureDataPtr>, ScreenCount> byNumber;
        std::vector<Shot> matched;
        for (int round = 0; round < 10 && matched.size() < count; ++round) {
            for (unsigned i = 0; i < ScreenCount; ++i) {
                for (const auto& frame :
                     test::takeFrames(*m_device->screen(i), m_observers[i], *m_wakeups[i], count)) {
                    byNumber[i][frame->number()] = frame;
                }
            }
            matched.clear();
            for (const auto& [number, top] : byNumber[0]) {
                if (matched.size() < count && byNumber[1].count(number) && byNumber[2].count(number)) {
                    matched.push_back(Shot{top, byNumber[1][number], byNumber[2][number]});
                }
            }
        }
        return matched;
    }

    // Finds the demo frame a shot shows among the next ones after `after`, and checks every
    // screen against it; the demo frame's number, or nothing when it shows none.
    std::optional<uint64_t> demoFrameOf(const Shot& shot, bool threeD, int64_t after) {
        std::vector<uint8_t> classic(raw::FrameBytes);
        for (auto n = static_cast<uint64_t>(after + 1); n < static_cast<uint64_t>(after + 400); ++n) {
            DemoBoard::render(n, classic.data());
            if (showsDemo(*shot[0], ScreenId::Top, classic, false)) {
                const bool exact = showsDemo(*shot[1], ScreenId::Bottom, classic, false) &&
                                   showsDemo(*shot[2], ScreenId::TopRight, classic, threeD);
                return exact ? std::optional<uint64_t>(n) : std::nullopt;
            }
        }
        return std::nullopt;
    }

    // Checks that every shot shows the demo frames in order, in 3D or not; returns the last demo frame.
    int64_t expectDemo(const std::vector<Shot>& taken, bool threeD, int64_t after, const char* what) {
        EXPECT_GE(taken.size(), 5u) << what;
        for (const Shot& shot : taken) {
            const auto n = demoFrameOf(shot, threeD, after);
            EXPECT_TRUE(n) << what << ": frame " << shot[0]->number() << " is not the next demo frame after "
                           << after << (threeD ? " in 3D" : "");
            if (!n) {
                break;
            }
            after = static_cast<int64_t>(*n);
        }
        return after;
    }

    LogCapture m_log;
    std::unique_ptr<EmulatedBoard> m_board;
    std::unique_ptr<EmulatedBoard> m_beside;
    std::shared_ptr<CaptureDevice> m_device;
    std::array<std::shared_ptr<Wakeup>, ScreenCount> m_wakeups{
        std::make_shared<Wakeup>(), std::make_shared<Wakeup>(), std::make_shared<Wakeup>()};
    std::array<ObserverPtr, ScreenCount> m_observers;
};

TEST_F(Ft601BoardTest, TheScreensShowTheBoardsPictureExactlyWithAndWithout3DSwitchedWhilePlaying) {
    plugIn();
    makeDevice();
    // Twenty frames a second: under the sanitizers three screens' cuts may not keep up with sixty,
    // and frames one screen skipped leave no whole shot. What is checked is the picture, not the rate.
    m_device->setFramePeriod(std::chrono::milliseconds(50));
    start();
    const BoardInfo info = m_device->board().info();
    EXPECT_EQ(info.name, "N3DSXL");
    EXPECT_EQ(info.vendorProduct(), "0403:601f");
    EXPECT_EQ(info.serial, "ZD0000000001");
    EXPECT_EQ(info.usbSpeed, "USB 3");
    EXPECT_TRUE(info.can3D);

    int64_t last = expectDemo(shots(6), false, -1, "flat");
    EXPECT_EQ(last, 5) << "the first frames are the board's first ones";
    m_device->set3D(true);
    ASSERT_TRUE(m_log.waitFor("The capture board switched 3D on", 10s));
    // Frames read before the switch may still be queued: the first 3D one is looked for.
    auto taken = shots(12);
    while (!taken.empty() && demoFrameOf(taken.front(), false, last)) {
        last = static_cast<int64_t>(*demoFrameOf(taken.front(), false, last));
        taken.erase(taken.begin());
    }
    last = expectDemo(taken, true, last, "3D");
    EXPECT_TRUE(m_board->ft601()->is3D());

    m_device->set3D(false);
    ASSERT_TRUE(m_log.waitFor("The capture board switched 3D off", 10s));
    taken = shots(12);
    while (!taken.empty() && demoFrameOf(taken.front(), true, last)) {
        last = static_cast<int64_t>(*demoFrameOf(taken.front(), true, last));
        taken.erase(taken.begin());
    }
    expectDemo(taken, false, last, "flat again");
    EXPECT_FALSE(m_board->ft601()->is3D());

    // The sound after the picture reaches the frames: about 545.5 stereo samples a frame.
    auto observer = m_device->addObserver(m_wakeups[0]);
    const auto raw = test::takeFrames(*m_device, observer, *m_wakeups[0], 3);
    ASSERT_EQ(raw.size(), 3u);
    for (const auto& frame : raw) {
        EXPECT_NEAR(double(frame->sound().size()), 2 * 545.5, 2.0);
        EXPECT_EQ(frame->columnOrder(), ColumnOrder::Ft601);
    }
}

TEST_F(Ft601BoardTest, BadFramesAreDroppedAStalledReadOrAnUnplugIsADisconnectAndTheBoardComesBack) {
    plugIn();
    m_board->ft601()->injectFault(3, Ft601Fault::ShortFrame);
    m_board->ft601()->injectFault(4, Ft601Fault::OversizedFrame);
    m_board->ft601()->injectFault(12, Ft601Fault::Stall);
    makeDevice();
    auto observer = m_device->addObserver(m_wakeups[0]);
    ASSERT_TRUE(m_device->startListening());
    auto frames = test::takeFrames(*m_device, observer, *m_wakeups[0], 12);
    ASSERT_EQ(frames.size(), 12u);
    for (size_t i = 0; i < frames.size(); ++i) {
        EXPECT_EQ(test::allZero(*frames[i]), i == 3 || i == 4) << "frame " << i;
    }
    EXPECT_EQ(m_log.count("Capture device disconnected"), 0u) << "a bad frame is no disconnect";
    // The 13th read is never answered.
    frames = test::framesThroughAGap(*m_device, observer, *m_wakeups[0]);
    EXPECT_FALSE(test::allZero(*frames.back())) << "the board never came back after the stalled read";
    EXPECT_EQ(m_log.count("Capture device disconnected"), 1u);
    EXPECT_EQ(m_log.count("Capture device reconnected"), 1u);

    m_board->unplugAtRequest(m_board->frameRequests() + 3, 300ms);
    frames = test::framesThroughAGap(*m_device, observer, *m_wakeups[0]);
    EXPECT_FALSE(test::allZero(*frames.back())) << "the board never came back after the unplug";
    EXPECT_EQ(m_log.count("Capture device reconnected"), 2u);
}

TEST_F(Ft601BoardTest, ABoardWithout3DStaysFlat) {
    for (const Ft601Options& options :
         {Ft601Options{.garbageConfiguration = true}, Ft601Options{.answersConfiguration = false},
          Ft601Options{.superSpeed = false}, Ft601Options{.capable3D = false}}) {
        m_log.clear();
        plugIn(options);
        makeDevice();
        m_device->set3D(true);
        start();
        const BoardInfo info = m_device->board().info();
        EXPECT_FALSE(info.can3D);
        EXPECT_EQ(info.usbSpeed, options.superSpeed ? "USB 3" : "USB 2");
        expectDemo(shots(5), false, -1, "a board without 3D");
        EXPECT_EQ(m_log.countPrefix("The capture board stays without 3D"), 1u);
        EXPECT_EQ(m_log.countPrefix("The capture board did not tell its configuration"),
                  options.answersConfiguration ? 0u : 1u);
        EXPECT_FALSE(m_board->ft601()->is3D());
        m_device->stopListening();
        m_device.reset();
        EXPECT_EQ(m_board->ft601()->refused(), std::vector<std::string>{});
        m_board.reset();
    }
}

TEST_F(Ft601BoardTest, AnotherFt601DeviceIsLeftAlone) {
    plugIn({.product = "FT601 USB3.0 Bridge"});
    makeDevice();
    EXPECT_FALSE(m_device->startListening());
    EXPECT_EQ(m_log.count("Could not connect to capture device"), 1u);
    EXPECT_EQ(m_board->ft601()->sessionCommands(), 0u);
    EXPECT_TRUE(m_device->board().serials().empty());
}

// A paused board is free for others; and the same lines as for the old board: one for a board
// another program holds, one naming the udev rule for a node we may not open.
TEST_F(Ft601BoardTest, ABusyBoardOrOneWeMayNotOpenSaysWhy) {
    plugIn();
    makeDevice();
    for (int run = 0; run < 2; ++run) {
        test::playFrames(*m_device, m_wakeups[0], 2);
        Ft601Usb other;
        std::string denied;
        ASSERT_EQ(other.init(), 0);
        ASSERT_EQ(other.open("", denied), 0);
        EXPECT_EQ(other.claim(1), 0) << "the paused board is still claimed";
    }
    {
        Ft601Usb other;
        std::string denied;
        ASSERT_EQ(other.init(), 0);
        ASSERT_EQ(other.open("", denied), 0);
        ASSERT_EQ(other.claim(1), 0);
        EXPECT_FALSE(m_device->startListening());
        EXPECT_EQ(m_log.count("Another program is using the capture board: close it, then try again"), 1u);
    }

    m_board->setNodeMode(0);
    QTemporaryDir folder;
    ASSERT_EQ(chmod(qPrintable(folder.path()), 0777), 0);
    std::vector<std::string> command{ZANDOR_CLI, "board-info", "--board", "usb"};
    if (geteuid() == 0) {
        command.insert(command.begin(),
                       {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--"});
    }
    const auto result = test::runProcess(command);
    EXPECT_NE(result.exitCode, 0);
    EXPECT_NE(result.err.find("No permission to open the capture board at " + m_board->deviceNode() + ":"),
              std::string::npos)
        << result.err;
}

TEST_F(Ft601BoardTest, OneUsbBoardFindsEitherKindByItsSerial) {
    std::string error;
    auto classic = std::make_unique<DemoBoard>();
    classic->setSerial("ZD-OLD");
    m_board = EmulatedBoard::create(std::move(classic), error);
    ASSERT_TRUE(m_board) << error;
    auto source = std::make_unique<DemoBoard>();
    source->setSerial("ZD-NEW");
    m_beside = EmulatedBoard::createBeside(*m_board,
                                           std::make_unique<Ft601Model>(std::move(source), Ft601Options{}));
    makeDevice();
    EXPECT_EQ(m_device->board().serials(), (std::vector<std::string>{"ZD-OLD", "ZD-NEW"}));
    for (const auto& [serial, name] : {std::pair{"ZD-OLD", "Capture board"}, {"ZD-NEW", "N3DSXL"}}) {
        m_device->setSerial(serial);
        auto frames = test::playFrames(*m_device, m_wakeups[0], 2);
        EXPECT_EQ(m_device->board().info().name, name);
        EXPECT_EQ(m_device->board().info().serial, serial);
        // Arrivals of either kind are announced, whichever board went away (first the old one,
        // before the new one was ever opened): else the device would look for a board at
        // intervals, and a replugged one would come back later.
        EXPECT_TRUE(m_device->board().watchArrivals()) << serial;
        m_device->board().stopWatching();
    }
    EXPECT_EQ(m_beside->ft601()->refused(), std::vector<std::string>{});
}

TEST_F(Ft601BoardTest, TheEmulatedBoardRefusesAndNamesACommandOutOfTurn) {
    plugIn();
    Ft601Usb usb;
    ASSERT_EQ(usb.init(), 0);
    std::string denied;
    ASSERT_EQ(usb.open("", denied), 0);
    ASSERT_EQ(usb.claim(0), 0);
    uint8_t command[20] = {7, 0, 0, 0, 0x82, 0};
    EXPECT_EQ(usb.bulk(0x01, command, sizeof command, 500), 20) << "a first command may have any number";
    command[0] = 9;
    EXPECT_EQ(usb.bulk(0x01, command, sizeof command, 500), usb::ErrorTimeout);
    command[0] = 8;
    command[6] = 1;
    EXPECT_EQ(usb.bulk(0x01, command, sizeof command, 500), usb::ErrorTimeout);
    usb.close();
    const auto refused = m_board->ft601()->refused();
    ASSERT_EQ(refused.size(), 2u);
    EXPECT_NE(refused[0].find("expected number 8"), std::string::npos) << refused[0];
    EXPECT_NE(refused[1].find("a field is wrong"), std::string::npos) << refused[1];
    m_board.reset(); // what it refused was asked for
}

} // namespace
} // namespace zandor
