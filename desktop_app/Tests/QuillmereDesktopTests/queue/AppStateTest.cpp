#include "QuillmereDesktop/queue/AppState.h"
#include "QuillmereDesktop/common/MemoryPreferencesStore.h"
#include "fakes/FakeMereClient.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <memory>
#include <new>

using namespace std::chrono_literals;

class AppStateTest : public QObject {
    Q_OBJECT

    QTemporaryDir m_home;
    MemoryPreferencesStore m_prefs;
    QPointer<FakeMereClient> m_fake;
    // The signed-in relay client, as the sign-in store would hand it over, and the relay
    // client the last queue client was made for.
    std::unique_ptr<RelayClient> m_relay;
    QPointer<RelayClient> m_fakeMadeFor;

    AppStateConfig config() {
        AppStateConfig c;
        c.toastDuration = 30ms;
        c.mockTiming = {20ms, 5ms};
        c.homeDirectory = m_home.path();
        c.makeRelayClient = [this](RelayClient& relay, QObject* parent) {
            m_fakeMadeFor = &relay;
            m_fake = new FakeMereClient(parent);
            return m_fake.data();
        };
        return c;
    }

    static Verdict approve() {
        return {VerdictKind::approve, std::nullopt, Verdict::desktopSource, QDateTime::currentDateTimeUtc()};
    }

    static Snapshot snapshotWithIds(const QStringList& ids) {
        Snapshot s;
        for (const QString& id : ids) {
            Interrupt i;
            i.id = id;
            i.runId = i.runName = "run";
            i.prompt = "?";
            i.raisedAt = QDateTime::currentDateTimeUtc();
            s.interrupts.append(i);
        }
        return s;
    }

    // An app state in relay mode whose queue client is the fake, holding interrupt "a".
    std::unique_ptr<AppState> relayStateWithSelection(const QStringList& ids = {"a"}) {
        auto state = std::make_unique<AppState>(m_prefs, config());
        state->connectToRelay(m_relay.get());
        m_fake->pushSnapshot(snapshotWithIds(ids));
        state->setSelectedInterruptId(QString("a"));
        state->setScreen(AppState::Screen::item);
        return state;
    }

private slots:
    void init() {
        m_prefs = MemoryPreferencesStore();
        m_fake.clear();
        m_relay = std::make_unique<RelayClient>(QUrl("http://127.0.0.1:9/"), QString("tok"));
    }

    void toastDefaultIsOnePointFourSeconds() { QCOMPARE(AppStateConfig{}.toastDuration, 1400ms); }

    void firstStartLeavesDemoModeOnceAndMarksIt() {
        m_prefs.setBool("useMock", true);
        AppState state(m_prefs, config());
        QVERIFY(!state.useMock());
        QCOMPARE(m_prefs.boolValue("useMock"), false);
        QCOMPARE(m_prefs.boolValue("standaloneQueueDefaultV1"), true);
        QVERIFY(!state.client());
        QVERIFY(!state.online());
    }

    void laterStartsKeepTheStoredDemoChoiceAndConnect() {
        m_prefs.setBool("standaloneQueueDefaultV1", true);
        m_prefs.setBool("useMock", true);
        AppState state(m_prefs, config());
        QVERIFY(state.useMock());
        QVERIFY(qobject_cast<MockClient*>(state.client()));
        QVERIFY(state.online());
        QCOMPARE(state.snapshot().interrupts.size(), 2);
    }

    void aStoredDemoChoiceThatIsNotABooleanReadsAsFalse() {
        m_prefs.setBool("standaloneQueueDefaultV1", true);
        m_prefs.setRaw("useMock", QString("yes"));
        AppState state(m_prefs, config());
        QVERIFY(!state.useMock());
    }

    void tokenKeyIsGoneAfterAnyStart() {
        m_prefs.setString("token", "leaked-secret");
        AppState state(m_prefs, config());
        QVERIFY(!m_prefs.contains("token"));
        m_prefs.setString("token", "again");
        AppState second(m_prefs, config());
        QVERIFY(!m_prefs.contains("token"));
    }

