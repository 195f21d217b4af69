#include "QuillmereDesktop/queue/MockClient.h"

#include <QJsonDocument>
#include <QSignalSpy>
#include <QTest>
#include <qcoro/qcorotask.h>

#include <chrono>

using namespace std::chrono_literals;

class MockClientTest : public QObject {
    Q_OBJECT

    static Verdict approve() {
        return {VerdictKind::approve, std::nullopt, Verdict::desktopSource, QDateTime::currentDateTimeUtc()};
    }
    static MockClient::Timing fast() { return {20ms, 5ms}; }

private slots:
    void defaultsAreTheDemoQueueTimes() {
        QCOMPARE(MockClient::Timing{}.tickInterval, 6000ms);
        QCOMPARE(MockClient::Timing{}.submitDelay, 350ms);
        QCOMPARE(MockClient::newInterruptEvery, 4);
        QCOMPARE(MockClient::usageMovesEvery, 5);
        QCOMPARE(MockClient::maxOpenInterrupts, 4);
    }

    void startsWithTheTwoDemoInterrupts() {
        const QDateTime before = QDateTime::currentDateTimeUtc();
        MockClient client;
        const Snapshot& s = client.snapshot();
        QCOMPARE(s.running, 3);
        QCOMPARE(s.done, 12);
        QCOMPARE(s.usage, (Usage{72, 18, 812000}));
        QVERIFY(!s.openSuggestions.has_value());
        QCOMPARE(s.interrupts.size(), 2);

        const Interrupt& first = s.interrupts[0];
        QCOMPARE(first.runId, "run-aurora");
        QCOMPARE(first.runName, "aurora-migrate");
        QCOMPARE(first.kind, InterruptKind::approval);
        QCOMPARE(first.prompt, "Delete 4 stale feature branches on origin?");
        QCOMPARE(first.options, (QStringList{"Approve", "Reject"}));
        QCOMPARE(first.actionToolkit, QString("github"));
        QCOMPARE(first.actionSlug, QString("GITHUB_DELETE_A_REFERENCE"));
        QCOMPARE(first.target, QString("tarnfield/quillmere"));
        QVERIFY(qAbs(first.raisedAt.secsTo(before) - 140) <= 1);
        QVERIFY(!first.requester && !first.reason && !first.evidence && !first.expiresAt);

        const Interrupt& second = s.interrupts[1];
        QCOMPARE(second.runId, "run-triage");
        QCOMPARE(second.runName, "triage-bot");
        QCOMPARE(second.kind, InterruptKind::question);
        QCOMPARE(second.prompt,
                 QString::fromUtf8(
                     "Which service owns the /v1/events 500s from last night \u2014 billing or ingest?"));
        QCOMPARE(second.options, (QStringList{"Billing", "Ingest", "Not sure"}));
        QVERIFY(qAbs(second.raisedAt.secsTo(before) - 40) <= 1);
        QVERIFY(!second.detail && !second.actionSlug && !second.actionToolkit && !second.target);
        QVERIFY(first.id != second.id);
        QVERIFY(!QUuid::fromString(first.id).isNull());
    }

    void detailIsTheBranchListAsPrettyJson() {
        MockClient client;
        const QString detail = *client.snapshot().interrupts[0].detail;
        QCOMPARE(detail.count(QLatin1Char('\n')) + 1, 5);
        const QJsonObject json = QJsonDocument::fromJson(detail.toUtf8()).object();
        QCOMPARE(json.value("remote").toString(), "origin");
        QCOMPARE(json.value("branches").toVariant().toStringList(),
                 (QStringList{"feat/old-router", "feat/spike-ui", "fix/flaky-test", "chore/deps-bump"}));
    }

    void connectReportsOnlineThenTheSnapshotBeforeReturning() {
        MockClient client(fast());
        QStringList calls;
        client.connect([&](const Snapshot& s) { calls << QString("snapshot %1").arg(s.interrupts.size()); },
                       [&](bool online) { calls << QString("online %1").arg(online); });
        QCOMPARE(calls, (QStringList{"online 1", "snapshot 2"}));
        QVERIFY(client.isTicking());
    }

    void timerTicksDeliverSnapshots() {
        MockClient client(fast());
        int snapshots = 0;
        client.connect([&](const Snapshot&) { ++snapshots; }, nullptr);
        QTRY_VERIFY_WITH_TIMEOUT(snapshots >= 4, 2000);
        QVERIFY(client.runCounter() >= 3);
    }

    void disconnectStopsTheTimerAndKeepsTheSnapshot() {
        MockClient client(fast());
        int snapshots = 0;
        client.connect([&](const Snapshot&) { ++snapshots; }, nullptr);
        client.disconnect();
        QVERIFY(!client.isTicking());
        const int before = snapshots;
        QTest::qWait(100);
        QCOMPARE(snapshots, before);
        QCOMPARE(client.snapshot().interrupts.size(), 2);
        client.disconnect(); // twice is harmless
    }

    void everyFourthTickAddsAnInterruptWhileFewerThanFourAreOpen() {
        MockClient client({}, 7);
        for (int i = 0; i < 3; ++i)
            client.tick();
        QCOMPARE(client.snapshot().interrupts.size(), 2);
        client.tick();
        QCOMPARE(client.snapshot().interrupts.size(), 3);
        for (int i = 0; i < 4; ++i)
            client.tick();
        QCOMPARE(client.snapshot().interrupts.size(), 4);
    }

