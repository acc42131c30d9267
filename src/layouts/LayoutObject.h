#pragma once

#include <QString>

#include <QtGlobal>

#include <utility>
#include <variant>

namespace zandor {

// The objects a layout plug-in places on its canvas, typed once when the plug-in is parsed. Positions
// are canvas column and row of the object's top-left pixel, as written (negative ones included).

// One of the console's screens, at its fixed size.
struct ScreenObject {
    enum Screen { Top, Bottom };
    Screen screen = Top;
    qint64 x = 0, y = 0;
    bool operator==(const ScreenObject&) const = default;
};

// A picture file from the bundle's "Resources" folder, at its own size.
struct ImageObject {
    QString resource;
    qint64 x = 0, y = 0;
    bool operator==(const ImageObject&) const = default;
};

// An object of a type the compositor does not know: kept as written, never drawn.
struct OtherObject {
    QString type;
    qint64 x = 0, y = 0;
    bool operator==(const OtherObject&) const = default;
};

using LayoutObject = std::variant<ScreenObject, ImageObject, OtherObject>;

// The type as the descriptor writes it: "screen_top", "screen_bottom", "image" or another.
inline QString objectType(const LayoutObject& object) {
    if (const auto* screen = std::get_if<ScreenObject>(&object)) {
        return screen->screen == ScreenObject::Top ? QStringLiteral("screen_top")
                                                   : QStringLiteral("screen_bottom");
    }
    if (std::holds_alternative<ImageObject>(object)) {
        return QStringLiteral("image");
    }
    return std::get<OtherObject>(object).type;
}

inline std::pair<qint64, qint64> objectPosition(const LayoutObject& object) {
    return std::visit([](const auto& placed) { return std::pair{placed.x, placed.y}; }, object);
}

} // namespace zandor
