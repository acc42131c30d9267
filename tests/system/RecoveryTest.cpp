// Recordings that a kill left unfinished: `zandor-cli recover` finishes the abandoned ones as a
// stopped recording is finished (with the game and the narrator mixed, then each alone), leaves
// alone one that is still recording, and names one it cannot.

#include "Files.h"
#include "Media.h"
#include "Process.h"
#include "PulseServer.h"
#include "UserFolders.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QJsonArray>
#include <QTemporaryDir>

#include <csignal>
#include <cstdlib>
#include <string>

namespace zandor {
namespace {

using namespace std::chrono_literals;

TEST(Recovery, AKilledRecordingIsFinishedWithItsSoundAndALiveOrUnreadableOneIsLeft) {
    test::isolateUserFolders();
    test::PulseServer pulse;
    ASSERT_TRUE(pulse.isRunning()) << pulse.error();
    const test::PulseServer::Playback game("game_sink", 440, 0);
    const test::PulseServer::Playback narrator("narrator_sink", 1000, 0);
    QTemporaryDir work;
    const std::string out = work.path().toStdString();
    const auto record = [&out](const char* seconds) {
        return test::startProcess({ZANDOR_CLI, "record", "--board", "demo", "--seconds", seconds, "--layout",
                                   "Top", "--game-audio", "GameIn", "--narrator-audio", "NarratorIn", "--out",
                                   out});
    };

    // Killed without warning once its movie holds four and a half seconds (a loaded machine takes a
    // while to start the program and its sound), as a crash or a power cut would end it.
    const pid_t killed = record("30");
    ASSERT_GT(killed, 0);
    const auto recordedSeconds = [&work] {
        const QStringList bundles = QDir(work.path()).entryList({"*.zdrecord"}, QDir::Dirs);
        if (bundles.isEmpty()) {
            return 0.0;
        }
        // The movie is written in fragments, and read as far as they go; 60 pictures a second.
        const std::string movie = (work.path() + "/" + bundles[0] + "/VideoTop.mov").toStdString();
        const std::string pictures =
            test::runProcess({"ffprobe", "-v", "quiet", "-count_packets", "-show_entries",
                              "stream=nb_read_packets", "-of", "csv=p=0", movie})
                .out;
        return std::atof(pictures.c_str()) / 60.0;
    };
    for (int wait = 0; wait < 300 && recordedSeconds() < 4.5; ++wait) {
        ASSERT_FALSE(test::reapWithin(killed, 200ms)) << "the recording ended by itself";
    }
    kill(killed, SIGKILL);
    ASSERT_TRUE(test::reapWithin(killed, 10s));
    const QStringList abandoned = QDir(work.path()).entryList({"*.zdrecord"}, QDir::Dirs);
    ASSERT_EQ(abandoned.size(), 1);

    // A merge that a failed finalising left behind is made again, not merged into a second time.
    const QString bundle = work.path() + "/" + abandoned[0];
    ASSERT_TRUE(QFile::copy(bundle + "/VideoTop.mov", bundle + "/MergedTop.mp4"));

    // Beside it: a bundle whose movie is no movie, and a recording that is still going on.
    const QString broken = work.path() + "/Capture 01_01_2026 00_00_00.zdrecord";
    ASSERT_TRUE(QDir().mkpath(broken) && test::writeFile(broken + "/VideoTop.mov", "not a movie"));
    const pid_t live = record("60");
    ASSERT_GT(live, 0);
    EXPECT_FALSE(test::reapWithin(live, 3s));

    const test::ProcessResult recovered = test::runProcess({ZANDOR_CLI, "recover", "--out", out});
    test::endProcess(live);
    EXPECT_EQ(recovered.exitCode, 0) << "nothing that could be recovered failed: " << recovered.err;
    const std::string movie = (work.path() + "/" + abandoned[0].chopped(9) + ".mp4").toStdString();
    EXPECT_EQ(recovered.out, movie + "\n") << recovered.err;
    const auto said = [](const std::string& err) {
        std::vector<std::string> lines = test::splitLines(err);
        std::erase_if(lines,
                      [](const std::string& line) { return line.rfind("zandor-cli recover: ", 0) != 0; });
        return lines;
    };
    const std::vector<std::string> unrecoverable{
        "zandor-cli recover: Cannot be recovered: " + broken.toStdString() +
        ": it holds no recording that can be played"};
    EXPECT_EQ(said(recovered.err), unrecoverable) << recovered.err;
    EXPECT_TRUE(QFileInfo(broken).isDir()) << "what cannot be recovered stays";
    EXPECT_FALSE(QFileInfo::exists(work.path() + "/" + abandoned[0])) << "the recovered bundle goes";
    const test::ProcessResult again = test::runProcess({ZANDOR_CLI, "recover", "--out", out});
    EXPECT_EQ(again.exitCode, 0) << again.err;
    EXPECT_EQ(said(again.err), unrecoverable) << "said the same once it is known";

    const QJsonArray streams = test::probe(movie, {"-show_streams"})["streams"].toArray();
    ASSERT_EQ(streams.size(), 4) << "one picture and three sounds";
    EXPECT_GE(streams[0]["duration"].toString().toDouble(), 4.0);
    const char* const titles[] = {"Game and narrator", "Game", "Narrator"};
    for (int track = 0; track < 3; ++track) {
        EXPECT_EQ(streams[track + 1]["tags"]["handler_name"], titles[track]);
        const std::vector<int16_t> sound = test::decodeSound(movie, {"-map", "0:a:" + std::to_string(track)});
        ASSERT_GT(sound.size(), 44100u);
        EXPECT_GT(*std::max_element(sound.begin(), sound.end()), 8000) << titles[track] << " sounds";
    }
}

// A full disk fails a recovery that can be tried again: the bundle is not marked as holding
// nothing, and the command fails.
TEST(Recovery, ARecoveryThatMeetsAFullDiskIsNotTakenForAnUnplayableOne) {
    test::isolateUserFolders();
    if (!test::haveMountNamespaces()) {
        GTEST_SKIP() << "no mount namespaces here";
    }
    QTemporaryDir work;
    const QString made = work.path() + "/made/Capture 01_02_2026 10_00_00.zdrecord";
    ASSERT_TRUE(QDir().mkpath(made));
    ASSERT_EQ(test::runProcess({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc=size=400x240:rate=60",
                                "-t", "4", "-c:v", "libx264", "-movflags", "frag_keyframe+empty_moov",
                                (made + "/VideoTop.mov").toStdString()})
                  .exitCode,
              0);
    // Room for the movie, not for its copy merged with the sound.
    const qint64 room = QFileInfo(made + "/VideoTop.mov").size() + 8192;
    const std::string out = (work.path() + "/out").toStdString(),
                      kept = (work.path() + "/kept").toStdString();
    ASSERT_TRUE(QDir().mkpath(QString::fromStdString(out)) && QDir().mkpath(QString::fromStdString(kept)));
    auto command = test::inMountNamespace(
        "mount -t tmpfs -o size=" + std::to_string(room) + " zandor-disk \"$1\" && cp -a \"" +
            (work.path() + "/made/.").toStdString() + "\" \"$1\" || exit 90; ",
        out, kept);
    command.insert(command.end(), {ZANDOR_CLI, "recover", out + "/Capture 01_02_2026 10_00_00.zdrecord"});
    const test::ProcessResult recovered = test::runProcess(command);
    ASSERT_NE(recovered.exitCode, 90) << recovered.err;
    EXPECT_EQ(recovered.exitCode, 1) << recovered.err;
    EXPECT_EQ(recovered.err.find("Cannot be recovered"), std::string::npos) << recovered.err;
    EXPECT_NE(recovered.err.find(" The disk is full."), std::string::npos) << recovered.err;
    const QString bundle = QString::fromStdString(kept) + "/Capture 01_02_2026 10_00_00.zdrecord";
    EXPECT_TRUE(QFileInfo(bundle + "/VideoTop.mov").isFile()) << "kept to be tried again";
    EXPECT_FALSE(QFileInfo::exists(bundle + "/Unrecoverable")) << "not marked";
}

} // namespace
} // namespace zandor
