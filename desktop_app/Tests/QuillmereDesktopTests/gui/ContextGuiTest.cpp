#include "QuillmereDesktop/agents/AgentOrchestratorViewModel.h"
#include "QuillmereDesktop/context/ProjectContextViewModel.h"
#include "QuillmereDesktop/routing/PresetManagementViewModel.h"
#include "gui/AppHarness.h"
#include "support/Await.h"
#include "support/FakeProviderProcess.h"
#include "support/RelayFixture.h"

#include <QDir>
#include <QFile>
#include <QQuickItem>
#include <QTemporaryDir>
#include <QTest>

// The working-folder picker, the project context sheet and the presets sheet, offscreen
// against the real relay: what a person sees and presses.
class ContextGuiTest : public QObject {
    Q_OBJECT

    static QQuickItem* findItem(QQuickItem* item, const QString& name) {
        if (!item)
            return nullptr;
        if (item->objectName() == name)
            return item;
        const auto children = item->childItems();
        for (QQuickItem* child : children)
            if (QQuickItem* found = findItem(child, name))
                return found;
        return nullptr;
    }

    static QQuickItem* inWindow(QQuickWindow* window, const char* name) {
        return findItem(window->contentItem(), QString::fromLatin1(name));
    }

    template <class T> static T* viewModelIn(QQuickWindow* window, const char* viewName) {
        QQuickItem* view = inWindow(window, viewName);
        return view ? view->findChild<T*>() : nullptr;
    }

private slots:
    void aFolderWithAGuideIsSyncedAndAPresetIsCreated() {
        FakeProviderProcess fake(QStringLiteral("Answer."));
        QVERIFY(!fake.url().isEmpty());
        RelayFixture relay(RelayFixture::Options{true, fake.inventory(), {}});
        QVERIFY(relay.start());
        AppHarness harness({relay.url(), false});
        QVERIFY(harness.load());
        QTRY_VERIFY_WITH_TIMEOUT(harness.showsText("ONLINE"), 10000);

        QTemporaryDir projects;
        const QString folder = projects.filePath("atlas-service");
        QVERIFY(QDir().mkpath(folder));
        QFile guide(folder + "/AGENTS.md");
        QVERIFY(guide.open(QIODevice::WriteOnly));
        guide.write(
            "# Atlas service\n\nRun `make test` before every commit. Current project work: the billing "
            "importer; keep its parser free of network calls.\n");
        guide.close();
        harness.app().setTerminalWorkingDirectory(folder);
        QTRY_VERIFY(harness.showsText("atlas-service ▾"));

        QVERIFY(harness.click("❖"));
        QQuickWindow* sheet = harness.sheet("contextSheet");
        QVERIFY(sheet);
        QTRY_VERIFY(sheet->isVisible());
        auto* context = viewModelIn<ProjectContextViewModel>(sheet, "projectContextView");
        QVERIFY(context);
        QTRY_VERIFY_WITH_TIMEOUT(!context->isLoading() && context->project(), 10000);
        QTRY_VERIFY_WITH_TIMEOUT(AppHarness::textsIn(sheet).contains("No matching context."), 10000);
        QStringList shown = AppHarness::textsIn(sheet);
        QVERIFY(shown.contains("0/1 SYNCED"));
        QVERIFY(shown.contains("detected project guides"));
        QVERIFY(shown.contains("Nothing durable has been saved for this project."));
        AppHarness::screenshotOf(sheet, "context-detected");

        auto* sync = inWindow(sheet, "syncGuides");
        QVERIFY(sync);
        QMetaObject::invokeMethod(sync, "clicked");
        QTRY_VERIFY_WITH_TIMEOUT(AppHarness::textsIn(sheet).contains("1/1 SYNCED"), 10000);
        QTRY_VERIFY_WITH_TIMEOUT(AppHarness::textsIn(sheet).contains("shared items 1"), 10000);
        auto* pack = inWindow(sheet, "packText");
        QVERIFY(pack);
        QTRY_VERIFY(pack->property("text").toString().contains("billing importer"));
        AppHarness::screenshotOf(sheet, "context-synced");
        auto* close = inWindow(sheet, "sheetClose");
        QMetaObject::invokeMethod(close, "clicked");
        QTRY_VERIFY(!sheet->isVisible());

        // The picker now names the project, ticked, with "Choose Folder…" below.
        harness.projects().load(harness.auth().client());
        QTRY_VERIFY(!harness.projects().selectable().isEmpty());
        QVERIFY(harness.click("atlas-service ▾"));
        QTRY_VERIFY(harness.showsText("✓ atlas-service"));
        QVERIFY(harness.showsText("Choose Folder…"));
        harness.screenshot("project-picker");

        QVERIFY(harness.click("◇"));
        QQuickWindow* presets = harness.sheet("presetsSheet");
        QVERIFY(presets);
        QTRY_VERIFY(presets->isVisible());
        QTRY_VERIFY_WITH_TIMEOUT(
            AppHarness::textsIn(presets).contains(
                "NO PRESETS YET · CREATE A REUSABLE REVIEWER, PLANNER, CLASSIFIER, OR OTHER AGENT ROLE"),
            10000);
        auto* list = viewModelIn<PresetManagementViewModel>(presets, "presetManagementView");
        QVERIFY(list);
        QTRY_VERIFY(!list->modelIDs().isEmpty());
        list->openEditor("");
        QTRY_VERIFY(AppHarness::textsIn(presets).contains("create agent preset"));
        // The form is taller than the sheet: all of it, the save button at its end included,
        // can be scrolled to.
        QQuickItem* scroller = AppHarness::inSheet(presets, "presetManagementView");
        QQuickItem* form = AppHarness::inSheet(presets, "presetEditorView");
        QVERIFY(scroller && form);
        QTRY_VERIFY(form->height() > 0);
        QTRY_VERIFY2(
            scroller->property("contentHeight").toReal() >= form->height(),
            qPrintable(
                QString("%1 < %2").arg(scroller->property("contentHeight").toReal()).arg(form->height())));
        PresetEditorViewModel* editor = list->editor();
        editor->setSlug("Code-Reviewer");
        editor->setSystemPrompt("Review the diff for correctness first, style last.");
        editor->setFallbacks("fake-lane-b");
        editor->setResponseFormat("json_object");
        editor->setResponseHealing(true);
        AppHarness::screenshotOf(presets, "preset-editor");
        editor->save();
        QTRY_VERIFY_WITH_TIMEOUT(AppHarness::textsIn(presets).contains("history"), 10000);
        shown = AppHarness::textsIn(presets);
        QVERIFY(shown.contains("V1 ACTIVE"));
        QVERIFY(std::any_of(shown.begin(), shown.end(),
                            [](const QString& text) { return text.startsWith("@PRESET/CODE-REVIEWER"); }));
        AppHarness::screenshotOf(presets, "preset-list");
        QMetaObject::invokeMethod(inWindow(presets, "sheetClose"), "clicked");
        QTRY_VERIFY(!presets->isVisible());

        // The orchestrator, from the root view: an API run with the new preset.
        QVERIFY(harness.click("▷"));
        QQuickWindow* orchestrator = harness.sheet("orchestratorSheet");
        QVERIFY(orchestrator);
        QTRY_VERIFY(orchestrator->isVisible());
        QVERIFY(orchestrator->width() >= 820 && orchestrator->height() >= 620);
        auto* runs = viewModelIn<AgentOrchestratorViewModel>(orchestrator, "agentOrchestratorView");
        QVERIFY(runs);
        QTRY_VERIFY_WITH_TIMEOUT(runs->presetOptions().size() == 2, 10000);
        runs->setSelectedLane("api");
        runs->setSelectedPreset("code-reviewer");
        runs->setPrompt("Review the importer's error handling.");
        runs->launch();
        QTRY_VERIFY_WITH_TIMEOUT(AppHarness::textsIn(orchestrator).contains("completed"), 15000);
        shown = AppHarness::textsIn(orchestrator);
        QVERIFY(shown.contains("runs 1"));
        QVERIFY(shown.contains("api router · plan only · @PRESET/CODE-REVIEWER"));
        QVERIFY(std::any_of(shown.begin(), shown.end(),
                            [](const QString& text) { return text.startsWith("OUTPUT"); }));
        QVERIFY(shown.contains("Answer."));
        AppHarness::screenshotOf(orchestrator, "orchestrator");
        harness.screenshot("main-window");
    }
};

QTEST_MAIN(ContextGuiTest)
#include "ContextGuiTest.moc"
