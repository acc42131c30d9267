#include "CaptureSettings.h"

#include "PreferencesController.h"
#include "Settings.h"

namespace zandor {

CaptureSettings CaptureSettings::fromPreferences(const PreferencesController& preferences) {
    CaptureSettings captured;
    captured.storageFolder = settings::storageFolder.read(preferences);
    captured.imageFormat = settings::imageFormat.read(preferences);
    captured.framesPerSecond = settings::videoFramesPerSecond.read(preferences);
    captured.videoQuality = settings::videoQuality.read(preferences);
    captured.gameAudioInput = settings::gameAudioInput.read(preferences);
    captured.narratorAudioInput = settings::narratorAudioInput.read(preferences);
    captured.replayBuffer = settings::replayBuffer.read(preferences);
    captured.replaySeconds = settings::replaySeconds.read(preferences);
    captured.listenToGameAudio = settings::listenToGameAudio.read(preferences);
    captured.gameAudioVolume = settings::gameAudioVolume.read(preferences);
    captured.gameAudioOffsetMs = settings::gameAudioOffsetMs.read(preferences);
    captured.captureLayout = settings::captureLayout.read(preferences);
    captured.shareAsCamera = settings::shareAsCamera.read(preferences);
    captured.captureBoard = settings::captureBoard.read(preferences);
    captured.capture3D = settings::capture3D.read(preferences);
    return captured;
}

} // namespace zandor
