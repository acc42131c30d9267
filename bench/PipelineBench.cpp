// The whole capture pipeline on a replay board: the delay from the device publishing a frame to
// both screens having published theirs, and the processor time the pipeline costs per second of
// capture.

#include "base/DetachedThread.h"
#include "base/Log.h"
#include "base/Wakeup.h"
#include "capture/CaptureDevice.h"
#include "capture/CaptureScreen.h"
#include "capture/DemoBoard.h"
#include "capture/RawFrame.h"
#include "capture/ReplayBoard.h"

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace zandor {
namespace {

using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

constexpr std::chrono::nanoseconds Unpaced{0};
constexpr uint64_t ReplayFrames = 60;
// Frames published in the first moments of a run meet threads that are still starting; they are
// left out of every figure.
constexpr std::chrono::milliseconds WarmUp{250};

[[noreturn]] void fail(const std::string& reason) {
    std::fprintf(stderr, "capture_bench: %s\n", reason.c_str());
    std::abort();
}

// A replay file of demo frames in a folder of its own, made on first use and removed at exit.
class ReplayFile {
public:
    static const std::string& path() {
        static const ReplayFile file;
        return file.m_path;
    }

private:
    ReplayFile() {
        std::string pattern = (std::filesystem::temp_directory_path() / "zandor-bench-XXXXXX").string();
        if (!mkdtemp(pattern.data())) {
            fail("cannot make a temporary folder: " + std::string(std::strerror(errno)));
        }
        m_folder = pattern;
        m_path = (m_folder / "demo.raw").string();
        std::vector<uint8_t> frame(raw::FrameBytes);
        std::ofstream out(m_path, std::ios::binary);
        for (uint64_t n = 0; n < ReplayFrames; ++n) {
            DemoBoard::render(n, frame.data());
            out.write(reinterpret_cast<const char*>(frame.data()),
                      static_cast<std::streamsize>(frame.size()));
        }
        if (!out.flush()) {
            fail("cannot write " + m_path);
        }
    }

    ~ReplayFile() {
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }

    std::filesystem::path m_folder;
    std::string m_path;
};

// The process's kernel time, minor page faults and thread switches so far.
struct Usage {
    double systemSeconds;
    double minorFaults;
    double contextSwitches;

    static Usage now() {
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        auto seconds = [](const timeval& t) {
            return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6;
        };
        return {seconds(usage.ru_stime), static_cast<double>(usage.ru_minflt),
                static_cast<double>(usage.ru_nvcsw + usage.ru_nivcsw)};
    }
};

// Processor time of each thread of this process by name, from the scheduler's own account.
std::map<std::string, double> threadCpuSeconds() {
    std::map<std::string, double> seconds;
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", error)) {
        std::ifstream commFile(task.path() / "comm");
        std::ifstream schedstat(task.path() / "schedstat");
        std::string name;
        double runNanoseconds = 0;
        if (std::getline(commFile, name) && schedstat >> runNanoseconds) {
            seconds[name] += runNanoseconds * 1e-9;
        }
    }
    return seconds;
}

double cpuSeconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// A listening device on the replay file, with one consumer subscribed to both screens.
class Pipeline {
public:
    explicit Pipeline(std::chrono::nanoseconds framePeriod) {
        std::string error;
        auto board = ReplayBoard::open(ReplayFile::path(), error);
        if (!board) {
            fail(error);
        }
        m_device = CaptureDevice::create(std::move(board));
        m_device->setFramePeriod(framePeriod);
        for (unsigned i = 0; i < 2; ++i) {
            m_observers[i] = m_device->screen(i)->addObserver(m_wakeup);
        }
        if (!m_device->startListening()) {
            fail("the replay device did not start");
        }
        m_start = m_device->startTime();
    }

    ~Pipeline() {
        m_device->stopListening();
        if (!DetachedThread::waitForAll(2s)) {
            fail("pipeline threads still running 2 s after stopping");
        }
    }

    // Takes every waiting screen frame, calling `received(screen, frame)` for each; sleeps on the
    // consumer's wake-up when there was none. Returns once `until` has passed.
    template <class Received> void drainUntil(SteadyClock::time_point until, Received received) {
        while (SteadyClock::now() < until) {
            bool any = false;
            for (unsigned i = 0; i < 2; ++i) {
                while (auto frame = m_device->screen(i)->observe(m_observers[i])) {
                    received(i, *frame);
                    any = true;
                }
            }
            if (!any) {
                m_wakeup->wait(10ms);
            }
        }
    }

    // The wall-clock moment the device published a frame with time stamp `seconds`.
    std::chrono::system_clock::time_point published(double seconds) const {
        return m_start + std::chrono::duration_cast<std::chrono::system_clock::duration>(
                             std::chrono::duration<double>(seconds));
    }

    CaptureDevice& device() { return *m_device; }

    uint64_t droppedFrames() {
        return m_device->droppedFrames() + m_device->screen(0)->droppedFrames() +
               m_device->screen(1)->droppedFrames();
    }

private:
    std::shared_ptr<CaptureDevice> m_device;
    std::shared_ptr<Wakeup> m_wakeup = std::make_shared<Wakeup>();
    ObserverPtr m_observers[2];
    std::chrono::system_clock::time_point m_start;
};

// The value below which `fraction` of the sorted values lie (nearest rank).
double percentile(const std::vector<double>& sorted, double fraction) {
    if (sorted.empty()) {
        return 0;
    }
    auto rank = static_cast<size_t>(std::ceil(fraction * static_cast<double>(sorted.size())));
    return sorted[std::clamp<size_t>(rank, 1, sorted.size()) - 1];
}

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

// The floor for the pipeline's figure: one thread copying the bytes the pipeline moves per frame
// (the raw frame, then each screen's share of it) 60 times a second, paced like the device.
// Returns its processor time in percent of one core.
double memcpyAt60FpsPercent() {
    std::vector<uint8_t> board(raw::FrameBytes), frame(raw::FrameBytes);
    std::vector<uint8_t> top(raw::TopWidth * raw::TopHeight * 3),
        bottom(raw::BottomWidth * raw::BottomHeight * 3);
    for (size_t i = 0; i < board.size(); ++i) {
        board[i] = static_cast<uint8_t>(i * 7);
    }
    const auto wallStart = SteadyClock::now();
    const double cpuStart = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
    for (auto pass = wallStart; pass < wallStart + CpuWindow; pass += CaptureDevice::DefaultFramePeriod) {
        std::memcpy(frame.data(), board.data(), frame.size());
        std::memcpy(top.data(), frame.data() + raw::TopOffset, top.size());
        std::memcpy(bottom.data(), frame.data() + raw::BottomOffset, bottom.size());
        benchmark::ClobberMemory();
        std::this_thread::sleep_until(pass + CaptureDevice::DefaultFramePeriod);
    }
    const double cpu = cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - cpuStart;
    return 100 * cpu / std::chrono::duration<double>(SteadyClock::now() - wallStart).count();
}

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
            pipeline.drainUntil(wallStart + CpuWindow, drain);
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
