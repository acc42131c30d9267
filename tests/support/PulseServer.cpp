#include "PulseServer.h"

#include "Process.h"

#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

namespace zandor::test {

namespace {

constexpr double Amplitude = 0.5 * 32767;
// How long a sample written to pacat at --latency-msec=10 waits before the sink plays it, as
// `pacat --verbose` reports it against these null sinks: 7.5 to 10 ms.
constexpr double PacatLatencySeconds = 0.008;
// How long pacat takes to start and connect its stream.
constexpr double PacatStartSeconds = 0.02;

bool pactl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "pactl");
    return runProcess(arguments, std::chrono::seconds(10)).exitCode == 0;
}

// How far ahead of the clock the sink plays, in microseconds; -1 when unknown.
long sinkLatencyUs(const std::string& sink) {
    const std::string listing = runProcess({"pactl", "list", "sinks"}, std::chrono::seconds(10)).out;
    const size_t name = listing.find("Name: " + sink + "\n");
    const size_t latency = name == std::string::npos ? name : listing.find("Latency: ", name);
    return latency == std::string::npos ? -1 : std::strtol(listing.c_str() + latency + 9, nullptr, 10);
}

} // namespace

bool PulseServer::unplug(const std::string& input) {
    // The input is a module of its own: its line in the list names it as source_name=<input>.
    for (const std::string& line :
         splitLines(runProcess({"pactl", "list", "short", "modules"}, std::chrono::seconds(10)).out)) {
        if (line.find("source_name=" + input + " ") != std::string::npos) {
            return pactl({"unload-module", line.substr(0, line.find('\t'))});
        }
    }
    return false;
}

PulseServer& PulseServer::forThisProgram() {
    static PulseServer server;
    return server;
}

PulseServer::~PulseServer() {
    for (pid_t keeper : m_keepers) {
        endProcess(keeper);
    }
    endProcess(m_server);
    unsetenv("PULSE_SERVER");
    if (!m_folder.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }
}

std::string PulseServer::start() {
    char folder[] = "/tmp/zandor-pulse-XXXXXX"; // short: the socket path must fit 108 bytes
    if (!mkdtemp(folder)) {
        return "mkdtemp failed";
    }
    m_folder = folder;
    setenv("PULSE_SERVER", ("unix:" + m_folder + "/native").c_str(), 1);
    // The server keeps its runtime files and looks for its cookie in the private folder, and goes
    // with the test program even when that is killed before it can end the server.
    m_server = startProcess(
        {"env", "-i", "PATH=" + std::string(std::getenv("PATH") ? std::getenv("PATH") : ""),
         "HOME=" + m_folder, "XDG_RUNTIME_DIR=" + m_folder, "setpriv", "--pdeathsig=TERM", "pulseaudio",
         "--daemonize=no", "--exit-idle-time=-1", "--disable-shm=yes", "-n", "--file=/dev/null",
         "--load=module-native-protocol-unix socket=" + m_folder + "/native auth-anonymous=1",
         "--load=module-null-sink sink_name=game_sink", "--load=module-null-sink sink_name=narrator_sink",
         "--load=module-null-sink sink_name=out_sink"},
        -1, m_folder + "/pulseaudio.log");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    // Waiting for the server's end (20 ms) is the pause between looks.
    const auto serverEndsOrTimesOut = [&] {
        if (m_server > 0 && reapWithin(m_server, std::chrono::milliseconds(20))) {
            m_server = -1;
        }
        return m_server < 0 || std::chrono::steady_clock::now() > deadline;
    };
    while (!pactl({"info"})) {
        if (serverEndsOrTimesOut()) {
            std::stringstream log;
            log << std::ifstream(m_folder + "/pulseaudio.log").rdbuf();
            return "pulseaudio does not answer: " + log.str();
        }
    }
    for (const auto& [input, sink] :
         {std::pair{"Game", "game_sink"}, std::pair{"Narrator", "narrator_sink"}}) {
        if (!pactl({"load-module", "module-remap-source", std::string("source_name=") + input + "In",
                    std::string("master=") + sink + ".monitor",
                    std::string("source_properties='device.description=\"") + input + " Input\"'"})) {
            return std::string("cannot make the input ") + input + "In";
        }
    }
    if (!pactl({"set-default-sink", "out_sink"}) || !pactl({"set-default-source", "GameIn"})) {
        return "cannot choose the default sink and source";
    }
    // An idle null sink runs up to two seconds ahead of the clock, and a stream started then lags by
    // that much for good; a suspend and resume with a low-latency keeper stream puts it in step.
    for (const char* sink : {"game_sink", "narrator_sink"}) {
        m_keepers.push_back(
            startProcess({"pacat", "--playback", std::string("--device=") + sink, "--format=s16le",
                          "--rate=44100", "--channels=2", "--latency-msec=10"},
                         -1));
        for (long latency = sinkLatencyUs(sink); latency < 0 || latency >= 20000;
             latency = sinkLatencyUs(sink)) {
            if (m_keepers.back() < 0 || serverEndsOrTimesOut()) {
                return std::string(sink) + " does not play in step with the clock";
            }
            pactl({"suspend-sink", sink, "1"});
            pactl({"suspend-sink", sink, "0"});
        }
    }
    return {};
}

PulseServer::Playback::Playback(const std::string& sink, double frequencyHz, int beepMs, double seconds) {
    char file[] = "/tmp/zandor-playback-XXXXXX";
    const int fd = mkstemp(file);
    if (fd < 0) {
        return;
    }
    m_file = file;
    // Where the first sample is heard on the wall clock: once pacat has started and its stream's
    // latency has passed.
    const double start =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count() +
        PacatStartSeconds + PacatLatencySeconds;
    std::vector<int16_t> samples(2 * static_cast<size_t>(std::llround(seconds * SampleRate)));
    for (size_t i = 0; i < samples.size() / 2; ++i) {
        double t = static_cast<double>(i) / SampleRate;
        if (beepMs > 0) { // the time into the wall clock's second at which the sample is heard
            t = start + t - std::floor(start + t);
        }
        samples[2 * i] = samples[2 * i + 1] =
            beepMs > 0 && t >= beepMs / 1000.0
                ? int16_t{0}
                : static_cast<int16_t>(std::lround(Amplitude * std::sin(2 * M_PI * frequencyHz * t)));
    }
    const auto bytes = static_cast<ssize_t>(samples.size() * sizeof(int16_t));
    const bool written = write(fd, samples.data(), static_cast<size_t>(bytes)) == bytes;
    close(fd);
    if (written) {
        m_pacat = startProcess({"pacat", "--playback", "--device=" + sink, "--format=s16le", "--rate=44100",
                                "--channels=2", "--latency-msec=10", m_file});
    }
}

PulseServer::Playback::~Playback() {
    endProcess(m_pacat);
    if (!m_file.empty()) {
        unlink(m_file.c_str());
    }
}

} // namespace zandor::test
