#include "QuillmereDesktop/terminal/TerminalPipeline.h"

#include "QuillmereDesktop/common/Iso8601.h"
#include "QuillmereDesktop/terminal/TerminalSessions.h"
#include "QuillmereDesktop/terminal/Utf8Repair.h"

#include <QDateTime>
#include <QPointer>
#include <qcoro/qcorosignal.h>

TerminalPipeline::TerminalPipeline(RelayClient* client, std::chrono::milliseconds batchDelay, QObject* parent)
    : QObject(parent), m_client(client), m_batchDelay(batchDelay) {}

void TerminalPipeline::start() {
    if (m_sessionId || m_isEnding)
        return;
    openSession();
}

QCoro::Task<> TerminalPipeline::openSession() {
    QPointer<TerminalPipeline> self(this);
    const Result<TerminalSessionCreated> created =
        co_await terminalSessions::create(m_client.get(), terminalSessions::desktopSource);
    if (!self)
        co_return;
    if (!created) {
        // No retry: the terminal goes on, and its chunks wait in `pending`.
        setLastError(created.error().message);
        co_return;
    }
    setSessionId(created->id);
    setLastError(std::nullopt);
}

void TerminalPipeline::capture(const QString& stream, const QByteArray& bytes) {
    ++m_seq;
    m_pending.append(
        {m_seq, stream, utf8::decodeWithRepair(bytes), iso8601::format(QDateTime::currentDateTimeUtc())});
    scheduleFlush();
}

void TerminalPipeline::scheduleFlush() {
    // A timer already runs: the delay counts from the first chunk of a batch, so a steady
    // stream still goes out once per delay instead of being held back.
    if (m_flushTask)
        return;
    m_flushTask = std::make_shared<TerminalBatchTimer>(m_batchDelay);
    waitThenFlush(m_flushTask);
}

QCoro::Task<> TerminalPipeline::waitThenFlush(std::shared_ptr<TerminalBatchTimer> timer) {
    // Held weakly: a terminal that is gone needs no batch.
    QPointer<TerminalPipeline> self(this);
    co_await qCoro(timer.get(), &TerminalBatchTimer::fired);
    if (!self)
        co_return;
    // Without a session nothing is sent and nothing re-arms: the chunks wait for the next capture.
    if (m_sessionId && !m_pending.isEmpty())
        co_await flush(*m_sessionId);
    if (!self)
        co_return;
    // `end` may have dropped this timer already and a newer one may run; that one stays.
    if (m_flushTask == timer)
        m_flushTask.reset();
}

QCoro::Task<> TerminalPipeline::flush(QString sessionId) {
    if (m_pending.isEmpty())
        co_return;
    // The batch leaves `pending` before the send, so captures during the send gather
    // behind it and a second flush cannot send the same chunks.
    QList<TerminalEventChunk> batch = std::exchange(m_pending, {});
    QPointer<TerminalPipeline> self(this);
    const Result<void> sent = co_await terminalSessions::appendEvents(m_client.get(), sessionId, batch);
    if (!self)
        co_return;
    if (sent) {
        setLastError(std::nullopt);
        co_return;
    }
    setLastError(sent.error().message);
    // The failed batch goes back in front, so `seq` order holds; it leaves with the next batch.
    batch.append(m_pending);
    m_pending = std::move(batch);
}

void TerminalPipeline::end() {
    if (!m_sessionId || m_isEnding)
        return;
    m_isEnding = true;
    if (m_flushTask) {
        m_flushTask->cancel();
        m_flushTask.reset();
    }
    finishEnding(*m_sessionId);
}

QCoro::Task<> TerminalPipeline::finishEnding(QString sessionId) {
    // The session is closed even if the terminal and this pipeline are gone by then:
    // the identifier and a hold on the client travel with the task.
    QPointer<TerminalPipeline> self(this);
    const HeldRelayClient client = m_client;
    co_await flush(sessionId);
    // A failed final flush does not stop the end call, and a failed end call changes nothing.
    (void)co_await terminalSessions::end(client.get(), sessionId);
    if (!self)
        co_return;
    setSessionId(std::nullopt);
    m_seq = 0;
    m_isEnding = false;
    emit ended();
}

void TerminalPipeline::setSessionId(std::optional<QString> id) {
    if (m_sessionId == id)
        return;
    m_sessionId = std::move(id);
    emit sessionIdChanged();
}

void TerminalPipeline::setLastError(std::optional<QString> message) {
    if (m_lastError == message)
        return;
    m_lastError = std::move(message);
    emit lastErrorChanged();
}
