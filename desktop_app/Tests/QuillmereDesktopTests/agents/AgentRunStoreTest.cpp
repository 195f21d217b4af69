#include "QuillmereDesktop/agents/AgentRunStore.h"
#include "support/FakeProviderProcess.h"
#include "support/RelayFixture.h"
#include "support/RelayProxy.h"
#include "support/RelaySession.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <pwd.h>
#include <unistd.h>

#include <chrono>
#include <memory>

using namespace std::chrono_literals;

namespace {

// Stands in for an agent command-line tool: reads the prompt from standard input to its
// end, then does what the prompt asks. Anything else is echoed back with the arguments,
// the folder and a line on standard error, and the exit code is the number after "exit".
const char* const fakeAgentScript = R"SH(#!/bin/sh
prompt=$(cat)
case "$prompt" in
  "print "*)
    head -c "${prompt#print }" /dev/zero | tr '\0' x
    exit 0 ;;
  "accents "*)
    yes 'é' | head -n "${prompt#accents }" | tr -d '\n'
    exit 0 ;;
  "hold "*)
    echo ready
    while [ ! -e "$HOME/${prompt#hold }" ]; do sleep 0.02; done
    exit 0 ;;
  "ignore-term "*)
    trap '' TERM
    echo ready
    while [ ! -e "$HOME/${prompt#ignore-term }" ]; do sleep 0.02; done
    exit 7 ;;
  "exit-0-on-term")
    trap 'echo stopping; exit 0' TERM
    echo ready
    while :; do sleep 0.02; done ;;
esac
echo "$(basename "$0") $*"
echo "cwd $(pwd)"
echo "prompt $prompt"
echo "to stderr" >&2
pause=$(printf '%s' "$prompt" | sed -n 's/.*wait \([0-9.]*\).*/\1/p')
[ -n "$pause" ] && sleep "$pause"
code=$(printf '%s' "$prompt" | sed -n 's/.*exit \([0-9]*\).*/\1/p')
exit "${code:-0}"
)SH";

// What a request did, in a form that is easy to compare.
QString describe(const RelayProxy::Request& request) {
    const QJsonObject body = QJsonDocument::fromJson(request.body).object();
    if (request.path == "/v1/events")
        return "event " + body.value("type").toString() + ": " + body.value("detail").toString();
    if (request.path == "/v1/router/health")
        return "health " + body.value("provider").toString() + " " +
               (body.value("success").toBool() ? "success" : "failure");
    if (request.path == "/v1/terminal/sessions")
        return "session " + body.value("source").toString();
    if (request.path.endsWith("/events")) {
        QStringList seqs;
        for (const QJsonValue& chunk : body.value("chunks").toArray())
            seqs << QString::number(chunk.toObject().value("seq").toInt()) + " " +
                        chunk.toObject().value("stream").toString();
        return "chunk " + seqs.join(", ");
    }
    if (request.path.endsWith("/end"))
        return "end";
    return "other " + request.path;
}

QStringList describeAll(const QList<RelayProxy::Request>& requests) {
    QStringList lines;
    for (const RelayProxy::Request& request : requests)
        lines << describe(request);
    return lines;
}

QList<QJsonObject> bodies(const QList<RelayProxy::Request>& requests) {
    QList<QJsonObject> list;
    for (const RelayProxy::Request& request : requests)
        list << QJsonDocument::fromJson(request.body).object();
    return list;
}

QString passwordDatabaseShell() {
    const passwd* entry = getpwuid(getuid());
    return entry && entry->pw_shell ? QString::fromLocal8Bit(entry->pw_shell) : QString();
}

} // namespace

// Agent runs with fake `claude` and `codex` tools, recorded on the real relay through a
// proxy that keeps the order of the calls.
class AgentRunStoreTest : public QObject {
    Q_OBJECT

