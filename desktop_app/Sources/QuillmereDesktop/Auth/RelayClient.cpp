#include "QuillmereDesktop/Auth/RelayClient.h"

#include <QJsonDocument>

namespace {

// The relay's structured error body.
struct APIErrorEnvelope {
    struct Detail {
        QString message;
        static constexpr auto wireFields() { return std::tuple{wire::field("message", &Detail::message)}; }
    };
    Detail error;
    std::optional<QString> request_id;
    static constexpr auto wireFields() {
        return std::tuple{wire::field("error", &APIErrorEnvelope::error),
                          wire::field("request_id", &APIErrorEnvelope::request_id)};
    }
};

struct EventAccepted {
    bool accepted = false;
    static constexpr auto wireFields() {
        return std::tuple{wire::field("accepted", &EventAccepted::accepted)};
    }
};

struct HealthAccepted {
    QString provider;
    double health = 0;
    static constexpr auto wireFields() {
        return std::tuple{wire::field("provider", &HealthAccepted::provider),
                          wire::field("health", &HealthAccepted::health)};
    }
};

} // namespace

RelayClient::RelayClient(QUrl baseURL, std::optional<QString> token, QObject* parent)
    : QObject(parent), m_baseURL(std::move(baseURL)), m_token(std::move(token)) {}

std::optional<QUrl> RelayClient::resolve(const QString& path) const {
    const QUrl relative(path, QUrl::StrictMode);
    if (!relative.isValid() || !m_baseURL.isValid())
        return std::nullopt;
    // Relative resolution: a base that ends in a slash keeps its own path.
    const QUrl resolved = m_baseURL.resolved(relative);
    if (!resolved.isValid() || resolved.isRelative())
        return std::nullopt;
    return resolved;
}

Result<http::Request> RelayClient::request(const QString& path, const QByteArray& method, bool auth) const {
    const std::optional<QUrl> url = resolve(path);
    if (!url)
        return Error{invalidURLMessage};
    http::Request request;
    request.request.setUrl(*url);
    http::setTimeout(request.request, requestTimeout);
    request.method = method;
    request.request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    if (auth) {
        if (!m_token)
            return Error{notSignedInMessage};
        request.request.setRawHeader("Authorization", "Bearer " + m_token->toUtf8());
    }
    return request;
}

Result<http::Request> RelayClient::withBody(Result<http::Request> request, QByteArray body) {
    if (request)
        request.value().body = std::move(body);
    return request;
}

QCoro::Task<Result<QByteArray>> RelayClient::send(http::Request request) {
    const http::Response response = co_await http::perform(std::move(request));
    if (!response.status)
        co_return Error{response.transportError.isEmpty() ? noResponseMessage : response.transportError};
    if (response.isSuccess())
        co_return response.body;
    co_return Error{errorMessage(*response.status, response.body)};
}

QCoro::Task<Result<QByteArray>> RelayClient::postRawData(QString path, QJsonObject body, bool auth) const {
    Result<http::Request> prepared =
        withBody(request(path, "POST", auth), QJsonDocument(body).toJson(QJsonDocument::Compact));
    if (!prepared)
        co_return prepared.error();
    co_return co_await send(std::move(prepared).value());
}

QCoro::Task<Result<void>> RelayClient::sendWithoutAnswer(QString path, QByteArray method) const {
    Result<http::Request> prepared = request(path, method);
    if (!prepared)
        co_return prepared.error();
    const Result<QByteArray> answer = co_await send(std::move(prepared).value());
    if (!answer)
        co_return answer.error();
    co_return Result<void>{};
}

QString RelayClient::errorMessage(int status, const QByteArray& body) {
    if (const auto envelope = wire::decodeJson<APIErrorEnvelope>(body)) {
        QString message = envelope->error.message;
        if (envelope->request_id)
            message += QStringLiteral(" (%1)").arg(*envelope->request_id);
        return message;
    }
    // The older flat form: {"error": "..."} with nothing but strings.
    if (const auto flat = wire::decodeJson<std::map<QString, QString>>(body)) {
        if (const auto it = flat->find(QStringLiteral("error")); it != flat->end())
            return it->second;
    }
    return QStringLiteral("relay returned %1").arg(status);
}

Error RelayClient::decodingFailure(const wire::DecodeError& error) {
    return Error{QStringLiteral("The relay's answer could not be read (%1).").arg(error.message())};
}

QCoro::Task<bool> RelayClient::isReachable() const {
    const std::optional<QUrl> url = resolve(QStringLiteral("v1/health"));
    if (!url)
        co_return false;
    http::Request request;
    request.request.setUrl(*url);
    http::setTimeout(request.request, healthTimeout);
    request.request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    const http::Response response = co_await http::perform(std::move(request));
    co_return response.status == 200;
}

QCoro::Task<> RelayClient::logout(std::optional<QString> token) const {
    if (!token)
        co_return;
    const std::optional<QUrl> url = resolve(QStringLiteral("v1/auth/logout"));
    if (!url)
        co_return;
    http::Request request;
    request.request.setUrl(*url);
    http::setTimeout(request.request, requestTimeout);
    request.method = "POST";
    request.request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    request.request.setRawHeader("Authorization", "Bearer " + token->toUtf8());
    // Signing out locally must not depend on the relay agreeing.
    (void)co_await send(std::move(request));
}

QCoro::Task<Result<void>> RelayClient::recordRunEvent(QString runId, QString name, QString type,
                                                      qint64 tokens, double costUSD, QString detail) const {
    const QJsonObject body{{"run_id", runId},  {"name", name},        {"type", type},
                           {"tokens", tokens}, {"cost_usd", costUSD}, {"detail", detail}};
    const Result<EventAccepted> answer = co_await postRaw<EventAccepted>(QStringLiteral("v1/events"), body);
    if (!answer)
        co_return answer.error();
    co_return Result<void>{};
}

QCoro::Task<Result<void>> RelayClient::recordProviderHealth(QString provider, bool success,
                                                            qint64 latencyMs) const {
    const QJsonObject body{{"provider", provider}, {"success", success}, {"latency_ms", latencyMs}};
    const Result<HealthAccepted> answer =
        co_await postRaw<HealthAccepted>(QStringLiteral("v1/router/health"), body);
    if (!answer)
        co_return answer.error();
    co_return Result<void>{};
}
