// A recording's folder: named after its second and numbered when that is taken, held by one
// recorder at a time, and telling a recovery what the recording was started with.

#include "Files.h"
#include "recording/NumberedName.h"
#include "recording/RecordingBundle.h"

#include <gtest/gtest.h>

#include <QFileInfo>
#include <QTemporaryDir>

#include <cerrno>

namespace zandor {
namespace {

const QString Stamp = QStringLiteral("01_02_2026 03_04_05");

TEST(RecordingBundleTest, ASecondTakenByABundleOrAMovieIsNumbered) {
    QTemporaryDir folder;
    const QString stem = folder.path() + "/Capture " + Stamp;
    const auto nothingTaken = [](const QString&) { return false; };
    RecordingBundle first, second, third;
    ASSERT_FALSE(first.create(folder.path(), Stamp, nothingTaken));
    EXPECT_EQ(first.path(), stem + ".zdrecord");
    EXPECT_EQ(first.basePath(), stem);
    ASSERT_FALSE(second.create(folder.path(), Stamp, nothingTaken));
    EXPECT_EQ(second.path(), stem + " 2.zdrecord");
    // A finished movie of the third number is there: its bundle takes the fourth.
    ASSERT_FALSE(
        third.create(folder.path(), Stamp, [&](const QString& base) { return base == stem + " 3"; }));
    EXPECT_EQ(third.path(), stem + " 4.zdrecord");

    ASSERT_TRUE(test::writeFile(folder.path() + "/Replay.mp4"));
    ASSERT_TRUE(test::writeFile(folder.path() + "/Replay 2.mp4"));
    EXPECT_EQ(NumberedName::file(folder.path() + "/Replay", "mp4"), folder.path() + "/Replay 3.mp4");
    EXPECT_EQ(NumberedName::file(folder.path() + "/Other", "mp4"), folder.path() + "/Other.mp4");
    EXPECT_EQ(NumberedName::first("x", [](const QString&) { return true; }), "x 99")
        << "the last number tried";
}

TEST(RecordingBundleTest, AHeldBundleIsNeitherAbandonedNorHeldTwiceNorMarkedUnrecoverable) {
    QTemporaryDir folder;
    RecordingBundle recording;
    ASSERT_FALSE(recording.create(folder.path(), Stamp, [](const QString&) { return false; }));
    ASSERT_FALSE(recording.lock());
    EXPECT_TRUE(RecordingBundle::abandoned(folder.path()).isEmpty());
    RecordingBundle other;
    ASSERT_FALSE(other.open(recording.path()));
    EXPECT_EQ(other.lock().systemCode(), EWOULDBLOCK) << "held by the recording";
    // A recording that has just begun holds a header alone, as one cut off at once does.
    EXPECT_EQ(RecordingBundle::markUnrecoverable(recording.path()).systemCode(), EWOULDBLOCK);
    EXPECT_FALSE(RecordingBundle::isUnrecoverable(recording.path()));
    recording.unlock();
    EXPECT_EQ(RecordingBundle::abandoned(folder.path()), QStringList{recording.path()});
    EXPECT_FALSE(other.lock());
    EXPECT_TRUE(RecordingBundle().open(folder.path())) << "not named *.zdrecord";
}

TEST(RecordingBundleTest, TheChoicesAreReadBackAndMoviesNameTheirLayoutsWithoutThem) {
    QTemporaryDir folder;
    RecordingBundle bundle;
    ASSERT_FALSE(bundle.create(folder.path(), Stamp, [](const QString&) { return false; }));
    EXPECT_FALSE(bundle.readChoices()) << "none written yet";
    for (const char* movie : {"VideoTop.mov", "VideoSide by Side.mov", "AudioGame.mov", "Videox.mp4"}) {
        ASSERT_TRUE(test::writeFile(bundle.path() + "/" + movie));
    }
    EXPECT_EQ(bundle.movieLayouts(), (QStringList{"Side by Side", "Top"}));

    const RecordingBundle::Choices choices{{"Top", "Dou/ble"}, "30", "High"};
    ASSERT_FALSE(bundle.writeChoices(choices));
    const auto read = bundle.readChoices();
    ASSERT_TRUE(read);
    EXPECT_EQ(read->layouts, choices.layouts);
    EXPECT_EQ(read->framesPerSecond, "30");
    EXPECT_EQ(read->videoQuality, "High");
}

} // namespace
} // namespace zandor
