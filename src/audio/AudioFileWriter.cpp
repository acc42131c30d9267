#include "AudioFileWriter.h"

#include "base/Log.h"

namespace zandor {

AVSampleFormat AudioFileWriter::sampleFormat(QAudioFormat::SampleFormat format) {
    switch (format) {
    case QAudioFormat::UInt8:
        return AV_SAMPLE_FMT_U8;
    case QAudioFormat::Int16:
        return AV_SAMPLE_FMT_S16;
    case QAudioFormat::Int32:
        return AV_SAMPLE_FMT_S32;
    case QAudioFormat::Float:
        return AV_SAMPLE_FMT_FLT;
    default:
        return AV_SAMPLE_FMT_NONE;
    }
}

Error AudioFileWriter::open(const std::string& path, AVSampleFormat inputFormat, int inputRate,
                            int inputChannels) {
    m_path = path;
    if (Error error = m_output.open(path, "mov")) {
        return error;
    }
    m_stream = avformat_new_stream(m_output.get(), nullptr);
    Error error = m_stream ? m_encoder.open(inputFormat, inputRate, inputChannels,
                                            (m_output->oformat->flags & AVFMT_GLOBALHEADER) != 0)
                           : Error::library(Error::Domain::FFmpeg, "avformat_new_stream", path,
                                            AVERROR(ENOMEM), ff::errorText(AVERROR(ENOMEM)));
    if (error) {
        logs::recording.error("Could not add an audio track to %s", path.c_str());
        return error;
    }
    if (Error error = ff::failure(avcodec_parameters_from_context(m_stream->codecpar, m_encoder.context()),
                                  "avcodec_parameters_from_context", path)) {
        return error;
    }
    m_stream->time_base = m_encoder.context()->time_base;
    m_timeBase = m_encoder.context()->time_base;
    return {};
}

Error AudioFileWriter::writeHeader(std::chrono::system_clock::time_point timeZero) {
    Error error = ff::writeFragmentedHeader(
        m_output.get(), std::chrono::duration<double>(timeZero.time_since_epoch()).count());
    m_headerWritten = !error;
    return error;
}

Error AudioFileWriter::writePacket(AVPacket* packet) {
    av_packet_rescale_ts(packet, m_timeBase, m_stream->time_base);
    packet->stream_index = m_stream->index;
    return ff::failure(av_interleaved_write_frame(m_output.get(), packet), "av_interleaved_write_frame",
                       m_path);
}

Error AudioFileWriter::begin(std::chrono::system_clock::time_point start) {
    if (!m_encoder.isOpen() || m_encoder.hasStarted()) {
        return Error::other("start the sound", m_path, "it is not open or has started");
    }
    m_encoder.start(start);
    return writeHeader(m_encoder.timeZero());
}

Error AudioFileWriter::write(const uint8_t* samples, int frames,
                             std::chrono::system_clock::time_point captured) {
    if (!m_encoder.isOpen()) {
        return Error::other("write sound", m_path, "it is not open");
    }
    if (!m_encoder.hasStarted()) {
        // Time zero of the movie is the priming, which plays before the first captured sample: the
        // header needs it before the first packet.
        m_encoder.start(captured);
        if (Error error = writeHeader(m_encoder.timeZero())) {
            return error;
        }
    }
    if (!m_headerWritten) {
        return Error::other("write sound", m_path, "its header could not be written");
    }
    return m_encoder.write(samples, frames, captured,
                           [this](AVPacket* packet) { return writePacket(packet); });
}

Error AudioFileWriter::finish(std::optional<std::chrono::system_clock::time_point> end) {
    if (!m_encoder.isOpen()) {
        return Error::other("finish sound", m_path, "it is not open");
    }
    Error error = m_headerWritten ? Error() : writeHeader(std::chrono::system_clock::now());
    if (!error) {
        error = m_encoder.finish([this](AVPacket* packet) { return writePacket(packet); }, end);
    }
    if (!error) {
        error = ff::failure(av_write_trailer(m_output.get()), "av_write_trailer", m_path);
    }
    m_output.close();
    return error;
}

} // namespace zandor
