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

#include <cstdlib>

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

TEST_F(CliTest, DumpWritesTheDemoBoardsFramesAndReplaysThemInALoop) {
    auto result = cli({"dump", "--board", "demo", "--frames", "2", "--out", at("demo frames.raw")});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const QByteArray bytes = test::readFile(QString::fromStdString(at("demo frames.raw")));
    QByteArray expected(2 * raw::FrameBytes, '\0');
    for (uint64_t n = 0; n < 2; ++n) {
        DemoBoard::render(n, reinterpret_cast<uint8_t*>(expected.data()) + n * raw::FrameBytes);
    }
    EXPECT_TRUE(bytes == expected) << "not the demo board's first two frames";

    result = cli(
        {"dump", "--board", "replay:" + at("demo frames.raw"), "--frames", "3", "--out", at("again.raw")});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_TRUE(test::readFile(QString::fromStdString(at("again.raw"))) ==
                bytes + bytes.left(raw::FrameBytes))
        << "the two frames, then from the first again";
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
