#pragma once

#include "AudioFileWriter.h"

#include <QObject>
#include <QString>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>

class QAudioDevice;

namespace zandor {

class AudioInput;

// One audio track of a recording: takes an input's sound into a movie file and, when asked, plays it
// through to the default output. The input is the session's own, or one already open and shared (the
// game sound listened to), whose sound the track then takes from the moment it starts. Lives on the
// input's thread, whose event loop delivers the sound; every method runs there.
class AudioSession : public QObject {
    Q_OBJECT
public:
    AudioSession();
    ~AudioSession() override;

    // Prepares capture from `input` into `path`, with play-through when `preview`; `name` says what
    // the input is for ("Game"). The Error, logged, when the input, the preview output or the file
    // cannot be used.
    Error open(const QAudioDevice& input, const QString& name, bool preview, const QString& path);
    // The same from an input that is open and runs already; it goes on when the session ends.
    Error open(std::shared_ptr<AudioInput> input, bool preview, const QString& path);
    // `offset` moves the track's sound later (or earlier, when negative) against the picture.
    void setOffset(std::chrono::milliseconds offset) { m_offset = offset; }
    // Starts the track now: until the input's first sound arrives it is silent, so that it is there
    // from the picture's first frame, which comes later.
    void start();
    // Ends the track at `end` on the picture's clock (the capture time moved by the offset): sound
    // placed after it is not taken. Waits, up to `timeout`, until the input has delivered the sound
    // up to there, which it does a little after capturing it. The one method that runs on any
    // thread; call it before stop(). False when the input delivered nothing that late in time.
    bool endAt(std::chrono::system_clock::time_point end, std::chrono::milliseconds timeout);
    // Ends capture and play-through and finishes the file, silent up to the end given to endAt()
    // where the input fell short of it. The Error of the first write that failed, or of finishing
    // the file; an Error too when the session never started.
    Error stop();
    // How far into the capture the input went away (unplugged, or its server gone), if it did.
    std::optional<std::chrono::milliseconds> lostAt() const;

private:
    Error openWriter(const QString& path);
    void inputLost();
    // How many of `frames` placed from `placed` on come before the track's end; notes when the
    // end is reached.
    int framesBeforeEnd(int frames, std::chrono::system_clock::time_point placed);

    std::shared_ptr<AudioInput> m_input;
    bool m_ownsInput = false;
    bool m_preview = false;
    bool m_previewHeld = false;
    int m_tap = -1;
    AudioFileWriter m_writer;
    bool m_started = false;
    Error m_writeError; // the first write that failed; nothing is written after it
    std::chrono::milliseconds m_offset{0};
    std::chrono::steady_clock::time_point m_startedAt;

    // Guards the end: set by endAt() on the recorder's thread, reached on the input's.
    std::mutex m_endLock;
    std::condition_variable m_endReached;
    std::optional<std::chrono::system_clock::time_point> m_end;
    bool m_reachedEnd = false;
};

} // namespace zandor
