// Where the sound clock places captured samples, against when they were really taken, for inputs
// that deliver on time, late, late at first, with a slow clock or with a dropout.

#include "audio/SampleClock.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>

namespace zandor {
namespace {

using Clock = SampleClock::Clock;
using std::chrono::duration;
using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr int Rate = 44100;
constexpr int Buffer = 882; // 20 ms

const Clock::time_point Start = Clock::time_point(std::chrono::seconds(1'800'000'000));

Clock::time_point atRate(int64_t sample, double rate = Rate) {
    return Start + microseconds(std::llround(static_cast<double>(sample) * 1e6 / rate));
}

// An input whose sample n is taken at taken(n); each of its `buffers` buffers arrives `delay(index)`
// after its last sample was taken. The worst distance, in ms, between where the clock placed a
// buffer's first sample and when it was taken, over the buffers from `from` on, lies in (above, below).
struct Arrivals {
    const char* what;
    int buffers;
    std::function<Clock::time_point(int64_t)> taken;
    std::function<Clock::duration(int)> delay;
    int from;
    double below, above = -1;
};

TEST(SampleClock, CountsSamplesAndFollowsTheInputsClockWhateverTheArrivals) {
    std::mt19937 random(7);
    // Each buffer late by up to 40 ms, one in ten on time, as when the sound's thread waits its turn.
    std::uniform_int_distribution<int> lateness(0, 40000);
    const auto onTime = [](int64_t n) { return atRate(n); };
    for (const Arrivals& input : {
             Arrivals{"a busy machine", 3000, onTime,
                      [&](int i) { return microseconds(i % 10 == 3 ? 0 : lateness(random)); }, 10, 1.0},
             // Placed by the prompt buffers from the second on.
             Arrivals{"a first buffer that came late", 100, onTime,
                      [](int i) { return milliseconds(i == 0 ? 60 : 2); }, 1, 2.5},
             // 300 parts per million slow: after 60 s the samples lag the wall clock by 18 ms.
             Arrivals{"a slow input clock", 3000, [](int64_t n) { return atRate(n, Rate * (1 - 300e-6)); },
                      [](int i) { return milliseconds(1 + i % 3); }, 0, 4.0},
             // Every buffer 30 ms late from the fifth second on, for a minute: the placement may rise
             // at most half a millisecond a second (past the window of ten seconds), never all the way.
             Arrivals{"a machine late for good", 3000, onTime,
                      [](int i) { return milliseconds(i < 250 ? 1 : 30); }, 0, 29.0, 5.0},
             // 300 ms of samples lost after 5 s: the samples after it were taken that much later;
             // within a second the sound moves on.
             Arrivals{"a dropout", 400,
                      [](int64_t n) { return atRate(n) + milliseconds(n >= 250 * Buffer ? 300 : 0); },
                      [](int) { return milliseconds(1); }, 300, 2.0},
         }) {
        SCOPED_TRACE(input.what);
        SampleClock clock(Rate);
        double worst = 0;
        for (int i = 0; i < input.buffers; ++i) {
            const int64_t first = int64_t{i} * Buffer;
            const Clock::time_point placed =
                clock.place(Buffer, input.taken(first + Buffer) + input.delay(i));
            if (i >= input.from) {
                worst = std::max(worst,
                                 std::abs(duration<double, std::milli>(placed - input.taken(first)).count()));
            }
        }
        EXPECT_LT(worst, input.below);
        EXPECT_GT(worst, input.above);
        EXPECT_EQ(clock.samples(), int64_t{input.buffers} * Buffer);
    }
}

} // namespace
} // namespace zandor
