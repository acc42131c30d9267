#include "LayoutController.h"

#include "PluginController.h"
#include "capture/CaptureDevice.h"

#include <algorithm>

namespace zandor {

LayoutController& LayoutController::instance() {
    static LayoutController catalogue(PluginController::instance());
    return catalogue;
}

void LayoutController::setDevice(const std::shared_ptr<CaptureDevice>& device) {
    m_device = device;
    const auto plugins = m_registry.pluginTyped(Plugin::LayoutType);
    m_layouts.clear();
    m_layouts.reserve(static_cast<size_t>(plugins.size()));
    for (const auto& plugin : plugins) {
        addPlugin(std::static_pointer_cast<LayoutPlugin>(plugin));
    }
    m_screenLayouts = {CaptureLayout::createWithScreen(device->screen(0), QStringLiteral("Top")),
                       CaptureLayout::createWithScreen(device->screen(1), QStringLiteral("Bottom"))};
}

std::vector<LayoutPtr> LayoutController::layoutsFromUser(bool fromUser) const {
    std::vector<LayoutPtr> result;
    std::copy_if(m_layouts.begin(), m_layouts.end(), std::back_inserter(result),
                 [&](const LayoutPtr& layout) { return layout->fromUser() == fromUser; });
    return result;
}

LayoutPtr LayoutController::layoutNamed(const QString& name) const {
    auto found = std::find_if(m_layouts.begin(), m_layouts.end(),
                              [&](const LayoutPtr& layout) { return layout->name() == name; });
    return found == m_layouts.end() ? nullptr : *found;
}

std::vector<LayoutMenuItem> LayoutController::menuItems() const {
    std::vector<LayoutMenuItem> items;
    for (const auto& layout : layoutsFromUser(false)) {
        items.push_back({layout->name()});
    }
    const auto user = layoutsFromUser(true);
    if (!user.empty()) {
        items.push_back({QString(), true});
    }
    for (const auto& layout : user) {
        items.push_back({layout->name()});
    }
    return items;
}

LayoutPtr LayoutController::addPlugin(const std::shared_ptr<LayoutPlugin>& plugin) {
    auto layout = CaptureLayout::createWithPlugin(plugin, m_device);
    m_layouts.push_back(layout);
    return layout;
}

} // namespace zandor
