#include "AudioFileReader.h"

#include <algorithm>
#include <vector>

namespace zandor {

namespace {

constexpr AVRational SampleTime{1, AudioFileReader::SampleRate};
// Frames' times are rounded; a gap or an overlap up to this many samples is no gap.
constexpr int64_t Slack = 32;

Error failed(const char* step, const std::string& path, int code) {
    return Error::library(Error::Domain::FFmpeg, step, path, code, ff::errorText(code));
}

} // namespace

Error AudioFileReader::open(const std::string& path) {
    m_path = path;
    auto opened = ff::openInput(path);
    if (!opened) {
        return opened.error();
    }
    m_input = std::move(*opened);
    const AVCodec* codec = nullptr;
    m_stream = av_find_best_stream(m_input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
    if (m_stream < 0 || !codec) {
        return failed("cannot find a sound track that can be decoded in", path,
                      m_stream < 0 ? m_stream : AVERROR_DECODER_NOT_FOUND);
    }
    const AVStream* stream = m_input->streams[m_stream];
    m_decoder.reset(avcodec_alloc_context3(codec));
    m_fifo.reset(av_audio_fifo_alloc(AV_SAMPLE_FMT_FLT, Channels, SampleRate));
    m_frame.reset(av_frame_alloc());
    m_packet.reset(av_packet_alloc());
    if (!m_decoder || !m_fifo || !m_frame || !m_packet) {
        return failed("cannot decode the sound of", path, AVERROR(ENOMEM));
    }
    int result = avcodec_parameters_to_context(m_decoder.get(), stream->codecpar);
    m_decoder->pkt_timebase = stream->time_base;
    if (result >= 0) {
        result = avcodec_open2(m_decoder.get(), codec, nullptr);
    }
    if (result < 0) {
        return failed("cannot decode the sound of", path, result);
    }
    m_captureStartNs = ff::captureStartNs(m_input->metadata);
    // The first samples tell where the sound starts.
    while (av_audio_fifo_size(m_fifo.get()) == 0 && m_silence == 0 && !m_ended) {
        if (Error error = decodeMore()) {
            return error;
        }
    }
    if (m_nextSample < 0) {
        return Error::other("cannot read the sound of", path, "it holds no sound");
    }
    return {};
}

std::optional<int64_t> AudioFileReader::startNs() const {
    if (!m_captureStartNs) {
        return std::nullopt;
    }
    return *m_captureStartNs + av_rescale(m_firstSample, 1000000000, SampleRate);
}

Result<int> AudioFileReader::read(float* samples, int frames) {
    int done = 0;
    while (done < frames) {
        if (m_silence > 0) {
            const int count = static_cast<int>(std::min<int64_t>(m_silence, frames - done));
            std::fill_n(samples + done * Channels, count * Channels, 0.0f);
            m_silence -= count;
            done += count;
        } else if (const int queued = av_audio_fifo_size(m_fifo.get()); queued > 0) {
            const int count = std::min(queued, frames - done);
            void* planes[1] = {samples + done * Channels};
            av_audio_fifo_read(m_fifo.get(), planes, count);
            done += count;
        } else if (m_ended) {
            break;
        } else if (Error error = decodeMore()) {
            return error;
        }
    }
    return done;
}

Error AudioFileReader::decodeMore() {
    for (;;) {
        int result = avcodec_receive_frame(m_decoder.get(), m_frame.get());
        if (result == 0) {
            Error error = queue(m_frame.get());
            av_frame_unref(m_frame.get());
            return error;
        }
        if (result == AVERROR_EOF || (result == AVERROR(EAGAIN) && m_flushed)) {
            m_ended = true;
            return flushResampler();
        }
        if (result != AVERROR(EAGAIN)) {
            return failed("cannot decode the sound of", m_path, result);
        }
        for (;;) {
            result = av_read_frame(m_input.get(), m_packet.get());
            if (result == AVERROR_EOF) {
                avcodec_send_packet(m_decoder.get(), nullptr);
                m_flushed = true;
                break;
            }
            if (result < 0) {
                return failed("cannot read", m_path, result);
            }
            if (m_packet->stream_index != m_stream) {
                av_packet_unref(m_packet.get());
                continue;
            }
            result = avcodec_send_packet(m_decoder.get(), m_packet.get());
            av_packet_unref(m_packet.get());
            // A damaged packet (the end of a movie cut off by a crash) is left out; its time
            // comes out as silence.
            if (result < 0 && result != AVERROR_INVALIDDATA) {
                return failed("cannot decode the sound of", m_path, result);
            }
            break;
        }
    }
}

Error AudioFileReader::queue(const AVFrame* frame) {
    if (!m_resampler) {
        AVChannelLayout stereo{}, input{};
        av_channel_layout_default(&stereo, Channels);
        if (const int copied = av_channel_layout_copy(&input, &frame->ch_layout); copied < 0) {
            return failed("cannot convert the sound of", m_path, copied);
        }
        SwrContext* resampler = nullptr;
        const int result =
            swr_alloc_set_opts2(&resampler, &stereo, AV_SAMPLE_FMT_FLT, SampleRate, &input,
                                static_cast<AVSampleFormat>(frame->format), frame->sample_rate, 0, nullptr);
        av_channel_layout_uninit(&input);
        m_resampler.reset(resampler);
        const int ready = result < 0 ? result : !resampler ? AVERROR(ENOMEM) : swr_init(resampler);
        if (ready < 0) {
            return failed("cannot convert the sound of", m_path, ready);
        }
    }
    const int64_t time = frame->best_effort_timestamp;
    const int64_t at = time == AV_NOPTS_VALUE
                           ? std::max<int64_t>(m_nextSample, 0)
                           : av_rescale_q(time, m_input->streams[m_stream]->time_base, SampleTime);
    if (m_nextSample < 0) {
        m_firstSample = m_nextSample = at;
    }
    int64_t drop = 0;
    if (at > m_nextSample + Slack) {
        m_silence = at - m_nextSample;
        m_nextSample = at;
    } else if (at < m_nextSample - Slack) {
        drop = m_nextSample - at;
    }
    const int room = swr_get_out_samples(m_resampler.get(), frame->nb_samples);
    m_converted.resize(static_cast<size_t>(std::max(room, 0)) * Channels);
    uint8_t* out[1] = {reinterpret_cast<uint8_t*>(m_converted.data())};
    const int count = swr_convert(m_resampler.get(), out, room,
                                  const_cast<const uint8_t**>(frame->extended_data), frame->nb_samples);
    if (count < 0) {
        return failed("cannot convert the sound of", m_path, count);
    }
    return append(m_converted.data(), count, drop);
}

Error AudioFileReader::append(const float* samples, int frames, int64_t drop) {
    const int skipped = static_cast<int>(std::min<int64_t>(drop, frames));
    void* planes[1] = {const_cast<float*>(samples + skipped * Channels)};
    if (av_audio_fifo_write(m_fifo.get(), planes, frames - skipped) < frames - skipped) {
        return failed("cannot convert the sound of", m_path, AVERROR(ENOMEM));
    }
    m_nextSample += frames - skipped;
    return {};
}

Error AudioFileReader::flushResampler() {
    if (!m_resampler) {
        return {};
    }
    const int room = swr_get_out_samples(m_resampler.get(), 0);
    if (room <= 0) {
        return {};
    }
    m_converted.resize(static_cast<size_t>(room) * Channels);
    uint8_t* out[1] = {reinterpret_cast<uint8_t*>(m_converted.data())};
    const int count = swr_convert(m_resampler.get(), out, room, nullptr, 0);
    return count <= 0 ? Error() : append(m_converted.data(), count, 0);
}

} // namespace zandor
