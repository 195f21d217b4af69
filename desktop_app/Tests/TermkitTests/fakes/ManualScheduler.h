#pragma once
// A scheduler whose clock moves only when a test says so.

#include <map>
#include <utility>

#include "Termkit/engine/TerminalScheduler.h"

namespace termkit::testing {

class ManualScheduler : public TerminalScheduler {
public:
    Token schedule(std::chrono::milliseconds delay, std::function<void()> action) override {
        const Token token = ++m_next;
        m_pending[token] = {m_now + delay, std::move(action)};
        return token;
    }
    void cancel(Token token) override { m_pending.erase(token); }
    /// Moves the clock on, running every action that falls due, in order.
    void advance(std::chrono::milliseconds by) {
        const auto until = m_now + by;
        while (true) {
            auto due = m_pending.end();
            for (auto it = m_pending.begin(); it != m_pending.end(); ++it) {
                if (it->second.first <= until &&
                    (due == m_pending.end() || it->second.first < due->second.first))
                    due = it;
            }
            if (due == m_pending.end())
                break;
            m_now = due->second.first;
            auto action = std::move(due->second.second);
            m_pending.erase(due);
            action();
        }
        m_now = until;
    }
    size_t pending() const { return m_pending.size(); }

private:
    std::chrono::milliseconds m_now{0};
    Token m_next = 0;
    std::map<Token, std::pair<std::chrono::milliseconds, std::function<void()>>> m_pending;
};

} // namespace termkit::testing
