#include "GameAudio.h"

#include "AudioInput.h"
#include "AudioThread.h"
#include "base/Log.h"
#include "base/RunOn.h"

#include <QAudioDevice>

namespace zandor {

GameAudio::GameAudio() = default;

GameAudio::~GameAudio() {
    stop();
}

void GameAudio::setBoard(std::shared_ptr<CaptureDevice> device) {
    std::scoped_lock lock(m_lock);
    m_board = std::move(device);
}

bool GameAudio::start(const QString& deviceId) {
    std::scoped_lock lock(m_lock);
    const QString id = deviceId == QLatin1String("None") ? QString() : deviceId;
    if (m_input && id == m_deviceId) {
        return true;
    }
    if (m_input) {
        runAndWait(m_input.get(), [input = m_input] { input->stop(); });
        m_input.reset();
    }
    m_deviceId = id;
    m_holding = false;
    if (id.isEmpty()) {
        return true;
    }
    const bool board = id == AudioInput::BoardId;
    const QAudioDevice device = board ? QAudioDevice() : AudioInput::inputWithId(id);
    if (board ? !m_board : device.isNull()) {
        logs::recording.error("Could not open the game sound: no audio input \"%s\"", qUtf8Printable(id));
        return false;
    }
    auto input = std::make_shared<AudioInput>(QStringLiteral("Game"));
    input->moveToThread(AudioThread::instance());
    const bool listening = m_listening;
    const double volume = m_volume;
    const bool started = runAndWait(
        input.get(), [this, input, device, boardDevice = board ? m_board : nullptr, listening, volume] {
            if (boardDevice) {
                input->openBoard(boardDevice);
            } else if (input->open(device)) {
                return false;
            }
            QObject::connect(input.get(), &AudioInput::lost, input.get(), [this, input = input.get()] {
                logs::recording.error("Stopped listening to the game sound: the audio input \"%s\" went away",
                                      qUtf8Printable(input->device().description()));
                std::function<void()> handler;
                {
                    std::scoped_lock lock(m_handlerLock);
                    handler = m_lostHandler;
                }
                if (handler) {
                    handler();
                }
            });
            input->setVolume(volume);
            input->start();
            m_holding = listening && input->holdPlayThrough();
            return true;
        });
    if (!started) {
        // Destroyed on its thread, like every audio object.
        runAndWait(input.get(), [&input] { input.reset(); });
        return false;
    }
    m_input = std::move(input);
    return true;
}

void GameAudio::stop() {
    std::scoped_lock lock(m_lock);
    if (m_input) {
        auto input = std::move(m_input);
        AudioInput* raw = input.get();
        runAndWait(raw, [&input] {
            input->stop();
            input.reset(); // the last holder may be a recording that ended already
        });
    }
    m_deviceId.clear();
    m_holding = false;
}

std::shared_ptr<AudioInput> GameAudio::input() {
    std::scoped_lock lock(m_lock);
    return m_input;
}

void GameAudio::setListening(bool listening) {
    std::scoped_lock lock(m_lock);
    m_listening = listening;
    if (m_input && listening != m_holding) {
        m_holding = runAndWait(m_input.get(), [input = m_input, listening] {
            if (listening) {
                return input->holdPlayThrough();
            }
            input->releasePlayThrough();
            return false;
        });
    }
}

void GameAudio::setVolume(int percent) {
    std::scoped_lock lock(m_lock);
    m_volume = std::clamp(percent, 0, 100) / 100.0;
    if (m_input) {
        runAndWait(m_input.get(), [input = m_input, volume = m_volume] { input->setVolume(volume); });
    }
}

void GameAudio::setLostHandler(std::function<void()> handler) {
    std::scoped_lock lock(m_handlerLock);
    m_lostHandler = std::move(handler);
}

} // namespace zandor
