#pragma once

#include "Files.h"
#include "layouts/LayoutPlugin.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QImage>
#include <QMap>
#include <QString>
#include <QTemporaryDir>

#include <memory>

namespace zandor::test {

// Writes a plugin bundle "<folder>/<bundle>" with the descriptor text and the given images in its
// Resources folder; returns the bundle's path.
inline QString writeBundle(const QString& folder, const QString& bundle, const QByteArray& descriptor,
                           const QMap<QString, QImage>& images = {}) {
    QString path = folder + u'/' + bundle;
    QDir().mkpath(path + QStringLiteral("/Resources"));
    writeFile(path + QStringLiteral("/plugin.xml"), descriptor);
    for (auto image = images.begin(); image != images.end(); ++image) {
        image.value().save(path + QStringLiteral("/Resources/") + image.key(), "PNG");
    }
    return path;
}

// The layout plugin of a bundle written as writeBundle writes it, parsed; a failed parse fails the
// test.
inline std::shared_ptr<LayoutPlugin> parsedPlugin(const QString& folder, const QString& bundle,
                                                  const QByteArray& descriptor,
                                                  const QMap<QString, QImage>& images = {},
                                                  bool fromUser = false) {
    auto plugin = std::make_shared<LayoutPlugin>(writeBundle(folder, bundle, descriptor, images), fromUser);
    EXPECT_TRUE(plugin->parse()) << bundle.toStdString();
    return plugin;
}

// A layout descriptor from its parts; `objects` is the inner XML of the objects.
inline QByteArray layoutDescriptor(const QString& name, int importance, int width, int height,
                                   const QString& objects = {}, const QString& background = {}) {
    return QStringLiteral("<ZandorLayout><name>%1</name><importance>%2</importance>"
                          "<size width=\"%3\" height=\"%4\" resizable=\"true\"/>%5%6</ZandorLayout>")
        .arg(name)
        .arg(importance)
        .arg(width)
        .arg(height)
        .arg(background, objects)
        .toUtf8();
}

} // namespace zandor::test
