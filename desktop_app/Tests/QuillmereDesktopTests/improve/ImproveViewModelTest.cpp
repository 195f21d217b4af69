#include "QuillmereDesktop/improve/ImproveViewModel.h"
#include "ImproveApply/GuideWriter.h"
#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/common/MemoryPreferencesStore.h"
#include "QuillmereDesktop/improve/ImproveCalls.h"
#include "fakes/FakeSecretStore.h"
#include "support/Await.h"
#include "support/FakeProviderProcess.h"
#include "support/RelayFixture.h"
#include "support/SignedInAuth.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

namespace {

// A day long enough that the fixtures' dates stay inside the relay's window of recent
// evidence whenever the test runs.
const QString kLongDaySeconds = QStringLiteral("100000000");
const QString kSedRule = QStringLiteral("- Don't use sed, use the edit tool instead.");

QString fixtures(const QString& agent) {
    return QDir(QStringLiteral(QUILLMERE_SOURCE_ROOT))
        .filePath(QStringLiteral("cloud_app/tests/data/improve/") + agent);
}

// Copies the named fixture logs (relative to the agent's fixture folder) into `into`.
void copyLogs(const QString& agent, const QString& into, const QStringList& names) {
    for (const QString& name : names) {
        const QString target = QDir(into).filePath(name);
        QDir().mkpath(QFileInfo(target).absolutePath());
        QFile::remove(target);
        QVERIFY(QFile::copy(QDir(fixtures(agent)).filePath(name), target));
    }
}

QStringList logNames(const QString& agent) {
    QStringList names;
    QDirIterator it(fixtures(agent), QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext())
        names.append(QDir(fixtures(agent)).relativeFilePath(it.next()));
    names.sort();
    return names;
}

QByteArray bytesOf(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

void writeFile(const QString& path, const QByteArray& bytes) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(bytes);
}

// The relay's launch variables for log folders of the test's own.
QProcessEnvironment logFolders(const QTemporaryDir& logs, QProcessEnvironment base = {}) {
    base.insert(QStringLiteral("MERE_RELAY_CLAUDE_PROJECTS_DIR"), logs.filePath(QStringLiteral("claude")));
    base.insert(QStringLiteral("MERE_RELAY_CODEX_SESSIONS_DIR"), logs.filePath(QStringLiteral("codex")));
    base.insert(QStringLiteral("MERE_RELAY_IMPROVE_DAY_SECONDS"), kLongDaySeconds);
    return base;
}

ImproveSuggestion ruleFor(QList<ImproveTarget> targets, QString artifact = QStringLiteral("rule")) {
    ImproveSuggestion suggestion;
    suggestion.id = QStringLiteral("made-here");
    suggestion.artifact = artifact;
    suggestion.body =
        artifact == QStringLiteral("skill") ? QStringLiteral("---\nname: x\n---\nSteps.\n") : kSedRule;
    suggestion.section = QStringLiteral("## Rules");
    suggestion.targets = std::move(targets);
    return suggestion;
}

} // namespace

// The improve screen against the real relay reading fixture logs of both agents: loading,
// processing, the exact diff, apply and undo on real files, and every failure path.
class ImproveViewModelTest : public QObject {
    Q_OBJECT

    QTemporaryDir m_logs;
    QTemporaryDir m_modelLogs;
    FakeProviderProcess m_fake{QStringLiteral("Never reach for sed; use the edit tool.")};
    // One relay with no model at all, one with a lane that can reword.
    RelayFixture m_relay{RelayFixture::Options{true, logFolders(m_logs), {}}};
    RelayFixture m_modelRelay{RelayFixture::Options{true, logFolders(m_modelLogs, m_fake.inventory()), {}}};
    MemoryPreferencesStore m_prefs;
    MemoryPreferencesStore m_modelPrefs;
    FakeSecretStore m_secrets;
    FakeSecretStore m_modelSecrets;
    std::unique_ptr<AuthStore> m_auth;
    std::unique_ptr<AuthStore> m_modelAuth;