    // API runs go through the relay's router to this provider, its one API lane.
    FakeProviderProcess m_fake{QStringLiteral("The plan, from the fake provider.")};
    RelayFixture m_relay{RelayFixture::Options{true, m_fake.inventory(), {}}};
    QString m_token;
    QTemporaryDir m_home; // HOME of the runs, with the profile that finds the fakes
    QTemporaryDir m_work; // the working folder of the runs
    QString m_bin;
    QByteArray m_savedHome, m_savedPath, m_savedShell;
    std::unique_ptr<RelayProxy> m_proxy;
    std::unique_ptr<RelayClient> m_client;
    std::unique_ptr<AgentRunStore> m_store;
    QList<QUuid> m_recorded;

    static bool writeFile(const QString& path, const QByteArray& content, QFile::Permissions permissions) {
        QFile file(path);
        return file.open(QIODevice::WriteOnly) && file.write(content) == content.size() &&
               file.setPermissions(permissions);
    }

    // Launches and gives the new run's id, or a null id when the store refused.
    QUuid launch(LocalAgent agent, AgentSafety safety, const QString& prompt, const QString& folder = {}) {
        const qsizetype before = m_store->runs().size();
        m_store->launch(agent, safety, prompt, folder.isEmpty() ? m_work.path() : folder, m_client.get());
        return m_store->runs().size() > before ? m_store->runs().first().id : QUuid();
    }

    AgentRun run(const QUuid& id) const { return *m_store->run(id); }

    bool recorded(const QUuid& id) {
        return waitUntil([&] { return m_recorded.contains(id); });
    }

    void release(const QString& name) { QVERIFY(writeFile(m_home.filePath(name), "", QFile::ReadOwner)); }

    // The requests of one run: its events by run id, and everything on its session
    // (health reports name only the provider, so they are not among them).
    QList<RelayProxy::Request> requestsOf(const QUuid& id) const {
        const AgentRun r = run(id);
        QList<RelayProxy::Request> mine;
        for (const RelayProxy::Request& request : m_proxy->requests()) {
            const QJsonObject body = QJsonDocument::fromJson(request.body).object();
            const bool ownEvent =
                request.path == "/v1/events" && body.value("run_id").toString() == r.relayRunId();
            const bool ownSession = r.sessionId && request.path.contains(r.sessionId->toUtf8());
            if (ownEvent || ownSession)
                mine << request;
        }
        return mine;
    }

private slots:
    void initTestCase() {
        QVERIFY(m_relay.start());
        const auto token = localSessionToken(m_relay.url());
        QVERIFY(token);
        m_token = *token;

        m_bin = m_home.filePath("bin");
        QVERIFY(QDir().mkpath(m_bin));
        const auto executable = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner;
        QVERIFY(writeFile(m_bin + "/claude", fakeAgentScript, executable));
        QVERIFY(writeFile(m_bin + "/codex", fakeAgentScript, executable));
        // The login shell rebuilds PATH from the system profile; the user's own profile
        // then puts their tools first, as it would for a tool in ~/.local/bin. The
        // profile also notes which shell read it.
        const QByteArray profile = "PATH=\"" + m_bin.toUtf8() +
                                   ":$PATH\"\nexport PATH\n"
                                   "readlink /proc/$$/exe > \"$HOME/shell-used\"\n";
        QVERIFY(writeFile(m_home.filePath(".profile"), profile, QFile::ReadOwner | QFile::WriteOwner));
        QVERIFY(writeFile(m_home.filePath(".zprofile"), profile, QFile::ReadOwner | QFile::WriteOwner));

        m_savedHome = qgetenv("HOME");
        m_savedPath = qgetenv("PATH");
        m_savedShell = qgetenv("SHELL");
        qputenv("HOME", m_home.path().toUtf8());
        qputenv("PATH", m_bin.toUtf8() + ":" + m_savedPath);
        qputenv("SHELL", "/bin/sh");
    }

    void cleanupTestCase() {
        qputenv("HOME", m_savedHome);
        qputenv("PATH", m_savedPath);
        qputenv("SHELL", m_savedShell);
    }

