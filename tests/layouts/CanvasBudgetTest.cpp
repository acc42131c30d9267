// The canvases of all layouts loaded at once stay within their budget: a layout beyond it stays
// empty until it runs, idle layouts make room for it (the one drawn longest ago first), and a start
// that the running layouts alone leave no room for is refused.

#include "GatedBoard.h"
#include "PluginBundles.h"
#include "base/Log.h"
#include "layouts/CanvasBudget.h"
#include "layouts/CaptureLayout.h"
#include "layouts/LayoutPlugin.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

namespace zandor {
namespace {

constexpr int Side = 1024; // 3 MB a canvas
constexpr uint64_t CanvasBytes = uint64_t{Side} * Side * 3;

class CanvasBudgetTest : public test::GatedDeviceTest {
protected:
    void SetUp() override {
        GatedDeviceTest::SetUp();
        CanvasBudget::instance().setLimit(2 * CanvasBytes + CanvasBytes / 2);
    }
    void TearDown() override {
        for (const auto& [layout, observer] : m_running) {
            layout->removeObserver(observer);
            layout->stopListening();
        }
        m_layouts.clear();
        CanvasBudget::instance().setLimit(m_limit);
        GatedDeviceTest::TearDown();
    }

    std::shared_ptr<CaptureLayout> layout(const QString& name) {
        const QString path = test::writeBundle(
            m_folder.path(), name + ".zdplugin",
            test::layoutDescriptor(name, 1, Side, Side, {}, R"(<background r="10" g="20" b="30"/>)"));
        auto plugin = std::make_shared<LayoutPlugin>(path, false);
        EXPECT_TRUE(plugin->parse());
        m_layouts.push_back(CaptureLayout::createWithPlugin(plugin, m_device));
        return m_layouts.back();
    }
    bool run(const std::shared_ptr<CaptureLayout>& layout) {
        auto observer = layout->addObserver();
        if (!layout->startListening()) {
            layout->removeObserver(observer);
            return false;
        }
        m_running.emplace_back(layout, observer);
        return true;
    }
    static bool drawn(const std::shared_ptr<CaptureLayout>& layout) {
        const uint8_t* canvas = layout->canvas();
        return canvas && canvas[0] == 10 && canvas[1] == 20 && canvas[2] == 30;
    }

    const uint64_t m_limit = CanvasBudget::instance().limit();
    QTemporaryDir m_folder;
    std::vector<std::shared_ptr<CaptureLayout>> m_layouts;
    std::vector<std::pair<std::shared_ptr<CaptureLayout>, ObserverPtr>> m_running;
};

TEST_F(CanvasBudgetTest, ALayoutBeyondTheBudgetWaitsAndIdleOnesMakeRoomForTheOnesThatRun) {
    LogCapture log;
    auto first = layout("First");
    auto second = layout("Second");
    auto third = layout("Third");
    EXPECT_TRUE(drawn(first));
    EXPECT_TRUE(drawn(second));
    EXPECT_EQ(third->canvas(), nullptr);
    EXPECT_EQ(log.count("Layout 'Third' stays empty until it is shown: its canvas of 3 MB would take the "
                        "layouts beyond the 7 MB their canvases may take together"),
              1u);
    EXPECT_EQ(CanvasBudget::instance().used(), 2 * CanvasBytes);

    ASSERT_TRUE(run(third));
    EXPECT_TRUE(drawn(third)) << "drawn when it runs";
    EXPECT_EQ(first->canvas(), nullptr) << "the canvas made longest ago went";
    EXPECT_TRUE(drawn(second));
    ASSERT_TRUE(run(second));

    // Both that remain run: the first finds no room, and stays as it was.
    EXPECT_FALSE(run(first));
    EXPECT_EQ(first->canvas(), nullptr);
    EXPECT_TRUE(drawn(second));
    EXPECT_TRUE(drawn(third));
    EXPECT_EQ(log.count("Layout 'First' cannot run: its canvas of 3 MB and those of the layouts running "
                        "would take more than the 7 MB their canvases may take together"),
              1u);
    EXPECT_LE(CanvasBudget::instance().used(), CanvasBudget::instance().limit());

    // One stops: its canvas makes room for the first, and it is drawn again when it runs again.
    third->removeObserver(m_running.front().second);
    third->stopListening();
    m_running.erase(m_running.begin());
    ASSERT_TRUE(run(first));
    EXPECT_TRUE(drawn(first));
    EXPECT_EQ(third->canvas(), nullptr);
    EXPECT_FALSE(run(third)) << "the two running leave no room";
}

TEST_F(CanvasBudgetTest, ACanvasLargerThanTheWholeBudgetNeverRuns) {
    CanvasBudget::instance().setLimit(CanvasBytes - 1);
    LogCapture log;
    auto huge = layout("Huge");
    EXPECT_EQ(huge->canvas(), nullptr);
    EXPECT_FALSE(run(huge));
    EXPECT_EQ(CanvasBudget::instance().used(), 0u);
}

} // namespace
} // namespace zandor
