#include "Termkit/view/qt/QtTerminalScheduler.h"

#include <QTimer>

namespace termkit {

QtTerminalScheduler::QtTerminalScheduler() = default;

// The timers are children of the context and go with it.
QtTerminalScheduler::~QtTerminalScheduler() = default;

TerminalScheduler::Token QtTerminalScheduler::schedule(std::chrono::milliseconds delay,
                                                       std::function<void()> action) {
    const Token token = ++m_next;
    auto* timer = new QTimer(&m_context);
    timer->setSingleShot(true);
    QObject::connect(timer, &QTimer::timeout, &m_context, [this, token, action = std::move(action)] {
        // Forgotten first: the action may schedule again, or cancel its own token.
        if (auto it = m_timers.find(token); it != m_timers.end()) {
            it->second->deleteLater();
            m_timers.erase(it);
        }
        action();
    });
    m_timers[token] = timer;
    timer->start(delay);
    return token;
}

void QtTerminalScheduler::cancel(Token token) {
    auto it = m_timers.find(token);
    if (it == m_timers.end())
        return;
    it->second->stop();
    it->second->deleteLater();
    m_timers.erase(it);
}

} // namespace termkit
