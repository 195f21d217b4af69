#include "QuillmereDesktop/routing/RoutingViewModel.h"
#include "QuillmereDesktop/common/MemoryPreferencesStore.h"
#include "fakes/FakeSecretStore.h"
#include "support/Await.h"
#include "support/FakeProviderProcess.h"
#include "support/RelayFixture.h"
#include "support/RelayProxy.h"

#include <QJsonDocument>
#include <QTest>

#include <cmath>

namespace {

RouterModel model(const QString& id, const QString& channel, bool available) {
    RouterModel m;
    m.id = id;
    m.display_name = id.toUpper();
    m.channel = channel;
    m.available = available;
    return m;
}

RouterUsage usage(qint64 requests, double fallbackRate = 0, qint64 cacheHits = 0, qint64 insured = 0) {
    RouterUsage u;
    u.requests = requests;
    u.fallback_rate = fallbackRate;
    u.cache_hits = cacheHits;
    u.insured_requests = insured;
    return u;
}

RouterBudget budget(double utilization, std::optional<QString> project = std::nullopt) {
    RouterBudget b;
    b.utilization = utilization;
    b.project_id = std::move(project);
    b.period = "monthly";
    return b;
}

ModelPerformance performance(qint64 samples, std::optional<double> tps,
                             std::optional<double> p50 = std::nullopt,
                             std::optional<double> p90 = std::nullopt) {
    ModelPerformance p;
    p.sample_count = samples;
    p.throughput_tps.p50 = tps;
    p.latency_ms.p50 = p50;
    p.latency_ms.p90 = p90;
    return p;
}

// A figures set with a ready API lane and a budget below its threshold: no rule fires.
RoutingFigures quiet() {
    RoutingFigures figures;
    figures.models = {model("api-lane", "api", true)};
    figures.budgets = {budget(0.1)};
    return figures;
}

QJsonObject encoded(const RoutePreviewInput& input) {
    return QJsonDocument::fromJson(wire::encodeJson(input)).object();
}

} // namespace

class RoutingViewModelTest : public QObject {
    Q_OBJECT

    FakeProviderProcess m_fake{QStringLiteral("Routed answer.")};
    RelayFixture m_relay{RelayFixture::Options{true, m_fake.inventory(), {}}};
    std::unique_ptr<RelayProxy> m_proxy;
    MemoryPreferencesStore m_prefs;
    FakeSecretStore m_secrets;
    std::unique_ptr<AuthStore> m_auth;
    std::unique_ptr<RoutingViewModel> m_view;

private slots:
    // The preview form's validation, in its order.

    void tokenEstimatesMustBeNonNegativeWholeNumbers() {
        RoutePreviewForm form;
        form.inputTokens = "-1";
        QCOMPARE(RoutingViewModel::validate(form), RoutingViewModel::tokensMessage);
        form.inputTokens = "";
        QCOMPARE(RoutingViewModel::validate(form), RoutingViewModel::tokensMessage);
        form.inputTokens = "1.5";
        QCOMPARE(RoutingViewModel::validate(form), RoutingViewModel::tokensMessage);
        form.inputTokens = "99999999999999999999";
        QCOMPARE(RoutingViewModel::validate(form), RoutingViewModel::tokensMessage);
        form.inputTokens = "+5";
        QCOMPARE(RoutingViewModel::validate(form), std::nullopt);
        QCOMPARE(RoutingViewModel::previewInputOf(form).input_tokens, 5);
    }

    void infinityParsesAndFailsTheRangeCheck() {
        RoutePreviewForm form;
        form.preferredLatency = "inf";
        QCOMPARE(RoutingViewModel::validate(form), RoutingViewModel::latencyRangeMessage);
        form.preferredLatency = "-0.5";
        QCOMPARE(RoutingViewModel::validate(form), RoutingViewModel::latencyRangeMessage);
        form.preferredLatency = "";
        form.preferredThroughput = "nan";
        QCOMPARE(RoutingViewModel::validate(form), RoutingViewModel::throughputRangeMessage);
    }

