#include "FFmpeg.h"

#include "base/Log.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace zandor::ff {

std::string errorText(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

Error failure(int code, const char* call, const std::string& path) {
    if (code >= 0) {
        return {};
    }
    const std::string text = errorText(code);
    logs::media.error("%s: %s", call, text.c_str());
    return Error::library(Error::Domain::FFmpeg, call, path, code, text);
}

bool check(int code, const char* call) {
    return !failure(code, call);
}

namespace {

void logCallback(void* object, int level, const char* format, va_list arguments) {
    if (level > AV_LOG_WARNING) {
        return;
    }
    char line[1024];
    int prefix = 1;
    av_log_format_line2(object, level, format, arguments, line, sizeof line, &prefix);
    std::string text(line);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
        text.pop_back();
    }
    if (!text.empty()) {
        if (level <= AV_LOG_ERROR) {
            logs::media.error("%s", text.c_str());
        } else {
            logs::media.warning("%s", text.c_str());
        }
    }
}

} // namespace

void routeLogging() {
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_callback(logCallback); });
}

std::string Options::unused() const {
    const AVDictionaryEntry* entry = av_dict_get(m_dictionary, "", nullptr, AV_DICT_IGNORE_SUFFIX);
    return entry ? entry->key : "";
}

OutputContext::~OutputContext() {
    close();
    avformat_free_context(m_context);
}

Error OutputContext::open(const std::string& path, const char* formatName) {
    routeLogging();
    if (Error error = failure(avformat_alloc_output_context2(&m_context, nullptr, formatName, path.c_str()),
                              "avformat_alloc_output_context2", path)) {
        return error;
    }
    return failure(avio_open(&m_context->pb, path.c_str(), AVIO_FLAG_WRITE), "avio_open", path);
}

void OutputContext::close() {
    if (m_context && m_context->pb) {
        avio_closep(&m_context->pb);
    }
}

bool encodeAndWrite(AVCodecContext* encoder, const AVFrame* frame, AVPacket* packet, AVFormatContext* output,
                    AVStream* stream, int64_t defaultDuration) {
    if (!check(avcodec_send_frame(encoder, frame), "avcodec_send_frame")) {
        return false;
    }
    for (;;) {
        int result = avcodec_receive_packet(encoder, packet);
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) {
            return true;
        }
        if (!check(result, "avcodec_receive_packet")) {
            return false;
        }
        if (packet->duration == 0) {
            packet->duration = defaultDuration;
        }
        av_packet_rescale_ts(packet, encoder->time_base, stream->time_base);
        packet->stream_index = stream->index;
        if (!check(av_interleaved_write_frame(output, packet), "av_interleaved_write_frame")) {
            return false;
        }
    }
}

void setCaptureStart(AVFormatContext* output, double captureStart) {
    char start[64];
    std::snprintf(start, sizeof start, "%.6f", captureStart);
    av_dict_set(&output->metadata, CaptureStartKey, start, 0);
}

Error writeFragmentedHeader(AVFormatContext* output, double captureStart) {
    if (captureStart >= 0) {
        setCaptureStart(output, captureStart);
    }
    Options options;
    options.set("movflags", "empty_moov+default_base_moof+use_metadata_tags");
    options.set("frag_duration", "500000");
    options.set("flush_packets", "1");
    return failure(avformat_write_header(output, options.get()), "avformat_write_header",
                   output->url ? output->url : "");
}

std::optional<int64_t> captureStartNs(const AVDictionary* metadata) {
    const AVDictionaryEntry* entry = av_dict_get(metadata, CaptureStartKey, nullptr, 0);
    if (!entry) {
        return std::nullopt;
    }
    // "[-]seconds[.fraction]", parsed without floating point; digits past the ninth are ignored.
    const char* c = entry->value;
    bool negative = false;
    if (*c == '-' || *c == '+') {
        negative = *c == '-';
        ++c;
    }
    if (!std::isdigit(static_cast<unsigned char>(*c))) {
        return std::nullopt;
    }
    int64_t seconds = 0;
    for (; std::isdigit(static_cast<unsigned char>(*c)); ++c) {
        if (seconds > INT64_MAX / 1000000000 / 10) {
            return std::nullopt;
        }
        seconds = seconds * 10 + (*c - '0');
    }
    int64_t fraction = 0;
    int64_t scale = 100000000;
    if (*c == '.') {
        for (++c; std::isdigit(static_cast<unsigned char>(*c)); ++c) {
            fraction += (*c - '0') * scale;
            scale /= 10;
        }
    }
    if (*c != '\0') {
        return std::nullopt;
    }
    const int64_t total = seconds * 1000000000 + fraction;
    return negative ? -total : total;
}

Result<InputContext> openInput(const std::string& path) {
    routeLogging();
    AVFormatContext* raw = nullptr;
    int result = avformat_open_input(&raw, path.c_str(), nullptr, nullptr);
    if (result < 0) {
        return Error::library(Error::Domain::FFmpeg, "cannot open", path, result, errorText(result));
    }
    InputContext input(raw);
    result = avformat_find_stream_info(input.get(), nullptr);
    if (result < 0) {
        return Error::library(Error::Domain::FFmpeg, "cannot read the streams of", path, result,
                              errorText(result));
    }
    return input;
}

} // namespace zandor::ff
