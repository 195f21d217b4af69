#pragma once

#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/context/ProjectStore.h"
#include "QuillmereDesktop/queue/AppState.h"
#include "QuillmereDesktop/terminal/TerminalDrawerController.h"

#include <QObject>
#include <QPointer>
#include <QUrl>
#include <QVariantList>
#include <QtQml/qqmlregistration.h>
#include <qcoro/qcorotask.h>

// The small control that picks the working folder of terminals, runs and context: the
// relay's projects, "Choose Folder…", and the notice when the drawer's shells still run in
// another folder. Picking never touches the shells: the person restarts them when ready,
// since that ends whatever runs there.
class ProjectPickerViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(AppState* app READ app WRITE setApp NOTIFY sourcesChanged)
    Q_PROPERTY(AuthStore* auth READ auth WRITE setAuth NOTIFY sourcesChanged)
    Q_PROPERTY(ProjectStore* store READ store WRITE setStore NOTIFY sourcesChanged)
    Q_PROPERTY(TerminalDrawerController* drawer READ drawer WRITE setDrawer NOTIFY sourcesChanged)
    Q_PROPERTY(QString currentLabel READ currentLabel NOTIFY shownChanged)
    Q_PROPERTY(QVariantList rows READ rows NOTIFY shownChanged)
    Q_PROPERTY(bool hasProjects READ hasProjects NOTIFY shownChanged)
    Q_PROPERTY(QString terminalNotice READ terminalNotice NOTIFY shownChanged)
    Q_PROPERTY(QString workingDirectory READ workingDirectory NOTIFY shownChanged)
    Q_PROPERTY(int visibleRows READ visibleRows CONSTANT)
    Q_PROPERTY(QVariantMap labels READ labels CONSTANT)

public:
    static constexpr int visibleRowCount = 8;
    static constexpr int rowHeight = 22;

    explicit ProjectPickerViewModel(QObject* parent = nullptr);

    AppState* app() const { return m_app; }
    void setApp(AppState* app);
    AuthStore* auth() const { return m_auth; }
    void setAuth(AuthStore* auth);
    ProjectStore* store() const { return m_store; }
    void setStore(ProjectStore* store);
    TerminalDrawerController* drawer() const { return m_drawer; }
    void setDrawer(TerminalDrawerController* drawer);

    // The working folder's project name, or the folder's own name when the relay has none.
    QString currentLabel() const;
    // One row per selectable project: {label, path}; the working folder's row is ticked.
    QVariantList rows() const;
    bool hasProjects() const;
    // "Terminal still in <folder>" while the drawer's shells run elsewhere; empty otherwise.
    QString terminalNotice() const;
    QString workingDirectory() const;
    static int visibleRows() { return visibleRowCount; }
    static QVariantMap labels();

    // Reads the relay's list; the picker calls it when it appears.
    Q_INVOKABLE void load();
    // A project's row: the folder becomes the working folder, and the relay hears of it.
    Q_INVOKABLE void select(const QString& path);
    // The folder dialog's choice; the relay's normalised form wins once it answers.
    Q_INVOKABLE void folderChosen(const QUrl& folder);

    QCoro::Task<> selectNow(QString path);
    QCoro::Task<> chooseNow(QString path);

signals:
    void sourcesChanged();
    void shownChanged();

private:
    RelayClient* client() const { return m_auth ? m_auth->client() : nullptr; }
    void setWorkingDirectory(const QString& path);

    QPointer<AppState> m_app;
    QPointer<AuthStore> m_auth;
    QPointer<ProjectStore> m_store;
    QPointer<TerminalDrawerController> m_drawer;
};
