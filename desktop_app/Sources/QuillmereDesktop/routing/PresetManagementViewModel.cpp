#include "QuillmereDesktop/routing/PresetManagementViewModel.h"

#include "QuillmereDesktop/routing/PresetCalls.h"

PresetManagementViewModel::PresetManagementViewModel(QObject* parent) : QObject(parent) {}

QVariantMap PresetManagementViewModel::labels() {
    return {
        {"title", "agent presets"},
        {"subtitle", "VERSIONED ROUTING · SHARED AGENT ROLES"},
        {"intro",
         "Presets keep an agent's model, fallback chain, tier, provider strategy, instructions, and "
         "parameters behind one stable @preset/name reference. Updating a role creates a version; every "
         "agent sees the designated version without changing its command or SDK code."},
        {"empty", "NO PRESETS YET · CREATE A REUSABLE REVIEWER, PLANNER, CLASSIFIER, OR OTHER AGENT ROLE"},
        {"create", "CREATE AGENT PRESET"},
        {"edit", "EDIT / NEW VERSION"},
        {"delete", "DELETE"},
        {"history", "history"}};
}

QString PresetManagementViewModel::summary(const PresetVersion& version) {
    const PresetConfig& config = version.config;
    QStringList parts{config.model.value_or(QStringLiteral("AUTO")),
                      config.service_tier.value_or(QStringLiteral("default")).toUpper()};
    const qsizetype fallbacks = config.models ? std::max<qsizetype>(0, config.models->size() - 1) : 0;
    QString line = parts.join(QStringLiteral(" · "));
    if (fallbacks > 0)
        line += QStringLiteral(" · ") + QString::number(fallbacks) + QStringLiteral(" MODEL FALLBACKS");
    if (config.plugins &&
        std::any_of(config.plugins->begin(), config.plugins->end(),
                    [](const PresetPlugin& p) { return p.id == QStringLiteral("response-healing"); }))
        line += QStringLiteral(" · RESPONSE HEALING");
    return line;
}

QVariantMap PresetManagementViewModel::card(const InferencePreset& preset) {
    QVariantList history;
    for (const PresetVersion& version : preset.versions) {
        const bool active = version.id == preset.designated_version_id;
        const QString number = QString::number(version.version);
        history.append(QVariantMap{
            {"label", QStringLiteral("V") + number + (active ? QStringLiteral(" ACTIVE") : QString())},
            {"active", active},
            {"action", QStringLiteral("ROLL BACK V") + number},
            {"version", version.version}});
    }
    return {{"slug", preset.slug},
            {"reference", presetform::reference(preset.slug)},
            {"version", QStringLiteral("V") + QString::number(preset.designated_version.version)},
            {"summary", summary(preset.designated_version)},
            {"history", history}};
}

void PresetManagementViewModel::setAuth(AuthStore* auth) {
    if (m_auth == auth)
        return;
    m_auth = auth;
    emit authChanged();
}

QVariantList PresetManagementViewModel::cards() const {
    QVariantList result;
    for (const InferencePreset& preset : m_presets)
        result.append(card(preset));
    return result;
}

void PresetManagementViewModel::setWorking(bool working) {
    if (m_working == working)
        return;
    m_working = working;
    emit workingChanged();
}

void PresetManagementViewModel::setError(std::optional<QString> message) {
    if (m_errorMessage == message)
        return;
    m_errorMessage = std::move(message);
    emit errorChanged();
}

void PresetManagementViewModel::load() {
    loadNow();
}
void PresetManagementViewModel::designate(const QString& slug, qint64 version) {
    designateNow(slug, version);
}
void PresetManagementViewModel::remove(const QString& slug) {
    removeNow(slug);
}

void PresetManagementViewModel::openEditor(const QString& slug) {
    std::optional<InferencePreset> preset;
    for (const InferencePreset& candidate : m_presets)
        if (candidate.slug == slug)
            preset = candidate;
    closeEditor();
    m_editor = new PresetEditorViewModel(m_auth, preset, m_modelIDs, this);
    connect(m_editor, &PresetEditorViewModel::saved, this, [this] {
        closeEditor();
        load();
    });
    emit editorChanged();
}

void PresetManagementViewModel::closeEditor() {
    if (!m_editor)
        return;
    m_editor->deleteLater();
    m_editor = nullptr;
    emit editorChanged();
}

QCoro::Task<> PresetManagementViewModel::loadNow() {
    RelayClient* relay = client();
    if (!relay)
        co_return;
    QPointer<PresetManagementViewModel> self(this);
    setWorking(true);
    // Both reads run at once.
    auto presetsRead = presetcalls::list(*relay);
    auto catalogRead = relay->get<RouterCatalog>(QStringLiteral("v1/router/catalog"));
    const Result<QList<InferencePreset>> presets = co_await std::move(presetsRead);
    const Result<RouterCatalog> catalog = co_await std::move(catalogRead);
    if (!self)
        co_return;
    setWorking(false);
    if (!presets || !catalog) {
        setError(!presets ? presets.error().message : catalog.error().message);
        co_return;
    }
    setError(std::nullopt);
    m_presets = presets.value();
    m_modelIDs.clear();
    for (const RouterModel& model : catalog.value().models)
        if (model.channel == QStringLiteral("api"))
            m_modelIDs.append(model.id);
    emit dataChanged();
}

QCoro::Task<> PresetManagementViewModel::designateNow(QString slug, qint64 version) {
    RelayClient* relay = client();
    if (!relay || m_working)
        co_return;
    QPointer<PresetManagementViewModel> self(this);
    setWorking(true);
    const Result<InferencePreset> moved = co_await presetcalls::designate(*relay, slug, version);
    if (!self)
        co_return;
    setWorking(false);
    if (!moved) {
        setError(moved.error().message);
        co_return;
    }
    co_await loadNow();
}

QCoro::Task<> PresetManagementViewModel::removeNow(QString slug) {
    RelayClient* relay = client();
    if (!relay || m_working)
        co_return;
    QPointer<PresetManagementViewModel> self(this);
    setWorking(true);
    const Result<void> removed = co_await presetcalls::remove(*relay, slug);
    if (!self)
        co_return;
    setWorking(false);
    if (!removed) {
        setError(removed.error().message);
        co_return;
    }
    co_await loadNow();
}
