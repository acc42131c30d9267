// How late the game sound is heard while listening: from a beep reaching the game input to the
// same beep reaching the default output, through the application's own play-through, against a
// private PulseAudio server (its null sink "game_sink" feeds the input "GameIn"; "out_sink" is the
// default output). Both ends are read by parec at 5 ms latency and dated on arrival. Prints the
// median and the 95th percentile over the beeps, and the CPU the listening costs.
//
//   build/bench/listen_latency [seconds]

#include "PulseServer.h"
#include "UserFolders.h"
#include "base/Log.h"
#include "audio/GameAudio.h"

#include <QCoreApplication>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
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

} // namespace

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 20;
    QCoreApplication application(argc, argv);
    test::isolateUserFolders();
    test::PulseServer pulse;
    if (!pulse.isRunning()) {
        std::fprintf(stderr, "no private sound server: %s\n", pulse.error().c_str());
        return 1;
    }
    LogCapture quiet;
    GameAudio game;
    if (!game.start("GameIn")) {
        std::fprintf(stderr, "cannot open GameIn\n");
        return 1;
    }
    game.setListening(true);
    double cpu = 0;
    std::vector<Clock::time_point> in, out;
    {
        Ear input("GameIn"), output("out_sink.monitor");
        std::this_thread::sleep_for(std::chrono::seconds(1));
        const double cpuStart = processSeconds();
        {
            // A 30 ms beep of 1 kHz at every whole second.
            const test::PulseServer::Playback beeps("game_sink", 1000, 30, seconds + 1);
            std::this_thread::sleep_for(std::chrono::seconds(seconds));
        }
        cpu = processSeconds() - cpuStart;
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        in = input.onsets();
        out = output.onsets();
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
    std::printf("listening delay, input to output, %zu beeps: median %.1f ms, 95th percentile %.1f ms\n",
                delays.size(), delays[delays.size() / 2], delays[delays.size() * 95 / 100]);
    std::printf("CPU of the listening process: %.2f%% of one core (parec and the server apart)\n",
                cpu / seconds * 100);
    return 0;
}
