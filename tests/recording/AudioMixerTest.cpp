#include "Media.h"
#include "audio/AudioFileWriter.h"
#include "recording/AudioMixer.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <functional>
#include <vector>

namespace zandor {
namespace {

using Clock = std::chrono::system_clock;

constexpr int Rate = AudioFileWriter::SampleRate;

Clock::time_point after(Clock::time_point start, double seconds) {
    return start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

int64_t nanoseconds(Clock::time_point time) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count();
}

// A recorded track as the capture writes one: `seconds` of stereo sound from `start` on, sample i
// being `sound(i / Rate)`, handed over in buffers of 20 ms stamped with their wall-clock times.
std::string record(const QTemporaryDir& folder, const char* name, Clock::time_point start, double seconds,
                   const std::function<double(double)>& sound) {
    const std::string path = folder.filePath(name).toStdString();
    AudioFileWriter writer;
    EXPECT_FALSE(writer.open(path, AV_SAMPLE_FMT_FLT, Rate, 2));
    constexpr int Buffer = Rate / 50;
    std::vector<float> samples(2 * Buffer);
    for (int64_t first = 0; first < static_cast<int64_t>(seconds * Rate); first += Buffer) {
        for (int i = 0; i < Buffer; ++i) {
            samples[2 * i] = samples[2 * i + 1] =
                static_cast<float>(sound(static_cast<double>(first + i) / Rate));
        }
        EXPECT_FALSE(writer.write(reinterpret_cast<const uint8_t*>(samples.data()), Buffer,
                                  after(start, static_cast<double>(first) / Rate)));
    }
    EXPECT_FALSE(writer.finish());
    return path;
}

// A 10 ms click of 1 kHz at half of full scale at each of `times` (s), silence elsewhere.
std::function<double(double)> clicksAt(std::vector<double> times) {
    return [times](double t) {
        for (double at : times) {
            if (t >= at && t < at + 0.01) {
                return 0.5 * std::sin(2 * M_PI * 1000 * (t - at));
            }
        }
        return 0.0;
    };
}

// The left channel of a movie's sound as ffmpeg decodes it, as floats of full scale 1 (a mix down
// to mono would add up the channels' levels).
std::vector<float> decodeFloats(const std::string& movie) {
    const std::string bytes =
        test::runProcess({"ffmpeg", "-v", "error", "-i", movie, "-af", "pan=mono|c0=c0", "-f", "f32le", "-"})
            .out;
    std::vector<float> samples(bytes.size() / sizeof(float));
    std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(float));
    return samples;
}

// The wall-clock seconds of a movie's time zero, less `start`.
double movieStart(const std::string& movie, Clock::time_point start) {
    return test::captureStart(movie) - test::epochSeconds(start);
}

// Each track's sound plays in the mix at the wall-clock time it was captured, whichever track
// started first; the mix covers exactly the span asked for, leaving out what either track holds
// outside it and keeping silence where neither sounds.
TEST(AudioMixerTest, TracksArePlacedByTheirCaptureTimesWithinTheSpan) {
    QTemporaryDir folder;
    const Clock::time_point start = Clock::now();
    // The game sounds from the start for two seconds; the narrator from half a second for one.
    const std::string game = record(folder, "game.mov", start, 2.0, clicksAt({0.1, 1.0}));
    const std::string narrator = record(folder, "narrator.mov", after(start, 0.5), 1.0, clicksAt({0.3}));
    const std::string mix = folder.filePath("mix.mov").toStdString();
    const Error error = AudioMixer::mix({narrator, game}, nanoseconds(after(start, 0.2)),
                                        nanoseconds(after(start, 1.7)), mix);
    ASSERT_FALSE(error) << error.logLine();

    const std::vector<float> sound = decodeFloats(mix);
    const double zero = movieStart(mix, start);
    std::vector<double> clicks;
    for (size_t i = 0, quietSince = 0; i < sound.size(); ++i) {
        if (std::abs(sound[i]) < 0.25f) {
            continue;
        }
        if (i - quietSince > Rate / 20) {
            clicks.push_back(zero + static_cast<double>(i) / Rate);
        }
        quietSince = i;
    }
    ASSERT_EQ(clicks.size(), 2u) << "the click before the span is left out";
    EXPECT_NEAR(clicks[0], 0.8, 0.002) << "the narrator's click";
    EXPECT_NEAR(clicks[1], 1.0, 0.002) << "the game's click";
    // The mix's own encoder priming comes before the span; the last frame may be padded.
    const double length = test::probe(mix, {"-show_entries", "stream=duration"})["streams"][0]["duration"]
                              .toString()
                              .toDouble();
    EXPECT_NEAR(zero + length, 1.7, 0.03);
    EXPECT_NEAR(zero + 1024.0 / Rate, 0.2, 0.001);
}

// Neither scaled down nor let past full scale.
TEST(AudioMixerTest, LoudTracksAddUpAndAreClippedAtFullScale) {
    QTemporaryDir folder;
    const Clock::time_point start = Clock::now();
    const auto loud = [](double t) { return 0.8 * std::sin(2 * M_PI * 440 * t); };
    const std::string game = record(folder, "game.mov", start, 1.0, loud);
    const std::string narrator = record(folder, "narrator.mov", start, 1.0, loud);
    const std::string mix = folder.filePath("mix.mov").toStdString();
    const Error error =
        AudioMixer::mix({game, narrator}, nanoseconds(start), nanoseconds(after(start, 1.0)), mix);
    ASSERT_FALSE(error) << error.logLine();

    // 1.6 times a sine, clipped at full scale, keeps a fundamental of 1.18 times it; let past, it
    // would keep 1.6, and each track at half level would make 0.8. The AAC encoder takes up to 7 %
    // off so loud and rich a sound.
    const std::vector<float> sound = decodeFloats(mix);
    ASSERT_GT(sound.size(), size_t{Rate * 3 / 4});
    EXPECT_NEAR(test::toneAmplitude(sound.data() + Rate / 4, Rate / 2, 440, Rate), 1.18, 0.1);
}

TEST(AudioMixerTest, ATrackThatCannotBeReadFailsTheMixWithItsName) {
    QTemporaryDir folder;
    const std::string missing = folder.filePath("gone.mov").toStdString();
    const Error error = AudioMixer::mix({missing}, 0, 1000000000, folder.filePath("mix.mov").toStdString());
    ASSERT_TRUE(error);
    EXPECT_EQ(error.path(), missing);
    EXPECT_EQ(error.systemCode(), ENOENT) << error.logLine();
}

} // namespace
} // namespace zandor
