#include "PluginBundles.h"
#include "Process.h"

#include <gtest/gtest.h>

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <cstdlib>

namespace zandor {
namespace {

using test::runProcess;
using test::splitLines;

// Runs zandor-cli with its user folders in a temporary place.
class LayoutsCommandTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("XDG_DATA_HOME", qPrintable(m_home.path() + "/data"), 1);
        setenv("HOME", qPrintable(m_home.path()), 1);
    }

    QString userFolder() const { return m_home.path() + "/data/Zandor/Plugins"; }

    QTemporaryDir m_home;
};

TEST_F(LayoutsCommandTest, ListsTheApplicationLayoutsThenTheScreenLayouts) {
    auto result = runProcess({ZANDOR_CLI, "layouts", "--json"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    QJsonParseError error;
    auto entries = QJsonDocument::fromJson(QByteArray::fromStdString(result.out), &error).array();
    ASSERT_EQ(error.error, QJsonParseError::NoError) << result.out;
    ASSERT_GE(entries.size(), 6) << "four application layouts at least, and Top and Bottom";

    const auto first = entries[0].toObject();
    EXPECT_EQ(first["width"].toInt(), 400);
    EXPECT_EQ(first["height"].toInt(), 480);
    EXPECT_EQ(first["origin"].toString(), "application");
    bool sideBySide = false;
    for (qsizetype i = 1; i < entries.size() - 2; ++i) {
        EXPECT_GE(entries[i - 1].toObject()["importance"].toInteger(),
                  entries[i].toObject()["importance"].toInteger());
        sideBySide |=
            entries[i].toObject()["width"].toInt() == 720 && entries[i].toObject()["height"].toInt() == 240;
    }
    EXPECT_TRUE(sideBySide);
    auto top = entries[entries.size() - 2].toObject(), bottom = entries.last().toObject();
    EXPECT_EQ(top["name"].toString(), "Top");
    EXPECT_EQ(bottom["name"].toString(), "Bottom");
    EXPECT_EQ(bottom["width"].toInt(), 320);
    EXPECT_EQ(bottom["background"].toArray(), (QJsonArray{0, 0, 0}));
    EXPECT_TRUE(bottom["importance"].isNull());

    auto text = runProcess({ZANDOR_CLI, "layouts"});
    auto lines = splitLines(text.out);
    ASSERT_EQ(lines.size(), static_cast<size_t>(entries.size()));
    EXPECT_EQ(lines.back(), "Bottom\t320\t240\tresizable\t0,0,0\tapplication\t-");
}

TEST_F(LayoutsCommandTest, InstallsAPluginForTheUserAndRefusesBadOnes) {
    QTemporaryDir downloads;
    QString bundle = test::writeBundle(
        downloads.path(), "mine.zdplugin",
        test::layoutDescriptor("Mine", 5, 400, 240, {}, R"(<background r="1" g="2" b="3"/>)"));
    auto result = runProcess({ZANDOR_CLI, "install-plugin", bundle.toStdString()});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_FALSE(QFileInfo::exists(bundle));
    EXPECT_TRUE(QFileInfo::exists(userFolder() + "/mine.zdplugin/plugin.xml"));
    auto listed = runProcess({ZANDOR_CLI, "layouts"});
    EXPECT_NE(listed.out.find("Mine\t400\t240\tresizable\t1,2,3\tuser\t5\n"), std::string::npos)
        << listed.out;

    QString again =
        test::writeBundle(downloads.path(), "mine.zdplugin", test::layoutDescriptor("Again", 5, 400, 240));
    result = runProcess({ZANDOR_CLI, "install-plugin", again.toStdString()});
    EXPECT_NE(result.exitCode, 0);
    EXPECT_NE(result.err.find("already installed"), std::string::npos) << result.err;
    EXPECT_TRUE(QFileInfo::exists(again));

    result = runProcess({ZANDOR_CLI, "install-plugin", (downloads.path() + "/nothing").toStdString()});
    EXPECT_NE(result.exitCode, 0);
    EXPECT_EQ(splitLines(result.err).size(), 1u);
    EXPECT_NE(result.err.find("not a plugin bundle"), std::string::npos) << result.err;
}

} // namespace
} // namespace zandor
