#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/agents/AgentOrchestratorViewModel.h"
#include "QuillmereDesktop/common/MemoryPreferencesStore.h"
#include "QuillmereDesktop/context/ProjectContextViewModel.h"
#include "QuillmereDesktop/context/ProjectPickerViewModel.h"
#include "QuillmereDesktop/context/ProjectStore.h"
#include "QuillmereDesktop/routing/PresetCalls.h"
#include "QuillmereDesktop/routing/PresetForm.h"
#include "fakes/FakeSecretStore.h"
#include "support/Await.h"
#include "support/FakeProviderProcess.h"
#include "support/RelayFixture.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

namespace {

// A stand-in for the agent CLIs: it prints the prompt it was given on standard input.
const char* const echoAgentScript = "#!/bin/sh\ncat\n";

bool writeFile(const QString& path, const QByteArray& bytes, QFile::Permissions permissions = {}) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(bytes) != bytes.size())
        return false;
    file.close();
    return permissions ? file.setPermissions(permissions) : true;
}

} // namespace

// The orchestrator end to end against the real relay: a folder with a guide saved as
// context, then runs in the lane "claude" (a stand-in CLI on PATH) and in the lane "api"
// with a preset (the fake provider behind the relay).
class AgentOrchestratorTest : public QObject {
    Q_OBJECT

    QTemporaryDir m_home;
    QByteArray m_savedHome, m_savedPath, m_savedShell;
    std::unique_ptr<FakeProviderProcess> m_fake;
    std::unique_ptr<RelayFixture> m_relay;
    MemoryPreferencesStore m_prefs;
    FakeSecretStore m_secrets;
    std::unique_ptr<AppState> m_app;
    std::unique_ptr<AuthStore> m_auth;
    std::unique_ptr<CLIStatusStore> m_cli;
    std::unique_ptr<AgentRunStore> m_runs;
    std::unique_ptr<ProjectStore> m_projects;
    QString m_project;

    std::unique_ptr<AgentOrchestratorViewModel> orchestrator() {
        auto view = std::make_unique<AgentOrchestratorViewModel>();
        view->setApp(m_app.get());
        view->setAuth(m_auth.get());
        view->setCli(m_cli.get());
        view->setStore(m_runs.get());
        return view;
    }

    AgentRun finished() {
        const auto done = [&] {
            return !m_runs->runs().isEmpty() && !isActive(m_runs->runs().first().status);
        };
        if (!waitUntil(done, 20000))
            return {};
        return m_runs->runs().first();
    }

private slots:
    void initTestCase() {
        const QString bin = m_home.filePath("bin");
        const auto executable = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner;
        QVERIFY(writeFile(bin + "/claude", echoAgentScript, executable));
        // The login shell rebuilds PATH from the profiles; the stand-in comes first.
        const QByteArray profile = "PATH=\"" + bin.toUtf8() + ":$PATH\"\nexport PATH\n";
        QVERIFY(writeFile(m_home.filePath(".profile"), profile));
        QVERIFY(writeFile(m_home.filePath(".zprofile"), profile));
        // What the relay reads as a signed-in Claude Code: an account marker, no credential.
        QVERIFY(writeFile(m_home.filePath(".claude.json"),
                          R"({"oauthAccount":{"emailAddress":"dev@example.com"}})"));
        m_savedHome = qgetenv("HOME");
        m_savedPath = qgetenv("PATH");
        m_savedShell = qgetenv("SHELL");
        qputenv("HOME", m_home.path().toUtf8());
        qputenv("PATH", bin.toUtf8() + ":" + m_savedPath);
        qputenv("SHELL", "/bin/sh");

        m_fake = std::make_unique<FakeProviderProcess>(QStringLiteral("Reviewed."));
        QVERIFY(!m_fake->url().isEmpty());
        m_relay = std::make_unique<RelayFixture>(RelayFixture::Options{true, m_fake->inventory(), {}});
        QVERIFY(m_relay->start());
        m_prefs.setString(AuthStore::relayURLKey, m_relay->url().toString());
        AppStateConfig appConfig;
        appConfig.homeDirectory = m_home.path();
        m_app = std::make_unique<AppState>(m_prefs, appConfig);
        AuthStoreConfig authConfig;
        authConfig.bootstrapOnStart = false;
        m_auth = std::make_unique<AuthStore>(m_prefs, m_secrets, nullptr, authConfig);
        await(m_auth->bootstrap());
        QCOMPARE(m_auth->state(), AuthStore::State::signedIn);
        m_cli = std::make_unique<CLIStatusStore>(CLIStatusStore::defaultPollInterval);
        await(m_cli->refresh(m_auth->client()));
        QVERIFY(m_cli->status() && m_cli->status()->claude.isConnected());
        m_runs = std::make_unique<AgentRunStore>(AgentRunStoreConfig{});
        m_projects = std::make_unique<ProjectStore>(nullptr);

        // A person chooses a folder with an AGENTS.md and saves it as context.
        m_project = m_home.filePath("work/billing");
        QVERIFY(writeFile(m_project + "/AGENTS.md", "Billing importer: parsers never call the network."));
        ProjectPickerViewModel picker;
        picker.setApp(m_app.get());
        picker.setAuth(m_auth.get());
        picker.setStore(m_projects.get());
        await(picker.chooseNow(m_project));
        QCOMPARE(m_app->terminalWorkingDirectory(), m_project);
        ProjectContextViewModel context;
        context.setApp(m_app.get());
        context.setAuth(m_auth.get());
        await(context.loadNow());
        await(context.syncGuidesNow());
        QCOMPARE(context.syncedCountLine(), QStringLiteral("1/1 SYNCED"));
    }

