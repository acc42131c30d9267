#include "BlendImage.h"

#include <algorithm>
#include <cstring>

namespace zandor {

std::pair<uint64_t, uint64_t> BlendImage::visible(uint64_t origin, uint64_t length, uint64_t limit) {
    uint64_t first = origin < limit ? 0 : 0 - origin;
    uint64_t last = origin < limit ? limit - origin : first + limit;
    if (first >= length) {
        return {0, 0};
    }
    return {first, std::min(last, length)};
}

BlendImage::BlendImage(const QImage& image, int left, int top)
    : m_left(left), m_top(top), m_width(image.width()), m_height(image.height()) {
    const QImage rgba = image.convertToFormat(QImage::Format_RGBA8888);
    const auto w = static_cast<size_t>(m_width);
    m_rgba.resize(w * static_cast<size_t>(m_height) * 4);
    m_rgb.resize(w * static_cast<size_t>(m_height) * 3);
    m_rowStart.push_back(0);
    for (int r = 0; r < m_height; ++r) {
        std::memcpy(m_rgba.data() + w * 4 * static_cast<size_t>(r), rgba.constScanLine(r), w * 4);
        const uint8_t* row = m_rgba.data() + w * 4 * static_cast<size_t>(r);
        for (size_t c = 0; c < w; ++c) {
            std::memcpy(m_rgb.data() + (w * static_cast<size_t>(r) + c) * 3, row + c * 4, 3);
            const uint8_t alpha = row[c * 4 + 3];
            const Kind kind = alpha == 0 ? Transparent : alpha == 255 ? Opaque : Partial;
            if (c > 0 && m_runs.back().kind == kind) {
                ++m_runs.back().length;
            } else {
                m_runs.push_back({static_cast<uint32_t>(c), 1, kind});
            }
        }
        m_rowStart.push_back(static_cast<uint32_t>(m_runs.size()));
    }
}

void BlendImage::draw(uint8_t* canvas, uint64_t canvasWidth, uint64_t canvasHeight, uint64_t x,
                      uint64_t y) const {
    // The part's own top-left pixel; unsigned, so the sum wraps as the positions do.
    x += static_cast<uint64_t>(m_left);
    y += static_cast<uint64_t>(m_top);
    const auto [firstColumn, lastColumn] = visible(x, static_cast<uint64_t>(m_width), canvasWidth);
    const auto [firstRow, lastRow] = visible(y, static_cast<uint64_t>(m_height), canvasHeight);
    if (firstColumn >= lastColumn) {
        return;
    }
    const auto w = static_cast<uint64_t>(m_width);
    for (uint64_t r = firstRow; r < lastRow; ++r) {
        uint8_t* canvasRow = canvas + (y + r) * canvasWidth * 3;
        for (uint32_t i = m_rowStart[r]; i < m_rowStart[r + 1]; ++i) {
            const Run& run = m_runs[i];
            const uint64_t from = std::max<uint64_t>(run.start, firstColumn);
            const uint64_t to = std::min<uint64_t>(run.start + run.length, lastColumn);
            if (from >= to || run.kind == Transparent) {
                continue;
            }
            uint8_t* target = canvasRow + (x + from) * 3;
            if (run.kind == Opaque) {
                std::memcpy(target, m_rgb.data() + (r * w + from) * 3, (to - from) * 3);
                continue;
            }
            const uint8_t* pixel = m_rgba.data() + (r * w + from) * 4;
            for (uint64_t c = from; c < to; ++c, pixel += 4, target += 3) {
                const double alpha = pixel[3] / 255.0;
                target[0] = blend(pixel[0], alpha, target[0]);
                target[1] = blend(pixel[1], alpha, target[1]);
                target[2] = blend(pixel[2], alpha, target[2]);
            }
        }
    }
}

} // namespace zandor
