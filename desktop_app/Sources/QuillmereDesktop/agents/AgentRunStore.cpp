#include "QuillmereDesktop/agents/AgentRunStore.h"

#include "QuillmereDesktop/agents/AgentCommands.h"
#include "QuillmereDesktop/terminal/TerminalSessions.h"
#include "QuillmereDesktop/terminal/Utf8Repair.h"

#include <QPointer>
#include <qcoro/qcorosignal.h>

#include <algorithm>

using namespace agentCommands;

namespace {

// The few words of the store's own failures.
const QString storeGoneMessage = QStringLiteral("The run store is gone.");
const QString processGoneMessage = QStringLiteral("The process is gone.");
// What an API run asks the router for: analysis text for the whole prompt, on whichever
// lane the router picks.
const QString apiTask = QStringLiteral("reason");
const QString apiModel = QStringLiteral("auto");
constexpr qint64 apiMaxOutputTokens = 4000;
const QString apiFailedPrefix = QStringLiteral("API run failed: ");
// A login shell that runs one line and ends.
const QStringList loginShellFlags{QStringLiteral("-l"), QStringLiteral("-c")};

// Waits until a process has left the starting state; true if it is running (or has
// already run, ended and gone), false if it could not be started at all.
QCoro::Task<bool> startedOrFailed(QPointer<QProcess> process) {
    while (process && process->state() == QProcess::Starting)
        co_await qCoro(process.data(), &QProcess::stateChanged);
    if (!process)
        co_return true; // only a process that ran to its end is deleted this early
    co_return process->state() == QProcess::Running || process->error() != QProcess::FailedToStart;
}

} // namespace

AgentRunStore::AgentRunStore(Config config, QObject* parent) : QObject(parent), m_config(std::move(config)) {}

AgentRunStore::~AgentRunStore() {
    // The store goes only at quit: processes still running are stopped without a report.
    for (QProcess* process : std::as_const(m_processes)) {
        process->disconnect(this);
        process->kill();
    }
}

std::optional<AgentRun> AgentRunStore::run(const QUuid& id) const {
    for (const AgentRun& run : m_runs)
        if (run.id == id)
            return run;
    return std::nullopt;
}

AgentRun* AgentRunStore::find(const QUuid& id) {
    for (AgentRun& run : m_runs)
        if (run.id == id)
            return &run;
    return nullptr;
}

int AgentRunStore::activeCount() const {
    return int(
        std::count_if(m_runs.begin(), m_runs.end(), [](const AgentRun& r) { return isActive(r.status); }));
}

void AgentRunStore::changeRun(const QUuid& id, const std::function<void(AgentRun&)>& change) {
    if (AgentRun* run = find(id)) {
        change(*run);
        emit runsChanged();
    }
}

void AgentRunStore::setStatus(const QUuid& id, AgentRunStatus status) {
    changeRun(id, [status](AgentRun& run) { run.status = status; });
}

void AgentRunStore::launch(LocalAgent agent, AgentSafety safety, const QString& prompt,
                           const QString& workingDirectory, RelayClient* client,
                           std::optional<QString> preset) {
    // The orchestrator screen already refuses a fifth run; this is the last guard, silent.
    if (activeCount() >= maxConcurrentRuns)
        return;
    AgentRun run;
    run.id = QUuid::createUuid();
    run.agent = agent;
    run.safety = safety;
    run.preset = std::move(preset);
    run.prompt = prompt;
    run.startedAt = QDateTime::currentDateTimeUtc();
    m_runs.prepend(run);
    emit runsChanged();
    runLaunch(run.id, workingDirectory, HeldRelayClient(client));
}

QCoro::Task<> AgentRunStore::runLaunch(QUuid id, QString workingDirectory, HeldRelayClient client) {
    QPointer<AgentRunStore> self(this);
    const Result<void> started = co_await startUnit(id, workingDirectory, client);
    if (!self || started)
        co_return;
    const std::optional<AgentRun> failed = run(id);
    if (!failed)
        co_return;
    // A session that was opened is closed; one that never opened needs no end call.
    if (failed->sessionId) {
        (void)co_await terminalSessions::end(client.get(), *failed->sessionId);
        if (!self)
            co_return;
    }
    m_tallies.remove(id);
    changeRun(id, [&](AgentRun& run) {
        run.status = AgentRunStatus::failed;
        run.output = couldNotStartPrefix + started.error().message;
    });
    (void)co_await client.get().recordRunEvent(failed->relayRunId(), runName(failed->agent, failed->safety),
                                               event::failed, 0, 0, event::launchFailedDetail);
    if (self)
        emit runRecorded(id);
}

