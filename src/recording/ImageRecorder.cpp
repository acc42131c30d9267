#include "ImageRecorder.h"

#include "ScreenshotSound.h"
#include "base/AtomicFile.h"
#include "base/Log.h"
#include "capture/CaptureData.h"

#include <QBuffer>
#include <QFile>
#include <QImageWriter>

#include <filesystem>

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
    const auto failed = [&](const Error& error) {
        logs::recording.error("Could not write screenshot %s", error.logLine().c_str());
        std::scoped_lock lock(m_savedMutex);
        if (!m_failure) {
            m_failure = error;
        }
        return false;
    };

    // The storage folder may not exist yet (a fresh desktop has no ~/Desktop); it is made as a
    // recording makes it.
    const std::string folder = QFile::encodeName(m_settings.storageFolder).toStdString();
    std::error_code made;
    std::filesystem::create_directories(folder, made);
    if (made) {
        return failed(Error::system(FolderStep, folder, made.value()));
    }
    QByteArray encoded;
    QBuffer buffer(&encoded);
    buffer.open(QIODevice::WriteOnly);
    QImageWriter writer(&buffer, png ? "png" : "jpeg");
    if (!writer.write(image)) {
        return failed(Error::other("encode screenshot", {}, writer.errorString().toStdString()));
    }
    AtomicFile out(QFile::encodeName(path).toStdString());
    Error error = out.create();
    if (!error) {
        error = out.write(reinterpret_cast<const uint8_t*>(encoded.constData()), encoded.size());
    }
    if (!error) {
        error = out.commit();
    }
    if (error) {
        return failed(error);
    }
    std::scoped_lock lock(m_savedMutex);
    m_saved.append(path);
    return true;
}

QStringList ImageRecorder::savedFiles() {
    std::scoped_lock lock(m_savedMutex);
    return m_saved;
}

Error ImageRecorder::failure() {
    std::scoped_lock lock(m_savedMutex);
    return m_failure;
}

void ImageRecorder::capturedLayouts() {
    ScreenshotSound::play();
    stop();
    if (m_finished) {
        m_finished();
    }
}

} // namespace zandor
