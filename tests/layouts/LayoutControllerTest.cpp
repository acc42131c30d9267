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

// The menu lists the application's layouts in the registry's order, then the user's after a
// separator; the screen layouts come apart and are not found by name.
TEST(LayoutController, TheMenuFollowsTheRegistryAndAReusedNameFindsTheEarlierLayout) {
    QTemporaryDir root;
    const QString app = root.path() + "/app", user = root.path() + "/user/";
    const auto plugin = [&](const QString& folder, const QString& name, int importance, bool fromUser) {
        return test::parsedPlugin(folder, name + ".zdplugin",
                                  test::layoutDescriptor(name, importance, 400, 240), {}, fromUser);
    };
    auto device = CaptureDevice::create(std::make_unique<test::GatedBoard>());
    PluginController empty(app, user);
    LayoutController bare(empty);
    bare.setDevice(device);
    EXPECT_TRUE(bare.layouts().empty() && bare.menuItems().empty());
    const auto screens = bare.screenLayouts();
    EXPECT_EQ(screens[0]->name(), QStringLiteral("Top"));
    EXPECT_EQ(screens[0]->width(), 400u);
    EXPECT_EQ(screens[1]->name(), QStringLiteral("Bottom"));
    EXPECT_EQ(screens[1]->width(), 320u);
    EXPECT_EQ(bare.layoutNamed("Top"), nullptr);
    bare.addPlugin(plugin(user, "Mine", 1, true));
    EXPECT_EQ(titles(bare.menuItems()), (QStringList{"---", "Mine"})) << "only user layouts: separator first";

    plugin(app, "Low", 1, false);
    plugin(app, "High", 9, false);
    plugin(user, "Even", 5, true);
    PluginController registry(app, user);
    LayoutController catalogue(registry);
    catalogue.setDevice(device);
    EXPECT_EQ(titles(catalogue.menuItems()), (QStringList{"High", "Low", "---", "Even", "Mine"}));
    auto first = catalogue.layoutNamed("High");
    auto added = catalogue.addPlugin(plugin(root.path() + "/new", "High", 20, true));
    EXPECT_EQ(titles(catalogue.menuItems()).last(), "High");
    EXPECT_EQ(catalogue.layoutNamed("High"), first);
    EXPECT_NE(added, first);
    EXPECT_EQ(catalogue.layoutsFromUser(true).size(), 3u);
    EXPECT_EQ(catalogue.layoutNamed("high"), nullptr);
}

} // namespace
} // namespace zandor
