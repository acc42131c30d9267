#include "settings/PreferencesController.h"

#include "Plist.h"
#include "UserFolders.h"
#include "base/AppPaths.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTimeZone>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace zandor {
namespace {

// Before anything reads them: temporary user folders, and no sound server, so that there is
// deterministically no default audio input.
const QString home = test::isolateUserFolders();

std::string compact(const QJsonArray& array) {
    return QJsonDocument(array).toJson(QJsonDocument::Compact).toStdString();
}

// The file as written on the first change after a start without a file, with `changes` applied.
QJsonArray defaultFile(const QJsonObject& changes = {}) {
    QJsonArray entries{
        QJsonArray{PreferenceFirstRun, true},
        QJsonArray{PreferenceFullscreenScreen, ""},
        QJsonArray{PreferenceFullscreenHudEnabled, true},
        QJsonArray{PreferenceFullscreenMaxScale, QJsonObject{{"integer", 0}}},
        QJsonArray{PreferenceCaptureStorageFolder, AppPaths::desktopFolder()},
        QJsonArray{PreferenceCaptureLayout, "Active Layout"},
        QJsonArray{PreferenceCaptureVideoFPS, "Original"},
        QJsonArray{PreferenceCaptureVideoQuality, "Medium"},
        QJsonArray{PreferenceCaptureNarratorAudioInput, "None"},
        QJsonArray{PreferenceCaptureImageFormat, "PNG"},
    };
    for (qsizetype i = 0; i < entries.size(); ++i) {
        const QString key = entries[i].toArray()[0].toString();
        if (changes.contains(key)) {
            entries[i] = QJsonArray{key, changes[key]};
        }
    }
    return entries;
}

class PreferencesStore : public testing::Test {
protected:
    QString path() const { return m_dir.path() + "/preferences.plist"; }

