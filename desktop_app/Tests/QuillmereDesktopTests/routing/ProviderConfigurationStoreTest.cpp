#include "QuillmereDesktop/routing/ProviderConfigurationStore.h"
#include "QuillmereDesktop/Auth/RelayClient.h"
#include "QuillmereDesktop/Auth/RelayProcessManager.h"
#include "QuillmereDesktop/routing/RouterRecords.h"
#include "fakes/FakeSecretStore.h"
#include "support/Await.h"
#include "support/RelayFixture.h"
#include "support/RelaySession.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

namespace {

ProviderProfile lane(const QString& id, const QString& variable = QStringLiteral("LANE_KEY")) {
    ProviderProfile profile;
    profile.id = id;
    profile.provider = QStringLiteral("acme");
    profile.display_name = QStringLiteral("Acme ") + id;
    profile.upstream_model = QStringLiteral("acme-model");
    profile.capabilities = {QStringLiteral("reasoning")};
    profile.context_window = 128000;
    profile.latency_ms = 1000;
    profile.input_cost_per_million = 1.5;
    profile.output_cost_per_million = 6;
    profile.quality = 80;
    profile.protocol_name = GatewayProtocol::openAIChat;
    profile.endpoint = QStringLiteral("https://api.acme.test/v1/chat/completions");
    profile.api_key_env = variable;
    profile.data_policy = QStringLiteral("standard");
    return profile;
}

QString messageOf(const ProviderProfile& profile) {
    const Result<void> valid = ProviderConfigurationStore::validate(profile);
    return valid ? QString() : valid.error().message;
}

} // namespace

class ProviderConfigurationStoreTest : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_folder;
    FakeSecretStore m_secrets;

    QString support() const { return m_folder->filePath(QStringLiteral("data/Quillmere")); }
    QString file() const { return QDir(support()).filePath(QStringLiteral("providers.json")); }
    void writeFile(const QByteArray& bytes) const {
        QDir().mkpath(support());
        QFile out(file());
        QVERIFY(out.open(QIODevice::WriteOnly));
        out.write(bytes);
    }
    // The real relay, managed by this process, on a free port with the store's inventory.
    RelayProcessConfig managedConfig(ProviderConfigurationStore& store) const {
        RelayProcessConfig config = RelayProcessConfig::system();
        config.supportDirectory = support();
        config.port = RelayFixture::freeLoopbackPort();
        config.systemInterpreters = {RelayFixture::python()};
        config.inventoryEnvironment = [&store] { return store.managedInventoryEnvironment(); };
        return config;
    }
    QByteArray readFile() const {
        QFile in(file());
        return in.open(QIODevice::ReadOnly) ? in.readAll() : QByteArray();
    }

