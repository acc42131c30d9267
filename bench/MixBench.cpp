// Mixing the game and the narrator when a recording is finalised: how long it takes against the
// length of the recording, on one core.

#include "DemoFootage.h"
#include "base/Log.h"
#include "audio/AudioFileWriter.h"
#include "recording/AudioMixer.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

using namespace zandor;

namespace {

constexpr int Seconds = 60;
constexpr int Rate = AudioFileWriter::SampleRate;

// A recorded track of a tone, `Seconds` long from `start`, written as the capture writes one.
std::string track(const char* name, double frequencyHz, std::chrono::system_clock::time_point start) {
    const std::string path = (bench::benchFolder() + "/" + name).toStdString();
    AudioFileWriter writer;
    if (const Error error = writer.open(path, AV_SAMPLE_FMT_FLT, Rate, 2)) {
        throw std::runtime_error(error.logLine());
    }
    constexpr int Buffer = Rate / 50;
    std::vector<float> samples(2 * Buffer);
    for (int64_t first = 0; first < int64_t{Seconds} * Rate; first += Buffer) {
        for (int i = 0; i < Buffer; ++i) {
            samples[2 * i] = samples[2 * i + 1] = static_cast<float>(
                0.5 * std::sin(2 * M_PI * frequencyHz * static_cast<double>(first + i) / Rate));
        }
        if (const Error error = writer.write(reinterpret_cast<const uint8_t*>(samples.data()), Buffer,
                                             start + std::chrono::microseconds(first * 1000000 / Rate))) {
            throw std::runtime_error(error.logLine());
        }
    }
    if (const Error error = writer.finish()) {
        throw std::runtime_error(error.logLine());
    }
    return path;
}

void BM_MixAMinute(benchmark::State& state) {
    LogCapture quiet;
    const auto start = std::chrono::system_clock::now();
    const std::string game = track("game.mov", 440, start);
    const std::string narrator = track("narrator.mov", 1000, start + std::chrono::milliseconds(30));
    const int64_t fromNs =
        std::chrono::duration_cast<std::chrono::nanoseconds>(start.time_since_epoch()).count();
    double cpu = 0;
    for (auto _ : state) {
        const double began = bench::threadSeconds();
        if (const Error error =
                AudioMixer::mix({game, narrator}, fromNs, fromNs + int64_t{Seconds} * 1000000000,
                                (bench::benchFolder() + "/mix.mov").toStdString())) {
            state.SkipWithError(error.logLine().c_str());
        }
        cpu = bench::threadSeconds() - began;
    }
    state.counters["cpu_percent_of_recording"] = cpu / Seconds * 100;
}

BENCHMARK(BM_MixAMinute)->Iterations(3)->Unit(benchmark::kMillisecond);

} // namespace
