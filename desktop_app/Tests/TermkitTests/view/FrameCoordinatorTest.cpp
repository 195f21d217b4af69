// Frames one at a time, refusals, retries, watchdogs and recovery, on a fake clock.

#include <gtest/gtest.h>

#include <optional>
#include <vector>

#include "Termkit/view/render/FrameCoordinator.h"
#include "view/fakes/FakeFrameScheduling.h"

namespace termkit {
namespace {

using namespace std::chrono_literals;
using Token = FrameCoordinator::Token;

class FrameCoordinatorTest : public ::testing::Test {
protected:
    FrameCoordinatorTest() : scheduler(clock) {}

    std::unique_ptr<FrameCoordinator> make() {
        FrameCoordinator::Callbacks callbacks;
        callbacks.isRetryEligible = [this] { return eligible; };
        callbacks.requestDraw = [this] { ++draws; };
        callbacks.requestRecovery = [this](const RendererRecoveryReport& r) { reports.push_back(r); };
        callbacks.becameIdle = [this] { ++idles; };
        return std::make_unique<FrameCoordinator>(clock, scheduler, callbacks);
    }

    static Token token(const std::variant<Token, FrameRefusalReason>& begun) {
        EXPECT_TRUE(std::holds_alternative<Token>(begun));
        return std::get<Token>(begun);
    }

    ManualFrameClock clock;
    ManualFrameScheduler scheduler;
    bool eligible = true;
    int draws = 0;
    int idles = 0;
    std::vector<RendererRecoveryReport> reports;
};

TEST_F(FrameCoordinatorTest, OneFrameAtATime) {
    auto c = make();
    const Token first = token(c->begin());
    const auto second = c->begin();
    ASSERT_TRUE(std::holds_alternative<FrameRefusalReason>(second));
    EXPECT_EQ(std::get<FrameRefusalReason>(second), FrameRefusalReason::activeFrame);
    c->didSubmit(first);
    c->complete(first, TrackedCommandBufferStatus::completed);
    EXPECT_FALSE(c->hasActiveFrame());
    EXPECT_EQ(idles, 1);
    const Token third = token(c->begin());
    EXPECT_NE(third.value, first.value);
}

TEST_F(FrameCoordinatorTest, ActiveFrameRefusalStartsNoFailureEpisode) {
    auto c = make();
    const Token t = token(c->begin());
    c->refuse(t, FrameRefusalReason::activeFrame);
    EXPECT_FALSE(c->inFailureEpisode());
    EXPECT_FALSE(c->retryPending());
    EXPECT_EQ(scheduler.pending(), 0u);
    scheduler.advance(10s);
    EXPECT_EQ(draws, 0);
    EXPECT_TRUE(reports.empty());
}

TEST_F(FrameCoordinatorTest, RefusalsRetryAfterGrowingDelays) {
    auto c = make();
    std::vector<std::chrono::milliseconds> seen;
    for (size_t i = 0; i < FrameCoordinator::kRetryDelays.size() + 2; ++i) {
        const Token t = token(c->begin());
        c->refuse(t, FrameRefusalReason::missingDrawable);
        EXPECT_TRUE(c->retryPending());
        // The retry is the shortest task; the failure watchdog waits behind it.
        const auto delays = scheduler.delays();
        seen.push_back(*std::min_element(delays.begin(), delays.end()));
        const int before = draws;
        scheduler.advance(seen.back());
        EXPECT_EQ(draws, before + 1);
    }
    const auto& list = FrameCoordinator::kRetryDelays;
    for (size_t i = 0; i < list.size(); ++i)
        EXPECT_EQ(seen[i], list[i]);
    // The last delay repeats.
    EXPECT_EQ(seen[list.size()], list.back());
    EXPECT_EQ(seen[list.size() + 1], list.back());
    EXPECT_EQ(c->lastFailureReason(), FrameRefusalReason::missingDrawable);
}

TEST_F(FrameCoordinatorTest, NoRetryWhenTheViewCannotDraw) {
    auto c = make();
    eligible = false;
    const Token t = token(c->begin());
    c->refuse(t, FrameRefusalReason::missingCommandBuffer);
    EXPECT_TRUE(c->inFailureEpisode());
    EXPECT_FALSE(c->retryPending());
    scheduler.advance(100ms);
    EXPECT_EQ(draws, 0);
}

TEST_F(FrameCoordinatorTest, ALongEpisodeAsksForRecoveryOnce) {
    auto c = make();
    for (int i = 0; i < 40; ++i) {
        if (auto begun = c->begin(); std::holds_alternative<Token>(begun))
            c->refuse(std::get<Token>(begun), FrameRefusalReason::missingRenderEncoder);
        scheduler.advance(200ms);
    }
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].reason, FrameRefusalReason::missingRenderEncoder);
    EXPECT_GE(reports[0].failureDuration, FrameCoordinator::kFailureRecoveryAfter);
    EXPECT_TRUE(c->failureRecoveryRequested());
}

