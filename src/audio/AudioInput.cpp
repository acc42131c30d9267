#include "AudioInput.h"

#include "AudioFileWriter.h"
#include "BoardAudio.h"
#include "PulseClient.h"
#include "base/Log.h"
#include "base/RunOn.h"

#include <QAudioSink>
#include <QAudioSource>
#include <QMediaDevices>

namespace zandor {

namespace {

// Short buffers: the sooner a buffer arrives, the closer its arrival bounds when it was captured,
// and the sound played through should not lag the picture by more than a frame or two. The output gets three
// quarters of the buffer asked for; with 30 ms it never started playing against PulseAudio's null
// sinks, with 60 ms the sound is heard about 40 ms after it came in (bench/ListenLatency.cpp).
constexpr int CaptureBufferMs = 20;
constexpr int PreviewBufferMs = 80;
constexpr int SilentInputMs = 2000;
const char* const ListeningStreamName = "Zandor: Listening";

} // namespace

AudioInput::AudioInput(const QString& name)
    : m_streamName(QStringLiteral("%1: %2").arg(QLatin1String(PulseClient::ApplicationName), name).toUtf8()) {
}

AudioInput::~AudioInput() {
    stop();
}

QAudioDevice AudioInput::inputWithId(const QString& id) {
    for (const QAudioDevice& device : QMediaDevices::audioInputs()) {
        if (device.id() == id.toUtf8()) {
            return device;
        }
    }
    return {};
}

Error AudioInput::open(const QAudioDevice& device) {
    QAudioFormat wanted;
    wanted.setSampleRate(AudioFileWriter::SampleRate);
    wanted.setChannelCount(2);
    wanted.setSampleFormat(QAudioFormat::Int16);
    m_format = device.isFormatSupported(wanted) ? wanted : device.preferredFormat();
    Error error;
    if (device.isNull()) {
        error = Error::system("open the audio input", m_streamName.toStdString(), ENODEV);
    } else if (AudioFileWriter::sampleFormat(m_format.sampleFormat()) == AV_SAMPLE_FMT_NONE) {
        error = Error::other("open the audio input", device.description().toStdString(),
                             "its samples are of no format that can be recorded");
    }
    if (error) {
        logs::recording.error("Could not construct connection of audio recording session");
        return error;
    }
    m_device = device;
    return {};
}

void AudioInput::openBoard(std::shared_ptr<CaptureDevice> device) {
    m_format.setSampleRate(AudioFileWriter::SampleRate);
    m_format.setChannelCount(BoardSound::Channels);
    m_format.setSampleFormat(QAudioFormat::Int16);
    m_device = {};
    m_board = std::move(device);
}

void AudioInput::start() {
    if (m_board && !m_started) {
        m_started = true;
        m_boardAudio = std::make_unique<BoardAudio>(m_board, m_format.sampleRate());
        const bool taking = m_boardAudio->start([this](const BoardSound::Piece& piece) {
            // Taken on this input's thread, as every buffer of an input is: queued here, and one
            // hand-over for as many pieces as came before this thread got to them.
            bool first = false;
            {
                auto pieces = m_boardPieces.lock();
                if (pieces->size() >= MaxBoardPieces) {
                    pieces->pop_front(); // the thread is stuck: the oldest sound goes, not memory
                }
                first = pieces->empty();
                pieces->push_back({QByteArray(reinterpret_cast<const char*>(piece.samples.data()),
                                              static_cast<qsizetype>(piece.samples.size_bytes())),
                                   piece.frames(), piece.captured});
            }
            if (first) {
                runLater(this, [this] { takeBoardPieces(); });
            }
        });
        if (taking && m_playThroughHolds > 0) {
            startSink();
        }
        return;
    }
    if (m_device.isNull() || m_started) {
        return;
    }
    m_started = true;
    m_lostAt.reset();
    m_clock.reset(m_format.sampleRate());
    m_source = std::make_unique<QAudioSource>(m_device, m_format);
    m_source->setBufferSize(m_format.bytesForDuration(CaptureBufferMs * 1000));
    {
        const PulseClient::StreamName name(m_streamName.constData());
        m_input = m_source->start();
    }
    // The audio server does not always fail the stream of an input that is unplugged; the list of
    // inputs tells it too.
    m_devices = std::make_unique<QMediaDevices>();
    connect(m_devices.get(), &QMediaDevices::audioInputsChanged, this, &AudioInput::checkInput);
    connect(m_source.get(), &QAudioSource::stateChanged, this, &AudioInput::checkInput);
    m_heardAt = std::chrono::steady_clock::now();
    connect(&m_watchdog, &QTimer::timeout, this, &AudioInput::checkInput, Qt::UniqueConnection);
    m_watchdog.start(SilentInputMs / 2);
    if (!m_input) {
        logs::recording.error("Could not start audio capture: error %d", static_cast<int>(m_source->error()));
        return;
    }
    connect(m_input, &QIODevice::readyRead, this, &AudioInput::readAvailable);
    if (m_playThroughHolds > 0) {
        startSink();
    }
}

void AudioInput::stop() {
    if (!m_started) {
        return;
    }
    m_started = false;
    if (m_boardAudio) {
        m_boardAudio->stop();
        m_boardAudio.reset();
        takeBoardPieces();
        m_output = nullptr;
        if (m_sink) {
            m_sink->stop();
            m_sink.reset();
        }
        return;
    }
    if (m_input) {
        readAvailable(); // what was captured up to now
        disconnect(m_input, nullptr, this, nullptr);
    }
    disconnect(m_source.get(), nullptr, this, nullptr);
    m_devices.reset();
    m_watchdog.stop();
    // The streams go now, on this thread, not whenever the last holder of this object lets go: the
    // sound server and the desktop then know at once that the input is no longer in use.
    m_input = nullptr;
    m_output = nullptr;
    m_source->stop();
    m_source.reset();
    if (m_sink) {
        m_sink->stop();
        m_sink.reset();
    }
}

int AudioInput::addTap(Tap tap) {
    m_taps.emplace(m_nextTap, std::move(tap));
    return m_nextTap++;
}

void AudioInput::removeTap(int id) {
    if (m_taps.count(id)) {
        // The leaving tap gets what was captured up to now.
        readAvailable();
        takeBoardPieces();
    }
    m_taps.erase(id);
}

bool AudioInput::holdPlayThrough() {
    if (m_playThroughHolds++ == 0 && m_started) {
        startSink();
    }
    if (m_started && !m_output) {
        releasePlayThrough();
        return false;
    }
    return true;
}

void AudioInput::releasePlayThrough() {
    if (m_playThroughHolds > 0 && --m_playThroughHolds == 0 && m_sink) {
        m_sink->stop();
        m_sink.reset();
        m_output = nullptr;
    }
}

void AudioInput::setVolume(double volume) {
    m_volume = std::clamp(volume, 0.0, 1.0);
    if (m_sink) {
        m_sink->setVolume(m_volume);
    }
}

void AudioInput::startSink() {
    const QAudioDevice output = QMediaDevices::defaultAudioOutput();
    if (output.isNull()) {
        logs::recording.error("Could not add preview for audio.");
        return;
    }
    m_sink = std::make_unique<QAudioSink>(output, m_format);
    m_sink->setBufferSize(m_format.bytesForDuration(PreviewBufferMs * 1000));
    m_sink->setVolume(m_volume);
    {
        const PulseClient::StreamName name(ListeningStreamName);
        m_output = m_sink->start();
    }
    if (!m_output) {
        logs::recording.error("Could not add preview for audio.");
        m_sink.reset();
    }
}

void AudioInput::readAvailable() {
    if (!m_input) {
        return;
    }
    const QByteArray data = m_input->readAll();
    const int bytesPerFrame = m_format.bytesPerFrame();
    const int frames = bytesPerFrame > 0 ? static_cast<int>(data.size() / bytesPerFrame) : 0;
    if (frames == 0) {
        return;
    }
    m_heardAt = std::chrono::steady_clock::now();
    deliver(data.constData(), frames, m_clock.place(frames, std::chrono::system_clock::now()));
}

void AudioInput::takeBoardPieces() {
    std::deque<BoardPiece> pieces;
    std::swap(pieces, *m_boardPieces.lock());
    for (const BoardPiece& piece : pieces) {
        deliver(piece.samples.constData(), piece.frames, piece.captured);
    }
}

void AudioInput::deliver(const char* samples, int frames, std::chrono::system_clock::time_point captured) {
    for (const auto& [id, tap] : m_taps) {
        tap(samples, frames, captured);
    }
    if (m_output) {
        // Play-through never waits, and never queues more than the output's buffer: what it cannot
        // take now is skipped, so the sound heard stays within that buffer of the input (the sound
        // server would take everything and play it ever later).
        const qint64 bytes = qint64{frames} * m_format.bytesPerFrame();
        m_output->write(samples, std::min<qint64>(m_sink->bytesFree(), bytes));
    }
}

void AudioInput::checkInput() {
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
    m_lostAt = m_heardAt;
    emit lost(); // each user says it in its own words
}

} // namespace zandor
