#include "QuillmereDesktop/routing/RoutingViewModel.h"

#include "QuillmereDesktop/shell/Formatting.h"

#include <QRegularExpression>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

// Health below this names a provider in the suggestions; budgets and tool validity
// are judged against the second threshold.
constexpr double healthThreshold = 0.75;
constexpr double budgetThreshold = 0.8;
constexpr double validityThreshold = 0.8;
constexpr double fallbackThreshold = 0.2;
constexpr qint64 fallbackMinimumRequests = 3;
constexpr qint64 cacheOptInMinimumRequests = 10;
constexpr qint64 throughputMinimumSamples = 3;
constexpr double throughputSpread = 1.5;
constexpr qint64 tailMinimumSamples = 5;
constexpr double tailSpread = 2.0;
constexpr qint64 toolMinimumSamples = 5;

QString plural(qint64 count) {
    return count == 1 ? QString() : QStringLiteral("s");
}

QString money(double value, int decimals) {
    return QStringLiteral("$") + QString::number(value, 'f', decimals);
}

} // namespace

const QStringList& RoutingViewModel::tasks() {
    static const QStringList list{"chat", "summarise", "classify", "extract",
                                  "code", "reason",    "vision",   "transcribe"};
    return list;
}

const QStringList& RoutingViewModel::channels() {
    static const QStringList list{"any", "api", "cli"};
    return list;
}

const QStringList& RoutingViewModel::providerSorts() {
    static const QStringList list{"router", "price", "latency", "throughput"};
    return list;
}

const QStringList& RoutingViewModel::partitions() {
    static const QStringList list{"model", "none"};
    return list;
}

const QStringList& RoutingViewModel::strategies() {
    static const QStringList list{"balanced", "quality", "cost", "latency"};
    return list;
}

const QStringList& RoutingViewModel::budgetPeriods() {
    static const QStringList list{"daily", "weekly", "monthly", "lifetime"};
    return list;
}

QVariantMap RoutingViewModel::labels() {
    return {
        {"title", "model router"},
        {"lanesNote",
         "CLI lanes use your Claude/Codex subscription in a real terminal. API lanes are separate and "
         "configured on the relay; credentials never reach this app."},
        {"previewHeading", "route preview"},
        {"task", "TASK"},
        {"channel", "CHANNEL"},
        {"inputTokens", "INPUT TOKENS"},
        {"outputTokens", "OUTPUT TOKENS"},
        {"latencyBudget", "LATENCY MS"},
        {"latencyBudgetHint", "optional"},
        {"providerSort", "PROVIDER SORT"},
        {"sortPartition", "MODEL PARTITION"},
        {"preferredLatency", "P50 MAX LATENCY SEC"},
        {"preferredThroughput", "P50 MIN TOKENS / SEC"},
        {"softHint", "soft preference"},
        {"toolToggle", "SIMULATE TOOL-CALL REQUEST"},
        {"toolNote",
         "TOOL REQUESTS USE LOCAL AUTO EXACTO: SCHEMA VALIDITY AND RECENT THROUGHPUT REORDER ENDPOINTS "
         "SERVING THE SAME MODEL. EXPLICIT PRICE SORTING OPTS OUT. HARD SAFETY FILTERS ALWAYS WIN."},
        {"decisionHeading", "decision"},
        {"policyHeading", "policy"},
        {"strategy", "Strategy"},
        {"fallbackToggle", "FALLBACK ENABLED"},
        {"fallbacks", "FALLBACKS"},
        {"maxCost", "per-request cap $ (optional)"},
        {"maxCostHint", "0.05"},
        {"suggestionsHeading", "smart suggestions"},
        {"noSuggestions", "NOTHING TO SUGGEST FROM THESE FIGURES"},
        {"budgetsHeading", "hard spend budgets"},
        {"budgetsNote",
         "Account and project limits are enforced before every provider attempt, including fallbacks."},
        {"period", "Period"},
        {"usd", "USD"},
        {"generationsHeading", "recent gateway runs"},
        {"generationsNote", "PROMPTS AND OUTPUTS ARE NEVER STORED IN THIS LEDGER."},
        {"noGenerations", "NO API GENERATIONS RECORDED"},
        {"usageHeading", "usage by lane"},
        {"loading", "LOADING…"},
    };
}

