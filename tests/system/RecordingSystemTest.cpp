// Whole-program tests of `zandor-cli record`: the demo board, a private sound server whose sinks
// feed the inputs GameIn and NarratorIn, and the movies checked with ffprobe and ffmpeg.

#include "Files.h"
#include "Media.h"
#include "PulseServer.h"
#include "UserFolders.h"

#include <gtest/gtest.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace zandor {
namespace {

using test::ProcessResult;
using test::PulseServer;
using test::splitLines;

constexpr int Rate = PulseServer::SampleRate;

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// The movie's streams as ffprobe sees them, and the first of a type ("video", "audio").
QJsonObject probeStreams(const std::string& movie) {
    return test::probe(movie, {"-show_entries", "stream=codec_type,codec_name,width,height,duration,"
                                                "sample_rate,channels"});
}
QJsonObject streamOf(const std::string& movie, const QString& type) {
    return test::streamWith(probeStreams(movie), "codec_type", type);
}
// Every stream in short, sorted: "h264 400x240" for a picture, "aac 44100 2" for a sound.
QStringList streams(const std::string& movie) {
    QStringList described;
    for (const QJsonValue& s : probeStreams(movie)["streams"].toArray()) {
        described << s[u"codec_name"].toString() + ' ' +
                         (s[u"codec_type"] == "video"
                              ? QStringLiteral("%1x%2").arg(s[u"width"].toInt()).arg(s[u"height"].toInt())
                              : QStringLiteral("%1 %2")
                                    .arg(s[u"sample_rate"].toString())
                                    .arg(s[u"channels"].toInt()));
    }
    described.sort();
    return described;
}

// The first sound track at 44.1 kHz; sample 0 is the movie's time zero.
std::vector<int16_t> soundOf(const std::string& movie) {
    return test::decodeSound(movie,
                             {"-map", "0:a:0", "-af", "aresample=async=1:first_pts=0", "-ar", "44100"});
}

// Level (dB of full scale) and pitch of a stretch of sound. The pitch comes from the median time
// between upward crossings, so a short gap in the sound does not change it.
std::pair<double, double> levelAndFrequency(const std::vector<int16_t>& samples, double from, double to) {
    const auto begin = static_cast<size_t>(from * Rate),
               end = std::min(samples.size(), static_cast<size_t>(to * Rate));
    double sum = 0;
    std::vector<size_t> crossings;
    bool below = true;
    for (size_t i = begin; i < end; ++i) {
        sum += static_cast<double>(samples[i]) * samples[i];
        if (below && samples[i] > 3277) {
            crossings.push_back(i);
        }
        below = samples[i] < -3277 || (below && samples[i] <= 3277);
    }
    std::vector<size_t> periods;
    for (size_t i = 1; i < crossings.size(); ++i) {
        periods.push_back(crossings[i] - crossings[i - 1]);
    }
    double frequency = 0;
    if (!periods.empty()) {
        std::nth_element(periods.begin(), periods.begin() + static_cast<long>(periods.size() / 2),
                         periods.end());
        frequency = static_cast<double>(Rate) / static_cast<double>(periods[periods.size() / 2]);
    }
    const double n = std::max<double>(1, static_cast<double>(end) - static_cast<double>(begin));
    return {10 * std::log10(sum / n / (32768.0 * 32768.0) + 1e-12), frequency};
}

// Level and pitch over a second of sound from where it starts (plus a tenth of a second): the
// input delivers its first samples a varying while after a recording starts.
std::pair<double, double> levelAndFrequencyOfTheStart(const std::vector<int16_t>& samples) {
    const auto first =
        std::find_if(samples.begin(), samples.end(), [](int16_t s) { return std::abs(s) > 3277; });
    const double start = static_cast<double>(first - samples.begin()) / Rate + 0.1;
    return levelAndFrequency(samples, start, start + 1.0);
}

// The times in seconds at which beeps start after at least 0.3 s of quiet: the first sample that
// reaches half the beep's peak.
std::vector<double> beepOnsets(const std::vector<int16_t>& samples) {
    std::vector<double> onsets;
    const size_t quietNeeded = Rate * 3 / 10, beepLength = Rate * 30 / 1000;
    const auto louder = [](int16_t a, int16_t b) { return std::abs(a) < std::abs(b); };
    for (size_t i = 0, quiet = 0; i < samples.size(); ++i) {
        if (std::abs(samples[i]) <= 655) {
            ++quiet;
            continue;
        }
        if (quiet >= quietNeeded) {
            const auto begin = samples.begin() + static_cast<long>(i);
            const auto end = begin + static_cast<long>(std::min(beepLength, samples.size() - i));
            const int peak = std::abs(*std::max_element(begin, end, louder));
            const auto onset =
                std::find_if(begin, end, [peak](int16_t s) { return std::abs(s) * 2 >= peak; });
            onsets.push_back(static_cast<double>(onset - samples.begin()) / Rate);
            i += beepLength;
        }
        quiet = 0;
    }
    return onsets;
}

// The presentation times in seconds of the first frame of every run of white frames.
std::vector<double> whiteFrames(const std::string& movie) {
    const auto printed = test::runProcess(
        {"ffmpeg", "-v", "error", "-nostats", "-i", movie, "-map", "0:v:0", "-vf",
         "scale=32:32,signalstats,metadata=mode=print:key=lavfi.signalstats.YAVG:file=-", "-f", "null", "-"});
    std::vector<double> times;
    double pts = 0;
    bool previousWhite = false;
    for (const std::string& line : splitLines(printed.out)) {
        if (const size_t at = line.find("pts_time:"); at != std::string::npos) {
            pts = std::atof(line.c_str() + at + 9);
        } else if (line.rfind("lavfi.signalstats.YAVG=", 0) == 0) {
            // White is luma 235; the demo picture's average is far below.
            const bool white = std::atof(line.c_str() + 23) > 200;
            if (white && !previousWhite) {
                times.push_back(pts);
            }
            previousWhite = white;
        }
    }
    return times;
}

// A tool for RecordingSystemTest::installWith.
struct Tool {
    const char* name;
    const char* script = nullptr;
    bool executable = true;
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
    void TearDown() override { unsetenv("ZANDOR_DEMO_FLASH"); }

