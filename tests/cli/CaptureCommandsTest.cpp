#include "Process.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <cstdlib>

namespace zandor {
namespace {

using test::runProcess;
using test::splitLines;

class CaptureCommandsTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("XDG_DATA_HOME", qPrintable(m_home.path() + "/data"), 1);
        setenv("HOME", qPrintable(m_home.path()), 1);
        setenv("PULSE_SERVER", "unix:/nonexistent", 1);
        QDir().mkpath(out());
    }

    // Takes screenshots of the demo board into out() and gives the files it printed.
    std::vector<std::string> screenshot(const std::vector<std::string>& options) {
        std::vector<std::string> command = {ZANDOR_CLI, "screenshot", "--board",
                                            "demo",     "--out",      out().toStdString()};
        command.insert(command.end(), options.begin(), options.end());
        const auto result = runProcess(command);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return splitLines(result.out);
    }

    // Codec and size of a picture as ffprobe reads it.
    static std::string probe(const std::string& file) {
        return runProcess({"ffprobe", "-v", "error", "-show_entries", "stream=codec_name,width,height", "-of",
                           "csv=p=0", file})
            .out;
    }

    QString out() const { return m_home.path() + "/shots folder"; }

    QTemporaryDir m_home;
};

TEST_F(CaptureCommandsTest, ScreenshotSavesTheChosenLayoutsAndPrintsTheFiles) {
    auto printed = screenshot({});
    ASSERT_EQ(printed.size(), 1u);
    EXPECT_EQ(probe(printed[0]), "png,400,480\n") << "the first layout of the catalogue";

    EXPECT_EQ(probe(screenshot({"--layout", "Side by Side", "--format", "JPEG"}).at(0)), "mjpeg,720,240\n");
    EXPECT_FALSE(QFileInfo::exists(m_home.path() + "/data/Zandor/preferences.plist"))
        << "settings are never written";
}

// The screenshot and record commands share these checks, made before anything starts.
TEST_F(CaptureCommandsTest, ScreenshotRefusesUnknownLayoutsAndFolders) {
    QFile(m_home.path() + "/a file").open(QIODevice::WriteOnly);
    for (const auto& [options, message] : std::vector<std::pair<std::vector<std::string>, std::string>>{
             {{"--layout", "Sideways", "--out", out().toStdString()}, "Unknown layout 'Sideways'"},
             {{"--out", out().toStdString() + "/missing"}, "Cannot write to the folder"},
             {{"--out", m_home.path().toStdString() + "/a file"}, ": it is not a folder"},
             {{"--format", "GIF", "--out", out().toStdString()}, "GIF"}}) {
        std::vector<std::string> command = {ZANDOR_CLI, "screenshot", "--board", "demo"};
        command.insert(command.end(), options.begin(), options.end());
        const auto result = runProcess(command);
        EXPECT_NE(result.exitCode, 0);
        EXPECT_EQ(splitLines(result.err).size(), 1u) << result.err;
        EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
    }
    EXPECT_TRUE(QDir(out()).entryList(QDir::Files).isEmpty());
}

// A canvas of the largest size takes longer to save than a board is given to send its first frame:
// the screenshot is still made, and no missing frame is blamed.
TEST_F(CaptureCommandsTest, TheLargestCanvasIsSavedWithoutBlamingTheBoard) {
    const QString bundle = m_home.path() + "/data/Zandor/Plugins/Largest.zdplugin";
    QDir().mkpath(bundle);
    QFile descriptor(bundle + "/plugin.xml");
    ASSERT_TRUE(descriptor.open(QIODevice::WriteOnly));
    descriptor.write(R"(<ZandorLayout><name>Largest</name><importance>1</importance>
        <size width="16384" height="16384" resizable="true"/>
        <object type="screen" x="0" y="0" screen="top"/></ZandorLayout>)");
    descriptor.close();
    const auto result = runProcess(
        {ZANDOR_CLI, "screenshot", "--board", "demo", "--layout", "Largest", "--out", out().toStdString()},
        std::chrono::seconds(300));
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.err.find("no frame came"), std::string::npos) << result.err;
    ASSERT_EQ(splitLines(result.out).size(), 1u);
    // ffprobe declines a picture this large; its PNG header says the size.
    QFile png(QString::fromStdString(splitLines(result.out)[0]));
    ASSERT_TRUE(png.open(QIODevice::ReadOnly));
    EXPECT_EQ(png.read(24).mid(12).toHex(), "4948445200004000"
                                            "00004000")
        << "IHDR, 16384 by 16384";
}

} // namespace
} // namespace zandor
