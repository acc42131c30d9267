// The game input kept open while the picture plays, listened to through the default output.

#include "Files.h"
#include "Media.h"
#include "PulseServer.h"
#include "UserFolders.h"
#include "audio/AudioInput.h"
#include "capture/CaptureDevice.h"
#include "capture/ClassicBoard.h"
#include "capture/DemoBoard.h"
#include "recording/AudioRecord.h"
#include "audio/GameAudio.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>
#include <QThread>

#include <cmath>
#include <cstring>
#include <functional>
#include <unistd.h>

namespace zandor {
namespace {

// The loudness (root mean square of 16-bit samples) of samples [from, to).
double level(const std::vector<int16_t>& samples, size_t from, size_t to) {
    double sum = 0;
    for (size_t i = from; i < std::min(to, samples.size()); ++i) {
        sum += double(samples[i]) * samples[i];
    }
    return to > from ? std::sqrt(sum / double(to - from)) : 0;
}

// The loudness of a stretch of the default output, "out_sink".
double outputLevel(double seconds = 0.5) {
    const auto count = static_cast<size_t>(seconds * test::PulseServer::SampleRate);
    const std::string sound =
        test::runProcess({"sh", "-c",
                          "parec --device=out_sink.monitor --format=s16le --rate=44100 --channels=1 --raw "
                          "--latency-msec=20 | head -c " +
                              std::to_string(count * 2)})
            .out;
    std::vector<int16_t> samples(sound.size() / 2);
    std::memcpy(samples.data(), sound.data(), samples.size() * 2);
    return level(samples, 0, samples.size());
}

// The output's level once `reached` holds for it, or after twenty looks.
double outputLevelWhen(const std::function<bool(double)>& reached) {
    double heard = outputLevel();
    for (int look = 1; look < 20 && !reached(heard); ++look) {
        heard = outputLevel();
    }
    return heard;
}

// How many streams Zandor plays the game through, by their name at the sound server.
int streamsPlayed() {
    const std::string listed = test::runProcess({"pactl", "list", "sink-inputs"}).out;
    const std::string ours = "media.name = \"Zandor: Listening\"";
    int count = 0;
    for (size_t at = listed.find(ours); at != std::string::npos; at = listed.find(ours, at + 1)) {
        ++count;
    }
    return count;
}

TEST(GameAudio, ListeningIsHeardOnceAndARecordingKeepsItsFirstInstantOrSaysItCannotFinish) {
    test::isolateUserFolders();
    const test::PulseServer& pulse = test::PulseServer::forThisProgram();
    ASSERT_TRUE(pulse.isRunning()) << pulse.error();
    const test::PulseServer::Playback tone("game_sink", 440, 0);

    GameAudio game;
    ASSERT_TRUE(game.start("GameIn"));
    // The tone at half of full scale is about 11600 loud; silence is 0.
    EXPECT_LT(outputLevel(), 300) << "not played through while nobody listens";
    game.setListening(true);
    const double listened = outputLevelWhen([](double heard) { return heard > 3000; });
    EXPECT_GT(listened, 3000) << "heard while listening";
    // The volume scales the sound linearly: half of it is heard at half the level, not silenced.
    const auto heardAt = [listened](double share) {
        return outputLevelWhen([&](double heard) { return std::abs(heard / listened - share) <= 0.1; }) /
               listened;
    };
    game.setVolume(50);
    EXPECT_NEAR(heardAt(0.5), 0.5, 0.1) << "heard at half volume";
    game.setVolume(100);
    EXPECT_NEAR(heardAt(1.0), 1.0, 0.1) << "heard at full volume again";

    struct AudioThread : QThread {
        AudioThread() { start(); }
        ~AudioThread() override {
            quit();
            wait();
        }
    } audioThread;
    QTemporaryDir bundle;
    {
        AudioRecord record(QStringLiteral("Game"), &audioThread);
        record.share(game.input(), std::chrono::milliseconds(0));
        const Error started = record.start("GameIn", bundle.path(), true);
        ASSERT_FALSE(started) << started.logLine();
        EXPECT_GT(outputLevel(), listened * 0.7) << "heard while recording";
        EXPECT_EQ(streamsPlayed(), 1) << "the recording's play-through is the listening's";
        // The track ends with the picture, here a little after the stop: the sound up to then is
        // waited for, and none after it is kept.
        const auto pictureEnd = std::chrono::system_clock::now() + std::chrono::milliseconds(300);
        const Error stopped = record.stop(pictureEnd);
        ASSERT_FALSE(stopped) << stopped.logLine();
        const std::string track = (bundle.path() + "/AudioGame.mov").toStdString();
        EXPECT_NEAR(test::captureStart(track) +
                        test::probeLines({"-show_entries", "format=duration", track}).value(0).toDouble(),
                    test::epochSeconds(pictureEnd), 0.05);
    }
    const std::vector<int16_t> recorded = test::decodeSound((bundle.path() + "/AudioGame.mov").toStdString());
    ASSERT_GT(recorded.size(), size_t(test::PulseServer::SampleRate / 2));
    // From the end of the encoder's priming (1024 samples) to 100 ms: the tone, not the silence
    // of an input still opening.
    EXPECT_GT(level(recorded, 1100, test::PulseServer::SampleRate / 10), 3000);

    // A file that cannot be finished (it cannot grow, as on a full disk) makes stop() say so with
    // the system's code, which the video recorder turns into its message.
    QTemporaryDir full;
    test::FileSizeLimit limit(0);
    ASSERT_TRUE(limit.isSet());
    AudioRecord failing(QStringLiteral("Game"), &audioThread);
    const Error started = failing.start("GameIn", full.path(), false);
    const Error stopped = failing.stop();
    ASSERT_TRUE(limit.lift());
    EXPECT_FALSE(started) << started.logLine();
    EXPECT_EQ(stopped.systemCode(), EFBIG) << stopped.logLine();
}

// With no cable and nothing at the sound server but the output.
TEST(GameAudio, TheBoardsOwnSoundIsHeardWhileListenedTo) {
    test::isolateUserFolders();
    const test::PulseServer& pulse = test::PulseServer::forThisProgram();
    ASSERT_TRUE(pulse.isRunning()) << pulse.error();
    auto demo = std::make_unique<DemoBoard>();
    demo->setTone(440);
    const auto device = CaptureDevice::create(std::make_unique<ClassicBoard>(std::move(demo), "Demo board"));
    ASSERT_TRUE(device->startListening());

    GameAudio game;
    game.setBoard(device);
    ASSERT_TRUE(game.start(AudioInput::BoardId));
    EXPECT_LT(outputLevel(), 300) << "not played through while nobody listens";
    game.setListening(true);
    EXPECT_GT(outputLevelWhen([](double heard) { return heard > 3000; }), 3000) << "heard while listening";
    game.setListening(false);
    EXPECT_LT(outputLevelWhen([](double heard) { return heard < 300; }), 300) << "silent again";
    game.stop();
    device->stopListening();
}

} // namespace
} // namespace zandor
