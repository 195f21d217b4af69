#pragma once

#include "QuillmereDesktop/Auth/RelayClient.h"
#include "QuillmereDesktop/common/QmlSingleton.h"
#include "QuillmereDesktop/context/ProjectRecords.h"

#include <QObject>
#include <QtQml/qqmlregistration.h>
#include <qcoro/qcorotask.h>

#include <optional>

// The relay's list of projects. There is no selected project apart from the working folder
// (the application state's `terminalWorkingDirectory`): the list only names folders.
// Made once by the application entry and kept for the life of the process.
class ProjectStore : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON
    Q_PROPERTY(bool isLoading READ isLoading NOTIFY changed)
    Q_PROPERTY(QString error READ errorText NOTIFY changed)

public:
    // No default constructor on purpose: QML would make a store of its own with it, instead of
    // asking `create` for the application's one.
    explicit ProjectStore(QObject* parent) : QObject(parent) {}

    static ProjectStore* create(QQmlEngine* qml, QJSEngine* js) {
        return QmlSingleton<ProjectStore>::create(qml, js);
    }

    const QList<MereProject>& projects() const { return m_projects; }
    bool isLoading() const { return m_isLoading; }
    const std::optional<QString>& error() const { return m_error; }
    QString errorText() const { return m_error.value_or(QString()); }

    // A folder's own name: the last component of its path ("/" stays "/").
    static QString lastPathComponent(const QString& path);

    // The projects with a local folder, in the relay's order: the ones a person can pick.
    QList<MereProject> selectable() const;
    // The first selectable project whose folder is exactly `path`.
    std::optional<MereProject> project(const QString& forPath) const;

    // Reads the list; a failure keeps the old list and sets `error`.
    QCoro::Task<> load(RelayClient* client);
    // Registers `path` under its folder name and reloads; gives the path as the relay keeps
    // it (normalised), or nothing when the registration failed.
    QCoro::Task<std::optional<QString>> adopt(QString path, RelayClient* client);

signals:
    void changed();

private:
    QList<MereProject> m_projects;
    bool m_isLoading = false;
    std::optional<QString> m_error;
};
