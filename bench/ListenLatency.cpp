// How late the game sound is heard while listening: from a beep reaching the game input to the
// same beep reaching the default output, through the application's own play-through, against a
// private PulseAudio server (its null sink "game_sink" feeds the input "GameIn"; "out_sink" is the
// default output). Both ends are read by parec at 5 ms latency and dated on arrival. Prints the
// median and the 95th percentile over the beeps, and the CPU the listening costs.
//
// With --board the game sound is the capture board's own (the demo board, beeping with its white
// frame every second): the delay runs from the moment the beep's frame was taken to the beep at
// the output.
//
//   build/bench/listen_latency [seconds] [--board]

#include "PulseServer.h"
#include "UserFolders.h"
#include "base/Log.h"
#include "audio/AudioInput.h"
#include "audio/GameAudio.h"
#include "base/Wakeup.h"
#include "capture/CaptureDevice.h"
#include "capture/ClassicBoard.h"
#include "capture/DemoBoard.h"
#include "capture/RawFrame.h"

#include <QCoreApplication>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <csignal>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

using namespace zandor;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int Rate = test::PulseServer::SampleRate;

double processSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Reads one end as mono 16-bit samples and notes when each beep starts: the first loud sample after
// a tenth of a second of quiet, dated by when its block arrived less the samples after it.
class Ear {
public:
    explicit Ear(const std::string& device) {
        int ends[2];
        if (pipe(ends) != 0) {
            return;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, ends[1], 1);
        posix_spawn_file_actions_addclose(&actions, ends[0]);
        const std::string deviceOption = "--device=" + device;
        const char* arguments[] = {
            "parec", deviceOption.c_str(), "--format=s16le", "--rate=44100", "--channels=1",
            "--raw", "--latency-msec=5",   nullptr};
        if (posix_spawnp(&m_parec, "parec", &actions, nullptr, const_cast<char**>(arguments), environ) != 0) {
            m_parec = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        close(ends[1]);
        m_pipe = fdopen(ends[0], "r");
        m_thread = std::thread([this] { listen(); });
    }
    ~Ear() {
        if (m_parec > 0) {
            kill(m_parec, SIGTERM); // its pipe closes, and the reading ends
            waitpid(m_parec, nullptr, 0);
        }
        m_thread.join();
        if (m_pipe) {
            fclose(m_pipe);
        }
    }
    std::vector<Clock::time_point> onsets() {
        std::scoped_lock lock(m_mutex);
        return m_onsets;
    }

private:
    void listen() {
        int16_t block[220];
        int quiet = 0;
        while (m_pipe) {
            const size_t count = fread(block, sizeof(int16_t), 220, m_pipe);
            const Clock::time_point arrived = Clock::now();
            if (count == 0) {
                return;
            }
            for (size_t i = 0; i < count; ++i) {
                if (std::abs(int(block[i])) > 8000) {
                    if (quiet > Rate / 10) {
                        std::scoped_lock lock(m_mutex);
                        m_onsets.push_back(arrived - std::chrono::microseconds((count - i) * 1000000 / Rate));
                    }
                    quiet = 0;
                } else {
                    ++quiet;
                }
            }
        }
    }

    pid_t m_parec = -1;
    FILE* m_pipe = nullptr;
    std::thread m_thread;
    std::mutex m_mutex;
    std::vector<Clock::time_point> m_onsets;
};

// Notes when each beep of the board's own sound starts, by the frames that bring it: the frame's
// time plus the beep's place among its samples, on the steady clock.
class BoardEar {
public:
    explicit BoardEar(const std::shared_ptr<CaptureDevice>& device)
        : m_device(device), m_observer(device->addObserver(m_wakeup)), m_thread([this] { listen(); }) {}
    ~BoardEar() {
        m_stop = true;
        m_wakeup->signal();
        m_thread.join();
        m_device->removeObserver(m_observer);
    }
    std::vector<Clock::time_point> onsets() {
        std::scoped_lock lock(m_mutex);
        return m_onsets;
    }

private:
    void listen() {
        int64_t quiet = 0;
        while (!m_stop) {
            const CaptureDataPtr frame = m_device->observe(m_observer);
            if (!frame) {
                m_wakeup->wait(std::chrono::milliseconds(50));
                continue;
            }
            const auto values = frame->sound();
            for (size_t i = 0; i + 1 < values.size(); i += 2) {
                if (std::abs(int(values[i])) > 8000) {
                    if (quiet > int64_t(raw::SoundRate / 10)) {
                        const auto taken = frame->wallClock() +
                                           std::chrono::duration_cast<std::chrono::system_clock::duration>(
                                               std::chrono::duration<double>(double(i / 2) / raw::SoundRate));
                        const auto steady = Clock::now() - (std::chrono::system_clock::now() - taken);
                        std::scoped_lock lock(m_mutex);
                        m_onsets.push_back(std::chrono::time_point_cast<Clock::duration>(steady));
                    }
                    quiet = 0;
                } else {
                    ++quiet;
                }
            }
        }
    }

