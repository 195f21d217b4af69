#pragma once
// A clock that moves only when told, and a scheduler that runs what falls due as it moves.

#include <chrono>
#include <functional>
#include <map>
#include <utility>

#include "Termkit/view/render/FrameScheduling.h"

namespace termkit {

class ManualFrameClock : public FrameClock {
public:
    std::chrono::nanoseconds now() const override { return m_now; }
    void set(std::chrono::nanoseconds t) { m_now = t; }

private:
    std::chrono::nanoseconds m_now{1'000'000'000};
};

class ManualFrameScheduler : public FrameScheduler {
public:
    explicit ManualFrameScheduler(ManualFrameClock& clock) : m_clock(clock) {}

    Task schedule(std::chrono::milliseconds delay, std::function<void()> action) override {
        const Task task = ++m_next;
        m_tasks.emplace(task, Pending{m_clock.now() + delay, delay, std::move(action)});
        return task;
    }
    void cancel(Task task) override { m_tasks.erase(task); }

    /// Moves the clock forward, running each task as its time comes, in time order.
    void advance(std::chrono::nanoseconds by) {
        const auto end = m_clock.now() + by;
        for (;;) {
            auto due = m_tasks.end();
            for (auto it = m_tasks.begin(); it != m_tasks.end(); ++it)
                if (it->second.at <= end && (due == m_tasks.end() || it->second.at < due->second.at))
                    due = it;
            if (due == m_tasks.end())
                break;
            m_clock.set(due->second.at);
            auto action = std::move(due->second.action);
            m_tasks.erase(due);
            action();
        }
        m_clock.set(end);
    }
    size_t pending() const { return m_tasks.size(); }
    /// The delays of the tasks now waiting, earliest first.
    std::vector<std::chrono::milliseconds> delays() const {
        std::vector<std::chrono::milliseconds> out;
        for (const auto& [task, p] : m_tasks)
            out.push_back(p.delay);
        return out;
    }

private:
    struct Pending {
        std::chrono::nanoseconds at;
        std::chrono::milliseconds delay;
        std::function<void()> action;
    };
    ManualFrameClock& m_clock;
    Task m_next = 0;
    std::map<Task, Pending> m_tasks;
};

} // namespace termkit
