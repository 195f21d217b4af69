#include "QuillmereDesktop/queue/MereCloudClient.h"
#include "support/ScriptedHttpServer.h"

#include "support/Await.h"
#include <QJsonDocument>
#include <QTest>

#include <chrono>
#include <memory>

using namespace std::chrono_literals;

namespace {

QByteArray snapshotLine(int done, const QString& raisedAt = "2026-01-31T09:30:00Z") {
    const QByteArray json =
        QStringLiteral(
            R"({"running":1,"done":%1,"interrupts":[{"id":"i1","run_id":"r","run_name":"n","kind":"approval",)"
            R"("prompt":"p","options":[],"raised_at":"%2"}]})")
            .arg(done)
            .arg(raisedAt)
            .toUtf8();
    return "data: " + json + "\n\n";
}

Verdict approve() {
    return {VerdictKind::approve, std::nullopt, Verdict::desktopSource,
            QDateTime(QDate(2026, 2, 1), QTime(8, 0), Qt::UTC)};
}

// Records what a client reports, in order.
struct Recorder {
    QList<bool> connection;
    QList<Snapshot> snapshots;
    void attach(MereCloudClient& client) {
        client.connect([this](const Snapshot& s) { snapshots.append(s); },
                       [this](bool online) { connection.append(online); });
    }
};

} // namespace

class MereCloudClientTest : public QObject {
    Q_OBJECT

private slots:
    void retryIsThreeSecondsByDefault() {
        QCOMPARE(MereCloudClient::defaultRetryDelay, 3000ms);
        QCOMPARE(MereCloudClient::requestTimeout, 60000ms);
    }

    void streamRequestCarriesTheToken() {
        ScriptedHttpServer server;
        server.setHandler([](const auto&, auto& exchange) { exchange.startStream(); });
        RelayClient relay(server.url(), QString("tok"));
        MereCloudClient client(&relay, nullptr, 50ms);
        Recorder recorder;
        recorder.attach(client);
        QTRY_COMPARE(recorder.connection, (QList<bool>{true}));
        QCOMPARE(server.requests()[0].method, "GET");
        QCOMPARE(server.requests()[0].path, "/v1/stream");
        QCOMPARE(server.requests()[0].header("authorization"), "Bearer tok");
    }

    void dataLinesBecomeSnapshotsAndOtherLinesCountForNothing() {
        ScriptedHttpServer server;
        server.setHandler([](const auto&, auto& exchange) { exchange.startStream(); });
        RelayClient relay(server.url(), QString("t"));
        MereCloudClient client(&relay, nullptr, 50ms);
        Recorder recorder;
        recorder.attach(client);
        QTRY_COMPARE(server.streams().size(), 1);
        auto& stream = server.streams()[0];
        stream.sendChunk(": keep-alive\n\nevent: snapshot\n");
        stream.sendChunk(snapshotLine(1));
        // Blanks and tabs around the JSON make no difference.
        stream.sendChunk("data: \t  " + snapshotLine(2).mid(6).trimmed() + " \t\n");
        stream.sendChunk("data:" + snapshotLine(3).mid(6));
        QTRY_COMPARE(recorder.snapshots.size(), 3);
        QCOMPARE(recorder.snapshots[0].done, 1);
        QCOMPARE(recorder.snapshots[1].done, 2);
        QCOMPARE(recorder.snapshots[2].done, 3);
    }

    void aLineSplitAcrossChunksIsJoinedBeforeDecoding() {
        ScriptedHttpServer server;
        server.setHandler([](const auto&, auto& exchange) { exchange.startStream(); });
        RelayClient relay(server.url(), QString("t"));
        MereCloudClient client(&relay, nullptr, 50ms);
        Recorder recorder;
        recorder.attach(client);
        QTRY_COMPARE(server.streams().size(), 1);
        const QByteArray line = snapshotLine(7);
        server.streams()[0].sendChunk(line.left(20));
        QTest::qWait(30);
        server.streams()[0].sendChunk(line.mid(20));
        QTRY_COMPARE(recorder.snapshots.size(), 1);
        QCOMPARE(recorder.snapshots[0].done, 7);
    }

    void aBadLineIsSkippedAndTheStreamGoesOn() {
        ScriptedHttpServer server;
        server.setHandler([](const auto&, auto& exchange) { exchange.startStream(); });
        RelayClient relay(server.url(), QString("t"));
        MereCloudClient client(&relay, nullptr, 50ms);
        Recorder recorder;
        recorder.attach(client);
        QTRY_COMPARE(server.streams().size(), 1);
        auto& stream = server.streams()[0];
        stream.sendChunk(snapshotLine(1));
        stream.sendChunk("data: {not json\n");
        // One bad date drops the whole snapshot; the earlier one stands.
        stream.sendChunk(snapshotLine(2, "2026-01-31T09:30:00.5Z"));
        stream.sendChunk(snapshotLine(3));
        QTRY_COMPARE(recorder.snapshots.size(), 2);
        QCOMPARE(recorder.snapshots[0].done, 1);
        QCOMPARE(recorder.snapshots[1].done, 3);
        QCOMPARE(recorder.connection, (QList<bool>{true}));
    }

