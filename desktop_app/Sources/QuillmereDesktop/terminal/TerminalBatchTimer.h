#pragma once

#include <QObject>
#include <QTimer>

#include <chrono>

// The batching timer of a pipeline: it fires once after the delay, or at once (on the
// next turn of the event loop) when cancelled, so that whoever waits on it goes on.
class TerminalBatchTimer : public QObject {
    Q_OBJECT
public:
    explicit TerminalBatchTimer(std::chrono::milliseconds delay);
    // Cuts the wait short; the waiter still runs, after the caller's own work.
    void cancel();

signals:
    void fired();

private:
    QTimer m_timer;
};
