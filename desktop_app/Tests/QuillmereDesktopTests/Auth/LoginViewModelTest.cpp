#include "QuillmereDesktop/Auth/LoginViewModel.h"
#include "QuillmereDesktop/common/MemoryPreferencesStore.h"
#include "fakes/FakeSecretStore.h"
#include "support/Await.h"
#include "support/ScriptedHttpServer.h"

#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <chrono>

using namespace std::chrono_literals;

class LoginViewModelTest : public QObject {
    Q_OBJECT

    MemoryPreferencesStore m_prefs;
    FakeSecretStore m_secrets;
    std::unique_ptr<ScriptedHttpServer> m_server;
    std::unique_ptr<AuthStore> m_auth;
    std::unique_ptr<LoginViewModel> m_view;
    // How long the scripted relay holds its answers, so that "submitting" can be seen.
    int m_delayMs = 0;

    void answer(const ScriptedHttpServer::Request& request, ScriptedHttpServer::Exchange& exchange) {
        if (request.path == "/v1/health")
            return exchange.reply(200, "{}");
        if (request.path == "/v1/auth/local")
            return exchange.reply(403, R"({"error":{"message":"local authentication is disabled"}})");
        if (request.path == "/v1/auth/request-code")
            return exchange.reply(200, R"({"sent":true})");
        if (request.path == "/v1/auth/verify-code") {
            if (request.body.contains("\"000000\""))
                return exchange.reply(400, R"({"error":{"message":"invalid or expired code"}})");
            return exchange.reply(200, R"({"mfa_required":true,"mfa_ticket":"tk","methods":["totp"]})");
        }
        if (request.path == "/v1/auth/mfa/verify")
            return exchange.reply(200, R"({"token":"t","user":{"id":"u","email":"dev@example.com"}})");
        exchange.reply(404, "{}");
    }

private slots:
    void init() {
        m_server = std::make_unique<ScriptedHttpServer>();
        m_server->setHandler([this](const auto& request, auto& exchange) {
            if (m_delayMs == 0)
                return answer(request, exchange);
            QTimer::singleShot(m_delayMs, m_server.get(),
                               [this, request, exchange]() mutable { answer(request, exchange); });
        });
        m_prefs = MemoryPreferencesStore();
        m_prefs.setString("relayURL", m_server->url().toString());
        AuthStoreConfig config;
        config.bootstrapOnStart = false;
        m_auth = std::make_unique<AuthStore>(m_prefs, m_secrets, nullptr, config);
        m_view = std::make_unique<LoginViewModel>();
        m_view->setAuth(m_auth.get());
        m_delayMs = 0;
    }

    void cleanup() {
        m_view.reset();
        m_auth.reset();
        m_server.reset();
    }

    void texts() {
        QCOMPARE(LoginViewModel::wordmark(), "QUILLMERE");
        QCOMPARE(LoginViewModel::unreachableAlert(), "can't reach local relay");
        QCOMPARE(LoginViewModel::unreachableCommand(), "./cloud_app/src/relay/run.sh");
        QCOMPARE(LoginViewModel::codePlaceholder(), "000000");
        QCOMPARE(m_view->retryLabel(), "RETRY");
    }

    void cardsFollowTheState() {
        QCOMPARE(m_view->card(), LoginViewModel::Card::spinner); // checking
        await(m_auth->start());
        QCOMPARE(m_view->card(), LoginViewModel::Card::email);
        QVERIFY(m_view->errorText().isEmpty());
    }

