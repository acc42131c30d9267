// Cutting both screens out of one raw frame, against a plain copy of the same bytes. That the cut
// is right, for every shape, is tests/capture's.

#include "capture/CaptureScreen.h"
#include "capture/RawFrame.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

namespace zandor {
namespace {

using Clock = std::chrono::steady_clock;

std::vector<uint8_t> randomBytes(std::mt19937_64& random, uint64_t size) {
    std::vector<uint8_t> bytes(size);
    for (auto& b : bytes) {
        b = static_cast<uint8_t>(random());
    }
    return bytes;
}

// One raw frame and the buffers both screens and a plain copy write into.
struct Buffers {
    Buffers() {
        std::mt19937_64 random(7);
        frame = randomBytes(random, raw::BlockBytes);
        top.resize(raw::TopWidth * raw::TopHeight * 3);
        bottom.resize(raw::BottomWidth * raw::BottomHeight * 3);
        copy.resize(raw::FrameBytes);
    }

    void cutBoth() {
        CaptureScreen::cut(frame.data() + raw::TopOffset, top.data(), raw::TopWidth, raw::TopHeight);
        CaptureScreen::cut(frame.data() + raw::BottomOffset, bottom.data(), raw::BottomWidth,
                           raw::BottomHeight);
        benchmark::DoNotOptimize(top.data());
        benchmark::DoNotOptimize(bottom.data());
        benchmark::ClobberMemory();
    }

    void copyFrame() {
        std::memcpy(copy.data(), frame.data(), raw::FrameBytes);
        benchmark::DoNotOptimize(copy.data());
        benchmark::ClobberMemory();
    }

    std::vector<uint8_t> frame, top, bottom, copy;
};

const auto FrameBytes = static_cast<int64_t>(raw::FrameBytes);

void BM_CutBothScreens(benchmark::State& state) {
    Buffers buffers;
    for (auto _ : state) {
        buffers.cutBoth();
    }
    state.SetBytesProcessed(state.iterations() * FrameBytes);
}
BENCHMARK(BM_CutBothScreens);

void BM_MemcpyFrame(benchmark::State& state) {
    Buffers buffers;
    for (auto _ : state) {
        buffers.copyFrame();
    }
    state.SetBytesProcessed(state.iterations() * FrameBytes);
}
BENCHMARK(BM_MemcpyFrame);

double median(std::vector<double> values) {
    if (values.empty()) {
        return 0;
    }
    auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

// Both in one loop, alternating, so that they see the same state of the machine; the iteration
// time is the cut's. The counters are medians over the iterations, which other load on the
// machine disturbs less than means: cut_over_memcpy is the cut's time in units of the copy's.
// The frame is in cache here; in the running pipeline it is not (see BM_PipelineCpu).
void BM_CutOverMemcpy(benchmark::State& state) {
    Buffers buffers;
    std::vector<double> cutSeconds, copySeconds;
    for (auto _ : state) {
        auto t0 = Clock::now();
        buffers.copyFrame();
        auto t1 = Clock::now();
        buffers.cutBoth();
        auto t2 = Clock::now();
        copySeconds.push_back(std::chrono::duration<double>(t1 - t0).count());
        cutSeconds.push_back(std::chrono::duration<double>(t2 - t1).count());
        state.SetIterationTime(cutSeconds.back());
    }
    const double cut = median(cutSeconds);
    const double copy = median(copySeconds);
    state.SetBytesProcessed(state.iterations() * FrameBytes);
    state.counters["cut_us"] = cut * 1e6;
    state.counters["memcpy_us"] = copy * 1e6;
    state.counters["cut_bytes_per_second"] = benchmark::Counter(
        static_cast<double>(FrameBytes) / cut, benchmark::Counter::kDefaults, benchmark::Counter::kIs1024);
    state.counters["memcpy_bytes_per_second"] = benchmark::Counter(
        static_cast<double>(FrameBytes) / copy, benchmark::Counter::kDefaults, benchmark::Counter::kIs1024);
    state.counters["cut_over_memcpy"] = cut / copy;
}
BENCHMARK(BM_CutOverMemcpy)->UseManualTime()->MinTime(1.0);

} // namespace
} // namespace zandor
