#include "QuillmereDesktop/agents/AgentOrchestratorViewModel.h"

#include "QuillmereDesktop/context/ProjectStore.h"
#include "QuillmereDesktop/routing/PresetCalls.h"

#include <QClipboard>
#include <QGuiApplication>

namespace {

const QString overrideText = QStringLiteral("Explicit local CLI override; the routing decision is bypassed.");
// A whole prompt's cost is estimated at four characters a token, as the router does.
constexpr qint64 charactersPerToken = 4;
constexpr qint64 estimatedOutputTokens = 4000;

Error failure(const char* message) {
    return Error{QString::fromUtf8(message)};
}

} // namespace

QVariantList AgentOrchestratorViewModel::lanes() {
    return {QVariantMap{{"value", "auto"}, {"label", "AUTO ROUTE"}},
            QVariantMap{{"value", "claude"}, {"label", "CLAUDE"}},
            QVariantMap{{"value", "codex"}, {"label", "CODEX"}},
            QVariantMap{{"value", "api"}, {"label", "API"}}};
}

QStringList AgentOrchestratorViewModel::safeties() {
    return {wire::rawValue(AgentSafety::plan).toUpper(), wire::rawValue(AgentSafety::workspace).toUpper()};
}

QVariantMap AgentOrchestratorViewModel::labels() {
    return {{"title", "agent orchestrator"},
            {"close", "✕"},
            {"lane", "Execution lane"},
            {"preset", "Agent preset"},
            {"safety", "Permission boundary"},
            {"includeContext", "INCLUDE SHARED PROJECT CONTEXT"},
            {"limit", "Four runs are already active. Finish or cancel one before launching another."},
            {"noRuns",
             "Launch Claude and Codex work here. Runs execute concurrently and their input/output is "
             "captured in the relay."},
            {"cancel", "CANCEL"},
            {"copy", "COPY OUTPUT"},
            {"working", "AGENT IS WORKING…"}};
}

QString AgentOrchestratorViewModel::explanation(const QString& lane) {
    if (lane == QStringLiteral("auto"))
        return QStringLiteral("Routes between healthy Claude/Codex subscription CLIs; no API spend.");
    if (lane == QStringLiteral("api"))
        return QStringLiteral(
            "Uses the API gateway, hard budgets, provider health, and fallbacks. Analysis-only; it "
            "does not edit files.");
    return overrideText;
}

QString AgentOrchestratorViewModel::presetLabel(const InferencePreset& preset) {
    return (QStringLiteral("@preset/") + preset.slug + QStringLiteral(" · v") +
            QString::number(preset.designated_version.version))
        .toUpper();
}

QString AgentOrchestratorViewModel::withContext(const QString& task, const QString& packContent) {
    if (packContent.isEmpty())
        return task;
    return contextPreamble + packContent + QStringLiteral("\n\nTask:\n") + task;
}

AgentOrchestratorViewModel::AgentOrchestratorViewModel(QObject* parent) : QObject(parent) {}

void AgentOrchestratorViewModel::setApp(AppState* app) {
    m_app = app;
    emit sourcesChanged();
}

void AgentOrchestratorViewModel::setAuth(AuthStore* auth) {
    m_auth = auth;
    emit sourcesChanged();
}

void AgentOrchestratorViewModel::setCli(CLIStatusStore* cli) {
    m_cli = cli;
    emit sourcesChanged();
}

void AgentOrchestratorViewModel::setStore(AgentRunStore* store) {
    if (m_store)
        disconnect(m_store, nullptr, this, nullptr);
    m_store = store;
    if (m_store)
        connect(m_store, &AgentRunStore::runsChanged, this, &AgentOrchestratorViewModel::runsChanged);
    emit sourcesChanged();
    emit runsChanged();
}

void AgentOrchestratorViewModel::setSelectedLane(const QString& lane) {
    if (m_selectedLane == lane)
        return;
    m_selectedLane = lane;
    // API workers never get workspace access.
    if (lane == QStringLiteral("api"))
        m_safety = AgentSafety::plan;
    emit formChanged();
}

QString AgentOrchestratorViewModel::safetyText() const {
    return wire::rawValue(m_safety).toUpper();
}

void AgentOrchestratorViewModel::setSafetyText(const QString& safety) {
    const auto chosen = wire::fromRawValue<AgentSafety>(safety.toLower());
    if (!chosen || *chosen == m_safety || m_selectedLane == QStringLiteral("api"))
        return;
    m_safety = *chosen;
    emit formChanged();
}

void AgentOrchestratorViewModel::setIncludeContext(bool include) {
    if (m_includeContext == include)
        return;
    m_includeContext = include;
    emit formChanged();
}

