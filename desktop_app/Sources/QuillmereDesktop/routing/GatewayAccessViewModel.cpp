#include "QuillmereDesktop/routing/GatewayAccessViewModel.h"

#include "QuillmereDesktop/routing/RoutingViewModel.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QJsonDocument>
#include <QLocale>
#include <QSet>

#include <algorithm>
#include <cmath>

namespace {

QString dollars(double value) {
    return QStringLiteral("$") + QString::number(value, 'f', 4);
}

QStringList sorted(QStringList list) {
    list.sort();
    return list;
}

bool containsAny(const QString& text, std::initializer_list<const char*> markers) {
    return std::any_of(markers.begin(), markers.end(),
                       [&](const char* marker) { return text.contains(QLatin1String(marker)); });
}

} // namespace

const QStringList& GatewayAccessViewModel::expiries() {
    static const QStringList list{"never", "30", "90", "365"};
    return list;
}

const QStringList& GatewayAccessViewModel::resetIntervals() {
    static const QStringList list{"daily", "weekly", "monthly", "lifetime"};
    return list;
}

const QStringList& GatewayAccessViewModel::zdrGroups() {
    static const QStringList list{"anthropic", "openai", "google", "xai", "other"};
    return list;
}

QVariantMap GatewayAccessViewModel::labels() {
    return {
        {"title", "api gateway access"},
        {"secretHeading", "copy this key now"},
        {"newKey", "NEW KEY"},
        {"copy", "COPY"},
        {"secretWarning", "THE FULL SECRET WILL NOT BE SHOWN AGAIN."},
        {"savedIt", "I HAVE SAVED IT"},
        {"createHeading", "create gateway key"},
        {"name", "NAME"},
        {"limit", "spend limit $ optional"},
        {"limitPlaceholder", "25.00"},
        {"resetInterval", "Budget resets"},
        {"requestsPerMinute", "requests / minute optional"},
        {"tokensPerMinute", "tokens / minute optional"},
        {"expiry", "Expires"},
        {"rateNote", "Limits use a rolling 60-second window. Leave either field blank for no limit in that "
                     "dimension."},
        {"modelAllowlist", "model allowlist · empty allows all"},
        {"providerAllowlist", "provider allowlist · empty allows all"},
        {"zdrHeading", "require zero data retention by model group"},
        {"filtersHeading", "local content filters · block or redact"},
        {"addFilter", "+ ADD FILTER"},
        {"filterName", "NAME"},
        {"filterNameHint", "PII"},
        {"filterPattern", "REGEX PATTERN"},
        {"filterPatternHint", "secret_[A-Za-z0-9]+"},
        {"filterAction", "Action"},
        {"removeFilter", "−"},
        {"noValues", "NO CONFIGURED VALUES"},
        {"filtersNote", "MATCHED TEXT NEVER ENTERS THE AUDIT LOG. UNSAFE REGEX FEATURES AND EMPTY-MATCH "
                        "PATTERNS ARE REJECTED."},
        {"allowlistNote", "ALLOWLISTS INTERSECT REQUEST CHOICES. ZDR IS ADDITIVE AND CANNOT BE DISABLED BY A "
                          "CLIENT REQUEST."},
        {"noKeys", "NO GATEWAY KEYS YET"},
        {"revoke", "REVOKE"},
        {"revokeTitle", "Revoke API key?"},
        {"revokeMessage", "Clients using this key will lose access immediately."},
        {"cancel", "Cancel"},
        {"confirmRevoke", "Revoke"},
        {"endpointSubtitle", "openai + anthropic compatible endpoint"},
        {"baseURL", "BASE URL"},
        {"endpointNote",
         "Use a Quillmere gateway key as an OpenAI bearer key or Anthropic API key. It can call /models, "
         "/responses, /chat/completions, /messages, and /complete only; it cannot access desktop "
         "administration or project data."},
        {"routerFeatures", "OPT-IN ROUTER FEATURES"},
        {"routerFeaturesNote",
         "X-OpenRouter-Cache: true replays identical requests locally at zero provider tokens/cost (default "
         "5 "
         "minutes; set X-OpenRouter-Cache-TTL from 1–86400). X-OpenRouter-Cache-Clear: true refreshes one "
         "entry. X-OpenRouter-Metadata: enabled adds the content-free route, attempts, candidates, and "
         "guardrail stages. Cache data is credential-scoped, stays on this Mac, expires automatically, and "
         "is "
         "unavailable for ZDR-enforced keys."},
        {"loading", "LOADING…"},
    };
}

