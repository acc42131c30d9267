#include "VideoQuality.h"

namespace zandor {

const QList<VideoQualityPtr>& VideoQuality::videoQualities() {
    // The four lower presets share one bit rate on purpose and differ in key-frame spacing only.
    static const QList<VideoQualityPtr> qualities{
        qualityWithName(QStringLiteral("Highest"), 9000, 30),
        qualityWithName(QStringLiteral("Higher"), 6000, 30),
        qualityWithName(QStringLiteral("High"), 3000, 60),
        qualityWithName(QStringLiteral("Medium"), 1000, 120),
        qualityWithName(QStringLiteral("Low"), 1000, 240),
        qualityWithName(QStringLiteral("Lower"), 1000, 360),
        qualityWithName(QStringLiteral("Lowest"), 1000, 480),
    };
    return qualities;
}

VideoQualityPtr VideoQuality::qualityNamed(const QString& name) {
    for (const auto& quality : videoQualities()) {
        if (quality->name() == name) {
            return quality;
        }
    }
    return qualityNamed(QStringLiteral("Medium"));
}

VideoQualityPtr VideoQuality::recordingQuality() {
    return qualityWithName(QStringLiteral("Recording"), 100000, 1);
}

} // namespace zandor
