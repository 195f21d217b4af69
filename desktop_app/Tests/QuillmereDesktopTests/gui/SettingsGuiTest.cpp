#include "gui/AppHarness.h"
#include "support/Await.h"
#include "support/FakeMachine.h"
#include "support/RelayFixture.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QGuiApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QQuickItem>
#include <QTest>

#include <algorithm>

// The settings sheet and the onboarding sheet in the real window, against the real relay
// inspecting a machine without the CLIs, with pictures of both.
class SettingsGuiTest : public QObject {
    Q_OBJECT

    static void press(QQuickWindow* sheet, const char* name) {
        QQuickItem* control = AppHarness::inSheet(sheet, name);
        QVERIFY2(control, name);
        QMetaObject::invokeMethod(control, "clicked");
    }

    static void toggle(QQuickWindow* sheet, const char* name) {
        QQuickItem* control = AppHarness::inSheet(sheet, name);
        QVERIFY2(control, name);
        QMetaObject::invokeMethod(control, "toggle");
        QMetaObject::invokeMethod(control, "toggled");
    }

    static void scrollTo(QQuickWindow* sheet, bool end) {
        QQuickItem* view = AppHarness::inSheet(sheet, "settingsView");
        QVERIFY(view);
        auto* flickable = view->property("contentItem").value<QQuickItem*>();
        QVERIFY(flickable);
        const qreal bottom = flickable->property("contentHeight").toReal() - flickable->height();
        flickable->setProperty("contentY", end ? std::max(0.0, bottom) : 0.0);
    }

