#include "Files.h"
#include "Media.h"
#include "audio/AudioFileWriter.h"

#include <gtest/gtest.h>
#include <cerrno>

#include <QTemporaryDir>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <vector>

namespace zandor {
namespace {

using Clock = std::chrono::system_clock;

constexpr int Rate = AudioFileWriter::SampleRate;
constexpr int BufferFrames = Rate / 50; // what the capture hands over every 20 ms

// A short 1 kHz click in silence, handed over as the capture would: buffers of 20 ms stamped
// with the wall-clock time of their first frame, from an input whose clock runs at `clockRate`
// times the wall clock's speed, with `skipped` frames from `skipFrom` on never arriving.
struct Capture {
    const char* what;
    double seconds;
    double clockRate;
    int64_t skipFrom, skipped;
    double clickSeconds; // on the wall clock, after the start
    double tolerance;
};

TEST(AudioFileWriterTest, ASoundPlaysAtTheWallClockTimeItWasCaptured) {
    QTemporaryDir folder;
    for (const Capture& capture : {
             // The encoder's priming comes first in the movie; the start time must account for it,
             // or every sound plays 1024 samples (23 ms) late.
             Capture{"steady", 3, 1.0, -1, 0, 1.5, 0.0005},
             // 0.1 % more samples than the wall clock's seconds hold: by counting samples alone,
             // the click 40 s in would play 40 ms early.
             Capture{"fast input clock", 45, 1.001, -1, 0, 40.0, 0.006},
             // A fifth of a second never arrives; what comes after still plays at its time.
             Capture{"dropout", 3, 1.0, Rate / 2, Rate / 5, 2.0, 0.006},
         }) {
        SCOPED_TRACE(capture.what);
        const std::string path = (folder.path() + "/" + capture.what + ".mov").toStdString();
        const Clock::time_point start = Clock::now();
        AudioFileWriter writer;
        ASSERT_FALSE(writer.open(path, AV_SAMPLE_FMT_S16, Rate, 2));
        const auto clickFrame = static_cast<int64_t>(capture.clickSeconds * Rate * capture.clockRate);
        std::vector<int16_t> buffer(BufferFrames * 2);
        for (int64_t first = 0; first < static_cast<int64_t>(capture.seconds * Rate); first += BufferFrames) {
            if (first >= capture.skipFrom && first < capture.skipFrom + capture.skipped) {
                continue;
            }
            for (int i = 0; i < BufferFrames; ++i) {
                const int64_t at = first + i - clickFrame;
                buffer[2 * i] = buffer[2 * i + 1] =
                    at >= 0 && at < Rate / 100
                        ? static_cast<int16_t>(std::lround(16384 * std::sin(2 * M_PI * 1000 * at / Rate)))
                        : 0;
            }
            const auto captured =
                start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(
                            static_cast<double>(first) / Rate / capture.clockRate));
            EXPECT_FALSE(
                writer.write(reinterpret_cast<const uint8_t*>(buffer.data()), BufferFrames, captured));
        }
        EXPECT_FALSE(writer.finish());

        // When the movie plays the click: its start time from the metadata plus where the click is
        // in the decoded sound.
        const double movieStart = test::captureStart(path) - test::epochSeconds(start);
        const auto sound = test::decodeSound(path);
        const auto onset =
            std::find_if(sound.begin(), sound.end(), [](int16_t s) { return std::abs(s) >= 8192; });
        ASSERT_NE(onset, sound.end()) << "no click in the movie";
        EXPECT_NEAR(movieStart + static_cast<double>(onset - sound.begin()) / Rate, capture.clickSeconds,
                    capture.tolerance);
    }
}

// A file that cannot grow (as on a full disk: here a file-size limit, in the test's own folder) is
// told by the system's code and the path, wherever the file meets it first: the header, a packet
// or the trailer.
TEST(AudioFileWriterTest, AFailedWriteKeepsTheSystemsCodeAndThePath) {
    QTemporaryDir folder;
    const std::string path = folder.filePath("sound.mov").toStdString();
    AudioFileWriter writer;
    ASSERT_FALSE(writer.open(path, AV_SAMPLE_FMT_S16, Rate, 2));
    test::FileSizeLimit limit(0);
    ASSERT_TRUE(limit.isSet());
    const std::vector<int16_t> silence(BufferFrames * 2);
    const Clock::time_point start = Clock::now();
    Error failed = writer.begin(start);
    for (int i = 0; !failed && i < 100; ++i) {
        failed = writer.write(reinterpret_cast<const uint8_t*>(silence.data()), BufferFrames,
                              start + std::chrono::milliseconds(20 * i));
    }
    if (!failed) {
        failed = writer.finish();
    }
    ASSERT_TRUE(limit.lift());
    ASSERT_TRUE(failed) << "two seconds of sound written to a file that cannot grow";
    EXPECT_EQ(failed.systemCode(), EFBIG) << failed.logLine();
    EXPECT_FALSE(failed.isDiskFull());
    EXPECT_EQ(failed.path(), path) << failed.logLine();
}

} // namespace
} // namespace zandor
