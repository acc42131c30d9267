// Storage that cannot take a movie: a disk that fills up in the middle of a recording (the first
// failed write ends the recording, said once, and what was written is kept and plays), and a replay
// saved to a full or read-only disk (said, and no file left behind).

#include "Media.h"
#include "UserFolders.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QTemporaryDir>

#include <string>

namespace zandor {
namespace {

bool haveMountNamespaces() {
    return test::runProcess({"unshare", "-m", "true"}).exitCode == 0;
}

// Runs `command` with `out` as a tmpfs mounted with `options`, in a mount namespace of its own;
// what the folder held at the end is copied to `kept`.
test::ProcessResult runOnTmpfs(const std::string& options, const std::string& out, const std::string& kept,
                               std::vector<std::string> command) {
    command.insert(
        command.begin(),
        {"unshare", "-m", "sh", "-c",
         "mount -t tmpfs -o \"$1\" zandor-disk \"$2\" || exit 90; out=$2 keep=$3; shift 3; \"$@\"; "
         "status=$?; cp -a \"$out/.\" \"$keep\"; exit $status",
         "sh", options, out, kept});
    return test::runProcess(command);
}

TEST(FullDisk, EndsTheRecordingAtTheFirstFailedWriteAndKeepsWhatWasWritten) {
    test::isolateUserFolders();
    if (!haveMountNamespaces()) {
        GTEST_SKIP() << "no mount namespaces here";
    }
    QTemporaryDir work;
    const std::string out = (work.path() + "/out").toStdString(),
                      kept = (work.path() + "/kept").toStdString();
    ASSERT_TRUE(QDir().mkpath(QString::fromStdString(out)) && QDir().mkpath(QString::fromStdString(kept)));
    // A storage folder of 300 kB, in a mount namespace of the recording's own; what it held is
    // copied out for the checks.
    const test::ProcessResult run =
        runOnTmpfs("size=300k", out, kept,
                   {ZANDOR_CLI, "record", "--board", "demo", "--seconds", "6", "--layout", "Top", "--quality",
                    "Highest", "--game-audio", "None", "--out", out});
    ASSERT_FALSE(run.overstayed);
    EXPECT_EQ(run.exitCode, 1) << run.err;

    const auto count = [&run](const std::string& line) {
        size_t n = 0;
        for (size_t at = run.err.find(line); at != std::string::npos; at = run.err.find(line, at + 1)) {
            ++n;
        }
        return n;
    };
    EXPECT_EQ(count("av_interleaved_write_frame: No space left on device"), 1u) << run.err;
    EXPECT_EQ(count("cannot be written: the recording stops here"), 1u) << run.err;
    const QStringList bundles = QDir(QString::fromStdString(kept)).entryList({"*.zdrecord"}, QDir::Dirs);
    ASSERT_EQ(bundles.size(), 1) << run.err;
    EXPECT_EQ(count("zandor-cli record: The recording of the video could not be finalized. The disk is full. "
                    "The recording is kept in \"" +
                    out + "/" + bundles[0].toStdString() + "\".\n"),
              1u)
        << run.err;
    const QJsonObject video = test::streamWith(
        test::probe(kept + "/" + bundles[0].toStdString() + "/VideoTop.mov",
                    {"-count_packets", "-show_entries", "stream=codec_type,codec_name,nb_read_packets"}),
        "codec_type", "video");
    EXPECT_EQ(video["codec_name"].toString(), "h264");
    EXPECT_GT(video["nb_read_packets"].toString().toInt(), 10)
        << "the frames written before the disk filled play";
}

struct ReplayDisk {
    std::string options;
    std::string message; // empty: the replay is saved
};

class ReplayStorage : public ::testing::TestWithParam<ReplayDisk> {};

TEST_P(ReplayStorage, ASavedReplayIsWholeOrNotThere) {
    test::isolateUserFolders();
    if (!haveMountNamespaces()) {
        GTEST_SKIP() << "no mount namespaces here";
    }
    QTemporaryDir work;
    const std::string out = (work.path() + "/out").toStdString(),
                      kept = (work.path() + "/kept").toStdString();
    ASSERT_TRUE(QDir().mkpath(QString::fromStdString(out)) && QDir().mkpath(QString::fromStdString(kept)));
    const test::ProcessResult run =
        runOnTmpfs(GetParam().options, out, kept,
                   {ZANDOR_CLI, "replay", "--board", "demo", "--layout", "Top", "--quality", "Highest",
                    "--buffer-seconds", "5", "--play-seconds", "6", "--out", out});
    ASSERT_FALSE(run.overstayed);
    const QStringList left = QDir(QString::fromStdString(kept)).entryList(QDir::Files | QDir::Hidden);
    if (GetParam().message.empty()) {
        ASSERT_EQ(run.exitCode, 0) << run.err;
        ASSERT_EQ(left.size(), 1);
        EXPECT_EQ(run.out, out + "/" + left[0].toStdString() + "\n");
        const auto probed = test::probe(kept + "/" + left[0].toStdString(),
                                        {"-show_entries", "format=duration:stream=width,height,nb_frames"});
        EXPECT_GE(probed["format"]["duration"].toString().toDouble(), 5.0);
        EXPECT_LE(probed["format"]["duration"].toString().toDouble(), 6.0);
        EXPECT_EQ(probed["streams"][0]["width"].toInt(), 400);
        EXPECT_EQ(probed["streams"][0]["height"].toInt(), 240);
        EXPECT_NEAR(probed["streams"][0]["nb_frames"].toString().toDouble() /
                        probed["format"]["duration"].toString().toDouble(),
                    60.0, 3.0)
            << "the board's rate";
    } else {
        std::string message = GetParam().message;
        if (const size_t folder = message.find("%s"); folder != std::string::npos) {
            message.replace(folder, 2, out);
        }
        EXPECT_NE(run.exitCode, 0);
        EXPECT_NE(run.err.find("zandor-cli replay: " + message + "\n"), std::string::npos) << run.err;
        EXPECT_EQ(left, QStringList()) << "nothing is left behind";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Disks, ReplayStorage,
    ::testing::Values(ReplayDisk{"size=64m", ""},
                      ReplayDisk{"size=300k", "Could not save the replay. The disk is full."},
                      ReplayDisk{"ro", "Cannot write to the folder '%s': permission denied"}));

} // namespace
} // namespace zandor
