#include "QuillmereDesktop/routing/ProviderSetupViewModel.h"
#include "QuillmereDesktop/common/MemoryPreferencesStore.h"
#include "fakes/FakeSecretStore.h"
#include "support/Await.h"
#include "support/FakeProviderProcess.h"
#include "support/RelayFixture.h"
#include "support/ScriptedHttpServer.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace std::chrono_literals;

namespace {

ProviderProfile storedLane(const QString& id) {
    ProviderProfile profile;
    profile.id = id;
    profile.routing_model = "acme/" + id;
    profile.service_tier = "flex";
    profile.provider = "acme";
    profile.display_name = "Acme " + id;
    profile.upstream_model = "acme-1";
    profile.capabilities = {"tools", "reasoning"};
    profile.context_window = 64000;
    profile.latency_ms = 700;
    profile.input_cost_per_million = 0.25;
    profile.output_cost_per_million = 2;
    profile.quality = 88;
    profile.protocol_name = GatewayProtocol::anthropicMessages;
    profile.endpoint = "https://api.acme.test/v1/messages";
    profile.api_key_env = "ACME_EXISTING_KEY";
    profile.data_policy = "zdr";
    profile.supported_parameters = {"stream", "tools"};
    return profile;
}

} // namespace

class ProviderSetupViewModelTest : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_folder;
    FakeSecretStore m_secrets;
    MemoryPreferencesStore m_prefs;

    QString support() const { return m_folder->filePath("Quillmere"); }

    // The real relay, managed by this process, on a free port with the store's inventory.
    RelayProcessConfig managedConfig(ProviderConfigurationStore& store) const {
        RelayProcessConfig config = RelayProcessConfig::system();
        config.supportDirectory = support();
        config.port = RelayFixture::freeLoopbackPort();
        config.systemInterpreters = {RelayFixture::python()};
        config.inventoryEnvironment = [&store] { return store.managedInventoryEnvironment(); };
        return config;
    }

    std::unique_ptr<AuthStore> authFor(const QUrl& url, RelayProcessManager* manager) {
        m_prefs = MemoryPreferencesStore();
        m_prefs.setString("relayURL", url.toString());
        AuthStoreConfig config;
        config.bootstrapOnStart = false;
        return std::make_unique<AuthStore>(m_prefs, m_secrets, manager, config);
    }

