#include "QuillmereDesktop/routing/ProviderSetupViewModel.h"

#include <qcoro/qcorotimer.h>

QVariantMap ProviderSetupViewModel::labels() {
    return {
        {"title", "api providers"},
        {"subtitle", "KEYCHAIN SECRETS · RELAY-SIDE EXECUTION"},
        {"add", "ADD PROVIDER MODEL"},
        {"edit", "EDIT"},
        {"test", "TEST 1 TOKEN"},
        {"testing", "TESTING…"},
        {"delete", "DELETE"},
        {"zdr", "ZDR"},
        {"keyStored", "KEY STORED"},
        {"keyMissing", "NO KEY STORED"},
        {"empty", "NO API MODELS CONFIGURED. CLAUDE AND CODEX SUBSCRIPTION CLIS STILL WORK THROUGH THE "
                  "TERMINAL AND LOCAL ORCHESTRATOR."},
        {"applying", "APPLYING…"},
        {"securityNote",
         "API keys are stored in the system keyring and injected only into the managed loopback relay "
         "process. They are never written to providers.json, relay.env, route history, or app logs."},
        {"testingNote",
         "Testing performs a real one-token request and may incur a tiny provider charge. ZDR is a routing "
         "declaration—enable it only when your upstream agreement actually provides zero-data-retention "
         "handling."},
    };
}

QString ProviderSetupViewModel::probeText(const ProviderProbeResult& result) {
    return QStringLiteral("Connected · %1ms · $%2")
        .arg(result.latency_ms)
        .arg(QString::number(result.cost_usd, 'f', 6));
}

QString ProviderSetupViewModel::sizeText(const ProviderProfile& profile) {
    return QStringLiteral("%1 CONTEXT · $%2 / $%3 PER 1M")
        .arg(profile.context_window)
        .arg(QString::number(profile.input_cost_per_million, 'f', 3),
             QString::number(profile.output_cost_per_million, 'f', 3));
}

ProviderSetupViewModel::ProviderSetupViewModel(QObject* parent) : QObject(parent) {}

void ProviderSetupViewModel::setAuth(AuthStore* auth) {
    if (m_auth == auth)
        return;
    m_auth = auth;
    emit authChanged();
}

void ProviderSetupViewModel::setStore(ProviderConfigurationStore* store) {
    if (m_store == store)
        return;
    if (m_store)
        disconnect(m_store, nullptr, this, nullptr);
    m_store = store;
    if (m_store)
        connect(m_store, &ProviderConfigurationStore::profilesChanged, this, [this] {
            emit cardsChanged();
            refreshStoredKeys();
        });
    emit storeChanged();
    emit cardsChanged();
    refreshStoredKeys();
}

QCoro::Task<> ProviderSetupViewModel::refreshStoredKeys() {
    if (!m_store)
        co_return;
    QPointer<ProviderSetupViewModel> self(this);
    QPointer<ProviderConfigurationStore> store = m_store;
    // The ids are copied first: the lanes may change while the secret store answers.
    QStringList ids;
    for (const ProviderProfile& profile : m_store->profiles())
        ids << profile.id;
    std::map<QString, bool> stored;
    for (const QString& id : ids) {
        const bool has = co_await store->hasStoredKey(id);
        if (!self || !store)
            co_return;
        stored[id] = has;
    }
    m_keyStored = std::move(stored);
    emit cardsChanged();
}

QVariantList ProviderSetupViewModel::profileCards() const {
    QVariantList cards;
    if (!m_store)
        return cards;
    for (const ProviderProfile& profile : m_store->profiles()) {
        const auto probe = m_probeMessages.find(profile.id);
        const auto stored = m_keyStored.find(profile.id);
        cards << QVariantMap{
            {"id", profile.id},
            {"displayName", profile.display_name},
            {"provider", profile.provider},
            {"protocolName", wire::rawValue(profile.protocol_name)},
            {"sizeText", sizeText(profile)},
            {"isZDR", profile.data_policy == QLatin1String("zdr")},
            {"keyStored", stored != m_keyStored.end() && stored->second},
            {"isProbing", m_probingModel == profile.id},
            {"probeMessage", probe == m_probeMessages.end() ? QString() : probe->second},
        };
    }
    return cards;
}

