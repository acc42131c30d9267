#include "ReplayBuffer.h"

#include "NumberedName.h"
#include "VideoRecord.h"
#include "settings/Settings.h"
#include "audio/AudioFileWriter.h"
#include "audio/AudioInput.h"
#include "base/AtomicFile.h"
#include "base/Log.h"
#include "base/Memory.h"
#include "base/RunOn.h"
#include "capture/CaptureData.h"
#include "capture/CaptureDevice.h"
#include "settings/VideoQuality.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

namespace zandor {

namespace {

int clampedSeconds(int seconds) {
    const auto [minimum, maximum] = *settings::replaySeconds.range();
    return std::clamp(seconds, minimum, maximum);
}

} // namespace

namespace {

constexpr int64_t KeyIntervalMs = 1000;
constexpr int64_t KeyIntervalFrames = 60;
// How long a picture shows when no later one says otherwise: the board's frame period.
constexpr int64_t FramePeriodUs =
    std::chrono::duration_cast<std::chrono::microseconds>(CaptureDevice::DefaultFramePeriod).count();
// The sound is kept for the furthest the game sound's offset can move it, on either side.
constexpr std::chrono::milliseconds MaximumOffset{500};
constexpr int64_t MaximumOffsetUs = std::chrono::microseconds(MaximumOffset).count();
// How long a save waits for the sound of the last picture, which the input delivers a little later.
constexpr auto SoundWait = std::chrono::seconds(1);
// How long an AAC packet plays.
constexpr int64_t SoundPacketUs = 1024 * int64_t{1000000} / AudioEncoder::SampleRate;

int64_t microseconds(std::chrono::system_clock::time_point time) {
    return std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
}

} // namespace

ReplayBuffer::ReplayBuffer(LayoutPtr layout, CaptureSettings settings, int seconds)
    : Recorder({std::move(layout)}), m_settings(std::move(settings)), m_seconds(clampedSeconds(seconds)),
      m_received(av_packet_alloc()), m_offsetMicroseconds(int64_t{m_settings.gameAudioOffsetMs} * 1000) {}

void ReplayBuffer::setGameAudioOffset(std::chrono::milliseconds offset) {
    m_offsetMicroseconds =
        std::chrono::microseconds(std::clamp(offset, -MaximumOffset, MaximumOffset)).count();
}

ReplayBuffer::~ReplayBuffer() {
    stop();
}

uint64_t ReplayBuffer::memoryFor(const QString& quality, int seconds) {
    const VideoQualityPtr preset = VideoQuality::qualityNamed(quality);
    return preset->bitsPerSecond() / 8 * static_cast<uint64_t>(clampedSeconds(seconds) + 1);
}

bool ReplayBuffer::start() {
    if (isListening()) {
        return true;
    }
    empty();
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
    if (!m_received || m_encoder.open(settings)) {
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
    m_firstNumber = m_lastPts = m_lastKeyPts = -1;
    if (m_gameInput && !startSound()) {
        logs::recording.warning("The replay buffer of %s keeps no sound", qUtf8Printable(layout->name()));
    }
    return Recorder::start();
}

void ReplayBuffer::shareGameInput(std::shared_ptr<AudioInput> input) {
    m_gameInput = std::move(input);
}

bool ReplayBuffer::startSound() {
    return runAndWait(m_gameInput.get(), [this] {
        const QAudioFormat& format = m_gameInput->format();
        m_audioEncoder = AudioEncoder();
        if (m_audioEncoder.open(AudioFileWriter::sampleFormat(format.sampleFormat()), format.sampleRate(),
                                format.channelCount(), true)) {
            return false;
        }
        {
            std::scoped_lock lock(m_ringLock);
            m_audioParameters.reset(avcodec_parameters_alloc());
            if (!m_audioParameters ||
                avcodec_parameters_from_context(m_audioParameters.get(), m_audioEncoder.context()) < 0) {
                m_audioParameters.reset();
                return false;
            }
            m_soundRunning = true;
        }
        // The sound starts before the first picture can come, by as much as an offset can move it
        // later: silent until the input's first sound arrives.
        m_audioEncoder.start(std::chrono::system_clock::now() - MaximumOffset);
        m_tap = m_gameInput->addTap(
            [this](const char* samples, int frames, std::chrono::system_clock::time_point captured) {
                appendSound(samples, frames, captured);
            });
        return true;
    });
}

void ReplayBuffer::stopSound() {
    if (m_gameInput && m_tap >= 0) {
        std::optional<std::chrono::system_clock::time_point> end;
        {
            std::scoped_lock lock(m_ringLock);
            if (!m_ring.empty()) {
                // Whatever the offset at a save, the sound reaches past the last picture.
                end = std::chrono::system_clock::time_point(std::chrono::microseconds(
                    m_ring.back().wallMicroseconds + FramePeriodUs + MaximumOffsetUs));
            }
        }
        runAndWait(m_gameInput.get(), [this, end] {
            m_gameInput->removeTap(m_tap);
            m_tap = -1;
            // What the encoder still holds goes into the ring, silence after it up to the end. A
            // failure is logged where it happened; the ring keeps what it has.
            static_cast<void>(
                m_audioEncoder.finish([this](AVPacket* encoded) { return keepSound(encoded); }, end));
            m_audioEncoder = AudioEncoder();
        });
        {
            std::scoped_lock lock(m_ringLock);
            m_soundRunning = false;
        }
        m_soundArrived.notify_all();
    }
}

void ReplayBuffer::appendSound(const char* samples, int frames,
                               std::chrono::system_clock::time_point captured) {
    // A failure is logged where it happened; the next buffer tries again.
    static_cast<void>(m_audioEncoder.write(reinterpret_cast<const uint8_t*>(samples), frames, captured,
                                           [this](AVPacket* encoded) { return keepSound(encoded); }));
}

Error ReplayBuffer::keepSound(AVPacket* encoded) {
    const int64_t zero = microseconds(m_audioEncoder.timeZero());
    Packet packet{ff::Packet(av_packet_alloc()),
                  zero + av_rescale(encoded->pts, 1000000, AudioEncoder::SampleRate), true};
    if (!packet.packet) {
        return Error::library(Error::Domain::FFmpeg, "av_packet_alloc", {}, AVERROR(ENOMEM),
                              ff::errorText(AVERROR(ENOMEM)));
    }
    av_packet_move_ref(packet.packet.get(), encoded);
    {
        std::scoped_lock lock(m_ringLock);
        m_bytes += static_cast<uint64_t>(packet.packet->size);
        m_audio.push_back(std::move(packet));
        trimSound();
    }
    m_soundArrived.notify_all();
    return {};
}

void ReplayBuffer::trimSound() {
    // Only sound that an offset can bring up to the first picture has a place in a replay; before the
    // first picture, a second of it is kept.
    if (m_audio.empty()) {
        return;
    }
    const int64_t from = m_ring.empty() ? m_audio.back().wallMicroseconds - 1000000
                                        : m_ring.front().wallMicroseconds - MaximumOffsetUs;
    while (!m_audio.empty() && m_audio.front().wallMicroseconds < from) {
        m_bytes -= static_cast<uint64_t>(m_audio.front().packet->size);
        m_audio.pop_front();
    }
}

bool ReplayBuffer::stop() {
    const bool stopped = Recorder::stop();
    // The thread may still be finishing its last frame; the encoder is its until it has ended, and
    // is left to it when it does not end in time (the next start or the destructor closes it).
    const bool finished = waitUntilFinished(std::chrono::seconds(5));
    if (!finished) {
        logs::recording.error(
            "The replay buffer's thread has not ended: its last pictures stay out of the ring");
    } else if (m_encoder.isOpen()) {
        // The pictures the encoder still holds go into the ring: a save after the stop ends with the
        // last picture shown.
        if (ff::check(avcodec_send_frame(m_encoder.context(), nullptr), "avcodec_send_frame")) {
            collect();
        }
    }
    stopSound();
    if (finished) {
        m_encoder.close();
    }
    releaseFreeMemory();
    return stopped;
}

void ReplayBuffer::empty() {
    std::scoped_lock lock(m_ringLock);
    m_ring.clear();
    m_audio.clear();
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
    if (m_firstNumber < 0) {
        m_firstNumber = static_cast<int64_t>(frame.number());
        m_firstWall = microseconds(frame.wallClock());
    }
    // Timed by the frame's slot on the board's grid, not by when it was read: a picture's time
    // keeps no jitter of the device thread's scheduling.
    const int64_t pts = av_rescale(static_cast<int64_t>(frame.number()) - m_firstNumber, 1000,
                                   CaptureDevice::NominalFramesPerSecond);
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
        trimSound();
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

// What a save writes of one track: its codec, and its packets with their system-clock microseconds.
struct ReplayBuffer::Track {
    ff::CodecParameters parameters;
    std::vector<std::pair<ff::Packet, int64_t>> packets;
};

// What the ring held when a save began: copies of its packets, sharing their data.
struct ReplayBuffer::Snapshot {
    Track video;
    Track sound;
    int64_t origin = 0; // the first picture's system-clock microseconds
    bool copied = true;
    bool soundShort = false; // the last picture's sound did not arrive in time
};

namespace {

using Track = ReplayBuffer::Track;

struct Written {
    Track* track;
    AVStream* stream;
    AVRational timeBase;
};

// Dates a track's packets from `origin`, in its stream's time base. A picture shows until the next
// one; the last for the board's frame period.
void stampTrack(const Written& written, bool pictures, int64_t origin) {
    auto& packets = written.track->packets;
    const auto at = [&](int64_t wall) { return av_rescale(wall - origin, written.timeBase.den, 1000000); };
    for (size_t i = 0; i < packets.size(); ++i) {
        AVPacket* packet = packets[i].first.get();
        packet->pts = packet->dts = at(packets[i].second);
        if (pictures) {
            packet->duration = i + 1 < packets.size()
                                   ? at(packets[i + 1].second) - packet->pts
                                   : av_rescale(FramePeriodUs, written.timeBase.den, 1000000);
        }
        av_packet_rescale_ts(packet, written.timeBase, written.stream->time_base);
        packet->stream_index = written.stream->index;
        packet->pos = -1;
    }
}

// Both tracks' packets in time order, as the muxer interleaves them.
std::vector<AVPacket*> inTimeOrder(const std::vector<Written>& tracks) {
    std::vector<std::pair<double, AVPacket*>> order;
    for (const Written& written : tracks) {
        for (const auto& packet : written.track->packets) {
            order.emplace_back(static_cast<double>(packet.first->dts) * av_q2d(written.stream->time_base),
                               packet.first.get());
        }
    }
    std::stable_sort(order.begin(), order.end(),
                     [](const auto& one, const auto& other) { return one.first < other.first; });
    std::vector<AVPacket*> packets;
    packets.reserve(order.size());
    for (const auto& entry : order) {
        packets.push_back(entry.second);
    }
    return packets;
}

// Writes the tracks as an MP4 movie whose time zero is the first picture's time, `origin`.
Error writeMovie(const std::string& path, Track& video, Track& sound, int64_t origin) {
    ff::OutputContext output;
    // The file's own error, when one was met, is the cause: the muxer may give a code of its own.
    const auto failed = [&output, &path](int code) {
        if (output.get() && output->pb && output->pb->error < 0) {
            code = output->pb->error;
        }
        return Error::library(Error::Domain::FFmpeg, "cannot write", path, code, ff::errorText(code));
    };
    if (const Error opened = output.open(path, "mp4")) {
        return failed(opened.code());
    }
    std::vector<Written> tracks;
    for (auto [track, timeBase] : {std::pair{&video, AVRational{1, 1000}},
                                   std::pair{&sound, AVRational{1, AudioEncoder::SampleRate}}}) {
        if (!track->parameters || track->packets.empty()) {
            continue;
        }
        AVStream* stream = avformat_new_stream(output.get(), nullptr);
        if (!stream) {
            return failed(AVERROR(ENOMEM));
        }
        if (const Error copied =
                ff::failure(avcodec_parameters_copy(stream->codecpar, track->parameters.get()),
                            "avcodec_parameters_copy")) {
            return failed(copied.code());
        }
        stream->codecpar->codec_tag = 0;
        // The sound is cut out of a longer one: no priming to skip at its start.
        stream->codecpar->initial_padding = 0;
        stream->time_base = timeBase;
        tracks.push_back({track, stream, timeBase});
    }
    tracks.front().stream->avg_frame_rate = {60, 1};
    ff::setCaptureStart(output.get(), static_cast<double>(origin) / 1e6);
    ff::Options options;
    // The index first, so that a player or a web page can start before the whole file is read.
    options.set("movflags", "+faststart+use_metadata_tags");
    if (const Error header =
            ff::failure(avformat_write_header(output.get(), options.get()), "avformat_write_header")) {
        return failed(header.code());
    }
    for (const Written& written : tracks) {
        stampTrack(written, written.track == &video, origin);
    }
    for (AVPacket* packet : inTimeOrder(tracks)) {
        if (const Error written =
                ff::failure(av_interleaved_write_frame(output.get(), packet), "av_interleaved_write_frame")) {
            return failed(written.code());
        }
    }
    if (const Error trailer = ff::failure(av_write_trailer(output.get()), "av_write_trailer")) {
        return failed(trailer.code());
    }
    if (output->pb->error < 0) {
        return failed(output->pb->error);
    }
    output.close();
    return {};
}

} // namespace

ReplayBuffer::Snapshot ReplayBuffer::snapshot() {
    Snapshot held;
    std::unique_lock lock(m_ringLock);
    // The sound ends with the picture: the picture's encoder may lag behind the sound's, and the
    // sound of the last picture may still be on its way from the input. The replay ends with the
    // pictures held now; the ring may move on while the sound is waited for.
    int64_t pictureEnd = 0;
    for (const Packet& packet : m_ring) {
        pictureEnd = std::max(pictureEnd, packet.wallMicroseconds + FramePeriodUs);
    }
    const int64_t offset = m_offsetMicroseconds;
    if (m_audioParameters && !m_ring.empty()) {
        held.soundShort = !m_soundArrived.wait_for(lock, SoundWait, [&] {
            return !m_soundRunning ||
                   (!m_audio.empty() &&
                    m_audio.back().wallMicroseconds + SoundPacketUs + offset >= pictureEnd);
        });
    }
    held.origin = m_ring.empty() ? 0 : m_ring.front().wallMicroseconds;
    for (auto [track, from] :
         {std::pair{&held.video, m_parameters.get()}, std::pair{&held.sound, m_audioParameters.get()}}) {
        if (from) {
            track->parameters.reset(avcodec_parameters_alloc());
            held.copied = held.copied && track->parameters &&
                          avcodec_parameters_copy(track->parameters.get(), from) >= 0;
        }
    }
    held.video.packets.reserve(m_ring.size());
    for (const Packet& packet : m_ring) {
        if (packet.wallMicroseconds >= pictureEnd) {
            break;
        }
        held.video.packets.emplace_back(ff::Packet(av_packet_clone(packet.packet.get())),
                                        packet.wallMicroseconds);
        held.copied = held.copied && held.video.packets.back().first;
    }
    // The sound from the first picture to the last, placed by the offset of now. A packet that
    // starts before the first picture is left out: the sound may start up to one packet late.
    for (const Packet& packet : m_audio) {
        const int64_t placed = packet.wallMicroseconds + offset;
        if (placed < held.origin) {
            continue;
        }
        if (placed >= pictureEnd) {
            break;
        }
        held.sound.packets.emplace_back(ff::Packet(av_packet_clone(packet.packet.get())), placed);
        held.copied = held.copied && held.sound.packets.back().first;
    }
    return held;
}

Result<QString> ReplayBuffer::save(const QString& folder) {
    // What the ring holds now, by reference: the ring goes on while the copy is written.
    Snapshot held = snapshot();
    Track& video = held.video;
    Track& sound = held.sound;
    if (held.soundShort) {
        logs::recording.warning(
            "The sound of the last picture did not arrive in time: the replay's sound ends "
            "before its picture");
    }
    if (video.packets.empty() || !video.parameters) {
        return Error::other(EmptyStep, {}, "no picture has been shown since the buffer was turned on");
    }
    if (!held.copied) {
        return Error::system("cannot copy the replay", {}, ENOMEM);
    }

    std::error_code made;
    std::filesystem::create_directories(QFile::encodeName(folder).toStdString(), made);
    if (made) {
        return Error::system(FolderStep, QFile::encodeName(folder).toStdString(), made.value());
    }
    // A second save within the same second keeps the first: this one is numbered.
    const QString path = NumberedName::file(
        QStringLiteral("%1/Replay %2").arg(folder, stringWithCurrentDate()), QStringLiteral("mp4"));
    AtomicFile file(QFile::encodeName(path).toStdString());
    if (const Error created = file.create()) {
        logs::recording.error("Could not save the replay: %s", created.logLine().c_str());
        // A full disk is said as such wherever it is met; any other cause is the folder's.
        if (created.isDiskFull()) {
            return created;
        }
        return created.systemCode() != 0 ? Error::system(FolderStep, created.path(), created.systemCode())
                                         : Error::other(FolderStep, created.path(), created.cause());
    }
    Error failure = writeMovie(file.path(), video, sound, held.origin);
    if (!failure) {
        failure = file.commit();
    }
    if (failure) {
        logs::recording.error("Could not save the replay %s: %s", qUtf8Printable(path),
                              failure.logLine().c_str());
        return failure;
    }
    logs::recording.info("Saved the replay %s", qUtf8Printable(path));
    video.packets.clear();
    sound.packets.clear();
    releaseFreeMemory();
    return path;
}

} // namespace zandor