private slots:
    void init() {
        m_folder = std::make_unique<QTemporaryDir>();
        m_secrets = FakeSecretStore();
    }

    // The form.

    void aNewLaneStartsFromTheDefaults() {
        ProviderConfigurationStore store(support(), m_secrets);
        ProviderEditorViewModel form(&store, std::nullopt);
        QVERIFY(form.isNew());
        QCOMPARE(form.serviceTier(), "default");
        QCOMPARE(form.protocolName(), "openai_responses");
        QCOMPARE(form.endpoint(), "https://api.openai.com/v1/responses");
        QCOMPARE(form.contextWindow(), "128000");
        QCOMPARE(form.latency(), "1000");
        QVERIFY(form.inputCost().isEmpty());
        QCOMPARE(form.quality(), ProviderEditorViewModel::defaultQuality);
        QCOMPARE(form.capabilities(), (QStringList{"reasoning", "long_context"}));
        QVERIFY(!form.isZDR());
        QCOMPARE(form.keyHint(), "required");
        QCOMPARE(ProviderEditorViewModel::capabilityOptions(),
                 (QStringList{"reasoning", "long_context", "structured_output", "tools", "vision", "audio"}));
    }

    void aChangeOfProtocolPutsItsStandardEndpoint() {
        ProviderConfigurationStore store(support(), m_secrets);
        ProviderEditorViewModel form(&store, std::nullopt);
        form.setEndpoint("https://typed.example.com/v1/responses");
        form.setProtocolName("openai_chat");
        QCOMPARE(form.endpoint(), "https://api.openai.com/v1/chat/completions");
        form.setProtocolName("anthropic_messages");
        QCOMPARE(form.endpoint(), "https://api.anthropic.com/v1/messages");
        QCOMPARE(QUrl(form.endpoint()).path(), "/v1/messages");
        // Choosing the same protocol again leaves a typed endpoint alone.
        form.setEndpoint("https://typed.example.com/v1/messages");
        form.setProtocolName("anthropic_messages");
        QCOMPARE(form.endpoint(), "https://typed.example.com/v1/messages");
    }

    void aBlankPriceIsANumericProblem() {
        ProviderConfigurationStore store(support(), m_secrets);
        ProviderEditorViewModel form(&store, std::nullopt);
        // Everything else is missing too, yet the numbers are judged first.
        QSignalSpy saved(&form, &ProviderEditorViewModel::saved);
        await(form.saveNow());
        QCOMPARE(form.errorMessage(), "Context, latency, and prices must be numeric.");
        form.setInputCost("1");
        form.setOutputCost("2");
        form.setLatency("fast");
        await(form.saveNow());
        QCOMPARE(form.errorMessage(), ProviderEditorViewModel::numericMessage);
        form.setLatency("900");
        await(form.saveNow());
        QCOMPARE(form.errorMessage(), ProviderConfigurationStore::requiredMessage);
        QCOMPARE(saved.count(), 0);
        QVERIFY(store.profiles().isEmpty());
    }

    void anEditKeepsTheVariableAndANewLaneGetsAFreshOne() {
        ProviderConfigurationStore store(support(), m_secrets);
        QVERIFY(await(store.save(storedLane("edited"), QStringLiteral("sk-existing"))).ok());
        ProviderEditorViewModel edit(&store, store.profiles().first());
        QCOMPARE(edit.credentialEnvironment(), "ACME_EXISTING_KEY");
        QCOMPARE(edit.keyHint(), "leave blank to keep existing");
        QCOMPARE(edit.routingModel(), "acme/edited");
        QCOMPARE(edit.serviceTier(), "flex");
        QCOMPARE(edit.inputCost(), "0.25");
        QVERIFY(edit.isZDR());
        edit.setDisplayName("  Renamed  ");
        QSignalSpy saved(&edit, &ProviderEditorViewModel::saved);
        await(edit.saveNow());
        QCOMPARE(edit.errorMessage(), QString());
        QCOMPARE(saved.count(), 1);
        const ProviderProfile after = store.profiles().first();
        QCOMPARE(after.api_key_env, "ACME_EXISTING_KEY");
        QCOMPARE(after.display_name, "Renamed");
        QCOMPARE(after.capabilities, (QStringList{"reasoning", "tools"}));
        QCOMPARE(after.supported_parameters, (QStringList{"stream", "tools"}));
        QCOMPARE(after.data_policy, "zdr");
        QCOMPARE(m_secrets.values.value("provider_credential_edited"), "sk-existing");

        const QRegularExpression fresh(
            "^QUILLMERE_PROVIDER_[0-9A-F]{8}_[0-9A-F]{4}_[0-9A-F]{4}_[0-9A-F]{4}_[0-9A-F]{12}_KEY$");
        ProviderEditorViewModel first(&store, std::nullopt);
        ProviderEditorViewModel second(&store, std::nullopt);
        QVERIFY(fresh.match(first.credentialEnvironment()).hasMatch());
        QVERIFY(first.credentialEnvironment() != second.credentialEnvironment());
        ProviderProfile probe = storedLane("x");
        probe.api_key_env = first.credentialEnvironment();
        QVERIFY(ProviderConfigurationStore::validate(probe).ok());
    }

    void aFailedSaveKeepsTheFormOpen() {
        ProviderConfigurationStore store(support(), m_secrets);
        ProviderSetupViewModel setup;
        setup.setStore(&store);
        setup.addProvider();
        ProviderEditorViewModel* form = setup.editor();
        QVERIFY(form);
        form->setModelID("lane");
        form->setRoutingModel("acme/lane");
        form->setProvider("acme");
        form->setDisplayName("Lane");
        form->setUpstreamModel("acme-1");
        form->setInputCost("1");
        form->setOutputCost("2");
        await(form->saveNow());
        QCOMPARE(form->errorMessage(), ProviderConfigurationStore::keyRequiredMessage);
        QCOMPARE(setup.editor(), form);
        QVERIFY(store.profiles().isEmpty());
    }

    // The list.

    void probeAndCardTexts() {
        ProviderProbeResult result;
        result.latency_ms = 12;
        result.cost_usd = 0.000004;
        QCOMPARE(ProviderSetupViewModel::probeText(result), "Connected · 12ms · $0.000004");
        QCOMPARE(ProviderSetupViewModel::sizeText(storedLane("a")), "64000 CONTEXT · $0.250 / $2.000 PER 1M");
    }

    void cardsShowEachLaneAndWhetherItsKeyIsStored() {
        ProviderConfigurationStore store(support(), m_secrets);
        ProviderSetupViewModel setup;
        setup.setStore(&store);
        QVERIFY(!setup.hasProfiles());
        QVERIFY(await(store.save(storedLane("a"), QStringLiteral("sk-a"))).ok());
        QVERIFY(await(store.save(storedLane("b"), QStringLiteral("sk-b"))).ok());
        m_secrets.values.remove("provider_credential_b");
        setup.setStore(nullptr);
        setup.setStore(&store);
        QTRY_VERIFY(!setup.profileCards().isEmpty() &&
                    setup.profileCards().first().toMap().value("keyStored").toBool());
        const QVariantMap a = setup.profileCards()[0].toMap();
        const QVariantMap b = setup.profileCards()[1].toMap();
        QCOMPARE(a["displayName"].toString(), "Acme a");
        QCOMPARE(a["protocolName"].toString(), "anthropic_messages");
        QVERIFY(a["isZDR"].toBool());
        QVERIFY(!b["keyStored"].toBool());
        QCOMPARE(
            ProviderSetupViewModel::labels()["empty"].toString(),
            "NO API MODELS CONFIGURED. CLAUDE AND CODEX SUBSCRIPTION CLIS STILL WORK THROUGH THE TERMINAL "
            "AND LOCAL ORCHESTRATOR.");
    }

    // Applying.

    void aRelayThisAppDidNotStartIsNotRestarted() {
        ProviderConfigurationStore store(support(), m_secrets);
        ScriptedHttpServer relay;
        relay.replyAlways(200, "{}");
        RelayProcessManager manager(managedConfig(store));
        auto auth = authFor(relay.url(), &manager);
        ProviderSetupViewModel setup;
        setup.setAuth(auth.get());
        setup.setStore(&store);
        await(setup.applyNow());
        QCOMPARE(setup.messageText(), RelayProcessManager::notOwnedMessage);
        QVERIFY(!setup.isApplying());
        QVERIFY(relay.requests().isEmpty());
    }

    void theThirtiethFailedPollEndsTheWait() {
        QCOMPARE(ProviderSetupViewModel::defaultHealthPolls, 30);
        QCOMPARE(ProviderSetupViewModel::defaultHealthPollInterval, 150ms);
        ProviderConfigurationStore store(support(), m_secrets);
        RelayProcessManager manager(managedConfig(store));
        QVERIFY(await(manager.start()).ok());
        // The app's address answers, but never as ready.
        ScriptedHttpServer unready;
        unready.replyAlways(503, R"({"error": {"message": "starting"}})");
        auto auth = authFor(unready.url(), &manager);
        ProviderSetupViewModel setup;
        setup.setAuth(auth.get());
        setup.setStore(&store);
        setup.setHealthPolling(ProviderSetupViewModel::defaultHealthPolls, 1ms);
        const qint64 before = *manager.processId();
        await(setup.applyNow());
        QCOMPARE(setup.messageText(), "The local relay did not become ready after restart.");
        QCOMPARE(unready.requests().size(), 30);
        for (const auto& request : unready.requests())
            QCOMPARE(request.path, QByteArray("/v1/health"));
        QVERIFY(!setup.isApplying());
        QVERIFY(*manager.processId() != before);
        await(manager.stop());
    }

    void addProbeAndDeleteALaneOnTheManagedRelay() {
        FakeProviderProcess fake(QStringLiteral("OK"));
        QVERIFY(!fake.url().isEmpty());
        ProviderConfigurationStore store(support(), m_secrets);
        RelayProcessConfig config = managedConfig(store);
        RelayProcessManager manager(config);
        QVERIFY(await(manager.start()).ok());
        const QUrl url(QStringLiteral("http://127.0.0.1:%1/").arg(config.port));
        auto auth = authFor(url, &manager);
        QVERIFY(waitUntil([&] { return await(auth->client()->isReachable()); }, 20000));
        await(auth->bootstrap());
        QCOMPARE(auth->state(), AuthStore::State::signedIn);

        ProviderSetupViewModel setup;
        setup.setAuth(auth.get());
        setup.setStore(&store);
        setup.setHealthPolling(ProviderSetupViewModel::defaultHealthPolls, 100ms);
        setup.addProvider();
        ProviderEditorViewModel* form = setup.editor();
        form->setModelID(" local-fake ");
        form->setRoutingModel("fake/model");
        form->setProvider("fake");
        form->setDisplayName("Local Fake");
        form->setUpstreamModel("fake-model");
        form->setProtocolName("openai_chat");
        form->setEndpoint(fake.url().toString() + "/v1");
        form->setInputCost("1");
        form->setOutputCost("4");
        form->setApiKey(FakeProviderProcess::key);
        QSignalSpy saved(&setup, &ProviderSetupViewModel::editorSaved);
        form->save();
        QTRY_COMPARE_WITH_TIMEOUT(saved.count(), 1, 20000);
        QVERIFY(!setup.editor());
        QTRY_VERIFY_WITH_TIMEOUT(!setup.isApplying(), 20000);
        QCOMPARE(setup.messageText(), "Provider inventory applied to the managed relay.");

        // The restarted relay has the lane, ready, with the key from the secret store.
        const auto catalog = await(auth->client()->get<RouterCatalog>("v1/router/catalog"));
        QVERIFY(catalog.ok());
        const auto lane = std::find_if(catalog->models.begin(), catalog->models.end(),
                                       [](const RouterModel& m) { return m.id == "local-fake"; });
        QVERIFY(lane != catalog->models.end());
        QVERIFY(lane->available);

        await(setup.testNow("local-fake"));
        const QString connected = setup.probeMessages().at("local-fake");
        QVERIFY2(QRegularExpression(R"(^Connected · \d+ms · \$\d+\.\d{6}$)").match(connected).hasMatch(),
                 qPrintable(connected));
        QVERIFY(!setup.probingModel());
        QCOMPARE(fake.requests().size(), 1);

        // A provider that fails shows the relay's words for it.
        QVERIFY(fake.script(QJsonArray{QJsonObject{{"status", 503}, {"text", "down"}}}));
        await(setup.testNow("local-fake"));
        const QString failed = setup.probeMessages().at("local-fake");
        QVERIFY2(failed.contains("probe failed"), qPrintable(failed));

        // Deleting removes the lane and its key, and the relay forgets it after its restart.
        await(setup.deleteNow("local-fake"));
        QCOMPARE(setup.messageText(), "Provider inventory applied to the managed relay.");
        QVERIFY(setup.probeMessages().empty());
        QVERIFY(!m_secrets.values.contains("provider_credential_local-fake"));
        const auto after = await(auth->client()->get<RouterCatalog>("v1/router/catalog"));
        QVERIFY(after.ok());
        QVERIFY(std::none_of(after->models.begin(), after->models.end(),
                             [](const RouterModel& m) { return m.id == "local-fake"; }));
        await(manager.stop());
    }
};

QTEST_MAIN(ProviderSetupViewModelTest)
#include "ProviderSetupViewModelTest.moc"
