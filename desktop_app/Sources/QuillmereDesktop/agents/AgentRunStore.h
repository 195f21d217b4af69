#pragma once

#include "QuillmereDesktop/agents/AgentRun.h"
#include "QuillmereDesktop/agents/Graphemes.h"
#include "QuillmereDesktop/common/LoginShell.h"
#include "QuillmereDesktop/common/QmlSingleton.h"
#include "QuillmereDesktop/common/Result.h"
#include "QuillmereDesktop/terminal/HeldRelayClient.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QProcess>
#include <QString>
#include <QUuid>
#include <QtQml/qqmlregistration.h>
#include <qcoro/qcorotask.h>

#include <functional>
#include <memory>
#include <optional>

// What the run store takes from outside: how it finds the shell, and the output limit.
struct AgentRunStoreConfig {
    // The most output kept from one run, in user-perceived characters.
    static constexpr qsizetype defaultMaxCapturedCharacters = 2'000'000;

    std::function<QString()> loginShell = loginShell::current;
    qsizetype maxCapturedCharacters = defaultMaxCapturedCharacters;
};

// The one owner of every agent run of the app's lifetime: it enforces the limit of
// concurrent runs, starts local agents on pipes through the login shell, gathers their
// output, and records each run's life on the relay. Runs stay listed, newest first,
// until the app quits; nothing is kept on disk.
class AgentRunStore : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON
    Q_PROPERTY(int activeCount READ activeCount NOTIFY runsChanged)

public:
    // QML sees the one instance the application made.
    static AgentRunStore* create(QQmlEngine* qml, QJSEngine* js) {
        return QmlSingleton<AgentRunStore>::create(qml, js);
    }

    // How many runs may work at once (starting, running or being cancelled).
    static constexpr int maxConcurrentRuns = 4;
    // What follows the output in the relay's copy when the limit cut it; the run's own
    // output keeps its length.
    static inline const QString truncationMark = QStringLiteral("\n[OUTPUT TRUNCATED]");
    static inline const QString couldNotStartPrefix = QStringLiteral("Could not start: ");

    using Config = AgentRunStoreConfig;

    // No default constructor on purpose: QML would make a store of its own with it, instead
    // of asking `create` for the application's one.
    explicit AgentRunStore(Config config, QObject* parent = nullptr);
    ~AgentRunStore() override;

    const QList<AgentRun>& runs() const { return m_runs; }
    std::optional<AgentRun> run(const QUuid& id) const;
    int activeCount() const;
    qsizetype maxCapturedCharacters() const { return m_config.maxCapturedCharacters; }
    // A local process of this run has started and not yet been reported finished.
    bool hasProcess(const QUuid& id) const { return m_processes.contains(id); }

    // Starts a run, unless four are active (then nothing at all happens). Returns at once;
    // the run appears at the top of `runs` and the rest happens in a task.
    void launch(LocalAgent agent, AgentSafety safety, const QString& prompt, const QString& workingDirectory,
                RelayClient* client, std::optional<QString> preset = std::nullopt);
    // Asks a running local agent to stop, or cancels an API run; otherwise does nothing.
    void cancel(const QUuid& id);
    // At quit: asks every process to stop and cancels every API run, waiting for none.
    void terminateAll();

signals:
    void runsChanged();
    // Every report of this run has been sent to the relay (or has failed).
    void runRecorded(const QUuid& id);

private:
    // An API run in progress: cancelling it is cooperative, checked after each wait.
    struct APITask {
        bool cancelled = false;
    };

    AgentRun* find(const QUuid& id);
    void changeRun(const QUuid& id, const std::function<void(AgentRun&)>& change);
    void setStatus(const QUuid& id, AgentRunStatus status);

    QCoro::Task<> runLaunch(QUuid id, QString workingDirectory, HeldRelayClient client);
    QCoro::Task<Result<void>> startUnit(QUuid id, QString workingDirectory, HeldRelayClient client);
    QCoro::Task<Result<void>> startProcess(AgentRun run, QString workingDirectory, HeldRelayClient client);
    void watchProcess(QProcess* process, QUuid id, HeldRelayClient client);
    void appendOutput(const QString& text, const QUuid& id);
    QCoro::Task<> finish(QUuid id, int exitCode, HeldRelayClient client);
    QCoro::Task<> runAPI(QUuid id, QString prompt, std::optional<QString> preset, HeldRelayClient client,
                         std::shared_ptr<APITask> task);

    Config m_config;
    QList<AgentRun> m_runs;
    QHash<QUuid, QProcess*> m_processes;
    QHash<QUuid, std::shared_ptr<APITask>> m_apiTasks;
    // The character count of each run's output, kept as it grows.
    QHash<QUuid, graphemes::Tally> m_tallies;
};
