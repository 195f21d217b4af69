#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/common/MemoryPreferencesStore.h"
#include "QuillmereDesktop/context/IntegrationsViewModel.h"
#include "fakes/FakeSecretStore.h"
#include "support/Await.h"
#include "support/FakeComposioProcess.h"
#include "support/RelayFixture.h"
#include "support/RelayProxy.h"
#include "support/SignedInAuth.h"

#include <QDesktopServices>
#include <QTest>

using namespace std::chrono_literals;

namespace {

QVariantMap rowOf(const IntegrationsViewModel& view, const QString& slug) {
    for (const QVariant& row : view.toolkitRows())
        if (row.toMap().value("slug").toString() == slug)
            return row.toMap();
    return {};
}

} // namespace

// Connected apps and insights against the real relay: one relay without Composio, one
// talking to the fake Composio, each behind a recording proxy. Links open through the
// desktop services, whose https handler is this test.
class IntegrationsTest : public QObject {
    Q_OBJECT

    FakeComposioProcess m_composio;
    RelayFixture m_plainRelay;
    RelayFixture m_relay{RelayFixture::Options{true, m_composio.relayEnvironment(), {}}};
    std::unique_ptr<RelayProxy> m_plainProxy;
    std::unique_ptr<RelayProxy> m_proxy;
    MemoryPreferencesStore m_plainPrefs;
    MemoryPreferencesStore m_prefs;
    FakeSecretStore m_plainSecrets;
    FakeSecretStore m_secrets;
    std::unique_ptr<AuthStore> m_plainAuth;
    std::unique_ptr<AuthStore> m_auth;
    QList<QUrl> m_opened;

public slots:
    // The browser, as far as the application can tell.
    void openInBrowser(const QUrl& url) { m_opened.append(url); }

private slots:
    void initTestCase() {
        QVERIFY(!m_composio.url().isEmpty());
        QVERIFY(m_plainRelay.start());
        QVERIFY(m_relay.start());
        m_plainProxy = std::make_unique<RelayProxy>(m_plainRelay.url());
        m_proxy = std::make_unique<RelayProxy>(m_relay.url());
        m_plainAuth = signedInAuth(m_plainPrefs, m_plainSecrets, m_plainProxy->url());
        m_auth = signedInAuth(m_prefs, m_secrets, m_proxy->url());
        QCOMPARE(m_plainAuth->state(), AuthStore::State::signedIn);
        QCOMPARE(m_auth->state(), AuthStore::State::signedIn);
        QDesktopServices::setUrlHandler(QStringLiteral("https"), this, "openInBrowser");
    }

    void cleanupTestCase() {
        QDesktopServices::unsetUrlHandler(QStringLiteral("https"));
        m_plainAuth.reset();
        m_auth.reset();
        m_plainProxy.reset();
        m_proxy.reset();
    }

    void defaultsAndTexts() {
        QCOMPARE(IntegrationsViewModel::defaultConnectRecheckDelay, 4000ms);
        QCOMPARE(IntegrationsViewModel::spendText(0.5), QStringLiteral("$0.5000"));
        QCOMPARE(IntegrationsViewModel::spendText(0), QStringLiteral("$0.0000"));
        QCOMPARE(
            IntegrationsViewModel::connectButton(QStringLiteral("ACTIVE"), false).value("label").toString(),
            QStringLiteral("CONNECTED"));
        QVERIFY(
            !IntegrationsViewModel::connectButton(QStringLiteral("ACTIVE"), false).value("enabled").toBool());
        QCOMPARE(
            IntegrationsViewModel::connectButton(QStringLiteral("FAILED"), false).value("label").toString(),
            QStringLiteral("RETRY"));
        QVERIFY(
            IntegrationsViewModel::connectButton(QStringLiteral("FAILED"), false).value("enabled").toBool());
        QCOMPARE(IntegrationsViewModel::connectButton(std::nullopt, false).value("label").toString(),
                 QStringLiteral("CONNECT"));
        const QVariantMap busy = IntegrationsViewModel::connectButton(QStringLiteral("INITIATED"), true);
        QVERIFY(busy.value("busy").toBool());
        QVERIFY(!busy.value("enabled").toBool());
        // With several connections of one toolkit, the first listed wins.
        const auto statuses = IntegrationsViewModel::statusesOf(
            {{"1", "github", "FAILED", std::nullopt}, {"2", "github", "ACTIVE", std::nullopt}});
        QCOMPARE(statuses.at("github"), QStringLiteral("FAILED"));
    }

