#pragma once

#include "media/FFmpeg.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>

namespace zandor {

// Encodes captured sound to AAC (stereo, 44.1 kHz, 128 kbit/s), keeping it on the wall clock: the
// first sample written is the start of the sound, and where later buffers' capture times and the
// samples counted part, the sound is stretched, squeezed, filled or cut to follow the times. Packets
// are dated in samples from the encoder's priming (1024 samples of near silence that come before the
// first captured sample). Not thread-safe: one thread writes.
class AudioEncoder {
public:
    static constexpr int SampleRate = 44100;
    static constexpr int64_t BitRate = 131072;

    // Takes each encoded packet; an Error stops the encoding as failed.
    using PacketSink = std::function<Error(AVPacket* packet)>;

    // The captured samples: interleaved, of this format, rate and channel count.
    Error open(AVSampleFormat inputFormat, int inputRate, int inputChannels, bool globalHeader);
    bool isOpen() const { return m_encoder != nullptr; }
    AVCodecContext* context() const { return m_encoder.get(); }

    // Sets the start of the sound, when it is not set yet: the first write does it too. Sound that
    // the writes place later begins with silence from here; sound placed earlier is dropped.
    void start(std::chrono::system_clock::time_point captured);
    // The first Error met, the sink's included.
    Error write(const uint8_t* samples, int frames, std::chrono::system_clock::time_point captured,
                const PacketSink& sink);
    // Encodes what is left, then the encoder's delay, and closes the encoder. With `end`, a sound
    // that stops short of it is made up with silence, so that it lasts until then.
    Error finish(const PacketSink& sink,
                 std::optional<std::chrono::system_clock::time_point> end = std::nullopt);

    bool hasStarted() const { return m_started; }
    // The wall-clock time of time zero of the packets: the first captured sample less the priming.
    std::chrono::system_clock::time_point timeZero() const;

private:
    Error drainFifo(bool flush, const PacketSink& sink);
    Error encode(const AVFrame* frame, const PacketSink& sink);

    ff::CodecContext m_encoder;
    ff::Resampler m_resampler;
    ff::AudioFifo m_fifo;
    ff::Frame m_frame;
    ff::Packet m_packet;
    bool m_started = false;
    std::chrono::system_clock::time_point m_firstSample; // the first captured sample's time
    int64_t m_nextPts = 0;                               // in samples, the priming's included
};

} // namespace zandor
