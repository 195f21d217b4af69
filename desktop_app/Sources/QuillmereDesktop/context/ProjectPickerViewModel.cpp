#include "QuillmereDesktop/context/ProjectPickerViewModel.h"

ProjectPickerViewModel::ProjectPickerViewModel(QObject* parent) : QObject(parent) {}

void ProjectPickerViewModel::setApp(AppState* app) {
    if (m_app == app)
        return;
    if (m_app)
        disconnect(m_app, nullptr, this, nullptr);
    m_app = app;
    if (m_app)
        connect(m_app, &AppState::terminalWorkingDirectoryChanged, this,
                &ProjectPickerViewModel::shownChanged);
    emit sourcesChanged();
    emit shownChanged();
}

void ProjectPickerViewModel::setAuth(AuthStore* auth) {
    if (m_auth == auth)
        return;
    m_auth = auth;
    emit sourcesChanged();
}

void ProjectPickerViewModel::setStore(ProjectStore* store) {
    if (m_store == store)
        return;
    if (m_store)
        disconnect(m_store, nullptr, this, nullptr);
    m_store = store;
    if (m_store)
        connect(m_store, &ProjectStore::changed, this, &ProjectPickerViewModel::shownChanged);
    emit sourcesChanged();
    emit shownChanged();
}

void ProjectPickerViewModel::setDrawer(TerminalDrawerController* drawer) {
    if (m_drawer == drawer)
        return;
    if (m_drawer)
        disconnect(m_drawer, nullptr, this, nullptr);
    m_drawer = drawer;
    if (m_drawer)
        connect(m_drawer, &TerminalDrawerController::sessionDirectoryChanged, this,
                &ProjectPickerViewModel::shownChanged);
    emit sourcesChanged();
    emit shownChanged();
}

QString ProjectPickerViewModel::workingDirectory() const {
    return m_app ? m_app->terminalWorkingDirectory() : QString();
}

QString ProjectPickerViewModel::currentLabel() const {
    const QString path = workingDirectory();
    if (m_store)
        if (const auto project = m_store->project(path))
            return project->name;
    return ProjectStore::lastPathComponent(path);
}

QVariantList ProjectPickerViewModel::rows() const {
    QVariantList result;
    if (!m_store)
        return result;
    const QString path = workingDirectory();
    for (const MereProject& project : m_store->selectable()) {
        // Three spaces keep the names of unticked rows in line with the ticked one.
        const QString mark = project.root_path == path ? QStringLiteral("✓ ") : QStringLiteral("   ");
        result.append(QVariantMap{{"label", mark + project.name}, {"path", project.root_path}});
    }
    return result;
}

bool ProjectPickerViewModel::hasProjects() const {
    return m_store && !m_store->selectable().isEmpty();
}

QString ProjectPickerViewModel::terminalNotice() const {
    if (!m_drawer || !m_drawer->sessionDirectory())
        return {};
    const QString& shells = *m_drawer->sessionDirectory();
    if (shells == workingDirectory())
        return {};
    return QStringLiteral("Terminal still in ") + ProjectStore::lastPathComponent(shells);
}

QVariantMap ProjectPickerViewModel::labels() {
    return {{"project", "project"},
            {"noProjects", "No projects yet"},
            {"chooseFolder", "Choose Folder…"},
            {"restart", "Restart here"},
            {"restartHelp", "Ends anything running in the terminal and starts new shells in this folder."},
            {"dialogAccept", "Use Folder"},
            {"dialogMessage", "Claude Code and Codex will start here."}};
}

void ProjectPickerViewModel::load() {
    if (m_store)
        m_store->load(client());
}

void ProjectPickerViewModel::select(const QString& path) {
    selectNow(path);
}

void ProjectPickerViewModel::folderChosen(const QUrl& folder) {
    if (folder.isLocalFile())
        chooseNow(folder.toLocalFile());
}

void ProjectPickerViewModel::setWorkingDirectory(const QString& path) {
    if (m_app)
        m_app->setTerminalWorkingDirectory(path);
}

QCoro::Task<> ProjectPickerViewModel::selectNow(QString path) {
    // The folder is valid here whatever the relay says, so it changes first.
    setWorkingDirectory(path);
    if (m_store)
        co_await m_store->adopt(path, client());
}

QCoro::Task<> ProjectPickerViewModel::chooseNow(QString path) {
    setWorkingDirectory(path);
    if (!m_store)
        co_return;
    QPointer<ProjectPickerViewModel> self(this);
    const std::optional<QString> kept = co_await m_store->adopt(path, client());
    if (self && kept && *kept != path)
        setWorkingDirectory(*kept);
}
