// A stand-in for the desktop's notification service on the session bus, for tests.
//
// It owns org.freedesktop.Notifications and answers Notify, CloseNotification,
// GetCapabilities and GetServerInformation. Each call is written to standard output as one
// JSON line; "ready" is the first line, once the name is owned. Commands on standard
// input, one per line: "invoke ID ACTION" emits ActionInvoked, "dismiss ID" emits
// NotificationClosed with the "dismissed by the user" reason.

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSocketNotifier>
#include <QStringList>
#include <QVariantMap>

#include <cstdio>
#include <unistd.h>

namespace {

void writeLine(const QJsonObject& record) {
    std::fputs(QJsonDocument(record).toJson(QJsonDocument::Compact).constData(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

} // namespace

class FakeNotifications : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")

public:
    using QObject::QObject;

    void command(const QString& line) {
        const QStringList words = line.split(u' ', Qt::SkipEmptyParts);
        if (words.size() == 3 && words[0] == QLatin1String("invoke"))
            emit ActionInvoked(words[1].toUInt(), words[2]);
        else if (words.size() == 2 && words[0] == QLatin1String("dismiss"))
            emit NotificationClosed(words[1].toUInt(), 2);
    }

public slots:
    uint Notify(const QString& appName, uint replacesId, const QString& appIcon, const QString& summary,
                const QString& body, const QStringList& actions, const QVariantMap& hints,
                int expireTimeout) {
        const uint id = replacesId != 0 ? replacesId : ++m_lastId;
        writeLine({{"call", "Notify"},
                   {"id", qint64(id)},
                   {"app_name", appName},
                   {"app_icon", appIcon},
                   {"summary", summary},
                   {"body", body},
                   {"actions", QJsonArray::fromStringList(actions)},
                   {"desktop_entry", hints.value(QStringLiteral("desktop-entry")).toString()},
                   {"expire_timeout", expireTimeout}});
        return id;
    }
    void CloseNotification(uint id) {
        writeLine({{"call", "CloseNotification"}, {"id", qint64(id)}});
        emit NotificationClosed(id, 3);
    }
    QStringList GetCapabilities() { return {QStringLiteral("actions"), QStringLiteral("body")}; }
    QString GetServerInformation(QString& vendor, QString& version, QString& specVersion) {
        vendor = QStringLiteral("Quillmere tests");
        version = QStringLiteral("1");
        specVersion = QStringLiteral("1.2");
        return QStringLiteral("fake-notification-service");
    }

signals:
    void ActionInvoked(uint id, const QString& actionKey);
    void NotificationClosed(uint id, uint reason);

private:
    uint m_lastId = 0;
};

int main(int argc, char* argv[]) {
    QCoreApplication application(argc, argv);
    QDBusConnection bus = QDBusConnection::sessionBus();
    FakeNotifications service;
    if (!bus.isConnected() ||
        !bus.registerObject(QStringLiteral("/org/freedesktop/Notifications"), &service,
                            QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals) ||
        !bus.registerService(QStringLiteral("org.freedesktop.Notifications"))) {
        std::fprintf(stderr, "fake-notification-service: no session bus or the name is taken\n");
        return 1;
    }
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QByteArray pending;
    QObject::connect(&input, &QSocketNotifier::activated, &service, [&] {
        char buffer[512];
        const ssize_t count = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (count <= 0) {
            // The test has gone: so does the service.
            QCoreApplication::quit();
            return;
        }
        pending.append(buffer, count);
        for (qsizetype end = pending.indexOf('\n'); end >= 0; end = pending.indexOf('\n')) {
            service.command(QString::fromUtf8(pending.left(end)).trimmed());
            pending.remove(0, end + 1);
        }
    });
    writeLine({{"call", "ready"}});
    return application.exec();
}

#include "FakeNotificationService.moc"
