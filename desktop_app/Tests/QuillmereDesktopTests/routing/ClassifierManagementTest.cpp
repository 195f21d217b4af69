#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/common/MemoryPreferencesStore.h"
#include "QuillmereDesktop/routing/ClassifierManagementViewModel.h"
#include "fakes/FakeSecretStore.h"
#include "support/Await.h"
#include "support/FakeProviderProcess.h"
#include "support/RelayFixture.h"
#include "support/RelayProxy.h"
#include "support/SignedInAuth.h"

#include <QJsonArray>
#include <QSignalSpy>
#include <QTest>

// The classifier console against the real relay: the editor's rules, create with POST and
// edit with PUT through a recording proxy, coverage and activity from real taggings.
class ClassifierManagementTest : public QObject {
    Q_OBJECT

    FakeProviderProcess m_fake{QStringLiteral("Plain answer.")};
    RelayFixture m_relay{RelayFixture::Options{
        true, m_fake.inventory({QStringLiteral("reasoning"), QStringLiteral("structured_output")}), {}}};
    // A relay whose only lane cannot answer in a fixed form.
    RelayFixture m_plainRelay{RelayFixture::Options{true, m_fake.inventory(), {}}};
    std::unique_ptr<RelayProxy> m_proxy;
    MemoryPreferencesStore m_prefs;
    MemoryPreferencesStore m_plainPrefs;
    FakeSecretStore m_secrets;
    FakeSecretStore m_plainSecrets;
    std::unique_ptr<AuthStore> m_auth;
    std::unique_ptr<AuthStore> m_plainAuth;

    static qint64 coverage(const ClassifierManagementViewModel& view, const QString& status) {
        const auto& counts = view.classifiers().first().coverage;
        const auto found = counts.find(status);
        return found == counts.end() ? 0 : found->second;
    }

    // The requests of one method to the classifier paths, in the order they came.
    QList<RelayProxy::Request> sent(const QByteArray& method) const {
        QList<RelayProxy::Request> found;
        for (const RelayProxy::Request& request : m_proxy->requestsTo("/v1/classifiers"))
            if (request.method == method)
                found.append(request);
        return found;
    }

private slots:
    void initTestCase() {
        QVERIFY(!m_fake.url().isEmpty());
        QVERIFY(m_relay.start());
        QVERIFY(m_plainRelay.start());
        m_proxy = std::make_unique<RelayProxy>(m_relay.url());
        m_auth = signedInAuth(m_prefs, m_secrets, m_proxy->url());
        m_plainAuth = signedInAuth(m_plainPrefs, m_plainSecrets, m_plainRelay.url());
        QCOMPARE(m_auth->state(), AuthStore::State::signedIn);
        QCOMPARE(m_plainAuth->state(), AuthStore::State::signedIn);
    }

    void cleanupTestCase() {
        m_auth.reset();
        m_plainAuth.reset();
        m_proxy.reset();
    }

    void samplingTexts() {
        QCOMPARE(ClassifierEditorViewModel::samplingTextFor(1.0),
                 QStringLiteral("sample 100% of generations"));
        QCOMPARE(ClassifierEditorViewModel::samplingTextFor(0.25),
                 QStringLiteral("sample 25% of generations"));
        UsageClassifier classifier;
        classifier.sampling_rate = 0.25;
        classifier.active = false;
        classifier.dimensions = {{"a", "A", {"x", "y"}}};
        classifier.coverage = {{"succeeded", 3}, {"failed", 1}};
        const QVariantMap card = ClassifierManagementViewModel::card(classifier);
        QCOMPARE(card.value("sample").toString(), QStringLiteral("25% SAMPLE"));
        QCOMPARE(card.value("dimensions").toString(), QStringLiteral("1 DIMENSIONS"));
        // A status missing from the coverage counts as none.
        QCOMPARE(card.value("coverage").toString(), QStringLiteral("3 TAGGED · 0 PENDING · 1 FAILED"));
        QCOMPARE(card.value("inactive").toString(), QStringLiteral("INACTIVE"));
    }

