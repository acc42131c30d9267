#include "Files.h"
#include "Media.h"
#include "recording/HandBrakeWrapper.h"
#include "recording/ShellCommand.h"
#include "recording/SublerWrapper.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zandor {
namespace {

using test::ProcessResult;
using test::runProcess;

// Tools are shell scripts in a private tool folder.
class ShellCommandTest : public ::testing::Test {
protected:
    void SetUp() override { ShellCommand::setToolFolder(m_tools.path()); }
    void TearDown() override { ShellCommand::setToolFolder({}); }

    void writeTool(const QString& name, const QByteArray& script) {
        ASSERT_TRUE(test::writeFile(m_tools.filePath(name), "#!/bin/sh\n" + script, true));
    }

    QTemporaryDir m_tools;
};

TEST_F(ShellCommandTest, WrappersPassTheirExactArgumentListsWithoutAShell) {
    const QString source = "/tmp/my movies/Video Double Screen.mov";
    const QString tricky = "/tmp/$HOME `date` 'quoted' \"x\" *.mp4";
    const QByteArray noteArguments =
        "for a in \"$@\"; do printf '%s\\n' \"$a\"; done > \"$(dirname \"$0\")/arguments\"\n";
    writeTool("SublerCLI", noteArguments);
    writeTool("HandBrakeCLI", noteArguments);

    ASSERT_TRUE(SublerWrapper::instance().appendSource(source, tricky));
    EXPECT_EQ(test::readLines(m_tools.filePath("arguments")),
              (QStringList{"-source", source, "-dest", tricky}));
    ASSERT_TRUE(HandBrakeWrapper::instance().convert(source, tricky, "2500", "30"));
    EXPECT_EQ(test::readLines(m_tools.filePath("arguments")),
              (QStringList{"--input", source, "--output", tricky, "--encoder", "x264", "--format", "mp4",
                           "--rate", "30", "--vb", "2500", "--aencoder", "copy:aac", "--optimize"}));
}

// A tool that writes more than a pipe holds would stall if its output were read only after it ended.
TEST_F(ShellCommandTest, AToolIsReadWhileItRuns) {
    writeTool("talker", "head -c 6000000 /dev/zero | tr '\\0' x\nexit 3\n");
    EXPECT_TRUE(ShellCommand::runCommand("talker", {}) ==
                (QVariantMap{{ShellCommandOutput, QString(6000000, 'x')}, {ShellCommandStatus, 3}}));
}

// SublerCLI against movies made by the ffmpeg command-line tool. The destination is made from the
// video, then given the sound in place, the sound placed by its capture start against the video's
// (AAC's priming frame may show just before), the part from before the video left out; the video's
// capture start is kept.
TEST(SublerCliTest, MakesAnMp4FromTheVideoThenAddsTheSoundAlignedByItsCaptureStart) {
    constexpr const char* VideoStart = "1763760000.000000";
    const QTemporaryDir folder(QDir::tempPath() + "/zandor media XXXXXX");
    // A second of `source`, captured from `captureStart` when there is one.
    const auto make = [&folder](const char* name, const char* source, const char* codec,
                                const char* captureStart) {
        const std::string path = folder.filePath(name).toStdString();
        std::vector<std::string> command{"ffmpeg", "-v", "error", "-f", "lavfi", "-i", source, "-c", codec};
        command.insert(command.end(), {"-t", "1", "-f", "mov", "-movflags", "use_metadata_tags"});
        if (captureStart) {
            command.insert(command.end(), {"-metadata", std::string("zandor_capture_start=") + captureStart});
        }
        command.push_back(path);
        const ProcessResult made = runProcess(command);
        EXPECT_EQ(made.exitCode, 0) << made.err;
        return path;
    };
    const auto seconds = [](const QJsonValue& object, const char* key) {
        return object[key].toString().toDouble();
    };
    const std::string video = make("video file.mov", "testsrc=size=400x240:rate=60", "libx264", VideoStart);
    const std::string merged = folder.filePath("merged movie.mp4").toStdString();
    for (const auto& [audio, captureStart, start, length] :
         {std::tuple<const char*, const char*, double, double>{"audio file.mov", nullptr, 0.0, 1.0},
          {"audio later.mov", "1763760000.500000", 0.5, 1.0},
          {"audio earlier.mov", "1763759999.700000", 0.0, 0.7}}) {
        SCOPED_TRACE(audio);
        QFile::remove(QString::fromStdString(merged));
        for (const std::string& source : {video, make(audio, "sine=frequency=440", "aac", captureStart)}) {
            const ProcessResult made = runProcess({ZANDOR_SUBLERCLI, "-source", source, "-dest", merged});
            EXPECT_EQ(made.exitCode, 0) << made.err;
        }
        const QJsonObject probed = test::probe(merged, {"-show_format", "-show_streams"});
        ASSERT_EQ(probed["streams"].toArray().size(), 2);
        EXPECT_EQ(probed["format"][u"tags"][u"zandor_capture_start"], VideoStart);
        EXPECT_NEAR(seconds(probed["format"], "duration"), std::max(1.0, start + length), 0.03);
        const QJsonObject picture = test::streamWith(probed, "codec_name", "h264"),
                          sound = test::streamWith(probed, "codec_name", "aac");
        EXPECT_EQ(picture["nb_frames"], "60");
        EXPECT_NEAR(seconds(picture, "start_time"), 0.0, 0.001);
        EXPECT_NEAR(seconds(sound, "start_time"), start, 0.03);
        EXPECT_NEAR(seconds(sound, "duration"), length, 0.03);
    }
}

} // namespace
} // namespace zandor
