#include "DemoBoard.h"

#include "CaptureDevice.h"
#include "RawFrame.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <numbers>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace zandor {

namespace {

struct Rgb {
    uint8_t r, g, b;
};

// Paints into one screen's area of a raw frame, whose pixel (x, y) lies at pixel index
// x * height + (height - 1 - y). Rectangles are filled column by column, the order of the storage.
class RawPainter {
public:
    RawPainter(uint8_t* raw, uint64_t offset, int width, int height)
        : m_area(raw + offset), m_width(width), m_height(height) {}

    void fill(int x0, int y0, int w, int h, Rgb color) {
        int x1 = std::min(x0 + w, m_width), y1 = std::min(y0 + h, m_height);
        x0 = std::max(x0, 0);
        y0 = std::max(y0, 0);
        for (int x = x0; x < x1; ++x) {
            uint8_t* p = pixel(x, y1 - 1);
            for (int y = y1 - 1; y >= y0; --y, p += 3) {
                p[0] = color.r;
                p[1] = color.g;
                p[2] = color.b;
            }
        }
    }

    // Text in a 5 x 7 font, each font dot `scale` pixels square.
    void text(int x, int y, std::string_view s, int scale, Rgb color) {
        for (char c : s) {
            const auto& glyph = glyphFor(c);
            for (int row = 0; row < 7; ++row) {
                for (int col = 0; col < 5; ++col) {
                    if (glyph[row] & (0x10 >> col)) {
                        fill(x + col * scale, y + row * scale, scale, scale, color);
                    }
                }
            }
            x += 6 * scale;
        }
    }

private:
    uint8_t* pixel(int x, int y) {
        return m_area + 3 * (static_cast<uint64_t>(x) * m_height + (m_height - 1 - y));
    }

