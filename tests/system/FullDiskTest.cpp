// A disk that fills up in the middle of a recording: the first failed write ends the recording,
// said once, and what was written is kept and plays.

#include "Media.h"
#include "UserFolders.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QTemporaryDir>

#include <string>

namespace zandor {
namespace {

TEST(FullDisk, EndsTheRecordingAtTheFirstFailedWriteAndKeepsWhatWasWritten) {
    test::isolateUserFolders();
    if (test::runProcess({"unshare", "-m", "true"}).exitCode != 0) {
        GTEST_SKIP() << "no mount namespaces here";
    }
    QTemporaryDir work;
    const std::string out = (work.path() + "/out").toStdString(),
                      kept = (work.path() + "/kept").toStdString();
    ASSERT_TRUE(QDir().mkpath(QString::fromStdString(out)) && QDir().mkpath(QString::fromStdString(kept)));
    // A storage folder of 300 kB, in a mount namespace of the recording's own; what it held is
    // copied out for the checks.
    const test::ProcessResult run = test::runProcess(
        {"unshare",
         "-m",
         "sh",
         "-c",
         "mount -t tmpfs -o size=300k zandor-full \"$1\" || exit 90; out=$1 keep=$2; shift 2; \"$@\"; "
         "status=$?; cp -a \"$out/.\" \"$keep\"; exit $status",
         "sh",
         out,
         kept,
         ZANDOR_CLI,
         "record",
         "--board",
         "demo",
         "--seconds",
         "6",
         "--layout",
         "Top",
         "--quality",
         "Highest",
         "--game-audio",
         "None",
         "--out",
         out});
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

} // namespace
} // namespace zandor