    void activityRows() {
        ClassificationActivity row;
        row.classifier_name = "Complexity";
        row.status = "succeeded";
        row.tags = {{"difficulty_tier", "expert"}, {"task_family", "coding"}};
        QCOMPARE(ClassifierManagementViewModel::activityRow(row).value("detail").toString(),
                 QStringLiteral("difficulty_tier=expert · task_family=coding"));
        row.tags.clear();
        row.status = "failed";
        row.error_code = "value_outside_taxonomy";
        QCOMPARE(ClassifierManagementViewModel::activityRow(row).value("detail").toString(),
                 QStringLiteral("value_outside_taxonomy"));
        row.status = "pending";
        row.error_code.reset();
        QCOMPARE(ClassifierManagementViewModel::activityRow(row).value("detail").toString(),
                 QStringLiteral("WAITING"));
    }

    void withoutAStructuredModelThereIsNothingToPick() {
        ClassifierManagementViewModel view;
        view.setAuth(m_plainAuth.get());
        await(view.loadNow());
        QCOMPARE(view.errorText(), QString());
        QVERIFY(view.modelIDs().isEmpty());
        view.openEditor("");
        QVERIFY(view.editor()->modelIDs().isEmpty());
        QCOMPARE(view.editor()->model(), QString());
    }

    void aNewFormStartsWithTheExample() {
        ClassifierManagementViewModel view;
        view.setAuth(m_auth.get());
        await(view.loadNow());
        QCOMPARE(view.modelIDs(), QStringList{"fake-lane"});
        QVERIFY(!view.hasClassifiers());
        view.openEditor("");
        ClassifierEditorViewModel* editor = view.editor();
        QCOMPARE(editor->name(), QStringLiteral("Agent complexity"));
        QCOMPARE(editor->model(), QStringLiteral("fake-lane"));
        QCOMPARE(editor->samplingRate(), 1.0);
        QCOMPARE(editor->samplingText(), QStringLiteral("sample 100% of generations"));
        QCOMPARE(editor->prompt(),
                 QStringLiteral("Classify the work being requested, not the person asking."));
        QVERIFY(editor->active());
        QCOMPARE(editor->drafts().size(), 2);
        QCOMPARE(editor->drafts()[0].key, QStringLiteral("difficulty_tier"));
        QCOMPARE(editor->drafts()[1].values, QStringLiteral("coding, analysis, planning, research"));
        QCOMPARE(editor->dimensionsHeading(), QStringLiteral("dimensions 2/8"));
        for (int i = 0; i < 10; ++i)
            editor->addDimension();
        QCOMPARE(editor->drafts().size(), 8);
        QVERIFY(!editor->canAddDimension());
        QCOMPARE(editor->dimensionsHeading(), QStringLiteral("dimensions 8/8"));
        QVERIFY(editor->drafts()[7].key.isEmpty());
    }

    void aDimensionWithOneValueIsRefusedAndNothingIsSent() {
        ClassifierManagementViewModel view;
        view.setAuth(m_auth.get());
        await(view.loadNow());
        view.openEditor("");
        ClassifierEditorViewModel* editor = view.editor();
        editor->removeDimension(1);
        editor->setDimensionField(0, "values", "a,");
        QCOMPARE(ClassifierEditorViewModel::dimensionsFrom(editor->drafts()).first().values,
                 QStringList{"a"});
        const qsizetype before = sent("POST").size() + sent("PUT").size();
        await(editor->saveNow());
        QCOMPARE(editor->errorText(),
                 QStringLiteral("Name and dimensions with at least two values are required."));
        QCOMPARE(sent("POST").size() + sent("PUT").size(), before);
        editor->setDimensionField(0, "values", "a, b");
        editor->setName("   ");
        await(editor->saveNow());
        QCOMPARE(editor->errorText(), ClassifierEditorViewModel::invalidMessage);
        editor->setName("x");
        editor->removeDimension(0);
        await(editor->saveNow());
        QCOMPARE(editor->errorText(), ClassifierEditorViewModel::invalidMessage);
        QCOMPARE(sent("POST").size() + sent("PUT").size(), before);
    }

