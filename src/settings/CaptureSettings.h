#pragma once

#include <QString>
#include <QStringList>

namespace zandor {

class PreferencesController;

// What the capture session, a screenshot or a recording needs to know of the user's settings, read
// through their declarations (Settings.h) and handed down, so that nothing below the application
// reads the preferences store. The defaults here are those of a session that reads no store.
struct CaptureSettings {
    // Where screenshots and recordings go, an absolute path; made when missing.
    QString storageFolder;
    // "PNG", or anything else for JPEG.
    QString imageFormat = QStringLiteral("PNG");
    // One of frameRates(): "Original" keeps the board's own timing; a number has recordings converted
    // to that rate.
    QString framesPerSecond = QStringLiteral("Original");
    // The name of a VideoQuality preset.
    QString videoQuality = QStringLiteral("Medium");
    // Audio input identifiers, or "None".
    QString gameAudioInput = QStringLiteral("None");
    QString narratorAudioInput = QStringLiteral("None");
    // Whether the last seconds of the picture on show are kept, encoded, for "Save Replay", and how
    // many (5 to 300).
    bool replayBuffer = false;
    int replaySeconds = 30;
    // Whether the game input is played through while the picture plays, at what volume (0 to 100),
    // and how many milliseconds (-500 to 500) its sound is moved later against the picture in
    // recordings and replays.
    bool listenToGameAudio = false;
    int gameAudioVolume = 100;
    int gameAudioOffsetMs = 0;
    // The layout screenshots and recordings capture: "Active Layout" (the one on show) or a name.
    QString captureLayout = QStringLiteral("Active Layout");
    // The serial number of the capture board to open; empty for the first one found.
    QString captureBoard;
    // Whether the picture on show is shared as a camera while it plays.
    bool shareAsCamera = false;
    // Whether the board is asked for the console's 3D picture (both eyes).
    bool capture3D = false;

    static CaptureSettings fromPreferences(const PreferencesController& preferences);
};

} // namespace zandor
