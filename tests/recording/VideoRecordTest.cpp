#include "GatedBoard.h"
#include "Media.h"
#include "PluginBundles.h"
#include "UserFolders.h"
#include "base/Log.h"
#include "capture/CaptureData.h"
#include "capture/CaptureDevice.h"
#include "layouts/CaptureLayout.h"
#include "recording/VideoRecord.h"

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QTemporaryDir>

namespace zandor {
namespace {

// The picture's codec and size, and its frames' times (ms) and key-frame marks in presentation
// order, as ffprobe reads them.
std::pair<QString, std::vector<std::pair<int64_t, bool>>> probe(const QString& file) {
    const auto json =
        test::probe(file.toStdString(), {"-select_streams", "v:0", "-show_entries",
                                         "stream=codec_name,width,height:frame=pts_time,key_frame"});
    const auto stream = json["streams"][0];
    std::vector<std::pair<int64_t, bool>> frames;
    for (const auto& frame : json["frames"].toArray()) {
        frames.emplace_back(std::llround(frame[u"pts_time"].toString().toDouble() * 1000),
                            frame[u"key_frame"].toInt() == 1);
    }
    std::sort(frames.begin(), frames.end());
    return {QStringLiteral("%1 %2x%3")
                .arg(stream[u"codec_name"].toString())
                .arg(stream[u"width"].toInt())
                .arg(stream[u"height"].toInt()),
            frames};
}

class VideoRecordTest : public ::testing::Test {
protected:
    void SetUp() override { test::isolateUserFolders(); }

    LayoutPtr layout(int width, int height) {
        return CaptureLayout::createWithPlugin(
            test::parsedPlugin(
                m_folder.path(), QStringLiteral("L%1.zdplugin").arg(width),
                test::layoutDescriptor(QStringLiteral("Size %1").arg(width), 1, width, height)),
            m_device);
    }

    // A frame of the layout's size whose picture moves with `n`.
    static CaptureDataPtr frame(const CaptureLayout& layout, int n, double seconds) {
        auto data = CaptureData::create(layout.size());
        for (uint64_t i = 0; i < layout.size(); ++i) {
            data->data()[i] = static_cast<uint8_t>((i / 3 + static_cast<uint64_t>(n) * 7) % 256);
        }
        data->setTimestamp(seconds);
        return data;
    }

    QTemporaryDir m_folder;
    CaptureSettings m_settings;
    std::shared_ptr<CaptureDevice> m_device = CaptureDevice::create(std::make_unique<test::GatedBoard>());
};

// At the original rate "High" allows at most 60 frames between key frames; a movie converted to a
// chosen rate later is written with every frame a key frame.
TEST_F(VideoRecordTest, WritesEveryIncreasingFrameAtItsMillisecond) {
    for (const auto& [fps, quality, width, height, keyEvery] :
         {std::tuple{"Original", "High", 720, 240, 60}, {"30", "Low", 400, 480, 1}}) {
        SCOPED_TRACE(fps);
        m_settings.framesPerSecond = fps;
        m_settings.videoQuality = quality;
        auto side = layout(width, height);
        VideoRecord record(side);
        ASSERT_TRUE(record.start(m_folder.path(), m_settings));

        // Capture times from 12.3456 s: the first becomes zero; one frame falls in the millisecond of
        // the one before and one goes back. Both are refused quietly.
        std::vector<double> times;
        for (int n = 0; n < 150; ++n) {
            times.push_back(12.3456 + n / 60.0);
        }
        times.insert(times.begin() + 40, times[39] + 0.0002);
        times.insert(times.begin() + 90, times[80]);
        for (size_t n = 0; n < times.size(); ++n) {
            LogCapture log;
            const bool later = n != 40 && n != 90;
            EXPECT_EQ(record.append(*frame(*side, static_cast<int>(n), times[n])), later) << "frame " << n;
            EXPECT_TRUE(later || log.lines().empty()) << "frame " << n << ": " << log.lines().front();
        }
        ASSERT_TRUE(record.stop());
        EXPECT_FALSE(record.append(*frame(*side, 0, 99.0)));

        const auto [picture, frames] = probe(record.recordPath());
        EXPECT_EQ(picture, QStringLiteral("h264 %1x%2").arg(width).arg(height));
        ASSERT_EQ(frames.size(), 150u);
        int sinceKey = 0;
        for (int n = 0; n < 150; ++n) {
            const auto [ms, key] = frames[static_cast<size_t>(n)];
            EXPECT_EQ(ms, VideoRecord::currentTime(12.3456 + n / 60.0) - VideoRecord::currentTime(12.3456))
                << n;
            sinceKey = key ? 0 : sinceKey + 1;
            EXPECT_LT(sinceKey, keyEvery) << "frame " << n;
        }
    }
}

} // namespace
} // namespace zandor