    // Created with POST, edited with PUT to its own path; the key is trimmed and lower-cased;
    // then a completion is tagged, and one whose tag is outside the taxonomy fails.
    void createEditTagAndDelete() {
        ClassifierManagementViewModel view;
        view.setAuth(m_auth.get());
        await(view.loadNow());
        view.openEditor("");
        ClassifierEditorViewModel* editor = view.editor();
        editor->setName("  Work kind ");
        editor->setDimensionField(0, "key", " Task_Family ");
        editor->setDimensionField(0, "label", " Task family ");
        editor->setDimensionField(0, "values", "coding, , analysis ,");
        editor->removeDimension(1);
        editor->setPrompt("  Tag the work.  ");
        QSignalSpy saved(editor, &ClassifierEditorViewModel::saved);
        await(editor->saveNow());
        QCOMPARE(editor->errorText(), QString());
        QCOMPARE(saved.size(), 1);
        QVERIFY(waitUntil([&] { return view.hasClassifiers() && !view.editor(); }));
        QCOMPARE(sent("POST").size(), 1);
        QCOMPARE(sent("POST").last().path, QByteArray("/v1/classifiers"));
        QVERIFY(sent("PUT").isEmpty());
        const UsageClassifier created = view.classifiers().first();
        QCOMPARE(created.name, QStringLiteral("Work kind"));
        QCOMPARE(created.prompt, QStringLiteral("Tag the work."));
        QCOMPARE(created.dimensions,
                 (QList<ClassifierDimension>{{"task_family", "Task family", {"coding", "analysis"}}}));

        view.openEditor(created.id);
        editor = view.editor();
        QCOMPARE(editor->name(), QStringLiteral("Work kind"));
        QCOMPARE(editor->drafts().first().values, QStringLiteral("coding, analysis"));
        editor->setName("Work kinds");
        await(editor->saveNow());
        QVERIFY(waitUntil([&] { return !view.editor() && view.classifiers().first().name == "Work kinds"; }));
        QCOMPARE(view.classifiers().size(), 1);
        QCOMPARE(sent("POST").size(), 1);
        QCOMPARE(sent("PUT").size(), 1);
        QCOMPARE(sent("PUT").last().path, QByteArray("/v1/classifiers/") + created.id.toUtf8());
        QCOMPARE(view.classifiers().first().id, created.id);

        // A generation, tagged by the classifier with the fake's next answer.
        QVERIFY(m_fake.script(QJsonArray{QJsonObject{{"text", "Answered."}},
                                         QJsonObject{{"text", R"({"task_family": "coding"})"}},
                                         QJsonObject{{"text", "Answered again."}},
                                         QJsonObject{{"text", R"({"task_family": "gardening"})"}}}));
        GatewayCompletionInput input;
        input.task = "code";
        input.input = "Write a loop";
        input.model = "fake-lane";
        input.max_output_tokens = 100;
        QVERIFY(await(m_auth->client()->complete(input)));
        QVERIFY(waitUntil([&] {
            await(view.loadNow());
            return coverage(view, "succeeded") == 1 && coverage(view, "pending") == 0;
        }));
        QCOMPARE(view.cards().first().toMap().value("coverage").toString(),
                 QStringLiteral("1 TAGGED · 0 PENDING · 0 FAILED"));
        QCOMPARE(view.activityRows().first().toMap().value("detail").toString(),
                 QStringLiteral("task_family=coding"));
        QVERIFY(await(m_auth->client()->complete(input)));
        QVERIFY(waitUntil([&] {
            await(view.loadNow());
            return coverage(view, "failed") == 1 && coverage(view, "pending") == 0;
        }));
        QCOMPARE(view.cards().first().toMap().value("coverage").toString(),
                 QStringLiteral("1 TAGGED · 0 PENDING · 1 FAILED"));
        const QVariantMap failed = view.activityRows().first().toMap();
        QCOMPARE(failed.value("status").toString(), QStringLiteral("FAILED"));
        QCOMPARE(failed.value("detail").toString(), QStringLiteral("value_outside_taxonomy"));

        await(view.removeNow(created.id));
        QCOMPARE(view.errorText(), QString());
        QVERIFY(!view.hasClassifiers());
        QCOMPARE(sent("DELETE").last().path, QByteArray("/v1/classifiers/") + created.id.toUtf8());
    }

    void aRelayErrorKeepsTheFormOpen() {
        ClassifierManagementViewModel view;
        view.setAuth(m_auth.get());
        await(view.loadNow());
        view.openEditor("");
        m_proxy->setRule([](const RelayProxy::Request& request) {
            return request.method == "POST" ? RelayProxy::Decision{RelayProxy::Action::refuse, 500}
                                            : RelayProxy::Decision{};
        });
        await(view.editor()->saveNow());
        m_proxy->setRule({});
        QVERIFY(view.editor());
        QVERIFY(!view.editor()->errorText().isEmpty());
        QVERIFY(!view.editor()->saving());
    }
};

QTEST_GUILESS_MAIN(ClassifierManagementTest)
#include "ClassifierManagementTest.moc"
