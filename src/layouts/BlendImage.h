#pragma once

#include <QImage>

#include <cstdint>
#include <utility>
#include <vector>

namespace zandor {

// A layout's decoded image (8-bit red, green, blue, alpha, not premultiplied), prepared for
// drawing: each row is split into runs of transparent pixels (which leave the canvas as it is),
// opaque ones (which replace it) and partly transparent ones (which are blended). Only the last
// need per-pixel work; the result is exactly that of blending every pixel.
//
// It may hold just a part of a larger picture, the part that can reach a canvas: `image` is then the
// part whose top-left pixel lies at (left, top) of the whole picture, and drawing places the whole.
class BlendImage {
public:
    BlendImage() = default;
    explicit BlendImage(const QImage& image, int left = 0, int top = 0);

    // The part held, in the whole picture's pixels.
    int left() const { return m_left; }
    int top() const { return m_top; }
    int width() const { return m_width; }
    int height() const { return m_height; }

    // Draws the picture with its top-left pixel at (x, y) of a canvas of 3 bytes a pixel. Positions
    // are unsigned and wrap as such; pixels that land outside the canvas are skipped.
    void draw(uint8_t* canvas, uint64_t canvasWidth, uint64_t canvasHeight, uint64_t x, uint64_t y) const;

    // The pixels c of [0, length) for which (origin + c), computed with unsigned wrap-around, falls in
    // [0, limit): one interval, returned as [first, last), empty as {0, 0}.
    static std::pair<uint64_t, uint64_t> visible(uint64_t origin, uint64_t length, uint64_t limit);

    // The blend of one colour byte: alpha * color + (1 - alpha) * old, in double precision,
    // truncated.
    static uint8_t blend(uint8_t color, double alpha, uint8_t old) {
        return static_cast<uint8_t>(alpha * color + (1.0 - alpha) * old);
    }

private:
    enum Kind : uint8_t { Transparent, Opaque, Partial };
    struct Run {
        uint32_t start;
        uint32_t length;
        Kind kind;
    };

    int m_left = 0;
    int m_top = 0;
    int m_width = 0;
    int m_height = 0;
    std::vector<uint8_t> m_rgba;      // the pixels, rows without padding
    std::vector<uint8_t> m_rgb;       // the same without alpha, for copying opaque runs
    std::vector<Run> m_runs;          // all rows' runs, in order
    std::vector<uint32_t> m_rowStart; // index in m_runs of each row's first run, and one past the last
};

} // namespace zandor
