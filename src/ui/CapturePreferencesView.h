#pragma once

#include "PreferencePane.h"

#include <QStringList>
#include <QTimer>

#include <memory>

class QComboBox;

class QLabel;

namespace zandor {

namespace Ui {
class CapturePreferencesView;
}

// Where screenshots and recordings go and what they hold: the storage folder, the image format, the
// layout to capture, the video quality and frame rate, the replay buffer, the two audio inputs, and
// which capture board to use.
class CapturePreferencesView : public PreferencePane {
    Q_OBJECT
public:
    explicit CapturePreferencesView(QWidget* parent = nullptr);
    ~CapturePreferencesView() override;

    // Says beside the game input, while the capture board is chosen for it, that the board sends no
    // sound (older firmware): its track would be silent.
    void setBoardSendsNoSound(bool noSound);

    QString identifier() const override;
    QString toolbarItemLabel() const override;
    QIcon toolbarItemImage() const override;

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    void showBoardSoundNote();
    // Fills the input lists again when the inputs differ from those shown.
    void refreshAudioInputs();
    void fillLayouts();
    void fillQualities();
    void fillAudioInputs();
    void fillBoards();

    void selectStorageFolderAction(const QString& folder);
    void chooseStorageFolder();
    void selectCaptureLayoutAction(int index);
    void selectFramesPerSecondAction(int index);
    void selectQualityAction(int index);
    void selectAudioInput(QComboBox* popup, int index);
    void selectImageFormatAction(int index);
    void selectBoard(int index);
    void selectReplayBuffer();
    void selectGameVolume(int percent);
    void selectGameOffset();
    // "about 4 MB": what the buffer takes at most at the quality and length shown.
    void showReplayMemory();
    void showGameVolume(int percent);

    std::unique_ptr<Ui::CapturePreferencesView> m_ui;
    QLabel* m_boardSoundNote = nullptr; // a row of the form's own, under the game input
    bool m_boardSendsNoSound = false;
    QStringList m_inputsShown; // the inputs in the lists, as id and description
    QTimer m_inputWatch;
};

} // namespace zandor
