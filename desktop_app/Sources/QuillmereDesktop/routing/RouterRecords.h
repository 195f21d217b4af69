#pragma once

// The router's records as the relay sends and takes them: the catalog of lanes, a route
// decision and the request for one, the policy, budgets, usage and the ledger of
// generations. Field names keep their wire spelling.

#include "QuillmereDesktop/common/WireCodec.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <map>
#include <optional>

// One model at one service tier on one endpoint.
struct RouterModel {
    QString id;
    QString routing_model;
    QString service_tier;
    QString endpoint_slug;
    QString provider;
    QString display_name;
    QStringList capabilities;
    qint64 context_window = 0;
    qint64 latency_ms = 0;
    double input_cost_per_million = 0;
    double output_cost_per_million = 0;
    int quality = 0;
    QString channel;
    bool available = false;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("id", &RouterModel::id),
                          wire::field("routing_model", &RouterModel::routing_model),
                          wire::field("service_tier", &RouterModel::service_tier),
                          wire::field("endpoint_slug", &RouterModel::endpoint_slug),
                          wire::field("provider", &RouterModel::provider),
                          wire::field("display_name", &RouterModel::display_name),
                          wire::field("capabilities", &RouterModel::capabilities),
                          wire::field("context_window", &RouterModel::context_window),
                          wire::field("latency_ms", &RouterModel::latency_ms),
                          wire::field("input_cost_per_million", &RouterModel::input_cost_per_million),
                          wire::field("output_cost_per_million", &RouterModel::output_cost_per_million),
                          wire::field("quality", &RouterModel::quality),
                          wire::field("channel", &RouterModel::channel),
                          wire::field("available", &RouterModel::available)};
    }
    friend bool operator==(const RouterModel&, const RouterModel&) = default;
};

// What is configured behind a lane.
struct RouterAdapter {
    QString model_id;
    QString routing_model;
    QString service_tier;
    QString endpoint_slug;
    QString protocol_name;
    QString data_policy;
    QStringList supported_parameters;
    bool ready = false;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("model_id", &RouterAdapter::model_id),
                          wire::field("routing_model", &RouterAdapter::routing_model),
                          wire::field("service_tier", &RouterAdapter::service_tier),
                          wire::field("endpoint_slug", &RouterAdapter::endpoint_slug),
                          wire::field("protocol_name", &RouterAdapter::protocol_name),
                          wire::field("data_policy", &RouterAdapter::data_policy),
                          wire::field("supported_parameters", &RouterAdapter::supported_parameters),
                          wire::field("ready", &RouterAdapter::ready)};
    }
};

struct RouterPolicy {
    QString strategy;
    std::optional<double> max_cost_per_request;
    bool fallback_enabled = true;
    int max_fallbacks = 0;
    QStringList allowed_providers;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("strategy", &RouterPolicy::strategy),
                          wire::field("max_cost_per_request", &RouterPolicy::max_cost_per_request),
                          wire::field("fallback_enabled", &RouterPolicy::fallback_enabled),
                          wire::field("max_fallbacks", &RouterPolicy::max_fallbacks),
                          wire::field("allowed_providers", &RouterPolicy::allowed_providers)};
    }
    friend bool operator==(const RouterPolicy&, const RouterPolicy&) = default;
};

struct ModelPerformancePercentiles {
    std::optional<double> p50, p75, p90, p99;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("p50", &ModelPerformancePercentiles::p50),
                          wire::field("p75", &ModelPerformancePercentiles::p75),
                          wire::field("p90", &ModelPerformancePercentiles::p90),
                          wire::field("p99", &ModelPerformancePercentiles::p99)};
    }
};

// Observed speed of a lane over the relay's recent window.
struct ModelPerformance {
    qint64 sample_count = 0;
    qint64 window_seconds = 0;
    ModelPerformancePercentiles latency_ms;
    ModelPerformancePercentiles throughput_tps;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("sample_count", &ModelPerformance::sample_count),
                          wire::field("window_seconds", &ModelPerformance::window_seconds),
                          wire::field("latency_ms", &ModelPerformance::latency_ms),
                          wire::field("throughput_tps", &ModelPerformance::throughput_tps)};
    }
};

