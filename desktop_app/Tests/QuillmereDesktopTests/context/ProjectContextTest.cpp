#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/common/MemoryPreferencesStore.h"
#include "QuillmereDesktop/context/ProjectContextViewModel.h"
#include "QuillmereDesktop/context/ProjectPickerViewModel.h"
#include "QuillmereDesktop/context/ProjectStore.h"
#include "QuillmereDesktop/queue/AppState.h"
#include "QuillmereDesktop/terminal/TerminalDrawerController.h"
#include "fakes/FakeSecretStore.h"
#include "support/Await.h"
#include "support/RelayFixture.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

namespace {

void writeFile(const QString& path, const QByteArray& bytes) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(bytes);
}

QStringList labelsOf(const QVariantList& rows) {
    QStringList labels;
    for (const QVariant& row : rows)
        labels.append(row.toMap().value("label").toString());
    return labels;
}

} // namespace

// The project store, the picker and the context screen against the real relay.
class ProjectContextTest : public QObject {
    Q_OBJECT

    RelayFixture m_relay;
    MemoryPreferencesStore m_prefs;
    FakeSecretStore m_secrets;
    QTemporaryDir m_home;
    std::unique_ptr<AppState> m_app;
    std::unique_ptr<AuthStore> m_auth;
    std::unique_ptr<ProjectStore> m_store;
    std::unique_ptr<TerminalDrawerController> m_drawer;

    RelayClient* client() { return m_auth->client(); }

    QString folder(const QString& name) {
        const QString path = m_home.filePath(name);
        QDir().mkpath(path);
        return path;
    }

    std::unique_ptr<ProjectPickerViewModel> picker() {
        auto view = std::make_unique<ProjectPickerViewModel>();
        view->setApp(m_app.get());
        view->setAuth(m_auth.get());
        view->setStore(m_store.get());
        view->setDrawer(m_drawer.get());
        return view;
    }

    std::unique_ptr<ProjectContextViewModel> contextScreen() {
        auto view = std::make_unique<ProjectContextViewModel>();
        view->setApp(m_app.get());
        view->setAuth(m_auth.get());
        return view;
    }

    QList<ProjectContextItem> storedItems(const QString& root) {
        const auto project = await(client()->upsertProject(ProjectStore::lastPathComponent(root), root));
        if (!project)
            return {};
        return await(client()->contextItems(project->id)).value();
    }

private slots:
    void initTestCase() { QVERIFY(m_relay.start()); }

    void init() {
        m_prefs = MemoryPreferencesStore();
        m_prefs.setString(AuthStore::relayURLKey, m_relay.url().toString());
        AppStateConfig appConfig;
        appConfig.homeDirectory = m_home.path();
        m_app = std::make_unique<AppState>(m_prefs, appConfig);
        AuthStoreConfig authConfig;
        authConfig.bootstrapOnStart = false;
        m_auth = std::make_unique<AuthStore>(m_prefs, m_secrets, nullptr, authConfig);
        await(m_auth->bootstrap());
        QCOMPARE(m_auth->state(), AuthStore::State::signedIn);
        m_store = std::make_unique<ProjectStore>(nullptr);
        m_drawer = std::make_unique<TerminalDrawerController>(nullptr);
    }

    void cleanup() {
        m_drawer.reset();
        m_store.reset();
        m_auth.reset();
        m_app.reset();
    }

    // The store and the picker.

    void aProjectWithoutAFolderCountsButIsNotOffered() {
        QVERIFY(await(client()->upsertProject("notes", "")));
        const QString alpha = folder("alpha");
        QVERIFY(await(client()->upsertProject("alpha", alpha)));
        await(m_store->load(client()));
        QVERIFY(m_store->projects().size() >= 2);
        QVERIFY(std::any_of(m_store->projects().begin(), m_store->projects().end(),
                            [](const MereProject& p) { return p.root_path.isEmpty(); }));
        for (const MereProject& project : m_store->selectable())
            QVERIFY(!project.root_path.isEmpty());
        QVERIFY(!labelsOf(picker()->rows()).filter("notes").size());
    }

    void anUnknownFolderIsLabelledByItsNameAndNoRowIsTicked() {
        QVERIFY(await(client()->upsertProject("beta", folder("beta"))));
        m_app->setTerminalWorkingDirectory(folder("unknown-to-the-relay"));
        await(m_store->load(client()));
        auto view = picker();
        QCOMPARE(view->currentLabel(), QStringLiteral("unknown-to-the-relay"));
        QVERIFY(!labelsOf(view->rows()).isEmpty());
        for (const QString& label : labelsOf(view->rows()))
            QVERIFY2(label.startsWith("   "), qPrintable(label));
    }

