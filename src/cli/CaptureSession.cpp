#include "CaptureSession.h"

#include "base/CommandLine.h"
#include "base/DetachedThread.h"
#include "capture/Boards.h"
#include "capture/CaptureDevice.h"
#include "capture/UsbBoard.h"
#include "layouts/LayoutController.h"
#include "settings/VideoQuality.h"
#include "settings/PreferencesController.h"

#include <QDir>
#include <QFileInfo>

#include <algorithm>

namespace zandor {

CaptureSession::~CaptureSession() {
    stop();
}

bool CaptureSession::open(const CommandLine& options, std::string& error) {
    // The stored settings, overridden by the command line for this run; the store is only read.
    PreferencesController& preferences = PreferencesController::instance();
    preferences.setReadOnly(true);
    m_settings = CaptureSettings::fromPreferences(preferences);

    if (auto out = options.value("out")) {
        QFileInfo folder(QString::fromStdString(*out));
        if (!folder.isDir() || !folder.isWritable()) {
            error = "Cannot write to the folder '" + *out + "'" +
                    (folder.exists() ? (folder.isDir() ? ": permission denied" : ": it is not a folder")
                                     : ": it does not exist");
            return false;
        }
        m_settings.storageFolder = folder.absoluteFilePath();
    }
    if (auto format = options.value("format")) {
        if (*format != "PNG" && *format != "JPEG") {
            error = "Unknown image format '" + *format + "': use PNG or JPEG";
            return false;
        }
        m_settings.imageFormat = QString::fromStdString(*format);
    }

    if (auto fps = options.value("fps")) {
        if (!CaptureSettings::frameRates().contains(QString::fromStdString(*fps))) {
            error = "Unknown frame rate '" + *fps + "': use Original, 24, 25, 30, 50 or 60";
            return false;
        }
        m_settings.framesPerSecond = QString::fromStdString(*fps);
    }
    if (auto quality = options.value("quality")) {
        const QString name = QString::fromStdString(*quality);
        const auto& presets = VideoQuality::videoQualities();
        if (std::none_of(presets.begin(), presets.end(),
                         [&](const auto& preset) { return preset->name() == name; })) {
            error =
                "Unknown quality '" + *quality + "': use Highest, Higher, High, Medium, Low, Lower or Lowest";
            return false;
        }
        m_settings.videoQuality = name;
    }
    if (auto input = options.value("game-audio")) {
        m_settings.gameAudioInput = QString::fromStdString(*input);
    }
    if (auto input = options.value("narrator-audio")) {
        m_settings.narratorAudioInput = QString::fromStdString(*input);
    }

    auto board = createBoard(options.value("board").value_or("usb"), error);
    if (!board) {
        return false;
    }
    m_device = CaptureDevice::create(std::move(board));
    LayoutController& catalogue = LayoutController::instance();
    catalogue.setDevice(m_device);

    const auto screens = catalogue.screenLayouts();
    const QString name = QString::fromStdString(options.value("layout").value_or(""));
    if (name.isEmpty()) {
        // As the application starts: the first layout of the catalogue is on show.
        m_layouts = catalogue.layouts().empty() ? std::vector<LayoutPtr>(screens.begin(), screens.end())
                                                : std::vector<LayoutPtr>{catalogue.layouts().front()};
    } else if (auto layout = catalogue.layoutNamed(name)) {
        m_layouts = {layout};
    } else if (name == QLatin1String("Top") || name == QLatin1String("Bottom")) {
        m_layouts = {screens[name == QLatin1String("Top") ? 0 : 1]};
    } else if (name == QLatin1String("None")) {
        m_layouts = {screens.begin(), screens.end()};
    } else {
        error = "Unknown layout '" + name.toStdString() + "': see zandor-cli layouts";
        return false;
    }
    return true;
}

bool CaptureSession::start() {
    return m_device && m_device->startListening();
}

void CaptureSession::stop() {
    if (!m_device) {
        return;
    }
    m_device->stopListening();
    for (const auto& layout : m_layouts) {
        layout->stopListening();
    }
    DetachedThread::waitForAll(std::chrono::seconds(5));
}

} // namespace zandor