    void init() {
        m_proxy = std::make_unique<RelayProxy>(m_relay.url());
        m_client = std::make_unique<RelayClient>(m_proxy->url(), m_token);
        m_store = std::make_unique<AgentRunStore>(AgentRunStoreConfig{});
        m_recorded.clear();
        connect(m_store.get(), &AgentRunStore::runRecorded, this,
                [this](const QUuid& id) { m_recorded << id; });
    }

    void cleanup() {
        m_store.reset();
        m_client.reset();
        m_proxy.reset();
    }

    void aCompletedRunIsRecordedInOrder() {
        const QUuid id = launch(LocalAgent::claude, AgentSafety::plan, "Say hello, wait 0.3, exit 0");
        QVERIFY(!id.isNull());
        QCOMPARE(run(id).status, AgentRunStatus::starting);
        QCOMPARE(m_store->activeCount(), 1);
        QVERIFY(recorded(id));

        const AgentRun done = run(id);
        QCOMPARE(done.status, AgentRunStatus::completed);
        QCOMPARE(done.exitCode, std::optional<qint32>(0));
        QVERIFY(!done.wasTruncated);
        QCOMPARE(done.output, "claude -p --output-format text --permission-mode plan\n"
                              "cwd " +
                                  m_work.path() + "\nprompt Say hello, wait 0.3, exit 0\nto stderr\n");
        QVERIFY(!m_store->hasProcess(id));
        QCOMPARE(m_store->activeCount(), 0);

        QCOMPARE(describeAll(m_proxy->requests()),
                 (QStringList{
                     "event started: Started from the Quillmere orchestrator", "session orchestrator:claude",
                     "chunk 1 input", "event progress: Local CLI process is running", "chunk 2 output", "end",
                     "health anthropic-subscription success", "event finished: Local CLI run completed"}));
        // The relay accepted every call.
        for (const RelayProxy::Exchange& exchange : m_proxy->exchanges())
            QVERIFY2(exchange.succeeded(), exchange.path().constData());
        for (const QJsonObject& event : bodies(m_proxy->requestsTo("/v1/events"))) {
            QCOMPARE(event.value("run_id").toString(), done.relayRunId());
            QCOMPARE(event.value("name").toString(), QString("claude \u00B7 plan only"));
            QCOMPARE(event.value("tokens"), QJsonValue(0));
            QCOMPARE(event.value("cost_usd"), QJsonValue(0));
        }
        const QJsonObject health = bodies(m_proxy->requestsTo("/v1/router/health")).first();
        QVERIFY(health.value("latency_ms").toInteger() >= 300);

        const auto session = storedSession(m_relay.url(), m_token, *done.sessionId);
        QVERIFY(session);
        QCOMPARE(session->source, "orchestrator:claude");
        QVERIFY(session->ended_at);
        QCOMPARE(session->chunks.size(), 2);
        QCOMPARE(session->chunks[0].seq, 1);
        QCOMPARE(session->chunks[0].stream, "input");
        QCOMPARE(session->chunks[0].data, done.prompt);
        QCOMPARE(session->chunks[1].seq, 2);
        QCOMPARE(session->chunks[1].stream, "output");
        QCOMPARE(session->chunks[1].data, done.output);
    }

    void aFailedRunReportsItsCodeAndProvider() {
        const QUuid id = launch(LocalAgent::codex, AgentSafety::workspace, "Break, wait 0.2, exit 3");
        QVERIFY(recorded(id));
        const AgentRun done = run(id);
        QCOMPARE(done.status, AgentRunStatus::failed);
        QCOMPARE(done.exitCode, std::optional<qint32>(3));
        QVERIFY(done.output.startsWith("codex exec --color never --sandbox workspace-write -\n"));
        QCOMPARE(describeAll(m_proxy->requests()).mid(4),
                 (QStringList{"chunk 2 output", "end", "health openai-subscription failure",
                              "event failed: Local CLI run failed"}));
        QCOMPARE(bodies(m_proxy->requestsTo("/v1/events")).last().value("name").toString(),
                 QString("codex \u00B7 workspace edits"));
    }

