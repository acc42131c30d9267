#include "AudioEncoder.h"

#include "base/Log.h"

extern "C" {
#include <libavutil/opt.h>
}

#include <algorithm>
#include <vector>

namespace zandor {

Error AudioEncoder::open(AVSampleFormat inputFormat, int inputRate, int inputChannels, bool globalHeader) {
    ff::routeLogging();
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
    if (!codec) {
        return ff::failure(AVERROR_ENCODER_NOT_FOUND, "avcodec_find_encoder");
    }
    m_encoder.reset(avcodec_alloc_context3(codec));
    AVCodecContext* encoder = m_encoder.get();
    encoder->sample_fmt = AV_SAMPLE_FMT_FLTP;
    encoder->sample_rate = SampleRate;
    encoder->bit_rate = BitRate;
    encoder->time_base = {1, SampleRate};
    av_channel_layout_default(&encoder->ch_layout, 2);
    if (globalHeader) {
        encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    if (Error error = ff::failure(avcodec_open2(encoder, codec, nullptr), "avcodec_open2")) {
        m_encoder.reset();
        return error;
    }
    // The encoder puts out `initial_padding` priming samples before the first one it was given and
    // dates them that much earlier. Counting from there, the sound starts at time zero with the
    // priming and no time is negative, which a muxer would otherwise shift on its own.
    m_nextPts = encoder->initial_padding;
    AVChannelLayout inputLayout;
    av_channel_layout_default(&inputLayout, inputChannels);
    SwrContext* resampler = nullptr;
    int result = swr_alloc_set_opts2(&resampler, &encoder->ch_layout, encoder->sample_fmt, SampleRate,
                                     &inputLayout, inputFormat, inputRate, 0, nullptr);
    av_channel_layout_uninit(&inputLayout);
    m_resampler.reset(resampler);
    if (resampler) {
        // Keeps the sound where the buffers' times place it. Those times count samples (see
        // SampleClock) and move only when the input's clock drifts against the wall clock or a
        // dropout lost samples: when they and the samples put out so far part by more than 4 ms,
        // the resampler stretches or squeezes the sound by at most 0.2 % for the next second; past
        // 10 ms (a dropout, a sound that starts after the track, or a first buffer that came late)
        // it fills with silence or drops samples at once.
        av_opt_set_double(resampler, "min_comp", 0.004, 0);
        av_opt_set_double(resampler, "max_soft_comp", 0.002, 0);
        av_opt_set_double(resampler, "comp_duration", 1.0, 0);
        av_opt_set_double(resampler, "min_hard_comp", 0.01, 0);
        // Resampling from the start: turned on only when first needed, it would start the time
        // line afresh there and keep the gap it was meant to close.
        av_opt_set_int(resampler, "flags", SWR_FLAG_RESAMPLE, 0);
    }
    m_fifo.reset(av_audio_fifo_alloc(encoder->sample_fmt, 2, SampleRate));
    m_frame.reset(av_frame_alloc());
    m_packet.reset(av_packet_alloc());
    Error error = ff::failure(result, "swr_alloc_set_opts2");
    if (!error) {
        error = ff::failure(swr_init(m_resampler.get()), "swr_init");
    }
    if (!error && (!m_fifo || !m_frame || !m_packet)) {
        error = ff::failure(AVERROR(ENOMEM), "av_audio_fifo_alloc");
    }
    if (error) {
        m_encoder.reset();
        return error;
    }
    // The resampler takes the first time it is given as its origin, and would place the first
    // buffer at the start whatever its time. Given the start itself first, it fills or drops up to
    // the first buffer as it does later: the sound keeps its place against the picture, moved by
    // the game sound's offset, however long after the start it arrives.
    swr_next_pts(m_resampler.get(), 0);
    return {};
}

void AudioEncoder::start(std::chrono::system_clock::time_point captured) {
    if (!m_started) {
        m_firstSample = captured;
        m_started = true;
    }
}

std::chrono::system_clock::time_point AudioEncoder::timeZero() const {
    const auto priming =
        std::chrono::microseconds(int64_t{m_encoder ? m_encoder->initial_padding : 0} * 1000000 / SampleRate);
    return m_firstSample - priming;
}

Error AudioEncoder::write(const uint8_t* samples, int frames, std::chrono::system_clock::time_point captured,
                          const PacketSink& sink) {
    if (!m_encoder) {
        return Error::other("encode sound", {}, "the encoder is not open");
    }
    start(captured);
    // Where these samples belong on the movie's time line, in 1 / (rate * rate) seconds; the
    // resampler compares it with what it has put out (see open()).
    const int64_t sinceUs =
        std::chrono::duration_cast<std::chrono::microseconds>(captured - m_firstSample).count();
    swr_next_pts(m_resampler.get(), sinceUs * SampleRate / 1000 * SampleRate / 1000);
    const int room = swr_get_out_samples(m_resampler.get(), frames);
    std::vector<float> left(static_cast<size_t>(room)), right(static_cast<size_t>(room));
    uint8_t* planes[2] = {reinterpret_cast<uint8_t*>(left.data()), reinterpret_cast<uint8_t*>(right.data())};
    const uint8_t* input[1] = {samples};
    const int converted = swr_convert(m_resampler.get(), planes, room, input, frames);
    if (Error error = ff::failure(converted, "swr_convert")) {
        return error;
    }
    if (const int queued = av_audio_fifo_write(m_fifo.get(), reinterpret_cast<void**>(planes), converted);
        queued < converted) {
        logs::recording.error("Could not queue audio samples");
        return Error::library(Error::Domain::FFmpeg, "av_audio_fifo_write", {},
                              queued < 0 ? queued : AVERROR(ENOMEM),
                              ff::errorText(queued < 0 ? queued : AVERROR(ENOMEM)));
    }
    return drainFifo(false, sink);
}

Error AudioEncoder::drainFifo(bool flush, const PacketSink& sink) {
    const int frameSize = m_encoder->frame_size;
    while (av_audio_fifo_size(m_fifo.get()) >= frameSize || (flush && av_audio_fifo_size(m_fifo.get()) > 0)) {
        const int count = std::min(frameSize, av_audio_fifo_size(m_fifo.get()));
        av_frame_unref(m_frame.get());
        m_frame->nb_samples = count;
        m_frame->format = m_encoder->sample_fmt;
        m_frame->sample_rate = SampleRate;
        if (Error error = ff::failure(av_channel_layout_copy(&m_frame->ch_layout, &m_encoder->ch_layout),
                                      "av_channel_layout_copy")) {
            return error;
        }
        if (Error error = ff::failure(av_frame_get_buffer(m_frame.get(), 0), "av_frame_get_buffer")) {
            return error;
        }
        av_audio_fifo_read(m_fifo.get(), reinterpret_cast<void**>(m_frame->data), count);
        m_frame->pts = m_nextPts;
        m_nextPts += count;
        if (Error error = encode(m_frame.get(), sink)) {
            return error;
        }
    }
    return {};
}

Error AudioEncoder::encode(const AVFrame* frame, const PacketSink& sink) {
    if (Error error = ff::failure(avcodec_send_frame(m_encoder.get(), frame), "avcodec_send_frame")) {
        return error;
    }
    for (;;) {
        const int result = avcodec_receive_packet(m_encoder.get(), m_packet.get());
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) {
            return {};
        }
        Error error = ff::failure(result, "avcodec_receive_packet");
        if (!error) {
            error = sink(m_packet.get());
        }
        av_packet_unref(m_packet.get());
        if (error) {
            return error;
        }
    }
}

Error AudioEncoder::finish(const PacketSink& sink, std::optional<std::chrono::system_clock::time_point> end) {
    if (!m_encoder) {
        return Error::other("encode sound", {}, "the encoder is not open");
    }
    // What the resampler still holds, then silence up to the end, then the last short frame, then
    // the encoder's delay.
    const int room = swr_get_out_samples(m_resampler.get(), 0);
    if (room > 0) {
        std::vector<float> left(static_cast<size_t>(room)), right(static_cast<size_t>(room));
        uint8_t* planes[2] = {reinterpret_cast<uint8_t*>(left.data()),
                              reinterpret_cast<uint8_t*>(right.data())};
        const int converted = swr_convert(m_resampler.get(), planes, room, nullptr, 0);
        if (converted > 0) {
            av_audio_fifo_write(m_fifo.get(), reinterpret_cast<void**>(planes), converted);
        }
    }
    if (end && m_started) {
        const int64_t written = m_nextPts - m_encoder->initial_padding + av_audio_fifo_size(m_fifo.get());
        const int64_t wanted =
            std::chrono::duration_cast<std::chrono::microseconds>(*end - m_firstSample).count() * SampleRate /
            1000000;
        // The input delivered nothing that late (it went away, or was slow): silence to the end,
        // a second at a time.
        std::vector<float> silence(static_cast<size_t>(std::clamp<int64_t>(wanted - written, 0, SampleRate)));
        void* planes[2] = {silence.data(), silence.data()};
        for (int64_t missing = wanted - written; missing > 0; missing -= SampleRate) {
            const int count = static_cast<int>(std::min<int64_t>(missing, SampleRate));
            if (av_audio_fifo_write(m_fifo.get(), planes, count) < count) {
                return ff::failure(AVERROR(ENOMEM), "av_audio_fifo_write");
            }
            if (Error error = drainFifo(false, sink)) {
                return error;
            }
        }
    }
    Error error = drainFifo(true, sink);
    if (!error) {
        error = encode(nullptr, sink);
    }
    m_encoder.reset();
    return error;
}

} // namespace zandor
