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
    const QVariant seconds = preferences.preference(PreferenceReplayBufferSeconds);
    if (seconds.typeId() == QMetaType::LongLong && seconds.toLongLong() >= 5 && seconds.toLongLong() <= 300) {
        settings.replaySeconds = static_cast<int>(seconds.toLongLong());
    }
    return settings;
}

const QStringList& CaptureSettings::frameRates() {
    static const QStringList rates{QStringLiteral("Original"), QStringLiteral("24"), QStringLiteral("25"),
                                   QStringLiteral("30"),       QStringLiteral("50"), QStringLiteral("60")};
    return rates;
}

} // namespace zandor
