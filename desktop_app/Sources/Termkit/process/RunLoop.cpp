#include "Termkit/process/RunLoop.h"

#include <algorithm>
#include <utility>

namespace termkit {

void RunLoop::post(std::function<void()> work) {
    {
        std::lock_guard lock(m_lock);
        m_queue.push_back(std::move(work));
    }
    m_posted.notify_one();
}

bool RunLoop::runOne(std::chrono::milliseconds timeout) {
    std::function<void()> work;
    {
        std::unique_lock lock(m_lock);
        if (!m_posted.wait_for(lock, timeout, [this] { return !m_queue.empty(); }))
            return false;
        work = std::move(m_queue.front());
        m_queue.pop_front();
    }
    // The lock is released first: the work may post more work.
    work();
    return true;
}

bool RunLoop::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (!done()) {
        const auto now = Clock::now();
        if (now >= deadline)
            return done();
        // Short waits keep the predicate fresh when it depends on other threads.
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now);
        runOne(std::min(left, std::chrono::milliseconds{10}));
    }
    return true;
}

void RunLoop::run() {
    while (true) {
        std::function<void()> work;
        {
            std::unique_lock lock(m_lock);
            m_posted.wait(lock, [this] { return !m_queue.empty() || m_quit; });
            if (m_quit) {
                m_quit = false;
                return;
            }
            work = std::move(m_queue.front());
            m_queue.pop_front();
        }
        work();
    }
}

void RunLoop::quit() {
    {
        std::lock_guard lock(m_lock);
        m_quit = true;
    }
    m_posted.notify_all();
}

size_t RunLoop::pendingCount() const {
    std::lock_guard lock(m_lock);
    return m_queue.size();
}

} // namespace termkit
