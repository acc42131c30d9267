#pragma once

// Small owning wrappers around FFmpeg's objects, so that each is freed in exactly one place, and
// the helpers that turn FFmpeg's error codes into our log lines.

#include "base/Error.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/dict.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace zandor::ff {

// av_strerror's text for an FFmpeg error code.
std::string errorText(int code);
// Logs "call: error text" and returns the Error, with FFmpeg's code, when `code` is negative; no
// Error otherwise. `path` is the file the call concerned, when there is one.
Error failure(int code, const char* call, const std::string& path = {});
// Logs "call: error text" and returns false when `code` is negative.
bool check(int code, const char* call);
// Sends FFmpeg's own warnings and errors to our log, once per process.
void routeLogging();

struct CodecContextFree {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct FrameFree {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct PacketFree {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct ScalerFree {
    void operator()(SwsContext* context) const { sws_freeContext(context); }
};
struct ResamplerFree {
    void operator()(SwrContext* context) const { swr_free(&context); }
};
struct AudioFifoFree {
    void operator()(AVAudioFifo* fifo) const { av_audio_fifo_free(fifo); }
};
struct CodecParametersFree {
    void operator()(AVCodecParameters* parameters) const { avcodec_parameters_free(&parameters); }
};
struct InputFree {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};

using CodecContext = std::unique_ptr<AVCodecContext, CodecContextFree>;
using Frame = std::unique_ptr<AVFrame, FrameFree>;
using Packet = std::unique_ptr<AVPacket, PacketFree>;
using Scaler = std::unique_ptr<SwsContext, ScalerFree>;
using InputContext = std::unique_ptr<AVFormatContext, InputFree>;
using Resampler = std::unique_ptr<SwrContext, ResamplerFree>;
using AudioFifo = std::unique_ptr<AVAudioFifo, AudioFifoFree>;
using CodecParameters = std::unique_ptr<AVCodecParameters, CodecParametersFree>;

// An AVDictionary of options, freed once; FFmpeg removes the entries it used.
class Options {
public:
    Options() = default;
    ~Options() { av_dict_free(&m_dictionary); }
    Options(const Options&) = delete;
    Options& operator=(const Options&) = delete;

    Options& set(const char* key, const std::string& value) {
        av_dict_set(&m_dictionary, key, value.c_str(), 0);
        return *this;
    }
    AVDictionary** get() { return &m_dictionary; }
    // The first entry FFmpeg did not use, or empty.
    std::string unused() const;

private:
    AVDictionary* m_dictionary = nullptr;
};

// An output file being muxed: owns the format context and its I/O. close() finishes nothing by
// itself; writeTrailer() does that.
class OutputContext {
public:
    OutputContext() = default;
    ~OutputContext();
    OutputContext(const OutputContext&) = delete;
    OutputContext& operator=(const OutputContext&) = delete;

    // Allocates the context for `path` in the named container ("mov", "mp4", ...) and opens the
    // file for writing. The Error, logged, on failure.
    Error open(const std::string& path, const char* formatName);
    AVFormatContext* get() const { return m_context; }
    AVFormatContext* operator->() const { return m_context; }
    // Closes the file; safe to call more than once.
    void close();

private:
    AVFormatContext* m_context = nullptr;
};

// Sends a frame (null to flush) to the encoder and writes every packet it gives back to `stream` of
// `output`. A packet without a duration gets `defaultDuration`, in the encoder's time base.
bool encodeAndWrite(AVCodecContext* encoder, const AVFrame* frame, AVPacket* packet, AVFormatContext* output,
                    AVStream* stream, int64_t defaultDuration = 0);

// The metadata key holding the wall-clock time of a movie's time zero, in seconds since the Unix
// epoch as decimal text.
inline constexpr const char* CaptureStartKey = "zandor_capture_start";

// Names in the metadata "zandor_capture_start" of a movie (before its header is written) the
// wall-clock seconds of its time zero, from which its tracks are lined up with others. The muxer
// writes it with the movflags "use_metadata_tags".
void setCaptureStart(AVFormatContext* output, double captureStart);

// Writes the header of a fragmented QuickTime movie (a fragment every half second, each written
// to the file at once, so that a crash leaves a playable file) whose metadata "zandor_capture_start"
// holds `captureStart`, the wall-clock seconds of its time zero, when given (not negative).
Error writeFragmentedHeader(AVFormatContext* output, double captureStart);

// The capture start a movie's metadata holds, in nanoseconds since the epoch, read exactly; unset
// when there is none or it is not a number.
std::optional<int64_t> captureStartNs(const AVDictionary* metadata);

// Opens an input file and reads its stream information. Null, with the reason in `error`, on failure.
Result<InputContext> openInput(const std::string& path);

} // namespace zandor::ff
