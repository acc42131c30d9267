#include "Files.h"
#include "Media.h"
#include "base/Log.h"
#include "recording/HandBrakeWrapper.h"
#include "recording/ShellCommand.h"
#include "recording/SublerWrapper.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

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
    // The tool's output and exit status.
    static std::pair<std::string, int> run(const QString& tool, ToolLimits limits = {}) {
        const QVariantMap result = ShellCommand::runCommand(tool, {}, limits);
        return {result.value(ShellCommandOutput).toString().toStdString(),
                result.value(ShellCommandStatus).toInt()};
    }

    QTemporaryDir m_tools;
};

TEST_F(ShellCommandTest, CollectsAllOutputInOrderAsUtf8WhileTheToolRunsWithTheExitStatus) {
    writeTool("both", "echo 'Grüße from stderr' >&2\necho out\nexit 3\n");
    EXPECT_EQ(run("both"), std::pair(std::string("Grüße from stderr\nout\n"), 3));
    // Far more than a pipe holds: a tool would stall if its output were read only after it ended.
    writeTool("talker", "head -c 6000000 /dev/zero | tr '\\0' x\necho done >&2\n");
    EXPECT_TRUE(run("talker") == std::pair(std::string(6000000, 'x') + "done\n", 0));
}

TEST_F(ShellCommandTest, ToolCannotReadOurStandardInput) {
    writeTool("reader", "if read line; then echo \"read: $line\"; else echo nothing; fi\n");
    int typed[2];
    ASSERT_EQ(pipe(typed), 0);
    ASSERT_EQ(write(typed[1], "typed\n", 6), 6);
    close(typed[1]);
    const int savedInput = dup(STDIN_FILENO);
    dup2(typed[0], STDIN_FILENO);
    close(typed[0]);
    const auto [output, status] = run("reader");
    dup2(savedInput, STDIN_FILENO);
    close(savedInput);
    EXPECT_EQ(output, "nothing\n");
}

TEST_F(ShellCommandTest, WrappersSucceedOnlyOnExitStatusZeroAndLogFailures) {
    LogCapture logged;
    writeTool("SublerCLI", "echo 'error: something looked wrong' >&2\nexit 0\n");
    EXPECT_TRUE(SublerWrapper::instance().appendSource("a", "b"));

    writeTool("HandBrakeCLI", "exit 1\n");
    EXPECT_FALSE(HandBrakeWrapper::instance().convert("a", "b", "1000", "30"));
    EXPECT_EQ(logged.count("HandBrakeCLI failed with status 1"), 1u);

    // Progress lines rewritten with carriage returns do not hide the reason at the end.
    writeTool("SublerCLI", "printf 'working 10%%\\rworking 90%%\\r' \necho 'cannot open a' >&2\nexit 2\n");
    EXPECT_FALSE(SublerWrapper::instance().appendSource("a", "b"));
    ASSERT_EQ(logged.countPrefix("SublerCLI failed with status 2: "), 1u);
    const std::string line = logged.lines().back();
    EXPECT_NE(line.find("cannot open a"), std::string::npos) << line;
    EXPECT_EQ(line.find('\r'), std::string::npos) << line;
    EXPECT_EQ(logged.lines().size(), 2u);

    // A tool missing from the tool folder fails; one of that name on the search path is not taken.
    QFile::remove(m_tools.filePath("SublerCLI"));
    EXPECT_FALSE(SublerWrapper::instance().appendSource("a", "b"));
    EXPECT_EQ(logged.countPrefix("SublerCLI failed with status -1: cannot start "), 1u);
    const auto [output, status] = run("sh");
    EXPECT_NE(status, 0);
    EXPECT_NE(output.find(m_tools.filePath("sh").toStdString()), std::string::npos) << output;
}

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

// Output, a progress mark as much as a line, shows a tool is alive.
TEST_F(ShellCommandTest, AToolThatOverstaysItsLimitsIsEndedWithWhatItStarted) {
    using namespace std::chrono_literals;
    writeTool("hangs", "sleep 60 & echo $! > \"$(dirname \"$0\")/child\"\necho started\nwait\n");
    EXPECT_EQ(run("hangs", {.silence = 500ms}),
              std::pair(std::string("started\n\nended: no output for 0.5 s"), -1));
    // The child is ended too: its process descriptor turns readable when it ends (the kill has been
    // sent, but may take a moment to land).
    const QStringList child = test::readLines(m_tools.filePath("child"));
    ASSERT_EQ(child.size(), 1);
    pollfd ended{static_cast<int>(syscall(SYS_pidfd_open, child[0].toInt(), 0)), POLLIN, 0};
    if (ended.fd >= 0) {
        EXPECT_EQ(poll(&ended, 1, 5000), 1) << "the tool's child still runs";
        close(ended.fd);
    }

    writeTool("progress", "for i in 1 2 3 4 5 6; do printf '%d%%\\r' $i; sleep 0.2; done\n");
    EXPECT_EQ(run("progress", {.silence = 1s}).second, 0);

    writeTool("busy", "while :; do echo working; sleep 0.1; done\n");
    const auto [output, status] = run("busy", {.silence = 10s, .total = 700ms});
    EXPECT_EQ(status, -1);
    EXPECT_TRUE(output.ends_with("working\n\nended: still running after 0.7 s")) << output;
}

