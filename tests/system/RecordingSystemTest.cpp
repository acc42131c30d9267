// Whole-program tests of `zandor-cli record`: the demo board, a private sound server whose sinks
// feed the inputs GameIn and NarratorIn, and the movies checked with ffprobe and ffmpeg.

#include "DemoCount.h"
#include "Files.h"
#include "Media.h"
#include "PulseServer.h"
#include "UserFolders.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace zandor {
namespace {

using test::probeLines;
using test::ProcessResult;
using test::PulseServer;
using test::splitLines;
using test::streams;

constexpr int Rate = PulseServer::SampleRate;

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// How long a stream of a movie ("v:0", "a:0") lasts, and where on the movie's time it ends.
double streamSeconds(const std::string& movie, const char* stream) {
    return probeLines({"-select_streams", stream, "-show_entries", "stream=duration", movie})
        .value(0)
        .toDouble();
}
double streamEnd(const std::string& movie, const char* stream) {
    const QStringList startAndLength =
        probeLines({"-select_streams", stream, "-show_entries", "stream=start_time,duration", movie})
            .value(0)
            .split(',');
    return startAndLength.value(0).toDouble() + startAndLength.value(1).toDouble();
}

// The pitch of the first sound track over a second from just after the sound starts (an input
// delivers its first samples a varying while after a recording starts): the median time between
// upward crossings, so that a short gap in the sound does not change it.
double pitchOfTheStart(const std::string& movie) {
    const std::vector<int16_t> samples = test::decodeSound(movie, {"-map", "0:a:0", "-ar", "44100"});
    const auto loud =
        std::find_if(samples.begin(), samples.end(), [](int16_t s) { return std::abs(s) > 3277; });
    const size_t start = static_cast<size_t>(loud - samples.begin()) + Rate / 10;
    std::vector<size_t> periods;
    bool below = true;
    for (size_t i = start, last = 0; i < std::min(samples.size(), start + Rate); ++i) {
        if (below && samples[i] > 3277) {
            if (last > 0) {
                periods.push_back(i - last);
            }
            last = i;
        }
        below = samples[i] < -3277 || (below && samples[i] <= 3277);
    }
    if (periods.empty()) {
        return 0;
    }
    std::nth_element(periods.begin(), periods.begin() + static_cast<long>(periods.size() / 2), periods.end());
    return static_cast<double>(Rate) / static_cast<double>(periods[periods.size() / 2]);
}

// The times (s, in the movie) at which lines ffmpeg prints for a stream through `filter` give `key`.
std::vector<double> timesPrinted(const std::string& movie, const char* stream, const std::string& filter,
                                 const std::string& key) {
    const ProcessResult run =
        test::runProcess({"ffmpeg", "-nostats", "-i", movie, "-map", stream,
                          stream == std::string("0:v:0") ? "-vf" : "-af", filter, "-f", "null", "-"});
    std::vector<double> times;
    for (const std::string& line : splitLines(run.out + run.err)) {
        if (const size_t at = line.find(key); at != std::string::npos) {
            times.push_back(std::atof(line.c_str() + at + key.size()));
        }
    }
    return times;
}

// zandor-cli's tools for RecordingSystemTest::installWith: `script` runs first, and "missing" leaves
// the tool out.
struct Tool {
    const char* name = nullptr;
    const char* script = "";
};

class RecordingSystemTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::isolateUserFolders();
        unsetenv("ZANDOR_DEMO_FLASH");
        ASSERT_TRUE(QDir().mkpath(out()));
        m_pulse = std::make_unique<PulseServer>();
        ASSERT_TRUE(m_pulse->isRunning()) << m_pulse->error();
    }

    QString out() const { return m_work.path() + "/recordings folder"; }

    // Records with the demo board into out(), the program run by `wrapper` when there is one, and
    // checks that it ended by itself.
    ProcessResult record(const std::vector<std::string>& options, const std::string& program = ZANDOR_CLI,
                         std::vector<std::string> wrapper = {}) {
        wrapper.insert(wrapper.end(), {program, "record", "--board", "demo", "--out", out().toStdString()});
        wrapper.insert(wrapper.end(), options.begin(), options.end());
        const ProcessResult run = test::runProcess(wrapper);
        EXPECT_FALSE(run.overstayed) << "zandor-cli hung";
        EXPECT_EQ(run.signal, 0) << "zandor-cli crashed\n" << run.err;
        return run;
    }

    // A replay of the demo board's Top layout from a five-second buffer into out().
    ProcessResult replay(const char* playSeconds, const char* gameAudio) {
        return test::runProcess({ZANDOR_CLI, "replay", "--board", "demo", "--layout", "Top",
                                 "--buffer-seconds", "5", "--play-seconds", playSeconds, "--game-audio",
                                 gameAudio, "--out", out().toStdString()});
    }

    QStringList stored(QDir::Filters filters = QDir::Files | QDir::Dirs) const {
        return QDir(out()).entryList(filters | QDir::NoDotAndDotDot, QDir::Name);
    }

    // A copy of zandor-cli installed under a temporary prefix (a copy, not a link: the program finds
    // its folders from where its own file is) whose tools note their calls in calls() and run the
    // build's tools, `fault` first for the tool it names.
    std::string installWith(const Tool& fault = {}) {
        const std::filesystem::path prefix = m_work.path().toStdString() + "/prefix";
        for (const char* folder : {"libexec/zandor", "share/zandor", "bin"}) {
            std::filesystem::create_directories(prefix / folder);
        }
        std::filesystem::copy_file(ZANDOR_CLI, prefix / "bin/zandor-cli");
        std::filesystem::create_directory_symlink(ZANDOR_PLUGIN_FOLDER, prefix / "share/zandor/Plugins");
        for (const char* name : {"SublerCLI", "HandBrakeCLI"}) {
            const Tool tool = fault.name && fault.name == std::string(name) ? fault : Tool{name};
            if (tool.script != std::string("missing")) {
                EXPECT_TRUE(test::writeFile(
                    QString::fromStdString((prefix / "libexec/zandor" / name).string()),
                    QStringLiteral(
                        "#!/bin/sh\n%1\necho \"%2 $(basename \"$2\") $(basename \"$4\")\" >> '%3'\n"
                        "exec '%4/%2' \"$@\"\n")
                        .arg(tool.script, name, calls(), ZANDOR_TOOL_FOLDER)
                        .toUtf8(),
                    true));
            }
        }
        return (prefix / "bin/zandor-cli").string();
    }
    // The file where the tools note their calls: tool, source and destination file names.
    QString calls() const { return m_work.path() + "/calls"; }

    QTemporaryDir m_work;
    std::unique_ptr<PulseServer> m_pulse;
};