RoutingViewModel::RoutingViewModel(QObject* parent) : QObject(parent) {}

void RoutingViewModel::setAuth(AuthStore* auth) {
    if (m_auth == auth)
        return;
    m_auth = auth;
    emit authChanged();
}

// Rules.

std::optional<qint64> RoutingViewModel::wholeNumber(const QString& text) {
    static const QRegularExpression pattern(QStringLiteral("^[+-]?[0-9]+$"));
    if (!pattern.match(text).hasMatch())
        return std::nullopt;
    bool ok = false;
    const qint64 value = (text.startsWith(QLatin1Char('+')) ? text.mid(1) : text).toLongLong(&ok, 10);
    return ok ? std::optional<qint64>(value) : std::nullopt;
}

std::optional<double> RoutingViewModel::number(const QString& text) {
    const QString lowered = text.toLower();
    const QString unsignedText = lowered.startsWith(QLatin1Char('+')) || lowered.startsWith(QLatin1Char('-'))
                                     ? lowered.mid(1)
                                     : lowered;
    const double sign = lowered.startsWith(QLatin1Char('-')) ? -1.0 : 1.0;
    if (unsignedText == QLatin1String("inf") || unsignedText == QLatin1String("infinity"))
        return sign * std::numeric_limits<double>::infinity();
    if (unsignedText == QLatin1String("nan"))
        return std::numeric_limits<double>::quiet_NaN();
    bool ok = false;
    const double value = text.toDouble(&ok);
    return ok ? std::optional<double>(value) : std::nullopt;
}

std::optional<QString> RoutingViewModel::validate(const RoutePreviewForm& form) {
    const auto input = wholeNumber(form.inputTokens);
    const auto output = wholeNumber(form.outputTokens);
    if (!input || !output || *input < 0 || *output < 0)
        return tokensMessage;
    // Blank preferences are fine; given ones must parse first, and be in range after.
    double latency = 0;
    double throughput = 0;
    if (!form.preferredLatency.trimmed().isEmpty()) {
        const std::optional<double> parsed = number(form.preferredLatency);
        if (!parsed)
            return latencyNumberMessage;
        latency = *parsed;
    }
    if (!form.preferredThroughput.trimmed().isEmpty()) {
        const std::optional<double> parsed = number(form.preferredThroughput);
        if (!parsed)
            return throughputNumberMessage;
        throughput = *parsed;
    }
    if (!std::isfinite(latency) || latency < 0)
        return latencyRangeMessage;
    if (!std::isfinite(throughput) || throughput < 0)
        return throughputRangeMessage;
    return std::nullopt;
}

RouterPolicy RoutingViewModel::policyOf(const RoutePreviewForm& form) {
    RouterPolicy policy;
    policy.strategy = form.strategy;
    policy.fallback_enabled = form.fallbackEnabled;
    policy.max_fallbacks = form.maxFallbacks;
    policy.max_cost_per_request = number(form.maxCost);
    return policy;
}

RoutePreviewInput RoutingViewModel::previewInputOf(const RoutePreviewForm& form) {
    RoutePreviewInput input;
    input.task = form.task;
    input.channel = form.channel;
    input.input_tokens = wholeNumber(form.inputTokens).value_or(0);
    input.estimated_output_tokens = wholeNumber(form.outputTokens).value_or(0);
    input.latency_budget_ms = wholeNumber(form.latencyBudget);
    input.max_cost_usd = number(form.maxCost);
    const bool sorted = form.providerSort != QLatin1String("router");
    std::optional<double> latency;
    std::optional<double> throughput;
    if (!form.preferredLatency.trimmed().isEmpty())
        latency = number(form.preferredLatency);
    if (!form.preferredThroughput.trimmed().isEmpty())
        throughput = number(form.preferredThroughput);
    if (sorted || latency || throughput) {
        ProviderRoutingPreview provider;
        if (sorted)
            provider.sort = ProviderSortPreview{form.providerSort, form.sortPartition};
        provider.preferred_max_latency = latency;
        provider.preferred_min_throughput = throughput;
        input.provider = provider;
    }
    if (form.previewToolCall && form.channel != QLatin1String("cli"))
        input.tools = QList<RoutePreviewTool>{RoutePreviewTool::sample()};
    return input;
}

