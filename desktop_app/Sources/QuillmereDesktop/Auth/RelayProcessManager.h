#pragma once

#include "QuillmereDesktop/common/Result.h"

#include <QObject>
#include <QPointer>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <qcoro/qcorotask.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>

// Where the managed relay's pieces are looked for, and what it is given. The defaults
// describe this installation; tests point them at temporary folders.
struct RelayProcessConfig {
    static constexpr int defaultPort = 8787;
    // How long a launched interpreter gets to be running before the launch counts as failed.
    static constexpr std::chrono::milliseconds defaultStartTimeout{3000};
    // How long a relay asked to stop gets to end by itself before it is killed.
    static constexpr std::chrono::milliseconds defaultStopGrace{3000};
    // How long a killed relay gets to be gone before it is left to the system.
    static constexpr std::chrono::milliseconds defaultKillGrace{3000};

    // Folders that ship with the app: the executable's own and the installed data folder.
    QStringList resourceDirectories;
    QString currentDirectory;
    // The source tree, so that a development build finds the relay without installing.
    QString sourceRoot;
    // The process's PATH, searched for python3.
    QString searchPath;
    // The usual places of a system interpreter, tried after PATH.
    QStringList systemInterpreters{QStringLiteral("/usr/bin/python3"),
                                   QStringLiteral("/usr/local/bin/python3")};
    // The per-user data folder that holds the relay's database and settings.
    QString supportDirectory;
    int port = defaultPort;
    std::chrono::milliseconds startTimeout = defaultStartTimeout;
    std::chrono::milliseconds stopGrace = defaultStopGrace;
    std::chrono::milliseconds killGrace = defaultKillGrace;
    QProcessEnvironment baseEnvironment;
    // Extra variables from the provider inventory, asked afresh at every launch; none until
    // it exists. Awaited, because the keys come from the secret store.
    std::function<QCoro::Task<Result<std::map<QString, QString>>>()> inventoryEnvironment;

    // This installation's values.
    static RelayProcessConfig system();
};

// Finds the relay script and an interpreter, prepares the environment, and supervises
// the one relay child that this process starts. A relay someone else started is never
// touched. Nothing here blocks the event loop: starting and stopping are awaited, and
// each wait is bounded by a constant of the configuration.
class RelayProcessManager : public QObject {
    Q_OBJECT
public:
    static inline const QString scriptMissingMessage =
        QStringLiteral("The bundled relay files could not be found.");
    static inline const QString pythonMissingMessage =
        QStringLiteral("Python 3 is required to run the local relay.");
    static inline const QString notOwnedMessage =
        QStringLiteral("This relay was not launched by Quillmere, so the app will not restart it.");
    // Only seen when the manager goes away while a launch is under way.
    static inline const QString launchAbandonedMessage = QStringLiteral("The local relay was not started.");

    explicit RelayProcessManager(RelayProcessConfig config = RelayProcessConfig::system(),
                                 QObject* parent = nullptr);
    ~RelayProcessManager() override;

    // The one instance of the application.
    static RelayProcessManager& shared();

    // Launches the relay unless our child is already running (or being launched). Finishes
    // once the child runs, or with the reason it does not; readiness to answer requests is
    // for the caller to poll.
    QCoro::Task<Result<void>> start();
    // Stops our child and starts a new one with a fresh environment.
    QCoro::Task<Result<void>> restart();
    // Asks our child to stop and waits for it to end: after `stopGrace` it is killed, and
    // after a further `killGrace` it is left to the system. A relay we did not start is left
    // alone. The quit of the application awaits this.
    QCoro::Task<> stop();
    // For when there is no time to wait (the manager itself goes away): our child is asked
    // to stop and left to end by itself.
    void terminateOwned();

    // Replaces the inventory hook; the application sets it once, before the first launch.
    void setInventoryEnvironment(decltype(RelayProcessConfig::inventoryEnvironment) hook) {
        m_config.inventoryEnvironment = std::move(hook);
    }

    bool ownsProcess() const { return m_process != nullptr; }
    bool isRunning() const { return m_process && m_process->state() != QProcess::NotRunning; }
    std::optional<qint64> processId() const;

    std::optional<QString> relayServerPath() const;
    std::optional<QString> pythonPath() const;
    Result<QString> applicationSupportPath() const;
    // The environment the child is given, before the inventory's variables.
    QProcessEnvironment relayEnvironment(const QString& supportPath) const;

private:
    // The launch itself, once the checks have passed.
    QCoro::Task<Result<void>> launch(QProcess* process);
    // Lets go of a child without waiting for it: deleted soon if it has ended, otherwise
    // asked to stop and deleted once it has.
    static void terminateProcess(QProcess* process);

    RelayProcessConfig m_config;
    // Our running (or ended) child, replaced only by a launch that succeeded.
    QPointer<QProcess> m_process;
    // A child being launched, so that a second start waits for it instead of launching another.
    QPointer<QProcess> m_launching;
};
