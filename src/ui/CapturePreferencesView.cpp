#include "CapturePreferencesView.h"

#include "Icons.h"
#include "settings/CaptureSettings.h"
#include "settings/PreferencesController.h"
#include "layouts/LayoutController.h"
#include "settings/VideoQuality.h"
#include "recording/ReplayBuffer.h"
#include "ui_CapturePreferencesView.h"

#include <QAudioDevice>
#include <QFileDialog>
#include <QMediaDevices>

#include <algorithm>

namespace zandor {
namespace {

const QString ActiveLayout = QStringLiteral("Active Layout");
const QString NoLayout = QStringLiteral("None");
const QString NoAudioInput = QStringLiteral("None");

QString storedString(const QString& key) {
    return PreferencesController::instance().preference(key).toString();
}

// The index of the last item titled `title`, separators aside; -1 when there is none.
int lastItemTitled(const QComboBox* popup, const QString& title) {
    int found = -1;
    for (int i = 0; i < popup->count(); ++i) {
        if (popup->itemData(i, Qt::AccessibleDescriptionRole).toString() != QLatin1String("separator") &&
            popup->itemText(i) == title) {
            found = i;
        }
    }
    return found;
}

} // namespace

CapturePreferencesView::CapturePreferencesView(QWidget* parent)
    : PreferencePane(parent), m_ui(std::make_unique<Ui::CapturePreferencesView>()) {
    m_ui->setupUi(this);

    // The folder and the frame rate as a recording reads them, a damaged value as its default.
    const CaptureSettings stored = CaptureSettings::fromPreferences(PreferencesController::instance());
    m_ui->capturePathControl->setPath(stored.storageFolder);
    fillLayouts();
    fillQualities();
    m_ui->fpsPopup->addItems(CaptureSettings::frameRates());
    m_ui->fpsPopup->setCurrentIndex(std::max(0, lastItemTitled(m_ui->fpsPopup, stored.framesPerSecond)));
    fillAudioInputs();
    m_ui->replayBufferCheckBox->setChecked(stored.replayBuffer);
    m_ui->replaySecondsField->setRange(ReplayBuffer::MinimumSeconds, ReplayBuffer::MaximumSeconds);
    m_ui->replaySecondsField->setValue(stored.replaySeconds);
    showReplayMemory();
    m_ui->gameVolumeSlider->setValue(stored.gameAudioVolume);
    m_ui->gameOffsetField->setValue(stored.gameAudioOffsetMs);
    // The image format shows the interface's choice whatever is stored; only a pick of the user
    // changes the stored format.

    // Only the user's own choices write: these signals do not fire while the controls are filled.
    connect(m_ui->capturePathControl, &PathControl::folderClicked, this,
            &CapturePreferencesView::selectStorageFolderAction);
    connect(m_ui->chooseStorageFolderButton, &QPushButton::clicked, this,
            &CapturePreferencesView::chooseStorageFolder);
    connect(m_ui->layoutPopup, &QComboBox::activated, this,
            &CapturePreferencesView::selectCaptureLayoutAction);
    connect(m_ui->qualityPopup, &QComboBox::activated, this, &CapturePreferencesView::selectQualityAction);
    connect(m_ui->fpsPopup, &QComboBox::activated, this,
            &CapturePreferencesView::selectFramesPerSecondAction);
    connect(m_ui->audioGamePopup, &QComboBox::activated, this,
            [this](int index) { selectAudioInput(m_ui->audioGamePopup, index); });
    connect(m_ui->audioNarratorPopup, &QComboBox::activated, this,
            [this](int index) { selectAudioInput(m_ui->audioNarratorPopup, index); });
    connect(m_ui->imageFormatPopup, &QComboBox::activated, this,
            &CapturePreferencesView::selectImageFormatAction);
    // The volume counts once the slider is let go, not at every step of a drag.
    m_ui->gameVolumeSlider->setTracking(false);
    connect(m_ui->gameVolumeSlider, &QSlider::valueChanged, this, &CapturePreferencesView::selectGameVolume);
    connect(m_ui->gameOffsetField, &QSpinBox::editingFinished, this,
            &CapturePreferencesView::selectGameOffset);
    connect(m_ui->replayBufferCheckBox, &QCheckBox::clicked, this,
            &CapturePreferencesView::selectReplayBuffer);
    // Every step of the arrows would restart the buffer: the length counts once editing ends.
    connect(m_ui->replaySecondsField, &QSpinBox::valueChanged, this,
            &CapturePreferencesView::showReplayMemory);
    connect(m_ui->replaySecondsField, &QSpinBox::editingFinished, this,
            &CapturePreferencesView::selectReplayBuffer);
}

CapturePreferencesView::~CapturePreferencesView() = default;

QString CapturePreferencesView::identifier() const {
    return QStringLiteral("Capture");
}
QString CapturePreferencesView::toolbarItemLabel() const {
    return tr("Capture");
}
QIcon CapturePreferencesView::toolbarItemImage() const {
    return icon(QStringLiteral("toolbar_record"));
}

void CapturePreferencesView::fillLayouts() {
    QComboBox* popup = m_ui->layoutPopup;
    popup->addItem(ActiveLayout);
    popup->insertSeparator(popup->count());
    popup->addItem(NoLayout);
    popup->insertSeparator(popup->count());
    for (const LayoutMenuItem& item : LayoutController::instance().menuItems()) {
        if (item.separator) {
            popup->insertSeparator(popup->count());
        } else {
            popup->addItem(item.title);
        }
    }
    // A stored layout that is no longer offered selects nothing; it stays stored until the user
    // picks another.
    popup->setCurrentIndex(lastItemTitled(popup, storedString(PreferenceCaptureLayout)));
}

void CapturePreferencesView::fillQualities() {
    QComboBox* popup = m_ui->qualityPopup;
    for (const VideoQualityPtr& quality : VideoQuality::videoQualities()) {
        popup->addItem(quality->name());
    }
    popup->setCurrentIndex(lastItemTitled(popup, storedString(PreferenceCaptureVideoQuality)));
}

void CapturePreferencesView::fillAudioInputs() {
    const QString game = storedString(PreferenceCaptureGameAudioInput);
    const QString narrator = storedString(PreferenceCaptureNarratorAudioInput);
    for (QComboBox* popup : {m_ui->audioGamePopup, m_ui->audioNarratorPopup}) {
        popup->addItem(tr("None"), NoAudioInput);
        popup->insertSeparator(popup->count());
        popup->setCurrentIndex(0);
    }
    // The devices present now; one plugged in later shows at the next start.
    for (const QAudioDevice& device : QMediaDevices::audioInputs()) {
        const QString id = QString::fromUtf8(device.id());
        for (QComboBox* popup : {m_ui->audioGamePopup, m_ui->audioNarratorPopup}) {
            popup->addItem(device.description(), id);
        }
        if (id == game) {
            m_ui->audioGamePopup->setCurrentIndex(m_ui->audioGamePopup->count() - 1);
        }
        if (id == narrator) {
            m_ui->audioNarratorPopup->setCurrentIndex(m_ui->audioNarratorPopup->count() - 1);
        }
    }
}

void CapturePreferencesView::selectStorageFolderAction(const QString& folder) {
    m_ui->capturePathControl->setPath(folder);
    PreferencesController::instance().setPreference(PreferenceCaptureStorageFolder,
                                                    m_ui->capturePathControl->path());
}

void CapturePreferencesView::chooseStorageFolder() {
    const QString folder = QFileDialog::getExistingDirectory(this, tr("Choose Where to Save Captures"),
                                                             m_ui->capturePathControl->path());
    if (!folder.isEmpty()) {
        selectStorageFolderAction(folder);
    }
}

void CapturePreferencesView::selectCaptureLayoutAction(int index) {
    PreferencesController::instance().setPreference(PreferenceCaptureLayout,
                                                    m_ui->layoutPopup->itemText(index));
}

void CapturePreferencesView::selectFramesPerSecondAction(int index) {
    PreferencesController::instance().setPreference(PreferenceCaptureVideoFPS,
                                                    m_ui->fpsPopup->itemText(index));
}

void CapturePreferencesView::selectQualityAction(int index) {
    PreferencesController::instance().setPreference(PreferenceCaptureVideoQuality,
                                                    m_ui->qualityPopup->itemText(index));
    showReplayMemory();
}

void CapturePreferencesView::selectReplayBuffer() {
    PreferencesController& preferences = PreferencesController::instance();
    const bool enabled = m_ui->replayBufferCheckBox->isChecked();
    const auto seconds = qint64(m_ui->replaySecondsField->value());
    if (preferences.preference(PreferenceReplayBufferEnabled) == QVariant(enabled) &&
        preferences.preference(PreferenceReplayBufferSeconds) == QVariant(seconds)) {
        return;
    }
    preferences.setPreference(PreferenceReplayBufferEnabled, enabled);
    preferences.setPreference(PreferenceReplayBufferSeconds, seconds);
}

void CapturePreferencesView::selectGameVolume(int percent) {
    PreferencesController::instance().setPreference(PreferenceGameAudioVolume, qint64(percent));
}

void CapturePreferencesView::selectGameOffset() {
    const auto offset = qint64(m_ui->gameOffsetField->value());
    PreferencesController& preferences = PreferencesController::instance();
    if (preferences.preference(PreferenceGameAudioOffsetMs) != QVariant(offset)) {
        preferences.setPreference(PreferenceGameAudioOffsetMs, offset);
    }
}

void CapturePreferencesView::showReplayMemory() {
    const uint64_t bytes =
        ReplayBuffer::memoryFor(m_ui->qualityPopup->currentText(), m_ui->replaySecondsField->value());
    m_ui->replayMemoryLabel->setText(tr("about %1 MB").arg((bytes + (1 << 19)) >> 20));
}

void CapturePreferencesView::selectAudioInput(QComboBox* popup, int index) {
    const QVariant input = popup->itemData(index);
    if (popup == m_ui->audioGamePopup) {
        PreferencesController::instance().setPreference(PreferenceCaptureGameAudioInput, input.toString());
    } else if (popup == m_ui->audioNarratorPopup) {
        PreferencesController::instance().setPreference(PreferenceCaptureNarratorAudioInput,
                                                        input.toString());
    }
}

void CapturePreferencesView::selectImageFormatAction(int index) {
    PreferencesController::instance().setPreference(PreferenceCaptureImageFormat,
                                                    m_ui->imageFormatPopup->itemText(index));
}

} // namespace zandor
