#pragma once

#include "QuillmereDesktop/Auth/RelayClient.h"
#include "QuillmereDesktop/terminal/TerminalEventChunk.h"

#include <QList>
#include <QString>
#include <qcoro/qcorotask.h>

// The relay's terminal sessions: open one, add chunks to it, end it. Terminal
// pipelines and the agent runs both speak this family; each call builds its request at
// once, so the client need not outlive the call.
namespace terminalSessions {

// Who opened a session, as the relay stores it.
inline const QString desktopSource = QStringLiteral("desktop");
inline const QString orchestratorSourcePrefix = QStringLiteral("orchestrator:");

// POST "v1/terminal/sessions" with the source.
QCoro::Task<Result<TerminalSessionCreated>> create(const RelayClient& client, const QString& source);

// POST "v1/terminal/sessions/<id>/events" with the chunks; the answer is not read.
QCoro::Task<Result<void>> appendEvents(const RelayClient& client, const QString& sessionId,
                                       const QList<TerminalEventChunk>& chunks);

// POST "v1/terminal/sessions/<id>/end" with no body; only the status is checked.
QCoro::Task<Result<void>> end(const RelayClient& client, const QString& sessionId);

// The path of a session's sub-resource. The id goes in as it is, never percent-encoded.
QString sessionPath(const QString& sessionId, const QString& action);

// A chunk stamped with the present moment, for callers without a pipeline of their own.
TerminalEventChunk chunkNow(qint64 seq, const QString& stream, const QString& data);

} // namespace terminalSessions
