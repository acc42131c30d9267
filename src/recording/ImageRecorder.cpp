#include "ImageRecorder.h"

#include "ScreenshotSound.h"
#include "base/Log.h"
#include "capture/CaptureData.h"

#include <QDir>
#include <QImageWriter>
#include <QSaveFile>

namespace zandor {

QImage ImageRecorder::imageOfLayout(const CaptureLayout& layout, const CaptureData& frame) {
    const auto width = static_cast<int>(layout.width());
    const auto height = static_cast<int>(layout.height());
    // The const constructor keeps a read-only reference to the bytes; no copy is made.
    return QImage(frame.data(), width, height, width * 3, QImage::Format_RGB888);
}

bool ImageRecorder::capture(const LayoutPtr& layout, const ObserverPtr& observer) {
    CaptureDataPtr frame = layout->observe(observer);
    if (!frame) {
        return false;
    }
    m_hasFrame = true;
    QImage image = imageOfLayout(*layout, *frame);
    QString file = QStringLiteral("Screenshot %1").arg(stringWithCurrentDate());
    if (layouts().size() > 1) {
        file = QStringLiteral("Screenshot %1 %2").arg(stringWithCurrentDate(), fileNamePart(layout->name()));
    }
    saveImage(image, file);
    return true;
}

bool ImageRecorder::saveImage(const QImage& image, const QString& file) {
    const bool png = m_settings.imageFormat == QLatin1String("PNG");
    const QString path =
        QStringLiteral("%1/%2.%3")
            .arg(m_settings.storageFolder, file, png ? QStringLiteral("png") : QStringLiteral("jpg"));

    // The storage folder may not exist yet (a fresh desktop has no ~/Desktop); it is made as a
    // recording makes it.
    QDir().mkpath(m_settings.storageFolder);
    QSaveFile out(path);
    if (!out.open(QIODevice::WriteOnly)) {
        logs::recording.error("Could not write screenshot %s: %s", qUtf8Printable(path),
                              qUtf8Printable(out.errorString()));
        return false;
    }
    QImageWriter writer(&out, png ? "png" : "jpeg");
    if (!writer.write(image)) {
        logs::recording.error("Could not write screenshot %s: %s", qUtf8Printable(path),
                              qUtf8Printable(writer.errorString()));
        out.cancelWriting();
        return false;
    }
    if (!out.commit()) {
        logs::recording.error("Could not write screenshot %s: %s", qUtf8Printable(path),
                              qUtf8Printable(out.errorString()));
        return false;
    }
    std::scoped_lock lock(m_savedMutex);
    m_saved.append(path);
    return true;
}

QStringList ImageRecorder::savedFiles() {
    std::scoped_lock lock(m_savedMutex);
    return m_saved;
}

void ImageRecorder::capturedLayouts() {
    ScreenshotSound::play();
    stop();
}

} // namespace zandor
