// libFuzzer target: bytes as a layout plug-in's plugin.xml, through the parser the registry uses,
// then, for a descriptor that parses, the layout it makes: canvas, images and two composited frames,
// so that the placing arithmetic meets every position the parser can give.
//
// Besides the sanitizers' faults, it fails when a refused descriptor is not named in the log or a
// parsed one breaks the parser's own limits.

#include "base/Worker.h"
#include "base/Log.h"
#include "base/QtMessages.h"
#include "capture/CaptureData.h"
#include "capture/CaptureDevice.h"
#include "capture/DemoBoard.h"
#include "layouts/CaptureLayout.h"
#include "layouts/LayoutPlugin.h"

#include <QByteArray>
#include <QHash>
#include <QDir>
#include <QImage>
#include <QTemporaryDir>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

using namespace zandor;

struct Fixture {
    QTemporaryDir folder;
    QString bundle;
    QHash<QString, QSize> imageSizes;
    std::shared_ptr<CaptureDevice> device;
};

Fixture* fixture = nullptr;

[[noreturn]] void fail(const char* why) {
    std::fprintf(stderr, "plugin fuzzer: %s\n", why);
    std::abort();
}

// A bundle whose Resources hold the images a descriptor may name: a partly transparent one, a tall
// opaque one, one wider than the usual canvases, a photo, and the photo cut off halfway.
void writeImages(const QString& resources) {
    QImage blend(24, 16, QImage::Format_RGBA8888);
    for (int y = 0; y < blend.height(); ++y) {
        for (int x = 0; x < blend.width(); ++x) {
            blend.setPixelColor(x, y, QColor(x * 10, y * 15, 99, (x * 37 + y * 11) % 256));
        }
    }
    blend.save(resources + "/a.png");
    QImage tall(3, 300, QImage::Format_RGB32);
    tall.fill(Qt::green);
    tall.save(resources + "/b.png");
    QImage wide(1500, 2, QImage::Format_ARGB32);
    wide.fill(QColor(10, 20, 30, 128));
    wide.save(resources + "/c.png");
    // JPEG decodes just a clipped part itself; PNG is decoded whole and cut.
    QImage photo(200, 150, QImage::Format_RGB32);
    for (int y = 0; y < photo.height(); ++y) {
        for (int x = 0; x < photo.width(); ++x) {
            photo.setPixel(x, y, qRgb(x, y, x ^ y));
        }
    }
    photo.save(resources + "/e.jpg", "JPEG");
    QFile file(resources + "/e.jpg");
    file.open(QIODevice::ReadOnly);
    const QByteArray cut = file.read(file.size() / 2);
    QFile broken(resources + "/d.jpg");
    broken.open(QIODevice::WriteOnly);
    broken.write(cut);
}

// Images are read from the fixture's bundle only: a name leading out of it would read whatever the
// machine holds there, which makes runs differ between machines.
bool namesOnlyBundleImages(const LayoutPlugin& plugin) {
    for (const LayoutObject& object : plugin.objects()) {
        const auto* image = std::get_if<ImageObject>(&object);
        if (image && (image->resource.contains(u'/') || image->resource == QLatin1String(".."))) {
            return false;
        }
    }
    return true;
}

// The pixels a layout touches to be made and to draw a frame: its canvas and the images' parts on
// it. The sanitizers make every pixel some ten times dearer, so layouts beyond a budget, which show
// nothing the smaller ones do not, are left to the benchmarks: an input must take well under the
// second that counts as a hang.
constexpr uint64_t PixelBudget = 500'000;

uint64_t pixelWork(const LayoutPlugin& plugin) {
    const auto side = [](qint64 length) {
        return length > 0 && length <= CaptureLayout::MaxSide ? length : 0;
    };
    const auto width = static_cast<uint64_t>(side(plugin.width())),
               height = static_cast<uint64_t>(side(plugin.height()));
    uint64_t work = width * height;
    for (const LayoutObject& object : plugin.objects()) {
        const auto* image = std::get_if<ImageObject>(&object);
        const QSize size = image ? fixture->imageSizes.value(image->resource) : QSize();
        if (size.isEmpty()) {
            continue;
        }
        const auto [left, right] =
            BlendImage::visible(static_cast<uint64_t>(image->x), static_cast<uint64_t>(size.width()), width);
        const auto [top, bottom] = BlendImage::visible(static_cast<uint64_t>(image->y),
                                                       static_cast<uint64_t>(size.height()), height);
        work += (right - left) * (bottom - top);
    }
    return work;
}

void composite(const std::shared_ptr<LayoutPlugin>& plugin) {
    auto layout = CaptureLayout::createWithPlugin(plugin, fixture->device);
    auto top = CaptureData::create(CaptureLayout::TopWidth * CaptureLayout::ScreenHeight * 3);
    auto bottom = CaptureData::create(CaptureLayout::BottomWidth * CaptureLayout::ScreenHeight * 3);
    for (uint64_t i = 0; i < top->size(); ++i) {
        top->data()[i] = static_cast<uint8_t>(i * 7);
    }
    for (uint64_t i = 0; i < bottom->size(); ++i) {
        bottom->data()[i] = static_cast<uint8_t>(i * 13);
    }
    auto right = CaptureData::create(top->size());
    for (uint64_t i = 0; i < right->size(); ++i) {
        right->data()[i] = static_cast<uint8_t>(i * 11);
    }
    // Listening resets the drawing state, so the first frame draws the whole canvas and the second
    // takes the path of a running layout. Nothing subscribes; the stop joins the layout's thread.
    layout->startListening();
    for (int frame = 0; frame < 2; ++frame) {
        if (layout->composite(top, bottom, right)->size() != layout->size()) {
            fail("a composited frame is not the canvas's size");
        }
    }
    layout->stopListening();
    if (Worker::running() != 0) {
        fail("the layout's thread did not end");
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Qt's image readers' complaints go to the log the inputs capture, as in the application.
    routeQtMessages();
    fixture = new Fixture;
    fixture->bundle = fixture->folder.path() + "/Fuzz.zdplugin";
    QDir().mkpath(fixture->bundle + "/Resources");
    writeImages(fixture->bundle + "/Resources");
    fixture->imageSizes = {{"a.png", {24, 16}},
                           {"b.png", {3, 300}},
                           {"c.png", {1500, 2}},
                           {"d.jpg", {200, 150}},
                           {"e.jpg", {200, 150}}};
    // Never started: the layouts only need its screens.
    fixture->device = CaptureDevice::create(std::make_unique<DemoBoard>());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    LogCapture log;
    auto plugin = std::make_shared<LayoutPlugin>(fixture->bundle, true);
    const bool parsed = plugin->parse(
        QByteArray::fromRawData(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size)));
    if (!parsed) {
        if (log.countPrefix("Could not parse plugin: ") != 1) {
            fail("a refused descriptor is not named by exactly one log line");
        }
        return 0;
    }
    if (plugin->objects().size() > LayoutPlugin::MaximumObjects) {
        fail("a parsed layout holds more objects than allowed");
    }
    if (namesOnlyBundleImages(*plugin) && pixelWork(*plugin) <= PixelBudget) {
        composite(plugin);
    }
    return 0;
}
