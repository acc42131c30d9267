#include "ReplayBuffer.h"

#include "VideoRecord.h"
#include "base/AtomicFile.h"
#include "base/Log.h"
#include "capture/CaptureData.h"
#include "settings/VideoQuality.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace zandor {

namespace {

constexpr int64_t KeyIntervalMs = 1000;
constexpr int64_t KeyIntervalFrames = 60;

int64_t microseconds(std::chrono::system_clock::time_point time) {
    return std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
}

} // namespace

ReplayBuffer::ReplayBuffer(LayoutPtr layout, CaptureSettings settings, int seconds)
    : Recorder({std::move(layout)}), m_settings(std::move(settings)),
      m_seconds(std::clamp(seconds, MinimumSeconds, MaximumSeconds)), m_received(av_packet_alloc()) {}

ReplayBuffer::~ReplayBuffer() {
    stop();
}

uint64_t ReplayBuffer::memoryFor(const QString& quality, int seconds) {
    const VideoQualityPtr preset = VideoQuality::qualityNamed(quality);
    return preset->bitsPerSecond() / 8 *
           static_cast<uint64_t>(std::clamp(seconds, MinimumSeconds, MaximumSeconds) + 1);
}

bool ReplayBuffer::start() {
    if (isListening()) {
        return true;
    }
    const LayoutPtr& layout = layouts().front();
    const VideoQualityPtr preset = VideoQuality::qualityNamed(m_settings.videoQuality);
    VideoEncoder::Settings settings;
    settings.width = static_cast<int>(layout->width());
    settings.height = static_cast<int>(layout->height());
    settings.bitsPerSecond = static_cast<int64_t>(preset->bitsPerSecond());
    // A replay can start only on a key frame: one every second keeps it within a second of its
    // length.
    settings.keyInterval = static_cast<int>(std::min<uint64_t>(preset->maxKeyInterval(), KeyIntervalFrames));
    settings.speed = VideoRecord::encoderSpeed(*preset);
    if (!m_received || m_encoder.open(settings) != VideoEncoder::Failure::None) {
        logs::recording.error("Could not start the replay buffer of %s", qUtf8Printable(layout->name()));
        return false;
    }
    {
        std::scoped_lock lock(m_ringLock);
        m_parameters.reset(avcodec_parameters_alloc());
        if (!m_parameters ||
            !ff::check(avcodec_parameters_from_context(m_parameters.get(), m_encoder.context()),
                       "avcodec_parameters_from_context")) {
            m_encoder.close();
            return false;
        }
    }
    m_firstTime = m_lastPts = m_lastKeyPts = -1;
    return Recorder::start();
}

bool ReplayBuffer::stop() {
    const bool stopped = Recorder::stop();
    // The thread may still be finishing its last frame; the encoder is its until it has ended.
    waitUntilFinished(std::chrono::seconds(5));
    m_encoder.close();
    empty();
    return stopped;
}

void ReplayBuffer::empty() {
    std::scoped_lock lock(m_ringLock);
    m_ring.clear();
    m_keyTimes.clear();
    m_bytes = 0;
}

bool ReplayBuffer::capture(const LayoutPtr& layout, const ObserverPtr& observer) {
    if (CaptureDataPtr frame = layout->observe(observer)) {
        append(*frame);
    }
    return false; // the buffer runs until it is stopped
}

void ReplayBuffer::append(const CaptureData& frame) {
    const int64_t time = VideoRecord::currentTime(frame.timestamp());
    if (m_firstTime < 0) {
        m_firstTime = time;
        m_firstWall = microseconds(frame.wallClock());
    }
    const int64_t pts = time - m_firstTime;
    if (pts <= m_lastPts || frame.size() < layouts().front()->size() || !m_encoder.isOpen()) {
        return;
    }
    const bool key = m_lastKeyPts < 0 || pts - m_lastKeyPts >= KeyIntervalMs;
    const AVFrame* picture = m_encoder.picture(frame.data(), pts, key);
    if (!picture || !ff::check(avcodec_send_frame(m_encoder.context(), picture), "avcodec_send_frame")) {
        return;
    }
    m_lastPts = pts;
    if (key) {
        m_lastKeyPts = pts;
    }
    collect();
}

void ReplayBuffer::collect() {
    for (;;) {
        const int result = avcodec_receive_packet(m_encoder.context(), m_received.get());
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF ||
            !ff::check(result, "avcodec_receive_packet")) {
            return;
        }
        Packet packet{ff::Packet(av_packet_alloc()), m_firstWall + m_received->pts * 1000,
                      (m_received->flags & AV_PKT_FLAG_KEY) != 0};
        if (!packet.packet) {
            av_packet_unref(m_received.get());
            return;
        }
        // The encoded bytes are reference counted: the ring takes them over without a copy.
        av_packet_move_ref(packet.packet.get(), m_received.get());

        std::scoped_lock lock(m_ringLock);
        if (m_ring.empty() && !packet.key) {
            continue; // a replay starts on a key frame
        }
        const int64_t newest = packet.wallMicroseconds;
        m_bytes += static_cast<uint64_t>(packet.packet->size);
        if (packet.key) {
            m_keyTimes.push_back(newest);
        }
        m_ring.push_back(std::move(packet));
        // The ring starts at the latest key frame that still leaves the whole length behind it.
        const int64_t from = newest - int64_t{m_seconds} * 1000000;
        while (m_keyTimes.size() >= 2 && m_keyTimes[1] <= from) {
            m_keyTimes.pop_front();
            do {
                m_bytes -= static_cast<uint64_t>(m_ring.front().packet->size);
                m_ring.pop_front();
            } while (!m_ring.front().key || m_ring.front().wallMicroseconds != m_keyTimes.front());
        }
    }
}

