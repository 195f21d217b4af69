#include "gui/AppHarness.h"
#include "support/Await.h"
#include "support/FakeComposioProcess.h"
#include "support/FakeProviderProcess.h"
#include "support/RelayFixture.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QQuickItem>
#include <QTest>

#include <algorithm>

namespace {

QString fixtures() {
    return QDir(QStringLiteral(QUILLMERE_SOURCE_ROOT))
        .filePath(QStringLiteral("cloud_app/tests/data/improve/claude"));
}

bool anyStartsWith(const QStringList& texts, const QString& prefix) {
    return std::any_of(texts.begin(), texts.end(), [&](const QString& t) { return t.startsWith(prefix); });
}

} // namespace

// The improve, classifier and integrations sheets of the real window against the real
// relay (fixture logs, a fake provider lane, the fake Composio), with a picture of each.
class ImproveAppsGuiTest : public QObject {
    Q_OBJECT

    QTemporaryDir m_logs;
    FakeProviderProcess m_fake{QStringLiteral("Plain answer.")};
    FakeComposioProcess m_composio;

    QProcessEnvironment relayEnvironment() {
        QProcessEnvironment environment = m_fake.inventory({"reasoning", "structured_output"});
        environment.insert(m_composio.relayEnvironment());
        environment.insert("MERE_RELAY_CLAUDE_PROJECTS_DIR", m_logs.filePath("claude"));
        environment.insert("MERE_RELAY_CODEX_SESSIONS_DIR", m_logs.filePath("codex"));
        // Keeps the fixtures' dates inside the window of recent evidence.
        environment.insert("MERE_RELAY_IMPROVE_DAY_SECONDS", "100000000");
        return environment;
    }

    static QObject* viewModel(QQuickWindow* sheet, const char* view, const char* model) {
        QQuickItem* item = AppHarness::inSheet(sheet, view);
        return item ? item->findChild<QObject*>(QString::fromLatin1(model)) : nullptr;
    }

    static void press(QQuickWindow* sheet, const char* name) {
        QQuickItem* button = AppHarness::inSheet(sheet, name);
        QVERIFY2(button, name);
        QMetaObject::invokeMethod(button, "clicked");
    }

private slots:
    void initTestCase() {
        QVERIFY(!m_fake.url().isEmpty());
        QVERIFY(!m_composio.url().isEmpty());
        QDirIterator it(fixtures(), QDir::Files, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString source = it.next();
            const QString target =
                QDir(m_logs.filePath("claude")).filePath(QDir(fixtures()).relativeFilePath(source));
            QDir().mkpath(QFileInfo(target).absolutePath());
            QVERIFY(QFile::copy(source, target));
        }
        QDir().mkpath(m_logs.filePath("codex"));
    }