    QString out() const { return m_work.path() + "/recordings folder"; }

    // Records with the demo board into out() and checks that zandor-cli ended by itself.
    ProcessResult record(std::vector<std::string> options, const std::string& program = ZANDOR_CLI,
                         const QString& folder = {}) {
        std::vector<std::string> command = {
            program, "record", "--board", "demo", "--out", (folder.isEmpty() ? out() : folder).toStdString()};
        command.insert(command.end(), options.begin(), options.end());
        const ProcessResult run = test::runProcess(command);
        EXPECT_FALSE(run.overstayed) << "zandor-cli hung";
        EXPECT_EQ(run.signal, 0) << "zandor-cli crashed\n" << run.err;
        return run;
    }

    // What the storage folder holds, by name.
    QStringList stored(QDir::Filters filters = QDir::Files | QDir::Dirs) const {
        return QDir(out()).entryList(filters | QDir::NoDotAndDotDot, QDir::Name);
    }

    // A copy of zandor-cli installed under a temporary prefix whose tool folder holds a script for
    // each of `tools`. A tool without a script of its own notes its call in calls() and runs the
    // build's tool; "missing" leaves it out; `executable` false writes it without the right to run.
    std::string installWith(const std::vector<Tool>& tools) {
        std::filesystem::remove_all(prefix());
        for (const char* folder : {"bin", "share/zandor", "libexec/zandor"}) {
            std::filesystem::create_directories(prefix() / folder);
        }
        // A copy, not a link: the program finds its folders from where its own file is.
        std::filesystem::copy_file(ZANDOR_CLI, prefix() / "bin/zandor-cli");
        std::filesystem::create_directory_symlink(ZANDOR_PLUGIN_FOLDER, prefix() / "share/zandor/Plugins");
        for (const Tool& tool : tools) {
            if (tool.script && std::string(tool.script) == "missing") {
                continue;
            }
            const QString passOn =
                QStringLiteral(
                    "echo \"$(basename \"$0\") $(basename \"$2\") $(basename \"$4\")\" >> '%1/calls'\n"
                    "exec '%2/%3' \"$@\"\n")
                    .arg(QString::fromStdString(prefix().string()), ZANDOR_TOOL_FOLDER, tool.name);
            EXPECT_TRUE(
                test::writeFile(QString::fromStdString((prefix() / "libexec/zandor" / tool.name).string()),
                                "#!/bin/sh\n" + (tool.script ? QByteArray(tool.script) : QByteArray()) +
                                    "\n" + passOn.toUtf8(),
                                tool.executable));
        }
        return (prefix() / "bin/zandor-cli").string();
    }
    std::filesystem::path prefix() const { return m_work.path().toStdString() + "/prefix"; }
    // The tools' calls in order: tool, source and destination file names.
    std::vector<std::string> calls() const {
        std::ifstream file(prefix() / "calls");
        return splitLines(std::string(std::istreambuf_iterator<char>(file), {}));
    }

