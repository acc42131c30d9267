#include "Media.h"
#include "PulseServer.h"
#include "UserFolders.h"
#include "base/Log.h"
#include "recording/AudioRecord.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>

namespace zandor {
namespace {

// The audio inputs of a private sound server ("GameIn", "NarratorIn"). One for the whole suite: Qt's
// audio devices stay with the server they first met, also when the tests run in one process.
class AudioRecordTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        test::isolateUserFolders(); // before the server, which it would otherwise hide
        s_pulse = new test::PulseServer;
    }
    static void TearDownTestSuite() {
        delete s_pulse;
        s_pulse = nullptr;
    }
    void SetUp() override {
        ASSERT_TRUE(s_pulse->isRunning()) << s_pulse->error();
        m_thread.start();
    }
    void TearDown() override {
        m_thread.quit();
        m_thread.wait();
    }

    static inline test::PulseServer* s_pulse = nullptr;
    QThread m_thread;
    QTemporaryDir m_bundle;
};

TEST_F(AudioRecordTest, NoInputChosenRecordsNothingAndSaysSo) {
    for (const QString& choice : {QStringLiteral("None"), QString()}) {
        LogCapture log;
        AudioRecord game(QStringLiteral("Game"), &m_thread);
        EXPECT_TRUE(game.start(choice, m_bundle.path(), true));
        EXPECT_FALSE(game.isRecording());
        EXPECT_FALSE(game.stop());
        EXPECT_EQ(log.lines(), std::vector<std::string>{"No audio device selected for 'Game'"})
            << "stopping an idle record logs nothing";
    }
    EXPECT_TRUE(QDir(m_bundle.path()).isEmpty());
}

// A finished file is reported, and one that cannot be written (a full disk) makes stop() say so,
// which the video recorder turns into its message.
TEST_F(AudioRecordTest, StopSaysWhetherTheFileCouldBeFinished) {
    const test::PulseServer::Playback game("game_sink", 440, 0, 10);
    QTemporaryDir full;
    ASSERT_TRUE(QFile::link("/dev/full", full.path() + "/AudioGame.mov"));
    for (const auto& [folder, finished] : {std::pair{m_bundle.path(), true}, {full.path(), false}}) {
        LogCapture log;
        AudioRecord record(QStringLiteral("Game"), &m_thread);
        ASSERT_TRUE(record.start(QStringLiteral("GameIn"), folder, true));
        EXPECT_EQ(record.path(), folder + "/AudioGame.mov");
        EXPECT_EQ(record.stop(), finished);
        EXPECT_FALSE(record.isRecording());
        EXPECT_EQ(log.count("Done"), finished ? 1u : 0u);
        EXPECT_EQ(log.count("Could not finish audio recording session"), finished ? 0u : 1u);
    }
    const auto probed = test::probe((m_bundle.path() + "/AudioGame.mov").toStdString(), {"-show_streams"});
    EXPECT_EQ(test::streamWith(probed, "codec_type", "audio")["codec_name"], "aac");
}

} // namespace
} // namespace zandor