GatewayAccessViewModel::GatewayAccessViewModel(QObject* parent) : QObject(parent) {}

void GatewayAccessViewModel::setAuth(AuthStore* auth) {
    if (m_auth == auth)
        return;
    m_auth = auth;
    emit authChanged();
}

// Rules.

GatewayAccessViewModel::Count GatewayAccessViewModel::positiveInteger(const QString& text, qint64 maximum) {
    const QString trimmed = text.trimmed();
    if (trimmed.isEmpty())
        return {true, std::nullopt};
    const std::optional<qint64> value = RoutingViewModel::wholeNumber(trimmed);
    if (!value || *value < 1 || *value > maximum)
        return {false, std::nullopt};
    return {true, value};
}

std::optional<QString> GatewayAccessViewModel::validate(const GatewayKeyForm& form) {
    const QString limit = form.limit.trimmed();
    if (!limit.isEmpty()) {
        const std::optional<double> value = RoutingViewModel::number(limit);
        if (!value || !std::isfinite(*value) || *value <= 0)
            return limitMessage;
    }
    if (!positiveInteger(form.requestsPerMinute, maximumRequestsPerMinute).valid)
        return requestsMessage;
    if (!positiveInteger(form.tokensPerMinute, maximumTokensPerMinute).valid)
        return tokensMessage;
    for (const ContentFilterDraft& filter : form.contentFilters)
        if (filter.name.trimmed().isEmpty() || filter.pattern.trimmed().isEmpty())
            return filterIncompleteMessage;
    // Compared trimmed: " PII" and "PII" are one name.
    QSet<QString> names;
    for (const ContentFilterDraft& filter : form.contentFilters)
        names.insert(filter.name.trimmed());
    if (names.size() < form.contentFilters.size())
        return filterNamesMessage;
    return std::nullopt;
}

GatewayAPIKeyInput GatewayAccessViewModel::inputOf(const GatewayKeyForm& form) {
    GatewayAPIKeyInput input;
    input.name = form.name;
    if (!form.limit.trimmed().isEmpty())
        input.limit_usd = RoutingViewModel::number(form.limit.trimmed());
    input.reset_interval = form.resetInterval;
    input.requests_per_minute = positiveInteger(form.requestsPerMinute, maximumRequestsPerMinute).value;
    input.tokens_per_minute = positiveInteger(form.tokensPerMinute, maximumTokensPerMinute).value;
    input.allowed_models = sorted(form.selectedModels);
    input.allowed_providers = sorted(form.selectedProviders);
    for (const ContentFilterDraft& draft : form.contentFilters)
        input.content_filters << GatewayContentFilter{draft.name.trimmed(), draft.pattern.trimmed(),
                                                      draft.action};
    const auto enforced = [&](const char* group) {
        return form.enforceZDRGroups.contains(QLatin1String(group));
    };
    input.enforce_zdr_anthropic = enforced("anthropic");
    input.enforce_zdr_openai = enforced("openai");
    input.enforce_zdr_google = enforced("google");
    input.enforce_zdr_xai = enforced("xai");
    input.enforce_zdr_other = enforced("other");
    if (form.expiry != QLatin1String("never"))
        input.expires_in_days = RoutingViewModel::wholeNumber(form.expiry);
    return input;
}

