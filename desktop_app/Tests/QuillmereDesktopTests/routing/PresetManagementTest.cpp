#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/common/MemoryPreferencesStore.h"
#include "QuillmereDesktop/routing/PresetManagementViewModel.h"
#include "fakes/FakeSecretStore.h"
#include "support/Await.h"
#include "support/FakeProviderProcess.h"
#include "support/RelayFixture.h"

#include <QSignalSpy>
#include <QTest>

// The preset list and editor against the real relay: create, new version, rollback, delete.
class PresetManagementTest : public QObject {
    Q_OBJECT

    FakeProviderProcess m_fake{QStringLiteral("Preset answer.")};
    RelayFixture m_relay{RelayFixture::Options{true, m_fake.inventory(), {}}};
    MemoryPreferencesStore m_prefs;
    FakeSecretStore m_secrets;
    std::unique_ptr<AuthStore> m_auth;

    QStringList historyLabels(const QVariantMap& card) {
        QStringList labels;
        for (const QVariant& row : card.value("history").toList())
            labels.append(row.toMap().value("label").toString());
        return labels;
    }

private slots:
    void initTestCase() {
        QVERIFY(m_relay.start());
        m_prefs.setString(AuthStore::relayURLKey, m_relay.url().toString());
        AuthStoreConfig config;
        config.bootstrapOnStart = false;
        m_auth = std::make_unique<AuthStore>(m_prefs, m_secrets, nullptr, config);
        await(m_auth->bootstrap());
        QCOMPARE(m_auth->state(), AuthStore::State::signedIn);
    }

    void cleanupTestCase() { m_auth.reset(); }

    void createEditRollBackAndDelete() {
        PresetManagementViewModel view;
        view.setAuth(m_auth.get());
        await(view.loadNow());
        QCOMPARE(view.errorText(), QString());
        QVERIFY(!view.hasPresets());
        QVERIFY(!view.modelIDs().isEmpty());

        view.openEditor("");
        PresetEditorViewModel* editor = view.editor();
        QVERIFY(editor);
        QCOMPARE(editor->title(), QStringLiteral("create agent preset"));
        QCOMPARE(editor->model(), view.modelIDs().first());
        editor->setSlug("Code Reviewer");
        await(editor->saveNow());
        QCOMPARE(editor->errorText(), QStringLiteral("Slug must use lowercase letters, numbers, _ or -."));
        editor->setSlug(" Code-Reviewer ");
        editor->setSystemPrompt("Review the diff.");
        editor->setTemperature("0.4");
        QSignalSpy saved(editor, &PresetEditorViewModel::saved);
        await(editor->saveNow());
        QCOMPARE(saved.size(), 1);
        QVERIFY(waitUntil([&] { return view.hasPresets() && !view.editor(); }));
        QVariantMap card = view.cards().first().toMap();
        QCOMPARE(card.value("reference").toString(), QStringLiteral("@PRESET/CODE-REVIEWER"));
        QCOMPARE(card.value("version").toString(), QStringLiteral("V1"));
        QCOMPARE(historyLabels(card), QStringList{"V1 ACTIVE"});

        view.openEditor("code-reviewer");
        editor = view.editor();
        QCOMPARE(editor->title(), QStringLiteral("create preset version"));
        QCOMPARE(editor->saveLabel(), QStringLiteral("SAVE AS DESIGNATED VERSION"));
        QCOMPARE(editor->temperature(), QStringLiteral("0.4"));
        editor->setSlug("other"); // locked when editing
        QCOMPARE(editor->slug(), QStringLiteral("code-reviewer"));
        editor->setTemperature("");
        await(editor->saveNow());
        QVERIFY(waitUntil(
            [&] { return !view.editor() && view.cards().first().toMap().value("version") == "V2"; }));
        QCOMPARE(view.presets().first().designated_version.config.temperature, std::nullopt);
        QCOMPARE(historyLabels(view.cards().first().toMap()), (QStringList{"V1", "V2 ACTIVE"}));

        await(view.designateNow("code-reviewer", 1));
        QCOMPARE(historyLabels(view.cards().first().toMap()), (QStringList{"V1 ACTIVE", "V2"}));
        QCOMPARE(view.presets().first().versions.size(), 2);

        await(view.removeNow("code-reviewer"));
        QVERIFY(!view.hasPresets());
        QCOMPARE(view.errorText(), QString());
    }
};

QTEST_GUILESS_MAIN(PresetManagementTest)
#include "PresetManagementTest.moc"
