#include "QuillmereDesktop/terminal/TerminalPipeline.h"
#include "support/RelayFixture.h"
#include "support/RelayProxy.h"
#include "support/RelaySession.h"

#include <QJsonArray>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

#include <chrono>
#include <memory>

using namespace std::chrono_literals;

namespace {

// A short batch delay keeps the tests fast; the rules do not depend on its length.
constexpr auto delay = 20ms;

QList<qint64> seqs(const QList<TerminalEventChunk>& chunks) {
    QList<qint64> numbers;
    for (const TerminalEventChunk& chunk : chunks)
        numbers.append(chunk.seq);
    return numbers;
}

QList<TerminalEventChunk> chunksOf(const RelayProxy::Request& request) {
    const QJsonObject body = QJsonDocument::fromJson(request.body).object();
    return wire::decode<QList<TerminalEventChunk>>(body.value("chunks")).value();
}

QByteArray eventsPath(const QString& sessionId) {
    return "/v1/terminal/sessions/" + sessionId.toUtf8() + "/events";
}

QByteArray endPath(const QString& sessionId) {
    return "/v1/terminal/sessions/" + sessionId.toUtf8() + "/end";
}

// Holds the create request of a session until the test lets it go.
RelayProxy::Decision holdCreate(const RelayProxy::Request& request) {
    if (request.path == "/v1/terminal/sessions" && request.method == "POST")
        return {RelayProxy::Action::hold};
    return {};
}

} // namespace

// The capture pipeline against the real relay, seen through a recording proxy.
class TerminalPipelineTest : public QObject {
    Q_OBJECT

    RelayFixture m_relay;
    QString m_token;

    // A pipeline on a fresh proxy, with its session open.
    struct Open {
        std::unique_ptr<RelayProxy> proxy;
        std::unique_ptr<RelayClient> client;
        std::unique_ptr<TerminalPipeline> pipeline;
        QString sessionId;
    };

    Open openPipeline(std::chrono::milliseconds batchDelay = delay) {
        Open open;
        open.proxy = std::make_unique<RelayProxy>(m_relay.url());
        open.client = std::make_unique<RelayClient>(open.proxy->url(), m_token);
        open.pipeline = std::make_unique<TerminalPipeline>(open.client.get(), batchDelay);
        open.pipeline->start();
        if (waitUntil([&] { return open.pipeline->sessionId().has_value(); }, 5000))
            open.sessionId = *open.pipeline->sessionId();
        return open;
    }

    // Waits until nothing is pending and no timer runs.
    static bool drained(const TerminalPipeline& pipeline) {
        return waitUntil([&] { return pipeline.pending().isEmpty() && !pipeline.hasFlushTask(); }, 5000);
    }

    std::optional<StoredTerminalSession> stored(const QString& sessionId) {
        return storedSession(m_relay.url(), m_token, sessionId);
    }

private slots:
    void initTestCase() {
        QVERIFY(m_relay.start());
        const auto token = localSessionToken(m_relay.url());
        QVERIFY(token);
        m_token = *token;
    }

    void theBatchDelayDefaultsTo300Milliseconds() {
        QCOMPARE(TerminalPipeline::defaultBatchDelay, 300ms);
        RelayClient client(QUrl("http://127.0.0.1:1/"), std::nullopt);
        QCOMPARE(TerminalPipeline(&client).batchDelay(), 300ms);
    }

