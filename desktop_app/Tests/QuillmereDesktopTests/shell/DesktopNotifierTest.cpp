#include "QuillmereDesktop/shell/DesktopNotifier.h"
#include "support/Await.h"
#include "support/RelayFixture.h"
#include "support/SignedInStores.h"

#include <QGuiApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>

#include <memory>

namespace {

struct Raised {
    QString id;
    static constexpr auto wireFields() { return std::tuple{wire::field("id", &Raised::id)}; }
};

// The fake notification service in a process of its own, and the calls it has received.
class NotificationService {
public:
    bool start() {
        m_process.setProgram(QStringLiteral(QUILLMERE_FAKE_NOTIFICATION_SERVICE));
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        QObject::connect(&m_process, &QProcess::readyReadStandardOutput, [this] { read(); });
        m_process.start();
        return QTest::qWaitFor([this] { return m_ready; }, 10000);
    }
    ~NotificationService() {
        m_process.closeWriteChannel();
        if (!m_process.waitForFinished(3000))
            m_process.kill();
    }

    QList<QJsonObject> calls(const QString& name) const {
        QList<QJsonObject> found;
        for (const QJsonObject& call : m_calls)
            if (call.value("call").toString() == name)
                found.append(call);
        return found;
    }
    void send(const QString& command) { m_process.write((command + "\n").toUtf8()); }

private:
    void read() {
        while (m_process.canReadLine()) {
            const QJsonObject call = QJsonDocument::fromJson(m_process.readLine()).object();
            if (call.value("call").toString() == "ready")
                m_ready = true;
            else
                m_calls.append(call);
        }
    }

    QProcess m_process;
    bool m_ready = false;
    QList<QJsonObject> m_calls;
};

bool holds(const AppState& app, const QString& id) {
    for (const Interrupt& interrupt : app.snapshot().interrupts)
        if (interrupt.id == id)
            return true;
    return false;
}

// The notification service's stand-in, and the real relay the app's queue is online with.
struct OnlineQueue {
    NotificationService service;
    RelayFixture relay;
    std::unique_ptr<SignedInStores> stores;

    bool start() {
        if (!service.start() || !relay.start())
            return false;
        stores = std::make_unique<SignedInStores>(relay.url());
        return QTest::qWaitFor([this] { return stores->app->online(); });
    }
};

} // namespace

// Desktop notifications for new interrupts, on a private session bus with a stand-in for
// the notification service, against the real relay.
class DesktopNotifierTest : public QObject {
    Q_OBJECT

    static QString raise(RelayClient& agent, const QString& prompt, const QString& kind = "approval") {
        const QJsonObject body{{"run_id", "run-9"},
                               {"run_name", "nightly-cleanup"},
                               {"kind", kind},
                               {"prompt", prompt},
                               {"options", QJsonArray{"Approve", "Reject"}}};
        const auto raised = await(agent.postRaw<Raised>("v1/interrupts", body));
        return raised ? raised->id : QString();
    }

private slots:
    void actionsFollowTheInterrupt() {
        Interrupt approval;
        approval.kind = InterruptKind::approval;
        approval.options = {"Approve", "Reject"};
        QCOMPARE(DesktopNotifier::actionsFor(approval),
                 QStringList({"approve", "Approve", "reject", "Reject", "open", "Open", "default", "Open"}));
        approval.options = {"approve"};
        QCOMPARE(DesktopNotifier::actionsFor(approval),
                 QStringList({"approve", "Approve", "open", "Open", "default", "Open"}));
        QCOMPARE(DesktopNotifier::optionFor(approval, "approve"), std::optional<QString>("approve"));
        Interrupt question;
        question.kind = InterruptKind::question;
        question.options = {"Approve"};
        QCOMPARE(DesktopNotifier::actionsFor(question), QStringList({"open", "Open", "default", "Open"}));
    }