TEST_F(FrameCoordinatorTest, SuccessEndsTheEpisode) {
    auto c = make();
    Token t = token(c->begin());
    c->refuse(t, FrameRefusalReason::missingDrawable);
    scheduler.advance(16ms);
    t = token(c->begin());
    c->didSubmit(t);
    c->complete(t, TrackedCommandBufferStatus::completed);
    EXPECT_FALSE(c->inFailureEpisode());
    EXPECT_EQ(c->retryIndex(), 0u);
    EXPECT_EQ(scheduler.pending(), 0u); // watchdogs and retries are gone
    scheduler.advance(10s);
    EXPECT_TRUE(reports.empty());
}

TEST_F(FrameCoordinatorTest, AFrameThatNeverCompletesIsGivenUp) {
    auto c = make();
    const Token t = token(c->begin());
    c->didSubmit(t);
    scheduler.advance(FrameCoordinator::kFrameWatchdog);
    EXPECT_FALSE(c->hasActiveFrame());
    EXPECT_TRUE(c->inFailureEpisode());
    // Its late completion changes nothing; a new frame may begin.
    c->complete(t, TrackedCommandBufferStatus::completed);
    EXPECT_TRUE(c->inFailureEpisode());
    EXPECT_TRUE(std::holds_alternative<Token>(c->begin()));
    // Left failing, it asks for recovery with the frame's status in the report.
    scheduler.advance(FrameCoordinator::kFailureRecoveryAfter);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].commandBufferStatus, TrackedCommandBufferStatus::committed);
    EXPECT_FALSE(reports[0].reason.has_value());
}

TEST_F(FrameCoordinatorTest, ACompletionWithAnErrorIsAFailure) {
    auto c = make();
    const Token t = token(c->begin());
    c->didSubmit(t);
    c->complete(t, TrackedCommandBufferStatus::error, "device lost");
    EXPECT_TRUE(c->inFailureEpisode());
    EXPECT_TRUE(c->retryPending());
    scheduler.advance(FrameCoordinator::kFailureRecoveryAfter);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].commandBufferStatus, TrackedCommandBufferStatus::error);
    EXPECT_EQ(reports[0].commandBufferError, "device lost");
}

TEST_F(FrameCoordinatorTest, AfterInvalidateAnOldTokenDoesNothing) {
    auto c = make();
    const Token t = token(c->begin());
    c->didSubmit(t);
    c->invalidate();
    const int idleBefore = idles;
    c->complete(t, TrackedCommandBufferStatus::error, "late");
    c->refuse(t, FrameRefusalReason::missingDrawable);
    EXPECT_EQ(idles, idleBefore);
    EXPECT_FALSE(c->inFailureEpisode());
    EXPECT_EQ(scheduler.pending(), 0u);
    EXPECT_TRUE(std::holds_alternative<FrameRefusalReason>(c->begin()));
    scheduler.advance(10s);
    EXPECT_EQ(draws, 0);
    EXPECT_TRUE(reports.empty());
}

TEST_F(FrameCoordinatorTest, InvalidateCancelsAPendingRetry) {
    auto c = make();
    const Token t = token(c->begin());
    c->refuse(t, FrameRefusalReason::missingDrawable);
    ASSERT_TRUE(c->retryPending());
    c->invalidate();
    scheduler.advance(10s);
    EXPECT_EQ(draws, 0);
    EXPECT_TRUE(reports.empty());
}

TEST(RendererHealthTest, StatesFollowTheRenderersLife) {
    using State = RendererStatus::State;
    RendererHealth health;
    EXPECT_EQ(health.status().state, State::disabled);
    health.rendererCreated();
    EXPECT_EQ(health.status().state, State::waitingForFirstFrame);
    health.didPresentAt(5s);
    EXPECT_EQ(health.status().state, State::healthy);
    EXPECT_EQ(health.status().presentedFrameCount, 1u);
    EXPECT_EQ(health.status().lastFramePresentedAt, std::chrono::nanoseconds(5s));
    EXPECT_TRUE(health.beginReplacementAfterFailure(6s));
    EXPECT_EQ(health.status().state, State::recovering);
    health.didPresentAt(7s);
    EXPECT_EQ(health.status().state, State::healthy);
    // A second failure before the minimum interval has passed ends in software drawing.
    EXPECT_FALSE(health.beginReplacementAfterFailure(8s));
    EXPECT_EQ(health.status().state, State::fellBackToCoreGraphics);
    EXPECT_STREQ(RendererStatus::describe(State::fellBackToCoreGraphics), "fell back to software");
    health.didPresentAt(9s);
    EXPECT_EQ(health.status().state, State::fellBackToCoreGraphics);
}

TEST(RendererHealthTest, ReplacementIsAllowedAgainAfterTheInterval) {
    RendererHealth health;
    health.rendererCreated();
    health.didPresentAt(1s);
    EXPECT_TRUE(health.beginReplacementAfterFailure(2s));
    health.didPresentAt(3s);
    EXPECT_TRUE(
        health.beginReplacementAfterFailure(2s + AutomaticRecoveryPolicy::kMinimumReplacementInterval));
    EXPECT_EQ(health.status().state, RendererStatus::State::recovering);
}

TEST(RendererHealthTest, AFailedRebuildFallsBackToSoftware) {
    RendererHealth health;
    health.rendererCreated();
    health.fellBackToSoftware();
    EXPECT_EQ(health.status().state, RendererStatus::State::fellBackToCoreGraphics);
    EXPECT_FALSE(health.beginReplacementAfterFailure(100s));
}

} // namespace
} // namespace termkit
