#include "gui/AppHarness.h"
#include "support/Await.h"
#include "support/FakeProviderProcess.h"
#include "support/RelayFixture.h"

#include <QJsonArray>
#include <QQuickItem>
#include <QTest>

#include <algorithm>
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

    // Scrolls a sheet's screen so that its content at `y` is at the top.
    static void scrollSheet(QQuickWindow* sheet, qreal y) {
        auto* view = inSheet(sheet, "routingView");
        QVERIFY(view);
        auto* flickable = view->property("contentItem").value<QQuickItem*>();
        QVERIFY(flickable);
        const qreal end = flickable->property("contentHeight").toReal() - flickable->height();
        flickable->setProperty("contentY", std::clamp(y, 0.0, std::max(0.0, end)));
    }

    static QQuickItem* inSheet(QQuickWindow* sheet, const char* name) {
        return AppHarness::inSheet(sheet, name);
    }

private slots:
    void theModelRouterOpensInItsOwnSheetWithLanesPreviewAndLedger() {
        FakeProviderProcess fake(QStringLiteral("Routed by the relay."));
        QVERIFY(!fake.url().isEmpty());
        RelayFixture relay(RelayFixture::Options{true, fake.inventory(), {}});
        QVERIFY(relay.start());
        AppHarness harness({relay.url(), false});
        QVERIFY(harness.load());
        QTRY_VERIFY_WITH_TIMEOUT(harness.showsText("ONLINE"), 10000);

        // Something in the ledger: one completion through the router, and a budget.
        RelayClient* client = harness.auth().client();
        GatewayCompletionInput input{"reason", "Plan the release", std::nullopt, std::nullopt,
                                     "auto",   std::nullopt,       300};
        QVERIFY(await(client->complete(input)));
        QVERIFY(await(client->postRaw<QJsonObject>("v1/router/budgets",
                                                   QJsonObject{{"period", "monthly"}, {"limit_usd", 25}})));

        QVERIFY(harness.showsText("⌁"));
        QVERIFY(harness.click("⌁"));
        QQuickWindow* sheet = harness.sheet("routingSheet");
        QVERIFY(sheet);
        QTRY_VERIFY(sheet->isVisible());
        QCOMPARE(sheet->transientParent(), harness.window());
        QTRY_VERIFY_WITH_TIMEOUT(AppHarness::textsIn(sheet).contains("Fake Lane"), 10000);
        const QStringList shown = AppHarness::textsIn(sheet);
        QVERIFY(shown.contains("model router"));
        QVERIFY(shown.contains("execution lanes 3"));
        QVERIFY(shown.contains("fake · API · READY"));
        QVERIFY(shown.contains("fake-lane"));
        QVERIFY(shown.contains("ACCOUNT · monthly"));
        QVERIFY(shown.contains("1/1"));
        AppHarness::screenshotOf(sheet, "routing-lanes");

        // A preview saves the policy and shows the decision.
        auto* previewButton = inSheet(sheet, "previewButton");
        QVERIFY(previewButton);
        QMetaObject::invokeMethod(previewButton, "clicked");
        QTRY_VERIFY_WITH_TIMEOUT(AppHarness::textsIn(sheet).contains("PRIMARY"), 10000);
        auto* because = inSheet(sheet, "routedBecause");
        QVERIFY(because);
        QVERIFY(
            because->property("text").toString().startsWith("Fake Lane (fake) was chosen for the code task"));
        auto* previewHeading = inSheet(sheet, "previewHeading");
        QVERIFY(previewHeading);
        scrollSheet(sheet, previewHeading->y() - 8);
        QTest::qWait(100);
        AppHarness::screenshotOf(sheet, "routing-preview");

        scrollSheet(sheet, 100000);
        QTest::qWait(100);
        AppHarness::screenshotOf(sheet, "routing-ledger");

        // The close control puts the flag back; the main window stays.
        auto* close = inSheet(sheet, "sheetClose");
        QVERIFY(close);
        QMetaObject::invokeMethod(close, "clicked");
        QTRY_VERIFY(!sheet->isVisible());
        QVERIFY(harness.window()->isVisible());
    }

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