    void aMissingAgentIsAnOrdinaryFailedRun() {
        // A profile that leaves nothing on PATH: the shell itself reports the missing tool.
        QTemporaryDir bare;
        QVERIFY(writeFile(bare.filePath(".profile"), "PATH=/nonexistent\nexport PATH\n", QFile::ReadOwner));
        qputenv("HOME", bare.path().toUtf8());
        const QUuid id = launch(LocalAgent::claude, AgentSafety::plan, "anything");
        const bool done = recorded(id);
        qputenv("HOME", m_home.path().toUtf8());
        QVERIFY(done);
        QCOMPARE(run(id).status, AgentRunStatus::failed);
        QCOMPARE(run(id).exitCode, std::optional<qint32>(127));
        QVERIFY2(run(id).output.contains("claude") && run(id).output.contains("not found"),
                 qPrintable(run(id).output));
    }

    void fiveLaunchesGiveFourRunsAndCancellingStillCounts() {
        QList<QUuid> ids;
        ids << launch(LocalAgent::claude, AgentSafety::plan, "ignore-term gate-a");
        ids << launch(LocalAgent::codex, AgentSafety::plan, "hold gate-a");
        ids << launch(LocalAgent::claude, AgentSafety::workspace, "hold gate-a");
        ids << launch(LocalAgent::codex, AgentSafety::workspace, "hold gate-a");
        QVERIFY(!ids.contains(QUuid()));
        QCOMPARE(m_store->activeCount(), 4);
        QSignalSpy changes(m_store.get(), &AgentRunStore::runsChanged);
        QVERIFY(launch(LocalAgent::claude, AgentSafety::plan, "fifth").isNull());
        QCOMPARE(m_store->runs().size(), 4);
        QCOMPARE(changes.size(), 0);

        for (const QUuid& id : ids)
            QVERIFY(waitUntil([&] { return run(id).output.contains("ready"); }));
        QCOMPARE(m_store->runs().first().id, ids.last()); // newest first

        // The process that ignores the request to stop stays `cancelling` and keeps its place.
        m_store->cancel(ids[0]);
        QCOMPARE(run(ids[0]).status, AgentRunStatus::cancelling);
        QTest::qWait(200);
        QCOMPARE(run(ids[0]).status, AgentRunStatus::cancelling);
        QVERIFY(m_store->hasProcess(ids[0]));
        QCOMPARE(m_store->activeCount(), 4);
        QVERIFY(launch(LocalAgent::codex, AgentSafety::plan, "sixth").isNull());
        QCOMPARE(m_store->runs().size(), 4);

        release("gate-a");
        for (const QUuid& id : ids)
            QVERIFY(recorded(id));
        QCOMPARE(run(ids[0]).status, AgentRunStatus::cancelled);
        QCOMPARE(run(ids[0]).exitCode, std::optional<qint32>(7));
        for (const QUuid& id : ids.mid(1))
            QCOMPARE(run(id).status, AgentRunStatus::completed);
        QCOMPARE(m_store->activeCount(), 0);
        QCOMPARE(describeAll(requestsOf(ids[0])),
                 (QStringList{"event started: Started from the Quillmere orchestrator", "chunk 1 input",
                              "event progress: Local CLI process is running", "chunk 2 output", "end",
                              "event failed: Local CLI run cancelled"}));
        // One claude run failed (the cancelled one, ended with 7); the other three succeeded.
        QStringList health = describeAll(m_proxy->requestsTo("/v1/router/health"));
        health.sort();
        QCOMPARE(health, (QStringList{
                             "health anthropic-subscription failure", "health anthropic-subscription success",
                             "health openai-subscription success", "health openai-subscription success"}));
        QVERIFY(!launch(LocalAgent::claude, AgentSafety::plan, "exit 0").isNull());
        QCOMPARE(m_store->runs().size(), 5);
        QVERIFY(recorded(m_store->runs().first().id));
    }

