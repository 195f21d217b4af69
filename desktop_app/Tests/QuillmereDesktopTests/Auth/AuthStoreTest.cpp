#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/Auth/LoginViewModel.h"
#include "QuillmereDesktop/common/MemoryPreferencesStore.h"
#include "fakes/FakeSecretStore.h"
#include "support/Await.h"
#include "support/ScriptedHttpServer.h"

#include <QJsonDocument>
#include <QNetworkInterface>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <chrono>

using namespace std::chrono_literals;

namespace {

const QByteArray userJson = R"({"id":"u1","email":"dev@example.com"})";
const QByteArray sessionJson = R"({"token":"tok-new","user":{"id":"u1","email":"dev@example.com"}})";

// A relay that answers health, and the given answers by path; anything else is 404.
void scriptRelay(ScriptedHttpServer& server, QHash<QByteArray, QPair<int, QByteArray>> answers) {
    server.setHandler(
        [answers](const ScriptedHttpServer::Request& request, ScriptedHttpServer::Exchange& exchange) {
            if (request.path == "/v1/health")
                return exchange.reply(200, R"({"ok":true})");
            if (answers.contains(request.path)) {
                const auto [status, body] = answers.value(request.path);
                return exchange.reply(status, body);
            }
            exchange.reply(404, R"({"error":{"message":"not found"}})");
        });
}

QStringList pathsOf(const ScriptedHttpServer& server) {
    QStringList paths;
    for (const auto& request : server.requests())
        if (request.path != "/v1/health")
            paths << QString::fromUtf8(request.method + " " + request.path);
    return paths;
}

// A managed relay that only counts its launches and stays up without answering.
class CountedRelay {
public:
    CountedRelay() {
        write(m_root.filePath("source/cloud_app/src/relay/server.py"), "# relay\n", false);
        write(m_root.filePath("bin/python3"),
              "#!/bin/sh\necho launched >> \"$FAKE_RELAY_RECORD\"\nexec sleep 60\n", true);
        RelayProcessConfig config;
        config.resourceDirectories = {};
        config.currentDirectory = m_root.filePath("cwd");
        config.sourceRoot = m_root.filePath("source");
        config.searchPath = m_root.filePath("bin");
        config.systemInterpreters = {};
        config.supportDirectory = m_root.filePath("support");
        config.baseEnvironment = QProcessEnvironment();
        config.baseEnvironment.insert("FAKE_RELAY_RECORD", m_root.filePath("record.txt"));
        manager = std::make_unique<RelayProcessManager>(config);
    }

    // Launches so far, read without turning the event loop.
    int launches() const {
        QFile record(m_root.filePath("record.txt"));
        return record.open(QIODevice::ReadOnly) ? int(record.readAll().count("launched")) : 0;
    }
    // Blocks the thread (no events are handled) until a launch is recorded or time is up.
    bool launchedWithin(std::chrono::milliseconds limit) const {
        for (auto waited = 0ms; waited < limit; waited += 20ms) {
            if (launches() > 0)
                return true;
            QThread::msleep(20);
        }
        return launches() > 0;
    }

    std::unique_ptr<RelayProcessManager> manager;

private:
    static void write(const QString& path, const QByteArray& content, bool executable) {
        QDir().mkpath(QFileInfo(path).absolutePath());
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly))
            return;
        file.write(content);
        file.close();
        if (executable)
            file.setPermissions(file.permissions() | QFile::ExeOwner);
    }

    QTemporaryDir m_root;
};

bool somethingListensOnTheOwnedPort() {
    QTcpSocket probe;
    probe.connectToHost(QStringLiteral("::1"), quint16(RelayProcessConfig::defaultPort));
    return probe.waitForConnected(200);
}

} // namespace

class AuthStoreTest : public QObject {
    Q_OBJECT

    MemoryPreferencesStore m_prefs;
    FakeSecretStore m_secrets;
    std::unique_ptr<RelayProcessManager> m_relay;

    AuthStoreConfig manualStart() {
        AuthStoreConfig config;
        config.readinessPolls = 3;
        config.readinessInterval = 10ms;
        config.bootstrapOnStart = false;
        return config;
    }

