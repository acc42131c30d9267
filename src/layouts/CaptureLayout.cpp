#include "CaptureLayout.h"

#include "base/DetachedThread.h"
#include "base/Log.h"
#include "base/Wakeup.h"
#include "capture/CaptureDevice.h"
#include "capture/CaptureScreen.h"

#include <cstring>

namespace zandor {

namespace {

// How long an idle layout thread sleeps before it looks at its flag and observers again.
constexpr std::chrono::milliseconds IdleWait{100};

const QString ScreenTop = QStringLiteral("screen_top");
const QString ScreenBottom = QStringLiteral("screen_bottom");
const QString Image = QStringLiteral("image");

// A colour component (nominally 0.0 to 1.0) as a byte: times 255, truncated, low 8 bits.
uint8_t componentByte(double component) {
    return static_cast<uint8_t>(static_cast<int64_t>(component * 255.0) & 0xFF);
}

} // namespace

CaptureLayout::CaptureLayout(int type, QString name)
    : Observable(QueueLength), m_type(type), m_name(std::move(name)), m_wakeup(std::make_shared<Wakeup>()) {}

std::shared_ptr<CaptureLayout> CaptureLayout::createWithPlugin(const std::shared_ptr<LayoutPlugin>& plugin,
                                                               const std::shared_ptr<CaptureDevice>& device) {
    std::shared_ptr<CaptureLayout> layout(new CaptureLayout(PluginLayout, plugin->name()));
    layout->m_plugin = plugin;
    layout->m_device = device;
    layout->m_top = device->screen(0);
    layout->m_bottom = device->screen(1);
    // A negative or absurd size would ask for an impossible canvas; such a layout stays empty
    // instead of taking the application down.
    if (plugin->width() > 0 && plugin->height() > 0 && plugin->width() <= MaxSide && plugin->height() <= MaxSide) {
        layout->m_width = static_cast<uint64_t>(plugin->width());
        layout->m_height = static_cast<uint64_t>(plugin->height());
    } else if (plugin->width() != 0 || plugin->height() != 0) {
        log("Layout '%s' has an unusable size of %lld by %lld pixels", qUtf8Printable(plugin->name()),
            static_cast<long long>(plugin->width()), static_cast<long long>(plugin->height()));
    }
    layout->m_resizable = plugin->isResizable();
    layout->m_background = plugin->background();
    layout->m_fromUser = plugin->fromUser();
    layout->initialize();
    return layout;
}

std::shared_ptr<CaptureLayout> CaptureLayout::createWithScreen(const std::shared_ptr<CaptureScreen>& screen,
                                                               const QString& name) {
    std::shared_ptr<CaptureLayout> layout(new CaptureLayout(ScreenLayout, name));
    layout->m_top = screen;
    layout->m_width = screen->width();
    layout->m_height = screen->height();
    layout->m_resizable = true;
    layout->m_background = Color{0, 0, 0, 1};
    layout->initialize();
    return layout;
}

void CaptureLayout::initialize() {
    std::scoped_lock draw(m_drawMutex);
    if (m_type != PluginLayout) {
        return; // a screen layout publishes its screen's frames and never draws
    }
    m_canvas.reset(new uint8_t[size()]);
    drawBackground();
    for (const QVariantMap& object : m_plugin->objects()) {
        if (object.value(ObjectType).toString() != Image || !object.contains(ObjectResource)) {
            continue;
        }
        const QString resource = object.value(ObjectResource).toString();
        QImage image(m_plugin->resourcePath(resource));
        if (!image.isNull()) {
            m_resources.insert(resource, image.convertToFormat(QImage::Format_RGBA8888));
        }
    }
    // Not listening yet: this paints the images only.
    drawCanvas(m_plugin->objects());
}

bool CaptureLayout::startListening() {
    std::scoped_lock lock(m_lock);
    if (m_listening) {
        return true;
    }
    Subscriptions subscriptions{m_top->addObserver(m_wakeup), nullptr};
    if (m_type == PluginLayout) {
        subscriptions[1] = m_bottom->addObserver(m_wakeup);
    }
    m_observer = subscriptions;
    {
        std::scoped_lock draw(m_drawMutex);
        m_firstDraw = true;
        m_objectStart = 0;
    }
    DetachedThread::start("zandor-layout", [layout = self<CaptureLayout>(), subscriptions] {
        layout->listener(subscriptions);
    });
    m_listening = true;
    return true;
}

void CaptureLayout::stopListening() {
    std::scoped_lock lock(m_lock);
    // While a consumer is still subscribed the layout goes on.
    if (!m_listening || hasObservers()) {
        return;
    }
    m_top->removeObserver(m_observer[0]);
    if (m_type == PluginLayout) {
        m_bottom->removeObserver(m_observer[1]);
    }
    m_observer = {};
    m_listening = false;
    m_wakeup->signal();
}

bool CaptureLayout::isListening() {
    std::scoped_lock lock(m_lock);
    return m_listening;
}

void CaptureLayout::listener(const Subscriptions& subscriptions) {
    for (;;) {
        {
            std::scoped_lock lock(m_lock);
            // The thread ends when listening stops, when the last consumer left, or when a new
            // start replaced its subscriptions.
            if (!m_listening || !hasObservers() || m_observer != subscriptions) {
                break;
            }
        }
        if (!update(subscriptions)) {
            m_wakeup->wait(IdleWait);
        }
    }
}

bool CaptureLayout::update(const Subscriptions& subscriptions) {
    CaptureDataPtr result;
    if (m_type == ScreenLayout) {
        std::scoped_lock screenLock(*m_top);
        if (m_top->observable(subscriptions[0])) {
            result = m_top->observe(subscriptions[0]);
        }
    } else {
        // Screen frames are paired by queue order: one from each, only when both wait.
        if (!m_top->observable(subscriptions[0]) || !m_bottom->observable(subscriptions[1])) {
            return false;
        }
        std::scoped_lock draw(m_drawMutex);
        m_topData = m_top->observe(subscriptions[0]);
        m_bottomData = m_bottom->observe(subscriptions[1]);
        if (!m_topData || !m_bottomData) {
            return false;
        }
        drawCanvas(m_plugin->objects());
        result = CaptureData::create(size());
        result->setTimestamp(m_topData->timestamp());
        std::memcpy(result->data(), m_canvas.get(), size());
        // Drawn into the canvas; holding the screen frames longer would only keep them alive.
        m_topData.reset();
        m_bottomData.reset();
    }
    if (!result) {
        return false;
    }
    std::scoped_lock lock(m_lock);
    if (m_listening && add(result)) {
        log("Frame was skipped as the buffer for layout '%s' became too large", qUtf8Printable(m_name));
    }
    return true;
}

void CaptureLayout::drawCanvas(const QList<QVariantMap>& objects) {
    const bool listening = isListening();
    uint64_t start = m_objectStart;
    if (m_firstDraw) {
        m_objectStart = static_cast<uint64_t>(objects.size());
        start = 0;
        m_firstDraw = false;
        drawBackground();
    }
    for (uint64_t i = start; i < static_cast<uint64_t>(objects.size()); ++i) {
        const QVariantMap& object = objects[static_cast<qsizetype>(i)];
        const QString type = object.value(ObjectType).toString();
        const auto x = static_cast<uint64_t>(object.value(ObjectX).toLongLong());
        const auto y = static_cast<uint64_t>(object.value(ObjectY).toLongLong());
        const CaptureData* source = nullptr;
        Rect rect{};
        if (type == Image) {
            auto image = m_resources.constFind(object.value(ObjectResource).toString());
            if (image != m_resources.constEnd()) {
                drawImage(*image, x, y);
            }
        } else if (type == ScreenTop && listening) {
            source = m_topData.get();
            rect = {static_cast<double>(x), static_cast<double>(y), TopWidth, ScreenHeight};
            setCanvasObjectStart(i);
        } else if (type == ScreenBottom && listening) {
            source = m_bottomData.get();
            rect = {static_cast<double>(x), static_cast<double>(y), BottomWidth, ScreenHeight};
            setCanvasObjectStart(i);
        }
        if (source && rect.width > 0 && rect.height > 0) {
            drawCanvasSource(source->data(), rect);
        }
    }
}

void CaptureLayout::setCanvasObjectStart(uint64_t index) {
    if (index < m_objectStart) {
        m_objectStart = index;
    }
}

void CaptureLayout::drawBackground() {
    uint8_t color[3] = {0, 0, 0};
    if (m_background) {
        color[0] = componentByte(m_background->red);
        color[1] = componentByte(m_background->green);
        color[2] = componentByte(m_background->blue);
    }
    // Alpha 1.0 replaces every pixel, so the blend of each pixel comes down to a plain fill.
    uint8_t* pixel = m_canvas.get();
    for (uint64_t i = 0, n = m_width * m_height; i < n; ++i, pixel += 3) {
        pixel[0] = color[0];
        pixel[1] = color[1];
        pixel[2] = color[2];
    }
}

void CaptureLayout::drawImage(const QImage& image, uint64_t x, uint64_t y) {
    const auto w = static_cast<uint64_t>(image.width());
    const auto h = static_cast<uint64_t>(image.height());
    if (w == 0 || h == 0) {
        return;
    }
    const uint64_t bytesPerPixel = static_cast<uint64_t>(image.bytesPerLine()) / w;
    const uint8_t* data = image.constBits();
    for (uint64_t r = 0; r < h; ++r) {
        for (uint64_t c = 0; c < w; ++c) {
            const uint8_t* pixel = data + bytesPerPixel * (r * w + c);
            drawCanvasPixelColor(pixel, pixel[3] / 255.0, x + c, y + r);
        }
    }
}

void CaptureLayout::drawCanvasSource(const uint8_t* source, Rect rect) {
    const auto rowBytes = static_cast<uint64_t>(rect.width * 3);
    const uint64_t canvasBytes = size();
    const double start = (static_cast<double>(m_width) * rect.y + rect.x) * 3;
    if (!(start < static_cast<double>(canvasBytes))) {
        return;
    }
    auto destination = static_cast<uint64_t>(start);
    // No clipping at the right edge: a row reaching past it continues into the next canvas row,
    // as the layout's author placed it. Only the end of the canvas block is a hard limit.
    for (uint64_t r = 0; r < static_cast<uint64_t>(rect.height) && destination < canvasBytes; ++r) {
        const uint64_t bytes = std::min(rowBytes, canvasBytes - destination);
        std::memcpy(m_canvas.get() + destination, source + static_cast<uint64_t>(rect.width * r * 3), bytes);
        destination += m_width * 3;
    }
}

void CaptureLayout::drawCanvasPixelColor(const uint8_t* color, double alpha, uint64_t x, uint64_t y) {
    if (x >= m_width || y >= m_height) {
        return;
    }
    uint8_t* pixel = m_canvas.get() + (y * m_width + x) * 3;
    // Alpha 0 keeps the pixel and alpha 1 replaces it: both give exactly what the blend would.
    if (alpha == 0.0) {
        return;
    }
    if (alpha == 1.0) {
        pixel[0] = color[0];
        pixel[1] = color[1];
        pixel[2] = color[2];
        return;
    }
    for (int k = 0; k < 3; ++k) {
        pixel[k] = static_cast<uint8_t>(alpha * color[k] + (1.0 - alpha) * pixel[k]);
    }
}

} // namespace zandor