// How strong a tone of `frequencyHz` is around the middle of `samples`: the median of its amplitude
// in ten tenths of a second (whose frequency bins are 10 Hz apart: the slight change of pitch with
// which a recording follows the wall clock does not hide a tone), full scale 32768.
double toneAmplitude(const std::vector<int16_t>& samples, double frequencyHz) {
    constexpr size_t Window = Rate / 10;
    std::vector<double> amplitudes;
    for (size_t i = 0; i < 10; ++i) {
        amplitudes.push_back(test::toneAmplitude(samples.data() + samples.size() / 2 + (i - 5) * Window,
                                                 Window, frequencyHz, Rate));
    }
    std::nth_element(amplitudes.begin(), amplitudes.begin() + 5, amplitudes.end());
    return amplitudes[5];
}

// At the board's own rate (both screens, a movie each) and converted to a fixed rate alike.
TEST_F(RecordingSystemTest, ANarratedMovieHasTheMixThenTheGameThenTheNarratorEachAsLongAsThePicture) {
    constexpr double Game = 440, Narrator = 1000;
    const PulseServer::Playback game("game_sink", Game, 0);
    const PulseServer::Playback narrator("narrator_sink", Narrator, 0);
    const QStringList titles{"Game and narrator", "Game", "Narrator"};
    for (const auto& [layout, fps, movies] : {std::tuple{"None", "Original", 2}, {"Top", "30", 1}}) {
        SCOPED_TRACE(fps);
        const ProcessResult run = record({"--seconds", "5", "--layout", layout, "--fps", fps, "--game-audio",
                                          "GameIn", "--narrator-audio", "NarratorIn"});
        ASSERT_EQ(run.exitCode, 0) << run.err;
        ASSERT_EQ(splitLines(run.out).size(), static_cast<size_t>(movies)) << run.out;
        EXPECT_TRUE(stored(QDir::Dirs).isEmpty()) << "the bundle is gone";
        for (const std::string& movie : splitLines(run.out)) {
            SCOPED_TRACE(movie);
            const QJsonArray probed = test::probe(movie, {"-show_streams"})["streams"].toArray();
            ASSERT_EQ(probed.size(), 4);
            EXPECT_EQ(probed[0]["codec_type"], "video");
            const double pictureSeconds = probed[0]["duration"].toString().toDouble();
            for (int track = 0; track < 3; ++track) {
                SCOPED_TRACE(titles[track].toStdString());
                const QJsonValue sound = probed[track + 1];
                EXPECT_EQ(sound["codec_name"], "aac");
                EXPECT_EQ(sound["tags"]["handler_name"], titles[track]);
                EXPECT_EQ(sound["tags"]["language"], "und");
                EXPECT_EQ(sound["disposition"]["default"].toInt(), track == 0 ? 1 : 0);
                EXPECT_NEAR(sound["duration"].toString().toDouble(), pictureSeconds, pictureSeconds / 100);

                // The middle second, well after the inputs' first samples: a tone that belongs in the
                // track at its full level (half of full scale; the AAC encoder takes up to 7 % off a
                // loud mix), the other one not at all.
                const std::vector<int16_t> samples = test::decodeSound(
                    movie, {"-map", "0:a:" + std::to_string(track), "-ar", std::to_string(Rate)});
                ASSERT_GT(samples.size(), size_t{2 * Rate});
                const double game = toneAmplitude(samples, Game), narrator = toneAmplitude(samples, Narrator);
                EXPECT_NEAR(game, track == 2 ? 0 : 16384, track == 2 ? 160 : 2400);
                EXPECT_NEAR(narrator, track == 1 ? 0 : 16384, track == 1 ? 160 : 2400);
            }
        }
    }
}

