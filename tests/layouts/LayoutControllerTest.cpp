#include "GatedBoard.h"
#include "PluginBundles.h"
#include "capture/CaptureDevice.h"
#include "layouts/LayoutController.h"
#include "layouts/PluginController.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

namespace zandor {
namespace {

QStringList titles(const std::vector<LayoutMenuItem>& items) {
    QStringList result;
    for (const auto& item : items) {
        result << (item.separator ? QStringLiteral("---") : item.title);
    }
    return result;
}

class LayoutControllerTest : public ::testing::Test {
protected:
    QString app() const { return m_root.path() + "/app"; }
    QString user() const { return m_root.path() + "/user/"; }

    std::shared_ptr<LayoutPlugin> userPlugin(const QString& name) {
        auto bundle =
            test::writeBundle(user(), name + ".zdplugin", test::layoutDescriptor(name, 1, 400, 240));
        auto plugin = std::make_shared<LayoutPlugin>(bundle, true);
        EXPECT_TRUE(plugin->parse());
        return plugin;
    }

    QTemporaryDir m_root;
    std::shared_ptr<CaptureDevice> m_device = CaptureDevice::create(std::make_unique<test::GatedBoard>());
};

TEST_F(LayoutControllerTest, WithoutPluginsOnlyTheScreenLayoutsExist) {
    PluginController registry(app(), user());
    LayoutController catalogue(registry);
    catalogue.setDevice(m_device);
    EXPECT_TRUE(catalogue.layouts().empty());
    EXPECT_TRUE(catalogue.menuItems().empty());
    EXPECT_EQ(catalogue.screenLayouts()[0]->name(), QStringLiteral("Top"));
    EXPECT_EQ(catalogue.screenLayouts()[0]->width(), 400u);
    EXPECT_EQ(catalogue.screenLayouts()[1]->name(), QStringLiteral("Bottom"));
    EXPECT_EQ(catalogue.screenLayouts()[1]->width(), 320u);
    EXPECT_EQ(catalogue.layoutNamed("Top"), nullptr);

    catalogue.addPlugin(userPlugin("Mine"));
    EXPECT_EQ(titles(catalogue.menuItems()), (QStringList{"---", "Mine"}))
        << "only user layouts: separator first";
}

// The registry sorts by importance alone and keeps the order plugins came in among equals:
// application before user plugins, installed ones after those already there. The menu and the
// catalogue follow the registry.
TEST_F(LayoutControllerTest, EqualImportanceKeepsTheOrderPluginsCameInAndTheMenuFollowsIt) {
    test::writeBundle(app(), "a.zdplugin", test::layoutDescriptor("Low", 1, 400, 240));
    test::writeBundle(app(), "b.zdplugin", test::layoutDescriptor("Even", 5, 400, 240));
    test::writeBundle(app(), "c.zdplugin", test::layoutDescriptor("High", 9, 400, 240));
    test::writeBundle(user(), "u.zdplugin", test::layoutDescriptor("Mine", 5, 400, 240));
    PluginController registry(app(), user());
    // Enough equals that a sort that does not keep their order shows it.
    QTemporaryDir downloads;
    QStringList installed;
    for (int n = 0; n < 24; ++n) {
        installed << QStringLiteral("New %1").arg(n, 2, 10, QChar('0'));
        ASSERT_TRUE(
            registry.installPlugin(test::writeBundle(downloads.path(), QStringLiteral("n%1.zdplugin").arg(n),
                                                     test::layoutDescriptor(installed.last(), 5, 400, 240))));
    }
    QStringList names;
    for (const auto& plugin : registry.plugins()) {
        names << plugin->name();
    }
    EXPECT_EQ(names, QStringList({"High", "Even", "Mine"}) + installed + QStringList{"Low"});

    LayoutController catalogue(registry);
    catalogue.setDevice(m_device);
    EXPECT_EQ(titles(catalogue.menuItems()), QStringList({"High", "Even", "Low", "---", "Mine"}) + installed);

    // A name taken twice keeps finding the earlier layout.
    auto first = catalogue.layoutNamed("High");
    auto added = catalogue.addPlugin(userPlugin("High"));
    EXPECT_EQ(titles(catalogue.menuItems()).last(), "High");
    EXPECT_EQ(catalogue.layoutNamed("High"), first);
    EXPECT_NE(added, first);
    EXPECT_EQ(catalogue.layoutsFromUser(true).size(), 26u);
    EXPECT_EQ(catalogue.layoutNamed("high"), nullptr);
}

} // namespace
} // namespace zandor
