#pragma once

#include <QObject>

class QSocketNotifier;

// Turns SIGTERM, SIGINT and SIGHUP into an orderly quit of the event loop, so that a
// session logout or a Ctrl+C still stops the agents and the relay this process started.
class QuitOnSignal : public QObject {
    Q_OBJECT
public:
    explicit QuitOnSignal(QObject* parent = nullptr);
    ~QuitOnSignal() override;

private:
    static void handle(int signal);
    void onSignal();

    QSocketNotifier* m_notifier = nullptr;
};
