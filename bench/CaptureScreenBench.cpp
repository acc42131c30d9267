// Cutting every screen out of one raw frame, in each board's column order and at each instruction
// level this machine has, against a plain copy of the same picture bytes. That the cut is right is
// tests/capture's.
//
// The copy is the C library's memcpy, which on x86-64 may write with string instructions that
// claim whole cache lines without first reading them; a cut stores with ordinary vector
// instructions, which read every line they write. BM_VectorCopyOverMemcpy measures that difference
// alone: the least any cut pays over memcpy.

#include "capture/ScreenCut.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

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
        stored.resize(bytes);
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
    // `stored` receives the picture copied with plain vector stores.
    std::vector<uint8_t> picture, copy, stored;
    std::vector<uint8_t> rows[ScreenCount];
};

#if defined(__x86_64__)
// The picture copied with 64-byte loads and stores, as a cut's stores are made.
__attribute__((target("avx512f"))) void storeCopy(uint8_t* to, const uint8_t* from, uint64_t bytes) {
    uint64_t i = 0;
    for (; i + 64 <= bytes; i += 64) {
        _mm512_storeu_si512(to + i, _mm512_loadu_si512(from + i));
    }
    std::memcpy(to + i, from + i, bytes - i);
}

bool canStoreCopy() {
    return __builtin_cpu_supports("avx512f");
}
#else
void storeCopy(uint8_t*, const uint8_t*, uint64_t) {}
bool canStoreCopy() {
    return false;
}
#endif

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

// The copy of frame i % frames and the work on frame (i + frames / 2) % frames alternate in one loop,
// so that they see the same state of the machine; the iteration time is the work's. The counters
// are medians over the iterations, which other load on the machine disturbs less than means:
// <work>_over_memcpy is the work's time in units of the copy's.
template <size_t Frames, class Work>
void measureOverMemcpy(benchmark::State& state, std::array<Buffers, Frames>& frames, const std::string& name,
                       Work work) {
    std::vector<double> cutSeconds, copySeconds;
    size_t i = 0;
    for (auto _ : state) {
        auto t0 = Clock::now();
        frames[i % Frames].copyPicture();
        auto t1 = Clock::now();
        work(frames[(i + Frames / 2) % Frames]);
        auto t2 = Clock::now();
        copySeconds.push_back(std::chrono::duration<double>(t1 - t0).count());
        cutSeconds.push_back(std::chrono::duration<double>(t2 - t1).count());
        state.SetIterationTime(cutSeconds.back());
        ++i;
    }
    const double cut = median(cutSeconds);
    const double copy = median(copySeconds);
    const uint64_t frameBytes = frames[0].bytes;
    const auto bytes = static_cast<double>(frameBytes);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(frameBytes));
    state.counters[name + "_us"] = cut * 1e6;
    state.counters["memcpy_us"] = copy * 1e6;
    state.counters[name + "_bytes_per_second"] =
        benchmark::Counter(bytes / cut, benchmark::Counter::kDefaults, benchmark::Counter::kIs1024);
    state.counters["memcpy_bytes_per_second"] =
        benchmark::Counter(bytes / copy, benchmark::Counter::kDefaults, benchmark::Counter::kIs1024);
    state.counters[name + "_over_memcpy"] = cut / copy;
}

// Arguments: the column order and the level (its place in ScreenCut::levels()), for the cut
// benchmarks below.
bool chooseLevel(benchmark::State& state, CutLevel& level) {
    const auto levels = ScreenCut::levels();
    if (static_cast<size_t>(state.range(1)) >= levels.size()) {
        state.SkipWithError("this processor lacks the level");
        return false;
    }
    level = levels[static_cast<size_t>(state.range(1))];
    state.SetLabel(std::string(orderName(static_cast<ColumnOrder>(state.range(0)))) + " " +
                   ScreenCut::name(level));
    return true;
}

// One frame, in cache as far as it goes: the picture and its screens (1 MB, 1.6 MB in 3D) fit in a
// second-level cache of 2 MB. With a megabyte a core, as on AMD's processors, they do not quite,
// and each line the cut writes is read from the third-level cache first; memcpy's string stores
// skip that read (the ratio is the same when memcpy writes into the screens' own buffers). In the
// running pipeline nothing is in cache (see BM_CutOverMemcpyRing and BM_PipelineCpu).
void BM_CutOverMemcpy(benchmark::State& state) {
    CutLevel level;
    if (!chooseLevel(state, level)) {
        return;
    }
    std::array<Buffers, 1> frames{Buffers(static_cast<ColumnOrder>(state.range(0)))};
    measureOverMemcpy(state, frames, "cut", [&](Buffers& frame) { frame.cutAll(level); });
}
BENCHMARK(BM_CutOverMemcpy)
    ->ArgNames({"order", "level"})
    ->ArgsProduct({{static_cast<int64_t>(ColumnOrder::Classic), static_cast<int64_t>(ColumnOrder::Ft601),
                    static_cast<int64_t>(ColumnOrder::Ft601ThreeD)},
                   {0, 1, 2, 3}})
    ->UseManualTime()
    ->MinTime(0.5);

// Four frames taken in turn, as the pipeline's frame pools hand them out: 6 MB and more in all,
// past the second-level cache, so that both the cut and the copy read the picture from further away
// and write screens that are no longer in that cache. Every vector level, since a processor without
// AVX-512 cuts with AVX2 or SSE4.1.
void BM_CutOverMemcpyRing(benchmark::State& state) {
    CutLevel level;
    if (!chooseLevel(state, level)) {
        return;
    }
    const auto order = static_cast<ColumnOrder>(state.range(0));
    std::array<Buffers, 4> frames{Buffers(order), Buffers(order), Buffers(order), Buffers(order)};
    measureOverMemcpy(state, frames, "cut", [&](Buffers& frame) { frame.cutAll(level); });
}
BENCHMARK(BM_CutOverMemcpyRing)
    ->ArgNames({"order", "level"})
    ->ArgsProduct({{static_cast<int64_t>(ColumnOrder::Classic), static_cast<int64_t>(ColumnOrder::Ft601),
                    static_cast<int64_t>(ColumnOrder::Ft601ThreeD)},
                   {1, 2, 3}})
    ->UseManualTime()
    ->MinTime(0.5);

// The picture copied with 64-byte vector loads and stores instead of cut, in the same state of the
// machine as BM_CutOverMemcpy: the floor of a cut's time over memcpy's.
void BM_VectorCopyOverMemcpy(benchmark::State& state) {
    if (!canStoreCopy()) {
        state.SkipWithError("this processor lacks 64-byte vector stores");
        return;
    }
    const auto order = static_cast<ColumnOrder>(state.range(0));
    state.SetLabel(orderName(order));
    std::array<Buffers, 1> frames{Buffers(order)};
    measureOverMemcpy(state, frames, "vector_copy", [](Buffers& frame) {
        storeCopy(frame.stored.data(), frame.picture.data(), frame.bytes);
        benchmark::DoNotOptimize(frame.stored.data());
        benchmark::ClobberMemory();
    });
}
BENCHMARK(BM_VectorCopyOverMemcpy)
    ->ArgNames({"order"})
    ->Arg(static_cast<int64_t>(ColumnOrder::Classic))
    ->Arg(static_cast<int64_t>(ColumnOrder::Ft601ThreeD))
    ->UseManualTime()
    ->MinTime(0.5);

} // namespace
} // namespace zandor