    void theOutputLimitKeepsExactlyTwoMillionCharacters() {
        const QUuid exact = launch(LocalAgent::claude, AgentSafety::plan, "print 2000000");
        const QUuid over = launch(LocalAgent::codex, AgentSafety::plan, "print 2000001");
        QVERIFY(recorded(exact));
        QVERIFY(recorded(over));
        const QString twoMillion(2'000'000, 'x');

        QCOMPARE(run(exact).status, AgentRunStatus::completed);
        QVERIFY(!run(exact).wasTruncated);
        QVERIFY(run(exact).output == twoMillion);
        QVERIFY(run(over).wasTruncated);
        QVERIFY(run(over).output == twoMillion); // the run's own output has no mark
        QCOMPARE(run(over).status, AgentRunStatus::completed);

        const auto exactCopy = storedSession(m_relay.url(), m_token, *run(exact).sessionId);
        const auto overCopy = storedSession(m_relay.url(), m_token, *run(over).sessionId);
        QVERIFY(exactCopy && overCopy);
        QVERIFY(exactCopy->chunks[1].data == twoMillion);
        QVERIFY(overCopy->chunks[1].data == twoMillion + "\n[OUTPUT TRUNCATED]");
    }

    void aLimitCountsCharactersNotBytesOrCodeUnits() {
        AgentRunStoreConfig config;
        config.maxCapturedCharacters = 5;
        m_store = std::make_unique<AgentRunStore>(config);
        connect(m_store.get(), &AgentRunStore::runRecorded, this,
                [this](const QUuid& id) { m_recorded << id; });
        // Five two-byte characters fit exactly; six do not.
        const QUuid five = launch(LocalAgent::claude, AgentSafety::plan, "accents 5");
        const QUuid six = launch(LocalAgent::claude, AgentSafety::plan, "accents 6");
        QVERIFY(recorded(five) && recorded(six));
        QCOMPARE(run(five).output, QString(5, QChar(0xE9)));
        QVERIFY(!run(five).wasTruncated);
        QCOMPARE(run(six).output, QString(5, QChar(0xE9)));
        QVERIFY(run(six).wasTruncated);
    }

    void aCharacterCutBetweenReadsArrivesWhole() {
        // Six hundred thousand bytes of two-byte characters come in many reads; some end
        // in the middle of a character.
        const QUuid id = launch(LocalAgent::claude, AgentSafety::plan, "accents 300000");
        QVERIFY(recorded(id));
        QVERIFY(run(id).output == QString(300000, QChar(0xE9)));
    }

    void aCancelledRunThatExitsCleanlyIsCancelledButHealthy() {
        const QUuid id = launch(LocalAgent::claude, AgentSafety::plan, "exit-0-on-term");
        QVERIFY(waitUntil([&] { return run(id).output.contains("ready"); }));
        m_store->cancel(id);
        QCOMPARE(run(id).status, AgentRunStatus::cancelling);
        QVERIFY(recorded(id));
        QCOMPARE(run(id).status, AgentRunStatus::cancelled);
        QCOMPARE(run(id).exitCode, std::optional<qint32>(0));
        QCOMPARE(run(id).output, "ready\nstopping\n");
        QCOMPARE(describeAll(m_proxy->requests()).mid(4),
                 (QStringList{"chunk 2 output", "end", "health anthropic-subscription success",
                              "event failed: Local CLI run cancelled"}));
    }

    void cancelOnAFinishedRunDoesNothing() {
        const QUuid id = launch(LocalAgent::codex, AgentSafety::plan, "exit 0");
        QVERIFY(recorded(id));
        QVERIFY(!m_store->hasProcess(id));
        QSignalSpy changes(m_store.get(), &AgentRunStore::runsChanged);
        m_store->cancel(id);
        m_store->cancel(QUuid::createUuid());
        QCOMPARE(changes.size(), 0);
        QCOMPARE(run(id).status, AgentRunStatus::completed);
    }

