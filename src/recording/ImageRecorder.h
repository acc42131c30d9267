#pragma once

#include "Recorder.h"
#include "settings/CaptureSettings.h"

#include <QImage>
#include <QStringList>

#include <atomic>
#include <mutex>

namespace zandor {

class CaptureData;

// Takes one screenshot: saves the next frame of every layout on show as a PNG or JPEG file in the
// storage folder, plays the screenshot sound once all are written, and stops itself.
class ImageRecorder final : public Recorder {
public:
    ImageRecorder(std::vector<LayoutPtr> layouts, CaptureSettings settings)
        : Recorder(std::move(layouts)), m_settings(std::move(settings)) {}

    // An image over the frame's bytes, without copying them: the frame must outlive it.
    static QImage imageOfLayout(const CaptureLayout& layout, const CaptureData& frame);
    // Writes "<storage folder>/<name>.png" (image format "PNG") or ".jpg" (any other) atomically,
    // replacing a file of that name. Returns whether the write succeeded.
    bool saveImage(const QImage& image, const QString& file);

    // The files written so far.
    QStringList savedFiles();
    // Whether a frame has come, so that the images are being made.
    bool hasFrame() const { return m_hasFrame; }

protected:
    bool capture(const LayoutPtr& layout, const ObserverPtr& observer) override;
    void capturedLayouts() override;

private:
    const CaptureSettings m_settings;
    std::mutex m_savedMutex;
    QStringList m_saved;
    std::atomic<bool> m_hasFrame{false};
};

} // namespace zandor
