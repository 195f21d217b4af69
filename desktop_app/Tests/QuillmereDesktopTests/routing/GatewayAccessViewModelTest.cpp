#include "QuillmereDesktop/routing/GatewayAccessViewModel.h"
#include "QuillmereDesktop/common/MemoryPreferencesStore.h"
#include "fakes/FakeSecretStore.h"
#include "support/Await.h"
#include "support/FakeProviderProcess.h"
#include "support/RelayFixture.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTest>

namespace {

RouterModel lane(const QString& id, const QString& provider, const QString& routingModel = {},
                 const QString& slug = {}) {
    RouterModel model;
    model.id = id;
    model.provider = provider;
    model.routing_model = routingModel.isEmpty() ? id : routingModel;
    model.endpoint_slug = slug.isEmpty() ? provider + "/api." + provider + ".test" : slug;
    model.channel = "api";
    model.available = true;
    return model;
}

RouterAdapter adapter(const QString& id, const QString& policy) {
    RouterAdapter a;
    a.model_id = id;
    a.data_policy = policy;
    return a;
}

QJsonObject bodyOf(const GatewayKeyForm& form) {
    return QJsonDocument::fromJson(wire::encodeJson(GatewayAccessViewModel::inputOf(form))).object();
}

GatewayAPIKey key() {
    GatewayAPIKey k;
    k.name = "CI";
    k.prefix = "qmk_abcdefgh";
    k.reset_interval = "monthly";
    k.status = "active";
    return k;
}

ContentFilterDraft filter(const QString& name, const QString& pattern, const QString& action = "block") {
    ContentFilterDraft draft;
    draft.name = name;
    draft.pattern = pattern;
    draft.action = action;
    return draft;
}

} // namespace

class GatewayAccessViewModelTest : public QObject {
    Q_OBJECT

    FakeProviderProcess m_fake{QStringLiteral("Gateway answer.")};
    RelayFixture m_relay{RelayFixture::Options{true, m_fake.inventory(), {}}};
    MemoryPreferencesStore m_prefs;
    FakeSecretStore m_secrets;
    std::unique_ptr<AuthStore> m_auth;
    std::unique_ptr<GatewayAccessViewModel> m_view;

    void signIn() {
        await(m_auth->bootstrap());
        QCOMPARE(m_auth->state(), AuthStore::State::signedIn);
    }

    // The key's answer to a model listing: its HTTP status, via the gateway's own path.
    int modelsStatus(const QString& secret) const {
        RelayClient client(m_relay.url(), secret);
        const auto answer = await(client.get<QJsonObject>("v1/models"));
        if (answer)
            return 200;
        return answer.error().message.contains("revoked") ? 401 : 0;
    }

private slots:
    // The create form's validation, in its order.