TEST_F(RecordingSystemTest, ANarratorWithoutAGameInputIsTheOneSoundTrack) {
    const PulseServer::Playback narrator("narrator_sink", 1000, 0);
    const ProcessResult run = record(
        {"--seconds", "2", "--layout", "Top", "--game-audio", "None", "--narrator-audio", "NarratorIn"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const std::string movie = splitLines(run.out).at(0);
    const QJsonArray probed =
        test::probe(movie, {"-show_streams", "-select_streams", "a"})["streams"].toArray();
    ASSERT_EQ(probed.size(), 1);
    EXPECT_EQ(probed[0]["tags"]["handler_name"], "Narrator");
    EXPECT_EQ(probed[0]["disposition"]["default"].toInt(), 1);
    EXPECT_NEAR(pitchOfTheStart(movie), 1000.0, 10.0);
}

// Each run must take its sound streams down in order, never under the sound server's thread.
TEST_F(RecordingSystemTest, FiftyReplaysWithGameSoundUnderLoadAllEndCleanlyWithTheirSound) {
    const PulseServer::Playback game("game_sink", 440, 0);
    const test::BusyCores load;
    for (int run = 1; run <= 50; ++run) {
        const ProcessResult replayed = replay("1", "GameIn");
        ASSERT_EQ(replayed.signal, 0) << "run " << run << " crashed\n" << replayed.err;
        ASSERT_EQ(replayed.exitCode, 0) << "run " << run << "\n" << replayed.err;
        const QStringList left = stored(QDir::Files | QDir::Hidden);
        ASSERT_EQ(left.size(), 1) << "run " << run;
        const std::string movie = (out() + "/" + left[0]).toStdString();
        EXPECT_EQ(replayed.out, movie + "\n");
        if (run % 10 == 0) {
            EXPECT_EQ(streams(movie), (QStringList{"aac,44100,2", "h264,400,240"}));
            // From the first picture, up to one sound packet (23 ms) late, to the last.
            EXPECT_NEAR(streamEnd(movie, "a:0") - streamSeconds(movie, "a:0"), 0.0, 0.025);
            // The sound is cut at the end of the last picture: the last AAC packet kept (1024 samples,
            // 23.2 ms) is the one playing then, so the sound ends at most one packet after the
            // picture, and a millisecond more for the rounding of the picture's time base. It may
            // end short of it: under load, the sound of the last picture may not have come within
            // the second a save waits for it.
            const double late = streamEnd(movie, "a:0") - streamEnd(movie, "v:0");
            EXPECT_LT(late, 1024.0 / Rate + 0.001);
            EXPECT_GT(late, -0.03);
            EXPECT_NEAR(pitchOfTheStart(movie), 440.0, 5.0);
        }
        ASSERT_TRUE(QFile::remove(QString::fromStdString(movie)));
    }
}

// Pictures of a movie from the first one shown at or after `fromSeconds` on, `count` of them.
std::vector<std::string> picturesFrom(const std::string& movie, double fromSeconds, int count, int width,
                                      int height) {
    return test::decodePictures(movie, static_cast<uint64_t>(width) * height * 3,
                                {"-ss", std::to_string(fromSeconds)},
                                {"-frames:v", std::to_string(count), "-fps_mode", "passthrough"});
}

// Converted to a fixed rate, a movie keeps its layout's whole picture at the layout's exact size
// (left to itself, the converter crops a layout's dark background as black borders) and plays at
// exactly that many frames a second. Every built-in layout is recorded once, with the rates taken
// in turn: what the converter would crop depends on the picture and not on the rate, and the rate's
// timing not on the picture, so every layout and every rate are covered without a recording of
// each layout at each rate (35 conversions would take minutes). The converter runs on the merged
// movie once the sound has joined it, and keeps the sound.
TEST_F(RecordingSystemTest, AFixedRateKeepsEachLayoutsWholePictureAndSoundAtExactlyThatRate) {
    const PulseServer::Playback game("game_sink", 440, 0);
    // The converter keeps a copy of what it converts.
    const QString unconverted = m_work.path() + "/unconverted.mp4";
    const QByteArray keepACopy = "cp \"$2\" '" + unconverted.toUtf8() + "'";
    const std::string program = installWith({"HandBrakeCLI", keepACopy.constData()});
    const std::vector<std::string> layouts = splitLines(test::runProcess({ZANDOR_CLI, "layouts"}).out);
    ASSERT_GE(layouts.size(), 7u) << "the built-in layouts, Top and Bottom";
    const QStringList rates{"24", "25", "30", "50", "60"};
    for (size_t i = 0; i < layouts.size(); ++i) {
        // Name, width, height, ...
        const QStringList layout = QString::fromStdString(layouts[i]).split(u'\t');
        ASSERT_GE(layout.size(), 3);
        const int width = layout[1].toInt(), height = layout[2].toInt();
        const QString rate = rates[static_cast<qsizetype>(i) % rates.size()];
        SCOPED_TRACE((layout[0] + " at " + rate).toStdString());
        const ProcessResult run = record({"--seconds", "2", "--layout", layout[0].toStdString(), "--fps",
                                          rate.toStdString(), "--game-audio", "GameIn"},
                                         program);
        ASSERT_EQ(run.exitCode, 0) << run.err;
        const std::string movie = splitLines(run.out).at(0);
        const QString video = "Video" + layout[0] + ".mov", merged = "Merged" + layout[0] + ".mp4";
        EXPECT_EQ(test::readLines(calls()).mid(3 * static_cast<qsizetype>(i)),
                  (QStringList{"SublerCLI " + video + " " + merged, "SublerCLI AudioGame.mov " + merged,
                               "HandBrakeCLI " + merged + " Converted" + layout[0] + ".mp4"}));
        EXPECT_TRUE(
            probeLines({"-show_entries", "format_tags=encoder", movie}).value(0).contains("HandBrake"));
        EXPECT_TRUE(streams(movie).contains("aac,44100,2"));
        const QJsonValue picture =
            test::probe(movie, {"-show_streams", "-select_streams", "v:0"})["streams"][0];
        EXPECT_EQ(picture["width"].toInt(), width);
        EXPECT_EQ(picture["height"].toInt(), height);
        EXPECT_EQ(picture["r_frame_rate"].toString().toStdString(), rate.toStdString() + "/1");
        EXPECT_EQ(picture["avg_frame_rate"].toString().toStdString(), rate.toStdString() + "/1");

        // The picture shown a second in (or a frame of the rate later) is one the board made then,
        // give or take a frame, with no more change than the encoders make: on the large layouts,
        // whose screens are a small part of the picture, the second encoding alone changes it by up
        // to about 1.2 on average, while a cropped or scaled picture differs by far more.
        // The movie holds the two seconds asked for, however late a busy machine starts the picture.
        EXPECT_GE(picture["duration"].toString().toDouble(), 2.0 - 1.0 / rate.toDouble() - 0.01);
        const double at = 1.0;
        const std::vector<std::string> shown = picturesFrom(movie, at, 1, width, height);
        const std::vector<std::string> made =
            picturesFrom(unconverted.toStdString(), std::max(0.0, at - 0.1), 15, width, height);
        ASSERT_EQ(shown.size(), 1u) << "a picture at " << at << " s of " << movie;
        ASSERT_FALSE(made.empty());
        double nearest = 255;
        for (const std::string& candidate : made) {
            nearest = std::min(nearest, test::meanDifference(shown[0], candidate));
        }
        EXPECT_LT(nearest, 2.0);
    }
}

TEST_F(RecordingSystemTest, AnAudioInputThatIsGoneStopsTheStart) {
    for (const auto& [game, narrator] : {std::pair{"GoneIn", "None"}, {"GameIn", "GoneIn"}}) {
        const ProcessResult run =
            record({"--seconds", "1", "--layout", "Top", "--game-audio", game, "--narrator-audio", narrator});
        EXPECT_EQ(run.exitCode, 1);
        EXPECT_TRUE(contains(run.err, "Could not construct connection of audio recording session\n"))
            << run.err;
        EXPECT_TRUE(contains(run.err, "zandor-cli record: Could not start recording video.")) << run.err;
        EXPECT_TRUE(contains(run.err, "open the audio input 'GoneIn': " + std::string(std::strerror(ENODEV))))
            << "the log keeps the cause: " << run.err;
    }
}

TEST_F(RecordingSystemTest, AGameInputUnpluggedMidwayIsSaidWithItsTime) {
    const PulseServer::Playback game("game_sink", 440, 0);
    // The input goes once the game track holds a second or so of sound (16 kB at 128 kbit/s).
    std::thread unplugger([this] {
        const auto soundBytes = [this] {
            const QStringList bundles = QDir(out()).entryList({"*.zdrecord"}, QDir::Dirs);
            return bundles.isEmpty() ? 0 : QFileInfo(out() + "/" + bundles[0] + "/AudioGame.mov").size();
        };
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (soundBytes() < 16000 && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20)); // the pause between looks
        }
        EXPECT_TRUE(PulseServer::unplug("GameIn"));
    });
    const ProcessResult run = record({"--seconds", "5", "--layout", "Top", "--game-audio", "GameIn"});
    unplugger.join();
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(splitLines(run.out).size(), 1u) << "the movie is made";
    const QRegularExpression said("^zandor-cli record: The game sound stopped at 00:0([1-4]): its input went "
                                  "away, and the rest of the movie is silent\\.$",
                                  QRegularExpression::MultilineOption);
    EXPECT_TRUE(said.match(QString::fromStdString(run.err)).hasMatch()) << run.err;
}