double ReplayBuffer::heldSeconds() {
    std::scoped_lock lock(m_ringLock);
    return m_ring.empty() ? 0.0 : (m_ring.back().wallMicroseconds - m_ring.front().wallMicroseconds) / 1e6;
}

uint64_t ReplayBuffer::heldBytes() {
    std::scoped_lock lock(m_ringLock);
    return m_bytes;
}

namespace {

// Writes the packets, times in system-clock microseconds, as an MP4 movie starting at the first.
bool writeMovie(const std::string& path, const AVCodecParameters& parameters,
                const std::vector<std::pair<ff::Packet, int64_t>>& packets, int& error) {
    ff::OutputContext output;
    if (!output.open(path, "mp4")) {
        error = output.get() && output->pb ? output->pb->error : AVERROR(EIO);
        return false;
    }
    AVStream* stream = avformat_new_stream(output.get(), nullptr);
    if (!stream ||
        !ff::check(avcodec_parameters_copy(stream->codecpar, &parameters), "avcodec_parameters_copy")) {
        error = AVERROR(ENOMEM);
        return false;
    }
    stream->codecpar->codec_tag = 0;
    stream->time_base = {1, 1000};
    stream->avg_frame_rate = {60, 1};
    const int64_t origin = packets.front().second;
    ff::setCaptureStart(output.get(), static_cast<double>(origin) / 1e6);
    ff::Options options;
    // The index first, so that a player or a web page can start before the whole file is read.
    options.set("movflags", "+faststart+use_metadata_tags");
    if (!ff::check(avformat_write_header(output.get(), options.get()), "avformat_write_header")) {
        error = output->pb->error < 0 ? output->pb->error : AVERROR(EIO);
        return false;
    }
    for (size_t i = 0; i < packets.size(); ++i) {
        AVPacket* packet = packets[i].first.get();
        const int64_t pts = (packets[i].second - origin) / 1000;
        packet->pts = packet->dts = av_rescale_q(pts, {1, 1000}, stream->time_base);
        const int64_t next =
            i + 1 < packets.size() ? (packets[i + 1].second - origin) / 1000 : pts + 1000 / 60;
        packet->duration = av_rescale_q(next - pts, {1, 1000}, stream->time_base);
        packet->stream_index = stream->index;
        packet->pos = -1;
        if (!ff::check(av_write_frame(output.get(), packet), "av_write_frame")) {
            error = output->pb->error < 0 ? output->pb->error : AVERROR(EIO);
            return false;
        }
    }
    if (!ff::check(av_write_trailer(output.get()), "av_write_trailer") || output->pb->error < 0) {
        error = output->pb->error < 0 ? output->pb->error : AVERROR(EIO);
        return false;
    }
    output.close();
    return true;
}

} // namespace

ReplayBuffer::Saved ReplayBuffer::save() {
    // What the ring holds now, by reference: the ring goes on while the copy is written.
    std::vector<std::pair<ff::Packet, int64_t>> packets;
    ff::CodecParameters parameters(avcodec_parameters_alloc());
    {
        std::scoped_lock lock(m_ringLock);
        if (!parameters || !m_parameters ||
            avcodec_parameters_copy(parameters.get(), m_parameters.get()) < 0) {
            parameters.reset();
        }
        packets.reserve(m_ring.size());
        for (const Packet& packet : m_ring) {
            packets.emplace_back(ff::Packet(av_packet_clone(packet.packet.get())), packet.wallMicroseconds);
        }
    }
    if (packets.empty() || !parameters) {
        return {
            {},
            QStringLiteral("The replay buffer is empty: no picture has been shown since it was turned on.")};
    }
    if (std::any_of(packets.begin(), packets.end(), [](const auto& packet) { return !packet.first; })) {
        return {{}, QStringLiteral("There is not enough memory to save the replay.")};
    }

    const QString folder = m_settings.storageFolder;
    if (!QDir().mkpath(folder)) {
        return {{}, QStringLiteral("The folder \"%1\" cannot be written to.").arg(folder)};
    }
    const QString stamped = QStringLiteral("%1/Replay %2").arg(folder, stringWithCurrentDate());
    QString path = stamped + QStringLiteral(".mp4");
    // A second save within the same second keeps the first: this one is numbered.
    for (int number = 2; number < 100 && QFileInfo::exists(path); ++number) {
        path = QStringLiteral("%1 %2.mp4").arg(stamped).arg(number);
    }
    AtomicFile file(QFile::encodeName(path).toStdString());
    std::string reason;
    if (!file.create(reason)) {
        logs::recording.error("Could not save the replay %s: %s", qUtf8Printable(path), reason.c_str());
        return {{}, QStringLiteral("The folder \"%1\" cannot be written to.").arg(folder)};
    }
    int error = 0;
    if (!writeMovie(file.path(), *parameters, packets, error) || !file.commit(reason)) {
        const bool full = error == AVERROR(ENOSPC) || reason.find(std::strerror(ENOSPC)) != std::string::npos;
        logs::recording.error("Could not save the replay %s: %s", qUtf8Printable(path),
                              error != 0 ? ff::errorText(error).c_str() : reason.c_str());
        if (full) {
            return {{}, QStringLiteral("The disk is full.")};
        }
        return {{}, QStringLiteral("The movie could not be written to \"%1\".").arg(folder)};
    }
    logs::recording.info("Saved the replay %s", qUtf8Printable(path));
    return {path, {}};
}

} // namespace zandor
