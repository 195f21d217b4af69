#pragma once
// The frame coordinator's timers on the Qt main thread.

#include <QObject>

#include <map>
#include <mutex>

#include "Termkit/view/render/FrameScheduling.h"

class QTimer;

namespace termkit {

/// Runs scheduled actions on the thread that made the scheduler (the main thread). Frames
/// are built and refused on the render thread, so scheduling and cancelling from any
/// thread is allowed: the timer itself is always started and stopped on the main thread.
class QtFrameScheduler : public FrameScheduler {
public:
    QtFrameScheduler();
    ~QtFrameScheduler() override;

    Task schedule(std::chrono::milliseconds delay, std::function<void()> action) override;
    void cancel(Task task) override;
    /// Tasks neither run nor cancelled.
    size_t pending() const;

private:
    void start(Task task, std::chrono::milliseconds delay);
    void run(Task task);

    QObject m_context;
    mutable std::mutex m_lock;
    Task m_next = 0;
    std::map<Task, std::function<void()>> m_actions;
    std::map<Task, QTimer*> m_timers; // main thread only
};

} // namespace termkit