// Whatever step of finalising fails, the recording stays in its bundle, playable, and the message
// says where; no movie is made.
struct FinalisingFault {
    const char* name;
    Tool tool;
    const char* fps;
    const char* message;
    // A shell line that prepares a mount namespace of its own for the run, where a tool can fill the
    // storage folder; the tool then says `toolSays`.
    const char* mounts = nullptr;
    const char* toolSays = nullptr;
};

void PrintTo(const FinalisingFault& fault, std::ostream* out) {
    *out << fault.name;
}

class FinalisingFailureTest : public RecordingSystemTest,
                              public ::testing::WithParamInterface<FinalisingFault> {};

TEST_P(FinalisingFailureTest, KeepsTheRecordingWhereTheMessageSays) {
    const FinalisingFault& fault = GetParam();
    const PulseServer::Playback game("game_sink", 440, 0);
    // A memory file system goes with its namespace: what the storage folder held is copied out.
    QString kept = out();
    std::vector<std::string> wrapper;
    if (fault.mounts) {
        if (!test::haveMountNamespaces()) {
            GTEST_SKIP() << "no mount namespaces here";
        }
        kept = m_work.path() + "/kept";
        ASSERT_TRUE(QDir().mkpath(kept));
        wrapper = test::inMountNamespace(fault.mounts, out().toStdString(), kept.toStdString());
    }
    const ProcessResult run =
        record({"--seconds", "2", "--layout", "Top", "--fps", fault.fps, "--game-audio", "GameIn"},
               installWith(fault.tool), wrapper);
    EXPECT_EQ(run.exitCode, 1) << run.err;
    EXPECT_TRUE(run.out.empty()) << run.out;
    EXPECT_TRUE(QDir(kept).entryList({"*.mp4"}, QDir::Files).isEmpty()) << "no movie";
    const QStringList bundles = QDir(kept).entryList({"*.zdrecord"}, QDir::Dirs);
    ASSERT_EQ(bundles.size(), 1) << run.err;
    EXPECT_TRUE(contains(run.err, "zandor-cli record: " + std::string(fault.message) +
                                      " The recording is kept in \"" +
                                      (out() + "/" + bundles[0]).toStdString() + "\".\n"))
        << run.err;
    if (fault.toolSays) {
        EXPECT_TRUE(contains(run.err, fault.toolSays)) << "the tool met the fault itself\n" << run.err;
    }
    const std::string bundle = (kept + "/" + bundles[0]).toStdString();
    EXPECT_EQ(streams(bundle + "/VideoTop.mov"), QStringList{"h264,400,240"});
    EXPECT_NEAR(streamSeconds(bundle + "/VideoTop.mov", "v:0"), 2.0, 0.5);
    EXPECT_EQ(streams(bundle + "/AudioGame.mov"), QStringList{"aac,44100,2"});
}

