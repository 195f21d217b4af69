#include "QuillmereDesktop/shell/SettingsViewModel.h"
#include "support/Await.h"
#include "support/RelayFixture.h"
#include "support/RelaySession.h"
#include "support/SignedInStores.h"

#include <QDir>
#include <QSignalSpy>
#include <QTest>

#include <vector>

// The settings sheet's model against the real relay: the improve schedule it keeps, the
// queue's source, the start folder and sign-out.
class SettingsViewModelTest : public QObject {
    Q_OBJECT

    static void use(SettingsViewModel& vm, SignedInStores& stores) {
        vm.setAuth(stores.auth.get());
        vm.setApp(stores.app.get());
    }

private slots:
    void texts() {
        const QVariantMap labels = SettingsViewModel::labels();
        QCOMPARE(
            labels["relayNote"].toString(),
            "The default local relay starts and stops with Quillmere. Provider keys and model inventory can "
            "live in:");
        QCOMPARE(labels["relayEnvNote"].toString(), "Name the file relay.env and restart Quillmere after "
                                                    "changes. Secrets stay outside the app bundle.");
        QCOMPARE(
            labels["hostedNote"].toString(),
            "Uses the authenticated relay above by default. These fields allow a compatible hosted relay.");
        QCOMPARE(labels["tokenPlaceholder"].toString(), "bearer token");
        QCOMPARE(labels["workingDirectoryPlaceholder"].toString(), "~/Quillmere");
        QCOMPARE(SettingsViewModel::cadenceChoices(),
                 QStringList({"every hour", "every 6 hours", "every 12 hours", "once a day"}));
        QCOMPARE(std::vector<int>(std::begin(SettingsViewModel::cadenceHours),
                                  std::end(SettingsViewModel::cadenceHours)),
                 std::vector<int>({1, 6, 12, 24}));
    }

    void improveScheduleGoesThroughTheRelay() {
        RelayFixture relay;
        QVERIFY(relay.start());
        SignedInStores stores(relay.url());
        QCOMPARE(stores.auth->state(), AuthStore::State::signedIn);
        SettingsViewModel vm;
        use(vm, stores);
        QCOMPARE(vm.improveCadenceIndex(), -1);

        await(vm.loadImproveNow());
        QVERIFY(vm.improve().has_value());
        QVERIFY(!vm.hasImproveError());
        QVERIFY(!vm.improveAutomatic());
        QCOMPARE(vm.improveCadenceIndex(), 3); // the relay's default is once a day

        // The toggle sends only the automatic value; the cadence stays.
        QSignalSpy changes(&vm, &SettingsViewModel::improveChanged);
        vm.setImproveAutomatic(true);
        QVERIFY(vm.improveBusy());
        QTRY_VERIFY(!vm.improveBusy());
        QVERIFY(vm.improveAutomatic());
        QCOMPARE(vm.improveCadenceIndex(), 3);
        // The picker sends only the hours; automatic stays.
        vm.setImproveCadenceIndex(1);
        QTRY_VERIFY(!vm.improveBusy());
        QCOMPARE(vm.improve()->cadence_hours, 6);
        QVERIFY(vm.improveAutomatic());
        QVERIFY(changes.count() >= 4);

        // A sheet opened afresh reads what the relay kept.
        SettingsViewModel again;
        use(again, stores);
        await(again.loadImproveNow());
        QVERIFY(again.improveAutomatic());
        QCOMPARE(again.improveCadenceIndex(), 1);
    }

    void failedLoadLeavesTheEmptyStateWithTheErrorLine() {
        RelayFixture relay;
        QVERIFY(relay.start());
        SignedInStores stores(relay.url());
        relay.stop();
        SettingsViewModel vm;
        use(vm, stores);
        await(vm.loadImproveNow());
        QVERIFY(!vm.improve().has_value());
        QVERIFY(!vm.improveAutomatic());
        QCOMPARE(vm.improveCadenceIndex(), -1);
        QVERIFY(vm.hasImproveError());
        QVERIFY(!vm.improveErrorText().isEmpty());
        // A failed change keeps the empty state too, with its own error.
        await(vm.setImproveNow(true, std::nullopt));
        QVERIFY(!vm.improve().has_value());
        QVERIFY(vm.hasImproveError());
        QVERIFY(!vm.improveBusy());
    }