QString GatewayAccessViewModel::guardrailGroup(const RouterModel& model) {
    // Plain substring tests in this order, so "proto1" counts as openai: the relay groups
    // the same way, and the preview must agree with it.
    const QString text = (model.provider + QLatin1Char('/') + model.id).toLower();
    if (containsAny(text, {"anthropic", "claude"}))
        return QStringLiteral("anthropic");
    if (containsAny(text, {"openai", "gpt", "o1", "o3"}))
        return QStringLiteral("openai");
    if (containsAny(text, {"google", "gemini", "vertex"}))
        return QStringLiteral("google");
    if (containsAny(text, {"xai", "grok"}))
        return QStringLiteral("xai");
    return QStringLiteral("other");
}

QList<RouterModel> GatewayAccessViewModel::eligibleModels(const QList<RouterModel>& apiModels,
                                                          const std::map<QString, RouterAdapter>& adapters,
                                                          const GatewayKeyForm& form) {
    QList<RouterModel> eligible;
    for (const RouterModel& model : apiModels) {
        if (!form.selectedModels.isEmpty() && !form.selectedModels.contains(model.id) &&
            !form.selectedModels.contains(model.routing_model))
            continue;
        if (!form.selectedProviders.isEmpty() && !form.selectedProviders.contains(model.provider) &&
            !form.selectedProviders.contains(model.endpoint_slug))
            continue;
        if (form.enforceZDRGroups.contains(guardrailGroup(model))) {
            // Without an adapter nothing says the lane retains no data.
            const auto adapter = adapters.find(model.id);
            if (adapter == adapters.end() || adapter->second.data_policy != QLatin1String("zdr"))
                continue;
        }
        eligible << model;
    }
    return eligible;
}

QString GatewayAccessViewModel::usageText(const GatewayAPIKey& key) {
    if (key.limit_usd)
        return QStringLiteral("%1 %2 / %3 · %4 LIFETIME")
            .arg(key.reset_interval.toUpper(), dollars(key.spent_usd), dollars(*key.limit_usd),
                 dollars(key.lifetime_spent_usd));
    return QStringLiteral("%1 LIFETIME · NO KEY LIMIT").arg(dollars(key.lifetime_spent_usd));
}

QString GatewayAccessViewModel::rateLimitText(const GatewayAPIKey& key) {
    const QString requests = key.requests_per_minute ? QString::number(*key.requests_per_minute) + " RPM"
                                                     : QStringLiteral("NO RPM LIMIT");
    const QString tokens = key.tokens_per_minute ? QString::number(*key.tokens_per_minute) + " TPM"
                                                 : QStringLiteral("NO TPM LIMIT");
    return requests + QStringLiteral(" · ") + tokens;
}

QString GatewayAccessViewModel::guardrailText(const GatewayAPIKey& key) {
    QStringList parts;
    parts << (key.allowed_models.isEmpty() ? QStringLiteral("ALL MODELS")
                                           : QStringLiteral("%1 MODELS").arg(key.allowed_models.size()));
    parts << (key.allowed_providers.isEmpty()
                  ? QStringLiteral("ALL PROVIDERS")
                  : QStringLiteral("%1 PROVIDERS").arg(key.allowed_providers.size()));
    QStringList groups;
    const std::pair<bool, const char*> flags[] = {{key.enforce_zdr_anthropic, "ANTHROPIC"},
                                                  {key.enforce_zdr_openai, "OPENAI"},
                                                  {key.enforce_zdr_google, "GOOGLE"},
                                                  {key.enforce_zdr_xai, "XAI"},
                                                  {key.enforce_zdr_other, "OTHER"}};
    for (const auto& [enforced, name] : flags)
        if (enforced)
            groups << QString::fromLatin1(name);
    parts << (groups.isEmpty() ? QStringLiteral("STANDARD PRIVACY")
                               : QStringLiteral("ZDR ") + groups.join(", "));
    parts << (key.content_filters.isEmpty()
                  ? QStringLiteral("NO CONTENT FILTERS")
                  : QStringLiteral("%1 CONTENT FILTERS").arg(key.content_filters.size()));
    return parts.join(QStringLiteral(" · "));
}