    void sendCodeNeedsAnAddressAndShowsProgress() {
        await(m_auth->start());
        QVERIFY(!m_view->canSendCode());
        m_view->setEmail("   ");
        QVERIFY(!m_view->canSendCode());
        m_view->sendCode();
        QTest::qWait(50);
        for (const auto& request : m_server->requests())
            QVERIFY(request.path != "/v1/auth/request-code");

        m_delayMs = 150;
        m_view->setEmail(" Dev@Example.com ");
        QVERIFY(m_view->canSendCode());
        m_view->sendCode();
        QVERIFY(m_view->isSubmitting());
        QVERIFY(!m_view->canSendCode());
        QTRY_COMPARE(m_view->card(), LoginViewModel::Card::code);
        QTRY_VERIFY(!m_view->isSubmitting());
        QCOMPARE(m_view->codeSentText(), "Code sent to dev@example.com.");
    }

    void verifyMovesToTheAuthenticatorCardWithAnEmptyField() {
        await(m_auth->start());
        m_view->setEmail("dev@example.com");
        m_view->sendCode();
        QTRY_COMPARE(m_view->card(), LoginViewModel::Card::code);
        QVERIFY(!m_view->canVerify());
        m_view->setCode("123456");
        QVERIFY(m_view->canVerify());
        m_view->verifyCode();
        QTRY_COMPARE(m_view->card(), LoginViewModel::Card::authenticator);
        QTRY_VERIFY(!m_view->isSubmitting());
        QVERIFY(m_view->code().isEmpty());
        m_view->setCode("654321");
        m_view->verifySecondFactor();
        QTRY_COMPARE(m_auth->state(), AuthStore::State::signedIn);
        QCOMPARE(m_view->card(), LoginViewModel::Card::spinner);
    }

    void aWrongCodeShowsTheErrorAndKeepsTheField() {
        await(m_auth->start());
        m_view->setEmail("dev@example.com");
        m_view->sendCode();
        QTRY_COMPARE(m_view->card(), LoginViewModel::Card::code);
        QSignalSpy errors(m_view.get(), &LoginViewModel::errorTextChanged);
        m_view->setCode("000000");
        m_view->verifyCode();
        QTRY_COMPARE(m_view->errorText(), "invalid or expired code");
        QTRY_VERIFY(!m_view->isSubmitting());
        QCOMPARE(m_view->code(), "000000");
        QCOMPARE(m_view->card(), LoginViewModel::Card::code);
        QVERIFY(errors.count() >= 1);
    }

    void resendUsesTheAddressInTheField() {
        await(m_auth->start());
        m_view->setEmail("dev@example.com");
        m_view->sendCode();
        QTRY_COMPARE(m_view->card(), LoginViewModel::Card::code);
        const int before = m_server->requests().size();
        m_view->resendCode();
        QTRY_COMPARE(m_server->requests().size(), before + 1);
        QCOMPARE(m_server->requests().last().path, "/v1/auth/request-code");
    }

    void changeEmailGoesBackAndClearsTheCode() {
        await(m_auth->start());
        m_view->setEmail("dev@example.com");
        m_view->sendCode();
        QTRY_COMPARE(m_view->card(), LoginViewModel::Card::code);
        m_view->setCode("000000");
        m_view->verifyCode();
        QTRY_VERIFY(!m_view->errorText().isEmpty());
        m_view->changeEmail();
        QCOMPARE(m_view->card(), LoginViewModel::Card::email);
        QVERIFY(m_view->code().isEmpty());
        QVERIFY(m_view->errorText().isEmpty());
        QCOMPARE(m_view->email(), "dev@example.com");
    }

    void retryRunsBootstrapAndShowsChecking() {
        const QUrl url = m_server->url();
        m_server->close();
        await(m_auth->start());
        QCOMPARE(m_view->card(), LoginViewModel::Card::unreachable);
        m_view->retry();
        QVERIFY(m_view->isRetrying());
        QCOMPARE(m_view->retryLabel(), "CHECKING");
        QTRY_VERIFY(!m_view->isRetrying());
        QCOMPARE(m_view->retryLabel(), "RETRY");
        QCOMPARE(m_view->card(), LoginViewModel::Card::unreachable);
    }
};

QTEST_GUILESS_MAIN(LoginViewModelTest)
#include "LoginViewModelTest.moc"
