#include "gui/AppHarness.h"
#include "support/Await.h"
#include "support/FakeProviderProcess.h"
#include "support/RelayFixture.h"

#include <QQuickItem>
#include <QTest>

#include <algorithm>

// The provider and gateway sheets, reached from the settings sheet of the real window,
// against the real relay.
class ProviderSheetsGuiTest : public QObject {
    Q_OBJECT

    static QQuickItem* inSheet(QQuickWindow* sheet, const char* name) {
        return AppHarness::inSheet(sheet, name);
    }

    static void press(QQuickWindow* sheet, const char* name) {
        QQuickItem* button = inSheet(sheet, name);
        QVERIFY2(button, name);
        QMetaObject::invokeMethod(button, "clicked");
    }

    // Scrolls a sheet's screen to its end, for the picture of what is below the fold.
    static void scrollToEnd(QQuickWindow* sheet, const char* viewName) {
        QQuickItem* view = inSheet(sheet, viewName);
        QVERIFY(view);
        auto* flickable = view->property("contentItem").value<QQuickItem*>();
        QVERIFY(flickable);
        const qreal end = flickable->property("contentHeight").toReal() - flickable->height();
        flickable->setProperty("contentY", std::max(0.0, end));
    }

    static void closeSheet(QQuickWindow* sheet) {
        press(sheet, "sheetClose");
        QTRY_VERIFY(!sheet->isVisible());
    }

    // Opens the settings sheet and, from it, the sheet behind one of its buttons.
    static QQuickWindow* openFromSettings(AppHarness& harness, const char* button, const char* sheetName) {
        if (!harness.click("⚙"))
            return nullptr;
        QQuickWindow* settings = harness.sheet("settingsSheet");
        if (!settings || !QTest::qWaitFor([&] { return settings->isVisible(); }))
            return nullptr;
        QQuickItem* open = inSheet(settings, button);
        if (!open)
            return nullptr;
        QMetaObject::invokeMethod(open, "clicked");
        QQuickWindow* sheet = harness.sheet(QString::fromLatin1(sheetName));
        if (!sheet || !QTest::qWaitFor([&] { return sheet->isVisible(); }))
            return nullptr;
        return sheet;
    }

private slots:
    void gatewayKeysFromSettings() {
        FakeProviderProcess fake(QStringLiteral("Gateway answer."));
        QVERIFY(!fake.url().isEmpty());
        RelayFixture relay(RelayFixture::Options{true, fake.inventory(), {}});
        QVERIFY(relay.start());
        AppHarness harness({relay.url(), false});
        QVERIFY(harness.load());
        QTRY_VERIFY_WITH_TIMEOUT(harness.showsText("ONLINE"), 10000);

        QQuickWindow* sheet = openFromSettings(harness, "manageGatewayKeys", "gatewayAccessSheet");
        QVERIFY(sheet);
        AppHarness::screenshotOf(harness.sheet("settingsSheet"), "settings");
        QCOMPARE(sheet->transientParent(), harness.window());
        QTRY_VERIFY_WITH_TIMEOUT(AppHarness::textsIn(sheet).contains("NO GATEWAY KEYS YET"), 10000);
        QStringList shown = AppHarness::textsIn(sheet);
        QVERIFY(shown.contains("api gateway access"));
        QVERIFY(shown.contains("BASE URL"));
        QVERIFY(shown.contains(relay.url().toString() + "v1"));
        QVERIFY(shown.contains("keys 0"));
        QTest::qWait(200);
        AppHarness::screenshotOf(sheet, "gateway-empty");

        press(sheet, "guardrailsToggle");
        QTRY_VERIFY(AppHarness::textsIn(sheet).contains("ELIGIBILITY PREVIEW · 1 OF 1 API LANES"));
        press(sheet, "addFilter");
        QTRY_VERIFY(AppHarness::textsIn(sheet).contains("REGEX PATTERN"));
        AppHarness::screenshotOf(sheet, "gateway-guardrails");
        // An empty filter is refused before anything is sent.
        press(sheet, "createKey");
        QTRY_VERIFY(
            AppHarness::textsIn(sheet).contains("Every content filter needs a name and regex pattern."));
        QQuickItem* view = inSheet(sheet, "gatewayAccessView");
        QObject* model = view->findChild<QObject*>("gatewayAccessViewModel");
        QVERIFY(model);
        QMetaObject::invokeMethod(model, "removeFilter", Q_ARG(int, 0));

        press(sheet, "createKey");
        QTRY_VERIFY_WITH_TIMEOUT(AppHarness::textsIn(sheet).contains("NEW KEY"), 10000);
        QVERIFY(AppHarness::textsIn(sheet).contains("THE FULL SECRET WILL NOT BE SHOWN AGAIN."));
        const QString secret = inSheet(sheet, "secretValue")->property("text").toString();
        QVERIFY(secret.startsWith("qmk_"));
        QVERIFY(AppHarness::textsIn(sheet).contains(secret));
        QTRY_VERIFY(AppHarness::textsIn(sheet).contains("keys 1"));
        // No picture here: even a test relay's key stays off the disk.

        // Closing the screen drops the secret: reopened, the key is listed without it.
        closeSheet(sheet);
        harness.root().setShowGatewayAccess(true);
        QTRY_VERIFY(sheet->isVisible());
        QTRY_VERIFY_WITH_TIMEOUT(AppHarness::textsIn(sheet).contains("keys 1"), 10000);
        shown = AppHarness::textsIn(sheet);
        QVERIFY(!shown.contains("NEW KEY"));
        QVERIFY(
            std::none_of(shown.begin(), shown.end(), [&](const QString& t) { return t.contains(secret); }));
        QVERIFY(shown.contains("$0.0000 LIFETIME · NO KEY LIMIT"));
        QVERIFY(shown.contains("60 RPM · 100000 TPM"));
        QVERIFY(shown.contains("AUDIT · 0 BLOCK · 0 REDACT"));

        // Revoke asks first, then the key shows as revoked.
        model = inSheet(sheet, "gatewayAccessView")->findChild<QObject*>("gatewayAccessViewModel");
        QVERIFY(model);
        const QString keyId = model->property("keyRows").toList().first().toMap()["id"].toString();
        QMetaObject::invokeMethod(model, "requestRevoke", Q_ARG(QString, keyId));
        QTRY_VERIFY(
            AppHarness::textsIn(sheet).contains("Clients using this key will lose access immediately."));
        AppHarness::screenshotOf(sheet, "gateway-revoke");
        QVERIFY(AppHarness::textsIn(sheet).contains("Revoke API key?"));
        press(sheet, "confirmRevoke");
        QTRY_VERIFY_WITH_TIMEOUT(AppHarness::textsIn(sheet).contains("REVOKED"), 10000);
        scrollToEnd(sheet, "gatewayAccessView");
        QTest::qWait(100);
        AppHarness::screenshotOf(sheet, "gateway-endpoint");
        closeSheet(sheet);
    }

