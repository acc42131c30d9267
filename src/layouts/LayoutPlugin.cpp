#include "LayoutPlugin.h"

#include <QXmlStreamAttributes>

namespace zandor {

void LayoutPlugin::didStartElement(const QString& name, const QXmlStreamAttributes& attributes) {
    Plugin::didStartElement(name, attributes);
    auto integer = [&](const QString& key) { return integerValue(attributes.value(key)); };
    if (name == QLatin1String("size")) {
        m_width = integer(QStringLiteral("width"));
        m_height = integer(QStringLiteral("height"));
        m_resizable = attributes.value(QStringLiteral("resizable")) == QLatin1String("true");
    } else if (name == QLatin1String("background")) {
        const QString r = QStringLiteral("r"), g = QStringLiteral("g"), b = QStringLiteral("b");
        if (attributes.hasAttribute(r) && attributes.hasAttribute(g) && attributes.hasAttribute(b)) {
            m_background = Color{integer(r) / 255.0, integer(g) / 255.0, integer(b) / 255.0, 1.0};
        }
    } else if (name == QLatin1String("object")) {
        const QString type = QStringLiteral("type"), x = QStringLiteral("x"), y = QStringLiteral("y"),
                      resource = QStringLiteral("resource");
        if (!attributes.hasAttribute(type) || !attributes.hasAttribute(x) || !attributes.hasAttribute(y)) {
            return;
        }
        const auto kind = attributes.value(type);
        if (kind == QLatin1String("screen_top")) {
            m_objects.push_back(ScreenObject{ScreenObject::Top, integer(x), integer(y)});
        } else if (kind == QLatin1String("screen_bottom")) {
            m_objects.push_back(ScreenObject{ScreenObject::Bottom, integer(x), integer(y)});
        } else if (kind == QLatin1String("screen_top_right")) {
            m_objects.push_back(ScreenObject{ScreenObject::TopRight, integer(x), integer(y)});
        } else if (kind == QLatin1String("image")) {
            if (attributes.hasAttribute(resource)) {
                m_objects.push_back(
                    ImageObject{attributes.value(resource).toString(), integer(x), integer(y)});
            }
        } else {
            m_objects.push_back(OtherObject{kind.toString(), integer(x), integer(y)});
        }
    }
}

QString LayoutPlugin::refusal() const {
    return m_objects.size() > MaximumObjects
               ? QStringLiteral("more than %1 objects in one layout").arg(MaximumObjects)
               : QString();
}

} // namespace zandor
