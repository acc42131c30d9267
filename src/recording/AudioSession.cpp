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
constexpr int SilentInputMs = 2000;

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
    m_device = input;
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
    m_startedAt = std::chrono::steady_clock::now();
    m_input = m_source->start();
    // The audio server does not always fail the stream of an input that is unplugged; the list of
    // inputs tells it too.
    m_devices = std::make_unique<QMediaDevices>();
    connect(m_devices.get(), &QMediaDevices::audioInputsChanged, this, &AudioSession::checkInput);
    connect(m_source.get(), &QAudioSource::stateChanged, this, &AudioSession::checkInput);
    m_heardAt = m_startedAt;
    connect(&m_watchdog, &QTimer::timeout, this, &AudioSession::checkInput);
    m_watchdog.start(SilentInputMs / 2);
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
    m_heardAt = std::chrono::steady_clock::now();
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

void AudioSession::checkInput() {
    if (!m_started || m_lostAt) {
        return;
    }
    const bool failed = m_source->state() == QAudio::StoppedState && m_source->error() != QAudio::NoError;
    const bool quiet =
        std::chrono::steady_clock::now() - m_heardAt > std::chrono::milliseconds(SilentInputMs);
    if (!failed && !quiet && QMediaDevices::audioInputs().contains(m_device)) {
        return;
    }
    m_watchdog.stop();
    m_lostAt = std::chrono::duration_cast<std::chrono::milliseconds>(m_heardAt - m_startedAt);
    logs::recording.error(
        "The audio input \"%s\" went away %lld s into the recording: the rest of its sound is "
        "silent",
        qUtf8Printable(m_device.description()), static_cast<long long>(m_lostAt->count() / 1000));
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
    disconnect(m_source.get(), nullptr, this, nullptr);
    m_devices.reset();
    m_watchdog.stop();
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
