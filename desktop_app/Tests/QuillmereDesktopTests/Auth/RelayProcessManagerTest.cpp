#include "QuillmereDesktop/Auth/RelayProcessManager.h"
#include "support/Await.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <chrono>
#include <csignal>

using namespace std::chrono_literals;

namespace {

// A stand-in interpreter: records what it was given, then stays up like a server.
const char* const fakePython = R"sh(#!/bin/sh
{
  echo "args=$*"
  echo "cwd=$(pwd)"
  env
} > "$FAKE_RELAY_RECORD"
exec sleep 60
)sh";

// A stand-in that counts its launches, then stays up like a server.
const char* const countingPython = R"sh(#!/bin/sh
echo launched >> "$FAKE_RELAY_RECORD"
exec sleep 60
)sh";

// A stand-in that will not stop when asked: SIGTERM is ignored, only a kill ends it.
const char* const stubbornPython = R"sh(#!/bin/sh
trap '' TERM
echo "ignoring=TERM" > "$FAKE_RELAY_RECORD"
exec sleep 60
)sh";

// A stand-in that stops when asked and says so before it goes.
const char* const politePython = R"sh(#!/bin/sh
trap 'echo "stopped=asked" > "$FAKE_RELAY_RECORD"; exit 0' TERM
echo "started=yes" > "$FAKE_RELAY_RECORD"
while :; do sleep 1; done
)sh";

void writeFile(const QString& path, const QByteArray& content, bool executable) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(content);
    file.close();
    QFile::Permissions permissions = QFile::ReadOwner | QFile::WriteOwner;
    if (executable)
        permissions |= QFile::ExeOwner;
    QVERIFY(file.setPermissions(permissions));
}

bool processAlive(qint64 pid) {
    return ::kill(pid_t(pid), 0) == 0;
}

} // namespace

class RelayProcessManagerTest : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_root;

    QString path(const QString& relative) const { return m_root->filePath(relative); }

    // Every search location empty, the support folder and a record file in the temporary root.
    RelayProcessConfig emptyConfig() const {
        RelayProcessConfig config;
        config.resourceDirectories = {path("resources")};
        config.currentDirectory = path("cwd");
        config.sourceRoot = path("source");
        config.searchPath = path("bin-a") + ":" + path("bin-b");
        config.supportDirectory = path("support/Quillmere");
        config.systemInterpreters = {};
        config.port = 18787;
        config.baseEnvironment = QProcessEnvironment();
        config.baseEnvironment.insert("FAKE_RELAY_RECORD", path("record.txt"));
        config.baseEnvironment.insert("MERE_RELAY_PORT", "1");
        config.baseEnvironment.insert("KEPT_FROM_PARENT", "yes");
        return config;
    }

    // A config that finds a script in the source tree and the fake interpreter on PATH.
    RelayProcessConfig workingConfig() const {
        writeFile(path("source/cloud_app/src/relay/server.py"), "# relay\n", false);
        writeFile(path("bin-b/python3"), fakePython, true);
        return emptyConfig();
    }

    QMap<QString, QString> record() const {
        QMap<QString, QString> values;
        QFile file(path("record.txt"));
        if (!file.open(QIODevice::ReadOnly))
            return values;
        for (const QByteArray& line : file.readAll().split('\n')) {
            const qsizetype eq = line.indexOf('=');
            if (eq > 0)
                values.insert(QString::fromUtf8(line.left(eq)), QString::fromUtf8(line.mid(eq + 1)));
        }
        return values;
    }

