#include "RecordingIndicator.h"

#include "MainWindow.h"
#include "recording/VideoRecorder.h"
#include "session/CaptureSession.h"
#include "ui/Icons.h"

#include <QLabel>
#include <QStatusBar>

namespace zandor {

RecordingIndicator::RecordingIndicator(MainWindow& window, CaptureSession& session)
    : QObject(&window), m_window(window), m_session(session), m_clock(new QLabel(&window)) {
    m_clock->setObjectName(QStringLiteral("recordingClock"));
    m_clock->hide();
    m_window.statusBar()->addPermanentWidget(m_clock);
    m_blinkTimer.setSingleShot(true);
    connect(&m_blinkTimer, &QTimer::timeout, this, &RecordingIndicator::blink);
}

void RecordingIndicator::started() {
    if (!m_session.recorder()) {
        return;
    }
    m_window.ui.playPauseItem->setEnabled(false);
    m_window.ui.recordItem->setText(QStringLiteral("Stop"));
    m_recordingTime.start();
    m_blinkPhase = false;
    blink();
}

void RecordingIndicator::blink() {
    QAction* record = m_window.ui.recordItem;
    update();
    if (!m_session.recorder() || m_session.recorder()->isDone()) {
        m_blinkTimer.stop();
        record->setIcon(icon(QStringLiteral("toolbar_record")));
        record->setText(QStringLiteral("Record"));
        m_window.ui.playPauseItem->setEnabled(true);
        return;
    }
    record->setIcon(icon(m_blinkPhase ? QStringLiteral("toolbar_stop_alt") : QStringLiteral("toolbar_stop")));
    // The plain image shows 0.7 s, the other 0.5 s.
    m_blinkTimer.start(m_blinkPhase ? 500 : 700);
    m_blinkPhase = !m_blinkPhase;
}

void RecordingIndicator::update() {
    if (!m_session.isRecording()) {
        m_clock->hide();
        m_clock->clear();
        m_window.setWindowTitle(QStringLiteral("Zandor"));
        return;
    }
    const qint64 seconds = m_recordingTime.elapsed() / 1000;
    const QString time = QString::asprintf("%02lld:%02lld", seconds / 60, seconds % 60);
    m_clock->setText(time);
    m_clock->show();
    m_window.setWindowTitle(QStringLiteral("Zandor - Recording %1").arg(time));
}

} // namespace zandor
