#pragma once

#include <QObject>
#include <qcoro/qcorotask.h>

#include <functional>

// Holds the application's quit until what must end with it has ended, with the event loop
// still turning: the window keeps drawing while the agents are told to stop and an owned
// relay is awaited (its manager bounds that wait). Every way of quitting (the last window
// closed, a signal, a menu) reaches the application as a quit event, which this catches
// once; when the sequence is done the application exits.
class QuitSequence : public QObject {
    Q_OBJECT
public:
    // `stopAtOnce` runs first and must not wait; `stopAndWait` is awaited before the exit.
    QuitSequence(std::function<void()> stopAtOnce, std::function<QCoro::Task<>()> stopAndWait,
                 QObject* parent = nullptr);
    ~QuitSequence() override;

    // Whether a quit has been asked for and the sequence is under way.
    bool isRunning() const { return m_running; }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    QCoro::Task<> run();

    std::function<void()> m_stopAtOnce;
    std::function<QCoro::Task<>()> m_stopAndWait;
    bool m_running = false;
};
