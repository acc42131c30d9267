#include "Files.h"
#include "settings/CaptureSettings.h"
#include "settings/Settings.h"
#include "settings/PreferencesController.h"

#include "Plist.h"
#include "UserFolders.h"
#include "base/Log.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace zandor {
namespace {

// Before anything reads them: temporary user folders, and no sound server, so that there is
// deterministically no default audio input.
const QString home = test::isolateUserFolders();

class PreferencesStore : public testing::Test {
protected:
    QString path() const { return m_dir.path() + "/preferences.plist"; }

    void writeFile(const QByteArray& contents) { ASSERT_TRUE(test::writeFile(path(), contents)); }
    QByteArray readFile() const { return test::readFile(path()); }
    QStringList filesInFolder() const {
        return QDir(m_dir.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    }
    // The file's [key, value] entries in file order, as an independent parser reads them.
    QJsonArray entries() const { return test::plistEntries(path()); }
    QJsonValue entry(const QString& key) const { return test::plistEntry(path(), key); }

    QTemporaryDir m_dir;
};

TEST_F(PreferencesStore, FirstStartGivesTheDefaultsAndTheFirstChangeWritesThemAll) {
    PreferencesController store(path());
    EXPECT_EQ(store.preference(settings::gameAudioInput.key), QVariant(QString("board")));
    EXPECT_TRUE(store.load());
    EXPECT_TRUE(filesInFolder().isEmpty());
    EXPECT_EQ(PreferencesController::preferencesFile(), home + "/data/Zandor/preferences.plist");
    EXPECT_FALSE(QFileInfo::exists(home + "/data/Zandor"));

    EXPECT_EQ(store.preference(settings::fullscreenScreen.key), QVariant(QString("")));
    // The 3D picture is off until asked for: a microphone-free, flat default like the others absent here.
    EXPECT_FALSE(settings::capture3D.read(store));
    EXPECT_FALSE(CaptureSettings::fromPreferences(store).capture3D);
    store.setPreference(settings::fullscreenScreen.key, QString("HDMI-1"));
    const QJsonArray expected{
        QJsonArray{settings::firstRun.key, true},
        QJsonArray{settings::fullscreenScreen.key, "HDMI-1"},
        QJsonArray{settings::fullscreenHudEnabled.key, true},
        QJsonArray{settings::fullscreenMaxScale.key, QJsonObject{{"integer", 0}}},
        QJsonArray{settings::storageFolder.key, home + "/Desktop"},
        QJsonArray{settings::captureLayout.key, "Active Layout"},
        QJsonArray{settings::videoFramesPerSecond.key, "Original"},
        QJsonArray{settings::videoQuality.key, "Medium"},
        QJsonArray{settings::gameAudioInput.key, "board"},
        QJsonArray{settings::narratorAudioInput.key, "None"},
        QJsonArray{settings::imageFormat.key, "PNG"},
    };
    EXPECT_EQ(entries(), expected);
    EXPECT_EQ(filesInFolder(), QStringList{"preferences.plist"}) << "no temporary file is left behind";
}

// The file's entries overlay the defaults. A change rewrites them all: the keys the application does
// not know (of any type, as deep as allowed: the top dictionary and 63 arrays) as read, after the
// known ones in the order they came. A restart reads the same values back.
TEST_F(PreferencesStore, FileEntriesOverlayTheDefaultsAndSurviveRewritesAndRestarts) {
    writeFile(R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>
  <key>WindowState</key>
  <dict>
    <key>frame</key><array><integer>-12</integer><real>2.5</real><string>left</string></array>
    <key>saved</key><date>2024-03-01T12:30:00Z</date>
    <key>thumbnail</key><data>AAEC/w==</data>
    <key>visible</key><false/>
  </dict>
  <key>PreferenceCaptureImageFormat</key><string>JPEG</string>
  <key>Deep</key>)" +
              QByteArray("<array>").repeated(63) + QByteArray("</array>").repeated(63) +
              "<key>Ratio</key><real>0.75</real></dict></plist>");
    const QByteArray original = readFile();
    QJsonArray unknown = entries();
    unknown.removeAt(1);
    PreferencesController store(path());
    EXPECT_EQ(store.preference(settings::imageFormat.key), QVariant(QString("JPEG")));
    EXPECT_EQ(store.preference(settings::videoQuality.key), QVariant(QString("Medium")));
    EXPECT_EQ(readFile(), original) << "nothing is written at start";

    store.setPreference(settings::fullscreenMaxScale.key, 3); // an int, as a spin box gives it
    store.setPreference(settings::fullscreenScreen.key, QString("HDMI-1 \"Büro\" <&>"));
    QJsonArray written = entries();
    ASSERT_EQ(written.size(), 14) << "the eleven known keys, then the three unknown";
    EXPECT_EQ(entry(settings::imageFormat.key), "JPEG");
    EXPECT_EQ(entry(settings::fullscreenMaxScale.key), (QJsonObject{{"integer", 3}}));
    for (int known = 0; known < 11; ++known) {
        written.removeFirst();
    }
    EXPECT_EQ(written, unknown);