    void theLatencyMessageComesBeforeTheThroughputOne() {
        RoutePreviewForm form;
        form.preferredLatency = "abc";
        form.preferredThroughput = "xyz";
        QCOMPARE(RoutingViewModel::validate(form), RoutingViewModel::latencyNumberMessage);
        form.preferredLatency = "2";
        QCOMPARE(RoutingViewModel::validate(form), RoutingViewModel::throughputNumberMessage);
    }

    // The request a preview sends.

    void aCliPreviewNeverDeclaresTools() {
        RoutePreviewForm form;
        form.previewToolCall = true;
        form.channel = "cli";
        QVERIFY(!encoded(RoutingViewModel::previewInputOf(form)).contains("tools"));
        form.channel = "api";
        const QJsonObject body = encoded(RoutingViewModel::previewInputOf(form));
        QCOMPARE(
            QJsonDocument(body.value("tools").toArray()).toJson(QJsonDocument::Compact),
            QByteArray(R"([{"function":{"name":"project_action","parameters":{"additionalProperties":false,)"
                       R"("properties":{"action":{"type":"string"}},"required":["action"],"type":"object"}},)"
                       R"("type":"function"}])"));
    }

    void theRouterSortWithNoPreferencesLeavesProviderOut() {
        RoutePreviewForm form;
        QCOMPARE(encoded(RoutingViewModel::previewInputOf(form)),
                 (QJsonObject{{"task", "code"},
                              {"channel", "any"},
                              {"input_tokens", 8000},
                              {"estimated_output_tokens", 2000}}));
        form.preferredThroughput = "20";
        QCOMPARE(encoded(RoutingViewModel::previewInputOf(form)).value("provider").toObject(),
                 (QJsonObject{{"preferred_min_throughput", 20}}));
        form.preferredThroughput = "";
        form.providerSort = "latency";
        form.sortPartition = "none";
        QCOMPARE(encoded(RoutingViewModel::previewInputOf(form)).value("provider").toObject(),
                 (QJsonObject{{"sort", QJsonObject{{"by", "latency"}, {"partition", "none"}}}}));
    }

    void aLatencyBudgetThatDoesNotParseIsLeftOutSilently() {
        RoutePreviewForm form;
        form.latencyBudget = "fast";
        QCOMPARE(RoutingViewModel::validate(form), std::nullopt);
        QVERIFY(!encoded(RoutingViewModel::previewInputOf(form)).contains("latency_budget_ms"));
        form.latencyBudget = "1500";
        QCOMPARE(encoded(RoutingViewModel::previewInputOf(form)).value("latency_budget_ms").toInt(), 1500);
    }

    void thePolicyCarriesTheFormAndNoAllowedProviders() {
        RoutePreviewForm form;
        form.strategy = "cost";
        form.maxCost = "0.05";
        form.fallbackEnabled = false;
        form.maxFallbacks = 1;
        const RouterPolicy policy = RoutingViewModel::policyOf(form);
        QCOMPARE(QJsonDocument::fromJson(wire::encodeJson(policy)).object(),
                 (QJsonObject{{"strategy", "cost"},
                              {"max_cost_per_request", 0.05},
                              {"fallback_enabled", false},
                              {"max_fallbacks", 1},
                              {"allowed_providers", QJsonArray{}}}));
        QCOMPARE(encoded(RoutingViewModel::previewInputOf(form)).value("max_cost_usd").toDouble(), 0.05);
        form.maxCost = "cheap";
        QVERIFY(!RoutingViewModel::policyOf(form).max_cost_per_request);
    }

    // The smart suggestions and their thresholds.

    void nothingFiresForQuietFigures() { QCOMPARE(RoutingViewModel::suggestionsFor(quiet()), QStringList()); }

    void noReadyApiLane() {
        RoutingFigures figures = quiet();
        figures.models = {model("claude-subscription", "cli", true), model("api-lane", "api", false)};
        QCOMPARE(
            RoutingViewModel::suggestionsFor(figures),
            QStringList{"No API lane is execution-ready. Add an adapter endpoint and its named credential to "
                        "the relay inventory."});
        figures.models.clear();
        QCOMPARE(RoutingViewModel::suggestionsFor(figures), QStringList());
    }