QCoro::Task<Result<void>> AgentRunStore::startUnit(QUuid id, QString workingDirectory,
                                                   HeldRelayClient client) {
    // Every step of this unit can fail; the caller turns any failure into a failed run.
    QPointer<AgentRunStore> self(this);
    const Error gone{storeGoneMessage};
    const AgentRun run = *this->run(id);
    const QString name = runName(run.agent, run.safety);

    // A relay that refuses the first event stops the launch.
    const Result<void> started = co_await client.get().recordRunEvent(run.relayRunId(), name, event::started,
                                                                      0, 0, event::startedDetail);
    if (!self)
        co_return gone;
    if (!started)
        co_return started.error();

    const Result<TerminalSessionCreated> session =
        co_await terminalSessions::create(client.get(), sessionSource(run.agent));
    if (!self)
        co_return gone;
    if (!session)
        co_return session.error();
    changeRun(id, [&](AgentRun& r) { r.sessionId = session->id; });

    const QList<TerminalEventChunk> promptChunk{
        terminalSessions::chunkNow(1, TerminalEventChunk::input, run.prompt)};
    const Result<void> prompt =
        co_await terminalSessions::appendEvents(client.get(), session->id, promptChunk);
    if (!self)
        co_return gone;
    if (!prompt)
        co_return prompt.error();

    if (run.agent != LocalAgent::api)
        co_return co_await startProcess(run, workingDirectory, client);

    setStatus(id, AgentRunStatus::running);
    auto task = std::make_shared<APITask>();
    m_apiTasks.insert(id, task);
    runAPI(id, run.prompt, run.preset, client, task);
    co_return Result<void>{};
}

QCoro::Task<Result<void>> AgentRunStore::startProcess(AgentRun run, QString workingDirectory,
                                                      HeldRelayClient client) {
    QPointer<AgentRunStore> self(this);
    QPointer<QProcess> process = new QProcess(this);
    // A login shell, so that the agent is found on the user's own PATH; the line is fixed.
    process->setProgram(m_config.loginShell());
    process->setArguments(loginShellFlags + QStringList{command(run.agent, run.safety)});
    process->setWorkingDirectory(workingDirectory);
    // Output and errors share one pipe, so the two streams stay in the order of the writes.
    process->setProcessChannelMode(QProcess::MergedChannels);
    watchProcess(process, run.id, client);
    process->start();

    const bool launched = co_await startedOrFailed(process);
    if (!self)
        co_return Error{storeGoneMessage};
    if (!launched) {
        const QString reason = process ? process->errorString() : processGoneMessage;
        if (process)
            process->deleteLater();
        co_return Error{reason};
    }
    // A process that has already ended has been through `finish`; its run is final.
    if (!process || process->state() != QProcess::Running)
        co_return Result<void>{};

    m_processes.insert(run.id, process);
    setStatus(run.id, AgentRunStatus::running);
    // The progress event is not waited for, and its failure is of no consequence.
    [](HeldRelayClient held, QString runId, QString name) -> QCoro::Task<> {
        (void)co_await held.get().recordRunEvent(runId, name, event::progress, 0, 0, event::runningDetail);
    }(client, run.relayRunId(), runName(run.agent, run.safety));
    // The prompt goes in once, then the pipe closes: the agent reads to its end.
    process->write(run.prompt.toUtf8());
    process->closeWriteChannel();
    co_return Result<void>{};
}

void AgentRunStore::watchProcess(QProcess* process, QUuid id, HeldRelayClient client) {
    // One decoder per process, so that a character cut between two reads is joined again.
    auto decoder = std::make_shared<utf8::StreamDecoder>();
    connect(process, &QProcess::readyReadStandardOutput, this, [this, process, id, decoder] {
        const QByteArray bytes = process->readAllStandardOutput();
        if (!bytes.isEmpty())
            appendOutput(decoder->decode(bytes), id);
    });
    connect(process, &QProcess::finished, this, [this, process, id, decoder, client](int exitCode) {
        // No more readability callbacks: the rest is read here, to the end, before `finish`.
        process->disconnect(this);
        QString rest = decoder->decode(process->readAll());
        rest += decoder->finish(); // after the last read, never before it
        appendOutput(rest, id);
        process->deleteLater();
        // After a crash the code is the signal's number, so it never reads as success.
        finish(id, exitCode, client);
    });
}

void AgentRunStore::appendOutput(const QString& text, const QUuid& id) {
    AgentRun* run = find(id);
    if (text.isEmpty() || !run)
        return;
    graphemes::Tally& tally = m_tallies[id];
    const qsizetype room = m_config.maxCapturedCharacters - tally.count();
    const std::optional<qsizetype> cut =
        room >= 1 ? graphemes::prefixEnd(text, room) : std::optional<qsizetype>(0);
    if (room >= 1 && !cut) {
        run->output += text;
        tally.update(run->output);
        emit runsChanged();
        return;
    }
    if (room >= 1) {
        run->output += QStringView(text).left(*cut);
        tally.update(run->output);
    }
    // The rest is dropped; the process is neither stopped nor slowed.
    run->wasTruncated = true;
    emit runsChanged();
}

