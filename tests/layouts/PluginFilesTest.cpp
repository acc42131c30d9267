// Plug-ins are files users download and share: one that would hang the start, take the memory or
// every frame's time, or cannot be read as text, is refused; everything else loads.

#include "GatedBoard.h"
#include "PluginBundles.h"
#include "base/Log.h"
#include "layouts/CaptureLayout.h"
#include "layouts/ImageLoader.h"
#include "layouts/LayoutPlugin.h"
#include "layouts/PluginController.h"

#include <gtest/gtest.h>

#include <QBuffer>
#include <QTemporaryDir>
#include <QtEndian>

#include <sys/stat.h>
#include <unistd.h>

namespace zandor {
namespace {

class PluginFilesTest : public test::GatedDeviceTest {
protected:
    QString bundle(const QString& name, const QByteArray& descriptor = {}) {
        return test::writeBundle(m_folder.path(), name + ".zdplugin",
                                 descriptor.isEmpty() ? test::layoutDescriptor(name, 1, 400, 240)
                                                      : descriptor);
    }
    // Puts `make(path)` in the place of a bundle's file.
    static void replace(const QString& path, const std::function<int(const char*)>& make) {
        QFile::remove(path);
        ASSERT_EQ(make(path.toLocal8Bit().constData()), 0) << path.toStdString();
    }

