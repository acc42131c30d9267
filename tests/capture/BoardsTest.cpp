#include "Frames.h"
#include "base/DetachedThread.h"
#include "capture/Boards.h"
#include "capture/CaptureDevice.h"
#include "capture/DemoBoard.h"
#include "capture/RawFrame.h"
#include "capture/ReplayBoard.h"
#include "capture/UsbBoard.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <unistd.h>

namespace zandor {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

std::vector<uint8_t> demoFrame(uint64_t frame) {
    std::vector<uint8_t> bytes(raw::FrameBytes);
    DemoBoard::render(frame, bytes.data());
    return bytes;
}

// Distinct colours in a rectangle of one screen, read straight from the raw layout.
size_t coloursIn(const std::vector<uint8_t>& rawFrame, uint64_t offset, uint64_t height, uint64_t x0, uint64_t x1) {
    std::set<uint32_t> colours;
    for (uint64_t i = offset / 3 + x0 * height; i < offset / 3 + x1 * height; ++i) {
        colours.insert(uint32_t(rawFrame[3 * i]) << 16 | uint32_t(rawFrame[3 * i + 1]) << 8 | rawFrame[3 * i + 2]);
    }
    return colours.size();
}

TEST(DemoBoard, EveryFrameFollowsFromItsNumberAndBothScreensMove) {
    EXPECT_EQ(demoFrame(42), demoFrame(42));
    auto a = demoFrame(100), b = demoFrame(101);
    auto differs = [&](uint64_t from, uint64_t to) {
        return !std::equal(a.begin() + static_cast<long>(from), a.begin() + static_cast<long>(to),
                           b.begin() + static_cast<long>(from));
    };
    EXPECT_TRUE(differs(raw::TopOffset, raw::BottomOffset)) << "the top screen stands still";
    EXPECT_TRUE(differs(raw::BottomOffset, raw::FrameBytes)) << "the bottom screen stands still";
    EXPECT_GT(coloursIn(a, raw::TopOffset, raw::TopHeight, 0, raw::TopWidth), 20u);
    EXPECT_GT(coloursIn(a, raw::BottomOffset, raw::BottomHeight, 0, raw::BottomWidth), 20u);
    // The two screens are told apart by their pictures, not only by their sizes.
    EXPECT_FALSE(std::equal(a.begin(), a.begin() + 3 * 240 * 100, a.begin() + raw::BottomOffset));
}

class TemporaryFolder : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/zandor-boards-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_folder = pattern;
    }
    void TearDown() override { fs::remove_all(m_folder); }

    fs::path write(const std::string& name, const std::vector<uint8_t>& bytes) {
        fs::path path = m_folder / name;
        std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                    static_cast<std::streamsize>(bytes.size()));
        return path;
    }

    fs::path m_folder;
};

using ReplayBoardTest = TemporaryFolder;

TEST_F(ReplayBoardTest, PlaysTheFilesFramesInALoopThroughTheDevice) {
    std::vector<uint8_t> bytes;
    for (uint8_t n = 0; n < 3; ++n) {
        bytes.insert(bytes.end(), raw::FrameBytes, static_cast<uint8_t>(10 + n));
    }
    std::string error;
    auto board = createBoard("replay:" + write("three.raw", bytes).string(), error);
    ASSERT_NE(board, nullptr) << error;

    auto device = CaptureDevice::create(std::move(board));
    auto wakeup = std::make_shared<Wakeup>();
    auto observer = device->addObserver(wakeup);
    ASSERT_TRUE(device->startListening());
    auto frames = test::takeFrames(*device, observer, *wakeup, 7);
    device->stopListening();
    ASSERT_TRUE(DetachedThread::waitForAll(20s));

    ASSERT_EQ(frames.size(), 7u);
    for (size_t n = 0; n < frames.size(); ++n) {
        uint8_t expected = static_cast<uint8_t>(10 + n % 3);
        const uint8_t* data = frames[n]->data();
        EXPECT_TRUE(data[0] == expected && data[raw::FrameBytes - 1] == expected &&
                    std::all_of(data, data + raw::FrameBytes, [&](uint8_t b) { return b == expected; }))
            << "frame " << n;
    }
}

TEST_F(ReplayBoardTest, RefusesFilesThatAreNotWholeFrames) {
    std::string error;
    EXPECT_EQ(ReplayBoard::open((m_folder / "missing.raw").string(), error), nullptr);
    EXPECT_NE(error.find("missing.raw"), std::string::npos);
    EXPECT_NE(error.find("No such file"), std::string::npos) << error;

    EXPECT_EQ(ReplayBoard::open(write("empty.raw", {}).string(), error), nullptr);
    EXPECT_NE(error.find("not a whole number"), std::string::npos) << error;

    EXPECT_EQ(ReplayBoard::open(write("short.raw", std::vector<uint8_t>(raw::FrameBytes + 1)).string(), error),
              nullptr);
    EXPECT_NE(error.find("518401 bytes"), std::string::npos) << error;

    EXPECT_EQ(ReplayBoard::open(m_folder.string(), error), nullptr);
    EXPECT_NE(error.find("not a regular file"), std::string::npos) << error;

    auto two = ReplayBoard::open(write("two.raw", std::vector<uint8_t>(2 * raw::FrameBytes)).string(), error);
    ASSERT_NE(two, nullptr) << error;
    EXPECT_EQ(two->frameCount(), 2u);
}

TEST(Boards, AreChosenByName) {
    std::string error;
    EXPECT_NE(createBoard("usb", error), nullptr);
    EXPECT_NE(createBoard("demo", error), nullptr);
    EXPECT_EQ(createBoard("Demo", error), nullptr);
    EXPECT_EQ(error, "Unknown board 'Demo': use usb, demo or replay:FILE");
    EXPECT_EQ(createBoard("replay:", error), nullptr);
    EXPECT_EQ(error, "The replay board needs a file: replay:FILE");
}

TEST(SimulatedBoard, AnswersOnlyTheBoardsOwnIdentityAndRequests) {
    DemoBoard board;
    EXPECT_FALSE(board.openDeviceWithVidPid(0x16D0, 0x06A4));
    ASSERT_TRUE(board.openDeviceWithVidPid(0x16D0, 0x06A3));
    EXPECT_EQ(board.controlTransfer(0xC0, 0x40, 0, 0, nullptr, 0, 30), usb::ErrorPipe);
    std::vector<uint8_t> block(raw::BlockBytes);
    int done = -1;
    // No frame start request yet: an empty transfer.
    EXPECT_EQ(board.bulkTransfer(0x82, block.data(), 518656, &done, 50), usb::Success);
    EXPECT_EQ(done, 0);
    ASSERT_EQ(board.controlTransfer(0x40, 0x40, 0, 0, nullptr, 0, 30), 0);
    EXPECT_EQ(board.bulkTransfer(0x82, block.data(), 518656, &done, 50), usb::Success);
    EXPECT_EQ(done, 518400) << "the board's last short packet ends the frame";
    block.resize(raw::FrameBytes);
    EXPECT_EQ(block, demoFrame(0));
}

} // namespace
} // namespace zandor