    void selectingTicksTheRowAndNamesTheProject() {
        const QString gamma = folder("gamma");
        QVERIFY(await(client()->upsertProject("Gamma project", gamma)));
        await(m_store->load(client()));
        auto view = picker();
        await(view->selectNow(gamma));
        QCOMPARE(m_app->terminalWorkingDirectory(), gamma);
        QCOMPARE(view->currentLabel(), QStringLiteral("Gamma project"));
        QVERIFY(labelsOf(view->rows()).contains(QStringLiteral("✓ Gamma project")));
    }

    void choosingAFolderWhileTheShellsRunElsewhereShowsTheLineAndLeavesThem() {
        const QString old = folder("old-folder");
        const QString chosen = folder("new-folder");
        m_app->setTerminalWorkingDirectory(old);
        m_drawer->setSessionDirectory(old);
        auto view = picker();
        QCOMPARE(view->terminalNotice(), QString());
        await(view->chooseNow(chosen));
        QCOMPARE(m_app->terminalWorkingDirectory(), chosen);
        QCOMPARE(view->terminalNotice(), QStringLiteral("Terminal still in old-folder"));
        // The shells go on where they were.
        QCOMPARE(m_drawer->sessionDirectory(), std::optional<QString>(old));
        // The chosen folder is now a project on the relay.
        await(m_store->load(client()));
        QVERIFY(m_store->project(chosen).has_value());
        // Going back to the shells' folder takes the line away.
        await(view->selectNow(old));
        QCOMPARE(view->terminalNotice(), QString());
    }

    void restartingEndsTheShellsSessionsSoTheLineGoes() {
        const QString old = folder("shells-here");
        m_drawer->setSessionDirectory(old);
        m_app->setTerminalWorkingDirectory(folder("elsewhere"));
        auto view = picker();
        QCOMPARE(view->terminalNotice(), QStringLiteral("Terminal still in shells-here"));
        m_drawer->discardSessions();
        QCOMPARE(view->terminalNotice(), QString());
        m_drawer->setSessionDirectory(m_app->terminalWorkingDirectory());
        QCOMPARE(view->terminalNotice(), QString());
    }

    void theRelaysNormalisedFolderWins() {
        const QString real = folder("norm");
        auto view = picker();
        await(view->chooseNow(real + "/./"));
        QCOMPARE(m_app->terminalWorkingDirectory(), real);
    }

    // Guide detection, without the relay.

    void aGuideOfExactlyTheLimitIsOfferedAndOneByteMoreIsNot() {
        QTemporaryDir root;
        writeFile(root.filePath("AGENTS.md"), QByteArray(ProjectContextViewModel::maxGuideBytes, 'a'));
        writeFile(root.filePath("CLAUDE.md"), QByteArray(ProjectContextViewModel::maxGuideBytes + 1, 'b'));
        const QList<LocalGuide> guides = ProjectContextViewModel::detectGuides(root.path());
        QCOMPARE(guides.size(), 1);
        QCOMPARE(guides[0].relativePath, QStringLiteral("AGENTS.md"));
    }

    void emptyAndBinaryFilesAreNotOfferedAndTheOrderIsFixed() {
        QTemporaryDir root;
        writeFile(root.filePath("README.md"), "");
        writeFile(root.filePath("README"), QByteArray("\xff\xfe\x00binary", 9));
        writeFile(root.filePath("docs/roadmap.md"), "Next: presets.");
        writeFile(root.filePath(".github/copilot-instructions.md"), "Use ctest.");
        writeFile(root.filePath("CLAUDE.md"), "Claude notes.");
        QStringList paths;
        for (const LocalGuide& guide : ProjectContextViewModel::detectGuides(root.path()))
            paths.append(guide.relativePath);
        QCOMPARE(paths, (QStringList{"CLAUDE.md", ".github/copilot-instructions.md", "docs/roadmap.md"}));
    }

    // The context screen.

    void openingSavesNothingAndTheButtonSyncsTheGuides() {
        const QString root = folder("with-guides");
        writeFile(root + "/AGENTS.md", "Run the tests with ctest before every commit.");
        writeFile(root + "/README.md", "Quillmere: current project work is the relay.");
        m_app->setTerminalWorkingDirectory(root);
        auto view = contextScreen();
        await(view->loadNow());
        QCOMPARE(view->errorText(), QString());
        QCOMPARE(view->syncedCountLine(), QStringLiteral("0/2 SYNCED"));
        QVERIFY(storedItems(root).isEmpty());
        await(view->syncGuidesNow());
        QCOMPARE(view->syncedCountLine(), QStringLiteral("2/2 SYNCED"));
        const QList<ProjectContextItem> items = storedItems(root);
        QCOMPARE(items.size(), 2);
        for (const ProjectContextItem& item : items)
            QVERIFY(item.source == "file:AGENTS.md" || item.source == "file:README.md");
        QCOMPARE(view->guideRows()[0].toMap().value("chars").toString(), QStringLiteral("45 CHARS"));
    }

