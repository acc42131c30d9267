#pragma once

#include "Recorder.h"
#include "settings/CaptureSettings.h"

#include <QImage>
#include <QStringList>

#include <atomic>
#include <functional>
#include <mutex>

namespace zandor {

class CaptureData;

// Takes one screenshot: saves the next frame of every layout on show as a PNG or JPEG file in the
// storage folder, plays the screenshot sound once all are written, and stops itself.
class ImageRecorder final : public Recorder {
public:
    // The step of a storage folder that cannot be made.
    static constexpr const char* FolderStep = "cannot make the folder";

    ImageRecorder(std::vector<LayoutPtr> layouts, CaptureSettings settings)
        : Recorder(std::move(layouts)), m_settings(std::move(settings)) {}

    // An image over the frame's bytes, without copying them: the frame must outlive it.
    static QImage imageOfLayout(const CaptureLayout& layout, const CaptureData& frame);
    // Writes "<storage folder>/<name>.png" (image format "PNG") or ".jpg" (any other) atomically,
    // replacing a file of that name. Returns whether the write succeeded; failure() says why not.
    bool saveImage(const QImage& image, const QString& file);

    // The files written so far.
    QStringList savedFiles();
    // Why the first image that could not be written was not; no error while all were.
    Error failure();
    // Called on the recorder's thread once every image is written or failed; set before start.
    void setFinishedHandler(std::function<void()> finished) { m_finished = std::move(finished); }
    // Whether a frame has come, so that the images are being made.
    bool hasFrame() const { return m_hasFrame; }

protected:
    bool capture(const LayoutPtr& layout, const ObserverPtr& observer) override;
    void capturedLayouts() override;

private:
    const CaptureSettings m_settings;
    std::mutex m_savedMutex;
    QStringList m_saved; // guarded by m_savedMutex
    Error m_failure;     // guarded by m_savedMutex
    std::function<void()> m_finished;
    std::atomic<bool> m_hasFrame{false};
};

} // namespace zandor