qint64 RoutingViewModel::percent(double fraction) {
    return static_cast<qint64>(std::trunc(fraction * 100.0));
}

QStringList RoutingViewModel::suggestionsFor(const RoutingFigures& figures) {
    QStringList lines;
    auto nameOf = [&](const QString& laneId) {
        for (const RouterModel& model : figures.models)
            if (model.id == laneId)
                return model.display_name;
        return laneId;
    };
    // 1. Lanes.
    const bool anyReady = std::any_of(figures.models.begin(), figures.models.end(), [](const RouterModel& m) {
        return m.channel == QLatin1String("api") && m.available;
    });
    if (!figures.models.isEmpty() && !anyReady)
        lines << QStringLiteral(
            "No API lane is execution-ready. Add an adapter endpoint and its named credential to "
            "the relay inventory.");
    // 2. Fallbacks.
    if (figures.usage && figures.usage->requests >= fallbackMinimumRequests &&
        figures.usage->fallback_rate >= fallbackThreshold)
        lines << QStringLiteral("Fallbacks are serving %1% of requests. Check the primary provider or move a "
                                "healthier lane earlier.")
                     .arg(percent(figures.usage->fallback_rate));
    // 3. Cache.
    if (figures.usage) {
        if (figures.usage->cache_hits >= 1)
            lines << QStringLiteral(
                         "The local response cache served %1 request%2 without provider tokens or cost.")
                         .arg(figures.usage->cache_hits)
                         .arg(plural(figures.usage->cache_hits));
        else if (figures.usage->requests >= cacheOptInMinimumRequests)
            lines << QStringLiteral(
                "No response-cache hits yet. Deterministic agent retries and test workflows can "
                "opt in with X-OpenRouter-Cache: true.");
    }
    // 4. Insurance.
    if (figures.usage && figures.usage->insured_requests >= 1)
        lines << QStringLiteral(
                     "Zero-completion insurance protected %1 empty or error-finished provider response%2 "
                     "from being recorded as spend.")
                     .arg(figures.usage->insured_requests)
                     .arg(plural(figures.usage->insured_requests));
    // 5. Health.
    QStringList unhealthy;
    for (const auto& [provider, health] : figures.providerHealth)
        if (health < healthThreshold)
            unhealthy << provider;
    if (!unhealthy.isEmpty()) {
        unhealthy.sort();
        lines << QStringLiteral(
                     "Recent failures lowered health for %1. Routing already deprioritizes these providers.")
                     .arg(unhealthy.join(QStringLiteral(", ")));
    }
    // 6. Budgets.
    const auto full = std::find_if(figures.budgets.begin(), figures.budgets.end(),
                                   [](const RouterBudget& b) { return b.utilization >= budgetThreshold; });
    if (full != figures.budgets.end())
        lines << QStringLiteral("The %1 budget is %2% used.")
                     .arg(full->project_id ? QStringLiteral("project") : QStringLiteral("account"))
                     .arg(percent(full->utilization));
    else if (figures.budgets.isEmpty())
        lines << QStringLiteral(
            "No hard spend budget is set. Add one below before enabling unattended API agents.");
    // 7. Throughput.
    std::optional<std::pair<QString, double>> fastest, slowest;
    for (const auto& [lane, performance] : figures.modelPerformance) {
        if (performance.sample_count < throughputMinimumSamples || !performance.throughput_tps.p50)
            continue;
        const double p50 = *performance.throughput_tps.p50;
        if (!fastest || p50 > fastest->second)
            fastest = std::pair{lane, p50};
        if (!slowest || p50 < slowest->second)
            slowest = std::pair{lane, p50};
    }
    if (fastest && slowest && slowest->second * throughputSpread <= fastest->second &&
        fastest->first != slowest->first)
        lines << QStringLiteral(
                     "%1 is delivering the highest observed throughput at %2 tokens/sec. Prefer throughput "
                     "sorting for batch work.")
                     .arg(nameOf(fastest->first), QString::number(fastest->second, 'f', 1));
    // 8. Tail latency.
    QStringList volatileLanes;
    for (const auto& [lane, performance] : figures.modelPerformance) {
        const auto& latency = performance.latency_ms;
        if (performance.sample_count >= tailMinimumSamples && latency.p50 && latency.p90 &&
            *latency.p50 * tailSpread <= *latency.p90)
            volatileLanes << nameOf(lane);
    }
    if (!volatileLanes.isEmpty()) {
        volatileLanes.sort();
        lines << QStringLiteral(
                     "Tail latency is volatile for %1. Add a p90 latency preference for interactive "
                     "requests.")
                     .arg(volatileLanes.join(QStringLiteral(", ")));
    }
    // 9. Tool quality: the worst lane only.
    std::optional<std::pair<QString, ToolCallQuality>> worst;
    for (const auto& [lane, quality] : figures.toolCallQuality) {
        if (quality.sample_count < toolMinimumSamples || !quality.valid_rate ||
            *quality.valid_rate >= validityThreshold)
            continue;
        if (!worst || *quality.valid_rate < *worst->second.valid_rate)
            worst = std::pair{lane, quality};
    }
    if (worst)
        lines << QStringLiteral(
                     "%1 emitted schema-valid calls on %2 of %3 observed tool requests. Local Auto Exacto "
                     "will deprioritize it for agent tools.")
                     .arg(nameOf(worst->first))
                     .arg(worst->second.valid_count)
                     .arg(worst->second.sample_count);
    return lines;
}

