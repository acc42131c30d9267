#pragma once

#include <QList>
#include <QString>

#include <cstdint>
#include <memory>

namespace zandor {

// An H.264 encoding preset: an average bit rate in units of 1024 bits a second and the largest
// number of frames between two key frames.
class VideoQuality {
public:
    VideoQuality(QString name, uint64_t bitRate, uint64_t maxKeyInterval)
        : m_name(std::move(name)), m_bitRate(bitRate), m_maxKeyInterval(maxKeyInterval) {}

    static std::shared_ptr<VideoQuality> qualityWithName(const QString& name, uint64_t bitRate,
                                                         uint64_t maxKeyInterval) {
        return std::make_shared<VideoQuality>(name, bitRate, maxKeyInterval);
    }

    // The presets offered to the user, in menu order; the same objects on every call.
    static const QList<std::shared_ptr<const VideoQuality>>& videoQualities();
    // The preset of exactly that name, else "Medium". Never null.
    static std::shared_ptr<const VideoQuality> qualityNamed(const QString& name);
    // The hidden preset of an intermediate file that is re-encoded later: near lossless, every
    // frame a key frame. A new object on every call.
    static std::shared_ptr<const VideoQuality> recordingQuality();

    const QString& name() const { return m_name; }
    uint64_t bitRate() const { return m_bitRate; }
    uint64_t maxKeyInterval() const { return m_maxKeyInterval; }
    // What the encoder is given.
    uint64_t bitsPerSecond() const { return m_bitRate << 10; }

private:
    QString m_name;
    uint64_t m_bitRate;
    uint64_t m_maxKeyInterval;
};

using VideoQualityPtr = std::shared_ptr<const VideoQuality>;

} // namespace zandor
