#pragma once

#include "LayoutObject.h"
#include "Plugin.h"

#include <optional>
#include <vector>

namespace zandor {

// A colour with components from 0.0 to 1.0 (a plugin may give more; nothing clamps them).
struct Color {
    double red = 0, green = 0, blue = 0, alpha = 1;
};

// A layout plugin: canvas size, resizability, background colour and the placed objects ("screen_top",
// "screen_bottom", "screen_top_right", "image", or any other type, kept but not drawn), in drawing
// order.
class LayoutPlugin final : public Plugin {
public:
    LayoutPlugin(QString file, bool fromUser) : Plugin(std::move(file), fromUser) {}

    int type() const override { return LayoutType; }
    qint64 width() const { return m_width; }
    qint64 height() const { return m_height; }
    bool isResizable() const { return m_resizable; }
    const std::optional<Color>& background() const { return m_background; }
    // The placed objects in document order, which is drawing order.
    const std::vector<LayoutObject>& objects() const { return m_objects; }

    // More objects than this in one layout are refused: each costs work on every frame.
    static constexpr size_t MaximumObjects = 4096;

protected:
    void didStartElement(const QString& name, const QXmlStreamAttributes& attributes) override;
    QString refusal() const override;

private:
    qint64 m_width = 0;
    qint64 m_height = 0;
    bool m_resizable = false;
    std::optional<Color> m_background;
    std::vector<LayoutObject> m_objects;
};

using LayoutPluginPtr = std::shared_ptr<LayoutPlugin>;

} // namespace zandor
