// The drawer as a person meets it: it opens after sign-in against the reference relay, its
// two shells run their auto-run lines, typing reaches the selected one and is recorded on
// the relay, hiding and showing keeps everything, and the screen looks right.

#include "gui/AppHarness.h"
#include "support/RelayFixture.h"
#include "support/RelaySession.h"

#include "QuillmereDesktop/terminal/CapturingTerminalView.h"

#include <QClipboard>
#include <QDir>
#include <QFile>
#include <QGuiApplication>
#include <QProcess>
#include <QProcessEnvironment>
#include <QQuickWindow>
#include <QSGRendererInterface>
#include <QTemporaryDir>

#include <QClipboard>
#include <QTest>
#include <memory>
#include <optional>

using namespace std::chrono_literals;

namespace {

QString fakeBin() {
    return QStringLiteral(QUILLMERE_TEST_DATA "/fakebin");
}

// A relay that finds a "claude" on its PATH (the stand-in) and no "codex".
// The relay finds the agents' tools on its PATH: there it gets only a folder of its own, so
// that tools installed on the machine running the tests change nothing.
RelayFixture::Options relayWithTools(const QTemporaryDir& bin, bool claudeInstalled) {
    if (claudeInstalled)
        QFile::link(fakeBin() + QStringLiteral("/claude"), bin.filePath(QStringLiteral("claude")));
    RelayFixture::Options options;
    options.extra.insert(QStringLiteral("PATH"), bin.path());
    // Without the system's PATH the relay needs its interpreter itself, not a launcher.
    QProcess python;
    python.start(RelayFixture::python(),
                 {QStringLiteral("-c"), QStringLiteral("import sys; print(sys.executable)")});
    if (python.waitForFinished(10000))
        options.interpreter = QString::fromUtf8(python.readAllStandardOutput()).trimmed();
    return options;
}

// A folder with one of each kind of entry that a coloured listing tells apart.
void fillListingFolder(const QTemporaryDir& folder) {
    QDir dir(folder.path());
    dir.mkdir(QStringLiteral("projects"));
    dir.mkdir(QStringLiteral("notes"));
    for (const char* name : {"README.md", "archive.tar.gz", "photo.png", "build.sh", "data.json"}) {
        QFile file(dir.filePath(QString::fromLatin1(name)));
        file.open(QIODevice::WriteOnly);
        file.write("x\n");
    }
    QFile::setPermissions(dir.filePath(QStringLiteral("build.sh")),
                          QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup);
    QFile::link(dir.filePath(QStringLiteral("projects")), dir.filePath(QStringLiteral("link-to-projects")));
    QFile::link(dir.filePath(QStringLiteral("gone")), dir.filePath(QStringLiteral("broken-link")));
}

void type(QQuickWindow* window, const QString& text) {
    for (QChar c : text)
        QTest::keyClick(window, c.toLatin1());
}

// How long the relay may take to hold a capture, and how many later captures may be needed
// to carry it there.
constexpr int kRecordWait = 5000;
constexpr int kNextCaptureAttempts = 3;

QString recorded(const StoredTerminalSession& session, const QString& stream) {
    QString all;
    for (const TerminalEventChunk& chunk : session.chunks)
        if (chunk.stream == stream)
            all += chunk.data;
    return all;
}

} // namespace

class DrawerGuiTest : public QObject {
    Q_OBJECT

    struct Opened {
        QQuickWindow* panel = nullptr;
        CapturingTerminalView* claude = nullptr;
        CapturingTerminalView* codex = nullptr;
    };

    // A relay (with or without the claude stand-in on its PATH), the signed-in application,
    // and its drawer once open.
    struct Session {
        QTemporaryDir relayBin;
        std::unique_ptr<RelayFixture> relay;
        std::unique_ptr<AppHarness> harness;
        std::optional<Opened> opened;
        Opened* operator->() { return &*opened; }
    };

