#include "QuillmereDesktop/Auth/KeychainSecretStore.h"
#include "QuillmereDesktop/Auth/AuthStore.h"
#include "support/Await.h"

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
        await(store.remove(account));
        QVERIFY(!await(store.get(account)).has_value());
    }

    void accountsAndServicesAreSeparate() {
        if (!keyringExpected())
            QSKIP("runs in the keyring session only");
        KeychainSecretStore mine;
        KeychainSecretStore other("dev.quillmere.other");
        QVERIFY(await(mine.set("a", "one")));
        QVERIFY(!await(mine.get("two")).has_value());
        QVERIFY(!await(other.get("one")).has_value());
        await(mine.remove("one"));
    }

    void aMissingKeyringReadsAsAbsence() {
        if (keyringExpected())
            QSKIP("runs without a keyring only");
        KeychainSecretStore store;
        QVERIFY(!await(store.set("token", "account")));
        QVERIFY(!await(store.get("account")).has_value());
        await(store.remove("account"));
    }
};

QTEST_GUILESS_MAIN(KeychainSecretStoreTest)
#include "KeychainSecretStoreTest.moc"
