#pragma once

#include "QuillmereDesktop/common/PreferencesStore.h"
#include "QuillmereDesktop/common/QmlSingleton.h"
#include "QuillmereDesktop/queue/AppState.h"

#include <QDBusConnection>
#include <QHash>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QtQml/qqmlregistration.h>

#include <qcorotask.h>

#include <functional>
#include <optional>

// Tells the person about a new interrupt while the window is in the background, through
// the desktop's notification service: the run's name and the prompt, with buttons that
// approve or reject an approval that offers those options, or open the item. The
// person's own verdicts are never announced; an interrupt that leaves the queue takes its
// notification with it. A setting turns all of it off.
class DesktopNotifier : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON
    Q_PROPERTY(bool enabled READ enabled WRITE setEnabled NOTIFY enabledChanged)
    Q_PROPERTY(QString settingLabel READ settingLabel CONSTANT)

public:
    static DesktopNotifier* create(QQmlEngine* qml, QJSEngine* js) {
        return QmlSingleton<DesktopNotifier>::create(qml, js);
    }

    static inline const QString enabledKey = QStringLiteral("desktopNotifications");
    static inline const QString service = QStringLiteral("org.freedesktop.Notifications");
    static inline const QString path = QStringLiteral("/org/freedesktop/Notifications");
    static inline const QString interface = QStringLiteral("org.freedesktop.Notifications");
    // The launcher entry the desktop ties the notifications to.
    static inline const QString desktopEntry = QStringLiteral("quillmere");
    // Action keys; "default" is the notification's body being clicked.
    static inline const QString approveAction = QStringLiteral("approve");
    static inline const QString rejectAction = QStringLiteral("reject");
    static inline const QString openAction = QStringLiteral("open");
    static inline const QString defaultAction = QStringLiteral("default");
    // The summary of the notice that replaces one whose verdict did not reach the relay.
    static inline const QString notSentSummary = QStringLiteral("Not sent \u2014 try again");

    struct Config {
        // Whether the person is looking at the window; then nothing is announced.
        std::function<bool()> windowActive;
        // Brings the window up for the item that was opened.
        std::function<void()> showWindow;
        // The bus the notification service is on; the session bus when absent.
        std::optional<QDBusConnection> bus;
    };

    DesktopNotifier(AppState& app, PreferencesStore& preferences, Config config = {},
                    QObject* parent = nullptr);

    bool enabled() const { return m_enabled; }
    void setEnabled(bool enabled);
    static QString settingLabel() { return QStringLiteral("Desktop notifications"); }

    // The actions offered for an interrupt, as the notification service takes them: key,
    // then label, for each.
    static QStringList actionsFor(const Interrupt& interrupt);
    // The option of an interrupt that an action stands for ("Approve" as the agent wrote it).
    static std::optional<QString> optionFor(const Interrupt& interrupt, const QString& action);

signals:
    void enabledChanged();
    // A notification was shown for an interrupt (for tests and the tray).
    void notified(const QString& interruptId, uint notificationId);

private slots:
    // The service's signals, joined by name over the bus.
    void onActionInvoked(uint notificationId, const QString& action);
    void onNotificationClosed(uint notificationId, uint reason);

private:
    void onSnapshot();
    // Shows an interrupt; `summary` replaces the run's name as the notice's heading.
    void notify(const Interrupt& interrupt, const std::optional<QString>& summary = std::nullopt);
    // Sends the verdict an action stands for; one that does not arrive is announced again,
    // so the answer the person believes given is never silently lost.
    QCoro::Task<> sendVerdict(Interrupt interrupt, QString option);
    void closeNotification(uint notificationId);
    bool connectBus();

    QPointer<AppState> m_app;
    PreferencesStore& m_preferences;
    Config m_config;
    bool m_enabled = true;
    std::optional<QDBusConnection> m_bus;
    bool m_busConnected = false;
    // Interrupts of the last snapshot; only ones not among them are new.
    QSet<QString> m_known;
    // Shown notifications and the interrupts they stand for.
    QHash<uint, Interrupt> m_shown;
};