    static std::unique_ptr<Session> signIn(bool claudeInstalled) {
        auto session = std::make_unique<Session>();
        session->relay = std::make_unique<RelayFixture>(relayWithTools(session->relayBin, claudeInstalled));
        if (!session->relay->start())
            return nullptr;
        session->harness = std::make_unique<AppHarness>(AppHarness::Options{session->relay->url(), false});
        if (!session->harness->load())
            return nullptr;
        session->opened = waitForDrawer(*session->harness);
        return session->opened ? std::move(session) : nullptr;
    }

    static std::optional<Opened> waitForDrawer(AppHarness& harness) {
        if (!QTest::qWaitFor([&] { return harness.drawer().isOpen(); }, 10000))
            return std::nullopt;
        Opened opened;
        opened.panel = qobject_cast<QQuickWindow*>(harness.drawer().panel());
        if (!opened.panel || !QTest::qWaitForWindowExposed(opened.panel)) {
            qWarning("the drawer's window is not on screen");
            return std::nullopt;
        }
        opened.claude = opened.panel->findChild<CapturingTerminalView*>("claudeTerminal");
        opened.codex = opened.panel->findChild<CapturingTerminalView*>("codexTerminal");
        if (!opened.claude || !opened.codex) {
            qWarning("the drawer has no terminals");
            return std::nullopt;
        }
        return opened;
    }

private slots:
    void theDrawerOpensAfterSignInAndBothAutoRunLinesRun() {
        auto session = signIn(true);
        QVERIFY(session);
        AppHarness& harness = *session->harness;
        auto& opened = *session;
        QCOMPARE(harness.drawer().contentBuilds(), 1);
        // Beside the main window, as tall as it.
        const QRect main = harness.window()->frameGeometry();
        QCOMPARE(opened->panel->geometry().height(), main.height());
        QCOMPARE(opened->panel->geometry().top(), main.top());
        QVERIFY(opened->panel->geometry().right() < main.left() || opened->panel->geometry().left() == 0);
        QCOMPARE(harness.drawer().toggleLabel(), QString("▶"));
        QVERIFY(harness.showsText("▶"));
        // The relay found the claude stand-in and no codex: "claude" in one tab, the install
        // line in the other, though only the first is on screen.
        QTRY_VERIFY_WITH_TIMEOUT(opened->claude->screenText().contains("stand-in claude ran"), 10000);
        QTRY_VERIFY_WITH_TIMEOUT(
            opened->codex->screenText().contains("stand-in npm install -g @openai/codex"), 10000);
        QCOMPARE(opened->claude->opacity(), 1.0);
        QCOMPARE(opened->codex->opacity(), 0.0);
        QVERIFY(!opened->codex->isEnabled());
        QTRY_VERIFY(AppHarness::screenshot(opened->panel, "drawer-signed-in").endsWith(".png"));
        QTRY_COMPARE_WITH_TIMEOUT(
            opened->panel->findChild<QQuickItem*>("syncStatus")->property("text").toString(),
            QString("SYNCED"), 10000);
    }

    void withoutStatusBothTabsRunTheInstallLines() {
        auto session = signIn(false); // no stand-ins on the relay's PATH: neither tool is installed
        QVERIFY(session);
        auto& opened = *session;
        QTRY_VERIFY_WITH_TIMEOUT(
            opened->claude->screenText().contains("stand-in installer from -fsSL https://"), 10000);
        QTRY_VERIFY_WITH_TIMEOUT(
            opened->codex->screenText().contains("stand-in npm install -g @openai/codex"), 10000);
    }

