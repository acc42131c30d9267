#include "TrackSource.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace zandor {

namespace {

constexpr AVRational Nanoseconds{1, 1000000000};

// The tag the output should use for a copied stream: the input's when the output format knows
// it for the same codec, otherwise none, so the muxer chooses.
uint32_t outputCodecTag(const AVOutputFormat* format, const AVCodecParameters* parameters) {
    if (!format->codec_tag ||
        av_codec_get_id(format->codec_tag, parameters->codec_tag) == parameters->codec_id) {
        return parameters->codec_tag;
    }
    return 0;
}

void copySideData(const AVStream* from, AVStream* to) {
    for (int i = 0; i < from->nb_side_data; ++i) {
        const AVPacketSideData& entry = from->side_data[i];
        uint8_t* data = av_stream_new_side_data(to, entry.type, entry.size);
        if (data) {
            memcpy(data, entry.data, entry.size);
        }
    }
}

} // namespace

bool TrackSource::open(std::string& error) {
    auto opened = ff::openInput(m_path);
    if (!opened) {
        error = opened.error().logLine();
        return false;
    }
    m_input = std::move(*opened);
    return true;
}

std::optional<int64_t> TrackSource::captureStartNs() const {
    return ff::captureStartNs(m_input->metadata);
}

std::optional<int64_t> TrackSource::pictureEndNs() const {
    std::optional<int64_t> end;
    for (unsigned i = 0; i < m_input->nb_streams; ++i) {
        const AVStream* stream = m_input->streams[i];
        if (stream->codecpar->codec_type != AVMEDIA_TYPE_VIDEO || stream->duration <= 0 ||
            (stream->disposition & AV_DISPOSITION_ATTACHED_PIC)) {
            continue;
        }
        const int64_t start = stream->start_time == AV_NOPTS_VALUE ? 0 : stream->start_time;
        const int64_t streamEnd = av_rescale_q(start + stream->duration, stream->time_base, Nanoseconds);
        end = end ? std::max(*end, streamEnd) : streamEnd;
    }
    return end;
}

int TrackSource::addStreams(AVFormatContext* output) {
    int added = 0;
    for (unsigned i = 0; i < m_input->nb_streams; ++i) {
        const AVStream* input = m_input->streams[i];
        const AVCodecParameters* parameters = input->codecpar;
        const AVMediaType type = parameters->codec_type;
        if (type != AVMEDIA_TYPE_VIDEO && type != AVMEDIA_TYPE_AUDIO && type != AVMEDIA_TYPE_SUBTITLE) {
            continue;
        }
        if (input->disposition & AV_DISPOSITION_ATTACHED_PIC) {
            continue;
        }
        if (avformat_query_codec(output->oformat, parameters->codec_id, FF_COMPLIANCE_NORMAL) != 1) {
            continue;
        }
        AVStream* stream = avformat_new_stream(output, nullptr);
        if (!stream || avcodec_parameters_copy(stream->codecpar, parameters) < 0) {
            continue;
        }
        stream->codecpar->codec_tag = outputCodecTag(output->oformat, parameters);
        stream->time_base = input->time_base;
        stream->sample_aspect_ratio = input->sample_aspect_ratio;
        stream->avg_frame_rate = input->avg_frame_rate;
        stream->r_frame_rate = input->r_frame_rate;
        stream->disposition = input->disposition;
        av_dict_copy(&stream->metadata, input->metadata, 0);
        copySideData(input, stream);

        Track track;
        track.inputIndex = static_cast<int>(i);
        track.output = stream;
        track.shift = av_rescale_q(m_offsetNs, Nanoseconds, input->time_base);
        track.trimming = m_offsetNs < 0;
        m_tracks.push_back(std::move(track));
        ++added;
    }
    return added;
}

TrackSource::Track* TrackSource::trackOf(int inputIndex) {
    for (Track& track : m_tracks) {
        if (track.inputIndex == inputIndex) {
            return &track;
        }
    }
    return nullptr;
}

void TrackSource::place(Track& track, ff::Packet packet) {
    if (!track.trimming) {
        m_ready.push_back(std::move(packet));
        return;
    }
    const int64_t start = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
    const bool key = packet->flags & AV_PKT_FLAG_KEY;
    if (start == AV_NOPTS_VALUE || start + std::max<int64_t>(packet->duration, 0) <= 0) {
        // Entirely before time zero: only needed when a later frame refers back to it.
        if (key) {
            track.preRoll.clear();
        }
        track.preRoll.push_back(std::move(packet));
        return;
    }
    // The first packet reaching time zero. A key frame needs nothing before it; otherwise the
    // frames since the last key frame go along, and the muxer's edit list hides them.
    if (!key) {
        for (ff::Packet& held : track.preRoll) {
            m_ready.push_back(std::move(held));
        }
    }
    track.preRoll.clear();
    track.trimming = false;
    m_ready.push_back(std::move(packet));
}

int TrackSource::next(ff::Packet& packet, std::string& error) {
    while (m_ready.empty() && !m_ended) {
        ff::Packet read(av_packet_alloc());
        if (!read) {
            error = "out of memory";
            return -1;
        }
        const int result = av_read_frame(m_input.get(), read.get());
        if (result == AVERROR_EOF) {
            m_ended = true;
            break;
        }
        if (result < 0) {
            error = "cannot read '" + m_path + "': " + ff::errorText(result);
            return -1;
        }
        Track* track = trackOf(read->stream_index);
        if (!track) {
            continue;
        }
        if (read->pts != AV_NOPTS_VALUE) {
            read->pts += track->shift;
        }
        if (read->dts != AV_NOPTS_VALUE) {
            read->dts += track->shift;
        }
        place(*track, std::move(read));
    }
    if (m_ready.empty()) {
        return 0;
    }
    packet = std::move(m_ready.front());
    m_ready.pop_front();
    const Track* track = trackOf(packet->stream_index);
    av_packet_rescale_ts(packet.get(), m_input->streams[packet->stream_index]->time_base,
                         track->output->time_base);
    packet->stream_index = track->output->index;
    packet->pos = -1;
    return 1;
}

} // namespace zandor