    QTemporaryDir m_work;
    std::unique_ptr<PulseServer> m_pulse;
};

// Both screens: one movie each, named after its screen with one stamp, each with the game's sound
// as its only sound track; the narrator's is never merged.
TEST_F(RecordingSystemTest, EachScreensMovieGetsTheGameSoundAsItsAacTrackAndNotTheNarrators) {
    const PulseServer::Playback game("game_sink", 440, 0, 8);
    const PulseServer::Playback narrator("narrator_sink", 1000, 0, 8);
    const ProcessResult run = record(
        {"--seconds", "3", "--layout", "None", "--game-audio", "GameIn", "--narrator-audio", "NarratorIn"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const QStringList files = stored();
    ASSERT_EQ(files.size(), 2) << files.join(", ").toStdString()
                               << ": the bundle is gone, the movies are left";
    // Sorted by name: Bottom before Top.
    const QRegularExpression name(R"(^Capture (\d\d_\d\d_\d{4} \d\d_\d\d_\d\d) (Top|Bottom)\.mp4$)");
    const auto bottom = name.match(files[0]), top = name.match(files[1]);
    ASSERT_TRUE(bottom.hasMatch() && top.hasMatch()) << files.join(", ").toStdString();
    EXPECT_EQ(bottom.captured(2) + top.captured(2), "BottomTop");
    EXPECT_EQ(bottom.captured(1), top.captured(1));
    auto printed = splitLines(run.out);
    std::sort(printed.begin(), printed.end());
    ASSERT_EQ(printed, (std::vector<std::string>{(out() + "/" + files[0]).toStdString(),
                                                 (out() + "/" + files[1]).toStdString()}));

    for (const auto& [movie, picture] : {std::pair{printed[0], "320x240"}, {printed[1], "400x240"}}) {
        SCOPED_TRACE(movie);
        EXPECT_EQ(streams(movie), (QStringList{"aac 44100 2", QString("h264 ") + picture}))
            << "one picture and one sound track";
        EXPECT_NEAR(streamOf(movie, "video")["duration"].toString().toDouble(), 3.0, 0.5);
        // The game's tone, at its level (half of full scale is -9 dB) and its pitch; the narrator's
        // tone at 1 kHz, mixed in, would show in both.
        const auto [level, frequency] = levelAndFrequencyOfTheStart(soundOf(movie));
        EXPECT_GT(level, -12.0);
        EXPECT_NEAR(frequency, 440.0, 5.0);
    }
}

TEST_F(RecordingSystemTest, FixedFrameRateIsMadeByTheConvertingTool) {
    const PulseServer::Playback game("game_sink", 440, 0, 7);
    const ProcessResult run =
        record({"--seconds", "2", "--layout", "Top", "--fps", "30", "--game-audio", "GameIn"},
               installWith({{"SublerCLI"}, {"HandBrakeCLI"}}));
    ASSERT_EQ(run.exitCode, 0) << run.err;
    // The game sound joins the picture before the conversion, which copies it.
    EXPECT_EQ(calls(), (std::vector<std::string>{"SublerCLI VideoTop.mov MergedTop.mp4",
                                                 "SublerCLI AudioGame.mov MergedTop.mp4",
                                                 "HandBrakeCLI MergedTop.mp4 ConvertedTop.mp4"}));
    const std::string movie = splitLines(run.out).at(0);
    const QString encoder =
        test::probe(movie, {"-show_entries", "format_tags=encoder"})["format"][u"tags"][u"encoder"]
            .toString();
    EXPECT_TRUE(encoder.contains("HandBrake")) << encoder.toStdString();
    EXPECT_EQ(streams(movie), (QStringList{"aac 44100 2", "h264 400x240"}))
        << "the sound is copied, not re-encoded";
    // "--rate 30" caps the rate and keeps the source's timing: no two frames closer than a 30th of
    // a second, and 30 of them a second on average.
    std::vector<double> times;
    const QJsonArray packets =
        test::probe(movie, {"-select_streams", "v:0", "-show_entries", "packet=pts_time"})["packets"]
            .toArray();
    for (const QJsonValue& packet : packets) {
        times.push_back(packet[u"pts_time"].toString().toDouble());
    }
    ASSERT_GE(times.size(), 40u);
    std::sort(times.begin(), times.end());
    double closest = 1.0;
    for (size_t i = 1; i < times.size(); ++i) {
        closest = std::min(closest, times[i] - times[i - 1]);
    }
    EXPECT_GT(closest, 1.0 / 30 - 0.001);
    EXPECT_NEAR(static_cast<double>(times.size() - 1) / (times.back() - times.front()), 30.0, 1.0);
    EXPECT_NEAR(levelAndFrequencyOfTheStart(soundOf(movie)).second, 440.0, 5.0);
}

TEST_F(RecordingSystemTest, AStorageFolderWhereNoBundleCanBeMadeIsLogged) {
    // A folder where the bundle cannot be made: files hold the names of the coming seconds' bundles.
    const QDateTime now = QDateTime::currentDateTime();
    for (int second = -2; second < 30; ++second) {
        ASSERT_TRUE(test::writeFile(out() + "/Capture " +
                                    now.addSecs(second).toString("dd_MM_yyyy HH_mm_ss") + ".zdrecord"));
    }
    const QStringList before = stored();
    const ProcessResult run = record({"--seconds", "1", "--layout", "Top", "--game-audio", "GameIn"});
    EXPECT_NE(run.exitCode, 0);
    EXPECT_TRUE(contains(run.err, "Could not create bundle for recording")) << run.err;
    EXPECT_TRUE(run.out.empty()) << run.out;
    EXPECT_EQ(stored(), before) << "nothing made, nothing removed";
}

TEST_F(RecordingSystemTest, AnAudioInputThatIsGoneStopsTheStart) {
    for (const auto& audio :
         {std::vector<std::string>{"--game-audio", "GoneIn"},
          std::vector<std::string>{"--game-audio", "GameIn", "--narrator-audio", "GoneIn"}}) {
        std::vector<std::string> options = {"--seconds", "1", "--layout", "Top"};
        options.insert(options.end(), audio.begin(), audio.end());
        const ProcessResult run = record(options);
        EXPECT_EQ(run.exitCode, 1);
        EXPECT_TRUE(contains(run.err, "zandor-cli record: Could not start recording video.")) << run.err;
        EXPECT_TRUE(run.out.empty());
    }
    // Writers already started are left as they are: the bundles stay, and no movie is made.
    const QStringList left = stored();
    EXPECT_GE(left.size(), 1);
    EXPECT_EQ(left.filter(QRegularExpression(R"(\.zdrecord$)")), left) << left.join(", ").toStdString();
    EXPECT_TRUE(stored(QDir::Files).isEmpty());
}

// The game input unplugged in the middle: the movie is made, and the user is told when its sound
// stopped.
TEST_F(RecordingSystemTest, AGameInputUnpluggedMidwayIsSaidWithItsTime) {
    const PulseServer::Playback game("game_sink", 440, 0, 8);
    std::thread unplugger([] {
        // Into the recording's third second.
        std::this_thread::sleep_for(std::chrono::milliseconds(2500));
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
    EXPECT_TRUE(contains(run.err, "The audio input \"Game Input\" went away ")) << run.err;
}

// Whatever step of finalising fails, the recording stays in its bundle, playable, and the message
// says where; no movie is made.
struct FinalisingFault {
    const char* name;
    std::vector<Tool> tools;
    const char* fps;
    const char* message;
    // Run in a mount namespace of its own whose storage folder is a small memory file system
    // ("full") or can be made read-only by a tool ("private").
    const char* mounts = nullptr;
};

void PrintTo(const FinalisingFault& fault, std::ostream* out) {
    *out << fault.name;
}

class FinalisingFailureTest : public RecordingSystemTest,
                              public ::testing::WithParamInterface<FinalisingFault> {};

TEST_P(FinalisingFailureTest, KeepsTheRecordingWhereTheMessageSays) {
    const FinalisingFault& fault = GetParam();
    std::vector<Tool> tools = fault.tools;
    for (const char* name : {"SublerCLI", "HandBrakeCLI"}) {
        if (std::none_of(tools.begin(), tools.end(),
                         [name](const Tool& t) { return std::string(t.name) == name; })) {
            tools.push_back({name});
        }
    }
    const std::string program = installWith(tools);
    const PulseServer::Playback game("game_sink", 440, 0, 8);
    // What the storage folder held is looked at here: a memory file system goes with its namespace.
    QString kept = out();
    std::vector<std::string> command = {
        program, "record",   "--board", "demo",  "--out",   out().toStdString(), "--seconds",
        "2",     "--layout", "Top",     "--fps", fault.fps, "--game-audio",      "GameIn"};
    if (fault.mounts) {
        if (test::runProcess({"unshare", "-m", "true"}).exitCode != 0) {
            GTEST_SKIP() << "no mount namespaces here";
        }
        kept = m_work.path() + "/kept";
        ASSERT_TRUE(QDir().mkpath(kept));
        const std::string prepare = std::string(fault.mounts) == "full"
                                        ? "mount -t tmpfs -o size=64m zandor-full \"$1\" || exit 90; "
                                        : "";
        command.insert(
            command.begin(),
            {"unshare", "-m", "sh", "-c",
             prepare + "out=$1 keep=$2; shift 2; \"$@\"; status=$?; cp -a \"$out/.\" \"$keep\"; exit $status",
             "sh", out().toStdString(), kept.toStdString()});
    }
    const ProcessResult run = test::runProcess(command);
    ASSERT_FALSE(run.overstayed) << "zandor-cli hung";
    EXPECT_EQ(run.exitCode, 1) << run.err;
    EXPECT_TRUE(run.out.empty()) << run.out;

    const QStringList bundles = QDir(kept).entryList({"*.zdrecord"}, QDir::Dirs);
    ASSERT_EQ(bundles.size(), 1) << run.err;
    const std::string said = "zandor-cli record: " + std::string(fault.message) +
                             " The recording is kept in \"" + (out() + "/" + bundles[0]).toStdString() +
                             "\".";
    EXPECT_TRUE(contains(run.err, said + "\n")) << run.err;
    if (fault.mounts) {
        EXPECT_TRUE(contains(run.err, std::string(fault.mounts) == "full" ? "No space left on device"
                                                                          : "Read-only file system"))
            << "the tool met the fault itself\n"
            << run.err;
    }
    EXPECT_TRUE(QDir(kept).entryList({"*.mp4"}, QDir::Files).isEmpty()) << "no movie";

    const std::string bundle = (kept + "/" + bundles[0]).toStdString();
    EXPECT_EQ(streams(bundle + "/VideoTop.mov"), QStringList{"h264 400x240"});
    EXPECT_NEAR(streamOf(bundle + "/VideoTop.mov", "video")["duration"].toString().toDouble(), 2.0, 0.5);
    EXPECT_EQ(streams(bundle + "/AudioGame.mov"), QStringList{"aac 44100 2"});
}

const char* const Convert = "It was not possible to convert the merged video.";
const char* const MergeVideo = "It was not possible to merge video.";
const char* const MoveOut = "Could not move file outside recording bundle.";
const char* const Crash = "kill -SEGV $$";

INSTANTIATE_TEST_SUITE_P(
    ToolsAndDisks, FinalisingFailureTest,
    ::testing::Values(
        FinalisingFault{"ConverterMissing", {{"HandBrakeCLI", "missing"}}, "30", Convert},
        FinalisingFault{"ConverterNotExecutable", {{"HandBrakeCLI", "exit 0", false}}, "30", Convert},
        FinalisingFault{
            "ConverterFails", {{"HandBrakeCLI", "echo 'x264 [error]: no' >&2; exit 3"}}, "30", Convert},
        FinalisingFault{"ConverterCrashes", {{"HandBrakeCLI", Crash}}, "30", Convert},
        FinalisingFault{"ConverterMakesNothing", {{"HandBrakeCLI", "exit 0"}}, "30", MoveOut},
        FinalisingFault{"MergerMissing", {{"SublerCLI", "missing"}}, "Original", MergeVideo},
        FinalisingFault{"MergerFails", {{"SublerCLI", "exit 1"}}, "Original", MergeVideo},
        FinalisingFault{"MergerCrashes", {{"SublerCLI", Crash}}, "Original", MergeVideo},
        FinalisingFault{"MergerRefusesTheSound",
                        {{"SublerCLI", "case \"$2\" in */AudioGame.mov) exit 1;; esac"}},
                        "30",
                        "It was not possible to merge audio."},
        FinalisingFault{"DiskFillsDuringTheMerge",
                        {{"SublerCLI", "cat /dev/zero > \"${4%/*}/../filler\" 2>/dev/null"}},
                        "Original",
                        MergeVideo,
                        "full"},
        FinalisingFault{"FolderTurnsReadOnly",
                        {{"SublerCLI", "d=\"${4%/*}/..\"; mount --bind \"$d\" \"$d\" && "
                                       "mount -o remount,bind,ro \"$d\" || exit 91"}},
                        "Original",
                        MergeVideo,
                        "private"}),
    [](const ::testing::TestParamInfo<FinalisingFault>& info) { return std::string(info.param.name); });

// The demo board shows a white frame and the game input hears a beep at every whole second of the
// wall clock: every beep must land near a white frame. How near is printed; bench/av-sync measures it.
TEST_F(RecordingSystemTest, EveryBeepMeetsAWhiteFrame) {
    setenv("ZANDOR_DEMO_FLASH", "1", 1);
    auto beeps = std::make_unique<PulseServer::Playback>("game_sink", 1000, 30, 16);
    const ProcessResult run = record({"--seconds", "10", "--layout", "Top", "--game-audio", "GameIn"});
    beeps.reset();
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const std::string movie = splitLines(run.out).at(0);

    const std::vector<double> flashes = whiteFrames(movie);
    std::vector<double> onsets = beepOnsets(soundOf(movie));
    // Beeps in the second that finalising records past the picture have no white frame.
    const double pictureEnds = streamOf(movie, "video")["duration"].toString().toDouble();
    std::erase_if(onsets, [pictureEnds](double onset) { return onset > pictureEnds - 0.05; });
    EXPECT_GE(flashes.size(), 9u);
    ASSERT_GE(onsets.size(), 8u) << "a beep a second";
    std::string offsets;
    for (double onset : onsets) {
        const auto nearest = std::min_element(flashes.begin(), flashes.end(), [onset](double a, double b) {
            return std::abs(a - onset) < std::abs(b - onset);
        });
        ASSERT_NE(nearest, flashes.end());
        EXPECT_LT(std::abs(*nearest - onset), 0.5) << "the beep at " << onset << " s has no white frame";
        char text[32];
        std::snprintf(text, sizeof text, " %+.1f", (onset - *nearest) * 1000);
        offsets += text;
    }
    std::printf("beep onset minus white frame, ms:%s\n", offsets.c_str());
    RecordProperty("offsets_ms", offsets);
}

} // namespace
} // namespace zandor
