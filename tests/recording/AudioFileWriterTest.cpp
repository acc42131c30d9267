#include "Process.h"
#include "recording/AudioFileWriter.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

namespace zandor {
namespace {

using Clock = std::chrono::system_clock;
using test::runProcess;

constexpr int Rate = AudioFileWriter::SampleRate;
constexpr int BufferFrames = Rate / 50; // what the capture hands over every 20 ms

// A short 1 kHz burst in silence, as the capture would hand it over: buffers of 20 ms, each with
// the wall-clock time `timeOf(first frame of the buffer)`, and `skipped` frames left out where
// the input dropped them.
struct Capture {
    double seconds = 3;
    int64_t clickFrame = 0;
    std::function<double(int64_t frame)> timeOf; // seconds after the start
    int64_t skipFrom = -1, skipped = 0;
};

// Writes the capture and returns the wall-clock time (seconds after the start) at which the movie
// plays the click: its start time from the metadata plus where the click is in the decoded sound.
double clickTimeInMovie(const Capture& capture, const std::string& path) {
    const Clock::time_point start = Clock::now();
    AudioFileWriter writer;
    EXPECT_TRUE(writer.open(path, AV_SAMPLE_FMT_S16, Rate, 2));
    const auto total = static_cast<int64_t>(capture.seconds * Rate);
    std::vector<int16_t> buffer(BufferFrames * 2);
    for (int64_t first = 0; first < total; first += BufferFrames) {
        if (first >= capture.skipFrom && first < capture.skipFrom + capture.skipped) {
            continue;
        }
        for (int i = 0; i < BufferFrames; ++i) {
            const int64_t at = first + i - capture.clickFrame;
            const bool click = at >= 0 && at < Rate / 100;
            buffer[2 * i] = buffer[2 * i + 1] =
                click ? static_cast<int16_t>(std::lround(16384 * std::sin(2 * M_PI * 1000 * at / Rate))) : 0;
        }
        const auto captured = start + std::chrono::duration_cast<Clock::duration>(
                                          std::chrono::duration<double>(capture.timeOf(first)));
        EXPECT_TRUE(writer.write(reinterpret_cast<const uint8_t*>(buffer.data()), BufferFrames, captured));
    }
    EXPECT_TRUE(writer.finish());

    const auto tag = runProcess({"/usr/bin/ffprobe", "-v", "error", "-show_entries",
                                 "format_tags=zandor_capture_start", "-of", "default=nw=1:nk=1", path});
    const auto decoded =
        runProcess({"/usr/bin/ffmpeg", "-v", "error", "-i", path, "-ac", "1", "-f", "s16le", "-"});
    std::vector<int16_t> sound(decoded.out.size() / 2);
    std::memcpy(sound.data(), decoded.out.data(), sound.size() * 2);
    size_t onset = 0;
    while (onset < sound.size() && std::abs(sound[onset]) < 8192) {
        ++onset;
    }
    EXPECT_LT(onset, sound.size()) << "no click in the movie";
    const double movieStart =
        std::atof(tag.out.c_str()) - std::chrono::duration<double>(start.time_since_epoch()).count();
    return movieStart + static_cast<double>(onset) / Rate;
}

class AudioFileWriterTest : public ::testing::Test {
protected:
    std::string path(const char* name) const { return (m_folder.path() + "/" + name).toStdString(); }
    QTemporaryDir m_folder;
};

TEST_F(AudioFileWriterTest, ASoundPlaysAtTheTimeItWasCaptured) {
    // The encoder's priming comes first in the movie; the start time must account for it, or
    // every sound plays 1024 samples (23 ms) late.
    Capture capture;
    capture.clickFrame = Rate * 3 / 2;
    capture.timeOf = [](int64_t frame) { return static_cast<double>(frame) / Rate; };
    EXPECT_NEAR(clickTimeInMovie(capture, path("steady.mov")), 1.5, 0.0005);
}

TEST_F(AudioFileWriterTest, AnInputClockedFastOrSlowStaysOnTheWallClock) {
    // An input delivering 0.1 % more (or fewer) samples than the wall clock's seconds hold: by
    // counting samples alone, the click 40 s in would play 40 ms early (or late).
    for (const double clockRate : {1.001, 0.999}) {
        Capture capture;
        capture.seconds = 45;
        capture.clickFrame = static_cast<int64_t>(40.0 * Rate * clockRate);
        capture.timeOf = [clockRate](int64_t frame) { return static_cast<double>(frame) / Rate / clockRate; };
        EXPECT_NEAR(clickTimeInMovie(capture, path("drifting.mov")), 40.0, 0.006)
            << "clock rate " << clockRate;
    }
}

TEST_F(AudioFileWriterTest, SamplesLostInADropoutAreFilledWithSilence) {
    // A fifth of a second of sound never arrives; what comes after still plays at its time.
    Capture capture;
    capture.clickFrame = Rate * 2;
    capture.timeOf = [](int64_t frame) { return static_cast<double>(frame) / Rate; };
    capture.skipFrom = Rate / 2;
    capture.skipped = Rate / 5;
    EXPECT_NEAR(clickTimeInMovie(capture, path("dropout.mov")), 2.0, 0.006);
}

} // namespace
} // namespace zandor
