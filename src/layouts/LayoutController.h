#pragma once

#include "CaptureLayout.h"
#include "LayoutPlugin.h"

#include <QString>

#include <array>
#include <memory>
#include <vector>

namespace zandor {

class CaptureDevice;
class PluginController;

// An entry of the layout menu: a layout's name, or a separator.
struct LayoutMenuItem {
    QString title;
    bool separator = false;
};

// The catalogue of layouts the user chooses from: one per layout plugin, in the registry's order
// and then in the order added, plus "Top" and "Bottom" for the screens alone. Used from the GUI
// thread only.
class LayoutController {
public:
    static LayoutController& instance();
    explicit LayoutController(PluginController& registry) : m_registry(registry) {}

    // Builds every layout anew from the registry's layout plugins and the device's screens.
    void setDevice(const std::shared_ptr<CaptureDevice>& device);
    const std::shared_ptr<CaptureDevice>& device() const { return m_device; }

    const std::vector<LayoutPtr>& layouts() const { return m_layouts; }
    std::vector<LayoutPtr> layoutsFromUser(bool fromUser) const;
    // The first plugin layout of exactly that name; "Top" and "Bottom" are not searched.
    LayoutPtr layoutNamed(const QString& name) const;
    // The application's layouts, a separator only when there are user layouts, then those.
    std::vector<LayoutMenuItem> menuItems() const;
    const std::array<LayoutPtr, 2>& screenLayouts() const { return m_screenLayouts; }

    LayoutPtr addPlugin(const std::shared_ptr<LayoutPlugin>& plugin);

private:
    PluginController& m_registry;
    std::shared_ptr<CaptureDevice> m_device;
    std::vector<LayoutPtr> m_layouts;
    std::array<LayoutPtr, 2> m_screenLayouts;
};

} // namespace zandor
