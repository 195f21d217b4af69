// The flow control between the reader thread and a main-queue executor.

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "Termkit/process/LocalProcess.h"
#include "Termkit/process/RunLoop.h"
#include "TermkitTests/process/ProcessTestSupport.h"
#include "TermkitTests/process/fakes/RecordingProcessDelegate.h"

namespace termkit {
namespace {

using namespace std::chrono_literals;
using testing::kWait;
using testing::RecordingProcessDelegate;

constexpr size_t kHigh = LocalProcess::kPendingHighWaterBytes;
constexpr size_t kLow = LocalProcess::kPendingLowWaterBytes;
constexpr size_t kRead = LocalProcess::kReadSize;

// Waits, without running the executor, until `done` holds for the process's backlog.
bool waitForStatus(LocalProcess& process,
                   const std::function<bool(const LocalProcess::PendingStatus&)>& done) {
    const auto deadline = std::chrono::steady_clock::now() + kWait;
    while (std::chrono::steady_clock::now() < deadline) {
        if (done(process.pendingStatus()))
            return true;
        std::this_thread::sleep_for(1ms);
    }
    return false;
}

// A child that writes `count` bytes at once and exits.
std::vector<std::string> flood(uint64_t count) {
    return {"-c", "head -c " + std::to_string(count) + " /dev/zero"};
}

TEST(BackpressureTest, AHundredMegabyteFloodNeverHoldsMoreThanTheHighWaterMarkAndOneRead) {
    constexpr uint64_t kFlood = 100'000'000;
    RunLoop loop;
    RecordingProcessDelegate host;
    host.countOnly = true;
    LocalProcess process(&host, loop);
    process.startProcess("/bin/sh", flood(kFlood));

    // Nobody delivers yet: reading stops at the high water mark and stays stopped.
    ASSERT_TRUE(waitForStatus(process, [](const auto& s) { return s.readSuspendedForBackpressure; }));
    const LocalProcess::PendingStatus stopped = process.pendingStatus();
    EXPECT_GE(stopped.pendingBytes, kHigh);
    EXPECT_LT(stopped.pendingBytes, kHigh + kRead);
    EXPECT_EQ(stopped.totalRead, stopped.pendingBytes);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(process.pendingStatus().totalRead, stopped.totalRead)
        << "a suspended reader resumes only through delivery";

    // Delivery brings the backlog down; reading resumes and stops again until the child is done.
    ASSERT_TRUE(loop.runUntil([&] { return host.exits > 0; }, kWait));
    const LocalProcess::PendingStatus end = process.pendingStatus();
    EXPECT_EQ(host.bytes, kFlood);
    EXPECT_EQ(end.totalRead, kFlood);
    EXPECT_EQ(host.exitCode, 0);
    EXPECT_LT(end.peakPendingBytes, kHigh + kRead);
    EXPECT_GE(end.suspensions, 1u);
    EXPECT_EQ(end.resumptions, end.suspensions);
    EXPECT_LE(end.bytesAtLastResumption, kLow);
    EXPECT_EQ(end.pendingBytes, 0u);
    EXPECT_EQ(end.storedChunks, 0u);
    ::testing::Test::RecordProperty("suspensions", static_cast<int>(end.suspensions));
    ::testing::Test::RecordProperty("peak_pending_bytes", static_cast<int>(end.peakPendingBytes));
}

TEST(BackpressureTest, ReadingResumesAsSoonAsTheBacklogIsAtTheLowWaterMark) {
    RunLoop loop;
    RecordingProcessDelegate host;
    host.countOnly = true;
    LocalProcess::Tuning tuning;
    tuning.pendingTimeSlice = 0ns; // one chunk per turn of the loop
    LocalProcess process(&host, loop, tuning);
    // While suspended, every delivery leaves more than the low water mark waiting.
    bool sawResume = false;
    host.onData = [&](std::span<const uint8_t>) {
        const auto s = process.pendingStatus();
        if (s.resumptions == 0) {
            EXPECT_TRUE(s.readSuspendedForBackpressure);
            EXPECT_GT(s.pendingBytes, kLow);
        } else {
            sawResume = true;
        }
    };
    process.startProcess("/bin/sh", flood(8'000'000));
    ASSERT_TRUE(waitForStatus(process, [](const auto& s) { return s.readSuspendedForBackpressure; }));
    EXPECT_GE(process.pendingStatus().bytesAtLastSuspension, kHigh);
    ASSERT_TRUE(loop.runUntil([&] { return sawResume; }, kWait));
    const auto s = process.pendingStatus();
    EXPECT_EQ(s.resumptions, 1u);
    EXPECT_LE(s.bytesAtLastResumption, kLow);
    // Not a chunk later than needed: the chunk before it had left more than the mark.
    EXPECT_GT(s.bytesAtLastResumption + kRead, kLow);
    ASSERT_TRUE(loop.runUntil([&] { return host.exits > 0; }, kWait));
    EXPECT_EQ(host.bytes, 8'000'000u);
}

TEST(BackpressureTest, DeliveryRunsInTimeSlices) {
    RunLoop loop;
    RecordingProcessDelegate host;
    host.countOnly = true;
    // A clock that moves one millisecond per delivery: four deliveries fill a slice.
    std::chrono::nanoseconds fakeNow{0};
    LocalProcess::Tuning tuning;
    tuning.readSize = 4096; // many small chunks, whatever the kernel's own buffer size
    tuning.clock = [&] { return fakeNow; };
    LocalProcess process(&host, loop, tuning);
    host.onData = [&](std::span<const uint8_t>) { fakeNow += 1ms; };
    process.startProcess("/bin/sh", flood(200'000));
    ASSERT_TRUE(waitForStatus(process, [](const auto& s) { return s.totalRead == 200'000; }));
    const size_t chunks = process.pendingStatus().storedChunks;
    ASSERT_GE(chunks, 12u);

    ASSERT_EQ(loop.pendingCount(), 1u); // one drain is scheduled, however many reads came
    ASSERT_TRUE(loop.runOne());
    EXPECT_EQ(host.deliveries, 4u);
    EXPECT_EQ(loop.pendingCount(), 1u) << "the slice ended and the next one was queued behind other work";
    EXPECT_EQ(process.pendingStatus().slicesCut, 1u);
    ASSERT_TRUE(loop.runOne());
    EXPECT_EQ(host.deliveries, 8u);
    ASSERT_TRUE(loop.runUntil([&] { return host.exits > 0; }, kWait));
    EXPECT_EQ(host.deliveries, chunks);
    EXPECT_EQ(host.bytes, 200'000u);
}

TEST(BackpressureTest, TheDeliveredFrontIsTrimmedAfterThirtyOneChunks) {
    RunLoop loop;
    RecordingProcessDelegate host;
    host.countOnly = true;
    LocalProcess::Tuning tuning;
    tuning.readSize = 4096; // many small chunks, whatever the kernel's own buffer size
    tuning.pendingTimeSlice = std::chrono::hours(1); // everything in one drain
    LocalProcess process(&host, loop, tuning);
    std::vector<std::pair<size_t, size_t>> seen; // (index, stored) at each delivery
    host.onData = [&](std::span<const uint8_t>) {
        const auto s = process.pendingStatus();
        seen.emplace_back(s.chunkIndex, s.storedChunks);
    };
    process.startProcess("/bin/sh", flood(400'000));
    ASSERT_TRUE(waitForStatus(process, [](const auto& s) { return s.totalRead == 400'000; }));
    const size_t chunks = process.pendingStatus().storedChunks;
    ASSERT_GE(chunks, 70u);
    ASSERT_TRUE(loop.runOne());
    ASSERT_EQ(seen.size(), chunks);
    for (size_t k = 1; k <= chunks; ++k) {
        EXPECT_EQ(seen[k - 1].first, k % 31) << "delivery " << k;
        EXPECT_EQ(seen[k - 1].second, chunks - 31 * (k / 31)) << "delivery " << k;
    }
    EXPECT_EQ(process.pendingStatus().storedChunks, 0u);
}

TEST(BackpressureTest, ElsewhereThanTheMainQueueEachReadIsDeliveredBeforeTheNext) {
    RunLoop loop(false);
    RecordingProcessDelegate host;
    host.countOnly = true;
    LocalProcess process(&host, loop);
    EXPECT_FALSE(process.usesMainQueue());
    process.startProcess("/bin/sh", flood(2'000'000));
    // The loop is not run: the reader waits on its first delivery.
    ASSERT_TRUE(waitForStatus(process, [](const auto& s) { return s.totalRead > 0; }));
    std::this_thread::sleep_for(100ms);
    const auto waiting = process.pendingStatus();
    EXPECT_LE(waiting.totalRead, kRead);
    EXPECT_EQ(loop.pendingCount(), 1u);
    ASSERT_TRUE(loop.runUntil([&] { return host.exits > 0; }, kWait));
    EXPECT_EQ(host.bytes, 2'000'000u);
    EXPECT_EQ(process.pendingStatus().peakPendingBytes, 0u);
    EXPECT_EQ(host.exitCode, 0);
}

TEST(BackpressureTest, TerminateWhileSuspendedStopsTheReader) {
    RunLoop loop;
    RecordingProcessDelegate host;
    host.countOnly = true;
    LocalProcess process(&host, loop);
    process.startProcess("/bin/sh", {"-c", "cat /dev/zero"});
    ASSERT_TRUE(waitForStatus(process, [](const auto& s) { return s.readSuspendedForBackpressure; }));
    const pid_t pid = process.shellPid();
    process.terminate();
    EXPECT_FALSE(process.running());
    // What was read is still handed over; nothing more is read and nobody is told of an end.
    const uint64_t read = process.pendingStatus().totalRead;
    loop.runUntil([&] { return host.bytes == read; }, kWait);
    EXPECT_EQ(host.bytes, read);
    EXPECT_EQ(process.pendingStatus().totalRead, read);
    EXPECT_EQ(host.exits, 0);
    EXPECT_TRUE(loop.runUntil([&] { return testing::processIsGone(pid); }, kWait));
}

} // namespace
} // namespace termkit
