#pragma once

#include "Setting.h"

#include <algorithm>

namespace zandor::settings {

// Every user setting of the application, each declared once: key, default and what counts. The
// built-in defaults of a new store hold them in this order, those marked absent aside.

inline const Setting<bool> firstRun{QStringLiteral("PreferenceFirstRun"), true};
// The display full screen goes to, by name; empty for the main display.
inline const Setting<QString> fullscreenScreen{QStringLiteral("PreferenceFullscreenScreen"), QString("")};
inline const Setting<bool> fullscreenHudEnabled{QStringLiteral("PreferenceFullscreenHudEnabled"), true};
// The largest whole scale of the picture in full screen; 0 for no limit.
inline const Setting<int> fullscreenMaxScale{
    QStringLiteral("PreferenceFullscreenMaxScale"), 0, {.range = std::pair{0, 64}}};
// Where screenshots and recordings go: an absolute path; the user's Desktop folder by default.
QString defaultStorageFolder();
inline const Setting<QString> storageFolder{
    QStringLiteral("PreferenceCaptureStorageFolder"),
    std::function<QString()>(defaultStorageFolder),
    {.check = [](const QString& path) { return path.startsWith(u'/') && !path.contains(QChar(0)); }}};
// The layout screenshots and recordings capture: "Active Layout", "None" (both screens) or a name.
inline const Setting<QString> captureLayout{QStringLiteral("PreferenceCaptureLayout"),
                                            QStringLiteral("Active Layout")};
// The capture board to open, by its serial number; empty for the first one found.
inline const Setting<QString> captureBoard{
    QStringLiteral("PreferenceCaptureBoard"),
    QString(""),
    {.check =
         [](const QString& serial) {
             return serial.size() <= 31 && std::all_of(serial.begin(), serial.end(), [](QChar c) {
                        return c.unicode() > 0x20 && c.unicode() < 0x7F;
                    });
         },
     .absentFromDefaults = true}};
// "Original" keeps the board's own timing; a number has recordings converted to that rate.
QStringList frameRates();
inline const Setting<QString> videoFramesPerSecond{
    QStringLiteral("PreferenceCaptureVideoFPS"), QStringLiteral("Original"), {.choices = frameRates}};
// The name of a VideoQuality preset.
QStringList videoQualityNames();
inline const Setting<QString> videoQuality{QStringLiteral("PreferenceCaptureVideoQuality"),
                                           QStringLiteral("Medium"),
                                           {.choices = videoQualityNames}};
// Audio input identifiers, or "None". The game's is the capture board's own sound, "board",
// until the user chooses another.
inline const Setting<QString> gameAudioInput{QStringLiteral("PreferenceCaptureGameAudioInput"),
                                             QStringLiteral("board")};
inline const Setting<QString> narratorAudioInput{QStringLiteral("PreferenceCaptureNarratorAudioInput"),
                                                 QStringLiteral("None")};
// "PNG" or "JPEG".
inline const Setting<QString> imageFormat{
    QStringLiteral("PreferenceCaptureImageFormat"), QStringLiteral("PNG"), {.choices = [] {
        return QStringList{QStringLiteral("PNG"), QStringLiteral("JPEG")};
    }}};

// Whether the last seconds of the picture on show are kept, encoded, for "Save Replay", and how many.
inline const Setting<bool> replayBuffer{
    QStringLiteral("PreferenceReplayBufferEnabled"), false, {.absentFromDefaults = true}};
inline const Setting<int> replaySeconds{QStringLiteral("PreferenceReplayBufferSeconds"),
                                        30,
                                        {.range = std::pair{5, 300}, .absentFromDefaults = true}};
// Whether the game input is played through while the picture plays, at what volume (percent), and
// how many milliseconds its sound is moved later against the picture in recordings and replays.
inline const Setting<bool> listenToGameAudio{
    QStringLiteral("PreferenceListenToGameAudio"), false, {.absentFromDefaults = true}};
inline const Setting<int> gameAudioVolume{QStringLiteral("PreferenceGameAudioVolume"),
                                          100,
                                          {.range = std::pair{0, 100}, .absentFromDefaults = true}};
inline const Setting<int> gameAudioOffsetMs{QStringLiteral("PreferenceGameAudioOffsetMs"),
                                            0,
                                            {.range = std::pair{-500, 500}, .absentFromDefaults = true}};
// Whether every file made (screenshot, recording, replay, recovered recording) raises a desktop
// notification; off, the window's status bar alone says it.
inline const Setting<bool> notifyOnSave{
    QStringLiteral("PreferenceNotifyOnSave"), true, {.absentFromDefaults = true}};
// Whether the picture on show is shared as a camera while it plays.
inline const Setting<bool> shareAsCamera{
    QStringLiteral("PreferenceShareAsCamera"), false, {.absentFromDefaults = true}};
// Whether the console's 3D picture is captured, on a board that can: the top screen is then the left
// eye, and a layout's "screen_top_right" the right one.
inline const Setting<bool> capture3D{
    QStringLiteral("PreferenceCapture3D"), false, {.absentFromDefaults = true}};

} // namespace zandor::settings
