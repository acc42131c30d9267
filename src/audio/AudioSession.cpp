#include "AudioSession.h"

#include "AudioInput.h"
#include "base/Log.h"

#include <QAudioDevice>
#include <QMediaDevices>

#include <utility>

namespace zandor {

AudioSession::AudioSession() = default;

AudioSession::~AudioSession() {
    if (m_started) {
        if (const Error error = stop()) {
            logs::recording.error("The sound file was not finished: %s", error.logLine().c_str());
        }
    }
}

Error AudioSession::open(const QAudioDevice& input, const QString& name, bool preview, const QString& path) {
    if (preview && QMediaDevices::defaultAudioOutput().isNull()) {
        logs::recording.error("Could not add preview for audio.");
        return Error::other("play the sound through", {}, "there is no audio output");
    }
    auto own = std::make_shared<AudioInput>(name);
    if (Error error = own->open(input)) {
        return error;
    }
    m_ownsInput = true;
    return open(std::move(own), preview, path);
}

Error AudioSession::open(std::shared_ptr<AudioInput> input, bool preview, const QString& path) {
    m_input = std::move(input);
    m_preview = preview;
    // Without an output to play it through, the sound is recorded all the same, unheard (said in
    // the log), as with an input of the session's own.
    m_previewHeld = preview && !m_ownsInput && m_input->holdPlayThrough();
    return openWriter(path);
}

Error AudioSession::openWriter(const QString& path) {
    const QAudioFormat& format = m_input->format();
    if (Error error = m_writer.open(path.toStdString(), AudioFileWriter::sampleFormat(format.sampleFormat()),
                                    format.sampleRate(), format.channelCount())) {
        logs::recording.error("Could not construct connection of audio recording session");
        return error;
    }
    return {};
}

void AudioSession::start() {
    if (!m_input || m_started) {
        return;
    }
    m_started = true;
    m_startedAt = std::chrono::steady_clock::now();
    m_writeError = m_writer.begin(std::chrono::system_clock::now());
    m_tap = m_input->addTap(
        [this](const char* samples, int frames, std::chrono::system_clock::time_point captured) {
            const auto placed = captured + m_offset;
            frames = framesBeforeEnd(frames, placed);
            // After a failed write (a full disk, a file gone) the file cannot be finished as a whole
            // movie: the rest is not written, and stop() reports the failure.
            if (frames > 0 && !m_writeError) {
                m_writeError = m_writer.write(reinterpret_cast<const uint8_t*>(samples), frames, placed);
            }
        });
    connect(m_input.get(), &AudioInput::lost, this, &AudioSession::inputLost);
    if (m_ownsInput) {
        if (m_preview && !m_input->holdPlayThrough()) {
            logs::recording.error("Could not add preview for audio.");
        }
        m_input->start();
    }
}

int AudioSession::framesBeforeEnd(int frames, std::chrono::system_clock::time_point placed) {
    std::scoped_lock lock(m_endLock);
    if (!m_end) {
        return frames;
    }
    const double before =
        std::chrono::duration<double>(*m_end - placed).count() * m_input->format().sampleRate();
    if (before >= frames) {
        return frames;
    }
    m_reachedEnd = true;
    m_endReached.notify_all();
    return std::max(0, static_cast<int>(before));
}

bool AudioSession::endAt(std::chrono::system_clock::time_point end, std::chrono::milliseconds timeout) {
    std::unique_lock lock(m_endLock);
    m_end = end;
    return m_endReached.wait_for(lock, timeout, [this] { return m_reachedEnd; });
}

void AudioSession::inputLost() {
    if (const auto lost = lostAt()) {
        logs::recording.error(
            "The audio input \"%s\" went away %lld s into the recording: the rest of its sound is "
            "silent",
            qUtf8Printable(m_input->device().description()), static_cast<long long>(lost->count() / 1000));
    }
}

std::optional<std::chrono::milliseconds> AudioSession::lostAt() const {
    const auto lost = m_input ? m_input->lostAt() : std::nullopt;
    if (!lost) {
        return std::nullopt;
    }
    return std::max(std::chrono::milliseconds(0),
                    std::chrono::duration_cast<std::chrono::milliseconds>(*lost - m_startedAt));
}

Error AudioSession::stop() {
    if (!m_started) {
        return Error::other("finish sound", {}, "it was not recording");
    }
    m_started = false;
    disconnect(m_input.get(), nullptr, this, nullptr);
    m_input->removeTap(m_tap);
    if (m_ownsInput) {
        m_input->stop();
    } else if (m_previewHeld) {
        m_input->releasePlayThrough();
        m_previewHeld = false;
    }
    std::optional<std::chrono::system_clock::time_point> end;
    {
        std::scoped_lock lock(m_endLock);
        end = m_end;
    }
    Error finished = m_writer.finish(end);
    if (m_writeError) {
        return std::exchange(m_writeError, {});
    }
    if (!finished) {
        logs::recording.info("Done");
    }
    return finished;
}

} // namespace zandor
