#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/common/MemoryPreferencesStore.h"
#include "QuillmereDesktop/queue/AppState.h"
#include "QuillmereDesktop/shell/RootController.h"
#include "fakes/FakeSecretStore.h"
#include "support/Await.h"
#include "support/RelayFixture.h"

#include <QJsonArray>
#include <QTemporaryDir>
#include <QTest>

#include <chrono>

using namespace std::chrono_literals;

namespace {

struct Raised {
    QString id;
    static constexpr auto wireFields() { return std::tuple{wire::field("id", &Raised::id)}; }
};

} // namespace

// The whole road against the real relay: sign-in, the live stream, an interrupt raised
// by an agent, answered in the app, gone; the relay going away and coming back.
class RelayRoadTest : public QObject {
    Q_OBJECT

    QTemporaryDir m_home;
    MemoryPreferencesStore m_prefs;
    FakeSecretStore m_secrets;

    AuthStoreConfig authConfig() {
        AuthStoreConfig config;
        config.bootstrapOnStart = false;
        return config;
    }

    AppStateConfig appConfig(std::chrono::milliseconds retry = 3000ms) {
        AppStateConfig config;
        config.toastDuration = 50ms;
        config.homeDirectory = m_home.path();
        config.makeRelayClient = [retry](RelayClient& relay, QObject* parent) -> MereClient* {
            return new MereCloudClient(&relay, parent, retry);
        };
        return config;
    }

    // An agent raising an interrupt through the relay's intake.
    static QString raise(RelayClient& agent, const QString& prompt, const QString& kind = "approval") {
        QJsonObject body{{"run_id", "run-7"},
                         {"run_name", "nightly-cleanup"},
                         {"kind", kind},
                         {"prompt", prompt},
                         {"options", QJsonArray{"Approve", "Reject"}},
                         {"action_slug", "GITHUB_DELETE_A_REFERENCE"}};
        const auto raised = await(agent.postRaw<Raised>("v1/interrupts", body));
        return raised ? raised->id : QString();
    }

    static bool holds(const AppState& app, const QString& id) {
        for (const Interrupt& i : app.snapshot().interrupts)
            if (i.id == id)
                return true;
        return false;
    }

private slots:
    void init() {
        m_prefs = MemoryPreferencesStore();
        m_secrets = FakeSecretStore();
    }