    std::unique_ptr<AuthStore> makeStore(const QString& url) {
        m_prefs.setString("relayURL", url);
        return std::make_unique<AuthStore>(m_prefs, m_secrets, m_relay.get(), manualStart());
    }

    // A store for the managed relay's address, started as the application starts it.
    std::unique_ptr<AuthStore> startOwnedStore(CountedRelay& relay) {
        m_prefs.setString("relayURL", "http://[::1]:8787/");
        AuthStoreConfig config = manualStart();
        config.bootstrapOnStart = true;
        return std::make_unique<AuthStore>(m_prefs, m_secrets, relay.manager.get(), config);
    }

    // The scripted relay's URL: loopback, on a port that is not the owned default.
    static QString localURL(const ScriptedHttpServer& server) { return server.url().toString(); }

private slots:
    void init() {
        m_prefs = MemoryPreferencesStore();
        m_secrets = FakeSecretStore();
        RelayProcessConfig config;
        config.resourceDirectories = {};
        config.currentDirectory = "/nonexistent";
        config.sourceRoot = "/nonexistent";
        config.searchPath = "";
        config.systemInterpreters = {};
        m_relay = std::make_unique<RelayProcessManager>(config);
    }

    void defaults() {
        QCOMPARE(AuthStoreConfig{}.readinessPolls, 20);
        QCOMPARE(AuthStoreConfig{}.readinessInterval, 150ms);
        AuthStore store(m_prefs, m_secrets, nullptr, manualStart());
        QCOMPARE(store.relayURLString(), "http://127.0.0.1:8787/");
        QCOMPARE(store.state(), AuthStore::State::checking);
        QCOMPARE(store.client()->baseURL().toString(), "http://127.0.0.1:8787/");
    }

    void theOldAddressKeyIsTakenOverOnceAndRemoved() {
        // An installation that only has the address under the queue's old key keeps it.
        m_prefs.setString("baseURL", "http://relay.example:9000/");
        {
            AuthStore store(m_prefs, m_secrets, nullptr, manualStart());
            QCOMPARE(store.relayURLString(), "http://relay.example:9000/");
            QCOMPARE(store.client()->baseURL().toString(), "http://relay.example:9000/");
        }
        QCOMPARE(m_prefs.stringValue("relayURL"), QString("http://relay.example:9000/"));
        QVERIFY(!m_prefs.contains("baseURL"));
        // Once only: a later change of the address is not undone by the old key.
        AuthStore changed(m_prefs, m_secrets, nullptr, manualStart());
        changed.setRelayURLString("http://relay.example:9001/");
        AuthStore again(m_prefs, m_secrets, nullptr, manualStart());
        QCOMPARE(again.relayURLString(), "http://relay.example:9001/");
    }

    void whenBothKeysExistTheSignInAddressWins() {
        m_prefs.setString("relayURL", "http://relay.example:9000/");
        m_prefs.setString("baseURL", "http://other.example:9000/");
        AuthStore store(m_prefs, m_secrets, nullptr, manualStart());
        QCOMPARE(store.relayURLString(), "http://relay.example:9000/");
        QCOMPARE(m_prefs.stringValue("relayURL"), QString("http://relay.example:9000/"));
        QVERIFY(!m_prefs.contains("baseURL"));
    }

    void theDefaultAddressIsTheManagedRelaysPort() {
        QCOMPARE(AuthStore::defaultRelayURL, "http://127.0.0.1:8787/");
        QCOMPARE(QUrl(AuthStore::defaultRelayURL).port(), RelayProcessConfig::defaultPort);
    }

    void tokenAccountsFollowTheURLText() {
        const QString account = AuthStore::tokenAccount("http://Relay.Example.com/");
        QCOMPARE(account, AuthStore::tokenAccount("http://relay.example.com/"));
        QVERIFY(account != AuthStore::tokenAccount("http://relay.example.com"));
        QVERIFY(account.startsWith("relay_session_"));
        QCOMPARE(account.size(), QString("relay_session_").size() + 64);
        // SHA-256 of "http://127.0.0.1:8787/", in lowercase hexadecimal.
        QCOMPARE(AuthStore::tokenAccount("http://127.0.0.1:8787/"),
                 "relay_session_" +
                     QCryptographicHash::hash("http://127.0.0.1:8787/", QCryptographicHash::Sha256).toHex());
    }

