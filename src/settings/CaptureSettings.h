#pragma once

#include <QString>

namespace zandor {

class PreferencesController;

// What one screenshot or recording needs to know of the user's settings, read once when it starts
// and handed to the recorders, so that nothing below the application reads the preferences store.
// The members hold the preference values as the store keeps them.
struct CaptureSettings {
    // Where screenshots and recordings go; made when missing.
    QString storageFolder;
    // "PNG", or anything else for JPEG.
    QString imageFormat = QStringLiteral("PNG");
    // "Original" keeps the board's own timing; a number has recordings converted to that rate.
    QString framesPerSecond = QStringLiteral("Original");
    // The name of a VideoQuality preset.
    QString videoQuality = QStringLiteral("Medium");
    // Audio input identifiers, or "None".
    QString gameAudioInput = QStringLiteral("None");
    QString narratorAudioInput = QStringLiteral("None");

    static CaptureSettings fromPreferences(const PreferencesController& preferences);
};

} // namespace zandor