    void anEventSplitOverTwoDataLinesIsNotJoined() {
        ScriptedHttpServer server;
        server.setHandler([](const auto&, auto& exchange) { exchange.startStream(); });
        RelayClient relay(server.url(), QString("t"));
        MereCloudClient client(&relay, nullptr, 50ms);
        Recorder recorder;
        recorder.attach(client);
        QTRY_COMPARE(server.streams().size(), 1);
        const QByteArray json = snapshotLine(5).mid(6).trimmed();
        server.streams()[0].sendChunk("data: " + json.left(30) + "\ndata: " + json.mid(30) + "\n\n");
        server.streams()[0].sendChunk(snapshotLine(6));
        QTRY_COMPARE(recorder.snapshots.size(), 1);
        QCOMPARE(recorder.snapshots[0].done, 6);
    }

    void aRefusalReportsFalseAndRetriesWithTheSameToken() {
        ScriptedHttpServer server;
        server.replyAlways(401, R"({"error":{"message":"invalid token"}})");
        RelayClient relay(server.url(), QString("stale"));
        MereCloudClient client(&relay, nullptr, 40ms);
        Recorder recorder;
        recorder.attach(client);
        QTRY_VERIFY(server.requests().size() >= 4);
        QVERIFY(recorder.connection.size() >= 3);
        QVERIFY(!recorder.connection.contains(true));
        for (const auto& request : server.requests())
            QCOMPARE(request.header("authorization"), "Bearer stale");
    }

    void eachAttemptUsesTheTokenTheRelayClientHasThen() {
        ScriptedHttpServer server;
        server.setHandler([](const auto& request, auto& exchange) {
            if (request.header("authorization") == "Bearer fresh")
                exchange.startStream();
            else
                exchange.reply(401, R"({"error":{"message":"invalid token"}})");
        });
        RelayClient relay(server.url(), QString("stale"));
        MereCloudClient client(&relay, nullptr, 40ms);
        Recorder recorder;
        recorder.attach(client);
        QTRY_COMPARE(recorder.connection.value(0, true), false);
        // A new session: the queue client holds no copy, so its next attempt carries it.
        relay.setToken(QString("fresh"));
        QTRY_VERIFY(recorder.connection.contains(true));
        QCOMPARE(server.requests().constLast().header("authorization"), "Bearer fresh");
    }

    void withItsRelayClientGoneItStaysOfflineAndSendsNothing() {
        ScriptedHttpServer server;
        server.replyAlways(200, "{}");
        auto relay = std::make_unique<RelayClient>(server.url(), QString("tok"));
        MereCloudClient client(relay.get(), nullptr, 30ms);
        relay.reset();
        QCOMPARE(client.baseURL(), QUrl());
        Recorder recorder;
        recorder.attach(client);
        QCOMPARE(recorder.connection, (QList<bool>{false}));
        const auto result = await(client.submitVerdict("a", approve()));
        QVERIFY(!result.ok());
        QCOMPARE(std::get<ClientError>(result.error()).kind, ClientError::Kind::server);
        QTest::qWait(100); // several retry delays: nothing is attempted
        QVERIFY(server.requests().isEmpty());
        QCOMPARE(recorder.connection, (QList<bool>{false}));
    }

    void anEmptyTokenStillBuildsAClientThatStaysOffline() {
        ScriptedHttpServer server;
        server.replyAlways(401, "{}");
        RelayClient relay(server.url(), QString(""));
        MereCloudClient client(&relay, nullptr, 40ms);
        Recorder recorder;
        recorder.attach(client);
        QTRY_VERIFY(recorder.connection.size() >= 2);
        QVERIFY(!recorder.connection.contains(true));
        QCOMPARE(server.requests()[0].header("authorization"), "Bearer");
    }

    void noServerReportsFalseAndKeepsTrying() {
        ScriptedHttpServer server;
        const QUrl url = server.url();
        server.close();
        RelayClient relay(url, QString("t"));
        MereCloudClient client(&relay, nullptr, 30ms);
        Recorder recorder;
        recorder.attach(client);
        QTRY_VERIFY(recorder.connection.size() >= 3);
        QVERIFY(!recorder.connection.contains(true));
    }

