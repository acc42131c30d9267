// zandor-cli as a user runs it, with its user folders in a temporary place and no sound server.

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
#include <QTemporaryDir>

#include <cmath>
#include <cstdlib>
#include <cstring>

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
                          "version: 6\nSound: yes\n");
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
        return printed.size() != 1
                   ? result.out
                   : test::runProcess({"ffprobe", "-v", "error", "-show_entries",
                                       "stream=codec_name,width,height", "-of", "csv=p=0", printed[0]})
                         .out;
    };
    EXPECT_EQ(probe(cli({"screenshot", "--board", "demo", "--out", at("out folder")})), "png,400,480\n")
        << "the first layout of the catalogue";
    EXPECT_EQ(probe(cli({"screenshot", "--board", "demo", "--out", at("out folder"), "--layout",
                         "Side by Side", "--format", "JPEG"})),
              "mjpeg,720,240\n");
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
             {{"frobnicate"}, "unknown command 'frobnicate'"},
             {{"dump", "--bored", "demo"}, "Unknown option --bored"},
             {{"dump", "--board"}, "Option --board needs a value"},
             {{"layouts", "--json=yes"}, "Option --json takes no value"},
             {{"dump", "--board", "demo", "--frames", "0", "--out", raw}, "--frames"},
             {{"dump", "--board", "demo", "--frames", "1"}, "--out"},
             {{"dump", "--board", "Demo", "--frames", "1", "--out", raw},
              "Unknown board 'Demo': use usb, demo or replay:FILE"},
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
        EXPECT_EQ(splitLines(result.err).size(), 1u) << result.err;
        EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
        EXPECT_TRUE(result.out.empty()) << result.out;
    }
    EXPECT_TRUE(QDir(QString::fromStdString(out)).isEmpty()) << "a failed command left a file";
}

} // namespace
} // namespace zandor