    void chunksGoOutInOneBatchAndTheTranscriptMatches() {
        Open open = openPipeline();
        QVERIFY(!open.sessionId.isEmpty());
        TerminalPipeline& pipeline = *open.pipeline;
        QVERIFY(!pipeline.lastError());

        pipeline.capture("input", "ls -la\r");
        pipeline.capture("output", "\x1b[1mbold\x1b[0m \"quoted\" \\ tab\t\r\n");
        pipeline.capture("output", "caf\xc3\xa9 \xf0\x9f\x98\x80 \xe4\xb8\xad");
        pipeline.capture("output", QByteArray("nul \0 and bell \a", 16));
        const QList<TerminalEventChunk> captured = pipeline.pending();
        QCOMPARE(seqs(captured), (QList<qint64>{1, 2, 3, 4}));
        QCOMPARE(captured[3].data.size(), 16);
        QCOMPARE(captured[1].data, QString("\x1b[1mbold\x1b[0m \"quoted\" \\ tab\t\r\n"));
        QCOMPARE(captured[2].data, QString::fromUtf8("caf\xc3\xa9 \xf0\x9f\x98\x80 \xe4\xb8\xad"));
        const QRegularExpression isoSeconds("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ$");
        for (const TerminalEventChunk& chunk : captured)
            QVERIFY2(isoSeconds.match(chunk.ts).hasMatch(), qPrintable(chunk.ts));

        QVERIFY(drained(pipeline));
        const auto sent = open.proxy->requestsTo(eventsPath(open.sessionId));
        QCOMPARE(sent.size(), 1);
        QCOMPARE(chunksOf(sent[0]), captured);
        // The wire keys are exactly the chunk's four fields.
        const QJsonObject first =
            QJsonDocument::fromJson(sent[0].body).object().value("chunks").toArray()[0].toObject();
        QCOMPARE(first.keys(), (QStringList{"data", "seq", "stream", "ts"}));

        const auto session = stored(open.sessionId);
        QVERIFY(session);
        QCOMPARE(session->source, "desktop");
        QCOMPARE(session->chunks, captured);
        QVERIFY(!session->ended_at);
    }

    void aSteadyStreamIsSentOnceEveryDelayNotHeldBack() {
        Open open = openPipeline(100ms);
        TerminalPipeline& pipeline = *open.pipeline;
        // Keystrokes every 10 ms for about half a second: a delay measured from the last
        // chunk would send nothing until they stop.
        QElapsedTimer typing;
        typing.start();
        int typed = 0;
        while (typing.elapsed() < 450) {
            pipeline.capture("input", QByteArray(1, char('a' + typed++ % 26)));
            QTest::qWait(10);
        }
        const qsizetype sentWhileTyping = open.proxy->requestsTo(eventsPath(open.sessionId)).size();
        QVERIFY2(sentWhileTyping >= 2, qPrintable(QString::number(sentWhileTyping)));
        // Keys typed while a batch was on its way wait for the next one.
        QVERIFY(waitUntil([&] { return !pipeline.hasFlushTask(); }));
        pipeline.capture("input", "\r");
        ++typed;
        QVERIFY(drained(pipeline));
        const auto session = stored(open.sessionId);
        QVERIFY(session);
        QCOMPARE(session->chunks.size(), typed);
        QCOMPARE(session->chunks.last().seq, qint64(typed));
    }

    void onlyOneFlushIsInFlightAndCapturesDuringItWaitForTheNext() {
        Open open = openPipeline();
        TerminalPipeline& pipeline = *open.pipeline;
        open.proxy->setRule([](const RelayProxy::Request& request) -> RelayProxy::Decision {
            return {request.path.endsWith("/events") ? RelayProxy::Action::hold
                                                     : RelayProxy::Action::forward};
        });
        pipeline.capture("output", "A");
        waitUntil([&] { return open.proxy->heldCount() == 1; });
        QCOMPARE(open.proxy->heldCount(), 1);
        pipeline.capture("output", "B");
        pipeline.capture("output", "C");
        QTest::qWait(int(5 * delay.count()));
        QCOMPARE(open.proxy->heldCount(), 1); // no second request while the first waits
        QVERIFY(pipeline.hasFlushTask());

        open.proxy->setRule({});
        open.proxy->releaseHeld();
        QVERIFY(waitUntil([&] { return !pipeline.hasFlushTask(); }));
        // Nothing re-arms the timer: B and C wait for the next capture.
        QTest::qWait(int(5 * delay.count()));
        QCOMPARE(seqs(pipeline.pending()), (QList<qint64>{2, 3}));
        QCOMPARE(open.proxy->requestsTo(eventsPath(open.sessionId)).size(), 1);

        pipeline.capture("output", "D");
        QVERIFY(drained(pipeline));
        const auto sent = open.proxy->requestsTo(eventsPath(open.sessionId));
        QCOMPARE(sent.size(), 2);
        QCOMPARE(seqs(chunksOf(sent[1])), (QList<qint64>{2, 3, 4}));
    }

