#include "SessionBus.h"
#include "app/SaveNotifier.h"

#include <gtest/gtest.h>

#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDesktopServices>
#include <QSignalSpy>
#include <QTest>
#include <QUrl>

namespace zandor {
namespace {

// Catches what would open in the user's applications.
class OpenedUrls : public QObject {
    Q_OBJECT
public:
    QList<QUrl> urls;
    Q_INVOKABLE void open(const QUrl& url) { urls << url; }
};

const QString Notifications = "org.freedesktop.Notifications";
const QString NotificationsPath = "/org/freedesktop/Notifications";
const QString Portal = "org.freedesktop.portal.Desktop";
const QString PortalPath = "/org/freedesktop/portal/desktop";
const QString Shot = "/tmp/shots/Screenshot 1.png";

class SaveNotifierTest : public test::DesktopBusTest {
protected:
    void SetUp() override {
        DesktopBusTest::SetUp();
        QDesktopServices::setUrlHandler("file", &m_opened, "open");
    }
    void TearDown() override {
        QDesktopServices::unsetUrlHandler("file");
        DesktopBusTest::TearDown();
    }

    QStringList shownItems(const test::StandInService& fileManager) const {
        QStringList items;
        for (const QDBusMessage& call : fileManager.calls()) {
            items << call.member() + ": " + call.arguments().value(0).toStringList().join(", ");
        }
        return items;
    }

    OpenedUrls m_opened;
    QStringList m_fallback;
};

TEST_F(SaveNotifierTest, NamesTheFileAndItsActionsOpenItOrShowItInItsFolder) {
    test::StandInService service({QVariant::fromValue(uint(7))}), fileManager;
    offer(Notifications, NotificationsPath, &service);
    offer("org.freedesktop.FileManager1", "/org/freedesktop/FileManager1", &fileManager);
    SaveNotifier notifier(address(), false);
    notifier.setFallback([this](const QString& line) { m_fallback << line; });
    QSignalSpy notified(&notifier, &SaveNotifier::notified);

    notifier.fileSaved("Screenshot saved", Shot);
    ASSERT_TRUE(notified.wait(20000));
    ASSERT_EQ(service.calls().size(), 1);
    const QVariantList args = service.calls()[0].arguments();
    EXPECT_EQ(service.calls()[0].member(), "Notify");
    EXPECT_EQ(args.value(0).toString(), "Zandor");
    EXPECT_EQ(args.value(3).toString(), "Screenshot saved");
    EXPECT_EQ(args.value(4).toString(), "Screenshot 1.png");
    const QStringList actions = args.value(5).toStringList();
    EXPECT_TRUE(actions.contains("Open") && actions.contains("Show in Folder"))
        << actions.join(",").toStdString();
    EXPECT_TRUE(m_fallback.isEmpty());

    // Another application's notification of the same service is none of ours.
    signal(NotificationsPath, Notifications, "ActionInvoked",
           {uint(8), actions[actions.indexOf("Open") - 1]});
    signal(NotificationsPath, Notifications, "ActionInvoked",
           {uint(7), actions[actions.indexOf("Show in Folder") - 1]});
    ASSERT_TRUE(QTest::qWaitFor([&] { return !fileManager.calls().isEmpty(); }, 20000));
    EXPECT_EQ(shownItems(fileManager), QStringList{"ShowItems: file:///tmp/shots/Screenshot 1.png"});
    signal(NotificationsPath, Notifications, "ActionInvoked",
           {uint(7), actions[actions.indexOf("Open") - 1]});
    ASSERT_TRUE(QTest::qWaitFor([&] { return !m_opened.urls.isEmpty(); }, 20000));
    EXPECT_EQ(m_opened.urls, QList<QUrl>{QUrl::fromLocalFile(Shot)})
        << "opened once, by our own notification";

    // Closed, it is forgotten: an action of that id no longer reaches the file.
    signal(NotificationsPath, Notifications, "NotificationClosed", {uint(7), uint(2)});
    signal(NotificationsPath, Notifications, "ActionInvoked",
           {uint(7), actions[actions.indexOf("Open") - 1]});
    notifier.fileSaved("Replay saved", "/tmp/shots/Replay 1.mp4");
    ASSERT_TRUE(notified.wait(20000));
    EXPECT_EQ(m_opened.urls.size(), 1);

    // Turned off: the status line alone says it.
    notifier.setEnabled(false);
    notifier.fileSaved("Recording saved", "/tmp/shots/Capture 1.mp4");
    EXPECT_EQ(m_fallback, QStringList{"Recording saved: Capture 1.mp4"});
    EXPECT_EQ(service.calls().size(), 2);
}

TEST_F(SaveNotifierTest, WithoutTheServicesTheStatusLineSaysItAndTheFolderOpens) {
    SaveNotifier notifier(address(), false);
    notifier.setFallback([this](const QString& line) { m_fallback << line; });
    notifier.fileSaved("Replay saved", "/tmp/shots/Replay 1.mp4");
    ASSERT_TRUE(QTest::qWaitFor([&] { return !m_fallback.isEmpty(); }, 20000));
    EXPECT_EQ(m_fallback, QStringList{"Replay saved: Replay 1.mp4"});

    notifier.showInFolder(Shot);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !m_opened.urls.isEmpty(); }, 20000));
    EXPECT_EQ(m_opened.urls, QList<QUrl>{QUrl::fromLocalFile("/tmp/shots")});
}

TEST_F(SaveNotifierTest, SandboxedItGoesThroughThePortal) {
    test::StandInService portal, fileManager;
    offer(Portal, PortalPath, &portal);
    offer("org.freedesktop.FileManager1", "/org/freedesktop/FileManager1", &fileManager);
    SaveNotifier notifier(address(), true);
    QSignalSpy notified(&notifier, &SaveNotifier::notified);
    notifier.fileSaved("Screenshot saved", Shot);
    ASSERT_TRUE(notified.wait(20000));
    const QList<QDBusMessage> calls = portal.calls();
    ASSERT_EQ(calls.size(), 1);
    EXPECT_EQ(calls[0].interface(), "org.freedesktop.portal.Notification");
    EXPECT_EQ(calls[0].member(), "AddNotification");
    const QString id = calls[0].arguments().value(0).toString();
    const QVariantMap notification = qdbus_cast<QVariantMap>(calls[0].arguments().value(1));
    EXPECT_EQ(notification["title"].toString(), "Screenshot saved");
    EXPECT_EQ(notification["body"].toString(), "Screenshot 1.png");
    QStringList labels;
    for (const QVariantMap& button : qdbus_cast<QList<QVariantMap>>(notification["buttons"])) {
        labels << button["label"].toString();
    }
    EXPECT_EQ(labels, (QStringList{"Open", "Show in Folder"}));

    signal(PortalPath, "org.freedesktop.portal.Notification", "ActionInvoked",
           {id, QString("show"), QVariant(QVariantList{})});
    ASSERT_TRUE(QTest::qWaitFor([&] { return !fileManager.calls().isEmpty(); }, 20000));
    EXPECT_EQ(shownItems(fileManager), QStringList{"ShowItems: file:///tmp/shots/Screenshot 1.png"});
}

} // namespace
} // namespace zandor

#include "SaveNotifierTest.moc"