QString GatewayAccessViewModel::auditText(const GatewayAPIKey& key) {
    return QStringLiteral("AUDIT · %1 BLOCK · %2 REDACT")
        .arg(key.guardrail_events.block)
        .arg(key.guardrail_events.redact);
}

QString GatewayAccessViewModel::lastUsedText(const GatewayAPIKey& key) {
    if (!key.last_used_at)
        return QStringLiteral("NEVER USED");
    const QDateTime when = QDateTime::fromSecsSinceEpoch(qint64(*key.last_used_at)).toLocalTime();
    const QLocale locale;
    // An abbreviated date ("Nov 24, 2026") and the locale's short time.
    return QStringLiteral("LAST USED %1, %2")
        .arg(locale.toString(when.date(), QStringLiteral("MMM d, yyyy")),
             locale.toString(when.time(), QLocale::ShortFormat));
}

QString GatewayAccessViewModel::gatewayBaseURL(const QUrl& relayBase) {
    QString text = relayBase.toString();
    if (!text.endsWith(QLatin1Char('/')))
        text += QLatin1Char('/');
    return text + QStringLiteral("v1");
}

QString GatewayAccessViewModel::openAISample(const QString& baseURL) {
    return QStringLiteral("from openai import OpenAI\n"
                          "import os\n"
                          "\n"
                          "client = OpenAI(\n"
                          "    base_url=\"%1\",\n"
                          "    api_key=os.environ[\"QUILLMERE_API_KEY\"],\n"
                          ")\n")
        .arg(baseURL);
}

QString GatewayAccessViewModel::anthropicSample(const QString& baseURL) {
    return QStringLiteral("from anthropic import Anthropic\n"
                          "import os\n"
                          "\n"
                          "client = Anthropic(\n"
                          "    base_url=\"%1\",\n"
                          "    api_key=os.environ[\"QUILLMERE_API_KEY\"],\n"
                          ")\n")
        .arg(baseURL);
}

// What the screen shows.

QList<RouterModel> GatewayAccessViewModel::apiModels() const {
    QList<RouterModel> models;
    for (const RouterModel& model : m_availableModels)
        if (model.channel == QLatin1String("api"))
            models << model;
    return models;
}

QVariantList GatewayAccessViewModel::contentFilterRows() const {
    QVariantList rows;
    for (const ContentFilterDraft& draft : m_form.contentFilters)
        rows << QVariantMap{{"identity", draft.identity},
                            {"name", draft.name},
                            {"pattern", draft.pattern},
                            {"action", draft.action}};
    return rows;
}

void GatewayAccessViewModel::setGuardrailsExpanded(bool value) {
    change(m_guardrailsExpanded, value);
}

QString GatewayAccessViewModel::guardrailsHeader() const {
    const qsizetype rules = m_form.selectedModels.size() + m_form.selectedProviders.size() +
                            m_form.enforceZDRGroups.size() + m_form.contentFilters.size();
    if (rules == 0)
        return QStringLiteral("key guardrails · unrestricted");
    return QStringLiteral("key guardrails · %1 rules · %2 lanes")
        .arg(rules)
        .arg(eligibleModels(apiModels(), m_adapters, m_form).size());
}

QString GatewayAccessViewModel::eligibilityText() const {
    const QList<RouterModel> all = apiModels();
    return QStringLiteral("ELIGIBILITY PREVIEW · %1 OF %2 API LANES")
        .arg(eligibleModels(all, m_adapters, m_form).size())
        .arg(all.size());
}

QStringList GatewayAccessViewModel::modelChoices() const {
    QStringList ids;
    for (const RouterModel& model : apiModels())
        ids << model.id;
    return ids;
}