    void withFourOpenTheFourthTickAddsNone() {
        MockClient client({}, 11);
        for (int i = 0; i < 8; ++i)
            client.tick();
        QCOMPARE(client.snapshot().interrupts.size(), 4);
        for (int i = 0; i < 4; ++i)
            client.tick();
        QCOMPARE(client.runCounter(), 12);
        QCOMPARE(client.snapshot().interrupts.size(), 4);
    }

    void randomInterruptsComeFromTheThreeTemplates() {
        MockClient client({6000ms, 0ms}, 3);
        QSet<QString> names;
        for (int round = 0; round < 60; ++round) {
            client.tick();
            for (const Interrupt& i : client.snapshot().interrupts.mid(2)) {
                names.insert(i.runName);
                QCOMPARE(i.runId, i.runName);
                QVERIFY(!i.detail && !i.actionSlug && !i.target);
                if (i.runName == "release-notes") {
                    QCOMPARE(i.kind, InterruptKind::approval);
                    QCOMPARE(i.options, (QStringList{"Approve", "Reject"}));
                } else if (i.runName == "db-backfill") {
                    QCOMPARE(i.kind, InterruptKind::choice);
                    QCOMPARE(i.options, (QStringList{"Batch", "Single transaction"}));
                } else {
                    QCOMPARE(i.runName, "support-reply");
                    QCOMPARE(i.kind, InterruptKind::question);
                    QCOMPARE(i.options, (QStringList{"Offer credit", "Escalate", "Decline"}));
                }
            }
            // Answer the invented ones so that new ones keep coming.
            const QList<Interrupt> invented = client.snapshot().interrupts.mid(2);
            for (const Interrupt& i : invented)
                QVERIFY(QCoro::waitFor(client.submitVerdict(i.id, approve())).ok());
        }
        QCOMPARE(names.size(), 3);
    }

    void usageMovesEveryFifthTickAndLimitStaysWithinBounds() {
        MockClient client({}, 5);
        const Usage start = *client.snapshot().usage;
        for (int i = 0; i < 4; ++i)
            client.tick();
        QCOMPARE(*client.snapshot().usage, start);
        for (int i = 0; i < 5000; ++i) {
            client.tick();
            const Usage& u = *client.snapshot().usage;
            QVERIFY(u.limitPct >= 0 && u.limitPct <= 100);
            QVERIFY(u.spendDeltaPct >= -5 && u.spendDeltaPct <= 30);
            QCOMPARE(u.tokensToday, start.tokensToday);
        }
    }

    void limitIsClampedAtTheTop() {
        // The walk drifts upward, so a long run meets the clamp at 100 and stays within it.
        MockClient client({}, 9);
        bool sawTop = false;
        for (int i = 0; i < 20000 && !sawTop; ++i) {
            client.tick();
            sawTop = client.snapshot().usage->limitPct == 100;
        }
        QVERIFY(sawTop);
    }

    void verdictRemovesTheInterruptAndCountsItDone() {
        MockClient client(fast());
        Snapshot last;
        client.connect([&](const Snapshot& s) { last = s; }, nullptr);
        client.disconnect();
        const QString id = client.snapshot().interrupts[0].id;
        const SubmitResult result = QCoro::waitFor(client.submitVerdict(id, approve()));
        QVERIFY(result.ok());
        QCOMPARE(client.snapshot().interrupts.size(), 1);
        QCOMPARE(client.snapshot().done, 13);
        QCOMPARE(client.snapshot().running, 3);
        QCOMPARE(last, client.snapshot());
    }

    void secondVerdictOnTheSameInterruptIsAlreadyResolved() {
        MockClient client(fast());
        const QString id = client.snapshot().interrupts[0].id;
        QVERIFY(QCoro::waitFor(client.submitVerdict(id, approve())).ok());
        const SubmitResult again = QCoro::waitFor(client.submitVerdict(id, approve()));
        QVERIFY(!again.ok());
        QCOMPARE(std::get<ClientError>(again.error()), ClientError::alreadyResolved());
        QCOMPARE(client.snapshot().done, 13);
    }

    void verdictWaitsTheSimulatedDelay() {
        MockClient client({6000ms, 120ms});
        QElapsedTimer timer;
        timer.start();
        (void)QCoro::waitFor(client.submitVerdict(client.snapshot().interrupts[0].id, approve()));
        QVERIFY(timer.elapsed() >= 110);
    }

    void newInterruptsKeepArrivingAfterAllAreAnswered() {
        MockClient client(fast());
        const QList<Interrupt> open = client.snapshot().interrupts;
        for (const Interrupt& i : open)
            QVERIFY(QCoro::waitFor(client.submitVerdict(i.id, approve())).ok());
        QVERIFY(client.snapshot().interrupts.isEmpty());
        for (int i = 0; i < 4; ++i)
            client.tick();
        QCOMPARE(client.snapshot().interrupts.size(), 1);
    }

    void clientDeletedDuringTheDelayReportsCancellation() {
        auto* client = new MockClient({6000ms, 50ms});
        auto task = client->submitVerdict(client->snapshot().interrupts[0].id, approve());
        delete client;
        const SubmitResult result = QCoro::waitFor(std::move(task));
        QVERIFY(!result.ok());
        QVERIFY(std::holds_alternative<Error>(result.error()));
    }
};

QTEST_GUILESS_MAIN(MockClientTest)
#include "MockClientTest.moc"
