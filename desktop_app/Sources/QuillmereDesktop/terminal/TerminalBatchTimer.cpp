#include "QuillmereDesktop/terminal/TerminalBatchTimer.h"

TerminalBatchTimer::TerminalBatchTimer(std::chrono::milliseconds delay) {
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, &TerminalBatchTimer::fired);
    m_timer.start(delay);
}

void TerminalBatchTimer::cancel() {
    if (!m_timer.isActive())
        return;
    m_timer.stop();
    // Queued, so that the canceller's own flush starts first and takes the pending chunks.
    QTimer::singleShot(0, this, &TerminalBatchTimer::fired);
}
