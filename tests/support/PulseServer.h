#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace zandor::test {

// A private PulseAudio server for whole-program tests. It has three null sinks, "game_sink",
// "narrator_sink" and "out_sink" (the default output, where play-through goes), and two inputs,
// "GameIn" and "NarratorIn", remapped from the monitors of the first two sinks: what is played into
// game_sink is what a program recording GameIn hears. The server runs in a temporary folder of its
// own; PULSE_SERVER points at it for every process started while it lives. A sound plays until
// its handle goes, which stops and reaps its pacat; the server's destructor stops and reaps the
// server and its helpers and removes the folder.
class PulseServer {
public:
    static constexpr int SampleRate = 44100;

    // A sound playing into a sink in the background: a pacat process fed by a thread that writes
    // the samples in 5 ms pieces as the wall clock reaches them, or a little ahead of it.
    class Playback {
    public:
        // Writes `frames` stereo frames starting at frame `first` of the sound into `samples`;
        // `due` is the wall-clock time (seconds since the epoch) at which frame `first` is due at
        // pacat.
        using Generator = std::function<void(int64_t first, double due, int frames, int16_t* samples)>;

        ~Playback();
        Playback(const Playback&) = delete;
        Playback& operator=(const Playback&) = delete;

        // Ends the sound now; what pacat still holds plays out. Waits for pacat to end.
        void stop();

    private:
        friend class PulseServer;
        Playback() = default;
        void run(Generator generator, int64_t totalFrames, double aheadSeconds);

        pid_t m_pacat = -1;
        int m_pipe = -1; // pacat's standard input; written and closed by the thread only
        std::atomic<bool> m_stopping{false};
        std::thread m_thread;
    };

    PulseServer();
    ~PulseServer();
    PulseServer(const PulseServer&) = delete;
    PulseServer& operator=(const PulseServer&) = delete;

    // True once the server answers and its sinks and inputs exist; otherwise error() says why.
    bool isRunning() const { return m_running; }
    const std::string& error() const { return m_error; }
    // The value PULSE_SERVER has while the server lives: "unix:<folder>/native".
    const std::string& address() const { return m_address; }

    // A sine tone of `frequencyHz` at half of full scale, for `seconds`, into `sink`.
    std::unique_ptr<Playback> playTone(const std::string& sink, double frequencyHz, double seconds);
    // Silence with a beep of `frequencyHz` and `beepMs` at every whole second of the wall clock,
    // written ahead of the second by pacat's usual latency (about 8 ms) so that it is heard at it.
    std::unique_ptr<Playback> playBeeps(const std::string& sink, double frequencyHz, int beepMs,
                                        double seconds);
    // Any sound. Each piece is written `aheadSeconds` before its time: a sound that need not be
    // on time can be written ahead, so that a writer held up for a moment leaves no gap in it.
    std::unique_ptr<Playback> play(const std::string& sink, Playback::Generator generator, double seconds,
                                   double aheadSeconds = 0);

    // Runs pactl against this server; its output, or nothing when it failed.
    std::optional<std::string> pactl(const std::vector<std::string>& arguments) const;

private:
    bool start();
    bool waitUntilAnswering();
    // Makes the sink play in step with the clock at once; see the implementation.
    bool settle(const std::string& sink);
    std::optional<long> sinkLatencyUs(const std::string& sink) const;
    // Starts a program with standard input from `input` (a descriptor) or else from `inputPath`,
    // its output appended to `output` (or dropped when empty), and this process's environment
    // unless one is given.
    pid_t spawn(const std::vector<std::string>& arguments, int input, const char* inputPath,
                const std::string& output, char* const* environment = nullptr) const;
    static void endProcess(pid_t& pid);

    std::string m_folder;
    std::string m_address;
    std::optional<std::string> m_previousAddress;
    pid_t m_server = -1;
    std::vector<pid_t> m_keepers; // silent streams that keep the sinks in step with the clock
    bool m_running = false;
    std::string m_error;
};

} // namespace zandor::test
