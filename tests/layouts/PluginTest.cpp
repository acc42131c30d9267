#include "PluginBundles.h"
#include "base/Log.h"
#include "layouts/LayoutPlugin.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

namespace zandor {
namespace {

class PluginTest : public ::testing::Test {
protected:
    std::shared_ptr<LayoutPlugin> parsed(const QByteArray& descriptor, bool expectSuccess = true) {
        QString path =
            test::writeBundle(m_folder.path(), QStringLiteral("p%1.zdplugin").arg(++m_count), descriptor);
        auto plugin = std::make_shared<LayoutPlugin>(path, false);
        EXPECT_EQ(plugin->parse(), expectSuccess) << descriptor.toStdString();
        return plugin;
    }

    QTemporaryDir m_folder;
    int m_count = 0;
};

TEST_F(PluginTest, NameIsTheExactTextAfterTheLastInnerStartTag) {
    EXPECT_EQ(parsed("<a><name>  My Layout </name></a>")->name(), QStringLiteral("  My Layout "));
    EXPECT_EQ(parsed("<a><name>Two\nLines</name></a>")->name(), QStringLiteral("Two\nLines"));
    EXPECT_EQ(parsed("<a><b><c><name>Deep</name></c></b></a>")->name(), QStringLiteral("Deep"));
    EXPECT_EQ(parsed("<a><name>First</name><x><name>Last</name></x></a>")->name(), QStringLiteral("Last"));
    EXPECT_EQ(parsed("<a><name>lost<i/>kept</name></a>")->name(), QStringLiteral("kept"));
    EXPECT_EQ(parsed("<a><name>A &amp; B</name></a>")->name(), QStringLiteral("A & B"));
    EXPECT_EQ(parsed("<a><title>No name</title></a>")->name(), QString());
}

TEST_F(PluginTest, ImportanceTakesTheLeadingInteger) {
    EXPECT_EQ(parsed("<a><importance>12abc</importance></a>")->importance(), 12);
    EXPECT_EQ(parsed("<a><importance>-3</importance></a>")->importance(), -3);
    EXPECT_EQ(parsed("<a><importance></importance></a>")->importance(), 0);
    EXPECT_EQ(parsed("<a><importance> \n +7 days</importance></a>")->importance(), 7);
    EXPECT_EQ(parsed("<a><importance>x5</importance></a>")->importance(), 0);
    EXPECT_EQ(Plugin::integerValue(u"99999999999999999999"), std::numeric_limits<qint64>::max());
    EXPECT_EQ(Plugin::integerValue(u"-99999999999999999999"), std::numeric_limits<qint64>::min());
    EXPECT_EQ(Plugin::integerValue(u"-9223372036854775808"), std::numeric_limits<qint64>::min());
}

TEST_F(PluginTest, MalformedOrMissingDescriptorsFailAndSayWhy) {
    LogCapture log;
    auto plugin = parsed("<a><name>Kept</name><size width='7' height='8'/><oops></a>", false);
    EXPECT_EQ(plugin->name(), QStringLiteral("Kept")) << "what was read before the fault stays";
    EXPECT_EQ(plugin->width(), 7);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].rfind("Could not parse plugin: ", 0), 0u) << log.lines()[0];

    LayoutPlugin missing(m_folder.path() + QStringLiteral("/none.zdplugin"), true);
    EXPECT_FALSE(missing.parse());
    EXPECT_EQ(log.countPrefix("Could not parse plugin: "), 2u);
    EXPECT_EQ(missing.resourcePath(QStringLiteral("sub/frame.png")),
              m_folder.path() + QStringLiteral("/none.zdplugin/Resources/sub/frame.png"));
}

TEST_F(PluginTest, ReadsTheWorkedExampleLayout) {
    auto plugin = parsed(R"(<plugin><name>Side by Side</name><importance>10</importance>
        <!-- ZandorLayout -->
        <size width="720" height="240" resizable="true"/>
        <background r="0" g="0" b="64"/>
        <object type="image" x="0" y="0" resource="backdrop.png"/>
        <object type="screen_top" x="0" y="0"/>
        <object type="screen_bottom" x="400" y="0"/></plugin>)");
    EXPECT_EQ(plugin->name(), QStringLiteral("Side by Side"));
    EXPECT_EQ(plugin->importance(), 10);
    EXPECT_EQ(plugin->type(), Plugin::LayoutType);
    EXPECT_EQ(plugin->width(), 720);
    EXPECT_EQ(plugin->height(), 240);
    EXPECT_TRUE(plugin->isResizable());
    ASSERT_TRUE(plugin->background());
    EXPECT_EQ(plugin->background()->blue, 64 / 255.0);
    EXPECT_EQ(plugin->background()->alpha, 1.0);
    ASSERT_EQ(plugin->objects().size(), 3);
    EXPECT_EQ(
        plugin->objects()[0],
        (QVariantMap{{"type", "image"}, {"x", qint64(0)}, {"y", qint64(0)}, {"resource", "backdrop.png"}}));
    EXPECT_EQ(plugin->objects()[2],
              (QVariantMap{{"type", "screen_bottom"}, {"x", qint64(400)}, {"y", qint64(0)}}));
}

TEST_F(PluginTest, LayoutAttributesFollowTheirOwnRules) {
    auto noSize = parsed("<a/>");
    EXPECT_EQ(noSize->width(), 0);
    EXPECT_FALSE(noSize->isResizable());
    EXPECT_FALSE(noSize->background());
    EXPECT_FALSE(parsed("<a><size width='1' height='1' resizable='True'/></a>")->isResizable());
    EXPECT_FALSE(parsed("<a><size width='1' height='1' resizable='yes'/></a>")->isResizable());
    EXPECT_EQ(parsed("<a><size width='1' height='1' resizable='true'/><size width='5'/></a>")->height(), 0)
        << "the last size element wins whole";

    EXPECT_FALSE(parsed("<a><background r='1' g='2'/></a>")->background());
    auto kept = parsed("<a><background r='1' g='2' b='3'/><background r='9' g='9'/></a>");
    ASSERT_TRUE(kept->background());
    EXPECT_EQ(kept->background()->red, 1 / 255.0);
    auto bright = parsed("<a><background r='300' g='0' b='0'/></a>");
    EXPECT_EQ(bright->background()->red, 300 / 255.0) << "not clamped";

    auto objects = parsed(R"(<a>
        <object type="image" x="1" y="2"/>
        <object type="screen_top" x="12px" y="abc" resource="ignored.png"/>
        <object type="clock" x="-5" y="-6"/>
        <object type="screen_bottom" x="1"/>
        <object x="1" y="2"/></a>)")
                       ->objects();
    ASSERT_EQ(objects.size(), 2);
    EXPECT_EQ(objects[0], (QVariantMap{{"type", "screen_top"}, {"x", qint64(12)}, {"y", qint64(0)}}));
    EXPECT_EQ(objects[1], (QVariantMap{{"type", "clock"}, {"x", qint64(-5)}, {"y", qint64(-6)}}));
}

} // namespace
} // namespace zandor
