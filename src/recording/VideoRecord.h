#pragma once

#include "media/FFmpeg.h"
#include "media/VideoEncoder.h"
#include "settings/CaptureSettings.h"
#include "settings/VideoQuality.h"
#include "layouts/CaptureLayout.h"

#include <QString>

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>

namespace zandor {

class CaptureData;

// Writes the frames of one layout into an H.264 QuickTime movie at the board's nominal rate: a
// frame shows in the slot of its number (see CaptureDevice), the first appended frame at time zero,
// and a slot whose frame was dropped on the way shows the picture before it again, so that every
// frame lasts the same. The movie is fragmented, a fragment every half second, so that a crash
// leaves a file that plays up to its last half second.
class VideoRecord {
public:
    // The x264 speed preset for a quality preset. "veryfast" runs the user's presets at about four
    // times real time on one core of a small machine (bench/VideoEncodeBench.cpp), so two layouts
    // at 60 frames a second fit one core, with clearly better pictures than "ultrafast". The
    // near-lossless intermediate spends its time writing bits rather than searching; "ultrafast"
    // keeps it as fast, and its pictures are re-encoded afterwards anyway.
    static const char* encoderSpeed(const VideoQuality& preset);

    explicit VideoRecord(LayoutPtr layout);
    // The movie a recording left in a bundle, by its layout's name, to be finalised; it is not
    // written to.
    VideoRecord(QString name, const QString& bundlePath, const CaptureSettings& settings);
    ~VideoRecord();
    VideoRecord(const VideoRecord&) = delete;
    VideoRecord& operator=(const VideoRecord&) = delete;

    // Opens "<bundle>/Video<layout name>.mov" for writing with the settings' quality preset and
    // frame rate. The Error, logged, when the writer cannot run.
    Error start(const QString& bundlePath, const CaptureSettings& settings);
    // Encodes one frame of the layout (rows of red, green, blue bytes). False when not recording,
    // when the frame's number does not come after the previous frame's (the frame is dropped), or
    // when encoding failed.
    bool append(const CaptureData& frame);
    // Flushes the encoder and finishes the file. The Error when not recording, or the one that
    // kept the movie from being finished, FFmpeg's code kept (a full disk is known by it).
    Error stop();
    // Whether writing the movie has failed (the disk full, the file gone): from then on frames are
    // not encoded, and the recording should end, keeping what was written.
    bool writeFailed();
    // The wall-clock time at which the last appended frame stops showing; unset before the first.
    std::optional<std::chrono::system_clock::time_point> pictureEnd();
    // How long the movie's picture lasts so far: from its first frame to pictureEnd(); 0 before it.
    std::chrono::nanoseconds pictureLength();

    const QString& recordPath() const { return m_recordPath; }
    const QString& mergePath() const { return m_mergePath; }
    const QString& convertPath() const { return m_convertPath; }
    const LayoutPtr& layout() const { return m_layout; }
    // The layout's name, kept for a recording finalised without its layouts.
    const QString& name() const { return m_name; }
    const QString& framesPerSecond() const { return m_framesPerSecond; }
    const VideoQualityPtr& quality() const { return m_quality; }

private:
    Error createWriter(const VideoQuality& preset);
    // The header names the wall-clock time of the first frame, when it is known.
    Error writeHeader(std::chrono::system_clock::time_point firstFrame);
    // Sends a frame (null to flush) and writes every packet the encoder gives back.
    bool encode(const AVFrame* frame);
    // Notes why writing failed; returns false.
    bool keepWriteError();
    Error stopWriter();
    void setPaths(const QString& bundlePath, const CaptureSettings& settings);

    const LayoutPtr m_layout;
    const QString m_name;
    QString m_framesPerSecond;
    VideoQualityPtr m_quality;
    QString m_recordPath;
    QString m_mergePath;
    QString m_convertPath;

    // Guards everything below: start, append and stop may come from different threads.
    std::recursive_mutex m_lock;
    ff::OutputContext m_output;
    AVStream* m_stream = nullptr;
    VideoEncoder m_encoder;
    ff::Packet m_packet;
    bool m_recording = false;
    bool m_headerWritten = false;
    bool m_sessionStarted = false;
    int m_writeError = 0;       // the output's error code once a write failed
    uint64_t m_firstNumber = 0; // the number of the first appended frame
    int64_t m_lastSlot = -1;    // the presentation time, in slots, of the last frame appended
    std::chrono::system_clock::time_point m_sessionStartWallClock; // when the first frame was taken
};

} // namespace zandor
