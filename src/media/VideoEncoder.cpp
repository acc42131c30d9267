#include "VideoEncoder.h"

namespace zandor {
namespace {

Error failed(std::string_view step, int code) {
    return Error::library(Error::Domain::FFmpeg, std::string(step), {}, code, ff::errorText(code));
}

} // namespace

Error VideoEncoder::open(const Settings& settings) {
    close();
    ff::routeLogging();
    const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
    if (!codec) {
        return failed(CodecStep, AVERROR_ENCODER_NOT_FOUND);
    }
    m_encoder.reset(avcodec_alloc_context3(codec));
    if (!m_encoder) {
        return failed(CodecStep, AVERROR(ENOMEM));
    }
    AVCodecContext* encoder = m_encoder.get();
    encoder->width = settings.width;
    encoder->height = settings.height;
    // 4:2:0 plays everywhere but needs even sizes; a layout of odd size keeps full chroma.
    encoder->pix_fmt =
        (settings.width % 2 == 0 && settings.height % 2 == 0) ? AV_PIX_FMT_YUV420P : AV_PIX_FMT_YUV444P;
    encoder->time_base = settings.timeBase;
    encoder->framerate = {60, 1};
    encoder->bit_rate = settings.bitsPerSecond;
    encoder->gop_size = settings.keyInterval;
    // No reordered frames: a fragmented movie has no edit list to hide the decoding delay they
    // add, and the first frame must play at time zero.
    encoder->max_b_frames = 0;
    encoder->thread_count = 1; // one core for all layouts of a recording
    encoder->colorspace = AVCOL_SPC_SMPTE170M;
    encoder->color_range = AVCOL_RANGE_MPEG;
    if (settings.globalHeader) {
        encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    ff::Options options;
    options.set("preset", settings.speed);
    // A picture asked to be a key frame starts a new closed group, so that it can start a movie.
    options.set("forced-idr", "1");
    if (const Error error = ff::failure(avcodec_open2(encoder, codec, options.get()), "avcodec_open2")) {
        m_encoder.reset();
        return failed(CodecStep, error.code());
    }
    m_scaler.reset(sws_getContext(settings.width, settings.height, AV_PIX_FMT_RGB24, settings.width,
                                  settings.height, encoder->pix_fmt, SWS_BILINEAR | SWS_ACCURATE_RND, nullptr,
                                  nullptr, nullptr));
    if (!m_scaler) {
        close();
        // libswscale gives no code; it converts these formats always, so only memory can be short.
        return failed(ScalerStep, AVERROR(ENOMEM));
    }
    m_frame.reset(av_frame_alloc());
    if (!m_frame) {
        close();
        return failed(PictureStep, AVERROR(ENOMEM));
    }
    m_frame->format = encoder->pix_fmt;
    m_frame->width = settings.width;
    m_frame->height = settings.height;
    if (const Error error = ff::failure(av_frame_get_buffer(m_frame.get(), 0), "av_frame_get_buffer")) {
        close();
        return failed(PictureStep, error.code());
    }
    return {};
}

void VideoEncoder::close() {
    m_converted = false;
    m_frame.reset();
    m_scaler.reset();
    m_encoder.reset();
}

const AVFrame* VideoEncoder::picture(const uint8_t* rgb, int64_t pts, bool key) {
    if (!m_frame || !ff::check(av_frame_make_writable(m_frame.get()), "av_frame_make_writable")) {
        return nullptr;
    }
    const int stride = m_encoder->width * 3;
    const uint8_t* source[1] = {rgb};
    sws_scale(m_scaler.get(), source, &stride, 0, m_encoder->height, m_frame->data, m_frame->linesize);
    m_frame->pts = pts;
    m_frame->pict_type = key ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    m_converted = true;
    return m_frame.get();
}

const AVFrame* VideoEncoder::repeat(int64_t pts) {
    if (!m_converted) {
        return nullptr;
    }
    // The encoder copied the picture when it took it: the frame still holds it unchanged.
    m_frame->pts = pts;
    m_frame->pict_type = AV_PICTURE_TYPE_NONE;
    return m_frame.get();
}

} // namespace zandor
