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

TEST_F(LayoutControllerTest, MenuListsApplicationLayoutsThenUserLayoutsByName) {
    test::writeBundle(app(), "a.zdplugin", test::layoutDescriptor("Low", 1, 400, 240));
    test::writeBundle(app(), "b.zdplugin", test::layoutDescriptor("High", 9, 400, 240));
    PluginController registry(app(), user());
    LayoutController catalogue(registry);
    catalogue.setDevice(m_device);
    EXPECT_EQ(titles(catalogue.menuItems()), (QStringList{"High", "Low"}))
        << "no separator without user layouts";

    auto first = catalogue.layoutNamed("High");
    auto added = catalogue.addPlugin(userPlugin("High"));
    catalogue.addPlugin(userPlugin("Other"));
    EXPECT_EQ(titles(catalogue.menuItems()), (QStringList{"High", "Low", "---", "High", "Other"}));
    EXPECT_EQ(catalogue.layoutNamed("High"), first) << "a taken name keeps finding the earlier layout";
    EXPECT_NE(added, first);
    EXPECT_EQ(catalogue.layoutsFromUser(true).size(), 2u);
    EXPECT_EQ(catalogue.layoutNamed("high"), nullptr);
}

} // namespace
} // namespace zandor
