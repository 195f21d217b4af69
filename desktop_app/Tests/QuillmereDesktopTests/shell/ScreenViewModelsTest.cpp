#include "QuillmereDesktop/common/MemoryPreferencesStore.h"
#include "QuillmereDesktop/shell/HomeViewModel.h"
#include "QuillmereDesktop/shell/ItemViewModel.h"
#include "QuillmereDesktop/shell/QueueViewModel.h"
#include "fakes/FakeMereClient.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <chrono>

using namespace std::chrono_literals;

// The screens' logic, driven without a window, over an application state fed by a fake queue.
class ScreenViewModelsTest : public QObject {
    Q_OBJECT

    QTemporaryDir m_home;
    MemoryPreferencesStore m_prefs;
    std::unique_ptr<AppState> m_app;
    // The signed-in relay client the queue is connected for.
    RelayClient m_relay{QUrl("http://127.0.0.1:9/"), QString("tok")};
    QPointer<FakeMereClient> m_fake;
    const QDateTime m_now{QDate(2026, 3, 1), QTime(12, 0), Qt::UTC};

    Interrupt interrupt(const QString& id, InterruptKind kind, qint64 secondsAgo) const {
        Interrupt i;
        i.id = id;
        i.runId = "run-" + id;
        i.runName = "run " + id;
        i.kind = kind;
        i.prompt = "prompt " + id;
        i.raisedAt = m_now.addSecs(-secondsAgo);
        return i;
    }

    void show(const QList<Interrupt>& interrupts, std::optional<int> openSuggestions = std::nullopt) {
        Snapshot s;
        s.running = 2;
        s.done = 9;
        s.interrupts = interrupts;
        s.openSuggestions = openSuggestions;
        m_fake->pushSnapshot(s);
    }

private slots:
    void init() {
        m_prefs = MemoryPreferencesStore();
        AppStateConfig config;
        config.homeDirectory = m_home.path();
        config.toastDuration = 20ms;
        config.makeRelayClient = [this](RelayClient&, QObject* parent) {
            m_fake = new FakeMereClient(parent);
            return m_fake.data();
        };
        m_app = std::make_unique<AppState>(m_prefs, config);
        m_app->connectToRelay(&m_relay);
    }

    void queueIsOldestFirstAndStable() {
        QueueViewModel queue;
        queue.setClock([this] { return m_now; });
        queue.setApp(m_app.get());
        QCOMPARE(queue.banner(), "needs input 0");
        QVERIFY(queue.isEmpty());
        Interrupt tiedA = interrupt("a", InterruptKind::question, 100);
        Interrupt tiedB = interrupt("b", InterruptKind::choice, 100);
        show({interrupt("new", InterruptKind::approval, 5), tiedA, tiedB,
              interrupt("old", InterruptKind::approval, 4000)});
        QCOMPARE(queue.rowCount(), 4);
        QCOMPARE(queue.banner(), "needs input 4");
        QStringList order;
        for (const Interrupt& i : queue.orderedInterrupts())
            order << i.id;
        QCOMPARE(order, (QStringList{"old", "a", "b", "new"}));
        QCOMPARE(queue.data(queue.index(0), QueueViewModel::TitleRole).toString(), "RUN OLD");
        QCOMPARE(queue.data(queue.index(0), QueueViewModel::SubtitleRole).toString(), "APPROVAL   1h 6m");
        QCOMPARE(queue.data(queue.index(3), QueueViewModel::SubtitleRole).toString(), "APPROVAL   5s");
    }

    void realActionsCarryAnArrowAndFutureTimesReadZero() {
        QueueViewModel queue;
        queue.setClock([this] { return m_now; });
        queue.setApp(m_app.get());
        Interrupt real = interrupt("r", InterruptKind::approval, -30);
        real.actionSlug = "SLACK_SEND";
        show({real});
        QCOMPARE(queue.data(queue.index(0), QueueViewModel::SubtitleRole).toString(), "APPROVAL \u2197   0s");
    }

    void agesTickWithoutTouchingTheRows() {
        QueueViewModel queue;
        QDateTime now = m_now;
        queue.setClock([&now] { return now; });
        queue.setAgeRefresh(20ms);
        queue.setApp(m_app.get());
        show({interrupt("a", InterruptKind::question, 58)});
        QSignalSpy resets(&queue, &QAbstractItemModel::modelReset);
        QSignalSpy changes(&queue, &QAbstractItemModel::dataChanged);
        now = now.addSecs(3);
        QTRY_VERIFY(changes.count() >= 1);
        QCOMPARE(queue.data(queue.index(0), QueueViewModel::SubtitleRole).toString(), "QUESTION   1m");
        QCOMPARE(resets.count(), 0);
        QCOMPARE(QueueViewModel::defaultAgeRefresh, 1000ms);
    }

