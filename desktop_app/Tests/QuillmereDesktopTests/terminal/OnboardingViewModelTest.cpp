#include "QuillmereDesktop/terminal/OnboardingViewModel.h"
#include "support/Await.h"
#include "support/FakeMachine.h"
#include "support/RelayFixture.h"
#include "support/SignedInStores.h"

#include <QSignalSpy>
#include <QTest>

#include <chrono>

using namespace std::chrono_literals;

// The first-run sheet's model against the real relay inspecting a machine of the test's
// making.
class OnboardingViewModelTest : public QObject {
    Q_OBJECT

private slots:
    void texts() {
        const QVariantMap labels = OnboardingViewModel::labels();
        QCOMPARE(labels["heading"].toString(), "connect your clis");
        QCOMPARE(labels["close"].toString(), "✕");
        QCOMPARE(labels["intro"].toString(),
                 "Quillmere reads your Claude Code and Codex usage directly from each CLI. Both run in the "
                 "terminal "
                 "drawer and log in the same way they would in any other terminal.");
        QCOMPARE(labels["claude"].toString(), "Claude Code");
        QCOMPARE(labels["codex"].toString(), "Codex");
        QCOMPARE(labels["openTerminal"].toString(), "Open terminal");
    }

    void statusLabelsInTheirOrder() {
        const auto claude = &CLIStatusResponse::claude;
        QCOMPARE(OnboardingViewModel::statusLabel(std::nullopt, claude), "…");
        CLIStatusResponse status;
        status.claude = CLIInfo{false, true, 0, 0};
        QCOMPARE(OnboardingViewModel::statusLabel(status, claude), "NOT INSTALLED");
        status.claude = CLIInfo{true, false, 0, 0};
        QCOMPARE(OnboardingViewModel::statusLabel(status, claude), "NOT CONNECTED");
        status.claude = CLIInfo{true, true, 0, 0};
        QCOMPARE(OnboardingViewModel::statusLabel(status, claude), "CONNECTED");
        QCOMPARE(OnboardingViewModel::statusLabel(status, &CLIStatusResponse::codex), "NOT INSTALLED");
    }

    void unreachableRelayShowsDotsInBothRows() {
        QUrl nowhere(QStringLiteral("http://127.0.0.1/"));
        nowhere.setPort(RelayFixture::freeLoopbackPort());
        SignedInStores stores(nowhere);
        CLIStatusStore cli(60000ms);
        OnboardingViewModel vm;
        vm.setCli(&cli);
        vm.setAuth(stores.auth.get());
        await(vm.appearNow());
        QCOMPARE(vm.claudeStatus(), "…");
        QCOMPARE(vm.codexStatus(), "…");
        QVERIFY(!vm.claudeConnected());
        QVERIFY(!vm.codexConnected());
    }

    void refreshShowsItsStateAndReadsTheMachine() {
        FakeMachine machine;
        QVERIFY(machine.install(QStringLiteral("codex")));
        RelayFixture relay(machine.relayOptions());
        QVERIFY(relay.start());
        SignedInStores stores(relay.url());
        CLIStatusStore cli(60000ms);
        OnboardingViewModel vm;
        vm.setCli(&cli);
        vm.setAuth(stores.auth.get());
        QCOMPARE(vm.refreshLabel(), "REFRESH STATUS");
        QSignalSpy refreshing(&vm, &OnboardingViewModel::refreshingChanged);
        vm.refresh();
        QVERIFY(vm.isRefreshing());
        QCOMPARE(vm.refreshLabel(), "REFRESHING…");
        vm.refresh(); // ignored while one runs
        QTRY_VERIFY(!vm.isRefreshing());
        QCOMPARE(refreshing.count(), 2);
        QCOMPARE(vm.refreshLabel(), "REFRESH STATUS");
        QCOMPARE(vm.claudeStatus(), "NOT INSTALLED");
        QCOMPARE(vm.codexStatus(), "NOT CONNECTED");
    }

    void rowsFollowTheStoresPollingAfterALogin() {
        FakeMachine machine;
        RelayFixture relay(machine.relayOptions());
        QVERIFY(relay.start());
        SignedInStores stores(relay.url());
        CLIStatusStore cli(100ms);
        OnboardingViewModel vm;
        vm.setCli(&cli);
        vm.setAuth(stores.auth.get());
        cli.startPolling(stores.auth->client());
        QTRY_COMPARE(vm.claudeStatus(), "NOT INSTALLED");
        QCOMPARE(vm.codexStatus(), "NOT INSTALLED");

        // What an install and a login in the drawer leave behind on the machine.
        QVERIFY(machine.install(QStringLiteral("claude")));
        QVERIFY(machine.signInClaude());
        QVERIFY(machine.install(QStringLiteral("codex")));
        QTRY_COMPARE(vm.claudeStatus(), "CONNECTED");
        QVERIFY(vm.claudeConnected());
        QCOMPARE(vm.codexStatus(), "NOT CONNECTED");
        QVERIFY(machine.signInCodex());
        QTRY_COMPARE(vm.codexStatus(), "CONNECTED");
        QVERIFY(vm.codexConnected());
    }
};

QTEST_GUILESS_MAIN(OnboardingViewModelTest)
#include "OnboardingViewModelTest.moc"