    void startingValuesAndStoredOnes() {
        {
            AppState state(m_prefs, config());
            QVERIFY(state.alwaysOnTop());
            QCOMPARE(state.terminalWorkingDirectory(), m_home.filePath("Quillmere"));
            QVERIFY(QDir(m_home.filePath("Quillmere")).exists());
            QCOMPARE(state.screen(), AppState::Screen::home);
            QVERIFY(!state.selectedInterruptId() && !state.sentToast());
            QCOMPARE(state.snapshot(), Snapshot{});
        }
        m_prefs.setString("baseURL", "http://relay.example:9000/");
        m_prefs.setBool("alwaysOnTop", false);
        m_prefs.setString("terminalWorkingDirectory", m_home.filePath("a/b/c"));
        AppState state(m_prefs, config());
        // The relay's address is the sign-in store's; an old copy stays for it to take over.
        QCOMPARE(m_prefs.stringValue("baseURL"), QString("http://relay.example:9000/"));
        QVERIFY(!state.alwaysOnTop());
        QCOMPARE(state.terminalWorkingDirectory(), m_home.filePath("a/b/c"));
        QVERIFY(QDir(m_home.filePath("a/b/c")).exists());
    }

    void alwaysOnTopThatIsNotABooleanReadsAsTrue() {
        m_prefs.setRaw("alwaysOnTop", 3);
        AppState state(m_prefs, config());
        QVERIFY(state.alwaysOnTop());
    }

    void aWorkingFolderThatCannotBeMadeIsSilent() {
        QFile blocker(m_home.filePath("file"));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        m_prefs.setString("terminalWorkingDirectory", m_home.filePath("file/inside"));
        AppState state(m_prefs, config());
        QCOMPARE(state.terminalWorkingDirectory(), m_home.filePath("file/inside"));
        QVERIFY(!QDir(m_home.filePath("file/inside")).exists());
    }

    void settersPersist() {
        AppState state(m_prefs, config());
        state.setAlwaysOnTop(false);
        QCOMPARE(m_prefs.boolValue("alwaysOnTop"), false);
        state.setTerminalWorkingDirectory(m_home.filePath("elsewhere/deep"));
        QCOMPARE(m_prefs.stringValue("terminalWorkingDirectory"), m_home.filePath("elsewhere/deep"));
        QVERIFY(QDir(m_home.filePath("elsewhere/deep")).exists());
    }

    void switchingToDemoModeConnectsAndBackToRelayReconnects() {
        AppState state(m_prefs, config());
        state.connectToRelay(m_relay.get());
        state.setUseMock(true);
        QCOMPARE(m_prefs.boolValue("useMock"), true);
        QVERIFY(qobject_cast<MockClient*>(state.client()));
        QVERIFY(state.online());
        state.setUseMock(false);
        QVERIFY(m_fake);
        QCOMPARE(state.client(), m_fake.data());
        QCOMPARE(m_fake->connectCount, 1);
    }

    void withoutARelayClientThereIsNoQueueClient() {
        // Not signed in: there is no relay to queue from.
        AppState state(m_prefs, config());
        state.connect();
        QVERIFY(!state.client());
        QVERIFY(!state.online());
        state.connectToRelay(m_relay.get());
        QVERIFY(state.client());
        // The sign-in store replaced its client: the next connect has nothing to use.
        m_relay.reset();
        state.connect();
        QVERIFY(!state.client());
        QVERIFY(!state.online());
    }

    void callbacksAssignSnapshotAndOnline() {
        AppState state(m_prefs, config());
        state.connectToRelay(m_relay.get());
        QSignalSpy snapshotSpy(&state, &AppState::snapshotChanged);
        m_fake->pushConnection(true);
        QVERIFY(state.online());
        m_fake->pushSnapshot(snapshotWithIds({"x", "y"}));
        QCOMPARE(state.snapshot().interrupts.size(), 2);
        QCOMPARE(snapshotSpy.count(), 1);
        m_fake->pushConnection(false);
        QVERIFY(!state.online());
        QCOMPARE(state.screen(), AppState::Screen::home);
    }

    void callbacksFromAnotherThreadArriveOnTheMainThread() {
        AppState state(m_prefs, config());
        state.connectToRelay(m_relay.get());
        QPointer<FakeMereClient> fake = m_fake;
        QThread* worker = QThread::create([fake] {
            fake->pushConnection(true);
            fake->pushSnapshot(snapshotWithIds({"from-thread"}));
        });
        worker->start();
        QVERIFY(worker->wait(5000));
        delete worker;
        QTRY_COMPARE(state.snapshot().interrupts.size(), 1);
        QVERIFY(state.online());
    }

