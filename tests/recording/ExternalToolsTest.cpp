#include "Process.h"
#include "base/Log.h"
#include "recording/HandBrakeWrapper.h"
#include "recording/ShellCommand.h"
#include "recording/SublerWrapper.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <string>
#include <unistd.h>
#include <vector>

namespace zandor {
namespace {

using test::runProcess;
using test::splitLines;

std::string outputOf(const QVariantMap& result) {
    return result.value(ShellCommandOutput).toString().toStdString();
}

// Tools are fake shell scripts in a private tool folder.
class ShellCommandTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_tools.isValid());
        ShellCommand::setToolFolder(m_tools.path());
    }
    void TearDown() override { ShellCommand::setToolFolder({}); }

    void writeTool(const QString& name, const QByteArray& script) {
        QFile file(m_tools.filePath(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("#!/bin/sh\n" + script);
        file.close();
        file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }

    // A tool that writes its arguments, one per line, to a file beside it.
    void writeArgumentRecorder(const QString& name) {
        writeTool(name,
                  "for a in \"$@\"; do printf '%s\\n' \"$a\"; done > \"$(dirname \"$0\")/arguments\"\n");
    }
    QStringList recordedArguments() {
        QFile file(m_tools.filePath(QStringLiteral("arguments")));
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        return QString::fromUtf8(file.readAll()).split(u'\n', Qt::SkipEmptyParts);
    }

    QTemporaryDir m_tools;
};

TEST_F(ShellCommandTest, CollectsStandardOutputAndErrorAsUtf8WithTheExitStatus) {
    writeTool(QStringLiteral("errors-only"), "echo 'Grüße from stderr' >&2\nexit 3\n");
    QVariantMap result = ShellCommand::runCommand(QStringLiteral("errors-only"), {});
    EXPECT_EQ(outputOf(result), "Grüße from stderr\n");
    EXPECT_EQ(result.value(ShellCommandStatus).toInt(), 3);

    writeTool(QStringLiteral("both"), "echo out\necho err >&2\necho out again\n");
    result = ShellCommand::runCommand(QStringLiteral("both"), {});
    EXPECT_EQ(outputOf(result), "out\nerr\nout again\n");
    EXPECT_EQ(result.value(ShellCommandStatus).toInt(), 0);
}

TEST_F(ShellCommandTest, ToolCannotReadOurStandardInput) {
    writeTool(QStringLiteral("reader"), "if read line; then echo \"read: $line\"; else echo nothing; fi\n");
    // Our standard input holds a line a tool could take.
    int typed[2];
    ASSERT_EQ(pipe(typed), 0);
    ASSERT_EQ(write(typed[1], "typed\n", 6), 6);
    close(typed[1]);
    const int savedInput = dup(STDIN_FILENO);
    dup2(typed[0], STDIN_FILENO);
    close(typed[0]);
    const QVariantMap result = ShellCommand::runCommand(QStringLiteral("reader"), {});
    dup2(savedInput, STDIN_FILENO);
    close(savedInput);
    EXPECT_EQ(outputOf(result), "nothing\n");
}

TEST_F(ShellCommandTest, ReadsATalkativeToolsOutputWhileItRuns) {
    // Far more than a pipe holds: a tool would stall if its output were read only after it ended.
    writeTool(QStringLiteral("talker"), "head -c 6000000 /dev/zero | tr '\\0' x\necho >&2\necho done >&2\n");
    const QVariantMap result = ShellCommand::runCommand(QStringLiteral("talker"), {});
    const QString output = result.value(ShellCommandOutput).toString();
    EXPECT_EQ(result.value(ShellCommandStatus).toInt(), 0);
    EXPECT_EQ(output.size(), 6000000 + 6);
    EXPECT_EQ(output.count(u'x'), 6000000);
    EXPECT_EQ(output.right(6).toStdString(), "\ndone\n");
}

TEST_F(ShellCommandTest, WrappersSucceedOnlyOnExitStatusZeroAndLogFailures) {
    LogCapture logged;
    writeTool(QStringLiteral("SublerCLI"), "echo 'error: something looked wrong' >&2\nexit 0\n");
    EXPECT_TRUE(SublerWrapper::instance().appendSource(QStringLiteral("a"), QStringLiteral("b")));

    writeTool(QStringLiteral("HandBrakeCLI"), "exit 1\n");
    EXPECT_FALSE(HandBrakeWrapper::instance().convert(QStringLiteral("a"), QStringLiteral("b"),
                                                      QStringLiteral("1000"), QStringLiteral("30")));
    EXPECT_EQ(logged.count("HandBrakeCLI failed with status 1"), 1u);

    // Progress lines rewritten with carriage returns do not hide the reason at the end.
    writeTool(QStringLiteral("SublerCLI"),
              "printf 'working 10%%\\rworking 90%%\\r' \necho 'cannot open a' >&2\nexit 2\n");
    EXPECT_FALSE(SublerWrapper::instance().appendSource(QStringLiteral("a"), QStringLiteral("b")));
    ASSERT_EQ(logged.countPrefix("SublerCLI failed with status 2: "), 1u);
    const std::string line = logged.lines().back();
    EXPECT_NE(line.find("cannot open a"), std::string::npos) << line;
    EXPECT_EQ(line.find('\r'), std::string::npos) << line;
    EXPECT_EQ(logged.lines().size(), 2u);
}

TEST_F(ShellCommandTest, WrappersPassTheirExactArgumentListsWithoutAShell) {
    const QString source = QStringLiteral("/tmp/my movies/Video Double Screen.mov");
    const QString tricky = QStringLiteral("/tmp/$HOME `date` 'quoted' \"x\" *.mp4");

    writeArgumentRecorder(QStringLiteral("SublerCLI"));
    ASSERT_TRUE(SublerWrapper::instance().appendSource(source, tricky));
    EXPECT_EQ(recordedArguments(),
              (QStringList{QStringLiteral("-source"), source, QStringLiteral("-dest"), tricky}));

    writeArgumentRecorder(QStringLiteral("HandBrakeCLI"));
    ASSERT_TRUE(
        HandBrakeWrapper::instance().convert(source, tricky, QStringLiteral("2500"), QStringLiteral("30")));
    EXPECT_EQ(recordedArguments(),
              (QStringList{QStringLiteral("--input"), source, QStringLiteral("--output"), tricky,
                           QStringLiteral("--encoder"), QStringLiteral("x264"), QStringLiteral("--format"),
                           QStringLiteral("mp4"), QStringLiteral("--rate"), QStringLiteral("30"),
                           QStringLiteral("--vb"), QStringLiteral("2500"), QStringLiteral("--aencoder"),
                           QStringLiteral("copy:aac"), QStringLiteral("--optimize")}));
}

TEST_F(ShellCommandTest, MissingToolFailsAndIsNeverTakenFromTheSearchPath) {
    // "sh" exists on the search path but not in the tool folder.
    const QVariantMap result = ShellCommand::runCommand(QStringLiteral("sh"), {QStringLiteral("-c"), {}});
    EXPECT_NE(result.value(ShellCommandStatus).toInt(), 0);
    EXPECT_TRUE(result.value(ShellCommandOutput).toString().contains(m_tools.filePath(QStringLiteral("sh"))));

    LogCapture logged;
    EXPECT_FALSE(SublerWrapper::instance().appendSource(QStringLiteral("a"), QStringLiteral("b")));
    EXPECT_EQ(logged.countPrefix("SublerCLI failed with status -1: cannot start "), 1u);

    ShellCommand::setToolFolder({});
    EXPECT_NE(ShellCommand::toolFolder(), m_tools.path());
}

// SublerCLI against real movies made by the ffmpeg command-line tool, checked with ffprobe.
class SublerCliTest : public ::testing::Test {
protected:
    static constexpr const char* VideoStart = "1763760000.000000";

    static void SetUpTestSuite() {
        s_media = new QTemporaryDir(QDir::tempPath() + QStringLiteral("/zandor media XXXXXX"));
        ASSERT_TRUE(s_media->isValid());
        makeMovie("video file.mov", {"-f", "lavfi", "-i", "testsrc=size=400x240:rate=60", "-c:v", "libx264"},
                  VideoStart);
        makeMovie("audio file.mov", {"-f", "lavfi", "-i", "sine=frequency=440", "-c:a", "aac"}, nullptr);
        makeMovie("audio later.mov", {"-f", "lavfi", "-i", "sine=frequency=440", "-c:a", "aac"},
                  "1763760000.500000");
        makeMovie("audio earlier.mov", {"-f", "lavfi", "-i", "sine=frequency=440", "-c:a", "aac"},
                  "1763759999.700000");
    }
    static void TearDownTestSuite() {
        delete s_media;
        s_media = nullptr;
    }

    static void makeMovie(const char* name, std::vector<std::string> input, const char* captureStart) {
        std::vector<std::string> command{
            QStandardPaths::findExecutable(QStringLiteral("ffmpeg")).toStdString(), "-v", "error", "-y"};
        command.insert(command.end(), input.begin(), input.end());
        command.insert(command.end(), {"-t", "1", "-f", "mov"});
        if (captureStart) {
            command.insert(command.end(), {"-movflags", "use_metadata_tags", "-metadata",
                                           std::string("zandor_capture_start=") + captureStart});
        }
        command.push_back(path(name));
        const test::ProcessResult made = runProcess(command);
        ASSERT_EQ(made.exitCode, 0) << made.err;
    }

    static std::string path(const char* name) {
        return s_media->filePath(QString::fromUtf8(name)).toStdString();
    }

    void SetUp() override { ASSERT_TRUE(m_work.isValid()); }

    std::string work(const char* name) const {
        return m_work.filePath(QString::fromUtf8(name)).toStdString();
    }

    static test::ProcessResult subler(const std::string& source, const std::string& destination) {
        return runProcess({ZANDOR_SUBLERCLI, "-source", source, "-dest", destination});
    }

    static QJsonObject probe(const std::string& file) {
        const test::ProcessResult probed =
            runProcess({QStandardPaths::findExecutable(QStringLiteral("ffprobe")).toStdString(), "-v",
                        "error", "-of", "json", "-show_format", "-show_streams", file});
        EXPECT_EQ(probed.exitCode, 0) << probed.err;
        return QJsonDocument::fromJson(QByteArray::fromStdString(probed.out)).object();
    }
    static QJsonObject stream(const QJsonObject& probed, const QString& codec) {
        for (const QJsonValue& entry : probed.value(QStringLiteral("streams")).toArray()) {
            if (entry[QStringLiteral("codec_name")].toString() == codec) {
                return entry.toObject();
            }
        }
        return {};
    }
    static double seconds(const QJsonObject& object, const char* key) {
        return object.value(QString::fromUtf8(key)).toString().toDouble();
    }
    static QString captureStart(const QJsonObject& probed) {
        return probed[QStringLiteral("format")][QStringLiteral("tags")]
                     [QStringLiteral("zandor_capture_start")]
                         .toString();
    }

    // The destination made from the video, then given an audio track.
    QJsonObject videoWithAudio(const char* audio) {
        const std::string merged = work("merged movie.mp4");
        EXPECT_EQ(subler(path("video file.mov"), merged).exitCode, 0);
        const test::ProcessResult added = subler(path(audio), merged);
        EXPECT_EQ(added.exitCode, 0) << added.err;
        EXPECT_TRUE(added.err.empty()) << added.err;
        return probe(merged);
    }

    QStringList workFiles() const { return QDir(m_work.path()).entryList(QDir::Files | QDir::Hidden); }

    static QTemporaryDir* s_media;
    QTemporaryDir m_work{QDir::tempPath() + QStringLiteral("/zandor work XXXXXX")};
};

QTemporaryDir* SublerCliTest::s_media = nullptr;

TEST_F(SublerCliTest, CreatesAnMp4FromAVideoOnlySource) {
    const test::ProcessResult made = subler(path("video file.mov"), work("merged movie.mp4"));
    ASSERT_EQ(made.exitCode, 0) << made.err;
    EXPECT_TRUE(made.err.empty() && made.out.empty()) << made.err << made.out;

    const QJsonObject probed = probe(work("merged movie.mp4"));
    ASSERT_EQ(probed[QStringLiteral("streams")].toArray().size(), 1);
    const QJsonObject video = stream(probed, QStringLiteral("h264"));
    EXPECT_EQ(video[QStringLiteral("nb_frames")].toString(), QStringLiteral("60"));
    EXPECT_EQ(video[QStringLiteral("width")].toInt(), 400);
    EXPECT_TRUE(probed[QStringLiteral("format")][QStringLiteral("format_name")].toString().contains(
        QStringLiteral("mp4")));
    EXPECT_EQ(
        probed[QStringLiteral("format")][QStringLiteral("tags")][QStringLiteral("major_brand")].toString(),
        QStringLiteral("isom"));
    EXPECT_EQ(captureStart(probed), QString::fromLatin1(VideoStart));
    EXPECT_EQ(workFiles(), QStringList{QStringLiteral("merged movie.mp4")});
}

TEST_F(SublerCliTest, WrapperRunsTheBuiltToolFromTheDefaultToolFolder) {
    // The test program lies in the build tree's bin-like folder, beside libexec/zandor.
    ShellCommand::setToolFolder({});
    const QString merged = QString::fromStdString(work("merged movie.mp4"));
    ASSERT_TRUE(
        SublerWrapper::instance().appendSource(QString::fromStdString(path("audio file.mov")), merged));
    EXPECT_FALSE(stream(probe(merged.toStdString()), QStringLiteral("aac")).isEmpty());
}

TEST_F(SublerCliTest, AddsAnAudioTrackInPlaceWithItsOwnTimesWhenNotBothCarryACaptureStart) {
    const QJsonObject probed = videoWithAudio("audio file.mov");
    ASSERT_EQ(probed[QStringLiteral("streams")].toArray().size(), 2);
    const QJsonObject video = stream(probed, QStringLiteral("h264"));
    const QJsonObject audio = stream(probed, QStringLiteral("aac"));
    EXPECT_EQ(video[QStringLiteral("nb_frames")].toString(), QStringLiteral("60"));
    EXPECT_NEAR(seconds(video, "start_time"), 0.0, 0.001);
    EXPECT_NEAR(seconds(audio, "start_time"), 0.0, 0.001);
    EXPECT_NEAR(seconds(audio, "duration"), 1.0, 0.03);
    EXPECT_NEAR(seconds(probed[QStringLiteral("format")].toObject(), "duration"), 1.0, 0.03);
    EXPECT_EQ(captureStart(probed), QString::fromLatin1(VideoStart));
    EXPECT_EQ(workFiles(), QStringList{QStringLiteral("merged movie.mp4")});
}

TEST_F(SublerCliTest, AlignsAddedTracksByTheirCaptureStart) {
    // Recorded half a second after the video began: the sound starts half a second in. AAC's
    // priming frame, decoded before the first real sample, may show just before that.
    QJsonObject probed = videoWithAudio("audio later.mov");
    EXPECT_NEAR(seconds(stream(probed, QStringLiteral("h264")), "start_time"), 0.0, 0.001);
    EXPECT_NEAR(seconds(stream(probed, QStringLiteral("aac")), "start_time"), 0.5, 0.03);
    EXPECT_NEAR(seconds(probed[QStringLiteral("format")].toObject(), "duration"), 1.5, 0.03);
    EXPECT_EQ(captureStart(probed), QString::fromLatin1(VideoStart));

    // Started 0.3 s before the video: that part is left out.
    QFile::remove(QString::fromStdString(work("merged movie.mp4")));
    probed = videoWithAudio("audio earlier.mov");
    const QJsonObject audio = stream(probed, QStringLiteral("aac"));
    EXPECT_NEAR(seconds(audio, "start_time"), 0.0, 0.001);
    EXPECT_NEAR(seconds(audio, "duration"), 0.7, 0.03);
}

TEST_F(SublerCliTest, RefusesABadSourceWithOneLineAndLeavesTheDestinationAlone) {
    const std::string merged = work("merged movie.mp4");
    ASSERT_EQ(subler(path("video file.mov"), merged).exitCode, 0);
    QFile file(QString::fromStdString(merged));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray before = file.readAll();
    file.close();

    const std::string notMedia = work("notes.txt");
    QFile notes(QString::fromStdString(notMedia));
    ASSERT_TRUE(notes.open(QIODevice::WriteOnly));
    notes.write("not a movie\n");
    notes.close();

    for (const std::string& source : {work("no such movie.mov"), notMedia}) {
        const test::ProcessResult refused = subler(source, merged);
        EXPECT_NE(refused.exitCode, 0);
        const std::vector<std::string> lines = splitLines(refused.err);
        ASSERT_EQ(lines.size(), 1u) << refused.err;
        EXPECT_NE(lines[0].find(source), std::string::npos) << lines[0];
    }
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), before);
    EXPECT_EQ(workFiles(), (QStringList{QStringLiteral("merged movie.mp4"), QStringLiteral("notes.txt")}));

    // Without a destination, none is created.
    EXPECT_NE(subler(work("no such movie.mov"), work("new movie.mp4")).exitCode, 0);
    EXPECT_FALSE(QFile::exists(QString::fromStdString(work("new movie.mp4"))));
}

} // namespace
} // namespace zandor
