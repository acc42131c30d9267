#pragma once

#include "BlendImage.h"

#include <QByteArray>
#include <QList>
#include <QRect>
#include <QString>

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace zandor {

// Reads a plug-in's images for a canvas of a given size. Plug-ins come from anywhere, so an image
// is refused when its file, a side or its decoded pixels exceed the limits below, and of the rest
// only the part that can reach the canvas is decoded.
class ImageLoader {
public:
    static constexpr uint64_t MaximumFileBytes = 64 * 1024 * 1024;
    static constexpr int MaximumSide = 16384;
    // Decoded at 4 bytes a pixel.
    static constexpr qint64 MaximumDecodedBytes = 256 * 1024 * 1024;
    // The image formats read, by the names Qt gives them.
    static inline const QList<QByteArray> AllowedFormats{"png", "jpeg", "jpg", "gif", "bmp"};

    // Canvas columns and rows of an image's top-left pixel, one for each place it is drawn at.
    using Positions = std::vector<std::pair<uint64_t, uint64_t>>;

    ImageLoader(uint64_t canvasWidth, uint64_t canvasHeight) : m_width(canvasWidth), m_height(canvasHeight) {}

    // The part of the image at `path` that can reach the canvas from any of `positions`, decoded,
    // with its place in the whole image; nothing, logged, when the image breaks the limits or
    // cannot be read, and nothing, silently, when it is missing or no part of it can be seen.
    std::optional<BlendImage> load(const QString& path, const Positions& positions) const;

    // Whether an image of `size` breaks the side or decoded-size limit.
    static bool tooLarge(QSize size);

private:
    // The bounding rectangle of the parts of an image of `size` that lie on the canvas at `positions`.
    QRect visiblePart(QSize size, const Positions& positions) const;

    const uint64_t m_width;
    const uint64_t m_height;
};

} // namespace zandor