    void aReplacedClientCanNoLongerChangeTheState() {
        AppState state(m_prefs, config());
        state.connectToRelay(m_relay.get());
        QPointer<FakeMereClient> old = m_fake;
        old->keepsCallbacksAfterDisconnect = true;
        state.connect(); // a new fake replaces the old one
        QVERIFY(m_fake != old);
        QCOMPARE(old->disconnectCount, 1);
        old->pushConnection(true);
        old->pushSnapshot(snapshotWithIds({"stale"}));
        QVERIFY(!state.online());
        QVERIFY(state.snapshot().interrupts.isEmpty());
        m_fake->pushSnapshot(snapshotWithIds({"fresh"}));
        QCOMPARE(state.snapshot().interrupts.at(0).id, "fresh");
    }

    void connectToRelayAdoptsItsURLAndToken() {
        AppState state(m_prefs, config());
        RelayClient relay(QUrl("http://127.0.0.1:9123/"), QString("tok-9"));
        state.connectToRelay(&relay);
        QCOMPARE(state.relayClient(), &relay);
        // The queue client speaks for that relay client, and nothing keeps a copy of its address.
        QCOMPARE(m_fakeMadeFor.data(), &relay);
        QVERIFY(!m_prefs.contains("baseURL"));
        QCOMPARE(state.client(), m_fake.data());
        RelayClient signedOut(QUrl("http://127.0.0.1:9123/"), std::nullopt);
        state.connectToRelay(&signedOut);
        QCOMPARE(state.relayClient(), &signedOut);
        QCOMPARE(m_fakeMadeFor.data(), &signedOut);
    }

    void inDemoModeConnectToRelayStoresButKeepsTheDemoClient() {
        m_prefs.setBool("standaloneQueueDefaultV1", true);
        m_prefs.setBool("useMock", true);
        AppState state(m_prefs, config());
        MereClient* demo = state.client();
        RelayClient relay(QUrl("http://127.0.0.1:9123/"), QString("tok-9"));
        state.connectToRelay(&relay);
        QCOMPARE(state.relayClient(), &relay);
        QCOMPARE(state.client(), demo);
        QVERIFY(!m_fake);
    }

    void theDefaultRelayClientIsTheLiveQueue() {
        AppStateConfig c = config();
        c.makeRelayClient = AppStateConfig{}.makeRelayClient;
        AppState state(m_prefs, c);
        RelayClient relay(QUrl("http://127.0.0.1:9/"), QString("tok"));
        state.connectToRelay(&relay);
        auto* live = qobject_cast<MereCloudClient*>(state.client());
        QVERIFY(live);
        QCOMPARE(live->relayClient(), &relay);
        QCOMPARE(live->baseURL(), QUrl("http://127.0.0.1:9/"));
        QCOMPARE(live->token(), "tok");
        // Asked at the moment of use: a new session token is the queue's at once.
        relay.setToken(QString("tok-2"));
        QCOMPARE(live->token(), "tok-2");
        state.disconnectQueue();
    }

    void disconnectQueueKeepsTheLastSnapshot() {
        AppState state(m_prefs, config());
        state.connectToRelay(m_relay.get());
        m_fake->pushConnection(true);
        m_fake->pushSnapshot(snapshotWithIds({"x"}));
        state.setScreen(AppState::Screen::queue);
        state.disconnectQueue();
        QVERIFY(!state.client());
        QVERIFY(!state.online());
        QCOMPARE(state.snapshot().interrupts.size(), 1);
        QCOMPARE(state.screen(), AppState::Screen::queue);
    }

    void backMovesOneScreenUp() {
        AppState state(m_prefs, config());
        state.setSelectedInterruptId(QString("keep"));
        state.setScreen(AppState::Screen::item);
        state.back();
        QCOMPARE(state.screen(), AppState::Screen::queue);
        state.back();
        QCOMPARE(state.screen(), AppState::Screen::home);
        state.back();
        QCOMPARE(state.screen(), AppState::Screen::home);
        QCOMPARE(state.selectedInterruptId(), QString("keep"));
    }

    void selectedInterruptFollowsTheSnapshot() {
        auto state = relayStateWithSelection({"a", "b"});
        QCOMPARE(state->selectedInterrupt()->id, "a");
        m_fake->pushSnapshot(snapshotWithIds({"b"}));
        QVERIFY(!state->selectedInterrupt());
        QCOMPARE(state->selectedInterruptId(), QString("a"));
    }

    void submitWithoutSelectionDoesNothing() {
        AppState state(m_prefs, config());
        state.connectToRelay(m_relay.get());
        QSignalSpy toastSpy(&state, &AppState::sentToastChanged);
        state.submit(approve());
        QTest::qWait(50);
        QVERIFY(m_fake->submittedIds.isEmpty());
        QCOMPARE(toastSpy.count(), 0);
    }