    void pickingARowOpensIt() {
        QueueViewModel queue;
        queue.setApp(m_app.get());
        show({interrupt("a", InterruptKind::question, 1)});
        m_app->setScreen(AppState::Screen::queue);
        queue.select("a");
        QCOMPARE(m_app->selectedInterruptId(), QString("a"));
        QCOMPARE(m_app->screen(), AppState::Screen::item);
        queue.back();
        QCOMPARE(m_app->screen(), AppState::Screen::queue);
    }

    void itemShowsEveryContextRowAndNotSupplied() {
        ItemViewModel item;
        item.setApp(m_app.get());
        Interrupt i = interrupt("a", InterruptKind::approval, 10);
        i.reason = "needs a human";
        i.affectedResources = QStringList{"repo/a", "repo/b"};
        i.blastRadius = "";
        i.expiresAt = m_now.addSecs(600);
        show({i});
        m_app->setSelectedInterruptId(QString("a"));
        QVERIFY(item.hasSelection());
        QCOMPARE(item.kindWord(), "approval");
        QCOMPARE(item.title(), "RUN A");
        const QVariantList rows = item.contextRows();
        QCOMPARE(rows.size(), 9);
        QStringList labels;
        for (const QVariant& row : rows)
            labels << row.toMap().value("label").toString();
        QCOMPARE(labels, (QStringList{"WHO IS ASKING", "WHY STOPPED", "PROPOSED ACTION", "AFFECTED RESOURCES",
                                      "BLAST RADIUS", "REVERSIBILITY", "EVIDENCE", "DEADLINE", "NO ANSWER"}));
        QCOMPARE(rows[0].toMap().value("value").toString(), "run a"); // falls back to the run's name
        QCOMPARE(rows[1].toMap().value("value").toString(), "needs a human");
        QCOMPARE(rows[2].toMap().value("value").toString(), "NOT SUPPLIED");
        QCOMPARE(rows[2].toMap().value("supplied").toBool(), false);
        QCOMPARE(rows[3].toMap().value("value").toString(), "repo/a\nrepo/b");
        QCOMPARE(rows[4].toMap().value("value").toString(), "NOT SUPPLIED"); // empty counts as absent
        QVERIFY(rows[7].toMap().value("supplied").toBool());
    }

    void approvalsHaveNoReplyBoxAndAnEmptyApprovalCannotBeAnswered() {
        ItemViewModel item;
        item.setApp(m_app.get());
        show({interrupt("a", InterruptKind::approval, 1), interrupt("q", InterruptKind::question, 1)});
        m_app->setSelectedInterruptId(QString("a"));
        QVERIFY(!item.showsReplyBox());
        QVERIFY(item.options().isEmpty());
        item.chooseOption(0); // nothing to choose
        QVERIFY(m_fake->submittedIds.isEmpty());
        m_app->setSelectedInterruptId(QString("q"));
        QVERIFY(item.showsReplyBox());
    }

    void realActionBannerWithSlugAlone() {
        ItemViewModel item;
        item.setApp(m_app.get());
        Interrupt i = interrupt("a", InterruptKind::approval, 1);
        i.actionSlug = "DELETE_REPO";
        i.target = "";
        show({i});
        m_app->setSelectedInterruptId(QString("a"));
        QVERIFY(item.runsRealAction());
        QCOMPARE(item.actionLine(), "DELETE_REPO");
        QVERIFY(item.targetLine().isEmpty());
    }

    void optionsBecomeVerdicts() {
        ItemViewModel item;
        item.setApp(m_app.get());
        Interrupt i = interrupt("a", InterruptKind::approval, 1);
        i.options = {"Approve", "Reject"};
        show({i});
        m_app->setSelectedInterruptId(QString("a"));
        item.chooseOption(1);
        QCOMPARE(m_fake->submittedIds, QStringList{"a"});
        QCOMPARE(m_fake->submittedVerdicts[0].verdict, VerdictKind::reject);
        QCOMPARE(m_fake->submittedVerdicts[0].reply, QString("Reject"));
    }