const char* const Convert = "It was not possible to convert the merged video.";
const char* const MergeVideo = "It was not possible to merge video.";

INSTANTIATE_TEST_SUITE_P(
    ToolsAndDisks, FinalisingFailureTest,
    ::testing::Values(FinalisingFault{"ConverterMissing", {"HandBrakeCLI", "missing"}, "30", Convert},
                      FinalisingFault{"ConverterFails",
                                      {"HandBrakeCLI", "echo 'x264 [error]: no' >&2; exit 3"},
                                      "30",
                                      Convert},
                      FinalisingFault{"MergerFails", {"SublerCLI", "exit 1"}, "Original", MergeVideo},
                      FinalisingFault{"MergerRefusesTheSound",
                                      {"SublerCLI", "case \"$2\" in */AudioGame.mov) exit 1;; esac"},
                                      "30",
                                      "It was not possible to merge audio."},
                      FinalisingFault{"DiskFillsDuringTheMerge",
                                      {"SublerCLI", "cat /dev/zero > \"${4%/*}/../filler\" 2>/dev/null"},
                                      "Original",
                                      MergeVideo,
                                      "mount -t tmpfs -o size=64m zandor-full \"$1\" || exit 90; ",
                                      "No space left on device"}),
    [](const ::testing::TestParamInfo<FinalisingFault>& info) { return std::string(info.param.name); });

