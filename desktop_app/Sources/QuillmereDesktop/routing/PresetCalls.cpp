#include "QuillmereDesktop/routing/PresetCalls.h"

namespace presetcalls {

namespace {

QString presetPath(const QString& slug) {
    return QStringLiteral("v1/presets/") + QString::fromLatin1(QUrl::toPercentEncoding(slug));
}

QCoro::Task<Result<InferencePreset>> unwrap(QCoro::Task<Result<PresetEnvelope>> answer) {
    Result<PresetEnvelope> envelope = co_await std::move(answer);
    if (!envelope)
        co_return envelope.error();
    co_return std::move(envelope).value().data;
}

QCoro::Task<Result<QList<InferencePreset>>> unwrapList(QCoro::Task<Result<PresetListEnvelope>> answer) {
    Result<PresetListEnvelope> envelope = co_await std::move(answer);
    if (!envelope)
        co_return envelope.error();
    co_return std::move(envelope).value().data;
}

QCoro::Task<Result<void>> ignoreBody(Result<http::Request> request) {
    if (!request)
        co_return request.error();
    const Result<QByteArray> answer = co_await RelayClient::send(std::move(request).value());
    if (!answer)
        co_return answer.error();
    co_return Result<void>{};
}

} // namespace

QCoro::Task<Result<QList<InferencePreset>>> list(const RelayClient& client) {
    return unwrapList(client.get<PresetListEnvelope>(QStringLiteral("v1/presets")));
}

QCoro::Task<Result<InferencePreset>> save(const RelayClient& client, QString slug, PresetCaptureInput input) {
    return unwrap(client.post<PresetEnvelope>(presetPath(slug) + QStringLiteral("/chat/completions"),
                                              std::move(input)));
}

QCoro::Task<Result<InferencePreset>> designate(const RelayClient& client, QString slug, qint64 version) {
    return unwrap(client.postRaw<PresetEnvelope>(presetPath(slug) + QStringLiteral("/versions/") +
                                                     QString::number(version) + QStringLiteral("/designate"),
                                                 QJsonObject{}));
}

QCoro::Task<Result<void>> remove(const RelayClient& client, QString slug) {
    return ignoreBody(client.request(presetPath(slug), "DELETE"));
}

} // namespace presetcalls
