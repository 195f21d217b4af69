#pragma once

// The improve suggestions as the relay sends them, and the bodies the screen sends back.
// Field names keep their wire spelling; dates stay strings, shown but never parsed.

#include "QuillmereDesktop/common/WireCodec.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <map>
#include <optional>

// A file a suggestion could go to, relative to the project.
struct ImproveTarget {
    QString agent;
    QString path;
    QString artifact;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("agent", &ImproveTarget::agent),
                          wire::field("path", &ImproveTarget::path),
                          wire::field("artifact", &ImproveTarget::artifact)};
    }
    friend bool operator==(const ImproveTarget&, const ImproveTarget&) = default;
};

// An excerpt of the person's own message that the suggestion rests on.
struct ImproveEvidence {
    QString session_id;
    qint64 turn_index = 0;
    QString agent;
    QStringList kinds;
    QString excerpt;
    QString observed_at;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("session_id", &ImproveEvidence::session_id),
                          wire::field("turn_index", &ImproveEvidence::turn_index),
                          wire::field("agent", &ImproveEvidence::agent),
                          wire::field("kinds", &ImproveEvidence::kinds),
                          wire::field("excerpt", &ImproveEvidence::excerpt),
                          wire::field("observed_at", &ImproveEvidence::observed_at)};
    }
};

// The relay's record of one write, which is what makes a later undo possible.
struct ImproveApplication {
    QString id;
    QString suggestion_id;
    QString agent;
    QString artifact;
    QString path;
    QString resolved_path;
    QString inserted_text;
    QString content_sha256;
    bool created_file = false;
    QString applied_at;
    std::optional<QString> undone_at;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("id", &ImproveApplication::id),
                          wire::field("suggestion_id", &ImproveApplication::suggestion_id),
                          wire::field("agent", &ImproveApplication::agent),
                          wire::field("artifact", &ImproveApplication::artifact),
                          wire::field("path", &ImproveApplication::path),
                          wire::field("resolved_path", &ImproveApplication::resolved_path),
                          wire::field("inserted_text", &ImproveApplication::inserted_text),
                          wire::field("content_sha256", &ImproveApplication::content_sha256),
                          wire::field("created_file", &ImproveApplication::created_file),
                          wire::field("applied_at", &ImproveApplication::applied_at),
                          wire::field("undone_at", &ImproveApplication::undone_at)};
    }
};

// A rule or a skill drawn from an instruction the person gave in two or more conversations.
struct ImproveSuggestion {
    QString id;
    QString kind;
    QString artifact;
    QString title;
    QString detail;
    QString body;
    QString slug;
    QStringList terms;
    QStringList patterns;
    QStringList agents;
    QList<ImproveTarget> targets;
    QList<ImproveEvidence> evidence;
    qint64 turn_count = 0;
    qint64 session_count = 0;
    QString status;
    QString stored_status;
    std::optional<QString> snoozed_until;
    bool stale = false;
    QString section;
    QList<ImproveApplication> applications;
    bool applied = false;
    QString created_at;
    QString updated_at;
    QString last_seen_at;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("id", &ImproveSuggestion::id),
                          wire::field("kind", &ImproveSuggestion::kind),
                          wire::field("artifact", &ImproveSuggestion::artifact),
                          wire::field("title", &ImproveSuggestion::title),
                          wire::field("detail", &ImproveSuggestion::detail),
                          wire::field("body", &ImproveSuggestion::body),
                          wire::field("slug", &ImproveSuggestion::slug),
                          wire::field("terms", &ImproveSuggestion::terms),
                          wire::field("patterns", &ImproveSuggestion::patterns),
                          wire::field("agents", &ImproveSuggestion::agents),
                          wire::field("targets", &ImproveSuggestion::targets),
                          wire::field("evidence", &ImproveSuggestion::evidence),
                          wire::field("turn_count", &ImproveSuggestion::turn_count),
                          wire::field("session_count", &ImproveSuggestion::session_count),
                          wire::field("status", &ImproveSuggestion::status),
                          wire::field("stored_status", &ImproveSuggestion::stored_status),
                          wire::field("snoozed_until", &ImproveSuggestion::snoozed_until),
                          wire::field("stale", &ImproveSuggestion::stale),
                          wire::field("section", &ImproveSuggestion::section),
                          wire::field("applications", &ImproveSuggestion::applications),
                          wire::field("applied", &ImproveSuggestion::applied),
                          wire::field("created_at", &ImproveSuggestion::created_at),
                          wire::field("updated_at", &ImproveSuggestion::updated_at),
                          wire::field("last_seen_at", &ImproveSuggestion::last_seen_at)};
    }
};

