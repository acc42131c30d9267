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

    ASSERT_FALSE(SublerWrapper::instance().appendSource(source, tricky));
    EXPECT_EQ(test::readLines(m_tools.filePath("arguments")),
              (QStringList{"-source", source, "-dest", tricky}));
    ASSERT_FALSE(SublerWrapper::instance().appendSources(
        {{tricky, "Game and narrator", "und", true}, {source, "Game", "und", false}}, source));
    EXPECT_EQ(test::readLines(m_tools.filePath("arguments")),
              (QStringList{"-source", tricky, "-title", "Game and narrator", "-language", "und", "-default",
                           "yes", "-source", source, "-title", "Game", "-language", "und", "-default", "no",
                           "-dest", source}));

    // The whole picture at a constant rate: no crop, whatever the tool takes for black borders.
    const QStringList picture{"--input",  source, "--output", tricky, "--encoder", "x264",
                              "--format", "mp4",  "--rate",   "30",   "--vb",      "2500"};
    const QStringList fixed{"--optimize", "--crop", "0:0:0:0", "--cfr"};
    ASSERT_FALSE(HandBrakeWrapper::instance().convert(source, tricky, "2500", "30"));
    EXPECT_EQ(test::readLines(m_tools.filePath("arguments")),
              (picture + QStringList{"--aencoder", "copy:aac"} + fixed));
    // Named sound tracks: every one of them kept, by copy, under its name.
    ASSERT_FALSE(
        HandBrakeWrapper::instance().convert(source, tricky, "2500", "30", {"Game and narrator", "Game"}));
    EXPECT_EQ(test::readLines(m_tools.filePath("arguments")),
              (picture +
               QStringList{"--audio", "1,2", "--aencoder", "copy:aac,copy:aac", "--aname",
                           "Game and narrator,Game"} +
               fixed));
}

// A tool that writes more than a pipe holds would stall if its output were read only after it ended.
TEST_F(ShellCommandTest, AToolIsReadWhileItRuns) {
    writeTool("talker", "head -c 6000000 /dev/zero | tr '\\0' x\nexit 3\n");
    EXPECT_TRUE(ShellCommand::runCommand("talker", {}) ==
                (QVariantMap{{ShellCommandOutput, QString(6000000, 'x')}, {ShellCommandStatus, 3}}));
}

// Carriage-return progress counts as lines.
TEST_F(ShellCommandTest, AFailedToolGivesItsStatusAndTheEndOfItsOutput) {
    writeTool("failing", "echo first\nprintf '10%%\\r50%%\\r'\necho\necho '  last  '\nexit 2\n");
    const Error error = ShellCommand::runSucceeded("failing", {});
    EXPECT_EQ(error.step(), "run failing");
    EXPECT_EQ(error.code(), 2);
    EXPECT_EQ(error.detail(), "10% / 50% / last");
}

// A second of `source` (an ffmpeg lavfi source) in a QuickTime movie made by the ffmpeg
// command-line tool, captured from `captureStart` when there is one.
std::string makeMovie(const QTemporaryDir& folder, const char* name, const char* source, const char* codec,
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
}

double seconds(const QJsonValue& object, const char* key) {
    return object[key].toString().toDouble();
}

