// The terminal view in a real window: a program's output drawn, keys reaching the program,
// the renderer's path and health, on whichever scene graph the environment selects.

#include <QDir>
#include <QGuiApplication>
#include <QQuickWindow>
#include <QSGRendererInterface>
#include <QSignalSpy>
#include <QTest>

#include "Termkit/view/LocalProcessTerminalView.h"

using namespace termkit;
using namespace std::chrono_literals;

namespace {

QString screenshotPath(const QString& name) {
    const QString folder = QDir::current().filePath(QStringLiteral("screenshots"));
    QDir().mkpath(folder);
    return QDir(folder).filePath(name + QStringLiteral(".png"));
}

struct Harness {
    QQuickWindow window;
    LocalProcessTerminalView* view = nullptr;

    explicit Harness(QSize size = QSize(640, 400)) {
        window.resize(size);
        window.setColor(Qt::white);
        view = new LocalProcessTerminalView(window.contentItem());
        view->setSize(QSizeF(size));
        window.show();
    }
    bool exposed() { return QTest::qWaitForWindowExposed(&window); }
    bool shows(const QString& text, int timeoutMs = 5000) {
        return QTest::qWaitFor([&] { return view->screenText().contains(text); }, timeoutMs);
    }
    // Waits until a presented frame holds every byte fed so far.
    bool presentedAll(int timeoutMs = 5000) {
        return QTest::qWaitFor(
            [&] { return view->bytesPresented() == view->bytesFed() && view->bytesFed() > 0; }, timeoutMs);
    }
};

} // namespace

class TerminalViewGuiTest : public QObject {
    Q_OBJECT

private slots:
    void drawsAProgramsOutputOnTheSelectedPath() {
        Harness h;
        QVERIFY(h.exposed());
        h.view->startProcess("/bin/sh", {"-c", "printf 'hello from the view\\n'; sleep 5"});
        QVERIFY(h.shows("hello from the view"));
        QTest::qWait(300);
        qInfo("fed %llu presented %llu frames %llu", (unsigned long long)h.view->bytesFed(),
              (unsigned long long)h.view->bytesPresented(), (unsigned long long)h.view->presentedFrames());
        QVERIFY(h.presentedAll());
        QVERIFY(h.view->presentedFrames() > 0);
        const auto api = h.window.rendererInterface()->graphicsApi();
        qInfo("scene graph: %s, rows on the %s path, renderer %s",
              api == QSGRendererInterface::Software ? "software" : "hardware",
              h.view->usesGpu() ? "GPU" : "CPU", qPrintable(h.view->rendererStatusText()));
        QCOMPARE(h.view->usesGpu(), api != QSGRendererInterface::Software);
        if (api == QSGRendererInterface::Software)
            QCOMPARE(h.view->rendererStatusText(), QString("disabled"));
        else
            QCOMPARE(h.view->rendererStatusText(), QString("healthy"));
        // The picture has ink where the text is: the first row is not blank.
        const QImage shot = h.window.grabWindow();
        shot.save(screenshotPath(api == QSGRendererInterface::Software ? "view-software" : "view-gpu"));
        const CellMetrics& cell = h.view->cellMetrics();
        int dark = 0;
        for (int y = 0; y < cell.height; ++y)
            for (int x = 0; x < 19 * cell.width && x < shot.width(); ++x)
                dark += qGray(shot.pixel(x, y)) < 128 ? 1 : 0;
        QVERIFY2(dark > 50, qPrintable(QString::number(dark)));
        h.view->terminate();
    }

    void keysReachTheProgramAndItsEchoIsShown() {
        Harness h;
        QVERIFY(h.exposed());
        h.view->forceActiveFocus();
        h.view->startProcess("/bin/cat");
        QTRY_VERIFY(h.view->running());
        for (QChar c : QString("typed-here"))
            QTest::keyClick(&h.window, c.toLatin1());
        QVERIFY(h.shows("typed-here"));
        QTest::keyClick(&h.window, Qt::Key_Return);
        QVERIFY(QTest::qWaitFor([&] { return h.view->screenText().count("typed-here") == 2; }, 5000));
        h.view->terminate();
    }

