#include "QuillmereDesktop/routing/ClassifierCalls.h"

#include "QuillmereDesktop/common/DataEnvelope.h"

namespace classifiercalls {

namespace {

const QString kClassifiers = QStringLiteral("v1/classifiers");

QString classifierPath(const QString& id) {
    return kClassifiers + QLatin1Char('/') + QString::fromLatin1(QUrl::toPercentEncoding(id));
}

} // namespace

QCoro::Task<Result<QList<UsageClassifier>>> list(const RelayClient& client) {
    return unwrapData(client.get<ClassifierListEnvelope>(kClassifiers));
}

QCoro::Task<Result<QList<ClassificationActivity>>> activity(const RelayClient& client) {
    return client.get<QList<ClassificationActivity>>(kClassifiers + QStringLiteral("/activity"));
}

QCoro::Task<Result<UsageClassifier>> save(const RelayClient& client, std::optional<QString> id,
                                          ClassifierInput input) {
    if (id)
        return unwrapData(client.put<ClassifierEnvelope>(classifierPath(*id), std::move(input)));
    return unwrapData(client.post<ClassifierEnvelope>(kClassifiers, std::move(input)));
}

QCoro::Task<Result<void>> remove(const RelayClient& client, QString id) {
    return client.sendWithoutAnswer(classifierPath(id), "DELETE");
}

} // namespace classifiercalls
