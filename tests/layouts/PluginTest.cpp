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

TEST_F(PluginTest, NameIsTheExactTextAfterTheLastInnerStartTagAndImportanceItsLeadingInteger) {
    EXPECT_EQ(parsed("<a><name>  Two\nLines </name></a>")->name(), QStringLiteral("  Two\nLines "));
    EXPECT_EQ(parsed("<a><name>First</name><x><y><name>Last</name></y></x></a>")->name(),
              QStringLiteral("Last"));
    EXPECT_EQ(parsed("<a><name>lost<i/>kept</name></a>")->name(), QStringLiteral("kept"));
    EXPECT_EQ(parsed("<a><name>A &amp; B</name></a>")->name(), QStringLiteral("A & B"));
    EXPECT_EQ(parsed("<a><title>No name</title></a>")->name(), QString());
    for (const auto& [text, importance] : std::vector<std::pair<QByteArray, int>>{
             {"12abc", 12}, {"-3", -3}, {"", 0}, {" \n +7 days", 7}, {"x5", 0}}) {
        EXPECT_EQ(parsed("<a><importance>" + text + "</importance></a>")->importance(), importance)
            << text.toStdString();
    }
}

TEST_F(PluginTest, MalformedOrMissingDescriptorsFailAndSayWhy) {
    LogCapture log;
    auto plugin = parsed("<a><name>Kept</name><size width='7' height='8'/><oops></a>", false);
    EXPECT_EQ(plugin->name(), QStringLiteral("Kept")) << "what was read before the fault stays";
    EXPECT_EQ(plugin->width(), 7);
    LayoutPlugin missing(m_folder.path() + QStringLiteral("/none.zdplugin"), true);
    EXPECT_FALSE(missing.parse());
    EXPECT_EQ(log.countPrefix("Could not parse plugin: "), 2u);
    EXPECT_EQ(missing.resourcePath(QStringLiteral("sub/frame.png")),
              m_folder.path() + QStringLiteral("/none.zdplugin/Resources/sub/frame.png"));
}

TEST_F(PluginTest, ReadsALayoutAndItsAttributesByTheirOwnRules) {
    auto plugin = parsed(R"(<plugin><name>Side by Side</name><importance>10</importance>
        <!-- ZandorLayout -->
        <size width="720" height="240" resizable="true"/>
        <background r="1" g="300" b="64"/><background r="9" g="9"/>
        <object type="image" x="0" y="0" resource="backdrop.png"/>
        <object type="image" x="1" y="2"/>
        <object type="screen_top" x="12px" y="abc" resource="ignored.png"/>
        <object type="clock" x="-5" y="-6"/>
        <object type="screen_bottom" x="1"/>
        <object x="1" y="2"/></plugin>)");
    EXPECT_EQ(plugin->type(), Plugin::LayoutType);
    EXPECT_EQ(plugin->width(), 720);
    EXPECT_EQ(plugin->height(), 240);
    EXPECT_TRUE(plugin->isResizable());
    ASSERT_TRUE(plugin->background()) << "an incomplete background is skipped";
    EXPECT_EQ(plugin->background()->red, 1 / 255.0);
    EXPECT_EQ(plugin->background()->green, 300 / 255.0) << "not clamped";
    EXPECT_EQ(plugin->background()->alpha, 1.0);
    EXPECT_EQ(plugin->objects(),
              (QList<QVariantMap>{
                  {{"type", "image"}, {"x", qint64(0)}, {"y", qint64(0)}, {"resource", "backdrop.png"}},
                  {{"type", "screen_top"}, {"x", qint64(12)}, {"y", qint64(0)}},
                  {{"type", "clock"}, {"x", qint64(-5)}, {"y", qint64(-6)}}}))
        << "objects missing an attribute they need are left out";

    auto noSize = parsed("<a/>");
    EXPECT_EQ(noSize->width(), 0);
    EXPECT_FALSE(noSize->isResizable() || noSize->background());
    EXPECT_FALSE(parsed("<a><size width='1' height='1' resizable='True'/></a>")->isResizable());
    EXPECT_EQ(parsed("<a><size width='1' height='1' resizable='true'/><size width='5'/></a>")->height(), 0)
        << "the last size element wins whole";
}

} // namespace
} // namespace zandor
