#include "QuillmereDesktop/queue/MereCloudClient.h"

#include "QuillmereDesktop/common/Http.h"
#include "QuillmereDesktop/queue/QueueWire.h"

MereCloudClient::MereCloudClient(RelayClient* relay, QObject* parent, std::chrono::milliseconds retryDelay)
    : MereClient(parent), m_relay(relay), m_retryDelay(retryDelay) {
    m_retryTimer.setSingleShot(true);
    QObject::connect(&m_retryTimer, &QTimer::timeout, this, &MereCloudClient::openStream);
}

MereCloudClient::~MereCloudClient() {
    disconnect();
}

QUrl MereCloudClient::endpoint(const QString& encodedPath) const {
    QUrl url = baseURL();
    QString base = url.path(QUrl::FullyEncoded);
    if (!base.endsWith(QLatin1Char('/')))
        base += QLatin1Char('/');
    url.setPath(base + encodedPath, QUrl::TolerantMode);
    return url;
}

void MereCloudClient::connect(SnapshotCallback onSnapshot, ConnectionCallback onConnectionChange) {
    abortStream();
    m_onSnapshot = std::move(onSnapshot);
    m_onConnectionChange = std::move(onConnectionChange);
    m_running = true;
    openStream();
}

void MereCloudClient::disconnect() {
    // After this nothing calls back; going offline is the caller's own business.
    m_running = false;
    abortStream();
    m_onSnapshot = nullptr;
    m_onConnectionChange = nullptr;
}

void MereCloudClient::abortStream() {
    m_retryTimer.stop();
    if (m_reply) {
        QNetworkReply* reply = m_reply;
        m_reply = nullptr;
        reply->disconnect(this);
        reply->abort();
        reply->deleteLater();
    }
    m_streaming = false;
    m_partialLine.clear();
}

void MereCloudClient::openStream() {
    if (!m_running)
        return;
    if (!m_relay) {
        // The relay client was replaced: its successor gets a queue client of its own.
        if (m_onConnectionChange)
            m_onConnectionChange(false);
        return;
    }
    QNetworkRequest request(endpoint(QStringLiteral("v1/stream")));
    request.setRawHeader("Authorization", "Bearer " + token().toUtf8());
    http::setTimeout(request, requestTimeout);
    m_streaming = false;
    m_partialLine.clear();
    m_reply = http::sharedManager().get(request);
    QObject::connect(m_reply, &QNetworkReply::metaDataChanged, this, &MereCloudClient::onHeaders);
    QObject::connect(m_reply, &QNetworkReply::readyRead, this, &MereCloudClient::onReadyRead);
    QObject::connect(m_reply, &QNetworkReply::finished, this, &MereCloudClient::onFinished);
}

void MereCloudClient::onHeaders() {
    if (!m_reply || m_streaming)
        return;
    const QVariant status = m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (status.isValid() && status.toInt() == 200) {
        m_streaming = true;
        if (m_onConnectionChange)
            m_onConnectionChange(true);
    }
}

void MereCloudClient::onReadyRead() {
    if (!m_reply)
        return;
    onHeaders();
    if (!m_streaming) {
        // The body of a refusal is not a stream; it is read and dropped.
        m_reply->readAll();
        return;
    }
    m_partialLine += m_reply->readAll();
    qsizetype start = 0;
    for (qsizetype end = m_partialLine.indexOf('\n'); end >= 0; end = m_partialLine.indexOf('\n', start)) {
        QByteArray line = m_partialLine.mid(start, end - start);
        if (line.endsWith('\r'))
            line.chop(1);
        start = end + 1;
        handleLine(line);
        // A callback may have disconnected us mid-chunk.
        if (!m_running || !m_reply)
            return;
    }
    m_partialLine.remove(0, start);
}

void MereCloudClient::handleLine(const QByteArray& line) {
    // Comments, event names and blank lines count for nothing.
    if (!line.startsWith("data:"))
        return;
    QByteArray payload = line.mid(5);
    // Blanks and tabs only: other white space is left for the decoder to refuse.
    qsizetype begin = 0;
    qsizetype end = payload.size();
    while (begin < end && (payload[begin] == ' ' || payload[begin] == '\t'))
        ++begin;
    while (end > begin && (payload[end - 1] == ' ' || payload[end - 1] == '\t'))
        --end;
    payload = payload.mid(begin, end - begin);
    // Each data line is decoded by itself; a bad one is skipped without a word.
    if (auto snapshot = decodeSnapshot(payload); snapshot && m_onSnapshot)
        m_onSnapshot(snapshot.value());
}

void MereCloudClient::onFinished() {
    if (!m_reply)
        return;
    onReadyRead();
    if (!m_running || !m_reply)
        return;
    QNetworkReply* reply = m_reply;
    m_reply = nullptr;
    reply->deleteLater();

    if (!m_streaming) {
        // Refused, or never reached: offline until an attempt succeeds.
        if (m_onConnectionChange)
            m_onConnectionChange(false);
    } else if (reply->error() != QNetworkReply::NoError) {
        if (m_onConnectionChange)
            m_onConnectionChange(false);
    } else {
        // A clean end of the body: the last line may lack its line end. Online stays
        // true through the pause; the next attempt decides.
        if (!m_partialLine.isEmpty())
            handleLine(m_partialLine);
    }
    m_streaming = false;
    m_partialLine.clear();
    scheduleRetry();
}

void MereCloudClient::scheduleRetry() {
    if (m_running)
        m_retryTimer.start(m_retryDelay);
}

QCoro::Task<SubmitResult> MereCloudClient::submitVerdict(QString interruptId, Verdict verdict) {
    // Without its relay client the verdict cannot go out; the person may send it again once
    // the queue is connected to the new one.
    if (!m_relay)
        co_return SubmitError{ClientError::server(QStringLiteral("no relay client"))};
    http::Request request;
    request.request.setUrl(endpoint(QStringLiteral("v1/interrupts/%1/verdict")
                                        .arg(QString::fromLatin1(QUrl::toPercentEncoding(interruptId)))));
    request.request.setRawHeader("Authorization", "Bearer " + token().toUtf8());
    request.request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    http::setTimeout(request.request, requestTimeout);
    request.method = "POST";
    request.body = encodeVerdict(verdict);

    // Nothing of this object is touched after the wait, so a client replaced meanwhile is fine.
    const http::Response response = co_await http::perform(std::move(request));
    if (!response.status) {
        if (response.transportError.isEmpty())
            co_return SubmitError{ClientError::server(QStringLiteral("no response"))};
        co_return SubmitError{Error{response.transportError}};
    }
    if (*response.status == 409)
        co_return SubmitError{ClientError::alreadyResolved()};
    if (response.isSuccess())
        co_return SubmitResult{};
    co_return SubmitError{ClientError::server(QStringLiteral("status %1").arg(*response.status))};
}
