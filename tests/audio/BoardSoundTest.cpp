#include "audio/BoardSound.h"
#include "capture/RawFrame.h"
#include "media/AudioEncoder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace zandor {
namespace {

using Clock = BoardSound::Clock;
constexpr int Rate = AudioEncoder::SampleRate;
constexpr double Pi = 3.14159265358979323846;

// The board's side: a 1 kHz beep of 50 ms every half second of its own sound clock, starting at
// 0, cut into frames as the board sends it (about 545.5 stereo samples a frame at 60 frames a
// second, `samplesPerSecond` letting a board run fast or slow against the frames).
class Board {
public:
    explicit Board(double samplesPerSecond = raw::SoundRate) : m_samplesPerSecond(samplesPerSecond) {}

    std::vector<int16_t> frame(uint64_t index) const {
        const auto first = static_cast<int64_t>(std::floor(index * m_samplesPerSecond / 60));
        const auto end = static_cast<int64_t>(std::floor((index + 1) * m_samplesPerSecond / 60));
        std::vector<int16_t> values;
        for (int64_t n = first; n < end; ++n) {
            const double t = n / raw::SoundRate;
            const double inBeep = std::fmod(t, 0.5);
            const auto v = static_cast<int16_t>(inBeep < 0.05 ? 12000 * std::sin(2 * Pi * 1000 * t) : 0);
            values.push_back(v);
            values.push_back(v);
        }
        return values;
    }

private:
    double m_samplesPerSecond;
};

// What came out: all samples (left channel), each piece checked to follow the one before in time.
struct Track {
    Clock::time_point origin{};
    std::vector<int16_t> left;

    void add(const BoardSound::Piece& piece) {
        if (left.empty() && piece.frames() > 0) {
            origin = piece.captured;
        }
        if (piece.frames() > 0) {
            const auto expected = origin + std::chrono::duration_cast<Clock::duration>(
                                               std::chrono::duration<double>(double(left.size()) / Rate));
            EXPECT_LE(std::chrono::abs(piece.captured - expected), std::chrono::microseconds(50))
                << "a piece at sample " << left.size() << " does not follow the one before";
        }
        for (size_t i = 0; i < piece.samples.size(); i += 2) {
            left.push_back(piece.samples[i]);
        }
    }
    // Seconds from the origin of the first loud sample at or after `from` seconds.
    double onsetAfter(double from) const {
        for (auto i = static_cast<size_t>(std::max(0.0, from * Rate)); i < left.size(); ++i) {
            if (std::abs(left[i]) > 4000) {
                return double(i) / Rate;
            }
        }
        return -1;
    }
    double seconds() const { return double(left.size()) / Rate; }
};

Clock::time_point frameTime(Clock::time_point start, uint64_t index) {
    return start + std::chrono::duration_cast<Clock::duration>(BoardSound::FramePeriod * index);
}

// Every beep of the track, from `from` seconds on, starts within `margin` of its half second.
void expectBeepsInStep(const Track& track, double from, double margin) {
    int beeps = 0;
    for (double beep = std::ceil(from * 2) / 2; beep + 0.06 < track.seconds(); beep += 0.5, ++beeps) {
        EXPECT_NEAR(track.onsetAfter(beep - 0.1), beep, margin) << "the beep at " << beep << " s";
    }
    EXPECT_GT(beeps, 0);
}

TEST(BoardSoundTest, TheSoundIsResampledOnceAndKeepsTheFramesTime) {
    BoardSound sound(Rate);
    ASSERT_FALSE(sound.error()) << sound.error().logLine();
    const Board board;
    Track track;
    const auto start = Clock::now();
    const uint64_t frames = 60 * 20;
    for (uint64_t k = 0; k < frames; ++k) {
        const auto values = board.frame(k);
        track.add(sound.add(values, frameTime(start, k), k + 1));
    }
    EXPECT_EQ(track.origin, start);
    // The length of the picture, less what the resampler still holds (a few samples).
    EXPECT_NEAR(track.seconds(), frames / 60.0, 0.002);
    expectBeepsInStep(track, 0, 0.001);
}

TEST(BoardSoundTest, FramesWithoutSoundAndSkippedSlotsAreSilenceOfTheirLength) {
    BoardSound sound(Rate);
    const Board board;
    Track track;
    const auto start = Clock::now();
    // Seconds 2 to 3: frames without sound (the board away); slots 250 and 251 never taken at all
    // (less than the tolerance: only the skip tells).
    for (uint64_t k = 0; k < 60 * 6; ++k) {
        if (k == 250 || k == 251) {
            continue;
        }
        const bool away = k >= 120 && k < 180;
        const auto values = away ? std::vector<int16_t>{} : board.frame(k);
        track.add(sound.add(values, frameTime(start, k), k + 1));
    }
    EXPECT_NEAR(track.seconds(), 6.0, 0.002);
    EXPECT_NEAR(track.onsetAfter(1.6), 3.0, 0.001) << "the beeps of the time away were heard";
    EXPECT_NEAR(track.onsetAfter(1.4), 1.5, 0.001);
    expectBeepsInStep(track, 3, 0.001);
}

TEST(BoardSoundTest, ABoardWhoseSoundRunsFastOrSlowAgainstTheFramesStaysInStep) {
    // 0.3 % off (about two samples a frame), in both directions, for two minutes: stretched or
    // squeezed in, never a jump once in step.
    for (const double off : {1.003, 0.997}) {
        BoardSound sound(Rate);
        const Board board(raw::SoundRate * off);
        Track track;
        const auto start = Clock::now();
        for (uint64_t k = 0; k < 60 * 120; ++k) {
            track.add(sound.add(board.frame(k), frameTime(start, k), k + 1));
        }
        EXPECT_NEAR(track.seconds(), 120.0, 0.04) << off;
        // The beeps come from the board's clock: beep n is at n / 2 / off seconds of frames.
        for (int n = 200; n < 238; ++n) {
            const double expected = n / 2.0 / off;
            EXPECT_NEAR(track.onsetAfter(expected - 0.1), expected, 0.01) << off << " beep " << n;
        }
    }
}

TEST(BoardSoundTest, AClockThatJumpsStartsTheSoundAfreshWithoutFillingTheGap) {
    BoardSound sound(Rate);
    const Board board;
    const auto start = Clock::now();
    for (uint64_t k = 0; k < 60; ++k) {
        (void)sound.add(board.frame(k), frameTime(start, k), k + 1);
    }
    const auto later = frameTime(start, 60) + std::chrono::hours(1);
    const auto piece = sound.add(board.frame(60), later, 61);
    EXPECT_LE(piece.frames(), 1000) << "an hour of silence was made";
    EXPECT_LE(std::chrono::abs(*sound.nextSampleTime() - (later + std::chrono::milliseconds(17))),
              std::chrono::milliseconds(2));
}

} // namespace
} // namespace zandor
