#include "AudioSession.h"

#include "base/Log.h"

#include <QAudioSink>
#include <QAudioSource>
#include <QMediaDevices>

#include <chrono>

namespace zandor {

namespace {

// Short buffers: each buffer's capture time is estimated from when it arrives, and the sound
// played through should not lag the picture by more than a frame or two.
constexpr int CaptureBufferMs = 20;
constexpr int PreviewBufferMs = 40;

AVSampleFormat sampleFormat(QAudioFormat::SampleFormat format) {
    switch (format) {
    case QAudioFormat::UInt8:
        return AV_SAMPLE_FMT_U8;
    case QAudioFormat::Int16:
        return AV_SAMPLE_FMT_S16;
    case QAudioFormat::Int32:
        return AV_SAMPLE_FMT_S32;
    case QAudioFormat::Float:
        return AV_SAMPLE_FMT_FLT;
    default:
        return AV_SAMPLE_FMT_NONE;
    }
}

} // namespace

AudioSession::AudioSession() = default;

AudioSession::~AudioSession() {
    stop();
}

bool AudioSession::open(const QAudioDevice& input, bool preview, const QString& path) {
    QAudioFormat wanted;
    wanted.setSampleRate(AudioFileWriter::SampleRate);
    wanted.setChannelCount(2);
    wanted.setSampleFormat(QAudioFormat::Int16);
    m_format = input.isFormatSupported(wanted) ? wanted : input.preferredFormat();
    if (input.isNull() || sampleFormat(m_format.sampleFormat()) == AV_SAMPLE_FMT_NONE) {
        logs::recording.error("Could not construct connection of audio recording session");
        return false;
    }
    if (preview) {
        const QAudioDevice output = QMediaDevices::defaultAudioOutput();
        if (output.isNull()) {
            logs::recording.error("Could not add preview for audio.");
            return false;
        }
        m_sink = std::make_unique<QAudioSink>(output, m_format);
        m_sink->setBufferSize(m_format.bytesForDuration(PreviewBufferMs * 1000));
    }
    if (!m_writer.open(path.toStdString(), sampleFormat(m_format.sampleFormat()), m_format.sampleRate(),
                       m_format.channelCount())) {
        logs::recording.error("Could not construct connection of audio recording session");
        return false;
    }
    m_source = std::make_unique<QAudioSource>(input, m_format);
    m_source->setBufferSize(m_format.bytesForDuration(CaptureBufferMs * 1000));
    return true;
}

void AudioSession::start() {
    if (!m_source || m_started) {
        return;
    }
    m_started = true;
    if (m_sink) {
        m_output = m_sink->start();
    }
    m_input = m_source->start();
    if (!m_input) {
        logs::recording.error("Could not start audio capture: error %d", static_cast<int>(m_source->error()));
        return;
    }
    connect(m_input, &QIODevice::readyRead, this, &AudioSession::readAvailable);
}

void AudioSession::readAvailable() {
    const QByteArray data = m_input->readAll();
    const int bytesPerFrame = m_format.bytesPerFrame();
    const int frames = bytesPerFrame > 0 ? static_cast<int>(data.size() / bytesPerFrame) : 0;
    if (frames == 0) {
        return;
    }
    // The buffer has just been filled: its first sample was taken its length ago.
    const auto captured =
        std::chrono::system_clock::now() - std::chrono::microseconds(m_format.durationForFrames(frames));
    // After a failed write (a full disk, a file gone) the file cannot be finished as a whole
    // movie: the rest is not written, and stop() reports the failure.
    if (!m_writeFailed &&
        !m_writer.write(reinterpret_cast<const uint8_t*>(data.constData()), frames, captured)) {
        m_writeFailed = true;
    }
    if (m_output) {
        // Play-through never waits: what the output cannot take now is skipped.
        m_output->write(data);
    }
}

bool AudioSession::stop() {
    if (!m_started) {
        return false;
    }
    m_started = false;
    if (m_input) {
        readAvailable(); // what was captured up to now
        disconnect(m_input, nullptr, this, nullptr);
    }
    m_source->stop();
    if (m_sink) {
        m_sink->stop();
    }
    m_input = nullptr;
    m_output = nullptr;
    const bool finished = m_writer.finish() && !m_writeFailed;
    if (finished) {
        logs::recording.info("Done");
    }
    return finished;
}

} // namespace zandor
