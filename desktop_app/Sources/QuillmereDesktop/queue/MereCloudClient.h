#pragma once

#include "QuillmereDesktop/queue/MereClient.h"

#include <QNetworkReply>
#include <QPointer>
#include <QTimer>
#include <QUrl>

#include <chrono>

// The live queue: one long-lived "v1/stream" response of server-sent lines, each data
// line a whole snapshot, and verdicts as single POSTs. It keeps its own URL and token,
// handed over by the application state, and the queue's own JSON rules.
class MereCloudClient : public MereClient {
    Q_OBJECT
public:
    // The pause between stream attempts: fixed, with no back-off and no limit.
    static constexpr std::chrono::milliseconds defaultRetryDelay{3000};
    static constexpr std::chrono::milliseconds requestTimeout{60000};

    MereCloudClient(QUrl baseURL, QString token, QObject* parent = nullptr,
                    std::chrono::milliseconds retryDelay = defaultRetryDelay);
    ~MereCloudClient() override;

    const QUrl& baseURL() const { return m_baseURL; }
    const QString& token() const { return m_token; }

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

    QUrl m_baseURL;
    QString m_token;
    std::chrono::milliseconds m_retryDelay;
    SnapshotCallback m_onSnapshot;
    ConnectionCallback m_onConnectionChange;
    bool m_running = false;   // between connect and disconnect
    bool m_streaming = false; // the present response answered 200
    QPointer<QNetworkReply> m_reply;
    QByteArray m_partialLine;
    QTimer m_retryTimer;
};