    void aCutFourByteCharacterGivesTwoRepairedChunks() {
        RelayClient client(QUrl("http://127.0.0.1:1/"), std::nullopt);
        TerminalPipeline pipeline(&client, 1h);
        const QByteArray grin = "\xf0\x9f\x98\x80";
        pipeline.capture("output", "a" + grin.left(2));
        pipeline.capture("output", grin.mid(2) + "b");
        QCOMPARE(pipeline.pending().size(), 2);
        QCOMPARE(pipeline.pending()[0].data, QString("a\uFFFD"));
        QCOMPARE(pipeline.pending()[1].data, QString("\uFFFD\uFFFDb"));
    }

    void chunksBeforeTheSessionWaitUntilTheNextCapture() {
        RelayProxy proxy(m_relay.url());
        RelayClient client(proxy.url(), m_token);
        TerminalPipeline pipeline(&client, delay);
        proxy.setRule(holdCreate);
        pipeline.start();
        pipeline.capture("input", "echo 1\r");
        pipeline.capture("output", "1\r\n");
        // The timer fires with no session: nothing is sent and nothing re-arms.
        QVERIFY(waitUntil([&] { return !pipeline.hasFlushTask(); }));
        QCOMPARE(proxy.requestsTo("/v1/terminal/sessions/").size(), 0);

        proxy.setRule({});
        proxy.releaseHeld();
        QVERIFY(waitUntil([&] { return pipeline.sessionId().has_value(); }));
        QTest::qWait(int(5 * delay.count()));
        QCOMPARE(seqs(pipeline.pending()), (QList<qint64>{1, 2}));
        QCOMPARE(proxy.requestsTo("/v1/terminal/sessions/").size(), 0);

        pipeline.capture("output", "$ ");
        QVERIFY(drained(pipeline));
        const auto sent = proxy.requestsTo(eventsPath(*pipeline.sessionId()));
        QCOMPARE(sent.size(), 1);
        QCOMPARE(seqs(chunksOf(sent[0])), (QList<qint64>{1, 2, 3}));
    }

    void aTimerStillRunningWhenTheSessionOpensSendsTheEarlyChunks() {
        RelayProxy proxy(m_relay.url());
        RelayClient client(proxy.url(), m_token);
        TerminalPipeline pipeline(&client, 300ms);
        proxy.setRule(holdCreate);
        pipeline.start();
        pipeline.capture("output", "early");
        waitUntil([&] { return proxy.heldCount() == 1; });
        QCOMPARE(proxy.heldCount(), 1);
        proxy.setRule({});
        proxy.releaseHeld();
        QVERIFY(waitUntil([&] { return pipeline.sessionId().has_value(); }));
        QVERIFY(pipeline.hasFlushTask()); // the early chunk's timer has not fired yet
        QVERIFY(drained(pipeline));
        const auto session = stored(*pipeline.sessionId());
        QVERIFY(session);
        QCOMPARE(session->chunks.size(), 1);
        QCOMPARE(session->chunks[0].data, "early");
    }

