#include "QuillmereDesktop/context/ProjectStore.h"

#include <QPointer>

QString ProjectStore::lastPathComponent(const QString& path) {
    QString trimmed = path;
    while (trimmed.size() > 1 && trimmed.endsWith(QLatin1Char('/')))
        trimmed.chop(1);
    if (trimmed == QStringLiteral("/"))
        return trimmed;
    return trimmed.mid(trimmed.lastIndexOf(QLatin1Char('/')) + 1);
}

QList<MereProject> ProjectStore::selectable() const {
    QList<MereProject> result;
    for (const MereProject& project : m_projects)
        if (!project.root_path.isEmpty())
            result.append(project);
    return result;
}

std::optional<MereProject> ProjectStore::project(const QString& forPath) const {
    for (const MereProject& project : m_projects)
        if (!project.root_path.isEmpty() && project.root_path == forPath)
            return project;
    return std::nullopt;
}

QCoro::Task<> ProjectStore::load(RelayClient* client) {
    if (!client)
        co_return;
    QPointer<ProjectStore> self(this);
    m_isLoading = true;
    emit changed();
    const Result<QList<MereProject>> answer = co_await client->projects();
    if (!self)
        co_return;
    if (answer) {
        m_projects = answer.value();
        m_error.reset();
    } else {
        m_error = answer.error().message;
    }
    m_isLoading = false;
    emit changed();
}

QCoro::Task<std::optional<QString>> ProjectStore::adopt(QString path, RelayClient* client) {
    if (!client)
        co_return std::nullopt;
    QPointer<ProjectStore> self(this);
    QPointer<RelayClient> guardedClient(client);
    const Result<MereProject> project = co_await client->upsertProject(lastPathComponent(path), path);
    if (!self)
        co_return std::nullopt;
    if (!project) {
        m_error = project.error().message;
        emit changed();
        co_return std::nullopt;
    }
    if (guardedClient)
        co_await load(guardedClient);
    if (!self)
        co_return project.value().root_path;
    m_error.reset();
    emit changed();
    co_return project.value().root_path;
}
