#include "CaptureSettings.h"

#include "PreferencesController.h"

namespace zandor {

CaptureSettings CaptureSettings::fromPreferences(const PreferencesController& preferences) {
    const auto text = [&preferences](const QString& key) { return preferences.preference(key).toString(); };
    CaptureSettings settings;
    // Only an absolute path held as text is a folder; anything else (a number, data, a relative
    // path) would put the files somewhere the user never chose.
    const QVariant folder = preferences.preference(PreferenceCaptureStorageFolder);
    settings.storageFolder = folder.typeId() == QMetaType::QString && folder.toString().startsWith(u'/') &&
                                     !folder.toString().contains(QChar(0))
                                 ? folder.toString()
                                 : PreferencesController::defaultStorageFolder();
    settings.imageFormat = text(PreferenceCaptureImageFormat);
    const QVariant rate = preferences.preference(PreferenceCaptureVideoFPS);
    if (rate.typeId() == QMetaType::QString && frameRates().contains(rate.toString())) {
        settings.framesPerSecond = rate.toString();
    }
    settings.videoQuality = text(PreferenceCaptureVideoQuality);
    settings.gameAudioInput = text(PreferenceCaptureGameAudioInput);
    settings.narratorAudioInput = text(PreferenceCaptureNarratorAudioInput);
    const QVariant replay = preferences.preference(PreferenceReplayBufferEnabled);
    settings.replayBuffer = replay.typeId() == QMetaType::Bool && replay.toBool();
    const auto integer = [&preferences](const QString& key, int minimum, int maximum, int& value) {
        const QVariant stored = preferences.preference(key);
        if (stored.typeId() == QMetaType::LongLong && stored.toLongLong() >= minimum &&
            stored.toLongLong() <= maximum) {
            value = static_cast<int>(stored.toLongLong());
        }
    };
    integer(PreferenceReplayBufferSeconds, 5, 300, settings.replaySeconds);
    const QVariant listen = preferences.preference(PreferenceListenToGameAudio);
    settings.listenToGameAudio = listen.typeId() == QMetaType::Bool && listen.toBool();
    integer(PreferenceGameAudioVolume, 0, 100, settings.gameAudioVolume);
    integer(PreferenceGameAudioOffsetMs, -500, 500, settings.gameAudioOffsetMs);
    const QVariant captureLayout = preferences.preference(PreferenceCaptureLayout);
    if (captureLayout.typeId() == QMetaType::QString) {
        settings.captureLayout = captureLayout.toString();
    }
    const QVariant camera = preferences.preference(PreferenceShareAsCamera);
    settings.shareAsCamera = camera.typeId() == QMetaType::Bool && camera.toBool();
    return settings;
}

const QStringList& CaptureSettings::frameRates() {
    static const QStringList rates{QStringLiteral("Original"), QStringLiteral("24"), QStringLiteral("25"),
                                   QStringLiteral("30"),       QStringLiteral("50"), QStringLiteral("60")};
    return rates;
}

} // namespace zandor
