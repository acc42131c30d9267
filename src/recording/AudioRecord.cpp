#include "AudioRecord.h"

#include "audio/AudioInput.h"
#include "audio/AudioSession.h"
#include "base/Log.h"
#include "base/RunOn.h"

#include <QAudioDevice>
#include <QMetaObject>
#include <QThread>

namespace zandor {

AudioRecord::AudioRecord(QString name, QThread* audioThread)
    : m_name(std::move(name)), m_thread(audioThread) {}

AudioRecord::~AudioRecord() {
    std::scoped_lock lock(m_lock);
    if (m_session) {
        // The session's audio objects belong to the audio thread and are taken down there.
        AudioSession* session = m_session;
        runAndWait(session, [session] { delete session; });
        m_session = nullptr;
    }
}

Error AudioRecord::start(const QString& deviceId, const QString& bundlePath, bool preview) {
    std::scoped_lock lock(m_lock);
    if (m_recording) {
        return Error::other("start the sound", m_name.toStdString(), "it is recording already");
    }
    m_deviceId = deviceId == QLatin1String("None") ? QString() : deviceId;
    m_lostAt.reset();
    m_preview = preview;
    if (m_deviceId.isEmpty()) {
        logs::recording.warning("No audio device selected for '%s'", qUtf8Printable(m_name));
        return {};
    }
    if (Error error = createSession(bundlePath, AudioSettings{})) {
        return error;
    }
    startSession();
    m_recording = true;
    return {};
}

void AudioRecord::share(std::shared_ptr<AudioInput> input, std::chrono::milliseconds offset) {
    std::scoped_lock lock(m_lock);
    m_shared = std::move(input);
    m_offset = offset;
}

void AudioRecord::adopt(const QString& bundlePath) {
    std::scoped_lock lock(m_lock);
    m_path = QStringLiteral("%1/Audio%2.%3").arg(bundlePath, m_name, QStringLiteral("mov"));
}

Error AudioRecord::createSession(const QString& bundlePath, const AudioSettings&) {
    adopt(bundlePath);
    auto* session = new AudioSession;
    session->setOffset(m_offset);
    const QString path = m_path;
    const bool preview = m_preview;
    // The sound listened to comes from the input already open: the track starts with it at once,
    // and its play-through is the one already heard.
    if (m_shared && runAndWait(m_shared.get(), [input = m_shared] { return input->id(); }) == m_deviceId) {
        session->moveToThread(m_shared->thread());
        if (Error error = runAndWait(session, [session, input = m_shared, preview, path] {
                return session->open(input, preview, path);
            })) {
            runAndWait(session, [session] { delete session; });
            return error;
        }
        m_session = session;
        return {};
    }
    const QAudioDevice input = AudioInput::inputWithId(m_deviceId);
    if (input.isNull()) {
        logs::recording.error("Could not construct connection of audio recording session");
        delete session;
        return Error::system("open the audio input", m_deviceId.toStdString(), ENODEV);
    }
    session->moveToThread(m_thread);
    if (Error error = runAndWait(session, [session, input, name = m_name, preview, path] {
            return session->open(input, name, preview, path);
        })) {
        runAndWait(session, [session] { delete session; });
        return error;
    }
    m_session = session;
    return {};
}

void AudioRecord::startSession() {
    AudioSession* session = m_session;
    runAndWait(session, [session] { session->start(); });
}

Error AudioRecord::stop(std::optional<std::chrono::system_clock::time_point> pictureEnd) {
    std::scoped_lock lock(m_lock);
    if (!m_recording) {
        return Error::other("finish sound", m_name.toStdString(), "it was not recording");
    }
    m_recording = false;
    AudioSession* session = m_session;
    m_session = nullptr;
    if (pictureEnd && !session->endAt(*pictureEnd, std::chrono::seconds(1))) {
        logs::recording.info("The %s sound ends short of the picture: its input delivered nothing later",
                             qUtf8Printable(m_name));
    }
    std::optional<std::chrono::milliseconds> lostAt;
    Error finished = runAndWait(session, [session, &lostAt] {
        Error done = session->stop();
        lostAt = session->lostAt();
        delete session;
        return done;
    });
    m_lostAt = lostAt;
    if (finished) {
        logs::recording.error("Could not finish audio recording session");
    }
    return finished;
}

std::optional<std::chrono::milliseconds> AudioRecord::lostAt() {
    std::scoped_lock lock(m_lock);
    return m_lostAt;
}

bool AudioRecord::isRecording() {
    std::scoped_lock lock(m_lock);
    return m_recording;
}

} // namespace zandor
