#include "AudioFileReader.h"

#include <algorithm>
#include <vector>

namespace zandor {

namespace {

constexpr AVRational SampleTime{1, AudioFileReader::SampleRate};
// Frames' times are rounded; a gap or an overlap up to this many samples is no gap.
constexpr int64_t Slack = 32;

} // namespace

bool AudioFileReader::open(const std::string& path, std::string& error) {
    m_path = path;
    auto opened = ff::openInput(path);
    if (!opened) {
        error = opened.error().logLine();
        return false;
    }
    m_input = std::move(*opened);
    const AVCodec* codec = nullptr;
    m_stream = av_find_best_stream(m_input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
    if (m_stream < 0 || !codec) {
        error = "'" + path + "' has no sound track that can be decoded";
        return false;
    }
    const AVStream* stream = m_input->streams[m_stream];
    m_decoder.reset(avcodec_alloc_context3(codec));
    m_fifo.reset(av_audio_fifo_alloc(AV_SAMPLE_FMT_FLT, Channels, SampleRate));
    m_frame.reset(av_frame_alloc());
    m_packet.reset(av_packet_alloc());
    if (!m_decoder || !m_fifo || !m_frame || !m_packet) {
        error = "out of memory";
        return false;
    }
    int result = avcodec_parameters_to_context(m_decoder.get(), stream->codecpar);
    m_decoder->pkt_timebase = stream->time_base;
    if (result >= 0) {
        result = avcodec_open2(m_decoder.get(), codec, nullptr);
    }
    if (result < 0) {
        error = "cannot decode the sound of '" + path + "': " + ff::errorText(result);
        return false;
    }
    m_captureStartNs = ff::captureStartNs(m_input->metadata);
    // The first samples tell where the sound starts.
    while (av_audio_fifo_size(m_fifo.get()) == 0 && m_silence == 0 && !m_ended) {
        if (!decodeMore(error)) {
            return false;
        }
    }
    if (m_nextSample < 0) {
        error = "'" + path + "' holds no sound";
        return false;
    }
    return true;
}

std::optional<int64_t> AudioFileReader::startNs() const {
    if (!m_captureStartNs) {
        return std::nullopt;
    }
    return *m_captureStartNs + av_rescale(m_firstSample, 1000000000, SampleRate);
}

int AudioFileReader::read(float* samples, int frames, std::string& error) {
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
        } else if (!decodeMore(error)) {
            return -1;
        }
    }
    return done;
}

bool AudioFileReader::decodeMore(std::string& error) {
    for (;;) {
        int result = avcodec_receive_frame(m_decoder.get(), m_frame.get());
        if (result == 0) {
            const bool queued = queue(m_frame.get(), error);
            av_frame_unref(m_frame.get());
            return queued;
        }
        if (result == AVERROR_EOF || (result == AVERROR(EAGAIN) && m_flushed)) {
            m_ended = true;
            return flushResampler(error);
        }
        if (result != AVERROR(EAGAIN)) {
            error = "cannot decode the sound of '" + m_path + "': " + ff::errorText(result);
            return false;
        }
        for (;;) {
            result = av_read_frame(m_input.get(), m_packet.get());
            if (result == AVERROR_EOF) {
                avcodec_send_packet(m_decoder.get(), nullptr);
                m_flushed = true;
                break;
            }
            if (result < 0) {
                error = "cannot read '" + m_path + "': " + ff::errorText(result);
                return false;
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
                error = "cannot decode the sound of '" + m_path + "': " + ff::errorText(result);
                return false;
            }
            break;
        }
    }
}

bool AudioFileReader::queue(const AVFrame* frame, std::string& error) {
    if (!m_resampler) {
        AVChannelLayout stereo{}, input{};
        av_channel_layout_default(&stereo, Channels);
        if (av_channel_layout_copy(&input, &frame->ch_layout) < 0) {
            error = "out of memory";
            return false;
        }
        SwrContext* resampler = nullptr;
        const int result =
            swr_alloc_set_opts2(&resampler, &stereo, AV_SAMPLE_FMT_FLT, SampleRate, &input,
                                static_cast<AVSampleFormat>(frame->format), frame->sample_rate, 0, nullptr);
        av_channel_layout_uninit(&input);
        m_resampler.reset(resampler);
        if (result < 0 || !resampler || swr_init(resampler) < 0) {
            error = "cannot convert the sound of '" + m_path + "'";
            return false;
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
        error = "cannot convert the sound of '" + m_path + "': " + ff::errorText(count);
        return false;
    }
    return append(m_converted.data(), count, drop, error);
}

bool AudioFileReader::append(const float* samples, int frames, int64_t drop, std::string& error) {
    const int skipped = static_cast<int>(std::min<int64_t>(drop, frames));
    void* planes[1] = {const_cast<float*>(samples + skipped * Channels)};
    if (av_audio_fifo_write(m_fifo.get(), planes, frames - skipped) < frames - skipped) {
        error = "out of memory";
        return false;
    }
    m_nextSample += frames - skipped;
    return true;
}

bool AudioFileReader::flushResampler(std::string& error) {
    if (!m_resampler) {
        return true;
    }
    const int room = swr_get_out_samples(m_resampler.get(), 0);
    if (room <= 0) {
        return true;
    }
    m_converted.resize(static_cast<size_t>(room) * Channels);
    uint8_t* out[1] = {reinterpret_cast<uint8_t*>(m_converted.data())};
    const int count = swr_convert(m_resampler.get(), out, room, nullptr, 0);
    return count <= 0 || append(m_converted.data(), count, 0, error);
}

} // namespace zandor