    void withoutComposioNoToolkitIsAskedForAndInsightsShowAllTheSame() {
        IntegrationsViewModel view;
        view.setAuth(m_plainAuth.get());
        await(view.loadNow());
        QCOMPARE(view.errorText(), QString());
        QVERIFY(!view.isLoading());
        QVERIFY(!view.configured());
        QVERIFY(view.toolkitRows().isEmpty());
        QVERIFY(view.hasInsights());
        const QVariantMap card = view.insightsCard();
        QVERIFY(!card.value("summary").toString().isEmpty());
        QCOMPARE(card.value("spend").toString(), QStringLiteral("$0.0000"));
        QCOMPARE(card.value("runs").toString(), QStringLiteral("0"));
        QVERIFY(m_plainProxy->requestsTo("/v1/composio/status").size() == 1);
        QVERIFY(m_plainProxy->requestsTo("/v1/insights").size() == 1);
        QVERIFY(m_plainProxy->requestsTo("/v1/composio/toolkits").isEmpty());
        QVERIFY(m_plainProxy->requestsTo("/v1/composio/connections").isEmpty());
    }

    void aFailedInsightsReadHidesTheToolkitsToo() {
        IntegrationsViewModel view;
        view.setAuth(m_auth.get());
        m_proxy->setRule([](const RelayProxy::Request& request) {
            return request.path.startsWith("/v1/insights")
                       ? RelayProxy::Decision{RelayProxy::Action::refuse, 500}
                       : RelayProxy::Decision{};
        });
        await(view.loadNow());
        m_proxy->setRule({});
        QCOMPARE(view.errorText(), QStringLiteral("Could not load integrations. Try again."));
        QVERIFY(!view.isLoading());
        QVERIFY(view.toolkitRows().isEmpty());
        QVERIFY(!view.hasInsights());
    }

    // Connect opens the relay's link in the browser, looks at the connections again after the
    // wait, and offers a retry until the account is active.
    void connectOpensTheLinkAndRetriesUntilActive() {
        IntegrationsViewModel view;
        view.setAuth(m_auth.get());
        view.setConnectRecheckDelay(300ms);
        await(view.loadNow());
        QCOMPARE(view.errorText(), QString());
        QVERIFY(view.configured());
        QStringList names;
        for (const QVariant& row : view.toolkitRows())
            names.append(row.toMap().value("name").toString());
        QCOMPARE(names, (QStringList{"GitHub", "Slack", "Linear"}));
        QCOMPARE(rowOf(view, "github").value("description").toString(),
                 QStringLiteral("Issues and pull requests."));
        QCOMPARE(rowOf(view, "github").value("label").toString(), QStringLiteral("CONNECT"));

        m_opened.clear();
        view.connectToolkit("github");
        QVERIFY(waitUntil([&] { return !m_opened.isEmpty(); }));
        QCOMPARE(view.connectingToolkit(), std::optional<QString>("github"));
        QVERIFY(rowOf(view, "github").value("busy").toBool());
        QVERIFY(!rowOf(view, "github").value("enabled").toBool());
        QVERIFY(waitUntil([&] { return !view.connectingToolkit(); }));
        QCOMPARE(m_opened.size(), 1);
        QCOMPARE(m_opened.first().host(), QStringLiteral("connect.example.com"));
        QCOMPARE(view.errorText(), QString());
        // The flow in the browser is not finished: the earlier attempt offers a retry.
        QCOMPARE(rowOf(view, "github").value("label").toString(), QStringLiteral("RETRY"));
        QVERIFY(rowOf(view, "github").value("enabled").toBool());

        QVERIFY(m_composio.activate(m_opened.first().path().section('/', -1)));
        await(view.loadNow());
        QCOMPARE(rowOf(view, "github").value("label").toString(), QStringLiteral("CONNECTED"));
        QVERIFY(!rowOf(view, "github").value("enabled").toBool());
        QCOMPARE(rowOf(view, "slack").value("label").toString(), QStringLiteral("CONNECT"));
    }

    void aFailedConnectSaysSoPlainly() {
        IntegrationsViewModel view;
        view.setAuth(m_auth.get());
        view.setConnectRecheckDelay(0ms);
        await(view.loadNow());
        m_opened.clear();
        m_proxy->setRule([](const RelayProxy::Request& request) {
            return request.method == "POST" ? RelayProxy::Decision{RelayProxy::Action::refuse, 502}
                                            : RelayProxy::Decision{};
        });
        await(view.connectNow("slack"));
        m_proxy->setRule({});
        QCOMPARE(view.errorText(), QStringLiteral("Could not connect this app. Try again."));
        QVERIFY(!view.connectingToolkit());
        QVERIFY(m_opened.isEmpty());
    }
};

QTEST_MAIN(IntegrationsTest)
#include "IntegrationsTest.moc"
