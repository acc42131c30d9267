// Where the sound clock places captured samples, against when they were really taken, for inputs
// that deliver on time, late, late at first, with a slow clock or with a dropout.

#include "audio/SampleClock.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace zandor {
namespace {

using Clock = SampleClock::Clock;
using std::chrono::duration;
using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr int Rate = 44100;
constexpr int Buffer = 882; // 20 ms

double millisecondsBetween(Clock::time_point a, Clock::time_point b) {
    return duration<double, std::milli>(a - b).count();
}

// An input whose sample n is taken at taken(n); each buffer arrives `delay(index)` after its last
// sample was taken. Returns the worst distance, in ms, between where the clock placed a buffer's
// first sample and when it was taken, over the buffers from `from` on.
template <class Taken, class Delay>
double worstError(SampleClock& clock, int buffers, Taken taken, Delay delay, int from = 0) {
    double worst = 0;
    for (int i = 0; i < buffers; ++i) {
        const int64_t first = int64_t{i} * Buffer;
        const Clock::time_point arrived = taken(first + Buffer) + delay(i);
        const Clock::time_point placed = clock.place(Buffer, arrived);
        if (i >= from) {
            worst = std::max(worst, std::abs(millisecondsBetween(placed, taken(first))));
        }
    }
    return worst;
}

const Clock::time_point Start = Clock::time_point(std::chrono::seconds(1'800'000'000));

Clock::time_point atRate(int64_t sample, double rate = Rate) {
    return Start + microseconds(std::llround(static_cast<double>(sample) * 1e6 / rate));
}

TEST(SampleClock, CountsSamplesWhateverTheArrivalsOfABusyMachine) {
    std::mt19937 random(7);
    // Each buffer late by up to 40 ms, one in ten on time, as when the sound's thread waits its turn.
    std::uniform_int_distribution<int> lateness(0, 40000);
    SampleClock clock(Rate);
    const double worst = worstError(
        clock, 3000, [](int64_t n) { return atRate(n); },
        [&](int i) { return microseconds(i % 10 == 3 ? 0 : lateness(random)); }, 10);
    EXPECT_LT(worst, 1.0);
    EXPECT_EQ(clock.samples(), 3000 * Buffer);
}

TEST(SampleClock, AFirstBufferThatCameLateIsCorrectedByThePromptOnes) {
    SampleClock clock(Rate);
    const double worst = worstError(
        clock, 100, [](int64_t n) { return atRate(n); }, [](int i) { return milliseconds(i == 0 ? 60 : 2); },
        1);
    EXPECT_LT(worst, 2.5) << "placed by the prompt buffers from the second on";
}

TEST(SampleClock, FollowsAnInputWhoseClockRunsSlowButNotALateMachine) {
    // 300 parts per million slow: after 60 s the samples lag the wall clock by 18 ms.
    SampleClock slow(Rate);
    const double followed = worstError(
        slow, 3000, [](int64_t n) { return atRate(n, Rate * (1 - 300e-6)); },
        [](int i) { return milliseconds(1 + i % 3); });
    EXPECT_LT(followed, 4.0);

    // Every buffer 30 ms late from the fifth second on, for a minute: the placement may rise at most
    // half a millisecond a second (past the window of ten seconds), never all the way.
    SampleClock busy(Rate);
    const double pushed = worstError(
        busy, 3000, [](int64_t n) { return atRate(n); },
        [](int i) { return milliseconds(i < 250 ? 1 : 30); });
    EXPECT_GT(pushed, 5.0);
    EXPECT_LT(pushed, 29.0);
}

TEST(SampleClock, ADropoutMovesTheSoundOnWithinASecond) {
    SampleClock clock(Rate);
    // 300 ms of samples lost after 5 s: the samples after it were taken that much later.
    const auto taken = [](int64_t n) {
        return atRate(n) + (n >= 250 * Buffer ? milliseconds(300) : milliseconds(0));
    };
    const double worst = worstError(
        clock, 400, taken, [](int) { return milliseconds(1); }, 300);
    EXPECT_LT(worst, 2.0);
}

} // namespace
} // namespace zandor
