#pragma once

#include <QString>

#include <functional>
#include <memory>
#include <mutex>

namespace zandor {

class AudioInput;
class CaptureDevice;

// The "Game" input kept open while the picture plays, on the audio thread: listened to through
// the default output when the user wants, and shared by the recordings' game track and the replay
// buffer, so that the sound is heard once and a recording's sound starts with its first frame. Its
// methods may be called from any thread.
class GameAudio {
public:
    GameAudio();
    ~GameAudio();
    GameAudio(const GameAudio&) = delete;
    GameAudio& operator=(const GameAudio&) = delete;

    // The capture board whose own sound the input AudioInput::BoardId is.
    void setBoard(std::shared_ptr<CaptureDevice> device);
    // Opens and starts the input with that identifier ("None" or empty: none); the same input
    // again changes nothing. False, logged, when the input cannot be used.
    bool start(const QString& deviceId);
    void stop();
    // The running input, or null.
    std::shared_ptr<AudioInput> input();

    // Plays the input through while on; 0 to 100.
    void setListening(bool listening);
    void setVolume(int percent);
    // Called on the input's thread, once, when the input goes away while running.
    void setLostHandler(std::function<void()> handler);

private:
    // Guards the input and the settings below, which a new input takes over.
    std::mutex m_lock;
    std::shared_ptr<AudioInput> m_input;
    QString m_deviceId;
    std::shared_ptr<CaptureDevice> m_board;
    bool m_listening = false;
    bool m_holding = false; // m_input holds play-through for the listening
    double m_volume = 1.0;
    // Apart from m_lock, which is held while the input's thread works for a caller: the handler is
    // read on that thread.
    std::mutex m_handlerLock;
    std::function<void()> m_lostHandler;
};

} // namespace zandor
