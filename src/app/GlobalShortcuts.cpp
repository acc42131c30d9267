#include "GlobalShortcuts.h"

#include "DesktopBus.h"
#include "base/Log.h"

#include <QDBusArgument>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>

#include <utility>

namespace zandor {

namespace {

const QString PortalService = QStringLiteral("org.freedesktop.portal.Desktop");
const QString PortalPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString ShortcutsInterface = QStringLiteral("org.freedesktop.portal.GlobalShortcuts");
const QString RequestInterface = QStringLiteral("org.freedesktop.portal.Request");

// The portal's a(sa{sv}): each shortcut's id and its properties.
using ShortcutList = QList<std::pair<QString, QVariantMap>>;

int g_connections = 0;
int g_requests = 0;

} // namespace

GlobalShortcuts::GlobalShortcuts(QList<Shortcut> shortcuts, const QString& busAddress, QObject* parent)
    : QObject(parent), m_shortcuts(std::move(shortcuts)),
      m_busName(QStringLiteral("zandor-shortcuts-%1").arg(++g_connections)),
      m_bus(desktop_bus::connect(busAddress, m_busName)) {
    qDBusRegisterMetaType<std::pair<QString, QVariantMap>>();
    qDBusRegisterMetaType<ShortcutList>();
    // QtDBus learns its own types (the object path of Activated) only when it is first asked for
    // one; a slot taking one cannot be connected before.
    QDBusMetaType::typeToSignature(QMetaType::fromType<QDBusObjectPath>());
}

GlobalShortcuts::~GlobalShortcuts() {
    m_subscriptions.release();
    desktop_bus::endLater(m_busName);
}

QString GlobalShortcuts::note() const {
    switch (m_state) {
    case State::Off:
    case State::Binding:
        return {};
    case State::Bound:
        return m_bound.isEmpty()
                   ? QStringLiteral("Save Replay, Record and Screenshot work as global shortcuts, also "
                                    "while another window is in front; the desktop's settings choose "
                                    "their keys.")
                   : QStringLiteral("Global shortcuts, also while another window is in front: %1.")
                         .arg(m_bound.join(QStringLiteral(", ")));
    case State::Unavailable:
        break;
    }
    return QStringLiteral("The desktop offers no global shortcuts: Save Replay, Record and Screenshot "
                          "have their keys while Zandor's window is in front.");
}

QString GlobalShortcuts::requestPath(const QString& token) const {
    // The portal's documented request path: the sender's unique name without its colon, dots as
    // underscores, then the token.
    QString sender = m_bus.baseService().mid(1);
    sender.replace(u'.', u'_');
    return QStringLiteral("%1/request/%2/%3").arg(PortalPath, sender, token);
}

void GlobalShortcuts::start() {
    if (!m_bus.isConnected()) {
        unavailable(QStringLiteral("no session bus"));
        return;
    }
    m_state = State::Binding;
    m_subscriptions.add(PortalService, PortalPath, ShortcutsInterface, QStringLiteral("Activated"),
                        SLOT(shortcutActivated(QDBusObjectPath, QString, qulonglong, QVariantMap)));
    const QString token = QStringLiteral("zandor%1").arg(++g_requests);
    request(QStringLiteral("CreateSession"),
            {QVariantMap{{QStringLiteral("handle_token"), token},
                         {QStringLiteral("session_handle_token"), token}}},
            token, SLOT(sessionCreated(uint, QVariantMap)));
}

void GlobalShortcuts::request(const QString& method, QVariantList arguments, const QString& token,
                              const char* slot) {
    const QString path = requestPath(token);
    m_subscriptions.add(PortalService, path, RequestInterface, QStringLiteral("Response"), slot);
    QDBusMessage call = QDBusMessage::createMethodCall(PortalService, PortalPath, ShortcutsInterface, method);
    call.setArguments(arguments);
    auto* watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher, method] {
        watcher->deleteLater();
        const QDBusMessage reply = watcher->reply();
        if (reply.type() == QDBusMessage::ErrorMessage) {
            unavailable(QStringLiteral("%1: %2").arg(method, reply.errorMessage()));
        }
    });
}

void GlobalShortcuts::sessionCreated(uint response, const QVariantMap& results) {
    if (m_state != State::Binding) {
        return;
    }
    if (response != 0 || !results.contains(QStringLiteral("session_handle"))) {
        unavailable(QStringLiteral("the desktop made no session (response %1)").arg(response));
        return;
    }
    // A string by the portal's documentation, an object path by some portals.
    const QVariant handle = results.value(QStringLiteral("session_handle"));
    m_session =
        handle.canConvert<QDBusObjectPath>() ? handle.value<QDBusObjectPath>().path() : handle.toString();

    ShortcutList shortcuts;
    for (const Shortcut& shortcut : m_shortcuts) {
        shortcuts.append({shortcut.id,
                          {{QStringLiteral("description"), shortcut.description},
                           {QStringLiteral("preferred_trigger"), shortcut.preferredTrigger}}});
    }
    const QString token = QStringLiteral("zandor%1").arg(++g_requests);
    request(QStringLiteral("BindShortcuts"),
            {QVariant::fromValue(QDBusObjectPath(m_session)), QVariant::fromValue(shortcuts), QString(),
             QVariantMap{{QStringLiteral("handle_token"), token}}},
            token, SLOT(shortcutsBound(uint, QVariantMap)));
}

void GlobalShortcuts::shortcutsBound(uint response, const QVariantMap& results) {
    if (m_state != State::Binding) {
        return;
    }
    if (response != 0) {
        unavailable(QStringLiteral("the shortcuts were not bound (response %1)").arg(response));
        return;
    }
    m_bound.clear();
    const auto bound = qdbus_cast<ShortcutList>(results.value(QStringLiteral("shortcuts")));
    for (const auto& [id, properties] : bound) {
        const QString trigger = properties.value(QStringLiteral("trigger_description")).toString();
        if (!trigger.isEmpty()) {
            m_bound << QStringLiteral("%1 %2").arg(properties.value(QStringLiteral("description")).toString(),
                                                   trigger);
        }
    }
    m_state = State::Bound;
    logs::app.info("Global shortcuts bound by the desktop");
    emit stateChanged();
}

void GlobalShortcuts::shortcutActivated(const QDBusObjectPath& session, const QString& id, qulonglong,
                                        const QVariantMap&) {
    if (m_state == State::Bound && session.path() == m_session) {
        emit activated(id);
    }
}

void GlobalShortcuts::unavailable(const QString& why) {
    if (m_state == State::Unavailable) {
        return;
    }
    m_state = State::Unavailable;
    m_why = why;
    logs::app.info("No global shortcuts: %s", qUtf8Printable(why));
    emit stateChanged();
}

} // namespace zandor