QCoro::Task<> AgentRunStore::finish(QUuid id, int exitCode, HeldRelayClient client) {
    QPointer<AgentRunStore> self(this);
    m_processes.remove(id);
    AgentRun* run = find(id);
    if (!run)
        co_return;
    const bool wasCancelling = run->status == AgentRunStatus::cancelling;
    const qint64 latencyMs = std::max<qint64>(0, run->startedAt.msecsTo(QDateTime::currentDateTimeUtc()));
    run->exitCode = exitCode;
    run->status = wasCancelling   ? AgentRunStatus::cancelled
                  : exitCode == 0 ? AgentRunStatus::completed
                                  : AgentRunStatus::failed;
    emit runsChanged();
    const AgentRun ended = *run;

    // The limit's mark goes to the relay's copy only.
    const QString text = ended.output + (ended.wasTruncated ? truncationMark : QString());
    if (ended.sessionId) {
        const QList<TerminalEventChunk> outputChunk{
            terminalSessions::chunkNow(2, TerminalEventChunk::output, text)};
        (void)co_await terminalSessions::appendEvents(client.get(), *ended.sessionId, outputChunk);
        (void)co_await terminalSessions::end(client.get(), *ended.sessionId);
    }
    // A cancelled run that exits by a signal counts against its provider; one that exits
    // cleanly does not, although the run itself reads as cancelled.
    (void)co_await client.get().recordProviderHealth(provider(ended.agent), exitCode == 0, latencyMs);
    const QString type = ended.status == AgentRunStatus::completed ? event::finished : event::failed;
    const QString detail = wasCancelling                               ? event::cancelledDetail
                           : ended.status == AgentRunStatus::completed ? event::completedDetail
                                                                       : event::failedDetail;
    (void)co_await client.get().recordRunEvent(ended.relayRunId(), runName(ended.agent, ended.safety), type,
                                               0, 0, detail);
    if (self)
        emit runRecorded(id);
}

void AgentRunStore::cancel(const QUuid& id) {
    if (QProcess* process = m_processes.value(id); process && process->state() == QProcess::Running) {
        setStatus(id, AgentRunStatus::cancelling);
        process->terminate();
        return;
    }
    if (const std::shared_ptr<APITask> task = m_apiTasks.value(id)) {
        setStatus(id, AgentRunStatus::cancelling);
        task->cancelled = true;
    }
}

void AgentRunStore::terminateAll() {
    for (QProcess* process : std::as_const(m_processes))
        if (process->state() == QProcess::Running)
            process->terminate();
    for (const std::shared_ptr<APITask>& task : std::as_const(m_apiTasks))
        task->cancelled = true;
}

QCoro::Task<> AgentRunStore::runAPI(QUuid id, QString prompt, std::optional<QString> preset,
                                    HeldRelayClient client, std::shared_ptr<APITask> task) {
    QPointer<AgentRunStore> self(this);
    GatewayCompletionInput input;
    input.task = apiTask;
    input.input = std::move(prompt);
    input.model = apiModel;
    input.preset = std::move(preset);
    input.max_output_tokens = apiMaxOutputTokens;
    const Result<GatewayCompletion> answer = co_await client.get().complete(std::move(input));
    if (!self)
        co_return;
    const AgentRun* run = find(id);
    if (!run)
        co_return;
    // An answer that arrives after a cancel is thrown away: the run ends cancelled, as an
    // error after a cancel does, whatever the error.
    const bool cancelled = run->status == AgentRunStatus::cancelling || task->cancelled;
    changeRun(id, [&](AgentRun& r) {
        if (cancelled) {
            r.status = AgentRunStatus::cancelled;
            r.exitCode = std::nullopt;
        } else if (answer) {
            r.status = AgentRunStatus::completed;
            r.exitCode = 0;
            r.output = answer.value().output;
        } else {
            r.status = AgentRunStatus::failed;
            r.exitCode = 1;
            r.output = apiFailedPrefix + answer.error().message;
        }
    });
    const AgentRun ended = *find(id);
    const bool completed = ended.status == AgentRunStatus::completed;
    (void)co_await client.get().recordRunEvent(ended.relayRunId(), runName(ended.agent, ended.safety),
                                               completed ? event::finished : event::failed, 0, 0,
                                               completed   ? event::apiCompletedDetail
                                               : cancelled ? event::apiCancelledDetail
                                                           : event::apiFailedDetail);
    if (!self)
        co_return;
    m_apiTasks.remove(id);
    if (ended.sessionId) {
        const QList<TerminalEventChunk> outputChunk{
            terminalSessions::chunkNow(2, TerminalEventChunk::output, ended.output)};
        (void)co_await terminalSessions::appendEvents(client.get(), *ended.sessionId, outputChunk);
        (void)co_await terminalSessions::end(client.get(), *ended.sessionId);
    }
    if (self)
        emit runRecorded(id);
}