    void terminateAllStopsEveryProcessWithoutChangingAStatus() {
        const QUuid first = launch(LocalAgent::claude, AgentSafety::plan, "hold never-a");
        const QUuid second = launch(LocalAgent::codex, AgentSafety::plan, "hold never-b");
        QVERIFY(waitUntil(
            [&] { return run(first).output.contains("ready") && run(second).output.contains("ready"); }));
        m_store->terminateAll();
        QCOMPARE(run(first).status, AgentRunStatus::running);
        QCOMPARE(run(second).status, AgentRunStatus::running);
        QVERIFY(recorded(first) && recorded(second));
        // Ended by the signal, not cancelled by the person: an ordinary failure.
        QCOMPARE(run(first).status, AgentRunStatus::failed);
        QCOMPARE(run(first).exitCode, std::optional<qint32>(15));
        QCOMPARE(run(second).status, AgentRunStatus::failed);
    }

    void anUnusableSHELLFallsBackToTheUsersLoginShell() {
        const QString database = passwordDatabaseShell();
        if (!loginShell::Sources::usableShell(database))
            QSKIP("this user's password database entry names no usable shell");
        QVERIFY(
            writeFile(m_home.filePath("not-a-shell"), "#!/bin/sh\n", QFile::ReadOwner | QFile::WriteOwner));
        qputenv("SHELL", m_home.filePath("not-a-shell").toUtf8());
        QCOMPARE(loginShell::current(), database);
        QFile::remove(m_home.filePath("shell-used"));
        const QUuid id = launch(LocalAgent::claude, AgentSafety::plan, "exit 0");
        const bool done = recorded(id);
        qputenv("SHELL", "/bin/sh");
        QVERIFY(done);
        QCOMPARE(run(id).status, AgentRunStatus::completed);
        QFile used(m_home.filePath("shell-used"));
        QVERIFY(used.open(QIODevice::ReadOnly));
        QCOMPARE(QString::fromUtf8(used.readAll()).trimmed(), QFileInfo(database).canonicalFilePath());

        qunsetenv("SHELL");
        QCOMPARE(loginShell::current(), database);
        qputenv("SHELL", "/bin/sh");
        QCOMPARE(loginShell::current(), "/bin/sh");
    }

    void aRefusedStartedEventStopsTheLaunchBeforeAnySession() {
        RelayClient stranger(m_proxy->url(), QString("not-a-token"));
        m_store->launch(LocalAgent::claude, AgentSafety::plan, "exit 0", m_work.path(), &stranger);
        const QUuid id = m_store->runs().first().id;
        QVERIFY(recorded(id));
        const AgentRun failed = run(id);
        QCOMPARE(failed.status, AgentRunStatus::failed);
        QVERIFY2(failed.output.startsWith("Could not start: "), qPrintable(failed.output));
        QVERIFY(failed.output.size() > QString("Could not start: ").size());
        QVERIFY(!failed.exitCode);
        QVERIFY(!failed.sessionId);
        QCOMPARE(describeAll(m_proxy->requests()),
                 (QStringList{"event started: Started from the Quillmere orchestrator",
                              "event failed: The orchestrator could not start this run"}));
    }

    void aProcessThatCannotStartEndsItsSession() {
        const QUuid id =
            launch(LocalAgent::codex, AgentSafety::plan, "exit 0", m_work.filePath("no-such-folder"));
        QVERIFY(recorded(id));
        const AgentRun failed = run(id);
        QCOMPARE(failed.status, AgentRunStatus::failed);
        QVERIFY2(failed.output.startsWith("Could not start: "), qPrintable(failed.output));
        QVERIFY(!failed.exitCode);
        QVERIFY(failed.sessionId);
        QVERIFY(!m_store->hasProcess(id));
        QCOMPARE(describeAll(m_proxy->requests()),
                 (QStringList{"event started: Started from the Quillmere orchestrator",
                              "session orchestrator:codex", "chunk 1 input", "end",
                              "event failed: The orchestrator could not start this run"}));
        const auto session = storedSession(m_relay.url(), m_token, *failed.sessionId);
        QVERIFY(session && session->ended_at);
    }