    void cleanupTestCase() {
        m_runs.reset();
        m_cli.reset();
        m_auth.reset();
        m_relay.reset();
        m_fake.reset();
        qputenv("HOME", m_savedHome);
        qputenv("PATH", m_savedPath);
        qputenv("SHELL", m_savedShell);
    }

    void theClaudeLaneGetsTheContextPreambleAndTheTask() {
        auto view = orchestrator();
        view->setSelectedLane("claude");
        view->setPrompt("  Make the billing parsers stricter.\n");
        QVERIFY(view->canLaunch());
        await(view->launchNow());
        QCOMPARE(view->errorText(), QString());
        QCOMPARE(view->prompt(), QString());
        const AgentRun run = finished();
        QCOMPARE(run.agent, LocalAgent::claude);
        QCOMPARE(run.status, AgentRunStatus::completed);
        QVERIFY2(
            run.output.startsWith("Shared Quillmere project context (explicitly saved by the user):\n\n"),
            qPrintable(run.output));
        QVERIFY(run.output.contains("parsers never call the network."));
        QVERIFY(run.output.contains("\n\nTask:\nMake the billing parsers stricter."));
        const QVariantMap card = view->runCards().first().toMap();
        QCOMPARE(card.value("status").toString(), QStringLiteral("completed"));
        QCOMPARE(card.value("outputHeading").toString(), QStringLiteral("OUTPUT · EXIT 0"));
        QVERIFY(card.value("filled").toBool());
    }

    void withoutContextTheTaskGoesAlone() {
        auto view = orchestrator();
        view->setSelectedLane("claude");
        view->setIncludeContext(false);
        view->setPrompt("Only the task.");
        await(view->launchNow());
        QCOMPARE(finished().output, QStringLiteral("Only the task."));
    }

    void theApiLaneWithAPresetSendsThePresetsInstructionsAndModel() {
        PresetForm form;
        form.slug = "billing-reviewer";
        form.model = "fake-lane";
        form.systemPrompt = "You review billing code for data loss.";
        QVERIFY(await(
            presetcalls::save(*m_auth->client(), form.slug, presetform::captureInput(form, std::nullopt))));
        auto view = orchestrator();
        await(view->loadNow());
        QCOMPARE(view->presetOptions().size(), 2);
        QCOMPARE(view->presetOptions()[1].toMap().value("label").toString(),
                 QStringLiteral("@PRESET/BILLING-REVIEWER · V1"));
        view->setSafetyText("WORKSPACE EDITS");
        view->setSelectedLane("api");
        QCOMPARE(view->safety(), AgentSafety::plan);
        view->setSelectedPreset("billing-reviewer");
        view->setPrompt("Review the importer.");
        await(view->launchNow());
        QCOMPARE(view->errorText(), QString());
        const AgentRun run = finished();
        QCOMPARE(run.agent, LocalAgent::api);
        QCOMPARE(run.preset, std::optional<QString>("billing-reviewer"));
        QCOMPARE(run.status, AgentRunStatus::completed);
        QCOMPARE(run.output, QStringLiteral("Reviewed."));
        const QJsonArray requests = m_fake->requests();
        QVERIFY(!requests.isEmpty());
        const QJsonObject body = requests.last().toObject().value("body").toObject();
        QCOMPARE(body.value("model").toString(), QStringLiteral("fake-model"));
        const QJsonArray messages = body.value("messages").toArray();
        QCOMPARE(messages.first().toObject().value("role").toString(), QStringLiteral("system"));
        QCOMPARE(messages.first().toObject().value("content").toString(),
                 QStringLiteral("You review billing code for data loss."));
        QVERIFY(messages.last().toObject().value("content").toString().contains(
            "parsers never call the network."));
        QVERIFY(
            view->runCards().first().toMap().value("title").toString().endsWith("@PRESET/BILLING-REVIEWER"));
    }

