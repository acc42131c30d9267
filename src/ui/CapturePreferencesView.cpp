#include "CapturePreferencesView.h"

#include "Icons.h"
#include "audio/AudioInput.h"
#include "settings/Settings.h"
#include "settings/CaptureSettings.h"
#include "settings/PreferencesController.h"
#include "capture/Board.h"
#include "capture/CaptureDevice.h"
#include "layouts/LayoutController.h"
#include "settings/VideoQuality.h"
#include "recording/ReplayBuffer.h"
#include "ui_CapturePreferencesView.h"

#include <QAudioDevice>
#include <QFormLayout>
#include <QLabel>
#include <QFileDialog>
#include <QMediaDevices>

#include <algorithm>

namespace zandor {
namespace {

const QString ActiveLayout = QStringLiteral("Active Layout");
const QString NoLayout = QStringLiteral("None");
const QString NoAudioInput = QStringLiteral("None");

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
    m_ui->fpsPopup->addItems(settings::frameRates());
    m_ui->fpsPopup->setCurrentIndex(std::max(0, lastItemTitled(m_ui->fpsPopup, stored.framesPerSecond)));
    fillAudioInputs();
    m_boardSoundNote = new QLabel(tr("The capture board sends no sound."), this);
    m_boardSoundNote->setObjectName(QStringLiteral("boardSoundNote"));
    int row = 0;
    QFormLayout::ItemRole role{};
    m_ui->form->getWidgetPosition(m_ui->audioGamePopup, &row, &role);
    m_ui->form->insertRow(row + 1, QString(), m_boardSoundNote);
    showBoardSoundNote();
    fillBoards();
    m_ui->replayBufferCheckBox->setChecked(stored.replayBuffer);
    m_ui->replaySecondsField->setRange(settings::replaySeconds.range()->first,
                                       settings::replaySeconds.range()->second);
    m_ui->replaySecondsField->setValue(stored.replaySeconds);
    showReplayMemory();
    m_ui->gameVolumeSlider->setRange(settings::gameAudioVolume.range()->first,
                                     settings::gameAudioVolume.range()->second);
    m_ui->gameVolumeSlider->setValue(stored.gameAudioVolume);
    showGameVolume(stored.gameAudioVolume);
    m_ui->gameOffsetField->setRange(settings::gameAudioOffsetMs.range()->first,
                                    settings::gameAudioOffsetMs.range()->second);
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
    connect(m_ui->boardPopup, &QComboBox::activated, this, &CapturePreferencesView::selectBoard);
    connect(m_ui->imageFormatPopup, &QComboBox::activated, this,
            &CapturePreferencesView::selectImageFormatAction);
    // The volume counts once the slider is let go, not at every step of a drag; its percentage
    // shows all along.
    m_ui->gameVolumeSlider->setTracking(false);
    connect(m_ui->gameVolumeSlider, &QSlider::valueChanged, this, &CapturePreferencesView::selectGameVolume);
    connect(m_ui->gameVolumeSlider, &QSlider::valueChanged, this, &CapturePreferencesView::showGameVolume);
    connect(m_ui->gameVolumeSlider, &QSlider::sliderMoved, this, &CapturePreferencesView::showGameVolume);
    // A number counts at every step of the arrows and on Return (or when the field is left), not
    // at every digit typed: "120" is not stored as 1 and 12 on the way.
    for (QSpinBox* field : {m_ui->gameOffsetField, m_ui->replaySecondsField}) {
        field->setKeyboardTracking(false);
    }
    connect(m_ui->gameOffsetField, &QSpinBox::valueChanged, this, &CapturePreferencesView::selectGameOffset);
    connect(m_ui->replayBufferCheckBox, &QCheckBox::clicked, this,
            &CapturePreferencesView::selectReplayBuffer);
    connect(m_ui->replaySecondsField, &QSpinBox::valueChanged, this,
            &CapturePreferencesView::selectReplayBuffer);
    connect(m_ui->replaySecondsField, &QSpinBox::textChanged, this,
            &CapturePreferencesView::showReplayMemory);
    // Inputs plugged in or out while the pane is open join or leave the lists at once. Qt 6.4 does
    // not announce them on PulseAudio, so while the pane shows the list is also looked at each
    // second.
    connect(new QMediaDevices(this), &QMediaDevices::audioInputsChanged, this,
            &CapturePreferencesView::refreshAudioInputs);
    m_inputWatch.setInterval(1000);
    connect(&m_inputWatch, &QTimer::timeout, this, &CapturePreferencesView::refreshAudioInputs);
}

void CapturePreferencesView::showEvent(QShowEvent* event) {
    PreferencePane::showEvent(event);
    refreshAudioInputs();
    m_inputWatch.start();
}

void CapturePreferencesView::hideEvent(QHideEvent* event) {
    m_inputWatch.stop();
    PreferencePane::hideEvent(event);
}

void CapturePreferencesView::refreshAudioInputs() {
    QStringList inputs;
    for (const QAudioDevice& device : QMediaDevices::audioInputs()) {
        inputs << QString::fromUtf8(device.id()) + u'\t' + device.description();
    }
    if (inputs != m_inputsShown) {
        fillAudioInputs();
        showBoardSoundNote();
    }
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
    popup->setCurrentIndex(
        lastItemTitled(popup, settings::captureLayout.read(PreferencesController::instance())));
}

void CapturePreferencesView::fillQualities() {
    QComboBox* popup = m_ui->qualityPopup;
    for (const VideoQualityPtr& quality : VideoQuality::videoQualities()) {
        popup->addItem(quality->name());
    }
    popup->setCurrentIndex(
        lastItemTitled(popup, settings::videoQuality.read(PreferencesController::instance())));
}

void CapturePreferencesView::fillAudioInputs() {
    m_ui->audioGamePopup->clear();
    m_ui->audioNarratorPopup->clear();
    const QString game = settings::gameAudioInput.read(PreferencesController::instance());
    const QString narrator = settings::narratorAudioInput.read(PreferencesController::instance());
    // The board's own sound comes first for the game: it needs no cable and is in step by itself.
    m_ui->audioGamePopup->addItem(tr("Capture board"), AudioInput::BoardId);
    for (QComboBox* popup : {m_ui->audioGamePopup, m_ui->audioNarratorPopup}) {
        popup->addItem(tr("None"), NoAudioInput);
        popup->insertSeparator(popup->count());
    }
    m_ui->audioGamePopup->setCurrentIndex(game == AudioInput::BoardId ? 0 : 1);
    m_ui->audioNarratorPopup->setCurrentIndex(0);
    m_inputsShown.clear();
    for (const QAudioDevice& device : QMediaDevices::audioInputs()) {
        const QString id = QString::fromUtf8(device.id());
        m_inputsShown << id + u'\t' + device.description();
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

void CapturePreferencesView::fillBoards() {
    QComboBox* popup = m_ui->boardPopup;
    const QString stored = settings::captureBoard.read(PreferencesController::instance());
    popup->addItem(tr("First found"), QString());
    popup->insertSeparator(popup->count());
    // The boards plugged in now, and the one chosen before even when it is not.
    QStringList serials;
    if (const auto& device = LayoutController::instance().device()) {
        for (const std::string& serial : device->board().serials()) {
            serials << QString::fromStdString(serial);
        }
    }
    if (!stored.isEmpty()) {
        serials << stored;
    }
    serials.removeAll(QString());
    serials.removeDuplicates();
    serials.sort();
    for (const QString& serial : serials) {
        popup->addItem(serial, serial);
    }
    popup->setCurrentIndex(std::max(0, popup->findData(stored)));
}

void CapturePreferencesView::selectBoard(int index) {
    settings::captureBoard.write(PreferencesController::instance(),
                                 m_ui->boardPopup->itemData(index).toString());
}

void CapturePreferencesView::selectStorageFolderAction(const QString& folder) {
    m_ui->capturePathControl->setPath(folder);
    settings::storageFolder.write(PreferencesController::instance(), m_ui->capturePathControl->path());
}

void CapturePreferencesView::chooseStorageFolder() {
    const QString folder = QFileDialog::getExistingDirectory(this, tr("Choose Where to Save Captures"),
                                                             m_ui->capturePathControl->path());
    if (!folder.isEmpty()) {
        selectStorageFolderAction(folder);
    }
}

void CapturePreferencesView::selectCaptureLayoutAction(int index) {
    settings::captureLayout.write(PreferencesController::instance(), m_ui->layoutPopup->itemText(index));
}

void CapturePreferencesView::selectFramesPerSecondAction(int index) {
    settings::videoFramesPerSecond.write(PreferencesController::instance(), m_ui->fpsPopup->itemText(index));
}

void CapturePreferencesView::selectQualityAction(int index) {
    settings::videoQuality.write(PreferencesController::instance(), m_ui->qualityPopup->itemText(index));
    showReplayMemory();
}

void CapturePreferencesView::selectReplayBuffer() {
    PreferencesController& preferences = PreferencesController::instance();
    const bool enabled = m_ui->replayBufferCheckBox->isChecked();
    const int seconds = m_ui->replaySecondsField->value();
    if (settings::replayBuffer.read(preferences) != enabled) {
        settings::replayBuffer.write(preferences, enabled);
    }
    if (settings::replaySeconds.read(preferences) != seconds) {
        settings::replaySeconds.write(preferences, seconds);
    }
}

void CapturePreferencesView::selectGameVolume(int percent) {
    settings::gameAudioVolume.write(PreferencesController::instance(), percent);
}

void CapturePreferencesView::selectGameOffset() {
    PreferencesController& preferences = PreferencesController::instance();
    if (const int offset = m_ui->gameOffsetField->value();
        settings::gameAudioOffsetMs.read(preferences) != offset) {
        settings::gameAudioOffsetMs.write(preferences, offset);
    }
}

void CapturePreferencesView::showGameVolume(int percent) {
    m_ui->gameVolumeValue->setText(tr("%1 %").arg(percent));
}

void CapturePreferencesView::showReplayMemory() {
    // The number being typed, before it counts.
    bool typed = false;
    const int seconds = m_ui->replaySecondsField->cleanText().toInt(&typed);
    const uint64_t bytes = ReplayBuffer::memoryFor(
        m_ui->qualityPopup->currentText(),
        typed ? std::clamp(seconds, m_ui->replaySecondsField->minimum(), m_ui->replaySecondsField->maximum())
              : m_ui->replaySecondsField->value());
    m_ui->replayMemoryLabel->setText(tr("about %1 MB").arg((bytes + (1 << 19)) >> 20));
}

void CapturePreferencesView::setBoardSendsNoSound(bool noSound) {
    m_boardSendsNoSound = noSound;
    showBoardSoundNote();
}

void CapturePreferencesView::showBoardSoundNote() {
    m_ui->form->setRowVisible(m_boardSoundNote, m_boardSendsNoSound && m_ui->audioGamePopup->currentData() ==
                                                                           QVariant(AudioInput::BoardId));
}

void CapturePreferencesView::selectAudioInput(QComboBox* popup, int index) {
    const QVariant input = popup->itemData(index);
    if (popup == m_ui->audioGamePopup) {
        settings::gameAudioInput.write(PreferencesController::instance(), input.toString());
        showBoardSoundNote();
    } else if (popup == m_ui->audioNarratorPopup) {
        settings::narratorAudioInput.write(PreferencesController::instance(), input.toString());
    }
}

void CapturePreferencesView::selectImageFormatAction(int index) {
    settings::imageFormat.write(PreferencesController::instance(), m_ui->imageFormatPopup->itemText(index));
}

} // namespace zandor
