#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>

namespace zandor {

// Places captured sound on the wall clock, the clock the picture's frames are stamped with, by
// counting samples: sample n was taken at origin + n / rate. A buffer's arrival only bounds its
// samples (they were all taken before it arrived), and arrivals come late by however long the
// machine made the sound's thread wait; so the origin is the earliest that the arrivals allow:
// - a buffer that arrives earlier than its samples' places allow moves the origin back at once;
// - the origin moves forward only when every arrival of the last seconds says it must, and then
//   at most half a millisecond a second, so that an input whose own clock runs slow stays in step
//   while a busy machine, which only delays arrivals, cannot push the sound later by more than that;
// - samples lost in a dropout (the arrivals a fifth of a second or more behind for a second) move
//   it forward at once.
// Not thread-safe: the input's thread uses it.
class SampleClock {
public:
    using Clock = std::chrono::system_clock;

    explicit SampleClock(int sampleRate = 44100) : m_rate(sampleRate) {}

    // The wall-clock time of the first of `frames` samples that arrived at `arrived`, the
    // samples counted so far coming before them.
    Clock::time_point place(int64_t frames, Clock::time_point arrived);
    // Forgets everything: the next buffer, of this rate, starts the count again.
    void reset(int sampleRate);

    int64_t samples() const { return m_samples; }
    // Where sample 0 lies; unset before the first buffer.
    std::optional<Clock::time_point> origin() const { return m_origin; }

    // How far a busy machine's late arrivals may push the origin forward a second, and over how long
    // the arrivals must all agree before it moves.
    static constexpr std::chrono::microseconds RisePerSecond{500};
    static constexpr std::chrono::seconds Window{10};
    static constexpr std::chrono::milliseconds Dropout{200};
    static constexpr std::chrono::seconds DropoutWindow{1};

private:
    Clock::duration durationOf(int64_t samples) const;

    int m_rate;
    int64_t m_samples = 0;
    std::optional<Clock::time_point> m_origin;
    Clock::time_point m_firstArrival;
    Clock::time_point m_lastArrival; // the previous buffer's arrival
    // The latest origin each recent buffer allows, with when it arrived; oldest first, and
    // increasing (a later buffer that allows an earlier origin makes the earlier entries moot).
    struct Bound {
        Clock::time_point arrived;
        Clock::time_point origin;
    };
    std::deque<Bound> m_bounds;
};

} // namespace zandor
