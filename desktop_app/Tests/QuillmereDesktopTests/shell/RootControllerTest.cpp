#include "QuillmereDesktop/shell/RootController.h"
#include "support/Await.h"
#include "support/FakeMachine.h"
#include "support/RelayFixture.h"
#include "support/SignedInStores.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>

#include <chrono>

using namespace std::chrono_literals;

class RootControllerTest : public QObject {
    Q_OBJECT

private slots:
    void firstRunDelayIsFiveSeconds() { QCOMPARE(RootController::defaultFirstRunCheckDelay, 5000ms); }

    void signInConnectsTheQueueAndSignOutDropsIt() {
        RelayFixture relay;
        QVERIFY(relay.start());
        RelayStores stores(relay.url());
        AuthStore& auth = *stores.auth;
        AppState& app = *stores.app;
        CLIStatusStore cli(60000ms);
        RootController root(app, auth, cli, 50ms);
        QSignalSpy signedIn(&root, &RootController::signedInChanged);
        QSignalSpy firstRun(&root, &RootController::firstRunChecked);

        await(auth.start());
        QVERIFY(root.signedIn());
        QCOMPARE(signedIn.count(), 1);
        QVERIFY(root.hasAutoOpenedTerminal());
        QCOMPARE(app.relayClient(), auth.client());
        // The live queue speaks with the sign-in's address and token.
        auto* live = qobject_cast<MereCloudClient*>(app.client());
        QVERIFY(live);
        QCOMPARE(live->baseURL(), auth.client()->baseURL());
        QCOMPARE(live->token(), *auth.client()->token());
        QTRY_VERIFY(app.online());
        // The first sign-in asks for the CLI status, starts polling, and checks again later.
        QTRY_VERIFY(cli.status().has_value());
        QVERIFY(cli.isPolling());
        QTRY_COMPARE(firstRun.count(), 1);

        // A sheet opened by its panel button stays open through a sign-out.
        QVERIFY(!root.showRouting());
        QSignalSpy sheets(&root, &RootController::sheetsChanged);
        root.setShowRouting(true);
        QCOMPARE(sheets.count(), 1);
        root.setShowRouting(true);
        QCOMPARE(sheets.count(), 1);

        app.setScreen(AppState::Screen::queue);
        auth.signOut();
        QVERIFY(root.showRouting());
        QVERIFY(!root.signedIn());
        QVERIFY(!app.client());
        QVERIFY(!app.online());
        QCOMPARE(app.screen(), AppState::Screen::queue);
        QVERIFY(cli.isPolling()); // polling is not stopped by a sign-out

        // A later sign-in reconnects but does not run the first-sign-in sequence again.
        await(auth.bootstrap());
        QVERIFY(root.signedIn());
        QTRY_VERIFY(app.online());
        QTest::qWait(150);
        QCOMPARE(firstRun.count(), 1);
    }

    // The first sign-in shows onboarding after its second status check unless both CLIs
    // are installed and signed in.
    void firstSignInShowsOnboardingOnlyWhenACLIIsMissing() {
        for (const bool bothReady : {false, true}) {
            FakeMachine machine;
            if (bothReady) {
                QVERIFY(machine.install(QStringLiteral("claude")) && machine.signInClaude());
                QVERIFY(machine.install(QStringLiteral("codex")) && machine.signInCodex());
            } else {
                QVERIFY(machine.install(QStringLiteral("codex")) && machine.signInCodex());
            }
            RelayFixture relay(machine.relayOptions());
            QVERIFY(relay.start());
            RelayStores stores(relay.url());
            AuthStore& auth = *stores.auth;
            AppState& app = *stores.app;
            CLIStatusStore cli(60000ms);
            RootController root(app, auth, cli, 300ms);
            QSignalSpy firstRun(&root, &RootController::firstRunChecked);
            QElapsedTimer clock;
            clock.start();
            await(auth.start());
            QTRY_VERIFY(cli.status().has_value());
            // Not before the delay: the person gets a moment with the drawer first.
            QVERIFY(!root.showOnboarding());
            QTRY_COMPARE(firstRun.count(), 1);
            QVERIFY(clock.elapsed() >= 300);
            QCOMPARE(root.showOnboarding(), !bothReady);
        }
    }
};

QTEST_GUILESS_MAIN(RootControllerTest)
#include "RootControllerTest.moc"
