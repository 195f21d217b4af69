#pragma once

#include "QuillmereDesktop/terminal/HeldRelayClient.h"
#include "QuillmereDesktop/terminal/TerminalBatchTimer.h"
#include "QuillmereDesktop/terminal/TerminalEventChunk.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>
#include <QtQml/qqmlregistration.h>
#include <qcoro/qcorotask.h>

#include <chrono>
#include <memory>
#include <optional>

// Ships everything typed into and shown by one terminal to the relay, as one
// ordered stream of chunks in one session. Capturing never fails and never waits; the
// network sees at most one batch per delay, sent one delay after the first chunk of it.
class TerminalPipeline : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("A pipeline belongs to the terminal that feeds it.")
    Q_PROPERTY(QString sessionId READ sessionIdText NOTIFY sessionIdChanged)
    Q_PROPERTY(QString lastError READ lastErrorText NOTIFY lastErrorChanged)

public:
    // How long chunks gather before they are sent, counted from the first of a batch.
    static constexpr std::chrono::milliseconds defaultBatchDelay{300};

    explicit TerminalPipeline(RelayClient* client, std::chrono::milliseconds batchDelay = defaultBatchDelay,
                              QObject* parent = nullptr);

    const std::optional<QString>& sessionId() const { return m_sessionId; }
    const std::optional<QString>& lastError() const { return m_lastError; }
    qint64 seq() const { return m_seq; }
    const QList<TerminalEventChunk>& pending() const { return m_pending; }
    bool isEnding() const { return m_isEnding; }
    bool hasFlushTask() const { return m_flushTask != nullptr; }
    std::chrono::milliseconds batchDelay() const { return m_batchDelay; }

    // Opens the session, unless one is open or ending. A failure is shown, not retried.
    void start();
    // Records what went in ("input") or came out ("output"). Works in every state.
    void capture(const QString& stream, const QByteArray& bytes);
    // Sends what is pending and closes the session; the work goes on after this returns,
    // even if the pipeline is deleted meanwhile.
    void end();

signals:
    void sessionIdChanged();
    void lastErrorChanged();
    // The end call has returned and the pipeline is idle again.
    void ended();

private:
    void scheduleFlush();
    QCoro::Task<> waitThenFlush(std::shared_ptr<TerminalBatchTimer> timer);
    QCoro::Task<> flush(QString sessionId);
    QCoro::Task<> openSession();
    QCoro::Task<> finishEnding(QString sessionId);
    void setSessionId(std::optional<QString> id);
    void setLastError(std::optional<QString> message);
    QString sessionIdText() const { return m_sessionId.value_or(QString()); }
    QString lastErrorText() const { return m_lastError.value_or(QString()); }

    HeldRelayClient m_client;
    std::chrono::milliseconds m_batchDelay;
    std::optional<QString> m_sessionId;
    std::optional<QString> m_lastError;
    qint64 m_seq = 0;
    QList<TerminalEventChunk> m_pending;
    // The one timer task that may be running; shared with it so that it outlives us.
    std::shared_ptr<TerminalBatchTimer> m_flushTask;
    bool m_isEnding = false;
};
