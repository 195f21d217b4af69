#include "QuillmereDesktop/agents/AgentCommands.h"

#include "QuillmereDesktop/terminal/TerminalSessions.h"

#include <QtGlobal>

namespace agentCommands {

QString runName(LocalAgent agent, AgentSafety safety) {
    if (agent == LocalAgent::api)
        return QStringLiteral("api router \u00B7 plan only");
    return wire::rawValue(agent) + QStringLiteral(" \u00B7 ") + wire::rawValue(safety);
}

QString command(LocalAgent agent, AgentSafety safety) {
    const bool plan = safety == AgentSafety::plan;
    switch (agent) {
    case LocalAgent::claude:
        return plan ? QStringLiteral("exec claude -p --output-format text --permission-mode plan")
                    : QStringLiteral("exec claude -p --output-format text --permission-mode acceptEdits");
    case LocalAgent::codex:
        return plan ? QStringLiteral("exec codex exec --color never --sandbox read-only -")
                    : QStringLiteral("exec codex exec --color never --sandbox workspace-write -");
    case LocalAgent::api:
        break;
    }
    // API runs never start a process; asking for their shell line is a programming error.
    qFatal("agentCommands::command: the API lane has no shell line");
}

QString provider(LocalAgent agent) {
    return agent == LocalAgent::codex ? QStringLiteral("openai-subscription")
                                      : QStringLiteral("anthropic-subscription");
}

QString sessionSource(LocalAgent agent) {
    return terminalSessions::orchestratorSourcePrefix + wire::rawValue(agent);
}

} // namespace agentCommands
