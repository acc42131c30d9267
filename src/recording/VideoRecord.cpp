#include "VideoRecord.h"

#include "Recorder.h"
#include "base/Log.h"
#include "capture/CaptureData.h"

extern "C" {
#include <libavutil/opt.h>
}

namespace zandor {

namespace {

constexpr AVRational Milliseconds{1, 1000};

} // namespace

const char* VideoRecord::encoderSpeed(const VideoQuality& preset) {
    return preset.maxKeyInterval() == 1 ? "ultrafast" : "veryfast";
}

VideoRecord::VideoRecord(LayoutPtr layout) : m_layout(std::move(layout)), m_name(m_layout->name()) {}

VideoRecord::VideoRecord(QString name, const QString& bundlePath, const CaptureSettings& settings)
    : m_name(std::move(name)) {
    setPaths(bundlePath, settings);
}

void VideoRecord::setPaths(const QString& bundlePath, const CaptureSettings& settings) {
    const QString name = Recorder::fileNamePart(m_name);
    m_recordPath = QStringLiteral("%1/Video%2.%3").arg(bundlePath, name, QStringLiteral("mov"));
    m_mergePath = QStringLiteral("%1/Merged%2.%3").arg(bundlePath, name, QStringLiteral("mp4"));
    m_convertPath = QStringLiteral("%1/Converted%2.%3").arg(bundlePath, name, QStringLiteral("mp4"));
    m_quality = VideoQuality::qualityNamed(settings.videoQuality);
    m_framesPerSecond = settings.framesPerSecond;
}

VideoRecord::~VideoRecord() {
    stop();
}

bool VideoRecord::start(const QString& bundlePath, const CaptureSettings& settings) {
    std::scoped_lock lock(m_lock);
    if (m_recording) {
        return false;
    }
    setPaths(bundlePath, settings);
    // A movie that is re-encoded at a fixed rate later is written near lossless first.
    VideoQualityPtr preset =
        m_framesPerSecond == QLatin1String("Original") ? m_quality : VideoQuality::recordingQuality();

    if (createWriter(*preset)) {
        m_recording = startWriter();
        m_sessionStarted = false;
    }
    return m_recording;
}

bool VideoRecord::createWriter(const VideoQuality& preset) {
    ff::routeLogging();
    const int width = static_cast<int>(m_layout->width());
    const int height = static_cast<int>(m_layout->height());
    if (!m_output.open(m_recordPath.toStdString(), "mov")) {
        return false;
    }
    const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
    m_stream = codec ? avformat_new_stream(m_output.get(), nullptr) : nullptr;
    if (!m_stream) {
        logs::recording.error("Error adding writers for video");
        return false;
    }
    m_encoder.reset(avcodec_alloc_context3(codec));
    AVCodecContext* encoder = m_encoder.get();
    encoder->width = width;
    encoder->height = height;
    // 4:2:0 plays everywhere but needs even sizes; a layout of odd size keeps full chroma.
    encoder->pix_fmt = (width % 2 == 0 && height % 2 == 0) ? AV_PIX_FMT_YUV420P : AV_PIX_FMT_YUV444P;
    encoder->time_base = Milliseconds;
    encoder->framerate = {60, 1};
    encoder->bit_rate = static_cast<int64_t>(preset.bitsPerSecond());
    encoder->gop_size = static_cast<int>(preset.maxKeyInterval());
    // No reordered frames: a fragmented movie has no edit list to hide the decoding delay they
    // add, and the first frame must play at time zero.
    encoder->max_b_frames = 0;
    encoder->thread_count = 1; // one core for all layouts of a recording; see encoderSpeed
    encoder->colorspace = AVCOL_SPC_SMPTE170M;
    encoder->color_range = AVCOL_RANGE_MPEG;
    if (m_output->oformat->flags & AVFMT_GLOBALHEADER) {
        encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    ff::Options options;
    options.set("preset", encoderSpeed(preset));
    if (!ff::check(avcodec_open2(encoder, codec, options.get()), "avcodec_open2") ||
        !ff::check(avcodec_parameters_from_context(m_stream->codecpar, encoder),
                   "avcodec_parameters_from_context")) {
        return false;
    }
    m_stream->time_base = Milliseconds;

    m_scaler.reset(sws_getContext(width, height, AV_PIX_FMT_RGB24, width, height, encoder->pix_fmt,
                                  SWS_BILINEAR | SWS_ACCURATE_RND, nullptr, nullptr, nullptr));
    if (!m_scaler) {
        logs::recording.error("Error creating pixel buffer adaptor");
        return false;
    }
    return true;
}

bool VideoRecord::startWriter() {
    m_frame.reset(av_frame_alloc());
    m_packet.reset(av_packet_alloc());
    if (!m_frame || !m_packet) {
        logs::recording.error("Error creating pixel buffer");
        return false;
    }
    m_frame->format = m_encoder->pix_fmt;
    m_frame->width = m_encoder->width;
    m_frame->height = m_encoder->height;
    if (!ff::check(av_frame_get_buffer(m_frame.get(), 0), "av_frame_get_buffer")) {
        logs::recording.error("Error creating pixel buffer");
        return false;
    }
    return true;
}

bool VideoRecord::writeHeader(std::chrono::system_clock::time_point firstFrame) {
    // The wall-clock time of the first frame, from which the merging tool lines up the sound.
    double captureStart = -1;
    if (firstFrame.time_since_epoch().count() != 0) {
        captureStart = std::chrono::duration<double>(firstFrame.time_since_epoch()).count();
    }
    m_headerWritten = ff::writeFragmentedHeader(m_output.get(), captureStart);
    return m_headerWritten;
}

bool VideoRecord::append(const CaptureData& frame) {
    std::scoped_lock lock(m_lock);
    if (!m_recording || m_writeError != 0) {
        return false;
    }
    const int64_t time = currentTime(frame.timestamp());
    if (!m_sessionStarted) {
        // The movie's time zero is the capture time of its first frame.
        m_sessionStart = time;
        m_sessionStarted = true;
        if (!writeHeader(frame.wallClock())) {
            return false;
        }
    }
    const int64_t pts = time - m_sessionStart;
    if (pts <= m_lastTime || !m_headerWritten) {
        return false;
    }
    const auto stride = static_cast<int>(m_layout->width() * 3);
    if (frame.size() < m_layout->size() ||
        !ff::check(av_frame_make_writable(m_frame.get()), "av_frame_make_writable")) {
        logs::recording.error("Could not lock base address");
        return false;
    }
    const uint8_t* source[1] = {frame.data()};
    sws_scale(m_scaler.get(), source, &stride, 0, m_encoder->height, m_frame->data, m_frame->linesize);
    m_frame->pts = pts;
    if (!encode(m_frame.get())) {
        // The output keeps the reason (AVERROR(ENOSPC) for a full disk); any write failure ends
        // the encoding, so that it is said once rather than once a frame.
        m_writeError = m_output->pb && m_output->pb->error < 0 ? m_output->pb->error : AVERROR(EIO);
        return false;
    }
    m_lastTime = pts;
    return true;
}

bool VideoRecord::encode(const AVFrame* frame) {
    // Frames come at the device's pace; until the next one arrives, a 60th of a second is the
    // best guess of how long a frame shows, and the muxer needs one to cut fragments.
    return ff::encodeAndWrite(m_encoder.get(), frame, m_packet.get(), m_output.get(), m_stream, 1000 / 60);
}

bool VideoRecord::writeFailed() {
    std::scoped_lock lock(m_lock);
    return m_writeError != 0;
}

bool VideoRecord::diskFull() {
    std::scoped_lock lock(m_lock);
    return m_writeError == AVERROR(ENOSPC);
}

bool VideoRecord::stop() {
    std::scoped_lock lock(m_lock);
    if (!m_recording) {
        return false;
    }
    m_recording = false;
    bool finished = stopWriter();
    if (!finished) {
        logs::recording.error("Could not finish the movie %s", qUtf8Printable(m_recordPath));
    }
    return finished;
}

bool VideoRecord::stopWriter() {
    // A recording stopped before its first frame still leaves a well-formed, empty movie. After a
    // failed write nothing more is tried: the fragments written so far play as they are.
    bool finished = m_writeError == 0 && (m_headerWritten || writeHeader({}));
    finished = finished && encode(nullptr);
    finished = finished && ff::check(av_write_trailer(m_output.get()), "av_write_trailer");
    m_output.close();
    m_frame.reset();
    m_scaler.reset();
    m_encoder.reset();
    return finished;
}

} // namespace zandor
