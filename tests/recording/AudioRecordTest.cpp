#include "Media.h"
#include "PulseServer.h"
#include "UserFolders.h"
#include "base/Log.h"
#include "recording/AudioRecord.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>
#include <QThread>

namespace zandor {
namespace {

// The audio inputs of a private sound server ("GameIn", "NarratorIn"), started after the user folders
// are isolated, which would otherwise hide it.
class AudioRecordTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::isolateUserFolders();
        m_pulse = std::make_unique<test::PulseServer>();
        ASSERT_TRUE(m_pulse->isRunning()) << m_pulse->error();
        m_thread.start();
    }
    void TearDown() override {
        m_thread.quit();
        m_thread.wait();
    }

    std::unique_ptr<test::PulseServer> m_pulse;
    QThread m_thread;
    QTemporaryDir m_bundle;
};

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
