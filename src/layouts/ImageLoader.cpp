#include "ImageLoader.h"

#include "base/Log.h"
#include "base/RegularFile.h"

#include <QBuffer>
#include <QFile>
#include <QImageReader>

#include <cerrno>

namespace zandor {

bool ImageLoader::tooLarge(QSize size) {
    return size.width() > MaximumSide || size.height() > MaximumSide ||
           qint64(size.width()) * size.height() * 4 > MaximumDecodedBytes;
}

QRect ImageLoader::visiblePart(QSize size, const Positions& positions) const {
    QRect part;
    for (const auto& [x, y] : positions) {
        const auto [firstColumn, lastColumn] = BlendImage::visible(x, uint64_t(size.width()), m_width);
        const auto [firstRow, lastRow] = BlendImage::visible(y, uint64_t(size.height()), m_height);
        if (firstColumn < lastColumn && firstRow < lastRow) {
            // Within the image's size, so all of these fit an int.
            part |= QRect(int(firstColumn), int(firstRow), int(lastColumn - firstColumn),
                          int(lastRow - firstRow));
        }
    }
    return part;
}

std::optional<BlendImage> ImageLoader::load(const QString& path, const Positions& positions) const {
    const Result<std::string> read =
        RegularFile::read(QFile::encodeName(path).toStdString(), MaximumFileBytes);
    if (!read) {
        // A missing image is no fault of the plug-in's descriptor: it just draws nothing.
        if (const Error error = read.error(); error.systemCode() != ENOENT) {
            logs::layouts.warning("Could not parse plugin: image %s: %s", qUtf8Printable(path),
                                  RegularFile::describe(error).c_str());
        }
        return std::nullopt;
    }
    const std::string& bytes = *read;
    QByteArray data = QByteArray::fromRawData(bytes.data(), static_cast<qsizetype>(bytes.size()));
    QBuffer buffer(&data);
    buffer.open(QIODevice::ReadOnly);
    // The format is told by the content, then the reader decodes that format only. Of the formats
    // Qt can read, those that can reach out of the file or take unbounded time to draw (SVG) are
    // not among them.
    const QByteArray format = QImageReader::imageFormat(&buffer);
    if (!AllowedFormats.contains(format)) {
        logs::layouts.warning("Could not parse plugin: image %s: it is not a PNG, JPEG, GIF or BMP image",
                              qUtf8Printable(path));
        return std::nullopt;
    }
    QImageReader reader(&buffer, format);
    reader.setAutoDetectImageFormat(false);
    // The header tells the size: an image over the limits is refused before it is decoded, and of
    // the rest only the part that can reach the canvas is decoded (all of it by formats that cannot
    // decode a part, which the limits bound).
    const QSize size = reader.size();
    const auto refused = [&path](QSize claimed) {
        if (!tooLarge(claimed)) {
            return false;
        }
        logs::layouts.warning("Could not parse plugin: image %s is %d by %d pixels, larger than %d on a side "
                              "or 256 MB decoded",
                              qUtf8Printable(path), claimed.width(), claimed.height(), MaximumSide);
        return true;
    };
    if (refused(size)) {
        return std::nullopt;
    }
    QRect part;
    if (size.isValid()) {
        part = visiblePart(size, positions);
        if (part.isEmpty()) {
            return std::nullopt;
        }
        if (part.size() != size) {
            reader.setClipRect(part);
        }
    }
    QImage image = reader.read();
    if (image.isNull()) {
        logs::layouts.warning("Could not parse plugin: image %s: %s", qUtf8Printable(path),
                              qUtf8Printable(reader.errorString()));
        return std::nullopt;
    }
    if (!size.isValid()) {
        // The header did not tell the size: the whole image was decoded, and is cut here.
        if (refused(image.size()) || (part = visiblePart(image.size(), positions)).isEmpty()) {
            return std::nullopt;
        }
        image = image.copy(part);
    }
    return BlendImage(image, part.left(), part.top());
}

} // namespace zandor