    void demoModeHidesTheHostedRelayFields() {
        RelayFixture relay;
        QVERIFY(relay.start());
        SignedInStores stores(relay.url());
        SettingsViewModel vm;
        use(vm, stores);
        QVERIFY(vm.showsHostedRelayFields());
        QSignalSpy sources(&vm, &SettingsViewModel::sourcesChanged);
        stores.app->setUseMock(true);
        QVERIFY(!vm.showsHostedRelayFields());
        QCOMPARE(sources.count(), 1);
        stores.app->setUseMock(false);
        QVERIFY(vm.showsHostedRelayFields());
    }

    void reconnectWithABadURLTakesTheQueueOfflineSilently() {
        RelayFixture relay;
        QVERIFY(relay.start());
        SignedInStores stores(relay.url());
        // Sign-in hands the queue its own address and token.
        QCOMPARE(stores.app->baseURLString(), relay.url().toString());
        QCOMPARE(stores.app->token(), *stores.auth->client()->token());
        QTRY_VERIFY(stores.app->online());
        SettingsViewModel vm;
        use(vm, stores);

        stores.app->setBaseURLString(QStringLiteral("not a url"));
        vm.reconnect();
        QVERIFY(!stores.app->client());
        QVERIFY(!stores.app->online());
        QVERIFY(stores.app->sentToast() == std::nullopt);

        // The address typed back brings the queue online again with the same token.
        stores.app->setBaseURLString(relay.url().toString());
        vm.reconnect();
        QTRY_VERIFY(stores.app->online());
        auto* live = qobject_cast<MereCloudClient*>(stores.app->client());
        QVERIFY(live);
        QCOMPARE(live->relayClient(), stores.auth->client());
    }

    void aHostedRelayGetsItsOwnClientWithTheTypedToken() {
        RelayFixture hosted;
        QVERIFY(hosted.start());
        const std::optional<QString> hostedToken = localSessionToken(hosted.url());
        QVERIFY(hostedToken);
        RelayFixture relay;
        QVERIFY(relay.start());
        SignedInStores stores(relay.url());
        SettingsViewModel vm;
        use(vm, stores);

        stores.app->setBaseURLString(hosted.url().toString());
        stores.app->setToken(*hostedToken);
        vm.reconnect();
        auto* live = qobject_cast<MereCloudClient*>(stores.app->client());
        QVERIFY(live);
        QCOMPARE(live->baseURL(), hosted.url());
        QCOMPARE(live->token(), *hostedToken);
        QTRY_VERIFY(stores.app->online());
        // The sign-in's own client is left as it was.
        QCOMPARE(stores.auth->client()->baseURL(), relay.url());
    }

    void closingThePickerWithoutAChoiceKeepsTheFolder() {
        RelayFixture relay;
        QVERIFY(relay.start());
        SignedInStores stores(relay.url());
        SettingsViewModel vm;
        use(vm, stores);
        const QString before = stores.app->terminalWorkingDirectory();
        vm.applyChosenFolder(QUrl());
        QCOMPARE(stores.app->terminalWorkingDirectory(), before);

        const QString chosen = QDir(stores.home.path()).filePath(QStringLiteral("work/chosen"));
        vm.applyChosenFolder(QUrl::fromLocalFile(chosen));
        QCOMPARE(stores.app->terminalWorkingDirectory(), chosen);
        QVERIFY(QDir(chosen).exists());
        QCOMPARE(stores.prefs.stringValue(AppState::workingDirectoryKey), chosen);
    }

    void configurationFolderIsMadeAndOpened() {
        QTemporaryDir data;
        SettingsViewModel vm;
        const QString folder = QDir(data.path()).filePath(QStringLiteral("Quillmere"));
        vm.setConfigurationFolder(folder);
        QList<QUrl> opened;
        vm.setFolderOpener([&opened](const QUrl& url) {
            opened.append(url);
            return true;
        });
        QVERIFY(vm.openConfigurationFolder());
        QVERIFY(QDir(folder).exists());
        QCOMPARE(opened, QList<QUrl>{QUrl::fromLocalFile(folder)});
    }

    void signOutSignsOutAndDismisses() {
        RelayFixture relay;
        QVERIFY(relay.start());
        SignedInStores stores(relay.url());
        SettingsViewModel vm;
        use(vm, stores);
        QSignalSpy dismissed(&vm, &SettingsViewModel::dismissRequested);
        vm.signOut();
        QCOMPARE(stores.auth->state(), AuthStore::State::needsEmail);
        QCOMPARE(dismissed.count(), 1);
    }
};

QTEST_GUILESS_MAIN(SettingsViewModelTest)
#include "SettingsViewModelTest.moc"