    void aShellThatCannotBeLaunchedFailsTheRun() {
        AgentRunStoreConfig config;
        config.loginShell = [] { return QStringLiteral("/nonexistent/shell"); };
        m_store = std::make_unique<AgentRunStore>(config);
        connect(m_store.get(), &AgentRunStore::runRecorded, this,
                [this](const QUuid& id) { m_recorded << id; });
        const QUuid id = launch(LocalAgent::claude, AgentSafety::plan, "exit 0");
        QVERIFY(recorded(id));
        QCOMPARE(run(id).status, AgentRunStatus::failed);
        QVERIFY(run(id).output.startsWith("Could not start: "));
        QCOMPARE(m_proxy->requestsTo("/v1/terminal/sessions/").last().path,
                 "/v1/terminal/sessions/" + run(id).sessionId->toUtf8() + "/end");
    }

    void aRelayRefusingTheFirstChunkFailsTheLaunch() {
        m_proxy->setRule([](const RelayProxy::Request& request) -> RelayProxy::Decision {
            if (request.path.endsWith("/events") && request.path.startsWith("/v1/terminal/"))
                return {RelayProxy::Action::refuse, 500};
            return {};
        });
        const QUuid id = launch(LocalAgent::claude, AgentSafety::plan, "exit 0");
        QVERIFY(recorded(id));
        QCOMPARE(run(id).output, "Could not start: refused by the test");
        QCOMPARE(describeAll(m_proxy->requests()).mid(3),
                 (QStringList{"end", "event failed: The orchestrator could not start this run"}));
    }

    void bookkeepingFailuresLeaveTheLocalStateFinal() {
        m_proxy->setRule([](const RelayProxy::Request& request) -> RelayProxy::Decision {
            const QJsonObject body = QJsonDocument::fromJson(request.body).object();
            const bool late = request.path.endsWith("/end") || request.path == "/v1/router/health" ||
                              body.value("type").toString() == "finished" ||
                              body.value("type").toString() == "progress" ||
                              (request.path.endsWith("/events") && request.body.contains("\"seq\":2"));
            return late ? RelayProxy::Decision{RelayProxy::Action::refuse, 500} : RelayProxy::Decision{};
        });
        const QUuid id = launch(LocalAgent::claude, AgentSafety::plan, "wait 0.2, exit 0");
        QVERIFY(recorded(id));
        QCOMPARE(run(id).status, AgentRunStatus::completed);
        QCOMPARE(describeAll(m_proxy->requests()).mid(4),
                 (QStringList{"chunk 2 output", "end", "health anthropic-subscription success",
                              "event finished: Local CLI run completed"}));
    }

    void anAPIRunCompletesThroughTheRelaysRouterWithTheProvidersAnswer() {
        QVERIFY(!m_fake.url().isEmpty());
        const QUuid id = launch(LocalAgent::api, AgentSafety::workspace, "Summarise the design");
        QVERIFY(recorded(id));
        const AgentRun done = run(id);
        QCOMPARE(done.status, AgentRunStatus::completed);
        QCOMPARE(done.exitCode, std::optional<qint32>(0));
        QCOMPARE(done.output, "The plan, from the fake provider.");
        QCOMPARE(describeAll(m_proxy->requests()),
                 (QStringList{"event started: Started from the Quillmere orchestrator",
                              "session orchestrator:api router", "chunk 1 input", "other /v1/complete",
                              "event finished: API router run completed", "chunk 2 output", "end"}));
        // The request: the whole prompt, the router's choice, no preset key when none is chosen.
        QCOMPARE(bodies(m_proxy->requestsTo("/v1/complete")).first(),
                 (QJsonObject{{"task", "reason"},
                              {"input", "Summarise the design"},
                              {"model", "auto"},
                              {"max_output_tokens", 4000}}));
        QCOMPARE(bodies(m_proxy->requestsTo("/v1/events")).first().value("name").toString(),
                 QString("api router \u00B7 plan only"));
        // The provider really answered it, and the relay's copy of the run holds the answer.
        const QJsonArray sent = m_fake.requests();
        QVERIFY(!sent.isEmpty());
        QVERIFY(QJsonDocument(sent.last().toObject()).toJson().contains("Summarise the design"));
        const auto session = storedSession(m_relay.url(), m_token, *done.sessionId);
        QVERIFY(session);
        QCOMPARE(session->chunks.last().data, "The plan, from the fake provider.");
        QVERIFY(session->ended_at);
    }

