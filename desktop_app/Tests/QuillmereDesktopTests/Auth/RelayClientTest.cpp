#include "QuillmereDesktop/Auth/RelayClient.h"
#include "support/ScriptedHttpServer.h"

#include "support/Await.h"
#include <QJsonDocument>
#include <QTest>

#include <chrono>

using namespace std::chrono_literals;

namespace {

struct Named {
    QString name;
    static constexpr auto wireFields() { return std::tuple{wire::field("name", &Named::name)}; }
};

QUrl closedPortURL() {
    // A port that was free a moment ago: nothing listens there now.
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    const quint16 port = probe.serverPort();
    probe.close();
    return QUrl(QStringLiteral("http://127.0.0.1:%1/").arg(port));
}

} // namespace

class RelayClientTest : public QObject {
    Q_OBJECT

private slots:
    void timeoutsAreTheDefaults() {
        QCOMPARE(RelayClient::requestTimeout, 60000ms);
        QCOMPARE(RelayClient::healthTimeout, 3000ms);
    }

    void baseWithTrailingSlashKeepsItsPath() {
        RelayClient client(QUrl("http://relay.example/api/"), std::nullopt);
        QCOMPARE(client.resolve("v1/me")->toString(), "http://relay.example/api/v1/me");
    }

    void baseWithoutTrailingSlashDropsItsLastSegment() {
        RelayClient client(QUrl("http://relay.example/api"), std::nullopt);
        QCOMPARE(client.resolve("v1/me")->toString(), "http://relay.example/v1/me");
    }

    void pathThatDoesNotResolveIsAnInvalidURL() {
        RelayClient client(QUrl(), std::nullopt);
        const auto request = client.request("v1/me", "GET", false);
        QVERIFY(!request);
        QCOMPARE(request.error().message, "invalid relay URL");
        const auto result = await(client.get<Named>("v1/me", false));
        QCOMPARE(result.error().message, "invalid relay URL");
    }

    void authWithoutATokenSendsNothing() {
        ScriptedHttpServer server;
        server.replyAlways(200, R"({"name":"x"})");
        RelayClient client(server.url(), std::nullopt);
        const auto result = await(client.get<Named>("v1/me"));
        QCOMPARE(result.error().message, "not signed in");
        QVERIFY(server.requests().isEmpty());
    }

    void headersOnGetAndPost() {
        ScriptedHttpServer server;
        server.replyAlways(200, R"({"name":"ok"})");
        RelayClient client(server.url(), QString("tok-1"));
        QVERIFY(await(client.get<Named>("v1/me")).ok());
        QVERIFY(await(client.post<Named>("v1/things", Named{"n"})).ok());
        QVERIFY(await(client.postRaw<Named>("v1/auth/local", QJsonObject{}, false)).ok());
        const auto& r = server.requests();
        QCOMPARE(r.size(), 3);
        QCOMPARE(r[0].method, "GET");
        QCOMPARE(r[0].path, "/v1/me");
        QCOMPARE(r[0].header("content-type"), "application/json");
        QCOMPARE(r[0].header("authorization"), "Bearer tok-1");
        QCOMPARE(r[1].method, "POST");
        QCOMPARE(QJsonDocument::fromJson(r[1].body).object(), (QJsonObject{{"name", "n"}}));
        QCOMPARE(r[1].header("authorization"), "Bearer tok-1");
        // Sign-in calls carry no token even when one exists.
        QVERIFY(!r[2].hasHeader("authorization"));
        QCOMPARE(r[2].body, "{}");
    }

    void requestBuildsAMethodWithoutBody() {
        RelayClient client(QUrl("http://127.0.0.1:1/"), QString("t"));
        const auto request = client.request("v1/keys/1", "DELETE");
        QVERIFY(request.ok());
        QCOMPARE(request->method, "DELETE");
        QVERIFY(request->body.isEmpty());
        QCOMPARE(request->request.url().toString(), "http://127.0.0.1:1/v1/keys/1");
    }

    void envelopeWithRequestIdGivesMessageAndId() {
        ScriptedHttpServer server;
        server.replyAlways(400, R"({"error":{"message":"email is required"},"request_id":"req-9"})");
        RelayClient client(server.url(), QString("t"));
        QCOMPARE(await(client.get<Named>("v1/x")).error().message, "email is required (req-9)");
    }

    void envelopeWithoutRequestIdGivesTheBareMessage() {
        ScriptedHttpServer server;
        server.replyAlways(403, R"({"error":{"message":"forbidden"}})");
        RelayClient client(server.url(), QString("t"));
        QCOMPARE(await(client.get<Named>("v1/x")).error().message, "forbidden");
    }

    void flatErrorGivesItsValue() {
        ScriptedHttpServer server;
        server.replyAlways(401, R"({"error":"token expired"})");
        RelayClient client(server.url(), QString("t"));
        QCOMPARE(await(client.get<Named>("v1/x")).error().message, "token expired");
    }

