#pragma once

#include "QuillmereDesktop/common/WireCodec.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

// A provider sort as the relay stores it: a plain string, or an object whose "by" entry is
// the value (an object without it reads as "balanced").
struct PresetStoredSort {
    QString value;
    bool operator==(const PresetStoredSort&) const = default;
};

namespace wire {
template <> struct ValueCodec<PresetStoredSort> {
    static Decoded<PresetStoredSort> decode(const QJsonValue& json, const Options&) {
        if (json.isString())
            return PresetStoredSort{json.toString()};
        if (!json.isObject())
            return detail::mismatch("a string or an object");
        const QJsonValue by = json.toObject().value(QStringLiteral("by"));
        return PresetStoredSort{by.isString() ? by.toString() : QStringLiteral("balanced")};
    }
    static QJsonValue encode(const PresetStoredSort& value, const Options&) { return value.value; }
};
} // namespace wire

struct PresetStoredProvider {
    std::optional<PresetStoredSort> sort;
    static constexpr auto wireFields() {
        return std::tuple{wire::field("sort", &PresetStoredProvider::sort)};
    }
};

struct PresetPlugin {
    QString id;
    std::optional<bool> enabled;
    static constexpr auto wireFields() {
        return std::tuple{wire::field("id", &PresetPlugin::id),
                          wire::field("enabled", &PresetPlugin::enabled)};
    }
};

struct PresetResponseFormat {
    QString type;
    static constexpr auto wireFields() {
        return std::tuple{wire::field("type", &PresetResponseFormat::type)};
    }
};

struct PresetConfig {
    std::optional<QString> model;
    std::optional<QStringList> models;
    std::optional<PresetStoredProvider> provider;
    std::optional<QString> service_tier;
    std::optional<qint64> max_output_tokens;
    std::optional<double> temperature;
    std::optional<double> top_p;
    std::optional<QList<PresetPlugin>> plugins;
    std::optional<PresetResponseFormat> response_format;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("model", &PresetConfig::model),
                          wire::field("models", &PresetConfig::models),
                          wire::field("provider", &PresetConfig::provider),
                          wire::field("service_tier", &PresetConfig::service_tier),
                          wire::field("max_output_tokens", &PresetConfig::max_output_tokens),
                          wire::field("temperature", &PresetConfig::temperature),
                          wire::field("top_p", &PresetConfig::top_p),
                          wire::field("plugins", &PresetConfig::plugins),
                          wire::field("response_format", &PresetConfig::response_format)};
    }
};

struct PresetVersion {
    QString id;
    qint64 version = 0;
    QString system_prompt;
    PresetConfig config;
    QString created_at;
    QString updated_at;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("id", &PresetVersion::id),
                          wire::field("version", &PresetVersion::version),
                          wire::field("system_prompt", &PresetVersion::system_prompt),
                          wire::field("config", &PresetVersion::config),
                          wire::field("created_at", &PresetVersion::created_at),
                          wire::field("updated_at", &PresetVersion::updated_at)};
    }
};

// A reusable agent role on the relay, called as "@preset/<slug>": versions, one designated.
struct InferencePreset {
    QString id;
    QString name;
    QString slug;
    QString status;
    QString designated_version_id;
    QString created_at;
    QString updated_at;
    PresetVersion designated_version;
    QList<PresetVersion> versions;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("id", &InferencePreset::id),
                          wire::field("name", &InferencePreset::name),
                          wire::field("slug", &InferencePreset::slug),
                          wire::field("status", &InferencePreset::status),
                          wire::field("designated_version_id", &InferencePreset::designated_version_id),
                          wire::field("created_at", &InferencePreset::created_at),
                          wire::field("updated_at", &InferencePreset::updated_at),
                          wire::field("designated_version", &InferencePreset::designated_version),
                          wire::field("versions", &InferencePreset::versions)};
    }
};

struct PresetListEnvelope {
    QList<InferencePreset> data;
    static constexpr auto wireFields() { return std::tuple{wire::field("data", &PresetListEnvelope::data)}; }
};

struct PresetEnvelope {
    InferencePreset data;
    static constexpr auto wireFields() { return std::tuple{wire::field("data", &PresetEnvelope::data)}; }
};

struct PresetCaptureProvider {
    std::optional<QString> sort;
    static constexpr auto wireFields() {
        return std::tuple{wire::field("sort", &PresetCaptureProvider::sort)};
    }
};

struct PresetCaptureMessage {
    QString role;
    QString content;
    static constexpr auto wireFields() {
        return std::tuple{wire::field("role", &PresetCaptureMessage::role),
                          wire::field("content", &PresetCaptureMessage::content)};
    }
};

// The body that creates a preset or its next version, shaped like a chat completion request.
struct PresetCaptureInput {
    QString model;
    std::optional<QStringList> models;
    std::optional<QString> service_tier;
    std::optional<qint64> max_tokens;
    std::optional<double> temperature;
    std::optional<double> top_p;
    std::optional<PresetCaptureProvider> provider;
    std::optional<QList<PresetPlugin>> plugins;
    std::optional<PresetResponseFormat> response_format;
    QList<PresetCaptureMessage> messages;
    std::optional<qint64> quillmere_base_version;
    QStringList quillmere_clear_fields;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("model", &PresetCaptureInput::model),
                          wire::field("models", &PresetCaptureInput::models),
                          wire::field("service_tier", &PresetCaptureInput::service_tier),
                          wire::field("max_tokens", &PresetCaptureInput::max_tokens),
                          wire::field("temperature", &PresetCaptureInput::temperature),
                          wire::field("top_p", &PresetCaptureInput::top_p),
                          wire::field("provider", &PresetCaptureInput::provider),
                          wire::field("plugins", &PresetCaptureInput::plugins),
                          wire::field("response_format", &PresetCaptureInput::response_format),
                          wire::field("messages", &PresetCaptureInput::messages),
                          wire::field("quillmere_base_version", &PresetCaptureInput::quillmere_base_version),
                          wire::field("quillmere_clear_fields", &PresetCaptureInput::quillmere_clear_fields)};
    }
};