// The tool and what it started go with zandor-cli, also with every core busy.
TEST_F(RecordingSystemTest, AKilledRecordingLeavesNoToolRunningAndIsRecoveredLater) {
    const PulseServer::Playback game("game_sink", 440, 0);
    // The first merge notes its own process and a child of its own, then waits for that child.
    const QString noted = m_work.path() + "/merging";
    const QByteArray firstMergeWaits = "[ -e '" + noted.toUtf8() + "' ] || { sleep 600 & echo $$ $! > '" +
                                       noted.toUtf8() + ".new'; mv '" + noted.toUtf8() + ".new' '" +
                                       noted.toUtf8() + "'; wait; }";
    const std::string program = installWith({"SublerCLI", firstMergeWaits.constData()});
    const test::BusyCores load;
    const pid_t recording =
        test::startProcess({program, "record", "--board", "demo", "--out", out().toStdString(), "--seconds",
                            "2", "--layout", "Top", "--fps", "Original", "--game-audio", "GameIn"});
    ASSERT_GT(recording, 0);
    for (int wait = 0; wait < 600 && !QFileInfo::exists(noted); ++wait) {
        ASSERT_FALSE(test::reapWithin(recording, std::chrono::milliseconds(200)))
            << "zandor-cli ended before its merge";
    }
    const QStringList pids = test::readLines(noted).value(0).split(u' ');
    ASSERT_EQ(pids.size(), 2) << "the merging tool and its child";
    const pid_t tool = pids[0].toInt(), child = pids[1].toInt();
    const pid_t group = test::processGroupOf(tool);
    ASSERT_GT(group, 0);
    EXPECT_EQ(test::processGroupOf(child), group);

    kill(recording, SIGKILL);
    ASSERT_TRUE(test::reapWithin(recording, std::chrono::seconds(10)));
    EXPECT_TRUE(test::endsWithin(tool, std::chrono::seconds(30))) << "the merging tool runs on";
    EXPECT_TRUE(test::endsWithin(child, std::chrono::seconds(30))) << "the merging tool's child runs on";
    const std::vector<pid_t> left = test::runningInGroup(group);
    EXPECT_EQ(left, std::vector<pid_t>{});
    for (const pid_t process : left) {
        kill(process, SIGKILL);
    }

    const QStringList bundles = stored(QDir::Dirs);
    ASSERT_EQ(bundles.size(), 1);
    const ProcessResult recovered = test::runProcess({program, "recover", "--out", out().toStdString()});
    EXPECT_EQ(recovered.exitCode, 0) << recovered.err;
    const std::string movie = (out() + "/" + bundles[0].chopped(9) + ".mp4").toStdString();
    EXPECT_EQ(recovered.out, movie + "\n") << recovered.err;
    EXPECT_EQ(streams(movie), (QStringList{"aac,44100,2", "h264,400,240"}));
}

// The demo board's count of every frame of a movie of "Top over Bottom" (400 x 480, the bottom
// screen at (40, 240)), read from the top and the bottom screen.
std::vector<std::pair<uint64_t, uint64_t>> demoCounts(const std::string& movie) {
    constexpr int Width = DemoBoard::CountX + DemoBoard::CountBits * DemoBoard::CountBlock;
    constexpr int Height = DemoBoard::CountBlock;
    std::vector<std::vector<std::string>> strips;
    for (const auto& [x, y] : {std::pair{0, 0}, {40, 240}}) {
        const std::string crop = "crop=" + std::to_string(Width) + ":" + std::to_string(Height) + ":" +
                                 std::to_string(x) + ":" + std::to_string(y + DemoBoard::CountY);
        strips.push_back(test::decodePictures(movie, uint64_t{Width} * Height * 3, {}, {"-vf", crop}));
    }
    const auto count = [](const std::string& strip) {
        return test::demoCount(reinterpret_cast<const uint8_t*>(strip.data()), Width, DemoBoard::CountX, 0);
    };
    std::vector<std::pair<uint64_t, uint64_t>> counts;
    for (size_t n = 0; n < std::min(strips[0].size(), strips[1].size()); ++n) {
        counts.emplace_back(count(strips[0][n]), count(strips[1][n]));
    }
    return counts;
}

