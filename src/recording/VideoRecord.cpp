#include "VideoRecord.h"

#include "Recorder.h"
#include "base/Log.h"
#include "capture/CaptureData.h"
#include "capture/CaptureDevice.h"

extern "C" {
#include <libavutil/opt.h>
}

namespace zandor {

namespace {

// A movie's picture runs at the board's nominal rate: one tick a frame slot.
constexpr AVRational FrameSlots{1, CaptureDevice::NominalFramesPerSecond};

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
    std::scoped_lock lock(m_lock);
    if (m_recording) {
        if (const Error error = stop()) {
            logs::recording.error("The movie was left unfinished: %s", error.logLine().c_str());
        }
    }
}

Error VideoRecord::start(const QString& bundlePath, const CaptureSettings& settings) {
    std::scoped_lock lock(m_lock);
    if (m_recording) {
        return Error::other("start the movie", m_recordPath.toStdString(), "it is recording already");
    }
    setPaths(bundlePath, settings);
    // A movie that is re-encoded at a fixed rate later is written near lossless first.
    VideoQualityPtr preset =
        m_framesPerSecond == QLatin1String("Original") ? m_quality : VideoQuality::recordingQuality();

    Error error = createWriter(*preset);
    if (!error) {
        m_recording = true;
        m_sessionStarted = false;
    }
    return error;
}

Error VideoRecord::createWriter(const VideoQuality& preset) {
    const std::string path = m_recordPath.toStdString();
    if (Error error = m_output.open(path, "mov")) {
        return error;
    }
    m_stream = avformat_new_stream(m_output.get(), nullptr);
    VideoEncoder::Settings settings;
    settings.width = static_cast<int>(m_layout->width());
    settings.height = static_cast<int>(m_layout->height());
    settings.bitsPerSecond = static_cast<int64_t>(preset.bitsPerSecond());
    settings.keyInterval = static_cast<int>(preset.maxKeyInterval());
    settings.speed = encoderSpeed(preset);
    settings.globalHeader = (m_output->oformat->flags & AVFMT_GLOBALHEADER) != 0;
    settings.timeBase = FrameSlots;
    const Error error = m_stream ? m_encoder.open(settings)
                                 : Error::library(Error::Domain::FFmpeg, "avformat_new_stream", path,
                                                  AVERROR(ENOMEM), ff::errorText(AVERROR(ENOMEM)));
    if (error) {
        logs::recording.error("%s",
                              error.step() == VideoEncoder::ScalerStep ? "Error creating pixel buffer adaptor"
                              : error.step() == VideoEncoder::PictureStep ? "Error creating pixel buffer"
                                                                          : "Error adding writers for video");
        return error;
    }
    if (Error error = ff::failure(avcodec_parameters_from_context(m_stream->codecpar, m_encoder.context()),
                                  "avcodec_parameters_from_context", path)) {
        return error;
    }
    m_stream->time_base = FrameSlots;
    m_packet.reset(av_packet_alloc());
    if (!m_packet) {
        logs::recording.error("Error creating pixel buffer");
        return Error::library(Error::Domain::FFmpeg, "av_packet_alloc", path, AVERROR(ENOMEM),
                              ff::errorText(AVERROR(ENOMEM)));
    }
    return {};
}

Error VideoRecord::writeHeader(std::chrono::system_clock::time_point firstFrame) {
    // The wall-clock time of the first frame, from which the merging tool lines up the sound.
    double captureStart = -1;
    if (firstFrame.time_since_epoch().count() != 0) {
        captureStart = std::chrono::duration<double>(firstFrame.time_since_epoch()).count();
    }
    Error error = ff::writeFragmentedHeader(m_output.get(), captureStart);
    m_headerWritten = !error;
    return error;
}

bool VideoRecord::append(const CaptureData& frame) {
    std::scoped_lock lock(m_lock);
    if (!m_recording || m_writeError != 0) {
        return false;
    }
    if (!m_sessionStarted) {
        // The movie's time zero is the first frame, and its wall-clock time places the sound.
        m_firstNumber = frame.number();
        m_sessionStarted = true;
        m_sessionStartWallClock = frame.wallClock();
        if (writeHeader(frame.wallClock())) {
            return false;
        }
    }
    if (frame.number() < m_firstNumber || !m_headerWritten) {
        return false;
    }
    const auto slot = static_cast<int64_t>(frame.number() - m_firstNumber);
    if (slot <= m_lastSlot) {
        return false;
    }
    if (frame.size() < m_layout->size()) {
        logs::recording.error("Could not lock base address");
        return false;
    }
    // Slots whose frames were dropped on the way show the picture before them again, so that every
    // frame of the movie lasts one period. The encoder turns an unchanged picture into a few bytes.
    for (int64_t missing = m_lastSlot + 1; m_lastSlot >= 0 && missing < slot; ++missing) {
        // Never null here (a picture was encoded before), which would flush the encoder instead.
        const AVFrame* again = m_encoder.repeat(missing);
        if (again && !encode(again)) {
            return keepWriteError();
        }
    }
    const AVFrame* picture = m_encoder.picture(frame.data(), slot, false);
    if (!picture) {
        logs::recording.error("Could not lock base address");
        return false;
    }
    if (!encode(picture)) {
        return keepWriteError();
    }
    m_lastSlot = slot;
    return true;
}

bool VideoRecord::keepWriteError() {
    // The output keeps the reason (AVERROR(ENOSPC) for a full disk); any write failure ends the
    // encoding, so that it is said once rather than once a frame.
    m_writeError = m_output->pb && m_output->pb->error < 0 ? m_output->pb->error : AVERROR(EIO);
    return false;
}

bool VideoRecord::encode(const AVFrame* frame) {
    // The muxer needs to know how long a frame shows to cut fragments: one slot.
    return ff::encodeAndWrite(m_encoder.context(), frame, m_packet.get(), m_output.get(), m_stream, 1);
}

std::optional<std::chrono::system_clock::time_point> VideoRecord::pictureEnd() {
    std::scoped_lock lock(m_lock);
    if (m_lastSlot < 0) {
        return std::nullopt;
    }
    return m_sessionStartWallClock + std::chrono::duration_cast<std::chrono::system_clock::duration>(
                                         (m_lastSlot + 1) * CaptureDevice::DefaultFramePeriod);
}

std::chrono::nanoseconds VideoRecord::pictureLength() {
    std::scoped_lock lock(m_lock);
    return m_lastSlot < 0 ? std::chrono::nanoseconds(0)
                          : (m_lastSlot + 1) * CaptureDevice::DefaultFramePeriod;
}

bool VideoRecord::writeFailed() {
    std::scoped_lock lock(m_lock);
    return m_writeError != 0;
}

Error VideoRecord::stop() {
    std::scoped_lock lock(m_lock);
    if (!m_recording) {
        return Error::other("finish the movie", m_recordPath.toStdString(), "it was not recording");
    }
    m_recording = false;
    Error error = stopWriter();
    if (error) {
        logs::recording.error("Could not finish the movie %s", qUtf8Printable(m_recordPath));
    }
    return error;
}

Error VideoRecord::stopWriter() {
    // A recording stopped before its first frame still leaves a well-formed, empty movie. After a
    // failed write nothing more is tried: the fragments written so far play as they are.
    const std::string path = m_recordPath.toStdString();
    Error error = m_writeError != 0 ? Error::library(Error::Domain::FFmpeg, "cannot write", path,
                                                     m_writeError, ff::errorText(m_writeError))
                                    : Error();
    if (!error && !m_headerWritten) {
        error = writeHeader({});
    }
    if (!error && !encode(nullptr)) {
        keepWriteError();
        error = Error::library(Error::Domain::FFmpeg, "cannot write", path, m_writeError,
                               ff::errorText(m_writeError));
    }
    if (!error) {
        error = ff::failure(av_write_trailer(m_output.get()), "av_write_trailer", path);
    }
    m_output.close();
    m_encoder.close();
    return error;
}

} // namespace zandor
