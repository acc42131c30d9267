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

// What the board is, as zandor-cli tells it, and the board chosen by its serial among two: an older
// board without sound and with another firmware, and one with a serial of its own beside it.
TEST(EmulatedBoardProgramsTest, BoardInfoTellsWhatTheChosenBoardIs) {
    test::isolateUserFolders();
    setenv("ZANDOR_BUILD", ZANDOR_BUILD_DIR, 1);
    const std::vector<std::string> twoBoards{"--no-sound", "--firmware", "4",        "--serial",
                                             "ZD-FIRST",   "--serial",   "ZD-SECOND"};
    for (const auto& [board, serial] :
         {std::pair{"usb:ZD-SECOND", "ZD-SECOND"}, {"usb:ZD-FIRST", "ZD-FIRST"}}) {
        const test::ProcessResult run =
            test::runProcess(withEmulatedBoard(twoBoards, {ZANDOR_CLI, "board-info", "--board", board}), 60s);
        ASSERT_EQ(run.exitCode, 0) << run.err;
        EXPECT_EQ(run.out, "Name: Capture board\nVendor:product: 16d0:06a3\nSerial: " + std::string(serial) +
                               "\nFirmware version: 4\nSound: no\n");
        EXPECT_NE(run.err.find("The capture board sends no sound\n"), std::string::npos) << run.err;
    }
    const test::ProcessResult missing = test::runProcess(
        withEmulatedBoard(twoBoards, {ZANDOR_CLI, "board-info", "--board", "usb:ZD-THIRD"}), 60s);
    EXPECT_NE(missing.exitCode, 0);
    EXPECT_NE(missing.err.find("Could not connect to capture device\n"), std::string::npos) << missing.err;

    const test::ProcessResult sound = test::runProcess(
        withEmulatedBoard({"--tone", "440"}, {ZANDOR_CLI, "board-info", "--board", "usb"}), 60s);
    ASSERT_EQ(sound.exitCode, 0) << sound.err;
    EXPECT_EQ(sound.out, "Name: Capture board\nVendor:product: 16d0:06a3\nSerial: ZD0000000001\n"
                         "Firmware version: 6\nSound: yes\n");
}

} // namespace
} // namespace zandor
