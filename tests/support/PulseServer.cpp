#include "PulseServer.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <tuple>

extern char** environ;

namespace zandor::test {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int ChunkFrames = PulseServer::SampleRate / 200; // 5 ms
constexpr double Amplitude = 0.5 * 32767;
// How long a sample written to pacat at --latency-msec=10 waits before the sink plays it, as
// `pacat --verbose` reports it against these null sinks: 7.5 to 10 ms.
constexpr double PacatLatencySeconds = 0.008;
// A sink in step with the clock plays at most this far ahead of it.
constexpr long SettledLatencyUs = 20000;

double wallSeconds() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::string programPath(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::stringstream folders(path ? path : "/usr/bin:/bin");
    std::string folder;
    while (std::getline(folders, folder, ':')) {
        const std::string candidate = folder + "/" + name;
        if (!folder.empty() && access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return name;
}

// Waits up to `timeout` for the process to end and reaps it. False when it still runs.
bool reapWithin(pid_t pid, std::chrono::milliseconds timeout) {
    // A pidfd becomes readable when the process ends: a real wait, not a polling loop.
    const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (pidfd >= 0) {
        pollfd fd{pidfd, POLLIN, 0};
        poll(&fd, 1, static_cast<int>(timeout.count()));
        close(pidfd);
    }
    int status = 0;
    pid_t result;
    do {
        result = waitpid(pid, &status, WNOHANG);
    } while (result < 0 && errno == EINTR);
    return result == pid || (result < 0 && errno == ECHILD);
}

std::string tail(const std::string& path) {
    std::ifstream file(path);
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    return text.size() > 600 ? text.substr(text.size() - 600) : text;
}

} // namespace

PulseServer::PulseServer() {
    m_running = start();
}

PulseServer::~PulseServer() {
    for (pid_t& keeper : m_keepers) {
        endProcess(keeper);
    }
    endProcess(m_server);
    if (m_previousAddress) {
        setenv("PULSE_SERVER", m_previousAddress->c_str(), 1);
    } else if (!m_address.empty()) {
        unsetenv("PULSE_SERVER");
    }
    if (!m_folder.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }
}

bool PulseServer::start() {
    char folder[] = "/tmp/zandor-pulse-XXXXXX"; // short: the socket path must fit 108 bytes
    if (!mkdtemp(folder)) {
        m_error = std::string("mkdtemp: ") + std::strerror(errno);
        return false;
    }
    m_folder = folder;
    m_address = "unix:" + m_folder + "/native";
    if (const char* previous = std::getenv("PULSE_SERVER")) {
        m_previousAddress = previous;
    }
    setenv("PULSE_SERVER", m_address.c_str(), 1);

    // The server keeps its runtime files and looks for its cookie in the private folder.
    std::vector<std::string> environment = {"HOME=" + m_folder, "XDG_RUNTIME_DIR=" + m_folder,
                                            "PATH=" +
                                                std::string(std::getenv("PATH") ? std::getenv("PATH") : "")};
    std::vector<char*> envp;
    for (auto& entry : environment) {
        envp.push_back(entry.data());
    }
    envp.push_back(nullptr);
    m_server = spawn(
        {programPath("pulseaudio"), "--daemonize=no", "--exit-idle-time=-1", "--disable-shm=yes", "-n", "-F",
         "/dev/null", "--load=module-native-protocol-unix socket=" + m_folder + "/native auth-anonymous=1",
         "--load=module-null-sink sink_name=game_sink", "--load=module-null-sink sink_name=narrator_sink",
         "--load=module-null-sink sink_name=out_sink"},
        -1, nullptr, m_folder + "/pulseaudio.log", envp.data());
    if (m_server < 0) {
        m_error = "cannot start pulseaudio";
        return false;
    }
    if (!waitUntilAnswering()) {
        return false;
    }
    for (const auto& [input, sink, description] :
         {std::tuple{"GameIn", "game_sink", "Game Input"},
          std::tuple{"NarratorIn", "narrator_sink", "Narrator Input"}}) {
        if (!pactl({"load-module", "module-remap-source", std::string("source_name=") + input,
                    std::string("master=") + sink + ".monitor",
                    std::string("source_properties='device.description=\"") + description + "\"'"})) {
            m_error = std::string("cannot make the input ") + input;
            return false;
        }
    }
    if (!pactl({"set-default-sink", "out_sink"}) || !pactl({"set-default-source", "GameIn"})) {
        m_error = "cannot choose the default sink and source";
        return false;
    }
    for (const char* sink : {"game_sink", "narrator_sink"}) {
        pid_t keeper = spawn({programPath("pacat"), "--playback", std::string("--device=") + sink,
                              "--format=s16le", "--rate=44100", "--channels=2", "--latency-msec=10"},
                             -1, "/dev/zero", "");
        if (keeper < 0) {
            m_error = "cannot start pacat";
            return false;
        }
        m_keepers.push_back(keeper);
        if (!settle(sink)) {
            m_error = std::string(sink) + " does not play in step with the clock";
            return false;
        }
    }
    return true;
}

bool PulseServer::waitUntilAnswering() {
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    for (;;) {
        if (pactl({"info"})) {
            return true;
        }
        if (reapWithin(m_server, std::chrono::milliseconds(20))) {
            m_server = -1;
            m_error = "pulseaudio ended at start: " + tail(m_folder + "/pulseaudio.log");
            return false;
        }
        if (Clock::now() > deadline) {
            m_error = "pulseaudio does not answer: " + tail(m_folder + "/pulseaudio.log");
            return false;
        }
    }
}

// A null sink with no stream plays up to two seconds ahead of the clock and then takes nothing
// until the clock has caught up; a stream started meanwhile would lag by that much for its whole
// life. Suspending and resuming the sink while a low-latency stream (the keeper) is connected
// puts it back in step at once.
bool PulseServer::settle(const std::string& sink) {
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    for (;;) {
        const std::optional<long> latency = sinkLatencyUs(sink);
        if (latency && *latency < SettledLatencyUs) {
            return true;
        }
        if (Clock::now() > deadline) {
            return false;
        }
        pactl({"suspend-sink", sink, "1"});
        pactl({"suspend-sink", sink, "0"});
        if (reapWithin(m_server, std::chrono::milliseconds(20))) { // the pause before looking again
            m_server = -1;
            return false;
        }
    }
}

std::optional<long> PulseServer::sinkLatencyUs(const std::string& sink) const {
    const std::optional<std::string> listing = pactl({"list", "sinks"});
    if (!listing) {
        return std::nullopt;
    }
    const size_t name = listing->find("Name: " + sink + "\n");
    const size_t latency = name == std::string::npos ? name : listing->find("Latency: ", name);
    if (latency == std::string::npos) {
        return std::nullopt;
    }
    return std::strtol(listing->c_str() + latency + 9, nullptr, 10);
}

std::optional<std::string> PulseServer::pactl(const std::vector<std::string>& arguments) const {
    std::vector<std::string> command = {programPath("pactl")};
    command.insert(command.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& argument : command) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) {
        return std::nullopt;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    std::string text;
    if (spawned == 0) {
        char buffer[4096];
        ssize_t n;
        while ((n = read(out[0], buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR)) {
            text.append(buffer, static_cast<size_t>(std::max<ssize_t>(n, 0)));
        }
    }
    close(out[0]);
    if (spawned != 0) {
        return std::nullopt;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return std::nullopt;
    }
    return text;
}

pid_t PulseServer::spawn(const std::vector<std::string>& arguments, int input, const char* inputPath,
                         const std::string& output, char* const* environment) const {
    std::vector<std::string> command = arguments;
    std::vector<char*> argv;
    for (auto& argument : command) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (input >= 0) {
        posix_spawn_file_actions_adddup2(&actions, input, 0);
    } else {
        posix_spawn_file_actions_addopen(&actions, 0, inputPath ? inputPath : "/dev/null", O_RDONLY, 0);
    }
    posix_spawn_file_actions_addopen(&actions, 1, output.empty() ? "/dev/null" : output.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    pid_t pid = -1;
    const int spawned =
        posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environment ? environment : environ);
    posix_spawn_file_actions_destroy(&actions);
    return spawned == 0 ? pid : -1;
}

void PulseServer::endProcess(pid_t& pid) {
    if (pid <= 0) {
        return;
    }
    kill(pid, SIGTERM);
    if (!reapWithin(pid, std::chrono::seconds(5))) {
        kill(pid, SIGKILL);
        while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    pid = -1;
}

std::unique_ptr<PulseServer::Playback> PulseServer::play(const std::string& sink,
                                                         Playback::Generator generator, double seconds,
                                                         double aheadSeconds) {
    if (!m_running) {
        return nullptr;
    }
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        return nullptr;
    }
    std::unique_ptr<Playback> playback(new Playback);
    playback->m_pacat = spawn({programPath("pacat"), "--playback", "--device=" + sink, "--format=s16le",
                               "--rate=44100", "--channels=2", "--latency-msec=10"},
                              fds[0], nullptr, m_folder + "/pacat.log");
    close(fds[0]);
    if (playback->m_pacat < 0) {
        close(fds[1]);
        return nullptr;
    }
    // Never blocks: should pacat stall, a piece is left out rather than the thread stuck.
    fcntl(fds[1], F_SETFL, O_NONBLOCK);
    playback->m_pipe = fds[1];
    const auto totalFrames = static_cast<int64_t>(std::llround(seconds * SampleRate));
    playback->m_thread = std::thread([raw = playback.get(), generator = std::move(generator), totalFrames,
                                      aheadSeconds] { raw->run(generator, totalFrames, aheadSeconds); });
    return playback;
}

std::unique_ptr<PulseServer::Playback> PulseServer::playTone(const std::string& sink, double frequencyHz,
                                                             double seconds) {
    return play(
        sink,
        [frequencyHz](int64_t first, double, int frames, int16_t* samples) {
            for (int i = 0; i < frames; ++i) {
                const double t = static_cast<double>(first + i) / SampleRate;
                const auto value =
                    static_cast<int16_t>(std::lround(Amplitude * std::sin(2 * M_PI * frequencyHz * t)));
                samples[2 * i] = samples[2 * i + 1] = value;
            }
        },
        seconds, 0.2);
}

std::unique_ptr<PulseServer::Playback> PulseServer::playBeeps(const std::string& sink, double frequencyHz,
                                                              int beepMs, double seconds) {
    return play(
        sink,
        [frequencyHz, beepMs](int64_t, double due, int frames, int16_t* samples) {
            for (int i = 0; i < frames; ++i) {
                // The moment this sample is heard: handed to pacat, plus pacat's latency.
                const double heard = due + static_cast<double>(i) / SampleRate + PacatLatencySeconds;
                const double intoSecond = heard - std::floor(heard);
                const bool beeping = intoSecond < beepMs / 1000.0;
                const auto value = beeping ? static_cast<int16_t>(std::lround(
                                                 Amplitude * std::sin(2 * M_PI * frequencyHz * intoSecond)))
                                           : int16_t{0};
                samples[2 * i] = samples[2 * i + 1] = value;
            }
        },
        seconds);
}

PulseServer::Playback::~Playback() {
    stop();
}

void PulseServer::Playback::run(Generator generator, int64_t totalFrames, double aheadSeconds) {
    // A write to a pacat that has gone raises SIGPIPE in the writing thread; with the signal blocked
    // here the write fails with EPIPE instead and the test program lives on.
    sigset_t pipeSignal;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSignal, nullptr);

    const double start = wallSeconds();
    const auto startTick = Clock::now();
    const auto ahead = std::chrono::microseconds(std::llround(aheadSeconds * 1e6));
    std::vector<int16_t> samples(ChunkFrames * 2);
    for (int64_t first = 0; first < totalFrames && !m_stopping; first += ChunkFrames) {
        const int frames = static_cast<int>(std::min<int64_t>(ChunkFrames, totalFrames - first));
        generator(first, start + static_cast<double>(first) / SampleRate, frames, samples.data());
        if (write(m_pipe, samples.data(), static_cast<size_t>(frames) * 4) < 0 && errno == EPIPE) {
            break;
        }
        // Paced by the clock: each piece goes to pacat when it is due (less the lead), so no more
        // than the lead queues up in the pipe, and without a lead a sample is heard pacat's
        // latency after its time.
        std::this_thread::sleep_until(startTick - ahead +
                                      std::chrono::microseconds((first + frames) * 1000000 / SampleRate));
    }
    close(m_pipe); // pacat plays what it holds and ends
    m_pipe = -1;
}

void PulseServer::Playback::stop() {
    m_stopping = true;
    if (m_thread.joinable()) {
        m_thread.join();
    }
    if (m_pacat > 0 && !reapWithin(m_pacat, std::chrono::seconds(2))) {
        endProcess(m_pacat);
    }
    m_pacat = -1;
}

} // namespace zandor::test
