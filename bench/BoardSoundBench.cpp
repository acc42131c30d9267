// The capture board's own sound: what turning one frame's sound into the tracks' rate costs,
// against a copy of the same bytes, and how far a beep lies from its frame after an hour.

#include "audio/BoardSound.h"
#include "capture/RawFrame.h"
#include "media/AudioEncoder.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <vector>

namespace zandor {
namespace {

using Clock = std::chrono::steady_clock;
constexpr int Rate = AudioEncoder::SampleRate;

double median(std::vector<double> values) {
    auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

// The board's side: a 1 kHz beep of 50 ms at every whole second of its sound clock, cut into the
// frames it sends at 60 a second; `speed` above 1 is a sound clock that runs fast against the
// frames.
class Board {
public:
    explicit Board(double speed = 1.0) : m_perFrame(raw::SoundRate * speed / 60) {}

    const std::vector<int16_t>& frame(uint64_t index) {
        const auto first = static_cast<int64_t>(std::floor(index * m_perFrame));
        const auto end = static_cast<int64_t>(std::floor((index + 1) * m_perFrame));
        m_values.clear();
        for (int64_t n = first; n < end; ++n) {
            const double t = n / raw::SoundRate;
            const double inBeep = t - std::floor(t);
            const auto v = static_cast<int16_t>(inBeep < 0.05 ? 12000 * std::sin(2 * M_PI * 1000 * t) : 0);
            m_values.push_back(v);
            m_values.push_back(v);
        }
        return m_values;
    }
    // Frames of the board's whole second `second`.
    double frameOfSecond(int64_t second) const { return second * raw::SoundRate / m_perFrame; }

private:
    double m_perFrame;
    std::vector<int16_t> m_values;
};

// One frame's sound through the resampler against a memcpy of its bytes, alternating, medians.
void BM_BoardSoundFrameOverMemcpy(benchmark::State& state) {
    BoardSound sound(Rate);
    Board board;
    std::vector<int16_t> copy(4096);
    std::vector<double> convert, memcpyTimes;
    const auto start = std::chrono::system_clock::now();
    uint64_t k = 0;
    for (auto _ : state) {
        const auto& values = board.frame(k);
        const auto t0 = Clock::now();
        std::memcpy(copy.data(), values.data(), values.size() * sizeof(int16_t));
        benchmark::DoNotOptimize(copy.data());
        const auto t1 = Clock::now();
        const auto piece = sound.add(values, start + BoardSound::FramePeriod * k, k + 1);
        benchmark::DoNotOptimize(piece.samples.data());
        const auto t2 = Clock::now();
        memcpyTimes.push_back(std::chrono::duration<double>(t1 - t0).count());
        convert.push_back(std::chrono::duration<double>(t2 - t1).count());
        state.SetIterationTime(convert.back());
        ++k;
    }
    const double perFrame = median(convert);
    state.counters["frame_us"] = perFrame * 1e6;
    state.counters["memcpy_us"] = median(memcpyTimes) * 1e6;
    state.counters["frame_over_memcpy"] = perFrame / median(memcpyTimes);
    state.counters["core_percent_at_60fps"] = perFrame * 60 * 100;
}
BENCHMARK(BM_BoardSoundFrameOverMemcpy)->UseManualTime()->MinTime(1.0);

// An hour of frames, as fast as they convert: where each beep of the last minute starts against the
// frame that brought it. Argument: the board's sound clock off the frames, in parts per million.
void BM_BoardSoundHourOffset(benchmark::State& state) {
    const double speed = 1.0 + static_cast<double>(state.range(0)) * 1e-6;
    for (auto _ : state) {
        BoardSound sound(Rate);
        Board board(speed);
        const auto start = std::chrono::system_clock::now();
        constexpr uint64_t Frames = 60ull * 3600;
        std::vector<double> offsets;
        int64_t produced = 0;
        double lastLoud = -1;
        for (uint64_t k = 0; k < Frames; ++k) {
            const auto piece = sound.add(board.frame(k), start + BoardSound::FramePeriod * k, k + 1);
            if (k < Frames - 60 * 60) {
                produced += piece.frames();
                continue;
            }
            for (int i = 0; i < piece.frames(); ++i, ++produced) {
                if (std::abs(piece.samples[2 * i]) <= 4000) {
                    continue;
                }
                const double at = static_cast<double>(produced) / Rate;
                if (at - lastLoud > 0.5) {
                    // The beep's second on the board's clock, and where its frame lies.
                    const auto second = static_cast<int64_t>(std::llround(at * speed));
                    const double expected = board.frameOfSecond(second) / 60.0;
                    offsets.push_back(std::abs(at - expected) * 1000);
                }
                lastLoud = at;
            }
        }
        std::sort(offsets.begin(), offsets.end());
        state.counters["beeps"] = static_cast<double>(offsets.size());
        state.counters["median_ms"] = offsets.empty() ? -1 : offsets[offsets.size() / 2];
        state.counters["worst_ms"] = offsets.empty() ? -1 : offsets.back();
    }
}
BENCHMARK(BM_BoardSoundHourOffset)->Arg(0)->Arg(100)->Arg(-100)->Iterations(1)->Unit(benchmark::kSecond);

} // namespace
} // namespace zandor
