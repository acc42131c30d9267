#include "UserFolders.h"
#include "base/Log.h"
#include "recording/AudioRecord.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QTemporaryDir>
#include <QThread>

namespace zandor {
namespace {

class AudioRecordTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::isolateUserFolders();
        m_thread.start();
    }
    void TearDown() override {
        m_thread.quit();
        m_thread.wait();
    }

    QThread m_thread;
    QTemporaryDir m_bundle;
};

TEST_F(AudioRecordTest, NoInputChosenRecordsNothingAndSaysSo) {
    for (const QString& choice : {QStringLiteral("None"), QString()}) {
        LogCapture log;
        AudioRecord game(QStringLiteral("Game"), &m_thread);
        EXPECT_TRUE(game.start(choice, m_bundle.path(), true));
        EXPECT_FALSE(game.isRecording());
        EXPECT_EQ(log.lines(), std::vector<std::string>{"No audio device selected for 'Game'"});
        EXPECT_FALSE(game.stop());
        EXPECT_EQ(log.lines().size(), 1u) << "stopping an idle record logs nothing";
    }
    EXPECT_TRUE(QDir(m_bundle.path()).isEmpty());
}

TEST_F(AudioRecordTest, AnInputThatIsGoneFailsToStart) {
    LogCapture log;
    AudioRecord narrator(QStringLiteral("Narrator"), &m_thread);
    EXPECT_FALSE(narrator.start(QStringLiteral("unplugged-microphone"), m_bundle.path(), false));
    EXPECT_FALSE(narrator.isRecording());
    EXPECT_EQ(log.count("Could not construct connection of audio recording session"), 1u);
    EXPECT_EQ(narrator.path(), m_bundle.path() + "/AudioNarrator.mov");
    EXPECT_TRUE(QDir(m_bundle.path()).isEmpty());
}

} // namespace
} // namespace zandor
