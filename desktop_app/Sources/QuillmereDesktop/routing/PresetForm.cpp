#include "QuillmereDesktop/routing/PresetForm.h"

#include <QRegularExpression>

namespace presetform {

namespace {

const QString compressionPlugin = QStringLiteral("context-compression");
const QString healingPlugin = QStringLiteral("response-healing");

bool holdsPlugin(const PresetConfig& config, const QString& id) {
    if (!config.plugins)
        return false;
    return std::any_of(config.plugins->begin(), config.plugins->end(),
                       [&](const PresetPlugin& plugin) { return plugin.id == id; });
}

QString numberText(const std::optional<double>& value) {
    return value ? QString::number(*value) : QString();
}

std::optional<qint64> wholeNumber(const QString& text) {
    bool ok = false;
    const qint64 value = text.trimmed().toLongLong(&ok);
    return ok ? std::optional<qint64>(value) : std::nullopt;
}

std::optional<double> number(const QString& text) {
    bool ok = false;
    const double value = text.trimmed().toDouble(&ok);
    return ok ? std::optional<double>(value) : std::nullopt;
}

bool blank(const QString& text) {
    return text.trimmed().isEmpty();
}

} // namespace

const QStringList& serviceTiers() {
    static const QStringList list{"default", "flex", "priority"};
    return list;
}

const QStringList& providerSorts() {
    static const QStringList list{"balanced", "price", "latency", "throughput"};
    return list;
}

const QStringList& responseFormats() {
    static const QStringList list{"text", "json_object"};
    return list;
}

PresetForm start(const std::optional<InferencePreset>& preset, const QStringList& modelIDs) {
    PresetForm form;
    if (!preset) {
        form.model = modelIDs.value(0);
        return form;
    }
    const PresetVersion& version = preset->designated_version;
    const PresetConfig& config = version.config;
    form.slug = preset->slug;
    form.model = config.model.value_or(QString());
    QStringList fallbacks = config.models.value_or(QStringList());
    fallbacks.removeAll(form.model);
    form.fallbacks = fallbacks.join(QStringLiteral(", "));
    form.serviceTier = config.service_tier.value_or(QStringLiteral("default"));
    form.providerSort =
        config.provider && config.provider->sort ? config.provider->sort->value : QStringLiteral("balanced");
    form.systemPrompt = version.system_prompt;
    form.maxTokens = config.max_output_tokens ? QString::number(*config.max_output_tokens) : QString();
    form.temperature = numberText(config.temperature);
    form.topP = numberText(config.top_p);
    form.contextCompression = holdsPlugin(config, compressionPlugin);
    form.responseHealing = holdsPlugin(config, healingPlugin);
    form.responseFormat = config.response_format ? config.response_format->type : QStringLiteral("text");
    return form;
}

QString normalisedSlug(const QString& slug) {
    return slug.trimmed().toLower();
}

std::optional<QString> validate(const PresetForm& form) {
    static const QRegularExpression slugPattern(QStringLiteral("^[a-z0-9][a-z0-9_-]{0,63}$"));
    if (!slugPattern.match(normalisedSlug(form.slug)).hasMatch())
        return slugMessage;
    if (blank(form.model))
        return modelMessage;
    if ((!blank(form.maxTokens) && !wholeNumber(form.maxTokens)) ||
        (!blank(form.temperature) && !number(form.temperature)) || (!blank(form.topP) && !number(form.topP)))
        return numbersMessage;
    return std::nullopt;
}

PresetCaptureInput captureInput(const PresetForm& form, std::optional<qint64> baseVersion) {
    PresetCaptureInput input;
    input.model = form.model.trimmed();
    QStringList chain{input.model};
    for (const QString& part : form.fallbacks.split(QLatin1Char(',')))
        if (!part.trimmed().isEmpty())
            chain.append(part.trimmed());
    if (chain.size() > 1)
        input.models = chain;
    if (!blank(form.maxTokens))
        input.max_tokens = wholeNumber(form.maxTokens);
    if (!blank(form.temperature))
        input.temperature = number(form.temperature);
    if (!blank(form.topP))
        input.top_p = number(form.topP);
    QList<PresetPlugin> plugins;
    if (form.contextCompression)
        plugins.append(PresetPlugin{compressionPlugin, std::nullopt});
    // Healing repairs JSON: with plain text there is nothing for it to do.
    if (form.responseHealing && form.responseFormat != QStringLiteral("text"))
        plugins.append(PresetPlugin{healingPlugin, std::nullopt});
    if (!plugins.isEmpty())
        input.plugins = plugins;
    if (!blank(form.systemPrompt))
        input.messages.append(PresetCaptureMessage{QStringLiteral("system"), form.systemPrompt.trimmed()});
    if (form.serviceTier != QStringLiteral("default"))
        input.service_tier = form.serviceTier;
    if (form.providerSort != QStringLiteral("balanced"))
        input.provider = PresetCaptureProvider{form.providerSort};
    if (form.responseFormat != QStringLiteral("text"))
        input.response_format = PresetResponseFormat{form.responseFormat};
    input.quillmere_base_version = baseVersion;
    // What the person removed, so the new version does not inherit it from its base.
    if (!input.max_tokens)
        input.quillmere_clear_fields.append(QStringLiteral("max_output_tokens"));
    if (!input.temperature)
        input.quillmere_clear_fields.append(QStringLiteral("temperature"));
    if (!input.top_p)
        input.quillmere_clear_fields.append(QStringLiteral("top_p"));
    if (!input.provider)
        input.quillmere_clear_fields.append(QStringLiteral("provider.sort"));
    if (!input.response_format)
        input.quillmere_clear_fields.append(QStringLiteral("response_format"));
    if (!input.plugins)
        input.quillmere_clear_fields.append(QStringLiteral("plugins"));
    return input;
}

QString reference(const QString& slug) {
    return (QStringLiteral("@preset/") + slug).toUpper();
}

} // namespace presetform