QString RoutingViewModel::performanceText(const ModelPerformance& performance) {
    QStringList parts{QStringLiteral("%1 SAMPLE%2 / 5M")
                          .arg(performance.sample_count)
                          .arg(performance.sample_count == 1 ? QString() : QStringLiteral("S"))};
    if (performance.latency_ms.p50)
        parts << QStringLiteral("P50 %1MS").arg(QString::number(*performance.latency_ms.p50, 'f', 0));
    if (performance.throughput_tps.p50)
        parts << QStringLiteral("P50 %1 TOK/S").arg(QString::number(*performance.throughput_tps.p50, 'f', 1));
    return parts.join(QStringLiteral(" · "));
}

QString RoutingViewModel::toolQualityText(const ToolCallQuality& quality) {
    QStringList parts{QStringLiteral("AUTO EXACTO")};
    if (quality.valid_rate)
        parts << QStringLiteral("%1% VALID").arg(std::lround(*quality.valid_rate * 100.0));
    parts << QStringLiteral("%1 TOOL REQUEST%2")
                 .arg(quality.sample_count)
                 .arg(quality.sample_count == 1 ? QString() : QStringLiteral("S"));
    parts << QStringLiteral("Q%1 / 32D").arg(QString::number(quality.routing_score, 'f', 0));
    return parts.join(QStringLiteral(" · "));
}

// What the screen shows.

QString RoutingViewModel::previewButtonLabel() const {
    return m_isPreviewing ? QStringLiteral("ROUTING…") : QStringLiteral("◎ PREVIEW & SAVE POLICY");
}

QString RoutingViewModel::budgetButtonLabel() const {
    return m_isSavingBudget ? QStringLiteral("SAVING…") : QStringLiteral("SET LIMIT");
}

QString RoutingViewModel::lanesHeader() const {
    return QStringLiteral("execution lanes %1").arg(m_figures.models.size());
}

