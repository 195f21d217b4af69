#include "gui/AppHarness.h"
#include "support/Await.h"
#include "support/RelayFixture.h"

#include <QJsonArray>
#include <QTest>

#include <chrono>

using namespace std::chrono_literals;

// The real screens, offscreen: what a person sees and presses.
class ShellGuiTest : public QObject {
    Q_OBJECT

    static QString raise(const RelayFixture& relay, const QString& token, const QString& runName) {
        RelayClient agent(relay.url(), token);
        const QJsonObject body{{"run_id", "run-1"},
                               {"run_name", runName},
                               {"kind", "question"},
                               {"prompt", "Which region?"},
                               {"options", QJsonArray{"eu", "us"}}};
        const auto raised = await(agent.postRaw<QJsonObject>("v1/interrupts", body));
        return raised ? raised->value("id").toString() : QString();
    }

private slots:
    void windowIsTheOneQuillmereWindow() {
        RelayFixture relay;
        QVERIFY(relay.start());
        AppHarness harness({relay.url(), false});
        QVERIFY(harness.load());
        QCOMPARE(harness.window()->title(), "Quillmere");
        QCOMPARE(harness.window()->width(), 320);
        QCOMPARE(harness.window()->height(), 480);
        QVERIFY(harness.window()->flags() & Qt::WindowStaysOnTopHint);
        harness.app().setAlwaysOnTop(false);
        QTRY_VERIFY(!(harness.window()->flags() & Qt::WindowStaysOnTopHint));
    }

    void demoQueueFromHomeToVerdict() {
        RelayFixture relay;
        QVERIFY(relay.start());
        AppHarness harness({relay.url(), true});
        QVERIFY(harness.load());
        QTRY_VERIFY_WITH_TIMEOUT(harness.showsText("quillmere"), 5000);

        // Home: the two starting interrupts, by kind.
        QTRY_VERIFY(harness.showsText("2 need input"));
        QVERIFY(harness.showsText("1 question"));
        QVERIFY(harness.showsText("1 approval"));
        const QStringList home = harness.visibleTextsInOrder();
        QVERIFY(home.indexOf("1 question") < home.indexOf("1 approval"));
        QVERIFY(harness.showsText("ONLINE"));
        harness.screenshot("home-demo");

        // Queue: oldest first.
        QVERIFY(harness.clickUntil("Open queue", [&] { return harness.showsText("AURORA-MIGRATE"); }));
        const QStringList queue = harness.visibleTextsInOrder();
        QVERIFY(queue.indexOf("AURORA-MIGRATE") < queue.indexOf("TRIAGE-BOT"));
        // The banner's text; its font shows it in capitals.
        QVERIFY(queue.contains("needs input 2"));
        harness.screenshot("queue-demo");

        // Item: the approval with its real action, answered.
        QVERIFY(harness.clickUntil("AURORA-MIGRATE", [&] {
            return harness.showsText("Delete 4 stale feature branches on origin?");
        }));
        QVERIFY(harness.showsText("github \u00B7 GITHUB_DELETE_A_REFERENCE"));
        QVERIFY(harness.showsText("\u2192 tarnfield/quillmere"));
        QVERIFY(harness.visibleTexts("NOT SUPPLIED").size() >= 5);
        QVERIFY(!harness.showsText("or write a reply"));
        harness.screenshot("item-demo");
        QVERIFY(harness.clickUntil("Approve", [&] { return harness.showsText("SENT"); }));
        harness.screenshot("toast-sent");
        QCOMPARE(harness.app().screen(), AppState::Screen::queue);
        QTRY_VERIFY(!harness.showsText("AURORA-MIGRATE"));
        QVERIFY(harness.showsText("TRIAGE-BOT"));
    }

    void aQuestionTakesATypedReply() {
        RelayFixture relay;
        QVERIFY(relay.start());
        AppHarness harness({relay.url(), true});
        QVERIFY(harness.load());
        QTRY_VERIFY_WITH_TIMEOUT(harness.showsText("2 need input"), 5000);
        QVERIFY(harness.clickUntil("Open queue", [&] { return harness.showsText("TRIAGE-BOT"); }));
        QVERIFY(harness.clickUntil("TRIAGE-BOT", [&] { return harness.showsText("or write a reply"); }));
        QVERIFY(harness.showsText("Billing"));
        harness.screenshot("item-question");

        // The interrupt is gone (answered elsewhere): only "Nothing selected.", no way back.
        harness.app().setSelectedInterruptId(QString("answered-elsewhere"));
        QTRY_VERIFY(harness.showsText("Nothing selected."));
        QVERIFY(!harness.showsText("‹ QUEUE"));
        harness.screenshot("item-nothing-selected");
    }

    void liveInterruptReachesHomeAndTheDotFollowsTheRelay() {
        RelayFixture relay;
        QVERIFY(relay.start());
        AppHarness harness({relay.url(), false});
        QVERIFY(harness.load());
        QTRY_VERIFY_WITH_TIMEOUT(harness.showsText("ONLINE"), 5000);
        QVERIFY(harness.showsText("Nothing waiting on you."));

        QElapsedTimer sinceRaise;
        sinceRaise.start();
        QVERIFY(!raise(relay, *harness.auth().client()->token(), "deploy-bot").isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(harness.showsText("1 need input"), 1000);
        QVERIFY(harness.showsText("1 question"));
        harness.screenshot("home-live");

        relay.stop();
        QTRY_VERIFY_WITH_TIMEOUT(harness.showsText("OFFLINE"), 5000);
        harness.screenshot("home-offline");
    }

    void signInScreenWhenTheRelayIsGone() {
        RelayFixture relay;
        QVERIFY(relay.start());
        const QUrl url = relay.url();
        relay.stop();
        AppHarness harness({url, false});
        QVERIFY(harness.load());
        QTRY_VERIFY_WITH_TIMEOUT(harness.showsText("can't reach local relay"), 5000);
        QVERIFY(harness.showsText("QUILLMERE"));
        QVERIFY(harness.showsText("./cloud_app/src/relay/run.sh"));
        QVERIFY(harness.showsText("RETRY"));
        harness.screenshot("login-unreachable");
    }

    void signInScreenAsksForTheEmail() {
        RelayFixture relay(RelayFixture::Options{false, {}, {}});
        QVERIFY(relay.start());
        AppHarness harness({relay.url(), false});
        QVERIFY(harness.load());
        QTRY_VERIFY_WITH_TIMEOUT(harness.showsText("SEND CODE"), 5000);
        QVERIFY(harness.showsText("email"));
        harness.screenshot("login-email");
        await(harness.auth().requestCode("person@example.com"));
        QTRY_VERIFY(harness.showsText("Code sent to person@example.com."));
        QVERIFY(harness.showsText("VERIFY"));
        QVERIFY(harness.showsText("Resend code"));
        QVERIFY(harness.showsText("Change email"));
        harness.screenshot("login-code");
    }
};

QTEST_MAIN(ShellGuiTest)
#include "ShellGuiTest.moc"