    void theChosenPresetIsSentAndTheRelaysRefusalFailsTheRun() {
        m_store->launch(LocalAgent::api, AgentSafety::plan, "Review this", m_work.path(), m_client.get(),
                        QStringLiteral("reviewer"));
        const QUuid id = m_store->runs().first().id;
        QVERIFY(recorded(id));
        const AgentRun done = run(id);
        QCOMPARE(done.status, AgentRunStatus::failed);
        QCOMPARE(done.exitCode, std::optional<qint32>(1));
        QVERIFY2(done.output.startsWith("API run failed: preset reviewer not found ("),
                 qPrintable(done.output));
        QCOMPARE(bodies(m_proxy->requestsTo("/v1/complete")).first().value("preset").toString(), "reviewer");
        QCOMPARE(describeAll(requestsOf(id)).mid(2),
                 (QStringList{"event failed: API router run failed", "chunk 2 output", "end"}));
    }

    void aProviderThatRefusesTheRequestFailsTheRunWithTheRelaysWords() {
        QVERIFY(m_fake.script(QJsonArray{QJsonObject{{"status", 400}, {"error_message", "bad parameter"}}}));
        const QUuid id = launch(LocalAgent::api, AgentSafety::plan, "Plan the migration");
        QVERIFY(recorded(id));
        const AgentRun done = run(id);
        QCOMPARE(done.status, AgentRunStatus::failed);
        QVERIFY2(done.output.startsWith(
                     "API run failed: every lane failed; last: Fake Lane answered 400 (bad_request)"),
                 qPrintable(done.output));
    }

    void aCompletionThatArrivesAfterCancelIsDiscarded() {
        QVERIFY(m_fake.script(QJsonArray{QJsonObject{{"first_byte_delay", 0.5}}}));
        const QUuid id = launch(LocalAgent::api, AgentSafety::plan, "Think slowly");
        QVERIFY(waitUntil([&] { return !m_proxy->requestsTo("/v1/complete").isEmpty(); }));
        QCOMPARE(run(id).status, AgentRunStatus::running);
        m_store->cancel(id);
        QCOMPARE(run(id).status, AgentRunStatus::cancelling);
        QCOMPARE(m_store->activeCount(), 1);
        QVERIFY(recorded(id));
        const AgentRun done = run(id);
        QCOMPARE(done.status, AgentRunStatus::cancelled);
        QCOMPARE(done.exitCode, std::nullopt);
        QCOMPARE(done.output, QString());
        QCOMPARE(describeAll(requestsOf(id)).mid(2),
                 (QStringList{"event failed: API router run cancelled", "chunk 2 output", "end"}));
        // The empty output still goes to the relay as chunk 2.
        const auto session = storedSession(m_relay.url(), m_token, *done.sessionId);
        QVERIFY(session);
        QCOMPARE(session->chunks.last().data, QString());
    }

    void anErrorAfterCancelEndsTheRunCancelled() {
        QVERIFY(m_fake.script(QJsonArray{QJsonObject{{"status", 400}, {"first_byte_delay", 0.5}}}));
        const QUuid id = launch(LocalAgent::api, AgentSafety::plan, "Fail after the cancel");
        QVERIFY(waitUntil([&] { return !m_proxy->requestsTo("/v1/complete").isEmpty(); }));
        m_store->cancel(id);
        QVERIFY(recorded(id));
        QCOMPARE(run(id).status, AgentRunStatus::cancelled);
        QCOMPARE(run(id).output, QString());
    }
};

QTEST_GUILESS_MAIN(AgentRunStoreTest)
#include "AgentRunStoreTest.moc"
