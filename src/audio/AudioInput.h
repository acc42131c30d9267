#pragma once

#include "SampleClock.h"
#include "base/Guarded.h"
#include "base/Error.h"

#include <QAudioDevice>
#include <QAudioFormat>
#include <QIODevice>
#include <QObject>
#include <QPointer>
#include <QTimer>

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>

class QAudioSink;
class QAudioSource;
class QMediaDevices;

namespace zandor {

class BoardAudio;
class CaptureDevice;

// One open audio input: captures it, hands every buffer to its taps (the files of a recording, the
// replay buffer) and, while anyone holds play-through, plays it to the default output, once however
// many hold it. Each buffer is placed on the wall clock by counting samples (see SampleClock), so
// that its place does not depend on when a busy machine got round to reading it. The sound server
// sees the input as "Zandor: <name>" and the play-through as "Zandor: Listening", and both exist
// only between start() and stop(). Lives on a thread with an event loop; every method runs there.
class AudioInput : public QObject {
    Q_OBJECT
public:
    // Interleaved samples of format(), `frames` of them, the first captured at `captured`.
    using Tap =
        std::function<void(const char* samples, int frames, std::chrono::system_clock::time_point captured)>;

    // The identifier the capture board's own sound goes by among the inputs.
    static inline const QString BoardId = QStringLiteral("board");

    // `name` says what the input is for: "Game", "Narrator".
    explicit AudioInput(const QString& name);
    ~AudioInput() override;

    // The audio input present now with that unique identifier; a null device when there is none.
    static QAudioDevice inputWithId(const QString& id);

    // Chooses the format (16-bit stereo at 44.1 kHz where the input has it). The Error, logged,
    // when the input cannot be used: there is none, or its samples are of no format we record.
    Error open(const QAudioDevice& device);
    // The sound the capture board sends with its frames, as 16-bit stereo at the tracks' rate,
    // timed by the frames (see BoardAudio). Such an input is never lost: while the board is away its
    // frames bring silence.
    void openBoard(std::shared_ptr<CaptureDevice> device);
    // The identifier the input was chosen by: the device's, or BoardId.
    QString id() const { return m_board ? BoardId : QString::fromUtf8(m_device.id()); }
    // Opens the input's stream at the sound server and starts capturing.
    void start();
    // Hands the taps what was captured up to now, then closes the stream and the play-through.
    void stop();
    bool isStarted() const { return m_started; }
    const QAudioDevice& device() const { return m_device; }
    const QAudioFormat& format() const { return m_format; }

    int addTap(Tap tap);
    void removeTap(int id);

    // Play-through runs while at least one holder wants it; false, logged, when there is no output.
    bool holdPlayThrough();
    void releasePlayThrough();
    // 0 to 1, for the play-through only.
    void setVolume(double volume);

    // When the input went away (unplugged, its server gone, or silent for two seconds: an input
    // delivers its buffers, silent or not, all along), if it did. Said once in the log.
    std::optional<std::chrono::steady_clock::time_point> lostAt() const { return m_lostAt; }

signals:
    void lost();

private:
    void readAvailable();
    // Hands captured samples to the taps and the play-through.
    void deliver(const char* samples, int frames, std::chrono::system_clock::time_point captured);
    // Delivers the board's pieces already handed over but not yet taken.
    void takeBoardPieces();
    void checkInput();
    void startSink();

    const QByteArray m_streamName;
    QAudioDevice m_device;
    QAudioFormat m_format;
    SampleClock m_clock;
    std::unique_ptr<QAudioSource> m_source;
    std::unique_ptr<QAudioSink> m_sink;
    std::unique_ptr<QMediaDevices> m_devices;
    std::shared_ptr<CaptureDevice> m_board;
    std::unique_ptr<BoardAudio> m_boardAudio;
    // The board's sound on its way from the board's thread to this one.
    struct BoardPiece {
        QByteArray samples;
        int frames;
        std::chrono::system_clock::time_point captured;
    };
    static constexpr size_t MaxBoardPieces = 240; // four seconds of frames
    Guarded<std::deque<BoardPiece>> m_boardPieces;
    // Owned by the source and the sink, which may replace or delete them on an error of the sound
    // server: guarded pointers, null once gone.
    QPointer<QIODevice> m_input;
    QPointer<QIODevice> m_output;
    QTimer m_watchdog{this}; // a child, so that it moves to the audio thread with the input
    std::map<int, Tap> m_taps;
    int m_nextTap = 0;
    int m_playThroughHolds = 0;
    double m_volume = 1.0;
    bool m_started = false;
    std::chrono::steady_clock::time_point m_heardAt;
    std::optional<std::chrono::steady_clock::time_point> m_lostAt;
};

} // namespace zandor
