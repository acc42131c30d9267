#pragma once

#include "base/Error.h"

#include <QString>

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>

class QThread;

namespace zandor {

class AudioInput;
class AudioSession;

// Records one audio input ("Game" or "Narrator") into "<bundle>/Audio<name>.mov" while a video
// recording runs, the game sound also played through to the default output. The Qt audio objects
// live on the given thread, which must run an event loop; start and stop may be called from any
// other thread and wait for it.
class AudioRecord {
public:
    // The format asked for: AAC, stereo, 44.1 kHz, 128 kbit/s.
    struct AudioSettings {
        const char* format = "aac ";
        int channels = 2;
        double sampleRate = 44100.0;
        int bitRate = 131072;
    };

    AudioRecord(QString name, QThread* audioThread);
    ~AudioRecord();
    AudioRecord(const AudioRecord&) = delete;
    AudioRecord& operator=(const AudioRecord&) = delete;

    // Starts recording the input with unique identifier `deviceId`. "None", empty or unset means
    // no input: logged, and a success that records nothing. The Error when it records already, or
    // the input, its play-through or the file cannot be used.
    Error start(const QString& deviceId, const QString& bundlePath, bool preview);
    // No Error when it was recording and has finished its file; an Error when idle, or the one
    // that kept the file from being written whole (the recorder then reports the audio as not
    // finalised). With
    // `pictureEnd`, the wall-clock time the picture ends at, the track ends there too: the sound
    // captured up to then is waited for, up to a second, and nothing after it is kept.
    Error stop(std::optional<std::chrono::system_clock::time_point> pictureEnd = std::nullopt);
    bool isRecording();
    // How far into the last recording its input went away, if it did; known once stopped.
    std::optional<std::chrono::milliseconds> lostAt();

    const QString& name() const { return m_name; }
    const QString& path() const { return m_path; }
    // Before start: the input open already for listening, used when it is the one to record (its
    // sound then reaches the track from the first instant, and is played through only once), and how
    // far to move the track's sound against the picture.
    void share(std::shared_ptr<AudioInput> input, std::chrono::milliseconds offset);
    // Takes the file a recording left in `bundlePath` as its own, to be finalised.
    void adopt(const QString& bundlePath);

private:
    Error createSession(const QString& bundlePath, const AudioSettings& settings);
    void startSession();

    const QString m_name;
    QThread* const m_thread;

    // Guards the flag and the session's creation and end.
    std::recursive_mutex m_lock;
    bool m_recording = false;
    bool m_preview = false;
    QString m_deviceId;
    QString m_path;
    AudioSession* m_session = nullptr; // lives on m_thread, or on the shared input's
    std::shared_ptr<AudioInput> m_shared;
    std::chrono::milliseconds m_offset{0};
    std::optional<std::chrono::milliseconds> m_lostAt;
};

} // namespace zandor
