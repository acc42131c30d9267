#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

class QLabel;

namespace zandor {

class CaptureSession;
class MainWindow;

// What the window shows while the session records: the record item blinking as Stop, Pause held
// back, and the time recorded in the status bar and the title ("Zandor - Recording 02:13"). It
// follows the session's current recorder, so a recording started while an earlier one still
// finalises keeps its items when the earlier one ends; when none records any more it puts the
// items back.
class RecordingIndicator : public QObject {
    Q_OBJECT
public:
    RecordingIndicator(MainWindow& window, CaptureSession& session);

    // A recording has just started.
    void started();
    // Shows the session as it is now (a recording stopped: the clock goes at once).
    void update();

private:
    void blink();

    MainWindow& m_window;
    CaptureSession& m_session;
    QTimer m_blinkTimer;
    bool m_blinkPhase = false;
    QElapsedTimer m_recordingTime;
    QLabel* m_clock; // owned by the status bar
};

} // namespace zandor