    static QQuickWindow* openSettings(AppHarness& harness) {
        if (!harness.click("⚙"))
            return nullptr;
        QQuickWindow* settings = harness.sheet("settingsSheet");
        if (!settings || !QTest::qWaitFor([&] { return settings->isVisible(); }))
            return nullptr;
        return settings;
    }

private slots:
    void onboardingAfterSignInAndSettingsEndToEnd() {
        FakeMachine machine;
        QVERIFY(machine.install(QStringLiteral("codex")));
        RelayFixture relay(machine.relayOptions());
        QVERIFY(relay.start());
        // The onboarding check waits long enough for the person to turn to the drawer first.
        AppHarness harness({relay.url(), false, true, std::chrono::milliseconds(2000)});
        QVERIFY(harness.load());
        QTRY_VERIFY_WITH_TIMEOUT(harness.showsText("ONLINE"), 10000);

        // The drawer opens by itself at sign-in; the person starts typing there.
        QQuickWindow* onboarding = harness.sheet("onboardingSheet");
        QVERIFY(onboarding);
        QTRY_VERIFY(harness.drawer().panel() && harness.drawer().panel()->isVisible());
        QWindow* drawer = harness.drawer().panel();
        QVERIFY(!onboarding->isVisible());
        drawer->requestActivate();
        QTRY_COMPARE(QGuiApplication::focusWindow(), drawer);

        // Neither CLI is ready: the onboarding sheet comes up by itself after sign-in, above
        // the drawer, which keeps the keys.
        QTRY_VERIFY_WITH_TIMEOUT(onboarding->isVisible(), 5000);
        QTest::qWait(300);
        QCOMPARE(QGuiApplication::focusWindow(), drawer);
        QCOMPARE(onboarding->transientParent(), harness.window());
        QTRY_VERIFY(AppHarness::textsIn(onboarding).contains("NOT CONNECTED"));
        QStringList shown = AppHarness::textsIn(onboarding);
        QCOMPARE(shown.first(), "connect your clis");
        for (const char* text : {"✕", "Claude Code", "Codex", "NOT INSTALLED", "NOT CONNECTED",
                                 "Open terminal", "REFRESH STATUS"})
            QVERIFY2(shown.contains(text), text);
        QVERIFY(shown.contains(
            "Quillmere reads your Claude Code and Codex usage directly from each CLI. Both run in "
            "the terminal drawer and log in the same way they would in any other terminal."));
        QTest::qWait(200);
        AppHarness::screenshotOf(onboarding, "onboarding");
        // Signing in elsewhere shows on the next refresh; the sheet stays open.
        QVERIFY(machine.signInCodex());
        press(onboarding, "refreshStatus");
        QTRY_COMPARE(AppHarness::textsIn(onboarding).count("CONNECTED"), 1);
        QVERIFY(machine.install(QStringLiteral("claude")) && machine.signInClaude());
        // Codex's own session log of today, which the relay reads for the usage rows.
        const QString now = QDateTime::currentDateTimeUtc().toString(Qt::ISODate);
        QByteArray log;
        for (const int tokens : {1000, 500}) {
            const QJsonObject message{{"type", "user_message"}, {"message", "go"}};
            const QJsonObject count{
                {"type", "token_count"},
                {"info", QJsonObject{{"last_token_usage", QJsonObject{{"total_tokens", tokens}}}}}};
            for (const QJsonObject& payload : {message, count})
                log += QJsonDocument(
                           QJsonObject{{"timestamp", now}, {"type", "event_msg"}, {"payload", payload}})
                           .toJson(QJsonDocument::Compact) +
                       '\n';
        }
        QVERIFY(machine.write(QStringLiteral(".codex/sessions/rollout-today.jsonl"), log));
        press(onboarding, "refreshStatus");
        QTRY_COMPARE(AppHarness::textsIn(onboarding).count("CONNECTED"), 2);
        QVERIFY(onboarding->isVisible());
        press(onboarding, "onboardingClose");
        QTRY_VERIFY(!onboarding->isVisible());
        QVERIFY(!harness.root().showOnboarding());
        // Codex's tokens today stand beside Claude's on the home screen.
        QTRY_VERIFY(harness.showsText("1500 TOKENS · 2 MSGS"));
        QVERIFY(harness.showsText("CODEX"));
        QVERIFY(harness.showsText("CLAUDE"));
        QTest::qWait(200);
        harness.screenshot("home-usage");

        // Settings: every section, the relay's schedule loaded into its controls.
        QQuickWindow* settings = openSettings(harness);
        QVERIFY(settings);
        QCOMPARE(settings->transientParent(), harness.window());
        QQuickItem* picker = AppHarness::inSheet(settings, "improveCadencePicker");
        QVERIFY(picker);
        QTRY_COMPARE(picker->property("displayText").toString(), "once a day");
        shown = AppHarness::textsIn(settings);
        for (const char* text :
             {"settings", "relay", "relay.env", "Open Configuration Folder", "Configure API Providers…",
              "Manage Gateway API Keys…", "Manage Agent Presets…", "interrupt queue", "Use demo queue data",
              "snapshot base url", "token", "Reconnect", "window", "Always on top", "Desktop notifications",
              "improve loop", "Read new transcript automatically"})
            QVERIFY2(shown.contains(text), text);
        // The classifiers console opens from here.
        QVERIFY(shown.contains("Manage Usage Classifiers…"));
        QQuickItem* classifiers = AppHarness::inSheet(settings, "manageClassifiers");
        QVERIFY(classifiers);
        QVERIFY(!harness.root().showClassifiers());
        QMetaObject::invokeMethod(classifiers, "clicked");
        QTRY_VERIFY(harness.root().showClassifiers());
        harness.root().setShowClassifiers(false);
        QTest::qWait(200);
        AppHarness::screenshotOf(settings, "settings-top");

        // The schedule goes to the relay and comes back in the controls.
        toggle(settings, "improveAutomaticToggle");
        QQuickItem* automatic = AppHarness::inSheet(settings, "improveAutomaticToggle");
        QTRY_VERIFY(automatic->property("enabled").toBool());
        QTRY_VERIFY(automatic->property("checked").toBool());

        // Demo mode hides the hosted relay's fields.
        toggle(settings, "demoToggle");
        QVERIFY(harness.app().useMock());
        QTRY_VERIFY(!AppHarness::textsIn(settings).contains("snapshot base url"));
        toggle(settings, "demoToggle");
        QVERIFY(!harness.app().useMock());
        QTRY_VERIFY(AppHarness::textsIn(settings).contains("snapshot base url"));

        scrollTo(settings, true);
        QTest::qWait(200);
        shown = AppHarness::textsIn(settings);
        for (const char* text : {"Connect CLIs", "terminal working directory", "Choose Folder…", "Sign out"})
            QVERIFY2(shown.contains(text), text);
        QVERIFY(shown.contains(
            "Where the terminal drawer's shells start, so Claude Code/Codex aren't trusted with "
            "your whole home folder by default."));
        AppHarness::screenshotOf(settings, "settings-bottom");

        // "Choose Folder…" opens the folder panel at the present folder; closing it without a
        // choice changes nothing, a chosen folder is made and used.
        QQuickItem* settingsView = AppHarness::inSheet(settings, "settingsView");
        QVERIFY(settingsView);
        QObject* dialog = settingsView->findChild<QObject*>("workingDirectoryDialog");
        QVERIFY(dialog);
        const QString before = harness.app().terminalWorkingDirectory();
        press(settings, "chooseFolder");
        QTRY_VERIFY(dialog->property("visible").toBool());
        QCOMPARE(dialog->property("currentFolder").toUrl(), QUrl::fromLocalFile(before));
        QMetaObject::invokeMethod(dialog, "reject");
        QTRY_VERIFY(!dialog->property("visible").toBool());
        QCOMPARE(harness.app().terminalWorkingDirectory(), before);
        const QString chosen = QDir(before).filePath("client-work");
        QVERIFY(!QFileInfo::exists(chosen));
        press(settings, "chooseFolder");
        QTRY_VERIFY(dialog->property("visible").toBool());
        dialog->setProperty("selectedFolder", QUrl::fromLocalFile(chosen));
        QMetaObject::invokeMethod(dialog, "accept");
        QTRY_COMPARE(harness.app().terminalWorkingDirectory(), chosen);
        QVERIFY(QFileInfo(chosen).isDir());
        QQuickItem* folderField = AppHarness::inSheet(settings, "workingDirectoryField");
        QVERIFY(folderField);
        QTRY_COMPARE(folderField->property("text").toString(), chosen);

        // "Connect CLIs" brings the onboarding sheet back.
        press(settings, "connectCLIs");
        QTRY_VERIFY(onboarding->isVisible());
        press(onboarding, "onboardingClose");
        QTRY_VERIFY(!onboarding->isVisible());

        // Sign-out signs out and closes the sheet.
        press(settings, "signOut");
        QTRY_VERIFY(!settings->isVisible());
        QVERIFY(!harness.root().signedIn());
    }
};

QTEST_MAIN(SettingsGuiTest)
#include "SettingsGuiTest.moc"