    void aRelayOutageLosesNothingAndRepeatsNothing() {
        Open open = openPipeline();
        TerminalPipeline& pipeline = *open.pipeline;
        pipeline.capture("input", "a");
        pipeline.capture("output", "b");
        QVERIFY(drained(pipeline));

        m_relay.stop();
        pipeline.capture("input", "c");
        QVERIFY(waitUntil([&] { return pipeline.lastError().has_value(); }));
        QVERIFY(waitUntil([&] { return !pipeline.hasFlushTask(); }));
        QCOMPARE(seqs(pipeline.pending()), (QList<qint64>{3}));
        const qsizetype attemptsBefore = open.proxy->requestsTo(eventsPath(open.sessionId)).size();
        pipeline.capture("output", "d");
        waitUntil(
            [&] { return open.proxy->requestsTo(eventsPath(open.sessionId)).size() == attemptsBefore + 1; });
        QCOMPARE(open.proxy->requestsTo(eventsPath(open.sessionId)).size(), attemptsBefore + 1);
        QVERIFY(waitUntil([&] { return !pipeline.hasFlushTask(); }));
        // The failed batches wait, in order, with no number skipped.
        QCOMPARE(seqs(pipeline.pending()), (QList<qint64>{3, 4}));
        QVERIFY(pipeline.lastError());
        QCOMPARE(pipeline.sessionId(), std::optional<QString>(open.sessionId));

        QVERIFY(m_relay.start());
        // No timer retries by itself.
        const qsizetype attemptsWhileDown = open.proxy->requestsTo(eventsPath(open.sessionId)).size();
        QTest::qWait(int(5 * delay.count()));
        QCOMPARE(open.proxy->requestsTo(eventsPath(open.sessionId)).size(), attemptsWhileDown);

        pipeline.capture("input", "e");
        QVERIFY(drained(pipeline));
        QVERIFY(!pipeline.lastError());
        const auto attempts = open.proxy->requestsTo(eventsPath(open.sessionId));
        QCOMPARE(attempts.size(), attemptsWhileDown + 1);
        QCOMPARE(seqs(chunksOf(attempts.last())), (QList<qint64>{3, 4, 5}));

        // Every chunk reached the relay exactly once in the batches it accepted.
        QList<qint64> accepted;
        for (const RelayProxy::Exchange& exchange : open.proxy->exchangesTo(eventsPath(open.sessionId)))
            if (exchange.succeeded())
                accepted += seqs(chunksOf(exchange.request));
        QCOMPARE(accepted, (QList<qint64>{1, 2, 3, 4, 5}));
        const auto session = stored(open.sessionId);
        QVERIFY(session);
        QCOMPARE(seqs(session->chunks), (QList<qint64>{1, 2, 3, 4, 5}));
        QStringList data;
        for (const TerminalEventChunk& chunk : session->chunks)
            data << chunk.data;
        QCOMPARE(data, (QStringList{"a", "b", "c", "d", "e"}));
    }

    void endFlushesClosesAndStartsTheNumbersAgain() {
        Open open = openPipeline(1h); // only `end` sends
        TerminalPipeline& pipeline = *open.pipeline;
        QSignalSpy ended(&pipeline, &TerminalPipeline::ended);
        pipeline.capture("input", "exit\r");
        QCOMPARE(pipeline.pending().first().seq, 1);
        pipeline.end();
        pipeline.end(); // a second end while the first runs starts nothing
        QVERIFY(pipeline.isEnding());
        QVERIFY(!pipeline.hasFlushTask());
        waitUntil([&] { return ended.size() == 1; });
        QCOMPARE(ended.size(), 1);
        QVERIFY(!pipeline.sessionId());
        QVERIFY(!pipeline.isEnding());
        QCOMPARE(pipeline.seq(), 0);
        QCOMPARE(open.proxy->requestsTo(endPath(open.sessionId)).size(), 1);
        // The timer that `end` cut short found nothing left to send.
        QTest::qWait(20);
        QCOMPARE(open.proxy->requestsTo(eventsPath(open.sessionId)).size(), 1);
        const auto session = stored(open.sessionId);
        QVERIFY(session && session->ended_at);
        QCOMPARE(session->chunks.size(), 1);
        QCOMPARE(session->chunks[0].data, "exit\r");

        pipeline.capture("output", "after");
        QCOMPARE(pipeline.pending().last().seq, 1);
        pipeline.end(); // idle: nothing to end
        QTest::qWait(50);
        QCOMPARE(ended.size(), 1);
    }