// A reworded text; shown beside the diff, and never kept on the relay.
struct ImproveDraft {
    QString suggestion_id;
    QString title;
    QString body;
    QString section;
    std::optional<QString> model;

    static constexpr auto wireFields() {
        return std::tuple{
            wire::field("suggestion_id", &ImproveDraft::suggestion_id),
            wire::field("title", &ImproveDraft::title), wire::field("body", &ImproveDraft::body),
            wire::field("section", &ImproveDraft::section), wire::field("model", &ImproveDraft::model)};
    }
};

// How far the reading of the person's conversations has got.
struct ImproveProcessing {
    qint64 sessions = 0;
    qint64 sessions_processed = 0;
    qint64 sessions_pending = 0;
    qint64 turns_observed = 0;
    qint64 signals_found = 0;
    std::optional<QString> last_scan_at;
    bool automatic = false;
    qint64 cadence_hours = 0;
    std::optional<QString> next_run_at;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("sessions", &ImproveProcessing::sessions),
                          wire::field("sessions_processed", &ImproveProcessing::sessions_processed),
                          wire::field("sessions_pending", &ImproveProcessing::sessions_pending),
                          wire::field("turns_observed", &ImproveProcessing::turns_observed),
                          wire::field("signals_found", &ImproveProcessing::signals_found),
                          wire::field("last_scan_at", &ImproveProcessing::last_scan_at),
                          wire::field("automatic", &ImproveProcessing::automatic),
                          wire::field("cadence_hours", &ImproveProcessing::cadence_hours),
                          wire::field("next_run_at", &ImproveProcessing::next_run_at)};
    }
};

struct ImproveSuggestionList {
    QList<ImproveSuggestion> suggestions;
    std::map<QString, qint64> counts;
    qint64 total = 0;
    qint64 window_days = 0;
    ImproveProcessing processing;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("suggestions", &ImproveSuggestionList::suggestions),
                          wire::field("counts", &ImproveSuggestionList::counts),
                          wire::field("total", &ImproveSuggestionList::total),
                          wire::field("window_days", &ImproveSuggestionList::window_days),
                          wire::field("processing", &ImproveSuggestionList::processing)};
    }
};

struct ImproveScanResult {
    qint64 sessions_scanned = 0;
    qint64 turns_observed = 0;
    qint64 signals_found = 0;
    qint64 suggestions_found = 0;
    QString scanned_at;
    ImproveProcessing processing;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("sessions_scanned", &ImproveScanResult::sessions_scanned),
                          wire::field("turns_observed", &ImproveScanResult::turns_observed),
                          wire::field("signals_found", &ImproveScanResult::signals_found),
                          wire::field("suggestions_found", &ImproveScanResult::suggestions_found),
                          wire::field("scanned_at", &ImproveScanResult::scanned_at),
                          wire::field("processing", &ImproveScanResult::processing)};
    }
};

// What the application tells the relay after it wrote a suggestion into a file.
struct ImproveApplyInput {
    QString agent;
    QString path;
    QString resolved_path;
    QString inserted_text;
    QString content_sha256;
    bool created_file = false;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("agent", &ImproveApplyInput::agent),
                          wire::field("path", &ImproveApplyInput::path),
                          wire::field("resolved_path", &ImproveApplyInput::resolved_path),
                          wire::field("inserted_text", &ImproveApplyInput::inserted_text),
                          wire::field("content_sha256", &ImproveApplyInput::content_sha256),
                          wire::field("created_file", &ImproveApplyInput::created_file)};
    }
};
