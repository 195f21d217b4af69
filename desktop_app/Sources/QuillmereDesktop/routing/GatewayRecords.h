#pragma once

// The gateway's records as the relay sends and takes them: keys with their limits and
// guardrails, the request that creates one, and the answer to a one-token lane test.
// Field names keep their wire spelling.

#include "QuillmereDesktop/common/WireCodec.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

// A pattern the relay blocks or redacts in requests before any provider sees them.
struct GatewayContentFilter {
    QString name;
    QString pattern;
    QString action;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("name", &GatewayContentFilter::name),
                          wire::field("pattern", &GatewayContentFilter::pattern),
                          wire::field("action", &GatewayContentFilter::action)};
    }
    friend bool operator==(const GatewayContentFilter&, const GatewayContentFilter&) = default;
};

// How often the key's filters acted; the matched text itself is never kept.
struct GatewayGuardrailEventCounts {
    qint64 block = 0;
    qint64 redact = 0;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("block", &GatewayGuardrailEventCounts::block),
                          wire::field("redact", &GatewayGuardrailEventCounts::redact)};
    }
};

struct GatewayAPIKey {
    QString id;
    QString name;
    QString prefix;
    std::optional<double> limit_usd;
    QString reset_interval;
    std::optional<qint64> requests_per_minute;
    std::optional<qint64> tokens_per_minute;
    double spent_usd = 0;
    double lifetime_spent_usd = 0;
    std::optional<double> remaining_usd;
    QStringList allowed_models;
    QStringList allowed_providers;
    QList<GatewayContentFilter> content_filters;
    GatewayGuardrailEventCounts guardrail_events;
    bool enforce_zdr_anthropic = false;
    bool enforce_zdr_openai = false;
    bool enforce_zdr_google = false;
    bool enforce_zdr_xai = false;
    bool enforce_zdr_other = false;
    QString created_at;
    std::optional<double> expires_at;
    std::optional<double> last_used_at;
    QString status;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("id", &GatewayAPIKey::id),
                          wire::field("name", &GatewayAPIKey::name),
                          wire::field("prefix", &GatewayAPIKey::prefix),
                          wire::field("limit_usd", &GatewayAPIKey::limit_usd),
                          wire::field("reset_interval", &GatewayAPIKey::reset_interval),
                          wire::field("requests_per_minute", &GatewayAPIKey::requests_per_minute),
                          wire::field("tokens_per_minute", &GatewayAPIKey::tokens_per_minute),
                          wire::field("spent_usd", &GatewayAPIKey::spent_usd),
                          wire::field("lifetime_spent_usd", &GatewayAPIKey::lifetime_spent_usd),
                          wire::field("remaining_usd", &GatewayAPIKey::remaining_usd),
                          wire::field("allowed_models", &GatewayAPIKey::allowed_models),
                          wire::field("allowed_providers", &GatewayAPIKey::allowed_providers),
                          wire::field("content_filters", &GatewayAPIKey::content_filters),
                          wire::field("guardrail_events", &GatewayAPIKey::guardrail_events),
                          wire::field("enforce_zdr_anthropic", &GatewayAPIKey::enforce_zdr_anthropic),
                          wire::field("enforce_zdr_openai", &GatewayAPIKey::enforce_zdr_openai),
                          wire::field("enforce_zdr_google", &GatewayAPIKey::enforce_zdr_google),
                          wire::field("enforce_zdr_xai", &GatewayAPIKey::enforce_zdr_xai),
                          wire::field("enforce_zdr_other", &GatewayAPIKey::enforce_zdr_other),
                          wire::field("created_at", &GatewayAPIKey::created_at),
                          wire::field("expires_at", &GatewayAPIKey::expires_at),
                          wire::field("last_used_at", &GatewayAPIKey::last_used_at),
                          wire::field("status", &GatewayAPIKey::status)};
    }
};

// The answer to a create: the key's record, and the whole secret, which appears nowhere
// else, ever. Decoded from the one answer in two passes, so the key's fields are declared once.
struct GatewayAPIKeySecret {
    QString key;

    static constexpr auto wireFields() { return std::tuple{wire::field("key", &GatewayAPIKeySecret::key)}; }
};

struct GatewayAPIKeyCreated {
    GatewayAPIKey record;
    QString key;
};

// The body of a create; absent optionals are left out.
struct GatewayAPIKeyInput {
    QString name;
    std::optional<double> limit_usd;
    QString reset_interval;
    std::optional<qint64> requests_per_minute;
    std::optional<qint64> tokens_per_minute;
    QStringList allowed_models;
    QStringList allowed_providers;
    QList<GatewayContentFilter> content_filters;
    bool enforce_zdr_anthropic = false;
    bool enforce_zdr_openai = false;
    bool enforce_zdr_google = false;
    bool enforce_zdr_xai = false;
    bool enforce_zdr_other = false;
    std::optional<qint64> expires_in_days;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("name", &GatewayAPIKeyInput::name),
                          wire::field("limit_usd", &GatewayAPIKeyInput::limit_usd),
                          wire::field("reset_interval", &GatewayAPIKeyInput::reset_interval),
                          wire::field("requests_per_minute", &GatewayAPIKeyInput::requests_per_minute),
                          wire::field("tokens_per_minute", &GatewayAPIKeyInput::tokens_per_minute),
                          wire::field("allowed_models", &GatewayAPIKeyInput::allowed_models),
                          wire::field("allowed_providers", &GatewayAPIKeyInput::allowed_providers),
                          wire::field("content_filters", &GatewayAPIKeyInput::content_filters),
                          wire::field("enforce_zdr_anthropic", &GatewayAPIKeyInput::enforce_zdr_anthropic),
                          wire::field("enforce_zdr_openai", &GatewayAPIKeyInput::enforce_zdr_openai),
                          wire::field("enforce_zdr_google", &GatewayAPIKeyInput::enforce_zdr_google),
                          wire::field("enforce_zdr_xai", &GatewayAPIKeyInput::enforce_zdr_xai),
                          wire::field("enforce_zdr_other", &GatewayAPIKeyInput::enforce_zdr_other),
                          wire::field("expires_in_days", &GatewayAPIKeyInput::expires_in_days)};
    }
};

// The answer to a one-token test of a lane.
struct ProviderProbeResult {
    bool ok = false;
    QString generation_id;
    QString model;
    QString provider;
    qint64 latency_ms = 0;
    double cost_usd = 0;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("ok", &ProviderProbeResult::ok),
                          wire::field("generation_id", &ProviderProbeResult::generation_id),
                          wire::field("model", &ProviderProbeResult::model),
                          wire::field("provider", &ProviderProbeResult::provider),
                          wire::field("latency_ms", &ProviderProbeResult::latency_ms),
                          wire::field("cost_usd", &ProviderProbeResult::cost_usd)};
    }
};
