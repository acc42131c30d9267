// Whole programs on the real board path: zandor-cli and the application with `--board usb`,
// started through scripts/with-emulated-board as a developer or a bug reporter would.

#include "Media.h"
#include "Process.h"
#include "UserFolders.h"
#include "XServer.h"
#include "capture/RawFrame.h"

#include <gtest/gtest.h>

#include <QColor>
#include <QDir>
#include <QTemporaryDir>

#include <chrono>
#include <fstream>
#include <numeric>

namespace zandor {
namespace {

using namespace std::chrono_literals;
using test::ProcessResult;

const std::string Script = ZANDOR_SOURCE_DIR "/scripts/with-emulated-board";

std::vector<std::string> withEmulatedBoard(std::vector<std::string> options,
                                           std::vector<std::string> command) {
    options.insert(options.begin(), Script);
    options.push_back("--");
    options.insert(options.end(), command.begin(), command.end());
    return options;
}

// Raw frames whose screens are each one colour, pixel bytes as the board sends them (red, green,
// blue); nearest-neighbour scaling keeps such colours exact on screen.
std::string solidFrames(int count, QColor top, QColor bottom) {
    std::string frames;
    for (int frame = 0; frame < count; ++frame) {
        for (uint64_t pixel = 0; pixel < raw::FrameBytes / 3; ++pixel) {
            const QColor& colour = pixel * 3 < raw::BottomOffset ? top : bottom;
            frames += {static_cast<char>(colour.red()), static_cast<char>(colour.green()),
                       static_cast<char>(colour.blue())};
        }
    }
    return frames;
}

class EmulatedBoardProgramsTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::isolateUserFolders();
        setenv("ZANDOR_BUILD", ZANDOR_BUILD_DIR, 1);
    }
    QTemporaryDir m_folder;
    std::string path(const char* name) const { return m_folder.filePath(name).toStdString(); }
};

TEST_F(EmulatedBoardProgramsTest, ARecordingGoesOnThroughAnUnplugWithBlackFramesInTheGap) {
    // The cable is pulled about two seconds in and plugged in again two seconds later.
    const ProcessResult run =
        test::runProcess(withEmulatedBoard({"--unplug-at-frame", "120", "--replug-after-ms", "2000"},
                                           {ZANDOR_CLI, "record", "--board", "usb", "--seconds", "8",
                                            "--layout", "Top", "--game-audio", "None", "--narrator-audio",
                                            "None", "--out", m_folder.path().toStdString()}),
                         120s);
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const auto made = test::splitLines(run.out);
    ASSERT_EQ(made.size(), 1u) << run.out;
    EXPECT_EQ(QDir(m_folder.path()).entryList({"*.mp4"}).size(), 1);
    EXPECT_NE(run.err.find("Capture device disconnected\n"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("Capture device reconnected\n"), std::string::npos) << run.err;

    // Each frame's mean brightness, as ffmpeg decodes the movie.
    const std::string grey = test::runProcess({"ffmpeg", "-v", "error", "-i", made.front(), "-vf",
                                               "scale=8:8", "-pix_fmt", "gray", "-f", "rawvideo", "-"})
                                 .out;
    std::vector<bool> black;
    for (size_t frame = 0; frame + 64 <= grey.size(); frame += 64) {
        const auto pixels = reinterpret_cast<const uint8_t*>(grey.data()) + frame;
        const int sum = std::accumulate(pixels, pixels + 64, 0);
        black.push_back(sum < 64 * 12); // black decodes a little above 0 (video range)
    }
    // Real frames, then the gap, then real frames again.
    ASSERT_FALSE(black.empty());
    EXPECT_FALSE(black.front());
    EXPECT_FALSE(black.back());
    const auto gapStart = std::find(black.begin(), black.end(), true);
    const auto gapEnd = std::find(gapStart, black.end(), false);
    EXPECT_EQ(std::find(gapEnd, black.end(), true), black.end()) << "one gap only";
    EXPECT_GT(gapEnd - gapStart, 0) << "the time unplugged is black";
}

TEST_F(EmulatedBoardProgramsTest, TheApplicationShowsTheBoardsPicture) {
    test::XServer x;
    ASSERT_TRUE(x.isRunning()) << x.error();
    const QColor magenta(0xff, 0x00, 0xff), green(0x00, 0xff, 0x00);
    std::ofstream(path("solid.raw"), std::ios::binary) << solidFrames(2, magenta, green);

    setenv("DISPLAY", x.display().c_str(), 1);
    setenv("QT_QPA_PLATFORM", "xcb", 1);
    const pid_t application = test::startProcess(
        withEmulatedBoard({"--replay", path("solid.raw")}, {ZANDOR_APP, "--board", "usb", "--play"}), -1,
        path("application.log"));
    ASSERT_GT(application, 0);

    // Both screens fill a good part of the window once the picture plays.
    int topPixels = 0, bottomPixels = 0;
    for (auto deadline = std::chrono::steady_clock::now() + 60s;
         std::chrono::steady_clock::now() < deadline && (topPixels < 40000 || bottomPixels < 30000);) {
        const QImage shot = x.screenshot().convertToFormat(QImage::Format_RGB32);
        topPixels = bottomPixels = 0;
        for (int y = 0; y < shot.height(); ++y) {
            const auto* line = reinterpret_cast<const QRgb*>(shot.constScanLine(y));
            for (int x = 0; x < shot.width(); ++x) {
                topPixels += (line[x] & 0xffffff) == (magenta.rgb() & 0xffffff);
                bottomPixels += (line[x] & 0xffffff) == (green.rgb() & 0xffffff);
            }
        }
    }
    if (const char* keep = std::getenv("ZANDOR_TEST_SCREENSHOT")) {
        x.screenshot().save(keep);
    }
    test::endProcess(application);
    EXPECT_GE(topPixels, 40000) << "the top screen (400 x 240) is not on show";
    EXPECT_GE(bottomPixels, 30000) << "the bottom screen (320 x 240) is not on show";
}

} // namespace
} // namespace zandor