    void oneInterruptOverTheWire() {
        RelayFixture relay;
        QVERIFY(relay.start());
        m_prefs.setString("relayURL", relay.url().toString());
        AuthStore auth(m_prefs, m_secrets, nullptr, authConfig());
        AppState app(m_prefs, appConfig());
        CLIStatusStore cli(CLIStatusStore::defaultPollInterval);
        RootController root(app, auth, cli, 10ms);

        // Bootstrap signs in locally, and the root connects the queue.
        await(auth.start());
        QCOMPARE(auth.state(), AuthStore::State::signedIn);
        QCOMPARE(auth.userEmail(), "local@localhost");
        QTRY_VERIFY(app.online());
        QVERIFY(qobject_cast<MereCloudClient*>(app.client()));
        QTRY_VERIFY(cli.status().has_value());

        // An agent raises an interrupt; it arrives on the stream.
        RelayClient agent(relay.url(), auth.client()->token());
        const QString id = raise(agent, "Delete 3 stale branches?");
        QVERIFY(!id.isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(holds(app, id), 3000);
        const Interrupt shown =
            *std::find_if(app.snapshot().interrupts.begin(), app.snapshot().interrupts.end(),
                          [&](const Interrupt& i) { return i.id == id; });
        QCOMPARE(shown.prompt, "Delete 3 stale branches?");
        QCOMPARE(shown.actionSlug, QString("GITHUB_DELETE_A_REFERENCE"));

        // The person answers; the relay takes it and the next snapshot drops it.
        app.setSelectedInterruptId(id);
        app.setScreen(AppState::Screen::item);
        app.submit({VerdictKind::approve, QString("Approve"), Verdict::desktopSource,
                    QDateTime::currentDateTimeUtc()});
        QTRY_COMPARE(app.sentToast(), QString("SENT"));
        QTRY_VERIFY_WITH_TIMEOUT(!holds(app, id), 3000);

        // The agent sees the verdict.
        const auto state = await(agent.get<QJsonObject>("v1/interrupts/" + id));
        QVERIFY(state.ok());
        QCOMPARE(state->value("status").toString(), "decided");
        QCOMPARE(state->value("verdict").toObject().value("verdict").toString(), "approve");
        QCOMPARE(state->value("verdict").toObject().value("source").toString(), "desktop");

        // A second answer to the same interrupt was already given elsewhere.
        QTRY_VERIFY(!app.sentToast());
        app.setSelectedInterruptId(id);
        app.submit({VerdictKind::reject, QString("Reject"), Verdict::desktopSource,
                    QDateTime::currentDateTimeUtc()});
        QTRY_COMPARE(app.sentToast(), QString("ALREADY RESOLVED ELSEWHERE"));
        QCOMPARE(app.screen(), AppState::Screen::queue);
    }

    void theQueueFollowsTheRelayGoingAndComing() {
        RelayFixture relay;
        QVERIFY(relay.start());
        m_prefs.setString("relayURL", relay.url().toString());
        AuthStore auth(m_prefs, m_secrets, nullptr, authConfig());
        AppState app(m_prefs, appConfig(300ms));
        CLIStatusStore cli(CLIStatusStore::defaultPollInterval);
        RootController root(app, auth, cli, 10ms);
        await(auth.start());
        QTRY_VERIFY(app.online());

        relay.stop();
        QTRY_VERIFY_WITH_TIMEOUT(!app.online(), 3000);
        QVERIFY(relay.start());
        // Back within the retry time (plus a little for the relay to open its database).
        QTRY_VERIFY_WITH_TIMEOUT(app.online(), 2000);
        RelayClient agent(relay.url(), auth.client()->token());
        const QString id = raise(agent, "Still there?", "question");
        QTRY_VERIFY_WITH_TIMEOUT(holds(app, id), 3000);
    }

    void emailCodeSignIn() {
        RelayFixture relay(RelayFixture::Options{false, {}, {}});
        QVERIFY(relay.start());
        m_prefs.setString("relayURL", relay.url().toString());
        AuthStore auth(m_prefs, m_secrets, nullptr, authConfig());
        await(auth.start());
        QCOMPARE(auth.state(), AuthStore::State::needsEmail);
        QVERIFY(!auth.authError()); // the refusal of local sign-in is not an error to show

        await(auth.requestCode(" Person@Example.com "));
        QCOMPARE(auth.state(), AuthStore::State::codeSent);
        const auto code = relay.latestCode("person@example.com");
        QVERIFY(code.has_value());
        await(auth.verifyCode("000000" == *code ? "111111" : "000000"));
        QCOMPARE(auth.state(), AuthStore::State::codeSent);
        QVERIFY(auth.authError().has_value());
        await(auth.verifyCode(*code));
        QCOMPARE(auth.state(), AuthStore::State::signedIn);
        QCOMPARE(auth.userEmail(), "person@example.com");
        QVERIFY(m_secrets.values.contains(AuthStore::tokenAccount(relay.url().toString())));

        // The stored token carries the next start straight through "v1/me".
        AuthStore again(m_prefs, m_secrets, nullptr, authConfig());
        await(again.start());
        QCOMPARE(again.state(), AuthStore::State::signedIn);
    }

    void secondFactorWithAnAuthenticatorAndARecoveryCode() {
        RelayFixture relay(RelayFixture::Options{false, {}, {}});
        QVERIFY(relay.start());
        m_prefs.setString("relayURL", relay.url().toString());
        AuthStore auth(m_prefs, m_secrets, nullptr, authConfig());
        await(auth.start());
        // The user exists once a code has been verified; then the second factor is turned on.
        await(auth.requestCode("two@example.com"));
        await(auth.verifyCode(*relay.latestCode("two@example.com")));
        QCOMPARE(auth.state(), AuthStore::State::signedIn);
        const auto setup = relay.enableSecondFactor("two@example.com");
        QVERIFY(setup.has_value());
        QCOMPARE(setup->recoveryCodes.size(), 10);

        auth.signOut();
        QCOMPARE(auth.state(), AuthStore::State::needsEmail);
        await(auth.requestCode("two@example.com"));
        await(auth.verifyCode(*relay.latestCode("two@example.com")));
        QCOMPARE(auth.state(), AuthStore::State::needsSecondFactor);
        QCOMPARE(auth.methods(), QList<SecondFactor>{SecondFactor::totp});
        const qint64 now = QDateTime::currentSecsSinceEpoch();
        await(auth.verifySecondFactor(totpCode(setup->secret, now)));
        QCOMPARE(auth.state(), AuthStore::State::signedIn);

        auth.signOut();
        await(auth.requestCode("two@example.com"));
        await(auth.verifyCode(*relay.latestCode("two@example.com")));
        QCOMPARE(auth.state(), AuthStore::State::needsSecondFactor);
        await(auth.verifySecondFactor(setup->recoveryCodes.first()));
        QCOMPARE(auth.state(), AuthStore::State::signedIn);
    }

    void totpCodesMatchTheStandardVectors() {
        // RFC 6238's SHA-1 secret "12345678901234567890", in base32, at its published times.
        const QString secret = "GEZDGNBVGY3TQOJQGEZDGNBVGY3TQOJQ";
        QCOMPARE(totpCode(secret, 59), "287082");
        QCOMPARE(totpCode(secret, 1111111109), "081804");
        QCOMPARE(totpCode(secret, 1234567890), "005924");
    }
};

QTEST_GUILESS_MAIN(RelayRoadTest)
#include "RelayRoadTest.moc"