// With both cores busy; a board frame that came late or was lost shows the one before it for its slot.
TEST_F(RecordingSystemTest, AnOriginalMovieShowsBothScreensOfOneBoardFrameAtAConstantRate) {
    ProcessResult run;
    {
        const test::BusyCores load;
        run = record({"--seconds", "10", "--layout", "Top over Bottom"});
    }
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const std::string movie = splitLines(run.out).at(0);

    EXPECT_EQ(
        probeLines({"-select_streams", "v:0", "-show_entries", "stream=r_frame_rate,avg_frame_rate", movie}),
        QStringList{"60/1,60/1"});
    const QStringList packets =
        probeLines({"-select_streams", "v:0", "-show_entries", "packet=pts,duration", movie});
    ASSERT_GT(packets.size(), 60);
    std::vector<std::pair<int64_t, int64_t>> times;
    for (const QString& packet : packets) {
        times.emplace_back(packet.section(',', 0, 0).toLongLong(), packet.section(',', 1, 1).toLongLong());
    }
    std::sort(times.begin(), times.end());
    const int64_t slot = times[0].second;
    for (size_t n = 0; n < times.size(); ++n) {
        EXPECT_EQ(times[n], std::pair(int64_t(n) * slot, slot)) << "frame " << n;
    }

    const auto counts = demoCounts(movie);
    ASSERT_EQ(counts.size(), times.size());
    EXPECT_GT(counts.back().first, counts.front().first) << "the count is read";
    for (size_t n = 0; n < counts.size(); ++n) {
        EXPECT_EQ(counts[n].first, counts[n].second) << "frame " << n;
        EXPECT_TRUE(n == 0 || counts[n].first >= counts[n - 1].first) << "frame " << n;
    }
}