    void endBeforeTheSessionAnswersDoesNothing() {
        RelayProxy proxy(m_relay.url());
        RelayClient client(proxy.url(), m_token);
        TerminalPipeline pipeline(&client, delay);
        proxy.setRule(holdCreate);
        pipeline.start();
        waitUntil([&] { return proxy.heldCount() == 1; });
        QCOMPARE(proxy.heldCount(), 1);
        pipeline.end();
        QVERIFY(!pipeline.isEnding());
        proxy.setRule({});
        proxy.releaseHeld();
        // The answer still opens the session, on a pipeline whose terminal is gone.
        QVERIFY(waitUntil([&] { return pipeline.sessionId().has_value(); }));
        QTest::qWait(50);
        QCOMPARE(proxy.requestsTo(endPath(*pipeline.sessionId())).size(), 0);
        const auto session = stored(*pipeline.sessionId());
        QVERIFY(session);
        QVERIFY(!session->ended_at);
    }

    void aFailedFinalFlushDoesNotStopTheEndCall() {
        Open open = openPipeline(1h);
        TerminalPipeline& pipeline = *open.pipeline;
        QSignalSpy ended(&pipeline, &TerminalPipeline::ended);
        open.proxy->setRule([](const RelayProxy::Request& request) -> RelayProxy::Decision {
            if (request.path.endsWith("/events"))
                return {RelayProxy::Action::refuse, 500};
            return {};
        });
        pipeline.capture("output", "last words");
        pipeline.end();
        waitUntil([&] { return ended.size() == 1; });
        QCOMPARE(ended.size(), 1);
        QCOMPARE(pipeline.lastError(), std::optional<QString>("refused by the test"));
        QCOMPARE(open.proxy->requestsTo(endPath(open.sessionId)).size(), 1);
        // The undelivered chunk stays, with its number, for the next session.
        QCOMPARE(pipeline.pending().size(), 1);
        QCOMPARE(pipeline.pending()[0].seq, 1);
        const auto session = stored(open.sessionId);
        QVERIFY(session && session->ended_at);
        QVERIFY(session->chunks.isEmpty());
    }

    void theSessionIsClosedEvenIfThePipelineIsGone() {
        Open open = openPipeline(1h);
        open.pipeline->capture("output", "bye");
        open.pipeline->end();
        open.pipeline.reset();
        waitUntil([&] { return open.proxy->requestsTo(endPath(open.sessionId)).size() == 1; });
        QCOMPARE(open.proxy->requestsTo(endPath(open.sessionId)).size(), 1);
        QVERIFY(waitUntil([&] { return open.proxy->exchangesTo(endPath(open.sessionId)).size() == 1; }));
        const auto session = stored(open.sessionId);
        QVERIFY(session && session->ended_at);
        QCOMPARE(session->chunks.size(), 1);
    }

    void aSessionThatCannotOpenLeavesCaptureWorking() {
        RelayClient client(m_relay.url(), std::nullopt); // signed out
        TerminalPipeline pipeline(&client, delay);
        pipeline.start();
        waitUntil([&] { return pipeline.lastError() == std::optional<QString>("not signed in"); });
        QCOMPARE(pipeline.lastError(), std::optional<QString>("not signed in"));
        QVERIFY(!pipeline.sessionId());
        pipeline.capture("input", "x");
        pipeline.capture("output", "y");
        QVERIFY(waitUntil([&] { return !pipeline.hasFlushTask(); }));
        QCOMPARE(seqs(pipeline.pending()), (QList<qint64>{1, 2}));
    }

    void aSuccessfulStartClearsTheLastError() {
        RelayProxy proxy(m_relay.url());
        RelayClient client(proxy.url(), m_token);
        TerminalPipeline pipeline(&client, delay);
        proxy.setRule([](const RelayProxy::Request&) -> RelayProxy::Decision {
            return {RelayProxy::Action::refuse, 503};
        });
        pipeline.start();
        QVERIFY(waitUntil([&] { return pipeline.lastError().has_value(); }));
        proxy.setRule({});
        pipeline.start();
        QVERIFY(waitUntil([&] { return pipeline.sessionId().has_value(); }));
        QVERIFY(!pipeline.lastError());
    }
};

QTEST_GUILESS_MAIN(TerminalPipelineTest)
#include "TerminalPipelineTest.moc"