    void theThreeSheets() {
        RelayFixture relay(RelayFixture::Options{true, relayEnvironment(), {}});
        QVERIFY(relay.start());
        AppHarness harness({relay.url(), false});
        QVERIFY(harness.load());
        QTRY_VERIFY_WITH_TIMEOUT(harness.showsText("ONLINE"), 10000);
        QTemporaryDir project;
        harness.app().setTerminalWorkingDirectory(project.path());

        harness.screenshot("main-panel-buttons");
        // Improve, from its panel button: empty, processed, previewed, applied.
        QVERIFY(harness.click("◔"));
        QQuickWindow* improve = harness.sheet("improveSheet");
        QVERIFY(improve);
        QTRY_VERIFY(improve->isVisible());
        QTRY_VERIFY_WITH_TIMEOUT(anyStartsWith(AppHarness::textsIn(improve), "Nothing recurring yet."),
                                 10000);
        QVERIFY(AppHarness::textsIn(improve).contains("PROCESS NOW"));
        // The relay has seen the two logs but not read them yet.
        QVERIFY(AppHarness::textsIn(improve).contains("2 conversations not read yet."));
        AppHarness::screenshotOf(improve, "improve-empty");
        press(improve, "improveProcess");
        QTRY_VERIFY_WITH_TIMEOUT(AppHarness::textsIn(improve).contains("1 suggestions"), 15000);
        QStringList shown = AppHarness::textsIn(improve);
        QVERIFY(shown.contains("All 2 conversations read."));
        QVERIFY(shown.contains("~ RULE"));
        QVERIFY(shown.contains("2 CONVOS"));
        QVERIFY(shown.contains("FROM YOUR OWN MESSAGES"));
        QVERIFY(shown.contains("◎ PREVIEW"));
        QVERIFY(shown.contains("✕ DISMISS"));
        QVERIFY(shown.contains("◷ SNOOZE 7D"));
        AppHarness::screenshotOf(improve, "improve-list");
        QObject* improveModel = viewModel(improve, "improveView", "improveViewModel");
        QVERIFY(improveModel);
        const QString id = improveModel->property("cards").toList().first().toMap().value("id").toString();
        QMetaObject::invokeMethod(improveModel, "togglePreview", Q_ARG(QString, id));
        QTRY_VERIFY(AppHarness::textsIn(improve).contains("WOULD CREATE CLAUDE.md"));
        QVERIFY(AppHarness::textsIn(improve).contains("✓ APPLY"));
        QVERIFY(AppHarness::textsIn(improve).contains("◉ HIDE"));
        QVERIFY(!QFile::exists(QDir(project.path()).filePath("CLAUDE.md")));
        AppHarness::screenshotOf(improve, "improve-preview");
        QMetaObject::invokeMethod(improveModel, "apply", Q_ARG(QString, id));
        QTRY_VERIFY_WITH_TIMEOUT(anyStartsWith(AppHarness::textsIn(improve), "✓ APPLIED CLAUDE.md "), 10000);
        QVERIFY(QFile::exists(QDir(project.path()).filePath("CLAUDE.md")));
        AppHarness::screenshotOf(improve, "improve-applied");
        press(improve, "sheetClose");
        QTRY_VERIFY(!improve->isVisible());

        // The home screen's line on open suggestions opens the same sheet.
        QTRY_VERIFY_WITH_TIMEOUT(harness.showsText("◔ 1 THING WORTH WRITING DOWN ›"), 10000);
        QVERIFY(harness.click("◔ 1 THING WORTH WRITING DOWN ›"));
        QTRY_VERIFY(improve->isVisible());
        QVERIFY(harness.root().showImprove());
        press(improve, "sheetClose");
        QTRY_VERIFY(!improve->isVisible());

        // Classifiers, from the settings sheet.
        QVERIFY(harness.click("⚙"));
        QQuickWindow* settings = harness.sheet("settingsSheet");
        QTRY_VERIFY(settings->isVisible());
        press(settings, "manageClassifiers");
        QQuickWindow* classifiers = harness.sheet("classifiersSheet");
        QVERIFY(classifiers);
        QTRY_VERIFY(classifiers->isVisible());
        QTRY_VERIFY_WITH_TIMEOUT(
            AppHarness::textsIn(classifiers)
                .contains(
                    "NO CLASSIFIERS · ADD TASK FAMILY, DIFFICULTY, AUDIENCE, OR COST-CENTER VISIBILITY"),
            10000);
        QVERIFY(
            AppHarness::textsIn(classifiers).contains("ASYNC · ZERO REQUEST LATENCY · CONTENT-FREE TAGS"));
        AppHarness::screenshotOf(classifiers, "classifiers-empty");
        press(classifiers, "createClassifier");
        QTRY_VERIFY(AppHarness::textsIn(classifiers).contains("create classifier"));
        shown = AppHarness::textsIn(classifiers);
        QVERIFY(shown.contains("sample 100% of generations"));
        QVERIFY(shown.contains("dimensions 2/8"));
        QVERIFY(shown.contains("VALUES (COMMA-SEPARATED)"));
        AppHarness::screenshotOf(classifiers, "classifiers-editor");
        press(classifiers, "saveClassifier");
        QTRY_VERIFY_WITH_TIMEOUT(AppHarness::textsIn(classifiers).contains("0 TAGGED · 0 PENDING · 0 FAILED"),
                                 10000);
        QVERIFY(AppHarness::textsIn(classifiers).contains("Agent complexity"));
        AppHarness::screenshotOf(classifiers, "classifiers-list");
        press(classifiers, "sheetClose");
        press(settings, "sheetClose");

        // Integrations, from its panel button.
        QVERIFY(harness.click("⇄"));
        QQuickWindow* integrations = harness.sheet("integrationsSheet");
        QVERIFY(integrations);
        QTRY_VERIFY(integrations->isVisible());
        QTRY_VERIFY_WITH_TIMEOUT(AppHarness::textsIn(integrations).contains("GitHub"), 10000);
        shown = AppHarness::textsIn(integrations);
        QVERIFY(shown.contains("integrations"));
        QVERIFY(shown.contains("Issues and pull requests."));
        QVERIFY(shown.contains("CONNECT"));
        QVERIFY(shown.contains("project insights"));
        QVERIFY(shown.contains("SPEND"));
        QVERIFY(shown.contains("$0.0000"));
        AppHarness::screenshotOf(integrations, "integrations");
    }
};

QTEST_MAIN(ImproveAppsGuiTest)
#include "ImproveAppsGuiTest.moc"
