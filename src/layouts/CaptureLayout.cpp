#include "CaptureLayout.h"

#include "ImageLoader.h"
#include "base/Log.h"
#include "capture/CaptureDevice.h"
#include "capture/CaptureScreen.h"

#include <QHash>

#include <algorithm>
#include <cstring>

namespace zandor {

namespace {

// A colour component (nominally 0.0 to 1.0) as a byte: times 255, truncated, low 8 bits.
uint8_t componentByte(double component) {
    return static_cast<uint8_t>(static_cast<int64_t>(component * 255.0) & 0xFF);
}

} // namespace

CaptureLayout::CaptureLayout(int type, QString name)
    : Observable(QueueLength), m_type(type), m_name(std::move(name)) {}

std::shared_ptr<CaptureLayout> CaptureLayout::createWithPlugin(const std::shared_ptr<LayoutPlugin>& plugin,
                                                               const std::shared_ptr<CaptureDevice>& device) {
    std::shared_ptr<CaptureLayout> layout(new CaptureLayout(PluginLayout, plugin->name()));
    layout->m_plugin = plugin;
    layout->m_device = device;
    layout->m_top = device->screen(0);
    layout->m_bottom = device->screen(1);
    // A negative or absurd size would ask for an impossible canvas; such a layout stays empty
    // instead of taking the application down.
    if (plugin->width() > 0 && plugin->height() > 0 && plugin->width() <= MaxSide &&
        plugin->height() <= MaxSide) {
        layout->m_width = static_cast<uint64_t>(plugin->width());
        layout->m_height = static_cast<uint64_t>(plugin->height());
    } else if (plugin->width() != 0 || plugin->height() != 0) {
        logs::layouts.warning("Layout '%s' has an unusable size of %lld by %lld pixels",
                              qUtf8Printable(plugin->name()), static_cast<long long>(plugin->width()),
                              static_cast<long long>(plugin->height()));
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
    if (m_type != PluginLayout || size() == 0) {
        return; // a screen layout publishes its screen's frames and never draws
    }
    if (!makeCanvas(false)) {
        logs::layouts.warning(
            "Layout '%s' stays empty until it is shown: its canvas of %llu MB would take the "
            "layouts beyond the %llu MB their canvases may take together",
            qUtf8Printable(m_name), static_cast<unsigned long long>(size() >> 20),
            static_cast<unsigned long long>(CanvasBudget::instance().limit() >> 20));
    }
}

bool CaptureLayout::hasCanvas() {
    std::scoped_lock draw(m_drawMutex);
    return m_canvas != nullptr;
}

bool CaptureLayout::makeCanvas(bool mayDrop) {
    if (hasCanvas()) {
        return true;
    }
    if (!CanvasBudget::instance().reserve(self<CaptureLayout>(), size(), mayDrop)) {
        return false;
    }
    std::scoped_lock draw(m_drawMutex);
    if (!m_canvas) {
        m_canvas.reset(new uint8_t[size()]);
        drawBackground();
        loadImages();
        findStaticSpans();
        // Not listening yet: this paints the images only.
        drawCanvas(false);
    }
    return true;
}

uint64_t CaptureLayout::dropCanvasIfIdle() {
    std::scoped_lock lock(m_lock);
    if (m_listening || hasObservers()) {
        return 0;
    }
    std::scoped_lock draw(m_drawMutex);
    if (!m_canvas) {
        return 0;
    }
    m_canvas.reset();
    m_drawings.clear();
    m_images.clear();
    m_staticSpans.clear();
    m_direct = false;
    m_pool.reset(); // the frames of the last run: as large as the canvas
    m_topData.reset();
    m_bottomData.reset();
    return size();
}

void CaptureLayout::loadImages() {
    const auto& objects = m_plugin->objects();
    // Where each image is placed, in the order the images first appear.
    QStringList resources;
    QHash<QString, ImageLoader::Positions> positions;
    for (const LayoutObject& object : objects) {
        if (const auto* image = std::get_if<ImageObject>(&object)) {
            if (!positions.contains(image->resource)) {
                resources.append(image->resource);
            }
            positions[image->resource].emplace_back(static_cast<uint64_t>(image->x),
                                                    static_cast<uint64_t>(image->y));
        }
    }
    const ImageLoader loader(m_width, m_height);
    QHash<QString, size_t> loaded;
    m_images.reserve(static_cast<size_t>(resources.size()));
    for (const QString& resource : resources) {
        if (auto image = loader.load(m_plugin->resourcePath(resource), positions[resource])) {
            loaded.insert(resource, m_images.size());
            m_images.push_back(std::move(*image));
        }
    }
    m_drawings.reserve(objects.size());
    for (const LayoutObject& object : objects) {
        const auto [x, y] = objectPosition(object);
        Drawing drawing{Drawing::Nothing, static_cast<uint64_t>(x), static_cast<uint64_t>(y), nullptr};
        if (const auto* screen = std::get_if<ScreenObject>(&object)) {
            drawing.kind = screen->screen == ScreenObject::Top ? Drawing::TopScreen : Drawing::BottomScreen;
        } else if (const auto* image = std::get_if<ImageObject>(&object)) {
            if (const auto found = loaded.constFind(image->resource); found != loaded.constEnd()) {
                drawing.kind = Drawing::Image;
                drawing.image = &m_images[*found];
            }
        }
        m_drawings.push_back(drawing);
    }
}

bool CaptureLayout::startListening() {
    if (isListening()) {
        return true;
    }
    // The thread of a run that ended (stopped, or left by its last consumer) may be finishing; it
    // takes our lock. One that does not end in time acts no more for the layout: the new run starts
    // beside it, and it is joined later.
    if (!m_worker.join()) {
        logs::layouts.warning("Layout '%s' starts again while its last run is still ending",
                              qUtf8Printable(m_name));
    }
    // The canvas is made first, holding no lock of ours: the budget may let other layouts'
    // canvases go, and another start may let ours go before we hold our lock, so it is looked for
    // again under it.
    for (int attempt = 0; m_type == PluginLayout && size() > 0; ++attempt) {
        if (attempt == 3 || !makeCanvas(true)) {
            logs::layouts.warning("Layout '%s' cannot run: its canvas of %llu MB and those of the layouts "
                                  "running would take more than the %llu MB their canvases may take together",
                                  qUtf8Printable(m_name), static_cast<unsigned long long>(size() >> 20),
                                  static_cast<unsigned long long>(CanvasBudget::instance().limit() >> 20));
            return false;
        }
        std::scoped_lock lock(m_lock);
        if (m_listening || hasCanvas()) {
            break;
        }
    }
    std::scoped_lock lock(m_lock);
    if (m_listening) {
        return true;
    }
    if (m_type == PluginLayout && size() > 0 && !hasCanvas()) {
        return false; // let go again at once: another start wants the room
    }
    Subscriptions subscriptions{m_top->addObserver(m_worker.wakeup()), nullptr};
    if (m_type == PluginLayout) {
        subscriptions[1] = m_bottom->addObserver(m_worker.wakeup());
    }
    m_observer = subscriptions;
    {
        std::scoped_lock draw(m_drawMutex);
        m_firstDraw = true;
        m_objectStart = 0;
    }
    m_worker.start([layout = self<CaptureLayout>(), subscriptions](const Worker::Run& run) {
        layout->listener(run, subscriptions);
    });
    m_listening = true;
    return true;
}

void CaptureLayout::stopListening() {
    {
        std::scoped_lock lock(m_lock);
        // While a consumer is still subscribed the layout goes on.
        if (hasObservers()) {
            return;
        }
        if (m_listening) {
            endRun();
        }
    }
    // Also the thread of a run its last consumer ended.
    if (!m_worker.join()) {
        logs::layouts.warning("Layout '%s' stopped, but its thread is still ending", qUtf8Printable(m_name));
    }
}

void CaptureLayout::endRun() {
    m_top->removeObserver(m_observer[0]);
    if (m_type == PluginLayout) {
        m_bottom->removeObserver(m_observer[1]);
    }
    m_observer = {};
    m_listening = false;
    endDropRun();
    if (const uint64_t dropped = m_drops.endRun()) {
        logs::layouts.warning(
            "%llu frames were skipped in this run as the buffer for layout '%s' became too large",
            static_cast<unsigned long long>(dropped), qUtf8Printable(m_name));
    }
    if (const uint64_t unmatched = m_unmatched.endRun()) {
        logs::layouts.warning("%llu screen frames without a partner of the same number were skipped in this "
                              "run of layout '%s'",
                              static_cast<unsigned long long>(unmatched), qUtf8Printable(m_name));
    }
    m_worker.stop();
}

bool CaptureLayout::isListening() {
    std::scoped_lock lock(m_lock);
    return m_listening;
}

void CaptureLayout::listener(const Worker::Run& run, const Subscriptions& subscriptions) {
    for (;;) {
        {
            std::scoped_lock lock(m_lock);
            if (!run.active()) {
                break;
            }
            // The last consumer left without a stop: the run ends here; a later start or stop,
            // or the layout's end, joins this thread.
            if (!hasObservers()) {
                endRun();
                break;
            }
        }
        if (!update(subscriptions)) {
            run.wait();
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
        CaptureDataPtr top, bottom;
        if (!takePair(subscriptions, top, bottom)) {
            return false;
        }
        if (!top || !bottom) {
            return true; // an unmatched frame went
        }
        result = composite(std::move(top), std::move(bottom));
    }
    if (!result) {
        return false;
    }
    std::scoped_lock lock(m_lock);
    if (m_listening && add(result) && m_drops.dropped()) {
        logs::layouts.warning("Frame was skipped as the buffer for layout '%s' became too large",
                              qUtf8Printable(m_name));
    }
    return true;
}

bool CaptureLayout::takePair(const Subscriptions& subscriptions, CaptureDataPtr& top,
                             CaptureDataPtr& bottom) {
    // Only this thread takes from these queues; a screen publishing meanwhile may only drop their
    // oldest frame when they are full, which take() notices.
    CaptureDataPtr oldestTop = m_top->peek(subscriptions[0]);
    CaptureDataPtr oldestBottom = m_bottom->peek(subscriptions[1]);
    if (!oldestTop || !oldestBottom) {
        return false;
    }
    // Numbers only grow in each queue: the older frame's partner either never reached this layout
    // (it subscribed between the two screens' publishing of it) or was dropped from a full queue,
    // and will not come. The older frame goes rather than be shown beside another moment.
    const char* unmatched = nullptr;
    CaptureDataPtr dropped;
    if (oldestTop->number() < oldestBottom->number()) {
        unmatched = "top";
        dropped = m_top->take(subscriptions[0], oldestTop) ? oldestTop : nullptr;
    } else if (oldestBottom->number() < oldestTop->number()) {
        unmatched = "bottom";
        dropped = m_bottom->take(subscriptions[1], oldestBottom) ? oldestBottom : nullptr;
    } else if (!m_top->take(subscriptions[0], oldestTop)) {
        return true; // dropped by its full queue just now: look again
    } else if (!m_bottom->take(subscriptions[1], oldestBottom)) {
        // Its partner was dropped by its full queue just now.
        unmatched = "top";
        dropped = oldestTop;
    } else {
        top = std::move(oldestTop);
        bottom = std::move(oldestBottom);
        return true;
    }
    if (dropped) {
        std::scoped_lock lock(m_lock);
        if (m_unmatched.dropped()) {
            logs::layouts.warning(
                "Frame %llu of the %s screen was skipped for layout '%s' as the other screen "
                "has no frame of the same number",
                static_cast<unsigned long long>(dropped->number()), unmatched, qUtf8Printable(m_name));
        }
    }
    return true;
}

CaptureDataPtr CaptureLayout::composite(CaptureDataPtr top, CaptureDataPtr bottom) {
    std::scoped_lock draw(m_drawMutex);
    m_topData = std::move(top);
    m_bottomData = std::move(bottom);
    if (!m_pool) {
        m_pool = FramePool::create(size(), PoolBlocks);
    }
    auto result = m_pool->take();
    result->takeTimesOf(*m_topData);
    if (!m_canvas) {
        // Nothing to draw on: a layout of no size, or one the canvas budget had no room for (which
        // never runs; benchmarks and the fuzzer call this directly).
        if (size() > 0) {
            std::memset(result->data(), 0, size());
        }
    } else if (m_direct && !m_firstDraw) {
        for (const auto& [offset, length] : m_staticSpans) {
            std::memcpy(result->data() + offset, m_canvas.get() + offset, length);
        }
        // Every drawing from m_objectStart on is a screen (see findStaticSpans).
        for (auto i = m_objectStart; i < m_drawings.size(); ++i) {
            const Drawing& screen = m_drawings[i];
            const bool isTop = screen.kind == Drawing::TopScreen;
            copyScreen(result->data(), (isTop ? m_topData : m_bottomData)->data(),
                       {static_cast<double>(screen.x), static_cast<double>(screen.y),
                        static_cast<double>(isTop ? TopWidth : BottomWidth), ScreenHeight});
        }
    } else {
        drawCanvas(true);
        std::memcpy(result->data(), m_canvas.get(), size());
    }
    // Drawn into the canvas; holding the screen frames longer would only keep them alive.
    m_topData.reset();
    m_bottomData.reset();
    return result;
}

void CaptureLayout::drawCanvas(bool drawScreens) {
    uint64_t start = m_objectStart;
    if (m_firstDraw) {
        m_objectStart = m_drawings.size();
        start = 0;
        m_firstDraw = false;
        drawBackground();
    }
    for (uint64_t i = start; i < m_drawings.size(); ++i) {
        const Drawing& drawing = m_drawings[i];
        const CaptureData* source = nullptr;
        Rect rect{};
        if (drawing.kind == Drawing::Image) {
            drawImage(*drawing.image, drawing.x, drawing.y);
        } else if (drawing.kind == Drawing::TopScreen && drawScreens) {
            source = m_topData.get();
            rect = {static_cast<double>(drawing.x), static_cast<double>(drawing.y), TopWidth, ScreenHeight};
            setCanvasObjectStart(i);
        } else if (drawing.kind == Drawing::BottomScreen && drawScreens) {
            source = m_bottomData.get();
            rect = {static_cast<double>(drawing.x), static_cast<double>(drawing.y), BottomWidth,
                    ScreenHeight};
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

void CaptureLayout::drawImage(const BlendImage& image, uint64_t x, uint64_t y) {
    // Pixel for pixel the blend of drawCanvasPixelColor, clipped the same way, in runs.
    image.draw(m_canvas.get(), m_width, m_height, x, y);
}

void CaptureLayout::findStaticSpans() {
    auto isScreen = [](const Drawing& drawing) {
        return drawing.kind == Drawing::TopScreen || drawing.kind == Drawing::BottomScreen;
    };
    auto first = std::find_if(m_drawings.begin(), m_drawings.end(), isScreen);
    if (first == m_drawings.end()) {
        return;
    }
    // Per canvas row, which columns the screens cover.
    std::vector<std::vector<std::pair<uint64_t, uint64_t>>> covered(m_height);
    for (auto drawing = first; drawing != m_drawings.end(); ++drawing) {
        if (!isScreen(*drawing)) {
            return;
        }
        // Positions as written, signed.
        const auto x = static_cast<qint64>(drawing->x), y = static_cast<qint64>(drawing->y);
        const qint64 w = drawing->kind == Drawing::TopScreen ? TopWidth : BottomWidth;
        // Compared so that positions near the ends of the 64-bit range cannot overflow.
        if (x < 0 || y < 0 || x > static_cast<qint64>(m_width) - w ||
            y > static_cast<qint64>(m_height) - static_cast<qint64>(ScreenHeight)) {
            return;
        }
        for (auto row = static_cast<uint64_t>(y); row < static_cast<uint64_t>(y) + ScreenHeight; ++row) {
            covered[row].push_back({static_cast<uint64_t>(x), static_cast<uint64_t>(x + w)});
        }
    }
    for (uint64_t row = 0; row < m_height; ++row) {
        auto& spans = covered[row];
        std::sort(spans.begin(), spans.end());
        uint64_t column = 0;
        auto keep = [&](uint64_t from, uint64_t to) {
            const uint64_t offset = (row * m_width + from) * 3, length = (to - from) * 3;
            if (!m_staticSpans.empty() &&
                m_staticSpans.back().first + m_staticSpans.back().second == offset) {
                m_staticSpans.back().second += length; // joins whole rows into one copy
            } else {
                m_staticSpans.push_back({offset, length});
            }
        };
        for (const auto& [from, to] : spans) {
            if (from > column) {
                keep(column, from);
            }
            column = std::max(column, to);
        }
        if (column < m_width) {
            keep(column, m_width);
        }
    }
    m_direct = true;
}

void CaptureLayout::copyScreen(uint8_t* target, const uint8_t* source, Rect rect) const {
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
        std::memcpy(target + destination, source + static_cast<uint64_t>(rect.width * r * 3), bytes);
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
        pixel[k] = BlendImage::blend(color[k], alpha, pixel[k]);
    }
}

} // namespace zandor
