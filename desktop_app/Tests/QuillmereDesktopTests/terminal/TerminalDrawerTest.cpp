// The drawer window and its panel's logic: one build, hide and show, following the main
// window, the on-top state, discarding; auto-run lines and the sync status line.

#include "QuillmereDesktop/terminal/TerminalDrawerController.h"
#include "QuillmereDesktop/terminal/TerminalPanelViewModel.h"
#include "support/RelayFixture.h"
#include "support/RelaySession.h"

#include <QGuiApplication>
#include <QQuickWindow>
#include <QScreen>
#include <QSignalSpy>
#include <QTest>

using namespace std::chrono_literals;

class TerminalDrawerTest : public QObject {
    Q_OBJECT

    static TerminalDrawerController::BuildContent countingBuilder(int& builds) {
        return [&builds] {
            ++builds;
            return new QQuickWindow;
        };
    }

    static std::unique_ptr<QQuickWindow> mainWindowAt(const QRect& geometry) {
        auto window = std::make_unique<QQuickWindow>();
        window->setGeometry(geometry);
        window->show();
        return window;
    }

private slots:
    void withoutAMainWindowNothingOpens() {
        TerminalDrawerController drawer(nullptr);
        int builds = 0;
        drawer.open(countingBuilder(builds));
        QCOMPARE(builds, 0);
        QVERIFY(!drawer.isOpen());
        QVERIFY(!drawer.panel());
    }

    void opensAgainstTheMainWindowAndTakesTheKeyboard() {
        const QRect available = QGuiApplication::primaryScreen()->availableGeometry();
        auto main = mainWindowAt(QRect(available.left() + 700, available.top() + 100, 320, 480));
        TerminalDrawerController drawer(nullptr);
        drawer.setMainWindow(main.get());
        QSignalSpy opened(&drawer, &TerminalDrawerController::isOpenChanged);
        int builds = 0;
        drawer.open(countingBuilder(builds));
        QCOMPARE(builds, 1);
        QVERIFY(drawer.isOpen());
        QCOMPARE(opened.count(), 1);
        QWindow* panel = drawer.panel();
        QVERIFY(panel && panel->isVisible());
        QVERIFY(panel->flags().testFlag(Qt::FramelessWindowHint));
        const QRect frame = main->frameGeometry();
        QCOMPARE(panel->geometry(), QRect(frame.left() - 460, frame.top(), 460, frame.height()));
        QTRY_COMPARE(QGuiApplication::focusWindow(), panel);
        QCOMPARE(drawer.toggleLabel(), QString("▶"));
        QCOMPARE(TerminalDrawerController::toggleHelp(), QString("Toggle terminal (Ctrl+`)"));
    }

    void followsTheMainWindowAndStopsAtTheScreensEdge() {
        const QRect available = QGuiApplication::primaryScreen()->availableGeometry();
        auto main = mainWindowAt(QRect(available.left() + 700, available.top() + 100, 320, 480));
        TerminalDrawerController drawer(nullptr);
        drawer.setMainWindow(main.get());
        int builds = 0;
        drawer.open(countingBuilder(builds));
        main->setGeometry(QRect(available.left() + 900, available.top() + 150, 320, 520));
        QTRY_COMPARE(drawer.panel()->geometry().left(), main->frameGeometry().left() - 460);
        QCOMPARE(drawer.panel()->geometry().top(), main->frameGeometry().top());
        QCOMPARE(drawer.panel()->geometry().height(), main->frameGeometry().height());
        main->setPosition(available.left() + 100, available.top() + 150);
        QTRY_COMPARE(drawer.panel()->geometry().left(), available.left());
        // Hidden, it still follows, so that it reopens in place.
        drawer.close();
        main->setPosition(available.left() + 800, available.top() + 120);
        QTRY_COMPARE(drawer.panel()->geometry().left(), main->frameGeometry().left() - 460);
    }

    void hidingAndReopeningBuildsNothingTwice() {
        auto main = mainWindowAt(QRect(800, 100, 320, 480));
        TerminalDrawerController drawer(nullptr);
        drawer.setMainWindow(main.get());
        int builds = 0;
        drawer.toggle(countingBuilder(builds));
        QWindow* panel = drawer.panel();
        drawer.toggle(countingBuilder(builds));
        QVERIFY(!drawer.isOpen());
        QVERIFY(!panel->isVisible());
        QCOMPARE(drawer.toggleLabel(), QString("◀"));
        drawer.toggle(countingBuilder(builds));
        QVERIFY(drawer.isOpen());
        QCOMPARE(drawer.panel(), panel);
        QCOMPARE(builds, 1);
    }

