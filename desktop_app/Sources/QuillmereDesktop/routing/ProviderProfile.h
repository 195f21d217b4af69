#pragma once

// One of the person's own API lanes as the provider inventory file keeps it, and the wire
// protocol its endpoint speaks. The file holds the name of the variable that carries the
// key, never the key.

#include "QuillmereDesktop/common/WireCodec.h"

#include <QString>
#include <QStringList>

#include <array>
#include <optional>
#include <utility>

enum class GatewayProtocol { openAIResponses, openAIChat, anthropicMessages };

constexpr auto wireCases(GatewayProtocol) {
    return std::array{std::pair{GatewayProtocol::openAIResponses, "openai_responses"},
                      std::pair{GatewayProtocol::openAIChat, "openai_chat"},
                      std::pair{GatewayProtocol::anthropicMessages, "anthropic_messages"}};
}

// The public endpoint of each protocol's best-known provider, so that a new lane starts
// from an address that works for the common case.
inline QString standardEndpoint(GatewayProtocol protocol) {
    switch (protocol) {
    case GatewayProtocol::openAIResponses:
        return QStringLiteral("https://api.openai.com/v1/responses");
    case GatewayProtocol::openAIChat:
        return QStringLiteral("https://api.openai.com/v1/chat/completions");
    case GatewayProtocol::anthropicMessages:
        return QStringLiteral("https://api.anthropic.com/v1/messages");
    }
    return {};
}

struct ProviderProfile {
    QString id;
    std::optional<QString> routing_model;
    std::optional<QString> service_tier;
    QString provider;
    QString display_name;
    QStringList capabilities;
    qint64 context_window = 0;
    qint64 latency_ms = 0;
    double input_cost_per_million = 0;
    double output_cost_per_million = 0;
    int quality = 0;
    GatewayProtocol protocol_name = GatewayProtocol::openAIResponses;
    QString endpoint;
    QString api_key_env;
    QString upstream_model;
    QString data_policy = QStringLiteral("standard");
    QStringList supported_parameters;
    bool available = true;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("id", &ProviderProfile::id),
                          wire::field("routing_model", &ProviderProfile::routing_model),
                          wire::field("service_tier", &ProviderProfile::service_tier),
                          wire::field("provider", &ProviderProfile::provider),
                          wire::field("display_name", &ProviderProfile::display_name),
                          wire::field("capabilities", &ProviderProfile::capabilities),
                          wire::field("context_window", &ProviderProfile::context_window),
                          wire::field("latency_ms", &ProviderProfile::latency_ms),
                          wire::field("input_cost_per_million", &ProviderProfile::input_cost_per_million),
                          wire::field("output_cost_per_million", &ProviderProfile::output_cost_per_million),
                          wire::field("quality", &ProviderProfile::quality),
                          wire::field("protocol_name", &ProviderProfile::protocol_name),
                          wire::field("endpoint", &ProviderProfile::endpoint),
                          wire::field("api_key_env", &ProviderProfile::api_key_env),
                          wire::field("upstream_model", &ProviderProfile::upstream_model),
                          wire::field("data_policy", &ProviderProfile::data_policy),
                          wire::field("supported_parameters", &ProviderProfile::supported_parameters),
                          wire::field("available", &ProviderProfile::available)};
    }
    friend bool operator==(const ProviderProfile&, const ProviderProfile&) = default;
};