void AgentOrchestratorViewModel::setPrompt(const QString& prompt) {
    if (m_prompt == prompt)
        return;
    m_prompt = prompt;
    emit formChanged();
    emit runsChanged(); // the launch button's state follows the prompt
}

void AgentOrchestratorViewModel::setSelectedPreset(const QString& slug) {
    if (m_selectedPreset == slug)
        return;
    m_selectedPreset = slug;
    emit formChanged();
}

QVariantList AgentOrchestratorViewModel::presetOptions() const {
    QVariantList options{QVariantMap{{"value", ""}, {"label", "ROUTER DEFAULTS"}}};
    for (const InferencePreset& preset : m_presets)
        options.append(QVariantMap{{"value", preset.slug}, {"label", presetLabel(preset)}});
    return options;
}

QString AgentOrchestratorViewModel::presetNote() const {
    return m_selectedPreset.isEmpty()
               ? QStringLiteral("Uses request defaults and the account routing policy.")
               : QStringLiteral(
                     "Uses the designated role version; request context is still added for this project.");
}

QString AgentOrchestratorViewModel::safetyNote() const {
    if (m_selectedLane == QStringLiteral("api"))
        return QStringLiteral(
            "API workers return analysis text only and never receive workspace write access.");
    if (m_safety == AgentSafety::workspace)
        return QStringLiteral("Workspace-scoped edits. No sandbox or permission bypass flags.");
    return QStringLiteral("Read-only analysis. The agent cannot modify the workspace.");
}

QString AgentOrchestratorViewModel::launchLabel() const {
    return m_isPreparing ? QStringLiteral("PREPARING…") : QStringLiteral("LAUNCH AGENT");
}

bool AgentOrchestratorViewModel::canLaunch() const {
    return !m_prompt.trimmed().isEmpty() && !m_isPreparing && !atLimit();
}

QString AgentOrchestratorViewModel::activeLine() const {
    return QString::number(activeCount()) + QStringLiteral(" ACTIVE · ") +
           QString::number(AgentRunStore::maxConcurrentRuns) + QStringLiteral(" MAX");
}

QString AgentOrchestratorViewModel::runsHeading() const {
    return QStringLiteral("runs ") + QString::number(m_store ? m_store->runs().size() : 0);
}

QVariantList AgentOrchestratorViewModel::runCards() const {
    QVariantList cards;
    if (!m_store)
        return cards;
    for (const AgentRun& run : m_store->runs()) {
        QString title = wire::rawValue(run.agent) + QStringLiteral(" · ") + wire::rawValue(run.safety);
        if (run.preset)
            title += QStringLiteral(" · ") + (QStringLiteral("@preset/") + *run.preset).toUpper();
        QString heading = QStringLiteral("OUTPUT");
        if (run.exitCode)
            heading += QStringLiteral(" · EXIT ") + QString::number(*run.exitCode);
        const bool live = run.status == AgentRunStatus::starting || run.status == AgentRunStatus::running;
        cards.append(QVariantMap{
            {"id", run.id.toString(QUuid::WithoutBraces)},
            {"title", title},
            {"status", wire::rawValue(run.status)},
            {"filled", run.status == AgentRunStatus::running || run.status == AgentRunStatus::completed},
            {"canCancel", live},
            {"output", run.output},
            {"outputHeading", heading},
            {"working", run.output.isEmpty() && run.status == AgentRunStatus::running}});
    }
    return cards;
}

void AgentOrchestratorViewModel::setError(std::optional<QString> message) {
    if (m_errorMessage == message)
        return;
    m_errorMessage = std::move(message);
    emit errorChanged();
}

void AgentOrchestratorViewModel::load() {
    loadNow();
}

void AgentOrchestratorViewModel::launch() {
    launchNow();
}

void AgentOrchestratorViewModel::cancel(const QString& runId) {
    if (m_store)
        m_store->cancel(QUuid::fromString(runId));
}

void AgentOrchestratorViewModel::copyOutput(const QString& runId) const {
    if (!m_store)
        return;
    if (const auto run = m_store->run(QUuid::fromString(runId))) {
        QClipboard* clipboard = QGuiApplication::clipboard();
        clipboard->clear();
        clipboard->setText(run->output);
    }
}

QCoro::Task<> AgentOrchestratorViewModel::loadNow() {
    RelayClient* relay = client();
    if (!relay)
        co_return;
    QPointer<AgentOrchestratorViewModel> self(this);
    const Result<QList<InferencePreset>> presets = co_await presetcalls::list(*relay);
    if (!self || !presets)
        co_return;
    m_presets = presets.value();
    emit presetsChanged();
}

