#include "Termkit/view/qt/QtFrameScheduler.h"

#include <QMetaObject>
#include <QThread>
#include <QTimer>

namespace termkit {

QtFrameScheduler::QtFrameScheduler() = default;

// The timers are children of the context and go with it.
QtFrameScheduler::~QtFrameScheduler() = default;

FrameScheduler::Task QtFrameScheduler::schedule(std::chrono::milliseconds delay,
                                                std::function<void()> action) {
    Task task;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        task = ++m_next;
        m_actions[task] = std::move(action);
    }
    // Queued even on the main thread: an action never runs inside the call that made it.
    QMetaObject::invokeMethod(
        &m_context, [this, task, delay] { start(task, delay); }, Qt::QueuedConnection);
    return task;
}

void QtFrameScheduler::start(Task task, std::chrono::milliseconds delay) {
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_actions.find(task) == m_actions.end())
            return; // cancelled before it could start
    }
    auto* timer = new QTimer(&m_context);
    timer->setSingleShot(true);
    timer->setTimerType(Qt::PreciseTimer);
    QObject::connect(timer, &QTimer::timeout, &m_context, [this, task] { run(task); });
    m_timers[task] = timer;
    timer->start(delay);
}

void QtFrameScheduler::run(Task task) {
    if (auto it = m_timers.find(task); it != m_timers.end()) {
        it->second->deleteLater();
        m_timers.erase(it);
    }
    std::function<void()> action;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        auto it = m_actions.find(task);
        if (it == m_actions.end())
            return;
        action = std::move(it->second);
        m_actions.erase(it);
    }
    action();
}

void QtFrameScheduler::cancel(Task task) {
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_actions.erase(task);
    }
    // The timer, if it has started, fires into an empty slot and is deleted then; it is
    // stopped here only when the caller is on the main thread.
    if (QThread::currentThread() == m_context.thread()) {
        if (auto it = m_timers.find(task); it != m_timers.end()) {
            it->second->stop();
            it->second->deleteLater();
            m_timers.erase(it);
        }
    }
}

size_t QtFrameScheduler::pending() const {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_actions.size();
}

} // namespace termkit