// Observed validity of a lane's tool calls.
struct ToolCallQuality {
    qint64 sample_count = 0;
    qint64 valid_count = 0;
    qint64 invalid_count = 0;
    std::optional<double> valid_rate;
    double routing_score = 0;
    std::map<QString, qint64> error_categories;
    qint64 window_seconds = 0;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("sample_count", &ToolCallQuality::sample_count),
                          wire::field("valid_count", &ToolCallQuality::valid_count),
                          wire::field("invalid_count", &ToolCallQuality::invalid_count),
                          wire::field("valid_rate", &ToolCallQuality::valid_rate),
                          wire::field("routing_score", &ToolCallQuality::routing_score),
                          wire::field("error_categories", &ToolCallQuality::error_categories),
                          wire::field("window_seconds", &ToolCallQuality::window_seconds)};
    }
};

struct RouterCatalog {
    QList<RouterModel> models;
    RouterPolicy policy;
    std::map<QString, double> provider_health;
    std::map<QString, ModelPerformance> model_performance;
    std::map<QString, ToolCallQuality> tool_call_quality;
    QList<RouterAdapter> adapters;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("models", &RouterCatalog::models),
                          wire::field("policy", &RouterCatalog::policy),
                          wire::field("provider_health", &RouterCatalog::provider_health),
                          wire::field("model_performance", &RouterCatalog::model_performance),
                          wire::field("tool_call_quality", &RouterCatalog::tool_call_quality),
                          wire::field("adapters", &RouterCatalog::adapters)};
    }
};

struct RouteCandidate {
    RouterModel model;
    double score = 0;
    double estimated_cost_usd = 0;
    QStringList reasons;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("model", &RouteCandidate::model),
                          wire::field("score", &RouteCandidate::score),
                          wire::field("estimated_cost_usd", &RouteCandidate::estimated_cost_usd),
                          wire::field("reasons", &RouteCandidate::reasons)};
    }
};

struct RouteRejection {
    QString model_id;
    QString reason;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("model_id", &RouteRejection::model_id),
                          wire::field("reason", &RouteRejection::reason)};
    }
};

struct RouteDecision {
    QString id;
    QString created_at;
    QString task;
    QStringList required_capabilities;
    RouteCandidate primary;
    QList<RouteCandidate> fallbacks;
    QList<RouteRejection> rejected;
    QString routed_because;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("id", &RouteDecision::id),
                          wire::field("created_at", &RouteDecision::created_at),
                          wire::field("task", &RouteDecision::task),
                          wire::field("required_capabilities", &RouteDecision::required_capabilities),
                          wire::field("primary", &RouteDecision::primary),
                          wire::field("fallbacks", &RouteDecision::fallbacks),
                          wire::field("rejected", &RouteDecision::rejected),
                          wire::field("routed_because", &RouteDecision::routed_because)};
    }
};

struct ProviderSortPreview {
    QString by;
    QString partition;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("by", &ProviderSortPreview::by),
                          wire::field("partition", &ProviderSortPreview::partition)};
    }
};

struct ProviderRoutingPreview {
    std::optional<ProviderSortPreview> sort;
    std::optional<double> preferred_max_latency;
    std::optional<double> preferred_min_throughput;

    static constexpr auto wireFields() {
        return std::tuple{
            wire::field("sort", &ProviderRoutingPreview::sort),
            wire::field("preferred_max_latency", &ProviderRoutingPreview::preferred_max_latency),
            wire::field("preferred_min_throughput", &ProviderRoutingPreview::preferred_min_throughput)};
    }
};

struct RoutePreviewToolProperty {
    QString type;
    static constexpr auto wireFields() {
        return std::tuple{wire::field("type", &RoutePreviewToolProperty::type)};
    }
};

struct RoutePreviewToolSchema {
    QString type;
    std::map<QString, RoutePreviewToolProperty> properties;
    QStringList required;
    bool additionalProperties = false;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("type", &RoutePreviewToolSchema::type),
                          wire::field("properties", &RoutePreviewToolSchema::properties),
                          wire::field("required", &RoutePreviewToolSchema::required),
                          wire::field("additionalProperties", &RoutePreviewToolSchema::additionalProperties)};
    }
};

struct RoutePreviewToolFunction {
    QString name;
    RoutePreviewToolSchema parameters;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("name", &RoutePreviewToolFunction::name),
                          wire::field("parameters", &RoutePreviewToolFunction::parameters)};
    }
};

struct RoutePreviewTool {
    QString type;
    RoutePreviewToolFunction function;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("type", &RoutePreviewTool::type),
                          wire::field("function", &RoutePreviewTool::function)};
    }

    // The one tool a preview declares to stand for an agent's tool-call request.
    static RoutePreviewTool sample() {
        return {QStringLiteral("function"),
                {QStringLiteral("project_action"),
                 {QStringLiteral("object"),
                  {{QStringLiteral("action"), {QStringLiteral("string")}}},
                  {QStringLiteral("action")},
                  false}}};
    }
};