    void providerSetupFromSettings() {
        RelayFixture relay;
        QVERIFY(relay.start());
        AppHarness harness({relay.url(), false});
        QVERIFY(harness.load());
        QTRY_VERIFY_WITH_TIMEOUT(harness.showsText("ONLINE"), 10000);

        QQuickWindow* sheet = openFromSettings(harness, "configureProviders", "providerSetupSheet");
        QVERIFY(sheet);
        QTRY_VERIFY(AppHarness::textsIn(sheet).contains("ADD PROVIDER MODEL"));
        QStringList shown = AppHarness::textsIn(sheet);
        QVERIFY(shown.contains("api providers"));
        QVERIFY(shown.contains("KEYCHAIN SECRETS · RELAY-SIDE EXECUTION"));
        QVERIFY(
            shown.contains("NO API MODELS CONFIGURED. CLAUDE AND CODEX SUBSCRIPTION CLIS STILL WORK THROUGH "
                           "THE TERMINAL AND LOCAL ORCHESTRATOR."));
        QTest::qWait(200);
        AppHarness::screenshotOf(sheet, "providers-empty");

        press(sheet, "addProvider");
        QTRY_VERIFY(AppHarness::textsIn(sheet).contains("add provider model"));
        QObject* model = inSheet(sheet, "providerSetupView")->findChild<QObject*>("providerSetupViewModel");
        QVERIFY(model);
        auto* form = model->property("editor").value<QObject*>();
        QVERIFY(form);
        form->setProperty("modelID", "acme-fast");
        form->setProperty("routingModel", "acme/fast");
        form->setProperty("provider", "acme");
        form->setProperty("displayName", "Acme Fast");
        form->setProperty("upstreamModel", "fast-1");
        form->setProperty("protocolName", "anthropic_messages");
        form->setProperty("inputCost", "0.5");
        form->setProperty("outputCost", "2");
        form->setProperty("apiKey", "sk-gui-test");
        QTest::qWait(50);
        // The protocol's standard endpoint took the field's place.
        QCOMPARE(form->property("endpoint").toString(), "https://api.anthropic.com/v1/messages");
        AppHarness::screenshotOf(sheet, "provider-editor");
        press(sheet, "saveProvider");
        // This window's relay was not started by it, so applying says so and restarts nothing.
        QTRY_VERIFY_WITH_TIMEOUT(
            AppHarness::textsIn(sheet).contains(
                "This relay was not launched by Quillmere, so the app will not restart it."),
            10000);
        QTRY_VERIFY(AppHarness::textsIn(sheet).contains("KEY STORED"));
        shown = AppHarness::textsIn(sheet);
        QVERIFY(shown.contains("Acme Fast · acme"));
        QVERIFY(shown.contains("anthropic_messages · acme-fast"));
        QVERIFY(shown.contains("128000 CONTEXT · $0.500 / $2.000 PER 1M"));
        QVERIFY(shown.contains("TEST 1 TOKEN"));
        QCOMPARE(harness.secrets().values.value("provider_credential_acme-fast"), "sk-gui-test");
        AppHarness::screenshotOf(sheet, "providers-list");
        closeSheet(sheet);
    }
};

QTEST_MAIN(ProviderSheetsGuiTest)
#include "ProviderSheetsGuiTest.moc"
