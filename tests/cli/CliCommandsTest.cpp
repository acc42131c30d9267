// zandor-cli as a user runs it, with its user folders in a temporary place and no sound server.

#include "Media.h"
#include "PluginBundles.h"
#include "Process.h"
#include "capture/DemoBoard.h"
#include "capture/RawFrame.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <set>

namespace zandor {
namespace {

using test::ProcessResult;
using test::splitLines;

class CliTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("XDG_DATA_HOME", qPrintable(m_home.path() + "/data"), 1);
        setenv("HOME", qPrintable(m_home.path()), 1);
        setenv("PULSE_SERVER", "unix:/nonexistent", 1);
        QDir().mkpath(m_home.path() + "/out folder");
    }

    static ProcessResult cli(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), ZANDOR_CLI);
        return test::runProcess(arguments);
    }
    std::string at(const QString& name) const { return (m_home.path() + u'/' + name).toStdString(); }

    QTemporaryDir m_home;
};

// A dump read as its format is written down: a 16-byte header, then one record a frame of the
// picture, the number of sound values and room for the most a frame may have.
struct Dump {
    QByteArray header;
    std::vector<QByteArray> pictures;
    std::vector<std::vector<int16_t>> sounds;
};

Dump readDump(const QByteArray& bytes) {
    constexpr qsizetype Header = 16, Record = raw::FrameBytes + 4 + 2 * raw::MaxSoundValues;
    Dump dump;
    dump.header = bytes.left(Header);
    for (qsizetype at = Header; at + Record <= bytes.size(); at += Record) {
        dump.pictures.push_back(bytes.mid(at, raw::FrameBytes));
        const auto* count = reinterpret_cast<const uint8_t*>(bytes.constData() + at + raw::FrameBytes);
        const uint32_t values =
            count[0] | count[1] << 8 | count[2] << 16 | static_cast<uint32_t>(count[3]) << 24;
        std::vector<int16_t> sound;
        for (uint32_t i = 0; i < values && i < raw::MaxSoundValues; ++i) {
            const auto* value = count + 4 + 2 * i;
            sound.push_back(static_cast<int16_t>(value[0] | value[1] << 8));
        }
        dump.sounds.push_back(std::move(sound));
    }
    return dump;
}

TEST_F(CliTest, DumpWritesTheDemoBoardsFramesWithTheirSoundAndReplaysThemInALoop) {
    auto result = cli({"dump", "--board", "demo", "--frames", "2", "--out", at("demo frames.raw")});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const QByteArray bytes = test::readFile(QString::fromStdString(at("demo frames.raw")));
    const Dump dump = readDump(bytes);
    EXPECT_TRUE(dump.header == QByteArray("ZDFRAMES\x04\x72\x08\x00\x00\x00\x00\x00", 16));
    ASSERT_EQ(dump.pictures.size(), 2u);
    EXPECT_EQ(bytes.size(), 16 + 2 * (raw::FrameBytes + 4 + 2 * raw::MaxSoundValues)) << "a part record";
    std::vector<uint8_t> expected(raw::FrameBytes);
    uint64_t sample = 0;
    for (uint64_t n = 0; n < 2; ++n) {
        DemoBoard::render(n, expected.data());
        EXPECT_EQ(std::memcmp(dump.pictures[n].constData(), expected.data(), raw::FrameBytes), 0)
            << "not the demo board's frame " << n;
        // The first frames of a second beep at 1 kHz, the same on both channels.
        const auto& sound = dump.sounds[n];
        ASSERT_EQ(sound.size(), 2 * DemoBoard::samples(n)) << "frame " << n;
        for (size_t i = 0; i < sound.size(); i += 2, ++sample) {
            const double expectedValue =
                DemoBoard::Amplitude *
                std::sin(2 * M_PI * 1000 * static_cast<double>(sample) / raw::SoundRate);
            ASSERT_NEAR(sound[i], expectedValue, 1.0) << "frame " << n << " sample " << i / 2;
            ASSERT_EQ(sound[i + 1], sound[i]);
        }
    }

    result = cli(
        {"dump", "--board", "replay:" + at("demo frames.raw"), "--frames", "3", "--out", at("again.raw")});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const QByteArray records = bytes.mid(16);
    EXPECT_TRUE(test::readFile(QString::fromStdString(at("again.raw"))) ==
                bytes + records.left(records.size() / 2))
        << "the two frames with their sound, then from the first again";
}

