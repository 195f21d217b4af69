#include "QuillmereDesktop/Auth/KeychainSecretStore.h"
#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/routing/ProviderConfigurationStore.h"
#include "support/Await.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>
#include <QUuid>

// Runs twice under CTest: once against a real Secret Service on a private session bus,
// once with no bus at all. KEYRING_EXPECTED says which.
class KeychainSecretStoreTest : public QObject {
    Q_OBJECT

    static bool keyringExpected() { return qgetenv("KEYRING_EXPECTED") == "1"; }

private slots:
    void serviceName() { QCOMPARE(KeychainSecretStore::serviceName, "dev.quillmere.desktop"); }

    void storeReadAndDeleteATokenUnderItsAccount() {
        if (!keyringExpected())
            QSKIP("runs in the keyring session only");
        KeychainSecretStore store;
        const QString account = AuthStore::tokenAccount("http://127.0.0.1:8787/");
        const QString token = QUuid::createUuid().toString(QUuid::WithoutBraces);
        QVERIFY(!await(store.get(account)).has_value());
        QVERIFY(await(store.set(token, account)));
        QCOMPARE(await(store.get(account)), token);
        QVERIFY(await(store.set(token + "-2", account)));
        QCOMPARE(await(store.get(account)), token + "-2");
        QVERIFY(await(store.remove(account)));
        QVERIFY(!await(store.get(account)).has_value());
        // Nothing left to remove counts as removed.
        QVERIFY(await(store.remove(account)));
    }

    void providerKeysLiveInTheKeyringOnly() {
        if (!keyringExpected())
            QSKIP("runs in the keyring session only");
        QTemporaryDir folder;
        KeychainSecretStore secrets;
        ProviderConfigurationStore store(folder.filePath("Quillmere"), secrets);
        ProviderProfile lane;
        lane.id = "keyring-lane";
        lane.provider = "acme";
        lane.display_name = "Acme";
        lane.upstream_model = "acme-1";
        lane.context_window = 1000;
        lane.endpoint = "https://api.acme.test/v1";
        lane.api_key_env = "ACME_KEYRING_KEY";
        const QString key = QUuid::createUuid().toString(QUuid::WithoutBraces);
        QVERIFY(await(store.save(lane, key)).ok());
        QCOMPARE(await(secrets.get("provider_credential_keyring-lane")), key);
        const auto environment = await(store.managedInventoryEnvironment());
        QCOMPARE(environment.value().at("ACME_KEYRING_KEY"), key);
        QFile file(folder.filePath("Quillmere/providers.json"));
        QVERIFY(file.open(QIODevice::ReadOnly));
        QVERIFY(!file.readAll().contains(key.toUtf8()));
        QVERIFY(await(store.remove(lane)).ok());
        QVERIFY(!await(secrets.get("provider_credential_keyring-lane")).has_value());
    }

    void accountsAndServicesAreSeparate() {
        if (!keyringExpected())
            QSKIP("runs in the keyring session only");
        KeychainSecretStore mine;
        KeychainSecretStore other("dev.quillmere.other");
        QVERIFY(await(mine.set("a", "one")));
        QVERIFY(!await(mine.get("two")).has_value());
        QVERIFY(!await(other.get("one")).has_value());
        QVERIFY(await(mine.remove("one")));
    }

    void aMissingKeyringReadsAsAbsence() {
        if (keyringExpected())
            QSKIP("runs without a keyring only");
        KeychainSecretStore store;
        QVERIFY(!await(store.set("token", "account")));
        QVERIFY(!await(store.get("account")).has_value());
        QVERIFY(!await(store.remove("account")));
    }
};

QTEST_GUILESS_MAIN(KeychainSecretStoreTest)
#include "KeychainSecretStoreTest.moc"