    // A fresh screen over the first relay, with the sed correction found in two Claude sessions.
    std::unique_ptr<ImproveViewModel> screen(const QString& root, AuthStore* auth = nullptr) {
        auto view = std::make_unique<ImproveViewModel>();
        view->setAuth(auth ? auth : m_auth.get());
        view->setProjectRoot(root);
        await(view->loadNow());
        return view;
    }

    static QVariantMap cardOf(const ImproveViewModel& view, const QString& id) {
        for (const QVariant& card : view.cards())
            if (card.toMap().value("id").toString() == id)
                return card.toMap();
        return {};
    }

    // The one write of the only suggestion that has not been undone.
    static ImproveApplication standing(const ImproveViewModel& view) {
        for (const ImproveApplication& application : view.suggestions()->suggestions.first().applications)
            if (!application.undone_at)
                return application;
        return {};
    }

    QString onlyId(const ImproveViewModel& view) {
        return view.suggestions() && view.suggestions()->suggestions.size() == 1
                   ? view.suggestions()->suggestions.first().id
                   : QString();
    }

private slots:
    void initTestCase() {
        QVERIFY(m_logs.isValid());
        QVERIFY(!m_fake.url().isEmpty());
        QDir().mkpath(m_logs.filePath("claude"));
        QDir().mkpath(m_logs.filePath("codex"));
        QDir().mkpath(m_modelLogs.filePath("claude"));
        QDir().mkpath(m_modelLogs.filePath("codex"));
        QVERIFY(m_relay.start());
        QVERIFY(m_modelRelay.start());
        m_auth = signedInAuth(m_prefs, m_secrets, m_relay.url());
        m_modelAuth = signedInAuth(m_modelPrefs, m_modelSecrets, m_modelRelay.url());
        QCOMPARE(m_auth->state(), AuthStore::State::signedIn);
        QCOMPARE(m_modelAuth->state(), AuthStore::State::signedIn);
    }

    void cleanupTestCase() {
        m_auth.reset();
        m_modelAuth.reset();
    }

    void fixedNumbers() {
        QCOMPARE(improvecalls::kListLimit, 20);
        QCOMPARE(improvecalls::kSnoozeDays, 7);
    }

    void shortDates() {
        QCOMPARE(ImproveViewModel::shortDate("2026-03-09T14:05:33Z"), QStringLiteral("03-09 14:05"));
        QCOMPARE(ImproveViewModel::shortDate("2026-03-09T14:05:33.120+00:00"), QStringLiteral("03-09 14:05"));
        // Fifteen characters or fewer, once the "Z"s are gone, are shown whole.
        QCOMPARE(ImproveViewModel::shortDate("2026-03-09T14:0"), QStringLiteral("2026-03-09T14:0"));
        QCOMPARE(ImproveViewModel::shortDate("2026-03-09T14Z"), QStringLiteral("2026-03-09T14"));
        QCOMPARE(ImproveViewModel::shortDate(""), QString());
    }

    void readStates() {
        ImproveProcessing processing;
        QCOMPARE(ImproveViewModel::readStateText(processing), QStringLiteral("No conversations read yet."));
        processing.sessions_pending = 1;
        QCOMPARE(ImproveViewModel::readStateText(processing), QStringLiteral("1 conversation not read yet."));
        processing.sessions_pending = 3;
        QCOMPARE(ImproveViewModel::readStateText(processing),
                 QStringLiteral("3 conversations not read yet."));
        processing.sessions_pending = 0;
        processing.sessions_processed = 4;
        QCOMPARE(ImproveViewModel::readStateText(processing), QStringLiteral("All 4 conversations read."));
    }