    void writeFile(const QByteArray& contents) {
        QFile file(path());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(contents);
    }
    QByteArray readFile() const {
        QFile file(path());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    QStringList filesInFolder() const {
        return QDir(m_dir.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    }
    std::string readWithPython() const { return test::plistAsJson(path()); }

    QTemporaryDir m_dir;
};

TEST_F(PreferencesStore, FirstStartGivesTheDefaultsAndWritesNothing) {
    // The defaults' values and types show in the files the other tests compare with defaultFile().
    PreferencesController store(path());
    EXPECT_EQ(store.preference(PreferenceFirstRun), QVariant(true));
    EXPECT_EQ(store.preference(PreferenceCaptureStorageFolder), QVariant(home + "/Desktop"));
    EXPECT_FALSE(store.preference(PreferenceCaptureGameAudioInput).isValid()) << "no sound server, no default";
    EXPECT_TRUE(store.load());
    EXPECT_TRUE(filesInFolder().isEmpty());

    EXPECT_EQ(PreferencesController::preferencesFile(), home + "/data/Zandor/preferences.plist");
    EXPECT_EQ(PreferencesController::instance().file(), PreferencesController::preferencesFile());
    EXPECT_FALSE(QFileInfo::exists(home + "/data/Zandor"));
}

TEST_F(PreferencesStore, FileEntriesOverlayTheDefaultsAndEveryChangeWritesAllKeys) {
    writeFile(R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict><key>PreferenceCaptureImageFormat</key><string>JPEG</string></dict></plist>)");
    const QByteArray original = readFile();
    PreferencesController store(path());
    EXPECT_EQ(store.preference(PreferenceCaptureImageFormat), QVariant(QString("JPEG")));
    EXPECT_EQ(store.preference(PreferenceCaptureVideoQuality), QVariant(QString("Medium")));
    EXPECT_EQ(readFile(), original) << "nothing is written at start";

    store.setPreference(PreferenceFirstRun, false);
    EXPECT_EQ(readWithPython(),
              compact(defaultFile({{PreferenceFirstRun, false}, {PreferenceCaptureImageFormat, "JPEG"}})));
    store.setPreference(PreferenceFullscreenMaxScale, 3); // an int, as a spin box gives it
    store.setPreference(PreferenceFullscreenScreen, QString("HDMI-1 \"Büro\" <&>"));
    EXPECT_EQ(filesInFolder(), QStringList{"preferences.plist"}) << "no temporary file is left behind";

    PreferencesController restarted(path());
    EXPECT_EQ(restarted.preference(PreferenceFirstRun), QVariant(false));
    EXPECT_EQ(restarted.preference(PreferenceFullscreenMaxScale), QVariant(qint64(3)));
    EXPECT_EQ(store.preference(PreferenceFullscreenMaxScale), QVariant(qint64(3)))
        << "same type before a restart";
    EXPECT_EQ(restarted.preference(PreferenceFullscreenScreen), QVariant(QString("HDMI-1 \"Büro\" <&>")));
}

TEST_F(PreferencesStore, UnknownKeysOfAnyTypeSurviveRewrites) {
    writeFile(R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
  <key>WindowState</key>
  <dict>
    <key>frame</key><array><integer>-12</integer><real>2.5</real><string>left</string></array>
    <key>saved</key><date>2024-03-01T12:30:00Z</date>
    <key>thumbnail</key><data>AAEC/w==</data>
    <key>visible</key><false/>
    <key>nested</key><dict><key>depth</key><integer>2</integer></dict>
  </dict>
  <key>PreferenceCaptureLayout</key><string>Top Only</string>
  <key>Ratio</key><real>0.75</real>
</dict></plist>)");
    PreferencesController store(path());
    const QVariantMap window = store.preference("WindowState").toMap();
    EXPECT_EQ(window["frame"].toList(), (QVariantList{qint64(-12), 2.5, QString("left")}));
    EXPECT_EQ(window["saved"].toDateTime(), QDateTime(QDate(2024, 3, 1), QTime(12, 30), QTimeZone::utc()));
    EXPECT_EQ(window["thumbnail"].toByteArray(), QByteArray("\x00\x01\x02\xff", 4));
    EXPECT_EQ(window["visible"], QVariant(false));

    store.setPreference(PreferenceCaptureVideoFPS, QString("30"));
    store.setPreference("Recent", QVariantMap{{"files", QStringList{"a.mov", "b.mov"}},
                                              {"when", QDateTime(QDate(2000, 12, 31), QTime(23, 59, 59, 500),
                                                                 QTimeZone::utc())},
                                              {"empty", QByteArray()}});
    store.setPreference(PreferenceCaptureVideoQuality, QString("High"));

    QJsonArray expected = defaultFile({{PreferenceCaptureLayout, "Top Only"},
                                       {PreferenceCaptureVideoFPS, "30"},
                                       {PreferenceCaptureVideoQuality, "High"}});
    expected.append(QJsonArray{
        "WindowState",
        QJsonObject{{"frame", QJsonArray{QJsonObject{{"integer", -12}}, QJsonObject{{"real", 2.5}}, "left"}},
                    {"saved", QJsonObject{{"date", "2024-03-01T12:30:00"}}},
                    {"thumbnail", QJsonObject{{"data", "000102ff"}}},
                    {"visible", false},
                    {"nested", QJsonObject{{"depth", QJsonObject{{"integer", 2}}}}}}});
    expected.append(QJsonArray{"Ratio", QJsonObject{{"real", 0.75}}});
    expected.append(QJsonArray{"Recent", QJsonObject{{"files", QJsonArray{"a.mov", "b.mov"}},
                                                     {"when", QJsonObject{{"date", "2000-12-31T23:59:59"}}},
                                                     {"empty", QJsonObject{{"data", ""}}}}});
    EXPECT_EQ(readWithPython(), compact(expected));
}

TEST_F(PreferencesStore, AMalformedFileKeepsTheDefaultsAndIsReplacedWholeAtTheFirstChange) {
    const QByteArray malformed[] = {
        "",
        "not a property list",
        R"(<?xml version="1.0"?><plist version="1.0"><dict><key>PreferenceCaptureImageFormat</key><string>JPEG)",
        R"(<?xml version="1.0"?><plist version="1.0"><array><string>JPEG</string></array></plist>)",
        QByteArray("\xff\xfe\x00<plist>\x00\x01", 12),
    };
    for (const QByteArray& contents : malformed) {
        SCOPED_TRACE(contents.toStdString());
        writeFile(contents);
        PreferencesController store(path());
        EXPECT_FALSE(store.load());
        EXPECT_EQ(store.preference(PreferenceCaptureImageFormat), QVariant(QString("PNG")));
        EXPECT_EQ(readFile(), contents) << "the bad file stays until the next change";

        store.setPreference(PreferenceCaptureLayout, QString("Side by Side"));
        EXPECT_EQ(readWithPython(), compact(defaultFile({{PreferenceCaptureLayout, "Side by Side"}})));
    }
}

TEST_F(PreferencesStore, AnInvalidValueRemovesTheKeyFromMemoryAndFile) {
    PreferencesController store(path());
    store.setPreference(PreferenceCaptureNarratorAudioInput, QVariant());
    EXPECT_FALSE(store.preference(PreferenceCaptureNarratorAudioInput).isValid()) << "not its default";
    QJsonArray expected = defaultFile();
    expected.removeAt(8);
    EXPECT_EQ(readWithPython(), compact(expected));

    store.setPreference(PreferenceCaptureNarratorAudioInput, QString("Mic"));
    expected.append(QJsonArray{PreferenceCaptureNarratorAudioInput, "Mic"});
    EXPECT_EQ(readWithPython(), compact(expected)) << "a key set again goes to the end";
}

TEST_F(PreferencesStore, AWriteIntoAMissingFolderFailsSilentlyAndCreatesNothing) {
    const QString folder = m_dir.path() + "/Zandor";
    PreferencesController store(folder + "/preferences.plist");
    store.setPreference(PreferenceCaptureImageFormat, QString("JPEG"));
    EXPECT_EQ(store.preference(PreferenceCaptureImageFormat), QVariant(QString("JPEG")));
    EXPECT_FALSE(store.store());
    EXPECT_FALSE(QFileInfo::exists(folder));
}

TEST_F(PreferencesStore, AReaderOnAnotherThreadAlwaysSeesAWholeValue) {
    PreferencesController store(path());
    std::atomic<bool> done = false;
    std::atomic<int> torn = 0;
    std::thread reader([&] {
        while (!done) {
            const QString format = store.preference(PreferenceCaptureImageFormat).toString();
            torn += format != "PNG" && format != "JPEG";
        }
    });
    for (int i = 0; i < 100; ++i) {
        store.setPreference(PreferenceCaptureImageFormat, QString(i % 2 ? "PNG" : "JPEG"));
    }
    done = true;
    reader.join();
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(readWithPython(), compact(defaultFile()));
}

} // namespace
} // namespace zandor
