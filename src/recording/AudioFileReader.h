#pragma once

#include "media/AudioEncoder.h"
#include "media/FFmpeg.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zandor {

// Decodes the first sound track of a movie into interleaved stereo float samples at 44.1 kHz, in
// one run from its first sample to its last. Where the track's packets leave a gap, the gap comes
// out as silence, so that the n-th sample read is always the n-th sample's time after the first.
// Not thread-safe.
class AudioFileReader {
public:
    static constexpr int SampleRate = AudioEncoder::SampleRate;
    static constexpr int Channels = 2;

    // Opens the movie and decodes its first samples. The Error when it has no sound track that can
    // be decoded, or no sample at all.
    Error open(const std::string& path);
    // The wall-clock time of the first sample, in nanoseconds since the epoch: the movie's
    // capture start plus where its first sample lies. Unset when the movie has no capture start.
    std::optional<int64_t> startNs() const;
    // Reads up to `frames` frames (Channels samples each) into `samples`. The count read, 0 at the
    // end; the Error on failure.
    Result<int> read(float* samples, int frames);

private:
    // Decodes the next frame into the queue, or notes the end of the track.
    // Called only once the queue and the silence before it are used up, so that a gap's silence,
    // read first, comes before the frame after it.
    Error decodeMore();
    // Queues a decoded frame, after the silence of a gap before it, less what overlaps the queue.
    Error queue(const AVFrame* frame);
    // Queues converted samples less the first `drop` of them.
    Error append(const float* samples, int frames, int64_t drop);
    // Queues what the resampler still holds at the end of the track.
    Error flushResampler();

    std::string m_path;
    ff::InputContext m_input;
    int m_stream = -1;
    ff::CodecContext m_decoder;
    ff::Resampler m_resampler;
    ff::AudioFifo m_fifo;
    ff::Frame m_frame;
    ff::Packet m_packet;
    bool m_flushed = false; // the decoder was sent the end of the track
    bool m_ended = false;   // and has given back everything
    // Where the first sample lies and the next to be queued will, in samples from the movie's time
    // zero; the next is -1 before the first.
    int64_t m_firstSample = 0;
    int64_t m_nextSample = -1;
    int64_t m_silence = 0;          // frames of a gap, read before what the queue holds
    std::vector<float> m_converted; // a decoded frame's samples on their way to the queue
    std::optional<int64_t> m_captureStartNs;
};

} // namespace zandor