    // A correction said in one conversation gives nothing; said again in a second one, it
    // gives exactly one suggestion, resting on the person's words in both.
    void processingFindsTheRecurringCorrectionOnly() {
        QTemporaryDir project;
        const QStringList claude = logNames("claude");
        QCOMPARE(claude.size(), 2);
        copyLogs("claude", m_logs.filePath("claude"), {claude.first()});
        auto view = screen(project.path());
        QVERIFY(!view->hasSuggestions());
        QCOMPARE(
            view->emptyText(),
            QStringLiteral("Nothing recurring yet. A suggestion needs the same instruction in two different "
                           "conversations — one correction is an incident, not a pattern."));
        QCOMPARE(view->processLabel(), QStringLiteral("PROCESS NOW"));
        QCOMPARE(view->scheduleLine(), QStringLiteral("AUTOMATIC PROCESSING NOT ENABLED"));
        await(view->processNow());
        QCOMPARE(view->errorText(), QString());
        QVERIFY(!view->hasSuggestions());
        QCOMPARE(view->readState(), QStringLiteral("All 1 conversations read."));
        QVERIFY(
            view->scheduleLine().startsWith(QStringLiteral("AUTOMATIC PROCESSING NOT ENABLED · LAST READ ")));
        QVERIFY(!view->showsDismissedToggle());

        // The second Claude session repeats the sed correction: now there is one suggestion.
        copyLogs("claude", m_logs.filePath("claude"), {claude.last()});
        await(view->processNow());
        QCOMPARE(view->errorText(), QString());
        QCOMPARE(view->readState(), QStringLiteral("All 2 conversations read."));
        QVERIFY(view->hasSuggestions());
        QCOMPARE(view->sectionHeader(), QStringLiteral("1 suggestions"));
        QCOMPARE(view->countsLine(), QStringLiteral("1 OPEN · 0 SNOOZED · 0 DISMISSED"));
        const ImproveSuggestion& suggestion = view->suggestions()->suggestions.first();
        QCOMPARE(suggestion.body, kSedRule);
        QCOMPARE(suggestion.evidence.size(), 2);
        QVERIFY(suggestion.evidence[0].session_id != suggestion.evidence[1].session_id);
        const QVariantMap card = view->cards().first().toMap();
        QCOMPARE(card.value("artifactMark").toString(), QStringLiteral("~ RULE"));
        QCOMPARE(card.value("conversations").toString(), QStringLiteral("2 CONVOS"));
        QCOMPARE(card.value("statusMark").toString(), QString());
        QCOMPARE(card.value("dimmed").toBool(), false);
        QCOMPARE(card.value("previewLabel").toString(), QStringLiteral("◎ PREVIEW"));
        QStringList excerpts;
        for (const QVariant& item : card.value("evidence").toList())
            excerpts.append(item.toMap().value("excerpt").toString());
        excerpts.sort();
        QCOMPARE(excerpts, (QStringList{"Don't use sed, use the edit tool instead.",
                                        "don't use sed for this — use the Edit tool instead!"}));
    }