std::optional<ProviderProfile> ProviderSetupViewModel::profile(const QString& laneId) const {
    if (!m_store)
        return std::nullopt;
    for (const ProviderProfile& profile : m_store->profiles())
        if (profile.id == laneId)
            return profile;
    return std::nullopt;
}

void ProviderSetupViewModel::setMessage(std::optional<QString> message) {
    if (m_message == message)
        return;
    m_message = std::move(message);
    emit messageChanged();
}

void ProviderSetupViewModel::openEditor(std::optional<ProviderProfile> original) {
    if (!m_store)
        return;
    if (m_editor)
        m_editor->deleteLater();
    m_editor = new ProviderEditorViewModel(m_store, std::move(original), this);
    connect(m_editor, &ProviderEditorViewModel::saved, this, [this] {
        closeEditor();
        emit editorSaved();
        applyConfiguration();
    });
    emit editorChanged();
}

void ProviderSetupViewModel::addProvider() {
    openEditor(std::nullopt);
}

void ProviderSetupViewModel::editProvider(const QString& laneId) {
    if (const auto found = profile(laneId))
        openEditor(found);
}

void ProviderSetupViewModel::closeEditor() {
    if (!m_editor)
        return;
    m_editor->deleteLater();
    m_editor = nullptr;
    emit editorChanged();
}

void ProviderSetupViewModel::deleteProvider(const QString& laneId) {
    deleteNow(laneId);
}
void ProviderSetupViewModel::testProvider(const QString& laneId) {
    testNow(laneId);
}
void ProviderSetupViewModel::applyConfiguration() {
    applyNow();
}

QCoro::Task<> ProviderSetupViewModel::deleteNow(QString laneId) {
    const std::optional<ProviderProfile> found = profile(laneId);
    if (!found || !m_store)
        co_return;
    QPointer<ProviderSetupViewModel> self(this);
    const Result<void> removed = co_await m_store->remove(*found);
    if (!self)
        co_return;
    if (!removed) {
        setMessage(removed.error().message);
        co_return;
    }
    m_probeMessages.erase(laneId);
    emit cardsChanged();
    co_await applyNow();
}

QCoro::Task<> ProviderSetupViewModel::testNow(QString laneId) {
    // One test at a time: the button of every lane waits for the one under way.
    if (m_probingModel)
        co_return;
    RelayClient* client = relayClient();
    if (!client)
        co_return;
    QPointer<ProviderSetupViewModel> self(this);
    m_probingModel = laneId;
    m_probeMessages.erase(laneId);
    emit busyChanged();
    emit cardsChanged();
    QJsonObject body;
    body.insert(QLatin1String("model_id"), laneId);
    const Result<ProviderProbeResult> result =
        co_await client->postRaw<ProviderProbeResult>(QStringLiteral("v1/router/probe"), body);
    if (!self)
        co_return;
    m_probeMessages[laneId] = result ? probeText(result.value()) : result.error().message;
    m_probingModel.reset();
    emit busyChanged();
    emit cardsChanged();
}

QCoro::Task<> ProviderSetupViewModel::applyNow() {
    if (m_isApplying)
        co_return;
    QPointer<ProviderSetupViewModel> self(this);
    m_isApplying = true;
    emit busyChanged();
    setMessage(std::nullopt);
    // Only a relay this application started is restarted; the manager refuses any other.
    RelayProcessManager* manager = m_auth ? m_auth->relayProcess() : nullptr;
    std::optional<QString> outcome;
    if (manager) {
        const Result<void> restarted = co_await manager->restart();
        if (!self)
            co_return;
        if (!restarted)
            outcome = restarted.error().message;
    } else {
        outcome = RelayProcessManager::notOwnedMessage;
    }
    for (int attempt = 0; !outcome && attempt < m_healthPolls; ++attempt) {
        RelayClient* client = relayClient();
        bool ready = false;
        if (client)
            ready = co_await client->isReachable();
        if (!self)
            co_return;
        if (ready) {
            outcome = appliedMessage;
            break;
        }
        co_await QCoro::sleepFor(m_healthPollInterval);
        if (!self)
            co_return;
    }
    setMessage(outcome.value_or(notReadyMessage));
    m_isApplying = false;
    emit busyChanged();
}
