#pragma once

// What the capture benchmarks share: a replay file of demo frames, a listening pipeline with one
// consumer of both screens, processor time by thread, and the plain-copy floor that figures are
// compared with.

#include "base/Worker.h"
#include "base/Wakeup.h"
#include "capture/Board.h"
#include "capture/CaptureDevice.h"
#include "capture/CaptureScreen.h"
#include "capture/DemoBoard.h"
#include "capture/RawFrame.h"
#include "capture/ReplayBoard.h"
#include "capture/UsbBoard.h"

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

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

namespace zandor::bench {

using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

constexpr std::chrono::nanoseconds Unpaced{0};
constexpr uint64_t ReplayFrames = 60;
// Frames published in the first moments of a run meet threads that are still starting; they are
// left out of every figure.
constexpr std::chrono::milliseconds WarmUp{250};

[[noreturn]] inline void fail(const std::string& reason) {
    std::fprintf(stderr, "benchmark: %s\n", reason.c_str());
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

struct ThreadTime {
    std::string name;
    bool main; // the process's first thread
    double seconds;
};

// Processor time of each thread of this process, by thread id, from the scheduler's own account.
inline std::map<long, ThreadTime> threadTimes() {
    std::map<long, ThreadTime> times;
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", error)) {
        std::ifstream commFile(task.path() / "comm");
        std::ifstream schedstat(task.path() / "schedstat");
        std::string name;
        double runNanoseconds = 0;
        if (std::getline(commFile, name) && schedstat >> runNanoseconds) {
            const long id = std::stol(task.path().filename().string());
            times[id] = {name, id == static_cast<long>(getpid()), runNanoseconds * 1e-9};
        }
    }
    return times;
}

// The same summed by thread name.
inline std::map<std::string, double> threadCpuSeconds() {
    std::map<std::string, double> seconds;
    for (const auto& [id, time] : threadTimes()) {
        seconds[time.name] += time.seconds;
    }
    return seconds;
}

inline double cpuSeconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// A listening device on a board (the replay file unless another is given), with one consumer
// subscribed to both screens.
class Pipeline {
public:
    static std::unique_ptr<UsbBoard> replayBoard() {
        auto board = ReplayBoard::open(ReplayFile::path());
        if (!board) {
            fail(board.error().logLine());
        }
        return std::move(*board);
    }

    explicit Pipeline(std::chrono::nanoseconds framePeriod, std::unique_ptr<UsbBoard> board = replayBoard())
        : Pipeline(framePeriod, CaptureDevice::create(std::move(board))) {}
    Pipeline(std::chrono::nanoseconds framePeriod, std::unique_ptr<Board> board)
        : Pipeline(framePeriod, CaptureDevice::create(std::move(board))) {}
    Pipeline(std::chrono::nanoseconds framePeriod, std::shared_ptr<CaptureDevice> device)
        : m_device(std::move(device)) {
        m_device->setFramePeriod(framePeriod);
        for (unsigned i = 0; i < 2; ++i) {
            m_observers[i] = m_device->screen(i)->addObserver(m_wakeup);
        }
        if (!m_device->startListening()) {
            fail("the device did not start");
        }
        m_start = m_device->startTime();
    }

    ~Pipeline() {
        m_device->stopListening();
        if (Worker::running() != 0) {
            fail("pipeline threads still running after stopping");
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
inline double percentile(const std::vector<double>& sorted, double fraction) {
    if (sorted.empty()) {
        return 0;
    }
    auto rank = static_cast<size_t>(std::ceil(fraction * static_cast<double>(sorted.size())));
    return sorted[std::clamp<size_t>(rank, 1, sorted.size()) - 1];
}

// The floor for the pipeline's figure: one thread copying the bytes the pipeline moves per frame
// (the raw frame, then each screen's share of it) 60 times a second, paced like the device.
// Returns its processor time in percent of one core.
inline double memcpyAt60FpsPercent(std::chrono::seconds window = 5s) {
    std::vector<uint8_t> board(raw::FrameBytes), frame(raw::FrameBytes);
    std::vector<uint8_t> top(raw::TopWidth * raw::TopHeight * 3),
        bottom(raw::BottomWidth * raw::BottomHeight * 3);
    for (size_t i = 0; i < board.size(); ++i) {
        board[i] = static_cast<uint8_t>(i * 7);
    }
    const auto wallStart = SteadyClock::now();
    const double cpuStart = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
    for (auto pass = wallStart; pass < wallStart + window; pass += CaptureDevice::DefaultFramePeriod) {
        std::memcpy(frame.data(), board.data(), frame.size());
        std::memcpy(top.data(), frame.data() + raw::TopOffset, top.size());
        std::memcpy(bottom.data(), frame.data() + raw::BottomOffset, bottom.size());
        benchmark::ClobberMemory();
        std::this_thread::sleep_until(pass + CaptureDevice::DefaultFramePeriod);
    }
    const double cpu = cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - cpuStart;
    return 100 * cpu / std::chrono::duration<double>(SteadyClock::now() - wallStart).count();
}

} // namespace zandor::bench