QVariantList RoutingViewModel::lanes() const {
    QVariantList rows;
    for (const RouterModel& model : m_figures.models) {
        QStringList details;
        if (const auto health = m_figures.providerHealth.find(model.provider);
            health != m_figures.providerHealth.end())
            details << QStringLiteral("%1% HEALTH").arg(std::lround(health->second * 100.0));
        if (const auto adapter = m_adapters.find(model.id); adapter != m_adapters.end())
            details << adapter->second.protocol_name << adapter->second.data_policy
                    << QStringLiteral("%1 PARAMS").arg(adapter->second.supported_parameters.size());
        const auto performance = m_figures.modelPerformance.find(model.id);
        const auto quality = m_figures.toolCallQuality.find(model.id);
        rows << QVariantMap{
            {"name", model.display_name},
            {"summary", QStringLiteral("%1 · %2 · %3")
                            .arg(model.provider, model.channel.toUpper(),
                                 model.available ? QStringLiteral("READY") : QStringLiteral("NOT READY"))},
            {"available", model.available},
            {"details", details.join(QStringLiteral(" · "))},
            {"performance", performance != m_figures.modelPerformance.end()
                                ? performanceText(performance->second)
                                : QString()},
            {"toolQuality",
             quality != m_figures.toolCallQuality.end() ? toolQualityText(quality->second) : QString()},
        };
    }
    return rows;
}

QVariantList RoutingViewModel::metrics() const {
    const std::optional<RouterUsage>& usage = m_figures.usage;
    const QString none = QStringLiteral("—");
    const qint64 apiLanes =
        std::count_if(m_figures.models.begin(), m_figures.models.end(),
                      [](const RouterModel& m) { return m.channel == QLatin1String("api"); });
    const qint64 readyLanes =
        std::count_if(m_figures.models.begin(), m_figures.models.end(),
                      [](const RouterModel& m) { return m.channel == QLatin1String("api") && m.available; });
    return {
        QVariantMap{{"label", "REQUESTS"}, {"value", usage ? QString::number(usage->requests) : none}},
        QVariantMap{{"label", "SPEND"}, {"value", usage ? money(usage->spend_usd, 4) : none}},
        QVariantMap{{"label", "FALLBACKS"},
                    {"value", usage ? QString::number(percent(usage->fallback_rate)) + "%" : none}},
        QVariantMap{{"label", "CACHE HITS"},
                    {"value", usage ? QString::number(percent(usage->cache_hit_rate)) + "%" : none}},
        QVariantMap{{"label", "API LANES"},
                    {"value", usage ? QStringLiteral("%1/%2").arg(readyLanes).arg(apiLanes) : none}},
        QVariantMap{{"label", "PROTECTED"},
                    {"value", usage ? QString::number(usage->insured_requests) : none}},
    };
}

QVariantList RoutingViewModel::budgetRows() const {
    QVariantList rows;
    for (const RouterBudget& budget : m_figures.budgets)
        rows << QVariantMap{
            {"owner", (budget.project_id ? QStringLiteral("PROJECT") : QStringLiteral("ACCOUNT")) + " · " +
                          budget.period},
            {"amounts", money(budget.spent_usd, 4) + " / " + money(budget.limit_usd, 2)},
        };
    return rows;
}

QVariantList RoutingViewModel::generationRows() const {
    QVariantList rows;
    for (const RouterGeneration& generation : m_generations) {
        QString figures = QStringLiteral("%1MS · %2 TOKENS")
                              .arg(generation.latency_ms)
                              .arg(generation.input_tokens + generation.output_tokens);
        if (generation.zero_completion_insured)
            figures += QStringLiteral(" · ZERO-COMPLETION PROTECTED");
        rows << QVariantMap{
            {"model", generation.model_id.value_or(QStringLiteral("NO MODEL"))},
            {"status", generation.status},
            {"succeeded", generation.status == QLatin1String("succeeded")},
            {"cost", money(generation.cost_usd, 5)},
            {"figures", figures},
        };
    }
    return rows;
}