    void theSizeFollowsTheItemAndReachesTheProgram() {
        Harness h(QSize(800, 480));
        QVERIFY(h.exposed());
        const CellMetrics& cell = h.view->cellMetrics();
        QCOMPARE(h.view->cols(), 800 / cell.width);
        QCOMPARE(h.view->rows(), 480 / cell.height);
        h.view->startProcess("/bin/sh", {"-c", "while :; do stty size; sleep 0.2; done"});
        QVERIFY(h.shows(QString("%1 %2").arg(h.view->rows()).arg(h.view->cols())));
        h.window.resize(400, 300);
        h.view->setSize(QSizeF(400, 300));
        QVERIFY(h.shows(QString("%1 %2").arg(300 / cell.height).arg(400 / cell.width)));
        h.view->terminate();
    }

    void aFullScreenProgramAndColouredListing() {
        Harness h(QSize(740, 420));
        QVERIFY(h.exposed());
        const QString path =
            screenshotPath(QStringLiteral("view-fullscreen-") +
                           (h.view->usesGpu() ? QStringLiteral("gpu") : QStringLiteral("software")));
        h.view->startProcess("/usr/bin/python3", {TERMKIT_VIEW_TEST_DATA "/fullscreen_demo.py", "3"});
        QVERIFY(h.shows("press a key to leave"));
        QVERIFY(h.presentedAll());
        QTest::qWait(100);
        if (qEnvironmentVariableIsSet("TERMKIT_PROBE_WAIT"))
            QTest::qWait(2000);
        QVERIFY(h.window.grabWindow().save(path));
        h.view->terminate();
    }

    void aLostDeviceGetsANewRendererAndTheLimitOfItsTextures() {
        Harness h;
        QVERIFY(h.exposed());
        if (!h.view->usesGpu())
            QSKIP("the software scene graph has no device to lose");
        h.view->feed("before\r\n");
        QVERIFY(h.presentedAll());
        QVERIFY(h.view->deviceMaxTextureSize() >= 1024);
        QCOMPARE(h.view->rendererStatusText(), QString("healthy"));
        // A window whose scene graph is not kept loses it, device and all, when hidden.
        QStringList states;
        QObject::connect(h.view, &TerminalView::rendererStatusChanged,
                         [&] { states << h.view->rendererStatusText(); });
        h.window.setPersistentSceneGraph(false);
        h.window.setPersistentGraphics(false);
        h.window.hide();
        QTRY_VERIFY_WITH_TIMEOUT(states.contains("recovering"), 5000);
        h.window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&h.window));
        h.view->feed("after the loss\r\n");
        QVERIFY(h.presentedAll());
        QTRY_COMPARE(h.view->rendererStatusText(), QString("healthy"));
        QVERIFY(h.view->usesGpu());
        QVERIFY(h.view->screenText().contains("after the loss"));
    }

    void refusedFramesRecoverOrFallBack() {
        Harness h;
        QVERIFY(h.exposed());
        if (!h.view->usesGpu())
            QSKIP("the software scene graph has no GPU renderer to recover");
        FrameCoordinator::Timing fast;
        fast.failureRecoveryAfter = 100ms;
        h.view->setFrameTiming(fast);
        h.view->feed("before the failure\r\n");
        QVERIFY(h.presentedAll());
        QCOMPARE(h.view->rendererStatusText(), QString("healthy"));
        h.view->simulateFrameRefusals(FrameRefusalReason::missingDrawable);
        h.view->feed("during\r\n");
        QTRY_COMPARE_WITH_TIMEOUT(h.view->rendererStatusText(), QString("recovering"), 5000);
        h.view->simulateFrameRefusals(std::nullopt);
        QTRY_COMPARE_WITH_TIMEOUT(h.view->rendererStatusText(), QString("healthy"), 5000);
        QVERIFY(h.view->usesGpu());
        // A second failure soon after: no second replacement, the rows go to the CPU.
        h.view->simulateFrameRefusals(FrameRefusalReason::missingRenderEncoder);
        h.view->feed("again\r\n");
        QTRY_COMPARE_WITH_TIMEOUT(h.view->rendererStatusText(), QString("fell back to software"), 5000);
        h.view->simulateFrameRefusals(std::nullopt);
        h.view->feed("after\r\n");
        QVERIFY(h.presentedAll());
        QVERIFY(!h.view->usesGpu());
        QVERIFY(h.view->screenText().contains("after"));
    }
};

QTEST_MAIN(TerminalViewGuiTest)
#include "TerminalViewGuiTest.moc"
