#pragma once

#include "layouts/CaptureLayout.h"
#include "settings/CaptureSettings.h"

#include <memory>
#include <string>
#include <vector>

namespace zandor {

class CaptureDevice;
class CommandLine;

// What the capturing commands of zandor-cli share: the board, the device and the catalogue, the
// layouts chosen with --layout, and the settings given on the command line, which override the
// stored ones for this run only (the preferences file is never written).
class CaptureSession {
public:
    ~CaptureSession();

    // False with a one-line reason for a bad board, layout or folder.
    bool open(const CommandLine& options, std::string& error);
    // Starts the device; false (the device logged why) when the board cannot be opened.
    bool start();
    // Stops the device and waits, bounded, for the pipeline's threads to end.
    void stop();

    const std::vector<LayoutPtr>& layouts() const { return m_layouts; }
    const CaptureSettings& settings() const { return m_settings; }

private:
    std::shared_ptr<CaptureDevice> m_device;
    std::vector<LayoutPtr> m_layouts;
    CaptureSettings m_settings;
};

} // namespace zandor