struct RoutePreviewInput {
    QString task;
    qint64 input_tokens = 0;
    qint64 estimated_output_tokens = 0;
    std::optional<qint64> latency_budget_ms;
    std::optional<double> max_cost_usd;
    QString channel;
    std::optional<ProviderRoutingPreview> provider;
    std::optional<QList<RoutePreviewTool>> tools;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("task", &RoutePreviewInput::task),
                          wire::field("input_tokens", &RoutePreviewInput::input_tokens),
                          wire::field("estimated_output_tokens", &RoutePreviewInput::estimated_output_tokens),
                          wire::field("latency_budget_ms", &RoutePreviewInput::latency_budget_ms),
                          wire::field("max_cost_usd", &RoutePreviewInput::max_cost_usd),
                          wire::field("channel", &RoutePreviewInput::channel),
                          wire::field("provider", &RoutePreviewInput::provider),
                          wire::field("tools", &RoutePreviewInput::tools)};
    }
};

struct RouterModelUsage {
    QString model_id;
    QString provider;
    QString service_tier;
    qint64 requests = 0;
    double spend = 0;
    double average_latency_ms = 0;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("model_id", &RouterModelUsage::model_id),
                          wire::field("provider", &RouterModelUsage::provider),
                          wire::field("service_tier", &RouterModelUsage::service_tier),
                          wire::field("requests", &RouterModelUsage::requests),
                          wire::field("spend", &RouterModelUsage::spend),
                          wire::field("average_latency_ms", &RouterModelUsage::average_latency_ms)};
    }
};

struct RouterDailyUsage {
    QString day;
    qint64 requests = 0;
    double spend = 0;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("day", &RouterDailyUsage::day),
                          wire::field("requests", &RouterDailyUsage::requests),
                          wire::field("spend", &RouterDailyUsage::spend)};
    }
};

struct RouterUsage {
    qint64 requests = 0;
    qint64 succeeded = 0;
    qint64 failed = 0;
    double spend_usd = 0;
    qint64 input_tokens = 0;
    qint64 output_tokens = 0;
    qint64 fallbacks = 0;
    double fallback_rate = 0;
    qint64 cache_hits = 0;
    double cache_hit_rate = 0;
    qint64 insured_requests = 0;
    QList<RouterModelUsage> by_model;
    QList<RouterDailyUsage> daily;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("requests", &RouterUsage::requests),
                          wire::field("succeeded", &RouterUsage::succeeded),
                          wire::field("failed", &RouterUsage::failed),
                          wire::field("spend_usd", &RouterUsage::spend_usd),
                          wire::field("input_tokens", &RouterUsage::input_tokens),
                          wire::field("output_tokens", &RouterUsage::output_tokens),
                          wire::field("fallbacks", &RouterUsage::fallbacks),
                          wire::field("fallback_rate", &RouterUsage::fallback_rate),
                          wire::field("cache_hits", &RouterUsage::cache_hits),
                          wire::field("cache_hit_rate", &RouterUsage::cache_hit_rate),
                          wire::field("insured_requests", &RouterUsage::insured_requests),
                          wire::field("by_model", &RouterUsage::by_model),
                          wire::field("daily", &RouterUsage::daily)};
    }
};

struct RouterBudget {
    std::optional<QString> project_id;
    QString period;
    double limit_usd = 0;
    double spent_usd = 0;
    double remaining_usd = 0;
    double utilization = 0;
    QString updated_at;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("project_id", &RouterBudget::project_id),
                          wire::field("period", &RouterBudget::period),
                          wire::field("limit_usd", &RouterBudget::limit_usd),
                          wire::field("spent_usd", &RouterBudget::spent_usd),
                          wire::field("remaining_usd", &RouterBudget::remaining_usd),
                          wire::field("utilization", &RouterBudget::utilization),
                          wire::field("updated_at", &RouterBudget::updated_at)};
    }
};

// One try of one provider within a generation.
struct ProviderAttempt {
    QString provider;
    QString model_id;
    QString status;
    std::optional<QString> error_code;
    qint64 latency_ms = 0;
    std::optional<QString> upstream_id;

    // Attempts are told apart by lane, outcome and time.
    QString identity() const {
        return model_id + QLatin1Char(':') + status + QLatin1Char(':') + QString::number(latency_ms);
    }

    static constexpr auto wireFields() {
        return std::tuple{wire::field("provider", &ProviderAttempt::provider),
                          wire::field("model_id", &ProviderAttempt::model_id),
                          wire::field("status", &ProviderAttempt::status),
                          wire::field("error_code", &ProviderAttempt::error_code),
                          wire::field("latency_ms", &ProviderAttempt::latency_ms),
                          wire::field("upstream_id", &ProviderAttempt::upstream_id)};
    }
};