private slots:
    void init() {
        m_folder = std::make_unique<QTemporaryDir>();
        m_secrets = FakeSecretStore();
    }

    // Validation.

    void eachRuleHasItsMessageInOrder() {
        ProviderProfile profile = lane("a");
        QCOMPARE(messageOf(profile), QString());
        profile.id = " \t\n";
        // Every later rule broken too: the first one wins.
        profile.service_tier = "turbo";
        profile.endpoint = "nonsense";
        profile.quality = 500;
        QCOMPARE(messageOf(profile), ProviderConfigurationStore::requiredMessage);
        profile.id = "a";
        QCOMPARE(messageOf(profile), ProviderConfigurationStore::tierMessage);
        profile.service_tier = "flex";
        QCOMPARE(messageOf(profile), ProviderConfigurationStore::endpointMessage);
        profile.endpoint = "https://api.acme.test/v1";
        QCOMPARE(messageOf(profile), ProviderConfigurationStore::qualityMessage);
        profile.quality = 0;
        profile.data_policy = "private";
        QCOMPARE(messageOf(profile), ProviderConfigurationStore::dataPolicyMessage);
        profile.data_policy = "zdr";
        QCOMPARE(messageOf(profile), QString());
    }

    void theTextsAreTheKnownSentences() {
        QCOMPARE(ProviderConfigurationStore::requiredMessage,
                 "Lane id, client model, provider, display name, and upstream model are required.");
        QCOMPARE(ProviderConfigurationStore::httpsMessage,
                 "Provider endpoints must use HTTPS unless they are loopback-only.");
        QCOMPARE(ProviderConfigurationStore::keyRefusedMessage,
                 "The system keyring refused the provider credential.");
        QCOMPARE(ProviderConfigurationStore::deleteRefusedMessage,
                 "The system keyring refused to delete the provider credential.");
    }

    void absentClientModelFallsBackToTheIdButABlankOneFails() {
        ProviderProfile profile = lane("a");
        profile.routing_model = std::nullopt;
        QCOMPARE(messageOf(profile), QString());
        profile.routing_model = "  ";
        QCOMPARE(messageOf(profile), ProviderConfigurationStore::requiredMessage);
        profile.routing_model = "acme/model";
        profile.upstream_model = "";
        QCOMPARE(messageOf(profile), ProviderConfigurationStore::requiredMessage);
    }

    void serviceTiers() {
        ProviderProfile profile = lane("a");
        for (const char* tier : {"default", "flex", "priority"}) {
            profile.service_tier = QString::fromLatin1(tier);
            QCOMPARE(messageOf(profile), QString());
        }
        profile.service_tier = "Default";
        QCOMPARE(messageOf(profile), ProviderConfigurationStore::tierMessage);
    }

    void endpoints_data() {
        QTest::addColumn<QString>("endpoint");
        QTest::addColumn<QString>("message");
        QTest::newRow("https anywhere") << "https://api.example.com/v1" << QString();
        QTest::newRow("http localhost") << "http://localhost:8080/v1" << QString();
        QTest::newRow("http LOCALHOST") << "HTTP://LOCALHOST:8080/v1" << QString();
        QTest::newRow("http 127.0.0.1") << "http://127.0.0.1:9/v1" << QString();
        QTest::newRow("http ::1") << "http://[::1]:9/v1" << QString();
        QTest::newRow("http other host")
            << "http://api.example.com/v1" << ProviderConfigurationStore::httpsMessage;
        QTest::newRow("http 127.0.0.2") << "http://127.0.0.2/v1" << ProviderConfigurationStore::httpsMessage;
        QTest::newRow("ftp") << "ftp://localhost/v1" << ProviderConfigurationStore::endpointMessage;
        QTest::newRow("no host") << "https:///v1" << ProviderConfigurationStore::endpointMessage;
        QTest::newRow("relative") << "/v1/messages" << ProviderConfigurationStore::endpointMessage;
    }

    void endpoints() {
        QFETCH(QString, endpoint);
        QFETCH(QString, message);
        ProviderProfile profile = lane("a");
        profile.endpoint = endpoint;
        QCOMPARE(messageOf(profile), message);
    }

    void credentialVariableNames_data() {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("valid");
        QTest::newRow("two characters") << "AB" << false;
        QTest::newRow("three characters") << "ABC" << true;
        QTest::newRow("128 characters") << ("A" + QString(127, QLatin1Char('B'))) << true;
        QTest::newRow("129 characters") << ("A" + QString(128, QLatin1Char('B'))) << false;
        QTest::newRow("digit first") << "1ABC" << false;
        QTest::newRow("lower case") << "abc_key" << false;
        QTest::newRow("trailing newline") << "ABC_KEY\n" << false;
        QTest::newRow("underscores and digits") << "Q_1_KEY" << true;
    }

    void credentialVariableNames() {
        QFETCH(QString, name);
        QFETCH(bool, valid);
        ProviderProfile profile = lane("a", name);
        QCOMPARE(messageOf(profile), valid ? QString() : ProviderConfigurationStore::environmentNameMessage);
    }

    void sizesPricesAndQuality() {
        ProviderProfile profile = lane("a");
        profile.context_window = 0;
        QCOMPARE(messageOf(profile), ProviderConfigurationStore::sizeMessage);
        profile.context_window = 1;
        profile.latency_ms = -1;
        QCOMPARE(messageOf(profile), ProviderConfigurationStore::sizeMessage);
        profile.latency_ms = 0;
        QCOMPARE(messageOf(profile), QString());
        profile.input_cost_per_million = -0.01;
        QCOMPARE(messageOf(profile), ProviderConfigurationStore::priceMessage);
        profile.input_cost_per_million = 0;
        profile.output_cost_per_million = std::numeric_limits<double>::infinity();
        QCOMPARE(messageOf(profile), ProviderConfigurationStore::priceMessage);
        profile.output_cost_per_million = std::numeric_limits<double>::quiet_NaN();
        QCOMPARE(messageOf(profile), ProviderConfigurationStore::priceMessage);
        profile.output_cost_per_million = 0;
        profile.quality = 101;
        QCOMPARE(messageOf(profile), ProviderConfigurationStore::qualityMessage);
        profile.quality = 100;
        QCOMPARE(messageOf(profile), QString());
        profile.quality = -1;
        QCOMPARE(messageOf(profile), ProviderConfigurationStore::qualityMessage);
    }

    // The file.

    void noFileMeansNoLanesAndNoVariables() {
        ProviderConfigurationStore store(support(), m_secrets);
        QVERIFY(store.profiles().isEmpty());
        QVERIFY(store.readProfiles().value().isEmpty());
        const auto environment = await(store.managedInventoryEnvironment());
        QVERIFY(environment.ok());
        QVERIFY(environment.value().empty());
    }

    void malformedFileIsSilentAtStartAndFailsAtLaunch() {
        writeFile("[{\"id\": \"a\",");
        ProviderConfigurationStore store(support(), m_secrets);
        QVERIFY(store.profiles().isEmpty());
        QVERIFY(!store.readProfiles().ok());
        const auto environment = await(store.managedInventoryEnvironment());
        QVERIFY(!environment.ok());
        QVERIFY(environment.error().message.startsWith("providers.json could not be read"));
    }

    void malformedFileStopsTheManagedRelayLaunch() {
        writeFile("{\"not\": \"an array\"}");
        ProviderConfigurationStore store(support(), m_secrets);
        const RelayProcessConfig config = managedConfig(store);
        RelayProcessManager manager(config);
        const Result<void> started = await(manager.start());
        QVERIFY(!started.ok());
        QVERIFY(started.error().message.startsWith("providers.json could not be read"));
        QVERIFY(!manager.ownsProcess());
    }

    void oneBadLaneOrADuplicateRejectsTheWholeFile() {
        QJsonArray lanes{wire::encode(lane("a")), wire::encode(lane("b"))};
        QJsonObject broken = lanes[1].toObject();
        broken["quality"] = 101;
        writeFile(QJsonDocument(QJsonArray{lanes[0], broken}).toJson());
        ProviderConfigurationStore store(support(), m_secrets);
        QVERIFY(store.profiles().isEmpty());
        QCOMPARE(store.readProfiles().error().message, ProviderConfigurationStore::qualityMessage);

        writeFile(QJsonDocument(QJsonArray{lanes[0], lanes[1], lanes[0]}).toJson());
        QCOMPARE(store.readProfiles().error().message, ProviderConfigurationStore::duplicateMessage);
    }

    void saveKeepsTheKeyOutOfTheFile() {
        ProviderConfigurationStore store(support(), m_secrets);
        QVERIFY(await(store.save(lane("b"), QStringLiteral("  sk-secret-b \n"))).ok());
        QVERIFY(await(store.save(lane("a"), QStringLiteral("sk-secret-a"))).ok());
        QCOMPARE(m_secrets.values.value("provider_credential_b"), "sk-secret-b");
        const QByteArray bytes = readFile();
        QVERIFY(!bytes.contains("sk-secret"));
        QVERIFY(bytes.contains("\"api_key_env\": \"LANE_KEY\""));
        // Pretty-printed, sorted keys, lanes sorted by id.
        QVERIFY(bytes.indexOf("\"api_key_env\"") < bytes.indexOf("\"available\""));
        QVERIFY(bytes.indexOf("\"id\": \"a\"") < bytes.indexOf("\"id\": \"b\""));
        QVERIFY(bytes.contains("\n    {"));
        QCOMPARE(QFile(file()).permissions() & (QFileDevice::ReadGroup | QFileDevice::ReadOther),
                 QFileDevice::Permissions());
        QCOMPARE(store.profiles().size(), 2);
        QCOMPARE(store.profiles().first().id, "a");
        // A second store reads the same lanes back.
        ProviderConfigurationStore again(support(), m_secrets);
        QCOMPARE(again.profiles(), store.profiles());
    }

    void firstSaveNeedsAKeyAndAnEditKeepsTheStoredOne() {
        ProviderConfigurationStore store(support(), m_secrets);
        QSignalSpy changed(&store, &ProviderConfigurationStore::profilesChanged);
        const Result<void> refused = await(store.save(lane("a"), std::nullopt));
        QCOMPARE(refused.error().message, ProviderConfigurationStore::keyRequiredMessage);
        QCOMPARE(await(store.save(lane("a"), QStringLiteral("   "))).error().message,
                 ProviderConfigurationStore::keyRequiredMessage);
        QVERIFY(!QFile::exists(file()));
        QCOMPARE(changed.count(), 0);

        QVERIFY(await(store.save(lane("a"), QStringLiteral("sk-first"))).ok());
        ProviderProfile edited = lane("a");
        edited.display_name = "Renamed";
        QVERIFY(await(store.save(edited, QString())).ok());
        QCOMPARE(m_secrets.values.value("provider_credential_a"), "sk-first");
        QCOMPARE(store.profiles().size(), 1);
        QCOMPARE(store.profiles().first().display_name, "Renamed");
        QCOMPARE(changed.count(), 2);
    }

    void aChangedIdIsASecondLane() {
        ProviderConfigurationStore store(support(), m_secrets);
        QVERIFY(await(store.save(lane("a"), QStringLiteral("sk-a"))).ok());
        ProviderProfile renamed = lane("a");
        renamed.id = "a2";
        QVERIFY(await(store.save(renamed, QStringLiteral("sk-a2"))).ok());
        QCOMPARE(store.profiles().size(), 2);
        QCOMPARE(store.readProfiles().value().size(), 2);
    }

    void aFailedSaveLeavesTheLanesAsTheyWere() {
        ProviderConfigurationStore store(support(), m_secrets);
        QVERIFY(await(store.save(lane("a"), QStringLiteral("sk-a"))).ok());
        const QByteArray before = readFile();
        ProviderProfile bad = lane("b");
        bad.quality = 101;
        QCOMPARE(await(store.save(bad, QStringLiteral("sk-b"))).error().message,
                 ProviderConfigurationStore::qualityMessage);
        QVERIFY(!m_secrets.values.contains("provider_credential_b"));
        m_secrets.available = false;
        QCOMPARE(await(store.save(lane("c"), QStringLiteral("sk-c"))).error().message,
                 ProviderConfigurationStore::keyRefusedMessage);
        QCOMPARE(readFile(), before);
        QCOMPARE(store.profiles().size(), 1);
    }

    void removeDeletesTheLaneAndItsKey() {
        ProviderConfigurationStore store(support(), m_secrets);
        QVERIFY(await(store.save(lane("a"), QStringLiteral("sk-a"))).ok());
        QVERIFY(await(store.save(lane("b"), QStringLiteral("sk-b"))).ok());
        m_secrets.refuseRemoval = true;
        QCOMPARE(await(store.remove(lane("a"))).error().message,
                 ProviderConfigurationStore::deleteRefusedMessage);
        QCOMPARE(store.profiles().size(), 2);
        m_secrets.refuseRemoval = false;
        QVERIFY(await(store.remove(lane("a"))).ok());
        QCOMPARE(store.profiles().size(), 1);
        QCOMPARE(store.readProfiles().value().first().id, "b");
        QVERIFY(!m_secrets.values.contains("provider_credential_a"));
        QVERIFY(await(store.hasStoredKey("b")));
        QVERIFY(!await(store.hasStoredKey("a")));
    }

    // The relay's launch variables.

    void launchVariablesCarryTheLanesAndTheirKeys() {
        ProviderConfigurationStore store(support(), m_secrets);
        QVERIFY(await(store.save(lane("a", "SHARED_KEY"), QStringLiteral("sk-a"))).ok());
        QVERIFY(await(store.save(lane("b", "SHARED_KEY"), QStringLiteral("sk-b"))).ok());
        QVERIFY(await(store.save(lane("c", "C_KEY"), QStringLiteral("sk-c"))).ok());
        // A lane whose key went missing adds no variable.
        m_secrets.values.remove("provider_credential_c");
        const auto environment = await(store.managedInventoryEnvironment());
        QVERIFY(environment.ok());
        const auto& variables = environment.value();
        QCOMPARE(variables.size(), size_t(2));
        // In file order, so the later lane wins a shared variable.
        QCOMPARE(variables.at("SHARED_KEY"), "sk-b");
        const QString json = variables.at("ROUTER_MODELS_JSON");
        QVERIFY(!json.contains('\n'));
        QVERIFY(!json.contains("sk-"));
        const QJsonArray lanes = QJsonDocument::fromJson(json.toUtf8()).array();
        QCOMPARE(lanes.size(), 3);
        QCOMPARE(lanes[2].toObject()["api_key_env"].toString(), "C_KEY");
        QCOMPARE(lanes[0].toObject()["protocol_name"].toString(), "openai_chat");
    }

    void launchReadsTheFileAfresh() {
        ProviderConfigurationStore store(support(), m_secrets);
        QVERIFY(await(store.save(lane("a"), QStringLiteral("sk-a"))).ok());
        // Edited behind the store's back: the launch sees the file, not the list in memory.
        writeFile("[]");
        const auto environment = await(store.managedInventoryEnvironment());
        QCOMPARE(environment.value().at("ROUTER_MODELS_JSON"), "[]");
        QCOMPARE(store.profiles().size(), 1);
    }

    void theManagedRelayStartsWithTheInventory() {
        ProviderConfigurationStore store(support(), m_secrets);
        ProviderProfile profile = lane("own-lane", "QUILLMERE_PROVIDER_TEST_KEY");
        profile.endpoint = "http://127.0.0.1:9/v1";
        QVERIFY(await(store.save(profile, QStringLiteral("sk-own"))).ok());

        const RelayProcessConfig config = managedConfig(store);
        RelayProcessManager manager(config);
        QVERIFY(await(manager.start()).ok());
        const QUrl url(QStringLiteral("http://127.0.0.1:%1/").arg(config.port));
        RelayClient anonymous(url, std::nullopt);
        QVERIFY(waitUntil([&] { return await(anonymous.isReachable()); }, 20000));
        const std::optional<QString> token = localSessionToken(url);
        QVERIFY(token);
        RelayClient client(url, token);
        const auto catalog = await(client.get<RouterCatalog>("v1/router/catalog"));
        QVERIFY2(catalog.ok(), qPrintable(catalog ? QString() : catalog.error().message));
        bool found = false;
        for (const RouterModel& model : catalog.value().models)
            if (model.id == "own-lane") {
                found = true;
                // Available only because the key reached the relay under its variable.
                QVERIFY(model.available);
            }
        QVERIFY(found);
        // The relay's own files never hold the key.
        for (const QString& name : QDir(support()).entryList(QDir::Files)) {
            QFile stored(QDir(support()).filePath(name));
            QVERIFY(stored.open(QIODevice::ReadOnly));
            QVERIFY2(!stored.readAll().contains("sk-own"), qPrintable(name));
        }
        await(manager.stop());
    }
};

QTEST_MAIN(ProviderConfigurationStoreTest)
#include "ProviderConfigurationStoreTest.moc"