private slots:
    void init() { m_root = std::make_unique<QTemporaryDir>(); }

    void messagesAndDefaults() {
        QCOMPARE(RelayProcessManager::scriptMissingMessage, "The bundled relay files could not be found.");
        QCOMPARE(RelayProcessManager::pythonMissingMessage, "Python 3 is required to run the local relay.");
        QCOMPARE(RelayProcessManager::notOwnedMessage,
                 "This relay was not launched by Quillmere, so the app will not restart it.");
        QCOMPARE(RelayProcessConfig::defaultPort, 8787);
        QCOMPARE(RelayProcessConfig::system().port, 8787);
    }

    void scriptSearchOrder() {
        RelayProcessManager manager(emptyConfig());
        QVERIFY(!manager.relayServerPath());
        writeFile(path("source/cloud_app/src/relay/server.py"), "", false);
        QCOMPARE(*manager.relayServerPath(), path("source/cloud_app/src/relay/server.py"));
        writeFile(path("cloud_app/src/relay/server.py"), "", false); // ../ of cwd
        QCOMPARE(*manager.relayServerPath(), path("cloud_app/src/relay/server.py"));
        writeFile(path("cwd/cloud_app/src/relay/server.py"), "", false);
        QCOMPARE(*manager.relayServerPath(), path("cwd/cloud_app/src/relay/server.py"));
        writeFile(path("resources/relay/server.py"), "", false);
        QCOMPARE(*manager.relayServerPath(), path("resources/relay/server.py"));
    }

    void interpreterInTheResourcesWinsOverPath() {
        writeFile(path("bin-a/python3"), fakePython, true);
        writeFile(path("resources/python/bin/python3"), fakePython, true);
        RelayProcessManager manager(emptyConfig());
        QCOMPARE(*manager.pythonPath(), path("resources/python/bin/python3"));
    }

    void systemInterpretersComeAfterPath() {
        writeFile(path("usr/bin/python3"), fakePython, true);
        RelayProcessConfig config = emptyConfig();
        config.systemInterpreters = {path("usr/bin/python3")};
        RelayProcessManager manager(config);
        QCOMPARE(*manager.pythonPath(), path("usr/bin/python3"));
        writeFile(path("bin-b/python3"), fakePython, true);
        QCOMPARE(*manager.pythonPath(), path("bin-b/python3"));
        QCOMPARE(RelayProcessConfig{}.systemInterpreters,
                 (QStringList{"/usr/bin/python3", "/usr/local/bin/python3"}));
    }

    void pathIsSearchedInOrderAndNonExecutablesArePassedOver() {
        writeFile(path("bin-a/python3"), fakePython, false);
        writeFile(path("bin-b/python3"), fakePython, true);
        RelayProcessConfig config = emptyConfig();
        config.searchPath = "::" + path("bin-a") + "::" + path("bin-b") + ":";
        RelayProcessManager manager(config);
        QCOMPARE(*manager.pythonPath(), path("bin-b/python3"));
    }

    void missingScriptIsReported() {
        writeFile(path("bin-b/python3"), fakePython, true);
        RelayProcessManager manager(emptyConfig());
        const auto result = await(manager.start());
        QCOMPARE(result.error().message, "The bundled relay files could not be found.");
        QVERIFY(!manager.ownsProcess());
    }

    void missingInterpreterIsReported() {
        writeFile(path("source/cloud_app/src/relay/server.py"), "", false);
        RelayProcessConfig config = emptyConfig();
        config.systemInterpreters = {path("usr/bin/python3")};
        RelayProcessManager manager(config);
        QCOMPARE(await(manager.start()).error().message, "Python 3 is required to run the local relay.");
    }

    void startGivesTheEnvironmentTable() {
        RelayProcessManager manager(workingConfig());
        QVERIFY(await(manager.start()).ok());
        QTRY_VERIFY(record().contains("MERE_RELAY_LOCAL_AUTH"));
        const auto values = record();
        QCOMPARE(values["args"], path("source/cloud_app/src/relay/server.py"));
        QCOMPARE(values["cwd"], path("source/cloud_app/src/relay"));
        QCOMPARE(values["MERE_RELAY_PORT"], "18787"); // overrides the parent's value
        QCOMPARE(values["MERE_RELAY_DB_PATH"], path("support/Quillmere/relay.db"));
        QCOMPARE(values["MERE_RELAY_ENV_PATH"], path("support/Quillmere/relay.env"));
        QCOMPARE(values["MERE_RELAY_LOCAL_AUTH"], "1");
        QCOMPARE(values["PYTHONDONTWRITEBYTECODE"], "1");
        QCOMPARE(values["KEPT_FROM_PARENT"], "yes");
        QVERIFY(QDir(path("support/Quillmere")).exists());
    }

    void startTwiceLaunchesOneChild() {
        RelayProcessManager manager(workingConfig());
        QVERIFY(await(manager.start()).ok());
        const qint64 pid = *manager.processId();
        QVERIFY(await(manager.start()).ok());
        QCOMPARE(*manager.processId(), pid);
    }

    void aDeadChildIsReplacedByTheNextStart() {
        RelayProcessManager manager(workingConfig());
        QVERIFY(await(manager.start()).ok());
        const qint64 pid = *manager.processId();
        ::kill(pid_t(pid), SIGKILL);
        QTRY_VERIFY(!manager.isRunning());
        QVERIFY(manager.ownsProcess());
        QVERIFY(await(manager.start()).ok());
        QVERIFY(*manager.processId() != pid);
    }

    void inventoryVariablesWinAndItsFailureStartsNothing() {
        RelayProcessConfig config = workingConfig();
        config.inventoryEnvironment = []() -> QCoro::Task<Result<std::map<QString, QString>>> {
            co_return std::map<QString, QString>{{"MERE_RELAY_LOCAL_AUTH", "0"},
                                                 {"ROUTER_MODELS_JSON", "[]"}};
        };
        RelayProcessManager manager(config);
        QVERIFY(await(manager.start()).ok());
        QTRY_VERIFY(record().contains("ROUTER_MODELS_JSON"));
        QCOMPARE(record()["MERE_RELAY_LOCAL_AUTH"], "0");
        await(manager.stop());

        QFile::remove(path("record.txt"));
        config.inventoryEnvironment = []() -> QCoro::Task<Result<std::map<QString, QString>>> {
            co_return Error{"The provider inventory could not be read."};
        };
        RelayProcessManager failing(config);
        QCOMPARE(await(failing.start()).error().message, "The provider inventory could not be read.");
        QVERIFY(!failing.ownsProcess());
        QTest::qWait(100);
        QVERIFY(!QFile::exists(path("record.txt")));
    }

    void restartOfAForeignRelayRefuses() {
        RelayProcessManager manager(workingConfig());
        QCOMPARE(await(manager.restart()).error().message,
                 "This relay was not launched by Quillmere, so the app will not restart it.");
    }

    void restartReplacesOurChild() {
        RelayProcessManager manager(workingConfig());
        QVERIFY(await(manager.start()).ok());
        const qint64 first = *manager.processId();
        QVERIFY(await(manager.restart()).ok());
        QVERIFY(*manager.processId() != first);
        QVERIFY(!processAlive(first));
    }

    void ownedChildIsTerminatedAtQuitAndTheManagerLetsGo() {
        qint64 pid = 0;
        {
            RelayProcessManager manager(workingConfig());
            QVERIFY(await(manager.start()).ok());
            pid = *manager.processId();
            await(manager.stop());
            QVERIFY(!manager.ownsProcess());
            QVERIFY(!processAlive(pid));
            QVERIFY(await(manager.start()).ok());
            pid = *manager.processId();
        }
        // Destroying the manager, as the application does at quit, ends the child too;
        // without waiting for it, so it is gone a moment later.
        QTRY_VERIFY(!processAlive(pid));
    }

    void waitsHaveNamedDefaults() {
        QCOMPARE(RelayProcessConfig::defaultStartTimeout, 3000ms);
        QCOMPARE(RelayProcessConfig::defaultStopGrace, 3000ms);
        QCOMPARE(RelayProcessConfig::defaultKillGrace, 3000ms);
        const RelayProcessConfig config;
        QCOMPARE(config.startTimeout, RelayProcessConfig::defaultStartTimeout);
        QCOMPARE(config.stopGrace, RelayProcessConfig::defaultStopGrace);
        QCOMPARE(config.killGrace, RelayProcessConfig::defaultKillGrace);
    }

    void aRelayThatStopsWhenAskedIsNotKilled() {
        writeFile(path("source/cloud_app/src/relay/server.py"), "# relay\n", false);
        writeFile(path("bin-b/python3"), politePython, true);
        RelayProcessConfig config = emptyConfig();
        config.stopGrace = 10000ms;
        RelayProcessManager manager(config);
        QVERIFY(await(manager.start()).ok());
        QTRY_COMPARE(record().value("started"), "yes");
        const qint64 pid = *manager.processId();
        await(manager.stop());
        QCOMPARE(record().value("stopped"), "asked");
        QVERIFY(!processAlive(pid));
    }

    void aRelayThatIgnoresTheRequestIsKilledAfterItsGraceWhileTheLoopTurns() {
        writeFile(path("source/cloud_app/src/relay/server.py"), "# relay\n", false);
        writeFile(path("bin-b/python3"), stubbornPython, true);
        RelayProcessConfig config = emptyConfig();
        config.stopGrace = 300ms;
        RelayProcessManager manager(config);
        QVERIFY(await(manager.start()).ok());
        QTRY_COMPARE(record().value("ignoring"), "TERM");
        const qint64 pid = *manager.processId();
        // A frame's worth of work keeps running while the quit waits for the relay.
        int ticks = 0;
        QTimer ticker;
        ticker.setInterval(5);
        QObject::connect(&ticker, &QTimer::timeout, [&ticks] { ++ticks; });
        ticker.start();
        QElapsedTimer waited;
        waited.start();
        await(manager.stop());
        // It was given its grace first (a coarse timer may end up to 5 % early).
        QVERIFY(waited.elapsed() >= 270);
        QVERIFY(!processAlive(pid));
        QVERIFY2(ticks >= 10, qPrintable(QString("the event loop turned %1 times").arg(ticks)));
    }

    void aSecondStartDuringALaunchLaunchesNoSecondChild() {
        writeFile(path("source/cloud_app/src/relay/server.py"), "# relay\n", false);
        writeFile(path("bin-b/python3"), countingPython, true);
        RelayProcessManager manager(emptyConfig());
        auto first = manager.start();
        auto second = manager.start();
        QVERIFY(await(std::move(first)).ok());
        QVERIFY(await(std::move(second)).ok());
        QTest::qWait(100); // a second child would have written by now
        QFile launches(path("record.txt"));
        QVERIFY(launches.open(QIODevice::ReadOnly));
        QCOMPARE(launches.readAll(), QByteArray("launched\n"));
    }
};

QTEST_GUILESS_MAIN(RelayProcessManagerTest)
#include "RelayProcessManagerTest.moc"