    QTemporaryDir m_folder;
};

TEST_F(PluginFilesTest, DescriptorsThatAreNoSmallTextFilesOrHaveTooManyObjectsAreRefusedWithTheParsersLine) {
    bundle("Good");
    replace(bundle("Pipe") + "/plugin.xml", [](const char* path) { return mkfifo(path, 0600); });
    // A link to a pipe of the test's own folder, not to a device a fault could write through.
    const QString pipe = m_folder.path() + "/pipe";
    ASSERT_EQ(mkfifo(qPrintable(pipe), 0600), 0);
    replace(bundle("Linked") + "/plugin.xml",
            [&pipe](const char* path) { return symlink(qPrintable(pipe), path); });
    bundle("Huge", test::layoutDescriptor("Huge", 1, 400, 240) + "<!--" +
                       QByteArray(int(Plugin::MaximumDescriptorBytes), ' ') + "-->");
    bundle("Latin", test::layoutDescriptor("Cafe", 1, 400, 240).replace("Cafe", "Caf\xe9"));
    QString objects;
    for (size_t i = 0; i <= LayoutPlugin::MaximumObjects; ++i) {
        objects += R"(<object type="image" x="0" y="0" resource="a.png"/>)";
    }
    bundle("TooMany", test::layoutDescriptor("TooMany", 1, 400, 240, objects));
    // A small file whose entity, used 300,000 times, would be over a gigabyte of text.
    bundle("Entities", "<?xml version=\"1.0\"?>\n<!DOCTYPE z [<!ENTITY a \"" + QByteArray(4000, 'a') +
                           "\">]>\n<ZandorLayout><name>" + QByteArray("&a;").repeated(300000) +
                           "</name></ZandorLayout>");
    const QString oneObject = R"(<object type="image" x="0" y="0" resource="a.png"/>)";
    bundle("AsManyAsAllowed", test::layoutDescriptor("AsManyAsAllowed", 2, 400, 240,
                                                     objects.left(objects.size() - oneObject.size())));

    LogCapture log;
    PluginController controller(m_folder.path(), m_folder.path() + "/user");
    ASSERT_EQ(controller.plugins().size(), 2);
    EXPECT_EQ(controller.plugins().front()->name(), "AsManyAsAllowed");
    EXPECT_EQ(std::static_pointer_cast<LayoutPlugin>(controller.plugins().front())->objects().size(),
              LayoutPlugin::MaximumObjects);
    EXPECT_EQ(controller.plugins().back()->name(), "Good");
    const std::string folder = m_folder.path().toStdString();
    for (const std::string& line :
         {"Could not parse plugin: " + folder + "/Pipe.zdplugin/plugin.xml: it is not a regular file",
          "Could not parse plugin: " + folder + "/Linked.zdplugin/plugin.xml: it is not a regular file",
          "Could not parse plugin: " + folder + "/Huge.zdplugin/plugin.xml: it is larger than 1 MB",
          "Could not parse plugin: " + folder + "/Latin.zdplugin/plugin.xml is not UTF-8 text"}) {
        EXPECT_EQ(log.count(line), 1u) << line;
    }
    EXPECT_EQ(log.countPrefix("Could not parse plugin: more than 4096 objects in one layout (line "), 1u);
    EXPECT_EQ(log.countPrefix("Could not parse plugin: a plugin.xml may not declare entities (line 2, "), 1u);
}

// The PNG file of a 1 by 1 picture whose header claims `width` by `height` pixels: what a decoder
// is told before it allocates, without a huge file.
QByteArray pngClaiming(quint32 width, quint32 height) {
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    QImage(1, 1, QImage::Format_RGB32).save(&buffer, "PNG");
    // Signature (8 bytes), then the IHDR chunk: length (4), type (4), width and height (4 each, big
    // endian) among 13 bytes of data, and the CRC-32 of type and data.
    qToBigEndian(width, png.data() + 16);
    qToBigEndian(height, png.data() + 20);
    quint32 crc = 0xFFFFFFFF;
    for (int i = 12; i < 29; ++i) {
        crc ^= quint8(png[i]);
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ (0xEDB88320 & (0 - (crc & 1)));
        }
    }
    qToBigEndian(~crc, png.data() + 29);
    return png;
}

TEST_F(PluginFilesTest, ImagesThatWouldHangOrExceedAnyCanvasAreRefusedAndTheRestIsDrawn) {
    const QString objects = R"(<object type="image" x="0" y="0" resource="red.png"/>
                               <object type="image" x="10" y="0" resource="pipe.png"/>
                               <object type="image" x="20" y="0" resource="wide.png"/>
                               <object type="image" x="30" y="0" resource="limit.png"/>
                               <object type="image" x="40" y="0" resource="over.png"/>
                               <object type="image" x="50" y="0" resource="shape.png"/>)";
    QImage red(4, 4, QImage::Format_RGB32);
    red.fill(Qt::red);
    // Small on disk, but wider than any canvas may be.
    QImage wide(ImageLoader::MaximumSide + 1, 2, QImage::Format_Mono);
    wide.fill(0);
    const QString path = test::writeBundle(
        m_folder.path(), "Images.zdplugin",
        test::layoutDescriptor("Images", 1, 400, 240, objects, R"(<background r="0" g="0" b="255"/>)"),
        {{"red.png", red}, {"wide.png", wide}});
    replace(path + "/Resources/pipe.png", [](const char* file) { return mkfifo(file, 0600); });
    // 256 MB decoded at 4 bytes a pixel, then one row more.
    ASSERT_TRUE(test::writeFile(path + "/Resources/limit.png", pngClaiming(16384, 4096)));
    ASSERT_TRUE(test::writeFile(path + "/Resources/over.png", pngClaiming(16384, 4097)));
    // An SVG under another name, which would read a named pipe of the folder (and hang) if drawn.
    ASSERT_TRUE(test::writeFile(path + "/Resources/shape.png",
                                R"(<svg xmlns="http://www.w3.org/2000/svg" width="4" height="4">)"
                                R"(<image href="pipe.png" width="4" height="4"/>)"
                                R"(<rect width="4" height="4" fill="red"/></svg>)"));
    auto plugin = std::make_shared<LayoutPlugin>(path, false);
    ASSERT_TRUE(plugin->parse());

