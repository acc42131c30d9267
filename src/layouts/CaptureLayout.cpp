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

const char* screenName(size_t screen) {
    switch (static_cast<ScreenId>(screen)) {
    case ScreenId::Top:
        return "top";
    case ScreenId::Bottom:
        return "bottom";
    case ScreenId::TopRight:
        return "right-eye";
    }
    return "";
}

} // namespace

CaptureLayout::CaptureLayout(int type, QString name)
    : Observable(QueueLength), m_type(type), m_name(std::move(name)) {}

std::shared_ptr<CaptureLayout> CaptureLayout::createWithPlugin(const std::shared_ptr<LayoutPlugin>& plugin,
                                                               const std::shared_ptr<CaptureDevice>& device) {
    std::shared_ptr<CaptureLayout> layout(new CaptureLayout(PluginLayout, plugin->name()));
    layout->m_plugin = plugin;
    layout->m_device = device;
    layout->m_screens[0] = device->screen(0);
    layout->m_screens[1] = device->screen(1);
    // The right eye is waited for only by a layout that draws it.
    for (const LayoutObject& object : plugin->objects()) {
        if (const auto* screen = std::get_if<ScreenObject>(&object);
            screen && screen->screen == ScreenObject::TopRight) {
            layout->m_screens[2] = device->screen(2);
            break;
        }
    }
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
    layout->m_screens[0] = screen;
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
    m_screenData = {};
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
            drawing.kind = screen->screen == ScreenObject::Top      ? Drawing::TopScreen
                           : screen->screen == ScreenObject::Bottom ? Drawing::BottomScreen
                                                                    : Drawing::TopRightScreen;
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
    Subscriptions subscriptions{};
    for (size_t i = 0; i < ScreenCount; ++i) {
        if (m_screens[i]) {
            subscriptions[i] = m_screens[i]->addObserver(m_worker.wakeup());
        }
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
    for (size_t i = 0; i < ScreenCount; ++i) {
        if (m_screens[i]) {
            m_screens[i]->removeObserver(m_observer[i]);
        }
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
        CaptureScreen& screen = *m_screens[0];
        std::scoped_lock screenLock(screen);
        if (screen.observable(subscriptions[0])) {
            result = screen.observe(subscriptions[0]);
        }
    } else {
        ScreenFrames frames;
        if (!takeFrames(subscriptions, frames)) {
            return false;
        }
        if (!frames[0]) {
            return true; // an unmatched frame went
        }
        result = composite(std::move(frames[0]), std::move(frames[1]), std::move(frames[2]));
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

bool CaptureLayout::takeFrames(const Subscriptions& subscriptions, ScreenFrames& frames) {
    // Only this thread takes from these queues; a screen publishing meanwhile may only drop their
    // oldest frame when they are full, which take() notices.
    ScreenFrames oldest;
    uint64_t newest = 0;
    for (size_t i = 0; i < ScreenCount; ++i) {
        if (m_screens[i]) {
            oldest[i] = m_screens[i]->peek(subscriptions[i]);
            if (!oldest[i]) {
                return false;
            }
            newest = std::max(newest, oldest[i]->number());
        }
    }
    // Numbers only grow in each queue: an older frame's partners either never reached this layout
    // (it subscribed between the screens' publishing of them) or were dropped from a full queue,
    // and will not come. The older frame goes rather than be shown beside another moment.
    size_t unmatched = ScreenCount;
    CaptureDataPtr dropped;
    for (size_t i = 0; i < ScreenCount && unmatched == ScreenCount; ++i) {
        if (oldest[i] && oldest[i]->number() < newest) {
            unmatched = i;
            dropped = m_screens[i]->take(subscriptions[i], oldest[i]) ? oldest[i] : nullptr;
        }
    }
    if (unmatched == ScreenCount) {
        size_t taken = 0;
        for (size_t i = 0; i < ScreenCount; ++i) {
            if (!oldest[i]) {
                continue;
            }
            if (!m_screens[i]->take(subscriptions[i], oldest[i])) {
                if (taken == 0) {
                    return true; // dropped by its full queue just now: look again
                }
                // Its partner was dropped by its full queue just now: the first one taken goes,
                // the others' partners are gone with it and follow in the next passes.
                unmatched = 0;
                dropped = oldest[0];
                break;
            }
            ++taken;
        }
        if (unmatched == ScreenCount) {
            frames = std::move(oldest);
            return true;
        }
    }
    if (dropped) {
        std::scoped_lock lock(m_lock);
        if (m_unmatched.dropped()) {
            logs::layouts.warning(
                "Frame %llu of the %s screen was skipped for layout '%s' as the other screen "
                "has no frame of the same number",
                static_cast<unsigned long long>(dropped->number()), screenName(unmatched),
                qUtf8Printable(m_name));
        }
    }
    return true;
}

CaptureDataPtr CaptureLayout::composite(CaptureDataPtr top, CaptureDataPtr bottom, CaptureDataPtr topRight) {
    std::scoped_lock draw(m_drawMutex);
    if (!topRight) {
        topRight = top;
    }
    m_screenData = {std::move(top), std::move(bottom), std::move(topRight)};
    if (!m_pool) {
        m_pool = FramePool::create(size(), PoolBlocks);
    }
    auto result = m_pool->take();
    result->takeTimesOf(*m_screenData[0]);
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
            const bool isBottom = screen.kind == Drawing::BottomScreen;
            copyScreen(result->data(), m_screenData[screen.screen()]->data(),
                       {static_cast<double>(screen.x), static_cast<double>(screen.y),
                        static_cast<double>(isBottom ? BottomWidth : TopWidth), ScreenHeight});
        }
    } else {
        drawCanvas(true);
        std::memcpy(result->data(), m_canvas.get(), size());
    }
    // Drawn into the canvas; holding the screen frames longer would only keep them alive.
    m_screenData = {};
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
        } else if (drawing.kind != Drawing::Nothing && drawScreens) {
            source = m_screenData[drawing.screen()].get();
            rect = {static_cast<double>(drawing.x), static_cast<double>(drawing.y),
                    static_cast<double>(drawing.kind == Drawing::BottomScreen ? BottomWidth : TopWidth),
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
        return drawing.kind != Drawing::Nothing && drawing.kind != Drawing::Image;
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
        const qint64 w = drawing->kind == Drawing::BottomScreen ? BottomWidth : TopWidth;
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
