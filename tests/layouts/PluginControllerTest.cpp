#include "PluginBundles.h"
#include "base/Log.h"
#include "base/Notifier.h"
#include "layouts/LayoutPlugin.h"
#include "layouts/PluginController.h"

#include <gtest/gtest.h>

#include <QFileInfo>
#include <QTemporaryDir>

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

TEST_F(PluginControllerTest, OnlyDirectoriesNamedZdpluginWithADescriptorArePlugins) {
    const QString folder = m_root.path();
    EXPECT_TRUE(PluginController::isPluginFile(test::writeBundle(folder, "good.zdplugin", layout("A", 1))));
    EXPECT_FALSE(PluginController::isPluginFile(test::writeBundle(folder, "upper.ZDPLUGIN", layout("A", 1))));
    QDir().mkpath(folder + "/empty.zdplugin");
    EXPECT_FALSE(PluginController::isPluginFile(folder + "/empty.zdplugin"));
    EXPECT_EQ(PluginController::typePluginFile(folder + "/good.zdplugin"), Plugin::LayoutType);
    auto untyped = test::writeBundle(folder, "untyped.zdplugin", "<a><name>Valid but untyped</name></a>");
    EXPECT_EQ(PluginController::typePluginFile(untyped), Plugin::NoType);
    EXPECT_EQ(PluginController::parsePlugin(untyped, false), nullptr);
}

// Sorted by importance alone, keeping the order plugins came in among equals: application before
// user plugins, installed ones after those already there.
TEST_F(PluginControllerTest, LoadsBothFoldersByImportanceKeepingTheOrderTheyCameInAmongEquals) {
    test::writeBundle(app(), "a.zdplugin", layout("Low", 1));
    test::writeBundle(app(), "b.zdplugin", layout("Even", 5));
    test::writeBundle(app(), "c.zdplugin", layout("High", 9));
    test::writeBundle(app(), "broken.zdplugin", "<ZandorLayout><name>Broken</name>");
    test::writeBundle(user(), "u.zdplugin", layout("High", 5));
    PluginController registry(app(), user());
    // Enough equals that a sort that does not keep their order shows it.
    QStringList installed;
    for (int n = 0; n < 24; ++n) {
        installed << QStringLiteral("New %1").arg(n, 2, 10, QChar('0'));
        ASSERT_TRUE(registry.installPlugin(test::writeBundle(
            elsewhere(), QStringLiteral("n%1.zdplugin").arg(n), layout(installed.last(), 5))));
    }
    EXPECT_EQ(names(registry.plugins()),
              QStringList({"High", "Even", "High"}) + installed + QStringList{"Low"});
    EXPECT_EQ(names(registry.pluginTyped(Plugin::LayoutType, false)), (QStringList{"High", "Even", "Low"}));
    const auto fromUser = registry.pluginsFromUser(true);
    ASSERT_EQ(fromUser.size(), 25);
    EXPECT_TRUE(fromUser[0]->file().endsWith("/Zandor/Plugins//u.zdplugin"))
        << fromUser[0]->file().toStdString();
    EXPECT_EQ(registry.pluginNamed("High", Plugin::LayoutType)->importance(), 9)
        << "the higher of two of a name";
    EXPECT_EQ(registry.pluginNamed("high", Plugin::LayoutType), nullptr);
}

TEST_F(PluginControllerTest, CreatesTheUserFolderOrSaysItCannot) {
    PluginController registry(app(), user());
    EXPECT_TRUE(QFileInfo(user()).isDir());

    ASSERT_TRUE(test::writeFile(m_root.path() + "/file"));
    LogCapture log;
    PluginController blocked(app(), m_root.path() + "/file/Zandor/Plugins/");
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Could not creating user plugin folder"});
}

TEST_F(PluginControllerTest, InstallingMovesTheBundleInAndAnnouncesItARefusalLeavesItWhereItWas) {
    test::writeBundle(app(), "ten.zdplugin", layout("Ten", 10));
    test::writeBundle(user(), "taken.zdplugin", layout("Old", 1));
    PluginController registry(app(), user());
    QList<PluginPtr> announced;
    auto connection = QObject::connect(Notifier::instance(), &Notifier::notified,
                                       [&](const QString& name, const QVariant& object, const QVariantMap&) {
                                           if (name == PluginInstalledNotification) {
                                               announced << object.value<PluginPtr>();
                                           }
                                       });
    LogCapture log;
    const QString taken = test::writeBundle(elsewhere(), "taken.zdplugin", layout("New", 1));
    const QString malformed = test::writeBundle(elsewhere(), "malformed.zdplugin", "<ZandorLayout><name>Bad");
    for (const QString& refused : {taken, malformed, elsewhere() + "/missing.zdplugin"}) {
        EXPECT_FALSE(registry.installPlugin(refused)) << refused.toStdString();
    }
    EXPECT_TRUE(PluginController::isPluginFile(taken) && PluginController::isPluginFile(malformed))
        << "left or moved back where they were";
    EXPECT_EQ(log.countPrefix("Could not parse plugin: "), 1u);
    EXPECT_EQ(names(registry.plugins()), (QStringList{"Ten", "Old"}));

    const QString bundle = test::writeBundle(elsewhere(), "new.zdplugin", layout("New", 20));
    EXPECT_TRUE(registry.installPlugin(bundle));
    QObject::disconnect(connection);
    EXPECT_FALSE(QFileInfo::exists(bundle));
    EXPECT_TRUE(PluginController::isPluginFile(user() + "new.zdplugin"));
    ASSERT_EQ(announced.size(), 1);
    EXPECT_TRUE(announced[0]->fromUser());
    EXPECT_EQ(registry.plugins().first(), announced[0]);
    EXPECT_EQ(announced[0]->name(), QStringLiteral("New"));
}

} // namespace
} // namespace zandor