    void otherBodiesGiveTheStatus() {
        ScriptedHttpServer server;
        RelayClient client(server.url(), QString("t"));
        for (const QByteArray& body : {QByteArray("<html>oops</html>"), QByteArray(R"({"error": 5})"),
                                       QByteArray(R"({"detail":"x"})"), QByteArray()}) {
            server.replyAlways(500, body);
            QCOMPARE(await(client.get<Named>("v1/x")).error().message, "relay returned 500");
        }
    }

    void wrongShapeFailsInDecodingNotInSend() {
        ScriptedHttpServer server;
        server.replyAlways(200, R"({"title":"no name here"})");
        RelayClient client(server.url(), QString("t"));
        const auto raw = await(RelayClient::send(client.request("v1/x", "GET").value()));
        QVERIFY(raw.ok());
        const auto decoded = await(client.get<Named>("v1/x"));
        QVERIFY(!decoded.ok());
        QVERIFY(decoded.error().message.contains("name: required key is missing"));
    }

    void transportFailureKeepsItsOwnWords() {
        RelayClient client(closedPortURL(), QString("t"));
        const auto result = await(client.get<Named>("v1/x"));
        QVERIFY(!result.ok());
        QCOMPARE(result.error().message, "Connection refused");
    }

    void reachableOnlyFor200WithoutAuthorization() {
        ScriptedHttpServer server;
        RelayClient client(server.url(), QString("secret"));
        server.replyAlways(200, R"({"ok":true})");
        QVERIFY(await(client.isReachable()));
        QCOMPARE(server.requests().last().path, "/v1/health");
        QVERIFY(!server.requests().last().hasHeader("authorization"));
        server.replyAlways(204);
        QVERIFY(!await(client.isReachable()));
        server.replyAlways(503, "{}");
        QVERIFY(!await(client.isReachable()));
        RelayClient nowhere(closedPortURL(), std::nullopt);
        QVERIFY(!await(nowhere.isReachable()));
    }

    void logoutUsesTheGivenTokenAndSwallowsFailures() {
        ScriptedHttpServer server;
        server.replyAlways(500, "{}");
        RelayClient client(server.url(), std::nullopt);
        await(client.logout(QString("old-token")));
        QCOMPARE(server.requests().size(), 1);
        QCOMPARE(server.requests()[0].method, "POST");
        QCOMPARE(server.requests()[0].path, "/v1/auth/logout");
        QCOMPARE(server.requests()[0].header("authorization"), "Bearer old-token");
        await(client.logout(std::nullopt));
        QCOMPARE(server.requests().size(), 1);
    }

    void runEventBodyAndAnswer() {
        ScriptedHttpServer server;
        server.replyAlways(200, R"({"accepted":true})");
        RelayClient client(server.url(), QString("t"));
        QVERIFY(await(client.recordRunEvent("run-1", "started", "local", 12, 0.5, "hello")).ok());
        const QJsonObject body = QJsonDocument::fromJson(server.requests()[0].body).object();
        QCOMPARE(server.requests()[0].path, "/v1/events");
        QCOMPARE(body, (QJsonObject{{"run_id", "run-1"},
                                    {"name", "started"},
                                    {"type", "local"},
                                    {"tokens", 12},
                                    {"cost_usd", 0.5},
                                    {"detail", "hello"}}));
        server.replyAlways(200, R"({"ok":true})");
        QVERIFY(!await(client.recordRunEvent("run-1", "x", "local", 0, 0, "")).ok());
    }

    void providerHealthBodyAndAnswer() {
        ScriptedHttpServer server;
        server.replyAlways(200, R"({"provider":"claude","health":0.75})");
        RelayClient client(server.url(), QString("t"));
        QVERIFY(await(client.recordProviderHealth("claude", true, 1200)).ok());
        QCOMPARE(server.requests()[0].path, "/v1/router/health");
        QCOMPARE(QJsonDocument::fromJson(server.requests()[0].body).object(),
                 (QJsonObject{{"provider", "claude"}, {"success", true}, {"latency_ms", 1200}}));
        server.replyAlways(200, R"({"accepted":true})");
        QVERIFY(!await(client.recordProviderHealth("claude", false, 5)).ok());
    }

    void aFourOhOneIsJustAFailure() {
        ScriptedHttpServer server;
        server.replyAlways(401, R"({"error":{"message":"invalid token"}})");
        RelayClient client(server.url(), QString("t"));
        QCOMPARE(await(client.get<Named>("v1/me")).error().message, "invalid token");
        QCOMPARE(client.token(), QString("t"));
    }
};

QTEST_GUILESS_MAIN(RelayClientTest)
#include "RelayClientTest.moc"
