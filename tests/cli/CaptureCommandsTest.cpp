#include "Process.h"

#include <gtest/gtest.h>

#include <QDir>
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
        QDir().mkpath(QString::fromStdString(out()));
    }

    static test::ProcessResult cli(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), ZANDOR_CLI);
        return runProcess(arguments);
    }

    std::string out() const { return (m_home.path() + "/shots folder").toStdString(); }
    QStringList files() const { return QDir(QString::fromStdString(out())).entryList(QDir::Files, QDir::Name); }

    static std::string probe(const std::string& file) {
        return runProcess({"/usr/bin/ffprobe", "-v", "error", "-show_entries", "stream=codec_name,width,height", "-of",
                           "csv=p=0", file})
            .out;
    }

    QTemporaryDir m_home;
};

TEST_F(CaptureCommandsTest, ScreenshotSavesTheChosenLayoutsAndPrintsTheFiles) {
    auto result = cli({"screenshot", "--board", "demo", "--out", out()});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    auto printed = splitLines(result.out);
    ASSERT_EQ(printed.size(), 1u);
    EXPECT_EQ(probe(printed[0]), "png,400,480\n") << "the first layout of the catalogue";

    result = cli({"screenshot", "--board", "demo", "--layout", "None", "--format", "JPEG", "--out", out()});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    printed = splitLines(result.out);
    ASSERT_EQ(printed.size(), 2u);
    std::sort(printed.begin(), printed.end(), [](const std::string& a, const std::string& b) {
        return a.find(" Top.jpg") != std::string::npos && b.find(" Top.jpg") == std::string::npos;
    });
    EXPECT_TRUE(QString::fromStdString(printed[0]).endsWith(" Top.jpg")) << printed[0];
    EXPECT_TRUE(QString::fromStdString(printed[1]).endsWith(" Bottom.jpg")) << printed[1];
    EXPECT_EQ(probe(printed[1]), "mjpeg,320,240\n");

    result = cli({"screenshot", "--board", "demo", "--layout", "Side by Side", "--out", out()});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(probe(splitLines(result.out).at(0)), "png,720,240\n");
    EXPECT_FALSE(QFileInfo::exists(m_home.path() + "/data/Zandor/preferences.plist")) << "settings are never written";
}

TEST_F(CaptureCommandsTest, ScreenshotRefusesUnknownLayoutsAndFolders) {
    for (const auto& arguments : std::vector<std::vector<std::string>>{
             {"screenshot", "--board", "demo", "--layout", "Sideways", "--out", out()},
             {"screenshot", "--board", "demo", "--out", out() + "/missing"},
             {"screenshot", "--board", "demo", "--format", "GIF", "--out", out()},
         }) {
        auto result = cli(arguments);
        EXPECT_NE(result.exitCode, 0);
        EXPECT_EQ(splitLines(result.err).size(), 1u) << result.err;
    }
    EXPECT_NE(cli({"screenshot", "--board", "demo", "--layout", "Sideways", "--out", out()}).err.find("Unknown layout 'Sideways'"),
              std::string::npos);
    EXPECT_TRUE(files().isEmpty());
}

} // namespace
} // namespace zandor
