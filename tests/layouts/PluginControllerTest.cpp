#include "GatedBoard.h"
#include "PluginBundles.h"
#include "base/Log.h"
#include "capture/CaptureDevice.h"
#include "layouts/LayoutController.h"
#include "layouts/LayoutPlugin.h"
#include "layouts/PluginController.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <sys/stat.h>
#include <unistd.h>

namespace zandor {
namespace {

QByteArray layout(const QString& name, int importance) {
    return test::layoutDescriptor(name, importance, 400, 240);
}

QStringList names(const QList<PluginPtr>& plugins) {
    QStringList result;
    for (const auto& plugin : plugins) {
        result << plugin->name();
    }
    return result;
}

class PluginControllerTest : public ::testing::Test {
protected:
    QString app() const { return m_root.path() + QStringLiteral("/app"); }
    QString user() const { return m_root.path() + QStringLiteral("/support/Zandor/Plugins/"); }
    QString elsewhere() const { return m_root.path() + QStringLiteral("/downloads"); }

    QTemporaryDir m_root;
};

// Sorted by importance alone, keeping the order plugins came in among equals: application before
// user plugins, installed ones after those already there. A malformed bundle is refused, named in
// the log and left where it was.
TEST_F(PluginControllerTest, LoadsBothFoldersByImportanceKeepingTheOrderTheyCameInAmongEquals) {
    test::writeBundle(app(), "a.zdplugin", layout("Low", 1));
    test::writeBundle(app(), "b.zdplugin", layout("Even", 5));
    test::writeBundle(app(), "c.zdplugin", layout("High", 9));
    test::writeBundle(app(), "broken.zdplugin", "<ZandorLayout><name>Broken</name>");
    test::writeBundle(user(), "u.zdplugin", layout("High", 5));
    LogCapture log;
    PluginController registry(app(), user());
    // Enough equals that a sort that does not keep their order shows it.
    QStringList installed;
    for (int n = 0; n < 24; ++n) {
        installed << QStringLiteral("New %1").arg(n, 2, 10, QChar('0'));
        ASSERT_TRUE(registry.installPlugin(test::writeBundle(
            elsewhere(), QStringLiteral("n%1.zdplugin").arg(n), layout(installed.last(), 5))));
    }
    const QString malformed = test::writeBundle(elsewhere(), "malformed.zdplugin", "<ZandorLayout><name>Bad");
    EXPECT_FALSE(registry.installPlugin(malformed));
    EXPECT_TRUE(PluginController::isPluginFile(malformed));
    EXPECT_EQ(log.countPrefix("Could not parse plugin: "), 2u);
    EXPECT_EQ(names(registry.plugins()),
              QStringList({"High", "Even", "High"}) + installed + QStringList{"Low"});
    EXPECT_EQ(registry.pluginNamed("High", Plugin::LayoutType)->importance(), 9)
        << "the higher of two of a name";
}

// A folder that holds anything but folders and regular files (a named pipe, as the descriptor or
// as an image, or a link) is refused by the name of that file, at once: copying or opening such a
// file could block for ever or never end. The folder stays where it was.
TEST_F(PluginControllerTest, AFolderHoldingAPipeOrALinkIsRefusedByNameWithoutOpeningIt) {
    test::writeBundle(app(), "a.zdplugin", layout("Low", 1));
    PluginController registry(app(), user());
    const QString image = test::writeBundle(elsewhere(), "image.zdplugin", layout("Image", 1));
    const QString pipe = elsewhere() + "/pipe";
    ASSERT_EQ(mkfifo(qPrintable(pipe), 0600), 0);
    ASSERT_EQ(mkfifo(qPrintable(image + "/Resources/pipe.png"), 0600), 0);
    const QString linked = test::writeBundle(elsewhere(), "linked.zdplugin", layout("Linked", 1));
    ASSERT_TRUE(QFile::remove(linked + "/plugin.xml"));
    ASSERT_EQ(symlink(qPrintable(pipe), qPrintable(linked + "/plugin.xml")), 0);

    LogCapture log;
    for (const QString& special : {image + "/Resources/pipe.png", linked + "/plugin.xml"}) {
        const QString bundle = special.section(u'/', 0, special.contains("Resources") ? -3 : -2);
        EXPECT_FALSE(registry.installPlugin(bundle));
        EXPECT_EQ(log.count("Could not parse plugin: " + special.toStdString() +
                            ": it is not a regular file or a folder"),
                  1u);
        EXPECT_TRUE(QFileInfo::exists(bundle + "/Resources")) << "left where it was";
    }
    EXPECT_EQ(names(registry.plugins()), QStringList{"Low"});
    EXPECT_TRUE(QDir(user()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries).isEmpty());
}

TEST_F(PluginControllerTest, TheLayoutMenuFollowsTheRegistryAndAReusedNameFindsTheEarlierLayout) {
    test::writeBundle(app(), "low.zdplugin", layout("Low", 1));
    test::writeBundle(app(), "high.zdplugin", layout("High", 9));
    test::writeBundle(user(), "even.zdplugin", layout("Even", 5));
    test::writeBundle(user(), "mine.zdplugin", layout("Mine", 1));
    PluginController registry(app(), user());
    LayoutController catalogue(registry);
    catalogue.setDevice(CaptureDevice::create(std::make_unique<test::GatedBoard>()));
    QStringList titles;
    for (const auto& item : catalogue.menuItems()) {
        titles << (item.separator ? QStringLiteral("---") : item.title);
    }
    EXPECT_EQ(titles, (QStringList{"High", "Low", "---", "Even", "Mine"}));

    const auto first = catalogue.layoutNamed("High");
    const auto again = test::parsedPlugin(elsewhere(), "again.zdplugin", layout("High", 20), {}, true);
    EXPECT_NE(catalogue.addPlugin(again), first);
    EXPECT_EQ(catalogue.layoutNamed("High"), first);
}

} // namespace
} // namespace zandor