    std::shared_ptr<CaptureDevice> m_device;
    std::shared_ptr<Wakeup> m_wakeup = std::make_shared<Wakeup>();
    ObserverPtr m_observer;
    std::atomic<bool> m_stop{false};
    std::mutex m_mutex;
    std::vector<Clock::time_point> m_onsets;
    std::thread m_thread;
};

} // namespace

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 20;
    const bool fromBoard = argc > 2 && std::string(argv[2]) == "--board";
    QCoreApplication application(argc, argv);
    test::isolateUserFolders();
    test::PulseServer pulse;
    if (!pulse.isRunning()) {
        std::fprintf(stderr, "no private sound server: %s\n", pulse.error().c_str());
        return 1;
    }
    LogCapture quiet;
    std::shared_ptr<CaptureDevice> device;
    GameAudio game;
    if (fromBoard) {
        setenv("ZANDOR_DEMO_FLASH", "1", 1);
        device = CaptureDevice::create(
            std::make_unique<ClassicBoard>(std::make_unique<DemoBoard>(), "Demo board"));
        if (!device->startListening()) {
            std::fprintf(stderr, "cannot start the demo board\n");
            return 1;
        }
        game.setBoard(device);
    }
    if (!game.start(fromBoard ? AudioInput::BoardId : QStringLiteral("GameIn"))) {
        std::fprintf(stderr, "cannot open the game input\n");
        return 1;
    }
    game.setListening(true);
    double cpu = 0;
    std::vector<Clock::time_point> in, out;
    if (fromBoard) {
        BoardEar input(device);
        Ear output("out_sink.monitor");
        std::this_thread::sleep_for(std::chrono::seconds(1));
        const double cpuStart = processSeconds();
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
        cpu = processSeconds() - cpuStart;
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        in = input.onsets();
        out = output.onsets();
    } else {
        Ear input("GameIn"), output("out_sink.monitor");
        std::this_thread::sleep_for(std::chrono::seconds(1));
        const double cpuStart = processSeconds();
        {
            // A 30 ms beep of 1 kHz at every whole second.
            const test::PulseServer::Playback beeps("game_sink", 1000, 30);
            std::this_thread::sleep_for(std::chrono::seconds(seconds));
        }
        cpu = processSeconds() - cpuStart;
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        in = input.onsets();
        out = output.onsets();
    }
    game.stop();
    if (device) {
        device->stopListening();
    }
    std::vector<double> delays;
    for (const auto& heard : in) {
        const auto played = std::find_if(out.begin(), out.end(), [&](Clock::time_point t) {
            return t > heard && t - heard < std::chrono::milliseconds(500);
        });
        if (played != out.end()) {
            delays.push_back(std::chrono::duration<double, std::milli>(*played - heard).count());
        }
    }
    std::sort(delays.begin(), delays.end());
    if (delays.empty()) {
        std::fprintf(stderr, "no beep was heard at both ends (%zu at the input, %zu at the output)\n",
                     in.size(), out.size());
        return 1;
    }
    std::printf("listening delay, %s to output, %zu beeps: median %.1f ms, 95th percentile %.1f ms\n",
                fromBoard ? "board frame" : "input", delays.size(), delays[delays.size() / 2],
                delays[delays.size() * 95 / 100]);
    std::printf("CPU of the listening process: %.2f%% of one core (parec and the server apart)\n",
                cpu / seconds * 100);
    return 0;
}