TEST_F(RecordingSystemTest, A3DMovieShowsTheEyesSideBySideWithTheBoardsSound) {
    const ProcessResult run = record({"--seconds", "2", "--layout", "3D Side by Side", "--3d"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const std::string movie = splitLines(run.out).at(0);
    EXPECT_EQ(streams(movie), (QStringList{"aac,44100,2", "h264,800,480"}));
    EXPECT_NEAR(streamSeconds(movie, "v:0"), 2.0, 0.5);
    const auto pictures = test::decodePictures(movie, 800 * 480 * 3, {"-ss", "1"}, {"-frames:v", "1"});
    ASSERT_EQ(pictures.size(), 1u);
    EXPECT_GT(test::eyesDiffer(pictures[0], 800), 100) << "the right eye beside the left";
    // The demo board's beeps, read after both eyes: a twentieth of the time loud (3 frames a
    // second), not picture bytes taken for sound.
    const std::vector<int16_t> sound = test::decodeSound(movie);
    ASSERT_GT(sound.size(), size_t(Rate));
    const auto loud = std::count_if(sound.begin(), sound.end(), [](int16_t s) { return std::abs(s) > 3000; });
    EXPECT_GT(double(loud) / double(sound.size()), 0.01);
    EXPECT_LT(double(loud) / double(sound.size()), 0.15);
}

// The demo board shows a white frame at its frame nearest every whole second of the wall clock, the
// game input hears a beep at every whole second, and a movie names the wall-clock time of its first
// frame. Every beep must start within 20 ms of its second's place in the movie moved by the game
// sound's offset, and so of the white frame there moved by as much; the white frame shows in the
// frame nearest its second (a frame period apart at most, bench/av-sync measures how near over
// minutes). The board's own beep comes with the white frame itself: it starts with that frame,
// within 20 ms, wherever a busy machine read the frame (a read held up over a second's start is
// still the nearest one, after it).
void expectBeepsOnTheirSeconds(const std::string& movie, double offsetSeconds, size_t beeps,
                               bool beepsWithTheFrame = false) {
    const double start = test::captureStart(movie);
    ASSERT_GT(start, 0) << "the movie says when its first frame was taken";
    // How far a moment of the movie lies from the nearest whole second of the wall clock.
    const auto fromSecond = [start](double time) { return start + time - std::round(start + time); };

    // White is luma 235; the demo picture's average is far below. A run of white frames counts once.
    std::vector<double> flashes = timesPrinted(
        movie, "0:v:0",
        "scale=32:32,signalstats,metadata=select:key=lavfi.signalstats.YAVG:value=200:function=greater,"
        "metadata=print:file=-",
        "pts_time:");
    flashes.erase(std::unique(flashes.begin(), flashes.end(), [](double a, double b) { return b - a < 0.5; }),
                  flashes.end());
    // Sample 0 is the movie's time zero; a beep follows at least 0.3 s of quiet.
    std::vector<double> onsets =
        timesPrinted(movie, "0:a:0", "aresample=async=1:first_pts=0,silencedetect=noise=0.02:duration=0.3",
                     "silence_end: ");
    // A beep that starts as the picture ends is cut off with it, and one moved earlier by the offset
    // may have its white frame after the picture's end.
    const double pictureEnds = streamSeconds(movie, "v:0");
    std::erase_if(onsets,
                  [&](double onset) { return std::max(onset, onset - offsetSeconds) > pictureEnds - 0.05; });
    EXPECT_GE(flashes.size(), beeps + 1);
    ASSERT_GE(onsets.size(), beeps) << "a beep a second";
    for (double onset : onsets) {
        if (!beepsWithTheFrame) {
            EXPECT_LT(std::abs(fromSecond(onset - offsetSeconds)), 0.02)
                << "the beep at " << onset << " s is out of step";
        }
        const auto flash = std::min_element(flashes.begin(), flashes.end(), [&](double a, double b) {
            return std::abs(a + offsetSeconds - onset) < std::abs(b + offsetSeconds - onset);
        });
        ASSERT_NE(flash, flashes.end());
        EXPECT_LT(std::abs(*flash + offsetSeconds - onset), beepsWithTheFrame ? 0.02 : 0.02 + 1 / 60.0)
            << "the beep at " << onset << " s and its white frame at " << *flash;
    }
}

// Here 150 ms earlier; every beep still meets its white frame and its second.
TEST_F(RecordingSystemTest, TheGameSoundOffsetMovesTheSoundInRecordingsAndReplaysAlsoUnderLoad) {
    const QString preferences =
        QString::fromLocal8Bit(qgetenv("XDG_DATA_HOME")) + "/Zandor/preferences.plist";
    ASSERT_TRUE(QDir().mkpath(QFileInfo(preferences).path()));
    ASSERT_TRUE(test::writeFile(preferences, R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"><dict><key>PreferenceGameAudioOffsetMs</key><integer>-150</integer></dict></plist>
)"));
    setenv("ZANDOR_DEMO_FLASH", "1", 1);
    const PulseServer::Playback beeps("game_sink", 1000, 30);
    ProcessResult recorded;
    {
        const test::BusyCores load;
        recorded = record({"--seconds", "10", "--layout", "Top", "--game-audio", "GameIn"});
    }
    const ProcessResult replayed = replay("6", "GameIn");
    QFile::remove(preferences);
    ASSERT_EQ(recorded.exitCode, 0) << recorded.err;
    ASSERT_EQ(replayed.exitCode, 0) << replayed.err;
    {
        SCOPED_TRACE("recording");
        // Ten seconds of beeps, less one that the offset may take to before the sound's first 0.3 s.
        expectBeepsOnTheirSeconds(splitLines(recorded.out).at(0), -0.150, 7);
    }
    {
        SCOPED_TRACE("replay");
        expectBeepsOnTheirSeconds(splitLines(replayed.out).at(0), -0.150, 3);
    }
}

// With no cable and no sound server: every beep meets its white frame and its second from the first
// one on, and the sound lasts as long as the picture, to a frame.
TEST_F(RecordingSystemTest, TheBoardsOwnSoundIsInStepWithItsPictureInRecordingsAndReplays) {
    setenv("ZANDOR_DEMO_FLASH", "1", 1);
    const ProcessResult recorded = record({"--seconds", "6", "--layout", "Top", "--game-audio", "board"});
    const ProcessResult replayed = replay("6", "board");
    ASSERT_EQ(recorded.exitCode, 0) << recorded.err;
    ASSERT_EQ(replayed.exitCode, 0) << replayed.err;
    for (const auto& [name, run, beeps] :
         {std::tuple{"recording", &recorded, size_t{5}}, std::tuple{"replay", &replayed, size_t{3}}}) {
        SCOPED_TRACE(name);
        const std::string movie = splitLines(run->out).at(0);
        expectBeepsOnTheirSeconds(movie, 0, beeps, true);
        EXPECT_NEAR(streamSeconds(movie, "a:0"), streamSeconds(movie, "v:0"), 1 / 60.0 + 0.001);
    }
}

} // namespace
} // namespace zandor