    void threeRequestsAtATwentyPercentFallbackRateFire() {
        RoutingFigures figures = quiet();
        figures.usage = usage(3, 0.2);
        QCOMPARE(RoutingViewModel::suggestionsFor(figures),
                 QStringList{
                     "Fallbacks are serving 20% of requests. Check the primary provider or move a healthier "
                     "lane earlier."});
        figures.usage = usage(2, 0.5);
        QCOMPARE(RoutingViewModel::suggestionsFor(figures), QStringList());
    }

    void theCacheSentence() {
        RoutingFigures figures = quiet();
        figures.usage = usage(9);
        QCOMPARE(RoutingViewModel::suggestionsFor(figures), QStringList());
        figures.usage = usage(10);
        QCOMPARE(RoutingViewModel::suggestionsFor(figures),
                 QStringList{
                     "No response-cache hits yet. Deterministic agent retries and test workflows can opt in "
                     "with X-OpenRouter-Cache: true."});
        figures.usage = usage(10, 0, 1);
        QCOMPARE(RoutingViewModel::suggestionsFor(figures),
                 QStringList{"The local response cache served 1 request without provider tokens or cost."});
    }

    void insurance() {
        RoutingFigures figures = quiet();
        figures.usage = usage(1, 0, 0, 2);
        QCOMPARE(RoutingViewModel::suggestionsFor(figures),
                 QStringList{
                     "Zero-completion insurance protected 2 empty or error-finished provider responses from "
                     "being recorded as spend."});
    }

    void healthOfExactlyThreeQuartersIsNotNamed() {
        RoutingFigures figures = quiet();
        figures.providerHealth = {{"zeta", 0.5}, {"alpha", 0.1}, {"fine", 0.75}};
        QCOMPARE(
            RoutingViewModel::suggestionsFor(figures),
            QStringList{"Recent failures lowered health for alpha, zeta. Routing already deprioritizes these "
                        "providers."});
    }

    void onlyTheFirstBudgetAtEightyPercentIsTold() {
        RoutingFigures figures = quiet();
        figures.budgets = {budget(0.5), budget(0.8, "p1"), budget(0.95)};
        QCOMPARE(RoutingViewModel::suggestionsFor(figures), QStringList{"The project budget is 80% used."});
        figures.budgets = {budget(0.79), budget(0.1)};
        QCOMPARE(RoutingViewModel::suggestionsFor(figures), QStringList());
        figures.budgets.clear();
        QCOMPARE(
            RoutingViewModel::suggestionsFor(figures),
            QStringList{"No hard spend budget is set. Add one below before enabling unattended API agents."});
    }

    void throughputAtTenAndFifteenFires() {
        RoutingFigures figures = quiet();
        figures.models << model("slow", "api", true) << model("quick", "api", true);
        figures.modelPerformance = {{"slow", performance(3, 10)}, {"quick", performance(3, 15)}};
        QCOMPARE(RoutingViewModel::suggestionsFor(figures),
                 QStringList{"QUICK is delivering the highest observed throughput at 15.0 tokens/sec. Prefer "
                             "throughput sorting for batch work."});
        figures.modelPerformance = {{"slow", performance(3, 10.1)}, {"quick", performance(3, 15)}};
        QCOMPARE(RoutingViewModel::suggestionsFor(figures), QStringList());
        figures.modelPerformance = {{"quick", performance(3, 15)}};
        QCOMPARE(RoutingViewModel::suggestionsFor(figures), QStringList());
    }

    void aP90OfTwiceTheP50IsVolatile() {
        RoutingFigures figures = quiet();
        figures.models << model("lane-b", "api", true) << model("lane-a", "api", true);
        figures.modelPerformance = {{"lane-b", performance(5, std::nullopt, 100, 200)},
                                    {"lane-a", performance(5, std::nullopt, 100, 250)},
                                    {"few", performance(4, std::nullopt, 100, 400)}};
        QCOMPARE(RoutingViewModel::suggestionsFor(figures),
                 QStringList{"Tail latency is volatile for LANE-A, LANE-B. Add a p90 latency preference for "
                             "interactive requests."});
    }

