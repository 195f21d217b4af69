#include "QuillmereDesktop/terminal/TerminalSessions.h"
#include "QuillmereDesktop/terminal/HeldRelayClient.h"
#include "support/Await.h"
#include "support/ScriptedHttpServer.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QTest>

// The terminal session calls on the wire: paths, bodies and headers, and the failures
// that send nothing.
class TerminalSessionsTest : public QObject {
    Q_OBJECT

    static QJsonObject bodyOf(const ScriptedHttpServer::Request& request) {
        return QJsonDocument::fromJson(request.body).object();
    }

private slots:
    void createSendsTheSourceAndReadsTheAnswer() {
        ScriptedHttpServer server;
        server.replyAlways(200, R"({"id":"ts_1","started_at":"2026-01-31T09:30:00Z","extra":1})");
        RelayClient client(server.url(), QString("tok"));
        const auto created = await(terminalSessions::create(client, terminalSessions::desktopSource));
        QVERIFY(created.ok());
        QCOMPARE(created->id, "ts_1");
        QCOMPARE(created->started_at, "2026-01-31T09:30:00Z");
        const auto& request = server.requests().at(0);
        QCOMPARE(request.method, "POST");
        QCOMPARE(request.path, "/v1/terminal/sessions");
        QCOMPARE(request.header("authorization"), "Bearer tok");
        QCOMPARE(bodyOf(request), (QJsonObject{{"source", "desktop"}}));
    }

    void createFailsOnAnAnswerWithoutAnId() {
        ScriptedHttpServer server;
        server.replyAlways(200, R"({"started_at":"2026-01-31T09:30:00Z"})");
        RelayClient client(server.url(), QString("tok"));
        QVERIFY(!await(terminalSessions::create(client, "desktop")).ok());
    }

    void appendSendsTheChunksAndIgnoresTheAnswer() {
        ScriptedHttpServer server;
        server.replyAlways(200, R"(not even JSON)");
        RelayClient client(server.url(), QString("tok"));
        const QList<TerminalEventChunk> chunks{{1, "input", "ls\r", "2026-01-31T09:30:00Z"},
                                               {2, "output", "a\u00e9\n", "2026-01-31T09:30:01Z"}};
        QVERIFY(await(terminalSessions::appendEvents(client, "ts_9", chunks)).ok());
        const auto& request = server.requests().at(0);
        QCOMPARE(request.path, "/v1/terminal/sessions/ts_9/events");
        const QJsonObject body = bodyOf(request);
        QCOMPARE(body.keys(), QStringList{"chunks"});
        const QJsonArray sent = body.value("chunks").toArray();
        QCOMPARE(sent.size(), 2);
        QCOMPARE(
            sent[0].toObject(),
            (QJsonObject{{"seq", 1}, {"stream", "input"}, {"data", "ls\r"}, {"ts", "2026-01-31T09:30:00Z"}}));
        QCOMPARE(wire::decode<QList<TerminalEventChunk>>(sent).value(), chunks);
    }

    void appendFailsWithTheRelaysWords() {
        ScriptedHttpServer server;
        server.replyAlways(409, R"({"error":{"message":"terminal session has ended"},"request_id":"r1"})");
        RelayClient client(server.url(), QString("tok"));
        const auto sent = await(terminalSessions::appendEvents(client, "ts_9", {}));
        QCOMPARE(sent.error().message, "terminal session has ended (r1)");
    }

    void endIsABarePostWithTheUsualHeaders() {
        ScriptedHttpServer server;
        server.replyAlways(200, R"({"id":"ts_9","ended_at":"2026-01-31T09:31:00Z"})");
        RelayClient client(server.url(), QString("tok"));
        QVERIFY(await(terminalSessions::end(client, "ts_9")).ok());
        const auto& request = server.requests().at(0);
        QCOMPARE(request.method, "POST");
        QCOMPARE(request.path, "/v1/terminal/sessions/ts_9/end");
        QVERIFY(request.body.isEmpty());
        QCOMPARE(request.header("content-type"), "application/json");
        QCOMPARE(request.header("authorization"), "Bearer tok");
    }

    void endChecksOnlyTheStatus() {
        ScriptedHttpServer server;
        server.replyAlways(500, "boom");
        RelayClient client(server.url(), QString("tok"));
        QCOMPARE(await(terminalSessions::end(client, "ts_9")).error().message, "relay returned 500");
    }

    void endWithoutATokenOrAUsableURLSendsNothing() {
        ScriptedHttpServer server;
        server.replyAlways(200, "{}");
        RelayClient signedOut(server.url(), std::nullopt);
        QCOMPARE(await(terminalSessions::end(signedOut, "ts_9")).error().message, "not signed in");
        RelayClient nowhere(QUrl(), QString("tok"));
        QCOMPARE(await(terminalSessions::end(nowhere, "ts_9")).error().message, "invalid relay URL");
        QVERIFY(server.requests().isEmpty());
    }

    void theSessionIdGoesIntoThePathAsItIs() {
        QCOMPARE(terminalSessions::sessionPath("ts_a%20b", "end"), "v1/terminal/sessions/ts_a%20b/end");
        ScriptedHttpServer server;
        server.replyAlways(200, "{}");
        RelayClient client(server.url(), QString("tok"));
        QVERIFY(await(terminalSessions::end(client, "ts_a%20b")).ok());
        QCOMPARE(server.requests().at(0).path, "/v1/terminal/sessions/ts_a%20b/end");
    }

    void aChunkMadeNowHasAWholeSecondUTCStamp() {
        const TerminalEventChunk chunk = terminalSessions::chunkNow(2, TerminalEventChunk::output, "x");
        QCOMPARE(chunk.seq, 2);
        QCOMPARE(chunk.stream, "output");
        QVERIFY(
            QRegularExpression("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ$").match(chunk.ts).hasMatch());
    }

    void aHeldClientOutlivesTheOneItWasGiven() {
        auto* live = new RelayClient(QUrl("http://relay.example/"), QString("first"));
        const HeldRelayClient held(live);
        QCOMPARE(&held.get(), live);
        live->setToken(QString("second"));
        QCOMPARE(held.get().token(), std::optional<QString>("second"));
        delete live;
        // The copy answers with the last state seen.
        QCOMPARE(held.get().baseURL(), QUrl("http://relay.example/"));
        QCOMPARE(held.get().token(), std::optional<QString>("second"));
        const HeldRelayClient none(nullptr);
        QVERIFY(!none.get().token());
    }
};

QTEST_GUILESS_MAIN(TerminalSessionsTest)
#include "TerminalSessionsTest.moc"