    void loopbackAndOwnership() {
        QVERIFY(AuthStore::isLoopback("http://[::1]:8787/"));
        QVERIFY(AuthStore::isLoopback("http://LOCALHOST:9000/"));
        QVERIFY(AuthStore::isLoopback("http://127.0.0.1/"));
        QVERIFY(!AuthStore::isLoopback("http://relay.example.com/"));
        QVERIFY(!AuthStore::isLoopback("not a url"));
        QVERIFY(!AuthStore::isLoopback("http://127.0.0.2/"));

        QVERIFY(makeStore("http://[::1]:8787/")->shouldOwnLocalRelay());
        QVERIFY(makeStore("http://localhost/")->shouldOwnLocalRelay());
        QVERIFY(!makeStore("http://localhost:9000/")->shouldOwnLocalRelay());
        QVERIFY(!makeStore("https://relay.example.com/")->shouldOwnLocalRelay());
    }

    void localAuthDisabledIsRecognisedInAnyCase() {
        QVERIFY(AuthStore::isLocalAuthDisabled("Local Authentication Is Disabled (req-1)"));
        QVERIFY(!AuthStore::isLocalAuthDisabled("relay returned 500"));
    }

    void theBaseURLGetsItsSlash() {
        auto store = makeStore("http://127.0.0.1:9/api");
        QCOMPARE(store->client()->baseURL().toString(), "http://127.0.0.1:9/api/");
        auto broken = makeStore("http://[::1");
        QCOMPARE(broken->client()->baseURL().toString(), "http://127.0.0.1:8787/");
    }

    void loopbackRelayGrantsALocalSession() {
        ScriptedHttpServer server;
        scriptRelay(server, {{"/v1/auth/local", {200, sessionJson}}});
        auto store = makeStore(localURL(server));
        await(store->start());
        QCOMPARE(store->state(), AuthStore::State::signedIn);
        QCOMPARE(store->userEmail(), "dev@example.com");
        QCOMPARE(store->client()->token(), QString("tok-new"));
        QCOMPARE(m_secrets.values.value(AuthStore::tokenAccount(localURL(server))), "tok-new");
        QCOMPARE(pathsOf(server), (QStringList{"POST /v1/auth/local"}));
        QVERIFY(!server.requests().last().hasHeader("authorization"));
        // A relay that already answers is used as it is: nothing is started.
        QVERIFY(!m_relay->ownsProcess());
    }

    void aValidTokenIsAcceptedByMe() {
        ScriptedHttpServer server;
        scriptRelay(server, {{"/v1/me", {200, userJson}}});
        m_secrets.values.insert(AuthStore::tokenAccount(localURL(server)), "tok-old");
        auto store = makeStore(localURL(server));
        await(store->start());
        QCOMPARE(store->state(), AuthStore::State::signedIn);
        QCOMPARE(pathsOf(server), (QStringList{"GET /v1/me"}));
        QCOMPARE(server.requests().last().header("authorization"), "Bearer tok-old");
    }

    void aStaleTokenFallsThroughToALocalSessionThatOverwritesIt() {
        ScriptedHttpServer server;
        scriptRelay(server, {{"/v1/me", {401, R"({"error":{"message":"invalid token"}})"}},
                             {"/v1/auth/local", {200, sessionJson}}});
        const QString account = AuthStore::tokenAccount(localURL(server));
        m_secrets.values.insert(account, "tok-stale");
        auto store = makeStore(localURL(server));
        await(store->start());
        QCOMPARE(pathsOf(server), (QStringList{"GET /v1/me", "POST /v1/auth/local"}));
        QCOMPARE(store->state(), AuthStore::State::signedIn);
        QCOMPARE(m_secrets.values.value(account), "tok-new");
        QVERIFY(!store->authError());
    }

