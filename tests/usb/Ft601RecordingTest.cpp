// A recording from the new models' FT601 board on the real path (CaptureSession, AnyUsbBoard,
// Ft601Board, libusb, usbfs against the board emulated at its device node in this process), with
// the console's 3D picture switched on and off while it records, and every core kept busy.

#include "EmulatedBoard.h"
#include "Ft601Model.h"
#include "Media.h"
#include "Process.h"
#include "UserFolders.h"
#include "audio/AudioInput.h"
#include "base/Log.h"
#include "base/Wakeup.h"
#include "capture/Boards.h"
#include "capture/DemoBoard.h"
#include "layouts/LayoutController.h"
#include "recording/VideoRecorder.h"
#include "session/CaptureSession.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <cmath>
#include <cstdio>
#include <memory>

namespace zandor {
namespace {

using namespace std::chrono_literals;

constexpr double ToneHertz = 440;
constexpr size_t Width = 800, Height = 480; // "3D Side by Side": left eye, right eye, bottom below
constexpr int PicturesPerSecond = 20;

// Takes `count` frames of `layout`, letting each go at once but the last (a canvas is over a
// megabyte).
CaptureDataPtr framesLater(Observable& layout, const ObserverPtr& observer, Wakeup& wakeup, int count) {
    CaptureDataPtr last;
    for (int taken = 0; taken < count;) {
        if (auto frame = layout.observe(observer)) {
            last = std::move(frame);
            ++taken;
        } else if (!wakeup.wait(20s)) {
            ADD_FAILURE() << "no frame came after " << taken;
            break;
        }
    }
    return last;
}

// Lets go of the frames queued now; the newest, or `otherwise` when none was.
CaptureDataPtr drain(Observable& layout, const ObserverPtr& observer, CaptureDataPtr otherwise) {
    while (auto frame = layout.observe(observer)) {
        otherwise = std::move(frame);
    }
    return otherwise;
}

// The mean difference of the right eye's place on the canvas (from x 400) against the left eye's
// (x 0) moved `shift` columns: 0 for the same picture, large for another.
double eyeDifference(const std::string& picture, size_t shift) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(picture.data());
    double sum = 0;
    size_t count = 0;
    for (size_t y = 0; y < 240; ++y) {
        for (size_t x = 0; x + shift < 400; ++x) {
            const uint8_t* left = bytes + (y * Width + x + shift) * 3;
            const uint8_t* right = bytes + (y * Width + 400 + x) * 3;
            for (int c = 0; c < 3; ++c) {
                sum += std::abs(left[c] - right[c]);
            }
            count += 3;
        }
    }
    return sum / static_cast<double>(count);
}

enum class Eyes { Same, Distinct, Unclear };

// Whether the right eye's place shows the top screen, or the emulated board's right eye (the left
// one moved a few columns), as far as the movie's picture tells: the one it is far closer to.
Eyes eyesOf(const std::string& picture) {
    const double same = eyeDifference(picture, 0);
    const double moved = eyeDifference(picture, Ft601Model::RightEyeShift);
    if (std::max(same, moved) < 6) {
        return Eyes::Unclear; // a picture without detail, such as a black one
    }
    return same * 3 < moved ? Eyes::Same : moved * 3 < same ? Eyes::Distinct : Eyes::Unclear;
}

TEST(Ft601RecordingTest, ARecordingGoesOnInOneMovieWhile3DIsSwitchedOnAndOffWithTheRightEyeAndTheSound) {
    test::isolateUserFolders();
    LogCapture log;
    auto demo = std::make_unique<DemoBoard>();
    demo->setTone(ToneHertz);
    std::string error;
    auto board = EmulatedBoard::create(std::make_unique<Ft601Model>(std::move(demo), Ft601Options{}), error);
    ASSERT_TRUE(board) << error;
    const test::BusyCores load;

    QTemporaryDir folder;
    // A movie that fails a check is kept for a look.
    const std::unique_ptr<QTemporaryDir, void (*)(QTemporaryDir*)> keep(&folder, [](QTemporaryDir* kept) {
        if (::testing::Test::HasFailure()) {
            kept->setAutoRemove(false);
            std::fprintf(stderr, "The recording is kept in %s\n", qPrintable(kept->path()));
        }
    });
    CaptureSettings settings;
    settings.storageFolder = folder.path();
    settings.gameAudioInput = AudioInput::BoardId;
    auto usb = createBoard("usb");
    ASSERT_TRUE(usb);
    CaptureSession session(std::move(*usb), settings);
    const LayoutPtr layout = LayoutController::instance().layoutNamed("3D Side by Side");
    ASSERT_TRUE(layout);
    session.setLayout(layout);
    ASSERT_TRUE(session.start());
    // Watched as the window watches it (the session starts a layout for its recorders only).
    const auto wakeup = std::make_shared<Wakeup>();
    const ObserverPtr watch = layout->addObserver(wakeup);
    ASSERT_TRUE(layout->startListening());

    // The frame numbers count the board's sixtieths of a second, also those a switch took: the
    // movie must cover every one between the frames seen after it started and before it stopped.
    const CaptureDataPtr beforeStart = framesLater(*layout, watch, *wakeup, 1);
    ASSERT_TRUE(beforeStart);
    ASSERT_FALSE(session.record());
    const uint64_t lastQueued = drain(*layout, watch, beforeStart)->number();
    const uint64_t firstRecorded = framesLater(*layout, watch, *wakeup, 1)->number();
    framesLater(*layout, watch, *wakeup, 90);
    for (const bool on : {true, false}) {
        settings.capture3D = on;
        session.apply(settings);
        ASSERT_TRUE(
            log.waitFor(on ? "The capture board switched 3D on" : "The capture board switched 3D off", 20s));
        framesLater(*layout, watch, *wakeup, 90);
    }
    const CaptureDataPtr last = drain(*layout, watch, framesLater(*layout, watch, *wakeup, 1));
    session.stopRecording();
    const uint64_t lastRecorded = last->number();
    const uint64_t afterStop = drain(*layout, watch, framesLater(*layout, watch, *wakeup, 1))->number();
    const auto recorder = session.recorder();
    ASSERT_TRUE(recorder->waitUntilFinished(120s));
    layout->removeObserver(watch);
    layout->stopListening();
    session.shutdown();
    EXPECT_EQ(board->ft601()->refused(), std::vector<std::string>{}) << "the driver sent a wrong command";
    EXPECT_EQ(log.countPrefix("The capture board stays without 3D"), 0u);

    ASSERT_EQ(recorder->madeFiles().size(), 1) << "one movie across both switches";
    const std::string movie = recorder->madeFiles()[0].toStdString();
    const QJsonObject probed = test::probe(movie, {"-show_streams"});
    const QJsonObject video = test::streamWith(probed, "codec_type", "video");
    EXPECT_EQ(video["width"].toInt(), int(Width));
    EXPECT_EQ(video["height"].toInt(), int(Height));
    const double seconds = video["duration"].toString().toDouble();
    EXPECT_GE(seconds, double(lastRecorded - firstRecorded) / 60 - 0.1) << "the movie was cut";
    EXPECT_LE(seconds, double(afterStop - lastQueued) / 60 + 0.1);
    ASSERT_FALSE(test::streamWith(probed, "codec_type", "audio").isEmpty()) << "no sound track";

    // The picture, twenty times a second of the movie: the top screen in the right eye's place,
    // then the right eye, then the top screen again, each long enough to be seen.
    const auto pictures = test::decodePictures(movie, Width * Height * 3, {},
                                               {"-vf", "fps=" + std::to_string(PicturesPerSecond)});
    ASSERT_GT(pictures.size(), 60u);
    std::vector<std::pair<Eyes, int>> runs;
    for (const std::string& picture : pictures) {
        const Eyes eyes = eyesOf(picture);
        if (runs.empty() || runs.back().first != eyes) {
            runs.emplace_back(eyes, 0);
        }
        ++runs.back().second;
    }
    std::string told;
    for (const auto& [eyes, count] : runs) {
        told += std::to_string(count) + (eyes == Eyes::Same       ? " same, "
                                         : eyes == Eyes::Distinct ? " distinct, "
                                                                  : " unclear, ");
    }
    ASSERT_EQ(runs.size(), 3u) << "each picture shows the top screen or the right eye, and each came once: "
                               << told;
    EXPECT_EQ(runs[0].first, Eyes::Same);
    EXPECT_EQ(runs[1].first, Eyes::Distinct);
    EXPECT_EQ(runs[2].first, Eyes::Same);
    for (const auto& [eyes, count] : runs) {
        EXPECT_GE(count, PicturesPerSecond) << "a part of the movie is short";
    }

    // The board's tone goes on in each part and is as long as the picture. At a switch the board
    // sends neither picture nor sound while its firmware starts, and while every core is busy frames
    // come late or are skipped, each a frame's silence: a board that lost its sound at a switch is
    // silent from there on, so some of the tone in much of each part is enough to tell.
    constexpr int Rate = 44100;
    const std::vector<int16_t> samples = test::decodeSound(movie, {"-map", "0:a:0", "-ar", "44100"});
    EXPECT_NEAR(double(samples.size()) / Rate, seconds, 0.05) << "the sound is as long as the picture";
    const size_t window = Rate / PicturesPerSecond;
    size_t picture = 0;
    for (const auto& [eyes, count] : runs) {
        int toned = 0;
        for (const size_t end = picture + size_t(count); picture < end; ++picture) {
            toned += (picture + 1) * window <= samples.size() &&
                     test::toneAmplitude(samples.data() + picture * window, window, ToneHertz, Rate) >
                         DemoBoard::Amplitude / 10;
        }
        EXPECT_GT(toned, count / 4) << "the tone is missing while the right eye's place shows "
                                    << (eyes == Eyes::Distinct ? "the right eye" : "the top screen");
    }
}

} // namespace
} // namespace zandor
