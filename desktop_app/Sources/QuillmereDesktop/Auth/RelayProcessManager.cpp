#include "QuillmereDesktop/Auth/RelayProcessManager.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>
#include <qcoro/qcoroprocess.h>

#include <csignal>
#include <sys/prctl.h>

namespace {

std::optional<QString> firstExisting(const QStringList& candidates, bool mustBeExecutable) {
    for (const QString& candidate : candidates) {
        const QFileInfo info(QDir::cleanPath(candidate));
        if (!info.isFile())
            continue;
        if (mustBeExecutable && !info.isExecutable())
            continue;
        return info.absoluteFilePath();
    }
    return std::nullopt;
}

} // namespace

RelayProcessConfig RelayProcessConfig::system() {
    RelayProcessConfig config;
    if (QCoreApplication::instance())
        config.resourceDirectories << QCoreApplication::applicationDirPath();
    config.resourceDirectories << QStringLiteral(QUILLMERE_DATA_DIR);
    config.currentDirectory = QDir::currentPath();
    config.sourceRoot = QStringLiteral(QUILLMERE_SOURCE_ROOT);
    config.searchPath = QString::fromLocal8Bit(qgetenv("PATH"));
    config.supportDirectory = QDir(QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation))
                                  .filePath(QStringLiteral("Quillmere"));
    config.baseEnvironment = QProcessEnvironment::systemEnvironment();
    return config;
}

RelayProcessManager::RelayProcessManager(RelayProcessConfig config, QObject* parent)
    : QObject(parent), m_config(std::move(config)) {}

RelayProcessManager::~RelayProcessManager() {
    terminateOwned();
}

RelayProcessManager& RelayProcessManager::shared() {
    static RelayProcessManager* instance = new RelayProcessManager(RelayProcessConfig::system(), qApp);
    return *instance;
}

std::optional<qint64> RelayProcessManager::processId() const {
    if (!isRunning())
        return std::nullopt;
    return m_process->processId();
}

std::optional<QString> RelayProcessManager::relayServerPath() const {
    QStringList candidates;
    for (const QString& folder : m_config.resourceDirectories)
        candidates << QDir(folder).filePath(QStringLiteral("relay/server.py"));
    candidates
        << QDir(m_config.currentDirectory).filePath(QStringLiteral("cloud_app/src/relay/server.py"))
        << QDir(m_config.currentDirectory).filePath(QStringLiteral("../cloud_app/src/relay/server.py"));
    if (!m_config.sourceRoot.isEmpty())
        candidates << QDir(m_config.sourceRoot).filePath(QStringLiteral("cloud_app/src/relay/server.py"));
    return firstExisting(candidates, false);
}

std::optional<QString> RelayProcessManager::pythonPath() const {
    QStringList candidates;
    // An interpreter shipped with the app wins over whatever the system has.
    for (const QString& folder : m_config.resourceDirectories)
        candidates << QDir(folder).filePath(QStringLiteral("python/bin/python3"));
    for (const QString& folder : m_config.searchPath.split(QLatin1Char(':'), Qt::SkipEmptyParts))
        candidates << QDir(folder).filePath(QStringLiteral("python3"));
    candidates << m_config.systemInterpreters;
    return firstExisting(candidates, true);
}

Result<QString> RelayProcessManager::applicationSupportPath() const {
    if (!QDir().mkpath(m_config.supportDirectory))
        return Error{QStringLiteral("The folder %1 could not be created.").arg(m_config.supportDirectory)};
    return m_config.supportDirectory;
}

QProcessEnvironment RelayProcessManager::relayEnvironment(const QString& supportPath) const {
    QProcessEnvironment environment = m_config.baseEnvironment;
    const QDir support(supportPath);
    environment.insert(QStringLiteral("MERE_RELAY_PORT"), QString::number(m_config.port));
    environment.insert(QStringLiteral("MERE_RELAY_DB_PATH"), support.filePath(QStringLiteral("relay.db")));
    environment.insert(QStringLiteral("MERE_RELAY_ENV_PATH"), support.filePath(QStringLiteral("relay.env")));
    environment.insert(QStringLiteral("MERE_RELAY_LOCAL_AUTH"), QStringLiteral("1"));
    environment.insert(QStringLiteral("PYTHONDONTWRITEBYTECODE"), QStringLiteral("1"));
    return environment;
}

