#pragma once

#include "media/AudioEncoder.h"
#include "media/FFmpeg.h"

#include <QAudioFormat>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace zandor {

// Encodes captured sound to AAC (stereo, 44.1 kHz, 128 kbit/s) in a fragmented QuickTime movie.
// The movie's metadata "zandor_capture_start" holds the wall-clock time of its first sample, so
// that the merging tool can line it up with the video. That first sample is the encoder's priming
// (1024 samples of near silence), so the time stored is the first captured sample's less the
// priming's length. The samples after it stay on the wall clock too, whatever the input's own
// clock does (see write()). Not thread-safe: one thread writes.
class AudioFileWriter {
public:
    static constexpr int SampleRate = AudioEncoder::SampleRate;
    static constexpr int64_t BitRate = AudioEncoder::BitRate;

    // FFmpeg's sample format for Qt's; AV_SAMPLE_FMT_NONE for one we cannot take.
    static AVSampleFormat sampleFormat(QAudioFormat::SampleFormat format);

    // The captured samples: interleaved, of this format, rate and channel count. Each step returns
    // the Error it met (FFmpeg's code kept: a full disk is known by it), logged.
    Error open(const std::string& path, AVSampleFormat inputFormat, int inputRate, int inputChannels);
    // Starts the sound at `start`: samples placed later are preceded by silence, samples placed
    // earlier are left out. Without it the first sample written starts the sound.
    Error begin(std::chrono::system_clock::time_point start);
    // Encodes interleaved samples; `captured` is the wall-clock time of the first of them (see
    // AudioEncoder for how the sound follows the times).
    Error write(const uint8_t* samples, int frames, std::chrono::system_clock::time_point captured);
    // Flushes what is left and finishes the file, with silence up to `end` when the sound stops
    // short of it. The Error of the step that failed, logged.
    Error finish(std::optional<std::chrono::system_clock::time_point> end = std::nullopt);

    bool isOpen() const { return m_encoder.isOpen(); }

private:
    Error writeHeader(std::chrono::system_clock::time_point timeZero);
    Error writePacket(AVPacket* packet);

    ff::OutputContext m_output;
    AVStream* m_stream = nullptr;
    AudioEncoder m_encoder;
    AVRational m_timeBase{1, AudioEncoder::SampleRate};
    bool m_headerWritten = false;
    std::string m_path;
};

} // namespace zandor
