// The real board path against the emulated board: how soon real frames come back after the board
// is plugged in again, what the device thread costs while the board is away, and the pipeline's
// processor time at 60 frames a second through libusb beside the replay board's in the same run.

#include "BenchSupport.h"
#include "EmulatedBoard.h"

#include "Ft601Model.h"
#include "base/Log.h"
#include "capture/Boards.h"
#include "capture/LibusbBoard.h"

#include <condition_variable>
#include <mutex>
#include <string>

namespace zandor {
namespace {

using namespace bench;

// The emulated board showing the demo picture, and the device on it through libusb.
class EmulatedPipeline {
public:
    // Without sound the board is one of older firmware: nothing after the picture.
    explicit EmulatedPipeline(bool sound = true) {
        std::string error;
        auto model = std::make_unique<DemoBoard>();
        model->setSendsSound(sound);
        m_board = EmulatedBoard::create(std::move(model), error);
        if (!m_board) {
            fail(error);
        }
        m_pipeline =
            std::make_unique<Pipeline>(CaptureDevice::DefaultFramePeriod, std::make_unique<LibusbBoard>());
        m_pipeline->device().setConnectionObserver([this](bool connected) {
            std::scoped_lock lock(m_mutex);
            m_connected = connected;
            m_changed.notify_all();
        });
    }
    // The new models' board (in 3D when asked), or the old one, through `--board usb`.
    enum class Kind { Classic, Ft601, Ft601ThreeD };
    explicit EmulatedPipeline(Kind kind) {
        std::string error;
        m_board =
            kind == Kind::Classic
                ? EmulatedBoard::create(std::make_unique<DemoBoard>(), error)
                : EmulatedBoard::create(
                      std::make_unique<Ft601Model>(std::make_unique<DemoBoard>(), Ft601Options{}), error);
        if (!m_board) {
            fail(error);
        }
        auto board = createBoard("usb");
        if (!board) {
            fail(board.error().logLine());
        }
        auto device = CaptureDevice::create(std::move(*board));
        device->set3D(kind == Kind::Ft601ThreeD);
        device->setConnectionObserver([this](bool connected) {
            std::scoped_lock lock(m_mutex);
            m_connected = connected;
            m_changed.notify_all();
        });
        m_pipeline = std::make_unique<Pipeline>(CaptureDevice::DefaultFramePeriod, std::move(device));
    }
    ~EmulatedPipeline() {
        m_pipeline.reset(); // libusb's context ends before the testbed it looks at
        m_board.reset();
    }

    void waitConnected(bool connected) {
        std::unique_lock lock(m_mutex);
        if (!m_changed.wait_for(lock, 20s, [&] { return m_connected == connected; })) {
            fail(connected ? "the board did not come back" : "the device did not notice the unplug");
        }
    }

