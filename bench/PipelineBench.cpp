// The whole capture pipeline on a replay board: the delay from the device publishing a frame to
// both screens having published theirs, and the processor time the pipeline costs per second of
// capture.

#include "AllocationCount.h"
#include "BenchSupport.h"

#include "base/Log.h"

namespace zandor {
namespace {

using namespace bench;

// Latency, in microseconds, from the device publishing a raw frame (its time stamp) to the moment
// the consumer holds both screens cut from it. range(0) is the frame period in nanoseconds.
void BM_PublishToBothScreens(benchmark::State& state) {
    const std::chrono::nanoseconds period{state.range(0)};
    const auto measured = period == Unpaced ? 3s : 5s;
    LogCapture log; // dropped-frame lines would interleave with the results; `dropped` counts them
    for (auto _ : state) {
        Pipeline pipeline(period);
        // Time stamp -> arrival of the first of the two screens' frames.
        std::map<double, std::chrono::system_clock::time_point> waiting;
        std::vector<double> latencies;
        uint64_t unpaired = 0;
        const double warmUp = std::chrono::duration<double>(WarmUp).count();
        pipeline.drainUntil(SteadyClock::now() + WarmUp + measured, [&](unsigned, const CaptureData& frame) {
            const auto now = std::chrono::system_clock::now();
            const double stamp = frame.timestamp();
            auto [entry, first] = waiting.try_emplace(stamp, now);
            if (first) {
                return;
            }
            waiting.erase(entry);
            if (stamp >= warmUp) {
                latencies.push_back(
                    std::chrono::duration<double, std::micro>(now - pipeline.published(stamp)).count());
            }
            // A frame one screen dropped never pairs; forget partners much older than this one.
            while (!waiting.empty() && waiting.begin()->first < stamp - 1.0) {
                waiting.erase(waiting.begin());
                ++unpaired;
            }
        });
        const uint64_t published = pipeline.device().count();
        const uint64_t dropped = pipeline.droppedFrames();
        std::sort(latencies.begin(), latencies.end());
        state.counters["median_us"] = percentile(latencies, 0.5);
        state.counters["p99_us"] = percentile(latencies, 0.99);
        state.counters["max_us"] = latencies.empty() ? 0 : latencies.back();
        state.counters["frames"] = static_cast<double>(latencies.size());
        state.counters["fps"] =
            static_cast<double>(latencies.size()) / std::chrono::duration<double>(measured).count();
        state.counters["published"] = static_cast<double>(published);
        state.counters["dropped"] = static_cast<double>(dropped);
        state.counters["unpaired"] = static_cast<double>(unpaired + waiting.size());
    }
}
BENCHMARK(BM_PublishToBothScreens)
    ->ArgName("period_ns")
    ->Arg(Unpaced.count())
    ->Arg(CaptureDevice::DefaultFramePeriod.count())
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

constexpr auto CpuWindow = 5s;

// Processor time of the paced pipeline (device and screens) per second of capture, in percent of
// one core, with a consumer that only takes the screens' frames; then the same for plain copies
// of the same bytes, so that pipeline_over_memcpy reads as a ratio. The other counters say where
// the time goes: each pipeline thread's share, the kernel's share of the whole process, and per
// frame the page faults (fresh frame memory) and thread switches (wake-ups) of the process.
void BM_PipelineCpu(benchmark::State& state) {
    LogCapture log; // the device's periodic rate line is not part of the result table
    for (auto _ : state) {
        uint64_t frames[2] = {0, 0};
        double pipelinePercent = 0;
        {
            Pipeline pipeline(CaptureDevice::DefaultFramePeriod);
            auto drain = [&](unsigned screen, const CaptureData&) { ++frames[screen]; };
            pipeline.drainUntil(SteadyClock::now() + WarmUp, drain);
            frames[0] = frames[1] = 0;

            const auto wallStart = SteadyClock::now();
            const double processStart = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID);
            const double consumerStart = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
            const Usage usageStart = Usage::now();
            const auto threadsStart = threadCpuSeconds();
            const Allocations allocationsStart = Allocations::now();
            pipeline.drainUntil(wallStart + CpuWindow, drain);
            const Allocations allocationsEnd = Allocations::now();
            const auto threadsEnd = threadCpuSeconds();
            const Usage usageEnd = Usage::now();
            const double consumer = cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - consumerStart;
            const double process = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID) - processStart;
            const double wall = std::chrono::duration<double>(SteadyClock::now() - wallStart).count();
            const double perFrame = std::max<double>(1, static_cast<double>(frames[1]));

            pipelinePercent = 100 * (process - consumer) / wall;
            state.counters["pipeline_cpu_percent"] = pipelinePercent;
            state.counters["consumer_cpu_percent"] = 100 * consumer / wall;
            for (const char* thread : {"zandor-device", "zandor-top", "zandor-bottom"}) {
                auto end = threadsEnd.find(thread), start = threadsStart.find(thread);
                if (end != threadsEnd.end() && start != threadsStart.end()) {
                    state.counters[std::string(thread + 7) + "_cpu_percent"] =
                        100 * (end->second - start->second) / wall;
                }
            }
            state.counters["system_cpu_percent"] =
                100 * (usageEnd.systemSeconds - usageStart.systemSeconds) / wall;
            state.counters["faults_per_frame"] = (usageEnd.minorFaults - usageStart.minorFaults) / perFrame;
            state.counters["switches_per_frame"] =
                (usageEnd.contextSwitches - usageStart.contextSwitches) / perFrame;
            state.counters["allocations_per_frame"] =
                static_cast<double>(allocationsEnd.count - allocationsStart.count) / perFrame;
            state.counters["allocated_kb_per_frame"] =
                static_cast<double>(allocationsEnd.bytes - allocationsStart.bytes) / 1024 / perFrame;
            state.counters["fps"] = static_cast<double>(std::min(frames[0], frames[1])) / wall;
            state.counters["dropped"] = static_cast<double>(pipeline.droppedFrames());
        }
        // The pipeline has stopped and its threads have ended: the copies run alone.
        const double memcpyPercent = memcpyAt60FpsPercent();
        state.counters["memcpy_cpu_percent"] = memcpyPercent;
        state.counters["pipeline_over_memcpy"] = pipelinePercent / memcpyPercent;
    }
}
BENCHMARK(BM_PipelineCpu)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
} // namespace zandor
