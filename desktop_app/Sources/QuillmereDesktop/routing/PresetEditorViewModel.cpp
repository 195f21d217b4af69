#include "QuillmereDesktop/routing/PresetEditorViewModel.h"

#include "QuillmereDesktop/routing/PresetCalls.h"

PresetEditorViewModel::PresetEditorViewModel(AuthStore* auth, std::optional<InferencePreset> preset,
                                             QStringList modelIDs, QObject* parent)
    : QObject(parent), m_auth(auth), m_preset(std::move(preset)), m_modelIDs(std::move(modelIDs)),
      m_form(presetform::start(m_preset, m_modelIDs)) {}

QVariantMap PresetEditorViewModel::labels() {
    return {{"slug", "SLUG"},
            {"slugHint", "code-reviewer"},
            {"model", "Primary model"},
            {"modelHint", "provider/model"},
            {"fallbacks", "ORDERED FALLBACKS (COMMA-SEPARATED)"},
            {"fallbacksHint", "provider/model-b, provider/model-c"},
            {"serviceTier", "SERVICE TIER"},
            {"providerSort", "PROVIDER SORT"},
            {"instructions", "system instructions"},
            {"maxTokens", "MAX OUTPUT TOKENS"},
            {"maxTokensHint", "4096"},
            {"temperature", "TEMPERATURE"},
            {"topP", "TOP P"},
            {"optional", "optional"},
            {"responseFormat", "RESPONSE FORMAT"},
            {"compression", "MIDDLE-OUT OVERSIZED CONTEXT"},
            {"healing", "REPAIR MALFORMED JSON"},
            {"compressionNote",
             "Context compression preserves the beginning and latest end of oversized prompts or "
             "conversations, then sizes the transform independently for the selected endpoint."},
            {"healingNote",
             "Response healing runs only for non-streaming requests that also set response_format to "
             "json_schema or json_object. It repairs JSON syntax, not schema meaning."},
            {"overrideNote",
             "Request fields override these defaults. Function tools and advanced provider "
             "configuration can also be captured through any /v1/presets/{slug}/… API endpoint."}};
}

QString PresetEditorViewModel::title() const {
    return m_preset ? QStringLiteral("create preset version") : QStringLiteral("create agent preset");
}

QString PresetEditorViewModel::saveLabel() const {
    return m_preset ? QStringLiteral("SAVE AS DESIGNATED VERSION") : QStringLiteral("CREATE AGENT PRESET");
}

template <class T> void PresetEditorViewModel::setField(T PresetForm::*field, const T& value) {
    if (m_form.*field == value)
        return;
    m_form.*field = value;
    emit formChanged();
}

void PresetEditorViewModel::setSlug(const QString& value) {
    if (!slugLocked())
        setField(&PresetForm::slug, value);
}
void PresetEditorViewModel::setModel(const QString& value) {
    setField(&PresetForm::model, value);
}
void PresetEditorViewModel::setFallbacks(const QString& value) {
    setField(&PresetForm::fallbacks, value);
}
void PresetEditorViewModel::setServiceTier(const QString& value) {
    setField(&PresetForm::serviceTier, value);
}
void PresetEditorViewModel::setProviderSort(const QString& value) {
    setField(&PresetForm::providerSort, value);
}
void PresetEditorViewModel::setSystemPrompt(const QString& value) {
    setField(&PresetForm::systemPrompt, value);
}
void PresetEditorViewModel::setMaxTokens(const QString& value) {
    setField(&PresetForm::maxTokens, value);
}
void PresetEditorViewModel::setTemperature(const QString& value) {
    setField(&PresetForm::temperature, value);
}
void PresetEditorViewModel::setTopP(const QString& value) {
    setField(&PresetForm::topP, value);
}
void PresetEditorViewModel::setContextCompression(bool value) {
    setField(&PresetForm::contextCompression, value);
}
void PresetEditorViewModel::setResponseHealing(bool value) {
    setField(&PresetForm::responseHealing, value);
}
void PresetEditorViewModel::setResponseFormat(const QString& value) {
    setField(&PresetForm::responseFormat, value);
}

void PresetEditorViewModel::setError(std::optional<QString> message) {
    if (m_errorMessage == message)
        return;
    m_errorMessage = std::move(message);
    emit errorChanged();
}

void PresetEditorViewModel::save() {
    saveNow();
}

QCoro::Task<> PresetEditorViewModel::saveNow() {
    if (m_saving)
        co_return;
    if (const auto problem = presetform::validate(m_form)) {
        setError(*problem);
        co_return;
    }
    RelayClient* client = m_auth ? m_auth->client() : nullptr;
    if (!client)
        co_return;
    QPointer<PresetEditorViewModel> self(this);
    const std::optional<qint64> base =
        m_preset ? std::optional<qint64>(m_preset->designated_version.version) : std::nullopt;
    m_saving = true;
    emit savingChanged();
    setError(std::nullopt);
    const Result<InferencePreset> saved = co_await presetcalls::save(
        *client, presetform::normalisedSlug(m_form.slug), presetform::captureInput(m_form, base));
    if (!self)
        co_return;
    m_saving = false;
    emit savingChanged();
    if (!saved) {
        setError(saved.error().message);
        co_return;
    }
    emit this->saved();
}