qint64 AgentOrchestratorViewModel::previewInputTokens(const QString& task) {
    return std::max<qint64>(1, task.size() / charactersPerToken);
}

QCoro::Task<Result<LocalAgent>> AgentOrchestratorViewModel::resolveAgent(QString task) {
    const QString lane = m_selectedLane;
    if (lane == QStringLiteral("claude") || lane == QStringLiteral("codex")) {
        const bool claude = lane == QStringLiteral("claude");
        const std::optional<CLIStatusResponse> status = m_cli ? m_cli->status() : std::nullopt;
        const bool connected =
            status && (claude ? status->claude.isConnected() : status->codex.isConnected());
        if (!connected)
            co_return failure(claude ? "Claude is not connected." : "Codex is not connected.");
        co_return claude ? LocalAgent::claude : LocalAgent::codex;
    }
    RelayClient* relay = client();
    if (!relay)
        co_return Error{RelayClient::notSignedInMessage};
    if (lane == QStringLiteral("api")) {
        const Result<RouterCatalog> catalog =
            co_await relay->get<RouterCatalog>(QStringLiteral("v1/router/catalog"));
        if (!catalog)
            co_return catalog.error();
        for (const RouterModel& model : catalog.value().models)
            if (model.channel == QStringLiteral("api") && model.available)
                co_return LocalAgent::api;
        co_return failure("No API model is execution-ready. Configure a provider adapter in the relay.");
    }
    RoutePreviewInput input;
    input.task = QStringLiteral("code");
    input.input_tokens = previewInputTokens(task);
    input.estimated_output_tokens = estimatedOutputTokens;
    input.channel = QStringLiteral("cli");
    const Result<RouteDecision> decision =
        co_await relay->post<RouteDecision>(QStringLiteral("v1/router/preview"), std::move(input));
    if (!decision)
        co_return decision.error();
    const QString chosen = decision.value().primary.model.id;
    if (chosen == QStringLiteral("claude-subscription"))
        co_return LocalAgent::claude;
    if (chosen == QStringLiteral("codex-subscription"))
        co_return LocalAgent::codex;
    co_return failure("The router selected an execution lane this desktop runner does not support.");
}

QCoro::Task<Result<QString>> AgentOrchestratorViewModel::promptWithContext(QString task) {
    if (!m_includeContext)
        co_return task;
    RelayClient* relay = client();
    if (!relay)
        co_return Error{RelayClient::notSignedInMessage};
    const QString root = m_app ? m_app->terminalWorkingDirectory() : QString();
    const Result<MereProject> project =
        co_await relay->upsertProject(ProjectStore::lastPathComponent(root), root);
    if (!project)
        co_return project.error();
    relay = client();
    if (!relay)
        co_return Error{RelayClient::notSignedInMessage};
    const Result<ContextPack> pack = co_await relay->contextPack(project.value().id, task, contextBudget);
    if (!pack)
        co_return pack.error();
    co_return withContext(task, pack.value().content);
}

QCoro::Task<> AgentOrchestratorViewModel::launchNow() {
    if (!canLaunch())
        co_return;
    QPointer<AgentOrchestratorViewModel> self(this);
    const QString task = m_prompt.trimmed();
    m_isPreparing = true;
    emit formChanged();
    emit runsChanged();
    setError(std::nullopt);
    const Result<LocalAgent> agent = co_await resolveAgent(task);
    if (!self)
        co_return;
    std::optional<QString> full;
    std::optional<QString> problem;
    // Plain statements around each wait: a wait inside a conditional expression is where
    // coroutine code generation has been known to go wrong.
    if (agent) {
        Result<QString> assembled = co_await promptWithContext(task);
        if (!self)
            co_return;
        if (assembled)
            full = assembled.value();
        else
            problem = assembled.error().message;
    } else {
        problem = agent.error().message;
    }
    m_isPreparing = false;
    if (problem) {
        setError(problem);
        emit formChanged();
        emit runsChanged();
        co_return;
    }
    const LocalAgent chosen = agent.value();
    const bool api = chosen == LocalAgent::api;
    // A preset belongs to the API lane only.
    const std::optional<QString> preset =
        api && !m_selectedPreset.isEmpty() ? std::optional<QString>(m_selectedPreset) : std::nullopt;
    if (m_store)
        m_store->launch(chosen, api ? AgentSafety::plan : m_safety, *full,
                        m_app ? m_app->terminalWorkingDirectory() : QString(), client(), preset);
    m_prompt.clear();
    emit formChanged();
    emit runsChanged();
}