    void aCleanEndReportsNothingAndReconnectsAfterTheDelay() {
        ScriptedHttpServer server;
        server.setHandler([](const auto&, auto& exchange) { exchange.startStream(); });
        RelayClient relay(server.url(), QString("t"));
        MereCloudClient client(&relay, nullptr, 150ms);
        Recorder recorder;
        recorder.attach(client);
        QTRY_COMPARE(server.streams().size(), 1);
        QElapsedTimer sinceEnd;
        server.streams()[0].sendChunk(snapshotLine(1));
        server.streams()[0].endStream();
        sinceEnd.start();
        QTRY_COMPARE(server.requests().size(), 2);
        QVERIFY(sinceEnd.elapsed() >= 140);
        QTRY_COMPARE(recorder.connection, (QList<bool>{true, true}));
    }

    void aReadFailureReportsFalse() {
        ScriptedHttpServer server;
        server.setHandler([](const auto&, auto& exchange) { exchange.startStream(); });
        RelayClient relay(server.url(), QString("t"));
        MereCloudClient client(&relay, nullptr, 100ms);
        Recorder recorder;
        recorder.attach(client);
        QTRY_COMPARE(server.streams().size(), 1);
        server.streams()[0].sendChunk(snapshotLine(1));
        QTRY_COMPARE(recorder.snapshots.size(), 1);
        server.streams()[0].breakStream();
        QTRY_COMPARE(recorder.connection, (QList<bool>{true, false}));
        QTRY_COMPARE(recorder.connection, (QList<bool>{true, false, true}));
    }

    void disconnectStopsEveryCallbackAndReportsNothing() {
        ScriptedHttpServer server;
        server.setHandler([](const auto&, auto& exchange) { exchange.startStream(); });
        RelayClient relay(server.url(), QString("t"));
        MereCloudClient client(&relay, nullptr, 30ms);
        Recorder recorder;
        recorder.attach(client);
        QTRY_COMPARE(recorder.connection.size(), 1);
        client.disconnect();
        server.streams()[0].sendChunk(snapshotLine(1));
        server.streams()[0].breakStream();
        QTest::qWait(150);
        QCOMPARE(recorder.connection, (QList<bool>{true}));
        QVERIFY(recorder.snapshots.isEmpty());
        QCOMPARE(server.requests().size(), 1);
        client.disconnect(); // harmless twice
    }

    void verdictPostsSnakeCaseBody() {
        ScriptedHttpServer server;
        server.replyAlways(200, "{}");
        RelayClient relay(server.url(), QString("tok"));
        MereCloudClient client(&relay);
        Verdict verdict = approve();
        verdict.verdict = VerdictKind::reply;
        verdict.reply = "use billing";
        QVERIFY(await(client.submitVerdict("i 1/x", verdict)).ok());
        const auto& request = server.requests()[0];
        QCOMPARE(request.method, "POST");
        QCOMPARE(request.path, "/v1/interrupts/i%201%2Fx/verdict");
        QCOMPARE(request.header("authorization"), "Bearer tok");
        QCOMPARE(request.header("content-type"), "application/json");
        QCOMPARE(QJsonDocument::fromJson(request.body).object(),
                 (QJsonObject{{"verdict", "reply"},
                              {"reply", "use billing"},
                              {"source", "desktop"},
                              {"decided_at", "2026-02-01T08:00:00Z"}}));
    }

    void verdictStatuses() {
        ScriptedHttpServer server;
        RelayClient relay(server.url(), QString("tok"));
        MereCloudClient client(&relay);
        server.replyAlways(204);
        QVERIFY(await(client.submitVerdict("a", approve())).ok());
        server.replyAlways(200, "not even json");
        QVERIFY(await(client.submitVerdict("a", approve())).ok());
        server.replyAlways(409, "{}");
        auto conflict = await(client.submitVerdict("a", approve()));
        QCOMPARE(std::get<ClientError>(conflict.error()), ClientError::alreadyResolved());
        server.replyAlways(404, "{}");
        auto missing = await(client.submitVerdict("a", approve()));
        QCOMPARE(std::get<ClientError>(missing.error()), ClientError::server("status 404"));
    }

    void verdictTransportFailureIsReturnedAsItIs() {
        ScriptedHttpServer server;
        const QUrl url = server.url();
        server.close();
        RelayClient relay(url, QString("tok"));
        MereCloudClient client(&relay);
        const auto result = await(client.submitVerdict("a", approve()));
        QVERIFY(!result.ok());
        QCOMPARE(std::get<Error>(result.error()).message, "Connection refused");
    }

    void baseWithAPathKeepsIt() {
        RelayClient relay(QUrl("http://relay.example/queue"), QString("t"));
        MereCloudClient client(&relay);
        QCOMPARE(client.endpoint("v1/stream").toString(), "http://relay.example/queue/v1/stream");
        RelayClient slashRelay(QUrl("http://relay.example/queue/"), QString("t"));
        MereCloudClient slash(&slashRelay);
        QCOMPARE(slash.endpoint("v1/stream").toString(), "http://relay.example/queue/v1/stream");
    }
};

QTEST_GUILESS_MAIN(MereCloudClientTest)
#include "MereCloudClientTest.moc"
