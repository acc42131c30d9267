// A whole program on the real board path: zandor-cli with `--board usb`, started through
// scripts/with-emulated-board as a developer or a bug reporter would.

#include "Media.h"
#include "UserFolders.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QTemporaryDir>

#include <chrono>
#include <numeric>
#include <optional>
#include <tuple>

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

// The cable is pulled about two seconds in and plugged in again two seconds later, while the board's
// own sound is the game sound: the movie goes on with black frames and silence in the gap, and
// before and after it every beep of the board starts with its white frame.
TEST(EmulatedBoardProgramsTest, ARecordingGoesOnThroughAnUnplugWithBlackFramesAndSilenceInTheGap) {
    test::isolateUserFolders();
    setenv("ZANDOR_BUILD", ZANDOR_BUILD_DIR, 1);
    setenv("ZANDOR_DEMO_FLASH", "1", 1);
    QTemporaryDir folder;
    const test::ProcessResult run =
        test::runProcess(withEmulatedBoard({"--unplug-at-frame", "120", "--replug-after-ms", "2000"},
                                           {ZANDOR_CLI, "record", "--board", "usb", "--seconds", "8",
                                            "--layout", "Top", "--game-audio", "board", "--narrator-audio",
                                            "None", "--out", folder.path().toStdString()}),
                         120s);
    unsetenv("ZANDOR_DEMO_FLASH");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const auto made = test::splitLines(run.out);
    ASSERT_EQ(made.size(), 1u) << run.out;
    EXPECT_EQ(QDir(folder.path()).entryList({"*.mp4"}).size(), 1);
    EXPECT_NE(run.err.find("Capture device disconnected\n"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("Capture device reconnected\n"), std::string::npos) << run.err;

    // Each frame's mean brightness, as ffmpeg decodes the movie (at a constant 60 frames a second).
    const std::string grey = test::runProcess({"ffmpeg", "-v", "error", "-i", made.front(), "-vf",
                                               "scale=8:8", "-pix_fmt", "gray", "-f", "rawvideo", "-"})
                                 .out;
    std::vector<int> brightness;
    for (size_t frame = 0; frame + 64 <= grey.size(); frame += 64) {
        const auto pixels = reinterpret_cast<const uint8_t*>(grey.data()) + frame;
        brightness.push_back(std::accumulate(pixels, pixels + 64, 0) / 64);
    }
    const auto black = [&](size_t frame) { return brightness[frame] < 12; }; // video range: a little above 0
    // Real frames, then the gap, then real frames again.
    ASSERT_FALSE(brightness.empty());
    EXPECT_FALSE(black(0));
    EXPECT_FALSE(black(brightness.size() - 1));
    size_t gapStart = 0;
    while (gapStart < brightness.size() && !black(gapStart)) {
        ++gapStart;
    }
    size_t gapEnd = gapStart;
    while (gapEnd < brightness.size() && black(gapEnd)) {
        ++gapEnd;
    }
    EXPECT_GT(gapEnd, gapStart) << "the time unplugged is black";
    for (size_t frame = gapEnd; frame < brightness.size(); ++frame) {
        EXPECT_FALSE(black(frame)) << "one gap only: frame " << frame;
    }

    // The game track, as 44.1 kHz mono samples: as long as the picture, to a frame, silent in the
    // gap, and each white frame's beep starting with it (the picture shows the frame nearest its
    // second, and the sound is placed by the frames: within 20 ms).
    constexpr int Rate = 44100;
    const std::vector<int16_t> samples = test::decodeSound(made.front(), {"-map", "0:a:0", "-ar", "44100"});
    const size_t count = samples.size();
    EXPECT_NEAR(double(count) / Rate, brightness.size() / 60.0, 1 / 60.0 + 0.01);
    const auto loudBetween = [&](double from, double to) -> std::optional<double> {
        for (auto i = size_t(std::max(0.0, from * Rate)); i < std::min(count, size_t(to * Rate)); ++i) {
            if (std::abs(samples[i]) > 3000) {
                return double(i) / Rate;
            }
        }
        return std::nullopt;
    };
    EXPECT_FALSE(loudBetween(gapStart / 60.0 + 0.05, gapEnd / 60.0 - 0.05)) << "sound in the gap";
    // A run of white frames is one flash: slots whose frames were lost on a busy machine show the
    // picture before them again.
    int beeps = 0;
    for (size_t frame = 0; frame < brightness.size(); ++frame) {
        const bool white = brightness[frame] >= 200;
        if (!white || (frame > 0 && brightness[frame - 1] >= 200) ||
            frame / 60.0 + 0.1 > double(count) / Rate) {
            continue;
        }
        ++beeps;
        const auto onset = loudBetween(frame / 60.0 - 0.1, frame / 60.0 + 0.1);
        ASSERT_TRUE(onset) << "no beep with the white frame " << frame;
        EXPECT_NEAR(*onset, frame / 60.0, 0.02) << "the beep of the white frame " << frame;
    }
    EXPECT_GE(beeps, 4) << "white frames before and after the gap";
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
                               "\nFirmware version: 4\nSound: no\n3D picture: no\n");
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
                         "Firmware version: 6\nSound: yes\n3D picture: no\n");
}

// The new models' board through the script, on a USB 3 port and on a USB 2 one.
TEST(EmulatedBoardProgramsTest, TheNewModelsBoardIsFoundAndTellsWhatItCan) {
    test::isolateUserFolders();
    setenv("ZANDOR_BUILD", ZANDOR_BUILD_DIR, 1);
    for (const auto& [port, line, told] :
         {std::tuple<std::string, std::string, std::string>{"", "USB 3, can capture 3D",
                                                            "Connection: USB 3\n3D picture: yes\n"},
          {"--usb2", "USB 2\n", "Connection: USB 2\n3D picture: no\n"}}) {
        std::vector<std::string> options{"--kind", "n3dsxl", "--serial", "ZD-N3DS"};
        if (!port.empty()) {
            options.push_back(port);
        }
        const test::ProcessResult run = test::runProcess(
            withEmulatedBoard(options, {ZANDOR_CLI, "board-info", "--board", "usb:ZD-N3DS"}), 60s);
        ASSERT_EQ(run.exitCode, 0) << run.err;
        EXPECT_NE(
            run.err.find("Capture board: N3DSXL 0403:601f, serial ZD-N3DS, firmware version 0, " + line),
            std::string::npos)
            << run.err;
        EXPECT_EQ(run.err.find("refused"), std::string::npos) << run.err;
        EXPECT_TRUE(run.out.starts_with("Name: N3DSXL\n") && run.out.ends_with(told)) << run.out;
    }
}

} // namespace
} // namespace zandor
