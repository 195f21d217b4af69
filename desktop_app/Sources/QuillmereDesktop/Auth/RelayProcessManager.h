#pragma once

#include "QuillmereDesktop/common/Result.h"

#include <QObject>
#include <QPointer>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

#include <chrono>
#include <functional>
#include <map>
#include <optional>

// Where the managed relay's pieces are looked for, and what it is given. The defaults
// describe this installation; tests point them at temporary folders.
struct RelayProcessConfig {
    static constexpr int defaultPort = 8787;

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
    QProcessEnvironment baseEnvironment;
    // Extra variables from the provider inventory; none until it exists.
    std::function<Result<std::map<QString, QString>>()> inventoryEnvironment;

    // This installation's values.
    static RelayProcessConfig system();
};

// Finds the relay script and an interpreter, prepares the environment, and supervises
// the one relay child that this process starts. A relay someone else started is never
// touched.
class RelayProcessManager : public QObject {
    Q_OBJECT
public:
    static inline const QString scriptMissingMessage =
        QStringLiteral("The bundled relay files could not be found.");
    static inline const QString pythonMissingMessage =
        QStringLiteral("Python 3 is required to run the local relay.");
    static inline const QString notOwnedMessage =
        QStringLiteral("This relay was not launched by Quillmere, so the app will not restart it.");
    // How long a relay gets to stop by itself before it is killed.
    static constexpr std::chrono::milliseconds stopGrace{3000};

    explicit RelayProcessManager(RelayProcessConfig config = RelayProcessConfig::system(),
                                 QObject* parent = nullptr);
    ~RelayProcessManager() override;

    // The one instance of the application.
    static RelayProcessManager& shared();

    // Launches the relay unless our child is already running. Returns once it is launched;
    // readiness is for the caller to poll.
    Result<void> start();
    // Stops our child, waiting for it, and starts a new one with a fresh environment.
    Result<void> restart();
    // Ends our child at quit. A relay we did not start is left alone.
    void terminateOwned();

    bool ownsProcess() const { return m_process != nullptr; }
    bool isRunning() const { return m_process && m_process->state() != QProcess::NotRunning; }
    std::optional<qint64> processId() const;

    std::optional<QString> relayServerPath() const;
    std::optional<QString> pythonPath() const;
    Result<QString> applicationSupportPath() const;
    // The environment the child is given, before the inventory's variables.
    QProcessEnvironment relayEnvironment(const QString& supportPath) const;

private:
    RelayProcessConfig m_config;
    QPointer<QProcess> m_process;
};
