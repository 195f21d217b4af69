#pragma once

#include "QuillmereDesktop/Auth/RelayClient.h"
#include "QuillmereDesktop/queue/MereClient.h"

#include <QNetworkReply>
#include <QPointer>
#include <QTimer>
#include <QUrl>

#include <chrono>

// The live queue: one long-lived "v1/stream" response of server-sent lines, each data
// line a whole snapshot, and verdicts as single POSTs, with the queue's own JSON rules.
// It keeps no address or token of its own: it asks the signed-in relay client for both at
// the moment of each request, so a new session token is used from the next request on.
class MereCloudClient : public MereClient {
    Q_OBJECT
public:
    // The pause between stream attempts: fixed, with no back-off and no limit.
    static constexpr std::chrono::milliseconds defaultRetryDelay{3000};
    static constexpr std::chrono::milliseconds requestTimeout{60000};

    // `relay` belongs to the sign-in store; once it is gone this client has no relay to
    // speak to and stays offline until the application connects a new one.
    explicit MereCloudClient(RelayClient* relay, QObject* parent = nullptr,
                             std::chrono::milliseconds retryDelay = defaultRetryDelay);
    ~MereCloudClient() override;

    RelayClient* relayClient() const { return m_relay; }
    // The relay's address and the session token as the relay client has them now.
    QUrl baseURL() const { return m_relay ? m_relay->baseURL() : QUrl(); }
    QString token() const { return m_relay ? m_relay->token().value_or(QString()) : QString(); }

    void connect(SnapshotCallback onSnapshot, ConnectionCallback onConnectionChange) override;
    void disconnect() override;
    QCoro::Task<SubmitResult> submitVerdict(QString interruptId, Verdict verdict) override;

    // A percent-encoded path appended to the base URL as a path component.
    QUrl endpoint(const QString& encodedPath) const;

private:
    void openStream();
    void onHeaders();
    void onReadyRead();
    void onFinished();
    void handleLine(const QByteArray& line);
    void scheduleRetry();
    void abortStream();

    QPointer<RelayClient> m_relay;
    std::chrono::milliseconds m_retryDelay;
    SnapshotCallback m_onSnapshot;
    ConnectionCallback m_onConnectionChange;
    bool m_running = false;   // between connect and disconnect
    bool m_streaming = false; // the present response answered 200
    QPointer<QNetworkReply> m_reply;
    QByteArray m_partialLine;
    QTimer m_retryTimer;
};
