#include "QuillmereDesktop/terminal/CLIStatusStore.h"
#include "support/Await.h"
#include "support/ScriptedHttpServer.h"

#include "QuillmereDesktop/common/QmlSingleton.h"

#include <QQmlComponent>
#include <QQmlEngine>
#include <QSignalSpy>
#include <QTest>
#include <QtQml/qqmlextensionplugin.h>

#include <chrono>
#include <memory>

using namespace std::chrono_literals;

Q_IMPORT_QML_PLUGIN(QuillmerePlugin)

namespace {
const QByteArray statusJson =
    R"({"claude":{"installed":true,"authenticated":true,"tokens_today":10,"messages_today":2},)"
    R"("codex":{"installed":true,"authenticated":false,"tokens_today":0,"messages_today":0}})";
}

class CLIStatusStoreTest : public QObject {
    Q_OBJECT

private slots:
    void intervals() {
        QCOMPARE(CLIStatusStore::defaultPollInterval, 20000ms);
        QCOMPARE(CLIStatusStore::defaultUsageProbeInterval, 300000ms);
    }

    void qmlSeesTheApplicationsOwnStore() {
        // QML that built a store of its own would show a status no one ever polls.
        CLIStatusStore store(CLIStatusStore::defaultPollInterval);
        QmlSingleton<CLIStatusStore>::set(&store);
        QQmlEngine engine;
        QQmlComponent component(&engine);
        component.setData(
            "import QtQml\nimport Quillmere\nQtObject { property QtObject cli: CLIStatusStore }", QUrl());
        std::unique_ptr<QObject> object(component.create());
        QVERIFY2(object, qPrintable(component.errorString()));
        QCOMPARE(object->property("cli").value<QObject*>(), &store);
    }

    void refreshReadsTheStatusAndAFailureClearsIt() {
        ScriptedHttpServer server;
        server.replyAlways(200, statusJson);
        RelayClient client(server.url(), QString("tok"));
        CLIStatusStore store(CLIStatusStore::defaultPollInterval);
        await(store.refresh(&client));
        QVERIFY(store.status());
        QCOMPARE(store.status()->claude, (CLIInfo{true, true, 10, 2}));
        QVERIFY(!store.bothConnected());
        QCOMPARE(server.requests()[0].path, "/v1/cli/status");
        QCOMPARE(server.requests()[0].header("authorization"), "Bearer tok");

        server.replyAlways(200, R"({"claude":{"installed":true}})");
        await(store.refresh(&client));
        QVERIFY(!store.status()); // a wrong shape is a failure
        server.replyAlways(200, statusJson);
        await(store.refresh(&client));
        QVERIFY(store.status());
        server.replyAlways(500, "{}");
        await(store.refresh(&client));
        QVERIFY(!store.status());
    }

    void withoutATokenNothingIsSentAndTheStatusIsAbsent() {
        ScriptedHttpServer server;
        server.replyAlways(200, statusJson);
        RelayClient client(server.url(), std::nullopt);
        CLIStatusStore store(CLIStatusStore::defaultPollInterval);
        await(store.refresh(&client));
        QVERIFY(!store.status());
        QVERIFY(server.requests().isEmpty());
    }

    void startPollingTwiceStartsOnePoll() {
        ScriptedHttpServer server;
        server.replyAlways(200, statusJson);
        RelayClient client(server.url(), QString("tok"));
        CLIStatusStore store(100ms);
        store.startPolling(&client);
        store.startPolling(&client);
        QVERIFY(store.isPolling());
        QTest::qWait(350);
        // One poll at once and one every 100 ms: about four, never the double.
        const qsizetype polls = server.requests().size();
        QVERIFY2(polls >= 3 && polls <= 5, qPrintable(QString::number(polls)));
        QVERIFY(store.status());
    }

    void aNewClientTakesOverFromOneThatIsGone() {
        ScriptedHttpServer server;
        server.replyAlways(200, statusJson);
        CLIStatusStore store(40ms);
        auto first = std::make_unique<RelayClient>(server.url(), QString("first"));
        store.startPolling(first.get());
        QTRY_VERIFY(store.status());
        first.reset();
        QTRY_VERIFY(!store.status()); // polling with no client reads nothing
        RelayClient second(server.url(), QString("second"));
        store.startPolling(&second);
        QTRY_VERIFY(store.status());
        QCOMPARE(server.requests().last().header("authorization"), "Bearer second");
    }

    void aFailedPollClearsTheStatusUntilTheNextGoodOne() {
        ScriptedHttpServer server;
        server.replyAlways(200, statusJson);
        RelayClient client(server.url(), QString("tok"));
        CLIStatusStore store(40ms);
        store.startPolling(&client);
        QTRY_VERIFY(store.status());
        server.replyAlways(503, "{}");
        QTRY_VERIFY(!store.status());
        server.replyAlways(200, statusJson);
        QTRY_VERIFY(store.status());
    }

    void aProbeFailureNeverErasesTheLastFigures() {
        CLIStatusStore store(CLIStatusStore::defaultPollInterval);
        QSignalSpy spy(&store, &CLIStatusStore::claudeUsageChanged);
        store.setClaudeUsage(ClaudeUsage{"1.2M", "3"});
        store.setClaudeUsage(std::nullopt);
        QCOMPARE(store.claudeUsage(), (ClaudeUsage{"1.2M", "3"}));
        QCOMPARE(spy.count(), 1);
    }
};

QTEST_GUILESS_MAIN(CLIStatusStoreTest)
#include "CLIStatusStoreTest.moc"
