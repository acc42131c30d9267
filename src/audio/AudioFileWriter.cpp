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

bool AudioFileWriter::open(const std::string& path, AVSampleFormat inputFormat, int inputRate,
                           int inputChannels) {
    if (!m_output.open(path, "mov")) {
        return false;
    }
    m_stream = avformat_new_stream(m_output.get(), nullptr);
    if (!m_stream || !m_encoder.open(inputFormat, inputRate, inputChannels,
                                     (m_output->oformat->flags & AVFMT_GLOBALHEADER) != 0)) {
        logs::recording.error("Could not add an audio track to %s", path.c_str());
        return false;
    }
    if (!ff::check(avcodec_parameters_from_context(m_stream->codecpar, m_encoder.context()),
                   "avcodec_parameters_from_context")) {
        return false;
    }
    m_stream->time_base = m_encoder.context()->time_base;
    m_timeBase = m_encoder.context()->time_base;
    return true;
}

bool AudioFileWriter::writeHeader(std::chrono::system_clock::time_point timeZero) {
    m_headerWritten = ff::writeFragmentedHeader(
        m_output.get(), std::chrono::duration<double>(timeZero.time_since_epoch()).count());
    return m_headerWritten;
}

bool AudioFileWriter::writePacket(AVPacket* packet) {
    av_packet_rescale_ts(packet, m_timeBase, m_stream->time_base);
    packet->stream_index = m_stream->index;
    return ff::check(av_interleaved_write_frame(m_output.get(), packet), "av_interleaved_write_frame");
}

bool AudioFileWriter::begin(std::chrono::system_clock::time_point start) {
    if (!m_encoder.isOpen() || m_encoder.hasStarted()) {
        return false;
    }
    m_encoder.start(start);
    return writeHeader(m_encoder.timeZero());
}

bool AudioFileWriter::write(const uint8_t* samples, int frames,
                            std::chrono::system_clock::time_point captured) {
    if (!m_encoder.isOpen()) {
        return false;
    }
    const auto sink = [this](AVPacket* packet) { return writePacket(packet); };
    if (!m_encoder.hasStarted()) {
        // Time zero of the movie is the priming, which plays before the first captured sample: the
        // header needs it before the first packet.
        m_encoder.start(captured);
        if (!writeHeader(m_encoder.timeZero())) {
            return false;
        }
    }
    return m_headerWritten && m_encoder.write(samples, frames, captured, sink);
}

bool AudioFileWriter::finish(std::optional<std::chrono::system_clock::time_point> end) {
    if (!m_encoder.isOpen()) {
        return false;
    }
    bool finished = m_headerWritten || writeHeader(std::chrono::system_clock::now());
    finished = finished && m_encoder.finish([this](AVPacket* packet) { return writePacket(packet); }, end) &&
               ff::check(av_write_trailer(m_output.get()), "av_write_trailer");
    m_output.close();
    return finished;
}

} // namespace zandor
