#pragma once

#include "QuillmereDesktop/common/WireCodec.h"

#include <QDateTime>
#include <QString>
#include <QUuid>

#include <array>
#include <optional>
#include <utility>

// Who works on a prompt: one of the two local command-line agents, or the relay's router.
enum class LocalAgent { claude, codex, api };

constexpr auto wireCases(LocalAgent) {
    return std::array{std::pair{LocalAgent::claude, "claude"}, std::pair{LocalAgent::codex, "codex"},
                      std::pair{LocalAgent::api, "api router"}};
}

// How much a local agent may do in the workspace.
enum class AgentSafety { plan, workspace };

constexpr auto wireCases(AgentSafety) {
    return std::array{std::pair{AgentSafety::plan, "plan only"},
                      std::pair{AgentSafety::workspace, "workspace edits"}};
}

// Where a run is in its life; the last three are final.
enum class AgentRunStatus { starting, running, completed, failed, cancelling, cancelled };

constexpr auto wireCases(AgentRunStatus) {
    return std::array{std::pair{AgentRunStatus::starting, "starting"},
                      std::pair{AgentRunStatus::running, "running"},
                      std::pair{AgentRunStatus::completed, "completed"},
                      std::pair{AgentRunStatus::failed, "failed"},
                      std::pair{AgentRunStatus::cancelling, "cancelling"},
                      std::pair{AgentRunStatus::cancelled, "cancelled"}};
}

// Whether a run still takes one of the places of concurrent work.
constexpr bool isActive(AgentRunStatus status) {
    return status == AgentRunStatus::starting || status == AgentRunStatus::running ||
           status == AgentRunStatus::cancelling;
}

// One prompt given to one worker, as the run store keeps it for the life of the app.
struct AgentRun {
    QUuid id;
    LocalAgent agent = LocalAgent::claude;
    AgentSafety safety = AgentSafety::plan;
    std::optional<QString> preset; // the agent preset's slug, API runs only
    QString prompt;                // as sent, any project context already in it
    QDateTime startedAt;
    AgentRunStatus status = AgentRunStatus::starting;
    QString output;
    std::optional<qint32> exitCode;
    std::optional<QString> sessionId; // the run's terminal session on the relay
    bool wasTruncated = false;

    // The relay knows the run by its id in upper-case text.
    QString relayRunId() const { return id.toString(QUuid::WithoutBraces).toUpper(); }

    friend bool operator==(const AgentRun&, const AgentRun&) = default;
};