QStringList GatewayAccessViewModel::providerChoices() const {
    QStringList providers;
    for (const RouterModel& model : apiModels())
        if (!providers.contains(model.provider))
            providers << model.provider;
    return providers;
}

QString GatewayAccessViewModel::createButtonLabel() const {
    return m_isCreating ? QStringLiteral("CREATING…") : QStringLiteral("CREATE GATEWAY KEY");
}

QString GatewayAccessViewModel::keysHeader() const {
    return QStringLiteral("keys %1").arg(m_keys.size());
}

QVariantList GatewayAccessViewModel::keyRows() const {
    QVariantList rows;
    for (const GatewayAPIKey& key : m_keys)
        rows << QVariantMap{{"id", key.id},
                            {"name", key.name},
                            {"prefixText", key.prefix + QStringLiteral("…")},
                            {"status", key.status.toUpper()},
                            {"usageText", usageText(key)},
                            {"rateLimitText", rateLimitText(key)},
                            {"guardrailText", guardrailText(key)},
                            {"auditText", auditText(key)},
                            {"lastUsedText", lastUsedText(key)},
                            {"canRevoke", key.status == QLatin1String("active")}};
    return rows;
}

QString GatewayAccessViewModel::gatewayBaseURLText() const {
    if (RelayClient* client = relayClient())
        return gatewayBaseURL(client->baseURL());
    return gatewayBaseURL(QUrl(AuthStore::defaultRelayURL));
}

// Form edits.

void GatewayAccessViewModel::toggle(QStringList& set, const QString& value) {
    if (!set.removeOne(value))
        set << value;
    emit formChanged();
}

void GatewayAccessViewModel::addFilter() {
    ContentFilterDraft draft;
    draft.identity = m_nextFilterIdentity++;
    m_form.contentFilters << draft;
    emit formChanged();
}

void GatewayAccessViewModel::removeFilter(int index) {
    if (index < 0 || index >= m_form.contentFilters.size())
        return;
    m_form.contentFilters.removeAt(index);
    emit formChanged();
}

void GatewayAccessViewModel::editFilter(int index, QString ContentFilterDraft::*member,
                                        const QString& value) {
    if (index < 0 || index >= m_form.contentFilters.size())
        return;
    change(m_form.contentFilters[index].*member, value);
}

void GatewayAccessViewModel::setFilterName(int index, const QString& value) {
    editFilter(index, &ContentFilterDraft::name, value);
}

void GatewayAccessViewModel::setFilterPattern(int index, const QString& value) {
    editFilter(index, &ContentFilterDraft::pattern, value);
}

void GatewayAccessViewModel::setFilterAction(int index, const QString& value) {
    editFilter(index, &ContentFilterDraft::action, value);
}

void GatewayAccessViewModel::setError(std::optional<QString> message) {
    if (m_errorMessage == message)
        return;
    m_errorMessage = std::move(message);
    emit errorChanged();
}

void GatewayAccessViewModel::setBusy(bool& flag, bool value) {
    if (flag == value)
        return;
    flag = value;
    emit busyChanged();
}

// Actions.

void GatewayAccessViewModel::load() {
    loadNow();
}
void GatewayAccessViewModel::create() {
    createNow();
}
void GatewayAccessViewModel::confirmRevoke() {
    confirmRevokeNow();
}

void GatewayAccessViewModel::dismissSecret() {
    if (!m_createdSecret)
        return;
    m_createdSecret.reset();
    emit secretChanged();
}

void GatewayAccessViewModel::copyToClipboard(const QString& text) const {
    if (QClipboard* clipboard = QGuiApplication::clipboard())
        clipboard->setText(text);
}

void GatewayAccessViewModel::requestRevoke(const QString& keyId) {
    for (const GatewayAPIKey& key : m_keys)
        if (key.id == keyId && key.status == QLatin1String("active")) {
            m_keyToRevoke = key;
            emit revokeChanged();
            return;
        }
}

