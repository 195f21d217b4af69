#include "Termkit/process/RunLoop.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace termkit {
namespace {

using namespace std::chrono_literals;

TEST(RunLoopTest, RunsWorkInOrderOnTheRunningThread) {
    RunLoop loop;
    EXPECT_TRUE(loop.isMainQueue());
    EXPECT_FALSE(RunLoop(false).isMainQueue());
    std::vector<int> order;
    std::thread poster([&] {
        for (int i = 0; i < 100; ++i)
            loop.post([&order, i] { order.push_back(i); });
    });
    poster.join();
    EXPECT_EQ(loop.pendingCount(), 100u);
    const auto self = std::this_thread::get_id();
    bool onThisThread = false;
    loop.post([&] { onThisThread = std::this_thread::get_id() == self; });
    EXPECT_TRUE(loop.runUntil([&] { return loop.pendingCount() == 0; }, 1s));
    ASSERT_EQ(order.size(), 100u);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(order[static_cast<size_t>(i)], i);
    EXPECT_TRUE(onThisThread);
}

TEST(RunLoopTest, RunOneWaitsForWorkOrTimesOut) {
    RunLoop loop;
    EXPECT_FALSE(loop.runOne(10ms));
    bool ran = false;
    std::thread later([&] {
        std::this_thread::sleep_for(20ms);
        loop.post([&] { ran = true; });
    });
    EXPECT_TRUE(loop.runOne(5s));
    later.join();
    EXPECT_TRUE(ran);
}

TEST(RunLoopTest, RunUntilGivesUpAtTheTimeout) {
    RunLoop loop;
    EXPECT_FALSE(loop.runUntil([] { return false; }, 30ms));
}

TEST(RunLoopTest, QuitEndsRunAndWorkMayPostWork) {
    RunLoop loop;
    int count = 0;
    std::function<void()> step = [&] {
        if (++count < 5) {
            loop.post(step);
        } else {
            loop.quit();
        }
    };
    loop.post(step);
    loop.run();
    EXPECT_EQ(count, 5);
}

} // namespace
} // namespace termkit