    void disabledLocalAuthGivesTheEmailFormWithoutAnError() {
        ScriptedHttpServer server;
        scriptRelay(
            server,
            {{"/v1/auth/local",
              {403, R"({"error":{"message":"local authentication is disabled"},"request_id":"r1"})"}}});
        auto store = makeStore(localURL(server));
        await(store->start());
        QCOMPARE(store->state(), AuthStore::State::needsEmail);
        QVERIFY(!store->authError());
    }

    void anotherLocalFailureShowsItsWords() {
        ScriptedHttpServer server;
        scriptRelay(server, {{"/v1/auth/local", {500, "oops"}}});
        auto store = makeStore(localURL(server));
        await(store->start());
        QCOMPARE(store->state(), AuthStore::State::needsEmail);
        QCOMPARE(store->authError(), QString("relay returned 500"));
    }

    void aHostedRelayAsksForTheEmail() {
        // A relay on one of this machine's own non-loopback addresses stands for a hosted one.
        QHostAddress external;
        for (const QHostAddress& address : QNetworkInterface::allAddresses())
            if (address.protocol() == QAbstractSocket::IPv4Protocol && !address.isLoopback())
                external = address;
        if (external.isNull())
            QSKIP("this machine has no non-loopback IPv4 address");
        ScriptedHttpServer server(nullptr, external);
        scriptRelay(server, {{"/v1/auth/local", {200, sessionJson}}});
        auto store = makeStore(localURL(server));
        QVERIFY(!AuthStore::isLoopback(store->relayURLString()));
        await(store->start());
        QCOMPARE(store->state(), AuthStore::State::needsEmail);
        QVERIFY(pathsOf(server).isEmpty());
    }

    void unreachableRelayThatIsNotOursIsNotStarted() {
        ScriptedHttpServer server;
        const QString url = localURL(server);
        server.close();
        auto store = makeStore(url);
        QSignalSpy errors(store.get(), &AuthStore::authErrorChanged);
        await(store->start());
        QCOMPARE(store->state(), AuthStore::State::relayUnreachable);
        QVERIFY(!m_relay->ownsProcess());
        QCOMPARE(errors.count(), 0);
    }

    void ourRelayThatCannotStartShowsWhy() {
        // The manager of these tests finds no relay script, so starting ours must fail.
        auto owned = makeStore("http://[::1]:8787/");
        QVERIFY(owned->shouldOwnLocalRelay());
        if (await(owned->client()->isReachable()))
            QSKIP("something answers on [::1]:8787 on this machine");
        await(owned->bootstrap());
        QCOMPARE(owned->state(), AuthStore::State::relayUnreachable);
        QCOMPARE(owned->authError(), QString("The bundled relay files could not be found."));
    }

    void ourRelayIsLaunchedBeforeTheFirstEventIsHandled() {
        if (somethingListensOnTheOwnedPort())
            QSKIP("something answers on [::1]:8787 on this machine");
        CountedRelay relay;
        const auto store = startOwnedStore(relay);
        // The application now loads its window without handling an event: the relay boots
        // meanwhile, launched by the constructor itself.
        QVERIFY(relay.launchedWithin(3000ms));
        // The check that follows finds that launch and makes no second one.
        QTRY_COMPARE(store->state(), AuthStore::State::relayUnreachable);
        QCOMPARE(relay.launches(), 1);
    }

    void aRelayAlreadyListeningIsNotLaunchedEarly() {
        QTcpServer listening;
        if (!listening.listen(QHostAddress::LocalHostIPv6, quint16(RelayProcessConfig::defaultPort)))
            QSKIP("[::1]:8787 is taken on this machine");
        CountedRelay relay;
        const auto store = startOwnedStore(relay);
        QVERIFY(!relay.launchedWithin(300ms));
    }

    void legacyTokenMovesToTheNewAccount() {
        ScriptedHttpServer server;
        scriptRelay(server, {{"/v1/me", {200, userJson}}});
        m_secrets.values.insert("relay_session_token", "tok-legacy");
        auto store = makeStore(localURL(server));
        await(store->start());
        QCOMPARE(store->state(), AuthStore::State::signedIn);
        QCOMPARE(m_secrets.values.value(AuthStore::tokenAccount(localURL(server))), "tok-legacy");
        QVERIFY(!m_secrets.values.contains("relay_session_token"));
    }

