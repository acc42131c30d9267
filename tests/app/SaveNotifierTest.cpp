#include "SessionBus.h"
#include "UserFolders.h"
#include "app/SaveNotifier.h"

#include <gtest/gtest.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusVirtualObject>
#include <QDesktopServices>
#include <QSignalSpy>
#include <QTest>
#include <QUrl>

#include <functional>
#include <mutex>

namespace zandor {
namespace {

// Catches what would open in the user's applications.
class OpenedUrls : public QObject {
    Q_OBJECT
public:
    QList<QUrl> urls;
    Q_INVOKABLE void open(const QUrl& url) { urls << url; }
};

// A desktop service standing in on the private bus: keeps every call and answers with `answer`.
// The bus's own thread hands the calls over.
class StandIn : public QDBusVirtualObject {
public:
    explicit StandIn(QVariantList answer = {}) : m_answer(std::move(answer)) {}
    QString introspect(const QString&) const override { return {}; }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        {
            std::scoped_lock lock(m_lock);
            m_calls << message;
        }
        connection.send(message.createReply(m_answer));
        return true;
    }
    QList<QDBusMessage> calls() const {
        std::scoped_lock lock(m_lock);
        return m_calls;
    }

private:
    const QVariantList m_answer;
    mutable std::mutex m_lock;
    QList<QDBusMessage> m_calls; // guarded by m_lock
};

const QString Notifications = "org.freedesktop.Notifications";
const QString NotificationsPath = "/org/freedesktop/Notifications";
const QString Portal = "org.freedesktop.portal.Desktop";
const QString PortalPath = "/org/freedesktop/portal/desktop";
const QString Shot = "/tmp/shots/Screenshot 1.png";

class SaveNotifierTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::isolateUserFolders();
        m_bus = std::make_unique<test::SessionBus>();
        ASSERT_TRUE(m_bus->isRunning()) << m_bus->error();
        m_desktop = std::make_unique<QDBusConnection>(
            QDBusConnection::connectToBus(QString::fromStdString(m_bus->address()), "stand-in-desktop"));
        ASSERT_TRUE(m_desktop->isConnected());
        QDesktopServices::setUrlHandler("file", &m_opened, "open");
    }
    void TearDown() override {
        QDesktopServices::unsetUrlHandler("file");
        m_desktop.reset();
        QDBusConnection::disconnectFromBus("stand-in-desktop");
    }

    void offer(const QString& service, const QString& path, StandIn* standIn) {
        ASSERT_TRUE(m_desktop->registerVirtualObject(path, standIn));
        ASSERT_TRUE(m_desktop->registerService(service));
    }
    void signal(const QString& path, const QString& interface, const QString& name,
                const QVariantList& args) {
        QDBusMessage message = QDBusMessage::createSignal(path, interface, name);
        message.setArguments(args);
        ASSERT_TRUE(m_desktop->send(message));
    }
    QStringList shownItems(const StandIn& fileManager) const {
        QStringList items;
        for (const QDBusMessage& call : fileManager.calls()) {
            items << call.member() + ": " + call.arguments().value(0).toStringList().join(", ");
        }
        return items;
    }

    std::unique_ptr<test::SessionBus> m_bus;
    std::unique_ptr<QDBusConnection> m_desktop;
    OpenedUrls m_opened;
    QStringList m_fallback;
};

TEST_F(SaveNotifierTest, NamesTheFileAndItsActionsOpenItOrShowItInItsFolder) {
    StandIn service({QVariant::fromValue(uint(7))}), fileManager;
    offer(Notifications, NotificationsPath, &service);
    offer("org.freedesktop.FileManager1", "/org/freedesktop/FileManager1", &fileManager);
    SaveNotifier notifier(QString::fromStdString(m_bus->address()), false);
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
    SaveNotifier notifier(QString::fromStdString(m_bus->address()), false);
    notifier.setFallback([this](const QString& line) { m_fallback << line; });
    notifier.fileSaved("Replay saved", "/tmp/shots/Replay 1.mp4");
    ASSERT_TRUE(QTest::qWaitFor([&] { return !m_fallback.isEmpty(); }, 20000));
    EXPECT_EQ(m_fallback, QStringList{"Replay saved: Replay 1.mp4"});

    notifier.showInFolder(Shot);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !m_opened.urls.isEmpty(); }, 20000));
    EXPECT_EQ(m_opened.urls, QList<QUrl>{QUrl::fromLocalFile("/tmp/shots")});
}

TEST_F(SaveNotifierTest, SandboxedItGoesThroughThePortal) {
    StandIn portal, fileManager;
    offer(Portal, PortalPath, &portal);
    offer("org.freedesktop.FileManager1", "/org/freedesktop/FileManager1", &fileManager);
    SaveNotifier notifier(QString::fromStdString(m_bus->address()), true);
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
