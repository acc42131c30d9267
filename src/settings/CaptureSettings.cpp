#include "CaptureSettings.h"

#include "PreferencesController.h"

namespace zandor {

CaptureSettings CaptureSettings::fromPreferences(const PreferencesController& preferences) {
    const auto text = [&preferences](const QString& key) { return preferences.preference(key).toString(); };
    CaptureSettings settings;
    settings.storageFolder = text(PreferenceCaptureStorageFolder);
    settings.imageFormat = text(PreferenceCaptureImageFormat);
    settings.framesPerSecond = text(PreferenceCaptureVideoFPS);
    settings.videoQuality = text(PreferenceCaptureVideoQuality);
    settings.gameAudioInput = text(PreferenceCaptureGameAudioInput);
    settings.narratorAudioInput = text(PreferenceCaptureNarratorAudioInput);
    return settings;
}

} // namespace zandor
