#include "QuillmereDesktop/Auth/RelayProcessManager.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

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

Result<void> RelayProcessManager::start() {
    if (isRunning())
        return {};
    const std::optional<QString> script = relayServerPath();
    if (!script)
        return Error{scriptMissingMessage};
    const std::optional<QString> python = pythonPath();
    if (!python)
        return Error{pythonMissingMessage};
    const Result<QString> support = applicationSupportPath();
    if (!support)
        return support.error();

    QProcessEnvironment environment = relayEnvironment(support.value());
    if (m_config.inventoryEnvironment) {
        const auto extra = m_config.inventoryEnvironment();
        if (!extra)
            return extra.error();
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
    process->start();
    if (!process->waitForStarted()) {
        const QString message = process->errorString();
        delete process;
        return Error{message};
    }
    if (m_process)
        m_process->deleteLater();
    m_process = process;
    return {};
}

Result<void> RelayProcessManager::restart() {
    if (!m_process)
        return Error{notOwnedMessage};
    terminateOwned();
    return start();
}

void RelayProcessManager::terminateOwned() {
    if (!m_process)
        return;
    QProcess* process = m_process;
    m_process = nullptr;
    if (process->state() != QProcess::NotRunning) {
        process->terminate();
        if (!process->waitForFinished(int(stopGrace.count()))) {
            process->kill();
            process->waitForFinished(int(stopGrace.count()));
        }
    }
    delete process;
}
