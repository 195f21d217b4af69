#include "QuillmereDesktop/routing/PresetCalls.h"

#include "QuillmereDesktop/common/DataEnvelope.h"

namespace presetcalls {

namespace {

QString presetPath(const QString& slug) {
    return QStringLiteral("v1/presets/") + QString::fromLatin1(QUrl::toPercentEncoding(slug));
}

} // namespace

QCoro::Task<Result<QList<InferencePreset>>> list(const RelayClient& client) {
    return unwrapData(client.get<PresetListEnvelope>(QStringLiteral("v1/presets")));
}

QCoro::Task<Result<InferencePreset>> save(const RelayClient& client, QString slug, PresetCaptureInput input) {
    return unwrapData(client.post<PresetEnvelope>(presetPath(slug) + QStringLiteral("/chat/completions"),
                                                  std::move(input)));
}

QCoro::Task<Result<InferencePreset>> designate(const RelayClient& client, QString slug, qint64 version) {
    return unwrapData(client.postRaw<PresetEnvelope>(presetPath(slug) + QStringLiteral("/versions/") +
                                                         QString::number(version) +
                                                         QStringLiteral("/designate"),
                                                     QJsonObject{}));
}

QCoro::Task<Result<void>> remove(const RelayClient& client, QString slug) {
    return client.sendWithoutAnswer(presetPath(slug), "DELETE");
}

} // namespace presetcalls
