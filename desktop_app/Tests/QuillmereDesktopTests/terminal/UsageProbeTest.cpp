#include "QuillmereDesktop/terminal/UsageProbe.h"
#include "QuillmereDesktop/terminal/CLIStatusStore.h"
#include "Termkit/process/HeadlessTerminal.h"
#include "Termkit/view/qt/MainThreadExecutor.h"
#include "support/Await.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <memory>

using namespace std::chrono_literals;

namespace {

// A process that is gone, or only waits to be collected.
bool gone(pid_t pid) {
    if (pid <= 0 || ::kill(pid, 0) != 0)
        return true;
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return true;
    return status.readAll().contains("State:\tZ");
}

} // namespace

// The usage probe against a stand-in for the Claude CLI on the PATH of the probe's login
// shell: a full-screen program that draws its usage figures in a tabbed panel.
class UsageProbeTest : public QObject {
    Q_OBJECT

    QTemporaryDir m_home;
    QByteArray m_realHome;

    QString fakeBin(const QString& name) const { return m_home.filePath(name); }

    // The login shell's profile puts one of the two stand-ins first on its PATH.
    void useClaude(const QString& kind) {
        const QString profile = QStringLiteral("export PATH=\"%1:$PATH\"\n").arg(fakeBin(kind));
        for (const char* name : {".bash_profile", ".zprofile", ".profile"}) {
            QFile file(m_home.filePath(QString::fromLatin1(name)));
            QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
            file.write(profile.toUtf8());
        }
    }

    void writeClaude(const QString& kind, const QString& arguments) {
        QVERIFY(QDir().mkpath(fakeBin(kind)));
        QFile file(QDir(fakeBin(kind)).filePath(QStringLiteral("claude")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QStringLiteral("#!/bin/sh\nexec /usr/bin/python3 '%1' %2\n")
                       .arg(QStringLiteral(QUILLMERE_TEST_DATA "/fake-claude.py"), arguments)
                       .toUtf8());
        file.close();
        QVERIFY(
            file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner));
    }

    QList<pid_t> claudePids() const {
        QFile file(m_home.filePath(QStringLiteral("fake-claude.pids")));
        QList<pid_t> pids;
        if (file.open(QIODevice::ReadOnly))
            for (const QByteArray& line : file.readAll().split('\n'))
                if (!line.trimmed().isEmpty())
                    pids.append(pid_t(line.trimmed().toInt()));
        return pids;
    }

private slots:
    void initTestCase() {
        // The probe's shell reads its profile from this home, as the child's HOME comes from ours.
        m_realHome = qgetenv("HOME");
        qputenv("HOME", m_home.path().toUtf8());
        writeClaude(QStringLiteral("fast"), QString());
        writeClaude(QStringLiteral("slow"), QStringLiteral("3"));
    }
    void cleanupTestCase() { qputenv("HOME", m_realHome); }

    void defaults() {
        QCOMPARE(UsageProbe::Timeline::defaultCommandDelay, 400ms);
        QCOMPARE(UsageProbe::Timeline::defaultUsageDelay, 2900ms);
        QCOMPARE(UsageProbe::Timeline::defaultTabDelay, 2000ms);
        QCOMPARE(UsageProbe::Timeline::defaultCopyDelay, 1000ms);
        QCOMPARE(UsageProbe::Timeline::defaultTimeout, 10000ms);
        QCOMPARE(UsageProbe::columns, 220);
        QCOMPARE(UsageProbe::rows, 55);
        QCOMPARE(CLIStatusStore::defaultUsageProbeInterval, 300000ms);
        // zsh where it exists; otherwise never the environment's SHELL.
        const QString shell = UsageProbe::shell();
        QVERIFY(QFileInfo(shell).isExecutable());
        if (QFileInfo(QStringLiteral("/bin/zsh")).isExecutable())
            QCOMPARE(shell, "/bin/zsh");
    }

    void parsesBothFigures() {
        const auto usage = UsageProbe::parse(QStringLiteral("  Total tokens: 1.2M\n  Sessions: 14\n"));
        QVERIFY(usage);
        QCOMPARE(usage->totalTokens, "1.2M");
        QCOMPARE(usage->sessions, "14");
        QVERIFY(!UsageProbe::parse(QStringLiteral("Total tokens: 1.2M")));
        QVERIFY(!UsageProbe::parse(QStringLiteral("Sessions: 14")));
        QVERIFY(!UsageProbe::parse(QStringLiteral("Sessions: many\nTotal tokens: 3")));
        QVERIFY(!UsageProbe::parse(QString()));
        // The first of each counts.
        const auto first =
            UsageProbe::parse(QStringLiteral("Total tokens: 5k Sessions: 2 Total tokens: 9k Sessions: 3"));
        QVERIFY(first);
        QCOMPARE(first->totalTokens, "5k");
        QCOMPARE(first->sessions, "2");
    }

