#pragma once

#include "QuillmereDesktop/common/WireCodec.h"

#include <QString>

// One command-line agent as the relay sees it on this machine.
struct CLIInfo {
    bool installed = false;
    bool authenticated = false;
    qint64 tokens_today = 0;
    qint64 messages_today = 0;

    // Installed and signed in: the tool can be used.
    bool isConnected() const { return installed && authenticated; }

    friend bool operator==(const CLIInfo&, const CLIInfo&) = default;
    static constexpr auto wireFields() {
        return std::tuple{wire::field("installed", &CLIInfo::installed),
                          wire::field("authenticated", &CLIInfo::authenticated),
                          wire::field("tokens_today", &CLIInfo::tokens_today),
                          wire::field("messages_today", &CLIInfo::messages_today)};
    }
};

// The answer of "v1/cli/status".
struct CLIStatusResponse {
    CLIInfo claude;
    CLIInfo codex;

    friend bool operator==(const CLIStatusResponse&, const CLIStatusResponse&) = default;
    static constexpr auto wireFields() {
        return std::tuple{wire::field("claude", &CLIStatusResponse::claude),
                          wire::field("codex", &CLIStatusResponse::codex)};
    }
};

// Claude's own usage figures, read off its usage screen, as shown there.
struct ClaudeUsage {
    QString totalTokens;
    QString sessions;
    friend bool operator==(const ClaudeUsage&, const ClaudeUsage&) = default;
};
