#include "GameInputWatch.h"

#include "session/CaptureSession.h"

#include <QAction>
#include <QAudioDevice>
#include <QMediaDevices>

#include <algorithm>
#include <utility>

namespace zandor {

GameInputWatch::GameInputWatch(QAction& listenItem, const CaptureSession& session,
                               std::function<void()> takeUp, QObject* parent)
    : QObject(parent), m_listenItem(listenItem), m_session(session), m_takeUp(std::move(takeUp)),
      m_devices(new QMediaDevices(this)) {
    connect(m_devices, &QMediaDevices::audioInputsChanged, this, &GameInputWatch::inputsChanged);
    m_poll.setInterval(1000);
    connect(&m_poll, &QTimer::timeout, this, &GameInputWatch::inputsChanged);
}

void GameInputWatch::lost() {
    m_away = true;
    m_poll.start();
    if (m_listenItem.isChecked()) {
        const QSignalBlocker quiet(&m_listenItem);
        m_listenItem.setChecked(false);
        m_listeningAway = true;
    }
}

void GameInputWatch::inputsChanged() {
    if (!m_away) {
        return;
    }
    const QByteArray input = m_session.settings().gameAudioInput.toUtf8();
    const QList<QAudioDevice> inputs = QMediaDevices::audioInputs();
    if (std::none_of(inputs.begin(), inputs.end(),
                     [&](const QAudioDevice& device) { return device.id() == input; })) {
        return;
    }
    m_away = false;
    m_poll.stop();
    if (std::exchange(m_listeningAway, false)) {
        const QSignalBlocker quiet(&m_listenItem);
        m_listenItem.setChecked(true);
    }
    m_takeUp();
}

} // namespace zandor