    void newInterruptsAreAnnouncedAndAnsweredFromTheNotification() {
        QVERIFY2(qEnvironmentVariableIsSet("DBUS_SESSION_BUS_ADDRESS"), "run under dbus-run-session");
        OnlineQueue queue;
        QVERIFY(queue.start());
        AppState& app = *queue.stores->app;
        // No window of this process has the focus: the application is in the background.
        QVERIFY(QGuiApplication::applicationState() != Qt::ApplicationActive);
        bool raised = false;
        DesktopNotifier notifier(app, queue.stores->prefs,
                                 DesktopNotifier::Config{{}, [&raised] { raised = true; }, {}});
        QVERIFY(notifier.enabled());
        QSignalSpy notified(&notifier, &DesktopNotifier::notified);
        RelayClient agent(queue.relay.url(), queue.stores->auth->client()->token());

        // One new interrupt, one notification, within a second of the relay taking it.
        const QString first = raise(agent, "Delete 3 stale branches?");
        QVERIFY(!first.isEmpty());
        QTRY_COMPARE_WITH_TIMEOUT(queue.service.calls("Notify").size(), 1, 1000);
        const QJsonObject shown = queue.service.calls("Notify").first();
        QCOMPARE(shown.value("app_name").toString(), "Quillmere");
        QCOMPARE(shown.value("summary").toString(), "nightly-cleanup");
        QCOMPARE(shown.value("body").toString(), "Delete 3 stale branches?");
        QCOMPARE(shown.value("desktop_entry").toString(), "quillmere");
        QCOMPARE(shown.value("actions").toArray().toVariantList(),
                 QVariantList({"approve", "Approve", "reject", "Reject", "open", "Open", "default", "Open"}));
        QTRY_COMPARE(notified.count(), 1);
        QCOMPARE(notified.first().at(0).toString(), first);
        // Later snapshots that still hold it announce nothing again.
        QTest::qWait(300);
        QCOMPARE(queue.service.calls("Notify").size(), 1);

        // "Approve" on the notification answers the agent through the relay.
        queue.service.send(QStringLiteral("invoke %1 approve").arg(shown.value("id").toInteger()));
        QTRY_VERIFY_WITH_TIMEOUT(!holds(app, first), 5000);
        const auto state = await(agent.get<QJsonObject>("v1/interrupts/" + first));
        QVERIFY(state.ok());
        QCOMPARE(state->value("status").toString(), "decided");
        QCOMPARE(state->value("verdict").toObject().value("verdict").toString(), "approve");
        QCOMPARE(state->value("verdict").toObject().value("source").toString(), "desktop");
        QCOMPARE(queue.service.calls("Notify").size(), 1);

        // The person's own verdict in the window: nothing new, and the notice goes away.
        const QString second = raise(agent, "Push to main?");
        QTRY_COMPARE_WITH_TIMEOUT(queue.service.calls("Notify").size(), 2, 1000);
        const qint64 secondId = queue.service.calls("Notify").last().value("id").toInteger();
        QTRY_VERIFY(holds(app, second));
        app.setSelectedInterruptId(second);
        app.submit({VerdictKind::reject, QString("Reject"), Verdict::desktopSource,
                    QDateTime::currentDateTimeUtc()});
        QTRY_VERIFY_WITH_TIMEOUT(!holds(app, second), 5000);
        QTRY_COMPARE(queue.service.calls("CloseNotification").size(), 1);
        QCOMPARE(queue.service.calls("CloseNotification").first().value("id").toInteger(), secondId);
        QTest::qWait(300);
        QCOMPARE(queue.service.calls("Notify").size(), 2);

        // Turned off in the settings: nothing is announced, and the choice is kept.
        notifier.setEnabled(false);
        QCOMPARE(queue.stores->prefs.boolValue(DesktopNotifier::enabledKey), std::optional(false));
        const QString third = raise(agent, "Rotate the staging keys?");
        QTRY_VERIFY(holds(app, third));
        QTest::qWait(300);
        QCOMPARE(queue.service.calls("Notify").size(), 2);

        // On again: a question offers only to open it, which brings up its item.
        notifier.setEnabled(true);
        const QString fourth = raise(agent, "Which branch?", "question");
        QTRY_COMPARE_WITH_TIMEOUT(queue.service.calls("Notify").size(), 3, 1000);
        QCOMPARE(queue.service.calls("Notify").last().value("actions").toArray().toVariantList(),
                 QVariantList({"open", "Open", "default", "Open"}));
        QTRY_COMPARE(notified.count(), 3);
        queue.service.send(QStringLiteral("invoke %1 default")
                               .arg(queue.service.calls("Notify").last().value("id").toInteger()));
        QTRY_COMPARE(app.selectedInterruptId(), std::optional(fourth));
        QCOMPARE(app.screen(), AppState::Screen::item);
        QVERIFY(raised);
    }

