#include "QuillmereDesktop/shell/QuitSequence.h"
#include "QuillmereDesktop/Auth/RelayProcessManager.h"
#include "support/Await.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <chrono>
#include <csignal>

using namespace std::chrono_literals;

namespace {

// A stand-in interpreter that ignores the request to stop, so only its kill ends it.
const char* const stubbornPython = R"sh(#!/bin/sh
trap '' TERM
echo ignoring > "$FAKE_RELAY_RECORD"
exec sleep 60
)sh";

void writeFile(const QString& path, const QByteArray& content, QFile::Permissions permissions) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(content);
    file.close();
    QVERIFY(file.setPermissions(permissions));
}

bool processAlive(qint64 pid) {
    return ::kill(pid_t(pid), 0) == 0;
}

} // namespace

// The application's quit: held until the agents are told and the relay is gone, with
// the event loop turning all the while.
class QuitSequenceTest : public QObject {
    Q_OBJECT

private slots:
    void quitWaitsForTheRelayWithoutFreezingTheLoop() {
        QTemporaryDir root;
        writeFile(root.filePath("source/cloud_app/src/relay/server.py"), "# relay\n",
                  QFile::ReadOwner | QFile::WriteOwner);
        writeFile(root.filePath("bin/python3"), stubbornPython,
                  QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        RelayProcessConfig config;
        config.resourceDirectories = {};
        config.currentDirectory = root.filePath("cwd");
        config.sourceRoot = root.filePath("source");
        config.searchPath = root.filePath("bin");
        config.systemInterpreters = {};
        config.supportDirectory = root.filePath("support");
        config.baseEnvironment = QProcessEnvironment();
        config.baseEnvironment.insert("FAKE_RELAY_RECORD", root.filePath("record.txt"));
        config.stopGrace = 200ms;
        RelayProcessManager relay(config);
        QVERIFY(await(relay.start()).ok());
        // Only once it ignores the request can its stop show the wait.
        QTRY_VERIFY(QFile::exists(root.filePath("record.txt")) &&
                    QFileInfo(root.filePath("record.txt")).size() > 0);
        const qint64 pid = *relay.processId();

        int agentsTold = 0;
        QuitSequence sequence([&agentsTold] { ++agentsTold; }, [&relay] { return relay.stop(); });
        int ticks = 0;
        QTimer ticker;
        ticker.setInterval(5);
        QObject::connect(&ticker, &QTimer::timeout, [&] {
            ++ticks;
            // A second request while the sequence runs changes nothing.
            if (ticks == 2)
                QCoreApplication::quit();
        });
        ticker.start();
        QTimer::singleShot(0, [] { QCoreApplication::quit(); });

        QCOMPARE(QCoreApplication::exec(), 0);
        QVERIFY(sequence.isRunning());
        QCOMPARE(agentsTold, 1);
        QVERIFY(!relay.ownsProcess());
        QVERIFY(!processAlive(pid));
        QVERIFY2(ticks >= 10, qPrintable(QString("the event loop turned %1 times").arg(ticks)));
    }
};

QTEST_GUILESS_MAIN(QuitSequenceTest)
#include "QuitSequenceTest.moc"