    void typingIsShownAndRecordedOnTheRelay() {
        auto session = signIn(true);
        QVERIFY(session);
        RelayFixture& relay = *session->relay;
        auto& opened = *session;
        QTRY_VERIFY_WITH_TIMEOUT(opened->claude->screenText().contains("stand-in claude ran"), 10000);
        QTRY_VERIFY(opened->claude->hasActiveFocus());
        type(opened->panel, "echo drawer-ok");
        QTest::keyClick(opened->panel, Qt::Key_Return);
        // The echo of the command line, then the command's own output on a line of its own.
        QTRY_VERIFY_WITH_TIMEOUT(opened->claude->screenText().split('\n').contains("drawer-ok"), 10000);
        QVERIFY(!opened->codex->screenText().contains("drawer-ok"));

        const auto token = localSessionToken(relay.url());
        QVERIFY(token);
        QTRY_VERIFY_WITH_TIMEOUT(opened->claude->pipeline()->sessionId().has_value(), 10000);
        const QString sessionId = *opened->claude->pipeline()->sessionId();
        std::optional<StoredTerminalSession> stored;
        const auto echoRecorded = [&] {
            stored = storedSession(relay.url(), *token, sessionId);
            return stored && recorded(*stored, "output").contains("drawer-ok\r\n");
        };
        // Output captured while a batch is on its way waits for the next capture (the pipeline
        // keeps one send in flight); a busy machine makes that likely. A no-op command is such
        // a next capture, as the person's next keys would be.
        bool found = QTest::qWaitFor(echoRecorded, kRecordWait);
        for (int attempt = 0; !found && attempt < kNextCaptureAttempts; ++attempt) {
            type(opened->panel, ":");
            QTest::keyClick(opened->panel, Qt::Key_Return);
            found = QTest::qWaitFor(echoRecorded, kRecordWait);
        }
        QVERIFY(found);
        QCOMPARE(stored->source, QString("desktop"));
        QVERIFY(recorded(*stored, "input").contains("echo drawer-ok\r"));
        QVERIFY(recorded(*stored, "input").contains("claude\n")); // the auto-run line, as input
        for (qsizetype i = 0; i < stored->chunks.size(); ++i)
            QCOMPARE(stored->chunks[i].seq, i + 1);
    }

    void hidingAndReopeningKeepsTheShellsAndBuildsNothingTwice() {
        auto session = signIn(true);
        QVERIFY(session);
        AppHarness& harness = *session->harness;
        auto& opened = *session;
        QTRY_VERIFY_WITH_TIMEOUT(opened->claude->screenText().contains("stand-in claude ran"), 10000);
        type(opened->panel, "echo kept-in-scrollback");
        QTest::keyClick(opened->panel, Qt::Key_Return);
        QTRY_VERIFY_WITH_TIMEOUT(opened->claude->screenText().split('\n').contains("kept-in-scrollback"),
                                 10000);
        const qint64 pid = opened->claude->process().shellPid();

        QVERIFY(harness.clickUntil("▶", [&] { return !harness.drawer().isOpen(); }));
        QVERIFY(!opened->panel->isVisible());
        QVERIFY(harness.showsText("◀"));
        QVERIFY(harness.clickUntil("◀", [&] { return harness.drawer().isOpen(); }));
        QVERIFY(opened->panel->isVisible());
        QCOMPARE(harness.drawer().contentBuilds(), 1);
        QCOMPARE(qobject_cast<QQuickWindow*>(harness.drawer().panel()), opened->panel);
        QCOMPARE(opened->claude->process().shellPid(), pid);
        QVERIFY(opened->claude->running());
        QVERIFY(opened->claude->screenText().split('\n').contains("kept-in-scrollback"));
        // The close button hides it the same way.
        QQuickItem* close = opened->panel->findChild<QQuickItem*>("closeDrawer");
        QVERIFY(close);
        QMetaObject::invokeMethod(close, "clicked");
        QTRY_VERIFY(!harness.drawer().isOpen());
        QVERIFY(opened->claude->running());
    }