    // The improve flow end to end: the diff shown is what is written, byte for byte, the
    // relay records it, and undo gives the file back as it was.
    void previewApplyAndUndoOnAnExistingGuide() {
        QTemporaryDir project;
        const QByteArray original = "# Project\n\nBuild with make.\n";
        writeFile(project.filePath("CLAUDE.md"), original);
        auto view = screen(project.path());
        const QString id = onlyId(*view);
        QVERIFY(!id.isEmpty());

        view->togglePreview(id);
        QVERIFY(view->previewing().contains(id));
        QVERIFY(view->pending().count(id));
        const PendingApply shown = view->pending().at(id);
        QVERIFY(!shown.plan.createsFile);
        QVERIFY(shown.plan.diff.contains(QStringLiteral("+") + kSedRule));
        QVariantMap preview = view->cards().first().toMap().value("preview").toMap();
        QCOMPARE(preview.value("heading").toString(), QStringLiteral("WOULD ADD TO"));
        QCOMPARE(preview.value("path").toString(), QStringLiteral("CLAUDE.md"));
        QCOMPARE(preview.value("diff").toString(), shown.plan.diff);
        QVERIFY(preview.value("canApply").toBool());
        QCOMPARE(preview.value("rewordLabel").toString(), QStringLiteral("✎ REWORD"));
        QCOMPARE(view->cards().first().toMap().value("previewLabel").toString(), QStringLiteral("◉ HIDE"));
        // Nothing is written by a preview.
        QCOMPARE(bytesOf(project.filePath("CLAUDE.md")), original);

        await(view->applyNow(id));
        QCOMPARE(view->errorText(), QString());
        QCOMPARE(bytesOf(project.filePath("CLAUDE.md")), shown.plan.contents.toUtf8());
        QVERIFY(!view->previewing().contains(id));
        QVERIFY(!view->pending().count(id));
        QVERIFY(!view->busySuggestion());
        const ImproveSuggestion& applied = view->suggestions()->suggestions.first();
        QVERIFY(applied.applied);
        QCOMPARE(applied.applications.size(), 1);
        QCOMPARE(applied.applications.first().path, QStringLiteral("CLAUDE.md"));
        QCOMPARE(applied.applications.first().content_sha256,
                 improve::GuideWriter::sha256(shown.plan.contents));
        const QVariantList rows = view->cards().first().toMap().value("applications").toList();
        QCOMPARE(rows.size(), 1);
        QCOMPARE(rows.first().toMap().value("path").toString(), QStringLiteral("CLAUDE.md"));

        // Previewed again, the rule is found already there: no apply, but a rewording is offered.
        view->togglePreview(id);
        preview = view->cards().first().toMap().value("preview").toMap();
        QCOMPARE(preview.value("heading").toString(), QStringLiteral("NOTHING TO ADD TO"));
        QCOMPARE(preview.value("note").toString(),
                 QStringLiteral("ALREADY THERE — THIS FILE ALREADY SAYS THIS, SO APPLYING CHANGES NOTHING"));
        QVERIFY(!preview.value("canApply").toBool());
        QCOMPARE(preview.value("rewordLabel").toString(), QStringLiteral("✎ REWORD"));
        view->togglePreview(id);

        await(view->undoNow(id, applied.applications.first().id));
        QCOMPARE(view->errorText(), QString());
        QCOMPARE(bytesOf(project.filePath("CLAUDE.md")), original);
        QVERIFY(!view->suggestions()->suggestions.first().applied);
        QVERIFY(view->cards().first().toMap().value("applications").toList().isEmpty());
    }

    void applyCreatesTheGuideAndUndoRemovesIt() {
        QTemporaryDir project;
        auto view = screen(project.path());
        const QString id = onlyId(*view);
        view->togglePreview(id);
        QCOMPARE(view->cards().first().toMap().value("preview").toMap().value("heading").toString(),
                 QStringLiteral("WOULD CREATE"));
        const QString contents = view->pending().at(id).plan.contents;
        await(view->applyNow(id));
        QCOMPARE(bytesOf(project.filePath("CLAUDE.md")), contents.toUtf8());
        const ImproveApplication record = standing(*view);
        QVERIFY(record.created_file);
        await(view->undoNow(id, record.id));
        QCOMPARE(view->errorText(), QString());
        QVERIFY(!QFile::exists(project.filePath("CLAUDE.md")));
    }

    void aSuggestionWithoutTargetsCannotBePlanned() {
        QTemporaryDir project;
        ImproveViewModel view;
        view.setProjectRoot(project.path());
        view.preparePlan(ruleFor({}), std::nullopt);
        QCOMPARE(view.planErrors().at("made-here"),
                 QStringLiteral("This suggestion names no file to write."));
        QVERIFY(!view.pending().count("made-here"));
    }

    void aBlankProjectHasNowhereToWrite() {
        auto view = screen(QString());
        const QString id = onlyId(*view);
        view->togglePreview(id);
        QCOMPARE(view->planErrors().at(id),
                 QStringLiteral("No project is selected, so there is nowhere to write this."));
        QVERIFY(!view->pending().count(id));
        QCOMPARE(view->cards().first().toMap().value("preview").toMap().value("error").toString(),
                 QStringLiteral("No project is selected, so there is nowhere to write this."));
        // Hiding the preview forgets the error.
        view->togglePreview(id);
        QVERIFY(!view->planErrors().count(id));
    }

