#include "PulseServer.h"

#include "Process.h"

#include <gtest/gtest.h>
#include <pulse/pulseaudio.h>

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <utility>
#include <vector>

namespace zandor::test {

namespace {

constexpr double Amplitude = 0.5 * 32767;

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

// Wakes the thread that waits on a threaded mainloop.
void wake(void* loop) {
    pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(loop), 0);
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

bool PulseServer::plug(const std::string& input) {
    // "GameIn" hears game_sink, and is described as "Game Input".
    const std::string name = input.substr(0, input.size() - 2);
    std::string sink = name + "_sink";
    std::transform(sink.begin(), sink.end(), sink.begin(), [](unsigned char c) { return std::tolower(c); });
    return pactl({"load-module", "module-remap-source", "source_name=" + input, "master=" + sink + ".monitor",
                  "source_properties='device.description=\"" + name + " Input\"'"});
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
}

std::string PulseServer::start() {
    const std::string folder = m_folder.path();
    setenv("PULSE_SERVER", ("unix:" + folder + "/native").c_str(), 1);
    m_server = m_folder.start(
        {"pulseaudio", "--daemonize=no", "--exit-idle-time=-1", "--disable-shm=yes", "-n", "--file=/dev/null",
         "--load=module-native-protocol-unix socket=" + folder + "/native auth-anonymous=1",
         "--load=module-null-sink sink_name=game_sink", "--load=module-null-sink sink_name=narrator_sink",
         "--load=module-null-sink sink_name=out_sink"},
        "pulseaudio.log");
    if (!ServerFolder::waitUntil([] { return pactl({"info"}); }, m_server)) {
        return "pulseaudio does not answer: " + m_folder.text("pulseaudio.log");
    }
    for (const char* input : {"GameIn", "NarratorIn"}) {
        if (!plug(input)) {
            return std::string("cannot make the input ") + input;
        }
    }
    if (!pactl({"set-default-sink", "out_sink"}) || !pactl({"set-default-source", "GameIn"})) {
        return "cannot choose the default sink and source";
    }
    // An idle null sink runs up to two seconds ahead of the clock, and a stream started then lags by
    // that much for good; a suspend and resume with a low-latency keeper stream puts it in step.
    for (const std::string sink : {"game_sink", "narrator_sink"}) {
        m_keepers.push_back(startProcess({"pacat", "--playback", "--device=" + sink, "--format=s16le",
                                          "--rate=44100", "--channels=2", "--latency-msec=10"},
                                         -1));
        const auto inStep = [&] {
            const long latency = sinkLatencyUs(sink);
            if (latency >= 0 && latency < 20000) {
                return true;
            }
            pactl({"suspend-sink", sink, "1"});
            pactl({"suspend-sink", sink, "0"});
            return false;
        };
        if (m_keepers.back() < 0 || !ServerFolder::waitUntil(inStep, m_server)) {
            return sink + " does not play in step with the clock";
        }
    }
    return {};
}

PulseServer::Playback::Playback(const std::string& sink, double frequencyHz, int beepMs)
    : m_loop(pa_threaded_mainloop_new()) {
    pa_threaded_mainloop_start(static_cast<pa_threaded_mainloop*>(m_loop));
    m_thread = std::thread([=, this] { play(sink, frequencyHz, beepMs); });
}

PulseServer::Playback::~Playback() {
    auto* loop = static_cast<pa_threaded_mainloop*>(m_loop);
    m_stop = true;
    // The player may be waiting for room in its stream.
    pa_threaded_mainloop_lock(loop);
    wake(loop);
    pa_threaded_mainloop_unlock(loop);
    m_thread.join();
    pa_threaded_mainloop_stop(loop);
    pa_threaded_mainloop_free(loop);
}

void PulseServer::Playback::play(const std::string& sink, double frequencyHz, int beepMs) {
    const pa_sample_spec sampleFormat{PA_SAMPLE_S16LE, SampleRate, 2};
    const size_t frameBytes = pa_frame_size(&sampleFormat);
    constexpr size_t ChunkFrames = SampleRate * 5 / 1000;
    auto* loop = static_cast<pa_threaded_mainloop*>(m_loop);
    pa_threaded_mainloop_lock(loop);
    pa_context* context = pa_context_new(pa_threaded_mainloop_get_api(loop), "zandor-tests");
    pa_stream* stream = nullptr;
    pa_context_set_state_callback(
        context, +[](pa_context*, void* waiting) { wake(waiting); }, loop);
    const auto wallSeconds = [] {
        return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    };
    bool ready = pa_context_connect(context, nullptr, PA_CONTEXT_NOFLAGS, nullptr) >= 0;
    while (ready && pa_context_get_state(context) != PA_CONTEXT_READY) {
        ready = PA_CONTEXT_IS_GOOD(pa_context_get_state(context));
        if (ready) {
            pa_threaded_mainloop_wait(loop);
        }
    }
    if (ready) {
        stream = pa_stream_new(context, "tone", &sampleFormat, nullptr);
        pa_stream_set_state_callback(
            stream, +[](pa_stream*, void* waiting) { wake(waiting); }, loop);
        pa_stream_set_write_callback(
            stream, +[](pa_stream*, size_t, void* waiting) { wake(waiting); }, loop);
        // A short buffer at the server, so that the writes keep pace with the clock.
        pa_buffer_attr buffer{};
        buffer.maxlength = buffer.minreq = buffer.fragsize = static_cast<uint32_t>(-1);
        buffer.prebuf = 0; // plays from the first write, and on after a write that came late
        buffer.tlength = static_cast<uint32_t>(pa_usec_to_bytes(10000, &sampleFormat));
        ready = pa_stream_connect_playback(stream, sink.c_str(), &buffer,
                                           static_cast<pa_stream_flags_t>(PA_STREAM_INTERPOLATE_TIMING |
                                                                          PA_STREAM_AUTO_TIMING_UPDATE |
                                                                          PA_STREAM_ADJUST_LATENCY),
                                           nullptr, nullptr) >= 0;
        while (ready && pa_stream_get_state(stream) != PA_STREAM_READY) {
            ready = PA_STREAM_IS_GOOD(pa_stream_get_state(stream));
            if (ready) {
                pa_threaded_mainloop_wait(loop);
            }
        }
    }
    EXPECT_TRUE(ready) << "cannot play into " << sink << ": " << pa_strerror(pa_context_errno(context));
    std::vector<int16_t> chunk(2 * ChunkFrames);
    double phase = 0;
    while (ready && !m_stop) {
        if (pa_stream_writable_size(stream) < chunk.size() * sizeof(int16_t)) {
            pa_threaded_mainloop_wait(loop);
            continue;
        }
        // When the sink takes the first sample of this chunk, which is when its monitor, and so the
        // input, hears it: the stream's read position moves with the clock from the last timing
        // report on.
        double heard = wallSeconds();
        if (const pa_timing_info* timing = pa_stream_get_timing_info(stream)) {
            const double reported =
                static_cast<double>(timing->timestamp.tv_sec) + timing->timestamp.tv_usec / 1e6;
            heard = std::max(heard, reported + static_cast<double>(timing->write_index - timing->read_index) /
                                                   static_cast<double>(frameBytes * SampleRate));
        }
        for (size_t i = 0; i < ChunkFrames; ++i) {
            const double at = heard + static_cast<double>(i) / SampleRate;
            // A beep starts with its second; a tone goes on where the last chunk left it.
            const double into = at - std::floor(at);
            const double value =
                beepMs > 0 ? (into < beepMs / 1000.0 ? std::sin(2 * M_PI * frequencyHz * into) : 0.0)
                           : std::sin(phase);
            phase = std::fmod(phase + 2 * M_PI * frequencyHz / SampleRate, 2 * M_PI);
            chunk[2 * i] = chunk[2 * i + 1] = static_cast<int16_t>(std::lround(Amplitude * value));
        }
        if (pa_stream_write(stream, chunk.data(), chunk.size() * sizeof(int16_t), nullptr, 0,
                            PA_SEEK_RELATIVE) < 0) {
            break;
        }
    }
    if (stream) {
        pa_stream_disconnect(stream);
        pa_stream_unref(stream);
    }
    pa_context_disconnect(context);
    pa_context_unref(context);
    pa_threaded_mainloop_unlock(loop);
}

} // namespace zandor::test
