#pragma once

#include "QuillmereDesktop/agents/AgentRun.h"

#include <QString>

// The fixed texts of a run: its name on the relay, the shell line of a local agent, the
// provider whose health it reports, and the details of its events.
namespace agentCommands {

// "claude · workspace edits"; API runs are always "api router · plan only".
QString runName(LocalAgent agent, AgentSafety safety);

// The login shell's line for a local agent. Nothing from the user enters it, so nothing
// needs quoting: the prompt travels on standard input only. Not defined for the API lane.
QString command(LocalAgent agent, AgentSafety safety);

// The router's name for the subscription behind a local agent.
QString provider(LocalAgent agent);

// The session source of a run: "orchestrator:" and the agent's raw value.
QString sessionSource(LocalAgent agent);

// Event types and details, as the relay records them.
namespace event {
inline const QString started = QStringLiteral("started");
inline const QString progress = QStringLiteral("progress");
inline const QString finished = QStringLiteral("finished");
inline const QString failed = QStringLiteral("failed");

inline const QString startedDetail = QStringLiteral("Started from the Quillmere orchestrator");
inline const QString runningDetail = QStringLiteral("Local CLI process is running");
inline const QString completedDetail = QStringLiteral("Local CLI run completed");
inline const QString failedDetail = QStringLiteral("Local CLI run failed");
inline const QString cancelledDetail = QStringLiteral("Local CLI run cancelled");
inline const QString launchFailedDetail = QStringLiteral("The orchestrator could not start this run");
inline const QString apiCompletedDetail = QStringLiteral("API router run completed");
inline const QString apiFailedDetail = QStringLiteral("API router run failed");
inline const QString apiCancelledDetail = QStringLiteral("API router run cancelled");
} // namespace event

} // namespace agentCommands