    void aSkillIsNeverWrittenOverAnExistingFile() {
        QTemporaryDir project;
        const QString path = QStringLiteral(".claude/skills/made-here/SKILL.md");
        const QByteArray mine = "my own skill\n";
        writeFile(project.filePath(path), mine);
        ImproveViewModel view;
        view.setProjectRoot(project.path());
        view.preparePlan(ruleFor({{"claude", path, "skill"}}, "skill"), std::nullopt);
        QVERIFY(view.planErrors().at("made-here").startsWith(path + QStringLiteral(" already exists.")));
        QVERIFY(!view.pending().count("made-here"));
        QCOMPARE(bytesOf(project.filePath(path)), mine);
    }

    // The relay is gone when the write is to be recorded: the file keeps the rule, the
    // screen says why, and the suggestion stays open and unapplied on the relay.
    void relayDownAfterTheWrite() {
        QTemporaryDir project;
        auto view = screen(project.path());
        const QString id = onlyId(*view);
        view->togglePreview(id);
        const QString contents = view->pending().at(id).plan.contents;
        m_relay.stop();
        await(view->applyNow(id));
        QVERIFY(m_relay.start());
        QVERIFY(!view->errorText().isEmpty());
        QCOMPARE(bytesOf(project.filePath("CLAUDE.md")), contents.toUtf8());
        QVERIFY(view->previewing().contains(id));
        QVERIFY(!view->busySuggestion());
        await(view->loadNow());
        QCOMPARE(view->suggestions()->suggestions.first().status, QStringLiteral("open"));
        QVERIFY(!view->suggestions()->suggestions.first().applied);
        // A new preview finds the block there already.
        view->togglePreview(id);
        view->togglePreview(id);
        QVERIFY(view->pending().at(id).plan.alreadyPresent);
    }

    // The undo acts on the project selected now: there the rule was never written.
    void undoInAnotherProjectFindsNoRule() {
        QTemporaryDir first;
        QTemporaryDir second;
        const QByteArray other = "# Other project\n\n## Rules\n- Keep lines short.\n";
        writeFile(second.filePath("CLAUDE.md"), other);
        auto view = screen(first.path());
        const QString id = onlyId(*view);
        view->togglePreview(id);
        await(view->applyNow(id));
        const ImproveApplication record = standing(*view);
        view->setProjectRoot(second.path());
        await(view->undoNow(id, record.id));
        QVERIFY2(view->errorText().startsWith(QStringLiteral("The rule is no longer in ")),
                 qPrintable(view->errorText()));
        QCOMPARE(bytesOf(second.filePath("CLAUDE.md")), other);
        QVERIFY(!view->busySuggestion());
        await(view->loadNow());
        // The relay was not told: the application stands.
        QVERIFY(view->suggestions()->suggestions.first().applied);
        view->setProjectRoot(first.path());
        await(view->undoNow(id, record.id));
        QCOMPARE(view->errorText(), QString());
    }

    void rewordingWithoutAModelSaysSoPlainly() {
        QTemporaryDir project;
        auto view = screen(project.path());
        const QString id = onlyId(*view);
        view->togglePreview(id);
        const PendingApply before = view->pending().at(id);
        await(view->rewordNow(id));
        QVERIFY2(
            view->errorText().startsWith(QStringLiteral("No model is available to reword this suggestion")),
            qPrintable(view->errorText()));
        QVERIFY(!view->draftingSuggestion());
        // The plan on show stays as it was.
        QCOMPARE(view->pending().at(id).plan, before.plan);
        QVERIFY(!view->pending().at(id).draft);
    }

