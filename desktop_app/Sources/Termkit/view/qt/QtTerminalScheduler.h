#pragma once

#include <QObject>

#include <map>
#include <memory>

#include "Termkit/engine/TerminalScheduler.h"

class QTimer;

namespace termkit {

// The terminal library's timers (such as the end of synchronized output) on the Qt event
// loop of the thread that made the scheduler.
class QtTerminalScheduler : public TerminalScheduler {
public:
    QtTerminalScheduler();
    ~QtTerminalScheduler() override;

    Token schedule(std::chrono::milliseconds delay, std::function<void()> action) override;
    void cancel(Token token) override;
    // Actions scheduled and neither run nor cancelled.
    size_t pending() const { return m_timers.size(); }

private:
    QObject m_context;
    Token m_next = 0;
    std::map<Token, QTimer*> m_timers;
};

} // namespace termkit
