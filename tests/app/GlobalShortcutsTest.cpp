#include "SessionBus.h"
#include "app/GlobalShortcuts.h"

#include <gtest/gtest.h>

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QSignalSpy>

#include <utility>

namespace zandor {
namespace {

using ShortcutList = QList<std::pair<QString, QVariantMap>>;

const QString PortalPath = "/org/freedesktop/portal/desktop";
const QString ShortcutsInterface = "org.freedesktop.portal.GlobalShortcuts";
const QString Session = "/org/freedesktop/portal/desktop/session/1_1/zandor";

// The desktop portal's answer to CreateSession and BindShortcuts: a request whose Response signal
// follows, as the portal gives it.
void answerAsThePortal(const QDBusMessage& call, const QDBusConnection& connection) {
    const int options = call.member() == "CreateSession" ? 0 : 3;
    const QString token = qdbus_cast<QVariantMap>(call.arguments().value(options))["handle_token"].toString();
    const QString request = PortalPath + "/request/" + call.service().mid(1).replace('.', '_') + "/" + token;
    connection.send(call.createReply(QVariant::fromValue(QDBusObjectPath(request))));
    QVariantMap results;
    if (call.member() == "CreateSession") {
        results["session_handle"] = Session;
    } else {
        ShortcutList bound;
        for (const auto& [id, properties] : qdbus_cast<ShortcutList>(call.arguments().value(1))) {
            QVariantMap described = properties;
            described["trigger_description"] = properties["preferred_trigger"].toString().toLower();
            bound.append({id, described});
        }
        results["shortcuts"] = QVariant::fromValue(bound);
    }
    QDBusMessage response = QDBusMessage::createSignal(request, "org.freedesktop.portal.Request", "Response");
    response << uint(0) << results;
    connection.send(response);
}

const QList<GlobalShortcuts::Shortcut> Actions{{"save-replay", "Save Replay", "LOGO+ALT+S"},
                                               {"record", "Record", "LOGO+ALT+R"},
                                               {"screenshot", "Screenshot", "LOGO+ALT+F12"}};

class GlobalShortcutsTest : public test::DesktopBusTest {
protected:
    void activate(const QString& session, const QString& id) {
        signal(PortalPath, ShortcutsInterface, "Activated",
               {QVariant::fromValue(QDBusObjectPath(session)), id, qulonglong(1), QVariantMap()});
    }
};

TEST_F(GlobalShortcutsTest, BindsTheThreeActionsInASessionAndPassesOnTheirActivations) {
    test::StandInService portal(answerAsThePortal);
    offer("org.freedesktop.portal.Desktop", PortalPath, &portal);
    GlobalShortcuts shortcuts(Actions, address());
    QSignalSpy changed(&shortcuts, &GlobalShortcuts::stateChanged);
    QSignalSpy activated(&shortcuts, &GlobalShortcuts::activated);
    shortcuts.start();
    ASSERT_TRUE(changed.wait(20000));
    ASSERT_EQ(shortcuts.state(), GlobalShortcuts::State::Bound) << shortcuts.note().toStdString();

    const QList<QDBusMessage> calls = portal.calls();
    QStringList order;
    for (const QDBusMessage& call : calls) {
        order << call.interface() + "." + call.member();
    }
    ASSERT_EQ(order,
              (QStringList{ShortcutsInterface + ".CreateSession", ShortcutsInterface + ".BindShortcuts"}));
    EXPECT_EQ(qdbus_cast<QDBusObjectPath>(calls[1].arguments().value(0)).path(), Session)
        << "bound in the session the portal made";
    QStringList asked;
    for (const auto& [id, properties] : qdbus_cast<ShortcutList>(calls[1].arguments().value(1))) {
        asked << id + " " + properties["description"].toString() + " " +
                     properties["preferred_trigger"].toString();
    }
    EXPECT_EQ(asked, (QStringList{"save-replay Save Replay LOGO+ALT+S", "record Record LOGO+ALT+R",
                                  "screenshot Screenshot LOGO+ALT+F12"}));
    EXPECT_EQ(shortcuts.note(), "Global shortcuts, also while another window is in front: Save Replay "
                                "logo+alt+s, Record logo+alt+r, Screenshot logo+alt+f12.");

    // Another session's activation is none of ours.
    activate("/org/freedesktop/portal/desktop/session/1_1/other", "record");
    activate(Session, "save-replay");
    ASSERT_TRUE(activated.wait(20000));
    EXPECT_EQ(activated.count(), 1);
    EXPECT_EQ(activated[0][0].toString(), "save-replay");
}

} // namespace
} // namespace zandor