    // Logs of both agents where only the instruction to Codex recurs (the Claude correction
    // is in one conversation): exactly one suggestion, for Codex's guide, written and undone.
    void bothAgentsLogsGiveOnlyTheRecurringInstruction() {
        QTemporaryDir project;
        copyLogs("claude", m_modelLogs.filePath("claude"), {logNames("claude").first()});
        copyLogs("codex", m_modelLogs.filePath("codex"), logNames("codex"));
        auto view = screen(project.path(), m_modelAuth.get());
        await(view->processNow());
        QCOMPARE(view->errorText(), QString());
        QCOMPARE(view->readState(), QStringLiteral("All 3 conversations read."));
        const QString id = onlyId(*view);
        QVERIFY(!id.isEmpty());
        const ImproveSuggestion suggestion = view->suggestions()->suggestions.first();
        QCOMPARE(suggestion.body, QStringLiteral("- Always run the tests before you commit."));
        QCOMPARE(suggestion.agents, QStringList{"codex"});
        QCOMPARE(suggestion.session_count, 2);
        QCOMPARE(suggestion.targets.first().path, QStringLiteral("AGENTS.md"));
        QSet<QString> sessions;
        for (const ImproveEvidence& evidence : suggestion.evidence) {
            QCOMPARE(evidence.agent, QStringLiteral("codex"));
            sessions.insert(evidence.session_id);
        }
        QCOMPARE(sessions.size(), 2);

        view->togglePreview(id);
        const QString contents = view->pending().at(id).plan.contents;
        QVERIFY(view->pending().at(id).plan.diff.contains(QStringLiteral("+++ b/AGENTS.md")));
        await(view->applyNow(id));
        QCOMPARE(view->errorText(), QString());
        QCOMPARE(bytesOf(project.filePath("AGENTS.md")), contents.toUtf8());
        await(view->undoNow(id, standing(*view).id));
        QCOMPARE(view->errorText(), QString());
        QVERIFY(!QFile::exists(project.filePath("AGENTS.md")));
    }

    // With a model behind the router a rewording is shown beside the new diff, which is what
    // apply would write; an "already there" plan becomes applicable again that way.
    void rewordingMakesAnAlreadyPresentRuleApplicable() {
        QTemporaryDir project;
        copyLogs("claude", m_modelLogs.filePath("claude"), {logNames("claude").last()});
        auto view = screen(project.path(), m_modelAuth.get());
        await(view->processNow());
        QCOMPARE(view->errorText(), QString());
        // Both agents' logs: the sed correction of two Claude conversations, and the tests
        // rule said to Codex twice and to Claude once, which names Codex's file first.
        QCOMPARE(view->suggestions()->suggestions.size(), 2);
        QString id;
        for (const ImproveSuggestion& suggestion : view->suggestions()->suggestions) {
            if (suggestion.body == kSedRule)
                id = suggestion.id;
            else {
                QCOMPARE(suggestion.agents, (QStringList{"codex", "claude"}));
                QCOMPARE(suggestion.session_count, 3);
                QCOMPARE(suggestion.targets.first().path, QStringLiteral("AGENTS.md"));
            }
        }
        QVERIFY(!id.isEmpty());
        writeFile(project.filePath("CLAUDE.md"), ("## Rules\n" + kSedRule + "\n").toUtf8());
        view->togglePreview(id);
        QVERIFY(view->pending().at(id).plan.alreadyPresent);
        QVERIFY(m_fake.script(
            QJsonArray{QJsonObject{{"text", "Never use sed; edit files with the edit tool."}}}));
        await(view->rewordNow(id));
        QCOMPARE(view->errorText(), QString());
        const PendingApply& pending = view->pending().at(id);
        QVERIFY(pending.draft);
        QVERIFY(!pending.plan.alreadyPresent);
        QVERIFY(
            pending.plan.diff.contains(QStringLiteral("+- Never use sed; edit files with the edit tool.")));
        const QVariantMap preview = cardOf(*view, id).value("preview").toMap();
        QVERIFY(preview.value("canApply").toBool());
        QCOMPARE(preview.value("rewordLabel").toString(), QStringLiteral("✎ REWORD AGAIN"));
        QCOMPARE(preview.value("draftHeading").toString(), QStringLiteral("REDRAFTED WORDING"));
        QCOMPARE(preview.value("draftLine").toString(),
                 pending.draft->title + QStringLiteral(" · ") + *pending.draft->model);
        QCOMPARE(preview.value("draftNote").toString(),
                 QStringLiteral("SHOWN, NOT WRITTEN — THE DIFF ABOVE IS WHAT APPLY WOULD USE"));
        const QString contents = pending.plan.contents;
        await(view->applyNow(id));
        QCOMPARE(view->errorText(), QString());
        QCOMPARE(bytesOf(project.filePath("CLAUDE.md")), contents.toUtf8());
        // Hiding and showing again forgets the draft: the relay's own wording is planned.
        view->togglePreview(id);
        QVERIFY(!view->pending().at(id).draft);
        QVERIFY(view->pending().at(id).plan.alreadyPresent);
    }

