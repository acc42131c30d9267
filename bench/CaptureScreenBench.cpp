// Cutting every screen out of one raw frame, in each board's column order and at each instruction
// level this machine has, against a plain copy of the same picture bytes. That the cut is right is
// tests/capture's.

#include "capture/ScreenCut.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace zandor {
namespace {

using Clock = std::chrono::steady_clock;

// One raw frame and the buffers its screens and a plain copy write into.
struct Buffers {
    explicit Buffers(ColumnOrder order) : order(order), bytes(pictureBytes(order)) {
        std::mt19937_64 random(7);
        picture.resize(bytes);
        for (auto& b : picture) {
            b = static_cast<uint8_t>(random());
        }
        for (unsigned s = 0; s < screens(); ++s) {
            rows[s].resize(screenColumns(static_cast<ScreenId>(s)) * ColumnPixels * 3);
        }
        copy.resize(bytes);
    }

    // Top and bottom; the right eye too where the frame holds it.
    unsigned screens() const { return order == ColumnOrder::Ft601ThreeD ? 3 : 2; }

    void cutAll(CutLevel level) {
        for (unsigned s = 0; s < screens(); ++s) {
            ScreenCut::cut(picture.data(), order, static_cast<ScreenId>(s), rows[s].data(), level);
            benchmark::DoNotOptimize(rows[s].data());
        }
        benchmark::ClobberMemory();
    }

    void copyPicture() {
        std::memcpy(copy.data(), picture.data(), bytes);
        benchmark::DoNotOptimize(copy.data());
        benchmark::ClobberMemory();
    }

    const ColumnOrder order;
    const uint64_t bytes;
    std::vector<uint8_t> picture, copy;
    std::vector<uint8_t> rows[ScreenCount];
};

double median(std::vector<double> values) {
    if (values.empty()) {
        return 0;
    }
    auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

const char* orderName(ColumnOrder order) {
    switch (order) {
    case ColumnOrder::Classic:
        return "classic";
    case ColumnOrder::Ft601:
        return "ft601";
    case ColumnOrder::Ft601ThreeD:
        return "ft601-3d";
    }
    return "";
}

// Arguments: the column order and the level (its place in ScreenCut::levels()). The cut and the
// copy alternate in one loop, so that they see the same state of the machine; the iteration time
// is the cut's. The counters are medians over the iterations, which other load on the machine
// disturbs less than means: cut_over_memcpy is the cut's time in units of the copy's. The frame is
// in cache here; in the running pipeline it is not (see BM_PipelineCpu).
void BM_CutOverMemcpy(benchmark::State& state) {
    const auto order = static_cast<ColumnOrder>(state.range(0));
    const auto levels = ScreenCut::levels();
    if (static_cast<size_t>(state.range(1)) >= levels.size()) {
        state.SkipWithError("this processor lacks the level");
        return;
    }
    const CutLevel level = levels[static_cast<size_t>(state.range(1))];
    state.SetLabel(std::string(orderName(order)) + " " + ScreenCut::name(level));
    Buffers buffers(order);
    std::vector<double> cutSeconds, copySeconds;
    for (auto _ : state) {
        auto t0 = Clock::now();
        buffers.copyPicture();
        auto t1 = Clock::now();
        buffers.cutAll(level);
        auto t2 = Clock::now();
        copySeconds.push_back(std::chrono::duration<double>(t1 - t0).count());
        cutSeconds.push_back(std::chrono::duration<double>(t2 - t1).count());
        state.SetIterationTime(cutSeconds.back());
    }
    const double cut = median(cutSeconds);
    const double copy = median(copySeconds);
    const auto bytes = static_cast<double>(buffers.bytes);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(buffers.bytes));
    state.counters["cut_us"] = cut * 1e6;
    state.counters["memcpy_us"] = copy * 1e6;
    state.counters["cut_bytes_per_second"] =
        benchmark::Counter(bytes / cut, benchmark::Counter::kDefaults, benchmark::Counter::kIs1024);
    state.counters["memcpy_bytes_per_second"] =
        benchmark::Counter(bytes / copy, benchmark::Counter::kDefaults, benchmark::Counter::kIs1024);
    state.counters["cut_over_memcpy"] = cut / copy;
}
BENCHMARK(BM_CutOverMemcpy)
    ->ArgNames({"order", "level"})
    ->ArgsProduct({{static_cast<int64_t>(ColumnOrder::Classic), static_cast<int64_t>(ColumnOrder::Ft601),
                    static_cast<int64_t>(ColumnOrder::Ft601ThreeD)},
                   {0, 1, 2, 3}})
    ->UseManualTime()
    ->MinTime(0.5);

} // namespace
} // namespace zandor
