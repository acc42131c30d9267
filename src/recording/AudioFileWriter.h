#pragma once

#include "media/FFmpeg.h"

#include <chrono>
#include <cstdint>
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
    static constexpr int SampleRate = 44100;
    static constexpr int64_t BitRate = 131072;

    // The captured samples: interleaved, of this format, rate and channel count.
    bool open(const std::string& path, AVSampleFormat inputFormat, int inputRate, int inputChannels);
    // Encodes interleaved samples; `captured` is the wall-clock time of the first of them. The
    // first call's time is the start of the sound; where later calls' times and the samples
    // counted part, the sound is stretched, squeezed, filled or cut to follow the times.
    bool write(const uint8_t* samples, int frames, std::chrono::system_clock::time_point captured);
    // Flushes what is left and finishes the file. False, logged, when a step failed.
    bool finish();

    bool isOpen() const { return m_encoder != nullptr; }

private:
    bool writeHeader(std::chrono::system_clock::time_point firstSample);
    // Encodes whole encoder frames from the queue (and, when flushing, the rest).
    bool drainFifo(bool flush);
    bool encode(const AVFrame* frame);

    ff::OutputContext m_output;
    AVStream* m_stream = nullptr;
    ff::CodecContext m_encoder;
    ff::Resampler m_resampler;
    ff::AudioFifo m_fifo;
    ff::Frame m_frame;
    ff::Packet m_packet;
    bool m_headerWritten = false;
    std::chrono::system_clock::time_point m_firstSample; // the first captured sample's time
    int64_t m_nextPts = 0;                               // in samples, the priming's included
};

} // namespace zandor
