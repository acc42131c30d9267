#pragma once

#include "AudioFileWriter.h"

#include <QAudioDevice>
#include <QAudioFormat>
#include <QObject>

#include <memory>

class QAudioSink;
class QAudioSource;
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

private:
    void readAvailable();

    std::unique_ptr<QAudioSource> m_source;
    std::unique_ptr<QAudioSink> m_sink;
    QIODevice* m_input = nullptr;  // owned by m_source
    QIODevice* m_output = nullptr; // owned by m_sink
    QAudioFormat m_format;
    AudioFileWriter m_writer;
    bool m_started = false;
    bool m_writeFailed = false;
};

} // namespace zandor
