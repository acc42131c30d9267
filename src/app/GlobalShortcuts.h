#pragma once

#include "DesktopBus.h"

#include <QDBusConnection>
#include <QDBusObjectPath>
#include <QList>
#include <QObject>
#include <QString>
#include <QVariantMap>

namespace zandor {

// Zandor's actions as shortcuts that work while another window has the focus, bound by the desktop
// through the XDG desktop portal's GlobalShortcuts: a session is made, the actions are bound with
// the keys Zandor suggests (the desktop, or the user there, decides), and each activation is sent
// as activated(). Where no portal offers it, nothing is bound and the window's own keys remain.
// Runs on the GUI thread; never waits for the bus.
class GlobalShortcuts : public QObject {
    Q_OBJECT
public:
    struct Shortcut {
        QString id;
        QString description;
        QString preferredTrigger; // in the portal's words: "LOGO+ALT+R"
    };
    enum class State { Off, Binding, Bound, Unavailable };

    // A connection of its own to the session bus at `busAddress` (by default the one of
    // DBUS_SESSION_BUS_ADDRESS as it is now).
    explicit GlobalShortcuts(QList<Shortcut> shortcuts, const QString& busAddress = {},
                             QObject* parent = nullptr);
    ~GlobalShortcuts() override;

    // Asks the portal for a session and binds the shortcuts; stateChanged() tells how it went.
    void start();
    State state() const { return m_state; }
    // What the preferences say of it, in a sentence.
    QString note() const;

signals:
    void activated(const QString& id);
    void stateChanged();

private slots:
    void sessionCreated(uint response, const QVariantMap& results);
    void shortcutsBound(uint response, const QVariantMap& results);
    void shortcutActivated(const QDBusObjectPath& session, const QString& id, qulonglong timestamp,
                           const QVariantMap& options);

private:
    // The path of the request the portal makes for a call with `token`, known before the call so
    // that its response cannot come before we listen.
    QString requestPath(const QString& token) const;
    // Calls `method` with `arguments`, its response going to `slot`.
    void request(const QString& method, QVariantList arguments, const QString& token, const char* slot);
    void unavailable(const QString& why);

    const QList<Shortcut> m_shortcuts;
    const QString m_busName;
    QDBusConnection m_bus;
    desktop_bus::Subscriptions m_subscriptions{m_bus, this};
    State m_state = State::Off;
    QString m_session;
    QString m_why;       // why there are none, for the log
    QStringList m_bound; // "Save Replay: Super+Alt+S", as the desktop says them
};

} // namespace zandor
