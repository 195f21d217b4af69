// The Qt side of the terminal library's process layer: work on the main thread, a flood
// that leaves the event loop turning, and the terminal's timers.

#include <QElapsedTimer>
#include <QEventLoop>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <atomic>
#include <thread>
#include <vector>

#include "Termkit/view/qt/MainThreadExecutor.h"
#include "Termkit/view/qt/QtTerminalScheduler.h"

using termkit::MainThreadExecutor;
using termkit::QtTerminalScheduler;
#include "Termkit/engine/ScreenText.h"
#include "Termkit/process/HeadlessTerminal.h"

namespace {

// Counts the work that reaches the main thread, and notes what ran in which order.
class CountingExecutor : public termkit::SerialExecutor {
public:
    explicit CountingExecutor(std::vector<char>& trace) : m_trace(trace) {}
    void post(std::function<void()> work) override {
        m_inner.post([this, work = std::move(work)] {
            m_trace.push_back('S');
            QElapsedTimer timer;
            timer.start();
            work();
            const qint64 spent = timer.nsecsElapsed();
            busyNs += spent;
            longestNs = std::max(longestNs, spent);
        });
    }
    bool isMainQueue() const override { return m_inner.isMainQueue(); }
    // Time the main thread spent in the library's work, in all and at the longest stretch.
    qint64 busyNs = 0;
    qint64 longestNs = 0;

private:
    MainThreadExecutor m_inner;
    std::vector<char>& m_trace;
};

constexpr qint64 kFloodBytes = 100'000'000;
const char kFloodLine[] = "the quick brown fox jumps over the lazy dog 0123456789";

} // namespace

class MainThreadExecutorTest : public QObject {
    Q_OBJECT
private slots:
    void postedWorkRunsOnTheMainThreadInOrder();
    void workQueuedAtDestructionIsDropped();
    void sharedExecutorIsOne();
    void aHundredMegabyteFloodLeavesTheEventLoopTurning();
    void schedulerRunsAndCancelsTerminalTimers();
};

void MainThreadExecutorTest::postedWorkRunsOnTheMainThreadInOrder() {
    MainThreadExecutor executor;
    QVERIFY(executor.isMainQueue());
    constexpr int kThreads = 4;
    constexpr int kEach = 500;
    std::vector<std::vector<int>> seen(kThreads);
    std::atomic<int> offMain{0};
    std::vector<std::thread> posters;
    for (int t = 0; t < kThreads; ++t) {
        posters.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                executor.post([&, t, i] {
                    if (QThread::currentThread() != qApp->thread())
                        ++offMain;
                    seen[static_cast<size_t>(t)].push_back(i);
                });
            }
        });
    }
    for (auto& poster : posters)
        poster.join();
    QTRY_VERIFY_WITH_TIMEOUT(
        std::all_of(seen.begin(), seen.end(), [](const auto& s) { return s.size() == kEach; }), 10000);
    QCOMPARE(offMain.load(), 0);
    for (const auto& s : seen) {
        for (int i = 0; i < kEach; ++i)
            QCOMPARE(s[static_cast<size_t>(i)], i);
    }
}

void MainThreadExecutorTest::workQueuedAtDestructionIsDropped() {
    bool ran = false;
    {
        MainThreadExecutor executor;
        executor.post([&] { ran = true; });
    }
    QTest::qWait(20);
    QVERIFY(!ran);
}

void MainThreadExecutorTest::sharedExecutorIsOne() {
    // The reader threads of every terminal reach the same executor as the main thread does.
    MainThreadExecutor* const onMain = &MainThreadExecutor::shared();
    MainThreadExecutor* onReader = nullptr;
    QThread* ranOn = nullptr;
    std::thread reader([&] {
        onReader = &MainThreadExecutor::shared();
        onReader->post([&] { ranOn = QThread::currentThread(); });
    });
    reader.join();
    QCOMPARE(onReader, onMain);
    // What a reader thread posts runs on the main thread.
    QTRY_VERIFY(ranOn != nullptr);
    QCOMPARE(ranOn, QCoreApplication::instance()->thread());
}

