// The replay buffer: what keeping it costs beside encoding the same frames for a recording, how
// long a save of thirty seconds takes beside copying its bytes in memory, and how its memory
// compares with the seconds times the bit rate.

#include "DemoFootage.h"
#include "base/Log.h"
#include "capture/CaptureData.h"
#include "recording/ReplayBuffer.h"
#include "recording/VideoRecord.h"
#include "settings/VideoQuality.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>

using namespace zandor;

namespace {

constexpr int Seconds = 30;

// Frame `n` of an endless run at 60 frames a second: the footage's pictures, stamped anew.
const CaptureData& frameAt(int n) {
    CaptureData& frame =
        *bench::demoFootage("Top over Bottom").frames[static_cast<size_t>(n % bench::FootageFrames)];
    frame.setTimestamp(n / 60.0);
    frame.setNumber(static_cast<uint64_t>(n) + 1);
    frame.setWallClock(
        std::chrono::system_clock::time_point(std::chrono::microseconds(int64_t{n} * 1000000 / 60)));
    return frame;
}

void keepAndSave(benchmark::State& state, const QString& quality) {
    LogCapture quiet;
    CaptureSettings settings;
    settings.storageFolder = bench::benchFolder();
    settings.videoQuality = quality;
    constexpr int Frames = (Seconds + 2) * 60;
    double keeping = 0, recording = 0, saving = 0, copying = 0;
    uint64_t held = 0;
    for (auto _ : state) {
        auto buffer =
            std::make_shared<ReplayBuffer>(bench::demoFootage("Top over Bottom").layout, settings, Seconds);
        buffer->start();
        double start = bench::threadSeconds();
        for (int n = 0; n < Frames; ++n) {
            buffer->append(frameAt(n));
        }
        keeping = bench::threadSeconds() - start;

        // The same frames into a recording's movie: the encoder's own cost.
        VideoRecord record(bench::demoFootage("Top over Bottom").layout);
        if (const Error failed = record.start(bench::benchFolder(), settings)) {
            state.SkipWithError(failed.logLine().c_str());
            return;
        }
        start = bench::threadSeconds();
        for (int n = 0; n < Frames; ++n) {
            record.append(frameAt(n));
        }
        if (const Error failed = record.stop()) {
            state.SkipWithError(failed.logLine().c_str());
            return;
        }
        recording = bench::threadSeconds() - start;

        held = buffer->heldBytes();
        const auto saveStart = std::chrono::steady_clock::now();
        const Result<QString> saved = buffer->save(bench::benchFolder());
        saving = std::chrono::duration<double>(std::chrono::steady_clock::now() - saveStart).count();
        if (!saved) {
            state.SkipWithError(saved.error().logLine().c_str());
        }
        std::vector<uint8_t> from(held, 1), to(held);
        const auto copyStart = std::chrono::steady_clock::now();
        std::memcpy(to.data(), from.data(), held);
        benchmark::DoNotOptimize(to.data());
        copying = std::chrono::duration<double>(std::chrono::steady_clock::now() - copyStart).count();
        state.SetIterationTime(saving);
        buffer->stop();
    }
    const double expected =
        static_cast<double>(VideoQuality::qualityNamed(quality)->bitsPerSecond()) / 8 * Seconds;
    state.counters["save_ms"] = saving * 1000;
    state.counters["save_over_memcpy"] = copying > 0 ? saving / copying : 0;
    state.counters["keep_cpu_over_record_cpu"] = recording > 0 ? keeping / recording : 0;
    state.counters["keep_cpu_percent_of_core"] = keeping / (Frames / 60.0) * 100;
    state.counters["ring_MB"] = static_cast<double>(held) / 1e6;
    state.counters["ring_over_seconds_x_bitrate"] = static_cast<double>(held) / expected;
}

int registerQualities() {
    for (const char* quality : {"Highest", "High", "Medium", "Lowest"}) {
        benchmark::RegisterBenchmark((std::string("BM_Replay30s/") + quality).c_str(),
                                     [quality](benchmark::State& state) { keepAndSave(state, quality); })
            ->Iterations(1)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    }
    return 0;
}

const int registered = registerQualities();

} // namespace