    void switchingTabsMovesTypingToTheOtherShell() {
        auto session = signIn(true);
        QVERIFY(session);
        auto& opened = *session;
        QTRY_VERIFY_WITH_TIMEOUT(opened->codex->screenText().contains("stand-in npm"), 10000);
        QQuickItem* codexTab = nullptr;
        for (QQuickItem* item : opened->panel->findChildren<QQuickItem*>())
            if (item->property("text").toString() == "CODEX" && item->inherits("QQuickAbstractButton"))
                codexTab = item;
        QVERIFY(codexTab);
        QMetaObject::invokeMethod(codexTab, "clicked");
        QTRY_VERIFY(opened->codex->hasActiveFocus());
        QCOMPARE(opened->codex->opacity(), 1.0);
        QCOMPARE(opened->claude->opacity(), 0.0);
        type(opened->panel, "echo codex-side");
        QTest::keyClick(opened->panel, Qt::Key_Return);
        QTRY_VERIFY_WITH_TIMEOUT(opened->codex->screenText().split('\n').contains("codex-side"), 10000);
        QVERIFY(!opened->claude->screenText().contains("codex-side"));
    }

    void aProgramThatAsksForKittyKeysGetsThem() {
        auto session = signIn(true);
        QVERIFY(session);
        auto& opened = *session;
        QTRY_VERIFY_WITH_TIMEOUT(opened->claude->screenText().contains("stand-in claude ran"), 10000);
        type(opened->panel, "python3 " QUILLMERE_TEST_DATA "/kitty_keys.py 20");
        QTest::keyClick(opened->panel, Qt::Key_Return);
        QTRY_VERIFY_WITH_TIMEOUT(opened->claude->screenText().contains("kitty flags 11"), 10000);
        QTest::keyClick(opened->panel, Qt::Key_A, Qt::ControlModifier);
        QTRY_VERIFY_WITH_TIMEOUT(opened->claude->screenText().contains("\\x1b[97;5u"), 10000);
        QTRY_VERIFY_WITH_TIMEOUT(opened->claude->screenText().contains("\\x1b[97;5:3u"), 10000);
        QTest::keyClick(opened->panel, Qt::Key_Escape);
        QTRY_VERIFY_WITH_TIMEOUT(opened->claude->screenText().contains("\\x1b[27u"), 10000);
        QTest::keyClick(opened->panel, Qt::Key_Q);
        QTRY_VERIFY_WITH_TIMEOUT(opened->claude->terminal().keyboardEnhancementFlags() == 0, 10000);
    }