    void dismissSnoozeAndReopen() {
        QTemporaryDir project;
        auto view = screen(project.path());
        const QString id = onlyId(*view);
        await(view->snoozeNow(id));
        QCOMPARE(view->errorText(), QString());
        QVariantMap card = view->cards().first().toMap();
        QVERIFY(card.value("statusMark").toString().startsWith(QStringLiteral("SNOOZED UNTIL ")));
        QVERIFY(card.value("dimmed").toBool());
        QVERIFY(!card.value("isOpen").toBool());
        QCOMPARE(view->countsLine(), QStringLiteral("0 OPEN · 1 SNOOZED · 0 DISMISSED"));
        await(view->reopenNow(id));
        QVERIFY(view->cards().first().toMap().value("isOpen").toBool());

        await(view->dismissNow(id));
        // Dismissed suggestions are left out until asked for.
        QVERIFY(!view->hasSuggestions());
        QVERIFY(view->showsDismissedToggle());
        QCOMPARE(view->dismissedToggleLabel(), QStringLiteral("1 DISMISSED"));
        await(view->toggleDismissedNow());
        QVERIFY(view->showDismissed());
        QCOMPARE(view->dismissedToggleLabel(), QStringLiteral("HIDE DISMISSED"));
        card = view->cards().first().toMap();
        QCOMPARE(card.value("statusMark").toString(), QStringLiteral("DISMISSED"));
        QVERIFY(card.value("dimmed").toBool());
        await(view->reopenNow(id));
        QVERIFY(view->cards().first().toMap().value("isOpen").toBool());
        await(view->toggleDismissedNow());
        QVERIFY(!view->showsDismissedToggle());
    }

    // While a reading runs the button says so and cannot be pressed again; a status change
    // holds every card's buttons until it is done.
    void busyStates() {
        QTemporaryDir project;
        auto view = screen(project.path());
        view->process();
        QVERIFY(view->isProcessing());
        QCOMPARE(view->processLabel(), QStringLiteral("READING…"));
        QVERIFY(waitUntil([&] { return !view->isProcessing(); }));
        QCOMPARE(view->processLabel(), QStringLiteral("PROCESS NOW"));
        const QString id = onlyId(*view);
        view->snooze(id);
        QVERIFY(view->busy());
        QCOMPARE(view->busySuggestion(), std::optional<QString>(id));
        QVERIFY(waitUntil([&] { return !view->busy(); }));
        await(view->reopenNow(id));
        QVERIFY(view->cards().first().toMap().value("isOpen").toBool());
    }

    void longExcerptsAreClipped() {
        ImproveSuggestion suggestion = ruleFor({});
        suggestion.evidence.append(
            {"s", 1, "claude", {}, QString(1000, QLatin1Char('x')), "2026-03-09T14:05:33Z"});
        ImproveViewModel view;
        const QVariantMap evidence = view.card(suggestion).value("evidence").toList().first().toMap();
        QCOMPARE(evidence.value("excerpt").toString().size(), ImproveViewModel::kEvidenceClip);
        QVERIFY(evidence.value("excerpt").toString().endsWith(QStringLiteral("…")));
        QCOMPARE(evidence.value("date").toString(), QStringLiteral("03-09 14:05"));
    }

    void aFailedLoadKeepsTheList() {
        QTemporaryDir project;
        auto view = screen(project.path());
        QVERIFY(view->hasSuggestions());
        m_relay.stop();
        await(view->loadNow());
        QVERIFY(m_relay.start());
        QVERIFY(!view->errorText().isEmpty());
        QVERIFY(view->hasSuggestions());
        QVERIFY(!view->isLoading());
    }
};

QTEST_GUILESS_MAIN(ImproveViewModelTest)
#include "ImproveViewModelTest.moc"
