#include "Termkit/process/LocalProcess.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>

#include "Termkit/process/PseudoTerminalHelpers.h"
#include "Termkit/process/RunLoop.h"
#include "TermkitTests/process/ProcessTestSupport.h"
#include "TermkitTests/process/fakes/RecordingProcessDelegate.h"

namespace termkit {
namespace {

using namespace std::chrono_literals;
using testing::hasLine;
using testing::kWait;
using testing::RecordingProcessDelegate;

std::span<const uint8_t> bytes(std::string_view text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

// One process on a loop driven by the test's own thread.
struct Fixture {
    explicit Fixture(bool mainQueue = true, LocalProcess::Tuning tuning = LocalProcess::Tuning())
        : loop(mainQueue), process(&host, loop, std::move(tuning)) {}
    bool waitForExit() {
        return loop.runUntil([&] { return host.exits > 0; }, kWait);
    }
    RunLoop loop;
    RecordingProcessDelegate host;
    LocalProcess process;
};

TEST(LocalProcessTest, ConstantsHaveTheirDocumentedValues) {
    EXPECT_EQ(LocalProcess::kReadSize, 131072u);
    EXPECT_EQ(LocalProcess::kPendingChunkFlushThreshold, 32u);
    EXPECT_EQ(LocalProcess::kPendingTimeSlice, std::chrono::nanoseconds(4'000'000));
    EXPECT_EQ(LocalProcess::kPendingHighWaterBytes, 4194304u);
    EXPECT_EQ(LocalProcess::kPendingLowWaterBytes, 1048576u);
    EXPECT_EQ(LocalProcess::kExitQuietPeriod, 100ms);
    EXPECT_EQ(LocalProcess::kExitPollInterval, 20ms);
    EXPECT_EQ(PseudoTerminalHelpers::kExecFailedStatus, 127);
    const LocalProcess::Tuning tuning;
    EXPECT_EQ(tuning.readSize, LocalProcess::kReadSize);
    EXPECT_EQ(tuning.pendingChunkFlushThreshold, LocalProcess::kPendingChunkFlushThreshold);
    EXPECT_EQ(tuning.pendingTimeSlice, LocalProcess::kPendingTimeSlice);
    EXPECT_EQ(tuning.pendingHighWaterBytes, LocalProcess::kPendingHighWaterBytes);
    EXPECT_EQ(tuning.pendingLowWaterBytes, LocalProcess::kPendingLowWaterBytes);
    EXPECT_EQ(tuning.exitQuietPeriod, LocalProcess::kExitQuietPeriod);
    EXPECT_EQ(tuning.exitPollInterval, LocalProcess::kExitPollInterval);
    EXPECT_TRUE(tuning.useProcessDescriptor);
    EXPECT_FALSE(tuning.clock);
}

TEST(LocalProcessTest, StartsNotRunning) {
    Fixture f;
    EXPECT_FALSE(f.process.running());
    EXPECT_EQ(f.process.childfd(), -1);
    EXPECT_EQ(f.process.shellPid(), 0);
    EXPECT_TRUE(f.process.usesMainQueue());
    EXPECT_FALSE(f.process.debugIO());
    f.process.terminate(); // nothing to stop: no effect, no call
    EXPECT_EQ(f.host.exits, 0);
}

TEST(LocalProcessTest, ExitStatusIsReportedAfterTheOutput) {
    Fixture f;
    f.process.startProcess("/bin/sh", {"-c", "echo before; exit 3"});
    EXPECT_TRUE(f.process.running());
    EXPECT_GE(f.process.childfd(), 0);
    EXPECT_GT(f.process.shellPid(), 0);
    ASSERT_TRUE(f.waitForExit());
    EXPECT_EQ(f.host.exitCode, 3);
    EXPECT_EQ(f.process.exitCode(), 3);
    EXPECT_EQ(f.host.events, (std::vector<std::string>{"data", "exit"}));
    EXPECT_EQ(f.host.output, "before\r\n");
    EXPECT_FALSE(f.process.running());
}

TEST(LocalProcessTest, AMissingExecutableEndsWithStatus127) {
    Fixture f;
    f.process.startProcess("/nonexistent/termkit-no-such-program");
    ASSERT_TRUE(f.waitForExit());
    EXPECT_EQ(f.host.exitCode, 127);
    EXPECT_EQ(f.host.exits, 1);
    EXPECT_FALSE(f.process.running());
}

TEST(LocalProcessTest, AChildKilledByASignalReportsTheShellsStatus) {
    Fixture f;
    f.process.startProcess("/bin/sh", {"-c", "kill -9 $$"});
    ASSERT_TRUE(f.waitForExit());
    EXPECT_EQ(f.host.exitCode, 128 + SIGKILL);
}

TEST(LocalProcessTest, ExecNameBecomesArgvZero) {
    Fixture f;
    f.process.startProcess("/bin/sh", {"-c", "echo \"[$0]\""}, std::nullopt, "-loginsh");
    ASSERT_TRUE(f.waitForExit());
    EXPECT_EQ(f.host.lines(), (std::vector<std::string>{"[-loginsh]"}));

    Fixture plain;
    plain.process.startProcess("/bin/sh", {"-c", "echo \"[$0]\""});
    ASSERT_TRUE(plain.waitForExit());
    EXPECT_EQ(plain.host.lines(), (std::vector<std::string>{"[/bin/sh]"}));
}

TEST(LocalProcessTest, WithoutAnEnvironmentTheChildGetsTheTerminalsOwn) {
    Fixture f;
    f.process.startProcess("/usr/bin/env");
    ASSERT_TRUE(f.waitForExit());
    const auto lines = f.host.lines();
    EXPECT_TRUE(hasLine(lines, "TERM=xterm-256color"));
    EXPECT_TRUE(hasLine(lines, "COLORTERM=truecolor"));
    EXPECT_TRUE(hasLine(lines, "LANG=en_US.UTF-8"));
    // Exactly the terminal's list: what the parent has beyond it stays behind.
    std::vector<std::string> expected;
    for (const std::string& entry : Terminal::getEnvironmentVariables("xterm-256color", true)) {
        if (!hasLine(expected, entry))
            expected.push_back(entry);
    }
    std::vector<std::string> unique;
    for (const std::string& line : lines) {
        if (!hasLine(unique, line))
            unique.push_back(line);
    }
    EXPECT_EQ(unique, expected);
}

TEST(LocalProcessTest, AGivenEnvironmentIsTheWholeEnvironment) {
    Fixture f;
    f.process.startProcess("/usr/bin/env", {}, std::vector<std::string>{"ALPHA=1", "BETA=two words"});
    ASSERT_TRUE(f.waitForExit());
    EXPECT_EQ(f.host.lines(), (std::vector<std::string>{"ALPHA=1", "BETA=two words"}));
}

TEST(LocalProcessTest, TheChildStartsInTheGivenDirectory) {
    const std::string dir = testing::makeTempDir();
    ASSERT_FALSE(dir.empty());
    Fixture f;
    f.process.startProcess("/bin/pwd", {"-P"}, std::nullopt, std::nullopt, dir);
    ASSERT_TRUE(f.waitForExit());
    char resolved[PATH_MAX];
    ASSERT_NE(realpath(dir.c_str(), resolved), nullptr);
    EXPECT_EQ(f.host.lines(), (std::vector<std::string>{resolved}));
    rmdir(dir.c_str());
}

TEST(LocalProcessTest, TheWindowSizeComesFromTheDelegate) {
    Fixture f;
    f.host.windowSize = winsize{33, 111, 0, 0};
    f.process.startProcess("/bin/sh", {"-c", "stty size"});
    ASSERT_TRUE(f.waitForExit());
    EXPECT_EQ(f.host.lines(), (std::vector<std::string>{"33 111"}));

    Fixture none; // no size from the host: zero
    none.process.startProcess("/bin/sh", {"-c", "stty size"});
    ASSERT_TRUE(none.waitForExit());
    EXPECT_EQ(none.host.lines(), (std::vector<std::string>{"0 0"}));
}

TEST(LocalProcessTest, SendReachesTheChildFromAnyThread) {
    Fixture f;
    f.process.startProcess("/bin/sh", {"-c", "read line; echo \"got<$line>\""});
    std::thread writer([&] { f.process.send(bytes("from another thread\n")); });
    writer.join();
    ASSERT_TRUE(f.waitForExit());
    EXPECT_TRUE(hasLine(f.host.lines(), "got<from another thread>"));
    EXPECT_EQ(f.process.sendCount(), 1u);
    EXPECT_EQ(f.process.total(), 20u);
}

TEST(LocalProcessTest, ALargeSendDoesNotBlockTheCaller) {
    const std::string dir = testing::makeTempDir();
    ASSERT_FALSE(dir.empty());
    const std::string flag = dir + "/go";
    Fixture f;
    // The child reads nothing until the flag exists; without echo, the count stands alone.
    f.process.startProcess("/bin/sh", {"-c", "stty -echo; echo ready; while [ ! -e " + flag +
                                                 " ]; do sleep 0.01; done; head -c 1000000 | wc -c"});
    ASSERT_TRUE(f.loop.runUntil([&] { return hasLine(f.host.lines(), "ready"); }, kWait));
    std::string line(99, 'x');
    line += '\n';
    std::string block;
    for (int i = 0; i < 10000; ++i)
        block += line;
    f.process.send(bytes(block));
    // The terminal holds a few kilobytes of unread input: send returned with the rest queued.
    std::this_thread::sleep_for(50ms);
    EXPECT_LT(f.process.total(), 1000000u);
    std::ofstream(flag).put('1');
    ASSERT_TRUE(f.waitForExit());
    std::remove(flag.c_str());
    rmdir(dir.c_str());
    EXPECT_EQ(f.process.total(), 1000000u);
    EXPECT_EQ(f.host.lines(), (std::vector<std::string>{"ready", "1000000"}));
    EXPECT_EQ(f.host.exitCode, 0);
}

TEST(LocalProcessTest, SendWhenNotRunningIsDropped) {
    Fixture f;
    f.process.send(bytes("nobody listens"));
    EXPECT_EQ(f.process.sendCount(), 0u);
    f.process.startProcess("/bin/sh", {"-c", "exit 0"});
    ASSERT_TRUE(f.waitForExit());
    f.process.send(bytes("too late"));
    EXPECT_EQ(f.process.sendCount(), 0u);
}

TEST(LocalProcessTest, TerminateStopsAChildWithoutTellingTheDelegate) {
    Fixture f;
    f.process.startProcess("/bin/sleep", {"30"});
    const pid_t pid = f.process.shellPid();
    ASSERT_GT(pid, 0);
    f.process.terminate();
    EXPECT_FALSE(f.process.running());
    EXPECT_EQ(f.process.childfd(), -1);
    EXPECT_EQ(f.process.shellPid(), pid);
    // The child dies and is collected (no zombie is left), and nobody is told.
    EXPECT_TRUE(f.loop.runUntil([&] { return testing::processIsGone(pid); }, kWait));
    f.loop.runUntil([] { return false; }, 200ms);
    EXPECT_EQ(f.host.exits, 0);
    EXPECT_FALSE(f.process.exitCode());
}

TEST(LocalProcessTest, TerminateAfterExitChangesNothing) {
    Fixture f;
    f.process.startProcess("/bin/sh", {"-c", "exit 5"});
    ASSERT_TRUE(f.waitForExit());
    const pid_t pid = f.process.shellPid();
    f.process.terminate();
    f.process.terminate();
    f.loop.runUntil([] { return false; }, 200ms);
    EXPECT_EQ(f.host.exits, 1);
    EXPECT_EQ(f.host.exitCode, 5);
    EXPECT_EQ(f.process.exitCode(), 5);
    EXPECT_EQ(f.process.shellPid(), pid);
    EXPECT_FALSE(f.process.running());
    // The child was collected when its exit was reported; nothing is left under its id.
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(LocalProcessTest, AnExitQueuedBehindOutputIsDroppedByTerminate) {
    Fixture f;
    f.process.startProcess("/bin/sh", {"-c", "echo bye"});
    // The loop is not run: the output and the exit wait for it.
    for (int i = 0; i < 2000 && f.process.pendingStatus().totalRead < 5; ++i)
        std::this_thread::sleep_for(1ms);
    std::this_thread::sleep_for(300ms);
    f.process.terminate();
    f.loop.runUntil([] { return false; }, 200ms);
    EXPECT_EQ(f.host.exits, 0);
}

TEST(LocalProcessTest, TheLastOutputArrivesBeforeTheExit) {
    for (const bool mainQueue : {true, false}) {
        for (int round = 0; round < 20; ++round) {
            Fixture f(mainQueue);
            f.process.startProcess("/bin/sh", {"-c", "printf 'last words'"});
            ASSERT_TRUE(f.waitForExit());
            EXPECT_EQ(f.host.output, "last words") << "main queue " << mainQueue << " round " << round;
            EXPECT_EQ(f.host.events, (std::vector<std::string>{"data", "exit"}));
        }
    }
}

TEST(LocalProcessTest, AProgramLeftBehindDoesNotHoldBackTheExit) {
    for (const bool descriptor : {true, false}) {
        LocalProcess::Tuning tuning;
        tuning.useProcessDescriptor = descriptor;
        Fixture f(true, tuning);
        // The background sleep outlives the shell and ignores the hang-up of the terminal.
        f.process.startProcess("/bin/sh", {"-c", "(trap '' HUP; exec sleep 5) & echo $!; exit 4"});
        ASSERT_TRUE(f.waitForExit());
        EXPECT_EQ(f.host.exitCode, 4);
        ASSERT_EQ(f.host.lines().size(), 1u);
        const pid_t leftBehind = std::atoi(f.host.lines()[0].c_str());
        ASSERT_GT(leftBehind, 0);
        EXPECT_FALSE(testing::processIsGone(leftBehind)) << "reported while the program still ran";
        kill(leftBehind, SIGKILL);
        f.process.terminate();
    }
}

TEST(LocalProcessTest, WithoutProcessDescriptorsTheExitIsFoundByPolling) {
    LocalProcess::Tuning tuning;
    tuning.useProcessDescriptor = false;
    Fixture f(true, tuning);
    f.process.startProcess("/bin/sh", {"-c", "echo polled; exit 6"});
    ASSERT_TRUE(f.waitForExit());
    EXPECT_EQ(f.host.exitCode, 6);
    EXPECT_EQ(f.host.events, (std::vector<std::string>{"data", "exit"}));

    Fixture stopped(true, tuning);
    stopped.process.startProcess("/bin/sleep", {"30"});
    const pid_t pid = stopped.process.shellPid();
    stopped.process.terminate();
    EXPECT_TRUE(stopped.loop.runUntil([&] { return testing::processIsGone(pid); }, kWait));
    EXPECT_EQ(stopped.host.exits, 0);
}

TEST(LocalProcessTest, ItCanStartAgainAfterTheChildEnded) {
    Fixture f;
    f.process.startProcess("/bin/sh", {"-c", "exit 1"});
    ASSERT_TRUE(f.waitForExit());
    const pid_t first = f.process.shellPid();
    f.process.startProcess("/bin/sh", {"-c", "echo second; exit 2"});
    EXPECT_TRUE(f.process.running());
    EXPECT_NE(f.process.shellPid(), first);
    ASSERT_TRUE(f.loop.runUntil([&] { return f.host.exits == 2; }, kWait));
    EXPECT_EQ(f.host.exitCode, 2);
    EXPECT_EQ(f.process.exitCode(), 2);
    // Each start lets go of the previous child's descriptors.
    const size_t open = testing::openDescriptorCount();
    for (int round = 3; round <= 6; ++round) {
        f.process.startProcess("/bin/sh", {"-c", "exit 0"});
        ASSERT_TRUE(f.loop.runUntil([&] { return f.host.exits == round; }, kWait));
    }
    EXPECT_EQ(testing::openDescriptorCount(), open);
}

TEST(LocalProcessTest, StartIsIgnoredWhileRunning) {
    Fixture f;
    f.process.startProcess("/bin/sleep", {"30"});
    const pid_t pid = f.process.shellPid();
    f.process.startProcess("/bin/sh", {"-c", "exit 9"});
    EXPECT_EQ(f.process.shellPid(), pid);
    f.process.terminate();
}

TEST(LocalProcessTest, TheDelegateMayDestroyTheProcessWhenTold) {
    RunLoop loop;
    RecordingProcessDelegate host;
    auto process = std::make_unique<LocalProcess>(&host, loop);
    host.onExit = [&](LocalProcess&) { process.reset(); };
    process->startProcess("/bin/sh", {"-c", "echo gone"});
    ASSERT_TRUE(loop.runUntil([&] { return host.exits > 0; }, kWait));
    EXPECT_EQ(process, nullptr);
    loop.runUntil([] { return false; }, 100ms); // stale work finds nothing to touch
    EXPECT_EQ(host.exits, 1);
}

TEST(LocalProcessTest, DestroyingTheProcessStopsItsChild) {
    RunLoop loop;
    RecordingProcessDelegate host;
    pid_t pid = 0;
    {
        LocalProcess process(&host, loop);
        process.startProcess("/bin/sleep", {"30"});
        pid = process.shellPid();
    }
    EXPECT_TRUE(loop.runUntil([&] { return testing::processIsGone(pid); }, kWait));
    EXPECT_EQ(host.exits, 0);
}

TEST(LocalProcessTest, DebugIOLogsReadsAndWrites) {
    Fixture f;
    std::mutex lock;
    std::vector<std::string> logged;
    f.process.debugLog = [&](std::string_view line) {
        std::lock_guard guard(lock);
        logged.emplace_back(line);
    };
    f.process.setDebugIO(true);
    f.process.startProcess("/bin/sh", {"-c", "stty -echo; echo ready; read x; echo \"<$x>\""});
    ASSERT_TRUE(f.loop.runUntil([&] { return f.host.output.find("ready") != std::string::npos; }, kWait));
    f.process.send(bytes("hi\n"));
    ASSERT_TRUE(f.waitForExit());
    std::lock_guard guard(lock);
    EXPECT_TRUE(hasLine(logged, "[SEND-1] Queuing data to client: hi\n"));
    EXPECT_TRUE(hasLine(logged, "[SEND-1] completed bytes=3"));
    const std::string firstRead = "[READ] count=7 received from host total=7"; // "ready\r\n"
    EXPECT_TRUE(hasLine(logged, firstRead));
}

TEST(LocalProcessTest, HostLoggingDumpsEveryReadToItsOwnFile) {
    const std::string dir = testing::makeTempDir();
    ASSERT_FALSE(dir.empty());
    Fixture f;
    f.process.setHostLogging(dir);
    f.process.startProcess("/bin/sh", {"-c", "seq 1 3000"});
    ASSERT_TRUE(f.waitForExit());
    std::string joined;
    int files = 0;
    for (;; ++files) {
        std::ifstream in(dir + "/log-" + std::to_string(files), std::ios::binary);
        if (!in)
            break;
        std::stringstream content;
        content << in.rdbuf();
        joined += content.str();
        std::remove((dir + "/log-" + std::to_string(files)).c_str());
    }
    rmdir(dir.c_str());
    EXPECT_EQ(static_cast<uint64_t>(files), f.host.deliveries);
    EXPECT_EQ(joined, f.host.output);
}

TEST(LocalProcessTest, AFailedDumpIsLoggedAndDeliveryGoesOn) {
    Fixture f;
    std::mutex lock;
    std::vector<std::string> logged;
    f.process.debugLog = [&](std::string_view line) {
        std::lock_guard guard(lock);
        logged.emplace_back(line);
    };
    f.process.setHostLogging("/nonexistent/termkit-logs");
    f.process.startProcess("/bin/sh", {"-c", "echo kept"});
    ASSERT_TRUE(f.waitForExit());
    EXPECT_EQ(f.host.output, "kept\r\n");
    std::lock_guard guard(lock);
    EXPECT_TRUE(hasLine(logged, "Got error while logging data dump to /nonexistent/termkit-logs/log-0"));
}

} // namespace
} // namespace termkit
