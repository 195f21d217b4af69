#include "QuillmereDesktop/common/MemoryPreferencesStore.h"
#include "QuillmereDesktop/queue/AppState.h"

#include <QTemporaryDir>
#include <QTest>

#include <chrono>

using namespace std::chrono_literals;

// One interrupt's whole life in demo mode, on a real event loop with shortened timers:
// it arrives, is picked, answered, confirmed, and leaves the queue; new ones keep coming.
class DemoQueueLifeTest : public QObject {
    Q_OBJECT

private slots:
    void oneInterruptFromArrivalToRemoval() {
        QTemporaryDir home;
        MemoryPreferencesStore prefs;
        prefs.setBool("standaloneQueueDefaultV1", true);
        prefs.setBool("useMock", true);
        AppStateConfig config;
        config.toastDuration = 100ms;
        config.mockTiming = {40ms, 20ms};
        config.homeDirectory = home.path();

        AppState state(prefs, config);
        QTRY_VERIFY(state.online());
        QTRY_COMPARE(state.snapshot().interrupts.size(), 2);
        const Interrupt picked = state.snapshot().interrupts.first();
        QCOMPARE(picked.prompt, "Delete 4 stale feature branches on origin?");

        state.setScreen(AppState::Screen::queue);
        state.setSelectedInterruptId(picked.id);
        state.setScreen(AppState::Screen::item);
        QCOMPARE(state.selectedInterrupt()->id, picked.id);

        state.submit(
            {VerdictKind::approve, std::nullopt, Verdict::desktopSource, QDateTime::currentDateTimeUtc()});
        QTRY_COMPARE(state.sentToast(), QString("SENT"));
        QCOMPARE(state.screen(), AppState::Screen::queue);
        QVERIFY(!state.selectedInterruptId());
        const auto stillThere = [&] {
            for (const Interrupt& i : state.snapshot().interrupts)
                if (i.id == picked.id)
                    return true;
            return false;
        };
        QVERIFY(!stillThere());
        QCOMPARE(state.snapshot().done, 13);
        QTRY_VERIFY(!state.sentToast());

        // Answer the other one too: the demo client goes home when nothing is left...
        state.setSelectedInterruptId(state.snapshot().interrupts.first().id);
        state.setScreen(AppState::Screen::item);
        state.submit({VerdictKind::reply, QString("Billing"), Verdict::desktopSource,
                      QDateTime::currentDateTimeUtc()});
        QTRY_COMPARE(state.sentToast(), QString("SENT"));
        if (state.snapshot().interrupts.isEmpty())
            QCOMPARE(state.screen(), AppState::Screen::home);
        // ...and the timer keeps inventing new ones.
        QTRY_VERIFY_WITH_TIMEOUT(!state.snapshot().interrupts.isEmpty(), 3000);
    }
};

QTEST_GUILESS_MAIN(DemoQueueLifeTest)
#include "DemoQueueLifeTest.moc"
