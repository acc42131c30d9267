#pragma once

#include "AudioFileWriter.h"

#include <QAudioDevice>
#include <QAudioFormat>
#include <QObject>
#include <QTimer>

#include <chrono>
#include <memory>
#include <optional>

class QAudioSink;
class QAudioSource;
class QMediaDevices;
class QIODevice;

namespace zandor {

// The Qt side of one audio recording: captures an input, writes it to a movie file and, when asked,
// plays it through to the default output. Lives on the recording's audio thread, whose event loop
// delivers the captured sound; every method runs there.
class AudioSession : public QObject {
    Q_OBJECT
public:
    AudioSession();
    ~AudioSession() override;

    // Prepares capture from `input` into `path`, with play-through when `preview`. False, logged
    // with the reason, when the input or the preview output cannot be used.
    bool open(const QAudioDevice& input, bool preview, const QString& path);
    void start();
    // Ends capture and play-through and finishes the file; false when a write or finishing failed.
    bool stop();
    // How far into the capture the input went away (unplugged, or its server gone), if it did.
    std::optional<std::chrono::milliseconds> lostAt() const { return m_lostAt; }

private:
    void readAvailable();
    // The input went away if it stopped with an error, left the system's list of inputs or has
    // delivered nothing for SilentInputMs (an input delivers its buffers, silent or not, all along).
    void checkInput();

    std::unique_ptr<QMediaDevices> m_devices;
    QTimer m_watchdog{this}; // a child, so that it moves to the audio thread with the session
    std::chrono::steady_clock::time_point m_heardAt;
    QAudioDevice m_device;
    std::unique_ptr<QAudioSource> m_source;
    std::unique_ptr<QAudioSink> m_sink;
    QIODevice* m_input = nullptr;  // owned by m_source
    QIODevice* m_output = nullptr; // owned by m_sink
    QAudioFormat m_format;
    AudioFileWriter m_writer;
    bool m_started = false;
    bool m_writeFailed = false;
    std::chrono::steady_clock::time_point m_startedAt;
    std::optional<std::chrono::milliseconds> m_lostAt;
};

} // namespace zandor