QVariantList RoutingViewModel::usageRows() const {
    QVariantList rows;
    if (!m_figures.usage)
        return rows;
    for (const RouterModelUsage& row : m_figures.usage->by_model)
        rows << QVariantMap{
            {"model", row.model_id},
            {"figures", QStringLiteral("%1 · %2 · %3MS AVG")
                            .arg(formatting::counted(row.requests, QStringLiteral("request")).toUpper(),
                                 money(row.spend, 4), QString::number(row.average_latency_ms, 'f', 0))},
        };
    return rows;
}

QVariantList RoutingViewModel::decisionCards() const {
    QVariantList cards;
    if (!m_decision)
        return cards;
    auto card = [](const QString& heading, const RouteCandidate& candidate) {
        return QVariantMap{
            {"heading", heading},
            {"name", candidate.model.display_name},
            {"provider", candidate.model.provider},
            {"cost", money(candidate.estimated_cost_usd, 4)},
            {"score", QString::number(candidate.score, 'f', 1)},
            {"reasons", candidate.reasons.join(QStringLiteral(" · "))},
        };
    };
    cards << card(QStringLiteral("PRIMARY"), m_decision->primary);
    for (qsizetype i = 0; i < m_decision->fallbacks.size(); ++i)
        cards << card(QStringLiteral("FALLBACK %1").arg(i + 1), m_decision->fallbacks[i]);
    return cards;
}

QString RoutingViewModel::routedBecause() const {
    return m_decision ? m_decision->routed_because : QString();
}

QString RoutingViewModel::rejectedHeader() const {
    return m_decision ? QStringLiteral("%1 REJECTED LANE(S)").arg(m_decision->rejected.size()) : QString();
}

QStringList RoutingViewModel::rejectedRows() const {
    QStringList rows;
    if (m_decision)
        for (const RouteRejection& rejection : m_decision->rejected)
            rows << rejection.model_id + QStringLiteral(" — ") + rejection.reason;
    return rows;
}

// Actions.

void RoutingViewModel::setError(std::optional<QString> message) {
    if (m_errorMessage == message)
        return;
    m_errorMessage = std::move(message);
    emit errorChanged();
}

void RoutingViewModel::setBusy(bool& flag, bool value) {
    if (flag == value)
        return;
    flag = value;
    emit busyChanged();
}

void RoutingViewModel::storeCatalog(const RouterCatalog& catalog) {
    m_figures.models = catalog.models;
    m_figures.providerHealth = catalog.provider_health;
    m_figures.modelPerformance = catalog.model_performance;
    m_figures.toolCallQuality = catalog.tool_call_quality;
    m_adapters.clear();
    for (const RouterAdapter& adapter : catalog.adapters)
        m_adapters[adapter.model_id] = adapter;
}

void RoutingViewModel::load() {
    loadNow();
}
void RoutingViewModel::preview() {
    previewNow();
}
void RoutingViewModel::saveBudget() {
    saveBudgetNow();
}

QCoro::Task<> RoutingViewModel::loadNow() {
    RelayClient* client = relayClient();
    if (!client)
        co_return;
    QPointer<RoutingViewModel> self(this);
    setBusy(m_isLoading, true);
    setError(std::nullopt);
    // The four reads run at once; each is awaited in turn, and the first failure ends the load.
    auto catalogRead = client->get<RouterCatalog>(QStringLiteral("v1/router/catalog"));
    auto usageRead = client->get<RouterUsage>(QStringLiteral("v1/router/usage"));
    auto budgetsRead = client->get<QList<RouterBudget>>(QStringLiteral("v1/router/budgets"));
    auto generationsRead = client->get<QList<RouterGeneration>>(QStringLiteral("v1/router/generations"));
    const Result<RouterCatalog> catalog = co_await std::move(catalogRead);
    const Result<RouterUsage> usage = co_await std::move(usageRead);
    const Result<QList<RouterBudget>> budgets = co_await std::move(budgetsRead);
    const Result<QList<RouterGeneration>> generations = co_await std::move(generationsRead);
    if (!self)
        co_return;
    setBusy(m_isLoading, false);
    const Error* failure = !catalog       ? &catalog.error()
                           : !usage       ? &usage.error()
                           : !budgets     ? &budgets.error()
                           : !generations ? &generations.error()
                                          : nullptr;
    if (failure) {
        setError(failure->message);
        co_return;
    }
    storeCatalog(catalog.value());
    m_figures.usage = usage.value();
    m_figures.budgets = budgets.value();
    m_generations = generations.value();
    const RouterPolicy& policy = catalog.value().policy;
    m_form.strategy = policy.strategy;
    m_form.maxCost = policy.max_cost_per_request ? QString::number(*policy.max_cost_per_request) : QString();
    m_form.fallbackEnabled = policy.fallback_enabled;
    m_form.maxFallbacks = policy.max_fallbacks;
    emit formChanged();
    emit dataChanged();
}