    PreferencesController restarted(path());
    EXPECT_EQ(restarted.preference(settings::imageFormat.key), QVariant(QString("JPEG")));
    EXPECT_EQ(restarted.preference(settings::fullscreenMaxScale.key), QVariant(qint64(3)));
    EXPECT_EQ(store.preference(settings::fullscreenMaxScale.key), QVariant(qint64(3)))
        << "same type before a restart";
    EXPECT_EQ(restarted.preference(settings::fullscreenScreen.key), QVariant(QString("HDMI-1 \"Büro\" <&>")));
}

// zandor-cli reads the store and overrides settings for its run: nothing reaches the disk, not
// even the moving aside of a file that cannot be used.
TEST_F(PreferencesStore, AReadOnlyStoreKeepsChangesInMemoryAndNeverWrites) {
    for (const QByteArray& contents :
         {QByteArray(), QByteArray(R"(<?xml version="1.0"?><plist version="1.0"><dict>
<key>PreferenceCaptureImageFormat</key><string>JPEG</string></dict></plist>)"),
          QByteArray("not a property list")}) {
        QFile::remove(path());
        QFile::remove(path() + ".bad");
        if (!contents.isNull()) {
            writeFile(contents);
        }
        PreferencesController store(path());
        store.setReadOnly(true);
        store.setPreference(settings::captureLayout.key, QString("Top"));
        store.setPreference(settings::narratorAudioInput.key, QVariant());
        EXPECT_EQ(store.preference(settings::captureLayout.key), QVariant(QString("Top")));
        EXPECT_EQ(filesInFolder(), contents.isNull() ? QStringList() : QStringList{"preferences.plist"});
        EXPECT_EQ(readFile(), contents);
    }
}

// What the preferences file holds: `text`, or a `special` file: "fifo", or the file the preferences
// are a link to.
struct UnusableFile {
    const char* name;
    QByteArray text;
    const char* special = nullptr;
};

class UnusableFileTest : public PreferencesStore, public testing::WithParamInterface<UnusableFile> {};

TEST_P(UnusableFileTest, KeepsTheDefaultsSaysWhyAndIsKeptAsideWhenTheFirstChangeReplacesIt) {
    const UnusableFile& file = GetParam();
    const QByteArray& before = file.text;
    if (file.special && file.special == std::string_view("fifo")) {
        mkfifo(qPrintable(path()), 0600);
    } else if (file.special && file.special == std::string_view("link to a fifo")) {
        // Inside the test's own folder: a fault that writes through the link harms nothing else.
        mkfifo(qPrintable(m_dir.path() + "/pipe"), 0600);
        QFile::link(m_dir.path() + "/pipe", path());
    } else {
        writeFile(before);
    }
    LogCapture log;
    PreferencesController store(path());
    EXPECT_EQ(store.preference(settings::imageFormat.key), QVariant(QString("PNG")));
    EXPECT_EQ(log.countPrefix("The preferences file " + path().toStdString() + " cannot be used ("), 1u);
    EXPECT_FALSE(QFileInfo::exists(path() + ".bad")) << "nothing moves before a change";

    store.setPreference(settings::captureLayout.key, QString("Side by Side"));
    EXPECT_EQ(entry(settings::captureLayout.key), "Side by Side");
    EXPECT_EQ(entries().size(), 11) << "the defaults and nothing of the unusable file";
    const QFileInfo aside(path() + ".bad");
    EXPECT_TRUE(aside.exists() || aside.isSymLink());
    EXPECT_TRUE(file.special || test::readFile(aside.filePath()) == before)
        << "the file kept aside is the user's, byte for byte";
}

INSTANTIATE_TEST_SUITE_P(
    Files, UnusableFileTest,
    testing::Values(UnusableFile{"Empty", ""}, UnusableFile{"NotXml", "not a property list"},
                    // Nested too deep for the parser's stack.
                    UnusableFile{"Nested100000Deep",
                                 "<plist><dict><key>A</key>" + QByteArray("<array>").repeated(100000) +
                                     QByteArray("</array>").repeated(100000) + "</dict></plist>"},
                    // libplist keeps a NUL byte in a string and aborts when it is read out.
                    UnusableFile{"NulInAString",
                                 QByteArray(R"(<plist version="1.0"><dict><key>A</key><string>x)") + '\0' +
                                     "y</string></dict></plist>"},
                    UnusableFile{"NamedPipe", {}, "fifo"},
                    UnusableFile{"LinkToANamedPipe", {}, "link to a fifo"}),
    [](const auto& info) { return std::string(info.param.name); });

// A file that cannot be written (its folder missing, a link to nowhere): the change holds in
// memory, and the first failure after a handler is set is handed to it once, with why.
TEST_F(PreferencesStore, AFailedWriteKeepsTheChangeAndIsReportedOnce) {
    const QString missingFolder = m_dir.path() + "/Zandor";
    ASSERT_TRUE(QFile::link(m_dir.path() + "/gone/preferences.plist", path()));
    for (const QString& file : {missingFolder + "/preferences.plist", path()}) {
        PreferencesController store(file);
        QStringList reported;
        store.setWriteFailureHandler(
            [&reported](const Error& failure) { reported << QString::fromStdString(failure.cause()); });
        LogCapture log;
        store.setPreference(settings::imageFormat.key, QString("JPEG"));
        store.setPreference(settings::videoFramesPerSecond.key, QString("30"));
        EXPECT_EQ(store.preference(settings::imageFormat.key), QVariant(QString("JPEG")));
        ASSERT_EQ(reported.size(), 1) << file.toStdString();
        EXPECT_FALSE(reported[0].isEmpty());
        EXPECT_EQ(log.countPrefix("Could not write the preferences file " + file.toStdString() + " ("), 1u);
    }
    EXPECT_FALSE(QFileInfo::exists(missingFolder)) << "the store makes no folder";
}

} // namespace
} // namespace zandor