    EmulatedBoard& board() { return *m_board; }
    Pipeline& pipeline() { return *m_pipeline; }

private:
    std::unique_ptr<EmulatedBoard> m_board;
    std::unique_ptr<Pipeline> m_pipeline;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_connected = true;
};

bool isBlack(const CaptureData& frame) {
    return std::all_of(frame.data(), frame.data() + frame.size(), [](uint8_t byte) { return byte == 0; });
}

// Milliseconds from plugging the board in again to the first real frame the device publishes (as
// the bottom screen's consumer receives it), over ten replugs: median, worst and best.
struct ReplugDelays {
    double median = 0, worst = 0, best = 0;
};

ReplugDelays replugDelays(EmulatedPipeline& emulated) {
    std::vector<double> delays;
    for (int replug = 0; replug < 10; ++replug) {
        emulated.board().unplug();
        emulated.waitConnected(false);
        // Let the black frames run a while, as after a real unplug.
        emulated.pipeline().drainUntil(SteadyClock::now() + 300ms, [](unsigned, const CaptureData&) {});
        const auto plugged = SteadyClock::now();
        emulated.board().plug();
        bool real = false;
        SteadyClock::time_point arrived;
        while (!real && SteadyClock::now() < plugged + 10s) {
            emulated.pipeline().drainUntil(SteadyClock::now() + 1ms,
                                           [&](unsigned screen, const CaptureData& frame) {
                                               if (!real && screen == 1 && !isBlack(frame)) {
                                                   real = true;
                                                   arrived = SteadyClock::now();
                                               }
                                           });
        }
        if (!real) {
            fail("no real frame 10 s after the replug");
        }
        delays.push_back(std::chrono::duration<double, std::milli>(arrived - plugged).count());
    }
    std::sort(delays.begin(), delays.end());
    return {percentile(delays, 0.5), delays.back(), delays.front()};
}

void BM_ReplugToFirstRealFrame(benchmark::State& state) {
    LogCapture log;
    for (auto _ : state) {
        EmulatedPipeline emulated;
        const ReplugDelays delays = replugDelays(emulated);
        state.counters["median_ms"] = delays.median;
        state.counters["worst_ms"] = delays.worst;
        state.counters["best_ms"] = delays.best;
    }
}
BENCHMARK(BM_ReplugToFirstRealFrame)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same for the new models' board beside the old one's, both through `--board usb`: its opening
// drains the board, opens it twice and lets the firmware start twice (200 ms each).
void BM_Ft601ReplugToFirstRealFrame(benchmark::State& state) {
    LogCapture log;
    for (auto _ : state) {
        ReplugDelays classic, ft601;
        {
            EmulatedPipeline emulated(EmulatedPipeline::Kind::Classic);
            classic = replugDelays(emulated);
        }
        {
            EmulatedPipeline emulated(EmulatedPipeline::Kind::Ft601);
            ft601 = replugDelays(emulated);
        }
        state.counters["classic_median_ms"] = classic.median;
        state.counters["ft601_median_ms"] = ft601.median;
        state.counters["ft601_worst_ms"] = ft601.worst;
        state.counters["ft601_over_classic"] = ft601.median / classic.median;
    }
}
BENCHMARK(BM_Ft601ReplugToFirstRealFrame)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

double threadPercent(const std::map<std::string, double>& start, const std::map<std::string, double>& end,
                     const std::string& name, double wall) {
    auto a = start.find(name), b = end.find(name);
    return a == start.end() || b == end.end() ? 0 : 100 * (b->second - a->second) / wall;
}

// The device thread's processor time, in percent of one core, while the board is unplugged: it
// publishes a black frame every 1/60 s and asks libusb, without waiting, whether the board is back.
// Beside it the plain-copy floor of a connected board (the same bytes copied 60 times a second).
void BM_UnpluggedDeviceThreadCpu(benchmark::State& state) {
    LogCapture log;
    for (auto _ : state) {
        double unplugged = 0;
        {
            EmulatedPipeline emulated;
            emulated.board().unplug();
            emulated.waitConnected(false);
            emulated.pipeline().drainUntil(SteadyClock::now() + WarmUp, [](unsigned, const CaptureData&) {});
            const auto wallStart = SteadyClock::now();
            const auto threadsStart = threadCpuSeconds();
            emulated.pipeline().drainUntil(wallStart + 5s, [](unsigned, const CaptureData&) {});
            const auto threadsEnd = threadCpuSeconds();
            const double wall = std::chrono::duration<double>(SteadyClock::now() - wallStart).count();
            unplugged = threadPercent(threadsStart, threadsEnd, "zandor-device", wall);
            state.counters["device_unplugged_cpu_percent"] = unplugged;
            state.counters["screens_unplugged_cpu_percent"] =
                threadPercent(threadsStart, threadsEnd, "zandor-top", wall) +
                threadPercent(threadsStart, threadsEnd, "zandor-bottom", wall);
        }
        const double memcpyPercent = memcpyAt60FpsPercent();
        state.counters["memcpy_cpu_percent"] = memcpyPercent;
        state.counters["unplugged_over_memcpy"] = unplugged / memcpyPercent;
    }
}
BENCHMARK(BM_UnpluggedDeviceThreadCpu)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

struct PipelineCpu {
    double ours = 0;     // device, screens and libusb's threads
    double device = 0;   // of which the device thread
    double emulator = 0; // the emulated board's own threads (umockdev's worker)
    double fps = 0;
};

// The run's counters under `prefix`: our threads' and the device thread's share of a core, and the
// frames a second.
void report(benchmark::State& state, const std::string& prefix, const PipelineCpu& cpu) {
    state.counters[prefix + "_ours_cpu_percent"] = cpu.ours;
    state.counters[prefix + "_device_cpu_percent"] = cpu.device;
    state.counters[prefix + "_fps"] = cpu.fps;
}

// Processor time over five seconds of a paced pipeline, by thread: the pipeline's and libusb's are
// ours; the emulator's (umockdev's worker and GLib's) are all the others but the consumer's.
PipelineCpu measure(Pipeline& pipeline) {
    uint64_t frames = 0;
    pipeline.drainUntil(SteadyClock::now() + WarmUp, [](unsigned, const CaptureData&) {});
    const auto wallStart = SteadyClock::now();
    const auto start = threadTimes();
    pipeline.drainUntil(wallStart + 5s, [&](unsigned screen, const CaptureData&) { frames += screen; });
    const auto end = threadTimes();
    const double wall = std::chrono::duration<double>(SteadyClock::now() - wallStart).count();
    PipelineCpu cpu;
    for (const auto& [id, time] : end) {
        const auto before = start.find(id);
        const double percent =
            100 * (time.seconds - (before == start.end() ? 0 : before->second.seconds)) / wall;
        if (time.name.rfind("zandor-", 0) == 0 || time.name.rfind("libusb", 0) == 0) {
            cpu.ours += percent;
            if (time.name == "zandor-device") {
                cpu.device += percent;
            }
        } else if (!time.main) {
            cpu.emulator += percent;
        }
    }
    cpu.fps = static_cast<double>(frames) / wall;
    return cpu;
}

// The pipeline at 60 frames a second through libusb on the emulated board, then on the replay
// board, in percent of one core. The device thread's figure on the emulated board includes the
// preload library's work in its ioctls (each frame's bytes cross a socket from the emulator),
// which a kernel does with far less; the emulator's own thread is counted apart.
void BM_PipelineCpuEmulatedAndReplay(benchmark::State& state) {
    LogCapture log;
    for (auto _ : state) {
        PipelineCpu emulatedCpu, replayCpu;
        {
            EmulatedPipeline emulated;
            emulatedCpu = measure(emulated.pipeline());
        }
        {
            Pipeline replay(CaptureDevice::DefaultFramePeriod);
            replayCpu = measure(replay);
        }
        report(state, "emulated", emulatedCpu);
        state.counters["emulator_cpu_percent"] = emulatedCpu.emulator;
        report(state, "replay", replayCpu);
        state.counters["emulated_over_replay"] = emulatedCpu.ours / replayCpu.ours;
    }
}
BENCHMARK(BM_PipelineCpuEmulatedAndReplay)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// The pipeline at 60 frames a second through libusb on the emulated board sending each frame's
// sound after the picture (the picture and about 2 kB more, and a zero-length read to end the
// frame), then on one of older firmware whose frames are read up to the picture alone, in percent
// of one core.
void BM_PipelineCpuWithAndWithoutSound(benchmark::State& state) {
    LogCapture log;
    for (auto _ : state) {
        PipelineCpu withSound, withoutSound;
        {
            EmulatedPipeline emulated(true);
            withSound = measure(emulated.pipeline());
        }
        {
            EmulatedPipeline emulated(false);
            withoutSound = measure(emulated.pipeline());
        }
        report(state, "sound", withSound);
        report(state, "nosound", withoutSound);
        state.counters["sound_over_nosound"] = withSound.ours / withoutSound.ours;
    }
}
BENCHMARK(BM_PipelineCpuWithAndWithoutSound)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// The pipeline at 60 frames a second on the new models' board, flat and in 3D, beside the old
// one's in the same run, all through `--board usb`, in percent of one core; the device thread's
// share apart (it waits for the streamed reads and copies each frame out of its read).
void BM_Ft601PipelineCpu(benchmark::State& state) {
    LogCapture log;
    for (auto _ : state) {
        PipelineCpu classic, flat, threeD;
        {
            EmulatedPipeline emulated(EmulatedPipeline::Kind::Classic);
            classic = measure(emulated.pipeline());
        }
        {
            EmulatedPipeline emulated(EmulatedPipeline::Kind::Ft601);
            flat = measure(emulated.pipeline());
        }
        {
            EmulatedPipeline emulated(EmulatedPipeline::Kind::Ft601ThreeD);
            threeD = measure(emulated.pipeline());
        }
        report(state, "classic", classic);
        report(state, "ft601", flat);
        report(state, "ft601_3d", threeD);
        state.counters["ft601_device_over_classic"] = flat.device / classic.device;
        state.counters["ft601_3d_device_over_classic"] = threeD.device / classic.device;
    }
}
BENCHMARK(BM_Ft601PipelineCpu)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
} // namespace zandor

int main(int argc, char** argv) {
    if (const std::string error = zandor::EmulatedBoard::runUnderPreload(argv); !error.empty()) {
        std::fprintf(stderr, "usb_bench: %s\n", error.c_str());
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