QCoro::Task<> RoutingViewModel::previewNow() {
    if (m_isPreviewing)
        co_return;
    if (const auto problem = validate(m_form)) {
        setError(*problem);
        co_return;
    }
    RelayClient* client = relayClient();
    if (!client)
        co_return;
    QPointer<RoutingViewModel> self(this);
    const RoutePreviewForm form = m_form;
    setBusy(m_isPreviewing, true);
    setError(std::nullopt);
    const Result<RouterPolicy> saved =
        co_await client->post<RouterPolicy>(QStringLiteral("v1/router/policy"), policyOf(form));
    if (!self)
        co_return;
    if (!saved) {
        setBusy(m_isPreviewing, false);
        setError(saved.error().message);
        co_return;
    }
    client = relayClient();
    if (!client) {
        setBusy(m_isPreviewing, false);
        co_return;
    }
    const Result<RouteDecision> decision =
        co_await client->post<RouteDecision>(QStringLiteral("v1/router/preview"), previewInputOf(form));
    if (!self)
        co_return;
    setBusy(m_isPreviewing, false);
    if (!decision) {
        setError(decision.error().message);
        co_return;
    }
    m_decision = decision.value();
    emit decisionChanged();
    client = relayClient();
    if (!client)
        co_return;
    const Result<RouterCatalog> catalog =
        co_await client->get<RouterCatalog>(QStringLiteral("v1/router/catalog"));
    if (!self)
        co_return;
    if (!catalog) {
        setError(catalog.error().message);
        co_return;
    }
    storeCatalog(catalog.value());
    emit dataChanged();
}

QCoro::Task<> RoutingViewModel::saveBudgetNow() {
    const auto limit = number(m_budgetLimit);
    if (!limit || !(*limit > 0)) {
        setError(budgetMessage);
        co_return;
    }
    RelayClient* client = relayClient();
    if (!client || m_isSavingBudget)
        co_return;
    QPointer<RoutingViewModel> self(this);
    setBusy(m_isSavingBudget, true);
    setError(std::nullopt);
    const QJsonObject body{{"period", m_budgetPeriod}, {"limit_usd", *limit}};
    const Result<RouterBudget> saved =
        co_await client->postRaw<RouterBudget>(QStringLiteral("v1/router/budgets"), body);
    if (!self)
        co_return;
    if (!saved) {
        setBusy(m_isSavingBudget, false);
        setError(saved.error().message);
        co_return;
    }
    client = relayClient();
    if (!client) {
        setBusy(m_isSavingBudget, false);
        co_return;
    }
    // (A co_await inside a conditional expression is miscompiled by some compilers.)
    const Result<QList<RouterBudget>> budgets =
        co_await client->get<QList<RouterBudget>>(QStringLiteral("v1/router/budgets"));
    if (!self)
        co_return;
    setBusy(m_isSavingBudget, false);
    if (!budgets) {
        setError(budgets.error().message);
        co_return;
    }
    m_figures.budgets = budgets.value();
    emit dataChanged();
}