    void missingKeyringMeansASessionForThisProcessOnly() {
        ScriptedHttpServer server;
        scriptRelay(server, {{"/v1/auth/local", {200, sessionJson}}});
        m_secrets.available = false;
        auto store = makeStore(localURL(server));
        await(store->start());
        QCOMPARE(store->state(), AuthStore::State::signedIn);
        QCOMPARE(store->client()->token(), QString("tok-new"));
        QVERIFY(m_secrets.values.isEmpty());
    }

    void emailCodeAndSecondFactor() {
        ScriptedHttpServer server;
        scriptRelay(
            server,
            {{"/v1/auth/local", {403, R"({"error":{"message":"local authentication is disabled"}})"}},
             {"/v1/auth/request-code", {200, R"({"sent":true})"}},
             {"/v1/auth/verify-code",
              {200, R"({"mfa_required":true,"mfa_ticket":"tk","methods":["totp","passkey","smoke"]})"}},
             {"/v1/auth/mfa/verify", {200, sessionJson}}});
        auto store = makeStore(localURL(server));
        await(store->start());
        QCOMPARE(store->state(), AuthStore::State::needsEmail);

        await(store->verifyCode("123456")); // only in codeSent
        QVERIFY(!pathsOf(server).contains("POST /v1/auth/verify-code"));

        await(store->requestCode("  Dev@Example.COM \n"));
        QCOMPARE(store->state(), AuthStore::State::codeSent);
        QCOMPARE(store->email(), "dev@example.com");
        QCOMPARE(QJsonDocument::fromJson(server.requests().last().body).object(),
                 (QJsonObject{{"email", "dev@example.com"}}));

        await(store->verifyCode(" 123456"));
        QCOMPARE(QJsonDocument::fromJson(server.requests().last().body).object(),
                 (QJsonObject{{"email", "dev@example.com"}, {"code", " 123456"}}));
        QCOMPARE(store->state(), AuthStore::State::needsSecondFactor);
        QCOMPARE(store->ticket(), "tk");
        QCOMPARE(store->methods(), (QList<SecondFactor>{SecondFactor::totp, SecondFactor::passkey}));

        await(store->verifySecondFactor("654321"));
        QCOMPARE(QJsonDocument::fromJson(server.requests().last().body).object(),
                 (QJsonObject{{"mfa_ticket", "tk"}, {"code", "654321"}}));
        QCOMPARE(store->state(), AuthStore::State::signedIn);
        QCOMPARE(m_secrets.values.value(AuthStore::tokenAccount(localURL(server))), "tok-new");
    }

    void codeAcceptedWithoutSecondFactorSignsIn() {
        ScriptedHttpServer server;
        scriptRelay(server, {{"/v1/auth/request-code", {200, R"({"sent":true})"}},
                             {"/v1/auth/verify-code", {200, sessionJson}}});
        auto store = makeStore(localURL(server));
        await(store->requestCode("dev@example.com"));
        await(store->verifyCode("111111"));
        QCOMPARE(store->state(), AuthStore::State::signedIn);
    }

    void failuresLandInAuthErrorAndKeepTheState() {
        ScriptedHttpServer server;
        scriptRelay(server,
                    {{"/v1/auth/request-code", {200, R"({"sent":true})"}},
                     {"/v1/auth/verify-code", {400, R"({"error":{"message":"invalid or expired code"}})"}}});
        auto store = makeStore(localURL(server));
        await(store->requestCode("dev@example.com"));
        await(store->verifyCode("000000"));
        QCOMPARE(store->state(), AuthStore::State::codeSent);
        QCOMPARE(store->authError(), QString("invalid or expired code"));
        scriptRelay(server, {{"/v1/auth/request-code", {429, R"({"error":{"message":"too many codes"}})"}}});
        await(store->requestCode("dev@example.com"));
        QCOMPARE(store->authError(), QString("too many codes"));
    }