    static const std::array<uint8_t, 7>& glyphFor(char c) {
        static const std::array<uint8_t, 7> digits[10] = {
            {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}, {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},
            {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}, {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},
            {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}, {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},
            {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}, {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
            {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}, {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C},
        };
        static const std::array<uint8_t, 7> letterB{0x1E, 0x11, 0x11, 0x1E, 0x11, 0x11, 0x1E};
        static const std::array<uint8_t, 7> letterG{0x0E, 0x11, 0x10, 0x17, 0x11, 0x11, 0x0F};
        static const std::array<uint8_t, 7> letterH{0x11, 0x11, 0x11, 0x1F, 0x11, 0x11, 0x11};
        static const std::array<uint8_t, 7> letterI{0x0E, 0x04, 0x04, 0x04, 0x04, 0x04, 0x0E};
        static const std::array<uint8_t, 7> letterR{0x1E, 0x11, 0x11, 0x1E, 0x14, 0x12, 0x11};
        static const std::array<uint8_t, 7> letterM{0x11, 0x1B, 0x15, 0x15, 0x11, 0x11, 0x11};
        static const std::array<uint8_t, 7> letterO{0x0E, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0E};
        static const std::array<uint8_t, 7> letterP{0x1E, 0x11, 0x11, 0x1E, 0x10, 0x10, 0x10};
        static const std::array<uint8_t, 7> letterT{0x1F, 0x04, 0x04, 0x04, 0x04, 0x04, 0x04};
        static const std::array<uint8_t, 7> blank{};
        if (c >= '0' && c <= '9') {
            return digits[c - '0'];
        }
        switch (c) {
        case 'B':
            return letterB;
        case 'G':
            return letterG;
        case 'H':
            return letterH;
        case 'I':
            return letterI;
        case 'R':
            return letterR;
        case 'M':
            return letterM;
        case 'O':
            return letterO;
        case 'P':
            return letterP;
        case 'T':
            return letterT;
        default:
            return blank;
        }
    }

    uint8_t* m_area;
    int m_width;
    int m_height;
};

// Position on a back-and-forth path of `span` steps, `step` steps per frame.
int bounce(uint64_t frame, int step, int span) {
    if (span <= 0) {
        return 0;
    }
    auto t = static_cast<int>((frame * static_cast<uint64_t>(step)) % static_cast<uint64_t>(2 * span));
    return t < span ? t : 2 * span - t;
}

constexpr std::array<Rgb, 7> Bars{{
    {235, 235, 235},
    {235, 235, 16},
    {16, 235, 235},
    {16, 235, 16},
    {235, 16, 235},
    {235, 16, 16},
    {16, 16, 235},
}};

// The still part of every frame: a vertical gradient per screen with a faint grid, computed once.
const uint8_t* background() {
    static const std::unique_ptr<uint8_t[]> raw = [] {
        std::unique_ptr<uint8_t[]> block(new uint8_t[raw::FrameBytes]);
        auto paint = [&](uint64_t offset, int width, int height, Rgb from, Rgb to) {
            RawPainter painter(block.get(), offset, width, height);
            for (int y = 0; y < height; ++y) {
                auto mix = [&](uint8_t a, uint8_t b) {
                    return static_cast<uint8_t>(a + (b - a) * y / (height - 1));
                };
                painter.fill(0, y, width, 1, {mix(from.r, to.r), mix(from.g, to.g), mix(from.b, to.b)});
            }
            Rgb grid{70, 70, 90};
            for (int x = 0; x < width; x += 40) {
                painter.fill(x, 0, 1, height, grid);
            }
            for (int y = 0; y < height; y += 40) {
                painter.fill(0, y, width, 1, grid);
            }
        };
        paint(raw::TopOffset, raw::TopWidth, raw::TopHeight, {20, 24, 60}, {70, 20, 90});
        paint(raw::BottomOffset, raw::BottomWidth, raw::BottomHeight, {10, 50, 50}, {20, 20, 40});
        return block;
    }();
    return raw.get();
}

void paintScreen(uint8_t* raw, uint64_t frame, uint64_t offset, int width, int height, std::string_view label,
                 Rgb marker, int markerShift = 0) {
    RawPainter painter(raw, offset, width, height);
    char counter[16];
    std::snprintf(counter, sizeof counter, "%06llu", static_cast<unsigned long long>(frame % 1000000));
    painter.text(8, 8, label, 3, {255, 255, 255});
    painter.text(8, 36, counter, 3, {255, 220, 80});

    // Colour bars scrolling to the right, two pixels a frame.
    const int barWidth = 24, barTop = height - 70, barHeight = 30;
    const int shift = static_cast<int>((frame * 2) % (barWidth * Bars.size()));
    for (int x = -barWidth * static_cast<int>(Bars.size()); x < width; x += barWidth) {
        int start = x + shift;
        size_t index = static_cast<size_t>((x / barWidth + 2 * Bars.size()) % Bars.size());
        painter.fill(start, barTop, barWidth, barHeight, Bars[index]);
    }

    // The number as blocks, on a black strip a little wider than them.
    painter.fill(DemoBoard::CountX - 2, DemoBoard::CountY - 2,
                 DemoBoard::CountBits * DemoBoard::CountBlock + 4, DemoBoard::CountBlock + 4, {0, 0, 0});
    for (int bit = 0; bit < DemoBoard::CountBits; ++bit) {
        if ((frame >> (DemoBoard::CountBits - 1 - bit)) & 1) {
            painter.fill(DemoBoard::CountX + bit * DemoBoard::CountBlock, DemoBoard::CountY,
                         DemoBoard::CountBlock, DemoBoard::CountBlock, {255, 255, 255});
        }
    }

    // A marker bouncing around the screen's free middle.
    const int size = 20, top = 70, bottom = barTop - 4;
    int mx = bounce(frame, 3, width - size) + markerShift, my = top + bounce(frame, 2, bottom - top - size);
    painter.fill(mx - 2, my - 2, size + 4, size + 4, {0, 0, 0});
    painter.fill(mx, my, size, size, marker);
}

} // namespace

DemoBoard::DemoBoard() : m_frame(new uint8_t[zandor::pictureBytes(ColumnOrder::Ft601ThreeD)]) {
    const char* flash = std::getenv("ZANDOR_DEMO_FLASH");
    m_flashes = flash && std::string_view(flash) == "1";
}

DemoBoard::~DemoBoard() = default;

void DemoBoard::render(uint64_t frame, uint8_t* raw) {
    std::memcpy(raw, background(), raw::FrameBytes);
    paintScreen(raw, frame, raw::TopOffset, raw::TopWidth, raw::TopHeight, "TOP", {255, 80, 80});
    paintScreen(raw, frame, raw::BottomOffset, raw::BottomWidth, raw::BottomHeight, "BOTTOM", {80, 255, 120});
}

void DemoBoard::renderRightEye(uint64_t frame, uint8_t* raw) {
    std::memcpy(raw, background() + raw::TopOffset, raw::BottomOffset - raw::TopOffset);
    paintScreen(raw, frame, 0, raw::TopWidth, raw::TopHeight, "RIGHT", {255, 80, 80}, -Parallax);
}

void DemoBoard::render3D(uint64_t frame) {
    constexpr uint64_t Flat = raw::FrameBytes;
    if (!m_eyes) {
        m_eyes.reset(new uint8_t[Flat + raw::BottomOffset]);
    }
    render(frame, m_eyes.get());
    renderRightEye(frame, m_eyes.get() + Flat);
    // Column by column into the order of the board's 3D firmware.
    constexpr auto order = ColumnOrder::Ft601ThreeD;
    uint8_t* out = m_frame.get();
    for (uint64_t x = 0; x < raw::TopWidth; ++x) {
        std::memcpy(out + rawColumn(order, ScreenId::Top, x) * ColumnBytes, m_eyes.get() + x * ColumnBytes,
                    ColumnBytes);
        std::memcpy(out + rawColumn(order, ScreenId::TopRight, x) * ColumnBytes,
                    m_eyes.get() + Flat + x * ColumnBytes, ColumnBytes);
    }
    for (uint64_t x = 0; x < raw::BottomWidth; ++x) {
        std::memcpy(out + rawColumn(order, ScreenId::Bottom, x) * ColumnBytes,
                    m_eyes.get() + raw::BottomOffset + x * ColumnBytes, ColumnBytes);
    }
}

uint64_t DemoBoard::pictureBytes() {
    m_sending3D = m_wants3D;
    return zandor::pictureBytes(m_sending3D ? ColumnOrder::Ft601ThreeD : ColumnOrder::Classic);
}

void DemoBoard::fill(uint64_t frame, uint64_t offset, uint8_t* destination, uint64_t length) {
    if (m_rendered != static_cast<int64_t>(frame) || m_rendered3D != m_sending3D) {
        // The frame read nearest each whole second flashes: the first one read less than half a
        // frame period before it, or after it. A fixed window would miss seconds now and then: the
        // board's pace is never exactly 60 frames a second. After a pause in the reads (the cable
        // pulled, a stalled reader) the first frame is in a new second too, but far from its
        // start: it does not flash, or two flashes would come a fraction of a second apart.
        const auto sinceEpoch =
            (std::chrono::system_clock::now() + CaptureDevice::DefaultFramePeriod / 2).time_since_epoch();
        const auto second = std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch);
        const bool flash = m_flashes && m_flashSecond >= 0 && second.count() != m_flashSecond &&
                           sinceEpoch - second < LatestFlash;
        m_flashSecond = second.count();
        if (flash || (!m_flashes && frame % CaptureDevice::NominalFramesPerSecond == 0)) {
            m_beepStart = static_cast<int64_t>(frame);
        }
        if (flash) {
            std::memset(m_frame.get(), 255,
                        zandor::pictureBytes(m_sending3D ? ColumnOrder::Ft601ThreeD : ColumnOrder::Classic));
        } else if (m_sending3D) {
            render3D(frame);
        } else {
            render(frame, m_frame.get());
        }
        m_rendered = static_cast<int64_t>(frame);
        m_rendered3D = m_sending3D;
    }
    std::memcpy(destination, m_frame.get() + offset, length);
}

