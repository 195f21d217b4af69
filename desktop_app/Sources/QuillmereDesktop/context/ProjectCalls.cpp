#include "QuillmereDesktop/Auth/RelayClient.h"

// The relay calls of projects and their context. Ids go into paths percent-encoded, so an id
// can never reach another path.

namespace {

QString projectPath(const QString& projectId) {
    return QStringLiteral("v1/projects/") + QString::fromLatin1(QUrl::toPercentEncoding(projectId));
}

} // namespace

QCoro::Task<Result<MereProject>> RelayClient::upsertProject(QString name, QString rootPath) const {
    return post<MereProject>(QStringLiteral("v1/projects"),
                             ProjectUpsertInput{std::move(name), std::move(rootPath)});
}

QCoro::Task<Result<QList<MereProject>>> RelayClient::projects() const {
    return get<QList<MereProject>>(QStringLiteral("v1/projects"));
}

QCoro::Task<Result<QList<ProjectContextItem>>> RelayClient::contextItems(QString projectId) const {
    return get<QList<ProjectContextItem>>(projectPath(projectId) + QStringLiteral("/context"));
}

QCoro::Task<Result<ProjectContextItem>> RelayClient::saveContext(QString projectId, QString title,
                                                                 QString content, QString source) const {
    return post<ProjectContextItem>(
        projectPath(projectId) + QStringLiteral("/context"),
        ContextItemInput{std::move(title), std::move(content), std::move(source)});
}

QCoro::Task<Result<ContextPack>> RelayClient::contextPack(QString projectId, QString query,
                                                          qint64 characterBudget) const {
    const QJsonObject body{{"query", query}, {"character_budget", characterBudget}};
    return postRaw<ContextPack>(projectPath(projectId) + QStringLiteral("/context/pack"), body);
}

QCoro::Task<Result<void>> RelayClient::deleteContext(QString projectId, QString itemId) const {
    // The answer's body says nothing the screen needs.
    return sendWithoutAnswer(projectPath(projectId) + QStringLiteral("/context/") +
                                 QString::fromLatin1(QUrl::toPercentEncoding(itemId)),
                             "DELETE");
}
