// The view's small rules: settings, bell, progress bar, redraw pacing, blinking, resize
// throttle, and the row cache.

#include <gtest/gtest.h>

#include "Termkit/view/DisplayPacing.h"
#include "Termkit/view/LiveResizeThrottle.h"
#include "Termkit/view/ProgressBarState.h"
#include "Termkit/view/TerminalViewSettings.h"
#include "Termkit/view/TextBlink.h"
#include "Termkit/view/render/RowCache.h"

namespace termkit {
namespace {

using namespace std::chrono_literals;

TEST(TerminalViewSettingsTest, BellStylesAskForSoundVisualBothOrNothing) {
    EXPECT_FALSE(bellActions(BellStyle::none).sound);
    EXPECT_FALSE(bellActions(BellStyle::none).visual);
    EXPECT_TRUE(bellActions(BellStyle::sound).sound);
    EXPECT_FALSE(bellActions(BellStyle::sound).visual);
    EXPECT_FALSE(bellActions(BellStyle::visual).sound);
    EXPECT_TRUE(bellActions(BellStyle::visual).visual);
    EXPECT_TRUE(bellActions(BellStyle::soundAndVisual).sound);
    EXPECT_TRUE(bellActions(BellStyle::soundAndVisual).visual);
}

TEST(TerminalViewSettingsTest, Defaults) {
    const TerminalViewSettings s;
    EXPECT_TRUE(s.optionAsMetaKey);
    EXPECT_FALSE(s.backspaceSendsControlH);
    EXPECT_TRUE(s.allowMouseReporting);
    EXPECT_TRUE(s.customBlockGlyphs);
    EXPECT_EQ(s.bufferingMode, BufferingMode::perRowPersistent);
    EXPECT_EQ(s.semanticClickCoalescingDelay, TerminalViewSettings::kSemanticClickCoalescingDelay);
    EXPECT_DOUBLE_EQ(s.scrollSensitivity, 1.0);
}

TEST(ProgressBarStateTest, ReportsShowAndRemoveTheBar) {
    ProgressBarState bar;
    EXPECT_FALSE(bar.visible());
    bar.handleProgressReport({ProgressReport::State::set, 40}, 1s);
    EXPECT_TRUE(bar.visible());
    EXPECT_DOUBLE_EQ(*bar.fraction(), 0.4);
    bar.handleProgressReport({ProgressReport::State::error, std::nullopt}, 2s);
    EXPECT_EQ(bar.state(), ProgressReport::State::error);
    EXPECT_EQ(bar.progress(), 40); // an error without a value keeps the last one
    bar.handleProgressReport({ProgressReport::State::indeterminate, std::nullopt}, 3s);
    EXPECT_FALSE(bar.fraction().has_value());
    bar.handleProgressReport({ProgressReport::State::remove, std::nullopt}, 4s);
    EXPECT_FALSE(bar.visible());
}

TEST(ProgressBarStateTest, ABarWithoutFurtherReportsGoesAway) {
    ProgressBarState bar(10s);
    bar.handleProgressReport({ProgressReport::State::set, 10}, 1s);
    EXPECT_EQ(bar.deadline(), std::chrono::nanoseconds(11s));
    EXPECT_FALSE(bar.expire(10s));
    bar.handleProgressReport({ProgressReport::State::set, 20}, 10s);
    EXPECT_FALSE(bar.expire(19s));
    EXPECT_TRUE(bar.expire(20s));
    EXPECT_FALSE(bar.visible());
    EXPECT_FALSE(bar.deadline());
    EXPECT_EQ(ProgressBarState::kStaleAfter, 15s);
}

TEST(DisplayPacingTest, OutputRequestsCoalesce) {
    DisplayPacing pacing;
    EXPECT_EQ(pacing.queuePendingDisplay(1s, false), DisplayPacing::Decision::scheduleDelay);
    EXPECT_EQ(pacing.queuePendingDisplay(1s + 1ms, false), DisplayPacing::Decision::alreadyQueued);
    EXPECT_EQ(pacing.queuePendingDisplay(1s + 2ms, false), DisplayPacing::Decision::alreadyQueued);
    EXPECT_TRUE(pacing.timerFired(false));
    EXPECT_EQ(pacing.queuePendingDisplay(1s + 5ms, false), DisplayPacing::Decision::alreadyQueued);
    pacing.displayed();
    EXPECT_EQ(pacing.queuePendingDisplay(1s + 20ms, false), DisplayPacing::Decision::scheduleDelay);
}

TEST(DisplayPacingTest, ARedrawRightAfterTypingGoesAheadAtOnce) {
    DisplayPacing pacing;
    pacing.noteUserInput(5s);
    EXPECT_EQ(pacing.queuePendingDisplay(5s + 3ms, false), DisplayPacing::Decision::drawNow);
    pacing.displayed();
    EXPECT_EQ(pacing.queuePendingDisplay(5s + DisplayPacing::kInteractiveInputDisplayWindow + 1ms, false),
              DisplayPacing::Decision::scheduleDelay);
}

TEST(DisplayPacingTest, SynchronizedOutputHoldsThePresentationUntilItEnds) {
    DisplayPacing pacing;
    pacing.noteUserInput(1s);
    EXPECT_EQ(pacing.queuePendingDisplay(1s, true), DisplayPacing::Decision::held);
    EXPECT_TRUE(pacing.holding());
    EXPECT_TRUE(pacing.synchronizedOutputEnded());
    EXPECT_TRUE(pacing.pending());
    EXPECT_FALSE(pacing.synchronizedOutputEnded()); // only once
    DisplayPacing timed;
    EXPECT_EQ(timed.queuePendingDisplay(1s, false), DisplayPacing::Decision::scheduleDelay);
    EXPECT_FALSE(timed.timerFired(true)); // the program began a synchronized update meanwhile
    EXPECT_TRUE(timed.synchronizedOutputEnded());
}

TEST(TextBlinkTest, RunsOnlyWhileBlinkingCellsAreShownInAnActiveWindow) {
    TextBlink blink;
    EXPECT_FALSE(blink.update(false, true));
    EXPECT_FALSE(blink.update(true, false));
    EXPECT_TRUE(blink.update(true, true));
    blink.tick();
    EXPECT_FALSE(blink.shown());
    // The window lost focus half way: the timer stops and the text is shown again.
    EXPECT_FALSE(blink.update(true, false));
    EXPECT_TRUE(blink.shown());
    EXPECT_FALSE(blink.running());
}

TEST(LiveResizeThrottleTest, OnUnlessSetToAFalseValue) {
    EXPECT_TRUE(liveResizeThrottleEnabled(nullptr, nullptr));
    EXPECT_FALSE(liveResizeThrottleEnabled("false", nullptr));
    EXPECT_FALSE(liveResizeThrottleEnabled("FALSE", nullptr));
    EXPECT_FALSE(liveResizeThrottleEnabled("0", nullptr));
    EXPECT_TRUE(liveResizeThrottleEnabled("true", nullptr));
    EXPECT_TRUE(liveResizeThrottleEnabled("", nullptr));
    // The older name is read as well; the newer wins when both are set.
    EXPECT_FALSE(liveResizeThrottleEnabled(nullptr, "False"));
    EXPECT_TRUE(liveResizeThrottleEnabled("yes", "false"));
}

CacheSignature signature(int rows) {
    CacheSignature s;
    s.rows = rows;
    s.cols = 80;
    s.cellWidth = 9;
    s.cellHeight = 18;
    s.fontName = "DejaVu Sans Mono";
    return s;
}

TEST(RowCacheTest, ARowIsReusedOnlyForTheSameLineGenerationAndRevision) {
    RowCache<int> cache;
    EXPECT_FALSE(cache.validate(signature(3)));
    int lineA = 0;
    int lineB = 0;
    EXPECT_EQ(cache.lookup(1, &lineA, 7, 0), nullptr);
    cache.store(1, &lineA, 7, 0, 42);
    ASSERT_NE(cache.lookup(1, &lineA, 7, 0), nullptr);
    EXPECT_EQ(*cache.lookup(1, &lineA, 7, 0), 42);
    EXPECT_EQ(cache.lookup(1, &lineA, 8, 0), nullptr); // the line changed
    EXPECT_EQ(cache.lookup(1, &lineB, 7, 0), nullptr); // another line scrolled into the row
    EXPECT_EQ(cache.lookup(1, &lineA, 7, 1), nullptr); // its paragraph was laid out again
    EXPECT_EQ(cache.lookup(2, &lineA, 7, 0), nullptr);
}

TEST(RowCacheTest, ANewSignatureDropsEverything) {
    RowCache<int> cache;
    cache.validate(signature(3));
    int line = 0;
    cache.store(0, &line, 1, 0, 5);
    EXPECT_TRUE(cache.validate(signature(3)));
    EXPECT_NE(cache.lookup(0, &line, 1, 0), nullptr);
    CacheSignature scrolled = signature(3);
    scrolled.yDisp = 4;
    EXPECT_FALSE(cache.validate(scrolled));
    EXPECT_EQ(cache.lookup(0, &line, 1, 0), nullptr);
    cache.store(0, &line, 1, 0, 5);
    CacheSignature alt = scrolled;
    alt.isAltBuffer = true;
    EXPECT_FALSE(cache.validate(alt));
    EXPECT_EQ(cache.lookup(0, &line, 1, 0), nullptr);
    EXPECT_EQ(cache.drops(), 3u);
    cache.store(2, &line, 1, 0, 6);
    cache.invalidateRows();
    EXPECT_EQ(cache.lookup(2, &line, 1, 0), nullptr);
    EXPECT_TRUE(cache.validate(alt));
}

} // namespace
} // namespace termkit
