#pragma once

// A signed-in session on a test relay, and reading back what the relay stored.

#include "QuillmereDesktop/Auth/RelayClient.h"
#include "QuillmereDesktop/terminal/TerminalEventChunk.h"
#include "support/Await.h"

#include <QJsonObject>
#include <QList>
#include <QUrl>

#include <optional>

// A token from the relay's loopback sign-in.
inline std::optional<QString> localSessionToken(const QUrl& relay) {
    RelayClient client(relay, std::nullopt);
    const auto answer =
        await(client.postRaw<QJsonObject>(QStringLiteral("v1/auth/local"), QJsonObject{}, false));
    if (!answer || !answer->value(QStringLiteral("token")).isString())
        return std::nullopt;
    return answer->value(QStringLiteral("token")).toString();
}

// A terminal session as the relay keeps it.
struct StoredTerminalSession {
    QString id;
    QString source;
    QString started_at;
    std::optional<QString> ended_at;
    QList<TerminalEventChunk> chunks;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("id", &StoredTerminalSession::id),
                          wire::field("source", &StoredTerminalSession::source),
                          wire::field("started_at", &StoredTerminalSession::started_at),
                          wire::field("ended_at", &StoredTerminalSession::ended_at),
                          wire::field("chunks", &StoredTerminalSession::chunks)};
    }
};

inline std::optional<StoredTerminalSession> storedSession(const QUrl& relay, const QString& token,
                                                          const QString& sessionId) {
    RelayClient client(relay, token);
    auto answer =
        await(client.get<StoredTerminalSession>(QStringLiteral("v1/terminal/sessions/") + sessionId));
    if (!answer)
        return std::nullopt;
    return std::move(answer).value();
}