    void aValidRateOfExactlyEightyPercentIsFine() {
        RoutingFigures figures = quiet();
        ToolCallQuality fine;
        fine.sample_count = 10;
        fine.valid_count = 8;
        fine.valid_rate = 0.8;
        ToolCallQuality poor = fine;
        poor.valid_count = 3;
        poor.valid_rate = 0.3;
        ToolCallQuality worse = fine;
        worse.valid_count = 1;
        worse.valid_rate = 0.1;
        figures.toolCallQuality = {{"fine", fine}};
        QCOMPARE(RoutingViewModel::suggestionsFor(figures), QStringList());
        figures.toolCallQuality = {{"poor", poor}, {"worse", worse}};
        QCOMPARE(RoutingViewModel::suggestionsFor(figures),
                 QStringList{
                     "worse emitted schema-valid calls on 1 of 10 observed tool requests. Local Auto Exacto "
                     "will deprioritize it for agent tools."});
    }

    void percentagesAreCutTowardsZero() {
        QCOMPARE(RoutingViewModel::percent(0.2), 20);
        QCOMPARE(RoutingViewModel::percent(0.999), 99);
    }

    void laneTexts() {
        ModelPerformance p = performance(1, 42.25, 830);
        QCOMPARE(RoutingViewModel::performanceText(p), "1 SAMPLE / 5M · P50 830MS · P50 42.3 TOK/S");
        p = performance(3, std::nullopt);
        QCOMPARE(RoutingViewModel::performanceText(p), "3 SAMPLES / 5M");
        ToolCallQuality q;
        q.sample_count = 4;
        q.valid_rate = 0.75;
        q.routing_score = 66.7;
        QCOMPARE(RoutingViewModel::toolQualityText(q),
                 "AUTO EXACTO · 75% VALID · 4 TOOL REQUESTS · Q67 / 32D");
    }

    // Against the real relay, with one API lane on the fake provider.

    void initTestCase() {
        QVERIFY(!m_fake.url().isEmpty());
        QVERIFY(m_relay.start());
    }

    void init() {
        m_proxy = std::make_unique<RelayProxy>(m_relay.url());
        m_prefs = MemoryPreferencesStore();
        m_prefs.setString("relayURL", m_proxy->url().toString());
        AuthStoreConfig config;
        config.bootstrapOnStart = false;
        m_auth = std::make_unique<AuthStore>(m_prefs, m_secrets, nullptr, config);
        m_view = std::make_unique<RoutingViewModel>();
        m_view->setAuth(m_auth.get());
    }

    void cleanup() {
        m_view.reset();
        m_auth.reset();
        m_proxy.reset();
    }

    void signIn() {
        await(m_auth->bootstrap());
        QCOMPARE(m_auth->state(), AuthStore::State::signedIn);
    }

    void loadShowsTheLanesAndTakesOverThePolicy() {
        signIn();
        const QJsonObject policy{{"strategy", "quality"},
                                 {"max_cost_per_request", 0.25},
                                 {"fallback_enabled", false},
                                 {"max_fallbacks", 1},
                                 {"allowed_providers", QJsonArray{}}};
        QVERIFY(await(m_auth->client()->postRaw<QJsonObject>("v1/router/policy", policy)));
        await(m_view->loadNow());
        QCOMPARE(m_view->errorMessage(), QString());
        QVERIFY(m_view->lanesHeader().startsWith("execution lanes "));
        const QVariantList lanes = m_view->lanes();
        const auto fake = std::find_if(lanes.begin(), lanes.end(), [](const QVariant& row) {
            return row.toMap().value("name") == "Fake Lane";
        });
        QVERIFY(fake != lanes.end());
        QCOMPARE(fake->toMap().value("summary").toString(), "fake · API · READY");
        QCOMPARE(fake->toMap().value("details").toString(), "openai_chat · standard · 1 PARAMS");
        QCOMPARE(m_view->strategy(), "quality");
        QCOMPARE(m_view->maxCost(), "0.25");
        QCOMPARE(m_view->fallbackEnabled(), false);
        QCOMPARE(m_view->maxFallbacks(), 1);
        QCOMPARE(m_view->metrics().at(4).toMap().value("value").toString(), "1/1");
    }