    void cellsNeverDrawnDoNotGlueLabelsToFigures() {
        termkit::TerminalOptions options;
        options.cols = UsageProbe::columns;
        options.rows = UsageProbe::rows;
        termkit::HeadlessTerminal terminal(termkit::MainThreadExecutor::shared(), options);
        // Label and figure apart, with untouched cells between them, as the CLI draws them.
        terminal.terminal().feed(
            "\x1b[?1049h\x1b[5;4HTotal tokens:\x1b[5;24H1.2M\x1b[6;4HSessions:\x1b[6;24H14");
        const QString text = UsageProbe::bufferText(terminal.terminal());
        QVERIFY(!text.contains(QChar(u'\0')));
        QCOMPARE(text.split(u'\n').size(), UsageProbe::rows);
        const auto usage = UsageProbe::parse(text);
        QVERIFY(usage);
        QCOMPARE(usage->totalTokens, "1.2M");
        QCOMPARE(usage->sessions, "14");
    }

    void resumeOnceGivesTheFirstCallOnly() {
        UsageProbe::ResumeOnce guard;
        QVERIFY(!guard.resumed());
        QVERIFY(guard.claim());
        QVERIFY(!guard.claim());
        QVERIFY(guard.resumed());
    }

    // The whole timeline at its real timings: figures at 5.9 seconds, the time-out at 10
    // seconds ends the process a second time and does nothing else, nothing is left running.
    void readsTheUsageTabOfTheCLI() {
        useClaude(QStringLiteral("fast"));
        QFile::remove(m_home.filePath(QStringLiteral("fake-claude.pids")));
        auto* run = new UsageProbe::Run(m_home.path(), UsageProbe::Timeline{});
        QPointer<UsageProbe::Run> guarded(run);
        QSignalSpy finished(run, &UsageProbe::Run::finished);
        QSignalSpy timedOut(run, &UsageProbe::Run::timedOut);
        // Read as the time-out fires: the run deletes itself right after.
        auto terminationsAtTimeOut = std::make_shared<int>(0);
        connect(run, &UsageProbe::Run::timedOut, run,
                [run, terminationsAtTimeOut] { *terminationsAtTimeOut = run->terminations(); });
        QElapsedTimer clock;
        clock.start();
        run->start();
        const pid_t shellPid = run->shellPid();
        QVERIFY(shellPid > 0);
        QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, 9000);
        QVERIFY(clock.elapsed() >= 5900);
        const auto text = finished.first().first().value<std::optional<QString>>();
        QVERIFY(text);
        QVERIFY2(text->contains("Usage"), qPrintable(*text));
        const auto usage = UsageProbe::parse(*text);
        QVERIFY2(usage, qPrintable(*text));
        QCOMPARE(usage->totalTokens, "1.2M");
        QCOMPARE(usage->sessions, "14");
        QCOMPARE(guarded->terminations(), 1);

        QTRY_COMPARE_WITH_TIMEOUT(timedOut.count(), 1, 6000);
        QCOMPARE(finished.count(), 1);
        QCOMPARE(*terminationsAtTimeOut, 2);
        QTRY_VERIFY(!guarded);
        const QList<pid_t> pids = claudePids();
        QCOMPARE(pids.size(), 1);
        QTRY_VERIFY_WITH_TIMEOUT(gone(shellPid) && gone(pids.first()), 5000);
    }

    void aTimeOutGivesNothing() {
        useClaude(QStringLiteral("fast"));
        // The copy would come after the time-out.
        UsageProbe::Timeline timeline{50ms, 100ms, 100ms, 5000ms, 600ms};
        auto* run = new UsageProbe::Run(m_home.path(), timeline);
        QSignalSpy finished(run, &UsageProbe::Run::finished);
        run->start();
        const pid_t shellPid = run->shellPid();
        QTRY_COMPARE(finished.count(), 1);
        QVERIFY(!finished.first().first().value<std::optional<QString>>());
        QTRY_VERIFY_WITH_TIMEOUT(gone(shellPid), 5000);
    }

    // The store: a probe at once and then every interval, one probing however often it is
    // asked for, and a probe without figures keeps the last good ones.
    void storeKeepsTheLastGoodFigures() {
        useClaude(QStringLiteral("fast"));
        QFile::remove(m_home.filePath(QStringLiteral("fake-claude.pids")));
        CLIStatusStore store(60000ms);
        store.setUsageProbing(1500ms, UsageProbe::Timeline{});
        QSignalSpy probed(&store, &CLIStatusStore::claudeUsageProbed);
        store.startClaudeUsageProbing(m_home.path());
        store.startClaudeUsageProbing(QDir::tempPath());
        QVERIFY(store.isProbingClaudeUsage());
        QTRY_COMPARE_WITH_TIMEOUT(probed.count(), 1, 9000);
        QCOMPARE(probed.first().first().toBool(), true);
        const ClaudeUsage expected{QStringLiteral("1.2M"), QStringLiteral("14")};
        QCOMPARE(store.claudeUsage(), std::optional(expected));

        // A CLI that starts too late for the typed command: the next probe has no figures.
        useClaude(QStringLiteral("slow"));
        QSignalSpy usageChanged(&store, &CLIStatusStore::claudeUsageChanged);
        QTRY_COMPARE_WITH_TIMEOUT(probed.count(), 2, 12000);
        QCOMPARE(probed.last().first().toBool(), false);
        QCOMPARE(store.claudeUsage(), std::optional(expected));
        QCOMPARE(usageChanged.count(), 0);
        // One probing only: two fake CLIs for two probes.
        QCOMPARE(claudePids().size(), 2);
    }
};

QTEST_GUILESS_MAIN(UsageProbeTest)
#include "UsageProbeTest.moc"
