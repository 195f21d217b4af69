#include "QuillmereDesktop/common/MemoryPreferencesStore.h"
#include "QuillmereDesktop/shell/TrayIcon.h"

#include <QApplication>
#include <QMenu>
#include <QProcess>
#include <QScreen>
#include <QStyleHints>
#include <QTemporaryDir>
#include <QTest>
#include <QWindow>

namespace {

// A real system tray on the test's X display, as a desktop panel provides one.
class TrayHost {
public:
    ~TrayHost() {
        m_process.terminate();
        if (!m_process.waitForFinished(3000))
            m_process.kill();
    }
    bool start() {
        m_process.start(QStringLiteral("trayer"),
                        {QStringLiteral("--edge"), QStringLiteral("top"), QStringLiteral("--align"),
                         QStringLiteral("right"), QStringLiteral("--widthtype"), QStringLiteral("request"),
                         QStringLiteral("--height"), QStringLiteral("32")});
        return m_process.waitForStarted(5000);
    }

private:
    QProcess m_process;
};

bool click(const QPoint& at, int button) {
    return QProcess::execute(QStringLiteral("xdotool"),
                             {QStringLiteral("mousemove"), QString::number(at.x()), QString::number(at.y()),
                              QStringLiteral("click"), QString::number(button)}) == 0;
}

} // namespace

// The tray icon on an X display with a tray host: it appears in the tray once there is one,
// a click on it hides and shows the window, and the other button opens its menu.
class TrayIconDesktopTest : public QObject {
    Q_OBJECT

private slots:
    void theIconLivesInARealTray() {
        QVERIFY2(QGuiApplication::platformName() == QLatin1String("xcb"), "run under Xvfb");
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

        // No panel yet: no tray, no icon.
        QVERIFY(!TrayIcon::available());
        QVERIFY(!tray.show());

        TrayHost host;
        QVERIFY(host.start());
        QTRY_VERIFY_WITH_TIMEOUT(TrayIcon::available(), 10000);
        QVERIFY(tray.show());
        // The panel sits at the top right of the screen; the icon is put inside it.
        const QRect screen = QGuiApplication::primaryScreen()->geometry();
        const QRect panel(screen.right() - 100, 0, 101, 40);
        QTRY_VERIFY_WITH_TIMEOUT(panel.contains(tray.iconGeometry()), 10000);
        const QPoint centre = tray.iconGeometry().center();

        // A click on the icon does what the menu's first entry says.
        QCOMPARE(tray.toggleLabel(), TrayIcon::hideLabel());
        QVERIFY(click(centre, 1));
        QTRY_VERIFY(!window.isVisible());
        QCOMPARE(tray.toggleLabel(), TrayIcon::showLabel());
        // A second press soon after would be the end of a double click.
        QTest::qWait(QGuiApplication::styleHints()->mouseDoubleClickInterval() + 100);
        QVERIFY(click(centre, 1));
        QTRY_VERIFY(window.isVisible());
        QCOMPARE(tray.toggleLabel(), TrayIcon::hideLabel());

        // The other button opens the menu beside the icon.
        QVERIFY(click(centre, 3));
        QTRY_VERIFY(tray.menu()->isVisible());
        tray.menu()->hide();
    }
};

QTEST_MAIN(TrayIconDesktopTest)
#include "TrayIconDesktopTest.moc"