    void unknownMethodsGiveAnEmptyListAndThePasskeyCard() {
        ScriptedHttpServer server;
        scriptRelay(server,
                    {{"/v1/auth/request-code", {200, R"({"sent":true})"}},
                     {"/v1/auth/verify-code",
                      {200, R"({"mfa_required":true,"mfa_ticket":"tk","methods":["sms","webauthn"]})"}}});
        auto store = makeStore(localURL(server));
        LoginViewModel view;
        view.setAuth(store.get());
        await(store->requestCode("dev@example.com"));
        await(store->verifyCode("111111"));
        QCOMPARE(store->state(), AuthStore::State::needsSecondFactor);
        QVERIFY(store->methods().isEmpty());
        QCOMPARE(view.card(), LoginViewModel::Card::passkeyOnly);
    }

    void methodsOfTheWrongTypeGiveAnEmptyList() {
        const auto outcome =
            decodeSignInOutcome(R"({"mfa_required":true,"mfa_ticket":"t","methods":"totp"})");
        QVERIFY(outcome.ok());
        QVERIFY(std::get<SecondFactorChallenge>(outcome.value()).methods.isEmpty());
        QVERIFY(!decodeSignInOutcome(R"({"mfa_required":true})").ok());
        QVERIFY(std::holds_alternative<AuthResponse>(
            decodeSignInOutcome(R"({"mfa_required":false,"token":"t","user":{"id":"1","email":"e"}})")
                .value()));
        QVERIFY(!decodeSignInOutcome(R"({"mfa_required":false})").ok());
    }

    void signOutForgetsTheTokenAndTellsTheRelay() {
        ScriptedHttpServer server;
        scriptRelay(server, {{"/v1/auth/local", {200, sessionJson}}, {"/v1/auth/logout", {200, "{}"}}});
        auto store = makeStore(localURL(server));
        await(store->start());
        store->signOut();
        QCOMPARE(store->state(), AuthStore::State::needsEmail);
        QVERIFY(!store->client()->token());
        QTRY_VERIFY(pathsOf(server).contains("POST /v1/auth/logout"));
        QCOMPARE(server.requests().last().header("authorization"), "Bearer tok-new");
        QTRY_VERIFY(m_secrets.values.isEmpty());
    }

    void anInvalidURLIsStoredAndTheOldClientKeepsRunning() {
        ScriptedHttpServer server;
        scriptRelay(server, {{"/v1/auth/local", {200, sessionJson}}});
        auto store = makeStore(localURL(server));
        await(store->start());
        RelayClient* before = store->client();
        store->setRelayURLString("http://[::1");
        QCOMPARE(m_prefs.stringValue("relayURL"), QString("http://[::1"));
        QCOMPARE(store->relayURLString(), "http://[::1");
        QCOMPARE(store->client(), before);
        QCOMPARE(store->state(), AuthStore::State::signedIn);
    }

    void aNewURLBuildsANewClientWithThatURLsToken() {
        ScriptedHttpServer first;
        scriptRelay(first, {{"/v1/auth/local", {200, sessionJson}}});
        ScriptedHttpServer second;
        scriptRelay(second, {{"/v1/me", {200, userJson}}});
        m_secrets.values.insert(AuthStore::tokenAccount(localURL(second)), "tok-second");
        auto store = makeStore(localURL(first));
        await(store->start());
        QSignalSpy clientChanged(store.get(), &AuthStore::clientChanged);
        store->setRelayURLString(localURL(second));
        QTRY_COMPARE(clientChanged.count(), 1);
        QCOMPARE(store->client()->baseURL(), second.url());
        QCOMPARE(store->client()->token(), QString("tok-second"));
        QTRY_COMPARE(pathsOf(second), (QStringList{"GET /v1/me"}));
        QTRY_COMPARE(store->state(), AuthStore::State::signedIn);
    }

    void stateChangesAreAnnouncedOnce() {
        ScriptedHttpServer server;
        scriptRelay(server, {{"/v1/auth/local", {200, sessionJson}}});
        auto store = makeStore(localURL(server));
        QSignalSpy spy(store.get(), &AuthStore::stateChanged);
        await(store->start());
        // checking was the starting state: only signedIn is a change.
        QCOMPARE(spy.count(), 1);
        await(store->bootstrap());
        QCOMPARE(spy.count(), 3); // checking, then signedIn again
    }
};

QTEST_GUILESS_MAIN(AuthStoreTest)
#include "AuthStoreTest.moc"