// A child writes 100 MB at once into a headless terminal fed on the main thread. The
// backlog never passes the high water mark plus one read, and a 1 ms timer keeps firing
// between the delivery slices.
void MainThreadExecutorTest::aHundredMegabyteFloodLeavesTheEventLoopTurning() {
    std::vector<char> trace;
    trace.reserve(1 << 20);
    CountingExecutor executor(trace);
    termkit::TerminalOptions options;
    options.cols = 80;
    options.rows = 24;
    bool ended = false;
    std::optional<int32_t> exitCode;
    // A real event loop: the test macros' own waiting sleeps 10 ms between turns.
    QEventLoop events;
    termkit::HeadlessTerminal headless(executor, options, [&](std::optional<int32_t> code) {
        ended = true;
        exitCode = code;
        events.quit();
    });

    QTimer ticker;
    ticker.setInterval(1);
    ticker.setTimerType(Qt::PreciseTimer);
    QElapsedTimer clock;
    qint64 lastTick = -1;
    qint64 longestGap = 0;
    int ticks = 0;
    connect(&ticker, &QTimer::timeout, this, [&] {
        const qint64 now = clock.nsecsElapsed();
        if (lastTick >= 0)
            longestGap = std::max(longestGap, now - lastTick);
        lastTick = now;
        ++ticks;
        trace.push_back('T');
    });
    clock.start();
    ticker.start();

    const QString command = QStringLiteral("yes '%1' | head -c %2").arg(kFloodLine).arg(kFloodBytes);
    headless.process().startProcess("/bin/sh", {"-c", command.toStdString()});
    QVERIFY(headless.process().running());
    // The interface is busy at first: the backlog fills up to the high water mark, and the
    // reader stops until delivery has brought it down again.
    QElapsedTimer busy;
    busy.start();
    while (!headless.process().pendingStatus().readSuspendedForBackpressure && busy.elapsed() < 20000)
        QThread::msleep(1);
    QVERIFY(headless.process().pendingStatus().readSuspendedForBackpressure);
    QTimer::singleShot(120000, &events, &QEventLoop::quit);
    events.exec();
    QVERIFY(ended);
    const qint64 elapsed = clock.nsecsElapsed();
    ticker.stop();

    const auto status = headless.process().pendingStatus();
    // Between two runs of library work the loop served the timer, again and again.
    int interleaved = 0;
    for (size_t i = 1; i + 1 < trace.size(); ++i) {
        if (trace[i] == 'T' && trace[i - 1] == 'S' && trace[i + 1] == 'S')
            ++interleaved;
    }
    const int slices = static_cast<int>(std::count(trace.begin(), trace.end(), 'S'));
    qInfo("flood: %lld bytes in %.2f s (%.0f MB/s), %d posts, %llu slices cut, main thread in the library "
          "%.2f s (longest stretch %.1f ms), %d ticks, %d ticks between slices, longest gap between ticks "
          "%.1f ms, peak backlog %zu bytes, %llu suspensions",
          static_cast<long long>(status.totalRead), elapsed / 1e9, status.totalRead / (elapsed / 1e3), slices,
          static_cast<unsigned long long>(status.slicesCut), executor.busyNs / 1e9, executor.longestNs / 1e6,
          ticks, interleaved, longestGap / 1e6, status.peakPendingBytes,
          static_cast<unsigned long long>(status.suspensions));
    QCOMPARE(exitCode, std::optional<int32_t>(0));
    // Every byte arrived; the pseudo-terminal sent each line feed as a carriage return and a line feed.
    const qint64 lineLength = static_cast<qint64>(sizeof kFloodLine); // the text and its line feed
    const qint64 lineFeeds = kFloodBytes / lineLength;
    QCOMPARE(static_cast<qint64>(status.totalRead), kFloodBytes + lineFeeds);
    QVERIFY2(status.peakPendingBytes <
                 termkit::LocalProcess::kPendingHighWaterBytes + termkit::LocalProcess::kReadSize,
             qPrintable(QString::number(status.peakPendingBytes)));
    QVERIFY(status.suspensions >= 1);
    QCOMPARE(status.resumptions, status.suspensions);
    // The screen shows the end of the stream.
    const auto screen = termkit::screenText(headless.terminal());
    QVERIFY(std::count(screen.begin(), screen.end(), std::string(kFloodLine)) >= 20);

    // The 4 MiB that piled up while the interface was busy went over in more than one slice.
    QVERIFY(status.slicesCut >= 1);
    QVERIFY2(interleaved >= 10, qPrintable(QString::number(interleaved)));
}

void MainThreadExecutorTest::schedulerRunsAndCancelsTerminalTimers() {
    QtTerminalScheduler scheduler;
    int fired = 0;
    const auto first = scheduler.schedule(std::chrono::milliseconds(5), [&] { ++fired; });
    const auto second = scheduler.schedule(std::chrono::milliseconds(5), [&] { fired += 100; });
    QVERIFY(first != second);
    QCOMPARE(scheduler.pending(), size_t(2));
    scheduler.cancel(second);
    scheduler.cancel(12345); // unknown: ignored
    QTRY_COMPARE(fired, 1);
    QCOMPARE(scheduler.pending(), size_t(0));
    QTest::qWait(20);
    QCOMPARE(fired, 1);
    scheduler.cancel(first); // already ran: ignored

    // A terminal's synchronized output ends by itself through the scheduler.
    QtTerminalScheduler terminalTimers;
    termkit::HeadlessTerminal headless(MainThreadExecutor::shared(), {}, {}, &terminalTimers);
    headless.terminal().setSynchronizedOutputTimeout(std::chrono::milliseconds(10));
    headless.terminal().feed(std::string_view("\x1b[?2026h"));
    QVERIFY(headless.terminal().synchronizedOutputActive());
    QTRY_VERIFY(!headless.terminal().synchronizedOutputActive());
}

QTEST_GUILESS_MAIN(MainThreadExecutorTest)
#include "MainThreadExecutorTest.moc"
