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

#include <tuple>

namespace zandor {
namespace {

// What ffprobe says of a movie's picture: codec and size, nominal and average rate, and its packets'
// times and lengths (in the stream's time base) and key-frame marks, in presentation order.
struct Probed {
    QString picture;
    QString rates;
    std::vector<std::tuple<int64_t, int64_t, bool>> packets;
};

Probed probe(const QString& file) {
    const auto json =
        test::probe(file.toStdString(),
                    {"-select_streams", "v:0", "-show_entries",
                     "stream=codec_name,width,height,r_frame_rate,avg_frame_rate:packet=pts,duration,flags"});
    const auto stream = json["streams"][0];
    Probed probed{QStringLiteral("%1 %2x%3")
                      .arg(stream[u"codec_name"].toString())
                      .arg(stream[u"width"].toInt())
                      .arg(stream[u"height"].toInt()),
                  stream[u"r_frame_rate"].toString() + " " + stream[u"avg_frame_rate"].toString(),
                  {}};
    for (const auto& packet : json["packets"].toArray()) {
        probed.packets.emplace_back(packet[u"pts"].toInteger(), packet[u"duration"].toInteger(),
                                    packet[u"flags"].toString().startsWith('K'));
    }
    std::sort(probed.packets.begin(), probed.packets.end());
    return probed;
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

    // A frame of the layout's size whose picture moves with `n`, numbered `n`.
    static CaptureDataPtr frame(const CaptureLayout& layout, uint64_t n, double seconds,
                                std::chrono::system_clock::time_point wallClock = {}) {
        auto data = CaptureData::create(layout.size());
        for (uint64_t i = 0; i < layout.size(); ++i) {
            data->data()[i] = static_cast<uint8_t>((i / 3 + n * 7) % 256);
        }
        data->setTimestamp(seconds);
        data->setWallClock(wallClock);
        data->setNumber(n);
        return data;
    }

    QTemporaryDir m_folder;
    CaptureSettings m_settings;
    std::shared_ptr<CaptureDevice> m_device = CaptureDevice::create(std::make_unique<test::GatedBoard>());
};

// Frames are timed by their numbers at the board's 60 a second, whenever they were read: the first
// one at zero, a number that does not grow refused quietly, and the slots of numbers that never came
// filled with the picture before them, so that every frame of the movie lasts the same. At the
// original rate "High" allows at most 60 frames between key frames; a movie converted to a chosen
// rate later is written with every frame a key frame. The sound is cut where the last frame ends.
TEST_F(VideoRecordTest, TimesFramesByTheirNumbersAndFillsTheMissingOnesWithTheFrameBefore) {
    for (const auto& [fps, quality, width, height, keyEvery] :
         {std::tuple{"Original", "High", 720, 240, 60}, {"30", "Low", 400, 480, 1}}) {
        SCOPED_TRACE(fps);
        m_settings.framesPerSecond = fps;
        m_settings.videoQuality = quality;
        auto side = layout(width, height);
        VideoRecord record(side);
        const Error started = record.start(m_folder.path(), m_settings);
        ASSERT_FALSE(started) << started.logLine();
        EXPECT_FALSE(record.pictureEnd());

        // Numbers from 1000 to 1149 with 1040 to 1042 and 1100 missing, read at uneven times; one
        // number comes twice and one goes back.
        std::vector<uint64_t> numbers;
        for (uint64_t n = 1000; n < 1150; ++n) {
            if ((n < 1040 || n > 1042) && n != 1100) {
                numbers.push_back(n);
            }
        }
        numbers.insert(numbers.begin() + 20, numbers[19]);
        numbers.insert(numbers.begin() + 90, numbers[80]);
        const auto start = std::chrono::system_clock::now();
        for (size_t i = 0; i < numbers.size(); ++i) {
            LogCapture log;
            const bool later = i != 20 && i != 90;
            const double seconds = 12.3456 + double(i) / 60.0 + (i % 3 == 0 ? 0.009 : 0.0);
            EXPECT_EQ(record.append(*frame(*side, numbers[i], seconds, start + std::chrono::seconds(i))),
                      later)
                << "frame " << i;
            EXPECT_TRUE(later || log.lines().empty()) << "frame " << i << ": " << log.lines().front();
        }
        EXPECT_EQ(record.pictureEnd(),
                  start + std::chrono::duration_cast<std::chrono::system_clock::duration>(
                              150 * CaptureDevice::DefaultFramePeriod));
        const Error stopped = record.stop();
        ASSERT_FALSE(stopped) << stopped.logLine();
        EXPECT_FALSE(record.append(*frame(*side, 2000, 99.0)));

        const Probed probed = probe(record.recordPath());
        EXPECT_EQ(probed.picture, QStringLiteral("h264 %1x%2").arg(width).arg(height));
        EXPECT_EQ(probed.rates, "60/1 60/1");
        ASSERT_EQ(probed.packets.size(), 150u);
        const int64_t slot = std::get<1>(probed.packets[0]);
        int sinceKey = 0;
        for (size_t n = 0; n < 150; ++n) {
            const auto [pts, duration, key] = probed.packets[n];
            EXPECT_EQ(std::pair(pts, duration), std::pair(int64_t(n) * slot, slot)) << "frame " << n;
            sinceKey = key ? 0 : sinceKey + 1;
            EXPECT_LT(sinceKey, keyEvery) << "frame " << n;
        }

        const auto pictures = test::decodePictures(record.recordPath().toStdString(), side->size());
        ASSERT_EQ(pictures.size(), 150u);
        for (size_t n = 1; n < 150; ++n) {
            const bool repeated = (n >= 40 && n <= 42) || n == 100;
            const double difference = test::meanDifference(pictures[n], pictures[n - 1]);
            EXPECT_TRUE(repeated ? difference < 1.0 : difference > 4.0)
                << "frame " << n << ": " << difference;
        }
    }
}

} // namespace
} // namespace zandor