struct RouterGeneration {
    QString id;
    std::optional<QString> project_id;
    QString route_decision_id;
    QString task;
    std::optional<QString> model_id;
    std::optional<QString> provider;
    QString status;
    qint64 input_tokens = 0;
    qint64 output_tokens = 0;
    double cost_usd = 0;
    qint64 latency_ms = 0;
    bool fell_back = false;
    bool cache_hit = false;
    bool zero_completion_insured = false;
    QString service_tier;
    QList<ProviderAttempt> attempts;
    std::optional<QString> error_code;
    QString request_id;
    QString created_at;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("id", &RouterGeneration::id),
                          wire::field("project_id", &RouterGeneration::project_id),
                          wire::field("route_decision_id", &RouterGeneration::route_decision_id),
                          wire::field("task", &RouterGeneration::task),
                          wire::field("model_id", &RouterGeneration::model_id),
                          wire::field("provider", &RouterGeneration::provider),
                          wire::field("status", &RouterGeneration::status),
                          wire::field("input_tokens", &RouterGeneration::input_tokens),
                          wire::field("output_tokens", &RouterGeneration::output_tokens),
                          wire::field("cost_usd", &RouterGeneration::cost_usd),
                          wire::field("latency_ms", &RouterGeneration::latency_ms),
                          wire::field("fell_back", &RouterGeneration::fell_back),
                          wire::field("cache_hit", &RouterGeneration::cache_hit),
                          wire::field("zero_completion_insured", &RouterGeneration::zero_completion_insured),
                          wire::field("service_tier", &RouterGeneration::service_tier),
                          wire::field("attempts", &RouterGeneration::attempts),
                          wire::field("error_code", &RouterGeneration::error_code),
                          wire::field("request_id", &RouterGeneration::request_id),
                          wire::field("created_at", &RouterGeneration::created_at)};
    }
};

// The request of one gateway completion; absent optionals are left out.
struct GatewayCompletionInput {
    QString task;
    QString input;
    std::optional<QString> instructions;
    std::optional<QString> project_id;
    std::optional<QString> model;
    std::optional<QString> preset;
    qint64 max_output_tokens = 0;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("task", &GatewayCompletionInput::task),
                          wire::field("input", &GatewayCompletionInput::input),
                          wire::field("instructions", &GatewayCompletionInput::instructions),
                          wire::field("project_id", &GatewayCompletionInput::project_id),
                          wire::field("model", &GatewayCompletionInput::model),
                          wire::field("preset", &GatewayCompletionInput::preset),
                          wire::field("max_output_tokens", &GatewayCompletionInput::max_output_tokens)};
    }
};

struct GatewayCompletionUsage {
    qint64 input_tokens = 0;
    qint64 output_tokens = 0;
    double cost_usd = 0;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("input_tokens", &GatewayCompletionUsage::input_tokens),
                          wire::field("output_tokens", &GatewayCompletionUsage::output_tokens),
                          wire::field("cost_usd", &GatewayCompletionUsage::cost_usd)};
    }
};

// The answer of one gateway completion, as the relay's ledger records it too.
struct GatewayCompletion {
    QString id;
    QString output;
    QString model;
    QString provider;
    QString upstream_model;
    std::optional<QString> finish_reason;
    GatewayCompletionUsage usage;
    qint64 latency_ms = 0;
    bool fell_back = false;
    QList<ProviderAttempt> attempts;
    QString route_decision_id;
    QString routed_because;
    std::optional<QString> request_id;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("id", &GatewayCompletion::id),
                          wire::field("output", &GatewayCompletion::output),
                          wire::field("model", &GatewayCompletion::model),
                          wire::field("provider", &GatewayCompletion::provider),
                          wire::field("upstream_model", &GatewayCompletion::upstream_model),
                          wire::field("finish_reason", &GatewayCompletion::finish_reason),
                          wire::field("usage", &GatewayCompletion::usage),
                          wire::field("latency_ms", &GatewayCompletion::latency_ms),
                          wire::field("fell_back", &GatewayCompletion::fell_back),
                          wire::field("attempts", &GatewayCompletion::attempts),
                          wire::field("route_decision_id", &GatewayCompletion::route_decision_id),
                          wire::field("routed_because", &GatewayCompletion::routed_because),
                          wire::field("request_id", &GatewayCompletion::request_id)};
    }
};
