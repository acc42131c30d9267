#pragma once

#include <QObject>
#include <QTimer>

#include <functional>

class QAction;
class QMediaDevices;

namespace zandor {

class CaptureSession;

// Follows the game input while it is away: "Listen to Game Sound" unticks when the input goes
// (not the user's choice: the preference keeps listening), and when the input is back the session
// takes it up again (`takeUp`) and the item is ticked as before. Qt 6.4 does not announce inputs
// coming and going on PulseAudio, so while the input is away the list is also looked at once a
// second.
class GameInputWatch : public QObject {
    Q_OBJECT
public:
    GameInputWatch(QAction& listenItem, const CaptureSession& session, std::function<void()> takeUp,
                   QObject* parent);

    // The session lost the game input, or could not open it.
    void lost();
    // The user ticked or unticked the item: that choice holds.
    void userChoseListening() { m_listeningAway = false; }

private:
    void inputsChanged();

    QAction& m_listenItem;
    const CaptureSession& m_session;
    std::function<void()> m_takeUp;
    QMediaDevices* m_devices;
    QTimer m_poll;
    bool m_away = false;
    bool m_listeningAway = false;
};

} // namespace zandor
