#pragma once

#include "QuillmereDesktop/common/WireCodec.h"

#include <QString>

#include <optional>

// How the relay reads new transcripts for the improve loop: on its own or only on demand,
// and how often when on its own.
struct ImproveSettings {
    bool automatic = false;
    qint64 cadence_hours = 24;
    std::optional<QString> last_run_at;
    std::optional<QString> next_run_at;
    qint64 open_suggestions = 0;

    friend bool operator==(const ImproveSettings&, const ImproveSettings&) = default;
    static constexpr auto wireFields() {
        return std::tuple{wire::field("automatic", &ImproveSettings::automatic),
                          wire::field("cadence_hours", &ImproveSettings::cadence_hours),
                          wire::field("last_run_at", &ImproveSettings::last_run_at),
                          wire::field("next_run_at", &ImproveSettings::next_run_at),
                          wire::field("open_suggestions", &ImproveSettings::open_suggestions)};
    }
};

// A change of those settings: only what is given changes.
struct ImproveSettingsChange {
    std::optional<bool> automatic;
    std::optional<qint64> cadence_hours;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("automatic", &ImproveSettingsChange::automatic),
                          wire::field("cadence_hours", &ImproveSettingsChange::cadence_hours)};
    }
};