    void openingTheDrawerRepliesAndAsksForTheDrawer() {
        ItemViewModel item;
        item.setApp(m_app.get());
        QSignalSpy drawer(&item, &ItemViewModel::drawerRequested);
        Interrupt first = interrupt("n", InterruptKind::question, 1);
        first.options = {"Open the drawer", "Open its terminal"};
        Interrupt second = interrupt("m", InterruptKind::question, 2);
        second.options = first.options;
        show({first, second});
        m_app->setSelectedInterruptId(QString("n"));
        item.chooseOption(1);
        QCOMPARE(drawer.count(), 0);
        m_app->setSelectedInterruptId(QString("m"));
        item.chooseOption(0);
        QCOMPARE(drawer.count(), 1);
        QCOMPARE(m_fake->submittedIds, (QStringList{"n", "m"}));
        QCOMPARE(m_fake->submittedVerdicts[1].verdict, VerdictKind::reply);
        QCOMPARE(m_fake->submittedVerdicts[1].reply, QString("Open the drawer"));
    }

    void aReplyIsTrimmedAndClearedAtOnceEvenWhenItFails() {
        ItemViewModel item;
        item.setApp(m_app.get());
        show({interrupt("q", InterruptKind::question, 1)});
        m_app->setSelectedInterruptId(QString("q"));
        m_app->setScreen(AppState::Screen::item);
        item.setReplyText("  \n ");
        QVERIFY(!item.canSend());
        item.sendReply();
        QVERIFY(m_fake->submittedIds.isEmpty());

        m_fake->nextResult = SubmitError{ClientError::server("status 500")};
        item.setReplyText("  use billing\n");
        QVERIFY(item.canSend());
        item.sendReply();
        QVERIFY(item.replyText().isEmpty());
        QCOMPARE(m_fake->submittedVerdicts[0].verdict, VerdictKind::reply);
        QCOMPARE(m_fake->submittedVerdicts[0].reply, QString("use billing"));
        QCOMPARE(m_app->sentToast(), QString::fromUtf8("NOT SENT \u2014 TRY AGAIN"));
        // The person is still on the item, with an empty reply box.
        QCOMPARE(m_app->screen(), AppState::Screen::item);
        QVERIFY(item.replyText().isEmpty());
    }

    void anInterruptAnsweredElsewhereLeavesNothingSelected() {
        ItemViewModel item;
        item.setApp(m_app.get());
        show({interrupt("a", InterruptKind::question, 1)});
        m_app->setSelectedInterruptId(QString("a"));
        m_app->setScreen(AppState::Screen::item);
        QSignalSpy spy(&item, &ItemViewModel::changed);
        show({});
        QVERIFY(spy.count() >= 1);
        QVERIFY(!item.hasSelection());
        QCOMPARE(ItemViewModel::nothingSelected(), "Nothing selected.");
        QCOMPARE(m_app->screen(), AppState::Screen::item);
    }

    void homeCountersAlertAndSuggestions() {
        HomeViewModel home;
        CLIStatusStore cli(CLIStatusStore::defaultPollInterval);
        home.setApp(m_app.get());
        home.setCli(&cli);
        QVERIFY(!home.hasInterrupts());
        QCOMPARE(HomeViewModel::nothingWaiting(), "Nothing waiting on you.");
        show({interrupt("a", InterruptKind::approval, 1), interrupt("c1", InterruptKind::choice, 1),
              interrupt("c2", InterruptKind::choice, 1)},
             0);
        QCOMPARE(home.running(), 2);
        QCOMPARE(home.done(), 9);
        QCOMPARE(home.needInputText(), "3 need input");
        QCOMPARE(home.rows(), (QStringList{"1 approval", "2 choices"}));
        QVERIFY(!home.showsSuggestions()); // zero
        show({}, std::nullopt);
        QVERIFY(!home.showsSuggestions()); // absent
        show({}, 1);
        QCOMPARE(home.suggestionText(), "\u25D4 1 THING WORTH WRITING DOWN \u203A");
        home.openQueue();
        QCOMPARE(m_app->screen(), AppState::Screen::queue);
        QVERIFY(home.showsConnectPrompt());
        QCOMPARE(home.claudeUsageText(), "NOT CONNECTED");
        QCOMPARE(home.codexUsageText(), "NOT CONNECTED");
    }
};

QTEST_GUILESS_MAIN(ScreenViewModelsTest)
#include "ScreenViewModelsTest.moc"