    void editingASyncedGuideLowersTheCountOnReopening() {
        const QString root = folder("edited");
        writeFile(root + "/AGENTS.md", "First rules.");
        writeFile(root + "/CLAUDE.md", "Claude rules.");
        m_app->setTerminalWorkingDirectory(root);
        auto first = contextScreen();
        await(first->loadNow());
        await(first->syncGuidesNow());
        QCOMPARE(first->syncedCountLine(), QStringLiteral("2/2 SYNCED"));
        writeFile(root + "/AGENTS.md", "Second rules.");
        auto again = contextScreen();
        await(again->loadNow());
        QCOMPARE(again->syncedCountLine(), QStringLiteral("1/2 SYNCED"));
        // Saving again replaces the older copy rather than adding one.
        await(again->syncGuidesNow());
        QCOMPARE(again->syncedCountLine(), QStringLiteral("2/2 SYNCED"));
        QCOMPARE(storedItems(root).size(), 2);
    }

    void aNoteHasAnEmptySourceAndTheFormClears() {
        m_app->setTerminalWorkingDirectory(folder("notes-only"));
        auto view = contextScreen();
        await(view->loadNow());
        QCOMPARE(view->itemsHeading(), QStringLiteral("shared items 0"));
        view->setNoteTitle("  ");
        view->setNoteContent("text");
        QVERIFY(!view->canAddNote());
        view->setNoteTitle(" Testing convention \n");
        view->setNoteContent("\nTests live beside the code.  ");
        QVERIFY(view->canAddNote());
        await(view->addNoteNow());
        QCOMPARE(view->noteTitle(), QString());
        QCOMPARE(view->items().size(), 1);
        QCOMPARE(view->items()[0].source, QString());
        QCOMPARE(view->items()[0].title, QStringLiteral("Testing convention"));
        QCOMPARE(view->items()[0].content, QStringLiteral("Tests live beside the code."));
        QCOMPARE(view->itemRows()[0].toMap().value("title").toString(), QStringLiteral("TESTING CONVENTION"));
    }

    void theDefaultQueryGivesAPreviewAsSoonAsTheScreenOpens() {
        const QString root = folder("preview");
        writeFile(root + "/README.md", "Quillmere. Current project work: the context screen.");
        m_app->setTerminalWorkingDirectory(root);
        auto first = contextScreen();
        await(first->loadNow());
        await(first->syncGuidesNow());
        auto view = contextScreen();
        QCOMPARE(view->query(), QStringLiteral("current project work"));
        await(view->loadNow());
        QVERIFY(view->hasPack());
        QVERIFY(view->pack()->content.contains("the context screen"));
        QCOMPARE(view->packCountLine(), QString::number(view->pack()->character_count) + " CHARS");
        view->setQuery("kubernetes");
        await(view->buildPackNow());
        QCOMPARE(view->packText(), QStringLiteral("No matching context."));
    }

    void deletingAsksFirstAndCancelKeepsTheItem() {
        m_app->setTerminalWorkingDirectory(folder("deleting"));
        auto view = contextScreen();
        await(view->loadNow());
        view->setNoteTitle("Gone soon");
        view->setNoteContent("A note to delete.");
        await(view->addNoteNow());
        const QString id = view->items()[0].id;
        view->requestDelete(id);
        QVERIFY(view->confirmingDelete());
        view->cancelDelete();
        QVERIFY(!view->confirmingDelete());
        QCOMPARE(view->items().size(), 1);
        view->requestDelete(id);
        await(view->deletePendingItemNow());
        QVERIFY(!view->confirmingDelete());
        QCOMPARE(view->items().size(), 0);
    }

    void aFailedLoadKeepsTheListAndSetsTheError() {
        QVERIFY(await(client()->upsertProject("kept", folder("kept"))));
        await(m_store->load(client()));
        const QList<MereProject> before = m_store->projects();
        QVERIFY(!before.isEmpty());
        // Nothing listens on the discard port.
        RelayClient offline(QUrl("http://127.0.0.1:9/"), QStringLiteral("token"));
        await(m_store->load(&offline));
        QVERIFY(!m_store->errorText().isEmpty());
        QVERIFY(!m_store->isLoading());
        QCOMPARE(m_store->projects(), before);
        await(m_store->load(client()));
        QCOMPARE(m_store->errorText(), QString());
    }
};

QTEST_GUILESS_MAIN(ProjectContextTest)
#include "ProjectContextTest.moc"