    void successShowsSentClearsSelectionAndGoesToTheQueue() {
        auto state = relayStateWithSelection({"a", "b"});
        state->submit(approve());
        QCOMPARE(m_fake->submittedIds, (QStringList{"a"}));
        QCOMPARE(m_fake->submittedVerdicts.at(0).source, "desktop");
        QCOMPARE(state->sentToast(), QString("SENT"));
        QVERIFY(!state->selectedInterruptId());
        QCOMPARE(state->screen(), AppState::Screen::queue);
        QCOMPARE(state->snapshot().interrupts.size(), 2); // nothing optimistic
        QTRY_VERIFY(!state->sentToast());
    }

    void successWithAnEmptyQueueGoesHome() {
        auto state = relayStateWithSelection({"a"});
        m_fake->pushSnapshot(Snapshot{});
        state->submit(approve());
        QCOMPARE(state->screen(), AppState::Screen::home);
    }

    void alreadyResolvedGoesToTheQueueEvenWhenItIsEmpty() {
        auto state = relayStateWithSelection({"a"});
        m_fake->pushSnapshot(Snapshot{});
        m_fake->nextResult = SubmitError{ClientError::alreadyResolved()};
        state->submit(approve());
        QCOMPARE(state->sentToast(), QString("ALREADY RESOLVED ELSEWHERE"));
        QVERIFY(!state->selectedInterruptId());
        QCOMPARE(state->screen(), AppState::Screen::queue);
        QTRY_VERIFY(!state->sentToast());
    }

    void notConnectedTakesTheAlreadyResolvedPath() {
        auto state = relayStateWithSelection({"a"});
        m_fake->nextResult = SubmitError{ClientError::notConnected()};
        state->submit(approve());
        QCOMPARE(state->sentToast(), QString("ALREADY RESOLVED ELSEWHERE"));
        QCOMPARE(state->screen(), AppState::Screen::queue);
    }

    void serverAndTransportFailuresKeepTheSelection() {
        for (const SubmitError& error :
             {SubmitError{ClientError::server("status 500")}, SubmitError{Error{"Connection refused"}}}) {
            auto state = relayStateWithSelection({"a"});
            m_fake->nextResult = error;
            state->submit(approve());
            QCOMPARE(state->sentToast(), QString::fromUtf8("NOT SENT \u2014 TRY AGAIN"));
            QCOMPARE(state->selectedInterruptId(), QString("a"));
            QCOMPARE(state->screen(), AppState::Screen::item);
            QTRY_VERIFY(!state->sentToast());
        }
    }

    void withNoClientSubmitCountsAsSent() {
        AppState state(m_prefs, config());
        state.setSelectedInterruptId(QString("a"));
        state.setScreen(AppState::Screen::item);
        state.submit(approve());
        QCOMPARE(state.sentToast(), QString("SENT"));
        QCOMPARE(state.screen(), AppState::Screen::home);
    }

    void toastStaysForItsDuration() {
        AppStateConfig c = config();
        c.toastDuration = 300ms;
        AppState state(m_prefs, c);
        state.setSelectedInterruptId(QString("a"));
        QElapsedTimer timer;
        timer.start();
        state.submit(approve());
        QTest::qWait(150);
        QCOMPARE(state.sentToast(), QString("SENT"));
        QTRY_VERIFY_WITH_TIMEOUT(!state.sentToast(), 3000);
        QVERIFY(timer.elapsed() >= 290);
    }

    void stateDeletedDuringASubmitIsLeftAlone() {
        // The state lives in storage the test owns, so that once it is destroyed the test
        // can see whether the submit's remaining steps still write into it.
        alignas(AppState) std::array<std::byte, sizeof(AppState)> storage;
        auto* state = new (storage.data()) AppState(m_prefs, config());
        state->connectToRelay(m_relay.get());
        m_fake->pushSnapshot(snapshotWithIds({"a"}));
        state->setSelectedInterruptId(QString("a"));
        state->submit(approve());
        // The verdict went out and its toast shows: the submit now waits out the toast.
        QCOMPARE(m_fake->submittedIds, QStringList{"a"});
        QCOMPARE(state->sentToast(), QString("SENT"));
        state->~AppState();
        constexpr std::byte poison{0xA5};
        storage.fill(poison);
        QTest::qWait(80); // past the toast: the submit has taken its last step
        QVERIFY(std::all_of(storage.begin(), storage.end(), [](std::byte b) { return b == poison; }));
    }
};

QTEST_GUILESS_MAIN(AppStateTest)
#include "AppStateTest.moc"
