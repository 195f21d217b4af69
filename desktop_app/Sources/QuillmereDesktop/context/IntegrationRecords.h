#pragma once

// Connected apps (through Composio, on the relay) and the insights the relay draws from its
// own records, as the relay sends them.

#include "QuillmereDesktop/common/WireCodec.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <map>
#include <optional>

struct ComposioStatus {
    bool configured = false;
    QStringList toolkits;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("configured", &ComposioStatus::configured),
                          wire::field("toolkits", &ComposioStatus::toolkits)};
    }
};

struct ComposioToolkit {
    QString slug;
    QString name;
    QString description;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("slug", &ComposioToolkit::slug),
                          wire::field("name", &ComposioToolkit::name),
                          wire::field("description", &ComposioToolkit::description)};
    }
};

struct ComposioConnection {
    QString id;
    QString toolkit;
    QString status;
    std::optional<QString> created_at;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("id", &ComposioConnection::id),
                          wire::field("toolkit", &ComposioConnection::toolkit),
                          wire::field("status", &ComposioConnection::status),
                          wire::field("created_at", &ComposioConnection::created_at)};
    }
};

// Where the person's browser goes to finish a connection.
struct ComposioLink {
    QString redirect_url;
    std::optional<QString> connected_account_id;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("redirect_url", &ComposioLink::redirect_url),
                          wire::field("connected_account_id", &ComposioLink::connected_account_id)};
    }
};

struct ComposioConnectInput {
    QString toolkit;
    static constexpr auto wireFields() {
        return std::tuple{wire::field("toolkit", &ComposioConnectInput::toolkit)};
    }
};

struct InsightSuggestion {
    QString id;
    QString priority;
    QString title;
    QString detail;
    QString action;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("id", &InsightSuggestion::id),
                          wire::field("priority", &InsightSuggestion::priority),
                          wire::field("title", &InsightSuggestion::title),
                          wire::field("detail", &InsightSuggestion::detail),
                          wire::field("action", &InsightSuggestion::action)};
    }
};

// A summary of everything the relay has captured for the account, with suggestions.
struct Insights {
    qint64 terminal_sessions = 0;
    qint64 terminal_events = 0;
    QStringList connected_apps;
    std::map<QString, qint64> integration_activity;
    qint64 recent_external_activity = 0;
    qint64 project_count = 0;
    qint64 context_items = 0;
    qint64 preset_count = 0;
    qint64 classifier_count = 0;
    std::map<QString, qint64> classification_status;
    std::map<QString, std::map<QString, qint64>> classification_tags;
    qint64 gateway_requests = 0;
    double gateway_spend_usd = 0;
    QList<InsightSuggestion> suggestions;
    QString summary;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("terminal_sessions", &Insights::terminal_sessions),
                          wire::field("terminal_events", &Insights::terminal_events),
                          wire::field("connected_apps", &Insights::connected_apps),
                          wire::field("integration_activity", &Insights::integration_activity),
                          wire::field("recent_external_activity", &Insights::recent_external_activity),
                          wire::field("project_count", &Insights::project_count),
                          wire::field("context_items", &Insights::context_items),
                          wire::field("preset_count", &Insights::preset_count),
                          wire::field("classifier_count", &Insights::classifier_count),
                          wire::field("classification_status", &Insights::classification_status),
                          wire::field("classification_tags", &Insights::classification_tags),
                          wire::field("gateway_requests", &Insights::gateway_requests),
                          wire::field("gateway_spend_usd", &Insights::gateway_spend_usd),
                          wire::field("suggestions", &Insights::suggestions),
                          wire::field("summary", &Insights::summary)};
    }
};
