#pragma once

#include "base/Error.h"
#include "media/FFmpeg.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace zandor {

// Turns the sound the capture board sends with each frame into one continuous stream at the rate
// the tracks are written in, timed by the frames: the frame's first sound sample belongs at the
// frame's own time, so the sound cannot drift from the picture whatever the machine's sound clock
// does. It is resampled once, by libswresample, from the board's rate (67027964 / 2048 Hz, kept
// exact as the ratio of two integers) straight to the output rate.
//
// Where the frames and the samples counted part:
// - a frame without sound (skipped, short, black while the board is away) is silence of a frame
//   period in its place, and so are the slots skipped before a frame;
// - more than Tolerance apart (the first sound after a stall), silence is put in or sound left out
//   at once, and more than a second apart (a clock that jumped) the sound goes on from this frame's
//   time;
// - within it, the resampler stretches or squeezes the sound by at most MaxStretch, once a second,
//   towards the average of the last second's differences, so that a board whose frames come at
//   its own pace, a little off the machine's, stays in step without a jump.
// Silence is put in and sound left out on the input side, so the resampler's output stays one
// unbroken stream. Not thread-safe: one thread adds.
class BoardSound {
public:
    using Clock = std::chrono::system_clock;
    static constexpr int Channels = 2;
    static constexpr std::chrono::nanoseconds FramePeriod{16'666'667};
    static constexpr std::chrono::milliseconds Tolerance{34};
    static constexpr double MaxStretch = 0.005;

    // Interleaved stereo samples at the output rate, the first of them belonging at `captured`.
    struct Piece {
        std::span<const int16_t> samples;
        Clock::time_point captured;
        int frames() const { return static_cast<int>(samples.size() / Channels); }
    };

    explicit BoardSound(int outputRate);

    // The resampler could not be made: nothing is converted.
    const Error& error() const { return m_error; }
    int outputRate() const { return m_outputRate; }

    // One frame's sound: interleaved stereo values at the board's rate (none for a frame without
    // sound), the frame's time and its number on the board's frame grid (0 when unknown). The piece
    // stays valid until the next call.
    Piece add(std::span<const int16_t> values, Clock::time_point frameTime, uint64_t frameNumber);

    // Where the next output sample belongs; unset before the first frame.
    std::optional<Clock::time_point> nextSampleTime() const;

private:
    // Feeds `count` input samples of silence.
    void feedSilence(int64_t count);
    void feed(const int16_t* values, int64_t count);
    void adjustStretch(double difference);
    Clock::time_point timeOfOutput(int64_t sample) const;

    const int m_outputRate;
    int m_resamplerOut = 0; // the output "rate" the resampler was given: its delay's unit
    ff::Resampler m_resampler;
    Error m_error;
    std::optional<Clock::time_point> m_origin;
    int64_t m_produced = 0; // output samples since the origin
    uint64_t m_lastNumber = 0;
    double m_differenceSum = 0; // output samples, over the frames of the current second
    int m_differenceCount = 0;
    double m_silenceDue = 0; // input samples of silence owed, below one
    std::vector<int16_t> m_output;
    std::vector<int16_t> m_silence;
};

} // namespace zandor