    LogCapture log;
    auto layout = CaptureLayout::createWithPlugin(plugin, m_device);
    const uint8_t* canvas = layout->canvas();
    const auto pixel = [canvas](int x) { return std::vector<uint8_t>(canvas + 3 * x, canvas + 3 * x + 3); };
    EXPECT_EQ(pixel(0), (std::vector<uint8_t>{255, 0, 0})) << "drawn";
    for (const auto& [x, image] :
         {std::pair{10, "the pipe"}, {20, "the wide image"}, {50, "the SVG image"}}) {
        EXPECT_EQ(pixel(x), (std::vector<uint8_t>{0, 0, 255})) << image << " is not drawn";
    }
    const auto said = [&path](const char* rest) {
        return "Could not parse plugin: image " + path.toStdString() + "/Resources/" + rest;
    };
    for (const char* line :
         {"pipe.png: it is not a regular file",
          "wide.png is 16385 by 2 pixels, larger than 16384 on a side or 256 MB decoded",
          "over.png is 16384 by 4097 pixels, larger than 16384 on a side or 256 MB decoded",
          "shape.png: it is not a PNG, JPEG, GIF or BMP image"}) {
        EXPECT_EQ(log.count(said(line)), 1u) << line;
    }
    // The image at the limit is let through to decoding, which finds no pixels in the file.
    EXPECT_EQ(log.countPrefix(said("limit.png: ")), 1u);
    EXPECT_EQ(log.countPrefix(said("limit.png is")), 0u);
}

// Attributes are read by their own rules: numbers by their leading integer, a background only when
// complete and unclamped, and objects missing an attribute they need are left out.
TEST_F(PluginFilesTest, ReadsALayoutAndItsAttributesByTheirOwnRules) {
    LayoutPlugin plugin(bundle("Rules", R"(<plugin><name>Side by Side</name><importance>10</importance>
        <!-- ZandorLayout -->
        <size width="720" height="240" resizable="true"/>
        <background r="1" g="300" b="64"/><background r="9" g="9"/>
        <object type="image" x="0" y="0" resource="backdrop.png"/>
        <object type="image" x="1" y="2"/>
        <object type="screen_top" x="12px" y="abc" resource="ignored.png"/>
        <object type="clock" x="-5" y="-6"/>
        <object type="screen_bottom" x="1"/>
        <object x="1" y="2"/></plugin>)"),
                        false);
    ASSERT_TRUE(plugin.parse());
    ASSERT_TRUE(plugin.background());
    EXPECT_EQ(plugin.background()->green, 300 / 255.0);
    EXPECT_EQ(plugin.objects(), (std::vector<LayoutObject>{ImageObject{"backdrop.png", 0, 0},
                                                           ScreenObject{ScreenObject::Top, 12, 0},
                                                           OtherObject{"clock", -5, -6}}));
}

// A sign before a number is read as a sign; "resizable" is "true" in exactly those letters; a "size"
// sets all three of its values, so one without width or height leaves 0 where they are missing.
TEST_F(PluginFilesTest, SizeAndNumbersFollowTheirRulesToTheLetter) {
    struct Case {
        const char* size;
        qint64 width, height;
        bool resizable;
    };
    for (const auto& [size, width, height, resizable] :
         {Case{R"(<size width="+720" height=" +240" resizable="true"/>)", 720, 240, true},
          Case{R"(<size width="720" height="240" resizable="True"/>)", 720, 240, false},
          Case{R"(<size width="720" height="240" resizable="TRUE"/>)", 720, 240, false},
          Case{R"(<size width="720" height="240" resizable=" true"/>)", 720, 240, false},
          Case{R"(<size height="240" resizable="true"/>)", 0, 240, true},
          Case{R"(<size width="720"/>)", 720, 0, false},
          Case{R"(<size width="720" height="240" resizable="true"/><size/>)", 0, 0, false}}) {
        LayoutPlugin plugin(bundle("Size", QByteArray("<plugin><importance>+7</importance>") + size +
                                               R"(<object type="screen_bottom" x="+12" y="-0"/></plugin>)"),
                            false);
        ASSERT_TRUE(plugin.parse()) << size;
        EXPECT_EQ(plugin.width(), width) << size;
        EXPECT_EQ(plugin.height(), height) << size;
        EXPECT_EQ(plugin.isResizable(), resizable) << size;
        EXPECT_EQ(plugin.importance(), 7);
        EXPECT_EQ(plugin.objects(), (std::vector<LayoutObject>{ScreenObject{ScreenObject::Bottom, 12, 0}}));
    }
}

} // namespace
} // namespace zandor