QCoro::Task<Result<void>> RelayProcessManager::start() {
    if (isRunning())
        co_return Result<void>{};
    if (m_launching) {
        // One launch at a time: a second start shares the outcome of the one under way.
        QPointer<QProcess> launching = m_launching;
        co_await qCoro(launching.data()).waitForStarted(m_config.startTimeout);
        if (launching && launching->state() == QProcess::Running)
            co_return Result<void>{};
        co_return Error{launching ? launching->errorString() : launchAbandonedMessage};
    }
    const std::optional<QString> script = relayServerPath();
    if (!script)
        co_return Error{scriptMissingMessage};
    const std::optional<QString> python = pythonPath();
    if (!python)
        co_return Error{pythonMissingMessage};
    const Result<QString> support = applicationSupportPath();
    if (!support)
        co_return support.error();

    QProcessEnvironment environment = relayEnvironment(support.value());
    if (m_config.inventoryEnvironment) {
        QPointer<RelayProcessManager> self(this);
        const auto extra = co_await m_config.inventoryEnvironment();
        if (!self)
            co_return Error{launchAbandonedMessage};
        if (!extra)
            co_return extra.error();
        // Someone else's start may have launched the relay while the inventory was read.
        if (isRunning() || m_launching)
            co_return co_await start();
        // The inventory's values win, over the table above as well.
        for (const auto& [name, value] : extra.value())
            environment.insert(name, value);
    }

    auto* process = new QProcess(this);
    process->setProgram(*python);
    process->setArguments({*script});
    process->setWorkingDirectory(QFileInfo(*script).absolutePath());
    process->setProcessEnvironment(environment);
    // The relay's output is neither shown nor logged, and must never fill a pipe.
    process->setStandardOutputFile(QProcess::nullDevice());
    process->setStandardErrorFile(QProcess::nullDevice());
    // If this process dies without a chance to stop it, the relay goes too.
    process->setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGTERM); });
    co_return co_await launch(process);
}

QCoro::Task<Result<void>> RelayProcessManager::launch(QProcess* process) {
    QPointer<RelayProcessManager> self(this);
    QPointer<QProcess> guarded(process);
    m_launching = process;
    process->start();
    const bool started = co_await qCoro(process).waitForStarted(m_config.startTimeout);
    // The manager owns the process: if either went away meanwhile, so did the launch.
    if (!self || !guarded)
        co_return Error{launchAbandonedMessage};
    m_launching = nullptr;
    if (!started || process->state() != QProcess::Running) {
        const QString message = process->errorString();
        // Not running at all, or still starting after the time-out: either way it goes.
        terminateProcess(process);
        co_return Error{message};
    }
    if (m_process)
        terminateProcess(m_process);
    m_process = process;
    co_return Result<void>{};
}

QCoro::Task<Result<void>> RelayProcessManager::restart() {
    if (!m_process)
        co_return Error{notOwnedMessage};
    QPointer<RelayProcessManager> self(this);
    co_await stop();
    if (!self)
        co_return Error{launchAbandonedMessage};
    co_return co_await start();
}

QCoro::Task<> RelayProcessManager::stop() {
    // The stopping child is the coroutine's from here on, so that it is waited for even if
    // the manager goes away meanwhile.
    QPointer<QProcess> process = m_process.data();
    m_process = nullptr;
    if (!process)
        co_return;
    process->setParent(nullptr);
    const std::chrono::milliseconds stopGrace = m_config.stopGrace;
    const std::chrono::milliseconds killGrace = m_config.killGrace;
    if (process->state() != QProcess::NotRunning) {
        process->terminate();
        co_await qCoro(process.data()).waitForFinished(stopGrace);
    }
    if (process && process->state() != QProcess::NotRunning) {
        // It did not stop when asked: the relay keeps nothing that a kill would lose.
        process->kill();
        co_await qCoro(process.data()).waitForFinished(killGrace);
    }
    if (process)
        terminateProcess(process);
}

void RelayProcessManager::terminateOwned() {
    if (m_launching)
        terminateProcess(m_launching);
    m_launching = nullptr;
    if (m_process)
        terminateProcess(m_process);
    m_process = nullptr;
}

void RelayProcessManager::terminateProcess(QProcess* process) {
    // Deferred: the caller may be running inside one of the process's own signals (a wait
    // resumes there), and the process must outlive its emission.
    if (process->state() == QProcess::NotRunning) {
        process->deleteLater();
        return;
    }
    // Deleting a running QProcess would block until it is gone. Asked to stop, it is instead
    // left to end by itself, and deleted once it has; if this process ends first, the child
    // still gets its stop request and the system collects it.
    process->setParent(nullptr);
    QObject::connect(process, &QProcess::finished, process, &QObject::deleteLater);
    process->terminate();
}
