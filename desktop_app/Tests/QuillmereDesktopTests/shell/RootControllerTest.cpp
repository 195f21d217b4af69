#include "QuillmereDesktop/shell/RootController.h"
#include "QuillmereDesktop/common/MemoryPreferencesStore.h"
#include "fakes/FakeSecretStore.h"
#include "support/Await.h"
#include "support/RelayFixture.h"

#include <QSignalSpy>
#include <QTemporaryDir>
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
        QTemporaryDir home;
        MemoryPreferencesStore prefs;
        FakeSecretStore secrets;
        prefs.setString(AuthStore::relayURLKey, relay.url().toString());
        AuthStoreConfig authConfig;
        authConfig.bootstrapOnStart = false;
        AuthStore auth(prefs, secrets, nullptr, authConfig);
        AppStateConfig appConfig;
        appConfig.homeDirectory = home.path();
        AppState app(prefs, appConfig);
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

        app.setScreen(AppState::Screen::queue);
        auth.signOut();
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
};

QTEST_GUILESS_MAIN(RootControllerTest)
#include "RootControllerTest.moc"