    void selectingCopyingAndSearchingInTheDrawer() {
        auto session = signIn(true);
        QVERIFY(session);
        auto& opened = *session;
        QTRY_VERIFY_WITH_TIMEOUT(opened->claude->screenText().contains("stand-in claude ran"), 10000);
        const QString suffix =
            opened->claude->usesGpu() ? QStringLiteral("-gpu") : QStringLiteral("-software");
        QTemporaryDir listing;
        fillListingFolder(listing);
        type(opened->panel, "cd " + listing.path());
        QTest::keyClick(opened->panel, Qt::Key_Return);
        type(opened->panel, "clear; ls --color=always -og; ls --color=always -F");
        QTest::keyClick(opened->panel, Qt::Key_Return);
        QTRY_VERIFY_WITH_TIMEOUT(opened->claude->screenText().contains("link-to-projects@"), 10000);
        // A double click on a name in the listing selects it; Ctrl+Shift+C copies it.
        const QStringList rows = opened->claude->screenText().split('\n');
        int row = -1;
        for (int r = 0; r < rows.size() && row < 0; ++r)
            if (rows[r].contains("link-to-projects@"))
                row = r;
        QVERIFY(row >= 0);
        const int col = static_cast<int>(rows[row].indexOf("link-to-projects"));
        const termkit::CellMetrics& cell = opened->claude->cellMetrics();
        const qreal ratio = opened->panel->devicePixelRatio();
        const QPointF inView((col + 2.5) * cell.width / ratio, (row + 0.5) * cell.height / ratio);
        const QPoint at = opened->claude->mapToScene(inView).toPoint();
        QTest::mouseDClick(opened->panel, Qt::LeftButton, Qt::NoModifier, at);
        QCOMPARE(opened->claude->selectedText(), QString("link-to-projects"));
        QGuiApplication::clipboard()->clear();
        QTest::keyClick(opened->panel, Qt::Key_C, Qt::ControlModifier | Qt::ShiftModifier);
        QCOMPARE(QGuiApplication::clipboard()->text(), QString("link-to-projects"));
        // Ctrl+Shift+F opens the find bar; typing highlights, Enter selects the next match.
        QTest::keyClick(opened->panel, Qt::Key_F, Qt::ControlModifier | Qt::ShiftModifier);
        auto* findBar = opened->panel->findChild<QQuickItem*>("findBar");
        QVERIFY(findBar);
        QTRY_VERIFY(findBar->isVisible());
        type(opened->panel, "projects");
        // As many as the screen shows (the listing was cleared first, scrollback and all).
        QTRY_VERIFY(opened->claude->searchMatchCount() >= 4);
        QCOMPARE(opened->claude->searchMatchCount(), opened->claude->screenText().count("projects"));
        QTest::keyClick(opened->panel, Qt::Key_Return);
        QTRY_COMPARE(opened->claude->selectedText(), QString("projects"));
        QTest::qWait(300);
        QVERIFY(!AppHarness::screenshot(opened->panel, "drawer-find" + suffix).isEmpty());
        QTest::keyClick(opened->panel, Qt::Key_Escape);
        QTRY_VERIFY(!findBar->isVisible());
        QCOMPARE(opened->claude->searchMatchCount(), 0);
    }

    void screenshotsOfAColouredListingAndAFullScreenProgram() {
        auto session = signIn(true);
        QVERIFY(session);
        auto& opened = *session;
        QTRY_VERIFY_WITH_TIMEOUT(opened->claude->screenText().contains("stand-in claude ran"), 10000);
        const bool gpu = opened->claude->usesGpu();
        qInfo("drawer on the %s scene graph, rows drawn by the %s",
              opened->panel->rendererInterface()->graphicsApi() == QSGRendererInterface::Software
                  ? "software"
                  : "hardware",
              gpu ? "GPU" : "CPU");
        const QString suffix = gpu ? QStringLiteral("-gpu") : QStringLiteral("-software");
        QTemporaryDir listing;
        fillListingFolder(listing);
        type(opened->panel, "cd " + listing.path());
        QTest::keyClick(opened->panel, Qt::Key_Return);
        type(opened->panel, "clear; ls --color=always -og; ls --color=always -F");
        QTest::keyClick(opened->panel, Qt::Key_Return);
        QTRY_VERIFY_WITH_TIMEOUT(opened->claude->screenText().contains("link-to-projects@"), 10000);
        QTest::qWait(300);
        QVERIFY(!AppHarness::screenshot(opened->panel, "drawer-ls" + suffix).isEmpty());
        type(opened->panel, "python3 " QUILLMERE_TEST_DATA "/fullscreen_demo.py 20");
        QTest::keyClick(opened->panel, Qt::Key_Return);
        QTRY_VERIFY_WITH_TIMEOUT(opened->claude->screenText().contains("press a key to leave"), 10000);
        QTest::qWait(300);
        QVERIFY(!AppHarness::screenshot(opened->panel, "drawer-fullscreen" + suffix).isEmpty());
        QTest::keyClick(opened->panel, Qt::Key_Q);
        QTRY_VERIFY_WITH_TIMEOUT(!opened->claude->screenText().contains("press a key to leave"), 10000);
        QVERIFY(opened->claude->screenText().contains("link-to-projects@")); // the normal screen is back
    }
};

QTEST_MAIN(DrawerGuiTest)
#include "DrawerGuiTest.moc"
