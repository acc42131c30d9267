// A whole program on the real board path: zandor-cli with `--board usb`, started through
// scripts/with-emulated-board as a developer or a bug reporter would.

#include "Process.h"
#include "UserFolders.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QTemporaryDir>

#include <chrono>
#include <numeric>

namespace zandor {
namespace {

using namespace std::chrono_literals;

// `command` run through scripts/with-emulated-board with the board's `options`.
std::vector<std::string> withEmulatedBoard(std::vector<std::string> options,
                                           const std::vector<std::string>& command) {
    options.insert(options.begin(), ZANDOR_SOURCE_DIR "/scripts/with-emulated-board");
    options.push_back("--");
    options.insert(options.end(), command.begin(), command.end());
    return options;
}

TEST(EmulatedBoardProgramsTest, ARecordingGoesOnThroughAnUnplugWithBlackFramesInTheGap) {
    test::isolateUserFolders();
    setenv("ZANDOR_BUILD", ZANDOR_BUILD_DIR, 1);
    QTemporaryDir folder;
    // The cable is pulled about two seconds in and plugged in again two seconds later.
    const test::ProcessResult run =
        test::runProcess(withEmulatedBoard({"--unplug-at-frame", "120", "--replug-after-ms", "2000"},
                                           {ZANDOR_CLI, "record", "--board", "usb", "--seconds", "8",
                                            "--layout", "Top", "--game-audio", "None", "--narrator-audio",
                                            "None", "--out", folder.path().toStdString()}),
                         120s);
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const auto made = test::splitLines(run.out);
    ASSERT_EQ(made.size(), 1u) << run.out;
    EXPECT_EQ(QDir(folder.path()).entryList({"*.mp4"}).size(), 1);
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

} // namespace
} // namespace zandor