    void copiesTheMainWindowsOnTopState() {
        auto main = mainWindowAt(QRect(800, 100, 320, 480));
        main->setFlag(Qt::WindowStaysOnTopHint, true);
        TerminalDrawerController drawer(nullptr);
        drawer.setMainWindow(main.get());
        int builds = 0;
        drawer.open(countingBuilder(builds));
        QVERIFY(drawer.panel()->flags().testFlag(Qt::WindowStaysOnTopHint));
        main->setFlag(Qt::WindowStaysOnTopHint, false);
        drawer.followMainWindow();
        QVERIFY(!drawer.panel()->flags().testFlag(Qt::WindowStaysOnTopHint));
    }

    void discardingReleasesThePanelAndTheNextOpenBuildsAgain() {
        auto main = mainWindowAt(QRect(800, 100, 320, 480));
        TerminalDrawerController drawer(nullptr);
        drawer.setMainWindow(main.get());
        drawer.setSessionDirectory(QStringLiteral("/tmp"));
        int builds = 0;
        drawer.open(countingBuilder(builds));
        QPointer<QWindow> first = drawer.panel();
        QSignalSpy discarding(&drawer, &TerminalDrawerController::panelDiscarding);
        drawer.discardSessions();
        QCOMPARE(discarding.count(), 1);
        QVERIFY(!drawer.isOpen());
        QVERIFY(!drawer.panel());
        QVERIFY(!drawer.sessionDirectory());
        QTRY_VERIFY(first.isNull());
        drawer.open(countingBuilder(builds));
        QCOMPARE(builds, 2);
        QVERIFY(drawer.panel());
    }

    void autoRunLinesFollowWhatIsInstalled() {
        using VM = TerminalPanelViewModel;
        QCOMPARE(VM::claudeAutoRunFor(std::nullopt), VM::claudeInstallLine);
        QCOMPARE(VM::codexAutoRunFor(std::nullopt), QString("npm install -g @openai/codex"));
        QVERIFY(VM::claudeInstallLine.startsWith("curl -fsSL "));
        QVERIFY(VM::claudeInstallLine.endsWith(" | sh"));
        CLIStatusResponse status;
        status.claude.installed = true;
        QCOMPARE(VM::claudeAutoRunFor(status), QString("claude"));
        QCOMPARE(VM::codexAutoRunFor(status), VM::codexInstallLine);
        status.codex.installed = true;
        status.codex.authenticated = false; // installed is enough
        QCOMPARE(VM::codexAutoRunFor(status), QString("codex"));
        QCOMPARE(VM::defaultAutoRunDelay, 400ms);
    }

    void theStatusLineFollowsTheSelectedTabsPipeline() {
        RelayFixture relay;
        QVERIFY(relay.start());
        const auto token = localSessionToken(relay.url());
        QVERIFY(token);
        RelayClient client(relay.url(), *token);
        TerminalPanelViewModel panel(&client, std::nullopt, QStringLiteral("/tmp"), {});
        QCOMPARE(panel.selectedTab(), QString("claude"));
        QCOMPARE(panel.claudeTitle(), QString("CLAUDE"));
        QCOMPARE(panel.codexTitle(), QString("CODEX"));
        QCOMPARE(panel.syncStatus(), QString("STARTING…"));
        panel.claudePipeline()->start();
        QTRY_COMPARE(panel.syncStatus(), QString("SYNCED"));
        // The codex tab's pipeline has not started: its status is its own.
        QSignalSpy changed(&panel, &TerminalPanelViewModel::syncStatusChanged);
        panel.setSelectedTab(QStringLiteral("codex"));
        QCOMPARE(panel.selectedTab(), QString("codex"));
        QCOMPARE(panel.syncStatus(), QString("STARTING…"));
        QVERIFY(changed.count() >= 1);
        panel.setSelectedTab(QStringLiteral("nonsense"));
        QCOMPARE(panel.selectedTab(), QString("codex"));
    }

    void aFailingRelayShowsItsErrorInCapitals() {
        RelayClient client(QUrl("http://127.0.0.1:1/"), QStringLiteral("token"));
        TerminalPanelViewModel panel(&client, std::nullopt, QStringLiteral("/tmp"), {});
        panel.claudePipeline()->start();
        QTRY_VERIFY(panel.syncStatus().startsWith("NOT SYNCING — "));
        QCOMPARE(panel.syncStatus(), panel.syncStatus().toUpper());
        QVERIFY(panel.syncStatus().size() > QString("NOT SYNCING — ").size());
    }
};

QTEST_MAIN(TerminalDrawerTest)
#include "TerminalDrawerTest.moc"
