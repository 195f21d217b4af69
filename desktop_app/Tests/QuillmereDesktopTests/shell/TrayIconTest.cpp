#include "QuillmereDesktop/shell/TrayIcon.h"
#include "support/Await.h"
#include "support/RelayFixture.h"
#include "support/SignedInStores.h"

#include <QApplication>
#include <QJsonArray>
#include <QJsonObject>
#include <QMenu>
#include <QTest>
#include <QWindow>

namespace {

struct Raised {
    QString id;
    static constexpr auto wireFields() { return std::tuple{wire::field("id", &Raised::id)}; }
};

// Records the quit events the application receives, and keeps them from ending the test.
class QuitCatcher : public QObject {
public:
    int caught = 0;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override {
        if (watched == QCoreApplication::instance() && event->type() == QEvent::Quit) {
            ++caught;
            return true;
        }
        return false;
    }
};

} // namespace

// The tray icon: its tooltip counts what waits on the real relay, its menu shows and hides
// the window and quits, and where the desktop has no tray it stays out of the way.
class TrayIconTest : public QObject {
    Q_OBJECT

private slots:
    void tooltipTexts() {
        QCOMPARE(TrayIcon::tooltipFor(0), "Quillmere — nothing waiting");
        QCOMPARE(TrayIcon::tooltipFor(1), "Quillmere — 1 interrupt waiting");
        QCOMPARE(TrayIcon::tooltipFor(3), "Quillmere — 3 interrupts waiting");
        QVERIFY(!TrayIcon::icon().isNull());
    }

    void tooltipCountsTheWaitingInterrupts() {
        RelayFixture relay;
        QVERIFY(relay.start());
        SignedInStores stores(relay.url());
        QTRY_VERIFY(stores.app->online());
        TrayIcon tray(*stores.app, [] { return nullptr; });
        QCOMPARE(tray.tooltip(), "Quillmere — nothing waiting");
        RelayClient agent(relay.url(), stores.auth->client()->token());
        for (const char* prompt : {"Delete 3 stale branches?", "Push to main?"}) {
            const QJsonObject body{{"run_id", "run-9"},
                                   {"run_name", "nightly-cleanup"},
                                   {"kind", "approval"},
                                   {"prompt", prompt},
                                   {"options", QJsonArray{"Approve", "Reject"}}};
            QVERIFY(await(agent.postRaw<Raised>("v1/interrupts", body)).ok());
        }
        QTRY_COMPARE(tray.tooltip(), "Quillmere — 2 interrupts waiting");
    }

    void menuShowsHidesAndQuits() {
        QTemporaryDir home;
        MemoryPreferencesStore prefs;
        AppStateConfig config;
        config.homeDirectory = home.path();
        AppState app(prefs, config);
        QWindow window;
        window.resize(320, 480);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        TrayIcon tray(app, [&window] { return &window; });
        const QList<QAction*> entries = tray.menu()->actions();
        QCOMPARE(entries.first()->text(), "Hide Quillmere");
        QCOMPARE(entries.last()->text(), "Quit");

        entries.first()->trigger();
        QVERIFY(!window.isVisible());
        QCOMPARE(tray.toggleLabel(), "Show Quillmere");
        entries.first()->trigger();
        QTRY_VERIFY(window.isVisible());
        QCOMPARE(tray.toggleLabel(), "Hide Quillmere");

        QuitCatcher catcher;
        qApp->installEventFilter(&catcher);
        entries.last()->trigger();
        QTRY_COMPARE(catcher.caught, 1);
        qApp->removeEventFilter(&catcher);
    }

    void withoutATrayThereIsNoIcon() {
        // The offscreen platform has no tray, as some desktops do not.
        QVERIFY(!TrayIcon::available());
        QTemporaryDir home;
        MemoryPreferencesStore prefs;
        AppStateConfig config;
        config.homeDirectory = home.path();
        AppState app(prefs, config);
        TrayIcon tray(app, [] { return nullptr; });
        QVERIFY(!tray.show());
        QVERIFY(!tray.isShown());
        // The menu still works for whoever holds it; a missing window is no failure.
        tray.toggleWindow();
    }
};

QTEST_MAIN(TrayIconTest)
#include "TrayIconTest.moc"