TEST_F(CliTest, BoardInfoTellsWhatTheBoardIs) {
    const auto result = cli({"board-info", "--board", "demo"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, "Name: Demo board\nVendor:product: 16d0:06a3\nSerial: ZD0000000001\nFirmware "
                          "version: 6\nSound: yes\n3D picture: yes\n");
    EXPECT_NE(
        result.err.find(
            "Capture board: Demo board 16d0:06a3, serial ZD0000000001, firmware version 6, can capture 3D\n"),
        std::string::npos)
        << "the log at connect: " << result.err;
}

TEST_F(CliTest, ADumpOfPicturesAloneStillReplaysWithoutSound) {
    QByteArray old(2 * raw::FrameBytes, '\0');
    for (uint64_t n = 0; n < 2; ++n) {
        DemoBoard::render(n + 100, reinterpret_cast<uint8_t*>(old.data()) + n * raw::FrameBytes);
    }
    ASSERT_TRUE(test::writeFile(QString::fromStdString(at("old.raw")), old));
    auto result =
        cli({"dump", "--board", "replay:" + at("old.raw"), "--frames", "3", "--out", at("new.raw")});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const Dump dump = readDump(test::readFile(QString::fromStdString(at("new.raw"))));
    ASSERT_EQ(dump.pictures.size(), 3u);
    for (uint64_t n = 0; n < 3; ++n) {
        EXPECT_TRUE(dump.pictures[n] == old.mid((n % 2) * raw::FrameBytes, raw::FrameBytes)) << "frame " << n;
        EXPECT_TRUE(dump.sounds[n].empty()) << "frame " << n;
    }
}

TEST_F(CliTest, ScreenshotSavesTheChosenLayoutAndPrintsTheFile) {
    const auto probe = [](const ProcessResult& result) {
        EXPECT_EQ(result.exitCode, 0) << result.err;
        const auto printed = splitLines(result.out);
        return printed.size() != 1 ? QStringList{QString::fromStdString(result.out)}
                                   : test::streams(printed[0]);
    };
    EXPECT_EQ(probe(cli({"screenshot", "--board", "demo", "--out", at("out folder")})),
              QStringList{"png,400,480"})
        << "the first layout of the catalogue";
    EXPECT_EQ(probe(cli({"screenshot", "--board", "demo", "--out", at("out folder"), "--layout",
                         "Side by Side", "--format", "JPEG"})),
              QStringList{"mjpeg,720,240"});
    EXPECT_FALSE(QFileInfo::exists(m_home.path() + "/data/Zandor/preferences.plist"))
        << "settings are never written";
}

TEST_F(CliTest, LayoutsListsTheApplicationLayoutsThenTheScreensAndInstallsUserPlugins) {
    auto result = cli({"layouts", "--json"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const auto entries = QJsonDocument::fromJson(QByteArray::fromStdString(result.out)).array();
    ASSERT_GE(entries.size(), 6) << "four application layouts at least, and Top and Bottom\n" << result.out;
    EXPECT_EQ(entries.last().toObject(), (QJsonObject{{"name", "Bottom"},
                                                      {"width", 320},
                                                      {"height", 240},
                                                      {"resizable", true},
                                                      {"background", QJsonArray{0, 0, 0}},
                                                      {"origin", "application"},
                                                      {"importance", QJsonValue()}}));
    auto lines = splitLines(cli({"layouts"}).out);
    ASSERT_EQ(lines.size(), static_cast<size_t>(entries.size()));
    EXPECT_EQ(lines.back(), "Bottom\t320\t240\tresizable\t0,0,0\tapplication\t-");

    QTemporaryDir downloads;
    const auto bundle = [&](const QString& name) {
        return test::writeBundle(
            downloads.path(), "mine.zdplugin",
            test::layoutDescriptor(name, 5, 400, 240, {}, R"(<background r="1" g="2" b="3"/>)"));
    };
    const QString mine = bundle("Mine");
    result = cli({"install-plugin", mine.toStdString()});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_FALSE(QFileInfo::exists(mine));
    EXPECT_TRUE(QFileInfo::exists(m_home.path() + "/data/Zandor/Plugins/mine.zdplugin/plugin.xml"));
    lines = splitLines(cli({"layouts"}).out);
    EXPECT_NE(std::find(lines.begin(), lines.end(), "Mine\t400\t240\tresizable\t1,2,3\tuser\t5"),
              lines.end());

    result = cli({"install-plugin", bundle("Again").toStdString()});
    EXPECT_NE(result.exitCode, 0);
    EXPECT_NE(result.err.find("already installed"), std::string::npos) << result.err;
    EXPECT_TRUE(QFileInfo::exists(mine)) << "a refused bundle stays where it was";
}

// Every command checks its input before anything starts: one line on standard error, no file.
TEST_F(CliTest, BadInputGetsOneClearLineAndLeavesNoFile) {
    test::writeFile(QString::fromStdString(at("a file")));
    const std::string out = at("out folder"), raw = at("out folder/out.raw");
    for (const auto& [arguments, message] : std::vector<std::pair<std::vector<std::string>, std::string>>{
             {{"frobnicate"}, "zandor-cli: Unknown command 'frobnicate' (see zandor-cli --help)"},
             {{"--frobnicate"}, "zandor-cli: Unknown option '--frobnicate' (see zandor-cli --help)"},
             {{"dump", "--bored", "demo"},
              "zandor-cli dump: Unknown option --bored (see zandor-cli dump --help)"},
             {{"dump", "--board"},
              "zandor-cli dump: Option --board needs a value (see zandor-cli dump --help)"},
             {{"layouts", "--json=yes"}, "zandor-cli layouts: Option --json takes no value (see"},
             {{"audio-inputs", "extra"}, "zandor-cli audio-inputs: Unexpected argument 'extra' (see"},
             {{"recover", "--board", "demo"}, "zandor-cli recover: Unknown option --board (see"},
             {{"recover", "--out", at("a file")}, "zandor-cli recover: Option --out needs a folder"},
             {{"install-plugin"}, "zandor-cli install-plugin: Give the path of one plugin bundle (see"},
             {{"dump", "--board", "demo", "--frames", "0", "--out", raw},
              "zandor-cli dump: Option --frames needs a whole number of at least 1 (see zandor-cli dump "
              "--help)"},
             {{"dump", "--board", "demo", "--frames", "1"}, "zandor-cli dump: Option --out needs the file"},
             {{"record", "--board", "demo", "--seconds", "two"}, "zandor-cli record: Option --seconds needs"},
             {{"replay", "--board", "demo", "--buffer-seconds", "4", "--out", out},
              "zandor-cli replay: Option --buffer-seconds needs a whole number from 5 to 300 (see"},
             {{"replay", "--board", "demo", "--layout", "None", "--out", out},
              "zandor-cli replay: Option --layout needs one layout"},
             {{"dump", "--board", "Demo", "--frames", "1", "--out", raw},
              "Unknown board 'Demo': use usb, usb:SERIAL, demo or replay:FILE"},
             {{"dump", "--board", "replay:", "--frames", "1", "--out", raw},
              "The replay board needs a file: replay:FILE"},
             {{"dump", "--board", "demo", "--frames", "1", "--out", out + "/no/such/dir.raw"},
              "cannot write beside"},
             {{"dump", "--board", "demo", "--frames", "1", "--out", out}, "is a folder"},
             {{"screenshot", "--board", "demo", "--layout", "Sideways", "--out", out},
              "Unknown layout 'Sideways'"},
             {{"screenshot", "--board", "demo", "--out", out + "/missing"}, "Cannot write to the folder"},
             {{"screenshot", "--board", "demo", "--out", at("a file")}, ": it is not a folder"},
             {{"screenshot", "--board", "demo", "--format", "GIF", "--out", out}, "GIF"},
             {{"install-plugin", out + "/nothing"}, "not a plugin bundle"}}) {
        const auto result = cli(arguments);
        EXPECT_NE(result.exitCode, 0) << message;
        if (message.find("(see") != std::string::npos) {
            EXPECT_EQ(result.exitCode, 2) << "a wrong command line: " << message;
        }
        EXPECT_EQ(splitLines(result.err).size(), 1u) << result.err;
        EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
        EXPECT_TRUE(result.out.empty()) << result.out;
    }
    EXPECT_TRUE(QDir(QString::fromStdString(out)).isEmpty()) << "a failed command left a file";
}

// The commands zandor-cli --help lists, in its order.
std::vector<std::string> listedCommands(const std::string& help) {
    std::vector<std::string> commands;
    bool listing = false;
    for (const std::string& line : splitLines(help)) {
        if (listing && line.rfind("  ", 0) == 0 && line[2] != ' ') {
            commands.push_back(line.substr(2, line.find(' ', 2) - 2));
        }
        listing = (listing && !line.empty()) || line == "commands:";
    }
    return commands;
}

TEST_F(CliTest, HelpAndVersionAnswerEverywhereWithoutADisplay) {
    unsetenv("DISPLAY");
    unsetenv("WAYLAND_DISPLAY");
    const auto help = cli({"--help"});
    ASSERT_EQ(help.exitCode, 0) << help.err;
    EXPECT_TRUE(help.err.empty()) << help.err;
    const auto commands = listedCommands(help.out);
    for (const char* expected : {"layouts", "install-plugin", "screenshot", "record", "replay", "camera",
                                 "recover", "audio-inputs", "dump", "board-info"}) {
        EXPECT_NE(std::find(commands.begin(), commands.end(), expected), commands.end())
            << expected << " is not listed:\n"
            << help.out;
    }
    for (const std::string& command : commands) {
        const auto own = cli({command, "--help"});
        EXPECT_EQ(own.exitCode, 0) << command << ": " << own.err;
        EXPECT_EQ(own.out.rfind("usage: zandor-cli " + command, 0), 0u) << own.out;
        EXPECT_EQ(cli({command, "--version"}).out, "zandor-cli " ZANDOR_VERSION "\n") << command;
        for (const std::string& line : splitLines(own.out)) {
            EXPECT_LE(line.size(), 80u) << line;
        }
    }
    EXPECT_EQ(cli({"help", "record"}).out, cli({"record", "--help"}).out);
    const auto none = cli({});
    EXPECT_EQ(none.exitCode, 2);
    EXPECT_EQ(none.err, help.out) << "without a command the help goes to standard error";

    const auto version = cli({"--version"});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.out, "zandor-cli " ZANDOR_VERSION "\n");
    const auto appHelp = test::runProcess({ZANDOR_APP, "--help"});
    EXPECT_EQ(appHelp.exitCode, 0) << appHelp.err;
    EXPECT_EQ(appHelp.out.rfind("usage: zandor [--board BOARD] [--play] [PLUGIN...]\n", 0), 0u)
        << appHelp.out;
    EXPECT_EQ(test::runProcess({ZANDOR_APP, "--board", "demo", "--version"}).out,
              "zandor " ZANDOR_VERSION "\n");
    const auto appWrong = test::runProcess({ZANDOR_APP, "--bored", "demo"});
    EXPECT_EQ(appWrong.exitCode, 2);
    EXPECT_EQ(appWrong.err, "zandor: Unknown option --bored (see zandor --help)\n");
}

// Every command zandor-cli --help lists has its paragraph in the manual page, naming the same options.
TEST_F(CliTest, TheManualPageDescribesEveryCommandWithItsOptions) {
    const QString page = QString::fromUtf8(test::readFile(ZANDOR_SOURCE_DIR "/packaging/zandor-cli.1"))
                             .replace(QStringLiteral("\\-"), QStringLiteral("-"));
    const QRegularExpression option(QStringLiteral("--[a-z-]+"));
    const auto optionsIn = [&](const QString& text) {
        std::set<std::string> found;
        for (const auto& match : option.globalMatch(text)) {
            found.insert(match.captured().toStdString());
        }
        return found;
    };
    for (const std::string& command : listedCommands(cli({"--help"}).out)) {
        const QString heading = QStringLiteral(".TP\n\\fB%1\\fR").arg(QString::fromStdString(command));
        const qsizetype at = page.indexOf(heading);
        ASSERT_GE(at, 0) << command << " has no paragraph in the manual page";
        const QString paragraph = page.mid(at, page.indexOf(QStringLiteral("\n.TP\n"), at + 1) - at);
        // The usage lines alone: the description may mention options of other commands.
        const std::string help = cli({command, "--help"}).out;
        const QString usage = QString::fromStdString(help.substr(0, help.find("\n\n")));
        EXPECT_EQ(optionsIn(paragraph.section(u'\n', 1, 1)), optionsIn(usage)) << command;
    }
}

TEST_F(CliTest, AudioInputsSaysWhenTheMachineHasNone) {
    const auto result = cli({"audio-inputs"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, "board\tCapture board\n") << "the board's own sound is always there";
    EXPECT_NE(result.err.find("No audio inputs"), std::string::npos) << result.err;
}

TEST_F(CliTest, RecoverPutsTheMoviesIntoTheFolderGiven) {
    const QString bundle = m_home.path() + "/bundles/Capture 01_02_2026 10_00_00.zdrecord";
    ASSERT_TRUE(QDir().mkpath(bundle));
    ASSERT_TRUE(test::writeInterruptedMovie((bundle + "/VideoTop.mov").toStdString()));
    const auto result = cli({"recover", "--out", at("out folder"), bundle.toStdString()});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const std::string movie = at("out folder/Capture 01_02_2026 10_00_00.mp4");
    EXPECT_EQ(result.out, movie + "\n");
    EXPECT_EQ(test::streams(movie), QStringList{"h264,400,240"});
    EXPECT_TRUE(QDir(m_home.path() + "/bundles").isEmpty()) << "nothing is left beside the bundle";
}

} // namespace
} // namespace zandor