    void aVerdictThatDoesNotArriveIsAnnouncedAgain() {
        OnlineQueue queue;
        QVERIFY(queue.start());
        AppState& app = *queue.stores->app;
        DesktopNotifier notifier(app, queue.stores->prefs,
                                 DesktopNotifier::Config{[] { return false; }, {}, {}});
        RelayClient agent(queue.relay.url(), queue.stores->auth->client()->token());
        const QString id = raise(agent, "Delete 3 stale branches?");
        QTRY_COMPARE_WITH_TIMEOUT(queue.service.calls("Notify").size(), 1, 1000);
        const qint64 firstNotice = queue.service.calls("Notify").first().value("id").toInteger();

        // The relay is gone when the person presses "Approve": the answer is not lost
        // silently, the same choice comes back with the reason.
        queue.relay.stop();
        queue.service.send(QStringLiteral("invoke %1 approve").arg(firstNotice));
        QTRY_COMPARE_WITH_TIMEOUT(queue.service.calls("Notify").size(), 2, 5000);
        const QJsonObject again = queue.service.calls("Notify").last();
        QCOMPARE(again.value("summary").toString(), DesktopNotifier::notSentSummary);
        QCOMPARE(again.value("body").toString(), "nightly-cleanup: Delete 3 stale branches?");
        QCOMPARE(again.value("actions").toArray().toVariantList(),
                 QVariantList({"approve", "Approve", "reject", "Reject", "open", "Open", "default", "Open"}));
        QVERIFY(holds(app, id));

        // Back online, the second notice's "Approve" decides it.
        QVERIFY(queue.relay.start());
        QTRY_VERIFY_WITH_TIMEOUT(app.online(), 10000);
        queue.service.send(QStringLiteral("invoke %1 approve").arg(again.value("id").toInteger()));
        QTRY_VERIFY_WITH_TIMEOUT(!holds(app, id), 5000);
        const auto state = await(agent.get<QJsonObject>("v1/interrupts/" + id));
        QVERIFY(state.ok());
        QCOMPARE(state->value("verdict").toObject().value("verdict").toString(), "approve");
        QCOMPARE(queue.service.calls("Notify").size(), 2);
    }

    void nothingIsAnnouncedWhileTheWindowIsLookedAt() {
        OnlineQueue queue;
        QVERIFY(queue.start());
        DesktopNotifier notifier(*queue.stores->app, queue.stores->prefs,
                                 DesktopNotifier::Config{[] { return true; }, {}, {}});
        RelayClient agent(queue.relay.url(), queue.stores->auth->client()->token());
        const QString id = raise(agent, "Delete 3 stale branches?");
        QTRY_VERIFY(holds(*queue.stores->app, id));
        QTest::qWait(300);
        QCOMPARE(queue.service.calls("Notify").size(), 0);
    }
};

QTEST_MAIN(DesktopNotifierTest)
#include "DesktopNotifierTest.moc"