    void anUnconnectedLaneFailsWithItsLineAndKeepsThePrompt() {
        auto view = orchestrator();
        view->setSelectedLane("codex");
        view->setPrompt("Try codex.");
        await(view->launchNow());
        QCOMPARE(view->errorText(), QStringLiteral("Codex is not connected."));
        QCOMPARE(view->prompt(), QStringLiteral("Try codex."));
        QVERIFY(!view->isPreparing());
    }

    void aPromptOfWhiteSpaceOnlyCannotBeLaunched() {
        auto view = orchestrator();
        view->setSelectedLane("claude");
        view->setPrompt(" \n\t ");
        QVERIFY(!view->canLaunch());
        const qsizetype before = m_runs->runs().size();
        await(view->launchNow());
        QCOMPARE(m_runs->runs().size(), before);
    }

    void theAutoLaneAsksTheRouterAboutAQuarterTokenPerCharacter() {
        QCOMPARE(AgentOrchestratorViewModel::previewInputTokens(QStringLiteral("abc")), 1);
        QCOMPARE(AgentOrchestratorViewModel::previewInputTokens(QString(4000, QLatin1Char('x'))), 1000);
    }

    void leavingTheApiLaneKeepsPlanOnly() {
        auto view = orchestrator();
        view->setSafetyText("WORKSPACE EDITS");
        QCOMPARE(view->safety(), AgentSafety::workspace);
        view->setSelectedLane("api");
        QCOMPARE(view->safety(), AgentSafety::plan);
        view->setSelectedLane("claude");
        QCOMPARE(view->safety(), AgentSafety::plan);
    }

    void aPresetLeftBehindByALocalLaneIsNotSentAndStaysSelected() {
        auto view = orchestrator();
        await(view->loadNow());
        view->setSelectedLane("api");
        view->setSelectedPreset("billing-reviewer");
        view->setSelectedLane("claude");
        view->setIncludeContext(false);
        view->setPrompt("Local task.");
        const qsizetype requestsBefore = m_fake->requests().size();
        await(view->launchNow());
        const AgentRun run = finished();
        QCOMPARE(run.agent, LocalAgent::claude);
        QCOMPARE(run.preset, std::optional<QString>());
        QCOMPARE(run.output, QStringLiteral("Local task."));
        QCOMPARE(view->selectedPreset(), QStringLiteral("billing-reviewer"));
        QCOMPARE(m_fake->requests().size(), requestsBefore);
    }

    void withoutAnyCliStatusTheLocalLanesFailAtOnceAndAutoAsksTheRelay() {
        CLIStatusStore unknown(CLIStatusStore::defaultPollInterval);
        auto view = orchestrator();
        view->setCli(&unknown);
        QVERIFY(!unknown.status());
        const qsizetype before = m_runs->runs().size();
        const std::pair<const char*, const char*> local[] = {{"claude", "Claude is not connected."},
                                                             {"codex", "Codex is not connected."}};
        for (const auto& [lane, message] : local) {
            view->setSelectedLane(QString::fromUtf8(lane));
            view->setPrompt("Do it.");
            await(view->launchNow());
            QCOMPARE(view->errorText(), QString::fromUtf8(message));
        }
        QCOMPARE(m_runs->runs().size(), before);
        // "auto" does not need the CLIs' status: the relay's router picks the lane (the
        // signed-in Claude Code here), and the run starts.
        view->setSelectedLane("auto");
        view->setIncludeContext(false);
        view->setPrompt("Routed task.");
        await(view->launchNow());
        QCOMPARE(view->errorText(), QString());
        QCOMPARE(m_runs->runs().size(), before + 1);
        QCOMPARE(finished().output, QStringLiteral("Routed task."));
    }

    void texts() {
        auto view = orchestrator();
        QCOMPARE(view->activeLine(), QStringLiteral("0 ACTIVE · 4 MAX"));
        QCOMPARE(view->launchLabel(), QStringLiteral("LAUNCH AGENT"));
        QVERIFY(!view->canLaunch());
        QCOMPARE(AgentOrchestratorViewModel::explanation("codex"),
                 QStringLiteral("Explicit local CLI override; the routing decision is bypassed."));
        QCOMPARE(view->presetNote(), QStringLiteral("Uses request defaults and the account routing policy."));
        QCOMPARE(view->safetyNote(),
                 QStringLiteral("Read-only analysis. The agent cannot modify the workspace."));
        QCOMPARE(AgentOrchestratorViewModel::withContext("t", ""), QStringLiteral("t"));
    }
};

QTEST_GUILESS_MAIN(AgentOrchestratorTest)
#include "AgentOrchestratorTest.moc"
