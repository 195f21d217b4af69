#include "Termkit/view/render/RendererStatus.h"

namespace termkit {

const char* RendererStatus::describe(State state) {
    switch (state) {
    case State::disabled:
        return "disabled";
    case State::waitingForFirstFrame:
        return "waiting for first frame";
    case State::healthy:
        return "healthy";
    case State::recovering:
        return "recovering";
    case State::fellBackToCoreGraphics:
        return "fell back to software";
    }
    return "disabled";
}

void RendererHealth::rendererCreated() {
    if (m_status.state == RendererStatus::State::disabled ||
        m_status.state == RendererStatus::State::fellBackToCoreGraphics)
        m_status.state = RendererStatus::State::waitingForFirstFrame;
}

void RendererHealth::didPresentAt(std::chrono::nanoseconds now) {
    ++m_status.presentedFrameCount;
    m_status.lastFramePresentedAt = now;
    if (m_status.state == RendererStatus::State::waitingForFirstFrame ||
        m_status.state == RendererStatus::State::recovering)
        m_status.state = RendererStatus::State::healthy;
}

bool RendererHealth::beginReplacementAfterFailure(std::chrono::nanoseconds now) {
    if (m_status.state == RendererStatus::State::fellBackToCoreGraphics ||
        m_status.state == RendererStatus::State::disabled)
        return false;
    if (!m_policy.allowsReplacement(now)) {
        fellBackToSoftware();
        return false;
    }
    m_policy.recordReplacement(now);
    m_status.state = RendererStatus::State::recovering;
    return true;
}

void RendererHealth::fellBackToSoftware() {
    m_status.state = RendererStatus::State::fellBackToCoreGraphics;
}

void RendererHealth::disable() {
    m_status.state = RendererStatus::State::disabled;
}

} // namespace termkit
