#include "CaptureScreen.h"

#include "base/Log.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace zandor {

namespace {
const char* screenName(ScreenId id) {
    switch (id) {
    case ScreenId::Top:
        return "top";
    case ScreenId::Bottom:
        return "bottom";
    case ScreenId::TopRight:
        return "top right";
    }
    return "";
}
} // namespace

CaptureScreen::CaptureScreen(ScreenId id)
    : Observable(QueueLength), m_width(screenColumns(id)), m_height(ColumnPixels), m_id(id),
      m_pool(FramePool::create(m_width * m_height * 3, QueueLength + 2)),
      m_worker(id == ScreenId::Top      ? "zandor-top"
               : id == ScreenId::Bottom ? "zandor-bottom"
                                        : "zandor-right") {}

CaptureScreen::~CaptureScreen() {
    if (!m_worker.stopAndJoin()) {
        logs::capture.warning("The thread of the %s screen did not end in time", screenName(m_id));
    }
}

bool CaptureScreen::startListening(Observable& source) {
    std::scoped_lock lock(m_lock);
    if (!m_listening) {
        m_source = &source;
        m_observer = source.addObserver(m_worker.wakeup());
        // The thread owns the run's subscription: frames still queued in it go when the thread
        // ends, not at the next start.
        m_worker.start([this, &source, observer = m_observer](const Worker::Run& run) {
            while (run.active()) {
                if (!update(source, observer)) {
                    run.wait();
                }
            }
        });
        m_listening = true;
    }
    return true;
}

void CaptureScreen::stopListening() {
    std::scoped_lock lock(m_lock);
    if (m_source) {
        m_source->removeObserver(m_observer);
    }
    m_observer = nullptr;
    m_listening = false;
    m_worker.stop();
    endDropRun();
    if (const uint64_t dropped = m_drops.endRun()) {
        logs::capture.warning(
            "%llu frames were skipped in this run as the buffer for the %s screen became too large",
            static_cast<unsigned long long>(dropped), screenName(m_id));
    }
}

bool CaptureScreen::join() {
    return m_worker.join();
}

bool CaptureScreen::isListening() {
    std::scoped_lock lock(m_lock);
    return m_listening;
}

bool CaptureScreen::update(Observable& source, const ObserverPtr& observer) {
    // The source's lock is taken only inside observe; ours only to publish.
    CaptureDataPtr raw = source.observe(observer);
    if (!raw) {
        return false;
    }
    if (!hasObservers()) {
        // Nobody looks at this screen (the right eye of a flat layout, say): no cut.
        return true;
    }
    auto frame = m_pool->take();
    frame->takeTimesOf(*raw);
    cut(raw->data(), raw->columnOrder(), m_id, frame->data());

    std::scoped_lock lock(m_lock);
    if (m_listening && add(frame) && m_drops.dropped()) {
        logs::capture.warning("Frame was skipped as the buffer for the %s screen became too large",
                              screenName(m_id));
    }
    return true;
}

void CaptureScreen::cut(const uint8_t* picture, ColumnOrder order, ScreenId id, uint8_t* rows) {
    const uint64_t width = screenColumns(id);
    if (order == ColumnOrder::Classic) {
        // The screen's columns follow each other.
        cut(picture + rawColumn(order, id, 0) * ColumnBytes, rows, width, ColumnPixels);
        return;
    }
    for (uint64_t x = 0; x < width; ++x) {
        const uint8_t* column = picture + rawColumn(order, id, x) * ColumnBytes;
        for (uint64_t j = 0; j < ColumnPixels; ++j) {
            std::memcpy(rows + 3 * ((ColumnPixels - 1 - j) * width + x), column + 3 * j, 3);
        }
    }
}

void CaptureScreen::cut(const uint8_t* area, uint8_t* rows, uint64_t width, uint64_t height) {
    // Screen pixel (x, y) is area pixel x * height + (height - 1 - y): column x of the area, read
    // from its start, runs up the screen. Area pixel j of a column is screen row height - 1 - j.
    const uint64_t columnBytes = 3 * height;
    const uint64_t rowBytes = 3 * width;
    auto pixel = [&](uint64_t x, uint64_t y) {
        std::memcpy(rows + 3 * (y * width + x), area + 3 * (x * height + (height - 1 - y)), 3);
    };
    // The fast path below builds its words in little-endian byte order.
    if constexpr (std::endian::native != std::endian::little) {
        for (uint64_t y = 0; y < height; ++y) {
            for (uint64_t x = 0; x < width; ++x) {
                pixel(x, y);
            }
        }
        return;
    }

    // The bulk goes two columns and four area pixels at a time, in 8-byte words: one load holds two
    // pixels of a column that lie above each other on the screen, one store writes two pixels side
    // by side in a row. A store's last two bytes spill onto the next pixel of its row, which a later
    // store writes; a load's last two bytes are the next pixel of the area. Both stay inside their
    // buffer as long as a column follows the pair, so the last column or two, and the rows of a
    // height that is not a multiple of four, are copied pixel by pixel at the end. Going through the
    // area four pixels deep across all columns keeps each column's current cache line in use for
    // several passes.
    auto load = [](const uint8_t* p) {
        uint64_t word;
        std::memcpy(&word, p, sizeof word);
        return word;
    };
    auto store = [](uint8_t* p, uint64_t word) { std::memcpy(p, &word, sizeof word); };
    constexpr uint64_t First = 0xFFFFFF;     // the first pixel of a word
    constexpr uint64_t Second = First << 24; // the second one
    const uint64_t pairedWidth = width > 2 ? (width - 1) & ~uint64_t{1} : 0;
    const uint64_t blockHeight = height & ~uint64_t{3};
    for (uint64_t j = 0; j < blockHeight; j += 4) {
        uint8_t* out = rows + (height - 1 - j) * rowBytes;
        const uint8_t* in = area + 3 * j;
        for (uint64_t x = 0; x < pairedWidth; x += 2) {
            const uint64_t left01 = load(in), left23 = load(in + 6);
            const uint64_t right01 = load(in + columnBytes), right23 = load(in + columnBytes + 6);
            store(out, (left01 & First) | (right01 << 24));
            store(out - rowBytes, ((left01 >> 24) & First) | (right01 & Second));
            store(out - 2 * rowBytes, (left23 & First) | (right23 << 24));
            store(out - 3 * rowBytes, ((left23 >> 24) & First) | (right23 & Second));
            in += 2 * columnBytes;
            out += 6;
        }
    }
    for (uint64_t y = 0; y < height; ++y) {
        const bool leftOverRow = height - 1 - y >= blockHeight;
        for (uint64_t x = leftOverRow ? 0 : pairedWidth; x < width; ++x) {
            pixel(x, y);
        }
    }
}

} // namespace zandor