    void requestsPerMinuteBounds_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("valid");
        QTest::newRow("one million") << "1000000" << true;
        QTest::newRow("one more") << "1000001" << false;
        QTest::newRow("zero") << "0" << false;
        QTest::newRow("negative") << "-5" << false;
        QTest::newRow("fraction") << "1.5" << false;
        QTest::newRow("blank") << "  " << true;
        QTest::newRow("padded") << " 60 " << true;
    }

    void requestsPerMinuteBounds() {
        QFETCH(QString, text);
        QFETCH(bool, valid);
        GatewayKeyForm form;
        form.requestsPerMinute = text;
        QCOMPARE(GatewayAccessViewModel::validate(form),
                 valid ? std::nullopt : std::optional<QString>(GatewayAccessViewModel::requestsMessage));
    }

    void blankLimitsAreLeftOutOfTheBody() {
        GatewayKeyForm form;
        form.requestsPerMinute = "";
        form.tokensPerMinute = " ";
        const QJsonObject body = bodyOf(form);
        QVERIFY(!body.contains("requests_per_minute"));
        QVERIFY(!body.contains("tokens_per_minute"));
        QVERIFY(!body.contains("limit_usd"));
        form.requestsPerMinute = "1000000";
        QCOMPARE(bodyOf(form)["requests_per_minute"].toInteger(), 1000000);
    }

    void validationOrder() {
        GatewayKeyForm form;
        form.limit = "0";
        form.requestsPerMinute = "0";
        form.tokensPerMinute = "1000000001";
        form.contentFilters = {filter("", "x"), filter("a", "b"), filter("a", "c")};
        QCOMPARE(*GatewayAccessViewModel::validate(form), GatewayAccessViewModel::limitMessage);
        for (const char* bad : {"-1", "abc", "inf", "nan"}) {
            form.limit = bad;
            QCOMPARE(*GatewayAccessViewModel::validate(form), GatewayAccessViewModel::limitMessage);
        }
        form.limit = " 25.00 ";
        QCOMPARE(*GatewayAccessViewModel::validate(form), GatewayAccessViewModel::requestsMessage);
        form.requestsPerMinute = "60";
        QCOMPARE(*GatewayAccessViewModel::validate(form), GatewayAccessViewModel::tokensMessage);
        form.tokensPerMinute = "1000000000";
        QCOMPARE(*GatewayAccessViewModel::validate(form), GatewayAccessViewModel::filterIncompleteMessage);
        form.contentFilters[0].name = "PII";
        form.contentFilters[0].pattern = "   ";
        QCOMPARE(*GatewayAccessViewModel::validate(form), GatewayAccessViewModel::filterIncompleteMessage);
        form.contentFilters[0].pattern = "secret_[A-Za-z0-9]+";
        QCOMPARE(*GatewayAccessViewModel::validate(form), GatewayAccessViewModel::filterNamesMessage);
        form.contentFilters[2].name = "b";
        QCOMPARE(GatewayAccessViewModel::validate(form), std::nullopt);
    }

    void filterNamesAreComparedTrimmed() {
        GatewayKeyForm form;
        form.contentFilters = {filter(" PII", "a+b"), filter("PII", "c+d")};
        QCOMPARE(*GatewayAccessViewModel::validate(form), GatewayAccessViewModel::filterNamesMessage);
    }

    void theBodyCarriesTheFormsChoices() {
        GatewayKeyForm form;
        form.limit = "25";
        form.resetInterval = "monthly";
        form.selectedModels = {"b-lane", "a-lane"};
        form.selectedProviders = {"acme"};
        form.enforceZDRGroups = {"openai", "xai"};
        form.contentFilters = {filter(" PII ", " secret_[a-z]+ ", "redact")};
        form.expiry = "30";
        const QJsonObject body = bodyOf(form);
        QCOMPARE(body["name"].toString(), "Local SDK");
        QCOMPARE(body["limit_usd"].toDouble(), 25.0);
        QCOMPARE(body["reset_interval"].toString(), "monthly");
        QCOMPARE(body["requests_per_minute"].toInteger(), 60);
        QCOMPARE(body["tokens_per_minute"].toInteger(), 100000);
        QCOMPARE(body["allowed_models"].toArray(), (QJsonArray{"a-lane", "b-lane"}));
        QCOMPARE(body["allowed_providers"].toArray(), QJsonArray{"acme"});
        QCOMPARE(body["content_filters"].toArray().first().toObject(),
                 (QJsonObject{{"name", "PII"}, {"pattern", "secret_[a-z]+"}, {"action", "redact"}}));
        QVERIFY(body["enforce_zdr_openai"].toBool());
        QVERIFY(body["enforce_zdr_xai"].toBool());
        QVERIFY(!body["enforce_zdr_anthropic"].toBool());
        QVERIFY(body.contains("enforce_zdr_other"));
        QCOMPARE(body["expires_in_days"].toInteger(), 30);
    }

    void neverExpiringLeavesTheFieldOut() {
        GatewayKeyForm form;
        form.expiry = "never";
        QVERIFY(!bodyOf(form).contains("expires_in_days"));
    }

    // Eligibility.

    void guardrailGroups_data() {
        QTest::addColumn<QString>("id");
        QTest::addColumn<QString>("provider");
        QTest::addColumn<QString>("group");
        QTest::newRow("claude at acme") << "claude-x"
                                        << "acme"
                                        << "anthropic";
        QTest::newRow("anthropic provider") << "sonnet"
                                            << "Anthropic"
                                            << "anthropic";
        QTest::newRow("gpt") << "gpt-5"
                             << "azure"
                             << "openai";
        QTest::newRow("proto1 stays openai") << "proto1"
                                             << "acme"
                                             << "openai";
        QTest::newRow("gemini") << "gemini-pro"
                                << "acme"
                                << "google";
        QTest::newRow("vertex") << "m"
                                << "vertex"
                                << "google";
        QTest::newRow("grok") << "grok-4"
                              << "acme"
                              << "xai";
        QTest::newRow("anthropic wins over openai") << "claude-gpt"
                                                    << "acme"
                                                    << "anthropic";
        QTest::newRow("other") << "llama"
                               << "acme"
                               << "other";
    }

    void guardrailGroups() {
        QFETCH(QString, id);
        QFETCH(QString, provider);
        QFETCH(QString, group);
        QCOMPARE(GatewayAccessViewModel::guardrailGroup(lane(id, provider)), group);
    }

    void eligibility() {
        const QList<RouterModel> lanes{lane("claude-x", "acme"), lane("claude-z", "acme"),
                                       lane("llama", "meta", "meta/llama", "meta/llama.test"),
                                       lane("gpt-5", "openai")};
        std::map<QString, RouterAdapter> adapters{{"claude-z", adapter("claude-z", "zdr")},
                                                  {"gpt-5", adapter("gpt-5", "standard")}};
        GatewayKeyForm form;
        QCOMPARE(GatewayAccessViewModel::eligibleModels(lanes, adapters, form).size(), 4);

        // An enforced group keeps only lanes whose adapter says "zdr"; no adapter fails.
        form.enforceZDRGroups = {"anthropic"};
        auto eligible = GatewayAccessViewModel::eligibleModels(lanes, adapters, form);
        QCOMPARE(eligible.size(), 3);
        QVERIFY(std::none_of(eligible.begin(), eligible.end(), [](auto& m) { return m.id == "claude-x"; }));
        form.enforceZDRGroups = {"openai"};
        QCOMPARE(GatewayAccessViewModel::eligibleModels(lanes, adapters, form).size(), 3);

        // Allowlists by lane id or client model, and by provider or endpoint slug.
        form.enforceZDRGroups.clear();
        form.selectedModels = {"meta/llama", "gpt-5"};
        QCOMPARE(GatewayAccessViewModel::eligibleModels(lanes, adapters, form).size(), 2);
        form.selectedProviders = {"meta/llama.test"};
        eligible = GatewayAccessViewModel::eligibleModels(lanes, adapters, form);
        QCOMPARE(eligible.size(), 1);
        QCOMPARE(eligible.first().id, "llama");
    }

    // What the key list shows.

    void keyTexts() {
        GatewayAPIKey k = key();
        k.spent_usd = 1.23456;
        k.lifetime_spent_usd = 7.5;
        QCOMPARE(GatewayAccessViewModel::usageText(k), "$7.5000 LIFETIME · NO KEY LIMIT");
        k.limit_usd = 25;
        QCOMPARE(GatewayAccessViewModel::usageText(k), "MONTHLY $1.2346 / $25.0000 · $7.5000 LIFETIME");
        QCOMPARE(GatewayAccessViewModel::rateLimitText(k), "NO RPM LIMIT · NO TPM LIMIT");
        k.requests_per_minute = 60;
        k.tokens_per_minute = 100000;
        QCOMPARE(GatewayAccessViewModel::rateLimitText(k), "60 RPM · 100000 TPM");
        QCOMPARE(GatewayAccessViewModel::guardrailText(k),
                 "ALL MODELS · ALL PROVIDERS · STANDARD PRIVACY · NO CONTENT FILTERS");
        k.allowed_models = {"a", "b"};
        k.allowed_providers = {"acme"};
        k.enforce_zdr_anthropic = true;
        k.enforce_zdr_other = true;
        k.content_filters = {GatewayContentFilter{"PII", "x+", "block"}};
        QCOMPARE(GatewayAccessViewModel::guardrailText(k),
                 "2 MODELS · 1 PROVIDERS · ZDR ANTHROPIC, OTHER · 1 CONTENT FILTERS");
        k.guardrail_events = {3, 4};
        QCOMPARE(GatewayAccessViewModel::auditText(k), "AUDIT · 3 BLOCK · 4 REDACT");
        QCOMPARE(GatewayAccessViewModel::lastUsedText(k), "NEVER USED");
        k.last_used_at = double(QDateTime(QDate(2026, 3, 4), QTime(15, 7)).toSecsSinceEpoch());
        QVERIFY2(GatewayAccessViewModel::lastUsedText(k).startsWith("LAST USED Mar 4, 2026, "),
                 qPrintable(GatewayAccessViewModel::lastUsedText(k)));
    }

    void endpointAndSamples() {
        QCOMPARE(GatewayAccessViewModel::gatewayBaseURL(QUrl("http://127.0.0.1:8787/")),
                 "http://127.0.0.1:8787/v1");
        QCOMPARE(GatewayAccessViewModel::gatewayBaseURL(QUrl("https://relay.example.com/base")),
                 "https://relay.example.com/base/v1");
        const QString openai = GatewayAccessViewModel::openAISample("http://127.0.0.1:8787/v1");
        QVERIFY(openai.startsWith("from openai import OpenAI\nimport os\n"));
        QVERIFY(openai.contains("OpenAI(\n    base_url=\"http://127.0.0.1:8787/v1\",\n"
                                "    api_key=os.environ[\"QUILLMERE_API_KEY\"],\n)"));
        const QString anthropic = GatewayAccessViewModel::anthropicSample("http://127.0.0.1:8787/v1");
        QVERIFY(anthropic.startsWith("from anthropic import Anthropic\nimport os\n"));
        QVERIFY(anthropic.contains("Anthropic(\n    base_url=\"http://127.0.0.1:8787/v1\",\n"
                                   "    api_key=os.environ[\"QUILLMERE_API_KEY\"],\n)"));
    }

    void formDefaultsAndFixedLists() {
        GatewayAccessViewModel view;
        QCOMPARE(view.name(), "Local SDK");
        QCOMPARE(view.resetInterval(), "lifetime");
        QCOMPARE(view.requestsPerMinute(), "60");
        QCOMPARE(view.tokensPerMinute(), "100000");
        QCOMPARE(view.expiry(), "90");
        QVERIFY(view.limit().isEmpty());
        QCOMPARE(GatewayAccessViewModel::expiries(), (QStringList{"never", "30", "90", "365"}));
        QCOMPARE(GatewayAccessViewModel::resetIntervals(),
                 (QStringList{"daily", "weekly", "monthly", "lifetime"}));
        QCOMPARE(GatewayAccessViewModel::zdrGroups(),
                 (QStringList{"anthropic", "openai", "google", "xai", "other"}));
        QCOMPARE(view.guardrailsHeader(), "key guardrails · unrestricted");
        QCOMPARE(view.keysHeader(), "keys 0");
        QCOMPARE(view.createButtonLabel(), "CREATE GATEWAY KEY");
        view.addFilter();
        QCOMPARE(view.form().contentFilters.first().action, "block");
        QCOMPARE(view.guardrailsHeader(), "key guardrails · 1 rules · 0 lanes");
        view.removeFilter(0);
        QVERIFY(view.form().contentFilters.isEmpty());
    }

    // Against the real relay.

    void initTestCase() {
        QVERIFY(!m_fake.url().isEmpty());
        QVERIFY(m_relay.start());
    }

    void init() {
        m_prefs = MemoryPreferencesStore();
        m_prefs.setString("relayURL", m_relay.url().toString());
        AuthStoreConfig config;
        config.bootstrapOnStart = false;
        m_auth = std::make_unique<AuthStore>(m_prefs, m_secrets, nullptr, config);
        m_view = std::make_unique<GatewayAccessViewModel>();
        m_view->setAuth(m_auth.get());
    }

    void cleanup() {
        m_view.reset();
        m_auth.reset();
    }

    void loadReadsKeysAndLanes() {
        signIn();
        await(m_view->loadNow());
        QCOMPARE(m_view->errorMessage(), QString());
        QCOMPARE(m_view->modelChoices(), QStringList{"fake-lane"});
        QCOMPARE(m_view->providerChoices(), QStringList{"fake"});
        QCOMPARE(m_view->eligibilityText(), "ELIGIBILITY PREVIEW · 1 OF 1 API LANES");
        // The fake lane is "other" and has a standard adapter: enforcing its group excludes it.
        m_view->toggleZDRGroup("other");
        QCOMPARE(m_view->eligibilityText(), "ELIGIBILITY PREVIEW · 0 OF 1 API LANES");
        QCOMPARE(m_view->guardrailsHeader(), "key guardrails · 1 rules · 0 lanes");
        QCOMPARE(m_view->gatewayBaseURLText(), m_relay.url().toString() + "v1");
    }

    void anInvalidFormSendsNothing() {
        signIn();
        await(m_view->loadNow());
        const qsizetype before = m_view->keys().size();
        m_view->setRequestsPerMinute("1000001");
        await(m_view->createNow());
        QCOMPARE(m_view->errorMessage(), GatewayAccessViewModel::requestsMessage);
        await(m_view->loadNow());
        QCOMPARE(m_view->keys().size(), before);
        QVERIFY(!m_view->hasCreatedSecret());
    }

    void createShowsTheSecretOnceThenRevokeCutsItOff() {
        signIn();
        await(m_view->loadNow());
        m_view->setName("SDK test");
        m_view->setLimit("5");
        m_view->setResetInterval("monthly");
        m_view->setRequestsPerMinute("");
        m_view->setExpiry("never");
        m_view->toggleProvider("fake");
        m_view->addFilter();
        m_view->setFilterName(0, "PII");
        m_view->setFilterPattern(0, "secret_[A-Za-z0-9]+");
        m_view->setFilterAction(0, "redact");
        await(m_view->createNow());
        QCOMPARE(m_view->errorMessage(), QString());
        QVERIFY(m_view->hasCreatedSecret());
        const QString secret = m_view->createdSecretText();
        QVERIFY(secret.startsWith("qmk_"));
        // The guardrails are cleared; the name and the rates stay.
        QVERIFY(m_view->limit().isEmpty());
        QVERIFY(m_view->selectedProviders().isEmpty());
        QVERIFY(m_view->form().contentFilters.isEmpty());
        QCOMPARE(m_view->name(), "SDK test");

        const auto found = std::find_if(m_view->keys().begin(), m_view->keys().end(),
                                        [](const GatewayAPIKey& k) { return k.name == "SDK test"; });
        QVERIFY(found != m_view->keys().end());
        const GatewayAPIKey created = *found;
        QVERIFY(secret.startsWith(created.prefix));
        QVERIFY(!created.expires_at);
        QVERIFY(!created.requests_per_minute);
        QCOMPARE(created.allowed_providers, QStringList{"fake"});
        QCOMPARE(created.content_filters.first().action, "redact");
        QCOMPARE(GatewayAccessViewModel::usageText(created), "MONTHLY $0.0000 / $5.0000 · $0.0000 LIFETIME");
        // The list never carries the secret.
        const QVariantList rows = m_view->keyRows();
        QVERIFY(!QJsonDocument::fromVariant(rows).toJson().contains(secret.toUtf8()));

        // The secret works until the key is revoked, and not after.
        QCOMPARE(modelsStatus(secret), 200);
        m_view->requestRevoke(created.id);
        QVERIFY(m_view->confirmingRevoke());
        m_view->cancelRevoke();
        QVERIFY(!m_view->confirmingRevoke());
        QCOMPARE(modelsStatus(secret), 200);
        m_view->requestRevoke(created.id);
        await(m_view->confirmRevokeNow());
        QVERIFY(!m_view->confirmingRevoke());
        QCOMPARE(modelsStatus(secret), 401);
        const auto revoked = std::find_if(m_view->keys().begin(), m_view->keys().end(),
                                          [&](const GatewayAPIKey& k) { return k.id == created.id; });
        QCOMPARE(revoked->status, "revoked");
        // A revoked key offers no second revoke.
        m_view->requestRevoke(created.id);
        QVERIFY(!m_view->confirmingRevoke());

        // Shown until dismissed, and a new screen has no secret at all.
        QVERIFY(m_view->hasCreatedSecret());
        m_view->dismissSecret();
        QVERIFY(!m_view->hasCreatedSecret());
        QCOMPARE(m_view->createdSecretText(), QString());
        GatewayAccessViewModel reopened;
        reopened.setAuth(m_auth.get());
        await(reopened.loadNow());
        QVERIFY(!reopened.hasCreatedSecret());
    }

    void theRelaysRefusalKeepsTheForm() {
        signIn();
        await(m_view->loadNow());
        m_view->setLimit("3");
        m_view->addFilter();
        m_view->setFilterName(0, "bad");
        m_view->setFilterPattern(0, "(a+)+");
        await(m_view->createNow());
        QVERIFY(!m_view->errorMessage().isEmpty());
        QVERIFY(!m_view->hasCreatedSecret());
        QVERIFY(!m_view->isCreating());
        QCOMPARE(m_view->limit(), "3");
        QCOMPARE(m_view->form().contentFilters.size(), 1);
    }
};

QTEST_MAIN(GatewayAccessViewModelTest)
#include "GatewayAccessViewModelTest.moc"
