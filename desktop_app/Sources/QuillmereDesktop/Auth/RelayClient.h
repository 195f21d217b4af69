#pragma once

#include "QuillmereDesktop/common/Http.h"
#include "QuillmereDesktop/common/Result.h"
#include "QuillmereDesktop/common/WireCodec.h"
#include "QuillmereDesktop/context/ProjectRecords.h"
#include "QuillmereDesktop/routing/RouterRecords.h"

#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QUrl>
#include <qcoro/qcorotask.h>

#include <chrono>
#include <optional>

// The application's HTTP client for the relay: a base URL and an optional session token,
// and the rules every "v1/..." call shares. It keeps no other state, no cache, no retry.
// The base URL is fixed for the client's life: the sign-in store, which owns the relay's
// address, makes a new client when the address changes.
class RelayClient : public QObject {
    Q_OBJECT
public:
    static constexpr std::chrono::milliseconds requestTimeout{60000};
    static constexpr std::chrono::milliseconds healthTimeout{3000};

    static inline const QString invalidURLMessage = QStringLiteral("invalid relay URL");
    static inline const QString notSignedInMessage = QStringLiteral("not signed in");
    static inline const QString noResponseMessage = QStringLiteral("no response from relay");

    RelayClient(QUrl baseURL, std::optional<QString> token, QObject* parent = nullptr);

    const QUrl& baseURL() const { return m_baseURL; }
    const std::optional<QString>& token() const { return m_token; }
    void setToken(std::optional<QString> token) { m_token = std::move(token); }

    // A ready request without a body, e.g. for DELETE; fails on a bad path or a missing token.
    Result<http::Request> request(const QString& path, const QByteArray& method, bool auth = true) const;

    // Sends a finished request; the body of a 2xx answer, or the relay's words for anything else.
    static QCoro::Task<Result<QByteArray>> send(http::Request request);

    template <class T> QCoro::Task<Result<T>> get(QString path, bool auth = true) const {
        return sendAndDecode<T>(request(path, "GET", auth));
    }

    template <class T, class Body>
    QCoro::Task<Result<T>> post(QString path, Body body, bool auth = true) const {
        return sendAndDecode<T>(withBody(request(path, "POST", auth), wire::encodeJson(body)));
    }

    template <class T, class Body> QCoro::Task<Result<T>> put(QString path, Body body) const {
        return sendAndDecode<T>(withBody(request(path, "PUT"), wire::encodeJson(body)));
    }

    // A call whose answer's body says nothing the caller needs, such as a DELETE.
    QCoro::Task<Result<void>> sendWithoutAnswer(QString path, QByteArray method) const;

    // For small one-off bodies that have no record type of their own.
    template <class T>
    QCoro::Task<Result<T>> postRaw(QString path, QJsonObject body, bool auth = true) const {
        return sendAndDecode<T>(
            withBody(request(path, "POST", auth), QJsonDocument(body).toJson(QJsonDocument::Compact)));
    }

    // The same, for answers that the caller decodes by hand.
    QCoro::Task<Result<QByteArray>> postRawData(QString path, QJsonObject body, bool auth = true) const;

    // True only when "v1/health" answers 200 within a few seconds; never fails.
    QCoro::Task<bool> isReachable() const;

    // Ends a session on the relay. Takes the token because sign-out forgets it first.
    QCoro::Task<> logout(std::optional<QString> token) const;

    QCoro::Task<Result<void>> recordRunEvent(QString runId, QString name, QString type, qint64 tokens,
                                             double costUSD, QString detail) const;
    QCoro::Task<Result<void>> recordProviderHealth(QString provider, bool success, qint64 latencyMs) const;

    // One completion through the relay's router ("v1/complete"), which picks the lane,
    // enforces the budgets and falls back; the relay's own words on any failure.
    QCoro::Task<Result<GatewayCompletion>> complete(GatewayCompletionInput input) const {
        return post<GatewayCompletion>(QStringLiteral("v1/complete"), std::move(input));
    }

    // Projects and their context (defined in context/ProjectCalls.cpp). The relay finds a
    // project by its folder or makes it, so registering before each use is safe.
    QCoro::Task<Result<MereProject>> upsertProject(QString name, QString rootPath) const;
    QCoro::Task<Result<QList<MereProject>>> projects() const;
    QCoro::Task<Result<QList<ProjectContextItem>>> contextItems(QString projectId) const;
    QCoro::Task<Result<ProjectContextItem>> saveContext(QString projectId, QString title, QString content,
                                                        QString source) const;
    QCoro::Task<Result<ContextPack>> contextPack(QString projectId, QString query,
                                                 qint64 characterBudget) const;
    QCoro::Task<Result<void>> deleteContext(QString projectId, QString itemId) const;

    // The URL of a relative path, resolved against the base as a browser would.
    std::optional<QUrl> resolve(const QString& path) const;

    // Turns a failed answer's body into the relay's own words.
    static QString errorMessage(int status, const QByteArray& body);
    // The words for an answer that arrived but does not have the expected shape.
    static Error decodingFailure(const wire::DecodeError& error);

private:
    static Result<http::Request> withBody(Result<http::Request> request, QByteArray body);

    template <class T> static QCoro::Task<Result<T>> sendAndDecode(Result<http::Request> request) {
        if (!request)
            co_return request.error();
        const Result<QByteArray> body = co_await send(std::move(request).value());
        if (!body)
            co_return body.error();
        auto decoded = wire::decodeJson<T>(body.value());
        if (!decoded)
            co_return decodingFailure(decoded.error());
        co_return std::move(decoded).value();
    }

    QUrl m_baseURL;
    std::optional<QString> m_token;
};
