// Storage that cannot take a movie: the first failed write ends a recording, said once, and what
// was written plays.

#include "Media.h"
#include "UserFolders.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QTemporaryDir>

#include <string>

namespace zandor {
namespace {

// A storage folder of its own in a mount namespace of the run's own; what it held is copied out
// for the checks.
class FullDisk : public ::testing::Test {
protected:
    void SetUp() override {
        test::isolateUserFolders();
        if (!test::haveMountNamespaces()) {
            GTEST_SKIP() << "no mount namespaces here";
        }
        ASSERT_TRUE(QDir().mkpath(QString::fromStdString(out)) &&
                    QDir().mkpath(QString::fromStdString(kept)));
    }
    // Runs zandor-cli's `command` with the storage folder a memory file system mounted with `options`.
    test::ProcessResult run(const std::string& options, const std::vector<std::string>& command) {
        auto wrapped = test::inMountNamespace(
            "mount -t tmpfs -o " + options + " zandor-disk \"$1\" || exit 90; ", out, kept);
        wrapped.push_back(ZANDOR_CLI);
        wrapped.insert(wrapped.end(), command.begin(), command.end());
        wrapped.insert(wrapped.end(), {"--board", "demo", "--layout", "Top", "--out", out});
        if (command.front() != "screenshot") {
            wrapped.insert(wrapped.end(), {"--quality", "Highest"});
        }
        const test::ProcessResult result = test::runProcess(wrapped);
        EXPECT_FALSE(result.overstayed);
        return result;
    }

    QTemporaryDir work;
    const std::string out = (work.path() + "/out").toStdString(),
                      kept = (work.path() + "/kept").toStdString();
};

TEST_F(FullDisk, EndsTheRecordingAtTheFirstFailedWriteAndKeepsWhatWasWritten) {
    const test::ProcessResult run =
        this->run("size=300k", {"record", "--seconds", "6", "--game-audio", "None"});
    EXPECT_EQ(run.exitCode, 1) << run.err;
    const QString said = QString::fromStdString(run.err);
    EXPECT_EQ(said.count("cannot be written: the recording stops here"), 1) << run.err;
    const QStringList bundles = QDir(QString::fromStdString(kept)).entryList({"*.zdrecord"}, QDir::Dirs);
    ASSERT_EQ(bundles.size(), 1) << run.err;
    EXPECT_TRUE(
        said.contains("zandor-cli record: The recording of the video could not be finalized. The disk is "
                      "full. The recording is kept in \"" +
                      QString::fromStdString(out) + "/" + bundles[0] + "\".\n"))
        << run.err;
    const QJsonObject video = test::streamWith(
        test::probe(kept + "/" + bundles[0].toStdString() + "/VideoTop.mov",
                    {"-count_packets", "-show_entries", "stream=codec_type,codec_name,nb_read_packets"}),
        "codec_type", "video");
    EXPECT_EQ(video["codec_name"].toString(), "h264");
    EXPECT_GT(video["nb_read_packets"].toString().toInt(), 10)
        << "the frames written before the disk filled play";
}

// A replay saved on a normal disk:
// RecordingSystemTest.FiftyReplaysWithGameSoundUnderLoadAllEndCleanlyWithTheirSound.
TEST_F(FullDisk, AReplayThatCannotBeSavedIsSaidAndLeavesNothing) {
    const test::ProcessResult run =
        this->run("size=300k", {"replay", "--buffer-seconds", "5", "--play-seconds", "6"});
    EXPECT_NE(run.exitCode, 0);
    EXPECT_NE(run.err.find("zandor-cli replay: Could not save the replay. Zandor cannot write to \"" + out +
                           "\". The disk is full.\n"),
              std::string::npos)
        << run.err;
    EXPECT_EQ(QDir(QString::fromStdString(kept)).entryList(QDir::Files | QDir::Hidden), QStringList())
        << "nothing is left behind";
}

TEST_F(FullDisk, AScreenshotThatCannotBeSavedSaysWhereAndWhy) {
    const test::ProcessResult run = this->run("size=8k", {"screenshot", "--format", "JPEG"});
    EXPECT_EQ(run.exitCode, 1) << run.err;
    EXPECT_NE(
        run.err.find("zandor-cli screenshot: Zandor cannot write to \"" + out + "\". The disk is full.\n"),
        std::string::npos)
        << run.err;
    EXPECT_EQ(QDir(QString::fromStdString(kept)).entryList(QDir::Files | QDir::Hidden), QStringList())
        << "nothing is left behind";
}

} // namespace
} // namespace zandor