    void aPreviewSavesThePolicyResettingAllowedProvidersThenShowsTheDecision() {
        signIn();
        const QJsonObject narrow{{"strategy", "balanced"},
                                 {"fallback_enabled", true},
                                 {"max_fallbacks", 2},
                                 {"allowed_providers", QJsonArray{"someone-else"}}};
        QVERIFY(await(m_auth->client()->postRaw<QJsonObject>("v1/router/policy", narrow)));
        m_view->setChannel("api");
        m_view->setPreviewToolCall(false);
        await(m_view->previewNow());
        QCOMPARE(m_view->errorMessage(), QString());
        QVERIFY(m_view->hasDecision());
        QCOMPARE(m_view->decisionCards().first().toMap().value("heading").toString(), "PRIMARY");
        QCOMPARE(m_view->decisionCards().first().toMap().value("name").toString(), "Fake Lane");
        QVERIFY(m_view->routedBecause().startsWith("Fake Lane (fake) was chosen for the code task"));
        QVERIFY(m_view->rejectedHeader().endsWith(" REJECTED LANE(S)"));
        const auto catalog = await(m_auth->client()->get<RouterCatalog>("v1/router/catalog"));
        QVERIFY(catalog);
        QCOMPARE(catalog->policy.allowed_providers, QStringList());
        QCOMPARE(m_proxy->requestsTo("/v1/router/policy").size(), 2);
        QCOMPARE(m_proxy->requests().last().path, QByteArray("/v1/router/catalog"));
    }

    void aPreviewWhosePolicySaveFailsNeverAsksForTheRoute() {
        signIn();
        m_view->setMaxCost("-1");
        await(m_view->previewNow());
        QVERIFY(m_view->errorMessage().startsWith("max_cost_per_request must be a number of at least 0"));
        QVERIFY(m_view->errorText().startsWith("MAX_COST_PER_REQUEST MUST BE"));
        QVERIFY(m_proxy->requestsTo("/v1/router/preview").isEmpty());
        QVERIFY(!m_view->isPreviewing());
    }

    void aFormThatFailsValidationSendsNothing() {
        signIn();
        m_view->setOutputTokens("-3");
        await(m_view->previewNow());
        QCOMPARE(m_view->errorMessage(), RoutingViewModel::tokensMessage);
        QVERIFY(m_proxy->requestsTo("/v1/router").isEmpty());
    }

    void budgetsOfZeroOrWordsAreRefusedAndAPositiveOneIsSet() {
        signIn();
        for (const QString& text : {QStringLiteral("0"), QStringLiteral("abc"), QStringLiteral("-5")}) {
            m_view->setBudgetLimit(text);
            await(m_view->saveBudgetNow());
            QCOMPARE(m_view->errorMessage(), RoutingViewModel::budgetMessage);
        }
        QVERIFY(m_proxy->requestsTo("/v1/router/budgets").isEmpty());
        m_view->setBudgetPeriod("weekly");
        m_view->setBudgetLimit("12.5");
        await(m_view->saveBudgetNow());
        QCOMPARE(m_view->errorMessage(), QString());
        const QVariantList rows = m_view->budgetRows();
        QCOMPARE(rows.size(), 1);
        QCOMPARE(rows.first().toMap().value("owner").toString(), "ACCOUNT · weekly");
        QCOMPARE(rows.first().toMap().value("amounts").toString(), "$0.0000 / $12.50");
    }

    void theLedgerShowsACompletionAndItsUsage() {
        signIn();
        GatewayCompletionInput input;
        input.task = "reason";
        input.input = "Plan it";
        input.model = "auto";
        input.max_output_tokens = 200;
        const auto answer = await(m_auth->client()->complete(input));
        QVERIFY2(answer, answer ? "" : qPrintable(answer.error().message));
        QCOMPARE(answer->output, "Routed answer.");
        QCOMPARE(answer->model, "fake-lane");
        await(m_view->loadNow());
        const QVariantMap row = m_view->generationRows().first().toMap();
        QCOMPARE(row.value("model").toString(), "fake-lane");
        QCOMPARE(row.value("succeeded").toBool(), true);
        QVERIFY(row.value("cost").toString().startsWith("$0.0"));
        QVERIFY(row.value("figures").toString().contains("MS · "));
        QVERIFY(m_view->metrics().first().toMap().value("value").toString().toInt() >= 1);
        QVERIFY(!m_view->usageRows().isEmpty());
    }
};

QTEST_GUILESS_MAIN(RoutingViewModelTest)
#include "RoutingViewModelTest.moc"