// AAC's priming frame may show just before the sound's place; the parts from before the video and
// after its last picture are left out; the video's capture start is kept.
TEST(SublerCliTest, MakesAnMp4FromTheVideoThenAddsTheSoundAlignedByItsCaptureStart) {
    constexpr const char* VideoStart = "1763760000.000000";
    const QTemporaryDir folder(QDir::tempPath() + "/zandor media XXXXXX");
    const std::string video =
        makeMovie(folder, "video file.mov", "testsrc=size=400x240:rate=60", "libx264", VideoStart);
    const std::string merged = folder.filePath("merged movie.mp4").toStdString();
    for (const auto& [audio, captureStart, start, length] :
         {std::tuple<const char*, const char*, double, double>{"audio file.mov", nullptr, 0.0, 1.0},
          {"audio later.mov", "1763760000.500000", 0.5, 0.5},
          {"audio earlier.mov", "1763759999.700000", 0.0, 0.7}}) {
        SCOPED_TRACE(audio);
        QFile::remove(QString::fromStdString(merged));
        for (const std::string& source :
             {video, makeMovie(folder, audio, "sine=frequency=440", "aac", captureStart)}) {
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
        // Cut whole packets at a time: up to one (23 ms) more at either end, but never past the
        // last picture, where the last packet is cut short.
        EXPECT_NEAR(seconds(sound, "duration"), length, 0.05);
        EXPECT_LE(seconds(sound, "start_time") + seconds(sound, "duration"), 1.0 + 0.001);
    }
}

// The default flag is the one an MP4 file keeps as the track's "enabled" flag.
TEST(SublerCliTest, AddsSeveralSourcesInOneRunInOrderEachNamedAndPlaced) {
    const QTemporaryDir folder(QDir::tempPath() + "/zandor media XXXXXX");
    const std::string merged = folder.filePath("merged movie.mp4").toStdString();
    const ProcessResult video = runProcess(
        {ZANDOR_SUBLERCLI, "-source",
         makeMovie(folder, "video.mov", "testsrc=size=400x240:rate=60", "libx264", "1763760000.000000"),
         "-dest", merged});
    ASSERT_EQ(video.exitCode, 0) << video.err;
    // The narrator's options in another order: any order is taken.
    std::vector<std::string> command{ZANDOR_SUBLERCLI};
    for (const auto& [name, tone, start, options] :
         {std::tuple{
              "mix.mov", "sine=frequency=440", "1763760000.000000",
              std::vector<std::string>{"-title", "Game and narrator", "-language", "und", "-default", "yes"}},
          {"game.mov", "sine=frequency=440", "1763760000.250000",
           std::vector<std::string>{"-title", "Game", "-language", "und", "-default", "no"}},
          {"narrator.mov", "sine=frequency=1000", "1763760000.500000",
           std::vector<std::string>{"-title", "Narrator", "-default", "no", "-language", "und"}}}) {
        command.insert(command.end(), {"-source", makeMovie(folder, name, tone, "aac", start)});
        command.insert(command.end(), options.begin(), options.end());
    }
    command.insert(command.end(), {"-dest", merged});
    const ProcessResult sounds = runProcess(command);
    ASSERT_EQ(sounds.exitCode, 0) << sounds.err;

    const QJsonArray streams = test::probe(merged, {"-show_streams"})["streams"].toArray();
    ASSERT_EQ(streams.size(), 4);
    EXPECT_EQ(streams[0]["codec_type"], "video");
    EXPECT_EQ(streams[0]["disposition"]["default"], 1);
    const char* const titles[] = {"Game and narrator", "Game", "Narrator"};
    for (int track = 0; track < 3; ++track) {
        const QJsonValue sound = streams[track + 1];
        SCOPED_TRACE(titles[track]);
        EXPECT_EQ(sound["codec_type"], "audio");
        EXPECT_EQ(sound["tags"]["handler_name"], titles[track]);
        EXPECT_EQ(sound["tags"]["language"], "und");
        EXPECT_EQ(sound["disposition"]["default"], track == 0 ? 1 : 0);
        EXPECT_NEAR(seconds(sound, "start_time"), 0.25 * track, 0.03);
    }
}

TEST(SublerCliTest, RefusesACommandLineItDoesNotTakeAndWritesNothing) {
    const QTemporaryDir folder;
    const std::string source = makeMovie(folder, "sound.mov", "sine=frequency=440", "aac", nullptr);
    const std::string destination = folder.filePath("merged.mp4").toStdString();
    for (const std::vector<std::string>& options : std::vector<std::vector<std::string>>{
             {"-title", "Game", "-source", source, "-dest", destination},
             {"-source", source, "-language", "english", "-dest", destination},
             {"-source", source, "-default", "maybe", "-dest", destination},
             {"-source", source, "-title", "Game", "-dest", destination, "-dest", destination},
             {"-source", source, "-title"},
             {"-source", source}}) {
        std::vector<std::string> command{ZANDOR_SUBLERCLI};
        command.insert(command.end(), options.begin(), options.end());
        const ProcessResult run = runProcess(command);
        EXPECT_EQ(run.exitCode, 1) << options.size();
        EXPECT_EQ(run.err.rfind("usage: SublerCLI -source SOURCE", 0), 0u) << run.err;
        EXPECT_FALSE(QFile::exists(QString::fromStdString(destination)));
    }
}

} // namespace
} // namespace zandor