// SublerCLI against movies made by the ffmpeg command-line tool, checked with ffprobe.
class SublerCliTest : public ::testing::Test {
protected:
    static constexpr const char* VideoStart = "1763760000.000000";

    // A second of a picture and of sounds, the sounds captured with the video, later, earlier.
    void SetUp() override {
        const std::vector<std::string> video = {"testsrc=size=400x240:rate=60", "-c:v", "libx264"};
        const std::vector<std::string> sound = {"sine=frequency=440", "-c:a", "aac"};
        for (const auto& [name, input, captureStart] : {std::tuple{"video file.mov", video, VideoStart},
                                                        {"audio file.mov", sound, nullptr},
                                                        {"audio later.mov", sound, "1763760000.500000"},
                                                        {"audio earlier.mov", sound, "1763759999.700000"}}) {
            std::vector<std::string> command{"ffmpeg", "-v", "error", "-f", "lavfi", "-i"};
            command.insert(command.end(), input.begin(), input.end());
            command.insert(command.end(), {"-t", "1", "-f", "mov", "-movflags", "use_metadata_tags"});
            if (captureStart) {
                command.insert(command.end(),
                               {"-metadata", std::string("zandor_capture_start=") + captureStart});
            }
            command.push_back(path(name));
            const ProcessResult made = runProcess(command);
            ASSERT_EQ(made.exitCode, 0) << made.err;
        }
    }

    std::string path(const char* name) const { return m_media.filePath(name).toStdString(); }
    std::string work(const char* name) const { return m_work.filePath(name).toStdString(); }
    QStringList workFiles() const { return QDir(m_work.path()).entryList(QDir::Files | QDir::Hidden); }
    static ProcessResult subler(const std::string& source, const std::string& destination) {
        return runProcess({ZANDOR_SUBLERCLI, "-source", source, "-dest", destination});
    }

    QTemporaryDir m_media{QDir::tempPath() + "/zandor media XXXXXX"};
    QTemporaryDir m_work{QDir::tempPath() + "/zandor work XXXXXX"};
};

// The destination is made from the video, then given the sound in place, the sound placed by its
// capture start against the video's (AAC's priming frame may show just before), the part from
// before the video left out; the video's capture start is kept.
TEST_F(SublerCliTest, MakesAnMp4FromTheVideoThenAddsTheSoundAlignedByItsCaptureStart) {
    const auto seconds = [](const QJsonValue& object, const char* key) {
        return object[key].toString().toDouble();
    };
    for (const auto& [audio, start, length] : {std::tuple{"audio file.mov", 0.0, 1.0},
                                               {"audio later.mov", 0.5, 1.0},
                                               {"audio earlier.mov", 0.0, 0.7}}) {
        SCOPED_TRACE(audio);
        const std::string merged = work("merged movie.mp4");
        QFile::remove(QString::fromStdString(merged));
        for (const std::string& source : {path("video file.mov"), path(audio)}) {
            const ProcessResult made = subler(source, merged);
            EXPECT_EQ(made.exitCode, 0) << made.err;
            EXPECT_TRUE(made.err.empty() && made.out.empty()) << made.err << made.out;
        }
        const QJsonObject probed = test::probe(merged, {"-show_format", "-show_streams"});
        ASSERT_EQ(probed["streams"].toArray().size(), 2);
        EXPECT_TRUE(probed["format"][u"format_name"].toString().contains("mp4"));
        EXPECT_EQ(probed["format"][u"tags"][u"zandor_capture_start"], VideoStart);
        EXPECT_NEAR(seconds(probed["format"], "duration"), std::max(1.0, start + length), 0.03);
        const QJsonObject video = test::streamWith(probed, "codec_name", "h264"),
                          sound = test::streamWith(probed, "codec_name", "aac");
        EXPECT_EQ(video["width"], 400);
        EXPECT_EQ(video["nb_frames"], "60");
        EXPECT_NEAR(seconds(video, "start_time"), 0.0, 0.001);
        EXPECT_NEAR(seconds(sound, "start_time"), start, 0.03);
        EXPECT_NEAR(seconds(sound, "duration"), length, 0.03);
        EXPECT_EQ(workFiles(), QStringList{"merged movie.mp4"});
    }
}

TEST_F(SublerCliTest, RefusesABadSourceWithOneLineAndLeavesTheDestinationAlone) {
    const std::string merged = work("merged movie.mp4");
    ASSERT_EQ(subler(path("video file.mov"), merged).exitCode, 0);
    const QByteArray before = test::readFile(QString::fromStdString(merged));
    ASSERT_TRUE(test::writeFile(QString::fromStdString(work("notes.txt")), "not a movie\n"));
    for (const std::string& source : {work("no such movie.mov"), work("notes.txt")}) {
        const ProcessResult refused = subler(source, merged);
        EXPECT_NE(refused.exitCode, 0);
        const std::vector<std::string> lines = test::splitLines(refused.err);
        ASSERT_EQ(lines.size(), 1u) << refused.err;
        EXPECT_NE(lines[0].find(source), std::string::npos) << lines[0];
    }
    EXPECT_EQ(test::readFile(QString::fromStdString(merged)), before);
    // Without a destination, none is made.
    EXPECT_NE(subler(work("no such movie.mov"), work("new movie.mp4")).exitCode, 0);
    EXPECT_EQ(workFiles(), (QStringList{"merged movie.mp4", "notes.txt"}));
}

} // namespace
} // namespace zandor
