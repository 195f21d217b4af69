#include "QuillmereDesktop/routing/ProviderEditorViewModel.h"

#include "QuillmereDesktop/routing/RoutingViewModel.h"

#include <QLocale>
#include <QUuid>

namespace {

QString numberText(double value) {
    return QLocale::c().toString(value, 'g', QLocale::FloatingPointShortest);
}

} // namespace

const QStringList& ProviderEditorViewModel::capabilityOptions() {
    static const QStringList list{"reasoning", "long_context", "structured_output",
                                  "tools",     "vision",       "audio"};
    return list;
}

const QStringList& ProviderEditorViewModel::protocols() {
    static const QStringList list = [] {
        QStringList raw;
        for (const auto& [protocol, name] : wireCases(GatewayProtocol{}))
            raw << QString::fromLatin1(name);
        return raw;
    }();
    return list;
}

const QStringList& ProviderEditorViewModel::serviceTiers() {
    static const QStringList list{"default", "flex", "priority"};
    return list;
}

QVariantMap ProviderEditorViewModel::labels() {
    return {
        {"title", "add provider model"},
        {"note", "Each lane is one executable endpoint. Reuse the client model across tier lanes; enter "
                 "tier-specific prices and latency below."},
        {"laneId", "LANE ID"},
        {"clientModel", "CLIENT MODEL"},
        {"clientModelHint", "provider/model"},
        {"serviceTier", "Service tier"},
        {"provider", "PROVIDER"},
        {"providerHint", "openai"},
        {"displayName", "DISPLAY NAME"},
        {"upstreamModel", "UPSTREAM MODEL"},
        {"protocol", "Protocol"},
        {"endpoint", "ENDPOINT"},
        {"endpointHint", "https://…"},
        {"apiKey", "API KEY"},
        {"keyNote", "Stored in the system keyring. Never written to provider inventory."},
        {"context", "CONTEXT"},
        {"latency", "LATENCY MS"},
        {"inputCost", "INPUT $ / 1M"},
        {"outputCost", "OUTPUT $ / 1M"},
        {"capabilities", "capabilities"},
        {"zdr", "UPSTREAM CONTRACT IS ZERO DATA RETENTION"},
        {"save", "SAVE"},
        {"cancel", "CANCEL"},
    };
}

QString ProviderEditorViewModel::newCredentialEnvironment() {
    QString uuid = QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
    uuid.replace(QLatin1Char('-'), QLatin1Char('_'));
    return QStringLiteral("QUILLMERE_PROVIDER_") + uuid + QStringLiteral("_KEY");
}

ProviderEditorViewModel::ProviderEditorViewModel(ProviderConfigurationStore* store,
                                                 std::optional<ProviderProfile> original, QObject* parent)
    : QObject(parent), m_store(store), m_original(std::move(original)) {
    if (!m_original) {
        m_credentialEnvironment = newCredentialEnvironment();
        m_endpoint = standardEndpoint(m_protocol);
        return;
    }
    // An edit keeps the variable name: the relay and any stored key already use it.
    const ProviderProfile& profile = *m_original;
    m_credentialEnvironment = profile.api_key_env;
    m_modelID = profile.id;
    m_routingModel = profile.routing_model.value_or(profile.id);
    m_serviceTier = profile.service_tier.value_or(QStringLiteral("default"));
    m_provider = profile.provider;
    m_displayName = profile.display_name;
    m_upstreamModel = profile.upstream_model;
    m_protocol = profile.protocol_name;
    m_endpoint = profile.endpoint;
    m_contextWindow = QString::number(profile.context_window);
    m_latency = QString::number(profile.latency_ms);
    m_inputCost = numberText(profile.input_cost_per_million);
    m_outputCost = numberText(profile.output_cost_per_million);
    m_quality = profile.quality;
    m_capabilities = profile.capabilities;
    m_isZDR = profile.data_policy == QLatin1String("zdr");
}

QString ProviderEditorViewModel::keyHint() const {
    return isNew() ? QStringLiteral("required") : QStringLiteral("leave blank to keep existing");
}

QString ProviderEditorViewModel::qualityText() const {
    return QStringLiteral("quality score %1").arg(m_quality);
}

void ProviderEditorViewModel::setProtocolName(const QString& raw) {
    const std::optional<GatewayProtocol> protocol = wire::fromRawValue<GatewayProtocol>(raw);
    if (!protocol || *protocol == m_protocol)
        return;
    m_protocol = *protocol;
    // Whatever was typed gives way: an endpoint of one protocol never serves another.
    m_endpoint = standardEndpoint(m_protocol);
    emit formChanged();
}

void ProviderEditorViewModel::toggleCapability(const QString& capability) {
    if (!m_capabilities.removeOne(capability))
        m_capabilities << capability;
    emit formChanged();
}

void ProviderEditorViewModel::setError(std::optional<QString> message) {
    if (m_errorMessage == message)
        return;
    m_errorMessage = std::move(message);
    emit errorChanged();
}

void ProviderEditorViewModel::save() {
    saveNow();
}

QCoro::Task<> ProviderEditorViewModel::saveNow() {
    if (m_isSaving || !m_store)
        co_return;
    const std::optional<qint64> context = RoutingViewModel::wholeNumber(m_contextWindow.trimmed());
    const std::optional<qint64> latency = RoutingViewModel::wholeNumber(m_latency.trimmed());
    const std::optional<double> input = RoutingViewModel::number(m_inputCost.trimmed());
    const std::optional<double> output = RoutingViewModel::number(m_outputCost.trimmed());
    // Checked before the inventory's own rules: a blank price is a typing problem.
    if (!context || !latency || !input || !output) {
        setError(numericMessage);
        co_return;
    }
    ProviderProfile profile;
    profile.id = m_modelID.trimmed();
    profile.routing_model = m_routingModel;
    profile.service_tier = m_serviceTier;
    profile.provider = m_provider.trimmed();
    profile.display_name = m_displayName.trimmed();
    profile.upstream_model = m_upstreamModel.trimmed();
    profile.endpoint = m_endpoint.trimmed();
    profile.capabilities = m_capabilities;
    profile.capabilities.sort();
    profile.context_window = *context;
    profile.latency_ms = *latency;
    profile.input_cost_per_million = *input;
    profile.output_cost_per_million = *output;
    profile.quality = m_quality;
    profile.protocol_name = m_protocol;
    profile.api_key_env = m_credentialEnvironment;
    profile.data_policy = m_isZDR ? QStringLiteral("zdr") : QStringLiteral("standard");
    profile.supported_parameters = m_original ? m_original->supported_parameters : QStringList();
    profile.available = true;

    QPointer<ProviderEditorViewModel> self(this);
    m_isSaving = true;
    const Result<void> stored = co_await m_store->save(profile, m_apiKey);
    if (!self)
        co_return;
    m_isSaving = false;
    if (!stored) {
        setError(stored.error().message);
        co_return;
    }
    setError(std::nullopt);
    emit saved();
}
