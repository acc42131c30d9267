#pragma once

#include <QString>

#include <QtGlobal>

#include <utility>
#include <variant>

namespace zandor {

// The objects a layout plug-in places on its canvas, typed once when the plug-in is parsed. Positions
// are canvas column and row of the object's top-left pixel, as written (negative ones included).

// One of the console's screens, at its fixed size. TopRight is the right eye of the console's 3D
// picture, the size of the top screen; without 3D it shows the top screen.
struct ScreenObject {
    enum Screen { Top, Bottom, TopRight };
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

// The type as the descriptor writes it: "screen_top", "screen_bottom", "screen_top_right", "image"
// or another.
inline QString objectType(const LayoutObject& object) {
    if (const auto* screen = std::get_if<ScreenObject>(&object)) {
        switch (screen->screen) {
        case ScreenObject::Top:
            return QStringLiteral("screen_top");
        case ScreenObject::Bottom:
            return QStringLiteral("screen_bottom");
        case ScreenObject::TopRight:
            return QStringLiteral("screen_top_right");
        }
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