void GatewayAccessViewModel::cancelRevoke() {
    if (!m_keyToRevoke)
        return;
    m_keyToRevoke.reset();
    emit revokeChanged();
}

QCoro::Task<> GatewayAccessViewModel::loadNow() {
    RelayClient* client = relayClient();
    if (!client)
        co_return;
    QPointer<GatewayAccessViewModel> self(this);
    setBusy(m_isLoading, true);
    // The two reads run at once; the first failure ends the load and keeps what was shown.
    auto keysRead = client->get<QList<GatewayAPIKey>>(QStringLiteral("v1/router/api-keys"));
    auto catalogRead = client->get<RouterCatalog>(QStringLiteral("v1/router/catalog"));
    const Result<QList<GatewayAPIKey>> keys = co_await std::move(keysRead);
    const Result<RouterCatalog> catalog = co_await std::move(catalogRead);
    if (!self)
        co_return;
    setBusy(m_isLoading, false);
    if (!keys || !catalog) {
        setError(!keys ? keys.error().message : catalog.error().message);
        co_return;
    }
    m_keys = keys.value();
    m_availableModels = catalog.value().models;
    m_adapters.clear();
    for (const RouterAdapter& adapter : catalog.value().adapters)
        m_adapters.insert_or_assign(adapter.model_id, adapter);
    emit dataChanged();
    // The preview and the summary depend on the lanes too.
    emit formChanged();
}

QCoro::Task<> GatewayAccessViewModel::createNow() {
    if (m_isCreating)
        co_return;
    if (const auto problem = validate(m_form)) {
        setError(*problem);
        co_return;
    }
    RelayClient* client = relayClient();
    if (!client) {
        setError(RelayClient::notSignedInMessage);
        co_return;
    }
    QPointer<GatewayAccessViewModel> self(this);
    setBusy(m_isCreating, true);
    setError(std::nullopt);
    const QJsonObject body = wire::encode(inputOf(m_form)).toObject();
    const Result<QByteArray> answer =
        co_await client->postRawData(QStringLiteral("v1/router/api-keys"), body);
    if (!self)
        co_return;
    // The answer is read twice: once as the key's record, once for the secret alone.
    const auto record = answer ? wire::decodeJson<GatewayAPIKey>(answer.value())
                               : wire::Decoded<GatewayAPIKey>(wire::DecodeError{});
    const auto secret = answer ? wire::decodeJson<GatewayAPIKeySecret>(answer.value())
                               : wire::Decoded<GatewayAPIKeySecret>(wire::DecodeError{});
    if (!answer || !record || !secret) {
        setBusy(m_isCreating, false);
        setError(!answer   ? answer.error().message
                 : !record ? RelayClient::decodingFailure(record.error()).message
                           : RelayClient::decodingFailure(secret.error()).message);
        co_return;
    }
    m_createdSecret = secret.value().key;
    emit secretChanged();
    m_form.limit.clear();
    m_form.selectedModels.clear();
    m_form.selectedProviders.clear();
    m_form.enforceZDRGroups.clear();
    m_form.contentFilters.clear();
    emit formChanged();
    setBusy(m_isCreating, false);
    co_await loadNow();
}

QCoro::Task<> GatewayAccessViewModel::confirmRevokeNow() {
    if (!m_keyToRevoke)
        co_return;
    const QString keyId = m_keyToRevoke->id;
    m_keyToRevoke.reset();
    emit revokeChanged();
    RelayClient* client = relayClient();
    if (!client)
        co_return;
    QPointer<GatewayAccessViewModel> self(this);
    Result<http::Request> request = client->request(QStringLiteral("v1/router/api-keys/") + keyId, "DELETE");
    if (!request) {
        setError(request.error().message);
        co_return;
    }
    const Result<QByteArray> answer = co_await RelayClient::send(std::move(request).value());
    if (!self)
        co_return;
    if (!answer) {
        setError(answer.error().message);
        co_return;
    }
    co_await loadNow();
}
