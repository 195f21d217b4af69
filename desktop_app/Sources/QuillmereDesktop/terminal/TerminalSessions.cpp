#include "QuillmereDesktop/terminal/TerminalSessions.h"

#include "QuillmereDesktop/common/Iso8601.h"

#include <QDateTime>
#include <QJsonObject>

namespace terminalSessions {

namespace {

struct CreateBody {
    QString source;
    static constexpr auto wireFields() { return std::tuple{wire::field("source", &CreateBody::source)}; }
};

// Turns a call whose answer nobody reads into a plain success or failure.
QCoro::Task<Result<void>> discardAnswer(QCoro::Task<Result<QByteArray>> call) {
    const Result<QByteArray> answer = co_await std::move(call);
    if (!answer)
        co_return answer.error();
    co_return Result<void>{};
}

} // namespace

QString sessionPath(const QString& sessionId, const QString& action) {
    return QStringLiteral("v1/terminal/sessions/") + sessionId + QLatin1Char('/') + action;
}

QCoro::Task<Result<TerminalSessionCreated>> create(const RelayClient& client, const QString& source) {
    return client.post<TerminalSessionCreated>(QStringLiteral("v1/terminal/sessions"), CreateBody{source});
}

QCoro::Task<Result<void>> appendEvents(const RelayClient& client, const QString& sessionId,
                                       const QList<TerminalEventChunk>& chunks) {
    const QJsonObject body{{QStringLiteral("chunks"), wire::encode(chunks)}};
    return discardAnswer(client.postRawData(sessionPath(sessionId, QStringLiteral("events")), body));
}

QCoro::Task<Result<void>> end(const RelayClient& client, const QString& sessionId) {
    // The end call has no body: a bare POST with the usual headers, sent as it is.
    Result<http::Request> request = client.request(sessionPath(sessionId, QStringLiteral("end")), "POST");
    if (!request)
        return [](Error error) -> QCoro::Task<Result<void>> { co_return error; }(request.error());
    return discardAnswer(RelayClient::send(std::move(request).value()));
}

TerminalEventChunk chunkNow(qint64 seq, const QString& stream, const QString& data) {
    return {seq, stream, data, iso8601::format(QDateTime::currentDateTimeUtc())};
}

} // namespace terminalSessions
