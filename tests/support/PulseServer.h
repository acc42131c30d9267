#pragma once

#include "Process.h"

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace zandor::test {

// A private PulseAudio server for whole-program tests, in a temporary folder of its own; PULSE_SERVER
// points at it while it lives. It has three null sinks, "game_sink", "narrator_sink" and "out_sink"
// (the default output), and two inputs, "GameIn" and "NarratorIn", remapped from the monitors of
// the first two sinks: what is played into game_sink is what a program recording GameIn hears.
class PulseServer {
public:
    static constexpr int SampleRate = 44100;

    // A sine of `frequencyHz` at half of full scale played into a sink until the handle goes (never
    // for a fixed time: a loaded machine can stretch a test well past any length chosen for it): all
    // along, or with `beepMs` as a beep heard at every whole second of the wall clock. The samples are made
    // as they are written, 5 ms at a time, each placed by when the sound server says it will play it: a
    // player that starts late or falls behind on a busy machine leaves a gap, never a beep off its second.
    class Playback {
    public:
        Playback(const std::string& sink, double frequencyHz, int beepMs);
        ~Playback();
        Playback(const Playback&) = delete;
        Playback& operator=(const Playback&) = delete;

    private:
        void play(const std::string& sink, double frequencyHz, int beepMs);

        std::atomic<bool> m_stop{false};
        void* m_loop; // the player's pa_threaded_mainloop, running from construction to destruction
        std::thread m_thread;
    };

    PulseServer() : m_error(start()) {}
    // One server for the whole test program, for tests whose own process records or plays through
    // Qt Multimedia: Qt connects to the first server it meets and keeps that connection, so a
    // second server in the same program goes unheard. Started on first use, ended at exit.
    static PulseServer& forThisProgram();
    ~PulseServer();
    PulseServer(const PulseServer&) = delete;
    PulseServer& operator=(const PulseServer&) = delete;

    // True once the server answers and its sinks and inputs exist; otherwise error() says why.
    bool isRunning() const { return m_error.empty(); }
    const std::string& error() const { return m_error; }
    // Takes an input ("GameIn") away, as if its device were unplugged; false when it was not there.
    static bool unplug(const std::string& input);
    // Makes the input "GameIn" or "NarratorIn" (again), fed by what plays on its sink.
    static bool plug(const std::string& input);

private:
    std::string start();

    ServerFolder m_folder{"pulse"};
    pid_t m_server = -1;
    std::vector<pid_t> m_keepers; // silent streams that keep the sinks in step with the clock
    std::string m_error;          // set last, by start()
};

} // namespace zandor::test