uint64_t DemoBoard::firstSample(uint64_t frame) {
    // The sound clock's ticks (67027964 a second) over 2048 a sample and 60 frames a second.
    return frame * 67027964 / (2048 * CaptureDevice::NominalFramesPerSecond);
}

uint64_t DemoBoard::soundBytes(uint64_t frame) {
    return samples(frame) * raw::SoundChannels * sizeof(int16_t);
}

void DemoBoard::fillSound(uint64_t frame, uint64_t offset, uint8_t* destination, uint64_t length) {
    const bool beeping = m_toneHertz > 0 || (m_beepStart >= 0 && frame - static_cast<uint64_t>(m_beepStart) <
                                                                     static_cast<uint64_t>(BeepFrames));
    const double hertz = m_toneHertz > 0 ? m_toneHertz : BeepHertz;
    const uint64_t first = firstSample(frame);
    // Value by value, each written byte by byte: a read may start or end inside one.
    for (uint64_t byte = offset; byte < offset + length;) {
        const uint64_t value = byte / 2;
        int16_t sample = 0;
        if (beeping) {
            const double phase = 2 * std::numbers::pi * hertz *
                                 static_cast<double>(first + value / raw::SoundChannels) / raw::SoundRate;
            sample = static_cast<int16_t>(std::lround(Amplitude * std::sin(phase)));
        }
        const auto bits = static_cast<uint16_t>(sample);
        for (; byte < offset + length && byte / 2 == value; ++byte) {
            destination[byte - offset] = static_cast<uint8_t>(byte % 2 ? bits >> 8 : bits & 0xFF);
        }
    }
}

} // namespace zandor
