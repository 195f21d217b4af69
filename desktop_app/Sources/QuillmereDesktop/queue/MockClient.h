#pragma once

#include "QuillmereDesktop/queue/MereClient.h"

#include <QTimer>

#include <chrono>
#include <random>

// The demo queue's clock: how often it ticks and how long a verdict takes.
struct MockClientTiming {
    static constexpr std::chrono::milliseconds defaultTickInterval{6000};
    // Stands for the network's delay on a verdict.
    static constexpr std::chrono::milliseconds defaultSubmitDelay{350};

    std::chrono::milliseconds tickInterval = defaultTickInterval;
    std::chrono::milliseconds submitDelay = defaultSubmitDelay;
};

// A self-contained demo queue: two interrupts to begin with and a slow trickle of
// invented ones, so the screens can be tried without any relay.
class MockClient : public MereClient {
    Q_OBJECT
public:
    using Timing = MockClientTiming;
    // A new interrupt may come every this many ticks...
    static constexpr int newInterruptEvery = 4;
    // ...while fewer than this many are open...
    static constexpr int maxOpenInterrupts = 4;
    // ...and the usage moves every this many ticks.
    static constexpr int usageMovesEvery = 5;

    explicit MockClient(Timing timing = {}, std::optional<unsigned> randomSeed = std::nullopt,
                        QObject* parent = nullptr);

    void connect(SnapshotCallback onSnapshot, ConnectionCallback onConnectionChange) override;
    void disconnect() override;
    QCoro::Task<SubmitResult> submitVerdict(QString interruptId, Verdict verdict) override;

    // One firing of the demo timer; public so tests can step the queue without waiting.
    void tick();

    const Snapshot& snapshot() const { return m_snapshot; }
    int runCounter() const { return m_runCounter; }
    bool isTicking() const { return m_timer != nullptr; }

    // The demo queue every new client starts from; "now" is the moment of the call.
    static Snapshot startingSnapshot();

private:
    Interrupt randomInterrupt();
    int randomInt(int low, int high);
    void publish();

    Timing m_timing;
    QTimer* m_timer = nullptr;
    Snapshot m_snapshot;
    SnapshotCallback m_onSnapshot;
    int m_runCounter = 0;
    std::mt19937 m_random;
};
