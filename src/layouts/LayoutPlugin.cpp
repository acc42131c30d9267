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
        if (!attributes.hasAttribute(ObjectType) || !attributes.hasAttribute(ObjectX) ||
            !attributes.hasAttribute(ObjectY)) {
            return;
        }
        QVariantMap record{{ObjectType, attributes.value(ObjectType).toString()},
                           {ObjectX, integer(ObjectX)},
                           {ObjectY, integer(ObjectY)}};
        if (record[ObjectType] == QLatin1String("image")) {
            if (!attributes.hasAttribute(ObjectResource)) {
                return;
            }
            record[ObjectResource] = attributes.value(ObjectResource).toString();
        }
        m_objects.append(record);
    }
}

QString LayoutPlugin::refusal() const {
    return m_objects.size() > MaximumObjects
               ? QStringLiteral("more than %1 objects in one layout").arg(MaximumObjects)
               : QString();
}

} // namespace zandor
